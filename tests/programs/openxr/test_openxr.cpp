// The OpenXR layer: its transform against hand-worked poses, its settings
// file, and the layer itself loaded by the system's loader between this
// test (as the application) and the headless test runtime, with orvsim as
// the tracker. The tracker's datagrams pass through a relay in the test,
// which hands each to the layer and to a reference access object: the
// views the layer locates must equal the reference's prediction of the same
// record to the same display time, and the relay can silence the tracker.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openxr/openxr.h>
#include <time.h>
#define XR_USE_TIMESPEC
#include <openxr/openxr_platform.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

#include "openxr/Clock.hpp"
#include "openxr/LayerConfig.hpp"
#include "openxr/Mount.hpp"
#include "openxr/XrStruct.hpp"
#include "math/OrvosiMath.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"
#include "support/TestSupport.hpp"
#include "programs/openxr/TestRuntime.hpp"

namespace {

using namespace orvxr;
namespace rt = orvxr::testruntime;
using Clock = std::chrono::steady_clock;

constexpr double kPi = 3.14159265358979323846;

void expectPose(const XrPosef& got, const XrPosef& want, double tol, const std::string& what) {
    // q and -q are one attitude.
    const double dot = got.orientation.x * want.orientation.x + got.orientation.y * want.orientation.y +
                       got.orientation.z * want.orientation.z + got.orientation.w * want.orientation.w;
    const double s = dot < 0.0 ? -1.0 : 1.0;
    EXPECT_NEAR(got.orientation.x * s, want.orientation.x, tol) << what;
    EXPECT_NEAR(got.orientation.y * s, want.orientation.y, tol) << what;
    EXPECT_NEAR(got.orientation.z * s, want.orientation.z, tol) << what;
    EXPECT_NEAR(got.orientation.w * s, want.orientation.w, tol) << what;
    EXPECT_NEAR(got.position.x, want.position.x, tol) << what;
    EXPECT_NEAR(got.position.y, want.position.y, tol) << what;
    EXPECT_NEAR(got.position.z, want.position.z, tol) << what;
}

s_OrvAccessTrkDataExt recordOf(double roll, double pitch, double yaw, double x, double y, double z) {
    s_OrvAccessTrkDataExt r{};
    const double e[3] = {roll, pitch, yaw};
    double c[3][3];
    OrvosiMath::euler2Cbn(e, c);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.cbn[i][j] = static_cast<float>(c[i][j]);
    r.position[0] = static_cast<float>(x);
    r.position[1] = static_cast<float>(y);
    r.position[2] = static_cast<float>(z);
    return r;
}

// Where the head looks (-Z of the view) and where its right (+X) and up
// (+Y) point, in OpenXR's world.
void axesOf(const Rigid& t, double fwd[3], double right[3], double up[3]) {
    for (int i = 0; i < 3; ++i) {
        fwd[i] = -t.r[i][2];
        right[i] = t.r[i][0];
        up[i] = t.r[i][1];
    }
}

#define EXPECT_VEC(v, a, b, c)                \
    do {                                      \
        EXPECT_NEAR((v)[0], (a), 1e-6) << #v; \
        EXPECT_NEAR((v)[1], (b), 1e-6) << #v; \
        EXPECT_NEAR((v)[2], (c), 1e-6) << #v; \
    } while (0)

// The tracker's axes (x forward, y right, z down, north-east-down for the
// navigation frame) become OpenXR's; the mounting, the display offset and
// the platform act in the tracker's axes.
TEST(Mount, TrackerFramesBecomeOpenXrs) {
    double fwd[3], right[3], up[3];
    {
        // Level, facing north, 1 m north, 2 m east, 3 m below the origin.
        const Rigid h = Mount().headPose(recordOf(0, 0, 0, 1, 2, 3));
        axesOf(h, fwd, right, up);
        EXPECT_VEC(fwd, 0, 0, -1);
        EXPECT_VEC(right, 1, 0, 0);
        EXPECT_VEC(up, 0, 1, 0);
        EXPECT_VEC(h.p, 2, -3, -1);
    }
    {
        // Facing east (yaw +90 degrees) and looking 30 degrees up (pitch).
        const Rigid h = Mount().headPose(recordOf(0, kPi / 6, kPi / 2, 0, 0, 0));
        axesOf(h, fwd, right, up);
        EXPECT_VEC(fwd, std::cos(kPi / 6), std::sin(kPi / 6), 0);
        EXPECT_VEC(right, 0, 0, 1);
        // Rolled right by 90 degrees while facing north: the right ear points down.
        const Rigid r = Mount().headPose(recordOf(kPi / 2, 0, 0, 0, 0, 0));
        axesOf(r, fwd, right, up);
        EXPECT_VEC(right, 0, -1, 0);
        EXPECT_VEC(up, 1, 0, 0);
    }
    {
        // The display 10 cm ahead of the tracked point and 5 cm above it,
        // turned down by 0.2 rad; the head faces east.
        MountSettings s;
        s.displayXyzM[0] = 0.10;
        s.displayXyzM[2] = -0.05;
        s.displayRpyRad[1] = -0.2;
        const Rigid h = Mount(s).headPose(recordOf(0, 0, kPi / 2, 0, 0, 0));
        EXPECT_VEC(h.p, 0.10, 0.05, 0);
        axesOf(h, fwd, right, up);
        EXPECT_VEC(fwd, std::cos(0.2), -std::sin(0.2), 0);
    }
    {
        // The tracker's navigation frame turned by 90 degrees of yaw in the
        // world and lifted by 1.2 m: its north is the world's east.
        MountSettings s;
        s.mountRpyRad[2] = kPi / 2;
        s.mountXyzM[2] = -1.2;
        const Rigid h = Mount(s).headPose(recordOf(0, 0, 0, 1, 0, 0));
        axesOf(h, fwd, right, up);
        EXPECT_VEC(fwd, 1, 0, 0);
        EXPECT_VEC(h.p, 1, 1.2, 0);
    }
    {
        // Relative to the platform: a platform yawed by 90 degrees (facing
        // east) carrying a head that faces east 1 m east of the origin: the
        // head faces the platform's forward, 1 m ahead of its origin.
        const double pe[3] = {0, 0, kPi / 2};
        double platform[3][3];
        OrvosiMath::euler2Cbn(pe, platform);
        const Rigid h = Mount().headPose(recordOf(0, 0, kPi / 2, 0, 1, 0), platform);
        axesOf(h, fwd, right, up);
        EXPECT_VEC(fwd, 0, 0, -1);
        EXPECT_VEC(h.p, 0, 0, -1);
    }
    // Composition and inversion round-trip through OpenXR's pose type.
    const Rigid a = fromXr(rt::kHead), b = fromXr(rt::kEyes[0]);
    expectPose(toXr(compose(inverse(a), compose(a, b))), rt::kEyes[0], 1e-6, "a^-1 a b = b");
}

// The settings file: defaults, every key, the library path relative to the
// file, the environment's override, and refusals that name the key.
TEST(LayerConfig, KeysPathsAndRefusals) {
    orvtest::TempDir dir;
    LayerConfig c;
    std::string error;
    ASSERT_TRUE(readLayerConfigFile("", "", c, error)) << error;
    EXPECT_EQ(c.iniPath, "orvaccess.ini");
    EXPECT_EQ(c.staleUs, 100000u);
    EXPECT_EQ(c.whenStale, WhenStale::Untracked);

    const std::string path = dir.write("layer.ini",
                                       "[layer]\nini = conf/orv.ini\nstaleMs = 2.5\nwhenStale = Hold\n"
                                       "relativeToPlatform = on\n[Mount]\nyawRad = 1.5\nzM = -1.2\n"
                                       "[Display]\nxM = 0.1\npitchRad = -0.2\n");
    ASSERT_TRUE(readLayerConfigFile(path, "", c, error)) << error;
    EXPECT_EQ(c.iniPath, (dir.path() / "conf/orv.ini").string());
    EXPECT_EQ(c.staleUs, 2500u);
    EXPECT_EQ(c.whenStale, WhenStale::Hold);
    EXPECT_TRUE(c.relativeToPlatform);
    EXPECT_EQ(c.mount.mountRpyRad[2], 1.5);
    EXPECT_EQ(c.mount.mountXyzM[2], -1.2);
    EXPECT_EQ(c.mount.displayXyzM[0], 0.1);
    EXPECT_EQ(c.mount.displayRpyRad[1], -0.2);
    ASSERT_TRUE(readLayerConfigFile(path, "/etc/orv.ini", c, error));
    EXPECT_EQ(c.iniPath, "/etc/orv.ini");

    const std::pair<const char*, const char*> bad[] = {
        {"[Mount]\nyawRadians = 1\n", "unknown key [Mount] yawRadians"},
        {"[Display]\nxM = 10cm\n", "[Display] xM = \"10cm\" is not a number"},
        {"[Layer]\nstaleMs = 0\n", "[Layer] staleMs = \"0\" is not a time above 0 ms"},
        {"[Layer]\nwhenStale = freeze\n", "is not untracked, hold or runtime"},
        {"[Layer]\nrelativeToPlatform = perhaps\n", "is not true or false"},
    };
    for (const auto& [text, wanted] : bad) {
        error.clear();
        EXPECT_FALSE(readLayerConfigFile(dir.write("bad.ini", text), "", c, error)) << text;
        EXPECT_NE(error.find(wanted), std::string::npos) << error;
        EXPECT_NE(error.find("bad.ini"), std::string::npos) << error;
    }
    EXPECT_FALSE(readLayerConfigFile((dir.path() / "missing.ini").string(), "", c, error));
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;

    // The clocks: a round trip through the monotonic clock keeps the
    // microsecond, and the pair read now maps now to now.
    const ClockPair now = readClocks();
    const uint64_t us = 1764000000123456u;
    EXPECT_EQ(libraryUsOf(monotonicNsOf(us, now), now), us);
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const int64_t diff = static_cast<int64_t>(libraryUsOf(now.monotonicNs, now)) - toNs(real) / 1000;
    EXPECT_LE(std::llabs(diff), 1000000) << "the pair is a second or more off the time of day";
}

// ---- the layer in the loader ----------------------------------------------

// Takes the tracker's datagrams on one port and hands them to the layer's
// port and the reference's, in a thread of its own. Muted, it drops them:
// to the layer the tracker has stopped.
class Relay {
public:
    Relay() : fd_(socket(AF_INET, SOCK_DGRAM, 0)), port_(orvtest::freePort()) {
        const sockaddr_in a = orvtest::loopback(port_);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
        const timeval tv{0, 20000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Relay() {
        stop();
        ::close(fd_);
    }
    void start(int layerPort, int referencePort) {
        layer_ = orvtest::loopback(layerPort);
        reference_ = orvtest::loopback(referencePort);
        thread_ = std::thread([this] { run(); });
    }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    void mute(bool m) { muted_ = m; }
    int port() const { return port_; }
    uint64_t relayed() const { return relayed_; }
    // Datagrams taken in, muted or not.
    uint64_t received() const { return received_; }
    // Sends the last tracking datagram relayed to both again: the reference
    // needs a record queued for each prediction, and a layer whose socket
    // overflowed on a slow machine gets the last record all the same.
    bool resendLast() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (last_.empty()) return false;
        bool ok = true;
        for (const sockaddr_in* to : {&layer_, &reference_})
            ok = sendto(fd_, last_.data(), last_.size(), 0, reinterpret_cast<const sockaddr*>(to),
                        sizeof *to) == static_cast<ssize_t>(last_.size()) &&
                 ok;
        return ok;
    }

private:
    void run() {
        unsigned char buf[65536];
        while (!stop_) {
            const ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0) continue;
            ++received_;
            if (muted_) continue;
            for (const sockaddr_in* to : {&layer_, &reference_})
                sendto(fd_, buf, static_cast<size_t>(n), 0, reinterpret_cast<const sockaddr*>(to),
                       sizeof *to);
            if (buf[0] == 10) {  // a tracking packet, not a PRA one
                std::lock_guard<std::mutex> lock(mutex_);
                last_.assign(buf, buf + n);
            }
            ++relayed_;
        }
    }

