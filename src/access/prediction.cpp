// The newest pose predicted to the moment the application displays it: how
// old the pose is at the display time (from its time stamp, or from an IMU
// clock rebuilt from sample ids and optionally a smoothed display clock),
// plus the fixed interval, bounded, then the usual export adjustment.
#include <cmath>
#include <cstring>
#include <iostream>

#include "access/State.hpp"
#include "diag/OrvUtil.hpp"

namespace {

// Weights of the running means: the IMU clock is steady, the display
// period a little less, the display clock bias follows fastest.
constexpr unsigned int kImuBiasWeight = 1000;
constexpr unsigned int kDispPeriodWeight = 500;
constexpr unsigned int kDispBiasWeight = 100;
// The logging channel of the binary prediction records ("orvaPred.log").
constexpr unsigned int kLogPrediction = ORVACCESS_LOG_PRED;

// A non-negative real truncated to unsigned 64-bit, saturating instead of
// leaving the range (the sample interval comes from the wire).
unsigned long truncU64(double x) {
    if (!(x > 0.0)) return 0;
    if (x >= 18446744073709551616.0) return ~0ul;
    return static_cast<unsigned long>(x);
}

// The total in microseconds for the log record: a negative total wraps as
// a two's-complement count would.
uint64_t totalUs(double totalS) {
    const double us = totalS * 1e6;
    if (std::isnan(us)) return 0;
    return static_cast<uint64_t>(static_cast<int64_t>(us));
}

}  // namespace

unsigned long PredictionState::imuSample(uint32_t packetTag, uint64_t poseTime, float imuDtS, int64_t ctrl,
                                         unsigned int verbosity) {
    if (!(ctrl & kUseImuClock) || !(imuDtS > 0.0f)) return 0;
    const unsigned long loc = poseTime & kClockMask;
    const unsigned long periodUs = truncU64(imuDtS * 1e6);
    const unsigned long nat = packetTag * periodUs;
    if (!OrvUtil::updateTimeDiff(kImuBiasWeight, loc, nat, &imuBiasNs))
        OrvUtil::logLine(verbosity, "IMU clock bias error: bias=", imuBiasNs, " ns");
    // "nat" is in us; its label has always read " ns", and readers of the
    // trace rely on it.
    if (verbosity & kVerbPred) {
        const OrvUtil::OutputGuard guard;
        std::cout << "ORVAPRED: IMU sid=" << packetTag << " loc=" << loc << " us, nat=" << nat
                  << " ns, bias=" << imuBiasNs << " ns\n";
    }
    return nat;
}

