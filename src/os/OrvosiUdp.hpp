// IPv4 datagram endpoints. OrvosiUdpClient receives (bound on all
// interfaces, non-blocking); OrvosiUdpServer sends to one fixed destination,
// which may be the limited broadcast address. Neither throws: operations
// return a success flag and keep the reason in getLastError().
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

class OrvosiUdpClient {
public:
    OrvosiUdpClient();
    ~OrvosiUdpClient();
    OrvosiUdpClient(const OrvosiUdpClient&) = delete;
    OrvosiUdpClient& operator=(const OrvosiUdpClient&) = delete;

    // port: decimal text up to 32767, or "*" for any port. blocking false
    // makes reads return at once.
    bool open(const char* port, int receiveBufferSize, bool blocking);
    // At most one datagram. True with *received 0 means nothing is waiting;
    // false is a real socket error. With `from`, the sender's IPv4 address
    // (network byte order) is stored there; without, it is not asked for.
    bool read(char* buffer, size_t capacity, int* received, uint32_t* from = nullptr);
    // Up to `count` datagrams (at most kMaxBatch) in one system call, the
    // i-th into base + i * stride, at most stride bytes; their sizes go to
    // sizes[i], and with `from` their senders' addresses to from[i]. True
    // with *received 0 means nothing is waiting; false is a real socket
    // error (datagrams read before it are reported by the call).
    static constexpr size_t kMaxBatch = 64;
    bool readMany(unsigned char* base, size_t stride, size_t count, size_t* sizes, size_t* received,
                  uint32_t* from = nullptr);
    // At most one datagram, laid out over `count` buffers in turn, so that a
    // caller can put a header and a body in different places. True with
    // *received 0 means nothing is waiting; false is a real socket error.
    // `from` as for read().
    bool readScattered(const iovec* pieces, size_t count, size_t* received, uint32_t* from = nullptr);
    // Discards every datagram already queued.
    bool flush();
    int close();
    std::string getLastError() const { return lastError_; }
    // Local port actually bound (useful after open("*")); 0 when unknown.
    int localPort() const;
    // The socket, for polling or option queries; -1 when closed.
    int descriptor() const { return fd_; }

private:
    int fd_ = -1;
    std::string lastError_;
};

class OrvosiUdpServer {
public:
    OrvosiUdpServer();
    ~OrvosiUdpServer();
    OrvosiUdpServer(const OrvosiUdpServer&) = delete;
    OrvosiUdpServer& operator=(const OrvosiUdpServer&) = delete;

    // destination: "host:port"; host "*" is the broadcast address, "localhost"
    // is 127.0.0.1, anything else must be dotted-decimal (no name look-up).
    bool open(const char* destination);
    bool write(const char* data, size_t length);
    int close();
    std::string getLastError() const { return lastError_; }

    // host:port text into an IPv4 socket address. 0 on success, -1 for a bad
    // host or a non-numeric port, -2 for a port above 32767 or followed by
    // other characters. A missing part counts as "*".
    int mkaddr(void* address, int* addressLength, const char* text, const char* protocol,
               bool broadcastForAny);

    // Where write() sends, as formed by open().
    const sockaddr_in& destination() const { return destination_; }
    int descriptor() const { return fd_; }

private:
    int fd_ = -1;
    sockaddr_in destination_{};
    int destinationLength_ = 0;
    std::string lastError_;
};
