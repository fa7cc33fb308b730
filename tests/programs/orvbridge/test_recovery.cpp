// orvbridge and orvmon keep their streams through what users do to a
// running system: the simulator killed and started again three times, and
// orvctl commands in between. After each event tracking arrives again at
// both, and each counts its outages and recoveries. Two programs on one
// host cannot share the tracker's ports (the second takes the first one's
// datagrams), so each runs against a simulator of its own, and every event
// happens to both.
#include <gtest/gtest.h>

#include <dds/dds.h>

#include <signal.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "OrvMessages.h"
#include "Topics.hpp"
#include "support/DdsLoopback.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int kRestarts = 3;

template <class Cond>
bool waitFor(Cond done, std::chrono::seconds limit) {
    return orvtest::waitFor(done, static_cast<double>(limit.count()));
}

size_t occurrences(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// One simulator on ports of its own, and the program that watches it.
class Rig {
public:
    explicit Rig(const char* name) : name_(name), ports_(dir_) {
        // No shared-memory image: a simulator killed while it holds the
        // image's semaphore leaves a reader waiting on it until the next one
        // starts (by design), and the test waits for the stop before that.
        const std::string text = orvtest::readText(ini());
        std::ofstream(ini()) << std::regex_replace(text, std::regex("sMemImgName = [^\n]*"), "sMemImgName =");
    }
    ~Rig() {
        if (program_) program_->signal(SIGKILL);
        if (sim_) sim_->signal(SIGKILL);
    }

    const std::string& ini() const { return ports_.ini(); }
    std::string file(const std::string& n) const { return (dir_.path() / n).string(); }

    void startSim() {
        const std::string base = file("sim" + std::to_string(simRuns_++));
        sim_ = std::make_unique<orvtest::Process>(
            std::vector<std::string>{ORVSIM, "--ini", ini(), "--files", ports_.files().string()}, base + ".out", base + ".err");
    }
    void killSim() {
        sim_->signal(SIGKILL);
        sim_->wait(10.0);
    }
    void startProgram(const std::vector<std::string>& argv) {
        program_ = std::make_unique<orvtest::Process>(argv, file(name_ + ".out"), file(name_ + ".err"));
    }
    orvtest::Process& program() { return *program_; }
    std::string err() const { return program_->err(); }
    size_t stopped() const { return occurrences(err(), "tracking stopped"); }
    size_t back() const { return occurrences(err(), "tracking back after"); }

    int orvctl(const std::vector<std::string>& command) {
        std::vector<std::string> argv{ORVCTL, "--ini", ini()};
        argv.insert(argv.end(), command.begin(), command.end());
        const orvtest::Ran r = orvtest::run(argv, dir_.path().string());
        EXPECT_EQ(r.code, 0) << name_ << ": " << r.err;
        return r.code;
    }

private:
    std::string name_;
    orvtest::TempDir dir_;
    orvtest::SimRunner ports_;
    std::unique_ptr<orvtest::Process> sim_, program_;
    int simRuns_ = 0;
};

// orvmon's plain lines, "t=4s track 498/s ...": the orvCore rate of each.
std::vector<long> monitorRates(const std::string& out) {
    static const std::regex line("^t=[0-9]+s track ([0-9]+)/s");
    std::vector<long> rates;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        if (std::regex_search(l, m, line)) rates.push_back(std::stol(m[1]));
    }
    return rates;
}

// The orvCore records the bridge publishes (the NFT source's, which go on
// while orvRx is down, carry no status word).
class TrackingReader {
public:
    explicit TrackingReader(uint32_t domain) {
        participant_ = dds_create_participant(static_cast<dds_domainid_t>(domain), nullptr, nullptr);
        EXPECT_GT(participant_, 0) << dds_strretcode(participant_);
        const orvbridge::Topic t = orvbridge::Topic::Tracking;
        const dds_entity_t topic = dds_create_topic(participant_, orvbridge::topicInfo(t).type,
                                                    orvbridge::topicName(t, "orv").c_str(), nullptr, nullptr);
        dds_qos_t* qos = orvbridge::topicQos(t, false);
        reader_ = dds_create_reader(participant_, topic, qos, nullptr);
        dds_delete_qos(qos);
        EXPECT_GT(reader_, 0);
    }
    ~TrackingReader() { dds_delete(participant_); }

