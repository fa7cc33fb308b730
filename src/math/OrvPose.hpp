// The pose helpers on the single-precision arrays of the public records,
// and the adjustment of a tracking record on its way out (prediction, tip
// offset, boresight, Euler angles) with its shortcut for the neutral
// parameters. Stateless: the parameters are passed in.
#pragma once

#include "orvaccess/orvaccess.h"

// Each helper widens its inputs to double, calls the OrvosiMath routine and
// narrows only the final result, in place. OrvUtil offers them under its own
// name (OrvUtil::predictCbn and so on), as applications have always called
// them.
struct OrvFloatPose {
    OrvFloatPose() = delete;

    // Widen or narrow (round to nearest) the n*m elements of a row-major
    // matrix; nothing happens when n or m is below 1.
    static void matrixF2D(int n, int m, const float* a, double* out);
    static void matrixD2F(int n, int m, const double* a, float* out);
    // Roll, pitch, yaw (radians) to cbn, body to navigation.
    static void euler2Cbn(const float* euler, double cbn[3][3]);
    static void cbn2Euler(const float cbn[3][3], float* euler);
    // Constant-rate extrapolation over dt seconds: rate in rad/s, body axes;
    // vel in m/s in the frame of pos.
    static void predictCbn(double dt, const float* rate, float cbn[3][3]);
    static void predictPos(double dt, const float* vel, float* pos);
    // cbn = cbn * transpose(ref), in place.
    static void boresightM(const double ref[3][3], float cbn[3][3]);
    // v = ref * v, in place.
    static void boresightV(const double ref[3][3], float* v);
};

namespace OrvPose {

// The full adjustment, in place: dt in seconds, ref the boresight reference
// (body to reference, row-major), tip the lever arm in metres, body axes.
void adjust(double dt, const double ref[3][3], const double tip[3], s_OrvAccessTrkDataExt* rec);

// True when ref is exactly the identity (zeros of either sign) and tip is
// zero (of either sign). With dt == 0 as well and finite values to rotate,
// adjust() then only turns -0.0 into +0.0, quiets the position's signalling
// NaNs and fills the Euler angles.
bool isNeutral(const double ref[3][3], const double tip[3]);

// What adjust() makes of rec under neutral parameters, bit for bit, at a
// fraction of the cost. Returns false and leaves rec untouched when a value
// it would have to rotate is infinite or NaN: there the full path's result
// depends on which NaN the hardware propagates, so the caller runs adjust().
bool adjustNeutral(s_OrvAccessTrkDataExt* rec);

// The adjustment every handed-out record goes through: the shortcut when
// the parameters are neutral (`neutral` is isNeutral(ref, tip), decided when
// they change) and dt is 0 and it applies, else the full path.
inline void exportRecord(double dt, bool neutral, const double ref[3][3], const double tip[3],
                         s_OrvAccessTrkDataExt* rec) {
    if (neutral && dt == 0.0 && adjustNeutral(rec)) return;
    adjust(dt, ref, tip, rec);
}

}  // namespace OrvPose
