// Camera images against real peers: pieces sent over UDP on 127.0.0.1 and
// reassembled by an open object, and images published in real shared memory
// with the library's own region class.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "orvaccess/orvaccess.h"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiSharedMem.hpp"
#include "support/Allocations.hpp"
#include "support/FakeOrvRx.hpp"

namespace {

using orvtest::Bytes;
using orvtest::kImage;
using orvtest::randomBytes;

constexpr size_t kSize10 = 307200;  // bytes of a format-10 image
constexpr size_t kStep = 60000;     // pixel bytes per piece
constexpr size_t kHeader = 6;       // ready flag, sequence id, format of a shared region

// One piece as orvRx sends it: type 7, length, sequence id, format, address,
// then n bytes of `image` from that address, checksum.
Bytes piece(uint32_t seq, unsigned char format, const Bytes& image, size_t at, size_t n) {
    Bytes b(n + 12);
    OrvosiWriter w(&b[3], n + 8);
    w.u32(seq), w.u8(format), w.u24(at), w.bytes(image.data() + at, n);
    return orvtest::seal(b, 7);
}

// What getImage reports: success, percent, format, sequence id (the last
// two stay 0 when not written).
using Fetched = std::tuple<bool, int, int, unsigned int>;
const Fetched kNothing{true, 0, 0, 0};

// Writes one image into a region as orvHub does: under the semaphore, as
// much of the header and pixels as fits, the ready flag last.
void publish(OrvosiSharedMem& region, uint32_t seq, unsigned char format, const Bytes& pixels,
             unsigned char ready = 1) {
    Bytes image(kHeader, format);
    OrvosiUtil::lendian(&image[1], seq, 4);
    image.insert(image.end(), pixels.begin(), pixels.end());
    auto* p = static_cast<unsigned char*>(region.get());
    std::memcpy(p + 1, &image[1], std::min(image.size(), region.size()) - 1);
    p[0] = ready;
    region.release();
}
unsigned char readyFlag(OrvosiSharedMem& region) {
    const unsigned char flag = *static_cast<unsigned char*>(region.get());
    region.release();
    return flag;
}

// Receives images over UDP, with a socket buffer large enough for bursts of
// pieces, and from the shared region named `region` when it exists.
class Images : public orvtest::ReceiverTest {
protected:
    ~Images() override { shm_unlink(("/" + region).c_str()); }
    void openImages(const std::string& extra = "") {
        openReceiver("udpOrvRxImgRcvBufSize = 8388608\nsMemImgName = " + region + "\n" + extra);
    }
    // Sends image[from, to) in pieces, letting the object drain its socket
    // after every four so that the buffer never overflows.
    void sendRange(uint32_t seq, unsigned char format, const Bytes& image, size_t from, size_t to,
                   size_t step = kStep) {
        for (size_t at = from, n = 1; at < to; at += step, ++n) {
            send(kImage, piece(seq, format, image, at, std::min(step, to - at)));
            if (n % 4 == 0) received();
        }
        received();
    }
    // getImage into `buffer` (capacity: its size unless given), through C++ or C.
    Fetched fetch(Bytes& buffer, unsigned long capacity = 0, bool viaC = false) {
        int percent = -1;
        e_OrvAccessImageFormat format{};
        unsigned int seq = 0;
        capacity = capacity ? capacity : buffer.size();
        const bool ok =
            viaC ? OrvAccess_getImage(&access, &percent, &format, &seq, buffer.data(), capacity) == 1
                 : access.getImage(&percent, &format, &seq, buffer.data(), capacity);
        return {ok, percent, format, seq};
    }
    // Fetches a whole image and compares it; nothing is written past it.
    void expectImage(uint32_t seq, int format, const Bytes& image, bool viaC = false) {
        Bytes out(image.size() + 1, 0xEE);
        EXPECT_EQ(fetch(out, 0, viaC), (Fetched{true, 100, format, seq})) << access.getLastError();
        EXPECT_TRUE(std::equal(image.begin(), image.end(), out.begin()));
        EXPECT_EQ(out.back(), 0xEE);
    }
    const std::string region = "orvatestimg" + std::to_string(getpid());
};

}  // namespace