    int fd_;
    int port_;
    sockaddr_in layer_{}, reference_{};
    std::thread thread_;
    std::atomic<bool> stop_{false}, muted_{false};
    std::atomic<uint64_t> relayed_{0}, received_{0};
    std::mutex mutex_;
    std::vector<unsigned char> last_;
};

// The tracking datagrams go through the relay; the NFT source, whose poses
// share the tracking record, stays silent, so that muting the relay
// silences every pose.
int gRelayPort = 0, gMetaRelayPort = 0;
void toRelay(orvsim::SimConfig& c) {
    c.corePort = gRelayPort;
    c.metaPort = gMetaRelayPort;
    c.nftPort = 0;
    c.rates.nft = 0.0;
}

constexpr const char* kProcessing =
    "[Processing]\nvirtualSyncCtrl = 2\npredictionS = 0.004\nBoresightRefYawRad = 0.1\nTipOffsetXM = 0.05\n";
constexpr const char* kMount =
    "[Mount]\nyawRad = 0.7\nxM = 0.5\nzM = -1.1\n[Display]\nxM = 0.08\nzM = -0.06\n";

MountSettings testMount() {
    MountSettings s;
    s.mountRpyRad[2] = 0.7;
    s.mountXyzM[0] = 0.5;
    s.mountXyzM[2] = -1.1;
    s.displayXyzM[0] = 0.08;
    s.displayXyzM[2] = -0.06;
    return s;
}

// The simulator, the relays of its tracking and meta datagrams (the meta
// ones carry the platform's pose), and the reference access object on
// ports of their own with the same processing settings.
struct Tracker {
    orvtest::TempDir dir;
    orvtest::SimRunner sim{dir, kProcessing};
    Relay relay, metaRelay;
    OrvAccess reference;
    int referencePort = orvtest::freePort(), referenceMetaPort = orvtest::freePort();

