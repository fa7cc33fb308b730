// Tracking packets from orvCore and the optical subpacket at their end.
#include <cstdio>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace orvwire {

// Counts of targets may claim more than the subpacket's length (an overrun,
// reported after the fact); the entries past the datagram's end read as zeros.
const char* processOpticalSubPkt(OrvAccess::State& s, const OrvosiBytes& sub) {
    const unsigned int verbosity = s.cfg.verbosity;
    OrvosiReader r(sub);
    r.skip(1);
    const size_t length = r.u16();
    OpticalHeader header{};
    decodeOptical(r, header);
    const uint32_t tag = header.tag;
    const size_t n = header.targetCount;
    // The check passed, so length >= 3 and length - 1 cannot wrap.
    size_t consumed = ORVWIRE_OPTICAL_TARGETS_AT + ORVWIRE_OPTICAL_TARGET_SIZE * n;
    const bool hasStats = length - 1 > consumed;
    // Decided before anything is queued: all of the subpacket or none.
    if (!r.has(consumed + (hasStats ? ORVWIRE_OPTICAL_STATS_SIZE : 0) - r.pos()))
        return "Target count beyond buffer";

    // One closing record follows the n targets; room is made for all of them.
    s.targetRes.makeRoom(verbosity, n + 1);
    OrvAccess::s_TgtResData res{};
    res.tag = tag;
    for (size_t i = 0; i < n; ++i) {
        res.index = static_cast<uint32_t>(i);
        decodeOpticalTarget(r, res);
        s.targetRes.append(res);
    }
    // The closing record repeats the last residuals (zero when there were none).
    res.index = static_cast<uint32_t>(n);
    res.id = 0;
    s.targetRes.append(res);

    if (hasStats) {
        s_OrvAccessPoseRecStats st{};
        st.tag = tag;
        decodeStats(r, st);
        s.poseRec.push(st, verbosity);
        consumed += ORVWIRE_OPTICAL_STATS_SIZE;
    }

    if (length - 1 < consumed) reportOverrun(s, kOptical, tag);
    return nullptr;
}

// A packet shorter than its fixed fields (it passed its framing, so its
// length word says so) reads as zeros from its end on.
const char* processTrackingPkt(OrvAccess::State& s, const OrvosiBytes& packet) {
    const unsigned int verbosity = s.cfg.verbosity;
    s_OrvAccessTrkDataExt rec{};
    OrvosiReader r(packet);
    r.skip(1);
    const size_t length = r.u16();
    decodeTracking(r, rec);

    for (unsigned char code : rec.errorCodes)
        if (code != 0) s.addErrorCode(code, rec.packetTag);

    s.tracking.push(rec, verbosity);
    s.latestTrackingValid = true;
    s.latestTracking = rec;

    if (length > ORVWIRE_TRACKING_SIZE) handle(s, kOptical, packet.from(ORVWIRE_TRACKING_OPTICAL_AT));

    if (verbosity & ORVACCESS_VERB_PLATPOSE_TRACE)
        OrvUtil::textLine(std::cout, "ORVAPLATPOSE: tout=", rec.platPoseTime);

    if (s.cfg.logging & ORVACCESS_LOG_HARM) {
        // Formatted on the stack: this runs for every packet while the
        // channel is on, although the channel keeps one line per 5 s.
        char line[192];
        const int n =
            std::snprintf(line, sizeof line, "%u %.9g %.9g %.9g %.9g %.9g %.9g\n", rec.packetTag, rec.vecL[0],
                          rec.vecL[1], rec.vecL[2], rec.vecM[0], rec.vecM[1], rec.vecM[2]);
        if (n > 0) {
            const size_t len =
                static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
            OrvUtil::logBuf(reinterpret_cast<const unsigned char*>(line), len, ORVACCESS_LOG_HARM,
                            s.cfg.logPath);
        }
    }
    return nullptr;
}

}  // namespace orvwire

// A packet an application hands in is trusted as far as its own length word.
void OrvAccess::processTrackingPkt(const unsigned char* packet) {
    const OrvosiBytes bytes{packet, OrvosiUtil::word16(packet + 1), kReceiveBufferSize};
    orvwire::processTrackingPkt(*st_, bytes);
}

bool OrvAccess::getTargetResData(bool* valid, s_TgtResData* data) {
    return popRecord(st_->targetRes, valid, data);
}

bool OrvAccess::getPoseRecoveryStats(bool* valid, s_OrvAccessPoseRecStats* stats) {
    return popRecord(st_->poseRec, valid, stats);
}
