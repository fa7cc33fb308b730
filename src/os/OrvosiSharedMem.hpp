// A named POSIX shared-memory region paired with its named semaphore (the
// camera image that orvHub publishes), and the semaphore wrapper itself.
// Failures are reported by isOk() false or a null/false result, never text.
#pragma once

#include <semaphore.h>

#include <memory>
#include <string>

class OrvosiSemaphore {
public:
    // A name creates (or joins) the named semaphore "/" + name as its owner;
    // a null name makes an unnamed, process-private semaphore. A named one
    // is created with the permission bits `mode` (the umask narrows them),
    // and one that exists with wider bits is narrowed to them; when that is
    // not allowed (another user's), isOk() is false.
    OrvosiSemaphore(const char* name, unsigned int initialCount, unsigned int mode = 0666);
    // Unnamed, count 0.
    OrvosiSemaphore();
    // Opens an existing named semaphore, not as owner.
    explicit OrvosiSemaphore(const char* name);
    ~OrvosiSemaphore();
    OrvosiSemaphore(const OrvosiSemaphore&) = delete;
    OrvosiSemaphore& operator=(const OrvosiSemaphore&) = delete;

    bool isOk() const { return handle_ != nullptr; }
    // Waits without limit.
    bool take();
    // Waits until timeoutMs * 1000 nanoseconds past now, added without carry
    // into the seconds: the wait lasts microseconds, and a deadline that
    // passes a whole second is refused at once. Callers wanting a real
    // millisecond wait use take().
    bool take(int timeoutMs);
    bool trytake();
    bool give();
    const std::string& name() const { return name_; }

private:
    sem_t* handle_ = nullptr;
    bool named_ = false;
    bool owner_ = false;
    std::string name_;
};

class OrvosiSharedMem {
public:
    // Creates (or re-sizes and clears) the region "/" + name of size bytes,
    // with its semaphore at count 1, as owner. Both get at most the
    // permission bits `mode`: created with them (the umask narrows them),
    // narrowed to them when they exist with wider ones, and refused (isOk()
    // false) when they cannot be narrowed.
    OrvosiSharedMem(const char* name, unsigned int size, unsigned int mode = 0666);
    // Opens an existing region and its semaphore.
    explicit OrvosiSharedMem(const char* name);
    ~OrvosiSharedMem();
    OrvosiSharedMem(const OrvosiSharedMem&) = delete;
    OrvosiSharedMem& operator=(const OrvosiSharedMem&) = delete;

    bool isOk() const { return ok_; }
    // Takes the semaphore (waiting without limit) and returns the mapping;
    // null when the take fails. Pair every successful get() with release().
    void* get();
    bool release();
    // Bytes mapped (0 when nothing is mapped): readers must stay inside.
    size_t size() const { return size_; }
    // Bytes of the mapping still backed by the region now: less than size()
    // once another process has cut the region short, and touching the pages
    // past its end raises SIGBUS. 0 when nothing is mapped.
    size_t currentSize() const;

    bool create(const char* name, unsigned int size, unsigned int mode = 0666);
    bool open(const char* name);

private:
    int fd_ = -1;
    std::unique_ptr<OrvosiSemaphore> sem_;
    void* map_ = nullptr;
    size_t size_ = 0;
    bool ok_ = false;
};
