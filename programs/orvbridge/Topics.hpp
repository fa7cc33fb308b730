// The topics of the bridge: name below the namespace, type and kind of
// service, in one table that the bridge, the tests and the benchmark read.
#pragma once

#include <dds/dds.h>

#include <string>

namespace orvbridge {

enum class Topic {
    Pose,            // geometry_msgs/PoseStamped: every tracking record
    PosePredicted,   // geometry_msgs/PoseStamped: the newest pose, predicted
    Tracking,        // orv_msgs TrackingRecord: every tracking record, every field
    Imu,             // sensor_msgs/Imu: every IMU sample
    PlatformPose,    // orv_msgs PlatformPose: from orvRx's meta packets
    GpsFix,          // sensor_msgs/NavSatFix
    Gps,             // orv_msgs GpsData: every field
    Hub,             // orv_msgs HubData
    Residuals,       // orv_msgs TargetResidual: optical residuals
    Errors,          // orv_msgs ErrorCode: codes with their messages
    Diagnostics,     // diagnostic_msgs/DiagnosticArray: status words, once a second
    UplinkPlatform,  // orv_msgs PlatformPose, sent up to orvRx
    UplinkGps,       // orv_msgs GpsData, sent up
    UplinkInput,     // orv_msgs InputData, sent up
    Count
};
constexpr int kTopicCount = static_cast<int>(Topic::Count);

// How a topic is served.
enum class Service {
    Stream,  // best effort, keep last: a late sample is worth less than the next one
    Event,   // reliable, keep last 100: rare and each one matters
    Status,  // reliable, transient local, keep last 1: a late joiner sees the last one
    Uplink,  // read by the bridge
};

struct TopicInfo {
    const char* leaf;  // below "rt/<namespace>/"; absolute when it starts with '/'
    const dds_topic_descriptor_t* type;
    Service service;
};

const TopicInfo& topicInfo(Topic t);
// "rt/orv/pose" for Pose in namespace "orv"; "rt/diagnostics" whatever the namespace.
std::string topicName(Topic t, const std::string& ns);

// QoS for the topic's writers and readers. `reliable` makes streams
// reliable and keeps all of them (nothing lost, at the price of blocking a
// writer whose readers fall behind); the tests compare counts with it. A
// reliable writer whose readers fall behind waits maxBlockingMs, then
// reports the write failed.
constexpr int kDefaultMaxBlockingMs = 1000;
dds_qos_t* topicQos(Topic t, bool reliable, int maxBlockingMs = kDefaultMaxBlockingMs);

}  // namespace orvbridge
