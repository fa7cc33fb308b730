#include "PredictionError.hpp"

#include <algorithm>
#include <cmath>

namespace orvmon {

// ---- ErrorStats ------------------------------------------------------------

void ErrorStats::add(double deg) {
    ++n_;
    sum_ += deg;
    sumSq_ += deg * deg;
    max_ = std::max(max_, deg);
    size_t bin = 0;
    if (deg >= kLowest) {
        const double b = std::floor(std::log10(deg / kLowest) * kBinsPerDecade);
        bin = 1 + static_cast<size_t>(std::min(b, static_cast<double>(bins_.size() - 2)));
    }
    ++bins_[bin];
}

double ErrorStats::rms() const { return n_ ? std::sqrt(sumSq_ / n_) : 0.0; }

double ErrorStats::percentile(double q) const {
    if (n_ == 0) return 0.0;
    const auto wanted = static_cast<uint64_t>(std::ceil(q * static_cast<double>(n_)));
    uint64_t seen = 0;
    for (size_t b = 0; b < bins_.size(); ++b) {
        seen += bins_[b];
        if (seen < wanted || seen == 0) continue;
        if (b == 0) return 0.0;
        // The geometric middle of the bin, never beyond the largest value.
        const double mid = kLowest * std::pow(10.0, (static_cast<double>(b - 1) + 0.5) / kBinsPerDecade);
        return std::min(mid, max_);
    }
    return max_;
}

// ---- target time -------------------------------------------------------------

Target targetTime(uint64_t poseTimeUs, uint64_t displayUs, double predictionS, long virtualSyncCtrl) {
    const bool toDisplay = (virtualSyncCtrl & 0x3) != 0;
    double h = predictionS;
    if (toDisplay) h += (static_cast<double>(displayUs) - static_cast<double>(poseTimeUs)) / 1e6;
    h = std::clamp(h, kMinHorizonS, kMaxHorizonS);
    return {static_cast<int64_t>(poseTimeUs) + std::llround(h * 1e6), h};
}

// ---- TruthLog ------------------------------------------------------------------

TruthLog::TruthLog(size_t capacity, int64_t retainUs) : ring_(std::max<size_t>(capacity, 2)), retainUs_(retainUs) {}

bool TruthLog::add(int64_t timeUs, const Pose& pose) {
    if (count_ > 0 && timeUs <= newest()) return false;
    if (count_ == ring_.size()) {
        head_ = (head_ + 1) % ring_.size();
        --count_;
    }
    ring_[(head_ + count_) % ring_.size()] = {timeUs, pose};
    ++count_;
    while (count_ > 1 && timeUs - oldest() > retainUs_) {
        head_ = (head_ + 1) % ring_.size();
        --count_;
    }
    return true;
}

size_t TruthLog::lowerBound(int64_t tUs) const {
    size_t lo = 0, hi = count_;
    while (lo < hi) {
        const size_t mid = (lo + hi) / 2;
        if (item(mid).timeUs < tUs)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

TruthLog::Lookup TruthLog::at(int64_t tUs, int64_t maxGapUs, Pose* out) const {
    if (count_ == 0 || tUs > newest()) return Lookup::kAfter;
    if (tUs < oldest()) return Lookup::kBefore;
    const size_t i = lowerBound(tUs);
    const Sample& s1 = item(i);
    if (s1.timeUs == tUs) {
        *out = s1.pose;
        return Lookup::kOk;
    }
    const Sample& s0 = item(i - 1);  // i > 0: tUs lies above the oldest
    const int64_t gap = s1.timeUs - s0.timeUs;
    if (gap > maxGapUs) return Lookup::kGap;
    const double f = static_cast<double>(tUs - s0.timeUs) / static_cast<double>(gap);
    out->r = interpolate(s0.pose.r, s1.pose.r, f);
    for (int i = 0; i < 3; ++i) out->p[i] = s0.pose.p[i] + f * (s1.pose.p[i] - s0.pose.p[i]);
    return Lookup::kOk;
}

const Pose* TruthLog::exact(int64_t timeUs) const {
    if (count_ == 0) return nullptr;
    const size_t i = lowerBound(timeUs);
    return i < count_ && item(i).timeUs == timeUs ? &item(i).pose : nullptr;
}

// ---- PredictionMeter -----------------------------------------------------------

PredictionMeter::PredictionMeter(size_t truthCapacity, int64_t truthRetainUs, size_t pendingCapacity)
    : truth_(truthCapacity, truthRetainUs), pending_(std::max<size_t>(pendingCapacity, 1)) {}

void PredictionMeter::addTruth(uint64_t poseTimeUs, const Mat3& r, const Vec3& p) {
    if (truth_.add(static_cast<int64_t>(poseTimeUs), {r, p})) resolve();
}

void PredictionMeter::addPrediction(uint64_t poseTimeUs, const Target& target, const Mat3& predicted,
                                    const Vec3& p) {
    if (pendingCount_ == pending_.size()) {
        settle(pending_[pendingHead_], nullptr);
        pendingHead_ = (pendingHead_ + 1) % pending_.size();
        --pendingCount_;
    }
    pending_[(pendingHead_ + pendingCount_) % pending_.size()] = {static_cast<int64_t>(poseTimeUs), target.timeUs,
                                                                  target.horizonS, {predicted, p}};
    ++pendingCount_;
    resolve();
}

void PredictionMeter::resolve() {
    // In arrival order; a target the truth has not reached yet holds back
    // the rest, which costs them only a little waiting.
    while (pendingCount_ > 0) {
        const Pending& p = pending_[pendingHead_];
        Pose truth{};
        const TruthLog::Lookup found = truth_.at(p.targetUs, kMaxTruthGapUs, &truth);
        if (found == TruthLog::Lookup::kAfter) break;
        settle(p, found == TruthLog::Lookup::kOk ? &truth : nullptr);
        pendingHead_ = (pendingHead_ + 1) % pending_.size();
        --pendingCount_;
    }
}

void PredictionMeter::settle(const Pending& p, const Pose* truth) {
    PredictionMatch m;
    m.poseTimeUs = p.poseTimeUs;
    m.targetUs = p.targetUs;
    m.horizonS = p.horizonS;
    m.predicted = p.predicted;
    if (truth == nullptr) {
        ++unmatched_;
    } else {
        m.matched = true;
        m.truth = *truth;
        m.errorDeg = angleDeg(p.predicted.r, truth->r);
        m.errorMm = distanceMm(p.predicted.p, truth->p);
        predicted_.add(m.errorDeg);
        predictedMm_.add(m.errorMm);
        horizonSumS_ += p.horizonS;
        // The reported pose the prediction started from, as it was.
        if (const Pose* raw = truth_.exact(p.poseTimeUs)) {
            m.haveRaw = true;
            m.raw = *raw;
            m.rawErrorDeg = angleDeg(raw->r, truth->r);
            m.rawErrorMm = distanceMm(raw->p, truth->p);
            unpredicted_.add(m.rawErrorDeg);
            unpredictedMm_.add(m.rawErrorMm);
        }
    }
    if (sink_ != nullptr) sink_(m, sinkContext_);
}

}  // namespace orvmon
