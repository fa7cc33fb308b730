// orvxrapp: a plain headless OpenXR application that knows nothing of the
// tracker. It creates an instance and a session, runs frames, locates the
// views in LOCAL space at each frame's predicted display time and prints
// them. Whatever layers the environment enables see its calls, as they
// would see any application's.
//
//   orvxrapp [--frames N]      (default 10)
//
// Exit status: 0 when every call succeeded, 1 otherwise.
#include <openxr/openxr.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

template <typename T>
T xrStruct(XrStructureType type) {
    T value{};
    value.type = type;
    return value;
}

bool ok(XrResult r, const char* what) {
    if (XR_SUCCEEDED(r)) return true;
    std::fprintf(stderr, "orvxrapp: %s failed: %d\n", what, static_cast<int>(r));
    return false;
}

const char* flagsText(XrViewStateFlags f) {
    const bool valid = (f & XR_VIEW_STATE_ORIENTATION_VALID_BIT) && (f & XR_VIEW_STATE_POSITION_VALID_BIT);
    const bool tracked =
        (f & XR_VIEW_STATE_ORIENTATION_TRACKED_BIT) && (f & XR_VIEW_STATE_POSITION_TRACKED_BIT);
    return tracked && valid ? "tracked  " : valid ? "valid    " : "not valid";
}

}  // namespace

