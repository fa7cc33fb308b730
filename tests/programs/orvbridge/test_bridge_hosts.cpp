// orvbridge across hosts: the tracker, the bridge (with the library) and a
// DDS subscriber each in a network namespace of their own, joined by veth
// pairs. DDS finds its peers by multicast on the link between the bridge
// and the subscriber, as ROS 2 does by default.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "BridgeHosts.hpp"
#include "orvsim/Simulator.hpp"
#include "support/NetLab.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

using orvtest::EnterHost;
using orvtest::NetLab;
using orvtest::cycloneOn;
using orvtest::published;

namespace {

}  // namespace

TEST(BridgeHosts, ASubscriberOnAnotherHostGetsEveryPoseAcrossAnOutage) {
    const std::string why = NetLab::unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    NetLab lab;
    orvtest::TempDir dir;
    orvtest::SimThread sim;
    std::string ini;
    ASSERT_NO_FATAL_FAILURE(orvtest::startThreeHosts(lab, dir, sim, "orvBrH", &ini));

    const std::string domain = std::to_string(1 + getpid() % 200);
    const auto onHost = [&](const std::string& host, const std::string& uri, std::vector<std::string> argv) {
        argv.insert(argv.begin(),
                    {"/usr/bin/env", "CYCLONEDDS_URI=" + uri, "ip", "netns", "exec", lab.ns(host)});
        return argv;
    };
    orvtest::Process sub(onHost("viewer", cycloneOn(dir, "viewer.xml", "10.250.3.2"),
                                {ORVSUB, "--domain", domain, "--reliable", "--until-publisher-leaves"}),
                         dir.prefix() + "sub.out", dir.prefix() + "sub.err");
    // The bridge waits for the subscriber across the link before it takes
    // its first record, so that the subscriber can be expected to get all.
    orvtest::Process bridge(onHost("bridge", cycloneOn(dir, "bridge.xml", "10.250.3.1"),
                                   {ORVBRIDGE, "--ini", ini, "--domain", domain, "--reliable", "--duration",
                                    "4", "--wait-subscribers", "1", "--wait-timeout", "30"}),
                            dir.prefix() + "bridge.out", dir.prefix() + "bridge.err");
    // Once poses flow, the tracker's cable is pulled for a second.
    orvtest::waitFor([&] { return !sub.out().empty() || !bridge.running(); }, 60.0);
    ASSERT_FALSE(sub.out().empty()) << sub.err() << bridge.err();
    ASSERT_TRUE(lab.setLink("tracker", "bridge", false)) << lab.error();
    const double downS =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    // The outage itself lasts a second: its length is the scenario, not a wait for a result.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double upS =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    ASSERT_TRUE(lab.setLink("tracker", "bridge", true)) << lab.error();
    ASSERT_EQ(bridge.wait(60.0), 0) << bridge.err();
    ASSERT_EQ(sub.wait(30.0), 0) << sub.err();
    sim.stop();

    const uint64_t poses = published(bridge.out(), "rt/orv/pose");
    EXPECT_GT(poses, 100u) << bridge.out();
    EXPECT_NE(sub.err().find("orvsub: " + std::to_string(poses) + " poses"), std::string::npos)
        << sub.err() << "\n"
        << bridge.out();
    // One line per pose, as the bridge published them (the NFT source's
    // poses among them, in the order they arrived); a gap in the stamps
    // where the outage was (a tracker that lags sends a sample late, so
    // not quite all of it), and the stream back after it.
    std::istringstream lines(sub.out());
    uint64_t n = 0, after = 0;
    std::vector<double> stamps;
    for (std::string line; std::getline(lines, line); ++n) {
        const double stampS = std::stod(line);
        stamps.push_back(stampS);
        after += stampS > upS;
    }
    EXPECT_EQ(n, poses);
    std::sort(stamps.begin(), stamps.end());
    double gap = 0.0;
    for (size_t i = 1; i < stamps.size(); ++i) gap = std::max(gap, stamps[i] - stamps[i - 1]);
    EXPECT_GE(gap, 0.5 * (upS - downS));
    EXPECT_GT(after, 0u);
}
