// Dense-matrix and attitude routines of the pose output. Every intermediate
// is a fixed-size local array: nothing here allocates or keeps state.
#include "math/OrvosiMath.hpp"

#include <cmath>

namespace {

// Element count of an n x m matrix, 0 when either size is below 1; computed
// wide so that large sizes cannot overflow an int.
long long elements(int n, int m) {
    if (n < 1 || m < 1) return 0;
    return static_cast<long long>(n) * m;
}

// Twice the axial vector of the antisymmetric part: 2 sin(angle) * axis.
void vee2(const double r[3][3], double v[3]) {
    v[0] = r[2][1] - r[1][2];
    v[1] = r[0][2] - r[2][0];
    v[2] = r[1][0] - r[0][1];
}

double cosAngle(const double r[3][3]) {
    const double c = (r[0][0] + r[1][1] + r[2][2] - 1.0) / 2.0;
    return c > 1.0 ? 1.0 : (c < -1.0 ? -1.0 : c);
}

// transpose(a) * b: the turn from a to b in a's body axes.
void relative(const double a[3][3], const double b[3][3], double out[3][3]) {
    double at[3][3];
    OrvosiMath::matrixTrans(3, 3, a[0], at[0]);
    OrvosiMath::matrixMult(3, 3, 3, at[0], b[0], out[0]);
}

constexpr double kPi = 3.14159265358979323846;

}  // namespace

void OrvosiMath::matrixScale(int n, int m, const double* a, double s, double* out) {
    const long long count = elements(n, m);
    for (long long k = 0; k < count; ++k) out[k] = a[k] * s;
}

void OrvosiMath::matrixAdd(int n, int m, const double* a, const double* b, double* out) {
    const long long count = elements(n, m);
    for (long long k = 0; k < count; ++k) out[k] = a[k] + b[k];
}

void OrvosiMath::matrixCopy(int n, int m, const double* a, double* out) {
    const long long count = elements(n, m);
    for (long long k = 0; k < count; ++k) out[k] = a[k];
}

void OrvosiMath::matrixMult(int n, int m, int p, const double* a, const double* b, double* out) {
    if (n < 1) return;
    for (long long i = 0; i < n; ++i) {
        for (long long j = 0; j < p; ++j) {
            double sum = 0.0;
            for (long long k = 0; k < m; ++k) sum += a[i * m + k] * b[k * p + j];
            out[i * p + j] = sum;
        }
    }
}

void OrvosiMath::matrixMultTrans(int n, int m, int p, const double* a, const double* b, double* out) {
    if (n < 1) return;
    for (long long i = 0; i < n; ++i) {
        for (long long j = 0; j < p; ++j) {
            double sum = 0.0;
            for (long long k = 0; k < m; ++k) sum += a[i * m + k] * b[j * m + k];
            out[i * p + j] = sum;
        }
    }
}

void OrvosiMath::matrixTrans(int n, int m, const double* a, double* out) {
    if (n < 1) return;
    for (long long i = 0; i < n; ++i)
        for (long long j = 0; j < m; ++j) out[j * n + i] = a[i * m + j];
}

double OrvosiMath::vectorLen2(const double* v) { return v[0] * v[0] + v[1] * v[1] + v[2] * v[2]; }

void OrvosiMath::euler2Cbn(const double* euler, double cbn[3][3]) {
    const double sr = std::sin(euler[0]), cr = std::cos(euler[0]);
    const double sp = std::sin(euler[1]), cp = std::cos(euler[1]);
    const double sy = std::sin(euler[2]), cy = std::cos(euler[2]);
    cbn[0][0] = cy * cp;
    cbn[0][1] = cy * sp * sr - sy * cr;
    cbn[0][2] = cy * sp * cr + sy * sr;
    cbn[1][0] = sy * cp;
    cbn[1][1] = sy * sp * sr + cy * cr;
    cbn[1][2] = sy * sp * cr - cy * sr;
    cbn[2][0] = -sp;
    cbn[2][1] = cp * sr;
    cbn[2][2] = cp * cr;
}

