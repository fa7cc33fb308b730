// The pose feed's publication: one writer (whoever holds the feed's lock)
// and any number of readers that never lock, never wait for the writer and
// never make a system call.
//
// Four copies, each guarded by its own sequence word, and the index of the
// newest. The writer fills the copy after the newest, then names it; a
// reader copies the named one and checks that its sequence word did not
// move. It retries only when the writer came round to that very copy while
// it read, three publications later. Every byte is an atomic word, stored
// with release and loaded with acquire (plain moves on x86), so that the
// copy is correct under the C++ memory model without standalone fences,
// which the thread sanitizer cannot follow: a reader that loads a word of a
// later publication also sees that publication's odd sequence word, and so
// retries.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

template <typename T>
class FeedRing {
    static_assert(std::is_trivially_copyable<T>::value, "the published value is copied as words");
    static_assert(sizeof(T) % sizeof(uint64_t) == 0, "the published value is whole words");
    static constexpr size_t kWords = sizeof(T) / sizeof(uint64_t);
    static constexpr uint32_t kCopies = 4;

public:
    // Single writer at a time (the caller serialises writers).
    void publish(const T& value) noexcept {
        const uint32_t next = (newest_.load(std::memory_order_relaxed) + 1) % kCopies;
        Copy& c = copies_[next];
        uint64_t words[kWords];
        std::memcpy(words, &value, sizeof words);
        const uint64_t seq = c.seq.load(std::memory_order_relaxed);
        c.seq.store(seq + 1, std::memory_order_relaxed);  // odd: being written
        for (size_t i = 0; i < kWords; ++i) c.words[i].store(words[i], std::memory_order_release);
        c.seq.store(seq + 2, std::memory_order_release);
        newest_.store(next, std::memory_order_release);
    }

    // Any thread. Returns false (and a zero-filled value) before the first
    // publication.
    bool read(T* out) const noexcept {
        uint64_t words[kWords];
        for (;;) {
            const Copy& c = copies_[newest_.load(std::memory_order_acquire)];
            const uint64_t before = c.seq.load(std::memory_order_acquire);
            if (before & 1) continue;
            for (size_t i = 0; i < kWords; ++i) words[i] = c.words[i].load(std::memory_order_acquire);
            if (c.seq.load(std::memory_order_relaxed) != before) continue;
            std::memcpy(out, words, sizeof words);
            return before != 0;
        }
    }

private:
    struct alignas(64) Copy {
        std::atomic<uint64_t> seq{0};
        std::atomic<uint64_t> words[kWords] = {};
    };
    Copy copies_[kCopies];
    std::atomic<uint32_t> newest_{0};
};