    bool start() {
        const std::string ini =
            dir.write("reference.ini",
                      std::string("[Communication]\ntcpOrvRxEnabled = false\nudpOrvRxImgPort = 0\n"
                                  "udpOrvRxInputPort = 0\nudpNftPort = 0\nsMemImgName =\n") +
                          "udpOrvRxPort = " + std::to_string(referenceMetaPort) +
                          "\nudpOrvCorePort = " + std::to_string(referencePort) +
                          "\nudpOrvHubPort = " + std::to_string(orvtest::freePort()) + "\n" + kProcessing);
        reference.setIniPath(ini);
        if (!reference.open()) {
            ADD_FAILURE() << reference.getLastError();
            return false;
        }
        relay.start(sim.port("udpOrvCorePort"), referencePort);
        metaRelay.start(sim.port("udpOrvRxPort"), referenceMetaPort);
        gRelayPort = relay.port();
        gMetaRelayPort = metaRelay.port();
        return sim.start(toRelay);
    }
    // Stops the simulator and the relays once they have passed on all it
    // sent: the layer and the reference then hold the same datagrams.
    void stop() {
        const orvsim::SimReport sent = sim.stop();
        const auto out = [&](orvsim::Stream s) { return sent.streams[static_cast<int>(s)].faults.out; };
        // Tracking and PRA datagrams share the orvCore port. A datagram a
        // full socket dropped reaches neither side, so the wait may end unmet.
        const uint64_t core = out(orvsim::Stream::Tracking) + out(orvsim::Stream::Pra);
        orvtest::waitFor([&] { return relay.received() >= core; });
        orvtest::waitFor([&] { return metaRelay.received() >= out(orvsim::Stream::Meta); });
        relay.stop();
        metaRelay.stop();
    }
    // The layer's settings file.
    std::string layerConfig(const std::string& name, const std::string& layerKeys) {
        return dir.write(name, "[Layer]\nini = " + sim.ini() + "\n" + layerKeys + kMount);
    }
};

void setLayerEnvironment(const std::string& config, const std::string& layers, bool withValidation) {
    setenv("XR_RUNTIME_JSON", ORVXR_RUNTIME_JSON, 1);
    std::string path = ORVXR_LAYER_DIR;
    if (withValidation) path += ":/usr/share/openxr/1/api_layers/explicit.d";
    setenv("XR_API_LAYER_PATH", path.c_str(), 1);
    setenv("XR_ENABLE_API_LAYERS", layers.c_str(), 1);
    setenv("ORVACCESS_XR_CONFIG", config.c_str(), 1);
    unsetenv("ORVACCESS_XR_INI");
}

// This test as an OpenXR application with a headless session.
class App {
public:
    ~App() { close(); }

