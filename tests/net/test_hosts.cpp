// The tracking system and the library on two hosts: network namespaces
// "tracker" and "app" joined through a third, "link", where a relay delays
// (2 ms +- 0.5 ms), drops (1 %) and reorders what passes. The simulator
// runs in the tracker's namespace, the library in the app's; both in this
// process, on threads that entered their namespaces.
//
// Every datagram is accounted for: what the simulator sent reached the
// relay; what the relay dropped is missing at the library, by sequence
// number; what it forwarded arrived, right.
#include <gtest/gtest.h>

#include <orvaccess/OrvAccess.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "IniKeys.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvsim/Simulator.hpp"
#include "support/ImpairedRelay.hpp"
#include "support/NetLab.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

using namespace orvsim;
using orvtest::EnterHost;
using orvtest::ImpairedRelay;
using orvtest::NetLab;

namespace {

// The tracker's and the app's addresses, and the relay's on either side.
const char* const kTracker = "10.250.1.2";
const char* const kLinkT = "10.250.1.1";
const char* const kLinkA = "10.250.2.1";
const char* const kApp = "10.250.2.2";

// The library's default ports, which the hosts keep.
using orvini::defaultPort;
using orvini::Key;
constexpr int kTcp = defaultPort(Key::tcpOrvRxPort), kMeta = defaultPort(Key::udpOrvRxPort),
              kCore = defaultPort(Key::udpOrvCorePort), kImage = defaultPort(Key::udpOrvRxImgPort),
              kInput = defaultPort(Key::udpOrvRxInputPort), kHub = defaultPort(Key::udpOrvHubPort),
              kNft = defaultPort(Key::udpNftPort);

// The sequence numbers of datagrams the link dropped: meta and tracking
// packets carry theirs right after the header.
std::set<uint32_t> tagsOf(const std::vector<std::vector<unsigned char>>& datagrams) {
    std::set<uint32_t> tags;
    for (const auto& d : datagrams)
        if (d.size() >= ORVWIRE_HEADER_SIZE + 4)
            tags.insert(OrvosiUtil::word32(d.data() + ORVWIRE_HEADER_SIZE));
    return tags;
}

// Every datagram the relay forwarded arrived exactly once, from the first
// one received on (those before it arrived while the library switched
// streaming on, which discards what waits on its ports); none it dropped did.
bool allArrived(const std::set<uint32_t>& received, const std::set<uint32_t>& forwarded) {
    if (received.empty()) return false;
    for (auto it = forwarded.lower_bound(*received.begin()); it != forwarded.end(); ++it)
        if (received.count(*it) == 0) return false;
    return true;
}

void expectAccounted(const std::set<uint32_t>& received, uint64_t receivedCount,
                     const std::set<uint32_t>& forwarded, const std::set<uint32_t>& dropped,
                     const char* what) {
    EXPECT_EQ(received.size(), receivedCount) << what << ": something came twice";
    ASSERT_FALSE(received.empty()) << what;
    std::string missing, extra;
    for (auto it = forwarded.lower_bound(*received.begin()); it != forwarded.end(); ++it)
        if (received.count(*it) == 0) missing += " " + std::to_string(*it);
    for (uint32_t t : received)
        if (forwarded.count(t) == 0 || dropped.count(t) != 0) extra += " " + std::to_string(t);
    EXPECT_EQ(missing, "") << what << ": forwarded, never received";
    EXPECT_EQ(extra, "") << what << ": received, never forwarded";
}

// The words of the first summary line that begins with `start` ("" when none).
std::vector<std::string> summaryLine(const std::string& text, const std::vector<std::string>& start) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::vector<std::string> words;
        for (std::string w; in >> w;) words.push_back(w);
        if (words.size() >= start.size() && std::equal(start.begin(), start.end(), words.begin()))
            return words;
    }
    return {};
}

// The number after the nth occurrence of `word`; NaN when there is none.
double valueAfter(const std::vector<std::string>& words, const std::string& word, int nth = 0) {
    for (size_t i = 0; i + 1 < words.size(); ++i)
        if (words[i] == word && nth-- == 0) return std::stod(words[i + 1]);
    return std::nan("");
}

