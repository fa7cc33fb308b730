#include "osi/OrvosiSharedMem.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

// ---- OrvosiSemaphore ---------------------------------------------------------
// Names reach sem_open as "//<name>Sem" when built by OrvosiSharedMem; glibc
// drops repeated leading slashes, so a producer using "/<name>Sem" meets the
// same semaphore.

OrvosiSemaphore::OrvosiSemaphore(const char* name, unsigned int initialCount) : owner_(true) {
    if (name != nullptr) {
        named_ = true;
        name_ = std::string("/") + name;
        sem_t* s = sem_open(name_.c_str(), O_CREAT, 0666, initialCount);
        handle_ = s == SEM_FAILED ? nullptr : s;
        return;
    }
    sem_t* s = new (std::nothrow) sem_t;
    if (s == nullptr) return;
    if (sem_init(s, 0, initialCount) != 0) {
        delete s;
        return;
    }
    handle_ = s;
}

OrvosiSemaphore::OrvosiSemaphore() : OrvosiSemaphore(nullptr, 0) {}

OrvosiSemaphore::OrvosiSemaphore(const char* name) : named_(true), owner_(false) {
    if (name == nullptr) return;
    name_ = std::string("/") + name;
    sem_t* s = sem_open(name_.c_str(), 0);
    handle_ = s == SEM_FAILED ? nullptr : s;
}

OrvosiSemaphore::~OrvosiSemaphore() {
    if (handle_ == nullptr) return;
    if (named_) {
        sem_close(handle_);
        if (owner_) sem_unlink(name_.c_str());
    } else {
        sem_destroy(handle_);
        delete handle_;
    }
    handle_ = nullptr;
}

bool OrvosiSemaphore::take() {
    if (handle_ == nullptr) return false;
    int rc;
    do rc = sem_wait(handle_);
    while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool OrvosiSemaphore::take(int timeoutMs) {
    if (handle_ == nullptr) return false;
    timespec deadline{};
    if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) return false;
    // No carry into tv_sec on purpose: long-standing callers depend on the
    // short wait, and an overflowing deadline is rejected by sem_timedwait.
    deadline.tv_nsec += static_cast<long>(timeoutMs) * 1000L;
    int rc;
    do rc = sem_timedwait(handle_, &deadline);
    while (rc != 0 && errno == EINTR);
    return rc == 0;
}

bool OrvosiSemaphore::trytake() { return handle_ != nullptr && sem_trywait(handle_) == 0; }

bool OrvosiSemaphore::give() { return handle_ != nullptr && sem_post(handle_) == 0; }

// ---- OrvosiSharedMem -----------------------------------------------------------

namespace {
// Unmaps and closes what a region object holds; shared by the failure paths
// and the destructor so that no descriptor or mapping is left behind.
void releaseRegion(int& fd, void*& map, size_t& size) {
    if (map != nullptr) munmap(map, size);
    if (fd >= 0) close(fd);
    map = nullptr;
    size = 0;
    fd = -1;
}
}  // namespace

OrvosiSharedMem::OrvosiSharedMem(const char* name, unsigned int size) { ok_ = create(name, size); }

OrvosiSharedMem::OrvosiSharedMem(const char* name) { ok_ = open(name); }

OrvosiSharedMem::~OrvosiSharedMem() {
    // The region itself is left in place: it outlives its creator, and the
    // next create() of the name re-sizes and clears it.
    sem_.reset();
    releaseRegion(fd_, map_, size_);
}

bool OrvosiSharedMem::create(const char* name, unsigned int size) {
    sem_.reset();
    releaseRegion(fd_, map_, size_);
    if (name == nullptr) return false;
    const std::string path = std::string("/") + name;
    fd_ = shm_open(path.c_str(), O_CREAT | O_RDWR, 0666);
    if (fd_ < 0) return false;
    if (ftruncate(fd_, static_cast<off_t>(size)) != 0) {
        releaseRegion(fd_, map_, size_);
        return false;
    }
    void* m = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (m == MAP_FAILED) {
        releaseRegion(fd_, map_, size_);
        return false;
    }
    map_ = m;
    size_ = size;
    std::memset(map_, 0, size_);
    sem_.reset(new (std::nothrow) OrvosiSemaphore((path + "Sem").c_str(), 1));
    return sem_ != nullptr && sem_->isOk();
}

bool OrvosiSharedMem::open(const char* name) {
    sem_.reset();
    releaseRegion(fd_, map_, size_);
    if (name == nullptr) return false;
    const std::string path = std::string("/") + name;
    fd_ = shm_open(path.c_str(), O_RDWR, 0666);
    if (fd_ < 0) return false;
    struct stat st {};
    if (fstat(fd_, &st) != 0 || st.st_size <= 0) {
        releaseRegion(fd_, map_, size_);
        return false;
    }
    const size_t bytes = static_cast<size_t>(st.st_size);
    void* m = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (m == MAP_FAILED) {
        releaseRegion(fd_, map_, size_);
        return false;
    }
    map_ = m;
    size_ = bytes;
    // Without its semaphore the region stays mapped but get() refuses it.
    sem_.reset(new (std::nothrow) OrvosiSemaphore((path + "Sem").c_str()));
    return sem_ != nullptr && sem_->isOk();
}

size_t OrvosiSharedMem::currentSize() const {
    struct stat st {};
    if (map_ == nullptr || fstat(fd_, &st) != 0 || st.st_size <= 0) return 0;
    return std::min(size_, static_cast<size_t>(st.st_size));
}

void* OrvosiSharedMem::get() {
    if (map_ == nullptr || sem_ == nullptr || !sem_->take()) return nullptr;
    return map_;
}

bool OrvosiSharedMem::release() { return sem_ != nullptr && sem_->give(); }
