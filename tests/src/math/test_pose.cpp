// The float pose helpers (widen, compute in double, narrow once) and the
// running mean of the clock alignment. The boresight helpers are checked
// through the tracking export.
#include <gtest/gtest.h>

#include <cmath>

#include "math/OrvClockMean.hpp"
#include "math/OrvPose.hpp"
#include "math/OrvosiMath.hpp"

namespace {

TEST(FloatPose, ComputedInDoubleAndNarrowedOnce) {
    // Narrowing rounds to nearest; sizes below 1 write nothing.
    const double d[2] = {0.1, 1.0 + 0.75 * std::ldexp(1.0, -23)};
    float f[2] = {5, 5};
    OrvFloatPose::matrixD2F(0, 2, d, f);
    EXPECT_EQ(f[0], 5.0f);
    OrvFloatPose::matrixD2F(2, 1, d, f);
    EXPECT_TRUE(f[0] == 0.1f && f[1] == 1.0f + std::ldexp(1.0f, -23));

    // Bit-equal to the double routines narrowed at the end: float
    // intermediates would differ in the last bits.
    const float euler[3] = {0.2f, -0.7f, 2.9f}, rate[3] = {0.4f, 1.5f, -0.9f};
    const double rated[3] = {rate[0], rate[1], rate[2]};
    double cd[3][3];
    float cf[3][3], pos[3] = {1.0f, 2.0f, 3.0f};
    OrvFloatPose::euler2Cbn(euler, cd);
    OrvFloatPose::matrixD2F(3, 3, cd[0], cf[0]);
    OrvFloatPose::matrixF2D(3, 3, cf[0], cd[0]);
    OrvosiMath::predictCbn(0.07, rated, cd);
    OrvFloatPose::predictCbn(0.07, rate, cf);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(cf[i / 3][i % 3], static_cast<float>(cd[i / 3][i % 3])) << i;
    OrvFloatPose::predictPos(10.0, rate, pos);
    EXPECT_EQ(pos[2], static_cast<float>(3.0 + static_cast<double>(-0.9f) * 10.0));
}

TEST(ClockMean, StartsJumpsAndAverages) {
    unsigned long mean = 0;
    EXPECT_TRUE(OrvClockMean::updateTimeDiff(1000, 2000, 1000, &mean) && mean == 1000000);
    // A jump of more than 200 ms resets; exactly 200 ms does not.
    EXPECT_TRUE(!OrvClockMean::updateTimeDiff(1000, 1201000, 0, &mean) && mean == 0);
    mean = 1000000;
    EXPECT_TRUE(OrvClockMean::updateTimeDiff(1000, 201000, 0, &mean) &&
                mean == (999ul * 1000000 + 201000000) / 1000);
    // Integer mean, truncated: (2 * 10000 + 15000) / 3; a weight of 0 is
    // taken as 1.
    mean = 10000;
    EXPECT_TRUE(OrvClockMean::updateTimeDiff(3, 15, 0, &mean) && mean == 11666);
    EXPECT_TRUE(OrvClockMean::updateTimeDiff(0, 30, 0, &mean) && mean == 30000);
    // A clock behind its nominal time wraps in unsigned arithmetic, and near
    // the top of the 64-bit range the values stay comparable.
    mean = 0;
    EXPECT_TRUE(OrvClockMean::updateTimeDiff(100, 1000, 1005, &mean) && mean == 0ul - 5000);
    EXPECT_TRUE(OrvClockMean::updateTimeDiff(1, 1000, 1006, &mean) && mean == 0ul - 6000);
}

}  // namespace
