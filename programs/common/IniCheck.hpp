// Reads the library's configuration file the way the library reads it and
// says where that differs from what the writer probably meant: unknown
// sections and keys, values that silently turn into the default, numbers
// out of range, ports the library cannot open. Also the value of every key
// as the library will use it.
#pragma once

#include <string>
#include <vector>

namespace orvcheck {

enum class Severity { Note, Warning, Error };
const char* severityName(Severity s);  // "note", "warning", "error"

// One thing worth telling: its cause and what to do, in one message.
struct Finding {
    Severity severity = Severity::Note;
    std::string kind;  // short identifier, e.g. "unknown-key", "port-held"
    int line = 0;      // line of the configuration file; 0 when none
    std::string message;
};

enum class KeyKind {
    Mask,     // unsigned 32-bit bit mask
    Int32,    // signed 32-bit (receive buffer sizes, bytes)
    Size,     // unsigned 32-bit (queue bounds, buffer sizes)
    Int64,    // 64-bit
    Real,     // double
    Bool,     // on/off
    Text,     // taken as written
    Host,     // tcpOrvRxAddr
    UdpPort,  // decimal text; the text 0 switches the channel off
    TcpPort,  // decimal text read as a number
    Senders,  // udpAllowedSenders: IPv4 addresses or networks; empty takes every sender
    Mode,     // sMemImgMode: octal permission bits
};

struct KnownKey {
    const char* section;
    const char* key;
    KeyKind kind;
    const char* defaultText;
};
// Every key the library reads, in its reading order.
extern const KnownKey kKeys[];
extern const size_t kKeyCount;

struct KeyValue {
    const KnownKey* known = nullptr;
    bool present = false;   // the file sets it
    bool fellBack = false;  // set, but the library uses the default instead
    int line = 0;           // where it is set
    std::string raw;        // the value as the reader sees it
    // What the library uses: numbers narrowed as the library stores them.
    long long integer = 0;
    double real = 0.0;
    bool flag = false;
    std::string text;  // all kinds: the value as the library would echo it
};

struct IniReport {
    std::string path;
    bool readable = false;  // the file opened and loaded
    std::string readError;  // why not, when not
    std::vector<KeyValue> values;  // one per key, in kKeys order
    std::vector<Finding> findings;

    const KeyValue& value(const char* key) const;  // a key of kKeys
};

// Never fails: an unreadable file is reported in the result (every key then
// takes its default, as in the library).
IniReport checkIni(const std::string& path);

// Edit distance between two names, letter case ignored.
size_t nameDistance(const std::string& a, const std::string& b);

}  // namespace orvcheck
