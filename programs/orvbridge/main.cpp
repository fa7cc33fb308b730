// orvbridge: the one receiver of the tracker's ports, publishing everything
// the library delivers on a DDS domain (Eclipse Cyclone DDS) as ROS 2
// messages and the tracker's own types, and sending what a mission computer
// publishes on the uplink topics up to orvRx. Any number of programs on any
// host of the domain then see every pose.
#include <orvaccess/OrvAccess.hpp>

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "Args.hpp"
#include "Bridge.hpp"
#include "Check.hpp"
#include "Session.hpp"
#include "watch/Watchdog.hpp"
#include "Progress.hpp"

namespace {

volatile std::sig_atomic_t gStop = 0;

void onSignal(int) { gStop = 1; }

// Exit codes: 0 a run, 1 the library or DDS cannot be opened, 2 bad arguments
// or an unreadable configuration file, 3 the subscribers did not come.
constexpr int kExitNoOpen = 1, kExitUsage = 2, kExitNoSubscribers = 3;
constexpr uint64_t kUsPerS = 1000000;
constexpr uint64_t kProgressUs = 250000;

std::string brief(const orvbridge::Counts& c) {
    using orvbridge::Topic;
    char text[160];
    std::snprintf(text, sizeof text, "poses %llu  imu %llu  hub %llu  errors %llu  uplink %llu",
                  static_cast<unsigned long long>(c.of(Topic::Pose)), static_cast<unsigned long long>(c.of(Topic::Imu)),
                  static_cast<unsigned long long>(c.of(Topic::Hub)),
                  static_cast<unsigned long long>(c.of(Topic::Errors)),
                  static_cast<unsigned long long>(c.uplinkSent));
    return text;
}

void printSummary(const orvbridge::Counts& c, const orvwatch::Watchdog& w, const std::string& ns, bool uplink,
                  double seconds) {
    std::printf("orvbridge: ran %.1f s\n", seconds);
    std::printf("  %-28s %12s\n", "topic", "samples");
    for (int i = 0; i < orvbridge::kTopicCount; ++i) {
        const auto t = static_cast<orvbridge::Topic>(i);
        std::printf("  %-28s %12llu%s\n", orvbridge::topicName(t, ns).c_str(),
                    static_cast<unsigned long long>(c.written[i]),
                    orvbridge::topicInfo(t).service == orvbridge::Service::Uplink ? "  taken" : "");
    }
    std::printf("  uplink sent %llu, failed %llu; DDS writes failed %llu; library calls failed %llu\n",
                static_cast<unsigned long long>(c.uplinkSent), static_cast<unsigned long long>(c.uplinkFailed),
                static_cast<unsigned long long>(c.writeFailures),
                static_cast<unsigned long long>(c.libraryFailures));
    if (uplink)
        std::printf("  uplink refused %llu out of range, %llu above the rate; lost before taken %llu\n",
                    static_cast<unsigned long long>(c.uplinkRefusedValue),
                    static_cast<unsigned long long>(c.uplinkRefusedRate),
                    static_cast<unsigned long long>(c.uplinkLost));
    else
        std::printf("  uplink off: the uplink topics were not read (--uplink reads them)\n");
    if (!c.lastFailure.empty()) std::printf("  last failure: %s\n", c.lastFailure.c_str());
    std::printf("  records without a topic (platform IMU, aux, targets, diagnostics, pose recovery, features) "
                "taken and dropped: %llu\n",
                static_cast<unsigned long long>(c.unpublished));
    std::printf("  recovery: %s\n", w.countsText().c_str());
    if (!w.lastReason().empty()) std::printf("  recovery, last reason: %s\n", w.lastReason().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvbridge: publishes an orv tracking system on a DDS domain (ROS 2 compatible) and sends "
                 "platform pose, GPS and input data from it up to the tracker"};
    orvargs::standard(app, "orvbridge", ORVA_TOOL_VERSION);
    std::string ini = "orvaccess.ini";
    orvbridge::Options opt;
    double duration = 0.0, waitTimeout = 30.0;
    int waitSubscribers = 0;
    int uplinkMs = 2;
    std::string attitude = "body-to-nav";
    app.add_option("--ini", ini, "configuration file of the library")->capture_default_str();
    app.add_option("--domain", opt.domain, "DDS domain id; the Cyclone DDS configuration comes from CYCLONEDDS_URI")
        ->capture_default_str()
        ->check(orvargs::number(0, 232, "domain ids"));
    app.add_option("--namespace", opt.ns, "topics are rt/NAMESPACE/pose, ... (ROS 2: /NAMESPACE/pose)")
        ->capture_default_str();
    app.add_option("--horizon-ms", opt.horizonMs,
                   "the predicted pose (pose_predicted) lies this far beyond the newest pose time, ms")
        ->capture_default_str()
        ->check(orvargs::number(0, 200, "milliseconds"));
    app.add_option("--frame", opt.frame, "frame_id of the poses: the tracker's navigation frame")
        ->capture_default_str();
    app.add_option("--imu-frame", opt.imuFrame, "frame_id of the IMU samples")->capture_default_str();
    app.add_option("--gps-frame", opt.gpsFrame, "frame_id of the GPS fixes")->capture_default_str();
    app.add_option("--attitude", attitude,
                   "what a pose's quaternion rotates: body-to-nav (the body in the navigation frame, as ROS 2 "
                   "expects) or nav-to-body")
        ->capture_default_str()
        ->check(CLI::IsMember({"body-to-nav", "nav-to-body"}));
    app.add_flag("--reliable", opt.reliable,
                 "streams reliable, keeping all: no sample lost, but a reader that falls behind slows the bridge");
    app.add_option("--max-blocking-ms", opt.maxBlockingMs,
                   "longest a reliable write waits for readers that fall behind before it counts as failed, ms")
        ->capture_default_str()
        ->check(orvargs::number(1, 3600000, "milliseconds"));
    CLI::Option* uplinkFlag = app.add_flag("--uplink", opt.uplink,
                 "read the uplink topics and send their samples up to the tracker (off: anyone on the domain could "
                 "steer its platform input)");
    app.add_option("--uplink-rate", opt.uplinkRatePerS,
                   "most samples a second sent up per uplink topic; more are refused and counted")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 100000.0))
        ->needs(uplinkFlag);
    app.add_option("--uplink-burst", opt.uplinkBurst, "most samples sent up at once per uplink topic")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 100000.0))
        ->needs(uplinkFlag);
    app.add_option("--uplink-partition", opt.uplinkPartition,
                   "take uplink samples only from writers in this DDS partition (a filter, not authentication)")
        ->needs(uplinkFlag);
    app.add_option("--wait-subscribers", waitSubscribers,
                   "take nothing from the library until this many readers subscribe to the poses")
        ->capture_default_str()
        ->check(orvargs::number(0, 10000, "readers"));
    app.add_option("--wait-timeout", waitTimeout, "seconds to wait for them")
        ->capture_default_str()
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"));
    app.add_option("--duration", duration, "seconds to run; 0 runs until interrupted")
        ->capture_default_str()
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"));
    app.add_option("--uplink-ms", uplinkMs,
                   "longest sleep while the tracker sends nothing: how late an uplink sample may go out, ms")
        ->capture_default_str()
        ->check(orvargs::number(1, 1000, "milliseconds"));
    app.footer("Topics (ROS 2 types where ROS 2 has one): pose and pose_predicted (geometry_msgs/PoseStamped), "
               "tracking (orv_msgs TrackingRecord), imu (sensor_msgs/Imu), gps/fix (sensor_msgs/NavSatFix), gps, "
               "platform_pose, hub, residuals, errors (orv_msgs), /diagnostics (diagnostic_msgs/DiagnosticArray, "
               "once a second); read with --uplink only: uplink/platform_pose, uplink/gps, uplink/input. Streams are "
               "best effort, "
               "keep last 5; errors reliable, keep last 100; diagnostics reliable, transient local.\n"
               "Exit status: 0 a run; 1 the library or DDS cannot be opened; 2 bad arguments or an unreadable "
               "configuration file; 3 the subscribers of --wait-subscribers did not come.");
    if (const int rc = orvargs::parse(app, argc, argv); rc >= 0) return rc;
    opt.attitude = attitude == "nav-to-body" ? orvbridge::Attitude::NavToBody : orvbridge::Attitude::BodyToNav;

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    // The check orvctl and orvmon run: above all, another receiver on this
    // machine would take the datagrams that the bridge is there to share.
    orvcheck::CheckOptions checkOptions;
    checkOptions.iniPath = ini;
    checkOptions.ownPid = getpid();
    const orvcheck::CheckReport check = orvcheck::runCheck(checkOptions);
    if (!check.ini.readable) {
        std::fprintf(stderr,
                     "orvbridge: cannot read the configuration file %s: %s; name it with --ini FILE "
                     "(examples/orvaccess.ini is a start)\n",
                     ini.c_str(), check.ini.readError.c_str());
        return kExitUsage;
    }
    for (const orvcheck::Finding& f : check.findings)
        if (f.severity != orvcheck::Severity::Note)
            std::fprintf(stderr, "orvbridge: %s: %s\n", orvcheck::severityName(f.severity), f.message.c_str());
    opt.hardwareId = check.orvRx.host;

    OrvAccess access;
    const orvsession::OpenResult opened = orvsession::openLibrary(access, ini, orvsession::Scope::Everything);
    if (!opened.setupError.empty() || !opened.opened) {
        std::fprintf(stderr, "orvbridge: cannot open the library: %s\n",
                     opened.setupError.empty() ? opened.lastError.c_str() : opened.setupError.c_str());
        for (const orvsession::ChannelResult* c : opened.failures())
            std::fprintf(stderr, "orvbridge:   %s\n", orvsession::failureText(*c).c_str());
        return kExitNoOpen;
    }
    for (const orvsession::ChannelResult* c : opened.failures())
        std::fprintf(stderr, "orvbridge: warning: %s\n", orvsession::failureText(*c).c_str());

    orvbridge::Bridge bridge(access, opt);
    std::string error;
    if (!bridge.open(error)) {
        std::fprintf(stderr, "orvbridge: %s\n", error.c_str());
        return kExitNoOpen;
    }
    // Another client's command, or orvRx restarting, stops the streams; the
    // watchdog asks again, or opens the library again, and counts it.
    orvwatch::WatchdogOptions watchOptions;
    watchOptions.commandChannel = opened.channel(orvnames::Channel::Tcp).state != orvsession::ChannelState::Disabled;
    orvwatch::Watchdog watchdog(
        access,
        [&ini](OrvAccess& a, std::string& why) {
            const bool opened = orvsession::reopenEverything(a, ini, why);
            // open() read the file's prediction again; the bridge sets its own.
            a.setPrediction(0.0f);
            return opened;
        },
        watchOptions);
    bridge.setWatchdog(&watchdog);
    std::fprintf(stderr, "orvbridge: %s on DDS domain %u, topics %s\n", ini.c_str(), opt.domain,
                 orvbridge::topicName(orvbridge::Topic::Pose, opt.ns).c_str());
    if (opt.uplink)
        std::fprintf(stderr,
                     "orvbridge: warning: --uplink: any program that can reach DDS domain %u%s may publish on %s, "
                     "%s and %s, and the bridge sends it up to the tracker as platform pose, GPS and input data "
                     "(checked, at most %.0f a second per topic); DDS here has no authentication\n",
                     opt.domain,
                     opt.uplinkPartition.empty() ? "" : (" in partition " + opt.uplinkPartition).c_str(),
                     orvbridge::topicName(orvbridge::Topic::UplinkPlatform, opt.ns).c_str(),
                     orvbridge::topicName(orvbridge::Topic::UplinkGps, opt.ns).c_str(),
                     orvbridge::topicName(orvbridge::Topic::UplinkInput, opt.ns).c_str(), opt.uplinkRatePerS);

    if (waitSubscribers > 0) {
        std::fprintf(stderr, "orvbridge: waiting up to %.0f s for %d subscriber(s) of the poses\n", waitTimeout,
                     waitSubscribers);
        const uint64_t end = access.getTimeUs() + static_cast<uint64_t>(waitTimeout * kUsPerS);
        while (bridge.poseSubscribers() < waitSubscribers) {
            if (gStop || access.getTimeUs() >= end) {
                std::fprintf(stderr, "orvbridge: %d of %d subscriber(s) came; start them with the same domain "
                             "(%u) and CYCLONEDDS_URI, or lower --wait-subscribers\n",
                             bridge.poseSubscribers(), waitSubscribers, opt.domain);
                return kExitNoSubscribers;
            }
            bridge.wait(10000);
        }
        // What queued up in the ports while the bridge waited is old news
        // by now: the subscribers start with the poses of this moment.
        access.flushUdp();
    }

    const uint64_t start = access.getTimeUs();
    const uint64_t end = duration > 0 ? start + static_cast<uint64_t>(duration * kUsPerS) : 0;
    orvprogress::ProgressLine line(stderr);
    std::string shownFailure;
    uint64_t nextProgressUs = start;
    // Who steers the tracker: each change in the writers of an uplink topic
    // is told, so that an operator sees a publisher come and go.
    int uplinkWriters[3] = {0, 0, 0};
    const orvbridge::Topic uplinkTopics[3] = {orvbridge::Topic::UplinkPlatform, orvbridge::Topic::UplinkGps,
                                              orvbridge::Topic::UplinkInput};
    for (;;) {
        const uint64_t now = access.getTimeUs();
        if (gStop || (end != 0 && now >= end)) break;
        bridge.pass(now);
        const orvbridge::Counts& c = bridge.counts();
        for (const std::string& event : watchdog.takeEvents()) {
            line.finish();
            std::fprintf(stderr, "orvbridge: %s\n", event.c_str());
        }
        if (c.lastFailure != shownFailure) {
            line.finish();
            std::fprintf(stderr, "orvbridge: %s\n", c.lastFailure.c_str());
            shownFailure = c.lastFailure;
        }
        // The text only when the line may show it: formatting it every pass
        // would cost more than the pass.
        if (now >= nextProgressUs) {
            for (int i = 0; opt.uplink && i < 3; ++i) {
                const int n = bridge.uplinkWriters(uplinkTopics[i]);
                if (n == uplinkWriters[i]) continue;
                line.finish();
                std::fprintf(stderr, "orvbridge: uplink: %s is read from %d writer(s), %d before\n",
                             orvbridge::topicName(uplinkTopics[i], opt.ns).c_str(), n, uplinkWriters[i]);
                uplinkWriters[i] = n;
            }
            char head[48];
            std::snprintf(head, sizeof head, "orvbridge: %.0f s  ", static_cast<double>(now - start) / kUsPerS);
            line.update(now, head + brief(c));
            nextProgressUs = now + kProgressUs;
        }
        // Sleeps in the library until the tracker sends something; only the
        // uplink samples, which DDS cannot wake it for, wait for the limit.
        bool ready = false;
        if (!access.waitUdp(uplinkMs, &ready)) bridge.wait(static_cast<int64_t>(uplinkMs) * 1000);
    }
    line.finish();
    // Last records that arrived while stopping still go out.
    bridge.pass(access.getTimeUs());
    printSummary(bridge.counts(), watchdog, opt.ns, opt.uplink,
                 static_cast<double>(access.getTimeUs() - start) / kUsPerS);
    std::fflush(stdout);
    return 0;
}
