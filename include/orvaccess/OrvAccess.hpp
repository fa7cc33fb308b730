// liborvaccess: the C++ interface.
//
// One OrvAccess object talks to one tracking system. It has no threads of its
// own: every data getter first drains the UDP ports inside the caller's call
// (unless the manual-service switch is on), then hands out a copy of a record.
// Use an object from one thread at a time. Units and conventions of the
// records are given in orvaccess.h.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvaccess/orvaccess.h"

class ORVACCESS_EXPORT OrvAccess {
public:
    // One target residual of an optical subpacket; a record with id 0 closes
    // the residuals of one subpacket.
    struct s_TgtResData {
        uint32_t tag;
        uint32_t index; // position of the target in its subpacket
        uint32_t id;    // target id; 0 on the closing record
        float resid[5];
    };

    // One entry of a target list; a record with kind 0 and id 0 closes a list.
    struct s_TgtData {
        uint32_t tag;
        uint32_t index; // position in the whole list
        uint32_t kind;
        uint16_t id;
        uint32_t hdrByte;
        uint16_t word1;
        uint16_t word2;
        uint16_t word3;
        uint16_t word4;
        float value1;
        float value2;
        float value3;
        float value4;
        float value5;
        float value6;
        uint32_t trailer;
    };

    // One natural feature of an NFT packet.
    struct s_FeatData {
        uint32_t sequenceId; // packetTag of the NFT packet
        uint32_t index;      // 0, 1, 2 ... in packet order
        uint32_t valid;      // always 1
        float position[3];
    };

    // One completed 256-bit clock-relation row: bit n (bit n % 8 of byte
    // n / 8) was carried by the chip packet with id n.
    struct s_ImuCrs {
        uint8_t bits[32];
    };

    // Assembler of the clock-relation rows of one IMU source.
    struct s_ImuCrsBuf {
        uint8_t rows[2][32];
        uint32_t fillRow;    // row being filled, 0 or 1
        int32_t completeRow; // last completed row, -1 = none
        int32_t lastPid;     // last packet id seen, -1 = none
    };

    typedef e_OrvAccessImageFormat ImageFormat;

    OrvAccess();
    ~OrvAccess();
    OrvAccess(const OrvAccess&) = delete;
    OrvAccess& operator=(const OrvAccess&) = delete;

    // ---- lifecycle and configuration ----
    // Closes whatever is open, re-reads the configuration file and opens every
    // enabled channel. False ("Unable to open any connections") when no
    // receiving channel came up.
    bool open();
    // Stops streaming and closes every channel; queues, error codes and the
    // last error stay. Always true.
    bool close();
    // Reads the configuration and resets the run-time state; called by open().
    void init();
    // The configuration file read by the next open(); default "orvaccess.ini".
    void setIniPath(std::string path);
    void setVerbosity(unsigned int mask);
    void setLogging(unsigned int mask, std::string logPath);

    // ---- identity, clock, status ----
    std::string getVersion();   // "1.23.00"
    std::string getBuildDate(); // "Sep 25 2017"
    unsigned long getTimeUs();  // library clock, us
    bool getStatus(s_OrvAccessStatus* status);
    unsigned int getImageBufSize();
    bool getStreaming();

    // ---- errors ----
    std::string getLastError();
    void clearLastError();
    // The oldest queued code (removed), 0 when the queue is empty.
    unsigned short getErrorCode(s_OrvAccessErrorCode* code);
    std::string getErrorMessage(unsigned short code);
    void addErrorCode(unsigned short code, unsigned int value);

    // ---- reception ----
    // Drains every open UDP port; false when not open or a read failed.
    bool serviceUdp(bool startStreaming);
    // Discards what is pending on the meta, image, orvCore and NFT ports.
    void flushUdp();
    // Parse a packet the application holds, trusted as far as its own
    // length word; fields past it read as zeros. The service loop checks
    // and parses received datagrams itself.
    void processTrackingPkt(const unsigned char* packet);
    void processMetaPkt(const unsigned char* packet);

    // ---- tracking ----
    bool getTrackingDataLatest(bool* valid, s_OrvAccessTrkDataExt* data);
    bool getTrackingData(bool* valid, s_OrvAccessTrkDataExt* data);
    bool getTrackingDataAtTime(unsigned long displayTimeUs, bool* valid, s_OrvAccessTrkDataExt* data);
    void updateExports(double predictionS, s_OrvAccessTrkDataExt* data);
    bool setPrediction(float seconds);
    bool setBoresightRef(float* rollPitchYaw);
    bool setTipOffset(float* xyz);
    void initVsData();
    bool getTargetResData(bool* valid, s_TgtResData* data);
    bool getPoseRecoveryStats(bool* valid, s_OrvAccessPoseRecStats* stats);
    bool getFeatureData(bool* valid, s_FeatData* data);
    bool getHubData(bool* valid, s_OrvAccessHubData* data);

    // ---- inertial and meta data ----
    bool getImuData(e_OrvAccessImuSelect imu, bool* valid, s_OrvAccessImuData* data);
    bool getImuDataLatest(bool* valid, s_OrvAccessImuData* data);
    bool getImuCrs(e_OrvAccessImuSelect imu, bool* valid, s_ImuCrs* crs);
    void imuCrsBufReset(s_ImuCrsBuf* crs);
    bool getAuxData(bool* valid, s_OrvAccessAuxData* data);
    bool getAuxDataLatest(bool* valid, s_OrvAccessAuxData* data);
    bool getTargetData(bool* valid, s_TgtData* data);
    bool getTargetCount(bool* valid, unsigned int* tag, unsigned int* count);
    bool getDiagData(bool* valid, s_OrvAccessDiagData* data);
    bool getDiagDataLatest(bool* valid, s_OrvAccessDiagData* data);
    bool getPlatformPoseData(bool* valid, s_OrvAccessPlatPoseData* data);
    bool getGpsData(bool* valid, s_OrvAccessGpsData* data);

    // ---- uplink ----
    bool setPlatformPoseData(s_OrvAccessPlatPoseData pose);
    bool setGpsData(s_OrvAccessGpsData* gps);
    bool sendInputData(unsigned char input);

    // ---- commands to orvRx ----
    bool setRegister(unsigned int timeoutMs, unsigned int address, unsigned char value);
    bool getRegister(unsigned int timeoutMs, unsigned int address, unsigned char* value);
    bool setStreaming(bool on);
    bool transactImu(e_OrvAccessImuSelect imu, unsigned char* transmit, unsigned long transmitLength,
                     unsigned char* receive, unsigned long receiveCapacity, unsigned int timeout,
                     unsigned long* receivedLength);
    bool putFile(std::string localPath, std::string remoteName, e_OrvAccessFileLoc location);
    bool getFile(std::string remoteName, e_OrvAccessFileLoc location, std::string localPath);

    // ---- images ----
    bool getImageInfo(ImageFormat format, unsigned long* size, int* width, int* height, int* bytesPerPixel);
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
