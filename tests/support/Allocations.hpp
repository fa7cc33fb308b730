// Counting heap allocations around a piece of code. Every test executable
// links CountingNew.cpp, which replaces the global allocation functions.
#pragma once

namespace orvtest {

void startCountingAllocations();
// Allocations since startCountingAllocations().
long stopCountingAllocations();

template <typename F>
long allocationsDuring(F&& f) {
    startCountingAllocations();
    f();
    return stopCountingAllocations();
}

}  // namespace orvtest
