// The structures through which the OpenXR loader negotiates with an API
// layer and with a runtime. Debian's OpenXR 1.0.20 headers do not ship them,
// so they are written here from the loader's published interface. The loader
// checks each structure's type, version and size, so every size is pinned:
// a mismatch fails the build instead of failing every application at start.
#pragma once

#include <openxr/openxr.h>

#include <cstddef>
#include <cstdint>

namespace orvxr {

enum LoaderStruct : uint32_t {
    kLoaderStructUninitialized = 0,
    kLoaderStructLoaderInfo = 1,
    kLoaderStructApiLayerRequest = 2,
    kLoaderStructRuntimeRequest = 3,
    kLoaderStructApiLayerCreateInfo = 4,
    kLoaderStructApiLayerNextInfo = 5,
};

constexpr uint32_t kLoaderInfoStructVersion = 1;
constexpr uint32_t kApiLayerRequestStructVersion = 1;
constexpr uint32_t kRuntimeRequestStructVersion = 1;
constexpr uint32_t kApiLayerCreateInfoStructVersion = 1;
constexpr uint32_t kApiLayerNextInfoStructVersion = 1;
// The interface versions this code speaks to the loader.
constexpr uint32_t kLoaderApiLayerInterfaceVersion = 1;
constexpr uint32_t kLoaderRuntimeInterfaceVersion = 1;
constexpr size_t kApiLayerMaxSettingsPathSize = 512;

struct XrApiLayerCreateInfo;
using PFN_xrCreateApiLayerInstance = XrResult(XRAPI_PTR*)(const XrInstanceCreateInfo* info,
                                                          const XrApiLayerCreateInfo* layerInfo,
                                                          XrInstance* instance);

struct XrNegotiateLoaderInfo {
    LoaderStruct structType;
    uint32_t structVersion;
    size_t structSize;
    uint32_t minInterfaceVersion;
    uint32_t maxInterfaceVersion;
    XrVersion minApiVersion;
    XrVersion maxApiVersion;
};

struct XrNegotiateApiLayerRequest {
    LoaderStruct structType;
    uint32_t structVersion;
    size_t structSize;
    uint32_t layerInterfaceVersion;
    XrVersion layerApiVersion;
    PFN_xrGetInstanceProcAddr getInstanceProcAddr;
    PFN_xrCreateApiLayerInstance createApiLayerInstance;
};

struct XrNegotiateRuntimeRequest {
    LoaderStruct structType;
    uint32_t structVersion;
    size_t structSize;
    uint32_t runtimeInterfaceVersion;
    XrVersion runtimeApiVersion;
    PFN_xrGetInstanceProcAddr getInstanceProcAddr;
};

// One link of the chain of layers below the one being created.
struct XrApiLayerNextInfo {
    LoaderStruct structType;
    uint32_t structVersion;
    size_t structSize;
    char layerName[XR_MAX_API_LAYER_NAME_SIZE];
    PFN_xrGetInstanceProcAddr nextGetInstanceProcAddr;
    PFN_xrCreateApiLayerInstance nextCreateApiLayerInstance;
    XrApiLayerNextInfo* next;
};

struct XrApiLayerCreateInfo {
    LoaderStruct structType;
    uint32_t structVersion;
    size_t structSize;
    void* loaderInstance;
    char settings_file_location[kApiLayerMaxSettingsPathSize];
    XrApiLayerNextInfo* nextInfo;
};

static_assert(sizeof(LoaderStruct) == 4, "the loader's structure type is a 32-bit enum");
static_assert(sizeof(XrNegotiateLoaderInfo) == 40, "XrNegotiateLoaderInfo is 40 bytes to the loader");
static_assert(sizeof(XrNegotiateRuntimeRequest) == 40, "XrNegotiateRuntimeRequest is 40 bytes to the loader");
static_assert(sizeof(XrNegotiateApiLayerRequest) == 48,
              "XrNegotiateApiLayerRequest is 48 bytes to the loader");
static_assert(sizeof(XrApiLayerCreateInfo) == 544, "XrApiLayerCreateInfo is 544 bytes to the loader");
static_assert(offsetof(XrApiLayerCreateInfo, nextInfo) == 536, "nextInfo follows the 512-byte settings path");
static_assert(sizeof(XrApiLayerNextInfo) == 296, "XrApiLayerNextInfo is 296 bytes to the loader");

using PFN_xrNegotiateLoaderApiLayerInterface = XrResult(XRAPI_PTR*)(const XrNegotiateLoaderInfo* loaderInfo,
                                                                    const char* layerName,
                                                                    XrNegotiateApiLayerRequest* request);
using PFN_xrNegotiateLoaderRuntimeInterface = XrResult(XRAPI_PTR*)(const XrNegotiateLoaderInfo* loaderInfo,
                                                                   XrNegotiateRuntimeRequest* request);

// Whether the loader's offer covers what this code speaks.
inline bool loaderOfferFits(const XrNegotiateLoaderInfo* info, uint32_t interfaceVersion) {
    return info != nullptr && info->structType == kLoaderStructLoaderInfo &&
           info->structVersion == kLoaderInfoStructVersion &&
           info->structSize == sizeof(XrNegotiateLoaderInfo) &&
           info->minInterfaceVersion <= interfaceVersion && info->maxInterfaceVersion >= interfaceVersion &&
           info->minApiVersion <= XR_CURRENT_API_VERSION && info->maxApiVersion >= XR_MAKE_VERSION(1, 0, 0);
}

}  // namespace orvxr
