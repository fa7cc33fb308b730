#include "Convert.hpp"

#include "math/OrvosiMath.hpp"

#include <cmath>
#include <cstring>
#include <limits>

namespace orvbridge {

namespace {

constexpr uint64_t kUsPerS = 1000000;
constexpr uint32_t kNsPerUs = 1000;

// Copies an array into one of the same size and element type, whatever its
// shape (a 3 x 3 matrix into nine floats).
template <typename D, typename S>
void copyArray(D& dst, const S& src) {
    static_assert(sizeof(D) == sizeof(S), "the sample's field and the record's field differ in size");
    std::memcpy(&dst, &src, sizeof(D));
}

geometry_msgs_msg_dds__Vector3_ vector3(const float v[3]) { return {v[0], v[1], v[2]}; }

}  // namespace

Quaternion quaternionOf(const float m[3][3]) {
    double c[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) c[i][j] = m[i][j];
    double q[4];
    OrvosiMath::cbn2Quat(c, q);
    Quaternion out;
    out.x = q[0];
    out.y = q[1];
    out.z = q[2];
    out.w = q[3];
    return out;
}

builtin_interfaces_msg_dds__Time_ rosTime(uint64_t timeUs) {
    builtin_interfaces_msg_dds__Time_ t;
    t.sec = static_cast<int32_t>(timeUs / kUsPerS);
    t.nanosec = static_cast<uint32_t>(timeUs % kUsPerS) * kNsPerUs;
    return t;
}

geometry_msgs_msg_dds__PoseStamped_ toPose(const s_OrvAccessTrkDataExt& r, uint64_t stampUs, Attitude attitude,
                                           const char* frame) {
    geometry_msgs_msg_dds__PoseStamped_ s{};
    s.header.stamp = rosTime(stampUs);
    s.header.frame_id = const_cast<char*>(frame);
    s.pose.position = {r.position[0], r.position[1], r.position[2]};
    const Quaternion q = quaternionOf(r.cbn);
    const double inverse = attitude == Attitude::NavToBody ? -1.0 : 1.0;
    s.pose.orientation = {inverse * q.x, inverse * q.y, inverse * q.z, q.w};
    return s;
}

orv_msgs_msg_dds__TrackingRecord_ toRecord(const s_OrvAccessTrkDataExt& r) {
    orv_msgs_msg_dds__TrackingRecord_ s{};
    s.packetTag = r.packetTag;
    s.poseTime = r.poseTime;
    s.platPoseTime = r.platPoseTime;
    s.time2 = r.time2;
    s.statusWord = r.statusWord;
    copyArray(s.vecA, r.vecA);
    copyArray(s.vecB, r.vecB);
    copyArray(s.vecC, r.vecC);
    copyArray(s.vecD, r.vecD);
    copyArray(s.vecE, r.vecE);
    copyArray(s.vecF, r.vecF);
    s.countA = r.countA;
    s.countB = r.countB;
    copyArray(s.cbn, r.cbn);
    copyArray(s.euler, r.euler);
    copyArray(s.cbn2, r.cbn2);
    copyArray(s.position, r.position);
    copyArray(s.vecG, r.vecG);
    copyArray(s.vecH, r.vecH);
    copyArray(s.angularRate, r.angularRate);
    copyArray(s.vecI, r.vecI);
    copyArray(s.extA, r.extA);
    copyArray(s.vecJ, r.vecJ);
    copyArray(s.extB, r.extB);
    copyArray(s.vecK, r.vecK);
    copyArray(s.extC, r.extC);
    copyArray(s.vecL, r.vecL);
    copyArray(s.vecM, r.vecM);
    s.scalarA = r.scalarA;
    s.scalarB = r.scalarB;
    copyArray(s.errorCodes, r.errorCodes);
    copyArray(s.vecN, r.vecN);
    copyArray(s.vecO, r.vecO);
    copyArray(s.extD, r.extD);
    return s;
}

sensor_msgs_msg_dds__Imu_ toImu(const s_OrvAccessImuData& r, const char* frame) {
    sensor_msgs_msg_dds__Imu_ s{};
    s.header.stamp = rosTime(r.time);
    s.header.frame_id = const_cast<char*>(frame);
    s.orientation.w = 1.0;
    s.orientation_covariance[0] = -1.0;  // ROS 2's mark for "no orientation estimate"
    s.angular_velocity = vector3(r.gyroRate);
    s.linear_acceleration = vector3(r.accelRate);
    return s;
}

sensor_msgs_msg_dds__NavSatFix_ toFix(const s_OrvAccessGpsData& r, uint64_t stampUs, const char* frame) {
    constexpr int8_t kNoFix = -1, kFix = 0;
    constexpr uint16_t kServiceGps = 1;
    sensor_msgs_msg_dds__NavSatFix_ s{};
    s.header.stamp = rosTime(stampUs);
    s.header.frame_id = const_cast<char*>(frame);
    s.status.status = r.valid != 0 ? kFix : kNoFix;
    s.status.service = kServiceGps;
    s.latitude = r.lat;
    s.longitude = r.lon;
    s.altitude = std::numeric_limits<double>::quiet_NaN();
    s.position_covariance_type = 0;  // unknown
    return s;
}

orv_msgs_msg_dds__GpsData_ toGps(const s_OrvAccessGpsData& r) {
    return {r.valid,     r.gpsWord1,  r.lat,       r.lon,        r.gpsValue1,  r.gpsHalf,
            r.gpsByte1,  r.gpsValue2, r.gpsValue3, r.gpsWord2,   r.gpsDouble1, r.gpsDouble2,
            r.gpsValue4, r.gpsValue5, r.gpsValue6, r.gpsByte2};
}

s_OrvAccessGpsData fromGps(const orv_msgs_msg_dds__GpsData_& s) {
    return {s.valid,     s.gpsWord1,  s.lat,       s.lon,        s.gpsValue1,  s.gpsHalf,
            s.gpsByte1,  s.gpsValue2, s.gpsValue3, s.gpsWord2,   s.gpsDouble1, s.gpsDouble2,
            s.gpsValue4, s.gpsValue5, s.gpsValue6, s.gpsByte2};
}

orv_msgs_msg_dds__PlatformPose_ toPlatformPose(const s_OrvAccessPlatPoseData& r) {
    return {r.tag, r.pose[0], r.pose[1], r.pose[2]};
}

s_OrvAccessPlatPoseData fromPlatformPose(const orv_msgs_msg_dds__PlatformPose_& s) {
    return {s.tag, {s.roll, s.pitch, s.yaw}};
}

orv_msgs_msg_dds__HubData_ toHub(const s_OrvAccessHubData& r) {
    orv_msgs_msg_dds__HubData_ s{};
    s.word = r.word;
    s.halfWord = r.halfWord;
    s.status = r.status;
    copyArray(s.words, r.words);
    s.time = r.time;
    copyArray(s.cbn, r.cbn);
    copyArray(s.euler, r.euler);
    copyArray(s.vec, r.vec);
    s.lastByte = r.lastByte;
    return s;
}

orv_msgs_msg_dds__TargetResidual_ toResidual(const OrvAccess::s_TgtResData& r) {
    orv_msgs_msg_dds__TargetResidual_ s{};
    s.tag = r.tag;
    s.index = r.index;
    s.id = r.id;
    copyArray(s.resid, r.resid);
    return s;
}

}  // namespace orvbridge
