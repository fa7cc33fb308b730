#include "orvsim/RxServer.hpp"
#include "wire/CommandCodes.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "wire/CommandCodes.hpp"
#include "os/OrvosiUtil.hpp"

namespace orvsim {

namespace {

constexpr size_t kChunkFrame = 2 + 3 + orvcmd::kChunkData + 1;
constexpr size_t kMaxFileSize = 0xFFFFFF;  // sizes travel in 24 bits
constexpr size_t kMaxName = 255;           // longer names are taken for garbage

bool setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool sumsToZero(const unsigned char* p, size_t n) { return OrvosiUtil::checksum(p, n) == 0; }

// Offset of the zero that ends a name starting at `from`, or 0 when it has
// not arrived yet (-1 when the name is too long to be one).
long nameEnd(const std::vector<unsigned char>& in, size_t from) {
    for (size_t i = from; i < in.size(); ++i) {
        if (in[i] == 0) return static_cast<long>(i);
        if (i - from >= kMaxName) return -1;
    }
    return 0;
}

}  // namespace

RxServer::RxServer(std::string fileFolder) : folder_(std::move(fileFolder)) {
    imu_[0][0] = kImuIdentity;
    imu_[1][0] = kImuIdentity;
}

RxServer::~RxServer() { close(); }

bool RxServer::open(int port, const std::string& address) {
    close();
    in_addr host{};
    if (inet_pton(AF_INET, address.c_str(), &host) != 1) {
        lastError_ = "Cannot listen for commands on \"" + address + "\": not a dotted address";
        return false;
    }
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return OrvosiUtil::failWithSystemText(lastError_, "Cannot create the command socket: ");
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr = host;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || listen(fd, 4) != 0 ||
        !setNonBlocking(fd)) {
        const std::string prefix = "Cannot listen for commands on port " + std::to_string(port) + ": ";
        OrvosiUtil::failWithSystemText(lastError_, prefix.c_str());
        ::close(fd);
        return false;
    }
    listenFd_ = fd;
    return true;
}

void RxServer::close() {
    dropClient();
    if (listenFd_ >= 0) ::close(listenFd_);
    listenFd_ = -1;
}

void RxServer::poll() {
    if (listenFd_ < 0) return;
    acceptPending();
    if (clientFd_ < 0) return;
    readClient();
    parse();
    flushOutput();
}

void RxServer::acceptPending() {
    for (;;) {
        const int fd = accept(listenFd_, nullptr, nullptr);
        if (fd < 0) return;  // nothing pending (or a transient failure: next poll)
        // The newest client wins: a reconnecting library has left the old one.
        dropClient();
        const int one = 1;
        // Replies are tiny and the client takes one read as one reply.
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        setNonBlocking(fd);
        clientFd_ = fd;
    }
}

void RxServer::readClient() {
    unsigned char buf[4096];
    for (;;) {
        const ssize_t r = recv(clientFd_, buf, sizeof buf, 0);
        if (r > 0) {
            in_.insert(in_.end(), buf, buf + r);
            continue;
        }
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
        // Closed by the peer or broken: parse what came before, then forget it.
        parse();
        dropClient();
        return;
    }
}

void RxServer::dropClient() {
    if (clientFd_ >= 0) ::close(clientFd_);
    clientFd_ = -1;
    in_.clear();
    out_.clear();
    transfer_ = Transfer::None;
    file_.clear();
}

