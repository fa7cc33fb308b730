#include "Progress.hpp"

#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace orvprogress {

namespace {

constexpr uint64_t kTerminalUs = 500000;  // often enough to look alive
constexpr uint64_t kLogUs = 5000000;      // rarely enough not to flood a log

}  // namespace

ProgressLine::ProgressLine(std::FILE* out) : out_(out), terminal_(isatty(fileno(out)) != 0) {}

void ProgressLine::update(uint64_t nowUs, const std::string& text) {
    if (nowUs < nextUs_) return;
    const uint64_t period = terminal_ ? kTerminalUs : kLogUs;
    if (nextUs_ == 0) {
        nextUs_ = nowUs + period;
        if (!terminal_) return;  // nothing worth a line at the very start
    } else {
        // Steady updates keep their pace; after a stall the next line is a
        // whole period away, not due at once.
        nextUs_ += period;
        if (nextUs_ <= nowUs) nextUs_ = nowUs + period;
    }
    if (terminal_) {
        const size_t pad = lastWidth_ > text.size() ? lastWidth_ - text.size() : 0;
        std::fprintf(out_, "\r%s%*s", text.c_str(), static_cast<int>(pad), "");
        lastWidth_ = text.size();
    } else {
        std::fprintf(out_, "%s\n", text.c_str());
    }
    std::fflush(out_);
}

void ProgressLine::finish() {
    if (terminal_ && lastWidth_ > 0) std::fprintf(out_, "\n");
    lastWidth_ = 0;
    std::fflush(out_);
}

void ProgressLine::clear() {
    if (terminal_ && lastWidth_ > 0) std::fprintf(out_, "\r%*s\r", static_cast<int>(lastWidth_), "");
    lastWidth_ = 0;
    std::fflush(out_);
}

std::string byteText(uint64_t bytes) {
    char text[32];
    if (bytes >= 10000000)
        std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    else if (bytes >= 10000)
        std::snprintf(text, sizeof text, "%.0f kB", static_cast<double>(bytes) / 1e3);
    else
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    return text;
}

std::string rateText(double bytesPerS) {
    // A rate of a zero-length interval is no rate; none is far beyond 1 EB/s.
    const double rate = std::isfinite(bytesPerS) && bytesPerS > 0 ? std::min(bytesPerS, 1e18) : 0.0;
    return byteText(static_cast<uint64_t>(rate + 0.5)) + "/s";
}

}  // namespace orvprogress
