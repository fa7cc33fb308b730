// Camera images against real peers: pieces sent over UDP on 127.0.0.1 and
// reassembled by an open object, and images published in real shared memory
// by a producer thread or process using the library's own region class.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/orvaccess.h"
#include "osi/OrvosiSharedMem.hpp"
#include "osi/OrvosiUtil.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"

namespace {

using orvtest::Bytes;
using orvtest::kImage;

constexpr size_t kStep = 60000;  // pixel bytes per piece in whole-image tests
constexpr size_t kBatch = 4;     // pieces sent before the socket is drained

size_t imageSize(unsigned char format) {
    unsigned int w = 0, h = 0, b = 0;
    OrvosiUtil::GetImageResolution(format, &w, &h, &b);
    return static_cast<size_t>(w) * h * b;
}

Bytes randomBytes(size_t n, unsigned int seed) {
    std::mt19937 gen(seed);
    Bytes b(n);
    for (unsigned char& c : b) c = static_cast<unsigned char>(gen());
    return b;
}

// One piece as orvRx sends it: type 7, length, sequence id, format, address,
// pixels, checksum.
Bytes piece(uint32_t seq, unsigned char format, uint32_t address, const unsigned char* pixels, size_t n) {
    Bytes b(n + 12);
    b[0] = 7;
    OrvosiUtil::lendian(&b[1], b.size(), 2);
    OrvosiUtil::lendian(&b[3], seq, 4);
    b[7] = format;
    OrvosiUtil::lendian(&b[8], address, 3);
    if (n > 0) std::memcpy(&b[11], pixels, n);
    b.back() = static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size() - 1));
    return b;
}
Bytes piece(uint32_t seq, unsigned char format, uint32_t address, size_t n) {
    const Bytes px(n, static_cast<unsigned char>(address));
    return piece(seq, format, address, px.data(), n);
}

int expectedPercent(size_t end, size_t size) {
    const size_t p = end * 100 / size;
    return p == 0 ? 1 : p > 99 ? 99 : static_cast<int>(p);
}

struct Fetched {
    bool ok = false;
    int percent = -1;
    int format = -1;
    unsigned int seq = 0;
};

class Images : public testing::Test {
protected:
    void SetUp() override {
        for (int& p : port) p = orvtest::freePort();
    }
    void TearDown() override { access.setVerbosity(0); }

    // Opens on five fresh ports (TCP off) with a large image socket buffer.
    void open(const std::string& extra = "") {
        access.setIniPath(dir.write("orvaccess.ini",
                                    orvtest::receiverIni(port, "udpOrvRxImgRcvBufSize = 8388608\n" + extra)));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    void send(const Bytes& b) { ASSERT_TRUE(sender.send(port[kImage], b)); }
    // Processes what has arrived without taking an image out.
    void pump() {
        s_OrvAccessStatus st{};
        ASSERT_TRUE(access.getStatus(&st)) << access.getLastError();
    }
    // Sends content[from, to) in pieces of `step` bytes, draining the socket
    // after every few so that its buffer never overflows.
    void sendRange(uint32_t seq, unsigned char format, const Bytes& content, size_t from, size_t to,
                   size_t step = kStep) {
        size_t sent = 0;
        for (size_t at = from; at < to; at += step) {
            send(piece(seq, format, static_cast<uint32_t>(at), content.data() + at, std::min(step, to - at)));
            if (++sent % kBatch == 0) pump();
        }
        pump();
    }
    Fetched fetch(unsigned char* buffer, unsigned long capacity) {
        Fetched f;
        OrvAccess::ImageFormat format = ORVACCESS_IMG_640x480_1;
        f.ok = access.getImage(&f.percent, &format, &f.seq, buffer, capacity);
        f.format = static_cast<int>(format);
        return f;
    }
    Fetched fetch(Bytes& buffer) { return fetch(buffer.data(), buffer.size()); }
    std::vector<s_OrvAccessErrorCode> errors() {
        std::vector<s_OrvAccessErrorCode> out;
        s_OrvAccessErrorCode c{};
        while (access.getErrorCode(&c) != 0) out.push_back(c);
        return out;
    }

    orvtest::TempDir dir;
    int port[5] = {};
    orvtest::UdpSender sender;
    OrvAccess access;
};

}  // namespace

