// The access object's dispatch table: for every kind of datagram and
// subpacket of the wire (wire/Packets.hpp), what the library does with it
// (parser, status bit, error code, log channel, dump bit, texts). The service
// loop, the meta and tracking parsers and the error messages read these rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "orvaccess/OrvAccess.hpp"
#include "wire/OrvosiCursor.hpp"
#include "wire/Packets.hpp"

namespace orvwire {

// Decodes a packet that passed its check; `packet` runs from its start byte
// to the end of the datagram and reads as zeros beyond it. Returns null when
// the packet was taken, or why it is refused whole (a count on the wire that
// runs past what any datagram can hold): it is then reported like a failed
// check and not counted as received.
using Parser = const char* (*)(OrvAccess::State& s, const OrvosiBytes& packet);

struct Family : Packet {
    Parser parse;
    uint32_t receivedBit;     // status bit set once parsed; 0 for none
    uint16_t badCode;         // queued, with value 0, when the packet is refused
    uint32_t logChannel;      // logging channel of the checked packet; 0 for none
    uint32_t dumpBit;         // verbosity bit of its hex dump
    const char* infoText;     // "ORVAINFO: " line on arrival (datagrams add their size); null for none
    const char* problemText;  // "ORVALOG: " line when refused, followed by the reason
    uint16_t overrunCode;     // counts claiming more than the packet holds; 0 for none
    const char* overrunText;  // "ORVALOG: " line with the overrun code
};

// ---- the parsers (one file each: trackpkt, inertial, subpackets, hub, images) ----
const char* processTrackingPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processOpticalSubPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processMetaPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processImuSubPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processPlatPoseSubPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processTargetSubPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processDiagSubPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processGpsSubPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processImagePkt(OrvAccess::State& s, const OrvosiBytes& packet);
// The piece of processImagePkt after its size check: `header` holds the
// ORVWIRE_IMAGE_PIXELS_AT bytes before the pixels, `pixels` the count pixel
// bytes, which may already lie at their place in the image being filled.
void takeImagePiece(OrvAccess::State& s, const unsigned char* header, const unsigned char* pixels,
                    size_t count);
const char* processPraPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processHubDataPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processHubErrPkt(OrvAccess::State& s, const OrvosiBytes& packet);
const char* processNftDataPkt(OrvAccess::State& s, const OrvosiBytes& packet);

// clang-format off: the rows read as a table.
// ---- datagrams ----
// wire row, parser, status bit, error code, log channel, dump bit, info text, problem text, overrun code,
// overrun text
inline constexpr Family kMeta{kMetaPacket, processMetaPkt,
    ORVACCESS_RECV_META, ORVACCESS_ERR_BAD_META_PKT, ORVACCESS_LOG_META, ORVACCESS_VERB_DUMP_META,
    "Received orvRx meta packet, size ", "Problem with meta packet: ", 0, nullptr};
inline constexpr Family kImage{kImagePacket, processImagePkt,
    ORVACCESS_RECV_IMAGE, ORVACCESS_ERR_BAD_IMAGE_PKT, 0, ORVACCESS_VERB_DUMP_IMAGE,
    "Received image packet, size ", "Problem with image packet: ", 0, nullptr};
inline constexpr Family kTracking{kTrackingPacket, processTrackingPkt,
    ORVACCESS_RECV_TRACKING, ORVACCESS_ERR_BAD_TRACKING_PKT, ORVACCESS_LOG_TRACKING, ORVACCESS_VERB_DUMP_TRACKING,
    "Received orvCore packet, size ", "Problem with orvCore packet: ", 0, nullptr};
inline constexpr Family kPra{kPraPacket, processPraPkt,
    ORVACCESS_RECV_PRA, ORVACCESS_ERR_BAD_PRA_PKT, ORVACCESS_LOG_PRA, ORVACCESS_VERB_DUMP_PRA,
    "Received PRA packet, size ", "Problem with PRA packet: ", 0, nullptr};
// Hub error reports are taken unchecked and set no status bit.
inline constexpr Family kHubError{kHubErrorPacket, processHubErrPkt,
    0, 0, ORVACCESS_LOG_HUB, ORVACCESS_VERB_DUMP_HUB,
    "Received orvHub packet, size ", "Problem with hub packet: ", 0, nullptr};
inline constexpr Family kHubData{kHubDataPacket, processHubDataPkt,
    ORVACCESS_RECV_HUB, ORVACCESS_ERR_BAD_HUB_PKT, ORVACCESS_LOG_HUB, ORVACCESS_VERB_DUMP_HUB,
    "Received orvHub packet, size ", "Problem with hub packet: ", 0, nullptr};
inline constexpr Family kNft{kNftPacket, processNftDataPkt,
    ORVACCESS_RECV_NFT, ORVACCESS_ERR_BAD_NFT_PKT, ORVACCESS_LOG_NFT, ORVACCESS_VERB_DUMP_NFT,
    "Received NFT packet, size ", "Problem with NFT packet: ", 0, nullptr};

// ---- subpackets ----
inline constexpr Family kOptical{kOpticalPacket, processOpticalSubPkt,
    0, ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, ORVACCESS_LOG_OPTICAL, ORVACCESS_VERB_DUMP_OPTICAL,
    "Received optical subpacket", "Bad optical subpacket: ",
    ORVACCESS_ERR_OPTICAL_OVERRUN, "Overrun in optical data subpacket"};
inline constexpr Family kImu{kImuPacket, processImuSubPkt,
    0, ORVACCESS_ERR_BAD_IMU_SUBPKT, ORVACCESS_LOG_IMU, ORVACCESS_VERB_DUMP_IMU_CAM,
    nullptr, "Bad IMU subpacket", 0, nullptr};
inline constexpr Family kPlatPose{kPlatPosePacket, processPlatPoseSubPkt,
    0, ORVACCESS_ERR_BAD_PLATPOSE_SUBPKT, ORVACCESS_LOG_PLATPOSE, ORVACCESS_VERB_DUMP_PLATPOSE,
    "Received platform pose subpacket", "Bad platform pose subpacket: ", 0, nullptr};
inline constexpr Family kTarget{kTargetPacket, processTargetSubPkt,
    0, ORVACCESS_ERR_BAD_TARGET_SUBPKT, ORVACCESS_LOG_TARGET, ORVACCESS_VERB_DUMP_TARGET,
    "Received target subpacket", "Bad target subpacket: ",
    ORVACCESS_ERR_TARGET_OVERRUN, "Overrun in target subpacket"};
inline constexpr Family kDiag{kDiagPacket, processDiagSubPkt,
    0, ORVACCESS_ERR_BAD_DIAG_SUBPKT, ORVACCESS_LOG_DIAG, ORVACCESS_VERB_DUMP_DIAG,
    "Received diagnostic subpacket", "Bad diagnostic subpacket: ",
    ORVACCESS_ERR_DIAG_OVERRUN, "Overrun in diagnostic subpacket"};
inline constexpr Family kGps{kGpsPacket, processGpsSubPkt,
    0, ORVACCESS_ERR_BAD_GPS_SUBPKT, ORVACCESS_LOG_DIAG, ORVACCESS_VERB_DUMP_DIAG,
    "Received GPS subpacket", "Bad GPS subpacket: ", 0, nullptr};

// clang-format on

// Which datagram family a port's datagram belongs to: the first row of its
// port whose first byte matches wins; a datagram no row takes is dropped
// unseen (anything but tracking and PRA on the orvCore port).
inline constexpr int kAnyByte = -1;
struct Route {
    Port port;
    int firstByte;
    const Family* family;
};
inline constexpr Route kRoutes[] = {
    {kMetaPort, kAnyByte, &kMeta},
    {kImagePort, kAnyByte, &kImage},
    {kCorePort, ORVWIRE_START_TRACKING, &kTracking},
    {kCorePort, ORVWIRE_START_PRA, &kPra},
    {kHubPort, ORVWIRE_START_HUB_ERROR, &kHubError},
    {kHubPort, kAnyByte, &kHubData},
    {kNftPort, kAnyByte, &kNft},
};

// The subpackets a meta packet points to, in the order they are parsed: the
// header field that holds each one's offset (0 = absent) and its width.
struct MetaSlot {
    size_t offsetAt;
    unsigned int offsetWidth;
    const Family* family;
};
inline constexpr MetaSlot kMetaSlots[] = {
    {kMetaSlotsAt[0].offsetAt, kMetaSlotsAt[0].offsetWidth, &kPlatPose},
    {kMetaSlotsAt[1].offsetAt, kMetaSlotsAt[1].offsetWidth, &kTarget},
    {kMetaSlotsAt[2].offsetAt, kMetaSlotsAt[2].offsetWidth, &kDiag},
    {kMetaSlotsAt[3].offsetAt, kMetaSlotsAt[3].offsetWidth, &kGps},
};
static_assert(std::size(kMetaSlots) == std::size(kMetaSlotsAt), "one row per slot of the meta header");

// The messages of the library's own codes. 781 to 784 have none on purpose:
// they read as the unknown error of the library's origin.
struct CodeText {
    uint16_t code;
    const char* text;
};
inline constexpr CodeText kLibraryMessages[] = {
    {ORVACCESS_ERR_IMAGE_TRANSFER, "[ORVACCESS] ERROR: Image transfer failed"},
    {ORVACCESS_ERR_BAD_TRACKING_PKT, "[ORVACCESS] ERROR: Bad tracking packet"},
    {ORVACCESS_ERR_BAD_IMAGE_PKT, "[ORVACCESS] ERROR: Bad image packet"},
    {ORVACCESS_ERR_BAD_META_PKT, "[ORVACCESS] ERROR: Bad meta packet"},
    {ORVACCESS_ERR_BAD_OPTICAL_SUBPKT, "[ORVACCESS] ERROR: Bad optical subpacket"},
    {ORVACCESS_ERR_BAD_DIAG_SUBPKT, "[ORVACCESS] ERROR: Bad diagnostic subpacket"},
    {ORVACCESS_ERR_BAD_TARGET_SUBPKT, "[ORVACCESS] ERROR: Bad target subpacket"},
    {ORVACCESS_ERR_BAD_PLATPOSE_SUBPKT, "[ORVACCESS] ERROR: Bad platform pose subpacket"},
    {ORVACCESS_ERR_BAD_IMU_SUBPKT, "[ORVACCESS] ERROR: Bad IMU subpacket"},
    {ORVACCESS_ERR_TARGET_OVERRUN, "[ORVACCESS] ERROR: Target subpacket overrun"},
    {ORVACCESS_ERR_DIAG_OVERRUN, "[ORVACCESS] ERROR: Diagnostic subpacket overrun"},
    {ORVACCESS_ERR_OPTICAL_OVERRUN, "[ORVACCESS] ERROR: Optical subpacket overrun"},
};

// Info line, dump, check, log channel, parse, status bit: what every datagram
// and subpacket goes through, the datagram's own size or the subpacket's
// length word deciding how many bytes are checked, dumped and logged.
// Returns whether the packet was taken.
bool handle(OrvAccess::State& s, const Family& family, const OrvosiBytes& packet);

// The overrun report of a family whose counts claim more than its packet holds.
void reportOverrun(OrvAccess::State& s, const Family& family, uint32_t tag);

}  // namespace orvwire
