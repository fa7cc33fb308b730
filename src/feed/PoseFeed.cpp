// The pose feed: an access object serviced by a thread of its own, whose
// newest tracking record and pose settings are published for readers that
// must never wait (render threads).
//
// The service thread holds the feed's lock while it services and while it
// sleeps in waitUdp(); a caller that wants the object (access()) announces
// itself, wakes the thread through a descriptor in the object's ready set,
// and the thread steps aside until every such caller is done. Readers only
// touch the published copy (FeedRing) and an atomic stale time.
//
// After each pass the thread also runs the watchdog that orvmon and
// orvbridge run: orvRx stops streaming when any other client opens the
// library or runs a command, and forgets it when it restarts, so a feed that
// only waited would stay blind.
#include "orvaccess/OrvPoseFeed.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "feed/FeedRing.hpp"
#include "access/PredictionState.hpp"
#include "access/State.hpp"
#include "diag/OrvUtil.hpp"
#include "os/OrvosiUtil.hpp"
#include "math/OrvPose.hpp"
#include "watch/Watchdog.hpp"

namespace {

// What a reader needs: the record as received and everything the export
// adjustment and the display-time prediction take besides the reader's own
// display clock.
struct FeedSnapshot {
    s_OrvAccessTrkDataExt record;  // as received, not adjusted
    uint64_t sequence;             // records taken so far; 0 = none
    uint64_t receivedUs;           // library clock at publication
    uint64_t nat;                  // nominal IMU time of the record (0 without the IMU clock)
    uint64_t imuBiasNs;            // IMU clock bias after the record
    int64_t virtualSyncCtrl;
    double predictionS;
    double boresight[3][3];
    double tipOffset[3];
    float imuDtS;
    uint32_t neutral;  // the boresight and tip offset leave a record alone
};
static_assert(sizeof(FeedSnapshot) % 8 == 0, "published as whole words");

// Passes one service call makes before the thread looks up again: enough to
// take a burst in one go, few enough that a flood cannot hold off stop() or
// publication for long.
constexpr size_t kPassLimit = 64;
// Longest sleep in waitUdp(); stop() and access() wake the thread at once,
// this only bounds a lost wake-up.
constexpr int kWaitMs = 200;
// Pause after a failed pass or wait, so that a broken port is not spun on.
constexpr std::chrono::milliseconds kRetryPause{100};
// While the poses are not flowing, the published recovery text (which
// counts the seconds of quiet) is made again at most this often, us.
constexpr uint64_t kRecoveryTextUs = 100000;

e_OrvAccessFeedStream streamState(orvwatch::Watchdog::State s) {
    switch (s) {
        case orvwatch::Watchdog::State::Waiting:
            return ORVACCESS_FEED_WAITING;
        case orvwatch::Watchdog::State::Flowing:
            return ORVACCESS_FEED_FLOWING;
        case orvwatch::Watchdog::State::Quiet:
            return ORVACCESS_FEED_QUIET;
        case orvwatch::Watchdog::State::Reconnecting:
            return ORVACCESS_FEED_RECONNECTING;
        case orvwatch::Watchdog::State::Unattended:
            return ORVACCESS_FEED_UNATTENDED;
    }
    return ORVACCESS_FEED_WAITING;
}

void setText(s_OrvPoseFeedRecovery& r, const std::string& text) {
    const size_t n = std::min(text.size(), sizeof r.text - 1);
    std::memcpy(r.text, text.data(), n);
    r.text[n] = '\0';
}

}  // namespace

struct OrvPoseFeed::Impl {
    explicit Impl(std::string path) : iniPath(std::move(path)) {
        recovery.state = ORVACCESS_FEED_STOPPED;
        setText(recovery, "stopped");
    }

    std::string iniPath;
    std::unique_ptr<OrvAccess> object{new OrvAccess()};
    OrvAccess::State& state() { return OrvAccessWrapperAccess::state(*object); }

