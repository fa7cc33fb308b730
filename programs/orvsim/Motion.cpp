#include "orvsim/Motion.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "math/OrvosiMath.hpp"

namespace orvsim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Adds the value and first derivative of a sum of waves.
void addWaves(const Wave (&waves)[MotionParams::kWaves], double t, double* value, double* slope) {
    for (const Wave& w : waves) {
        if (w.amplitude == 0.0) continue;
        const double omega = 2.0 * kPi / w.period;
        const double arg = omega * t + w.phase;
        *value += w.amplitude * std::sin(arg);
        *slope += w.amplitude * omega * std::cos(arg);
    }
}

void addParams(const MotionParams& p, double t, MotionSample& s) {
    for (int i = 0; i < 3; ++i) {
        s.euler[i] += p.eulerBase[i];
        s.position[i] += p.positionBase[i];
        addWaves(p.euler[i], t, &s.euler[i], &s.eulerRate[i]);
        addWaves(p.position[i], t, &s.position[i], &s.velocity[i]);
    }
}

// Minimum-jerk movement from 0 to 1 over s in [0, 1]: the bell-shaped
// velocity profile of a fast voluntary head turn. Position and d/ds.
void minimumJerk(double s, double* p, double* dp) {
    const double s2 = s * s, s3 = s2 * s;
    *p = s3 * (10.0 - 15.0 * s + 6.0 * s2);
    *dp = 30.0 * s2 * (1.0 - 2.0 * s + s2);
}

// The gaze shifts' yaw and pitch at t: a repeating schedule whose shifts
// add up to nothing, so that the head comes back to where it started.
void addGaze(double t, MotionSample& s) {
    const std::vector<GazeShift>& shifts = Motion::gazeSchedule();
    double cycle = 0.0;
    for (const GazeShift& g : shifts) cycle += g.durationS + g.holdS;
    double tc = std::fmod(t, cycle);
    if (tc < 0.0) tc += cycle;
    double start = 0.0;
    for (const GazeShift& g : shifts) {
        if (tc < start) break;
        const double into = tc - start;
        if (into >= g.durationS) {
            s.euler[2] += g.yaw;
            s.euler[1] += g.pitch;
        } else {
            double p = 0.0, dp = 0.0;
            minimumJerk(into / g.durationS, &p, &dp);
            s.euler[2] += g.yaw * p;
            s.euler[1] += g.pitch * p;
            s.eulerRate[2] += g.yaw * dp / g.durationS;
            s.eulerRate[1] += g.pitch * dp / g.durationS;
        }
        start += g.durationS + g.holdS;
    }
}

// The trace at t: value and slope of the Hermite spline of each channel.
void addTrace(const MotionTrace& tr, double t, MotionSample& s) {
    const size_t n = tr.t.size();
    double* value[6] = {&s.position[0], &s.position[1], &s.position[2], &s.euler[0], &s.euler[1], &s.euler[2]};
    double* slope[6] = {&s.velocity[0], &s.velocity[1], &s.velocity[2],
                        &s.eulerRate[0], &s.eulerRate[1], &s.eulerRate[2]};
    // Before the first and after the last sample the head holds still.
    if (t <= tr.t.front() || t >= tr.t.back()) {
        const size_t i = t <= tr.t.front() ? 0 : n - 1;
        for (int c = 0; c < 6; ++c) *value[c] += tr.v[c][i];
        return;
    }
    size_t lo = 0, hi = n - 1;  // t lies in [t[lo], t[hi]]
    while (hi - lo > 1) {
        const size_t mid = (lo + hi) / 2;
        (tr.t[mid] <= t ? lo : hi) = mid;
    }
    const size_t i = lo;
    const double h = tr.t[i + 1] - tr.t[i];
    const double u = (t - tr.t[i]) / h, u2 = u * u, u3 = u2 * u;
    const double h00 = 2 * u3 - 3 * u2 + 1, h10 = u3 - 2 * u2 + u, h01 = -2 * u3 + 3 * u2, h11 = u3 - u2;
    const double d00 = 6 * u2 - 6 * u, d10 = 3 * u2 - 4 * u + 1, d01 = -6 * u2 + 6 * u, d11 = 3 * u2 - 2 * u;
    for (int c = 0; c < 6; ++c) {
        const std::vector<double>& v = tr.v[c];
        // Catmull-Rom tangents; one-sided at the ends.
        const auto tangent = [&](size_t k) {
            const size_t a = k == 0 ? 0 : k - 1, b = k + 1 == n ? k : k + 1;
            return (v[b] - v[a]) / (tr.t[b] - tr.t[a]);
        };
        const double m0 = tangent(i) * h, m1 = tangent(i + 1) * h;
        *value[c] += h00 * v[i] + h10 * m0 + h01 * v[i + 1] + h11 * m1;
        *slope[c] += (d00 * v[i] + d10 * m0 + d01 * v[i + 1] + d11 * m1) / h;
    }
}