void OrvosiMath::cbn2Quat(const double cbn[3][3], double q[4]) {
    // Shepperd's method: start from the largest of w, x, y, z so that the
    // division is by the largest of the four roots, never by a small one.
    const double m00 = cbn[0][0], m11 = cbn[1][1], m22 = cbn[2][2];
    const double trace = m00 + m11 + m22;
    double x, y, z, w;
    if (trace > 0.0) {
        const double s = 2.0 * std::sqrt(1.0 + trace);
        w = 0.25 * s;
        x = (cbn[2][1] - cbn[1][2]) / s;
        y = (cbn[0][2] - cbn[2][0]) / s;
        z = (cbn[1][0] - cbn[0][1]) / s;
    } else if (m00 > m11 && m00 > m22) {
        const double s = 2.0 * std::sqrt(1.0 + m00 - m11 - m22);
        w = (cbn[2][1] - cbn[1][2]) / s;
        x = 0.25 * s;
        y = (cbn[0][1] + cbn[1][0]) / s;
        z = (cbn[0][2] + cbn[2][0]) / s;
    } else if (m11 > m22) {
        const double s = 2.0 * std::sqrt(1.0 + m11 - m00 - m22);
        w = (cbn[0][2] - cbn[2][0]) / s;
        x = (cbn[0][1] + cbn[1][0]) / s;
        y = 0.25 * s;
        z = (cbn[1][2] + cbn[2][1]) / s;
    } else {
        const double s = 2.0 * std::sqrt(1.0 + m22 - m00 - m11);
        w = (cbn[1][0] - cbn[0][1]) / s;
        x = (cbn[0][2] + cbn[2][0]) / s;
        y = (cbn[1][2] + cbn[2][1]) / s;
        z = 0.25 * s;
    }
    const double n = std::sqrt(w * w + x * x + y * y + z * z);
    const double sign = w < 0.0 ? -1.0 : 1.0;
    if (n > 0.0 && std::isfinite(n)) {
        x *= sign / n;
        y *= sign / n;
        z *= sign / n;
        w *= sign / n;
    }
    q[0] = x;
    q[1] = y;
    q[2] = z;
    q[3] = w;
}

void OrvosiMath::quat2Cbn(const double q[4], double cbn[3][3]) {
    const double n2 = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3];
    // 2 / |q|^2 scales a quaternion of any length to its rotation.
    const double s = n2 > 0.0 ? 2.0 / n2 : 0.0;
    const double x = q[0], y = q[1], z = q[2], w = q[3];
    cbn[0][0] = 1.0 - s * (y * y + z * z);
    cbn[0][1] = s * (x * y - z * w);
    cbn[0][2] = s * (x * z + y * w);
    cbn[1][0] = s * (x * y + z * w);
    cbn[1][1] = 1.0 - s * (x * x + z * z);
    cbn[1][2] = s * (y * z - x * w);
    cbn[2][0] = s * (x * z - y * w);
    cbn[2][1] = s * (y * z + x * w);
    cbn[2][2] = 1.0 - s * (x * x + y * y);
}

void OrvosiMath::cbn2Euler(const double cbn[3][3], double* euler) {
    double s = cbn[2][0];
    if (s > 1.0) s = 1.0;
    if (s < -1.0) s = -1.0;
    euler[0] = std::atan2(cbn[2][1], cbn[2][2]);
    euler[1] = -std::asin(s);
    euler[2] = std::atan2(cbn[1][0], cbn[0][0]);
}

