// The monitor's statistics: sequence checks, attitude arithmetic, matching
// predictions to the reported poses, and the core driven by a real access
// object over loopback.
#include <gtest/gtest.h>

#include <orvaccess/OrvAccess.hpp>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "Attitude.hpp"
#include "Layout.hpp"
#include "Monitor.hpp"
#include "PredictionError.hpp"
#include "SeqCheck.hpp"
#include "Settings.hpp"
#include "support/Allocations.hpp"
#include "support/Loopback.hpp"

using namespace orvmon;

namespace {

// A head turning at a constant rate about a fixed tilted axis.
const Vec3 kAxis = {0.48, 0.6, 0.64};  // unit length
constexpr double kRateRad = 2.0;       // rad/s

Mat3 turned(double angleRad) {
    return expSO3({kAxis[0] * angleRad, kAxis[1] * angleRad, kAxis[2] * angleRad});
}
Mat3 truthAt(int64_t us) { return turned(kRateRad * static_cast<double>(us) / 1e6); }

double maxDiff(const Mat3& a, const Mat3& b) {
    double d = 0.0;
    for (size_t i = 0; i < a.size(); ++i) d = std::max(d, std::fabs(a[i] - b[i]));
    return d;
}

// A float copy, as the tracking record carries attitudes.
Mat3 asFloat(const Mat3& m) {
    float f[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) f[i][j] = static_cast<float>(m[3 * i + j]);
    return fromRows(f);
}

std::string tempDir() {
    char pattern[] = "/tmp/orvmon-test-XXXXXX";
    const char* dir = mkdtemp(pattern);
    return dir ? dir : "/tmp";
}

}  // namespace

// ---- sequence check -------------------------------------------------------------

TEST(SeqCheck, CountsGapsDuplicatesAndLateArrivals) {
    SeqCheck s;
    for (uint32_t n : {10u, 11u, 12u, 15u}) s.feed(n);  // 13, 14 missing
    EXPECT_EQ(s.missing(), 2u);
    s.feed(12);  // seen: a duplicate
    s.feed(13);  // late: fills its gap
    EXPECT_EQ(s.duplicates(), 1u);
    EXPECT_EQ(s.outOfOrder(), 1u);
    EXPECT_EQ(s.missing(), 1u);
    s.feed(13);  // the late one again is a duplicate, not another late one
    EXPECT_EQ(s.duplicates(), 2u);
    s.feed(9);  // before the first number: late, and the run reaches back
    EXPECT_EQ(s.outOfOrder(), 2u);
    EXPECT_EQ(s.missing(), 1u);
    EXPECT_EQ(s.received(), 8u);
    EXPECT_EQ(s.restarts(), 0u);
}

TEST(SeqCheck, WrapsAtThirtyTwoBitsAndRestartsOnHugeJumps) {
    SeqCheck s;
    for (uint32_t n : {0xFFFFFFFDu, 0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 2u}) s.feed(n);
    EXPECT_EQ(s.missing(), 1u);  // only 1
    EXPECT_EQ(s.outOfOrder(), 0u);
    EXPECT_EQ(s.duplicates(), 0u);
    s.feed(0xFFFFFFFFu);  // before the wrap, still within the window
    EXPECT_EQ(s.duplicates(), 1u);

    // A sender that starts over is a restart, not four billion gaps; the
    // gap before it stays counted.
    s.feed(5000000);
    s.feed(5000001);
    EXPECT_EQ(s.restarts(), 1u);
    EXPECT_EQ(s.missing(), 1u);
}

TEST(SeqCheck, OldNumbersBeyondTheWindowAreLateNotDuplicates) {
    SeqCheck s;
    for (uint32_t n = 0; n <= SeqCheck::kWindow + 10; ++n) s.feed(n);
    s.feed(3);  // arrived long ago, but too old to remember
    EXPECT_EQ(s.duplicates(), 0u);
    EXPECT_EQ(s.outOfOrder(), 1u);
    EXPECT_EQ(s.missing(), 0u);
    s.feed(SeqCheck::kWindow);  // recent: remembered
    EXPECT_EQ(s.duplicates(), 1u);
}

