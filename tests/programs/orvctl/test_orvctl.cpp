// orvctl as a user runs it: the built program against the simulator on
// fresh ports, judged by its output and its exit status.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include <fstream>
#include <random>
#include <regex>

#include "support/FakeOrvRx.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

using nlohmann::json;
using orvtest::Ran;

namespace {

std::string ownName() {
    std::string name = orvtest::readText("/proc/self/comm");
    return name.substr(0, name.find('\n'));
}

// A UDP socket on a port; `share` as the library's receivers do.
class UdpPort {
public:
    UdpPort(int port, bool share) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        const int on = 1;
        if (share) setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        sockaddr_in a = orvtest::loopback(port);
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    ~UdpPort() { ::close(fd_); }
    bool ok() const { return ok_; }
    // Datagrams that arrive within the time.
    int countFor(double seconds) const {
        int n = 0;
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        char buf[2048];
        while (std::chrono::steady_clock::now() < end) {
            if (recv(fd_, buf, sizeof buf, 0) > 0)
                ++n;
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return n;
    }

private:
    int fd_;
    bool ok_ = false;
};

std::string randomBytes(size_t n) {
    std::mt19937 gen(42);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    return s;
}

class Orvctl : public testing::Test {
protected:
    Ran ctl(std::vector<std::string> args, const std::string& ini = "") {
        args.insert(args.begin(), {ORVCTL_PATH, "--ini", ini.empty() ? sim_.ini() : ini});
        return orvtest::run(args, dir_.path().string());
    }