unsigned char patternByte(unsigned x, unsigned y, uint32_t n) {
    return static_cast<unsigned char>(x + y + 4 * n);
}

using orvtest::waitFor;

class Hosts : public testing::Test {
protected:
    void SetUp() override {
        const std::string why = NetLab::unavailable();
        if (!why.empty()) GTEST_SKIP() << why;
        lab_.reset(new NetLab);
        for (const char* h : {"tracker", "link", "app"}) ASSERT_TRUE(lab_->addHost(h)) << lab_->error();
        ASSERT_TRUE(lab_->link("tracker", std::string(kTracker) + "/24", "link", std::string(kLinkT) + "/24"))
            << lab_->error();
        ASSERT_TRUE(lab_->link("link", std::string(kLinkA) + "/24", "app", std::string(kApp) + "/24"))
            << lab_->error();

        // The library's file: orvRx is the relay's address on the app's side.
        static int n = 0;
        std::ostringstream ini;
        ini << "[Communication]\ntcpOrvRxAddr = " << kLinkA << "\n";
        for (const char* key : {"udpOrvRxRcvBufSize", "udpOrvRxImgRcvBufSize", "udpOrvCoreRcvBufSize",
                                "udpOrvHubRcvBufSize", "udpNftRcvBufSize"})
            ini << key << " = 4194304\n";
        ini << "sMemImgName = orvNet" << getpid() << "_" << n++ << "\n";
        ini_ = dir_.write("orvaccess.ini", ini.str());
    }

    void TearDown() override {
        access_.close();
        sim_.stop();
        if (relay_) relay_->stop();
        lab_.reset();
    }

    // The relay's routes: data ports towards the app, uplink and commands towards the tracker.
    void startRelay(const orvtest::Impairment& imp) {
        EnterHost in(*lab_, "link");
        ASSERT_TRUE(in.ok());
        relay_.reset(new ImpairedRelay(imp));
        for (int port : {kMeta, kCore, kImage, kHub, kNft}) {
            const int r = relay_->addUdp(kLinkT, port, kLinkA, kApp, port);
            ASSERT_GE(r, 0) << relay_->error();
            route_[port] = r;
        }
        route_[kInput] = relay_->addUdp(kLinkA, kInput, kLinkT, kTracker, kInput);
        ASSERT_GE(route_[kInput], 0) << relay_->error();
        ASSERT_TRUE(relay_->addTcp(kLinkA, kTcp, kTracker, kTcp)) << relay_->error();
        relay_->start();
    }

    // The simulator on the tracker: commands on its own address, datagrams to the relay.
    void startSim(void (*tune)(SimConfig&)) {
        EnterHost in(*lab_, "tracker");
        ASSERT_TRUE(in.ok());
        SimConfig cfg;
        std::string error;
        ASSERT_TRUE(SimConfig::fromIni(ini_, cfg, error)) << error;
        cfg.address = kTracker;
        cfg.sendAddress = kLinkT;
        cfg.fileFolder = dir_.prefix();
        cfg.rates.pra = 0;  // the orvCore port then carries tracking packets only
        cfg.rates.errorPeriodS = 0;
        cfg.followStreaming = true;
        if (tune) tune(cfg);
        ASSERT_TRUE(sim_.start(cfg));
    }

    ImpairedRelay::RouteCounts counts(int port) const { return relay_->counts(route_.at(port)); }

    orvtest::TempDir dir_;
    std::string ini_;
    std::unique_ptr<NetLab> lab_;
    std::unique_ptr<ImpairedRelay> relay_;
    std::map<int, int> route_;
    orvtest::SimThread sim_;
    OrvAccess access_;
};

// What one host saw of the tracker's streams.
struct Seen {
    std::set<uint32_t> imuTags, trackTags;
    uint64_t imu = 0, tracking = 0, imuLate = 0, images = 0, badImages = 0, badPoses = 0;
    uint32_t lastImu = 0;
    uint32_t reflected = 0;  // the platform-pose tag orvCore last said it used
    std::map<unsigned short, int> errors;
};

