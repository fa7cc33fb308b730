// The watchdog on made-up times, against a real access object whose command
// channel goes to a stand-in for orvRx on 127.0.0.1: what it asks and when,
// when it opens the library again, and what it counts.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "watch/Watchdog.hpp"
#include "support/FakeOrvRx.hpp"

namespace {

using orvtest::Bytes;
using orvwatch::Watchdog;

constexpr uint64_t kT0 = 1000000000;  // made-up library clock, us
constexpr uint64_t kMs = 1000;

const Bytes kStreamOn = {0xAB, 0xC4, 0x00, 0x00, 0x00, 0x01};

s_OrvAccessStatus status(uint32_t received) {
    s_OrvAccessStatus st{};
    st.connections = ORVACCESS_CONN_TCP;
    st.received = received;
    return st;
}

// How many of the frames orvRx got were "streaming on".
size_t streamOnFrames(orvtest::FakeOrvRx& rx) {
    size_t n = 0;
    for (const Bytes& f : rx.frames()) n += f.size() == 7 && Bytes(f.begin(), f.end() - 1) == kStreamOn;
    return n;
}

class WatchdogTest : public orvtest::OrvRxTest {
protected:
    orvwatch::WatchdogOptions options() const {
        orvwatch::WatchdogOptions o;
        o.quietUs = 1000 * kMs;
        o.retryFirstUs = 500 * kMs;
        o.retryMaxUs = 2000 * kMs;
        return o;
    }
    // Opens the object again on `reopenIni`, counting the tries.
    Watchdog::Reopen reopener() {
        return [this](OrvAccess& a, std::string& why) {
            ++reopens;
            a.setIniPath(reopenIni);
            const bool ok = a.open();
            if (!ok) why = a.getLastError();
            return ok;
        };
    }
    int reopens = 0;
    std::string reopenIni;
};

TEST_F(WatchdogTest, AsksAgainWhenTheStreamStopsBacksOffAndCountsTheRecovery) {
    // The library believes streaming is on: orvRx was switched off behind its back.
    ASSERT_TRUE(access.setStreaming(true));
    fake.clearFrames();
    Watchdog w(access, reopener(), options());

    w.observe(kT0, status(ORVACCESS_RECV_TRACKING | ORVACCESS_RECV_HUB));
    EXPECT_EQ(w.state(), Watchdog::State::Flowing);
    // Other streams keep coming; only the wanted one counts.
    w.observe(kT0 + 500 * kMs, status(ORVACCESS_RECV_HUB));
    w.step(kT0 + 900 * kMs);
    EXPECT_EQ(streamOnFrames(fake), 0u);
    EXPECT_EQ(w.counts().outages, 0u);

    w.step(kT0 + 1100 * kMs);
    EXPECT_EQ(w.state(), Watchdog::State::Quiet);
    EXPECT_EQ(w.counts().outages, 1u);
    ASSERT_TRUE(fake.waitFrames(1));
    EXPECT_EQ(streamOnFrames(fake), 1u);
    // Not again before the retry interval, then again with it doubled.
    w.step(kT0 + 1500 * kMs);
    EXPECT_EQ(streamOnFrames(fake), 1u);
    w.step(kT0 + 1700 * kMs);
    EXPECT_EQ(streamOnFrames(fake), 2u);
    w.step(kT0 + 2600 * kMs);
    EXPECT_EQ(streamOnFrames(fake), 2u);
    w.step(kT0 + 2800 * kMs);
    EXPECT_EQ(streamOnFrames(fake), 3u);
    EXPECT_EQ(w.counts().requests, 3u);
    EXPECT_EQ(w.counts().requestsFailed, 0u);
    EXPECT_EQ(reopens, 0);
    EXPECT_NE(w.stateText(kT0 + 2800 * kMs).find("tracking quiet for 2.8 s: asked orvRx to stream again (3 tries)"),
              std::string::npos)
        << w.stateText(kT0 + 2800 * kMs);

    w.observe(kT0 + 3000 * kMs, status(ORVACCESS_RECV_TRACKING));
    EXPECT_EQ(w.state(), Watchdog::State::Flowing);
    EXPECT_EQ(w.counts().recoveries, 1u);
    EXPECT_EQ(w.counts().lastOutageUs, 3000 * kMs);
    const std::vector<std::string> events = w.takeEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), "tracking stopped: nothing for 1.1 s");
    EXPECT_EQ(events.back(), "tracking back after 3.0 s (recovery 1 of 1)");
    EXPECT_TRUE(w.takeEvents().empty());
    EXPECT_EQ(w.takeReceived(), ORVACCESS_RECV_TRACKING | ORVACCESS_RECV_HUB);

    // A second outage starts from the first interval again.
    w.step(kT0 + 4100 * kMs);
    EXPECT_EQ(w.counts().outages, 2u);
    EXPECT_EQ(streamOnFrames(fake), 4u);
    w.step(kT0 + 4700 * kMs);
    EXPECT_EQ(streamOnFrames(fake), 5u);
}

