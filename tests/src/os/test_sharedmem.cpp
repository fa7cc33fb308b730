// Shared-memory region and semaphores on the real POSIX objects. Every test
// uses names unique to this process and removes them itself, because the
// region is never unlinked by the classes.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>

#include "os/OrvosiSharedMem.hpp"

namespace {

// A name unique to this process; the region and its semaphores go at the end.
struct Name : std::string {
    explicit Name(const char* tag) : std::string("orvatest" + std::to_string(getpid()) + tag) {}
    ~Name() {
        shm_unlink(("/" + *this).c_str());
        sem_unlink(("/" + *this + "Sem").c_str());
        sem_unlink(("/" + *this).c_str());  // semaphores tested on their own
    }
};

long openFds() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

}  // namespace

TEST(SharedMem, OpeningWithoutProducerOrSemaphoreFailsAndLeaksNothing) {
    const Name name("Absent");
    const long fdsBefore = openFds();
    EXPECT_EQ(OrvosiSharedMem(name.c_str()).get(), nullptr);
    // A region without its semaphore is not usable either, and a second
    // attempt must not stack descriptors.
    const int fd = shm_open(("/" + name).c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(ftruncate(fd, 64), 0);
    close(fd);
    {
        OrvosiSharedMem noSem(name.c_str());
        EXPECT_FALSE(noSem.isOk() || noSem.get() != nullptr || noSem.open(name.c_str()));
    }
    EXPECT_EQ(openFds(), fdsBefore);
    EXPECT_FALSE(OrvosiSharedMem(Name("Empty").c_str(), 0).isOk());  // no bytes: nothing to map
}

TEST(SharedMem, ProducerAndConsumerShareMemoryAndLock) {
    const Name name("Shared");
    OrvosiSharedMem producer(name.c_str(), 1000), consumer(name.c_str());
    ASSERT_TRUE(producer.isOk() && consumer.isOk());
    ASSERT_EQ(consumer.size(), 1000u);
    auto* p = static_cast<unsigned char*>(consumer.get());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::count(p, p + 1000, 0), 1000);
    // Held now, under the name a producer in another process would use.
    sem_t* raw = sem_open(("/" + name + "Sem").c_str(), 0);
    ASSERT_NE(raw, SEM_FAILED);
    EXPECT_NE(sem_trywait(raw), 0);
    EXPECT_TRUE(consumer.release());
    EXPECT_EQ(sem_trywait(raw), 0);  // released: one taker gets it, the next one does not
    EXPECT_NE(sem_trywait(raw), 0);
    EXPECT_EQ(sem_post(raw), 0);
    sem_close(raw);
}

TEST(SharedMem, RegionOutlivesItsCreatorAndRecreatingClearsAndResizes) {
    const Name name("Recreate");
    {
        OrvosiSharedMem first(name.c_str(), 256);
        if (void* m = first.get()) std::memset(m, 0xEE, first.size());
        first.release();
    }
    EXPECT_EQ(OrvosiSharedMem(name.c_str()).size(), 256u);  // its semaphore went with the creator
    OrvosiSharedMem second(name.c_str(), 128), reader(name.c_str());
    auto* p = static_cast<unsigned char*>(reader.get());
    ASSERT_TRUE(second.isOk() && p != nullptr);
    EXPECT_EQ(std::count(p, p + reader.size(), 0), 128);
    reader.release();
}

TEST(Semaphore, TimedTakeOwnerJoinerAndUnnamed) {
    const Name name("Sem");
    EXPECT_FALSE(OrvosiSemaphore(name.c_str()).isOk());  // nothing to join yet
    EXPECT_FALSE(OrvosiSemaphore(static_cast<const char*>(nullptr)).isOk());
    {
        OrvosiSemaphore owner(name.c_str(), 0);
        // 200 waits 200 us, not ms; 2,000,000 adds 2 s of nanoseconds without
        // carry into the seconds: never a valid deadline, refused at once.
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(owner.take(200) || owner.take(2000000));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
        ASSERT_TRUE(owner.give());
        EXPECT_TRUE(owner.take(5));
        ASSERT_TRUE(owner.give() && owner.give());
        // Joiners take from the same count and only close: the name remains.
        EXPECT_TRUE(OrvosiSemaphore(name.c_str()).trytake());
        EXPECT_TRUE(OrvosiSemaphore(name.c_str()).take());
        EXPECT_FALSE(owner.trytake());
    }
    EXPECT_FALSE(OrvosiSemaphore(name.c_str()).isOk());  // the owner removed it
    OrvosiSemaphore unnamed, counted(nullptr, 1);
    EXPECT_TRUE(!unnamed.trytake() && counted.trytake() && !counted.trytake());
}

// The bits of a file below /dev/shm, where the region and glibc's named
// semaphores live; -1 when it is not there.
int modeOf(const std::string& file) {
    struct stat st {};
    return stat(("/dev/shm/" + file).c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
}

// The region and its semaphore get no permission beyond the mode asked for:
// fresh ones, and ones an earlier creator left readable and writable by
// everyone, which are narrowed before anything is written into them. The
// owner still uses them as before.
TEST(SharedMem, RegionAndSemaphoreGetNoWiderPermissionsThanAsked) {
    const Name fresh("ModeFresh"), left("ModeLeft");
    {
        OrvosiSharedMem producer(fresh.c_str(), 512, 0600), reader(fresh.c_str());
        ASSERT_TRUE(producer.isOk() && reader.isOk());
        EXPECT_EQ(modeOf(fresh) & ~0600, 0) << std::oct << modeOf(fresh);
        ASSERT_NE(modeOf("sem." + fresh + "Sem"), -1);
        EXPECT_EQ(modeOf("sem." + fresh + "Sem") & ~0600, 0) << std::oct << modeOf("sem." + fresh + "Sem");
        ASSERT_NE(reader.get(), nullptr);
        EXPECT_TRUE(reader.release());
    }

    // Left behind wide open (fchmod and chmod are not narrowed by the umask).
    const int fd = shm_open(("/" + left).c_str(), O_CREAT | O_RDWR, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fchmod(fd, 0666), 0);
    close(fd);
    sem_t* sem = sem_open(("/" + left + "Sem").c_str(), O_CREAT, 0666, 1);
    ASSERT_NE(sem, SEM_FAILED);
    sem_close(sem);
    ASSERT_EQ(chmod(("/dev/shm/sem." + left + "Sem").c_str(), 0666), 0);
    ASSERT_EQ(modeOf(left), 0666);

    OrvosiSharedMem producer(left.c_str(), 512, 0640), reader(left.c_str());
    ASSERT_TRUE(producer.isOk() && reader.isOk());
    EXPECT_EQ(modeOf(left), 0640);
    EXPECT_EQ(modeOf("sem." + left + "Sem"), 0640);
    // The default keeps what a creator always made.
    OrvosiSharedMem again(left.c_str(), 512);
    EXPECT_TRUE(again.isOk());
    EXPECT_EQ(modeOf(left), 0640);
}