    mutable std::mutex lock;
    std::condition_variable stepAside;  // the thread waits here while callers want the object
    std::atomic<int> callers{0};
    std::atomic<bool> stopping{false};
    std::thread thread;
    int wakeFd = -1;
    // Wakes written and read back: the thread reads the descriptor only
    // when one is outstanding, not once per pose.
    std::atomic<uint64_t> wakesSent{0};
    uint64_t wakesTaken = 0;

    // Written by start() and stop() (not concurrent with each other), read
    // from any thread.
    std::atomic<bool> running{false};
    // Caller's thread only.
    std::string startError;
    // What the thread last ran into, under a lock of its own that is never
    // held for long (the thread holds the main lock while it sleeps).
    mutable std::mutex errorLock;
    std::string serviceError;
    s_OrvPoseFeedRecovery recovery{};  // as the thread last published it
    bool failing = false;  // the thread's own copy of !serviceError.empty()
    void noteServiceError(const std::string& text) {
        if (text.empty() && !failing) return;
        std::lock_guard<std::mutex> held(errorLock);
        serviceError = text;
        failing = !text.empty();
    }
    // Under the main lock.
    FeedSnapshot pending{};  // the copy the writer builds

    FeedRing<FeedSnapshot> ring;
    std::atomic<unsigned long> staleUs{kDefaultStaleUs};

    // The thread's; made by start(), kept after stop() for its counts.
    std::unique_ptr<orvwatch::Watchdog> dog;
    s_OrvPoseFeedRecovery told{};  // what publishRecovery() last published, without the text
    uint64_t toldTextUs = 0;

    bool open();
    void run();
    void wake();
    void drainWake();
    // Under the lock: takes every queued tracking record into the IMU clock
    // estimate and publishes the newest with the current settings.
    void takeRecords();
    void publishSettings();
    // Under the lock: the watchdog's turn after a pass.
    void watch();
    // What the watchdog did, for getRecovery(); the text is made only when
    // something changed, or every kRecoveryTextUs while the poses are away.
    void publishRecovery(uint64_t nowUs, bool force);
    bool reopen(std::string& why);
};

// getTrackingDataAtTime() feeds every queued record to the IMU clock and
// predicts the newest; here the thread does the first half after each pass
// and leaves the second to the readers.
void OrvPoseFeed::Impl::takeRecords() {
    OrvAccess::State& s = state();
    bool fresh = false;
    unsigned long nat = 0;
    while (s.tracking.pop(&pending.record)) {
        nat = s.vs.imuSample(pending.record.packetTag, pending.record.poseTime, s.imuDt, s.cfg.virtualSyncCtrl,
                              s.cfg.verbosity);
        ++pending.sequence;
        fresh = true;
    }
    if (!fresh) return;
    pending.nat = nat;
    pending.receivedUs = OrvosiUtil::getTimeSysUs();
    publishSettings();
}

void OrvPoseFeed::Impl::watch() {
    const uint64_t now = OrvosiUtil::getTimeSysUs();
    OrvAccess::State& s = state();
    // orvCore's packets are what streaming starts and stops (the NFT
    // source's poses join the same queue whether orvRx streams or not), so
    // the thread takes their status bit, as it takes their records; it
    // leaves the other bits to whoever reads the status through access().
    s_OrvAccessStatus seen{};
    seen.connections = s.tcpOpen ? ORVACCESS_CONN_TCP : 0;
    seen.received = s.receivedMask & ORVACCESS_RECV_TRACKING;
    s.receivedMask &= ~static_cast<uint32_t>(ORVACCESS_RECV_TRACKING);
    dog->observe(now, seen);
    dog->step(now);
    bool events = false;
    for (const std::string& e : dog->takeEvents()) {
        OrvUtil::logLine(s.cfg.verbosity, "Pose feed: ", e);
        events = true;
    }
    publishRecovery(now, events);
}

