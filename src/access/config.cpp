// Reading the configuration file and resetting the run-time state (init),
// and the run-time switches of the diagnostic output.
// Only the narrow-character reader is used, so no wide conversion library;
// Debian's header keeps its template bodies behind SI_IMPLEMENTATION, and
// instantiating them here spares the library a run-time dependency.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include <cstdio>
#include <utility>
#include <cstdlib>

#include "access/Config.hpp"
#include "access/State.hpp"

namespace {

// Section and key names are case-insensitive, as users write them.
using IniFile = CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>>;

// Reads one key at a time and echoes it as "ORVAINFO: key = value" when the
// configured verbosity asks for it.
class ConfigReader {
public:
    explicit ConfigReader(const IniFile& ini) : ini_(ini) {}

    void setVerbosity(unsigned int verbosity) { verbosity_ = verbosity; }

    long integer(const char* section, const char* key, long fallback) {
        const long value = ini_.GetLongValue(section, key, fallback);
        OrvUtil::infoLine(verbosity_, key, " = ", value);
        return value;
    }
    double real(const char* section, const char* key, double fallback) {
        const double value = ini_.GetDoubleValue(section, key, fallback);
        OrvUtil::infoLine(verbosity_, key, " = ", value);
        return value;
    }
    bool boolean(const char* section, const char* key, bool fallback) {
        const bool value = ini_.GetBoolValue(section, key, fallback);
        OrvUtil::infoLine(verbosity_, key, " = ", value ? 1 : 0);
        return value;
    }
    std::string text(const char* section, const char* key, const std::string& fallback) {
        std::string value = ini_.GetValue(section, key, fallback.c_str());
        OrvUtil::infoLine(verbosity_, key, " = ", value);
        return value;
    }

private:
    const IniFile& ini_;
    unsigned int verbosity_ = 0;
};

// A missing or unreadable file is no error: every key keeps its default.
bool loadIni(IniFile& ini, const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    const SI_Error rc = ini.LoadFile(file);
    std::fclose(file);
    return rc >= 0;
}

}  // namespace

