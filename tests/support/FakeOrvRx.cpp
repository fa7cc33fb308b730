#include "support/FakeOrvRx.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

#include "support/TestSupport.hpp"

namespace orvtest {

namespace {

constexpr int kPollMs = 20;  // how long the server thread waits before re-checking stop_

unsigned char negSum(std::initializer_list<unsigned char> bytes) {
    unsigned int sum = 0;
    for (unsigned char b : bytes) sum += b;
    return static_cast<unsigned char>(-sum);
}

}  // namespace

FakeOrvRx::FakeOrvRx() : port_(freePort()) {
    listenFd_ = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port_));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listenFd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(listenFd_, 4) != 0)
        ADD_FAILURE() << "fake orvRx cannot listen on port " << port_;
    thread_ = std::thread([this] { run(); });
}

FakeOrvRx::~FakeOrvRx() {
    stop_ = true;
    shutdown(listenFd_, SHUT_RDWR);
    thread_.join();
    ::close(listenFd_);
}

void FakeOrvRx::setMode(Mode mode) {
    std::lock_guard<std::mutex> lock(mu_);
    mode_ = mode;
}

void FakeOrvRx::setReply(unsigned char code, Bytes reply) {
    std::lock_guard<std::mutex> lock(mu_);
    replies_[code] = std::move(reply);
}

void FakeOrvRx::clearReplies() {
    std::lock_guard<std::mutex> lock(mu_);
    replies_.clear();
}

void FakeOrvRx::setRegisterValue(unsigned int address, unsigned char value) {
    std::lock_guard<std::mutex> lock(mu_);
    registers_[address] = value;
}

std::vector<Bytes> FakeOrvRx::frames() const {
    std::lock_guard<std::mutex> lock(mu_);
    return frames_;
}

void FakeOrvRx::clearFrames() {
    std::lock_guard<std::mutex> lock(mu_);
    frames_.clear();
}

bool FakeOrvRx::waitFrames(size_t n, int timeoutMs) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (frames().size() < n) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool FakeOrvRx::sendRaw(const Bytes& bytes) {
    std::lock_guard<std::mutex> lock(mu_);
    return clientFd_ >= 0 &&
           send(clientFd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

void FakeOrvRx::dropClient() {
    std::lock_guard<std::mutex> lock(mu_);
    if (clientFd_ >= 0) shutdown(clientFd_, SHUT_RDWR);
}

void FakeOrvRx::run() {
    while (!stop_) {
        pollfd p{listenFd_, POLLIN, 0};
        if (poll(&p, 1, kPollMs) <= 0 || stop_) continue;
        const int fd = accept(listenFd_, nullptr, nullptr);
        if (fd >= 0) serve(fd);
    }
}

void FakeOrvRx::serve(int fd) {
    // Replies go out at once: a get's reply and first chunk follow each
    // other, and Nagle would hold the chunk back until the client's delayed ack.
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    {
        std::lock_guard<std::mutex> lock(mu_);
        clientFd_ = fd;
    }
    Bytes in;
    unsigned char chunk[1024];
    while (!stop_) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kPollMs) <= 0) continue;
        const ssize_t r = recv(fd, chunk, sizeof chunk, 0);
        if (r <= 0) break;  // closed by either side
        in.insert(in.end(), chunk, chunk + r);
        for (size_t len; !in.empty() && (len = frameLength(in)) > 0;) {
            const Bytes frame(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(len));
            in.erase(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(len));
            // One send per reply: the client takes a single read as the reply.
            for (const Bytes& reply : answer(frame))
                if (!reply.empty()) send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
    }
    std::lock_guard<std::mutex> lock(mu_);
    ::close(fd);
    clientFd_ = -1;
}

