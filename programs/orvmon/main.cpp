// orvmon: watches a running tracking system through liborvaccess and tells
// what arrives, how regularly, and how good the prediction is.
#include <orvaccess/OrvAccess.hpp>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "Args.hpp"
#include "Check.hpp"
#include "LiveView.hpp"
#include "Monitor.hpp"
#include "Session.hpp"
#include "Settings.hpp"
#include "watch/Watchdog.hpp"

namespace {

volatile std::sig_atomic_t gStop = 0;

void onSignal(int) { gStop = 1; }

// Exit codes: 0 a run, 1 the library cannot be opened, 2 bad arguments or
// an unreadable configuration file, 3 nothing arrived at all.
constexpr int kExitNoOpen = 1, kExitUsage = 2, kExitNothing = 3;

// Installed before ncurses starts, so that ncurses keeps its hands off them
// and a signal ends the loop through the same path as 'q'.
void installSignals() {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

void sleepUs(long us) {
    timespec ts{0, us * 1000};
    nanosleep(&ts, nullptr);
}

// The simulator may come up a moment after the monitor: keep trying until
// the library opens and, when the file wants one, the command channel is up.
// With verbose, the library's connection lines of each attempt that differs.
orvsession::OpenResult openWithRetry(OrvAccess& access, const std::string& ini, double timeoutS, bool verbose) {
    const uint64_t start = access.getTimeUs();
    std::vector<std::string> shown;
    for (;;) {
        orvsession::OpenResult r = orvsession::openLibrary(access, ini, orvsession::Scope::Everything);
        if (verbose && r.lines != shown) {
            for (const std::string& line : r.lines) std::cerr << "orvaccess: " << line << "\n";
            shown = r.lines;
        }
        const orvsession::ChannelState tcp = r.channel(orvnames::Channel::Tcp).state;
        const bool done = r.opened && tcp != orvsession::ChannelState::Failed;
        if (done || !r.setupError.empty() || gStop ||
            static_cast<double>(access.getTimeUs() - start) >= timeoutS * 1e6)
            return r;
        sleepUs(200000);
    }
}

std::string located(const orvcheck::Finding& f, const std::string& ini) {
    return (f.line > 0 ? ini + " line " + std::to_string(f.line) + ": " : "") + f.message;
}

// Another receiver may start while the monitor runs and take its datagrams:
// look again every few seconds.
class PortWatch {
public:
    static constexpr uint64_t kPeriodUs = 2000000;

    PortWatch(const orvcheck::IniReport& ini, bool announce) : ini_(ini), announce_(announce) {}

    // True when the warnings changed.
    bool poll(uint64_t nowUs) {
        if (nowUs < nextUs_) return false;
        nextUs_ = nowUs + kPeriodUs;
        std::vector<std::string> now;
        for (const orvcheck::Finding& f : orvcheck::heldPortFindings(ini_, getpid())) now.push_back(f.message);
        if (now == warnings_) return false;
        if (announce_)
            for (const std::string& w : now)
                if (std::find(warnings_.begin(), warnings_.end(), w) == warnings_.end())
                    std::cerr << "orvmon: warning: " << w << "\n";
        warnings_ = std::move(now);
        return true;
    }
    const std::vector<std::string>& warnings() const { return warnings_; }

private:
    const orvcheck::IniReport& ini_;
    bool announce_;
    uint64_t nextUs_ = 0;
    std::vector<std::string> warnings_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvmon: live monitor of an orv tracking system"};
    orvargs::standard(app, "orvmon", ORVA_TOOL_VERSION);
    std::string ini = "orvaccess.ini";
    double duration = 0.0, connectTimeout = 5.0;
    bool plain = false, verbose = false;
    orvmon::MonitorOptions opt;
    app.add_option("--ini", ini, "configuration file of the library")->capture_default_str();
    std::string summaryFile, csvFile;
    app.add_option("--summary-file", summaryFile, "also write the summary to this file");
    app.add_option("--csv", csvFile, "write one line per predicted tracking record: times, poses, errors");
    app.add_option("--duration", duration, "seconds to run; 0 runs until interrupted")
        ->capture_default_str()
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"));
    app.add_flag("--plain", plain, "one line per second instead of the live view");
    app.add_flag("-v,--verbose", verbose, "print the library's connection lines");
    app.add_option("--ahead-ms", opt.aheadMs, "display time ahead of the library clock, ms")
        ->capture_default_str()
        ->check(orvargs::number(0, 1000, "milliseconds"));
    app.add_option("--horizons-ms", opt.horizonsMs,
                   "horizons from the pose time at which the prediction error is also measured, ms")
        ->delimiter(',')
        ->check(orvargs::number(0, 200, "milliseconds"))
        ->capture_default_str();
    app.add_flag("--uplink", opt.uplink,
                 "send platform pose (50 Hz), GPS and input data (1 Hz); injects data into a real system");
    app.add_option("--connect-timeout", connectTimeout, "seconds to keep retrying open()")
        ->capture_default_str()
        ->check(orvargs::number(0, 3600, "seconds"));
    app.footer("Exit status: 0 a run; 1 the library cannot be opened; 2 bad arguments or an unreadable "
               "configuration file; 3 nothing arrived on any channel.");
    if (const int rc = orvargs::parse(app, argc, argv); rc >= 0) return rc;

    installSignals();
    // The same check as orvctl check: what in the file or on this machine
    // will keep the monitor from seeing what the writer expects.
    orvcheck::CheckOptions checkOptions;
    checkOptions.iniPath = ini;
    checkOptions.ownPid = getpid();
    const orvcheck::CheckReport check = orvcheck::runCheck(checkOptions);
    if (!check.ini.readable) {
        // The library would quietly run on its defaults and show nothing.
        std::cerr << "orvmon: cannot read the configuration file " << ini << ": " << check.ini.readError
                  << "; name it with --ini FILE (examples/orvaccess.ini is a start)\n";
        return kExitUsage;
    }
    std::vector<std::string> warnings;  // for the live view, which hides what went before
    for (const orvcheck::Finding& f : check.findings) {
        if (f.severity == orvcheck::Severity::Note || f.kind == "port-held") continue;  // held ports: the watch
        warnings.push_back(located(f, ini));
        std::cerr << "orvmon: " << orvcheck::severityName(f.severity) << ": " << warnings.back() << "\n";
    }

    std::ofstream csv;
    if (!csvFile.empty()) {
        csv.open(csvFile);
        if (!csv) {
            std::cerr << "orvmon: cannot write " << csvFile << ": " << std::strerror(errno)
                      << "; name a file in a writable folder\n";
            return kExitUsage;
        }
        opt.csv = &csv;
    }

    OrvAccess access;
    const orvsession::OpenResult opened = openWithRetry(access, ini, connectTimeout, verbose);
    if (!opened.setupError.empty()) {
        std::cerr << "orvmon: " << opened.setupError << "\n";
        return kExitNoOpen;
    }
    if (!opened.opened) {
        std::cerr << "orvmon: cannot open: " << opened.lastError << "\n";
        for (const orvsession::ChannelResult* c : opened.failures())
            std::cerr << "orvmon:   " << orvsession::failureText(*c) << "\n";
        return kExitNoOpen;
    }
    for (const orvsession::ChannelResult* c : opened.failures()) {
        warnings.push_back(orvsession::failureText(*c));
        std::cerr << "orvmon: warning: " << warnings.back() << "\n";
    }
    opt.prediction = orvmon::fromIni(check.ini);

    // Another client's command, or orvRx restarting, stops the streams; the
    // watchdog asks again, or opens the library again, and counts it.
    orvwatch::WatchdogOptions watchOptions;
    watchOptions.commandChannel = opened.channel(orvnames::Channel::Tcp).state != orvsession::ChannelState::Disabled;
    orvwatch::Watchdog watchdog(
        access,
        [&ini](OrvAccess& a, std::string& why) {
            return orvsession::reopenEverything(a, ini, why);
        },
        watchOptions);
    opt.watchdog = &watchdog;

    orvmon::Monitor monitor(access, opt);
    std::unique_ptr<orvmon::LiveView> view;
    if (!plain && isatty(STDOUT_FILENO)) {
        view = orvmon::LiveView::open();
        if (!view) std::cerr << "orvmon: cannot drive this terminal; plain output instead\n";
    }
    PortWatch ports(check.ini, !view);
    orvmon::ViewText text{"orvmon  " + ini, opt.uplink, warnings};

    const uint64_t start = access.getTimeUs();
    uint64_t nextDraw = start, nextKey = start, nextLine = start + 1000000;
    try {
        while (!gStop) {
            const uint64_t now = access.getTimeUs();
            if (duration > 0 && static_cast<double>(now - start) >= duration * 1e6) break;
            monitor.poll(now);
            if (ports.poll(now)) {
                text.warnings = ports.warnings();
                text.warnings.insert(text.warnings.end(), warnings.begin(), warnings.end());
            }
            if (view) {
                if (now >= nextKey) {
                    nextKey = now + 20000;
                    const int k = view->key();
                    if (k == 'q' || k == 'Q') break;
                    if ((k == 'i' || k == 'I') && opt.uplink) monitor.sendInput();
                }
                if (now >= nextDraw) {
                    nextDraw = now + 200000;
                    view->draw(monitor, text);
                }
            }
            // The view shows the watchdog's state; a log gets each event.
            for (const std::string& event : watchdog.takeEvents())
                if (!view) std::cerr << "orvmon: " << event << "\n";
            if (!view && now >= nextLine) {
                nextLine += 1000000;
                monitor.writeLine(std::cout);
                std::cout.flush();
            }
            // Wakes for the next datagram, so that a pose's age is taken
            // when it arrives; at least every millisecond for the rest.
            bool ready = false;
            if (!access.waitUdp(1, &ready)) sleepUs(500);
        }
    } catch (const std::exception& e) {
        if (view) view->close();
        access.close();
        std::cerr << "orvmon: " << e.what() << "\n";
        return kExitNoOpen;
    }
    if (view) view->close();
    monitor.finish();
    access.close();
    monitor.writeSummary(std::cout);
    if (!summaryFile.empty()) {
        std::ofstream out(summaryFile);
        monitor.writeSummary(out);
        if (!out) {
            std::cerr << "orvmon: cannot write " << summaryFile << "\n";
            return kExitNoOpen;
        }
    }
    if (csv.is_open() && !csv.flush()) {
        std::cerr << "orvmon: writing " << csvFile << " failed (disk full?)\n";
        return kExitNoOpen;
    }
    if (monitor.status().receivedEver == 0) {
        std::cerr << "orvmon: nothing arrived on any channel in " << monitor.runTimeS()
                  << " s: is the tracking system running, streaming, and sending to this machine's ports? "
                     "orvctl check and orvctl status tell more\n";
        return kExitNothing;
    }
    return 0;
}
