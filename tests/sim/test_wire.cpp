// The simulator's foundation: the ground-truth motion against the library's
// own prediction, every datagram builder in a round trip through a real
// access object on loopback, and the fault injector against the framing check.
#include <cmath>
#include <cstring>
#include <map>
#include <random>

#include "sim/Faults.hpp"
#include "sim/Motion.hpp"
#include "sim/Wire.hpp"
#include "support/TestSupport.hpp"
#include "util/OrvUtil.hpp"

using namespace orvsim;
using orvtest::Bytes;

#define EXPECT_SAME(got, want, f) EXPECT_EQ(0, std::memcmp(&(got).f, &(want).f, sizeof((want).f))) << #f

namespace {

// Distinct, exactly representable values so that any shifted field shows.
void fill(float* v, size_t n, float base) {
    for (size_t i = 0; i < n; ++i) v[i] = base + 0.25f * static_cast<float>(i + 1);
}

// Angle of the rotation that takes a to b.
double angleBetween(const float a[3][3], const double b[3][3]) {
    double trace = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int k = 0; k < 3; ++k) trace += a[k][i] * b[k][i];
    return std::acos(std::min(1.0, std::max(-1.0, (trace - 1.0) / 2.0)));
}

}  // namespace

// ---- motion ---------------------------------------------------------------

TEST(Motion, RateIsTheDerivativeOfTheAttitude) {
    const Motion motion;
    for (double t : {0.0, 0.7, 1.9, 3.3, 5.1, 12.4}) {
        const MotionSample s = motion.at(t);
        float cbn[3][3], rate[3], euler[3];
        for (int i = 0; i < 3; ++i) {
            rate[i] = static_cast<float>(s.rate[i]);
            for (int j = 0; j < 3; ++j) cbn[i][j] = static_cast<float>(s.cbn[i][j]);
        }
        OrvUtil::cbn2Euler(cbn, euler);
        for (int i = 0; i < 3; ++i) EXPECT_NEAR(euler[i], s.euler[i], 1e-5) << "t " << t;

        // Constant-rate prediction by 20 ms lands on the motion 20 ms later,
        // where holding the attitude still would miss it by far.
        const MotionSample later = motion.at(t + 0.02);
        EXPECT_GT(angleBetween(cbn, later.cbn), 3e-3) << "t " << t;
        OrvUtil::predictCbn(0.02, rate, cbn);
        EXPECT_LT(angleBetween(cbn, later.cbn), 1e-3) << "t " << t;

        // skew(rate) = cbn' * d(cbn)/dt, the derivative by central difference.
        const double h = 1e-5;
        const MotionSample a = motion.at(t - h), b = motion.at(t + h);
        double w[3][3] = {};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k) w[i][j] += s.cbn[k][i] * (b.cbn[k][j] - a.cbn[k][j]) / (2 * h);
        EXPECT_NEAR(w[2][1], s.rate[0], 1e-6);
        EXPECT_NEAR(w[0][2], s.rate[1], 1e-6);
        EXPECT_NEAR(w[1][0], s.rate[2], 1e-6);
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR((b.position[i] - a.position[i]) / (2 * h), s.velocity[i], 1e-7);
    }
    const MotionSample still = Motion(MotionParams::still()).at(2.0);
    EXPECT_EQ(still.cbn[0][0], 1.0);
    EXPECT_EQ(still.rate[2], 0.0);
}

// ---- datagrams through the library -----------------------------------------

class WireTest : public orvtest::ReceiverTest {
protected:
    void SetUp() override { openReceiver(); }