// Bytes of the complete frame at the front of `in`, 0 while it is incomplete.
size_t FakeOrvRx::frameLength(const Bytes& in) const {
    if (in[0] != 0xAB) return 1;  // a bare acknowledgement (C7, C8) or junk
    if (in.size() < 2) return 0;
    size_t len = in.size();  // unknown command: take what came
    const auto zero = std::find(
        in.begin() + std::min<std::ptrdiff_t>(3, static_cast<std::ptrdiff_t>(in.size())), in.end(), 0);
    const size_t z = static_cast<size_t>(zero - in.begin());
    switch (in[1]) {
        case 0xC4:
            len = 7;
            break;
        case 0xC3:
            len = 6;
            break;
        case 0xC0:
            len = in.size() < 4 ? SIZE_MAX : 7 + in[3];
            break;
        case 0xC5:
            len = zero == in.end() ? SIZE_MAX : z + 2;
            break;  // name, zero, chk
        case 0xC6:
            len = zero == in.end() ? SIZE_MAX : z + 5;
            break;  // name, zero, size(3), chk
        case 0xC7:
            len = 518;
            break;
        default:
            break;
    }
    return len <= in.size() ? len : 0;
}

std::vector<Bytes> FakeOrvRx::answer(const Bytes& frame) {
    std::lock_guard<std::mutex> lock(mu_);
    frames_.push_back(frame);
    // Bare single bytes are the client's acknowledgements and aborts of a get.
    if (frame.size() == 1 && frame[0] != 0xAB) return answerFile(frame);
    if (frame.size() < 2) return {};
    const unsigned char code = frame[1];
    if (const auto it = replies_.find(code); it != replies_.end()) return {it->second};
    if (mode_ == Mode::Silent) return {};
    const bool wrong = mode_ == Mode::WrongAck;
    const unsigned int address = frame.size() >= 5 ? frame[2] | frame[3] << 8 | frame[4] << 16 : 0;
    switch (code) {
        case 0xC4:
            if (wrong) return {{0xC4, 0xC4}};
            registers_[address] = frame[5];
            return {{0xC4}};
        case 0xC3: {
            const unsigned char v = registers_[address];
            return {{0xC3, v, static_cast<unsigned char>(negSum({0xC3, v}) + (wrong ? 1 : 0))}};
        }
        case 0xC0: {
            if (wrong) return {{0x00, 0xFF}};
            const unsigned char n = frame[4 + frame[3]];
            Bytes reply{0x00, n};
            for (size_t i = 0; i < n; ++i) reply.push_back(pattern(i));
            return {reply};
        }
        case 0xC5:
        case 0xC6:
        case 0xC7:
            return answerFile(frame);
        default:
            return {};
    }
}

// ---- file store ----------------------------------------------------------------

void FakeOrvRx::storeFile(unsigned char location, const std::string& name, Bytes content) {
    std::lock_guard<std::mutex> lock(mu_);
    files_[{location, name}] = std::move(content);
}

bool FakeOrvRx::storedFile(unsigned char location, const std::string& name, Bytes* content) const {
    std::lock_guard<std::mutex> lock(mu_);
    const auto it = files_.find({location, name});
    if (it == files_.end()) return false;
    *content = it->second;
    return true;
}

void FakeOrvRx::setFileFault(FileFault fault, size_t step) {
    std::lock_guard<std::mutex> lock(mu_);
    fileFault_ = fault;
    faultStep_ = step;
}

std::vector<std::string> FakeOrvRx::violations() const {
    std::lock_guard<std::mutex> lock(mu_);
    return violations_;
}

size_t FakeOrvRx::aborts() const {
    std::lock_guard<std::mutex> lock(mu_);
    return aborts_;
}

