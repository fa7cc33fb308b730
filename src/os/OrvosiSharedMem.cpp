#include "os/OrvosiSharedMem.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

// ---- permissions ---------------------------------------------------------------

namespace {

// Where glibc keeps the named semaphore: /dev/shm/sem. and the name
// without its leading slashes.
std::string semaphorePath(const std::string& name) {
    const size_t first = name.find_first_not_of('/');
    return "/dev/shm/sem." + (first == std::string::npos ? std::string() : name.substr(first));
}

// Takes away every permission bit beyond `mode` from the open descriptor
// (or, with fd -1, the path); true when none is left. A region or
// semaphore made earlier, by another creator or with another mode, would
// otherwise keep whatever bits it was made with.
bool narrowMode(int fd, const char* path, unsigned int mode) {
    struct stat st {};
    if ((fd >= 0 ? fstat(fd, &st) : stat(path, &st)) != 0) return false;
    const mode_t bits = st.st_mode & 0777;
    const mode_t wanted = bits & static_cast<mode_t>(mode & 0777);
    if (bits == wanted) return true;
    return (fd >= 0 ? fchmod(fd, wanted) : chmod(path, wanted)) == 0;
}

}  // namespace

// ---- OrvosiSemaphore ---------------------------------------------------------
// Names reach sem_open as "//<name>Sem" when built by OrvosiSharedMem; glibc
// drops repeated leading slashes, so a producer using "/<name>Sem" meets the
// same semaphore.

OrvosiSemaphore::OrvosiSemaphore(const char* name, unsigned int initialCount, unsigned int mode) : owner_(true) {
    if (name != nullptr) {
        named_ = true;
        name_ = std::string("/") + name;
        sem_t* s = sem_open(name_.c_str(), O_CREAT, static_cast<mode_t>(mode & 0777), initialCount);
        handle_ = s == SEM_FAILED ? nullptr : s;
        // One left by an earlier creator keeps its bits; glibc keeps the
        // semaphore as a file under /dev/shm, where they can be narrowed.
        if (handle_ != nullptr && !narrowMode(-1, semaphorePath(name_).c_str(), mode)) {
            sem_close(handle_);
            handle_ = nullptr;
        }
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

OrvosiSharedMem::OrvosiSharedMem(const char* name, unsigned int size, unsigned int mode) {
    ok_ = create(name, size, mode);
}

OrvosiSharedMem::OrvosiSharedMem(const char* name) { ok_ = open(name); }

OrvosiSharedMem::~OrvosiSharedMem() {
    // The region itself is left in place: it outlives its creator, and the
    // next create() of the name re-sizes and clears it.
    sem_.reset();
    releaseRegion(fd_, map_, size_);
}

bool OrvosiSharedMem::create(const char* name, unsigned int size, unsigned int mode) {
    sem_.reset();
    releaseRegion(fd_, map_, size_);
    if (name == nullptr) return false;
    const std::string path = std::string("/") + name;
    fd_ = shm_open(path.c_str(), O_CREAT | O_RDWR, static_cast<mode_t>(mode & 0777));
    if (fd_ < 0) return false;
    // Nothing is written into a region that others may read or write
    // beyond what was asked for.
    if (!narrowMode(fd_, nullptr, mode) || ftruncate(fd_, static_cast<off_t>(size)) != 0) {
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
    sem_.reset(new (std::nothrow) OrvosiSemaphore((path + "Sem").c_str(), 1, mode));
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