TEST_F(Images, WholeImageOfEverySizeClassArrives) {
    open();
    Bytes out(4 * 1024 * 1024);
    const unsigned char formats[] = {10, 11, 12, 20, 21, 30, 31, 40, 41, 50, 51};
    uint32_t seq = 1000;
    for (unsigned char format : formats) {
        SCOPED_TRACE(static_cast<int>(format));
        const size_t size = imageSize(format);
        const Bytes content = randomBytes(size, format);
        ++seq;
        // Progress after each batch: bytes so far over the size, never 0 or 100.
        for (size_t at = 0; at < size; at += kBatch * kStep) {
            const size_t to = std::min(size, at + kBatch * kStep);
            sendRange(seq, format, content, at, to);
            if (to == size) break;
            const Fetched f = fetch(out);
            ASSERT_TRUE(f.ok) << access.getLastError();
            ASSERT_EQ(f.percent, expectedPercent(to, size)) << to;
        }
        std::memset(out.data(), 0xEE, out.size());
        const Fetched f = fetch(out);
        ASSERT_TRUE(f.ok) << access.getLastError();
        EXPECT_EQ(f.percent, 100);
        EXPECT_EQ(f.format, format);
        EXPECT_EQ(f.seq, seq);
        EXPECT_EQ(std::memcmp(out.data(), content.data(), size), 0);
        EXPECT_EQ(out[size], 0xEE) << "nothing past the image";
        // Delivered once.
        const Fetched again = fetch(out);
        EXPECT_TRUE(again.ok);
        EXPECT_EQ(again.percent, 0);
    }
    EXPECT_TRUE(errors().empty());
}

TEST_F(Images, LargestImageArrivesThroughTheCInterface) {
    open();
    const size_t size = imageSize(51);
    ASSERT_EQ(size, 3686400u);
    const Bytes content = randomBytes(size, 51);
    sendRange(0xCAFE0051u, 51, content, 0, size, 65495);  // the largest piece a UDP datagram holds
    Bytes out(size);
    int percent = -1;
    e_OrvAccessImageFormat format = ORVACCESS_IMG_640x480_1;
    unsigned int seq = 0;
    ASSERT_EQ(OrvAccess_getImage(&access, &percent, &format, &seq, out.data(), out.size()), 1)
        << access.getLastError();
    EXPECT_EQ(percent, 100);
    EXPECT_EQ(format, ORVACCESS_IMG_1280x960_3);
    EXPECT_EQ(seq, 0xCAFE0051u);
    EXPECT_TRUE(out == content);
    EXPECT_EQ(OrvAccess_getImageBufSize(&access), 4194304u);
}

TEST_F(Images, SmallPiecesReportProgressAndTheirLines) {
    open();
    const size_t size = imageSize(10);
    Bytes out(size);
    access.setVerbosity(0x2);
    {
        orvtest::CapturedStdout info;
        send(piece(7, 10, 0, 1000));
        const Fetched f = fetch(out);
        // 1000 * 100 / 307200 is 0, shown as 1.
        EXPECT_EQ(f.percent, 1);
        EXPECT_NE(info.text().find("ORVAINFO: Received image packet, packet sid 7 (1%)\n"),
                  std::string::npos);
    }
    access.setVerbosity(0);
    for (int k = 1; k < 308; ++k) {
        send(piece(7, 10, static_cast<uint32_t>(k * 1000), k < 307 ? 1000 : 200));
        const Fetched f = fetch(out);
        ASSERT_TRUE(f.ok);
        if (k < 307) {
            ASSERT_EQ(f.percent, expectedPercent((k + 1) * 1000, size)) << k;  // 100 only once complete
        } else {
            EXPECT_EQ(f.percent, 100);
            EXPECT_EQ(f.seq, 7u);
        }
    }
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[306000], static_cast<unsigned char>(306000));

    // The completion and delivery lines.
    const Bytes content = randomBytes(size, 8);
    sendRange(8, 10, content, 0, 300000);
    access.setVerbosity(0x2);
    orvtest::CapturedStdout stdoutText;
    sendRange(8, 10, content, 300000, size);
    const Fetched f = fetch(out);
    const std::string text = stdoutText.text();
    EXPECT_EQ(f.percent, 100);
    EXPECT_NE(text.find("ORVAINFO: Image received\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ORVAINFO: Received image via UDP\n"), std::string::npos) << text;
}

