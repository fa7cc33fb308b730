#include "orvsim/Wire.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

#include "access/receive/Dispatch.hpp"
#include "wire/Chip.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"
#include "wire/Packets.hpp"

namespace orvsim {

namespace {

using orvwire::kMaxDatagram;
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

private:
    Datagram buf_;

public:
    OrvosiWriter w;
};

void require(bool condition, const char* what) {
    if (!condition) throw std::length_error(what);
}

}  // namespace

Datagram buildOpticalSubpacket(const Optical& o) {
    require(o.targets.size() <= 255, "more than 255 optical targets");
    Packet p(orvwire::kOptical.startByte, orvwire::kOptical.fixedSize +
                                              ORVWIRE_OPTICAL_TARGET_SIZE * o.targets.size() +
                                              ORVWIRE_OPTICAL_STATS_SIZE);
    orvwire::encodeOptical(p.w, orvwire::OpticalHeader{o.tag, static_cast<uint8_t>(o.targets.size())});
    for (const OpticalTarget& t : o.targets) orvwire::encodeOpticalTarget(p.w, t);
    if (o.stats) orvwire::encodeStats(p.w, *o.stats);
    return p.finish("optical subpacket");
}

Datagram buildPlatPoseSubpacket(const s_OrvAccessPlatPoseData& pose) {
    Packet p(orvwire::kPlatPose.startByte);
    orvwire::encodeUplinkPose(
        p.w, orvwire::UplinkPose{pose.tag, ORVWIRE_PLATPOSE_FORMAT3, {pose.pose[0], pose.pose[1], pose.pose[2]}});
    return p.finish("platform pose");
}

Datagram buildDiagSubpacket(const s_OrvAccessDiagData& d) {
    Packet p(orvwire::kDiag.startByte);
    orvwire::encodeDiag(p.w, d);
    orvwire::encodeDiagOptional(p.w, d);
    return p.finish("diagnostic");
}

Datagram buildGpsSubpacket(const s_OrvAccessGpsData& g) {
    Packet p(orvwire::kGps.startByte);
    s_OrvAccessGpsData sent = g;
    sent.valid = ORVWIRE_GPS_FORMAT;
    orvwire::encodeGps(p.w, sent);
    orvwire::encodeGpsBody(p.w, sent);
    return p.finish("GPS");
}

Datagram buildTracking(const s_OrvAccessTrkDataExt& r, const Optical* optical) {
    return buildTracking(r, optical != nullptr ? buildOpticalSubpacket(*optical) : Datagram());
}

Datagram buildTracking(const s_OrvAccessTrkDataExt& r, const Datagram& sub) {
    Packet p(orvwire::kTracking.startByte, orvwire::kTracking.fixedSize + sub.size());
    orvwire::encodeTracking(p.w, r);
    p.w.bytes(sub.data(), sub.size());
    return p.finish("tracking packet");
}

Datagram buildPra(const s_OrvAccessPoseRecStats& rec) {
    Packet p(orvwire::kPra.startByte);
    orvwire::encodePra(p.w, rec);
    return p.finish("PRA packet");
}

Datagram buildHubData(const s_OrvAccessHubData& r) {
    Packet p(orvwire::kHubData.startByte);
    orvwire::encodeHub(p.w, r);
    return p.finish("hub data packet");
}

Datagram buildHubError(uint32_t value, uint8_t code) {
    Packet p(orvwire::kHubError.startByte);
    orvwire::encodeHubError(p.w, orvwire::HubError{value, code});
    return p.finish("hub error packet");
}

Datagram buildNft(const s_OrvAccessTrkDataExt& r, const std::vector<std::array<float, 3>>& features) {
    Packet p(orvwire::kNft.startByte, orvwire::kNft.fixedSize + ORVWIRE_NFT_FEATURE_SIZE * features.size());
    orvwire::encodeNft(p.w, r);
    // The count is the header's last field, which the record does not keep.
    p.w.patch(orvwire::offsetOf(orvwire::kNftFields, "featureCount"), features.size(),
              orvwire::fieldSize(orvwire::typeOf(orvwire::kNftFields, "featureCount"), 1));
    for (const auto& f : features) p.f32s(f.data(), 3);
    orvwire::encodeNftTail(p.w, r);
    return p.finish("NFT packet");
}

