// Decoding of the inertial chip's packets, with the widths and scales of
// the chip's tables.
#include <cstring>

#include "wire/Chip.hpp"

#include "wire/Codec.hpp"
#include "wire/OrvosiCursor.hpp"

namespace {

using orvwire::chipField;
using orvwire::kChipTypes;
using orvwire::ChipType;

constexpr bool fitsRaw() {
    for (const ChipType& t : kChipTypes)
        if (t.length > sizeof(BrevantData::raw)) return false;
    return true;
}
static_assert(fitsRaw(), "every chip packet must fit the raw copy");

// Two's-complement value of the low `bits` bits of v.
constexpr int signExtend(unsigned int v, unsigned int bits) {
    const unsigned int m = (1u << bits) - 1;
    const int x = static_cast<int>(v & m);
    return (x & (1 << (bits - 1))) ? x - static_cast<int>(m + 1) : x;
}
static_assert(signExtend(0x8000, 16) == -32768 && signExtend(0x1FF, 10) == 511 &&
                  signExtend(0x200, 10) == -512,
              "sign extension");

int i16(OrvosiReader& r) { return signExtend(r.u16(), 16); }

float scaled(int v, double factor) { return static_cast<float>(v * factor); }

// Stores a float `index` floats after triad[0]; the index may be -1 or 3,
// reaching triadAxis (with its padding) or vec40[0] as the chip format has it.
void storeTriad(BrevantData* out, int index, float v) {
    const size_t at =
        offsetof(BrevantData, triad) + static_cast<size_t>(index + 1) * sizeof(float) - sizeof(float);
    std::memcpy(reinterpret_cast<unsigned char*>(out) + at, &v, sizeof v);
}

// Value number `index` of a compact packet's triple.
float compact(const unsigned char* b, const orvwire::CompactValue& v, int index) {
    const size_t at = v.at + 2 * static_cast<size_t>(index);
    return scaled(signExtend(b[at] + 256u * b[at + 1], v.bits), v.scale);
}

}  // namespace

unsigned int OrvwireChip::GetBvPacketLength(unsigned char type) {
    const ChipType* t = orvwire::findChipType(type);
    return t != nullptr ? t->length : 0;
}

unsigned int OrvwireChip::GetPacketMask(unsigned char type) {
    const ChipType* t = orvwire::findChipType(type);
    return t != nullptr ? t->mask : 0;
}

bool OrvwireChip::decode(const unsigned char* pkt, BrevantData* out, uint64_t timeUs) {
    const unsigned char* b = pkt;
    const unsigned int length = GetBvPacketLength(b[1]);
    if (length == 0 || OrvwireCodec::checksum(b, length) != 0) return false;

    *out = BrevantData{};
    out->type = b[1];
    out->length = static_cast<uint8_t>(length);
    std::memcpy(out->raw, b, length);
    if (GetPacketMask(out->type) == 0) return ParseCompactPacket(const_cast<unsigned char*>(pkt), out);

    out->mask = GetPacketMask(out->type);
    if (out->mask == 0) return false;
    out->tag = 0;
    out->pid = b[2];
    out->timeUs = timeUs;

    // Every type's fields fit before its checksum byte; the cursor keeps
    // that true should the tables ever change.
    OrvosiReader r(b, length - 1);
    r.seek(orvwire::kChipFieldsAt);
    const uint32_t mask = out->mask;
    if (mask & 0x1) out->status = r.u8();
    if (mask & 0x2) out->status2 = r.u8();
    if (mask & 0x4) out->word = r.u16();
    if (mask & 0x8) {
        for (int i = 0; i < 3; ++i) {
            out->gyroRaw[i] = r.u16();
            out->gyro[i] = scaled(signExtend(out->gyroRaw[i], 16), chipField(0x8).scale);
        }
    }
    if (mask & 0x10) {
        for (int i = 0; i < 3; ++i) {
            out->accelRaw[i] = r.u16();
            out->accel[i] = scaled(signExtend(out->accelRaw[i], 16), chipField(0x10).scale);
        }
    }
    if (mask & 0x20) {
        out->triadAxis = out->status & 3;
        const int axis = out->triadAxis;
        for (float& f : out->triad) f = 0.0f;
        // Axis 0 lands one float before triad, over triadAxis itself.
        storeTriad(out, axis - 1, scaled(i16(r), chipField(0x20).scale));
    }
    if (mask & 0x40)
        for (float& f : out->vec40) f = scaled(i16(r), chipField(0x40).scale);
    if (mask & 0x80)
        for (float& f : out->vec80) f = scaled(i16(r), chipField(0x80).scale);
    if (mask & 0x100)
        for (float& f : out->vec100) f = scaled(i16(r), chipField(0x100).scale);
    if (mask & 0x200)
        for (float& f : out->vec200) f = scaled(i16(r), chipField(0x200).scale);
    if (mask & 0x400)
        for (float& f : out->vec400) f = scaled(i16(r), chipField(0x400).scale);
    if (mask & 0x800) {
        static_assert(chipField(0x800).isUnsigned, "read as the chip sends it");
        out->scalar800 = scaled(r.u16(), chipField(0x800).scale);
    }
    if (mask & 0x1000) out->scalar1000 = scaled(i16(r), chipField(0x1000).scale);
    if (mask & kBrevantMaskAux) {
        const unsigned char first = r.u8();
        out->hi2000 = first >> 5;
        out->lo2000 = first & 0x1F;
        out->byte2000 = r.u8();
        r.skip(3);
    }
    if (mask & 0x4000) out->byte4000 = r.u8();
    if (mask & 0x8000) {
        // Single precision, in this order: the chip's own arithmetic.
        float a = static_cast<float>(r.u24());
        a = a * static_cast<float>(orvwire::kChipValue8000aScale);
        a = a * static_cast<float>(orvwire::kChipValue8000aFactor);
        out->value8000a = a;
        out->value8000b = scaled(i16(r), chipField(0x8000).scale);
    }
    // All three axes, on top of whatever 0x20 left.
    if (mask & 0x10000)
        for (float& f : out->triad) f = scaled(i16(r), chipField(0x10000).scale);
    return true;
}

bool OrvwireChip::ParseCompactPacket(unsigned char* pkt, BrevantData* out) {
    const unsigned char* b = pkt;
    out->pid = static_cast<uint8_t>(orvwire::gather(b, orvwire::kCompactPid));
    out->status = static_cast<uint8_t>(orvwire::gather(b, orvwire::kCompactStatus));
    out->word = static_cast<uint16_t>(orvwire::gather(b, orvwire::kCompactWord));
    for (int i = 0; i < 3; ++i) {
        out->gyro[i] = compact(b, orvwire::kCompactGyro, i);
        out->accel[i] = compact(b, orvwire::kCompactAccel, i);
    }
    out->mask |= 0x1D;
    if (b[1] != orvwire::kCompactWithTriad) return true;

    out->triadAxis = b[orvwire::kCompactTriad.at + 1] >> 6;
    // One index higher than the mask-driven packets: axis 3 lands in vec40[0].
    if (out->triadAxis >= 1 && out->triadAxis <= 3)
        storeTriad(out, out->triadAxis, compact(b, orvwire::kCompactTriad, 0));
    out->mask |= 0x3D;
    return true;
}
