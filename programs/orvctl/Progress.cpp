#include "Progress.hpp"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace orvctl {

namespace {

constexpr auto kTerminalPeriod = std::chrono::milliseconds(100);
constexpr double kLinePeriodS = 1.0;
constexpr int kBarWidth = 30;

}  // namespace

std::string byteText(double bytes) {
    char text[32];
    if (bytes < 1024.0)
        std::snprintf(text, sizeof text, "%.0f B", bytes);
    else if (bytes < 1024.0 * 1024.0)
        std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
    else
        std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
    return text;
}

TransferProgress::TransferProgress(Direction d, std::string label, std::string localPath, int64_t total,
                                   bool terminal)
    : direction_(d),
      label_(std::move(label)),
      path_(std::move(localPath)),
      total_(total),
      terminal_(terminal),
      start_(std::chrono::steady_clock::now()) {
    std::error_code ec;
    canonical_ = std::filesystem::weakly_canonical(path_, ec).string();
    thread_ = std::thread([this] { run(); });
}

TransferProgress::~TransferProgress() { stop(); }

double TransferProgress::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    if (drawn_ && terminal_) std::fputs("\r\033[K", stderr);  // the final line replaces the bar
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

int64_t TransferProgress::bytesNow() const {
    if (direction_ == Direction::Get) {
        std::error_code ec;
        const auto size = std::filesystem::file_size(path_, ec);
        return ec ? 0 : static_cast<int64_t>(size);
    }
    // How far the library's own descriptor of the file has read.
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    int64_t pos = 0;
    while (const dirent* d = readdir(dir)) {
        char target[4096];
        const std::string link = std::string("/proc/self/fd/") + d->d_name;
        const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        if (n <= 0) continue;
        target[n] = '\0';
        if (canonical_ != target) continue;
        std::ifstream info(std::string("/proc/self/fdinfo/") + d->d_name);
        std::string key;
        long long value = 0;
        if (info >> key >> value && key == "pos:") pos = std::max<int64_t>(pos, value);
    }
    closedir(dir);
    return total_ >= 0 ? std::min(pos, total_) : pos;
}

void TransferProgress::draw(int64_t bytes, double seconds, bool final) {
    const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0.0;
    if (terminal_) {
        std::string bar;
        if (total_ > 0) {
            const int filled = static_cast<int>(kBarWidth * bytes / total_);
            bar = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] " +
                  std::to_string(100 * bytes / total_) + "%  ";
        }
        std::fprintf(stderr, "\r\033[K%s  %s%s  %s/s", label_.c_str(), bar.c_str(), byteText(bytes).c_str(),
                     byteText(rate).c_str());
        std::fflush(stderr);
        drawn_ = true;
        return;
    }
    if (final || seconds - lastLineS_ < kLinePeriodS) return;
    lastLineS_ = seconds;
    if (total_ > 0)
        std::fprintf(stderr, "%s: %lld of %lld bytes, %s/s\n", label_.c_str(), static_cast<long long>(bytes),
                     static_cast<long long>(total_), byteText(rate).c_str());
    else
        std::fprintf(stderr, "%s: %lld bytes, %s/s\n", label_.c_str(), static_cast<long long>(bytes),
                     byteText(rate).c_str());
}

void TransferProgress::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, kTerminalPeriod, [this] { return stopping_; })) {
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        draw(bytesNow(), seconds, false);
    }
}

}  // namespace orvctl
