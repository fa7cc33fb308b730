// The pose feed: its poses are the access object's poses bit for bit, its
// readers see whole records while the service thread publishes and the
// caller uses the object, it starts, stops (also during a flood) and starts
// again, says why it cannot open, and its render path makes no system call
// (a seccomp filter kills the process on any). Datagrams go over UDP on
// 127.0.0.1 to fresh ports; nothing waits for a time, only for a condition.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/OrvPoseFeed.hpp"
#include "orvsim/Wire.hpp"
#include "support/Allocations.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::kCore;
using orvtest::kMeta;
using Rec = s_OrvAccessTrkDataExt;

// Polls cond until it holds; false only after a minute, so that a broken
// feed fails the test instead of hanging it.
template <typename F>
bool waitFor(F&& cond) {
    return orvtest::waitFor(std::forward<F>(cond), 60);
}

// A pose whose fields all follow from its tag, turning about every axis, so
// that a torn copy shows and every step of the adjustment has work.
Rec pose(uint32_t tag, uint64_t timeUs) {
    Rec r;
    std::memset(&r, 0, sizeof r);
    r.packetTag = tag;
    r.poseTime = timeUs;
    const float euler[3] = {0.01f * static_cast<float>(tag % 50), -0.2f, 0.3f};
    double cbn[3][3];
    OrvUtil::euler2Cbn(euler, cbn);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.cbn[i][j] = r.cbn2[i][j] = static_cast<float>(cbn[i][j]);
    const float t = static_cast<float>(tag);
    for (int i = 0; i < 3; ++i) {
        r.position[i] = t;
        r.vecA[i] = t + 0.5f;
        r.vecJ[i] = -t;
        r.vecL[i] = 0.25f * t;
    }
    r.angularRate[0] = 0.3f, r.angularRate[1] = -0.2f, r.angularRate[2] = 1.0f;
    return r;
}

