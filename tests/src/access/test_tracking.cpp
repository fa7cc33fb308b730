// Tracking, optical, hub data, hub error, PRA and NFT packets, built byte by
// byte and sent to an open object over UDP on 127.0.0.1: every field at its
// offset, the error-code bytes, the byte gap of hub data, the pairing of the
// PRA counts, queue bounds and room rules, overruns and bad framing, counts
// that claim more than may be read, and a burst of ten thousand packets
// parsed without a single allocation.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvsim/Wire.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::Bytes;
using orvtest::kCore;
using orvtest::kHub;
using orvtest::kNft;
using Rec = s_OrvAccessTrkDataExt;
using TgtRes = OrvAccess::s_TgtResData;
using Stats = s_OrvAccessPoseRecStats;
using Hub = s_OrvAccessHubData;
using Feat = OrvAccess::s_FeatData;
using Tracking = orvtest::ReceiverTest;
using Packets = orvtest::ReceiverTest;

using orvtest::drain;
// Records made only of 32-bit words compare as bytes.
template <typename T>
void expectRecords(const std::vector<T>& got, const std::vector<T>& want) {
    ASSERT_EQ(got.size(), want.size());
    EXPECT_EQ(std::memcmp(got.data(), want.data(), sizeof(T) * got.size()), 0);
}

// Every field the packet carries holds a value no other field holds: the
// floats 0.75, 1.25, 1.75 ... word by word in wire order (the error codes
// take one word and are cleared), a few set apart.
Rec distinct(uint32_t tag) {
    Rec t{};
    const std::pair<void*, int> fields[] = {
        {&t.packetTag, 1}, {&t.poseTime, 2}, {&t.platPoseTime, 1}, {&t.statusWord, 1}, {t.vecA, 18},
        {t.cbn, 9},        {t.position, 15}, {t.cbn2, 9},          {t.vecJ, 3},        {t.vecK, 3},
        {&t.time2, 2},     {t.vecL, 9},      {t.vecN, 6}};
    float next = 0.75f;
    for (auto [field, words] : fields)
        for (int i = 0; i < words; ++i, next += 0.5f)
            std::memcpy(static_cast<char*>(field) + 4 * i, &next, 4);
    t.packetTag = tag, t.countA = 0x1234, t.countB = 0xFEDC;
    std::memset(t.errorCodes, 0, 4);
    return t;
}

// A tracking packet followed by `sub` as it is; the 8 reserved bytes at 323
// must land nowhere.
Bytes packet(const Rec& t, const Bytes& sub = {}) {
    Bytes b = orvsim::buildTracking(t, sub);
    std::fill_n(&b[323], 8, 0xEE);
    return orvtest::seal(b, 10);
}

// The export adds the Euler angles of cbn and, with no prediction, boresight
// or tip offset, changes nothing else. From statusWord on the record has no
// padding, so that part compares as bytes.
void expectRecord(const Rec& got, Rec want) {
    OrvUtil::cbn2Euler(want.cbn, want.euler);
    EXPECT_TRUE(got.packetTag == want.packetTag && got.poseTime == want.poseTime &&
                got.platPoseTime == want.platPoseTime && got.time2 == want.time2);
    EXPECT_EQ(std::memcmp(&got.statusWord, &want.statusWord, sizeof got - offsetof(Rec, statusWord)), 0);
}

// The records a subpacket with `count` targets, ids from `first`, yields:
// one per target and the closing one (id 0, the last residuals repeated).
std::vector<TgtRes> residuals(uint32_t tag, uint32_t first, uint32_t count) {
    std::vector<TgtRes> r;
    for (uint32_t i = 0; i <= count; ++i) {
        const float k = static_cast<float>(first + std::min(i, count - 1));
        r.push_back({tag, i, i < count ? first + i : 0, {k * 10, k + 0.5f, -2.5f, 0.125f * k, 1e6f + k}});
    }
    return r;
}

