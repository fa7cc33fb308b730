// Tracking records for the application: the latest and the queued pose,
// adjusted on the way out, and the optical, pose-recovery, feature and hub
// records that arrive with them.
//
// The tracking, optical, PRA, hub and NFT parsers and the pose adjustment
// arrive with the tracking path; until then records pass out unadjusted.
#include "access/State.hpp"

bool OrvAccess::getTrackingDataLatest(bool* valid, s_OrvAccessTrkDataExt* data) {
    // This getter services the ports even when the manual switch is on.
    if (!serviceUdp(true)) return false;
    *valid = st_->latestTrackingValid;
    if (!*valid) return true;
    *data = st_->latestTracking;
    updateExports(st_->predictionS, data);
    return true;
}

bool OrvAccess::getTrackingData(bool* valid, s_OrvAccessTrkDataExt* data) {
    if (!popRecord(st_->tracking, valid, data)) return false;
    if (*valid) updateExports(st_->predictionS, data);
    return true;
}

bool OrvAccess::getTrackingDataAtTime(unsigned long /*displayTimeUs*/, bool* valid,
                                      s_OrvAccessTrkDataExt* data) {
    return getTrackingDataLatest(valid, data);
}

void OrvAccess::updateExports(double /*predictionS*/, s_OrvAccessTrkDataExt* /*data*/) {}

bool OrvAccess::setPrediction(float seconds) {
    st_->predictionS = seconds;
    return true;
}

bool OrvAccess::setBoresightRef(float* /*rollPitchYaw*/) { return true; }

bool OrvAccess::setTipOffset(float* xyz) {
    for (int i = 0; i < 3; ++i) st_->tipOffset[i] = xyz[i];
    return true;
}

void OrvAccess::initVsData() {}

bool OrvAccess::getTargetResData(bool* valid, s_TgtResData* data) {
    return popRecord(st_->targetRes, valid, data);
}

bool OrvAccess::getPoseRecoveryStats(bool* valid, s_OrvAccessPoseRecStats* stats) {
    return popRecord(st_->poseRec, valid, stats);
}

bool OrvAccess::getFeatureData(bool* valid, s_FeatData* data) {
    return popRecord(st_->features, valid, data);
}

bool OrvAccess::getHubData(bool* valid, s_OrvAccessHubData* data) {
    return popRecord(st_->hubData, valid, data);
}

void OrvAccess::processTrackingPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processPraPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processHubDataPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processHubErrPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processNftDataPkt(const unsigned char* /*packet*/) {}
