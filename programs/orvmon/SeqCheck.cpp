#include "SeqCheck.hpp"

#include <algorithm>

namespace orvmon {

SeqCheck::SeqCheck(uint32_t step, bool learnStep) : step_(learnStep ? 0 : std::max(step, 1u)), learnStep_(learnStep) {}

void SeqCheck::startRun(uint32_t n) {
    started_ = true;
    first_ = newest_ = n;
    span_ = 0;
    distinct_ = 1;
    seen_.reset();
    mark(n);
}

uint64_t SeqCheck::runMissing() const {
    if (!started_) return 0;
    // Until a step is learned only one number has arrived: nothing missing.
    const uint64_t expected = step_ == 0 ? distinct_ : span_ / step_ + 1;
    return expected > distinct_ ? expected - distinct_ : 0;
}

uint64_t SeqCheck::missing() const { return missingBefore_ + runMissing(); }

void SeqCheck::feed(uint32_t n) {
    ++received_;
    if (!started_) {
        startRun(n);
        return;
    }
    // Signed distance on the 32-bit circle, so that numbers wrap cleanly.
    const int64_t diff = static_cast<int32_t>(n - newest_);
    const uint64_t ahead = diff > 0 ? static_cast<uint64_t>(diff) : 0;
    const uint64_t behind = diff < 0 ? static_cast<uint64_t>(-diff) : 0;

    if (ahead >= kRestartJump || behind >= kRestartJump) {
        missingBefore_ += runMissing();
        ++restarts_;
        startRun(n);
        return;
    }
    if (ahead > 0) {
        // Forget what falls out of the window before marking n.
        const uint64_t clear = std::min<uint64_t>(ahead, kWindow);
        for (uint64_t k = 1; k <= clear; ++k) seen_[(newest_ + static_cast<uint32_t>(k)) % kWindow] = false;
        if (learnStep_ && (step_ == 0 || ahead < step_)) step_ = static_cast<uint32_t>(ahead);
        newest_ = n;
        span_ += ahead;
        ++distinct_;
        mark(n);
        return;
    }
    if (behind < kWindow && seen(n)) {
        ++duplicates_;
        return;
    }
    ++outOfOrder_;
    if (behind >= kWindow) return;  // too old to know whether it is new
    mark(n);
    ++distinct_;
    // Older than the first number of the run: the run reaches back further.
    const int64_t beforeFirst = static_cast<int32_t>(first_ - n);
    if (beforeFirst > 0) {
        span_ += static_cast<uint64_t>(beforeFirst);
        first_ = n;
    }
}

}  // namespace orvmon
