// Inertial chip packets built here from chosen values, field by field as the
// chip lays them out, and decoded back.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "osi/BrevantData.hpp"
#include "osi/OrvosiUtil.hpp"

namespace {

using Bytes = std::vector<unsigned char>;

struct TypeRow {
    unsigned char type;
    unsigned int length;
    unsigned int mask;
};
const TypeRow kTypes[] = {{1, 15, 0},    {2, 17, 0},       {3, 19, 0x1D},    {4, 21, 0x3D},
                          {5, 13, 0x45}, {6, 15, 0x85},    {7, 25, 0x105},   {8, 27, 0x7D},
                          {9, 29, 0xBD}, {20, 32, 0x783F}, {21, 38, 0xF83F}, {22, 42, 0x1F81F}};

// Wire values of every optional field of a mask-driven packet.
struct Fields {
    uint8_t status = 0x5E;
    uint8_t status2 = 0xA1;
    uint16_t word = 0xBEEF;
    int16_t gyro[3] = {-32768, 12800, -1};
    int16_t accel[3] = {32767, -16000, 7};
    int16_t triad1 = -4000;
    int16_t v40[3] = {-10000, 20000, 3};
    int16_t v80[4] = {-32768, 16384, -8192, 1};
    int16_t v100[3] = {100, -200, 300};
    int16_t v200[3] = {-400, 500, -600};
    int16_t v400[3] = {700, -800, 900};
    uint16_t s800 = 0xFFFF;
    int16_t s1000 = -20;
    uint8_t b2000[5] = {0xB7, 0x42, 0xEE, 0xEE, 0xEE};
    uint8_t b4000 = 0x99;
    uint32_t v8000a = 332599;
    int16_t v8000b = -480;
    int16_t triad3[3] = {4000, -8000, 12000};
};

void put16(Bytes& b, int v) {
    b.push_back(static_cast<unsigned char>(v & 0xFF));
    b.push_back(static_cast<unsigned char>((v >> 8) & 0xFF));
}

void seal(Bytes& b, size_t length) {
    EXPECT_LE(b.size() + 1, length) << "fields overrun the packet";
    b.resize(length - 1, 0);
    b.push_back(static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size())));
}

// Writes the fields of `row.mask` in the chip's order.
Bytes encode(const TypeRow& row, unsigned char pid, const Fields& f) {
    Bytes b{5, row.type, pid};
    const unsigned int m = row.mask;
    if (m & 0x1) b.push_back(f.status);
    if (m & 0x2) b.push_back(f.status2);
    if (m & 0x4) put16(b, f.word);
    if (m & 0x8)
        for (int v : f.gyro) put16(b, v);
    if (m & 0x10)
        for (int v : f.accel) put16(b, v);
    if (m & 0x20) put16(b, f.triad1);
    if (m & 0x40)
        for (int v : f.v40) put16(b, v);
    if (m & 0x80)
        for (int v : f.v80) put16(b, v);
    if (m & 0x100)
        for (int v : f.v100) put16(b, v);
    if (m & 0x200)
        for (int v : f.v200) put16(b, v);
    if (m & 0x400)
        for (int v : f.v400) put16(b, v);
    if (m & 0x800) put16(b, f.s800);
    if (m & 0x1000) put16(b, f.s1000);
    if (m & 0x2000) b.insert(b.end(), f.b2000, f.b2000 + 5);
    if (m & 0x4000) b.push_back(f.b4000);
    if (m & 0x8000) {
        for (int i = 0; i < 3; ++i) b.push_back(static_cast<unsigned char>(f.v8000a >> (8 * i)));
        put16(b, f.v8000b);
    }
    if (m & 0x10000)
        for (int v : f.triad3) put16(b, v);
    seal(b, row.length);
    return b;
}

// Compact packets pack their fields into the spare bits of the sensor words.
struct Compact {
    uint8_t pid = 0xA5;
    uint8_t status = 0xFC;  // bits 0 and 1 do not travel
    uint16_t word = 0xBEEF;
    int gyro[3] = {-512, 511, -1};     // 10 bits
    int accel[3] = {-2048, 2047, -3};  // 12 bits
    int axis = 0;
    int triad = 0;  // 14 bits
};