Stats expectedStats(uint32_t tag) {
    Stats s{tag, 1, 2, 250, 4, 0.125f, 1, tag & 1, -3.5f, {}, {}, {}, {}, 0, 0, 0, 0, {}};
    float next = 100;
    for (float* v : {s.vec1, s.vec2, s.vec3, s.vec4}) v[0] = next++, v[1] = next++, v[2] = next++;
    s.value2 = 7.25f, s.value3 = 8.5f, s.value4 = 9.75f, s.value5 = -10.0f;
    return s;
}

// The subpacket that yields `records` (closing record last), with 0xBEEF in
// the two bytes that are not read; the statistics flags travel as 7 and, for
// odd tags, 9.
Bytes optical(const std::vector<TgtRes>& records, bool withStats = false) {
    orvsim::Optical o{records[0].tag, {}, std::nullopt};
    for (size_t i = 0; i + 1 < records.size(); ++i) {
        o.targets.push_back({static_cast<uint16_t>(records[i].id), {}});
        std::copy_n(records[i].resid, 5, o.targets.back().resid);
    }
    if (withStats) o.stats = expectedStats(o.tag);
    Bytes b = orvsim::buildOpticalSubpacket(o);
    const size_t flags = 18 + 22 * o.targets.size();
    b[8] = 0xEF, b[9] = 0xBE;
    if (withStats) b[flags] = 7, b[flags + 1] = static_cast<unsigned char>(9 * o.stats->flagB);
    return orvtest::seal(b, 16);
}

// Byte i of a record becomes i * 7 + 1: every field differs from every other.
void pattern(void* record, size_t size) {
    for (size_t i = 0; i < size; ++i)
        static_cast<unsigned char*>(record)[i] = static_cast<unsigned char>(i * 7 + 1);
}

TEST_F(Tracking, EveryFieldErrorBytesQueueBoundTraceAndLog) {
    openReceiver("[Memory]\ntrackingQueueSize = 2\n");
    OrvUtil::resetLogState();
    OrvUtil::setLastHarmonisationMs(OrvosiUtil::getTimeMs() - 10000.0);
    access.setLogging(0x8, dir.prefix()), access.setVerbosity(0x400002);
    Rec want = distinct(3);
    want.errorCodes[1] = 5, want.errorCodes[3] = 7;
    orvtest::CapturedStdout out;
    for (const Rec& r : {distinct(1), distinct(2), want}) send(kCore, packet(r));
    EXPECT_EQ(received(), 0x10u);
    const std::string text = out.text();
    EXPECT_NE(text.find("ORVAINFO: Tracking data queue overflow\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ORVAPLATPOSE: tout=" + std::to_string(want.platPoseTime) + "\nORVAMSG: Opened " +
                        dir.prefix() + "orvaHarm.log\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(errorCodes(), (Codes{{5, 3}, {7, 3}}));
    Rec latest{};
    bool valid = false;
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &latest) && valid);
    expectRecord(latest, want);
    const std::vector<Rec> queued = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ(queued[0].packetTag, 2u);
    expectRecord(queued[1], want);
    EXPECT_TRUE(drain(access, &OrvAccess::getTargetResData).empty());  // 332 bytes carry no optical data
    // Only the first of packets within 5 s reaches the harmonisation log.
    access.setLogging(0, dir.prefix());
    std::ifstream in(dir.prefix() + "orvaHarm.log", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "1 32.75 33.25 33.75 34.25 34.75 35.25\n");
    OrvUtil::resetLogState();
}

