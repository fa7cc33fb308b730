#include "orvsim/Simulator.hpp"

#include <arpa/inet.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <utility>

#include "IniPorts.hpp"
#include "access/receive/Dispatch.hpp"
#include "os/OrvosiSharedMem.hpp"
#include "os/OrvosiUdp.hpp"
#include "os/OrvosiUtil.hpp"
#include "diag/OrvUtil.hpp"

namespace orvsim {

namespace {

constexpr double kGravity = 9.80665;         // m/s^2
constexpr double kGyroCount = 3.90625e-5;    // rad per raw gyro count
constexpr double kAccelCount = 6.25e-6;      // m/s per raw accelerometer count
constexpr uint64_t kMaxBehindUs = 100000;    // further behind than this, skip ahead
constexpr size_t kPiecesPerStep = 8;         // image datagrams per step: no bursts
constexpr uint64_t kInsTimeoutUs = 1000000;  // platform data older than this: stopped
constexpr size_t kSharedHeader = ORVWIRE_SHM_PIXELS_AT;
constexpr int kSemaphoreGraceMs = 1000;      // longer than any reader holds the region
constexpr int kSemaphorePollMs = 5;

// orvCore's codes for the events the simulator reproduces.
constexpr uint8_t kCoreSequenceSkipped = 8;
constexpr uint8_t kCoreInsStarted = 11;
constexpr uint8_t kCoreInsStopped = 12;
constexpr uint8_t kRxErrorByte = 0x21;  // an orvRx fault without a text of its own
constexpr uint8_t kHubErrorCode = 6;    // orvHub: error reading from the serial port
constexpr uint32_t kRxStateStreaming = 2;

// The datagram family each stream sends.
const orvwire::Family* const kStreamFamilies[kStreamCount] = {&orvwire::kTracking, &orvwire::kPra,
                                                              &orvwire::kMeta,     &orvwire::kImage,
                                                              &orvwire::kHubData,  &orvwire::kNft};

// Every stream's rate as a whole number of IMU periods; 0 when off.
uint64_t divisor(double imuHz, double hz) {
    if (hz <= 0.0 || imuHz <= 0.0) return 0;
    return std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(imuHz / hz)));
}

bool every(uint64_t k, uint64_t div) { return div != 0 && k % div == 0; }

uint16_t rawCount(double value, double perCount) {
    const double c = std::max(-32768.0, std::min(32767.0, std::round(value / perCount)));
    return static_cast<uint16_t>(static_cast<int16_t>(c));
}

// A producer killed while it held the region's semaphore leaves the count at
// 0, and creating the semaphore again keeps that count: every take would wait
// for good, the producer's and every reader's. A reader holds the region for
// one copy only, so a semaphore that nobody gives back within the grace
// period has lost its holder, and the producer gives back what it left.
bool reclaimSemaphore(const std::string& regionName) {
    OrvosiSemaphore sem((regionName + "Sem").c_str());
    if (!sem.isOk()) return false;
    for (int waited = 0; waited < kSemaphoreGraceMs; waited += kSemaphorePollMs) {
        if (sem.trytake()) return sem.give();
        OrvosiUtil::snoozeMs(kSemaphorePollMs);
    }
    return sem.give();
}

// A moving diagonal test pattern: every byte depends on its pixel and the
// frame number, so a torn or shifted image shows.
void drawPattern(std::vector<unsigned char>& px, unsigned int w, unsigned int h, unsigned int bpp,
                 uint32_t frame) {
    px.resize(static_cast<size_t>(w) * h * bpp);
    size_t i = 0;
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x)
            for (unsigned int c = 0; c < bpp; ++c)
                px[i++] = static_cast<unsigned char>(x + y + 4 * frame + 85 * c);
}

}  // namespace

const char* streamName(Stream s) { return kStreamFamilies[static_cast<int>(s)]->name; }

