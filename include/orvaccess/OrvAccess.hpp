// liborvaccess: the C++ interface.
//
// One OrvAccess object talks to one tracking system. It has no threads of its
// own: every data getter first drains the UDP ports inside the caller's call
// (unless the manual-service switch is on), then hands out a copy of a record.
// Use an object from one thread at a time; to work on several threads, give
// each its own object. Objects share nothing but the log files and the
// standard streams, and the library guards those: no line or log record of
// one object lands inside another's. Units and conventions of the records
// are given in orvaccess.h.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvaccess/orvaccess.h"

// The access object: one tracking system's channels, queues and settings.
//
// The getters that take a bool* valid all work alike: they first drain the
// UDP ports (serviceUdp()), then copy a record out. *valid says whether a
// record was delivered; the record is written only then. The result is
// false only when draining failed ("Unable to service UDP: Interface not
// open" before open(), or "Error receiving from ...: " and the socket's
// reason), and then neither *valid nor the record is touched. A getter that
// pops takes the oldest queued record; a "Latest" getter copies the newest
// one and leaves it. Each queue is bounded by the configuration (Memory
// section) and drops its oldest records when full.
//
// The commands to orvRx wait for their reply inside the call, polling every
// 5 ms. A failed write or read gives "Error writing command to orvRx: " or
// "Error reading reply from orvRx: " and the socket's reason; a lost
// connection stays lost until the next open(). All but setRegister() switch
// streaming off first; the next getter switches it on again.
class ORVACCESS_EXPORT OrvAccess {
public:
    // One target residual of an optical subpacket; a record with id 0 closes
    // the residuals of one subpacket.
    struct s_TgtResData {
        uint32_t tag;   // tag of the optical subpacket, the same on all its records
        uint32_t index; // position of the target in its subpacket
        uint32_t id;    // target id; 0 on the closing record
        // The target's five residual values, passed through; the closing
        // record repeats the last target's (undefined after no target).
        float resid[5];
    };

    // One entry of a target list; a record with kind 0 and id 0 closes a list.
    // A list may be spread over several target subpackets; the closing
    // record repeats the list's last entry. The values are passed through.
    struct s_TgtData {
        uint32_t tag;     // tag of the target subpacket that carried the entry
        uint32_t index; // position in the whole list
        uint32_t kind;    // the entry's kind byte; 0 on the closing record
        uint16_t id;      // target id; 0 on the closing record
        uint32_t hdrByte; // header byte of the subpacket, passed through
        uint16_t word1;   // first of the entry's four 16-bit words, passed through
        uint16_t word2;   // second 16-bit word, passed through
        uint16_t word3;   // third 16-bit word, passed through
        uint16_t word4;   // fourth 16-bit word, passed through
        float value1;     // first of the entry's six floats, passed through
        float value2;     // second float, passed through
        float value3;     // third float, passed through
        float value4;     // fourth float, passed through
        float value5;     // fifth float, passed through
        float value6;     // sixth float, passed through
        uint32_t trailer; // trailer byte of the subpacket, passed through
    };

    // One natural feature of an NFT packet.
    struct s_FeatData {
        uint32_t sequenceId; // packetTag of the NFT packet
        uint32_t index;      // 0, 1, 2 ... in packet order
        uint32_t valid;      // always 1
        float position[3];   // the feature's three coordinates, passed through
    };

    // One completed 256-bit clock-relation row: bit n (bit n % 8 of byte
    // n / 8) was carried by the chip packet with id n.
    struct s_ImuCrs {
        uint8_t bits[32];    // the 256 bits, packet id n at bit n % 8 of byte n / 8
    };

    // Assembler of the clock-relation rows of one IMU source. It takes bit 4
    // of each chip packet's status byte while the packet ids run 0, 1 ...
    // 255 without a gap; a gap waits for the next id 0.
    struct s_ImuCrsBuf {
        uint8_t rows[2][32]; // two rows, one filled while the other is complete
        uint32_t fillRow;    // row being filled, 0 or 1
        int32_t completeRow; // last completed row, -1 = none
        int32_t lastPid;     // last packet id seen, -1 = none
    };

