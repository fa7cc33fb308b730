// orvrec: records the tracking system's traffic (every UDP channel and the
// TCP command channel) to a pcap file that tcpdump, Wireshark, tshark and
// orvplay read.
#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>

#include "Args.hpp"
#include "os/OrvosiUtil.hpp"
#include "Progress.hpp"
#include "capture/Recorder.hpp"

namespace {

std::atomic<bool> gStop{false};

void onSignal(int) { gStop = true; }

std::string defaultName() {
    char name[64];
    const std::time_t now = std::time(nullptr);
    std::strftime(name, sizeof name, "orv-%Y%m%d-%H%M%S.pcap", std::localtime(&now));
    return name;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvrec: records every channel of the tracking system to a pcap file"};
    orvargs::standard(app, "orvrec", ORVA_TOOL_VERSION);
    orvtools::RecordOptions opt;
    bool capture = false, receive = false, noStream = false;
    app.add_option("-o,--output", opt.output, "pcap file to write (default: orv-DATE-TIME.pcap)");
    app.add_option("--ini", opt.ini, "Configuration file: ports and orvRx's address")
        ->capture_default_str()
        ->check(orvargs::readableFile());
    app.add_option("--duration", opt.durationS, "Seconds to record; 0 records until Ctrl-C")
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"))
        ->capture_default_str();
    app.add_flag("--capture", capture, "Capture on an interface (needs the capture privilege); no fallback");
    app.add_flag("--receive", receive, "Receive on the configured ports instead of capturing")->excludes("--capture");
    app.add_option("-i,--interface", opt.interface, "Interface to capture on (default: lo for a loopback address, else any)");
    app.add_option("--forward", opt.forwardIni,
                   "While receiving, hand every datagram on to the ports of this INI file on 127.0.0.1")
        ->check(orvargs::readableFile());
    app.add_flag("--no-stream", noStream, "While receiving, do not ask orvRx to stream over the command channel");
    if (const int rc = orvargs::parse(app, argc, argv); rc >= 0) return rc;
    opt.mode = capture ? orvtools::RecordMode::Capture
               : receive || !opt.forwardIni.empty() ? orvtools::RecordMode::Receive
                                                    : orvtools::RecordMode::Auto;
    opt.stream = !noStream;
    if (opt.output.empty()) opt.output = defaultName();

    orvtools::Recorder rec(opt);
    std::string error, notice;
    if (!rec.open(error, notice)) {
        std::fprintf(stderr, "orvrec: %s\n", error.c_str());
        return 1;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    for (size_t at = notice.find('\n'); at != std::string::npos; at = notice.find('\n', at + 1))
        notice.insert(at + 1, "orvrec: ");
    std::fprintf(stderr, "orvrec: %s\norvrec: writing %s%s\n", notice.c_str(), opt.output.c_str(),
                 opt.durationS > 0 ? "" : "; Ctrl-C stops");
    const orvtools::Channels& ch = rec.channels();
    orvprogress::ProgressLine line(stderr);
    const bool ok = rec.run(
        gStop,
        [&](const orvtools::RecordReport& r) {
            char head[64];
            std::snprintf(head, sizeof head, "orvrec: %.1f s  ", r.seconds);
            line.update(OrvosiUtil::getTimeSysUs(),
                        head + r.counts.brief(ch) + "  -> " + orvprogress::byteText(r.fileBytes));
        },
        error);
    line.finish();
    if (!ok) {
        std::fprintf(stderr, "orvrec: stopped after %.1f s: %s\n", rec.report().seconds, error.c_str());
        return 1;
    }
    const orvtools::RecordReport& r = rec.report();
    std::printf("orvrec: recorded %.1f s to %s (%s), %s\n", r.seconds, opt.output.c_str(),
                orvprogress::byteText(r.fileBytes).c_str(),
                r.mode == orvtools::RecordMode::Capture ? ("captured on " + r.interface).c_str()
                                                        : "as the receiver of the configured ports");
    std::printf("%s", r.counts.table(ch, "packets").c_str());
    if (r.mode == orvtools::RecordMode::Capture && r.kernelDrops > 0)
        std::printf("  LOST:      %llu frames the kernel could not hand over (a slow disk or a busy machine)\n",
                    static_cast<unsigned long long>(r.kernelDrops));
    if (!opt.forwardIni.empty())
        std::printf("  forwarded: %llu datagrams to the ports of %s, %llu failed\n",
                    static_cast<unsigned long long>(r.forwarded), opt.forwardIni.c_str(),
                    static_cast<unsigned long long>(r.forwardFailures));
    if (!r.commands.empty()) std::printf("  commands:  %s\n", r.commands.c_str());
    return 0;
}
