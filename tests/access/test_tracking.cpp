// Tracking packets and their optical subpackets, built byte by byte and sent
// to an open object over UDP on 127.0.0.1: every field at its offset, the
// error-code bytes, queue bounds and room rules, overruns and bad framing,
// counts that claim more than may be read, and a burst of ten thousand
// packets parsed without a single allocation.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "osi/OrvosiCursor.hpp"
#include "osi/OrvosiUtil.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"
#include "util/OrvUtil.hpp"

namespace {

using orvtest::Bytes;
using TgtRes = OrvAccess::s_TgtResData;
using Stats = s_OrvAccessPoseRecStats;
using Codes = std::vector<std::pair<unsigned short, unsigned int>>;

void putFloats(OrvosiWriter& w, const float* v, size_t n) {
    for (size_t i = 0; i < n; ++i) w.f32(v[i]);
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

constexpr double kRoll = 0.1, kPitch = -0.2, kYaw = 0.3;

// Every wire field holds a value no other field holds; cbn is a rotation
// with known Euler angles.
s_OrvAccessTrkDataExt distinctTracking(uint32_t seed) {
    s_OrvAccessTrkDataExt t{};
    t.packetTag = 1000 + seed;
    t.poseTime = 0x0102030405060708ull + seed;
    t.platPoseTime = 0xA0B0C0D0u + seed;
    t.time2 = 0x1112131415161718ull + seed;
    t.statusWord = 0x55AA00FFu ^ seed;
    t.countA = static_cast<uint16_t>(0x1234 + seed);
    t.countB = static_cast<uint16_t>(0xFEDC - seed);
    float next = 0.25f + static_cast<float>(seed);
    for (float* v : {t.vecA, t.vecB, t.vecC,        t.vecD,        t.vecE,        t.vecF,       t.position,
                     t.vecG, t.vecH, t.angularRate, t.vecI,        t.vecJ,        t.vecK,       t.vecL,
                     t.vecM, t.vecN, t.vecO,        &t.cbn2[0][0], &t.cbn2[1][0], &t.cbn2[2][0]})
        for (int i = 0; i < 3; ++i, next += 0.5f) v[i] = next;
    t.scalarA = -1.5f;
    t.scalarB = 2.75f;
    rotation(kRoll, kPitch, kYaw, t.cbn);
    return t;
}

// The wire layout, with the offsets of the packet table checked on the way.
Bytes trackingPacket(const s_OrvAccessTrkDataExt& t, const Bytes& optical = {}) {
    Bytes b(332 + optical.size());
    OrvosiWriter w(b.data(), b.size());
    w.u8(10);
    w.u16(b.size());
    w.u32(t.packetTag);
    w.u64(t.poseTime);
    w.u32(t.platPoseTime);
    w.u32(t.statusWord);
    for (const float* v : {t.vecA, t.vecB, t.vecC, t.vecD, t.vecE, t.vecF}) putFloats(w, v, 3);
    EXPECT_EQ(w.pos(), 95u);
    w.u16(t.countA);
    w.u16(t.countB);
    putFloats(w, &t.cbn[0][0], 9);
    for (const float* v : {t.position, t.vecG, t.vecH, t.angularRate, t.vecI}) putFloats(w, v, 3);
    putFloats(w, &t.cbn2[0][0], 9);
    EXPECT_EQ(w.pos(), 231u);
    putFloats(w, t.vecJ, 3);
    putFloats(w, t.vecK, 3);
    w.u64(t.time2);
    putFloats(w, t.vecL, 3);
    putFloats(w, t.vecM, 3);
    w.f32(t.scalarA);
    w.f32(t.scalarB);
    w.bytes(t.errorCodes, 4);
    putFloats(w, t.vecN, 3);
    putFloats(w, t.vecO, 3);
    EXPECT_EQ(w.pos(), 323u);
    w.u64(0xDEADBEEFCAFEF00Dull);  // reserved: must land nowhere
    if (!optical.empty()) w.bytes(optical.data(), optical.size());
    w.seal();
    EXPECT_TRUE(w.ok());
    return b;
}

// Every field as sent; the export adds the Euler angles of cbn and, with no
// prediction, boresight or tip offset, changes nothing else. From statusWord
// on the record has no padding, so that part compares as bytes.
void expectTracking(const s_OrvAccessTrkDataExt& got, s_OrvAccessTrkDataExt want) {
    EXPECT_NEAR(got.euler[0], kRoll, 1e-5);
    EXPECT_NEAR(got.euler[1], kPitch, 1e-5);
    EXPECT_NEAR(got.euler[2], kYaw, 1e-5);
    std::memcpy(want.euler, got.euler, sizeof want.euler);
    EXPECT_EQ(got.packetTag, want.packetTag);
    EXPECT_EQ(got.poseTime, want.poseTime);
    EXPECT_EQ(got.platPoseTime, want.platPoseTime);
    EXPECT_EQ(got.time2, want.time2);
    constexpr size_t kFrom = offsetof(s_OrvAccessTrkDataExt, statusWord);
    const auto* g = reinterpret_cast<const unsigned char*>(&got);
    const auto* e = reinterpret_cast<const unsigned char*>(&want);
    const auto diff = std::mismatch(g + kFrom, g + sizeof got, e + kFrom);
    EXPECT_EQ(diff.first, g + sizeof got) << "first difference at record offset " << (diff.first - g);
}

struct Target {
    uint16_t id;
    float resid[5];
};

Target target(uint16_t id) { return {id, {id * 10.0f, id * 10.0f + 1, -2.5f, 0.125f * id, 1e6f + id}}; }

// Statistics as the record should hold them; on the wire the flags are sent
// as the bytes 7 and 0.
Stats expectedStats(uint32_t tag) {
    Stats s{};
    s.tag = tag;
    s.stat0 = 1;
    s.stat1 = 2;
    s.stat2 = 250;
    s.stat3 = 4;
    s.value0 = 0.125f;
    s.flagA = 1;
    s.value1 = -3.5f;
    float next = 100.0f;
    for (float* v : {s.vec1, s.vec2, s.vec3, s.vec4})
        for (int i = 0; i < 3; ++i) v[i] = next++;
    s.value2 = 7.25f;
    s.value3 = 8.5f;
    s.value4 = 9.75f;
    s.value5 = -10.0f;
    return s;
}

Bytes opticalSubpacket(uint32_t tag, const std::vector<Target>& targets, bool withStats = false) {
    Bytes b(10 + 22 * targets.size() + (withStats ? 78 : 0) + 1);
    OrvosiWriter w(b.data(), b.size());
    w.u8(16);
    w.u16(b.size());
    w.u32(tag);
    w.u8(static_cast<unsigned char>(targets.size()));
    w.u16(0xBEEF);  // not read
    for (const Target& t : targets) {
        w.u16(t.id);
        putFloats(w, t.resid, 5);
    }
    if (withStats) {
        const Stats s = expectedStats(tag);
        for (uint32_t v : {s.stat0, s.stat1, s.stat2, s.stat3}) w.u8(static_cast<unsigned char>(v));
        w.f32(s.value0);
        w.u8(7);
        w.u8(0);
        w.f32(s.value1);
        for (const float* v : {s.vec1, s.vec2, s.vec3, s.vec4}) putFloats(w, v, 3);
        for (float v : {s.value2, s.value3, s.value4, s.value5}) w.f32(v);
    }
    w.seal();
    EXPECT_TRUE(w.ok());
    return b;
}

// New length word and checksum for `length` bytes; the checksum overwrites
// whatever lay in the last byte.
void reseal(Bytes& sub, size_t length) {
    sub.resize(length);
    OrvosiUtil::lendian(&sub[1], length, 2);
    sub[length - 1] = 0;
    sub[length - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(sub.data(), length));
}

void expectResidual(const TgtRes& got, uint32_t tag, uint32_t index, uint32_t id, const float* resid) {
    EXPECT_EQ(got.tag, tag);
    EXPECT_EQ(got.index, index);
    EXPECT_EQ(got.id, id);
    EXPECT_EQ(std::memcmp(got.resid, resid, sizeof got.resid), 0) << "residuals of index " << index;
}

class Tracking : public testing::Test {
protected:
    void SetUp() override {
        for (int& p : port) p = orvtest::freePort();
        reopen("");
    }
    void TearDown() override {
        access.setVerbosity(0);
        access.setLogging(0, "./");
    }
    // Opens the object again with `extra` appended to the configuration.
    void reopen(const std::string& extra) {
        access.setIniPath(dir.write("orvaccess.ini", orvtest::receiverIni(port, extra)));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    void send(const Bytes& b) { ASSERT_TRUE(sender.send(port[orvtest::kCore], b)); }
    uint32_t received() {
        s_OrvAccessStatus st{};
        EXPECT_TRUE(access.getStatus(&st)) << access.getLastError();
        return st.received;
    }
    // Drains a queue through its getter.
    template <typename T, typename Getter>
    std::vector<T> drain(Getter get) {
        std::vector<T> out;
        T r{};
        for (bool valid = true; (access.*get)(&valid, &r) && valid;) out.push_back(r);
        return out;
    }
    std::vector<TgtRes> residuals() { return drain<TgtRes>(&OrvAccess::getTargetResData); }
    std::vector<Stats> stats() { return drain<Stats>(&OrvAccess::getPoseRecoveryStats); }
    std::vector<uint32_t> trackingTags() {
        std::vector<uint32_t> tags;
        for (const auto& t : drain<s_OrvAccessTrkDataExt>(&OrvAccess::getTrackingData))
            tags.push_back(t.packetTag);
        return tags;
    }
    Codes errorCodes() {
        Codes out;
        s_OrvAccessErrorCode e{};
        while (access.getErrorCode(&e) != 0) out.emplace_back(e.code, e.value);
        return out;
    }

    orvtest::TempDir dir;
    int port[5] = {};
    orvtest::UdpSender sender;
    OrvAccess access;
};

TEST_F(Tracking, EveryFieldArrivesAndErrorBytesBecomeCodes) {
    s_OrvAccessTrkDataExt sent = distinctTracking(7);
    const unsigned char codes[4] = {0, 5, 0, 7};
    std::memcpy(sent.errorCodes, codes, 4);
    send(trackingPacket(sent));
    EXPECT_EQ(received(), 0x10u);
    EXPECT_EQ(errorCodes(), (Codes{{5, sent.packetTag}, {7, sent.packetTag}}));

    s_OrvAccessTrkDataExt got{};
    bool valid = false;
    ASSERT_TRUE(access.getTrackingData(&valid, &got));
    ASSERT_TRUE(valid);
    expectTracking(got, sent);
    got = {};
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &got));
    ASSERT_TRUE(valid);
    expectTracking(got, sent);
    EXPECT_TRUE(residuals().empty());  // 332 bytes carry no optical data

    // The same bytes handed in by the application give the same record.
    const Bytes again = trackingPacket(sent);
    access.processTrackingPkt(again.data());
    ASSERT_TRUE(access.getTrackingData(&valid, &got));
    ASSERT_TRUE(valid);
    expectTracking(got, sent);
}

TEST_F(Tracking, QueueKeepsTheNewestAndTheLatestSlotFollows) {
    reopen("[Memory]\ntrackingQueueSize = 2\n");
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    for (uint32_t i = 1; i <= 3; ++i) send(trackingPacket(distinctTracking(i)));
    EXPECT_EQ(received(), 0x10u);
    EXPECT_NE(out.text().find("ORVAINFO: Tracking data queue overflow\n"), std::string::npos);
    EXPECT_EQ(trackingTags(), (std::vector<uint32_t>{1002, 1003}));
    // Draining the queue leaves the latest record in place.
    s_OrvAccessTrkDataExt latest{};
    bool valid = false;
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &latest));
    EXPECT_TRUE(valid);
    EXPECT_EQ(latest.packetTag, 1003u);
}

