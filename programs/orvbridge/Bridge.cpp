#include "Bridge.hpp"

#include "Names.hpp"

#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

namespace orvbridge {

namespace {

constexpr uint64_t kStatusPeriodUs = 1000000;
constexpr uint64_t kUsPerMs = 1000;
constexpr double kMsPerS = 1000.0;
constexpr int kTakeBatch = 32;
// Uplink samples a reader holds before DDS rejects (and counts) the next
// ones: never silently replaced, as a keep-last history would.
constexpr int32_t kUplinkQueue = 1024;

// Cyclone DDS's defaults for the bridge, under what CYCLONEDDS_URI says (a
// later source wins). A participant lease of 5 s instead of 10, announced
// every second instead of every 8: Fast DDS readers do not act on the
// bridge's goodbye and see it gone only when its lease runs out, and with
// one announcement per lease a single lost datagram ended it.
constexpr const char* kDdsDefaults =
    "<CycloneDDS><Domain id=\"any\"><Discovery><LeaseDuration>5s</LeaseDuration>"
    "<SPDPInterval>1s</SPDPInterval></Discovery></Domain></CycloneDDS>";

int uplinkIndex(Topic t) { return static_cast<int>(t) - static_cast<int>(Topic::UplinkPlatform); }

std::string hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", v);
    return text;
}

}  // namespace

Bridge::Bridge(OrvAccess& access, Options options) : access_(access), opt_(std::move(options)) {}

Bridge::~Bridge() {
    // Deleting the participant deletes everything in it; a reliable writer
    // first lingers until its readers have what it wrote.
    if (participant_ > 0) dds_delete(participant_);
    if (domain_ > 0) dds_delete(domain_);
}

