// Meta packets from orvRx: IMU samples, auxiliary bytes and clock-relation
// rows; the other subpackets are handed to their parsers.
#include <cstring>

#include "access/State.hpp"
#include "access/Subpackets.hpp"
#include "osi/BrevantData.hpp"
#include "osi/OrvosiCursor.hpp"
#include "osi/OrvosiUtil.hpp"

namespace {

constexpr size_t kImuSubPktOffset = 27;
constexpr int kImuSubPktLength = 19;
constexpr unsigned char kChipSync = 5;
constexpr unsigned short kBadImuSubPkt = 777;
constexpr unsigned int kImuDumpBit = 0x200;
constexpr unsigned int kImuLogChannel = 0x20;
constexpr uint32_t kAuxMask = 0x2000;

bool validImu(e_OrvAccessImuSelect imu) {
    return imu == ORVACCESS_IMU_PLATFORM || imu == ORVACCESS_IMU_CAMERA;
}

// Follows the packet ids of one source and collects the bit each packet
// carries into a 256-bit row; a row is complete after ids 0 to 255 in order.
void collectCrsBit(OrvAccess::s_ImuCrsBuf& crs, const char* name, unsigned int pid, unsigned int status,
                   unsigned int verbosity) {
    if (static_cast<int32_t>(pid) == crs.lastPid + 1) {
        uint8_t* row = crs.rows[crs.fillRow & 1];
        if (pid == 0) std::memset(row, 0, sizeof crs.rows[0]);
        const uint8_t bit = static_cast<uint8_t>(1u << (pid % 8));
        if (status & 0x10)
            row[pid / 8] |= bit;
        else
            row[pid / 8] &= static_cast<uint8_t>(~bit);
        crs.lastPid = static_cast<int32_t>(pid);
        if (pid == 255) {
            crs.completeRow = static_cast<int32_t>(crs.fillRow & 1);
            crs.lastPid = -1;
            crs.fillRow = (crs.fillRow & 1) ^ 1;
        }
    } else if (crs.lastPid != -1) {
        OrvUtil::infoLine(verbosity, name, " IMU PID sequence error");
        crs.lastPid = -1;
    }
}

// One IMU subpacket: the chip packet at `offset` into the meta packet `pkt`.
// Nothing is read beyond what the buffer holds there, whatever the chip's
// type claims. The queue's bound (imuQueueSize) was set at open.
void processImuSubPkt(OrvAccess& access, OrvAccess::State& s, const char* name, const unsigned char* pkt,
                      size_t offset, int tag, float dt, uint64_t time, RecordQueue<s_OrvAccessImuData>& queue,
                      OrvAccess::s_ImuCrsBuf& crs) {
    const unsigned int verbosity = s.cfg.verbosity;
    const size_t total = s.readable(pkt, pkt);
    const size_t available = offset < total ? total - offset : 0;
    const unsigned char* data = pkt + (offset < total ? offset : total);
    const size_t len = static_cast<size_t>(kImuSubPktLength) < available ? kImuSubPktLength : available;
    if (verbosity & kImuDumpBit) OrvUtil::dumpBuf(data, len, kImuDumpBit);

    BrevantData chip;
    // The parser takes a mutable pointer but only reads through it.
    const bool ok = available >= 2 && data[0] == kChipSync &&
                    OrvosiUtil::GetBvPacketLength(data[1]) <= available &&
                    OrvosiUtil::ParseBrevantPacket(const_cast<unsigned char*>(data), &chip);
    if (!ok) {
        OrvUtil::logLine(verbosity, "Bad IMU subpacket");
        access.addErrorCode(kBadImuSubPkt, 0);
        return;
    }
    if (s.cfg.logging & kImuLogChannel) OrvUtil::logBuf(data, len, kImuLogChannel, s.cfg.logPath);
    chip.timeUs = time;
    chip.tag = static_cast<uint32_t>(tag);

    collectCrsBit(crs, name, chip.pid, chip.status, verbosity);

    // A sequence error never costs the sample.
    s_OrvAccessImuData rec{};
    rec.time = time;
    rec.tag = chip.tag;
    rec.pid = chip.pid;
    rec.status = chip.status;
    rec.dt = dt;
    for (int i = 0; i < 3; ++i) {
        rec.gyroRaw[i] = chip.gyroRaw[i];
        rec.accelRaw[i] = chip.accelRaw[i];
        rec.gyroRate[i] = chip.gyro[i] / dt;
        rec.accelRate[i] = chip.accel[i] / dt;
    }
    queue.push(rec, verbosity);
    s.latestImu = rec;
    s.latestImuValid = true;

    if ((chip.mask & kAuxMask) && chip.hi2000 != 0) {
        const s_OrvAccessAuxData aux{chip.byte2000};
        s.aux.push(aux, verbosity);
        s.latestAux = aux;
        s.latestAuxValid = true;
    }
}

}  // namespace

