#include "Settings.hpp"

// Debian's SimpleIni keeps its template bodies behind SI_IMPLEMENTATION; this
// is the one file of the monitor that instantiates them.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

namespace orvmon {

PredictionSettings readPredictionSettings(const std::string& iniPath) {
    // Section and key names are case-insensitive, as the library reads them.
    CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>> ini;
    PredictionSettings s;
    if (ini.LoadFile(iniPath.c_str()) < 0) return s;
    s.predictionS = ini.GetDoubleValue("Processing", "predictionS", s.predictionS);
    s.virtualSyncCtrl = ini.GetLongValue("Processing", "virtualSyncCtrl", s.virtualSyncCtrl);
    return s;
}

}  // namespace orvmon
