// Everything an access object owns: configuration, endpoints, queues,
// latest records and counters. Private to the library; the public class
// holds it by pointer so that none of this reaches the public headers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "access/Config.hpp"
#include "access/receive/ImageState.hpp"
#include "access/PredictionState.hpp"
#include "access/receive/RecordQueue.hpp"
#include "access/receive/SenderFilter.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiReadySet.hpp"
#include "os/OrvosiSharedMem.hpp"
#include "os/OrvosiTcp.hpp"
#include "os/OrvosiUdp.hpp"
#include "os/OrvosiUtil.hpp"
#include "math/OrvPose.hpp"
#include "wire/Packets.hpp"

// No configuration key bounds the hub data queue; it gets the bound the
// configurable queues have by default.
constexpr uint32_t kHubQueueSize = 10000;

// Largest datagram any port can deliver, and what parsers may reach for.
constexpr size_t kReceiveBufferSize = orvwire::kMaxDatagram;

// Datagrams read from one endpoint in one system call and handed to the
// service loop one per pass, so that a burst costs one read per batch, not
// one per datagram, and the dispatch order stays one per endpoint per pass.
// Every slot holds the largest datagram whole; the storage is allocated
// with the endpoint and only the pages datagrams land on are ever touched.
struct ReadAhead {
    static constexpr size_t kSlots = 16;
    std::unique_ptr<unsigned char[]> storage;
    size_t sizes[kSlots] = {};
    uint32_t from[kSlots] = {};  // senders, network byte order; filled only while senders are filtered
    size_t count = 0;  // datagrams in the slots
    size_t next = 0;   // the next one to hand out
    size_t reserved = 0;  // slots in the storage

    bool empty() const { return next == count; }
    void clear() { count = next = 0; }
    // Room for `slots` datagrams (at most kSlots), made once for the
    // object's life: a later call never shrinks it.
    void reserve(size_t slots) {
        if (slots > reserved) {
            storage.reset(new unsigned char[slots * kReceiveBufferSize]);
            reserved = slots;
        }
    }
    unsigned char* slot(size_t i) const { return storage.get() + i * kReceiveBufferSize; }
};

struct OrvAccess::State {
    State();

    OrvAccessConfig cfg;
    std::string iniPath = "orvaccess.ini";
    std::string lastError;

    // When set, the getters leave the sockets alone; init() clears it and
    // nothing in the library sets it.
    bool manualService = false;
    bool isOpen = false;
    bool streaming = false;

    // Channels, each with the flag the last open() left.
    OrvosiTcpClient tcp;
    bool tcpOpen = false;
    OrvosiUdpServer input;
    bool inputOpen = false;
    OrvosiUdpClient meta;
    bool metaOpen = false;
    OrvosiUdpClient image;
    bool imageOpen = false;
    OrvosiUdpClient core;
    bool coreOpen = false;
    OrvosiUdpClient hub;
    bool hubOpen = false;
    OrvosiUdpClient nft;
    bool nftOpen = false;
    std::unique_ptr<OrvosiSharedMem> sharedMem;
    bool sharedMemOk = false;

    // The senders the receivers take datagrams from (off: every sender),
    // and per receiver, in the loop's order, the datagrams dropped unread
    // because another sent them; both set at open.
    SenderFilter senders;
    uint64_t senderDrops[orvwire::kPortCount] = {};

    // Status counters reported and cleared by getStatus().
    uint32_t receivedMask = 0;
    uint32_t newError = 0;
    uint32_t diagWord = 0;
    // orvRx state from the last diagnostic subpacket; 3 means it stopped streaming.
    uint32_t rxState = 0;

    // Record queues.
    RecordQueue<s_OrvAccessImuData> imu[2];
    RecordQueue<s_TgtData> targets;
    RecordQueue<s_OrvAccessDiagData> diag;
    RecordQueue<s_OrvAccessTrkDataExt> tracking;
    RecordQueue<s_TgtResData> targetRes;
    RecordQueue<s_OrvAccessPoseRecStats> poseRec;
    RecordQueue<s_OrvAccessPlatPoseData> platPose;
    RecordQueue<s_OrvAccessHubData> hubData;
    RecordQueue<s_FeatData> features;
    RecordQueue<s_OrvAccessGpsData> gps;
    RecordQueue<s_OrvAccessErrorCode> errors;
    RecordQueue<s_OrvAccessAuxData> aux;

