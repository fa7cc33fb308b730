// What the bridge's tests share: reading the bridge's summary, a Cyclone DDS
// configuration for one host's interface, the three hosts of the tests
// across hosts, and the uplink that the example publishers send.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <unistd.h>

#include "orvsim/Simulator.hpp"
#include "support/NetLab.hpp"
#include "support/SimRunner.hpp"
#include "support/TestSupport.hpp"

namespace orvtest {

// The bridge's summary: "rt/<topic> <count> ..." lines.
inline uint64_t published(const std::string& out, const std::string& topic) {
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string name;
        uint64_t n = 0;
        if (fields >> name >> n && name == topic) return n;
    }
    return 0;
}

// Cyclone DDS on one interface of a host, with multicast discovery.
inline std::string cycloneOn(const TempDir& dir, const std::string& name, const std::string& address) {
    return "file://" +
           dir.write(name,
                     "<CycloneDDS><Domain id=\"any\"><General><Interfaces><NetworkInterface address=\"" +
                         address + "\"/></Interfaces></General></Domain></CycloneDDS>");
}

// The tracker (10.250.1.2), the bridge (10.250.1.1 towards the tracker,
// 10.250.3.1 towards the viewer) and the viewer (10.250.3.2), with the
// simulator running on the tracker and sending to the bridge. Writes the
// library's file to *ini. Call through ASSERT_NO_FATAL_FAILURE.
inline void startThreeHosts(NetLab& lab, const TempDir& dir, SimThread& sim, const std::string& shmPrefix,
                            std::string* ini) {
    for (const char* h : {"tracker", "bridge", "viewer"}) ASSERT_TRUE(lab.addHost(h)) << lab.error();
    ASSERT_TRUE(lab.link("tracker", "10.250.1.2/24", "bridge", "10.250.1.1/24")) << lab.error();
    ASSERT_TRUE(lab.link("bridge", "10.250.3.1/24", "viewer", "10.250.3.2/24")) << lab.error();
    *ini = dir.write("orvaccess.ini", "[Communication]\ntcpOrvRxAddr = 10.250.1.2\nsMemImgName = " + shmPrefix +
                                          std::to_string(getpid()) + "\n");
    EnterHost in(lab, "tracker");
    ASSERT_TRUE(in.ok());
    orvsim::SimConfig cfg;
    std::string error;
    ASSERT_TRUE(orvsim::SimConfig::fromIni(*ini, cfg, error)) << error;
    cfg.sendAddress = "10.250.1.1";
    cfg.fileFolder = dir.prefix();
    ASSERT_TRUE(sim.start(cfg));
}

// What the example publishers (orvsub --uplink, fastdds_peer --uplink) send
// up, as the simulator counted it: 5 platform poses, the last tagged 105;
// 2 GPS fixes at 47.5, 8.125; 3 input codes, the last 0x2A; nothing damaged.
inline void expectExampleUplink(const orvsim::UplinkReport& u, const std::string& context) {
    EXPECT_EQ(u.platformPoses, 5u) << context;
    EXPECT_EQ(u.lastPlatformTag, 105u);
    EXPECT_EQ(u.gps, 2u);
    EXPECT_EQ(u.lastLat, 47.5);
    EXPECT_EQ(u.lastLon, 8.125);
    EXPECT_EQ(u.inputs, 3u);
    EXPECT_EQ(u.lastInput, 0x2A);
    EXPECT_EQ(u.bad, 0u);
}

}  // namespace orvtest
