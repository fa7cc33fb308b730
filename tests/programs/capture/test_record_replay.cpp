// A run of the simulator, with faults, recorded by orvrec as the receiver
// of its ports (no capture privilege needed) while the library receives
// what orvrec forwards; then the recording replayed by orvplay into the
// library on other ports, as it was and retimed, and read by tshark with
// the dissector. One recording serves every test of the suite.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>

#include "orvsim/Simulator.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"
#include "support/TestSupport.hpp"
#include "programs/capture/Programs.hpp"

namespace {

using orvsim::Stream;

// Every record the library hands out, as bytes, per kind; error codes per
// code (codes of different ports interleave differently from run to run).
struct Records {
    std::vector<std::string> tracking, nft, imu, aux, target, residual, stats, diag, plat, gps, hub, feature, image;
    std::map<unsigned short, std::vector<unsigned>> errors;

    template <class T>
    static std::string bytes(const T& r) {
        return std::string(reinterpret_cast<const char*>(&r), sizeof r);
    }
    // Pops everything queued; getters run with their service call.
    void drain(OrvAccess& a, std::vector<unsigned char>& imageBuf) {
        bool v = false;
        auto each = [&](auto record, auto get, std::vector<std::string>& out) {
            for (;;) {
                std::memset(&record, 0, sizeof record);
                if (!get(&v, &record) || !v) return;
                out.push_back(bytes(record));
            }
        };
        for (;;) {
            s_OrvAccessTrkDataExt t;
            std::memset(&t, 0, sizeof t);
            if (!a.getTrackingData(&v, &t) || !v) break;
            // Tracking and NFT poses share the queue; orvCore's carry a status word.
            (t.statusWord != 0 ? tracking : nft).push_back(bytes(t));
        }
        each(s_OrvAccessImuData{}, [&](bool* v, s_OrvAccessImuData* r) { return a.getImuData(ORVACCESS_IMU_CAMERA, v, r); }, imu);
        each(s_OrvAccessAuxData{}, [&](bool* v, s_OrvAccessAuxData* r) { return a.getAuxData(v, r); }, aux);
        each(OrvAccess::s_TgtData{}, [&](bool* v, OrvAccess::s_TgtData* r) { return a.getTargetData(v, r); }, target);
        each(OrvAccess::s_TgtResData{}, [&](bool* v, OrvAccess::s_TgtResData* r) { return a.getTargetResData(v, r); },
             residual);
        each(s_OrvAccessPoseRecStats{}, [&](bool* v, s_OrvAccessPoseRecStats* r) { return a.getPoseRecoveryStats(v, r); },
             stats);
        each(s_OrvAccessDiagData{}, [&](bool* v, s_OrvAccessDiagData* r) { return a.getDiagData(v, r); }, diag);
        each(s_OrvAccessPlatPoseData{}, [&](bool* v, s_OrvAccessPlatPoseData* r) { return a.getPlatformPoseData(v, r); },
             plat);
        each(s_OrvAccessGpsData{}, [&](bool* v, s_OrvAccessGpsData* r) { return a.getGpsData(v, r); }, gps);
        each(s_OrvAccessHubData{}, [&](bool* v, s_OrvAccessHubData* r) { return a.getHubData(v, r); }, hub);
        each(OrvAccess::s_FeatData{}, [&](bool* v, OrvAccess::s_FeatData* r) { return a.getFeatureData(v, r); }, feature);
        int percent = 0;
        OrvAccess::ImageFormat format{};
        unsigned int seq = 0;
        while (a.getImage(&percent, &format, &seq, imageBuf.data(), imageBuf.size()) && percent == 100) {
            unsigned long size = 0;
            a.getImageInfo(format, &size, nullptr, nullptr, nullptr);
            // A digest of the pixels keeps a failure's message readable.
            image.push_back(std::to_string(seq) + ":" + std::to_string(format) + ":" +
                            std::to_string(std::hash<std::string>()(
                                std::string(reinterpret_cast<const char*>(imageBuf.data()), size))));
        }
        s_OrvAccessErrorCode e{};
        while (a.getErrorCode(&e) != 0) errors[e.code].push_back(e.value);
    }
    size_t codes() const {
        size_t n = 0;
        for (const auto& c : errors) n += c.second.size();
        return n;
    }
    size_t total() const {
        return tracking.size() + nft.size() + imu.size() + aux.size() + target.size() + residual.size() +
               stats.size() + diag.size() + plat.size() + gps.size() + hub.size() + feature.size() + image.size();
    }
};

// "name N, name N" after the byte count of each channel line of orvrec's
// or orvplay's table: datagrams per kind.
std::map<std::string, uint64_t> kindsOf(const std::string& report) {
    std::map<std::string, uint64_t> kinds;
    std::istringstream lines(report);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream in(line);
        std::string channel, proto, port, packets, bytes, name, count;
        if (!(in >> channel >> proto >> port >> packets >> bytes) || (proto != "udp" && proto != "tcp")) continue;
        while (in >> name >> count) kinds[name] += std::stoull(count);  // "tracking 1502," reads as 1502
    }
    return kinds;
}

