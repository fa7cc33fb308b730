// Replaces every form of the global operator new, so that a test can count
// the allocations of the code it drives. All forms are replaced together so
// that each new pairs with its own delete. Kept out of line so that g++ does
// not pair an inlined new with free().
#include <atomic>
#include <cstdlib>
#include <new>

#include "support/Allocations.hpp"

namespace {
std::atomic<bool> gCounting{false};
std::atomic<long> gAllocations{0};
std::atomic<std::size_t> gLargest{0};

void* counted(std::size_t n) noexcept {
    if (gCounting) {
        ++gAllocations;
        std::size_t largest = gLargest;
        while (n > largest && !gLargest.compare_exchange_weak(largest, n)) {
        }
    }
    return std::malloc(n != 0 ? n : 1);
}
}  // namespace

void orvtest::startCountingAllocations() {
    gAllocations = 0;
    gLargest = 0;
    gCounting = true;
}

long orvtest::stopCountingAllocations() {
    gCounting = false;
    return gAllocations.load();
}

std::size_t orvtest::largestAllocation() { return gLargest.load(); }

[[gnu::noinline]] void* operator new(std::size_t n) {
    if (void* p = counted(n)) return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](std::size_t n) {
    if (void* p = counted(n)) return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return counted(n); }
[[gnu::noinline]] void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return counted(n); }
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