    static s_OrvAccessTrkDataExt pose(uint32_t tag) {
        s_OrvAccessTrkDataExt r{};
        fillPose(Motion().at(1.5), r);
        r.packetTag = tag;
        r.poseTime = 0x123456789AULL;
        r.platPoseTime = 77;
        r.time2 = 0xABCDEF0123ULL;
        r.statusWord = 0x80000001u;
        float* vecs[] = {r.vecA, r.vecB, r.vecC, r.vecD, r.vecE, r.vecF, r.vecH, r.vecI,
                         r.vecJ, r.vecK, r.vecL, r.vecM, r.vecN, r.vecO, r.extD};
        float base = 10.0f;
        for (float* v : vecs) fill(v, 3, base += 10.0f);
        fill(r.cbn2[0], 9, -3.0f);
        fill(r.extB, 6, 500.0f);
        r.countA = 0x21;
        r.countB = 0x3456;
        r.scalarA = 1.5f;
        r.scalarB = -2.75f;
        return r;
    }
    static void expectTracking(const s_OrvAccessTrkDataExt& got, const s_OrvAccessTrkDataExt& want) {
        EXPECT_SAME(got, want, packetTag);
        EXPECT_SAME(got, want, poseTime);
        EXPECT_SAME(got, want, platPoseTime);
        EXPECT_SAME(got, want, time2);
        EXPECT_SAME(got, want, statusWord);
        EXPECT_SAME(got, want, vecA);
        EXPECT_SAME(got, want, vecB);
        EXPECT_SAME(got, want, vecC);
        EXPECT_SAME(got, want, vecD);
        EXPECT_SAME(got, want, vecE);
        EXPECT_SAME(got, want, vecF);
        EXPECT_SAME(got, want, countA);
        EXPECT_SAME(got, want, countB);
        EXPECT_SAME(got, want, cbn);
        EXPECT_SAME(got, want, euler);
        EXPECT_SAME(got, want, cbn2);
        EXPECT_SAME(got, want, position);
        EXPECT_SAME(got, want, vecG);
        EXPECT_SAME(got, want, vecH);
        EXPECT_SAME(got, want, angularRate);
        EXPECT_SAME(got, want, vecI);
        EXPECT_SAME(got, want, extA);
        EXPECT_SAME(got, want, vecJ);
        EXPECT_SAME(got, want, extB);
        EXPECT_SAME(got, want, vecK);
        EXPECT_SAME(got, want, extC);
        EXPECT_SAME(got, want, vecL);
        EXPECT_SAME(got, want, vecM);
        EXPECT_SAME(got, want, scalarA);
        EXPECT_SAME(got, want, scalarB);
        EXPECT_SAME(got, want, errorCodes);
        EXPECT_SAME(got, want, vecN);
        EXPECT_SAME(got, want, vecO);
        EXPECT_SAME(got, want, extD);
    }
    static s_OrvAccessPoseRecStats stats(uint32_t tag) {
        s_OrvAccessPoseRecStats s{};
        s.tag = tag;
        s.stat0 = 1;
        s.stat1 = 2;
        s.stat2 = 3;
        s.stat3 = 4;
        s.value0 = 0.5f;
        s.flagA = 1;
        s.flagB = 1;
        s.value1 = 1.5f;
        fill(s.vec1, 3, 2.0f);
        fill(s.vec2, 3, 3.0f);
        fill(s.vec3, 3, 4.0f);
        fill(s.vec4, 3, 5.0f);
        s.value2 = 6.5f;
        s.value3 = 7.5f;
        s.value4 = 8.5f;
        s.value5 = 9.5f;
        return s;
    }
};

