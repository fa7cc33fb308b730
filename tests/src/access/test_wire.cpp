// The protocol rows against the simulator's builders, each datagram family
// through the real service loop, and short datagrams after long ones: a
// field past a datagram's end reads as zero, never as the earlier bytes.
#include <cstring>
#include <initializer_list>
#include <set>
#include <utility>

#include "access/receive/Dispatch.hpp"
#include "orvsim/Wire.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::Bytes;
using Wire = orvtest::ReceiverTest;

// The offset of the first byte in which two records differ, or -1.
template <typename T>
long firstDifference(const T& a, const T& b) {
    const auto* x = reinterpret_cast<const unsigned char*>(&a);
    const auto* y = reinterpret_cast<const unsigned char*>(&b);
    for (size_t i = 0; i < sizeof(T); ++i)
        if (x[i] != y[i]) return static_cast<long>(i);
    return -1;
}

using orvtest::drain;

// Every byte non-zero, so that nothing reads as zero by chance.
template <typename T>
T filled(unsigned char seed) {
    T rec;
    auto* bytes = reinterpret_cast<unsigned char*>(&rec);
    for (size_t i = 0; i < sizeof rec; ++i) bytes[i] = static_cast<unsigned char>(0x41 + (seed + i) % 23);
    return rec;
}

// Every field a tracking packet carries set to its own value; the rest (and
// the padding) zero, as a received record has them.
s_OrvAccessTrkDataExt everyTrackedField() {
    s_OrvAccessTrkDataExt t{};
    t.packetTag = 1, t.poseTime = 2, t.platPoseTime = 3, t.time2 = 4, t.statusWord = 5;
    t.countA = 6, t.countB = 7, t.scalarA = 8.5f, t.scalarB = 9.5f;
    float next = 10.25f;
    for (auto [v, n] : std::initializer_list<std::pair<float*, int>>{{t.vecA, 18},
                                                                     {&t.cbn[0][0], 9},
                                                                     {&t.cbn2[0][0], 9},
                                                                     {t.position, 15},
                                                                     {t.vecJ, 3},
                                                                     {t.vecK, 3},
                                                                     {t.vecL, 6},
                                                                     {t.vecN, 6}})
        for (int i = 0; i < n; ++i) v[i] = next++;
    return t;
}

// The first `keep` bytes of a datagram, framed and sealed again as a whole,
// shorter datagram of the same kind.
Bytes cut(const Bytes& datagram, size_t keep) {
    Bytes b(datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(keep));
    return orvtest::seal(b, datagram[0]);
}

TEST(WireRows, AgreeWithTheBuildersAndRouteEveryFamilyOnce) {
    s_OrvAccessTrkDataExt rec{};
    const std::pair<const orvwire::Family*, Bytes> built[] = {
        {&orvwire::kTracking, orvsim::buildTracking(rec)},
        {&orvwire::kPra, orvsim::buildPra(s_OrvAccessPoseRecStats{})},
        {&orvwire::kHubData, orvsim::buildHubData(s_OrvAccessHubData{})},
        {&orvwire::kHubError, orvsim::buildHubError(1, 2)},
        {&orvwire::kNft, orvsim::buildNft(rec, {})},
        {&orvwire::kOptical, orvsim::buildOpticalSubpacket(orvsim::Optical{})},
        {&orvwire::kPlatPose, orvsim::buildPlatPoseSubpacket(s_OrvAccessPlatPoseData{})},
        {&orvwire::kDiag, orvsim::buildDiagSubpacket(s_OrvAccessDiagData{})},
        {&orvwire::kGps, orvsim::buildGpsSubpacket(s_OrvAccessGpsData{})},
        {&orvwire::kTarget, orvsim::buildTargetSubpackets({}, 1).at(0)},
        {&orvwire::kImu, orvsim::buildChipPacket(orvsim::ChipSample{})},
    };
    for (const auto& [family, bytes] : built) {
        EXPECT_EQ(bytes.at(0), family->startByte) << family->name;
        EXPECT_EQ(bytes.size(), family->fixedSize) << family->name;
    }
    // A meta packet with no chip sample holds its header and checksum only.
    orvsim::MetaContent meta;
    EXPECT_EQ(orvsim::buildMeta(meta).size(), orvwire::kMeta.fixedSize);

    // The clock fields that tools rewrite sit where the offsets say.
    rec.poseTime = 0x0102030405060708;
    meta.time = 0x1112131415161718;
    EXPECT_EQ(OrvosiUtil::word64(&orvsim::buildTracking(rec)[ORVWIRE_TRACKING_POSE_TIME_AT]), rec.poseTime);
    EXPECT_EQ(OrvosiUtil::word64(&orvsim::buildNft(rec, {})[ORVWIRE_NFT_POSE_TIME_AT]), rec.poseTime);
    EXPECT_EQ(OrvosiUtil::word64(&orvsim::buildMeta(meta)[ORVWIRE_META_TIME_AT]), meta.time);

    // No two rows of a port take the same first byte; every code is one of
    // the library's and has its message or is left to its origin on purpose.
    std::set<std::pair<int, int>> seen;
    for (const orvwire::Route& r : orvwire::kRoutes) {
        EXPECT_TRUE(seen.insert({r.port, r.firstByte}).second) << r.family->name;
        if (r.family->badCode != 0) {
            EXPECT_EQ(r.family->badCode & ORVACCESS_ORIGIN_MASK, ORVACCESS_ORIGIN_ORVACCESS)
                << r.family->name;
        }
    }
}

