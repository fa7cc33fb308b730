// Progress of a file transfer that the library runs in one blocking call.
// The library reports nothing until the end, so a thread watches the local
// file instead: how far the library has read it (a put, from
// /proc/self/fdinfo) or how large it has grown (a get), and shows it on the
// programs' progress line (with a bar on a terminal).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "Progress.hpp"

namespace orvctl {

class TransferWatch {
public:
    enum class Direction { Put, Get };
    // total: the file's size, or a negative number when not known (a get).
    TransferWatch(Direction d, std::string label, std::string localPath, int64_t total);
    ~TransferWatch();
    TransferWatch(const TransferWatch&) = delete;
    TransferWatch& operator=(const TransferWatch&) = delete;

    // Stops the watch and erases the line; returns the seconds since start.
    double stop();

private:
    void run();
    int64_t bytesNow() const;
    std::string text(int64_t bytes, double seconds) const;

    Direction direction_;
    std::string label_, path_, canonical_;
    int64_t total_;
    orvprogress::ProgressLine line_;
    std::chrono::steady_clock::time_point start_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace orvctl
