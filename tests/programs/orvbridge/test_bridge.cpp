// orvbridge between the simulator and DDS readers in other processes: three
// subscriber examples and the test's own participant must each get every
// pose the bridge took from the library, every other kind must arrive, and
// uplink samples published on DDS must reach the simulator's uplink checker.
#include <gtest/gtest.h>

#include <dds/dds.h>

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "BridgeHosts.hpp"
#include "Convert.hpp"
#include "Topics.hpp"
#include "support/DdsLoopback.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

namespace {

using orvbridge::Topic;
using namespace std::chrono_literals;

constexpr int kSubscribers = 3;
constexpr double kHorizonMs = 25.0;

// Polls `done` until it holds or the time is up; true when it held.
template <class Cond>
bool waitFor(Cond done, std::chrono::seconds limit) {
    return orvtest::waitFor(done, static_cast<double>(limit.count()));
}

// The test's own side of the domain: a reader of every published topic
// and a writer of every uplink topic, with the bridge's reliable QoS.
class Participant {
public:
    explicit Participant(uint32_t domain) {
        participant_ = dds_create_participant(static_cast<dds_domainid_t>(domain), nullptr, nullptr);
        EXPECT_GT(participant_, 0) << dds_strretcode(participant_);
        // The pose reader last: once the bridge sees it, it has seen the
        // others, which were announced before it.
        for (int i = kTopicCount() - 1; i >= 0; --i) {
            const Topic t = static_cast<Topic>(i);
            const dds_entity_t topic = dds_create_topic(participant_, orvbridge::topicInfo(t).type,
                                                        orvbridge::topicName(t, "orv").c_str(), nullptr, nullptr);
            dds_qos_t* qos = orvbridge::topicQos(t, true);
            if (orvbridge::topicInfo(t).service == orvbridge::Service::Uplink)
                endpoint_[i] = dds_create_writer(participant_, topic, qos, nullptr);
            else
                endpoint_[i] = dds_create_reader(participant_, topic, qos, nullptr);
            dds_delete_qos(qos);
            EXPECT_GT(endpoint_[i], 0) << orvbridge::topicName(t, "orv");
        }
    }
    ~Participant() { dds_delete(participant_); }

    static constexpr int kTopicCount() { return orvbridge::kTopicCount; }

    // Every sample the reader holds, oldest first.
    template <typename T>
    std::vector<T> take(Topic t) {
        std::vector<T> out;
        for (;;) {
            void* samples[64] = {nullptr};
            dds_sample_info_t infos[64];
            const dds_return_t n = dds_take(endpoint_[static_cast<int>(t)], samples, infos, 64, 64);
            if (n <= 0) break;
            for (int i = 0; i < n; ++i)
                if (infos[i].valid_data) out.push_back(*static_cast<const T*>(samples[i]));
            dds_return_loan(endpoint_[static_cast<int>(t)], samples, n);
        }
        return out;
    }
    // Strings point into loaned memory: only their count and first texts are kept.
    std::vector<std::string> errorMessages() {
        std::vector<std::string> out;
        void* samples[64] = {nullptr};
        dds_sample_info_t infos[64];
        const dds_entity_t r = endpoint_[static_cast<int>(Topic::Errors)];
        for (dds_return_t n; (n = dds_take(r, samples, infos, 64, 64)) > 0;) {
            for (int i = 0; i < n; ++i)
                if (infos[i].valid_data)
                    out.push_back(static_cast<const orv_msgs_msg_dds__ErrorCode_*>(samples[i])->message);
            dds_return_loan(r, samples, n);
        }
        return out;
    }
    int matchedReaders(Topic t) const {
        dds_publication_matched_status_t st{};
        dds_get_publication_matched_status(endpoint_[static_cast<int>(t)], &st);
        return static_cast<int>(st.current_count);
    }
    void write(Topic t, const void* sample) {
        EXPECT_EQ(dds_write(endpoint_[static_cast<int>(t)], sample), DDS_RETCODE_OK) << orvbridge::topicName(t, "orv");
    }

private:
    dds_entity_t participant_ = 0;
    dds_entity_t endpoint_[orvbridge::kTopicCount] = {};
};

// The bridge's summary: samples by topic name.
std::map<std::string, uint64_t> summaryCounts(const std::string& out) {
    std::map<std::string, uint64_t> counts;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string name;
        uint64_t n = 0;
        if (fields >> name >> n && name.rfind("rt/", 0) == 0) counts[name] = n;
    }
    return counts;
}