// Residuals with their closing records and statistics; subpackets that claim
// more than they hold or fail their framing. Counts and lengths that claim
// more than may be read are refused before anything is queued; counts that
// run past the datagram but stay inside the receive buffer are read. Under
// the address sanitizer any read outside a buffer fails the test.
TEST_F(Tracking, OpticalRecordsOverrunsAndBadFraming) {
    openReceiver();
    std::vector<TgtRes> two = residuals(0x77665545, 0xFFFE, 2);
    // Two targets in a subpacket one byte short of the second entry: the
    // records stay (the last residual ends in the checksum byte) and the
    // overrun is reported with the tag.
    std::vector<TgtRes> overrun = residuals(0xABCD, 3, 2);
    Bytes shortSub = optical(overrun), corrupt = optical(residuals(0xABCE, 3, 2));
    shortSub.resize(54), orvtest::seal(shortSub, 16), corrupt[12] ^= 0x40;
    std::memcpy(overrun[1].resid, &shortSub[34], 20), std::memcpy(overrun[2].resid, &shortSub[34], 20);
    Bytes huge = optical(residuals(6, 1, 1)), tiny = optical(residuals(5, 0, 0));
    OrvosiUtil::lendian(&huge[1], 65535, 2);  // beyond the end of the receive buffer
    tiny[7] = 255, orvtest::seal(tiny, 16);   // read on through the receive buffer
    for (const Bytes& sub :
         {optical(two, true), shortSub, corrupt, huge, optical(residuals(42, 0, 0), true), tiny})
        send(kCore, packet(distinct(1), sub));
    // A one-byte subpacket: its length word comes from what follows in the
    // buffer, here an ignored datagram of kind 9, which also ends the call.
    send(kCore, Bytes(600, 9)), send(kCore, packet(distinct(1), Bytes{0}));
    access.setVerbosity(0x3);
    orvtest::CapturedStderr err;
    {
        orvtest::CapturedStdout out;
        EXPECT_EQ(received(), 0x10u);
        EXPECT_EQ(received(), 0x10u);
        EXPECT_NE(out.text().find("ORVAINFO: Received optical subpacket\n"), std::string::npos);
    }
    EXPECT_EQ(drain(access, &OrvAccess::getTrackingData).size(), 7u);
    expectRecords(drain(access, &OrvAccess::getPoseRecoveryStats),
                  {expectedStats(0x77665545), expectedStats(42)});
    std::vector<TgtRes> r = drain(access, &OrvAccess::getTargetResData);
    ASSERT_EQ(r.size(), 6 + 1 + 256u);
    // n = 0: only the closing record; then the 256 records of the subpacket read on.
    EXPECT_TRUE(r[6].tag == 42 && r[6].index == 0 && r[6].id == 0 && r[7].tag == 5 && r.back().index == 255);
    r.resize(6), two.insert(two.end(), overrun.begin(), overrun.end());
    expectRecords(r, two);

    // Handed in by the application, a packet is read only as far as its own
    // length says and as zeros beyond, exactly as if it had been received;
    // each buffer below is exactly as long as its packet.
    Bytes counted = optical(residuals(7, 1, 2));
    counted[7] = 3;                                          // one more target than the subpacket holds
    const Bytes shortFixed = orvtest::sealedFrame(10, 300);  // too short for the fixed fields
    const Bytes handedIn[] = {
        packet(distinct(3), orvtest::seal(counted, 16)),
        packet(distinct(4), Bytes{16}),        // its length word is the checksum byte and a zero
        packet(distinct(5), Bytes{16, 9, 0}),  // length beyond the packet: summed as zeros
        shortFixed,
        packet(distinct(6), optical(residuals(8, 9, 1))),
    };
    for (const Bytes& b : handedIn) access.processTrackingPkt(b.data());
    EXPECT_EQ(err.text(),
              "ORVALOG: Overrun in optical data subpacket\n"
              "ORVALOG: Bad optical subpacket: Invalid checksum\n"
              "ORVALOG: Bad optical subpacket: Runs past the end of the buffer\n"
              "ORVALOG: Overrun in optical data subpacket\n"
              "ORVALOG: Bad optical subpacket: Wrong start byte\n"
              "ORVALOG: Overrun in optical data subpacket\n"
              "ORVALOG: Bad optical subpacket: Invalid checksum\n"
              "ORVALOG: Bad optical subpacket: Invalid checksum\n");
    Codes codes{{ORVACCESS_ERR_OPTICAL_OVERRUN, 0xABCD}, {ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, 0},
                {ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, 0},   {ORVACCESS_ERR_OPTICAL_OVERRUN, 5},
                {ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, 0},   {ORVACCESS_ERR_OPTICAL_OVERRUN, 7},
                {ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, 0},   {ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, 0}};
    // The short packet's error-code bytes lie inside its 300 bytes.
    for (size_t i = 295; i < 299; ++i)
        if (shortFixed[i] != 0) codes.push_back({shortFixed[i], OrvosiUtil::word32(&shortFixed[3])});
    EXPECT_EQ(errorCodes(), codes);
    const std::vector<Rec> handled = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(handled.size(), 5u);
    // Past its 300 bytes the short packet reads as zeros.
    EXPECT_EQ(handled[3].vecO[2], 0.0f);
    EXPECT_EQ(handled[3].errorCodes[3], shortFixed[298]);
    // The counted subpacket: two real targets, a third read on past its end, the closing record.
    r = drain(access, &OrvAccess::getTargetResData);
    ASSERT_EQ(r.size(), 4 + 2u);
    const std::vector<TgtRes> seven = residuals(7, 1, 2);
    expectRecords(std::vector<TgtRes>{r[0], r[1]}, std::vector<TgtRes>{seven[0], seven[1]});
    EXPECT_TRUE(r[2].index == 2 && r[3].index == 3 && r[3].id == 0);
    expectRecords(std::vector<TgtRes>{r[4], r[5]}, residuals(8, 9, 1));
}

