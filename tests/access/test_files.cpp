// File transfer with a fake orvRx over real TCP on 127.0.0.1: files of every
// size class go both ways byte for byte, the frames are exact, and every way
// the server can misbehave ends in its own message.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/orvaccess.h"
#include "support/FakeOrvRx.hpp"
#include "support/TestSupport.hpp"

using orvtest::Bytes;
using orvtest::FakeOrvRx;
using Fault = orvtest::FakeOrvRx::FileFault;

namespace {

Bytes randomBytes(size_t n, unsigned int seed) {
    std::mt19937 gen(seed);
    Bytes b(n);
    for (unsigned char& c : b) c = static_cast<unsigned char>(gen());
    return b;
}

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const Bytes& b) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

unsigned char negSum(const Bytes& b) {
    unsigned int sum = 0;
    for (unsigned char c : b) sum += c;
    return static_cast<unsigned char>(-sum);
}

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// An object opened on the fake's TCP port with every other channel off.
class Files : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string ini = dir.prefix() + "orvaccess.ini";
        std::ofstream(ini) << "[Communication]\ntcpOrvRxAddr=127.0.0.1\ntcpOrvRxPort=" << fake.port()
                           << "\nudpOrvRxPort=0\nudpOrvRxImgPort=0\nudpOrvRxInputPort=0\nudpOrvCorePort=0\n"
                              "udpNftPort=0\nsMemImgName=\n";
        a.setIniPath(ini);
        ASSERT_TRUE(a.open()) << a.getLastError();
        ASSERT_TRUE(fake.waitFrames(1));
        fake.clearFrames();
    }
    std::string path(const std::string& name) const { return dir.prefix() + name; }

    // A put of `content` as `name`; the frames it produced are checked
    // against the protocol: start frame, then one 518-byte chunk per 512
    // bytes, offsets in order.
    void putAndCheck(const Bytes& content, const std::string& name, unsigned char location) {
        SCOPED_TRACE("put of " + std::to_string(content.size()) + " bytes");
        const std::string local = path("put.bin");
        writeFile(local, content);
        fake.clearFrames();
        ASSERT_TRUE(a.putFile(local, name, static_cast<e_OrvAccessFileLoc>(location))) << a.getLastError();
        Bytes stored;
        ASSERT_TRUE(fake.storedFile(location, name, &stored));
        EXPECT_TRUE(stored == content);
        EXPECT_TRUE(fake.violations().empty()) << fake.violations().front();

        const auto frames = fake.frames();
        const size_t chunks = (content.size() + 511) / 512;
        ASSERT_EQ(frames.size(), 1 + chunks);
        Bytes start{0xAB, 0xC6, location};
        start.insert(start.end(), name.begin(), name.end());
        start.push_back(0);
        const size_t n = content.size();
        start.insert(start.end(), {static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8),
                                   static_cast<unsigned char>(n >> 16)});
        start.push_back(negSum(start));
        EXPECT_EQ(frames[0], start);
        for (size_t i = 0; i < chunks; ++i) {
            ASSERT_EQ(frames[1 + i].size(), 518u);
            EXPECT_EQ(frames[1 + i][2] | frames[1 + i][3] << 8 | frames[1 + i][4] << 16,
                      static_cast<int>(i * 512));
        }
    }

    FakeOrvRx fake;  // declared first: outlives the object, whose close() may still talk
    orvtest::TempDir dir;
    OrvAccess a;
};

}  // namespace

TEST_F(Files, SmallFilesRoundTripByteForByte) {
    unsigned int seed = 1;
    for (size_t size : {size_t{1}, size_t{511}, size_t{512}, size_t{513}, size_t{1000}, size_t{1536}}) {
        const Bytes content = randomBytes(size, seed++);
        putAndCheck(content, "cal/file" + std::to_string(size) + ".ini", 2);

        fake.clearFrames();
        const std::string back = path("back.bin");
        ASSERT_TRUE(a.getFile("cal/file" + std::to_string(size) + ".ini", ORVACCESS_FILE_LOC_2, back))
            << a.getLastError();
        EXPECT_TRUE(readFile(back) == content) << size;
        // The request, then one bare C7 per chunk received.
        const size_t chunks = (size + 511) / 512;
        EXPECT_TRUE(fake.waitFrames(1 + chunks));
        const auto frames = fake.frames();
        ASSERT_EQ(frames.size(), 1 + chunks);
        const std::string name = "cal/file" + std::to_string(size) + ".ini";
        Bytes request{0xAB, 0xC5, 0x02};
        request.insert(request.end(), name.begin(), name.end());
        request.push_back(0);
        request.push_back(negSum(request));
        EXPECT_EQ(frames[0], request);
        for (size_t i = 1; i < frames.size(); ++i) EXPECT_EQ(frames[i], Bytes{0xC7});
    }
    EXPECT_TRUE(fake.violations().empty());
}

