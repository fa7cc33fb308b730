#include "IniCheck.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cstdio>
#include <map>
#include <sstream>
#include <utility>

#include "access/Config.hpp"
#include "access/receive/SenderFilter.hpp"

namespace orvcheck {

namespace {

using orvini::Key;
using orvini::kSections;
// The reader copies a number into 64 bytes with its terminating zero.
constexpr size_t kMaxNumberLength = 63;
// Both UDP endpoint kinds refuse ports above this.
constexpr long kMaxUdpPort = 32767;
constexpr size_t kMaxSuggestDistance = 3;

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && isBlank(s[b])) ++b;
    while (e > b && isBlank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

bool allDigits(const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

// One "key = value" line as the reader takes it.
struct Entry {
    int line = 0;
    std::string section;  // as written
    std::string key;      // as written
    std::string value;    // trimmed
};

// Walks the text line by line with the reader's rules (comment lines start
// with ; or #, a section needs its closing bracket on the same line, a line
// without '=' is skipped), keeping line numbers for the messages.
class Scanner {
public:
    Scanner(const std::string& text, std::vector<Finding>& findings) : findings_(findings) {
        size_t start = 0;
        // The reader skips a UTF-8 byte-order mark.
        if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) start = 3;
        int line = 0;
        while (start <= text.size()) {
            const size_t end = std::min(text.find('\n', start), text.size());
            scanLine(++line, trim(text.substr(start, end - start)));
            start = end + 1;
        }
    }

    std::vector<Entry> entries;
    std::vector<std::pair<int, std::string>> sections;  // line and name

private:
    void scanLine(int line, const std::string& s) {
        if (s.empty() || s[0] == ';' || s[0] == '#') return;
        if (s[0] == '[') {
            const size_t close = s.find(']');
            if (close == std::string::npos) {
                add(Severity::Warning, "bad-section", line,
                    quoted(s) + " has no closing ']': the reader skips the line, and the keys below stay in [" +
                        section_ + "]; close the bracket");
                return;
            }
            section_ = trim(s.substr(1, close - 1));
            sections.emplace_back(line, section_);
            return;
        }
        const size_t eq = s.find('=');
        if (eq == std::string::npos) {
            add(Severity::Warning, "no-value", line,
                quoted(s) + " has no '=': the reader skips the line; write key = value");
            return;
        }
        if (eq == 0) {
            add(Severity::Warning, "no-key", line, quoted(s) + " has no key before '=': the reader skips the line");
            return;
        }
        entries.push_back({line, section_, trim(s.substr(0, eq)), trim(s.substr(eq + 1))});
    }

    void add(Severity sev, const char* kind, int line, std::string message) {
        findings_.push_back({sev, kind, line, std::move(message)});
    }

    std::vector<Finding>& findings_;
    std::string section_;  // keys before any section land in "", which nobody reads
};

// Where an inline comment would start: ';' or '#' at the start or after a
// blank. The reader has no inline comments; this only explains a failure.
size_t commentStart(const std::string& v) {
    for (size_t i = 0; i < v.size(); ++i)
        if ((v[i] == ';' || v[i] == '#') && (i == 0 || isBlank(v[i - 1]))) return i;
    return std::string::npos;
}

enum class Fault { None, Empty, TooLong, NotNumber, Trailing };

struct Number {
    Fault fault = Fault::None;
    long integer = 0;
    double real = 0.0;
    bool saturated = false;  // beyond what the reader's conversion holds
    std::string rest;        // text after the number
};

// The whole value as an integer: base 16 after 0x or 0X, base 10 otherwise.
Number readInteger(const std::string& v) {
    Number n;
    if (v.empty()) return n.fault = Fault::Empty, n;
    if (v.size() > kMaxNumberLength) return n.fault = Fault::TooLong, n;
    const bool hex = v.size() >= 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X');
    const char* digits = v.c_str() + (hex ? 2 : 0);
    char* end = nullptr;
    errno = 0;
    n.integer = std::strtol(digits, &end, hex ? 16 : 10);
    n.saturated = errno == ERANGE;
    if (end == digits) return n.fault = Fault::NotNumber, n;
    if (*end != '\0') {
        n.fault = Fault::Trailing;
        n.rest = end;
    }
    return n;
}

Number readReal(const std::string& v) {
    Number n;
    if (v.empty()) return n.fault = Fault::Empty, n;
    if (v.size() > kMaxNumberLength) return n.fault = Fault::TooLong, n;
    char* end = nullptr;
    n.real = std::strtod(v.c_str(), &end);
    if (end == v.c_str()) return n.fault = Fault::NotNumber, n;
    if (*end != '\0') {
        n.fault = Fault::Trailing;
        n.rest = end;
    }
    return n;
}

// 0 or 1 when the reader recognises the value by its first letters, -1 not.
int readBool(const std::string& v) {
    if (v.empty()) return -1;
    switch (v[0]) {
        case 't': case 'T': case 'y': case 'Y': case '1':
            return 1;
        case 'f': case 'F': case 'n': case 'N': case '0':
            return 0;
        case 'o': case 'O':
            if (v.size() > 1 && (v[1] == 'n' || v[1] == 'N')) return 1;
            if (v.size() > 1 && (v[1] == 'f' || v[1] == 'F')) return 0;
            return -1;
        default:
            return -1;
    }
}

std::string formatReal(double d) {
    std::ostringstream s;
    s << d;  // as the library's echo writes it
    return s.str();
}

// What the library stores from the reader's long, by the kind of the key.
long long narrow(KeyKind kind, long v) {
    switch (kind) {
        case KeyKind::Mask:
        case KeyKind::Size:
            return static_cast<uint32_t>(v);
        case KeyKind::Int32:
            return static_cast<int32_t>(v);
        default:
            return v;
    }
}

class Checker {
public:
    explicit Checker(IniReport& r) : r_(r) {}

    void run(const std::string& text) {
        Scanner scan(text, r_.findings);
        checkSections(scan);
        // The last entry of a key wins, as in the reader.
        std::map<std::pair<std::string, std::string>, const Entry*> last;
        for (const Entry& e : scan.entries) {
            auto& slot = last[{lower(e.section), lower(e.key)}];
            if (slot != nullptr && isKnown(e.section, e.key))
                add(Severity::Warning, "duplicate-key", e.line,
                    "[" + e.section + "] " + e.key + " is set again (first on line " +
                        std::to_string(slot->line) + "): the reader takes this line; keep one");
            slot = &e;
            checkKnown(e);
        }
        for (size_t i = 0; i < kKeyCount; ++i) {
            KeyValue& v = r_.values[i];
            const auto it = last.find({lower(kKeys[i].section), lower(kKeys[i].key)});
            if (it != last.end()) read(v, *it->second);
        }
        crossChecks();
    }

    void setDefaults() {
        r_.values.clear();
        for (size_t i = 0; i < kKeyCount; ++i) {
            KeyValue v;
            v.known = &kKeys[i];
            takeDefault(v);
            r_.values.push_back(v);
        }
    }

private:
    static bool isKnownSection(const std::string& s) {
        for (const char* k : kSections)
            if (lower(s) == lower(k)) return true;
        return false;
    }
    static const KnownKey* knownKey(const std::string& key) {
        for (size_t i = 0; i < kKeyCount; ++i)
            if (lower(key) == lower(kKeys[i].key)) return &kKeys[i];
        return nullptr;
    }
    static bool isKnown(const std::string& section, const std::string& key) {
        const KnownKey* k = knownKey(key);
        return k != nullptr && lower(section) == lower(k->section);
    }

    void checkSections(const Scanner& scan) {
        for (const auto& [line, name] : scan.sections) {
            if (isKnownSection(name)) continue;
            std::string msg = "[" + name + "] is not a section the library reads: its keys are ignored";
            const char* best = nullptr;
            size_t bestDistance = kMaxSuggestDistance + 1;
            for (const char* s : kSections) {
                const size_t d = nameDistance(name, s);
                if (d < bestDistance) best = s, bestDistance = d;
            }
            if (best != nullptr) msg += "; did you mean [" + std::string(best) + "]?";
            add(Severity::Warning, "unknown-section", line, msg);
        }
        for (const Entry& e : scan.entries)
            if (e.section.empty())
                add(Severity::Warning, "no-section", e.line,
                    e.key + " stands before any [section]: the library ignores it; move it into its section");
    }

    // Unknown keys, and known keys in the wrong section.
    void checkKnown(const Entry& e) {
        if (e.section.empty() || !isKnownSection(e.section)) return;
        if (isKnown(e.section, e.key)) return;
        if (const KnownKey* k = knownKey(e.key)) {
            add(Severity::Warning, "wrong-section", e.line,
                e.key + " belongs in [" + k->section + "], not [" + e.section + "]: here the library ignores it");
            return;
        }
        std::string msg = "[" + e.section + "] " + e.key + " is not a key the library reads: it is ignored";
        const KnownKey* best = nullptr;
        size_t bestDistance = kMaxSuggestDistance + 1;
        for (size_t i = 0; i < kKeyCount; ++i) {
            const size_t d = nameDistance(e.key, kKeys[i].key);
            // Within reach, and never more than a third of the name changed.
            if (d < bestDistance && d * 3 <= std::strlen(kKeys[i].key)) best = &kKeys[i], bestDistance = d;
        }
        if (best != nullptr) {
            msg += "; did you mean ";
            if (lower(best->section) != lower(e.section)) msg += "[" + std::string(best->section) + "] ";
            msg += std::string(best->key) + "?";
        }
        add(Severity::Warning, "unknown-key", e.line, msg);
    }

    void takeDefault(KeyValue& v) {
        const KnownKey& k = *v.known;
        v.raw.clear();
        v.text = k.defaultText;
        switch (k.kind) {
            case KeyKind::Mask:
            case KeyKind::Int32:
            case KeyKind::Size:
            case KeyKind::Int64:
                v.integer = orvini::defaultInteger(k.id);
                v.text = std::to_string(v.integer);
                break;
            case KeyKind::Real:
                v.real = orvini::defaultReal(k.id);
                v.text = formatReal(v.real);
                break;
            case KeyKind::Bool:
                v.flag = orvini::defaultBool(k.id);
                v.text = v.flag ? "on" : "off";
                break;
            case KeyKind::UdpPort:
            case KeyKind::TcpPort:
                v.integer = orvini::defaultPort(k.id);
                break;
            case KeyKind::Mode:
                v.integer = orvini::defaultMode(k.id);
                break;
            case KeyKind::Text:
            case KeyKind::Host:
            case KeyKind::Senders:
                break;
        }
    }

    std::string where(const KeyValue& v) const {
        return "[" + std::string(v.known->section) + "] " + v.known->key + " = " + quoted(v.raw) + ": ";
    }

    void fallBack(KeyValue& v, const std::string& why, const char* kind = "value-not-read",
                  const std::string& advice = "") {
        v.fellBack = true;
        add(Severity::Warning, kind, v.line,
            where(v) + why + ", so the library uses the default " + v.text + (advice.empty() ? "" : "; " + advice));
    }

    // Why a number was not read, and what to write instead.
    void numberFault(KeyValue& v, const Number& n, const char* what) {
        const size_t comment = commentStart(v.raw);
        switch (n.fault) {
            case Fault::Empty:
                fallBack(v, "the value is empty");
                break;
            case Fault::TooLong:
                fallBack(v, "the value is longer than 63 characters");
                break;
            case Fault::NotNumber:
            case Fault::Trailing:
                if (comment != std::string::npos)
                    fallBack(v,
                             "the reader has no inline comments, " + quoted(v.raw.substr(comment)) +
                                 " is part of the value and the number is not read",
                             "inline-comment", "put the comment on a line of its own");
                else if (n.fault == Fault::NotNumber)
                    fallBack(v, std::string("that is not ") + what);
                else
                    fallBack(v, "text follows the number (" + quoted(n.rest) + ")", "value-not-read",
                             "write the number alone");
                break;
            case Fault::None:
                break;
        }
    }

    void read(KeyValue& v, const Entry& e) {
        v.present = true;
        v.line = e.line;
        v.raw = e.value;
        const KnownKey& k = *v.known;
        switch (k.kind) {
            case KeyKind::Mask:
            case KeyKind::Int32:
            case KeyKind::Size:
            case KeyKind::Int64: {
                const Number n = readInteger(v.raw);
                if (n.fault != Fault::None) return numberFault(v, n, "a number (decimal, or hexadecimal after 0x)");
                v.integer = narrow(k.kind, n.integer);
                v.text = std::to_string(v.integer);
                if (n.saturated)
                    add(Severity::Warning, "out-of-range", v.line,
                        where(v) + "too large for the reader, which takes " + std::to_string(n.integer));
                else if (v.integer != n.integer)
                    add(Severity::Warning, "out-of-range", v.line,
                        where(v) + "out of range for a 32-bit " +
                            (k.kind == KeyKind::Int32 ? "signed" : "unsigned") + " number: the library keeps " +
                            v.text);
                return rangeNotes(v);
            }
            case KeyKind::Real: {
                const Number n = readReal(v.raw);
                if (n.fault != Fault::None) return numberFault(v, n, "a decimal number");
                v.real = n.real;
                v.text = formatReal(v.real);
                if (!std::isfinite(v.real))
                    add(Severity::Warning, "out-of-range", v.line, where(v) + "not a finite number");
                return;
            }
            case KeyKind::Bool: {
                const int b = readBool(v.raw);
                if (b < 0) {
                    if (v.raw.empty()) return fallBack(v, "the value is empty");
                    fallBack(v, "that is neither on nor off (the reader knows 1, true, yes, on and 0, false, no, "
                                "off by their first letters)");
                    return;
                }
                v.flag = b == 1;
                v.text = v.flag ? "on" : "off";
                return;
            }
            case KeyKind::Text:
            case KeyKind::Host:
                return readText(v);
            case KeyKind::UdpPort:
                return readUdpPort(v);
            case KeyKind::TcpPort:
                return readTcpPort(v);
            case KeyKind::Senders:
                return readSenders(v);
            case KeyKind::Mode:
                return readMode(v);
        }
    }

    // The list as the library reads it at open: a bad entry opens nothing.
    void readSenders(KeyValue& v) {
        v.text = v.raw;
        SenderFilter filter;
        std::string why;
        const size_t comment = commentStart(v.raw);
        if (!filter.parse(v.raw, why)) {
            add(Severity::Warning, comment != std::string::npos ? "inline-comment" : "bad-senders", v.line,
                where(v) + why + (comment != std::string::npos ? " (the reader has no inline comments)" : "") +
                    ": open() fails and nothing is received; write addresses such as 10.0.0.5, 10.0.1.0/24");
            return;
        }
        v.integer = static_cast<long long>(filter.size());
        if (filter.active())
            add(Severity::Note, "senders", v.line,
                where(v) + "datagrams from any other sender are dropped unread and counted (orvctl status)");
    }

    void readMode(KeyValue& v) {
        v.text = v.raw;
        unsigned int mode = 0;
        if (!parseFileMode(v.raw, mode)) {
            add(Severity::Warning, "bad-mode", v.line,
                where(v) + "not a mode: a producer (orvsim) refuses to create the image with it; write octal "
                           "permission bits such as 0600");
            return;
        }
        v.integer = mode;
        if (mode & 0002)
            add(Severity::Note, "world-writable", v.line,
                where(v) + "every user of the host may write the image a renderer shows; 0660 or 0600 keeps "
                           "them out");
    }

    void rangeNotes(const KeyValue& v) {
        if (v.known->kind == KeyKind::Int32 && v.integer < 1)
            add(Severity::Warning, "out-of-range", v.line,
                where(v) + "a receive buffer needs a positive size in bytes; the kernel's smallest buffer "
                           "loses datagrams");
        if (v.known->kind == KeyKind::Size && v.known->id != Key::imgBufSize && v.integer == 0)
            add(Severity::Note, "queue-bound", v.line, where(v) + "a queue bound of 0 is taken as 1");
        if (v.known->id == Key::virtualSyncCtrl && (v.integer & ~0x7LL) != 0)
            add(Severity::Note, "unknown-bits", v.line,
                where(v) + "only the bits 0x1, 0x2 and 0x4 mean anything; the others are ignored");
    }

    void readText(KeyValue& v) {
        v.text = v.raw;  // text keys take an empty value as it stands
        const size_t comment = commentStart(v.raw);
        if (comment != std::string::npos) {
            add(Severity::Warning, "inline-comment", v.line,
                where(v) + "the reader has no inline comments, so the value includes " +
                    quoted(v.raw.substr(comment)) + "; put the comment on a line of its own");
            return;
        }
        if (v.known->kind == KeyKind::Host) {
            if (v.raw.empty())
                add(Severity::Warning, "bad-host", v.line, where(v) + "empty: there is no orvRx host to talk to");
            else if (v.raw.find_first_of(" \t") != std::string::npos)
                add(Severity::Warning, "bad-host", v.line, where(v) + "a host name or address has no blanks");
        }
        if (v.known->id == Key::sMemImgName && v.raw.empty())
            add(Severity::Note, "disabled", v.line, where(v) + "empty: the shared-memory image is off");
    }

    void readUdpPort(KeyValue& v) {
        v.text = v.raw;
        if (v.raw == "0") return;
        const bool uplink = v.known->id == Key::udpOrvRxInputPort;
        const std::string refusal = uplink ? "\"Error forming UDP server write address\""
                                           : "\"Failed to form broadcast address\"";
        const size_t comment = commentStart(v.raw);
        if (v.raw.empty() || v.raw == "*") {
            add(Severity::Warning, "bad-port", v.line,
                where(v) +
                    (uplink ? "no port: the uplink has nowhere to go"
                            : "no port: the library opens a random port that no sender knows") +
                    "; write a port, or 0 to switch the channel off");
        } else if (!allDigits(v.raw)) {
            add(Severity::Warning, comment != std::string::npos ? "inline-comment" : "bad-port", v.line,
                where(v) + "not a decimal port" +
                    (comment != std::string::npos ? " (the reader has no inline comments)" : std::string()) +
                    ": the library cannot open the channel (" + refusal + "); write the port alone");
        } else if (std::strtol(v.raw.c_str(), nullptr, 10) > kMaxUdpPort) {
            add(Severity::Warning, "bad-port", v.line,
                where(v) + "the library refuses ports above 32767 (" + refusal + "); choose a lower port");
        } else if (std::strtol(v.raw.c_str(), nullptr, 10) == 0) {
            add(Severity::Warning, "bad-port", v.line,
                where(v) + "only the text 0 switches a channel off; this opens a random port");
        }
        v.integer = allDigits(v.raw) ? std::strtol(v.raw.c_str(), nullptr, 10) : 0;
    }

    void readTcpPort(KeyValue& v) {
        v.text = v.raw;
        // The library takes the leading number and ignores the rest.
        v.integer = std::strtol(v.raw.c_str(), nullptr, 10);
        if (allDigits(v.raw) && v.integer >= 1 && v.integer <= 65535) return;
        const bool usable = v.integer >= 1 && v.integer <= 65535;
        // Say what the library will really do with it.
        const int port = connectedTcpPort(v.integer);
        const std::string does =
            usable      ? "the library reads it as port " + std::to_string(v.integer) + " and ignores the rest"
            : port == 0 ? "the library reads it as " + std::to_string(v.integer) +
                              (v.integer != 0 ? ", port 0 when cut to 16 bits," : "") + " which cannot be connected to"
                        : "the library reads it as " + std::to_string(v.integer) + " and connects to port " +
                              std::to_string(port) + " (the number cut to 16 bits)";
        add(usable ? Severity::Note : Severity::Warning, "bad-port", v.line,
            where(v) + does + "; write a port from 1 to 65535 alone");
    }

    // Rules that involve more than one key.
    void crossChecks() {
        const KeyValue& core = r_.value(Key::udpOrvCorePort);
        const KeyValue& hub = r_.value(Key::udpOrvHubPort);
        if (core.text == "0" && hub.present && hub.text != "0")
            add(Severity::Note, "unused", hub.line,
                "[Communication] udpOrvHubPort is unused: the hub channel follows udpOrvCorePort, which is 0");
        if (core.text != "0" && hub.text == "0")
            add(Severity::Warning, "bad-port", hub.line,
                "[Communication] udpOrvHubPort = \"0\": the hub channel follows udpOrvCorePort and cannot be "
                "switched off on its own; the library opens a random port for it. Set udpOrvCorePort = 0 to "
                "switch both off, or give the hub its port");

        // Two endpoints on one port split its datagrams between them.
        std::vector<const KeyValue*> receivers;
        for (const Key key : {Key::udpOrvRxPort, Key::udpOrvRxImgPort, Key::udpOrvCorePort, Key::udpOrvHubPort,
                              Key::udpNftPort}) {
            const KeyValue& p = r_.value(key);
            if (key == Key::udpOrvHubPort && core.text == "0") continue;
            if (p.integer > 0 && p.integer <= kMaxUdpPort) receivers.push_back(&p);
        }
        for (size_t i = 0; i < receivers.size(); ++i)
            for (size_t j = i + 1; j < receivers.size(); ++j)
                if (receivers[i]->integer == receivers[j]->integer)
                    add(Severity::Warning, "shared-port", receivers[j]->line,
                        std::string(receivers[i]->known->key) + " and " + receivers[j]->known->key + " are both " +
                            receivers[i]->text +
                            ": the two channels share the port and each datagram reaches only one of them; "
                            "give each channel its own port");

        const KeyValue& logging = r_.value(Key::logging);
        const KeyValue& logPath = r_.value(Key::logPath);
        if (logging.integer != 0 && !logPath.text.empty() && logPath.text.back() != '/')
            add(Severity::Note, "log-path", logPath.line,
                "[General] logPath = " + quoted(logPath.text) + ": it is a prefix, not a folder; the log files "
                "are named like " + logPath.text + "orvaTrk.log (end it with / for a folder)");
    }

    void add(Severity sev, const char* kind, int line, std::string message) {
        r_.findings.push_back({sev, kind, line, std::move(message)});
    }

    IniReport& r_;
};

// The reader opens the file as the library does; a folder opens but does
// not read.
bool readWhole(const std::string& path, std::string& text, std::string& error) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        error = std::strerror(errno);
        return false;
    }
    char buf[4096];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    const int err = errno;
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) error = std::strerror(err);
    return !failed;
}

}  // namespace

