// Every program reads its command line the same way: --help and --version,
// exit status 2 for bad usage, numbers refused when they are not finite or
// out of a range said in words, and a named file that is not there refused
// before anything runs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Process.hpp"
#include "support/TestSupport.hpp"

namespace {

struct Program {
    const char* name;
    std::string path;  // empty when it is not built here
};

const std::vector<Program>& programs() {
    static const std::vector<Program> all = {
        {"orvsim", ORVSIM_PATH}, {"orvmon", ORVMON_PATH}, {"orvctl", ORVCTL_PATH}, {"orvrec", ORVREC_PATH},
        {"orvplay", ORVPLAY_PATH}, {"orvbridge", ORVBRIDGE_PATH}, {"orvsub", ORVSUB_PATH}};
    return all;
}

std::string pathOf(const std::string& name) {
    for (const Program& p : programs())
        if (name == p.name) return p.path;
    return "";
}

class CommandLines : public testing::Test {
protected:
    // Runs the program called `name` with `args`.
    orvtest::Ran run(const std::string& name, std::vector<std::string> args) {
        args.insert(args.begin(), pathOf(name));
        return orvtest::run(args, dir_.path().string());
    }
    orvtest::TempDir dir_;
};

TEST_F(CommandLines, EveryProgramAnswersHelpAndVersion) {
    for (const Program& p : programs()) {
        if (p.path.empty()) continue;
        SCOPED_TRACE(p.name);
        const orvtest::Ran help = run(p.name, {"--help"});
        EXPECT_EQ(help.code, 0) << help.err;
        EXPECT_NE(help.out.find("--version"), std::string::npos) << help.out;
        const orvtest::Ran version = run(p.name, {"--version"});
        EXPECT_EQ(version.code, 0) << version.err;
        EXPECT_EQ(version.out, std::string(p.name) + " " + ORVA_VERSION + "\n");
        // Named as the mistake, also where a file or subcommand is missing too.
        const orvtest::Ran unknown = run(p.name, {"--no-such-option"});
        EXPECT_EQ(unknown.code, 2) << unknown.out << unknown.err;
        EXPECT_NE(unknown.err.find("--no-such-option"), std::string::npos) << unknown.err;
    }
}

TEST_F(CommandLines, NumbersOutOfRangeOrNotFiniteAreRefusedWithTheRangeInWords) {
    const std::string pcap = dir_.write("some.pcap", "");
    struct Case {
        const char* program;
        std::vector<std::string> args;
        const char* says;
    };
    const std::vector<Case> cases = {
        {"orvsim", {"--duration", "-5"}, "\"-5\" is not a number of seconds from 0 to 10000000"},
        {"orvsim", {"--duration", "nan"}, "\"nan\" is not a number of seconds"},
        {"orvsim", {"--drop", "1.5"}, "from 0 to 1"},
        {"orvmon", {"--duration", "inf"}, "\"inf\" is not a number of seconds"},
        {"orvctl", {"status", "--listen", "nan"}, "\"nan\" is not a number of seconds from 0 to 3600"},
        {"orvctl", {"errors", "--listen", "1e300"}, "from 0 to 3600"},
        {"orvctl", {"--timeout", "abc", "check"}, "\"abc\" is not a number of milliseconds from 1 to 60000"},
        {"orvrec", {"--duration", "1e300"}, "from 0 to 10000000"},
        {"orvplay", {pcap, "--speed", "0"}, "\"0\" is not a number of times the recorded pace above 0, up to 1000"},
        {"orvplay", {pcap, "--speed", "100000"}, "up to 1000"},
        {"orvplay", {pcap, "--end", "1e300"}, "from 0 to 10000000"},
        {"orvplay", {pcap, "--start", "nan"}, "\"nan\" is not"},
        {"orvbridge", {"--duration", "nan"}, "\"nan\" is not a number of seconds"},
        {"orvbridge", {"--wait-timeout", "nan"}, "\"nan\" is not a number of seconds"},
        {"orvsub", {"--topic", "imu"}, "--topic takes pose or pose_predicted"},
        {"orvsub", {"stray"}, "unknown argument stray"},
        {"orvsub", {"--count"}, "--count lacks its value"},
    };
    for (const Case& c : cases) {
        if (pathOf(c.program).empty()) continue;
        SCOPED_TRACE(std::string(c.program) + " " + c.args.back());
        const orvtest::Ran r = run(c.program, c.args);
        EXPECT_EQ(r.code, 2) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("179769"), std::string::npos) << "a 300-digit limit: " << r.err;
    }
}

TEST_F(CommandLines, NamedFilesThatAreNotThereAreRefused) {
    const std::string missing = dir_.prefix() + "missing.ini";
    const std::string ini = dir_.write("good.ini", "[Communication]\ntcpOrvRxEnabled = 0\n");
    const std::vector<std::pair<const char*, std::vector<std::string>>> cases = {
        {"orvsim", {"--ini", missing, "--duration", "1"}},
        {"orvmon", {"--ini", missing, "--duration", "1"}},
        {"orvctl", {"--ini", missing, "status"}},
        {"orvrec", {"--ini", missing, "--duration", "1"}},
        {"orvrec", {"--ini", ini, "--forward", missing, "--duration", "1"}},
        {"orvplay", {dir_.prefix() + "missing.pcap", "--ini", ini}},
        {"orvplay", {dir_.write("some.pcap", ""), "--ini", ini, "--recorded-ini", missing}},
        {"orvbridge", {"--ini", missing, "--duration", "1"}},
    };
    for (const auto& [program, args] : cases) {
        if (pathOf(program).empty()) continue;
        SCOPED_TRACE(std::string(program) + " " + args[1]);
        const orvtest::Ran r = run(program, args);
        EXPECT_EQ(r.code, 2) << r.err;
        EXPECT_NE(r.err.find("missing."), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("No such file"), std::string::npos) << r.err;
    }
    if (std::string(ORVPOSE_PATH).empty()) return;
    const orvtest::Ran pose = orvtest::run({ORVPOSE_PATH, missing, "1"}, dir_.path().string());
    EXPECT_EQ(pose.code, 2) << pose.err;
    EXPECT_NE(pose.err.find("cannot read the configuration file"), std::string::npos) << pose.err;
}

// orvctl's own numbers, and its options on either side of the subcommand.
TEST_F(CommandLines, OrvctlNumbersAndPlaces) {
    for (const char* address : {" 5", "+5", "0x0x10", "5 ", "0x"}) {
        SCOPED_TRACE(address);
        const orvtest::Ran r = run("orvctl", {"reg", "get", address});
        EXPECT_EQ(r.code, 2) << r.err;
        EXPECT_NE(r.err.find("is not a number"), std::string::npos) << r.err;
    }
    orvtest::Ran r = run("orvctl", {"reg", "dump", "0x10", "0"});
    EXPECT_EQ(r.code, 2) << r.err;
    EXPECT_NE(r.err.find("a count of 0 reads nothing"), std::string::npos) << r.err;

    // --location before the subcommand is taken as after it: the run gets as
    // far as the configuration file.
    const std::string file = dir_.write("calib.txt", "x");
    for (const auto& args : {std::vector<std::string>{"--ini", dir_.prefix() + "none.ini", "--location", "2", "put", file},
                             std::vector<std::string>{"--ini", dir_.prefix() + "none.ini", "put", file, "--location", "2"}}) {
        r = run("orvctl", args);
        EXPECT_EQ(r.code, 2) << r.err;
        EXPECT_NE(r.err.find("cannot read the configuration file"), std::string::npos) << r.err;
    }
}

}  // namespace
