// Tracking packets from orvCore and the optical subpacket at their end.
// Written with the tracking path; until then a checked packet is counted and
// otherwise ignored.
#include "access/State.hpp"

void OrvAccess::processTrackingPkt(const unsigned char* /*packet*/) {}

bool OrvAccess::getTargetResData(bool* valid, s_TgtResData* data) {
    return popRecord(st_->targetRes, valid, data);
}

bool OrvAccess::getPoseRecoveryStats(bool* valid, s_OrvAccessPoseRecStats* stats) {
    return popRecord(st_->poseRec, valid, stats);
}