TEST_F(Images, LargestImageArrivesThroughCAndCpp) {
    openImages();
    const size_t size = 3686400;
    const Bytes first = randomBytes(size, 51), second = randomBytes(size, 52);
    sendRange(0xCAFE0051u, 51, first, 0, size, 65495);  // the largest piece a datagram holds
    // One byte short: refused, and the image waits for a larger buffer.
    Bytes out(size, 0xEE);
    EXPECT_EQ(fetch(out, size - 1, true), (Fetched{false, 0, 0, 0}));
    EXPECT_EQ(access.getLastError(), "Buffer too small (image size is 3686400)");
    EXPECT_EQ(out[0], 0xEE);
    expectImage(0xCAFE0051u, 51, first, true);
    EXPECT_EQ(fetch(out), kNothing) << "delivered once";

    // Progress: 100 * bytes so far / size, at least 1, 100 only once complete.
    access.setVerbosity(0x2);
    orvtest::CapturedStdout info;
    send(kImage, piece(52, 51, second, 0, 1000));  // 0.03 percent, shown as 1
    EXPECT_EQ(fetch(out), (Fetched{true, 1, 0, 0}));
    sendRange(52, 51, second, 1000, size);
    expectImage(52, 51, second);
    const std::string text = info.text();
    for (const char* line : {"ORVAINFO: Received image packet, packet sid 52 (1%)\n",
                             "ORVAINFO: Image received\n", "ORVAINFO: Received image via UDP\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST_F(Images, BrokenSequencesRaise769AndWaitForAFirstPiece) {
    openImages("[Memory]\nimgBufSize = 100000\n");
    const Bytes c = randomBytes(kSize10, 3);
    Bytes out(kSize10);
    send(kImage, piece(40, 10, c, 0, 50000));
    send(kImage, piece(40, 10, c, 50000, 50000));  // ends exactly at the buffer's end
    EXPECT_EQ(fetch(out), (Fetched{true, 32, 0, 0}));
    access.setVerbosity(0x3);
    orvtest::CapturedStdout info;
    orvtest::CapturedStderr log;
    // Each sequence ends with a piece that only an image still being filled
    // would take: a second error code or some progress would show it.
    const std::tuple<std::vector<Bytes>, unsigned int, std::string> cases[] = {
        {{piece(40, 10, c, 100000, 1)}, 40, "Image buffer overflow"},  // one byte too many
        {{piece(21, 10, c, 0, 1000), piece(21, 10, c, 2000, 1000), piece(21, 10, c, 3000, 1000)},
         21,
         "Address mismatch in image packet"},
        {{piece(5, 10, c, 0, 1000), piece(6, 10, c, 1000, 1000), piece(5, 10, c, 2000, 1000)},
         5,
         "Sequence ID mismatch in image packet (packet sid=6, image sid=5)"},
        // A datagram too short for the piece header is not read.
        {{piece(4, 10, c, 0, 1000), orvtest::zeroFrame(7, 11), piece(4, 10, c, 1000, 1000)},
         0,
         "Image packet too short (11 bytes)"},
        {{piece(9, 13, c, 0, 1000)}, 9, "Illegal image format (13)"}};
    std::string logged;
    for (const auto& [pieces, value, text] : cases) {
        for (const Bytes& p : pieces) send(kImage, p);
        EXPECT_EQ(fetch(out), kNothing) << text;
        EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_IMAGE_TRANSFER, value}})) << text;
        logged += "ORVALOG: " + text + "\n";
    }
    EXPECT_EQ(log.text(), logged);
    EXPECT_NE(info.text().find("ORVAINFO: Waiting for initial image packet (3000)\n"), std::string::npos);

    // The illegal format is also the last error; its geometry falls back to 640 x 480 x 1.
    EXPECT_EQ(access.getLastError(), "Illegal image format (13)");
    unsigned long size = 0;
    int w = 0, h = 0, b = 0;
    EXPECT_EQ(OrvAccess_getImageInfo(&access, static_cast<e_OrvAccessImageFormat>(14), &size, &w, &h, &b), 0);
    EXPECT_EQ(access.getLastError(), "Illegal image format (14)");
    EXPECT_EQ(std::make_tuple(size, w, h, b), std::make_tuple(307200ul, 640, 480, 1));
    EXPECT_TRUE(access.getImageInfo(ORVACCESS_IMG_1280x1024_2, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(Images, TheNewestCompleteImageWaitsWhileTheNextFillsWithoutAllocating) {
    orvtest::FakeOrvRx fake;  // for streaming switches
    openImages(orvtest::commandIni(fake.port()));
    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    const Bytes a = randomBytes(kSize10, 1), b = randomBytes(kSize10, 2);
    Bytes out(kSize10);
    sendRange(1, 10, a, 0, kSize10);
    sendRange(2, 10, b, 0, 180000);
    expectImage(1, 10, a);
    EXPECT_EQ(fetch(out), (Fetched{true, 58, 0, 0}));
    sendRange(2, 10, b, 180000, kSize10);
    expectImage(2, 10, b);

    // Two complete before anyone asks: only the newer is delivered.
    sendRange(3, 10, a, 0, kSize10);
    sendRange(4, 10, b, 0, kSize10);
    expectImage(4, 10, b);
    EXPECT_EQ(fetch(out), kNothing);

    std::vector<Bytes> pieces;
    for (size_t at = 0; at < kSize10; at += kStep)
        pieces.push_back(piece(7, 10, b, at, std::min(kStep, kSize10 - at)));
    Fetched f{};
    EXPECT_EQ(orvtest::allocationsDuring([&] {
                  for (const Bytes& p : pieces) send(kImage, p);
                  f = fetch(out);
              }),
              0);
    EXPECT_EQ(f, (Fetched{true, 100, 10, 7}));

    // A streaming switch forgets both the complete image and the one in flight.
    sendRange(8, 10, a, 0, kSize10);
    sendRange(9, 10, a, 0, 120000);
    ASSERT_TRUE(access.setStreaming(false)) << access.getLastError();
    ASSERT_TRUE(access.setStreaming(true)) << access.getLastError();
    sendRange(9, 10, a, 120000, kSize10);
    EXPECT_EQ(fetch(out), kNothing);
    access.close();  // while the fake still answers
}

// The complete image goes out by the format of the last piece seen, even a
// piece of the next image or one that was dropped: sized, checked, labelled
// and copied by it, but never read past the buffer that holds the image.
TEST_F(Images, TheCompleteImageGoesOutByTheFormatOfTheLastPieceSeen) {
    openImages("[Memory]\nimgBufSize = 400000\n");
    const size_t size20 = 360960;  // 752 x 480 x 1
    const Bytes a = randomBytes(kSize10, 21);
    sendRange(1, 10, a, 0, kSize10);
    access.setVerbosity(0x2);
    {
        orvtest::CapturedStdout info;
        send(kImage, piece(1, 20, a, 1000, 1000));  // dropped: no image is being filled
        EXPECT_EQ(received(), 0x4u);
        EXPECT_NE(info.text().find("ORVAINFO: Waiting for initial image packet (1000)\n"), std::string::npos);
    }
    access.setVerbosity(0);
    Bytes out(size20 + 1, 0xEE);
    EXPECT_EQ(fetch(out, kSize10), (Fetched{false, 0, 0, 0}));
    EXPECT_EQ(access.getLastError(), "Buffer too small (image size is 360960)");
    EXPECT_EQ(out[0], 0xEE);
    // Room for format 20: the image's own bytes, then whatever the buffer
    // holds past them, and nothing beyond.
    EXPECT_EQ(fetch(out), (Fetched{true, 100, 20, 1}));
    EXPECT_TRUE(std::equal(a.begin(), a.end(), out.begin()));

    EXPECT_EQ(out.back(), 0xEE);
    EXPECT_EQ(fetch(out), kNothing) << "delivered once";

    // An illegal format announced while an image waits refuses it until a
    // legal one comes, and the image waits.
    sendRange(2, 10, a, 0, kSize10);
    send(kImage, piece(2, 13, a, 5, 10));
    EXPECT_EQ(fetch(out), (Fetched{false, 0, 0, 0}));
    EXPECT_EQ(access.getLastError(), "Illegal image format (13)");
    // A format larger than the image buffer: copying it would read past the
    // buffer, so the image is refused and waits (the sanitizers watch the copy).
    send(kImage, piece(2, 31, a, 5, 10));
    Bytes large(2621440 + 1, 0xEE);
    EXPECT_EQ(fetch(large), (Fetched{false, 0, 0, 0}));
    EXPECT_EQ(access.getLastError(), "Image format 31 (2621440 bytes) is larger than the image buffer (imgBufSize 400000)");
    EXPECT_EQ(large[0], 0xEE);
    // The first piece of the next image sets a format that fits again.
    send(kImage, piece(3, 12, a, 0, 1000));
    EXPECT_EQ(fetch(out), (Fetched{true, 100, 12, 2}));
    EXPECT_TRUE(std::equal(a.begin(), a.end(), out.begin()));
    EXPECT_TRUE(errorCodes().empty()) << "pieces dropped while waiting raise no code";
}

// Pieces are read straight into the image being filled: a piece that fails
// its check there, one that runs past the buffer, and a first piece that
// restarts an image must leave every image exactly as if they had been read
// aside, and the piece itself reported as ever.
TEST_F(Images, PiecesReadInPlaceThatFailLeaveTheImagesAlone) {
    openImages("[Memory]\nimgBufSize = 307200\n");
    const Bytes a = randomBytes(kSize10, 11), b = randomBytes(kSize10, 12);
    Bytes out(kSize10);
    const auto bad = [](Bytes p, size_t at, unsigned char value) {
        p[at] = value;
        return p;
    };
    // Warm-up: the first refusal stores its reason, the first code grows its queue.
    send(kImage, bad(piece(1, 10, a, 0, 10), 0, 8));
    EXPECT_EQ(received(), 0u);
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_IMAGE_PKT, 0}}));

    // Image 2 restarts one under way: it is read in at 1000 and belongs at 0.
    send(kImage, piece(1, 10, a, 0, 1000));
    EXPECT_EQ(received(), 0x4u);
    // Each piece is preceded by two that land where it goes, and are refused.
    std::vector<Bytes> pieces;
    for (size_t at = 0; at < kSize10; at += kStep) {
        const Bytes good = piece(2, 10, b, at, std::min(kStep, kSize10 - at));
        pieces.push_back(bad(good, good.size() / 2, static_cast<unsigned char>(good[good.size() / 2] ^ 0x5A)));
        pieces.push_back(bad(good, 1, static_cast<unsigned char>(good[1] + 1)));
        pieces.push_back(good);
    }
    EXPECT_EQ(orvtest::allocationsDuring([&] {
                  for (size_t i = 0; i < pieces.size(); ++i) {
                      send(kImage, pieces[i]);
                      if (i % 3 == 2) received();
                  }
              }),
              0);
    EXPECT_EQ(errorCodes(), Codes(pieces.size() / 3 * 2, {ORVACCESS_ERR_BAD_IMAGE_PKT, 0}));

    // Image 3 fails while 2 waits: a piece that runs past the buffer (its
    // bytes beyond it are never written) and a bad one at the start.
    sendRange(3, 10, a, 0, 300000);
    const Bytes beyond = randomBytes(360000, 13);
    send(kImage, piece(3, 10, beyond, 300000, 60000));
    send(kImage, bad(piece(4, 10, a, 0, 60000), 200, 0));
    EXPECT_EQ(fetch(out, 10), (Fetched{false, 0, 0, 0}));
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_IMAGE_TRANSFER, 3}, {ORVACCESS_ERR_BAD_IMAGE_PKT, 0}}));
    expectImage(2, 10, b);

    // With the image dump on, pieces come whole and assemble all the same.
    access.setVerbosity(ORVACCESS_VERB_DUMP_IMAGE);
    orvtest::CapturedStdout dump;
    send(kImage, piece(5, 10, a, 0, 7200));
    sendRange(5, 10, a, 7200, kSize10);
    access.setVerbosity(0);
    expectImage(5, 10, a);
    const std::string dumped = dump.text();
    EXPECT_EQ(dumped.rfind("ORVAIMG: 07 2C 1C 05 00 00 00 0A 00 00 00 ", 0), 0u) << dumped.substr(0, 80);
}