unsigned short streamErrorCode(Stream s) { return kStreamFamilies[static_cast<int>(s)]->badCode; }

bool SimConfig::fromIni(const std::string& path, SimConfig& out, std::string& error) {
    orvports::Endpoints e;
    if (!orvports::fromIni(path, e, error)) return false;
    out.address = e.address;
    out.tcpPort = e.tcpPort;
    out.metaPort = e.metaPort;
    out.imagePort = e.imagePort;
    out.inputPort = e.inputPort;
    out.corePort = e.corePort;
    out.hubPort = e.hubPort;
    out.nftPort = e.nftPort;
    out.sharedMemName = e.sharedMemName;
    out.sharedMemMode = e.sharedMemMode;
    return true;
}

// ---- state behind the scenes ----------------------------------------------------

struct Simulator::Impl {
    explicit Impl(const SimConfig& c) {
        for (int i = 0; i < kStreamCount; ++i) injectors.emplace_back(c.faults[i], c.seed + 7919u * i);
    }

    // One sender per port; streams that share a port share its sender.
    std::unique_ptr<OrvosiUdpServer> senders[kStreamCount];
    std::vector<FaultInjector> injectors;
    uint64_t built[kStreamCount] = {};
    uint64_t sendFailures[kStreamCount] = {};
    std::vector<Datagram> wire;  // what one injector hands back

    std::unique_ptr<OrvosiUdpServer> hubErrors;
    OrvosiUdpClient uplink;
    bool uplinkOpen = false;
    std::unique_ptr<OrvosiSharedMem> shared;
    std::string sharedName;

    // Every schedule as a whole number of IMU periods (0: off).
    enum {
        kTracking,
        kOptical,
        kPra,
        kHub,
        kNft,
        kImage,
        kShared,
        kDiag,
        kTarget,
        kPlat,
        kGps,
        kError,
        kDivCount
    };
    uint64_t div[kDivCount] = {};

    // Image geometry and the pieces of the image under way.
    unsigned int width = 640, height = 480, bpp = 1;
    std::vector<unsigned char> pixels;
    std::deque<Datagram> pieces;
    uint32_t imageSeq = 0;
    uint32_t sharedSeq = 0;

    std::optional<Datagram> targetTail;  // the second half of a target list
    std::vector<uint8_t> coreErrors;     // waiting for the next tracking packet
    uint32_t hubSeq = 0;
    uint32_t hubErrorSeq = 0;
    uint32_t diagCount = 0;
    uint64_t opticalCount = 0;

    bool insActive = false;
    uint64_t lastPlatformUs = 0;
    bool sequenceSkipped = false;
    bool rxErrorPending = false;

    SimReport report;
};

Simulator::Simulator(SimConfig config)
    : cfg_(std::move(config)), motion_(cfg_.motion), rx_(cfg_.fileFolder), impl_(new Impl(cfg_)) {
    rx_.setReplies(cfg_.replies);
}

Simulator::~Simulator() { close(); }

bool Simulator::clockBit(uint64_t k) {
    const uint64_t n = k % 256, row = k / 256;
    return (n * 37 + row * 11) % 7 < 3;
}

