#include "diag/OrvUtil.hpp"

#include "os/OrvosiUtil.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

namespace {

// ---- hex dumps ---------------------------------------------------------------

struct DumpTag {
    unsigned int type;
    const char* tag;
};

constexpr const char* kDefaultDumpTag = "ORVADUMP";

// Diagnostic subpackets have no tag of their own and fall through to the
// default.
constexpr DumpTag kDumpTags[] = {
    {ORVACCESS_VERB_DUMP_TCP_OUT, "ORVATCPOUT"},    {ORVACCESS_VERB_DUMP_TCP_IN, "ORVATCPIN"},
    {ORVACCESS_VERB_DUMP_UDP_OUT, "ORVAUDPOUT"},    {ORVACCESS_VERB_DUMP_TARGET, "ORVATGT"},
    {ORVACCESS_VERB_DUMP_IMU_CAM, "ORVAIMUCAM"},    {ORVACCESS_VERB_DUMP_IMU_PLAT, "ORVAIMUPLAT"},
    {ORVACCESS_VERB_DUMP_PLATPOSE, "ORVAPLATPOSE"}, {ORVACCESS_VERB_DUMP_TRACKING, "ORVATRK"},
    {ORVACCESS_VERB_DUMP_META, "ORVAMETA"},         {ORVACCESS_VERB_DUMP_IMAGE, "ORVAIMG"},
    {ORVACCESS_VERB_DUMP_OPTICAL, "ORVATGTRES"},    {ORVACCESS_VERB_DUMP_HUB, "ORVAHUB"},
    {ORVACCESS_VERB_DUMP_NFT, "ORVANFT"},           {ORVACCESS_VERB_DUMP_PRA, "ORVAPRA"},
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

// Everything the logging keeps for the whole process, and the lock that
// guards it. The lock also keeps the library's lines on the standard streams
// whole; it is recursive because a multi-part line (the prediction trace)
// holds it while the log lines inside it take it again.
struct LogState {
    std::recursive_mutex lock;
    std::ofstream trk, meta, pred, harm, sub, hub, pra;
    double lastHarmMs = 0.0;
};

// The framing check's text is per thread: every object checks its datagrams
// on the thread that calls it, and reads the reason back on that thread.
thread_local std::string packetCheckError;

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

// Kept as the log layout has always been: hub data shares the subpacket
// stream, opened as "orvaNFT.log" only if no subpacket came first, and NFT
// data goes to the hub stream, also named "orvaNFT.log".
constexpr Channel kChannels[] = {
    {ORVACCESS_LOG_TRACKING, &LogState::trk, "orvaTrk.log", false},
    {ORVACCESS_LOG_META, &LogState::meta, "orvaMeta.log", false},
    {ORVACCESS_LOG_PRED, &LogState::pred, "orvaPred.log", false},
    {ORVACCESS_LOG_HARM, &LogState::harm, "orvaHarm.log", true},
    {ORVACCESS_LOG_TARGET, &LogState::sub, "orvaSub.log", false},
    {ORVACCESS_LOG_IMU, &LogState::sub, "orvaSub.log", false},
    {ORVACCESS_LOG_SUB_SPARE, &LogState::sub, "orvaSub.log", false},
    {ORVACCESS_LOG_PLATPOSE, &LogState::sub, "orvaSub.log", false},
    {ORVACCESS_LOG_DIAG, &LogState::sub, "orvaSub.log", false},
    {ORVACCESS_LOG_OPTICAL, &LogState::sub, "orvaSub.log", false},
    {ORVACCESS_LOG_HUB, &LogState::sub, "orvaNFT.log", false},
    {ORVACCESS_LOG_NFT, &LogState::hub, "orvaNFT.log", false},
    {ORVACCESS_LOG_PRA, &LogState::pra, "orvaPRA.log", false},
};

// The streams logClose releases, in order; PRA is left out on purpose.
constexpr std::ofstream LogState::*kClosable[] = {
    &LogState::trk, &LogState::meta, &LogState::pred, &LogState::harm, &LogState::sub, &LogState::hub,
};

constexpr double kHarmIntervalMs = 5000.0;

void flushLogsAtExit() {
    LogState& s = state();
    const std::lock_guard<std::recursive_mutex> hold(s.lock);
    for (std::ofstream LogState::*m : kClosable) {
        if ((s.*m).is_open()) (s.*m).flush();
    }
    if (s.pra.is_open()) s.pra.flush();
}

}  // namespace

OrvUtil::OutputGuard::OutputGuard(bool engage) : engaged_(engage) {
    if (engaged_) state().lock.lock();
}

OrvUtil::OutputGuard::~OutputGuard() {
    if (engaged_) state().lock.unlock();
}

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

    const OutputGuard guard;
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
    const std::lock_guard<std::recursive_mutex> hold(s.lock);
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
    const std::lock_guard<std::recursive_mutex> hold(s.lock);
    for (std::ofstream LogState::*m : kClosable) {
        if ((s.*m).is_open()) (s.*m).close();
    }
}

void OrvUtil::resetLogState() {
    LogState& s = state();
    const std::lock_guard<std::recursive_mutex> hold(s.lock);
    logClose();
    if (s.pra.is_open()) s.pra.close();
    s.lastHarmMs = 0.0;
}

void OrvUtil::setLastHarmonisationMs(double ms) {
    LogState& s = state();
    const std::lock_guard<std::recursive_mutex> hold(s.lock);
    s.lastHarmMs = ms;
}

// ---- packet framing check ------------------------------------------------------

bool OrvUtil::udpPktOk(const unsigned char* buf, unsigned long len, unsigned char startByte) {
    return passed(orvwire::framingProblem(buf, len, startByte));
}

bool OrvUtil::udpPktOk(const OrvosiBytes& packet, unsigned long len, unsigned char startByte) {
    return passed(orvwire::framingProblem(packet, len, startByte));
}

// ---- packet-check error text ---------------------------------------------------

std::string OrvUtil::getLastError() { return packetCheckError; }

void OrvUtil::setLastError(const char* text) { packetCheckError = text != nullptr ? text : ""; }
