// The configuration reader on any file: every key ends up with its default
// or a value read from the file, the same whether or not what was read is
// echoed, and whatever queue bounds come out can be applied.
//
// Input: the file.
#include <cstring>

#include "access/Config.hpp"
#include "access/State.hpp"
#include "FuzzSupport.hpp"

namespace {

bool sameReal(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool same(const OrvAccessConfig& a, const OrvAccessConfig& b) {
    bool reals = sameReal(a.predictionS, b.predictionS);
    for (int i = 0; i < 3; ++i)
        reals = reals && sameReal(a.boresightRefRad[i], b.boresightRefRad[i]) &&
                sameReal(a.tipOffsetM[i], b.tipOffsetM[i]);
    return reals && a.verbosity == b.verbosity && a.logging == b.logging && a.logPath == b.logPath &&
           a.tcpOrvRxEnabled == b.tcpOrvRxEnabled && a.tcpOrvRxAddr == b.tcpOrvRxAddr &&
           a.tcpOrvRxPort == b.tcpOrvRxPort && a.udpOrvRxPort == b.udpOrvRxPort &&
           a.udpOrvRxImgPort == b.udpOrvRxImgPort && a.udpOrvRxInputPort == b.udpOrvRxInputPort &&
           a.udpOrvCorePort == b.udpOrvCorePort && a.udpOrvHubPort == b.udpOrvHubPort &&
           a.udpNftPort == b.udpNftPort && a.sMemImgName == b.sMemImgName &&
           a.udpOrvRxRcvBufSize == b.udpOrvRxRcvBufSize &&
           a.udpOrvRxImgRcvBufSize == b.udpOrvRxImgRcvBufSize &&
           a.udpOrvCoreRcvBufSize == b.udpOrvCoreRcvBufSize &&
           a.udpOrvHubRcvBufSize == b.udpOrvHubRcvBufSize && a.udpNftRcvBufSize == b.udpNftRcvBufSize &&
           a.virtualSyncCtrl == b.virtualSyncCtrl && a.imgBufSize == b.imgBufSize &&
           a.imuQueueSize == b.imuQueueSize && a.targetQueueSize == b.targetQueueSize &&
           a.trackingQueueSize == b.trackingQueueSize && a.gpsQueueSize == b.gpsQueueSize &&
           a.errorCodeQueueSize == b.errorCodeQueueSize && a.udpAllowedSenders == b.udpAllowedSenders &&
           a.sMemImgMode == b.sMemImgMode;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orvfuzz::silenceStreams();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = orvfuzz::scratchDir() + "orvaccess.ini";
    orvfuzz::writeScratchFile("orvaccess.ini", data, size);
    OrvAccessConfig quiet, echoed;
    const bool loaded = readConfig(path, quiet, false);
    orvfuzz::require(readConfig(path, echoed, true) == loaded, "the file loads either way");
    orvfuzz::require(same(quiet, echoed), "echoing what is read changes nothing read");

    // The bounds init() applies, on a state that has held others before.
    static OrvAccess::State* state = new OrvAccess::State();
    state->cfg = quiet;
    state->applyQueueBounds();
    // The sender list as open() reads it: a refused list leaves the filter off.
    std::string why;
    if (!state->senders.parse(quiet.udpAllowedSenders, why))
        orvfuzz::require(!state->senders.active() && !why.empty(), "a refused list says why and filters nothing");
    unsigned int mode = 0;
    if (parseFileMode(quiet.sMemImgMode, mode)) orvfuzz::require(mode <= 0777, "a mode has permission bits only");
    return 0;
}
