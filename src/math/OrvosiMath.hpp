// OrvosiMath: small numeric helpers of the library, all static and free of
// heap allocation. Matrices are flat row-major arrays with their sizes passed
// as arguments: element (i, j) of an n x m matrix is at index i*m + j, and a
// vector of 3 is a 3 x 1 matrix.
//
// Attitude: Euler angles are roll, pitch, yaw in radians; a direction cosine
// matrix (cbn) turns body axes into navigation axes and is built as
// Rz(yaw) * Ry(pitch) * Rx(roll).
#pragma once

#include "orvaccess/orvaccess_export.h"

class OrvosiMath {
public:
    OrvosiMath() = delete;

    // Element-wise operations; nothing happens when n*m is below 1. The
    // output may be one of the inputs.
    static void matrixScale(int n, int m, const double* a, double s, double* out);
    static void matrixAdd(int n, int m, const double* a, const double* b, double* out);
    static void matrixCopy(int n, int m, const double* a, double* out);

    // Products and transposition; nothing happens when n is below 1, and an
    // inner size m below 1 yields zeros. The output must not overlap an input.
    // out (n x p) = a (n x m) * b (m x p)
    static void matrixMult(int n, int m, int p, const double* a, const double* b, double* out);
    // out (n x p) = a (n x m) * transpose(b), b being p x m
    static void matrixMultTrans(int n, int m, int p, const double* a, const double* b, double* out);
    // out (m x n) = transpose(a (n x m))
    static void matrixTrans(int n, int m, const double* a, double* out);

    // Squared length of a 3-vector (not its root).
    static double vectorLen2(const double* v);

    static void euler2Cbn(const double* euler, double cbn[3][3]);
    // Roll and yaw from atan2, pitch from asin of the clamped c[6]: pitch
    // stays finite even when rounding pushes |c[6]| past 1.
    static void cbn2Euler(const double cbn[3][3], double* euler);

    // The unit quaternion (x, y, z, w) of a rotation matrix, with w >= 0 so
    // that one attitude always gives the same four numbers; a nearly
    // orthonormal matrix (a float one widened) is normalised on the way.
    static void cbn2Quat(const double cbn[3][3], double q[4]);
    // The rotation matrix of a quaternion (x, y, z, w); q need not be unit
    // length, a zero one gives the identity.
    static void quat2Cbn(const double q[4], double cbn[3][3]);

    // The rotation vector (axis times angle, angle in 0 ... pi) of a
    // rotation matrix, exact also near a half turn, and back: rotVec2Cbn is
    // the exact rotation at every angle (rotateCbn leaves the smallest
    // out).
    static void cbn2RotVec(const double cbn[3][3], double rotVec[3]);
    static void rotVec2Cbn(const double rotVec[3], double cbn[3][3]);
    // The attitude a fraction f of the way along the shortest turn from a to
    // b: a * exp(f * log(transpose(a) * b)); f = 0 gives a, f = 1 gives b.
    static void interpolateCbn(const double a[3][3], const double b[3][3], double f, double out[3][3]);
    // The angle (rad, 0 ... pi) of the turn from a to b; accurate down to
    // the smallest angles, where the rounding of float attitudes lives.
    static double angleBetween(const double a[3][3], const double b[3][3]);

    // cbn = cbn * R(rotVec), R the rotation by |rotVec| about rotVec (body
    // axes). Angles below 1e-6 rad leave cbn untouched.
    static void rotateCbn(const double* rotVec, double* cbn);
    // Constant-rate extrapolation over dt seconds (negative dt goes back).
    static void predictCbn(double dt, const double* rate, double cbn[3][3]);
    static void predictPos(double dt, const double* vel, double* pos);

    // Inverses that refuse (false, out untouched) a zero on the diagonal the
    // elimination divides by, even where the matrix is regular; a singular
    // matrix with a non-zero diagonal is not detected.
    static bool matrixInvert2x2(const double* a, double* out);
    // Block elimination about a[8]; out is written only on success, so it
    // may be the input.
    static bool matrixInvert3x3(const double* a, double* out);

    // Tilt-compensated magnetic heading (rad) from a body-axes field.
    static double YawfromMags(const double* mag, double roll, double pitch);

    // 2x2 box reduction of an 8-bit image: each output byte is the rounded
    // mean (halves up) of a 2x2 source block. Offered to applications.
    ORVACCESS_EXPORT static void DownsampleImage(unsigned int sourceWidth, unsigned int sourceHeight,
                                                 unsigned char* source, unsigned int width,
                                                 unsigned int height, unsigned char* destination);
};
