// orvplay: replays a capture of the tracking system (from orvrec, tcpdump or
// Wireshark; pcap or pcapng) to the ports of an INI file, so that the
// library, orvmon or any application sees a recorded run again.
#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>

#include "Args.hpp"
#include "PortHolders.hpp"
#include "os/OrvosiUtil.hpp"
#include "capture/Player.hpp"
#include "Progress.hpp"

namespace {

std::atomic<bool> gStop{false};

void onSignal(int) { gStop = true; }

bool isLocal(const std::string& host) { return host == "localhost" || host.rfind("127.", 0) == 0; }

// A replay to this machine that nobody receives goes nowhere without a
// word: says which of the ports have no receiver, and what to do.
void warnAboutReceivers(const orvtools::PlayOptions& opt, const orvtools::Channels& ch) {
    if (!isLocal(opt.to)) return;
    const orvcheck::SocketTable table = orvcheck::SocketTable::read();
    std::string nobody;
    bool anyone = false;
    for (const orvtools::Channel& c : ch.all()) {
        if (c.proto != orvtools::Proto::Udp || c.port == 0 || c.id == orvtools::ChannelId::Uplink) continue;
        if (table.holders(orvcheck::Proto::Udp, c.port).empty())
            nobody += (nobody.empty() ? "" : ", ") + std::string(c.name) + " " + std::to_string(c.port);
        else
            anyone = true;
    }
    if (!nobody.empty())
        std::fprintf(stderr,
                     "orvplay: nothing on this machine receives %s yet: what goes there is lost; start the "
                     "application on %s first%s\n",
                     anyone ? ("UDP " + nobody).c_str() : ("any port of " + opt.ini + " (UDP " + nobody + ")").c_str(),
                     opt.ini.c_str(),
                     opt.serveCommands ? "" : " (with --serve-commands, orvplay answers its command channel too)");
    const orvtools::Channel& tcp = ch[orvtools::ChannelId::Commands];
    if (!opt.serveCommands && tcp.port != 0 && table.holders(orvcheck::Proto::Tcp, tcp.port).empty())
        std::fprintf(stderr,
                     "orvplay: nothing listens on the command port TCP %d: an application that asks orvRx to "
                     "stream gets no answer (orvmon, orvbridge and orvctl say so); add --serve-commands to answer "
                     "it, and the replay then runs while the application has streaming on\n",
                     tcp.port);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvplay: replays a recorded run of the tracking system to the ports of an INI file"};
    orvargs::standard(app, "orvplay", ORVA_TOOL_VERSION);
    orvtools::PlayOptions opt;
    bool forever = false;
    app.add_option("file", opt.file, "Capture file, pcap or pcapng")->required()->check(orvargs::readableFile());
    app.add_option("--ini", opt.ini, "Configuration file: the ports to send to")
        ->capture_default_str()
        ->check(orvargs::readableFile());
    app.add_option("--recorded-ini", opt.recordedIni,
                   "Configuration file of the recording, when its ports differ (default: --ini)")
        ->check(orvargs::readableFile());
    app.add_option("--to", opt.to, "Address of the application's host")->capture_default_str();
    app.add_option("--speed", opt.speed, "Pace: 1 as recorded, 2 twice as fast")
        ->check(orvargs::above(0, orvargs::kFastestReplay, "times the recorded pace"))
        ->capture_default_str();
    app.add_flag("--fast", opt.fast, "As fast as possible, no pacing");
    app.add_option("--loops", opt.loops, "Passes over the file")
        ->check(orvargs::number(0, 1e9, "passes (0: until Ctrl-C)"))
        ->capture_default_str();
    app.add_flag("--loop", forever, "Repeat until Ctrl-C");
    app.add_option("--start", opt.startS, "Seconds into the recording to start at")
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"))
        ->capture_default_str();
    app.add_option("--end", opt.endS, "Seconds into the recording to stop at; 0: its end")
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"))
        ->capture_default_str();
    app.add_option("--max-gap", opt.maxGapS,
                   "Longest wait between two frames, s: a longer gap in the stamps is cut to it")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("--retime", opt.retime,
                 "Move pose and meta times to this host's clock (checksums kept), so that prediction works");
    app.add_flag("--serve-commands", opt.serveCommands,
                 "Answer the command channel with the simulator's server; replay while streaming is on");
    app.add_option("--files", opt.files, "Folder the command server's get and put file work on");
    if (const int rc = orvargs::parse(app, argc, argv); rc >= 0) return rc;
    if (forever) opt.loops = 0;
    if (opt.endS > 0.0 && opt.endS <= opt.startS) {
        std::fprintf(stderr, "orvplay: --end (%g s) must lie after --start (%g s)\n", opt.endS, opt.startS);
        return orvargs::kExitUsage;
    }

    orvtools::Player player(opt);
    std::string error;
    if (!player.open(error)) {
        std::fprintf(stderr, "orvplay: %s\n", error.c_str());
        return 1;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    const orvtools::Channels& ch = player.channels();
    std::fprintf(stderr, "orvplay: %s to %s, %s%s%s%s\n", opt.file.c_str(), opt.to.c_str(),
                 opt.fast ? "as fast as possible" : ("speed " + orvargs::numberText(opt.speed)).c_str(),
                 opt.loops == 0 ? ", looping until Ctrl-C" : "", opt.retime ? ", retimed" : "",
                 opt.serveCommands ? (", serving commands on TCP " +
                                      std::to_string(ch[orvtools::ChannelId::Commands].port) +
                                      " (the replay waits for streaming)")
                                         .c_str()
                                   : "");
    warnAboutReceivers(opt, ch);
    orvprogress::ProgressLine line(stderr);
    const bool ok = player.run(
        gStop,
        [&](const orvtools::PlayReport& r) {
            char head[96];
            std::snprintf(head, sizeof head, "orvplay: %.1f s, pass %d%s  ", r.seconds, r.loopsDone + 1,
                          player.streaming() ? "" : ", waiting for streaming");
            line.update(OrvosiUtil::getTimeSysUs(), head + r.sent.brief(ch));
        },
        error);
    line.finish();
    if (!ok) {
        std::fprintf(stderr, "orvplay: %s\n", error.c_str());
        return 1;
    }
    const orvtools::PlayReport& r = player.report();
    std::printf("orvplay: replayed %d pass%s of %.1f s of %s in %.1f s (%.1f s waiting for streaming)%s\n",
                r.loopsDone, r.loopsDone == 1 ? "" : "es", r.recordedS, opt.file.c_str(), r.seconds, r.pausedS,
                gStop ? ", stopped" : "");
    std::printf("%s", r.sent.table(ch, "datagrams").c_str());
    std::printf("  not replayed: %llu uplink datagrams, %llu command segments, %llu other; %llu to ports switched off\n",
                static_cast<unsigned long long>(r.notReplayed[0]), static_cast<unsigned long long>(r.notReplayed[1]),
                static_cast<unsigned long long>(r.notReplayed[2]), static_cast<unsigned long long>(r.disabled));
    if (opt.retime) std::printf("  retimed:      %llu datagrams\n", static_cast<unsigned long long>(r.retimed));
    if (r.backwards + r.gapsCut > 0)
        std::printf("  stamps:       %llu frames stamped before the frame before them, sent in file order at once; "
                    "%llu gaps longer than %g s cut to it (%.1f s left out)\n",
                    static_cast<unsigned long long>(r.backwards), static_cast<unsigned long long>(r.gapsCut),
                    opt.maxGapS, r.gapCutS);
    const orvtools::DecodeCounts& d = r.decode;
    if (d.truncated + d.fragmentsLost > 0)
        std::printf("  unusable:     %llu frames cut short by the capture, %llu datagrams with fragments missing\n",
                    static_cast<unsigned long long>(d.truncated), static_cast<unsigned long long>(d.fragmentsLost));
    if (r.sendFailures > 0) {
        std::printf("  FAILED sends: %llu (%s)\n", static_cast<unsigned long long>(r.sendFailures),
                    isLocal(opt.to) ? "the kernel refused them: nothing received on those ports; start the "
                                      "application first"
                                    : "is the address right, and the network up?");
        return 1;
    }
    if (r.sent.total() == 0) {
        // Nothing of the file belongs to the ports it was replayed as.
        std::string ports;
        for (const orvtools::PlayReport::Port& p : r.otherPorts)
            if (p.count > 0)
                ports += (ports.empty() ? "" : ", ") + std::to_string(p.port) + " (" + std::to_string(p.count) + ")";
        std::fprintf(stderr,
                     "orvplay: no datagram of %s went to a port of %s%s: the recording used other ports; name the "
                     "configuration it was made with: --recorded-ini FILE\n",
                     opt.file.c_str(), opt.recordedIni.empty() ? opt.ini.c_str() : opt.recordedIni.c_str(),
                     ports.empty() ? "" : (", the file's datagrams went to UDP " + ports).c_str());
        return 1;
    }
    return 0;
}
