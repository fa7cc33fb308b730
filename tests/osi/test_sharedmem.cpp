// Shared-memory region and semaphores on the real POSIX objects. Every test
// uses names unique to this process and removes them itself, because the
// region is never unlinked by the classes.
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include "osi/OrvosiSharedMem.hpp"

namespace {

std::string uniqueName(const char* tag) { return std::string("orvatest") + std::to_string(getpid()) + tag; }

// Removes the region and its semaphore at the end of a test, whatever failed.
struct RegionCleanup {
    explicit RegionCleanup(std::string n) : name(std::move(n)) {}
    ~RegionCleanup() {
        shm_unlink(("/" + name).c_str());
        sem_unlink(("/" + name + "Sem").c_str());
        sem_unlink(("/" + name).c_str());  // semaphores tested on their own
    }
    std::string name;
};

double elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - since).count();
}

size_t openFdCount() {
    size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++n;
    }
    return n;
}

}  // namespace

TEST(SharedMem, OpeningWithoutProducerFails) {
    const std::string name = uniqueName("Absent");
    RegionCleanup cleanup(name);
    const size_t fdsBefore = openFdCount();
    {
        OrvosiSharedMem mem(name.c_str());
        EXPECT_FALSE(mem.isOk());
        EXPECT_EQ(mem.get(), nullptr);
        EXPECT_FALSE(mem.release());
        EXPECT_EQ(mem.size(), 0u);
        EXPECT_FALSE(mem.open(name.c_str()));
        EXPECT_EQ(openFdCount(), fdsBefore);
    }

    // A region without its semaphore is not usable either.
    const int fd = shm_open(("/" + name).c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 64), 0);
    close(fd);
    {
        OrvosiSharedMem noSem(name.c_str());
        EXPECT_FALSE(noSem.isOk());
        EXPECT_EQ(noSem.get(), nullptr);
        EXPECT_FALSE(noSem.open(name.c_str()));  // a second attempt must not stack descriptors
    }
    EXPECT_EQ(openFdCount(), fdsBefore);
}

TEST(SharedMem, ProducerAndConsumerShareMemoryAndLock) {
    const std::string name = uniqueName("Shared");
    RegionCleanup cleanup(name);
    OrvosiSharedMem producer(name.c_str(), 1000);
    ASSERT_TRUE(producer.isOk());
    EXPECT_EQ(producer.size(), 1000u);

    OrvosiSharedMem consumer(name.c_str());
    ASSERT_TRUE(consumer.isOk());
    ASSERT_EQ(consumer.size(), 1000u);

    // The name a producer in another process would use ("/" + name + "Sem")
    // reaches the same semaphore, which starts free (count 1) as a mutex.
    sem_t* raw = sem_open(("/" + name + "Sem").c_str(), 0);
    ASSERT_NE(raw, SEM_FAILED);
    int count = -1;
    ASSERT_EQ(sem_getvalue(raw, &count), 0);
    ASSERT_EQ(count, 1);

    auto* p = static_cast<unsigned char*>(consumer.get());
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < consumer.size(); ++i) ASSERT_EQ(p[i], 0) << "byte " << i;

    // Held now: a second taker cannot have it.
    EXPECT_NE(sem_trywait(raw), 0);
    OrvosiSemaphore joiner((name + "Sem").c_str());
    ASSERT_TRUE(joiner.isOk());
    EXPECT_FALSE(joiner.trytake());

    p[0] = 0xA5;
    p[999] = 0x5A;
    EXPECT_TRUE(consumer.release());

    // Released: one taker gets it, the next one does not.
    EXPECT_TRUE(joiner.trytake());
    EXPECT_NE(sem_trywait(raw), 0);
    EXPECT_TRUE(joiner.give());
    sem_close(raw);

    auto* q = static_cast<unsigned char*>(producer.get());
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(q[0], 0xA5);
    EXPECT_EQ(q[999], 0x5A);
    q[500] = 7;
    EXPECT_TRUE(producer.release());
    EXPECT_EQ(p[500], 7);
}

