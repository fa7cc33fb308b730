// File transfer with a fake orvRx over real TCP on 127.0.0.1: files go both
// ways byte for byte in exact frames, and every way the server or the local
// file can fail ends in its own message.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "orvaccess/orvaccess.h"
#include "support/FakeOrvRx.hpp"

using orvtest::Bytes;
using orvtest::randomBytes;
using orvtest::withChecksum;
using Files = orvtest::OrvRxTest;

namespace {

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string writeFile(const std::string& path, const Bytes& b) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
    return path;
}

// What a transfer sends with streaming on: the stop, then AB, the code, the
// location, the name with its zero, `more` and the checksum.
std::vector<Bytes> start(unsigned char code, unsigned char location, const std::string& name,
                         Bytes more = {}) {
    Bytes frame{0xAB, code, location};
    frame.insert(frame.end(), name.c_str(), name.c_str() + name.size() + 1);
    frame.insert(frame.end(), more.begin(), more.end());
    return {withChecksum({0xAB, 0xC4, 0, 0, 0, 0}), withChecksum(frame)};
}

// A put sends one chunk per 512 bytes.
std::vector<Bytes> putFrames(const Bytes& file, const std::string& name, unsigned char location) {
    std::vector<Bytes> frames = start(0xC6, location, name, orvtest::le24(file.size()));
    for (size_t at = 0; at < file.size(); at += 512) frames.push_back(orvtest::chunk(file, at));
    return frames;
}

}  // namespace

TEST_F(Files, FilesGoBothWaysByteForByteInExactFramesStreamingStopped) {
    // 1000 bytes: the second chunk carries 488 file bytes and 24 zeros.
    for (const auto& [size, location] :
         std::vector<std::pair<size_t, unsigned char>>{{1, 2}, {512, 0}, {513, 255}, {1000, 1}}) {
        const Bytes file = randomBytes(size, static_cast<unsigned int>(size));
        const std::string name = "cal/file" + std::to_string(size) + ".ini";
        const auto loc = static_cast<e_OrvAccessFileLoc>(location);
        ASSERT_TRUE(access.setStreaming(true));
        fake.clearFrames();
        ASSERT_TRUE(access.putFile(writeFile(path("put.bin"), file), name, loc)) << access.getLastError();
        EXPECT_EQ(fake.frames(), putFrames(file, name, location)) << size;

        fake.serve(file);
        ASSERT_TRUE(access.setStreaming(true));
        fake.clearFrames();
        ASSERT_TRUE(access.getFile(name, loc, path("got.bin"))) << access.getLastError();
        EXPECT_EQ(readFile(path("got.bin")), file) << size;
        // A get acknowledges each chunk with a bare C7.
        std::vector<Bytes> expected = start(0xC5, location, name);
        expected.resize(2 + (size + 511) / 512, Bytes{0xC7});
        EXPECT_TRUE(fake.waitFrames(expected.size()));
        EXPECT_EQ(fake.frames(), expected) << size;
    }
}

TEST_F(Files, MultiMegabytePut) {
    const Bytes file = randomBytes(2 * 1024 * 1024 + 77, 42);
    ASSERT_TRUE(access.setStreaming(true));
    fake.clearFrames();
    ASSERT_TRUE(access.putFile(writeFile(path("big.bin"), file), "big", ORVACCESS_FILE_LOC_1))
        << access.getLastError();
    EXPECT_TRUE(fake.frames() == putFrames(file, "big", 1));
}

TEST_F(Files, MultiMegabyteGetThroughTheCInterface) {
    const Bytes file = randomBytes(2 * 1024 * 1024 + 300, 43);
    fake.serve(file);
    ASSERT_EQ(OrvAccess_getFile(&access, "big", ORVACCESS_FILE_LOC_3, path("big.bin").c_str()), 1)
        << access.getLastError();
    EXPECT_TRUE(readFile(path("big.bin")) == file);
}