void OrvPoseFeed::Impl::publishRecovery(uint64_t nowUs, bool force) {
    const orvwatch::Watchdog::Counts& c = dog->counts();
    s_OrvPoseFeedRecovery r{};
    r.outages = c.outages;
    r.recoveries = c.recoveries;
    r.requests = c.requests;
    r.requestsFailed = c.requestsFailed;
    r.reopens = c.reopens;
    r.reopensFailed = c.reopensFailed;
    r.longestOutageUs = c.longestOutageUs;
    r.lastOutageUs = c.lastOutageUs;
    r.state = streamState(dog->state());
    const bool same = std::memcmp(&r, &told, sizeof r) == 0;
    if (same && !force && (r.state == ORVACCESS_FEED_FLOWING || nowUs - toldTextUs < kRecoveryTextUs)) return;
    told = r;
    toldTextUs = nowUs;
    setText(r, dog->stateText(nowUs));
    std::lock_guard<std::mutex> held(errorLock);
    recovery = r;
}

// The watchdog's way back: the object opened again from the feed's file,
// under the feed's lock, as start() opens it. The pose settings outlive it:
// a renderer that set its prediction or boresight through access() must not
// find the file's values after a network blip it never asked to handle.
bool OrvPoseFeed::Impl::reopen(std::string& why) {
    OrvAccess::State& s = state();
    const double predictionS = s.predictionS;
    double boresight[3][3], tipOffset[3];
    std::memcpy(boresight, s.boresight, sizeof boresight);
    std::memcpy(tipOffset, s.tipOffset, sizeof tipOffset);
    object->setIniPath(iniPath);
    const bool opened = object->open();
    s.predictionS = predictionS;
    std::memcpy(s.boresight, boresight, sizeof boresight);
    std::memcpy(s.tipOffset, tipOffset, sizeof tipOffset);
    s.noteAdjustment();
    if (!opened) {
        why = object->getLastError();
        return false;
    }
    publishSettings();
    return true;
}

void OrvPoseFeed::Impl::publishSettings() {
    const OrvAccess::State& s = state();
    pending.imuBiasNs = s.vs.imuBiasNs;
    pending.virtualSyncCtrl = s.cfg.virtualSyncCtrl;
    pending.predictionS = s.predictionS;
    std::memcpy(pending.boresight, s.boresight, sizeof pending.boresight);
    std::memcpy(pending.tipOffset, s.tipOffset, sizeof pending.tipOffset);
    pending.imuDtS = s.imuDt;
    pending.neutral = s.neutralAdjustment ? 1 : 0;
    ring.publish(pending);
}

void OrvPoseFeed::Impl::wake() {
    if (wakeFd < 0) return;
    wakesSent.fetch_add(1);
    const uint64_t one = 1;
    // A full counter already wakes the thread; nothing else can fail here.
    (void)!::write(wakeFd, &one, sizeof one);
}

// A wake counted but not yet written is read on a later turn: the
// descriptor stays ready until then, so the thread comes back for it.
void OrvPoseFeed::Impl::drainWake() {
    if (wakeFd < 0 || wakesSent.load() == wakesTaken) return;
    uint64_t count = 0;
    if (::read(wakeFd, &count, sizeof count) == sizeof count) wakesTaken += count;
}

bool OrvPoseFeed::Impl::open() {
    if (wakeFd < 0) wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        startError = "Unable to start the pose feed: ";
        startError += std::strerror(errno);
        return false;
    }
    OrvAccess::State& s = state();
    s.wakeFd = wakeFd;
    s.passLimit = kPassLimit;
    object->setIniPath(iniPath);
    if (!object->open()) {
        startError = object->getLastError();
        return false;
    }
    // The records queued before the thread runs are its to take.
    publishSettings();
    return true;
}

void OrvPoseFeed::Impl::run() {
    std::unique_lock<std::mutex> held(lock);
    while (!stopping.load()) {
        stepAside.wait(held, [&] { return callers.load() == 0 || stopping.load(); });
        if (stopping.load()) break;
        const bool serviced = object->serviceUdp(true);
        takeRecords();
        watch();
        bool ready = false;
        if (serviced && object->waitUdp(kWaitMs, &ready)) {
            noteServiceError("");
            drainWake();
            continue;
        }
        noteServiceError(object->getLastError());
        stepAside.wait_for(held, kRetryPause, [&] { return callers.load() > 0 || stopping.load(); });
    }
}

