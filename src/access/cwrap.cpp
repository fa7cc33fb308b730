// The exported C functions: thin wrappers that catch everything the object
// lets out and turn it into 0, "<exception>" or NULL.
#include "access/cwrap.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "access/State.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/OrvPoseFeed.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

// Handed out as a writable char* the caller owns for the moment: each thread
// gets its own copy, so that one caller scribbling on it cannot reach another.
thread_local char kExceptionText[] = "<exception>";

// Runs f and hands back its result, or fallback if anything was thrown.
template <class R, class F>
R guarded(R fallback, F&& f) noexcept {
    try {
        return f();
    } catch (...) {
        return fallback;
    }
}

// For functions without a result: an exception just ends the call.
template <class F>
void quietly(F&& f) noexcept {
    try {
        f();
    } catch (...) {
    }
}

// A bool method's result as the int 0 or 1; 0 after an exception.
template <class F>
int status(F&& f) noexcept {
    return guarded(0, [&] { return f() ? 1 : 0; });
}

// Bounded copy: at most len bytes, zero padding, and always a zero at
// buf[len - 1], so a text of len bytes or more is cut to len - 1 characters.
// A buffer of no bytes has no room even for the zero, and is left alone.
char* copyText(const std::string& text, char* buf, size_t len) {
    if (buf == nullptr || len == 0) return buf;
    std::strncpy(buf, text.c_str(), len);
    buf[len - 1] = '\0';
    return buf;
}

template <class F>
char* text(char* buf, size_t len, F&& f) noexcept {
    return guarded(static_cast<char*>(kExceptionText), [&] { return copyText(f(), buf, len); });
}

// Getters that report delivery through a bool*: the method gets a flag of
// ours, and the caller's int always ends up exactly 0 or 1, even when the
// method failed before touching the flag.
template <class F>
int delivering(int* delivered, F&& f) noexcept {
    bool flag = false;
    const int ok = status([&] { return f(&flag); });
    *delivered = flag ? 1 : 0;
    return ok;
}

void copy3(float* dst, const float* src) { std::copy(src, src + 3, dst); }

// A C caller may pass any int where the interface names an enumeration, but
// C++ may not even load a value that the enumeration cannot hold. Such an
// argument is read as the bits of its underlying integer instead, and only a
// value the enumeration can hold is made into one again.
template <class E>
std::underlying_type_t<E> bitsOf(const E& argument) {
    std::underlying_type_t<E> bits;
    std::memcpy(&bits, &argument, sizeof bits);
    return bits;
}

// The largest image format code is 51, so the enumeration holds every value
// of six bits; an illegal code among them is the method's to refuse.
constexpr unsigned int kImageFormatValues = 64;
static_assert(ORVACCESS_IMG_1280x960_3 < kImageFormatValues, "a format code beyond six bits");

}  // namespace

namespace {

// A refusal made here, before the object is asked: the reason the object
// itself would give becomes its last error.
int refused(OrvAccess* handle, const std::string& reason) noexcept {
    quietly([&] { OrvAccessWrapperAccess::state(*handle).fail(reason, false); });
    return 0;
}

}  // namespace

void orvaPackTrkData(const s_OrvAccessTrkDataExt& in, s_OrvAccessTrkData* out) {
    out->packetTag = in.packetTag;
    out->platPoseTime = in.platPoseTime;
    copy3(out->vecA, in.vecA);
    out->countA = in.countA;
    out->countB = in.countB;
    copy3(out->euler, in.euler);
    copy3(out->motion[0], in.position);
    copy3(out->motion[1], in.vecG);
    copy3(out->motion[2], in.vecH);
    copy3(out->motion[3], in.angularRate);
    copy3(out->aux[0], in.vecJ);
    copy3(out->aux[1], in.extB);
    copy3(out->aux[2], in.extB + 3);
    copy3(out->vecL, in.vecL);
}

