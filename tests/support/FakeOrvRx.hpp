// A stand-in for orvRx's command server on 127.0.0.1: serves one connection
// on its own thread, records every frame it receives and answers as orvRx
// does (register and IMU commands; puts acknowledged chunk by chunk, gets
// served in 512-byte chunks) unless a scripted reply or a fault says otherwise.
// Header-only, so that any test can use it; with it come a few helpers
// that the tests of the command channel and of images share.
#pragma once

#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/Process.hpp"
#include "support/TestSupport.hpp"

namespace orvtest {

// n bytes that are the same for the same seed.
inline Bytes randomBytes(size_t n, unsigned int seed) {
    std::mt19937 gen(seed);
    Bytes b(n);
    for (unsigned char& c : b) c = static_cast<unsigned char>(gen());
    return b;
}

inline double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// How many times its nominal time a wait counted in sleeps may take in this
// build: under ThreadSanitizer each sleep-and-poll step costs noticeably more.
#if defined(__SANITIZE_THREAD__)
inline constexpr double kWaitStretch = 2.5;
#else
inline constexpr double kWaitStretch = 1.0;
#endif

// The bytes with the checksum that makes their 8-bit sum zero appended.
inline Bytes withChecksum(Bytes b) {
    b.push_back(static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size())));
    return b;
}

// n as three little-endian bytes.
inline Bytes le24(size_t n) {
    return {static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8),
            static_cast<unsigned char>(n >> 16)};
}

// The chunk of `file` at offset `at`: AB C7 offset(3), 512 bytes of the file
// (the last chunk filled up with zeros), checksum.
inline Bytes chunk(const Bytes& file, size_t at) {
    Bytes c = le24(at);
    c.insert(c.begin(), {0xAB, 0xC7});
    c.insert(c.end(), file.begin() + at, file.begin() + std::min(at + 512, file.size()));
    c.resize(517, 0);
    return withChecksum(c);
}

