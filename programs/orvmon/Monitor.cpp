#include "Monitor.hpp"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ostream>

#include "Names.hpp"

namespace orvmon {

namespace {

constexpr uint64_t kImagePeriodUs = 20000;
constexpr uint64_t kDrainUs = 200000;  // what is in flight when streaming stops
constexpr uint64_t kStatusPeriodUs = 100000;
constexpr uint64_t kPlatPosePeriodUs = 20000;  // 50 Hz
constexpr uint64_t kGpsPeriodUs = 1000000;
constexpr uint64_t kInputPeriodUs = 1000000;
constexpr size_t kTruthCapacity = 8192;  // 4 s of poses at 2 kHz
constexpr int64_t kTruthRetainUs = 4000000;
constexpr size_t kPendingCapacity = 4096;
// The fixed horizons are at most 200 ms: one second of truth covers them.
constexpr size_t kHorizonTruthCapacity = 2048;
constexpr int64_t kHorizonTruthRetainUs = 1000000;
constexpr size_t kHorizonPendingCapacity = 1024;

// The record carries no source field, and tracking and NFT poses share the
// library's newest-pose slot. NFT packets fill extB or extD, which orvCore
// leaves at zero, and lack what only orvCore sends: the second attitude
// (never an all-zero matrix), the second time and the status word.
bool isNftPose(const s_OrvAccessTrkDataExt& r) {
    for (float v : r.extB)
        if (v != 0.0f) return true;
    for (float v : r.extD)
        if (v != 0.0f) return true;
    for (const auto& row : r.cbn2)
        for (float v : row)
            if (v != 0.0f) return false;
    return r.time2 == 0 && r.statusWord == 0;
}

// printf into a stream: the summary's columns stay fixed whatever the locale
// or stream flags.
void put(std::ostream& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void put(std::ostream& out, const char* fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    out << line;
}

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

// True when a periodic task is due; keeps its cadence, but after a stall it
// starts afresh instead of running again and again to catch up.
bool due(uint64_t& next, uint64_t period, uint64_t now) {
    if (now < next) return false;
    next = next + period > now ? next + period : now + period;
    return true;
}

}  // namespace

const char* Monitor::kindName(Kind k) {
    static const char* const names[kKindCount] = {
        "tracking",      "predicted",      "nft-poses", "imu",         "aux",         "diagnostic",
        "target-entries", "target-lists",  "platform-poses", "gps",    "residuals",   "pose-recovery",
        "nft-packets",   "nft-features",   "hub",       "images-udp",  "images-shm",  "images-unattributed",
        "error-codes"};
    return names[k];
}

const char* Monitor::callName(Call c) {
    static const char* const names[kCallCount] = {
        "getTrackingDataAtTime", "getTrackingDataLatest", "getImuData",       "getAuxData",
        "getDiagData",           "getTargetData",         "getPlatformPoseData", "getGpsData",
        "getTargetResData",      "getPoseRecoveryStats",  "getFeatureData",   "getHubData",
        "getImage",              "getImageInfo",          "getStatus",        "setStreaming",
        "setPlatformPoseData",   "setGpsData",            "sendInputData"};
    return names[c];
}

Monitor::Monitor(OrvAccess& access, const MonitorOptions& options)
    : access_(access),
      opt_(options),
      predictionF_(static_cast<float>(options.prediction.predictionS)),
      aheadUs_(static_cast<uint64_t>(std::llround(std::max(options.aheadMs, 0.0) * 1000.0))),
      meter_(kTruthCapacity, kTruthRetainUs, kPendingCapacity),
      imageBuf_(std::max(access.getImageBufSize(), 1u)) {
    codes_.reserve(kMaxCodes);
    horizons_.reserve(opt_.horizonsMs.size());
    for (size_t i = 0; i < opt_.horizonsMs.size(); ++i)
        horizons_.emplace_back(kHorizonTruthCapacity, kHorizonTruthRetainUs, kHorizonPendingCapacity);
    if (opt_.csv != nullptr) {
        meter_.setSink(&Monitor::writeCsvLine, this);
        *opt_.csv << "pose_time_us,target_time_us,horizon_ms,matched,"
                     "pred_roll_deg,pred_pitch_deg,pred_yaw_deg,pred_x_m,pred_y_m,pred_z_m,"
                     "true_roll_deg,true_pitch_deg,true_yaw_deg,true_x_m,true_y_m,true_z_m,"
                     "pose_roll_deg,pose_pitch_deg,pose_yaw_deg,pose_x_m,pose_y_m,pose_z_m,"
                     "error_deg,error_mm,unpredicted_error_deg,unpredicted_error_mm\n";
    }
}

void Monitor::fail(Call c) {
    ++failures_[c];
    lastFailure_ = std::string(callName(c)) + ": " + access_.getLastError();
}

uint64_t Monitor::failures() const {
    uint64_t n = 0;
    for (uint64_t f : failures_) n += f;
    return n;
}

template <typename Pop>
void Monitor::drain(Call c, Pop&& pop) {
    for (size_t i = 0; i < kMaxPerLoop; ++i) {
        bool valid = false;
        if (!pop(&valid)) {
            fail(c);
            return;
        }
        if (!valid) return;
    }
}

void Monitor::poll(uint64_t nowUs) {
    lastUs_ = nowUs;  // the status read below is taken at this time
    if (!started_) {
        started_ = true;
        startUs_ = nextImageUs_ = nextStatusUs_ = nextPlatUs_ = nextGpsUs_ = nextInputUs_ = nowUs;
        snapshot(nowUs);
        readStatus();  // whether there is a command channel, before any getter
    }
    // Only the command channel carries the request; without it the library
    // does not ask either.
    if ((status_.connections & orvnames::kConnTcp) && !access_.getStreaming()) requestStreaming();
    pollTracking(nowUs);
    pollQueues();
    pollErrors(nowUs);
    if (due(nextImageUs_, kImagePeriodUs, nowUs)) pollImage();
    // Every poll, so that each channel's quiet times are known to the poll.
    readStatus();
    noteActivity(nowUs);
    if (due(nextStatusUs_, kStatusPeriodUs, nowUs)) {
        status_.received = receivedWindow_;
        receivedWindow_ = 0;
        snapshot(nowUs);
    }
    if (opt_.uplink) pollUplink(nowUs);
    // Last: a reopen drops whatever the library still holds.
    if (opt_.watchdog != nullptr) opt_.watchdog->step(nowUs);
}

void Monitor::finish() {
    access_.setStreaming(false);
    const uint64_t end = access_.getTimeUs() + kDrainUs;
    for (uint64_t now = access_.getTimeUs(); now < end; now = access_.getTimeUs()) {
        readStatus();
        pollErrors(now);
        OrvosiUtil_snoozeMs(1);
    }
}

void Monitor::requestStreaming() {
    ++streaming_.requests;
    streaming_.lastFailed = !access_.setStreaming(true);
    if (!streaming_.lastFailed) {
        ++streaming_.acknowledged;
        return;
    }
    // The library now believes streaming is on and does not ask again until
    // orvRx reports that it stopped: this is the one chance to say so.
    fail(cSetStreaming);
    streaming_.reason = access_.getLastError();
}

std::string Monitor::streamingText() const {
    if (streaming_.requests == 0) return streaming_.streamed ? "on (asked by the library)" : "not requested";
    if (!streaming_.lastFailed)
        return streaming_.acknowledged > 0 ? "acknowledged" : "on (streamed data arrives; the request went unacknowledged)";
    return (streaming_.acknowledged == 0 ? "never acknowledged by orvRx: "
                                         : "last request not acknowledged by orvRx: ") +
           streaming_.reason;
}

void Monitor::pollTracking(uint64_t nowUs) {
    // The pose predicted to the display time, as a renderer asks for it;
    // this drains the tracking queue and hands out only the newest.
    const uint64_t displayUs = nowUs + aheadUs_;
    bool valid = false;
    if (!access_.getTrackingDataAtTime(displayUs, &valid, &scratch_)) {
        fail(cAtTime);
    } else if (valid) {
        ++counts_[kPredicted];
        predicted_ = scratch_;
        hasPredicted_ = true;
        const Target t = targetTime(predicted_.poseTime, displayUs, opt_.prediction.predictionS,
                                    opt_.prediction.virtualSyncCtrl);
        predictedHorizonS_ = t.horizonS;
        // NFT poses are a different solution with their own tags; only
        // orvCore's poses are measured against orvCore's poses.
        if (!isNftPose(predicted_))
            meter_.addPrediction(predicted_.poseTime, t, fromRows(predicted_.cbn), fromFloats(predicted_.position));
    }

    // The newest pose as reported, unpredicted: the ground truth.
    access_.setPrediction(0.0f);
    const bool ok = access_.getTrackingDataLatest(&valid, &scratch_);
    access_.setPrediction(predictionF_);
    if (!ok) {
        fail(cLatest);
        return;
    }
    if (!valid) return;
    // Each source keeps its own last pose time: an NFT pose taken at the
    // same moment as a tracking pose is still a pose of its own.
    const bool nft = isNftPose(scratch_);
    uint64_t& lastTime = nft ? lastNftTime_ : lastTrackTime_;
    bool& seen = nft ? seenNft_ : seenTrack_;
    if (seen && scratch_.poseTime == lastTime) return;
    seen = true;
    lastTime = scratch_.poseTime;
    raw_ = scratch_;
    hasRaw_ = true;
    poseAgeUs_ = static_cast<int64_t>(nowUs) - static_cast<int64_t>(raw_.poseTime);
    poseAgeSumUs_ += static_cast<double>(poseAgeUs_);
    ++poseAges_;
    if (nft) {
        ++counts_[kNftPose];
        return;
    }
    ++counts_[kTracking];
    trackSeq_.feed(raw_.packetTag);
    meter_.addTruth(raw_.poseTime, fromRows(raw_.cbn), fromFloats(raw_.position));
    for (PredictionMeter& h : horizons_) h.addTruth(raw_.poseTime, fromRows(raw_.cbn), fromFloats(raw_.position));
    measureHorizons();
    noteReflected(raw_.platPoseTime);
}

// The newest pose predicted by each fixed horizon, through the library's own
// adjustment (the same call a renderer makes, with another interval). A pose
// that arrives between these calls replaces the newest; it is then not
// measured at the remaining horizons, rather than measured from the wrong pose.
void Monitor::measureHorizons() {
    if (horizons_.empty()) return;
    for (size_t i = 0; i < horizons_.size(); ++i) {
        const double h = opt_.horizonsMs[i] / 1000.0;
        access_.setPrediction(static_cast<float>(h));
        bool valid = false;
        if (!access_.getTrackingDataLatest(&valid, &scratch_)) {
            fail(cLatest);
            break;
        }
        if (!valid || scratch_.poseTime != raw_.poseTime || isNftPose(scratch_)) break;
        const Target t{static_cast<int64_t>(raw_.poseTime) + std::llround(h * 1e6), h};
        horizons_[i].addPrediction(raw_.poseTime, t, fromRows(scratch_.cbn), fromFloats(scratch_.position));
    }
    access_.setPrediction(predictionF_);
}

void Monitor::noteReflected(uint32_t platPoseTime) {
    if (reflectedAny_ && platPoseTime == uplink_.lastReflected) return;
    reflectedAny_ = true;
    uplink_.lastReflected = platPoseTime;
    if (platPoseTime == 0) return;
    ++uplink_.distinctReflected;
    for (size_t i = 0; i < sentCount_; ++i) {
        if (sentTags_[i] != platPoseTime) continue;
        if (!sentReflected_[i]) {
            sentReflected_[i] = true;
            ++uplink_.reflectedSent;
        }
        break;
    }
}

void Monitor::pollQueues() {
    OrvAccess& a = access_;
    s_OrvAccessImuData imu{};
    drain(cImu, [&](bool* v) {
        if (!a.getImuData(ORVACCESS_IMU_CAMERA, v, &imu)) return false;
        if (*v) {
            ++counts_[kImu];
            imuSeq_.feed(imu.tag);
        }
        return true;
    });
    s_OrvAccessAuxData aux{};
    drain(cAux, [&](bool* v) {
        if (!a.getAuxData(v, &aux)) return false;
        if (*v) ++counts_[kAux];
        return true;
    });
    drain(cDiag, [&](bool* v) {
        s_OrvAccessDiagData d{};
        if (!a.getDiagData(v, &d)) return false;
        if (*v) {
            ++counts_[kDiag];
            diag_ = d;
            hasDiag_ = true;
        }
        return true;
    });
    OrvAccess::s_TgtData target{};
    drain(cTarget, [&](bool* v) {
        if (!a.getTargetData(v, &target)) return false;
        if (*v) ++counts_[target.kind == 0 && target.id == 0 ? kTargetList : kTargetEntry];
        return true;
    });
    s_OrvAccessPlatPoseData plat{};
    drain(cPlatPose, [&](bool* v) {
        if (!a.getPlatformPoseData(v, &plat)) return false;
        if (*v) ++counts_[kPlatPose];
        return true;
    });
    s_OrvAccessGpsData gps{};
    drain(cGps, [&](bool* v) {
        if (!a.getGpsData(v, &gps)) return false;
        if (*v) ++counts_[kGps];
        return true;
    });
    OrvAccess::s_TgtResData res{};
    drain(cResidual, [&](bool* v) {
        if (!a.getTargetResData(v, &res)) return false;
        if (*v && res.id != 0) ++counts_[kResidual];  // id 0 closes a subpacket
        return true;
    });
    s_OrvAccessPoseRecStats stats{};
    drain(cPoseRec, [&](bool* v) {
        if (!a.getPoseRecoveryStats(v, &stats)) return false;
        if (*v) ++counts_[kPoseRec];
        return true;
    });
    OrvAccess::s_FeatData feat{};
    drain(cFeature, [&](bool* v) {
        if (!a.getFeatureData(v, &feat)) return false;
        if (*v) {
            ++counts_[kNftFeature];
            if (!haveNftSeq_ || feat.sequenceId != lastNftSeq_) ++counts_[kNftPacket];
            haveNftSeq_ = true;
            lastNftSeq_ = feat.sequenceId;
        }
        return true;
    });
    s_OrvAccessHubData hub{};
    drain(cHub, [&](bool* v) {
        if (!a.getHubData(v, &hub)) return false;
        if (*v) {
            ++counts_[kHub];
            hubSeq_.feed(hub.word);
        }
        return true;
    });
}

void Monitor::pollErrors(uint64_t nowUs) {
    s_OrvAccessErrorCode ec{};
    for (size_t i = 0; i < kMaxPerLoop && access_.getErrorCode(&ec) != 0; ++i) {
        ++counts_[kErrorCode];
        lastErrors_[lastErrorsNext_] = {ec.code, ec.value, nowUs};
        lastErrorsNext_ = (lastErrorsNext_ + 1) % kLastErrors;
        lastErrorsCount_ = std::min(lastErrorsCount_ + 1, kLastErrors);
        auto it = std::find_if(codes_.begin(), codes_.end(), [&](const CodeCount& c) { return c.code == ec.code; });
        if (it != codes_.end()) {
            ++it->count;
        } else if (codes_.size() < kMaxCodes) {
            // The message is asked once per code, so that a steady stream of
            // errors costs no allocation.
            codes_.push_back({ec.code, 1, orvnames::errorText(ec.code, access_.getErrorMessage(ec.code))});
        } else {
            ++codesOther_;
        }
    }
}

const Monitor::ErrorEvent& Monitor::lastError(size_t newestFirst) const {
    return lastErrors_[(lastErrorsNext_ + kLastErrors - 1 - newestFirst) % kLastErrors];
}

const std::string& Monitor::messageOf(uint16_t code) const {
    static const std::string unknown = "(message not kept)";
    for (const CodeCount& c : codes_)
        if (c.code == code) return c.message;
    return unknown;
}

void Monitor::readStatus() {
    s_OrvAccessStatus st{};
    if (!access_.getStatus(&st)) {
        fail(cStatus);
        return;
    }
    // The received bits are cleared by every read: collect them here so that
    // reads made for the images do not hide them from the view.
    status_.read = true;
    if (opt_.watchdog != nullptr) opt_.watchdog->observe(lastUs_, st);
    status_.connections = st.connections;
    receivedWindow_ |= st.received;
    receivedPoll_ |= st.received;
    status_.receivedEver |= st.received;
    if (st.received & orvnames::kRecvImage) imagePacketsSinceImage_ = true;
    if (st.diagState != 0) status_.diagState = st.diagState;
    access_.getSenderDrops(&status_.senders);
}

void Monitor::noteActivity(uint64_t nowUs) {
    for (size_t i = 0; i < kChannels; ++i) {
        if (!(receivedPoll_ & orvnames::kReceivedBits[i].bit)) continue;
        ChannelActivity& a = activity_[i];
        if (a.seen) {
            const uint64_t gap = nowUs - a.lastUs;
            a.maxGapUs = std::max(a.maxGapUs, gap);
            // A slow running mean: the usual interval, not the last hiccup.
            a.typicalGapUs = a.typicalGapUs == 0.0 ? static_cast<double>(gap)
                                                   : a.typicalGapUs + (static_cast<double>(gap) - a.typicalGapUs) / 16;
        }
        a.seen = true;
        a.lastUs = nowUs;
    }
    // Streamed data arriving is the answer a lost acknowledgement did not give.
    constexpr uint32_t kStreamed =
        orvnames::kRecvMeta | orvnames::kRecvTracking | orvnames::kRecvImage | orvnames::kRecvPra;
    if (receivedPoll_ & kStreamed) {
        streaming_.streamed = true;
        streaming_.lastFailed = false;
    }
    receivedPoll_ = 0;
}

bool Monitor::stale(size_t i) const {
    const ChannelActivity& a = activity_[i];
    if (!a.seen) return false;
    const double limit = std::max(static_cast<double>(kStaleMinUs), kStaleFactor * a.typicalGapUs);
    return static_cast<double>(lastUs_ - a.lastUs) > limit;
}

bool Monitor::trackingStale() const {
    for (size_t i = 0; i < kChannels; ++i)
        if (orvnames::kReceivedBits[i].bit == orvnames::kRecvTracking) return stale(i);
    return false;
}

std::string Monitor::staleNames() const {
    std::string s;
    for (size_t i = 0; i < kChannels; ++i)
        if (stale(i)) s += (s.empty() ? "" : " ") + std::string(channelName(i));
    return s;
}

void Monitor::writeCsvLine(const PredictionMatch& m, void* self) {
    std::ostream& out = *static_cast<Monitor*>(self)->opt_.csv;
    const auto pose = [&](bool known, const Pose& p) {
        if (!known) {
            out << ",,,,,,";
            return;
        }
        const Vec3 rpy = rollPitchYaw(p.r);
        put(out, ",%.4f,%.4f,%.4f,%.5f,%.5f,%.5f", rpy[0] * kRadToDeg, rpy[1] * kRadToDeg, rpy[2] * kRadToDeg,
            p.p[0], p.p[1], p.p[2]);
    };
    put(out, "%lld,%lld,%.3f,%d", static_cast<long long>(m.poseTimeUs), static_cast<long long>(m.targetUs),
        m.horizonS * 1e3, m.matched ? 1 : 0);
    pose(true, m.predicted);
    pose(m.matched, m.truth);
    pose(m.haveRaw, m.raw);
    if (m.matched)
        put(out, ",%.5f,%.4f", m.errorDeg, m.errorMm);
    else
        out << ",,";
    if (m.haveRaw)
        put(out, ",%.5f,%.4f\n", m.rawErrorDeg, m.rawErrorMm);
    else
        out << ",,\n";
}

void Monitor::pollImage() {
    // The shared-memory bit is raised by the very call that hands out a
    // shared-memory image: clear it first, then look right after.
    readStatus();
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int sequenceId = 0;
    if (!access_.getImage(&percent, &format, &sequenceId, imageBuf_.data(), imageBuf_.size())) {
        fail(cImage);
        return;
    }
    image_.percent = percent;
    if (percent != 100) return;
    const uint32_t before = receivedWindow_;
    receivedWindow_ = 0;
    readStatus();
    const uint32_t after = receivedWindow_;
    receivedWindow_ |= before;
    Kind source = kImageUnattributed;
    if (after & orvnames::kRecvSharedMem) {
        source = kImageShm;
    } else if (imagePacketsSinceImage_) {
        source = kImageUdp;
        imagePacketsSinceImage_ = false;
    }
    ++counts_[source];
    image_.any = true;
    image_.source = source;
    image_.format = static_cast<int>(format);
    image_.sequenceId = sequenceId;
    if (!access_.getImageInfo(format, &image_.size, &image_.width, &image_.height, &image_.bytesPerPixel))
        fail(cImageInfo);
}

void Monitor::pollUplink(uint64_t nowUs) {
    if (due(nextPlatUs_, kPlatPosePeriodUs, nowUs)) {
        // A gentle sway, so that a reflected pose is recognisable but harmless.
        const double t = static_cast<double>(nowUs - startUs_) / 1e6;
        s_OrvAccessPlatPoseData pose{};
        pose.tag = static_cast<uint32_t>(nowUs / 1000);
        pose.pose[0] = static_cast<float>(0.02 * std::sin(2 * kPi * 0.10 * t));
        pose.pose[1] = static_cast<float>(0.01 * std::sin(2 * kPi * 0.07 * t));
        pose.pose[2] = static_cast<float>(0.05 * std::sin(2 * kPi * 0.05 * t));
        if (access_.setPlatformPoseData(pose)) {
            ++uplink_.platPoses;
            uplink_.sentAny = true;
            uplink_.lastTag = pose.tag;
            sentTags_[sentNext_] = pose.tag;
            sentReflected_[sentNext_] = false;
            sentNext_ = (sentNext_ + 1) % kSentTags;
            sentCount_ = std::min(sentCount_ + 1, kSentTags);
        } else {
            ++uplink_.failed;
            fail(cSetPlatPose);
        }
    }
    if (due(nextGpsUs_, kGpsPeriodUs, nowUs)) {
        s_OrvAccessGpsData gps{};
        gps.valid = 1;
        gps.gpsWord1 = static_cast<uint32_t>(uplink_.gps);
        gps.lat = 48.137;  // degrees, as GPS receivers give them
        gps.lon = 11.575;
        if (access_.setGpsData(&gps)) {
            ++uplink_.gps;
        } else {
            ++uplink_.failed;
            fail(cSetGps);
        }
    }
    if (due(nextInputUs_, kInputPeriodUs, nowUs)) sendInput();
}

bool Monitor::sendInput() {
    if (access_.sendInputData(static_cast<unsigned char>((uplink_.inputs + 1) & 0xff))) {
        ++uplink_.inputs;
        return true;
    }
    ++uplink_.failed;
    fail(cSendInput);
    return false;
}

void Monitor::snapshot(uint64_t nowUs) {
    snaps_[snapNext_] = {nowUs, counts_};
    snapNext_ = (snapNext_ + 1) % kSnapshots;
    snapCount_ = std::min(snapCount_ + 1, kSnapshots);
}

double Monitor::rate(Kind k) const {
    if (snapCount_ == 0) return 0.0;
    const Snapshot& oldest = snaps_[(snapNext_ + kSnapshots - snapCount_) % kSnapshots];
    const double dt = static_cast<double>(lastUs_ - oldest.timeUs) / 1e6;
    return dt > 0.05 ? static_cast<double>(counts_[k] - oldest.counts[k]) / dt : 0.0;
}

double Monitor::runTimeS() const { return started_ ? static_cast<double>(lastUs_ - startUs_) / 1e6 : 0.0; }

void Monitor::writeLine(std::ostream& out) const {
    const double imgRate = rate(kImageUdp) + rate(kImageShm) + rate(kImageUnattributed);
    put(out, "t=%.0fs track %.0f/s imu %.0f/s hub %.0f/s nft %.0f/s pra %.0f/s img %.0f/s errors %llu",
        std::floor(runTimeS()), rate(kTracking), rate(kImu), rate(kHub), rate(kNftPacket), rate(kPoseRec), imgRate,
        ull(counts_[kErrorCode]));
    if (hasRaw_)
        put(out, " ypr %.1f %.1f %.1f", raw_.euler[2] * kRadToDeg, raw_.euler[1] * kRadToDeg,
            raw_.euler[0] * kRadToDeg);
    if (hasRaw_) put(out, " age %.1fms", static_cast<double>(poseAgeUs_) / 1e3);
    if (meter_.predicted().n() > 0)
        put(out, " pred.err %.3f deg %.2f mm", meter_.predicted().mean(), meter_.predictedMm().mean());
    const std::string staleList = staleNames();
    if (!staleList.empty()) put(out, " STALE %s", staleList.c_str());
    if (failures() > 0) put(out, " failures %llu", ull(failures()));
    if (streaming_.lastFailed) out << " streaming " << streamingText();
    if (status_.sendersDropped() > 0) put(out, " foreign-dropped %llu", ull(status_.sendersDropped()));
    if (const orvwatch::Watchdog* w = opt_.watchdog) {
        if (w->state() != orvwatch::Watchdog::State::Flowing) out << " stream: " << w->stateText(lastUs_);
        if (w->counts().outages > 0)
            put(out, " outages %llu recovered %llu", ull(w->counts().outages), ull(w->counts().recoveries));
    }
    out << '\n';
}

void Monitor::writeSummary(std::ostream& out) const {
    const double t = runTimeS();
    const auto perS = [t](uint64_t n) { return t > 0 ? static_cast<double>(n) / t : 0.0; };
    put(out, "orvmon summary\n");
    put(out, "run        time %.3f s\n", t);

    for (int k = 0; k < kKindCount; ++k) {
        const auto kind = static_cast<Kind>(k);
        put(out, "records    %-20s %10llu %10.1f/s\n", kindName(kind), ull(counts_[k]), perS(counts_[k]));
        if (kind == kImageUnattributed)
            put(out, "records    %-20s %10llu %10.1f/s\n", "images", ull(images()), perS(images()));
    }

    const auto seq = [&](const char* name, const SeqCheck& s) {
        put(out,
            "sequence   %-9s received %10llu missing %8llu duplicate %8llu out-of-order %8llu restarts %4llu step "
            "%u\n",
            name, ull(s.received()), ull(s.missing()), ull(s.duplicates()), ull(s.outOfOrder()), ull(s.restarts()),
            s.step());
    };
    seq("tracking", trackSeq_);
    seq("imu", imuSeq_);
    seq("hub", hubSeq_);
    put(out,
        "note       tracking missing counts poses skipped between two polls or lost on the network, in steps of "
        "the packet tag (%u)\n",
        trackSeq_.step());

    put(out, "errors     total %llu distinct %zu\n", ull(counts_[kErrorCode]), codes_.size());
    std::vector<const CodeCount*> sorted;
    for (const CodeCount& c : codes_) sorted.push_back(&c);
    std::sort(sorted.begin(), sorted.end(), [](const CodeCount* a, const CodeCount* b) { return a->code < b->code; });
    for (const CodeCount* c : sorted) put(out, "error      %8llu %5u %s\n", ull(c->count), c->code, c->message.c_str());
    if (codesOther_) put(out, "error      %8llu %5s %s\n", ull(codesOther_), "-", "(further codes, not kept)");

    const auto pred = [&](const char* name, const ErrorStats& s, bool withMatching) {
        put(out, "prediction %-11s n %8llu mean %.4f rms %.4f p95 %.4f max %.4f deg", name, ull(s.n()), s.mean(),
            s.rms(), s.percentile(0.95), s.max());
        if (withMatching)
            put(out, " horizon %.1f ms unmatched %llu pending %llu", meter_.meanHorizonMs(), ull(meter_.unmatched()),
                ull(meter_.pending()));
        out << '\n';
    };
    pred("predicted", meter_.predicted(), true);
    pred("unpredicted", meter_.unpredicted(), false);
    const auto predMm = [&](const char* name, const ErrorStats& s) {
        put(out, "prediction %-11s n %8llu mean %.4f rms %.4f p95 %.4f max %.4f mm\n", name, ull(s.n()), s.mean(),
            s.rms(), s.percentile(0.95), s.max());
    };
    predMm("predicted", meter_.predictedMm());
    predMm("unpredicted", meter_.unpredictedMm());
    put(out, "prediction settings predictionS %.4f s virtualSyncCtrl %ld ahead %.1f ms\n", opt_.prediction.predictionS,
        opt_.prediction.virtualSyncCtrl, static_cast<double>(aheadUs_) / 1000.0);
    for (size_t i = 0; i < horizons_.size(); ++i) {
        const PredictionMeter& h = horizons_[i];
        put(out,
            "horizon    %5.1f ms n %8llu predicted mean %.4f rms %.4f p95 %.4f max %.4f deg unpredicted mean %.4f "
            "p95 %.4f max %.4f deg\n",
            opt_.horizonsMs[i], ull(h.predicted().n()), h.predicted().mean(), h.predicted().rms(),
            h.predicted().percentile(0.95), h.predicted().max(), h.unpredicted().mean(),
            h.unpredicted().percentile(0.95), h.unpredicted().max());
    }

    put(out,
        "uplink     platform-poses %llu gps %llu inputs %llu failed %llu last-tag %u reflected-last %u "
        "reflected-distinct %llu reflected-sent %llu\n",
        ull(uplink_.platPoses), ull(uplink_.gps), ull(uplink_.inputs), ull(uplink_.failed), uplink_.lastTag,
        uplink_.lastReflected, ull(uplink_.distinctReflected), ull(uplink_.reflectedSent));

    for (size_t i = 0; i < kChannels; ++i) {
        const ChannelActivity& a = activity_[i];
        if (!a.seen) {
            put(out, "channel    %-9s never received\n", channelName(i));
            continue;
        }
        put(out, "channel    %-9s last %10.1f ms ago  max gap %10.1f ms  typical %8.1f ms%s\n", channelName(i),
            static_cast<double>(sinceUs(i)) / 1e3, static_cast<double>(a.maxGapUs) / 1e3, a.typicalGapUs / 1e3,
            stale(i) ? "  STALE" : "");
    }
    if (poseAges_ > 0)
        put(out, "pose       age last %.2f ms mean %.2f ms (library clock at receipt minus pose time)\n",
            static_cast<double>(poseAgeUs_) / 1e3, meanPoseAgeMs());
    put(out, "status     connections 0x%x %s\n", status_.connections, orvnames::connectionNames(status_.connections).c_str());
    put(out, "status     received 0x%x %s\n", status_.receivedEver, orvnames::receivedNames(status_.receivedEver).c_str());
    put(out, "status     diag-state %u\n", status_.diagState);
    put(out, "status     diag-record state %u error-bytes %u %u %u %u\n", diag_.state, diag_.errorCodes[0],
        diag_.errorCodes[1], diag_.errorCodes[2], diag_.errorCodes[3]);
    const s_OrvAccessSenderDrops& d = status_.senders;
    if (d.entries == 0)
        put(out, "senders    any (udpAllowedSenders not set)\n");
    else
        put(out, "senders    allowed %u dropped-from-others meta %llu image %llu core %llu hub %llu nft %llu\n",
            d.entries, ull(d.meta), ull(d.image), ull(d.core), ull(d.hub), ull(d.nft));
    put(out, "streaming  requests %llu acknowledged %llu state %s\n", ull(streaming_.requests),
        ull(streaming_.acknowledged), streamingText().c_str());
    if (streaming_.lastFailed)
        put(out, "note       the getters succeed without streaming, but nothing that orvRx streams arrives\n");

    if (const orvwatch::Watchdog* w = opt_.watchdog) {
        put(out, "recovery   %s\n", w->countsText().c_str());
        put(out, "recovery   state %s\n", w->stateText(lastUs_).c_str());
        if (!w->lastReason().empty()) put(out, "recovery   last reason %s\n", w->lastReason().c_str());
    }
    put(out, "failures   total %llu\n", ull(failures()));
    for (int c = 0; c < kCallCount; ++c)
        if (failures_[c]) put(out, "failure    %-22s %8llu\n", callName(static_cast<Call>(c)), ull(failures_[c]));
    if (failures() > 0) put(out, "failure    last %s\n", lastFailure_.c_str());
}

}  // namespace orvmon
