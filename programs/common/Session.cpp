#include "Session.hpp"

// The one file of the session library that instantiates SimpleIni's
// template bodies (Debian's header keeps them behind SI_IMPLEMENTATION).
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>

namespace orvsession {

namespace {

using orvnames::Channel;
using IniFile = CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>>;

// How the library's connection lines name each channel: the opening line is
// opening + target + purpose; a failure line holds failMarker + reason.
struct ChannelLines {
    Channel channel;
    const char* opening;
    const char* purpose;
    const char* failMarker;
    const char* disabled;
};
constexpr ChannelLines kLines[] = {
    {Channel::Tcp, "Opening TCP connection ", " for orvRx", "Unable to open TCP connection: ",
     "TCP connection disabled by user"},
    {Channel::Uplink, "Opening UDP server ", " for orvRx input", " for orvRx input: ",
     "UDP input to orvRx disabled by user"},
    {Channel::Meta, "Opening UDP port ", " for orvRx data", " for orvRx data: ",
     "UDP meta packet port (udpOrvRxPort) disabled by user"},
    {Channel::Image, "Opening UDP port ", " for orvRx images", " for orvRx images: ",
     "UDP image port (udpOrvRxImgPort) disabled by user"},
    {Channel::Core, "Opening UDP port ", " for orvCore data", " for orvCore data: ",
     "UDP tracking data port (udpOrvCorePort) disabled by user"},
    {Channel::Hub, "Opening UDP port ", " for orvHub data", " for orvHub data: ",
     "UDP orvHub data port (udpOrvHubPort) disabled by user"},
    {Channel::Nft, "Opening UDP port ", " for NFT data", " for NFT data: ",
     "UDP NFT data port (udpNftPort) disabled by user"},
};
constexpr const char* kLogPrefix = "ORVALOG: ";
constexpr const char* kSharedMemLine = "Shared memory interface ";
constexpr const char* kFailurePrefix = "Unable to open ";
constexpr orvini::Key kDataPortKeys[] = {orvini::Key::udpOrvRxPort,      orvini::Key::udpOrvRxImgPort,
                                         orvini::Key::udpOrvRxInputPort, orvini::Key::udpOrvCorePort,
                                         orvini::Key::udpOrvHubPort,     orvini::Key::udpNftPort};
constexpr const orvini::KeyRow& kVerbosity = orvini::row(orvini::Key::verbosity);
constexpr const orvini::KeyRow& kSharedMemName = orvini::row(orvini::Key::sMemImgName);

bool startsWith(const std::string& s, const std::string& p) { return s.compare(0, p.size(), p) == 0; }
bool endsWith(const std::string& s, const std::string& e) {
    return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
}
bool contains(const std::string& s, const char* part) { return s.find(part) != std::string::npos; }

// What a user can do about the reasons the library gives.
std::string adviceFor(Channel c, const std::string& reason) {
    if (c == Channel::Tcp) {
        if (contains(reason, "refused"))
            return "nothing listens there: start orvRx (or orvsim), or check tcpOrvRxAddr and tcpOrvRxPort";
        if (contains(reason, "No such host")) return "tcpOrvRxAddr does not resolve: write orvRx's address";
        return "check that orvRx runs and is reachable at tcpOrvRxAddr:tcpOrvRxPort";
    }
    if (c == Channel::SharedMem) return "the image appears when orvHub runs on this machine";
    if (contains(reason, "Address already in use"))
        return "another program holds the port without sharing it; orvctl check names it";
    if (contains(reason, "broadcast address") || contains(reason, "write address"))
        return "the port must be decimal digits up to 32767, and the uplink's tcpOrvRxAddr dotted digits or "
               "localhost; orvctl check shows the value";
    return "orvctl check looks at the configuration and the ports";
}

// Keeps what the library writes to the log stream while it lives.
class LogCapture {
public:
    LogCapture() : old_(std::clog.rdbuf(text_.rdbuf())) {}
    ~LogCapture() { std::clog.rdbuf(old_); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* old_;
};

// A temporary copy of the configuration with the changes applied; removed
// when this goes.
class IniCopy {
public:
    IniCopy(const std::string& source, Scope scope, unsigned int& verbosity, std::string& error) {
        IniFile ini;
        ini.LoadFile(source.c_str());  // a missing file reads as empty, as in the library
        verbosity = static_cast<uint32_t>(ini.GetLongValue(
            kVerbosity.section, kVerbosity.key, static_cast<long>(orvini::defaultInteger(kVerbosity.id))));
        ini.SetLongValue(kVerbosity.section, kVerbosity.key, static_cast<long>(verbosity | orvnames::kVerbLog),
                         nullptr, true);
        if (scope == Scope::CommandsOnly) {
            for (const orvini::Key key : kDataPortKeys)
                ini.SetValue(orvini::row(key).section, orvini::row(key).key, "0");
            ini.SetValue(kSharedMemName.section, kSharedMemName.key, "");
        }
        std::string templ = (std::filesystem::temp_directory_path() / "orvaccess-XXXXXX.ini").string();
        const int fd = mkstemps(templ.data(), 4);
        if (fd < 0) {
            error = "cannot create a temporary file in " + std::filesystem::temp_directory_path().string() + ": " +
                    std::strerror(errno) + "; set TMPDIR to a writable folder";
            return;
        }
        path_ = templ;
        std::FILE* f = fdopen(fd, "wb");
        if (f == nullptr || ini.SaveFile(f) < 0 || std::fclose(f) != 0)
            error = "cannot write " + path_ + "; set TMPDIR to a writable folder with room";
    }
    ~IniCopy() {
        if (!path_.empty()) std::remove(path_.c_str());
    }
    IniCopy(const IniCopy&) = delete;
    IniCopy& operator=(const IniCopy&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::vector<std::string> splitLines(const std::string& text, const std::string& tempPath, const std::string& ini) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (startsWith(line, kLogPrefix)) line.erase(0, std::strlen(kLogPrefix));
        // The library read the copy; the user wrote the original.
        const size_t at = line.find(tempPath);
        if (!tempPath.empty() && at != std::string::npos) line.replace(at, tempPath.size(), ini);
        out.push_back(line);
    }
    return out;
}

void parseLines(OpenResult& r, const std::string& sharedMemName) {
    for (const ChannelLines& lines : kLines) {
        ChannelResult& c = r.channels[static_cast<int>(lines.channel)];
        for (const std::string& line : r.lines) {
            if (line == lines.disabled) {
                c.state = ChannelState::Disabled;
            } else if (startsWith(line, lines.opening) && endsWith(line, lines.purpose)) {
                c.state = ChannelState::Open;
                c.target = line.substr(std::strlen(lines.opening),
                                       line.size() - std::strlen(lines.opening) - std::strlen(lines.purpose));
            } else if (startsWith(line, kFailurePrefix) && contains(line, lines.failMarker)) {
                c.state = ChannelState::Failed;
                c.reason = line.substr(line.find(lines.failMarker) + std::strlen(lines.failMarker));
                c.advice = adviceFor(lines.channel, c.reason);
            }
        }
    }
    ChannelResult& shm = r.channels[static_cast<int>(Channel::SharedMem)];
    shm.target = sharedMemName;
    for (const std::string& line : r.lines) {
        if (line == std::string(kSharedMemLine) + "ok") {
            shm.state = ChannelState::Open;
        } else if (line == std::string(kSharedMemLine) + "disabled") {
            shm.state = sharedMemName.empty() ? ChannelState::Disabled : ChannelState::Failed;
            if (!sharedMemName.empty()) {
                shm.reason = "no shared-memory image \"" + sharedMemName + "\" on this machine";
                shm.advice = adviceFor(Channel::SharedMem, shm.reason);
            }
        }
    }
}

}  // namespace

const char* stateName(ChannelState s) {
    switch (s) {
        case ChannelState::Open:
            return "open";
        case ChannelState::Failed:
            return "failed";
        case ChannelState::Disabled:
            return "disabled";
    }
    return "disabled";
}

std::string failureText(const ChannelResult& c) {
    const orvnames::ChannelInfo& info = orvnames::channelInfo(c.channel);
    std::string s = std::string(info.name) + " (" + info.key + (c.target.empty() ? "" : " " + c.target) +
                    ") did not open: " + c.reason;
    if (!c.advice.empty()) s += "; " + c.advice;
    return s;
}

std::vector<const ChannelResult*> OpenResult::failures() const {
    std::vector<const ChannelResult*> out;
    for (const ChannelResult& c : channels)
        if (c.state == ChannelState::Failed) out.push_back(&c);
    return out;
}

OpenResult openLibrary(OrvAccess& access, const std::string& iniPath, Scope scope) {
    OpenResult r;
    for (int i = 0; i < orvnames::kChannelCount; ++i) r.channels[i].channel = static_cast<Channel>(i);

    IniFile original;
    original.LoadFile(iniPath.c_str());
    const std::string sharedMemName =
        scope == Scope::CommandsOnly
            ? ""
            : original.GetValue(kSharedMemName.section, kSharedMemName.key, kSharedMemName.defaultText);

    IniCopy copy(iniPath, scope, r.verbosity, r.setupError);
    if (!r.setupError.empty()) return r;
    std::string captured;
    {
        LogCapture capture;
        access.setIniPath(copy.path());
        r.opened = access.open();
        captured = capture.text();
    }
    access.setIniPath(iniPath);
    access.setVerbosity(r.verbosity);
    if (!r.opened) r.lastError = access.getLastError();
    r.lines = splitLines(captured, copy.path(), iniPath);
    parseLines(r, sharedMemName);
    return r;
}

bool reopenEverything(OrvAccess& access, const std::string& iniPath, std::string& why) {
    const OpenResult r = openLibrary(access, iniPath, Scope::Everything);
    const ChannelResult& tcp = r.channel(Channel::Tcp);
    if (!r.setupError.empty())
        why = r.setupError;
    else if (!r.opened)
        why = r.lastError;
    else if (tcp.state == ChannelState::Failed)
        why = tcp.reason;
    return r.opened;
}

}  // namespace orvsession
