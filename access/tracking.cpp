// Tracking records for the application: the latest and the queued pose,
// adjusted on the way out (prediction, tip offset, boresight).
//
// The pose adjustment arrives with the tracking path; until then records pass
// out unadjusted.
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