    bool open() {
        const char* ext[] = {XR_MND_HEADLESS_EXTENSION_NAME, XR_KHR_CONVERT_TIMESPEC_TIME_EXTENSION_NAME};
        auto ici = xrStruct<XrInstanceCreateInfo>(XR_TYPE_INSTANCE_CREATE_INFO);
        std::snprintf(ici.applicationInfo.applicationName, XR_MAX_APPLICATION_NAME_SIZE, "test_openxr");
        ici.applicationInfo.apiVersion = XR_CURRENT_API_VERSION;
        ici.enabledExtensionCount = 2;
        ici.enabledExtensionNames = ext;
        if (!check(xrCreateInstance(&ici, &instance_), "xrCreateInstance")) return false;
        PFN_xrVoidFunction f = nullptr;
        if (!check(xrGetInstanceProcAddr(instance_, "xrConvertTimespecTimeToTimeKHR", &f),
                   "get the conversion"))
            return false;
        toXrTime_ = reinterpret_cast<PFN_xrConvertTimespecTimeToTimeKHR>(f);
        auto sgi = xrStruct<XrSystemGetInfo>(XR_TYPE_SYSTEM_GET_INFO);
        sgi.formFactor = XR_FORM_FACTOR_HEAD_MOUNTED_DISPLAY;
        XrSystemId system = XR_NULL_SYSTEM_ID;
        auto sci = xrStruct<XrSessionCreateInfo>(XR_TYPE_SESSION_CREATE_INFO);
        if (!check(xrGetSystem(instance_, &sgi, &system), "xrGetSystem")) return false;
        sci.systemId = system;
        if (!check(xrCreateSession(instance_, &sci, &session_), "xrCreateSession")) return false;
        local_ = space(XR_REFERENCE_SPACE_TYPE_LOCAL, rt::kIdentity);
        stage_ = space(XR_REFERENCE_SPACE_TYPE_STAGE, kStageOffset);
        view_ = space(XR_REFERENCE_SPACE_TYPE_VIEW, rt::kIdentity);
        auto sbi = xrStruct<XrSessionBeginInfo>(XR_TYPE_SESSION_BEGIN_INFO);
        sbi.primaryViewConfigurationType = XR_VIEW_CONFIGURATION_TYPE_PRIMARY_STEREO;
        return check(xrBeginSession(session_, &sbi), "xrBeginSession");
    }

    void close() {
        for (XrSpace* s : {&local_, &stage_, &view_}) {
            if (*s != XR_NULL_HANDLE) xrDestroySpace(*s);
            *s = XR_NULL_HANDLE;
        }
        if (session_ != XR_NULL_HANDLE) xrDestroySession(session_);
        if (instance_ != XR_NULL_HANDLE) xrDestroyInstance(instance_);
        session_ = XR_NULL_HANDLE;
        instance_ = XR_NULL_HANDLE;
    }

    // One frame: its predicted display time.
    XrTime frame() {
        auto fwi = xrStruct<XrFrameWaitInfo>(XR_TYPE_FRAME_WAIT_INFO);
        auto fs = xrStruct<XrFrameState>(XR_TYPE_FRAME_STATE);
        auto fbi = xrStruct<XrFrameBeginInfo>(XR_TYPE_FRAME_BEGIN_INFO);
        check(xrWaitFrame(session_, &fwi, &fs), "xrWaitFrame");
        check(xrBeginFrame(session_, &fbi), "xrBeginFrame");
        auto fei = xrStruct<XrFrameEndInfo>(XR_TYPE_FRAME_END_INFO);
        fei.displayTime = fs.predictedDisplayTime;
        fei.environmentBlendMode = XR_ENVIRONMENT_BLEND_MODE_OPAQUE;
        check(xrEndFrame(session_, &fei), "xrEndFrame");
        return fs.predictedDisplayTime;
    }

