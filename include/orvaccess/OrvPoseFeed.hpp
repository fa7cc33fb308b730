// liborvaccess: a pose feed for render threads.
//
// A renderer samples the head pose as late as it can, on a thread of its
// own, just before it submits a frame; it must not wait for the network, a
// lock or another thread there. An OrvPoseFeed owns an open access object
// and a service thread that sleeps until datagrams arrive, services the
// ports and, after each pass, publishes the newest tracking record with
// everything needed to adjust it and to predict it to a display time. Any
// number of threads then read the published pose at any rate without a
// system call, a lock, an allocation or waiting on the service thread (a
// reader retries only if the service thread overwrote the very copy it was
// reading, which takes it four publications during one read).
//
//   OrvPoseFeed feed("orvaccess.ini");        // opens, starts its thread
//   if (!feed.isRunning()) fail(feed.getLastError());
//   OrvPoseFeed::Reader reader(feed);         // one per render thread
//   s_OrvPoseFeedPose pose;
//   reader.getAtTime(displayTimeUs, &pose);   // every frame, lock-free
//   feed.access()->getImuData(...);           // everything else, locked
//
// Everything the access object offers besides the pose stays reachable on
// the caller's thread through access(), under a lock shared with the service
// thread and never taken by the read path.
//
// Records and units as in orvaccess.h; times are us on the library clock
// (OrvAccess::getTimeUs()).
#pragma once

#include <memory>
#include <string>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/orvaccess.h"

// A pose feed: an open access object, a service thread that publishes its
// newest tracking record, and lock-free reads of that record (see above).
class ORVACCESS_EXPORT OrvPoseFeed {
public:
    // Default time without a new pose after which a pose counts as stale, us.
    static constexpr unsigned long kDefaultStaleUs = 100000;

    // Opens an access object with the configuration file iniPath (as
    // OrvAccess::open() does) and starts the service thread. Never throws
    // for a failed open: isRunning() is then false and getLastError() says
    // why in the library's words (e.g. "Unable to open any connections").
    explicit OrvPoseFeed(const std::string& iniPath = "orvaccess.ini");
    // Stops the thread (stop()) and closes the access object. Readers must
    // be gone before the feed.
    ~OrvPoseFeed();
    // Not copyable: the feed owns a thread and an access object.
    OrvPoseFeed(const OrvPoseFeed&) = delete;
    // Not copyable either.
    OrvPoseFeed& operator=(const OrvPoseFeed&) = delete;

    // ---- life cycle (any thread but a reader's; not concurrently) ----
    // Opens the access object again (re-reading the configuration file) and
    // starts the service thread; does nothing when running. The last pose
    // stays readable until a new one arrives, and the sequence count goes on.
    // @return false with the reason in getLastError().
    bool start();
    // Stops the service thread and joins it, then closes the access object.
    // Bounded in time even while datagrams flood the ports: the thread
    // services at most a fixed number of passes before it looks again.
    // Readers keep reading the last pose, which grows stale. Always true.
    bool stop();
    // Whether the service thread runs.
    bool isRunning() const;
    // Why the construction or the last start() failed; "" otherwise.
    std::string getLastError() const;
    // What the service thread last ran into, "" while all is well: a failed
    // service pass or wait (the access object's text, e.g. "Error receiving
    // from orvCore: ..."), or, while running, "No pose for N ms (stale after
    // M ms): ..." when the tracker has gone quiet, followed by what the feed
    // does about it once it has noticed (getRecovery()'s text). "" when
    // stopped. Never waits for the service thread.
    std::string getServiceError() const;
    // How the feed keeps its poses coming. orvRx stops streaming whenever
    // another client opens the library or runs a command (orvctl, a second
    // program), and forgets it when it restarts. When no pose came for a
    // second, the service thread asks orvRx to stream again; when asking
    // fails (orvRx gone, or not answering) it closes and opens the access
    // object again with the configuration file, as start() does, pausing
    // 0.5 s and doubling up to 8 s between tries; with no command channel
    // configured it waits. Readers meanwhile read the last pose, which grows
    // stale, and the sequence count goes on. A reopen re-reads the file but
    // keeps the pose settings made through access() (setPrediction(),
    // setBoresightRef(), setTipOffset()); the object's other settings are the
    // file's again, and it drops what the object had queued.
    // Each outage, request, reopen and recovery is also written as an
    // "ORVALOG: " line when the configured verbosity has bit 0x1. Any
    // thread; never waits for the service thread (it publishes the record
    // after each pass, so the text's times are at most one pass old).
    // @param[out] recovery the counts since the last start(), the state
    // (ORVACCESS_FEED_STOPPED while not running) and its text.
    // @return true.
    bool getRecovery(s_OrvPoseFeedRecovery* recovery) const;

