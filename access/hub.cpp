// PRA, hub and NFT packets. The service loop has checked their framing
// (except for hub error packets) and hands them over in the receive buffer.
#include <cstring>

#include "access/State.hpp"
#include "osi/OrvosiCursor.hpp"

namespace {

// Bytes each parser reads at fixed offsets (the checksum is not read).
constexpr size_t kHubDataFields = 150;
constexpr size_t kHubErrFields = 9;
constexpr size_t kPraFields = 219;
constexpr size_t kNftHeader = 140;
constexpr size_t kTriple = 12;

constexpr unsigned short kBadHubPkt = 781;
constexpr unsigned short kBadNftPkt = 782;
constexpr unsigned short kBadPraPkt = 784;
constexpr unsigned short kHubOrigin = 0x400;

}  // namespace

void OrvAccess::processHubDataPkt(const unsigned char* pkt) {
    State& s = *st_;
    const size_t available = s.readable(pkt, pkt);
    if (available < kHubDataFields) {
        s.refusePacket("Problem with hub packet: ", "Fields beyond buffer", kBadHubPkt);
        return;
    }
    s_OrvAccessHubData rec{};
    OrvosiReader r(pkt, available);
    r.skip(3);
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
}

void OrvAccess::processHubErrPkt(const unsigned char* pkt) {
    State& s = *st_;
    // These arrive unchecked: a datagram shorter than its fields is read on
    // into the buffer, but never beyond it.
    const size_t available = s.readable(pkt, pkt);
    if (available < kHubErrFields) return;
    OrvosiReader r(pkt, available);
    r.skip(3);
    const uint32_t value = r.u32();
    r.skip(1);
    const unsigned char code = r.u8();
    if (code != 0) addErrorCode(static_cast<unsigned short>(code | kHubOrigin), value);
}

void OrvAccess::processPraPkt(const unsigned char* pkt) {
    State& s = *st_;
    const size_t available = s.readable(pkt, pkt);
    if (available < kPraFields) {
        s.refusePacket("Problem with PRA packet: ", "Fields beyond buffer", kBadPraPkt);
        return;
    }
    s_OrvAccessPoseRecStats rec{};
    OrvosiReader r(pkt, available);
    r.skip(3);
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
}

void OrvAccess::processNftDataPkt(const unsigned char* pkt) {
    State& s = *st_;
    const unsigned int verbosity = s.cfg.verbosity;
    const size_t available = s.readable(pkt, pkt);
    if (available < kNftHeader) {
        s.refusePacket("Problem with NFT packet: ", "Fields beyond buffer", kBadNftPkt);
        return;
    }
    s_OrvAccessTrkDataExt rec{};
    OrvosiReader r(pkt, available);
    r.skip(3);
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
    // (the sender keeps them consistent), but not past the buffer. Decided
    // before anything is queued. 64-bit arithmetic: count is the wire's.
    if (kNftHeader + (static_cast<uint64_t>(count) + 1) * kTriple > available) {
        s.refusePacket("Problem with NFT packet: ", "Feature count beyond buffer", kBadNftPkt);
        return;
    }

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
}

bool OrvAccess::getFeatureData(bool* valid, s_FeatData* data) {
    return popRecord(st_->features, valid, data);
}

bool OrvAccess::getHubData(bool* valid, s_OrvAccessHubData* data) {
    return popRecord(st_->hubData, valid, data);
}
