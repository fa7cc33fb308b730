// From the runtime's clock to the library's. XR_KHR_convert_timespec_time
// turns an XrTime into a CLOCK_MONOTONIC time; the library's clock is the
// time of day in microseconds. The two are related by reading both clocks
// back to back, on every call, so that a stepped time of day is followed at
// once. Both are vDSO reads (no system call) some 100 ns apart, well below
// the library clock's microsecond.
#pragma once

#include <time.h>

#include <cstdint>

namespace orvxr {

struct ClockPair {
    int64_t monotonicNs = 0;
    int64_t realtimeNs = 0;
};

inline int64_t toNs(const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec; }

// Now on both clocks.
inline ClockPair readClocks() {
    timespec m{}, r{};
    clock_gettime(CLOCK_MONOTONIC, &m);
    clock_gettime(CLOCK_REALTIME, &r);
    ClockPair p;
    p.monotonicNs = toNs(m);
    p.realtimeNs = toNs(r);
    return p;
}

// A monotonic time as microseconds on the library clock, given a pair of
// readings of both clocks; 0 for a time before 1970.
inline uint64_t libraryUsOf(int64_t monotonicNs, const ClockPair& now) {
    const int64_t realNs = monotonicNs - now.monotonicNs + now.realtimeNs;
    return realNs > 0 ? static_cast<uint64_t>(realNs / 1000) : 0;
}

// The other way, for an application or a test that holds library time.
inline int64_t monotonicNsOf(uint64_t libraryUs, const ClockPair& now) {
    return static_cast<int64_t>(libraryUs) * 1000 - now.realtimeNs + now.monotonicNs;
}

}  // namespace orvxr
