// What the UDP and TCP endpoints share beyond the codec.
#pragma once

#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

#include "os/OrvosiUtil.hpp"

// Discards what a socket has already queued: asks FIONREAD how many bytes
// wait and reads them with `read(buffer, capacity, &received)` into a
// 100-byte scratch buffer until none do. For a datagram socket FIONREAD
// reports the next datagram only, so an empty datagram at the head ends the
// flush there.
template <typename Read>
bool orvosiDrainSocket(int fd, std::string& error, Read&& read) {
    char scratch[100];
    for (;;) {
        int waiting = 0;
        if (ioctl(fd, FIONREAD, &waiting) != 0)
            return OrvosiUtil::failWithSystemText(error, "Failed to query FIONREAD...");
        if (waiting <= 0) return true;
        int received = 0;
        if (!read(scratch, sizeof scratch, &received)) return false;
    }
}

// Closes a descriptor the endpoint owns and marks it closed; an endpoint that
// was never opened (or is closed already) is left alone and gives -1.
inline int orvosiCloseSocket(int& fd) {
    if (fd < 0) return -1;
    const int result = ::close(fd);
    fd = -1;
    return result;
}
