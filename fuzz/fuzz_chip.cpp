// Inertial chip packets through the decoder. The packet sits in an
// allocation of exactly the bytes its type has (two for an unknown type:
// the sync byte and the type), so that any read past them is caught.
//
// Input: one flag byte (bit 0 seals the packet with its checksum), then the
// packet; bytes it is short of read as zeros.
#include <cstring>

#include "FuzzSupport.hpp"
#include "wire/BrevantData.hpp"
#include "orvsim/Wire.hpp"

namespace {

constexpr unsigned char kSealBit = 0x01;

// The simulator builds type-3 packets from the raw words the decoder hands
// out: what it decodes, it must build back byte for byte (the sync byte is
// the caller's to check, so only packets that have it compare).
void requireRebuilt(const BrevantData& d) {
    orvsim::ChipSample c;
    c.type = d.type;
    c.pid = d.pid;
    c.status = d.status;
    c.word = d.word;
    std::memcpy(c.gyroRaw, d.gyroRaw, sizeof c.gyroRaw);
    std::memcpy(c.accelRaw, d.accelRaw, sizeof c.accelRaw);
    const orvsim::Datagram rebuilt = orvsim::buildChipPacket(c);
    orvfuzz::require(rebuilt.size() == d.length && std::memcmp(rebuilt.data(), d.raw, d.length) == 0,
                     "a decoded type-3 packet builds back to its bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const unsigned char flags = data[0];
    ++data;
    --size;
    const unsigned char type = size >= 2 ? data[1] : 0;
    const unsigned int length = OrvosiUtil::GetBvPacketLength(type);
    const size_t bytes = length > 2 ? length : 2;
    orvfuzz::Bytes padded(bytes, 0);
    std::memcpy(padded.data(), data, std::min(size, bytes));
    if ((flags & kSealBit) && length != 0)
        padded[length - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(padded.data(), length - 1));
    orvfuzz::Exact packet(padded.data(), padded.size());

    BrevantData out;
    std::memset(&out, 0xA5, sizeof out);
    const BrevantData before = out;
    const bool ok = OrvosiUtil::ParseBrevantPacket(packet.data(), &out);
    const bool refusedUnread = length == 0 || OrvosiUtil::checksum(padded.data(), length) != 0;
    if (refusedUnread) {
        orvfuzz::require(!ok && std::memcmp(&out, &before, sizeof out) == 0,
                         "an unknown type or a bad checksum leaves the record untouched");
        return 0;
    }
    if (!ok) return 0;
    orvfuzz::require(out.type == type && out.length == length, "type and length as the table has them");
    orvfuzz::require(std::memcmp(out.raw, padded.data(), length) == 0, "the raw copy is the packet");
    for (size_t i = length; i < sizeof out.raw; ++i)
        orvfuzz::require(out.raw[i] == 0, "zeros after the raw copy");
    const unsigned int mask = OrvosiUtil::GetPacketMask(type);
    orvfuzz::require(out.mask == (mask != 0 ? mask : type == 1 ? 0x1Du : 0x3Du), "the mask of the type");
    if (type == 3 && out.raw[0] == ORVWIRE_CHIP_SYNC) requireRebuilt(out);
    return 0;
}