TEST_F(Images, BrokenSequencesRaiseTheirErrorAndRestartCleanly) {
    open();
    Bytes out(imageSize(10));

    // Address mismatch: pieces end at 1000, the next claims 2000.
    {
        orvtest::CapturedStdout info;
        orvtest::CapturedStderr log;
        access.setVerbosity(0x3);
        send(piece(21, 10, 0, 1000));
        send(piece(21, 10, 2000, 1000));
        send(piece(21, 10, 3000, 1000));
        const Fetched f = fetch(out);
        EXPECT_TRUE(f.ok);
        EXPECT_EQ(f.percent, 0) << "the failed image shows no progress";
        EXPECT_NE(log.text().find("ORVALOG: Address mismatch in image packet\n"), std::string::npos);
        EXPECT_NE(info.text().find("ORVAINFO: Waiting for initial image packet (3000)\n"), std::string::npos);
        const auto e = errors();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0].code, 769);
        EXPECT_EQ(e[0].value, 21u);
    }
    // Sequence id mismatch: the error carries the image's id.
    {
        orvtest::CapturedStdout info;
        orvtest::CapturedStderr log;
        send(piece(5, 10, 0, 1000));
        send(piece(6, 10, 1000, 1000));
        send(piece(5, 10, 2000, 1000));  // dropped: waiting again
        EXPECT_TRUE(fetch(out).ok);
        EXPECT_NE(info.text().find("ORVAINFO: Waiting for initial image packet (2000)\n"), std::string::npos);
        EXPECT_NE(
            log.text().find("ORVALOG: Sequence ID mismatch in image packet (packet sid=6, image sid=5)\n"),
            std::string::npos);
        const auto e = errors();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0].code, 769);
        EXPECT_EQ(e[0].value, 5u);
    }
    // Illegal format: the text is also the last error.
    {
        orvtest::CapturedStdout info;
        orvtest::CapturedStderr log;
        send(piece(9, 13, 0, 1000));
        EXPECT_TRUE(fetch(out).ok);
        EXPECT_EQ(access.getLastError(), "Illegal image format (13)");
        EXPECT_EQ(info.text().find("ORVAINFO: Received image packet, packet sid"), std::string::npos);
        EXPECT_NE(log.text().find("ORVALOG: Illegal image format (13)\n"), std::string::npos);
        const auto e = errors();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0].value, 9u);
    }
    // A framed datagram too short for the piece header is not read; the
    // image it interrupts is abandoned.
    {
        orvtest::CapturedStdout info;
        orvtest::CapturedStderr log;
        send(piece(4, 10, 0, 1000));
        Bytes tiny{7, 11, 0, 4, 0, 0, 0, 10, 0xE8, 0x03, 0};
        tiny.back() = static_cast<unsigned char>(-OrvosiUtil::checksum(tiny.data(), tiny.size() - 1));
        send(tiny);
        send(piece(4, 10, 1000, 1000));
        EXPECT_EQ(fetch(out).percent, 0);
        access.setVerbosity(0);
        EXPECT_NE(log.text().find("ORVALOG: Image packet too short (11 bytes)\n"), std::string::npos);
        EXPECT_NE(info.text().find("ORVAINFO: Waiting for initial image packet (1000)\n"), std::string::npos);
        const auto e = errors();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0].code, 769);
        EXPECT_EQ(e[0].value, 0u);
    }

    // A new first piece abandons the image in progress without complaint, and
    // a whole image then arrives normally.
    send(piece(30, 10, 0, 1000));
    send(piece(30, 10, 1000, 1000));
    const Bytes content = randomBytes(out.size(), 3);
    sendRange(31, 10, content, 0, content.size());
    const Fetched f = fetch(out);
    EXPECT_EQ(f.percent, 100);
    EXPECT_EQ(f.seq, 31u);
    EXPECT_TRUE(out == content);
    EXPECT_TRUE(errors().empty());
}

