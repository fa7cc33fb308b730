/*
 * liborvaccess: the numbers of the tracking system's wire protocol, named once.
 *
 * Error codes, the bits of the status words and of the verbosity and logging
 * masks, and the start bytes, lengths and offsets of every datagram and
 * subpacket. The library, its simulator and its tools use these names; an
 * application uses them to switch on error codes and to build masks.
 *
 * Every datagram and subpacket is framed alike: a start byte naming its kind,
 * its total length as a 16-bit little-endian word (start byte and checksum
 * included), the body, and a checksum byte that makes the 8-bit sum of all
 * its bytes zero. All numbers are little-endian; reals are IEEE 754.
 *
 * Plain C99; included by orvaccess.h.
 */
#ifndef ORVACCESS_ORVWIRE_H
#define ORVACCESS_ORVWIRE_H

/* ---- error codes ---------------------------------------------------------- */

/* The high byte of an error code names where it comes from. orvCore's codes
 * are queued as they stand, orvRx's and orvHub's with their origin ORed in. */
typedef enum e_OrvAccessErrorOrigin {
    ORVACCESS_ORIGIN_ORVCORE = 0x000,   /* orvCore, the fusion engine: "[ORVCORE]" */
    ORVACCESS_ORIGIN_ORVRX = 0x100,     /* orvRx, the sensor front end: "[ORVRX]" */
    ORVACCESS_ORIGIN_ORVTX = 0x200,     /* the transmitter process: "[ORVTX]" */
    ORVACCESS_ORIGIN_ORVACCESS = 0x300, /* this library: "[ORVACCESS]" */
    ORVACCESS_ORIGIN_ORVHUB = 0x400,    /* orvHub: "[ORVHUB]" */
    ORVACCESS_ORIGIN_MASK = 0xFF00      /* code & mask gives the origin */
} e_OrvAccessErrorOrigin;

/* The codes this library raises (origin ORVACCESS_ORIGIN_ORVACCESS), with the
 * value each queues beside it. A "bad ... packet" code means the datagram
 * failed its framing check (start byte, length, checksum) and was dropped. */
typedef enum e_OrvAccessError {
    ORVACCESS_ERR_NONE = 0,                    /* no error; also what an empty queue gives */
    ORVACCESS_ERR_IMAGE_TRANSFER = 769,        /* image reassembly failed; value: a sequence id */
    ORVACCESS_ERR_BAD_TRACKING_PKT = 770,      /* orvCore port; value 0 */
    ORVACCESS_ERR_BAD_IMAGE_PKT = 771,         /* image port; value 0 */
    ORVACCESS_ERR_BAD_META_PKT = 772,          /* meta port; value 0 */
    ORVACCESS_ERR_BAD_OPTICAL_SUBPKT = 773,    /* value 0 */
    ORVACCESS_ERR_BAD_DIAG_SUBPKT = 774,       /* value 0 */
    ORVACCESS_ERR_BAD_TARGET_SUBPKT = 775,     /* value 0 */
    ORVACCESS_ERR_BAD_PLATPOSE_SUBPKT = 776,   /* value 0 */
    ORVACCESS_ERR_BAD_IMU_SUBPKT = 777,        /* value 0 */
    ORVACCESS_ERR_TARGET_OVERRUN = 778,        /* entries beyond the subpacket; value: its tag */
    ORVACCESS_ERR_DIAG_OVERRUN = 779,          /* value: the subpacket's tag */
    ORVACCESS_ERR_OPTICAL_OVERRUN = 780,       /* value: the subpacket's tag */
    ORVACCESS_ERR_BAD_HUB_PKT = 781,           /* orvHub port; value 0 */
    ORVACCESS_ERR_BAD_NFT_PKT = 782,           /* NFT port; value 0 */
    ORVACCESS_ERR_BAD_GPS_SUBPKT = 783,        /* value 0 */
    ORVACCESS_ERR_BAD_PRA_PKT = 784            /* orvCore port; value 0 */
} e_OrvAccessError;

/* ---- status words (s_OrvAccessStatus) ------------------------------------ */

/* s_OrvAccessStatus.connections: the channels the last open() brought up.
 * The NFT port has no bit. */
