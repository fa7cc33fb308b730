#include "openxr/Mount.hpp"

#include "math/OrvosiMath.hpp"

namespace orvxr {

namespace {

// Tracker axes (x forward, y right, z down) into OpenXR's (x right, y up,
// z backward). The same change serves the navigation frame and the body.
constexpr double kAxes[3][3] = {{0.0, 1.0, 0.0}, {0.0, 0.0, -1.0}, {-1.0, 0.0, 0.0}};

void mul(const double a[3][3], const double b[3][3], double out[3][3]) {
    OrvosiMath::matrixMult(3, 3, 3, &a[0][0], &b[0][0], &out[0][0]);
}

void apply(const double a[3][3], const double v[3], double out[3]) {
    OrvosiMath::matrixMult(3, 3, 1, &a[0][0], v, out);
}

}  // namespace

Rigid compose(const Rigid& a, const Rigid& b) {
    Rigid out;
    mul(a.r, b.r, out.r);
    apply(a.r, b.p, out.p);
    OrvosiMath::matrixAdd(3, 1, out.p, a.p, out.p);
    return out;
}

Rigid inverse(const Rigid& a) {
    Rigid out;
    OrvosiMath::matrixTrans(3, 3, &a.r[0][0], &out.r[0][0]);
    apply(out.r, a.p, out.p);
    OrvosiMath::matrixScale(3, 1, out.p, -1.0, out.p);
    return out;
}

Rigid fromXr(const XrPosef& pose) {
    Rigid out;
    const double q[4] = {pose.orientation.x, pose.orientation.y, pose.orientation.z, pose.orientation.w};
    OrvosiMath::quat2Cbn(q, out.r);
    out.p[0] = pose.position.x;
    out.p[1] = pose.position.y;
    out.p[2] = pose.position.z;
    return out;
}

XrPosef toXr(const Rigid& t) {
    double q[4];
    OrvosiMath::cbn2Quat(t.r, q);
    XrPosef out;
    out.orientation = {static_cast<float>(q[0]), static_cast<float>(q[1]), static_cast<float>(q[2]),
                       static_cast<float>(q[3])};
    out.position = {static_cast<float>(t.p[0]), static_cast<float>(t.p[1]), static_cast<float>(t.p[2])};
    return out;
}

Mount::Mount(const MountSettings& s) {
    // The constant ends of the product are made once: A * M on the left,
    // D * A^T on the right, and A * t.
    double m[3][3], d[3][3], axesT[3][3];
    OrvosiMath::euler2Cbn(s.mountRpyRad, m);
    OrvosiMath::euler2Cbn(s.displayRpyRad, d);
    OrvosiMath::matrixTrans(3, 3, &kAxes[0][0], &axesT[0][0]);
    mul(kAxes, m, left_);
    mul(d, axesT, right_);
    apply(kAxes, s.mountXyzM, mountT_);
    OrvosiMath::matrixCopy(3, 1, s.displayXyzM, displayT_);
}

Rigid Mount::headPose(const s_OrvAccessTrkDataExt& rec, const double (*platformCbn)[3]) const {
    double cbn[3][3], pos[3];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) cbn[i][j] = rec.cbn[i][j];
        pos[i] = rec.position[i];
    }
    // The display's position: the lever arm follows the attitude.
    double arm[3];
    apply(cbn, displayT_, arm);
    OrvosiMath::matrixAdd(3, 1, pos, arm, pos);
    if (platformCbn != nullptr) {
        // P^T * cbn and P^T * pos.
        double c[3][3], v[3], t[3][3];
        OrvosiMath::matrixTrans(3, 3, &platformCbn[0][0], &t[0][0]);
        mul(t, cbn, c);
        OrvosiMath::matrixCopy(3, 3, &c[0][0], &cbn[0][0]);
        apply(t, pos, v);
        OrvosiMath::matrixCopy(3, 1, v, pos);
    }
    Rigid out;
    double tmp[3][3];
    mul(left_, cbn, tmp);
    mul(tmp, right_, out.r);
    apply(left_, pos, out.p);
    OrvosiMath::matrixAdd(3, 1, out.p, mountT_, out.p);
    return out;
}

}  // namespace orvxr
