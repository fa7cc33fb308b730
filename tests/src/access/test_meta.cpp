// Meta packets sent over real UDP to an open access object (and, for reads
// that must stop at a packet's end, handed in from exactly sized memory):
// IMU records, clock-relation rows, auxiliary bytes, the platform-pose,
// target, diagnostic and GPS subpackets, bad and overrunning subpackets,
// queue bounds, and a receive path that does not allocate.
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvsim/Wire.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::Bytes;

// Sets the length word to `length` and byte length - 1 to the checksum;
// bytes behind it stay.
Bytes sealAt(Bytes b, size_t length) {
    OrvosiUtil::lendian(&b[1], length, 2);
    b[length - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), length - 1));
    return b;
}

// A type-20 chip packet: status, gyro and accelerometer words, and the
// auxiliary byte behind `first2000`.
Bytes chip(unsigned char pid, unsigned char status, unsigned char first2000 = 0, unsigned char aux = 0) {
    Bytes b = orvsim::buildChipPacket(
        {20, pid, status, 0x1234, {0x8000, 256, 1000}, {0xFF60, 16000, 0xFFFF}, false, aux});
    b[25] = first2000, b[31] = static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), 31));
    return b;
}

// Format 3 carries the pose at 8, format 2 at 20.
Bytes platPose(uint32_t tag, unsigned char format, float r, float p, float y) {
    Bytes b = orvsim::buildPlatPoseSubpacket({tag, {r, p, y}});
    if (format == 2) b.insert(b.begin() + 8, 12, 0xFF);
    b[7] = format;
    return orvtest::seal(b, 7);
}
// Entry i of the list carries the id given, kind = id % 10, words
// 10i+1..10i+4 and values i+0.5 .. i+5.5; header byte 0x44, trailer 0x77.
// The subpacket holds the entries from `first` on, at most `n` of them.
Bytes target(uint32_t tag, const std::vector<unsigned>& ids, size_t first = 0, size_t n = 255) {
    std::vector<OrvAccess::s_TgtData> list;
    for (unsigned i = 0; i < ids.size(); ++i) {
        const auto w = [i](unsigned k) { return static_cast<uint16_t>(10 * i + k); };
        list.push_back({tag, i, ids[i] % 10, static_cast<uint16_t>(ids[i]), 0x44, w(1), w(2), w(3), w(4),
                        i + 0.5f, i + 1.5f, i + 2.5f, i + 3.5f, i + 4.5f, i + 5.5f, 0x77});
    }
    Bytes b = orvsim::buildTargetSubpackets(list, n)[first / n];
    b[9] = 0x99;  // not read
    return orvtest::seal(b, 6);
}
// All 29 field bytes and the optional ones are present whatever `length` says.
Bytes diag(uint32_t tag, std::array<unsigned char, 4> e, unsigned char state, size_t length) {
    const s_OrvAccessDiagData d{
        tag, 1.25f, 0xABCDEF, 0x11, -2.5f, 0x22, {e[0], e[1], e[2], e[3]}, state, {0xA1, 0xA2, 0xA3, 0xA4}};
    return sealAt(orvsim::buildDiagSubpacket(d), length);
}
const s_OrvAccessGpsData kFix{1,    0x01020304, 47.6062, -122.3321, 3.5f,   0xBEEF,   0x5A,  -1.75f,
                              1e6f, 0xCAFEF00D, 1.0 / 3, -6.02e23,  0.125f, -0.0625f, 42.0f, 0xC3};
Bytes gps(const s_OrvAccessGpsData& g, unsigned char format = 1) {
    Bytes b = orvsim::buildGpsSubpacket(g);
    b[3] = format;
    return orvtest::seal(b, 8);
}

// A meta packet: the header (0xEE in the bytes not read), the chip packet at
// 27, then the subpackets (platform pose, target, diagnostic, GPS; empty =
// absent).
using Subs = orvsim::MetaSubpackets;
enum Slot { kPlat, kTarget, kDiag, kGps };
Bytes meta(const Bytes& chipPkt, const Subs& subs = {}, float dt = 0.005f, uint64_t time = 1000) {
    Bytes b = orvsim::buildMeta(0xCAFE0001, dt, time, chipPkt, subs);
    b[7] = b[12] = 0xEE;
    return orvtest::seal(b, 19);
}
// One subpacket, no IMU data.
Bytes meta(Slot slot, const Bytes& sub) {
    Subs s;
    s[slot] = sub;
    return meta({}, s, 0.0f);
}