const char* severityName(Severity s) {
    switch (s) {
        case Severity::Note:
            return "note";
        case Severity::Warning:
            return "warning";
        case Severity::Error:
            return "error";
    }
    return "note";
}

const KeyValue& IniReport::value(const char* key) const {
    for (const KeyValue& v : values)
        if (lower(v.known->key) == lower(key)) return v;
    // Callers name keys of the table; anything else is a programming error.
    std::abort();
}

size_t nameDistance(const std::string& a, const std::string& b) {
    const std::string x = lower(a), y = lower(b);
    std::vector<size_t> row(y.size() + 1);
    for (size_t j = 0; j <= y.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= x.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= y.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (x[i - 1] == y[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[y.size()];
}

IniReport checkIni(const std::string& path) {
    IniReport r;
    r.path = path;
    Checker checker(r);
    checker.setDefaults();

    std::string text;
    if (!readWhole(path, text, r.readError)) {
        r.findings.push_back({Severity::Error, "no-file", 0,
                              "cannot read " + path + ": " + r.readError +
                                  "; the library would quietly use its defaults. Name the file with --ini "
                                  "(examples/orvaccess.ini is a start)"});
        return r;
    }
    r.readable = true;
    checker.run(text);
    std::stable_sort(r.findings.begin(), r.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return r;
}

}  // namespace orvcheck
