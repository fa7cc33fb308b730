// Progress of a file transfer that the library runs in one blocking call.
// The library reports nothing until the end, so a thread watches the local
// file instead: how far the library has read it (a put, from
// /proc/self/fdinfo) or how large it has grown (a get). On a terminal a bar
// with the rate is redrawn in place; otherwise a plain line every second.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace orvctl {

// "512 B", "12.3 KiB", "4.0 MiB"
std::string byteText(double bytes);

class TransferProgress {
public:
    enum class Direction { Put, Get };
    // total: the file's size, or a negative number when not known (a get).
    TransferProgress(Direction d, std::string label, std::string localPath, int64_t total, bool terminal);
    ~TransferProgress();
    TransferProgress(const TransferProgress&) = delete;
    TransferProgress& operator=(const TransferProgress&) = delete;

    // Stops the watch and clears the bar; returns the seconds since start.
    double stop();

private:
    void run();
    int64_t bytesNow() const;
    void draw(int64_t bytes, double seconds, bool final);

    Direction direction_;
    std::string label_, path_, canonical_;
    int64_t total_;
    bool terminal_;
    std::chrono::steady_clock::time_point start_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    bool drawn_ = false;
    double lastLineS_ = 0.0;
    std::thread thread_;
};

}  // namespace orvctl
