// The bridge between one open access object and a DDS domain: every record
// the library queues is taken and written to its topic, the status words go
// out once a second, and what a mission computer publishes on the uplink
// topics is sent up to orvRx. No thread: the caller runs pass() in a loop,
// and all network work of the library happens inside its getters there.
#pragma once

#include <orvaccess/OrvAccess.hpp>

#include <dds/dds.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Convert.hpp"
#include "Topics.hpp"
#include "UplinkGuard.hpp"
#include "watch/Watchdog.hpp"

namespace orvbridge {

struct Options {
    uint32_t domain = 0;
    std::string ns = "orv";             // topics rt/<ns>/...
    double horizonMs = 20.0;            // of the predicted pose, beyond its pose time
    std::string frame = "orv_nav";      // frame_id of the poses: the tracker's navigation frame
    std::string imuFrame = "orv_imu";   // frame_id of the IMU samples
    std::string gpsFrame = "orv_gps";   // frame_id of the GPS fixes
    std::string hardwareId;             // hardware_id of the diagnostics (orvRx's address)
    Attitude attitude = Attitude::BodyToNav;
    bool reliable = false;              // streams reliable, keep all
    int maxBlockingMs = kDefaultMaxBlockingMs;  // longest a reliable write waits for its readers
    // The uplink: read only when asked for, each sample checked, at most
    // uplinkRatePerS a second per topic (bursts of uplinkBurst), and only
    // from writers in uplinkPartition when one is named.
    bool uplink = false;
    double uplinkRatePerS = 100.0;
    double uplinkBurst = 10.0;
    std::string uplinkPartition;
};

// What went out and what came in, by topic.
struct Counts {
    uint64_t written[kTopicCount] = {};  // for the uplink topics: samples taken
    uint64_t writeFailures = 0;   // a DDS write that returned an error (a reliable write that timed out)
    uint64_t uplinkSent = 0;      // uplink samples the library sent to orvRx
    uint64_t uplinkFailed = 0;    // ... that the library could not send, or that DDS lost before the take
    uint64_t uplinkLost = 0;      // samples DDS reported lost or rejected before the bridge took them
    uint64_t uplinkRefusedValue = 0;  // samples not sent: a number out of range, NaN or infinite
    uint64_t uplinkRefusedRate = 0;   // samples not sent: above the rate limit
    uint64_t libraryFailures = 0; // getters that returned false
    uint64_t unpublished = 0;     // records of kinds without a topic, taken so that their queues stay empty
    std::string lastFailure;      // the latest of either kind of failure

    uint64_t of(Topic t) const { return written[static_cast<int>(t)]; }
};

class Bridge {
public:
    Bridge(OrvAccess& access, Options options);
    ~Bridge();
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    // Creates the participant, the topics, the writers and the uplink
    // readers. False with `error` saying why.
    bool open(std::string& error);
    // The number of readers that match the pose writer.
    int poseSubscribers() const;
    // The number of writers an uplink reader reads from; 0 without --uplink.
    int uplinkWriters(Topic t) const;
    // Takes everything the library has queued and writes it, sends up what
    // arrived on the uplink topics, and the status once a second. nowUs on
    // the library clock.
    void pass(uint64_t nowUs);
    // Sleeps up to timeoutUs, less when uplink data arrives.
    void wait(int64_t timeoutUs);

    const Counts& counts() const { return counts_; }
    // Gets the streams back when they stop; its state and counts go out in
    // the diagnostics. Null: none.
    void setWatchdog(orvwatch::Watchdog* watchdog) { watchdog_ = watchdog; }

private:
    bool write(Topic t, const void* sample);
    template <typename R, typename Get, typename Each>
    void drain(const char* getter, Get get, Each each);
    void drainLibrary();
    void discardUnpublished();
    void writePredicted();
    void takeUplink(uint64_t nowUs);
    void countLostUplink(Topic t);
    bool checkUplink(Topic t, const void* sample, uint64_t nowUs);
    void writeStatus(uint64_t nowUs);
    void fail(const std::string& what);

    OrvAccess& access_;
    Options opt_;
    Counts counts_;
    dds_entity_t domain_ = 0;  // when this bridge created it
    dds_entity_t participant_ = 0;
    dds_entity_t writers_[kTopicCount] = {};
    dds_entity_t readers_[kTopicCount] = {};
    dds_entity_t waitset_ = 0;
    std::vector<RateLimit> limits_;  // one per uplink topic, in topic order
    uint64_t nextStatusUs_ = 0;
    orvwatch::Watchdog* watchdog_ = nullptr;
};

}  // namespace orvbridge
