// Runs the project's programs as a user would: a child process with its
// arguments, its output in files, its exit status. No GoogleTest here.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace orvtest {

inline std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// A child process whose standard output and error go to two files.
class Process {
public:
    Process(const std::vector<std::string>& argv, std::string outPath, std::string errPath)
        : out_(std::move(outPath)), err_(std::move(errPath)) {
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            const int out = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int in = ::open("/dev/null", O_RDONLY);
            if (out < 0 || err < 0 || in < 0) _exit(126);
            dup2(in, 0);
            dup2(out, 1);
            dup2(err, 2);
            // Started as from a shell: none of this process's sockets go along.
            close_range(3, ~0U, 0);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Process() {
        if (running()) {
            kill(pid_, SIGKILL);
            wait(5.0);
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    // Looks, without waiting, whether the child ended (and reaps it then).
    bool running() const {
        if (pid_ <= 0 || done_) return false;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            done_ = true;
            code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return !done_;
    }
    void signal(int sig) const {
        if (pid_ > 0 && !done_) kill(pid_, sig);
    }

    // The exit code; -1 when it ran past the time-out (it is killed then),
    // 128 + the signal when a signal ended it.
    int wait(double timeoutS) {
        // A fork that failed left no child: waitpid(-1) would reap another one.
        if (pid_ <= 0) return code_;
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutS);
        while (!done_) {
            int status = 0;
            const pid_t r = waitpid(pid_, &status, WNOHANG);
            if (r == pid_) {
                done_ = true;
                code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (r < 0) {
                done_ = true;
                break;
            }
            if (std::chrono::steady_clock::now() >= end) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                done_ = true;
                code_ = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return code_;
    }

    std::string out() const { return readText(out_); }
    std::string err() const { return readText(err_); }

private:
    std::string out_, err_;
    pid_t pid_ = -1;
    mutable bool done_ = false;
    mutable int code_ = -1;
};

// Looks at `condition` every 10 ms until it holds or `timeoutS` passed;
// true when it held. The time-out only ends a test that would hang.
template <typename Condition>
bool waitFor(Condition condition, double timeoutS = 20.0) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutS);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

struct Ran {
    int code = -1;
    std::string out, err;
};

// Runs a program to its end; `dir` holds its output files.
inline Ran run(const std::vector<std::string>& argv, const std::string& dir, double timeoutS = 30.0) {
    static int n = 0;
    const std::string base = dir + "/run" + std::to_string(n++);
    Process p(argv, base + ".out", base + ".err");
    Ran r;
    r.code = p.wait(timeoutS);
    r.out = p.out();
    r.err = p.err();
    return r;
}

}  // namespace orvtest
