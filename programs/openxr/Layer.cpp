// The OpenXR API layer: the head pose of every view and of the VIEW space
// comes from the tracker, predicted to the display time the application
// asks for. Everything else passes to the next layer or the runtime.
//
// The loader finds xrNegotiateLoaderApiLayerInterface (the only symbol this
// library exports) and calls xrCreateApiLayerInstance through it. From then
// on the layer sees the calls it hooks in xrGetInstanceProcAddr: instance,
// session and space lifecycles, to know which spaces are LOCAL, STAGE and
// VIEW, and xrLocateViews and xrLocateSpace, to replace the head pose.
// The per-eye offsets and fields of view stay the runtime's: the layer asks
// the runtime for the views relative to its own VIEW space and puts them on
// the tracker's head.

#include <openxr/openxr.h>
// The platform header wants the system types of its extensions first.
#include <time.h>
#define XR_USE_TIMESPEC
#include <openxr/openxr_platform.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "openxr/Clock.hpp"
#include "openxr/HandleTable.hpp"
#include "openxr/LayerConfig.hpp"
#include "openxr/LoaderInterface.hpp"
#include "openxr/Mount.hpp"
#include "openxr/XrStruct.hpp"
#include "orvaccess/OrvPoseFeed.hpp"
#include "math/OrvosiMath.hpp"

namespace orvxr {
namespace {

constexpr const char* kLayerName = "XR_APILAYER_ORV_head_pose";

template <typename H>
uint64_t key(H handle) {
    return reinterpret_cast<uint64_t>(handle);
}

void say(const std::string& line) { std::fprintf(stderr, "orvaccess OpenXR layer: %s\n", line.c_str()); }

// ---- the tracker: one feed per process, shared by its instances ----------

struct FeedHolder {
    std::mutex mutex;
    std::unique_ptr<OrvPoseFeed> feed;
    std::string iniPath;
    int users = 0;
    // Counts feeds made, so that a render thread's reader of an old feed is
    // never used with a new one.
    std::atomic<uint64_t> generation{0};
};
FeedHolder& feedHolder() {
    static FeedHolder h;
    return h;
}

// The newest platform attitude (roll, pitch, yaw), for poses relative to the
// platform: written by xrWaitFrame's thread, read by render threads. A
// sequence count around three atomic values; each value is stored with
// release and loaded with acquire, so that a reader that sees a new value
// also sees the count it was written under, and tries again.
struct PlatformAttitude {
    std::atomic<uint32_t> sequence{0};
    std::atomic<double> rpy[3] = {};
    std::atomic<bool> known{false};