void OrvAccess::processMetaPkt(const unsigned char* pkt) {
    State& s = *st_;
    // Offsets come from the wire: a subpacket that starts past what the
    // buffer holds is handed over with nothing readable.
    const size_t total = s.readable(pkt, pkt);
    OrvosiReader header(pkt, total);
    header.skip(3);
    const uint32_t tag = header.u32();
    header.skip(1);
    const float dt = header.f32();
    header.skip(1);
    const size_t platPoseOffset = header.u8();
    const size_t targetOffset = header.u8();
    const size_t diagOffset = header.u16();
    const size_t gpsOffset = header.u16();
    const uint64_t time = header.u64();
    s.imuDt = dt;

    if (dt > 0.0f) {
        processImuSubPkt(*this, s, "Camera", pkt, kImuSubPktOffset, static_cast<int>(tag), dt, time,
                         s.imu[ORVACCESS_IMU_CAMERA], s.imuCrs[ORVACCESS_IMU_CAMERA]);
    } else {
        OrvUtil::infoLine(s.cfg.verbosity, "IMU data not present");
    }
    auto subPkt = [&](size_t offset, void (*parse)(OrvAccess&, State&, const unsigned char*, size_t)) {
        if (offset == 0) return;
        const size_t at = offset < total ? offset : total;
        parse(*this, s, pkt + at, s.readable(pkt, pkt + at));
    };
    subPkt(platPoseOffset, processPlatPoseSubPkt);
    subPkt(targetOffset, processTargetSubPkt);
    subPkt(diagOffset, processDiagSubPkt);
    subPkt(gpsOffset, processGpsSubPkt);
}

bool OrvAccess::getImuData(e_OrvAccessImuSelect imu, bool* valid, s_OrvAccessImuData* data) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    if (!validImu(imu)) {
        st_->lastError = "Invalid source IMU selector";
        return false;
    }
    *valid = st_->imu[imu].pop(data);
    return true;
}

bool OrvAccess::getImuDataLatest(bool* valid, s_OrvAccessImuData* data) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    *valid = st_->latestImuValid;
    if (*valid) *data = st_->latestImu;
    return true;
}

bool OrvAccess::getImuCrs(e_OrvAccessImuSelect imu, bool* valid, s_ImuCrs* crs) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    if (!validImu(imu)) {
        st_->lastError = "Invalid source IMU selector";
        return false;
    }
    s_ImuCrsBuf& buf = st_->imuCrs[imu];
    *valid = buf.completeRow >= 0;
    if (*valid) {
        std::memcpy(crs->bits, buf.rows[buf.completeRow & 1], sizeof crs->bits);
        buf.completeRow = -1;
    }
    return true;
}

void OrvAccess::imuCrsBufReset(s_ImuCrsBuf* crs) {
    crs->fillRow = 0;
    crs->completeRow = -1;
    crs->lastPid = -1;
}

bool OrvAccess::getAuxData(bool* valid, s_OrvAccessAuxData* data) { return popRecord(st_->aux, valid, data); }

bool OrvAccess::getAuxDataLatest(bool* valid, s_OrvAccessAuxData* data) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    *valid = st_->latestAuxValid;
    if (*valid) *data = st_->latestAux;
    return true;
}
