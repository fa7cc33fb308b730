// Inertial chip packets built here from chosen values, field by field as the
// chip lays them out, together with the record each must decode to.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "wire/BrevantData.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

// Type, length, mask (0 for the compact types).
const unsigned kTypes[][3] = {{1, 15, 0},    {2, 17, 0},       {3, 19, 0x1D},    {4, 21, 0x3D},
                              {5, 13, 0x45}, {6, 15, 0x85},    {7, 25, 0x105},   {8, 27, 0x7D},
                              {9, 29, 0xBD}, {20, 32, 0x783F}, {21, 38, 0xF83F}, {22, 42, 0x1F81F}};

float sc(int v, double factor) { return static_cast<float>(v * factor); }

// Writes a float `index` floats after triad[0]: index -1 lies over triadAxis
// (whose low byte then shows it), index 3 is vec40[0].
void storeAt(BrevantData& d, int index, float v) {
    std::memcpy(reinterpret_cast<unsigned char*>(&d) + offsetof(BrevantData, triad) + 4 * index, &v, 4);
}

// Every field but timeUs as bytes, the padding left out.
std::string fields(const BrevantData& d) {
    std::string s;
    const auto add = [&](const auto& m) { s.append(reinterpret_cast<const char*>(&m), sizeof m); };
    add(d.pid), add(d.tag), add(d.type), add(d.mask), add(d.length), add(d.raw), add(d.status);
    add(d.status2), add(d.word), add(d.gyro), add(d.accel), add(d.gyroRaw), add(d.accelRaw);
    add(d.triadAxis), add(d.triad), add(d.vec40), add(d.vec80), add(d.vec100), add(d.vec200);
    add(d.vec400), add(d.scalar800), add(d.scalar1000), add(d.hi2000), add(d.lo2000), add(d.byte2000);
    add(d.byte4000), add(d.value8000a), add(d.value8000b);
    return s;
}

// A packet and the record it must decode to.
struct Case {
    std::vector<unsigned char> pkt = std::vector<unsigned char>(64);
    BrevantData want{};

    // Cuts the packet to `length`, closes it with its checksum, copies it to raw.
    Case& finish(size_t length) {
        pkt.resize(length);
        pkt.back() = static_cast<unsigned char>(-OrvosiUtil::checksum(pkt.data(), length - 1));
        want.length = static_cast<uint8_t>(length);
        std::memcpy(want.raw, pkt.data(), length);
        return *this;
    }
};

// Every 16-bit field takes the next of distinct negative values; the 0x800
// word is 0xFFFF (unsigned) and the 24-bit value has its top bit set.
Case maskDriven(const unsigned* row, unsigned char status) {
    Case c;
    BrevantData& d = c.want;
    OrvosiWriter w(c.pkt.data(), c.pkt.size());
    int next = -32768;
    const auto vec = [&](float* out, int n, double f, uint16_t* raw = nullptr) {
        for (int i = 0; i < n; ++i, next += 1237) {
            w.u16(static_cast<uint16_t>(next));
            out[i] = sc(next, f);
            if (raw) raw[i] = static_cast<uint16_t>(next);
        }
    };
    const unsigned m = d.mask = row[2];
    w.u8(5), w.u8(d.type = static_cast<uint8_t>(row[0])), w.u8(d.pid = 0xC3);
    if (m & 0x1) w.u8(d.status = status);
    if (m & 0x2) w.u8(d.status2 = 0xA1);
    if (m & 0x4) w.u16(d.word = 0xBEEF);
    if (m & 0x8) vec(d.gyro, 3, 3.90625e-5, d.gyroRaw);
    if (m & 0x10) vec(d.accel, 3, 6.25e-6, d.accelRaw);
    float t;  // axis 0 lands over triadAxis
    if (m & 0x20) vec(&t, 1, 0.00025), storeAt(d, (d.triadAxis = status & 3) - 1, t);
    if (m & 0x40) vec(d.vec40, 3, 0.0001);
    if (m & 0x80) vec(d.vec80, 4, 1.0 / 32768);
    if (m & 0x100) vec(d.vec100, 3, 1.0 / 32768);
    if (m & 0x200) vec(d.vec200, 3, 1.0 / 32768);
    if (m & 0x400) vec(d.vec400, 3, 1.0 / 32768);
    if (m & 0x800) w.u16(0xFFFF), d.scalar800 = sc(65535, 0.0014648);
    if (m & 0x1000) vec(&d.scalar1000, 1, 0.05);
    if (m & 0x2000) w.u8(0xB7), w.u8(d.byte2000 = 0x42), w.u24(0xEEEEEE), d.hi2000 = 5, d.lo2000 = 0x17;
    if (m & 0x4000) w.u8(d.byte4000 = 0x99);
    // Single precision, in this order.
    if (m & 0x8000)
        w.u24(0x893AE9), d.value8000a = 0x893AE9 * 2.4414e-5f * 1000.0f, vec(&d.value8000b, 1, 0.0020833);
    if (m & 0x10000) vec(d.triad, 3, 0.00025);
    EXPECT_TRUE(w.ok() && w.pos() < row[1]) << "fields overrun the packet";
    return c.finish(row[1]);
}