    // Latest records and whether one has arrived since init().
    s_OrvAccessTrkDataExt latestTracking{};
    bool latestTrackingValid = false;
    s_OrvAccessImuData latestImu{};
    bool latestImuValid = false;
    s_OrvAccessAuxData latestAux{};
    bool latestAuxValid = false;
    s_OrvAccessDiagData latestDiag{};
    bool latestDiagValid = false;

    // Clock-relation assemblers, indexed by e_OrvAccessImuSelect.
    s_ImuCrsBuf imuCrs[2]{};
    // Sample interval of the last meta packet, s.
    float imuDt = 0.0f;

    // Pose adjustment (set from the configuration, changed by the setters).
    double predictionS = 0.0;
    double boresight[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    double tipOffset[3] = {0.0, 0.0, 0.0};
    // Whether the boresight and tip offset leave a record alone, decided
    // when they change rather than for every record handed out.
    bool neutralAdjustment = true;
    void noteAdjustment() { neutralAdjustment = OrvPose::isNeutral(boresight, tipOffset); }

    // Image reassembly.
    ImageState img;
    // Display-time prediction and clock alignment.
    PredictionState vs;

    // Datagrams read ahead, per endpoint in the service loop's order
    // (meta, image, orvCore, orvHub, NFT). Parsers see each through its real
    // size (OrvosiBytes), so what an earlier, longer datagram left in a slot
    // is never read.
    ReadAhead ahead[orvwire::kPortCount];
    // The open receivers' sockets, asked at once which have data, and the
    // receivers themselves in the loop's order (the set's member order);
    // both made by prepareReadAhead() at open.
    OrvosiReadySet readySet;
    unsigned char openPorts[orvwire::kPortCount] = {};
    size_t openPortCount = 0;

    // Set by a pose feed, which owns the object: a descriptor that wakes its
    // service thread from waitUdp() (joined to the ready set at open; -1:
    // none), and the most passes one serviceUdp() makes (0: no limit), so
    // that a flood cannot keep the thread from publishing or stopping.
    // Whatever a limited call leaves pending waits for the next call.
    int wakeFd = -1;
    size_t passLimit = 0;

    // The meta packet being parsed, for its IMU subpacket.
    uint32_t metaTag = 0;
    uint64_t metaTimeUs = 0;

    // Sets the queue bounds from the configuration.
    void applyQueueBounds();
    // Closes the TCP client, the uplink sender and the five receivers, in that order.
    void closeEndpoints();
    // Empties the read-ahead slots, and makes room for those of the open receivers.
    void prepareReadAhead();
    // Datagrams read ahead and not yet handed on, over the open receivers; a
    // read error may leave some from an earlier call.
    size_t heldDatagrams() const {
        size_t held = 0;
        for (size_t i = 0; i < openPortCount; ++i) held += ahead[openPorts[i]].count - ahead[openPorts[i]].next;
        return held;
    }
    // Empties every record queue and the error-code queue.
    void clearQueues();
    // Queues one error code and raises the new-error flag of the status.
    void addErrorCode(unsigned short code, unsigned int value);
    // Stores the reason of a failure; echoed as "ORVAERR: " under bit 0x4 when asked.
    void fail(const std::string& text, bool echo);
};

// The library's own way to an object's state from outside its members (the
// C wrappers' refusals, the pose feed).
struct OrvAccessWrapperAccess {
    static OrvAccess::State& state(OrvAccess& access) { return *access.st_; }
};

// The shape of every queue getter: service the ports (unless the manual
// switch is on), then hand out the oldest record. False only when servicing
// failed; *valid says whether a record came.
template <typename T, typename Queue>
bool OrvAccess::popRecord(Queue& queue, bool* valid, T* out) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    *valid = queue.pop(out);
    return true;
}
