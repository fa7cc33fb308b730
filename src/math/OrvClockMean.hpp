// The running mean that aligns the display clock with the IMU clock. Pure
// integer arithmetic on the values passed in, so that a test drives it with
// made-up clocks. OrvUtil offers it as OrvUtil::updateTimeDiff.
#pragma once

struct OrvClockMean {
    OrvClockMean() = delete;

    // Running mean of a clock difference. d = (t - tNominal) * 1000 (us to
    // ns, unsigned 64-bit, so a negative difference wraps). A mean of 0 means
    // "not yet estimated" and takes d as it is; a d more than 200 ms away
    // from the mean resets the mean to 0 and returns false; otherwise the
    // mean moves to ((n - 1) * mean + d) / n in integer arithmetic. An n of 0
    // is taken as 1.
    static bool updateTimeDiff(unsigned int n, unsigned long t, unsigned long tNominal, unsigned long* meanNs);
};
