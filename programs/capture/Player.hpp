// orvplay's engine: sends the datagrams of a capture file to the ports of an
// INI file, at the recorded pace, faster or slower, or as fast as it can;
// optionally moves their clock fields to the replay's clock, and serves the
// command channel with the simulator's command server.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "capture/Channels.hpp"
#include "capture/Packets.hpp"

namespace orvtools {

struct PlayOptions {
    std::string file;
    std::string ini = "orvaccess.ini";  // the ports datagrams go to
    std::string recordedIni;            // the ports of the recording; empty: the same as ini
    std::string to = "127.0.0.1";       // the application's host
    double speed = 1.0;                 // 2: twice as fast
    bool fast = false;                  // no pacing at all
    int loops = 1;                      // 0: until stopped
    double startS = 0.0;                // from the first frame of the file
    double endS = 0.0;                  // 0: to the end
    // A paced replay waits at most this long between two frames: a longer
    // gap in the stamps (a pause, a clock step) is cut to it.
    double maxGapS = 1.0;
    bool retime = false;
    bool serveCommands = false;
    std::string files;                  // the command server's folder; empty: a temporary one
};

struct PlayReport {
    ChannelCounts sent;
    uint64_t sendFailures = 0;
    uint64_t retimed = 0;       // datagrams whose clock field was moved
    uint64_t notReplayed[3] = {};  // uplink datagrams, command segments, other traffic (first pass)
    uint64_t disabled = 0;      // datagrams of a channel the target INI switches off
    DecodeCounts decode;        // of the first pass
    int loopsDone = 0;
    double seconds = 0.0;       // wall time of the replay
    double pausedS = 0.0;       // waiting for the application to switch streaming on
    double recordedS = 0.0;     // what one pass covers of the recording
    // The rule for stamps: frames go in file order, each paced by the step
    // from the frame before it. A frame stamped before that one goes at once;
    // a step longer than maxGapS is cut to it. Both counted in the first pass.
    uint64_t backwards = 0;     // frames stamped before the frame before them
    uint64_t gapsCut = 0;       // steps cut to maxGapS
    double gapCutS = 0.0;       // recorded time the cut steps left out
    // Datagrams that went to no channel of the recording's INI, by
    // destination UDP port (the most frequent few), first pass.
    struct Port {
        uint16_t port = 0;
        uint64_t count = 0;
    };
    static constexpr int kOtherPorts = 8;
    Port otherPorts[kOtherPorts] = {};
};

class Player {
public:
    explicit Player(PlayOptions options);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // Reads both INI files, checks the capture file and opens the senders
    // (and the command server). False with error set.
    bool open(std::string& error);
    // Replays until done or *stop; `progress` is called about twice a second.
    // False with error set when the file turns out damaged.
    bool run(const std::atomic<bool>& stop, const std::function<void(const PlayReport&)>& progress,
             std::string& error);

    const PlayReport& report() const { return report_; }
    const Channels& channels() const { return target_; }
    // True while the command server's client has streaming switched on
    // (always true without the server).
    bool streaming() const;

private:
    struct Impl;
    // Waits until the replay clock reaches dueUs, serving commands and
    // pausing while streaming is off; false when stopped.
    bool waitUntil(uint64_t dueUs, const std::atomic<bool>& stop,
                   const std::function<void(const PlayReport&)>& progress);
    void send(ChannelId channel, Bytes& datagram);
    // Retiming: the least time from a clock field to its datagram's capture.
    bool measureLag(std::string& error);

    PlayOptions opt_;
    Channels target_, recorded_;
    std::unique_ptr<Impl> impl_;
    PlayReport report_;
};

}  // namespace orvtools