TEST_F(Tracking, OpticalRoomRulesPraRecordsAndOverflowTexts) {
    openReceiver("[Memory]\ntargetQueueSize = 10\n");
    // 6 queued + 4 is not below 10, 5 + 4 is: the oldest record goes.
    access.setVerbosity(0x2);
    {
        orvtest::CapturedStdout out;
        send(kCore, packet(distinct(1), optical(residuals(1, 1, 5)))), received();
        send(kCore, packet(distinct(2), optical(residuals(2, 11, 3))));
        EXPECT_EQ(received(), 0x10u);
        EXPECT_EQ(out.text(),
                  "ORVAINFO: Received orvCore packet, size 453\nORVAINFO: Received optical subpacket\n"
                  "ORVAINFO: Received orvCore packet, size 409\nORVAINFO: Received optical subpacket\n"
                  "ORVAINFO: Target residuals data queue overflow\n");
    }
    std::vector<TgtRes> want = residuals(1, 1, 5), more = residuals(2, 11, 3);
    want.erase(want.begin()), want.insert(want.end(), more.begin(), more.end());
    expectRecords(drain(access, &OrvAccess::getTargetResData), want);

    // A subpacket larger than the bound empties the queue first; its newest
    // records, the closing one last, are kept.
    send(kCore, packet(distinct(3), optical(residuals(3, 1, 12))));
    const std::vector<TgtRes> r = drain(access, &OrvAccess::getTargetResData);
    ASSERT_TRUE(!r.empty() && r.size() <= 13u);
    EXPECT_TRUE(r.front().tag == 3 && r.back().index == 12 && r.back().id == 0);

    // Statistics and PRA records share a queue under the ordinary rule, each
    // with its own overflow text.
    Stats pra;
    pattern(&pra, sizeof pra);
    for (uint32_t* v : {&pra.flagA, &pra.stat0, &pra.stat1, &pra.stat2}) *v &= 0xFF;
    pra.stat3 = pra.flagB = 0, pra.value1 = pra.value2 = 0;
    for (uint32_t i = 0; i <= 10; ++i) send(kCore, packet(distinct(4), optical(residuals(i, 0, 0), true)));
    send(kCore, orvsim::buildPra(pra));
    orvtest::CapturedStdout out;
    EXPECT_EQ(received(), 0x110u);
    const std::string text = out.text();
    EXPECT_NE(text.find("ORVAINFO: Pose recovery stats queue overflow\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ORVAINFO: Pose Recovery data queue overflow\n"), std::string::npos) << text;
    const std::vector<Stats> st = drain(access, &OrvAccess::getPoseRecoveryStats);
    ASSERT_TRUE(st.size() == 10 && st.front().tag == 2);
    EXPECT_EQ(std::memcmp(&st.back(), &pra, sizeof pra), 0);
}