TEST_F(Tracking, PlatformPoseTraceAndHarmonisationLog) {
    s_OrvAccessTrkDataExt sent = distinctTracking(1);
    const float l[3] = {0.5f, -1.25f, 3.0f}, m[3] = {0.125f, -2.0f, 1024.5f};
    std::memcpy(sent.vecL, l, sizeof l);
    std::memcpy(sent.vecM, m, sizeof m);
    OrvUtil::resetLogState();
    OrvUtil::setLastHarmonisationMs(OrvosiUtil::getTimeMs() - 10000.0);
    access.setLogging(0x8, dir.prefix());
    access.setVerbosity(0x400000);
    {
        orvtest::CapturedStdout out;
        send(trackingPacket(sent));
        sent.packetTag = 99;  // within 5 s of the first: not logged
        send(trackingPacket(sent));
        EXPECT_EQ(received(), 0x10u);
        const std::string trace = "ORVAPLATPOSE: tout=" + std::to_string(sent.platPoseTime) + "\n";
        EXPECT_EQ(out.text(), trace + "ORVAMSG: Opened " + dir.prefix() + "orvaHarm.log\n" + trace);
    }
    access.setLogging(0, dir.prefix());  // closes the file
    std::ifstream in(dir.prefix() + "orvaHarm.log", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "1001 0.5 -1.25 3 0.125 -2 1024.5\n");
    OrvUtil::resetLogState();
}