TEST(SeqCheck, LearnsTheStepOfTrackingTags) {
    // Tags count IMU samples; a pose every second sample. The first gap
    // arrives before the step is known and must still count once it is.
    SeqCheck s(1, true);
    for (uint32_t n : {100u, 104u, 106u, 108u, 114u, 116u}) s.feed(n);
    EXPECT_EQ(s.step(), 2u);
    EXPECT_EQ(s.missing(), 3u);  // 102, 110, 112
    s.feed(110);
    EXPECT_EQ(s.missing(), 2u);
    EXPECT_EQ(s.outOfOrder(), 1u);
}

// ---- attitude ---------------------------------------------------------------------

TEST(Attitude, GeodesicInterpolationAndAngles) {
    // Between two samples of a constant-rate turn the geodesic is the turn.
    const Mat3 r0 = truthAt(1000), r1 = truthAt(9000);
    for (double f : {0.0, 0.25, 0.5, 0.9, 1.0})
        EXPECT_LT(maxDiff(interpolate(r0, r1, f), truthAt(1000 + static_cast<int64_t>(8000 * f))), 1e-12)
            << f;

    // A deliberate error about another axis is measured as its angle,
    // whichever the base attitude.
    for (double wrongDeg : {0.5, 3.0, 90.0, 179.0}) {
        const Mat3 wrong = mul(truthAt(4000), expSO3({wrongDeg / kRadToDeg, 0.0, 0.0}));
        EXPECT_NEAR(angleDeg(wrong, truthAt(4000)), wrongDeg, 1e-9) << wrongDeg;
    }

    // Round trips through log and exp, including close to a half turn.
    for (double a : {1e-7, 0.3, 3.0, kPi - 1e-4}) {
        const Vec3 w = logSO3(turned(a));
        EXPECT_LT(maxDiff(expSO3(w), turned(a)), 1e-9) << a;
        EXPECT_NEAR(std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]), a, 1e-9) << a;
    }
}

TEST(Attitude, SmallAnglesSurviveFloatAttitudes) {
    // Records carry float matrices: a thousandth of a degree must still
    // come out as that, not as the rounding noise acos would make of it.
    const Mat3 base = truthAt(123456);
    const Mat3 off = mul(base, expSO3({0.0, 0.001 / kRadToDeg, 0.0}));
    EXPECT_NEAR(angleDeg(asFloat(base), asFloat(off)), 0.001, 1e-4);
    EXPECT_LT(angleDeg(asFloat(base), asFloat(base)), 1e-4);
}

// ---- target time and statistics -----------------------------------------------------

TEST(Prediction, TargetTimeFollowsVirtualSyncCtrlAndIsClamped) {
    const uint64_t pose = 1000000, display = 1030000;
    // Without display-time prediction the interval alone counts.
    for (long ctrl : {0L, 4L}) {
        const Target t = targetTime(pose, display, 0.012, ctrl);
        EXPECT_EQ(t.timeUs, 1012000) << ctrl;
        EXPECT_NEAR(t.horizonS, 0.012, 1e-12);
    }
    // With the IMU clock or the record time: the display time plus interval.
    for (long ctrl : {1L, 2L, 3L, 6L}) {
        const Target t = targetTime(pose, display, 0.012, ctrl);
        EXPECT_EQ(t.timeUs, 1042000) << ctrl;
        EXPECT_NEAR(t.horizonS, 0.042, 1e-12);
    }
    EXPECT_EQ(targetTime(pose, pose + 500000, 0.0, 2).timeUs, 1200000);  // at most 0.2 s ahead
    EXPECT_EQ(targetTime(pose, pose, -0.5, 0).timeUs, 995000);           // at most 5 ms back
    EXPECT_NEAR(targetTime(pose, pose, -0.5, 0).horizonS, -0.005, 1e-12);
}