bool sameBits(const Rec& a, const Rec& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Waits until the feed has taken `count` records.
bool taken(const OrvPoseFeed& feed, uint64_t count) {
    return waitFor([&] {
        s_OrvPoseFeedPose p;
        feed.getLatest(&p);
        return p.sequence >= count;
    });
}

class Feed : public testing::Test {
protected:
    // A configuration file receiving on five fresh ports.
    std::string ini(int (&ports)[5], const std::string& processing, const char* name = "feed.ini") {
        for (int& p : ports) p = orvtest::freePort();
        return dir.write(name, orvtest::receiverIni(ports, "[Processing]\n" + processing));
    }
    orvtest::TempDir dir;
    orvtest::UdpSender sender;
};

TEST_F(Feed, PosesAreBitIdenticalToTheAccessObjectsGetters) {
    const char* const settings[] = {
        // IMU clock, display clock, time stamps; every adjustment.
        "virtualSyncCtrl = 7\npredictionS = 0.01\nTipOffsetXM = 0.2\nTipOffsetZM = -0.1\n"
        "BoresightRefRollRad = 0.1\nBoresightRefYawRad = -0.3\n",
        // Time stamps only, neutral adjustment (the shortcut).
        "virtualSyncCtrl = 2\n",
        // Display clock without any age.
        "virtualSyncCtrl = 4\npredictionS = 0.02\n",
    };
    for (const char* processing : settings) {
        SCOPED_TRACE(processing);
        int refPorts[5], feedPorts[5];
        OrvAccess ref;
        ref.setIniPath(ini(refPorts, processing, "ref.ini"));
        ASSERT_TRUE(ref.open()) << ref.getLastError();
        OrvPoseFeed feed(ini(feedPorts, processing));
        ASSERT_TRUE(feed.isRunning()) << feed.getLastError();
        OrvPoseFeed::Reader reader(feed);

        // The IMU sample interval (1 ms) first, on both.
        const auto meta = orvsim::buildMeta(0, 0.001f, 0, orvsim::buildChipPacket({}), {});
        ASSERT_TRUE(sender.send(refPorts[kMeta], meta) && sender.send(feedPorts[kMeta], meta));
        ASSERT_TRUE(ref.serviceUdp(false));
        ASSERT_TRUE(waitFor([&] {
            s_OrvAccessStatus st{};
            return feed.access()->getStatus(&st) && (st.received & 0x2) != 0;
        }));

        std::mt19937 rng(7);
        const auto jitter = [&](int spread) { return static_cast<long>(rng() % (2 * spread + 1)) - spread; };
        const uint64_t t0 = (3ul << 44) + 5000000;  // bits above the 44 compared
        uint32_t tag = 100;
        uint64_t records = 0;
        unsigned long tdisp = t0 + 20000;
        for (int step = 0; step < 60; ++step) {
            // Now and then two records at once: both feed the IMU clock.
            for (int n = step % 5 == 0 ? 2 : 1; n > 0; --n, ++tag, ++records) {
                const auto b = orvsim::buildTracking(pose(tag, t0 + tag * 1000 + jitter(300)));
                ASSERT_TRUE(sender.send(refPorts[kCore], b) && sender.send(feedPorts[kCore], b));
            }
            // A display clock with jitter, a stall and a 300 ms jump.
            tdisp += 11111 + jitter(400) + (step == 20 ? 25000 : 0) + (step == 40 ? 300000 : 0);
            bool valid = false;
            Rec latestRef{}, atRef{};
            ASSERT_TRUE(ref.getTrackingDataLatest(&valid, &latestRef) && valid);
            ASSERT_TRUE(ref.getTrackingDataAtTime(tdisp, &valid, &atRef) && valid);

            ASSERT_TRUE(taken(feed, records)) << "step " << step;
            s_OrvPoseFeedPose latest, at;
            ASSERT_TRUE(feed.getLatest(&latest) && reader.getAtTime(tdisp, &at));
            EXPECT_EQ(latest.sequence, records);
            EXPECT_TRUE(sameBits(latest.data, latestRef)) << "latest, step " << step;
            EXPECT_TRUE(sameBits(at.data, atRef)) << "at display time, step " << step;
        }
    }
}

TEST_F(Feed, ReadersSeeWholeRecordsWhileTheCallerUsesTheObject) {
    int ports[5];
    OrvPoseFeed feed(ini(ports, ""));
    ASSERT_TRUE(feed.isRunning()) << feed.getLastError();

    std::atomic<bool> done{false};
    std::atomic<long> torn{0}, backwards{0}, reads{0};
    std::vector<std::thread> readers;
    // Joined however the test ends.
    struct Joiner {
        std::atomic<bool>& done;
        std::vector<std::thread>& threads;
        ~Joiner() {
            done = true;
            for (std::thread& t : threads)
                if (t.joinable()) t.join();
        }
    } joiner{done, readers};
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            OrvPoseFeed::Reader reader(feed);
            uint64_t last = 0;
            unsigned long tdisp = OrvosiUtil::getTimeSysUs();
            s_OrvPoseFeedPose p;
            while (!done.load()) {
                for (bool predicted : {false, true}) {
                    if (!(predicted ? reader.getAtTime(tdisp += 1000, &p) : feed.getLatest(&p))) continue;
                    const float t = static_cast<float>(p.data.packetTag);
                    // Position, vector A and the tag were written by one record.
                    if (p.data.position[0] != t || p.data.position[2] != t || p.data.vecA[1] != t + 0.5f) ++torn;
                    if (p.sequence < last) ++backwards;
                    last = p.sequence;
                    ++reads;
                }
            }
        });
    }

    // Good and damaged tracking datagrams; the caller drains the error
    // codes and changes the prediction through the lock meanwhile.
    constexpr int kGood = 400, kBadEvery = 4;
    int bad = 0, codes = 0;
    const uint64_t now = OrvosiUtil::getTimeSysUs();
    for (int i = 1; i <= kGood; ++i) {
        auto b = orvsim::buildTracking(pose(static_cast<uint32_t>(i), now));
        ASSERT_TRUE(sender.send(ports[kCore], b));
        if (i % kBadEvery == 0) {
            b[b.size() - 1] ^= 0x5A;  // checksum no longer zero
            ASSERT_TRUE(sender.send(ports[kCore], b));
            ++bad;
        }
        // In batches the socket's buffer surely holds.
        if (i % 10 == 0) {
            ASSERT_TRUE(taken(feed, static_cast<uint64_t>(i)));
        }
        if (i % 50 == 0) {
            auto access = feed.access();
            access->setPrediction(i % 100 == 0 ? 0.0f : 0.005f);
            s_OrvAccessErrorCode e{};
            while (access->getErrorCode(&e) != 0) codes += e.code == ORVACCESS_ERR_BAD_TRACKING_PKT ? 1 : 1000;
        }
    }
    ASSERT_TRUE(waitFor([&] {
        s_OrvAccessErrorCode e{};
        auto access = feed.access();
        while (access->getErrorCode(&e) != 0) codes += e.code == ORVACCESS_ERR_BAD_TRACKING_PKT ? 1 : 1000;
        return codes >= bad;
    }));
    EXPECT_EQ(codes, bad);
    ASSERT_TRUE(waitFor([&] { return reads.load() > 3000; }));
    done = true;
    for (std::thread& t : readers) t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(backwards.load(), 0);

    // A setting made through the lock is published when the lock goes.
    feed.access()->setPrediction(0.04f);
    s_OrvPoseFeedPose p;
    ASSERT_TRUE(feed.getLatest(&p));
    EXPECT_EQ(p.predictionS, static_cast<double>(0.04f));
    EXPECT_EQ(p.data.packetTag, static_cast<uint32_t>(kGood));
}

