// What the subcommands share: the configuration file's presence, opening
// the library, and telling why something failed.
#pragma once

#include <orvaccess/OrvAccess.hpp>

#include <string>

#include "Commands.hpp"
#include "Session.hpp"

namespace orvctl {

// False, with the reason on stderr, when the file cannot be read.
bool requireIni(const Options& o);

// The library's connection lines on stderr.
void printConnectionLines(const orvsession::OpenResult& r);

// Opens the command channel alone; kExitOk, or the exit code after saying why.
int openForCommands(const Options& o, OrvAccess& access);

// Opens every channel of the file; kExitOk, or the exit code after saying why.
int openEverything(const Options& o, OrvAccess& access, orvsession::OpenResult& result);

// Opening switches orvRx's streaming off for everyone, and the receivers
// running on this machine (orvmon, orvbridge) would go without until their
// watchdog asks again. Who they are is read before opening; a session that
// armed it switches streaming back on for them before it closes.
class StreamKeeper {
public:
    StreamKeeper(const Options& o, OrvAccess& access);
    ~StreamKeeper() { restore(); }
    StreamKeeper(const StreamKeeper&) = delete;
    StreamKeeper& operator=(const StreamKeeper&) = delete;
    // The command channel is open: streaming is off now, or will be at close.
    void arm() { armed_ = true; }
    // Before the object closes; once only.
    void restore();

private:
    const Options& o_;
    OrvAccess& access_;
    std::string receivers_;
    bool armed_ = false;
};

// Prints what the library's last error says about `what` and what to do;
// returns kExitFailed.
int commandFailed(OrvAccess& access, const std::string& what);

}  // namespace orvctl
