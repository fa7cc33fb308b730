#include "IniPorts.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>

#include "access/Config.hpp"

namespace orvports {

namespace {

bool portFromText(const std::string& text, orvini::Key key, int& port, std::string& error) {
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < 0 || v > 65535) {
        error = std::string("Bad port for ") + orvini::row(key).key + ": \"" + text + "\"";
        return false;
    }
    port = static_cast<int>(v);
    return true;
}

// A host name or dotted address as dotted IPv4 text; broadcast is refused:
// the one configured address is the only one sent to.
bool resolve(const std::string& host, std::string& dotted, std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    if (host.empty() || host == "*" || getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
        error = "Cannot use the address \"" + host + "\"";
        return false;
    }
    char text[INET_ADDRSTRLEN] = {};
    const in_addr a = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    if (a.s_addr == htonl(INADDR_BROADCAST) || a.s_addr == htonl(INADDR_ANY)) {
        error = "Cannot use the address \"" + host + "\"";
        return false;
    }
    inet_ntop(AF_INET, &a, text, sizeof text);
    dotted = text;
    return true;
}

}  // namespace

bool fromIni(const std::string& path, Endpoints& out, std::string& error) {
    OrvAccessConfig c;
    readConfig(path, c, false);
    Endpoints e = out;
    if (!resolve(c.tcpOrvRxAddr, e.address, error)) return false;
    using K = orvini::Key;
    const struct {
        const std::string& text;
        K key;
        int& port;
    } ports[] = {
        {c.tcpOrvRxPort, K::tcpOrvRxPort, e.tcpPort},
        {c.udpOrvRxPort, K::udpOrvRxPort, e.metaPort},
        {c.udpOrvRxImgPort, K::udpOrvRxImgPort, e.imagePort},
        {c.udpOrvRxInputPort, K::udpOrvRxInputPort, e.inputPort},
        {c.udpOrvCorePort, K::udpOrvCorePort, e.corePort},
        {c.udpOrvHubPort, K::udpOrvHubPort, e.hubPort},
        {c.udpNftPort, K::udpNftPort, e.nftPort},
    };
    for (const auto& p : ports)
        if (!portFromText(p.text, p.key, p.port, error)) return false;
    if (!c.tcpOrvRxEnabled) e.tcpPort = 0;
    e.sharedMemName = c.sMemImgName;
    if (!parseFileMode(c.sMemImgMode, e.sharedMemMode)) {
        error = "sMemImgMode = \"" + c.sMemImgMode + "\" is not a mode: write octal permission bits such as 0600";
        return false;
    }
    out = e;
    return true;
}

}  // namespace orvports
