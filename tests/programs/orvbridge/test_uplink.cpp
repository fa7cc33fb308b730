// orvbridge's uplink, run in this process on a DDS domain of its own on
// 127.0.0.1: a participant of the test publishes on the uplink topics, and
// a UDP socket of the test stands for orvRx's input port and counts what
// the library sends up. The bridge's clock is the one the test passes to
// pass(), so that the rate limit is counted, never timed.
#include <gtest/gtest.h>

#include <dds/dds.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include "Bridge.hpp"
#include "support/DdsLoopback.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"

namespace {

using orvbridge::Topic;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr Topic kUplink[] = {Topic::UplinkPlatform, Topic::UplinkGps, Topic::UplinkInput};

// orvRx's input port: every datagram the library sends up, by its first
// byte and size.
class InputPort {
public:
    InputPort() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        port_ = orvtest::freePort();
        const sockaddr_in a = orvtest::loopback(port_);
        bound_ = bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    }
    ~InputPort() { ::close(fd_); }
    bool bound() const { return bound_; }
    int port() const { return port_; }
    // Everything that has arrived so far, as (start byte, size).
    std::vector<std::pair<int, size_t>> take() {
        std::vector<std::pair<int, size_t>> got;
        unsigned char b[512];
        for (ssize_t n; (n = recv(fd_, b, sizeof b, 0)) > 0;) got.emplace_back(b[0], static_cast<size_t>(n));
        return got;
    }

private:
    int fd_;
    int port_ = 0;
    bool bound_ = false;
};

// The mission computer: a writer on each uplink topic, reliable as the
// bridge's tests write, optionally in a partition.
class Publisher {
public:
    Publisher(uint32_t domain, const char* partition = nullptr) {
        participant_ = dds_create_participant(static_cast<dds_domainid_t>(domain), nullptr, nullptr);
        dds_entity_t pub = participant_;
        if (partition != nullptr) {
            dds_qos_t* q = dds_create_qos();
            dds_qset_partition1(q, partition);
            pub = dds_create_publisher(participant_, q, nullptr);
            dds_delete_qos(q);
        }
        for (Topic t : kUplink) {
            const dds_entity_t topic =
                dds_create_topic(participant_, orvbridge::topicInfo(t).type,
                                 orvbridge::topicName(t, "orv").c_str(), nullptr, nullptr);
            dds_qos_t* qos = orvbridge::topicQos(t, true);
            writer_[index(t)] = dds_create_writer(pub, topic, qos, nullptr);
            dds_delete_qos(qos);
        }
        // A reader of the poses, to know when the bridge has been discovered.
        const dds_entity_t poses =
            dds_create_topic(participant_, orvbridge::topicInfo(Topic::Pose).type,
                             orvbridge::topicName(Topic::Pose, "orv").c_str(), nullptr, nullptr);
        dds_qos_t* qos = orvbridge::topicQos(Topic::Pose, false);
        poseReader_ = dds_create_reader(participant_, poses, qos, nullptr);
        dds_delete_qos(qos);
    }
    ~Publisher() { dds_delete(participant_); }

    bool ok() const { return participant_ > 0 && writer_[0] > 0 && writer_[1] > 0 && writer_[2] > 0; }
    int matched(Topic t) const {
        dds_publication_matched_status_t st{};
        dds_get_publication_matched_status(writer_[index(t)], &st);
        return static_cast<int>(st.current_count);
    }
    bool seesBridge() const {
        dds_subscription_matched_status_t st{};
        dds_get_subscription_matched_status(poseReader_, &st);
        return st.current_count > 0;
    }
    void write(Topic t, const void* sample) {
        EXPECT_EQ(dds_write(writer_[index(t)], sample), DDS_RETCODE_OK) << orvbridge::topicName(t, "orv");
    }

private:
    static int index(Topic t) { return static_cast<int>(t) - static_cast<int>(Topic::UplinkPlatform); }
    dds_entity_t participant_ = 0;
    dds_entity_t writer_[3] = {};
    dds_entity_t poseReader_ = 0;
};

template <class Cond>
bool waitFor(Cond done, std::chrono::seconds limit = 30s) {
    return orvtest::waitFor(done, static_cast<double>(limit.count()));
}

