// The matrix and attitude routines against independent computations: hand
// results, elementary rotations multiplied out, a rotation integrated in
// small steps, and inverses checked by multiplication.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "math/OrvosiMath.hpp"

namespace {

using M = OrvosiMath;
const double kI3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

void expectNear(const double* a, const double* b, int n, double tol) {
    for (int i = 0; i < n; ++i) EXPECT_NEAR(a[i], b[i], tol) << "element " << i;
}

// Rz(yaw) * Ry(pitch) * Rx(roll) from the three elementary rotations.
void zyx(double roll, double pitch, double yaw, double* out) {
    const double cr = std::cos(roll), sr = std::sin(roll), cp = std::cos(pitch), sp = std::sin(pitch),
                 cy = std::cos(yaw), sy = std::sin(yaw), rx[9] = {1, 0, 0, 0, cr, -sr, 0, sr, cr},
                 ry[9] = {cp, 0, sp, 0, 1, 0, -sp, 0, cp}, rz[9] = {cy, -sy, 0, sy, cy, 0, 0, 0, 1};
    double zy[9];
    M::matrixMult(3, 3, 3, rz, ry, zy);
    M::matrixMult(3, 3, 3, zy, rx, out);
}

// dC/dt = C * skew(w) integrated over dt in 2000 steps, each the fourth-order
// series of the step's exponential.
void integrate(const double* w, double dt, double* c) {
    const double h = dt / 2000,
                 k[9] = {0, -w[2] * h, w[1] * h, w[2] * h, 0, -w[0] * h, -w[1] * h, w[0] * h, 0};
    double step[9], term[9], tmp[9];
    std::memcpy(step, kI3, sizeof step);
    std::memcpy(term, kI3, sizeof term);
    for (int n = 1; n <= 4; ++n) {
        M::matrixMult(3, 3, 3, term, k, tmp);
        M::matrixScale(3, 3, tmp, 1.0 / n, term);
        M::matrixAdd(3, 3, step, term, step);
    }
    for (int s = 0; s < 2000; ++s) {
        M::matrixMult(3, 3, 3, c, step, tmp);
        std::memcpy(c, tmp, sizeof tmp);
    }
}

TEST(Matrix, ArithmeticShapesAndSizeGuards) {
    const double a[6] = {1, 2, 3, 4, 5, 6}, b[6] = {7, 8, 9, 10, 11, 12};  // 2 x 3 and 3 x 2
    const double abWant[4] = {58, 64, 139, 154}, btWant[6] = {7, 9, 11, 8, 10, 12}, zeros[4] = {};
    double ab[4], bt[6], v[3] = {1, -2, 4}, out[4] = {9, 9, 9, 9};
    M::matrixMult(2, 3, 2, a, b, ab);
    expectNear(ab, abWant, 4, 0);
    M::matrixTrans(3, 2, b, bt);
    expectNear(bt, btWant, 6, 0);
    M::matrixMultTrans(2, 3, 2, a, bt, ab);  // a * transpose(bt) = a * b
    expectNear(ab, abWant, 4, 0);
    // Element-wise operations may work in place.
    M::matrixScale(3, 1, v, 0.5, v);
    M::matrixAdd(3, 1, v, v, v);
    EXPECT_TRUE(v[1] == -2.0 && M::vectorLen2(v) == 21.0);
    // Sizes below 1 write nothing, except that an empty inner dimension
    // makes a product of zeros.
    M::matrixCopy(0, 3, a, out);
    M::matrixScale(-1, -1, a, 2, out);
    M::matrixMult(0, 3, 2, a, b, out);
    M::matrixMultTrans(0, 3, 2, a, b, out);
    M::matrixTrans(0, 2, a, out);
    EXPECT_EQ(out[0], 9.0);
    M::matrixMult(2, 0, 2, a, b, out);
    expectNear(out, zeros, 4, 0);
}

TEST(Attitude, EulerAnglesHeadingRotationAndPrediction) {
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
                // A field pointing north and down, as the body sees it.
                const double field[3] = {0.2, 0, 0.45};
                M::matrixMult(1, 3, 3, field, c[0], back);  // (transpose(c) * field)'
                EXPECT_NEAR(M::YawfromMags(back, roll, pitch), yaw, 1e-12);
            }
    // Rounding past +-1 in c[6] gives a pitch of exactly -+pi/2, not NaN.
    double c[3][3] = {{0, 0, 1}, {0, 1, 0}, {1.0000001, 0, 0}}, e[3];
    M::cbn2Euler(c, e);
    EXPECT_EQ(e[1], -std::asin(1.0));
    c[2][0] = -1.0000001;
    M::cbn2Euler(c, e);
    EXPECT_TRUE(e[1] == std::asin(1.0) && !std::isnan(e[0]) && !std::isnan(e[2]));