TEST_F(Tracking, OpticalResidualsStatisticsAndClosingRecords) {
    const Target a = target(0x1234), b = target(0xFFFE);
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    send(trackingPacket(distinctTracking(1), opticalSubpacket(0x77665544, {a, b}, true)));
    send(trackingPacket(distinctTracking(2), opticalSubpacket(42, {})));  // eleven bytes
    EXPECT_EQ(received(), 0x10u);
    EXPECT_NE(out.text().find("ORVAINFO: Received optical subpacket\n"), std::string::npos);

    const std::vector<TgtRes> res = residuals();
    ASSERT_EQ(res.size(), 4u);
    expectResidual(res[0], 0x77665544, 0, 0x1234, a.resid);
    expectResidual(res[1], 0x77665544, 1, 0xFFFE, b.resid);
    expectResidual(res[2], 0x77665544, 2, 0, b.resid);  // closes, repeating the last residuals
    const float zero[5] = {};
    expectResidual(res[3], 42, 0, 0, zero);

    // The record is all 32-bit words: it compares as bytes, extra words zero.
    const std::vector<Stats> st = stats();
    ASSERT_EQ(st.size(), 1u);
    const Stats want = expectedStats(0x77665544);
    EXPECT_EQ(std::memcmp(&st[0], &want, sizeof want), 0);
    EXPECT_TRUE(errorCodes().empty());
}

