// Data from orvRx's meta packets: IMU samples, auxiliary bytes, clock-relation
// rows, targets, diagnostics, platform poses and GPS.
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

bool OrvAccess::getTargetData(bool* valid, s_TgtData* data) { return popRecord(st_->targets, valid, data); }

bool OrvAccess::getTargetCount(bool* valid, unsigned int* tag, unsigned int* count) {
    *count = 0;
    *valid = false;
    s_TgtData record{};
    bool popped = false;
    if (!getTargetData(&popped, &record)) return false;
    // A record that does not start a list is dropped.
    if (!popped || record.index != 0) return true;
    *valid = true;
    *tag = record.tag;
    while (record.id != 0) {
        ++*count;
        if (!getTargetData(&popped, &record)) return false;
        if (!popped) return true;
    }
    return true;
}

bool OrvAccess::getDiagData(bool* valid, s_OrvAccessDiagData* data) {
    return popRecord(st_->diag, valid, data);
}

bool OrvAccess::getDiagDataLatest(bool* valid, s_OrvAccessDiagData* data) {
    if (!st_->manualService && !serviceUdp(true)) return false;
    *valid = st_->latestDiagValid;
    if (*valid) *data = st_->latestDiag;
    return true;
}

bool OrvAccess::getPlatformPoseData(bool* valid, s_OrvAccessPlatPoseData* data) {
    return popRecord(st_->platPose, valid, data);
}

bool OrvAccess::getGpsData(bool* valid, s_OrvAccessGpsData* data) { return popRecord(st_->gps, valid, data); }
