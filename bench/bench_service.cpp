// The service loop on real sockets: what a getter costs when nothing is
// waiting, and what one datagram costs in a burst. The raw figures (an empty
// recvfrom, one poll over five sockets) are measured alongside for scale.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiUtil.hpp"
#include "support/Loopback.hpp"

namespace {

// An access object with all five receivers open on free ports, no TCP, no
// uplink, no shared memory, and a sender aimed at its ports.
class OpenAccess {
public:
    OpenAccess() {
        char dir[] = "/tmp/orvbench-XXXXXX";
        if (mkdtemp(dir) != nullptr) dir_ = dir;
        for (int& p : port_) p = orvtest::findFreePort();
        const std::string ini = dir_ + "/orvaccess.ini";
        std::ofstream(ini) << orvtest::receiverIni(port_, "udpOrvCoreRcvBufSize = 1048576\n");
        access.setIniPath(ini);
        ok_ = access.open();
    }
    ~OpenAccess() {
        access.close();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    bool ok() const { return ok_; }

    void send(int which, const orvtest::Bytes& b) { sender_.send(port_[which], b); }

    OrvAccess access;

private:
    std::string dir_;
    int port_[5] = {};
    orvtest::UdpSender sender_;
    bool ok_ = false;
};

// A tracking datagram without optical data, sealed or with a checksum one off.
orvtest::Bytes trackingPacket(bool sealed) {
    orvtest::Bytes p = orvtest::sealedFrame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE);
    if (!sealed) p.back() = static_cast<unsigned char>(p.back() + 1);
    return p;
}

void BM_IdleGetStatus(benchmark::State& state) {
    OpenAccess a;
    if (!a.ok()) return state.SkipWithError("open failed");
    s_OrvAccessStatus st{};
    for (auto _ : state) benchmark::DoNotOptimize(a.access.getStatus(&st));
}
BENCHMARK(BM_IdleGetStatus);

void BM_IdleGetTrackingData(benchmark::State& state) {
    OpenAccess a;
    if (!a.ok()) return state.SkipWithError("open failed");
    bool valid = false;
    s_OrvAccessTrkDataExt rec{};
    for (auto _ : state) benchmark::DoNotOptimize(a.access.getTrackingData(&valid, &rec));
}
BENCHMARK(BM_IdleGetTrackingData);

// N tracking datagrams waiting on the orvCore port, drained by one call.
// per_datagram is the call's time divided by N.
void BM_TrackingBurst(benchmark::State& state) {
    OpenAccess a;
    if (!a.ok()) return state.SkipWithError("open failed");
    const int n = static_cast<int>(state.range(0));

    // Bad checksums once: one error code per datagram proves none was lost.
    const std::vector<unsigned char> bad = trackingPacket(false);
    for (int i = 0; i < n; ++i) a.send(orvtest::kCore, bad);
    a.access.serviceUdp(false);
    s_OrvAccessErrorCode code{};
    int codes = 0;
    while (a.access.getErrorCode(&code) == ORVACCESS_ERR_BAD_TRACKING_PKT) ++codes;
    if (codes != n) return state.SkipWithError("datagrams were lost before they were read");

    const std::vector<unsigned char> pkt = trackingPacket(true);
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < n; ++i) a.send(orvtest::kCore, pkt);
        state.ResumeTiming();
        benchmark::DoNotOptimize(a.access.serviceUdp(false));
    }
    state.counters["per_datagram"] =
        benchmark::Counter(n, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_TrackingBurst)->Arg(1)->Arg(16)->Arg(64);

// ---- raw socket figures on the same machine --------------------------------

struct RawSockets {
    int fd[5];
    RawSockets() {
        for (int& f : fd) {
            f = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
            sockaddr_in a = orvtest::loopback(0);
            bind(f, reinterpret_cast<sockaddr*>(&a), sizeof a);
        }
    }
    ~RawSockets() {
        for (int f : fd) ::close(f);
    }
};

void BM_RawEmptyRecvfrom(benchmark::State& state) {
    RawSockets s;
    unsigned char buf[2048];
    for (auto _ : state) benchmark::DoNotOptimize(recvfrom(s.fd[0], buf, sizeof buf, 0, nullptr, nullptr));
}
BENCHMARK(BM_RawEmptyRecvfrom);

void BM_RawPollFive(benchmark::State& state) {
    RawSockets s;
    pollfd p[5];
    for (int i = 0; i < 5; ++i) p[i] = pollfd{s.fd[i], POLLIN, 0};
    for (auto _ : state) benchmark::DoNotOptimize(poll(p, 5, 0));
}
BENCHMARK(BM_RawPollFive);

}  // namespace