TEST_F(Tracking, TenThousandPacketsWithOpticalDataDoNotAllocate) {
    openReceiver("udpOrvCoreRcvBufSize = 1048576\n");
    constexpr uint32_t kBurst = 10000, kChunk = 200;
    // The first half grows every queue to its bound; the second is measured,
    // the service calls alone (building the datagrams allocates).
    long allocations = 0;
    for (uint32_t first = 0; first < 2 * kBurst; first += kChunk) {
        for (uint32_t i = first; i < first + kChunk; ++i)
            send(kCore, packet(distinct(i), optical(residuals(i, 1, 2), true)));
        bool ok = false;
        const long n = orvtest::allocationsDuring([&] { ok = access.serviceUdp(false); });
        ASSERT_TRUE(ok) << access.getLastError();
        if (first >= kBurst) allocations += n;
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_TRUE(errorCodes().empty());
    // Nothing was lost: the tracking and statistics queues (bound 10000)
    // hold exactly the measured packets, in order.
    const std::vector<Rec> t = drain(access, &OrvAccess::getTrackingData);
    const std::vector<Stats> st = drain(access, &OrvAccess::getPoseRecoveryStats);
    ASSERT_TRUE(t.size() == kBurst && st.size() == kBurst);
    EXPECT_TRUE(t.front().packetTag == kBurst && t.back().packetTag == 2 * kBurst - 1 &&
                st.front().tag == kBurst);
}

TEST_F(Packets, HubDataFieldsGapEulerAnglesAndHubErrors) {
    openReceiver();
    Hub want;
    pattern(&want, sizeof want);
    OrvUtil::cbn2Euler(want.cbn, want.euler);
    Bytes b = orvsim::buildHubData(want);
    std::fill_n(&b[7], 3, 0xEE);  // bytes 7 to 9 carry nothing for the record
    send(kHub, orvtest::seal(b, 11));
    EXPECT_EQ(received(), 0x20u);
    Hub got;
    bool valid = false;
    ASSERT_TRUE(access.getHubData(&valid, &got) && valid);
    // Everything but the padding bytes at 7 and after lastByte.
    EXPECT_EQ(std::memcmp(&got, &want, 7), 0);
    EXPECT_EQ(std::memcmp(&got.words, &want.words, offsetof(Hub, lastByte) - 7), 0);

    // Hub errors: the value at 3, the code at 8 (byte 7 is not read, the
    // checksum not checked); code 0 queues nothing and no bit is set.
    for (unsigned char code : {5, 0, 8}) {
        Bytes e = orvsim::buildHubError(0xDEADBE00u + code, code);
        e[7] = 0x77, e[9] ^= 0x42;
        send(kHub, e);
    }
    EXPECT_EQ(received(), 0u);
    EXPECT_EQ(errorCodes(), (Codes{{0x405, 0xDEADBE05}, {0x408, 0xDEADBE08}}));
}

// A pose as an NFT packet carries it: every carried field distinct, the rest zero.
Rec nftPose(uint32_t tag) {
    Rec p;
    std::memset(&p, 0, sizeof p);
    float next = 0.125f;
    for (float* v : {p.cbn[0], p.cbn[1], p.cbn[2], p.position, p.vecG, p.vecH, p.angularRate, p.vecJ, p.extB,
                     p.extB + 3, p.extD})
        for (int i = 0; i < 3; ++i) v[i] = next += 0.5f;
    p.packetTag = tag, p.poseTime = 0x0A0B0C0D0E0F1011ull, p.countA = 0xB7;
    return p;
}
std::vector<Feat> features(uint32_t tag, uint32_t n) {
    std::vector<Feat> f;
    for (uint32_t i = 0; i < n; ++i) f.push_back({tag, i, 1, {i + 0.25f, -1.0f * i, 1000.0f + i}});
    return f;
}
// `count` replaces the feature count on the wire when given.
Bytes nftPacket(const Rec& p, const std::vector<Feat>& f, long count = -1) {
    std::vector<std::array<float, 3>> positions;
    for (const Feat& x : f) positions.push_back({x.position[0], x.position[1], x.position[2]});
    Bytes b = orvsim::buildNft(p, positions);
    if (count >= 0) OrvosiUtil::lendian(&b[136], static_cast<unsigned long>(count), 4);
    return orvtest::seal(b, 14);
}
TEST_F(Packets, NftPoseJoinsTheTrackingQueueAndRoomIsMadeForTheWholePacket) {
    openReceiver("[Memory]\ntargetQueueSize = 10\n");
    const Rec a = nftPose(0x600D), none = nftPose(0x600E), c = nftPose(0x600F);
    send(kNft, nftPacket(a, features(a.packetTag, 4))), send(kNft, nftPacket(none, {}));
    EXPECT_EQ(received(), 0x80u);
    Rec latest{};
    bool valid = false;
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &latest) && valid);
    expectRecord(latest, none);
    const std::vector<Rec> queued = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(queued.size(), 2u);
    expectRecord(queued[0], a), expectRecord(queued[1], none);

    // With 4 queued, 5 + 4 + 1 reaches 10, 5 + 3 + 1 does not: one old
    // feature goes, once.
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    send(kNft, nftPacket(c, features(c.packetTag, 5)));
    EXPECT_EQ(received(), 0x80u);
    EXPECT_EQ(out.text(),
              "ORVAINFO: Received NFT packet, size 213\n"
              "ORVAINFO: Feature data queue overflow\n");
    std::vector<Feat> want = features(a.packetTag, 4), more = features(c.packetTag, 5);
    want.erase(want.begin()), want.insert(want.end(), more.begin(), more.end());
    expectRecords(drain(access, &OrvAccess::getFeatureData), want);
}

