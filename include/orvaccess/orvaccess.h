/*
 * liborvaccess: the C interface and the public records.
 *
 * Every function takes the handle returned by OrvAccess_create() as its first
 * argument; the handle is not checked. No function lets an exception through:
 * status results become 0, text results the text "<exception>", and
 * OrvAccess_create() returns NULL. Text results are copied into the caller's
 * buffer with at most len bytes, always zero-terminated at buf[len - 1]; len
 * must be at least 1. Where a function reports through an int* whether a
 * record was delivered, it always stores 0 or 1 there.
 *
 * Units and conventions: times are microseconds on the library clock unless
 * a field says otherwise; angles are radians; lengths metres; attitude
 * matrices are body to navigation frame, row-major, Rz(yaw)*Ry(pitch)*Rx(roll);
 * Euler angles are ordered roll, pitch, yaw.
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
 * time2) are passed through as the tracker sent them. 448 bytes. */
typedef struct s_OrvAccessTrkDataExt {
    uint32_t packetTag;    /* packet tag; counts IMU samples */
    uint64_t poseTime;     /* time of the pose, us */
    uint32_t platPoseTime; /* time tag of the platform pose orvCore used */
    uint64_t time2;        /* second time from the packet */
    uint32_t statusWord;
    float vecA[3]; /* boresight-corrected on export */
    float vecB[3];
    float vecC[3];
    float vecD[3];
    float vecE[3];
    float vecF[3];
    uint16_t countA;
    uint16_t countB;
    float cbn[3][3];  /* head attitude, body to navigation, row-major */
    float euler[3];   /* roll, pitch, yaw of cbn, rad; computed on export */
    float cbn2[3][3]; /* second attitude matrix */
    float position[3];     /* m; the tip offset is added on export */
    float vecG[3];
    float vecH[3];
    float angularRate[3];  /* rad/s, body axes; drives the prediction */
    float vecI[3];
    float extA[9];         /* not carried by the packet: zero */
    float vecJ[3];         /* boresight-corrected on export */
    float extB[6];         /* zero from orvCore; filled by NFT packets */
    float vecK[3];
    float extC[9];         /* not carried by the packet: zero */
    float vecL[3];         /* boresight-corrected on export */
    float vecM[3];         /* boresight-corrected on export */
    float scalarA;
    float scalarB;
    uint8_t errorCodes[4]; /* orvCore error codes carried by the packet, 0 = none */
    float vecN[3];
    float vecO[3];
    float extD[3];         /* zero from orvCore; filled by NFT packets */
} s_OrvAccessTrkDataExt;

/* The short tracking record of OrvAccess_getTrackingDataLatest and
 * OrvAccess_getTrackingDataAtTime: a copy of some fields of the Ext record. */
typedef struct s_OrvAccessTrkData {
    uint32_t packetTag;
    uint32_t platPoseTime;
    float vecA[3];
    uint16_t countA;
    uint16_t countB;
    float euler[3];         /* roll, pitch, yaw, rad */
    float motion[4][3];     /* rows: position (m), vecG, vecH, angularRate (rad/s) */
    float aux[3][3];        /* rows: vecJ, extB[0..2], extB[3..5] */
    float vecL[3];
} s_OrvAccessTrkData;

/* Filled by OrvAccess_getStatus; words 2 to 4 report what happened since the
 * previous call and are cleared by it. */
typedef struct s_OrvAccessStatus {
    uint32_t connections; /* ORVACCESS_CONN_... bits (orvwire.h) */
    uint32_t received;    /* ORVACCESS_RECV_... bits (orvwire.h) */
    uint32_t newError;    /* 1 when an error code was queued */
    uint32_t diagState;   /* last orvRx state from a diagnostic subpacket, or 0 */
} s_OrvAccessStatus;

/* One queued error code; the high byte of code names its origin
 * (e_OrvAccessErrorOrigin); the library's own codes are e_OrvAccessError. */
typedef struct s_OrvAccessErrorCode {
    uint16_t code;
    uint32_t value; /* sequence number, count or 0, as the raiser attaches */
} s_OrvAccessErrorCode;

