// Hub data, hub error, PRA and NFT packets, built byte by byte and sent to an
// open object over UDP on 127.0.0.1: every field at its offset, the byte gap
// of hub data, the pairing of the PRA counts, the NFT room rule, and feature
// counts that claim more than the receive buffer holds.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "osi/OrvosiCursor.hpp"
#include "osi/OrvosiUtil.hpp"
#include "support/TestSupport.hpp"

namespace {

using orvtest::Bytes;
using Feat = OrvAccess::s_FeatData;
using Codes = std::vector<std::pair<unsigned short, unsigned int>>;
using Triple = std::array<float, 3>;

void putFloats(OrvosiWriter& w, const float* v, size_t n) {
    for (size_t i = 0; i < n; ++i) w.f32(v[i]);
}

void expectFloats(const float* got, const float* want, size_t n, const char* name) {
    for (size_t i = 0; i < n; ++i) EXPECT_EQ(got[i], want[i]) << name << "[" << i << "]";
}

// Body to navigation, Rz(yaw) * Ry(pitch) * Rx(roll), written out by hand.
void rotation(double roll, double pitch, double yaw, float m[3][3]) {
    const double cr = std::cos(roll), sr = std::sin(roll), cp = std::cos(pitch), sp = std::sin(pitch),
                 cy = std::cos(yaw), sy = std::sin(yaw);
    const double r[3][3] = {{cy * cp, cy * sp * sr - sy * cr, cy * sp * cr + sy * sr},
                            {sy * cp, sy * sp * sr + cy * cr, sy * sp * cr - cy * sr},
                            {-sp, cp * sr, cp * cr}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] = static_cast<float>(r[i][j]);
}

void expectAngles(const float* euler, double roll, double pitch, double yaw) {
    EXPECT_NEAR(euler[0], roll, 1e-5);
    EXPECT_NEAR(euler[1], pitch, 1e-5);
    EXPECT_NEAR(euler[2], yaw, 1e-5);
}

// ---- hub data -----------------------------------------------------------------

s_OrvAccessHubData distinctHub(uint32_t seed, double roll, double pitch, double yaw) {
    s_OrvAccessHubData h{};
    h.word = 0x01020304u + seed;
    h.halfWord = static_cast<uint16_t>(0xA1B2 + seed);
    h.status = static_cast<uint8_t>(0x5A + seed);
    h.words[0] = 0xCAFEBABEu - seed;
    h.words[1] = 0x0BADF00Du + seed;
    h.time = 0x1122334455667788ull + seed;
    rotation(roll, pitch, yaw, h.cbn);
    float next = 0.5f;
    for (float* v : h.vec)
        for (int i = 0; i < 3; ++i, next += 1.25f) v[i] = next;
    h.lastByte = static_cast<uint8_t>(0xC3 + seed);
    return h;
}

Bytes hubDataPacket(const s_OrvAccessHubData& h) {
    Bytes b(151);
    OrvosiWriter w(b.data(), b.size());
    w.u8(11);
    w.u16(b.size());
    w.u32(h.word);
    w.u8(0xEE);  // bytes 7 to 9 carry nothing for the record
    w.u8(0xEE);
    w.u8(0xEE);
    w.u8(h.status);
    w.u16(h.halfWord);
    w.u32(h.words[0]);
    w.u32(h.words[1]);
    EXPECT_EQ(w.pos(), 21u);
    w.u64(h.time);
    putFloats(w, &h.cbn[0][0], 9);
    EXPECT_EQ(w.pos(), 65u);
    for (const float* v : h.vec) putFloats(w, v, 3);
    w.u8(h.lastByte);
    EXPECT_EQ(w.pos(), 150u);
    w.seal();
    EXPECT_TRUE(w.ok());
    return b;
}

// ---- PRA ----------------------------------------------------------------------

struct Pra {
    uint32_t tag;
    uint8_t flag;
    uint8_t stats[3];
    float value0;
    float matrix[9];
    float a[3], b[3], c[3];
    float singles[3];
    uint16_t counts[60];
};

Pra distinctPra(uint32_t tag) {
    Pra p{};
    p.tag = tag;
    p.flag = 0x81;
    p.stats[0] = 11;
    p.stats[1] = 22;
    p.stats[2] = 233;
    p.value0 = -0.75f;
    float next = 1.5f;
    for (float& f : p.matrix) f = next++;
    for (float* v : {p.a, p.b, p.c, p.singles})
        for (int i = 0; i < 3; ++i) v[i] = next++;
    for (int i = 0; i < 60; ++i) p.counts[i] = static_cast<uint16_t>(0x0100 * i + 0x8001 + i);
    return p;
}

Bytes praPacket(const Pra& p) {
    Bytes b(220);
    OrvosiWriter w(b.data(), b.size());
    w.u8(15);
    w.u16(b.size());
    w.u32(p.tag);
    w.u8(p.flag);
    for (uint8_t s : p.stats) w.u8(s);
    w.f32(p.value0);
    EXPECT_EQ(w.pos(), 15u);
    putFloats(w, p.matrix, 9);
    putFloats(w, p.a, 3);
    putFloats(w, p.b, 3);
    putFloats(w, p.c, 3);
    EXPECT_EQ(w.pos(), 87u);
    putFloats(w, p.singles, 3);
    EXPECT_EQ(w.pos(), 99u);
    for (uint16_t c : p.counts) w.u16(c);
    EXPECT_EQ(w.pos(), 219u);
    w.seal();
    EXPECT_TRUE(w.ok());
    return b;
}

float wordAsFloat(uint32_t w) {
    float f;
    std::memcpy(&f, &w, sizeof f);
    return f;
}

// ---- NFT ----------------------------------------------------------------------

constexpr double kRoll = -0.3, kPitch = 0.25, kYaw = 2.0;

struct Nft {
    uint32_t tag;
    uint64_t time;
    float cbn[3][3];
    float triples[7][3];  // position, vecG, vecH, angularRate, vecJ, extB[0..2], extB[3..5]
    uint8_t byte;
    std::vector<Triple> features;
    float extD[3];
};

Nft distinctNft(uint32_t tag, size_t features) {
    Nft n{};
    n.tag = tag;
    n.time = 0x0A0B0C0D0E0F1011ull + tag;
    rotation(kRoll, kPitch, kYaw, n.cbn);
    float next = 0.125f;
    for (float* v : n.triples)
        for (int i = 0; i < 3; ++i, next += 0.5f) v[i] = next;
    n.byte = 0xB7;
    for (size_t i = 0; i < features; ++i)
        n.features.push_back({static_cast<float>(i) + 0.25f, -static_cast<float>(i), 1000.0f + i});
    n.extD[0] = 7.0f;
    n.extD[1] = -8.5f;
    n.extD[2] = 9.25f;
    return n;
}

// `count` replaces the feature count on the wire when given.
Bytes nftPacket(const Nft& n, long count = -1) {
    Bytes b(140 + 12 * n.features.size() + 12 + 1);
    OrvosiWriter w(b.data(), b.size());
    w.u8(14);
    w.u16(b.size());
    w.u32(n.tag);
    w.u64(n.time);
    putFloats(w, &n.cbn[0][0], 9);
    EXPECT_EQ(w.pos(), 51u);
    for (const float* v : n.triples) putFloats(w, v, 3);
    w.u8(n.byte);
    EXPECT_EQ(w.pos(), 136u);
    w.u32(count >= 0 ? static_cast<unsigned long>(count) : n.features.size());
    for (const Triple& f : n.features) putFloats(w, f.data(), 3);
    putFloats(w, n.extD, 3);
    w.seal();
    EXPECT_TRUE(w.ok());
    return b;
}

// The pose of an NFT packet is a tracking record with only its own fields
// set; with no prediction, boresight or tip offset it comes out as sent. From
// statusWord on the record has no padding, so that part compares as bytes.
void expectNftPose(const s_OrvAccessTrkDataExt& got, const Nft& n) {
    s_OrvAccessTrkDataExt want{};
    std::memcpy(want.cbn, n.cbn, sizeof want.cbn);
    float* to[] = {want.position, want.vecG, want.vecH,    want.angularRate,
                   want.vecJ,     want.extB, want.extB + 3};
    for (int i = 0; i < 7; ++i) std::memcpy(to[i], n.triples[i], 12);
    std::memcpy(want.extD, n.extD, 12);
    want.countA = n.byte;
    expectAngles(got.euler, kRoll, kPitch, kYaw);
    std::memcpy(want.euler, got.euler, sizeof want.euler);

    EXPECT_EQ(got.packetTag, n.tag);
    EXPECT_EQ(got.poseTime, n.time);
    EXPECT_EQ(got.platPoseTime, 0u);
    EXPECT_EQ(got.time2, 0u);
    constexpr size_t kFrom = offsetof(s_OrvAccessTrkDataExt, statusWord);
    const auto* g = reinterpret_cast<const unsigned char*>(&got);
    const auto* e = reinterpret_cast<const unsigned char*>(&want);
    const auto diff = std::mismatch(g + kFrom, g + sizeof got, e + kFrom);
    EXPECT_EQ(diff.first, g + sizeof got) << "first difference at record offset " << (diff.first - g);
}

// ---- fixture ------------------------------------------------------------------

class Packets : public testing::Test {
protected:
    void SetUp() override {
        for (int& p : port) p = orvtest::freePort();
        reopen("");
    }
    void TearDown() override { access.setVerbosity(0); }