struct SubscriberPose {
    uint64_t stampNs = 0;
    std::string frame;
    double p[3] = {}, q[4] = {};
};

std::vector<SubscriberPose> parsePoses(const std::string& out) {
    std::vector<SubscriberPose> poses;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        SubscriberPose s;
        long long sec = 0;
        unsigned long nsec = 0;
        char tagP = 0, tagQ = 0;
        std::istringstream f(line);
        char dot = 0;
        f >> sec >> dot >> nsec >> s.frame >> tagP >> s.p[0] >> s.p[1] >> s.p[2] >> tagQ >> s.q[0] >> s.q[1] >> s.q[2] >>
            s.q[3];
        EXPECT_TRUE(f && dot == '.' && tagP == 'p' && tagQ == 'q') << "unreadable pose line: " << line;
        s.stampNs = static_cast<uint64_t>(sec) * 1000000000ull + nsec;
        poses.push_back(s);
    }
    return poses;
}

uint64_t stampNs(const builtin_interfaces_msg_dds__Time_& t) {
    return static_cast<uint64_t>(t.sec) * 1000000000ull + t.nanosec;
}

TEST(Bridge, EverySubscriberGetsEveryPoseAndTheUplinkReachesTheTracker) {
    orvtest::TempDir dir;
    orvtest::SimRunner sim(dir);
    // Errors often enough that a short run carries some.
    ASSERT_TRUE(sim.start([](orvsim::SimConfig& c) { c.rates.errorPeriodS = 0.5; }));

    // Before any participant exists, in this process and the children alike.
    const uint32_t domain = orvtest::useLoopbackDds((dir.path() / "cyclone.xml").string());
    const std::string d = std::to_string(domain);

    Participant me(domain);
    std::vector<std::unique_ptr<orvtest::Process>> subs;
    for (int i = 0; i < kSubscribers; ++i) {
        const std::string base = (dir.path() / ("sub" + std::to_string(i))).string();
        subs.emplace_back(new orvtest::Process(
            {ORVSUB, "--domain", d, "--reliable", "--until-publisher-leaves"}, base + ".out", base + ".err"));
    }
    // The bridge takes nothing from the library before all four readers of
    // the poses are there, and counts from its first record on.
    // Reliable writes may wait long for the subscribers: under the thread
    // sanitizer every process is several times slower, and a write that
    // gave up would lose the pose the counts below expect.
    orvtest::Process bridge({ORVBRIDGE, "--ini", sim.ini(), "--domain", d, "--reliable", "--uplink", "--duration",
                             "4", "--horizon-ms", "25", "--max-blocking-ms", "60000", "--wait-subscribers",
                             std::to_string(kSubscribers + 1), "--wait-timeout", "60"},
                            (dir.path() / "bridge.out").string(), (dir.path() / "bridge.err").string());

    // The uplink, as a mission computer would send it, once the bridge reads it.
    for (Topic t : {Topic::UplinkPlatform, Topic::UplinkGps, Topic::UplinkInput})
        ASSERT_TRUE(waitFor([&] { return me.matchedReaders(t) > 0 || !bridge.running(); }, 60s) &&
                    bridge.running())
            << "the bridge never read " << orvbridge::topicName(t, "orv") << "\n" << bridge.err();
    for (uint32_t tag = 101; tag <= 105; ++tag) {
        const orv_msgs_msg_dds__PlatformPose_ p{tag, 0.01f * tag, -0.02f, 1.5f};
        me.write(Topic::UplinkPlatform, &p);
    }
    orv_msgs_msg_dds__GpsData_ gps{};
    gps.valid = 1;
    for (double lat : {47.25, 47.5}) {
        gps.lat = lat;
        gps.lon = 8.125;
        me.write(Topic::UplinkGps, &gps);
    }
    for (uint8_t code : {1, 7, 0x2A}) {
        const orv_msgs_msg_dds__InputData_ in{code};
        me.write(Topic::UplinkInput, &in);
    }

    ASSERT_EQ(bridge.wait(90.0), 0) << bridge.err();
    for (auto& s : subs) ASSERT_EQ(s->wait(60.0), 0) << s->err();
    const orvsim::UplinkReport u = sim.stop().uplink;
    const auto published = summaryCounts(bridge.out());

    // Three processes, each with every pose the bridge took, in order.
    const uint64_t poses = published.at("rt/orv/pose");
    EXPECT_GT(poses, 1000u) << bridge.out();
    // The kinds without a topic are taken too: a queue nobody takes grows to
    // its bound, and the bridge's memory with it.
    std::smatch dropped;
    const std::string out = bridge.out();
    ASSERT_TRUE(std::regex_search(out, dropped, std::regex("records without a topic .* taken and dropped: ([0-9]+)")))
        << out;
    EXPECT_GT(std::stoull(dropped[1]), 1000u) << out;
    const std::string first = subs[0]->out();
    for (auto& s : subs) {
        EXPECT_EQ(s->out(), first);
        EXPECT_NE(s->err().find("orvsub: " + std::to_string(poses) + " poses"), std::string::npos) << s->err();
    }

    // Every pose is the library's record: the same stamp, position and
    // attitude as the full record the test's participant got.
    const auto records = me.take<orv_msgs_msg_dds__TrackingRecord_>(Topic::Tracking);
    const auto printed = parsePoses(first);
    ASSERT_EQ(records.size(), poses);
    ASSERT_EQ(printed.size(), poses);
    std::set<uint64_t> stamps;
    for (size_t i = 0; i < records.size(); ++i) {
        const auto& r = records[i];
        const auto& s = printed[i];
        s_OrvAccessTrkDataExt rec{};
        std::memcpy(rec.cbn, r.cbn, sizeof rec.cbn);
        const orvbridge::Quaternion q = orvbridge::quaternionOf(rec.cbn);
        ASSERT_EQ(s.stampNs, r.poseTime * 1000) << "pose " << i;
        EXPECT_EQ(s.frame, "orv_nav");
        for (int k = 0; k < 3; ++k) EXPECT_EQ(static_cast<float>(s.p[k]), r.position[k]) << "pose " << i;
        const double expected[4] = {q.x, q.y, q.z, q.w};
        for (int k = 0; k < 4; ++k) EXPECT_NEAR(s.q[k], expected[k], 1e-8) << "pose " << i;
        // The quaternion turns the body's x axis where the matrix's first column points.
        const double x0 = 1 - 2 * (q.y * q.y + q.z * q.z), x1 = 2 * (q.x * q.y + q.w * q.z),
                     x2 = 2 * (q.x * q.z - q.w * q.y);
        EXPECT_NEAR(x0, r.cbn[0], 1e-5);
        EXPECT_NEAR(x1, r.cbn[3], 1e-5);
        EXPECT_NEAR(x2, r.cbn[6], 1e-5);
        stamps.insert(r.poseTime);
    }

    // The predicted pose is stamped the horizon past a pose it was made from.
    const auto predicted = me.take<geometry_msgs_msg_dds__PoseStamped_>(Topic::PosePredicted);
    EXPECT_EQ(predicted.size(), published.at("rt/orv/pose_predicted"));
    ASSERT_FALSE(predicted.empty());
    for (const auto& p : predicted)
        EXPECT_EQ(stamps.count(stampNs(p.header.stamp) / 1000 - static_cast<uint64_t>(kHorizonMs * 1000)), 1u);

    // Every other kind arrives, all of it.
    const auto imu = me.take<sensor_msgs_msg_dds__Imu_>(Topic::Imu);
    EXPECT_EQ(imu.size(), published.at("rt/orv/imu"));
    EXPECT_GT(imu.size(), 2000u);
    EXPECT_EQ(imu.front().orientation_covariance[0], -1.0);
    EXPECT_EQ(me.take<orv_msgs_msg_dds__PlatformPose_>(Topic::PlatformPose).size(),
              published.at("rt/orv/platform_pose"));
    const auto fixes = me.take<sensor_msgs_msg_dds__NavSatFix_>(Topic::GpsFix);
    const auto gpsRecords = me.take<orv_msgs_msg_dds__GpsData_>(Topic::Gps);
    ASSERT_EQ(fixes.size(), published.at("rt/orv/gps/fix"));
    ASSERT_EQ(gpsRecords.size(), fixes.size());
    for (size_t i = 0; i < fixes.size(); ++i) {
        EXPECT_EQ(fixes[i].latitude, gpsRecords[i].lat);
        EXPECT_EQ(fixes[i].longitude, gpsRecords[i].lon);
    }
    EXPECT_EQ(me.take<orv_msgs_msg_dds__HubData_>(Topic::Hub).size(), published.at("rt/orv/hub"));
    EXPECT_EQ(me.take<orv_msgs_msg_dds__TargetResidual_>(Topic::Residuals).size(), published.at("rt/orv/residuals"));
    const auto errors = me.errorMessages();
    EXPECT_EQ(errors.size(), published.at("rt/orv/errors"));
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.front().rfind("[", 0), 0u) << errors.front();
    for (Topic t : {Topic::PlatformPose, Topic::GpsFix, Topic::Hub, Topic::Residuals})
        EXPECT_GT(published.at(orvbridge::topicName(t, "orv")), 0u) << orvbridge::topicName(t, "orv");
    // The status, once a second; only the count, as its texts live in loaned memory.
    EXPECT_GT(published.at("rt/diagnostics"), 0u);
    EXPECT_FALSE(me.take<diagnostic_msgs_msg_dds__DiagnosticArray_>(Topic::Diagnostics).empty());

    // The uplink reached the tracker through the library, in order.
    orvtest::expectExampleUplink(u, "");
}

}  // namespace