/* One IMU sample from a meta packet. */
typedef struct s_OrvAccessImuData {
    uint64_t time; /* sample time, us */
    uint32_t tag;
    uint32_t pid;    /* chip packet id, 0..255 */
    uint32_t status; /* chip status byte */
    float dt;        /* sample interval, s */
    uint16_t gyroRaw[3];
    uint16_t accelRaw[3];
    float gyroRate[3];  /* gyro increment / dt */
    float accelRate[3]; /* accelerometer increment / dt */
} s_OrvAccessImuData;

/* The auxiliary byte of a chip packet. */
typedef struct s_OrvAccessAuxData {
    uint32_t aux;
} s_OrvAccessAuxData;

/* A diagnostic subpacket from orvRx. */
typedef struct s_OrvAccessDiagData {
    uint32_t tag;
    float diagValue1;
    uint32_t diagCount; /* 24-bit value */
    uint8_t diagByte1;
    float diagValue2;
    uint8_t diagByte2;
    uint8_t errorCodes[4]; /* orvRx error bytes, 0 = none */
    uint32_t state;        /* orvRx state; 3 = stopped streaming */
    uint8_t optional[4];   /* zero when the subpacket does not carry them */
} s_OrvAccessDiagData;

/* A platform pose: received in meta packets and sent with
 * OrvAccess_setPlatformPoseData. */
typedef struct s_OrvAccessPlatPoseData {
    uint32_t tag;   /* time tag */
    float pose[3];  /* roll, pitch, yaw, rad */
} s_OrvAccessPlatPoseData;

/* GPS data: received in meta packets and sent with OrvAccess_setGpsData. */
typedef struct s_OrvAccessGpsData {
    uint8_t valid;
    uint32_t gpsWord1;
    double lat; /* latitude */
    double lon; /* longitude */
    float gpsValue1;
    uint16_t gpsHalf;
    uint8_t gpsByte1;
    float gpsValue2;
    float gpsValue3;
    uint32_t gpsWord2;
    double gpsDouble1;
    double gpsDouble2;
    float gpsValue4;
    float gpsValue5;
    float gpsValue6;
    uint32_t gpsByte2;
} s_OrvAccessGpsData;

/* Pose-recovery statistics, from an optical subpacket or a PRA packet. */
typedef struct s_OrvAccessPoseRecStats {
    uint32_t tag;
    uint32_t stat0;
    uint32_t stat1;
    uint32_t stat2;
    uint32_t stat3;
    float value0;
    uint32_t flagA; /* 0 or 1 */
    uint32_t flagB; /* 0 or 1 */
    float value1;
    float vec1[3];
    float vec2[3];
    float vec3[3];
    float vec4[3];
    float value2;
    float value3;
    float value4;
    float value5;
    uint32_t extra[36]; /* PRA packets only; zero from optical subpackets */
} s_OrvAccessPoseRecStats;

/* A hub data packet from orvHub. */
typedef struct s_OrvAccessHubData {
    uint32_t word;
    uint16_t halfWord;
    uint8_t status;
    uint32_t words[2];
    uint64_t time; /* us */
    float cbn[3][3]; /* attitude, body to navigation, row-major */
    float euler[3];  /* roll, pitch, yaw of cbn, rad; computed */
    float vec[7][3];
    uint8_t lastByte;
} s_OrvAccessHubData;

#if defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L && !defined(__cplusplus)
_Static_assert(sizeof(s_OrvAccessTrkDataExt) == 448, "the tracking record is 448 bytes");
#endif

/* ---- enumerations ------------------------------------------------------- */

/* Which IMU: the camera IMU is the one carried by meta packets. */
typedef enum e_OrvAccessImuSelect {
    ORVACCESS_IMU_PLATFORM = 0,
    ORVACCESS_IMU_CAMERA = 1
} e_OrvAccessImuSelect;

/* Storage location on the orvRx side; the values are orvRx's own and are
 * passed through as one byte. */
typedef enum e_OrvAccessFileLoc {
    ORVACCESS_FILE_LOC_0 = 0,
    ORVACCESS_FILE_LOC_1 = 1,
    ORVACCESS_FILE_LOC_2 = 2,
    ORVACCESS_FILE_LOC_3 = 3,
    ORVACCESS_FILE_LOC_MAX = 255
} e_OrvAccessFileLoc;