    void reopen(const std::string& extra) {
        access.setIniPath(dir.write("orvaccess.ini", orvtest::receiverIni(port, extra)));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    void send(int which, const Bytes& b) { ASSERT_TRUE(sender.send(port[which], b)); }
    s_OrvAccessStatus status() {
        s_OrvAccessStatus st{};
        EXPECT_TRUE(access.getStatus(&st)) << access.getLastError();
        return st;
    }
    Codes errorCodes() {
        Codes out;
        s_OrvAccessErrorCode e{};
        while (access.getErrorCode(&e) != 0) out.emplace_back(e.code, e.value);
        return out;
    }
    std::vector<Feat> features() {
        std::vector<Feat> out;
        Feat f{};
        for (bool valid = true; access.getFeatureData(&valid, &f) && valid;) out.push_back(f);
        return out;
    }
    std::vector<s_OrvAccessTrkDataExt> poses() {
        std::vector<s_OrvAccessTrkDataExt> out;
        s_OrvAccessTrkDataExt t{};
        for (bool valid = true; access.getTrackingData(&valid, &t) && valid;) out.push_back(t);
        return out;
    }

    orvtest::TempDir dir;
    int port[5] = {};
    orvtest::UdpSender sender;
    OrvAccess access;
};

TEST_F(Packets, HubDataFieldsGapAndEulerAngles) {
    const s_OrvAccessHubData level = distinctHub(0, 0, 0, 0);
    const s_OrvAccessHubData turned = distinctHub(1, 0.4, -0.5, -2.5);
    send(orvtest::kHub, hubDataPacket(level));
    send(orvtest::kHub, hubDataPacket(turned));
    EXPECT_EQ(status().received, 0x20u);

    const s_OrvAccessHubData* sent[] = {&level, &turned};
    for (const s_OrvAccessHubData* want : sent) {
        s_OrvAccessHubData got{};
        bool valid = false;
        ASSERT_TRUE(access.getHubData(&valid, &got));
        ASSERT_TRUE(valid);
        EXPECT_EQ(got.word, want->word);
        EXPECT_EQ(got.halfWord, want->halfWord);
        EXPECT_EQ(got.status, want->status);
        EXPECT_EQ(got.words[0], want->words[0]);
        EXPECT_EQ(got.words[1], want->words[1]);
        EXPECT_EQ(got.time, want->time);
        for (int i = 0; i < 3; ++i) expectFloats(got.cbn[i], want->cbn[i], 3, "cbn");
        for (int i = 0; i < 7; ++i) expectFloats(got.vec[i], want->vec[i], 3, "vec");
        EXPECT_EQ(got.lastByte, want->lastByte);
        if (want == &level) {
            expectAngles(got.euler, 0, 0, 0);
        } else {
            expectAngles(got.euler, 0.4, -0.5, -2.5);
        }
    }
    s_OrvAccessHubData none{};
    bool valid = true;
    ASSERT_TRUE(access.getHubData(&valid, &none));
    EXPECT_FALSE(valid);
    EXPECT_TRUE(errorCodes().empty());
}

TEST_F(Packets, HubErrorsAreRelayedUncheckedWithTheirValue) {
    const auto hubError = [](uint32_t value, uint8_t code, bool sealed) {
        Bytes b(10);
        OrvosiWriter w(b.data(), b.size());
        w.u8(12);
        w.u16(b.size());
        w.u32(value);
        w.u8(0x77);  // byte 7 is not read
        w.u8(code);
        if (sealed) {
            w.seal();
        } else {
            w.u8(0x42);  // a checksum nobody checks
        }
        return b;
    };
    send(orvtest::kHub, hubError(0xDEADBEEF, 5, true));
    send(orvtest::kHub, hubError(17, 0, true));
    send(orvtest::kHub, hubError(123456, 8, false));
    const s_OrvAccessStatus st = status();
    EXPECT_EQ(st.received, 0u);  // hub error packets set no bit
    EXPECT_EQ(st.newError, 1u);
    EXPECT_EQ(errorCodes(), (Codes{{0x405, 0xDEADBEEF}, {0x408, 123456}}));
    EXPECT_EQ(access.getErrorMessage(0x405), "[ORVHUB] ERROR: Error setting serial port attributes");
}

TEST_F(Packets, PraRecordsPairTheirCountsAndKeepTheNewest) {
    const Pra p = distinctPra(0x31323334);
    send(orvtest::kCore, praPacket(p));
    EXPECT_EQ(status().received, 0x100u);

    s_OrvAccessPoseRecStats got{};
    bool valid = false;
    ASSERT_TRUE(access.getPoseRecoveryStats(&valid, &got));
    ASSERT_TRUE(valid);
    EXPECT_EQ(got.tag, p.tag);
    EXPECT_EQ(got.flagA, p.flag);
    EXPECT_EQ(got.stat0, p.stats[0]);
    EXPECT_EQ(got.stat1, p.stats[1]);
    EXPECT_EQ(got.stat2, p.stats[2]);
    EXPECT_EQ(got.stat3, 0u);
    EXPECT_EQ(got.value0, p.value0);
    EXPECT_EQ(got.flagB, 0u);
    EXPECT_EQ(got.value1, 0.0f);
    expectFloats(got.vec1, p.matrix, 3, "vec1");
    expectFloats(got.vec2, p.matrix + 3, 3, "vec2");
    expectFloats(got.vec3, p.matrix + 6, 3, "vec3");
    expectFloats(got.vec4, p.a, 3, "vec4");
    EXPECT_EQ(got.value2, 0.0f);
    EXPECT_EQ(got.value3, p.singles[0]);
    EXPECT_EQ(got.value4, p.singles[1]);
    EXPECT_EQ(got.value5, p.singles[2]);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(wordAsFloat(got.extra[i]), p.b[i]);
        EXPECT_EQ(wordAsFloat(got.extra[3 + i]), p.c[i]);
    }
    // Two counts to a word, the first of each pair in the low half.
    for (int k = 0; k < 30; ++k)
        EXPECT_EQ(got.extra[6 + k], p.counts[2 * k] | static_cast<uint32_t>(p.counts[2 * k + 1]) << 16) << k;

