// The tracking system's endpoints as one configuration file names them,
// read by the library's own reader and turned into numbers: where the
// simulator serves and sends, and what the capture tools record and replay.
#pragma once

#include <string>

#include "IniKeys.hpp"

namespace orvports {

struct Endpoints {
    // orvRx's address, dotted decimal (a name is looked up; broadcast and
    // the any-address are refused: datagrams go to the one address named).
    std::string address = "127.0.0.1";
    // 0: switched off (for TCP: tcpOrvRxEnabled = off).
    int tcpPort = orvini::defaultPort(orvini::Key::tcpOrvRxPort);
    int metaPort = orvini::defaultPort(orvini::Key::udpOrvRxPort);
    int imagePort = orvini::defaultPort(orvini::Key::udpOrvRxImgPort);
    int inputPort = orvini::defaultPort(orvini::Key::udpOrvRxInputPort);
    int corePort = orvini::defaultPort(orvini::Key::udpOrvCorePort);
    int hubPort = orvini::defaultPort(orvini::Key::udpOrvHubPort);
    int nftPort = orvini::defaultPort(orvini::Key::udpNftPort);
    std::string sharedMemName = orvini::defaultText(orvini::Key::sMemImgName);  // empty: none
    unsigned int sharedMemMode = orvini::defaultMode(orvini::Key::sMemImgMode);
};

// Reads the file at path (missing keys and a missing file take the
// library's defaults). False with `error` set, naming the key or the
// address, when a port or the address cannot be used; `out` is then as it was.
bool fromIni(const std::string& path, Endpoints& out, std::string& error);

}  // namespace orvports
