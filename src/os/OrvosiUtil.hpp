// OrvosiUtil: the operating-system helpers of the library (clock, sleeping,
// files, paths, socket start-up hooks), on top of the wire module's byte
// codec and chip decoder. All members are static and stateless.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "orvaccess/orvaccess_export.h"
#include "wire/Chip.hpp"
#include "wire/Codec.hpp"

class OrvosiUtil : public OrvwireCodec, public OrvwireChip {
public:
    OrvosiUtil() = delete;

    // ---- time -------------------------------------------------------------
    // Sleeps ms milliseconds (ms * 1000 us, computed in 32 bits; a negative
    // ms sleeps 0); returns the result of the microsecond sleep call.
    static int snoozeMs(int ms);
    // Wall clock in microseconds; the seconds are cut to their low 44 bits.
    static uint64_t getTimeSysUs();
    // getTimeSysUs() in milliseconds with a fractional part.
    static double getTimeMs();

    // ---- errors, files and paths -----------------------------------------
    // The system's text of errno (as strerror, safe on any thread): call
    // directly after the failing system call.
    static std::string getSystemErrorMsg();
    // The one way a failed system call becomes a message: stores prefix (which
    // ends in "...") followed by the system's text, and returns false. Call it
    // straight after the failing call, before anything can touch errno.
    static bool failWithSystemText(std::string& error, const char* prefix);
    static bool fileExists(const char* path);
    static bool removeFile(std::string path);
    static bool directoryExists(std::string path);
    // One directory level, mode 0777 before the umask.
    static bool createDirectory(std::string path);
    // Working directory, always ending in "/" ("/" when it cannot be read).
    static std::string GetCurrentDir();
    // Full path of the running executable; empty when it cannot be read.
    static std::string GetExecutablePath();

    // Nothing to start or stop on this platform; kept so that every socket
    // endpoint pairs its start-up and clean-up the same way.
    static bool socketStartup();
    static bool socketCleanup();

    // The byte codec (OrvwireCodec) and the chip decoder (OrvwireChip) are
    // the wire module's; they are reached under this class's name too.
    // Decodes one chip packet, stamping it with the host's time of decoding;
    // false (and out untouched) for an unknown type or a bad checksum.
    static bool ParseBrevantPacket(unsigned char* pkt, BrevantData* out);

    // ---- images ----
    // Width, height and bytes per pixel of an image format code; false (and
    // all three 0) for an illegal code. Offered to applications.
    ORVACCESS_EXPORT static bool GetImageResolution(unsigned char format, unsigned int* width,
                                                    unsigned int* height, unsigned int* bytesPerPixel);
};
