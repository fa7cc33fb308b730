#include "os/OrvosiReadySet.hpp"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

#include "os/OrvosiUtil.hpp"

bool OrvosiReadySet::open(const int* fds, size_t count) {
    close();
    if (count > kMaxMembers) {
        lastError_ = "Too many descriptors for one ready set";
        return false;
    }
    fd_ = epoll_create1(EPOLL_CLOEXEC);
    if (fd_ < 0) return OrvosiUtil::failWithSystemText(lastError_, "Failed to create the ready set...");
    for (size_t i = 0; i < count; ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = static_cast<uint32_t>(i);
        if (epoll_ctl(fd_, EPOLL_CTL_ADD, fds[i], &event) != 0) {
            const bool ok = OrvosiUtil::failWithSystemText(lastError_, "Failed to add to the ready set...");
            close();
            return ok;
        }
    }
    count_ = count;
    return true;
}

void OrvosiReadySet::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    count_ = 0;
}

int OrvosiReadySet::wait(bool* ready, int timeoutMs) {
    for (size_t i = 0; i < count_; ++i) ready[i] = false;
    if (fd_ < 0) {
        // Keeps the reason why open() failed, when it did.
        if (lastError_.empty()) lastError_ = "The ready set is not open";
        return -1;
    }
    epoll_event events[kMaxMembers];
    const int n = epoll_wait(fd_, events, static_cast<int>(kMaxMembers), timeoutMs < 0 ? -1 : timeoutMs);
    if (n < 0 && errno == EINTR) return 0;
    if (n < 0) {
        OrvosiUtil::failWithSystemText(lastError_, "Failed to wait on the ready set...");
        return -1;
    }
    for (int i = 0; i < n; ++i) ready[events[i].data.u32] = true;
    return n;
}