bool readConfig(const std::string& path, OrvAccessConfig& c, bool echo) {
    IniFile ini;
    const bool loaded = loadIni(ini, path);

    const OrvAccessConfig defaults;
    ConfigReader r(ini);
    c.verbosity = static_cast<uint32_t>(ini.GetLongValue("General", "verbosity", defaults.verbosity));
    const unsigned int verbosity = echo ? c.verbosity : 0;
    r.setVerbosity(verbosity);
    OrvUtil::infoLine(verbosity, "verbosity = ", c.verbosity);
    OrvUtil::logLine(verbosity, "Version ", kOrvAccessVersion);
    OrvUtil::logLine(verbosity, "Build date ", kOrvAccessBuildDate);
    if (loaded) {
        OrvUtil::logLine(verbosity, "Using ", path);
    } else {
        OrvUtil::logLine(verbosity, path, " not found");
    }

    c.logging = static_cast<uint32_t>(r.integer("General", "logging", defaults.logging));
    c.logPath = r.text("General", "logPath", defaults.logPath);
    c.tcpOrvRxEnabled = r.boolean("Communication", "tcpOrvRxEnabled", defaults.tcpOrvRxEnabled);
    c.tcpOrvRxAddr = r.text("Communication", "tcpOrvRxAddr", defaults.tcpOrvRxAddr);
    c.tcpOrvRxPort = r.text("Communication", "tcpOrvRxPort", defaults.tcpOrvRxPort);
    c.udpOrvRxPort = r.text("Communication", "udpOrvRxPort", defaults.udpOrvRxPort);
    c.udpOrvRxImgPort = r.text("Communication", "udpOrvRxImgPort", defaults.udpOrvRxImgPort);
    c.udpOrvRxInputPort = r.text("Communication", "udpOrvRxInputPort", defaults.udpOrvRxInputPort);
    c.udpOrvCorePort = r.text("Communication", "udpOrvCorePort", defaults.udpOrvCorePort);
    c.udpOrvHubPort = r.text("Communication", "udpOrvHubPort", defaults.udpOrvHubPort);
    c.udpNftPort = r.text("Communication", "udpNftPort", defaults.udpNftPort);
    c.sMemImgName = r.text("Communication", "sMemImgName", defaults.sMemImgName);
    c.udpOrvRxRcvBufSize =
        static_cast<int32_t>(r.integer("Communication", "udpOrvRxRcvBufSize", defaults.udpOrvRxRcvBufSize));
    c.udpOrvRxImgRcvBufSize = static_cast<int32_t>(
        r.integer("Communication", "udpOrvRxImgRcvBufSize", defaults.udpOrvRxImgRcvBufSize));
    c.udpOrvCoreRcvBufSize = static_cast<int32_t>(
        r.integer("Communication", "udpOrvCoreRcvBufSize", defaults.udpOrvCoreRcvBufSize));
    c.udpOrvHubRcvBufSize =
        static_cast<int32_t>(r.integer("Communication", "udpOrvHubRcvBufSize", defaults.udpOrvHubRcvBufSize));
    c.udpNftRcvBufSize =
        static_cast<int32_t>(r.integer("Communication", "udpNftRcvBufSize", defaults.udpNftRcvBufSize));
    c.predictionS = r.real("Processing", "predictionS", defaults.predictionS);
    c.virtualSyncCtrl = r.integer("Processing", "virtualSyncCtrl", defaults.virtualSyncCtrl);
    c.imgBufSize = static_cast<uint32_t>(r.integer("Memory", "imgBufSize", defaults.imgBufSize));
    c.imuQueueSize = static_cast<uint32_t>(r.integer("Memory", "imuQueueSize", defaults.imuQueueSize));
    c.targetQueueSize =
        static_cast<uint32_t>(r.integer("Memory", "targetQueueSize", defaults.targetQueueSize));
    c.trackingQueueSize =
        static_cast<uint32_t>(r.integer("Memory", "trackingQueueSize", defaults.trackingQueueSize));
    c.gpsQueueSize = static_cast<uint32_t>(r.integer("Memory", "gpsQueueSize", defaults.gpsQueueSize));
    c.errorCodeQueueSize =
        static_cast<uint32_t>(r.integer("Memory", "errorCodeQueueSize", defaults.errorCodeQueueSize));
    c.boresightRefRad[0] = r.real("Processing", "BoresightRefRollRad", defaults.boresightRefRad[0]);
    c.boresightRefRad[1] = r.real("Processing", "BoresightRefPitchRad", defaults.boresightRefRad[1]);
    c.boresightRefRad[2] = r.real("Processing", "BoresightRefYawRad", defaults.boresightRefRad[2]);
    c.tipOffsetM[0] = r.real("Processing", "TipOffsetXM", defaults.tipOffsetM[0]);
    c.tipOffsetM[1] = r.real("Processing", "TipOffsetYM", defaults.tipOffsetM[1]);
    c.tipOffsetM[2] = r.real("Processing", "TipOffsetZM", defaults.tipOffsetM[2]);
    // The extensions are echoed only when the file has them, so that a
    // file without them reads and prints as it always did.
    c.udpAllowedSenders = defaults.udpAllowedSenders;
    c.sMemImgMode = defaults.sMemImgMode;
    for (const auto& [key, value] : {std::pair<const char*, std::string*>{"udpAllowedSenders", &c.udpAllowedSenders},
                                     std::pair<const char*, std::string*>{"sMemImgMode", &c.sMemImgMode}})
        if (ini.GetValue("Communication", key, nullptr) != nullptr) *value = r.text("Communication", key, *value);

    return loaded;
}

void OrvAccess::init() {
    State& s = *st_;
    const OrvAccessConfig& c = s.cfg;
    s.cfg = OrvAccessConfig();
    readConfig(s.iniPath, s.cfg, true);

    // Run-time parameters start from the configuration.
    s.predictionS = c.predictionS;
    float boresight[3] = {static_cast<float>(c.boresightRefRad[0]), static_cast<float>(c.boresightRefRad[1]),
                          static_cast<float>(c.boresightRefRad[2])};
    setBoresightRef(boresight);
    for (int i = 0; i < 3; ++i) s.tipOffset[i] = c.tipOffsetM[i];
    s.noteAdjustment();

    s.applyQueueBounds();
    s.clearQueues();

    // Fresh image buffers (the previous ones, if any, are released here).
    s.img.init(c.imgBufSize);

    s.sharedMem.reset();
    if (!c.sMemImgName.empty()) s.sharedMem.reset(new OrvosiSharedMem(c.sMemImgName.c_str()));

    imuCrsBufReset(&s.imuCrs[0]);
    imuCrsBufReset(&s.imuCrs[1]);
    s.imuDt = 0.0f;
    s.receivedMask = 0;
    for (uint64_t& n : s.senderDrops) n = 0;
    s.newError = 0;
    s.diagWord = 0;
    s.rxState = 0;
    s.latestTrackingValid = false;
    s.latestImuValid = false;
    s.latestAuxValid = false;
    s.latestDiagValid = false;
    initVsData();
    s.manualService = false;
    s.lastError.clear();
}

void OrvAccess::setVerbosity(unsigned int mask) {
    st_->cfg.verbosity = mask;
    OrvUtil::logLine(mask, "Setting verbosity to ", mask);
}

void OrvAccess::setLogging(unsigned int mask, std::string logPath) {
    OrvUtil::logLine(st_->cfg.verbosity, "Setting logging to ", mask);
    OrvUtil::logClose();
    st_->cfg.logging = mask;
    st_->cfg.logPath = std::move(logPath);
}
