// Opening and closing: which channels come up, what counts as success, the
// log lines, and that reopening leaks nothing.
#include <gtest/gtest.h>

#include <filesystem>

#include "orvaccess/OrvAccess.hpp"
#include "support/TestSupport.hpp"

namespace {

// Every channel off; tests switch on what they need (later keys win).
std::string allOff(const std::string& extra, const std::string& tcp = "tcpOrvRxEnabled = 0\n") {
    return "[General]\nverbosity = 1\n[Communication]\n" + tcp +
           "udpOrvRxPort = 0\nudpOrvRxImgPort = 0\nudpOrvRxInputPort = 0\nudpOrvCorePort = 0\n"
           "udpNftPort = 0\nsMemImgName =\n" +
           extra;
}

// Opens with the given configuration; returns the result and the log lines.
bool openWith(OrvAccess& a, const orvtest::TempDir& dir, const std::string& ini, std::string* log) {
    a.setIniPath(dir.write("orvaccess.ini", ini));
    orvtest::CapturedStderr err;
    const bool ok = a.open();
    *log = err.text();
    return ok;
}

size_t openDescriptors() {
    size_t n = 0;
    for (auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) n += entry.exists() ? 1 : 0;
    return n;
}

}  // namespace

TEST(Connect, NothingToReceiveIsAFailure) {
    orvtest::TempDir dir;
    OrvAccess a;
    std::string log;
    EXPECT_FALSE(openWith(a, dir, allOff(""), &log));
    EXPECT_EQ(a.getLastError(), "Unable to open any connections");
    EXPECT_NE(log.find("ORVALOG: TCP connection disabled by user\n"), std::string::npos);
    EXPECT_NE(log.find("ORVALOG: UDP NFT data port (udpNftPort) disabled by user\n"), std::string::npos);
    EXPECT_NE(log.find("ORVALOG: Shared memory interface disabled\n"), std::string::npos);

    // The uplink sender alone does not count.
    EXPECT_FALSE(
        openWith(a, dir, allOff("udpOrvRxInputPort = " + std::to_string(orvtest::freePort()) + "\n"), &log));
    EXPECT_EQ(a.getLastError(), "Unable to open any connections");
    EXPECT_NE(log.find("ORVALOG: Opening UDP server localhost:"), std::string::npos);
    s_OrvAccessStatus status{};
    EXPECT_FALSE(a.getStatus(&status));  // not open: servicing fails
}

TEST(Connect, OneReceiverIsEnoughAndStreamingIsAssumed) {
    orvtest::TempDir dir;
    OrvAccess a;
    std::string log;
    const std::string nft = std::to_string(orvtest::freePort());
    ASSERT_TRUE(openWith(a, dir, allOff("udpNftPort = " + nft + "\n"), &log));
    EXPECT_NE(log.find("ORVALOG: Opening UDP port " + nft + " for NFT data\n"), std::string::npos);
    EXPECT_TRUE(a.getStreaming());  // no command channel: nothing was sent
    s_OrvAccessStatus status{};
    ASSERT_TRUE(a.getStatus(&status));
    EXPECT_EQ(status.connections, 0u);  // the NFT endpoint has no bit
}

TEST(Connect, HubPortFollowsTheOrvCoreSetting) {
    orvtest::TempDir dir;
    OrvAccess a;
    std::string log;
    const std::string hub = std::to_string(orvtest::freePort());
    const std::string meta = std::to_string(orvtest::freePort());
    ASSERT_TRUE(openWith(a, dir, allOff("udpOrvHubPort = " + hub + "\nudpOrvRxPort = " + meta + "\n"), &log));
    EXPECT_NE(log.find("ORVALOG: UDP tracking data port (udpOrvCorePort) disabled by user\n"),
              std::string::npos);
    EXPECT_NE(log.find("ORVALOG: UDP orvHub data port (udpOrvHubPort) disabled by user\n"),
              std::string::npos);
    s_OrvAccessStatus status{};
    ASSERT_TRUE(a.getStatus(&status));
    EXPECT_EQ(status.connections, 0x2u);

    const std::string core = std::to_string(orvtest::freePort());
    ASSERT_TRUE(
        openWith(a, dir, allOff("udpOrvHubPort = " + hub + "\nudpOrvCorePort = " + core + "\n"), &log));
    ASSERT_TRUE(a.getStatus(&status));
    EXPECT_EQ(status.connections, 0x30u);
}

TEST(Connect, AFailingChannelIsLoggedAndTheOthersOpen) {
    orvtest::TempDir dir;
    OrvAccess a;
    std::string log;
    const std::string core = std::to_string(orvtest::freePort());
    ASSERT_TRUE(openWith(
        a, dir, allOff("udpOrvRxPort = 40000\nudpOrvCorePort = " + core + "\nudpOrvHubPort = 0\n"), &log));
    EXPECT_NE(
        log.find("ORVALOG: Unable to open UDP port 40000 for orvRx data: Failed to form broadcast address\n"),
        std::string::npos);
    s_OrvAccessStatus status{};
    ASSERT_TRUE(a.getStatus(&status));
    // The hub endpoint follows orvCore's setting and takes its own "0" as it
    // stands: an ephemeral port.
    EXPECT_EQ(status.connections, static_cast<uint32_t>(ORVACCESS_CONN_ORVCORE | ORVACCESS_CONN_ORVHUB));

    // A command channel that cannot connect is logged the same way.
    const std::string tcp = std::to_string(orvtest::freePort());
    ASSERT_TRUE(
        openWith(a, dir,
                 allOff("udpOrvCorePort = " + core + "\n",
                        "tcpOrvRxEnabled = 1\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " + tcp + "\n"),
                 &log));
    EXPECT_NE(log.find("ORVALOG: Unable to open TCP connection: Failed to connect...Connection refused\n"),
              std::string::npos);
}

TEST(Connect, ReopeningLeaksNothingAndCloseIsIdempotent) {
    orvtest::TempDir dir;
    OrvAccess a;
    std::string log;
    const std::string ini = allOff("udpOrvCorePort = " + std::to_string(orvtest::freePort()) +
                                   "\nudpOrvHubPort = " + std::to_string(orvtest::freePort()) + "\n");
    ASSERT_TRUE(openWith(a, dir, ini, &log));
    const size_t descriptors = openDescriptors();
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(openWith(a, dir, ini, &log));
    EXPECT_EQ(openDescriptors(), descriptors);

    orvtest::CapturedStderr err;
    EXPECT_TRUE(a.close());
    EXPECT_TRUE(a.close());  // the second close does nothing
    EXPECT_EQ(err.text(), "ORVALOG: Closing\n");
    EXPECT_FALSE(a.serviceUdp(false));
    EXPECT_EQ(a.getLastError(), "Unable to service UDP: Interface not open");
}