TEST(SharedMem, RecreatingClearsAndResizes) {
    const std::string name = uniqueName("Recreate");
    RegionCleanup cleanup(name);
    {
        OrvosiSharedMem first(name.c_str(), 256);
        ASSERT_TRUE(first.isOk());
        auto* p = static_cast<unsigned char*>(first.get());
        ASSERT_NE(p, nullptr);
        std::memset(p, 0xEE, first.size());
        first.release();
    }
    // The region outlived its creator, with its contents.
    {
        OrvosiSharedMem reader(name.c_str());
        ASSERT_FALSE(reader.isOk());  // its semaphore went with the creator
        EXPECT_EQ(reader.size(), 256u);
    }
    OrvosiSharedMem second(name.c_str(), 128);
    ASSERT_TRUE(second.isOk());
    OrvosiSharedMem reader(name.c_str());
    ASSERT_TRUE(reader.isOk());
    EXPECT_EQ(reader.size(), 128u);
    auto* p = static_cast<unsigned char*>(reader.get());
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < reader.size(); ++i) ASSERT_EQ(p[i], 0) << "byte " << i;
    reader.release();

    // Creating with no bytes cannot map anything.
    const std::string empty = uniqueName("Empty");
    RegionCleanup emptyCleanup(empty);
    OrvosiSharedMem none(empty.c_str(), 0);
    EXPECT_FALSE(none.isOk());
    EXPECT_EQ(none.get(), nullptr);
}

TEST(Semaphore, TimedTakeWaitsMicrosecondsAndRejectsLongDeadlines) {
    const std::string name = uniqueName("Timed");
    RegionCleanup cleanup(name);
    OrvosiSemaphore sem(name.c_str(), 0);
    ASSERT_TRUE(sem.isOk());
    EXPECT_EQ(sem.name(), "/" + name);

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(sem.take(5));
    EXPECT_LT(elapsedMs(start), 50.0);

    // 2,000,000 "ms" is 2 s of nanoseconds: never a valid deadline.
    start = std::chrono::steady_clock::now();
    EXPECT_FALSE(sem.take(2000000));
    EXPECT_LT(elapsedMs(start), 100.0);

    ASSERT_TRUE(sem.give());
    EXPECT_TRUE(sem.take(5));
    ASSERT_TRUE(sem.give());
    EXPECT_TRUE(sem.take());
    EXPECT_FALSE(sem.trytake());
}

TEST(Semaphore, OwnerRemovesNameJoinerDoesNot) {
    const std::string name = uniqueName("Owner");
    RegionCleanup cleanup(name);
    EXPECT_FALSE(OrvosiSemaphore(name.c_str()).isOk());
    EXPECT_FALSE(OrvosiSemaphore(static_cast<const char*>(nullptr)).isOk());
    {
        OrvosiSemaphore owner(name.c_str(), 2);
        ASSERT_TRUE(owner.isOk());
        {
            OrvosiSemaphore joiner(name.c_str());
            ASSERT_TRUE(joiner.isOk());
            EXPECT_TRUE(joiner.trytake());
        }
        // The joiner only closed: the name and the count remain.
        OrvosiSemaphore again(name.c_str());
        ASSERT_TRUE(again.isOk());
        EXPECT_TRUE(again.trytake());
        EXPECT_FALSE(owner.trytake());
    }
    EXPECT_FALSE(OrvosiSemaphore(name.c_str()).isOk());
}

TEST(Semaphore, UnnamedCountsGivesAndTakes) {
    OrvosiSemaphore sem;
    ASSERT_TRUE(sem.isOk());
    EXPECT_TRUE(sem.name().empty());
    EXPECT_FALSE(sem.trytake());
    EXPECT_TRUE(sem.give());
    EXPECT_TRUE(sem.give());
    EXPECT_TRUE(sem.trytake());
    EXPECT_TRUE(sem.take());
    EXPECT_FALSE(sem.take(1));

    OrvosiSemaphore counted(nullptr, 1);
    ASSERT_TRUE(counted.isOk());
    EXPECT_TRUE(counted.trytake());
    EXPECT_FALSE(counted.trytake());
}
