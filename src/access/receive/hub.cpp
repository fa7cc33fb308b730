// PRA, hub and NFT packets. The service loop has checked their framing
// (except for hub error packets); fields a short packet does not cover read
// as zeros.
#include <cstring>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"

namespace orvwire {

const char* processHubDataPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    s_OrvAccessHubData rec{};
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    decodeHub(r, rec);
    OrvUtil::cbn2Euler(rec.cbn, rec.euler);
    s.hubData.push(rec, s.cfg.verbosity);
    return nullptr;
}

// These arrive unchecked, whatever their length.
const char* processHubErrPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    HubError e{};
    decodeHubError(r, e);
    if (e.code != 0) s.addErrorCode(static_cast<unsigned short>(e.code | ORVACCESS_ORIGIN_ORVHUB), e.value);
    return nullptr;
}

const char* processPraPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    s_OrvAccessPoseRecStats rec{};
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    decodePra(r, rec);
    s.poseRec.push(rec, s.cfg.verbosity, "Pose Recovery data queue overflow");
    return nullptr;
}

const char* processNftDataPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    const unsigned int verbosity = s.cfg.verbosity;
    s_OrvAccessTrkDataExt rec{};
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    decodeNft(r, rec);
    OrvUtil::cbn2Euler(rec.cbn, rec.euler);
    // The count is the header's last field, which the record does not keep.
    r.seek(endOf(kNftFields) - fieldSize(typeOf(kNftFields, "featureCount"), 1));
    const uint32_t count = r.u32();

    // The features and the triple after them may run past the packet's end
    // (the sender keeps them consistent; they then read as zeros), but not
    // past what any datagram can hold. Decided before anything is queued;
    // 64-bit arithmetic, as the count is the wire's.
    if (!r.has((static_cast<uint64_t>(count) + 1) * ORVWIRE_NFT_FEATURE_SIZE))
        return "Feature count beyond buffer";

    // Room for the whole packet at once, one more than its features.
    s.features.makeRoom(verbosity, static_cast<size_t>(count) + 1);
    OrvAccess::s_FeatData feat{};
    feat.sequenceId = rec.packetTag;
    feat.valid = 1;
    for (uint32_t i = 0; i < count; ++i) {
        feat.index = i;
        r.f32s(feat.position, 3);
        s.features.append(feat);
    }
    decodeNftTail(r, rec);

    s.tracking.push(rec, verbosity);
    s.latestTrackingValid = true;
    s.latestTracking = rec;
    return nullptr;
}

}  // namespace orvwire

bool OrvAccess::getFeatureData(bool* valid, s_FeatData* data) {
    return popRecord(st_->features, valid, data);
}

bool OrvAccess::getHubData(bool* valid, s_OrvAccessHubData* data) {
    return popRecord(st_->hubData, valid, data);
}
