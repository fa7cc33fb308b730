/*
 * liborvaccess: the C interface and the public records.
 *
 * Every function takes the handle returned by OrvAccess_create() as its first
 * argument; the handle is not checked. No function lets an exception through:
 * status results become 0, text results the text `"<exception>"`, and
 * OrvAccess_create() returns NULL. Text results are copied into the caller's
 * buffer with at most len bytes, always zero-terminated at buf[len - 1]; len
 * must be at least 1. Where a function reports through an int* whether a
 * record was delivered, it always stores 0 or 1 there.
 *
 * A handle is used from one thread at a time; handles on different threads
 * are independent (see OrvAccess.hpp).
 *
 * Each function does what the C++ method of the same name does, and is
 * documented there (class OrvAccess); a function says so, and states what
 * differs in C.
 *
 * Units and conventions: times are microseconds (us) on the library clock
 * (the system's time of day since 1970, OrvAccess::getTimeUs()) unless a
 * field says otherwise; angles are radians; lengths metres; attitude
 * matrices are body to navigation frame, row-major, Rz(yaw)*Ry(pitch)*Rx(roll);
 * Euler angles are ordered roll, pitch, yaw. A field "passed through" is
 * handed on as the sender put it in its packet: the library does not
 * interpret it and knows no unit for it.
 *
 * Plain C99; usable from C++.
 */
#ifndef ORVACCESS_ORVACCESS_H
#define ORVACCESS_ORVACCESS_H

#include <stddef.h>
#include <stdint.h>

#include "orvaccess/orvaccess_export.h"
#include "orvaccess/orvwire.h"

/* ---- records ------------------------------------------------------------ */

/* One fused pose from orvCore (or from the NFT source). The vectors the
 * library does not interpret (vecA..vecO, scalarA/B, counters, statusWord,
 * time2) are passed through as the tracker sent them. 448 bytes.
 *
 * As queued, the record is what the packet carried; the getters hand it out
 * adjusted by OrvAccess::updateExports(): attitude predicted, tip offset
 * added, boresight reference applied, Euler angles computed. An NFT packet
 * fills cbn, euler, position, vecG, vecH, angularRate, vecJ, extB, extD,
 * packetTag, poseTime and the low byte of countA; everything else is 0. */
typedef struct s_OrvAccessTrkDataExt {
    uint32_t packetTag;    /* packet tag; counts IMU samples (the NFT source's own
                            * tag in an NFT record) */
    uint64_t poseTime;     /* time of the pose, us on the library clock */
    uint32_t platPoseTime; /* time tag of the platform pose orvCore used: the tag
                            * of s_OrvAccessPlatPoseData, in the platform's units */
    uint64_t time2;        /* second time from the packet, passed through */
    uint32_t statusWord;   /* orvCore's status word, passed through */
    float vecA[3]; /* passed through, turned by the boresight reference on export */
    float vecB[3]; /* passed through */
    float vecC[3]; /* passed through */
    float vecD[3]; /* passed through */
    float vecE[3]; /* passed through */
    float vecF[3]; /* passed through */
    uint16_t countA; /* counter, passed through; an NFT packet's byte 135 */
    uint16_t countB; /* counter, passed through */
    float cbn[3][3];  /* head attitude, body to navigation, row-major */
    float euler[3];   /* roll, pitch, yaw of cbn, rad; computed on export */
    float cbn2[3][3]; /* second attitude matrix, row-major; predicted and
                       * boresight-corrected like cbn */
    float position[3];     /* tracked position, m, navigation frame; the tip
                            * offset is added on export */
    float vecG[3];         /* passed through */
    float vecH[3];         /* passed through */
    float angularRate[3];  /* rad/s, body axes; drives the prediction */
    float vecI[3];         /* passed through */
    float extA[9];         /* not carried by the packet: zero */
    float vecJ[3];         /* passed through, turned by the boresight reference */
    float extB[6];         /* zero from orvCore; filled by NFT packets */
    float vecK[3];         /* passed through */
    float extC[9];         /* not carried by the packet: zero */
    float vecL[3];         /* passed through, turned by the boresight reference */
    float vecM[3];         /* passed through, turned by the boresight reference */
    float scalarA;         /* passed through */
    float scalarB;         /* passed through */
    uint8_t errorCodes[4]; /* orvCore error codes carried by the packet, 0 = none */
    float vecN[3];         /* passed through */
    float vecO[3];         /* passed through */
    float extD[3];         /* zero from orvCore; filled by NFT packets */
} s_OrvAccessTrkDataExt;

