// orvmon as a user runs it: the built program against the simulator, judged
// by what it prints and its exit status.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <regex>
#include <sstream>
#include <thread>

#include "support/Process.hpp"
#include "support/SimRunner.hpp"

using orvtest::Ran;

namespace {

std::string ownName() {
    std::string name = orvtest::readText("/proc/self/comm");
    return name.substr(0, name.find('\n'));
}

class Orvmon : public testing::Test {
protected:
    std::vector<std::string> argv(std::vector<std::string> args, const std::string& ini = "") {
        args.insert(args.begin(), {ORVMON_PATH, "--ini", ini.empty() ? sim_.ini() : ini});
        return args;
    }
    Ran mon(std::vector<std::string> args, const std::string& ini = "") {
        return orvtest::run(argv(std::move(args), ini), dir_.path().string());
    }

    orvtest::TempDir dir_;
    orvtest::SimRunner sim_{dir_};
};

}  // namespace

TEST_F(Orvmon, MissingConfigurationIsAnError) {
    const Ran r = mon({"--duration", "1"}, dir_.prefix() + "none.ini");
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("orvmon: cannot read the configuration file " + dir_.prefix() +
                         "none.ini: No such file or directory; name it with --ini FILE"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(r.out, "");
}

TEST_F(Orvmon, StartsWithTheChecksWarnings) {
    ASSERT_TRUE(sim_.start());
    // This test process holds the orvCore port as a receiver would.
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    sockaddr_in a = orvtest::loopback(sim_.port("udpOrvCorePort"));
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    dir_.write("typo.ini", orvtest::readText(sim_.ini()) + "[Processing]\npredictionMs = 20\n");

    const Ran r = mon({"--duration", "0.3", "--plain"}, dir_.prefix() + "typo.ini");
    ::close(fd);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("orvmon: warning: UDP port " + std::to_string(sim_.port("udpOrvCorePort")) +
                         " (udpOrvCorePort) is already held by " + ownName() + " (pid " + std::to_string(getpid()) +
                         ")"),
              std::string::npos)
        << r.err;
    EXPECT_TRUE(std::regex_search(r.err, std::regex("orvmon: warning: .*typo.ini line [0-9]+: \\[Processing\\] "
                                                    "predictionMs is not a key the library reads: it is ignored; "
                                                    "did you mean predictionS\\?\n")))
        << r.err;
}

TEST_F(Orvmon, WithoutATrackerSaysSoAndExitsThree) {
    // No simulator: the data ports open, the command channel does not.
    const Ran r = mon({"--duration", "0.5", "--plain", "--connect-timeout", "0.3"});
    EXPECT_EQ(r.code, 3) << r.err;
    EXPECT_NE(r.err.find("orvmon: warning: tcp (tcpOrvRxPort 127.0.0.1:" + std::to_string(sim_.port("tcpOrvRxPort")) +
                         ") did not open: Failed to connect...Connection refused; nothing listens there"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("orvmon: nothing arrived on any channel in "), std::string::npos) << r.err;
}

TEST_F(Orvmon, MarksStaleChannelsWhenTheSystemStopsAndWritesCsv) {
    ASSERT_TRUE(sim_.start());
    // Predicted to the display time, so that there is an error to measure.
    const std::string ini = dir_.write("predicted.ini", orvtest::readText(sim_.ini()) + "[Processing]\nvirtualSyncCtrl = 2\n");
    const std::string csv = dir_.prefix() + "poses.csv";
    orvtest::Process p(argv({"--duration", "30", "--plain", "--csv", csv}, ini), dir_.prefix() + "mon.out",
                       dir_.prefix() + "mon.err");
    // The system stops once the monitor has reported a second of it, and
    // the monitor once it has reported the channel stale: however slowly a
    // busy machine gets there.
    ASSERT_TRUE(orvtest::waitFor([&] { return p.out().find("t=1s ") != std::string::npos; }, 60)) << p.out() << p.err();
    sim_.stop();
    const std::regex stale("\nt=[0-9]+s .* STALE [a-z ]*tracking");
    ASSERT_TRUE(orvtest::waitFor([&] { return std::regex_search(p.out(), stale); }, 60)) << p.out();
    p.signal(SIGINT);
    ASSERT_EQ(p.wait(20), 0) << p.err();
    const std::string out = p.out();
    // A line after the stop marks the tracking channel, not only the summary.
    EXPECT_TRUE(std::regex_search(out, stale)) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("\nchannel +tracking +last +[0-9.]+ ms ago .* STALE\n"))) << out;

    // One line per predicted tracking record, with its errors once measured.
    std::istringstream lines(orvtest::readText(csv));
    const auto split = [](const std::string& line) {
        std::vector<std::string> cells;
        std::istringstream in(line);
        for (std::string cell; std::getline(in, cell, ',');) cells.push_back(cell);
        if (!line.empty() && line.back() == ',') cells.emplace_back();
        return cells;
    };
    std::string line;
    std::getline(lines, line);
    const std::vector<std::string> header = split(line);
    const auto column = [&](const char* name) {
        return static_cast<size_t>(std::find(header.begin(), header.end(), name) - header.begin());
    };
    ASSERT_LT(column("unpredicted_error_mm"), header.size());
    int matched = 0;
    double maxDeg = 0.0, maxMm = 0.0;
    long long lastPose = 0;
    while (std::getline(lines, line)) {
        const std::vector<std::string> cells = split(line);
        ASSERT_EQ(cells.size(), header.size()) << line;
        const long long pose = std::stoll(cells[column("pose_time_us")]);
        EXPECT_GE(pose, lastPose);
        lastPose = pose;
        if (cells[column("matched")] != "1") continue;
        ++matched;
        maxDeg = std::max(maxDeg, std::stod(cells[column("error_deg")]));
        maxMm = std::max(maxMm, std::stod(cells[column("error_mm")]));
    }
    EXPECT_GT(matched, 10);
    EXPECT_GT(maxDeg, 0.0);
    EXPECT_LT(maxDeg, 0.5);
    EXPECT_GT(maxMm, 0.0);  // the position is not predicted: the head moved meanwhile
}

