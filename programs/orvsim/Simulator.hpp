// The whole tracking system on one machine: orvRx (command server, meta
// packets, camera images over UDP, the uplink receiver), orvCore (tracking
// and PRA packets), orvHub (hub packets and the shared-memory image) and the
// NFT source, all driven by one ground-truth head motion.
//
// Single-threaded: open() once, then step() as often as possible (or run(),
// which does that until a duration passes or a stop flag is raised). The IMU
// sample clock is the master: sample k is taken at start + k * period on the
// library's microsecond clock, and every stream is a whole multiple of that
// period. A packet carrying sample k goes out at the first step at or after
// the sample's time; a step that finds itself far behind skips ahead instead
// of bursting (and orvCore reports the skipped sequence ids).
//
// What depends on streaming: meta packets, tracking and PRA packets (orvCore
// fuses orvRx's data, so it goes quiet with it) and images over UDP flow only
// while register 0 is non-zero; hub, NFT and shared-memory images always do.
// When streaming stops, datagrams held back for reordering go out at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "IniKeys.hpp"
#include "orvsim/Faults.hpp"
#include "orvsim/Motion.hpp"
#include "orvsim/RxServer.hpp"
#include "orvsim/Wire.hpp"

namespace orvsim {

// The datagram streams, each with its own fault injector and counts.
enum class Stream { Tracking, Pra, Meta, Image, Hub, Nft, Count };
constexpr int kStreamCount = static_cast<int>(Stream::Count);
const char* streamName(Stream s);  // "tracking", "pra", "meta", "image", "hub", "nft"
// The error code the library queues for a damaged datagram of the stream.
unsigned short streamErrorCode(Stream s);

// Rates in Hz; 0 switches a stream off. Every rate is rounded to a whole
// divisor of the IMU rate.
struct SimRates {
    double imu = 1000.0;       // meta packets, one IMU sample each
    double tracking = 500.0;   // orvCore tracking packets
    double optical = 50.0;     // tracking packets that carry an optical subpacket
    double pra = 2.0;          // orvCore PRA packets
    double hub = 100.0;        // orvHub data packets
    double nft = 30.0;         // NFT packets
    double image = 4.0;        // camera images over UDP
    double sharedImage = 4.0;  // camera images in shared memory
    double diag = 10.0;        // diagnostic subpackets
    double target = 5.0;       // target lists (each spread over two subpackets)
    double platPose = 50.0;    // platform-pose subpackets
    double gps = 5.0;          // GPS subpackets
    double errorPeriodS = 5.0; // an orvRx error byte, an orvHub error packet; 0: never
};

struct SimConfig {
    // Where everything goes: the TCP server listens there and every
    // datagram is sent there. Dotted decimal or "localhost".
    std::string address = "127.0.0.1";
    // Where the datagrams go when that is another host than the one the
    // command server listens on (dotted decimal); empty: `address`.
    std::string sendAddress;
    // 0 disables a port.
    // The defaults are the library's (its table of configuration keys).
    int tcpPort = orvini::defaultPort(orvini::Key::tcpOrvRxPort);
    int metaPort = orvini::defaultPort(orvini::Key::udpOrvRxPort);
    int imagePort = orvini::defaultPort(orvini::Key::udpOrvRxImgPort);
    int inputPort = orvini::defaultPort(orvini::Key::udpOrvRxInputPort);
    int corePort = orvini::defaultPort(orvini::Key::udpOrvCorePort);
    int hubPort = orvini::defaultPort(orvini::Key::udpOrvHubPort);
    int nftPort = orvini::defaultPort(orvini::Key::udpNftPort);
    // Empty: no shared-memory image.
    std::string sharedMemName = orvini::defaultText(orvini::Key::sMemImgName);
    // At most these permission bits for the image and its semaphore.
    unsigned int sharedMemMode = orvini::defaultMode(orvini::Key::sMemImgMode);
    std::string fileFolder = ".";                // what get and put file work on

