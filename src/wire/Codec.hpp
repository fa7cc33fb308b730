// The byte codec every packet reader and writer goes through: little-endian,
// independent of the host's order, and the 8-bit checksum that seals packets.
#pragma once

#include <cstring>

struct OrvwireCodec {
    // The decoders never check bounds: the caller guarantees the bytes exist
    // (OrvosiReader in OrvosiCursor.hpp is the bounded way to use them).
    // Defined here so that the parsers' dozens of reads per packet inline.
    static unsigned short word16(const unsigned char* p) {
        return static_cast<unsigned short>(p[0] | (p[1] << 8));
    }
    static unsigned int word24(const unsigned char* p) {
        return static_cast<unsigned int>(p[0]) | (static_cast<unsigned int>(word16(p + 1)) << 8);
    }
    static unsigned int word32(const unsigned char* p) {
        return static_cast<unsigned int>(word16(p)) | (static_cast<unsigned int>(word16(p + 2)) << 16);
    }
    static unsigned long word64(const unsigned char* p) {
        return static_cast<unsigned long>(word32(p)) | (static_cast<unsigned long>(word32(p + 4)) << 32);
    }
    static float float32(const unsigned char* p) {
        const unsigned int bits = word32(p);
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
    static double float64(const unsigned char* p) {
        const unsigned long bits = word64(p);
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // Out-parameter twins: store the value, return the bytes consumed.
    static unsigned int word16(const unsigned char* p, unsigned short* out);
    static unsigned int word24(const unsigned char* p, unsigned int* out);
    static unsigned int word32(const unsigned char* p, unsigned int* out);
    static unsigned int word64(const unsigned char* p, unsigned long* out);
    static unsigned int float32(const unsigned char* p, float* out);
    static unsigned int float64(const unsigned char* p, double* out);
    // Three consecutive singles, x then y then z: 12 bytes.
    static unsigned int float32v3(const unsigned char* p, float* out);

    // Clears n bytes of buf, then writes the low min(n, 8) bytes of value,
    // least significant first. Returns min(n, 8), not n.
    static unsigned int lendian(unsigned char* buf, unsigned long value, unsigned int n);
    static unsigned int lendianFloat32(unsigned char* buf, float value);
    static unsigned int lendianFloat64(unsigned char* buf, double value);

    // 8-bit sum of buf[0 .. len-1]; a sealed packet sums to 0.
    static unsigned char checksum(const unsigned char* buf, unsigned long len);
    // The library is built for little-endian hosts only.
    static bool IsLittleEndian() { return true; }
};