class Uplink : public testing::Test {
protected:
    void SetUp() override {
        domain = orvtest::useLoopbackDds((dir.path() / "cyclone.xml").string());
        ASSERT_TRUE(input.bound());
        for (int& p : ports) p = orvtest::freePort();
        access.setIniPath(
            dir.write("orvaccess.ini",
                      orvtest::receiverIni(ports, "udpOrvRxInputPort = " + std::to_string(input.port()) +
                                                      "\ntcpOrvRxAddr = 127.0.0.1\n")));
        ASSERT_TRUE(access.open()) << access.getLastError();
        opt.domain = domain;
    }
    // Passes at the one clock reading `nowUs` until the bridge has taken (or
    // DDS has reported lost) `samples` uplink samples in all.
    bool passUntilTaken(orvbridge::Bridge& b, uint64_t samples, uint64_t nowUs) {
        return waitFor([&] {
            b.pass(nowUs);
            const orvbridge::Counts& c = b.counts();
            uint64_t taken = c.uplinkLost;
            for (Topic t : kUplink) taken += c.of(t);
            return taken >= samples;
        });
    }

    orvtest::TempDir dir;
    uint32_t domain = 0;
    InputPort input;
    int ports[5] = {};
    OrvAccess access;
    orvbridge::Options opt;
};

orv_msgs_msg_dds__PlatformPose_ pose(uint32_t tag, float roll, float pitch = 0.0f, float yaw = 0.0f) {
    return {tag, roll, pitch, yaw};
}

orv_msgs_msg_dds__GpsData_ gps(double lat, double lon) {
    orv_msgs_msg_dds__GpsData_ g{};
    g.valid = 1;
    g.lat = lat;
    g.lon = lon;
    return g;
}

// Without --uplink the bridge has no reader on the uplink topics: once it
// is discovered (it reads nothing, but its pose writer is seen), nothing
// matches the publisher's writers, and what they write never goes up.
TEST_F(Uplink, WithoutTheFlagTheUplinkTopicsAreNotRead) {
    orvbridge::Bridge bridge(access, opt);
    std::string error;
    ASSERT_TRUE(bridge.open(error)) << error;
    Publisher mission(domain);
    ASSERT_TRUE(mission.ok());
    ASSERT_TRUE(waitFor([&] { return mission.seesBridge(); })) << "the bridge was never discovered";
    for (Topic t : kUplink) EXPECT_EQ(mission.matched(t), 0) << orvbridge::topicName(t, "orv");
    for (uint32_t tag = 1; tag <= 5; ++tag) {
        const auto p = pose(tag, 0.1f);
        mission.write(Topic::UplinkPlatform, &p);
    }
    const orv_msgs_msg_dds__InputData_ in{7};
    mission.write(Topic::UplinkInput, &in);
    for (int i = 0; i < 20; ++i) bridge.pass(1000);
    for (Topic t : kUplink) EXPECT_EQ(bridge.counts().of(t), 0u);
    EXPECT_EQ(bridge.counts().uplinkSent, 0u);
    EXPECT_TRUE(input.take().empty());
}

// NaN, infinite and out-of-range numbers are refused and counted, each
// with its reason as the last failure; the good samples around them go up,
// and exactly those reach orvRx's port.
TEST_F(Uplink, SamplesWithNumbersOutOfRangeAreRefusedAndCounted) {
    opt.uplink = true;
    orvbridge::Bridge bridge(access, opt);
    std::string error;
    ASSERT_TRUE(bridge.open(error)) << error;
    Publisher mission(domain);
    ASSERT_TRUE(mission.ok());
    for (Topic t : kUplink)
        ASSERT_TRUE(waitFor([&] { return mission.matched(t) > 0; })) << orvbridge::topicName(t, "orv");

    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const orv_msgs_msg_dds__PlatformPose_ poses[] = {pose(1, 0.1f), pose(2, nan), pose(3, 0.0f, inf),
                                                     pose(4, 0.0f, 0.0f, 7.0f), pose(5, -3.0f, 1.5f, 6.0f)};
    for (const auto& p : poses) mission.write(Topic::UplinkPlatform, &p);
    std::vector<orv_msgs_msg_dds__GpsData_> fixes = {gps(1e308, 8.0),   gps(47.0, std::nan("")),
                                                     gps(91.0, 8.0),    gps(47.0, 8.0),
                                                     gps(47.0, -181.0), gps(47.0, 8.0)};
    fixes[3].gpsValue1 = inf;
    fixes[5].gpsByte2 = 0x1FF;
    fixes.push_back(gps(-90.0, 180.0));
    for (const auto& g : fixes) mission.write(Topic::UplinkGps, &g);
    const orv_msgs_msg_dds__InputData_ in{0x2A};
    mission.write(Topic::UplinkInput, &in);

    constexpr uint64_t kWritten = 5 + 7 + 1;
    ASSERT_TRUE(passUntilTaken(bridge, kWritten, 1000));
    const orvbridge::Counts& c = bridge.counts();
    EXPECT_EQ(c.uplinkLost, 0u);
    EXPECT_EQ(c.uplinkRefusedValue, 3u + 6u);
    EXPECT_EQ(c.uplinkRefusedRate, 0u);
    EXPECT_EQ(c.uplinkSent, 2u + 1u + 1u);
    EXPECT_EQ(c.uplinkFailed, 0u);
    EXPECT_NE(c.lastFailure.find("refused a sample on rt/orv/uplink/"), std::string::npos) << c.lastFailure;

    std::vector<std::pair<int, size_t>> got;
    ASSERT_TRUE(waitFor([&] {
        for (const auto& d : input.take()) got.push_back(d);
        return got.size() >= 4;
    }));
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::pair<int, size_t>>{{7, 21}, {7, 21}, {8, 5}, {8, 73}}));
}

