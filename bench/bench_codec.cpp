// The per-datagram byte work: the framing check and the checksum.
#include <benchmark/benchmark.h>

#include <vector>

#include "os/OrvosiUtil.hpp"
#include "diag/OrvUtil.hpp"

namespace {

// A tracking-sized datagram with valid framing.
std::vector<unsigned char> sealedPacket(size_t size) {
    std::vector<unsigned char> p(size);
    for (size_t i = 0; i < size; ++i) p[i] = static_cast<unsigned char>(i * 31 + 7);
    p[0] = ORVWIRE_START_TRACKING;
    OrvosiUtil::lendian(&p[1], size, 2);
    p[size - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(p.data(), size - 1));
    return p;
}

void BM_UdpPktOk(benchmark::State& state) {
    const std::vector<unsigned char> p = sealedPacket(ORVWIRE_TRACKING_SIZE);
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.data());
        benchmark::DoNotOptimize(OrvUtil::udpPktOk(p.data(), p.size(), ORVWIRE_START_TRACKING));
    }
}
BENCHMARK(BM_UdpPktOk);

// A tracking packet, and a 1280 x 960 RGB image.
void BM_Checksum(benchmark::State& state) {
    std::vector<unsigned char> buf(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<unsigned char>(i * 131 + 17);
    for (auto _ : state) {
        benchmark::DoNotOptimize(buf.data());
        benchmark::DoNotOptimize(OrvosiUtil::checksum(buf.data(), buf.size()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Checksum)->Arg(ORVWIRE_TRACKING_SIZE)->Arg(3686400);

}  // namespace
