// The pose feed keeps its poses through what users do to a running system:
// orvRx (the simulator) stopped and started again, and other clients that
// switch its streaming off for everyone (a second access object opening the
// library, a register read as orvctl makes it). After each event new poses
// arrive, and the feed's record counts the outages, the requests and the
// reopens and says what it is doing. Nothing waits for a time: every step
// waits for the feed to report the condition.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "access/State.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/OrvPoseFeed.hpp"
#include "orvaccess/orvaccess.h"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

namespace {

constexpr int kRounds = 2;

// A step that takes a few seconds at most; a broken feed fails the step
// (saying what the feed reported) well before the test's time limit.
template <typename F>
bool waitFor(F&& cond) {
    return orvtest::waitFor(std::forward<F>(cond), 30);
}

s_OrvPoseFeedRecovery recovery(const OrvPoseFeed& feed) {
    s_OrvPoseFeedRecovery r;
    std::memset(&r, 0x5A, sizeof r);
    EXPECT_TRUE(feed.getRecovery(&r));
    return r;
}

std::string describe(const OrvPoseFeed& feed) {
    const s_OrvPoseFeedRecovery r = recovery(feed);
    return "state " + std::to_string(r.state) + " (" + r.text + "), outages " + std::to_string(r.outages) +
           ", recovered " + std::to_string(r.recoveries) + ", asked " + std::to_string(r.requests) +
           ", reopened " + std::to_string(r.reopens) + "; service error: " + feed.getServiceError();
}

uint64_t sequence(const OrvPoseFeed& feed) {
    s_OrvPoseFeedPose p;
    feed.getLatest(&p);
    return p.sequence;
}

// Fresh poses again: orvCore streams (the state; the NFT source's poses,
// about 30/s, come whether orvRx streams or not), every outage so far is
// over, and a hundred records came after `since`.
bool flowingAfter(const OrvPoseFeed& feed, uint64_t since) {
    return waitFor([&] {
        const s_OrvPoseFeedRecovery r = recovery(feed);
        return r.state == ORVACCESS_FEED_FLOWING && r.recoveries == r.outages && sequence(feed) >= since + 100;
    });
}

// An outage the feed has counted and acts on.
bool outageBeyond(const OrvPoseFeed& feed, uint64_t outages) {
    return waitFor([&] { return recovery(feed).outages > outages; });
}

TEST(FeedRecovery, PosesComeBackAfterRestartsAndOtherClientsCommands) {
    orvtest::TempDir dir;
    orvtest::SimRunner sim(dir);
    ASSERT_TRUE(sim.start());
    // Another client: the command channel alone, as orvctl opens it.
    const std::string other = dir.write(
        "other.ini", "[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                         std::to_string(sim.port("tcpOrvRxPort")) +
                         "\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\nudpOrvRxInputPort = 0\n"
                         "udpOrvCorePort = 0\nudpNftPort = 0\nsMemImgName =\n");

    OrvPoseFeed feed(sim.ini());
    ASSERT_TRUE(feed.isRunning()) << feed.getLastError();
    ASSERT_TRUE(flowingAfter(feed, 0)) << describe(feed);
    EXPECT_EQ(recovery(feed).outages, 0u) << describe(feed);
    EXPECT_STREQ(recovery(feed).text, "tracking arriving");
    EXPECT_EQ(feed.getServiceError(), "");

    // The renderer's own pose settings, which no recovery may undo.
    {
        OrvPoseFeed::Access a = feed.access();
        float tip[3] = {0.01f, -0.02f, 0.03f};
        ASSERT_TRUE(a->setPrediction(0.025f) && a->setTipOffset(tip));
    }

    uint64_t events = 0;
    for (int round = 1; round <= kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        // orvRx goes away: the feed cannot ask it, so it opens the library
        // again and again, and says so while it waits.
        uint64_t outages = recovery(feed).outages;
        sim.stop();
        ++events;
        ASSERT_TRUE(outageBeyond(feed, outages)) << describe(feed);
        ASSERT_TRUE(waitFor([&] {
            const s_OrvPoseFeedRecovery r = recovery(feed);
            return r.state == ORVACCESS_FEED_RECONNECTING && std::strstr(r.text, "cannot reach orvRx") != nullptr &&
                   feed.getServiceError().find("cannot reach orvRx") != std::string::npos;
        })) << describe(feed);
        const uint64_t reopensBefore = recovery(feed).reopens;
        const uint64_t seqDown = sequence(feed);
        ASSERT_TRUE(sim.start());
        ASSERT_TRUE(flowingAfter(feed, seqDown)) << describe(feed);
        EXPECT_GT(recovery(feed).reopens, reopensBefore) << describe(feed);

        // A second access object opens the library: its open switches
        // streaming off, and so does its command.
        outages = recovery(feed).outages;
        const uint64_t requestsBefore = recovery(feed).requests;
        {
            OrvAccess client;
            client.setIniPath(other);
            ASSERT_TRUE(client.open()) << client.getLastError();
            unsigned char value = 0;
            ASSERT_TRUE(client.getRegister(200, 0x10, &value)) << client.getLastError();
            client.close();
        }
        ++events;
        ASSERT_TRUE(outageBeyond(feed, outages)) << describe(feed);
        ASSERT_TRUE(flowingAfter(feed, sequence(feed))) << describe(feed);
        EXPECT_GT(recovery(feed).requests, requestsBefore) << describe(feed);
    }

    // Each event is one outage at least (a machine too busy to take the
    // simulator's datagrams for a second may add one), each came back.
    const s_OrvPoseFeedRecovery r = recovery(feed);
    EXPECT_GE(r.outages, events) << describe(feed);
    EXPECT_EQ(r.recoveries, r.outages) << describe(feed);
    EXPECT_GE(r.reopensFailed, static_cast<uint64_t>(kRounds)) << describe(feed);
    {
        OrvPoseFeed::Access a = feed.access();
        const OrvAccess::State& st = OrvAccessWrapperAccess::state(*a);
        EXPECT_DOUBLE_EQ(st.predictionS, 0.025f);
        EXPECT_DOUBLE_EQ(st.tipOffset[1], -0.02f);
        EXPECT_FALSE(st.neutralAdjustment);
    }
    EXPECT_GT(r.longestOutageUs, 0u);
    EXPECT_GE(r.longestOutageUs, r.lastOutageUs);
    EXPECT_EQ(r.reserved, 0);

    // Stopped, the record keeps its counts and says so; started again, the
    // counts begin anew and the sequence goes on.
    const uint64_t seq = sequence(feed);
    feed.stop();
    s_OrvPoseFeedRecovery stopped = recovery(feed);
    EXPECT_EQ(stopped.state, ORVACCESS_FEED_STOPPED);
    EXPECT_STREQ(stopped.text, "stopped");
    EXPECT_EQ(stopped.outages, r.outages);
    ASSERT_TRUE(feed.start()) << feed.getLastError();
    ASSERT_TRUE(flowingAfter(feed, seq)) << describe(feed);
    EXPECT_EQ(recovery(feed).outages, 0u) << describe(feed);

    // The C interface hands out the same record.
    s_OrvPoseFeedRecovery c;
    ASSERT_EQ(OrvPoseFeed_getRecovery(&feed, &c), 1);
    EXPECT_EQ(c.state, ORVACCESS_FEED_FLOWING);
    EXPECT_EQ(OrvPoseFeed_getRecovery(&feed, nullptr), 0);
}

// Without a command channel there is nobody to ask: the feed waits for the
// poses and counts the outage and the recovery without a request.
TEST(FeedRecovery, WithoutACommandChannelItWaitsAndCounts) {
    orvtest::TempDir dir;
    orvtest::SimRunner sim(dir);
    ASSERT_TRUE(sim.start());
    // The simulator streams once asked; this feed cannot ask, so a client
    // of the test's own does, and stops it again.
    const std::string listen =
        dir.write("listen.ini", orvtest::readText(sim.ini()) + "\ntcpOrvRxEnabled = false\n");
    const std::string command = dir.write(
        "command.ini", "[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                           std::to_string(sim.port("tcpOrvRxPort")) +
                           "\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\nudpOrvRxInputPort = 0\n"
                           "udpOrvCorePort = 0\nudpNftPort = 0\nsMemImgName =\n");
    OrvAccess client;
    client.setIniPath(command);
    ASSERT_TRUE(client.open()) << client.getLastError();
    ASSERT_TRUE(client.setStreaming(true)) << client.getLastError();

    OrvPoseFeed feed(listen);
    ASSERT_TRUE(feed.isRunning()) << feed.getLastError();
    ASSERT_TRUE(flowingAfter(feed, 0)) << describe(feed);

    ASSERT_TRUE(client.setStreaming(false)) << client.getLastError();
    ASSERT_TRUE(waitFor([&] { return recovery(feed).state == ORVACCESS_FEED_UNATTENDED; })) << describe(feed);
    EXPECT_NE(std::string(recovery(feed).text).find("no command channel"), std::string::npos) << describe(feed);

    const uint64_t seq = sequence(feed);
    ASSERT_TRUE(client.setStreaming(true)) << client.getLastError();
    ASSERT_TRUE(flowingAfter(feed, seq)) << describe(feed);
    const s_OrvPoseFeedRecovery r = recovery(feed);
    EXPECT_GE(r.outages, 1u);
    EXPECT_EQ(r.requests, 0u);
    EXPECT_EQ(r.reopens, 0u);
}

}  // namespace
