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
    orvtest::Process p(argv({"--duration", "120", "--plain", "--csv", csv}, ini), dir_.prefix() + "mon.out",
                       dir_.prefix() + "mon.err");
    // The system stops once the monitor has written a few hundred records,
    // and the monitor is stopped once a line has marked the stop: waits for
    // what happened, never for a time (the deadline only ends a hang).
    const auto waitFor = [&](auto done) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done() && p.running() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return done();
    };
    EXPECT_TRUE(waitFor([&] {
        const std::string text = orvtest::readText(csv);
        return std::count(text.begin(), text.end(), '\n') > 400;
    })) << p.err();
    sim_.stop();
    // A line after the stop marks the tracking channel, not only the summary.
    const size_t before = p.out().size();
    const std::regex staleLine("\nt=[0-9]+s .* STALE [a-z ]*tracking");
    EXPECT_TRUE(waitFor([&] { return std::regex_search(p.out().substr(before ? before - 1 : 0), staleLine); }))
        << p.out();
    p.signal(SIGINT);
    ASSERT_EQ(p.wait(20), 0) << p.err();
    const std::string out = p.out();
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
    EXPECT_GT(matched, 200);
    EXPECT_GT(maxDeg, 0.0);
    EXPECT_LT(maxDeg, 0.5);
    EXPECT_GT(maxMm, 0.0);  // the position is not predicted: the head moved meanwhile
}

TEST_F(Orvmon, TwoReceiversOnOnePortWarnEachOther) {
    ASSERT_TRUE(sim_.start());
    orvtest::Process first(argv({"--duration", "4.5", "--plain"}), dir_.prefix() + "a.out", dir_.prefix() + "a.err");
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    // The second starts after the first: it is warned at once, with the
    // library's connection lines because it asks for them.
    orvtest::Process second(argv({"--duration", "2", "--plain", "--verbose"}), dir_.prefix() + "b.out",
                            dir_.prefix() + "b.err");
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