typedef enum e_OrvAccessConnection {
    ORVACCESS_CONN_TCP = 0x1,         /* command connection to orvRx */
    ORVACCESS_CONN_META = 0x2,        /* meta port (udpOrvRxPort) */
    ORVACCESS_CONN_IMAGE = 0x4,       /* image port (udpOrvRxImgPort) */
    ORVACCESS_CONN_UPLINK = 0x8,      /* uplink sender (udpOrvRxInputPort) */
    ORVACCESS_CONN_ORVCORE = 0x10,    /* orvCore port (udpOrvCorePort) */
    ORVACCESS_CONN_ORVHUB = 0x20,     /* orvHub port (udpOrvHubPort) */
    ORVACCESS_CONN_SHARED_MEM = 0x40  /* shared-memory image (sMemImgName) */
} e_OrvAccessConnection;

/* s_OrvAccessStatus.received: kinds of data that arrived since the last
 * getStatus(). Hub error packets set no bit. */
typedef enum e_OrvAccessReceived {
    ORVACCESS_RECV_META = 0x2,        /* a meta packet */
    ORVACCESS_RECV_IMAGE = 0x4,       /* an image packet over UDP */
    ORVACCESS_RECV_TRACKING = 0x10,   /* a tracking packet from orvCore */
    ORVACCESS_RECV_HUB = 0x20,        /* a hub data packet */
    ORVACCESS_RECV_SHARED_MEM = 0x40, /* an image taken from shared memory by getImage() */
    ORVACCESS_RECV_NFT = 0x80,        /* an NFT packet */
    ORVACCESS_RECV_PRA = 0x100        /* a PRA packet */
} e_OrvAccessReceived;

/* s_OrvAccessDiagData.state and s_OrvAccessStatus.diagState. */
typedef enum e_OrvAccessRxState {
    ORVACCESS_RX_STATE_STOPPED = 3 /* orvRx stopped streaming; the next getter restarts it */
} e_OrvAccessRxState;

/* orvRx's registers that the library itself reads and writes (getRegister,
 * setRegister). */
typedef enum e_OrvAccessRegister {
    ORVACCESS_REG_STREAMING = 0 /* streaming switch: 1 on, 0 off */
} e_OrvAccessRegister;

/* ---- verbosity and logging masks ----------------------------------------- */

/* Bits of the verbosity mask (setVerbosity, key "verbosity"). Text lines go
 * to std::clog (LOG, ERR) or standard output (the rest); each DUMP bit writes
 * one hex line per datagram or subpacket of its kind, at most 200 bytes. */
typedef enum e_OrvAccessVerbosity {
    ORVACCESS_VERB_LOG = 0x1,               /* "ORVALOG: " general lines */
    ORVACCESS_VERB_INFO = 0x2,              /* "ORVAINFO: " information lines */
    ORVACCESS_VERB_ERR = 0x4,               /* "ORVAERR: " error lines */
    ORVACCESS_VERB_DUMP_TCP_OUT = 0x10,     /* ORVATCPOUT */
    ORVACCESS_VERB_DUMP_TCP_IN = 0x20,      /* ORVATCPIN */
    ORVACCESS_VERB_DUMP_UDP_OUT = 0x40,     /* ORVAUDPOUT: uplink packets */
    ORVACCESS_VERB_DUMP_TARGET = 0x100,     /* ORVATGT */
    ORVACCESS_VERB_DUMP_IMU_CAM = 0x200,    /* ORVAIMUCAM */
    ORVACCESS_VERB_DUMP_IMU_PLAT = 0x400,   /* ORVAIMUPLAT */
    ORVACCESS_VERB_DUMP_PLATPOSE = 0x800,   /* ORVAPLATPOSE */
    ORVACCESS_VERB_DUMP_TRACKING = 0x1000,  /* ORVATRK */
    ORVACCESS_VERB_DUMP_META = 0x2000,      /* ORVAMETA */
    ORVACCESS_VERB_DUMP_IMAGE = 0x4000,     /* ORVAIMG */
    ORVACCESS_VERB_DUMP_OPTICAL = 0x8000,   /* ORVATGTRES */
    ORVACCESS_VERB_DUMP_DIAG = 0x10000,     /* ORVADUMP: diagnostic and GPS subpackets */
    ORVACCESS_VERB_DUMP_HUB = 0x20000,      /* ORVAHUB */
    ORVACCESS_VERB_DUMP_NFT = 0x40000,      /* ORVANFT */
    ORVACCESS_VERB_DUMP_PRA = 0x80000,      /* ORVAPRA */
    ORVACCESS_VERB_PRED = 0x100000,         /* "ORVAPRED: " prediction trace */
    ORVACCESS_VERB_PRED_CSV = 0x200000,     /* "ORVAPREDCSV," prediction lines */
    ORVACCESS_VERB_PLATPOSE_TRACE = 0x400000 /* "ORVAPLATPOSE: tin=" / "tout=" pairs */
} e_OrvAccessVerbosity;