/* The short tracking record of OrvAccess_getTrackingDataLatest and
 * OrvAccess_getTrackingDataAtTime: a copy of some fields of the Ext record. */
typedef struct s_OrvAccessTrkData {
    uint32_t packetTag;     /* s_OrvAccessTrkDataExt::packetTag */
    uint32_t platPoseTime;  /* s_OrvAccessTrkDataExt::platPoseTime */
    float vecA[3];          /* s_OrvAccessTrkDataExt::vecA, boresight-corrected */
    uint16_t countA;        /* s_OrvAccessTrkDataExt::countA */
    uint16_t countB;        /* s_OrvAccessTrkDataExt::countB */
    float euler[3];         /* roll, pitch, yaw, rad */
    float motion[4][3];     /* rows: position (m), vecG, vecH, angularRate (rad/s) */
    float aux[3][3];        /* rows: vecJ, extB[0..2], extB[3..5] */
    float vecL[3];          /* s_OrvAccessTrkDataExt::vecL, boresight-corrected */
} s_OrvAccessTrkData;

/* Filled by OrvAccess_getStatus; words 2 to 4 report what happened since the
 * previous call and are cleared by it. */
typedef struct s_OrvAccessStatus {
    uint32_t connections; /* ORVACCESS_CONN_... bits (orvwire.h): the channels the
                           * last open() brought up; close() keeps them */
    uint32_t received;    /* ORVACCESS_RECV_... bits (orvwire.h): what arrived */
    uint32_t newError;    /* 1 when an error code was queued */
    uint32_t diagState;   /* last orvRx state from a diagnostic subpacket, or 0;
                           * e_OrvAccessRxState */
} s_OrvAccessStatus;

/* Extension of the interface: datagrams that the service loop dropped
 * unread, per receiving port, because their sender is not in the
 * configuration's "udpAllowedSenders" list; counted since the last open().
 * All 0 while the list is absent or empty (every sender is taken). */
typedef struct s_OrvAccessSenderDrops {
    uint64_t meta;  /* on the meta port ("udpOrvRxPort") */
    uint64_t image; /* on the image port ("udpOrvRxImgPort") */
    uint64_t core;  /* on the orvCore port ("udpOrvCorePort") */
    uint64_t hub;   /* on the orvHub port ("udpOrvHubPort") */
    uint64_t nft;   /* on the NFT port ("udpNftPort") */
    uint32_t entries; /* addresses and networks in the list in force; 0: every
                       * sender is taken */
} s_OrvAccessSenderDrops;

/* One queued error code; the high byte of code names its origin
 * (e_OrvAccessErrorOrigin); the library's own codes are e_OrvAccessError. */
typedef struct s_OrvAccessErrorCode {
    uint16_t code;  /* origin in the high byte, number in the low byte;
                     * OrvAccess::getErrorMessage() gives its text */
    uint32_t value; /* sequence number, count or 0, as the raiser attaches */
} s_OrvAccessErrorCode;

/* One IMU sample from a meta packet. */
typedef struct s_OrvAccessImuData {
    uint64_t time; /* sample time, us on the library clock */
    uint32_t tag;  /* tag of the meta packet */
    uint32_t pid;    /* chip packet id, 0..255, one more per sample */
    uint32_t status; /* chip status byte */
    float dt;        /* sample interval, s */
    uint16_t gyroRaw[3];  /* raw gyro words x, y, z as the chip sent them */
    uint16_t accelRaw[3]; /* raw accelerometer words x, y, z */
    float gyroRate[3];  /* gyro increment / dt: the chip's gyro unit per second */
    float accelRate[3]; /* accelerometer increment / dt: the chip's unit per second */
} s_OrvAccessImuData;

/* The auxiliary byte of a chip packet. */
typedef struct s_OrvAccessAuxData {
    uint32_t aux; /* the byte, 0..255, from chip packets whose field mask
                   * carries it; passed through */
} s_OrvAccessAuxData;

/* A diagnostic subpacket from orvRx. */
typedef struct s_OrvAccessDiagData {
    uint32_t tag;        /* tag of the subpacket */
    float diagValue1;    /* passed through */
    uint32_t diagCount; /* 24-bit value, passed through */
    uint8_t diagByte1;   /* passed through */
    float diagValue2;    /* passed through */
    uint8_t diagByte2;   /* passed through */
    uint8_t errorCodes[4]; /* orvRx error bytes, 0 = none; each non-zero one is also
                            * queued as the error code 0x100 | byte */
    uint32_t state;        /* orvRx state; 3 = stopped streaming */
    uint8_t optional[4];   /* zero when the subpacket does not carry them: [0] and
                            * [1] come with a subpacket longer than 27 bytes, [2]
                            * and [3] with one longer than 29; passed through */
} s_OrvAccessDiagData;

