// orvxrfloor: what the OpenXR layer costs an application's render thread.
//
// This program is the application: it runs the simulator in a thread as
// the tracker, and times xrLocateViews and xrLocateSpace (VIEW in LOCAL)
// through the system's loader to the headless test runtime, once with the
// layer enabled and once without it. The runtime alone is the floor: what
// the application pays for locating views anyway. The test runtime's own
// work is a few small pose products, so the difference is the layer's.
// The loader allows one instance at a time, so each round makes one
// instance of each kind in turn. Nothing here is a test: figures are
// printed, never judged.
//
//   orvxrfloor [rounds]      (5 unless given)
#include <openxr/openxr.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <time.h>
#include <vector>

#include "orvaccess/OrvPoseFeed.hpp"
#include "orvsim/Simulator.hpp"
#include "support/Loopback.hpp"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kCalls = 20000;

template <typename T>
T xrStruct(XrStructureType type) {
    T value{};
    value.type = type;
    return value;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// One instance, session and LOCAL and VIEW spaces; the layer if asked.
struct App {
    XrInstance instance = XR_NULL_HANDLE;
    XrSession session = XR_NULL_HANDLE;
    XrSpace local = XR_NULL_HANDLE, view = XR_NULL_HANDLE;
    std::string error;

    bool open(bool withLayer) {
        const char* ext[] = {XR_MND_HEADLESS_EXTENSION_NAME};
        const char* layers[] = {"XR_APILAYER_ORV_head_pose"};
        auto ici = xrStruct<XrInstanceCreateInfo>(XR_TYPE_INSTANCE_CREATE_INFO);
        std::snprintf(ici.applicationInfo.applicationName, XR_MAX_APPLICATION_NAME_SIZE, "orvxrfloor");
        ici.applicationInfo.apiVersion = XR_CURRENT_API_VERSION;
        ici.enabledExtensionCount = 1;
        ici.enabledExtensionNames = ext;
        ici.enabledApiLayerCount = withLayer ? 1 : 0;
        ici.enabledApiLayerNames = layers;
        auto sgi = xrStruct<XrSystemGetInfo>(XR_TYPE_SYSTEM_GET_INFO);
        sgi.formFactor = XR_FORM_FACTOR_HEAD_MOUNTED_DISPLAY;
        XrSystemId system = XR_NULL_SYSTEM_ID;
        auto sci = xrStruct<XrSessionCreateInfo>(XR_TYPE_SESSION_CREATE_INFO);
        auto rci = xrStruct<XrReferenceSpaceCreateInfo>(XR_TYPE_REFERENCE_SPACE_CREATE_INFO);
        rci.poseInReferenceSpace.orientation.w = 1.0f;
        if (XR_FAILED(xrCreateInstance(&ici, &instance))) return fail("xrCreateInstance");
        if (XR_FAILED(xrGetSystem(instance, &sgi, &system))) return fail("xrGetSystem");
        sci.systemId = system;
        if (XR_FAILED(xrCreateSession(instance, &sci, &session))) return fail("xrCreateSession");
        rci.referenceSpaceType = XR_REFERENCE_SPACE_TYPE_LOCAL;
        if (XR_FAILED(xrCreateReferenceSpace(session, &rci, &local))) return fail("LOCAL space");
        rci.referenceSpaceType = XR_REFERENCE_SPACE_TYPE_VIEW;
        if (XR_FAILED(xrCreateReferenceSpace(session, &rci, &view))) return fail("VIEW space");
        return true;
    }
    bool fail(const char* what) {
        error = std::string(what) + " failed";
        return false;
    }
    ~App() {
        if (view != XR_NULL_HANDLE) xrDestroySpace(view);
        if (local != XR_NULL_HANDLE) xrDestroySpace(local);
        if (session != XR_NULL_HANDLE) xrDestroySession(session);
        if (instance != XR_NULL_HANDLE) xrDestroyInstance(instance);
    }

    XrTime now() {
        auto fs = xrStruct<XrFrameState>(XR_TYPE_FRAME_STATE);
        auto fwi = xrStruct<XrFrameWaitInfo>(XR_TYPE_FRAME_WAIT_INFO);
        xrWaitFrame(session, &fwi, &fs);
        return fs.predictedDisplayTime;
    }
    XrViewStateFlags views(XrTime t) {
        auto vli = xrStruct<XrViewLocateInfo>(XR_TYPE_VIEW_LOCATE_INFO);
        vli.viewConfigurationType = XR_VIEW_CONFIGURATION_TYPE_PRIMARY_STEREO;
        vli.displayTime = t;
        vli.space = local;
        auto vs = xrStruct<XrViewState>(XR_TYPE_VIEW_STATE);
        XrView v[2] = {xrStruct<XrView>(XR_TYPE_VIEW), xrStruct<XrView>(XR_TYPE_VIEW)};
        uint32_t n = 0;
        xrLocateViews(session, &vli, &vs, 2, &n, v);
        return vs.viewStateFlags;
    }
    XrSpaceLocationFlags head(XrTime t) {
        auto loc = xrStruct<XrSpaceLocation>(XR_TYPE_SPACE_LOCATION);
        xrLocateSpace(view, local, t, &loc);
        return loc.locationFlags;
    }
};

double threadCpuNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_nsec);
}

