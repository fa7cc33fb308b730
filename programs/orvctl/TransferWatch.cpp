#include "TransferWatch.hpp"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace orvctl {

namespace {

// How often the file is looked at; the line itself decides what it shows.
constexpr auto kWatchPeriod = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

}  // namespace

TransferWatch::TransferWatch(Direction d, std::string label, std::string localPath, int64_t total)
    : direction_(d),
      label_(std::move(label)),
      path_(std::move(localPath)),
      total_(total),
      line_(stderr),
      start_(std::chrono::steady_clock::now()) {
    std::error_code ec;
    canonical_ = std::filesystem::weakly_canonical(path_, ec).string();
    thread_ = std::thread([this] { run(); });
}

TransferWatch::~TransferWatch() { stop(); }

double TransferWatch::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    line_.clear();  // the final line replaces the bar
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

int64_t TransferWatch::bytesNow() const {
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

std::string TransferWatch::text(int64_t bytes, double seconds) const {
    const std::string rate = orvprogress::rateText(seconds > 0 ? static_cast<double>(bytes) / seconds : 0.0);
    const auto count = static_cast<uint64_t>(bytes);
    if (!line_.terminal())
        return label_ + ": " + std::to_string(count) +
               (total_ > 0 ? " of " + std::to_string(total_) : std::string()) + " bytes, " + rate;
    std::string bar;
    if (total_ > 0) {
        const int filled = static_cast<int>(kBarWidth * bytes / total_);
        bar = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] " +
              std::to_string(100 * bytes / total_) + "%  ";
    }
    return label_ + "  " + bar + orvprogress::byteText(count) + "  " + rate;
}

void TransferWatch::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, kWatchPeriod, [this] { return stopping_; })) {
        const auto elapsed = std::chrono::steady_clock::now() - start_;
        const double seconds = std::chrono::duration<double>(elapsed).count();
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
        line_.update(static_cast<uint64_t>(us), text(bytesNow(), seconds));
    }
}

}  // namespace orvctl