TEST_F(Tracking, OpticalOverrunAndBadFraming) {
    // Two targets in a subpacket one byte short of the second entry: the
    // records stay (the last residual ends in the checksum byte) and the
    // overrun is reported with the tag.
    const Target a = target(3), b = target(4);
    Bytes shortSub = opticalSubpacket(0xABCD, {a, b});
    reseal(shortSub, 54);
    Bytes corrupt = opticalSubpacket(0xABCE, {a, b});
    corrupt[12] ^= 0x40;
    send(trackingPacket(distinctTracking(1), shortSub));
    send(trackingPacket(distinctTracking(2), corrupt));
    // A one-byte subpacket: its length word comes from what follows in the
    // buffer, here an ignored datagram of kind 9, which also ends the call.
    send(Bytes(600, 9));
    send(trackingPacket(distinctTracking(3), Bytes{0}));
    access.setVerbosity(0x1);
    orvtest::CapturedStderr err;
    EXPECT_EQ(received(), 0x10u);
    EXPECT_EQ(received(), 0x10u);
    EXPECT_EQ(err.text(),
              "ORVALOG: Overrun in optical data subpacket\n"
              "ORVALOG: Bad optical subpacket: Invalid checksum\n"
              "ORVALOG: Bad optical subpacket: Wrong start byte\n");
    EXPECT_EQ(errorCodes(), (Codes{{780, 0xABCD}, {773, 0}, {773, 0}}));
    EXPECT_EQ(trackingTags(), (std::vector<uint32_t>{1001, 1002, 1003}));

    const std::vector<TgtRes> res = residuals();
    ASSERT_EQ(res.size(), 3u);
    expectResidual(res[0], 0xABCD, 0, 3, a.resid);
    float last[5];
    std::memcpy(last, &shortSub[34], sizeof last);
    expectResidual(res[1], 0xABCD, 1, 4, last);
    expectResidual(res[2], 0xABCD, 2, 0, last);
}