Bytes encodeCompact(unsigned char type, const Compact& c) {
    Bytes b(type == 1 ? 15 : 17, 0);
    b[0] = 5;
    b[1] = type;
    for (int i = 0; i < 3; ++i) {
        const unsigned g = static_cast<unsigned>(c.gyro[i]) & 0x3FF;
        const unsigned a = static_cast<unsigned>(c.accel[i]) & 0xFFF;
        b[2 + 2 * i] = g & 0xFF;
        b[3 + 2 * i] = static_cast<unsigned char>(g >> 8);
        b[8 + 2 * i] = a & 0xFF;
        b[9 + 2 * i] = static_cast<unsigned char>(a >> 8);
    }
    b[3] |= static_cast<unsigned char>((c.pid & 0xF0) | ((c.status >> 6) << 2));
    b[5] |= static_cast<unsigned char>(((c.pid & 0x0F) << 4) | (((c.status >> 4) & 3) << 2));
    b[7] |= static_cast<unsigned char>((c.word >> 12) << 4 | (c.status & 0x0C));
    b[9] |= static_cast<unsigned char>(((c.word >> 8) & 0xF) << 4);
    b[11] |= static_cast<unsigned char>(((c.word >> 4) & 0xF) << 4);
    b[13] |= static_cast<unsigned char>((c.word & 0xF) << 4);
    if (type == 2) {
        const unsigned t = static_cast<unsigned>(c.triad) & 0x3FFF;
        b[14] = t & 0xFF;
        b[15] = static_cast<unsigned char>((t >> 8) | (c.axis << 6));
    }
    b.pop_back();
    seal(b, type == 1 ? 15 : 17);
    return b;
}

float sc(int v, double factor) { return static_cast<float>(v * factor); }

BrevantData decode(Bytes pkt, bool expectOk = true) {
    BrevantData d;
    std::memset(&d, 0, sizeof d);
    EXPECT_EQ(OrvosiUtil::ParseBrevantPacket(pkt.data(), &d), expectOk);
    return d;
}

// The float stored where triadAxis and its padding sit.
float floatBeforeTriad(const BrevantData& d) {
    float f;
    std::memcpy(&f, reinterpret_cast<const unsigned char*>(&d) + offsetof(BrevantData, triad) - sizeof f,
                sizeof f);
    return f;
}

const float kZero3[3] = {0, 0, 0};
void expect3(const float* got, const float* want, const char* what) {
    for (int i = 0; i < 3; ++i) EXPECT_FLOAT_EQ(got[i], want[i]) << what << "[" << i << "]";
}

TEST(ChipTables, LengthsAndMasksByTypeAndZeroForUnknownTypes) {
    for (const TypeRow& r : kTypes) {
        EXPECT_EQ(OrvosiUtil::GetBvPacketLength(r.type), r.length) << int(r.type);
        EXPECT_EQ(OrvosiUtil::GetPacketMask(r.type), r.mask) << int(r.type);
    }
    for (int t : {0, 10, 11, 19, 23, 255}) {
        EXPECT_EQ(OrvosiUtil::GetBvPacketLength(static_cast<unsigned char>(t)), 0u) << t;
        EXPECT_EQ(OrvosiUtil::GetPacketMask(static_cast<unsigned char>(t)), 0u) << t;
    }
}