void RxServer::parse() {
    size_t at = 0;
    while (at < in_.size()) {
        const unsigned char head = in_[at];
        if (head != orvcmd::kFrameStart) {
            // Bare bytes: the client's acknowledgements during a get.
            if (transfer_ == Transfer::Get && replies_ != Replies::Silent) {
                if (head == orvcmd::kChunk) sendNextChunk();
                if (head == orvcmd::kAbort) transfer_ = Transfer::None;
            }
            ++at;
            continue;
        }
        const long n = frameLength(at);
        if (n == 0) break;  // the rest is still on its way
        if (n < 0) {        // not a frame after all: look for the next start
            ++at;
            continue;
        }
        const size_t len = static_cast<size_t>(n);
        if (!sumsToZero(&in_[at], len)) {
            ++framesRejected_;
        } else if (replies_ != Replies::Silent) {
            handle(&in_[at], len);
        }
        at += len;
    }
    in_.erase(in_.begin(), in_.begin() + static_cast<long>(at));
}

long RxServer::frameLength(size_t at) const {
    const size_t avail = in_.size() - at;
    if (avail < 2) return 0;
    long n = 0;
    switch (in_[at + 1]) {
        case orvcmd::kGetRegister:
            n = 6;
            break;
        case orvcmd::kSetRegister:
            n = 7;
            break;
        case orvcmd::kChunk:
            n = static_cast<long>(kChunkFrame);
            break;
        case orvcmd::kImu:
            if (avail < 4) return 0;
            n = in_[at + 3] + 7;
            break;
        case orvcmd::kGetFile:
        case orvcmd::kPutFile: {
            // location, then the name up to its zero
            const long end = nameEnd(in_, at + 3);
            if (end <= 0) return end;
            n = end - static_cast<long>(at) + (in_[at + 1] == orvcmd::kGetFile ? 2 : 5);
            break;
        }
        default:
            return -1;
    }
    return static_cast<size_t>(n) <= avail ? n : 0;
}

void RxServer::handle(const unsigned char* f, size_t length) {
    ++framesHandled_;
    // A new command ends a get the client has walked away from.
    if (f[1] != orvcmd::kChunk && transfer_ == Transfer::Get) transfer_ = Transfer::None;
    switch (f[1]) {
        case orvcmd::kSetRegister:
            setReg(OrvosiUtil::word24(f + 2), f[5]);
            reply({orvcmd::kSetRegister}, false);
            break;
        case orvcmd::kGetRegister:
            reply({orvcmd::kGetRegister, reg(OrvosiUtil::word24(f + 2))}, true);
            break;
        case orvcmd::kImu:
            handleImu(f);
            break;
        case orvcmd::kGetFile:
            startGet(f, length);
            break;
        case orvcmd::kPutFile:
            startPut(f, length);
            break;
        case orvcmd::kChunk:
            putChunk(f);
            break;
        default:
            break;
    }
}

unsigned char RxServer::reg(unsigned int address) const {
    const auto it = regs_.find(address & 0xFFFFFFu);
    return it == regs_.end() ? 0 : it->second;
}

void RxServer::setReg(unsigned int address, unsigned char value) { regs_[address & 0xFFFFFFu] = value; }

unsigned char RxServer::imuReg(int channel, unsigned char address) const {
    return channel == 1 || channel == 2 ? imu_[channel - 1][address] : 0;
}

void RxServer::handleImu(const unsigned char* f) {
    const int channel = f[2];
    const size_t txLen = f[3];
    const unsigned char* tx = f + 4;
    const size_t rxLen = f[4 + txLen];
    const bool known = channel == 1 || channel == 2;
    const unsigned char start = txLen > 0 ? tx[0] : 0;
    if (known) {
        unsigned char* file = imu_[channel - 1];
        for (size_t i = 1; i < txLen; ++i) file[static_cast<unsigned char>(start + i - 1)] = tx[i];
    }
    if (rxLen == 0) return;  // nothing awaited
    Bytes r{0x00, static_cast<unsigned char>(known ? rxLen : 0)};
    for (size_t i = 0; known && i < rxLen; ++i)
        r.push_back(imu_[channel - 1][static_cast<unsigned char>(start + i)]);
    reply(std::move(r), false);
}

