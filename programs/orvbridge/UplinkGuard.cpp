#include "UplinkGuard.hpp"

#include <cmath>
#include <initializer_list>

namespace orvbridge {

namespace {

constexpr double kMaxAngleRad = 2.0 * 3.14159265358979323846;
constexpr double kMaxLatDeg = 90.0;
constexpr double kMaxLonDeg = 180.0;
// The GPS record's other numbers have no meaning the library knows; this
// only keeps out what no receiver can mean (1e308 and the like).
constexpr double kMaxGpsValue = 1e9;
constexpr uint32_t kMaxByte = 0xFF;

bool within(double v, double limit) { return std::isfinite(v) && std::fabs(v) <= limit; }

}  // namespace

const char* uplinkRefusal(const orv_msgs_msg_dds__PlatformPose_& p) {
    for (const float a : {p.roll, p.pitch, p.yaw})
        if (!within(a, kMaxAngleRad)) return "an angle is not a finite number within +-2 pi rad";
    return nullptr;
}

const char* uplinkRefusal(const orv_msgs_msg_dds__GpsData_& g) {
    if (!within(g.lat, kMaxLatDeg)) return "the latitude is not a finite number within +-90 degrees";
    if (!within(g.lon, kMaxLonDeg)) return "the longitude is not a finite number within +-180 degrees";
    for (const double v :
         {static_cast<double>(g.gpsValue1), static_cast<double>(g.gpsValue2),
          static_cast<double>(g.gpsValue3), g.gpsDouble1, g.gpsDouble2, static_cast<double>(g.gpsValue4),
          static_cast<double>(g.gpsValue5), static_cast<double>(g.gpsValue6)})
        if (!within(v, kMaxGpsValue)) return "a GPS value is not a finite number within +-1e9";
    if (g.gpsByte2 > kMaxByte) return "gpsByte2 is above 255 and would be cut to its low byte";
    return nullptr;
}

bool RateLimit::take(uint64_t nowUs) {
    if (started_ && nowUs > lastUs_) {
        tokens_ += static_cast<double>(nowUs - lastUs_) * ratePerS_ / 1e6;
        if (tokens_ > burst_) tokens_ = burst_;
    }
    // A clock that steps back refills nothing.
    if (!started_ || nowUs > lastUs_) lastUs_ = nowUs;
    started_ = true;
    if (tokens_ < 1.0) return false;
    tokens_ -= 1.0;
    return true;
}

}  // namespace orvbridge
