// The access object's frame: construction, identity, status and the small
// mechanisms of its state.
#include "orvaccess/OrvAccess.hpp"

#include <utility>

#include "access/State.hpp"
#include "os/OrvosiUtil.hpp"

OrvAccess::State::State()
    : imu{RecordQueue<s_OrvAccessImuData>("Platform IMU queue overflow"),
          RecordQueue<s_OrvAccessImuData>("Camera IMU queue overflow")},
      targets("Target data queue overflow"),
      diag("Diagnostic data queue overflow"),
      tracking("Tracking data queue overflow"),
      targetRes("Target residuals data queue overflow"),
      poseRec("Pose recovery stats queue overflow"),
      platPose("Platform pose data queue overflow"),
      hubData("Hub data queue overflow"),
      features("Feature data queue overflow"),
      gps("GPS data queue overflow"),
      errors("Error code queue overflow"),
      // The leading space is part of the line as it has always been printed.
      aux(" AuxData queue overflow") {
    applyQueueBounds();
}

void OrvAccess::State::applyQueueBounds() {
    imu[0].setBound(cfg.imuQueueSize);
    imu[1].setBound(cfg.imuQueueSize);
    aux.setBound(cfg.imuQueueSize);
    platPose.setBound(cfg.imuQueueSize);
    diag.setBound(cfg.imuQueueSize);
    targets.setBound(cfg.targetQueueSize);
    targetRes.setBound(cfg.targetQueueSize);
    poseRec.setBound(cfg.targetQueueSize);
    features.setBound(cfg.targetQueueSize);
    tracking.setBound(cfg.trackingQueueSize);
    gps.setBound(cfg.gpsQueueSize);
    errors.setBound(cfg.errorCodeQueueSize);
    hubData.setBound(kHubQueueSize);
}

void OrvAccess::State::clearQueues() {
    imu[0].clear();
    imu[1].clear();
    aux.clear();
    platPose.clear();
    diag.clear();
    targets.clear();
    targetRes.clear();
    poseRec.clear();
    features.clear();
    tracking.clear();
    gps.clear();
    hubData.clear();
    errors.clear();
}

void OrvAccess::State::closeEndpoints() {
    // Closing a closed endpoint is harmless.
    tcp.close();
    input.close();
    meta.close();
    image.close();
    core.close();
    hub.close();
    nft.close();
    for (ReadAhead& a : ahead) a.clear();
    readySet.close();
    openPortCount = 0;
}

void OrvAccess::State::addErrorCode(unsigned short code, unsigned int value) {
    errors.push(s_OrvAccessErrorCode{code, value}, cfg.verbosity);
    newError = 1;
}

void OrvAccess::State::fail(const std::string& text, bool echo) {
    lastError = text;
    if (echo) OrvUtil::errLine(cfg.verbosity, lastError);
}

// ---- the object -------------------------------------------------------------

OrvAccess::OrvAccess() : st_(new State()) {}

OrvAccess::~OrvAccess() {
    if (st_->isOpen) close();
    // A failed open may have left a channel open (the uplink sender does not
    // count towards success).
    st_->closeEndpoints();
}

std::string OrvAccess::getVersion() { return kOrvAccessVersion; }

std::string OrvAccess::getBuildDate() { return kOrvAccessBuildDate; }

unsigned long OrvAccess::getTimeUs() { return OrvosiUtil::getTimeSysUs(); }

unsigned int OrvAccess::getImageBufSize() { return st_->cfg.imgBufSize; }

bool OrvAccess::getStreaming() { return st_->streaming; }

void OrvAccess::setIniPath(std::string path) { st_->iniPath = std::move(path); }

bool OrvAccess::getStatus(s_OrvAccessStatus* status) {
    State& s = *st_;
    if (!s.manualService && !serviceUdp(false)) {
        *status = s_OrvAccessStatus{};
        s.receivedMask = 0;
        s.newError = 0;
        s.diagWord = 0;
        return false;
    }
    const std::pair<bool, uint32_t> channels[] = {
        {s.tcpOpen, ORVACCESS_CONN_TCP},
        {s.metaOpen, ORVACCESS_CONN_META},
        {s.imageOpen, ORVACCESS_CONN_IMAGE},
        {s.inputOpen, ORVACCESS_CONN_UPLINK},
        {s.coreOpen, ORVACCESS_CONN_ORVCORE},
        {s.hubOpen, ORVACCESS_CONN_ORVHUB},
        {s.sharedMemOk, ORVACCESS_CONN_SHARED_MEM},
    };
    status->connections = 0;
    for (const auto& [open, bit] : channels)
        if (open) status->connections |= bit;
    status->received = s.receivedMask;
    status->newError = s.newError;
    status->diagState = s.diagWord;
    s.receivedMask = 0;
    s.newError = 0;
    s.diagWord = 0;
    return true;
}
