// A stand-in for orvRx's command server: listens on 127.0.0.1, serves one
// connection at a time on its own thread, records every frame it receives
// and answers as its mode or a scripted reply says.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <thread>
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

private:
    void run();
    void serve(int fd);
    size_t frameLength(const Bytes& in) const;
    Bytes answer(const Bytes& frame);

    int port_ = 0;
    int listenFd_ = -1;
    int clientFd_ = -1;
    std::atomic<bool> stop_{false};
    mutable std::mutex mu_;
    Mode mode_ = Mode::Normal;
    std::map<unsigned char, Bytes> replies_;
    std::map<unsigned int, unsigned char> registers_;
    std::vector<Bytes> frames_;
    std::thread thread_;
};

}  // namespace orvtest