    // The camera image format codes (width x height x bytes per pixel).
    typedef e_OrvAccessImageFormat ImageFormat;

    // An object with nothing open; the configuration file is
    // "orvaccess.ini" until setIniPath(). Nothing is read or opened before
    // open().
    OrvAccess();
    // Closes the object if it is open.
    ~OrvAccess();
    // Not copyable: the object owns its sockets, queues and shared memory.
    OrvAccess(const OrvAccess&) = delete;
    // Not copyable either.
    OrvAccess& operator=(const OrvAccess&) = delete;

    // ---- lifecycle and configuration ----
    // Closes whatever is open, re-reads the configuration file and opens every
    // enabled channel. False ("Unable to open any connections") when no
    // receiving channel came up.
    //
    // Every open() starts afresh: all queues, the error codes and the last
    // error are emptied, the verbosity and logging masks, prediction,
    // boresight and tip offset are taken from the file again. The channels
    // are the TCP command channel to orvRx, the uplink sender, the meta,
    // image, orvCore, orvHub and NFT ports and the shared-memory image; one
    // that fails is only logged (verbosity bit ORVACCESS_VERB_LOG) and the
    // others still open. With the TCP channel up, streaming is switched off
    // (the next getter switches it on). May block for the TCP connect.
    // @return true when the TCP channel or a receiving UDP port is open; the
    // uplink sender and the shared memory alone do not count. Also false,
    // with nothing opened, when the configuration's "udpAllowedSenders" does
    // not read ("Unable to open: udpAllowedSenders " and the entry).
    bool open();
    // Stops streaming and closes every channel; queues, error codes and the
    // last error stay. Always true.
    //
    // The connection bits of getStatus() also stay as open() left them.
    // The object may be opened again.
    bool close();
    // Reads the configuration and resets the run-time state; called by open().
    // Not meant for the application: call open().
    void init();
    // The configuration file read by the next open(); default "orvaccess.ini".
    // @param path a path, relative ones to the working directory; no other
    // directory is searched, and a missing file means every default.
    void setIniPath(std::string path);
    // Sets the verbosity mask until the next open(), which takes the
    // configuration's "verbosity" again.
    // @param mask e_OrvAccessVerbosity bits: which text lines and hex dumps
    // go to std::clog and standard output; 0 silences the library.
    void setVerbosity(unsigned int mask);
    // Sets the logging mask and the log files' prefix until the next open().
    // Closes the open log files (not the PRA one); each reopens, appending,
    // under the new prefix when it is next written.
    // @param mask e_OrvAccessLogChannel bits: which raw packets are appended
    // to which file.
    // @param logPath prefix put in front of each file name as it stands:
    // "/tmp/" gives /tmp/orvaTrk.log, "/tmp" gives /tmporvaTrk.log.
    void setLogging(unsigned int mask, std::string logPath);

    // ---- identity, clock, status ----
    // The library's version text, "1.23.00".
    std::string getVersion();
    // The library's build date text, "Sep 25 2017".
    std::string getBuildDate();
    // Now on the library clock, us: the system's time of day in microseconds
    // since 1970 (seconds cut to 44 bits). Display times passed to
    // getTrackingDataAtTime() and the records' times are on this clock.
    unsigned long getTimeUs();
    // Drains the UDP ports (without asking for streaming) and reports the
    // channels and what arrived since the previous call (s_OrvAccessStatus),
    // then clears the words 2 to 4.
    // @param[out] status the four words.
    // @return false when draining failed (see serviceUdp()); all four words
    // are then 0 and the counters are cleared all the same.
    bool getStatus(s_OrvAccessStatus* status);
    // Size of each of the two UDP image buffers in bytes (configuration key
    // "imgBufSize", default 4194304): an image over UDP must fit in it.
    unsigned int getImageBufSize();
    // Whether the library believes orvRx is streaming: true after an open()
    // (even one that sent no command) and setStreaming(true), false after
    // setStreaming(false) or when a diagnostic subpacket reported orvRx
    // stopped (ORVACCESS_RX_STATE_STOPPED). Sends nothing.
    bool getStreaming();

