#include "orvsim/Wire.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include "wire/Wire.hpp"
#include "wire/OrvosiCursor.hpp"

namespace orvsim {

namespace {

constexpr size_t kMaxDatagram = ORVWIRE_MAX_DATAGRAM;
constexpr size_t kSmall = 256;  // room for every fixed-size packet and subpacket

// A framed packet under construction in a buffer of the given capacity:
// start byte, length field filled in when finished, checksum byte last.
class Packet {
public:
    explicit Packet(unsigned char start, size_t capacity = kSmall)
        : buf_(std::min(capacity, kMaxDatagram)), w(buf_.data(), buf_.size()) {
        w.u8(start);
        w.u16(0);
    }
    Datagram finish(const char* what) {
        w.patch16(1, w.pos() + 1);
        w.seal();
        if (!w.ok()) throw std::length_error(std::string(what) + " does not fit its packet");
        buf_.resize(w.pos());
        return std::move(buf_);
    }
    void f32s(const float* v, size_t n) {
        for (size_t i = 0; i < n; ++i) w.f32(v[i]);
    }
    // The bytes written so far, for fields filled in after what follows them.
    unsigned char* raw() { return buf_.data(); }

private:
    Datagram buf_;

public:
    OrvosiWriter w;
};

void require(bool condition, const char* what) {
    if (!condition) throw std::length_error(what);
}

void writeStats(OrvosiWriter& w, const s_OrvAccessPoseRecStats& s, bool pra) {
    auto put = [&w](const float* v, size_t n) {
        for (size_t i = 0; i < n; ++i) w.f32(v[i]);
    };
    if (pra) {
        w.u8(static_cast<unsigned char>(s.flagA));
        w.u8(static_cast<unsigned char>(s.stat0));
        w.u8(static_cast<unsigned char>(s.stat1));
        w.u8(static_cast<unsigned char>(s.stat2));
        w.f32(s.value0);
        put(s.vec1, 3);
        put(s.vec2, 3);
        put(s.vec3, 3);
        put(s.vec4, 3);
        for (int i = 0; i < 6; ++i) w.u32(s.extra[i]);  // vectors B and C as float bits
        w.f32(s.value3);
        w.f32(s.value4);
        w.f32(s.value5);
        for (int i = 6; i < 36; ++i) w.u32(s.extra[i]);  // sixty 16-bit counts
        return;
    }
    w.u8(static_cast<unsigned char>(s.stat0));
    w.u8(static_cast<unsigned char>(s.stat1));
    w.u8(static_cast<unsigned char>(s.stat2));
    w.u8(static_cast<unsigned char>(s.stat3));
    w.f32(s.value0);
    w.u8(s.flagA != 0 ? 1 : 0);
    w.u8(s.flagB != 0 ? 1 : 0);
    w.f32(s.value1);
    put(s.vec1, 3);
    put(s.vec2, 3);
    put(s.vec3, 3);
    put(s.vec4, 3);
    w.f32(s.value2);
    w.f32(s.value3);
    w.f32(s.value4);
    w.f32(s.value5);
}

}  // namespace

Datagram buildOpticalSubpacket(const Optical& o) {
    require(o.targets.size() <= 255, "more than 255 optical targets");
    Packet p(orvwire::kOptical.startByte, orvwire::kOptical.fixedSize +
                                              ORVWIRE_OPTICAL_TARGET_SIZE * o.targets.size() +
                                              ORVWIRE_OPTICAL_STATS_SIZE);
    p.w.u32(o.tag);
    p.w.u8(static_cast<unsigned char>(o.targets.size()));
    p.w.zeros(2);
    for (const OpticalTarget& t : o.targets) {
        p.w.u16(t.id);
        p.f32s(t.resid, 5);
    }
    if (o.stats) writeStats(p.w, *o.stats, false);
    return p.finish("optical subpacket");
}

Datagram buildPlatPoseSubpacket(const s_OrvAccessPlatPoseData& pose) {
    Packet p(orvwire::kPlatPose.startByte);
    p.w.u32(pose.tag);
    p.w.u8(ORVWIRE_PLATPOSE_FORMAT3);
    p.f32s(pose.pose, 3);
    return p.finish("platform pose");
}

Datagram buildDiagSubpacket(const s_OrvAccessDiagData& d) {
    Packet p(orvwire::kDiag.startByte);
    p.w.u32(d.tag);
    p.w.f32(d.diagValue1);
    p.w.u24(d.diagCount);
    p.w.u8(d.diagByte1);
    p.w.f32(d.diagValue2);
    p.w.u8(d.diagByte2);
    p.w.bytes(d.errorCodes, 4);
    p.w.u8(static_cast<unsigned char>(d.state));
    p.w.bytes(d.optional, 4);
    return p.finish("diagnostic");
}

Datagram buildGpsSubpacket(const s_OrvAccessGpsData& g) {
    Packet p(orvwire::kGps.startByte);
    p.w.u8(ORVWIRE_GPS_FORMAT);
    p.w.u32(g.gpsWord1);
    p.w.f64(g.lat);
    p.w.f64(g.lon);
    p.w.f32(g.gpsValue1);
    p.w.u16(g.gpsHalf);
    p.w.u8(g.gpsByte1);
    p.w.f32(g.gpsValue2);
    p.w.f32(g.gpsValue3);
    p.w.u32(g.gpsWord2);
    p.w.f64(g.gpsDouble1);
    p.w.f64(g.gpsDouble2);
    p.w.f32(g.gpsValue4);
    p.w.f32(g.gpsValue5);
    p.w.f32(g.gpsValue6);
    p.w.u8(static_cast<unsigned char>(g.gpsByte2));
    return p.finish("GPS");
}

Datagram buildTracking(const s_OrvAccessTrkDataExt& r, const Optical* optical) {
    return buildTracking(r, optical != nullptr ? buildOpticalSubpacket(*optical) : Datagram());
}

Datagram buildTracking(const s_OrvAccessTrkDataExt& r, const Datagram& sub) {
    Packet p(orvwire::kTracking.startByte, orvwire::kTracking.fixedSize + sub.size());
    OrvosiWriter& w = p.w;
    w.u32(r.packetTag);
    w.u64(r.poseTime);
    w.u32(r.platPoseTime);
    w.u32(r.statusWord);
    for (const float* v : {r.vecA, r.vecB, r.vecC, r.vecD, r.vecE, r.vecF}) p.f32s(v, 3);
    w.u16(r.countA);
    w.u16(r.countB);
    p.f32s(r.cbn[0], 9);
    for (const float* v : {r.position, r.vecG, r.vecH, r.angularRate, r.vecI}) p.f32s(v, 3);
    p.f32s(r.cbn2[0], 9);
    p.f32s(r.vecJ, 3);
    p.f32s(r.vecK, 3);
    w.u64(r.time2);
    p.f32s(r.vecL, 3);
    p.f32s(r.vecM, 3);
    w.f32(r.scalarA);
    w.f32(r.scalarB);
    w.bytes(r.errorCodes, 4);
    p.f32s(r.vecN, 3);
    p.f32s(r.vecO, 3);
    w.zeros(8);
    w.bytes(sub.data(), sub.size());
    return p.finish("tracking packet");
}

Datagram buildPra(const s_OrvAccessPoseRecStats& rec) {
    Packet p(orvwire::kPra.startByte);
    p.w.u32(rec.tag);
    writeStats(p.w, rec, true);
    return p.finish("PRA packet");
}

Datagram buildHubData(const s_OrvAccessHubData& r) {
    Packet p(orvwire::kHubData.startByte);
    p.w.u32(r.word);
    p.w.zeros(3);
    p.w.u8(r.status);
    p.w.u16(r.halfWord);
    p.w.u32(r.words[0]);
    p.w.u32(r.words[1]);
    p.w.u64(r.time);
    p.f32s(r.cbn[0], 9);
    p.f32s(r.vec[0], 21);
    p.w.u8(r.lastByte);
    return p.finish("hub data packet");
}

Datagram buildHubError(uint32_t value, uint8_t code) {
    Packet p(orvwire::kHubError.startByte);
    p.w.u32(value);
    p.w.u8(0);
    p.w.u8(code);
    return p.finish("hub error packet");
}

Datagram buildNft(const s_OrvAccessTrkDataExt& r, const std::vector<std::array<float, 3>>& features) {
    Packet p(orvwire::kNft.startByte, orvwire::kNft.fixedSize + ORVWIRE_NFT_FEATURE_SIZE * features.size());
    p.w.u32(r.packetTag);
    p.w.u64(r.poseTime);
    p.f32s(r.cbn[0], 9);
    for (const float* v : {r.position, r.vecG, r.vecH, r.angularRate, r.vecJ}) p.f32s(v, 3);
    p.f32s(r.extB, 6);
    p.w.u8(static_cast<unsigned char>(r.countA));
    p.w.u32(features.size());
    for (const auto& f : features) p.f32s(f.data(), 3);
    p.f32s(r.extD, 3);
    return p.finish("NFT packet");
}

Datagram buildChipPacket(const ChipSample& c) {
    require(c.type == 3 || c.type == 20, "chip packet type other than 3 or 20");
    Datagram buf(32);
    OrvosiWriter w(buf.data(), buf.size());
    w.u8(orvwire::kImu.startByte);
    w.u8(c.type);
    w.u8(c.pid);
    w.u8(c.status);
    if (c.type == 20) w.u8(0);  // second status byte
    w.u16(c.word);
    for (uint16_t g : c.gyroRaw) w.u16(g);
    for (uint16_t a : c.accelRaw) w.u16(a);
    if (c.type == 20) {
        w.zeros(6);                 // one magnetometer axis, two scalars
        w.u8(c.hasAux ? 0x20 : 0);  // top three bits: the auxiliary byte is valid
        w.u8(c.aux);
        w.zeros(4);
    }
    w.seal();
    buf.resize(w.pos());
    return buf;
}

Datagram buildMeta(const MetaContent& m) {
    MetaSubpackets subs;
    if (m.platPose) subs[0] = buildPlatPoseSubpacket(*m.platPose);
    if (m.target) subs[1] = *m.target;
    if (m.diag) subs[2] = buildDiagSubpacket(*m.diag);
    if (m.gps) subs[3] = buildGpsSubpacket(*m.gps);
    return buildMeta(m.tag, m.interval, m.time, m.interval > 0.0f ? buildChipPacket(m.imu) : Datagram(),
                     subs);
}

Datagram buildMeta(uint32_t tag, float interval, uint64_t time, const Datagram& chip,
                   const MetaSubpackets& subs) {
    size_t size = kSmall + chip.size();
    for (const Datagram& sub : subs) size += sub.size();
    Packet p(orvwire::kMeta.startByte, size);
    OrvosiWriter& w = p.w;
    w.u32(tag);
    w.u8(0);
    w.f32(interval);
    w.u8(0);
    w.zeros(ORVWIRE_META_TIME_AT - w.pos());  // the subpackets' offsets, patched below
    w.u64(time);
    w.bytes(chip.data(), chip.size());
    static_assert(std::tuple_size<MetaSubpackets>::value == std::size(orvwire::kMetaSlots),
                  "one subpacket per slot of the meta header");
    for (size_t i = 0; i < subs.size(); ++i) {
        if (subs[i].empty()) continue;
        const orvwire::MetaSlot& slot = orvwire::kMetaSlots[i];
        const size_t at = w.pos();
        require(at < (size_t{1} << (8 * slot.offsetWidth)), "meta subpacket beyond the reach of its offset");
        w.bytes(subs[i].data(), subs[i].size());
        OrvosiUtil::lendian(p.raw() + slot.offsetAt, at, slot.offsetWidth);
    }
    return p.finish("meta packet");
}

std::vector<Datagram> buildTargetSubpackets(const std::vector<OrvAccess::s_TgtData>& list,
                                            size_t perSubpacket) {
    require(perSubpacket > 0 && perSubpacket <= 255, "target entries per subpacket outside 1..255");
    require(list.size() <= 65535, "more than 65535 targets");
    static const OrvAccess::s_TgtData kNone{};
    std::vector<Datagram> out;
    size_t first = 0;
    do {
        const size_t n = std::min(perSubpacket, list.size() - first);
        const OrvAccess::s_TgtData& head = n > 0 ? list[first] : kNone;
        Packet p(orvwire::kTarget.startByte, orvwire::kTarget.fixedSize + ORVWIRE_TARGET_ENTRY_SIZE * n);
        p.w.u32(head.tag);
        p.w.u8(static_cast<unsigned char>(n));
        p.w.u8(static_cast<unsigned char>(head.hdrByte));
        p.w.u8(0);
        p.w.u16(list.size());
        p.w.u16(first);
        for (size_t i = first; i < first + n; ++i) {
            const OrvAccess::s_TgtData& t = list[i];
            p.w.u8(static_cast<unsigned char>(t.kind));
            p.w.u16(t.id);
            p.w.u16(t.word1);
            p.w.u16(t.word2);
            p.w.u16(t.word3);
            p.w.u16(t.word4);
            for (float v : {t.value1, t.value2, t.value3, t.value4, t.value5, t.value6}) p.w.f32(v);
        }
        p.w.u8(static_cast<unsigned char>(head.trailer));
        out.push_back(p.finish("target subpacket"));
        first += n;
    } while (first < list.size());
    return out;
}

std::vector<Datagram> buildImagePieces(uint32_t sequenceId, uint8_t format, const unsigned char* pixels,
                                       size_t size, size_t pieceSize) {
    require(pieceSize > 0 && pieceSize <= kMaxDatagram - 12, "image piece size outside 1..65523");
    require(size <= 0xFFFFFF, "image larger than a 24-bit address");
    std::vector<Datagram> out;
    for (size_t at = 0; at < size; at += pieceSize) {
        const size_t n = std::min(pieceSize, size - at);
        Packet p(orvwire::kImage.startByte, n + orvwire::kImage.fixedSize);
        p.w.u32(sequenceId);
        p.w.u8(format);
        p.w.u24(at);
        p.w.bytes(pixels + at, n);
        out.push_back(p.finish("image piece"));
    }
    return out;
}

}  // namespace orvsim