    // ---- settings ----
    // Time without a new tracking record after which a pose is stale. Any
    // thread, lock-free; readers see it from their next call.
    // @param staleUs us; default kDefaultStaleUs.
    void setStaleTimeUs(unsigned long staleUs);
    // The stale time, us; any thread, lock-free.
    unsigned long getStaleTimeUs() const;

    // ---- the render path: any thread, any rate, lock-free ----
    // The newest tracking record, adjusted as OrvAccess::getTrackingDataLatest()
    // adjusts it (interval of setPrediction(), tip offset, boresight), bit
    // for bit. Fills every field of *pose; pose->data only when a record
    // was ever published. Costs a copy of about 600 bytes and the adjustment
    // (some 100 ns to 1 us); no system call but the vDSO clock read.
    // @param[out] pose the pose, its age and stale flag.
    // @return pose->valid: whether a record was ever published.
    bool getLatest(s_OrvPoseFeedPose* pose) const noexcept;

    // One render thread's view of the feed: the display-clock estimation of
    // OrvAccess::getTrackingDataAtTime() learns from one caller's successive
    // display times, so each thread that asks for predicted poses keeps its
    // own Reader. A Reader is used by one thread at a time; it allocates
    // nothing after construction and must not outlive its feed.
    class ORVACCESS_EXPORT Reader {
    public:
        // A reader of feed with no display clock learnt yet.
        explicit Reader(const OrvPoseFeed& feed);
        // The newest tracking record predicted to displayTimeUs: the same
        // clock alignment, age, bounds and adjustment as
        // OrvAccess::getTrackingDataAtTime(), the IMU clock estimate taken
        // as the service thread left it after the record's pass. Given the
        // same records and display times (one call per new record), the
        // result is bit-identical to that getter's. Unlike the getter, a
        // call without a new record predicts the last one again (and teaches
        // the display clock). Writes no prediction trace or log record.
        // Same cost as getLatest() plus the prediction arithmetic.
        // @param displayTimeUs when the frame will be shown, us on the
        // library clock.
        // @param[out] pose the predicted pose; pose->predictionS is the total
        // interval the attitude was extrapolated by, s.
        // @return pose->valid.
        bool getAtTime(unsigned long displayTimeUs, s_OrvPoseFeedPose* pose) noexcept;
        // Forgets the display clock estimate (period and bias), e.g. after
        // the display mode changed.
        void resetDisplayClock() noexcept;

    private:
        const OrvPoseFeed* feed_;
        // Display clock state, kept in the layout of the access object's.
        unsigned long dispBiasNs_ = 0;
        unsigned long prevDispUs_ = 0;
        unsigned long nominalDispUs_ = 0;
        unsigned long dispPeriodNs_ = 0;
    };

    // ---- everything else: the caller's thread, under the lock ----
    // Holds the feed's lock while it lives and lends the access object: any
    // of its calls (queued IMU, hub and error records, images, commands,
    // uplink, settings such as setPrediction()) runs on the caller's thread
    // while the service thread waits. On release the pose settings are
    // published again, so the next read uses them. The service thread takes
    // every tracking record from the object's tracking queue: getTrackingData()
    // and getTrackingDataAtTime() find it empty; read poses through the feed.
    // It takes getStatus()'s tracking bit too (ORVACCESS_RECV_TRACKING, by
    // which it tells that orvCore streams): see getRecovery().
    // Do not call open() or close() through it; use start() and stop().
    class ORVACCESS_EXPORT Access {
    public:
        // Takes over other's lock; other lends nothing afterwards.
        Access(Access&& other) noexcept;
        // Not copyable: one lock, one holder.
        Access(const Access&) = delete;
        // Not assignable.
        Access& operator=(const Access&) = delete;
        // Not assignable.
        Access& operator=(Access&&) = delete;
        // Releases the lock (see unlockAccess()).
        ~Access();
        // The lent access object.
        OrvAccess* operator->() const { return object_; }
        // The lent access object.
        OrvAccess& operator*() const { return *object_; }

    private:
        friend class OrvPoseFeed;
        Access(OrvPoseFeed* feed, OrvAccess* object) : feed_(feed), object_(object) {}
        OrvPoseFeed* feed_;
        OrvAccess* object_;
    };
    // Waits for the service thread to finish its pass (it wakes from its
    // sleep at once), then lends the access object. Not on a render thread.
    Access access();
    // What access() does, in two calls, for the C interface: takes the lock
    // and lends the object until unlockAccess().
    OrvAccess* lockAccess();
    // Publishes the pose settings again and releases the lock of lockAccess().
    void unlockAccess();

    // Internal state; its definition is private to the library.
    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};