    // Below 1e-6 rad nothing moves, bit for bit; just above it does.
    const double start[3] = {0.3, -0.4, 1.2}, tiny[3] = {0, 0.99e-6, 0}, small[3] = {0, 1.01e-6, 0};
    double orig[3][3], p[3][3], ref[9];
    M::euler2Cbn(start, orig);
    std::memcpy(p, orig, sizeof p);
    M::rotateCbn(tiny, p[0]);
    EXPECT_EQ(std::memcmp(p, orig, sizeof p), 0);
    M::rotateCbn(small, p[0]);
    EXPECT_NE(std::memcmp(p, orig, sizeof p), 0);
    // Constant-rate prediction against the rate integrated in small steps
    // (the rate turns the body axes), forwards and backwards; dt 0 changes
    // nothing. The position is checked through its float helper.
    const double rate[3] = {1.3, -0.7, 2.1};
    for (double dt : {0.05, 0.5, -0.3, 0.0}) {
        std::memcpy(p, orig, sizeof p);
        std::memcpy(ref, orig, sizeof ref);
        M::predictCbn(dt, rate, p);
        integrate(rate, dt, ref);
        expectNear(p[0], ref, 9, 1e-12);
    }
    EXPECT_EQ(std::memcmp(p, orig, sizeof p), 0);
}

TEST(Inversion, ResultsAndRefusals) {
    double out[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7}, prod[9];
    const double seven[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
    // The diagonal decides, not the determinant; a singular matrix with a
    // full diagonal divides by zero.
    const double swap[4] = {0, 1, 1, 0}, singular[4] = {1, 2, 2, 4}, g2[4] = {3, -1, 2, 5},
                 i2[4] = {1, 0, 0, 1};
    EXPECT_FALSE(M::matrixInvert2x2(swap, out));
    expectNear(out, seven, 9, 0);
    ASSERT_TRUE(M::matrixInvert2x2(singular, out));
    EXPECT_TRUE(std::isinf(out[0]));
    ASSERT_TRUE(M::matrixInvert2x2(g2, out));
    M::matrixMult(2, 2, 2, g2, out, prod);
    expectNear(prod, i2, 4, 1e-15);

    const double g3[9] = {4, 1, -2, 0.5, 3, 1, 2, -1, 5};
    double inv[9], bad[9];
    std::memcpy(inv, g3, sizeof g3);
    ASSERT_TRUE(M::matrixInvert3x3(inv, inv));  // in place
    M::matrixMult(3, 3, 3, g3, inv, prod);
    expectNear(prod, kI3, 9, 1e-14);
    // m8 == 0, or a zero in the top-left block's diagonal: refused, out kept.
    std::memcpy(out, seven, sizeof out);
    for (int zero : {8, 0, 4}) {
        std::memcpy(bad, g3, sizeof bad);
        bad[zero] = 0;
        EXPECT_FALSE(M::matrixInvert3x3(bad, out)) << zero;
    }
    expectNear(out, seven, 9, 0);
}

}  // namespace

// Quaternions against the axis and angle they are made of: q = (axis *
// sin(a/2), cos(a/2)) for rotations whose matrices take every branch of the
// conversion (trace positive, and each diagonal element the largest).
TEST(Attitude, QuaternionsOfRotationsAndBack) {
    const double axes[][3] = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}, {0.48, -0.6, 0.64}, {0.6, 0.0, -0.8}};
    const double angles[] = {0.3, 3.0, -2.9, 1.7};
    for (const auto& axis : axes) {
        for (double a : angles) {
            double rotVec[3] = {axis[0] * a, axis[1] * a, axis[2] * a};
            double c[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
            M::rotateCbn(rotVec, &c[0][0]);
            double q[4];
            M::cbn2Quat(c, q);
            const double s = std::sin(a / 2.0) * (std::cos(a / 2.0) < 0.0 ? -1.0 : 1.0);
            const double want[4] = {axis[0] * s, axis[1] * s, axis[2] * s, std::fabs(std::cos(a / 2.0))};
            expectNear(q, want, 4, 1e-12);
            // Any length of quaternion gives the same rotation.
            const double scaled[4] = {3 * q[0], 3 * q[1], 3 * q[2], 3 * q[3]};
            double back[3][3];
            M::quat2Cbn(scaled, back);
            expectNear(&back[0][0], &c[0][0], 9, 1e-12);
        }
    }
    const double zero[4] = {0, 0, 0, 0};
    double id[3][3];
    M::quat2Cbn(zero, id);
    expectNear(&id[0][0], kI3, 9, 0.0);
}