size_t count(const std::string& text, const std::string& line) {
    size_t n = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++n;
    return n;
}

class Meta : public orvtest::ReceiverTest {
protected:
    void SetUp() override { openReceiver(); }
    // Sends to the meta port and services the ports.
    void post(const Bytes& packet) {
        send(orvtest::kMeta, packet);
        received();
    }
    // Sends ids from..to, bit 4 of the status set where `bit` says; returns
    // those bits as text.
    template <typename F>
    std::string ids(int from, int to, F bit) {
        std::string bits;
        for (int pid = from; pid <= to; ++pid) {
            bits += bit(pid) ? '1' : '0';
            post(meta(chip(static_cast<unsigned char>(pid), bit(pid) ? 0x10 : 0xEF)));
        }
        return bits;
    }
    // The completed clock-relation row as text, "" if there is none.
    std::string row(e_OrvAccessImuSelect imu = ORVACCESS_IMU_CAMERA) {
        OrvAccess::s_ImuCrs r{};
        EXPECT_TRUE(access.getImuCrs(imu, &valid, &r));
        std::string bits;
        for (int pid = 0; valid && pid < 256; ++pid) bits += (r.bits[pid / 8] >> (pid % 8)) & 1 ? '1' : '0';
        return bits;
    }
    size_t drainImu() {
        size_t n = 0;
        while (access.getImuData(ORVACCESS_IMU_CAMERA, &valid, &d) && valid) ++n;
        return n;
    }
    template <typename T>
    std::vector<T> drain(bool (OrvAccess::*get)(bool*, T*)) {
        std::vector<T> out;
        for (T rec{}; (access.*get)(&valid, &rec) && valid;) out.push_back(rec);
        return out;
    }
    // (tag, count) of each list getTargetCount finds, until it finds none.
    Codes counts() {
        Codes out;
        for (unsigned tag = 0, n = 0; access.getTargetCount(&valid, &tag, &n) && valid;)
            out.emplace_back(tag, n);
        return out;
    }
    s_OrvAccessImuData d{};
    bool valid = false;
};

TEST_F(Meta, ImuRecordsCarryTheHeaderTheChipAndBothRates) {
    // Without a positive interval there is no IMU subpacket to look at.
    access.setVerbosity(0x2);
    for (float dt : {0.0f, -0.01f}) {
        orvtest::CapturedStdout out;
        post(meta(Bytes(32, 0xEE), {}, dt));
        EXPECT_EQ(count(out.text(), "ORVAINFO: IMU data not present\n"), 1u);
    }
    EXPECT_TRUE(access.getImuDataLatest(&valid, &d) && !valid);
    post(meta(chip(42, 0x9C), {}, 0.005f, 0x123456789ABC));
    post(meta(chip(43, 0x9C), {}, 0.25f, 0xFFFFFFFFFFFF));

    ASSERT_TRUE(access.getImuData(ORVACCESS_IMU_CAMERA, &valid, &d) && valid);
    EXPECT_EQ(std::make_tuple(d.time, d.tag, d.pid, d.status, d.dt),
              std::make_tuple(0x123456789ABCull, 0xCAFE0001u, 42u, 0x9Cu, 0.005f));
    const auto v = [](const auto* p) { return std::vector<double>(p, p + 3); };
    EXPECT_EQ(v(d.gyroRaw), (std::vector<double>{0x8000, 256, 1000}));
    EXPECT_EQ(v(d.accelRaw), (std::vector<double>{0xFF60, 16000, 0xFFFF}));
    EXPECT_EQ(v(d.gyroRate), (std::vector<double>{-1.28f / 0.005f, 0.01f / 0.005f, 0.0390625f / 0.005f}));
    EXPECT_EQ(v(d.accelRate), (std::vector<double>{-0.001f / 0.005f, 0.1f / 0.005f, -6.25e-6f / 0.005f}));
    // The latest record is the second one and stays readable; the C
    // interface yields it from the queue.
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(access.getImuDataLatest(&valid, &d) && valid && d.pid == 43 &&
                    d.gyroRate[0] == -1.28f / 0.25f);
    int n = 0;
    EXPECT_TRUE(OrvAccess_getImuData(&access, ORVACCESS_IMU_CAMERA, &n, &d) == 1 && n == 1 &&
                d.time == 0xFFFFFFFFFFFF);

    // The platform source exists and stays empty; other selectors fail.
    EXPECT_TRUE(access.getImuData(ORVACCESS_IMU_PLATFORM, &valid, &d) && !valid);
    const auto bad = static_cast<e_OrvAccessImuSelect>(2);
    EXPECT_FALSE(access.getImuData(bad, &valid, &d));
    EXPECT_EQ(access.getLastError(), "Invalid source IMU selector");
    access.clearLastError();
    OrvAccess::s_ImuCrs r{};
    EXPECT_FALSE(access.getImuCrs(bad, &valid, &r));
    EXPECT_EQ(access.getLastError(), "Invalid source IMU selector");
    EXPECT_EQ(errorCodes(), Codes{});
}