TEST_F(WatchdogTest, ALostCommandChannelIsOpenedAgainWithGrowingWaitsUntilOrvRxIsBack) {
    ASSERT_TRUE(access.setStreaming(true));
    Watchdog w(access, reopener(), options());
    w.observe(kT0, status(ORVACCESS_RECV_TRACKING));
    // orvRx goes away: the request fails, the library is opened again on a
    // port where nothing listens yet.
    const int none[5] = {};
    const int gone = orvtest::freePort();
    reopenIni = dir.write("gone.ini", orvtest::receiverIni(none, orvtest::commandIni(gone)));
    fake.silence();
    w.step(kT0 + 1100 * kMs);
    EXPECT_EQ(w.counts().requests, 1u);
    EXPECT_EQ(w.counts().requestsFailed, 1u);
    EXPECT_EQ(reopens, 1);
    EXPECT_EQ(w.counts().reopensFailed, 1u);
    EXPECT_EQ(w.state(), Watchdog::State::Reconnecting);
    EXPECT_EQ(w.lastReason(), "Unable to open any connections");
    // 0.5 s, then 1 s, then 2 s (the cap), then 2 s.
    w.step(kT0 + 1500 * kMs);
    EXPECT_EQ(reopens, 1);
    w.step(kT0 + 1600 * kMs);
    EXPECT_EQ(reopens, 2);
    w.step(kT0 + 2500 * kMs);
    EXPECT_EQ(reopens, 2);
    w.step(kT0 + 2600 * kMs);
    EXPECT_EQ(reopens, 3);
    w.step(kT0 + 4500 * kMs);
    EXPECT_EQ(reopens, 3);
    w.step(kT0 + 4600 * kMs);
    EXPECT_EQ(reopens, 4);
    EXPECT_NE(w.stateText(kT0 + 5000 * kMs).find("cannot reach orvRx (Unable to open any connections); next try in "
                                                 "1.6 s"),
              std::string::npos)
        << w.stateText(kT0 + 5000 * kMs);

    // orvRx is back: the next try opens, and streaming is asked for at once.
    orvtest::FakeOrvRx back;
    reopenIni = dir.write("back.ini", orvtest::receiverIni(none, orvtest::commandIni(back.port())));
    w.step(kT0 + 6600 * kMs);
    EXPECT_EQ(reopens, 5);
    EXPECT_EQ(w.counts().reopensFailed, 4u);
    ASSERT_TRUE(back.waitFrames(2));
    EXPECT_EQ(streamOnFrames(back), 1u);
    EXPECT_TRUE(access.getStreaming());
    EXPECT_EQ(w.state(), Watchdog::State::Quiet);
    w.observe(kT0 + 6700 * kMs, status(ORVACCESS_RECV_TRACKING));
    EXPECT_EQ(w.counts().recoveries, 1u);
    EXPECT_EQ(w.counts().longestOutageUs, 6700 * kMs);
    EXPECT_NE(w.countsText().find("outages 1 recovered 1 longest 6.7 s asked 2 (failed 1) reopened 5 (failed 4)"),
              std::string::npos)
        << w.countsText();
}

TEST_F(WatchdogTest, WithoutACommandChannelItCountsButNeverActs) {
    orvwatch::WatchdogOptions o = options();
    o.commandChannel = false;
    Watchdog w(access, reopener(), o);
    fake.clearFrames();
    w.observe(kT0, status(ORVACCESS_RECV_TRACKING));
    for (uint64_t t = 1100; t < 10000; t += 700) w.step(kT0 + t * kMs);
    EXPECT_EQ(w.state(), Watchdog::State::Unattended);
    EXPECT_EQ(w.counts().outages, 1u);
    EXPECT_EQ(w.counts().requests + w.counts().reopens, 0u);
    EXPECT_EQ(reopens, 0);
    EXPECT_TRUE(fake.frames().empty());
    // And a stream that never came is asked for only after the start-up grace.
    Watchdog fresh(access, reopener(), options());
    fresh.observe(kT0, status(0));
    fresh.step(kT0 - 500 * kMs);  // a clock passed out of order is no quiet time
    EXPECT_EQ(fresh.counts().requests, 0u);
    fresh.step(kT0 + 2900 * kMs);
    EXPECT_EQ(fresh.counts().requests, 0u);
    fresh.step(kT0 + 3100 * kMs);
    EXPECT_EQ(fresh.counts().requests, 1u);
    EXPECT_EQ(fresh.counts().outages, 0u);
    EXPECT_EQ(fresh.state(), Watchdog::State::Waiting);
}

}  // namespace