TEST_F(Images, PublishedImagesArriveThroughCppAndC) {
    const size_t size = 3686400;
    OrvosiSharedMem mem(region.c_str(), static_cast<unsigned int>(kHeader + size));
    ASSERT_TRUE(mem.isOk());
    openImages();
    const Bytes first = randomBytes(size, 71);

    access.setVerbosity(0x2);
    orvtest::CapturedStdout info;
    publish(mem, 77, 51, first);
    expectImage(77, 51, first);
    EXPECT_EQ(readyFlag(mem), 0);
    EXPECT_EQ(received() & 0x40u, 0x40u);
    EXPECT_EQ(received() & 0x40u, 0u) << "cleared by the status read";

    // A smaller format in the same region, through the C interface.
    const Bytes second = randomBytes(360960, 72);
    publish(mem, 78, 20, second);
    expectImage(78, 20, second, true);
    EXPECT_NE(info.text().find("ORVAINFO: Received image via shared memory\n"), std::string::npos);
}

TEST_F(Images, SharedImagesComeAfterUdpAndBadOnesAreDropped) {
    Bytes out(kSize10, 0xEE);

    // Regions too small for the header or for the image they announce.
    for (size_t bytes : {size_t{3}, size_t{6}, kHeader + kSize10 - 1}) {
        OrvosiSharedMem mem(region.c_str(), static_cast<unsigned int>(bytes));
        openImages();
        publish(mem, 5, 10, Bytes(kSize10, 9));
        EXPECT_FALSE(std::get<0>(fetch(out))) << bytes;
        EXPECT_EQ(access.getLastError(), "Incorrect image format") << bytes;
        EXPECT_EQ(readyFlag(mem), 0);
        EXPECT_EQ(out[0], 0xEE);
    }

    OrvosiSharedMem mem(region.c_str(), static_cast<unsigned int>(kHeader + kSize10));
    openImages();
    publish(mem, 1, 10, Bytes(kSize10, 1), 2);  // a flag other than 1 is no image, and stays
    EXPECT_EQ(fetch(out), kNothing);
    EXPECT_EQ(readyFlag(mem), 2);
    publish(mem, 2, 13, Bytes(kSize10, 1));
    EXPECT_EQ(fetch(out), (Fetched{false, 0, 13, 2}));
    EXPECT_EQ(access.getLastError(), "Incorrect image format");
    EXPECT_EQ(readyFlag(mem), 0);
    // Unlike a UDP image, one that does not fit the caller's buffer is dropped.
    publish(mem, 4, 10, Bytes(kSize10, 1));
    EXPECT_EQ(fetch(out, kSize10 - 1), (Fetched{false, 0, 10, 4}));
    EXPECT_EQ(access.getLastError(), "Buffer too small (image size is 307200)");
    EXPECT_EQ(readyFlag(mem), 0);
    EXPECT_EQ(out[0], 0xEE);

    // UDP first, while the region's image waits.
    const Bytes udp = randomBytes(kSize10, 81), shm = randomBytes(kSize10, 82);
    sendRange(81, 10, udp, 0, kSize10);
    publish(mem, 82, 10, shm);
    expectImage(81, 10, udp);
    EXPECT_EQ(readyFlag(mem), 1);
    expectImage(82, 10, shm);
    sendRange(83, 10, udp, 0, 180000);  // with the region empty, progress still shows
    EXPECT_EQ(fetch(out), (Fetched{true, 58, 0, 0}));
}