TEST_F(Meta, FullIdCyclesGiveOneRowReadableOnceAndBrokenOnesNone) {
    const auto every = [](int n) { return [n](int pid) { return pid % n == 0; }; };
    std::string bits = ids(0, 254, every(3));
    EXPECT_EQ(row(), "");
    bits += ids(255, 255, every(3));
    EXPECT_EQ(row(), bits);
    EXPECT_EQ(row(), "");
    EXPECT_EQ(row(ORVACCESS_IMU_PLATFORM), "");
    // A completed row survives while the next one fills; a newer complete
    // cycle replaces it.
    bits = ids(0, 255, every(5));
    ids(0, 100, every(2));
    EXPECT_EQ(row(), bits);
    ids(101, 255, every(2));
    bits = ids(0, 255, every(7));
    EXPECT_EQ(row(), bits);

    // A skipped id, then a zero in the middle of a cycle, each break it once
    // (the zero does not start the next cycle); the next clean cycle completes.
    access.setVerbosity(0x2);
    const auto lines = [&](const std::vector<std::pair<int, int>>& runs) {
        orvtest::CapturedStdout out;
        for (auto [from, to] : runs) bits = ids(from, to, [](int pid) { return pid == 200; });
        return count(out.text(), "ORVAINFO: Camera IMU PID sequence error\n");
    };
    EXPECT_EQ(lines({{0, 1}, {3, 255}, {0, 10}, {0, 255}}), 2u);
    EXPECT_EQ(row(), "");
    EXPECT_EQ(lines({{0, 255}}), 0u);
    EXPECT_EQ(row(), bits);
    EXPECT_EQ(drainImu(), 4 * 256u + 255u + 11u + 256u + 256u);
    EXPECT_EQ(errorCodes(), Codes{});
}

