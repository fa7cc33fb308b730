#include "Check.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace orvcheck {

namespace {

using K = orvini::Key;
constexpr K kReceiveKeys[] = {K::udpOrvRxPort, K::udpOrvRxImgPort, K::udpOrvCorePort, K::udpOrvHubPort,
                              K::udpNftPort};
// Each receive port with the key of its socket's receive buffer.
constexpr K kBufferKeys[][2] = {{K::udpOrvRxPort, K::udpOrvRxRcvBufSize},
                                {K::udpOrvRxImgPort, K::udpOrvRxImgRcvBufSize},
                                {K::udpOrvCorePort, K::udpOrvCoreRcvBufSize},
                                {K::udpOrvHubPort, K::udpOrvHubRcvBufSize},
                                {K::udpNftPort, K::udpNftRcvBufSize}};
constexpr int kMaxUdpPort = 32767;

// The receive ports the library will open: the hub's follows the orvCore
// setting.
std::vector<const KeyValue*> receivePorts(const IniReport& ini) {
    std::vector<const KeyValue*> out;
    const bool coreOn = ini.value(K::udpOrvCorePort).text != "0";
    for (const K key : kReceiveKeys) {
        const KeyValue& v = ini.value(key);
        if (key == K::udpOrvHubPort && !coreOn) continue;
        if (v.text != "0" && v.integer > 0 && v.integer <= kMaxUdpPort) out.push_back(&v);
    }
    return out;
}

std::string ownerList(const std::vector<Holder>& holders) {
    std::string s;
    for (const Holder& h : holders) s += (s.empty() ? "" : ", ") + h.owner();
    return s;
}

Finding heldPort(const KeyValue& v, const std::vector<Holder>& holders) {
    return {Severity::Warning, "port-held", 0,
            "UDP port " + v.text + " (" + v.known->key + ") is already held by " + ownerList(holders) +
                ": the library shares its ports, so the kernel hands the datagrams to one receiver only and the "
                "other sees nothing; stop the other receiver, or give this one other ports"};
}

// Dotted decimal first, as the library's TCP client; then a lookup.
bool resolve(const std::string& host, in_addr& out, std::string& error) {
    if (inet_aton(host.c_str(), &out) != 0) return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (rc != 0 || found == nullptr) {
        error = gai_strerror(rc);
        return false;
    }
    out = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

bool isLocal(in_addr a) {
    if ((ntohl(a.s_addr) >> 24) == 127 || a.s_addr == htonl(INADDR_ANY)) return true;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    bool found = false;
    for (const ifaddrs* i = list; i != nullptr && !found; i = i->ifa_next)
        if (i->ifa_addr != nullptr && i->ifa_addr->sa_family == AF_INET)
            found = reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr == a.s_addr;
    freeifaddrs(list);
    return found;
}

// A connection within the time-out, closed again at once.
bool connects(in_addr a, int port, int timeoutMs, std::string& error) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr = a;
    int rc = connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        rc = poll(&p, 1, timeoutMs);
        if (rc == 0) {
            error = "no answer within " + std::to_string(timeoutMs) + " ms";
            ::close(fd);
            return false;
        }
        int soError = 0;
        socklen_t len = sizeof soError;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len);
        errno = soError;
        rc = soError == 0 ? 0 : -1;
    }
    if (rc != 0) error = std::strerror(errno);
    ::close(fd);
    return rc == 0;
}

// The kernel caps a socket's receive buffer at net.core.rmem_max.
long receiveBufferLimit() {
    std::ifstream in("/proc/sys/net/core/rmem_max");
    long limit = 0;
    return in >> limit ? limit : 0;
}

class MachineCheck {
public:
    MachineCheck(const CheckOptions& o, CheckReport& r) : opt_(o), r_(r), table_(SocketTable::read()) {}

    void run() {
        probeOrvRx();
        receivers();
        uplink();
        command();
        buffers();
    }

private:
    void add(Severity s, const char* kind, std::string message) {
        r_.findings.push_back({s, kind, 0, std::move(message)});
    }