TEST_F(Tracking, OpticalRoomRulesAndOverflowTexts) {
    reopen("[Memory]\ntargetQueueSize = 10\n");
    const auto targets = [](uint16_t first, uint16_t count) {
        std::vector<Target> t;
        for (uint16_t i = 0; i < count; ++i) t.push_back(target(first + i));
        return t;
    };
    send(trackingPacket(distinctTracking(1), opticalSubpacket(1, targets(1, 5))));
    EXPECT_EQ(received(), 0x10u);
    // 6 queued + 4 is not below 10, 5 + 4 is: the oldest record goes.
    access.setVerbosity(0x2);
    {
        orvtest::CapturedStdout out;
        send(trackingPacket(distinctTracking(2), opticalSubpacket(2, targets(11, 3))));
        EXPECT_EQ(received(), 0x10u);
        EXPECT_EQ(out.text(),
                  "ORVAINFO: Received orvCore packet, size 409\n"
                  "ORVAINFO: Received optical subpacket\n"
                  "ORVAINFO: Target residuals data queue overflow\n");
    }
    access.setVerbosity(0);
    std::vector<TgtRes> res = residuals();
    ASSERT_EQ(res.size(), 9u);
    EXPECT_EQ(res[0].tag, 1u);
    EXPECT_EQ(res[0].index, 1u);
    EXPECT_EQ(res[5].tag, 2u);
    EXPECT_EQ(res[8].id, 0u);

    // A subpacket larger than the bound empties the queue first; its newest
    // records, the closing one last, are kept.
    send(trackingPacket(distinctTracking(3), opticalSubpacket(3, targets(1, 12))));
    res = residuals();
    ASSERT_FALSE(res.empty());
    EXPECT_LE(res.size(), 13u);
    EXPECT_EQ(res.front().tag, 3u);
    EXPECT_EQ(res.back().index, 12u);
    EXPECT_EQ(res.back().id, 0u);

    // Statistics follow the ordinary rule under their own text.
    for (uint32_t i = 0; i < 10; ++i)
        send(trackingPacket(distinctTracking(4), opticalSubpacket(i, {}, true)));
    received();
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    send(trackingPacket(distinctTracking(5), opticalSubpacket(10, {}, true)));
    received();
    EXPECT_NE(out.text().find("ORVAINFO: Pose recovery stats queue overflow\n"), std::string::npos);
    const std::vector<Stats> st = stats();
    ASSERT_EQ(st.size(), 10u);
    EXPECT_EQ(st.front().tag, 1u);
    EXPECT_EQ(st.back().tag, 10u);
}

