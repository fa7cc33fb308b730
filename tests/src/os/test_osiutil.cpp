// Clocks, sleeping, system error texts, file tests and the working and
// executable paths.
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>

#include "orvaccess/orvaccess.h"
#include "os/OrvosiUtil.hpp"
#include "support/TestSupport.hpp"

using U = OrvosiUtil;
namespace fs = std::filesystem;

TEST(OsiUtil, SnoozeAndClocks) {
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(U::snoozeMs(5), 0);
    const auto slept = std::chrono::steady_clock::now() - t0;  // milliseconds, not microseconds
    EXPECT_TRUE(slept >= std::chrono::milliseconds(4) && slept < std::chrono::milliseconds(100));

    // One millisecond reading bracketed by two microsecond readings, which
    // are close to the system clock (not some other epoch or unit).
    const uint64_t before = U::getTimeSysUs();
    const double ms = U::getTimeMs();
    const uint64_t after = U::getTimeSysUs();
    EXPECT_GE(ms, static_cast<double>(before) / 1000.0);
    EXPECT_LE(ms, static_cast<double>(after) / 1000.0);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_NEAR(static_cast<double>(after), (std::chrono::duration<double, std::micro>(now).count()), 1e6);
}

TEST(OsiUtil, NegativeSnoozeReturnsAtOnce) {
    // As an unsigned microsecond count, -1 ms was about 71 minutes. A
    // repeating alarm cuts any such sleep short, so that a regression fails
    // here instead of hanging.
    struct sigaction quiet {}, saved{};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &quiet, &saved), 0);
    const itimerval watchdog{{0, 200000}, {0, 200000}}, off{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &watchdog, nullptr), 0);
    const auto t0 = std::chrono::steady_clock::now();
    const int result = U::snoozeMs(-1);
    OrvosiUtil_snoozeMs(-1);  // the exported form
    OrvosiUtil_snoozeMs(INT_MIN);
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - t0;
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &saved, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_LT(took.count(), 100.0);
}

TEST(OsiUtil, FilesDirectoriesAndSystemTexts) {
    orvtest::TempDir tmp;
    const std::string dir = tmp.path().string(), file = tmp.write("plain.txt", "x");
    EXPECT_TRUE(U::fileExists(dir.c_str()));
    EXPECT_TRUE(U::directoryExists(dir));
    EXPECT_FALSE(U::directoryExists(file) || U::directoryExists(dir + "/missing"));
    EXPECT_TRUE(U::createDirectory(dir + "/sub"));
    EXPECT_TRUE(U::directoryExists(dir + "/sub"));
    EXPECT_FALSE(U::createDirectory(dir + "/a/b"));  // one level only
    EXPECT_TRUE(U::removeFile(file));
    EXPECT_FALSE(U::fileExists(file.c_str()) || U::removeFile(file));

    std::string error = "old";
    errno = ENOENT;
    EXPECT_FALSE(U::failWithSystemText(error, "Read failed..."));
    EXPECT_EQ(error, std::string("Read failed...") + std::strerror(ENOENT));
}

TEST(OsiUtil, CurrentDirectoryEndsInSlashAndExecutableIsThisProcess) {
    const std::string saved = fs::current_path().string();
    ASSERT_EQ(chdir("/"), 0);
    const std::string root = U::GetCurrentDir();
    fs::current_path(saved);
    EXPECT_EQ(root, "/");
    EXPECT_EQ(U::GetCurrentDir(), saved + "/");
    EXPECT_EQ(U::GetExecutablePath(), fs::canonical("/proc/self/exe").string());
}