void OrvosiMath::cbn2RotVec(const double cbn[3][3], double rotVec[3]) {
    double v[3];
    vee2(cbn, v);
    const double s = std::sqrt(vectorLen2(v)) / 2.0;  // sin(angle)
    const double angle = std::atan2(s, cosAngle(cbn));
    if (angle < 1e-9) {
        for (int i = 0; i < 3; ++i) rotVec[i] = v[i] / 2.0;
        return;
    }
    if (angle < kPi - 1e-2) {
        const double k = angle / (2.0 * s);
        for (int i = 0; i < 3; ++i) rotVec[i] = v[i] * k;
        return;
    }
    // Near a half turn sin(angle) carries no axis; the symmetric part
    // (R + R^T)/2 - cos(angle) I = (1 - cos(angle)) n n^T does.
    const double c = std::cos(angle);
    const int k = (cbn[0][0] >= cbn[1][1] && cbn[0][0] >= cbn[2][2]) ? 0 : (cbn[1][1] >= cbn[2][2] ? 1 : 2);
    double n[3];
    for (int i = 0; i < 3; ++i) n[i] = (cbn[i][k] + cbn[k][i]) / 2.0 - (i == k ? c : 0.0);
    const double len = std::sqrt(vectorLen2(n));
    const double sign = (v[0] * n[0] + v[1] * n[1] + v[2] * n[2]) < 0.0 ? -1.0 : 1.0;
    for (int i = 0; i < 3; ++i) rotVec[i] = n[i] / len * angle * sign;
}

void OrvosiMath::rotVec2Cbn(const double rotVec[3], double cbn[3][3]) {
    const double w0 = rotVec[0], w1 = rotVec[1], w2 = rotVec[2];
    const double angle = std::sqrt(vectorLen2(rotVec));
    if (angle < 1e-12) {
        // First order: the second-order terms are below the rounding of 1.
        const double first[3][3] = {{1.0, -w2, w1}, {w2, 1.0, -w0}, {-w1, w0, 1.0}};
        matrixCopy(3, 3, first[0], cbn[0]);
        return;
    }
    const double x = w0 / angle, y = w1 / angle, z = w2 / angle;
    const double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
    cbn[0][0] = t * x * x + c;
    cbn[0][1] = t * x * y - s * z;
    cbn[0][2] = t * x * z + s * y;
    cbn[1][0] = t * x * y + s * z;
    cbn[1][1] = t * y * y + c;
    cbn[1][2] = t * y * z - s * x;
    cbn[2][0] = t * x * z - s * y;
    cbn[2][1] = t * y * z + s * x;
    cbn[2][2] = t * z * z + c;
}

void OrvosiMath::interpolateCbn(const double a[3][3], const double b[3][3], double f, double out[3][3]) {
    double d[3][3], w[3], step[3][3];
    relative(a, b, d);
    cbn2RotVec(d, w);
    matrixScale(3, 1, w, f, w);
    rotVec2Cbn(w, step);
    matrixMult(3, 3, 3, a[0], step[0], out[0]);
}

double OrvosiMath::angleBetween(const double a[3][3], const double b[3][3]) {
    // atan2 of sine and cosine instead of acos of the cosine alone: acos
    // near 1 turns the rounding of float attitudes into hundredths of a
    // degree.
    double d[3][3], v[3];
    relative(a, b, d);
    vee2(d, v);
    return std::atan2(std::sqrt(vectorLen2(v)) / 2.0, cosAngle(d));
}

// Rodrigues: R = I + sin(t)/t * K + (1 - cos(t))/t^2 * K^2 with K the skew
// matrix of the rotation vector, K^2 formed as w*w' - |w|^2 * I.
void OrvosiMath::rotateCbn(const double* rotVec, double* cbn) {
    const double q = vectorLen2(rotVec);
    if (q < 1e-12) return;
    const double theta = std::sqrt(q);
    const double s = std::sin(theta), c = std::cos(theta);
    const double w0 = rotVec[0], w1 = rotVec[1], w2 = rotVec[2];

    const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double k[9] = {0, -w2, w1, w2, 0, -w0, -w1, w0, 0};
    double a[9];
    matrixScale(3, 3, k, s / theta, a);
    matrixAdd(3, 3, identity, a, a);

    double k2[9], qi[9];
    matrixMultTrans(3, 1, 3, rotVec, rotVec, k2);
    matrixScale(3, 3, identity, -q, qi);
    matrixAdd(3, 3, k2, qi, k2);

    double r[9];
    matrixScale(3, 3, k2, (1.0 - c) / q, r);
    matrixAdd(3, 3, a, r, r);

    double rotated[9];
    matrixMult(3, 3, 3, cbn, r, rotated);
    matrixCopy(3, 3, rotated, cbn);
}

