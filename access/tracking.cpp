// Tracking records for the application: the latest and the queued pose,
// adjusted on the way out (prediction, tip offset, boresight), and the
// setters of that adjustment.
#include "access/State.hpp"
#include "osi/OrvosiMath.hpp"
#include "util/OrvUtil.hpp"

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

// The order matters: both attitudes are predicted with the rate as it
// arrived; the lever arm follows the predicted attitude in the tracker's
// frame, which is why the position is not boresight-rotated; the Euler
// angles describe the final attitude.
void OrvAccess::updateExports(double predictionS, s_OrvAccessTrkDataExt* data) {
    const State& s = *st_;
    OrvUtil::predictCbn(predictionS, data->angularRate, data->cbn);
    OrvUtil::predictCbn(predictionS, data->angularRate, data->cbn2);

    double cbn[9], arm[3], position[3];
    OrvUtil::matrixF2D(3, 3, data->cbn[0], cbn);
    OrvosiMath::matrixMult(3, 3, 1, cbn, s.tipOffset, arm);
    OrvUtil::matrixF2D(3, 1, data->position, position);
    OrvosiMath::matrixAdd(3, 1, position, arm, position);
    OrvUtil::matrixD2F(3, 1, position, data->position);

    OrvUtil::boresightM(s.boresight, data->cbn);
    OrvUtil::boresightM(s.boresight, data->cbn2);
    OrvUtil::boresightV(s.boresight, data->angularRate);
    OrvUtil::boresightV(s.boresight, data->vecJ);
    OrvUtil::boresightV(s.boresight, data->vecA);
    OrvUtil::boresightV(s.boresight, data->vecL);
    OrvUtil::boresightV(s.boresight, data->vecM);

    OrvUtil::cbn2Euler(data->cbn, data->euler);
}

bool OrvAccess::setPrediction(float seconds) {
    st_->predictionS = seconds;
    return true;
}

bool OrvAccess::setBoresightRef(float* rollPitchYaw) {
    OrvUtil::euler2Cbn(rollPitchYaw, st_->boresight);
    return true;
}

bool OrvAccess::setTipOffset(float* xyz) {
    for (int i = 0; i < 3; ++i) st_->tipOffset[i] = xyz[i];
    return true;
}