    void probeOrvRx() {
        OrvRxProbe& p = r_.orvRx;
        p.host = r_.ini.value(K::tcpOrvRxAddr).text;
        p.port = connectedTcpPort(r_.ini.value(K::tcpOrvRxPort).integer);
        p.enabled = r_.ini.value(K::tcpOrvRxEnabled).flag;
        if (!opt_.probe) return;
        in_addr a{};
        std::string error;
        p.resolved = resolve(p.host, a, error);
        if (!p.resolved) {
            add(Severity::Warning, "unresolved",
                "tcpOrvRxAddr \"" + p.host + "\" does not resolve (" + error +
                    "): neither the command channel nor the uplink can reach orvRx; write the front end's address "
                    "or a name this machine knows");
            return;
        }
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &a, text, sizeof text);
        p.address = text;
        p.local = isLocal(a);
        if (!p.enabled) return;
        p.probed = true;
        if (p.local) {
            p.how = "listener";
            p.answers = !table_.holders(Proto::Tcp, p.port).empty();
            if (!p.answers) p.error = "nothing listens on TCP port " + std::to_string(p.port) + " here";
        } else {
            p.how = "connect";
            p.answers = connects(a, p.port, opt_.connectTimeoutMs, p.error);
        }
        if (!p.answers)
            add(Severity::Warning, "no-answer",
                "orvRx's command port " + p.address + ":" + std::to_string(p.port) + " does not answer (" + p.error +
                    "): registers, streaming and files will fail and nothing is streamed; start orvRx (or orvsim), "
                    "or check tcpOrvRxAddr and tcpOrvRxPort");
    }

    void receivers() {
        for (const KeyValue* v : receivePorts(r_.ini)) {
            PortUse use{v->known->key, static_cast<int>(v->integer), Proto::Udp, PortUse::Role::Receive,
                        table_.holders(Proto::Udp, static_cast<int>(v->integer), opt_.ownPid)};
            if (!use.holders.empty()) r_.findings.push_back(heldPort(*v, use.holders));
            r_.ports.push_back(std::move(use));
        }
    }

    // Only a local orvRx's uplink receiver can be seen from here.
    void uplink() {
        const KeyValue& v = r_.ini.value(K::udpOrvRxInputPort);
        if (v.text == "0" || v.integer <= 0 || v.integer > kMaxUdpPort) return;
        const std::string& host = r_.orvRx.host;
        const bool numeric = host == "localhost" || host == "*" || (!host.empty() && host[0] >= '0' && host[0] <= '9');
        if (!numeric)
            add(Severity::Warning, "uplink-host",
                "tcpOrvRxAddr \"" + host + "\" is a name: the command channel looks it up, but the uplink sender "
                "takes only dotted addresses or localhost and does not open (\"Error forming UDP server write "
                "address\"); write the address as digits");
        PortUse use{v.known->key, static_cast<int>(v.integer), Proto::Udp, PortUse::Role::Uplink, {}};
        if (r_.orvRx.local) {
            use.holders = table_.holders(Proto::Udp, use.port, opt_.ownPid);
            if (use.holders.empty())
                add(Severity::Note, "no-uplink-receiver",
                    "nothing on this machine receives UDP port " + v.text +
                        " (udpOrvRxInputPort): platform pose, GPS and input data go nowhere until orvRx runs");
        }
        r_.ports.push_back(std::move(use));
    }

    void command() {
        const OrvRxProbe& p = r_.orvRx;
        if (!p.enabled || !p.local) return;
        r_.ports.push_back({orvini::row(K::tcpOrvRxPort).key, p.port, Proto::Tcp, PortUse::Role::Command,
                            table_.holders(Proto::Tcp, p.port, opt_.ownPid)});
    }

    void buffers() {
        const long limit = receiveBufferLimit();
        if (limit <= 0) return;
        const std::vector<const KeyValue*> open = receivePorts(r_.ini);
        for (const auto& pair : kBufferKeys) {
            bool used = false;
            for (const KeyValue* v : open) used = used || v->known->id == pair[0];
            const KeyValue& b = r_.ini.value(pair[1]);
            if (!used || b.integer <= limit) continue;
            add(Severity::Note, "buffer-capped",
                std::string(b.known->key) + " = " + b.text + " is above the kernel's limit net.core.rmem_max = " +
                    std::to_string(limit) + ": the socket gets less; raise the limit (sysctl -w net.core.rmem_max=" +
                    b.text + ") for the whole buffer");
        }
    }

    const CheckOptions& opt_;
    CheckReport& r_;
    SocketTable table_;
};

}  // namespace

size_t CheckReport::count(Severity s) const {
    size_t n = 0;
    for (const Finding& f : findings) n += f.severity == s;
    return n;
}

CheckReport runCheck(const CheckOptions& options) {
    CheckReport r;
    r.ini = checkIni(options.iniPath);
    r.findings = r.ini.findings;
    if (r.ini.readable) MachineCheck(options, r).run();
    return r;
}

std::vector<Finding> heldPortFindings(const IniReport& ini, int ownPid) {
    std::vector<Finding> out;
    const SocketTable table = SocketTable::read();
    for (const KeyValue* v : receivePorts(ini)) {
        const std::vector<Holder> holders = table.holders(Proto::Udp, static_cast<int>(v->integer), ownPid);
        if (!holders.empty()) out.push_back(heldPort(*v, holders));
    }
    return out;
}

std::string streamReceivers(const IniReport& ini, int ownPid) {
    const SocketTable table = SocketTable::read();
    std::vector<Holder> found;
    for (const KeyValue* v : receivePorts(ini)) {
        const K key = v->known->id;
        if (key != K::udpOrvRxPort && key != K::udpOrvRxImgPort && key != K::udpOrvCorePort) continue;
        for (const Holder& h : table.holders(Proto::Udp, static_cast<int>(v->integer), ownPid)) {
            bool seen = false;
            for (const Holder& f : found) seen = seen || (f.pid == h.pid && f.socket.uid == h.socket.uid);
            if (!seen) found.push_back(h);
        }
    }
    return ownerList(found);
}

}  // namespace orvcheck
