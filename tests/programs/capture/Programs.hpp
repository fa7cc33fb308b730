// Runs the tools as a user would: the built orvrec, orvplay and tshark as
// child processes, their output in files.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace orvtest {

class Program {
public:
    // Starts argv[0] (a path, or a name looked up in PATH) with stdout and
    // stderr written to the given files.
    Program(const std::vector<std::string>& argv, const std::string& out, const std::string& err) {
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Program() {
        if (pid_ > 0 && !done_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    bool started() const { return pid_ > 0; }
    // True once it has ended; its exit code is then in exitCode().
    bool finished() {
        if (done_ || pid_ <= 0) return true;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
        done_ = true;
        code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
    }
    // Waits up to `seconds`; -1 (and the program killed) when it did not end.
    int wait(double seconds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (!finished()) {
            if (std::chrono::steady_clock::now() > end) return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return code_;
    }
    int exitCode() const { return code_; }

private:
    pid_t pid_ = -1;
    bool done_ = false;
    int code_ = -1;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// A program on PATH, or empty.
inline std::string onPath(const std::string& name) {
    std::istringstream dirs(getenv("PATH") != nullptr ? getenv("PATH") : "");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string path = dir + "/" + name;
        if (access(path.c_str(), X_OK) == 0) return path;
    }
    return "";
}

// Runs tshark with the dissector over a file: one line per frame with the
// fields asked for, tab-separated, repeated values joined by commas.
// `options` are further arguments (preferences). Empty when tshark fails;
// its complaints (a dissector that does not load, say) go to `errors`.
inline std::vector<std::vector<std::string>> tsharkFields(const std::string& tshark, const std::string& dissector,
                                                          const std::string& file,
                                                          const std::vector<std::string>& options,
                                                          const std::vector<std::string>& fields,
                                                          const std::string& scratch, std::string* errors) {
    std::vector<std::string> argv = {tshark, "-n", "-X", "lua_script:" + dissector, "-r", file, "-T", "fields",
                                     "-E", "occurrence=a", "-E", "aggregator=,"};
    argv.insert(argv.end(), options.begin(), options.end());
    for (const std::string& f : fields) {
        argv.push_back("-e");
        argv.push_back(f);
    }
    Program p(argv, scratch + ".out", scratch + ".err");
    const int code = p.wait(60);
    *errors = readFile(scratch + ".err");
    std::vector<std::vector<std::string>> rows;
    if (code != 0) return rows;
    std::istringstream lines(readFile(scratch + ".out"));
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> row;
        std::istringstream cells(line);
        std::string cell;
        while (std::getline(cells, cell, '\t')) row.push_back(cell);
        row.resize(fields.size());
        rows.push_back(row);
    }
    return rows;
}

}  // namespace orvtest