// Drains every queue the test counts; poses are checked against the motion.
void drain(OrvAccess& a, const Motion& motion, Seen& s, std::vector<unsigned char>& image) {
    bool valid = false;
    s_OrvAccessTrkDataExt t{};
    while (a.getTrackingData(&valid, &t) && valid) {
        if (t.statusWord == 0) continue;  // NFT poses have tags of their own
        ++s.tracking;
        s.trackTags.insert(t.packetTag);
        s.reflected = t.platPoseTime;
        s_OrvAccessTrkDataExt want{};
        fillPose(motion.at(t.packetTag * 0.001), want);
        bool same = true;
        for (int i = 0; i < 3; ++i) {
            same = same && t.position[i] == want.position[i];
            for (int j = 0; j < 3; ++j) same = same && std::fabs(t.cbn[i][j] - want.cbn[i][j]) < 1e-6f;
        }
        if (!same) ++s.badPoses;
    }
    s_OrvAccessImuData imu{};
    while (a.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu) && valid) {
        if (s.imu++ > 0 && imu.tag < s.lastImu) ++s.imuLate;
        s.lastImu = std::max(s.lastImu, imu.tag);
        s.imuTags.insert(imu.tag);
    }
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int seq = 0;
    if (a.getImage(&percent, &format, &seq, image.data(), image.size()) && percent == 100) {
        ++s.images;
        bool ok = true;
        for (unsigned y = 0; y < 480; y += 7)
            for (unsigned x = 0; x < 640; x += 13) ok = ok && image[y * 640 + x] == patternByte(x, y, seq);
        if (!ok) ++s.badImages;
    }
    s_OrvAccessErrorCode e{};
    while (a.getErrorCode(&e) != 0) ++s.errors[e.code];
}

// Datagrams a host's kernel dropped before any socket read them: its UDP
// receive-buffer overflows, its interfaces' dropped frames (a veth drops
// what its peer's queue cannot take), and the backlog drops of the whole
// machine (veth frames queue there; no per-host count exists). A monitor
// starved of CPU loses these too, and they are not the link's doing.
uint64_t receiveDrops(const orvtest::NetLab& lab, const std::string& host) {
    uint64_t drops = 0;
    std::string dev;
    if (orvtest::runCommand({"ip", "netns", "exec", lab.ns(host), "cat", "/proc/net/dev"}, &dev) == 0) {
        // "  name: rx-bytes packets errs drop ... tx-bytes packets errs drop ..."
        std::istringstream in(dev);
        std::string line;
        while (std::getline(in, line)) {
            const size_t colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::istringstream f(line.substr(colon + 1));
            std::vector<uint64_t> v;
            uint64_t x = 0;
            while (f >> x) v.push_back(x);
            if (v.size() >= 12) drops += v[3] + v[11];
        }
    }
    std::string snmp;
    if (orvtest::runCommand({"ip", "netns", "exec", lab.ns(host), "cat", "/proc/net/snmp"}, &snmp) == 0) {
        std::istringstream in(snmp);
        std::string names, values;
        while (std::getline(in, names) && std::getline(in, values)) {
            if (names.rfind("Udp:", 0) != 0) continue;
            std::istringstream n(names), v(values);
            std::string name, value;
            while (n >> name && v >> value)
                if (name == "RcvbufErrors" || name == "InErrors") drops += std::stoull(value);
        }
    }
    std::ifstream softnet("/proc/net/softnet_stat");
    std::string processed, dropped;
    std::string line;
    while (std::getline(softnet, line)) {
        std::istringstream l(line);
        if (l >> processed >> dropped) drops += std::stoull(dropped, nullptr, 16);
    }
    return drops;
}

}  // namespace

