// Opening and closing every channel of the access object.
#include <cstdlib>

#include "access/State.hpp"

namespace {

// Opens one receiving endpoint when enabled; failures are only logged, so
// that one channel never stops the others.
bool openReceiver(OrvosiUdpClient& endpoint, bool enabled, const std::string& port, int32_t bufferSize,
                  const char* purpose, const char* disabledText, unsigned int verbosity) {
    if (!enabled) {
        OrvUtil::logLine(verbosity, disabledText);
        return false;
    }
    OrvUtil::logLine(verbosity, "Opening UDP port ", port, purpose);
    const bool ok = endpoint.open(port.c_str(), bufferSize, false);
    if (!ok)
        OrvUtil::logLine(verbosity, "Unable to open UDP port ", port, purpose, ": ", endpoint.getLastError());
    return ok;
}

}  // namespace

bool OrvAccess::open() {
    close();
    init();
    State& s = *st_;
    const OrvAccessConfig& c = s.cfg;
    const unsigned int v = c.verbosity;

    // A list that does not read must not end in taking every sender: nothing opens.
    std::string why;
    if (!s.senders.parse(c.udpAllowedSenders, why)) {
        s.fail("Unable to open: udpAllowedSenders " + why, true);
        return false;
    }
    if (s.senders.active()) OrvUtil::logLine(v, "Taking datagrams only from ", c.udpAllowedSenders);

    s.tcpOpen = false;
    if (c.tcpOrvRxEnabled) {
        OrvUtil::logLine(v, "Opening TCP connection ", c.tcpOrvRxAddr, ":", c.tcpOrvRxPort, " for orvRx");
        const int port = static_cast<int>(std::strtol(c.tcpOrvRxPort.c_str(), nullptr, 10));
        s.tcpOpen = s.tcp.open(c.tcpOrvRxAddr.c_str(), port, 0);
        if (!s.tcpOpen) OrvUtil::logLine(v, "Unable to open TCP connection: ", s.tcp.getLastError());
    } else {
        OrvUtil::logLine(v, "TCP connection disabled by user");
    }

    s.inputOpen = false;
    if (c.udpOrvRxInputPort != "0") {
        const std::string target = c.tcpOrvRxAddr + ":" + c.udpOrvRxInputPort;
        OrvUtil::logLine(v, "Opening UDP server ", target, " for orvRx input");
        s.inputOpen = s.input.open(target.c_str());
        if (!s.inputOpen)
            OrvUtil::logLine(v, "Unable to open UDP server ", target,
                             " for orvRx input: ", s.input.getLastError());
    } else {
        OrvUtil::logLine(v, "UDP input to orvRx disabled by user");
    }

    s.metaOpen = openReceiver(s.meta, c.udpOrvRxPort != "0", c.udpOrvRxPort, c.udpOrvRxRcvBufSize,
                              " for orvRx data", "UDP meta packet port (udpOrvRxPort) disabled by user", v);

    s.sharedMemOk = s.sharedMem && s.sharedMem->isOk();
    OrvUtil::logLine(v, "Shared memory interface ", s.sharedMemOk ? "ok" : "disabled");

    s.imageOpen = openReceiver(s.image, c.udpOrvRxImgPort != "0", c.udpOrvRxImgPort, c.udpOrvRxImgRcvBufSize,
                               " for orvRx images", "UDP image port (udpOrvRxImgPort) disabled by user", v);
    s.coreOpen =
        openReceiver(s.core, c.udpOrvCorePort != "0", c.udpOrvCorePort, c.udpOrvCoreRcvBufSize,
                     " for orvCore data", "UDP tracking data port (udpOrvCorePort) disabled by user", v);
    // The hub endpoint follows the orvCore setting, not its own port: a
    // disabled orvCore port disables both, and a hub port of "0" is opened
    // as it stands (an ephemeral port).
    s.hubOpen = openReceiver(s.hub, c.udpOrvCorePort != "0", c.udpOrvHubPort, c.udpOrvHubRcvBufSize,
                             " for orvHub data", "UDP orvHub data port (udpOrvHubPort) disabled by user", v);
    s.nftOpen = openReceiver(s.nft, c.udpNftPort != "0", c.udpNftPort, c.udpNftRcvBufSize, " for NFT data",
                             "UDP NFT data port (udpNftPort) disabled by user", v);

    s.prepareReadAhead();
    if (s.tcpOpen) {
        s.isOpen = true;
        // Believe streaming is on so that the stop command really goes out:
        // every open leaves orvRx not streaming.
        s.streaming = true;
        if (!setStreaming(false)) OrvUtil::logLine(v, s.lastError);
        return true;
    }
    if (s.metaOpen || s.imageOpen || s.coreOpen || s.hubOpen || s.nftOpen) {
        s.isOpen = true;
        s.streaming = true;
        return true;
    }
    s.lastError = "Unable to open any connections";
    return false;
}

bool OrvAccess::close() {
    State& s = *st_;
    if (s.isOpen) {
        OrvUtil::logLine(s.cfg.verbosity, "Closing");
        if (s.tcpOpen && !setStreaming(false)) OrvUtil::logLine(s.cfg.verbosity, s.lastError);
        s.closeEndpoints();
        s.img.release();
        OrvUtil::logClose();
    }
    s.isOpen = false;
    return true;
}
