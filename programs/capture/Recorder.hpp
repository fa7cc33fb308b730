// orvrec's engine: records every channel of the tracking system to a pcap
// file, one of two ways.
//
// Capture: libpcap on an interface with a filter built from the INI file's
// ports and address. Needs the capture privilege (as tcpdump does) and takes
// nothing from anyone: the application keeps running beside it.
//
// Receive: orvrec binds the library's receiving ports itself and writes
// every datagram as an IPv4 packet, and it plays the library's part on the
// command channel (connects, switches streaming on, and off at the end), so
// that orvRx sends at all. The application cannot receive beside it, unless
// orvrec forwards what it receives to the ports of another INI file.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "capture/Channels.hpp"
#include "capture/Packets.hpp"

namespace orvtools {

enum class RecordMode { Auto, Capture, Receive };

struct RecordOptions {
    std::string ini = "orvaccess.ini";
    std::string output;
    RecordMode mode = RecordMode::Auto;
    std::string interface;   // capture; empty: lo for a loopback address, else any
    double durationS = 0.0;  // 0: until stopped
    std::string forwardIni;  // receive: hand every datagram on to these ports on 127.0.0.1
    bool stream = true;      // receive: ask orvRx to stream over the command channel
};

struct RecordReport {
    ChannelCounts counts;
    RecordMode mode = RecordMode::Auto;  // the one in use
    std::string filter;                  // capture
    std::string interface;               // capture
    uint64_t kernelDrops = 0;            // capture: frames the kernel could not hand over
    DecodeCounts decode;                 // capture
    uint64_t forwarded = 0, forwardFailures = 0;
    std::string commands;                // what happened on the command channel (receive)
    double seconds = 0.0;
    uint64_t fileBytes = 0;
};

class Recorder {
public:
    explicit Recorder(RecordOptions options);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Reads the INI file, picks the way in and opens it and the output file.
    // `notice` says how it records (and, when it fell back to receiving,
    // why). False with error set.
    bool open(std::string& error, std::string& notice);
    // Records until the duration passes or *stop; `progress` is called
    // about twice a second. False with error set.
    bool run(const std::atomic<bool>& stop, const std::function<void(const RecordReport&)>& progress,
             std::string& error);

    const RecordReport& report() const { return report_; }
    const Channels& channels() const { return channels_; }

    // The capture filter for the channels of an INI file: datagrams to the
    // receiving ports from anywhere, the uplink and commands with orvRx.
    static std::string filterFor(const Channels& channels);

private:
    struct Capture;
    struct Receive;
    bool openCapture(std::string& error, bool& noPrivilege);
    bool openReceive(std::string& error);
    void count(const Segment& s);

    RecordOptions opt_;
    Channels channels_;
    std::unique_ptr<Capture> capture_;
    std::unique_ptr<Receive> receive_;
    RecordReport report_;
};

}  // namespace orvtools