TEST_F(WireTest, TrackingWithOpticalDataAndPraPackets) {
    s_OrvAccessTrkDataExt rec = pose(41);
    std::memset(rec.extB, 0, sizeof rec.extB);  // not carried by orvCore
    std::memset(rec.extD, 0, sizeof rec.extD);
    rec.errorCodes[1] = 5;
    EXPECT_EQ(buildTracking(rec).size(), kTrackingSize);

    Optical optical;
    optical.tag = 900;
    optical.targets = {{17, {0.1f, 0.2f, 0.3f, 0.4f, 0.5f}}, {23, {1.1f, 1.2f, 1.3f, 1.4f, 1.5f}}};
    optical.stats = stats(900);
    const Datagram pkt = buildTracking(rec, &optical);
    EXPECT_EQ(pkt.size(), kTrackingSize + 11 + 2 * 22 + 78);
    send(orvtest::kCore, pkt);

    s_OrvAccessPoseRecStats pra = stats(901);
    pra.stat3 = pra.flagB = 0;  // a PRA packet does not carry these
    pra.value1 = pra.value2 = 0.0f;
    for (int i = 0; i < 36; ++i) pra.extra[i] = 0x01020304u * static_cast<uint32_t>(i + 1);
    send(orvtest::kCore, buildPra(pra));

    bool valid = false;
    s_OrvAccessTrkDataExt got{};
    ASSERT_TRUE(access.getTrackingData(&valid, &got));
    ASSERT_TRUE(valid);
    OrvUtil::cbn2Euler(rec.cbn, rec.euler);  // the export computes it
    expectTracking(got, rec);
    EXPECT_EQ(errorCodes(), (Codes{{5, 41}}));

    OrvAccess::s_TgtResData res{};
    for (size_t i = 0; i <= optical.targets.size(); ++i) {
        ASSERT_TRUE(access.getTargetResData(&valid, &res));
        ASSERT_TRUE(valid);
        const OpticalTarget& t = optical.targets[std::min(i, optical.targets.size() - 1)];
        EXPECT_EQ(res.tag, 900u);
        EXPECT_EQ(res.index, i);
        EXPECT_EQ(res.id, i < optical.targets.size() ? t.id : 0u);
        EXPECT_EQ(0, std::memcmp(res.resid, t.resid, sizeof t.resid));
    }
    s_OrvAccessPoseRecStats s{};
    ASSERT_TRUE(access.getPoseRecoveryStats(&valid, &s));
    ASSERT_TRUE(valid);
    EXPECT_EQ(0, std::memcmp(&s, &*optical.stats, sizeof s));
    ASSERT_TRUE(access.getPoseRecoveryStats(&valid, &s));
    ASSERT_TRUE(valid);
    EXPECT_EQ(0, std::memcmp(&s, &pra, sizeof s));
    EXPECT_EQ(received(), 0x110u);  // tracking and PRA packets passed their framing check
}

TEST_F(WireTest, HubAndNftPackets) {
    s_OrvAccessHubData hub{};
    hub.word = 0xDEADBEEF;
    hub.halfWord = 0x1234;
    hub.status = 0x56;
    hub.words[0] = 7;
    hub.words[1] = 0xFFFFFFFF;
    hub.time = 1ULL << 40;
    const MotionSample m = Motion().at(0.4);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) hub.cbn[i][j] = static_cast<float>(m.cbn[i][j]);
    fill(hub.vec[0], 21, 3.0f);
    hub.lastByte = 0xA5;
    const Datagram hubPkt = buildHubData(hub);
    EXPECT_EQ(hubPkt.size(), 151u);
    send(orvtest::kHub, hubPkt);
    send(orvtest::kHub, buildHubError(1234, 5));

    s_OrvAccessTrkDataExt nft = pose(77);
    const std::vector<std::array<float, 3>> features = {{1, 2, 3}, {4, 5, 6}, {-7, 8.5f, 9}};
    send(orvtest::kNft, buildNft(nft, features));

    bool valid = false;
    s_OrvAccessHubData gotHub{};
    ASSERT_TRUE(access.getHubData(&valid, &gotHub));
    ASSERT_TRUE(valid);
    OrvUtil::cbn2Euler(hub.cbn, hub.euler);
    EXPECT_SAME(gotHub, hub, word);
    EXPECT_SAME(gotHub, hub, halfWord);
    EXPECT_SAME(gotHub, hub, status);
    EXPECT_SAME(gotHub, hub, words);
    EXPECT_SAME(gotHub, hub, time);
    EXPECT_SAME(gotHub, hub, cbn);
    EXPECT_SAME(gotHub, hub, euler);
    EXPECT_SAME(gotHub, hub, vec);
    EXPECT_SAME(gotHub, hub, lastByte);
    EXPECT_EQ(errorCodes(), (Codes{{0x405, 1234}}));

    // An NFT record carries only some tracking fields; the rest arrive as zero.
    s_OrvAccessTrkDataExt want{};
    want.packetTag = nft.packetTag;
    want.poseTime = nft.poseTime;
    std::memcpy(want.cbn, nft.cbn, sizeof want.cbn);
    OrvUtil::cbn2Euler(want.cbn, want.euler);
    for (auto f :
         {&s_OrvAccessTrkDataExt::position, &s_OrvAccessTrkDataExt::vecG, &s_OrvAccessTrkDataExt::vecH,
          &s_OrvAccessTrkDataExt::angularRate, &s_OrvAccessTrkDataExt::vecJ, &s_OrvAccessTrkDataExt::extD})
        std::memcpy(want.*f, nft.*f, sizeof(want.*f));
    std::memcpy(want.extB, nft.extB, sizeof want.extB);
    want.countA = nft.countA & 0xFF;
    s_OrvAccessTrkDataExt got{};
    ASSERT_TRUE(access.getTrackingData(&valid, &got));
    ASSERT_TRUE(valid);
    expectTracking(got, want);
    OrvAccess::s_FeatData feat{};
    for (uint32_t i = 0; i < features.size(); ++i) {
        ASSERT_TRUE(access.getFeatureData(&valid, &feat));
        ASSERT_TRUE(valid);
        EXPECT_EQ(feat.sequenceId, 77u);
        EXPECT_EQ(feat.index, i);
        EXPECT_EQ(0, std::memcmp(feat.position, features[i].data(), sizeof feat.position));
    }
    ASSERT_TRUE(access.getFeatureData(&valid, &feat));
    EXPECT_FALSE(valid);
}

