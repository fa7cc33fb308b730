// The programs' one progress line and its units: written to a real pipe (a
// log) and a real pseudo-terminal, on made-up clocks.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "Progress.hpp"

using orvprogress::byteText;
using orvprogress::ProgressLine;
using orvprogress::rateText;

namespace {

// How long a read waits for bytes that are on their way; only a broken
// terminal takes this long.
constexpr int kPatienceMs = 20000;

// Everything readable on fd now, without waiting for more.
std::string drain(int fd) {
    std::string out;
    char buf[4096];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// A pseudo-terminal whose program side is a FILE, as stderr is in a shell.
class Pty {
public:
    Pty() : master_(posix_openpt(O_RDWR | O_NOCTTY)) {
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) return;
        const int slave = open(ptsname(master_), O_RDWR | O_NOCTTY);
        if (slave >= 0) file_ = fdopen(slave, "w");
    }
    ~Pty() {
        if (file_ != nullptr) std::fclose(file_);
        if (master_ >= 0) close(master_);
    }
    std::FILE* file() const { return file_; }
    // What the program wrote, as raw bytes (the line discipline's output
    // processing turns "\n" into "\r\n"). The terminal hands written bytes
    // to its other side in the background, so this waits for `count` of them.
    std::string read(size_t count) const {
        std::string out;
        char buf[4096];
        pollfd p{master_, POLLIN, 0};
        while (out.size() < count && poll(&p, 1, kPatienceMs) == 1) {
            const ssize_t n = ::read(master_, buf, std::min(sizeof buf, count - out.size()));
            if (n <= 0) break;
            out.append(buf, static_cast<size_t>(n));
        }
        return out;
    }

private:
    int master_;
    std::FILE* file_ = nullptr;
};

}  // namespace

TEST(Progress, SizesAndRatesInDecimalUnits) {
    EXPECT_EQ(byteText(0), "0 B");
    EXPECT_EQ(byteText(9999), "9999 B");
    EXPECT_EQ(byteText(10000), "10 kB");
    EXPECT_EQ(byteText(7986000), "7986 kB");
    EXPECT_EQ(byteText(9999999), "10000 kB");
    EXPECT_EQ(byteText(10000000), "10.0 MB");
    EXPECT_EQ(byteText(3700000000ull), "3700.0 MB");
    EXPECT_EQ(rateText(1300.4), "1300 B/s");
    EXPECT_EQ(rateText(2.5e6), "2500 kB/s");
    // A transfer over before the clock moved, or a clock gone wrong, is no rate.
    EXPECT_EQ(rateText(0.0), "0 B/s");
    EXPECT_EQ(rateText(-5.0), "0 B/s");
    EXPECT_EQ(rateText(1.0 / 0.0), "0 B/s");
    EXPECT_EQ(rateText(1e300), "1000000000000.0 MB/s");
}

TEST(Progress, ALogGetsAnOccasionalWholeLine) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::FILE* out = fdopen(fds[1], "w");
    ASSERT_NE(out, nullptr);
    {
        ProgressLine line(out);
        EXPECT_FALSE(line.terminal());
        const uint64_t t0 = 1000000;
        line.update(t0, "at start");  // nothing worth a line yet
        line.update(t0 + 4900000, "too soon");
        line.update(t0 + 5000000, "first");
        line.update(t0 + 6000000, "too soon again");
        // After a long silence one line, and the next a whole period later.
        line.update(t0 + 60000000, "after a stall");
        line.update(t0 + 61000000, "too soon after the stall");
        line.update(t0 + 65000000, "next");
        line.finish();
        line.clear();  // neither adds anything to a log
        EXPECT_EQ(drain(fds[0]), "first\nafter a stall\nnext\n");
    }
    std::fclose(out);
    close(fds[0]);
}

TEST(Progress, ATerminalLineIsRewrittenInPlace) {
    Pty pty;
    ASSERT_NE(pty.file(), nullptr) << "no pseudo-terminal";
    ProgressLine line(pty.file());
    EXPECT_TRUE(line.terminal());
    const auto expect = [&](const std::string& bytes) { EXPECT_EQ(pty.read(bytes.size()), bytes); };
    line.update(1000, "a long progress text");
    line.update(2000, "too soon");
    line.update(501000, "short");  // blanks over what the longer text left
    expect("\ra long progress text\rshort" + std::string(15, ' '));
    line.update(1001000, "last");
    line.clear();  // for a final line that replaces it
    expect("\rlast \r    \r");
    line.update(1501000, "again");
    line.finish();  // kept, and what follows starts on a line of its own
    line.finish();  // a second adds no empty line
    line.update(2001000, "end");
    expect("\ragain\r\n\rend");
}
