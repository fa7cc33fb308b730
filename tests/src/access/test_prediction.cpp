// Poses handed to the application: tracking datagrams sent over UDP on
// 127.0.0.1 to an open object, read back through the C++ and C getters with
// prediction, tip offset and boresight applied, and predicted to display
// times in every virtual-sync mode. Clocks are made up: the pose times travel
// in the datagrams and the display times are arguments, so every expected
// number is worked out by hand. The binary prediction log records what each
// call decided.
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>

#include "orvaccess/OrvAccess.hpp"
#include "math/OrvosiMath.hpp"
#include "orvsim/Wire.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"
#include "math/OrvPose.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::Bytes;
using orvtest::kCore;
using Rec = s_OrvAccessTrkDataExt;
// The eleven words of a binary prediction log record, and their meaning.
using Log = std::array<uint64_t, 11>;
enum { kTdisp, kTag, kPoseTime, kPeriod, kNat, kNominal, kImuBias, kDispBias, kTcon, kUsed, kTotal };

// A pose at `time` with the identity attitude turning about z at 1 rad/s.
Rec pose(uint32_t tag, uint64_t time) {
    Rec r;
    std::memset(&r, 0, sizeof r);
    r.packetTag = tag, r.poseTime = time, r.angularRate[2] = 1;
    r.cbn[0][0] = r.cbn[1][1] = r.cbn[2][2] = 1;
    return r;
}

void expectNear(const float* got, const double* want, int n) {
    for (int i = 0; i < n; ++i) EXPECT_NEAR(got[i], want[i], 2e-6) << "element " << i;
}