TEST_F(Files, LastChunkIsFilledWithZerosAndLocationsAreKeptApart) {
    // 1000 bytes: two chunks, the second with 488 file bytes and 24 zeros.
    Bytes content(1000, 0xFF);
    putAndCheck(content, "a", 0);
    const auto frames = fake.frames();
    const Bytes& second = frames.at(2);
    EXPECT_EQ(second[2], 0x00);
    EXPECT_EQ(second[3], 0x02);
    EXPECT_EQ(second[5 + 487], 0xFF);
    for (size_t i = 5 + 488; i < 517; ++i) ASSERT_EQ(second[i], 0x00) << i;
    EXPECT_EQ(negSum(Bytes(second.begin(), second.end() - 1)), second[517]);

    // The same name at another location is another file.
    putAndCheck(Bytes{1, 2, 3}, "a", 255);
    Bytes stored;
    ASSERT_TRUE(fake.storedFile(0, "a", &stored));
    EXPECT_EQ(stored.size(), 1000u);
    const std::string back = path("loc255");
    ASSERT_TRUE(a.getFile("a", ORVACCESS_FILE_LOC_MAX, back)) << a.getLastError();
    EXPECT_EQ(readFile(back), (Bytes{1, 2, 3}));
}

TEST_F(Files, MultiMegabytePut) {
    const Bytes content = randomBytes(2 * 1024 * 1024 + 77, 42);
    const std::string local = path("big.bin");
    writeFile(local, content);
    ASSERT_TRUE(a.putFile(local, "big", ORVACCESS_FILE_LOC_1)) << a.getLastError();
    Bytes stored;
    ASSERT_TRUE(fake.storedFile(1, "big", &stored));
    EXPECT_TRUE(stored == content);
    EXPECT_TRUE(fake.violations().empty());
    EXPECT_EQ(fake.frames().size(), 1 + (content.size() + 511) / 512);
}

TEST_F(Files, MultiMegabyteGetThroughTheCInterface) {
    const Bytes content = randomBytes(2 * 1024 * 1024 + 300, 43);
    fake.storeFile(3, "big", content);
    const std::string local = path("big.bin");
    ASSERT_EQ(OrvAccess_getFile(&a, "big", ORVACCESS_FILE_LOC_3, local.c_str()), 1) << a.getLastError();
    EXPECT_TRUE(readFile(local) == content);
    EXPECT_TRUE(fake.violations().empty());
    EXPECT_EQ(fake.aborts(), 0u);
}

