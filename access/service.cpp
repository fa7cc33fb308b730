// The UDP service loop: drain every open port and dispatch each datagram.
#include <poll.h>

#include <cstddef>
#include <cstdint>

#include "access/State.hpp"

namespace {

using Parser = void (OrvAccess::*)(const unsigned char*);

// The receiving endpoints in the order every pass visits them.
enum PortId { kMeta, kImage, kCore, kHub, kNft, kPortCount };

struct Port {
    OrvosiUdpClient OrvAccess::State::*endpoint;
    bool OrvAccess::State::*open;
    const char* readErrorLabel;
};

constexpr Port kPorts[kPortCount] = {
    {&OrvAccess::State::meta, &OrvAccess::State::metaOpen, "Error receiving from orvRx: "},
    {&OrvAccess::State::image, &OrvAccess::State::imageOpen, "Error receiving from image port: "},
    {&OrvAccess::State::core, &OrvAccess::State::coreOpen, "Error receiving from orvCore: "},
    {&OrvAccess::State::hub, &OrvAccess::State::hubOpen, "Error receiving from orvHub: "},
    {&OrvAccess::State::nft, &OrvAccess::State::nftOpen, "Error receiving from NFT: "},
};

constexpr int kAnyByte = -1;  // a row that takes whatever the first byte is
constexpr int kNoCheck = -1;  // a row whose datagrams skip the framing check

// How one kind of datagram is handled. The first row of a port whose
// firstByte matches wins; a datagram that matches no row is dropped unseen.
struct Route {
    PortId port;
    int firstByte;
    int startByte;  // what the framing check expects, or kNoCheck
    Parser parser;
    uint32_t receivedBit;
    unsigned short errorCode;  // queued when the check fails
    unsigned int logChannel;   // 0: never logged
    unsigned int dumpBit;
    const char* infoText;
    const char* problemText;
};

const Route* findRoute(const Route* routes, size_t count, PortId port, unsigned char firstByte) {
    for (size_t i = 0; i < count; ++i) {
        const Route& r = routes[i];
        if (r.port == port && (r.firstByte == kAnyByte || r.firstByte == firstByte)) return &r;
    }
    return nullptr;
}

// Handles the n bytes in s.rx. False when the datagram does not count as
// received (no row took it).
bool dispatch(OrvAccess& access, OrvAccess::State& s, const Route* route, unsigned long n) {
    if (route == nullptr) return false;
    const unsigned char* buf = s.rx;
    const unsigned int verbosity = s.cfg.verbosity;
    // Both hub rows share their text, so the hub line reads the same as if it
    // were written before the first byte picked the row.
    OrvUtil::infoLine(verbosity, route->infoText, n);
    // Dumped before the check, so that bad datagrams can be seen too.
    if (verbosity & route->dumpBit) OrvUtil::dumpBuf(buf, n, route->dumpBit);
    if (route->startByte != kNoCheck &&
        !OrvUtil::udpPktOk(buf, n, static_cast<unsigned char>(route->startByte))) {
        // Tested here so that the text is only copied when the line is written.
        if (verbosity & OrvUtil::kVerbLog)
            OrvUtil::logLine(verbosity, route->problemText, OrvUtil::getLastError());
        access.addErrorCode(route->errorCode, 0);
        return true;
    }
    if (s.cfg.logging & route->logChannel) OrvUtil::logBuf(buf, n, route->logChannel, s.cfg.logPath);
    s.packetRefused = false;
    (access.*(route->parser))(buf);
    if (!s.packetRefused) s.receivedMask |= route->receivedBit;
    return true;
}

}  // namespace