    // ---- errors ----
    // The reason of the last failure, one line; "" after open(). A success
    // does not clear it.
    std::string getLastError();
    // Sets the last error to "".
    void clearLastError();
    // The oldest queued code (removed), 0 when the queue is empty.
    // Does not drain the ports: call a getter or getStatus() first.
    // @param[out] code the code and its value; code->code is set to 0 on an
    // empty queue, code->value is then left as it was.
    // @return the code; a queued code 0 looks like an empty queue.
    unsigned short getErrorCode(s_OrvAccessErrorCode* code);
    // The text of an error code; never fails. For example 770 gives
    // "[ORVACCESS] ERROR: Bad tracking packet", 1029 "[ORVHUB] ERROR: Error
    // setting serial port attributes". A code without a text of its own gives its origin's
    // "[ORVCORE]: Unknown error", "[ORVRX]: ...", "[ORVTX]: ...",
    // "[ORVACCESS]: ..." (so do 781 to 784) or "[ORVHUB]: ...", an unknown
    // origin "Unknown error from unknown origin", and 0 gives "None".
    // @param code an error code (s_OrvAccessErrorCode::code).
    std::string getErrorMessage(unsigned short code);
    // Queues an error code as the parsers do: when the queue holds
    // "errorCodeQueueSize" codes the oldest go; sets the new-error word of
    // getStatus().
    // @param code origin in the high byte (e_OrvAccessErrorOrigin), number in
    // the low byte.
    // @param value what the code carries (s_OrvAccessErrorCode::value).
    void addErrorCode(unsigned short code, unsigned int value);

    // ---- reception ----
    // Drains every open UDP port; false when not open or a read failed.
    // Reads one datagram per port per pass (meta, image, orvCore, orvHub,
    // NFT) until a pass finds nothing, checks each one's start byte, length
    // and checksum and parses it into its queue; a damaged datagram is
    // dropped and queues its port's error code. The getters call it
    // themselves.
    // @param startStreaming first ask orvRx to stream when the library
    // believes it is not (see getStreaming()); that command's result is
    // ignored.
    // @return false with "Unable to service UDP: Interface not open", or
    // with "Error receiving from " and the port ("orvRx", "image port",
    // "orvCore", "orvHub", "NFT"), ": " and the socket's reason; what was
    // parsed before stays queued.
    bool serviceUdp(bool startStreaming);
    // Discards what is pending on the meta, image, orvCore and NFT ports.
    // The orvHub port keeps its datagrams.
    void flushUdp();
    // Sleeps until a datagram waits on one of the open receiving ports, or
    // the time-out passes, without reading anything: a loop of its own (a
    // data thread, a bridge) can then call the getters only when there is
    // something to get instead of spinning on them. Returns at once when
    // datagrams read ahead by an earlier call still wait. A signal ends the
    // wait early with *ready false.
    // @param timeoutMs longest wait, ms; 0 only looks; negative waits
    // without limit.
    // @param ready set to true when a datagram waits, false on time-out.
    // @return false with "Unable to wait for UDP: Interface not open", with
    // "Unable to wait for UDP: No receiving port open" (nothing could ever
    // arrive), or with "Unable to wait for UDP: " and the system's reason.
    bool waitUdp(int timeoutMs, bool* ready);
    // Extension of the interface: the datagrams dropped unread, per port,
    // because their sender is not in the configuration's
    // "udpAllowedSenders" (IPv4 addresses or networks, separated by commas
    // or blanks; absent or empty takes every sender). They are dropped
    // before any check, so they queue no error code. Counted since the last
    // open() and kept after close(). Does not drain the ports: call a getter
    // or getStatus() first.
    // @param[out] drops the five counts.
    // @return false only when drops is null.
    bool getSenderDrops(s_OrvAccessSenderDrops* drops);
    // Parse a packet the application holds, trusted as far as its own
    // length word; fields past it read as zeros. The service loop checks
    // and parses received datagrams itself.
    // @param packet a whole tracking packet, from its start byte
    // (ORVWIRE_START_TRACKING) on; its checksum is not checked.
    void processTrackingPkt(const unsigned char* packet);
    // Same as processTrackingPkt() for a meta packet (ORVWIRE_START_META) and
    // the subpackets it carries.
    // @param packet a whole meta packet, from its start byte on.
    void processMetaPkt(const unsigned char* packet);

