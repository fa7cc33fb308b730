#include "Layout.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "Monitor.hpp"

namespace orvmon {

namespace {

// Record counts in the order they are worth a place: the first column fits
// 80 columns, the others come with width.
constexpr Monitor::Kind kShownKinds[] = {
    Monitor::kTracking,       Monitor::kPredicted,  Monitor::kImu,          Monitor::kHub,
    Monitor::kNftPacket,      Monitor::kImageUdp,   Monitor::kErrorCode,    Monitor::kAux,
    Monitor::kDiag,           Monitor::kTargetList, Monitor::kTargetEntry,  Monitor::kPlatPose,
    Monitor::kGps,            Monitor::kResidual,   Monitor::kPoseRec,      Monitor::kNftPose,
    Monitor::kNftFeature,     Monitor::kImageShm,   Monitor::kImageUnattributed};
constexpr int kRecordRows = static_cast<int>(Monitor::kChannels);
constexpr int kChannelWidth = 43;  // the channel columns and their separator
constexpr int kRecordWidth = 38;   // one column of record counts
constexpr int kMinErrorLines = 3, kMinWarningLines = 3;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

// A time in at most 7 characters: "850us", "12.3ms", "4.2s", "17m".
std::string shortTime(double us) {
    if (us < 1000.0) return format("%.0fus", us);
    if (us < 1e6) return format("%.1fms", us / 1e3);
    if (us < 600e6) return format("%.1fs", us / 1e6);
    return format("%.0fm", us / 60e6);
}

double deg(float rad) { return rad * kRadToDeg; }

const char* sourceName(Monitor::Kind k) {
    return k == Monitor::kImageShm ? "shm" : k == Monitor::kImageUdp ? "UDP" : "?";
}

class Screen {
public:
    Screen(int cols, int rows) : cols_(cols), rows_(rows) {}
    void add(std::string line) {
        if (static_cast<int>(lines_.size()) >= rows_) return;
        if (static_cast<int>(line.size()) > cols_) line.resize(static_cast<size_t>(cols_));
        lines_.push_back(std::move(line));
    }
    int left() const { return rows_ - static_cast<int>(lines_.size()); }
    std::vector<std::string> take() { return std::move(lines_); }

private:
    int cols_, rows_;
    std::vector<std::string> lines_;
};

void poses(Screen& s, const Monitor& m) {
    s.add(format("%-5s %9s %9s %8s%8s%8s m  %7s%7s%7s deg", "", "tag", "age", "x", "y", "z", "roll", "pitch",
                 "yaw"));
    if (!m.hasRawPose()) {
        s.add("pose      (none yet)");
    } else {
        const s_OrvAccessTrkDataExt& p = m.rawPose();
        // A stopped stream must not look live: the last pose stays, marked,
        // with the age it has now.
        const bool stale = m.trackingStale();
        const double ageUs = static_cast<double>(stale ? m.poseAgeNowUs() : m.poseAgeUs());
        s.add(format("%-5s %9u %9s %8.3f%8.3f%8.3f    %7.2f%7.2f%7.2f", stale ? "STALE" : "pose", p.packetTag,
                     shortTime(ageUs).c_str(), p.position[0], p.position[1], p.position[2], deg(p.euler[0]),
                     deg(p.euler[1]), deg(p.euler[2])));
    }
    if (!m.hasPredictedPose()) {
        s.add("pred      (none yet)");
    } else {
        const s_OrvAccessTrkDataExt& p = m.predictedPose();
        s.add(format("%-5s %9u %9s %8.3f%8.3f%8.3f    %7.2f%7.2f%7.2f", "pred", p.packetTag,
                     ("+" + shortTime(m.predictedHorizonS() * 1e6)).c_str(), p.position[0], p.position[1],
                     p.position[2], deg(p.euler[0]), deg(p.euler[1]), deg(p.euler[2])));
    }
    const PredictionMeter& pm = m.prediction();
    const ErrorStats& a = pm.predicted();
    const ErrorStats& mm = pm.predictedMm();
    s.add(format("pred.err  attitude mean %.3f p95 %.3f max %.3f deg (unpredicted %.3f)", a.mean(),
                 a.percentile(0.95), a.max(), pm.unpredicted().mean()));
    s.add(format("          position mean %.2f p95 %.2f max %.2f mm (unpredicted %.2f)", mm.mean(),
                 mm.percentile(0.95), mm.max(), pm.unpredictedMm().mean()));
}

std::string recordCell(const Monitor& m, Monitor::Kind k) {
    if (k == Monitor::kImageUdp)  // all images first; where they came from in the wider columns
        return format("%-19s %7.1f %8llu", "images",
                      m.rate(Monitor::kImageUdp) + m.rate(Monitor::kImageShm) + m.rate(Monitor::kImageUnattributed),
                      ull(m.images()));
    return format("%-19s %7.1f %8llu", Monitor::kindName(k), m.rate(k), ull(m.count(k)));
}

void channels(Screen& s, const Monitor& m, int cols) {
    const int shownKinds = static_cast<int>(std::size(kShownKinds));
    const int columns = std::max(1, std::min((cols - kChannelWidth) / kRecordWidth, (shownKinds + 6) / kRecordRows));
    std::string head = format("%-9s %7s %8s %8s %5s |", "channel", "last", "max gap", "usual", "");
    for (int c = 0; c < columns; ++c) head += format(" %-19s %7s %8s ", "records", "rate/s", "total");
    s.add(head);
    for (int row = 0; row < kRecordRows; ++row) {
        const auto i = static_cast<size_t>(row);
        const Monitor::ChannelActivity& a = m.activity(i);
        const auto time = [&](double us) { return a.seen ? shortTime(us) : std::string("-"); };
        std::string line = format("%-9s %7s %8s %8s %5s |", Monitor::channelName(i),
                                  time(static_cast<double>(m.sinceUs(i))).c_str(),
                                  time(static_cast<double>(a.maxGapUs)).c_str(), time(a.typicalGapUs).c_str(),
                                  m.stale(i) ? "STALE" : "");
        for (int c = 0; c < columns; ++c) {
            const int k = c * kRecordRows + row;
            if (k < shownKinds) line += " " + recordCell(m, kShownKinds[k]) + " ";
        }
        s.add(line);
    }
}

void state(Screen& s, const Monitor& m) {
    const auto seq = [](const char* name, const SeqCheck& q) {
        return format("  %s %llu/%llu/%llu", name, ull(q.missing()), ull(q.duplicates()), ull(q.outOfOrder()));
    };
    s.add("missing/duplicate/late" + seq("tracking", m.trackingSeq()) + seq("imu", m.imuSeq()) +
          seq("hub", m.hubSeq()));
    const Monitor::StatusView& st = m.status();
    std::string rx = "orvRx state ?";
    if (m.hasDiag()) {
        const s_OrvAccessDiagData& d = m.lastDiag();
        rx = format("orvRx state %u err %u %u %u %u", d.state, d.errorCodes[0], d.errorCodes[1], d.errorCodes[2],
                    d.errorCodes[3]);
    }
    s.add(format("connected %-39s %s", orvnames::connectionNames(st.connections).c_str(), rx.c_str()));
    if (const orvwatch::Watchdog* w = m.watchdog()) {
        const orvwatch::Watchdog::Counts& c = w->counts();
        s.add(format("stream %s  outages %llu recovered %llu", w->stateText(m.lastPollUs()).c_str(), ull(c.outages),
                     ull(c.recoveries)));
    }
    const Monitor::ImageView& img = m.image();
    const Monitor::UplinkView& up = m.uplink();
    const std::string image = img.any ? format("image %3d%% #%u %dx%dx%d %s", img.percent, img.sequenceId, img.width,
                                               img.height, img.bytesPerPixel, sourceName(img.source))
                                      : format("image %3d%% none complete", img.percent);
    s.add(format("%-34s uplink pose/gps/input %llu/%llu/%llu failed %llu", image.c_str(), ull(up.platPoses),
                 ull(up.gps), ull(up.inputs), ull(up.failed)));
}

void errorsAndWarnings(Screen& s, const Monitor& m, const ViewText& v) {
    std::vector<std::string> warnings;
    // Unacknowledged, the getters still succeed: this line is all that tells.
    if (m.streaming().lastFailed)
        warnings.push_back("streaming " + m.streamingText() + "; nothing that orvRx streams will arrive");
    if (m.failures() > 0)
        warnings.push_back(format("%llu failed calls, the last: %s", ull(m.failures()), m.lastFailure().c_str()));
    // Someone else sends to the tracker's ports: worth knowing at once.
    if (m.status().sendersDropped() > 0)
        warnings.push_back(format("%llu datagrams from senders not in udpAllowedSenders dropped",
                                  ull(m.status().sendersDropped())));
    warnings.insert(warnings.end(), v.warnings.begin(), v.warnings.end());

    const int spare = std::max(0, s.left() - 1 - kMinErrorLines - kMinWarningLines);
    const int errorLines =
        std::min<int>(static_cast<int>(Monitor::kLastErrors), kMinErrorLines + spare);
    const int warningLines = std::max(kMinWarningLines, s.left() - 1 - errorLines);

    s.add(format("errors    %llu in all; the last:", ull(m.count(Monitor::kErrorCode))));
    for (int i = 0; i < errorLines; ++i) {
        if (static_cast<size_t>(i) >= m.lastErrorCount()) {
            s.add("");
            continue;
        }
        const Monitor::ErrorEvent& e = m.lastError(static_cast<size_t>(i));
        s.add(format("  %5u value %-10u %s", e.code, e.value, m.messageOf(e.code).c_str()));
    }
    const int n = static_cast<int>(warnings.size());
    for (int i = 0; i < std::min(n, warningLines); ++i) {
        if (i == warningLines - 1 && n > warningLines) {
            s.add(format("! ... and %d more (orvctl check shows them)", n - i));
            break;
        }
        s.add("! " + warnings[static_cast<size_t>(i)]);
    }
}

}  // namespace

std::vector<std::string> layoutView(const Monitor& m, const ViewText& v, int cols, int rows) {
    Screen s(cols, rows);
    s.add(format("%s   t=%.1fs   q quits%s", v.title.c_str(), m.runTimeS(), v.inputKey ? ", i sends input" : ""));
    poses(s, m);
    channels(s, m, cols);
    state(s, m);
    errorsAndWarnings(s, m, v);
    return s.take();
}

}  // namespace orvmon
