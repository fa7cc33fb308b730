// TCP client against a real listening socket on 127.0.0.1. connect()
// completes against the listen backlog, so the test accepts afterwards.
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "os/OrvosiTcp.hpp"
#include "support/TestSupport.hpp"

namespace {

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

TEST(TcpClient, NonBlockingFlushCloseTimeoutsAndUnknownHost) {
    const int port = orvtest::freePort(), listener = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in a = orvtest::loopback(port);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&a), sizeof a) | listen(listener, 4), 0);
    OrvosiTcpClient c, slow, quick;
    ASSERT_TRUE(c.open("127.0.0.1", port, 0)) << c.getLastError();
    const int peer = accept(listener, nullptr, nullptr);
    EXPECT_NE(option<int>(c.descriptor(), IPPROTO_TCP, TCP_NODELAY), 0);
    char buf[300];
    int n = -1;
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));  // would hang if the socket blocked
    EXPECT_EQ(n, 0);
    ASSERT_TRUE(c.write("\xAB\x01", 2));
    ASSERT_EQ(recv(peer, buf, sizeof buf, 0), 2);
    ASSERT_EQ(send(peer, std::string(250, 'j').data(), 250, 0), 250);
    ASSERT_TRUE(waitQueued(c.descriptor(), 250));
    EXPECT_TRUE(c.flush());  // 100, 100 and 50 bytes
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(n, 0);

    ::close(peer);
    EXPECT_EQ(c.close(), 0);
    EXPECT_FALSE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(c.getLastError(), std::string("Error reading TCP port...") + strerror(EBADF));
    EXPECT_EQ(c.close(), -1);

    // Receive time-outs: whole seconds split off; below one second as given.
    ASSERT_TRUE(slow.open("localhost", port, 2500000)) << slow.getLastError();
    ASSERT_TRUE(quick.open("127.0.0.1", port, 500)) << quick.getLastError();
    const timeval s = option<timeval>(slow.descriptor(), SOL_SOCKET, SO_RCVTIMEO);
    const timeval q = option<timeval>(quick.descriptor(), SOL_SOCKET, SO_RCVTIMEO);
    EXPECT_EQ(s.tv_sec * 1000000 + s.tv_usec, 2500000);
    EXPECT_TRUE(q.tv_sec == 0 && q.tv_usec > 0 && q.tv_usec <= 10000);  // rounded up to the kernel's tick
    EXPECT_TRUE(quick.read(buf, sizeof buf, &n));                       // times out: nothing, no error
    EXPECT_EQ(n, 0);
    slow.close();
    quick.close();

    EXPECT_FALSE(c.open("no.such.host.invalid", 51717, 0));
    EXPECT_EQ(c.getLastError(), "No such host");
    c.close();
    ::close(listener);
}
