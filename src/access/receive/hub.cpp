// PRA, hub and NFT packets. The service loop has checked their framing
// (except for hub error packets); fields a short packet does not cover read
// as zeros.
#include <cstring>

#include "access/State.hpp"
#include "wire/Wire.hpp"
#include "wire/OrvosiCursor.hpp"

namespace orvwire {

const char* processHubDataPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    s_OrvAccessHubData rec{};
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    rec.word = r.u32();
    // Bytes 7 to 9 carry nothing the library uses; the status byte follows them.
    r.skip(3);
    rec.status = r.u8();
    rec.halfWord = r.u16();
    rec.words[0] = r.u32();
    rec.words[1] = r.u32();
    rec.time = r.u64();
    r.f32s(&rec.cbn[0][0], 9);
    for (float* v : rec.vec) r.f32s(v, 3);
    rec.lastByte = r.u8();
    OrvUtil::cbn2Euler(rec.cbn, rec.euler);
    s.hubData.push(rec, s.cfg.verbosity);
    return nullptr;
}

// These arrive unchecked, whatever their length.
const char* processHubErrPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    const uint32_t value = r.u32();
    r.skip(1);
    const unsigned char code = r.u8();
    if (code != 0) s.addErrorCode(static_cast<unsigned short>(code | ORVACCESS_ORIGIN_ORVHUB), value);
    return nullptr;
}

const char* processPraPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    s_OrvAccessPoseRecStats rec{};
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    rec.tag = r.u32();
    rec.flagA = r.u8();
    rec.stat0 = r.u8();
    rec.stat1 = r.u8();
    rec.stat2 = r.u8();
    rec.value0 = r.f32();
    r.f32s(rec.vec1, 3);
    r.f32s(rec.vec2, 3);
    r.f32s(rec.vec3, 3);
    r.f32s(rec.vec4, 3);
    // Vectors B and C travel as the first six words of extra.
    for (int i = 0; i < 6; ++i) {
        const float f = r.f32();
        std::memcpy(&rec.extra[i], &f, sizeof f);
    }
    rec.value3 = r.f32();
    rec.value4 = r.f32();
    rec.value5 = r.f32();
    // Sixty 16-bit counts, two to a word with the first of a pair in the low
    // half: each word is simply the next four bytes read little-endian.
    for (int i = 6; i < 36; ++i) rec.extra[i] = r.u32();
    s.poseRec.push(rec, s.cfg.verbosity, "Pose Recovery data queue overflow");
    return nullptr;
}

const char* processNftDataPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    const unsigned int verbosity = s.cfg.verbosity;
    s_OrvAccessTrkDataExt rec{};
    OrvosiReader r(pkt);
    r.skip(ORVWIRE_HEADER_SIZE);
    rec.packetTag = r.u32();
    rec.poseTime = r.u64();
    r.f32s(&rec.cbn[0][0], 9);
    OrvUtil::cbn2Euler(rec.cbn, rec.euler);
    r.f32s(rec.position, 3);
    r.f32s(rec.vecG, 3);
    r.f32s(rec.vecH, 3);
    r.f32s(rec.angularRate, 3);
    r.f32s(rec.vecJ, 3);
    r.f32s(rec.extB, 3);
    r.f32s(rec.extB + 3, 3);
    rec.countA = r.u8();
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
    r.f32s(rec.extD, 3);

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
