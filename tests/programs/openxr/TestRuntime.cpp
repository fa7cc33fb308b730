// A headless OpenXR runtime for the layer's tests, loaded by the system's
// loader through XR_RUNTIME_JSON. It has a head that never moves, two eyes
// at fixed offsets from it, frames paced at 90 Hz and the time conversion
// extension; no graphics. Its XrTime is CLOCK_MONOTONIC shifted by a fixed
// offset, so that a layer which took an XrTime for a system time would be
// caught. Every function it does not offer answers
// XR_ERROR_FUNCTION_UNSUPPORTED: the loader asks for all of them and calls
// whatever it was given.
#include <openxr/openxr.h>
#include <time.h>
#define XR_USE_TIMESPEC
#include <openxr/openxr_platform.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

#include "openxr/LoaderInterface.hpp"
#include "openxr/XrStruct.hpp"
#include "programs/openxr/TestRuntime.hpp"

namespace {

using namespace orvxr;
using namespace orvxr::testruntime;

struct Instance {
    bool timespec = false;
    bool headless = false;
};
struct Session {
    Instance* instance = nullptr;
    bool running = false;
    int64_t lastFrameNs = 0;
};
struct Space {
    Session* session = nullptr;
    XrReferenceSpaceType type = XR_REFERENCE_SPACE_TYPE_LOCAL;
    XrPosef offset{};
};

std::mutex gEvents;
std::deque<XrEventDataSessionStateChanged> gQueue;

int64_t monotonicNs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}
XrTime now() { return monotonicNs() + kXrTimeOffsetNs; }

void pushState(XrSession s, XrSessionState state) {
    auto e = xrStruct<XrEventDataSessionStateChanged>(XR_TYPE_EVENT_DATA_SESSION_STATE_CHANGED);
    e.session = s;
    e.state = state;
    e.time = now();
    std::lock_guard<std::mutex> lock(gEvents);
    gQueue.push_back(e);
}

// Small pose maths on XrPosef, enough for fixed poses.
XrQuaternionf qmul(const XrQuaternionf& a, const XrQuaternionf& b) {
    return {a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y, a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x,
            a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w, a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z};
}
XrVector3f rotate(const XrQuaternionf& q, const XrVector3f& v) {
    const XrQuaternionf p{v.x, v.y, v.z, 0.0f};
    const XrQuaternionf c{-q.x, -q.y, -q.z, q.w};
    const XrQuaternionf r = qmul(qmul(q, p), c);
    return {r.x, r.y, r.z};
}
XrPosef compose(const XrPosef& a, const XrPosef& b) {
    const XrVector3f p = rotate(a.orientation, b.position);
    return {qmul(a.orientation, b.orientation), {a.position.x + p.x, a.position.y + p.y, a.position.z + p.z}};
}
XrPosef invert(const XrPosef& a) {
    const XrQuaternionf c{-a.orientation.x, -a.orientation.y, -a.orientation.z, a.orientation.w};
    const XrVector3f p = rotate(c, a.position);
    return {c, {-p.x, -p.y, -p.z}};
}
// A reference frame's origin in the runtime's one world.
XrPosef frameOf(XrReferenceSpaceType t) {
    if (t == XR_REFERENCE_SPACE_TYPE_VIEW) return kHead;
    if (t == XR_REFERENCE_SPACE_TYPE_STAGE) return kStage;
    return kIdentity;
}
XrPosef worldPose(const Space* s) { return compose(frameOf(s->type), s->offset); }

XrResult XRAPI_CALL unsupported() { return XR_ERROR_FUNCTION_UNSUPPORTED; }

XrResult XRAPI_CALL enumerateExtensions(const char* layer, uint32_t cap, uint32_t* count,
                                        XrExtensionProperties* props) {
    if (layer != nullptr) return XR_ERROR_API_LAYER_NOT_PRESENT;
    const char* names[] = {XR_MND_HEADLESS_EXTENSION_NAME, XR_KHR_CONVERT_TIMESPEC_TIME_EXTENSION_NAME};
    *count = 2;
    if (cap == 0) return XR_SUCCESS;
    if (cap < 2) return XR_ERROR_SIZE_INSUFFICIENT;
    for (int i = 0; i < 2; ++i) {
        std::snprintf(props[i].extensionName, sizeof props[i].extensionName, "%s", names[i]);
        props[i].extensionVersion = 1;
    }
    return XR_SUCCESS;
}