/* Bits of the logging mask (setLogging, key "logging"): raw bytes appended
 * to files below logPath. */
typedef enum e_OrvAccessLogChannel {
    ORVACCESS_LOG_TRACKING = 0x1,   /* orvaTrk.log */
    ORVACCESS_LOG_META = 0x2,       /* orvaMeta.log */
    ORVACCESS_LOG_PRED = 0x4,       /* orvaPred.log: prediction records */
    ORVACCESS_LOG_HARM = 0x8,       /* orvaHarm.log: one line per 5 s */
    ORVACCESS_LOG_TARGET = 0x10,    /* orvaSub.log: target subpackets */
    ORVACCESS_LOG_IMU = 0x20,       /* orvaSub.log: IMU subpackets */
    ORVACCESS_LOG_SUB_SPARE = 0x40, /* accepted, written by nothing */
    ORVACCESS_LOG_PLATPOSE = 0x80,  /* orvaSub.log: platform-pose subpackets */
    ORVACCESS_LOG_DIAG = 0x100,     /* orvaSub.log: diagnostic and GPS subpackets */
    ORVACCESS_LOG_OPTICAL = 0x200,  /* orvaSub.log: optical subpackets */
    ORVACCESS_LOG_HUB = 0x1000,     /* the subpacket file: hub data and hub error
                                     * packets; orvaNFT.log when no subpacket
                                     * was logged before */
    ORVACCESS_LOG_NFT = 0x2000,     /* orvaNFT.log */
    ORVACCESS_LOG_PRA = 0x4000      /* orvaPRA.log */
} e_OrvAccessLogChannel;

/* ---- datagrams and subpackets -------------------------------------------- */

/* Start bytes. Uplink packets, sent to orvRx, reuse two of the numbers. */
typedef enum e_OrvWireStart {
    ORVWIRE_CHIP_SYNC = 5,          /* first byte of an inertial chip packet */
    ORVWIRE_START_TARGET = 6,       /* subpacket of a meta packet */
    ORVWIRE_START_IMAGE = 7,        /* datagram on the image port */
    ORVWIRE_START_PLATPOSE = 7,     /* subpacket of a meta packet; also the uplink */
    ORVWIRE_START_GPS = 8,          /* subpacket of a meta packet; also the uplink */
    ORVWIRE_START_INPUT = 8,        /* uplink, told from GPS by its length */
    ORVWIRE_START_TRACKING = 10,    /* datagram on the orvCore port */
    ORVWIRE_START_HUB_DATA = 11,    /* datagram on the orvHub port */
    ORVWIRE_START_HUB_ERROR = 12,   /* datagram on the orvHub port, not checked */
    ORVWIRE_START_DIAG = 13,        /* subpacket of a meta packet */
    ORVWIRE_START_NFT = 14,         /* datagram on the NFT port */
    ORVWIRE_START_PRA = 15,         /* datagram on the orvCore port */
    ORVWIRE_START_OPTICAL = 16,     /* subpacket at the end of a tracking packet */
    ORVWIRE_START_META = 19         /* datagram on the meta port */
} e_OrvWireStart;

/* Lengths and offsets in bytes. "AT" is an offset from the start of the
 * datagram or subpacket; "SIZE" a whole packet with its checksum byte. */
