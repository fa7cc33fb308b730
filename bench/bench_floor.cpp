// orvfloor: the receive path against the machine's floor, in one table.
//
// Every row is measured twice in the same run: through the library's public
// interface, and as the plain system calls (or the plain C loop) that no
// receiver can do without. Rounds are interleaved, library and floor side
// by side in each, and the table shows medians, so that a machine shared
// with other work moves both alike. Nothing here is a test: the figures are
// printed, never judged.
//
//   orvfloor [rounds]        the table (5 rounds unless given)
//   orvfloor --instructions  only the counted workloads, for callgrind
//   ... --allowed-senders LIST  the library with udpAllowedSenders = LIST
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/perf_event.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/OrvPoseFeed.hpp"
#include "orvaccess/orvwire.h"
#include "os/OrvosiUtil.hpp"
#include "support/Loopback.hpp"

namespace {

using orvtest::Bytes;

constexpr int kIdleCalls = 20000;
constexpr int kBurst = 5000;
constexpr int kCounted = 1000;  // datagrams and records in the counted workloads
constexpr int kLatencySamples = 1000;
constexpr size_t kImageSize = 3686400;  // format 51
constexpr size_t kPieces = 60;
constexpr size_t kPiecePixels = kImageSize / kPieces;
constexpr int kSocketBuffer = 4 << 20;

uint64_t nowNs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

// Loopback delivery may lag behind sendto() on a loaded machine: a burst is
// given time to land before it is read.
void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

// A tracking datagram without optical data: tag, and an identity attitude so
// that the record is an ordinary one.
Bytes trackingPacket(uint32_t tag) {
    Bytes p(ORVWIRE_TRACKING_SIZE, 0);
    OrvosiUtil::lendian(&p[3], tag, 4);
    for (int i = 0; i < 3; ++i) {
        const float one = 1.0f;
        std::memcpy(&p[99 + 4 * (4 * i)], &one, sizeof one);
    }
    return orvtest::seal(p, ORVWIRE_START_TRACKING);
}

Bytes imagePiece(uint32_t seq, size_t at, const Bytes& image) {
    Bytes b(kPiecePixels + ORVWIRE_IMAGE_OVERHEAD);
    OrvosiUtil::lendian(&b[3], seq, 4);
    b[7] = 51;
    OrvosiUtil::lendian(&b[8], at, 3);
    std::memcpy(&b[ORVWIRE_IMAGE_PIXELS_AT], image.data() + at, kPiecePixels);
    return orvtest::seal(b, ORVWIRE_START_IMAGE);
}

// ---- the library's side ------------------------------------------------------

// An access object with its five receivers on free ports, no TCP, no uplink,
// no shared memory; socket buffers large enough for a burst or an image.
class Library {
public:
    explicit Library(const std::string& extraIni = "") {
        char dir[] = "/tmp/orvfloor-XXXXXX";
        if (mkdtemp(dir) != nullptr) dir_ = dir;
        for (int& p : port) p = orvtest::findFreePort();
        const std::string big = std::to_string(kSocketBuffer);
        std::ofstream(dir_ + "/orvaccess.ini")
            << orvtest::receiverIni(port, "udpOrvCoreRcvBufSize = " + big + "\nudpOrvRxImgRcvBufSize = " + big +
                                              "\n" + extraIni + "[Memory]\ntrackingQueueSize = 10000\n");
        access.setIniPath(dir_ + "/orvaccess.ini");
        ok = access.open();
    }
    ~Library() {
        access.close();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    // Drains the tracking queue; the number of records it held.
    int drain() {
        bool valid = true;
        s_OrvAccessTrkDataExt rec{};
        int n = 0;
        while (access.getTrackingData(&valid, &rec) && valid) ++n;
        return n;
    }

    OrvAccess access;
    int port[5] = {};
    bool ok = false;

private:
    std::string dir_;
};

// ---- the floor's side ----------------------------------------------------------

// Five plain non-blocking sockets on 127.0.0.1, with the same buffers.
struct RawSockets {
    int fd[5];
    int port[5];
    int epoll = -1;
    RawSockets() {
        epoll = epoll_create1(0);
        for (int i = 0; i < 5; ++i) {
            fd[i] = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
            setsockopt(fd[i], SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
            sockaddr_in a = orvtest::loopback(0);
            bind(fd[i], reinterpret_cast<sockaddr*>(&a), sizeof a);
            socklen_t length = sizeof a;
            getsockname(fd[i], reinterpret_cast<sockaddr*>(&a), &length);
            port[i] = ntohs(a.sin_port);
            epoll_event e{};
            e.events = EPOLLIN;
            e.data.u32 = static_cast<uint32_t>(i);
            epoll_ctl(epoll, EPOLL_CTL_ADD, fd[i], &e);
        }
    }
    ~RawSockets() {
        for (int f : fd) ::close(f);
        ::close(epoll);
    }
    RawSockets(const RawSockets&) = delete;
    RawSockets& operator=(const RawSockets&) = delete;
};

// What a hand-written receiver must do with a tracking datagram: the
// framing check and the fields copied out, nothing else.
struct FloorRecord {
    uint32_t tag;
    uint64_t poseTime;
    uint32_t platPoseTime, statusWord;
    float head[18];
    uint16_t countA, countB;
    float mid[36];
    uint64_t time2;
    float tail[8];
    unsigned char codes[4];
    float last[6];
};

__attribute__((noinline)) bool floorDecode(const unsigned char* p, size_t n, FloorRecord* r) {
    if (n < ORVWIRE_TRACKING_SIZE || p[0] != ORVWIRE_START_TRACKING || (p[1] | p[2] << 8) != static_cast<int>(n))
        return false;
    unsigned char sum = 0;
    for (size_t i = 0; i < n; ++i) sum = static_cast<unsigned char>(sum + p[i]);
    if (sum != 0) return false;
    std::memcpy(&r->tag, p + 3, 4);
    std::memcpy(&r->poseTime, p + 7, 8);
    std::memcpy(&r->platPoseTime, p + 15, 4);
    std::memcpy(&r->statusWord, p + 19, 4);
    std::memcpy(r->head, p + 23, sizeof r->head);
    std::memcpy(&r->countA, p + 95, 2);
    std::memcpy(&r->countB, p + 97, 2);
    std::memcpy(r->mid, p + 99, sizeof r->mid);
    std::memcpy(&r->time2, p + 255, 8);
    std::memcpy(r->tail, p + 263, sizeof r->tail);
    std::memcpy(r->codes, p + 295, 4);
    std::memcpy(r->last, p + 299, sizeof r->last);
    return true;
}

// ---- instruction counts ----------------------------------------------------------

// User-space instructions of this thread, where the machine lets a process count them.
class InstructionCounter {
public:
    InstructionCounter() {
        perf_event_attr a{};
        a.size = sizeof a;
        a.type = PERF_TYPE_HARDWARE;
        a.config = PERF_COUNT_HW_INSTRUCTIONS;
        a.disabled = 1;
        a.exclude_kernel = 1;
        a.exclude_hv = 1;
        fd_ = static_cast<int>(syscall(SYS_perf_event_open, &a, 0, -1, -1, 0));
        if (fd_ < 0) why_ = std::strerror(errno);
    }
    ~InstructionCounter() {
        if (fd_ >= 0) ::close(fd_);
    }
    InstructionCounter(const InstructionCounter&) = delete;
    InstructionCounter& operator=(const InstructionCounter&) = delete;
    bool ok() const { return fd_ >= 0; }
    const std::string& why() const { return why_; }
    void start() {
        ioctl(fd_, PERF_EVENT_IOC_RESET, 0);
        ioctl(fd_, PERF_EVENT_IOC_ENABLE, 0);
    }
    uint64_t stop() {
        ioctl(fd_, PERF_EVENT_IOC_DISABLE, 0);
        uint64_t count = 0;
        if (::read(fd_, &count, sizeof count) != sizeof count) return 0;
        return count;
    }

private:
    int fd_ = -1;
    std::string why_;
};

// The counted workloads, kept apart so that callgrind can count them
// alone (--toggle-collect=orvfloor_*); each handles kCounted datagrams or
// records.
extern "C" __attribute__((noinline)) void orvfloor_library_burst(OrvAccess& access) { access.serviceUdp(false); }

extern "C" __attribute__((noinline)) int orvfloor_library_drain(OrvAccess& access) {
    bool valid = true;
    s_OrvAccessTrkDataExt rec{};
    int n = 0;
    while (access.getTrackingData(&valid, &rec) && valid) ++n;
    return n;
}

extern "C" __attribute__((noinline)) int orvfloor_floor_decode(const Bytes* packets, FloorRecord* out) {
    int ok = 0;
    for (int i = 0; i < kCounted; ++i) ok += floorDecode(packets[i].data(), packets[i].size(), &out[i]);
    return ok;
}

// ---- one round of every row ------------------------------------------------------

struct Figures {
    std::vector<double> idleLib, idlePoll, idleEpoll;
    std::vector<double> poseLib;
    std::vector<double> burstLib, burstRecvfrom, burstRecvmmsg, drainLib;
    std::vector<double> latLib50, latLib99, latFloor50, latFloor99, latEpoll50, latEpoll99;
    std::vector<double> imageLib, imageFloor;
    std::vector<double> insnBurst, insnDrain, insnDecode;
    std::vector<double> renderLib, renderFloor, feedLat50, feedLat99, plainLat50, plainLat99, feedCpu, plainCpu;
    std::string problems;
};

template <typename F>
double nsPerCall(int calls, F&& f) {
    const uint64_t t0 = nowNs();
    for (int i = 0; i < calls; ++i) f();
    return static_cast<double>(nowNs() - t0) / calls;
}

void idleRows(Library& fresh, Library& posed, RawSockets& raw, Figures& fig) {
    bool valid = false;
    s_OrvAccessTrkDataExt rec{};
    fig.idleLib.push_back(nsPerCall(kIdleCalls, [&] { fresh.access.getTrackingDataLatest(&valid, &rec); }));
    pollfd p[5];
    for (int i = 0; i < 5; ++i) p[i] = pollfd{raw.fd[i], POLLIN, 0};
    fig.idlePoll.push_back(nsPerCall(kIdleCalls, [&] { poll(p, 5, 0); }));
    epoll_event events[5];
    fig.idleEpoll.push_back(nsPerCall(kIdleCalls, [&] { epoll_wait(raw.epoll, events, 5, 0); }));
    fig.poseLib.push_back(nsPerCall(kIdleCalls, [&] { posed.access.getTrackingDataLatest(&valid, &rec); }));
}

void burstRows(Library& lib, RawSockets& raw, const Bytes& pkt, Figures& fig) {
    orvtest::UdpSender sender;
    const auto burst = [&](int port) {
        for (int i = 0; i < kBurst; ++i) sender.send(port, pkt);
        settle();
    };
    // The library: one serviceUdp drains the burst into the queue.
    burst(lib.port[orvtest::kCore]);
    uint64_t t0 = nowNs();
    lib.access.serviceUdp(false);
    fig.burstLib.push_back(static_cast<double>(nowNs() - t0) / kBurst);
    if (const int n = lib.drain(); n != kBurst)
        fig.problems += "burst: " + std::to_string(n) + " of " + std::to_string(kBurst) + " arrived\n";

    // The same burst drained record by record.
    burst(lib.port[orvtest::kCore]);
    t0 = nowNs();
    const int drained = lib.drain();
    fig.drainLib.push_back(static_cast<double>(nowNs() - t0) / kBurst);
    if (drained != kBurst)
        fig.problems += "drain: " + std::to_string(drained) + " of " + std::to_string(kBurst) + " arrived\n";

    // The floor: plain recvfrom until the socket is empty, then recvmmsg by 32.
    const int fd = raw.fd[orvtest::kCore];
    static unsigned char buf[32][2048];
    burst(raw.port[orvtest::kCore]);
    t0 = nowNs();
    int n = 0;
    while (recvfrom(fd, buf[0], sizeof buf[0], 0, nullptr, nullptr) > 0) ++n;
    fig.burstRecvfrom.push_back(static_cast<double>(nowNs() - t0) / kBurst);
    if (n != kBurst) fig.problems += "recvfrom floor: " + std::to_string(n) + " arrived\n";

    burst(raw.port[orvtest::kCore]);
    mmsghdr msgs[32];
    iovec iov[32];
    t0 = nowNs();
    n = 0;
    for (;;) {
        for (int i = 0; i < 32; ++i) {
            iov[i] = iovec{buf[i], sizeof buf[i]};
            msgs[i] = mmsghdr{};
            msgs[i].msg_hdr.msg_iov = &iov[i];
            msgs[i].msg_hdr.msg_iovlen = 1;
        }
        const int got = recvmmsg(fd, msgs, 32, MSG_DONTWAIT, nullptr);
        if (got <= 0) break;
        n += got;
    }
    fig.burstRecvmmsg.push_back(static_cast<double>(nowNs() - t0) / kBurst);
    if (n != kBurst) fig.problems += "recvmmsg floor: " + std::to_string(n) + " arrived\n";
}

// One-way latency at 1 kHz: a second thread stamps the host clock and sends
// one tracking datagram a millisecond; the receiver spins on its getter (or
// on recvfrom) and takes its own clock when the new tag shows.
struct Paced {
    // Tags base + 1 .. base + kLatencySamples, so that no round takes an
    // earlier round's record for its own.
    uint32_t base;
    std::vector<std::atomic<uint64_t>> stamps;
    explicit Paced(uint32_t first) : base(first), stamps(kLatencySamples + 1) {}
    // The sending time of a tag of this round, 0 for any other.
    uint64_t stamp(uint32_t tag) const {
        if (tag <= base || tag > base + kLatencySamples) return 0;
        return stamps[tag - base].load(std::memory_order_acquire);
    }
    void run(int port) {
        orvtest::UdpSender sender;
        timespec next{};
        clock_gettime(CLOCK_MONOTONIC, &next);
        for (uint32_t i = 1; i <= kLatencySamples; ++i) {
            next.tv_nsec += 1000000;
            if (next.tv_nsec >= 1000000000) {
                next.tv_nsec -= 1000000000;
                ++next.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            const Bytes pkt = trackingPacket(base + i);
            stamps[i].store(nowNs(), std::memory_order_release);
            sender.send(port, pkt);
        }
    }
};

void latencyRows(Library& lib, RawSockets& raw, uint32_t base, Figures& fig) {
    const auto finish = [&](std::vector<double>& us, std::vector<double>& p50, std::vector<double>& p99,
                            const char* who) {
        p50.push_back(percentile(us, 0.50));
        p99.push_back(percentile(us, 0.99));
        // A spinning getter that is descheduled for a while finds several
        // new records at once and sees the newest only.
        if (us.size() < kLatencySamples / 2)
            fig.problems += std::string(who) + " latency: " + std::to_string(us.size()) + " samples\n";
    };
    const uint32_t end = base + kLatencySamples;
    const uint64_t window = (kLatencySamples + 500) * 1000000ull;
    {
        Paced paced(base);
        std::vector<double> us;
        us.reserve(kLatencySamples);
        std::thread sender([&] { paced.run(lib.port[orvtest::kCore]); });
        bool valid = false;
        s_OrvAccessTrkDataExt rec{};
        uint32_t last = base;
        for (const uint64_t deadline = nowNs() + window; last < end && nowNs() < deadline;) {
            lib.access.getTrackingDataLatest(&valid, &rec);
            if (!valid || rec.packetTag <= last) continue;
            const uint64_t now = nowNs(), sent = paced.stamp(rec.packetTag);
            if (sent == 0) continue;
            last = rec.packetTag;
            us.push_back(static_cast<double>(now - sent) / 1000);
        }
        sender.join();
        lib.drain();
        finish(us, fig.latLib50, fig.latLib99, "library");
    }
    // The floor: plain reads of the orvCore socket, spinning; with a ready
    // set, each read only after epoll_wait on the five sockets names one, as
    // the library waits: what readiness by epoll costs on its own.
    const auto floor = [&](uint32_t first, bool throughReadySet, std::vector<double>& p50,
                           std::vector<double>& p99, const char* who) {
        Paced paced(first);
        std::vector<double> us;
        us.reserve(kLatencySamples);
        std::thread sender([&] { paced.run(raw.port[orvtest::kCore]); });
        unsigned char buf[2048];
        epoll_event events[5];
        uint32_t last = first;
        for (const uint64_t deadline = nowNs() + window; last < first + kLatencySamples && nowNs() < deadline;) {
            if (throughReadySet && epoll_wait(raw.epoll, events, 5, 0) <= 0) continue;
            const ssize_t n = recvfrom(raw.fd[orvtest::kCore], buf, sizeof buf, 0, nullptr, nullptr);
            if (n < 7) continue;
            const uint64_t now = nowNs(), sent = paced.stamp(OrvosiUtil::word32(buf + 3));
            if (sent == 0) continue;
            last = OrvosiUtil::word32(buf + 3);
            us.push_back(static_cast<double>(now - sent) / 1000);
        }
        sender.join();
        finish(us, p50, p99, who);
    };
    floor(base, false, fig.latFloor50, fig.latFloor99, "floor");
    floor(base + kLatencySamples, true, fig.latEpoll50, fig.latEpoll99, "epoll floor");
}

// The image: 60 pieces waiting, received and copied out by getImage; the
// floor receives each piece with recv and copies its pixels to their place.
void imageRows(Library& lib, RawSockets& raw, const std::vector<Bytes>& pieces, Figures& fig) {
    orvtest::UdpSender sender;
    static std::vector<unsigned char> out(kImageSize);
    for (const Bytes& p : pieces) sender.send(lib.port[orvtest::kImage], p);
    settle();
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int seq = 0;
    uint64_t t0 = nowNs();
    lib.access.getImage(&percent, &format, &seq, out.data(), out.size());
    double seconds = static_cast<double>(nowNs() - t0) / 1e9;
    if (percent == 100)
        fig.imageLib.push_back(kImageSize / seconds / 1e6);
    else
        fig.problems += "image: " + std::to_string(percent) + "% arrived\n";

    for (const Bytes& p : pieces) sender.send(raw.port[orvtest::kImage], p);
    settle();
    static unsigned char buf[65536];
    size_t got = 0;
    t0 = nowNs();
    for (size_t i = 0; i < kPieces; ++i) {
        const ssize_t n = recv(raw.fd[orvtest::kImage], buf, sizeof buf, 0);
        if (n < static_cast<ssize_t>(ORVWIRE_IMAGE_OVERHEAD)) break;
        const size_t at = OrvosiUtil::word24(buf + 8);
        const size_t pixels = static_cast<size_t>(n) - ORVWIRE_IMAGE_OVERHEAD;
        if (at + pixels > kImageSize) break;
        std::memcpy(out.data() + at, buf + ORVWIRE_IMAGE_PIXELS_AT, pixels);
        got += pixels;
    }
    seconds = static_cast<double>(nowNs() - t0) / 1e9;
    if (got == kImageSize)
        fig.imageFloor.push_back(kImageSize / seconds / 1e6);
    else
        fig.problems += "image floor: " + std::to_string(got) + " bytes arrived\n";
}

void instructionRows(Library& lib, InstructionCounter& counter, const std::vector<Bytes>& packets,
                     Figures& fig) {
    if (!counter.ok()) return;
    orvtest::UdpSender sender;
    for (const Bytes& p : packets) sender.send(lib.port[orvtest::kCore], p);
    settle();
    counter.start();
    orvfloor_library_burst(lib.access);
    fig.insnBurst.push_back(static_cast<double>(counter.stop()) / kCounted);
    counter.start();
    const int n = orvfloor_library_drain(lib.access);
    fig.insnDrain.push_back(static_cast<double>(counter.stop()) / kCounted);
    if (n != kCounted) fig.problems += "counted drain: " + std::to_string(n) + " records\n";
    static std::vector<FloorRecord> out(kCounted);
    counter.start();
    orvfloor_floor_decode(packets.data(), out.data());
    fig.insnDecode.push_back(static_cast<double>(counter.stop()) / kCounted);
}

// ---- the pose feed -------------------------------------------------------------------

// What a render thread reads through a sequence lock: the newest record and
// the settings its adjustment needs, the same 600 bytes the feed publishes.
struct PlainPose {
    s_OrvAccessTrkDataExt rec;
    uint64_t sequence, receivedUs, nat, imuBiasNs;
    int64_t ctrl;
    double predictionS, ref[9], tip[3];
    float imuDtS;
    uint32_t neutral;
};
static_assert(sizeof(PlainPose) == 600, "the bytes the feed publishes");
constexpr size_t kPlainWords = sizeof(PlainPose) / 8;

// One copy under one sequence word, written by one thread; the same
// orderings as the feed's (release stores, acquire loads, no fences).
struct PlainSeqlock {
    std::atomic<uint64_t> seq{0};
    std::atomic<uint64_t> words[kPlainWords] = {};
};

void plainPublish(PlainSeqlock* l, const PlainPose* p) {
    uint64_t w[kPlainWords];
    std::memcpy(w, p, sizeof w);
    const uint64_t s = l->seq.load(std::memory_order_relaxed);
    l->seq.store(s + 1, std::memory_order_relaxed);
    for (size_t i = 0; i < kPlainWords; ++i) l->words[i].store(w[i], std::memory_order_release);
    l->seq.store(s + 2, std::memory_order_release);
}

void plainRead(const PlainSeqlock* l, PlainPose* p) {
    uint64_t w[kPlainWords];
    for (;;) {
        const uint64_t s = l->seq.load(std::memory_order_acquire);
        if (s & 1) continue;
        for (size_t i = 0; i < kPlainWords; ++i) w[i] = l->words[i].load(std::memory_order_acquire);
        if (l->seq.load(std::memory_order_relaxed) == s) break;
    }
    std::memcpy(p, w, sizeof w);
}

// The adjustment maths in plain C: Rodrigues' rotation of both attitudes by
// rate * dt, the lever arm along the turned attitude, the boresight from the
// right on the attitudes and from the left on five vectors, Euler angles.
void plainRotate(double dt, const float rate[3], float cbn[9]) {
    const double w[3] = {rate[0] * dt, rate[1] * dt, rate[2] * dt};
    const double q = w[0] * w[0] + w[1] * w[1] + w[2] * w[2];
    if (q < 1e-12) return;
    const double t = sqrt(q), a = sin(t) / t, b = (1.0 - cos(t)) / q;
    const double r[9] = {1 + b * (w[0] * w[0] - q), -a * w[2] + b * w[0] * w[1], a * w[1] + b * w[0] * w[2],
                         a * w[2] + b * w[1] * w[0], 1 + b * (w[1] * w[1] - q), -a * w[0] + b * w[1] * w[2],
                         -a * w[1] + b * w[2] * w[0], a * w[0] + b * w[2] * w[1], 1 + b * (w[2] * w[2] - q)};
    double c[9];
    for (int i = 0; i < 9; ++i) c[i] = cbn[i];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            cbn[i * 3 + j] = (float)(c[i * 3] * r[j] + c[i * 3 + 1] * r[3 + j] + c[i * 3 + 2] * r[6 + j]);
}

void plainBoresightM(const double ref[9], float m[9]) {
    double c[9];
    for (int i = 0; i < 9; ++i) c[i] = m[i];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            m[i * 3 + j] = (float)(c[i * 3] * ref[j * 3] + c[i * 3 + 1] * ref[j * 3 + 1] + c[i * 3 + 2] * ref[j * 3 + 2]);
}

void plainBoresightV(const double ref[9], float v[3]) {
    const double x = v[0], y = v[1], z = v[2];
    for (int i = 0; i < 3; ++i) v[i] = (float)(ref[i * 3] * x + ref[i * 3 + 1] * y + ref[i * 3 + 2] * z);
}

// A render thread's predicted pose, plain: the read, the clock, the age from
// the record's time stamp plus the interval within its bounds, the adjustment.
extern "C" __attribute__((noinline)) void orvfloor_floor_predict(const PlainSeqlock* l, uint64_t tdispUs,
                                                               PlainPose* p, s_OrvAccessTrkDataExt* out) {
    plainRead(l, p);
    timeval tv;
    gettimeofday(&tv, nullptr);  // the pose's age, which the feed reports too
    p->receivedUs = (uint64_t)tv.tv_sec * 1000000u + (uint64_t)tv.tv_usec - p->receivedUs;
    double total = (tdispUs > p->rec.poseTime ? (double)(tdispUs - p->rec.poseTime) : 0.0) / 1e6 + p->predictionS;
    if (total < -0.005) total = -0.005;
    if (total > 0.2) total = 0.2;
    s_OrvAccessTrkDataExt* r = out;
    *r = p->rec;
    plainRotate(total, r->angularRate, r->cbn[0]);
    plainRotate(total, r->angularRate, r->cbn2[0]);
    for (int i = 0; i < 3; ++i)
        r->position[i] = (float)((double)r->position[i] + r->cbn[i][0] * p->tip[0] + (double)r->cbn[i][1] * p->tip[1] +
                                 (double)r->cbn[i][2] * p->tip[2]);
    plainBoresightM(p->ref, r->cbn[0]);
    plainBoresightM(p->ref, r->cbn2[0]);
    for (float* v : {r->angularRate, r->vecJ, r->vecA, r->vecL, r->vecM}) plainBoresightV(p->ref, v);
    const double s = r->cbn[2][0] > 1.0f ? 1.0 : r->cbn[2][0] < -1.0f ? -1.0 : r->cbn[2][0];
    r->euler[0] = (float)atan2(r->cbn[2][1], r->cbn[2][2]);
    r->euler[1] = (float)-asin(s);
    r->euler[2] = (float)atan2(r->cbn[1][0], r->cbn[0][0]);
}

extern "C" __attribute__((noinline)) bool orvfloor_library_predict(OrvPoseFeed::Reader& reader, uint64_t tdispUs,
                                                                 s_OrvPoseFeedPose* pose) {
    return reader.getAtTime(tdispUs, pose);
}

// A feed on the pose a tracker would send, with time stamps for the age, an
// interval, a tip offset and a boresight: every step of the adjustment works.
class FeedLibrary {
public:
    FeedLibrary() {
        char dir[] = "/tmp/orvfloor-XXXXXX";
        if (mkdtemp(dir) != nullptr) dir_ = dir;
        for (int& p : port) p = orvtest::findFreePort();
        std::ofstream(dir_ + "/feed.ini") << orvtest::receiverIni(
            port, "[Processing]\nvirtualSyncCtrl = 2\npredictionS = 0.01\nTipOffsetXM = 0.1\n"
                  "BoresightRefYawRad = 0.2\n");
        feed.reset(new OrvPoseFeed(dir_ + "/feed.ini"));
    }
    ~FeedLibrary() {
        feed.reset();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    FeedLibrary(const FeedLibrary&) = delete;
    FeedLibrary& operator=(const FeedLibrary&) = delete;

    std::unique_ptr<OrvPoseFeed> feed;
    int port[5] = {};

private:
    std::string dir_;
};

// The plain floor of the feed: a thread blocking in recvfrom on one socket
// that publishes each datagram's record through a sequence lock.
class PlainFeed {
public:
    explicit PlainFeed(int fd) : fd_(fd) {
        pose_.rec.cbn[0][0] = pose_.rec.cbn[1][1] = pose_.rec.cbn[2][2] = 1;
        thread_ = std::thread([this] { run(); });
    }
    ~PlainFeed() {
        stop_ = true;
        orvtest::UdpSender().send(port_, "x", 1);  // ends the blocking read
        thread_.join();
    }
    void setPort(int port) { port_ = port; }
    const PlainSeqlock& lock() const { return lock_; }

private:
    void run() {
        const int flags = fcntl(fd_, F_GETFL);
        fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK);
        unsigned char buf[2048];
        while (!stop_) {
            const ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, nullptr, nullptr);
            if (n < 7) continue;
            pose_.rec.packetTag = OrvosiUtil::word32(buf + 3);
            pose_.sequence++;
            plainPublish(&lock_, &pose_);
        }
        fcntl(fd_, F_SETFL, flags);
    }
    int fd_;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    PlainPose pose_{};
    PlainSeqlock lock_;
    std::thread thread_;
};

// CPU time of the whole process, ns (user and system).
uint64_t processCpuNs() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

uint64_t threadCpuNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

void feedRows(FeedLibrary& lib, RawSockets& raw, uint32_t base, Figures& fig) {
    OrvPoseFeed& feed = *lib.feed;
    // The render path: the newest pose predicted to a display time.
    orvtest::UdpSender().send(lib.port[orvtest::kCore], trackingPacket(base));
    for (s_OrvPoseFeedPose p{}; !feed.getLatest(&p) || p.data.packetTag != base;) std::this_thread::yield();
    OrvPoseFeed::Reader reader(feed);
    s_OrvPoseFeedPose pose{};
    uint64_t tdisp = OrvosiUtil::getTimeSysUs();
    fig.renderLib.push_back(nsPerCall(kIdleCalls, [&] { orvfloor_library_predict(reader, tdisp += 11, &pose); }));
    PlainSeqlock plain;
    PlainPose scratch{};
    scratch.rec = pose.data;
    scratch.predictionS = 0.01;
    scratch.tip[0] = 0.1;
    const double c = std::cos(0.2), s = std::sin(0.2);
    const double ref[9] = {c, -s, 0, s, c, 0, 0, 0, 1};
    std::memcpy(scratch.ref, ref, sizeof ref);
    plainPublish(&plain, &scratch);
    s_OrvAccessTrkDataExt out{};
    fig.renderFloor.push_back(
        nsPerCall(kIdleCalls, [&] { orvfloor_floor_predict(&plain, tdisp += 11, &scratch, &out); }));

    // Sent to visible: a reader spins on the published pose.
    const auto latency = [&](uint32_t first, int port, auto&& newestTag, std::vector<double>& p50,
                             std::vector<double>& p99, const char* who) {
        Paced paced(first);
        std::vector<double> us;
        us.reserve(kLatencySamples);
        std::thread sender([&] { paced.run(port); });
        uint32_t last = first;
        for (const uint64_t deadline = nowNs() + (kLatencySamples + 500) * 1000000ull;
             last < first + kLatencySamples && nowNs() < deadline;) {
            const uint32_t tag = newestTag();
            if (tag <= last) continue;
            const uint64_t now = nowNs(), sent = paced.stamp(tag);
            last = tag;
            if (sent != 0) us.push_back(static_cast<double>(now - sent) / 1000);
        }
        sender.join();
        p50.push_back(percentile(us, 0.50));
        p99.push_back(percentile(us, 0.99));
        if (us.size() < kLatencySamples / 2)
            fig.problems += std::string(who) + " latency: " + std::to_string(us.size()) + " samples\n";
    };
    latency(base, lib.port[orvtest::kCore],
            [&] {
                s_OrvPoseFeedPose p;
                return feed.getLatest(&p) ? p.data.packetTag : 0u;
            },
            fig.feedLat50, fig.feedLat99, "feed");
    // CPU of the service thread per pose at 1 kHz, the reader asleep: all
    // the process spends but the sender's own time.
    const auto cpuPerPose = [&](uint32_t first, int port) {
        Paced paced(first);
        uint64_t senderCpu = 0;
        const uint64_t before = processCpuNs();
        std::thread sender([&] {
            const uint64_t t0 = threadCpuNs();
            paced.run(port);
            senderCpu = threadCpuNs() - t0;
        });
        sender.join();
        return static_cast<double>(processCpuNs() - before - senderCpu) / kLatencySamples;
    };
    fig.feedCpu.push_back(cpuPerPose(base + kLatencySamples, lib.port[orvtest::kCore]));

    const int fd = raw.fd[orvtest::kCore];
    while (recvfrom(fd, nullptr, 0, MSG_DONTWAIT, nullptr, nullptr) >= 0) {
    }
    PlainFeed plainFeed(fd);
    plainFeed.setPort(raw.port[orvtest::kCore]);
    latency(base + 2 * kLatencySamples, raw.port[orvtest::kCore],
            [&] {
                PlainPose p;
                plainRead(&plainFeed.lock(), &p);
                return p.rec.packetTag;
            },
            fig.plainLat50, fig.plainLat99, "plain feed");
    fig.plainCpu.push_back(cpuPerPose(base + 3 * kLatencySamples, raw.port[orvtest::kCore]));
}

// ---- the table ---------------------------------------------------------------------

std::string fixed(double v, int decimals) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, v);
    return text;
}

void row(const std::string& path, const std::string& library, const std::string& floor, double ratio,
         const char* goal) {
    std::printf("| %s | %s | %s | %s | %s |\n", path.c_str(), library.c_str(), floor.c_str(),
                ratio > 0 ? fixed(ratio, 2).c_str() : "-", goal);
}

void printTable(const Figures& f, int rounds, const InstructionCounter& counter) {
    const auto ns = [](double v) { return fixed(v, 0) + " ns"; };
    const auto us = [](double v) { return fixed(v, 1) + " us"; };
    const auto mbs = [](double v) { return fixed(v, 0) + " MB/s"; };
    const double poll = median(f.idlePoll);
    std::printf("liborvaccess receive path against the floor: %d rounds interleaved, medians\n\n", rounds);
    std::printf("| path | library | floor | ratio | goal |\n|---|---|---|---|---|\n");
    row("idle `getTrackingDataLatest`, nothing received yet", ns(median(f.idleLib)),
        "one `poll` over 5 sockets " + ns(poll), median(f.idleLib) / poll, "<= 1.0");
    row("(the same floor as one `epoll_wait` on the 5)", "", ns(median(f.idleEpoll)),
        median(f.idleLib) / median(f.idleEpoll), "");
    row("the same getter after a pose has arrived, nothing new", ns(median(f.poseLib)), ns(poll),
        median(f.poseLib) / poll, "<= 1.0");
    row("burst of " + std::to_string(kBurst) + " tracking datagrams (332 B), `serviceUdp`, per datagram",
        ns(median(f.burstLib)),
        "`recvfrom` drain " + ns(median(f.burstRecvfrom)) + "; `recvmmsg` x32 " + ns(median(f.burstRecvmmsg)),
        median(f.burstLib) / median(f.burstRecvfrom), "<= 1.0 of `recvfrom`");
    row("(the same against `recvmmsg` x32)", "", "", median(f.burstLib) / median(f.burstRecvmmsg), "aim");
    row("the same burst drained with `getTrackingData`, per record", ns(median(f.drainLib)),
        ns(median(f.burstRecvfrom)), median(f.drainLib) / median(f.burstRecvfrom), "<= 1.3");
    row("one-way latency at 1 kHz, p50", us(median(f.latLib50)), "busy `recvfrom` " + us(median(f.latFloor50)),
        median(f.latLib50) / median(f.latFloor50), "<= 1.10");
    row("one-way latency at 1 kHz, p99", us(median(f.latLib99)), us(median(f.latFloor99)),
        median(f.latLib99) / median(f.latFloor99), "<= 1.25");
    row("(the latency floor through `epoll_wait` on the 5, p50 / p99)", "",
        us(median(f.latEpoll50)) + " / " + us(median(f.latEpoll99)), median(f.latLib50) / median(f.latEpoll50),
        "");
    // Throughput: the ratio is library over floor too, higher is better.
    row("3.7 MB image, 60 pieces, `getImage`", mbs(median(f.imageLib)), "`recv` + copy " + mbs(median(f.imageFloor)),
        median(f.imageLib) / median(f.imageFloor), ">= 0.85");
    row("render thread: `OrvPoseFeed::Reader::getAtTime`, predicted and adjusted", ns(median(f.renderLib)),
        "sequence-lock read of the same 600 B + the same maths in plain C " + ns(median(f.renderFloor)),
        median(f.renderLib) / median(f.renderFloor), "<= 1.2");
    row("datagram sent to visible in the feed at 1 kHz, p50", us(median(f.feedLat50)),
        "thread blocking in `recvfrom`, sequence lock " + us(median(f.plainLat50)),
        median(f.feedLat50) / median(f.plainLat50), "<= 1.1");
    row("the same, p99", us(median(f.feedLat99)), us(median(f.plainLat99)),
        median(f.feedLat99) / median(f.plainLat99), "<= 1.25");
    row("CPU of the service thread per pose at 1 kHz", us(median(f.feedCpu) / 1000),
        us(median(f.plainCpu) / 1000), median(f.feedCpu) / median(f.plainCpu), "");
    if (counter.ok()) {
        row("user instructions per tracking datagram (`serviceUdp` burst of 1000)", fixed(median(f.insnBurst), 0),
            "check + decode " + fixed(median(f.insnDecode), 0), median(f.insnBurst) / median(f.insnDecode),
            "<= 600");
        row("user instructions per record, `getTrackingData`, neutral adjustment", fixed(median(f.insnDrain), 0),
            "-", 0, "<= 400");
    } else {
        std::printf("\nInstruction counts: not available here (perf_event_open: %s); "
                    "count them with callgrind and `orvfloor --instructions` (README).\n",
                    counter.why().c_str());
    }
    if (!f.problems.empty()) std::printf("\nWhile measuring:\n%s", f.problems.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    // The sender list, where given, comes last: the library then checks
    // every datagram's sender, as an application with the list would.
    std::string senders;
    if (argc > 2 && std::strcmp(argv[argc - 2], "--allowed-senders") == 0) {
        senders = "udpAllowedSenders = " + std::string(argv[argc - 1]) + "\n";
        argc -= 2;
    }
    const bool instructionsOnly = argc > 1 && std::strcmp(argv[1], "--instructions") == 0;
    const int rounds = argc == 2 && !instructionsOnly ? std::atoi(argv[1]) : 5;
    if (argc > 2 || rounds < 1) {
        std::fprintf(stderr,
                     "usage: orvfloor [ROUNDS] [--allowed-senders LIST]   the receive path against the floor, "
                     "ROUNDS (5) rounds\n"
                     "       orvfloor --instructions [--allowed-senders LIST]  each counted workload once, for "
                     "callgrind\n");
        return 2;
    }

    Library fresh(senders), lib(senders);
    RawSockets raw;
    if (!fresh.ok || !lib.ok) {
        std::fprintf(stderr, "orvfloor: open failed: %s\n", lib.access.getLastError().c_str());
        return 1;
    }
    FeedLibrary feedLib;
    if (!feedLib.feed->isRunning()) {
        std::fprintf(stderr, "orvfloor: the pose feed did not start: %s\n", feedLib.feed->getLastError().c_str());
        return 1;
    }
    std::vector<Bytes> counted;
    for (int i = 0; i < kCounted; ++i) counted.push_back(trackingPacket(static_cast<uint32_t>(i + 1)));

    if (instructionsOnly) {
        // Under callgrind: run each workload once, after a warm-up that
        // grows the queues and touches the slots.
        orvtest::UdpSender sender;
        for (int pass = 0; pass < 2; ++pass) {
            for (const Bytes& p : counted) sender.send(lib.port[orvtest::kCore], p);
            settle();
            int n = 0;
            if (pass == 0) {
                lib.access.serviceUdp(false);
                n = lib.drain();
            } else {
                orvfloor_library_burst(lib.access);
                n = orvfloor_library_drain(lib.access);
            }
            if (n != kCounted) std::fprintf(stderr, "orvfloor: %d of %d records arrived\n", n, kCounted);
        }
        std::vector<FloorRecord> out(kCounted);
        orvfloor_floor_decode(counted.data(), out.data());
        std::printf("each orvfloor_* workload handled %d datagrams or records\n", kCounted);
        return 0;
    }

    const Bytes pose = trackingPacket(1);
    orvtest::UdpSender sender;
    sender.send(lib.port[orvtest::kCore], pose);
    settle();
    lib.drain();  // a pose has arrived; the latest-record slot holds it

    Bytes image(kImageSize);
    for (size_t i = 0; i < kImageSize; ++i) image[i] = static_cast<unsigned char>(i * 131 + (i >> 12));
    std::vector<Bytes> pieces;
    for (size_t k = 0; k < kPieces; ++k) pieces.push_back(imagePiece(51, k * kPiecePixels, image));

    InstructionCounter counter;
    // One round unrecorded: first touches of the image buffers (two of
    // them, filled in turn), the queues' growth and the socket buffers'
    // pages are not what the table is about.
    Figures warmUp;
    idleRows(fresh, lib, raw, warmUp);
    burstRows(lib, raw, pose, warmUp);
    imageRows(lib, raw, pieces, warmUp);
    imageRows(lib, raw, pieces, warmUp);
    Figures fig;
    for (int r = 0; r < rounds; ++r) {
        idleRows(fresh, lib, raw, fig);
        burstRows(lib, raw, pose, fig);
        imageRows(lib, raw, pieces, fig);
        instructionRows(lib, counter, counted, fig);
        latencyRows(lib, raw, static_cast<uint32_t>(r + 1) * 10000000u, fig);
        feedRows(feedLib, raw, static_cast<uint32_t>(r + 1) * 10000000u + 5000000u, fig);
    }
    printTable(fig, rounds, counter);
    return 0;
}
