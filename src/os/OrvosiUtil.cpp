#include "os/OrvosiUtil.hpp"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

// ---- time ------------------------------------------------------------------

int OrvosiUtil::snoozeMs(int ms) {
    // A negative time is no time: as an unsigned product it would be about
    // 71 minutes. The product is formed in 32 bits, as callers have always
    // relied on.
    const unsigned int us = static_cast<unsigned int>(ms < 0 ? 0 : ms) * 1000u;
    return usleep(us);
}

uint64_t OrvosiUtil::getTimeSysUs() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    const uint64_t seconds = static_cast<uint64_t>(tv.tv_sec) & ((uint64_t{1} << 44) - 1);
    return seconds * 1000000u + static_cast<uint64_t>(tv.tv_usec);
}

double OrvosiUtil::getTimeMs() { return static_cast<double>(getTimeSysUs()) / 1000.0; }

// ---- errors, files and paths -----------------------------------------------

namespace {
// strerror_r in either of its forms: the GNU one returns the text (maybe
// not in buf), the POSIX one fills buf. strerror itself may share one
// buffer among threads.
[[maybe_unused]] const char* errorText(const char* gnu, const char*) { return gnu; }
[[maybe_unused]] const char* errorText(int, const char* buf) { return buf; }
}  // namespace

std::string OrvosiUtil::getSystemErrorMsg() {
    char buf[256] = "";
    return errorText(strerror_r(errno, buf, sizeof buf), buf);
}

bool OrvosiUtil::failWithSystemText(std::string& error, const char* prefix) {
    const std::string system = getSystemErrorMsg();
    error.assign(prefix);
    error += system;
    return false;
}

bool OrvosiUtil::fileExists(const char* path) {
    struct stat st {};
    return stat(path, &st) == 0;
}

bool OrvosiUtil::removeFile(std::string path) { return unlink(path.c_str()) == 0; }

bool OrvosiUtil::directoryExists(std::string path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool OrvosiUtil::createDirectory(std::string path) { return mkdir(path.c_str(), 0777) == 0; }

std::string OrvosiUtil::GetCurrentDir() {
    char buf[1024];
    std::string dir;
    if (getcwd(buf, sizeof buf) != nullptr) dir = buf;
    if (dir.empty() || dir.back() != '/') dir += '/';
    return dir;
}

std::string OrvosiUtil::GetExecutablePath() {
    std::vector<char> buf(8192);
    const ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size());
    if (n <= 0) return std::string();
    const size_t end = static_cast<size_t>(n) >= buf.size() - 1 ? buf.size() - 1 : static_cast<size_t>(n);
    buf[end] = '\0';
    return std::string(buf.data());
}

bool OrvosiUtil::socketStartup() { return true; }

bool OrvosiUtil::socketCleanup() { return true; }

// ---- byte codec --------------------------------------------------------------

unsigned int OrvosiUtil::word16(const unsigned char* p, unsigned short* out) {
    *out = word16(p);
    return 2;
}
unsigned int OrvosiUtil::word24(const unsigned char* p, unsigned int* out) {
    *out = word24(p);
    return 3;
}
unsigned int OrvosiUtil::word32(const unsigned char* p, unsigned int* out) {
    *out = word32(p);
    return 4;
}
unsigned int OrvosiUtil::word64(const unsigned char* p, unsigned long* out) {
    *out = word64(p);
    return 8;
}
unsigned int OrvosiUtil::float32(const unsigned char* p, float* out) {
    *out = float32(p);
    return 4;
}
unsigned int OrvosiUtil::float64(const unsigned char* p, double* out) {
    *out = float64(p);
    return 8;
}

unsigned int OrvosiUtil::float32v3(const unsigned char* p, float* out) {
    for (int i = 0; i < 3; ++i) out[i] = float32(p + 4 * i);
    return 12;
}

unsigned int OrvosiUtil::lendian(unsigned char* buf, unsigned long value, unsigned int n) {
    std::memset(buf, 0, n);
    const unsigned int filled = n < 8 ? n : 8;
    for (unsigned int i = 0; i < filled; ++i) buf[i] = static_cast<unsigned char>(value >> (8 * i));
    return filled;
}

unsigned int OrvosiUtil::lendianFloat32(unsigned char* buf, float value) {
    unsigned int bits;
    std::memcpy(&bits, &value, sizeof bits);
    return lendian(buf, bits, 4);
}

unsigned int OrvosiUtil::lendianFloat64(unsigned char* buf, double value) {
    unsigned long bits;
    std::memcpy(&bits, &value, sizeof bits);
    return lendian(buf, bits, 8);
}

// Sums 32 wrapping byte lanes side by side and folds them at the end: a loop
// of fixed length over independent lanes is what g++ -O2 turns into vector
// byte adds (a plain byte loop stays scalar, one byte per cycle). Addition
// modulo 256 does not care about the order, so the result is the plain sum.
unsigned char OrvosiUtil::checksum(const unsigned char* buf, unsigned long len) {
    constexpr unsigned long kLanes = 32;
    unsigned char lane[kLanes] = {};
    unsigned long i = 0;
    for (; i + kLanes <= len; i += kLanes)
        for (unsigned long j = 0; j < kLanes; ++j) lane[j] = static_cast<unsigned char>(lane[j] + buf[i + j]);
    unsigned char sum = 0;
    for (; i < len; ++i) sum = static_cast<unsigned char>(sum + buf[i]);
    for (unsigned char l : lane) sum = static_cast<unsigned char>(sum + l);
    return sum;
}
