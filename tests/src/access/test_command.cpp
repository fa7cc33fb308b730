// The command channel against a fake orvRx over real TCP on 127.0.0.1: the
// exact frames, the reply checks, streaming switches and IMU transactions.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/Allocations.hpp"
#include "support/FakeOrvRx.hpp"

using orvtest::Bytes;
using orvtest::withChecksum;
using Command = orvtest::OrvRxTest;

TEST_F(Command, RegisterAndStreamingFramesAreExactAndRepliesAreChecked) {
    // Open stops streaming although nothing was streaming.
    EXPECT_EQ(fake.frames(), (std::vector<Bytes>{{0xAB, 0xC4, 0x00, 0x00, 0x00, 0x00, 0x91}}));
    EXPECT_FALSE(access.getStreaming());
    ASSERT_TRUE(access.setRegister(100, 0x102, 0x01)) << access.getLastError();
    EXPECT_EQ(fake.last(), (Bytes{0xAB, 0xC4, 0x02, 0x01, 0x00, 0x01, 0x8D}));
    ASSERT_TRUE(access.setRegister(100, 0xFF123456u, 0x07));  // only the low 24 bits travel
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC4, 0x56, 0x34, 0x12, 0x07}));
    unsigned char v = 0;
    ASSERT_TRUE(access.getRegister(100, 0x123456, &v)) << access.getLastError();
    EXPECT_EQ(v, 0x56);  // the fake's reply C3 56 E7
    EXPECT_EQ(fake.frames().size(), 4u) << "getRegister with streaming off sends nothing else";
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC3, 0x56, 0x34, 0x12}));

    // Bad checksum, wrong code, wrong length: the value stays untouched.
    for (const Bytes& bad : {Bytes{0xC3, 0x05, 0x00}, Bytes{0xC4, 0x05, 0x37}, Bytes{0xC3, 0x05}}) {
        fake.reply(0xC3, bad);
        EXPECT_FALSE(access.getRegister(50, 1, &v));
        EXPECT_EQ(access.getLastError(), "Invalid response to get register command");
        EXPECT_EQ(v, 0x56);
    }
    fake.reply(0xC4, {0xC4, 0xC4});
    EXPECT_FALSE(access.setRegister(50, 1, 2));
    EXPECT_EQ(access.getLastError(), "Invalid ack to set register command");

    fake.reply(0xC4, {0xC4});

    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    EXPECT_TRUE(access.setStreaming(true));
    EXPECT_EQ(fake.frames().size(), 9u) << "one frame for two switches on";
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC4, 0, 0, 0, 0x01}));

    // Without an ack a stop still takes effect locally, after the 200 ms
    // wait for the ack and the 100 ms for datagrams in flight.
    fake.silence();
    access.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(access.setStreaming(false));
    EXPECT_GE(orvtest::msSince(t0), 300.0);
    EXPECT_LT(orvtest::msSince(t0), 1500.0);
    EXPECT_EQ(access.getLastError(), "Failed to set streaming state");
    EXPECT_FALSE(access.getStreaming());
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC4, 0, 0, 0, 0}));

    t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(access.setRegister(20, 1, 2));
    EXPECT_EQ(access.getLastError(), "No response to set register command");
    EXPECT_FALSE(access.getRegister(20, 1, &v));
    EXPECT_EQ(access.getLastError(), "No response to get register command");
    EXPECT_GE(orvtest::msSince(t0), 40.0);
    EXPECT_LT(orvtest::msSince(t0), 500.0);
    // The failed streaming switch is not echoed itself.
    EXPECT_EQ(err.text(),
              "ORVAERR: No response to set register command\nORVAERR: No response to set register command\n"
              "ORVAERR: No response to get register command\n");
}

TEST(CommandClosed, EveryCommandNeedsTheTcpChannelAndSaysSoQuietly) {
    OrvAccess a;
    a.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    unsigned char v = 0;
    unsigned long got = 0;
    // Reading a register and IMU transactions first stop streaming, which fails.
    EXPECT_FALSE(a.getRegister(10, 1, &v) || a.transactImu(ORVACCESS_IMU_CAMERA, &v, 1, &v, 1, 1, &got));
    EXPECT_FALSE(a.setStreaming(true));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    a.clearLastError();
    EXPECT_FALSE(a.setRegister(10, 1, 1));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    // Repeated calls keep the text; a cleared text is set again.
    a.clearLastError();
    EXPECT_FALSE(a.setStreaming(true) || a.setStreaming(true));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    EXPECT_FALSE(a.getStreaming());
    EXPECT_EQ(err.text(), "");
}