    // ---- tracking ----
    // The newest tracking record (from orvCore or the NFT source), adjusted
    // by updateExports() with the interval of setPrediction(). It is not
    // consumed: every call returns it, adjusted anew, until a newer one
    // arrives. Drains the ports even in manual service.
    // @param[out] valid false only until the first record since open().
    // @param[out] data the adjusted record.
    // @return false when draining failed.
    bool getTrackingDataLatest(bool* valid, s_OrvAccessTrkDataExt* data);
    // The oldest queued tracking record, removed from the queue
    // ("trackingQueueSize"), adjusted by updateExports() with the interval
    // of setPrediction().
    // @param[out] valid false when the queue was empty.
    // @param[out] data the adjusted record.
    // @return false when draining failed.
    bool getTrackingData(bool* valid, s_OrvAccessTrkDataExt* data);
    // The newest tracking record predicted to the moment it will be shown.
    // Consumes the whole tracking queue. The attitude is extrapolated by the
    // pose's age at the display time plus the interval of setPrediction(),
    // the sum held within -0.005 to 0.2 s. How the age is measured is set
    // by the bits of the configuration's "virtualSyncCtrl": none, age 0; 2,
    // the display time minus poseTime; 1, against an IMU clock rebuilt from
    // packetTag and the IMU sample interval (as 2 until that is estimated);
    // 4 in addition smooths the display times of successive calls. A display
    // time before the pose gives age 0.
    // @param displayTimeUs when the frame will be shown, us on the library
    // clock (getTimeUs()).
    // @param[out] valid false when no record arrived since the previous call.
    // @param[out] data the predicted, adjusted record.
    // @return false when draining failed.
    bool getTrackingDataAtTime(unsigned long displayTimeUs, bool* valid, s_OrvAccessTrkDataExt* data);
    // The adjustment every handed-out tracking record goes through, in place:
    // cbn and cbn2 are rotated on by angularRate over predictionS; the tip
    // offset (setTipOffset()), turned by the predicted cbn, is added to
    // position; cbn and cbn2 are multiplied by the transposed boresight
    // reference (setBoresightRef()) and angularRate, vecJ, vecA, vecL and
    // vecM by the reference; euler is computed from the final cbn. position
    // itself is neither extrapolated nor turned by the reference.
    // @param predictionS the interval, s; negative rotates backwards.
    // @param data the record to adjust.
    void updateExports(double predictionS, s_OrvAccessTrkDataExt* data);
    // Sets the interval by which the attitude is extrapolated (configuration
    // key "predictionS") until the next open(). Not checked; always true.
    // @param seconds the interval, s.
    bool setPrediction(float seconds);
    // Sets the boresight reference until the next open(): the attitude that
    // the exported attitude is expressed against (configuration keys
    // "BoresightRefRollRad", "...PitchRad", "...YawRad"); 0, 0, 0 changes
    // nothing. Not checked; always true.
    // @param rollPitchYaw three angles, rad: roll, pitch, yaw.
    bool setBoresightRef(float* rollPitchYaw);
    // Sets the tip offset until the next open(): the lever arm from the
    // tracked origin to the point the renderer wants, in body axes
    // (configuration keys "TipOffsetXM", "TipOffsetYM", "TipOffsetZM"). Not
    // checked; always true.
    // @param xyz three lengths, m: x, y, z.
    bool setTipOffset(float* xyz);
    // Clears the estimates of getTrackingDataAtTime() (IMU clock bias,
    // display period and display clock bias); open() and setStreaming() do
    // it too.
    void initVsData();
    // The oldest target residual: one record per target of each optical
    // subpacket, then a closing record with id 0 (queue bound
    // "targetQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] data the record.
    // @return false when draining failed.
    bool getTargetResData(bool* valid, s_TgtResData* data);
    // The oldest pose-recovery record, from optical subpackets and PRA
    // packets in the order they came (queue bound "targetQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] stats the record.
    // @return false when draining failed.
    bool getPoseRecoveryStats(bool* valid, s_OrvAccessPoseRecStats* stats);
    // The oldest natural feature of the NFT packets (queue bound
    // "targetQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] data the record.
    // @return false when draining failed.
    bool getFeatureData(bool* valid, s_FeatData* data);
    // The oldest hub data record of orvHub.
    // @param[out] valid false when the queue was empty.
    // @param[out] data the record.
    // @return false when draining failed.
    bool getHubData(bool* valid, s_OrvAccessHubData* data);