// The export in double precision: both attitudes turned by rate * dt about
// the body axes, the tip offset added along the turned attitude, then the
// boresight reference applied from the right to the attitudes and from the
// left to the rate and the vectors A, J, L and M; vector B passes.
void expectExport(const Rec& got, const Rec& sent, double dt, const float* tip, const float* bore) {
    double ref[3][3], turn[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, in[9], c[9], out[3][3], v[3];
    OrvUtil::euler2Cbn(bore, ref);
    OrvUtil::matrixF2D(3, 1, sent.angularRate, v);
    OrvosiMath::predictCbn(dt, v, turn);
    for (const float* s : {sent.cbn2[0], sent.cbn[0]}) {  // cbn last: c ends as the turned cbn
        OrvUtil::matrixF2D(3, 3, s, in);
        OrvosiMath::matrixMult(3, 3, 3, in, turn[0], c);
        OrvosiMath::matrixMultTrans(3, 3, 3, c, ref[0], out[0]);
        expectNear(s == sent.cbn[0] ? got.cbn[0] : got.cbn2[0], out[0], 9);
    }
    OrvosiMath::cbn2Euler(out, v);
    expectNear(got.euler, v, 3);
    OrvUtil::matrixF2D(3, 1, tip, in);
    OrvosiMath::matrixMult(3, 3, 1, c, in, v);
    for (int i = 0; i < 3; ++i) v[i] += sent.position[i];
    expectNear(got.position, v, 3);
    for (size_t offset : {offsetof(Rec, angularRate), offsetof(Rec, vecJ), offsetof(Rec, vecA),
                          offsetof(Rec, vecL), offsetof(Rec, vecM)}) {
        OrvUtil::matrixF2D(3, 1,
                           reinterpret_cast<const float*>(reinterpret_cast<const char*>(&sent) + offset), in);
        OrvosiMath::matrixMult(3, 3, 1, ref[0], in, v);
        expectNear(reinterpret_cast<const float*>(reinterpret_cast<const char*>(&got) + offset), v, 3);
    }
    EXPECT_EQ(std::memcmp(got.vecB, sent.vecB, sizeof got.vecB), 0);
}

float bitsToFloat(uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

// Records for the neutral shortcut: every byte random, or every float drawn
// from values where rounding, signed zeros and NaN handling show: zeros of
// both signs, subnormals, extremes, quiet and signalling NaNs with payloads.
class RecordSource {
public:
    explicit RecordSource(bool finite) : finite_(finite) {}

    Rec randomBytes() {
        Rec r;
        unsigned char* p = reinterpret_cast<unsigned char*>(&r);
        for (size_t i = 0; i < sizeof r; ++i) p[i] = static_cast<unsigned char>(rng_());
        return r;
    }
    // finite: non-finite values only in the position, which the shortcut
    // takes whatever it holds.
    Rec special() {
        Rec r = randomBytes();
        for (float* v : {r.cbn[0], r.cbn2[0]})
            for (int k = 0; k < 9; ++k) v[k] = pick(finite_);
        for (float* v : {r.angularRate, r.vecJ, r.vecA, r.vecL, r.vecM})
            for (int k = 0; k < 3; ++k) v[k] = pick(finite_);
        for (float& p : r.position) p = pick(false);
        return r;
    }

private:
    float pick(bool finiteOnly) {
        static const uint32_t kSpecial[] = {
            0x00000000, 0x80000000, 0x00000001, 0x80000001, 0x007fffff, 0x00800000, 0x3f800000, 0xbf800000,
            0x7f7fffff, 0xff7fffff, 0x33d6bf95,  // finite up to here
            0x7f800000, 0xff800000, 0x7fc00000, 0xffc00000, 0x7fc12345, 0x7f800001, 0xff812345, 0x7fbfffff};
        constexpr size_t kFinite = 11, kAll = std::size(kSpecial);
        const size_t n = finiteOnly ? kFinite : kAll;
        const uint32_t i = rng_() % (n + 4);
        if (i < n) return bitsToFloat(kSpecial[i]);
        // Now and then an ordinary value of either sign.
        const float v =
            std::ldexp(static_cast<float>(rng_() % 1000000) / 1e6f, static_cast<int>(rng_() % 8) - 4);
        return rng_() % 2 ? v : -v;
    }

    std::mt19937 rng_{12345};
    bool finite_;
};

// Neutral parameters as the setters and the configuration produce them:
// euler2Cbn of zeros puts a -0.0 into the reference, a tip of -0.0 is zero.
struct Neutral {
    double ref[3][3];
    double tip[3];
    double dt;
};

std::array<Neutral, 3> neutralParameters() {
    std::array<Neutral, 3> n{};
    const float zero[3] = {0, 0, 0}, minusZero[3] = {-0.0f, -0.0f, -0.0f};
    OrvUtil::euler2Cbn(zero, n[0].ref);
    OrvUtil::euler2Cbn(minusZero, n[1].ref);
    for (int i = 0; i < 3; ++i) n[2].ref[i][i] = 1.0;
    n[1].tip[0] = n[1].tip[1] = n[1].tip[2] = -0.0;
    n[1].dt = -0.0;
    return n;
}

TEST(NeutralExport, ShortcutIsBitIdenticalToTheFullPathOrDeclines) {
    const std::array<Neutral, 3> params = neutralParameters();
    for (const Neutral& n : params) EXPECT_TRUE(OrvPose::isNeutral(n.ref, n.tip));
    RecordSource finite(true), any(false);
    int taken = 0, declined = 0;
    for (int i = 0; i < 30000; ++i) {
        const Rec in = i % 3 == 0 ? any.randomBytes() : i % 3 == 1 ? finite.special() : any.special();
        Rec fast = in;
        if (!OrvPose::adjustNeutral(&fast)) {
            ++declined;
            ASSERT_EQ(std::memcmp(&fast, &in, sizeof in), 0) << "record " << i << " changed though declined";
            continue;
        }
        ++taken;
        for (const Neutral& n : params) {
            Rec full = in;
            OrvPose::adjust(n.dt, n.ref, n.tip, &full);
            ASSERT_EQ(std::memcmp(&fast, &full, sizeof full), 0) << "record " << i;
        }
    }
    // Both ways were exercised: random bits are mostly finite, the special
    // values often are not.
    EXPECT_GT(taken, 15000);
    EXPECT_GT(declined, 3000);

    // Anything but exact zeros and ones in the reference or tip is not neutral.
    Neutral n = params[0];
    n.ref[0][1] = std::numeric_limits<double>::denorm_min();
    EXPECT_FALSE(OrvPose::isNeutral(n.ref, n.tip));
    n = params[0];
    n.ref[2][2] = std::nan("");
    EXPECT_FALSE(OrvPose::isNeutral(n.ref, n.tip));
    n = params[0];
    n.tip[2] = 1e-300;
    EXPECT_FALSE(OrvPose::isNeutral(n.ref, n.tip));
}

// The getters take the shortcut only while every parameter is neutral: the
// setters and the configuration switch it on and off, and a non-zero
// interval (the display-time getter passes its own) always takes the full
// path. Each non-neutral case is one the shortcut would get wrong.
TEST(NeutralExport, SettersAndConfigurationDecideThePath) {
    orvtest::TempDir dir;
    OrvAccess a;
    a.setIniPath(dir.prefix() + "orvaccess.ini");
    Rec in = pose(1, 0);
    const float turn[3] = {0.3f, -0.2f, 1.0f};
    double c[3][3];
    OrvUtil::euler2Cbn(turn, c);
    OrvUtil::matrixD2F(3, 3, c[0], in.cbn[0]);
    in.position[0] = -0.0f, in.vecJ[1] = 2.0f, in.position[2] = 1.0f;
    auto expectFull = [&](double dt, const float* bore, const float* tipF, bool neutral) {
        double ref[3][3], tip[3];
        OrvUtil::euler2Cbn(bore, ref);
        OrvUtil::matrixF2D(3, 1, tipF, tip);
        Rec full = in, got = in, shortcut = in;
        OrvPose::adjust(dt, ref, tip, &full);
        a.updateExports(dt, &got);
        EXPECT_EQ(std::memcmp(&got, &full, sizeof full), 0);
        ASSERT_TRUE(OrvPose::adjustNeutral(&shortcut));
        EXPECT_EQ(std::memcmp(&shortcut, &full, sizeof full) == 0, neutral);
    };
    float zero[3] = {0, 0, 0}, tipX[3] = {0.5f, 0, 0}, yaw[3] = {0, 0, 0.1f};
    expectFull(0.0, zero, zero, true);
    expectFull(0.01, zero, zero, false);
    a.setTipOffset(tipX);
    expectFull(0.0, zero, tipX, false);
    a.setBoresightRef(yaw);
    a.setTipOffset(zero);
    expectFull(0.0, yaw, zero, false);
    a.setBoresightRef(zero);
    expectFull(0.0, zero, zero, true);

    const float tipZ[3] = {0, 0, -2}, pitch[3] = {0, 0.2f, 0};
    dir.write("orvaccess.ini", "[Processing]\nTipOffsetZM = -2\n");
    a.init();
    expectFull(0.0, zero, tipZ, false);
    dir.write("orvaccess.ini", "[Processing]\nBoresightRefPitchRad = 0.2\n");
    a.init();
    expectFull(0.0, pitch, zero, false);
    dir.write("orvaccess.ini", "[Processing]\nTipOffsetZM = 0\n");
    a.init();
    expectFull(0.0, zero, zero, true);
}

class Prediction : public orvtest::ReceiverTest {
protected:
    void SetUp() override { OrvUtil::resetLogState(); }
    void TearDown() override { OrvUtil::resetLogState(); }

    void open(const std::string& processing) {
        openReceiver("[General]\nlogging = 4\nlogPath = " + dir.prefix() + "\n[Processing]\n" + processing);
    }
    void sendMeta() {  // a meta packet whose IMU sample interval is 1 ms
        send(orvtest::kMeta, orvsim::buildMeta(0, 0.001f, 0, orvsim::buildChipPacket({}), {}));
        ASSERT_TRUE(access.serviceUdp(false));
    }
    // Sends a pose, makes one display-time call and returns the log record
    // that the call wrote.
    Log call(uint32_t tag, uint64_t time, unsigned long tdisp, Rec* out = nullptr) {
        send(kCore, orvsim::buildTracking(pose(tag, time)));
        bool valid = false;
        Rec r{};
        EXPECT_TRUE(access.getTrackingDataAtTime(tdisp, &valid, out ? out : &r) && valid)
            << access.getLastError();
        OrvUtil::logClose();  // flushes; the next record reopens the file
        std::ifstream in(dir.prefix() + "orvaPred.log", std::ios::binary);
        Log log{};
        in.seekg(-static_cast<long>(sizeof log), std::ios::end);
        EXPECT_TRUE(in.read(reinterpret_cast<char*>(log.data()), sizeof log) && in.tellg() % sizeof log == 0);
        return log;
    }
};

TEST_F(Prediction, ExportPredictsAddsTheTipAndBoresightsInCppAndC) {
    open("predictionS = 0.05\nTipOffsetXM = 1\nBoresightRefYawRad = 0.1\n");
    Rec sent = pose(2, 0);
    const float attitudes[2][3] = {{0.2f, -0.3f, 2.5f}, {-1.0f, 1.2f, -3.0f}};
    double c[3][3];
    for (int k = 0; k < 2; ++k) {
        OrvUtil::euler2Cbn(attitudes[k], c);
        OrvUtil::matrixD2F(3, 3, c[0], k == 0 ? sent.cbn[0] : sent.cbn2[0]);
    }
    float next = 0.3f;
    for (float* v : {sent.vecA, sent.vecB, sent.position, sent.angularRate, sent.vecJ, sent.vecL, sent.vecM})
        for (int i = 0; i < 3; ++i) v[i] = next = -0.7f * next + 0.4f;
    send(kCore, orvsim::buildTracking(sent));
    Rec r{};
    bool valid = false;
    float bore[3] = {0, 0, 0.1f}, tip[3] = {1, 0, 0}, bore2[3] = {0.05f, -0.02f, 0.3f},
          tip2[3] = {0.1f, 0.2f, -0.3f};
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &r) && valid);
    expectExport(r, sent, 0.05, tip, bore);  // the configured start values
    // The setters act on the next record handed out; the stored one stays
    // as received.
    EXPECT_TRUE(access.setPrediction(0.04f) && access.setBoresightRef(bore2) && access.setTipOffset(tip2));
    ASSERT_TRUE(access.getTrackingDataLatest(&valid, &r) && valid);
    expectExport(r, sent, static_cast<double>(0.04f), tip2, bore2);
    ASSERT_TRUE(access.getTrackingData(&valid, &r) && valid);
    expectExport(r, sent, static_cast<double>(0.04f), tip2, bore2);
    access.close();

    // The same through the C functions, which pack the short record.
    OrvAccess* h = OrvAccess_create();
    OrvAccess_setIniPath(h, (dir.prefix() + "orvaccess.ini").c_str());
    ASSERT_EQ(OrvAccess_open(h), 1);
    send(kCore, orvsim::buildTracking(sent));
    int delivered = 0;
    s_OrvAccessTrkData d{};
    EXPECT_TRUE(OrvAccess_setPrediction(h, 0.04f) && OrvAccess_setBoresightRef(h, bore2) &&
                OrvAccess_setTipOffset(h, tip2));
    EXPECT_TRUE(OrvAccess_getTrackingDataLatest(h, &delivered, &d) && delivered && d.packetTag == 2);
    EXPECT_EQ(std::memcmp(d.euler, r.euler, sizeof d.euler), 0);
    EXPECT_EQ(std::memcmp(d.motion[0], r.position, sizeof r.position), 0);
    // With virtual sync off only the set interval applies.
    EXPECT_TRUE(OrvAccess_getTrackingDataAtTime(h, 99999999, &delivered, &d) && delivered);
    EXPECT_EQ(std::memcmp(d.euler, r.euler, sizeof d.euler), 0);
    OrvAccess_destroy(h);
}