// One datagram of each routed family, built from a record whose every field
// is set, goes through the service loop and comes back as the same record.
TEST_F(Wire, EveryDatagramFamilyRoundTripsThroughTheServiceLoop) {
    openReceiver();
    s_OrvAccessTrkDataExt track = everyTrackedField();
    // The getters add the Euler angles of the attitude.
    OrvUtil::cbn2Euler(track.cbn, track.euler);
    send(orvwire::kCorePort, orvsim::buildTracking(track));
    EXPECT_EQ(received(), static_cast<uint32_t>(orvwire::kTracking.receivedBit));
    auto tracks = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(firstDifference(tracks[0], track), -1);

    s_OrvAccessPoseRecStats pra{};
    pra.tag = 7, pra.flagA = 1, pra.stat0 = 2, pra.stat1 = 3, pra.stat2 = 4, pra.value0 = 0.5f;
    pra.vec4[2] = 9.5f, pra.value5 = -1.25f, pra.extra[35] = 0xA1B2C3D4;
    send(orvwire::kCorePort, orvsim::buildPra(pra));
    EXPECT_EQ(received(), static_cast<uint32_t>(orvwire::kPra.receivedBit));
    auto stats = drain(access, &OrvAccess::getPoseRecoveryStats);
    ASSERT_EQ(stats.size(), 1u);
    EXPECT_EQ(firstDifference(stats[0], pra), -1);

    s_OrvAccessHubData hub{};
    hub.word = 11, hub.status = 12, hub.halfWord = 13, hub.words[1] = 14, hub.time = 15;
    hub.cbn[0][0] = hub.cbn[1][1] = hub.cbn[2][2] = 1.0f, hub.vec[6][2] = 16.5f, hub.lastByte = 17;
    OrvUtil::cbn2Euler(hub.cbn, hub.euler);
    send(orvwire::kHubPort, orvsim::buildHubData(hub));
    send(orvwire::kHubPort, orvsim::buildHubError(0x1234, 5));
    EXPECT_EQ(received(), static_cast<uint32_t>(orvwire::kHubData.receivedBit));
    auto hubs = drain(access, &OrvAccess::getHubData);
    ASSERT_EQ(hubs.size(), 1u);
    EXPECT_EQ(firstDifference(hubs[0], hub), -1);
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ORIGIN_ORVHUB | 5, 0x1234}}));

    s_OrvAccessTrkDataExt nft{};
    nft.packetTag = 21, nft.poseTime = 22, nft.cbn[0][0] = nft.cbn[1][1] = nft.cbn[2][2] = 1.0f;
    nft.position[2] = 23.5f, nft.extB[5] = 24.5f, nft.countA = 25, nft.extD[2] = 26.5f;
    OrvUtil::cbn2Euler(nft.cbn, nft.euler);
    send(orvwire::kNftPort, orvsim::buildNft(nft, {{1, 2, 3}, {4, 5, 6}}));
    EXPECT_EQ(received(), static_cast<uint32_t>(orvwire::kNft.receivedBit));
    tracks = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(firstDifference(tracks[0], nft), -1);
    const auto features = drain(access, &OrvAccess::getFeatureData);
    ASSERT_EQ(features.size(), 2u);
    EXPECT_TRUE(features[1].sequenceId == 21 && features[1].index == 1 && features[1].position[2] == 6.0f);

    orvsim::MetaContent meta;
    meta.tag = 31, meta.interval = 0.001f, meta.time = 32, meta.imu.pid = 0, meta.imu.gyroRaw[0] = 100;
    // Set field by field on a zeroed record: an aggregate initialiser leaves
    // the padding undefined, and the records are compared byte for byte.
    s_OrvAccessDiagData want;
    std::memset(&want, 0, sizeof want);
    want.tag = 33, want.diagValue1 = 1.5f, want.diagCount = 34, want.diagByte1 = 35, want.diagValue2 = 2.5f;
    want.diagByte2 = 36, want.state = 2, want.optional[0] = 1, want.optional[3] = 4;
    meta.diag = want;
    send(orvwire::kMetaPort, orvsim::buildMeta(meta));
    EXPECT_EQ(received(), static_cast<uint32_t>(orvwire::kMeta.receivedBit));
    s_OrvAccessImuData imu{};
    bool valid = false;
    ASSERT_TRUE(access.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu) && valid);
    EXPECT_TRUE(imu.time == 32 && imu.tag == 31 && imu.gyroRaw[0] == 100 && imu.dt == 0.001f);
    const auto diag = drain(access, &OrvAccess::getDiagData);
    ASSERT_EQ(diag.size(), 1u);
    EXPECT_EQ(firstDifference(diag[0], want), -1);
    EXPECT_TRUE(errorCodes().empty());
}

