// The library against the simulator, end to end: one INI file configures
// both, the simulator runs in a thread of its own, and the test drives the
// library through its public calls only.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "orvsim/Simulator.hpp"
#include "support/SimRunner.hpp"

using namespace orvsim;

namespace {

constexpr unsigned short kBadTracking = ORVACCESS_ERR_BAD_TRACKING_PKT,
                         kBadImage = ORVACCESS_ERR_BAD_IMAGE_PKT, kBadMeta = ORVACCESS_ERR_BAD_META_PKT,
                         kBadHub = ORVACCESS_ERR_BAD_HUB_PKT, kBadNft = ORVACCESS_ERR_BAD_NFT_PKT,
                         kBadPra = ORVACCESS_ERR_BAD_PRA_PKT;

// The angle of the rotation between two attitudes, from the distance of
// their matrices (2 sqrt(2) sin(angle / 2)): exact near zero, where the
// trace formula drowns in float rounding.
double angleBetween(const float (&a)[3][3], const double (&b)[3][3]) {
    double sum = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) sum += (a[i][j] - b[i][j]) * (a[i][j] - b[i][j]);
    return 2.0 * std::asin(std::min(1.0, std::sqrt(sum) / (2.0 * std::sqrt(2.0))));
}

// What extrapolating at a constant body rate can miss over a horizon h: the
// rate changes by at most alpha * s after s seconds, so the attitude error
// grows no faster than alpha * s plus what the error itself turns by at
// |rate|; integrated, alpha * h^2 / 2 * exp(|rate| * h). Both maxima are
// taken from the motion over all its periods.
struct MotionBound {
    double alpha = 0.0, rate = 0.0;
    explicit MotionBound(const Motion& m) {
        const double dt = 0.0005;
        for (double t = dt; t < 45.0; t += dt) {
            const MotionSample a = m.at(t - dt), b = m.at(t + dt), c = m.at(t);
            alpha = std::max(
                alpha,
                std::hypot(b.rate[0] - a.rate[0], b.rate[1] - a.rate[1], b.rate[2] - a.rate[2]) / (2 * dt));
            rate = std::max(rate, std::hypot(c.rate[0], c.rate[1], c.rate[2]));
        }
    }
    // Float attitudes carry about 1e-6 rad of rounding each.
    double at(double h) const { return 0.5 * alpha * h * h * std::exp(rate * std::fabs(h)) + 1e-5; }
};

class EndToEnd : public testing::Test {
protected:
    // Starts the simulator on fresh ports with the given INI lines added,
    // then opens the library on the same file.
    void start(const std::string& extraIni = "", void (*tune)(SimConfig&) = nullptr) {
        static int run = 0;
        shmName_ = "orvE2E" + std::to_string(getpid()) + "_" + std::to_string(run++);
        std::ostringstream ini;
        ini << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\n";
        for (const char* key : orvtest::SimRunner::kPortKeys) ini << key << " = " << orvtest::freePort() << "\n";
        // Room for a few hundred datagrams, should the test thread stall.
        for (const char* key :
             {"udpOrvRxRcvBufSize", "udpOrvCoreRcvBufSize", "udpOrvHubRcvBufSize", "udpNftRcvBufSize"})
            ini << key << " = 1048576\n";
        ini << "sMemImgName = " << shmName_ << "\n";
        base_ = ini.str();
        const std::string path = dir_.write("orvaccess.ini", base_ + extraIni);

        SimConfig cfg;
        std::string error;
        ASSERT_TRUE(SimConfig::fromIni(path, cfg, error)) << error;
        cfg.fileFolder = dir_.prefix();
        if (tune != nullptr) tune(cfg);
        ASSERT_TRUE(sim_.start(cfg));

        access_.setIniPath(path);
        ASSERT_TRUE(access_.open()) << access_.getLastError();
    }

    // Stops the simulator (what reordering held back goes out now); its
    // report may be read after this.
    SimReport stopSim() { return sim_.stop(); }

    // Reopens the library on the same channels with other INI lines added.
    bool reopen(const std::string& extraIni) {
        dir_.write("orvaccess.ini", base_ + extraIni);
        return access_.open();
    }

    // The received-packets bits of the status calls made over some time;
    // they service the ports without asking for a stream.
    uint32_t receivedDuring(double seconds) {
        uint32_t seen = 0;
        pumpUntil(seconds, [&] {
            s_OrvAccessStatus status{};
            access_.getStatus(&status);
            seen |= status.received;
            return false;
        });
        return seen;
    }

    void TearDown() override {
        stopSim();
        access_.close();
    }