TEST_F(Command, ImuTransactionFramesAndBoundedCopies) {
    unsigned char tx[3] = {0x01, 0x02, 0x03};
    unsigned char rx[300];
    unsigned long got = 0;
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 3, rx, 8, 9, &got)) << access.getLastError();
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC0, 0x02, 0x03, 0x01, 0x02, 0x03, 0x08, 0x09}));
    EXPECT_EQ(got, 8u);
    EXPECT_EQ(rx[7], orvtest::FakeOrvRx::pattern(7));
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_PLATFORM, tx, 0, rx, 1, 0, &got));
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC0, 0x01, 0x00, 0x01, 0x00}));

    // Receive length and time-out are capped at one byte each.
    std::fill(std::begin(rx), std::end(rx), 0xEE);
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, sizeof rx, 1000, &got));
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC0, 0x02, 0x01, 0x01, 0xFF, 0xFF}));
    EXPECT_EQ(got, 255u);
    EXPECT_EQ(rx[254], orvtest::FakeOrvRx::pattern(254));
    EXPECT_EQ(rx[255], 0xEE);

    // A count beyond what arrived, or beyond what was asked for, copies only
    // the bytes that are really there and wanted.
    for (const auto& [reply, capacity, count] : std::vector<std::tuple<Bytes, unsigned long, unsigned long>>{
             {{0x00, 200, 9, 8, 7}, 16, 3}, {{0x00, 5, 1, 2, 3, 4, 5, 6}, 2, 2}, {{0x42}, 2, 0}}) {
        std::fill(std::begin(rx), std::end(rx), 0xEE);
        fake.reply(0xC0, reply);
        ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, capacity, 1, &got));
        EXPECT_EQ(got, count);
        EXPECT_EQ(rx[count], 0xEE);
    }

    // Nothing to receive: the frame goes out and nobody waits for an answer.
    fake.silence();
    const size_t before = fake.frames().size();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 2, rx, 0, 5, &got));
    EXPECT_LT(orvtest::msSince(t0), 200.0);
    ASSERT_TRUE(fake.waitFrames(before + 1));
    EXPECT_EQ(fake.last(), withChecksum({0xAB, 0xC0, 0x02, 0x02, 0x01, 0x02, 0x00, 0x05}));
    t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 4, 1, &got));
    EXPECT_EQ(access.getLastError(), "No response from orvRx");
    EXPECT_GE(orvtest::msSince(t0), 1000.0);
}

TEST_F(Command, ImuSizesAreBoundedByWhatTheFrameCarries) {
    unsigned char tx[300] = {};
    unsigned char rx[300];
    unsigned long got = 0;
    // A claimed capacity of 1 GiB buys nothing: at most 255 bytes come back.
    orvtest::startCountingAllocations();
    const bool ok = access.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 1ul << 30, 1, &got);
    orvtest::stopCountingAllocations();
    ASSERT_TRUE(ok) << access.getLastError();
    EXPECT_EQ(got, 255u);
    EXPECT_LT(orvtest::largestAllocation(), 4096u);

    // 255 transmit bytes are the most the length byte can announce.
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 255, rx, 4, 1, &got)) << access.getLastError();
    const Bytes longest = fake.last();
    EXPECT_EQ(longest.size(), 262u);
    EXPECT_EQ(longest[3], 255);
    for (unsigned long length : {256ul, 300ul}) {
        got = 7;
        EXPECT_FALSE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, length, rx, 4, 1, &got));
        EXPECT_EQ(access.getLastError(),
                  "IMU transmit length too long (" + std::to_string(length) + " bytes, at most 255)");
        EXPECT_EQ(got, 7u);
    }
    EXPECT_EQ(fake.last(), longest) << "nothing sent for a length the frame cannot carry";
}

TEST_F(Command, StaleInputIsFlushedTrafficIsDumpedAndLostConnectionsReported) {
    // Leftovers of an earlier exchange must not pass for the next reply.
    fake.sendRaw({0xC4, 0xC4, 0x99});
    ASSERT_TRUE(fake.waitDelivered());
    access.setVerbosity(0x30);
    orvtest::CapturedStdout out;
    EXPECT_TRUE(access.setRegister(100, 0x102, 1)) << access.getLastError();
    EXPECT_EQ(out.text(), "ORVATCPOUT: AB C4 02 01 00 01 8D \nORVATCPIN: C4 \n");

    // The first write after the peer left may still be accepted; a later
    // one fails with the socket's own text.
    access.setVerbosity(0);
    fake.dropClient();
    ASSERT_TRUE(orvtest::waitFor([&] { return fake.clientClosed(); }));
    std::string error;
    bool wrote = false;
    orvtest::waitFor([&] {
        wrote = wrote || access.setRegister(10, 1, 1);
        error = access.getLastError();
        return error.rfind("Error writing", 0) == 0;
    });
    EXPECT_FALSE(wrote) << "no command succeeds once orvRx has gone";
    EXPECT_EQ(error.rfind("Error writing command to orvRx: Error writing to socket...", 0), 0u) << error;
}