TEST_F(Orvmon, TwoReceiversOnOnePortWarnEachOther) {
    ASSERT_TRUE(sim_.start());
    orvtest::Process first(argv({"--duration", "60", "--plain"}), dir_.prefix() + "a.out", dir_.prefix() + "a.err");
    // The first holds its ports once it reports.
    ASSERT_TRUE(orvtest::waitFor([&] { return !first.out().empty(); }, 30)) << first.err();
    // The second starts after the first: it is warned at once, with the
    // library's connection lines because it asks for them.
    orvtest::Process second(argv({"--duration", "60", "--plain", "--verbose"}), dir_.prefix() + "b.out",
                            dir_.prefix() + "b.err");
    // Both run until the first has seen the second: it looks every 2 s.
    const std::string held = "is already held by orvmon (pid " + std::to_string(second.pid()) + ")";
    EXPECT_TRUE(orvtest::waitFor([&] { return first.err().find(held) != std::string::npos; }, 30)) << first.err();
    second.signal(SIGINT);
    first.signal(SIGINT);
    EXPECT_EQ(second.wait(20), 0) << second.err();
    EXPECT_EQ(first.wait(20), 0) << first.err();
    const std::string core = std::to_string(sim_.port("udpOrvCorePort"));
    EXPECT_NE(second.err().find("orvmon: warning: UDP port " + core + " (udpOrvCorePort) is already held by orvmon (pid " +
                                std::to_string(first.pid()) + ")"),
              std::string::npos)
        << second.err();
    EXPECT_NE(second.err().find("orvaccess: Opening UDP port " + core + " for orvCore data\n"), std::string::npos)
        << second.err();
    EXPECT_NE(second.err().find("orvaccess: Using " + sim_.ini() + "\n"), std::string::npos) << second.err();
    // The first learns of the second while it runs.
    EXPECT_NE(first.err().find("orvmon: warning: UDP port " + core + " (udpOrvCorePort) is already held by orvmon (pid " +
                               std::to_string(second.pid()) + ")"),
              std::string::npos)
        << first.err();
}

// The prediction error at fixed horizons, on quick gaze shifts: zero at no
// horizon, growing with the horizon, and smaller predicted than not.
TEST_F(Orvmon, ReportsThePredictionErrorPerHorizon) {
    ASSERT_TRUE(sim_.start([](orvsim::SimConfig& c) { c.motion = orvsim::Motion::gaze(); }));
    const Ran r = mon({"--duration", "2", "--plain", "--horizons-ms", "0,10,40"});
    ASSERT_EQ(r.code, 0) << r.err;
    const std::regex row("\nhorizon +([0-9.]+) ms n +([0-9]+) predicted mean ([0-9.]+) rms [0-9.]+ p95 ([0-9.]+) "
                         "max [0-9.]+ deg unpredicted mean ([0-9.]+) p95 ([0-9.]+) max [0-9.]+ deg");
    std::vector<std::smatch> rows;
    for (auto it = std::sregex_iterator(r.out.begin(), r.out.end(), row); it != std::sregex_iterator(); ++it)
        rows.push_back(*it);
    ASSERT_EQ(rows.size(), 3u) << r.out;
    const auto num = [&](size_t i, int g) { return std::stod(rows[i][g].str()); };
    EXPECT_EQ(num(0, 1), 0.0);
    EXPECT_EQ(num(1, 1), 10.0);
    EXPECT_EQ(num(2, 1), 40.0);
    for (size_t i = 0; i < 3; ++i) EXPECT_GT(num(i, 2), 100) << r.out;
    // Nothing to predict: the pose itself, against itself.
    EXPECT_EQ(num(0, 3), 0.0);
    EXPECT_EQ(num(0, 5), 0.0);
    for (size_t i = 1; i < 3; ++i) EXPECT_LT(num(i, 4), num(i, 6)) << r.out;
    EXPECT_GT(num(2, 3), num(1, 3)) << r.out;
    EXPECT_GT(num(2, 5), num(1, 5)) << r.out;

    const Ran bad = mon({"--duration", "1", "--horizons-ms", "10,300"});
    EXPECT_EQ(bad.code, 2);
    EXPECT_NE(bad.err.find("--horizons-ms"), std::string::npos) << bad.err;
}
