// OrvUtil: the library's diagnostic output (prefixed text lines, hex dumps,
// binary log files) and the packet framing check. Everything is static. What
// it keeps for the whole process (the log files, the standard streams'
// lines) is guarded; the framing check's error text is kept per thread. The
// float pose helpers and the clock-alignment mean belong to the maths layer
// (OrvFloatPose, OrvClockMean); OrvUtil inherits them, so that
// OrvUtil::predictCbn and its siblings keep their names.
#pragma once

#include <iostream>
#include <string>

#include "math/OrvClockMean.hpp"
#include "math/OrvPose.hpp"
#include "orvaccess/orvwire.h"
#include "wire/Framing.hpp"
#include "wire/OrvosiCursor.hpp"

class OrvUtil : public OrvFloatPose, public OrvClockMean {
public:
    OrvUtil() = delete;

    // Verbosity bits of the three kinds of text line.
    static constexpr unsigned int kVerbLog = ORVACCESS_VERB_LOG;    // "ORVALOG: "  to the log stream
    static constexpr unsigned int kVerbInfo = ORVACCESS_VERB_INFO;  // "ORVAINFO: " to standard output
    static constexpr unsigned int kVerbErr = ORVACCESS_VERB_ERR;    // "ORVAERR: "  to the log stream

    // Holds the library's diagnostic output (text lines, dumps, log files)
    // while it lives, so that access objects on other threads never write
    // inside one another's line or record. Taken only around output that is
    // actually written; the thread holding it may take it again.
    class OutputGuard {
    public:
        explicit OutputGuard(bool engage = true);
        ~OutputGuard();
        OutputGuard(const OutputGuard&) = delete;
        OutputGuard& operator=(const OutputGuard&) = delete;

    private:
        bool engaged_;
    };

    // One text line: prefix, the arguments streamed in order, newline. The
    // callers below test their bit first, so nothing is formatted (and no
    // lock taken) when the line is off.
    template <typename... Args>
    static void textLine(std::ostream& os, const char* prefix, const Args&... args) {
        OutputGuard guard;
        os << prefix;
        (os << ... << args);
        os << '\n';
    }
    template <typename... Args>
    static void logLine(unsigned int verbosity, const Args&... args) {
        if (verbosity & kVerbLog) textLine(std::clog, "ORVALOG: ", args...);
    }
    template <typename... Args>
    static void infoLine(unsigned int verbosity, const Args&... args) {
        if (verbosity & kVerbInfo) textLine(std::cout, "ORVAINFO: ", args...);
    }
    template <typename... Args>
    static void errLine(unsigned int verbosity, const Args&... args) {
        if (verbosity & kVerbErr) textLine(std::clog, "ORVAERR: ", args...);
    }

    // One hex-dump line on standard output: the tag of the verbosity bit
    // `type` ("ORVADUMP" for any other value), ": ", at most kDumpMax bytes
    // as "%02X " groups, "..." when cut, newline; flushed, left in decimal.
    static constexpr unsigned long kDumpMax = 200;
    static void dumpBuf(const unsigned char* buf, unsigned long len, unsigned int type);
    // The tag dumpBuf writes for `type`.
    static const char* dumpTag(unsigned int type);

    // Appends len raw bytes to the file of logging channel `type`, opened on
    // first use as logPath + file name. Channel 8 (harmonisation) writes at
    // most one record per 5000 ms. Unknown channels write nothing; a file
    // that cannot be opened is skipped silently and tried again next time.
    static void logBuf(const unsigned char* buf, unsigned long len, unsigned int type,
                       const std::string& logPath);
    // Closes every log file except the PRA one, which stays open for the
    // life of the process.
    static void logClose();
    // Closes every log file, the PRA one included, and forgets the time of
    // the last harmonisation record. Meant for tests, and for a process that
    // wants to release every file it holds.
    static void resetLogState();
    // Sets the time (OrvosiUtil::getTimeMs) of the last harmonisation record,
    // so that tests can open or shut the 5000 ms gate without waiting.
    static void setLastHarmonisationMs(double ms);

    // The framing check every received datagram passes before its parser
    // (orvwire::framingProblem: "Wrong start byte", "Invalid size", "Invalid
    // checksum"). The first failure sets getLastError() and returns false;
    // success leaves the text alone. Reads nothing beyond len.
    static bool udpPktOk(const unsigned char* buf, unsigned long len, unsigned char startByte);
    // The same check of the first len bytes of a received packet, where those
    // past its real bytes count as zeros.
    static bool udpPktOk(const OrvosiBytes& packet, unsigned long len, unsigned char startByte);
    // The same on a packet's parts, for a packet not in one piece of memory.
    template <typename Sum>
    static bool framingOk(unsigned char first, unsigned long lengthWord, unsigned long len, unsigned char startByte,
                          Sum sum) {
        return passed(orvwire::framingProblem(first, lengthWord, len, startByte, sum));
    }

    // The packet-check error text of the calling thread, set when a framing
    // check on this thread fails: objects on other threads never change it.
    static std::string getLastError();
    static void setLastError(const char* text);

private:
    // True for no problem; else the problem becomes the last error.
    static bool passed(const char* problem) {
        if (problem == nullptr) return true;
        setLastError(problem);
        return false;
    }
};