TEST_F(Files, LocalFileProblemsAndSizeLimits) {
    access.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    fake.clearFrames();
    EXPECT_FALSE(access.putFile(path("missing.bin"), "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(access.getLastError(), "No such file or directory");
    EXPECT_FALSE(access.putFile(writeFile(path("empty.bin"), {}), "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(access.getLastError(), "File empty or unreadable");
    // One byte beyond what 24 bits can carry.
    const std::string huge = writeFile(path("huge.bin"), {});
    std::filesystem::resize_file(huge, 16777216);
    EXPECT_FALSE(access.putFile(huge, "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(access.getLastError(), "File too large (limit is 16777215 bytes)");
    EXPECT_TRUE(fake.frames().empty()) << "refused before anything goes out";

    // The largest size that fits is announced as FF FF FF; a wrong ack stops the put.
    std::filesystem::resize_file(huge, 16777215);
    fake.fault(0, [](Bytes& b) { b = {0x00}; });
    EXPECT_FALSE(access.putFile(huge, "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(access.getLastError(), "Start failed - no/bad response from orvRx");
    EXPECT_EQ(fake.frames(), std::vector<Bytes>{withChecksum({0xAB, 0xC6, 0, 'x', 0, 0xFF, 0xFF, 0xFF})});
    fake.fault(0, nullptr);

    // A local file that cannot be created: the transfer stops before a byte is written.
    fake.serve(Bytes(600, 7));
    EXPECT_FALSE(access.getFile("y", ORVACCESS_FILE_LOC_0, path("no/such/dir.bin")));
    EXPECT_EQ(access.getLastError(), "No such file or directory");
    EXPECT_EQ(err.text(),
              "ORVAERR: No such file or directory\nORVAERR: File empty or unreadable\n"
              "ORVAERR: File too large (limit is 16777215 bytes)\n"
              "ORVAERR: Start failed - no/bad response from orvRx\nORVAERR: No such file or directory\n");

    // A stop that orvRx does not acknowledge ends a transfer before it starts.
    ASSERT_TRUE(access.setStreaming(true));
    fake.silence();
    fake.clearFrames();
    EXPECT_FALSE(access.putFile(huge, "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(access.getLastError(), "Failed to set streaming state");
    EXPECT_EQ(fake.frames().size(), 1u);
}

TEST_F(Files, EveryFailedStepEndsTheTransferWithItsMessage) {
    const Bytes file = randomBytes(1300, 9);  // three chunks
    fake.serve(file);
    const std::string local = writeFile(path("put.bin"), file), got = path("got.bin");
    const auto silence = [](Bytes& b) { b.clear(); };
    const auto wrongReplyCode = [](Bytes& b) { b[0] = 0xC6, --b.back(); };  // the checksum still fits
    const auto wrongChunkCode = [](Bytes& b) { b[1] = 0xC6, ++b.back(); };
    const auto wrongOffset = [](Bytes& b) { b[3] += 2, b.back() -= 2; };  // 512 further on
    const auto badChecksum = [](Bytes& b) { ++b.back(); };
    const auto shortened = [](Bytes& b) { b.pop_back(); };
    const auto sizeZero = [](Bytes& b) { b = withChecksum({0xC5, 0, 0, 0}); };  // an empty or missing file
    const std::string badReply = "No/bad response from server", badChunk = "No/bad data packet from server";
    // put or get, the step that fails, how, the message, the least time it takes
    const std::tuple<bool, size_t, std::function<void(Bytes&)>, std::string, double> cases[] = {
        {true, 0, silence, "Start failed - no/bad response from orvRx", 4000},
        {true, 2, silence, badReply, 1000},
        {true, 1, [](Bytes& b) { b = {0xC6}; }, badReply, 0},
        {false, 0, silence, badReply, 4000},
        {false, 0, wrongReplyCode, badReply, 0},
        {false, 0, badChecksum, badReply, 0},
        {false, 0, shortened, badReply, 0},
        {false, 0, sizeZero, "File not found by server", 0},
        {false, 1, badChecksum, badChunk, 0},
        {false, 2, wrongOffset, badChunk, 0},
        {false, 1, shortened, badChunk, 0},
        {false, 3, wrongChunkCode, badChunk, 0},
        {false, 2, silence, badChunk, 1000}};
    access.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    std::string echoed;
    for (const auto& [put, step, change, error, minMs] : cases) {
        SCOPED_TRACE(error + " at step " + std::to_string(step));
        std::filesystem::remove(got);
        fake.clearFrames();
        fake.fault(step, change);
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(put ? access.putFile(local, "f", ORVACCESS_FILE_LOC_1)
                         : access.getFile("f", ORVACCESS_FILE_LOC_1, got));
        EXPECT_EQ(access.getLastError(), error);
        EXPECT_GE(orvtest::msSince(t0), minMs);
        EXPECT_LT(orvtest::msSince(t0), minMs * orvtest::kWaitStretch + 1500);
        echoed += "ORVAERR: " + error + "\n";
        // Nothing more goes out after the failed step but the abort C8 of a get.
        const bool aborted = !put && step > 0;
        EXPECT_TRUE(fake.waitFrames(step + 1));
        EXPECT_EQ(fake.frames().size(), step + 1);
        EXPECT_EQ(fake.last() == Bytes{0xC8}, aborted);
        // The chunks before a bad one stay on disk; no file before a good reply.
        EXPECT_EQ(std::filesystem::exists(got), aborted);
        EXPECT_EQ(readFile(got), Bytes(file.begin(), file.begin() + (aborted ? (step - 1) * 512 : 0)));
    }
    EXPECT_EQ(err.text(), echoed);
}