TEST_F(Feed, StartsStopsDuringAFloodStartsAgainAndSaysWhatIsWrong) {
    // Nothing to open: the library's own reason, in C++ and in C.
    const std::string none = dir.write(
        "none.ini",
        "[Communication]\ntcpOrvRxEnabled = 0\nudpOrvRxInputPort = 0\nsMemImgName =\nudpOrvRxPort = 0\n"
        "udpOrvRxImgPort = 0\nudpOrvCorePort = 0\nudpOrvHubPort = 0\nudpNftPort = 0\n");
    {
        OrvPoseFeed dead(none);
        EXPECT_FALSE(dead.isRunning());
        EXPECT_EQ(dead.getLastError(), "Unable to open any connections");
        s_OrvPoseFeedPose p;
        EXPECT_FALSE(dead.getLatest(&p));
        EXPECT_TRUE(p.stale && p.sequence == 0);
        char why[64] = "unchanged";
        EXPECT_EQ(OrvPoseFeed_create(none.c_str(), why, sizeof why), nullptr);
        EXPECT_STREQ(why, "Unable to open any connections");
    }

    int ports[5];
    OrvPoseFeed feed(ini(ports, ""));
    ASSERT_TRUE(feed.isRunning()) << feed.getLastError();
    feed.setStaleTimeUs(3600000000ul);
    EXPECT_EQ(feed.getServiceError().rfind("No pose yet (stale after 3600000 ms)", 0), 0u)
        << feed.getServiceError();
    ASSERT_TRUE(sender.send(ports[kCore], orvsim::buildTracking(pose(1, 1))));
    ASSERT_TRUE(taken(feed, 1));
    EXPECT_EQ(feed.getServiceError(), "");
    // The tracker goes quiet.
    feed.setStaleTimeUs(0);
    ASSERT_TRUE(waitFor([&] { return feed.getServiceError().rfind("No pose for ", 0) == 0; }));

    // Stopped, the last pose stays readable, without allocating.
    ASSERT_TRUE(feed.stop());
    EXPECT_FALSE(feed.isRunning());
    EXPECT_EQ(feed.getServiceError(), "");
    OrvPoseFeed::Reader reader(feed);
    s_OrvPoseFeedPose p;
    bool all = true;
    EXPECT_EQ(orvtest::allocationsDuring([&] {
                  for (int i = 0; i < 1000; ++i) all = all && feed.getLatest(&p) && reader.getAtTime(i, &p);
              }),
              0);
    EXPECT_TRUE(all && p.data.packetTag == 1 && p.stale);

    // Started again: the ports are new sockets; then stopped while the
    // tracker floods them.
    ASSERT_TRUE(feed.start()) << feed.getLastError();
    std::atomic<bool> flooding{true};
    std::atomic<long> sent{0};
    std::thread flood([&] {
        const auto b = orvsim::buildTracking(pose(2, 2));
        while (flooding.load())
            if (sender.send(ports[kCore], b)) ++sent;
    });
    EXPECT_TRUE(taken(feed, 1000));
    EXPECT_TRUE(feed.stop());  // returns although datagrams keep coming
    flooding = false;
    flood.join();
    EXPECT_GT(sent.load(), 1000);

    ASSERT_TRUE(feed.start()) << feed.getLastError();
    feed.setStaleTimeUs(3600000000ul);
    ASSERT_TRUE(sender.send(ports[kCore], orvsim::buildTracking(pose(3, 3))));
    ASSERT_TRUE(waitFor([&] { return feed.getLatest(&p) && p.data.packetTag == 3; }));
    EXPECT_FALSE(p.stale);

    // The C interface lends the same object under the same lock.
    OrvPoseFeed* c = &feed;
    OrvAccess* handle = OrvPoseFeed_lockAccess(c);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(OrvAccess_setPrediction(handle, 0.03f), 1);
    OrvPoseFeed_unlockAccess(c);
    OrvPoseFeedReader* r = OrvPoseFeedReader_create(c);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(OrvPoseFeedReader_getAtTime(r, 0, &p), 1);
    EXPECT_EQ(p.predictionS, static_cast<double>(0.03f));
    EXPECT_EQ(p.data.packetTag, 3u);
    OrvPoseFeedReader_destroy(r);
}

