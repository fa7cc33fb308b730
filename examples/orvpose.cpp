// Opens the tracking system described by an INI file and prints the newest
// pose ten times a second, predicted to the moment of printing, together
// with any error codes that arrive. Point it at a real system with
//   orvpose path/to/orvaccess.ini [seconds]
#include <orvaccess/OrvAccess.hpp>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr double kRadToDeg = 180.0 / 3.14159265358979323846;

void printErrors(OrvAccess& access) {
    s_OrvAccessErrorCode code{};
    while (access.getErrorCode(&code) != 0)
        std::printf("  error %u (value %u): %s\n", code.code, code.value,
                    access.getErrorMessage(code.code).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3 || (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0))) {
        std::fprintf(argc > 3 ? stderr : stdout, "usage: orvpose [INI-FILE [SECONDS]]  (default orvaccess.ini, 10 s)\n");
        return argc > 3 ? 2 : 0;
    }
    const std::string ini = argc > 1 ? argv[1] : "orvaccess.ini";
    double seconds = 10.0;
    if (argc > 2) {
        char* end = nullptr;
        seconds = std::strtod(argv[2], &end);
        if (end == argv[2] || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > 1e6) {
            std::fprintf(stderr, "orvpose: \"%s\" is not a number of seconds above 0, up to 1000000\n", argv[2]);
            return 2;
        }
    }
    // The library quietly takes its defaults for a file it cannot read;
    // a file named here must be there.
    if (argc > 1) {
        std::FILE* f = std::fopen(ini.c_str(), "rb");
        if (f == nullptr) {
            std::fprintf(stderr, "orvpose: cannot read the configuration file %s: %s\n", ini.c_str(),
                         std::strerror(errno));
            return 2;
        }
        std::fclose(f);
    }

    OrvAccess access;
    access.setIniPath(ini);
    if (!access.open()) {
        std::fprintf(stderr, "orvpose: %s\n", access.getLastError().c_str());
        return 1;
    }
    std::printf("liborvaccess %s, reading %s for %.1f s\n", access.getVersion().c_str(), ini.c_str(), seconds);

    const unsigned long start = access.getTimeUs();
    unsigned long updates = 0;
    const auto durationUs = static_cast<unsigned long>(seconds * 1e6);
    while (access.getTimeUs() - start < durationUs) {
        OrvosiUtil_snoozeMs(100);
        // The newest pose predicted to now, as a renderer asks for its display
        // time; the call consumes every pose queued since the previous one.
        bool valid = false;
        s_OrvAccessTrkDataExt pose{};
        if (!access.getTrackingDataAtTime(access.getTimeUs(), &valid, &pose)) {
            std::fprintf(stderr, "orvpose: %s\n", access.getLastError().c_str());
            return 1;
        }
        if (valid) {
            ++updates;
            std::printf("tag %10u  pos %8.3f %8.3f %8.3f m  rpy %7.2f %7.2f %7.2f deg\n", pose.packetTag,
                        pose.position[0], pose.position[1], pose.position[2], pose.euler[0] * kRadToDeg,
                        pose.euler[1] * kRadToDeg, pose.euler[2] * kRadToDeg);
        } else {
            std::printf("no new pose\n");
        }
        printErrors(access);
    }
    std::printf("%lu of %lu intervals brought a new pose\n", updates,
                static_cast<unsigned long>(seconds * 10));
    access.close();
    return 0;
}
