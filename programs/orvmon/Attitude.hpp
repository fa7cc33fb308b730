// Rotation matrices for the prediction-error measurement, as the monitor's
// value types: geodesic interpolation between two attitudes and the angle
// between two attitudes, computed by the library's attitude maths
// (OrvosiMath). Matrices are row-major 3x3, body to navigation, in double
// precision.
#pragma once

#include <array>

namespace orvmon {

using Mat3 = std::array<double, 9>;
using Vec3 = std::array<double, 3>;

constexpr double kPi = 3.14159265358979323846;
constexpr double kRadToDeg = 180.0 / kPi;

Mat3 identity();
Mat3 fromRows(const float m[3][3]);
Mat3 mul(const Mat3& a, const Mat3& b);
Mat3 transpose(const Mat3& a);

// Rotation vector (axis times angle, angle in [0, pi]) and back.
Vec3 logSO3(const Mat3& r);
Mat3 expSO3(const Vec3& w);

// R0 * exp(f * log(R0^T R1)): f = 0 gives r0, f = 1 gives r1.
Mat3 interpolate(const Mat3& r0, const Mat3& r1, double f);

// The rotation angle of a^T b, in degrees.
double angleDeg(const Mat3& a, const Mat3& b);

// Roll, pitch, yaw in radians of r = Rz(yaw) Ry(pitch) Rx(roll).
Vec3 rollPitchYaw(const Mat3& r);

Vec3 fromFloats(const float v[3]);
// Distance between two points, in millimetres when they are in metres.
double distanceMm(const Vec3& a, const Vec3& b);

}  // namespace orvmon
