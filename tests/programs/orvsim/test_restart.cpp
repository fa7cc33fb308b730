// The shared-memory producer killed while it holds the region's semaphore,
// then a simulator started in its place: real processes, a real region and
// semaphore. Whatever can block runs in a child process of its own, so that
// a regression fails at a deadline instead of hanging the test.
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "os/OrvosiSharedMem.hpp"
#include "orvsim/Simulator.hpp"
#include "support/TestSupport.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRegionBytes = 6 + 307200;  // header and one image of format 10

// Runs f in a child process that exits with 0 when f returns true.
template <class F>
pid_t spawn(F&& f) {
    const pid_t pid = fork();
    if (pid == 0) _exit(f() ? 0 : 1);
    return pid;
}

// True when the child exits with 0 before the deadline; killed otherwise.
bool exitsCleanly(pid_t pid, Clock::time_point deadline) {
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return false;
        }
        usleep(10000);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A name unique to this process; what a killed process left behind goes at the end.
struct Name : std::string {
    Name() : std::string("orvatestrestart" + std::to_string(getpid())) {}
    ~Name() {
        shm_unlink(("/" + *this).c_str());
        sem_unlink(("/" + *this + "Sem").c_str());
    }
};

}  // namespace

TEST(SharedImageProducer, ARestartReclaimsTheSemaphoreItsKilledPredecessorHeld) {
    const Name name;
    orvtest::TempDir dir;
    const int ports[5] = {0, 0, orvtest::freePort(), 0, 0};  // a receiver for open() to accept
    const std::string ini = dir.write("orvaccess.ini", orvtest::receiverIni(ports, "sMemImgName = " + name + "\n"));

    // The producer dies with SIGKILL in the middle of writing an image.
    int holding[2];
    ASSERT_EQ(pipe(holding), 0);
    const pid_t dead = spawn([&] {
        OrvosiSharedMem region(name.c_str(), kRegionBytes);
        const char held = region.get() != nullptr ? 1 : 0;
        if (write(holding[1], &held, 1) != 1) return false;
        pause();
        return true;
    });
    char held = 0;
    ASSERT_EQ(read(holding[0], &held, 1), 1);
    ASSERT_EQ(held, 1);
    kill(dead, SIGKILL);
    waitpid(dead, nullptr, 0);
    close(holding[0]);
    close(holding[1]);

    // A reader that opened the region meanwhile waits for the semaphore;
    // the producer started again gives it back and publishes anew.
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    const pid_t reader = spawn([&] {
        OrvAccess access;
        access.setIniPath(ini);
        if (!access.open()) return false;
        std::vector<unsigned char> image(kRegionBytes);
        while (Clock::now() < deadline) {
            int percent = 0;
            e_OrvAccessImageFormat format{};
            unsigned int sequenceId = 0;
            if (!access.getImage(&percent, &format, &sequenceId, image.data(), image.size())) return false;
            if (percent == 100) return format == ORVACCESS_IMG_640x480_1;
            usleep(20000);
        }
        return false;
    });
    const pid_t restarted = spawn([&] {
        orvsim::SimConfig cfg;
        cfg.tcpPort = cfg.metaPort = cfg.imagePort = cfg.inputPort = cfg.corePort = cfg.hubPort = cfg.nftPort = 0;
        cfg.sharedMemName = name;
        cfg.rates.sharedImage = 20.0;
        orvsim::Simulator sim(cfg);
        if (!sim.open()) return false;
        sim.run(2.0, nullptr);
        return sim.report().imagesShared > 0;
    });
    EXPECT_TRUE(exitsCleanly(reader, deadline)) << "the reader got no image";
    EXPECT_TRUE(exitsCleanly(restarted, deadline)) << "the restarted simulator published nothing";
}