TEST_F(Images, TwoBuffersKeepTheNewestCompleteImage) {
    open();
    const size_t size = imageSize(10);
    const Bytes a = randomBytes(size, 1), b = randomBytes(size, 2), c = randomBytes(size, 3);
    Bytes out(size);

    // A complete, B half-way: A comes out while B goes on filling the other buffer.
    sendRange(1, 10, a, 0, size);
    sendRange(2, 10, b, 0, 180000);
    Fetched f = fetch(out);
    EXPECT_EQ(f.percent, 100);
    EXPECT_EQ(f.seq, 1u);
    EXPECT_TRUE(out == a);
    f = fetch(out);
    EXPECT_EQ(f.percent, expectedPercent(180000, size));
    sendRange(2, 10, b, 180000, size);
    f = fetch(out);
    EXPECT_EQ(f.seq, 2u);
    EXPECT_TRUE(out == b);

    // Two complete before anyone asks: only the newer is delivered.
    sendRange(3, 10, a, 0, size);
    sendRange(4, 10, c, 0, size);
    f = fetch(out);
    EXPECT_EQ(f.seq, 4u);
    EXPECT_TRUE(out == c);
    EXPECT_EQ(fetch(out).percent, 0);

    // Pieces of two images interleaved: B's first piece restarts the buffer,
    // A's next one clashes with it, and everything after waits in vain.
    for (size_t at = 0; at < size; at += kStep) {
        const size_t n = std::min(kStep, size - at);
        send(piece(5, 10, static_cast<uint32_t>(at), a.data() + at, n));
        send(piece(6, 10, static_cast<uint32_t>(at), b.data() + at, n));
    }
    f = fetch(out);
    EXPECT_EQ(f.percent, 0);
    const auto e = errors();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].value, 6u) << "the id of the image being filled";

    // A format change after completion does not change the image held.
    sendRange(7, 10, a, 0, size);
    send(piece(8, 51, 0, 1000));
    Bytes big(imageSize(51), 0xEE);
    f = fetch(big);
    EXPECT_EQ(f.format, 10);
    EXPECT_EQ(f.seq, 7u);
    EXPECT_EQ(std::memcmp(big.data(), a.data(), size), 0);
    EXPECT_EQ(big[size], 0xEE);
}

TEST_F(Images, CallerBufferOneByteShortKeepsTheImageWaiting) {
    open();
    const size_t size = imageSize(10);
    const Bytes content = randomBytes(size, 11);
    sendRange(12, 10, content, 0, size);

    Bytes out(size, 0xEE);
    Fetched f = fetch(out.data(), size - 1);
    EXPECT_FALSE(f.ok);
    EXPECT_EQ(f.percent, 0);
    EXPECT_EQ(access.getLastError(), "Buffer too small (image size is 307200)");
    EXPECT_EQ(out[0], 0xEE);
    int percent = -1;
    e_OrvAccessImageFormat format{};
    unsigned int seq = 0;
    EXPECT_EQ(OrvAccess_getImage(&access, &percent, &format, &seq, out.data(), 10), 0);

    f = fetch(out);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.percent, 100);
    EXPECT_EQ(f.seq, 12u);
    EXPECT_TRUE(out == content);
}

TEST_F(Images, PiecesNeverPassTheImageBuffer) {
    open("[Memory]\nimgBufSize = 100000\n");
    EXPECT_EQ(access.getImageBufSize(), 100000u);
    orvtest::CapturedStderr log;
    access.setVerbosity(0x1);
    send(piece(40, 10, 0, 50000));
    send(piece(40, 10, 50000, 50000));  // ends exactly at the buffer's end
    Bytes out(imageSize(10));
    EXPECT_EQ(fetch(out).percent, 100000 * 100 / 307200);
    send(piece(40, 10, 100000, 1000));  // one byte would be too many
    EXPECT_EQ(fetch(out).percent, 0);
    access.setVerbosity(0);
    EXPECT_NE(log.text().find("ORVALOG: Image buffer overflow\n"), std::string::npos);
    auto e = errors();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].code, 769);
    EXPECT_EQ(e[0].value, 40u);

    // Buffers of no bytes take no pixels, but an empty first piece fits.
    open("[Memory]\nimgBufSize = 0\n");
    EXPECT_EQ(access.getImageBufSize(), 0u);
    send(piece(41, 10, 0, 0));
    EXPECT_EQ(fetch(out).percent, 1);
    send(piece(42, 10, 0, 1));
    EXPECT_EQ(fetch(out).percent, 0);
    e = errors();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].value, 42u);

    // Opening again replaces the buffers; images flow as before.
    open();
    const Bytes content = randomBytes(out.size(), 4);
    sendRange(43, 10, content, 0, content.size());
    EXPECT_EQ(fetch(out).seq, 43u);
    EXPECT_TRUE(out == content);
}