TEST_F(Prediction, FixedIntervalPoseTimeAgeAndBounds) {
    open("predictionS = 0.03\n");
    for (unsigned long tdisp : {0ul, 1020000ul, 99999999ul})
        EXPECT_EQ(call(1, 1000000, tdisp)[kTotal], 30000u);

    // From the record's time stamp: three queued records, one call takes
    // them all and predicts the newest; then there is nothing.
    open("predictionS = 0.03\nvirtualSyncCtrl = 2\n");
    for (uint32_t tag : {1u, 2u}) send(kCore, orvsim::buildTracking(pose(tag, 1000000)));
    access.setVerbosity(0x100000);
    Rec r{};
    {
        orvtest::CapturedStdout out;
        EXPECT_EQ(call(3, 1000000, 1020000, &r),
                  (Log{1020000, 3, 1000000, 0, 0, 0, 0, 0, 0, 1020000, 50000}));
        EXPECT_EQ(out.text(),
                  "ORVAPRED: IDAT tdisp=1020000 us, timu=1000000 us, prediction=20000 us\n"
                  "ORVAPRED: total prediction=0.05 s\nORVAMSG: Opened " +
                      dir.prefix() + "orvaPred.log\n");
    }
    EXPECT_TRUE(r.packetTag == 3 && std::fabs(r.euler[2] - 0.05f) < 1e-7);
    bool valid = true;
    EXPECT_TRUE(access.getTrackingDataAtTime(1020000, &valid, &r) && !valid);

    // A display time before the pose counts as age 0; sums outside
    // -0.005 ... 0.2 s are clamped, with a message each.
    access.setVerbosity(0x5);
    orvtest::CapturedStderr err;
    EXPECT_EQ(call(1, 1000000, 900000)[kTotal], 30000u);
    EXPECT_EQ(call(1, 1000000, 1220000)[kTotal], 200000u);
    access.setPrediction(-0.01f);
    EXPECT_EQ(static_cast<int64_t>(call(1, 1000000, 0)[kTotal]), -5000);
    access.setPrediction(-0.004f);
    EXPECT_EQ(static_cast<int64_t>(call(1, 1000000, 0)[kTotal]), -4000);
    EXPECT_EQ(err.text(),
              "ORVALOG: Display clock (900000 us) < IMU clock (1000000 us)\n"
              "ORVAERR: Prediction out of bounds (0.25)\n"
              "ORVALOG: Display clock (0 us) < IMU clock (1000000 us)\n"
              "ORVAERR: Prediction out of bounds (-0.01)\n"
              "ORVALOG: Display clock (0 us) < IMU clock (1000000 us)\n");
}