    void publish(const float rpyIn[3]) {
        sequence.fetch_add(1, std::memory_order_acq_rel);
        for (int i = 0; i < 3; ++i) rpy[i].store(rpyIn[i], std::memory_order_release);
        sequence.fetch_add(1, std::memory_order_release);
        known.store(true, std::memory_order_release);
    }
    bool read(double out[3]) const {
        if (!known.load(std::memory_order_acquire)) return false;
        for (;;) {
            const uint32_t s0 = sequence.load(std::memory_order_acquire);
            for (int i = 0; i < 3; ++i) out[i] = rpy[i].load(std::memory_order_acquire);
            if ((s0 & 1u) == 0 && sequence.load(std::memory_order_relaxed) == s0) return true;
        }
    }
};

struct NextFunctions {
    PFN_xrGetInstanceProcAddr getInstanceProcAddr = nullptr;
    PFN_xrDestroyInstance destroyInstance = nullptr;
    PFN_xrCreateSession createSession = nullptr;
    PFN_xrDestroySession destroySession = nullptr;
    PFN_xrCreateReferenceSpace createReferenceSpace = nullptr;
    PFN_xrCreateActionSpace createActionSpace = nullptr;
    PFN_xrDestroySpace destroySpace = nullptr;
    PFN_xrLocateViews locateViews = nullptr;
    PFN_xrLocateSpace locateSpace = nullptr;
    PFN_xrWaitFrame waitFrame = nullptr;
    PFN_xrConvertTimeToTimespecTimeKHR timeToTimespec = nullptr;
};

struct InstanceState {
    XrInstance handle = XR_NULL_HANDLE;
    NextFunctions next;
    LayerConfig cfg;
    Mount mount;
    OrvPoseFeed* feed = nullptr;  // null: the layer passes everything through
    uint64_t feedGeneration = 0;
    PlatformAttitude platform;
    // The feed's recovery record as last told in the log (frame loop only).
    s_OrvPoseFeedRecovery told{};
};

struct SessionState {
    XrSession handle = XR_NULL_HANDLE;
    InstanceState* instance = nullptr;
    // The runtime's own VIEW space: the views located in it are the eyes
    // relative to the runtime's head.
    XrSpace runtimeView = XR_NULL_HANDLE;
};

struct SpaceState {
    XrSpace handle = XR_NULL_HANDLE;
    SessionState* session = nullptr;
    bool reference = false;
    XrReferenceSpaceType type = XR_REFERENCE_SPACE_TYPE_VIEW;
    Rigid offset;   // the space's origin in its reference frame
    Rigid inverse;  // and the way back, made once
};

HandleTable<InstanceState, 8> gInstances;
HandleTable<SessionState, 16> gSessions;
HandleTable<SpaceState, 512> gSpaces;
// The newest instance's next functions, for calls that name no handle the
// layer knows: spaces made by extensions' functions, which it does not hook.
// The loader allows one instance at a time.
std::atomic<PFN_xrGetInstanceProcAddr> gLastNextGetProcAddr{nullptr};
std::atomic<PFN_xrLocateSpace> gLastNextLocateSpace{nullptr};
std::atomic<PFN_xrDestroySpace> gLastNextDestroySpace{nullptr};

bool tracksAgainst(const SpaceState* s) {
    return s != nullptr && s->reference &&
           (s->type == XR_REFERENCE_SPACE_TYPE_LOCAL || s->type == XR_REFERENCE_SPACE_TYPE_STAGE);
}
bool isView(const SpaceState* s) {
    return s != nullptr && s->reference && s->type == XR_REFERENCE_SPACE_TYPE_VIEW;
}

OrvPoseFeed* acquireFeed(const LayerConfig& cfg, uint64_t* generation) {
    FeedHolder& h = feedHolder();
    std::lock_guard<std::mutex> lock(h.mutex);
    if (!h.feed) {
        // The library takes a missing file for all defaults; here it is
        // surely a wrong path.
        std::error_code ec;
        if (!std::filesystem::is_regular_file(cfg.iniPath, ec)) {
            say("the library's configuration file " + cfg.iniPath +
                " does not exist; the runtime's poses pass through (set ORVACCESS_XR_INI or [Layer] ini)");
            return nullptr;
        }
        auto feed = std::make_unique<OrvPoseFeed>(cfg.iniPath);
        if (!feed->isRunning()) {
            say("the tracker's feed did not start with " + cfg.iniPath + ": " + feed->getLastError() +
                "; the runtime's poses pass through (set ORVACCESS_XR_INI or [Layer] ini to the library's "
                "configuration file)");
            return nullptr;
        }
        feed->setStaleTimeUs(cfg.staleUs);
        h.feed = std::move(feed);
        h.iniPath = cfg.iniPath;
        h.generation.fetch_add(1, std::memory_order_acq_rel);
    } else if (h.iniPath != cfg.iniPath) {
        say("this process already follows the tracker of " + h.iniPath + "; " + cfg.iniPath +
            " is not opened");
    }
    ++h.users;
    *generation = h.generation.load(std::memory_order_acquire);
    return h.feed.get();
}

void releaseFeed() {
    FeedHolder& h = feedHolder();
    std::lock_guard<std::mutex> lock(h.mutex);
    if (h.users > 0 && --h.users == 0) h.feed.reset();
}

// One reader per render thread, remade when the feed is.
OrvPoseFeed::Reader* threadReader(OrvPoseFeed* feed, uint64_t generation) {
    struct Slot {
        std::optional<OrvPoseFeed::Reader> reader;
        uint64_t generation = 0;
    };
    thread_local Slot slot;
    if (!slot.reader || slot.generation != generation) {
        slot.reader.emplace(*feed);
        slot.generation = generation;
    }
    return &*slot.reader;
}

// The feed keeps the tracker's stream coming by itself (it asks orvRx to
// stream again, or opens the library again); the log tells each outage,
// each turn to reconnecting and each recovery once, from the frame loop.
void tellStream(InstanceState& in) {
    s_OrvPoseFeedRecovery r;
    if (!in.feed->getRecovery(&r)) return;
    const s_OrvPoseFeedRecovery& was = in.told;
    const auto seconds = [](uint64_t us) {
        char text[32];
        std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(us) / 1e6);
        return std::string(text);
    };
    // An outage that ended before this frame has no state worth telling.
    if (r.outages > was.outages)
        say("the tracker's poses stopped (outage " + std::to_string(r.outages) + ")" +
            (r.recoveries < r.outages ? ": " + std::string(r.text) : std::string()));
    else if (r.state == ORVACCESS_FEED_RECONNECTING && was.state != ORVACCESS_FEED_RECONNECTING)
        say("the tracker's poses are still away: " + std::string(r.text));
    if (r.recoveries > was.recoveries)
        say("the tracker's poses are back after " + seconds(r.lastOutageUs) + " (recovered " +
            std::to_string(r.recoveries) + " of " + std::to_string(r.outages) + " outages; asked orvRx " +
            std::to_string(r.requests) + " times, reopened " + std::to_string(r.reopens) + ")");
    in.told = r;
}

// What the layer reports for the head at one display time.
enum class Head { Tracked, Held, Untracked, Runtime };

Head trackerHead(InstanceState& in, XrTime displayTime, Rigid* head) {
    timespec when{};
    if (in.next.timeToTimespec(in.handle, displayTime, &when) != XR_SUCCESS) return Head::Untracked;
    const uint64_t displayUs = libraryUsOf(toNs(when), readClocks());
    s_OrvPoseFeedPose pose;
    threadReader(in.feed, in.feedGeneration)->getAtTime(static_cast<unsigned long>(displayUs), &pose);
    const bool usable = pose.valid != 0 && (pose.stale == 0 || in.cfg.whenStale == WhenStale::Hold);
    if (!usable) return in.cfg.whenStale == WhenStale::Runtime ? Head::Runtime : Head::Untracked;
    double platform[3][3];
    double rpy[3];
    if (in.cfg.relativeToPlatform) {
        // Without the platform's attitude the pose would be in another frame.
        if (!in.platform.read(rpy))
            return in.cfg.whenStale == WhenStale::Runtime ? Head::Runtime : Head::Untracked;
        OrvosiMath::euler2Cbn(rpy, platform);
    }
    *head = in.mount.headPose(pose.data, in.cfg.relativeToPlatform ? platform : nullptr);
    return pose.stale == 0 ? Head::Tracked : Head::Held;
}

constexpr XrSpaceLocationFlags kValid =
    XR_SPACE_LOCATION_ORIENTATION_VALID_BIT | XR_SPACE_LOCATION_POSITION_VALID_BIT;
constexpr XrSpaceLocationFlags kTracked =
    XR_SPACE_LOCATION_ORIENTATION_TRACKED_BIT | XR_SPACE_LOCATION_POSITION_TRACKED_BIT;
constexpr XrViewStateFlags kViewValid =
    XR_VIEW_STATE_ORIENTATION_VALID_BIT | XR_VIEW_STATE_POSITION_VALID_BIT;
constexpr XrViewStateFlags kViewTracked =
    XR_VIEW_STATE_ORIENTATION_TRACKED_BIT | XR_VIEW_STATE_POSITION_TRACKED_BIT;

// ---- hooks -----------------------------------------------------------------

XrResult XRAPI_CALL hookGetInstanceProcAddr(XrInstance instance, const char* name,
                                            PFN_xrVoidFunction* function);

XrResult XRAPI_CALL hookDestroyInstance(XrInstance instance) {
    InstanceState* in = gInstances.find(key(instance));
    if (in == nullptr) return XR_ERROR_HANDLE_INVALID;
    const XrResult r = in->next.destroyInstance(instance);
    gSpaces.removeIf([in](SpaceState* s) { return s->session->instance == in; },
                     [](SpaceState* s) { delete s; });
    gSessions.removeIf([in](SessionState* s) { return s->instance == in; },
                       [](SessionState* s) { delete s; });
    gInstances.remove(key(instance));
    if (in->feed != nullptr) releaseFeed();
    delete in;
    return r;
}

XrResult XRAPI_CALL hookCreateSession(XrInstance instance, const XrSessionCreateInfo* info,
                                      XrSession* session) {
    InstanceState* in = gInstances.find(key(instance));
    if (in == nullptr) return XR_ERROR_HANDLE_INVALID;
    const XrResult r = in->next.createSession(instance, info, session);
    if (XR_FAILED(r)) return r;
    auto* s = new SessionState;
    s->handle = *session;
    s->instance = in;
    if (in->feed != nullptr) {
        auto view = xrStruct<XrReferenceSpaceCreateInfo>(XR_TYPE_REFERENCE_SPACE_CREATE_INFO);
        view.referenceSpaceType = XR_REFERENCE_SPACE_TYPE_VIEW;
        view.poseInReferenceSpace.orientation.w = 1.0f;
        if (XR_FAILED(in->next.createReferenceSpace(*session, &view, &s->runtimeView))) {
            say("the runtime gave no VIEW space: this session's poses pass through");
            s->runtimeView = XR_NULL_HANDLE;
        }
    }
    if (!gSessions.add(key(*session), s)) {
        // A session the layer does not know could not be used through it.
        say("too many sessions at once");
        if (s->runtimeView != XR_NULL_HANDLE) in->next.destroySpace(s->runtimeView);
        in->next.destroySession(*session);
        *session = XR_NULL_HANDLE;
        delete s;
        return XR_ERROR_LIMIT_REACHED;
    }
    return r;
}

XrResult XRAPI_CALL hookDestroySession(XrSession session) {
    SessionState* s = gSessions.find(key(session));
    if (s == nullptr) return XR_ERROR_HANDLE_INVALID;
    InstanceState* in = s->instance;
    gSpaces.removeIf([s](SpaceState* sp) { return sp->session == s; }, [](SpaceState* sp) { delete sp; });
    if (s->runtimeView != XR_NULL_HANDLE) in->next.destroySpace(s->runtimeView);
    gSessions.remove(key(session));
    delete s;
    return in->next.destroySession(session);
}

// False when the table is full: the caller then gives the space back, as the
// layer could not pass its calls on.
bool remember(SessionState* s, XrSpace space, bool reference, XrReferenceSpaceType type,
              const XrPosef& pose) {
    auto* sp = new SpaceState;
    sp->handle = space;
    sp->session = s;
    sp->reference = reference;
    sp->type = type;
    sp->offset = fromXr(pose);
    sp->inverse = orvxr::inverse(sp->offset);
    if (gSpaces.add(key(space), sp)) return true;
    delete sp;
    s->instance->next.destroySpace(space);
    say("too many spaces at once");
    return false;
}

XrResult XRAPI_CALL hookCreateReferenceSpace(XrSession session, const XrReferenceSpaceCreateInfo* info,
                                             XrSpace* space) {
    SessionState* s = gSessions.find(key(session));
    if (s == nullptr) return XR_ERROR_HANDLE_INVALID;
    const XrResult r = s->instance->next.createReferenceSpace(session, info, space);
    if (XR_SUCCEEDED(r) && !remember(s, *space, true, info->referenceSpaceType, info->poseInReferenceSpace)) {
        *space = XR_NULL_HANDLE;
        return XR_ERROR_LIMIT_REACHED;
    }
    return r;
}

XrResult XRAPI_CALL hookCreateActionSpace(XrSession session, const XrActionSpaceCreateInfo* info,
                                          XrSpace* space) {
    SessionState* s = gSessions.find(key(session));
    if (s == nullptr) return XR_ERROR_HANDLE_INVALID;
    const XrResult r = s->instance->next.createActionSpace(session, info, space);
    if (XR_SUCCEEDED(r) &&
        !remember(s, *space, false, XR_REFERENCE_SPACE_TYPE_VIEW, info->poseInActionSpace)) {
        *space = XR_NULL_HANDLE;
        return XR_ERROR_LIMIT_REACHED;
    }
    return r;
}

XrResult XRAPI_CALL hookDestroySpace(XrSpace space) {
    SpaceState* sp = gSpaces.remove(key(space));
    if (sp == nullptr) {
        const PFN_xrDestroySpace next = gLastNextDestroySpace.load();
        return next != nullptr ? next(space) : XR_ERROR_HANDLE_INVALID;
    }
    InstanceState* in = sp->session->instance;
    delete sp;
    return in->next.destroySpace(space);
}

XrResult XRAPI_CALL hookWaitFrame(XrSession session, const XrFrameWaitInfo* info, XrFrameState* state) {
    SessionState* s = gSessions.find(key(session));
    if (s == nullptr) return XR_ERROR_HANDLE_INVALID;
    InstanceState* in = s->instance;
    const XrResult r = in->next.waitFrame(session, info, state);
    if (in->feed != nullptr) tellStream(*in);
    // The platform's attitude comes with the tracker's queued records, under
    // the feed's lock: taken here, on the frame loop, never while locating.
    if (XR_SUCCEEDED(r) && in->feed != nullptr && in->cfg.relativeToPlatform) {
        OrvPoseFeed::Access access = in->feed->access();
        bool valid = true;
        s_OrvAccessPlatPoseData p{};
        bool any = false;
        s_OrvAccessPlatPoseData newest{};
        while (access->getPlatformPoseData(&valid, &p) && valid) {
            newest = p;
            any = true;
        }
        if (any) in->platform.publish(newest.pose);
    }
    return r;
}

XrResult XRAPI_CALL hookLocateViews(XrSession session, const XrViewLocateInfo* info, XrViewState* state,
                                    uint32_t capacity, uint32_t* count, XrView* views) {
    SessionState* s = gSessions.find(key(session));
    if (s == nullptr) return XR_ERROR_HANDLE_INVALID;
    InstanceState& in = *s->instance;
    const SpaceState* base = info != nullptr ? gSpaces.find(key(info->space)) : nullptr;
    if (in.feed == nullptr || s->runtimeView == XR_NULL_HANDLE || !tracksAgainst(base) ||
        base->session != s || capacity == 0 || views == nullptr || state == nullptr)
        return in.next.locateViews(session, info, state, capacity, count, views);

    Rigid head;
    const Head h = trackerHead(in, info->displayTime, &head);
    if (h == Head::Runtime) return in.next.locateViews(session, info, state, capacity, count, views);
    XrViewLocateInfo inView = *info;
    inView.space = s->runtimeView;
    const XrResult r = in.next.locateViews(session, &inView, state, capacity, count, views);
    if (XR_FAILED(r)) return r;
    if (h == Head::Untracked) {
        state->viewStateFlags = 0;
        return r;
    }
    const Rigid world = compose(base->inverse, head);
    const uint32_t n = *count < capacity ? *count : capacity;
    for (uint32_t i = 0; i < n; ++i) views[i].pose = toXr(compose(world, fromXr(views[i].pose)));
    state->viewStateFlags = kViewValid | (h == Head::Tracked ? kViewTracked : 0);
    return r;
}

XrResult XRAPI_CALL hookLocateSpace(XrSpace space, XrSpace baseSpace, XrTime time,
                                    XrSpaceLocation* location) {
    const SpaceState* a = gSpaces.find(key(space));
    const SpaceState* b = gSpaces.find(key(baseSpace));
    const SpaceState* known = a != nullptr ? a : b;
    if (known == nullptr) {
        const PFN_xrLocateSpace next = gLastNextLocateSpace.load();
        return next != nullptr ? next(space, baseSpace, time, location) : XR_ERROR_HANDLE_INVALID;
    }
    InstanceState& in = *known->session->instance;
    const XrResult r = in.next.locateSpace(space, baseSpace, time, location);
    const bool ours = a != nullptr && b != nullptr && a->session == b->session &&
                      ((isView(a) && tracksAgainst(b)) || (tracksAgainst(a) && isView(b)));
    if (XR_FAILED(r) || !ours || in.feed == nullptr) return r;
    Rigid head;
    const Head h = trackerHead(in, time, &head);
    if (h == Head::Runtime) return r;
    // Velocities would be the runtime's, of another head: say none is known.
    for (auto* n = reinterpret_cast<XrBaseOutStructure*>(location->next); n != nullptr; n = n->next)
        if (n->type == XR_TYPE_SPACE_VELOCITY) reinterpret_cast<XrSpaceVelocity*>(n)->velocityFlags = 0;
    if (h == Head::Untracked) {
        location->locationFlags = 0;
        return r;
    }
    const Rigid pose = isView(a) ? compose(b->inverse, compose(head, a->offset))
                                 : compose(inverse(compose(head, b->offset)), a->offset);
    location->pose = toXr(pose);
    location->locationFlags = kValid | (h == Head::Tracked ? kTracked : 0);
    return r;
}

template <typename F>
bool fetch(PFN_xrGetInstanceProcAddr gipa, XrInstance instance, const char* name, F* out) {
    PFN_xrVoidFunction f = nullptr;
    if (XR_FAILED(gipa(instance, name, &f)) || f == nullptr) return false;
    *out = reinterpret_cast<F>(f);
    return true;
}

XrResult XRAPI_CALL createApiLayerInstance(const XrInstanceCreateInfo* info,
                                           const XrApiLayerCreateInfo* layerInfo, XrInstance* instance) {
    if (info == nullptr || instance == nullptr || layerInfo == nullptr ||
        layerInfo->structType != kLoaderStructApiLayerCreateInfo || layerInfo->nextInfo == nullptr ||
        layerInfo->nextInfo->structType != kLoaderStructApiLayerNextInfo ||
        std::strcmp(layerInfo->nextInfo->layerName, kLayerName) != 0)
        return XR_ERROR_INITIALIZATION_FAILED;
    XrApiLayerNextInfo* next = layerInfo->nextInfo;
    XrApiLayerCreateInfo down = *layerInfo;
    down.nextInfo = next->next;

    auto in = std::make_unique<InstanceState>();
    std::string error;
    const bool configured = readLayerConfig(in->cfg, error);
    if (!configured) say(error + "; the runtime's poses pass through");

    // The display time arrives as XrTime; the conversion to the system's
    // clock needs this extension, whether or not the application uses it.
    std::vector<const char*> extensions(info->enabledExtensionNames,
                                        info->enabledExtensionNames + info->enabledExtensionCount);
    bool added = false;
    if (configured) {
        bool present = false;
        for (const char* e : extensions)
            present = present || std::strcmp(e, XR_KHR_CONVERT_TIMESPEC_TIME_EXTENSION_NAME) == 0;
        if (!present) {
            extensions.push_back(XR_KHR_CONVERT_TIMESPEC_TIME_EXTENSION_NAME);
            added = true;
        }
    }
    XrInstanceCreateInfo mine = *info;
    mine.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    mine.enabledExtensionNames = extensions.data();
    XrResult r = next->nextCreateApiLayerInstance(&mine, &down, instance);
    bool convertible = configured;
    if (r == XR_ERROR_EXTENSION_NOT_PRESENT && added) {
        say("the runtime lacks XR_KHR_convert_timespec_time, without which display times cannot be "
            "converted; "
            "the runtime's poses pass through");
        convertible = false;
        r = next->nextCreateApiLayerInstance(info, &down, instance);
    }
    if (XR_FAILED(r)) return r;

    in->handle = *instance;
    NextFunctions& f = in->next;
    f.getInstanceProcAddr = next->nextGetInstanceProcAddr;
    gLastNextGetProcAddr.store(f.getInstanceProcAddr);
    const PFN_xrGetInstanceProcAddr g = f.getInstanceProcAddr;
    const bool complete = fetch(g, *instance, "xrDestroyInstance", &f.destroyInstance) &&
                          fetch(g, *instance, "xrCreateSession", &f.createSession) &&
                          fetch(g, *instance, "xrDestroySession", &f.destroySession) &&
                          fetch(g, *instance, "xrCreateReferenceSpace", &f.createReferenceSpace) &&
                          fetch(g, *instance, "xrCreateActionSpace", &f.createActionSpace) &&
                          fetch(g, *instance, "xrDestroySpace", &f.destroySpace) &&
                          fetch(g, *instance, "xrLocateViews", &f.locateViews) &&
                          fetch(g, *instance, "xrLocateSpace", &f.locateSpace) &&
                          fetch(g, *instance, "xrWaitFrame", &f.waitFrame);
    if (!complete) {
        // Without its own next functions the layer cannot pass calls on.
        PFN_xrDestroyInstance destroy = f.destroyInstance;
        if (destroy != nullptr) destroy(*instance);
        *instance = XR_NULL_HANDLE;
        return XR_ERROR_INITIALIZATION_FAILED;
    }
    if (convertible && !fetch(g, *instance, "xrConvertTimeToTimespecTimeKHR", &f.timeToTimespec)) {
        say("the runtime offers no xrConvertTimeToTimespecTimeKHR; the runtime's poses pass through");
        convertible = false;
    }
    gLastNextLocateSpace.store(f.locateSpace);
    gLastNextDestroySpace.store(f.destroySpace);
    in->mount = Mount(in->cfg.mount);
    if (convertible) in->feed = acquireFeed(in->cfg, &in->feedGeneration);
    if (in->feed != nullptr) {
        say(std::string("head pose from the tracker of ") + in->cfg.iniPath + " (" +
            (in->cfg.configPath.empty() ? std::string("no layer settings file")
                                        : "settings " + in->cfg.configPath) +
            "; stale after " + std::to_string(in->cfg.staleUs / 1000) +
            " ms: " + whenStaleName(in->cfg.whenStale) +
            (in->cfg.relativeToPlatform ? "; relative to the platform" : "") + ")");
    }
    InstanceState* raw = in.release();
    if (!gInstances.add(key(*instance), raw)) {
        say("too many instances at once");
        if (raw->feed != nullptr) releaseFeed();
        raw->next.destroyInstance(*instance);
        delete raw;
        *instance = XR_NULL_HANDLE;
        return XR_ERROR_LIMIT_REACHED;
    }
    return r;
}

XrResult XRAPI_CALL hookGetInstanceProcAddr(XrInstance instance, const char* name,
                                            PFN_xrVoidFunction* function) {
    if (name == nullptr || function == nullptr) return XR_ERROR_VALIDATION_FAILURE;
    struct Hook {
        const char* name;
        PFN_xrVoidFunction function;
    };
#define ORVXR_HOOK(fn, hook) \
    { #fn, reinterpret_cast < PFN_xrVoidFunction>(hook) }
    static const Hook hooks[] = {
        ORVXR_HOOK(xrGetInstanceProcAddr, hookGetInstanceProcAddr),
        ORVXR_HOOK(xrDestroyInstance, hookDestroyInstance),
        ORVXR_HOOK(xrCreateSession, hookCreateSession),
        ORVXR_HOOK(xrDestroySession, hookDestroySession),
        ORVXR_HOOK(xrCreateReferenceSpace, hookCreateReferenceSpace),
        ORVXR_HOOK(xrCreateActionSpace, hookCreateActionSpace),
        ORVXR_HOOK(xrDestroySpace, hookDestroySpace),
        ORVXR_HOOK(xrWaitFrame, hookWaitFrame),
        ORVXR_HOOK(xrLocateViews, hookLocateViews),
        ORVXR_HOOK(xrLocateSpace, hookLocateSpace),
    };
#undef ORVXR_HOOK
    InstanceState* in = gInstances.find(key(instance));
    for (const Hook& h : hooks) {
        if (std::strcmp(name, h.name) == 0) {
            // Before an instance exists only the loader's own functions are
            // asked for; pass those on.
            if (in == nullptr && instance != XR_NULL_HANDLE) break;
            *function = h.function;
            return XR_SUCCESS;
        }
    }
    const PFN_xrGetInstanceProcAddr next =
        in != nullptr ? in->next.getInstanceProcAddr : gLastNextGetProcAddr.load();
    if (next == nullptr) {
        *function = nullptr;
        return XR_ERROR_HANDLE_INVALID;
    }
    return next(instance, name, function);
}

}  // namespace
}  // namespace orvxr

extern "C" __attribute__((visibility("default"))) XrResult XRAPI_CALL
xrNegotiateLoaderApiLayerInterface(const orvxr::XrNegotiateLoaderInfo* loaderInfo, const char* layerName,
                                   orvxr::XrNegotiateApiLayerRequest* request) {
    using namespace orvxr;
    if (!loaderOfferFits(loaderInfo, kLoaderApiLayerInterfaceVersion) || layerName == nullptr ||
        std::strcmp(layerName, kLayerName) != 0 || request == nullptr ||
        request->structType != kLoaderStructApiLayerRequest ||
        request->structVersion != kApiLayerRequestStructVersion ||
        request->structSize != sizeof(XrNegotiateApiLayerRequest))
        return XR_ERROR_INITIALIZATION_FAILED;
    request->layerInterfaceVersion = kLoaderApiLayerInterfaceVersion;
    request->layerApiVersion = XR_CURRENT_API_VERSION;
    request->getInstanceProcAddr = hookGetInstanceProcAddr;
    request->createApiLayerInstance = createApiLayerInstance;
    return XR_SUCCESS;
}
