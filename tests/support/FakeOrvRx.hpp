// A stand-in for orvRx's command server: listens on 127.0.0.1, serves one
// connection at a time on its own thread, records every frame it receives
// and answers as its mode or a scripted reply says. It keeps a file store
// that the put and get commands read and write in 512-byte chunks, and can
// misbehave at a chosen step of a transfer.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace orvtest {

using Bytes = std::vector<unsigned char>;

class FakeOrvRx {
public:
    enum class Mode {
        Normal,   // C4 -> C4; C3 -> C3 value chk; C0 -> 00 n pattern(0..n-1)
        Silent,   // never answers
        WrongAck  // C4 -> C4 C4; C3 -> bad checksum; C0 -> count 255, no data
    };

    // How a file transfer goes wrong, at the step given to setFileFault: step
    // 0 is the answer to the start frame (the C6 ack of a put, the C5 reply
    // of a get), step k >= 1 the k-th chunk (its C7 ack in a put, the chunk
    // itself in a get).
    enum class FileFault {
        None,
        Silence,      // no answer at that step
        WrongAck,     // put: 0x00 instead of the ack; get: code C6 in place of C5 or C7
        BadChecksum,  // get: the reply or chunk does not sum to zero
        WrongOffset,  // get: the chunk claims the offset 512 further on
        ZeroSize,     // get: the reply says size 0 although the file exists
        Short         // get: the reply or chunk lacks its last byte
    };

    FakeOrvRx();
    ~FakeOrvRx();
    FakeOrvRx(const FakeOrvRx&) = delete;
    FakeOrvRx& operator=(const FakeOrvRx&) = delete;

    int port() const { return port_; }
    void setMode(Mode mode);
    // Answer command `code` with exactly these bytes (none: stay silent),
    // whatever the mode; clearReplies() hands every command back to the mode.
    void setReply(unsigned char code, Bytes reply);
    void clearReplies();
    void setRegisterValue(unsigned int address, unsigned char value);
    // The bytes of C0 replies in Normal mode.
    static unsigned char pattern(size_t i) { return static_cast<unsigned char>(0x30 + i * 7); }

    // Every frame received so far, in order (a copy).
    std::vector<Bytes> frames() const;
    void clearFrames();
    // Waits (bounded) until at least n frames have arrived.
    bool waitFrames(size_t n, int timeoutMs = 2000) const;
    // Sends unsolicited bytes to the connected client; false when none is.
    bool sendRaw(const Bytes& bytes);
    // Closes the current connection from the server side.
    void dropClient();

    // File store, by location and name.
    void storeFile(unsigned char location, const std::string& name, Bytes content);
    // False when no such file is stored (a put is stored once complete).
    bool storedFile(unsigned char location, const std::string& name, Bytes* content) const;
    void setFileFault(FileFault fault, size_t step = 0);
    // What the client got wrong in file transfers (bad checksums, offsets,
    // filler, stray acks), one line each; empty when it behaved.
    std::vector<std::string> violations() const;
    // Abort bytes (C8) received.
    size_t aborts() const;

private:
    void run();
    void serve(int fd);
    size_t frameLength(const Bytes& in) const;
    // What to send back, each element with one send (the client takes a
    // single read as one reply).
    std::vector<Bytes> answer(const Bytes& frame);
    std::vector<Bytes> answerFile(const Bytes& frame);
    bool faultAt(FileFault fault, size_t step) const { return fileFault_ == fault && faultStep_ == step; }
    Bytes nextChunk();
    void violation(std::string text) { violations_.push_back(std::move(text)); }

    int port_ = 0;
    int listenFd_ = -1;
    int clientFd_ = -1;
    std::atomic<bool> stop_{false};
    mutable std::mutex mu_;
    Mode mode_ = Mode::Normal;
    std::map<unsigned char, Bytes> replies_;
    std::map<unsigned int, unsigned char> registers_;
    std::vector<Bytes> frames_;
    std::map<std::pair<unsigned char, std::string>, Bytes> files_;
    FileFault fileFault_ = FileFault::None;
    size_t faultStep_ = 0;
    std::vector<std::string> violations_;
    size_t aborts_ = 0;
    // The transfer under way: a put being received or a get being sent.
    struct Transfer {
        bool active = false;
        bool put = false;
        std::pair<unsigned char, std::string> key;
        size_t size = 0;
        Bytes data;        // put: bytes so far; get: the file
        size_t chunk = 0;  // chunks received (put) or sent (get)
    } transfer_;
    std::thread thread_;
};

}  // namespace orvtest