extern "C" {

// ---- lifecycle ----------------------------------------------------------------

OrvAccess* OrvAccess_create(void) {
    return guarded<OrvAccess*>(nullptr, [] {
        // Zero-fill first, so that every member the constructor leaves alone
        // starts at zero.
        void* raw = ::operator new(sizeof(OrvAccess));
        std::memset(raw, 0, sizeof(OrvAccess));
        try {
            return new (raw) OrvAccess();
        } catch (...) {
            ::operator delete(raw);
            throw;
        }
    });
}

void OrvAccess_destroy(OrvAccess* handle) {
    // A null handle is a no-op: releasing "nothing" must not crash, so the
    // close is skipped too.
    if (handle == nullptr) return;
    quietly([&] { handle->close(); });
    quietly([&] {
        handle->~OrvAccess();
        ::operator delete(handle);
    });
}

int OrvAccess_open(OrvAccess* handle) {
    return status([&] { return handle->open(); });
}

int OrvAccess_close(OrvAccess* handle) {
    return status([&] { return handle->close(); });
}

void OrvAccess_setIniPath(OrvAccess* handle, const char* path) {
    quietly([&] { handle->setIniPath(std::string(path)); });
}

// ---- identity, clock, status -----------------------------------------------------

char* OrvAccess_getVersion(OrvAccess* handle, char* buf, size_t len) {
    return text(buf, len, [&] { return handle->getVersion(); });
}

char* OrvAccess_getBuildDate(OrvAccess* handle, char* buf, size_t len) {
    return text(buf, len, [&] { return handle->getBuildDate(); });
}

unsigned long OrvAccess_getTimeUs(OrvAccess* handle) {
    return guarded(0UL, [&] { return handle->getTimeUs(); });
}

int OrvAccess_getStatus(OrvAccess* handle, s_OrvAccessStatus* st) {
    return status([&] { return handle->getStatus(st); });
}

int OrvAccess_waitUdp(OrvAccess* handle, int timeoutMs, int* ready) {
    return delivering(ready, [&](bool* flag) { return handle->waitUdp(timeoutMs, flag); });
}

int OrvAccess_getSenderDrops(OrvAccess* handle, s_OrvAccessSenderDrops* drops) {
    return status([&] { return handle->getSenderDrops(drops); });
}

// ---- errors ---------------------------------------------------------------------

char* OrvAccess_getLastError(OrvAccess* handle, char* buf, size_t len) {
    return text(buf, len, [&] { return handle->getLastError(); });
}

unsigned short OrvAccess_getErrorCode(OrvAccess* handle, s_OrvAccessErrorCode* code) {
    // The code is the result as well: a caller that wants only that may pass
    // no record.
    return guarded<unsigned short>(0, [&] {
        s_OrvAccessErrorCode unwanted{};
        return handle->getErrorCode(code != nullptr ? code : &unwanted);
    });
}

char* OrvAccess_getErrorMessage(OrvAccess* handle, char* buf, size_t len, int code) {
    return text(buf, len,
                [&] { return handle->getErrorMessage(static_cast<unsigned short>(code & 0xFFFF)); });
}

// ---- tracking ---------------------------------------------------------------------

int OrvAccess_getTrackingDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessTrkData* data) {
    return delivering(delivered, [&](bool* flag) {
        s_OrvAccessTrkDataExt full{};
        const bool ok = handle->getTrackingDataLatest(flag, &full);
        if (*flag) orvaPackTrkData(full, data);
        return ok;
    });
}

int OrvAccess_getTrackingDataAtTime(OrvAccess* handle, unsigned long displayTimeUs, int* delivered,
                                    s_OrvAccessTrkData* data) {
    return delivering(delivered, [&](bool* flag) {
        s_OrvAccessTrkDataExt full{};
        const bool ok = handle->getTrackingDataAtTime(displayTimeUs, flag, &full);
        if (*flag) orvaPackTrkData(full, data);
        return ok;
    });
}

int OrvAccess_getTrackingDataLatestExt(OrvAccess* handle, int* delivered, s_OrvAccessTrkDataExt* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getTrackingDataLatest(flag, data); });
}

int OrvAccess_getTrackingDataExt(OrvAccess* handle, int* delivered, s_OrvAccessTrkDataExt* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getTrackingData(flag, data); });
}

int OrvAccess_getTrackingDataAtTimeExt(OrvAccess* handle, unsigned long displayTimeUs, int* delivered,
                                       s_OrvAccessTrkDataExt* data) {
    return delivering(delivered,
                      [&](bool* flag) { return handle->getTrackingDataAtTime(displayTimeUs, flag, data); });
}

int OrvAccess_getPoseRecoveryStats(OrvAccess* handle, int* delivered, s_OrvAccessPoseRecStats* stats) {
    return delivering(delivered, [&](bool* flag) { return handle->getPoseRecoveryStats(flag, stats); });
}

int OrvAccess_setPrediction(OrvAccess* handle, float seconds) {
    return status([&] { return handle->setPrediction(seconds); });
}

int OrvAccess_setBoresightRef(OrvAccess* handle, float* rollPitchYaw) {
    return status([&] { return handle->setBoresightRef(rollPitchYaw); });
}

int OrvAccess_setTipOffset(OrvAccess* handle, float* xyz) {
    return status([&] { return handle->setTipOffset(xyz); });
}

// ---- packets handed in by the application ---------------------------------------

void OrvAccess_processMetaPkt(OrvAccess* handle, const unsigned char* packet) {
    quietly([&] { handle->processMetaPkt(packet); });
}