bool Simulator::open() {
    close();
    Impl& m = *impl_;
    const SimRates& r = cfg_.rates;
    if (r.imu <= 0.0) {
        lastError_ = "The IMU rate must be above 0";
        return false;
    }
    periodUs_ = std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(1e6 / r.imu)));
    const double hz = 1e6 / static_cast<double>(periodUs_);
    m.div[Impl::kTracking] = divisor(hz, r.tracking);
    // Optical data rides on tracking packets: a whole multiple of their period.
    m.div[Impl::kOptical] = m.div[Impl::kTracking] * divisor(r.tracking, r.optical);
    m.div[Impl::kPra] = divisor(hz, r.pra);
    m.div[Impl::kHub] = divisor(hz, r.hub);
    m.div[Impl::kNft] = divisor(hz, r.nft);
    m.div[Impl::kImage] = divisor(hz, r.image);
    m.div[Impl::kShared] = divisor(hz, r.sharedImage);
    m.div[Impl::kDiag] = divisor(hz, r.diag);
    m.div[Impl::kTarget] = std::max<uint64_t>(divisor(hz, r.target), r.target > 0 ? 2 : 0);
    m.div[Impl::kPlat] = divisor(hz, r.platPose);
    m.div[Impl::kGps] = divisor(hz, r.gps);
    m.div[Impl::kError] = r.errorPeriodS > 0 ? divisor(hz, 1.0 / r.errorPeriodS) : 0;

    if (!OrvosiUtil::GetImageResolution(cfg_.imageFormat, &m.width, &m.height, &m.bpp)) {
        lastError_ = "Unknown image format " + std::to_string(cfg_.imageFormat);
        return false;
    }
    const size_t imageSize = static_cast<size_t>(m.width) * m.height * m.bpp;

    if (cfg_.tcpPort != 0 && !rx_.open(cfg_.tcpPort, cfg_.address)) {
        lastError_ = rx_.lastError();
        return false;
    }
    const int ports[kStreamCount] = {cfg_.corePort,  cfg_.corePort, cfg_.metaPort,
                                     cfg_.imagePort, cfg_.hubPort,  cfg_.nftPort};
    auto makeSender = [this](int port, std::unique_ptr<OrvosiUdpServer>& out) {
        out.reset(new OrvosiUdpServer());
        const std::string to = (cfg_.sendAddress.empty() ? cfg_.address : cfg_.sendAddress) + ":" + std::to_string(port);
        if (out->open(to.c_str())) return true;
        lastError_ = "Cannot send to " + to + ": " + out->getLastError();
        return false;
    };
    for (int i = 0; i < kStreamCount; ++i)
        if (ports[i] != 0 && !makeSender(ports[i], m.senders[i])) return false;
    if (cfg_.hubPort != 0 && !makeSender(cfg_.hubPort, m.hubErrors)) return false;

    if (cfg_.inputPort != 0) {
        const std::string port = std::to_string(cfg_.inputPort);
        if (!m.uplink.open(port.c_str(), 65536, false)) {
            lastError_ = "Cannot receive the uplink on port " + port + ": " + m.uplink.getLastError();
            return false;
        }
        m.uplinkOpen = true;
    }
    if (!cfg_.sharedMemName.empty()) {
        m.shared.reset(new OrvosiSharedMem(cfg_.sharedMemName.c_str(),
                                           static_cast<unsigned int>(kSharedHeader + imageSize),
                                           cfg_.sharedMemMode));
        if (!m.shared->isOk() || !reclaimSemaphore(cfg_.sharedMemName)) {
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o", cfg_.sharedMemMode);
            lastError_ = "Cannot create the shared-memory image \"" + cfg_.sharedMemName + "\" with at most mode " +
                         mode + ": /dev/shm/" + cfg_.sharedMemName + " or /dev/shm/sem." + cfg_.sharedMemName +
                         "Sem may belong to another user; remove them";
            m.shared.reset();
            return false;
        }
        m.sharedName = cfg_.sharedMemName;
    }
    started_ = false;
    streaming_ = false;
    streamingSinceUs_ = 0;
    open_ = true;
    return true;
}

void Simulator::close() {
    if (!impl_) return;
    Impl& m = *impl_;
    if (open_) flushHeld();
    open_ = false;
    rx_.close();
    for (auto& s : m.senders) s.reset();
    m.hubErrors.reset();
    if (m.uplinkOpen) m.uplink.close();
    m.uplinkOpen = false;
    m.pieces.clear();
    if (m.shared) {
        // The region is the simulator's own: nothing should find it after the run.
        m.shared.reset();
        shm_unlink(("/" + m.sharedName).c_str());
        sem_unlink(("/" + m.sharedName + "Sem").c_str());
    }
}

