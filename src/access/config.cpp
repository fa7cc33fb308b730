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

// Where each key's value lives, and how it is narrowed to its member. A key
// added to the table without a place here fails to compile (-Wswitch).
void store(OrvAccessConfig& c, orvini::Key k, long integer, double real, bool flag, std::string&& text) {
    using K = orvini::Key;
    switch (k) {
        case K::verbosity: c.verbosity = static_cast<uint32_t>(integer); return;
        case K::logging: c.logging = static_cast<uint32_t>(integer); return;
        case K::logPath: c.logPath = std::move(text); return;
        case K::tcpOrvRxEnabled: c.tcpOrvRxEnabled = flag; return;
        case K::tcpOrvRxAddr: c.tcpOrvRxAddr = std::move(text); return;
        case K::tcpOrvRxPort: c.tcpOrvRxPort = std::move(text); return;
        case K::udpOrvRxPort: c.udpOrvRxPort = std::move(text); return;
        case K::udpOrvRxImgPort: c.udpOrvRxImgPort = std::move(text); return;
        case K::udpOrvRxInputPort: c.udpOrvRxInputPort = std::move(text); return;
        case K::udpOrvCorePort: c.udpOrvCorePort = std::move(text); return;
        case K::udpOrvHubPort: c.udpOrvHubPort = std::move(text); return;
        case K::udpNftPort: c.udpNftPort = std::move(text); return;
        case K::sMemImgName: c.sMemImgName = std::move(text); return;
        case K::udpOrvRxRcvBufSize: c.udpOrvRxRcvBufSize = static_cast<int32_t>(integer); return;
        case K::udpOrvRxImgRcvBufSize: c.udpOrvRxImgRcvBufSize = static_cast<int32_t>(integer); return;
        case K::udpOrvCoreRcvBufSize: c.udpOrvCoreRcvBufSize = static_cast<int32_t>(integer); return;
        case K::udpOrvHubRcvBufSize: c.udpOrvHubRcvBufSize = static_cast<int32_t>(integer); return;
        case K::udpNftRcvBufSize: c.udpNftRcvBufSize = static_cast<int32_t>(integer); return;
        case K::predictionS: c.predictionS = real; return;
        case K::virtualSyncCtrl: c.virtualSyncCtrl = integer; return;
        case K::imgBufSize: c.imgBufSize = static_cast<uint32_t>(integer); return;
        case K::imuQueueSize: c.imuQueueSize = static_cast<uint32_t>(integer); return;
        case K::targetQueueSize: c.targetQueueSize = static_cast<uint32_t>(integer); return;
        case K::trackingQueueSize: c.trackingQueueSize = static_cast<uint32_t>(integer); return;
        case K::gpsQueueSize: c.gpsQueueSize = static_cast<uint32_t>(integer); return;
        case K::errorCodeQueueSize: c.errorCodeQueueSize = static_cast<uint32_t>(integer); return;
        case K::BoresightRefRollRad: c.boresightRefRad[0] = real; return;
        case K::BoresightRefPitchRad: c.boresightRefRad[1] = real; return;
        case K::BoresightRefYawRad: c.boresightRefRad[2] = real; return;
        case K::TipOffsetXM: c.tipOffsetM[0] = real; return;
        case K::TipOffsetYM: c.tipOffsetM[1] = real; return;
        case K::TipOffsetZM: c.tipOffsetM[2] = real; return;
        case K::udpAllowedSenders: c.udpAllowedSenders = std::move(text); return;
        case K::sMemImgMode: c.sMemImgMode = std::move(text); return;
        case K::Count: return;
    }
}

}  // namespace

bool readConfig(const std::string& path, OrvAccessConfig& c, bool echo) {
    IniFile ini;
    const bool loaded = loadIni(ini, path);

    // The verbosity first: it decides what the reading of the others echoes.
    const orvini::KeyRow& first = orvini::row(orvini::Key::verbosity);
    c.verbosity = static_cast<uint32_t>(ini.GetLongValue(first.section, first.key,
                                                         static_cast<long>(orvini::defaultInteger(first.id))));
    const unsigned int verbosity = echo ? c.verbosity : 0;
    ConfigReader r(ini);
    r.setVerbosity(verbosity);
    OrvUtil::infoLine(verbosity, first.key, " = ", c.verbosity);
    OrvUtil::logLine(verbosity, "Version ", kOrvAccessVersion);
    OrvUtil::logLine(verbosity, "Build date ", kOrvAccessBuildDate);
    if (loaded) {
        OrvUtil::logLine(verbosity, "Using ", path);
    } else {
        OrvUtil::logLine(verbosity, path, " not found");
    }

    for (const orvini::KeyRow& k : orvini::kKeys) {
        if (k.id == first.id) continue;
        long integer = 0;
        double real = 0.0;
        bool flag = false;
        std::string text;
        // An extension the file does not set keeps its default unechoed.
        const bool absent = k.extension && ini.GetValue(k.section, k.key, nullptr) == nullptr;
        switch (k.kind) {
            case orvini::Kind::Mask:
            case orvini::Kind::Int32:
            case orvini::Kind::Size:
            case orvini::Kind::Int64: {
                const long fallback = static_cast<long>(orvini::defaultInteger(k.id));
                integer = absent ? fallback : r.integer(k.section, k.key, fallback);
                break;
            }
            case orvini::Kind::Real:
                real = absent ? orvini::defaultReal(k.id) : r.real(k.section, k.key, orvini::defaultReal(k.id));
                break;
            case orvini::Kind::Bool:
                flag = absent ? orvini::defaultBool(k.id) : r.boolean(k.section, k.key, orvini::defaultBool(k.id));
                break;
            case orvini::Kind::Text:
            case orvini::Kind::Host:
            case orvini::Kind::UdpPort:
            case orvini::Kind::TcpPort:
            case orvini::Kind::Senders:
            case orvini::Kind::Mode:
                text = absent ? orvini::defaultText(k.id) : r.text(k.section, k.key, orvini::defaultText(k.id));
                break;
        }
        store(c, k.id, integer, real, flag, std::move(text));
    }
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
