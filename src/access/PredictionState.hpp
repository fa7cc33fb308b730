// State of the display-time prediction: the clock estimates that
// getTrackingDataAtTime() keeps between calls, and the two steps that use
// them. Cleared by initVsData().
//
// The steps take every clock value as an argument (the display time, the
// pose times of the records), so they run the same on made-up clocks.
#pragma once

#include <cstdint>

#include "orvaccess/orvwire.h"

struct PredictionState {
    // virtualSyncCtrl bits.
    static constexpr int64_t kUseImuClock = 1;    // "ICBE": rebuild the IMU clock from sample ids
    static constexpr int64_t kUsePoseTime = 2;    // "IDAT": the record's own time stamp
    static constexpr int64_t kSmoothDisplay = 4;  // smooth the display clock
    // Verbosity bits of the prediction traces.
    static constexpr unsigned int kVerbPred = ORVACCESS_VERB_PRED;         // "ORVAPRED: " lines
    static constexpr unsigned int kVerbPredCsv = ORVACCESS_VERB_PRED_CSV;  // "ORVAPREDCSV," line
    // Clock values are compared on their low 44 bits.
    static constexpr unsigned long kClockMask = 0xFFFFFFFFFFFul;
    // The prediction bounds, s.
    static constexpr double kMinTotalS = -0.005;
    static constexpr double kMaxTotalS = 0.2;
    // Eleven unsigned 64-bit values of the binary prediction log record.
    static constexpr int kLogWords = 11;

    // All in unsigned 64-bit; 0 in a bias or period means "not yet estimated".
    unsigned long imuBiasNs = 0;      // running mean of (poseTime - nominal IMU time)
    unsigned long dispBiasNs = 0;     // running mean of (display time - nominal display time)
    unsigned long prevDispUs = 0;     // display time of the previous call, 44 bits
    unsigned long nominalDispUs = 0;  // sum of the estimated display periods
    unsigned long dispPeriodNs = 0;   // running mean of the display interval

    void clear() { *this = PredictionState(); }

    // One record drained from the tracking queue: with kUseImuClock and a
    // known sample interval, feeds the IMU clock bias. Returns the record's
    // nominal IMU time (us), or 0 when the IMU clock is not in use.
    unsigned long imuSample(uint32_t packetTag, uint64_t poseTime, float imuDtS, int64_t ctrl,
                            unsigned int verbosity);

    // Everything after the drain, for the newest record: display clock, age
    // of the pose, bounds. nat is what imuSample returned for that record.
    // Fills the binary log record and returns the total prediction (s).
    double predict(unsigned long displayTimeUs, uint32_t packetTag, uint64_t poseTime, unsigned long nat,
                   float imuDtS, int64_t ctrl, double predictionS, unsigned int verbosity,
                   uint64_t logRecord[kLogWords]);
};
