// Opens the tracking system described by an INI file and prints the newest
// pose ten times a second, predicted to the moment of printing, together
// with any error codes that arrive. Point it at a real system with
//   orvpose path/to/orvaccess.ini [seconds]
#include <orvaccess/OrvAccess.hpp>

#include <cstdio>
#include <cstdlib>
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
    const std::string ini = argc > 1 ? argv[1] : "orvaccess.ini";
    const double seconds = argc > 2 ? std::atof(argv[2]) : 10.0;

    OrvAccess access;
    access.setIniPath(ini);
    if (!access.open()) {
        std::fprintf(stderr, "orvpose: %s\n", access.getLastError().c_str());
        return 1;
    }
    std::printf("liborvaccess %s, reading %s for %.1f s\n", access.getVersion().c_str(), ini.c_str(), seconds);

    const unsigned long start = access.getTimeUs();
    unsigned long updates = 0;
    while (access.getTimeUs() - start < static_cast<unsigned long>(seconds * 1e6)) {
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