bool Bridge::open(std::string& error) {
    const char* uri = std::getenv("CYCLONEDDS_URI");
    const std::string config =
        std::string(kDdsDefaults) + (uri != nullptr && *uri != '\0' ? "," + std::string(uri) : "");
    // A domain this process already joined keeps its configuration.
    domain_ = dds_create_domain(static_cast<dds_domainid_t>(opt_.domain), config.c_str());
    if (domain_ < 0) domain_ = 0;
    participant_ = dds_create_participant(static_cast<dds_domainid_t>(opt_.domain), nullptr, nullptr);
    if (participant_ < 0) {
        error = "cannot join DDS domain " + std::to_string(opt_.domain) + ": " + dds_strretcode(participant_) +
                "; check the domain id (0 to 232) and the Cyclone DDS configuration that CYCLONEDDS_URI names";
        participant_ = 0;
        return false;
    }
    waitset_ = dds_create_waitset(participant_);
    // The uplink readers sit in a subscriber of their own, so that a
    // partition, when named, applies to them alone.
    dds_entity_t uplinkSubscriber = participant_;
    if (opt_.uplink && !opt_.uplinkPartition.empty()) {
        dds_qos_t* q = dds_create_qos();
        dds_qset_partition1(q, opt_.uplinkPartition.c_str());
        uplinkSubscriber = dds_create_subscriber(participant_, q, nullptr);
        dds_delete_qos(q);
        if (uplinkSubscriber < 0) {
            error = "cannot create the uplink subscriber in partition " + opt_.uplinkPartition + ": " +
                    dds_strretcode(uplinkSubscriber);
            return false;
        }
    }
    limits_.assign(3, RateLimit(opt_.uplinkRatePerS, opt_.uplinkBurst));
    for (int i = 0; i < kTopicCount; ++i) {
        const Topic t = static_cast<Topic>(i);
        // Without --uplink the uplink topics are not read at all: no reader,
        // so nothing a participant publishes there reaches the tracker.
        if (topicInfo(t).service == Service::Uplink && !opt_.uplink) continue;
        const std::string name = topicName(t, opt_.ns);
        const dds_entity_t topic = dds_create_topic(participant_, topicInfo(t).type, name.c_str(), nullptr, nullptr);
        if (topic < 0) {
            error = "cannot create the DDS topic " + name + ": " + dds_strretcode(topic) +
                    (topic == DDS_RETCODE_BAD_PARAMETER ? "; --namespace must be a valid topic name part" : "");
            return false;
        }
        dds_qos_t* qos = topicQos(t, opt_.reliable, opt_.maxBlockingMs);
        dds_entity_t e;
        if (topicInfo(t).service == Service::Uplink) {
            dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
            dds_qset_resource_limits(qos, kUplinkQueue, DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
            e = readers_[i] = dds_create_reader(uplinkSubscriber, topic, qos, nullptr);
            if (e > 0) {
                dds_set_status_mask(e, DDS_DATA_AVAILABLE_STATUS);
                dds_waitset_attach(waitset_, e, e);
            }
        } else {
            e = writers_[i] = dds_create_writer(participant_, topic, qos, nullptr);
        }
        dds_delete_qos(qos);
        if (e < 0) {
            error = "cannot create a DDS endpoint on " + name + ": " + dds_strretcode(e);
            return false;
        }
    }
    // The stream carries poses as reported; the predicted pose gets the
    // interval only for the one call that asks for it.
    access_.setPrediction(0.0f);
    return true;
}

int Bridge::poseSubscribers() const {
    dds_publication_matched_status_t st{};
    if (dds_get_publication_matched_status(writers_[static_cast<int>(Topic::Pose)], &st) < 0) return 0;
    return static_cast<int>(st.current_count);
}

int Bridge::uplinkWriters(Topic t) const {
    dds_subscription_matched_status_t st{};
    const dds_entity_t r = readers_[static_cast<int>(t)];
    if (r <= 0 || dds_get_subscription_matched_status(r, &st) < 0) return 0;
    return static_cast<int>(st.current_count);
}

bool Bridge::write(Topic t, const void* sample) {
    const int i = static_cast<int>(t);
    const dds_return_t rc = dds_write(writers_[i], sample);
    if (rc < 0) {
        ++counts_.writeFailures;
        counts_.lastFailure = "writing " + topicName(t, opt_.ns) + ": " + dds_strretcode(rc);
        return false;
    }
    ++counts_.written[i];
    return true;
}

void Bridge::fail(const std::string& what) {
    ++counts_.libraryFailures;
    counts_.lastFailure = what + ": " + access_.getLastError();
}

void Bridge::pass(uint64_t nowUs) {
    drainLibrary();
    if (opt_.uplink) takeUplink(nowUs);
    if (nowUs >= nextStatusUs_) {
        discardUnpublished();
        writeStatus(nowUs);
        nextStatusUs_ = nowUs + kStatusPeriodUs;
    }
    // Last: a reopen drops whatever the library still holds.
    if (watchdog_ != nullptr) watchdog_->step(nowUs);
}

template <typename R, typename Get, typename Each>
void Bridge::drain(const char* getter, Get get, Each each) {
    for (;;) {
        bool valid = false;
        R r{};
        if (!get(&valid, &r)) return fail(getter);
        if (!valid) return;
        each(r);
    }
}

void Bridge::drainLibrary() {
    // Every queue is emptied, oldest first: a consumer of the bridge gets
    // each record, not a sample of them.
    OrvAccess& a = access_;
    bool anyPose = false;
    drain<s_OrvAccessTrkDataExt>(
        "getTrackingData", [&](bool* v, s_OrvAccessTrkDataExt* r) { return a.getTrackingData(v, r); },
        [&](const s_OrvAccessTrkDataExt& r) {
            anyPose = true;
            const auto pose = toPose(r, r.poseTime, opt_.attitude, opt_.frame.c_str());
            write(Topic::Pose, &pose);
            const auto record = toRecord(r);
            write(Topic::Tracking, &record);
        });
    if (anyPose) writePredicted();
    drain<s_OrvAccessImuData>(
        "getImuData", [&](bool* v, s_OrvAccessImuData* r) { return a.getImuData(ORVACCESS_IMU_CAMERA, v, r); },
        [&](const s_OrvAccessImuData& r) {
            const auto imu = toImu(r, opt_.imuFrame.c_str());
            write(Topic::Imu, &imu);
        });
    drain<s_OrvAccessPlatPoseData>(
        "getPlatformPoseData", [&](bool* v, s_OrvAccessPlatPoseData* r) { return a.getPlatformPoseData(v, r); },
        [&](const s_OrvAccessPlatPoseData& r) {
            const auto pose = toPlatformPose(r);
            write(Topic::PlatformPose, &pose);
        });
    drain<s_OrvAccessGpsData>(
        "getGpsData", [&](bool* v, s_OrvAccessGpsData* r) { return a.getGpsData(v, r); },
        [&](const s_OrvAccessGpsData& r) {
            // The record has no time of its own: it is stamped when it is taken.
            const auto fix = toFix(r, a.getTimeUs(), opt_.gpsFrame.c_str());
            write(Topic::GpsFix, &fix);
            const auto gps = toGps(r);
            write(Topic::Gps, &gps);
        });
    drain<s_OrvAccessHubData>(
        "getHubData", [&](bool* v, s_OrvAccessHubData* r) { return a.getHubData(v, r); },
        [&](const s_OrvAccessHubData& r) {
            const auto hub = toHub(r);
            write(Topic::Hub, &hub);
        });
    drain<OrvAccess::s_TgtResData>(
        "getTargetResData", [&](bool* v, OrvAccess::s_TgtResData* r) { return a.getTargetResData(v, r); },
        [&](const OrvAccess::s_TgtResData& r) {
            const auto res = toResidual(r);
            write(Topic::Residuals, &res);
        });
    s_OrvAccessErrorCode e{};
    while (a.getErrorCode(&e) != 0) {
        const std::string message = orvnames::errorText(e.code, a.getErrorMessage(e.code));
        orv_msgs_msg_dds__ErrorCode_ s{e.code, e.value, const_cast<char*>(message.c_str())};
        write(Topic::Errors, &s);
    }
}

void Bridge::discardUnpublished() {
    // A queue nobody takes fills up to its bound (10,000 records by default)
    // and keeps its grown ring: the bridge's memory would creep up for
    // minutes. Once a second keeps them short at the cost of one call each.
    OrvAccess& a = access_;
    const auto count = [this](const auto&) { ++counts_.unpublished; };
    drain<s_OrvAccessImuData>(
        "getImuData", [&](bool* v, s_OrvAccessImuData* r) { return a.getImuData(ORVACCESS_IMU_PLATFORM, v, r); },
        count);
    drain<s_OrvAccessAuxData>("getAuxData", [&](bool* v, s_OrvAccessAuxData* r) { return a.getAuxData(v, r); },
                              count);
    drain<OrvAccess::s_TgtData>(
        "getTargetData", [&](bool* v, OrvAccess::s_TgtData* r) { return a.getTargetData(v, r); }, count);
    drain<s_OrvAccessDiagData>("getDiagData", [&](bool* v, s_OrvAccessDiagData* r) { return a.getDiagData(v, r); },
                               count);
    drain<s_OrvAccessPoseRecStats>(
        "getPoseRecoveryStats", [&](bool* v, s_OrvAccessPoseRecStats* r) { return a.getPoseRecoveryStats(v, r); },
        count);
    drain<OrvAccess::s_FeatData>(
        "getFeatureData", [&](bool* v, OrvAccess::s_FeatData* r) { return a.getFeatureData(v, r); }, count);
}

void Bridge::writePredicted() {
    // The library's own prediction of the newest pose, by the horizon beyond
    // its pose time; the stamp is the time the pose is predicted for.
    const uint64_t horizonUs = static_cast<uint64_t>(opt_.horizonMs * kUsPerMs);
    bool valid = false;
    s_OrvAccessTrkDataExt p{};
    access_.setPrediction(static_cast<float>(opt_.horizonMs / kMsPerS));
    const bool ok = access_.getTrackingDataLatest(&valid, &p);
    access_.setPrediction(0.0f);
    if (!ok) return fail("getTrackingDataLatest");
    if (!valid) return;
    const auto pose = toPose(p, p.poseTime + horizonUs, opt_.attitude, opt_.frame.c_str());
    write(Topic::PosePredicted, &pose);
}

// Samples DDS dropped before the take (a best-effort gap it noticed, or a
// full reader) were written and never sent up: they count as failed.
void Bridge::countLostUplink(Topic t) {
    const dds_entity_t reader = readers_[static_cast<int>(t)];
    dds_sample_lost_status_t lost{};
    dds_sample_rejected_status_t rejected{};
    uint64_t n = 0;
    if (dds_get_sample_lost_status(reader, &lost) == DDS_RETCODE_OK) n += lost.total_count_change;
    if (dds_get_sample_rejected_status(reader, &rejected) == DDS_RETCODE_OK) n += rejected.total_count_change;
    if (n == 0) return;
    counts_.uplinkLost += n;
    counts_.uplinkFailed += n;
    counts_.lastFailure = std::to_string(n) + " samples on " + topicName(t, opt_.ns) +
                          " lost before the bridge took them (the writer outruns the bridge or the network)";
}

// Whether a sample may go up; a refused one is counted with its reason.
bool Bridge::checkUplink(Topic t, const void* sample, uint64_t nowUs) {
    const char* why = nullptr;
    if (t == Topic::UplinkPlatform)
        why = uplinkRefusal(*static_cast<const orv_msgs_msg_dds__PlatformPose_*>(sample));
    else if (t == Topic::UplinkGps)
        why = uplinkRefusal(*static_cast<const orv_msgs_msg_dds__GpsData_*>(sample));
    if (why != nullptr) {
        ++counts_.uplinkRefusedValue;
        counts_.lastFailure = "refused a sample on " + topicName(t, opt_.ns) + ": " + why;
        return false;
    }
    if (!limits_[static_cast<size_t>(uplinkIndex(t))].take(nowUs)) {
        ++counts_.uplinkRefusedRate;
        counts_.lastFailure = "refused samples on " + topicName(t, opt_.ns) + ": more than " +
                              std::to_string(static_cast<long long>(opt_.uplinkRatePerS)) +
                              " a second (--uplink-rate)";
        return false;
    }
    return true;
}

void Bridge::takeUplink(uint64_t nowUs) {
    for (const Topic t : {Topic::UplinkPlatform, Topic::UplinkGps, Topic::UplinkInput}) {
        const dds_entity_t reader = readers_[static_cast<int>(t)];
        for (;;) {
            void* samples[kTakeBatch] = {nullptr};  // a null first entry: Cyclone lends its own
            dds_sample_info_t infos[kTakeBatch];
            const dds_return_t n = dds_take(reader, samples, infos, kTakeBatch, kTakeBatch);
            if (n <= 0) break;
            for (int i = 0; i < n; ++i) {
                if (!infos[i].valid_data) continue;
                ++counts_.written[static_cast<int>(t)];
                if (!checkUplink(t, samples[i], nowUs)) continue;
                bool sent = false;
                if (t == Topic::UplinkPlatform) {
                    sent = access_.setPlatformPoseData(
                        fromPlatformPose(*static_cast<const orv_msgs_msg_dds__PlatformPose_*>(samples[i])));
                } else if (t == Topic::UplinkGps) {
                    s_OrvAccessGpsData gps = fromGps(*static_cast<const orv_msgs_msg_dds__GpsData_*>(samples[i]));
                    sent = access_.setGpsData(&gps);
                } else {
                    sent = access_.sendInputData(static_cast<const orv_msgs_msg_dds__InputData_*>(samples[i])->code);
                }
                if (sent) {
                    ++counts_.uplinkSent;
                } else {
                    ++counts_.uplinkFailed;
                    counts_.lastFailure = "sending " + topicName(t, opt_.ns) + " up: " + access_.getLastError();
                }
            }
            dds_return_loan(reader, samples, n);
            if (n < kTakeBatch) break;
        }
        countLostUplink(t);
    }
}

void Bridge::writeStatus(uint64_t nowUs) {
    enum : uint8_t { kOk = 0, kWarn = 1, kError = 2 };
    s_OrvAccessStatus st{};
    const bool ok = access_.getStatus(&st);
    if (!ok) fail("getStatus");
    std::string stream, recovery;
    if (watchdog_ != nullptr) {
        // The watchdog reads the status between these reads: its bits count too.
        if (ok) watchdog_->observe(nowUs, st);
        st.received |= watchdog_->takeReceived();
        stream = watchdog_->stateText(nowUs);
        recovery = watchdog_->countsText();
    }
    uint8_t level = kOk;
    std::string message = "tracking arriving";
    if (!ok) {
        level = kError;
        message = counts_.lastFailure;
    } else if ((st.received & ORVACCESS_RECV_TRACKING) == 0) {
        level = kWarn;
        message = stream.empty() ? "no tracking in the last second" : "no tracking in the last second: " + stream;
    }
    const std::pair<std::string, std::string> values[] = {
        {"stream", stream},
        {"recovery", recovery},
        {"connections", hex(st.connections)},
        {"received", hex(st.received)},
        {"new error", std::to_string(st.newError)},
        {"orvRx state", std::to_string(st.diagState)},
        {"poses published", std::to_string(counts_.of(Topic::Pose))},
        {"imu samples published", std::to_string(counts_.of(Topic::Imu))},
        {"uplink sent", std::to_string(counts_.uplinkSent)},
        {"uplink failed", std::to_string(counts_.uplinkFailed)},
        {"uplink lost", std::to_string(counts_.uplinkLost)},
        {"uplink refused out of range", std::to_string(counts_.uplinkRefusedValue)},
        {"uplink refused above the rate", std::to_string(counts_.uplinkRefusedRate)},
        {"write failures", std::to_string(counts_.writeFailures)},
        {"library failures", std::to_string(counts_.libraryFailures)},
        {"last failure", counts_.lastFailure},
    };
    std::vector<diagnostic_msgs_msg_dds__KeyValue_> kv;
    for (const auto& [k, v] : values)
        kv.push_back({const_cast<char*>(k.c_str()), const_cast<char*>(v.c_str())});
    const std::string name = "orvbridge: tracker";
    diagnostic_msgs_msg_dds__DiagnosticStatus_ status{};
    status.level = level;
    status.name = const_cast<char*>(name.c_str());
    status.message = const_cast<char*>(message.c_str());
    status.hardware_id = const_cast<char*>(opt_.hardwareId.c_str());
    status.values._length = status.values._maximum = static_cast<uint32_t>(kv.size());
    status.values._buffer = kv.data();
    status.values._release = false;
    diagnostic_msgs_msg_dds__DiagnosticArray_ array{};
    array.header.stamp = rosTime(nowUs);
    array.header.frame_id = const_cast<char*>("");
    array.status._length = array.status._maximum = 1;
    array.status._buffer = &status;
    array.status._release = false;
    write(Topic::Diagnostics, &array);
}

void Bridge::wait(int64_t timeoutUs) { dds_waitset_wait(waitset_, nullptr, 0, DDS_USECS(timeoutUs)); }

}  // namespace orvbridge