OrvPoseFeed::OrvPoseFeed(const std::string& iniPath) : impl_(new Impl(iniPath)) { start(); }

OrvPoseFeed::~OrvPoseFeed() {
    stop();
    if (impl_->wakeFd >= 0) ::close(impl_->wakeFd);
}

bool OrvPoseFeed::start() {
    Impl& f = *impl_;
    if (f.running) return true;
    f.startError.clear();
    {
        std::lock_guard<std::mutex> held(f.lock);
        if (!f.open()) return false;
    }
    f.noteServiceError("");
    f.stopping = false;
    try {
        orvwatch::WatchdogOptions options;
        options.commandChannel = f.state().cfg.tcpOrvRxEnabled;
        f.dog.reset(new orvwatch::Watchdog(
            *f.object, [&f](OrvAccess&, std::string& why) { return f.reopen(why); }, options));
        f.told = s_OrvPoseFeedRecovery{};
        f.publishRecovery(OrvosiUtil::getTimeSysUs(), true);
        f.thread = std::thread([&f] { f.run(); });
    } catch (const std::exception& e) {
        f.startError = std::string("Unable to start the pose feed's thread: ") + e.what();
        std::lock_guard<std::mutex> held(f.lock);
        f.object->close();
        return false;
    }
    f.running = true;
    return true;
}

bool OrvPoseFeed::stop() {
    Impl& f = *impl_;
    if (!f.running) return true;
    // The wake ends a sleep in waitUdp(); passing through the lock before
    // the notice makes sure the thread is either waiting for it or has yet
    // to test the flag.
    f.stopping = true;
    f.wake();
    { std::lock_guard<std::mutex> held(f.lock); }
    f.stepAside.notify_all();
    f.thread.join();
    f.running = false;
    f.noteServiceError("");
    std::lock_guard<std::mutex> held(f.lock);
    f.object->close();
    f.drainWake();
    {
        std::lock_guard<std::mutex> published(f.errorLock);
        f.recovery.state = ORVACCESS_FEED_STOPPED;
        setText(f.recovery, "stopped");
    }
    return true;
}

bool OrvPoseFeed::isRunning() const { return impl_->running; }

std::string OrvPoseFeed::getLastError() const { return impl_->startError; }

std::string OrvPoseFeed::getServiceError() const {
    const Impl& f = *impl_;
    {
        std::lock_guard<std::mutex> held(f.errorLock);
        if (!f.serviceError.empty()) return f.serviceError;
    }
    if (!f.running) return "";
    s_OrvPoseFeedPose pose;
    getLatest(&pose);
    if (!pose.stale) return "";
    const unsigned long staleMs = getStaleTimeUs() / 1000;
    s_OrvPoseFeedRecovery r;
    getRecovery(&r);
    // Once the watchdog has noticed, its words say what is being done.
    const bool acting = r.state != ORVACCESS_FEED_FLOWING && r.state != ORVACCESS_FEED_WAITING;
    if (!pose.valid)
        return "No pose yet (stale after " + std::to_string(staleMs) + " ms): " +
               (acting ? std::string(r.text)
                       : "is orvCore running and sending to this host's orvCore port?");
    return "No pose for " + std::to_string(pose.ageUs / 1000) + " ms (stale after " + std::to_string(staleMs) +
           " ms): " + (acting ? std::string(r.text) : "has orvCore stopped, or lost the target?");
}

bool OrvPoseFeed::getRecovery(s_OrvPoseFeedRecovery* recovery) const {
    const Impl& f = *impl_;
    std::lock_guard<std::mutex> held(f.errorLock);
    *recovery = f.recovery;
    return true;
}

void OrvPoseFeed::setStaleTimeUs(unsigned long staleUs) { impl_->staleUs.store(staleUs, std::memory_order_relaxed); }

unsigned long OrvPoseFeed::getStaleTimeUs() const { return impl_->staleUs.load(std::memory_order_relaxed); }

