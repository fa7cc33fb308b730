// The simulator's head-motion profiles have the properties they claim: the
// gaze shifts' peak velocities and accelerations, the vibration's spectrum,
// and a recorded trace replayed exactly, also through the library.
#include <chrono>
#include <cmath>
#include <complex>
#include <fstream>
#include <thread>

#include "orvsim/Motion.hpp"
#include "support/SimRunner.hpp"

using namespace orvsim;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

double norm3(const double (&v)[3]) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

// The body rate is the derivative of the attitude, and the velocity that of
// the position: what the IMU samples and the prediction rest on.
void expectConsistent(const Motion& m, double t) {
    const MotionSample s = m.at(t);
    const double h = 1e-6;
    const MotionSample a = m.at(t - h), b = m.at(t + h);
    double w[3][3] = {};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) w[i][j] += s.cbn[k][i] * (b.cbn[k][j] - a.cbn[k][j]) / (2 * h);
    const double tol = 1e-5 * (1.0 + norm3(s.rate));
    EXPECT_NEAR(w[2][1], s.rate[0], tol) << m.name() << " t " << t;
    EXPECT_NEAR(w[0][2], s.rate[1], tol) << m.name() << " t " << t;
    EXPECT_NEAR(w[1][0], s.rate[2], tol) << m.name() << " t " << t;
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR((b.position[i] - a.position[i]) / (2 * h), s.velocity[i], 1e-6) << m.name() << " t " << t;
}

// |DFT| of x (sampled at fs) at frequency f.
double amplitudeAt(const std::vector<double>& x, double fs, double f) {
    std::complex<double> sum = 0.0;
    for (size_t k = 0; k < x.size(); ++k) sum += x[k] * std::polar(1.0, -2.0 * kPi * f * k / fs);
    return 2.0 * std::abs(sum) / static_cast<double>(x.size());
}

std::string writeTrace(const orvtest::TempDir& dir, const std::string& text) {
    return dir.write("trace.csv", text);
}

}  // namespace

