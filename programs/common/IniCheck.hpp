// Reads the library's configuration file the way the library reads it and
// says where that differs from what the writer probably meant: unknown
// sections and keys, values that silently turn into the default, numbers
// out of range, ports the library cannot open. Also the value of every key
// as the library will use it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "IniKeys.hpp"

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

// The keys come from the library's own table, so that the check knows
// exactly the keys, kinds and defaults the library reads.
using KeyKind = orvini::Kind;
using KnownKey = orvini::KeyRow;
// Every key the library reads, in its reading order.
inline constexpr const KnownKey* kKeys = orvini::kKeys;
inline constexpr size_t kKeyCount = orvini::kKeyCount;

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
    const KeyValue& value(orvini::Key key) const { return values[static_cast<size_t>(key)]; }
};

// The TCP port the library connects to for a configured tcpOrvRxPort: it
// narrows the number to an int and then to 16 bits, so 92717 reaches 27181.
inline int connectedTcpPort(long long configured) {
    return static_cast<uint16_t>(static_cast<int>(configured));
}

// Never fails: an unreadable file is reported in the result (every key then
// takes its default, as in the library).
IniReport checkIni(const std::string& path);

// Edit distance between two names, letter case ignored.
size_t nameDistance(const std::string& a, const std::string& b);

}  // namespace orvcheck
