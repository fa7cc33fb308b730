// What the bridge checks before it sends a sample from the DDS domain up to
// the tracker: numbers the tracker can use, and no more samples a second
// than configured. Anyone on the domain may publish on the uplink topics
// (Debian's Cyclone DDS has no security plugins), so nothing is trusted.
#pragma once

#include <cstdint>

#include "OrvMessages.h"

namespace orvbridge {

// Why a sample may not go up, or nullptr when it may: every number finite,
// angles within +-2 pi rad, latitude within +-90 and longitude within
// +-180 degrees, the other GPS numbers within +-1e9, and the last GPS field
// one byte (only its low byte travels).
const char* uplinkRefusal(const orv_msgs_msg_dds__PlatformPose_& p);
const char* uplinkRefusal(const orv_msgs_msg_dds__GpsData_& g);

// A token bucket on the caller's clock: `ratePerS` samples a second on
// average, at most `burst` at once. It starts full. The clock is passed in,
// so that a test decides how much time has passed.
class RateLimit {
public:
    RateLimit(double ratePerS, double burst) : ratePerS_(ratePerS), burst_(burst), tokens_(burst) {}
    // True when a sample may go now (and counts it).
    bool take(uint64_t nowUs);

private:
    double ratePerS_;
    double burst_;
    double tokens_;
    uint64_t lastUs_ = 0;
    bool started_ = false;
};

}  // namespace orvbridge