TEST(NetLabFixture, CleansUpItsNamespacesAndThoseOfDeadRuns) {
    const std::string why = NetLab::unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    // A namespace left by a run that died: a pid no process has.
    const std::string stale = std::string(NetLab::kPrefix) + "4194303-0-gone";
    ASSERT_EQ(orvtest::runCommand({"ip", "netns", "add", stale}), 0);
    std::string tag;
    {
        NetLab lab;
        tag = lab.tag();
        EXPECT_TRUE(NetLab::existing(stale).empty());
        ASSERT_TRUE(lab.addHost("a")) << lab.error();
        ASSERT_TRUE(lab.addHost("b")) << lab.error();
        ASSERT_TRUE(lab.link("a", "10.250.9.1/24", "b", "10.250.9.2/24")) << lab.error();
        EXPECT_EQ(NetLab::existing(tag).size(), 2u);
        // The addresses exist inside the namespaces only.
        std::string out;
        orvtest::runCommand({"ip", "-o", "addr"}, &out);
        EXPECT_EQ(out.find("10.250.9."), std::string::npos) << out;
        orvtest::runCommand({"ip", "-n", lab.ns("a"), "-o", "addr"}, &out);
        EXPECT_NE(out.find("10.250.9.1/24"), std::string::npos) << out;
        // A host that cannot be made says why.
        EXPECT_FALSE(lab.addHost("a"));
        EXPECT_NE(lab.error().find("ip netns add " + tag + "a"), std::string::npos) << lab.error();
    }
    EXPECT_TRUE(NetLab::existing(tag).empty());
}

TEST_F(Hosts, ImpairedLinkLosesOnlyWhatTheLinkDropped) {
    orvtest::Impairment imp;  // 2 ms +- 0.5 ms, 1 % lost, 1 % held back 3 ms
    imp.seed = static_cast<uint32_t>(getpid());
    startRelay(imp);
    startSim([](SimConfig& c) { c.rates.image = 10; });
    EnterHost app(*lab_, "app");
    ASSERT_TRUE(app.ok());
    access_.setIniPath(ini_);
    ASSERT_TRUE(access_.open()) << access_.getLastError();

    // The command channel over the link, before streaming: registers and files.
    for (unsigned int r = 0x100; r < 0x110; ++r)
        ASSERT_TRUE(access_.setRegister(2000, r, static_cast<unsigned char>(r)));
    for (unsigned int r = 0x100; r < 0x110; ++r) {
        unsigned char v = 0;
        ASSERT_TRUE(access_.getRegister(2000, r, &v)) << access_.getLastError();
        EXPECT_EQ(v, static_cast<unsigned char>(r));
    }
    std::string content(200000, '\0');
    std::mt19937 rng(5);
    for (char& c : content) c = static_cast<char>(rng());
    const std::string local = dir_.write("calib.bin", content);
    ASSERT_TRUE(access_.putFile(local, "calib.bin", ORVACCESS_FILE_LOC_0)) << access_.getLastError();
    ASSERT_TRUE(access_.getFile("calib.bin", ORVACCESS_FILE_LOC_0, dir_.prefix() + "back.bin"))
        << access_.getLastError();
    EXPECT_TRUE(orvtest::readText(dir_.prefix() + "back.bin") == content);

    // Streaming: every pose and IMU sample, the uplink alongside.
    const Motion& motion = sim_.sim().motion();
    Seen seen;
    std::vector<unsigned char> image(access_.getImageBufSize());
    uint64_t sentUplink = 0;
    ASSERT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        s_OrvAccessPlatPoseData p{static_cast<uint32_t>(sentUplink + 1), {0.1f, 0.2f, 0.3f}};
        if (access_.setPlatformPoseData(p)) ++sentUplink;
        return seen.imu > 3000 && seen.images > 3;
    })) << "imu "
        << seen.imu << " images " << seen.images;

    // The uplink stops; once the tracker says it used the last platform
    // pose the link passed on, it has read them all.
    ASSERT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        const ImpairedRelay::Heads up = relay_->forwarded(route_[kInput]);
        return counts(kInput).received == sentUplink && relay_->idle() && !up.empty() &&
               seen.reflected == OrvosiUtil::word32(up.back().data() + ORVWIRE_HEADER_SIZE);
    }));
    // The tracker stops; what is on its way arrives.
    const SimReport sent = sim_.stop();
    ASSERT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        return counts(kMeta).received == sent.streams[static_cast<int>(Stream::Meta)].faults.out &&
               counts(kCore).received == sent.streams[static_cast<int>(Stream::Tracking)].faults.out &&
               relay_->idle() && allArrived(seen.imuTags, tagsOf(relay_->forwarded(route_[kMeta]))) &&
               allArrived(seen.trackTags, tagsOf(relay_->forwarded(route_[kCore])));
    })) << "forwarded "
        << counts(kMeta).forwarded << " imu " << seen.imu << ", forwarded " << counts(kCore).forwarded
        << " tracking " << seen.tracking;

    for (int port : {kMeta, kCore}) {
        const ImpairedRelay::RouteCounts c = counts(port);
        const Stream stream = port == kMeta ? Stream::Meta : Stream::Tracking;
        EXPECT_EQ(c.received, sent.streams[static_cast<int>(stream)].faults.out) << port;
        EXPECT_EQ(c.received, c.forwarded + c.lost) << port;
        EXPECT_EQ(c.sendFailed, 0u) << port;
        EXPECT_GT(c.lost, 0u) << port;
        EXPECT_GT(c.held, 0u) << port;
    }
    // Sequence numbers tell exactly what the link lost, and nothing came twice.
    expectAccounted(seen.imuTags, seen.imu, tagsOf(relay_->forwarded(route_[kMeta])),
                    tagsOf(relay_->dropped(route_[kMeta])), "imu");
    expectAccounted(seen.trackTags, seen.tracking, tagsOf(relay_->forwarded(route_[kCore])),
                    tagsOf(relay_->dropped(route_[kCore])), "tracking");
    EXPECT_GT(seen.imuLate, 0u);  // reordered samples arrive after their successors
    EXPECT_EQ(seen.badPoses, 0u);
    // Images whose pieces all arrived are right; the others never complete.
    EXPECT_EQ(seen.badImages, 0u);
    EXPECT_LE(seen.images, sent.imagesUdp);
    // Nothing was damaged on the way, so nothing was reported damaged.
    // Nothing was damaged on the way, so nothing was reported damaged; images
    // that lost a piece were reported, and orvCore said once that the
    // platform poses began.
    for (unsigned short code :
         {ORVACCESS_ERR_BAD_TRACKING_PKT, ORVACCESS_ERR_BAD_META_PKT, ORVACCESS_ERR_BAD_IMAGE_PKT,
          ORVACCESS_ERR_BAD_HUB_PKT, ORVACCESS_ERR_BAD_NFT_PKT})
        EXPECT_EQ(seen.errors.count(code), 0u) << code;
    if (counts(kImage).lost > 0) {
        EXPECT_GT(seen.errors[ORVACCESS_ERR_IMAGE_TRANSFER], 0);
    }
    EXPECT_LE(seen.errors[11], 1);  // unless the tracking packet carrying it was lost
    // The uplink: each platform pose the relay passed reached the tracker.
    EXPECT_EQ(counts(kInput).received, sentUplink);
    EXPECT_EQ(sent.uplink.platformPoses, counts(kInput).forwarded);
    EXPECT_EQ(sent.uplink.bad, 0u);
}

