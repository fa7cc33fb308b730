// Opening the library from a configuration file so that the tools learn
// what open() did to each channel, and why a channel failed.
//
// The library says so only in its connection lines ("ORVALOG: ..."), which
// it writes only when the file's own verbosity asks for them. So the file is
// copied to a temporary file with the log bit added, open() runs on the copy
// while the log stream is captured, and the configured verbosity is put back
// afterwards. Nothing else of the file changes, except that a command-only
// session switches the data ports off: a command then neither takes the
// datagrams of a receiver that is running nor needs them.
#pragma once

#include <orvaccess/OrvAccess.hpp>

#include <string>
#include <vector>

#include "Names.hpp"

namespace orvsession {

enum class ChannelState { Open, Failed, Disabled };
const char* stateName(ChannelState s);  // "open", "failed", "disabled"

struct ChannelResult {
    orvnames::Channel channel = orvnames::Channel::Tcp;
    ChannelState state = ChannelState::Disabled;
    std::string target;  // port, "host:port" or image name, as the library names it
    std::string reason;  // the library's reason, when it failed
    std::string advice;  // what to do about it, when we know
};

enum class Scope {
    Everything,    // every channel the file enables
    CommandsOnly,  // the command channel alone
};

struct OpenResult {
    bool opened = false;
    std::string lastError;           // the library's, when open() failed
    std::string setupError;          // the temporary copy could not be made
    unsigned int verbosity = 0;      // as the file sets it
    std::vector<std::string> lines;  // the library's connection lines, without prefix
    ChannelResult channels[orvnames::kChannelCount];

    const ChannelResult& channel(orvnames::Channel c) const { return channels[static_cast<int>(c)]; }
    // Channels the file enables that did not open.
    std::vector<const ChannelResult*> failures() const;
};

// "core (udpOrvCorePort 5002) did not open: reason; advice"
std::string failureText(const ChannelResult& c);

// Opens `access` on iniPath (which the caller has checked is readable).
OpenResult openLibrary(OrvAccess& access, const std::string& iniPath, Scope scope);

// Opens every channel again, as a watchdog's reopen does: true when the
// library opened; *why says what failed (the set-up, open() itself, or the
// command channel) and is left alone otherwise.
bool reopenEverything(OrvAccess& access, const std::string& iniPath, std::string& why);

}  // namespace orvsession