// Counts and lengths that claim more than may be read are refused before
// anything is queued; counts that run past the datagram but stay inside the
// receive buffer are read. Under the address sanitizer any read outside a
// buffer fails the test.
TEST_F(Tracking, OversizedOpticalCountsNeverLeaveTheBuffer) {
    // Over UDP: 255 targets claimed by an eleven-byte subpacket are read on
    // through the receive buffer and reported as an overrun.
    Bytes tiny = opticalSubpacket(5, {});
    tiny[7] = 255;
    reseal(tiny, 11);
    Bytes huge = opticalSubpacket(6, {target(1)});
    OrvosiUtil::lendian(&huge[1], 65535, 2);  // beyond the end of the buffer
    send(trackingPacket(distinctTracking(1), tiny));
    send(trackingPacket(distinctTracking(2), huge));
    access.setVerbosity(0x1);
    {
        orvtest::CapturedStderr err;
        received();
        EXPECT_EQ(err.text(),
                  "ORVALOG: Overrun in optical data subpacket\n"
                  "ORVALOG: Bad optical subpacket: Length beyond buffer\n");
    }
    EXPECT_EQ(errorCodes(), (Codes{{780, 5}, {773, 0}}));
    const std::vector<TgtRes> res = residuals();
    ASSERT_EQ(res.size(), 256u);
    EXPECT_EQ(res[255].index, 255u);
    EXPECT_EQ(trackingTags(), (std::vector<uint32_t>{1001, 1002}));

    // Handed in by the application, a packet is read only as far as its own
    // length says; each buffer below is exactly as long as its packet.
    Bytes counted = opticalSubpacket(7, {target(1), target(2)});
    counted[7] = 3;  // one more target than the subpacket holds
    reseal(counted, counted.size());
    const Bytes refused[] = {
        trackingPacket(distinctTracking(3), counted),
        trackingPacket(distinctTracking(4), Bytes{16}),        // no room for a length word
        trackingPacket(distinctTracking(5), Bytes{16, 9, 0}),  // length beyond the packet
        orvtest::sealedFrame(10, 300),                         // too short for the fixed fields
    };
    {
        orvtest::CapturedStderr err;
        for (const Bytes& b : refused) access.processTrackingPkt(b.data());
        EXPECT_EQ(err.text(),
                  "ORVALOG: Bad optical subpacket: Target count beyond buffer\n"
                  "ORVALOG: Bad optical subpacket: Length beyond buffer\n"
                  "ORVALOG: Bad optical subpacket: Length beyond buffer\n"
                  "ORVALOG: Problem with orvCore packet: Packet too short\n");
    }
    EXPECT_EQ(errorCodes(), (Codes{{773, 0}, {773, 0}, {773, 0}, {770, 0}}));
    EXPECT_TRUE(residuals().empty());
    EXPECT_EQ(trackingTags(), (std::vector<uint32_t>{1003, 1004, 1005}));

    const Bytes good = trackingPacket(distinctTracking(6), opticalSubpacket(8, {target(9)}));
    access.processTrackingPkt(good.data());
    EXPECT_EQ(residuals().size(), 2u);
    EXPECT_TRUE(errorCodes().empty());
}

TEST_F(Tracking, TenThousandPacketsWithOpticalDataDoNotAllocate) {
    reopen("udpOrvCoreRcvBufSize = 1048576\n");
    constexpr uint32_t kBurst = 10000, kChunk = 200;
    std::vector<Bytes> packets;
    for (uint32_t i = 0; i < 2 * kBurst; ++i) {
        s_OrvAccessTrkDataExt t = distinctTracking(0);
        t.packetTag = i;
        packets.push_back(trackingPacket(t, opticalSubpacket(i, {target(1), target(2)}, true)));
    }
    // The first half grows every queue to its bound; the second is measured.
    long allocations = 0;
    for (uint32_t first = 0; first < 2 * kBurst; first += kChunk) {
        for (uint32_t i = first; i < first + kChunk; ++i) send(packets[i]);
        bool ok = false;
        const long n = orvtest::allocationsDuring([&] { ok = access.serviceUdp(false); });
        ASSERT_TRUE(ok) << access.getLastError();
        if (first >= kBurst) allocations += n;
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_TRUE(errorCodes().empty());

    // Nothing was lost: the tracking and statistics queues (bound 10000)
    // hold exactly the measured packets, in order.
    const std::vector<uint32_t> tags = trackingTags();
    ASSERT_EQ(tags.size(), kBurst);
    for (uint32_t i = 0; i < kBurst; ++i) ASSERT_EQ(tags[i], kBurst + i);
    const std::vector<Stats> st = stats();
    ASSERT_EQ(st.size(), kBurst);
    EXPECT_EQ(st.front().tag, kBurst);
    EXPECT_EQ(residuals().back().tag, 2 * kBurst - 1);
}

}  // namespace
