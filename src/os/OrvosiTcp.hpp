// One IPv4 stream connection to a server: the command channel to orvRx.
// Never throws; operations return a success flag and keep the reason in
// getLastError(). There is no reconnect: a lost connection shows up as read
// or write failures.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <string>

class OrvosiTcpClient {
public:
    OrvosiTcpClient();
    ~OrvosiTcpClient();
    OrvosiTcpClient(const OrvosiTcpClient&) = delete;
    OrvosiTcpClient& operator=(const OrvosiTcpClient&) = delete;

    // host: dotted-decimal or a name to look up. timeoutUs: receive
    // time-out in microseconds; 0 or less makes the socket non-blocking.
    bool open(const char* host, int port, int timeoutUs);
    // One receive call. True with *received 0: nothing now (or the peer
    // closed); false: a real socket error.
    bool read(char* buffer, size_t capacity, int* received);
    bool write(const char* data, size_t length);
    // Discards everything already received.
    bool flush();
    int close();
    std::string getLastError() const { return lastError_; }
    // The socket, for polling or option queries; -1 when closed.
    int descriptor() const { return fd_; }

private:
    int fd_ = -1;
    std::string lastError_;
    timeval timeout_{};
};
