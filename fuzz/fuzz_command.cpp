// Command replies and file chunks from a lying orvRx: a real TCP peer on
// 127.0.0.1, in a thread of this process, answers every frame the library
// sends with the next segment of the input's script, whatever the command.
// After the script it answers each frame with one zero byte, so that a
// command fails at once instead of waiting out its time-out (up to 4 s);
// silence is a segment of its own, so that mutations rarely stumble on it.
//
// Input: records. Record control modulo 8:
//   0  a segment of the script (bit 3: silence, whatever it holds; an empty
//      one is a single zero byte);
//   1  setRegister: time-out (u8 modulo 32, ms), address (u24), value (u8);
//   2  getRegister: time-out (u8 modulo 32, ms), address (u24);
//   3  transactImu: selector (u8), capacity (u16), time-out (u8), then the
//      bytes to transmit (more than 255 of them are refused);
//   4  getFile: location (u8), then the remote name;
//   5  putFile: location (u8), file size (u16 modulo 2048), remote name.
// At most four commands run per input, in order, after the script is set.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "wire/CommandCodes.hpp"
#include "FuzzSupport.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "support/Loopback.hpp"

namespace {

using orvfuzz::Bytes;

constexpr int kMaxCommands = 4;
constexpr unsigned char kSilenceBit = 0x08;
constexpr unsigned int kMaxTimeoutMs = 32;
constexpr size_t kMaxPutFile = 2048;

// The peer: accepts the library's one connection and answers what arrives.
class Peer {
public:
    Peer() {
        listen_ = socket(AF_INET, SOCK_STREAM, 0);
        const int on = 1;
        setsockopt(listen_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        for (int tries = 0; tries < 100 && port_ == 0; ++tries) {
            const int port = orvtest::findFreePort();
            const sockaddr_in a = orvtest::loopback(port);
            if (port != 0 && bind(listen_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0)
                port_ = port;
        }
        orvfuzz::require(port_ != 0 && listen(listen_, 1) == 0, "the peer listens");
        thread_ = std::thread([this] { run(); });
    }

    int port() const { return port_; }

    // The segments for the frames of the next commands.
    void play(std::vector<Bytes> script) {
        std::lock_guard<std::mutex> lock(m_);
        script_ = std::move(script);
        next_ = 0;
        scripted_ = true;
    }

    // After the commands: everything the library sent is in the peer's
    // socket by now (loopback delivers within the send); the peer reads it
    // without answering, so that no late answer lands in the next input.
    void finish() {
        std::unique_lock<std::mutex> lock(m_);
        scripted_ = false;
        drained_ = false;
        cv_.wait(lock, [this] { return drained_; });
    }

private:
    void run() {
        conn_ = accept(listen_, nullptr, nullptr);
        const int on = 1;
        setsockopt(conn_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        unsigned char frame[4096];
        for (;;) {
            pollfd p{conn_, POLLIN, 0};
            const int ready = poll(&p, 1, 1);
            {
                std::lock_guard<std::mutex> lock(m_);
                if (!scripted_ && !drained_) {
                    while (recv(conn_, frame, sizeof frame, MSG_DONTWAIT) > 0) {
                    }
                    drained_ = true;
                    cv_.notify_all();
                    continue;
                }
            }
            if (ready <= 0) continue;
            const ssize_t n = recv(conn_, frame, sizeof frame, 0);
            if (n <= 0) return;  // the library went away: the run is over
            answer(frame, static_cast<size_t>(n));
        }
    }

    void answer(const unsigned char* frame, size_t n) {
        std::lock_guard<std::mutex> lock(m_);
        Bytes reply;
        if (scripted_) {
            reply = next_ < script_.size() ? script_[next_++] : Bytes{0};
        } else if (n >= 2 && frame[0] == orvcmd::kFrameStart && frame[1] == orvcmd::kSetRegister) {
            reply = {orvcmd::kSetRegister};  // between inputs: the streaming switch of open() and close()
        }
        if (!reply.empty()) send(conn_, reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    int listen_ = -1;
    int conn_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<Bytes> script_;
    size_t next_ = 0;
    bool scripted_ = false;
    bool drained_ = true;
};

struct Harness {
    Peer peer;
    OrvAccess access;
    std::string localFile;
};

Harness* harness = nullptr;

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

// A failed command says why in the words its contract gives.
void requireReason(const std::initializer_list<const char*> reasons) {
    const std::string error = harness->access.getLastError();
    if (startsWith(error, "Error writing command to orvRx: ") ||
        startsWith(error, "Error reading reply from orvRx: "))
        return;
    for (const char* r : reasons)
        if (error == r) return;
    std::fprintf(stderr, "orvfuzz: unexpected reason \"%s\"\n", error.c_str());
    orvfuzz::require(false, "a failed command gives one of its reasons");
}

std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

void run(const orvfuzz::Record& r) {
    OrvAccess& a = harness->access;
    orvfuzz::Fields f(r);
    switch (r.control % 8) {
        case 1: {
            const unsigned int timeout = f.u8() % kMaxTimeoutMs;
            const unsigned int address = f.u24();
            if (!a.setRegister(timeout, address, f.u8()))
                requireReason({"No response to set register command", "Invalid ack to set register command"});
            break;
        }
        case 2: {
            const unsigned int timeout = f.u8() % kMaxTimeoutMs;
            unsigned char value = 0;
            if (!a.getRegister(timeout, f.u24(), &value))
                requireReason(
                    {"No response to get register command", "Invalid response to get register command"});
            break;
        }
        case 3: {
            const auto imu = f.u8() == 1 ? ORVACCESS_IMU_CAMERA : ORVACCESS_IMU_PLATFORM;
            const size_t capacity = f.u16();
            const unsigned int timeout = f.u8();
            Bytes transmit = f.rest();
            std::unique_ptr<unsigned char[]> receive(new unsigned char[capacity]);
            unsigned long received = 0;
            const bool ok = a.transactImu(imu, transmit.data(), transmit.size(), receive.get(), capacity,
                                          timeout, &received);
            if (transmit.size() > 255) {
                orvfuzz::require(!ok && startsWith(a.getLastError(), "IMU transmit length too long ("),
                                 "more than a frame can announce is refused");
            } else if (ok) {
                orvfuzz::require(received <= std::min<size_t>(capacity, 255),
                                 "no more data than was asked for");
            } else {
                requireReason({"No response from orvRx"});
            }
            break;
        }
        case 4: {
            const auto location = static_cast<e_OrvAccessFileLoc>(f.u8());
            if (!a.getFile(text(f.rest()), location, harness->localFile))
                requireReason({"No/bad response from server", "File not found by server",
                               "No/bad data packet from server"});
            break;
        }
        case 5: {
            const auto location = static_cast<e_OrvAccessFileLoc>(f.u8());
            const size_t bytes = f.u16() % kMaxPutFile;
            Bytes content(bytes);
            for (size_t i = 0; i < bytes; ++i) content[i] = static_cast<unsigned char>(i * 13);
            const std::string local = orvfuzz::writeScratchFile("put.bin", content.data(), content.size());
            if (!a.putFile(local, text(f.rest()), location))
                requireReason({"File empty or unreadable", "Start failed - no/bad response from orvRx",
                               "No/bad response from server"});
            break;
        }
        default:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orvfuzz::silenceStreams();
    harness = new Harness;
    harness->localFile = orvfuzz::scratchDir() + "got.bin";
    const std::string ini =
        "[General]\nverbosity = 0x37\n[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
        std::to_string(harness->peer.port()) +
        "\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\nudpOrvRxInputPort = 0\nudpOrvCorePort = 0\nudpNftPort = 0\n"
        "sMemImgName =\n";
    harness->access.setIniPath(orvfuzz::writeScratchFile("command.ini", ini));
    orvfuzz::require(harness->access.open(), "the access object connects to the peer");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<Bytes> script;
    orvfuzz::forEachRecord(data, size, [&](const orvfuzz::Record& r) {
        if (r.control % 8 != 0) return;
        if (r.control & kSilenceBit)
            script.emplace_back();
        else if (r.size == 0)
            script.push_back(Bytes{0});
        else
            script.emplace_back(r.data, r.data + r.size);
    });
    harness->peer.play(std::move(script));
    int commands = 0;
    orvfuzz::forEachRecord(data, size, [&](const orvfuzz::Record& r) {
        if (r.control % 8 != 0 && commands++ < kMaxCommands) run(r);
    });
    harness->peer.finish();
    orvfuzz::require(!harness->access.getStreaming(), "the commands leave streaming off");
    return 0;
}
