// The bounded first-in-first-out queue behind every record kind. When a
// record does not fit, the oldest records are dropped (never the newest),
// one overflow line is printed under verbosity bit 0x2, and no error code is
// raised.
//
// Storage is a ring that grows geometrically up to the bound, so a queue the
// application drains regularly never allocates on the receive path.
#pragma once

#include <cstddef>
#include <memory>

#include "diag/OrvUtil.hpp"

template <typename T>
class RecordQueue {
public:
    // overflowText is printed after "ORVAINFO: "; it must outlive the queue.
    explicit RecordQueue(const char* overflowText) : overflowText_(overflowText) {}

    // A bound of 0 would make room for nothing; it is taken as 1. Keeps the
    // storage already grown, drops records beyond the new bound.
    void setBound(size_t bound) {
        bound_ = bound == 0 ? 1 : bound;
        const size_t initial = bound_ < kInitialCapacity ? bound_ : kInitialCapacity;
        if (capacity_ < initial) reallocate(initial);
        while (count_ > bound_) dropOldest();
    }
    size_t bound() const { return bound_; }

    // Drops the oldest records until `extra` more than the usual one record
    // fit: afterwards size() + extra < bound(). extra = 0 is the ordinary rule
    // (room for one more); a parser that appends a batch of n records with a
    // closing record asks for n + 1 at once. When the bound is too small for
    // the batch the queue is emptied (and append() keeps the batch's newest).
    // A queue filled by two parsers may name the overflow differently for
    // each: `text` replaces the queue's own overflow text for this call.
    void makeRoom(unsigned int verbosity, size_t extra = 0, const char* text = nullptr) {
        if (count_ + extra < bound_) return;
        OrvUtil::infoLine(verbosity, text != nullptr ? text : overflowText_);
        while (count_ > 0 && count_ + extra >= bound_) dropOldest();
    }

    // The ordinary rule: room for one, then append.
    void push(const T& record, unsigned int verbosity, const char* text = nullptr) {
        makeRoom(verbosity, 0, text);
        append(record);
    }

    // Appends after makeRoom() has made room for a batch. A queue never holds
    // more than its bound: should a batch be larger than the bound, the
    // oldest records of the batch go too. Grows the ring while below the bound.
    void append(const T& record) {
        if (count_ >= bound_) dropOldest();
        if (count_ == capacity_) {
            const size_t grown = capacity_ == 0 ? 1 : capacity_ * 2;
            reallocate(grown < bound_ ? grown : bound_);
        }
        data_[(head_ + count_) % capacity_] = record;
        ++count_;
    }

    // Copies the oldest record out and removes it; false when empty.
    bool pop(T* out) {
        if (count_ == 0) return false;
        *out = data_[head_];
        dropOldest();
        return true;
    }

    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    void clear() {
        head_ = 0;
        count_ = 0;
    }

private:
    static constexpr size_t kInitialCapacity = 1024;

    void dropOldest() {
        head_ = (head_ + 1) % capacity_;
        --count_;
    }
    void reallocate(size_t capacity) {
        std::unique_ptr<T[]> next(new T[capacity]);
        for (size_t i = 0; i < count_; ++i) next[i] = data_[(head_ + i) % capacity_];
        data_ = std::move(next);
        capacity_ = capacity;
        head_ = 0;
    }

    const char* overflowText_;
    std::unique_ptr<T[]> data_;
    size_t capacity_ = 0;
    size_t head_ = 0;
    size_t count_ = 0;
    size_t bound_ = 1;
};
