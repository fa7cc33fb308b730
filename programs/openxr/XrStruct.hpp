// An OpenXR structure with its type set and everything else zero.
#pragma once

#include <openxr/openxr.h>

namespace orvxr {

template <typename T>
T xrStruct(XrStructureType type) {
    T value{};
    value.type = type;
    return value;
}

}  // namespace orvxr