/* A platform pose: received in meta packets and sent with
 * OrvAccess_setPlatformPoseData. */
typedef struct s_OrvAccessPlatPoseData {
    uint32_t tag;   /* time tag, as the platform gives it; orvCore echoes the
                     * tag it used in s_OrvAccessTrkDataExt::platPoseTime */
    float pose[3];  /* roll, pitch, yaw of the platform, as its navigation
                     * system gives them: neither converted nor checked */
} s_OrvAccessPlatPoseData;

/* GPS data: received in meta packets and sent with OrvAccess_setGpsData.
 * Only lat and lon are named; the library passes every field through, in
 * this order, as the GPS subpacket and the uplink packet carry them. */
typedef struct s_OrvAccessGpsData {
    uint8_t valid;       /* the packet's format byte: 1 in a received record (the
                          * library ignores other formats); sent as it stands */
    uint32_t gpsWord1;   /* passed through */
    double lat; /* latitude, passed through */
    double lon; /* longitude, passed through */
    float gpsValue1;     /* passed through */
    uint16_t gpsHalf;    /* passed through */
    uint8_t gpsByte1;    /* passed through */
    float gpsValue2;     /* passed through */
    float gpsValue3;     /* passed through */
    uint32_t gpsWord2;   /* passed through */
    double gpsDouble1;   /* passed through */
    double gpsDouble2;   /* passed through */
    float gpsValue4;     /* passed through */
    float gpsValue5;     /* passed through */
    float gpsValue6;     /* passed through */
    uint32_t gpsByte2;   /* the packet's last byte, widened; only the low byte is sent */
} s_OrvAccessGpsData;

/* Pose-recovery statistics, from an optical subpacket or a PRA packet.
 * The library does not interpret them; the fields say where the two sources
 * differ. */
typedef struct s_OrvAccessPoseRecStats {
    uint32_t tag;    /* tag of the optical subpacket or the PRA packet */
    uint32_t stat0;  /* byte, passed through */
    uint32_t stat1;  /* byte, passed through */
    uint32_t stat2;  /* byte, passed through */
    uint32_t stat3;  /* byte, passed through; 0 from a PRA packet */
    float value0;    /* passed through */
    uint32_t flagA; /* 0 or 1; from a PRA packet its byte as sent */
    uint32_t flagB; /* 0 or 1; 0 from a PRA packet */
    float value1;    /* passed through; 0 from a PRA packet */
    float vec1[3];   /* passed through; from a PRA packet row 0 of a 3x3 matrix */
    float vec2[3];   /* passed through; from a PRA packet row 1 of that matrix */
    float vec3[3];   /* passed through; from a PRA packet row 2 of that matrix */
    float vec4[3];   /* passed through */
    float value2;    /* passed through; 0 from a PRA packet */
    float value3;    /* passed through */
    float value4;    /* passed through */
    float value5;    /* passed through */
    uint32_t extra[36]; /* PRA packets only; zero from optical subpackets. Words
                         * 0-2 and 3-5 hold the bits of two float vectors,
                         * words 6-35 sixty 16-bit counts, two to a word, the
                         * first of a pair in the low half */
} s_OrvAccessPoseRecStats;

/* A hub data packet from orvHub. Apart from the attitude, its fields are
 * passed through. */
typedef struct s_OrvAccessHubData {
    uint32_t word;      /* passed through */
    uint16_t halfWord;  /* passed through */
    uint8_t status;     /* status byte, passed through */
    uint32_t words[2];  /* passed through */
    uint64_t time; /* time from the packet, passed through */
    float cbn[3][3]; /* attitude, body to navigation, row-major */
    float euler[3];  /* roll, pitch, yaw of cbn, rad; computed */
    float vec[7][3]; /* seven vectors, passed through in packet order */
    uint8_t lastByte; /* passed through */
} s_OrvAccessHubData;

/* One pose handed out by a pose feed (OrvPoseFeed, OrvPoseFeed_...): the
 * newest tracking record, adjusted or predicted, with what a renderer needs
 * to judge it. 488 bytes. */