// ---- no system call on the render path -----------------------------------------------

#if defined(__x86_64__)
constexpr uint32_t kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kArch = AUDIT_ARCH_AARCH64;
#endif

// Allows write, exit, exit_group and rt_sigreturn to the calling thread and
// kills the whole process on anything else.
bool allowOnlyWriteAndExit() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_write, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_exit, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_exit_group, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_rt_sigreturn, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

// A million calls; under the thread sanitizer, whose bookkeeping of every
// atomic load makes a call some fifty times slower, fewer, through the same
// filter.
#if defined(__SANITIZE_THREAD__)
constexpr long kRenderCalls = 20000;
#else
constexpr long kRenderCalls = 1000000;
#endif

// Exit codes of the child.
enum : int { kAllRead = 0, kNoFeed = 2, kNoPose = 3, kNoFilter = 4, kMissed = 5, kReturned = 6 };

// In the child: a running feed with one pose, then a reader thread that
// locks itself down and reads kRenderCalls predicted poses. The thread ends
// the process itself: leaving a thread makes system calls. `cheat` makes
// one real system call after the reads, which the filter must punish.
[[noreturn]] void renderUnderSeccomp(const std::string& ini, int corePort, bool cheat) {
    rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    OrvPoseFeed feed(ini);
    if (!feed.isRunning()) _exit(kNoFeed);
    orvtest::UdpSender sender;
    if (!sender.send(corePort, orvsim::buildTracking(pose(9, OrvosiUtil::getTimeSysUs()))) || !taken(feed, 1))
        _exit(kNoPose);
    std::thread render([&] {
        OrvPoseFeed::Reader reader(feed);
        s_OrvPoseFeedPose p;
        if (!allowOnlyWriteAndExit()) syscall(SYS_exit_group, kNoFilter);
        unsigned long tdisp = OrvosiUtil::getTimeSysUs();
        long delivered = 0;
        for (long i = 0; i < kRenderCalls; ++i) {
            delivered += reader.getAtTime(tdisp += 11111, &p) ? 1 : 0;
            if (i % 16 == 0) delivered += feed.getLatest(&p) ? 0 : -1;
        }
        if (cheat) syscall(SYS_getpid);
        syscall(SYS_exit_group, delivered == kRenderCalls && p.data.packetTag == 9 ? kAllRead : kMissed);
    });
    render.join();
    _exit(kReturned);
}

TEST_F(Feed, RenderPathMakesNoSystemCall) {
    for (bool cheat : {false, true}) {
        SCOPED_TRACE(cheat ? "with a real system call" : "render path only");
        int ports[5];
        const std::string path = ini(ports, "virtualSyncCtrl = 7\npredictionS = 0.01\nTipOffsetXM = 0.2\n");
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) renderUnderSeccomp(path, ports[kCore], cheat);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        if (cheat) {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) << "status " << status;
        } else {
            ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
            EXPECT_EQ(WEXITSTATUS(status), kAllRead);
        }
    }
}

}  // namespace