TEST(ChipPacket, EveryMaskDrivenTypeDecodesItsFieldsAndLeavesTheRestZero) {
    const Fields f;
    for (const TypeRow& row : kTypes) {
        if (row.mask == 0) continue;
        SCOPED_TRACE(int(row.type));
        const Bytes pkt = encode(row, 0xC3, f);
        const uint64_t before = OrvosiUtil::getTimeSysUs();
        const BrevantData d = decode(pkt);
        const uint64_t after = OrvosiUtil::getTimeSysUs();
        const unsigned int m = row.mask;

        EXPECT_EQ(d.pid, 0xC3);
        EXPECT_EQ(d.tag, 0u);
        EXPECT_EQ(d.type, row.type);
        EXPECT_EQ(d.mask, m);
        EXPECT_GE(d.timeUs, before);
        EXPECT_LE(d.timeUs, after);
        EXPECT_EQ(d.length, row.length);
        EXPECT_EQ(Bytes(d.raw, d.raw + row.length), pkt);
        for (size_t i = row.length; i < sizeof d.raw; ++i) EXPECT_EQ(d.raw[i], 0) << "raw " << i;

        EXPECT_EQ(d.status, (m & 0x1) ? f.status : 0);
        EXPECT_EQ(d.status2, (m & 0x2) ? f.status2 : 0);
        EXPECT_EQ(d.word, (m & 0x4) ? f.word : 0);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(d.gyroRaw[i], (m & 0x8) ? static_cast<uint16_t>(f.gyro[i]) : 0);
            EXPECT_EQ(d.accelRaw[i], (m & 0x10) ? static_cast<uint16_t>(f.accel[i]) : 0);
            EXPECT_FLOAT_EQ(d.gyro[i], (m & 0x8) ? sc(f.gyro[i], 3.90625e-5) : 0);
            EXPECT_FLOAT_EQ(d.accel[i], (m & 0x10) ? sc(f.accel[i], 6.25e-6) : 0);
            EXPECT_FLOAT_EQ(d.vec40[i], (m & 0x40) ? sc(f.v40[i], 0.0001) : 0);
            EXPECT_FLOAT_EQ(d.vec100[i], (m & 0x100) ? sc(f.v100[i], 1.0 / 32768) : 0);
            EXPECT_FLOAT_EQ(d.vec200[i], (m & 0x200) ? sc(f.v200[i], 1.0 / 32768) : 0);
            EXPECT_FLOAT_EQ(d.vec400[i], (m & 0x400) ? sc(f.v400[i], 1.0 / 32768) : 0);
        }
        for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(d.vec80[i], (m & 0x80) ? sc(f.v80[i], 1.0 / 32768) : 0);
        // status 0x5E carries axis 2.
        if (m & 0x20) {
            EXPECT_EQ(d.triadAxis, 2);
            const float want[3] = {0, sc(f.triad1, 0.00025), 0};
            expect3(d.triad, want, "triad");
        } else if (m & 0x10000) {
            const float want[3] = {sc(f.triad3[0], 0.00025), sc(f.triad3[1], 0.00025),
                                   sc(f.triad3[2], 0.00025)};
            expect3(d.triad, want, "triad");
        } else {
            EXPECT_EQ(d.triadAxis, 0);
            expect3(d.triad, kZero3, "triad");
        }
        EXPECT_FLOAT_EQ(d.scalar1000, (m & 0x1000) ? -1.0f : 0);
        EXPECT_EQ(d.hi2000, (m & 0x2000) ? 5 : 0);
        EXPECT_EQ(d.lo2000, (m & 0x2000) ? 0x17 : 0);
        EXPECT_EQ(d.byte2000, (m & 0x2000) ? 0x42 : 0);
        EXPECT_EQ(d.byte4000, (m & 0x4000) ? 0x99 : 0);
        EXPECT_FLOAT_EQ(d.value8000b, (m & 0x8000) ? sc(-480, 0.0020833) : 0);
    }
}

TEST(ChipPacket, ScalingAsymmetriesAreKept) {
    Fields f;
    // Signed gyro words reach -1.28 at 0x8000; the 0x800 word alone is unsigned.
    BrevantData d = decode(encode(kTypes[11], 1, f));  // type 22
    EXPECT_FLOAT_EQ(d.gyro[0], -1.28f);
    EXPECT_EQ(d.gyroRaw[0], 0x8000);
    EXPECT_FLOAT_EQ(d.accel[0], 32767 * 6.25e-6f);
    EXPECT_FLOAT_EQ(d.scalar800, static_cast<float>(65535 * 0.0014648));
    EXPECT_GT(d.scalar800, 95.0f);

    // value8000a is multiplied in single precision, first by 2.4414e-5 and
    // then by 1000; for 332599 that differs from the exact product.
    float single = 332599.0f;
    single = single * 2.4414e-5f;
    single = single * 1000.0f;
    EXPECT_EQ(d.value8000a, single);
    EXPECT_NE(d.value8000a, static_cast<float>(332599 * 2.4414e-5 * 1000.0));
    f.v8000a = 0xFFFFFF;  // the 24-bit value is unsigned
    d = decode(encode(kTypes[11], 1, f));
    EXPECT_GT(d.value8000a, 0.0f);

    // Mask 0x20 with axis 0 stores the value one float before triad, over
    // triadAxis itself; triad stays cleared.
    f.status = 0x5C;                      // axis 0
    d = decode(encode(kTypes[3], 1, f));  // type 4
    EXPECT_FLOAT_EQ(floatBeforeTriad(d), sc(f.triad1, 0.00025));
    float stored = sc(f.triad1, 0.00025);
    unsigned char low;
    std::memcpy(&low, &stored, 1);
    EXPECT_EQ(d.triadAxis, low);
    expect3(d.triad, kZero3, "triad");
    // Axes 1 and 3 land in triad[0] and triad[2].
    f.status = 0x5D;
    d = decode(encode(kTypes[3], 1, f));
    EXPECT_EQ(d.triadAxis, 1);
    EXPECT_FLOAT_EQ(d.triad[0], -1.0f);
    f.status = 0x5F;
    d = decode(encode(kTypes[3], 1, f));
    EXPECT_EQ(d.triadAxis, 3);
    EXPECT_FLOAT_EQ(d.triad[2], -1.0f);
    EXPECT_FLOAT_EQ(d.vec40[0], 0.0f);
}

