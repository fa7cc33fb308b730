// How far the library's predicted pose (attitude and position) is from where
// the head really was at the moment the prediction was meant for. The "truth" is the stream
// of reported (unpredicted) poses, interpolated to that moment; every
// container is allocated once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Attitude.hpp"

namespace orvmon {

// Running statistics of errors: angles in degrees or distances in
// millimetres. The percentile comes from a histogram with 40 logarithmic bins
// per decade (about 3 % resolution), so that a long run needs no growing
// storage.
class ErrorStats {
public:
    void add(double deg);
    uint64_t n() const { return n_; }
    double mean() const { return n_ ? sum_ / n_ : 0.0; }
    double rms() const;
    double max() const { return max_; }
    double percentile(double q) const;

private:
    static constexpr double kLowest = 1e-6;  // smaller counts as zero
    static constexpr int kBinsPerDecade = 40;
    static constexpr int kDecades = 9;  // up to 1000 degrees
    std::array<uint64_t, kBinsPerDecade * kDecades + 1> bins_{};
    uint64_t n_ = 0;
    double sum_ = 0.0, sumSq_ = 0.0, max_ = 0.0;
};

// The moment a prediction is meant for, and its horizon from the pose.
struct Target {
    int64_t timeUs;
    double horizonS;
};

// The library predicts a pose to the display time plus the configured
// interval when virtualSyncCtrl asks for it (bit 0x1 IMU clock, 0x2 record
// time), otherwise by the interval alone; it bounds the horizon the same way.
Target targetTime(uint64_t poseTimeUs, uint64_t displayUs, double predictionS, long virtualSyncCtrl);
constexpr double kMinHorizonS = -0.005;
constexpr double kMaxHorizonS = 0.2;

// An attitude with its position in metres.
struct Pose {
    Mat3 r;
    Vec3 p;
};

// The newest reported poses, oldest first, strictly increasing in time.
class TruthLog {
public:
    enum class Lookup { kOk, kBefore, kAfter, kGap };

    TruthLog(size_t capacity, int64_t retainUs);
    // False (and nothing stored) unless newer than everything held.
    bool add(int64_t timeUs, const Pose& pose);
    // The pose at tUs, interpolated between the two held samples around it
    // (geodesically, and linearly for the position) when they are at most
    // maxGapUs apart.
    Lookup at(int64_t tUs, int64_t maxGapUs, Pose* out) const;
    // The sample taken exactly at timeUs, or null.
    const Pose* exact(int64_t timeUs) const;

    size_t size() const { return count_; }
    int64_t oldest() const { return item(0).timeUs; }
    int64_t newest() const { return item(count_ - 1).timeUs; }

private:
    struct Sample {
        int64_t timeUs;
        Pose pose;
    };
    const Sample& item(size_t i) const { return ring_[(head_ + i) % ring_.size()]; }
    size_t lowerBound(int64_t tUs) const;

    std::vector<Sample> ring_;
    size_t head_ = 0, count_ = 0;
    int64_t retainUs_;
};

// One prediction settled: against the truth at its target time, or found
// to have none.
struct PredictionMatch {
    int64_t poseTimeUs = 0;
    int64_t targetUs = 0;
    double horizonS = 0.0;
    Pose predicted{};
    bool matched = false;  // the truth below is known
    Pose truth{};
    bool haveRaw = false;  // the reported pose the prediction started from
    Pose raw{};
    double errorDeg = 0.0, errorMm = 0.0;        // predicted against truth
    double rawErrorDeg = 0.0, rawErrorMm = 0.0;  // raw against truth
};

class PredictionMeter {
public:
    // Two reported poses further apart than this are no ground truth between.
    static constexpr int64_t kMaxTruthGapUs = 10000;
    // Told of every settled prediction, in order; null: nobody.
    using Sink = void (*)(const PredictionMatch& match, void* context);

    PredictionMeter(size_t truthCapacity, int64_t truthRetainUs, size_t pendingCapacity);
    void setSink(Sink sink, void* context) { sink_ = sink, sinkContext_ = context; }

    // A reported pose; matches whatever waited for it.
    void addTruth(uint64_t poseTimeUs, const Mat3& r, const Vec3& p = {});
    // A pose predicted from the pose at poseTimeUs to target.timeUs.
    void addPrediction(uint64_t poseTimeUs, const Target& target, const Mat3& predicted, const Vec3& p = {});

    // Attitude errors, degrees.
    const ErrorStats& predicted() const { return predicted_; }
    // The same pose not predicted at all, against the same truth: what the
    // prediction buys.
    const ErrorStats& unpredicted() const { return unpredicted_; }
    // Position errors, millimetres. The library does not extrapolate the
    // position; only a tip offset follows the predicted attitude.
    const ErrorStats& predictedMm() const { return predictedMm_; }
    const ErrorStats& unpredictedMm() const { return unpredictedMm_; }
    // Targets before the oldest truth held, in a gap of the truth, or
    // pushed out of a full queue before they could be matched.
    uint64_t unmatched() const { return unmatched_; }
    uint64_t pending() const { return pendingCount_; }
    double meanHorizonMs() const { return predicted_.n() ? horizonSumS_ / predicted_.n() * 1e3 : 0.0; }
    const TruthLog& truth() const { return truth_; }

private:
    struct Pending {
        int64_t poseTimeUs;
        int64_t targetUs;
        double horizonS;
        Pose predicted;
    };
    void resolve();
    // Counts a prediction against the truth (null: none found) and tells
    // the sink.
    void settle(const Pending& p, const Pose* truth);

    TruthLog truth_;
    std::vector<Pending> pending_;
    size_t pendingHead_ = 0, pendingCount_ = 0;
    ErrorStats predicted_, unpredicted_, predictedMm_, unpredictedMm_;
    Sink sink_ = nullptr;
    void* sinkContext_ = nullptr;
    uint64_t unmatched_ = 0;
    double horizonSumS_ = 0.0;
};

}  // namespace orvmon
