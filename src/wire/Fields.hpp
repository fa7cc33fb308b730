// The field list of every packet and subpacket family, in wire order. The
// library's parsers decode with them, the simulator builds with them, and
// the dissector's layouts are written from them (orvwiregen); nothing else
// spells out where a field lies. Offsets count from the packet's start byte
// for packet headers, from the entry's first byte for repeated entries.
// Rows: X(name, offset, type, count, store, unit, label, description); see
// FieldCodec.hpp for what each column means.
#pragma once

#include <cstdint>

#include "orvaccess/orvwire.h"
#include "wire/FieldCodec.hpp"

namespace orvwire {

// ---- tracking packet (orvCore), into s_OrvAccessTrkDataExt ------------------
// clang-format off: the rows read as a table.
#define ORVWIRE_TRACKING_FIELDS(X) \
    X(packetTag,    3,   u32, 1, rec(packetTag),       "",      "",                       "Packet tag; counts IMU samples") \
    X(poseTime,     7,   u64, 1, rec(poseTime),        "us",    "",                       "Time of the pose, us on the tracker's clock") \
    X(platPoseTime, 15,  u32, 1, rec(platPoseTime),    "",      "",                       "Time tag of the platform pose orvCore used") \
    X(statusWord,   19,  x32, 1, rec(statusWord),      "",      "orvCore status word",    "Status word") \
    X(vecA,         23,  v3,  1, rec(vecA[0]),         "",      "Boresighted vector A",   "Vector A; boresight-corrected on export") \
    X(vecB,         35,  v3,  1, rec(vecB[0]),         "",      "Pass-through vector B",  "Vector B, passed to the application as sent") \
    X(vecC,         47,  v3,  1, rec(vecC[0]),         "",      "Pass-through vector C",  "Vector C, passed to the application as sent") \
    X(vecD,         59,  v3,  1, rec(vecD[0]),         "",      "Pass-through vector D",  "Vector D, passed to the application as sent") \
    X(vecE,         71,  v3,  1, rec(vecE[0]),         "",      "Pass-through vector E",  "Vector E, passed to the application as sent") \
    X(vecF,         83,  v3,  1, rec(vecF[0]),         "",      "Pass-through vector F",  "Vector F, passed to the application as sent") \
    X(countA,       95,  u16, 1, rec(countA),          "",      "Pass-through counter A", "Counter A, passed to the application as sent") \
    X(countB,       97,  u16, 1, rec(countB),          "",      "Pass-through counter B", "Counter B, passed to the application as sent") \
    X(cbn,          99,  m33, 1, rec(cbn[0][0]),       "",      "Head attitude matrix",   "Head attitude, body to navigation, row-major") \
    X(position,     135, v3,  1, rec(position[0]),     "m",     "",                       "Position, m") \
    X(vecG,         147, v3,  1, rec(vecG[0]),         "",      "Pass-through vector G",  "Vector G, passed to the application as sent") \
    X(vecH,         159, v3,  1, rec(vecH[0]),         "",      "Pass-through vector H",  "Vector H, passed to the application as sent") \
    X(angularRate,  171, v3,  1, rec(angularRate[0]),  "rad/s", "",                       "Angular rate, rad/s, body axes; drives the prediction") \
    X(vecI,         183, v3,  1, rec(vecI[0]),         "",      "Pass-through vector I",  "Vector I, passed to the application as sent") \
    X(cbn2,         195, m33, 1, rec(cbn2[0][0]),      "",      "Second attitude matrix", "Second attitude matrix, row-major") \
    X(vecJ,         231, v3,  1, rec(vecJ[0]),         "",      "Boresighted vector J",   "Vector J; boresight-corrected on export") \
    X(vecK,         243, v3,  1, rec(vecK[0]),         "",      "Pass-through vector K",  "Vector K, passed to the application as sent") \
    X(time2,        255, u64, 1, rec(time2),           "us",    "Second time",            "Second time, us") \
    X(vecL,         263, v3,  1, rec(vecL[0]),         "",      "Boresighted vector L",   "Vector L; boresight-corrected on export, written to the tracking log") \
    X(vecM,         275, v3,  1, rec(vecM[0]),         "",      "Boresighted vector M",   "Vector M; boresight-corrected on export, written to the tracking log") \
    X(scalarA,      287, f32, 1, rec(scalarA),         "",      "Pass-through scalar A",  "Scalar A, passed to the application as sent") \
    X(scalarB,      291, f32, 1, rec(scalarB),         "",      "Pass-through scalar B",  "Scalar B, passed to the application as sent") \
    X(errorCodes,   295, u8,  4, rec(errorCodes[0]),   "",      "orvCore error codes",    "orvCore error code, 0 = none") \
    X(vecN,         299, v3,  1, rec(vecN[0]),         "",      "Pass-through vector N",  "Vector N, passed to the application as sent") \
    X(vecO,         311, v3,  1, rec(vecO[0]),         "",      "Pass-through vector O",  "Vector O, passed to the application as sent") \
    X(reserved,     323, skip, 8, none(),              "",      "",                       "Reserved, not read")
ORVWIRE_FIELD_LIST(Tracking, ORVWIRE_TRACKING_FIELDS)

// ---- optical subpacket at the end of a tracking packet ----------------------
struct OpticalHeader {
    uint32_t tag;
    uint8_t targetCount;
};
#define ORVWIRE_OPTICAL_FIELDS(X) \
    X(tag,         3, u32,  1, rec(tag),         "", "Optical tag", "Tag of the optical measurement") \
    X(targetCount, 7, u8,   1, rec(targetCount), "", "",            "Targets in this subpacket") \
    X(notRead,     8, skip, 2, none(),           "", "",            "Not read")
ORVWIRE_FIELD_LIST(Optical, ORVWIRE_OPTICAL_FIELDS)

// One target: into anything with `id` and `resid[5]`.
#define ORVWIRE_OPTICAL_TARGET_FIELDS(X) \
    X(id,    0, u16, 1, rec(id),       "", "Target id",        "Target id") \
    X(resid, 2, f32, 5, rec(resid[0]), "", "Target residuals", "Residual")
ORVWIRE_FIELD_LIST(OpticalTarget, ORVWIRE_OPTICAL_TARGET_FIELDS)

// The pose-recovery block after the targets, into s_OrvAccessPoseRecStats.
#define ORVWIRE_STATS_FIELDS(X) \
    X(stat0,  0,  u8,  1, rec(stat0),   "", "Pose-recovery statistic 0", "Statistic 0") \
    X(stat1,  1,  u8,  1, rec(stat1),   "", "Pose-recovery statistic 1", "Statistic 1") \
    X(stat2,  2,  u8,  1, rec(stat2),   "", "Pose-recovery statistic 2", "Statistic 2") \
    X(stat3,  3,  u8,  1, rec(stat3),   "", "Pose-recovery statistic 3", "Statistic 3") \
    X(value0, 4,  f32, 1, rec(value0),  "", "Pose-recovery value 0",     "Value 0") \
    X(flagA,  8,  u8,  1, flag(flagA),  "", "Pose-recovery flag A",      "Flag A (non-zero is 1)") \
    X(flagB,  9,  u8,  1, flag(flagB),  "", "Pose-recovery flag B",      "Flag B (non-zero is 1)") \
    X(value1, 10, f32, 1, rec(value1),  "", "Pose-recovery value 1",     "Value 1") \
    X(vec1,   14, v3,  1, rec(vec1[0]), "", "Pose-recovery vector 1",    "Vector 1") \
    X(vec2,   26, v3,  1, rec(vec2[0]), "", "Pose-recovery vector 2",    "Vector 2") \
    X(vec3,   38, v3,  1, rec(vec3[0]), "", "Pose-recovery vector 3",    "Vector 3") \
    X(vec4,   50, v3,  1, rec(vec4[0]), "", "Pose-recovery vector 4",    "Vector 4") \
    X(value2, 62, f32, 1, rec(value2),  "", "Pose-recovery value 2",     "Value 2") \
    X(value3, 66, f32, 1, rec(value3),  "", "Pose-recovery value 3",     "Value 3") \
    X(value4, 70, f32, 1, rec(value4),  "", "Pose-recovery value 4",     "Value 4") \
    X(value5, 74, f32, 1, rec(value5),  "", "Pose-recovery value 5",     "Value 5")
ORVWIRE_FIELD_LIST(Stats, ORVWIRE_STATS_FIELDS)

// ---- PRA packet (orvCore), into s_OrvAccessPoseRecStats ---------------------
// Vectors B and C travel as the float bits of extra[0..5]; the sixty 16-bit
// counts as extra[6..35], two to a word, the first of a pair in the low half.
#define ORVWIRE_PRA_FIELDS(X) \
    X(tag,    3,  u32, 1,  rec(tag),       "", "PRA tag",                    "Tag") \
    X(flagA,  7,  u8,  1,  rec(flagA),     "", "Pose-recovery flag A",       "Flag A") \
    X(stat0,  8,  u8,  1,  rec(stat0),     "", "Pose-recovery statistic 0",  "Statistic 0") \
    X(stat1,  9,  u8,  1,  rec(stat1),     "", "Pose-recovery statistic 1",  "Statistic 1") \
    X(stat2,  10, u8,  1,  rec(stat2),     "", "Pose-recovery statistic 2",  "Statistic 2") \
    X(value0, 11, f32, 1,  rec(value0),    "", "Pose-recovery value 0",      "Value 0") \
    X(vec1,   15, v3,  1,  rec(vec1[0]),   "", "Pose-recovery matrix row 1", "Matrix row 1") \
    X(vec2,   27, v3,  1,  rec(vec2[0]),   "", "Pose-recovery matrix row 2", "Matrix row 2") \
    X(vec3,   39, v3,  1,  rec(vec3[0]),   "", "Pose-recovery matrix row 3", "Matrix row 3") \
    X(vec4,   51, v3,  1,  rec(vec4[0]),   "", "Pose-recovery vector A",     "Vector A") \
    X(extraB, 63, v3,  1,  bits(extra[0]), "", "Pose-recovery vector B",     "Vector B (extra words 0-2)") \
    X(extraC, 75, v3,  1,  bits(extra[3]), "", "Pose-recovery vector C",     "Vector C (extra words 3-5)") \
    X(value3, 87, f32, 1,  rec(value3),    "", "Pose-recovery value 3",      "Value 3") \
    X(value4, 91, f32, 1,  rec(value4),    "", "Pose-recovery value 4",      "Value 4") \
    X(value5, 95, f32, 1,  rec(value5),    "", "Pose-recovery value 5",      "Value 5") \
    X(counts, 99, u16, 60, bits(extra[6]), "", "Pose-recovery counts",       "Counts (extra words 6-35, two to a word)")
ORVWIRE_FIELD_LIST(Pra, ORVWIRE_PRA_FIELDS)

// ---- orvHub packets ---------------------------------------------------------
// Hub data, into s_OrvAccessHubData (euler is computed, not carried).
#define ORVWIRE_HUB_FIELDS(X) \
    X(word,     3,   u32,  1, rec(word),      "",   "Hub word",            "First word") \
    X(notRead,  7,   skip, 3, none(),         "",   "",                    "Not read") \
    X(status,   10,  u8,   1, rec(status),    "",   "Hub status byte",     "Status byte") \
    X(halfWord, 11,  u16,  1, rec(halfWord),  "",   "Hub 16-bit word",     "16-bit word") \
    X(words,    13,  u32,  2, rec(words[0]),  "",   "Hub words",           "Two words") \
    X(time,     21,  u64,  1, rec(time),      "us", "Hub time",            "Time, us") \
    X(cbn,      29,  m33,  1, rec(cbn[0][0]), "",   "Hub attitude matrix", "Attitude, body to navigation, row-major") \
    X(vec,      65,  v3,   7, rec(vec[0][0]), "",   "Hub vectors",         "Seven vectors") \
    X(lastByte, 149, u8,   1, rec(lastByte),  "",   "Hub last byte",       "Last byte")
ORVWIRE_FIELD_LIST(Hub, ORVWIRE_HUB_FIELDS)

struct HubError {
    uint32_t value;
    uint8_t code;
};
#define ORVWIRE_HUB_ERROR_FIELDS(X) \
    X(value,   3, u32,  1, rec(value), "", "Hub error value",   "Value queued with the error code") \
    X(notRead, 7, skip, 1, none(),     "", "",                  "Not read") \
    X(code,    8, u8,   1, rec(code),  "", "orvHub error code", "orvHub error code, 0 = none (queued as 0x400 + code)")
ORVWIRE_FIELD_LIST(HubError, ORVWIRE_HUB_ERROR_FIELDS)

// ---- NFT packet, into s_OrvAccessTrkDataExt ---------------------------------
// The features (ORVWIRE_NFT_FEATURE_SIZE bytes each) follow the header; the
// tail follows them.
#define ORVWIRE_NFT_FIELDS(X) \
    X(packetTag,    3,   u32, 1, rec(packetTag),      "",      "",                      "Packet tag") \
    X(poseTime,     7,   u64, 1, rec(poseTime),       "us",    "",                      "Time of the pose, us on the tracker's clock") \
    X(cbn,          15,  m33, 1, rec(cbn[0][0]),      "",      "Head attitude matrix",  "Attitude, body to navigation, row-major") \
    X(position,     51,  v3,  1, rec(position[0]),    "m",     "",                      "Position, m") \
    X(vecG,         63,  v3,  1, rec(vecG[0]),        "",      "Pass-through vector G", "Vector G, passed to the application as sent") \
    X(vecH,         75,  v3,  1, rec(vecH[0]),        "",      "Pass-through vector H", "Vector H, passed to the application as sent") \
    X(angularRate,  87,  v3,  1, rec(angularRate[0]), "rad/s", "",                      "Angular rate, rad/s, body axes") \
    X(vecJ,         99,  v3,  1, rec(vecJ[0]),        "",      "Boresighted vector J",  "Vector J; boresight-corrected on export") \
    X(extB,         111, v3,  2, rec(extB[0]),        "",      "NFT extra triples",     "extB, two triples") \
    X(countA,       135, u8,  1, rec(countA),         "",      "Counter A, low byte",   "Low byte of countA") \
    X(featureCount, 136, u32, 1, none(),              "",      "",                      "Features that follow")
ORVWIRE_FIELD_LIST(Nft, ORVWIRE_NFT_FIELDS)

#define ORVWIRE_NFT_TAIL_FIELDS(X) \
    X(extD, 0, v3, 1, rec(extD[0]), "", "NFT tail vector", "extD of the NFT record, after the features")
ORVWIRE_FIELD_LIST(NftTail, ORVWIRE_NFT_TAIL_FIELDS)

// ---- meta packet (orvRx) ----------------------------------------------------
struct MetaHeader {
    uint32_t tag;
    float interval;
    uint8_t platPoseAt;
    uint8_t targetAt;
    uint16_t diagAt;
    uint16_t gpsAt;
    uint64_t time;
};
#define ORVWIRE_META_FIELDS(X) \
    X(tag,        3,  u32,  1, rec(tag),        "",   "",            "Tag, copied into every IMU record") \
    X(notRead,    7,  skip, 1, none(),          "",   "Unread byte", "Not read") \
    X(interval,   8,  f32,  1, rec(interval),   "s",  "",            "IMU sample interval, s; 0 or less: no IMU subpacket") \
    X(notRead2,   12, skip, 1, none(),          "",   "Unread byte", "Not read") \
    X(platPoseAt, 13, u8,   1, rec(platPoseAt), "",   "",            "Offset of the platform-pose subpacket, 0 = absent") \
    X(targetAt,   14, u8,   1, rec(targetAt),   "",   "",            "Offset of the target subpacket, 0 = absent") \
    X(diagAt,     15, u16,  1, rec(diagAt),     "",   "",            "Offset of the diagnostic subpacket, 0 = absent") \
    X(gpsAt,      17, u16,  1, rec(gpsAt),      "",   "",            "Offset of the GPS subpacket, 0 = absent") \
    X(time,       19, u64,  1, rec(time),       "us", "",            "Time of the IMU sample, us on the tracker's clock")
ORVWIRE_FIELD_LIST(Meta, ORVWIRE_META_FIELDS)

// ---- image packet -----------------------------------------------------------
struct ImageHeader {
    uint32_t sequenceId;
    uint8_t format;
    uint32_t address;
};
#define ORVWIRE_IMAGE_FIELDS(X) \
    X(sequenceId, 3, u32, 1, rec(sequenceId), "", "", "Sequence id of the image") \
    X(format,     7, u8,  1, rec(format),     "", "", "Image format code") \
    X(address,    8, u24, 1, rec(address),    "", "", "Byte offset of this piece in the image")
ORVWIRE_FIELD_LIST(Image, ORVWIRE_IMAGE_FIELDS)

// ---- subpackets of a meta packet --------------------------------------------
struct PlatPoseHeader {
    uint32_t tag;
    uint8_t format;
};
#define ORVWIRE_PLATPOSE_FIELDS(X) \
    X(tag,    3, u32, 1, rec(tag),    "", "", "Time tag of the pose") \
    X(format, 7, u8,  1, rec(format), "", "", "Format identifier: 3 (pose at 8) or 2 (pose at 20)")
ORVWIRE_FIELD_LIST(PlatPose, ORVWIRE_PLATPOSE_FIELDS)

// The pose itself, at the offset its format names.
#define ORVWIRE_POSE_FIELDS(X) \
    X(pose, 0, f32, 3, rec(pose[0]), "rad", "", "Roll, pitch, yaw, rad")
ORVWIRE_FIELD_LIST(Pose, ORVWIRE_POSE_FIELDS)

struct TargetHeader {
    uint32_t tag;
    uint8_t entryCount;
    uint8_t hdrByte;
    uint16_t total;
    uint16_t first;
};
#define ORVWIRE_TARGET_FIELDS(X) \
    X(tag,        3,  u32,  1, rec(tag),        "", "",                   "Tag") \
    X(entryCount, 7,  u8,   1, rec(entryCount), "", "",                   "Entries in this subpacket") \
    X(hdrByte,    8,  u8,   1, rec(hdrByte),    "", "Target header byte", "Header byte") \
    X(notRead,    9,  skip, 1, none(),          "", "",                   "Not read") \
    X(total,      10, u16,  1, rec(total),      "", "",                   "Targets in the whole list") \
    X(first,      12, u16,  1, rec(first),      "", "",                   "List index of this subpacket's first entry")
ORVWIRE_FIELD_LIST(Target, ORVWIRE_TARGET_FIELDS)

// One entry, into OrvAccess::s_TgtData.
#define ORVWIRE_TARGET_ENTRY_FIELDS(X) \
    X(kind,   0,  u8,  1, rec(kind),   "", "Target kind",    "Kind") \
    X(id,     1,  u16, 1, rec(id),     "", "Target id",      "Target id") \
    X(word1,  3,  u16, 1, rec(word1),  "", "Target word 1",  "Word 1") \
    X(word2,  5,  u16, 1, rec(word2),  "", "Target word 2",  "Word 2") \
    X(word3,  7,  u16, 1, rec(word3),  "", "Target word 3",  "Word 3") \
    X(word4,  9,  u16, 1, rec(word4),  "", "Target word 4",  "Word 4") \
    X(value1, 11, f32, 1, rec(value1), "", "Target value 1", "Value 1") \
    X(value2, 15, f32, 1, rec(value2), "", "Target value 2", "Value 2") \
    X(value3, 19, f32, 1, rec(value3), "", "Target value 3", "Value 3") \
    X(value4, 23, f32, 1, rec(value4), "", "Target value 4", "Value 4") \
    X(value5, 27, f32, 1, rec(value5), "", "Target value 5", "Value 5") \
    X(value6, 31, f32, 1, rec(value6), "", "Target value 6", "Value 6")
ORVWIRE_FIELD_LIST(TargetEntry, ORVWIRE_TARGET_ENTRY_FIELDS)

// Diagnostic, into s_OrvAccessDiagData; the optional bytes follow when the
// length says so.
#define ORVWIRE_DIAG_FIELDS(X) \
    X(tag,        3,  u32, 1, rec(tag),           "", "",                   "Tag") \
    X(diagValue1, 7,  f32, 1, rec(diagValue1),    "", "Diagnostic value 1", "Diagnostic value 1") \
    X(diagCount,  11, u24, 1, rec(diagCount),     "", "Diagnostic count",   "Diagnostic count (24 bits)") \
    X(diagByte1,  14, u8,  1, rec(diagByte1),     "", "Diagnostic byte 1",  "Diagnostic byte 1") \
    X(diagValue2, 15, f32, 1, rec(diagValue2),    "", "Diagnostic value 2", "Diagnostic value 2") \
    X(diagByte2,  19, u8,  1, rec(diagByte2),     "", "Diagnostic byte 2",  "Diagnostic byte 2") \
    X(errorCodes, 20, u8,  4, rec(errorCodes[0]), "", "orvRx error codes",  "orvRx error code, 0 = none (queued as 0x100 + code)") \
    X(state,      24, u8,  1, rec(state),         "", "orvRx state",        "orvRx state; 3 = stopped streaming")
ORVWIRE_FIELD_LIST(Diag, ORVWIRE_DIAG_FIELDS)

#define ORVWIRE_DIAG_OPTIONAL_FIELDS(X) \
    X(optional, 0, u8, 4, rec(optional[0]), "", "Optional diagnostic bytes", "Optional byte, zero when absent")
ORVWIRE_FIELD_LIST(DiagOptional, ORVWIRE_DIAG_OPTIONAL_FIELDS)

// GPS: a format byte (the subpacket) or the valid byte (the uplink), then
// the same body, into s_OrvAccessGpsData.
#define ORVWIRE_GPS_FIELDS(X) \
    X(format, 3, u8, 1, rec(valid), "", "GPS format", "Format: only 1 is taken")
ORVWIRE_FIELD_LIST(Gps, ORVWIRE_GPS_FIELDS)

#define ORVWIRE_UPLINK_GPS_FIELDS(X) \
    X(valid, 3, u8, 1, rec(valid), "", "GPS valid", "Valid")
ORVWIRE_FIELD_LIST(UplinkGps, ORVWIRE_UPLINK_GPS_FIELDS)

#define ORVWIRE_GPS_BODY_FIELDS(X) \
    X(gpsWord1,   0,  u32, 1, rec(gpsWord1),   "", "GPS word 1",       "GPS word 1") \
    X(lat,        4,  f64, 1, rec(lat),        "", "Latitude",         "Latitude") \
    X(lon,        12, f64, 1, rec(lon),        "", "Longitude",        "Longitude") \
    X(gpsValue1,  20, f32, 1, rec(gpsValue1),  "", "GPS value 1",      "GPS value 1") \
    X(gpsHalf,    24, u16, 1, rec(gpsHalf),    "", "GPS 16-bit value", "GPS 16-bit value") \
    X(gpsByte1,   26, u8,  1, rec(gpsByte1),   "", "GPS byte 1",       "GPS byte 1") \
    X(gpsValue2,  27, f32, 1, rec(gpsValue2),  "", "GPS value 2",      "GPS value 2") \
    X(gpsValue3,  31, f32, 1, rec(gpsValue3),  "", "GPS value 3",      "GPS value 3") \
    X(gpsWord2,   35, u32, 1, rec(gpsWord2),   "", "GPS word 2",       "GPS word 2") \
    X(gpsDouble1, 39, f64, 1, rec(gpsDouble1), "", "GPS double 1",     "GPS double 1") \
    X(gpsDouble2, 47, f64, 1, rec(gpsDouble2), "", "GPS double 2",     "GPS double 2") \
    X(gpsValue4,  55, f32, 1, rec(gpsValue4),  "", "GPS value 4",      "GPS value 4") \
    X(gpsValue5,  59, f32, 1, rec(gpsValue5),  "", "GPS value 5",      "GPS value 5") \
    X(gpsValue6,  63, f32, 1, rec(gpsValue6),  "", "GPS value 6",      "GPS value 6") \
    X(gpsByte2,   67, u8,  1, rec(gpsByte2),   "", "GPS last byte",    "GPS last byte")
ORVWIRE_FIELD_LIST(GpsBody, ORVWIRE_GPS_BODY_FIELDS)

// ---- uplink packets to orvRx ------------------------------------------------
struct UplinkPose {
    uint32_t tag;
    uint8_t format;
    float pose[3];
};
#define ORVWIRE_UPLINK_POSE_FIELDS(X) \
    X(tag,    3, u32, 1, rec(tag),     "",    "", "Time tag of the pose") \
    X(format, 7, u8,  1, rec(format),  "",    "", "Platform data format identifier, always 3") \
    X(pose,   8, f32, 3, rec(pose[0]), "rad", "", "Roll, pitch, yaw, rad")
ORVWIRE_FIELD_LIST(UplinkPose, ORVWIRE_UPLINK_POSE_FIELDS)

struct UplinkInput {
    uint8_t code;
};
#define ORVWIRE_INPUT_FIELDS(X) \
    X(code, 3, u8, 1, rec(code), "", "Input code", "Input code")
ORVWIRE_FIELD_LIST(Input, ORVWIRE_INPUT_FIELDS)
// clang-format on

// ---- the lists against the named numbers of orvwire.h ----------------------
static_assert(endOf(kTrackingFields) == ORVWIRE_TRACKING_OPTICAL_AT, "tracking fields");
static_assert(ORVWIRE_TRACKING_OPTICAL_AT + 1 == ORVWIRE_TRACKING_SIZE, "tracking size");
static_assert(offsetOf(kTrackingFields, "poseTime") == ORVWIRE_TRACKING_POSE_TIME_AT, "tracking pose time");
static_assert(endOf(kOpticalFields) == ORVWIRE_OPTICAL_TARGETS_AT, "optical header");
static_assert(endOf(kOpticalTargetFields) == ORVWIRE_OPTICAL_TARGET_SIZE, "optical target");
static_assert(endOf(kStatsFields) == ORVWIRE_OPTICAL_STATS_SIZE, "pose-recovery block");
static_assert(endOf(kPraFields) + 1 == ORVWIRE_PRA_SIZE, "PRA packet");
static_assert(endOf(kHubFields) + 1 == ORVWIRE_HUB_DATA_SIZE, "hub data packet");
static_assert(endOf(kHubErrorFields) + 1 == ORVWIRE_HUB_ERROR_SIZE, "hub error packet");
static_assert(endOf(kNftFields) == ORVWIRE_NFT_FEATURES_AT, "NFT header");
static_assert(offsetOf(kNftFields, "poseTime") == ORVWIRE_NFT_POSE_TIME_AT, "NFT pose time");
static_assert(endOf(kNftFields) + endOf(kNftTailFields) + 1 == ORVWIRE_NFT_SIZE, "NFT packet");
static_assert(endOf(kNftTailFields) == ORVWIRE_NFT_FEATURE_SIZE, "an NFT feature is a triple like the tail");
static_assert(endOf(kMetaFields) == ORVWIRE_META_IMU_AT, "meta header");
static_assert(offsetOf(kMetaFields, "time") == ORVWIRE_META_TIME_AT, "meta time");
static_assert(offsetOf(kMetaFields, "platPoseAt") == ORVWIRE_META_PLATPOSE_OFFSET_AT, "meta offsets");
static_assert(offsetOf(kMetaFields, "targetAt") == ORVWIRE_META_TARGET_OFFSET_AT, "meta offsets");
static_assert(offsetOf(kMetaFields, "diagAt") == ORVWIRE_META_DIAG_OFFSET_AT, "meta offsets");
static_assert(offsetOf(kMetaFields, "gpsAt") == ORVWIRE_META_GPS_OFFSET_AT, "meta offsets");
static_assert(endOf(kImageFields) == ORVWIRE_IMAGE_PIXELS_AT, "image header");
static_assert(endOf(kImageFields) + 1 == ORVWIRE_IMAGE_OVERHEAD, "image overhead");
static_assert(endOf(kPlatPoseFields) == ORVWIRE_PLATPOSE_FORMAT3_AT, "format 3 pose follows the header");
static_assert(endOf(kTargetFields) == ORVWIRE_TARGET_ENTRIES_AT, "target header");
static_assert(endOf(kTargetEntryFields) == ORVWIRE_TARGET_ENTRY_SIZE, "target entry");
static_assert(endOf(kDiagFields) + 2 == ORVWIRE_DIAG_OPTIONAL_1, "two optional bytes above this length");
static_assert(endOf(kDiagFields) + 4 == ORVWIRE_DIAG_OPTIONAL_2, "four optional bytes above this length");
static_assert(endOf(kGpsFields) + endOf(kGpsBodyFields) + 1 == ORVWIRE_UPLINK_GPS_SIZE, "GPS subpacket");
static_assert(endOf(kUplinkGpsFields) + endOf(kGpsBodyFields) + 1 == ORVWIRE_UPLINK_GPS_SIZE, "uplink GPS");
static_assert(endOf(kUplinkPoseFields) + 1 == ORVWIRE_UPLINK_PLATPOSE_SIZE, "uplink platform pose");
static_assert(endOf(kInputFields) + 1 == ORVWIRE_UPLINK_INPUT_SIZE, "uplink input");

// The bytes a diagnostic subpacket's fields run to (checksum excluded), by its length.
constexpr size_t diagFieldsEnd(size_t length) {
    return length > ORVWIRE_DIAG_OPTIONAL_2   ? endOf(kDiagFields) + 4
           : length > ORVWIRE_DIAG_OPTIONAL_1 ? endOf(kDiagFields) + 2
                                               : endOf(kDiagFields);
}

}  // namespace orvwire