double PredictionState::predict(unsigned long displayTimeUs, uint32_t packetTag, uint64_t poseTime,
                                unsigned long nat, float imuDtS, int64_t ctrl, double predictionS,
                                unsigned int verbosity, uint64_t logRecord[kLogWords]) {
    const bool csv = (verbosity & kVerbPredCsv) != 0;
    // The comma-separated line is written piece by piece through the whole
    // computation: it is held so that no other object's output lands inside.
    const OrvUtil::OutputGuard guard((verbosity & (kVerbPred | kVerbPredCsv)) != 0);
    if (csv) std::cout << "ORVAPREDCSV," << packetTag << ',' << poseTime << ',';

    // Display clock: the period and the bias against the sum of periods
    // smooth out the jitter of the application's own clock readings.
    unsigned long display = displayTimeUs;
    if (ctrl & kSmoothDisplay) {
        const unsigned long loc = displayTimeUs & kClockMask;
        unsigned long con = displayTimeUs;
        if (prevDispUs != 0 && !OrvUtil::updateTimeDiff(kDispPeriodWeight, loc, prevDispUs, &dispPeriodNs))
            OrvUtil::logLine(verbosity, "Display clock update error: period=", dispPeriodNs);
        if (dispPeriodNs != 0) {
            const unsigned long gap = loc - prevDispUs;
            if (gap > (dispPeriodNs + dispPeriodNs / 2) / 1000)
                OrvUtil::logLine(verbosity, "Display period overrun: ", gap, " us");
            nominalDispUs += dispPeriodNs / 1000;
            if (OrvUtil::updateTimeDiff(kDispBiasWeight, loc, nominalDispUs, &dispBiasNs))
                con = nominalDispUs + dispBiasNs / 1000;
            else
                OrvUtil::logLine(verbosity, "Display clock update error: bias=", dispBiasNs);
        }
        if (verbosity & kVerbPred)
            std::cout << "ORVAPRED: DISP loc=" << loc << " us, nat=" << nominalDispUs
                      << " us, bias=" << dispBiasNs << " ns, con=" << con << " us, period=" << dispPeriodNs
                      << "ns\n";
        if (csv) std::cout << loc << ',' << nominalDispUs << ',' << dispBiasNs << ',' << dispPeriodNs << ',';
        prevDispUs = loc;
        display = con;
    }

    // Age of the pose at the display time; never negative.
    double ageUs = 0.0;
    unsigned long tcon = 0;
    const bool imuClock = (ctrl & kUseImuClock) != 0;
    if (imuClock && imuDtS > 0.0f && imuBiasNs != 0) {
        const unsigned long t = display & kClockMask;
        tcon = nat + imuBiasNs / 1000;
        if (tcon <= t)
            ageUs = static_cast<double>(t - tcon);
        else
            OrvUtil::logLine(verbosity, "Display clock (", t, ") < IMU clock (", tcon, ")");
        if (verbosity & kVerbPred)
            std::cout << "ORVAPRED: ICBE tdisp=" << t << " us, tconimu=" << tcon
                      << " us, prediction=" << ageUs << " us\n";
        if (csv) std::cout << t << ',' << tcon << ',' << ageUs << ',';
    } else if (ctrl & (kUseImuClock | kUsePoseTime)) {
        if (imuClock) OrvUtil::errLine(verbosity, "IMU CBE n/a - using IMU DAT instead");
        const unsigned long timu = poseTime;
        if (display < timu)
            OrvUtil::logLine(verbosity, "Display clock (", display, " us) < IMU clock (", timu, " us)");
        else
            ageUs = static_cast<double>(display - timu);
        if (verbosity & kVerbPred)
            std::cout << "ORVAPRED: IDAT tdisp=" << display << " us, timu=" << timu
                      << " us, prediction=" << ageUs << " us\n";
    }

    double total = ageUs / 1e6 + predictionS;
    if (total < kMinTotalS || total > kMaxTotalS) {
        OrvUtil::errLine(verbosity, "Prediction out of bounds (", total, ")");
        total = total > kMaxTotalS ? kMaxTotalS : kMinTotalS;
    }
    if (verbosity & kVerbPred) std::cout << "ORVAPRED: total prediction=" << total << " s\n";
    if (csv) std::cout << total << '\n';

    const uint64_t words[kLogWords] = {displayTimeUs, packetTag,     poseTime,         dispPeriodNs,
                                       nat,           nominalDispUs, imuBiasNs / 1000, dispBiasNs / 1000,
                                       tcon,          display,       totalUs(total)};
    std::memcpy(logRecord, words, sizeof words);
    return total;
}

bool OrvAccess::getTrackingDataAtTime(unsigned long displayTimeUs, bool* valid, s_OrvAccessTrkDataExt* data) {
    // Like getTrackingDataLatest, this getter services even in manual mode.
    if (!serviceUdp(true)) return false;
    State& s = *st_;
    if (s.tracking.empty()) {
        *valid = false;
        return true;
    }
    *valid = true;
    const OrvAccessConfig& c = s.cfg;
    // Every queued record feeds the IMU clock estimate; the newest is the
    // one handed out.
    unsigned long nat = 0;
    while (s.tracking.pop(data))
        nat = s.vs.imuSample(data->packetTag, data->poseTime, s.imuDt, c.virtualSyncCtrl, c.verbosity);

    uint64_t record[PredictionState::kLogWords];
    const double total = s.vs.predict(displayTimeUs, data->packetTag, data->poseTime, nat, s.imuDt,
                                      c.virtualSyncCtrl, s.predictionS, c.verbosity, record);
    if (c.logging & kLogPrediction)
        OrvUtil::logBuf(reinterpret_cast<const unsigned char*>(record), sizeof record, kLogPrediction,
                        c.logPath);
    updateExports(total, data);
    return true;
}

void OrvAccess::initVsData() { st_->vs.clear(); }
