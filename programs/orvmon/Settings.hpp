// The two prediction settings the monitor needs to know what the library
// predicts to; the library itself reads the rest of the same file.
#pragma once

#include <string>

namespace orvcheck {
struct IniReport;
}

namespace orvmon {

struct PredictionSettings {
    double predictionS = 0.0;  // [Processing] predictionS
    long virtualSyncCtrl = 0;  // [Processing] virtualSyncCtrl
};

// A missing file, key or malformed value leaves the default, as in the
// library.
PredictionSettings readPredictionSettings(const std::string& iniPath);
// The same from a file already checked.
PredictionSettings fromIni(const orvcheck::IniReport& ini);

}  // namespace orvmon