    SimRates rates;
    unsigned char imageFormat = 10;  // a format code of OrvosiUtil::GetImageResolution
    size_t imagePiece = 8192;        // pixel bytes per image datagram
    FaultRates faults[kStreamCount];
    uint32_t seed = 1;
    RxServer::Replies replies = RxServer::Replies::Normal;
    Motion motion;  // the smooth head motion unless a profile is chosen
    // orvRx's start-up: the streams that depend on streaming begin this long
    // after register 0 turns on.
    double startupS = 0.0;
    // Hub, NFT and shared-memory images flow only while streaming too, as
    // in a system started and stopped as one; a run can then account for
    // every datagram.
    bool followStreaming = false;

    // Ports, address and shared-memory name from the library's own
    // configuration file (missing keys take the library's defaults). False
    // with `error` set when a port or the address cannot be used.
    static bool fromIni(const std::string& path, SimConfig& out, std::string& error);
};

struct StreamReport {
    uint64_t built = 0;  // datagrams generated
    FaultCounts faults;  // what the injector did with them
    uint64_t sendFailures = 0;
};

struct UplinkReport {
    uint64_t platformPoses = 0;
    uint64_t gps = 0;
    uint64_t inputs = 0;
    uint64_t bad = 0;  // failed the framing check, or a size or format no packet has
    uint32_t lastPlatformTag = 0;
    unsigned char lastInput = 0;
    double lastLat = 0.0, lastLon = 0.0;
};

struct SimReport {
    double seconds = 0.0;
    uint64_t samples = 0;         // IMU sample periods that passed
    uint64_t skippedSamples = 0;  // given up to catch up after a stall
    StreamReport streams[kStreamCount];
    uint64_t hubErrors = 0;       // hub error packets (sent as they are, no faults)
    uint64_t coreErrorBytes = 0;  // orvCore error bytes in tracking packets
    uint64_t rxErrorBytes = 0;    // orvRx error bytes in diagnostic subpackets
    uint64_t imagesUdp = 0;       // images whose pieces were all handed to the image stream
    uint64_t imagesShared = 0;    // images published in shared memory
    uint64_t sharedUnread = 0;    // published over one the reader had not taken
    UplinkReport uplink;
    uint64_t commands = 0;
    uint64_t commandsRejected = 0;
};

class Simulator {
public:
    explicit Simulator(SimConfig config);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Opens the command server, the uplink receiver, one sender per port
    // and the shared-memory region. A region semaphore that a killed
    // producer left taken is given back after a second's grace. False with
    // lastError() set.
    bool open();
    // Serves commands and the uplink, then sends everything due by nowUs.
    void step(uint64_t nowUs);
    // Steps until `seconds` have passed (0: no limit) or *stop turns true.
    void run(double seconds, const std::atomic<bool>* stop);
    // Sends what reordering still holds back and closes everything; the
    // shared-memory region and its semaphore are removed.
    void close();

    SimReport report() const;
    const std::string& lastError() const { return lastError_; }
    const SimConfig& config() const { return cfg_; }
    const Motion& motion() const { return motion_; }
    RxServer& rx() { return rx_; }

    // The clock-relation bit that the chip packet of IMU sample k carries.
    static bool clockBit(uint64_t k);
    // Time of IMU sample k on the library clock (valid after the first step).
    uint64_t sampleTimeUs(uint64_t k) const { return startUs_ + k * periodUs_; }
    uint64_t imuPeriodUs() const { return periodUs_; }

private:
    struct Impl;
    void emitSample(uint64_t k);
    void serveUplink(uint64_t nowUs);
    void send(Stream s, Datagram d);
    void sendImagePieces();
    void flushHeld();

    SimConfig cfg_;
    Motion motion_;
    RxServer rx_;
    std::unique_ptr<Impl> impl_;
    std::string lastError_;
    uint64_t periodUs_ = 1000;
    uint64_t startUs_ = 0;
    uint64_t nextSample_ = 0;
    uint64_t streamingSinceUs_ = 0;
    bool streaming_ = false;  // register 0 on, start-up over
    bool started_ = false;
    bool open_ = false;
};

}  // namespace orvsim