TEST_F(Images, ReassemblyDoesNotAllocate) {
    open();
    const size_t size = imageSize(10);
    const Bytes content = randomBytes(size, 5);
    Bytes out(size);
    sendRange(50, 10, content, 0, size);  // warm-up: first use of streams and queues
    ASSERT_EQ(fetch(out).percent, 100);

    std::vector<Bytes> pieces;
    for (size_t at = 0; at < size; at += kStep)
        pieces.push_back(
            piece(51, 10, static_cast<uint32_t>(at), content.data() + at, std::min(kStep, size - at)));
    orvtest::startCountingAllocations();
    for (size_t i = 0; i < pieces.size(); ++i) {
        send(pieces[i]);
        if (i == kBatch) pump();
    }
    const Fetched f = fetch(out);
    const long allocations = orvtest::stopCountingAllocations();
    EXPECT_EQ(f.percent, 100);
    EXPECT_EQ(allocations, 0);
}

TEST_F(Images, ImageInfoSharesTheFormatTable) {
    open();
    for (int code = 0; code <= 255; ++code) {
        unsigned long size = 0;
        int w = 0, h = 0, b = 0;
        unsigned int rw = 0, rh = 0, rb = 0;
        const bool legal = OrvosiUtil::GetImageResolution(static_cast<unsigned char>(code), &rw, &rh, &rb);
        ASSERT_EQ(access.getImageInfo(static_cast<OrvAccess::ImageFormat>(code), &size, &w, &h, &b), legal)
            << code;
        if (legal) {
            EXPECT_EQ(static_cast<unsigned int>(w), rw);
            EXPECT_EQ(static_cast<unsigned int>(h), rh);
            EXPECT_EQ(static_cast<unsigned int>(b), rb);
            EXPECT_EQ(size, static_cast<unsigned long>(rw) * rh * rb);
        } else {
            EXPECT_EQ(access.getLastError(), "Illegal image format (" + std::to_string(code) + ")");
            EXPECT_EQ(w * h * b, 640 * 480);
            EXPECT_EQ(size, 307200u);
        }
    }
    unsigned long size = 0;
    int w = 0, h = 0, b = 0;
    EXPECT_EQ(OrvAccess_getImageInfo(&access, static_cast<e_OrvAccessImageFormat>(13), &size, &w, &h, &b), 0);
    EXPECT_EQ(access.getLastError(), "Illegal image format (13)");
    EXPECT_EQ(OrvAccess_getImageInfo(&access, ORVACCESS_IMG_752x480_2, &size, &w, &h, &b), 1);
    EXPECT_EQ(size, 721920u);
    // Any output may be left out.
    EXPECT_TRUE(access.getImageInfo(ORVACCESS_IMG_1280x1024_2, nullptr, nullptr, &h, nullptr));
    EXPECT_EQ(h, 1024);
}

TEST(ImagesClosed, NothingIsDeliveredWhenNotOpen) {
    OrvAccess access;
    int percent = -1;
    OrvAccess::ImageFormat format{};
    unsigned int seq = 0;
    unsigned char buf[4];
    EXPECT_FALSE(access.getImage(&percent, &format, &seq, buf, sizeof buf));
    EXPECT_EQ(percent, 0);
}

// ---- streaming switches -------------------------------------------------------------