typedef struct s_OrvPoseFeedPose {
    s_OrvAccessTrkDataExt data; /* the record, adjusted (and predicted) as the access object's getters do; untouched while valid is 0 */
    uint64_t sequence;          /* tracking records the feed has taken since it was made (data is the last); 0 = none yet */
    uint64_t receivedUs;        /* library clock when the service thread published the record, us; 0 = none yet */
    uint64_t ageUs;             /* now minus receivedUs at the call, us; 0 when none yet or the clock went back */
    double predictionS;         /* the interval the attitude was extrapolated by, s */
    int32_t valid;              /* 1 when data holds a record, 0 before the first */
    int32_t stale;              /* 1 when no record came for longer than the stale time (always before the first) */
} s_OrvPoseFeedPose;

/* How a pose feed keeps its poses coming (OrvPoseFeed::getRecovery()).
 * orvRx stops streaming whenever another client opens the library or runs a
 * command, and forgets streaming when it restarts; the feed's service thread
 * then asks it to stream again, and opens the access object again when
 * asking fails. Counts since the last start; 272 bytes. */
typedef struct s_OrvPoseFeedRecovery {
    uint64_t outages;         /* times the poses stopped (none for 1 s) after they had come */
    uint64_t recoveries;      /* times they came back after an outage */
    uint64_t requests;        /* times orvRx was asked to stream again */
    uint64_t requestsFailed;  /* requests orvRx did not acknowledge */
    uint64_t reopens;         /* times the access object was closed and opened again */
    uint64_t reopensFailed;   /* reopens after which the command channel was still down */
    uint64_t longestOutageUs; /* longest outage that has ended, us */
    uint64_t lastOutageUs;    /* the newest outage that has ended, us */
    int32_t state;            /* an e_OrvAccessFeedStream */
    int32_t reserved;         /* 0 */
    char text[200];           /* the state in words, NUL-terminated (cut to fit), e.g. "tracking quiet for
                                 2.1 s: asked orvRx to stream again (2 tries)" */
} s_OrvPoseFeedRecovery;

#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L && !defined(__cplusplus)
_Static_assert(sizeof(s_OrvAccessTrkDataExt) == 448, "the tracking record is 448 bytes");
_Static_assert(sizeof(s_OrvPoseFeedPose) == 488, "the feed pose is 488 bytes");
_Static_assert(sizeof(s_OrvPoseFeedRecovery) == 272, "the feed recovery record is 272 bytes");
#endif

/* ---- enumerations ------------------------------------------------------- */

/* Which IMU: the camera IMU is the one carried by meta packets. */
typedef enum e_OrvAccessImuSelect {
    ORVACCESS_IMU_PLATFORM = 0, /* the platform IMU: its queue is never filled */
    ORVACCESS_IMU_CAMERA = 1    /* the camera IMU; orvRx's IMU channel 2 */
} e_OrvAccessImuSelect;

/* The state of a pose feed's stream (s_OrvPoseFeedRecovery::state). */
typedef enum e_OrvAccessFeedStream {
    ORVACCESS_FEED_WAITING = 0,      /* no pose yet since the feed started */
    ORVACCESS_FEED_FLOWING = 1,      /* poses arrive */
    ORVACCESS_FEED_QUIET = 2,        /* they stopped; orvRx was asked to stream again */
    ORVACCESS_FEED_RECONNECTING = 3, /* asking failed: the access object is opened again, with growing pauses */
    ORVACCESS_FEED_UNATTENDED = 4,   /* they stopped and there is no command channel to ask orvRx on */
    ORVACCESS_FEED_STOPPED = 5       /* the service thread does not run */
} e_OrvAccessFeedStream;

/* Storage location on the orvRx side; the values are orvRx's own and are
 * passed through as one byte. */
typedef enum e_OrvAccessFileLoc {
    ORVACCESS_FILE_LOC_0 = 0,    /* location 0 of orvRx */
    ORVACCESS_FILE_LOC_1 = 1,    /* location 1 of orvRx */
    ORVACCESS_FILE_LOC_2 = 2,    /* location 2 of orvRx */
    ORVACCESS_FILE_LOC_3 = 3,    /* location 3 of orvRx */
    ORVACCESS_FILE_LOC_MAX = 255 /* the largest value one byte carries */
} e_OrvAccessFileLoc;

/* Camera image formats: width x height x bytes per pixel. The size of an
 * image is their product (OrvAccess::getImageInfo()); any other code is
 * illegal. */