namespace {

// Age and stale flag of a snapshot at the call; the record itself is left
// to the caller.
void describe(const FeedSnapshot& snap, bool published, unsigned long staleUs, s_OrvPoseFeedPose* pose) {
    pose->sequence = snap.sequence;
    pose->receivedUs = snap.receivedUs;
    const uint64_t now = OrvosiUtil::getTimeSysUs();
    pose->ageUs = published && snap.sequence != 0 && now > snap.receivedUs ? now - snap.receivedUs : 0;
    pose->valid = published && snap.sequence != 0 ? 1 : 0;
    pose->stale = !pose->valid || pose->ageUs > staleUs ? 1 : 0;
    pose->predictionS = 0.0;
}

}  // namespace

bool OrvPoseFeed::getLatest(s_OrvPoseFeedPose* pose) const noexcept {
    FeedSnapshot snap;
    const bool published = impl_->ring.read(&snap);
    describe(snap, published, getStaleTimeUs(), pose);
    if (!pose->valid) return false;
    pose->data = snap.record;
    pose->predictionS = snap.predictionS;
    OrvPose::exportRecord(snap.predictionS, snap.neutral != 0, snap.boresight, snap.tipOffset, &pose->data);
    return true;
}

OrvPoseFeed::Reader::Reader(const OrvPoseFeed& feed) : feed_(&feed) {}

bool OrvPoseFeed::Reader::getAtTime(unsigned long displayTimeUs, s_OrvPoseFeedPose* pose) noexcept {
    FeedSnapshot snap;
    const bool published = feed_->impl_->ring.read(&snap);
    describe(snap, published, feed_->getStaleTimeUs(), pose);
    if (!pose->valid) return false;
    // The access object's prediction state, with the IMU clock as the
    // service thread left it and this reader's display clock.
    PredictionState vs;
    vs.imuBiasNs = snap.imuBiasNs;
    vs.dispBiasNs = dispBiasNs_;
    vs.prevDispUs = prevDispUs_;
    vs.nominalDispUs = nominalDispUs_;
    vs.dispPeriodNs = dispPeriodNs_;
    uint64_t unlogged[PredictionState::kLogWords];
    const double total = vs.predict(displayTimeUs, snap.record.packetTag, snap.record.poseTime, snap.nat,
                                    snap.imuDtS, snap.virtualSyncCtrl, snap.predictionS, 0, unlogged);
    dispBiasNs_ = vs.dispBiasNs;
    prevDispUs_ = vs.prevDispUs;
    nominalDispUs_ = vs.nominalDispUs;
    dispPeriodNs_ = vs.dispPeriodNs;
    pose->data = snap.record;
    pose->predictionS = total;
    OrvPose::exportRecord(total, snap.neutral != 0, snap.boresight, snap.tipOffset, &pose->data);
    return true;
}

void OrvPoseFeed::Reader::resetDisplayClock() noexcept {
    dispBiasNs_ = prevDispUs_ = nominalDispUs_ = dispPeriodNs_ = 0;
}

OrvAccess* OrvPoseFeed::lockAccess() {
    Impl& f = *impl_;
    f.callers.fetch_add(1);
    f.wake();
    try {
        f.lock.lock();
    } catch (...) {
        f.callers.fetch_sub(1);
        throw;
    }
    return f.object.get();
}

void OrvPoseFeed::unlockAccess() {
    Impl& f = *impl_;
    // The caller may have changed the prediction, boresight or tip offset.
    f.publishSettings();
    f.lock.unlock();
    if (f.callers.fetch_sub(1) == 1) {
        std::lock_guard<std::mutex> held(f.lock);  // so the thread cannot miss the notice
        f.stepAside.notify_all();
    }
}

OrvPoseFeed::Access OrvPoseFeed::access() { return Access(this, lockAccess()); }

OrvPoseFeed::Access::Access(Access&& other) noexcept : feed_(other.feed_), object_(other.object_) {
    other.feed_ = nullptr;
    other.object_ = nullptr;
}

OrvPoseFeed::Access::~Access() {
    if (feed_ != nullptr) feed_->unlockAccess();
}