TEST_F(Files, LocalFileProblemsAndSizeLimits) {
    a.setVerbosity(0x4);
    orvtest::CapturedStderr err;

    EXPECT_FALSE(a.putFile(path("missing.bin"), "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "No such file or directory");

    writeFile(path("empty.bin"), {});
    EXPECT_FALSE(a.putFile(path("empty.bin"), "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "File empty or unreadable");

    // One byte beyond what 24 bits can carry: refused before anything goes out.
    const std::string huge = path("huge.bin");
    { std::ofstream(huge, std::ios::binary); }
    std::filesystem::resize_file(huge, 16777216);
    EXPECT_FALSE(a.putFile(huge, "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "File too large (limit is 16777215 bytes)");
    EXPECT_TRUE(fake.frames().empty());

    // The largest size that fits is announced as FF FF FF.
    std::filesystem::resize_file(huge, 16777215);
    fake.setFileFault(Fault::WrongAck, 0);
    EXPECT_FALSE(a.putFile(huge, "x", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "Start failed - no/bad response from orvRx");
    ASSERT_EQ(fake.frames().size(), 1u);
    const Bytes start{0xAB, 0xC6, 0x00, 'x', 0x00, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(fake.frames()[0], (Bytes{0xAB, 0xC6, 0x00, 'x', 0x00, 0xFF, 0xFF, 0xFF, negSum(start)}));
    fake.setFileFault(Fault::None);

    // A local file that cannot be created: the server's file is there, the
    // transfer stops before a byte is written.
    fake.storeFile(0, "y", Bytes(600, 7));
    EXPECT_FALSE(a.getFile("y", ORVACCESS_FILE_LOC_0, path("no/such/dir.bin")));
    EXPECT_EQ(a.getLastError(), "No such file or directory");

    const std::string text = err.text();
    for (const char* line : {"ORVAERR: No such file or directory\n", "ORVAERR: File empty or unreadable\n",
                             "ORVAERR: File too large (limit is 16777215 bytes)\n",
                             "ORVAERR: Start failed - no/bad response from orvRx\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << text;

    // The next transfer is not disturbed by the abandoned one.
    const std::string back = path("y.bin");
    ASSERT_TRUE(a.getFile("y", ORVACCESS_FILE_LOC_0, back)) << a.getLastError();
    EXPECT_EQ(readFile(back), Bytes(600, 7));
}

TEST_F(Files, PutFailsOnEveryBadAnswer) {
    const std::string local = path("three-chunks.bin");
    writeFile(local, randomBytes(1300, 5));
    a.setVerbosity(0x4);
    orvtest::CapturedStderr err;

    fake.setFileFault(Fault::Silence, 0);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(a.putFile(local, "p", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "Start failed - no/bad response from orvRx");
    EXPECT_GE(msSince(t0), 4000.0);
    EXPECT_LT(msSince(t0), 6000.0);
    EXPECT_EQ(fake.frames().size(), 1u) << "no chunk after an unanswered start";

    fake.setFileFault(Fault::WrongAck, 0);
    EXPECT_FALSE(a.putFile(local, "p", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "Start failed - no/bad response from orvRx");

    // The second chunk's ack never comes: one second, then the transfer stops.
    fake.clearFrames();
    fake.setFileFault(Fault::Silence, 2);
    t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(a.putFile(local, "p", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "No/bad response from server");
    EXPECT_GE(msSince(t0), 1000.0);
    EXPECT_LT(msSince(t0), 2500.0);
    EXPECT_EQ(fake.frames().size(), 3u) << "start and two chunks, the third never sent";

    fake.clearFrames();
    fake.setFileFault(Fault::WrongAck, 1);
    EXPECT_FALSE(a.putFile(local, "p", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "No/bad response from server");
    EXPECT_EQ(fake.frames().size(), 2u);

    const std::string text = err.text();
    EXPECT_NE(text.find("ORVAERR: Start failed - no/bad response from orvRx\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ORVAERR: No/bad response from server\n"), std::string::npos) << text;

    Bytes stored;
    EXPECT_FALSE(fake.storedFile(0, "p", &stored)) << "no transfer completed";
    fake.setFileFault(Fault::None);
    EXPECT_TRUE(a.putFile(local, "p", ORVACCESS_FILE_LOC_0)) << a.getLastError();
}

TEST_F(Files, GetFailsOnEveryBadReply) {
    fake.storeFile(1, "g", randomBytes(1300, 9));
    const std::string local = path("g.bin");
    a.setVerbosity(0x4);
    orvtest::CapturedStderr err;

    fake.setFileFault(Fault::Silence, 0);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(a.getFile("g", ORVACCESS_FILE_LOC_1, local));
    EXPECT_EQ(a.getLastError(), "No/bad response from server");
    EXPECT_GE(msSince(t0), 4000.0);
    EXPECT_LT(msSince(t0), 6000.0);

    for (Fault f : {Fault::WrongAck, Fault::BadChecksum, Fault::Short}) {
        fake.setFileFault(f, 0);
        EXPECT_FALSE(a.getFile("g", ORVACCESS_FILE_LOC_1, local));
        EXPECT_EQ(a.getLastError(), "No/bad response from server") << static_cast<int>(f);
    }
    EXPECT_FALSE(std::filesystem::exists(local)) << "no local file before a good reply";

    // Size 0, whether the server says so or the file is not there.
    fake.setFileFault(Fault::ZeroSize, 0);
    EXPECT_FALSE(a.getFile("g", ORVACCESS_FILE_LOC_1, local));
    EXPECT_EQ(a.getLastError(), "File not found by server");
    fake.setFileFault(Fault::None);
    EXPECT_FALSE(a.getFile("g", ORVACCESS_FILE_LOC_0, local));
    EXPECT_EQ(a.getLastError(), "File not found by server");
    EXPECT_FALSE(std::filesystem::exists(local));

    // Bad chunks are answered with C8; what came before stays on disk.
    struct Case {
        Fault fault;
        size_t step;
        size_t keptBytes;
    };
    for (const Case& c :
         {Case{Fault::BadChecksum, 1, 0}, Case{Fault::WrongOffset, 2, 512}, Case{Fault::Short, 1, 0},
          Case{Fault::WrongAck, 3, 1024}, Case{Fault::Silence, 2, 512}}) {
        SCOPED_TRACE(static_cast<int>(c.fault));
        fake.setFileFault(c.fault, c.step);
        const size_t abortsBefore = fake.aborts();
        EXPECT_FALSE(a.getFile("g", ORVACCESS_FILE_LOC_1, local));
        EXPECT_EQ(a.getLastError(), "No/bad data packet from server");
        for (int i = 0; i < 500 && fake.aborts() == abortsBefore; ++i) usleep(2000);
        EXPECT_EQ(fake.aborts(), abortsBefore + 1);
        EXPECT_EQ(fake.frames().back(), Bytes{0xC8});
        EXPECT_EQ(std::filesystem::file_size(local), c.keptBytes);
    }

    const std::string text = err.text();
    for (const char* line : {"ORVAERR: No/bad response from server\n", "ORVAERR: File not found by server\n",
                             "ORVAERR: No/bad data packet from server\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line << text;

    fake.setFileFault(Fault::None);
    ASSERT_TRUE(a.getFile("g", ORVACCESS_FILE_LOC_1, local)) << a.getLastError();
    Bytes stored;
    ASSERT_TRUE(fake.storedFile(1, "g", &stored));
    EXPECT_TRUE(readFile(local) == stored);
    EXPECT_TRUE(fake.violations().empty()) << fake.violations().front();
}

TEST_F(Files, TransfersStopStreamingFirst) {
    fake.storeFile(0, "s", Bytes{9});
    writeFile(path("s.bin"), Bytes{8});
    const Bytes stop{0xAB, 0xC4, 0, 0, 0, 0, 0x91};

    ASSERT_TRUE(a.setStreaming(true)) << a.getLastError();
    fake.clearFrames();
    ASSERT_TRUE(a.getFile("s", ORVACCESS_FILE_LOC_0, path("got.bin"))) << a.getLastError();
    EXPECT_FALSE(a.getStreaming());
    EXPECT_EQ(fake.frames().at(0), stop);
    EXPECT_EQ(fake.frames().at(1)[1], 0xC5);

    ASSERT_TRUE(a.setStreaming(true));
    fake.clearFrames();
    ASSERT_TRUE(a.putFile(path("s.bin"), "t", ORVACCESS_FILE_LOC_0)) << a.getLastError();
    EXPECT_FALSE(a.getStreaming());
    EXPECT_EQ(fake.frames().at(0), stop);
    EXPECT_EQ(fake.frames().at(1)[1], 0xC6);

    // A stop that orvRx does not acknowledge ends the transfer before it starts.
    ASSERT_TRUE(a.setStreaming(true));
    fake.setMode(FakeOrvRx::Mode::Silent);
    fake.clearFrames();
    EXPECT_FALSE(a.getFile("s", ORVACCESS_FILE_LOC_0, path("got2.bin")));
    EXPECT_EQ(a.getLastError(), "Failed to set streaming state");
    EXPECT_EQ(fake.frames().size(), 1u);
}

TEST(FilesClosed, TransfersNeedTheTcpChannel) {
    orvtest::TempDir dir;
    OrvAccess a;
    const std::string local = dir.write("f.bin", "abc");
    EXPECT_FALSE(a.putFile(local, "f", ORVACCESS_FILE_LOC_0));
    EXPECT_EQ(a.getLastError(), "TCP not open");
    EXPECT_EQ(OrvAccess_getFile(&a, "f", ORVACCESS_FILE_LOC_0, (dir.prefix() + "g").c_str()), 0);
    EXPECT_EQ(a.getLastError(), "TCP not open");
    EXPECT_FALSE(std::filesystem::exists(dir.prefix() + "g"));
}