class RecordReplay : public testing::Test {
protected:
    static constexpr double kRecordS = 3.0;

    struct Run {
        orvtest::TempDir dir;
        std::string recIni, pcap, recOut, recErr;
        orvsim::SimReport sim;
        Records live;
        std::string failure;  // why the recording could not be made
    };
    static Run* run_;

    // A library configuration receiving on five fresh ports, with room for
    // a stalled test thread.
    static std::string libraryIni(const std::string& name, const std::string& extra = "") {
        int port[5];
        for (int& p : port) p = orvtest::findFreePort();
        return run_->dir.write(name, orvtest::receiverIni(port, "udpOrvRxRcvBufSize = 4194304\n"
                                                                "udpOrvRxImgRcvBufSize = 4194304\n"
                                                                "udpOrvCoreRcvBufSize = 4194304\n"
                                                                "udpOrvHubRcvBufSize = 4194304\n"
                                                                "udpNftRcvBufSize = 4194304\n" + extra));
    }

    // Polls the library until the program has ended and `complete` says that
    // all it sent has arrived; a sleeping thread must not miss datagrams the
    // kernel still holds for the library. False when that never came.
    static bool pollWhile(OrvAccess& a, orvtest::Process& p, Records& out,
                          const std::function<bool(const Records&)>& complete,
                          const std::function<void()>& each = nullptr) {
        std::vector<unsigned char> buf(a.getImageBufSize());
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (std::chrono::steady_clock::now() < limit) {
            if (each) each();
            const bool finished = !p.running();  // before the drain: nothing comes after it
            out.drain(a, buf);
            if (finished && complete(out)) {
                out.drain(a, buf);
                return true;
            }
            // The pace of an application's calls.
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        return false;
    }

    static void SetUpTestSuite() {
        run_ = new Run;
        Run& r = *run_;
        std::ostringstream ini;
        ini << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\nsMemImgName =\n";
        for (const char* key : {"tcpOrvRxPort", "udpOrvRxPort", "udpOrvRxImgPort", "udpOrvRxInputPort",
                                "udpOrvCorePort", "udpOrvHubPort", "udpNftPort"})
            ini << key << " = " << orvtest::findFreePort() << "\n";
        r.recIni = r.dir.write("recorded.ini", ini.str());
        r.pcap = (r.dir.path() / "run.pcap").string();
        r.recOut = (r.dir.path() / "orvrec.out").string();
        r.recErr = (r.dir.path() / "orvrec.err").string();

        orvsim::SimConfig cfg;
        std::string error;
        if (!orvsim::SimConfig::fromIni(r.recIni, cfg, error)) {
            r.failure = error;
            return;
        }
        cfg.fileFolder = r.dir.prefix();
        // Everything flows only while orvrec has streaming on: every datagram is in the file.
        cfg.followStreaming = true;
        cfg.rates.pra = 20;
        cfg.rates.target = 10;
        cfg.rates.image = 3;  // images pass the socket buffers even when a busy machine stalls the reader
        cfg.rates.errorPeriodS = 0.5;
        for (orvsim::FaultRates& f : cfg.faults) f = {0.003, 0.004, 0.003, 0.003};
        cfg.seed = 15;
        orvsim::Simulator sim(cfg);
        if (!sim.open()) {
            r.failure = sim.lastError();
            return;
        }
        std::atomic<bool> stop{false};
        std::thread simThread([&] { sim.run(0.0, &stop); });

        // The library listens before orvrec asks orvRx to stream.
        OrvAccess live;
        live.setIniPath(libraryIni("live.ini"));
        if (!live.open()) r.failure = live.getLastError();
        if (r.failure.empty()) {
            orvtest::Process rec(
                {ORVREC, "--receive", "--ini", r.recIni, "--forward", (r.dir.path() / "live.ini").string(),
                 "-o", r.pcap, "--duration", std::to_string(kRecordS)},
                r.recOut, r.recErr);
            pollWhile(live, rec, r.live, [](const Records&) { return true; });
            // wait() returns at once for a program that ended.
            if (rec.wait(5) != 0) r.failure = "orvrec failed: " + rec.err();
        }
        stop = true;
        simThread.join();
        sim.close();
        r.sim = sim.report();
        // What orvrec forwarded last may still be on its way: every corrupted
        // datagram the simulator counted has its code once all have arrived.
        if (r.failure.empty()) {
            std::vector<unsigned char> buf(live.getImageBufSize());
            orvtest::waitFor([&] {
                r.live.drain(live, buf);
                for (int i = 0; i < orvsim::kStreamCount; ++i) {
                    const auto codes = r.live.errors.find(orvsim::streamErrorCode(static_cast<Stream>(i)));
                    if ((codes != r.live.errors.end() ? codes->second.size() : 0u) <
                        r.sim.streams[i].faults.corrupted())
                        return false;
                }
                return true;
            });
        }
    }
    static void TearDownTestSuite() {
        delete run_;
        run_ = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(run_->failure.empty()) << run_->failure; }

    // What the simulator put on the wire, per kind of datagram.
    static std::map<std::string, uint64_t> sent() {
        std::map<std::string, uint64_t> n;
        for (int i = 0; i < orvsim::kStreamCount; ++i)
            n[orvsim::streamName(static_cast<Stream>(i))] = run_->sim.streams[i].faults.out;
        n["hub-error"] = run_->sim.hubErrors;
        return n;
    }

    // The live run's records and codes, all of them: what a replay brings.
    static bool allOfLive(const Records& r) {
        return r.total() >= run_->live.total() && r.codes() >= run_->live.codes();
    }

    // Replays the recording into a library configured by `ini` until the
    // replay has ended and `complete` says that all of it arrived.
    static Records replay(const std::string& ini, const std::vector<std::string>& extra, std::string& out,
                          const std::function<bool(const Records&)>& complete,
                          const std::function<void(OrvAccess&)>& each = nullptr) {
        OrvAccess a;
        a.setIniPath(ini);
        EXPECT_TRUE(a.open()) << a.getLastError();
        std::vector<std::string> argv = {ORVPLAY, run_->pcap, "--ini", ini, "--recorded-ini", run_->recIni};
        argv.insert(argv.end(), extra.begin(), extra.end());
        const std::string o = ini + ".out", e = ini + ".err";
        Records got;
        {
            orvtest::Process play(argv, o, e);
            const std::function<void()> call = each ? std::function<void()>([&] { each(a); }) : nullptr;
            EXPECT_TRUE(pollWhile(a, play, got, complete, call)) << "the replay's records did not all arrive";
            EXPECT_EQ(play.wait(5), 0) << play.err();
        }
        out = orvtest::readText(o);
        return got;
    }
};

RecordReplay::Run* RecordReplay::run_ = nullptr;

TEST_F(RecordReplay, OrvrecCountsEveryDatagramTheSimulatorSent) {
    const std::string report = orvtest::readText(run_->recOut);
    EXPECT_NE(report.find("as the receiver of the configured ports"), std::string::npos) << report;
    std::map<std::string, uint64_t> kinds = kindsOf(report);
    for (const auto& k : sent()) {
        EXPECT_GT(k.second, 0u) << k.first;
        EXPECT_EQ(kinds[k.first], k.second) << k.first << "\n" << report;
    }
    // orvrec switched streaming on and off, as the library does, and both were acknowledged.
    EXPECT_EQ(kinds["to-orvRx"], 2u) << report;
    EXPECT_EQ(kinds["from-orvRx"], 2u) << report;
    // The faults happened, and the library reported each corrupted datagram by its port's code.
    for (int i = 0; i < orvsim::kStreamCount; ++i) {
        const Stream s = static_cast<Stream>(i);
        const auto codes = run_->live.errors.find(orvsim::streamErrorCode(s));
        EXPECT_EQ(codes != run_->live.errors.end() ? codes->second.size() : 0u,
                  run_->sim.streams[i].faults.corrupted())
            << orvsim::streamName(s);
    }
    EXPECT_GT(run_->live.tracking.size(), 1000u);
    EXPECT_GE(run_->live.image.size(), 2u);
}

TEST_F(RecordReplay, ReplayDeliversTheLiveRecordsByteForByte) {
    std::string out;
    const Records got = replay(libraryIni("replay.ini"), {}, out, allOfLive);
    const Records& live = run_->live;
    std::map<std::string, uint64_t> recorded = kindsOf(orvtest::readText(run_->recOut));
    recorded.erase("to-orvRx");  // the command channel is served, not replayed
    recorded.erase("from-orvRx");
    EXPECT_EQ(kindsOf(out), recorded) << out;
    // Compared kind by kind, so that a failure says which.
    EXPECT_EQ(got.tracking, live.tracking);
    EXPECT_EQ(got.nft, live.nft);
    EXPECT_EQ(got.imu, live.imu);
    EXPECT_EQ(got.aux, live.aux);
    EXPECT_EQ(got.target, live.target);
    EXPECT_EQ(got.residual, live.residual);
    EXPECT_EQ(got.stats, live.stats);
    EXPECT_EQ(got.diag, live.diag);
    EXPECT_EQ(got.plat, live.plat);
    EXPECT_EQ(got.gps, live.gps);
    EXPECT_EQ(got.hub, live.hub);
    EXPECT_EQ(got.feature, live.feature);
    EXPECT_EQ(got.image, live.image);
    EXPECT_EQ(got.errors, live.errors);
    EXPECT_EQ(got.total(), live.total());
}

// Retimed, the poses are as fresh as they were live: the pose predicted to
// a display time 20 ms ahead misses the true attitude by far less than the
// unpredicted pose does. Only the clock fields change, by one offset, and
// every checksum keeps its verdict.
TEST_F(RecordReplay, RetimeMovesTheClockFieldsAndPredictionWorks) {
    const orvsim::Motion motion;
    const double period = 0.001;  // the simulator's IMU period, s
    // Medians: a busy machine may stall the test now and then, and a stalled
    // call predicts far ahead; a replay not retimed would be off every time.
    std::vector<double> predicted, unpredicted, horizons;
    auto median = [](std::vector<double> v) {
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    std::map<uint32_t, uint64_t> retimed;  // packet tag -> pose time
    auto predict = [&](OrvAccess& a) {
        bool valid = false;
        s_OrvAccessTrkDataExt t{};
        // Drain the ports first, so that "now" is not older than the poses the getter finds.
        s_OrvAccessStatus status{};
        a.getStatus(&status);
        const uint64_t display = a.getTimeUs() + 20000;
        if (!a.getTrackingDataAtTime(display, &valid, &t) || !valid) return;
        retimed[t.packetTag] = t.poseTime;
        const double horizon = (static_cast<double>(display) - static_cast<double>(t.poseTime)) / 1e6;
        const orvsim::MotionSample truth = motion.at(t.packetTag * period + horizon);
        const orvsim::MotionSample then = motion.at(t.packetTag * period);
        double p = 0, u = 0;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                p += std::pow(t.cbn[i][j] - truth.cbn[i][j], 2);
                u += std::pow(then.cbn[i][j] - truth.cbn[i][j], 2);
            }
        predicted.push_back(std::sqrt(p));
        unpredicted.push_back(std::sqrt(u));
        horizons.push_back(horizon);
    };
    std::string out;
    // The predicting getter takes tracking records of its own: the IMU and
    // hub records and the codes tell when the replay is all in.
    const auto complete = [](const Records& r) {
        const Records& live = run_->live;
        return r.imu.size() >= live.imu.size() && r.hub.size() >= live.hub.size() &&
               r.codes() >= live.codes();
    };
    const Records got = replay(libraryIni("retimed.ini", "[Processing]\nvirtualSyncCtrl = 2\n"), {"--retime"}, out,
                               complete, predict);
    EXPECT_NE(out.find("retimed:"), std::string::npos) << out;

    ASSERT_GT(horizons.size(), 300u);
    // Fresh poses: the display time lies 20 ms ahead plus the replay's own
    // delay; a pose not retimed would be seconds old.
    EXPECT_GE(median(horizons), 0.019);
    EXPECT_LT(median(horizons), 0.060);
    EXPECT_LT(median(predicted), 0.1 * median(unpredicted));

    // One offset for every pose time, tracking and NFT alike.
    std::map<uint32_t, uint64_t> liveTime;
    for (const std::vector<std::string>* v : {&run_->live.tracking, &run_->live.nft})
        for (const std::string& b : *v) {
            s_OrvAccessTrkDataExt t;
            std::memcpy(&t, b.data(), sizeof t);
            liveTime[t.packetTag] = t.poseTime;
        }
    std::map<int64_t, int> offsets;
    for (const auto& r : retimed) ++offsets[static_cast<int64_t>(r.second - liveTime.at(r.first))];
    ASSERT_EQ(offsets.size(), 1u) << "pose times moved by " << offsets.size() << " different offsets";
    const int64_t offset = offsets.begin()->first;
    EXPECT_GT(offset, 0);
    // IMU records: the meta time moved by the same offset, nothing else changed.
    ASSERT_EQ(got.imu.size(), run_->live.imu.size());
    for (size_t i = 0; i < got.imu.size(); ++i) {
        s_OrvAccessImuData a, b;
        std::memcpy(&a, got.imu[i].data(), sizeof a);
        std::memcpy(&b, run_->live.imu[i].data(), sizeof b);
        ASSERT_EQ(static_cast<int64_t>(a.time - b.time), offset) << "IMU record " << i;
        a.time = b.time;
        ASSERT_EQ(Records::bytes(a), Records::bytes(b)) << "IMU record " << i;
    }
    // Sound datagrams stayed sound and corrupted ones stayed corrupted.
    EXPECT_EQ(got.errors, run_->live.errors);
    EXPECT_EQ(got.hub, run_->live.hub);
}

TEST_F(RecordReplay, TsharkDecodesEveryDatagramAndFlagsExactlyTheCorruptedOnes) {
    const std::string tshark = orvtest::onPath("tshark");
    if (tshark.empty()) GTEST_SKIP() << "tshark is not installed (Debian: tshark; scripts/install-deps.sh installs it)";
    orvsim::SimConfig cfg;
    std::string error;
    ASSERT_TRUE(orvsim::SimConfig::fromIni(run_->recIni, cfg, error));
    const std::vector<std::string> prefs = {
        "-o", "orv.meta_port:" + std::to_string(cfg.metaPort),   "-o", "orv.core_port:" + std::to_string(cfg.corePort),
        "-o", "orv.image_port:" + std::to_string(cfg.imagePort), "-o", "orv.hub_port:" + std::to_string(cfg.hubPort),
        "-o", "orv.nft_port:" + std::to_string(cfg.nftPort),     "-o", "orv.uplink_port:" + std::to_string(cfg.inputPort),
        "-o", "orv.command_port:" + std::to_string(cfg.tcpPort)};
    const auto rows = orvtest::tsharkFields(tshark, ORV_DISSECTOR, run_->pcap, prefs,
                                            {"orv.datagram", "_ws.expert.severity", "_ws.malformed", "orvcmd.code",
                                             "orvcmd.reply"},
                                            (run_->dir.path() / "tshark").string(), &error);
    ASSERT_FALSE(rows.empty()) << error;
    EXPECT_EQ(error.find("Lua"), std::string::npos) << error;
    std::map<std::string, uint64_t> kinds, flagged;
    int malformed = 0, commands = 0, replies = 0;
    for (const auto& row : rows) {
        ++kinds[row[0]];
        // 8388608 is Wireshark's "error" severity.
        if (row[1].find("8388608") != std::string::npos) ++flagged[row[0]];
        if (!row[2].empty()) ++malformed;
        if (!row[3].empty()) ++commands;
        if (!row[4].empty()) ++replies;
    }
    for (const auto& k : sent()) EXPECT_EQ(kinds[k.first], k.second) << k.first;
    for (int i = 0; i < orvsim::kStreamCount; ++i) {
        const char* name = orvsim::streamName(static_cast<Stream>(i));
        EXPECT_EQ(flagged[name], run_->sim.streams[i].faults.corrupted()) << name;
    }
    EXPECT_EQ(flagged[""], 0u);
    EXPECT_EQ(malformed, 0);
    EXPECT_EQ(commands, 2);
    EXPECT_EQ(replies, 2);
}

// The recording, damage and all, as a motion trace: one sample for each
// sound tracking packet the library got live, at its pose time and with its
// pose. A second simulator replaying that trace hands the library the
// recorded poses at the same times from its start; between samples (and
// where the recording lost one) the trace follows the recorded motion.
TEST_F(RecordReplay, CaptureReplaysAsAMotionTrace) {
    static orvsim::Motion traced;
    std::string error;
    ASSERT_TRUE(orvsim::Motion::fromName("trace", run_->pcap, traced, error)) << error;
    ASSERT_NE(traced.recorded(), nullptr);
    const orvsim::MotionTrace& trace = *traced.recorded();
    std::map<uint64_t, s_OrvAccessTrkDataExt> live;  // by pose time; duplicates once
    for (const std::string& b : run_->live.tracking) {
        s_OrvAccessTrkDataExt t;
        std::memcpy(&t, b.data(), sizeof t);
        live[t.poseTime] = t;
    }
    ASSERT_EQ(trace.t.size(), live.size());
    const uint64_t damaged = run_->sim.streams[static_cast<int>(Stream::Tracking)].faults.corrupted();
    EXPECT_NE(trace.summary.find("left out: " + std::to_string(damaged) + " damaged"), std::string::npos)
        << trace.summary;
    const uint64_t firstUs = live.begin()->first;
    size_t i = 0;
    for (const auto& [poseTime, t] : live) {
        ASSERT_EQ(trace.t[i], static_cast<double>(poseTime - firstUs) / 1e6) << i;
        const orvsim::MotionSample s = traced.at(trace.t[i]);
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(s.position[c], static_cast<double>(t.position[c])) << i;
            for (int j = 0; j < 3; ++j) EXPECT_NEAR(s.cbn[c][j], t.cbn[c][j], 1e-6) << i;
        }
        ++i;
    }

