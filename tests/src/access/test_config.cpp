// Reading the configuration file: defaults, number and boolean rules, case,
// the echo lines, and the state that init() resets.
#include <gtest/gtest.h>

#include <sstream>

#include "orvaccess/OrvAccess.hpp"
#include "support/TestSupport.hpp"

namespace {

// The "ORVAINFO: key = value" lines of one init() as key -> value.
std::map<std::string, std::string> echoedKeys(const std::string& out) {
    std::map<std::string, std::string> keys;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string prefix = "ORVAINFO: ";
        const size_t eq = line.find(" = ");
        if (line.compare(0, prefix.size(), prefix) == 0 && eq != std::string::npos)
            keys[line.substr(prefix.size(), eq - prefix.size())] = line.substr(eq + 3);
    }
    return keys;
}

std::map<std::string, std::string> initWith(OrvAccess& a, const orvtest::TempDir& dir,
                                            const std::string& ini) {
    a.setIniPath(dir.write("orvaccess.ini", ini));
    orvtest::CapturedStdout out;
    a.init();
    return echoedKeys(out.text());
}

}  // namespace

TEST(Config, DefaultsInReadingOrder) {
    orvtest::TempDir dir;
    OrvAccess a;
    a.setIniPath(dir.write("orvaccess.ini", "[General]\nverbosity = 2\n"));
    orvtest::CapturedStdout out;
    a.init();
    const std::string text = out.text();
    const char* expected =
        "ORVAINFO: verbosity = 2\nORVAINFO: logging = 0\nORVAINFO: logPath = ./\n"
        "ORVAINFO: tcpOrvRxEnabled = 1\nORVAINFO: tcpOrvRxAddr = localhost\nORVAINFO: tcpOrvRxPort = 51717\n"
        "ORVAINFO: udpOrvRxPort = 5001\nORVAINFO: udpOrvRxImgPort = 5003\nORVAINFO: udpOrvRxInputPort = "
        "5004\n"
        "ORVAINFO: udpOrvCorePort = 5002\nORVAINFO: udpOrvHubPort = 5006\nORVAINFO: udpNftPort = 5007\n"
        "ORVAINFO: sMemImgName = orvHubImage\nORVAINFO: udpOrvRxRcvBufSize = 65536\n"
        "ORVAINFO: udpOrvRxImgRcvBufSize = 524288\nORVAINFO: udpOrvCoreRcvBufSize = 65536\n"
        "ORVAINFO: udpOrvHubRcvBufSize = 65536\nORVAINFO: udpNftRcvBufSize = 65536\n"
        "ORVAINFO: predictionS = 0\nORVAINFO: virtualSyncCtrl = 0\nORVAINFO: imgBufSize = 4194304\n"
        "ORVAINFO: imuQueueSize = 10000\nORVAINFO: targetQueueSize = 10000\n"
        "ORVAINFO: trackingQueueSize = 10000\nORVAINFO: gpsQueueSize = 10000\n"
        "ORVAINFO: errorCodeQueueSize = 10000\nORVAINFO: BoresightRefRollRad = 0\n"
        "ORVAINFO: BoresightRefPitchRad = 0\nORVAINFO: BoresightRefYawRad = 0\nORVAINFO: TipOffsetXM = 0\n"
        "ORVAINFO: TipOffsetYM = 0\nORVAINFO: TipOffsetZM = 0\n";
    EXPECT_EQ(text, expected);
    EXPECT_EQ(a.getImageBufSize(), 4194304u);
}

TEST(Config, ValueRulesAndCase) {
    orvtest::TempDir dir;
    OrvAccess a;
    const std::string longValue(64, '7');
    auto keys = initWith(a, dir,
                         "[general]\nVERBOSITY = 0x2\n"
                         "[COMMUNICATION]\ntcporvrxenabled = off\nudpOrvRxRcvBufSize = 0x100\n"
                         "udpOrvCoreRcvBufSize = 12ab\nudpNftRcvBufSize = " +
                             longValue +
                             "\n"
                             "[Processing]\npredictionS = 0.25\nTipOffsetXM = 1.5m\nvirtualSyncCtrl = 7\n"
                             "[Memory]\nimgBufSize = 5MB\nimuQueueSize = 0x\n");
    EXPECT_EQ(keys["tcpOrvRxEnabled"], "0");
    EXPECT_EQ(keys["udpOrvRxRcvBufSize"], "256");
    EXPECT_EQ(keys["udpOrvCoreRcvBufSize"], "65536");  // trailing text
    EXPECT_EQ(keys["udpNftRcvBufSize"], "65536");      // longer than 63 characters
    EXPECT_EQ(keys["predictionS"], "0.25");
    EXPECT_EQ(keys["TipOffsetXM"], "0");  // a real must parse whole
    EXPECT_EQ(keys["virtualSyncCtrl"], "7");
    EXPECT_EQ(keys["imgBufSize"], "4194304");
    EXPECT_EQ(keys["imuQueueSize"], "10000");
    EXPECT_EQ(a.getImageBufSize(), 4194304u);

    // Booleans: false words, true words, and anything else keeps the default.
    for (const auto& [word, expected] : std::vector<std::pair<std::string, std::string>>{{"0", "0"},
                                                                                         {"false", "0"},
                                                                                         {"No", "0"},
                                                                                         {"oFF", "0"},
                                                                                         {"1", "1"},
                                                                                         {"yes", "1"},
                                                                                         {"True", "1"},
                                                                                         {"on", "1"},
                                                                                         {"maybe", "1"},
                                                                                         {"", "1"}}) {
        keys =
            initWith(a, dir, "[General]\nverbosity = 2\n[Communication]\ntcpOrvRxEnabled = " + word + "\n");
        EXPECT_EQ(keys["tcpOrvRxEnabled"], expected) << "'" << word << "'";
    }
}

TEST(Config, LogLinesNameTheFileAndVersion) {
    orvtest::TempDir dir;
    OrvAccess a;
    const std::string path = dir.write("orvaccess.ini", "[General]\nverbosity = 3\n");
    a.setIniPath(path);
    orvtest::CapturedStderr err;
    orvtest::CapturedStdout out;
    a.init();
    const std::string info = out.text();
    EXPECT_EQ(err.text(),
              "ORVALOG: Version 1.23.00\nORVALOG: Build date Sep 25 2017\nORVALOG: Using " + path + "\n");
    EXPECT_EQ(echoedKeys(info).size(), 32u);  // every key echoed

    // A missing file is silent unless the verbosity comes from somewhere else:
    // it can only come from the file, so nothing is printed at all.
    a.setIniPath((dir.path() / "missing.ini").string());
    orvtest::CapturedStderr err2;
    orvtest::CapturedStdout out2;
    a.init();
    EXPECT_EQ(out2.text(), "");
    EXPECT_EQ(err2.text(), "");
}
