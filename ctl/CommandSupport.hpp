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

// Prints what the library's last error says about `what` and what to do;
// returns kExitFailed.
int commandFailed(OrvAccess& access, const std::string& what);

}  // namespace orvctl