// The fields of one CSV line as numbers; false unless all are.
bool parseNumbers(const std::string& line, std::vector<double>& out) {
    out.clear();
    std::stringstream fields(line);
    std::string f;
    while (std::getline(fields, f, ',')) {
        const char* b = f.c_str();
        char* end = nullptr;
        errno = 0;
        const double x = std::strtod(b, &end);
        while (end != nullptr && (*end == ' ' || *end == '\t' || *end == '\r')) ++end;
        if (end == b || end == nullptr || *end != '\0' || errno == ERANGE || !std::isfinite(x)) return false;
        out.push_back(x);
    }
    return true;
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

// Amplitudes are an example of a seated occupant, not a measurement of any
// one vehicle: a head pitching by 0.6 degrees at 5 Hz turns at up to
// 19 deg/s, which the prediction meets at the top of its range.
MotionParams MotionParams::vibration() {
    MotionParams p;
    p.euler[0][0] = {0.3 * kDeg, 1.0 / 5.0, 1.0};
    p.euler[0][1] = {0.1 * kDeg, 1.0 / 17.0, 0.2};
    p.euler[1][0] = {0.6 * kDeg, 1.0 / 5.0, 0.0};
    p.euler[1][1] = {0.2 * kDeg, 1.0 / 17.0, 0.5};
    p.euler[2][1] = {0.1 * kDeg, 1.0 / 17.0, 2.0};
    p.position[2][0] = {0.002, 1.0 / 5.0, 0.3};
    p.position[2][1] = {0.0005, 1.0 / 17.0, 0.0};
    return p;
}

// Head turns of gaze shifts last longer the larger they are, the "main
// sequence" Zangemeister, Jones and Stark describe (Exp. Neurology 71, 1981;
// no figure is taken from it), with bell-shaped, minimum-jerk velocity
// profiles (Chen et al., PLoS ONE 7, 2012, e47565). Durations are our
// choice and grow with amplitude (80 ms + 4 ms per degree),
// which puts the peak velocities (1.875 A / D) at 240 to 360 deg/s, around
// the 300 deg/s that LaValle (Virtual Reality, 2020, in its latency example)
// takes for a very fast head turn, and the peak accelerations
// (5.77 A / D^2) at 3000 to 4600 deg/s^2. Fixations last 0.5 to 1.2 s.
const std::vector<GazeShift>& Motion::gazeSchedule() {
    static const std::vector<GazeShift> schedule = [] {
        const double yaw[] = {40, -25, -45, 60, -20, -30, 20};
        const double pitch[] = {10, -5, -10, 15, -5, -10, 5};
        const double hold[] = {0.6, 0.9, 0.5, 1.2, 0.7, 0.8, 1.0};
        std::vector<GazeShift> s;
        for (size_t i = 0; i < std::size(yaw); ++i) {
            const double amplitudeDeg = std::hypot(yaw[i], pitch[i]);
            s.push_back({yaw[i] * kDeg, pitch[i] * kDeg, 0.08 + 0.004 * amplitudeDeg, hold[i]});
        }
        return s;
    }();
    return schedule;
}

Motion Motion::gaze() {
    // Between the shifts the head drifts as in the smooth motion, at a
    // quarter of its angles.
    MotionParams p = MotionParams::head();
    for (auto& axis : p.euler)
        for (Wave& w : axis) w.amplitude *= 0.25;
    Motion m(p);
    m.kind_ = Kind::Gaze;
    return m;
}

Motion Motion::trace(std::shared_ptr<const MotionTrace> trace) {
    Motion m(MotionParams::still());
    m.kind_ = Kind::Trace;
    m.trace_ = std::move(trace);
    return m;
}

Motion Motion::withVibration() const {
    Motion m = *this;
    m.vibrating_ = true;
    return m;
}

bool Motion::fromName(const std::string& name, const std::string& tracePath, Motion& out, std::string& error) {
    const size_t plus = name.find('+');
    const std::string base = name.substr(0, plus);
    const std::string extra = plus == std::string::npos ? "" : name.substr(plus + 1);
    if ((base != "smooth" && base != "gaze" && base != "trace") || (!extra.empty() && extra != "vibration") ||
        (plus != std::string::npos && extra.empty())) {
        error = "unknown motion '" + name +
                "': use smooth, gaze or trace, optionally followed by +vibration (e.g. gaze+vibration)";
        return false;
    }
    if (base == "trace" && tracePath.empty()) {
        error = "motion trace needs --trace FILE: a CSV of time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg, or an "
                "orvrec capture";
        return false;
    }
    if (base != "trace" && !tracePath.empty()) {
        error = "--trace is read only with --motion trace (or trace+vibration)";
        return false;
    }
    Motion m;
    if (base == "gaze") {
        m = gaze();
    } else if (base == "trace") {
        auto tr = std::make_shared<MotionTrace>();
        if (!MotionTrace::load(tracePath, *tr, error)) return false;
        m = trace(std::move(tr));
    }
    out = extra.empty() ? m : m.withVibration();
    return true;
}

std::string Motion::name() const {
    const char* base = kind_ == Kind::Gaze ? "gaze" : kind_ == Kind::Trace ? "trace" : "smooth";
    return std::string(base) + (vibrating_ ? "+vibration" : "");
}

bool MotionTrace::isCapture(const unsigned char* head, size_t size) {
    if (size < 4) return false;
    const uint32_t le = static_cast<uint32_t>(head[0]) | static_cast<uint32_t>(head[1]) << 8 |
                        static_cast<uint32_t>(head[2]) << 16 | static_cast<uint32_t>(head[3]) << 24;
    // pcap in microseconds and nanoseconds, written on either kind of host;
    // pcapng's section header block reads the same both ways.
    for (const uint32_t magic : {0xA1B2C3D4u, 0xA1B23C4Du})
        if (le == magic || __builtin_bswap32(le) == magic) return true;
    return le == 0x0A0D0D0Au;
}

bool MotionTrace::load(const std::string& path, MotionTrace& out, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read the motion trace " + path + ": " + std::strerror(errno);
        return false;
    }
    unsigned char head[4] = {};
    in.read(reinterpret_cast<char*>(head), sizeof head);
    if (in.gcount() == 0) {
        error = "motion trace " + path + " is empty: give a CSV of time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg "
                "or a capture that orvrec made";
        return false;
    }
    if (isCapture(head, static_cast<size_t>(in.gcount()))) return loadCapture(path, out, error);
    // A name that promises a capture and content that is not one is more
    // likely a damaged capture than a CSV: say so rather than read it as text.
    const std::string ext = std::filesystem::path(path).extension().string();
    if (ext == ".pcap" || ext == ".pcapng" || ext == ".cap") {
        error = "motion trace " + path + " is named as a capture but does not begin like one (pcap or pcapng): " +
                "record it again with orvrec, or give a CSV of time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg";
        return false;
    }
    return loadCsv(path, out, error);
}

