// Ground-truth head motion: attitude and position given as a pure function
// of time, with the body angular rate that is the exact derivative of the
// attitude. The simulator samples it to build tracking poses and IMU
// samples, and tests compare what the library predicts with it.
//
// Profiles (orvsim --motion NAME):
//   smooth   a head looking around slowly: a sum of sines (the default)
//   gaze     quick gaze shifts between fixations, as heads really turn
//   trace    a recorded motion, replayed: a CSV of time, position and
//            attitude, or the tracking poses of an orvrec capture
// and "+vibration" on top of any of them: a vehicle's shaking.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

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
    // Vehicle vibration, added on top of a profile: 5 Hz (seat and cabin)
    // and 17 Hz (engine or rotor) components, well inside the 0.5 to 80 Hz
    // band of whole-body vibration (ISO 2631-1).
    static MotionParams vibration();
};

// One quick head turn of a gaze shift: a minimum-jerk movement by
// (yaw, pitch) over durationS, then a fixation of holdS.
struct GazeShift {
    double yaw = 0.0, pitch = 0.0;  // rad
    double durationS = 0.0;
    double holdS = 0.0;
};

// A recorded motion: samples at increasing times, interpolated by cubic
// Hermite splines (Catmull-Rom tangents) so that the rate is continuous and
// every sample is met exactly. Time starts at the first sample.
struct MotionTrace {
    std::vector<double> t;       // s, from 0
    std::vector<double> v[6];    // x, y, z (m), roll, pitch, yaw (rad, unwrapped)
    std::string summary;         // what was read from where, for the program's start line

    // A capture (pcap or pcapng, told by its first bytes whatever its name)
    // goes to loadCapture(), anything else to loadCsv(). False with `error`
    // naming the file and what to fix.
    static bool load(const std::string& path, MotionTrace& out, std::string& error);
    // Reads "time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg" lines; a first
    // line that is not numbers is a header, lines starting with '#' are
    // comments.
    static bool loadCsv(const std::string& path, MotionTrace& out, std::string& error);
    // The tracking packets of a capture (orvrec's, or tcpdump's of the
    // orvCore port), decoded as the library decodes them: pose time,
    // position and attitude. Damaged and repeated packets are left out, and
    // packets the network reordered are put back in pose-time order.
    static bool loadCapture(const std::string& path, MotionTrace& out, std::string& error);
    // True when the first bytes of a file are those of a pcap or pcapng file.
    static bool isCapture(const unsigned char* head, size_t size);

    // Appends a sample; false (and nothing appended) unless timeS is after
    // the last sample's. Angles are unwrapped against the sample before.
    bool append(double timeS, const double position[3], const double eulerRad[3]);
    double durationS() const { return t.empty() ? 0.0 : t.back(); }
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
    enum class Kind { Smooth, Gaze, Trace };

    Motion() : Motion(MotionParams::head()) {}
    explicit Motion(const MotionParams& params) : p_(params) {}
    // Quick gaze shifts over a slow, smaller version of the smooth motion.
    static Motion gaze();
    static Motion trace(std::shared_ptr<const MotionTrace> trace);
    // The same motion with vehicle vibration added.
    Motion withVibration() const;

    // "smooth", "gaze" or "trace", each optionally followed by "+vibration";
    // a trace needs tracePath. False with `error` saying what is accepted.
    static bool fromName(const std::string& name, const std::string& tracePath, Motion& out, std::string& error);
    // The profile's name as fromName() takes it.
    std::string name() const;
    // The recorded motion of a trace profile; null for the others.
    const MotionTrace* recorded() const { return trace_.get(); }

    MotionSample at(double t) const;
    const MotionParams& params() const { return p_; }
    Kind kind() const { return kind_; }
    bool vibrating() const { return vibrating_; }
    // The repeating schedule of the gaze profile.
    static const std::vector<GazeShift>& gazeSchedule();

private:
    Kind kind_ = Kind::Smooth;
    MotionParams p_;
    bool vibrating_ = false;
    std::shared_ptr<const MotionTrace> trace_;
};

// Puts the pose of a sample into a tracking record: cbn, euler, position,
// vecG (the velocity) and angularRate. Other fields are left as they are.
void fillPose(const MotionSample& s, s_OrvAccessTrkDataExt& rec);

}  // namespace orvsim