TEST_F(WireTest, MetaPacketsWithEverySubpacket) {
    std::vector<OrvAccess::s_TgtData> list(5);
    for (uint32_t i = 0; i < list.size(); ++i) {
        OrvAccess::s_TgtData& t = list[i];
        t.tag = 300;
        t.index = i;
        t.kind = 2 + i;
        t.id = static_cast<uint16_t>(100 + i);
        t.hdrByte = 9;
        t.word1 = 1;
        t.word2 = 2;
        t.word3 = 0xFFFF;
        t.word4 = static_cast<uint16_t>(i);
        t.value1 = 1.5f * i;
        t.value6 = -2.0f;
        t.trailer = 0xEE;
    }
    const std::vector<Datagram> targetSubs = buildTargetSubpackets(list, 3);
    ASSERT_EQ(targetSubs.size(), 2u);

    MetaContent first;
    first.tag = 1000;
    first.interval = 0.002f;
    first.time = 5000000;
    first.imu = {20, 0, ChipSample::kClockBit, 0x4321, {0x8000, 1, 0xFFFF}, {100, 0x7FFF, 0}, true, 0x42};
    first.platPose = s_OrvAccessPlatPoseData{1000, {0.1f, -0.2f, 0.3f}};
    first.target = targetSubs[0];
    s_OrvAccessDiagData diag{};
    diag = {1000, 2.5f, 0xABCDEF, 7, -1.25f, 8, {0, 3, 0, 0}, 2, {1, 2, 3, 4}};
    first.diag = diag;
    s_OrvAccessGpsData gps{};
    gps = {1, 11, 48.1375, 11.575, 1.5f, 12, 13, 2.5f, 3.5f, 14, 510.25, -0.5, 4.5f, 5.5f, 6.5f, 15};
    first.gps = gps;
    MetaContent second;
    second.tag = 1001;
    second.interval = 0.002f;
    second.time = 5002000;
    second.imu = {3, 1, 0, 0, {2, 3, 4}, {5, 6, 7}, false, 0};
    second.target = targetSubs[1];
    send(orvtest::kMeta, buildMeta(first));
    send(orvtest::kMeta, buildMeta(second));

    bool valid = false;
    for (const MetaContent* m : {&first, &second}) {
        s_OrvAccessImuData imu{};
        ASSERT_TRUE(access.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu));
        ASSERT_TRUE(valid);
        EXPECT_EQ(imu.time, m->time);
        EXPECT_EQ(imu.tag, m->tag);
        EXPECT_EQ(imu.pid, m->imu.pid);
        EXPECT_EQ(imu.status, m->imu.status);
        EXPECT_EQ(imu.dt, m->interval);
        EXPECT_EQ(0, std::memcmp(imu.gyroRaw, m->imu.gyroRaw, sizeof imu.gyroRaw));
        EXPECT_EQ(0, std::memcmp(imu.accelRaw, m->imu.accelRaw, sizeof imu.accelRaw));
        for (int i = 0; i < 3; ++i) {
            EXPECT_FLOAT_EQ(imu.gyroRate[i],
                            static_cast<int16_t>(m->imu.gyroRaw[i]) * 3.90625e-5f / m->interval);
            EXPECT_FLOAT_EQ(imu.accelRate[i],
                            static_cast<int16_t>(m->imu.accelRaw[i]) * 6.25e-6f / m->interval);
        }
    }
    s_OrvAccessAuxData aux{};
    ASSERT_TRUE(access.getAuxData(&valid, &aux));
    EXPECT_TRUE(valid);
    EXPECT_EQ(aux.aux, 0x42u);
    ASSERT_TRUE(access.getAuxData(&valid, &aux));
    EXPECT_FALSE(valid);  // the type-3 sample has none

    s_OrvAccessPlatPoseData pp{};
    ASSERT_TRUE(access.getPlatformPoseData(&valid, &pp));
    ASSERT_TRUE(valid);
    EXPECT_EQ(0, std::memcmp(&pp, &*first.platPose, sizeof pp));
    s_OrvAccessDiagData gotDiag{};
    ASSERT_TRUE(access.getDiagData(&valid, &gotDiag));
    ASSERT_TRUE(valid);
    EXPECT_SAME(gotDiag, diag, tag);
    EXPECT_SAME(gotDiag, diag, diagValue1);
    EXPECT_SAME(gotDiag, diag, diagCount);
    EXPECT_SAME(gotDiag, diag, diagByte1);
    EXPECT_SAME(gotDiag, diag, diagValue2);
    EXPECT_SAME(gotDiag, diag, diagByte2);
    EXPECT_SAME(gotDiag, diag, errorCodes);
    EXPECT_SAME(gotDiag, diag, state);
    EXPECT_SAME(gotDiag, diag, optional);
    EXPECT_EQ(errorCodes(), (Codes{{0x103, 1000}}));
    s_OrvAccessGpsData gotGps{};
    ASSERT_TRUE(access.getGpsData(&valid, &gotGps));
    ASSERT_TRUE(valid);
    EXPECT_EQ(std::make_tuple(gotGps.valid, gotGps.gpsWord1, gotGps.lat, gotGps.lon, gotGps.gpsValue1,
                              gotGps.gpsHalf, gotGps.gpsByte1, gotGps.gpsValue2),
              std::make_tuple(gps.valid, gps.gpsWord1, gps.lat, gps.lon, gps.gpsValue1, gps.gpsHalf,
                              gps.gpsByte1, gps.gpsValue2));
    EXPECT_EQ(std::make_tuple(gotGps.gpsValue3, gotGps.gpsWord2, gotGps.gpsDouble1, gotGps.gpsDouble2,
                              gotGps.gpsValue4, gotGps.gpsValue5, gotGps.gpsValue6, gotGps.gpsByte2),
              std::make_tuple(gps.gpsValue3, gps.gpsWord2, gps.gpsDouble1, gps.gpsDouble2, gps.gpsValue4,
                              gps.gpsValue5, gps.gpsValue6, gps.gpsByte2));

    // Five entries over two subpackets, closed once after the last.
    OrvAccess::s_TgtData t{};
    for (size_t i = 0; i <= list.size(); ++i) {
        ASSERT_TRUE(access.getTargetData(&valid, &t));
        ASSERT_TRUE(valid);
        OrvAccess::s_TgtData want = list[std::min(i, list.size() - 1)];
        if (i == list.size()) want.kind = want.id = 0;
        EXPECT_EQ(std::make_tuple(t.tag, t.index, t.kind, t.id, t.hdrByte, t.word1, t.word2, t.word3, t.word4,
                                  t.value1, t.value6, t.trailer),
                  std::make_tuple(want.tag, want.index, want.kind, want.id, want.hdrByte, want.word1,
                                  want.word2, want.word3, want.word4, want.value1, want.value6, want.trailer))
            << "record " << i;
    }
}

