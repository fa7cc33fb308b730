// The library's records as DDS samples: ROS 2 messages where ROS 2 has one,
// the tracker's own types elsewhere. Pure functions, so that a test checks
// them without a DDS domain. Text fields of the samples point into strings
// the caller keeps alive until the sample is written.
#pragma once

#include <orvaccess/OrvAccess.hpp>

#include <cstdint>

#include "OrvMessages.h"
#include "RosMessages.h"

namespace orvbridge {

// Which rotation a published attitude describes. ROS 2 expects the child
// (body) frame in its parent (navigation) frame: the tracker's cbn as it is.
enum class Attitude { BodyToNav, NavToBody };

struct Quaternion {
    double x = 0.0, y = 0.0, z = 0.0, w = 1.0;
};

// The unit quaternion of a row-major rotation matrix, w >= 0.
Quaternion quaternionOf(const float m[3][3]);

// Microseconds on the library clock (since the epoch) as a ROS 2 time.
builtin_interfaces_msg_dds__Time_ rosTime(uint64_t timeUs);

// Position and attitude of a tracking record, stamped with stampUs.
geometry_msgs_msg_dds__PoseStamped_ toPose(const s_OrvAccessTrkDataExt& r, uint64_t stampUs, Attitude attitude,
                                           const char* frame);
// Every field of the record, as the library handed it out.
orv_msgs_msg_dds__TrackingRecord_ toRecord(const s_OrvAccessTrkDataExt& r);
// Rates in body axes; the orientation is unknown (covariance element 0 is -1).
sensor_msgs_msg_dds__Imu_ toImu(const s_OrvAccessImuData& r, const char* frame);
// A fix when the record is valid; the altitude is not known (NaN).
sensor_msgs_msg_dds__NavSatFix_ toFix(const s_OrvAccessGpsData& r, uint64_t stampUs, const char* frame);
orv_msgs_msg_dds__GpsData_ toGps(const s_OrvAccessGpsData& r);
orv_msgs_msg_dds__PlatformPose_ toPlatformPose(const s_OrvAccessPlatPoseData& r);
orv_msgs_msg_dds__HubData_ toHub(const s_OrvAccessHubData& r);
orv_msgs_msg_dds__TargetResidual_ toResidual(const OrvAccess::s_TgtResData& r);

// The other way: what a mission computer publishes, for the library's uplink.
s_OrvAccessPlatPoseData fromPlatformPose(const orv_msgs_msg_dds__PlatformPose_& s);
s_OrvAccessGpsData fromGps(const orv_msgs_msg_dds__GpsData_& s);

}  // namespace orvbridge
