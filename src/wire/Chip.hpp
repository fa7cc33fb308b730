// The inertial chip's packets: their types, the fields each type carries
// with their widths and scales, and the decoder. Compact types (1 and 2) pack
// their fields into bits across the packet; the other types carry, in a
// fixed order, the fields whose bits their mask sets.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wire/BrevantData.hpp"
#include "wire/FieldCodec.hpp"

namespace orvwire {

struct ChipType {
    unsigned char type;
    unsigned int length;  // checksum included
    unsigned int mask;    // 0 for the compact types
};

// Fixed by the chip; read-only for the life of the process.
inline constexpr ChipType kChipTypes[] = {
    {1, 15, 0},     {2, 17, 0},    {3, 19, 0x1D}, {4, 21, 0x3D},    {5, 13, 0x45},    {6, 15, 0x85},
    {7, 25, 0x105}, {8, 27, 0x7D}, {9, 29, 0xBD}, {20, 32, 0x783F}, {21, 38, 0xF83F}, {22, 42, 0x1F81F},
};
// The types the tracker's front end sends: status, word, gyro and
// accelerometer; and the same with the auxiliary block.
inline constexpr unsigned char kChipTypeImu = 3;
inline constexpr unsigned char kChipTypeImuAux = 20;
// Bytes before the fields: sync, type, packet id.
inline constexpr size_t kChipFieldsAt = 3;

constexpr const ChipType* findChipType(unsigned char type) {
    for (const ChipType& t : kChipTypes)
        if (t.type == type) return &t;
    return nullptr;
}

// The fields of the mask-driven types, in wire order: the mask bit that
// brings one, its name, its bytes, the scale of each 16-bit word in it (0:
// not scaled), the name its raw words keep (or null), and whether those
// words are unsigned (else two's complement).
struct ChipField {
    uint32_t bit;
    const char* name;
    unsigned int bytes;
    double scale;
    const char* raw;
    bool isUnsigned = false;
};
// The mask bits a sample of the tracker's front end is made of.
inline constexpr uint32_t kChipStatus = 0x1;
inline constexpr uint32_t kChipWord = 0x4;
inline constexpr uint32_t kChipGyro = 0x8;
inline constexpr uint32_t kChipAccel = 0x10;
inline constexpr double kTwoPowMinus15 = 1.0 / 32768.0;
inline constexpr ChipField kChipFields[] = {
    {0x1, "status", 1, 0, nullptr},
    {0x2, "status2", 1, 0, nullptr},
    {0x4, "word", 2, 0, nullptr},
    {0x8, "gyro", 6, 3.90625e-5, "gyroRaw"},
    {0x10, "accel", 6, 6.25e-6, "accelRaw"},
    {0x20, "triad", 2, 0.00025, nullptr},  // one axis, named by the status byte's low two bits
    {0x40, "vec40", 6, 0.0001, nullptr},
    {0x80, "vec80", 8, kTwoPowMinus15, nullptr},
    {0x100, "vec100", 6, kTwoPowMinus15, nullptr},
    {0x200, "vec200", 6, kTwoPowMinus15, nullptr},
    {0x400, "vec400", 6, kTwoPowMinus15, nullptr},
    {0x800, "scalar800", 2, 0.0014648, nullptr, true},  // the only word the chip sends unsigned
    {0x1000, "scalar1000", 2, 0.05, nullptr},
    {0x2000, "aux", 5, 0, nullptr},  // hi2000:3 lo2000:5, byte2000, three bytes unread
    {0x4000, "byte4000", 1, 0, nullptr},
    {0x8000, "value8000", 5, 0.0020833, nullptr},  // u24 a, then signed word b at this scale
    {0x10000, "triad", 6, 0.00025, nullptr},       // all three axes
};
// Value a of field 0x8000: its 24 bits times this, then times 1000, each
// step in single precision.
inline constexpr double kChipValue8000aScale = 2.4414e-5;
inline constexpr double kChipValue8000aFactor = 1000.0;

// What each value of a decoded chip packet is, for readers of the wire (the
// dissector): its name in BrevantData, how it is shown, what a reader calls
// it where the name says nothing (else empty), and what it means. The
// scales are kChipFields', added where the values are listed.
struct ChipValue {
    const char* name;
    Type type;
    const char* label;
    const char* description;
};
// clang-format off: the rows read as a table.
inline constexpr ChipValue kChipValues[] = {
    {"pid", Type::u8, "", "Packet id, 0..255: the sample's place in its 256-sample bit-stream row"},
    {"status", Type::x8, "Chip status byte", "Status byte; bit 4 feeds the bit-stream row, the low two bits name the triad's axis"},
    {"status2", Type::x8, "Second chip status byte", "Second status byte"},
    {"word", Type::x16, "Chip word", "16-bit word, as sent"},
    {"gyroRaw", Type::u16, "Raw gyro words", "Gyro words x, y, z as sent"},
    {"accelRaw", Type::u16, "Raw accelerometer words", "Accelerometer words x, y, z as sent"},
    {"gyro", Type::f32, "", "Gyro increment over the sample interval, rad, body axes"},
    {"accel", Type::f32, "", "Accelerometer increment over the sample interval, m/s, body axes"},
    {"triadAxis", Type::u8, "Triad axis", "Which axis of triad a one-axis block carries (1 to 3), the status byte's low two bits"},
    {"triad", Type::f32, "Triad", "Triad x, y, z: one axis or all three"},
    {"vec40", Type::f32, "Chip vector 0x40", "Three values, passed to the application as sent"},
    {"vec80", Type::f32, "Chip vector 0x80", "Four values, passed to the application as sent"},
    {"vec100", Type::f32, "Chip vector 0x100", "Three values, passed to the application as sent"},
    {"vec200", Type::f32, "Chip vector 0x200", "Three values, passed to the application as sent"},
    {"vec400", Type::f32, "Chip vector 0x400", "Three values, passed to the application as sent"},
    {"scalar800", Type::f32, "Chip scalar 0x800", "One value, passed to the application as sent"},
    {"scalar1000", Type::f32, "Chip scalar 0x1000", "One value, passed to the application as sent"},
    {"hi2000", Type::u8, "Auxiliary flag", "Top 3 bits of block 0x2000's first byte; not 0: byte2000 is queued as auxiliary data"},
    {"lo2000", Type::u8, "Auxiliary low bits", "Low 5 bits of block 0x2000's first byte"},
    {"byte2000", Type::u8, "Auxiliary value", "Second byte of block 0x2000; what getAuxData returns when hi2000 is not 0"},
    {"byte4000", Type::u8, "Chip byte 0x4000", "One byte, passed to the application as sent"},
    {"value8000a", Type::f32, "Chip value 0x8000 a", "Block 0x8000's 24-bit unsigned value, scaled"},
    {"value8000b", Type::f32, "Chip value 0x8000 b", "Block 0x8000's signed word after value a"},
};
// clang-format on

constexpr const ChipField& chipField(uint32_t bit) {
    for (const ChipField& f : kChipFields)
        if (f.bit == bit) return f;
    throw "no such chip field";
}

// Compact types: a signed value of `bits` bits spread over a little-endian
// word at `at` (of which the top bits are other fields'), times `scale`.
struct CompactValue {
    size_t at;
    unsigned int bits;
    double scale;
};
inline constexpr CompactValue kCompactGyro{2, 10, 0.0025};    // x, y, z at 2, 4, 6
inline constexpr CompactValue kCompactAccel{8, 12, 0.0001};   // x, y, z at 8, 10, 12
inline constexpr CompactValue kCompactTriad{14, 14, 0.00025};  // type 2; the axis in the top two bits
inline constexpr unsigned char kCompactWithTriad = 2;

// The compact types' small fields are gathered from the spare bits of those
// words: each piece is (byte at `at`, shifted left by `shift`, or right by
// -shift) masked with `mask`, and a field is its pieces ORed.
struct BitPiece {
    unsigned char at;
    signed char shift;
    unsigned int mask;
};
inline constexpr BitPiece kCompactPid[] = {{5, -4, 0x0F}, {3, 0, 0xF0}};
inline constexpr BitPiece kCompactStatus[] = {{3, 4, 0xC0}, {5, 2, 0x30}, {7, 0, 0x0C}};
inline constexpr BitPiece kCompactWord[] = {{7, 8, 0xF000}, {9, 4, 0x0F00}, {11, 0, 0x00F0}, {13, -4, 0x000F}};

template <size_t N>
constexpr unsigned int gather(const unsigned char* b, const BitPiece (&pieces)[N]) {
    unsigned int v = 0;
    for (const BitPiece& p : pieces)
        v |= (p.shift >= 0 ? static_cast<unsigned int>(b[p.at]) << p.shift
                           : static_cast<unsigned int>(b[p.at]) >> -p.shift) &
             p.mask;
    return v;
}

}  // namespace orvwire

// The decoder; OrvosiUtil (os/) derives from it, which adds the host clock.
struct OrvwireChip {
    // Packet length and field mask by chip packet type; 0 for an unknown type.
    static unsigned int GetBvPacketLength(unsigned char type);
    static unsigned int GetPacketMask(unsigned char type);
    // Decodes one chip packet, stamping mask-driven types with timeUs; false
    // (and out untouched) for an unknown type or a bad checksum.
    static bool decode(const unsigned char* pkt, BrevantData* out, uint64_t timeUs);
    // Types 1 and 2; called by decode.
    static bool ParseCompactPacket(unsigned char* pkt, BrevantData* out);
};
