// Platform pose, GPS and input datagrams sent to orvRx, captured by a plain
// UDP socket on 127.0.0.1 and compared byte for byte; the send failures.
#include <poll.h>

#include <cstring>

#include "orvaccess/OrvAccess.hpp"
#include "support/TestSupport.hpp"
#include "util/OrvUtil.hpp"

namespace {

using orvtest::Bytes;

// A plain socket bound to a free port, standing in for orvRx's input port.
class Receiver {
public:
    Receiver() : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        for (int tries = 0; tries < 20 && port_ == 0; ++tries) {
            const int p = orvtest::freePort();
            const sockaddr_in a = orvtest::loopback(p);
            if (bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0) port_ = p;
        }
        if (port_ == 0) ADD_FAILURE() << "cannot bind the receiver";
    }
    ~Receiver() { ::close(fd_); }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    int port() const { return port_; }
    // The next datagram, or nothing after timeoutMs.
    Bytes next(int timeoutMs = 1000) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) != 1) return {};
        unsigned char buf[2048];
        const ssize_t n = recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? Bytes(buf, buf + n) : Bytes{};
    }

private:
    int fd_;
    int port_ = 0;
};

// Little-endian encoding built here, not with the library's codec.
struct Le {
    Bytes b;
    Le& u8(unsigned v) {
        b.push_back(static_cast<unsigned char>(v));
        return *this;
    }
    Le& n(unsigned long long v, int bytes) {
        for (int i = 0; i < bytes; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
        return *this;
    }
    Le& f32(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, 4);
        return n(bits, 4);
    }
    Le& f64(double v) {
        uint64_t bits;
        std::memcpy(&bits, &v, 8);
        return n(bits, 8);
    }
    // Appends the byte that makes the sum of all bytes zero.
    Bytes sealed() {
        unsigned char sum = 0;
        for (unsigned char c : b) sum = static_cast<unsigned char>(sum + c);
        b.push_back(static_cast<unsigned char>(-sum));
        return b;
    }
};

class Uplink : public testing::Test {
protected:
    void SetUp() override { openWith(std::to_string(rx.port())); }
    void TearDown() override { access.setVerbosity(0); }

    void openWith(const std::string& inputPort) {
        for (int& p : port) p = orvtest::freePort();
        access.setIniPath(dir.write(
            "orvaccess.ini",
            orvtest::receiverIni(port, "udpOrvRxInputPort = " + inputPort + "\ntcpOrvRxAddr = 127.0.0.1\n")));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }

    orvtest::TempDir dir;
    int port[5] = {};
    Receiver rx;
    OrvAccess access;
};

// Every field distinct; the last one wider than the byte that travels.
s_OrvAccessGpsData sampleGps() {
    return {1,     0xA1B2C3D4, 47.5,      -122.25, 1.5f, 0x1234, 0x9C, -3.25f,
            1e-3f, 0x0BADF00D, 6371000.5, -1e-9,   7.0f, -8.0f,  0.2f, 0x1FF};
}

TEST_F(Uplink, PlatformPoseDatagram) {
    EXPECT_TRUE(access.setPlatformPoseData(s_OrvAccessPlatPoseData{1, {0.0f, 0.0f, 0.0f}}));
    Bytes expected = {0x07, 0x15, 0x00, 0x01, 0x00, 0x00, 0x00, 0x03};
    expected.resize(20, 0x00);
    expected.push_back(0xE0);
    EXPECT_EQ(rx.next(), expected);

    // Tag and angles as given, no range check; the trace lines in order.
    access.setVerbosity(OrvUtil::kVerbInfo | 0x400000 | 0x40);
    orvtest::CapturedStdout out;
    EXPECT_TRUE(access.setPlatformPoseData(s_OrvAccessPlatPoseData{0xDEADBEEF, {1.5f, -0.25f, 720.0f}}));
    const std::string text = out.text();
    const Bytes sent = rx.next();
    EXPECT_EQ(sent, Le{}.u8(7).n(21, 2).n(0xDEADBEEF, 4).u8(3).f32(1.5f).f32(-0.25f).f32(720.0f).sealed());
    // 1.5f = 3FC00000, -0.25f = BE800000, 720.0f = 44340000; the checksum
    // makes the byte sum zero.
    EXPECT_EQ(text,
              "ORVAINFO: Setting platform pose: t=3735928559 r=1.5 p=-0.25 y=720\n"
              "ORVAPLATPOSE: tin=3735928559\n"
              "ORVAUDPOUT: 07 15 00 EF BE AD DE 03 00 00 C0 3F 00 00 80 BE 00 00 34 44 F4 \n");
}