// ---- the main loop ----------------------------------------------------------------

void Simulator::step(uint64_t nowUs) {
    if (!open_) return;
    Impl& m = *impl_;
    if (!started_) {
        startUs_ = nowUs;
        nextSample_ = 0;
        started_ = true;
    }
    rx_.poll();
    serveUplink(nowUs);
    if (!rx_.streaming()) {
        if (streaming_) flushHeld();
        streamingSinceUs_ = 0;
        streaming_ = false;
    } else if (!streaming_) {
        if (streamingSinceUs_ == 0) streamingSinceUs_ = nowUs;
        streaming_ = nowUs - streamingSinceUs_ >= static_cast<uint64_t>(cfg_.startupS * 1e6);
    }
    if (m.insActive && nowUs - m.lastPlatformUs > kInsTimeoutUs) {
        m.insActive = false;
        m.coreErrors.push_back(kCoreInsStopped);
    }
    if (nowUs >= startUs_) {
        const uint64_t due = (nowUs - startUs_) / periodUs_ + 1;  // samples taken by now
        if ((due - nextSample_) * periodUs_ > kMaxBehindUs) {
            m.report.skippedSamples += due - 1 - nextSample_;
            nextSample_ = due - 1;
            m.sequenceSkipped = true;
        }
        while (nextSample_ < due) emitSample(nextSample_++);
    }
    sendImagePieces();
}

void Simulator::run(double seconds, const std::atomic<bool>* stop) {
    const uint64_t begin = OrvosiUtil::getTimeSysUs();
    const uint64_t limit = seconds > 0.0 ? static_cast<uint64_t>(seconds * 1e6) : 0;
    for (;;) {
        if (stop != nullptr && stop->load()) break;
        const uint64_t now = OrvosiUtil::getTimeSysUs();
        if (limit != 0 && now - begin >= limit) break;
        step(now);
        // Sleep until the next sample, but keep serving commands and images.
        const uint64_t next = startUs_ + nextSample_ * periodUs_;
        const uint64_t after = OrvosiUtil::getTimeSysUs();
        uint64_t waitUs = next > after ? next - after : 0;
        waitUs = std::min<uint64_t>(waitUs, impl_->pieces.empty() ? 1000 : 200);
        if (waitUs > 0) {
            const timespec ts{0, static_cast<long>(waitUs * 1000)};
            nanosleep(&ts, nullptr);
        }
    }
    // What the application sent up before the stop counts, however the
    // last step fell.
    serveUplink(OrvosiUtil::getTimeSysUs());
    impl_->report.seconds += static_cast<double>(OrvosiUtil::getTimeSysUs() - begin) / 1e6;
}

void Simulator::send(Stream s, Datagram d) {
    Impl& m = *impl_;
    const int i = static_cast<int>(s);
    ++m.built[i];
    m.wire.clear();
    m.injectors[i].process(std::move(d), m.wire);
    for (const Datagram& out : m.wire)
        if (!m.senders[i]->write(reinterpret_cast<const char*>(out.data()), out.size())) ++m.sendFailures[i];
}

void Simulator::flushHeld() {
    Impl& m = *impl_;
    for (int i = 0; i < kStreamCount; ++i) {
        m.wire.clear();
        m.injectors[i].flush(m.wire);
        for (const Datagram& d : m.wire)
            if (!m.senders[i]->write(reinterpret_cast<const char*>(d.data()), d.size())) ++m.sendFailures[i];
    }
}

void Simulator::sendImagePieces() {
    Impl& m = *impl_;
    for (size_t n = 0; n < kPiecesPerStep && !m.pieces.empty(); ++n) {
        send(Stream::Image, std::move(m.pieces.front()));
        m.pieces.pop_front();
        if (m.pieces.empty()) ++m.report.imagesUdp;
    }
}

