// Every kind of datagram and subpacket as the wire has it: its name, start
// byte, the framing it must pass, and the size of its fixed part; the ports
// datagrams arrive on and where a meta packet points to its subpackets.
// What the library does with each kind is the access object's dispatch
// table (access/receive/Dispatch.hpp), built on these rows.
#pragma once

#include <cstddef>

#include "orvaccess/orvwire.h"
#include "wire/Fields.hpp"

namespace orvwire {

// The receiving endpoints, in the order every pass of the service loop visits them.
enum Port { kMetaPort, kImagePort, kCorePort, kHubPort, kNftPort, kPortCount };

// What a packet must pass before its parser sees it.
enum class Check {
    none,       // taken as it comes (hub error reports)
    datagram,   // framing against the datagram's size
    subpacket,  // framing against the subpacket's own length word
    chip,       // inertial chip packet: sync byte, known type, checksum
};

struct Packet {
    const char* name;  // short name, for tools and tests
    unsigned char startByte;
    Check check;
    size_t fixedSize;  // without its variable part, checksum included
};

// clang-format off: the rows read as a table.
// ---- datagrams ----
inline constexpr Packet kMetaPacket{"meta", ORVWIRE_START_META, Check::datagram, endOf(kMetaFields) + 1};
inline constexpr Packet kImagePacket{"image", ORVWIRE_START_IMAGE, Check::datagram, endOf(kImageFields) + 1};
inline constexpr Packet kTrackingPacket{"tracking", ORVWIRE_START_TRACKING, Check::datagram, endOf(kTrackingFields) + 1};
inline constexpr Packet kPraPacket{"pra", ORVWIRE_START_PRA, Check::datagram, endOf(kPraFields) + 1};
inline constexpr Packet kHubErrorPacket{"hub-error", ORVWIRE_START_HUB_ERROR, Check::none, endOf(kHubErrorFields) + 1};
inline constexpr Packet kHubDataPacket{"hub", ORVWIRE_START_HUB_DATA, Check::datagram, endOf(kHubFields) + 1};
inline constexpr Packet kNftPacket{"nft", ORVWIRE_START_NFT, Check::datagram, endOf(kNftFields) + endOf(kNftTailFields) + 1};
// ---- subpackets ----
inline constexpr Packet kOpticalPacket{"optical", ORVWIRE_START_OPTICAL, Check::subpacket, endOf(kOpticalFields) + 1};
inline constexpr Packet kImuPacket{"imu", ORVWIRE_CHIP_SYNC, Check::chip, ORVWIRE_META_IMU_SIZE};
inline constexpr Packet kPlatPosePacket{"platform-pose", ORVWIRE_START_PLATPOSE, Check::subpacket, endOf(kUplinkPoseFields) + 1};
// The fixed part a target subpacket needs: header, trailer and checksum.
inline constexpr Packet kTargetPacket{"target", ORVWIRE_START_TARGET, Check::subpacket, endOf(kTargetFields) + 2};
inline constexpr Packet kDiagPacket{"diagnostic", ORVWIRE_START_DIAG, Check::subpacket, ORVWIRE_DIAG_OPTIONAL_2 + 1};
inline constexpr Packet kGpsPacket{"gps", ORVWIRE_START_GPS, Check::subpacket, endOf(kGpsFields) + endOf(kGpsBodyFields) + 1};
// clang-format on

static_assert(kTrackingPacket.fixedSize == ORVWIRE_TRACKING_SIZE, "tracking packet");
static_assert(kNftPacket.fixedSize == ORVWIRE_NFT_SIZE, "NFT packet");
static_assert(kImagePacket.fixedSize == ORVWIRE_IMAGE_OVERHEAD, "image packet");

// The subpackets a meta packet points to, in the order they are parsed: the
// header field that holds each one's offset (0 = absent) and its width.
struct MetaSlotAt {
    size_t offsetAt;
    unsigned int offsetWidth;
    const Packet* packet;
};
inline constexpr MetaSlotAt kMetaSlotsAt[] = {
    {offsetOf(kMetaFields, "platPoseAt"), elementSize(typeOf(kMetaFields, "platPoseAt")), &kPlatPosePacket},
    {offsetOf(kMetaFields, "targetAt"), elementSize(typeOf(kMetaFields, "targetAt")), &kTargetPacket},
    {offsetOf(kMetaFields, "diagAt"), elementSize(typeOf(kMetaFields, "diagAt")), &kDiagPacket},
    {offsetOf(kMetaFields, "gpsAt"), elementSize(typeOf(kMetaFields, "gpsAt")), &kGpsPacket},
};

// The largest datagram (the length word's ceiling) and the most pixel bytes
// one image packet can carry.
inline constexpr size_t kMaxDatagram = ORVWIRE_MAX_DATAGRAM;
inline constexpr size_t kMaxImagePiece = kMaxDatagram - ORVWIRE_IMAGE_OVERHEAD;

}  // namespace orvwire
