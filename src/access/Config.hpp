// The configuration file: its values with their defaults, and the one
// reader of it. The library reads it at every open; the simulator reads the
// same file so that one file configures both ends.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include "IniKeys.hpp"

// The configuration file's values, with the defaults of the keys' table.
// Ports stay text: "0" disables a port, compared as text.
struct OrvAccessConfig {
    using Key = orvini::Key;
    template <class T>
    static constexpr T integer(Key k) {
        return static_cast<T>(orvini::defaultInteger(k));
    }

    // General
    uint32_t verbosity = integer<uint32_t>(Key::verbosity);
    uint32_t logging = integer<uint32_t>(Key::logging);
    std::string logPath = orvini::defaultText(Key::logPath);
    // Communication
    bool tcpOrvRxEnabled = orvini::defaultBool(Key::tcpOrvRxEnabled);
    std::string tcpOrvRxAddr = orvini::defaultText(Key::tcpOrvRxAddr);
    std::string tcpOrvRxPort = orvini::defaultText(Key::tcpOrvRxPort);
    std::string udpOrvRxPort = orvini::defaultText(Key::udpOrvRxPort);
    std::string udpOrvRxImgPort = orvini::defaultText(Key::udpOrvRxImgPort);
    std::string udpOrvRxInputPort = orvini::defaultText(Key::udpOrvRxInputPort);
    std::string udpOrvCorePort = orvini::defaultText(Key::udpOrvCorePort);
    std::string udpOrvHubPort = orvini::defaultText(Key::udpOrvHubPort);
    std::string udpNftPort = orvini::defaultText(Key::udpNftPort);
    std::string sMemImgName = orvini::defaultText(Key::sMemImgName);
    int32_t udpOrvRxRcvBufSize = integer<int32_t>(Key::udpOrvRxRcvBufSize);
    int32_t udpOrvRxImgRcvBufSize = integer<int32_t>(Key::udpOrvRxImgRcvBufSize);
    int32_t udpOrvCoreRcvBufSize = integer<int32_t>(Key::udpOrvCoreRcvBufSize);
    int32_t udpOrvHubRcvBufSize = integer<int32_t>(Key::udpOrvHubRcvBufSize);
    int32_t udpNftRcvBufSize = integer<int32_t>(Key::udpNftRcvBufSize);
    // Processing
    double predictionS = orvini::defaultReal(Key::predictionS);
    int64_t virtualSyncCtrl = integer<int64_t>(Key::virtualSyncCtrl);
    double boresightRefRad[3] = {orvini::defaultReal(Key::BoresightRefRollRad),
                                 orvini::defaultReal(Key::BoresightRefPitchRad),
                                 orvini::defaultReal(Key::BoresightRefYawRad)};  // roll, pitch, yaw
    double tipOffsetM[3] = {orvini::defaultReal(Key::TipOffsetXM), orvini::defaultReal(Key::TipOffsetYM),
                            orvini::defaultReal(Key::TipOffsetZM)};
    // Memory
    uint32_t imgBufSize = integer<uint32_t>(Key::imgBufSize);
    uint32_t imuQueueSize = integer<uint32_t>(Key::imuQueueSize);
    uint32_t targetQueueSize = integer<uint32_t>(Key::targetQueueSize);
    uint32_t trackingQueueSize = integer<uint32_t>(Key::trackingQueueSize);
    uint32_t gpsQueueSize = integer<uint32_t>(Key::gpsQueueSize);
    uint32_t errorCodeQueueSize = integer<uint32_t>(Key::errorCodeQueueSize);
    // Extensions, read after the keys above; absent, the library behaves as
    // it always did.
    // Communication: the only senders whose datagrams the receivers take
    // (IPv4 addresses or networks, separated by commas or blanks); empty
    // takes every sender.
    std::string udpAllowedSenders = orvini::defaultText(Key::udpAllowedSenders);
    // Communication: the permissions, octal, that a producer built on the
    // library creates the shared-memory image and its semaphore with (the
    // process's umask narrows them further).
    std::string sMemImgMode = orvini::defaultText(Key::sMemImgMode);
};

// The permission bits of a mode text such as "0600" (octal, at most 0777);
// false for anything else. Inline, so that the tools' configuration check
// reads it the same way.
inline bool parseFileMode(const std::string& text, unsigned int& mode) {
    if (text.empty() || text.size() > 4 || text.find_first_not_of("01234567") != std::string::npos) return false;
    mode = static_cast<unsigned int>(std::strtoul(text.c_str(), nullptr, 8));
    return mode <= 0777;
}

// Reads the file at path into cfg: keys that are missing or malformed, and
// every key of a missing or unreadable file, take their defaults. With echo,
// the verbosity read from the file decides which "ORVAINFO: key = value" and
// "ORVALOG: " lines are written. Returns whether the file was loaded.
bool readConfig(const std::string& path, OrvAccessConfig& cfg, bool echo);

// What getVersion and getBuildDate report.
constexpr const char* kOrvAccessVersion = "1.23.00";
constexpr const char* kOrvAccessBuildDate = "Sep 25 2017";