typedef enum e_OrvAccessImageFormat {
    ORVACCESS_IMG_640x480_1 = 10,    /* 307200 bytes */
    ORVACCESS_IMG_640x480_2 = 11,    /* 614400 bytes */
    ORVACCESS_IMG_640x480_1B = 12,   /* 307200 bytes, the geometry of 10 */
    ORVACCESS_IMG_752x480_1 = 20,    /* 360960 bytes */
    ORVACCESS_IMG_752x480_2 = 21,    /* 721920 bytes */
    ORVACCESS_IMG_1280x1024_1 = 30,  /* 1310720 bytes */
    ORVACCESS_IMG_1280x1024_2 = 31,  /* 2621440 bytes */
    ORVACCESS_IMG_1280x960_1 = 40,   /* 1228800 bytes */
    ORVACCESS_IMG_1280x960_1B = 41,  /* 1228800 bytes, the geometry of 40 */
    ORVACCESS_IMG_640x480_3 = 50,    /* 921600 bytes */
    ORVACCESS_IMG_1280x960_3 = 51    /* 3686400 bytes */
} e_OrvAccessImageFormat;

/* ---- the C interface ---------------------------------------------------- */

/* Opaque handle to an access object (the C++ class OrvAccess). */
#ifdef __cplusplus
class OrvAccess;
class OrvPoseFeed;
extern "C" {
#else
typedef struct OrvAccess OrvAccess;
/* Opaque handle to a pose feed (the C++ class OrvPoseFeed). */
typedef struct OrvPoseFeed OrvPoseFeed;
#endif
/* Opaque handle to one render thread's reader of a feed (in C++ an
 * OrvPoseFeed::Reader behind this name). */
typedef struct OrvPoseFeedReader OrvPoseFeedReader;

/* @name Lifecycle
 * open() reads the configuration file and opens every enabled channel; it
 * may be called again to apply a changed file.
 * @{ */
/* Creates an access object with nothing open (OrvAccess::OrvAccess()).
 * @return the handle every other function takes, or NULL when it could not
 * be made (out of memory). */
ORVACCESS_EXPORT OrvAccess* OrvAccess_create(void);
/* Closes the object (OrvAccess::close()) and frees it; the handle is
 * invalid afterwards. A NULL handle does nothing. */
ORVACCESS_EXPORT void OrvAccess_destroy(OrvAccess* handle);
/* Same as OrvAccess::open(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_open(OrvAccess* handle);
/* Same as OrvAccess::close(); 1. */
ORVACCESS_EXPORT int OrvAccess_close(OrvAccess* handle);
/* Same as OrvAccess::setIniPath(); path is a zero-terminated text. */
ORVACCESS_EXPORT void OrvAccess_setIniPath(OrvAccess* handle, const char* path);
/* @} */

/* @name Identity, clock and status
 * @{ */
/* Same as OrvAccess::getVersion(), copied into buf (len bytes at most). */
ORVACCESS_EXPORT char* OrvAccess_getVersion(OrvAccess* handle, char* buf, size_t len);
/* Same as OrvAccess::getBuildDate(), copied into buf (len bytes at most). */
ORVACCESS_EXPORT char* OrvAccess_getBuildDate(OrvAccess* handle, char* buf, size_t len);
/* Same as OrvAccess::getTimeUs(): now on the library clock, us. */
ORVACCESS_EXPORT unsigned long OrvAccess_getTimeUs(OrvAccess* handle);
/* Same as OrvAccess::getStatus(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_getStatus(OrvAccess* handle, s_OrvAccessStatus* status);
/* Same as OrvAccess::waitUdp(); *ready is 1 when a datagram waits, else 0;
 * 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_waitUdp(OrvAccess* handle, int timeoutMs, int* ready);
/* Extension: same as OrvAccess::getSenderDrops(); 1, or 0 when drops is
 * NULL. */
ORVACCESS_EXPORT int OrvAccess_getSenderDrops(OrvAccess* handle, s_OrvAccessSenderDrops* drops);
/* @} */

/* @name Errors
 * The reason of the last failure, and the queue of error codes.
 * @{ */
/* Same as OrvAccess::getLastError(), copied into buf (len bytes at most). */
ORVACCESS_EXPORT char* OrvAccess_getLastError(OrvAccess* handle, char* buf, size_t len);
/* Same as OrvAccess::getErrorCode(); code may be NULL when only the
 * returned code is wanted. */
ORVACCESS_EXPORT unsigned short OrvAccess_getErrorCode(OrvAccess* handle, s_OrvAccessErrorCode* code);
/* Same as OrvAccess::getErrorMessage() for the low 16 bits of code, copied
 * into buf (len bytes at most). */
ORVACCESS_EXPORT char* OrvAccess_getErrorMessage(OrvAccess* handle, char* buf, size_t len, int code);
/* @} */

/* @name Tracking
 * The newest pose, the pose predicted to a display time (us on the library
 * clock), and the oldest queued pose. The short record's functions write
 * data only when a record was delivered.
 * @{ */
/* Same as OrvAccess::getTrackingDataLatest(), the record shortened to an
 * s_OrvAccessTrkData. */
ORVACCESS_EXPORT int OrvAccess_getTrackingDataLatest(OrvAccess* handle, int* delivered,
                                                     s_OrvAccessTrkData* data);
/* Same as OrvAccess::getTrackingDataAtTime(), the record shortened to an
 * s_OrvAccessTrkData. */
ORVACCESS_EXPORT int OrvAccess_getTrackingDataAtTime(OrvAccess* handle, unsigned long displayTimeUs,
                                                     int* delivered, s_OrvAccessTrkData* data);
/* Same as OrvAccess::getTrackingDataLatest(). */
ORVACCESS_EXPORT int OrvAccess_getTrackingDataLatestExt(OrvAccess* handle, int* delivered,
                                                        s_OrvAccessTrkDataExt* data);
/* Same as OrvAccess::getTrackingData(): the oldest queued pose. */
ORVACCESS_EXPORT int OrvAccess_getTrackingDataExt(OrvAccess* handle, int* delivered,
                                                  s_OrvAccessTrkDataExt* data);
/* Same as OrvAccess::getTrackingDataAtTime(). */
ORVACCESS_EXPORT int OrvAccess_getTrackingDataAtTimeExt(OrvAccess* handle, unsigned long displayTimeUs,
                                                        int* delivered, s_OrvAccessTrkDataExt* data);
/* Same as OrvAccess::getPoseRecoveryStats(). */
ORVACCESS_EXPORT int OrvAccess_getPoseRecoveryStats(OrvAccess* handle, int* delivered,
                                                    s_OrvAccessPoseRecStats* stats);
/* Same as OrvAccess::setPrediction(); 1. */
ORVACCESS_EXPORT int OrvAccess_setPrediction(OrvAccess* handle, float seconds);
/* Same as OrvAccess::setBoresightRef(); 1. */
ORVACCESS_EXPORT int OrvAccess_setBoresightRef(OrvAccess* handle, float* rollPitchYaw);
/* Same as OrvAccess::setTipOffset(); 1. */
ORVACCESS_EXPORT int OrvAccess_setTipOffset(OrvAccess* handle, float* xyz);
/* @} */

/* @name Packets handed in by the application
 * Normally the service loop does it.
 * @{ */
/* Same as OrvAccess::processMetaPkt(). */
ORVACCESS_EXPORT void OrvAccess_processMetaPkt(OrvAccess* handle, const unsigned char* packet);
/* Same as OrvAccess::processTrackingPkt(). */
ORVACCESS_EXPORT void OrvAccess_processTrackingPkt(OrvAccess* handle, const unsigned char* packet);
/* @} */

/* @name Data from orvRx's meta packets
 * @{ */
/* Same as OrvAccess::getImuData(); a selector other than 0 or 1 fails
 * ("Invalid source IMU selector") with *delivered 0. */
ORVACCESS_EXPORT int OrvAccess_getImuData(OrvAccess* handle, e_OrvAccessImuSelect imu, int* delivered,
                                          s_OrvAccessImuData* data);
/* Same as OrvAccess::getImuDataLatest(). */
ORVACCESS_EXPORT int OrvAccess_getImuDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessImuData* data);
/* Same as OrvAccess::getAuxData(). */
ORVACCESS_EXPORT int OrvAccess_getAuxData(OrvAccess* handle, int* delivered, s_OrvAccessAuxData* data);
/* Same as OrvAccess::getAuxDataLatest(). */
ORVACCESS_EXPORT int OrvAccess_getAuxDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessAuxData* data);
/* Same as OrvAccess::getDiagData(). */
ORVACCESS_EXPORT int OrvAccess_getDiagData(OrvAccess* handle, int* delivered, s_OrvAccessDiagData* data);
/* Same as OrvAccess::getDiagDataLatest(). */
ORVACCESS_EXPORT int OrvAccess_getDiagDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessDiagData* data);
/* Same as OrvAccess::getGpsData(). */
ORVACCESS_EXPORT int OrvAccess_getGpsData(OrvAccess* handle, int* delivered, s_OrvAccessGpsData* data);
/* Same as OrvAccess::getTargetCount(), without telling whether a list was
 * there: unused is ignored and never written. */
