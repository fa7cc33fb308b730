// Platform pose, GPS and input datagrams sent to orvRx, captured by a plain
// UDP socket on 127.0.0.1 and compared byte for byte; the send failures.
#include <poll.h>

#include "orvaccess/OrvAccess.hpp"
#include "orvsim/Wire.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::Bytes;

// A plain socket bound to a free port stands in for orvRx's input port.
class Uplink : public orvtest::ReceiverTest {
protected:
    void SetUp() override {
        const sockaddr_in a = orvtest::loopback(orvtest::freePort());
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
        openWith(std::to_string(ntohs(a.sin_port)));
    }
    void TearDown() override { ::close(fd); }
    void openWith(const std::string& inputPort) {
        openReceiver("udpOrvRxInputPort = " + inputPort + "\ntcpOrvRxAddr = 127.0.0.1\n");
    }
    // The next datagram, or nothing after timeoutMs.
    Bytes next(int timeoutMs = 1000) {
        pollfd p{fd, POLLIN, 0};
        unsigned char buf[2048];
        const ssize_t n = poll(&p, 1, timeoutMs) == 1 ? recv(fd, buf, sizeof buf, 0) : 0;
        return Bytes(buf, buf + (n > 0 ? n : 0));
    }

    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    // Every field distinct; the last one wider than the byte that travels.
    s_OrvAccessGpsData gps{1,     0xA1B2C3D4, 47.5,      -122.25, 1.5f, 0x1234, 0x9C, -3.25f,
                           1e-3f, 0x0BADF00D, 6371000.5, -1e-9,   7.0f, -8.0f,  0.2f, 0x1FF};
};

TEST_F(Uplink, PlatformPoseGpsAndInputDatagrams) {
    // Tag and angles as given, no range check; the trace lines in order.
    access.setVerbosity(OrvUtil::kVerbInfo | 0x400000 | 0x40);
    orvtest::CapturedStdout out;
    EXPECT_TRUE(access.setPlatformPoseData(s_OrvAccessPlatPoseData{0xDEADBEEF, {1.5f, -0.25f, 720.0f}}));
    access.setVerbosity(OrvUtil::kVerbInfo);
    const s_OrvAccessGpsData g = gps;  // as given
    EXPECT_TRUE(access.setGpsData(&gps));
    EXPECT_TRUE(access.sendInputData(0x2A));
    EXPECT_TRUE(access.sendInputData(0x00));
    EXPECT_EQ(out.text(),
              "ORVAINFO: Setting platform pose: t=3735928559 r=1.5 p=-0.25 y=720\n"
              "ORVAPLATPOSE: tin=3735928559\n"
              "ORVAUDPOUT: 07 15 00 EF BE AD DE 03 00 00 C0 3F 00 00 80 BE 00 00 34 44 F4 \n"
              "ORVAINFO: Setting GPS data [lat, long]: [47.5, -122.25]\n"
              "ORVAINFO: Sending input data: 42\nORVAINFO: Sending input data: 0\n");
    // 1.5f = 3FC00000, -0.25f = BE800000, 720.0f = 44340000.
    EXPECT_EQ(next(), (Bytes{0x07, 0x15, 0x00, 0xEF, 0xBE, 0xAD, 0xDE, 0x03, 0x00, 0x00, 0xC0,
                             0x3F, 0x00, 0x00, 0x80, 0xBE, 0x00, 0x00, 0x34, 0x44, 0xF4}));
    EXPECT_EQ(next(), orvsim::buildGpsSubpacket(g));  // gpsByte2 travels as its low byte
    EXPECT_EQ(next(), (Bytes{0x08, 0x05, 0x00, 0x2A, 0xC9}));
    EXPECT_EQ(next(), (Bytes{0x08, 0x05, 0x00, 0x00, 0xF3}));
}

TEST_F(Uplink, FailuresSendNothing) {
    const s_OrvAccessPlatPoseData pose{1, {0, 0, 0}};
    OrvAccess fresh;  // never opened
    openWith("0");    // the sender disabled
    for (OrvAccess* a : {&fresh, &access}) {
        EXPECT_FALSE(a->setPlatformPoseData(pose));
        EXPECT_EQ(a->getLastError(), "UDP input port not open");
        EXPECT_FALSE(a->setGpsData(&gps));
        EXPECT_EQ(a->getLastError(), "GPS UDP input port not open");
        EXPECT_FALSE(a->sendInputData(1));
        EXPECT_EQ(a->getLastError(), "UDP input port not open");
    }
    EXPECT_EQ(next(10), Bytes{});

    // Open, but the write is refused (no datagram goes to port 0): the
    // sender's reason follows each packet's prefix.
    openWith("00");
    access.setVerbosity(OrvUtil::kVerbErr);
    orvtest::CapturedStderr err;
    std::string lines;
    const auto failed = [&](bool ok, const std::string& prefix) {
        const std::string text = access.getLastError();
        EXPECT_TRUE(!ok && text.rfind(prefix + ": Error sending packet...", 0) == 0) << text;
        lines += "ORVAERR: " + text + "\n";
    };
    failed(access.setPlatformPoseData(pose), "Error transmitting pose to orvRx");
    failed(access.setGpsData(&gps), "Error transmitting GPS to orvHub");
    failed(access.sendInputData(1), "Error transmitting input data to orvRx");
    EXPECT_EQ(err.text(), lines);
    EXPECT_TRUE(errorCodes().empty());
}

}  // namespace
