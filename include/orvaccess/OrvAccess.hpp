// liborvaccess: the C++ interface. One OrvAccess object talks to one tracking
// system; it has no threads of its own and does all network work inside the
// caller's calls. Use an object from one thread at a time.
#pragma once

#include <string>

#include "orvaccess/orvaccess.h"

class ORVACCESS_EXPORT OrvAccess {
public:
    OrvAccess();
    ~OrvAccess();
    OrvAccess(const OrvAccess&) = delete;
    OrvAccess& operator=(const OrvAccess&) = delete;

    // "1.23.00".
    std::string getVersion();
    // "Sep 25 2017": the interface's build date, fixed.
    std::string getBuildDate();
    // The library clock: wall-clock microseconds (seconds cut to 44 bits).
    unsigned long getTimeUs();
};
