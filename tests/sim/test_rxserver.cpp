// The simulated command server against the real library over TCP on
// 127.0.0.1, and against a raw client for the framing the library never
// exercises (split and packed frames, garbage, bad checksums, reconnects).
#include <poll.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <thread>

#include "sim/RxServer.hpp"
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
    ASSERT_TRUE(access.getRegister(200, 0x77, &v));
    EXPECT_EQ(v, 0);

    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    EXPECT_TRUE(with([](RxServer& s) { return s.streaming(); }));
    ASSERT_TRUE(access.setStreaming(false)) << access.getLastError();
    EXPECT_FALSE(with([](RxServer& s) { return s.streaming(); }));

    // Write three registers of the camera IMU from 0x10, then read four back.
    unsigned char tx[] = {0x10, 1, 2, 3};
    unsigned char rx[8] = {};
    unsigned long n = 99;
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, tx, 4, rx, 0, 10, &n));  // nothing awaited
    unsigned char read[] = {0x0F};
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_CAMERA, read, 1, rx, 5, 10, &n)) << access.getLastError();
    ASSERT_EQ(n, 5u);
    EXPECT_EQ(Bytes(rx, rx + 5), (Bytes{0, 1, 2, 3, 0}));
    EXPECT_EQ(with([](RxServer& s) { return s.imuReg(2, 0x12); }), 3);
    // The platform IMU is a separate register file; no transmit bytes read from 0.
    ASSERT_TRUE(access.transactImu(ORVACCESS_IMU_PLATFORM, nullptr, 0, rx, 2, 10, &n));
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(rx[0], RxServer::kImuIdentity);
    EXPECT_EQ(with([](RxServer& s) { return s.imuReg(1, 0x11); }), 0);
}

TEST_F(RxServerTest, FilesRoundTripAndRefusals) {
    openAccess();
    Bytes content(1000);
    std::mt19937 gen(7);
    for (unsigned char& c : content) c = static_cast<unsigned char>(gen());
    const std::string src = dir.write("src.bin", std::string(content.begin(), content.end()));

    ASSERT_TRUE(access.putFile(src, "cal.bin", ORVACCESS_FILE_LOC_1)) << access.getLastError();
    EXPECT_EQ(readAll(local("files/cal.bin")), content);
    ASSERT_TRUE(access.getFile("cal.bin", ORVACCESS_FILE_LOC_1, local("back.bin"))) << access.getLastError();
    EXPECT_EQ(readAll(local("back.bin")), content);

    // Exactly one chunk, and a file the server already had.
    dir.write("files/one.bin", std::string(512, 'x'));
    ASSERT_TRUE(access.getFile("one.bin", ORVACCESS_FILE_LOC_0, local("one.bin"))) << access.getLastError();
    EXPECT_EQ(readAll(local("one.bin")), Bytes(512, 'x'));

    EXPECT_FALSE(access.getFile("missing.bin", ORVACCESS_FILE_LOC_0, local("m.bin")));
    EXPECT_EQ(access.getLastError(), "File not found by server");
    // Outside the folder is out of reach even when the file exists.
    EXPECT_FALSE(access.getFile("../src.bin", ORVACCESS_FILE_LOC_0, local("m.bin")));
    EXPECT_EQ(access.getLastError(), "File not found by server");
    EXPECT_FALSE(std::filesystem::exists(local("m.bin")));
    // Commands after a transfer are still understood.
    ASSERT_TRUE(access.setRegister(200, 9, 1)) << access.getLastError();
}

TEST_F(RxServerTest, SilentAndCorruptRepliesReachTheLibrarysErrors) {
    openAccess();
    unsigned char v = 0;
    with([](RxServer& s) { s.setReplies(RxServer::Replies::Silent); });
    EXPECT_FALSE(access.setRegister(50, 5, 1));
    EXPECT_EQ(access.getLastError(), "No response to set register command");
    EXPECT_FALSE(access.getRegister(50, 5, &v));
    EXPECT_EQ(access.getLastError(), "No response to get register command");
    EXPECT_EQ(with([](RxServer& s) { return s.reg(5); }), 0);  // a silent server changes nothing

    with([](RxServer& s) { s.setReplies(RxServer::Replies::Corrupt); });
    EXPECT_FALSE(access.setRegister(200, 5, 1));
    EXPECT_EQ(access.getLastError(), "Invalid ack to set register command");
    EXPECT_FALSE(access.getRegister(200, 5, &v));
    EXPECT_EQ(access.getLastError(), "Invalid response to get register command");
    EXPECT_FALSE(access.getFile("x", ORVACCESS_FILE_LOC_0, local("x")));
    EXPECT_EQ(access.getLastError(), "No/bad response from server");

    with([](RxServer& s) { s.setReplies(RxServer::Replies::Normal); });
    ASSERT_TRUE(access.getRegister(200, 5, &v)) << access.getLastError();
    EXPECT_EQ(v, 1);  // the corrupted set still took effect
}

