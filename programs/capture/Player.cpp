#include "capture/Player.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <limits>

#include "os/OrvosiUdp.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvsim/RxServer.hpp"
#include "capture/Pcap.hpp"
#include "capture/Retime.hpp"

namespace orvtools {

namespace {

constexpr uint64_t kProgressUs = 500000;
constexpr uint64_t kNapUs = 1000;           // longest sleep: commands stay answered
constexpr uint64_t kLoneFrameGapUs = 1000;  // between passes of a one-frame recording
constexpr int kLagSamples = 10000;          // clocked datagrams looked at before a retimed replay

void napUs(uint64_t us) {
    if (us > 0) usleep(static_cast<useconds_t>(std::min(us, kNapUs)));
}

}  // namespace

struct Player::Impl {
    std::unique_ptr<OrvosiUdpServer> senders[kChannelCount];
    std::unique_ptr<orvsim::RxServer> rx;
    std::filesystem::path tempFolder;

    uint64_t startUs = 0;   // the replay clock's origin
    uint64_t pausedUs = 0;  // time spent waiting for streaming, added to every later moment
    uint64_t lastProgressUs = 0;
    int64_t loopOffsetUs = 0;  // recorded time that earlier passes covered

    // Retiming: how long after its clock field a datagram was captured, at
    // the least; a clock value plus this is its place in the recording.
    int64_t lagUs = 0;
    uint64_t windowStartUs = 0;

