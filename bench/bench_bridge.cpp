// orvbridgebench: what the bridge costs and how late its poses arrive. The
// simulator runs in this process at its default rates (500 Hz tracking,
// 1 kHz IMU), orvbridge as a child process, and a reader of the poses here
// too, all on 127.0.0.1. Latency is from the simulator's send of a tracking
// packet to this reader's take of its pose; CPU is the bridge's user and
// system time over the measured window, divided by the poses it published.
// A benchmark to read, never a test: nothing here fails on a figure.
#include <CLI/CLI.hpp>

#include <dds/dds.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "RosMessages.h"
#include "Convert.hpp"
#include "Topics.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvsim/Simulator.hpp"
#include "support/DdsLoopback.hpp"
#include "support/Loopback.hpp"
#include "support/Process.hpp"

namespace {

// One step of the simulator: everything due at `nowUs` went out by `endUs`.
struct Step {
    uint64_t nowUs, endUs;
};

struct Received {
    uint64_t poseTimeUs, takenUs;
};

// User plus system time of a process, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');  // the name may hold spaces
    if (close == std::string::npos) return 0.0;
    std::istringstream fields(text.substr(close + 2));
    std::string f;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14) utime = std::stoull(f);
        if (i == 15) stime = std::stoull(f);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double percentile(std::vector<double>& v, double p) {
    if (v.empty()) return 0.0;
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p / 100.0 * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(i), v.end());
    return v[i];
}

double threadCpuUs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

