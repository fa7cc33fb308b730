// Loopback helpers shared by the tests and the benchmarks (no GoogleTest
// here): free ports below 32768, a UDP sender, sealed datagrams, and an
// access object configured to receive on five fresh ports.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "os/OrvosiUtil.hpp"

namespace orvtest {

using Bytes = std::vector<unsigned char>;

inline sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// True when nobody holds `port` for UDP or TCP on any interface. A plain
// bind (no SO_REUSEPORT) fails even against sockets that set it.
inline bool portIsFree(int port) {
    for (int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int fd = socket(AF_INET, type, 0);
        if (fd < 0) return false;
        sockaddr_in a = loopback(port);
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        ::close(fd);
        if (!ok) return false;
    }
    return true;
}

// A port in 20000..32767 that is free now, or 0. The library refuses ports
// above 32767, so the kernel's ephemeral range is of no use. The search
// starts at a place derived from the process id, so that parallel processes
// (ctest -j, two builds at once) spread out instead of racing for one port.
inline int findFreePort() {
    static std::atomic<int> next{0};
    constexpr int kLow = 20000, kSpan = 32767 - 20000;
    const int start = static_cast<int>((getpid() * 97) % kSpan);
    for (int i = 0; i < kSpan; ++i) {
        const int port = kLow + (start + next.fetch_add(1) * 7 + i) % kSpan;
        if (portIsFree(port)) return port;
    }
    return 0;
}

// Sends datagrams to ports on 127.0.0.1.
class UdpSender {
public:
    UdpSender() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {}
    ~UdpSender() {
        if (fd_ >= 0) ::close(fd_);
    }
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    bool send(int port, const void* data, size_t size) const {
        const sockaddr_in to = loopback(port);
        return sendto(fd_, data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) ==
               static_cast<ssize_t>(size);
    }
    bool send(int port, const Bytes& b) const { return send(port, b.data(), b.size()); }
    bool send(int port, const std::string& s) const { return send(port, s.data(), s.size()); }

private:
    int fd_;
};

// Writes the start byte, the length word and the closing checksum byte of
// a datagram whose body is already in place.
inline Bytes& seal(Bytes& b, unsigned char start) {
    b[0] = start;
    OrvosiUtil::lendian(&b[1], b.size(), 2);
    b.back() = static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size() - 1));
    return b;
}

// A datagram of `size` bytes with the common framing and a body pattern.
inline Bytes sealedFrame(unsigned char start, size_t size) {
    Bytes b(size);
    for (size_t i = 0; i < size; ++i) b[i] = static_cast<unsigned char>(i * 7);
    return seal(b, start);
}

// The same with a zero body: every parser reads it as an empty record of its
// kind (no interval, no offsets, no counts).
inline Bytes zeroFrame(unsigned char start, size_t size) {
    Bytes b(size, 0);
    return seal(b, start);
}

// The five receive ports of an access object, in service order.
enum Port { kMeta, kImage, kCore, kHub, kNft };

// Configuration text for an object that receives on the given five ports,
// with no command channel, no uplink and no shared memory; `extra` is
// appended (later keys win).
inline std::string receiverIni(const int (&port)[5], const std::string& extra = "") {
    return "[Communication]\ntcpOrvRxEnabled = 0\nudpOrvRxInputPort = 0\nsMemImgName =\nudpOrvRxPort = " +
           std::to_string(port[kMeta]) + "\nudpOrvRxImgPort = " + std::to_string(port[kImage]) +
           "\nudpOrvCorePort = " + std::to_string(port[kCore]) +
           "\nudpOrvHubPort = " + std::to_string(port[kHub]) +
           "\nudpNftPort = " + std::to_string(port[kNft]) + "\n" + extra;
}

}  // namespace orvtest