// The calling thread's CPU time per call of f over kCalls calls: what the
// render thread pays, whatever else the shared machine runs meanwhile.
template <typename F>
double nsPerCall(F&& f) {
    const double t0 = threadCpuNs();
    for (int i = 0; i < kCalls; ++i) f();
    return (threadCpuNs() - t0) / kCalls;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    if (rounds < 1) {
        std::fprintf(stderr, "usage: orvxrfloor [rounds]\n");
        return 2;
    }
    // The tracker: the simulator on fresh ports, configured by one INI file
    // that the layer's feed opens as well.
    std::string dirText = (std::filesystem::temp_directory_path() / "orvxrfloor-XXXXXX").string();
    if (mkdtemp(dirText.data()) == nullptr) return 1;
    const std::filesystem::path dir = dirText;
    const std::string ini = (dir / "orvaccess.ini").string();
    {
        std::ofstream f(ini);
        f << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\nsMemImgName =\n";
        for (const char* key : {"tcpOrvRxPort", "udpOrvRxPort", "udpOrvRxImgPort", "udpOrvRxInputPort",
                                "udpOrvCorePort", "udpOrvHubPort", "udpNftPort"})
            f << key << " = " << orvtest::findFreePort() << "\n";
        f << "[Processing]\nvirtualSyncCtrl = 2\npredictionS = 0.004\n";
    }
    std::ofstream(dir / "layer.ini") << "[Layer]\nini = " << ini << "\n";
    orvsim::SimConfig cfg;
    std::string error;
    if (!orvsim::SimConfig::fromIni(ini, cfg, error)) {
        std::fprintf(stderr, "orvxrfloor: %s\n", error.c_str());
        return 1;
    }
    orvsim::Simulator sim(cfg);
    if (!sim.open()) {
        std::fprintf(stderr, "orvxrfloor: the simulator did not start: %s\n", sim.lastError().c_str());
        return 1;
    }
    std::atomic<bool> stop{false};
    std::thread simThread([&] { sim.run(0.0, &stop); });

    setenv("XR_RUNTIME_JSON", ORVXR_RUNTIME_JSON, 1);
    setenv("XR_API_LAYER_PATH", ORVXR_LAYER_DIR, 1);
    unsetenv("XR_ENABLE_API_LAYERS");
    setenv("ORVACCESS_XR_CONFIG", (dir / "layer.ini").c_str(), 1);

    std::vector<double> viewsLayer, viewsRuntime, spaceLayer, spaceRuntime, feedRead;
    bool ok = true;
    for (int r = 0; r < rounds && ok; ++r) {
        for (const bool layer : {false, true}) {
            App app;
            if (!app.open(layer)) {
                std::fprintf(stderr, "orvxrfloor: %s\n", app.error.c_str());
                ok = false;
                break;
            }
            // With the layer, wait for the tracker's pose before timing.
            const auto end = Clock::now() + std::chrono::seconds(10);
            while (layer && app.views(app.now()) != 0xF && Clock::now() < end) {
            }
            if (layer && app.views(app.now()) != 0xF) {
                std::fprintf(stderr, "orvxrfloor: the layer's views never became tracked\n");
                ok = false;
                break;
            }
            const XrTime t = app.now();
            (layer ? viewsLayer : viewsRuntime).push_back(nsPerCall([&] { app.views(t); }));
            (layer ? spaceLayer : spaceRuntime).push_back(nsPerCall([&] { app.head(t); }));
            if (layer) continue;
            // The feed the layer reads, alone, while the layer's own is
            // not there to hold the ports: one predicted pose 20 ms ahead.
            OrvPoseFeed feed(ini);
            OrvPoseFeed::Reader reader(feed);
            s_OrvPoseFeedPose pose;
            const auto until = Clock::now() + std::chrono::seconds(10);
            while (feed.isRunning() && !feed.getLatest(&pose) && Clock::now() < until)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (!feed.getLatest(&pose)) {
                std::fprintf(stderr, "orvxrfloor: the feed got no pose: %s\n", feed.getLastError().c_str());
                ok = false;
                break;
            }
            const unsigned long at = static_cast<unsigned long>(pose.data.poseTime) + 20000;
            feedRead.push_back(nsPerCall([&] { reader.getAtTime(at, &pose); }));
        }
    }
    stop = true;
    simThread.join();
    sim.close();
    std::filesystem::remove_all(dir);
    if (!ok) return 1;

    const double vl = median(viewsLayer), vr = median(viewsRuntime), sl = median(spaceLayer),
                 sr = median(spaceRuntime), fr = median(feedRead);
    std::printf(
        "OpenXR layer on the render thread: %d rounds of %d calls, the thread's CPU time per call, "
        "medians\n\n",
        rounds, kCalls);
    std::printf("| path | library | floor | ratio | goal |\n|---|---|---|---|---|\n");
    std::printf(
        "| `xrLocateViews`, 2 views in LOCAL, through the layer (tracker pose predicted to the display "
        "time) | %.0f ns | the runtime alone %.0f ns | %.2f (+%.0f ns) | - |\n",
        vl, vr, vl / vr, vl - vr);
    std::printf(
        "| `xrLocateSpace`, VIEW in LOCAL, through the layer | %.0f ns | the runtime alone %.0f ns | %.2f "
        "(+%.0f ns) | - |\n",
        sl, sr, sl / sr, sl - sr);
    std::printf("| (the feed's `Reader::getAtTime` alone: the pose the layer reads) | | %.0f ns | | |\n", fr);
    std::printf(
        "| `xrLocateViews` through the layer against the runtime plus the feed | %.0f ns | %.0f ns | %.2f "
        "(+%.0f ns) | - |\n",
        vl, vr + fr, vl / (vr + fr), vl - vr - fr);
    return 0;
}