void OrvAccess_processTrackingPkt(OrvAccess* handle, const unsigned char* packet) {
    quietly([&] { handle->processTrackingPkt(packet); });
}

// ---- meta-packet data -------------------------------------------------------------

int OrvAccess_getImuData(OrvAccess* handle, e_OrvAccessImuSelect imu, int* delivered,
                         s_OrvAccessImuData* data) {
    const auto selector = bitsOf(imu);
    if (selector != ORVACCESS_IMU_PLATFORM && selector != ORVACCESS_IMU_CAMERA) {
        *delivered = 0;
        return refused(handle, "Invalid source IMU selector");
    }
    const auto source = static_cast<e_OrvAccessImuSelect>(selector);
    return delivering(delivered, [&](bool* flag) { return handle->getImuData(source, flag, data); });
}

int OrvAccess_getImuDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessImuData* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getImuDataLatest(flag, data); });
}

int OrvAccess_getAuxData(OrvAccess* handle, int* delivered, s_OrvAccessAuxData* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getAuxData(flag, data); });
}

int OrvAccess_getAuxDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessAuxData* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getAuxDataLatest(flag, data); });
}

int OrvAccess_getDiagData(OrvAccess* handle, int* delivered, s_OrvAccessDiagData* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getDiagData(flag, data); });
}

int OrvAccess_getDiagDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessDiagData* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getDiagDataLatest(flag, data); });
}

int OrvAccess_getGpsData(OrvAccess* handle, int* delivered, s_OrvAccessGpsData* data) {
    return delivering(delivered, [&](bool* flag) { return handle->getGpsData(flag, data); });
}

int OrvAccess_getTargetCount(OrvAccess* handle, int* /*unused*/, unsigned int* tag, unsigned int* count) {
    // C callers have never been told whether counts came; the flag stays ours.
    return status([&] {
        bool delivered = false;
        return handle->getTargetCount(&delivered, tag, count);
    });
}

// ---- uplink -----------------------------------------------------------------------

int OrvAccess_setPlatformPoseData(OrvAccess* handle, s_OrvAccessPlatPoseData pose) {
    return status([&] { return handle->setPlatformPoseData(pose); });
}

int OrvAccess_setGpsData(OrvAccess* handle, s_OrvAccessGpsData* gps) {
    return status([&] { return handle->setGpsData(gps); });
}

int OrvAccess_sendInputData(OrvAccess* handle, unsigned char input) {
    return status([&] { return handle->sendInputData(input); });
}

// ---- commands to orvRx ------------------------------------------------------------

int OrvAccess_setRegister(OrvAccess* handle, unsigned int timeoutMs, unsigned int address,
                          unsigned char value) {
    return status([&] { return handle->setRegister(timeoutMs, address, value); });
}

int OrvAccess_getRegister(OrvAccess* handle, unsigned int timeoutMs, unsigned int address,
                          unsigned char* value) {
    return status([&] { return handle->getRegister(timeoutMs, address, value); });
}

int OrvAccess_setStreaming(OrvAccess* handle, int on) {
    return status([&] { return handle->setStreaming(on != 0); });
}

int OrvAccess_getStreaming(OrvAccess* handle) {
    return status([&] { return handle->getStreaming(); });
}

int OrvAccess_transactImu(OrvAccess* handle, e_OrvAccessImuSelect imu, unsigned char* transmit,
                          unsigned long transmitLength, unsigned char* receive, unsigned long receiveCapacity,
                          unsigned int timeout, unsigned long* receivedLength) {
    // 1 selects the second channel and any other value the first, as it
    // always has; only the value handed on must be one the enumeration holds.
    const e_OrvAccessImuSelect channel =
        bitsOf(imu) == ORVACCESS_IMU_CAMERA ? ORVACCESS_IMU_CAMERA : ORVACCESS_IMU_PLATFORM;
    return status([&] {
        return handle->transactImu(channel, transmit, transmitLength, receive, receiveCapacity, timeout,
                                   receivedLength);
    });
}

int OrvAccess_getFile(OrvAccess* handle, const char* remoteName, e_OrvAccessFileLoc location,
                      const char* localPath) {
    // The location travels as one byte: its low byte is all that would go out.
    const auto locationByte = static_cast<e_OrvAccessFileLoc>(bitsOf(location) & 0xFFu);
    return status(
        [&] { return handle->getFile(std::string(remoteName), locationByte, std::string(localPath)); });
}

// ---- images -----------------------------------------------------------------------

unsigned int OrvAccess_getImageBufSize(OrvAccess* handle) {
    return guarded(0U, [&] { return handle->getImageBufSize(); });
}