    // ---- inertial and meta data ----
    // The oldest IMU sample of one source (queue bound "imuQueueSize").
    // @param imu ORVACCESS_IMU_CAMERA, the samples of the meta packets, or
    // ORVACCESS_IMU_PLATFORM, whose queue nothing fills.
    // @param[out] valid false when the queue was empty.
    // @param[out] data the sample.
    // @return false when draining failed, or with "Invalid source IMU
    // selector" for any other imu.
    bool getImuData(e_OrvAccessImuSelect imu, bool* valid, s_OrvAccessImuData* data);
    // The newest camera IMU sample, not consumed.
    // @param[out] valid false only until the first sample since open().
    // @param[out] data the sample.
    // @return false when draining failed.
    bool getImuDataLatest(bool* valid, s_OrvAccessImuData* data);
    // The last completed clock-relation row of one source, consumed: a
    // second call reports nothing until the next 256 packets in sequence
    // complete another.
    // @param imu as for getImuData(); only the camera source is filled.
    // @param[out] valid false when no completed row waits.
    // @param[out] crs the row.
    // @return false when draining failed, or with "Invalid source IMU
    // selector".
    bool getImuCrs(e_OrvAccessImuSelect imu, bool* valid, s_ImuCrs* crs);
    // Restarts an assembler: fillRow 0, completeRow and lastPid -1; the rows
    // keep their bytes. setStreaming() restarts the object's own.
    // @param crs the assembler.
    void imuCrsBufReset(s_ImuCrsBuf* crs);
    // The oldest auxiliary byte of the camera IMU's chip packets (queue bound
    // "imuQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] data the byte.
    // @return false when draining failed.
    bool getAuxData(bool* valid, s_OrvAccessAuxData* data);
    // The newest auxiliary byte, not consumed.
    // @param[out] valid false only until the first one since open().
    // @param[out] data the byte.
    // @return false when draining failed.
    bool getAuxDataLatest(bool* valid, s_OrvAccessAuxData* data);
    // The oldest entry of the target lists (queue bound "targetQueueSize");
    // a closing record (kind 0, id 0) ends each list.
    // @param[out] valid false when the queue was empty.
    // @param[out] data the entry.
    // @return false when draining failed.
    bool getTargetData(bool* valid, s_TgtData* data);
    // Consumes one whole target list from the target queue, its closing
    // record included, and reports its tag and number of entries. A list
    // still arriving is consumed as far as it is queued.
    // @param[out] valid false when the queue was empty or its oldest entry
    // does not start a list (index not 0); that entry is then dropped.
    // @param[out] tag the tag of the list's first entry; written only when
    // *valid.
    // @param[out] count the entries, the closing record not counted; 0 when
    // *valid is false.
    // @return false when draining failed.
    bool getTargetCount(bool* valid, unsigned int* tag, unsigned int* count);
    // The oldest diagnostic record of orvRx (queue bound "imuQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] data the record.
    // @return false when draining failed.
    bool getDiagData(bool* valid, s_OrvAccessDiagData* data);
    // The newest diagnostic record, not consumed.
    // @param[out] valid false only until the first one since open().
    // @param[out] data the record.
    // @return false when draining failed.
    bool getDiagDataLatest(bool* valid, s_OrvAccessDiagData* data);
    // The oldest platform pose received in meta packets (queue bound
    // "imuQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] data the pose.
    // @return false when draining failed.
    bool getPlatformPoseData(bool* valid, s_OrvAccessPlatPoseData* data);
    // The oldest GPS record received in meta packets (queue bound
    // "gpsQueueSize").
    // @param[out] valid false when the queue was empty.
    // @param[out] data the record.
    // @return false when draining failed.
    bool getGpsData(bool* valid, s_OrvAccessGpsData* data);

