#include "support/FakeOrvRx.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

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
            const Bytes reply = answer(frame);
            // One send per reply: the client takes a single read as the reply.
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

Bytes FakeOrvRx::answer(const Bytes& frame) {
    std::lock_guard<std::mutex> lock(mu_);
    frames_.push_back(frame);
    if (frame.size() < 2) return {};
    const unsigned char code = frame[1];
    if (const auto it = replies_.find(code); it != replies_.end()) return it->second;
    if (mode_ == Mode::Silent) return {};
    const bool wrong = mode_ == Mode::WrongAck;
    const unsigned int address = frame.size() >= 5 ? frame[2] | frame[3] << 8 | frame[4] << 16 : 0;
    switch (code) {
        case 0xC4:
            if (wrong) return {0xC4, 0xC4};
            registers_[address] = frame[5];
            return {0xC4};
        case 0xC3: {
            const unsigned char v = registers_[address];
            return {0xC3, v, static_cast<unsigned char>(negSum({0xC3, v}) + (wrong ? 1 : 0))};
        }
        case 0xC0: {
            if (wrong) return {0x00, 0xFF};
            const unsigned char n = frame[4 + frame[3]];
            Bytes reply{0x00, n};
            for (size_t i = 0; i < n; ++i) reply.push_back(pattern(i));
            return reply;
        }
        case 0xC6:
        case 0xC7:
            return {code};
        default:
            return {};
    }
}

}  // namespace orvtest
