// The command server of orvRx: a single-threaded, non-blocking TCP server (on
// 127.0.0.1 unless told otherwise) that speaks the framed command protocol.
//
// Run it from a main loop: open(port) once, then poll() as often as the loop
// ticks; poll() accepts a client, reads what has arrived, answers every
// complete frame and returns without ever waiting. One client is served at a
// time; a new connection replaces the old one (the library reconnects on
// every open). Frames may arrive split over several reads or several in one
// read: input is buffered per connection and parsed frame by frame.
//
// Commands (host to server frames start with 0xAB and end with a checksum
// that makes their 8-bit sum zero; a frame with a bad checksum is dropped
// unanswered, a byte that starts no frame is skipped):
//   C4 set register   address(3) value      -> C4; register 0 switches streaming
//   C3 get register   address(3)            -> C3 value checksum
//   C0 IMU transaction channel L tx[L] rxLen timeout -> 00 n data[n] (none if rxLen is 0)
//   C5 get file       location name\0       -> C5 size(3) checksum, then the chunks
//   C6 put file       location name\0 size(3) -> C6, then each chunk acknowledged
//   C7 chunk          offset(3) data[512]   (both directions, 518 bytes)
// During a get the client acknowledges each chunk with a bare C7, after
// which the next chunk goes out; a bare C8 aborts the transfer.
//
// Registers: a 24-bit address space of bytes, all 0 at start; any value
// other than 0 in register 0 means streaming.
//
// IMU model: channels 1 and 2 (the library sends 2 for the camera IMU) each
// have a 256-byte register file; address 0 holds kImuIdentity, the rest 0.
// The first transmit byte is a start address A; the further transmit bytes
// are written to A, A+1, ... (wrapping), then rxLen bytes are read back from
// A onwards. With no transmit bytes, A is 0. The time-out byte is ignored.
// An unknown channel answers with no data.
//
// Files: get and put work in one folder, whatever the location byte says. A
// name that is empty, contains '/' or "..", is refused: a get answers size 0,
// a put gets no acknowledgement. A missing or unreadable file also answers
// size 0. A put file is written when its last chunk arrives, before that
// chunk is acknowledged; a chunk at an unexpected offset is not acknowledged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orvsim {

class RxServer {
public:
    // How the server answers; for exercising the client's error paths.
    enum class Replies {
        Normal,
        Silent,   // frames are read and dropped: no effect, no answer
        Corrupt,  // commands take effect, but the last byte of every reply is inverted
    };

    static constexpr unsigned char kImuIdentity = 0x6B;

    explicit RxServer(std::string fileFolder);
    ~RxServer();
    RxServer(const RxServer&) = delete;
    RxServer& operator=(const RxServer&) = delete;

    // Listens on address:port (closing first whatever was open); the address
    // is dotted decimal. False with lastError() set when it cannot be taken.
    bool open(int port, const std::string& address = "127.0.0.1");
    // Accepts, reads, answers; never blocks.
    void poll();
    // Drops the client and stops listening. Registers and IMU state stay.
    void close();

    bool isOpen() const { return listenFd_ >= 0; }
    bool hasClient() const { return clientFd_ >= 0; }
    bool streaming() const { return reg(0) != 0; }

    unsigned char reg(unsigned int address) const;
    void setReg(unsigned int address, unsigned char value);
    // channel 1 or 2; 0 for any other.
    unsigned char imuReg(int channel, unsigned char address) const;

    void setReplies(Replies mode) { replies_ = mode; }
    const std::string& fileFolder() const { return folder_; }
    const std::string& lastError() const { return lastError_; }
    // Frames handled, and frames dropped for a bad checksum, since construction.
    uint64_t framesHandled() const { return framesHandled_; }
    uint64_t framesRejected() const { return framesRejected_; }

private:
    using Bytes = std::vector<unsigned char>;

    void acceptPending();
    void readClient();
    void dropClient();
    void parse();
    // Length of the frame starting at in_[at]: 0 while incomplete, -1 when
    // that start byte begins no frame.
    long frameLength(size_t at) const;
    void handle(const unsigned char* frame, size_t length);
    void handleImu(const unsigned char* frame);
    void startGet(const unsigned char* frame, size_t length);
    void startPut(const unsigned char* frame, size_t length);
    void putChunk(const unsigned char* frame);
    void sendNextChunk();
    void reply(Bytes message, bool sealed);
    void flushOutput();
    std::string pathFor(const unsigned char* name) const;

    std::string folder_;
    std::string lastError_;
    int listenFd_ = -1;
    int clientFd_ = -1;
    Bytes in_;
    Bytes out_;
    Replies replies_ = Replies::Normal;
    std::map<unsigned int, unsigned char> regs_;
    unsigned char imu_[2][256] = {};
    uint64_t framesHandled_ = 0;
    uint64_t framesRejected_ = 0;

    // The transfer under way, if any.
    enum class Transfer { None, Get, Put };
    Transfer transfer_ = Transfer::None;
    Bytes file_;             // a get's content, or a put's bytes so far
    size_t fileSize_ = 0;    // a put's announced size
    size_t nextOffset_ = 0;  // the next chunk to send (get) or expect (put)
    std::string putPath_;
};

}  // namespace orvsim