TEST_F(Hosts, LinkDownForASecondLosesThatSecondOnlyAndRecovers) {
    orvtest::Impairment clean;  // delay only, so that order is kept
    clean.loss = clean.reorder = clean.jitterMs = 0.0;
    startRelay(clean);
    startSim([](SimConfig& c) { c.rates.image = 0; });
    EnterHost app(*lab_, "app");
    ASSERT_TRUE(app.ok());
    access_.setIniPath(ini_);
    ASSERT_TRUE(access_.open()) << access_.getLastError();
    const Motion& motion = sim_.sim().motion();
    Seen seen;
    std::vector<unsigned char> image(access_.getImageBufSize());
    ASSERT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        return seen.imu > 500;
    }));

    // The cable between the link and the app is pulled for a second: the
    // library's getters go on with nothing new. The relay counts what it
    // could not send until both ends have carrier again (the kernel drops
    // frames silently for up to a second after a link comes up).
    relay_->setDown(true);
    ASSERT_TRUE(lab_->setLink("link", "app", false)) << lab_->error();
    const auto downUntil = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < downUntil) {
        drain(access_, motion, seen, image);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const uint64_t before = seen.imu;
    ASSERT_TRUE(lab_->setLink("link", "app", true)) << lab_->error();
    ASSERT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        return lab_->linkUp("link", "app");
    }));
    relay_->setDown(false);
    // The stream comes back by itself, and so does the command channel.
    ASSERT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        return counts(kMeta).forwarded > 0 && seen.imu > before + 500;
    }));
    EXPECT_TRUE(access_.setRegister(3000, 0x200, 7)) << access_.getLastError();

    const SimReport sent = sim_.stop();
    EXPECT_TRUE(waitFor([&] {
        drain(access_, motion, seen, image);
        return counts(kMeta).received == sent.streams[static_cast<int>(Stream::Meta)].faults.out &&
               relay_->idle() && allArrived(seen.imuTags, tagsOf(relay_->forwarded(route_[kMeta])));
    })) << "forwarded "
        << counts(kMeta).forwarded << " imu " << seen.imu;
    const ImpairedRelay::RouteCounts c = counts(kMeta);
    EXPECT_EQ(c.received, sent.streams[static_cast<int>(Stream::Meta)].faults.out);
    EXPECT_GT(c.sendFailed, 0u);
    EXPECT_EQ(c.lost, 0u);
    // What the outage cost is exactly what could not be sent, one run of
    // consecutive samples.
    const std::set<uint32_t> gone = tagsOf(relay_->dropped(route_[kMeta]));
    expectAccounted(seen.imuTags, seen.imu, tagsOf(relay_->forwarded(route_[kMeta])), gone, "imu");
    ASSERT_FALSE(gone.empty());
    EXPECT_EQ(*gone.rbegin() - *gone.begin() + 1, gone.size());
    EXPECT_EQ(seen.badPoses, 0u);
    EXPECT_TRUE(seen.errors.empty());
}