TEST_F(Images, ARegionCutShortAfterMappingIsRefusedWithoutTouchingIt) {
    // The producer shrinks its region below what the library mapped: the
    // pages past the new end would raise SIGBUS if the copy touched them.
    const size_t mapped = 400000;
    OrvosiSharedMem mem(region.c_str(), static_cast<unsigned int>(mapped));
    ASSERT_TRUE(mem.isOk());
    openImages();
    const auto cutTo = [&](off_t bytes) {
        const int fd = shm_open(("/" + region).c_str(), O_RDWR, 0);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(ftruncate(fd, bytes), 0);
        close(fd);
    };
    Bytes out(kSize10, 0xEE);
    publish(mem, 5, 10, Bytes(kSize10, 1));
    cutTo(4096);
    EXPECT_EQ(fetch(out), (Fetched{false, 0, 10, 5}));
    EXPECT_EQ(access.getLastError(), "Shared memory region truncated to 4096 bytes (400000 mapped)");
    EXPECT_EQ(readyFlag(mem), 0) << "the image is dropped";
    EXPECT_EQ(out[0], 0xEE);

    // Not even the ready flag is left to read.
    cutTo(0);
    EXPECT_EQ(fetch(out), (Fetched{false, 0, 0, 0}));
    EXPECT_EQ(access.getLastError(), "Shared memory region truncated to 0 bytes (400000 mapped)");

    // Grown back, the same mapping serves again.
    cutTo(static_cast<off_t>(mapped));
    const Bytes image = randomBytes(kSize10, 91);
    publish(mem, 6, 10, image);
    expectImage(6, 10, image);
}