    // ---- uplink ----
    // Sends a platform pose to orvRx at once, one datagram to its input port
    // ("udpOrvRxInputPort"); nothing is queued, retried or checked.
    // @param pose the pose, sent as given.
    // @return false with "UDP input port not open" (before open(), or the
    // port is "0"), or "Error transmitting pose to orvRx: " and the socket's
    // reason.
    bool setPlatformPoseData(s_OrvAccessPlatPoseData pose);
    // Sends GPS data to orvRx at once, as setPlatformPoseData() does.
    // @param gps the record, sent as given (of gpsByte2 the low byte).
    // @return false with "GPS UDP input port not open", or "Error
    // transmitting GPS to orvHub: " and the socket's reason.
    bool setGpsData(s_OrvAccessGpsData* gps);
    // Sends a one-byte input code to orvRx at once, as setPlatformPoseData()
    // does.
    // @param input the code; its meaning is orvRx's.
    // @return false with "UDP input port not open", or "Error transmitting
    // input data to orvRx: " and the socket's reason.
    bool sendInputData(unsigned char input);

    // ---- commands to orvRx ----
    // Writes one byte-wide register of orvRx and waits for its
    // acknowledgement. Leaves streaming as it is.
    // @param timeoutMs how long to wait for the acknowledgement, ms; 0 does
    // not wait, and so fails.
    // @param address register address; only its low 24 bits are sent.
    // Register 0 switches streaming: use setStreaming().
    // @param value the byte to write.
    // @return false with "TCP not open", "No response to set register
    // command" or "Invalid ack to set register command".
    bool setRegister(unsigned int timeoutMs, unsigned int address, unsigned char value);
    // Reads one byte-wide register of orvRx. Switches streaming off first;
    // the next getter switches it on again.
    // @param timeoutMs how long to wait for the reply, ms.
    // @param address register address; only its low 24 bits are sent.
    // @param[out] value the register's byte, written only on success.
    // @return false with the failures of setStreaming(), "No response to get
    // register command" or "Invalid response to get register command" (wrong
    // length, code or checksum).
    bool getRegister(unsigned int timeoutMs, unsigned int address, unsigned char* value);
    // Switches orvRx's streaming on or off (register 0, 200 ms for the
    // acknowledgement). Asked for the state the library already believes in,
    // it does nothing. Otherwise, after the command (and 100 ms for datagrams
    // in flight when switching off), it discards what waits on the UDP
    // ports, empties the IMU, target, tracking, target-residual and
    // platform-pose queues, and restarts the image reassembly, the
    // clock-relation assemblers and the estimates of
    // getTrackingDataAtTime(); the diagnostic and pose-recovery queues stay.
    // @param on true to stream.
    // @return false with "TCP not open", or "Failed to set streaming state"
    // when orvRx did not acknowledge; the queues are emptied and the new
    // state is believed all the same.
    bool setStreaming(bool on);
    // Runs one raw transaction with an IMU through orvRx: sends the transmit
    // bytes and returns the IMU's answer. Switches streaming off first. The
    // reply carries no checksum: damaged bytes come back as a success.
    // @param imu ORVACCESS_IMU_CAMERA selects orvRx's IMU channel 2, any
    // other value channel 1.
    // @param transmit the bytes to send.
    // @param transmitLength their count, at most 255: more fails with "IMU
    // transmit length too long (" n " bytes, at most 255)" and sends nothing.
    // @param receive where the answer goes.
    // @param receiveCapacity its size in bytes; at most 255 bytes are asked
    // for. 0 sends the transaction and returns without waiting.
    // @param timeout handed to orvRx as one byte, capped at 255; its unit is
    // orvRx's. The library waits up to 1000 ms for the reply.
    // @param[out] receivedLength the bytes written to receive; set to 0 as
    // soon as streaming is off, so 0 when no reply came.
    // @return false with the failures of setStreaming(), or "No response
    // from orvRx".
    bool transactImu(e_OrvAccessImuSelect imu, unsigned char* transmit, unsigned long transmitLength,
                     unsigned char* receive, unsigned long receiveCapacity, unsigned int timeout,
                     unsigned long* receivedLength);
    // Copies a local file to orvRx in 512-byte chunks, each acknowledged
    // (up to 4 s for the start, 1 s per chunk); at most 16777215 bytes.
    // Switches streaming off first.
    // @param localPath the file to send.
    // @param remoteName its name on orvRx.
    // @param location where orvRx keeps it, sent as one byte.
    // @return false with the failures of setStreaming(), the system's text
    // when the local file does not open, "File empty or unreadable", "File
    // too large (limit is 16777215 bytes)", "Start failed - no/bad response
    // from orvRx" or "No/bad response from server".
    bool putFile(std::string localPath, std::string remoteName, e_OrvAccessFileLoc location);
    // Fetches a file from orvRx in 512-byte chunks into a local file, created
    // or truncated (up to 4 s for the reply, 1 s per chunk). Switches
    // streaming off first.
    // @param remoteName its name on orvRx.
    // @param location where orvRx keeps it, sent as one byte.
    // @param localPath the file to write.
    // @return false with the failures of setStreaming(), "No/bad response
    // from server", "File not found by server" (no local file is made), the
    // system's text when the local file does not open, or "No/bad data
    // packet from server" (the chunks received so far stay in the file).
    bool getFile(std::string remoteName, e_OrvAccessFileLoc location, std::string localPath);

