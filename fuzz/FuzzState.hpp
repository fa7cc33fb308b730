// The state an open access object gives its parsers, built afresh for every
// input from a setup block at the input's start, so that an input replays
// the same way alone or in a run; and the invariants it must keep whatever
// the parsers were fed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "access/State.hpp"
#include "FuzzSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace orvfuzz {

// Verbosity and logging masks, one bound for every queue (0: the default)
// and the size of the two image buffers, chosen from a few that matter:
// room for the small formats only, almost none, none at all and (the
// default, rarely, as it costs the most) room for any image.
struct Setup {
    uint32_t verbosity = 0;
    uint16_t logging = 0;
    uint8_t queueBound = 0;
    uint8_t imageBuffers = 0;
};
constexpr size_t kSetupSize = 8;
inline uint32_t imageBufferBytes(uint8_t choice) {
    if (choice == 0xFF) return 0x400000;
    if (choice == 0xFE) return 0;
    return choice % 2 != 0 ? 400000 : 4096;
}

inline Setup readSetup(const unsigned char* data, size_t size) {
    OrvosiReader r(data, size);
    Setup s;
    s.verbosity = r.u32();
    s.logging = r.u16();
    s.queueBound = r.u8();
    s.imageBuffers = r.u8();
    return s;
}

inline void appendSetup(Bytes& input, const Setup& s) {
    unsigned char block[kSetupSize];
    OrvosiWriter w(block, sizeof block);
    w.u32(s.verbosity);
    w.u16(s.logging);
    w.u8(s.queueBound);
    w.u8(s.imageBuffers);
    input.insert(input.end(), block, block + sizeof block);
}

// What init() leaves behind, with the configuration of the setup block; log
// files go to this process's scratch folder.
inline std::unique_ptr<OrvAccess::State> freshState(const Setup& setup) {
    auto s = std::make_unique<OrvAccess::State>();
    OrvAccessConfig& c = s->cfg;
    c.verbosity = setup.verbosity;
    c.logging = setup.logging;
    c.logPath = scratchDir();
    if (setup.queueBound != 0) {
        c.imuQueueSize = c.targetQueueSize = c.trackingQueueSize = setup.queueBound;
        c.gpsQueueSize = c.errorCodeQueueSize = setup.queueBound;
    }
    c.imgBufSize = imageBufferBytes(setup.imageBuffers);
    s->applyQueueBounds();
    s->img.init(c.imgBufSize);
    for (OrvAccess::s_ImuCrsBuf& crs : s->imuCrs) {
        crs.fillRow = 0;
        crs.completeRow = -1;
        crs.lastPid = -1;
    }
    return s;
}

// Log files grow with every logged input; they are dropped now and then so
// that a long run does not fill the disk.
inline void tidyLogs() {
    static unsigned int inputs = 0;
    if (++inputs % 4096 != 0) return;
    OrvUtil::resetLogState();
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(scratchDir(), ec))
        if (entry.path().extension() == ".log") std::filesystem::remove(entry.path(), ec);
}

template <typename T>
void requireBounded(const RecordQueue<T>& q, const char* what) {
    require(q.size() <= q.bound(), what);
}

inline void checkState(const OrvAccess::State& s) {
    requireBounded(s.imu[0], "platform IMU queue within its bound");
    requireBounded(s.imu[1], "camera IMU queue within its bound");
    requireBounded(s.targets, "target queue within its bound");
    requireBounded(s.diag, "diagnostic queue within its bound");
    requireBounded(s.tracking, "tracking queue within its bound");
    requireBounded(s.targetRes, "target residual queue within its bound");
    requireBounded(s.poseRec, "pose recovery queue within its bound");
    requireBounded(s.platPose, "platform pose queue within its bound");
    requireBounded(s.hubData, "hub queue within its bound");
    requireBounded(s.features, "feature queue within its bound");
    requireBounded(s.gps, "GPS queue within its bound");
    requireBounded(s.errors, "error code queue within its bound");
    requireBounded(s.aux, "auxiliary queue within its bound");

    const ImageState& img = s.img;
    require(img.fill == 0 || img.fill == 1, "one of the two image buffers is being filled");
    require(img.complete == -1 || (img.complete == 1 - img.fill), "a complete image is in the other buffer");
    require(img.received <= img.size, "no image piece written past the buffer");
    require(img.progress >= 0 && img.progress <= 99, "progress below 100 until complete");
    for (const OrvAccess::s_ImuCrsBuf& crs : s.imuCrs) {
        require(crs.lastPid >= -1 && crs.lastPid <= 255, "a packet id of one byte");
        require(crs.completeRow >= -1 && crs.completeRow <= 1, "one of two clock-relation rows");
    }
}

// One input of a harness that feeds the parsers a state: a fresh state from
// the setup block, then each record handed to `visit` with it, the
// invariants checked after every one.
template <typename F>
void replay(const unsigned char* data, size_t size, F&& visit) {
    static const bool silenced = (silenceStreams(), true);
    (void)silenced;
    if (size < kSetupSize) return;
    auto state = freshState(readSetup(data, size));
    forEachRecord(data + kSetupSize, size - kSetupSize, [&](const Record& r) {
        visit(*state, r);
        checkState(*state);
    });
    tidyLogs();
}

}  // namespace orvfuzz
