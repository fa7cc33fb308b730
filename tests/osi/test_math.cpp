// The matrix and attitude routines against independent computations: hand
// results, elementary rotations multiplied out, a rotation integrated in
// small steps, and inverses checked by multiplication.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "osi/OrvosiMath.hpp"

namespace {

using M = OrvosiMath;

void expectNear(const double* a, const double* b, int n, double tol) {
    for (int i = 0; i < n; ++i) EXPECT_NEAR(a[i], b[i], tol) << "element " << i;
}

// Rz(yaw) * Ry(pitch) * Rx(roll) from the three elementary rotations.
void zyx(double roll, double pitch, double yaw, double* out) {
    const double rx[9] = {1, 0, 0, 0, std::cos(roll), -std::sin(roll), 0, std::sin(roll), std::cos(roll)};
    const double ry[9] = {std::cos(pitch), 0, std::sin(pitch), 0, 1, 0, -std::sin(pitch), 0, std::cos(pitch)};
    const double rz[9] = {std::cos(yaw), -std::sin(yaw), 0, std::sin(yaw), std::cos(yaw), 0, 0, 0, 1};
    double zy[9];
    M::matrixMult(3, 3, 3, rz, ry, zy);
    M::matrixMult(3, 3, 3, zy, rx, out);
}

// dC/dt = C * skew(w), integrated over dt with classical Runge-Kutta steps.
void integrate(const double* w, double dt, int steps, double* c) {
    const double k[9] = {0, -w[2], w[1], w[2], 0, -w[0], -w[1], w[0], 0};
    const double h = dt / steps;
    auto slope = [&](const double* at, double* out) { M::matrixMult(3, 3, 3, at, k, out); };
    for (int s = 0; s < steps; ++s) {
        double k1[9], k2[9], k3[9], k4[9], tmp[9];
        slope(c, k1);
        for (int i = 0; i < 9; ++i) tmp[i] = c[i] + h / 2 * k1[i];
        slope(tmp, k2);
        for (int i = 0; i < 9; ++i) tmp[i] = c[i] + h / 2 * k2[i];
        slope(tmp, k3);
        for (int i = 0; i < 9; ++i) tmp[i] = c[i] + h * k3[i];
        slope(tmp, k4);
        for (int i = 0; i < 9; ++i) c[i] += h / 6 * (k1[i] + 2 * k2[i] + 2 * k3[i] + k4[i]);
    }
}

TEST(Matrix, ArithmeticShapesAndSizeGuards) {
    const double a[6] = {1, 2, 3, 4, 5, 6};     // 2 x 3
    const double b[6] = {7, 8, 9, 10, 11, 12};  // 3 x 2
    const double abWant[4] = {58, 64, 139, 154};
    double ab[4], bt[6];
    M::matrixMult(2, 3, 2, a, b, ab);
    expectNear(ab, abWant, 4, 0);
    M::matrixTrans(3, 2, b, bt);
    const double btWant[6] = {7, 9, 11, 8, 10, 12};
    expectNear(bt, btWant, 6, 0);
    M::matrixMultTrans(2, 3, 2, a, bt, ab);  // a * transpose(bt) = a * b
    expectNear(ab, abWant, 4, 0);

    // Element-wise operations may work in place.
    double v[3] = {1, -2, 4};
    M::matrixScale(3, 1, v, 0.5, v);
    M::matrixAdd(3, 1, v, v, v);
    EXPECT_EQ(v[1], -2.0);
    EXPECT_EQ(M::vectorLen2(v), 21.0);

    // Sizes below 1 write nothing, except that an empty inner dimension
    // makes a product of zeros.
    double out[4] = {9, 9, 9, 9};
    M::matrixCopy(0, 3, a, out);
    M::matrixScale(-1, -1, a, 2, out);
    M::matrixMult(0, 3, 2, a, b, out);
    M::matrixTrans(0, 2, a, out);
    EXPECT_EQ(out[0], 9.0);
    M::matrixMult(2, 0, 2, a, b, out);
    const double zeros[4] = {0, 0, 0, 0};
    expectNear(out, zeros, 4, 0);
}

TEST(Attitude, EulerAnglesAndTheirMatrix) {
    for (double roll = -3.1; roll < 3.15; roll += 0.7)
        for (double pitch = -1.5; pitch < 1.55; pitch += 0.5)
            for (double yaw = -3.1; yaw < 3.15; yaw += 0.9) {
                const double e[3] = {roll, pitch, yaw};
                double c[3][3], want[9], back[3];
                M::euler2Cbn(e, c);
                zyx(roll, pitch, yaw, want);
                expectNear(c[0], want, 9, 1e-15);
                M::cbn2Euler(c, back);
                expectNear(back, e, 3, 1e-12);
            }

    // Rounding past +-1 in c[6] gives a pitch of exactly -+pi/2, not NaN.
    double c[3][3] = {{0, 0, 1}, {0, 1, 0}, {1.0000001, 0, 0}};
    double e[3];
    M::cbn2Euler(c, e);
    EXPECT_EQ(e[1], -std::asin(1.0));
    c[2][0] = -1.0000001;
    M::cbn2Euler(c, e);
    EXPECT_EQ(e[1], std::asin(1.0));
    EXPECT_FALSE(std::isnan(e[0]) || std::isnan(e[2]));
}

TEST(Attitude, RotationAndPrediction) {
    const double start[3] = {0.3, -0.4, 1.2};
    double c[3][3], orig[3][3];
    M::euler2Cbn(start, c);
    std::memcpy(orig, c, sizeof c);

    // Below 1e-6 rad nothing moves, bit for bit; at 2e-6 it does.
    const double tiny[3] = {0, 1e-7, 0};
    M::rotateCbn(tiny, c[0]);
    EXPECT_EQ(std::memcmp(c, orig, sizeof c), 0);
    const double small[3] = {0, 2e-6, 0};
    M::rotateCbn(small, c[0]);
    EXPECT_NE(std::memcmp(c, orig, sizeof c), 0);

    // The increment turns the body axes: a roll after a yaw is Rz * Rx.
    double yawOnly[3][3], want[9];
    const double y[3] = {0, 0, 0.8};
    M::euler2Cbn(y, yawOnly);
    const double roll[3] = {0.5, 0, 0};
    M::rotateCbn(roll, yawOnly[0]);
    zyx(0.5, 0, 0.8, want);
    expectNear(yawOnly[0], want, 9, 1e-15);

    // Constant-rate prediction against the rate integrated in small steps,
    // forwards and backwards; dt 0 changes nothing.
    const double rate[3] = {1.3, -0.7, 2.1};
    for (double dt : {0.05, 0.5, -0.3}) {
        double p[3][3], ref[9];
        std::memcpy(p, orig, sizeof p);
        std::memcpy(ref, orig, sizeof ref);
        M::predictCbn(dt, rate, p);
        integrate(rate, dt, 2000, ref);
        expectNear(p[0], ref, 9, 1e-12);
    }
    double p[3][3];
    std::memcpy(p, orig, sizeof p);
    M::predictCbn(0.0, rate, p);
    EXPECT_EQ(std::memcmp(p, orig, sizeof p), 0);

    double pos[3] = {1, 2, 3};
    const double vel[3] = {0.5, -1, 2};
    M::predictPos(0.0, vel, pos);
    const double pos0[3] = {1, 2, 3}, pos2[3] = {2, 0, 7};
    expectNear(pos, pos0, 3, 0);
    M::predictPos(2.0, vel, pos);
    expectNear(pos, pos2, 3, 0);
}

TEST(Inversion, ResultsAndRefusals) {
    double out[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
    const double seven[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};

    // The diagonal decides, not the determinant.
    const double swap[4] = {0, 1, 1, 0};
    EXPECT_FALSE(M::matrixInvert2x2(swap, out));
    expectNear(out, seven, 9, 0);
    const double diag[4] = {2, 0, 0, 4}, diagInv[4] = {0.5, 0, 0, 0.25};
    ASSERT_TRUE(M::matrixInvert2x2(diag, out));
    expectNear(out, diagInv, 4, 0);
    const double singular[4] = {1, 2, 2, 4};
    ASSERT_TRUE(M::matrixInvert2x2(singular, out));
    EXPECT_TRUE(std::isinf(out[0]));
    const double g2[4] = {3, -1, 2, 5};
    double prod2[4];
    ASSERT_TRUE(M::matrixInvert2x2(g2, out));
    M::matrixMult(2, 2, 2, g2, out, prod2);
    const double i2[4] = {1, 0, 0, 1};
    expectNear(prod2, i2, 4, 1e-15);

    const double i3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    ASSERT_TRUE(M::matrixInvert3x3(i3, out));
    expectNear(out, i3, 9, 0);
    const double g3[9] = {4, 1, -2, 0.5, 3, 1, 2, -1, 5};
    double inPlace[9], prod3[9];
    std::memcpy(inPlace, g3, sizeof g3);
    ASSERT_TRUE(M::matrixInvert3x3(inPlace, inPlace));
    M::matrixMult(3, 3, 3, g3, inPlace, prod3);
    expectNear(prod3, i3, 9, 1e-14);
    M::matrixMult(3, 3, 3, inPlace, g3, prod3);
    expectNear(prod3, i3, 9, 1e-14);

    // m8 == 0, or a zero in the top-left block's diagonal: refused, out kept.
    std::memcpy(out, seven, sizeof out);
    double bad[9];
    std::memcpy(bad, g3, sizeof bad);
    bad[8] = 0;
    EXPECT_FALSE(M::matrixInvert3x3(bad, out));
    std::memcpy(bad, g3, sizeof bad);
    bad[0] = 0;
    EXPECT_FALSE(M::matrixInvert3x3(bad, out));
    expectNear(out, seven, 9, 0);
}

TEST(Heading, TiltCompensatedYawMatchesTheAttitude) {
    // A field pointing north and down, seen from a body in various attitudes.
    const double field[3] = {0.2, 0, 0.45};
    for (double roll : {-0.6, 0.0, 0.4})
        for (double pitch : {-0.5, 0.0, 0.7})
            for (double yaw : {-2.5, -0.3, 0.0, 1.1, 3.0}) {
                const double e[3] = {roll, pitch, yaw};
                double c[3][3], body[3];
                M::euler2Cbn(e, c);
                M::matrixMult(1, 3, 3, field, c[0], body);  // (transpose(c) * field)'
                EXPECT_NEAR(M::YawfromMags(body, roll, pitch), yaw, 1e-12);
            }
}

}  // namespace
