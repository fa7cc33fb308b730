// What the headless test runtime reports, for the tests to check against.
#pragma once

#include <openxr/openxr.h>

#include <cmath>
#include <cstdint>

namespace orvxr::testruntime {

// XrTime = CLOCK_MONOTONIC in ns plus this.
constexpr int64_t kXrTimeOffsetNs = 123456789012;
constexpr int64_t kFramePeriodNs = 11111111;     // 90 Hz
constexpr int64_t kDisplayLatencyNs = 20000000;  // predicted display time after the frame's wait

// The runtime's own head: off the origin and turned, so that a layer that
// left any of it in the views is caught.
inline const XrPosef kHead{{0.0f, 0.14943813f, 0.0f, 0.98877108f}, {0.1f, 1.6f, -0.2f}};  // 0.3 rad about y
inline const XrPosef kStage{{0.0f, 0.0f, 0.0f, 1.0f}, {0.0f, -1.6f, 0.0f}};
inline const XrPosef kIdentity{{0.0f, 0.0f, 0.0f, 1.0f}, {0.0f, 0.0f, 0.0f}};
// The eyes relative to the head: 64 mm apart and turned inwards by 0.05 rad.
inline const XrPosef kEyes[2] = {
    {{0.0f, -0.024997396f, 0.0f, 0.99968751f}, {-0.032f, 0.0f, 0.0f}},
    {{0.0f, 0.024997396f, 0.0f, 0.99968751f}, {0.032f, 0.0f, 0.0f}},
};
inline const XrFovf kFov[2] = {{-0.8f, 0.7f, 0.75f, -0.75f}, {-0.7f, 0.8f, 0.75f, -0.75f}};

}  // namespace orvxr::testruntime
