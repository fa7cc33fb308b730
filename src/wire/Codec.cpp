#include "wire/Codec.hpp"

unsigned int OrvwireCodec::word16(const unsigned char* p, unsigned short* out) {
    *out = word16(p);
    return 2;
}
unsigned int OrvwireCodec::word24(const unsigned char* p, unsigned int* out) {
    *out = word24(p);
    return 3;
}
unsigned int OrvwireCodec::word32(const unsigned char* p, unsigned int* out) {
    *out = word32(p);
    return 4;
}
unsigned int OrvwireCodec::word64(const unsigned char* p, unsigned long* out) {
    *out = word64(p);
    return 8;
}
unsigned int OrvwireCodec::float32(const unsigned char* p, float* out) {
    *out = float32(p);
    return 4;
}
unsigned int OrvwireCodec::float64(const unsigned char* p, double* out) {
    *out = float64(p);
    return 8;
}

unsigned int OrvwireCodec::float32v3(const unsigned char* p, float* out) {
    for (int i = 0; i < 3; ++i) out[i] = float32(p + 4 * i);
    return 12;
}

unsigned int OrvwireCodec::lendian(unsigned char* buf, unsigned long value, unsigned int n) {
    std::memset(buf, 0, n);
    const unsigned int filled = n < 8 ? n : 8;
    for (unsigned int i = 0; i < filled; ++i) buf[i] = static_cast<unsigned char>(value >> (8 * i));
    return filled;
}

unsigned int OrvwireCodec::lendianFloat32(unsigned char* buf, float value) {
    unsigned int bits;
    std::memcpy(&bits, &value, sizeof bits);
    return lendian(buf, bits, 4);
}

unsigned int OrvwireCodec::lendianFloat64(unsigned char* buf, double value) {
    unsigned long bits;
    std::memcpy(&bits, &value, sizeof bits);
    return lendian(buf, bits, 8);
}

// Sums 32 wrapping byte lanes side by side and folds them at the end: a loop
// of fixed length over independent lanes is what g++ -O2 turns into vector
// byte adds (a plain byte loop stays scalar, one byte per cycle). Addition
// modulo 256 does not care about the order, so the result is the plain sum.
unsigned char OrvwireCodec::checksum(const unsigned char* buf, unsigned long len) {
    constexpr unsigned long kLanes = 32;
    unsigned char lane[kLanes] = {};
    unsigned long i = 0;
    for (; i + kLanes <= len; i += kLanes)
        for (unsigned long j = 0; j < kLanes; ++j) lane[j] = static_cast<unsigned char>(lane[j] + buf[i + j]);
    unsigned char sum = 0;
    for (; i < len; ++i) sum = static_cast<unsigned char>(sum + buf[i]);
    for (unsigned char l : lane) sum = static_cast<unsigned char>(sum + l);
    return sum;
}
