#include "os/OrvosiUtil.hpp"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "wire/ImageFormats.hpp"

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

// ---- inertial chip packets ---------------------------------------------------

bool OrvosiUtil::ParseBrevantPacket(unsigned char* pkt, BrevantData* out) {
    return decode(pkt, out, getTimeSysUs());
}

bool OrvosiUtil::GetImageResolution(unsigned char format, unsigned int* width, unsigned int* height,
                                    unsigned int* bytesPerPixel) {
    const orvwire::ImageGeometry* g = orvwire::imageGeometry(format);
    if (width != nullptr) *width = g != nullptr ? g->width : 0;
    if (height != nullptr) *height = g != nullptr ? g->height : 0;
    if (bytesPerPixel != nullptr) *bytesPerPixel = g != nullptr ? g->bytesPerPixel : 0;
    return g != nullptr;
}