/* Camera image formats: width x height x bytes per pixel. */
typedef enum e_OrvAccessImageFormat {
    ORVACCESS_IMG_640x480_1 = 10,
    ORVACCESS_IMG_640x480_2 = 11,
    ORVACCESS_IMG_640x480_1B = 12,
    ORVACCESS_IMG_752x480_1 = 20,
    ORVACCESS_IMG_752x480_2 = 21,
    ORVACCESS_IMG_1280x1024_1 = 30,
    ORVACCESS_IMG_1280x1024_2 = 31,
    ORVACCESS_IMG_1280x960_1 = 40,
    ORVACCESS_IMG_1280x960_1B = 41,
    ORVACCESS_IMG_640x480_3 = 50,
    ORVACCESS_IMG_1280x960_3 = 51
} e_OrvAccessImageFormat;

/* ---- the C interface ---------------------------------------------------- */

/* Opaque handle to an access object (the C++ class OrvAccess). */
#ifdef __cplusplus
class OrvAccess;
extern "C" {
#else
typedef struct OrvAccess OrvAccess;
#endif

/* Lifecycle. open() reads the configuration file and opens every enabled
 * channel; it may be called again to apply a changed file. */
ORVACCESS_EXPORT OrvAccess* OrvAccess_create(void);
ORVACCESS_EXPORT void OrvAccess_destroy(OrvAccess* handle);
ORVACCESS_EXPORT int OrvAccess_open(OrvAccess* handle);
ORVACCESS_EXPORT int OrvAccess_close(OrvAccess* handle);
ORVACCESS_EXPORT void OrvAccess_setIniPath(OrvAccess* handle, const char* path);

/* Identity, clock and status. */
ORVACCESS_EXPORT char* OrvAccess_getVersion(OrvAccess* handle, char* buf, size_t len);
ORVACCESS_EXPORT char* OrvAccess_getBuildDate(OrvAccess* handle, char* buf, size_t len);
ORVACCESS_EXPORT unsigned long OrvAccess_getTimeUs(OrvAccess* handle);
ORVACCESS_EXPORT int OrvAccess_getStatus(OrvAccess* handle, s_OrvAccessStatus* status);

/* Errors: the reason of the last failure, and the queue of error codes. */
ORVACCESS_EXPORT char* OrvAccess_getLastError(OrvAccess* handle, char* buf, size_t len);
ORVACCESS_EXPORT unsigned short OrvAccess_getErrorCode(OrvAccess* handle, s_OrvAccessErrorCode* code);
ORVACCESS_EXPORT char* OrvAccess_getErrorMessage(OrvAccess* handle, char* buf, size_t len, int code);

/* Tracking: the newest pose, the pose predicted to a display time (us on the
 * library clock), and the oldest queued pose. */
ORVACCESS_EXPORT int OrvAccess_getTrackingDataLatest(OrvAccess* handle, int* delivered,
                                                     s_OrvAccessTrkData* data);
ORVACCESS_EXPORT int OrvAccess_getTrackingDataAtTime(OrvAccess* handle, unsigned long displayTimeUs,
                                                     int* delivered, s_OrvAccessTrkData* data);
ORVACCESS_EXPORT int OrvAccess_getTrackingDataLatestExt(OrvAccess* handle, int* delivered,
                                                        s_OrvAccessTrkDataExt* data);
ORVACCESS_EXPORT int OrvAccess_getTrackingDataExt(OrvAccess* handle, int* delivered,
                                                  s_OrvAccessTrkDataExt* data);
ORVACCESS_EXPORT int OrvAccess_getTrackingDataAtTimeExt(OrvAccess* handle, unsigned long displayTimeUs,
                                                        int* delivered, s_OrvAccessTrkDataExt* data);
ORVACCESS_EXPORT int OrvAccess_getPoseRecoveryStats(OrvAccess* handle, int* delivered,
                                                    s_OrvAccessPoseRecStats* stats);
ORVACCESS_EXPORT int OrvAccess_setPrediction(OrvAccess* handle, float seconds);
ORVACCESS_EXPORT int OrvAccess_setBoresightRef(OrvAccess* handle, float* rollPitchYaw);
ORVACCESS_EXPORT int OrvAccess_setTipOffset(OrvAccess* handle, float* xyz);

/* Packets handed in by the application (normally the service loop does it). */
ORVACCESS_EXPORT void OrvAccess_processMetaPkt(OrvAccess* handle, const unsigned char* packet);
ORVACCESS_EXPORT void OrvAccess_processTrackingPkt(OrvAccess* handle, const unsigned char* packet);

/* Data from orvRx's meta packets. */
ORVACCESS_EXPORT int OrvAccess_getImuData(OrvAccess* handle, e_OrvAccessImuSelect imu, int* delivered,
                                          s_OrvAccessImuData* data);
ORVACCESS_EXPORT int OrvAccess_getImuDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessImuData* data);
ORVACCESS_EXPORT int OrvAccess_getAuxData(OrvAccess* handle, int* delivered, s_OrvAccessAuxData* data);
ORVACCESS_EXPORT int OrvAccess_getAuxDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessAuxData* data);
ORVACCESS_EXPORT int OrvAccess_getDiagData(OrvAccess* handle, int* delivered, s_OrvAccessDiagData* data);
ORVACCESS_EXPORT int OrvAccess_getDiagDataLatest(OrvAccess* handle, int* delivered, s_OrvAccessDiagData* data);
ORVACCESS_EXPORT int OrvAccess_getGpsData(OrvAccess* handle, int* delivered, s_OrvAccessGpsData* data);
/* Consumes one whole target list and reports its tag and length; the first
 * argument is ignored. */
