// The adjustment of a tracking record on its way out (prediction, tip
// offset, boresight, Euler angles), and its shortcut for the neutral
// parameters. Stateless: the parameters are passed in.
#pragma once

#include "orvaccess/orvaccess.h"

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