TEST(Prediction, PercentilesAndMoments) {
    ErrorStats s;
    for (int i = 1; i <= 100; ++i) s.add(i * 0.01);
    EXPECT_NEAR(s.mean(), 0.505, 1e-12);
    EXPECT_NEAR(s.rms(), std::sqrt(0.338350), 1e-6);
    EXPECT_NEAR(s.percentile(0.95), 0.95, 0.95 * 0.03);
    EXPECT_DOUBLE_EQ(s.max(), 1.0);

    ErrorStats zeros;  // a prediction that is exactly right
    for (int i = 0; i < 10; ++i) zeros.add(0.0);
    EXPECT_EQ(zeros.percentile(0.95), 0.0);
}

// ---- matching predictions to the reported poses ------------------------------------

TEST(Prediction, MatchesEachPredictionToInterpolatedTruth) {
    PredictionMeter m(64, 4000000, 16);
    for (int64_t t = 0; t <= 20000; t += 2000) m.addTruth(static_cast<uint64_t>(t), truthAt(t));

    // Right on, between samples: no error; the unpredicted pose is off by
    // the turn during the horizon.
    m.addPrediction(4000, {9000, 0.005}, truthAt(9000));
    ASSERT_EQ(m.predicted().n(), 1u);
    EXPECT_LT(m.predicted().max(), 1e-6);
    EXPECT_NEAR(m.unpredicted().mean(), kRateRad * 0.005 * kRadToDeg, 1e-6);

    // Off by a known angle, at a sample time exactly.
    m.addPrediction(4000, {10000, 0.006}, mul(truthAt(10000), expSO3({0.0, 0.0, 0.25 / kRadToDeg})));
    EXPECT_NEAR(m.predicted().max(), 0.25, 1e-6);
    EXPECT_NEAR(m.meanHorizonMs(), 5.5, 1e-9);

    // Beyond the newest truth: waits, then matches when the truth comes.
    m.addPrediction(20000, {23000, 0.003}, truthAt(23000));
    EXPECT_EQ(m.pending(), 1u);
    m.addTruth(24000, truthAt(24000));
    EXPECT_EQ(m.pending(), 0u);
    EXPECT_EQ(m.predicted().n(), 3u);
    EXPECT_EQ(m.unmatched(), 0u);
}

TEST(Prediction, UnmatchedWhenTruthIsMissingOrGone) {
    PredictionMeter m(64, 30000, 2);
    m.addTruth(100000, truthAt(100000));
    m.addTruth(102000, truthAt(102000));
    m.addTruth(125000, truthAt(125000));  // 23 ms later: no truth in between

    m.addPrediction(102000, {110000, 0.008}, truthAt(110000));  // in the gap
    EXPECT_EQ(m.unmatched(), 1u);
    m.addPrediction(100000, {99000, -0.001}, truthAt(99000));  // before the oldest
    EXPECT_EQ(m.unmatched(), 2u);

    // Old truth is let go after the retention time.
    m.addTruth(134000, truthAt(134000));  // 100000 is now more than 30 ms back
    m.addPrediction(100000, {101000, 0.001}, truthAt(101000));
    EXPECT_EQ(m.unmatched(), 3u);

    // A full queue of waiting predictions pushes its oldest out, unmatched.
    for (int i = 0; i < 3; ++i) m.addPrediction(134000, {150000, 0.016}, truthAt(150000));
    EXPECT_EQ(m.pending(), 2u);
    EXPECT_EQ(m.unmatched(), 4u);
    EXPECT_EQ(m.predicted().n(), 0u);
}