typedef enum e_OrvWireLayout {
    ORVWIRE_HEADER_SIZE = 3,             /* start byte and length word */
    ORVWIRE_MAX_DATAGRAM = 65535,        /* the length word's ceiling */

    ORVWIRE_TRACKING_POSE_TIME_AT = 7,   /* u64 pose time, us */
    ORVWIRE_TRACKING_SIZE = 332,         /* without an optical subpacket */
    ORVWIRE_TRACKING_OPTICAL_AT = 331,   /* where an optical subpacket starts */
    ORVWIRE_OPTICAL_TARGETS_AT = 10,     /* the target entries */
    ORVWIRE_OPTICAL_TARGET_SIZE = 22,    /* u16 id, five f32 residuals */
    ORVWIRE_OPTICAL_STATS_SIZE = 78,     /* the pose-recovery block */

    ORVWIRE_META_PLATPOSE_OFFSET_AT = 13, /* u8 offset of the subpacket, 0 = absent */
    ORVWIRE_META_TARGET_OFFSET_AT = 14,   /* u8 */
    ORVWIRE_META_DIAG_OFFSET_AT = 15,     /* u16 */
    ORVWIRE_META_GPS_OFFSET_AT = 17,      /* u16 */
    ORVWIRE_META_TIME_AT = 19,            /* u64 time of the IMU sample, us */
    ORVWIRE_META_IMU_AT = 27,             /* the chip packet */
    ORVWIRE_META_IMU_SIZE = 19,          /* the chip packet's length */

    ORVWIRE_TARGET_ENTRIES_AT = 14,      /* the entries of a target subpacket */
    ORVWIRE_TARGET_ENTRY_SIZE = 35,      /* kind, id, four u16, six f32 */
    ORVWIRE_DIAG_OPTIONAL_1 = 27,        /* lengths above this carry two optional bytes ... */
    ORVWIRE_DIAG_OPTIONAL_2 = 29,        /* ... and above this two more */
    ORVWIRE_PLATPOSE_FORMAT3_AT = 8,     /* the pose, format 3 */
    ORVWIRE_PLATPOSE_FORMAT2_AT = 20,    /* the pose, format 2 */

    ORVWIRE_HUB_DATA_SIZE = 151,         /* a hub data packet */
    ORVWIRE_HUB_ERROR_SIZE = 10,         /* as sent; not checked on receipt */
    ORVWIRE_PRA_SIZE = 220,              /* a PRA packet */
    ORVWIRE_NFT_POSE_TIME_AT = 7,        /* u64 pose time, us */
    ORVWIRE_NFT_FEATURES_AT = 140,       /* after the u32 feature count at 136 */
    ORVWIRE_NFT_FEATURE_SIZE = 12,       /* three f32 */
    ORVWIRE_NFT_SIZE = 153,              /* without features */

    ORVWIRE_IMAGE_PIXELS_AT = 11,        /* after sequence id, format, 24-bit address */
    ORVWIRE_IMAGE_OVERHEAD = 12,         /* and the checksum byte */

    /* The shared-memory image region that orvHub writes. */
    ORVWIRE_SHM_READY_AT = 0,            /* 1: an image waits; the reader sets it to 0 */
    ORVWIRE_SHM_SEQID_AT = 1,            /* u32 */
    ORVWIRE_SHM_FORMAT_AT = 5,           /* image format code */
    ORVWIRE_SHM_PIXELS_AT = 6,           /* the size of the format */

    ORVWIRE_UPLINK_PLATPOSE_SIZE = 21,   /* the uplink packets the library sends */
    ORVWIRE_UPLINK_GPS_SIZE = 73,        /* fields unaligned, as in the record's order */
    ORVWIRE_UPLINK_INPUT_SIZE = 5        /* one input code */
} e_OrvWireLayout;

/* Formats carried inside packets; a subpacket of any other format is
 * ignored without an error code. */
typedef enum e_OrvWireFormat {
    ORVWIRE_PLATPOSE_FORMAT2 = 2, /* platform pose at ORVWIRE_PLATPOSE_FORMAT2_AT */
    ORVWIRE_PLATPOSE_FORMAT3 = 3, /* platform pose at ORVWIRE_PLATPOSE_FORMAT3_AT; the uplink's */
    ORVWIRE_GPS_FORMAT = 1        /* the only GPS format */
} e_OrvWireFormat;

#endif /* ORVACCESS_ORVWIRE_H */