// After a long datagram of a kind, a short one of the same kind that passes
// its framing check: what lies past its end reads as zero.
TEST_F(Wire, AShortDatagramReadsZerosWhereAnEarlierOneLeftBytes) {
    openReceiver();
    const s_OrvAccessTrkDataExt track = filled<s_OrvAccessTrkDataExt>(2);
    const Bytes full = orvsim::buildTracking(track);
    send(orvwire::kCorePort, full);
    send(orvwire::kCorePort, cut(full, 40));
    auto tracks = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[1].packetTag, track.packetTag);
    EXPECT_TRUE(tracks[1].vecO[2] == 0.0f && tracks[1].position[0] == 0.0f && tracks[1].time2 == 0);
    errorCodes();

    s_OrvAccessPoseRecStats pra = filled<s_OrvAccessPoseRecStats>(3);
    const Bytes fullPra = orvsim::buildPra(pra);
    send(orvwire::kCorePort, fullPra);
    send(orvwire::kCorePort, cut(fullPra, 20));
    auto stats = drain(access, &OrvAccess::getPoseRecoveryStats);
    ASSERT_EQ(stats.size(), 2u);
    EXPECT_TRUE(stats[0].extra[35] != 0 && stats[1].extra[35] == 0 && stats[1].value5 == 0.0f);

    s_OrvAccessHubData hub{};
    hub.lastByte = 99, hub.vec[6][2] = 7.5f;
    const Bytes fullHub = orvsim::buildHubData(hub);
    send(orvwire::kHubPort, fullHub);
    send(orvwire::kHubPort, cut(fullHub, 60));
    // A hub error report too short to hold its code byte queues nothing,
    // although the report before it left its code in the buffer.
    const Bytes err = orvsim::buildHubError(0x55, 9);
    send(orvwire::kHubPort, err);
    send(orvwire::kHubPort, Bytes(err.begin(), err.begin() + 7));
    auto hubs = drain(access, &OrvAccess::getHubData);
    ASSERT_EQ(hubs.size(), 2u);
    EXPECT_TRUE(hubs[1].lastByte == 0 && hubs[1].vec[6][2] == 0.0f);
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ORIGIN_ORVHUB | 9, 0x55}}));

    s_OrvAccessTrkDataExt nft{};
    nft.packetTag = 5, nft.extD[1] = 3.5f;
    const Bytes fullNft = orvsim::buildNft(nft, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    send(orvwire::kNftPort, fullNft);
    send(orvwire::kNftPort, cut(fullNft, 30));  // its feature count reads as zero
    tracks = drain(access, &OrvAccess::getTrackingData);
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[1].extD[1], 0.0f);
    EXPECT_EQ(drain(access, &OrvAccess::getFeatureData).size(), 3u);

    // A meta packet whose diagnostic offset points past its end: the
    // subpacket reads as zeros and fails its check, where the earlier meta
    // packet's diagnostic subpacket once sat.
    orvsim::MetaContent meta;
    meta.tag = 1;
    meta.diag = s_OrvAccessDiagData{2, 1.5f, 3, 4, 2.5f, 5, {0, 0, 0, 0}, 2, {1, 2, 3, 4}};
    const Bytes fullMeta = orvsim::buildMeta(meta);
    send(orvwire::kMetaPort, fullMeta);
    send(orvwire::kMetaPort, cut(fullMeta, ORVWIRE_META_IMU_AT));
    EXPECT_EQ(drain(access, &OrvAccess::getDiagData).size(), 1u);
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_DIAG_SUBPKT, 0}}));
}

}  // namespace
