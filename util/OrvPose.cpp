// The float pose helpers of OrvUtil and the running mean of the clock
// alignment. The public records hold single precision; every computation is
// done in double and only the final result is narrowed, in place.
#include "osi/OrvosiMath.hpp"
#include "util/OrvUtil.hpp"

void OrvUtil::matrixF2D(int n, int m, const float* a, double* out) {
    if (n < 1 || m < 1) return;
    const long long count = static_cast<long long>(n) * m;
    for (long long k = 0; k < count; ++k) out[k] = a[k];
}

void OrvUtil::matrixD2F(int n, int m, const double* a, float* out) {
    if (n < 1 || m < 1) return;
    const long long count = static_cast<long long>(n) * m;
    for (long long k = 0; k < count; ++k) out[k] = static_cast<float>(a[k]);
}

void OrvUtil::euler2Cbn(const float* euler, double cbn[3][3]) {
    double e[3];
    matrixF2D(3, 1, euler, e);
    OrvosiMath::euler2Cbn(e, cbn);
}

void OrvUtil::cbn2Euler(const float cbn[3][3], float* euler) {
    double c[3][3], e[3];
    matrixF2D(3, 3, cbn[0], c[0]);
    OrvosiMath::cbn2Euler(c, e);
    matrixD2F(3, 1, e, euler);
}

void OrvUtil::predictCbn(double dt, const float* rate, float cbn[3][3]) {
    double r[3], c[3][3];
    matrixF2D(3, 1, rate, r);
    matrixF2D(3, 3, cbn[0], c[0]);
    OrvosiMath::predictCbn(dt, r, c);
    matrixD2F(3, 3, c[0], cbn[0]);
}

void OrvUtil::predictPos(double dt, const float* vel, float* pos) {
    double v[3], p[3];
    matrixF2D(3, 1, vel, v);
    matrixF2D(3, 1, pos, p);
    OrvosiMath::predictPos(dt, v, p);
    matrixD2F(3, 1, p, pos);
}

void OrvUtil::boresightM(const double ref[3][3], float cbn[3][3]) {
    double c[9], out[9];
    matrixF2D(3, 3, cbn[0], c);
    OrvosiMath::matrixMultTrans(3, 3, 3, c, ref[0], out);
    matrixD2F(3, 3, out, cbn[0]);
}

void OrvUtil::boresightV(const double ref[3][3], float* v) {
    double in[3], out[3];
    matrixF2D(3, 1, v, in);
    OrvosiMath::matrixMult(3, 3, 1, ref[0], in, out);
    matrixD2F(3, 1, out, v);
}

bool OrvUtil::updateTimeDiff(unsigned int n, unsigned long t, unsigned long tNominal, unsigned long* meanNs) {
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
