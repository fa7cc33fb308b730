#include "Attitude.hpp"

#include <algorithm>
#include <cmath>

namespace orvmon {

namespace {

// Twice the axial vector of the antisymmetric part: 2 sin(angle) * axis.
Vec3 vee2(const Mat3& r) { return {r[7] - r[5], r[2] - r[6], r[3] - r[1]}; }

double norm(const Vec3& v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

double cosAngle(const Mat3& r) { return std::clamp((r[0] + r[4] + r[8] - 1.0) / 2.0, -1.0, 1.0); }

}  // namespace

Mat3 identity() { return {1, 0, 0, 0, 1, 0, 0, 0, 1}; }

Mat3 fromRows(const float m[3][3]) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r[3 * i + j] = m[i][j];
    return r;
}

Mat3 mul(const Mat3& a, const Mat3& b) {
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            r[3 * i + j] = a[3 * i] * b[j] + a[3 * i + 1] * b[3 + j] + a[3 * i + 2] * b[6 + j];
    return r;
}

Mat3 transpose(const Mat3& a) { return {a[0], a[3], a[6], a[1], a[4], a[7], a[2], a[5], a[8]}; }

Vec3 logSO3(const Mat3& r) {
    const Vec3 v = vee2(r);
    const double s = norm(v) / 2.0;  // sin(angle)
    const double angle = std::atan2(s, cosAngle(r));
    if (angle < 1e-9) return {v[0] / 2.0, v[1] / 2.0, v[2] / 2.0};
    if (angle < kPi - 1e-2) {
        const double k = angle / (2.0 * s);
        return {v[0] * k, v[1] * k, v[2] * k};
    }
    // Near a half turn sin(angle) carries no axis; the symmetric part
    // (R + R^T)/2 - cos(angle) I = (1 - cos(angle)) n n^T does.
    const double c = std::cos(angle);
    const int k = (r[0] >= r[4] && r[0] >= r[8]) ? 0 : (r[4] >= r[8] ? 1 : 2);
    Vec3 n{};
    for (int i = 0; i < 3; ++i) n[i] = (r[3 * i + k] + r[3 * k + i]) / 2.0 - (i == k ? c : 0.0);
    const double len = norm(n);
    const double sign = (v[0] * n[0] + v[1] * n[1] + v[2] * n[2]) < 0.0 ? -1.0 : 1.0;
    for (double& x : n) x = x / len * angle * sign;
    return n;
}

Mat3 expSO3(const Vec3& w) {
    const double angle = norm(w);
    if (angle < 1e-12) return {1, -w[2], w[1], w[2], 1, -w[0], -w[1], w[0], 1};
    const double x = w[0] / angle, y = w[1] / angle, z = w[2] / angle;
    const double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
    return {t * x * x + c,     t * x * y - s * z, t * x * z + s * y,  //
            t * x * y + s * z, t * y * y + c,     t * y * z - s * x,  //
            t * x * z - s * y, t * y * z + s * x, t * z * z + c};
}

Mat3 interpolate(const Mat3& r0, const Mat3& r1, double f) {
    Vec3 w = logSO3(mul(transpose(r0), r1));
    for (double& x : w) x *= f;
    return mul(r0, expSO3(w));
}

double angleDeg(const Mat3& a, const Mat3& b) {
    // atan2 of sine and cosine instead of acos of the cosine alone: acos
    // near 1 turns the rounding of float attitudes into hundredths of a
    // degree, which is the size of the errors being measured.
    const Mat3 d = mul(transpose(a), b);
    return std::atan2(norm(vee2(d)) / 2.0, cosAngle(d)) * kRadToDeg;
}

Vec3 rollPitchYaw(const Mat3& r) {
    return {std::atan2(r[7], r[8]), -std::asin(std::clamp(r[6], -1.0, 1.0)), std::atan2(r[3], r[0])};
}

Vec3 fromFloats(const float v[3]) { return {v[0], v[1], v[2]}; }

double distanceMm(const Vec3& a, const Vec3& b) {
    return 1000.0 * norm({a[0] - b[0], a[1] - b[1], a[2] - b[2]});
}

}  // namespace orvmon