TEST_F(Meta, BadChipPacketRaises777AndTheOtherSubpacketsStillParse) {
    std::vector<Bytes> bad(3, chip(0, 0));
    bad[0][0] = 6, bad[0][31]--;       // sync byte
    bad[1][10] ^= 1;                   // checksum
    bad[2][1] = 10, bad[2][31] += 10;  // unknown type
    access.setVerbosity(0x1);
    for (const Bytes& c : bad) {
        orvtest::CapturedStderr err;
        post(meta(c, {platPose(77, 3, 1.5f, -2.5f, 3.25f)}));
        EXPECT_EQ(err.text(), "ORVALOG: Bad IMU subpacket\n");
        EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_IMU_SUBPKT, 0}}));
        EXPECT_EQ(drainImu(), 0u);
        s_OrvAccessPlatPoseData pose{};
        EXPECT_TRUE(access.getPlatformPoseData(&valid, &pose) && valid && pose.tag == 77 &&
                    pose.pose[2] == 3.25f);
    }
    // Subpackets are visited in the order platform pose, target, diagnostic,
    // GPS: four broken ones raise their codes in that order, after the IMU's.
    access.setVerbosity(0);
    post(meta(bad[1], {Bytes{0xEE}, Bytes{0xEE}, Bytes{0xEE}, Bytes(40, 0xEE)}));
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_IMU_SUBPKT, 0},
                                   {ORVACCESS_ERR_BAD_PLATPOSE_SUBPKT, 0},
                                   {ORVACCESS_ERR_BAD_TARGET_SUBPKT, 0},
                                   {ORVACCESS_ERR_BAD_DIAG_SUBPKT, 0},
                                   {ORVACCESS_ERR_BAD_GPS_SUBPKT, 0}}));

    // A packet handed in from the application's memory (sized exactly, so
    // that the address sanitizer sees a read past it) is read within its
    // length, whatever the chip type or the offsets claim.
    const Bytes full = meta(chip(1, 0, 0x20, 9));
    for (size_t len : {27 + 31, 27 + 2, 27, 12, 3}) {
        Bytes cut(full.begin(), full.begin() + static_cast<long>(len));
        OrvosiUtil::lendian(&cut[1], len, 2);
        access.processMetaPkt(cut.data());
        EXPECT_EQ(errorCodes(), (len >= 12 ? Codes{{ORVACCESS_ERR_BAD_IMU_SUBPKT, 0}} : Codes{})) << len;
    }
    EXPECT_EQ(drainImu(), 0u);
}

TEST_F(Meta, AuxiliaryBytesQueueBoundsAndNoAllocation) {
    openReceiver("[Memory]\nimuQueueSize = 2\n");
    s_OrvAccessAuxData a{};
    EXPECT_TRUE(access.getAuxDataLatest(&valid, &a) && !valid);
    // The auxiliary byte travels when the high three bits of the byte
    // before it are not zero. The bounds keep the newest.
    std::vector<Bytes> burst;
    for (unsigned char first : {0x1F, 0x20, 0xE0, 0x00, 0x40}) {
        const auto n = static_cast<unsigned char>(burst.size());
        const Subs subs{platPose(n, 3, 0, 0, 0), target(n, {1}), diag(n, {5, 0, 0, 0}, 1, 30), gps(kFix)};
        burst.push_back(meta(chip(n, 0, first, 0x80 + n), subs));
    }
    access.setVerbosity(0x2);
    auto out = std::make_unique<orvtest::CapturedStdout>();
    for (const Bytes& p : burst) post(p);
    const std::string text = out->text();
    EXPECT_EQ(count(text, "ORVAINFO: Camera IMU queue overflow\n"), 3u);
    EXPECT_EQ(count(text, "ORVAINFO:  AuxData queue overflow\n"), 1u);
    int delivered = 0;
    EXPECT_TRUE(OrvAccess_getAuxData(&access, &delivered, &a) == 1 && delivered == 1 && a.aux == 0x82);
    EXPECT_TRUE(access.getAuxData(&valid, &a) && valid && a.aux == 0x84);
    EXPECT_TRUE(access.getAuxData(&valid, &a) && !valid);
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(access.getAuxDataLatest(&valid, &a) && valid && a.aux == 0x84);
    EXPECT_EQ(drainImu(), 2u);
    EXPECT_EQ(d.pid, 4u);

    // A burst of meta packets with every subpacket, their error codes,
    // overflow and sequence-error lines, is received without allocating
    // once the queues are in use.
    for (int i = 0; i < 20; ++i) send(orvtest::kMeta, burst[i % 5]);
    out = std::make_unique<orvtest::CapturedStdout>();
    EXPECT_EQ(orvtest::allocationsDuring([&] { received(); }), 0);
    EXPECT_NE(out->text(), "");
    EXPECT_EQ(drainImu(), 2u);
    EXPECT_EQ(errorCodes().size(), 25u);
}