std::string RxServer::pathFor(const unsigned char* name) const {
    const std::string n(reinterpret_cast<const char*>(name));
    if (n.empty() || n.find('/') != std::string::npos || n.find("..") != std::string::npos) return {};
    return folder_ + "/" + n;
}

void RxServer::startGet(const unsigned char* f, size_t /*length*/) {
    transfer_ = Transfer::None;
    file_.clear();
    const std::string path = pathFor(f + 3);
    if (!path.empty()) {
        std::ifstream in(path, std::ios::binary);
        // A folder opens but reads nothing: it answers as missing.
        if (in) file_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    // A file the size field cannot carry is as good as missing.
    if (file_.size() > kMaxFileSize) file_.clear();
    Bytes r{orvcmd::kGetFile, 0, 0, 0};
    OrvosiUtil::lendian(&r[1], file_.size(), 3);
    reply(std::move(r), true);
    if (file_.empty()) return;
    // The first chunk follows at once; each later one waits for its ack.
    transfer_ = Transfer::Get;
    nextOffset_ = 0;
    sendNextChunk();
}

void RxServer::sendNextChunk() {
    if (nextOffset_ >= file_.size()) {
        transfer_ = Transfer::None;  // the ack of the last chunk
        return;
    }
    Bytes c(kChunkFrame - 1, 0);
    c[0] = orvcmd::kFrameStart;
    c[1] = orvcmd::kChunk;
    OrvosiUtil::lendian(&c[2], nextOffset_, 3);
    const size_t count = std::min(orvcmd::kChunkData, file_.size() - nextOffset_);
    std::memcpy(&c[5], file_.data() + nextOffset_, count);
    nextOffset_ += orvcmd::kChunkData;
    reply(std::move(c), true);
}

void RxServer::startPut(const unsigned char* f, size_t length) {
    transfer_ = Transfer::None;
    file_.clear();
    putPath_ = pathFor(f + 3);
    if (putPath_.empty()) return;  // refused: no acknowledgement
    fileSize_ = OrvosiUtil::word24(f + length - 4);
    nextOffset_ = 0;
    transfer_ = Transfer::Put;
    reply({orvcmd::kPutFile}, false);
    if (fileSize_ == 0) putChunk(nullptr);
}

void RxServer::putChunk(const unsigned char* f) {
    if (transfer_ != Transfer::Put) return;
    if (f != nullptr) {
        if (OrvosiUtil::word24(f + 2) != nextOffset_) return;  // out of step: no ack
        const size_t count = std::min(orvcmd::kChunkData, fileSize_ - nextOffset_);
        file_.insert(file_.end(), f + 5, f + 5 + count);
        nextOffset_ += orvcmd::kChunkData;
    }
    if (file_.size() >= fileSize_) {
        transfer_ = Transfer::None;
        std::ofstream out(putPath_, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(file_.data()), static_cast<std::streamsize>(file_.size()));
        out.close();
        file_.clear();
        if (!out) {
            lastError_ = "Cannot write " + putPath_;
            return;  // not acknowledged: the client sees the failure
        }
    }
    if (f != nullptr) reply({orvcmd::kChunk}, false);
}

void RxServer::reply(Bytes message, bool sealed) {
    if (sealed)
        message.push_back(static_cast<unsigned char>(-OrvosiUtil::checksum(message.data(), message.size())));
    if (replies_ == Replies::Corrupt) message.back() = static_cast<unsigned char>(~message.back());
    out_.insert(out_.end(), message.begin(), message.end());
    // Each reply goes out on its own: the client takes one read as one reply.
    flushOutput();
}

void RxServer::flushOutput() {
    while (!out_.empty() && clientFd_ >= 0) {
        const ssize_t r = send(clientFd_, out_.data(), out_.size(), MSG_NOSIGNAL);
        if (r > 0) {
            out_.erase(out_.begin(), out_.begin() + r);
            continue;
        }
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
        // The client is gone; the next read notices it.
        out_.clear();
        return;
    }
}

}  // namespace orvsim