TEST(Prediction, PositionErrorAndEverySettledPredictionToTheSink) {
    PredictionMeter m(64, 4000000, 2);
    std::vector<PredictionMatch> seen;
    m.setSink([](const PredictionMatch& p, void* v) { static_cast<std::vector<PredictionMatch>*>(v)->push_back(p); },
              &seen);
    // The head moves 1 m/s along x; the library keeps the position as reported.
    const auto at = [](int64_t us) { return Vec3{static_cast<double>(us) / 1e6, 0.5, 1.5}; };
    for (int64_t t = 0; t <= 20000; t += 2000) m.addTruth(static_cast<uint64_t>(t), truthAt(t), at(t));

    // Predicted 5 ms ahead, position as reported at 4 ms, 2 mm off in z.
    Vec3 p = at(4000);
    p[2] += 0.002;
    m.addPrediction(4000, {9000, 0.005}, truthAt(9000), p);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].matched && seen[0].haveRaw);
    EXPECT_NEAR(seen[0].errorMm, std::hypot(5.0, 2.0), 1e-9);
    EXPECT_NEAR(seen[0].rawErrorMm, 5.0, 1e-9);  // the reported pose, 5 ms behind
    EXPECT_NEAR(seen[0].truth.p[0], 0.009, 1e-12);
    EXPECT_NEAR(m.predictedMm().mean(), std::hypot(5.0, 2.0), 1e-9);
    EXPECT_NEAR(m.unpredictedMm().mean(), 5.0, 1e-9);

    // Waiting predictions pushed out of the full queue reach the sink unmatched.
    for (int i = 0; i < 3; ++i) m.addPrediction(20000, {30000 + i, 0.01}, truthAt(30000), at(20000));
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_FALSE(seen[1].matched);
    EXPECT_EQ(seen[1].targetUs, 30000);
    EXPECT_EQ(m.unmatched(), 1u);
}

// ---- the configuration ----------------------------------------------------------------

TEST(Settings, ReadsPredictionKeysAsTheLibraryDoes) {
    const std::string dir = tempDir();
    const std::string path = dir + "/a.ini";
    std::ofstream(path) << "[processing]\nPREDICTIONS = 0.025\nvirtualsyncctrl = 0x6\n";
    PredictionSettings s = readPredictionSettings(path);
    EXPECT_DOUBLE_EQ(s.predictionS, 0.025);
    EXPECT_EQ(s.virtualSyncCtrl, 6);

    std::ofstream(path) << "[Processing]\npredictionS = 0.02s\nvirtualSyncCtrl = two\n";
    s = readPredictionSettings(path);
    EXPECT_DOUBLE_EQ(s.predictionS, 0.0);
    EXPECT_EQ(s.virtualSyncCtrl, 0);
    EXPECT_EQ(readPredictionSettings(dir + "/missing.ini").virtualSyncCtrl, 0);
    std::filesystem::remove_all(dir);
}

// ---- the core against a real access object ----------------------------------------------

class MonitorLive : public ::testing::Test {
protected:
    void SetUp() override {
        for (int& p : ports_) ASSERT_NE(p = orvtest::findFreePort(), 0);
        dir_ = tempDir();
        ini_ = dir_ + "/orvaccess.ini";
        std::ofstream(ini_) << orvtest::receiverIni(ports_, "[Memory]\nimgBufSize = 65536\n");
        access_.setIniPath(ini_);
        ASSERT_TRUE(access_.open()) << access_.getLastError();
    }
    void TearDown() override {
        access_.close();
        std::filesystem::remove_all(dir_);
    }

    // Polls with the clock advancing in 10 ms steps, so that the image and
    // status reads run too.
    void pollFor(Monitor& m, int polls) {
        for (int i = 0; i < polls; ++i) {
            m.poll(now_);
            now_ += 10000;
            usleep(200);
        }
    }

    int ports_[5] = {};
    std::string dir_, ini_;
    OrvAccess access_;
    uint64_t now_ = 1000000;
};