    XrViewStateFlags views(XrSpace base, XrTime t, XrView out[2]) {
        auto vli = xrStruct<XrViewLocateInfo>(XR_TYPE_VIEW_LOCATE_INFO);
        vli.viewConfigurationType = XR_VIEW_CONFIGURATION_TYPE_PRIMARY_STEREO;
        vli.displayTime = t;
        vli.space = base;
        auto vs = xrStruct<XrViewState>(XR_TYPE_VIEW_STATE);
        out[0] = xrStruct<XrView>(XR_TYPE_VIEW);
        out[1] = xrStruct<XrView>(XR_TYPE_VIEW);
        uint32_t n = 0;
        check(xrLocateViews(session_, &vli, &vs, 2, &n, out), "xrLocateViews");
        EXPECT_EQ(n, 2u);
        return vs.viewStateFlags;
    }

    XrSpaceLocation locate(XrSpace space, XrSpace base, XrTime t) {
        auto loc = xrStruct<XrSpaceLocation>(XR_TYPE_SPACE_LOCATION);
        check(xrLocateSpace(space, base, t, &loc), "xrLocateSpace");
        return loc;
    }

    // The XrTime of a time on the library clock, through the runtime's
    // conversion as any application would make it.
    XrTime xrTimeOf(uint64_t libraryUs) {
        const int64_t ns = monotonicNsOf(libraryUs, readClocks());
        const timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        XrTime t = 0;
        check(toXrTime_(instance_, &ts, &t), "xrConvertTimespecTimeToTimeKHR");
        return t;
    }

    XrSpace local_ = XR_NULL_HANDLE, stage_ = XR_NULL_HANDLE, view_ = XR_NULL_HANDLE;
    static inline const XrPosef kStageOffset{{0.0f, 0.38941834f, 0.0f, 0.92106099f}, {0.4f, 0.0f, -0.3f}};

private:
    XrSpace space(XrReferenceSpaceType type, const XrPosef& pose) {
        auto rci = xrStruct<XrReferenceSpaceCreateInfo>(XR_TYPE_REFERENCE_SPACE_CREATE_INFO);
        rci.referenceSpaceType = type;
        rci.poseInReferenceSpace = pose;
        XrSpace s = XR_NULL_HANDLE;
        check(xrCreateReferenceSpace(session_, &rci, &s), "xrCreateReferenceSpace");
        return s;
    }
    static bool check(XrResult r, const char* what) {
        EXPECT_TRUE(XR_SUCCEEDED(r)) << what << " returned " << r;
        return XR_SUCCEEDED(r);
    }

