// Ground-truth head motion: a smooth attitude and position given as a pure
// function of time, with the body angular rate that is the exact derivative
// of the attitude. The simulator samples it to build tracking poses and IMU
// samples, and tests compare what the library predicts with it.
#pragma once

#include "orvaccess/orvaccess.h"

namespace orvsim {

// One sinusoid: amplitude * sin(2 pi t / period + phase).
struct Wave {
    double amplitude = 0.0;  // rad for angles, m for positions
    double period = 1.0;     // s, above 0
    double phase = 0.0;      // rad
};

// Two waves per degree of freedom, summed, plus a constant.
struct MotionParams {
    static constexpr int kWaves = 2;
    Wave euler[3][kWaves];     // roll, pitch, yaw
    Wave position[3][kWaves];  // x, y, z
    double eulerBase[3] = {0.0, 0.0, 0.0};
    double positionBase[3] = {0.0, 0.0, 0.0};

    // A head looking around: tens of degrees of yaw, a few to ten degrees
    // of roll and pitch, centimetres of position, periods of 1 to 7 s.
    static MotionParams head();
    // No motion at all: the identity attitude at the base position.
    static MotionParams still();
};

// The state of the motion at one time. Attitude matrices are row-major,
// body to navigation, Rz(yaw) * Ry(pitch) * Rx(roll).
struct MotionSample {
    double t = 0.0;
    double euler[3] = {};      // roll, pitch, yaw, rad
    double eulerRate[3] = {};  // rad/s
    double cbn[3][3] = {};
    double position[3] = {};  // m
    double velocity[3] = {};  // m/s
    double rate[3] = {};      // body angular rate, rad/s
};

class Motion {
public:
    Motion() : Motion(MotionParams::head()) {}
    explicit Motion(const MotionParams& params) : p_(params) {}

    MotionSample at(double t) const;
    const MotionParams& params() const { return p_; }

private:
    MotionParams p_;
};

// Puts the pose of a sample into a tracking record: cbn, euler, position,
// vecG (the velocity) and angularRate. Other fields are left as they are.
void fillPose(const MotionSample& s, s_OrvAccessTrkDataExt& rec);

}  // namespace orvsim