// Features may be read past the packet's end, inside the receive buffer,
// never beyond it: the largest count that fits is read as sent, anything
// larger drops the whole packet. Run under the address sanitizer, a read
// outside the buffer fails the test.
TEST_F(Packets, OversizedFeatureCountsNeverLeaveTheBuffer) {
    openReceiver();
    const Rec p = nftPose(0x51);
    constexpr long kMostThatFit = (65535 - 140 - 12) / 12;  // 5448 features fit in 65535 bytes
    access.setVerbosity(0x1);
    {
        orvtest::CapturedStderr err;
        send(kNft, nftPacket(p, {}, 0xFFFFFFFFl)), send(kNft, nftPacket(p, {}, kMostThatFit + 1)), received();
        EXPECT_EQ(err.text(),
                  "ORVALOG: Problem with NFT packet: Feature count beyond buffer\n"
                  "ORVALOG: Problem with NFT packet: Feature count beyond buffer\n");
    }
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_NFT_PKT, 0}, {ORVACCESS_ERR_BAD_NFT_PKT, 0}}));
    EXPECT_TRUE(drain(access, &OrvAccess::getFeatureData).empty());
    EXPECT_TRUE(drain(access, &OrvAccess::getTrackingData).empty());

    send(kNft, nftPacket(p, {}, kMostThatFit));
    received();
    EXPECT_TRUE(errorCodes().empty());
    const std::vector<Feat> f = drain(access, &OrvAccess::getFeatureData);
    ASSERT_EQ(f.size(), static_cast<size_t>(kMostThatFit));
    EXPECT_TRUE(f.back().index == kMostThatFit - 1 && f.back().sequenceId == p.packetTag);
    EXPECT_EQ(drain(access, &OrvAccess::getTrackingData).size(), 1u);
}

}  // namespace
