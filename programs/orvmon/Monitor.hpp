// The monitor's core: polls an open OrvAccess the way a renderer would and
// keeps statistics of everything that arrives. No terminal here; the live
// view and the plain output only read it. All storage is allocated in the
// constructor, so polling does not allocate.
#pragma once

#include <orvaccess/OrvAccess.hpp>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <iterator>
#include <string>
#include <vector>

#include "PredictionError.hpp"
#include "Names.hpp"
#include "SeqCheck.hpp"
#include "Settings.hpp"
#include "watch/Watchdog.hpp"

namespace orvmon {

struct MonitorOptions {
    double aheadMs = 20.0;  // display time = library clock + this
    bool uplink = false;    // send platform pose, GPS and input data
    PredictionSettings prediction;
    // Fixed horizons, ms from the pose time, at which the library's
    // prediction is measured as well: how the error grows with the interval.
    std::vector<double> horizonsMs = {0.0, 10.0, 20.0, 40.0};
    // One line per predicted tracking record, once it is measured; null: none.
    std::ostream* csv = nullptr;
    // Gets the streams back when they stop; null: the monitor only watches.
    orvwatch::Watchdog* watchdog = nullptr;
};

class Monitor {
public:
    enum Kind {
        kTracking,    // reported poses from orvCore, each pose time once
        kPredicted,   // predicted poses handed out for the display time
        kNftPose,     // reported poses from the NFT source
        kImu,
        kAux,
        kDiag,
        kTargetEntry,
        kTargetList,
        kPlatPose,
        kGps,
        kResidual,
        kPoseRec,
        kNftPacket,
        kNftFeature,
        kHub,
        kImageUdp,
        kImageShm,
        kImageUnattributed,
        kErrorCode,
        kKindCount
    };
    // The library calls whose failures are counted.
    enum Call {
        cAtTime,
        cLatest,
        cImu,
        cAux,
        cDiag,
        cTarget,
        cPlatPose,
        cGps,
        cResidual,
        cPoseRec,
        cFeature,
        cHub,
        cImage,
        cImageInfo,
        cStatus,
        cSetStreaming,
        cSetPlatPose,
        cSetGps,
        cSendInput,
        kCallCount
    };
    static const char* kindName(Kind k);
    static const char* callName(Call c);

    struct StatusView {
        uint32_t connections = 0;   // as last read
        uint32_t received = 0;      // bits seen in the last ~100 ms
        uint32_t receivedEver = 0;  // bits seen during the whole run
        uint32_t diagState = 0;     // last non-zero state word
        bool read = false;
        s_OrvAccessSenderDrops senders{};  // dropped by udpAllowedSenders since open
        uint64_t sendersDropped() const {
            return senders.meta + senders.image + senders.core + senders.hub + senders.nft;
        }
    };
    struct ImageView {
        int percent = 0;  // progress of the image being received
        bool any = false;
        int format = 0;
        unsigned int sequenceId = 0;
        unsigned long size = 0;
        int width = 0, height = 0, bytesPerPixel = 0;
        Kind source = kImageUdp;
    };
    struct UplinkView {
        uint64_t platPoses = 0, gps = 0, inputs = 0, failed = 0;
        bool sentAny = false;
        uint32_t lastTag = 0;
        // platPoseTime of the reported poses: the newest, how many distinct
        // values, and how many of those are tags this monitor sent.
        uint32_t lastReflected = 0;
        uint64_t distinctReflected = 0;
        uint64_t reflectedSent = 0;
    };
    // The monitor asks for streaming itself, before the getters would, so
    // that an orvRx that never acknowledges shows: the getters go on
    // succeeding with nothing streamed, and the library says no more.
    struct StreamingView {
        uint64_t requests = 0;      // asked while the library believed it stopped
        uint64_t acknowledged = 0;  // of these, acknowledged by orvRx
        bool lastFailed = false;    // the newest request went unacknowledged, and nothing streamed came since
        bool streamed = false;      // meta, tracking, image or PRA datagrams arrived at some time
        std::string reason;         // the library's last error at that request
    };
    // Datagram arrivals of one receiving channel, from the status word's
    // received bits, read at every poll.
    struct ChannelActivity {
        bool seen = false;
        uint64_t lastUs = 0;        // the poll that saw its newest datagram
        uint64_t maxGapUs = 0;      // the longest quiet time between two datagrams
        double typicalGapUs = 0.0;  // running mean of the quiet times
    };
    static constexpr size_t kChannels = std::size(orvnames::kReceivedBits);
    static const char* channelName(size_t i) { return orvnames::kReceivedBits[i].name; }
    // A channel is stale when it has been quiet this many times its usual
    // interval, and at least kStaleMinUs.
    static constexpr double kStaleFactor = 5.0;
    static constexpr uint64_t kStaleMinUs = 500000;
    struct CodeCount {
        uint16_t code;
        uint64_t count;
        std::string message;
    };
    struct ErrorEvent {
        uint16_t code;
        uint32_t value;
        uint64_t timeUs;
    };
    static constexpr size_t kLastErrors = 5;

