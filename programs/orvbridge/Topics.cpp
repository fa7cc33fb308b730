#include "Topics.hpp"

#include "OrvMessages.h"
#include "RosMessages.h"

namespace orvbridge {

namespace {

// ROS 2's sensor-data depth; a best-effort reader never waits for more.
constexpr int32_t kStreamDepth = 5;
constexpr int32_t kEventDepth = 100;

const TopicInfo kTopics[kTopicCount] = {
    {"pose", &geometry_msgs_msg_dds__PoseStamped__desc, Service::Stream},
    {"pose_predicted", &geometry_msgs_msg_dds__PoseStamped__desc, Service::Stream},
    {"tracking", &orv_msgs_msg_dds__TrackingRecord__desc, Service::Stream},
    {"imu", &sensor_msgs_msg_dds__Imu__desc, Service::Stream},
    {"platform_pose", &orv_msgs_msg_dds__PlatformPose__desc, Service::Stream},
    {"gps/fix", &sensor_msgs_msg_dds__NavSatFix__desc, Service::Stream},
    {"gps", &orv_msgs_msg_dds__GpsData__desc, Service::Stream},
    {"hub", &orv_msgs_msg_dds__HubData__desc, Service::Stream},
    {"residuals", &orv_msgs_msg_dds__TargetResidual__desc, Service::Stream},
    {"errors", &orv_msgs_msg_dds__ErrorCode__desc, Service::Event},
    {"/diagnostics", &diagnostic_msgs_msg_dds__DiagnosticArray__desc, Service::Status},
    {"uplink/platform_pose", &orv_msgs_msg_dds__PlatformPose__desc, Service::Uplink},
    {"uplink/gps", &orv_msgs_msg_dds__GpsData__desc, Service::Uplink},
    {"uplink/input", &orv_msgs_msg_dds__InputData__desc, Service::Uplink},
};

}  // namespace

const TopicInfo& topicInfo(Topic t) { return kTopics[static_cast<int>(t)]; }

std::string topicName(Topic t, const std::string& ns) {
    const std::string leaf = topicInfo(t).leaf;
    if (leaf[0] == '/') return "rt" + leaf;
    return ns.empty() ? "rt/" + leaf : "rt/" + ns + "/" + leaf;
}

dds_qos_t* topicQos(Topic t, bool reliable, int maxBlockingMs) {
    const dds_duration_t kMaxBlocking = DDS_MSECS(maxBlockingMs);
    dds_qos_t* q = dds_create_qos();
    switch (topicInfo(t).service) {
    case Service::Stream:
    case Service::Uplink:
        // An uplink reader is best effort so that it matches writers of either kind.
        if (reliable) {
            dds_qset_reliability(q, DDS_RELIABILITY_RELIABLE, kMaxBlocking);
            dds_qset_history(q, DDS_HISTORY_KEEP_ALL, 0);
        } else {
            dds_qset_reliability(q, DDS_RELIABILITY_BEST_EFFORT, 0);
            dds_qset_history(q, DDS_HISTORY_KEEP_LAST, kStreamDepth);
        }
        break;
    case Service::Event:
        dds_qset_reliability(q, DDS_RELIABILITY_RELIABLE, kMaxBlocking);
        dds_qset_history(q, DDS_HISTORY_KEEP_LAST, kEventDepth);
        break;
    case Service::Status:
        dds_qset_reliability(q, DDS_RELIABILITY_RELIABLE, kMaxBlocking);
        dds_qset_durability(q, DDS_DURABILITY_TRANSIENT_LOCAL);
        dds_qset_history(q, DDS_HISTORY_KEEP_LAST, 1);
        break;
    }
    return q;
}

}  // namespace orvbridge