// Called with mu_ held.
std::vector<Bytes> FakeOrvRx::answerFile(const Bytes& frame) {
    if (frame.size() == 1) {
        if (frame[0] == 0xC8) {
            ++aborts_;
            transfer_.active = false;
            return {};
        }
        if (frame[0] != 0xC7 || !transfer_.active || transfer_.put) {
            violation("stray byte " + std::to_string(frame[0]));
            return {};
        }
        if (transfer_.chunk * 512 >= transfer_.size) {
            transfer_.active = false;  // the last chunk is acknowledged
            return {};
        }
        return {nextChunk()};
    }
    unsigned int sum = 0;
    for (unsigned char b : frame) sum += b;
    if ((sum & 0xFF) != 0) {
        violation("bad checksum on a frame of code " + std::to_string(frame[1]));
        return {};
    }

    const unsigned char code = frame[1];
    if (code == 0xC5 || code == 0xC6) {
        // AB code location name 0 [size(3)] chk; frameLength() found the zero.
        const auto zero = std::find(frame.begin() + 3, frame.end(), 0);
        const std::pair<unsigned char, std::string> key{frame[2], std::string(frame.begin() + 3, zero)};
        const size_t z = static_cast<size_t>(zero - frame.begin());
        if (code == 0xC6) {
            transfer_ = Transfer{};
            transfer_.key = key;
            transfer_.size = frame[z + 1] | frame[z + 2] << 8 | frame[z + 3] << 16;
            transfer_.put = true;
            transfer_.active = true;
            if (faultAt(FileFault::Silence, 0)) return {};
            if (faultAt(FileFault::WrongAck, 0)) return {{0x00}};
            return {{0xC6}};
        }
        const auto it = files_.find(key);
        const size_t size = it == files_.end() || faultAt(FileFault::ZeroSize, 0) ? 0 : it->second.size();
        Bytes reply{static_cast<unsigned char>(faultAt(FileFault::WrongAck, 0) ? 0xC6 : 0xC5),
                    static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8),
                    static_cast<unsigned char>(size >> 16)};
        reply.push_back(static_cast<unsigned char>(negSum({reply[0], reply[1], reply[2], reply[3]}) +
                                                   (faultAt(FileFault::BadChecksum, 0) ? 1 : 0)));
        if (faultAt(FileFault::Short, 0)) reply.pop_back();
        if (faultAt(FileFault::Silence, 0)) return {};
        if (size == 0 || (fileFault_ != FileFault::None && faultStep_ == 0)) return {reply};
        transfer_ = Transfer{};
        transfer_.key = key;
        transfer_.size = size;
        transfer_.data = it->second;
        transfer_.active = true;
        // orvRx sends the first chunk unasked, right after its reply.
        return {reply, nextChunk()};
    }

    // A chunk of a put: AB C7 offset(3) data(512) chk.
    if (!transfer_.active || !transfer_.put) {
        violation("chunk without a put");
        return {};
    }
    const size_t offset = frame[2] | frame[3] << 8 | frame[4] << 16;
    if (offset != transfer_.data.size())
        violation("chunk offset " + std::to_string(offset) + ", expected " +
                  std::to_string(transfer_.data.size()));
    const size_t count = std::min<size_t>(transfer_.size - transfer_.data.size(), 512);
    transfer_.data.insert(transfer_.data.end(), frame.begin() + 5,
                          frame.begin() + 5 + static_cast<std::ptrdiff_t>(count));
    if (std::any_of(frame.begin() + 5 + static_cast<std::ptrdiff_t>(count), frame.end() - 1,
                    [](unsigned char b) { return b != 0; }))
        violation("filler not zero in the chunk at " + std::to_string(offset));
    const size_t step = ++transfer_.chunk;
    if (transfer_.data.size() >= transfer_.size) {
        files_[transfer_.key] = transfer_.data;
        transfer_.active = false;
    }
    if (faultAt(FileFault::Silence, step)) return {};
    if (faultAt(FileFault::WrongAck, step)) return {{0x00}};
    return {{0xC7}};
}

// The next chunk of the get under way, as the fault says; empty for silence.
// Called with mu_ held.
Bytes FakeOrvRx::nextChunk() {
    const size_t index = transfer_.chunk++;
    const size_t step = index + 1;
    const size_t offset = index * 512;
    Bytes c(518, 0);
    c[0] = 0xAB;
    c[1] = faultAt(FileFault::WrongAck, step) ? 0xC6 : 0xC7;
    const size_t claimed = offset + (faultAt(FileFault::WrongOffset, step) ? 512 : 0);
    c[2] = static_cast<unsigned char>(claimed);
    c[3] = static_cast<unsigned char>(claimed >> 8);
    c[4] = static_cast<unsigned char>(claimed >> 16);
    const size_t count = std::min<size_t>(transfer_.size - offset, 512);
    std::copy_n(transfer_.data.begin() + static_cast<std::ptrdiff_t>(offset), count, c.begin() + 5);
    unsigned int sum = 0;
    for (size_t i = 0; i < 517; ++i) sum += c[i];
    c[517] = static_cast<unsigned char>(-sum + (faultAt(FileFault::BadChecksum, step) ? 1 : 0));
    if (faultAt(FileFault::Short, step)) c.pop_back();
    if (faultAt(FileFault::Silence, step)) return {};
    return c;
}

}  // namespace orvtest