// A plain TCP client that writes raw bytes and collects what comes back.
class RawClient {
public:
    explicit RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in a = orvtest::loopback(port);
        EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    }
    ~RawClient() { ::close(fd_); }
    void write(const Bytes& b) {
        ASSERT_EQ(send(fd_, b.data(), b.size(), 0), static_cast<ssize_t>(b.size()));
    }
    // Everything that arrives until `n` bytes are in or `ms` pass.
    Bytes read(size_t n, int ms = 1000) {
        Bytes got;
        unsigned char buf[1024];
        pollfd p{fd_, POLLIN, 0};
        while (got.size() < n && ::poll(&p, 1, ms) > 0) {
            const ssize_t r = recv(fd_, buf, sizeof buf, 0);
            if (r <= 0) break;
            got.insert(got.end(), buf, buf + r);
        }
        return got;
    }

private:
    int fd_;
};

TEST_F(RxServerTest, FramesSplitPackedOrDamagedAreParsedByContent) {
    RawClient c(port);
    const Bytes set = sealed({0xAB, 0xC4, 0x02, 0x01, 0x00, 0x07});
    const Bytes get = sealed({0xAB, 0xC3, 0x02, 0x01, 0x00});
    // Split byte by byte.
    for (unsigned char b : set) {
        c.write({b});
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(c.read(1), Bytes{0xC4});

    // Garbage, a frame with a bad checksum, an unknown code, then two good
    // frames in one write: only the good ones are answered, in order.
    Bytes packed{0x00, 0x55, 0xAB, 0xC4, 0x09, 0, 0, 1, 0x00, 0xAB, 0x99};
    packed.insert(packed.end(), get.begin(), get.end());
    packed.insert(packed.end(), set.begin(), set.end());
    c.write(packed);
    EXPECT_EQ(c.read(4), (Bytes{0xC3, 0x07, static_cast<unsigned char>(-(0xC3 + 0x07)), 0xC4}));
    EXPECT_EQ(with([](RxServer& s) { return std::make_pair(s.framesRejected(), s.reg(9)); }),
              std::make_pair(uint64_t{1}, static_cast<unsigned char>(0)));

    // A put whose start frame arrives in two pieces, a refused name, and a
    // chunk at the wrong offset: only the good steps are acknowledged.
    Bytes put = sealed({0xAB, 0xC6, 0x00, 'a', '.', 'b', 0, 3, 0, 0});
    c.write(Bytes(put.begin(), put.begin() + 5));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    c.write(Bytes(put.begin() + 5, put.end()));
    EXPECT_EQ(c.read(1), Bytes{0xC6});
    Bytes chunk{0xAB, 0xC7, 0, 2, 0, 'x', 'y', 'z'};
    chunk.resize(517, 0);
    c.write(sealed(chunk));
    EXPECT_EQ(c.read(1, 100), Bytes{});
    chunk[3] = 0;
    c.write(sealed(chunk));
    EXPECT_EQ(c.read(1), Bytes{0xC7});
    EXPECT_EQ(readAll(local("files/a.b")), (Bytes{'x', 'y', 'z'}));
    c.write(sealed({0xAB, 0xC6, 0x00, '.', '.', 0, 3, 0, 0}));
    EXPECT_EQ(c.read(1, 100), Bytes{});

    // A second connection takes over from the first.
    RawClient d(port);
    d.write(get);
    EXPECT_EQ(d.read(3).size(), 3u);
    EXPECT_TRUE(with([](RxServer& s) { return s.hasClient(); }));
}

}  // namespace
