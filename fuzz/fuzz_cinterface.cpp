// The C interface with arbitrary arguments: any int where an enumeration is
// asked for (passed from C, fuzz/capi.c), any float, length, code, selector
// and time, packets handed in as the application would, datagrams on the
// object's own ports, and opening and closing in between. Buffers are
// allocations of exactly the length the call is told.
//
// Input: one byte (bit 0: every diagnostic line and the display-time
// prediction on; bit 1: start closed), then records, one call each. Record
// control modulo 16 picks the call; the fields follow in the record (see
// call()). A fresh handle serves every input.
#include <sys/socket.h>

#include <chrono>
#include <cstring>

#include "FuzzSupport.hpp"
#include "capi.h"
#include "orvaccess/orvaccess.h"
#include "support/Loopback.hpp"

namespace {

using orvfuzz::Bytes;

constexpr unsigned char kFrameBit = 0x10;
constexpr size_t kMaxText = 300;
constexpr size_t kMaxImageCapacity = 0x100000 + 16;
constexpr size_t kMaxUdpPayload = 65507;

struct Harness {
    int ports[5] = {};
    int uplinkSink = -1;  // where the uplink goes: a socket of ours that nobody reads
    std::string ini[2];
    std::string localFile;
    orvtest::UdpSender sender;
};

Harness* harness = nullptr;

// The packet an application hands in holds at least as many bytes as its
// length word says; any fewer from the input are zeros.
void handIn(const Bytes& input, unsigned char start, bool framed,
            void (*call)(OrvAccess*, const unsigned char*), OrvAccess* h) {
    Bytes packet = input;
    if (packet.size() < ORVWIRE_HEADER_SIZE) packet.resize(ORVWIRE_HEADER_SIZE, 0);
    if (framed) orvfuzz::frame(packet.data(), packet.size(), start);
    const size_t length = OrvosiUtil::word16(&packet[1]);
    if (packet.size() < length) packet.resize(length, 0);
    orvfuzz::Exact exact(packet.data(), packet.size());
    call(h, exact.data());
}

// The delivered flag of every getter ends up exactly 0 or 1, whatever it held.
template <typename F>
void delivering(F&& call) {
    int delivered = 0x5A5A;
    call(&delivered);
    orvfuzz::require(delivered == 0 || delivered == 1, "the delivered flag is 0 or 1");
}

// A text goes into exactly len bytes and ends in a zero there.
template <typename F>
void text(size_t len, bool nullBuffer, F&& call) {
    if (nullBuffer && len == 0) {
        orvfuzz::require(call(nullptr, 0) == nullptr, "no buffer, nothing written");
        return;
    }
    std::unique_ptr<char[]> buf(new char[len]);
    char* out = call(buf.get(), len);
    orvfuzz::require(out == buf.get(), "a text comes back in the caller's buffer");
    if (len > 0) orvfuzz::require(buf[len - 1] == '\0', "a text ends in a zero within its length");
}

// A datagram on one of the object's ports; the next getter services it.
void sendDatagram(unsigned char port, bool framed, Bytes datagram) {
    static constexpr unsigned char kStart[5] = {ORVWIRE_START_META, ORVWIRE_START_IMAGE, 0, 0,
                                                ORVWIRE_START_NFT};
    const int which = port % 5;
    if (datagram.empty() || datagram.size() > kMaxUdpPayload) return;
    if (framed)
        orvfuzz::frame(datagram.data(), datagram.size(), kStart[which] != 0 ? kStart[which] : datagram[0]);
    harness->sender.send(harness->ports[which], datagram);
}

void call(OrvAccess* h, const orvfuzz::Record& r) {
    orvfuzz::Fields f(r);
    const bool framed = (r.control & kFrameBit) != 0;
    switch (r.control % 16) {
        case 0:
            handIn(f.rest(), ORVWIRE_START_META, framed, OrvAccess_processMetaPkt, h);
            break;
        case 1:
            handIn(f.rest(), ORVWIRE_START_TRACKING, framed, OrvAccess_processTrackingPkt, h);
            break;
        case 2: {
            const unsigned char which = f.u8() % 5;
            const unsigned long timeUs = f.u64();
            s_OrvAccessTrkData shortRec{};
            s_OrvAccessTrkDataExt rec{};
            delivering([&](int* d) {
                switch (which) {
                    case 0:
                        OrvAccess_getTrackingDataLatest(h, d, &shortRec);
                        break;
                    case 1:
                        OrvAccess_getTrackingDataAtTime(h, timeUs, d, &shortRec);
                        break;
                    case 2:
                        OrvAccess_getTrackingDataLatestExt(h, d, &rec);
                        break;
                    case 3:
                        OrvAccess_getTrackingDataExt(h, d, &rec);
                        break;
                    default:
                        OrvAccess_getTrackingDataAtTimeExt(h, timeUs, d, &rec);
                        break;
                }
            });
            break;
        }
        case 3: {
            const unsigned char which = f.u8() % 3;
            float v[3] = {f.f32(), f.f32(), f.f32()};
            if (which == 0) OrvAccess_setPrediction(h, v[0]);
            if (which == 1) OrvAccess_setBoresightRef(h, v);
            if (which == 2) OrvAccess_setTipOffset(h, v);
            break;
        }
        case 4: {
            const unsigned char which = f.u8() % 9;
            const int selector = static_cast<int>(f.u32());
            s_OrvAccessImuData imu{};
            s_OrvAccessAuxData aux{};
            s_OrvAccessDiagData diag{};
            s_OrvAccessGpsData gps{};
            s_OrvAccessPoseRecStats stats{};
            delivering([&](int* d) {
                switch (which) {
                    case 0:
                        orvfuzz_getImuData(h, selector, d, &imu);
                        break;
                    case 1:
                        OrvAccess_getImuDataLatest(h, d, &imu);
                        break;
                    case 2:
                        OrvAccess_getAuxData(h, d, &aux);
                        break;
                    case 3:
                        OrvAccess_getAuxDataLatest(h, d, &aux);
                        break;
                    case 4:
                        OrvAccess_getDiagData(h, d, &diag);
                        break;
                    case 5:
                        OrvAccess_getDiagDataLatest(h, d, &diag);
                        break;
                    case 6:
                        OrvAccess_getGpsData(h, d, &gps);
                        break;
                    case 7:
                        OrvAccess_getPoseRecoveryStats(h, d, &stats);
                        break;
                    default: {
                        unsigned int tag = 0, count = 0;
                        OrvAccess_getTargetCount(h, d, &tag, &count);
                        *d = 0;  // the C function never touches it
                        break;
                    }
                }
            });
            break;
        }
        case 5: {
            const unsigned char which = f.u8() % 5;
            const size_t len = f.u16() % kMaxText;
            const int code = static_cast<int>(f.u32());
            const bool nullBuffer = framed;
            if (which == 0) {
                s_OrvAccessErrorCode e{};
                const unsigned short got = OrvAccess_getErrorCode(h, nullBuffer ? nullptr : &e);
                orvfuzz::require(nullBuffer || got == e.code, "the code returned is the code stored");
            } else if (which == 1) {
                text(len, nullBuffer, [h](char* b, size_t n) { return OrvAccess_getLastError(h, b, n); });
            } else if (which == 2) {
                text(len, nullBuffer, [h](char* b, size_t n) { return OrvAccess_getVersion(h, b, n); });
            } else if (which == 3) {
                text(len, nullBuffer, [h](char* b, size_t n) { return OrvAccess_getBuildDate(h, b, n); });
            } else {
                text(len, nullBuffer,
                     [h, code](char* b, size_t n) { return OrvAccess_getErrorMessage(h, b, n, code); });
            }
            break;
        }
        case 6: {
            const unsigned char which = f.u8() % 3;
            const int format = static_cast<int>(f.u32());
            const unsigned char outputs = f.u8();
            if (which == 0) {
                unsigned long size = 0;
                int width = 0, height = 0, bytesPerPixel = 0;
                orvfuzz_getImageInfo(h, format, (outputs & 1) ? &size : nullptr,
                                     (outputs & 2) ? &width : nullptr, (outputs & 4) ? &height : nullptr,
                                     (outputs & 8) ? &bytesPerPixel : nullptr);
            } else if (which == 1) {
                OrvAccess_getImageBufSize(h);
            } else {
                const size_t capacity = static_cast<unsigned int>(format) % kMaxImageCapacity;
                std::unique_ptr<unsigned char[]> buf(new unsigned char[capacity]);
                int percent = 0, code = 0;
                unsigned int sequenceId = 0;
                orvfuzz_getImage(h, &percent, &code, &sequenceId, buf.get(), capacity);
            }
            break;
        }
        case 7: {
            const unsigned char which = f.u8() % 3;
            const Bytes rest = f.rest();
            if (which == 0) {
                s_OrvAccessPlatPoseData pose{};
                if (!rest.empty()) std::memcpy(&pose, rest.data(), std::min(rest.size(), sizeof pose));
                OrvAccess_setPlatformPoseData(h, pose);
            } else if (which == 1) {
                s_OrvAccessGpsData gps{};
                if (!rest.empty()) std::memcpy(&gps, rest.data(), std::min(rest.size(), sizeof gps));
                OrvAccess_setGpsData(h, &gps);
            } else {
                OrvAccess_sendInputData(h, rest.empty() ? 0 : rest[0]);
            }
            break;
        }
        case 8: {
            const int selector = static_cast<int>(f.u32());
            const size_t capacity = f.u16();
            const unsigned int timeout = f.u32();
            Bytes transmit = f.rest();
            orvfuzz::Exact tx(transmit.data(), transmit.size());
            std::unique_ptr<unsigned char[]> rx(new unsigned char[capacity]);
            unsigned long received = 0;
            orvfuzz_transactImu(h, selector, tx.data(), tx.size(), rx.get(), capacity, timeout, &received);
            break;
        }
        case 9: {
            const int location = static_cast<int>(f.u32());
            Bytes name = f.rest();
            name.push_back(0);
            orvfuzz_getFile(h, reinterpret_cast<const char*>(name.data()), location,
                            harness->localFile.c_str());
            break;
        }
        case 10:
            OrvAccess_setStreaming(h, static_cast<int>(f.u32()));
            OrvAccess_getStreaming(h);
            break;
        case 11: {
            // Any negative time, which must not sleep at all; of positive ones
            // only a few milliseconds, which it really sleeps.
            const int ms = static_cast<int>(f.u32());
            const auto start = std::chrono::steady_clock::now();
            OrvosiUtil_snoozeMs(ms < 0 ? ms : ms % 3);
            if (ms < 0)
                orvfuzz::require(std::chrono::steady_clock::now() - start < std::chrono::seconds(1),
                                 "a negative time is no sleep");
            OrvosiUtil_getTimeMs();
            OrvAccess_getTimeUs(h);
            break;
        }
        case 12:
            if (f.u8() % 2 == 0)
                OrvAccess_open(h);
            else
                OrvAccess_close(h);
            break;
        case 13: {
            s_OrvAccessStatus st{};
            OrvAccess_getStatus(h, &st);
            break;
        }
        case 14: {
            const unsigned char port = f.u8();
            sendDatagram(port, framed, f.rest());
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
    for (int& p : harness->ports) {
        p = orvtest::findFreePort();
        orvfuzz::require(p != 0, "a free port below 32768");
    }
    // The uplink's destination: bound by us, so that nothing else gets it.
    int sinkPort = 0;
    harness->uplinkSink = socket(AF_INET, SOCK_DGRAM, 0);
    for (int tries = 0; tries < 100 && sinkPort == 0; ++tries) {
        const int port = orvtest::findFreePort();
        const sockaddr_in a = orvtest::loopback(port);
        if (port != 0 && bind(harness->uplinkSink, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0)
            sinkPort = port;
    }
    orvfuzz::require(sinkPort != 0, "the uplink has a destination");
    const std::string uplink =
        "tcpOrvRxAddr = 127.0.0.1\nudpOrvRxInputPort = " + std::to_string(sinkPort) + "\n";
    harness->ini[0] = orvfuzz::writeScratchFile("quiet.ini", orvtest::receiverIni(harness->ports, uplink));
    harness->ini[1] = orvfuzz::writeScratchFile(
        "loud.ini", orvtest::receiverIni(harness->ports, uplink + "[General]\nverbosity = 0x7FFFFF\n"
                                                                  "[Processing]\npredictionS = 0.02\n"
                                                                  "virtualSyncCtrl = 7\n"));
    harness->localFile = orvfuzz::scratchDir() + "got.bin";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    OrvAccess* h = OrvAccess_create();
    orvfuzz::require(h != nullptr, "a handle is created");
    OrvAccess_setIniPath(h, harness->ini[data[0] & 1].c_str());
    if ((data[0] & 2) == 0) OrvAccess_open(h);
    orvfuzz::forEachRecord(data + 1, size - 1, [&](const orvfuzz::Record& r) { call(h, r); });
    OrvAccess_destroy(h);
    return 0;
}
