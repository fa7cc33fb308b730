// The check shared by orvctl and orvmon: configuration mistakes, values
// exactly as the library reads them, who holds a port, and whether orvRx's
// command port answers; against real files, sockets and processes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>

#include "Check.hpp"
#include "access/Config.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"

using namespace orvcheck;

namespace {

// Every value the check reports for a key, by the key's name, against the
// member the library's reader stored it in.
void expectSameValues(const IniReport& r, const OrvAccessConfig& c) {
    const auto integer = [&](const char* k) { return r.value(k).integer; };
    const auto real = [&](const char* k) { return r.value(k).real; };
    const auto text_ = [&](const char* k) { return r.value(k).text; };
    EXPECT_EQ(integer("verbosity"), c.verbosity);
    EXPECT_EQ(integer("logging"), c.logging);
    EXPECT_EQ(text_("logPath"), c.logPath);
    EXPECT_EQ(r.value("tcpOrvRxEnabled").flag, c.tcpOrvRxEnabled);
    EXPECT_EQ(text_("tcpOrvRxAddr"), c.tcpOrvRxAddr);
    EXPECT_EQ(text_("tcpOrvRxPort"), c.tcpOrvRxPort);
    EXPECT_EQ(text_("udpOrvRxPort"), c.udpOrvRxPort);
    EXPECT_EQ(text_("udpOrvRxImgPort"), c.udpOrvRxImgPort);
    EXPECT_EQ(text_("udpOrvRxInputPort"), c.udpOrvRxInputPort);
    EXPECT_EQ(text_("udpOrvCorePort"), c.udpOrvCorePort);
    EXPECT_EQ(text_("udpOrvHubPort"), c.udpOrvHubPort);
    EXPECT_EQ(text_("udpNftPort"), c.udpNftPort);
    EXPECT_EQ(text_("sMemImgName"), c.sMemImgName);
    EXPECT_EQ(integer("udpOrvRxRcvBufSize"), c.udpOrvRxRcvBufSize);
    EXPECT_EQ(integer("udpOrvRxImgRcvBufSize"), c.udpOrvRxImgRcvBufSize);
    EXPECT_EQ(integer("udpOrvCoreRcvBufSize"), c.udpOrvCoreRcvBufSize);
    EXPECT_EQ(integer("udpOrvHubRcvBufSize"), c.udpOrvHubRcvBufSize);
    EXPECT_EQ(integer("udpNftRcvBufSize"), c.udpNftRcvBufSize);
    EXPECT_EQ(real("predictionS"), c.predictionS);
    EXPECT_EQ(integer("virtualSyncCtrl"), c.virtualSyncCtrl);
    EXPECT_EQ(integer("imgBufSize"), c.imgBufSize);
    EXPECT_EQ(integer("imuQueueSize"), c.imuQueueSize);
    EXPECT_EQ(integer("targetQueueSize"), c.targetQueueSize);
    EXPECT_EQ(integer("trackingQueueSize"), c.trackingQueueSize);
    EXPECT_EQ(integer("gpsQueueSize"), c.gpsQueueSize);
    EXPECT_EQ(integer("errorCodeQueueSize"), c.errorCodeQueueSize);
    EXPECT_EQ(real("BoresightRefRollRad"), c.boresightRefRad[0]);
    EXPECT_EQ(real("BoresightRefPitchRad"), c.boresightRefRad[1]);
    EXPECT_EQ(real("BoresightRefYawRad"), c.boresightRefRad[2]);
    EXPECT_EQ(real("TipOffsetXM"), c.tipOffsetM[0]);
    EXPECT_EQ(real("TipOffsetYM"), c.tipOffsetM[1]);
    EXPECT_EQ(real("TipOffsetZM"), c.tipOffsetM[2]);
    EXPECT_EQ(text_("udpAllowedSenders"), c.udpAllowedSenders);
    EXPECT_EQ(text_("sMemImgMode"), c.sMemImgMode);
}

const Finding* findingAt(const std::vector<Finding>& fs, const std::string& kind, int line) {
    for (const Finding& f : fs)
        if (f.kind == kind && f.line == line) return &f;
    return nullptr;
}

// A socket bound to the port on any address; `share` as the library's
// receivers do. Closed when it goes.
class BoundSocket {
public:
    BoundSocket(int type, int port, bool share) : fd_(socket(AF_INET, type, 0)) {
        const int on = 1;
        if (share) setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        sockaddr_in a = orvtest::loopback(port);
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && (type != SOCK_STREAM || listen(fd_, 4) == 0);
    }
    ~BoundSocket() { ::close(fd_); }
    bool ok() const { return ok_; }

private:
    int fd_;
    bool ok_ = false;
};

// Another process that holds a UDP port until destroyed.
class PortHolderProcess {
public:
    explicit PortHolderProcess(int port) {
        int ready[2];
        if (pipe(ready) != 0 || pipe(hold_) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            // Only the parent's end keeps the pipe open: its closing ends this.
            ::close(hold_[1]);
            ::close(ready[0]);
            BoundSocket s(SOCK_DGRAM, port, true);
            const char c = s.ok() ? '1' : '0';
            if (write(ready[1], &c, 1) != 1) _exit(1);
            char end;
            while (read(hold_[0], &end, 1) > 0) {
            }
            _exit(0);
        }
        ::close(ready[1]);
        ::close(hold_[0]);
        char c = '0';
        ok_ = read(ready[0], &c, 1) == 1 && c == '1';
        ::close(ready[0]);
    }
    ~PortHolderProcess() {
        ::close(hold_[1]);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    bool ok() const { return ok_; }
    pid_t pid() const { return pid_; }

private:
    int hold_[2] = {-1, -1};
    pid_t pid_ = -1;
    bool ok_ = false;
};

std::string ownName() {
    std::string name = orvtest::readText("/proc/self/comm");
    return name.substr(0, name.find('\n'));
}

}  // namespace

TEST(IniCheck, NamesEveryKindOfMistakeWithItsLine) {
    orvtest::TempDir dir;
    const std::string path = dir.write("bad.ini",
                                       "[General]\n"
                                       "logging = 0x3 ; tracking\n"           // 2
                                       "verbosity = 5MB\n"                    // 3
                                       "[Comunication]\n"                     // 4
                                       "udpOrvRxPort = 21001\n"               // 5
                                       "[communication]\n"                    // 6
                                       "tcpOrvRxEnabled = maybe\n"            // 7
                                       "udpOrvCorPort = 21002\n"              // 8
                                       "udpOrvCorePort = 40000\n"             // 9
                                       "udpNftPort = 00\n"                    // 10
                                       "udpOrvRxImgPort = 21003 ; images\n"   // 11
                                       "predictionS = 0.02\n"                 // 12
                                       "sMemImgName = hub ; shm\n"            // 13
                                       "udpNftPort = 21007\n"                 // 14
                                       "stray line\n"                         // 15
                                       "[Memory\n"                            // 16
                                       "[Memory]\n"                           // 17
                                       "imuQueueSize = -1\n"                  // 18
                                       "imgBufSize = 99999999999999999999\n"  // 19
                                       "errorCodeQueueSize = 0\n");           // 20
    const IniReport r = checkIni(path);
    ASSERT_TRUE(r.readable);
    const struct {
        const char* kind;
        int line;
        const char* says;
    } expected[] = {
        {"inline-comment", 2, "\"; tracking\" is part of the value"},
        {"value-not-read", 3, "(\"MB\"), so the library uses the default 0"},
        {"unknown-section", 4, "did you mean [Communication]?"},
        {"value-not-read", 7, "neither on nor off"},
        {"unknown-key", 8, "did you mean udpOrvCorePort?"},
        {"bad-port", 9, "refuses ports above 32767"},
        {"inline-comment", 11, "not a decimal port"},
        {"wrong-section", 12, "belongs in [Processing]"},
        {"inline-comment", 13, "the value includes \"; shm\""},
        {"duplicate-key", 14, "first on line 10"},
        {"no-value", 15, "has no '='"},
        {"bad-section", 16, "no closing ']'"},
        {"out-of-range", 18, "the library keeps 4294967295"},
        {"out-of-range", 19, "too large for the reader"},
        {"queue-bound", 20, "taken as 1"},
    };
    for (const auto& e : expected) {
        const Finding* f = findingAt(r.findings, e.kind, e.line);
        ASSERT_NE(f, nullptr) << e.kind << " on line " << e.line;
        EXPECT_NE(f->message.find(e.says), std::string::npos) << f->message;
    }
    // The duplicate's first value ("00") is overridden; the effective one is not flagged.
    EXPECT_EQ(findingAt(r.findings, "bad-port", 10), nullptr);
    EXPECT_EQ(r.value("udpNftPort").text, "21007");
    EXPECT_TRUE(r.value("logging").fellBack);
    EXPECT_EQ(r.value("udpOrvRxPort").text, "5001");  // its section was misspelt

    // The example configuration has nothing to complain about.
    const IniReport clean = checkIni(ORVA_SOURCE_DIR "/examples/orvaccess.ini");
    for (const Finding& f : clean.findings) ADD_FAILURE() << f.line << ": " << f.message;

    const IniReport missing = checkIni(dir.prefix() + "none.ini");
    EXPECT_FALSE(missing.readable);
    ASSERT_EQ(missing.findings.size(), 1u);
    EXPECT_EQ(missing.findings[0].severity, Severity::Error);
    EXPECT_EQ(missing.value("tcpOrvRxPort").text, "51717");
}

TEST(IniCheck, PortRulesAcrossKeys) {
    orvtest::TempDir dir;
    IniReport r = checkIni(dir.write("a.ini",
                                     "[Communication]\nudpOrvHubPort = 0\nudpOrvRxPort = 21010\nudpNftPort = 21010\n"
                                     "tcpOrvRxPort = 51717 ; commands\nudpOrvRxInputPort =\n"
                                     "[General]\nlogging = 1\nlogPath = /tmp\n"));
    EXPECT_NE(findingAt(r.findings, "bad-port", 2), nullptr) << "a hub port of 0 does not switch the hub off";
    ASSERT_NE(findingAt(r.findings, "shared-port", 4), nullptr);
    EXPECT_NE(findingAt(r.findings, "shared-port", 4)->message.find("udpOrvRxPort and udpNftPort are both 21010"),
              std::string::npos);
    const Finding* tcp = findingAt(r.findings, "bad-port", 5);
    ASSERT_NE(tcp, nullptr);
    EXPECT_EQ(tcp->severity, Severity::Note);  // the library still reads 51717
    EXPECT_EQ(r.value("tcpOrvRxPort").integer, 51717);
    EXPECT_NE(findingAt(r.findings, "bad-port", 6), nullptr) << "an empty uplink port";
    EXPECT_NE(findingAt(r.findings, "log-path", 9), nullptr);

    // With the orvCore port off, the hub's own setting is unused, not wrong.
    r = checkIni(dir.write("b.ini", "[Communication]\nudpOrvCorePort = 0\nudpOrvHubPort = 0\n"));
    for (const Finding& f : r.findings) ADD_FAILURE() << f.line << ": " << f.message;

    // A command port past 65535 is cut to 16 bits by the library, which then
    // connects elsewhere: the check says where, and where nothing can be.
    r = checkIni(dir.write("c.ini", "[Communication]\ntcpOrvRxPort = 92717\n"));
    tcp = findingAt(r.findings, "bad-port", 2);
    ASSERT_NE(tcp, nullptr);
    EXPECT_NE(tcp->message.find("connects to port 27181"), std::string::npos) << tcp->message;
    r = checkIni(dir.write("d.ini", "[Communication]\ntcpOrvRxPort = 65536\n"));
    tcp = findingAt(r.findings, "bad-port", 2);
    ASSERT_NE(tcp, nullptr);
    EXPECT_NE(tcp->message.find("cannot be connected to"), std::string::npos) << tcp->message;
}

// Every key's value as the check reports it is the value the library uses,
// for files full of the reader's corner cases.
TEST(IniCheck, ValuesAreTheLibrarysOwn) {
    const char* const files[] = {
        "",
        "[GENERAL]\nVERBOSITY = 0x12\nlogging = -1\nlogpath = /var/log/orv/\n"
        "[communication]\ntcporvrxenabled = off\ntcpOrvRxAddr = 10.0.0.2 ; rig\ntcpOrvRxPort = 0x10\n"
        "udpOrvRxPort = 00\nudpOrvRxImgPort =\nudpOrvCorePort = 0\nsMemImgName =\n"
        "udpOrvRxRcvBufSize = 3000000000\nudpNftRcvBufSize = 0x7fffffff\n"
        "[Processing]\npredictionS = 1e-2\nvirtualSyncCtrl = 0x10000000000\nBoresightRefRollRad = -0.5\n"
        "TipOffsetXM = 0.1m\nTipOffsetYM = .25\n"
        "[Memory]\nimgBufSize = 5MB\nimuQueueSize = 4294967297\ntargetQueueSize = 0x\n"
        "trackingQueueSize = 99999999999999999999999\ngpsQueueSize = 1234567890123456789012345678901234567890"
        "1234567890123456789012345\n",
        "\xEF\xBB\xBF[General]\r\nverbosity = 3\r\n[Communication]\r\ntcpOrvRxEnabled = no\r\n"
        "tcpOrvRxEnabled = Yes\r\nudpOrvHubPort = 7\r\n[Processing\r\npredictionS = 0.5\r\n",
        "verbosity = 1\n[Memory]\nimuQueueSize = +12\nerrorCodeQueueSize =  077 \n",
    };
    orvtest::TempDir dir;
    for (const char* text : files) {
        SCOPED_TRACE(text);
        const std::string path = dir.write("v.ini", text);
        OrvAccessConfig c;
        readConfig(path, c, false);
        const IniReport r = checkIni(path);
        expectSameValues(r, c);
        // Whatever the library silently replaced by its default is flagged.
        for (const KeyValue& v : r.values) {
            if (!v.fellBack) continue;
            EXPECT_NE(findingAt(r.findings, "value-not-read", v.line), nullptr) << v.known->key;
        }
    }
}

// A key the library reads into another key's member reads as the default
// there: set one key at a time, to a value unlike any default, and compare.
TEST(IniCheck, EachKeyReachesItsOwnMember) {
    orvtest::TempDir dir;
    for (size_t i = 0; i < orvini::kKeyCount; ++i) {
        const orvini::KeyRow& k = orvini::kKeys[i];
        SCOPED_TRACE(k.key);
        const std::string n = std::to_string(i + 1);
        std::string value;
        switch (k.kind) {
            case orvini::Kind::Mask:
            case orvini::Kind::Int32:
            case orvini::Kind::Size:
            case orvini::Kind::Int64:
                value = "7" + n;
                break;
            case orvini::Kind::Real:
                value = "0." + n;
                break;
            case orvini::Kind::Bool:
                value = orvini::defaultBool(k.id) ? "off" : "on";
                break;
            case orvini::Kind::UdpPort:
            case orvini::Kind::TcpPort:
                value = "61" + n;
                break;
            case orvini::Kind::Senders:
                value = "10.0.0." + n;
                break;
            case orvini::Kind::Mode:
                value = "0640";
                break;
            case orvini::Kind::Text:
            case orvini::Kind::Host:
                value = "name" + n;
                break;
        }
        ASSERT_NE(value, k.defaultText);
        const std::string path =
            dir.write("one.ini", "[" + std::string(k.section) + "]\n" + k.key + " = " + value + "\n");
        OrvAccessConfig c;
        readConfig(path, c, false);
        const IniReport r = checkIni(path);
        const KeyValue& v = r.value(k.key);
        EXPECT_TRUE(v.present && !v.fellBack);
        expectSameValues(r, c);
    }
}

// ---- who holds a port ---------------------------------------------------------------

TEST(PortHolders, ParsesTheKernelsTables) {
    const std::string udp =
        "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref "
        "pointer drops\n"
        "  123: 0100007F:1389 00000000:0000 07 00000000:00000000 00:00000000 00000000  1000        0 424242 2 "
        "0000000000000000 0\n"
        "  124: garbage\n";
    const std::vector<SocketEntry> v4 = parseProcNet(udp, Proto::Udp);
    ASSERT_EQ(v4.size(), 1u);
    EXPECT_EQ(v4[0].local, "127.0.0.1");
    EXPECT_EQ(v4[0].localPort, 5001);
    EXPECT_EQ(v4[0].state, 7);
    EXPECT_EQ(v4[0].uid, 1000u);
    EXPECT_EQ(v4[0].inode, 424242u);

    const std::string tcp6 =
        "  sl  local_address                         remote_address                        st tx_queue rx_queue tr "
        "tm->when retrnsmt   uid  timeout inode\n"
        "   0: 00000000000000000000000001000000:C9C5 00000000000000000000000000000000:0000 0A 00000000:00000000 "
        "00:00000000 00000000     0        0 777 1 0000000000000000 100 0 0 10 0\n";
    const std::vector<SocketEntry> v6 = parseProcNet(tcp6, Proto::Tcp);
    ASSERT_EQ(v6.size(), 1u);
    EXPECT_EQ(v6[0].local, "::1");
    EXPECT_EQ(v6[0].localPort, 51653);
    EXPECT_EQ(v6[0].state, 0x0A);
    EXPECT_EQ(v6[0].inode, 777u);
}

TEST(PortHolders, NameTheProcessThatHoldsThePort) {
    const int port = orvtest::freePort();
    PortHolderProcess other(port);
    ASSERT_TRUE(other.ok());
    BoundSocket ours(SOCK_DGRAM, port, true);  // a second receiver binds without complaint
    ASSERT_TRUE(ours.ok());

    std::vector<Holder> all = SocketTable::read().holders(Proto::Udp, port);
    ASSERT_EQ(all.size(), 2u);
    std::sort(all.begin(), all.end(), [](const Holder& a, const Holder& b) { return a.pid < b.pid; });
    EXPECT_EQ(all[0].pid, std::min<int>(other.pid(), getpid()));
    EXPECT_EQ(all[1].pid, std::max<int>(other.pid(), getpid()));
    EXPECT_EQ(all[0].process, ownName());  // a fork keeps the name
    EXPECT_EQ(all[0].owner(), ownName() + " (pid " + std::to_string(all[0].pid) + ")");

    const std::vector<Holder> others = SocketTable::read().holders(Proto::Udp, port, getpid());
    ASSERT_EQ(others.size(), 1u);
    EXPECT_EQ(others[0].pid, other.pid());

    // TCP: only a listener holds a port.
    const int tcpPort = orvtest::freePort();
    EXPECT_TRUE(SocketTable::read().holders(Proto::Tcp, tcpPort).empty());
    BoundSocket listener(SOCK_STREAM, tcpPort, false);
    ASSERT_TRUE(listener.ok());
    const std::vector<Holder> listeners = SocketTable::read().holders(Proto::Tcp, tcpPort);
    ASSERT_EQ(listeners.size(), 1u);
    EXPECT_EQ(listeners[0].pid, getpid());
}

// ---- the whole check ------------------------------------------------------------------

TEST(Check, HeldPortsAndWhetherOrvRxAnswers) {
    orvtest::TempDir dir;
    const int core = orvtest::freePort(), command = orvtest::freePort();
    CheckOptions opt;
    opt.ownPid = getpid();
    opt.iniPath = dir.write("a.ini", "[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                                         std::to_string(command) + "\nudpOrvCorePort = " + std::to_string(core) +
                                         "\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\nudpNftPort = 0\n"
                                         "udpOrvHubPort = " + std::to_string(orvtest::freePort()) + "\n");

    // Nobody there: the command port does not answer, the ports are free.
    CheckReport r = runCheck(opt);
    EXPECT_TRUE(r.orvRx.resolved && r.orvRx.local && r.orvRx.probed);
    EXPECT_FALSE(r.orvRx.answers);
    ASSERT_NE(findingAt(r.findings, "no-answer", 0), nullptr);
    EXPECT_EQ(findingAt(r.findings, "port-held", 0), nullptr);

    // orvRx listens, and another receiver holds the orvCore port.
    BoundSocket listener(SOCK_STREAM, command, false);
    PortHolderProcess other(core);
    ASSERT_TRUE(listener.ok() && other.ok());
    r = runCheck(opt);
    EXPECT_TRUE(r.orvRx.answers);
    EXPECT_EQ(r.orvRx.how, "listener");
    EXPECT_EQ(findingAt(r.findings, "no-answer", 0), nullptr);
    const Finding* held = findingAt(r.findings, "port-held", 0);
    ASSERT_NE(held, nullptr);
    EXPECT_NE(held->message.find("UDP port " + std::to_string(core) + " (udpOrvCorePort) is already held by " +
                                 ownName() + " (pid " + std::to_string(other.pid()) + ")"),
              std::string::npos)
        << held->message;
    const std::vector<Finding> repeated = heldPortFindings(r.ini, getpid());
    ASSERT_EQ(repeated.size(), 1u);
    EXPECT_EQ(repeated[0].message, held->message);

    // A name that does not resolve stops both the commands and the uplink.
    opt.iniPath = dir.write("b.ini", "[Communication]\ntcpOrvRxAddr = orv-rx.invalid\n");
    r = runCheck(opt);
    EXPECT_FALSE(r.orvRx.resolved);
    EXPECT_NE(findingAt(r.findings, "unresolved", 0), nullptr);
    EXPECT_NE(findingAt(r.findings, "uplink-host", 0), nullptr);

    // A command port past 65535 is probed where the library will connect.
    opt.iniPath = dir.write("c.ini", "[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                                         std::to_string(command + 65536) + "\n");
    r = runCheck(opt);
    EXPECT_EQ(r.orvRx.port, command);
    EXPECT_TRUE(r.orvRx.answers) << "the listener on " << command << " is what the library reaches";
}

namespace {

// The extension keys: a sender list that would make open() fail and a mode
// a producer refuses are warnings; a list in force and a mode that lets
// every user write the image are notes.
TEST(IniCheck, SenderListAndImageModeAreCheckedAsTheLibraryReadsThem) {
    orvtest::TempDir dir;
    const IniReport bad = checkIni(dir.write("bad.ini", "[Communication]\nudpAllowedSenders = 10.0.0.5, 10.0.0/24\n"
                                                         "sMemImgMode = 0668\n"));
    const Finding* senders = findingAt(bad.findings, "bad-senders", 2);
    ASSERT_NE(senders, nullptr);
    EXPECT_NE(senders->message.find("\"10.0.0/24\""), std::string::npos) << senders->message;
    EXPECT_NE(senders->message.find("open() fails"), std::string::npos) << senders->message;
    EXPECT_NE(findingAt(bad.findings, "bad-mode", 3), nullptr);

    const IniReport good = checkIni(dir.write("good.ini", "[Communication]\nudpAllowedSenders = 10.0.0.5 10.0.1.0/24\n"
                                                           "sMemImgMode = 0666\n"));
    EXPECT_NE(findingAt(good.findings, "senders", 2), nullptr);
    EXPECT_NE(findingAt(good.findings, "world-writable", 3), nullptr);
    EXPECT_EQ(good.value("udpAllowedSenders").integer, 2);
    EXPECT_EQ(good.value("sMemImgMode").integer, 0666);
    for (const Finding& f : good.findings) EXPECT_NE(f.severity, Severity::Warning) << f.message;
}

}  // namespace
