// Little-endian codec, checksum, the bounded cursors built on them, and the
// framing check.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "wire/OrvosiCursor.hpp"
#include "diag/OrvUtil.hpp"
#include "os/OrvosiUtil.hpp"
#include "wire/Framing.hpp"

using U = OrvosiUtil;
using Bytes = std::vector<unsigned char>;

TEST(Codec, DecodesWorkedExamplesAndTheOutParameterTwinsReportTheBytesConsumed) {
    // 01 02 03 04 as 16, 24 and 32 bits; a 64-bit word whose low half has its
    // top bit set (no sign extension into the high half); 1.0 as single and
    // as double; three singles.
    const unsigned char b[] = {1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0x80, 0x7F, 0, 0, 0};
    const unsigned char one32[] = {0x00, 0x00, 0x80, 0x3F}, one64[] = {0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    unsigned short s = 0;
    unsigned int i24 = 0, i32 = 0;
    unsigned long l = 0;
    float f = 0, xyz[3] = {};
    double d = 0;
    const std::vector<unsigned int> used = {
        U::word16(b, &s),      U::word24(b, &i24),    U::word32(b, &i32),  U::word64(b + 4, &l),
        U::float32(one32, &f), U::float64(one64, &d), U::float32v3(b, xyz)};
    EXPECT_EQ(used, (std::vector<unsigned int>{2, 3, 4, 8, 4, 8, 12}));
    EXPECT_EQ((std::vector<double>{double(s), double(i24), double(i32), double(l), f, d}),
              (std::vector<double>{513, 0x030201, 0x04030201, 0x7F80FFFFFF, 1, 1}));
    EXPECT_EQ((std::vector<float>(xyz, xyz + 3)),
              (std::vector<float>{U::float32(b), U::float32(b + 4), U::float32(b + 8)}));
}

TEST(Codec, EncodersKeepFloatBitsClearWidthsTruncateAndChecksumIsAPlainSum) {
    // NaNs with payload and sign, infinities, -0, denormals, and each low half
    // as a single: no float arithmetic may touch the bits in either direction.
    for (uint64_t bits : {0x7FF0000000000001ull, 0xFFF8000000ABCDEFull, 0xFFF0000000000000ull, 0x7F800001ull,
                          0xFFC12345ull, 0x7F800000ull, 0x80000000ull}) {
        unsigned char b8[8], b4[4];
        double d;
        float f;
        std::memcpy(&d, &bits, 8);
        std::memcpy(&f, &bits, 4);
        EXPECT_EQ(U::lendianFloat64(b8, d) + U::lendianFloat32(b4, f), 12u);
        EXPECT_EQ(U::word64(b8), bits);
        EXPECT_EQ(U::word32(b4), static_cast<uint32_t>(bits));
        d = U::float64(b8);
        f = U::float32(b4);
        EXPECT_EQ(std::memcmp(&d, &bits, 8) | std::memcmp(&f, &bits, 4), 0) << bits;
    }
    // lendian clears n bytes, writes at most eight and drops the high bytes.
    unsigned char buf[12];
    std::memset(buf, 0xAA, sizeof buf);
    EXPECT_EQ(U::lendian(buf, 0x0807060504030201ul, 10), 8u);
    EXPECT_EQ(Bytes(buf, buf + 11), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0xAA}));
    EXPECT_EQ(U::lendian(buf, 513, 2) + U::lendian(buf + 2, 513, 0), 2u);
    EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{1, 2, 3}));
    EXPECT_EQ(U::lendian(buf, 511, 1), 1u);
    EXPECT_EQ(buf[0], 0xFF);  // dropped, not saturated

    const Bytes pair = {0xFF, 0x01}, big(1000, 0x81);  // the long one wraps many times
    EXPECT_EQ(U::checksum(nullptr, 0) + U::checksum(pair.data(), 2), 0);
    EXPECT_EQ(U::checksum(big.data(), big.size()), static_cast<unsigned char>(1000 * 0x81));
    // Every length and alignment around the lanes and the words they fold
    // into, of bytes near 0xFF where a carry between fields would show.
    Bytes noise(300);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<unsigned char>(0xFF - (i * 37 % 11));
    for (size_t at = 0; at < 8; ++at)
        for (size_t n = 0; at + n <= noise.size(); ++n) {
            unsigned char plain = 0;
            for (size_t i = at; i < at + n; ++i) plain = static_cast<unsigned char>(plain + noise[i]);
            ASSERT_EQ(U::checksum(noise.data() + at, n), plain) << at << " " << n;
        }
}

