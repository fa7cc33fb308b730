// Bounded little-endian cursors over a packet buffer. The reader never
// steps outside the bytes it was given: a read that would leave them yields
// 0 and marks the cursor failed, so a parser checks ok() once at the end
// instead of checking every field. The writer does the same for building
// outgoing packets and seals them with the checksum byte.
#pragma once

#include <cstddef>
#include <cstring>

#include "wire/Codec.hpp"

// A received packet, or a part of one, as its parser sees it: `size` real
// bytes at `data`, followed by zeros up to `reach`. A packet shorter than its
// fixed fields thus reads as zeros past its end, never as bytes that an
// earlier packet left in the buffer; `reach` bounds what counts on the wire
// may ask for. Nothing at or beyond data + size is ever touched.
struct OrvosiBytes {
    const unsigned char* data;
    size_t size;
    size_t reach;  // at least size

    unsigned char at(size_t i) const { return i < size ? data[i] : 0; }
    // The part from `offset` on; nothing real is left of it past the end.
    OrvosiBytes from(size_t offset) const {
        if (offset >= size) return {data + size, 0, offset < reach ? reach - offset : 0};
        return {data + offset, size - offset, reach - offset};
    }
};

class OrvosiReader {
public:
    OrvosiReader(const unsigned char* data, size_t size) : data_(data), size_(size), reach_(size) {}
    // Over a received packet: reads past its real bytes yield zeros and only
    // reads past its reach fail the cursor.
    explicit OrvosiReader(const OrvosiBytes& bytes)
        : data_(bytes.data), size_(bytes.size), reach_(bytes.reach) {}

    bool ok() const { return ok_; }
    size_t pos() const { return pos_; }
    size_t size() const { return reach_; }
    size_t remaining() const { return reach_ - pos_; }
    bool has(size_t n) const { return n <= reach_ - pos_; }
    // Moves to an absolute offset; an offset past the reach fails the cursor.
    bool seek(size_t offset) {
        if (offset > reach_) return fail();
        pos_ = offset;
        return true;
    }
    bool skip(size_t n) {
        if (!has(n)) return fail();
        pos_ += n;
        return true;
    }
    // Pointer to the next n real bytes, or null (and failed) when they are not there.
    const unsigned char* take(size_t n) {
        if (pos_ > size_ || n > size_ - pos_) {
            fail();
            return nullptr;
        }
        const unsigned char* p = data_ + pos_;
        pos_ += n;
        return p;
    }

    unsigned char u8() {
        unsigned char scratch[1];
        const unsigned char* p = next(1, scratch);
        return p ? *p : 0;
    }
    unsigned short u16() {
        unsigned char scratch[2];
        const unsigned char* p = next(2, scratch);
        return p ? OrvwireCodec::word16(p) : 0;
    }
    unsigned int u24() {
        unsigned char scratch[3];
        const unsigned char* p = next(3, scratch);
        return p ? OrvwireCodec::word24(p) : 0;
    }
    unsigned int u32() {
        unsigned char scratch[4];
        const unsigned char* p = next(4, scratch);
        return p ? OrvwireCodec::word32(p) : 0;
    }
    unsigned long u64() {
        unsigned char scratch[8];
        const unsigned char* p = next(8, scratch);
        return p ? OrvwireCodec::word64(p) : 0;
    }
    float f32() {
        unsigned char scratch[4];
        const unsigned char* p = next(4, scratch);
        return p ? OrvwireCodec::float32(p) : 0.0f;
    }
    double f64() {
        unsigned char scratch[8];
        const unsigned char* p = next(8, scratch);
        return p ? OrvwireCodec::float64(p) : 0.0;
    }
    // n singles into out; those past the reach are zero (and fail the cursor).
    void f32s(float* out, size_t n) {
        if (pos_ + 4 * n <= size_) {
            const unsigned char* p = data_ + pos_;
            pos_ += 4 * n;
            for (size_t i = 0; i < n; ++i) out[i] = OrvwireCodec::float32(p + 4 * i);
            return;
        }
        for (size_t i = 0; i < n; ++i) out[i] = f32();
    }

private:
    bool fail() {
        ok_ = false;
        return false;
    }
    // The next n bytes (at most 8): in place while they are real, else the
    // real part followed by zeros in scratch; null (and failed) past the
    // reach. pos_ never passes reach_, a buffer's size, so the sum cannot wrap.
    const unsigned char* next(size_t n, unsigned char* scratch) {
        if (pos_ + n <= size_) {
            const unsigned char* p = data_ + pos_;
            pos_ += n;
            return p;
        }
        if (!padded(data_, size_, reach_, pos_, n, scratch)) {
            fail();
            return nullptr;
        }
        pos_ += n;
        return scratch;
    }
    // The rare path stays out of line and takes the cursor's state by value,
    // so that the cursor never leaves the registers of the parser it is
    // inlined into. False when the n bytes run past the reach.
    [[gnu::noinline, gnu::cold]] static bool padded(const unsigned char* data, size_t size, size_t reach,
                                                    size_t pos, size_t n, unsigned char* scratch) {
        if (n > reach - pos) return false;
        for (size_t i = 0; i < n; ++i) scratch[i] = pos + i < size ? data[pos + i] : 0;
        return true;
    }

    const unsigned char* data_;
    size_t size_;   // real bytes
    size_t reach_;  // real bytes and the zeros after them
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
        if (unsigned char* p = room(4)) OrvwireCodec::lendianFloat32(p, v);
    }
    void f64(double v) {
        if (unsigned char* p = room(8)) OrvwireCodec::lendianFloat64(p, v);
    }
    void bytes(const void* src, size_t n) {
        if (n == 0) return;  // src may be null then
        if (unsigned char* p = room(n)) std::memcpy(p, src, n);
    }
    void zeros(size_t n) {
        if (unsigned char* p = room(n)) std::memset(p, 0, n);
    }
    // Writes a 16-bit value at an earlier offset (a length field filled in last).
    void patch16(size_t offset, unsigned long v) { patch(offset, v, 2); }
    // Writes the low n bytes of v at an earlier offset (a count filled in last).
    void patch(size_t offset, unsigned long v, unsigned int n) {
        if (offset > pos_ || n > pos_ - offset) {
            ok_ = false;
            return;
        }
        OrvwireCodec::lendian(data_ + offset, v, n);
    }
    // Appends the byte that makes the 8-bit sum of everything written zero.
    void seal() {
        const unsigned char sum = OrvwireCodec::checksum(data_, pos_);
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
        if (unsigned char* p = room(n)) OrvwireCodec::lendian(p, v, n);
    }

    unsigned char* data_;
    size_t capacity_;
    size_t pos_ = 0;
    bool ok_ = true;
};