int OrvAccess_getImage(OrvAccess* handle, int* percent, e_OrvAccessImageFormat* format,
                       unsigned int* sequenceId, unsigned char* buffer, unsigned long capacity) {
    return status([&] { return handle->getImage(percent, format, sequenceId, buffer, capacity); });
}

int OrvAccess_getImageInfo(OrvAccess* handle, e_OrvAccessImageFormat format, unsigned long* size, int* width,
                           int* height, int* bytesPerPixel) {
    const auto code = bitsOf(format);
    if (code >= kImageFormatValues) {
        // An illegal code reports the geometry of format 10 all the same.
        status([&] { return handle->getImageInfo(ORVACCESS_IMG_640x480_1, size, width, height, bytesPerPixel); });
        return refused(handle, "Illegal image format (" + std::to_string(code) + ")");
    }
    const auto legalOrNot = static_cast<e_OrvAccessImageFormat>(code);
    return status([&] { return handle->getImageInfo(legalOrNot, size, width, height, bytesPerPixel); });
}

// ---- the pose feed ------------------------------------------------------------------

namespace {
OrvPoseFeed::Reader* reader(OrvPoseFeedReader* handle) { return reinterpret_cast<OrvPoseFeed::Reader*>(handle); }
}  // namespace

OrvPoseFeed* OrvPoseFeed_create(const char* iniPath, char* why, size_t len) {
    std::string reason = kExceptionText;
    OrvPoseFeed* feed = guarded(static_cast<OrvPoseFeed*>(nullptr), [&]() -> OrvPoseFeed* {
        std::unique_ptr<OrvPoseFeed> made(new OrvPoseFeed(iniPath != nullptr ? iniPath : "orvaccess.ini"));
        reason = made->getLastError();
        return made->isRunning() ? made.release() : nullptr;
    });
    if (feed == nullptr) copyText(reason, why, len);
    return feed;
}

void OrvPoseFeed_destroy(OrvPoseFeed* feed) {
    quietly([&] { delete feed; });
}

int OrvPoseFeed_start(OrvPoseFeed* feed) {
    return status([&] { return feed->start(); });
}

int OrvPoseFeed_stop(OrvPoseFeed* feed) {
    return status([&] { return feed->stop(); });
}

int OrvPoseFeed_isRunning(const OrvPoseFeed* feed) {
    return status([&] { return feed->isRunning(); });
}

char* OrvPoseFeed_getLastError(const OrvPoseFeed* feed, char* buf, size_t len) {
    return text(buf, len, [&] { return feed->getLastError(); });
}

char* OrvPoseFeed_getServiceError(const OrvPoseFeed* feed, char* buf, size_t len) {
    return text(buf, len, [&] { return feed->getServiceError(); });
}

int OrvPoseFeed_getRecovery(const OrvPoseFeed* feed, s_OrvPoseFeedRecovery* recovery) {
    return status([&] { return recovery != nullptr && feed->getRecovery(recovery); });
}

void OrvPoseFeed_setStaleTimeUs(OrvPoseFeed* feed, unsigned long staleUs) { feed->setStaleTimeUs(staleUs); }

int OrvPoseFeed_getLatest(const OrvPoseFeed* feed, s_OrvPoseFeedPose* pose) {
    return feed->getLatest(pose) ? 1 : 0;
}

OrvPoseFeedReader* OrvPoseFeedReader_create(const OrvPoseFeed* feed) {
    return guarded(static_cast<OrvPoseFeedReader*>(nullptr), [&] {
        return reinterpret_cast<OrvPoseFeedReader*>(new OrvPoseFeed::Reader(*feed));
    });
}

void OrvPoseFeedReader_destroy(OrvPoseFeedReader* handle) { delete reader(handle); }

int OrvPoseFeedReader_getAtTime(OrvPoseFeedReader* handle, unsigned long displayTimeUs, s_OrvPoseFeedPose* pose) {
    return reader(handle)->getAtTime(displayTimeUs, pose) ? 1 : 0;
}

void OrvPoseFeedReader_resetDisplayClock(OrvPoseFeedReader* handle) { reader(handle)->resetDisplayClock(); }

OrvAccess* OrvPoseFeed_lockAccess(OrvPoseFeed* feed) {
    return guarded(static_cast<OrvAccess*>(nullptr), [&] { return feed->lockAccess(); });
}

void OrvPoseFeed_unlockAccess(OrvPoseFeed* feed) {
    quietly([&] { feed->unlockAccess(); });
}

// ---- the library clock --------------------------------------------------------------

void OrvosiUtil_snoozeMs(int ms) {
    quietly([&] { OrvosiUtil::snoozeMs(ms); });
}

double OrvosiUtil_getTimeMs(void) {
    return guarded(0.0, [] { return OrvosiUtil::getTimeMs(); });
}

}  // extern "C"