TEST(Cursor, ReaderAndWriterStayInsideTheirBuffers) {
    // u8, u16, u24, u32 (-7), u64, f32 1.0, f64 1.0, and two singles -2 and -1.
    const Bytes bytes = {0x0A, 0xEF, 0xBE, 0x56, 0x34, 0x12, 0xF9, 0xFF, 0xFF, 0xFF, 0x88, 0x77, 0x66,
                         0x95, 0x44, 0x33, 0x22, 0x11, 0,    0,    0x80, 0x3F, 0,    0,    0,    0,
                         0,    0,    0xF0, 0x3F, 0,    0,    0,    0xC0, 0,    0,    0x80, 0xBF};
    OrvosiReader r(bytes.data(), bytes.size());
    const std::vector<unsigned long> ints = {r.u8(), r.u16(), r.u24(), r.u32(), r.u64()};
    EXPECT_EQ(ints, (std::vector<unsigned long>{0x0A, 0xBEEF, 0x123456, 0xFFFFFFF9, 0x1122334495667788ul}));
    float v[3] = {r.f32(), 0, 0};
    EXPECT_EQ(r.f64(), 1.0);
    r.f32s(v + 1, 2);
    EXPECT_EQ((std::vector<float>(v, v + 3)), (std::vector<float>{1, -2, -1}));
    EXPECT_TRUE(r.ok() && r.remaining() == 0);
    EXPECT_EQ(r.u8(), 0);  // one byte past the end
    EXPECT_FALSE(r.ok() || r.pos() != bytes.size());
    // A wide read that only partly fits yields 0 and does not move; a short
    // vector leaves its output zero.
    OrvosiReader part(bytes.data(), 3);
    EXPECT_EQ(part.u32(), 0u);
    EXPECT_FALSE(part.ok() || part.pos() != 0);
    part.f32s(v, 3);
    EXPECT_EQ((std::vector<float>(v, v + 3)), (std::vector<float>{0, 0, 0}));
    OrvosiReader t(bytes.data(), 10);
    EXPECT_TRUE(t.seek(10));  // the end itself is a valid position
    EXPECT_EQ(t.take(0), bytes.data() + 10);
    EXPECT_TRUE(t.seek(4));
    EXPECT_EQ(t.take(6), bytes.data() + 4);
    EXPECT_EQ(t.take(1), nullptr);
    EXPECT_FALSE(t.skip(1) || t.seek(11) || t.ok());
    OrvosiReader h(bytes.data(), 10);  // a huge count must not wrap around the bounds check
    EXPECT_TRUE(h.skip(2));
    EXPECT_FALSE(h.has(static_cast<size_t>(-1)));
    EXPECT_EQ(h.take(static_cast<size_t>(-1)), nullptr);

    // Guard bytes after the writer's capacity catch any write past it.
    unsigned char buf[12];
    std::memset(buf, 0xCC, sizeof buf);
    OrvosiWriter small(buf, 8), huge(buf, 8);
    small.u32(1);
    small.u24(2);
    small.u16(3);  // needs 2, only 1 left
    small.u8(4);   // a failed writer stays failed
    huge.u8(0);    // from one byte in, a huge count must not wrap around the capacity check
    huge.bytes(buf, static_cast<size_t>(-1));
    EXPECT_FALSE(small.ok() || small.pos() != 7 || huge.ok());
    EXPECT_EQ(Bytes(buf + 7, buf + 12), Bytes(5, 0xCC));

    // The input-data packet: start byte, length filled in last, payload, checksum.
    unsigned char pkt[5];
    OrvosiWriter p(pkt, sizeof pkt);
    p.u8(0x08);
    p.u16(0);
    p.u8(0x2A);
    p.patch16(1, 5);
    p.seal();
    EXPECT_EQ(Bytes(pkt, pkt + p.pos()), (Bytes{0x08, 0x05, 0x00, 0x2A, 0xC9}));
    p.patch16(4, 1);            // patching reaches only bytes already written
    OrvosiWriter full(pkt, 4);  // no room for the checksum: refused, not truncated
    full.u32(0x01020304);
    full.seal();
    EXPECT_FALSE(p.ok() || full.ok());
}

// The wire's framing check answers why, in the order start byte, size,
// checksum, and keeps no state: the thread's last-error text belongs to the
// library's wrapper, which sets it only on a failure.
TEST(Framing, AnswersTheFirstProblemAndLeavesTheLastErrorToItsWrapper) {
    const unsigned char good[] = {10, 5, 0, 0x01, 0xF0};  // 10 + 5 + 1 + 0xF0 = 0x100
    EXPECT_EQ(orvwire::framingProblem(good, 5, 10), nullptr);
    EXPECT_STREQ(orvwire::framingProblem(good, 5, 11), "Wrong start byte");
    EXPECT_STREQ(orvwire::framingProblem(good, 4, 10), "Invalid size");
    unsigned char bad[sizeof good];
    std::memcpy(bad, good, sizeof good);
    bad[3] ^= 1;
    EXPECT_STREQ(orvwire::framingProblem(bad, 5, 10), "Invalid checksum");
    // A wrong start byte is reported before a wrong size or sum.
    EXPECT_STREQ(orvwire::framingProblem(bad, 4, 11), "Wrong start byte");

    OrvUtil::setLastError("earlier");
    orvwire::framingProblem(bad, 5, 10);
    EXPECT_EQ(OrvUtil::getLastError(), "earlier");
    EXPECT_TRUE(OrvUtil::udpPktOk(good, 5, 10));
    EXPECT_EQ(OrvUtil::getLastError(), "earlier");
    EXPECT_FALSE(OrvUtil::udpPktOk(bad, 5, 10));
    EXPECT_EQ(OrvUtil::getLastError(), "Invalid checksum");
}