    // The queue shares targetQueueSize and names its overflow its own way.
    reopen("[Memory]\ntargetQueueSize = 2\n");
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    for (uint32_t tag = 1; tag <= 3; ++tag) send(orvtest::kCore, praPacket(distinctPra(tag)));
    status();
    const std::string text = out.text();
    EXPECT_NE(text.find("ORVAINFO: Pose Recovery data queue overflow\n"), std::string::npos) << text;
    for (uint32_t tag : {2u, 3u}) {
        ASSERT_TRUE(access.getPoseRecoveryStats(&valid, &got));
        ASSERT_TRUE(valid);
        EXPECT_EQ(got.tag, tag);
    }
    ASSERT_TRUE(access.getPoseRecoveryStats(&valid, &got));
    EXPECT_FALSE(valid);
}

TEST_F(Packets, NftPoseJoinsTheTrackingQueueAndFeaturesTheirOwn) {
    const Nft three = distinctNft(0x600D, 3);
    const Nft none = distinctNft(0x600E, 0);
    send(orvtest::kNft, nftPacket(three));
    EXPECT_EQ(status().received, 0x80u);

    s_OrvAccessTrkDataExt latest{};
    bool valid = false;
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &latest));
    ASSERT_TRUE(valid);
    expectNftPose(latest, three);
    std::vector<Feat> f = features();
    ASSERT_EQ(f.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(f[i].sequenceId, three.tag);
        EXPECT_EQ(f[i].index, i);
        EXPECT_EQ(f[i].valid, 1u);
        expectFloats(f[i].position, three.features[i].data(), 3, "feature");
    }

    // No features: one pose, nothing for the feature queue.
    send(orvtest::kNft, nftPacket(none));
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &latest));
    ASSERT_TRUE(valid);
    expectNftPose(latest, none);
    EXPECT_TRUE(features().empty());
    const std::vector<s_OrvAccessTrkDataExt> queued = poses();
    ASSERT_EQ(queued.size(), 2u);
    expectNftPose(queued[0], three);
    expectNftPose(queued[1], none);
    EXPECT_TRUE(errorCodes().empty());
}