TEST(MotionProfiles, NamesAndDerivatives) {
    Motion m;
    std::string error;
    for (const char* name : {"smooth", "gaze", "smooth+vibration", "gaze+vibration"}) {
        ASSERT_TRUE(Motion::fromName(name, "", m, error)) << error;
        EXPECT_EQ(m.name(), name);
        for (double t = 0.0; t < 12.0; t += 0.137) expectConsistent(m, t);
    }
    // The default profile is the smooth motion as it always was.
    ASSERT_TRUE(Motion::fromName("smooth", "", m, error));
    const MotionSample a = m.at(3.3), b = Motion().at(3.3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(a.euler[i], b.euler[i]);

    for (const char* bad : {"fast", "gaze+", "gaze+shake", "+vibration", ""}) {
        EXPECT_FALSE(Motion::fromName(bad, "", m, error)) << bad;
        EXPECT_NE(error.find("use smooth, gaze or trace"), std::string::npos) << error;
    }
    EXPECT_FALSE(Motion::fromName("trace", "", m, error));
    EXPECT_NE(error.find("needs --trace FILE"), std::string::npos) << error;
    EXPECT_FALSE(Motion::fromName("gaze", "x.csv", m, error));
    EXPECT_NE(error.find("only with --motion trace"), std::string::npos) << error;
}

TEST(MotionProfiles, GazeShiftsReachTheirCitedVelocitiesAndComeBack) {
    const Motion gaze = Motion::gaze();
    double cycle = 0.0;
    for (const GazeShift& g : Motion::gazeSchedule()) cycle += g.durationS + g.holdS;
    const double dt = 0.0005;
    double peakRate = 0.0, peakAccel = 0.0;
    int shifts = 0;  // excursions above 150 deg/s
    bool fast = false;
    MotionSample prev = gaze.at(0.0);
    for (double t = dt; t <= cycle; t += dt) {
        const MotionSample s = gaze.at(t);
        const double r = norm3(s.rate) / kDeg;
        double d[3];
        for (int i = 0; i < 3; ++i) d[i] = (s.rate[i] - prev.rate[i]) / dt;
        peakRate = std::max(peakRate, r);
        peakAccel = std::max(peakAccel, norm3(d) / kDeg);
        if (r > 150.0 && !fast) ++shifts;
        fast = r > 150.0;
        prev = s;
    }
    // Several hundred degrees per second and thousands per second squared,
    // once per shift of the schedule.
    EXPECT_GT(peakRate, 300.0);
    EXPECT_LT(peakRate, 400.0);
    EXPECT_GT(peakAccel, 3000.0);
    EXPECT_LT(peakAccel, 6000.0);
    EXPECT_EQ(shifts, static_cast<int>(Motion::gazeSchedule().size()));
    // Between shifts the head is nearly still: the drift alone.
    const double fixation = Motion::gazeSchedule()[0].durationS + 0.3;
    EXPECT_LT(norm3(gaze.at(fixation).rate) / kDeg, 20.0);
    // The schedule comes back to where it started, so the head never drifts away.
    const MotionSample a = gaze.at(1.0), b = gaze.at(1.0 + cycle);
    const MotionSample sa = Motion(Motion::gaze().params()).at(1.0),
                       sb = Motion(Motion::gaze().params()).at(1.0 + cycle);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(a.euler[i] - sa.euler[i], b.euler[i] - sb.euler[i], 1e-9);
}

TEST(MotionProfiles, VibrationShakesAtItsFrequencies) {
    const Motion smooth, shaken = Motion().withVibration();
    const double fs = 1000.0;
    std::vector<double> pitch, z;
    for (int k = 0; k < 2000; ++k) {  // two seconds: whole periods of 5 and 17 Hz
        const double t = k / fs;
        const MotionSample a = shaken.at(t), b = smooth.at(t);
        pitch.push_back(a.euler[1] - b.euler[1]);
        z.push_back(a.position[2] - b.position[2]);
    }
    double best = 0.0, bestF = 0.0, at17 = 0.0;
    for (double f = 0.5; f <= 60.0; f += 0.5) {
        const double amp = amplitudeAt(pitch, fs, f);
        if (f == 17.0) at17 = amp;
        if (amp > best) best = amp, bestF = f;
    }
    EXPECT_EQ(bestF, 5.0);
    EXPECT_NEAR(best / kDeg, 0.6, 0.01);
    EXPECT_NEAR(at17 / kDeg, 0.2, 0.01);
    EXPECT_NEAR(amplitudeAt(z, fs, 5.0), 0.002, 1e-4);
    // Nothing but vibration is added: no offset, no slow component.
    EXPECT_LT(amplitudeAt(pitch, fs, 1.0), 1e-4 * kDeg);
    // On top of gaze shifts as well.
    const MotionSample g = Motion::gaze().withVibration().at(0.37), h = Motion::gaze().at(0.37);
    EXPECT_NE(g.euler[1], h.euler[1]);
}

TEST(MotionProfiles, TraceIsReplayedExactly) {
    orvtest::TempDir dir;
    // Yaw crosses 180 degrees between the third and fourth samples.
    const double rows[][7] = {{10.0, 0.1, -0.2, -1.5, 1, 2, 170},
                              {10.01, 0.11, -0.21, -1.49, 1.5, 2.5, 174},
                              {10.025, 0.12, -0.2, -1.48, 2, 2, 179},
                              {10.03, 0.125, -0.19, -1.47, 2.5, 1, -178},
                              {10.05, 0.13, -0.18, -1.46, 3, 0, -175}};
    std::string text = "time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg\n# exported from another tracker\n";
    char line[200];
    for (const auto& r : rows) {
        std::snprintf(line, sizeof line, "%.17g, %.17g,%.17g,%.17g,%.17g,%.17g,%.17g\n", r[0], r[1], r[2],
                      r[3], r[4], r[5], r[6]);
        text += line;
    }
    Motion m;
    std::string error;
    ASSERT_TRUE(Motion::fromName("trace", writeTrace(dir, text), m, error)) << error;
    EXPECT_EQ(m.name(), "trace");
    for (const auto& r : rows) {
        const double t = r[0] - rows[0][0];
        const MotionSample s = m.at(t);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(s.position[i], r[1 + i]) << t;
        for (int i = 0; i < 3; ++i) {
            const double d = std::remainder(s.euler[i] - r[4 + i] * kDeg, 2 * kPi);
            EXPECT_NEAR(d, 0.0, 1e-12) << t;
        }
    }
    // Between 179 and -178 degrees the head turns the short way.
    const double mid = m.at(0.0275).euler[2] / kDeg;
    EXPECT_GT(mid, 179.0);
    EXPECT_LT(mid, 182.0);
    // The rate is continuous through a sample and consistent with the attitude.
    const MotionSample left = m.at(0.025 - 1e-7), right = m.at(0.025 + 1e-7);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(left.rate[i], right.rate[i], 1e-3);
    for (double t : {0.003, 0.017, 0.027, 0.041}) expectConsistent(m, t);
    // Past its end the trace holds its last pose.
    const MotionSample end = m.at(5.0);
    EXPECT_EQ(end.position[0], 0.13);
    EXPECT_EQ(norm3(end.rate), 0.0);

    // What is wrong with a file is named with its line.
    const std::pair<const char*, const char*> bad[] = {
        {"0,0,0,0,0,0,0\n0.1,0,0,0,0,0\n", "line 2: expected 7 numbers"},
        {"0,0,0,0,0,0,0\n0.1,0,0,zero,0,0,0\n", "line 2: expected 7 numbers"},
        {"t,x,y,z,r,p,y\n0,0,0,0,0,0,0\n0,0,0,0,0,0,0\n", "line 3: time 0"},
        {"0,0,0,0,0,0,0\n", "holds 1 samples; it needs at least two"},
    };
    for (const auto& [content, message] : bad) {
        EXPECT_FALSE(Motion::fromName("trace+vibration", writeTrace(dir, content), m, error)) << content;
        EXPECT_NE(error.find(message), std::string::npos) << error;
    }
    EXPECT_FALSE(Motion::fromName("trace", (dir.path() / "missing.csv").string(), m, error));
    EXPECT_NE(error.find("cannot read the motion trace"), std::string::npos) << error;
}

// The simulator streams the trace: the library's tracking records carry its
// poses at the sample times.
TEST(MotionProfiles, TraceReachesTheLibrary) {
    orvtest::TempDir dir;
    std::string text;
    for (int k = 0; k <= 200; ++k) {  // 2 s at 100 Hz, a turn and a nod
        const double t = k * 0.01;
        char line[200];
        std::snprintf(line, sizeof line, "%.4f,%.5f,0.02,-1.6,0,%.5f,%.5f\n", t, 0.1 * t,
                      10 * std::sin(3 * t), 90 * t);
        text += line;
    }
    static Motion traced;
    std::string error;
    ASSERT_TRUE(Motion::fromName("trace", writeTrace(dir, text), traced, error)) << error;
    orvtest::SimRunner run(dir);
    ASSERT_TRUE(run.start([](SimConfig& c) { c.motion = traced; }));
    OrvAccess access;
    access.setIniPath(run.ini());
    ASSERT_TRUE(access.open()) << access.getLastError();
    int checked = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (checked < 200 && std::chrono::steady_clock::now() < end) {
        bool valid = false;
        s_OrvAccessTrkDataExt t{};
        while (access.getTrackingData(&valid, &t) && valid) {
            if (t.statusWord == 0) continue;  // NFT poses have their own tags
            MotionSample truth = traced.at(t.packetTag * 0.001);
            s_OrvAccessTrkDataExt want{};
            fillPose(truth, want);
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(t.position[i], want.position[i]) << t.packetTag;
                for (int j = 0; j < 3; ++j) EXPECT_NEAR(t.cbn[i][j], want.cbn[i][j], 1e-6) << t.packetTag;
            }
            ++checked;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_GE(checked, 200);
    access.close();
}