namespace {

// Rz(yaw) Ry(pitch) Rx(roll), as the tracker's matrices are built.
void cbnOf(double roll, double pitch, double yaw, float m[3][3]) {
    const double cr = std::cos(roll), sr = std::sin(roll), cp = std::cos(pitch), sp = std::sin(pitch),
                 cy = std::cos(yaw), sy = std::sin(yaw);
    const double r[3][3] = {{cy * cp, cy * sp * sr - sy * cr, cy * sp * cr + sy * sr},
                            {sy * cp, sy * sp * sr + cy * cr, sy * sp * cr - cy * sr},
                            {-sp, cp * sr, cp * cr}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] = static_cast<float>(r[i][j]);
}

// Attitudes near half a turn about each axis take the branches a head
// turning in front of a display never reaches; each must still give back
// its matrix, with w >= 0, and nav-to-body its inverse.
TEST(BridgeConvert, QuaternionsGiveBackTheirMatricesOnEveryBranch) {
    const double angles[][3] = {{0, 0, 0}, {3.1, 0, 0}, {0, 1.5, 0}, {0, 0, 3.1}, {3.0, 0.2, -3.0}, {-0.4, 1.2, 2.9}};
    for (const auto& a : angles) {
        s_OrvAccessTrkDataExt r{};
        cbnOf(a[0], a[1], a[2], r.cbn);
        const orvbridge::Quaternion q = orvbridge::quaternionOf(r.cbn);
        EXPECT_GE(q.w, 0.0);
        const double m[3][3] = {
            {1 - 2 * (q.y * q.y + q.z * q.z), 2 * (q.x * q.y - q.w * q.z), 2 * (q.x * q.z + q.w * q.y)},
            {2 * (q.x * q.y + q.w * q.z), 1 - 2 * (q.x * q.x + q.z * q.z), 2 * (q.y * q.z - q.w * q.x)},
            {2 * (q.x * q.z - q.w * q.y), 2 * (q.y * q.z + q.w * q.x), 1 - 2 * (q.x * q.x + q.y * q.y)}};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) EXPECT_NEAR(m[i][j], r.cbn[i][j], 1e-6) << a[0] << " " << a[1] << " " << a[2];
        const auto inverse = orvbridge::toPose(r, 0, orvbridge::Attitude::NavToBody, "f");
        EXPECT_EQ(inverse.pose.orientation.x, -q.x);
        EXPECT_EQ(inverse.pose.orientation.w, q.w);
    }
    // Microseconds since the epoch as ROS 2's seconds and nanoseconds.
    const auto t = orvbridge::rosTime(1795617724609841ull);
    EXPECT_EQ(t.sec, 1795617724);
    EXPECT_EQ(t.nanosec, 609841000u);
}

}  // namespace
