// Helpers shared by the tests: free ports below 32768, temporary folders,
// and capture of what the library writes to the standard streams.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

namespace orvtest {

// True when nobody holds `port` for UDP or TCP on any interface. A plain
// bind (no SO_REUSEPORT) fails even against sockets that set it.
inline bool portIsFree(int port) {
    for (int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int fd = socket(AF_INET, type, 0);
        if (fd < 0) return false;
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        ::close(fd);
        if (!ok) return false;
    }
    return true;
}

// A port in 20000..32767 that is free now. The search starts at a place
// derived from the process id, so that tests running in parallel processes
// (ctest -j, two builds at once) spread out instead of racing for one port.
inline int freePort() {
    static std::atomic<int> next{0};
    constexpr int kLow = 20000, kSpan = 32767 - 20000;
    const int start = static_cast<int>((getpid() * 97) % kSpan);
    for (int i = 0; i < kSpan; ++i) {
        const int port = kLow + (start + next.fetch_add(1) * 7 + i) % kSpan;
        if (portIsFree(port)) return port;
    }
    ADD_FAILURE() << "no free port below 32768";
    return 0;
}

// A fresh folder below the system's temporary folder, removed at the end.
class TempDir {
public:
    TempDir() {
        std::string templ = (std::filesystem::temp_directory_path() / "orvatest-XXXXXX").string();
        if (mkdtemp(templ.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
        path_ = templ;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    // The folder as a prefix ending in "/", the form log paths take.
    std::string prefix() const { return path_.string() + "/"; }

private:
    std::filesystem::path path_;
};

// Everything written to standard output (or the log stream) between
// construction and text().
class CapturedStdout {
public:
    CapturedStdout() { testing::internal::CaptureStdout(); }
    std::string text() {
        std::cout.flush();
        return testing::internal::GetCapturedStdout();
    }
};

class CapturedStderr {
public:
    CapturedStderr() { testing::internal::CaptureStderr(); }
    std::string text() {
        std::clog.flush();
        std::cerr.flush();
        return testing::internal::GetCapturedStderr();
    }
};

}  // namespace orvtest