ORVACCESS_EXPORT int OrvAccess_getTargetCount(OrvAccess* handle, int* unused, unsigned int* tag,
                                              unsigned int* count);
/* @} */

/* @name Uplink to orvRx
 * Sent at once.
 * @{ */
/* Same as OrvAccess::setPlatformPoseData(); 1 when sent. */
ORVACCESS_EXPORT int OrvAccess_setPlatformPoseData(OrvAccess* handle, s_OrvAccessPlatPoseData pose);
/* Same as OrvAccess::setGpsData(); 1 when sent. */
ORVACCESS_EXPORT int OrvAccess_setGpsData(OrvAccess* handle, s_OrvAccessGpsData* gps);
/* Same as OrvAccess::sendInputData(); 1 when sent. */
ORVACCESS_EXPORT int OrvAccess_sendInputData(OrvAccess* handle, unsigned char input);
/* @} */

/* @name Commands to orvRx over TCP
 * Time-outs named ...Ms are in milliseconds.
 * @{ */
/* Same as OrvAccess::setRegister(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_setRegister(OrvAccess* handle, unsigned int timeoutMs, unsigned int address,
                                           unsigned char value);
/* Same as OrvAccess::getRegister(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_getRegister(OrvAccess* handle, unsigned int timeoutMs, unsigned int address,
                                           unsigned char* value);
/* Same as OrvAccess::setStreaming(); any non-zero on switches streaming on. */
ORVACCESS_EXPORT int OrvAccess_setStreaming(OrvAccess* handle, int on);
/* Same as OrvAccess::getStreaming(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_getStreaming(OrvAccess* handle);
/* Same as OrvAccess::transactImu(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_transactImu(OrvAccess* handle, e_OrvAccessImuSelect imu, unsigned char* transmit,
                                           unsigned long transmitLength, unsigned char* receive,
                                           unsigned long receiveCapacity, unsigned int timeout,
                                           unsigned long* receivedLength);
/* Same as OrvAccess::getFile(); the two paths are zero-terminated texts and
 * only the low byte of location is sent. There is no C form of
 * OrvAccess::putFile(). */