// Compact packets pack pid, status and word into the spare bits of 10-bit
// gyro and 12-bit accelerometer words; type 2 adds a 14-bit value and its axis.
Case compact(unsigned char type, unsigned char status, int axis) {
    const int raw[6] = {-512, 511, -1, -2048, 2047, -3}, triad = -8192;  // 10-bit gyro, 12-bit accel
    const unsigned nibble[6] = {0xA, 0x5, 0xB, 0xE, 0xE, 0xF};           // pid, then word
    Case c;
    BrevantData& d = c.want;
    unsigned char* b = c.pkt.data();
    b[0] = 5;
    d.type = b[1] = type;
    d.pid = 0xA5;
    d.status = status & 0xFC;  // bits 0 and 1 do not travel
    d.word = 0xBEEF;
    d.mask = type == 1 ? 0x1D : 0x3D;
    for (int i = 0; i < 6; ++i) {
        const unsigned bits = i < 3 ? (raw[i] & 0x3FF) | ((status >> (6 - 2 * i)) & 3) << 10 : raw[i] & 0xFFF;
        OrvosiUtil::lendian(b + 2 + 2 * i, bits | nibble[i] << 12, 2);
        (i < 3 ? d.gyro[i] : d.accel[i - 3]) = sc(raw[i], i < 3 ? 0.0025 : 0.0001);
    }
    if (type == 2) {
        OrvosiUtil::lendian(b + 14, (triad & 0x3FFF) | (axis << 14), 2);
        d.triadAxis = static_cast<uint8_t>(axis);
        // One float higher than in mask-driven packets; axis 0 writes nothing.
        if (axis > 0) storeAt(d, axis, sc(triad, 0.00025));
    }
    return c.finish(type == 1 ? 15 : 17);
}

TEST(ChipPacket, EveryTypeDecodesToItsRecordAndAnyChangedByteIsRefused) {
    BrevantData pattern;
    std::memset(&pattern, 0xAB, sizeof pattern);
    const auto refused = [&](std::vector<unsigned char> pkt) {
        BrevantData d = pattern;
        EXPECT_FALSE(OrvosiUtil::ParseBrevantPacket(pkt.data(), &d));
        EXPECT_EQ(std::memcmp(&d, &pattern, sizeof d), 0);
    };
    for (const unsigned* row : kTypes) {
        // Each triad axis, with two status patterns for the compact packets.
        for (int axis = 0; axis < 4; ++axis) {
            SCOPED_TRACE(testing::Message() << "type " << row[0] << " axis " << axis);
            Case c = row[2] ? maskDriven(row, static_cast<unsigned char>(0x5C | axis))
                            : compact(static_cast<unsigned char>(row[0]), axis % 2 ? 0x30 : 0xFC, axis);
            BrevantData d = pattern;
            const uint64_t before = OrvosiUtil::getTimeSysUs();
            EXPECT_TRUE(OrvosiUtil::ParseBrevantPacket(c.pkt.data(), &d));
            EXPECT_EQ(fields(d), fields(c.want));
            // Compact packets carry no host time.
            EXPECT_TRUE(row[2] ? d.timeUs >= before && d.timeUs <= OrvosiUtil::getTimeSysUs()
                               : d.timeUs == 0);
            for (size_t at : {size_t{2}, c.pkt.size() - 1}) {
                c.pkt[at] ^= 0x10;
                refused(c.pkt);
                c.pkt[at] ^= 0x10;
            }
        }
    }
    std::vector<unsigned char> unknown(42, 0);
    unknown[0] = 5;
    for (unsigned char type : {0, 10, 19, 23, 255}) {
        unknown[1] = type;
        unknown[41] = static_cast<unsigned char>(-(5 + type));
        refused(unknown);
        EXPECT_EQ(OrvosiUtil::GetBvPacketLength(type) | OrvosiUtil::GetPacketMask(type), 0u);
    }
    // The chosen 24-bit value tells this single-precision order from others.
    const float value = maskDriven(kTypes[11], 0).want.value8000a;
    EXPECT_NE(value, static_cast<float>(0x893AE9 * 2.4414e-5 * 1000.0));
    EXPECT_NE(value, 0x893AE9 * (2.4414e-5f * 1000.0f));
}

}  // namespace