// Readiness: every pass starts with one poll() over the open sockets, and only
// the sockets it reports get a recvfrom(). A datagram pending when a pass
// starts is thus read in that pass, exactly as if every socket were read, and
// a quiet socket costs nothing beyond its slot in the poll. Reading one busy
// socket until it runs dry on a single poll would be cheaper still, but would
// keep the other ports waiting behind it for as long as it keeps delivering.
bool OrvAccess::serviceUdp(bool startStreaming) {
    State& s = *st_;
    if (!s.isOpen) {
        s.fail("Unable to service UDP: Interface not open", true);
        return false;
    }
    const uint32_t rxStateBefore = s.rxState;
    if (startStreaming) setStreaming(true);

    // Here, inside a member, because most parsers are private.
    static constexpr Route kRoutes[] = {
        {kMeta, kAnyByte, 19, &OrvAccess::processMetaPkt, 0x2, 772, 0x2, 0x2000,
         "Received orvRx meta packet, size ", "Problem with meta packet: "},
        {kImage, kAnyByte, 7, &OrvAccess::processImagePkt, 0x4, 771, 0, 0x4000,
         "Received image packet, size ", "Problem with image packet: "},
        {kCore, 10, 10, &OrvAccess::processTrackingPkt, 0x10, 770, 0x1, 0x1000,
         "Received orvCore packet, size ", "Problem with orvCore packet: "},
        {kCore, 15, 15, &OrvAccess::processPraPkt, 0x100, 784, 0x4000, 0x80000, "Received PRA packet, size ",
         "Problem with PRA packet: "},
        // Hub error reports are taken as they come, unchecked, and set no bit.
        {kHub, 12, kNoCheck, &OrvAccess::processHubErrPkt, 0, 0, 0x1000, 0x20000,
         "Received orvHub packet, size ", ""},
        {kHub, kAnyByte, 11, &OrvAccess::processHubDataPkt, 0x20, 781, 0x1000, 0x20000,
         "Received orvHub packet, size ", "Problem with hub packet: "},
        {kNft, kAnyByte, 14, &OrvAccess::processNftDataPkt, 0x80, 782, 0x2000, 0x40000,
         "Received NFT packet, size ", "Problem with NFT packet: "},
    };
    constexpr size_t kRouteCount = sizeof kRoutes / sizeof kRoutes[0];

    pollfd fds[kPortCount];
    PortId ids[kPortCount];
    nfds_t count = 0;
    for (int p = 0; p < kPortCount; ++p) {
        if (!(s.*(kPorts[p].open))) continue;
        fds[count] = pollfd{(s.*(kPorts[p].endpoint)).descriptor(), POLLIN, 0};
        ids[count] = static_cast<PortId>(p);
        ++count;
    }

    bool ok = true;
    for (bool received = true; received && ok;) {
        received = false;
        // Should poll itself fail, every open socket is read, as without it.
        const int ready = count > 0 ? ::poll(fds, count, 0) : 0;
        if (ready == 0) break;
        for (nfds_t i = 0; i < count; ++i) {
            if (ready > 0 && fds[i].revents == 0) continue;
            const Port& port = kPorts[ids[i]];
            OrvosiUdpClient& endpoint = s.*(port.endpoint);
            int n = 0;
            if (!endpoint.read(reinterpret_cast<char*>(s.rx), kReceiveBufferSize, &n)) {
                s.lastError = port.readErrorLabel;
                s.lastError += endpoint.getLastError();
                ok = false;
                break;
            }
            if (n <= 0) continue;
            const Route* route = findRoute(kRoutes, kRouteCount, ids[i], s.rx[0]);
            if (dispatch(*this, s, route, static_cast<unsigned long>(n))) received = true;
        }
    }

    if (!ok) OrvUtil::errLine(s.cfg.verbosity, s.lastError);
    // orvRx reporting state 3 has stopped streaming; the next getter restarts it.
    if (s.rxState != rxStateBefore && s.rxState == 3) s.streaming = false;
    return ok;
}

// The hub port is left alone: hub packets survive a flush.
void OrvAccess::flushUdp() {
    State& s = *st_;
    if (s.metaOpen) s.meta.flush();
    if (s.imageOpen) s.image.flush();
    if (s.coreOpen) s.core.flush();
    if (s.nftOpen) s.nft.flush();
}
