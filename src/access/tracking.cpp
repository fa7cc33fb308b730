// Tracking records for the application: the latest and the queued pose,
// adjusted on the way out (prediction, tip offset, boresight), and the
// setters of that adjustment.
#include "access/State.hpp"
#include "math/OrvPose.hpp"
#include "diag/OrvUtil.hpp"

bool OrvAccess::getTrackingDataLatest(bool* valid, s_OrvAccessTrkDataExt* data) {
    // This getter services the ports even when the manual switch is on.
    if (!serviceUdp(true)) return false;
    *valid = st_->latestTrackingValid;
    if (!*valid) return true;
    // The stored record stays as received, so each call adjusts afresh with
    // the parameters current at the call.
    *data = st_->latestTracking;
    updateExports(st_->predictionS, data);
    return true;
}

bool OrvAccess::getTrackingData(bool* valid, s_OrvAccessTrkDataExt* data) {
    if (!popRecord(st_->tracking, valid, data)) return false;
    if (*valid) updateExports(st_->predictionS, data);
    return true;
}

// Neutral parameters (no prediction, identity boresight, zero tip offset)
// are the common case; the shortcut yields the same bits as the full path.
// The interval is compared per call because the display-time getter
// computes its own.
void OrvAccess::updateExports(double predictionS, s_OrvAccessTrkDataExt* data) {
    const State& s = *st_;
    OrvPose::exportRecord(predictionS, s.neutralAdjustment, s.boresight, s.tipOffset, data);
}

bool OrvAccess::setPrediction(float seconds) {
    st_->predictionS = seconds;
    return true;
}

bool OrvAccess::setBoresightRef(float* rollPitchYaw) {
    OrvUtil::euler2Cbn(rollPitchYaw, st_->boresight);
    st_->noteAdjustment();
    return true;
}

bool OrvAccess::setTipOffset(float* xyz) {
    for (int i = 0; i < 3; ++i) st_->tipOffset[i] = xyz[i];
    st_->noteAdjustment();
    return true;
}