    Monitor(OrvAccess& access, const MonitorOptions& options);

    // One pass over everything; nowUs is the library clock (getTimeUs()).
    void poll(uint64_t nowUs);
    // Ends a run: switches streaming off and, for a moment, takes in what was
    // already on its way (the status call services the ports without asking
    // for more), so that every error code the system sent is counted.
    void finish();
    // Sends one input byte now (the live view's key); false when not sent.
    bool sendInput();

    uint64_t count(Kind k) const { return counts_[k]; }
    uint64_t images() const { return counts_[kImageUdp] + counts_[kImageShm] + counts_[kImageUnattributed]; }
    // Per second over about the last second.
    double rate(Kind k) const;
    double runTimeS() const;
    // The library clock of the newest poll.
    uint64_t lastPollUs() const { return lastUs_; }

    const SeqCheck& trackingSeq() const { return trackSeq_; }
    const SeqCheck& imuSeq() const { return imuSeq_; }
    const SeqCheck& hubSeq() const { return hubSeq_; }
    const PredictionMeter& prediction() const { return meter_; }
    // The error at each of options.horizonsMs, in that order.
    size_t horizonCount() const { return horizons_.size(); }
    double horizonMs(size_t i) const { return opt_.horizonsMs[i]; }
    const PredictionMeter& horizon(size_t i) const { return horizons_[i]; }

    const ChannelActivity& activity(size_t i) const { return activity_[i]; }
    // Time since the channel's newest datagram, as of the last poll.
    uint64_t sinceUs(size_t i) const { return activity_[i].seen ? lastUs_ - activity_[i].lastUs : 0; }
    bool stale(size_t i) const;
    bool trackingStale() const;
    // Names of the stale channels, e.g. "image pra"; "" when none.
    std::string staleNames() const;

    // The newest pose's age: library clock at its receipt minus its pose time.
    int64_t poseAgeUs() const { return poseAgeUs_; }
    // The same as of the last poll: it grows while no pose arrives.
    int64_t poseAgeNowUs() const { return static_cast<int64_t>(lastUs_) - static_cast<int64_t>(raw_.poseTime); }
    double meanPoseAgeMs() const { return poseAges_ ? poseAgeSumUs_ / static_cast<double>(poseAges_) / 1e3 : 0.0; }

    bool hasRawPose() const { return hasRaw_; }
    const s_OrvAccessTrkDataExt& rawPose() const { return raw_; }
    bool hasPredictedPose() const { return hasPredicted_; }
    const s_OrvAccessTrkDataExt& predictedPose() const { return predicted_; }
    double predictedHorizonS() const { return predictedHorizonS_; }

    bool hasDiag() const { return hasDiag_; }
    const s_OrvAccessDiagData& lastDiag() const { return diag_; }
    const StatusView& status() const { return status_; }
    const ImageView& image() const { return image_; }
    const UplinkView& uplink() const { return uplink_; }
    const StreamingView& streaming() const { return streaming_; }
    // "not requested", "acknowledged", "never acknowledged by orvRx: <reason>"
    // or "last request not acknowledged by orvRx: <reason>".
    std::string streamingText() const;
    const orvwatch::Watchdog* watchdog() const { return opt_.watchdog; }

