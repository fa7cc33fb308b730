// Error codes and the last-error text.
#include <cstdint>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"

namespace {

// The codes of the other processes with a text of their own (the library's
// own are with the wire's rows); the rest fall back to their origin. The
// texts are the tracking system's own, spelling included.
constexpr orvwire::CodeText kMessages[] = {
    {0, "None"},
    {1, "[ORVCORE] RESET: Received reset command"},
    {2, "[ORVCORE] RESET: Received autoHarmonization start command - autoharmData.txt succesfully zeroized"},
    {3, "[ORVCORE] ERROR: Received autoHarmonization start command but could not zeroize autoharmData.txt"},
    {4, "[ORVCORE] ERROR: Incoming packet version not 19 - check orvRx version"},
    {5, "[ORVCORE] ERROR: Invalid checksum on input meta-packet"},
    {6, "[ORVCORE] RESET: Dt changed"},
    {7, "[ORVCORE] RESET: diff_inertial changed"},
    {8, "[ORVCORE] RESET: sequenceID skipped"},
    {9, "[ORVCORE] RESET: Optical data not undistorted"},
    {10, "[ORVCORE] RESET: Bad gyro bias"},
    {11, "[ORVCORE] RESET: Started receiving platform INS data"},
    {12, "[ORVCORE] RESET: Stopped receiving platform INS data"},
    {13, "[ORVCORE] ERROR: Platform INS data format identifier is unsupported"},
    {14, "[ORVCORE] FATAL: Could not open devicePSEs.txt for reading"},
    {15, "[ORVCORE] FATAL: Could not open environmentPSEs.txt for reading"},
    {17, "[ORVCORE] FATAL: Could not save autoharmData.txt in directory specified by autoharmPath.txt"},
    {19, "[ORVCORE] ERROR: Only receiving diagnostic packets"},
    {1025, "[ORVHUB] ERROR: UDP socket error (read, write, or open)"},
    {1026, "[ORVHUB] ERROR: Generic INI file error (open, read)"},
    {1027, "[ORVHUB] ERROR: Generic IMU file error (open, read)"},
    {1028, "[ORVHUB] ERROR: Error opening serial port"},
    {1029, "[ORVHUB] ERROR: Error setting serial port attributes"},
    {1030, "[ORVHUB] ERROR: Error reading from serial port"},
    {1031, "[ORVHUB] ERROR: Error writing to serial port"},
    {1032, "[ORVHUB] ERROR: User pressed CTRL-C, orvHub now halted"},
};

// The fallback by origin, the high byte of the code.
constexpr const char* kOrigins[] = {
    "[ORVCORE]: Unknown error",   "[ORVRX]: Unknown error",  "[ORVTX]: Unknown error",
    "[ORVACCESS]: Unknown error", "[ORVHUB]: Unknown error",
};

}  // namespace

std::string OrvAccess::getLastError() { return st_->lastError; }

void OrvAccess::clearLastError() { st_->lastError.clear(); }

void OrvAccess::addErrorCode(unsigned short code, unsigned int value) { st_->addErrorCode(code, value); }

unsigned short OrvAccess::getErrorCode(s_OrvAccessErrorCode* code) {
    code->code = 0;
    s_OrvAccessErrorCode oldest{};
    if (!st_->errors.pop(&oldest)) return 0;
    *code = oldest;
    return oldest.code;
}

std::string OrvAccess::getErrorMessage(unsigned short code) {
    for (const orvwire::CodeText& m : kMessages)
        if (m.code == code) return m.text;
    for (const orvwire::CodeText& m : orvwire::kLibraryMessages)
        if (m.code == code) return m.text;
    const unsigned origin = code >> 8;
    if (origin < sizeof kOrigins / sizeof kOrigins[0]) return kOrigins[origin];
    return "Unknown error from unknown origin";
}
