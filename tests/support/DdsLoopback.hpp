// Cyclone DDS on loopback only, for the tests and the benchmark of the
// bridge: unicast discovery on 127.0.0.1, no multicast, so that nothing
// leaves the machine and runs in other domains never meet.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace orvtest {

// Writes the configuration to `path` and names it in CYCLONEDDS_URI, which
// this process and the children it starts afterwards read when they join a
// domain. Returns a domain id for this process (1 to 200, from its pid).
inline uint32_t useLoopbackDds(const std::string& path) {
    std::ofstream(path) << "<CycloneDDS><Domain id=\"any\"><General><Interfaces>"
                           "<NetworkInterface address=\"127.0.0.1\"/></Interfaces>"
                           "<AllowMulticast>false</AllowMulticast></General><Discovery><Peers>"
                           "<Peer address=\"127.0.0.1\"/></Peers><ParticipantIndex>auto</ParticipantIndex>"
                           "<MaxAutoParticipantIndex>20</MaxAutoParticipantIndex></Discovery></Domain></CycloneDDS>";
    setenv("CYCLONEDDS_URI", ("file://" + path).c_str(), 1);
    return 1 + static_cast<uint32_t>(getpid()) % 200;
}

}  // namespace orvtest