TEST_F(Meta, PlatformPoseAndGpsFormats) {
    // Format 2 reads its pose further back; other formats are dropped unreported.
    post(meta({}, {platPose(1, 3, 0.5f, -1.5f, 3.0f), {}, {}, gps(kFix)}, 0));
    post(meta({}, {platPose(2, 2, 1.0f, 2.0f, 3.0f), {}, {}, gps(kFix, 2)}, 0));
    post(meta({}, {platPose(3, 4, 9.0f, 9.0f, 9.0f), {}, {}, gps(kFix, 0)}, 0));
    post(meta(kPlat, platPose(4, 1, 9.0f, 9.0f, 9.0f)));
    std::vector<float> poses;
    for (const auto& p : drain(&OrvAccess::getPlatformPoseData))
        poses.insert(poses.end(), {float(p.tag), p.pose[0], p.pose[1], p.pose[2]});
    EXPECT_EQ(poses, (std::vector<float>{1, 0.5f, -1.5f, 3, 2, 1, 2, 3}));
    const auto fixes = drain(&OrvAccess::getGpsData);
    ASSERT_EQ(fixes.size(), 1u);
    EXPECT_EQ(fixes[0].valid, 1);
    EXPECT_EQ(gps(fixes[0]), gps(kFix));  // every field, through its encoding
    EXPECT_EQ(errorCodes(), Codes{});
}

TEST_F(Meta, TargetListsOverSeveralSubpacketsAndRoomForTheWholeBatch) {
    for (uint32_t tag : {0x51u, 0x52u, 0x53u}) {
        post(meta(kTarget, target(tag, {101, 102, 103, 104, 105}, 0, 3)));
        post(meta(kTarget, target(tag, {101, 102, 103, 104, 105}, 3, 3)));
    }
    post(meta(kTarget, target(0x55, {5, 6, 7}, 2, 2)));                           // does not start at index 0
    post(meta(kTarget, target(0x56, {8, 9, 10, 11, 12, 13, 14, 15, 16}, 0, 2)));  // short of its total
    // The first list record by record: five entries, then the closing
    // record, a copy of the last entry with kind and id 0.
    std::vector<std::array<unsigned, 3>> got;  // index, kind, id
    OrvAccess::s_TgtData t{};
    while (got.size() < 6 && access.getTargetData(&valid, &t) && valid)
        got.push_back({t.index, t.kind, t.id});
    EXPECT_EQ(got,
              (decltype(got){{0, 1, 101}, {1, 2, 102}, {2, 3, 103}, {3, 4, 104}, {4, 5, 105}, {4, 0, 0}}));
    EXPECT_EQ(std::make_tuple(t.tag, t.hdrByte, t.word1, t.word2, t.word3, t.word4, t.trailer),
              std::make_tuple(0x51u, 0x44u, uint16_t{41}, uint16_t{42}, uint16_t{43}, uint16_t{44}, 0x77u));
    EXPECT_EQ((std::vector<float>{t.value1, t.value2, t.value3, t.value4, t.value5, t.value6}),
              (std::vector<float>{4.5f, 5.5f, 6.5f, 7.5f, 8.5f, 9.5f}));
    // getTargetCount consumes a whole list, drops each record that does not
    // start one, and counts a list left open short of its total.
    EXPECT_EQ(counts(), (Codes{{0x52, 5}, {0x53, 5}}));
    EXPECT_EQ(counts(), Codes{});
    EXPECT_EQ(counts(), (Codes{{0x56, 2}}));
    EXPECT_EQ(errorCodes(), Codes{});

    // Three lists of three under a bound of 10: each subpacket wants n + 1 = 4
    // places free below the bound, so the third drops three records, not two.
    openReceiver("[Memory]\ntargetQueueSize = 10\n");
    access.setVerbosity(OrvUtil::kVerbInfo);
    orvtest::CapturedStdout out;
    for (uint32_t tag : {1u, 2u, 3u}) post(meta(kTarget, target(tag, {11, 12, 13})));
    EXPECT_EQ(count(out.text(), "ORVAINFO: Target data queue overflow\n"), 1u);
    Codes left;  // (tag, id)
    for (const auto& r : drain(&OrvAccess::getTargetData)) left.emplace_back(r.tag, r.id);
    EXPECT_EQ(left, (Codes{{1, 0}, {2, 11}, {2, 12}, {2, 13}, {2, 0}, {3, 11}, {3, 12}, {3, 13}, {3, 0}}));
}