int main(int argc, char** argv) {
    int frames = 10;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--frames") == 0 && i + 1 < argc) {
            frames = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: orvxrapp [--frames N]\n");
            return 2;
        }
    }

    const char* extensions[] = {XR_MND_HEADLESS_EXTENSION_NAME};
    auto ici = xrStruct<XrInstanceCreateInfo>(XR_TYPE_INSTANCE_CREATE_INFO);
    std::snprintf(ici.applicationInfo.applicationName, XR_MAX_APPLICATION_NAME_SIZE, "orvxrapp");
    ici.applicationInfo.apiVersion = XR_CURRENT_API_VERSION;
    ici.enabledExtensionCount = 1;
    ici.enabledExtensionNames = extensions;
    XrInstance instance = XR_NULL_HANDLE;
    if (!ok(xrCreateInstance(&ici, &instance), "xrCreateInstance")) return 1;
    auto props = xrStruct<XrInstanceProperties>(XR_TYPE_INSTANCE_PROPERTIES);
    xrGetInstanceProperties(instance, &props);
    std::printf("orvxrapp: runtime \"%s\"\n", props.runtimeName);

    bool good = true;
    auto sgi = xrStruct<XrSystemGetInfo>(XR_TYPE_SYSTEM_GET_INFO);
    sgi.formFactor = XR_FORM_FACTOR_HEAD_MOUNTED_DISPLAY;
    XrSystemId system = XR_NULL_SYSTEM_ID;
    XrSession session = XR_NULL_HANDLE;
    XrSpace local = XR_NULL_HANDLE;
    good = ok(xrGetSystem(instance, &sgi, &system), "xrGetSystem");
    if (good) {
        auto sci = xrStruct<XrSessionCreateInfo>(XR_TYPE_SESSION_CREATE_INFO);
        sci.systemId = system;
        good = ok(xrCreateSession(instance, &sci, &session), "xrCreateSession");
    }
    if (good) {
        auto rci = xrStruct<XrReferenceSpaceCreateInfo>(XR_TYPE_REFERENCE_SPACE_CREATE_INFO);
        rci.referenceSpaceType = XR_REFERENCE_SPACE_TYPE_LOCAL;
        rci.poseInReferenceSpace.orientation.w = 1.0f;
        good = ok(xrCreateReferenceSpace(session, &rci, &local), "xrCreateReferenceSpace");
    }
    // Wait for the session to be ready, as every application does.
    bool ready = false;
    for (int polls = 0; good && !ready && polls < 100; ++polls) {
        auto event = xrStruct<XrEventDataBuffer>(XR_TYPE_EVENT_DATA_BUFFER);
        if (xrPollEvent(instance, &event) != XR_SUCCESS) continue;
        if (event.type == XR_TYPE_EVENT_DATA_SESSION_STATE_CHANGED)
            ready =
                reinterpret_cast<XrEventDataSessionStateChanged*>(&event)->state == XR_SESSION_STATE_READY;
    }
    if (good && !ready) {
        std::fprintf(stderr, "orvxrapp: the session never became ready\n");
        good = false;
    }
    if (good) {
        auto sbi = xrStruct<XrSessionBeginInfo>(XR_TYPE_SESSION_BEGIN_INFO);
        sbi.primaryViewConfigurationType = XR_VIEW_CONFIGURATION_TYPE_PRIMARY_STEREO;
        good = ok(xrBeginSession(session, &sbi), "xrBeginSession");
    }
    int tracked = 0;
    if (good)
        std::printf(
            "frame  display time (ns)   views      left eye position (m)        right eye position (m)\n");
    for (int f = 0; good && f < frames; ++f) {
        auto fs = xrStruct<XrFrameState>(XR_TYPE_FRAME_STATE);
        auto fwi = xrStruct<XrFrameWaitInfo>(XR_TYPE_FRAME_WAIT_INFO);
        good = ok(xrWaitFrame(session, &fwi, &fs), "xrWaitFrame");
        auto fbi = xrStruct<XrFrameBeginInfo>(XR_TYPE_FRAME_BEGIN_INFO);
        good = good && ok(xrBeginFrame(session, &fbi), "xrBeginFrame");
        if (!good) break;
        auto vli = xrStruct<XrViewLocateInfo>(XR_TYPE_VIEW_LOCATE_INFO);
        vli.viewConfigurationType = XR_VIEW_CONFIGURATION_TYPE_PRIMARY_STEREO;
        vli.displayTime = fs.predictedDisplayTime;
        vli.space = local;
        auto vs = xrStruct<XrViewState>(XR_TYPE_VIEW_STATE);
        XrView views[2] = {xrStruct<XrView>(XR_TYPE_VIEW), xrStruct<XrView>(XR_TYPE_VIEW)};
        uint32_t count = 0;
        good = ok(xrLocateViews(session, &vli, &vs, 2, &count, views), "xrLocateViews");
        if (good && count == 2) {
            const XrVector3f& l = views[0].pose.position;
            const XrVector3f& r = views[1].pose.position;
            std::printf("%5d  %17lld   %s", f + 1, static_cast<long long>(fs.predictedDisplayTime),
                        flagsText(vs.viewStateFlags));
            if (vs.viewStateFlags & XR_VIEW_STATE_POSITION_VALID_BIT)
                std::printf("  (%+.3f, %+.3f, %+.3f)   (%+.3f, %+.3f, %+.3f)\n", l.x, l.y, l.z, r.x, r.y,
                            r.z);
            else
                std::printf("  -                          -\n");
            if (std::strncmp(flagsText(vs.viewStateFlags), "tracked", 7) == 0) ++tracked;
        }
        auto fei = xrStruct<XrFrameEndInfo>(XR_TYPE_FRAME_END_INFO);
        fei.displayTime = fs.predictedDisplayTime;
        fei.environmentBlendMode = XR_ENVIRONMENT_BLEND_MODE_OPAQUE;
        good = good && ok(xrEndFrame(session, &fei), "xrEndFrame");
    }
    if (session != XR_NULL_HANDLE) {
        if (good) ok(xrEndSession(session), "xrEndSession");
        if (local != XR_NULL_HANDLE) xrDestroySpace(local);
        xrDestroySession(session);
    }
    xrDestroyInstance(instance);
    if (good) std::printf("orvxrapp: %d frames, %d with tracked views\n", frames, tracked);
    return good ? 0 : 1;
}