// orvmon on the application's host: its sequence check reports as missing
// exactly the samples the link dropped, and the reordered ones as late; the
// prediction to the display time, with the IMU clock rebuilt from the
// samples that came through, still removes most of the error.
TEST_F(Hosts, MonitorReportsWhatTheLinkLost) {
    orvtest::Impairment imp;
    imp.seed = static_cast<uint32_t>(getpid()) + 1;
    startRelay(imp);
    startSim([](SimConfig& c) { c.rates.image = 0; });
    const uint64_t dropsBefore = receiveDrops(*lab_, "app");
    const std::string ini =
        dir_.write("predicting.ini", orvtest::readText(ini_) + "[Processing]\nvirtualSyncCtrl = 1\n");
    orvtest::Process mon({"/usr/bin/env", "ip", "netns", "exec", lab_->ns("app"), ORVMON_PATH, "--ini", ini,
                          "--plain", "--duration", "5"},
                         dir_.prefix() + "mon.out", dir_.prefix() + "mon.err");
    ASSERT_TRUE(waitFor([&] { return counts(kMeta).forwarded > 1500 || !mon.running(); })) << mon.err();
    const SimReport sent = sim_.stop();
    ASSERT_TRUE(waitFor([&] {
        return counts(kMeta).received == sent.streams[static_cast<int>(Stream::Meta)].faults.out &&
               relay_->idle();
    }));
    ASSERT_EQ(mon.wait(60), 0) << mon.err();

    const std::string out = mon.out();
    const std::vector<std::string> imuLine = summaryLine(out, {"sequence", "imu"});
    ASSERT_FALSE(imuLine.empty()) << out;
    const uint64_t received = static_cast<uint64_t>(valueAfter(imuLine, "received")),
                   missing = static_cast<uint64_t>(valueAfter(imuLine, "missing")),
                   duplicates = static_cast<uint64_t>(valueAfter(imuLine, "duplicate")),
                   late = static_cast<uint64_t>(valueAfter(imuLine, "out-of-order"));
    // The monitor saw the forwarded samples from its first one on (those
    // before arrived while it switched streaming on).
    const std::set<uint32_t> forwarded = tagsOf(relay_->forwarded(route_[kMeta]));
    const std::set<uint32_t> dropped = tagsOf(relay_->dropped(route_[kMeta]));
    ASSERT_GE(forwarded.size(), received);
    ASSERT_GT(received, 0u);
    const uint32_t first = *std::next(forwarded.begin(), static_cast<long>(forwarded.size() - received));
    const uint32_t newest = *forwarded.rbegin();
    // Tags the relay never saw were never sent: the simulator gives up
    // samples to catch up after a stall (a busy machine). They are missing
    // at the monitor as rightly as the link's losses.
    const auto unsent = [&](uint32_t from) {
        uint64_t n = 0;
        for (uint32_t t = from + 1; t < newest; ++t) n += forwarded.count(t) == 0 && dropped.count(t) == 0;
        return n;
    };
    uint64_t lostBetween = unsent(first);
    for (uint32_t t : dropped) lostBetween += t > first && t < newest;
    // Every sample the link dropped is reported; beyond those, only what the
    // application host's kernel counted as dropped on arrival.
    // Each of those can put the first sample found by counting one place
    // after the monitor's real first one.
    const uint64_t hostDrops = receiveDrops(*lab_, "app") - dropsBefore;
    const size_t back = static_cast<size_t>(std::min<uint64_t>(hostDrops, forwarded.size() - received));
    const uint32_t earliest = *std::next(forwarded.begin(), static_cast<long>(forwarded.size() - received - back));
    uint64_t lostSinceEarliest = unsent(earliest);
    for (uint32_t t : dropped) lostSinceEarliest += t > earliest && t < newest;
    EXPECT_GE(missing, lostBetween) << out;
    const auto relayed = counts(kMeta);
    EXPECT_LE(missing, lostSinceEarliest + hostDrops)
        << "host drops " << hostDrops << ", never sent " << unsent(earliest) << "; relay: received "
        << relayed.received << " forwarded "
        << relayed.forwarded << " lost " << relayed.lost << " send failed " << relayed.sendFailed << "\n"
        << out;
    EXPECT_GT(missing, 0u);
    EXPECT_EQ(duplicates, 0u);
    EXPECT_GT(late, 0u);

    // The display-time prediction, on average, and at a fixed horizon.
    const std::vector<std::string> predicted = summaryLine(out, {"prediction", "predicted"}),
                                   unpredicted = summaryLine(out, {"prediction", "unpredicted"}),
                                   at20 = summaryLine(out, {"horizon", "20.0"});
    ASSERT_TRUE(!predicted.empty() && !unpredicted.empty() && !at20.empty()) << out;
    EXPECT_GT(valueAfter(predicted, "n"), 100) << out;
    EXPECT_LT(valueAfter(predicted, "mean") * 3, valueAfter(unpredicted, "mean")) << out;
    EXPECT_LT(valueAfter(at20, "p95") * 10, valueAfter(at20, "p95", 1)) << out;
}