TEST(ChipPacket, CompactPacketsUnpackTheirBits) {
    Compact c;
    // Two status patterns, so that neighbouring bits cannot leak into either.
    for (unsigned char type : {1, 2, 1, 2}) {
        SCOPED_TRACE(int(type));
        c.status = c.status == 0xFC ? 0x30 : 0xFC;
        c.axis = 1;
        c.triad = -8192;
        const Bytes pkt = encodeCompact(type, c);
        const BrevantData d = decode(pkt);
        EXPECT_EQ(d.type, type);
        EXPECT_EQ(d.length, pkt.size());
        EXPECT_EQ(Bytes(d.raw, d.raw + pkt.size()), pkt);
        EXPECT_EQ(d.mask, type == 1 ? 0x1Du : 0x3Du);
        EXPECT_EQ(d.pid, 0xA5);
        EXPECT_EQ(d.status, c.status);
        EXPECT_EQ(d.word, 0xBEEF);
        EXPECT_EQ(d.tag, 0u);
        EXPECT_EQ(d.timeUs, 0u);
        const float gyro[3] = {-1.28f, sc(511, 0.0025), -0.0025f};
        const float accel[3] = {-0.2048f, sc(2047, 0.0001), sc(-3, 0.0001)};
        expect3(d.gyro, gyro, "gyro");
        expect3(d.accel, accel, "accel");
        for (int i = 0; i < 3; ++i) EXPECT_EQ(d.gyroRaw[i] | d.accelRaw[i], 0);
        // Axis 1 is stored one float higher than in mask-driven packets.
        const float triad[3] = {0, type == 2 ? -2.048f : 0, 0};
        expect3(d.triad, triad, "triad");
        EXPECT_EQ(d.triadAxis, type == 2 ? 1 : 0);
    }
    // Axis 3 lands in vec40[0]; axis 0 writes nothing.
    c.axis = 3;
    c.triad = 8191;
    BrevantData d = decode(encodeCompact(2, c));
    EXPECT_FLOAT_EQ(d.vec40[0], sc(8191, 0.00025));
    expect3(d.triad, kZero3, "triad");
    c.axis = 2;
    d = decode(encodeCompact(2, c));
    EXPECT_FLOAT_EQ(d.triad[2], sc(8191, 0.00025));
    c.axis = 0;
    d = decode(encodeCompact(2, c));
    EXPECT_EQ(d.triadAxis, 0);
    expect3(d.triad, kZero3, "triad");
    EXPECT_FLOAT_EQ(floatBeforeTriad(d), 0.0f);
    EXPECT_FLOAT_EQ(d.vec40[0], 0.0f);
}

TEST(ChipPacket, RefusedPacketsLeaveTheRecordUntouched) {
    BrevantData pattern;
    std::memset(&pattern, 0xAB, sizeof pattern);
    const auto refused = [&](Bytes pkt) {
        BrevantData d = pattern;
        EXPECT_FALSE(OrvosiUtil::ParseBrevantPacket(pkt.data(), &d));
        EXPECT_EQ(std::memcmp(&d, &pattern, sizeof d), 0);
    };
    for (const TypeRow& row : kTypes) {
        SCOPED_TRACE(int(row.type));
        Bytes pkt = row.mask ? encode(row, 7, Fields{}) : encodeCompact(row.type, Compact{});
        for (size_t at : {size_t{2}, pkt.size() / 2, pkt.size() - 1}) {
            Bytes flipped = pkt;
            flipped[at] ^= 0x10;
            refused(flipped);
        }
    }
    Bytes unknown(42, 0);
    unknown[0] = 5;
    for (unsigned char type : {0, 10, 23, 255}) {
        unknown[1] = type;
        unknown[41] = static_cast<unsigned char>(-(5 + type));
        refused(unknown);
    }
}

}  // namespace
