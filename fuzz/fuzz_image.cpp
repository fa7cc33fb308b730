// Image pieces over UDP into a real access object, and getImage handing the
// reassembled image out into buffers of every size. Each input starts from a
// fresh open(), so that it replays alone as it ran.
//
// Input: one byte choosing the configuration (bit 0: image buffers of 400000
// bytes instead of 4 MB; bit 1: every diagnostic line on), then records.
// Record control, bits 0-1:
//   0  a datagram as it is (bit 2: framed so that it passes its check);
//   1  a piece from a description: sequence id (u32), format (u8), address
//      (u24), pixel count (u16); its pixels follow a pattern of their address;
//   2  getImage into a buffer of the capacity given (u32, modulo 4 MB + 16);
//   3  getImage into a buffer the size of a format's image (format u8) plus
//      a little (u8 modulo 4, less 2).
#include <algorithm>

#include "FuzzSupport.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "support/Loopback.hpp"

namespace {

using orvfuzz::Bytes;

constexpr unsigned char kFrameBit = 0x04;
constexpr size_t kMaxCapacity = 0x400000 + 16;
constexpr size_t kMaxUdpPayload = 65507;

struct Harness {
    int port = 0;
    std::string ini[4];
    orvtest::UdpSender sender;
    OrvAccess access;
};

Harness* harness = nullptr;

// The pixel a described piece carries at an address: no two neighbours and
// no two 256-byte rows alike, so that a misplaced or stale byte shows.
unsigned char pattern(size_t address) { return static_cast<unsigned char>((address * 2654435761u) >> 24); }

Bytes describedPiece(orvfuzz::Fields& f) {
    const uint32_t seq = f.u32();
    const unsigned char format = f.u8();
    const size_t address = f.u24();
    const size_t count = f.u16() % (kMaxUdpPayload - ORVWIRE_IMAGE_OVERHEAD + 1);
    Bytes b(ORVWIRE_IMAGE_OVERHEAD + count);
    OrvosiWriter w(b.data() + ORVWIRE_HEADER_SIZE, b.size() - ORVWIRE_HEADER_SIZE);
    w.u32(seq);
    w.u8(format);
    w.u24(address);
    for (size_t i = 0; i < count; ++i) w.u8(pattern(address + i));
    orvfuzz::frame(b.data(), b.size(), ORVWIRE_START_IMAGE);
    return b;
}

// Sends a datagram and services the port until the library has dealt with
// it: every image datagram either counts as received or queues an error.
void deliver(const Bytes& datagram) {
    if (datagram.empty() || datagram.size() > kMaxUdpPayload) return;
    if (!harness->sender.send(harness->port, datagram)) return;
    for (int tries = 0; tries < 1000; ++tries) {
        s_OrvAccessStatus st{};
        if (!harness->access.getStatus(&st)) return;
        if ((st.received & ORVACCESS_RECV_IMAGE) != 0 || st.newError != 0) return;
    }
}

unsigned long imageSize(unsigned char format) {
    unsigned int w = 0, h = 0, b = 0;
    return OrvosiUtil::GetImageResolution(format, &w, &h, &b) ? static_cast<unsigned long>(w) * h * b : 0;
}

// Bytes of the smallest legal format, from the library's own table.
unsigned long smallestImage() {
    static const unsigned long smallest = [] {
        unsigned long least = ~0ul;
        for (int code = 0; code < 256; ++code)
            if (const unsigned long size = imageSize(static_cast<unsigned char>(code))) least = std::min(least, size);
        return least;
    }();
    return smallest;
}

// One getImage; what it hands out must be a whole image of a legal format
// that fits, and when only described pieces were sent, exactly their pixels.
void fetch(size_t capacity, bool onlyDescribed) {
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[capacity]);
    int percent = -1;
    OrvAccess::ImageFormat format{};
    unsigned int sequenceId = 0;
    const bool ok = harness->access.getImage(&percent, &format, &sequenceId, buffer.get(), capacity);
    orvfuzz::require(percent >= 0 && percent <= 100, "progress is a percentage");
    if (!ok || percent != 100) {
        orvfuzz::require(percent < 100, "only a delivered image is complete");
        return;
    }
    int code = 0;
    std::memcpy(&code, &format, sizeof code < sizeof format ? sizeof code : sizeof format);
    const unsigned long size = imageSize(static_cast<unsigned char>(code));
    orvfuzz::require(size != 0 && size <= capacity, "a delivered image has a legal format and fits");
    if (!onlyDescribed) return;
    // The image goes out by the format of the last piece seen, which may be
    // larger than the one it completed by; every complete image holds at
    // least the smallest format's bytes of its own pieces.
    for (unsigned long i = 0; i < std::min(size, smallestImage()); ++i)
        orvfuzz::require(buffer[i] == pattern(i), "a delivered image holds its pieces' pixels in place");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orvfuzz::silenceStreams();
    harness = new Harness;
    harness->port = orvtest::findFreePort();
    orvfuzz::require(harness->port != 0, "a free port below 32768");
    const int ports[5] = {0, harness->port, 0, 0, 0};
    for (int variant = 0; variant < 4; ++variant) {
        std::string extra = "udpOrvRxImgRcvBufSize = 1048576\n[Memory]\nimgBufSize = ";
        extra += (variant & 1) ? "400000\n" : "4194304\n";
        if (variant & 2) extra += "[General]\nverbosity = 0xFFFFFF\n";
        harness->ini[variant] = orvfuzz::writeScratchFile("image" + std::to_string(variant) + ".ini",
                                                          orvtest::receiverIni(ports, extra));
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    harness->access.setIniPath(harness->ini[data[0] % 4]);
    if (!harness->access.open()) return 0;  // the port was taken meanwhile

    bool onlyDescribed = true;
    orvfuzz::forEachRecord(data + 1, size - 1, [&](const orvfuzz::Record& r) {
        orvfuzz::Fields f(r);
        switch (r.control % 4) {
            case 0: {
                Bytes datagram(r.data, r.data + r.size);
                if (r.control & kFrameBit)
                    orvfuzz::frame(datagram.data(), datagram.size(), ORVWIRE_START_IMAGE);
                onlyDescribed = false;
                deliver(datagram);
                break;
            }
            case 1:
                deliver(describedPiece(f));
                break;
            case 2:
                fetch(f.u32() % kMaxCapacity, onlyDescribed);
                break;
            default: {
                const unsigned long exact = imageSize(f.u8());
                const long delta = static_cast<long>(f.u8() % 4) - 2;
                fetch(static_cast<size_t>(std::max(0L, static_cast<long>(exact) + delta)), onlyDescribed);
                break;
            }
        }
    });
    return 0;
}
