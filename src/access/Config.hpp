// The configuration file: its values with their defaults, and the one
// reader of it. The library reads it at every open; the simulator reads the
// same file so that one file configures both ends.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

// The configuration file's values, with their defaults. Ports stay text:
// "0" disables a port, compared as text.
struct OrvAccessConfig {
    // General
    uint32_t verbosity = 0;
    uint32_t logging = 0;
    std::string logPath = "./";
    // Communication
    bool tcpOrvRxEnabled = true;
    std::string tcpOrvRxAddr = "localhost";
    std::string tcpOrvRxPort = "51717";
    std::string udpOrvRxPort = "5001";
    std::string udpOrvRxImgPort = "5003";
    std::string udpOrvRxInputPort = "5004";
    std::string udpOrvCorePort = "5002";
    std::string udpOrvHubPort = "5006";
    std::string udpNftPort = "5007";
    std::string sMemImgName = "orvHubImage";
    int32_t udpOrvRxRcvBufSize = 65536;
    int32_t udpOrvRxImgRcvBufSize = 524288;
    int32_t udpOrvCoreRcvBufSize = 65536;
    int32_t udpOrvHubRcvBufSize = 65536;
    int32_t udpNftRcvBufSize = 65536;
    // Processing
    double predictionS = 0.0;
    int64_t virtualSyncCtrl = 0;
    double boresightRefRad[3] = {0.0, 0.0, 0.0};  // roll, pitch, yaw
    double tipOffsetM[3] = {0.0, 0.0, 0.0};
    // Memory
    uint32_t imgBufSize = 0x400000;
    uint32_t imuQueueSize = 10000;
    uint32_t targetQueueSize = 10000;
    uint32_t trackingQueueSize = 10000;
    uint32_t gpsQueueSize = 10000;
    uint32_t errorCodeQueueSize = 10000;
    // Extensions, read after the keys above; absent, the library behaves as
    // it always did.
    // Communication: the only senders whose datagrams the receivers take
    // (IPv4 addresses or networks, separated by commas or blanks); empty
    // takes every sender.
    std::string udpAllowedSenders;
    // Communication: the permissions, octal, that a producer built on the
    // library creates the shared-memory image and its semaphore with (the
    // process's umask narrows them further).
    std::string sMemImgMode = "0666";
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