TEST_F(WireTest, ImageInPieces) {
    Bytes pixels(307200);
    std::mt19937 rng(7);
    for (unsigned char& b : pixels) b = static_cast<unsigned char>(rng());
    const std::vector<Datagram> pieces =
        buildImagePieces(99, ORVACCESS_IMG_640x480_1, pixels.data(), pixels.size(), 60000);
    ASSERT_EQ(pieces.size(), 6u);
    EXPECT_EQ(pieces.back().size(), 12u + 307200 - 5 * 60000);
    Bytes image(pixels.size());
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int sid = 0;
    for (const Datagram& piece : pieces) {
        send(orvtest::kImage, piece);
        ASSERT_TRUE(access.getImage(&percent, &format, &sid, image.data(), image.size()));
    }
    EXPECT_EQ(percent, 100);
    EXPECT_EQ(format, ORVACCESS_IMG_640x480_1);
    EXPECT_EQ(sid, 99u);
    EXPECT_TRUE(image == pixels);
    EXPECT_TRUE(errorCodes().empty());
}

// ---- faults -------------------------------------------------------------------

namespace {

constexpr unsigned char kKind = kind::kHubError;  // a small datagram with a 32-bit field at 3

struct Stream {
    std::vector<Datagram> out;
    FaultCounts counts;
};

Stream run(const FaultRates& rates, uint32_t seed, uint32_t n) {
    FaultInjector f(rates, seed);
    Stream r;
    for (uint32_t i = 0; i < n; ++i) f.process(buildHubError(i, 1), r.out);
    f.flush(r.out);
    r.counts = f.counts();
    return r;
}

uint32_t seqOf(const Datagram& d) { return OrvosiUtil::word32(&d[3]); }

}  // namespace

