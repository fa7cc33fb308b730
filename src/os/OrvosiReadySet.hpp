// A persistent set of descriptors asked in one system call which of them
// have data: an epoll set, built once when the endpoints open, so that a
// call that finds nothing costs one epoll_wait instead of a poll over
// every socket.
#pragma once

#include <cstddef>
#include <string>

class OrvosiReadySet {
public:
    static constexpr size_t kMaxMembers = 8;

    OrvosiReadySet() = default;
    ~OrvosiReadySet() { close(); }
    OrvosiReadySet(const OrvosiReadySet&) = delete;
    OrvosiReadySet& operator=(const OrvosiReadySet&) = delete;

    // The set of fds[0..count); member i is reported as ready[i]. False (with
    // the reason in getLastError) when the set could not be made.
    bool open(const int* fds, size_t count);
    void close();
    bool isOpen() const { return fd_ >= 0; }
    // The number of members with data, each flagged in ready[], after
    // waiting up to timeoutMs for one (0: not at all; negative: without
    // limit); 0 when a signal cut the wait short; -1 on failure.
    int wait(bool* ready, int timeoutMs = 0);
    std::string getLastError() const { return lastError_; }

private:
    int fd_ = -1;
    size_t count_ = 0;
    std::string lastError_;
};
