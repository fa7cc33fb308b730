// OrvosiUtil: the operating-system helpers of the library (clock, sleeping,
// files, paths, socket start-up hooks) and the byte codec that every packet
// reader and writer goes through. All members are static and stateless.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "orvaccess/orvaccess_export.h"

struct BrevantData;

class OrvosiUtil {
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

    // ---- byte codec: little-endian, independent of the host's order ----
    // The decoders never check bounds: the caller guarantees the bytes exist
    // (OrvosiReader in OrvosiCursor.hpp is the bounded way to use them).
    // Defined here so that the parsers' dozens of reads per packet inline.
    static unsigned short word16(const unsigned char* p) {
        return static_cast<unsigned short>(p[0] | (p[1] << 8));
    }
    static unsigned int word24(const unsigned char* p) {
        return static_cast<unsigned int>(p[0]) | (static_cast<unsigned int>(word16(p + 1)) << 8);
    }
    static unsigned int word32(const unsigned char* p) {
        return static_cast<unsigned int>(word16(p)) | (static_cast<unsigned int>(word16(p + 2)) << 16);
    }
    static unsigned long word64(const unsigned char* p) {
        return static_cast<unsigned long>(word32(p)) | (static_cast<unsigned long>(word32(p + 4)) << 32);
    }
    static float float32(const unsigned char* p) {
        const unsigned int bits = word32(p);
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
    static double float64(const unsigned char* p) {
        const unsigned long bits = word64(p);
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // Out-parameter twins: store the value, return the bytes consumed.
    static unsigned int word16(const unsigned char* p, unsigned short* out);
    static unsigned int word24(const unsigned char* p, unsigned int* out);
    static unsigned int word32(const unsigned char* p, unsigned int* out);
    static unsigned int word64(const unsigned char* p, unsigned long* out);
    static unsigned int float32(const unsigned char* p, float* out);
    static unsigned int float64(const unsigned char* p, double* out);
    // Three consecutive singles, x then y then z: 12 bytes.
    static unsigned int float32v3(const unsigned char* p, float* out);

    // Clears n bytes of buf, then writes the low min(n, 8) bytes of value,
    // least significant first. Returns min(n, 8), not n.
    static unsigned int lendian(unsigned char* buf, unsigned long value, unsigned int n);
    static unsigned int lendianFloat32(unsigned char* buf, float value);
    static unsigned int lendianFloat64(unsigned char* buf, double value);

    // 8-bit sum of buf[0 .. len-1]; a sealed packet sums to 0.
    static unsigned char checksum(const unsigned char* buf, unsigned long len);
    // The library is built for little-endian hosts only.
    static bool IsLittleEndian() { return true; }

    // ---- inertial chip packets (BrevantData in osi/BrevantData.hpp) ----
    // Packet length and field mask by chip packet type; 0 for an unknown type.
    static unsigned int GetBvPacketLength(unsigned char type);
    static unsigned int GetPacketMask(unsigned char type);
    // Decodes one chip packet; false (and out untouched) for an unknown type
    // or a bad checksum.
    static bool ParseBrevantPacket(unsigned char* pkt, BrevantData* out);
    // Types 1 and 2; called by ParseBrevantPacket.
    static bool ParseCompactPacket(unsigned char* pkt, BrevantData* out);

    // ---- images ----
    // Width, height and bytes per pixel of an image format code; false (and
    // all three 0) for an illegal code. Offered to applications.
    ORVACCESS_EXPORT static bool GetImageResolution(unsigned char format, unsigned int* width,
                                                    unsigned int* height, unsigned int* bytesPerPixel);
};
