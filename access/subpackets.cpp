// Target, diagnostic, platform-pose and GPS subpackets of meta packets.
// The parsers arrive with the inertial path; until then the queues stay empty.
#include "access/Subpackets.hpp"

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