    orvtest::TempDir dir_;
    orvtest::SimRunner sim_{dir_};
};

}  // namespace

TEST_F(Orvctl, RegistersRoundTrip) {
    ASSERT_TRUE(sim_.start());
    Ran r = ctl({"reg", "set", "0x123", "0xa5"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "0x000123 = 0xa5 (165)\n");
    r = ctl({"reg", "get", "291"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "0x000123 = 0xa5 (165)\n");
    r = ctl({"reg", "dump", "0x121", "4"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "0x000120:    00 00 a5 00\n");

    // Mistakes in the arguments are exit status 2, with the reason.
    r = ctl({"reg", "get", "0x1000000"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("too large: at most 16777215"), std::string::npos) << r.err;
    r = ctl({"reg", "set", "1", "256"});
    EXPECT_EQ(r.code, 2);
    r = ctl({"reg", "set", "one", "2"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("\"one\" is not a number"), std::string::npos) << r.err;
    EXPECT_EQ(ctl({"frobnicate"}).code, 2);
}

TEST_F(Orvctl, StreamingOnStaysOnAndOffStops) {
    ASSERT_TRUE(sim_.start());
    UdpPort meta(sim_.port("udpOrvRxPort"), false);
    ASSERT_TRUE(meta.ok());
    Ran r = ctl({"stream", "on"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "streaming on\n");
    // orvctl has gone; orvRx streams on.
    EXPECT_GT(meta.countFor(0.3), 50);
    r = ctl({"stream", "off"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "streaming off\n");
    meta.countFor(0.1);  // what was on its way
    EXPECT_EQ(meta.countFor(0.3), 0);
    EXPECT_EQ(ctl({"stream", "sideways"}).code, 2);
}

TEST_F(Orvctl, ImuTransactions) {
    ASSERT_TRUE(sim_.start());
    Ran r = ctl({"imu", "--receive", "2", "00"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "6b 00\n");  // the IMU's identity at address 0
    r = ctl({"imu", "--receive", "0", "10", "aa", "0xbb"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "sent 3 bytes; no reply asked for\n");
    r = ctl({"imu", "--receive", "3", "10"});
    EXPECT_EQ(r.out, "aa bb 00\n");
    r = ctl({"imu", "--platform", "--receive", "2", "10"});  // the other IMU was not written
    EXPECT_EQ(r.out, "00 00\n");
    r = ctl({"imu", "zz"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("\"0xzz\" is not a number"), std::string::npos) << r.err;
}

TEST_F(Orvctl, FilesTravelByteForByte) {
    ASSERT_TRUE(sim_.start());
    const std::string content = randomBytes(1300);  // three chunks, the last one short
    const std::string local = dir_.write("calib.bin", content);
    Ran r = ctl({"put", local, "remote.bin", "--location", "2"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("^put .*calib.bin as remote.bin \\(location 2\\): 1300 bytes in ")))
        << r.out;
    EXPECT_EQ(orvtest::readText((sim_.files() / "remote.bin").string()), content);

    const std::string back = dir_.prefix() + "back.bin";
    r = ctl({"get", "remote.bin", back});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(orvtest::readText(back), content);

    // Not there: the library's reason, and no half file left behind.
    const std::string none = dir_.prefix() + "none.bin";
    r = ctl({"get", "missing.bin", none});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("get missing.bin: File not found by server; check the name and --location"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(std::filesystem::exists(none));
    // A file that was there before a failed get keeps its content, and no
    // part of the transfer stays beside it.
    const std::string kept = dir_.write("kept.bin", "precious");
    r = ctl({"get", "missing.bin", kept});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("orvctl: " + kept + " is left as it was\n"), std::string::npos) << r.err;
    EXPECT_EQ(orvtest::readText(kept), "precious");
    // orvRx stops sending after the first chunk: the library has written 512
    // bytes of its file by then.
    orvtest::FakeOrvRx fake;
    fake.serve(orvtest::randomBytes(2000, 7));
    fake.fault(2, [](orvtest::Bytes& chunk) { chunk.clear(); });
    const int noPorts[5] = {};
    r = ctl({"get", "remote.bin", kept},
            dir_.write("fake.ini", orvtest::receiverIni(noPorts, orvtest::commandIni(fake.port()))));
    EXPECT_EQ(r.code, 1) << r.out;
    EXPECT_NE(r.err.find("No/bad data packet from server"), std::string::npos) << r.err;
    EXPECT_EQ(orvtest::readText(kept), "precious");
    for (const auto& e : std::filesystem::directory_iterator(dir_.path()))
        EXPECT_EQ(e.path().filename().string().find(".orvctl-"), std::string::npos) << e.path();
    r = ctl({"put", dir_.prefix() + "absent.bin"});
    EXPECT_EQ(r.code, 2);
}

TEST_F(Orvctl, ErrorsArriveWithTheirMessages) {
    ASSERT_TRUE(sim_.start([](orvsim::SimConfig& c) {
        c.rates.errorPeriodS = 0.2;
        c.faults[static_cast<int>(orvsim::Stream::Tracking)].corrupt = 0.05;
    }));
    Ran r = ctl({"errors", "--listen", "1"});
    EXPECT_EQ(r.code, 1) << r.err;  // errors arrived
    EXPECT_TRUE(std::regex_search(r.out, std::regex("(^|\n)  770 0x0302 value 0 +\\[ORVACCESS\\] ERROR: Bad "
                                                    "tracking packet\n")))
        << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("(^|\n) *10[0-9][0-9] 0x04[0-9a-f]{2} value [0-9]+ +\\[ORVHUB\\]")))
        << r.out;
    EXPECT_TRUE(std::regex_search(r.err, std::regex("orvctl: [0-9]+ error codes in 1\\.[0-9] s\n"))) << r.err;
}

TEST_F(Orvctl, QuietSystemHasNoErrors) {
    ASSERT_TRUE(sim_.start([](orvsim::SimConfig& c) { c.rates.errorPeriodS = 0.0; }));
    const Ran r = ctl({"errors", "--listen", "0.5"});
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "");
}

TEST_F(Orvctl, StatusNamesEveryChannelAndWhyOneFailed) {
    ASSERT_TRUE(sim_.start());
    Ran r = ctl({"status", "--json", "--listen", "0.5"});
    ASSERT_EQ(r.code, 0) << r.out << r.err;
    json j = json::parse(r.out);
    EXPECT_TRUE(j["opened"].get<bool>());
    ASSERT_EQ(j["channels"].size(), 8u);
    for (const json& c : j["channels"]) EXPECT_EQ(c["state"], "open") << c.dump();
    EXPECT_EQ(j["connections"]["word"], 0x7f);
    const std::vector<std::string> received = j["received"]["names"];
    for (const char* name : {"meta", "tracking", "hub", "nft"})
        EXPECT_NE(std::find(received.begin(), received.end(), name), received.end()) << name;
    EXPECT_TRUE(j["streaming"].get<bool>());
    EXPECT_FALSE(j["orvRx"]["state"].is_null());
    EXPECT_GT(j["records"]["tracking"].get<int>(), 50);

    // A program that holds the NFT port without sharing it: that channel
    // fails, with the system's reason and what to do.
    UdpPort blocker(sim_.port("udpNftPort"), false);
    ASSERT_TRUE(blocker.ok());
    r = ctl({"status", "--listen", "0"});
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\nnft +udpNftPort +[0-9]+ +failed: Failed to bind socket to "
                                                    "address\\.\\.\\.Address already in use; another program holds "
                                                    "the port without sharing it; orvctl check names it\n")))
        << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\ncore +udpOrvCorePort +[0-9]+ +open\n"))) << r.out;
}

TEST_F(Orvctl, WithoutOrvRxCommandsSayWhy) {
    // No simulator: nothing listens on the command port.
    const std::string port = std::to_string(sim_.port("tcpOrvRxPort"));
    Ran r = ctl({"reg", "get", "0"});
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.err, "orvctl: cannot reach orvRx at 127.0.0.1:" + port +
                         ": Failed to connect...Connection refused; nothing listens there: start orvRx (or orvsim), "
                         "or check tcpOrvRxAddr and tcpOrvRxPort\n");
    // The data ports opened, the command channel did not: no connection,
    // for status as for errors, which could never hear of orvRx's codes.
    r = ctl({"status", "--listen", "0"});
    EXPECT_EQ(r.code, 3);
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\ntcp +tcpOrvRxPort +127\\.0\\.0\\.1:" + port + " +failed: "))) << r.out;
    r = ctl({"errors", "--listen", "0.1"});
    EXPECT_EQ(r.code, 3);
    EXPECT_NE(r.err.find("no connection to orvRx at 127.0.0.1:" + port), std::string::npos) << r.err;

    // An unreadable configuration file is a usage error, for every command.
    for (const char* cmd : {"status", "check", "errors"}) {
        r = ctl({cmd}, dir_.prefix() + "none.ini");
        EXPECT_EQ(r.code, 2) << cmd;
        EXPECT_NE(r.err.find("none.ini: No such file or directory"), std::string::npos) << r.err;
    }

    // Command channel off.
    r = ctl({"stream", "on"}, dir_.write("off.ini", "[Communication]\ntcpOrvRxEnabled = off\n"));
    EXPECT_EQ(r.code, 3);
    EXPECT_NE(r.err.find("the command channel is switched off"), std::string::npos) << r.err;
}

TEST_F(Orvctl, OrvRxThatDoesNotAnswer) {
    ASSERT_TRUE(sim_.start([](orvsim::SimConfig& c) { c.replies = orvsim::RxServer::Replies::Silent; }));
    Ran r = ctl({"--timeout", "50", "reg", "get", "7"});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "orvctl: reg get 7: No response to get register command; orvRx did not answer in time; "
                     "--timeout MS waits longer\n");
    // The library assumes streaming after an unanswered request; status does not.
    r = ctl({"status", "--listen", "0.3"});
    EXPECT_EQ(r.code, 1) << r.out;
    EXPECT_NE(r.out.find("streaming    never acknowledged by orvRx (Failed to set streaming state): nothing that "
                         "orvRx streams arrives"),
              std::string::npos)
        << r.out;
    r = ctl({"status", "--listen", "0.3", "--json"});
    EXPECT_EQ(r.code, 1);
    const json j = json::parse(r.out);
    EXPECT_FALSE(j["streaming"].get<bool>());
    EXPECT_EQ(j["streamingError"], "Failed to set streaming state");
    // The port has a listener, but it is no orvRx that answers.
    r = ctl({"--timeout", "50", "check"});
    EXPECT_EQ(r.code, 1) << r.out;
    EXPECT_NE(r.out.find("accepts the connection but does not answer a register read within 50 ms (No response to "
                         "get register command)"),
              std::string::npos)
        << r.out;
}

TEST_F(Orvctl, CheckSeesAnOrvRxThatAnswersGarbage) {
    ASSERT_TRUE(sim_.start([](orvsim::SimConfig& c) { c.replies = orvsim::RxServer::Replies::Corrupt; }));
    const Ran r = ctl({"check", "--json"});
    EXPECT_EQ(r.code, 1) << r.out;
    const json j = json::parse(r.out);
    EXPECT_TRUE(j["orvRx"]["asked"].get<bool>());
    EXPECT_FALSE(j["orvRx"]["replied"].get<bool>());
    EXPECT_EQ(j["orvRx"]["replyError"], "Invalid response to get register command");
    EXPECT_EQ(j["summary"]["errors"], 1);
}

TEST_F(Orvctl, CommandsPutStreamingBackForAReceiverOnThisMachine) {
    ASSERT_TRUE(sim_.start());
    // This test process receives the meta port, as a running orvmon would.
    UdpPort meta(sim_.port("udpOrvRxPort"), true);
    ASSERT_TRUE(meta.ok());
    ASSERT_EQ(ctl({"stream", "on"}).code, 0);
    const auto streams = [&] {
        for (int i = 0; i < 100; ++i)
            if (meta.countFor(0.1) > 0) return true;
        return false;
    };
    ASSERT_TRUE(streams());
    const std::string receiver = ownName() + " (pid " + std::to_string(getpid()) + ")";
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"reg", "get", "7"}, {"reg", "set", "9", "1"}, {"imu", "00"}, {"status"}}) {
        const Ran r = ctl(command);
        ASSERT_EQ(r.code, 0) << command[0] << ": " << r.err;
        EXPECT_NE(r.err.find("orvctl: streaming switched back on for " + receiver + "\n"), std::string::npos)
            << command[0] << ": " << r.err;
        EXPECT_TRUE(streams()) << command[0];
    }
    // Register 0 written by hand is the user's own switch, and stays.
    const Ran r = ctl({"reg", "set", "0", "0"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err.find("switched back"), std::string::npos) << r.err;
    meta.countFor(0.2);  // what was on its way
    EXPECT_EQ(meta.countFor(0.3), 0);
}

TEST_F(Orvctl, CheckSeesASecondReceiver) {
    ASSERT_TRUE(sim_.start());
    Ran r = ctl({"check", "--json"});
    EXPECT_EQ(r.code, 0) << r.out;
    json j = json::parse(r.out);
    EXPECT_TRUE(j["orvRx"]["answers"].get<bool>());
    EXPECT_EQ(j["summary"]["warnings"], 0);
    EXPECT_EQ(j["values"][5]["key"], "tcpOrvRxPort");
    EXPECT_EQ(j["values"][5]["value"], std::to_string(sim_.port("tcpOrvRxPort")));

    // This test process binds the orvCore port as the library would.
    UdpPort receiver(sim_.port("udpOrvCorePort"), true);
    ASSERT_TRUE(receiver.ok());
    r = ctl({"check"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find("(udpOrvCorePort) is already held by " + ownName() + " (pid " + std::to_string(getpid()) +
                         "): the library shares its ports"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("result: 0 errors, 1 warning"), std::string::npos) << r.out;
}