    uint64_t core() {
        void* samples[64] = {nullptr};
        dds_sample_info_t infos[64];
        for (dds_return_t n; (n = dds_take(reader_, samples, infos, 64, 64)) > 0;) {
            for (int i = 0; i < n; ++i)
                if (infos[i].valid_data &&
                    static_cast<const orv_msgs_msg_dds__TrackingRecord_*>(samples[i])->statusWord != 0)
                    ++core_;
            dds_return_loan(reader_, samples, n);
        }
        return core_;
    }

private:
    dds_entity_t participant_ = 0, reader_ = 0;
    uint64_t core_ = 0;
};

TEST(Recovery, BridgeAndMonitorGetTrackingBackAfterRestartsAndCommands) {
    orvtest::TempDir top;
    const uint32_t domain = orvtest::useLoopbackDds((top.path() / "cyclone.xml").string());
    Rig mon("orvmon"), bridge("orvbridge");
    mon.startSim();
    bridge.startSim();
    mon.startProgram({ORVMON, "--ini", mon.ini(), "--plain", "--duration", "600", "--connect-timeout", "30"});
    bridge.startProgram({ORVBRIDGE, "--ini", bridge.ini(), "--domain", std::to_string(domain), "--duration", "600"});
    TrackingReader reader(domain);

    // Tracking at both: a full second of the monitor's with orvCore's rate in
    // it, and orvCore records from the bridge, after `line` and `records`.
    const auto trackingAfter = [&](size_t line, uint64_t records) {
        return waitFor(
            [&] {
                const std::vector<long> rates = monitorRates(mon.program().out());
                bool monitor = false;
                for (size_t i = line + 1; i < rates.size(); ++i) monitor = monitor || rates[i] >= 100;
                return monitor && reader.core() >= records + 200;
            },
            90s);
    };
    ASSERT_TRUE(trackingAfter(0, 0)) << mon.err() << bridge.err();

    for (int round = 1; round <= kRestarts; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        // orvRx dies: both notice, and both see it back once it runs again.
        const size_t monStopped = mon.stopped(), bridgeStopped = bridge.stopped();
        mon.killSim();
        bridge.killSim();
        ASSERT_TRUE(waitFor([&] { return mon.stopped() > monStopped && bridge.stopped() > bridgeStopped; }, 60s))
            << mon.err() << bridge.err();
        mon.startSim();
        bridge.startSim();
        ASSERT_TRUE(waitFor([&] { return mon.back() == mon.stopped() && bridge.back() == bridge.stopped(); }, 90s))
            << mon.err() << bridge.err();
        ASSERT_TRUE(trackingAfter(monitorRates(mon.program().out()).size(), reader.core()))
            << mon.err() << bridge.err();

        // Another client's command switches streaming off for everyone.
        mon.orvctl({"reg", "get", "0x10"});
        bridge.orvctl({"reg", "get", "0x10"});
        ASSERT_TRUE(trackingAfter(monitorRates(mon.program().out()).size(), reader.core()))
            << mon.err() << bridge.err();
    }

    mon.program().signal(SIGINT);
    bridge.program().signal(SIGINT);
    ASSERT_EQ(mon.program().wait(30.0), 0) << mon.err();
    ASSERT_EQ(bridge.program().wait(30.0), 0) << bridge.err();
    // Every outage came back, and the summaries say so.
    const std::regex monLine("recovery   outages ([0-9]+) recovered ([0-9]+)");
    const std::regex bridgeLine("recovery: outages ([0-9]+) recovered ([0-9]+)");
    std::smatch m;
    const std::string monOut = mon.program().out(), bridgeOut = bridge.program().out();
    ASSERT_TRUE(std::regex_search(monOut, m, monLine)) << monOut;
    EXPECT_GE(std::stoul(m[1]), static_cast<unsigned long>(kRestarts));
    EXPECT_EQ(m[1], m[2]);
    EXPECT_EQ(std::stoul(m[1]), mon.stopped());
    ASSERT_TRUE(std::regex_search(bridgeOut, m, bridgeLine)) << bridgeOut;
    EXPECT_GE(std::stoul(m[1]), static_cast<unsigned long>(kRestarts));
    EXPECT_EQ(m[1], m[2]);
    EXPECT_EQ(std::stoul(m[1]), bridge.stopped());
}

}  // namespace
