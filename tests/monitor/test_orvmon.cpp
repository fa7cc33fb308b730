// orvmon as a user runs it: the built program against the simulator, judged
// by what it prints and its exit status.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <regex>

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
