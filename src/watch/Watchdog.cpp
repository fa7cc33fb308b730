#include "watch/Watchdog.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "orvaccess/orvwire.h"
#include "wire/CommandCodes.hpp"

namespace orvwatch {

namespace {

// As long as the library waits for orvRx's acknowledgement of a streaming switch.
constexpr unsigned int kAckMs = 200;

double seconds(uint64_t us) { return static_cast<double>(us) / 1e6; }

std::string format(const char* fmt, double a, double b = 0.0) {
    char text[96];
    std::snprintf(text, sizeof text, fmt, a, b);
    return text;
}

}  // namespace

const char* stateName(Watchdog::State s) {
    switch (s) {
        case Watchdog::State::Waiting:
            return "waiting";
        case Watchdog::State::Flowing:
            return "flowing";
        case Watchdog::State::Quiet:
            return "quiet";
        case Watchdog::State::Reconnecting:
            return "reconnecting";
        case Watchdog::State::Unattended:
            return "unattended";
    }
    return "waiting";
}

Watchdog::Watchdog(OrvAccess& access, Reopen reopen, WatchdogOptions options)
    : access_(access), reopen_(std::move(reopen)), opt_(options), retryUs_(options.retryFirstUs) {}

std::string Watchdog::wantedNames() const { return opt_.what; }

void Watchdog::event(std::string text) {
    // Only a program that never takes them could fill this up.
    if (events_.size() < 64) events_.push_back(std::move(text));
}

std::vector<std::string> Watchdog::takeEvents() { return std::exchange(events_, {}); }

uint32_t Watchdog::takeReceived() { return std::exchange(received_, 0u); }

void Watchdog::observe(uint64_t nowUs, const s_OrvAccessStatus& status) {
    if (!started_) {
        started_ = true;
        startUs_ = lastWantedUs_ = nowUs;
    }
    lastObservedUs_ = nowUs;
    connections_ = status.connections;
    received_ |= status.received;
    if ((status.received & opt_.wanted) == 0) return;
    lastWantedUs_ = nowUs;
    if (state_ == State::Flowing) return;
    if (inOutage_) {
        inOutage_ = false;
        ++counts_.recoveries;
        counts_.lastOutageUs = nowUs > outageStartUs_ ? nowUs - outageStartUs_ : 0;
        counts_.longestOutageUs = std::max(counts_.longestOutageUs, counts_.lastOutageUs);
        event(wantedNames() + " back after " + format("%.1f s", seconds(counts_.lastOutageUs)) + " (recovery " +
              std::to_string(counts_.recoveries) + " of " + std::to_string(counts_.outages) + ")");
    }
    state_ = State::Flowing;
    retryUs_ = opt_.retryFirstUs;
    nextActUs_ = nowUs;
    triesThisOutage_ = 0;
}

void Watchdog::step(uint64_t nowUs) {
    if (!started_ || nowUs - lastObservedUs_ >= opt_.statusPeriodUs) {
        s_OrvAccessStatus st{};
        if (libraryOpen_ && access_.getStatus(&st)) {
            observe(nowUs, st);
        } else if (!started_) {
            started_ = true;
            startUs_ = lastWantedUs_ = nowUs;
        }
        lastObservedUs_ = nowUs;
    }
    // A clock that a caller passes out of order never reads as years of quiet.
    const uint64_t quiet = nowUs > lastWantedUs_ ? nowUs - lastWantedUs_ : 0;
    if (quiet <= (state_ == State::Waiting ? std::max(opt_.quietUs, opt_.startupUs) : opt_.quietUs)) return;
    if (state_ == State::Flowing) {
        inOutage_ = true;
        ++counts_.outages;
        outageStartUs_ = lastWantedUs_;
        nextActUs_ = nowUs;
        retryUs_ = opt_.retryFirstUs;
        triesThisOutage_ = 0;
        state_ = opt_.commandChannel ? State::Quiet : State::Unattended;
        event(wantedNames() + " stopped: nothing for " + format("%.1f s", seconds(quiet)) +
              (opt_.commandChannel ? "" : "; no command channel to ask orvRx again"));
    }
    if (opt_.commandChannel && state_ != State::Unattended && nowUs >= nextActUs_) act(nowUs);
}

void Watchdog::act(uint64_t nowUs) {
    if (state_ == State::Reconnecting || !libraryOpen_ || (connections_ & ORVACCESS_CONN_TCP) == 0)
        reopen(nowUs);
    else
        ask(nowUs);
}

void Watchdog::ask(uint64_t nowUs) {
    ++counts_.requests;
    ++triesThisOutage_;
    // The library asks by itself only while it believes streaming is off;
    // when it believes it on, orvRx was switched off behind its back (another
    // client opened, or orvRx restarted): the register is written directly.
    const bool ok = access_.getStreaming()
                        ? access_.setRegister(kAckMs, orvcmd::kStreamingRegister, 1)
                        : access_.setStreaming(true);
    if (ok) {
        if (inOutage_) state_ = State::Quiet;
        event(wantedNames() + " quiet: asked orvRx to stream again (" + std::to_string(triesThisOutage_) +
              (triesThisOutage_ == 1 ? " time)" : " times)"));
        retryLater(nowUs);
        return;
    }
    ++counts_.requestsFailed;
    reason_ = access_.getLastError();
    state_ = State::Reconnecting;
    event("orvRx did not take the request to stream (" + reason_ + "): opening the library again");
    reopen(nowUs);
}

void Watchdog::reopen(uint64_t nowUs) {
    ++counts_.reopens;
    ++triesThisOutage_;
    std::string why;
    const bool opened = reopen_(access_, why);
    libraryOpen_ = opened;
    s_OrvAccessStatus st{};
    const bool commands = opened && access_.getStatus(&st) && (st.connections & ORVACCESS_CONN_TCP) != 0;
    if (opened) observe(nowUs, st);
    if (!commands) {
        ++counts_.reopensFailed;
        reason_ = why.empty() ? "orvRx's command channel did not open" : why;
        state_ = State::Reconnecting;
        retryLater(nowUs);
        event("cannot reach orvRx (" + reason_ + "): trying again in " +
              format("%.1f s", seconds(nextActUs_ - nowUs)));
        return;
    }
    // open() left streaming off; this is the request that starts it.
    ++counts_.requests;
    if (!access_.setStreaming(true)) {
        ++counts_.requestsFailed;
        reason_ = access_.getLastError();
        state_ = State::Reconnecting;
        retryLater(nowUs);
        event("opened the library again, but orvRx did not take the request to stream (" + reason_ +
              "): trying again in " + format("%.1f s", seconds(nextActUs_ - nowUs)));
        return;
    }
    state_ = inOutage_ ? State::Quiet : State::Waiting;
    retryLater(nowUs);
    event("opened the library again and asked orvRx to stream");
}

void Watchdog::retryLater(uint64_t nowUs) {
    nextActUs_ = nowUs + retryUs_;
    retryUs_ = std::min(retryUs_ * 2, opt_.retryMaxUs);
}

std::string Watchdog::stateText(uint64_t nowUs) const {
    const std::string what = wantedNames();
    const double quietS = seconds(nowUs > lastWantedUs_ ? nowUs - lastWantedUs_ : 0);
    const std::string tries =
        std::to_string(triesThisOutage_) + (triesThisOutage_ == 1 ? " try" : " tries");
    switch (state_) {
        case State::Waiting:
            return "no " + what + " yet" + (triesThisOutage_ ? " (" + tries + " to start it)" : "");
        case State::Flowing:
            return what + " arriving";
        case State::Quiet:
            return what + format(" quiet for %.1f s", quietS) + ": asked orvRx to stream again (" + tries + ")";
        case State::Reconnecting:
            return what + format(" quiet for %.1f s", quietS) + ": cannot reach orvRx (" + reason_ +
                   "); next try in " + format("%.1f s", seconds(nextActUs_ > nowUs ? nextActUs_ - nowUs : 0));
        case State::Unattended:
            return what + format(" quiet for %.1f s", quietS) + "; no command channel to ask orvRx again";
    }
    return what;
}

std::string Watchdog::countsText() const {
    char text[192];
    std::snprintf(text, sizeof text,
                  "outages %llu recovered %llu longest %.1f s asked %llu (failed %llu) reopened %llu (failed %llu)",
                  static_cast<unsigned long long>(counts_.outages), static_cast<unsigned long long>(counts_.recoveries),
                  seconds(counts_.longestOutageUs), static_cast<unsigned long long>(counts_.requests),
                  static_cast<unsigned long long>(counts_.requestsFailed),
                  static_cast<unsigned long long>(counts_.reopens),
                  static_cast<unsigned long long>(counts_.reopensFailed));
    return text;
}

}  // namespace orvwatch
