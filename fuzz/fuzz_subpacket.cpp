// Subpackets of every family through handle(), as the meta and tracking
// parsers hand them on: the bytes from the subpacket's start to the end of
// its datagram, reaching as far as the receive buffer would let them. Each
// sits in an allocation of exactly its real bytes.
//
// Input: a setup block (FuzzState.hpp), then records, one subpacket each, so
// that sequences (target lists spread over subpackets, chip packet ids)
// build up. Record control: bits 0-2 the family (modulo six); bit 3 frames
// the subpacket so that it passes its check; bits 4-7 how far it reaches
// past its real bytes, in steps of 4096 (0: not at all).
#include "access/receive/Dispatch.hpp"
#include "FuzzState.hpp"

namespace {

constexpr const orvwire::Family* kFamilies[] = {&orvwire::kOptical, &orvwire::kImu,  &orvwire::kPlatPose,
                                                &orvwire::kTarget,  &orvwire::kDiag, &orvwire::kGps};
constexpr unsigned char kFrameBit = 0x08;
constexpr size_t kReachStep = 4096;

// A meta packet's sample interval, which IMU records are divided by.
constexpr float kIntervalS = 0.001f;

void frameChip(orvfuzz::Exact& b) {
    if (b.size() < 2) return;
    b[0] = ORVWIRE_CHIP_SYNC;
    const unsigned int length = OrvosiUtil::GetBvPacketLength(b[1]);
    if (length != 0 && length <= b.size())
        b[length - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), length - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orvfuzz::replay(data, size, [](OrvAccess::State& s, const orvfuzz::Record& r) {
        s.imuDt = kIntervalS;
        const orvwire::Family& family = *kFamilies[(r.control & 0x07) % std::size(kFamilies)];
        orvfuzz::Exact sub(r.data, r.size);
        if (r.control & kFrameBit) {
            if (family.check == orvwire::Check::chip)
                frameChip(sub);
            else
                orvfuzz::frame(sub.data(), sub.size(), family.startByte);
        }
        const size_t reach = std::min(sub.size() + (r.control >> 4) * kReachStep, kReceiveBufferSize);
        orvwire::handle(s, family, OrvosiBytes{sub.data(), sub.size(), std::max(reach, sub.size())});
    });
    return 0;
}