TEST_F(Uplink, GpsAndInputDatagrams) {
    const s_OrvAccessGpsData g = sampleGps();
    s_OrvAccessGpsData copy = g;
    access.setVerbosity(OrvUtil::kVerbInfo);
    orvtest::CapturedStdout out;
    EXPECT_TRUE(access.setGpsData(&copy));
    EXPECT_TRUE(access.sendInputData(0x2A));
    access.setVerbosity(0);
    EXPECT_EQ(out.text(),
              "ORVAINFO: Setting GPS data [lat, long]: [47.5, -122.25]\n"
              "ORVAINFO: Sending input data: 42\n");

    const Bytes gps = rx.next();
    ASSERT_EQ(gps.size(), 73u);
    const Bytes expected = Le{}.u8(8)
                               .n(73, 2)
                               .u8(1)
                               .n(g.gpsWord1, 4)
                               .f64(g.lat)
                               .f64(g.lon)
                               .f32(g.gpsValue1)
                               .n(g.gpsHalf, 2)
                               .u8(g.gpsByte1)
                               .f32(g.gpsValue2)
                               .f32(g.gpsValue3)
                               .n(g.gpsWord2, 4)
                               .f64(g.gpsDouble1)
                               .f64(g.gpsDouble2)
                               .f32(g.gpsValue4)
                               .f32(g.gpsValue5)
                               .f32(g.gpsValue6)
                               .u8(0xFF)
                               .sealed();
    EXPECT_EQ(gps, expected);
    EXPECT_EQ(gps[71], 0xFF);

    EXPECT_EQ(rx.next(), (Bytes{0x08, 0x05, 0x00, 0x2A, 0xC9}));
    EXPECT_TRUE(access.sendInputData(0x00));
    EXPECT_EQ(rx.next(), (Bytes{0x08, 0x05, 0x00, 0x00, 0xF3}));
}

TEST_F(Uplink, FailuresSendNothing) {
    s_OrvAccessGpsData g = sampleGps();
    const s_OrvAccessPlatPoseData pose{1, {0, 0, 0}};
    const auto expectRefused = [&](OrvAccess& a) {
        EXPECT_FALSE(a.setPlatformPoseData(pose));
        EXPECT_EQ(a.getLastError(), "UDP input port not open");
        EXPECT_FALSE(a.setGpsData(&g));
        EXPECT_EQ(a.getLastError(), "GPS UDP input port not open");
        EXPECT_FALSE(a.sendInputData(1));
        EXPECT_EQ(a.getLastError(), "UDP input port not open");
    };
    {
        SCOPED_TRACE("before open");
        OrvAccess fresh;
        expectRefused(fresh);
    }
    {
        SCOPED_TRACE("disabled");
        openWith("0");
        expectRefused(access);
    }
    EXPECT_TRUE(rx.next(200).empty());

    // Open, but the write is refused (no datagram goes to port 0): the
    // sender's reason follows each packet's prefix.
    openWith("00");
    access.setVerbosity(OrvUtil::kVerbErr);
    orvtest::CapturedStderr err;
    EXPECT_FALSE(access.setPlatformPoseData(pose));
    const std::string poseError = access.getLastError();
    EXPECT_FALSE(access.setGpsData(&g));
    const std::string gpsError = access.getLastError();
    EXPECT_FALSE(access.sendInputData(1));
    const std::string inputError = access.getLastError();
    EXPECT_EQ(poseError.rfind("Error transmitting pose to orvRx: Error sending packet...", 0), 0u)
        << poseError;
    EXPECT_EQ(gpsError.rfind("Error transmitting GPS to orvHub: Error sending packet...", 0), 0u) << gpsError;
    EXPECT_EQ(inputError.rfind("Error transmitting input data to orvRx: Error sending packet...", 0), 0u)
        << inputError;
    EXPECT_EQ(err.text(),
              "ORVAERR: " + poseError + "\nORVAERR: " + gpsError + "\nORVAERR: " + inputError + "\n");
    s_OrvAccessErrorCode e{};
    EXPECT_EQ(access.getErrorCode(&e), 0);
}

}  // namespace