ORVACCESS_EXPORT int OrvAccess_getTargetCount(OrvAccess* handle, int* unused, unsigned int* tag,
                                              unsigned int* count);

/* Uplink to orvRx: sent at once. */
ORVACCESS_EXPORT int OrvAccess_setPlatformPoseData(OrvAccess* handle, s_OrvAccessPlatPoseData pose);
ORVACCESS_EXPORT int OrvAccess_setGpsData(OrvAccess* handle, s_OrvAccessGpsData* gps);
ORVACCESS_EXPORT int OrvAccess_sendInputData(OrvAccess* handle, unsigned char input);

/* Commands to orvRx over TCP. Time-outs are in milliseconds. */
ORVACCESS_EXPORT int OrvAccess_setRegister(OrvAccess* handle, unsigned int timeoutMs, unsigned int address,
                                           unsigned char value);
ORVACCESS_EXPORT int OrvAccess_getRegister(OrvAccess* handle, unsigned int timeoutMs, unsigned int address,
                                           unsigned char* value);
ORVACCESS_EXPORT int OrvAccess_setStreaming(OrvAccess* handle, int on);
ORVACCESS_EXPORT int OrvAccess_getStreaming(OrvAccess* handle);
ORVACCESS_EXPORT int OrvAccess_transactImu(OrvAccess* handle, e_OrvAccessImuSelect imu, unsigned char* transmit,
                                           unsigned long transmitLength, unsigned char* receive,
                                           unsigned long receiveCapacity, unsigned int timeout,
                                           unsigned long* receivedLength);
ORVACCESS_EXPORT int OrvAccess_getFile(OrvAccess* handle, const char* remoteName, e_OrvAccessFileLoc location,
                                       const char* localPath);

/* Camera images, over UDP or from orvHub's shared memory. */
ORVACCESS_EXPORT unsigned int OrvAccess_getImageBufSize(OrvAccess* handle);
ORVACCESS_EXPORT int OrvAccess_getImage(OrvAccess* handle, int* percent, e_OrvAccessImageFormat* format,
                                        unsigned int* sequenceId, unsigned char* buffer, unsigned long capacity);
ORVACCESS_EXPORT int OrvAccess_getImageInfo(OrvAccess* handle, e_OrvAccessImageFormat format,
                                            unsigned long* size, int* width, int* height, int* bytesPerPixel);

/* The library clock for applications. */
ORVACCESS_EXPORT void OrvosiUtil_snoozeMs(int ms);
ORVACCESS_EXPORT double OrvosiUtil_getTimeMs(void);

#ifdef __cplusplus
}
#endif

#endif /* ORVACCESS_ORVACCESS_H */
