// Counting heap allocations around a piece of code. Every test executable
// links CountingNew.cpp, which replaces the global allocation functions.
#pragma once

#include <cstddef>

namespace orvtest {

void startCountingAllocations();
// Allocations since startCountingAllocations().
long stopCountingAllocations();
// The size of the largest of them, in bytes.
size_t largestAllocation();

template <typename F>
long allocationsDuring(F&& f) {
    startCountingAllocations();
    f();
    return stopCountingAllocations();
}

}  // namespace orvtest