    // The recorded simulator moved smoothly; the sample its first recorded
    // pose came from starts the trace.
    const orvsim::Motion recordedMotion;
    const double period = 0.001;  // both simulators' IMU period, s
    const double startS = live.begin()->second.packetTag * period;
    orvtest::TempDir dir;
    orvtest::SimRunner second(dir);
    ASSERT_TRUE(second.start([](orvsim::SimConfig& c) { c.motion = traced; }));
    OrvAccess a;
    a.setIniPath(second.ini());
    ASSERT_TRUE(a.open()) << a.getLastError();
    uint64_t atSamples = 0, between = 0, held = 0;
    double worstBetween = 0.0;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (held == 0 && std::chrono::steady_clock::now() < limit) {
        bool valid = false;
        s_OrvAccessTrkDataExt t{};
        while (a.getTrackingData(&valid, &t) && valid) {
            if (t.statusWord == 0) continue;  // NFT poses
            const double sinceStartS = t.packetTag * period;
            const uint64_t recordedUs = firstUs + static_cast<uint64_t>(std::llround(sinceStartS * 1e6));
            const auto same = live.find(recordedUs);
            if (sinceStartS > trace.durationS()) {
                // Past its end the trace holds its last pose.
                const s_OrvAccessTrkDataExt& last = live.rbegin()->second;
                for (int c = 0; c < 3; ++c) ASSERT_EQ(t.position[c], last.position[c]) << t.packetTag;
                ++held;
            } else if (same != live.end()) {
                for (int c = 0; c < 3; ++c) {
                    ASSERT_EQ(t.position[c], same->second.position[c]) << t.packetTag;
                    for (int j = 0; j < 3; ++j) ASSERT_NEAR(t.cbn[c][j], same->second.cbn[c][j], 1e-6) << t.packetTag;
                }
                ++atSamples;
            } else {
                const orvsim::MotionSample truth = recordedMotion.at(startS + sinceStartS);
                for (int c = 0; c < 3; ++c) {
                    worstBetween = std::max(worstBetween, std::fabs(t.position[c] - truth.position[c]));
                    for (int j = 0; j < 3; ++j)
                        worstBetween = std::max(worstBetween, std::fabs(t.cbn[c][j] - truth.cbn[c][j]));
                }
                ++between;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    a.close();
    second.stop();
    EXPECT_GE(held, 1u) << "the replay never ran past the trace's end";
    EXPECT_GT(atSamples, 500u);
    // Where the recording lost a packet the spline bridges a gap of a few
    // milliseconds of slow motion: far below a thousandth (radian or metre).
    EXPECT_LT(worstBetween, 1e-5) << between << " poses between samples";
}

}  // namespace