Datagram buildChipPacket(const ChipSample& c) {
    require(c.type == orvwire::kChipTypeImu || c.type == orvwire::kChipTypeImuAux,
            ("chip packet type other than " + std::to_string(orvwire::kChipTypeImu) + " or " +
             std::to_string(orvwire::kChipTypeImuAux))
                .c_str());
    const unsigned int mask = OrvwireChip::GetPacketMask(c.type);
    Datagram buf(OrvwireChip::GetBvPacketLength(c.type));
    OrvosiWriter w(buf.data(), buf.size());
    w.u8(orvwire::kImu.startByte);
    w.u8(c.type);
    w.u8(c.pid);
    // The fields the type's mask names, in the chip's order; those the
    // sample does not model go out as zeros.
    for (const orvwire::ChipField& f : orvwire::kChipFields) {
        if (!(mask & f.bit)) continue;
        switch (f.bit) {
        case orvwire::kChipStatus: w.u8(c.status); break;
        case orvwire::kChipWord: w.u16(c.word); break;
        case orvwire::kChipGyro: for (uint16_t g : c.gyroRaw) w.u16(g); break;
        case orvwire::kChipAccel: for (uint16_t a : c.accelRaw) w.u16(a); break;
        case kBrevantMaskAux:
            w.u8(c.hasAux ? 0x20 : 0);  // top three bits: the auxiliary byte is valid
            w.u8(c.aux);
            w.zeros(f.bytes - 2);
            break;
        default: w.zeros(f.bytes); break;
        }
    }
    w.zeros(buf.size() - 1 - w.pos());  // bytes of the type that carry no field
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
    orvwire::MetaHeader header{};  // the subpackets' offsets are patched below
    header.tag = tag;
    header.interval = interval;
    header.time = time;
    orvwire::encodeMeta(w, header);
    w.bytes(chip.data(), chip.size());
    static_assert(std::tuple_size<MetaSubpackets>::value == std::size(orvwire::kMetaSlots),
                  "one subpacket per slot of the meta header");
    for (size_t i = 0; i < subs.size(); ++i) {
        if (subs[i].empty()) continue;
        const orvwire::MetaSlot& slot = orvwire::kMetaSlots[i];
        const size_t at = w.pos();
        require(at < (size_t{1} << (8 * slot.offsetWidth)), "meta subpacket beyond the reach of its offset");
        w.bytes(subs[i].data(), subs[i].size());
        p.w.patch(slot.offsetAt, at, slot.offsetWidth);
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
        orvwire::encodeTarget(p.w, orvwire::TargetHeader{head.tag, static_cast<uint8_t>(n),
                                                         static_cast<uint8_t>(head.hdrByte),
                                                         static_cast<uint16_t>(list.size()),
                                                         static_cast<uint16_t>(first)});
        for (size_t i = first; i < first + n; ++i) orvwire::encodeTargetEntry(p.w, list[i]);
        p.w.u8(static_cast<unsigned char>(head.trailer));
        out.push_back(p.finish("target subpacket"));
        first += n;
    } while (first < list.size());
    return out;
}

std::vector<Datagram> buildImagePieces(uint32_t sequenceId, uint8_t format, const unsigned char* pixels,
                                       size_t size, size_t pieceSize) {
    require(pieceSize > 0 && pieceSize <= orvwire::kMaxImagePiece,
            ("image piece size outside 1.." + std::to_string(orvwire::kMaxImagePiece)).c_str());
    require(size <= 0xFFFFFF, "image larger than a 24-bit address");
    std::vector<Datagram> out;
    for (size_t at = 0; at < size; at += pieceSize) {
        const size_t n = std::min(pieceSize, size - at);
        Packet p(orvwire::kImage.startByte, n + orvwire::kImage.fixedSize);
        orvwire::encodeImage(p.w, orvwire::ImageHeader{sequenceId, format, static_cast<uint32_t>(at)});
        p.w.bytes(pixels + at, n);
        out.push_back(p.finish("image piece"));
    }
    return out;
}

}  // namespace orvsim
