#include "Settings.hpp"

#include "IniCheck.hpp"

namespace orvmon {

PredictionSettings readPredictionSettings(const std::string& iniPath) {
    // The check reads the file with the library's own rules.
    return fromIni(orvcheck::checkIni(iniPath));
}

PredictionSettings fromIni(const orvcheck::IniReport& ini) {
    PredictionSettings s;
    s.predictionS = ini.value("predictionS").real;
    s.virtualSyncCtrl = static_cast<long>(ini.value("virtualSyncCtrl").integer);
    return s;
}

}  // namespace orvmon
