// Little-endian codec, checksum, and the bounded cursors built on them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "osi/OrvosiCursor.hpp"
#include "osi/OrvosiUtil.hpp"

using U = OrvosiUtil;

namespace {
uint32_t bitsOf(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}
uint64_t bitsOf(double d) {
    uint64_t b;
    std::memcpy(&b, &d, 8);
    return b;
}
}  // namespace

TEST(Codec, DecodesWorkedExamplesWithBothOverloads) {
    const unsigned char b[] = {1, 2, 3, 4, 5, 6, 7, 8};
    unsigned short s = 0;
    unsigned int i = 0;
    unsigned long l = 0;

    EXPECT_EQ(U::word16(b), 513);
    EXPECT_EQ(U::word16(b, &s), 2u);
    EXPECT_EQ(s, 513);
    EXPECT_EQ(U::word24(b), 0x030201u);
    EXPECT_EQ(U::word24(b, &i), 3u);
    EXPECT_EQ(i, 0x030201u);
    EXPECT_EQ(U::word32(b), 0x04030201u);
    EXPECT_EQ(U::word32(b, &i), 4u);
    EXPECT_EQ(i, 0x04030201u);
    EXPECT_EQ(U::word64(b), 0x0807060504030201ul);

    const unsigned char w64[] = {1, 0, 0, 0, 2, 0, 0, 0};
    EXPECT_EQ(U::word64(w64), 2ul * (1ul << 32) + 1);
    EXPECT_EQ(U::word64(w64, &l), 8u);
    EXPECT_EQ(l, 2ul * (1ul << 32) + 1);

    // High bits set everywhere: no sign extension sneaks in.
    const unsigned char ff[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(U::word16(ff), 0xFFFF);
    EXPECT_EQ(U::word24(ff), 0xFFFFFFu);
    EXPECT_EQ(U::word32(ff), 0xFFFFFFFFu);
    EXPECT_EQ(U::word64(ff), ~0ul);

    float f = 0;
    double d = 0;
    const unsigned char one32[] = {0x00, 0x00, 0x80, 0x3F};
    const unsigned char one64[] = {0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    EXPECT_EQ(U::float32(one32), 1.0f);
    EXPECT_EQ(U::float32(one32, &f), 4u);
    EXPECT_EQ(f, 1.0f);
    EXPECT_EQ(U::float64(one64), 1.0);
    EXPECT_EQ(U::float64(one64, &d), 8u);
    EXPECT_EQ(d, 1.0);

    unsigned char v3[12];
    U::lendianFloat32(v3, 1.5f);
    U::lendianFloat32(v3 + 4, -2.0f);
    U::lendianFloat32(v3 + 8, 0.25f);
    float xyz[3] = {};
    EXPECT_EQ(U::float32v3(v3, xyz), 12u);
    EXPECT_EQ(xyz[0], 1.5f);
    EXPECT_EQ(xyz[1], -2.0f);
    EXPECT_EQ(xyz[2], 0.25f);
}

TEST(Codec, NanAndInfinityBitsPassUnchanged) {
    // A signalling NaN with payload, quiet NaN with sign, infinities: the bits
    // must survive both directions untouched (no float arithmetic on the way).
    for (uint32_t bits : {0x7F800001u, 0xFFC12345u, 0x7F800000u, 0xFF800000u, 0x80000000u, 0x00000001u}) {
        unsigned char buf[4];
        float in;
        std::memcpy(&in, &bits, 4);
        EXPECT_EQ(U::lendianFloat32(buf, in), 4u);
        EXPECT_EQ(U::word32(buf), bits);
        EXPECT_EQ(bitsOf(U::float32(buf)), bits);
    }
    for (uint64_t bits : {0x7FF0000000000001ull, 0xFFF8000000ABCDEFull, 0x7FF0000000000000ull,
                          0xFFF0000000000000ull, 0x8000000000000000ull}) {
        unsigned char buf[8];
        double in;
        std::memcpy(&in, &bits, 8);
        EXPECT_EQ(U::lendianFloat64(buf, in), 8u);
        EXPECT_EQ(U::word64(buf), bits);
        EXPECT_EQ(bitsOf(U::float64(buf)), bits);
    }
    const unsigned char inf32[] = {0x00, 0x00, 0x80, 0x7F};
    EXPECT_TRUE(std::isinf(U::float32(inf32)));
}

TEST(Codec, LendianWritesWidthsAndReportsFilledBytes) {
    unsigned char buf[12];
    std::memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(U::lendian(buf, 513, 2), 2u);
    EXPECT_EQ(buf[0], 0x01);
    EXPECT_EQ(buf[1], 0x02);
    EXPECT_EQ(buf[2], 0xAA);

    std::memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(U::lendian(buf, 513, 0), 0u);
    EXPECT_EQ(buf[0], 0xAA);

    std::memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(U::lendian(buf, 0x0807060504030201ul, 10), 8u);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(buf[i], i + 1);
    EXPECT_EQ(buf[8], 0);
    EXPECT_EQ(buf[9], 0);
    EXPECT_EQ(buf[10], 0xAA);

    EXPECT_EQ(U::lendian(buf, 511, 1), 1u);
    EXPECT_EQ(buf[0], 0xFF);  // dropped, not saturated

    // Negative fields travel as their two's-complement pattern.
    EXPECT_EQ(U::lendian(buf, static_cast<unsigned long>(-2), 3), 3u);
    EXPECT_EQ(U::word24(buf), 0xFFFFFEu);
    EXPECT_EQ(U::lendian(buf, static_cast<unsigned long>(static_cast<short>(-300)), 2), 2u);
    EXPECT_EQ(static_cast<short>(U::word16(buf)), -300);
    EXPECT_EQ(U::lendian(buf, static_cast<unsigned long>(static_cast<int>(-123456789)), 4), 4u);
    EXPECT_EQ(static_cast<int>(U::word32(buf)), -123456789);
    EXPECT_EQ(U::lendian(buf, static_cast<unsigned long>(-9876543210l), 8), 8u);
    EXPECT_EQ(static_cast<long>(U::word64(buf)), -9876543210l);

    EXPECT_EQ(U::lendianFloat64(buf, -3.141592653589793), 8u);
    EXPECT_EQ(U::float64(buf), -3.141592653589793);
    EXPECT_EQ(U::lendianFloat32(buf, std::numeric_limits<float>::lowest()), 4u);
    EXPECT_EQ(U::float32(buf), std::numeric_limits<float>::lowest());
}

TEST(Codec, ChecksumIsPlainByteSum) {
    const unsigned char pair[] = {0xFF, 0x01};
    EXPECT_EQ(U::checksum(pair, 0), 0);
    EXPECT_EQ(U::checksum(nullptr, 0), 0);
    EXPECT_EQ(U::checksum(pair, 2), 0);
    EXPECT_EQ(U::checksum(pair, 1), 0xFF);

    unsigned char input[] = {0x08, 0x05, 0x00, 0x2A, 0x00};
    input[4] = static_cast<unsigned char>(-U::checksum(input, 4));
    EXPECT_EQ(input[4], 0xC9);
    EXPECT_EQ(U::checksum(input, sizeof input), 0);

    // A long buffer wraps many times.
    std::vector<unsigned char> big(1000, 0x81);
    EXPECT_EQ(U::checksum(big.data(), big.size()), static_cast<unsigned char>(1000 * 0x81));
}

TEST(Cursor, ReaderDecodesAndStaysInsideItsBuffer) {
    unsigned char buf[64];
    OrvosiWriter w(buf, sizeof buf);
    w.u8(0x0A);
    w.u16(0xBEEF);
    w.u24(0x123456);
    w.u32(static_cast<unsigned int>(-7));
    w.u64(0x1122334455667788ul);
    w.f32(-0.5f);
    w.f64(6.25);
    const float v[3] = {1.0f, 2.0f, 3.0f};
    for (float x : v) w.f32(x);
    ASSERT_TRUE(w.ok());
    ASSERT_EQ(w.pos(), 1u + 2 + 3 + 4 + 8 + 4 + 8 + 12);

    // Reading from a copy of exactly the written size: one more byte is out.
    std::vector<unsigned char> exact(buf, buf + w.pos());
    OrvosiReader r(exact.data(), exact.size());
    EXPECT_EQ(r.u8(), 0x0A);
    EXPECT_EQ(r.u16(), 0xBEEF);
    EXPECT_EQ(r.u24(), 0x123456u);
    EXPECT_EQ(static_cast<int>(r.u32()), -7);
    EXPECT_EQ(r.u64(), 0x1122334455667788ul);
    EXPECT_EQ(r.f32(), -0.5f);
    EXPECT_EQ(r.f64(), 6.25);
    float out[3] = {};
    r.f32s(out, 3);
    EXPECT_EQ(out[2], 3.0f);
    EXPECT_TRUE(r.ok());
    EXPECT_EQ(r.remaining(), 0u);

    EXPECT_EQ(r.u8(), 0);
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.pos(), exact.size());

    // A wide read that only partly fits yields 0 and does not move.
    OrvosiReader part(exact.data(), 3);
    EXPECT_EQ(part.u32(), 0u);
    EXPECT_FALSE(part.ok());
    EXPECT_EQ(part.pos(), 0u);
    float zero[3] = {9, 9, 9};
    OrvosiReader shortVec(exact.data(), 11);
    shortVec.f32s(zero, 3);
    EXPECT_FALSE(shortVec.ok());
    EXPECT_EQ(zero[0], 0.0f);
    EXPECT_EQ(zero[2], 0.0f);

    OrvosiReader s(exact.data(), 10);
    EXPECT_TRUE(s.seek(10));  // the end itself is a valid position
    EXPECT_TRUE(s.ok());
    EXPECT_EQ(s.take(0), exact.data() + 10);
    EXPECT_FALSE(s.seek(11));
    EXPECT_FALSE(s.ok());
    OrvosiReader t(exact.data(), 10);
    EXPECT_TRUE(t.skip(4));
    EXPECT_EQ(t.take(6), exact.data() + 4);
    EXPECT_EQ(t.take(1), nullptr);
    EXPECT_FALSE(t.skip(1));
    // A huge count must not wrap around the bounds check.
    OrvosiReader h(exact.data(), 10);
    EXPECT_TRUE(h.skip(2));
    EXPECT_EQ(h.take(static_cast<size_t>(-1)), nullptr);
    EXPECT_FALSE(h.has(static_cast<size_t>(-1)));
}

TEST(Cursor, WriterRespectsCapacitySealsAndPatches) {
    // Guard bytes after the capacity catch any write past it.
    unsigned char buf[8 + 4];
    std::memset(buf, 0xCC, sizeof buf);
    OrvosiWriter w(buf, 8);
    w.u32(1);
    w.u24(2);
    EXPECT_TRUE(w.ok());
    w.u16(3);  // needs 2, only 1 left
    EXPECT_FALSE(w.ok());
    w.u8(4);  // a failed writer stays failed
    EXPECT_EQ(w.pos(), 7u);
    for (size_t i = 7; i < sizeof buf; ++i) EXPECT_EQ(buf[i], 0xCC) << "byte " << i;

    OrvosiWriter big(buf, 8);
    big.bytes(buf, static_cast<size_t>(-1));
    big.zeros(9);
    EXPECT_FALSE(big.ok());
    EXPECT_EQ(buf[8], 0xCC);

    // The input-data packet: start byte, length filled in last, payload, checksum.
    unsigned char pkt[5];
    OrvosiWriter p(pkt, sizeof pkt);
    p.u8(0x08);
    p.u16(0);
    p.u8(0x2A);
    p.patch16(1, 5);
    p.seal();
    ASSERT_TRUE(p.ok());
    ASSERT_EQ(p.pos(), 5u);
    const unsigned char expected[] = {0x08, 0x05, 0x00, 0x2A, 0xC9};
    EXPECT_EQ(std::memcmp(pkt, expected, 5), 0);
    EXPECT_EQ(U::checksum(pkt, 5), 0);

    // No room for the checksum byte: the packet is refused, not truncated.
    OrvosiWriter full(pkt, 4);
    full.u32(0x01020304);
    full.seal();
    EXPECT_FALSE(full.ok());

    // Patching is only allowed over bytes already written.
    OrvosiWriter q(pkt, sizeof pkt);
    q.u16(0);
    q.patch16(0, 0x1234);
    EXPECT_TRUE(q.ok());
    EXPECT_EQ(U::word16(pkt), 0x1234);
    q.patch16(1, 1);
    EXPECT_FALSE(q.ok());
}
