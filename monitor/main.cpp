// orvmon: watches a running tracking system through liborvaccess and tells
// what arrives, how regularly, and how good the prediction is.
#include <orvaccess/OrvAccess.hpp>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <unistd.h>

#include "Check.hpp"
#include "LiveView.hpp"
#include "Monitor.hpp"
#include "Settings.hpp"

namespace {

volatile std::sig_atomic_t gStop = 0;

void onSignal(int) { gStop = 1; }

// Exit codes: 0 a run, 1 the library cannot be opened, 2 bad arguments or
// an unreadable configuration file.
constexpr int kExitUsage = 2;

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

// The simulator may come up a moment after the monitor: keep trying.
bool openWithRetry(OrvAccess& access, double timeoutS) {
    const uint64_t start = access.getTimeUs();
    while (!access.open()) {
        if (gStop || static_cast<double>(access.getTimeUs() - start) >= timeoutS * 1e6) return false;
        sleepUs(200000);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvmon: live monitor of an orv tracking system"};
    std::string ini = "orvaccess.ini";
    double duration = 0.0, connectTimeout = 5.0;
    bool plain = false;
    orvmon::MonitorOptions opt;
    app.add_option("--ini", ini, "configuration file of the library")->capture_default_str();
    std::string summaryFile;
    app.add_option("--summary-file", summaryFile, "also write the summary to this file");
    app.add_option("--duration", duration, "seconds to run; 0 runs until interrupted")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--plain", plain, "one line per second instead of the live view");
    app.add_option("--ahead-ms", opt.aheadMs, "display time ahead of the library clock, ms")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--uplink", opt.uplink,
                 "send platform pose (50 Hz), GPS and input data (1 Hz); injects data into a real system");
    app.add_option("--connect-timeout", connectTimeout, "seconds to keep retrying open()")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : kExitUsage;
    }

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
    for (const orvcheck::Finding& f : check.findings)
        if (f.severity != orvcheck::Severity::Note)
            std::cerr << "orvmon: " << orvcheck::severityName(f.severity) << ": "
                      << (f.line > 0 ? ini + " line " + std::to_string(f.line) + ": " : "") << f.message << "\n";
    OrvAccess access;
    access.setIniPath(ini);
    if (!openWithRetry(access, connectTimeout)) {
        std::cerr << "orvmon: cannot open: " << access.getLastError() << "\n";
        return 1;
    }
    opt.prediction = orvmon::fromIni(check.ini);

    orvmon::Monitor monitor(access, opt);
    std::unique_ptr<orvmon::LiveView> view;
    if (!plain && isatty(STDOUT_FILENO)) {
        view = orvmon::LiveView::open("orvmon  " + ini, opt.uplink);
        if (!view) std::cerr << "orvmon: cannot drive this terminal; plain output instead\n";
    }

    const uint64_t start = access.getTimeUs();
    uint64_t nextDraw = start, nextKey = start, nextLine = start + 1000000;
    try {
        while (!gStop) {
            const uint64_t now = access.getTimeUs();
            if (duration > 0 && static_cast<double>(now - start) >= duration * 1e6) break;
            monitor.poll(now);
            if (view) {
                if (now >= nextKey) {
                    nextKey = now + 20000;
                    const int k = view->key();
                    if (k == 'q' || k == 'Q') break;
                    if ((k == 'i' || k == 'I') && opt.uplink) monitor.sendInput();
                }
                if (now >= nextDraw) {
                    nextDraw = now + 200000;
                    view->draw(monitor);
                }
            } else if (now >= nextLine) {
                nextLine += 1000000;
                monitor.writeLine(std::cout);
                std::cout.flush();
            }
            sleepUs(500);
        }
    } catch (const std::exception& e) {
        if (view) view->close();
        access.close();
        std::cerr << "orvmon: " << e.what() << "\n";
        return 1;
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
            return 1;
        }
    }
    return 0;
}