TEST_F(Prediction, DisplayClockSmoothsJitterAndRestartsAfterAJump) {
    open("virtualSyncCtrl = 6\n");
    const unsigned long base = 5000000, frame = 16667, time = base - 10000;
    // First call: only remembered. Second: the first period, and a bias
    // that maps the sum of periods onto the display clock exactly.
    EXPECT_EQ(call(1, time, base), (Log{base, 1, time, 0, 0, 0, 0, 0, 0, base, 10000}));
    access.setVerbosity(0x100000);
    {
        orvtest::CapturedStdout out;
        EXPECT_EQ(call(1, time, base + frame), (Log{base + frame, 1, time, frame * 1000, 0, frame, 0, base, 0,
                                                    base + frame, frame + 10000}));
        EXPECT_EQ(out.text(),
                  "ORVAPRED: DISP loc=5016667 us, nat=16667 us, bias=5000000000 ns, con=5016667 us, "
                  "period=16667000ns\nORVAPRED: IDAT tdisp=5016667 us, timu=4990000 us, prediction=26667 us\n"
                  "ORVAPRED: total prediction=0.026667 s\nORVAMSG: Opened " +
                      dir.prefix() + "orvaPred.log\n");
    }
    // A frame 300 us late: the period mean moves by 600 ns, the bias mean by
    // 3000 ns, so the display time used is only 3 us late.
    access.setVerbosity(0x1);
    orvtest::CapturedStderr err;
    unsigned long t = base + 2 * frame + 300;
    EXPECT_EQ(call(1, time, t), (Log{t, 1, time, (499ul * 16667000 + 16967000) / 500, 0, 2 * frame, 0,
                                     base + 3, 0, t - 297, 2 * frame + 10003}));
    // A dropped frame is an overrun; a 250 ms jump resets the period, and on
    // the next call the bias, before the estimate starts over.
    call(1, time, t = base + 4 * frame + 300);
    const Log jump = call(1, time, t += 250000), next = call(1, time, t + frame);
    EXPECT_TRUE(jump[kPeriod] == 0 && jump[kUsed] == t && next[kPeriod] == frame * 1000 &&
                next[kUsed] == t + frame);
    t += 2 * frame;
    EXPECT_EQ(call(1, time, t)[kUsed], t);
    t += frame + 300;
    EXPECT_EQ(call(1, time, t)[kUsed], t - 297);
    EXPECT_EQ(err.text(),
              "ORVALOG: Display period overrun: 33334 us\n"
              "ORVALOG: Display clock update error: period=0\n"
              "ORVALOG: Display clock update error: bias=0\n");
    // Reopening clears the estimates; display times are compared in their
    // low 44 bits.
    open("virtualSyncCtrl = 6\n");
    EXPECT_EQ(call(1, time, (1ul << 44) + base)[kPeriod], 0u);
    EXPECT_EQ(call(1, time, (1ul << 44) + base + frame)[kPeriod], frame * 1000);
}

