// Tracking packets from orvCore and the optical subpacket at their end.
#include <cstdio>

#include "access/State.hpp"
#include "osi/OrvosiCursor.hpp"
#include "osi/OrvosiUtil.hpp"

namespace {

// Everything before an optical subpacket: a packet without one is this long
// plus its checksum byte.
constexpr size_t kTrackingBody = 331;
constexpr unsigned char kOpticalStart = 16;
constexpr size_t kOpticalHeader = 10;
constexpr size_t kTargetEntry = 22;
constexpr size_t kStatsBlock = 78;

constexpr unsigned short kBadTrackingPkt = 770;
constexpr unsigned short kBadOpticalSubPkt = 773;
constexpr unsigned short kOpticalOverrun = 780;

constexpr unsigned int kOpticalDumpBit = 0x8000;
constexpr unsigned int kPlatPoseTraceBit = 0x400000;
constexpr unsigned int kOpticalLogChannel = 0x200;
constexpr unsigned int kHarmonisationChannel = 0x8;

void badOptical(OrvAccess& access, unsigned int verbosity, const char* reason) {
    OrvUtil::logLine(verbosity, "Bad optical subpacket: ", reason);
    access.addErrorCode(kBadOpticalSubPkt, 0);
}

// The optical subpacket at `sub`, of which `available` bytes may be read.
// The counts inside may claim more than the subpacket's own length (an
// overrun, reported after the fact) but never more than `available`: such a
// subpacket is refused before anything is queued.
void processOpticalSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub,
                          size_t available) {
    const unsigned int verbosity = s.cfg.verbosity;
    OrvUtil::infoLine(verbosity, "Received optical subpacket");
    if (available < 3) {
        if (verbosity & kOpticalDumpBit) OrvUtil::dumpBuf(sub, available, kOpticalDumpBit);
        badOptical(access, verbosity, "Length beyond buffer");
        return;
    }
    const size_t length = OrvosiUtil::word16(sub + 1);
    if (verbosity & kOpticalDumpBit)
        OrvUtil::dumpBuf(sub, length < available ? length : available, kOpticalDumpBit);
    // The framing check reads all `length` bytes, so they must be there first.
    if (length > available) {
        badOptical(access, verbosity, "Length beyond buffer");
        return;
    }
    if (!OrvUtil::udpPktOk(sub, length, kOpticalStart)) {
        // The text is only copied when the line is written.
        if (verbosity & OrvUtil::kVerbLog)
            badOptical(access, verbosity, OrvUtil::getLastError().c_str());
        else
            access.addErrorCode(kBadOpticalSubPkt, 0);
        return;
    }
    if (s.cfg.logging & kOpticalLogChannel) OrvUtil::logBuf(sub, length, kOpticalLogChannel, s.cfg.logPath);

    OrvosiReader r(sub, available);
    r.skip(3);
    const uint32_t tag = r.u32();
    const size_t n = r.u8();
    // length >= 3 here, so length - 1 cannot wrap.
    size_t consumed = kOpticalHeader + kTargetEntry * n;
    const bool hasStats = length - 1 > consumed;
    if (consumed + (hasStats ? kStatsBlock : 0) > available) {
        badOptical(access, verbosity, "Target count beyond buffer");
        return;
    }

    // One closing record follows the n targets; room is made for all of them.
    s.targetRes.makeRoom(verbosity, n + 1);
    OrvAccess::s_TgtResData res{};
    res.tag = tag;
    r.seek(kOpticalHeader);
    for (size_t i = 0; i < n; ++i) {
        res.index = static_cast<uint32_t>(i);
        res.id = r.u16();
        r.f32s(res.resid, 5);
        s.targetRes.append(res);
    }
    // The closing record repeats the last residuals (zero when there were none).
    res.index = static_cast<uint32_t>(n);
    res.id = 0;
    s.targetRes.append(res);

    if (hasStats) {
        s_OrvAccessPoseRecStats st{};
        st.tag = tag;
        st.stat0 = r.u8();
        st.stat1 = r.u8();
        st.stat2 = r.u8();
        st.stat3 = r.u8();
        st.value0 = r.f32();
        st.flagA = r.u8() != 0 ? 1 : 0;
        st.flagB = r.u8() != 0 ? 1 : 0;
        st.value1 = r.f32();
        r.f32s(st.vec1, 3);
        r.f32s(st.vec2, 3);
        r.f32s(st.vec3, 3);
        r.f32s(st.vec4, 3);
        st.value2 = r.f32();
        st.value3 = r.f32();
        st.value4 = r.f32();
        st.value5 = r.f32();
        s.poseRec.push(st, verbosity);
        consumed += kStatsBlock;
    }

    if (length - 1 < consumed) {
        OrvUtil::logLine(verbosity, "Overrun in optical data subpacket");
        access.addErrorCode(kOpticalOverrun, tag);
    }
}

}  // namespace

