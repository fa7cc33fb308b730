// The command channel against a fake orvRx over real TCP on 127.0.0.1: the
// exact frames, the reply checks, streaming switches and IMU transactions.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "support/FakeOrvRx.hpp"
#include "support/TestSupport.hpp"

using orvtest::Bytes;
using orvtest::FakeOrvRx;

namespace {

// The frame with its checksum byte appended.
Bytes sealed(Bytes b) {
    unsigned int sum = 0;
    for (unsigned char c : b) sum += c;
    b.push_back(static_cast<unsigned char>(-sum));
    return b;
}

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// An object opened on the fake's TCP port with every other channel off.
class Command : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string ini = dir.prefix() + "orvaccess.ini";
        std::ofstream(ini) << "[Communication]\ntcpOrvRxAddr=127.0.0.1\ntcpOrvRxPort=" << fake.port()
                           << "\nudpOrvRxPort=0\nudpOrvRxImgPort=0\nudpOrvRxInputPort=0\nudpOrvCorePort=0\n"
                              "udpNftPort=0\nsMemImgName=\n";
        a.setIniPath(ini);
        ASSERT_TRUE(a.open()) << a.getLastError();
        ASSERT_TRUE(fake.waitFrames(1));
    }
    Bytes last() const {
        const auto f = fake.frames();
        return f.empty() ? Bytes{} : f.back();
    }

    FakeOrvRx fake;  // declared first: outlives the object, whose close() may still talk
    orvtest::TempDir dir;
    OrvAccess a;
};

}  // namespace

TEST_F(Command, OpenStopsStreamingAndRegisterFramesAreExact) {
    // The stop goes out although nothing was streaming.
    EXPECT_EQ(fake.frames(), (std::vector<Bytes>{{0xAB, 0xC4, 0x00, 0x00, 0x00, 0x00, 0x91}}));
    EXPECT_FALSE(a.getStreaming());

    ASSERT_TRUE(a.setRegister(100, 0x102, 0x01)) << a.getLastError();
    EXPECT_EQ(last(), (Bytes{0xAB, 0xC4, 0x02, 0x01, 0x00, 0x01, 0x8D}));
    // Only the low 24 bits of the address travel.
    ASSERT_TRUE(a.setRegister(100, 0xFF123456u, 0x07));
    EXPECT_EQ(last(), sealed({0xAB, 0xC4, 0x56, 0x34, 0x12, 0x07}));

    unsigned char v = 0;
    ASSERT_TRUE(a.getRegister(100, 0x102, &v)) << a.getLastError();
    EXPECT_EQ(last(), (Bytes{0xAB, 0xC3, 0x02, 0x01, 0x00, 0x8F}));
    EXPECT_EQ(v, 0x01);  // what the set stored in the fake
    ASSERT_TRUE(a.getRegister(100, 0x123456, &v));
    EXPECT_EQ(v, 0x07);
    EXPECT_EQ(fake.frames().size(), 5u) << "getRegister with streaming off sends nothing else";
}

TEST_F(Command, RegisterRepliesAreChecked) {
    unsigned char v = 0;
    fake.setReply(0xC3, {0xC3, 0x05, 0x38});
    ASSERT_TRUE(a.getRegister(50, 1, &v)) << a.getLastError();
    EXPECT_EQ(v, 5);

    // Bad checksum, wrong code, wrong length: the value stays untouched.
    for (const Bytes& bad :
         {Bytes{0xC3, 0x05, 0x00}, Bytes{0xC4, 0x05, 0x37}, Bytes{0xC3, 0x05}, Bytes{0xC4}}) {
        fake.setReply(0xC3, bad);
        v = 0x77;
        EXPECT_FALSE(a.getRegister(50, 1, &v));
        EXPECT_EQ(a.getLastError(), "Invalid response to get register command");
        EXPECT_EQ(v, 0x77);
    }
    fake.clearReplies();

    fake.setMode(FakeOrvRx::Mode::WrongAck);
    EXPECT_FALSE(a.getRegister(50, 1, &v));
    EXPECT_EQ(a.getLastError(), "Invalid response to get register command");
    EXPECT_FALSE(a.setRegister(50, 1, 2));
    EXPECT_EQ(a.getLastError(), "Invalid ack to set register command");

    fake.setMode(FakeOrvRx::Mode::Silent);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(a.setRegister(20, 1, 2));
    EXPECT_EQ(a.getLastError(), "No response to set register command");
    EXPECT_FALSE(a.getRegister(20, 1, &v));
    EXPECT_EQ(a.getLastError(), "No response to get register command");
    EXPECT_GE(msSince(t0), 40.0);
    EXPECT_LT(msSince(t0), 500.0);
}

