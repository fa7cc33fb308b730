// Builders of the datagrams the tracking system sends: each takes the
// library's public record (or the raw words the devices produce) and returns
// the exact bytes, framed and sealed, that the library parses back into an
// equal record. Builders throw std::length_error when the content does not
// fit its packet (a count beyond a one-byte field, an offset beyond 255 ...).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "wire/BrevantData.hpp"

namespace orvsim {

using Datagram = std::vector<unsigned char>;

// ---- tracking (orvCore) -------------------------------------------------

struct OpticalTarget {
    uint16_t id = 0;
    float resid[5] = {};
};

// The optical measurement fused into a pose: the residual of every target
// seen and, optionally, pose-recovery statistics (fields tag to value5; the
// flags travel as 0 or 1, extra is not carried).
struct Optical {
    uint32_t tag = 0;
    std::vector<OpticalTarget> targets;  // at most 255
    std::optional<s_OrvAccessPoseRecStats> stats;
};

// Every field the packet carries; euler, extA to extD are not sent.
Datagram buildTracking(const s_OrvAccessTrkDataExt& rec, const Optical* optical = nullptr);
// The same followed by a subpacket given as bytes, sent as they are.
Datagram buildTracking(const s_OrvAccessTrkDataExt& rec, const Datagram& subpacket);
Datagram buildOpticalSubpacket(const Optical& optical);

// A pose-recovery packet: tag, stat0..2, value0, flagA (low bytes), vec1..4,
// value3..5 and all 36 words of extra (words 0-5 as their float bits).
Datagram buildPra(const s_OrvAccessPoseRecStats& rec);

// ---- orvHub and NFT -----------------------------------------------------

Datagram buildHubData(const s_OrvAccessHubData& rec);  // euler is not sent
Datagram buildHubError(uint32_t value, uint8_t code);

// An NFT packet: packetTag, poseTime, cbn, position, vecG, vecH,
// angularRate, vecJ, extB, the low byte of countA, the features, extD.
Datagram buildNft(const s_OrvAccessTrkDataExt& rec, const std::vector<std::array<float, 3>>& features);

// ---- orvRx meta packets -------------------------------------------------

// One sample of the inertial chip, as raw words. Type 3 carries status,
// word, gyro and accelerometer; type 20 also the auxiliary byte.
struct ChipSample {
    uint8_t type = 3;                           // 3 or 20
    uint8_t pid = 0;                            // counts 0..255 and wraps
    uint8_t status = 0;                         // kBrevantStatusClock: the clock-relation bit
    uint16_t word = 0;
    uint16_t gyroRaw[3] = {};   // signed increments, 3.90625e-5 per count
    uint16_t accelRaw[3] = {};  // signed increments, 6.25e-6 per count
    bool hasAux = false;        // type 20: the auxiliary byte is valid
    uint8_t aux = 0;
};

// The chip packet itself (19 bytes for type 3, 32 for type 20), sealed.
Datagram buildChipPacket(const ChipSample& chip);

// A meta packet. The chip sample is sent when the interval is above 0; each
// optional subpacket is placed after it in a fixed order (platform pose,
// target, diagnostic, GPS). The target subpacket comes ready built from
// buildTargetSubpackets.
struct MetaContent {
    uint32_t tag = 0;
    float interval = 0.0f;  // s
    uint64_t time = 0;      // us
    ChipSample imu;
    std::optional<s_OrvAccessPlatPoseData> platPose;  // sent as format 3
    std::optional<Datagram> target;
    std::optional<s_OrvAccessDiagData> diag;  // all four optional bytes sent
    std::optional<s_OrvAccessGpsData> gps;    // sent as format 1; valid is not sent
};

Datagram buildMeta(const MetaContent& meta);

// A meta packet around packets given as bytes, sent as they are: the chip
// packet (whatever the interval) and the subpackets in the order platform
// pose, target, diagnostic, GPS; an empty one is absent.
using MetaSubpackets = std::array<Datagram, 4>;
Datagram buildMeta(uint32_t tag, float interval, uint64_t time, const Datagram& chip,
                   const MetaSubpackets& subpackets);

// The subpackets of a meta packet, one by one; the GPS subpacket is also
// what an application sends upward.
Datagram buildPlatPoseSubpacket(const s_OrvAccessPlatPoseData& pose);  // format 3
Datagram buildDiagSubpacket(const s_OrvAccessDiagData& diag);          // all four optional bytes
Datagram buildGpsSubpacket(const s_OrvAccessGpsData& gps);             // format 1; valid is not sent

// Splits a target list into subpackets of at most perSubpacket entries
// (above 0); an empty list yields one empty, closing subpacket. An entry's
// index is its position in the list; each subpacket's tag, header byte and
// trailer come from its first entry.
std::vector<Datagram> buildTargetSubpackets(const std::vector<OrvAccess::s_TgtData>& list,
                                            size_t perSubpacket);

// ---- images ---------------------------------------------------------------

// Cuts an image into image packets of at most pieceSize pixel bytes (1 to
// orvwire::kMaxImagePiece), addressed by their offset in the image.
std::vector<Datagram> buildImagePieces(uint32_t sequenceId, uint8_t format, const unsigned char* pixels,
                                       size_t size, size_t pieceSize);

}  // namespace orvsim
