// UDP endpoints against real sockets on 127.0.0.1.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "osi/OrvosiUdp.hpp"
#include "support/TestSupport.hpp"

namespace {

const std::string kBadPort = "Failed to form broadcast address";

using orvtest::loopback;

void sendTo(int port, const std::string& data) { EXPECT_TRUE(orvtest::UdpSender().send(port, data)); }

bool waitReadable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 2000) == 1;
}

}  // namespace

TEST(UdpClient, OpenParsesPortAndReportsBindFailure) {
    const std::string refused[] = {"32768", "40000", "50a", "0x10", "99999999999", std::string(100, '1')};
    for (const std::string& port : refused) {
        OrvosiUdpClient c;
        EXPECT_FALSE(c.open(port.c_str(), 65536, false)) << port;
        EXPECT_EQ(c.getLastError(), kBadPort) << port;
        c.close();
    }
    OrvosiUdpClient top;  // 32767 may be held by someone, but must not fail on its text
    if (!top.open("32767", 65536, false)) {
        EXPECT_NE(top.getLastError(), kBadPort);
    }
    top.close();
    for (const char* any : {"*", ""}) {
        OrvosiUdpClient c;
        ASSERT_TRUE(c.open(any, 65536, false)) << c.getLastError();
        EXPECT_GT(c.localPort(), 0);
        EXPECT_EQ(c.close(), 0);
        EXPECT_EQ(c.close(), -1);  // a second close must not hit a reused descriptor
    }

    const int port = orvtest::freePort();
    const int plain = socket(AF_INET, SOCK_DGRAM, 0);  // no SO_REUSEPORT
    const sockaddr_in a = loopback(port);
    ASSERT_EQ(bind(plain, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    OrvosiUdpClient c;
    EXPECT_FALSE(c.open(std::to_string(port).c_str(), 65536, false));
    EXPECT_EQ(c.getLastError(), std::string("Failed to bind socket to address...") + strerror(EADDRINUSE));
    c.close();
    ::close(plain);
}

TEST(UdpClient, ReadNeverBlocksCutsLongDatagramsAndFlushEmptiesQueue) {
    OrvosiUdpClient c;
    EXPECT_FALSE(c.open("40000", 65536, false));
    ASSERT_TRUE(c.open("*", 65536, false));
    char buf[16];
    int n = -1;
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(n, 0);
    EXPECT_EQ(c.getLastError(), kBadPort);  // successes leave the last error alone

    sendTo(c.localPort(), "0123456789abcdefXYZ");
    ASSERT_TRUE(waitReadable(c.descriptor()));
    ASSERT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "0123456789abcdef");
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));  // the cut tail is gone
    EXPECT_EQ(n, 0);

    EXPECT_TRUE(c.flush());
    for (const std::string& d : {std::string(150, 'a'), std::string("b"), std::string(100, 'c')})
        sendTo(c.localPort(), d);
    ASSERT_TRUE(waitReadable(c.descriptor()));
    EXPECT_TRUE(c.flush());
    EXPECT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(n, 0);

    c.close();
    EXPECT_FALSE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(c.getLastError(), std::string("Read failed...") + strerror(EBADF));
}

TEST(UdpServer, MkaddrFormsNumericAddressesOnly) {
    struct Case {
        const char* text;
        bool broadcast;
        int result;
        const char* host;
        int port;
    };
    const Case cases[] = {
        {"localhost:5004", true, 0, "127.0.0.1", 5004},
        {"10.0.0.2:32767", true, 0, "10.0.0.2", 32767},
        {"*:5004", true, 0, "255.255.255.255", 5004},
        {"*:*", false, 0, "0.0.0.0", 0},
        {"127.0.0.1", true, 0, "127.0.0.1", 0},
        {"127.0.0.1:5004\nx", true, 0, "127.0.0.1", 5004},
        {"myhost:5004", true, -1, "", 0},
        {"1.2.3.4.5:5004", true, -1, "", 0},
        {"127.0.0.1:32768", true, -2, "", 0},
        {"127.0.0.1:50a", true, -2, "", 0},
    };
    OrvosiUdpServer s;
    for (const Case& k : cases) {
        sockaddr_in a{};
        int length = sizeof a;
        ASSERT_EQ(s.mkaddr(&a, &length, k.text, "udp", k.broadcast), k.result) << k.text;
        if (k.result != 0) continue;
        EXPECT_EQ(length, 16);
        EXPECT_STREQ(inet_ntoa(a.sin_addr), k.host) << k.text;
        EXPECT_EQ(ntohs(a.sin_port), k.port) << k.text;
    }
    EXPECT_EQ(s.getLastError(), "");
    sockaddr_in a{};
    int length = sizeof a;
    EXPECT_EQ(s.mkaddr(&a, &length, "127.0.0.1:port", "udp", true), -1);
    EXPECT_EQ(s.getLastError(), "UDP port not '*' or numeric");
}

TEST(UdpServer, OpenChecksDestinationAndSendsToIt) {
    for (const char* bad : {"myhost:5004", "127.0.0.1:40000", "10.0.0.2:port"}) {
        OrvosiUdpServer s;
        EXPECT_FALSE(s.open(bad));
        EXPECT_EQ(s.getLastError(), "Error forming UDP server write address") << bad;
    }
    OrvosiUdpServer b;  // broadcast: checked, never sent to
    ASSERT_TRUE(b.open("*:5004")) << b.getLastError();
    EXPECT_EQ(b.destination().sin_addr.s_addr, htonl(INADDR_BROADCAST));
    EXPECT_EQ(ntohs(b.destination().sin_port), 5004);
    int on = 0;
    socklen_t len = sizeof on;
    ASSERT_EQ(getsockopt(b.descriptor(), SOL_SOCKET, SO_BROADCAST, &on, &len), 0);
    EXPECT_EQ(on, 1);
    b.close();

    const std::string port = std::to_string(orvtest::freePort());  // ephemeral ports exceed 32767
    OrvosiUdpClient c;
    ASSERT_TRUE(c.open(port.c_str(), 65536, false)) << c.getLastError();
    OrvosiUdpServer s;
    ASSERT_TRUE(s.open(("localhost:" + port).c_str())) << s.getLastError();
    ASSERT_TRUE(s.write("uplink", 6));
    ASSERT_TRUE(waitReadable(c.descriptor()));
    char buf[16];
    int n = -1;
    ASSERT_TRUE(c.read(buf, sizeof buf, &n));
    EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), "uplink");
    c.close();
    s.close();
    EXPECT_FALSE(s.write("x", 1));
    EXPECT_EQ(s.getLastError(), std::string("Error sending packet...") + strerror(EBADF));
}
