// Bounded little-endian cursors over a packet buffer. The reader never
// steps outside the bytes it was given: a read that would leave them yields
// 0 and marks the cursor failed, so a parser checks ok() once at the end
// instead of checking every field. The writer does the same for building
// outgoing packets and seals them with the checksum byte.
#pragma once

#include <cstddef>
#include <cstring>

#include "osi/OrvosiUtil.hpp"

class OrvosiReader {
public:
    OrvosiReader(const unsigned char* data, size_t size) : data_(data), size_(size) {}

    bool ok() const { return ok_; }
    size_t pos() const { return pos_; }
    size_t size() const { return size_; }
    size_t remaining() const { return size_ - pos_; }
    bool has(size_t n) const { return n <= size_ - pos_; }
    // Moves to an absolute offset; an offset past the end fails the cursor.
    bool seek(size_t offset) {
        if (offset > size_) return fail();
        pos_ = offset;
        return true;
    }
    bool skip(size_t n) {
        if (!has(n)) return fail();
        pos_ += n;
        return true;
    }
    // Pointer to the next n bytes, or null (and failed) when they are not there.
    const unsigned char* take(size_t n) {
        if (!has(n)) {
            fail();
            return nullptr;
        }
        const unsigned char* p = data_ + pos_;
        pos_ += n;
        return p;
    }

    unsigned char u8() {
        const unsigned char* p = take(1);
        return p ? *p : 0;
    }
    unsigned short u16() {
        const unsigned char* p = take(2);
        return p ? OrvosiUtil::word16(p) : 0;
    }
    unsigned int u24() {
        const unsigned char* p = take(3);
        return p ? OrvosiUtil::word24(p) : 0;
    }
    unsigned int u32() {
        const unsigned char* p = take(4);
        return p ? OrvosiUtil::word32(p) : 0;
    }
    unsigned long u64() {
        const unsigned char* p = take(8);
        return p ? OrvosiUtil::word64(p) : 0;
    }
    float f32() {
        const unsigned char* p = take(4);
        return p ? OrvosiUtil::float32(p) : 0.0f;
    }
    double f64() {
        const unsigned char* p = take(8);
        return p ? OrvosiUtil::float64(p) : 0.0;
    }
    // n singles into out; out is left zero-filled when they are not all there.
    void f32s(float* out, size_t n) {
        const unsigned char* p = take(4 * n);
        for (size_t i = 0; i < n; ++i) out[i] = p ? OrvosiUtil::float32(p + 4 * i) : 0.0f;
    }

private:
    bool fail() {
        ok_ = false;
        return false;
    }

    const unsigned char* data_;
    size_t size_;
    size_t pos_ = 0;
    bool ok_ = true;
};

class OrvosiWriter {
public:
    OrvosiWriter(unsigned char* data, size_t capacity) : data_(data), capacity_(capacity) {}

    bool ok() const { return ok_; }
    size_t pos() const { return pos_; }
    const unsigned char* data() const { return data_; }

    void u8(unsigned char v) {
        if (unsigned char* p = room(1)) *p = v;
    }
    void u16(unsigned long v) { put(v, 2); }
    void u24(unsigned long v) { put(v, 3); }
    void u32(unsigned long v) { put(v, 4); }
    void u64(unsigned long v) { put(v, 8); }
    void f32(float v) {
        if (unsigned char* p = room(4)) OrvosiUtil::lendianFloat32(p, v);
    }
    void f64(double v) {
        if (unsigned char* p = room(8)) OrvosiUtil::lendianFloat64(p, v);
    }
    void bytes(const void* src, size_t n) {
        if (n == 0) return;  // src may be null then
        if (unsigned char* p = room(n)) std::memcpy(p, src, n);
    }
    void zeros(size_t n) {
        if (unsigned char* p = room(n)) std::memset(p, 0, n);
    }
    // Writes a 16-bit value at an earlier offset (a length field filled in last).
    void patch16(size_t offset, unsigned long v) {
        if (offset + 2 > pos_) {
            ok_ = false;
            return;
        }
        OrvosiUtil::lendian(data_ + offset, v, 2);
    }
    // Appends the byte that makes the 8-bit sum of everything written zero.
    void seal() {
        const unsigned char sum = OrvosiUtil::checksum(data_, pos_);
        u8(static_cast<unsigned char>(-sum));
    }

private:
    unsigned char* room(size_t n) {
        if (!ok_ || n > capacity_ - pos_) {
            ok_ = false;
            return nullptr;
        }
        unsigned char* p = data_ + pos_;
        pos_ += n;
        return p;
    }
    void put(unsigned long v, unsigned int n) {
        if (unsigned char* p = room(n)) OrvosiUtil::lendian(p, v, n);
    }

    unsigned char* data_;
    size_t capacity_;
    size_t pos_ = 0;
    bool ok_ = true;
};
