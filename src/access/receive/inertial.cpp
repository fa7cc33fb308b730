// Meta packets from orvRx: IMU samples, auxiliary bytes and clock-relation
// rows; the other subpackets are handed to their parsers.
#include <cstring>
#include <iterator>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"
#include "wire/Chip.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

// Packet ids run 0 to 255 and wrap; a row of bits is complete at the last.
constexpr unsigned int kLastPid = sizeof(OrvAccess::s_ImuCrs::bits) * 8 - 1;

// The camera IMU's name in messages: it is the one meta packets carry.
constexpr const char* kCameraName = "Camera";

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
        if (status & kBrevantStatusClock)
            row[pid / 8] |= bit;
        else
            row[pid / 8] &= static_cast<uint8_t>(~bit);
        crs.lastPid = static_cast<int32_t>(pid);
        if (pid == kLastPid) {
            crs.completeRow = static_cast<int32_t>(crs.fillRow & 1);
            crs.lastPid = -1;
            crs.fillRow = (crs.fillRow & 1) ^ 1;
        }
    } else if (crs.lastPid != -1) {
        OrvUtil::infoLine(verbosity, name, " IMU PID sequence error");
        crs.lastPid = -1;
    }
}

}  // namespace

namespace orvwire {

// The camera IMU's chip packet of the meta packet being parsed; its check
// has found a known type with a good checksum. Bytes of the chip's slot past
// the datagram's end are decoded as zeros.
const char* processImuSubPkt(OrvAccess::State& s, const OrvosiBytes& data) {
    const unsigned int verbosity = s.cfg.verbosity;
    unsigned char padded[sizeof(BrevantData::raw)] = {};
    const unsigned char* chipBytes = data.data;
    if (data.size < sizeof padded) {
        std::memcpy(padded, data.data, data.size);
        chipBytes = padded;
    }
    BrevantData chip;
    // The time of decoding is of no use here: the sample's own time replaces it.
    if (!OrvwireChip::decode(chipBytes, &chip, 0)) return "";
    chip.timeUs = s.metaTimeUs;
    chip.tag = s.metaTag;
    const float dt = s.imuDt;

    OrvAccess::s_ImuCrsBuf& crs = s.imuCrs[ORVACCESS_IMU_CAMERA];
    collectCrsBit(crs, kCameraName, chip.pid, chip.status, verbosity);

    // A sequence error never costs the sample.
    s_OrvAccessImuData rec{};
    rec.time = chip.timeUs;
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
    s.imu[ORVACCESS_IMU_CAMERA].push(rec, verbosity);
    s.latestImu = rec;
    s.latestImuValid = true;

    if ((chip.mask & kBrevantMaskAux) && chip.hi2000 != 0) {
        const s_OrvAccessAuxData aux{chip.byte2000};
        s.aux.push(aux, verbosity);
        s.latestAux = aux;
        s.latestAuxValid = true;
    }
    return nullptr;
}

// Offsets come from the wire: a subpacket that starts past the datagram's
// end reads as zeros, and fails its check.
const char* processMetaPkt(OrvAccess::State& s, const OrvosiBytes& pkt) {
    OrvosiReader header(pkt);
    header.seek(ORVWIRE_HEADER_SIZE);
    MetaHeader meta{};
    decodeMeta(header, meta);
    s.metaTag = meta.tag;
    s.imuDt = meta.interval;
    s.metaTimeUs = meta.time;

    if (s.imuDt > 0.0f) {
        handle(s, kImu, pkt.from(ORVWIRE_META_IMU_AT));
    } else {
        OrvUtil::infoLine(s.cfg.verbosity, "IMU data not present");
    }
    const size_t offsets[] = {meta.platPoseAt, meta.targetAt, meta.diagAt, meta.gpsAt};
    static_assert(std::size(offsets) == std::size(kMetaSlots), "one offset per slot");
    for (size_t i = 0; i < std::size(kMetaSlots); ++i)
        if (offsets[i] != 0) handle(s, *kMetaSlots[i].family, pkt.from(offsets[i]));
    return nullptr;
}

}  // namespace orvwire

void OrvAccess::processMetaPkt(const unsigned char* packet) {
    const OrvosiBytes bytes{packet, OrvosiUtil::word16(packet + 1), kReceiveBufferSize};
    orvwire::processMetaPkt(*st_, bytes);
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