TEST_F(Command, StreamingSwitchesOnceAndStopsEvenWithoutAck) {
    fake.clearFrames();
    ASSERT_TRUE(a.setStreaming(true)) << a.getLastError();
    EXPECT_TRUE(a.setStreaming(true));
    ASSERT_EQ(fake.frames(), (std::vector<Bytes>{sealed({0xAB, 0xC4, 0, 0, 0, 0x01})}));
    EXPECT_TRUE(a.getStreaming());

    // Without an ack the stop still takes effect locally, after the 200 ms
    // wait for the ack and the 100 ms for datagrams in flight.
    fake.setMode(FakeOrvRx::Mode::Silent);
    a.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(a.setStreaming(false));
    const double ms = msSince(t0);
    const std::string text = err.text();
    EXPECT_EQ(a.getLastError(), "Failed to set streaming state");
    EXPECT_FALSE(a.getStreaming());
    EXPECT_GE(ms, 300.0);
    EXPECT_LT(ms, 1500.0);
    EXPECT_NE(text.find("ORVAERR: No response to set register command\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("Failed to set streaming state"), std::string::npos) << "not echoed";
    EXPECT_TRUE(fake.waitFrames(2));
    EXPECT_EQ(last(), sealed({0xAB, 0xC4, 0, 0, 0, 0}));
}

TEST(CommandClosed, EveryCommandNeedsTheTcpChannel) {
    OrvAccess a;
    a.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    unsigned char v = 0, rx[4];
    unsigned long got = 9;
    EXPECT_FALSE(a.setRegister(10, 1, 1));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    a.clearLastError();
    EXPECT_FALSE(a.getRegister(10, 1, &v));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    EXPECT_FALSE(a.setStreaming(true));
    EXPECT_FALSE(a.getStreaming());
    a.clearLastError();
    EXPECT_FALSE(a.transactImu(ORVACCESS_IMU_CAMERA, rx, 1, rx, sizeof rx, 1, &got));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    EXPECT_EQ(err.text().find("ORVAERR"), std::string::npos) << "not echoed";
}

TEST_F(Command, ImuTransactionFramesAndBoundedCopies) {
    unsigned char tx[3] = {0x01, 0x02, 0x03};
    unsigned char rx[300];
    unsigned long got = 0;

    ASSERT_TRUE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 3, rx, 8, 9, &got)) << a.getLastError();
    EXPECT_EQ(last(), sealed({0xAB, 0xC0, 0x02, 0x03, 0x01, 0x02, 0x03, 0x08, 0x09}));
    ASSERT_EQ(got, 8u);
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(rx[i], FakeOrvRx::pattern(i)) << i;
    ASSERT_TRUE(a.transactImu(ORVACCESS_IMU_PLATFORM, tx, 0, rx, 1, 0, &got));
    EXPECT_EQ(last(), sealed({0xAB, 0xC0, 0x01, 0x00, 0x01, 0x00}));

    // Receive length and time-out are capped at one byte each.
    std::fill(std::begin(rx), std::end(rx), 0xEE);
    ASSERT_TRUE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, sizeof rx, 1000, &got));
    EXPECT_EQ(last(), sealed({0xAB, 0xC0, 0x02, 0x01, 0x01, 0xFF, 0xFF}));
    EXPECT_EQ(got, 255u);
    EXPECT_EQ(rx[254], FakeOrvRx::pattern(254));
    EXPECT_EQ(rx[255], 0xEE);

    // A count larger than what arrived (or than was asked for) copies only
    // the bytes that are really there.
    std::fill(std::begin(rx), std::end(rx), 0xEE);
    fake.setReply(0xC0, {0x00, 200, 9, 8, 7});
    ASSERT_TRUE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 16, 1, &got));
    EXPECT_EQ(got, 3u);
    EXPECT_EQ(rx[2], 7);
    EXPECT_EQ(rx[3], 0xEE);
    fake.setReply(0xC0, {0x00, 5, 1, 2, 3, 4, 5, 6});
    ASSERT_TRUE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 2, 1, &got));
    EXPECT_EQ(got, 2u);
    fake.setReply(0xC0, {0x42});
    ASSERT_TRUE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 2, 1, &got));
    EXPECT_EQ(got, 0u);

    // Nothing to receive: the frame goes out and nobody waits for an answer.
    fake.clearReplies();
    fake.setMode(FakeOrvRx::Mode::Silent);
    const size_t before = fake.frames().size();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 2, rx, 0, 5, &got));
    EXPECT_LT(msSince(t0), 200.0);
    EXPECT_EQ(got, 0u);
    ASSERT_TRUE(fake.waitFrames(before + 1));
    EXPECT_EQ(last(), sealed({0xAB, 0xC0, 0x02, 0x02, 0x01, 0x02, 0x00, 0x05}));

    t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(a.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 4, 1, &got));
    EXPECT_EQ(a.getLastError(), "No response from orvRx");
    EXPECT_GE(msSince(t0), 1000.0);
}

TEST_F(Command, StaleInputIsFlushedAndTrafficIsDumped) {
    // Leftovers of an earlier exchange must not pass for the next reply.
    ASSERT_TRUE(fake.sendRaw({0xC4, 0xC4, 0x99}));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(a.setRegister(100, 0x102, 1)) << a.getLastError();

    a.setVerbosity(0x30);
    orvtest::CapturedStdout out;
    EXPECT_TRUE(a.setRegister(100, 0x102, 1));
    const std::string text = out.text();
    EXPECT_NE(text.find("ORVATCPOUT: AB C4 02 01 00 01 8D \n"), std::string::npos) << text;
    EXPECT_NE(text.find("ORVATCPIN: C4 \n"), std::string::npos) << text;
}

TEST_F(Command, LostConnectionReportsTheSocketError) {
    fake.dropClient();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    // The first write after the peer left may still be accepted; a later
    // one fails with the socket's own text.
    std::string error;
    for (int i = 0; i < 20 && error.rfind("Error writing", 0) != 0; ++i) {
        EXPECT_FALSE(a.setRegister(10, 1, 1));
        error = a.getLastError();
    }
    EXPECT_EQ(error.rfind("Error writing command to orvRx: Error writing to socket...", 0), 0u) << error;
}