TEST(Faults, EachFaultAloneIsExact) {
    const Stream lost = run({1, 0, 0, 0}, 1, 50);
    EXPECT_TRUE(lost.out.empty());
    EXPECT_EQ(lost.counts.dropped, 50u);

    const Stream r = run({0, 1, 0, 0}, 2, 100);
    const std::vector<Datagram>& bad = r.out;
    ASSERT_EQ(bad.size(), 100u);
    uint64_t wrongLength = 0;
    for (const Datagram& d : bad) {
        EXPECT_FALSE(OrvUtil::udpPktOk(d.data(), d.size(), kKind));
        wrongLength += OrvosiUtil::word16(&d[1]) != d.size();
    }
    EXPECT_EQ(r.counts.badLength, wrongLength);
    EXPECT_EQ(r.counts.corrupted(), 100u);
    EXPECT_GT(r.counts.badLength, 20u);
    EXPECT_GT(r.counts.badChecksum, 20u);

    const Stream dup = run({0, 0, 1, 0}, 3, 20);
    const std::vector<Datagram>& twice = dup.out;
    ASSERT_EQ(twice.size(), 40u);
    for (uint32_t i = 0; i < 40; ++i) {
        EXPECT_EQ(seqOf(twice[i]), i / 2);
        EXPECT_TRUE(OrvUtil::udpPktOk(twice[i].data(), twice[i].size(), kKind));
    }
    EXPECT_EQ(dup.counts.duplicated, 20u);

    // Pairs swap; the odd one out is held until the stream ends.
    const Stream swapped = run({0, 0, 0, 1}, 4, 5);
    std::vector<uint32_t> order;
    for (const Datagram& d : swapped.out) order.push_back(seqOf(d));
    EXPECT_EQ(order, (std::vector<uint32_t>{1, 0, 3, 2, 4}));
    EXPECT_EQ(swapped.counts.reordered, 2u);
}

TEST(Faults, MixedRatesAreCountedAndRepeatable) {
    const FaultRates rates{0.1, 0.1, 0.1, 0.1};
    const uint32_t n = 3000;
    const Stream r = run(rates, 42, n);
    const std::vector<Datagram>& out = r.out;
    const FaultCounts& c = r.counts;
    EXPECT_EQ(c.in, n);
    EXPECT_EQ(c.out, out.size());
    EXPECT_EQ(out.size(), n - c.dropped + c.duplicated);

    std::map<uint32_t, int> seen, failed;
    uint64_t late = 0;
    uint32_t highest = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        const uint32_t s = seqOf(out[i]);
        if (seen[s]++ == 0 && i > 0 && s < highest) ++late;
        highest = std::max(highest, s);
        if (!OrvUtil::udpPktOk(out[i].data(), out[i].size(), kKind)) failed[s] = 1;
    }
    uint64_t twice = 0;
    for (const auto& [s, k] : seen) twice += k == 2;
    EXPECT_EQ(n - seen.size(), c.dropped);
    EXPECT_EQ(twice, c.duplicated);
    EXPECT_EQ(failed.size(), c.corrupted());
    EXPECT_EQ(late, c.reordered);
    for (uint64_t k : {c.dropped, c.corrupted(), c.duplicated, c.reordered}) {
        EXPECT_GT(k, 200u);
        EXPECT_LT(k, 400u);
    }

    EXPECT_TRUE(run(rates, 42, n).out == out);
    EXPECT_FALSE(run(rates, 43, n).out == out);
}