namespace {

// Acknowledges every 7-byte register write, which is all a streaming switch needs.
class RegisterAcker {
public:
    RegisterAcker() : port_(orvtest::freePort()) {
        listen_ = socket(AF_INET, SOCK_STREAM, 0);
        const int one = 1;
        setsockopt(listen_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        const sockaddr_in a = orvtest::loopback(port_);
        if (bind(listen_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || listen(listen_, 2) != 0)
            ADD_FAILURE() << "cannot listen on " << port_;
        thread_ = std::thread([this] { run(); });
    }
    ~RegisterAcker() {
        stop_ = true;
        shutdown(listen_, SHUT_RDWR);
        thread_.join();
        ::close(listen_);
    }
    int port() const { return port_; }

private:
    void run() {
        while (!stop_) {
            pollfd p{listen_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0 || stop_) continue;
            const int fd = accept(listen_, nullptr, nullptr);
            if (fd < 0) continue;
            size_t pending = 0;
            unsigned char buf[256];
            while (!stop_) {
                pollfd q{fd, POLLIN, 0};
                if (poll(&q, 1, 20) <= 0) continue;
                const ssize_t n = recv(fd, buf, sizeof buf, 0);
                if (n <= 0) break;
                for (pending += static_cast<size_t>(n); pending >= 7; pending -= 7) {
                    const unsigned char ack = 0xC4;
                    send(fd, &ack, 1, MSG_NOSIGNAL);
                }
            }
            ::close(fd);
        }
    }

    int port_;
    int listen_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace

TEST_F(Images, StreamingSwitchForgetsImagesInFlightAndWaiting) {
    RegisterAcker acker;
    open("tcpOrvRxEnabled = 1\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " + std::to_string(acker.port()) +
         "\n");
    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    const size_t size = imageSize(10);
    const Bytes content = randomBytes(size, 6);
    sendRange(60, 10, content, 0, size);
    sendRange(61, 10, content, 0, 120000);

    ASSERT_TRUE(access.setStreaming(false)) << access.getLastError();
    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    access.setVerbosity(0x2);
    orvtest::CapturedStdout info;
    sendRange(61, 10, content, 120000, size);
    Bytes out(size);
    const Fetched f = fetch(out);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.percent, 0) << "neither the complete nor the partial image survives";
    EXPECT_NE(info.text().find("ORVAINFO: Waiting for initial image packet (120000)\n"), std::string::npos);
    EXPECT_TRUE(errors().empty());
}

// ---- shared memory ---------------------------------------------------------------------

namespace {

constexpr size_t kHeader = 6;

// A region name unique to this process; the region and its semaphore are
// removed at the end whatever happened.
struct RegionName {
    explicit RegionName(const char* tag)
        : name(std::string("orvatestimg") + std::to_string(getpid()) + tag) {}
    ~RegionName() {
        shm_unlink(("/" + name).c_str());
        sem_unlink(("/" + name + "Sem").c_str());
    }
    std::string name;
};

// Writes one image into a region as orvHub does: under the semaphore, ready
// flag last; fields that do not fit a tiny region are left out.
void publish(OrvosiSharedMem& region, uint32_t seq, unsigned char format, const Bytes& pixels,
             unsigned char ready = 1) {
    auto* p = static_cast<unsigned char*>(region.get());
    ASSERT_NE(p, nullptr);
    const size_t bytes = region.size();
    if (bytes >= 5) OrvosiUtil::lendian(p + 1, seq, 4);
    if (bytes >= 6) p[5] = format;
    if (bytes > kHeader) std::memcpy(p + kHeader, pixels.data(), std::min(bytes - kHeader, pixels.size()));
    p[0] = ready;
    region.release();
}

unsigned char readyFlag(OrvosiSharedMem& region) {
    auto* p = static_cast<unsigned char*>(region.get());
    const unsigned char flag = p != nullptr ? p[0] : 0xFF;
    region.release();
    return flag;
}

class SharedImages : public Images {
protected:
    void openOn(const std::string& name) { open("sMemImgName = " + name + "\n"); }
    uint32_t statusWord(bool connections) {
        s_OrvAccessStatus st{};
        EXPECT_TRUE(access.getStatus(&st));
        return connections ? st.connections : st.received;
    }
};

}  // namespace

TEST_F(SharedImages, PublishedImageArrivesThroughCppAndC) {
    RegionName rn("Pub");
    const size_t size = imageSize(51);
    OrvosiSharedMem region(rn.name.c_str(), static_cast<unsigned int>(kHeader + size));
    ASSERT_TRUE(region.isOk());
    openOn(rn.name);
    EXPECT_NE(statusWord(true) & 0x40u, 0u);

    const Bytes first = randomBytes(size, 71);
    publish(region, 77, 51, first);
    Bytes out(size);
    access.setVerbosity(0x2);
    orvtest::CapturedStdout info;
    const Fetched f = fetch(out);
    access.setVerbosity(0);
    EXPECT_NE(info.text().find("ORVAINFO: Received image via shared memory\n"), std::string::npos);
    ASSERT_TRUE(f.ok) << access.getLastError();
    EXPECT_EQ(f.percent, 100);
    EXPECT_EQ(f.format, 51);
    EXPECT_EQ(f.seq, 77u);
    EXPECT_TRUE(out == first);
    EXPECT_EQ(readyFlag(region), 0);
    EXPECT_EQ(statusWord(false) & 0x40u, 0x40u);
    EXPECT_EQ(statusWord(false) & 0x40u, 0u) << "cleared by the status read";

    // Nothing new: no image, the buffer untouched.
    std::fill(out.begin(), out.end(), 0xEE);
    Fetched g = fetch(out);
    EXPECT_TRUE(g.ok);
    EXPECT_EQ(g.percent, 0);
    EXPECT_EQ(out[0], 0xEE);

    // A smaller format in the same region, through the C interface.
    const Bytes second = randomBytes(imageSize(20), 72);
    publish(region, 78, 20, second);
    int percent = -1;
    e_OrvAccessImageFormat format{};
    unsigned int seq = 0;
    ASSERT_EQ(OrvAccess_getImage(&access, &percent, &format, &seq, out.data(), out.size()), 1);
    EXPECT_EQ(percent, 100);
    EXPECT_EQ(format, ORVACCESS_IMG_752x480_1);
    EXPECT_EQ(seq, 78u);
    EXPECT_EQ(std::memcmp(out.data(), second.data(), second.size()), 0);
}

TEST_F(SharedImages, BadImagesAreRefusedAndDropped) {
    RegionName rn("Bad");
    const size_t size = imageSize(10);
    OrvosiSharedMem region(rn.name.c_str(), static_cast<unsigned int>(kHeader + size));
    ASSERT_TRUE(region.isOk());
    openOn(rn.name);
    Bytes out(imageSize(51), 0xEE);

    // A flag other than 1 is not an image; it is left alone.
    publish(region, 1, 10, Bytes(size, 1), 2);
    EXPECT_TRUE(fetch(out).ok);
    EXPECT_EQ(readyFlag(region), 2);

    publish(region, 2, 13, Bytes(size, 1));
    Fetched f = fetch(out);
    EXPECT_FALSE(f.ok);
    EXPECT_EQ(access.getLastError(), "Incorrect image format");
    EXPECT_EQ(f.format, 13);
    EXPECT_EQ(f.seq, 2u);
    EXPECT_EQ(readyFlag(region), 0);

    // Announcing a format larger than the region: refused, nothing read past it.
    publish(region, 3, 11, Bytes(size, 1));
    f = fetch(out);
    EXPECT_FALSE(f.ok);
    EXPECT_EQ(access.getLastError(), "Incorrect image format");
    EXPECT_EQ(readyFlag(region), 0);
    EXPECT_EQ(out[0], 0xEE);

    // Too small a caller buffer: the image is dropped all the same.
    publish(region, 4, 10, Bytes(size, 1));
    f = fetch(out.data(), size - 1);
    EXPECT_FALSE(f.ok);
    EXPECT_EQ(f.percent, 0);
    EXPECT_EQ(access.getLastError(), "Buffer too small (image size is 307200)");
    EXPECT_EQ(readyFlag(region), 0);
    f = fetch(out);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.percent, 0);
    EXPECT_EQ(out[0], 0xEE);
}

TEST_F(SharedImages, RegionsTooSmallForTheirImageAreRefused) {
    const size_t size = imageSize(10);
    for (size_t bytes : {size_t{3}, size_t{6}, kHeader + size - 1}) {
        SCOPED_TRACE(bytes);
        RegionName rn(("Small" + std::to_string(bytes)).c_str());
        OrvosiSharedMem region(rn.name.c_str(), static_cast<unsigned int>(bytes));
        ASSERT_TRUE(region.isOk());
        openOn(rn.name);
        publish(region, 5, 10, Bytes(size, 9));
        Bytes out(size, 0xEE);
        const Fetched f = fetch(out);
        EXPECT_FALSE(f.ok);
        EXPECT_EQ(access.getLastError(), "Incorrect image format");
        EXPECT_EQ(readyFlag(region), 0);
        EXPECT_EQ(out[0], 0xEE);
        access.close();
    }
}

TEST_F(SharedImages, UdpComesFirstAndProgressShowsWhileTheRegionIsEmpty) {
    RegionName rn("Both");
    const size_t size = imageSize(10);
    OrvosiSharedMem region(rn.name.c_str(), static_cast<unsigned int>(kHeader + size));
    ASSERT_TRUE(region.isOk());
    openOn(rn.name);
    const Bytes udp = randomBytes(size, 81), shm = randomBytes(size, 82);
    sendRange(81, 10, udp, 0, size);
    publish(region, 82, 10, shm);

    Bytes out(size);
    Fetched f = fetch(out);
    EXPECT_EQ(f.seq, 81u);
    EXPECT_TRUE(out == udp);
    EXPECT_EQ(readyFlag(region), 1) << "the region's image still waits";
    f = fetch(out);
    EXPECT_EQ(f.seq, 82u);
    EXPECT_TRUE(out == shm);

    sendRange(83, 10, udp, 0, 120000);
    f = fetch(out);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.percent, expectedPercent(120000, size));
}

TEST_F(SharedImages, TheSemaphoreHoldsTheReaderUntilTheProducerIsDone) {
    RegionName rn("Sem");
    const size_t size = imageSize(10);
    OrvosiSharedMem region(rn.name.c_str(), static_cast<unsigned int>(kHeader + size));
    ASSERT_TRUE(region.isOk());
    openOn(rn.name);
    const Bytes content = randomBytes(size, 91);

    auto* p = static_cast<unsigned char*>(region.get());  // the producer holds the region
    ASSERT_NE(p, nullptr);
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        OrvosiUtil::lendian(p + 1, 92, 4);
        p[5] = 10;
        std::memcpy(p + kHeader, content.data(), size);
        p[0] = 1;
        region.release();
    });
    Bytes out(size);
    const auto t0 = std::chrono::steady_clock::now();
    const Fetched f = fetch(out);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    producer.join();
    EXPECT_GE(ms, 100.0);
    ASSERT_TRUE(f.ok) << access.getLastError();
    EXPECT_EQ(f.seq, 92u);
    EXPECT_TRUE(out == content);
}

