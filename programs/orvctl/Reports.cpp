// The two reporting subcommands, status and check, as text or JSON.
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "Check.hpp"
#include "CommandSupport.hpp"

namespace orvctl {

// Keys in the order they are written, so that the output reads like the text.
using json = nlohmann::ordered_json;
using orvnames::Channel;
using orvsession::ChannelResult;
using orvsession::ChannelState;
using orvsession::OpenResult;

namespace {

constexpr size_t kMaxPopsPerPass = 10000;
constexpr uint64_t kStatusPeriodUs = 100000;

template <size_t N>
json bitList(uint32_t mask, const orvnames::BitName (&table)[N]) {
    json names = json::array();
    for (const orvnames::BitName& b : table)
        if (mask & b.bit) names.push_back(b.name);
    return {{"word", mask}, {"names", names}};
}

// What a short stay on the ports shows.
struct Listened {
    double seconds = 0.0;
    s_OrvAccessStatus status{};  // received: every bit seen
    bool streaming = false;
    bool asked = false;         // streaming was asked for on the command channel
    bool acknowledged = false;  // ... and orvRx acknowledged it
    std::string streamError;    // the library's reason when it did not
    uint64_t tracking = 0, imu = 0, diag = 0, hub = 0, errorCodes = 0;
    bool haveDiag = false;
    s_OrvAccessDiagData lastDiag{};
    s_OrvAccessSenderDrops senders{};  // dropped by udpAllowedSenders while listening
};

// The drops of udpAllowedSenders, port by port.
std::string senderText(const s_OrvAccessSenderDrops& d) {
    if (d.entries == 0) return "any sender taken (udpAllowedSenders not set)";
    char text[200];
    std::snprintf(text, sizeof text, "%u allowed; dropped from others: meta %llu  image %llu  orvCore %llu  "
                  "orvHub %llu  NFT %llu",
                  d.entries, static_cast<unsigned long long>(d.meta), static_cast<unsigned long long>(d.image),
                  static_cast<unsigned long long>(d.core), static_cast<unsigned long long>(d.hub),
                  static_cast<unsigned long long>(d.nft));
    return text;
}

template <typename Pop>
uint64_t drain(Pop&& pop) {
    uint64_t n = 0;
    for (size_t i = 0; i < kMaxPopsPerPass; ++i) {
        bool valid = false;
        if (!pop(&valid) || !valid) break;
        ++n;
    }
    return n;
}

Listened listen(OrvAccess& a, double seconds, bool commands) {
    Listened l;
    if (commands && seconds > 0) {
        // Asked here rather than by the first getter, which would not say
        // whether orvRx answered: the library assumes streaming either way.
        l.asked = true;
        l.acknowledged = a.setStreaming(true);
        if (!l.acknowledged) l.streamError = a.getLastError();
    }
    a.getStatus(&l.status);
    const uint64_t start = a.getTimeUs();
    const auto end = start + static_cast<uint64_t>(seconds * 1e6);
    uint64_t nextStatus = start;
    while (a.getTimeUs() < end) {
        // Data getters drain the ports and ask orvRx to stream.
        s_OrvAccessTrkDataExt pose{};
        l.tracking += drain([&](bool* v) { return a.getTrackingData(v, &pose); });
        s_OrvAccessImuData imu{};
        l.imu += drain([&](bool* v) { return a.getImuData(ORVACCESS_IMU_CAMERA, v, &imu); });
        s_OrvAccessDiagData diag{};
        const uint64_t diags = drain([&](bool* v) {
            const bool ok = a.getDiagData(v, &diag);
            if (ok && *v) l.lastDiag = diag;
            return ok;
        });
        l.diag += diags;
        l.haveDiag = l.haveDiag || diags > 0;
        s_OrvAccessHubData hub{};
        l.hub += drain([&](bool* v) { return a.getHubData(v, &hub); });
        s_OrvAccessErrorCode e{};
        while (a.getErrorCode(&e) != 0) ++l.errorCodes;
        if (a.getTimeUs() >= nextStatus) {
            nextStatus += kStatusPeriodUs;
            s_OrvAccessStatus s{};
            if (a.getStatus(&s)) {
                const uint32_t received = l.status.received | s.received;
                l.status = s;
                l.status.received = received;
            }
        }
        l.streaming = a.getStreaming();
        OrvosiUtil_snoozeMs(1);
    }
    a.getSenderDrops(&l.senders);
    l.seconds = static_cast<double>(a.getTimeUs() - start) / 1e6;
    if (seconds <= 0) l.streaming = a.getStreaming();
    return l;
}

constexpr uint32_t kStreamedBits =
    orvnames::kRecvMeta | orvnames::kRecvTracking | orvnames::kRecvImage | orvnames::kRecvPra;

// orvRx never took the request, and nothing it streams came either.
bool neverAcknowledged(const Listened& l) {
    return l.asked && !l.acknowledged && (l.status.received & kStreamedBits) == 0;
}

std::string streamingText(const Listened& l, bool commands) {
    if (!commands)
        return std::string(l.streaming ? "on" : "off") +
               " (as the library assumes: without a command channel it cannot ask orvRx)";
    if (neverAcknowledged(l))
        return "never acknowledged by orvRx (" + l.streamError +
               "): nothing that orvRx streams arrives; is tcpOrvRxPort orvRx's command port, and does orvRx answer?";
    if (l.asked && !l.acknowledged) return "on (streamed data arrives; the request went unacknowledged)";
    return l.streaming ? "on" : "off";
}

std::string rxStateText(const Listened& l) {
    if (!l.haveDiag)
        return "unknown: no diagnostic record arrived (orvRx sends them while it streams; try --listen 1)";
    char text[160];
    std::snprintf(text, sizeof text, "%u%s (status word %u), error bytes %u %u %u %u", l.lastDiag.state,
                  l.lastDiag.state == orvnames::kRxStateStopped ? ", stopped streaming" : "", l.status.diagState,
                  l.lastDiag.errorCodes[0], l.lastDiag.errorCodes[1], l.lastDiag.errorCodes[2],
                  l.lastDiag.errorCodes[3]);
    return text;
}

json channelJson(const ChannelResult& c) {
    const orvnames::ChannelInfo& info = orvnames::channelInfo(c.channel);
    return {{"name", info.name},          {"key", info.key},       {"target", c.target},
            {"state", stateName(c.state)}, {"reason", c.reason}, {"advice", c.advice}};
}

void printStatusText(const Options& o, OrvAccess& a, const OpenResult& r, const Listened& l) {
    std::printf("orvctl status  %s  (liborvaccess %s)\n", o.ini.c_str(), a.getVersion().c_str());
    std::printf("%-8s %-19s %-22s %s\n", "channel", "key", "target", "state");
    for (const ChannelResult& c : r.channels) {
        const orvnames::ChannelInfo& info = orvnames::channelInfo(c.channel);
        std::string state = stateName(c.state);
        if (c.state == ChannelState::Failed) state += ": " + c.reason + "; " + c.advice;
        std::printf("%-8s %-19s %-22s %s\n", info.name, info.key, c.target.c_str(), state.c_str());
    }
    if (!r.opened) {
        std::printf("open         failed: %s\n", r.lastError.c_str());
        return;
    }
    std::printf("connections  0x%x %s\n", l.status.connections, orvnames::connectionNames(l.status.connections).c_str());
    std::printf("received     0x%x %s  (in %.1f s)\n", l.status.received,
                orvnames::receivedNames(l.status.received).c_str(), l.seconds);
    const bool commands = r.channel(orvnames::Channel::Tcp).state == ChannelState::Open;
    std::printf("streaming    %s\n", streamingText(l, commands).c_str());
    std::printf("orvRx state  %s\n", rxStateText(l).c_str());
    std::printf("records      tracking %llu  imu %llu  diagnostic %llu  hub %llu  (in %.1f s)\n",
                static_cast<unsigned long long>(l.tracking), static_cast<unsigned long long>(l.imu),
                static_cast<unsigned long long>(l.diag), static_cast<unsigned long long>(l.hub), l.seconds);
    std::printf("errors       %llu error code%s arrived%s\n", static_cast<unsigned long long>(l.errorCodes),
                l.errorCodes == 1 ? "" : "s", l.errorCodes ? " (orvctl errors lists them)" : "");
    std::printf("senders      %s\n", senderText(l.senders).c_str());
}

void printStatusJson(const Options& o, OrvAccess& a, const OpenResult& r, const Listened& l) {
    json channels = json::array();
    for (const ChannelResult& c : r.channels) channels.push_back(channelJson(c));
    json out = {{"ini", o.ini},       {"version", a.getVersion()}, {"opened", r.opened},
                {"lastError", r.lastError}, {"channels", channels}};
    if (r.opened) {
        json rx = {{"state", nullptr}, {"statusWord", l.status.diagState}, {"errorBytes", json::array()}};
        if (l.haveDiag) {
            rx["state"] = l.lastDiag.state;
            for (uint8_t b : l.lastDiag.errorCodes) rx["errorBytes"].push_back(b);
        }
        out["connections"] = bitList(l.status.connections, orvnames::kConnectionBits);
        out["received"] = bitList(l.status.received, orvnames::kReceivedBits);
        out["newError"] = l.status.newError;
        out["streaming"] = l.streaming && !neverAcknowledged(l);
        out["streamingAcknowledged"] = l.acknowledged;
        out["streamingError"] = l.streamError;
        out["listenS"] = l.seconds;
        out["orvRx"] = rx;
        out["records"] = {{"tracking", l.tracking}, {"imu", l.imu}, {"diagnostic", l.diag}, {"hub", l.hub}};
        out["errorCodes"] = l.errorCodes;
        const s_OrvAccessSenderDrops& d = l.senders;
        out["senders"] = {{"allowedEntries", d.entries},
                          {"dropped", {{"meta", d.meta}, {"image", d.image}, {"orvCore", d.core}, {"orvHub", d.hub},
                                       {"nft", d.nft}}}};
    }
    std::cout << out.dump(2) << "\n";
}

// ---- check ----------------------------------------------------------------------

json typedValue(const orvcheck::KeyValue& v) {
    using orvcheck::KeyKind;
    switch (v.known->kind) {
        case KeyKind::Mask:
        case KeyKind::Int32:
        case KeyKind::Size:
        case KeyKind::Int64:
            return v.integer;
        case KeyKind::Real:
            return v.real;
        case KeyKind::Bool:
            return v.flag;
        default:
            return v.text;
    }
}

const char* sourceName(const orvcheck::KeyValue& v) {
    return !v.present ? "default" : v.fellBack ? "fallback" : "file";
}

const char* roleName(orvcheck::PortUse::Role r) {
    switch (r) {
        case orvcheck::PortUse::Role::Receive:
            return "receive";
        case orvcheck::PortUse::Role::Uplink:
            return "uplink";
        case orvcheck::PortUse::Role::Command:
            return "command";
    }
    return "receive";
}

std::string holderText(const orvcheck::PortUse& p) {
    using Role = orvcheck::PortUse::Role;
    if (p.holders.empty())
        return p.role == Role::Receive ? "free" : p.role == Role::Uplink ? "nobody receives it here" : "nobody listens";
    std::string owners;
    for (const orvcheck::Holder& h : p.holders) owners += (owners.empty() ? "" : ", ") + h.owner();
    if (p.role == Role::Receive) return "ALSO HELD by " + owners;
    return owners + (p.role == Role::Uplink ? " receives it" : " listens");
}

void printCheckText(const orvcheck::CheckReport& r) {
    std::printf("orvctl check  %s\n", r.ini.path.c_str());
    if (r.ini.readable) {
        std::printf("values, as the library reads them\n");
        for (const orvcheck::KeyValue& v : r.ini.values) {
            std::string shown = v.text.empty() ? "\"\"" : v.text;
            if (v.known->kind == orvcheck::KeyKind::Mask && v.integer != 0) {
                char hex[24];
                std::snprintf(hex, sizeof hex, " (0x%llx)", static_cast<unsigned long long>(v.integer));
                shown += hex;
            }
            if (v.known->kind == orvcheck::KeyKind::UdpPort && v.text == "0") shown += " (off)";
            const std::string source =
                !v.present ? "default" : v.fellBack ? "default, \"" + v.raw + "\" not read" : "";
            std::printf("  %-14s %-22s %-24s %s\n", v.known->section, v.known->key, shown.c_str(), source.c_str());
        }
        std::printf("ports\n");
        for (const orvcheck::PortUse& p : r.ports)
            std::printf("  %s %5d  %-18s %s\n", orvcheck::protoName(p.proto), p.port, p.key.c_str(),
                        holderText(p).c_str());
        const orvcheck::OrvRxProbe& x = r.orvRx;
        std::printf("orvRx\n");
        if (!x.enabled) std::printf("  command channel off (tcpOrvRxEnabled)\n");
        if (x.resolved)
            std::printf("  tcpOrvRxAddr %s is %s%s\n", x.host.c_str(), x.address.c_str(),
                        x.local ? " (this machine)" : "");
        if (x.probed)
            std::printf("  command port %s:%d %s\n", x.address.c_str(), x.port,
                        x.answers ? (x.how == "listener" ? "has a listener" : "accepts connections")
                                  : ("does not answer: " + x.error).c_str());
        if (x.asked)
            std::printf("  a register read %s\n", x.replied ? "is answered" : ("fails: " + x.replyError).c_str());
    }
    if (!r.findings.empty()) std::printf("findings\n");
    for (const orvcheck::Finding& f : r.findings) {
        const std::string where = f.line > 0 ? "line " + std::to_string(f.line) + ": " : "";
        std::printf("  %-7s  %s%s\n", orvcheck::severityName(f.severity), where.c_str(), f.message.c_str());
    }
    std::printf("result: %zu error%s, %zu warning%s, %zu note%s\n", r.count(orvcheck::Severity::Error),
                r.count(orvcheck::Severity::Error) == 1 ? "" : "s", r.count(orvcheck::Severity::Warning),
                r.count(orvcheck::Severity::Warning) == 1 ? "" : "s", r.count(orvcheck::Severity::Note),
                r.count(orvcheck::Severity::Note) == 1 ? "" : "s");
}

void printCheckJson(const orvcheck::CheckReport& r) {
    json findings = json::array(), values = json::array(), ports = json::array();
    for (const orvcheck::Finding& f : r.findings)
        findings.push_back({{"severity", orvcheck::severityName(f.severity)},
                            {"kind", f.kind},
                            {"line", f.line},
                            {"message", f.message}});
    for (const orvcheck::KeyValue& v : r.ini.values) {
        json j = {{"section", v.known->section}, {"key", v.known->key}, {"value", typedValue(v)},
                  {"text", v.text},             {"source", sourceName(v)}};
        if (v.present) {
            j["raw"] = v.raw;
            j["line"] = v.line;
        }
        values.push_back(j);
    }
    for (const orvcheck::PortUse& p : r.ports) {
        json holders = json::array();
        for (const orvcheck::Holder& h : p.holders)
            holders.push_back({{"pid", h.pid}, {"process", h.process}, {"local", h.socket.local}, {"owner", h.owner()}});
        ports.push_back({{"key", p.key},
                         {"port", p.port},
                         {"proto", orvcheck::protoName(p.proto)},
                         {"role", roleName(p.role)},
                         {"holders", holders}});
    }
    const orvcheck::OrvRxProbe& x = r.orvRx;
    const json orvRx = {{"host", x.host},       {"port", x.port},     {"enabled", x.enabled},
                        {"resolved", x.resolved}, {"address", x.address}, {"local", x.local},
                        {"probed", x.probed},   {"answers", x.answers}, {"how", x.how},
                        {"error", x.error},     {"asked", x.asked},     {"replied", x.replied},
                        {"replyError", x.replyError}};
    const json out = {{"ini", r.ini.path},
                      {"readable", r.ini.readable},
                      {"readError", r.ini.readError},
                      {"findings", findings},
                      {"values", values},
                      {"ports", ports},
                      {"orvRx", orvRx},
                      {"summary",
                       {{"errors", r.count(orvcheck::Severity::Error)},
                        {"warnings", r.count(orvcheck::Severity::Warning)},
                        {"notes", r.count(orvcheck::Severity::Note)}}}};
    std::cout << out.dump(2) << "\n";
}

}  // namespace

namespace {

// Something listens on the command port: whether it is an orvRx that
// answers. The streaming register is read, which any orvRx has.
void askOrvRx(const Options& o, orvcheck::CheckReport& r) {
    orvcheck::OrvRxProbe& x = r.orvRx;
    OrvAccess access;
    StreamKeeper keeper(o, access);
    const OpenResult opened = orvsession::openLibrary(access, o.ini, orvsession::Scope::CommandsOnly);
    if (!opened.opened || opened.channel(orvnames::Channel::Tcp).state != ChannelState::Open) return;
    keeper.arm();
    x.asked = true;
    unsigned char value = 0;
    x.replied = access.getRegister(o.timeoutMs, orvnames::kStreamingRegister, &value);
    if (x.replied) return;
    x.replyError = access.getLastError();
    const std::string where = x.address + ":" + std::to_string(x.port);
    if (x.replyError.find("No response") != std::string::npos)
        r.findings.push_back({orvcheck::Severity::Error, "no-reply", 0,
                              "orvRx's command port " + where + " accepts the connection but does not answer a "
                              "register read within " + std::to_string(o.timeoutMs) + " ms (" + x.replyError +
                              "): streaming is never switched on, so nothing that orvRx streams arrives; restart "
                              "orvRx, or check that tcpOrvRxPort is its command port (--timeout MS waits longer)"});
    else
        r.findings.push_back({orvcheck::Severity::Error, "bad-reply", 0,
                              "orvRx's command port " + where + " answers a register read with something else (" +
                              x.replyError + "): what listens there is not orvRx's command server, or it sends "
                              "data unasked; check tcpOrvRxPort and the program that holds it"});
}

}  // namespace

int runStatus(const Options& o, double listenS) {
    if (!requireIni(o)) return kExitUsage;
    OrvAccess access;
    const OpenResult r = orvsession::openLibrary(access, o.ini, orvsession::Scope::Everything);
    if (!r.setupError.empty()) {
        std::cerr << "orvctl: " << r.setupError << "\n";
        return kExitFailed;
    }
    if (o.verbose) printConnectionLines(r);
    if (r.opened && listenS > 0 && !o.json) std::cerr << "orvctl: receiving for " << listenS << " s\n";
    const bool commands = r.channel(orvnames::Channel::Tcp).state == ChannelState::Open;
    StreamKeeper keeper(o, access);
    if (r.opened && commands) keeper.arm();
    const Listened l = r.opened ? listen(access, listenS, commands) : Listened{};
    if (o.json)
        printStatusJson(o, access, r, l);
    else
        printStatusText(o, access, r, l);
    keeper.restore();
    access.close();
    if (!r.opened || r.channel(Channel::Tcp).state == ChannelState::Failed) return kExitNoConnection;
    return r.failures().empty() && !neverAcknowledged(l) ? kExitOk : kExitFailed;
}

int runCheck(const Options& o, bool probe) {
    orvcheck::CheckOptions opt;
    opt.iniPath = o.ini;
    opt.probe = probe;
    opt.ownPid = getpid();
    orvcheck::CheckReport r = orvcheck::runCheck(opt);
    if (r.ini.readable && r.orvRx.probed && r.orvRx.answers) askOrvRx(o, r);
    if (!r.ini.readable && !o.json) return requireIni(o) ? kExitFailed : kExitUsage;
    if (o.json)
        printCheckJson(r);
    else
        printCheckText(r);
    if (!r.ini.readable) return kExitUsage;
    const bool problems = r.count(orvcheck::Severity::Error) + r.count(orvcheck::Severity::Warning) > 0;
    return problems ? kExitFailed : kExitOk;
}

}  // namespace orvctl
