#include "util/OrvUtil.hpp"

#include "osi/OrvosiUtil.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

// ---- hex dumps ---------------------------------------------------------------

struct DumpTag {
    unsigned int type;
    const char* tag;
};

constexpr const char* kDefaultDumpTag = "ORVADUMP";

// Diagnostic subpackets (0x10000) have no tag of their own and fall through
// to the default.
constexpr DumpTag kDumpTags[] = {
    {0x10, "ORVATCPOUT"},  {0x20, "ORVATCPIN"},    {0x40, "ORVAUDPOUT"},    {0x100, "ORVATGT"},
    {0x200, "ORVAIMUCAM"}, {0x400, "ORVAIMUPLAT"}, {0x800, "ORVAPLATPOSE"}, {0x1000, "ORVATRK"},
    {0x2000, "ORVAMETA"},  {0x4000, "ORVAIMG"},    {0x8000, "ORVATGTRES"},  {0x20000, "ORVAHUB"},
    {0x40000, "ORVANFT"},  {0x80000, "ORVAPRA"},
};

constexpr std::size_t longestDumpTag() {
    std::size_t n = std::char_traits<char>::length(kDefaultDumpTag);
    for (const DumpTag& t : kDumpTags) {
        const std::size_t len = std::char_traits<char>::length(t.tag);
        if (len > n) n = len;
    }
    return n;
}

// Tag, ": ", the byte groups, "...", newline.
constexpr std::size_t kDumpLineMax = longestDumpTag() + 2 + OrvUtil::kDumpMax * 3 + 3 + 1;

// ---- log files ---------------------------------------------------------------

// Everything the logging keeps for the whole process.
struct LogState {
    std::ofstream trk, meta, pred, harm, sub, hub, pra;
    double lastHarmMs = 0.0;
    std::string lastError;
};

// Flushes what the unflushed log writes left in the buffers; the streams
// themselves are never destroyed (see state()).
void flushLogsAtExit();

// Built on first use and never destroyed: an access object living in a
// static may close the logs from its destructor after this file's statics
// would already be gone.
LogState& state() {
    static LogState& s = []() -> LogState& {
        LogState* p = new LogState();
        std::atexit(flushLogsAtExit);
        return *p;
    }();
    return s;
}

struct Channel {
    unsigned int type;
    std::ofstream LogState::*stream;
    const char* file;
    bool rateLimited;  // at most one record per kHarmIntervalMs
};

// Kept as the log layout has always been: hub data (4096) shares the
// subpacket stream, opened as "orvaNFT.log" only if no subpacket came first,
// and NFT data (8192) goes to the hub stream, also named "orvaNFT.log".
constexpr Channel kChannels[] = {
    {1, &LogState::trk, "orvaTrk.log", false},     {2, &LogState::meta, "orvaMeta.log", false},
    {4, &LogState::pred, "orvaPred.log", false},   {8, &LogState::harm, "orvaHarm.log", true},
    {16, &LogState::sub, "orvaSub.log", false},    {32, &LogState::sub, "orvaSub.log", false},
    {64, &LogState::sub, "orvaSub.log", false},    {128, &LogState::sub, "orvaSub.log", false},
    {256, &LogState::sub, "orvaSub.log", false},   {512, &LogState::sub, "orvaSub.log", false},
    {4096, &LogState::sub, "orvaNFT.log", false},  {8192, &LogState::hub, "orvaNFT.log", false},
    {16384, &LogState::pra, "orvaPRA.log", false},
};

// The streams logClose releases, in order; PRA is left out on purpose.
constexpr std::ofstream LogState::*kClosable[] = {
    &LogState::trk, &LogState::meta, &LogState::pred, &LogState::harm, &LogState::sub, &LogState::hub,
};

constexpr double kHarmIntervalMs = 5000.0;

void flushLogsAtExit() {
    LogState& s = state();
    for (std::ofstream LogState::*m : kClosable) {
        if ((s.*m).is_open()) (s.*m).flush();
    }
    if (s.pra.is_open()) s.pra.flush();
}

}  // namespace