TEST_F(MonitorLive, CountsErrorCodesByMessageAndDoesNotAllocateWhenIdle) {
    Monitor m(access_, {});
    pollFor(m, 5);
    EXPECT_EQ(orvtest::allocationsDuring([&] { pollFor(m, 50); }), 0);

    // Malformed datagrams on every port: each parser queues its own code.
    orvtest::UdpSender tx;
    const unsigned char junk[] = {10, 7, 0, 1, 2, 3, 4};
    for (int round = 0; round < 2; ++round)
        for (int port : ports_) ASSERT_TRUE(tx.send(port, junk, sizeof junk));
    for (int i = 0; i < 200 && m.count(Monitor::kErrorCode) < 10; ++i) pollFor(m, 1);
    EXPECT_EQ(m.count(Monitor::kErrorCode), 10u);
    EXPECT_EQ(m.failures(), 0u);
    ASSERT_EQ(m.lastErrorCount(), Monitor::kLastErrors);
    EXPECT_EQ(m.messageOf(ORVACCESS_ERR_BAD_TRACKING_PKT),
              access_.getErrorMessage(ORVACCESS_ERR_BAD_TRACKING_PKT));

    std::ostringstream out;
    m.writeSummary(out);
    const std::string text = out.str();
    // Each code once, counted twice, by the library's own message, in code order.
    const std::string tracking =
        "error             2   770 " + access_.getErrorMessage(ORVACCESS_ERR_BAD_TRACKING_PKT) + "\n";
    const std::string meta =
        "error             2   772 " + access_.getErrorMessage(ORVACCESS_ERR_BAD_META_PKT) + "\n";
    ASSERT_NE(text.find(tracking), std::string::npos) << text;
    ASSERT_NE(text.find(meta), std::string::npos) << text;
    EXPECT_LT(text.find(tracking), text.find(meta));
    EXPECT_TRUE(std::regex_search(text, std::regex("\nrecords +error-codes +10 +[0-9.]+/s\n"))) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("\nrecords +images +0 +0.0/s\n"))) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex("\nstatus +connections 0x36 meta image core hub\n")))
        << text;
}

TEST_F(MonitorLive, KeepsGoingWhenEveryCallFails) {
    access_.close();  // every getter now fails
    MonitorOptions opt;
    opt.uplink = true;
    Monitor m(access_, opt);
    pollFor(m, 3);
    // Each kind was still asked for on every poll, and the reason kept.
    EXPECT_EQ(m.failures(Monitor::cImu), 3u);
    EXPECT_EQ(m.failures(Monitor::cHub), 3u);
    EXPECT_EQ(m.failures(Monitor::cLatest), 3u);
    EXPECT_GE(m.failures(Monitor::cSetPlatPose), 1u);
    const std::string reason = access_.getLastError();
    ASSERT_FALSE(reason.empty());
    EXPECT_EQ(m.lastFailure().substr(m.lastFailure().find(": ") + 2), reason);
    std::ostringstream out;
    m.writeSummary(out);
    EXPECT_TRUE(std::regex_search(out.str(), std::regex("\nfailure +getImuData +3\n"))) << out.str();
}

TEST_F(MonitorLive, RatesCoverTheLastSecondOnly) {
    Monitor m(access_, {});
    pollFor(m, 20);
    orvtest::UdpSender tx;
    const unsigned char junk[] = {10, 7, 0, 1, 2, 3, 4};
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(tx.send(ports_[orvtest::kCore], junk, sizeof junk));
    for (int i = 0; i < 200 && m.count(Monitor::kErrorCode) < 6; ++i) pollFor(m, 1);
    ASSERT_EQ(m.count(Monitor::kErrorCode), 6u);
    EXPECT_GT(m.rate(Monitor::kErrorCode), 5.0);  // six within the last second

    pollFor(m, 120);  // 1.2 s of quiet
    EXPECT_EQ(m.rate(Monitor::kErrorCode), 0.0);
    EXPECT_EQ(m.count(Monitor::kErrorCode), 6u);
    std::ostringstream line;
    m.writeLine(line);
    EXPECT_TRUE(std::regex_match(line.str(), std::regex("t=[0-9]+s track 0/s imu 0/s .* errors 6\n")))
        << line.str();
}

// ---- streaming, asked for over a real command channel ------------------------------------