    const std::vector<CodeCount>& errorCodes() const { return codes_; }
    // The newest first; at most kLastErrors.
    size_t lastErrorCount() const { return lastErrorsCount_; }
    const ErrorEvent& lastError(size_t newestFirst) const;
    const std::string& messageOf(uint16_t code) const;

    uint64_t failures(Call c) const { return failures_[c]; }
    uint64_t failures() const;
    const std::string& lastFailure() const { return lastFailure_; }

    void writeSummary(std::ostream& out) const;
    void writeLine(std::ostream& out) const;

private:
    static constexpr size_t kMaxPerLoop = 20000;  // bound of one pop loop per poll
    static constexpr size_t kMaxCodes = 256;      // distinct error codes kept by name
    static constexpr size_t kSentTags = 512;      // ~10 s of platform poses at 50 Hz
    static constexpr size_t kSnapshots = 11;      // rate window: 1 s in 100 ms steps

    template <typename Pop>
    void drain(Call c, Pop&& pop);
    void fail(Call c);
    void pollTracking(uint64_t nowUs);
    void measureHorizons();
    void pollQueues();
    void pollErrors(uint64_t nowUs);
    void pollImage();
    void readStatus();
    void requestStreaming();
    void pollUplink(uint64_t nowUs);
    void noteReflected(uint32_t platPoseTime);
    void noteActivity(uint64_t nowUs);
    static void writeCsvLine(const PredictionMatch& m, void* self);
    void snapshot(uint64_t nowUs);

    OrvAccess& access_;
    MonitorOptions opt_;
    float predictionF_;
    uint64_t aheadUs_;

    std::array<uint64_t, kKindCount> counts_{};
    std::array<uint64_t, kCallCount> failures_{};
    std::string lastFailure_;

    bool started_ = false;
    uint64_t startUs_ = 0, lastUs_ = 0;
    uint64_t nextImageUs_ = 0, nextStatusUs_ = 0, nextPlatUs_ = 0, nextGpsUs_ = 0, nextInputUs_ = 0;

    struct Snapshot {
        uint64_t timeUs = 0;
        std::array<uint64_t, kKindCount> counts{};
    };
    std::array<Snapshot, kSnapshots> snaps_{};
    size_t snapNext_ = 0, snapCount_ = 0;

    SeqCheck trackSeq_{1, true};  // packet tags count IMU samples: step learned
    SeqCheck imuSeq_;
    SeqCheck hubSeq_;
    PredictionMeter meter_;
    std::vector<PredictionMeter> horizons_;

    s_OrvAccessTrkDataExt scratch_{};
    s_OrvAccessTrkDataExt raw_{}, predicted_{};
    bool hasRaw_ = false, hasPredicted_ = false;
    bool seenTrack_ = false, seenNft_ = false;
    uint64_t lastTrackTime_ = 0, lastNftTime_ = 0;
    int64_t poseAgeUs_ = 0;
    double poseAgeSumUs_ = 0.0;
    uint64_t poseAges_ = 0;
    double predictedHorizonS_ = 0.0;

    s_OrvAccessDiagData diag_{};
    bool hasDiag_ = false;
    bool haveNftSeq_ = false;
    uint32_t lastNftSeq_ = 0;

    StatusView status_;
    uint32_t receivedWindow_ = 0;
    uint32_t receivedPoll_ = 0;  // bits seen since the last activity update
    std::array<ChannelActivity, kChannels> activity_{};
    bool imagePacketsSinceImage_ = false;
    ImageView image_;
    std::vector<unsigned char> imageBuf_;

    StreamingView streaming_;
    UplinkView uplink_;
    std::array<uint32_t, kSentTags> sentTags_{};
    std::array<bool, kSentTags> sentReflected_{};
    size_t sentNext_ = 0, sentCount_ = 0;
    bool reflectedAny_ = false;

    std::vector<CodeCount> codes_;
    uint64_t codesOther_ = 0;
    std::array<ErrorEvent, kLastErrors> lastErrors_{};
    size_t lastErrorsNext_ = 0, lastErrorsCount_ = 0;
};

}  // namespace orvmon