TEST_F(Meta, DiagnosticCodesStateOptionalBytesStreamingAndOverruns) {
    s_OrvAccessDiagData latest{};
    EXPECT_TRUE(access.getDiagDataLatest(&valid, &latest) && !valid);
    // Each non-zero error byte becomes an orvRx code carrying the tag; the
    // state is the status's diagnostic word until it is reported.
    send(orvtest::kMeta, meta(kDiag, diag(0x71, {0x01, 0x00, 0xFF, 0x80}, 2, 26)));
    s_OrvAccessStatus st{};
    ASSERT_TRUE(access.getStatus(&st) && st.diagState == 2);
    ASSERT_TRUE(access.getStatus(&st) && st.diagState == 0);
    EXPECT_EQ(errorCodes(), (Codes{{0x101, 0x71}, {0x1FF, 0x71}, {0x180, 0x71}}));
    EXPECT_TRUE(access.getStreaming());

    // Optional bytes: none up to length 27, two above 27, four above 29.
    // State 3 (orvRx stopped streaming) clears the streaming flag.
    for (size_t length : {27, 28, 29, 30})
        post(meta(kDiag, diag(static_cast<uint32_t>(length), {}, 3, length)));
    EXPECT_FALSE(access.getStreaming());
    const auto recs = drain(&OrvAccess::getDiagData);
    ASSERT_EQ(recs.size(), 5u);
    const s_OrvAccessDiagData& r = recs[0];
    EXPECT_EQ(
        std::make_tuple(r.tag, r.diagValue1, r.diagCount, r.diagByte1, r.diagValue2, r.diagByte2, r.state),
        std::make_tuple(0x71u, 1.25f, 0xABCDEFu, uint8_t{0x11}, -2.5f, uint8_t{0x22}, 2u));
    EXPECT_EQ(Bytes(r.errorCodes, r.errorCodes + 4), (Bytes{0x01, 0x00, 0xFF, 0x80}));
    std::vector<uint32_t> optional;
    for (const auto& rec : recs) optional.push_back(OrvosiUtil::word32(rec.optional));
    EXPECT_EQ(optional, (std::vector<uint32_t>{0, 0, 0xA2A1, 0xA2A1, 0xA4A3A2A1}));
    // The latest record is copied, not consumed.
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(access.getDiagDataLatest(&valid, &latest) && valid && latest.tag == 30);

    // Target entries, trailer and checksum exactly fill the length; one
    // byte less is an overrun; so is a length that covers one entry of three
    // (the rest is read from the packet behind it). A diagnostic subpacket
    // too short for its fields is read on past its end too. All are kept.
    access.setVerbosity(OrvUtil::kVerbLog);
    orvtest::CapturedStderr err;
    post(meta(kTarget, sealAt(target(0x61, {1, 2}), 14 + 70 + 2)));
    post(meta(kTarget, sealAt(target(0x62, {1, 2}), 14 + 70 + 1)));
    post(meta(kTarget, sealAt(target(0x63, {1, 2, 3}), 14 + 35 + 22)));
    post(meta(kDiag, diag(0x90, {0, 0, 0, 0x09}, 5, 25)));  // one byte short
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_TARGET_OVERRUN, 0x62},
                                   {ORVACCESS_ERR_TARGET_OVERRUN, 0x63},
                                   {0x109, 0x90},
                                   {ORVACCESS_ERR_DIAG_OVERRUN, 0x90}}));
    EXPECT_EQ(err.text(),
              "ORVALOG: Overrun in target subpacket\nORVALOG: Overrun in target subpacket\n"
              "ORVALOG: Overrun in diagnostic subpacket\n");
    EXPECT_EQ(counts(), (Codes{{0x61, 2}, {0x62, 2}, {0x63, 3}}));
    EXPECT_TRUE(access.getDiagData(&valid, &latest) && valid && latest.tag == 0x90);
}