namespace {

// orvRx's command port on 127.0.0.1. Silent, it only listens: the kernel
// completes the connection, nobody reads a frame, nothing answers. Answering,
// it acknowledges every frame as a register write.
class CommandPort {
public:
    explicit CommandPort(bool answer) : port_(orvtest::findFreePort()), fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in a = orvtest::loopback(port_);
        ok_ = bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 && listen(fd_, 1) == 0;
        if (ok_ && answer) thread_ = std::thread([this] { acknowledge(); });
    }
    ~CommandPort() {
        shutdown(fd_, SHUT_RDWR);  // ends a blocked accept
        if (thread_.joinable()) thread_.join();
        ::close(fd_);
    }
    bool ok() const { return ok_; }
    std::string ini() const {
        const int ports[5] = {0, 0, orvtest::findFreePort(), 0, 0};
        return orvtest::receiverIni(ports, "tcpOrvRxEnabled = 1\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                                               std::to_string(port_) + "\n");
    }

private:
    void acknowledge() {
        const int client = accept(fd_, nullptr, nullptr);
        if (client < 0) return;
        unsigned char frame[256];
        const unsigned char ack = 0xC4;
        while (recv(client, frame, sizeof frame, 0) > 0) send(client, &ack, 1, MSG_NOSIGNAL);
        ::close(client);
    }

    int port_;
    int fd_;
    bool ok_ = false;
    std::thread thread_;
};

std::string summaryOf(const Monitor& m) {
    std::ostringstream out;
    m.writeSummary(out);
    return out.str();
}

// Opens an access object whose command port answers or not, polls a monitor
// of it for 100 ms on its clock, and hands the monitor to `check`.
template <typename Check>
void watch(bool answer, const std::string& iniPath, Check&& check) {
    CommandPort port(answer);
    ASSERT_TRUE(port.ok());
    std::ofstream(iniPath) << port.ini();
    OrvAccess access;
    access.setIniPath(iniPath);
    ASSERT_TRUE(access.open()) << access.getLastError();
    Monitor m(access, {});
    for (uint64_t t = 1000000; t < 1100000; t += 10000) m.poll(t);
    check(m);
}

}  // namespace

TEST(MonitorStreaming, SaysWhenOrvRxNeverAcknowledgesStreaming) {
    const std::string dir = tempDir();
    watch(false, dir + "/silent.ini", [](const Monitor& m) {
        // Asked once: the library believes in streaming from then on, and
        // its getters go on succeeding with nothing streamed.
        EXPECT_EQ(m.streaming().requests, 1u);
        EXPECT_EQ(m.failures(Monitor::cSetStreaming), 1u);
        EXPECT_EQ(m.failures(), 1u) << m.lastFailure();
        const std::string text = summaryOf(m);
        EXPECT_NE(text.find("\nstreaming  requests 1 acknowledged 0 state never acknowledged by orvRx: "
                            "Failed to set streaming state\n"),
                  std::string::npos)
            << text;
        EXPECT_NE(text.find("\nfailures   total 1\n"), std::string::npos) << text;
        std::ostringstream line;
        m.writeLine(line);
        EXPECT_NE(line.str().find(" streaming never acknowledged by orvRx: Failed to set streaming state\n"),
                  std::string::npos)
            << line.str();
    });
    watch(true, dir + "/answering.ini", [](const Monitor& m) {
        EXPECT_EQ(m.failures(), 0u) << m.lastFailure();
        EXPECT_NE(summaryOf(m).find("\nstreaming  requests 1 acknowledged 1 state acknowledged\n"), std::string::npos)
            << summaryOf(m);
    });
    std::filesystem::remove_all(dir);
}

