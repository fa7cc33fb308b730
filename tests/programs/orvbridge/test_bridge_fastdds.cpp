// orvbridge and a Fast DDS participant (ROS 2's default middleware) on
// another host: the tracker, the bridge (with the library) and a viewer
// each in a network namespace of their own. The viewer runs fastdds_peer,
// which must get every pose and IMU sample the bridge published, with the
// library's values, and whose uplink samples must reach the tracker. A
// Cyclone DDS reader on the viewer, in this process, is the reference: it
// gets the full tracking records and the IMU samples.
#include <gtest/gtest.h>

#include <dds/dds.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "BridgeHosts.hpp"
#include "Convert.hpp"
#include "Topics.hpp"
#include "orvsim/Motion.hpp"
#include "orvsim/Simulator.hpp"
#include "support/NetLab.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

using orvbridge::Topic;
using orvtest::EnterHost;
using orvtest::NetLab;
using orvtest::cycloneOn;
using orvtest::published;

namespace {

// One line of fastdds_peer: kind, stamp, frame, then the numbers.
struct PeerSample {
    std::string kind, frame;
    int32_t sec = 0;
    uint32_t nanosec = 0;
    std::vector<double> v;
};

std::vector<PeerSample> peerSamples(const std::string& out, const std::string& kind) {
    std::vector<PeerSample> samples;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::istringstream f(line);
        PeerSample s;
        if (!(f >> s.kind) || s.kind != kind) continue;
        f >> s.sec >> s.nanosec >> s.frame;
        // The numbers are C's %a, which strtod reads back exactly.
        for (std::string n; f >> n;) s.v.push_back(std::strtod(n.c_str(), nullptr));
        samples.push_back(s);
    }
    return samples;
}

// The reference reader's side: every sample of one topic, oldest first.
template <typename T>
std::vector<T> takeAll(dds_entity_t reader) {
    std::vector<T> out;
    void* samples[64] = {nullptr};
    dds_sample_info_t infos[64];
    for (dds_return_t n; (n = dds_take(reader, samples, infos, 64, 64)) > 0;) {
        for (int i = 0; i < n; ++i)
            if (infos[i].valid_data) out.push_back(*static_cast<const T*>(samples[i]));
        dds_return_loan(reader, samples, n);
    }
    return out;
}

}  // namespace