TEST_F(Packets, NftRoomIsMadeForTheWholePacket) {
    reopen("[Memory]\ntargetQueueSize = 10\n");
    send(orvtest::kNft, nftPacket(distinctNft(1, 4)));
    EXPECT_EQ(status().received, 0x80u);
    // 5 + 4 + 1 reaches 10, 5 + 3 + 1 does not: one old feature goes, once.
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    send(orvtest::kNft, nftPacket(distinctNft(2, 5)));
    EXPECT_EQ(status().received, 0x80u);
    EXPECT_EQ(out.text(),
              "ORVAINFO: Received NFT packet, size 213\n"
              "ORVAINFO: Feature data queue overflow\n");
    const std::vector<Feat> f = features();
    ASSERT_EQ(f.size(), 8u);
    EXPECT_EQ(f[0].sequenceId, 1u);
    EXPECT_EQ(f[0].index, 1u);
    EXPECT_EQ(f[3].sequenceId, 2u);
    EXPECT_EQ(f[3].index, 0u);
    EXPECT_EQ(f[7].index, 4u);
}

// Features may be read past the packet's end, inside the receive buffer,
// never beyond it: the largest count that fits is read as sent, anything
// larger drops the whole packet. Run under the address sanitizer, a read
// outside the buffer fails the test.
TEST_F(Packets, OversizedFeatureCountsNeverLeaveTheBuffer) {
    const Nft n = distinctNft(0x51, 0);
    // 140 + 12 * 5448 + 12 = 65528 bytes fit in 65535; 5449 do not.
    constexpr long kMostThatFit = (65535 - 140 - 12) / 12;
    static_assert(kMostThatFit == 5448, "");
    access.setVerbosity(0x1);
    {
        orvtest::CapturedStderr err;
        send(orvtest::kNft, nftPacket(n, 0xFFFFFFFFl));
        send(orvtest::kNft, nftPacket(n, kMostThatFit + 1));
        status();
        EXPECT_EQ(err.text(),
                  "ORVALOG: Problem with NFT packet: Feature count beyond buffer\n"
                  "ORVALOG: Problem with NFT packet: Feature count beyond buffer\n");
    }
    EXPECT_EQ(errorCodes(), (Codes{{782, 0}, {782, 0}}));
    EXPECT_TRUE(features().empty());
    EXPECT_TRUE(poses().empty());

    send(orvtest::kNft, nftPacket(n, kMostThatFit));
    status();
    EXPECT_TRUE(errorCodes().empty());
    const std::vector<Feat> f = features();
    ASSERT_EQ(f.size(), static_cast<size_t>(kMostThatFit));
    EXPECT_EQ(f.back().index, static_cast<uint32_t>(kMostThatFit - 1));
    EXPECT_EQ(f.back().sequenceId, n.tag);
    const std::vector<s_OrvAccessTrkDataExt> p = poses();
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(p[0].packetTag, n.tag);
}

}  // namespace
