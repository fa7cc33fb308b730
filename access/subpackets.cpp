// Target, diagnostic, platform-pose and GPS subpackets of meta packets.
//
// Each subpacket is framed like a datagram and checked against its own
// length field. Some fields are read at fixed offsets that a short subpacket
// does not cover (the target and diagnostic parsers then report an overrun);
// such reads may run on past the subpacket, but never past `available`: a
// subpacket whose reads would leave the buffer is reported as bad instead.
#include <algorithm>
#include <cstdint>

#include "access/Subpackets.hpp"
#include "osi/OrvosiCursor.hpp"

namespace {

struct Kind {
    const char* receivedText;
    const char* badText;
    unsigned char startByte;
    unsigned int dumpBit;
    unsigned int logChannel;
    unsigned short badCode;
};

constexpr Kind kPlatPose{
    "Received platform pose subpacket", "Bad platform pose subpacket: ", 7, 0x800, 0x80, 776};
constexpr Kind kTarget{"Received target subpacket", "Bad target subpacket: ", 6, 0x100, 0x10, 775};
constexpr Kind kDiag{"Received diagnostic subpacket", "Bad diagnostic subpacket: ", 13, 0x10000, 0x100, 774};
constexpr Kind kGps{"Received GPS subpacket", "Bad GPS subpacket: ", 8, 0x10000, 0x100, 783};

constexpr unsigned short kTargetOverrun = 778;
constexpr unsigned short kDiagOverrun = 779;
constexpr size_t kTargetEntrySize = 35;

constexpr const char* kPastBuffer = "Runs past the end of the buffer";

void reportBad(OrvAccess& access, const OrvAccess::State& s, const Kind& kind, const char* reason) {
    OrvUtil::logLine(s.cfg.verbosity, kind.badText, reason);
    access.addErrorCode(kind.badCode, 0);
}

// The steps every subpacket shares: info line, dump, framing check, log
// channel. False (after reporting) when the subpacket is to be skipped.
bool checkSubpacket(OrvAccess& access, const OrvAccess::State& s, const Kind& kind, const unsigned char* sub,
                    size_t available, size_t* length) {
    const unsigned int verbosity = s.cfg.verbosity;
    OrvUtil::infoLine(verbosity, kind.receivedText);
    if (available < 3) {
        reportBad(access, s, kind, kPastBuffer);
        return false;
    }
    *length = OrvosiUtil::word16(sub + 1);
    if (verbosity & kind.dumpBit) OrvUtil::dumpBuf(sub, std::min(*length, available), kind.dumpBit);
    if (*length > available) {
        reportBad(access, s, kind, kPastBuffer);
        return false;
    }
    if (!OrvUtil::udpPktOk(sub, *length, kind.startByte)) {
        // Tested here so that the text is only copied when the line is written.
        if (verbosity & OrvUtil::kVerbLog) OrvUtil::logLine(verbosity, kind.badText, OrvUtil::getLastError());
        access.addErrorCode(kind.badCode, 0);
        return false;
    }
    if (s.cfg.logging & kind.logChannel) OrvUtil::logBuf(sub, *length, kind.logChannel, s.cfg.logPath);
    return true;
}

}  // namespace

void processPlatPoseSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub,
                           size_t available) {
    size_t length = 0;
    if (!checkSubpacket(access, s, kPlatPose, sub, available, &length)) return;
    OrvosiReader r(sub, available);
    r.seek(3);
    s_OrvAccessPlatPoseData rec{};
    rec.tag = r.u32();
    const unsigned char format = r.u8();
    if (r.ok() && format != 2 && format != 3) return;
    // Format 2 carries its pose further back than format 3.
    r.seek(format == 3 ? 8 : 20);
    r.f32s(rec.pose, 3);
    if (!r.ok()) {
        reportBad(access, s, kPlatPose, kPastBuffer);
        return;
    }
    s.platPose.push(rec, s.cfg.verbosity);
}

void processTargetSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub, size_t available) {
    size_t length = 0;
    if (!checkSubpacket(access, s, kTarget, sub, available, &length)) return;
    OrvosiReader r(sub, available);
    r.seek(3);
    OrvAccess::s_TgtData rec{};
    rec.tag = r.u32();
    const unsigned int n = r.u8();
    rec.hdrByte = r.u8();
    r.skip(1);
    const unsigned int total = r.u16();
    const unsigned int first = r.u16();
    // The trailer sits before the checksum, wherever the entries end.
    rec.trailer = sub[length - 2];
    // Decided before anything is dropped or appended: all entries or none.
    if (!r.ok() || !r.has(kTargetEntrySize * n)) {
        reportBad(access, s, kTarget, kPastBuffer);
        return;
    }

    const unsigned int verbosity = s.cfg.verbosity;
    s.targets.makeRoom(verbosity, n + 1);
    // An empty closing subpacket closes with the index its first entry would have had.
    rec.index = first;
    for (unsigned int i = 0; i < n; ++i) {
        rec.index = first + i;
        rec.kind = r.u8();
        rec.id = r.u16();
        rec.word1 = r.u16();
        rec.word2 = r.u16();
        rec.word3 = r.u16();
        rec.word4 = r.u16();
        rec.value1 = r.f32();
        rec.value2 = r.f32();
        rec.value3 = r.f32();
        rec.value4 = r.f32();
        rec.value5 = r.f32();
        rec.value6 = r.f32();
        s.targets.append(rec);
    }
    // Only the subpacket that reaches the list's total closes the list.
    if (total <= first + n) {
        rec.kind = 0;
        rec.id = 0;
        s.targets.append(rec);
    }
    // The entries plus the trailer byte must end before the checksum.
    if (r.pos() + 1 > length - 1) {
        OrvUtil::logLine(verbosity, "Overrun in target subpacket");
        access.addErrorCode(kTargetOverrun, rec.tag);
    }
}

void processDiagSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub, size_t available) {
    size_t length = 0;
    if (!checkSubpacket(access, s, kDiag, sub, available, &length)) return;
    OrvosiReader r(sub, available);
    r.seek(3);
    s_OrvAccessDiagData rec{};
    rec.tag = r.u32();
    rec.diagValue1 = r.f32();
    rec.diagCount = r.u24();
    rec.diagByte1 = r.u8();
    rec.diagValue2 = r.f32();
    rec.diagByte2 = r.u8();
    for (uint8_t& code : rec.errorCodes) code = r.u8();
    rec.state = r.u8();
    if (!r.ok()) {
        reportBad(access, s, kDiag, kPastBuffer);
        return;
    }

    // orvRx error bytes become codes of the orvRx range.
    for (uint8_t code : rec.errorCodes) {
        if (code != 0) access.addErrorCode(static_cast<unsigned short>(code | 0x100), rec.tag);
    }
    // The service loop stops believing in streaming when this becomes 3.
    s.rxState = rec.state;
    s.diagWord = rec.state;
    // Lengths above 27 and 29 lie inside `available`, so these reads are in bounds.
    if (length > 27) {
        rec.optional[0] = r.u8();
        rec.optional[1] = r.u8();
    }
    if (length > 29) {
        rec.optional[2] = r.u8();
        rec.optional[3] = r.u8();
    }

    const unsigned int verbosity = s.cfg.verbosity;
    s.diag.push(rec, verbosity);
    if (r.pos() > length - 1) {
        OrvUtil::logLine(verbosity, "Overrun in diagnostic subpacket");
        access.addErrorCode(kDiagOverrun, rec.tag);
    }
    s.latestDiag = rec;
    s.latestDiagValid = true;
}

void processGpsSubPkt(OrvAccess& access, OrvAccess::State& s, const unsigned char* sub, size_t available) {
    size_t length = 0;
    if (!checkSubpacket(access, s, kGps, sub, available, &length)) return;
    OrvosiReader r(sub, available);
    r.seek(3);
    const unsigned char format = r.u8();
    if (r.ok() && format != 1) return;
    s_OrvAccessGpsData rec{};
    rec.valid = 1;
    rec.gpsWord1 = r.u32();
    rec.lat = r.f64();
    rec.lon = r.f64();
    rec.gpsValue1 = r.f32();
    rec.gpsHalf = r.u16();
    rec.gpsByte1 = r.u8();
    rec.gpsValue2 = r.f32();
    rec.gpsValue3 = r.f32();
    rec.gpsWord2 = r.u32();
    rec.gpsDouble1 = r.f64();
    rec.gpsDouble2 = r.f64();
    rec.gpsValue4 = r.f32();
    rec.gpsValue5 = r.f32();
    rec.gpsValue6 = r.f32();
    rec.gpsByte2 = r.u8();
    if (!r.ok()) {
        reportBad(access, s, kGps, kPastBuffer);
        return;
    }
    s.gps.push(rec, s.cfg.verbosity);
}

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