TEST_F(Prediction, ImuClockFromSampleIds) {
    open("virtualSyncCtrl = 1\n");
    access.setVerbosity(0x5);
    {
        // No sample interval yet: the record's time stamp stands in.
        orvtest::CapturedStderr err;
        EXPECT_EQ(call(1, 1000000, 1005000)[kTotal], 5000u);
        EXPECT_EQ(err.text(), "ORVAERR: IMU CBE n/a - using IMU DAT instead\n");
    }
    access.setVerbosity(0);
    sendMeta();
    // Sample k nominally at k ms; the clocks carry bits above the 44 that
    // are compared. Three queued samples all feed the bias.
    const unsigned long high = 5ul << 44, t0 = high + 2000000;
    for (uint32_t tag : {10u, 11u}) send(kCore, orvsim::buildTracking(pose(tag, t0 + tag * 1000)));
    access.setVerbosity(0x100000);
    {
        orvtest::CapturedStdout out;
        EXPECT_EQ(call(12, t0 + 12000, t0 + 20000),
                  (Log{t0 + 20000, 12, t0 + 12000, 0, 12000, 0, 2000000, 0, 2012000, t0 + 20000, 8000}));
        EXPECT_EQ(out.text(),
                  "ORVAPRED: IMU sid=10 loc=2010000 us, nat=10000 ns, bias=2000000000 ns\n"
                  "ORVAPRED: IMU sid=11 loc=2011000 us, nat=11000 ns, bias=2000000000 ns\n"
                  "ORVAPRED: IMU sid=12 loc=2012000 us, nat=12000 ns, bias=2000000000 ns\n"
                  "ORVAPRED: ICBE tdisp=2020000 us, tconimu=2012000 us, prediction=8000 us\n"
                  "ORVAPRED: total prediction=0.008 s\nORVAMSG: Opened " +
                      dir.prefix() + "orvaPred.log\n");
    }
    // A sample stamped 400 us late hardly moves the smoothed IMU clock.
    access.setVerbosity(0x5);
    orvtest::CapturedStderr err;
    EXPECT_EQ(call(13, t0 + 13400, t0 + 21000)[kTotal], 8000u);
    EXPECT_EQ(call(14, t0 + 14000, t0 + 14000)[kTotal], 0u);
    EXPECT_EQ(call(15, t0 + 15000, t0 + 14500)[kTotal], 0u);
    // A 250 ms jump drops the estimate for this call, which falls back to
    // the time stamp; the next call estimates afresh.
    EXPECT_EQ(call(16, t0 + 266000, t0 + 269000)[kTotal], 3000u);
    const Log log = call(17, t0 + 267000, t0 + 269000);
    EXPECT_TRUE(log[kImuBias] == 2250000 && log[kTotal] == 2000);
    EXPECT_EQ(err.text(),
              "ORVALOG: Display clock (2014500) < IMU clock (2015000)\n"
              "ORVALOG: IMU clock bias error: bias=0 ns\n"
              "ORVAERR: IMU CBE n/a - using IMU DAT instead\n");
}

