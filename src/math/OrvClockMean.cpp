#include "math/OrvClockMean.hpp"

bool OrvClockMean::updateTimeDiff(unsigned int n, unsigned long t, unsigned long tNominal, unsigned long* meanNs) {
    // A jump this large is a clock restart or a lost stream, not jitter.
    constexpr unsigned long kMaxJumpNs = 200000000ul;
    const unsigned long d = (t - tNominal) * 1000ul;
    if (*meanNs == 0) {
        *meanNs = d;
        return true;
    }
    const unsigned long gap = d > *meanNs ? d - *meanNs : *meanNs - d;
    if (gap > kMaxJumpNs) {
        *meanNs = 0;
        return false;
    }
    if (n == 0) n = 1;  // a weight of 0 would divide by zero
    const unsigned int older = n - 1u;
    *meanNs = (static_cast<unsigned long>(older) * *meanNs + d) / n;
    return true;
}
