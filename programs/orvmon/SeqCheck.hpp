// Checks a stream of 32-bit sequence numbers (IMU tags, hub words, tracking
// packet tags): how many arrived, how many never did, how many came twice and
// how many came late. Numbers wrap at 2^32; nothing is allocated per number.
#pragma once

#include <bitset>
#include <cstdint>

namespace orvmon {

class SeqCheck {
public:
    // Numbers remembered for telling a duplicate from a late arrival.
    static constexpr uint32_t kWindow = 4096;
    // A jump this large (either way) is a restarted sender, not a gap.
    static constexpr uint32_t kRestartJump = 1u << 20;

    // `step` is the expected difference between neighbours; with learnStep
    // it is learned as the smallest forward difference seen, for streams
    // whose numbers advance by a fixed but unknown step.
    explicit SeqCheck(uint32_t step = 1, bool learnStep = false);

    void feed(uint32_t n);

    uint64_t received() const { return received_; }
    // Numbers (in units of the step) between the first and the newest that
    // never arrived; a late arrival fills its gap again.
    uint64_t missing() const;
    uint64_t duplicates() const { return duplicates_; }
    // Arrived after a later number (including those too old to tell from a
    // duplicate).
    uint64_t outOfOrder() const { return outOfOrder_; }
    uint64_t restarts() const { return restarts_; }
    uint32_t step() const { return step_; }
    bool started() const { return started_; }
    uint32_t newest() const { return newest_; }

private:
    uint64_t runMissing() const;
    void startRun(uint32_t n);
    bool seen(uint32_t n) const { return seen_[n % kWindow]; }
    void mark(uint32_t n) { seen_[n % kWindow] = true; }

    uint32_t step_;
    bool learnStep_;
    bool started_ = false;
    uint32_t first_ = 0;
    uint32_t newest_ = 0;
    uint64_t span_ = 0;      // advance from first_ to newest_, in raw numbers
    uint64_t distinct_ = 0;  // distinct numbers of the current run
    uint64_t received_ = 0;
    uint64_t duplicates_ = 0;
    uint64_t outOfOrder_ = 0;
    uint64_t restarts_ = 0;
    uint64_t missingBefore_ = 0;  // gaps of runs ended by a restart
    // Bit n % kWindow: number n in (newest_ - kWindow, newest_] arrived.
    std::bitset<kWindow> seen_;
};

}  // namespace orvmon
