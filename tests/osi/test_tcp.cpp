// TCP client against a real listening socket on 127.0.0.1. connect()
// completes against the listen backlog, so the test accepts afterwards.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "osi/OrvosiTcp.hpp"
#include "support/TestSupport.hpp"

namespace {

struct Listener {
    int port = orvtest::freePort();
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    Listener() {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        EXPECT_EQ(listen(fd, 4), 0);
    }
    ~Listener() { ::close(fd); }
};

template <class T>
T option(int fd, int level, int name) {
    T value{};
    socklen_t len = sizeof value;
    EXPECT_EQ(getsockopt(fd, level, name, &value, &len), 0);
    return value;
}

bool waitQueued(int fd, int bytes) {
    int n = 0;
    for (int i = 0; i < 200 && (ioctl(fd, FIONREAD, &n) != 0 || n < bytes); ++i) poll(nullptr, 0, 10);
    return n >= bytes;
}

}  // namespace

TEST(TcpClient, NonBlockingRoundTripFlushAndPeerLoss) {
    Listener server;
    OrvosiTcpClient c;
    ASSERT_TRUE(c.open("127.0.0.1", server.port, 0)) << c.getLastError();
    const int peer = accept(server.fd, nullptr, nullptr);
    EXPECT_NE(option<int>(c.descriptor(), IPPROTO_TCP, TCP_NODELAY), 0);

    char buf[300];
    int n = -1;
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));  // would hang if the socket blocked
    EXPECT_EQ(n, 0);
    ASSERT_TRUE(c.write("\xAB\x01", 2));
    ASSERT_EQ(recv(peer, buf, sizeof buf, 0), 2);
    ASSERT_EQ(send(peer, "reply", 5, 0), 5);
    ASSERT_TRUE(waitQueued(c.descriptor(), 5));
    ASSERT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "reply");

    ASSERT_EQ(send(peer, std::string(250, 'j').data(), 250, 0), 250);
    ASSERT_TRUE(waitQueued(c.descriptor(), 250));
    EXPECT_TRUE(c.flush());
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(n, 0);

    // A vanished peer: writes fail (the first may still be taken) and no
    // SIGPIPE ends the process.
    ::close(peer);
    bool written = true;
    for (int i = 0; i < 50 && written; ++i)
        if ((written = c.write("x", 1))) poll(nullptr, 0, 10);
    ASSERT_FALSE(written);
    const std::string prefix = "Error writing to socket...";
    EXPECT_TRUE(c.getLastError() == prefix + strerror(EPIPE) ||
                c.getLastError() == prefix + strerror(ECONNRESET))
        << c.getLastError();

    EXPECT_EQ(c.close(), 0);
    EXPECT_FALSE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(c.getLastError(), std::string("Error reading TCP port...") + strerror(EBADF));
    EXPECT_EQ(c.close(), -1);
}

TEST(TcpClient, ReceiveTimeoutIsSplitAndApplied) {
    Listener server;
    OrvosiTcpClient slow;
    ASSERT_TRUE(slow.open("localhost", server.port, 2500000)) << slow.getLastError();
    EXPECT_EQ(slow.receiveTimeout().tv_sec, 2);
    EXPECT_EQ(slow.receiveTimeout().tv_usec, 500000);
    timeval applied = option<timeval>(slow.descriptor(), SOL_SOCKET, SO_RCVTIMEO);
    EXPECT_EQ(applied.tv_sec, 2);
    EXPECT_EQ(applied.tv_usec, 500000);
    slow.close();

    OrvosiTcpClient quick;
    ASSERT_TRUE(quick.open("127.0.0.1", server.port, 500)) << quick.getLastError();
    EXPECT_EQ(quick.receiveTimeout().tv_sec, 0);
    EXPECT_EQ(quick.receiveTimeout().tv_usec, 500);
    applied = option<timeval>(quick.descriptor(), SOL_SOCKET, SO_RCVTIMEO);
    EXPECT_EQ(applied.tv_sec, 0);  // the kernel rounds up to its tick
    EXPECT_GT(applied.tv_usec, 0);
    char buf[4];
    int n = -1;
    EXPECT_TRUE(quick.read(buf, sizeof buf, &n));  // times out: nothing, no error
    EXPECT_EQ(n, 0);
    quick.close();
}

TEST(TcpClient, OpenFailuresNameTheirStep) {
    OrvosiTcpClient c;
    EXPECT_EQ(c.close(), -1);
    EXPECT_FALSE(c.open("no.such.host.invalid", 51717, 0));
    EXPECT_EQ(c.getLastError(), "No such host");
    EXPECT_FALSE(c.open("127.0.0.1", orvtest::freePort(), 0));  // nobody listens there
    EXPECT_EQ(c.getLastError(), std::string("Failed to connect...") + strerror(ECONNREFUSED));
    c.close();
}