// The rotation vector and its exponential, against the prediction's own
// Rodrigues update (an independent formulation) and across every branch of
// the logarithm: tiny angles, ordinary ones, and half turns about axes that
// make each diagonal element the largest.
TEST(Attitude, RotationVectorsBothWaysOnEveryBranch) {
    const double axes[][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0.48, -0.6, 0.64}, {-0.8, 0.0, 0.6}};
    const double pi = std::acos(-1.0);
    for (const auto& axis : axes) {
        for (double a : {1e-10, 1e-7, 0.3, 3.0, pi - 1e-4, pi - 1e-9}) {
            const double w[3] = {axis[0] * a, axis[1] * a, axis[2] * a};
            double c[3][3];
            M::rotVec2Cbn(w, c);
            if (a > 1e-6) {
                double r[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
                M::rotateCbn(w, &r[0][0]);
                expectNear(&c[0][0], &r[0][0], 9, 1e-15);
            }
            double back[3];
            M::cbn2RotVec(c, back);
            expectNear(back, w, 3, a < 1e-6 ? 1e-22 : 1e-9);
        }
    }
    // Below the prediction's threshold the exponential still turns.
    const double tiny[3] = {0.0, 0.0, 4e-7};
    double c[3][3];
    M::rotVec2Cbn(tiny, c);
    EXPECT_NEAR(c[1][0], 4e-7, 1e-19);
    EXPECT_NEAR(c[0][1], -4e-7, 1e-19);
}

TEST(Attitude, InterpolationFollowsTheShortestTurnAndAnglesStaySmall) {
    // From a tilted base, a turn of 170 degrees about a mixed axis: the
    // point a fraction f along is the base turned by f of it, and its
    // distance from either end adds up to the whole.
    double base[3][3], b[3][3], turn[3][3], w[3] = {0.48 * 2.967, -0.6 * 2.967, 0.64 * 2.967};
    const double e[3] = {0.2, -0.4, 1.1};
    M::euler2Cbn(e, base);
    M::rotVec2Cbn(w, turn);
    M::matrixMult(3, 3, 3, &base[0][0], &turn[0][0], &b[0][0]);
    EXPECT_NEAR(M::angleBetween(base, b), 2.967, 1e-12);
    EXPECT_NEAR(M::angleBetween(b, base), 2.967, 1e-12);
    for (double f : {0.0, 0.25, 0.5, 1.0}) {
        double mid[3][3], part[3][3], want[3][3];
        const double wf[3] = {w[0] * f, w[1] * f, w[2] * f};
        M::interpolateCbn(base, b, f, mid);
        M::rotVec2Cbn(wf, part);
        M::matrixMult(3, 3, 3, &base[0][0], &part[0][0], &want[0][0]);
        expectNear(&mid[0][0], &want[0][0], 9, 1e-12);
        EXPECT_NEAR(M::angleBetween(base, mid) + M::angleBetween(mid, b), 2.967, 1e-12) << f;
    }
    // Attitudes a microradian apart, as the prediction error sees them:
    // acos of the trace would give 0 or some 1e-8 of noise here.
    const double step[3] = {0.0, 1e-6, 0.0};
    double near[3][3];
    M::rotVec2Cbn(step, turn);
    M::matrixMult(3, 3, 3, &base[0][0], &turn[0][0], &near[0][0]);
    EXPECT_NEAR(M::angleBetween(base, near), 1e-6, 1e-12);
    EXPECT_EQ(M::angleBetween(base, base), 0.0);
}

// The image reduction offered to applications: its rounding and its walk
// through the source.
TEST(Downsample, RoundsHalvesUpAndWalksTwoRowsPerOutputRow) {
    // Blocks summing to 140, 220, 1, 2, 3 and 1020: the means 35 and 55,
    // a quarter rounds down, a half and three quarters round up, 255 stays.
    unsigned char src[] = {10, 20, 30, 40, 1, 0, 1, 1, 1, 1, 255, 255,  //
                           50, 60, 70, 80, 0, 0, 0, 0, 1, 0, 255, 255};
    unsigned char dst[7] = {0, 0, 0, 0, 0, 0, 0xEE};
    OrvosiMath::DownsampleImage(12, 2, src, 6, 1, dst);
    EXPECT_EQ(std::vector<int>(dst, dst + 7), (std::vector<int>{35, 55, 0, 1, 1, 255, 0xEE}));

    // Each output row comes from its own two source rows.
    unsigned char square[] = {0, 0, 4, 4, 0, 0, 4, 4, 8, 8, 12, 12, 8, 8, 12, 12}, quarter[4] = {};
    OrvosiMath::DownsampleImage(4, 4, square, 2, 2, quarter);
    EXPECT_EQ(std::vector<int>(quarter, quarter + 4), (std::vector<int>{0, 4, 8, 12}));
}