bool MotionTrace::append(double timeS, const double position[3], const double eulerRad[3]) {
    if (!t.empty() && !(timeS > t.back())) return false;
    t.push_back(timeS);
    for (int c = 0; c < 3; ++c) v[c].push_back(position[c]);
    for (int c = 0; c < 3; ++c) {
        // Unwrapped, so that 179 to -179 degrees is a turn of 2, not 358.
        double a = eulerRad[c];
        if (!v[3 + c].empty()) {
            const double prev = v[3 + c].back();
            a += 2.0 * kPi * std::round((prev - a) / (2.0 * kPi));
        }
        v[3 + c].push_back(a);
    }
    return true;
}

bool MotionTrace::loadCsv(const std::string& path, MotionTrace& out, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read the motion trace " + path + ": " + std::strerror(errno);
        return false;
    }
    out = MotionTrace{};
    std::string line;
    std::vector<double> x;
    size_t lineNo = 0;
    bool seenLine = false;
    double t0 = 0.0;
    while (std::getline(in, line)) {
        ++lineNo;
        if (line.find_first_not_of(" \t\r") == std::string::npos || line[line.find_first_not_of(" \t")] == '#')
            continue;
        const std::string where = "motion trace " + path + " line " + std::to_string(lineNo) + ": ";
        const bool numbers = parseNumbers(line, x);
        if (!seenLine && !numbers) {  // a header
            seenLine = true;
            continue;
        }
        seenLine = true;
        if (!numbers || x.size() != 7) {
            error = where + "expected 7 numbers: time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg";
            return false;
        }
        if (out.t.empty()) t0 = x[0];
        const double euler[3] = {x[4] * kDeg, x[5] * kDeg, x[6] * kDeg};
        if (!out.append(x[0] - t0, &x[1], euler)) {
            error = where + "time " + std::to_string(x[0]) + " s is not after the previous sample's; sort the trace";
            return false;
        }
    }
    if (out.t.size() < 2) {
        error = "motion trace " + path + " holds " + std::to_string(out.t.size()) +
                " samples; it needs at least two (time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg)";
        return false;
    }
    char text[128];
    std::snprintf(text, sizeof text, "%zu samples over %.3f s from ", out.t.size(), out.durationS());
    out.summary = text + path;
    return true;
}

MotionSample Motion::at(double t) const {
    MotionSample s;
    s.t = t;
    addParams(p_, t, s);
    if (kind_ == Kind::Gaze) addGaze(t, s);
    if (kind_ == Kind::Trace && trace_) addTrace(*trace_, t, s);
    if (vibrating_) addParams(MotionParams::vibration(), t, s);
    OrvosiMath::euler2Cbn(s.euler, s.cbn);
    const double sr = std::sin(s.euler[0]), cr = std::cos(s.euler[0]);
    const double sp = std::sin(s.euler[1]), cp = std::cos(s.euler[1]);
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