// What the bridge pays per pose for DDS alone: converting a record and
// writing it as a PoseStamped and a TrackingRecord, in a tight loop, to
// readers in another process (orvsub reads the poses, nobody the records),
// timed on this thread's CPU clock. Cyclone sends in the writing thread.
void writeCost(uint32_t domain, const std::string& subPath, const std::string& dir, int n) {
    orvtest::Process sub({subPath, "--domain", std::to_string(domain), "--topic", "pose_cost"}, "/dev/null",
                         dir + "/cost.err");
    const dds_entity_t participant = dds_create_participant(static_cast<dds_domainid_t>(domain), nullptr, nullptr);
    dds_entity_t writers[2];
    const orvbridge::Topic topics[2] = {orvbridge::Topic::Pose, orvbridge::Topic::Tracking};
    for (int i = 0; i < 2; ++i) {
        // A topic of its own, so that the main run's readers stay out of it.
        const std::string name = orvbridge::topicName(topics[i], "orv") + "_cost";
        const dds_entity_t t = dds_create_topic(participant, orvbridge::topicInfo(topics[i]).type, name.c_str(),
                                                nullptr, nullptr);
        dds_qos_t* qos = orvbridge::topicQos(topics[i], false);
        writers[i] = dds_create_writer(participant, t, qos, nullptr);
        dds_delete_qos(qos);
    }
    for (int waited = 0; waited < 1000; ++waited) {
        dds_publication_matched_status_t st{};
        dds_get_publication_matched_status(writers[0], &st);
        if (st.current_count > 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    s_OrvAccessTrkDataExt r{};
    r.cbn[0][0] = r.cbn[1][1] = r.cbn[2][2] = 1.0f;
    const double start = threadCpuUs();
    for (int i = 0; i < n; ++i) {
        r.packetTag = static_cast<uint32_t>(i);
        r.poseTime = OrvosiUtil::getTimeSysUs();
        const auto pose = orvbridge::toPose(r, r.poseTime, orvbridge::Attitude::BodyToNav, "orv_nav");
        dds_write(writers[0], &pose);
        const auto record = orvbridge::toRecord(r);
        dds_write(writers[1], &record);
    }
    const double us = (threadCpuUs() - start) / n;
    std::printf("DDS per pose        %.1f us CPU for a PoseStamped (one remote reader) and a TrackingRecord "
                "(none), %d in a row\n",
                us, n);
    dds_delete(participant);
    sub.signal(SIGTERM);
    sub.wait(10.0);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvbridgebench: latency and CPU per pose of orvbridge at the simulator's default rates"};
    double seconds = 10.0, warmupS = 2.0;
    int extra = 0;
    int uplinkMs = 2;
    double trackingHz = orvsim::SimRates{}.tracking;
    std::string bridgePath = ORVBRIDGE, subPath = ORVSUB;
    app.add_option("--seconds", seconds, "measured seconds")->capture_default_str()->check(CLI::Range(1.0, 3600.0));
    app.add_option("--warmup", warmupS, "seconds before measuring")->capture_default_str();
    app.add_option("--extra-subscribers", extra, "orvsub processes reading the poses besides this one")
        ->capture_default_str()
        ->check(CLI::Range(0, 10));
    app.add_option("--tracking-hz", trackingHz,
                   "the simulator's tracking rate; 0 leaves the NFT poses alone, to tell what the poses cost")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1000.0));
    app.add_option("--uplink-ms", uplinkMs, "the bridge's --uplink-ms")->capture_default_str();
    app.add_option("--orvbridge", bridgePath, "the bridge to measure")->capture_default_str();
    app.add_option("--orvsub", subPath, "the subscriber example")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    char dirTemplate[] = "/tmp/orvbridgebench-XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        std::perror("orvbridgebench: mkdtemp");
        return 1;
    }
    const std::string dir = dirTemplate;
    orvsim::SimConfig cfg;
    cfg.sharedMemName = "orvBridgeBench" + std::to_string(getpid());
    int* ports[] = {&cfg.tcpPort, &cfg.metaPort, &cfg.imagePort, &cfg.inputPort, &cfg.corePort, &cfg.hubPort,
                    &cfg.nftPort};
    const char* keys[] = {"tcpOrvRxPort",   "udpOrvRxPort",  "udpOrvRxImgPort", "udpOrvRxInputPort",
                          "udpOrvCorePort", "udpOrvHubPort", "udpNftPort"};
    std::ostringstream ini;
    ini << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\nsMemImgName = " << cfg.sharedMemName << "\n";
    for (int i = 0; i < 7; ++i) {
        *ports[i] = orvtest::findFreePort();
        ini << keys[i] << " = " << *ports[i] << "\n";
    }
    const std::string iniPath = dir + "/orvaccess.ini";
    std::ofstream(iniPath) << ini.str();
    cfg.fileFolder = dir;
    cfg.rates.tracking = trackingHz;
    const uint32_t domain = orvtest::useLoopbackDds(dir + "/cyclone.xml");

    // The reader, as a renderer on another host would read: best effort.
    const dds_entity_t participant = dds_create_participant(static_cast<dds_domainid_t>(domain), nullptr, nullptr);
    const auto pose = orvbridge::Topic::Pose;
    const dds_entity_t topic = dds_create_topic(participant, orvbridge::topicInfo(pose).type,
                                                orvbridge::topicName(pose, "orv").c_str(), nullptr, nullptr);
    dds_qos_t* qos = orvbridge::topicQos(pose, false);
    const dds_entity_t reader = dds_create_reader(participant, topic, qos, nullptr);
    dds_delete_qos(qos);
    if (reader < 0) {
        std::fprintf(stderr, "orvbridgebench: cannot read the poses: %s\n", dds_strretcode(reader));
        return 1;
    }
    dds_set_status_mask(reader, DDS_DATA_AVAILABLE_STATUS);
    const dds_entity_t waitset = dds_create_waitset(participant);
    dds_waitset_attach(waitset, reader, reader);

    orvsim::Simulator sim(cfg);
    if (!sim.open()) {
        std::fprintf(stderr, "orvbridgebench: %s\n", sim.lastError().c_str());
        return 1;
    }
    std::vector<std::unique_ptr<orvtest::Process>> subs;
    for (int i = 0; i < extra; ++i)
        subs.emplace_back(new orvtest::Process({subPath, "--domain", std::to_string(domain)}, "/dev/null",
                                               dir + "/sub" + std::to_string(i) + ".err"));
    const std::string d = std::to_string(domain);
    orvtest::Process bridge({bridgePath, "--ini", iniPath, "--domain", d, "--wait-subscribers",
                             std::to_string(extra + 1), "--duration", std::to_string(warmupS + seconds + 1.0),
                             "--uplink-ms", std::to_string(uplinkMs)},
                            dir + "/bridge.out", dir + "/bridge.err");

    // The simulator, stepped here so that each send has a time.
    std::atomic<bool> stop{false};
    std::vector<Step> steps;
    steps.reserve(static_cast<size_t>((warmupS + seconds + 30.0) * 2000));
    std::thread simThread([&] {
        while (!stop) {
            const uint64_t now = OrvosiUtil::getTimeSysUs();
            sim.step(now);
            steps.push_back({now, OrvosiUtil::getTimeSysUs()});
            const uint64_t next = sim.sampleTimeUs(0) + (now - sim.sampleTimeUs(0)) / sim.imuPeriodUs() * sim.imuPeriodUs() +
                                  sim.imuPeriodUs();
            const uint64_t after = OrvosiUtil::getTimeSysUs();
            if (next > after) {
                const timespec ts{0, static_cast<long>(std::min<uint64_t>(next - after, 1000) * 1000)};
                nanosleep(&ts, nullptr);
            }
        }
    });

    std::fprintf(stderr, "orvbridgebench: %.0f s warm-up, then %.0f s measured, %d extra subscriber(s) ...\n", warmupS,
                 seconds, extra);
    std::vector<Received> received;
    received.reserve(static_cast<size_t>((warmupS + seconds + 5) * 600));
    uint64_t windowStart = 0, windowEnd = 0;
    double cpuStart = 0.0, cpuEnd = 0.0;
    size_t firstInWindow = 0, endOfWindow = 0;
    while (bridge.running() && windowEnd == 0) {
        dds_waitset_wait(waitset, nullptr, 0, DDS_MSECS(100));
        void* samples[64] = {nullptr};
        dds_sample_info_t infos[64];
        for (dds_return_t n; (n = dds_take(reader, samples, infos, 64, 64)) > 0;) {
            const uint64_t taken = OrvosiUtil::getTimeSysUs();
            for (int i = 0; i < n; ++i) {
                if (!infos[i].valid_data) continue;
                const auto* p = static_cast<const geometry_msgs_msg_dds__PoseStamped_*>(samples[i]);
                received.push_back({static_cast<uint64_t>(p->header.stamp.sec) * 1000000u + p->header.stamp.nanosec / 1000u,
                                    taken});
            }
            dds_return_loan(reader, samples, n);
        }
        if (received.empty()) continue;
        const uint64_t now = OrvosiUtil::getTimeSysUs();
        if (windowStart == 0 && now >= received.front().takenUs + static_cast<uint64_t>(warmupS * 1e6)) {
            windowStart = now;
            cpuStart = cpuSeconds(bridge.pid());
            firstInWindow = received.size();
        } else if (windowStart != 0 && now >= windowStart + static_cast<uint64_t>(seconds * 1e6)) {
            windowEnd = now;
            cpuEnd = cpuSeconds(bridge.pid());
            endOfWindow = received.size();
        }
    }
    const int bridgeCode = bridge.wait(30.0);
    stop = true;
    simThread.join();
    for (auto& s : subs) {
        s->signal(SIGTERM);
        s->wait(10.0);
    }
    sim.close();
    dds_delete(participant);
    if (windowEnd == 0) {
        std::fprintf(stderr, "orvbridgebench: the bridge ended before the measurement did (exit %d): %s\n",
                     bridgeCode, bridge.err().c_str());
        return 1;
    }

    // Latency of each pose in the window: from the end of the step that sent
    // it (the first step at or after its pose time) to its take here.
    std::vector<double> latencyUs;
    for (size_t i = firstInWindow; i < endOfWindow; ++i) {
        const Received& r = received[i];
        const auto s = std::lower_bound(steps.begin(), steps.end(), r.poseTimeUs,
                                        [](const Step& st, uint64_t t) { return st.nowUs < t; });
        if (s == steps.end()) continue;
        latencyUs.push_back(static_cast<double>(r.takenUs) - static_cast<double>(s->endUs));
    }
    const double window = static_cast<double>(windowEnd - windowStart) / 1e6;
    const double poses = static_cast<double>(endOfWindow - firstInWindow);
    // Poses the simulator sent in the window (tracking and NFT both become poses).
    const orvsim::SimReport rep = sim.report();
    double mean = 0.0;
    for (double v : latencyUs) mean += v / static_cast<double>(latencyUs.size());
    std::printf("orvbridgebench: %.1f s measured, %.0f poses taken here (%.1f/s), %d extra subscriber(s), "
                "bridge sleeping at most %d ms, tracking at %.0f Hz\n",
                window, poses, poses / window, extra, uplinkMs, trackingHz);
    std::printf("latency send->take  mean %.0f us  p50 %.0f us  p95 %.0f us  p99 %.0f us  max %.0f us\n", mean,
                percentile(latencyUs, 50), percentile(latencyUs, 95), percentile(latencyUs, 99),
                percentile(latencyUs, 100));
    std::printf("bridge CPU          %.1f %% of a core, %.1f us per pose (with the IMU, hub and the rest it publishes)\n",
                100.0 * (cpuEnd - cpuStart) / window, 1e6 * (cpuEnd - cpuStart) / poses);
    std::printf("simulator           tracking %llu, nft %llu, meta %llu datagrams over the whole run\n",
                static_cast<unsigned long long>(rep.streams[static_cast<int>(orvsim::Stream::Tracking)].built),
                static_cast<unsigned long long>(rep.streams[static_cast<int>(orvsim::Stream::Nft)].built),
                static_cast<unsigned long long>(rep.streams[static_cast<int>(orvsim::Stream::Meta)].built));
    writeCost(domain, subPath, dir, 20000);
    std::printf("%s", bridge.out().c_str());
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return 0;
}