TEST_F(Meta, BadSubpacketsRaiseTheirCodeAndAreSkipped) {
    // Each kind with one framing fault (the framing check itself is shared).
    std::vector<Bytes> bad{platPose(1, 3, 0, 0, 0), target(1, {1}), {13, 2, 0}, gps(kFix)};
    bad[0][0] ^= 0x40, bad[1][5] ^= 1, bad[3][5] ^= 1;
    bad[0] = sealAt(bad[0], bad[0].size());  // a good checksum for the wrong start byte
    const char* texts[] = {"platform pose subpacket: Wrong start byte", "target subpacket: Invalid checksum",
                           "diagnostic subpacket: Invalid size", "GPS subpacket: Invalid checksum"};
    const unsigned short codes[] = {ORVACCESS_ERR_BAD_PLATPOSE_SUBPKT, ORVACCESS_ERR_BAD_TARGET_SUBPKT,
                                    ORVACCESS_ERR_BAD_DIAG_SUBPKT, ORVACCESS_ERR_BAD_GPS_SUBPKT};
    access.setVerbosity(OrvUtil::kVerbLog);
    for (int k = 0; k < 4; ++k) {
        orvtest::CapturedStderr err;
        post(meta(static_cast<Slot>(k), bad[k]));
        EXPECT_EQ(errorCodes(), (Codes{{codes[k], 0}}));
        EXPECT_EQ(err.text(), std::string("ORVALOG: Bad ") + texts[k] + "\n");
    }

    // The largest datagram IPv4 carries, with a GPS subpacket at 65500 whose
    // length runs past the 65535-byte receive buffer, and a diagnostic
    // offset at the buffer's very end.
    Bytes big(65507, 0);
    OrvosiUtil::lendian(&big[15], 65535, 2);
    OrvosiUtil::lendian(&big[17], 65500, 2);
    big[65500] = 8, big[65501] = 40, big[65503] = 1;
    orvtest::CapturedStderr err;
    post(orvtest::seal(big, 19));
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_DIAG_SUBPKT, 0}, {ORVACCESS_ERR_BAD_GPS_SUBPKT, 0}}));
    EXPECT_EQ(err.text(),
              "ORVALOG: Bad diagnostic subpacket: Runs past the end of the buffer\n"
              "ORVALOG: Bad GPS subpacket: Runs past the end of the buffer\n");

    // Packets from the application sit in memory of exactly their own size,
    // each ending in a subpacket whose length or fields run past the packet:
    // past its end it reads as zeros, as a received one does, and nothing
    // beyond its memory is touched.
    const auto atEnd = [&](Slot slot, const Bytes& sub) {
        Bytes full = meta(slot, sub);
        full.resize(27 + std::min<size_t>(sub.size(), OrvosiUtil::word16(&sub[1])) + 1);
        access.processMetaPkt(sealAt(full, full.size()).data());
    };
    atEnd(kPlat, Bytes{7, 40, 0});                      // claims 40 bytes: its sum is off
    atEnd(kPlat, sealAt(platPose(1, 2, 0, 0, 0), 21));  // its pose lies at 20..31
    atEnd(kTarget, sealAt(target(1, {1, 2, 3}), 16));   // three entries past its end
    atEnd(kDiag, diag(1, {}, 3, 12));
    atEnd(kGps, sealAt(gps(kFix), 40));
    atEnd(kPlat, platPose(9, 3, 1.0f, 2.0f, 3.0f));  // well-formed, read in full
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_PLATPOSE_SUBPKT, 0},
                                   {ORVACCESS_ERR_TARGET_OVERRUN, 1},
                                   {ORVACCESS_ERR_DIAG_OVERRUN, 1}}));
    EXPECT_TRUE(access.getStreaming());
    const auto poses = drain(&OrvAccess::getPlatformPoseData);
    ASSERT_EQ(poses.size(), 2u);
    EXPECT_TRUE(poses[0].pose[1] == 0.0f && poses[0].pose[2] == 0.0f && poses[1].pose[2] == 3.0f);
    const auto targets = drain(&OrvAccess::getTargetData);
    ASSERT_EQ(targets.size(), 4u);
    EXPECT_TRUE(targets[2].id == 0 && targets[2].value6 == 0.0f && targets[3].index == 2);
    const auto diags = drain(&OrvAccess::getDiagData);
    ASSERT_EQ(diags.size(), 1u);
    EXPECT_EQ(diags[0].state, 0u);
    const auto fixes = drain(&OrvAccess::getGpsData);
    ASSERT_EQ(fixes.size(), 1u);
    EXPECT_TRUE(fixes[0].gpsDouble1 == 0.0 && fixes[0].gpsByte2 == 0 && fixes[0].lat == kFix.lat);
}

}  // namespace
