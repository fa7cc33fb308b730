// The subcommands of orvctl. Each returns the process's exit code.
#pragma once

#include <string>
#include <vector>

namespace orvctl {

// Exit codes a script can rely on.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,        // the command failed, or found problems (check, errors)
    kExitUsage = 2,         // bad arguments, or the configuration file cannot be read
    kExitNoConnection = 3,  // the library could not open, or orvRx's command channel is not up
};

struct Options {
    std::string ini = "orvaccess.ini";
    unsigned int timeoutMs = 500;  // register commands
    bool verbose = false;          // the library's connection lines on stderr
    bool json = false;
};

int runStatus(const Options& o, double listenS);
int runCheck(const Options& o, bool probe);
int runRegGet(const Options& o, const std::string& address);
int runRegSet(const Options& o, const std::string& address, const std::string& value);
int runRegDump(const Options& o, const std::string& first, const std::string& count);
int runStream(const Options& o, bool on);
int runImu(const Options& o, bool platform, unsigned int receive, unsigned int imuTimeout,
           const std::vector<std::string>& bytes);
int runGet(const Options& o, const std::string& remote, std::string local, unsigned int location);
int runPut(const Options& o, const std::string& local, std::string remote, unsigned int location);
int runErrors(const Options& o, double listenS);

}  // namespace orvctl