// Platform pose, GPS and input data from the application, checked as the
// front end checks them: framing first, then the size each kind must have.
void Simulator::serveUplink(uint64_t nowUs) {
    Impl& m = *impl_;
    if (!m.uplinkOpen) return;
    unsigned char buf[2048];
    UplinkReport& u = m.report.uplink;
    for (;;) {
        int n = 0;
        if (!m.uplink.read(reinterpret_cast<char*>(buf), sizeof buf, &n) || n <= 0) return;
        const unsigned long len = static_cast<unsigned long>(n);
        const unsigned char type = buf[0];
        const bool framed = OrvUtil::udpPktOk(buf, len, type);
        OrvosiReader r(buf, len);
        r.skip(ORVWIRE_HEADER_SIZE);
        if (framed && type == ORVWIRE_START_PLATPOSE && len == ORVWIRE_UPLINK_PLATPOSE_SIZE) {
            const uint32_t tag = r.u32();
            if (r.u8() != ORVWIRE_PLATPOSE_FORMAT3) {
                ++u.bad;
                continue;
            }
            ++u.platformPoses;
            u.lastPlatformTag = tag;
            m.lastPlatformUs = nowUs;
            if (!m.insActive) m.coreErrors.push_back(kCoreInsStarted);
            m.insActive = true;
        } else if (framed && type == ORVWIRE_START_GPS && len == ORVWIRE_UPLINK_GPS_SIZE) {
            r.skip(1 + 4);  // valid, first word
            ++u.gps;
            u.lastLat = r.f64();
            u.lastLon = r.f64();
        } else if (framed && type == ORVWIRE_START_INPUT && len == ORVWIRE_UPLINK_INPUT_SIZE) {
            ++u.inputs;
            u.lastInput = r.u8();
        } else {
            ++u.bad;
        }
    }
}

// ---- one IMU sample and everything that goes out with it --------------------------