    XrInstance instance_ = XR_NULL_HANDLE;
    XrSession session_ = XR_NULL_HANDLE;
    PFN_xrConvertTimespecTimeToTimeKHR toXrTime_ = nullptr;
};

constexpr XrViewStateFlags kAllViewBits =
    XR_VIEW_STATE_ORIENTATION_VALID_BIT | XR_VIEW_STATE_POSITION_VALID_BIT |
    XR_VIEW_STATE_ORIENTATION_TRACKED_BIT | XR_VIEW_STATE_POSITION_TRACKED_BIT;
constexpr XrViewStateFlags kValidBits =
    XR_VIEW_STATE_ORIENTATION_VALID_BIT | XR_VIEW_STATE_POSITION_VALID_BIT;

// Frames until the views in LOCAL at the frame's display time satisfy
// done(time, flags, views); false after 20 s of frames.
template <typename F>
bool framesUntil(App& app, F done) {
    const auto end = Clock::now() + std::chrono::seconds(20);
    XrView v[2];
    while (Clock::now() < end) {
        const XrTime t = app.frame();
        const XrViewStateFlags flags = app.views(app.local_, t, v);
        if (done(t, flags, v)) return true;
    }
    return false;
}
bool framesUntil(App& app, XrViewStateFlags want) {
    return framesUntil(app, [want](XrTime, XrViewStateFlags f, const XrView*) { return f == want; });
}

// The views and the VIEW space equal the reference's prediction of the
// same record to the same display time, with the runtime's eyes on top, in
// LOCAL and in a STAGE space with an offset; a display time that is an
// XrTime of the runtime's clock reaches the prediction as the right library
// time (ages from 0 to past the 0.2 s bound).
TEST(Layer, ViewsAreTheTrackersPosePredictedToTheDisplayTime) {
    Tracker tracker;
    ASSERT_TRUE(tracker.start());
    setLayerEnvironment(tracker.layerConfig("layer.ini", "staleMs = 600000\n"), "XR_APILAYER_ORV_head_pose",
                        false);
    App app;
    ASSERT_TRUE(app.open());
    ASSERT_TRUE(framesUntil(app, kAllViewBits)) << "the views never became tracked";

    // The tracker stops; its last record is the one both sides hold.
    tracker.stop();
    const Mount mount(testMount());
    bool valid = false;
    s_OrvAccessTrkDataExt last{};
    ASSERT_TRUE(tracker.reference.getTrackingDataLatest(&valid, &last));
    ASSERT_TRUE(valid);

    // The layer's feed may still be taking the last datagrams: wait until
    // its view matches the reference at one display time, then check all.
    auto expected = [&](uint64_t displayUs, s_OrvAccessTrkDataExt* rec) {
        bool ok = tracker.relay.resendLast();
        ok = ok && tracker.reference.getTrackingDataAtTime(displayUs, &valid, rec) && valid;
        EXPECT_TRUE(ok) << "the reference gave no pose";
        return mount.headPose(*rec);
    };
    const auto end = Clock::now() + std::chrono::seconds(20);
    for (;;) {
        s_OrvAccessTrkDataExt rec;
        const XrPosef want = toXr(expected(last.poseTime + 10000, &rec));
        const XrSpaceLocation head = app.locate(app.view_, app.local_, app.xrTimeOf(last.poseTime + 10000));
        if (std::fabs(head.pose.position.x - want.position.x) < 2e-5 &&
            std::fabs(std::fabs(head.pose.orientation.y) - std::fabs(want.orientation.y)) < 2e-5)
            break;
        ASSERT_LT(Clock::now(), end) << "the layer's pose never became the reference's";
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    const XrPosef stageOffset = App::kStageOffset;
    for (int ageMs : {0, 3, 17, 60, 150, 400}) {
        const uint64_t displayUs = last.poseTime + static_cast<uint64_t>(ageMs) * 1000;
        s_OrvAccessTrkDataExt rec;
        const Rigid head = expected(displayUs, &rec);
        const XrTime t = app.xrTimeOf(displayUs);
        const std::string at = "display time " + std::to_string(ageMs) + " ms after the pose";
        XrView v[2];
        ASSERT_EQ(app.views(app.local_, t, v), kAllViewBits) << at;
        for (int i = 0; i < 2; ++i) {
            const XrPosef want = toXr(compose(head, fromXr(rt::kEyes[i])));
            expectPose(v[i].pose, want, 2e-5, at + ", LOCAL, eye " + std::to_string(i));
            EXPECT_EQ(v[i].fov.angleLeft, rt::kFov[i].angleLeft);
            EXPECT_EQ(v[i].fov.angleRight, rt::kFov[i].angleRight);
        }
        ASSERT_EQ(app.views(app.stage_, t, v), kAllViewBits) << at;
        for (int i = 0; i < 2; ++i) {
            const XrPosef want =
                toXr(compose(inverse(fromXr(stageOffset)), compose(head, fromXr(rt::kEyes[i]))));
            expectPose(v[i].pose, want, 2e-5, at + ", STAGE with an offset, eye " + std::to_string(i));
        }
        const XrSpaceLocation h = app.locate(app.view_, app.local_, t);
        EXPECT_EQ(h.locationFlags & 0xF, 0xFu) << at;
        expectPose(h.pose, toXr(head), 2e-5, at + ", VIEW in LOCAL");
        const XrSpaceLocation back = app.locate(app.local_, app.view_, t);
        expectPose(back.pose, toXr(inverse(head)), 2e-5, at + ", LOCAL in VIEW");
    }
    // The eyes keep their distance whatever the head does.
    XrView v[2];
    app.views(app.local_, app.frame(), v);
    const double dx = v[0].pose.position.x - v[1].pose.position.x,
                 dy = v[0].pose.position.y - v[1].pose.position.y,
                 dz = v[0].pose.position.z - v[1].pose.position.z;
    EXPECT_NEAR(std::sqrt(dx * dx + dy * dy + dz * dz), 0.064, 1e-5);
}

// The flags follow a tracker that stops and starts again, under each of the
// three choices for a stale pose.
TEST(Layer, FlagsFollowATrackerThatStopsAndRestarts) {
    Tracker tracker;
    ASSERT_TRUE(tracker.start());
    struct Case {
        const char* whenStale;
        XrViewStateFlags stale;
    };
    for (const Case& c : {Case{"untracked", 0}, Case{"hold", kValidBits}, Case{"runtime", kAllViewBits}}) {
        SCOPED_TRACE(c.whenStale);
        setLayerEnvironment(
            tracker.layerConfig(std::string(c.whenStale) + ".ini",
                                std::string("staleMs = 150\nwhenStale = ") + c.whenStale + "\n"),
            "XR_APILAYER_ORV_head_pose", false);
        App app;
        ASSERT_TRUE(app.open());
        // The runtime's flags are those of a tracked pose: there the pose
        // tells whose it is.
        const XrPosef runtimeEye = toXr(compose(fromXr(rt::kHead), fromXr(rt::kEyes[0])));
        const auto ours = [&](const XrView* views) {
            return std::fabs(views[0].pose.position.y - runtimeEye.position.y) > 1e-3;
        };
        tracker.relay.mute(false);
        ASSERT_TRUE(framesUntil(app, [&](XrTime, XrViewStateFlags f, const XrView* views) {
            return f == kAllViewBits && ours(views);
        })) << "never tracked";

        // On a loaded machine the feed may still take datagrams relayed
        // before the mute and turn fresh again for a moment: the views and
        // the VIEW space are checked together, at one frame's time.
        tracker.relay.mute(true);
        const bool runtime = std::string(c.whenStale) == "runtime";
        ASSERT_TRUE(framesUntil(app, [&](XrTime t, XrViewStateFlags f, const XrView* views) {
            if (f != c.stale || (runtime && ours(views))) return false;
            const XrSpaceLocation h = app.locate(app.view_, app.local_, t);
            return (h.locationFlags & 0xF) == c.stale;
        })) << "the views and the VIEW space did not follow the tracker going quiet";
        if (runtime) {
            XrView v[2];
            app.views(app.local_, app.frame(), v);
            if (!ours(v)) expectPose(v[0].pose, runtimeEye, 1e-5, "the runtime's eye");
        }

        tracker.relay.mute(false);
        ASSERT_TRUE(framesUntil(app, [&](XrTime, XrViewStateFlags f, const XrView* views) {
            return f == kAllViewBits && ours(views);
        })) << "not tracked again after the tracker came back";
        app.close();
    }
}

// The layer's log (its standard error) goes to a file while this lives.
class StderrToFile {
public:
    explicit StderrToFile(std::string path) : path_(std::move(path)) {
        std::fflush(stderr);
        saved_ = ::dup(2);
        const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_GE(fd, 0) << path_;
        if (fd >= 0) {
            ::dup2(fd, 2);
            ::close(fd);
        }
    }
    ~StderrToFile() {
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
    }
    StderrToFile(const StderrToFile&) = delete;
    StderrToFile& operator=(const StderrToFile&) = delete;
    size_t count(const std::string& part) const {
        const std::string text = orvtest::readText(path_);
        size_t n = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
        return n;
    }
    std::string text() const { return orvtest::readText(path_); }

private:
    std::string path_;
    int saved_ = -1;
};

// The tracker's orvRx restarts, then another client's command switches its
// streaming off: each time the views turn untracked, the feed under the
// layer gets the stream back by itself, the views are tracked again, and
// the layer's log tells the outage and the recovery.
TEST(Layer, TrackerPoseComesBackAfterARestartAndAnotherClientsCommand) {
    Tracker tracker;
    ASSERT_TRUE(tracker.start());
    const std::string other = tracker.dir.write(
        "other.ini", "[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " +
                         std::to_string(tracker.sim.port("tcpOrvRxPort")) +
                         "\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\nudpOrvRxInputPort = 0\n"
                         "udpOrvCorePort = 0\nudpNftPort = 0\nsMemImgName =\n");
    setLayerEnvironment(tracker.layerConfig("watch.ini", "staleMs = 150\nwhenStale = untracked\n"),
                        "XR_APILAYER_ORV_head_pose", false);
    StderrToFile log((tracker.dir.path() / "layer.log").string());
    App app;
    ASSERT_TRUE(app.open());
    ASSERT_TRUE(framesUntil(app, kAllViewBits)) << "never tracked: " << log.text();
    const auto logged = [&](const char* part, size_t n) {
        return framesUntil(app, [&](XrTime, XrViewStateFlags, const XrView*) { return log.count(part) >= n; });
    };

    // orvRx goes away: untracked, and the log says the poses stopped.
    const char* stopped = "the tracker's poses stopped (outage ";
    const char* back = "the tracker's poses are back after";
    const size_t stops = log.count(stopped), backs = log.count(back);
    tracker.sim.stop();
    ASSERT_TRUE(framesUntil(app, XrViewStateFlags{0})) << log.text();
    ASSERT_TRUE(logged(stopped, stops + 1)) << log.text();
    ASSERT_TRUE(tracker.sim.start(toRelay));
    ASSERT_TRUE(logged(back, backs + 1)) << log.text();
    ASSERT_TRUE(framesUntil(app, kAllViewBits)) << "not tracked after the restart: " << log.text();

    // Another client opens the library and reads a register.
    {
        OrvAccess client;
        client.setIniPath(other);
        ASSERT_TRUE(client.open()) << client.getLastError();
        unsigned char value = 0;
        EXPECT_TRUE(client.getRegister(200, 0x10, &value)) << client.getLastError();
    }
    ASSERT_TRUE(framesUntil(app, XrViewStateFlags{0})) << log.text();
    ASSERT_TRUE(logged(back, backs + 2)) << log.text();
    ASSERT_TRUE(framesUntil(app, kAllViewBits)) << "not tracked after the command: " << log.text();
    EXPECT_EQ(log.count(stopped), log.count(back)) << log.text();
    app.close();
}

// Relative to the platform: the head is turned into the frame of the newest
// platform pose the tracker reported, which the layer takes in xrWaitFrame.
TEST(Layer, RelativeToThePlatform) {
    Tracker tracker;
    ASSERT_TRUE(tracker.start());
    setLayerEnvironment(tracker.layerConfig("layer.ini", "staleMs = 600000\nrelativeToPlatform = true\n"),
                        "XR_APILAYER_ORV_head_pose", false);
    App app;
    ASSERT_TRUE(app.open());
    // The platform poses of the last two seconds: on a slow machine the
    // layer's socket may have dropped the newest ones the reference got.
    bool valid = false;
    s_OrvAccessPlatPoseData platform{}, p{};
    std::deque<s_OrvAccessPlatPoseData> recent;
    const auto newestPlatform = [&] {
        while (tracker.reference.getPlatformPoseData(&valid, &p) && valid) {
            platform = p;
            recent.push_back(p);
            if (recent.size() > 100) recent.pop_front();
        }
    };
    // Some platform poses into the run, so that the layer has taken one in
    // a frame: a request to stream (the first, or one after the tracker
    // went away) empties the queues it would find them in.
    ASSERT_TRUE(framesUntil(app, [&](XrTime, XrViewStateFlags f, const XrView*) {
        newestPlatform();
        return f == kAllViewBits && recent.size() >= 5;
    })) << "no tracked views with platform poses";
    tracker.stop();
    newestPlatform();
    s_OrvAccessTrkDataExt last{};
    ASSERT_TRUE(tracker.reference.getTrackingDataLatest(&valid, &last));
    ASSERT_TRUE(valid);
    ASSERT_GT(std::fabs(platform.pose[2]), 1e-3) << "a platform that is not turned tests nothing";

    const Mount mount(testMount());
    const uint64_t displayUs = last.poseTime + 10000;
    const auto end = Clock::now() + std::chrono::seconds(20);
    for (;;) {
        app.frame();  // the layer takes the platform's pose here
        s_OrvAccessTrkDataExt rec;
        ASSERT_TRUE(tracker.relay.resendLast());
        ASSERT_TRUE(tracker.reference.getTrackingDataAtTime(displayUs, &valid, &rec) && valid);
        const XrSpaceLocation head = app.locate(app.view_, app.local_, app.xrTimeOf(displayUs));
        double nearest = 1e9;
        for (auto it = recent.rbegin(); it != recent.rend(); ++it) {
            const double rpy[3] = {it->pose[0], it->pose[1], it->pose[2]};
            double platformCbn[3][3];
            OrvosiMath::euler2Cbn(rpy, platformCbn);
            const XrPosef want = toXr(mount.headPose(rec, platformCbn));
            const double apart =
                std::fabs(head.pose.position.x - want.position.x) +
                std::fabs(std::fabs(head.pose.orientation.y) - std::fabs(want.orientation.y));
            nearest = std::min(nearest, apart);
            if (std::fabs(head.pose.position.x - want.position.x) < 2e-5 &&
                std::fabs(std::fabs(head.pose.orientation.y) - std::fabs(want.orientation.y)) < 2e-5) {
                expectPose(head.pose, want, 2e-5, "VIEW in LOCAL, relative to the platform");
                // Without the platform the pose would be another one.
                const XrPosef world = toXr(mount.headPose(rec));
                EXPECT_GT(std::fabs(world.orientation.y - want.orientation.y) +
                              std::fabs(world.orientation.w - want.orientation.w),
                          1e-3);
                return;
            }
        }
        const XrPosef world = toXr(mount.headPose(rec));
        ASSERT_LT(Clock::now(), end)
            << "the layer's pose never became the reference's relative to the platform: nearest of "
            << recent.size() << " platform poses (tags " << recent.front().tag << " to " << recent.back().tag
            << ") " << nearest << ", without the platform "
            << std::fabs(head.pose.position.x - world.position.x) << ", flags " << head.locationFlags
            << ", pose time " << rec.poseTime << " tag " << rec.packetTag;
    }
}

// An application that knows nothing of the tracker gets its pose from
// environment variables alone, with Khronos's validation layer above and
// below the layer; the validation layer finds nothing wrong.
TEST(Layer, UnmodifiedApplicationWithTheValidationLayerAroundIt) {
    Tracker tracker;
    ASSERT_TRUE(tracker.start());
    const std::string config = tracker.layerConfig("layer.ini", "");
    for (const char* layers : {"XR_APILAYER_LUNARG_core_validation:XR_APILAYER_ORV_head_pose",
                               "XR_APILAYER_ORV_head_pose:XR_APILAYER_LUNARG_core_validation"}) {
        SCOPED_TRACE(layers);
        setLayerEnvironment(config, layers, true);
        const orvtest::Ran r = orvtest::run({ORVXR_APP, "--frames", "60"}, tracker.dir.path().string(), 60.0);
        EXPECT_EQ(r.code, 0) << r.out << r.err;
        EXPECT_EQ(r.out.find("VALID_ERROR"), std::string::npos) << r.out;
        EXPECT_NE(r.err.find("orvaccess OpenXR layer: head pose from the tracker of"), std::string::npos)
            << r.err;
        EXPECT_NE(r.out.find(" tracked "), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("with 0 tracked views"), std::string::npos) << r.out;
    }
    // A wrong path to the library's file is named, and the application runs
    // on with the runtime's own head.
    setenv("ORVACCESS_XR_INI", (tracker.dir.path() / "nosuch.ini").c_str(), 1);
    const orvtest::Ran r = orvtest::run({ORVXR_APP, "--frames", "3"}, tracker.dir.path().string(), 60.0);
    unsetenv("ORVACCESS_XR_INI");
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_NE(r.err.find("nosuch.ini does not exist; the runtime's poses pass through"), std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find("(+0.069, +1.600, -0.191)"), std::string::npos) << r.out;
}

}  // namespace