class FakeOrvRx {
public:
    FakeOrvRx() : port_(freePort()), listen_(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in a = loopback(port_);
        if (bind(listen_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || listen(listen_, 4) != 0)
            ADD_FAILURE() << "fake orvRx cannot listen on port " << port_;
        thread_ = std::thread([this] { run(); });
    }
    ~FakeOrvRx() {
        stop_ = true;
        thread_.join();
        ::close(listen_);
    }

    int port() const { return port_; }
    // The bytes of an IMU transaction's reply data.
    static unsigned char pattern(size_t i) { return static_cast<unsigned char>(0x30 + i * 7); }

    // Answers command `code` with exactly these bytes (none: no answer).
    void reply(unsigned char code, Bytes b) { lock(), replies_[code] = std::move(b); }
    // Leaves every register and IMU command unanswered from now on.
    void silence() { reply(0xC0, {}), reply(0xC3, {}), reply(0xC4, {}); }
    // Changes the message sent at one step of every later file transfer:
    // step 0 is the answer to the start frame (the C6 ack of a put, the C5
    // reply of a get), step k the ack of the k-th chunk of a put or the k-th
    // chunk of a get. An emptied message is not sent.
    void fault(size_t step, std::function<void(Bytes&)> change) {
        lock(), fault_ = {step, std::move(change)};
    }
    // The file every get receives, whatever its name (empty: none).
    void serve(Bytes file) { lock(), file_ = std::move(file); }
    std::vector<Bytes> frames() { return lock(), frames_; }
    Bytes last() { return lock(), frames_.empty() ? Bytes{} : frames_.back(); }
    void clearFrames() { lock(), frames_.clear(); }
    // Waits (at most two seconds) until at least n frames have arrived.
    bool waitFrames(size_t n) {
        for (int i = 0; i < 1000 && frames().size() < n; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return frames().size() >= n;
    }
    // Sends unsolicited bytes to the client.
    void sendRaw(const Bytes& b) { lock(), send(client_, b.data(), b.size(), MSG_NOSIGNAL); }
    // Waits until the client's side has acknowledged every byte sent, so
    // that they lie in its socket, ready to be read.
    bool waitDelivered() {
        return orvtest::waitFor([this] {
            int unacknowledged = 0;
            const auto held = lock();
            return client_ >= 0 && ioctl(client_, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged == 0;
        });
    }
    // Closes the connection from the server's side.
    void dropClient() { lock(), shutdown(client_, SHUT_RDWR); }
    // True once the server has closed its end (after dropClient or the client's leaving).
    bool clientClosed() { return lock(), client_ < 0; }

private:
    // Held until the end of the full expression that calls it.
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mu_); }

    void run() {
        unsigned char buf[4096];
        while (!stop_) {
            pollfd pfd{client_ < 0 ? listen_ : client_, POLLIN, 0};
            if (poll(&pfd, 1, 20) <= 0) continue;
            if (client_ < 0) {
                const int fd = accept(listen_, nullptr, nullptr);
                // A get's reply and first chunk go out at once, not held back by Nagle.
                const int one = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                lock(), client_ = fd;
                continue;
            }
            const ssize_t r = recv(client_, buf, sizeof buf, 0);
            if (r <= 0) break;  // one connection only
            // A frame arrives in one piece, as it was written; only the bare
            // bytes the client sends during a get may run into the next frame.
            for (const unsigned char *p = buf, *end = buf + r, *next; p < end; p = next) {
                next = *p == 0xAB ? end : p + 1;
                // One send per message: the client takes a single read as one reply.
                for (const Bytes& out : answer(Bytes(p, next)))
                    if (!out.empty()) send(client_, out.data(), out.size(), MSG_NOSIGNAL);
            }
        }
        if (client_ >= 0) lock(), ::close(client_), client_ = -1;
    }

    Bytes faulted(size_t step, Bytes b) const {
        if (fault_.second && fault_.first == step) fault_.second(b);
        return b;
    }

    std::vector<Bytes> answer(const Bytes& f) {
        const auto held = lock();
        frames_.push_back(f);
        if (f.size() == 1) return {f[0] == 0xC7 ? nextChunk() : Bytes{}};
        if (const auto it = replies_.find(f[1]); it != replies_.end()) return {it->second};
        switch (f[1]) {
            case 0xC4:
                return {{0xC4}};
            case 0xC3:  // a register's value is the low byte of its address
                return {withChecksum({0xC3, f[2]})};
            case 0xC0: {  // the receive length's worth of data
                Bytes r{0x00, f[4 + f[3]]};
                for (size_t i = 0; i < r[1]; ++i) r.push_back(pattern(i));
                return {r};
            }
            case 0xC6:  // put: acknowledged (the tests check the frames themselves)
                step_ = 0;
                return {faulted(0, {0xC6})};
            case 0xC7:  // a chunk of a put
                return {faulted(++step_, {0xC7})};
            case 0xC5: {  // get: the reply, and unasked right after it the first chunk
                step_ = 0;
                Bytes r = le24(file_.size());
                r.insert(r.begin(), 0xC5);
                const Bytes sent = faulted(0, r = withChecksum(r));
                if (file_.empty() || sent != r) return {sent};
                return {sent, nextChunk()};
            }
        }
        return {};
    }

    // The next chunk of the get under way; nothing after the last.
    Bytes nextChunk() {
        const size_t at = step_ * 512;
        return at < file_.size() ? faulted(++step_, chunk(file_, at)) : Bytes{};
    }

    const int port_;
    const int listen_;
    int client_ = -1;  // written by the server thread under mu_
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::map<unsigned char, Bytes> replies_;
    std::vector<Bytes> frames_;
    std::pair<size_t, std::function<void(Bytes&)>> fault_;
    Bytes file_;
    size_t step_ = 0;  // of the transfer under way
    std::thread thread_;
};

// Configuration keys for a command channel to 127.0.0.1:port.
inline std::string commandIni(int port) {
    return "tcpOrvRxEnabled = 1\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " + std::to_string(port) + "\n";
}

// An access object opened on the fake's command port, every other channel off.
class OrvRxTest : public testing::Test {
protected:
    void SetUp() override {
        const int none[5] = {};
        access.setIniPath(dir.write("orvaccess.ini", receiverIni(none, commandIni(fake.port()))));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    std::string path(const std::string& name) const { return dir.prefix() + name; }

    FakeOrvRx fake;  // declared first: outlives the object, whose close() may still talk
    TempDir dir;
    OrvAccess access;
};

}  // namespace orvtest
