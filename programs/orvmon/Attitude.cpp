// The monitor's value types over the library's attitude maths: the
// rotations themselves are OrvosiMath's; here they are only carried in and
// out of std::array.
#include "Attitude.hpp"

#include <cmath>

#include "math/OrvosiMath.hpp"

namespace orvmon {

namespace {

struct Rows {
    double m[3][3];
};

Rows rows(const Mat3& a) {
    Rows r;
    OrvosiMath::matrixCopy(3, 3, a.data(), r.m[0]);
    return r;
}

Mat3 flat(const Rows& r) {
    Mat3 a;
    OrvosiMath::matrixCopy(3, 3, r.m[0], a.data());
    return a;
}

}  // namespace

Mat3 identity() { return {1, 0, 0, 0, 1, 0, 0, 0, 1}; }

Mat3 fromRows(const float m[3][3]) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r[3 * i + j] = m[i][j];
    return r;
}

Mat3 mul(const Mat3& a, const Mat3& b) {
    Mat3 r;
    OrvosiMath::matrixMult(3, 3, 3, a.data(), b.data(), r.data());
    return r;
}

Mat3 transpose(const Mat3& a) {
    Mat3 r;
    OrvosiMath::matrixTrans(3, 3, a.data(), r.data());
    return r;
}

Vec3 logSO3(const Mat3& r) {
    Vec3 w;
    OrvosiMath::cbn2RotVec(rows(r).m, w.data());
    return w;
}

Mat3 expSO3(const Vec3& w) {
    Rows r;
    OrvosiMath::rotVec2Cbn(w.data(), r.m);
    return flat(r);
}

Mat3 interpolate(const Mat3& r0, const Mat3& r1, double f) {
    Rows out;
    OrvosiMath::interpolateCbn(rows(r0).m, rows(r1).m, f, out.m);
    return flat(out);
}

double angleDeg(const Mat3& a, const Mat3& b) { return OrvosiMath::angleBetween(rows(a).m, rows(b).m) * kRadToDeg; }

Vec3 rollPitchYaw(const Mat3& r) {
    Vec3 e;
    OrvosiMath::cbn2Euler(rows(r).m, e.data());
    return e;
}

Vec3 fromFloats(const float v[3]) { return {v[0], v[1], v[2]}; }

double distanceMm(const Vec3& a, const Vec3& b) {
    const Vec3 d = {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
    return 1000.0 * std::sqrt(OrvosiMath::vectorLen2(d.data()));
}

}  // namespace orvmon