    // Calls step() about every millisecond until it returns true or the
    // time runs out; false on time-out.
    template <class Step>
    bool pumpUntil(double seconds, Step step) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            if (step()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    // Every queued error code, counted.
    void collectErrors(std::map<unsigned short, int>& out) {
        s_OrvAccessErrorCode e{};
        while (access_.getErrorCode(&e) != 0) ++out[e.code];
    }

    orvtest::TempDir dir_;
    std::string base_;
    std::string shmName_;
    orvtest::SimThread sim_;
    OrvAccess access_;
};

// The pattern every image carries: byte c of pixel (x, y) of image n.
unsigned char patternByte(unsigned x, unsigned y, unsigned c, uint32_t n) {
    return static_cast<unsigned char>(x + y + 4 * n + 85 * c);
}

}  // namespace

TEST_F(EndToEnd, EveryChannelDeliversWhatTheSimulatorSent) {
    start("", [](SimConfig& c) {
        c.rates.pra = 20;
        c.rates.image = 10;
        c.rates.sharedImage = 10;
        c.rates.target = 10;
        c.rates.errorPeriodS = 0.3;
    });
    struct Seen {
        int tracking = 0, nft = 0, optical = 0, stats = 0, hub = 0, features = 0, imu = 0, aux = 0, diag = 0,
            lists = 0, plat = 0, gps = 0, crs = 0, udpImages = 0, sharedImages = 0;
    } n;
    std::map<unsigned short, int> errors;
    const Motion& motion = sim_.sim().motion();
    uint64_t clockOffset = 0;
    uint32_t lastImuTag = 0, lastHubWord = 0;
    uint64_t imuGaps = 0;  // samples missing between those received
    int entries = 0;
    std::vector<unsigned char> image(access_.getImageBufSize());

    const bool all = pumpUntil(15.0, [&] {
        bool valid = false;
        s_OrvAccessTrkDataExt t{};
        while (access_.getTrackingData(&valid, &t) && valid) {
            // Tracking and NFT poses share the queue; both follow the ground truth.
            const MotionSample truth = motion.at(t.packetTag * 0.001);
            EXPECT_LT(angleBetween(t.cbn, truth.cbn), 1e-5) << t.packetTag;
            EXPECT_NEAR(t.position[0], truth.position[0], 1e-6);
            // poseTime is the sample's time on the library clock: one offset for all.
            if (clockOffset == 0) clockOffset = t.poseTime - t.packetTag * 1000ull;
            EXPECT_EQ(t.poseTime - t.packetTag * 1000ull, clockOffset);
            (t.statusWord != 0 ? n.tracking : n.nft)++;
        }
        OrvAccess::s_TgtResData res{};
        while (access_.getTargetResData(&valid, &res) && valid) n.optical++;
        s_OrvAccessPoseRecStats st{};
        while (access_.getPoseRecoveryStats(&valid, &st) && valid) n.stats++;
        s_OrvAccessHubData hub{};
        while (access_.getHubData(&valid, &hub) && valid) {
            if (n.hub++ > 0) {
                EXPECT_EQ(hub.word, lastHubWord + 1);
            }
            lastHubWord = hub.word;
        }
        OrvAccess::s_FeatData f{};
        while (access_.getFeatureData(&valid, &f) && valid) n.features++;
        s_OrvAccessImuData imu{};
        while (access_.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu) && valid) {
            EXPECT_EQ(imu.pid, imu.tag & 0xFF);
            EXPECT_FLOAT_EQ(imu.dt, 0.001f);
            if (n.imu++ > 0) {
                EXPECT_GT(imu.tag, lastImuTag);
                imuGaps += imu.tag - lastImuTag - 1;
            }
            lastImuTag = imu.tag;
        }
        s_OrvAccessAuxData aux{};
        while (access_.getAuxData(&valid, &aux) && valid) n.aux++;
        s_OrvAccessDiagData d{};
        while (access_.getDiagData(&valid, &d) && valid) {
            EXPECT_EQ(d.state, 2u);
            n.diag++;
        }
        OrvAccess::s_TgtData e{};
        while (access_.getTargetData(&valid, &e) && valid) {
            // Eight entries spread over two subpackets, closed by a record with id 0.
            if (e.id != 0) {
                EXPECT_EQ(e.index, static_cast<uint32_t>(entries++));
                continue;
            }
            EXPECT_EQ(entries, 8);
            entries = 0;
            n.lists++;
        }
        s_OrvAccessPlatPoseData p{};
        while (access_.getPlatformPoseData(&valid, &p) && valid) n.plat++;
        s_OrvAccessGpsData g{};
        while (access_.getGpsData(&valid, &g) && valid) {
            EXPECT_NEAR(g.lat, 48.137, 0.01);
            n.gps++;
        }
        OrvAccess::s_ImuCrs row{};
        if (access_.getImuCrs(ORVACCESS_IMU_CAMERA, &valid, &row) && valid) {
            // Some whole row of the simulator's clock-relation stream.
            bool matches = false;
            for (uint64_t r = 0; r < lastImuTag / 256 + 2 && !matches; ++r) {
                matches = true;
                for (unsigned b = 0; b < 256 && matches; ++b)
                    matches = ((row.bits[b / 8] >> (b % 8)) & 1) == Simulator::clockBit(r * 256 + b);
            }
            EXPECT_TRUE(matches);
            n.crs++;
        }
        int percent = 0;
        OrvAccess::ImageFormat format{};
        unsigned int seq = 0;
        if (access_.getImage(&percent, &format, &seq, image.data(), image.size()) && percent == 100) {
            s_OrvAccessStatus status{};
            access_.getStatus(&status);
            (status.received & 0x40 ? n.sharedImages : n.udpImages)++;
            EXPECT_EQ(static_cast<int>(format), 10);
            bool pattern = true;
            for (unsigned y : {0u, 17u, 479u})
                for (unsigned x : {0u, 333u, 639u})
                    pattern = pattern && image[y * 640 + x] == patternByte(x, y, 0, seq);
            EXPECT_TRUE(pattern) << "image " << seq;
        }
        collectErrors(errors);
        return n.tracking > 100 && n.nft > 3 && n.optical > 0 && n.stats > 2 && n.hub > 20 &&
               n.features > 0 && n.imu > 200 && n.aux > 0 && n.diag > 0 && n.lists > 0 && n.plat > 0 &&
               n.gps > 0 && n.crs > 0 && n.udpImages > 0 && n.sharedImages > 0 && errors.count(0x121) &&
               errors.count(0x406);
    });
    EXPECT_TRUE(all) << "tracking " << n.tracking << " nft " << n.nft << " optical " << n.optical << " stats "
                     << n.stats << " hub " << n.hub << " imu " << n.imu << " lists " << n.lists << " crs "
                     << n.crs << " images " << n.udpImages << "/" << n.sharedImages << " errors "
                     << errors.size();
    EXPECT_EQ(n.features % 12, 0);
    // Every sample sent arrived: the only gaps are the simulator's own, when
    // it fell too far behind its clock (a slow, busy or sanitized machine).
    EXPECT_LE(imuGaps, stopSim().skippedSamples);
    // Nothing arrived damaged.
    for (unsigned short bad : {kBadTracking, kBadImage, kBadMeta, kBadHub, kBadNft, kBadPra})
        EXPECT_EQ(errors.count(bad), 0u) << bad;
}

