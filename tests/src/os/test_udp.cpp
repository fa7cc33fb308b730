// UDP endpoints against real sockets on 127.0.0.1.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "os/OrvosiUdp.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"

namespace {

const std::string kBadPort = "Failed to form broadcast address";

// One datagram (waiting up to 2 s for it when asked), or "" when none is there.
std::string readOne(OrvosiUdpClient& c, bool wait = false) {
    pollfd p{c.descriptor(), POLLIN, 0};
    if (wait) poll(&p, 1, 2000);
    char buf[16];
    int n = -1;
    EXPECT_TRUE(c.read(buf, sizeof buf, &n)) << c.getLastError();
    return std::string(buf, static_cast<size_t>(n > 0 ? n : 0));
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
    EXPECT_TRUE(top.open("32767", 65536, false) || top.getLastError() != kBadPort);
    top.close();
    const int plain = socket(AF_INET, SOCK_DGRAM, 0);  // bound without SO_REUSEPORT
    const sockaddr_in a = orvtest::loopback(orvtest::freePort());
    ASSERT_EQ(bind(plain, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    OrvosiUdpClient c;
    EXPECT_FALSE(c.open(std::to_string(ntohs(a.sin_port)).c_str(), 65536, false));
    EXPECT_EQ(c.getLastError(), std::string("Failed to bind socket to address...") + strerror(EADDRINUSE));
    c.close();
    ::close(plain);
}

TEST(UdpClient, ReadNeverBlocksCutsLongDatagramsAndFlushEmptiesQueue) {
    orvtest::UdpSender sender;
    OrvosiUdpClient c;
    EXPECT_FALSE(c.open("40000", 65536, false));
    ASSERT_TRUE(c.open("*", 65536, false));
    EXPECT_EQ(readOne(c), "");
    EXPECT_EQ(c.getLastError(), kBadPort);  // successes leave the last error alone
    ASSERT_TRUE(sender.send(c.localPort(), std::string("0123456789abcdefXYZ")));
    EXPECT_EQ(readOne(c, true), "0123456789abcdef");
    EXPECT_EQ(readOne(c), "");  // the cut tail is gone

    EXPECT_TRUE(c.flush());  // nothing queued
    for (const std::string& d : {std::string(150, 'a'), std::string("b"), std::string(100, 'c')})
        ASSERT_TRUE(sender.send(c.localPort(), d));
    pollfd p{c.descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);
    EXPECT_TRUE(c.flush());
    EXPECT_EQ(readOne(c), "");

    // Many at once: as many as wait, each in its slot, cut at the slot's size.
    unsigned char slots[4][16];
    size_t sizes[4] = {}, got = 9;
    EXPECT_TRUE(c.readMany(slots[0], sizeof slots[0], 4, sizes, &got));
    EXPECT_EQ(got, 0u);
    for (const std::string& d : {std::string("one"), std::string(20, 'x'), std::string("three")})
        ASSERT_TRUE(sender.send(c.localPort(), d));
    // A busy machine may hand them over in more than one go: each call goes
    // on in the slot after the last one filled.
    size_t total = 0;
    bool readOk = true;
    EXPECT_TRUE(orvtest::waitFor([&] {
        readOk = readOk && c.readMany(slots[total], sizeof slots[0], 4 - total, sizes + total, &got);
        total += readOk ? got : 0;
        return !readOk || total >= 3;
    }));
    EXPECT_TRUE(readOk) << c.getLastError();
    ASSERT_EQ(total, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(slots[0]), sizes[0]), "one");
    EXPECT_EQ(sizes[1], 16u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(slots[2]), sizes[2]), "three");

    // A program the application starts must not inherit the port.
    EXPECT_NE(fcntl(c.descriptor(), F_GETFD) & FD_CLOEXEC, 0);

    EXPECT_EQ(c.close(), 0);
    EXPECT_EQ(c.close(), -1);  // a second close must not hit a reused descriptor
}

TEST(UdpServer, FormsNumericAddressesOnlyAndSendsToTheDestination) {
    OrvosiUdpServer s, b;
    const auto form = [&](const char* text, bool broadcast = true) {
        sockaddr_in a{};
        int length = sizeof a;
        const int result = s.mkaddr(&a, &length, text, "udp", broadcast);
        if (result != 0) return std::to_string(result);
        return std::string(inet_ntoa(a.sin_addr)) + ":" + std::to_string(ntohs(a.sin_port)) + "/" +
               std::to_string(length);
    };
    EXPECT_EQ(form("localhost:5004"), "127.0.0.1:5004/16");
    EXPECT_EQ(form("10.0.0.2:32767"), "10.0.0.2:32767/16");
    EXPECT_EQ(form("*:5004"), "255.255.255.255:5004/16");
    EXPECT_EQ(form("*:*", false), "0.0.0.0:0/16");
    EXPECT_EQ(form("127.0.0.1:5004\nx"), "127.0.0.1:5004/16");
    EXPECT_EQ(form("myhost:5004") + form("1.2.3.4.5:5004"), "-1-1");
    EXPECT_EQ(form("127.0.0.1:32768") + form("127.0.0.1:50a"), "-2-2");
    EXPECT_EQ(form("127.0.0.1:port"), "-1");
    EXPECT_EQ(s.getLastError(), "UDP port not '*' or numeric");
    for (const char* bad : {"myhost:5004", "127.0.0.1:32768", "10.0.0.2:port"}) {
        EXPECT_FALSE(s.open(bad));
        EXPECT_EQ(s.getLastError(), "Error forming UDP server write address") << bad;
    }

    ASSERT_TRUE(b.open("*:5004")) << b.getLastError();  // broadcast: checked, never sent to
    EXPECT_TRUE(b.destination().sin_addr.s_addr == htonl(INADDR_BROADCAST) &&
                ntohs(b.destination().sin_port) == 5004);
    int on = 0;
    socklen_t len = sizeof on;
    ASSERT_EQ(getsockopt(b.descriptor(), SOL_SOCKET, SO_BROADCAST, &on, &len), 0);
    EXPECT_EQ(on, 1);
    b.close();

    const std::string port = std::to_string(orvtest::freePort());
    OrvosiUdpClient c;
    ASSERT_TRUE(c.open(port.c_str(), 65536, false)) << c.getLastError();
    ASSERT_TRUE(s.open(("localhost:" + port).c_str())) << s.getLastError();
    ASSERT_TRUE(s.write("uplink", 6));
    EXPECT_EQ(readOne(c, true), "uplink");
    c.close();
    s.close();
    EXPECT_FALSE(s.write("x", 1));
    EXPECT_EQ(s.getLastError(), std::string("Error sending packet...") + strerror(EBADF));
}