TEST(MonitorStreaming, StreamedDataAfterAnUnansweredRequestIsNotCalledNeverAcknowledged) {
    // orvRx restarted, or another client switched it on: the request went
    // unanswered, yet orvRx streams.
    const std::string dir = tempDir();
    CommandPort port(false);
    ASSERT_TRUE(port.ok());
    const std::string ini = port.ini();
    std::smatch core;
    ASSERT_TRUE(std::regex_search(ini, core, std::regex("udpOrvCorePort = ([0-9]+)")));
    std::ofstream(dir + "/orvaccess.ini") << ini;
    OrvAccess access;
    access.setIniPath(dir + "/orvaccess.ini");
    ASSERT_TRUE(access.open()) << access.getLastError();
    Monitor m(access, {});
    uint64_t now = 1000000;
    for (; now < 1100000; now += 10000) m.poll(now);
    ASSERT_TRUE(m.streaming().lastFailed);
    orvtest::Bytes pose(ORVWIRE_TRACKING_SIZE, 0);  // a valid, empty tracking packet
    pose[0] = ORVWIRE_START_TRACKING;
    pose[1] = ORVWIRE_TRACKING_SIZE & 0xff;
    pose[2] = ORVWIRE_TRACKING_SIZE >> 8;
    pose.back() = static_cast<unsigned char>(-(ORVWIRE_START_TRACKING + (ORVWIRE_TRACKING_SIZE & 0xff) + (ORVWIRE_TRACKING_SIZE >> 8)));
    orvtest::UdpSender tx;
    ASSERT_TRUE(tx.send(std::stoi(core[1]), pose));
    const auto arrived = [&] { return (m.status().receivedEver & ORVACCESS_RECV_TRACKING) != 0; };
    for (int i = 0; i < 2000 && !arrived(); ++i, now += 10000) {
        m.poll(now);
        usleep(1000);
    }
    ASSERT_TRUE(arrived());
    const std::string text = summaryOf(m);
    EXPECT_NE(text.find("\nstreaming  requests 1 acknowledged 0 state on (streamed data arrives; the request went "
                        "unacknowledged)\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("never acknowledged"), std::string::npos) << text;
    std::filesystem::remove_all(dir);
}

TEST_F(MonitorLive, TheWatchdogSeesTrackingAtTheMonitorsClockAndCountsWhenItStops) {
    orvwatch::WatchdogOptions o;
    o.commandChannel = false;  // no orvRx here: it counts, and cannot ask
    orvwatch::Watchdog watchdog(access_, [](OrvAccess&, std::string&) { return false; }, o);
    MonitorOptions options;
    options.watchdog = &watchdog;
    Monitor m(access_, options);
    now_ = 5000000;  // a clock far from zero, as the library's is
    orvtest::UdpSender tx;
    orvtest::Bytes pose(ORVWIRE_TRACKING_SIZE, 0);  // a valid, empty tracking packet
    pose[0] = ORVWIRE_START_TRACKING;
    pose[1] = ORVWIRE_TRACKING_SIZE & 0xff;
    pose[2] = ORVWIRE_TRACKING_SIZE >> 8;
    pose.back() = static_cast<unsigned char>(-(ORVWIRE_START_TRACKING + (ORVWIRE_TRACKING_SIZE & 0xff) + (ORVWIRE_TRACKING_SIZE >> 8)));
    // Already arriving at the first poll.
    ASSERT_TRUE(tx.send(ports_[orvtest::kCore], pose));
    for (int i = 0; i < 2000 && watchdog.state() != orvwatch::Watchdog::State::Flowing; ++i) {
        pollFor(m, 1);
        usleep(1000);
        ASSERT_TRUE(tx.send(ports_[orvtest::kCore], pose));
    }
    ASSERT_EQ(watchdog.state(), orvwatch::Watchdog::State::Flowing);
    EXPECT_EQ(watchdog.counts().outages, 0u);
    pollFor(m, 120);  // 1.2 s without tracking
    EXPECT_EQ(watchdog.counts().outages, 1u);
    const std::vector<std::string> events = watchdog.takeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].rfind("tracking stopped: nothing for 1.", 0), 0u) << events[0];
    std::ostringstream line;
    m.writeLine(line);
    EXPECT_NE(line.str().find(" stream: tracking quiet for 1."), std::string::npos) << line.str();
    EXPECT_NE(line.str().find(" outages 1 recovered 0"), std::string::npos) << line.str();
    const std::string summary = summaryOf(m);
    EXPECT_NE(summary.find("\nrecovery   outages 1 recovered 0 "), std::string::npos) << summary;
}

