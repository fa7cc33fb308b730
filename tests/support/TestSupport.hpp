// Helpers shared by the tests: free ports below 32768, temporary folders,
// and capture of what the library writes to the standard streams.
#pragma once

#include <unistd.h>

#include <gtest/gtest.h>

#include "orvaccess/OrvAccess.hpp"
#include "support/Loopback.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

namespace orvtest {

// A free port below 32768 for this test.
inline int freePort() {
    const int port = findFreePort();
    if (port == 0) ADD_FAILURE() << "no free port below 32768";
    return port;
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

    // Writes `text` to a file in the folder and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        const std::string file = (path_ / name).string();
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }

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

// Every record a queue getter hands out, oldest first.
template <typename T>
std::vector<T> drain(OrvAccess& a, bool (OrvAccess::*get)(bool*, T*)) {
    std::vector<T> out;
    T r{};
    for (bool valid = true; (a.*get)(&valid, &r) && valid;) out.push_back(r);
    return out;
}

// A fixture with an access object that receives on five fresh ports (no
// command channel, no uplink, no shared memory) and a sender aimed at them.
class ReceiverTest : public testing::Test {
protected:
    using Codes = std::vector<std::pair<unsigned short, unsigned int>>;

    // Opens (or reopens) with the receiver configuration plus `extra` keys.
    void openReceiver(const std::string& extra = "") {
        for (int& p : port)
            if (p == 0) p = freePort();
        access.setIniPath(dir.write("orvaccess.ini", receiverIni(port, extra)));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    void send(int which, const Bytes& b) { ASSERT_TRUE(sender.send(port[which], b)); }
    // The received-packets word of the status (servicing the ports first).
    uint32_t received() {
        s_OrvAccessStatus st{};
        EXPECT_TRUE(access.getStatus(&st)) << access.getLastError();
        return st.received;
    }
    // Every queued error code with its value, oldest first.
    Codes errorCodes() {
        Codes out;
        s_OrvAccessErrorCode e{};
        while (access.getErrorCode(&e) != 0) out.emplace_back(e.code, e.value);
        return out;
    }

    TempDir dir;
    int port[5] = {};
    UdpSender sender;
    OrvAccess access;
};

}  // namespace orvtest
