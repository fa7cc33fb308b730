#include "sim/Motion.hpp"

#include <cmath>

namespace orvsim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Value and first derivative of a sum of waves plus a constant.
void evaluate(const Wave (&waves)[MotionParams::kWaves], double base, double t, double* value,
              double* slope) {
    double v = base, d = 0.0;
    for (const Wave& w : waves) {
        const double omega = 2.0 * kPi / w.period;
        const double arg = omega * t + w.phase;
        v += w.amplitude * std::sin(arg);
        d += w.amplitude * omega * std::cos(arg);
    }
    *value = v;
    *slope = d;
}

}  // namespace

MotionParams MotionParams::head() {
    MotionParams p;
    p.euler[0][0] = {8.0 * kDeg, 3.1, 0.3};
    p.euler[0][1] = {3.0 * kDeg, 1.3, 1.7};
    p.euler[1][0] = {10.0 * kDeg, 4.3, 2.1};
    p.euler[1][1] = {2.5 * kDeg, 1.1, 0.4};
    p.euler[2][0] = {35.0 * kDeg, 6.7, 0.9};
    p.euler[2][1] = {5.0 * kDeg, 1.9, 2.6};
    p.position[0][0] = {0.05, 5.3, 0.2};
    p.position[0][1] = {0.01, 1.7, 1.1};
    p.position[1][0] = {0.04, 4.1, 1.4};
    p.position[1][1] = {0.01, 1.3, 0.5};
    p.position[2][0] = {0.02, 3.7, 2.2};
    p.position[2][1] = {0.005, 1.1, 0.8};
    p.positionBase[2] = -1.6;
    return p;
}

MotionParams MotionParams::still() { return MotionParams{}; }

MotionSample Motion::at(double t) const {
    MotionSample s;
    s.t = t;
    for (int i = 0; i < 3; ++i) {
        evaluate(p_.euler[i], p_.eulerBase[i], t, &s.euler[i], &s.eulerRate[i]);
        evaluate(p_.position[i], p_.positionBase[i], t, &s.position[i], &s.velocity[i]);
    }
    const double sr = std::sin(s.euler[0]), cr = std::cos(s.euler[0]);
    const double sp = std::sin(s.euler[1]), cp = std::cos(s.euler[1]);
    const double sy = std::sin(s.euler[2]), cy = std::cos(s.euler[2]);
    s.cbn[0][0] = cy * cp;
    s.cbn[0][1] = cy * sp * sr - sy * cr;
    s.cbn[0][2] = cy * sp * cr + sy * sr;
    s.cbn[1][0] = sy * cp;
    s.cbn[1][1] = sy * sp * sr + cy * cr;
    s.cbn[1][2] = sy * sp * cr - cy * sr;
    s.cbn[2][0] = -sp;
    s.cbn[2][1] = cp * sr;
    s.cbn[2][2] = cp * cr;
    // Body rate of the z-y-x sequence, so that d(cbn)/dt = cbn * skew(rate).
    const double dr = s.eulerRate[0], dp = s.eulerRate[1], dy = s.eulerRate[2];
    s.rate[0] = dr - dy * sp;
    s.rate[1] = dp * cr + dy * sr * cp;
    s.rate[2] = -dp * sr + dy * cr * cp;
    return s;
}

void fillPose(const MotionSample& s, s_OrvAccessTrkDataExt& rec) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) rec.cbn[i][j] = static_cast<float>(s.cbn[i][j]);
        rec.euler[i] = static_cast<float>(s.euler[i]);
        rec.position[i] = static_cast<float>(s.position[i]);
        rec.vecG[i] = static_cast<float>(s.velocity[i]);
        rec.angularRate[i] = static_cast<float>(s.rate[i]);
    }
}

}  // namespace orvsim