TEST_F(MonitorLive, ChannelsKnowTheirQuietTimesAndGoStale) {
    Monitor m(access_, {});
    orvtest::UdpSender tx;
    // A valid, empty tracking packet: start byte, length, zero body, checksum.
    orvtest::Bytes pose(ORVWIRE_TRACKING_SIZE, 0);
    pose[0] = ORVWIRE_START_TRACKING;
    pose[1] = ORVWIRE_TRACKING_SIZE & 0xff;
    pose[2] = ORVWIRE_TRACKING_SIZE >> 8;
    pose.back() = static_cast<unsigned char>(-(ORVWIRE_START_TRACKING + (ORVWIRE_TRACKING_SIZE & 0xff) + (ORVWIRE_TRACKING_SIZE >> 8)));
    const size_t tracking = 2;                                // the received bits' order
    ASSERT_STREQ(Monitor::channelName(tracking), "tracking");
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(tx.send(ports_[orvtest::kCore], pose));
        pollFor(m, 1);
    }
    EXPECT_EQ(m.activity(tracking).maxGapUs, 10000u);
    EXPECT_NEAR(m.activity(tracking).typicalGapUs, 10000.0, 1.0);
    EXPECT_FALSE(m.activity(0).seen);  // meta: nothing

    pollFor(m, 40);  // 400 ms of quiet: not yet stale (at least 500 ms)
    EXPECT_EQ(m.sinceUs(tracking), 400000u);
    EXPECT_FALSE(m.trackingStale());
    pollFor(m, 20);
    EXPECT_TRUE(m.trackingStale());
    EXPECT_EQ(m.staleNames(), "tracking");
    std::ostringstream line;
    m.writeLine(line);
    EXPECT_NE(line.str().find(" STALE tracking"), std::string::npos) << line.str();

    ASSERT_TRUE(tx.send(ports_[orvtest::kCore], pose));
    pollFor(m, 1);
    EXPECT_FALSE(m.trackingStale());
    EXPECT_EQ(m.activity(tracking).maxGapUs, 610000u);
    std::ostringstream summary;
    m.writeSummary(summary);
    EXPECT_TRUE(std::regex_search(summary.str(), std::regex("\nchannel +tracking +last +0\\.0 ms ago +max gap +610\\.0 ms")))
        << summary.str();
}

TEST_F(MonitorLive, LiveViewFitsEightyByTwentyFourAndUsesMoreRoom) {
    Monitor m(access_, {});
    orvtest::UdpSender tx;
    const unsigned char junk[] = {10, 7, 0, 1, 2, 3, 4};
    for (int i = 0; i < 6; ++i) ASSERT_TRUE(tx.send(ports_[orvtest::kCore], junk, sizeof junk));
    for (int i = 0; i < 200 && m.count(Monitor::kErrorCode) < 6; ++i) pollFor(m, 1);
    ViewText text{"orvmon  test.ini", true, {}};
    for (int i = 0; i < 6; ++i) text.warnings.push_back("warning " + std::to_string(i) + std::string(100, '.'));

    const auto count = [](const std::vector<std::string>& lines, const std::string& start) {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& l) { return l.compare(0, start.size(), start) == 0; });
    };
    const std::vector<std::string> small = layoutView(m, text, 80, 24);
    ASSERT_EQ(small.size(), 24u);
    for (const std::string& l : small) EXPECT_LE(l.size(), 80u) << l;
    // What used to be cut off: the prediction error and the error codes.
    EXPECT_EQ(count(small, "pred.err  attitude"), 1);
    EXPECT_EQ(count(small, "          position"), 1);
    EXPECT_EQ(count(small, "errors    6 in all"), 1);
    EXPECT_EQ(count(small, "    770 value 0"), 3);
    EXPECT_EQ(count(small, "! "), 3);
    EXPECT_EQ(small.back(), "! ... and 4 more (orvctl check shows them)");
    EXPECT_EQ(count(small, "tracking "), 1);  // the channel; its records sit beside it

    const std::vector<std::string> big = layoutView(m, text, 200, 40);
    ASSERT_LE(big.size(), 40u);
    EXPECT_EQ(count(big, "    770 value 0"), 5);
    EXPECT_EQ(count(big, "! warning "), 6);
    const std::string all = [&] {
        std::string s;
        for (const std::string& l : big) s += l + "\n";
        return s;
    }();
    for (const char* kind : {"images-unattributed", "pose-recovery", "platform-poses"})
        EXPECT_NE(all.find(kind), std::string::npos) << kind << "\n" << all;
}
