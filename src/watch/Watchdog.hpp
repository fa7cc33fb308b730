// Keeps a consumer's streams coming. orvRx stops streaming whenever any
// client opens the library or runs a command, and it forgets the request
// when it restarts; the library asks again only when it believes streaming
// is off, and it never remakes a lost command channel. The watchdog does
// what an application may: when a wanted stream goes quiet while the
// command channel is up it asks for streaming again, and when asking fails
// (the channel is gone or orvRx does not answer) it closes and opens the
// library again, waiting longer after each failed try. It counts every
// outage and recovery for the caller's view, summary or log.
//
// No thread and no clock of its own: the caller passes the library clock
// to step(), so that a test can drive it with made-up times. It uses the
// access object's public interface alone, so the library's pose feed runs
// the same watchdog as orvmon and orvbridge (they link the static orvwatch).
#pragma once

#include <orvaccess/OrvAccess.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orvwatch {

struct WatchdogOptions {
    uint32_t wanted = ORVACCESS_RECV_TRACKING;  // received bits that must keep coming
    std::string what = "tracking";  // their name in the texts: "tracking stopped: ..."
    bool commandChannel = true;   // the configuration enables orvRx's command channel
    uint64_t quietUs = 1000000;   // no wanted datagram for this long is an outage
    uint64_t startupUs = 3000000; // ... and at the start, when orvRx may take a moment to begin
    uint64_t statusPeriodUs = 100000;  // reads the status itself when none was passed for this long
    uint64_t retryFirstUs = 500000;    // wait before the second try; doubled after each failed one
    uint64_t retryMaxUs = 8000000;
};

class Watchdog {
public:
    // Closes and opens `access` again from the program's configuration; false
    // with `why` when open() failed. Whether the command channel came up is
    // read from the status afterwards.
    using Reopen = std::function<bool(OrvAccess& access, std::string& why)>;

    enum class State {
        Waiting,       // no wanted datagram yet
        Flowing,       // wanted datagrams arrive
        Quiet,         // they stopped; streaming was asked for again
        Reconnecting,  // asking failed: the library is being opened again
        Unattended,    // they stopped and there is no command channel to ask on
    };

    struct Counts {
        uint64_t outages = 0;         // wanted streams that stopped after flowing
        uint64_t recoveries = 0;      // ... and came back
        uint64_t requests = 0;        // streaming asked for again
        uint64_t requestsFailed = 0;  // ... without an acknowledgement
        uint64_t reopens = 0;         // the library closed and opened again
        uint64_t reopensFailed = 0;   // ... without a command channel afterwards
        uint64_t longestOutageUs = 0;
        uint64_t lastOutageUs = 0;
    };

    Watchdog(OrvAccess& access, Reopen reopen, WatchdogOptions options = {});

    // Every status word the program reads: reading clears the received bits,
    // so whoever reads it hands it on.
    void observe(uint64_t nowUs, const s_OrvAccessStatus& status);
    // Acts on what was observed. Call it after the program has taken the
    // records out of the library: a reopen drops what the library holds.
    void step(uint64_t nowUs);

    // The received bits observed since the last call.
    uint32_t takeReceived();

    State state() const { return state_; }
    const Counts& counts() const { return counts_; }
    // One line for a view: "tracking arriving", "tracking quiet for 2.1 s:
    // asked orvRx to stream again (2 times)", ...
    std::string stateText(uint64_t nowUs) const;
    // "outages 2 recovered 2 longest 1.4 s asked 3 (failed 1) reopened 1 (failed 0)"
    std::string countsText() const;
    // The events not yet taken, oldest first: outages, requests, reopens and
    // recoveries, each with its cause; for a program's log.
    std::vector<std::string> takeEvents();
    // The library's reason for the newest failed request or reopen.
    const std::string& lastReason() const { return reason_; }

private:
    void act(uint64_t nowUs);
    void ask(uint64_t nowUs);
    void reopen(uint64_t nowUs);
    void retryLater(uint64_t nowUs);
    void event(std::string text);
    std::string wantedNames() const;

    OrvAccess& access_;
    Reopen reopen_;
    WatchdogOptions opt_;
    State state_ = State::Waiting;
    Counts counts_;
    bool started_ = false;
    uint64_t startUs_ = 0;
    uint64_t lastObservedUs_ = 0;
    uint64_t lastWantedUs_ = 0;
    uint64_t outageStartUs_ = 0;
    uint64_t nextActUs_ = 0;
    uint64_t retryUs_ = 0;
    uint32_t connections_ = 0;
    uint32_t received_ = 0;
    bool inOutage_ = false;
    bool libraryOpen_ = true;  // false after a reopen whose open() failed
    uint64_t triesThisOutage_ = 0;
    std::string reason_;
    std::vector<std::string> events_;
};

const char* stateName(Watchdog::State s);

}  // namespace orvwatch