ORVACCESS_EXPORT int OrvAccess_getFile(OrvAccess* handle, const char* remoteName, e_OrvAccessFileLoc location,
                                       const char* localPath);
/* @} */

/* @name Camera images
 * Over UDP or from orvHub's shared memory.
 * @{ */
/* Same as OrvAccess::getImageBufSize(): bytes. */
ORVACCESS_EXPORT unsigned int OrvAccess_getImageBufSize(OrvAccess* handle);
/* Same as OrvAccess::getImage(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_getImage(OrvAccess* handle, int* percent, e_OrvAccessImageFormat* format,
                                        unsigned int* sequenceId, unsigned char* buffer, unsigned long capacity);
/* Same as OrvAccess::getImageInfo(); 1 or 0. */
ORVACCESS_EXPORT int OrvAccess_getImageInfo(OrvAccess* handle, e_OrvAccessImageFormat format,
                                            unsigned long* size, int* width, int* height, int* bytesPerPixel);
/* @} */

/* @name Pose feed for render threads
 * A feed owns an open access object and a service thread that publishes
 * the newest pose; any number of threads read it without a system call, a
 * lock, an allocation or waiting (OrvPoseFeed_getLatest(),
 * OrvPoseFeedReader_getAtTime()). Everything else the access object offers
 * is used between OrvPoseFeed_lockAccess() and OrvPoseFeed_unlockAccess().
 * Each function does what the C++ method of the same name does (class
 * OrvPoseFeed in OrvPoseFeed.hpp); none lets an exception through.
 * @{ */
/* Opens an access object with the configuration file iniPath (NULL:
 * "orvaccess.ini") and starts the service thread.
 * @return the feed, or NULL with the reason copied into why (at most len
 * bytes; why may be NULL), e.g. "Unable to open any connections". */
