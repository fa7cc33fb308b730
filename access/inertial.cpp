// Meta packets from orvRx: IMU samples, auxiliary bytes and clock-relation
// rows; the other subpackets are handed to their parsers.
//
// The meta-packet parsers arrive with the inertial path; until then the
// queues stay empty and the getters answer with nothing delivered.
#include "access/State.hpp"

namespace {
bool validImu(e_OrvAccessImuSelect imu) {
    return imu == ORVACCESS_IMU_PLATFORM || imu == ORVACCESS_IMU_CAMERA;
}
}  // namespace

void OrvAccess::processMetaPkt(const unsigned char* /*packet*/) {}

bool OrvAccess::getImuData(e_OrvAccessImuSelect imu, bool* valid, s_OrvAccessImuData* data) {
    if (!validImu(imu)) {
        st_->lastError = "Invalid source IMU selector";
        return false;
    }
    return popRecord(st_->imu[imu], valid, data);
}

bool OrvAccess::getImuDataLatest(bool* valid, s_OrvAccessImuData* data) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    *valid = st_->latestImuValid;
    if (*valid) *data = st_->latestImu;
    return true;
}

bool OrvAccess::getImuCrs(e_OrvAccessImuSelect imu, bool* valid, s_ImuCrs* crs) {
    if (!validImu(imu)) {
        st_->lastError = "Invalid source IMU selector";
        return false;
    }
    if (!st_->manualService && !serviceUdp(true)) return false;
    s_ImuCrsBuf& buf = st_->imuCrs[imu];
    *valid = buf.completeRow >= 0;
    if (*valid) {
        for (int i = 0; i < 32; ++i) crs->bits[i] = buf.rows[buf.completeRow][i];
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
