// The TCP command channel to orvRx: framing, registers, streaming, IMU
// transactions. Every command is one frame written at once; its reply is the
// first non-empty read that follows.
#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "wire/CommandCodes.hpp"
#include "access/State.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

constexpr unsigned int kStreamingAckMs = 200;
constexpr char kTcpNotOpen[] = "TCP not open";
constexpr int kImuReplyMs = 1000;
constexpr int kPollStepMs = 5;
constexpr size_t kReplyBufferSize = 100;
// The IMU frame carries each length in one byte, so neither the transmit
// bytes nor the data of a reply can exceed this.
constexpr size_t kImuMaxBytes = 255;

constexpr unsigned int kVerbTcpOut = ORVACCESS_VERB_DUMP_TCP_OUT;
constexpr unsigned int kVerbTcpIn = ORVACCESS_VERB_DUMP_TCP_IN;

// The public time-outs are unsigned; a huge one must not turn negative (which
// would mean "no reply awaited").
int pollTime(unsigned int timeoutMs) { return static_cast<int>(std::min<unsigned int>(timeoutMs, INT_MAX)); }

// Whether the last error is already that text: a length test and one short
// comparison, no string built.
template <size_t N>
bool holds(const std::string& lastError, const char (&text)[N]) {
    return lastError.size() == N - 1 && std::memcmp(lastError.data(), text, N - 1) == 0;
}

}  // namespace

bool OrvAccess::writeOrvRx(unsigned char* frame, size_t length) {
    State& s = *st_;
    // Single-byte acknowledgements go out bare; everything else is sealed.
    if (length > 1) frame[length - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(frame, length - 1));
    // Whatever is still waiting belongs to an earlier exchange.
    flushTcp();
    if (s.cfg.verbosity & kVerbTcpOut) OrvUtil::dumpBuf(frame, length, kVerbTcpOut);
    if (s.tcp.write(reinterpret_cast<const char*>(frame), length)) return true;
    s.fail("Error writing command to orvRx: " + s.tcp.getLastError(), true);
    return false;
}

bool OrvAccess::readOrvRx(unsigned char* buffer, size_t capacity, int timeoutMs, size_t* received) {
    State& s = *st_;
    *received = 0;
    if (timeoutMs < 1) return true;
    // The time-out is counted in sleeps rather than measured, so it runs a
    // little long; only the first non-empty read is the reply.
    for (int elapsed = 0; elapsed < timeoutMs; elapsed += kPollStepMs) {
        OrvosiUtil::snoozeMs(kPollStepMs);
        int n = 0;
        if (!s.tcp.read(reinterpret_cast<char*>(buffer), capacity, &n)) {
            s.fail("Error reading reply from orvRx: " + s.tcp.getLastError(), true);
            return false;
        }
        if (n > 0) {
            *received = static_cast<size_t>(n);
            if (s.cfg.verbosity & kVerbTcpIn) OrvUtil::dumpBuf(buffer, *received, kVerbTcpIn);
            return true;
        }
    }
    return true;
}

void OrvAccess::flushTcp() {
    if (st_->tcpOpen) st_->tcp.flush();
}

void OrvAccess::resetStreamState() {
    State& s = *st_;
    // Records from before the switch would mix with those after it. The
    // diagnostic and pose-recovery queues are kept on purpose.
    s.imu[0].clear();
    s.imu[1].clear();
    s.targets.clear();
    s.tracking.clear();
    s.targetRes.clear();
    s.platPose.clear();
    s.img.restart();
    imuCrsBufReset(&s.imuCrs[0]);
    imuCrsBufReset(&s.imuCrs[1]);
    s.imuDt = 0.0f;
    initVsData();
}

bool OrvAccess::setRegister(unsigned int timeoutMs, unsigned int address, unsigned char value) {
    State& s = *st_;
    if (!s.isOpen || !s.tcpOpen) {
        s.fail(kTcpNotOpen, false);
        return false;
    }
    unsigned char frame[7];
    OrvosiWriter w(frame, sizeof frame);
    w.u8(orvcmd::kFrameStart);
    w.u8(orvcmd::kSetRegister);
    w.u24(address & 0xFFFFFFu);
    w.u8(value);
    w.u8(0);  // checksum, filled in by writeOrvRx
    if (!writeOrvRx(frame, w.pos())) return false;

    unsigned char reply[kReplyBufferSize];
    size_t n = 0;
    if (!readOrvRx(reply, sizeof reply, pollTime(timeoutMs), &n)) return false;
    if (n == 1 && reply[0] == orvcmd::kSetRegister) return true;
    s.fail(n == 0 ? "No response to set register command" : "Invalid ack to set register command", true);
    return false;
}