TEST_F(Prediction, GettersDoNotAllocate) {
    open("virtualSyncCtrl = 7\npredictionS = 0.01\nTipOffsetXM = 0.2\nBoresightRefRollRad = 0.1\n");
    sendMeta();
    unsigned long tdisp = 1000000;
    // Only the getters are counted: building the datagrams allocates, and
    // so does the first prediction record, which opens the log file.
    long allocations = 0;
    bool ok = false, valid = false;
    Rec r{};
    float zero[3] = {0, 0, 0};
    for (uint32_t tag = 0; tag < 400; ++tag) {
        if (tag == 200) {  // the rest with neutral parameters, which take the shortcut
            access.setPrediction(0), access.setTipOffset(zero), access.setBoresightRef(zero);
        }
        const Bytes b = orvsim::buildTracking(pose(tag, 1000000 + 1000 * tag));
        send(kCore, b), send(kCore, b);
        const long n = orvtest::allocationsDuring([&] {
            ok = access.getTrackingDataLatest(&valid, &r) && access.getTrackingData(&valid, &r) &&
                 access.getTrackingDataAtTime(tdisp += 16667, &valid, &r);
        });
        if (tag >= 3) allocations += n;
        EXPECT_TRUE(ok);
    }
    EXPECT_EQ(allocations, 0);
}

}  // namespace
