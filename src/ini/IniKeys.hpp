// The configuration file's keys: section, name, kind and default of each, in
// the order the library reads them. The library's reader, the programs'
// configuration check, the simulator and the tests take every key and every
// default from this one table.
//
// It has a folder and a header-only target (orvaccess_ini) of its own so that
// the programs reach this table, and nothing else of the library's
// internals, through their public headers. Include it as "IniKeys.hpp".
#pragma once

#include <cstddef>

namespace orvini {

// How the library reads a key and what it keeps.
enum class Kind {
    Mask,     // unsigned 32-bit bit mask
    Int32,    // signed 32-bit (receive buffer sizes, bytes)
    Size,     // unsigned 32-bit (queue bounds, buffer sizes)
    Int64,    // 64-bit
    Real,     // double
    Bool,     // on/off
    Text,     // taken as written
    Host,     // a host name or dotted address
    UdpPort,  // decimal text; the text 0 switches the channel off
    TcpPort,  // decimal text read as a number
    Senders,  // IPv4 addresses or networks; empty takes every sender
    Mode,     // octal permission bits
};

// One name per key, in the table's order, so that code names a key without
// spelling its text.
enum class Key {
    verbosity,
    logging,
    logPath,
    tcpOrvRxEnabled,
    tcpOrvRxAddr,
    tcpOrvRxPort,
    udpOrvRxPort,
    udpOrvRxImgPort,
    udpOrvRxInputPort,
    udpOrvCorePort,
    udpOrvHubPort,
    udpNftPort,
    sMemImgName,
    udpOrvRxRcvBufSize,
    udpOrvRxImgRcvBufSize,
    udpOrvCoreRcvBufSize,
    udpOrvHubRcvBufSize,
    udpNftRcvBufSize,
    predictionS,
    virtualSyncCtrl,
    imgBufSize,
    imuQueueSize,
    targetQueueSize,
    trackingQueueSize,
    gpsQueueSize,
    errorCodeQueueSize,
    BoresightRefRollRad,
    BoresightRefPitchRad,
    BoresightRefYawRad,
    TipOffsetXM,
    TipOffsetYM,
    TipOffsetZM,
    udpAllowedSenders,
    sMemImgMode,
    Count
};

struct KeyRow {
    Key id;
    const char* section;
    const char* key;
    Kind kind;
    const char* defaultText;  // as a user would write it in the file
    // Read after all the others and echoed only when the file sets it, so
    // that a file without it reads and prints as it always did.
    bool extension;
    const char* meaning;  // what the value sets, with its unit
};

inline constexpr const char* kSections[] = {"General", "Communication", "Processing", "Memory"};

inline constexpr KeyRow kKeys[] = {
    {Key::verbosity, "General", "verbosity", Kind::Mask, "0", false, "diagnostic lines to print (bits)"},
    {Key::logging, "General", "logging", Kind::Mask, "0", false, "binary log channels to write (bits)"},
    {Key::logPath, "General", "logPath", Kind::Text, "./", false, "prefix of every log file's name"},
    {Key::tcpOrvRxEnabled, "Communication", "tcpOrvRxEnabled", Kind::Bool, "true", false,
     "whether open connects the command channel"},
    {Key::tcpOrvRxAddr, "Communication", "tcpOrvRxAddr", Kind::Host, "localhost", false,
     "host of orvRx: commands and uplink"},
    {Key::tcpOrvRxPort, "Communication", "tcpOrvRxPort", Kind::TcpPort, "51717", false, "TCP command port of orvRx"},
    {Key::udpOrvRxPort, "Communication", "udpOrvRxPort", Kind::UdpPort, "5001", false, "meta packets from orvRx"},
    {Key::udpOrvRxImgPort, "Communication", "udpOrvRxImgPort", Kind::UdpPort, "5003", false,
     "image packets from orvRx"},
    {Key::udpOrvRxInputPort, "Communication", "udpOrvRxInputPort", Kind::UdpPort, "5004", false,
     "uplink packets to orvRx"},
    {Key::udpOrvCorePort, "Communication", "udpOrvCorePort", Kind::UdpPort, "5002", false,
     "tracking and pose-recovery packets from orvCore (0 also switches the hub off)"},
    {Key::udpOrvHubPort, "Communication", "udpOrvHubPort", Kind::UdpPort, "5006", false, "packets from orvHub"},
    {Key::udpNftPort, "Communication", "udpNftPort", Kind::UdpPort, "5007", false, "NFT packets"},
    {Key::sMemImgName, "Communication", "sMemImgName", Kind::Text, "orvHubImage", false,
     "shared-memory image; empty switches it off"},
    {Key::udpOrvRxRcvBufSize, "Communication", "udpOrvRxRcvBufSize", Kind::Int32, "65536", false,
     "receive buffer of the meta port, bytes"},
    {Key::udpOrvRxImgRcvBufSize, "Communication", "udpOrvRxImgRcvBufSize", Kind::Int32, "524288", false,
     "receive buffer of the image port, bytes"},
    {Key::udpOrvCoreRcvBufSize, "Communication", "udpOrvCoreRcvBufSize", Kind::Int32, "65536", false,
     "receive buffer of the orvCore port, bytes"},
    {Key::udpOrvHubRcvBufSize, "Communication", "udpOrvHubRcvBufSize", Kind::Int32, "65536", false,
     "receive buffer of the orvHub port, bytes"},
    {Key::udpNftRcvBufSize, "Communication", "udpNftRcvBufSize", Kind::Int32, "65536", false,
     "receive buffer of the NFT port, bytes"},
    {Key::predictionS, "Processing", "predictionS", Kind::Real, "0.0", false, "prediction interval, seconds"},
    {Key::virtualSyncCtrl, "Processing", "virtualSyncCtrl", Kind::Int64, "0", false,
     "virtual-sync control (bits 0x1, 0x2, 0x4)"},
    {Key::imgBufSize, "Memory", "imgBufSize", Kind::Size, "4194304", false,
     "each of the two image buffers, bytes"},
    {Key::imuQueueSize, "Memory", "imuQueueSize", Kind::Size, "10000", false,
     "bound of the IMU, platform-pose and diagnostic queues"},
    {Key::targetQueueSize, "Memory", "targetQueueSize", Kind::Size, "10000", false,
     "bound of the target, optical, pose-recovery and NFT queues"},
    {Key::trackingQueueSize, "Memory", "trackingQueueSize", Kind::Size, "10000", false,
     "bound of the tracking queue"},
    {Key::gpsQueueSize, "Memory", "gpsQueueSize", Kind::Size, "10000", false, "bound of the GPS queue"},
    {Key::errorCodeQueueSize, "Memory", "errorCodeQueueSize", Kind::Size, "10000", false,
     "bound of the error-code queue"},
    {Key::BoresightRefRollRad, "Processing", "BoresightRefRollRad", Kind::Real, "0.0", false,
     "boresight reference roll, radians"},
    {Key::BoresightRefPitchRad, "Processing", "BoresightRefPitchRad", Kind::Real, "0.0", false,
     "boresight reference pitch, radians"},
    {Key::BoresightRefYawRad, "Processing", "BoresightRefYawRad", Kind::Real, "0.0", false,
     "boresight reference yaw, radians"},
    {Key::TipOffsetXM, "Processing", "TipOffsetXM", Kind::Real, "0.0", false, "tip offset x, metres"},
    {Key::TipOffsetYM, "Processing", "TipOffsetYM", Kind::Real, "0.0", false, "tip offset y, metres"},
    {Key::TipOffsetZM, "Processing", "TipOffsetZM", Kind::Real, "0.0", false, "tip offset z, metres"},
    {Key::udpAllowedSenders, "Communication", "udpAllowedSenders", Kind::Senders, "", true,
     "the only senders the receivers take; empty takes every sender"},
    {Key::sMemImgMode, "Communication", "sMemImgMode", Kind::Mode, "0666", true,
     "permissions a producer creates the shared-memory image with (octal)"},
};

inline constexpr size_t kKeyCount = sizeof kKeys / sizeof kKeys[0];

constexpr const KeyRow& row(Key k) { return kKeys[static_cast<size_t>(k)]; }

// Reading the defaults' texts at compile time: they are written as a user
// writes them, and the checks below refuse one that does not read.
namespace detail {

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

constexpr bool allDigits(const char* s, bool octal = false) {
    if (*s == '\0') return false;
    for (; *s != '\0'; ++s)
        if (!isDigit(*s) || (octal && *s > '7')) return false;
    return true;
}

constexpr long long digits(const char* s, int base) {
    long long v = 0;
    for (; isDigit(*s); ++s) v = v * base + (*s - '0');
    return v;
}

// "12", "0.25": digits, and a fraction after a point.
constexpr bool isPlainReal(const char* s) {
    if (!isDigit(*s)) return false;
    while (isDigit(*s)) ++s;
    if (*s == '.') {
        ++s;
        if (!isDigit(*s)) return false;
        while (isDigit(*s)) ++s;
    }
    return *s == '\0';
}

constexpr double plainReal(const char* s) {
    double v = 0.0;
    for (; isDigit(*s); ++s) v = v * 10.0 + (*s - '0');
    if (*s == '.') {
        double scale = 0.1;
        for (++s; isDigit(*s); ++s, scale /= 10.0) v += (*s - '0') * scale;
    }
    return v;
}

constexpr bool same(const char* a, const char* b) {
    for (; *a != '\0' && *a == *b; ++a, ++b) {
    }
    return *a == *b;
}

constexpr bool defaultReads(const KeyRow& k) {
    switch (k.kind) {
        case Kind::Mask:
        case Kind::Int32:
        case Kind::Size:
        case Kind::Int64:
        case Kind::UdpPort:
        case Kind::TcpPort:
            return allDigits(k.defaultText);
        case Kind::Real:
            return isPlainReal(k.defaultText);
        case Kind::Bool:
            return same(k.defaultText, "true") || same(k.defaultText, "false");
        case Kind::Mode:
            return allDigits(k.defaultText, true);
        case Kind::Text:
        case Kind::Host:
        case Kind::Senders:
            return true;
    }
    return false;
}

constexpr bool sectionKnown(const char* section) {
    for (const char* s : kSections)
        if (same(s, section)) return true;
    return false;
}

constexpr bool tableHolds() {
    for (size_t i = 0; i < kKeyCount; ++i)
        if (static_cast<size_t>(kKeys[i].id) != i || !defaultReads(kKeys[i]) || !sectionKnown(kKeys[i].section))
            return false;
    return kKeyCount == static_cast<size_t>(Key::Count);
}

}  // namespace detail

static_assert(detail::tableHolds(), "every key in its place, in a known section, with a default that reads");

constexpr const char* defaultText(Key k) { return row(k).defaultText; }
// Integer kinds and ports.
constexpr long long defaultInteger(Key k) { return detail::digits(row(k).defaultText, 10); }
constexpr double defaultReal(Key k) { return detail::plainReal(row(k).defaultText); }
constexpr bool defaultBool(Key k) { return detail::same(row(k).defaultText, "true"); }
constexpr unsigned int defaultMode(Key k) { return static_cast<unsigned int>(detail::digits(row(k).defaultText, 8)); }
constexpr int defaultPort(Key k) { return static_cast<int>(defaultInteger(k)); }

}  // namespace orvini