void OrvosiMath::predictCbn(double dt, const double* rate, double cbn[3][3]) {
    double rotVec[3];
    matrixScale(3, 1, rate, dt, rotVec);
    rotateCbn(rotVec, cbn[0]);
}

void OrvosiMath::predictPos(double dt, const double* vel, double* pos) {
    for (int i = 0; i < 3; ++i) pos[i] = pos[i] + vel[i] * dt;
}

// The diagonal test, not the determinant, decides: the formulas below divide
// by a and d, and a zero there is refused even for a regular matrix.
bool OrvosiMath::matrixInvert2x2(const double* m, double* out) {
    const double a = m[0], b = m[1], c = m[2], d = m[3];
    if (a == 0.0 || d == 0.0) return false;
    const double bc = b * c;
    const double i0 = 1.0 / (a - bc / d);
    const double i3 = 1.0 / (d - bc / a);
    out[0] = i0;
    out[3] = i3;
    out[1] = -b * i3 / a;
    out[2] = -c * i0 / d;
    return true;
}

// Partition (A B; C D) with A the top-left 2x2 and D = m[8]. The inverse is
// (S^-1, -A^-1*B*e^-1; -D^-1*C*S^-1, e^-1) with S = A - B*C/D and
// e = D - C*A^-1*B.
bool OrvosiMath::matrixInvert3x3(const double* m, double* out) {
    const double d = m[8];
    if (d == 0.0) return false;
    const double a[4] = {m[0], m[1], m[3], m[4]};
    const double b[2] = {m[2], m[5]};
    const double c[2] = {m[6], m[7]};

    double bc[4], s[4];
    matrixMult(2, 1, 2, b, c, bc);
    matrixScale(2, 2, bc, -1.0 / d, bc);
    matrixAdd(2, 2, a, bc, s);

    double sInv[4], aInv[4];
    if (!matrixInvert2x2(s, sInv)) return false;
    if (!matrixInvert2x2(a, aInv)) return false;

    double aInvB[2], cAInvB;
    matrixMult(2, 2, 1, aInv, b, aInvB);
    matrixMult(1, 2, 1, c, aInvB, &cAInvB);
    const double e = d - cAInvB;
    if (e == 0.0) return false;
    const double t = 1.0 / e;

    double topRight[2], cSInv[2];
    matrixScale(2, 1, aInvB, -t, topRight);
    matrixMult(1, 2, 2, c, sInv, cSInv);

    out[0] = sInv[0];
    out[1] = sInv[1];
    out[2] = topRight[0];
    out[3] = sInv[2];
    out[4] = sInv[3];
    out[5] = topRight[1];
    out[6] = -cSInv[0] / d;
    out[7] = -cSInv[1] / d;
    out[8] = t;
    return true;
}

// Roll and pitch bring the field into the level frame; the heading is the
// angle of its horizontal part.
double OrvosiMath::YawfromMags(const double* mag, double roll, double pitch) {
    const double sr = std::sin(roll), cr = std::cos(roll);
    const double sp = std::sin(pitch), cp = std::cos(pitch);
    const double xh = mag[0] * cp + mag[1] * sp * sr + mag[2] * sp * cr;
    const double yn = mag[2] * sr - mag[1] * cr;
    return std::atan2(yn, xh);
}
