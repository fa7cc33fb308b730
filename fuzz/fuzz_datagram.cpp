// Datagrams of every family through the dispatch the service loop uses: the
// port's routes pick the family by the first byte, and handle() checks,
// logs, parses and counts it. Each datagram sits in an allocation of exactly
// its size, so that reading one byte past it is caught, and reaches as far
// as the shared receive buffer would let it.
//
// Input: a setup block (FuzzState.hpp), then records, one datagram each.
// Record control: bits 0-2 the port (modulo the number of ports); bit 3
// frames the datagram so that it passes its check; bit 4 also frames the
// subpackets and the chip packet inside it, so that mutated contents reach
// their parsers too.
#include "access/receive/Dispatch.hpp"
#include "FuzzState.hpp"

namespace {

using orvfuzz::Exact;

constexpr unsigned char kFrameBit = 0x08;
constexpr unsigned char kFrameInnerBit = 0x10;

const orvwire::Family* route(orvwire::Port port, unsigned char firstByte) {
    for (const orvwire::Route& r : orvwire::kRoutes)
        if (r.port == port && (r.firstByte == orvwire::kAnyByte || r.firstByte == firstByte)) return r.family;
    return nullptr;
}

// Frames a subpacket at `at` by its own length word, when it lies whole
// inside the datagram.
void frameSubpacket(Exact& b, size_t at, unsigned char start) {
    if (at + ORVWIRE_HEADER_SIZE > b.size()) return;
    const size_t length = OrvosiUtil::word16(&b[at + 1]);
    if (length < 4 || at + length > b.size() - 1) return;
    orvfuzz::frame(&b[at], length, start);
}

void frameInner(const orvwire::Family& f, Exact& b) {
    if (&f == &orvwire::kTracking) {
        frameSubpacket(b, ORVWIRE_TRACKING_OPTICAL_AT, ORVWIRE_START_OPTICAL);
    } else if (&f == &orvwire::kMeta && b.size() > ORVWIRE_META_IMU_AT) {
        // The chip packet, by the length its type has.
        unsigned char* chip = &b[ORVWIRE_META_IMU_AT];
        const size_t room = b.size() - ORVWIRE_META_IMU_AT - 1;
        chip[0] = ORVWIRE_CHIP_SYNC;
        const unsigned int length = room >= 2 ? OrvosiUtil::GetBvPacketLength(chip[1]) : 0;
        if (length != 0 && length <= room)
            chip[length - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(chip, length - 1));
        for (const orvwire::MetaSlot& slot : orvwire::kMetaSlots) {
            const size_t at =
                slot.offsetWidth == 1 ? b[slot.offsetAt] : OrvosiUtil::word16(&b[slot.offsetAt]);
            if (at != 0) frameSubpacket(b, at, slot.family->startByte);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orvfuzz::replay(data, size, [](OrvAccess::State& s, const orvfuzz::Record& r) {
        if (r.size == 0) return;  // an empty read is no datagram
        const auto port = static_cast<orvwire::Port>(r.control % 8 % orvwire::kPortCount);
        const orvwire::Family* family = route(port, r.data[0]);
        if (family == nullptr) return;  // dropped unseen, as the service loop does
        Exact datagram(r.data, r.size);
        if ((r.control & kFrameInnerBit) && datagram.size() > ORVWIRE_META_IMU_AT)
            frameInner(*family, datagram);
        if ((r.control & kFrameBit) && family->check == orvwire::Check::datagram)
            orvfuzz::frame(datagram.data(), datagram.size(), family->startByte);
        orvwire::handle(s, *family, OrvosiBytes{datagram.data(), datagram.size(), kReceiveBufferSize});
    });
    return 0;
}
