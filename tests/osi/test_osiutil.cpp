// Clocks, sleeping, file tests and the working/executable paths.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <string>

#include "osi/OrvosiUtil.hpp"
#include "support/TestSupport.hpp"

using U = OrvosiUtil;

namespace {
double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// Restores the working directory however the test leaves.
struct CwdGuard {
    CwdGuard() { saved = getcwd(buf, sizeof buf) != nullptr; }
    ~CwdGuard() {
        if (saved && chdir(buf) != 0) ADD_FAILURE() << "could not restore the working directory";
    }
    char buf[4096];
    bool saved;
};
}  // namespace

TEST(OsiUtil, SnoozeSleepsRoughlyTheGivenMilliseconds) {
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(U::snoozeMs(0), 0);
    // Loose: a loaded CI machine under the sanitizers still schedules late.
    EXPECT_LT(msSince(t0), 4.0);

    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(U::snoozeMs(5), 0);
    const double slept = msSince(t0);
    EXPECT_GE(slept, 4.0);
    EXPECT_LT(slept, 100.0);
}

TEST(OsiUtil, ClocksAgreeWithEachOtherAndTheWallClock) {
    // Bracket one millisecond reading by two microsecond readings.
    const uint64_t before = U::getTimeSysUs();
    const double ms = U::getTimeMs();
    const uint64_t after = U::getTimeSysUs();
    EXPECT_LE(before, after);
    EXPECT_GE(ms, static_cast<double>(before) / 1000.0);
    EXPECT_LE(ms, static_cast<double>(after) / 1000.0);
    EXPECT_LT(after - before, 100000u);

    // Not some other epoch or unit: close to the system clock in microseconds.
    const auto sys = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const double diff = static_cast<double>(U::getTimeSysUs()) - static_cast<double>(sys);
    EXPECT_LT(std::abs(diff), 1e6);

    // The fractional part carries the microseconds.
    bool sawFraction = false;
    for (int i = 0; i < 50 && !sawFraction; ++i) {
        const double m = U::getTimeMs();
        sawFraction = m != static_cast<double>(static_cast<uint64_t>(m));
    }
    EXPECT_TRUE(sawFraction);
}

TEST(OsiUtil, FileAndDirectoryTests) {
    orvtest::TempDir tmp;
    const std::string dir = tmp.path().string();
    const std::string file = dir + "/plain.txt";
    const std::string missing = dir + "/missing";
    std::ofstream(file) << "x";

    EXPECT_TRUE(U::fileExists(dir.c_str()));
    EXPECT_TRUE(U::fileExists(file.c_str()));
    EXPECT_FALSE(U::fileExists(missing.c_str()));
    EXPECT_TRUE(U::directoryExists(dir));
    EXPECT_FALSE(U::directoryExists(file));
    EXPECT_FALSE(U::directoryExists(missing));

    const std::string sub = dir + "/sub";
    EXPECT_TRUE(U::createDirectory(sub));
    EXPECT_TRUE(U::directoryExists(sub));
    EXPECT_FALSE(U::createDirectory(sub));           // already there
    EXPECT_FALSE(U::createDirectory(dir + "/a/b"));  // one level only
    EXPECT_FALSE(U::directoryExists(dir + "/a"));

    EXPECT_TRUE(U::removeFile(file));
    EXPECT_FALSE(U::fileExists(file.c_str()));
    EXPECT_FALSE(U::removeFile(file));
    EXPECT_FALSE(U::removeFile(sub));  // unlink does not remove directories

    errno = ENOENT;
    EXPECT_EQ(U::getSystemErrorMsg(), std::strerror(ENOENT));
}

TEST(OsiUtil, CurrentDirectoryEndsInSlash) {
    CwdGuard guard;
    ASSERT_TRUE(guard.saved);
    orvtest::TempDir tmp;

    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(U::GetCurrentDir(), "/");

    ASSERT_EQ(chdir(tmp.path().c_str()), 0);
    char real[4096];
    ASSERT_NE(getcwd(real, sizeof real), nullptr);  // the temp folder may sit behind a link
    EXPECT_EQ(U::GetCurrentDir(), std::string(real) + "/");
}

TEST(OsiUtil, ExecutablePathNamesThisTest) {
    const std::string path = U::GetExecutablePath();
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(path.front(), '/');
    const std::string name = "/test_osi_util";
    ASSERT_GE(path.size(), name.size());
    EXPECT_EQ(path.compare(path.size() - name.size(), name.size(), name), 0) << path;
    EXPECT_TRUE(U::fileExists(path.c_str()));
}