// How often `word` occurs in `text`.
size_t occurrences(const std::string& text, const std::string& word) {
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + word.size())) ++n;
    return n;
}

// orvmon on the application's host while the link goes down: its line marks
// the tracking channel stale and says the stream is quiet, its watchdog asks
// orvRx again (and opens the library again when the command channel does not
// answer), and once the link is back the summary counts the outage as
// recovered and the samples the link could not carry as missing.
TEST_F(Hosts, MonitorSaysTheStreamWentQuietAndCountsTheOutage) {
    orvtest::Impairment clean;  // delay only, so that order is kept
    clean.loss = clean.reorder = clean.jitterMs = 0.0;
    startRelay(clean);
    startSim([](SimConfig& c) { c.rates.image = 0; });
    orvtest::Process mon({"/usr/bin/env", "ip", "netns", "exec", lab_->ns("app"), ORVMON_PATH, "--ini", ini_,
                          "--plain"},
                         dir_.prefix() + "mon.out", dir_.prefix() + "mon.err");
    ASSERT_TRUE(waitFor([&] { return counts(kMeta).forwarded > 1000 || !mon.running(); })) << mon.err();
    ASSERT_TRUE(mon.running()) << mon.err();

    // Down for a second, the watchdog's quiet time, and until the monitor
    // has said so on both its outputs: a busy machine makes the outage
    // longer, never unseen.
    relay_->setDown(true);
    ASSERT_TRUE(lab_->setLink("link", "app", false)) << lab_->error();
    const auto downAt = std::chrono::steady_clock::now();
    ASSERT_TRUE(waitFor([&] {
        return std::chrono::steady_clock::now() - downAt >= std::chrono::seconds(1) &&
               mon.err().find("orvmon: tracking stopped: ") != std::string::npos &&
               mon.out().find(" STALE meta tracking") != std::string::npos;
    })) << mon.out() << mon.err();
    ASSERT_TRUE(lab_->setLink("link", "app", true)) << lab_->error();
    ASSERT_TRUE(waitFor([&] { return lab_->linkUp("link", "app"); }));
    relay_->setDown(false);
    // Back by itself; then a while of flowing samples with every outage the
    // watchdog saw recovered, so that the summary is taken between outages.
    ASSERT_TRUE(waitFor([&] { return mon.err().find("orvmon: tracking back after ") != std::string::npos; }))
        << mon.err();
    const uint64_t back = counts(kMeta).forwarded;
    ASSERT_TRUE(waitFor([&] {
        const std::string err = mon.err();
        return counts(kMeta).forwarded > back + 1000 &&
               occurrences(err, "orvmon: tracking stopped: ") == occurrences(err, "orvmon: tracking back after ");
    })) << mon.err();
    mon.signal(SIGINT);
    ASSERT_EQ(mon.wait(60), 0) << mon.err();
    sim_.stop();

    const std::string out = mon.out(), err = mon.err();
    // While it lasted the line named the stale channels and, once the
    // watchdog had seen the outage, what it did about it; its log said when
    // the stream stopped, that orvRx could not be asked, and when it came back.
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(" stream: tracking quiet for ") != std::string::npos) {
            EXPECT_NE(line.find(" STALE meta tracking"), std::string::npos) << line;
        }
    }
    EXPECT_NE(err.find("orvmon: tracking stopped: nothing for 1."), std::string::npos) << err;
    EXPECT_NE(err.find("orvmon: orvRx did not take the request to stream ("), std::string::npos) << err;
    EXPECT_NE(err.find("(recovery 1 of 1)"), std::string::npos) << err;

    // The summary: every outage recovered, the first one at least the
    // second the link was down, and the stream arriving at the end.
    const std::vector<std::string> recovery = summaryLine(out, {"recovery", "outages"});
    ASSERT_FALSE(recovery.empty()) << out;
    const double outages = valueAfter(recovery, "outages");
    EXPECT_GE(outages, 1) << out;
    EXPECT_EQ(valueAfter(recovery, "recovered"), outages) << out;
    EXPECT_EQ(static_cast<double>(occurrences(err, "orvmon: tracking stopped: ")), outages) << err;
    EXPECT_GE(valueAfter(recovery, "longest"), 1.0) << out;
    EXPECT_FALSE(summaryLine(out, {"recovery", "state", "tracking", "arriving"}).empty()) << out;
    EXPECT_GE(valueAfter(summaryLine(out, {"channel", "tracking"}), "gap"), 1000.0) << out;

    // What the link could not carry: one run of consecutive samples, all
    // missing at the monitor (beyond them, those that came while the library
    // was being opened again), which saw nothing twice and nothing late.
    const std::set<uint32_t> gone = tagsOf(relay_->dropped(route_[kMeta]));
    ASSERT_FALSE(gone.empty());
    EXPECT_EQ(*gone.rbegin() - *gone.begin() + 1, gone.size());
    EXPECT_EQ(counts(kMeta).sendFailed, gone.size());
    EXPECT_EQ(counts(kMeta).lost, 0u);
    const std::vector<std::string> imu = summaryLine(out, {"sequence", "imu"});
    ASSERT_FALSE(imu.empty()) << out;
    EXPECT_GE(valueAfter(imu, "missing"), static_cast<double>(gone.size())) << out;
    EXPECT_EQ(valueAfter(imu, "duplicate"), 0) << out;
    EXPECT_EQ(valueAfter(imu, "out-of-order"), 0) << out;
    EXPECT_EQ(valueAfter(imu, "restarts"), 0) << out;
}