TEST(BridgeFastDds, AFastDdsParticipantOnAnotherHostGetsEverySampleAndSteersTheUplink) {
    const std::string why = NetLab::unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    NetLab lab;
    orvtest::TempDir dir;
    orvtest::SimThread sim;
    std::string ini;
    ASSERT_NO_FATAL_FAILURE(orvtest::startThreeHosts(lab, dir, sim, "orvBrF", &ini));

    const std::string domain = std::to_string(1 + getpid() % 200);
    const std::string trigger = dir.prefix() + "send-uplink";
    orvtest::Process peer({"/usr/bin/env", "ip", "netns", "exec", lab.ns("viewer"), FASTDDS_PEER, "--domain", domain,
                           "--interface", "10.250.3.2", "--uplink-after", trigger, "--timeout", "120"},
                          dir.prefix() + "peer.out", dir.prefix() + "peer.err");
    // Two readers of the poses: the peer and the reference below. The bridge
    // waits for both before it takes its first record.
    orvtest::Process bridge({"/usr/bin/env", "CYCLONEDDS_URI=" + cycloneOn(dir, "bridge.xml", "10.250.3.1"), "ip",
                             "netns", "exec", lab.ns("bridge"), ORVBRIDGE, "--ini", ini, "--domain", domain,
                             "--reliable", "--uplink", "--duration", "4", "--max-blocking-ms", "60000",
                             "--wait-subscribers", "2", "--wait-timeout", "120"},
                            dir.prefix() + "bridge.out", dir.prefix() + "bridge.err");
    // The reference joins once the peer has the bridge's writers, so that
    // the bridge cannot start before the peer reads.
    ASSERT_TRUE(orvtest::waitFor(
        [&] { return peer.err().find("writers matched") != std::string::npos || !peer.running(); }, 120.0))
        << peer.err() << bridge.err();
    ASSERT_TRUE(peer.running()) << peer.err();

    setenv("CYCLONEDDS_URI", cycloneOn(dir, "viewer.xml", "10.250.3.2").c_str(), 1);
    dds_entity_t participant = 0, tracking = 0, imu = 0;
    struct Cleanup {
        dds_entity_t& p;
        ~Cleanup() {
            if (p > 0) dds_delete(p);
        }
    } cleanup{participant};
    {
        // Cyclone's sockets and threads are made here, on the viewer.
        EnterHost in(lab, "viewer");
        ASSERT_TRUE(in.ok());
        participant = dds_create_participant(static_cast<dds_domainid_t>(std::stoi(domain)), nullptr, nullptr);
        ASSERT_GT(participant, 0) << dds_strretcode(participant);
        const auto reader = [&](Topic t) {
            const dds_entity_t topic = dds_create_topic(participant, orvbridge::topicInfo(t).type,
                                                        orvbridge::topicName(t, "orv").c_str(), nullptr, nullptr);
            dds_qos_t* qos = orvbridge::topicQos(t, true);
            const dds_entity_t r = dds_create_reader(participant, topic, qos, nullptr);
            dds_delete_qos(qos);
            return r;
        };
        tracking = reader(Topic::Tracking);
        imu = reader(Topic::Imu);
        // The pose reader last: the bridge counts it, and by then has the others.
        ASSERT_GT(reader(Topic::Pose), 0);
        ASSERT_GT(tracking, 0);
        ASSERT_GT(imu, 0);
    }
    // The uplink goes out once the bridge reads the peer's three writers:
    // matched at the peer alone, the samples could be gone before the
    // bridge's readers knew the writers.
    const auto readsUplink = [&] {
        const std::string err = bridge.err();
        for (const char* t : {"platform_pose", "gps", "input"})
            if (err.find("rt/orv/uplink/" + std::string(t) + " is read from 1 writer(s)") == std::string::npos)
                return false;
        return true;
    };
    ASSERT_TRUE(orvtest::waitFor([&] { return readsUplink() || !bridge.running(); }, 120.0) && readsUplink())
        << bridge.err();
    std::ofstream(trigger).put('\n');

    ASSERT_EQ(bridge.wait(120.0), 0) << bridge.err();
    // The peer ends when it sees the bridge gone: with Fast DDS, when the
    // lease the bridge announced (5 s, not Cyclone's 10) runs out.
    ASSERT_EQ(peer.wait(120.0), 0) << peer.err();
    EXPECT_NE(peer.err().find("a participant joined, lease 5.0 s"), std::string::npos) << peer.err();
    const orvsim::UplinkReport u = sim.stop().uplink;

    const std::string out = bridge.out();
    const uint64_t poses = published(out, "rt/orv/pose"), imus = published(out, "rt/orv/imu");
    EXPECT_GT(poses, 500u) << out;
    EXPECT_GT(imus, 1000u) << out;

    // Every pose, in the bridge's order, is the pose of the library's record:
    // its stamp, position and attitude as the bridge converts them; and each
    // orvCore record is the simulated motion at its tag.
    const auto records = takeAll<orv_msgs_msg_dds__TrackingRecord_>(tracking);
    const auto fastPoses = peerSamples(peer.out(), "pose");
    ASSERT_EQ(records.size(), poses);
    ASSERT_EQ(fastPoses.size(), poses) << peer.err();
    const orvsim::Motion& motion = sim.sim().motion();
    uint64_t orvCore = 0, offMotion = 0;
    for (size_t i = 0; i < poses; ++i) {
        const auto& r = records[i];
        s_OrvAccessTrkDataExt rec{};
        std::memcpy(rec.cbn, r.cbn, sizeof rec.cbn);
        std::memcpy(rec.position, r.position, sizeof rec.position);
        const auto want = orvbridge::toPose(rec, r.poseTime, orvbridge::Attitude::BodyToNav, "orv_nav");
        const PeerSample& got = fastPoses[i];
        ASSERT_EQ(got.v.size(), 7u) << "pose " << i;
        EXPECT_EQ(got.sec, want.header.stamp.sec) << "pose " << i;
        EXPECT_EQ(got.nanosec, want.header.stamp.nanosec) << "pose " << i;
        EXPECT_EQ(got.frame, "orv_nav");
        const double expected[7] = {want.pose.position.x,    want.pose.position.y,    want.pose.position.z,
                                    want.pose.orientation.x, want.pose.orientation.y, want.pose.orientation.z,
                                    want.pose.orientation.w};
        for (int k = 0; k < 7; ++k) EXPECT_EQ(got.v[k], expected[k]) << "pose " << i << " value " << k;
        if (r.statusWord == 0) continue;  // the NFT source's poses have tags of their own
        ++orvCore;
        s_OrvAccessTrkDataExt truth{};
        orvsim::fillPose(motion.at(r.packetTag * 0.001), truth);
        bool same = true;
        for (int a = 0; a < 3; ++a) {
            same = same && r.position[a] == truth.position[a];
            for (int b = 0; b < 3; ++b) same = same && std::fabs(r.cbn[a * 3 + b] - truth.cbn[a][b]) < 1e-6f;
        }
        offMotion += !same;
    }
    EXPECT_GT(orvCore, poses / 2);
    EXPECT_EQ(offMotion, 0u);

    // Every IMU sample, the same as the reference got.
    const auto reference = takeAll<sensor_msgs_msg_dds__Imu_>(imu);
    const auto fastImu = peerSamples(peer.out(), "imu");
    ASSERT_EQ(reference.size(), imus);
    ASSERT_EQ(fastImu.size(), imus);
    for (size_t i = 0; i < imus; ++i) {
        const auto& want = reference[i];
        const PeerSample& got = fastImu[i];
        ASSERT_EQ(got.v.size(), 7u) << "imu " << i;
        EXPECT_EQ(got.sec, want.header.stamp.sec) << "imu " << i;
        EXPECT_EQ(got.nanosec, want.header.stamp.nanosec) << "imu " << i;
        EXPECT_EQ(got.frame, "orv_imu");
        const double expected[7] = {want.angular_velocity.x,    want.angular_velocity.y,
                                    want.angular_velocity.z,    want.linear_acceleration.x,
                                    want.linear_acceleration.y, want.linear_acceleration.z,
                                    want.orientation_covariance[0]};
        for (int k = 0; k < 7; ++k) EXPECT_EQ(got.v[k], expected[k]) << "imu " << i << " value " << k;
    }

    // The peer's uplink reached the tracker through the bridge and the library.
    orvtest::expectExampleUplink(u, bridge.out());
}
