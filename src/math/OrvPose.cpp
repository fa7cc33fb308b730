// The float pose helpers and the adjustment of outgoing tracking records
// built on them, in one unit so that the adjustment inlines the helpers. The
// public records hold single precision; every computation is done in double
// and only the final result is narrowed, in place.
#include "math/OrvPose.hpp"

#include <cstdint>
#include <cstring>

#include "math/OrvosiMath.hpp"

void OrvFloatPose::matrixF2D(int n, int m, const float* a, double* out) {
    if (n < 1 || m < 1) return;
    const long long count = static_cast<long long>(n) * m;
    for (long long k = 0; k < count; ++k) out[k] = a[k];
}

void OrvFloatPose::matrixD2F(int n, int m, const double* a, float* out) {
    if (n < 1 || m < 1) return;
    const long long count = static_cast<long long>(n) * m;
    for (long long k = 0; k < count; ++k) out[k] = static_cast<float>(a[k]);
}

void OrvFloatPose::euler2Cbn(const float* euler, double cbn[3][3]) {
    double e[3];
    matrixF2D(3, 1, euler, e);
    OrvosiMath::euler2Cbn(e, cbn);
}

void OrvFloatPose::cbn2Euler(const float cbn[3][3], float* euler) {
    double c[3][3], e[3];
    matrixF2D(3, 3, cbn[0], c[0]);
    OrvosiMath::cbn2Euler(c, e);
    matrixD2F(3, 1, e, euler);
}

void OrvFloatPose::predictCbn(double dt, const float* rate, float cbn[3][3]) {
    double r[3], c[3][3];
    matrixF2D(3, 1, rate, r);
    matrixF2D(3, 3, cbn[0], c[0]);
    OrvosiMath::predictCbn(dt, r, c);
    matrixD2F(3, 3, c[0], cbn[0]);
}

void OrvFloatPose::predictPos(double dt, const float* vel, float* pos) {
    double v[3], p[3];
    matrixF2D(3, 1, vel, v);
    matrixF2D(3, 1, pos, p);
    OrvosiMath::predictPos(dt, v, p);
    matrixD2F(3, 1, p, pos);
}

void OrvFloatPose::boresightM(const double ref[3][3], float cbn[3][3]) {
    double c[9], out[9];
    matrixF2D(3, 3, cbn[0], c);
    OrvosiMath::matrixMultTrans(3, 3, 3, c, ref[0], out);
    matrixD2F(3, 3, out, cbn[0]);
}

void OrvFloatPose::boresightV(const double ref[3][3], float* v) {
    double in[3], out[3];
    matrixF2D(3, 1, v, in);
    OrvosiMath::matrixMult(3, 3, 1, ref[0], in, out);
    matrixD2F(3, 1, out, v);
}

// The order matters: both attitudes are predicted with the rate as it
// arrived; the lever arm follows the predicted attitude in the tracker's
// frame, which is why the position is not boresight-rotated; the Euler
// angles describe the final attitude.
void OrvPose::adjust(double dt, const double ref[3][3], const double tip[3], s_OrvAccessTrkDataExt* rec) {
    OrvFloatPose::predictCbn(dt, rec->angularRate, rec->cbn);
    OrvFloatPose::predictCbn(dt, rec->angularRate, rec->cbn2);

    double cbn[9], arm[3], position[3];
    OrvFloatPose::matrixF2D(3, 3, rec->cbn[0], cbn);
    OrvosiMath::matrixMult(3, 3, 1, cbn, tip, arm);
    OrvFloatPose::matrixF2D(3, 1, rec->position, position);
    OrvosiMath::matrixAdd(3, 1, position, arm, position);
    OrvFloatPose::matrixD2F(3, 1, position, rec->position);

    OrvFloatPose::boresightM(ref, rec->cbn);
    OrvFloatPose::boresightM(ref, rec->cbn2);
    OrvFloatPose::boresightV(ref, rec->angularRate);
    OrvFloatPose::boresightV(ref, rec->vecJ);
    OrvFloatPose::boresightV(ref, rec->vecA);
    OrvFloatPose::boresightV(ref, rec->vecL);
    OrvFloatPose::boresightV(ref, rec->vecM);

    OrvFloatPose::cbn2Euler(rec->cbn, rec->euler);
}

bool OrvPose::isNeutral(const double ref[3][3], const double tip[3]) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j)
            if (ref[i][j] != (i == j ? 1.0 : 0.0)) return false;
        if (tip[i] != 0.0) return false;
    }
    return true;
}

namespace {

// The 33 values the boresight rotates, gathered into one array padded to a
// multiple of four so that the check and the rounding below vectorize.
class Rotated {
public:
    explicit Rotated(const s_OrvAccessTrkDataExt& rec) {
        std::memcpy(v_ + 0, rec.cbn, sizeof rec.cbn);
        std::memcpy(v_ + 9, rec.cbn2, sizeof rec.cbn2);
        std::memcpy(v_ + 18, rec.angularRate, sizeof rec.angularRate);
        std::memcpy(v_ + 21, rec.vecJ, sizeof rec.vecJ);
        std::memcpy(v_ + 24, rec.vecA, sizeof rec.vecA);
        std::memcpy(v_ + 27, rec.vecL, sizeof rec.vecL);
        std::memcpy(v_ + 30, rec.vecM, sizeof rec.vecM);
    }
    void store(s_OrvAccessTrkDataExt* rec) const {
        std::memcpy(rec->cbn, v_ + 0, sizeof rec->cbn);
        std::memcpy(rec->cbn2, v_ + 9, sizeof rec->cbn2);
        std::memcpy(rec->angularRate, v_ + 18, sizeof rec->angularRate);
        std::memcpy(rec->vecJ, v_ + 21, sizeof rec->vecJ);
        std::memcpy(rec->vecA, v_ + 24, sizeof rec->vecA);
        std::memcpy(rec->vecL, v_ + 27, sizeof rec->vecL);
        std::memcpy(rec->vecM, v_ + 30, sizeof rec->vecM);
    }
    // Whether none is infinite or NaN: an exponent of all ones carries into
    // the sign bit when one is added to it.
    bool finite() const {
        uint32_t bits[kCount], carry = 0;
        std::memcpy(bits, v_, sizeof bits);
        for (int k = 0; k < kCount; ++k) carry |= (bits[k] & 0x7f800000u) + 0x00800000u;
        return (carry & 0x80000000u) == 0;
    }
    void addZero() {
        for (float& x : v_) x += 0.0f;
    }

private:
    static constexpr int kCount = 36;
    float v_[kCount] = {};
};

}  // namespace

// Under neutral parameters each output of adjust() is a sum that starts at
// +0.0: the value itself plus products with exact zeros of the reference or
// the tip. For finite inputs those products are exact zeros, so the sum is
// the value with -0.0 turned into +0.0; an infinite or NaN input would make
// them NaN, hence the fallback. A dt of 0 leaves the attitudes as they were.
bool OrvPose::adjustNeutral(s_OrvAccessTrkDataExt* rec) {
    Rotated rotated(*rec);
    if (!rotated.finite()) return false;
    rotated.addZero();
    rotated.store(rec);
    // The lever arm is then +0.0 whatever the position holds; adding it in
    // double as the full path does quiets a signalling NaN the same way.
    for (float& p : rec->position) p = static_cast<float>(static_cast<double>(p) + 0.0);
    OrvFloatPose::cbn2Euler(rec->cbn, rec->euler);
    return true;
}
