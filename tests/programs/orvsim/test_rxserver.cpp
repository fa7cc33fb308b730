// The simulated command server against the real library over TCP on
// 127.0.0.1, and against a raw client for the framing the library never
// exercises (split and packed frames, garbage, bad checksums, reconnects).
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <thread>

#include "os/OrvosiTcp.hpp"
#include "orvsim/RxServer.hpp"
#include "support/TestSupport.hpp"

namespace {

using orvsim::RxServer;
using orvtest::Bytes;

Bytes sealed(Bytes b) {
    b.push_back(static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size())));
    return b;
}

Bytes readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A server polled every millisecond from its own thread; the test touches
// it only through with(), which holds the loop off meanwhile.
class RxServerTest : public testing::Test {
protected:
    RxServerTest() : server((dir.path() / "files").string()) {
        std::filesystem::create_directory(dir.path() / "files");
        EXPECT_TRUE(server.open(port)) << server.lastError();
        loop = std::thread([this] {
            while (!stop) {
                {
                    std::lock_guard<std::mutex> held(mu);
                    server.poll();
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    ~RxServerTest() override {
        access.close();  // still talks to the server
        stop = true;
        loop.join();
    }
    template <class F>
    auto with(F f) {
        std::lock_guard<std::mutex> held(mu);
        return f(server);
    }
    void openAccess() {
        int ports[5] = {};
        ports[orvtest::kMeta] = orvtest::freePort();
        access.setIniPath(dir.write(
            "orvaccess.ini",
            orvtest::receiverIni(ports, "tcpOrvRxEnabled = 1\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                                            std::to_string(port) + "\n")));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    std::string local(const std::string& name) const { return dir.prefix() + name; }

    orvtest::TempDir dir;
    int port = orvtest::freePort();
    std::mutex mu;
    RxServer server;
    std::atomic<bool> stop{false};
    std::thread loop;
    OrvAccess access;
};

TEST_F(RxServerTest, RegistersStreamingAndImuThroughTheLibrary) {
    openAccess();
    EXPECT_FALSE(with([](RxServer& s) { return s.streaming(); }));  // open switches it off
    unsigned char v = 0xEE;
    ASSERT_TRUE(access.setRegister(200, 0x1020304, 0x5A)) << access.getLastError();  // low 24 bits
    EXPECT_EQ(with([](RxServer& s) { return s.reg(0x020304); }), 0x5A);
    ASSERT_TRUE(access.getRegister(200, 0x020304, &v)) << access.getLastError();
    EXPECT_EQ(v, 0x5A);
    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    EXPECT_TRUE(with([](RxServer& s) { return s.streaming(); }));
    ASSERT_TRUE(access.setStreaming(false)) << access.getLastError();
    EXPECT_FALSE(with([](RxServer& s) { return s.streaming(); }));

    // Write three registers of the camera IMU from 0x10, then read four back.
    unsigned char tx[] = {0x10, 1, 2, 3}, read[] = {0x0F}, rx[8] = {};
    unsigned long n = 99;
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 4, rx, 0, 10, &n));  // nothing awaited
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, read, 1, rx, 5, 10, &n)) << access.getLastError();
    EXPECT_EQ(Bytes(rx, rx + n), (Bytes{0, 1, 2, 3, 0}));
    // The platform IMU is a separate register file; no transmit bytes read from 0.
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_PLATFORM, nullptr, 0, rx, 2, 10, &n));
    EXPECT_EQ(Bytes(rx, rx + n), (Bytes{RxServer::kImuIdentity, 0}));
    EXPECT_EQ(with([](RxServer& s) { return std::make_pair(s.imuReg(2, 0x12), s.imuReg(1, 0x11)); }),
              (std::pair<unsigned char, unsigned char>(3, 0)));
}

TEST_F(RxServerTest, FilesRoundTripThenCorruptReplies) {
    openAccess();
    Bytes content(1000);
    std::mt19937 gen(7);
    for (unsigned char& c : content) c = static_cast<unsigned char>(gen());
    const std::string src = dir.write("src.bin", std::string(content.begin(), content.end()));
    ASSERT_TRUE(access.putFile(src, "cal.bin", ORVACCESS_FILE_LOC_1)) << access.getLastError();
    EXPECT_EQ(readAll(local("files/cal.bin")), content);
    ASSERT_TRUE(access.getFile("cal.bin", ORVACCESS_FILE_LOC_0, local("back.bin"))) << access.getLastError();
    EXPECT_EQ(readAll(local("back.bin")), content);
    EXPECT_FALSE(access.getFile("missing.bin", ORVACCESS_FILE_LOC_0, local("m.bin")));
    EXPECT_EQ(access.getLastError(), "File not found by server");
    EXPECT_FALSE(access.getFile("../src.bin", ORVACCESS_FILE_LOC_0, local("m.bin")));  // outside the folder
    EXPECT_FALSE(std::filesystem::exists(local("m.bin")));

    // Commands still take effect, but every reply is damaged.
    with([](RxServer& s) { s.setReplies(RxServer::Replies::Corrupt); });
    EXPECT_FALSE(access.setRegister(200, 5, 1));
    EXPECT_EQ(access.getLastError(), "Invalid ack to set register command");
    EXPECT_EQ(with([](RxServer& s) { return s.reg(5); }), 1);
}

TEST_F(RxServerTest, FramesSplitPackedOrDamagedAreParsedByContent) {
    OrvosiTcpClient c;
    ASSERT_TRUE(c.open("127.0.0.1", port, 200000)) << c.getLastError();
    const auto write = [&c](const Bytes& b) {
        ASSERT_TRUE(c.write(reinterpret_cast<const char*>(b.data()), b.size()));
    };
    // Everything that arrives until `n` bytes are in or a read times out.
    const auto read = [](OrvosiTcpClient& from, size_t n) {
        Bytes got;
        char buf[64];
        int r = 1;
        while (got.size() < n && from.read(buf, sizeof buf, &r) && r > 0) got.insert(got.end(), buf, buf + r);
        return got;
    };
    const Bytes set = sealed({0xAB, 0xC4, 0x02, 0x01, 0x00, 0x07});
    const Bytes get = sealed({0xAB, 0xC3, 0x02, 0x01, 0x00});
    for (unsigned char b : set) {  // split byte by byte
        write({b});
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(read(c, 1), Bytes{0xC4});

    // Garbage, a frame with a bad checksum, an unknown code, then two good
    // frames in one write: only the good ones are answered, in order.
    Bytes packed{0x00, 0x55, 0xAB, 0xC4, 0x09, 0, 0, 1, 0x00, 0xAB, 0x99};
    packed.insert(packed.end(), get.begin(), get.end());
    packed.insert(packed.end(), set.begin(), set.end());
    write(packed);
    EXPECT_EQ(read(c, 5), (Bytes{0xC3, 0x07, static_cast<unsigned char>(-(0xC3 + 0x07)), 0xC4}));
    EXPECT_EQ(with([](RxServer& s) { return std::make_pair(s.framesRejected(), s.reg(9)); }),
              std::make_pair(uint64_t{1}, static_cast<unsigned char>(0)));

    // A second connection takes over from the first.
    OrvosiTcpClient d;
    ASSERT_TRUE(d.open("127.0.0.1", port, 200000)) << d.getLastError();
    ASSERT_TRUE(d.write(reinterpret_cast<const char*>(get.data()), get.size()));
    EXPECT_EQ(read(d, 3).size(), 3u);
}

}  // namespace
