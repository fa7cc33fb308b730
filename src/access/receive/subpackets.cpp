// Target, diagnostic, platform-pose and GPS subpackets of meta packets.
//
// Each has passed its framing check against its own length word. Some fields
// lie at fixed offsets that a short subpacket does not cover (the target and
// diagnostic parsers then report an overrun); such reads run on into the
// rest of the datagram and read zeros past its end. Only a subpacket whose
// reads would leave what any datagram can hold is refused.
#include <cstdint>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"

namespace {

constexpr const char* kPastReach = "Runs past the end of the buffer";

}  // namespace

namespace orvwire {

const char* processPlatPoseSubPkt(OrvAccess::State& s, const OrvosiBytes& sub) {
    OrvosiReader r(sub);
    r.seek(ORVWIRE_HEADER_SIZE);
    PlatPoseHeader header{};
    decodePlatPose(r, header);
    if (r.ok() && header.format != ORVWIRE_PLATPOSE_FORMAT2 && header.format != ORVWIRE_PLATPOSE_FORMAT3)
        return nullptr;
    s_OrvAccessPlatPoseData rec{};
    rec.tag = header.tag;
    // Format 2 carries its pose further back than format 3.
    r.seek(header.format == ORVWIRE_PLATPOSE_FORMAT3 ? ORVWIRE_PLATPOSE_FORMAT3_AT : ORVWIRE_PLATPOSE_FORMAT2_AT);
    decodePose(r, rec);
    if (!r.ok()) return kPastReach;
    s.platPose.push(rec, s.cfg.verbosity);
    return nullptr;
}

const char* processTargetSubPkt(OrvAccess::State& s, const OrvosiBytes& sub) {
    OrvosiReader r(sub);
    r.skip(1);
    const size_t length = r.u16();
    TargetHeader header{};
    decodeTarget(r, header);
    OrvAccess::s_TgtData rec{};
    rec.tag = header.tag;
    rec.hdrByte = header.hdrByte;
    const unsigned int n = header.entryCount;
    const unsigned int total = header.total;
    const unsigned int first = header.first;
    // The trailer sits before the checksum, wherever the entries end.
    rec.trailer = sub.at(length - 2);
    // Decided before anything is dropped or appended: all entries or none.
    if (!r.ok() || !r.has(ORVWIRE_TARGET_ENTRY_SIZE * n)) return kPastReach;

    const unsigned int verbosity = s.cfg.verbosity;
    s.targets.makeRoom(verbosity, n + 1);
    // An empty closing subpacket closes with the index its first entry would have had.
    rec.index = first;
    for (unsigned int i = 0; i < n; ++i) {
        rec.index = first + i;
        decodeTargetEntry(r, rec);
        s.targets.append(rec);
    }
    // Only the subpacket that reaches the list's total closes the list.
    if (total <= first + n) {
        rec.kind = 0;
        rec.id = 0;
        s.targets.append(rec);
    }
    // The entries plus the trailer byte must end before the checksum.
    if (r.pos() + 1 > length - 1) reportOverrun(s, kTarget, rec.tag);
    return nullptr;
}

const char* processDiagSubPkt(OrvAccess::State& s, const OrvosiBytes& sub) {
    OrvosiReader r(sub);
    r.skip(1);
    const size_t length = r.u16();
    s_OrvAccessDiagData rec{};
    decodeDiag(r, rec);
    if (!r.ok()) return kPastReach;

    // orvRx error bytes become codes of the orvRx range.
    for (uint8_t code : rec.errorCodes) {
        if (code != 0) s.addErrorCode(static_cast<unsigned short>(code | ORVACCESS_ORIGIN_ORVRX), rec.tag);
    }
    // The service loop stops believing in streaming when this becomes "stopped".
    s.rxState = rec.state;
    s.diagWord = rec.state;
    // These lengths lie inside what the check let through, so the reads stay in reach.
    if (length > ORVWIRE_DIAG_OPTIONAL_1) {
        rec.optional[0] = r.u8();
        rec.optional[1] = r.u8();
    }
    if (length > ORVWIRE_DIAG_OPTIONAL_2) {
        rec.optional[2] = r.u8();
        rec.optional[3] = r.u8();
    }

    s.diag.push(rec, s.cfg.verbosity);
    if (r.pos() > length - 1) reportOverrun(s, kDiag, rec.tag);
    s.latestDiag = rec;
    s.latestDiagValid = true;
    return nullptr;
}

const char* processGpsSubPkt(OrvAccess::State& s, const OrvosiBytes& sub) {
    OrvosiReader r(sub);
    r.seek(ORVWIRE_HEADER_SIZE);
    s_OrvAccessGpsData rec{};
    decodeGps(r, rec);
    if (r.ok() && rec.valid != ORVWIRE_GPS_FORMAT) return nullptr;
    rec.valid = 1;
    decodeGpsBody(r, rec);
    if (!r.ok()) return kPastReach;
    s.gps.push(rec, s.cfg.verbosity);
    return nullptr;
}

}  // namespace orvwire

bool OrvAccess::getTargetData(bool* valid, s_TgtData* data) { return popRecord(st_->targets, valid, data); }

bool OrvAccess::getTargetCount(bool* valid, unsigned int* tag, unsigned int* count) {
    *count = 0;
    *valid = false;
    s_TgtData record{};
    bool popped = false;
    if (!getTargetData(&popped, &record)) return false;
    // A record that does not start a list is dropped.
    if (!popped || record.index != 0) return true;
    *valid = true;
    *tag = record.tag;
    while (record.id != 0) {
        ++*count;
        if (!getTargetData(&popped, &record)) return false;
        if (!popped) return true;
    }
    return true;
}

bool OrvAccess::getDiagData(bool* valid, s_OrvAccessDiagData* data) {
    return popRecord(st_->diag, valid, data);
}

bool OrvAccess::getDiagDataLatest(bool* valid, s_OrvAccessDiagData* data) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    *valid = st_->latestDiagValid;
    if (*valid) *data = st_->latestDiag;
    return true;
}

bool OrvAccess::getPlatformPoseData(bool* valid, s_OrvAccessPlatPoseData* data) {
    return popRecord(st_->platPose, valid, data);
}

bool OrvAccess::getGpsData(bool* valid, s_OrvAccessGpsData* data) { return popRecord(st_->gps, valid, data); }