ORVACCESS_EXPORT OrvPoseFeed* OrvPoseFeed_create(const char* iniPath, char* why, size_t len);
/* Stops the thread, closes the access object and frees the feed. Readers
 * must be destroyed first. NULL does nothing. */
ORVACCESS_EXPORT void OrvPoseFeed_destroy(OrvPoseFeed* feed);
/* Same as OrvPoseFeed::start(); 1 or 0 (reason: OrvPoseFeed_getLastError()). */
ORVACCESS_EXPORT int OrvPoseFeed_start(OrvPoseFeed* feed);
/* Same as OrvPoseFeed::stop(): joins the thread within a bounded time; 1. */
ORVACCESS_EXPORT int OrvPoseFeed_stop(OrvPoseFeed* feed);
/* Same as OrvPoseFeed::isRunning(); 1 or 0. */
ORVACCESS_EXPORT int OrvPoseFeed_isRunning(const OrvPoseFeed* feed);
/* Same as OrvPoseFeed::getLastError(), copied into buf (len bytes at most). */
ORVACCESS_EXPORT char* OrvPoseFeed_getLastError(const OrvPoseFeed* feed, char* buf, size_t len);
/* Same as OrvPoseFeed::getServiceError(), copied into buf (len bytes at most). */
ORVACCESS_EXPORT char* OrvPoseFeed_getServiceError(const OrvPoseFeed* feed, char* buf, size_t len);
/* Same as OrvPoseFeed::getRecovery(): the stream's state and what was done
 * to keep it; any thread, never waits for the service thread; 1, or 0 when
 * recovery is NULL. */
ORVACCESS_EXPORT int OrvPoseFeed_getRecovery(const OrvPoseFeed* feed, s_OrvPoseFeedRecovery* recovery);
/* Same as OrvPoseFeed::setStaleTimeUs(): us without a new pose after which
 * a pose is stale; any thread. */
ORVACCESS_EXPORT void OrvPoseFeed_setStaleTimeUs(OrvPoseFeed* feed, unsigned long staleUs);
/* Same as OrvPoseFeed::getLatest(): any thread, lock-free; 1 when a pose
 * was delivered (pose->valid), else 0. */
ORVACCESS_EXPORT int OrvPoseFeed_getLatest(const OrvPoseFeed* feed, s_OrvPoseFeedPose* pose);
/* A reader for one render thread (OrvPoseFeed::Reader); NULL when out of
 * memory. */
ORVACCESS_EXPORT OrvPoseFeedReader* OrvPoseFeedReader_create(const OrvPoseFeed* feed);
/* Frees a reader; NULL does nothing. */
ORVACCESS_EXPORT void OrvPoseFeedReader_destroy(OrvPoseFeedReader* reader);
/* Same as OrvPoseFeed::Reader::getAtTime(): the pose predicted to
 * displayTimeUs (us, library clock); lock-free; 1 when delivered, else 0. */
ORVACCESS_EXPORT int OrvPoseFeedReader_getAtTime(OrvPoseFeedReader* reader, unsigned long displayTimeUs,
                                                 s_OrvPoseFeedPose* pose);
/* Same as OrvPoseFeed::Reader::resetDisplayClock(). */
ORVACCESS_EXPORT void OrvPoseFeedReader_resetDisplayClock(OrvPoseFeedReader* reader);
/* Takes the feed's lock (the service thread finishes its pass first) and
 * lends its access object: pass it to any OrvAccess_ function but
 * OrvAccess_open, OrvAccess_close and OrvAccess_destroy until
 * OrvPoseFeed_unlockAccess(). Never on a render thread. NULL only when the
 * lock could not be taken. */
ORVACCESS_EXPORT OrvAccess* OrvPoseFeed_lockAccess(OrvPoseFeed* feed);
/* Publishes the pose settings again and releases the lock. */
ORVACCESS_EXPORT void OrvPoseFeed_unlockAccess(OrvPoseFeed* feed);
/* @} */

/* @name The library clock for applications
 * @{ */
/* Sleeps ms milliseconds (ms * 1000 must fit an int); 0 returns at once. */
ORVACCESS_EXPORT void OrvosiUtil_snoozeMs(int ms);
/* Now on the library clock in milliseconds, with the microseconds as the
 * fraction: OrvAccess::getTimeUs() / 1000.0. 0.0 if it failed. */
ORVACCESS_EXPORT double OrvosiUtil_getTimeMs(void);
/* @} */

#ifdef __cplusplus
}
#endif

#endif /* ORVACCESS_ORVACCESS_H */
