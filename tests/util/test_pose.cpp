// The float pose helpers (widen, compute in double, narrow once) and the
// running mean of the clock alignment.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "osi/OrvosiMath.hpp"
#include "util/OrvUtil.hpp"

namespace {

TEST(FloatPose, ComputedInDoubleAndNarrowedOnce) {
    // Narrowing rounds to nearest; sizes below 1 write nothing.
    const double d[2] = {0.1, 1.0 + 0.75 * std::ldexp(1.0, -23)};
    float f[2] = {5, 5};
    OrvUtil::matrixD2F(0, 2, d, f);
    EXPECT_EQ(f[0], 5.0f);
    OrvUtil::matrixD2F(2, 1, d, f);
    EXPECT_EQ(f[0], 0.1f);
    EXPECT_EQ(f[1], 1.0f + std::ldexp(1.0f, -23));

    // Bit-equal to the double routine narrowed at the end: float
    // intermediates would differ in the last bits.
    const float euler[3] = {0.2f, -0.7f, 2.9f}, rate[3] = {0.4f, 1.5f, -0.9f};
    const double rated[3] = {rate[0], rate[1], rate[2]};
    double cd[3][3];
    OrvUtil::euler2Cbn(euler, cd);
    float cf[3][3];
    OrvUtil::matrixD2F(3, 3, cd[0], cf[0]);
    OrvUtil::matrixF2D(3, 3, cf[0], cd[0]);
    OrvosiMath::predictCbn(0.07, rated, cd);
    OrvUtil::predictCbn(0.07, rate, cf);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(cf[i / 3][i % 3], static_cast<float>(cd[i / 3][i % 3]));

    float pos[3] = {1.0f, 2.0f, 3.0f};
    const float vel[3] = {0.1f, 0.2f, 0.3f};
    OrvUtil::predictPos(10.0, vel, pos);
    EXPECT_EQ(pos[2], static_cast<float>(3.0 + static_cast<double>(0.3f) * 10.0));
}

TEST(FloatPose, BoresightRotatesAttitudeFromTheRightAndVectorsFromTheLeft) {
    const float att[3] = {0.3f, 0.2f, 0.1f};
    double c[3][3];
    OrvUtil::euler2Cbn(att, c);
    float cbn[3][3], orig[3][3];
    OrvUtil::matrixD2F(3, 3, c[0], cbn[0]);
    std::memcpy(orig, cbn, sizeof cbn);

    const float zero[3] = {0, 0, 0};
    double identity[3][3];
    OrvUtil::euler2Cbn(zero, identity);
    OrvUtil::boresightM(identity, cbn);
    EXPECT_EQ(std::memcmp(cbn, orig, sizeof cbn), 0);

    // A reference of yaw 0.1 takes the yaw out of a pure-yaw attitude.
    const float yawOnly[3] = {0, 0, 0.1f};
    double ref[3][3];
    OrvUtil::euler2Cbn(yawOnly, ref);
    float y[3][3], e[3];
    OrvUtil::matrixD2F(3, 3, ref[0], y[0]);
    OrvUtil::boresightM(ref, y);
    OrvUtil::cbn2Euler(y, e);
    for (float v : e) EXPECT_NEAR(v, 0.0f, 1e-7);

    // cbn * transpose(ref), not transpose(ref) * cbn: the two differ here.
    OrvUtil::boresightM(ref, cbn);
    double want[9];
    OrvosiMath::matrixMultTrans(3, 3, 3, c[0], ref[0], want);
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(cbn[i / 3][i % 3], want[i], 3e-7);

    // Vectors: v = ref * v. A quarter turn in yaw takes x to y.
    const float quarter[3] = {0, 0, static_cast<float>(M_PI / 2)};
    OrvUtil::euler2Cbn(quarter, ref);
    float v[3] = {1.0f, 0.0f, 2.0f};
    OrvUtil::boresightV(ref, v);
    EXPECT_NEAR(v[0], 0.0f, 1e-7);
    EXPECT_NEAR(v[1], 1.0f, 1e-7);
    EXPECT_EQ(v[2], 2.0f);
}

TEST(ClockMean, StartsJumpsAndAverages) {
    unsigned long mean = 0;
    EXPECT_TRUE(OrvUtil::updateTimeDiff(1000, 2000, 1000, &mean));
    EXPECT_EQ(mean, 1000000ul);
    // A jump of more than 200 ms resets; exactly 200 ms does not.
    EXPECT_FALSE(OrvUtil::updateTimeDiff(1000, 1201000, 0, &mean));
    EXPECT_EQ(mean, 0ul);
    mean = 1000000;
    EXPECT_TRUE(OrvUtil::updateTimeDiff(1000, 201000, 0, &mean));
    EXPECT_EQ(mean, (999ul * 1000000 + 201000000) / 1000);

    // Integer mean, truncated: (2 * 10000 + 15000) / 3.
    mean = 10000;
    EXPECT_TRUE(OrvUtil::updateTimeDiff(3, 15, 0, &mean));
    EXPECT_EQ(mean, 11666ul);
    // Weights of 1 and (guarded) 0 take the new value as it is.
    EXPECT_TRUE(OrvUtil::updateTimeDiff(1, 20, 0, &mean));
    EXPECT_EQ(mean, 20000ul);
    EXPECT_TRUE(OrvUtil::updateTimeDiff(0, 30, 0, &mean));
    EXPECT_EQ(mean, 30000ul);

    // A clock behind its nominal time wraps in unsigned arithmetic.
    mean = 0;
    EXPECT_TRUE(OrvUtil::updateTimeDiff(100, 1000, 1005, &mean));
    EXPECT_EQ(mean, 0ul - 5000ul);
    // Near the top of the 64-bit range the values stay comparable.
    EXPECT_TRUE(OrvUtil::updateTimeDiff(1, 1000, 1006, &mean));
    EXPECT_EQ(mean, 0ul - 6000ul);
}

}  // namespace