XrResult XRAPI_CALL enumerateLayers(uint32_t, uint32_t* count, XrApiLayerProperties*) {
    *count = 0;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL createInstance(const XrInstanceCreateInfo* info, XrInstance* out) {
    auto* in = new Instance;
    for (uint32_t i = 0; i < info->enabledExtensionCount; ++i) {
        const char* e = info->enabledExtensionNames[i];
        if (std::strcmp(e, XR_KHR_CONVERT_TIMESPEC_TIME_EXTENSION_NAME) == 0)
            in->timespec = true;
        else if (std::strcmp(e, XR_MND_HEADLESS_EXTENSION_NAME) == 0)
            in->headless = true;
        else {
            delete in;
            return XR_ERROR_EXTENSION_NOT_PRESENT;
        }
    }
    *out = reinterpret_cast<XrInstance>(in);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL destroyInstance(XrInstance i) {
    delete reinterpret_cast<Instance*>(i);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL getInstanceProperties(XrInstance, XrInstanceProperties* p) {
    p->runtimeVersion = XR_MAKE_VERSION(0, 0, 1);
    std::snprintf(p->runtimeName, sizeof p->runtimeName, "orv headless test runtime");
    return XR_SUCCESS;
}

XrResult XRAPI_CALL getSystem(XrInstance, const XrSystemGetInfo* info, XrSystemId* id) {
    if (info->formFactor != XR_FORM_FACTOR_HEAD_MOUNTED_DISPLAY) return XR_ERROR_FORM_FACTOR_UNSUPPORTED;
    *id = 1;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL getSystemProperties(XrInstance, XrSystemId, XrSystemProperties* p) {
    p->systemId = 1;
    p->vendorId = 0;
    std::snprintf(p->systemName, sizeof p->systemName, "headless");
    p->graphicsProperties = {2048, 2048, 1};
    p->trackingProperties = {XR_TRUE, XR_TRUE};
    return XR_SUCCESS;
}

XrResult XRAPI_CALL enumerateViewConfigurations(XrInstance, XrSystemId, uint32_t cap, uint32_t* count,
                                                XrViewConfigurationType* types) {
    *count = 1;
    if (cap == 0) return XR_SUCCESS;
    types[0] = XR_VIEW_CONFIGURATION_TYPE_PRIMARY_STEREO;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL enumerateViewConfigurationViews(XrInstance, XrSystemId, XrViewConfigurationType,
                                                    uint32_t cap, uint32_t* count,
                                                    XrViewConfigurationView* views) {
    *count = 2;
    if (cap == 0) return XR_SUCCESS;
    if (cap < 2) return XR_ERROR_SIZE_INSUFFICIENT;
    for (int i = 0; i < 2; ++i) {
        views[i].recommendedImageRectWidth = views[i].maxImageRectWidth = 1024;
        views[i].recommendedImageRectHeight = views[i].maxImageRectHeight = 1024;
        views[i].recommendedSwapchainSampleCount = views[i].maxSwapchainSampleCount = 1;
    }
    return XR_SUCCESS;
}

XrResult XRAPI_CALL createSession(XrInstance instance, const XrSessionCreateInfo* info, XrSession* out) {
    auto* in = reinterpret_cast<Instance*>(instance);
    if (!in->headless || info->next != nullptr) return XR_ERROR_GRAPHICS_DEVICE_INVALID;
    auto* s = new Session;
    s->instance = in;
    *out = reinterpret_cast<XrSession>(s);
    pushState(*out, XR_SESSION_STATE_IDLE);
    pushState(*out, XR_SESSION_STATE_READY);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL destroySession(XrSession s) {
    delete reinterpret_cast<Session*>(s);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL beginSession(XrSession s, const XrSessionBeginInfo*) {
    reinterpret_cast<Session*>(s)->running = true;
    pushState(s, XR_SESSION_STATE_SYNCHRONIZED);
    pushState(s, XR_SESSION_STATE_VISIBLE);
    pushState(s, XR_SESSION_STATE_FOCUSED);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL endSession(XrSession s) {
    reinterpret_cast<Session*>(s)->running = false;
    pushState(s, XR_SESSION_STATE_IDLE);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL requestExitSession(XrSession s) {
    pushState(s, XR_SESSION_STATE_STOPPING);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL pollEvent(XrInstance, XrEventDataBuffer* buffer) {
    std::lock_guard<std::mutex> lock(gEvents);
    if (gQueue.empty()) return XR_EVENT_UNAVAILABLE;
    std::memcpy(buffer, &gQueue.front(), sizeof(XrEventDataSessionStateChanged));
    gQueue.pop_front();
    return XR_SUCCESS;
}

XrResult XRAPI_CALL waitFrame(XrSession session, const XrFrameWaitInfo*, XrFrameState* state) {
    auto* s = reinterpret_cast<Session*>(session);
    // Paced, not timed: each frame waits for the rest of its period.
    const int64_t due = s->lastFrameNs + kFramePeriodNs;
    int64_t t = monotonicNs();
    if (t < due) {
        const timespec ts{0, static_cast<long>(due - t)};
        nanosleep(&ts, nullptr);
        t = monotonicNs();
    }
    s->lastFrameNs = t;
    state->predictedDisplayTime = t + kXrTimeOffsetNs + kDisplayLatencyNs;
    state->predictedDisplayPeriod = kFramePeriodNs;
    state->shouldRender = XR_TRUE;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL beginFrame(XrSession, const XrFrameBeginInfo*) { return XR_SUCCESS; }
XrResult XRAPI_CALL endFrame(XrSession, const XrFrameEndInfo*) { return XR_SUCCESS; }

XrResult XRAPI_CALL enumerateReferenceSpaces(XrSession, uint32_t cap, uint32_t* count,
                                             XrReferenceSpaceType* t) {
    *count = 3;
    if (cap == 0) return XR_SUCCESS;
    if (cap < 3) return XR_ERROR_SIZE_INSUFFICIENT;
    t[0] = XR_REFERENCE_SPACE_TYPE_VIEW;
    t[1] = XR_REFERENCE_SPACE_TYPE_LOCAL;
    t[2] = XR_REFERENCE_SPACE_TYPE_STAGE;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL createReferenceSpace(XrSession session, const XrReferenceSpaceCreateInfo* info,
                                         XrSpace* out) {
    if (info->referenceSpaceType != XR_REFERENCE_SPACE_TYPE_VIEW &&
        info->referenceSpaceType != XR_REFERENCE_SPACE_TYPE_LOCAL &&
        info->referenceSpaceType != XR_REFERENCE_SPACE_TYPE_STAGE)
        return XR_ERROR_REFERENCE_SPACE_UNSUPPORTED;
    auto* s = new Space;
    s->session = reinterpret_cast<Session*>(session);
    s->type = info->referenceSpaceType;
    s->offset = info->poseInReferenceSpace;
    *out = reinterpret_cast<XrSpace>(s);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL destroySpace(XrSpace s) {
    delete reinterpret_cast<Space*>(s);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL locateSpace(XrSpace space, XrSpace base, XrTime, XrSpaceLocation* loc) {
    const XrPosef p = compose(invert(worldPose(reinterpret_cast<Space*>(base))),
                              worldPose(reinterpret_cast<Space*>(space)));
    loc->pose = p;
    loc->locationFlags = XR_SPACE_LOCATION_ORIENTATION_VALID_BIT | XR_SPACE_LOCATION_POSITION_VALID_BIT |
                         XR_SPACE_LOCATION_ORIENTATION_TRACKED_BIT | XR_SPACE_LOCATION_POSITION_TRACKED_BIT;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL locateViews(XrSession, const XrViewLocateInfo* info, XrViewState* state, uint32_t cap,
                                uint32_t* count, XrView* views) {
    *count = 2;
    if (cap == 0) return XR_SUCCESS;
    if (cap < 2) return XR_ERROR_SIZE_INSUFFICIENT;
    const XrPosef toBase = invert(worldPose(reinterpret_cast<Space*>(info->space)));
    for (int i = 0; i < 2; ++i) {
        views[i].pose = compose(toBase, compose(kHead, kEyes[i]));
        views[i].fov = kFov[i];
    }
    state->viewStateFlags = XR_VIEW_STATE_ORIENTATION_VALID_BIT | XR_VIEW_STATE_POSITION_VALID_BIT |
                            XR_VIEW_STATE_ORIENTATION_TRACKED_BIT | XR_VIEW_STATE_POSITION_TRACKED_BIT;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL timespecToTime(XrInstance instance, const timespec* t, XrTime* out) {
    if (!reinterpret_cast<Instance*>(instance)->timespec) return XR_ERROR_FUNCTION_UNSUPPORTED;
    *out = static_cast<int64_t>(t->tv_sec) * 1000000000 + t->tv_nsec + kXrTimeOffsetNs;
    return XR_SUCCESS;
}

XrResult XRAPI_CALL timeToTimespec(XrInstance instance, XrTime time, timespec* out) {
    if (!reinterpret_cast<Instance*>(instance)->timespec) return XR_ERROR_FUNCTION_UNSUPPORTED;
    const int64_t ns = time - kXrTimeOffsetNs;
    out->tv_sec = static_cast<time_t>(ns / 1000000000);
    out->tv_nsec = static_cast<long>(ns % 1000000000);
    return XR_SUCCESS;
}

XrResult XRAPI_CALL resultToString(XrInstance, XrResult value, char buffer[XR_MAX_RESULT_STRING_SIZE]) {
    std::snprintf(buffer, XR_MAX_RESULT_STRING_SIZE, "XR_RESULT_%d", static_cast<int>(value));
    return XR_SUCCESS;
}

XrResult XRAPI_CALL structureTypeToString(XrInstance, XrStructureType value,
                                          char buffer[XR_MAX_STRUCTURE_NAME_SIZE]) {
    std::snprintf(buffer, XR_MAX_STRUCTURE_NAME_SIZE, "XR_STRUCTURE_TYPE_%d", static_cast<int>(value));
    return XR_SUCCESS;
}

XrResult XRAPI_CALL getInstanceProcAddr(XrInstance, const char* name, PFN_xrVoidFunction* function) {
    struct Entry {
        const char* name;
        PFN_xrVoidFunction function;
    };
#define ORVXR_FN(n, f) \
    { #n, reinterpret_cast < PFN_xrVoidFunction>(f) }
    static const Entry table[] = {
        ORVXR_FN(xrGetInstanceProcAddr, getInstanceProcAddr),
        ORVXR_FN(xrEnumerateInstanceExtensionProperties, enumerateExtensions),
        ORVXR_FN(xrEnumerateApiLayerProperties, enumerateLayers),
        ORVXR_FN(xrCreateInstance, createInstance),
        ORVXR_FN(xrDestroyInstance, destroyInstance),
        ORVXR_FN(xrGetInstanceProperties, getInstanceProperties),
        ORVXR_FN(xrGetSystem, getSystem),
        ORVXR_FN(xrGetSystemProperties, getSystemProperties),
        ORVXR_FN(xrEnumerateViewConfigurations, enumerateViewConfigurations),
        ORVXR_FN(xrEnumerateViewConfigurationViews, enumerateViewConfigurationViews),
        ORVXR_FN(xrCreateSession, createSession),
        ORVXR_FN(xrDestroySession, destroySession),
        ORVXR_FN(xrBeginSession, beginSession),
        ORVXR_FN(xrEndSession, endSession),
        ORVXR_FN(xrRequestExitSession, requestExitSession),
        ORVXR_FN(xrPollEvent, pollEvent),
        ORVXR_FN(xrWaitFrame, waitFrame),
        ORVXR_FN(xrBeginFrame, beginFrame),
        ORVXR_FN(xrEndFrame, endFrame),
        ORVXR_FN(xrEnumerateReferenceSpaces, enumerateReferenceSpaces),
        ORVXR_FN(xrCreateReferenceSpace, createReferenceSpace),
        ORVXR_FN(xrDestroySpace, destroySpace),
        ORVXR_FN(xrLocateSpace, locateSpace),
        ORVXR_FN(xrLocateViews, locateViews),
        ORVXR_FN(xrConvertTimespecTimeToTimeKHR, timespecToTime),
        ORVXR_FN(xrConvertTimeToTimespecTimeKHR, timeToTimespec),
        ORVXR_FN(xrResultToString, resultToString),
        ORVXR_FN(xrStructureTypeToString, structureTypeToString),
    };
#undef ORVXR_FN
    if (name == nullptr || function == nullptr) return XR_ERROR_VALIDATION_FAILURE;
    for (const Entry& e : table) {
        if (std::strcmp(name, e.name) == 0) {
            *function = e.function;
            return XR_SUCCESS;
        }
    }
    *function = reinterpret_cast<PFN_xrVoidFunction>(unsupported);
    return XR_SUCCESS;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) XrResult XRAPI_CALL xrNegotiateLoaderRuntimeInterface(
    const XrNegotiateLoaderInfo* loaderInfo, XrNegotiateRuntimeRequest* request) {
    if (!loaderOfferFits(loaderInfo, kLoaderRuntimeInterfaceVersion) || request == nullptr ||
        request->structType != kLoaderStructRuntimeRequest ||
        request->structSize != sizeof(XrNegotiateRuntimeRequest))
        return XR_ERROR_INITIALIZATION_FAILED;
    request->runtimeInterfaceVersion = kLoaderRuntimeInterfaceVersion;
    request->runtimeApiVersion = XR_CURRENT_API_VERSION;
    request->getInstanceProcAddr = getInstanceProcAddr;
    return XR_SUCCESS;
}
