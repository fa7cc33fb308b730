// The exported C functions: thin wrappers that catch everything the object
// lets out and turn it into 0, "<exception>" or NULL.
#include <cstring>
#include <new>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/orvaccess.h"
#include "osi/OrvosiUtil.hpp"

namespace {

// Bounded copy: at most len bytes, zero padding, and always a zero at
// buf[len - 1], so a text of len bytes or more is cut to len - 1 characters.
char* copyText(const std::string& text, char* buf, size_t len) {
    std::strncpy(buf, text.c_str(), len);
    buf[len - 1] = '\0';
    return buf;
}

char kExceptionText[] = "<exception>";

}  // namespace

extern "C" {

OrvAccess* OrvAccess_create(void) {
    try {
        // Zero-fill first, so that every member the constructor leaves alone
        // starts at zero.
        void* raw = ::operator new(sizeof(OrvAccess));
        std::memset(raw, 0, sizeof(OrvAccess));
        try {
            return new (raw) OrvAccess();
        } catch (...) {
            ::operator delete(raw);
            return nullptr;
        }
    } catch (...) {
        return nullptr;
    }
}

void OrvAccess_destroy(OrvAccess* handle) {
    try {
        if (handle) {
            handle->~OrvAccess();
            ::operator delete(handle);
        }
    } catch (...) {
    }
}

char* OrvAccess_getVersion(OrvAccess* handle, char* buf, size_t len) {
    try {
        return copyText(handle->getVersion(), buf, len);
    } catch (...) {
        return kExceptionText;
    }
}

char* OrvAccess_getBuildDate(OrvAccess* handle, char* buf, size_t len) {
    try {
        return copyText(handle->getBuildDate(), buf, len);
    } catch (...) {
        return kExceptionText;
    }
}

void OrvosiUtil_snoozeMs(int ms) {
    try {
        OrvosiUtil::snoozeMs(ms);
    } catch (...) {
    }
}

double OrvosiUtil_getTimeMs(void) {
    try {
        return OrvosiUtil::getTimeMs();
    } catch (...) {
        return 0.0;
    }
}

}  // extern "C"