bool OrvAccess::getRegister(unsigned int timeoutMs, unsigned int address, unsigned char* value) {
    State& s = *st_;
    // A streamed datagram must not be taken for the reply.
    if (!setStreaming(false)) return false;
    unsigned char frame[6];
    OrvosiWriter w(frame, sizeof frame);
    w.u8(orvcmd::kFrameStart);
    w.u8(orvcmd::kGetRegister);
    w.u24(address & 0xFFFFFFu);
    w.u8(0);  // checksum
    if (!writeOrvRx(frame, w.pos())) return false;

    unsigned char reply[kReplyBufferSize];
    size_t n = 0;
    if (!readOrvRx(reply, sizeof reply, pollTime(timeoutMs), &n)) return false;
    if (n == 3 && reply[0] == orvcmd::kGetRegister && OrvosiUtil::checksum(reply, 3) == 0) {
        *value = reply[1];
        return true;
    }
    s.fail(n == 0 ? "No response to get register command" : "Invalid response to get register command", true);
    return false;
}

bool OrvAccess::setStreaming(bool on) {
    State& s = *st_;
    if (!s.isOpen || !s.tcpOpen) {
        // Every getter lands here when there is no TCP channel; the text is
        // set once, not rebuilt per call.
        if (!holds(s.lastError, kTcpNotOpen)) s.fail(kTcpNotOpen, false);
        return false;
    }
    if (on == s.streaming) return true;
    OrvUtil::logLine(s.cfg.verbosity, "Setting streaming mode to ", on ? 1 : 0);

    bool ok = setRegister(kStreamingAckMs, orvcmd::kStreamingRegister, on ? 1 : 0);
    if (!ok) s.fail("Failed to set streaming state", false);
    // The rest runs even when orvRx did not acknowledge: the local state must
    // not keep data from before the switch. Datagrams already in flight get
    // time to arrive so that the flush catches them.
    if (!on) OrvosiUtil::snoozeMs(100);
    flushUdp();
    resetStreamState();
    s.streaming = on;
    return ok;
}

bool OrvAccess::transactImu(e_OrvAccessImuSelect imu, unsigned char* transmit, unsigned long transmitLength,
                            unsigned char* receive, unsigned long receiveCapacity, unsigned int timeout,
                            unsigned long* receivedLength) {
    State& s = *st_;
    if (transmitLength > kImuMaxBytes) {
        // Its length byte would announce fewer bytes than follow it.
        s.fail("IMU transmit length too long (" + std::to_string(transmitLength) + " bytes, at most 255)", true);
        return false;
    }
    if (!setStreaming(false)) return false;
    *receivedLength = 0;

    // Room for the longest frame and the longest reply whatever the caller's
    // capacity, which may be far larger than anything that can come back.
    unsigned char buf[kImuMaxBytes + kReplyBufferSize];
    const unsigned char receiveLength =
        static_cast<unsigned char>(std::min<unsigned long>(receiveCapacity, kImuMaxBytes));
    OrvosiWriter w(buf, sizeof buf);
    w.u8(orvcmd::kFrameStart);
    w.u8(orvcmd::kImu);
    w.u8(static_cast<int>(imu) == 1 ? 2 : 1);
    w.u8(static_cast<unsigned char>(transmitLength));
    if (transmitLength > 0) w.bytes(transmit, transmitLength);
    w.u8(receiveLength);
    w.u8(static_cast<unsigned char>(std::min<unsigned int>(timeout, 255)));
    w.u8(0);  // checksum
    const bool sent = writeOrvRx(buf, w.pos());
    if (!sent || receiveLength == 0) return sent;

    size_t n = 0;
    if (!readOrvRx(buf, sizeof buf, kImuReplyMs, &n)) return false;
    if (n == 0) {
        s.fail("No response from orvRx", true);
        return false;
    }
    // The count byte is orvRx's word; never copy more than was asked for, nor
    // more than actually arrived, or stale buffer bytes would pass as data.
    size_t count = n >= 2 ? std::min<size_t>(buf[1], receiveLength) : 0;
    count = std::min(count, n >= 2 ? n - 2 : 0);
    if (count > 0) std::memcpy(receive, buf + 2, count);
    *receivedLength = count;
    return true;
}