void Simulator::emitSample(uint64_t k) {
    Impl& m = *impl_;
    ++m.report.samples;
    const uint64_t t = sampleTimeUs(k);
    const double dt = static_cast<double>(periodUs_) / 1e6;
    const MotionSample s = motion_.at(static_cast<double>(k) * dt);
    const bool streaming = streaming_;
    const bool independent = streaming || !cfg_.followStreaming;  // hub, NFT, shared memory
    const uint32_t tag = static_cast<uint32_t>(k);
    const bool errorDue = every(k, m.div[Impl::kError]) && k != 0;
    if (errorDue) m.rxErrorPending = true;  // the next diagnostic subpacket carries it

    if (m.senders[static_cast<int>(Stream::Meta)] && streaming) {
        MetaContent meta;
        meta.tag = tag;
        meta.interval = static_cast<float>(dt);
        meta.time = t;
        ChipSample& c = meta.imu;
        c.type = 20;
        c.pid = static_cast<uint8_t>(k);
        c.status = clockBit(k) ? kBrevantStatusClock : 0;
        c.word = static_cast<uint16_t>(k);
        // Specific force: gravity seen from the body (navigation z points down).
        for (int i = 0; i < 3; ++i) {
            c.gyroRaw[i] = rawCount(s.rate[i] * dt, kGyroCount);
            c.accelRaw[i] = rawCount(-kGravity * s.cbn[2][i] * dt, kAccelCount);
        }
        c.hasAux = k % 10 == 0;
        c.aux = static_cast<uint8_t>(k / 10);
        if (every(k, m.div[Impl::kPlat])) {
            const double ts = static_cast<double>(k) * dt;
            meta.platPose = s_OrvAccessPlatPoseData{
                tag,
                {static_cast<float>(0.02 * std::sin(0.5 * ts)), static_cast<float>(0.01 * std::sin(0.3 * ts)),
                 static_cast<float>(0.05 * ts)}};
        }
        if (m.targetTail) {
            meta.target = std::move(*m.targetTail);
            m.targetTail.reset();
        } else if (every(k, m.div[Impl::kTarget])) {
            std::vector<OrvAccess::s_TgtData> list(8);
            for (size_t i = 0; i < list.size(); ++i) {
                OrvAccess::s_TgtData& e = list[i];
                e.tag = tag;
                e.kind = 1 + static_cast<uint32_t>(i % 2);
                e.id = static_cast<uint16_t>(200 + i);
                e.hdrByte = 1;
                e.word1 = static_cast<uint16_t>(100 + 40 * i);
                e.word2 = static_cast<uint16_t>(80 + 30 * i);
                e.value1 = static_cast<float>(s.euler[2] + 0.1 * static_cast<double>(i));
                e.value2 = 0.5f;
            }
            std::vector<Datagram> halves = buildTargetSubpackets(list, 4);
            meta.target = std::move(halves[0]);
            if (halves.size() > 1) m.targetTail = std::move(halves[1]);
        }
        if (every(k, m.div[Impl::kDiag])) {
            s_OrvAccessDiagData d{};
            d.tag = tag;
            d.diagValue1 = 36.5f;
            d.diagCount = ++m.diagCount & 0xFFFFFF;
            d.diagByte1 = 1;
            d.diagValue2 = static_cast<float>(dt);
            d.state = kRxStateStreaming;
            if (m.rxErrorPending) {
                d.errorCodes[0] = kRxErrorByte;
                ++m.report.rxErrorBytes;
                m.rxErrorPending = false;
            }
            meta.diag = d;
        }
        if (every(k, m.div[Impl::kGps])) {
            s_OrvAccessGpsData g{};
            g.valid = 1;
            g.gpsWord1 = tag;
            g.lat = 48.137 + 1e-6 * static_cast<double>(k) * dt;
            g.lon = 11.575;
            g.gpsValue1 = 520.0f;
            g.gpsByte1 = 9;
            meta.gps = g;
        }
        send(Stream::Meta, buildMeta(meta));
    }

    if (m.senders[static_cast<int>(Stream::Tracking)] && streaming && every(k, m.div[Impl::kTracking])) {
        s_OrvAccessTrkDataExt rec{};
        rec.packetTag = tag;
        rec.poseTime = t;
        rec.platPoseTime = m.report.uplink.lastPlatformTag;
        rec.statusWord = m.insActive ? 0x101u : 0x1u;
        fillPose(s, rec);
        std::memcpy(rec.cbn2, rec.cbn, sizeof rec.cbn);
        rec.time2 = t;
        if (m.sequenceSkipped) m.coreErrors.push_back(kCoreSequenceSkipped);
        m.sequenceSkipped = false;
        for (size_t i = 0; i < 4 && !m.coreErrors.empty(); ++i) {
            rec.errorCodes[i] = m.coreErrors.front();
            m.coreErrors.erase(m.coreErrors.begin());
            ++m.report.coreErrorBytes;
        }
        std::optional<Optical> optical;
        if (every(k, m.div[Impl::kOptical])) {
            Optical o;
            o.tag = tag;
            for (uint16_t i = 0; i < 6; ++i)
                o.targets.push_back(
                    {static_cast<uint16_t>(200 + i), {0.001f * i, -0.0005f * i, 0.0f, 0.0f, 0.0f}});
            if (m.opticalCount++ % 2 == 0) {
                s_OrvAccessPoseRecStats st{};
                st.tag = tag;
                st.stat0 = 6;
                st.flagA = 1;
                st.value0 = 0.4f;
                o.stats = st;
            }
            rec.countA = static_cast<uint16_t>(o.targets.size());
            optical = std::move(o);
        }
        send(Stream::Tracking, buildTracking(rec, optical ? &*optical : nullptr));
    }

    if (m.senders[static_cast<int>(Stream::Pra)] && streaming && every(k, m.div[Impl::kPra])) {
        s_OrvAccessPoseRecStats p{};
        p.tag = tag;
        p.stat0 = 6;
        p.stat1 = 5;
        p.stat2 = 1;
        p.flagA = 1;
        p.value0 = 0.35f;
        for (int i = 0; i < 3; ++i) p.vec1[i] = static_cast<float>(s.position[i]);
        p.value3 = 1.0f;
        send(Stream::Pra, buildPra(p));
    }

    if (m.senders[static_cast<int>(Stream::Hub)] && independent) {
        if (every(k, m.div[Impl::kHub])) {
            s_OrvAccessHubData h{};
            h.word = m.hubSeq++;
            h.status = 1;
            h.halfWord = static_cast<uint16_t>(k);
            h.time = t;
            for (int i = 0; i < 3; ++i) {
                for (int j = 0; j < 3; ++j) h.cbn[i][j] = static_cast<float>(s.cbn[i][j]);
                h.vec[0][i] = static_cast<float>(s.position[i]);
                h.vec[1][i] = static_cast<float>(s.velocity[i]);
            }
            send(Stream::Hub, buildHubData(h));
        }
        if (errorDue) {
            const Datagram e = buildHubError(m.hubErrorSeq++, kHubErrorCode);
            if (m.hubErrors->write(reinterpret_cast<const char*>(e.data()), e.size())) ++m.report.hubErrors;
        }
    }

    if (m.senders[static_cast<int>(Stream::Nft)] && independent && every(k, m.div[Impl::kNft])) {
        s_OrvAccessTrkDataExt rec{};
        rec.packetTag = tag;
        rec.poseTime = t;
        fillPose(s, rec);
        std::vector<std::array<float, 3>> features;
        for (int i = 0; i < 12; ++i)
            features.push_back({static_cast<float>(0.2 * (i % 4) - 0.3),
                                static_cast<float>(0.2 * (i / 4) - 0.2),
                                static_cast<float>(2.0 + 0.1 * std::sin(s.euler[2] + i))});
        rec.countA = static_cast<uint16_t>(features.size());
        send(Stream::Nft, buildNft(rec, features));
    }

    if (m.senders[static_cast<int>(Stream::Image)] && streaming && every(k, m.div[Impl::kImage]) &&
        m.pieces.empty()) {
        drawPattern(m.pixels, m.width, m.height, m.bpp, m.imageSeq);
        for (Datagram& d : buildImagePieces(m.imageSeq++, cfg_.imageFormat, m.pixels.data(), m.pixels.size(),
                                            cfg_.imagePiece))
            m.pieces.push_back(std::move(d));
    }

    if (m.shared && independent && every(k, m.div[Impl::kShared])) {
        unsigned char* region = static_cast<unsigned char*>(m.shared->get());
        if (region != nullptr) {
            drawPattern(m.pixels, m.width, m.height, m.bpp, m.sharedSeq);
            if (region[ORVWIRE_SHM_READY_AT] == 1) ++m.report.sharedUnread;
            OrvosiUtil::lendian(region + ORVWIRE_SHM_SEQID_AT, m.sharedSeq++, 4);
            region[ORVWIRE_SHM_FORMAT_AT] = cfg_.imageFormat;
            std::memcpy(region + kSharedHeader, m.pixels.data(), m.pixels.size());
            region[ORVWIRE_SHM_READY_AT] = 1;
            m.shared->release();
            ++m.report.imagesShared;
        }
    }
}

SimReport Simulator::report() const {
    const Impl& m = *impl_;
    SimReport r = m.report;
    for (int i = 0; i < kStreamCount; ++i) {
        r.streams[i].built = m.built[i];
        r.streams[i].faults = m.injectors[i].counts();
        r.streams[i].sendFailures = m.sendFailures[i];
    }
    r.commands = rx_.framesHandled();
    r.commandsRejected = rx_.framesRejected();
    return r;
}

}  // namespace orvsim