TEST_F(SharedImages, AnotherProcessPublishes) {
    RegionName rn("Proc");
    const size_t size = imageSize(30);
    OrvosiSharedMem region(rn.name.c_str(), static_cast<unsigned int>(kHeader + size));
    ASSERT_TRUE(region.isOk());
    openOn(rn.name);

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The producer: joins the region by name and publishes one image.
        OrvosiSharedMem joined(rn.name.c_str());
        auto* p = joined.isOk() ? static_cast<unsigned char*>(joined.get()) : nullptr;
        if (p == nullptr) _exit(1);
        OrvosiUtil::lendian(p + 1, 123456, 4);
        p[5] = 30;
        for (size_t i = 0; i < size; ++i) p[kHeader + i] = static_cast<unsigned char>(i * 13 + i / 1280);
        p[0] = 1;
        joined.release();
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    Bytes out(size);
    const Fetched f = fetch(out);
    ASSERT_TRUE(f.ok) << access.getLastError();
    EXPECT_EQ(f.seq, 123456u);
    EXPECT_EQ(f.format, 30);
    for (size_t i = 0; i < size; ++i) ASSERT_EQ(out[i], static_cast<unsigned char>(i * 13 + i / 1280)) << i;
}

TEST_F(SharedImages, NoProducerMeansNoRegion) {
    RegionName rn("None");
    openOn(rn.name);
    EXPECT_EQ(statusWord(true) & 0x40u, 0u);
    Bytes out(16);
    const Fetched f = fetch(out);
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.percent, 0);
}