    // ---- images ----
    // The geometry of an image format; any output pointer may be null.
    // @param format an image format code.
    // @param[out] size width x height x bytesPerPixel, bytes.
    // @param[out] width pixels.
    // @param[out] height pixels.
    // @param[out] bytesPerPixel bytes.
    // @return false with "Illegal image format (" code ")" for a code not in
    // e_OrvAccessImageFormat; the outputs then say 640 x 480 x 1, 307200.
    bool getImageInfo(ImageFormat format, unsigned long* size, int* width, int* height, int* bytesPerPixel);
    // Delivers a complete camera image: one received over UDP first, else
    // one waiting in orvHub's shared memory. A UDP image not fetched before
    // the next one completes is lost. Taking the shared memory waits for its
    // semaphore without limit.
    // @param[out] percent 100 when an image was delivered; otherwise how far
    // the UDP image under way has come, 0 to 99.
    // @param[out] format the image's format code, when delivered.
    // @param[out] sequenceId the image's sequence id, when delivered.
    // @param[out] buffer receives the pixel bytes as sent, the size of the
    // format (getImageInfo()).
    // @param capacity the buffer's size in bytes.
    // @return true also when no image waits (percent below 100); false when
    // draining failed, or with "Buffer too small (image size is " size ")"
    // (a UDP image keeps waiting, a shared-memory one is dropped), "Error
    // accessing shared memory", "Incorrect image format" or "Shared memory
    // region truncated to " n " bytes (" m " mapped)" (orvHub shrank the
    // region; the image is dropped).
    bool getImage(int* percent, ImageFormat* format, unsigned int* sequenceId, unsigned char* buffer,
                  unsigned long capacity);

    // Internal state; its definition is private to the library.
    struct State;

private:
    // Command channel: seal and send one frame; wait for one reply (true with
    // *received 0 on time-out); drop stale input.
    bool writeOrvRx(unsigned char* frame, size_t length);
    bool readOrvRx(unsigned char* buffer, size_t capacity, int timeoutMs, size_t* received);
    void flushTcp();
    // What switching streaming on or off resets, in one place.
    void resetStreamState();

    // The C wrappers' way to the state, for the refusals they make themselves.
    friend struct OrvAccessWrapperAccess;

    // Service (unless switched to manual), then pop the oldest record.
    template <typename T, typename Queue>
    bool popRecord(Queue& queue, bool* valid, T* out);

    std::unique_ptr<State> st_;
};

// Layouts that other programs rely on (records are copied whole and logged).
static_assert(sizeof(s_OrvAccessTrkDataExt) == 448, "the tracking record is 448 bytes");
static_assert(sizeof(OrvAccess::s_TgtResData) == 32, "a target residual record is 32 bytes");
static_assert(sizeof(s_OrvAccessHubData) % 8 == 0, "the hub record is padded to a multiple of 8 bytes");
static_assert(sizeof(OrvAccess::s_ImuCrs) == 32, "a clock-relation row is 256 bits");