void OrvAccess::processTrackingPkt(const unsigned char* packet) {
    State& s = *st_;
    const unsigned int verbosity = s.cfg.verbosity;
    const size_t available = s.readable(packet, packet);
    // Only a packet an application hands in can be this short; the service
    // loop's buffer always holds the whole fixed part.
    if (available < kTrackingBody) {
        s.refusePacket("Problem with orvCore packet: ", "Packet too short", kBadTrackingPkt);
        return;
    }

    s_OrvAccessTrkDataExt rec{};
    OrvosiReader r(packet, available);
    r.skip(1);
    const size_t length = r.u16();
    rec.packetTag = r.u32();
    rec.poseTime = r.u64();
    rec.platPoseTime = r.u32();
    rec.statusWord = r.u32();
    r.f32s(rec.vecA, 3);
    r.f32s(rec.vecB, 3);
    r.f32s(rec.vecC, 3);
    r.f32s(rec.vecD, 3);
    r.f32s(rec.vecE, 3);
    r.f32s(rec.vecF, 3);
    rec.countA = r.u16();
    rec.countB = r.u16();
    r.f32s(&rec.cbn[0][0], 9);
    r.f32s(rec.position, 3);
    r.f32s(rec.vecG, 3);
    r.f32s(rec.vecH, 3);
    r.f32s(rec.angularRate, 3);
    r.f32s(rec.vecI, 3);
    r.f32s(&rec.cbn2[0][0], 9);
    r.f32s(rec.vecJ, 3);
    r.f32s(rec.vecK, 3);
    rec.time2 = r.u64();
    r.f32s(rec.vecL, 3);
    r.f32s(rec.vecM, 3);
    rec.scalarA = r.f32();
    rec.scalarB = r.f32();
    for (unsigned char& code : rec.errorCodes) code = r.u8();
    r.f32s(rec.vecN, 3);
    r.f32s(rec.vecO, 3);
    r.skip(8);  // reserved

    for (unsigned char code : rec.errorCodes)
        if (code != 0) addErrorCode(code, rec.packetTag);

    s.tracking.push(rec, verbosity);
    s.latestTrackingValid = true;
    s.latestTracking = rec;

    if (length > kTrackingBody + 1)
        processOpticalSubPkt(*this, s, packet + kTrackingBody, s.readable(packet, packet + kTrackingBody));

    if (verbosity & kPlatPoseTraceBit) OrvUtil::textLine(std::cout, "ORVAPLATPOSE: tout=", rec.platPoseTime);

    if (s.cfg.logging & kHarmonisationChannel) {
        // Formatted on the stack: this runs for every packet while the
        // channel is on, although the channel keeps one line per 5 s.
        char line[192];
        const int n =
            std::snprintf(line, sizeof line, "%u %.9g %.9g %.9g %.9g %.9g %.9g\n", rec.packetTag, rec.vecL[0],
                          rec.vecL[1], rec.vecL[2], rec.vecM[0], rec.vecM[1], rec.vecM[2]);
        if (n > 0) {
            const size_t len =
                static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
            OrvUtil::logBuf(reinterpret_cast<const unsigned char*>(line), len, kHarmonisationChannel,
                            s.cfg.logPath);
        }
    }
}

bool OrvAccess::getTargetResData(bool* valid, s_TgtResData* data) {
    return popRecord(st_->targetRes, valid, data);
}

bool OrvAccess::getPoseRecoveryStats(bool* valid, s_OrvAccessPoseRecStats* stats) {
    return popRecord(st_->poseRec, valid, stats);
}