// A flood above the limit is cut: with the bridge's clock standing still,
// a burst of 60 samples gets the bucket's 5 through; 100 ms later at
// 100 a second the bucket holds 5 again (its size), no more. Every
// sample is either sent, refused or reported lost, and exactly the sent ones
// reach orvRx's port.
TEST_F(Uplink, AFloodAboveTheRateIsCutAndCounted) {
    opt.uplink = true;
    opt.uplinkRatePerS = 100.0;
    opt.uplinkBurst = 5.0;
    opt.uplinkPartition = "mission";
    orvbridge::Bridge bridge(access, opt);
    std::string error;
    ASSERT_TRUE(bridge.open(error)) << error;
    Publisher outsider(domain), mission(domain, "mission");
    ASSERT_TRUE(outsider.ok() && mission.ok());
    ASSERT_TRUE(waitFor([&] { return mission.matched(Topic::UplinkPlatform) > 0 && outsider.seesBridge(); }));
    // Outside the partition nothing matches.
    EXPECT_EQ(outsider.matched(Topic::UplinkPlatform), 0);

    const uint64_t t0 = 5000000;
    for (uint32_t tag = 1; tag <= 60; ++tag) {
        const auto p = pose(tag, 0.01f);
        mission.write(Topic::UplinkPlatform, &p);
    }
    ASSERT_TRUE(passUntilTaken(bridge, 60, t0));
    const orvbridge::Counts& c = bridge.counts();
    EXPECT_EQ(c.uplinkSent, 5u);
    EXPECT_EQ(c.uplinkSent + c.uplinkRefusedRate + c.uplinkLost, 60u);

    for (uint32_t tag = 61; tag <= 80; ++tag) {
        const auto p = pose(tag, 0.01f);
        mission.write(Topic::UplinkPlatform, &p);
    }
    ASSERT_TRUE(passUntilTaken(bridge, 80, t0 + 100000));
    EXPECT_EQ(c.uplinkSent, 10u);
    EXPECT_EQ(c.uplinkSent + c.uplinkRefusedRate + c.uplinkLost, 80u);
    EXPECT_EQ(c.uplinkRefusedValue, 0u);
    EXPECT_NE(c.lastFailure.find("more than 100 a second"), std::string::npos) << c.lastFailure;

    size_t arrived = 0;
    ASSERT_TRUE(waitFor([&] {
        arrived += input.take().size();
        return arrived >= 10;
    }));
    EXPECT_EQ(arrived + input.take().size(), 10u);
}

// The bucket itself, on made-up clocks: the rate and the burst, and a clock
// that steps back refills nothing.
TEST(RateLimit, RefillsAtItsRateUpToItsBurst) {
    orvbridge::RateLimit r(1000.0, 3.0);
    int taken = 0;
    for (int i = 0; i < 10; ++i) taken += r.take(100);
    EXPECT_EQ(taken, 3);
    EXPECT_FALSE(r.take(100 + 500));  // half a sample
    EXPECT_TRUE(r.take(100 + 1000));
    EXPECT_FALSE(r.take(50));  // back in time
    taken = 0;
    for (int i = 0; i < 10; ++i) taken += r.take(1000000);
    EXPECT_EQ(taken, 3);
}

}  // namespace
