// From the tracker's frames to OpenXR's. The tracker reports the head's
// attitude as cbn (body to navigation, row-major) and its position in metres
// in the navigation frame, both with the tracker's axes: x forward, y right,
// z down. OpenXR wants right-handed poses with x right, y up, z backward
// (-Z forward), in metres. The transform, in tracker axes, is
//
//   attitude  C = M * P^T * cbn * D
//   position  p = M * P^T * (position + cbn * d) + t
//
// then both are turned into OpenXR's axes. M, t: where the tracker's
// navigation frame sits in the world the application sees (the mounting);
// D, d: the display's (the eyes' centre) attitude and position relative to
// the tracked body, body axes; P: the platform's attitude in the navigation
// frame, used only when the pose is wanted relative to the platform.
// Pure functions, so that a test checks them without a runtime.
#pragma once

#include <openxr/openxr.h>

#include "orvaccess/orvaccess.h"

namespace orvxr {

// A rigid transform: x' = r * x + p.
struct Rigid {
    double r[3][3] = {{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}};
    double p[3] = {0.0, 0.0, 0.0};
};

// a after b: x -> a(b(x)).
Rigid compose(const Rigid& a, const Rigid& b);
Rigid inverse(const Rigid& a);
Rigid fromXr(const XrPosef& pose);
XrPosef toXr(const Rigid& t);

// The configurable parts of the transform, as the configuration file gives
// them: angles in radians, roll, pitch, yaw as the tracker composes them
// (Rz(yaw) Ry(pitch) Rx(roll)); lengths in metres; all in tracker axes.
struct MountSettings {
    double mountRpyRad[3] = {0.0, 0.0, 0.0};
    double mountXyzM[3] = {0.0, 0.0, 0.0};
    double displayRpyRad[3] = {0.0, 0.0, 0.0};
    double displayXyzM[3] = {0.0, 0.0, 0.0};
};

// The transform made once from its settings; headPose() then costs a few
// small matrix products.
class Mount {
public:
    Mount() : Mount(MountSettings{}) {}
    explicit Mount(const MountSettings& s);

    // The display's pose in the world, OpenXR axes, from a record's cbn and
    // position. platformCbn (platform to navigation, row-major), when not
    // null, re-expresses the pose relative to the platform first.
    Rigid headPose(const s_OrvAccessTrkDataExt& rec, const double (*platformCbn)[3] = nullptr) const;

private:
    double left_[3][3];   // A * M
    double right_[3][3];  // D * A^T
    double mountT_[3];    // A * t
    double displayT_[3];  // d, body axes
};

}  // namespace orvxr