// ---- dumps ---------------------------------------------------------------------

const char* OrvUtil::dumpTag(unsigned int type) {
    for (const DumpTag& t : kDumpTags) {
        if (t.type == type) return t.tag;
    }
    return kDefaultDumpTag;
}

void OrvUtil::dumpBuf(const unsigned char* buf, unsigned long len, unsigned int type) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    if (buf == nullptr) len = 0;

    // Formatted on the stack and written at once: dumps sit on the receive
    // path, so no allocation and one call into the stream.
    char line[kDumpLineMax];
    std::size_t n = 0;
    for (const char* t = dumpTag(type); *t != '\0'; ++t) line[n++] = *t;
    line[n++] = ':';
    line[n++] = ' ';
    const bool cut = len > kDumpMax;
    const unsigned long shown = cut ? kDumpMax : len;
    for (unsigned long i = 0; i < shown; ++i) {
        line[n++] = kHex[buf[i] >> 4];
        line[n++] = kHex[buf[i] & 0x0F];
        line[n++] = ' ';
    }
    if (cut) {
        line[n++] = '.';
        line[n++] = '.';
        line[n++] = '.';
    }
    line[n++] = '\n';

    std::cout.write(line, static_cast<std::streamsize>(n));
    std::cout.flush();
    std::cout.setf(std::ios::dec, std::ios::basefield);
}

// ---- log files -----------------------------------------------------------------

void OrvUtil::logBuf(const unsigned char* buf, unsigned long len, unsigned int type,
                     const std::string& logPath) {
    const Channel* ch = nullptr;
    for (const Channel& c : kChannels) {
        if (c.type == type) {
            ch = &c;
            break;
        }
    }
    if (ch == nullptr) return;

    LogState& s = state();
    if (ch->rateLimited) {
        const double now = OrvosiUtil::getTimeMs();
        if (now - s.lastHarmMs <= kHarmIntervalMs) return;
        s.lastHarmMs = now;
    }

    std::ofstream& os = s.*(ch->stream);
    if (!os.is_open()) {
        // The path is glued on as given: "/tmp" yields "/tmporvaTrk.log".
        const std::string path = logPath + ch->file;
        os.open(path, std::ios::binary | std::ios::app);
        if (!os.is_open()) return;  // tried again on the next record
        std::cout << "ORVAMSG: Opened " << path << '\n';
    }

    // The count is taken as a signed 32-bit value; records are packets,
    // far below 2 GiB.
    const auto count = static_cast<std::int32_t>(len);
    if (buf != nullptr && count > 0) {
        os.write(reinterpret_cast<const char*>(buf), count);
    }
}

void OrvUtil::logClose() {
    LogState& s = state();
    for (std::ofstream LogState::*m : kClosable) {
        if ((s.*m).is_open()) (s.*m).close();
    }
}

void OrvUtil::resetLogState() {
    logClose();
    LogState& s = state();
    if (s.pra.is_open()) s.pra.close();
    s.lastHarmMs = 0.0;
}

void OrvUtil::setLastHarmonisationMs(double ms) { state().lastHarmMs = ms; }

// ---- packet framing check ------------------------------------------------------

bool OrvUtil::udpPktOk(const unsigned char* buf, unsigned long len, unsigned char startByte) {
    if (len >= 1 && buf[0] != startByte) {
        setLastError("Wrong start byte");
        return false;
    }
    // Fewer than three bytes cannot hold the length word, let alone a body.
    if (len < 3 || OrvosiUtil::word16(buf + 1) != len) {
        setLastError("Invalid size");
        return false;
    }
    if (OrvosiUtil::checksum(buf, len) != 0) {
        setLastError("Invalid checksum");
        return false;
    }
    return true;
}

// ---- packet-check error text ---------------------------------------------------

std::string OrvUtil::getLastError() { return state().lastError; }

void OrvUtil::setLastError(const char* text) { state().lastError = text != nullptr ? text : ""; }