TEST_F(EndToEnd, StreamingFollowsTheGettersAndTheCommands) {
    start();
    const uint32_t seen = receivedDuring(0.3);
    EXPECT_EQ(seen & 0x12u, 0u) << "meta or tracking without streaming";
    EXPECT_NE(seen & 0x20u, 0u) << "hub data flows regardless";
    EXPECT_FALSE(access_.getStreaming());

    bool valid = false;
    s_OrvAccessTrkDataExt t{};
    EXPECT_TRUE(pumpUntil(3.0, [&] { return access_.getTrackingData(&valid, &t) && valid; }));
    EXPECT_TRUE(access_.getStreaming());

    // Registers, the IMU and files all work over the command channel.
    unsigned char value = 0;
    EXPECT_TRUE(access_.setRegister(500, 0x123, 0x5A)) << access_.getLastError();
    EXPECT_TRUE(access_.getRegister(500, 0x123, &value)) << access_.getLastError();
    EXPECT_EQ(value, 0x5A);
    unsigned char tx[1] = {0}, rx[4] = {};
    unsigned long got = 0;
    EXPECT_TRUE(access_.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 1, 100, &got)) << access_.getLastError();
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(rx[0], RxServer::kImuIdentity);
    const std::string content(3000, 'c');
    const std::string local = dir_.write("local.txt", content);
    EXPECT_TRUE(access_.putFile(local, "calib.txt", ORVACCESS_FILE_LOC_1)) << access_.getLastError();
    const std::string back = dir_.prefix() + "back.txt";
    EXPECT_TRUE(access_.getFile("calib.txt", ORVACCESS_FILE_LOC_1, back)) << access_.getLastError();
    std::ifstream in(back, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), content);

    // The commands left streaming off: after what was in flight, silence.
    EXPECT_FALSE(access_.getStreaming());
    receivedDuring(0.1);
    EXPECT_EQ(receivedDuring(0.3) & 0x12u, 0u);

    // The next data getter turns it on again.
    s_OrvAccessImuData imu{};
    EXPECT_TRUE(
        pumpUntil(3.0, [&] { return access_.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu) && valid; }));
}

