// The command-channel subcommands (registers, streaming, IMU, files) and
// the error-code listener, with what they share.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "Args.hpp"
#include "Check.hpp"
#include "CommandSupport.hpp"
#include "TransferWatch.hpp"

namespace orvctl {

using orvnames::Channel;
using orvsession::ChannelResult;
using orvsession::ChannelState;
using orvsession::OpenResult;

namespace {

constexpr unsigned long kMaxRegister = 0xFFFFFF;  // addresses have 24 bits
constexpr unsigned long kMaxDump = 0x10000;

// A number written in decimal, or in hexadecimal after 0x; false after
// saying what is wrong with it.
bool parseNumber(const std::string& text, unsigned long max, const char* what, unsigned long& out) {
    unsigned long v = 0;
    if (!orvargs::parseUnsigned(text, ULONG_MAX, v)) {
        std::cerr << "orvctl: " << what << " \"" << text << "\" is not a number: write it in decimal, or in "
                  << "hexadecimal after 0x\n";
        return false;
    }
    if (v > max) {
        std::cerr << "orvctl: " << what << " " << text << " is too large: at most " << max << " (0x" << std::hex
                  << max << std::dec << ")\n";
        return false;
    }
    out = v;
    return true;
}

// What a user can do about the library's command failures.
const char* adviceFor(const std::string& error) {
    const auto has = [&](const char* s) { return error.find(s) != std::string::npos; };
    if (has("No response to")) return "orvRx did not answer in time; --timeout MS waits longer";
    if (has("No response from orvRx")) return "orvRx did not answer the transaction; is the IMU there?";
    if (has("Invalid")) return "the answer is not what orvRx sends: is tcpOrvRxPort orvRx's command port?";
    if (has("File not found")) return "check the name and --location";
    if (has("Start failed"))
        return "orvRx did not answer the start of the transfer, or refused it (a name with / or .., or no room); "
               "orvctl status tells whether orvRx answers at all";
    if (has("No/bad")) return "the transfer broke off; try again";
    if (has("Error writing") || has("Error reading")) return "the connection to orvRx broke; is it still running?";
    if (has("streaming")) return "orvRx did not take the streaming command; is it still running?";
    return "";
}

// "0x000010 = 0x2a (42)": one register, as get and set both report it.
void printRegister(unsigned long address, unsigned long value) {
    std::printf("0x%06lx = 0x%02lx (%lu)\n", address, value, value);
}


// Opens the command channel and arms the keeper; kExitOk or the exit code.
int openKeeping(const Options& o, OrvAccess& access, StreamKeeper& keeper) {
    const int rc = openForCommands(o, access);
    if (rc == kExitOk) keeper.arm();
    return rc;
}

}  // namespace

StreamKeeper::StreamKeeper(const Options& o, OrvAccess& access)
    : o_(o), access_(access), receivers_(orvcheck::streamReceivers(orvcheck::checkIni(o.ini), getpid())) {}

void StreamKeeper::restore() {
    if (!armed_ || receivers_.empty()) return;
    armed_ = false;
    // A session that streamed itself would switch it off again when it closes.
    if (access_.getStreaming()) access_.setStreaming(false);
    if (access_.setRegister(o_.timeoutMs, orvnames::kStreamingRegister, 1))
        std::cerr << "orvctl: streaming switched back on for " << receivers_ << "\n";
    else
        std::cerr << "orvctl: could not switch streaming back on for " << receivers_ << ": " << access_.getLastError()
                  << "; they ask orvRx again by themselves, or run orvctl stream on\n";
}

bool requireIni(const Options& o) {
    std::FILE* f = std::fopen(o.ini.c_str(), "rb");
    const int err = errno;
    if (f != nullptr) {
        std::fclose(f);
        std::error_code ec;
        if (!std::filesystem::is_directory(o.ini, ec)) return true;
    }
    std::cerr << "orvctl: cannot read the configuration file " << o.ini << ": "
              << (f != nullptr ? "it is a folder" : std::strerror(err))
              << "; name it with --ini FILE (examples/orvaccess.ini is a start)\n";
    return false;
}

void printConnectionLines(const OpenResult& r) {
    for (const std::string& line : r.lines) std::cerr << "orvaccess: " << line << "\n";
}

int openForCommands(const Options& o, OrvAccess& access) {
    if (!requireIni(o)) return kExitUsage;
    const OpenResult r = orvsession::openLibrary(access, o.ini, orvsession::Scope::CommandsOnly);
    if (!r.setupError.empty()) {
        std::cerr << "orvctl: " << r.setupError << "\n";
        return kExitFailed;
    }
    if (o.verbose) printConnectionLines(r);
    const ChannelResult& tcp = r.channel(Channel::Tcp);
    if (r.opened && tcp.state == ChannelState::Open) return kExitOk;
    if (tcp.state == ChannelState::Disabled)
        std::cerr << "orvctl: the command channel is switched off in " << o.ini
                  << " (tcpOrvRxEnabled); switch it on to talk to orvRx\n";
    else
        std::cerr << "orvctl: cannot reach orvRx at " << tcp.target << ": " << tcp.reason << "; " << tcp.advice
                  << "\n";
    return kExitNoConnection;
}

int openEverything(const Options& o, OrvAccess& access, OpenResult& r) {
    if (!requireIni(o)) return kExitUsage;
    r = orvsession::openLibrary(access, o.ini, orvsession::Scope::Everything);
    if (!r.setupError.empty()) {
        std::cerr << "orvctl: " << r.setupError << "\n";
        return kExitFailed;
    }
    if (o.verbose) printConnectionLines(r);
    if (r.opened) return kExitOk;
    std::cerr << "orvctl: the library could not open: " << r.lastError << "\n";
    for (const ChannelResult* c : r.failures()) std::cerr << "orvctl:   " << orvsession::failureText(*c) << "\n";
    return kExitNoConnection;
}

int commandFailed(OrvAccess& access, const std::string& what) {
    const std::string error = access.getLastError();
    const std::string advice = adviceFor(error);
    std::cerr << "orvctl: " << what << ": " << error << (advice.empty() ? "" : "; ") << advice << "\n";
    return kExitFailed;
}

int runRegGet(const Options& o, const std::string& addressText) {
    unsigned long address = 0;
    if (!parseNumber(addressText, kMaxRegister, "register address", address)) return kExitUsage;
    OrvAccess access;
    StreamKeeper keeper(o, access);
    if (const int rc = openKeeping(o, access, keeper)) return rc;
    unsigned char value = 0;
    if (!access.getRegister(o.timeoutMs, static_cast<unsigned int>(address), &value))
        return commandFailed(access, "reg get " + addressText);
    printRegister(address, value);
    return kExitOk;
}

int runRegSet(const Options& o, const std::string& addressText, const std::string& valueText) {
    unsigned long address = 0, value = 0;
    if (!parseNumber(addressText, kMaxRegister, "register address", address) ||
        !parseNumber(valueText, 0xFF, "register value", value))
        return kExitUsage;
    OrvAccess access;
    StreamKeeper keeper(o, access);
    if (const int rc = openForCommands(o, access)) return rc;
    // Writing the streaming register is the user's own switch.
    if (address != orvnames::kStreamingRegister) keeper.arm();
    if (!access.setRegister(o.timeoutMs, static_cast<unsigned int>(address), static_cast<unsigned char>(value)))
        return commandFailed(access, "reg set " + addressText);
    printRegister(address, value);
    return kExitOk;
}

int runRegDump(const Options& o, const std::string& firstText, const std::string& countText) {
    unsigned long first = 0, count = 0;
    if (!parseNumber(firstText, kMaxRegister, "first address", first) ||
        !parseNumber(countText, kMaxDump, "count", count))
        return kExitUsage;
    if (count == 0) {
        std::cerr << "orvctl: a count of 0 reads nothing: name from 1 to " << kMaxDump << " registers\n";
        return kExitUsage;
    }
    count = std::min(count, kMaxRegister + 1 - first);
    OrvAccess access;
    StreamKeeper keeper(o, access);
    if (const int rc = openKeeping(o, access, keeper)) return rc;
    // One line per 16 registers, printed as soon as it is read.
    for (unsigned long row = first - first % 16; row < first + count; row += 16) {
        std::printf("0x%06lx:", row);
        for (unsigned long a = row; a < std::min(row + 16, first + count); ++a) {
            if (a < first) {
                std::printf("   ");
                continue;
            }
            unsigned char value = 0;
            if (!access.getRegister(o.timeoutMs, static_cast<unsigned int>(a), &value)) {
                std::printf("\n");
                char what[32];
                std::snprintf(what, sizeof what, "reg dump at 0x%06lx", a);
                return commandFailed(access, what);
            }
            std::printf(" %02x", value);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    return kExitOk;
}

int runStream(const Options& o, bool on) {
    OrvAccess access;
    if (const int rc = openForCommands(o, access)) return rc;
    // Written as the register rather than through setStreaming: the library
    // switches streaming off again when it closes a stream it started.
    const unsigned int reg = orvnames::kStreamingRegister;
    if (!access.setRegister(o.timeoutMs, reg, on ? 1 : 0)) return commandFailed(access, "stream");
    unsigned char value = 0;
    if (!access.getRegister(o.timeoutMs, reg, &value)) return commandFailed(access, "stream (reading back)");
    if ((value != 0) != on) {
        std::cerr << "orvctl: orvRx took the command but its streaming register reads " << static_cast<int>(value)
                  << "\n";
        return kExitFailed;
    }
    std::printf("streaming %s\n", on ? "on" : "off");
    return kExitOk;
}

int runImu(const Options& o, bool platform, unsigned int receive, unsigned int imuTimeout,
           const std::vector<std::string>& bytes) {
    std::vector<unsigned char> tx;
    for (const std::string& b : bytes) {
        const std::string digits = b.size() > 2 && b[0] == '0' && (b[1] == 'x' || b[1] == 'X') ? b : "0x" + b;
        unsigned long v = 0;
        if (!parseNumber(digits, 0xFF, "byte", v)) return kExitUsage;
        tx.push_back(static_cast<unsigned char>(v));
    }
    if (tx.size() > 255) {
        std::cerr << "orvctl: an IMU transaction sends at most 255 bytes, not " << tx.size() << "\n";
        return kExitUsage;
    }
    OrvAccess access;
    StreamKeeper keeper(o, access);
    if (const int rc = openKeeping(o, access, keeper)) return rc;
    std::vector<unsigned char> rx(std::max(receive, 1u));
    unsigned long got = 0;
    if (!access.transactImu(platform ? ORVACCESS_IMU_PLATFORM : ORVACCESS_IMU_CAMERA, tx.data(), tx.size(),
                            rx.data(), receive, imuTimeout, &got))
        return commandFailed(access, "imu");
    if (receive == 0) {
        std::printf("sent %zu bytes; no reply asked for\n", tx.size());
        return kExitOk;
    }
    for (unsigned long i = 0; i < got; ++i) std::printf(i ? " %02x" : "%02x", rx[i]);
    std::printf("%s\n", got == 0 ? "(no bytes)" : "");
    return kExitOk;
}

int runGet(const Options& o, const std::string& remote, std::string local, unsigned int location) {
    if (local.empty()) local = std::filesystem::path(remote).filename().string();
    if (local.empty()) {
        std::cerr << "orvctl: name the local file: \"" << remote << "\" has no last part to use\n";
        return kExitUsage;
    }
    // The library writes as it receives and leaves a broken transfer's part
    // behind: it fetches into a file of its own beside the target, which
    // takes the target's name only when the whole file has arrived.
    std::filesystem::path target(local);
    std::string temp = (target.parent_path() / ("." + target.filename().string() + ".orvctl-XXXXXX")).string();
    const int fd = mkstemp(temp.data());
    if (fd < 0) {
        std::cerr << "orvctl: cannot create a file beside " << local << ": " << std::strerror(errno)
                  << "; name a local file in a folder you can write\n";
        return kExitFailed;
    }
    ::close(fd);
    struct TempFile {
        std::string path;
        ~TempFile() {
            std::error_code ec;
            if (!path.empty()) std::filesystem::remove(path, ec);
        }
    } partial{temp};
    OrvAccess access;
    StreamKeeper keeper(o, access);
    if (const int rc = openKeeping(o, access, keeper)) return rc;
    // The library writes the hidden file; its growth is the progress.
    TransferWatch progress(TransferWatch::Direction::Get, "get " + remote, temp, -1);
    const bool ok = access.getFile(remote, static_cast<e_OrvAccessFileLoc>(location), temp);
    const double seconds = progress.stop();
    std::error_code ec;
    const bool existed = std::filesystem::exists(local, ec);
    if (!ok) {
        const int rc = commandFailed(access, "get " + remote);
        if (existed) std::cerr << "orvctl: " << local << " is left as it was\n";
        return rc;
    }
    if (std::rename(temp.c_str(), local.c_str()) != 0) {
        std::cerr << "orvctl: got " << remote << " but cannot name it " << local << ": " << std::strerror(errno)
                  << "; " << (existed ? local + " is left as it was" : "nothing was written") << "\n";
        return kExitFailed;
    }
    partial.path.clear();
    const auto size = static_cast<double>(std::filesystem::file_size(local, ec));
    std::printf("got %s (location %u) into %s: %.0f bytes in %.2f s, %s\n", remote.c_str(), location, local.c_str(),
                size, seconds, orvprogress::rateText(seconds > 0 ? size / seconds : 0.0).c_str());
    return kExitOk;
}

int runPut(const Options& o, const std::string& local, std::string remote, unsigned int location) {
    if (remote.empty()) remote = std::filesystem::path(local).filename().string();
    std::error_code ec;
    const auto size = std::filesystem::file_size(local, ec);
    if (ec) {
        std::cerr << "orvctl: cannot read " << local << ": " << ec.message() << "\n";
        return kExitUsage;
    }
    OrvAccess access;
    StreamKeeper keeper(o, access);
    if (const int rc = openKeeping(o, access, keeper)) return rc;
    TransferWatch progress(TransferWatch::Direction::Put, "put " + local, local, static_cast<int64_t>(size));
    const bool ok = access.putFile(local, remote, static_cast<e_OrvAccessFileLoc>(location));
    const double seconds = progress.stop();
    if (!ok) return commandFailed(access, "put " + local);
    const auto bytes = static_cast<double>(size);
    std::printf("put %s as %s (location %u): %.0f bytes in %.2f s, %s\n", local.c_str(), remote.c_str(), location,
                bytes, seconds, orvprogress::rateText(seconds > 0 ? bytes / seconds : 0.0).c_str());
    return kExitOk;
}

int runErrors(const Options& o, double listenS) {
    OrvAccess access;
    OpenResult opened;
    StreamKeeper keeper(o, access);
    if (const int rc = openEverything(o, access, opened)) return rc;
    if (opened.channel(Channel::Tcp).state == ChannelState::Open) keeper.arm();
    for (const ChannelResult* c : opened.failures()) std::cerr << "orvctl: warning: " << orvsession::failureText(*c) << "\n";
    std::cerr << "orvctl: receiving for " << listenS << " s\n";

    const uint64_t start = access.getTimeUs();
    const auto endUs = start + static_cast<uint64_t>(listenS * 1e6);
    uint64_t codes = 0;
    bool serviceFailed = false;
    do {
        // Any data getter drains the ports, and asks orvRx to stream.
        bool valid = false;
        s_OrvAccessTrkDataExt pose{};
        if (!access.getTrackingDataLatest(&valid, &pose) && !serviceFailed) {
            serviceFailed = true;
            std::cerr << "orvctl: receiving failed: " << access.getLastError() << "\n";
        }
        s_OrvAccessErrorCode e{};
        while (access.getErrorCode(&e) != 0) {
            ++codes;
            std::printf("%5u 0x%04x value %-10u %s\n", e.code, e.code, e.value,
                        orvnames::errorText(e.code, access.getErrorMessage(e.code)).c_str());
            std::fflush(stdout);
        }
        OrvosiUtil_snoozeMs(2);
    } while (access.getTimeUs() < endUs);
    std::fprintf(stderr, "orvctl: %llu error code%s in %.1f s\n", static_cast<unsigned long long>(codes),
                 codes == 1 ? "" : "s", static_cast<double>(access.getTimeUs() - start) / 1e6);
    // Without the command channel orvRx never streams, so no code of its
    // streams could have come: that is no connection, not a quiet system.
    const ChannelResult& tcp = opened.channel(Channel::Tcp);
    if (tcp.state == ChannelState::Failed) {
        std::cerr << "orvctl: no connection to orvRx at " << tcp.target << " (" << tcp.reason
                  << "), so it never streamed; " << tcp.advice << "\n";
        return kExitNoConnection;
    }
    return codes > 0 ? kExitFailed : kExitOk;
}

}  // namespace orvctl