    ~Impl() {
        rx.reset();
        std::error_code ec;
        if (!tempFolder.empty()) std::filesystem::remove_all(tempFolder, ec);
    }
};

namespace {

// Keeps the most frequent destination ports of traffic that is no channel.
void countOtherPort(PlayReport& r, uint16_t port) {
    PlayReport::Port* least = &r.otherPorts[0];
    for (PlayReport::Port& p : r.otherPorts) {
        if (p.count > 0 && p.port == port) {
            ++p.count;
            return;
        }
        if (p.count < least->count) least = &p;
    }
    if (least->count == 0) *least = {port, 1};
}

}  // namespace

Player::Player(PlayOptions options) : opt_(std::move(options)), impl_(new Impl) {}
Player::~Player() = default;

bool Player::streaming() const { return !impl_->rx || impl_->rx->streaming(); }

bool Player::open(std::string& error) {
    if (!(opt_.speed > 0.0)) {
        error = "The speed must be above 0";
        return false;
    }
    if (!(opt_.maxGapS > 0.0)) {
        error = "The longest gap must be above 0 s";
        return false;
    }
    if (opt_.retime && opt_.fast) {
        error = "--retime needs a pace to map times to; use --speed instead of --fast";
        return false;
    }
    if (!Channels::fromIni(opt_.ini, target_, error)) return false;
    if (!Channels::fromIni(opt_.recordedIni.empty() ? opt_.ini : opt_.recordedIni, recorded_, error))
        return false;
    PcapReader probe;
    if (!probe.open(opt_.file, error)) return false;
    if (!FrameDecoder(probe.linkType()).supported()) {
        error = opt_.file + ": link type " + std::to_string(probe.linkType()) +
                " is not one orvplay reads (Ethernet, Linux cooked, raw IP, BSD loopback)";
        return false;
    }
    for (const Channel& c : target_.all()) {
        if (c.proto != Proto::Udp || c.port == 0 || c.id == ChannelId::Uplink) continue;
        std::unique_ptr<OrvosiUdpServer>& s = impl_->senders[static_cast<int>(c.id)];
        s.reset(new OrvosiUdpServer());
        const std::string to = opt_.to + ":" + std::to_string(c.port);
        if (!s->open(to.c_str())) {
            error = "Cannot send to " + to + " (" + c.name + "): " + s->getLastError();
            return false;
        }
    }
    const Channel& tcp = target_[ChannelId::Commands];
    if (opt_.serveCommands) {
        if (tcp.port == 0) {
            error = "--serve-commands: " + opt_.ini + " switches the command channel off (tcpOrvRxEnabled)";
            return false;
        }
        std::string folder = opt_.files;
        if (folder.empty()) {
            std::string templ = (std::filesystem::temp_directory_path() / "orvplay-files-XXXXXX").string();
            if (mkdtemp(templ.data()) == nullptr) {
                error = "Cannot create a folder for the command server's files: " +
                        OrvosiUtil::getSystemErrorMsg();
                return false;
            }
            impl_->tempFolder = folder = templ;
        }
        impl_->rx.reset(new orvsim::RxServer(folder));
        if (!impl_->rx->open(tcp.port, target_.address())) {
            error = "Cannot serve commands on " + target_.address() + ":" + std::to_string(tcp.port) + ": " +
                    impl_->rx->lastError() + " (is orvsim or orvRx's server running there?)";
            return false;
        }
    }
    return true;
}

bool Player::waitUntil(uint64_t dueUs, const std::atomic<bool>& stop,
                       const std::function<void(const PlayReport&)>& progress) {
    Impl& m = *impl_;
    for (;;) {
        if (stop.load()) return false;
        const uint64_t now = OrvosiUtil::getTimeSysUs();
        if (m.rx) m.rx->poll();
        if (now - m.lastProgressUs >= kProgressUs) {
            m.lastProgressUs = now;
            report_.seconds = static_cast<double>(now - m.startUs) / 1e6;
            report_.pausedS = static_cast<double>(m.pausedUs) / 1e6;
            if (progress) progress(report_);
        }
        if (!streaming()) {
            // orvRx sends nothing while streaming is off: the replay's clock stands still.
            napUs(kNapUs);
            m.pausedUs += OrvosiUtil::getTimeSysUs() - now;
            continue;
        }
        const uint64_t due = opt_.fast ? 0 : m.startUs + m.pausedUs + dueUs;
        if (now >= due) return true;
        napUs(due - now);
    }
}

void Player::send(ChannelId channel, Bytes& d) {
    Impl& m = *impl_;
    if (opt_.retime) {
        const ClockField* field = clockFieldOf(Channels::familyOf(channel, d.data(), d.size()));
        uint64_t value = 0;
        if (field != nullptr && readClock(d.data(), d.size(), *field, &value)) {
            // Every clock value moves to where its moment lies in the replay,
            // by one offset: no datagram is sent before the time it carries.
            // A clock field may lie before the replay's start (or be any
            // number at all): it moves by the same offset, and a time that
            // would fall before 0 is written as 0.
            const double recorded = static_cast<double>(value) + static_cast<double>(m.lagUs) -
                                    static_cast<double>(m.windowStartUs) + static_cast<double>(m.loopOffsetUs);
            const double movedUs =
                static_cast<double>(m.startUs + m.pausedUs) + recorded / opt_.speed;
            const uint64_t moved = movedUs <= 0.0   ? 0
                                   : movedUs >= 1.8e19 ? std::numeric_limits<uint64_t>::max()
                                                       : static_cast<uint64_t>(movedUs);
            writeClock(d.data(), d.size(), *field, moved);
            ++report_.retimed;
        }
    }
    OrvosiUdpServer* s = m.senders[static_cast<int>(channel)].get();
    if (s == nullptr) {
        ++report_.disabled;
        return;
    }
    if (!s->write(reinterpret_cast<const char*>(d.data()), d.size())) {
        ++report_.sendFailures;
        return;
    }
    report_.sent.add(channel, Channels::kindOf(channel, d.data(), d.size()), d.size());
}

bool Player::measureLag(std::string& error) {
    PcapReader reader;
    if (!reader.open(opt_.file, error)) return false;
    FrameDecoder decoder(reader.linkType());
    Frame f;
    Segment seg;
    uint64_t startUs = 0;
    bool found = false;
    int clocked = 0;
    while (clocked < kLagSamples && reader.next(f)) {
        if (startUs == 0) startUs = f.timeUs + static_cast<uint64_t>(opt_.startS * 1e6);
        if (!decoder.decode(f.timeUs, f.data, f.captured, seg) || f.timeUs < startUs) continue;
        const ChannelId ch = recorded_.classify(seg);
        if (ch == ChannelId::Count || ch == ChannelId::Uplink || ch == ChannelId::Commands) continue;
        const ClockField* field = clockFieldOf(Channels::familyOf(ch, seg.payload.data(), seg.payload.size()));
        uint64_t value = 0;
        if (field == nullptr || !readClock(seg.payload.data(), seg.payload.size(), *field, &value)) continue;
        const int64_t lag = static_cast<int64_t>(f.timeUs) - static_cast<int64_t>(value);
        impl_->lagUs = found ? std::min(impl_->lagUs, lag) : lag;
        found = true;
        ++clocked;
    }
    return true;
}

bool Player::run(const std::atomic<bool>& stop, const std::function<void(const PlayReport&)>& progress,
                 std::string& error) {
    Impl& m = *impl_;
    if (opt_.retime && !measureLag(error)) return false;
    m.startUs = m.lastProgressUs = OrvosiUtil::getTimeSysUs();
    const uint64_t maxGapUs = static_cast<uint64_t>(opt_.maxGapS * 1e6);
    const uint64_t startUs = static_cast<uint64_t>(opt_.startS * 1e6);
    const uint64_t endUs = opt_.endS > 0.0 ? static_cast<uint64_t>(opt_.endS * 1e6) : 0;
    bool known = false;
    for (int pass = 0; opt_.loops == 0 || pass < opt_.loops; ++pass) {
        PcapReader reader;
        if (!reader.open(opt_.file, error)) return false;
        FrameDecoder decoder(reader.linkType());
        Frame f;
        Segment seg;
        // The replay's own timeline: the first frame at 0, every later one
        // a step after the frame before it in the file (see PlayReport).
        uint64_t posUs = 0, prevUs = 0, first = 0, last = 0, frames = 0;
        bool stopped = false, started = false;
        while (reader.next(f)) {
            if (started) {
                if (f.timeUs < prevUs) {
                    if (pass == 0) ++report_.backwards;
                } else if (f.timeUs - prevUs > maxGapUs) {
                    if (pass == 0) {
                        ++report_.gapsCut;
                        report_.gapCutS += static_cast<double>(f.timeUs - prevUs - maxGapUs) / 1e6;
                    }
                    posUs += maxGapUs;
                } else {
                    posUs += f.timeUs - prevUs;
                }
            }
            started = true;
            prevUs = f.timeUs;
            if (!known) {
                known = true;
                m.windowStartUs = f.timeUs + startUs;
            }
            if (endUs != 0 && posUs > endUs) break;
            // Frames before the start still feed the fragment reassembly.
            const bool inWindow = posUs >= startUs;
            if (!decoder.decode(f.timeUs, f.data, f.captured, seg) || !inWindow) continue;
            if (frames++ == 0) first = posUs;
            last = posUs;
            const ChannelId ch = recorded_.classify(seg);
            if (ch == ChannelId::Count || ch == ChannelId::Uplink || ch == ChannelId::Commands) {
                // The application's own traffic and the command channel are not replayed.
                if (pass == 0) {
                    ++report_.notReplayed[ch == ChannelId::Uplink ? 0 : ch == ChannelId::Commands ? 1 : 2];
                    if (ch == ChannelId::Count && seg.proto == Proto::Udp) countOtherPort(report_, seg.dstPort);
                }
                continue;
            }
            const uint64_t at = posUs - startUs + static_cast<uint64_t>(m.loopOffsetUs);
            if (!waitUntil(static_cast<uint64_t>(static_cast<double>(at) / opt_.speed), stop, progress)) {
                stopped = true;
                break;
            }
            send(ch, seg.payload);
        }
        if (!reader.error().empty()) {
            error = opt_.file + ": " + reader.error();
            return false;
        }
        if (pass == 0) {
            report_.decode = decoder.counts();
            if (frames == 0) {
                error = opt_.file + ": no datagram between the start and the end offset";
                return false;
            }
            report_.recordedS = static_cast<double>(last - startUs) / 1e6;
        }
        if (stopped) break;
        ++report_.loopsDone;
        // The next pass follows one average gap after this one's last frame.
        const uint64_t gap = frames > 1 ? (last - first) / (frames - 1) : kLoneFrameGapUs;
        m.loopOffsetUs += static_cast<int64_t>(last - startUs + gap);
    }
    report_.seconds = static_cast<double>(OrvosiUtil::getTimeSysUs() - m.startUs) / 1e6;
    report_.pausedS = static_cast<double>(m.pausedUs) / 1e6;
    return true;
}

}  // namespace orvtools