TEST_F(EndToEnd, UplinkIsCheckedAndTheFrontEndReflectsThePlatformPoseTime) {
    start();
    bool valid = false;
    s_OrvAccessTrkDataExt t{};
    ASSERT_TRUE(pumpUntil(3.0, [&] { return access_.getTrackingData(&valid, &t) && valid; }));
    const int sent = 30;
    s_OrvAccessGpsData gps{};
    gps.valid = 1;
    gps.lat = 47.5;
    gps.lon = 8.25;
    for (int i = 0; i < sent; ++i) {
        EXPECT_TRUE(access_.setPlatformPoseData({static_cast<uint32_t>(4200 + i), {0.1f, 0.0f, 0.2f}}));
        EXPECT_TRUE(access_.setGpsData(&gps));
        EXPECT_TRUE(access_.sendInputData(static_cast<unsigned char>(i)));
    }
    std::map<unsigned short, int> errors;
    EXPECT_TRUE(pumpUntil(5.0, [&] {
        collectErrors(errors);
        return access_.getTrackingData(&valid, &t) && valid && t.platPoseTime == 4200 + sent - 1;
    }));
    // orvCore reports the platform data it now fuses.
    EXPECT_TRUE(pumpUntil(1.0, [&] {
        collectErrors(errors);
        return errors.count(11) > 0;
    }));

    const SimReport r = stopSim();
    EXPECT_EQ(r.uplink.platformPoses, static_cast<uint64_t>(sent));
    EXPECT_EQ(r.uplink.gps, static_cast<uint64_t>(sent));
    EXPECT_EQ(r.uplink.inputs, static_cast<uint64_t>(sent));
    EXPECT_EQ(r.uplink.bad, 0u);
    EXPECT_EQ(r.uplink.lastInput, sent - 1);
    EXPECT_EQ(r.uplink.lastLat, 47.5);
    EXPECT_EQ(r.uplink.lastLon, 8.25);
}

// The pose predicted by the library against the ground truth at the time it
// was predicted for, in the three ways the horizon can be set.
TEST_F(EndToEnd, PredictionErrorStaysWithinWhatTheMotionAllows) {
    start("[Processing]\npredictionS = 0.02\nvirtualSyncCtrl = 0\n");
    const Motion& motion = sim_.sim().motion();
    const MotionBound bound(motion);
    ASSERT_GT(bound.alpha, 1.0);  // a head that really turns

    struct Stats {
        int n = 0;
        double predicted = 0.0, unpredicted = 0.0;
    };
    // Fixed horizon: every pose is predicted by predictionS.
    Stats fixed;
    pumpUntil(1.0, [&] {
        bool valid = false;
        s_OrvAccessTrkDataExt t{};
        while (access_.getTrackingData(&valid, &t) && valid) {
            if (t.statusWord == 0) continue;  // an NFT pose
            const double at = t.packetTag * 0.001;
            const MotionSample later = motion.at(at + 0.02);
            const double err = angleBetween(t.cbn, later.cbn);
            EXPECT_LE(err, bound.at(0.02)) << t.packetTag;
            fixed.predicted += err;
            // What the pose as reported would have missed.
            s_OrvAccessTrkDataExt reported{};
            fillPose(motion.at(at), reported);
            fixed.unpredicted += angleBetween(reported.cbn, later.cbn);
            fixed.n++;
        }
        return false;
    });
    ASSERT_GT(fixed.n, 100);
    // Prediction really happened: it removes nearly all of what the head moved.
    EXPECT_LT(fixed.predicted * 10, fixed.unpredicted);

    // Display time: the horizon is the pose's age at that time plus predictionS.
    for (const char* sync : {"2", "1"}) {
        SCOPED_TRACE(sync);
        ASSERT_TRUE(reopen(std::string("[Processing]\npredictionS = 0.02\nvirtualSyncCtrl = ") + sync + "\n"))
            << access_.getLastError();
        int n = 0;
        pumpUntil(1.0, [&] {
            bool valid = false;
            s_OrvAccessTrkDataExt t{};
            const uint64_t display = access_.getTimeUs() + 5000;
            if (!access_.getTrackingDataAtTime(display, &valid, &t) || !valid || t.statusWord == 0)
                return false;
            const double age = display > t.poseTime ? (display - t.poseTime) / 1e6 : 0.0;
            const double h = std::min(age + 0.02, 0.2);
            const double err = angleBetween(t.cbn, motion.at(t.packetTag * 0.001 + h).cbn);
            // The IMU clock estimate may differ from poseTime by a few
            // microseconds of rounding: allow the rate times that.
            EXPECT_LE(err, bound.at(h) + bound.rate * 1e-4) << t.packetTag << " h " << h;
            ++n;
            return false;
        });
        EXPECT_GT(n, 50);
    }
}
