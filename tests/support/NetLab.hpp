// Hosts of a test as network namespaces joined by veth pairs, with
// addresses of the test's own choosing that exist only inside them. Needs
// root; NetLab::unavailable() says why not otherwise, for GTEST_SKIP.
//
// Namespaces are named "orvt<pid>-<n>-<host>": unique to a run, removed by
// the destructor, and, should a run have died without it, removed by the
// next NetLab once no process of that pid is left.
//
// A thread takes part as a host by entering its namespace (EnterHost): the
// sockets it opens there stay there, and threads it starts inherit it.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace orvtest {

// Runs a command (no shell), its output and error in `output`; its exit code.
inline int runCommand(const std::vector<std::string>& argv, std::string* output = nullptr) {
    int pipeFd[2];
    if (pipe(pipeFd) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFd[1], 1);
        dup2(pipeFd[1], 2);
        close(pipeFd[0]);
        close(pipeFd[1]);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(pipeFd[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(pipeFd[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(pipeFd[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    if (output != nullptr) *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class NetLab {
public:
    static constexpr const char* kPrefix = "orvt";

    // "" when namespaces can be made here; otherwise why not.
    static std::string unavailable() {
        if (geteuid() != 0) return "network namespaces need root (run the tests as root)";
        std::string out;
        if (runCommand({"ip", "netns", "list"}, &out) != 0)
            return "'ip netns' does not work here (install iproute2): " + out;
        return "";
    }

    NetLab() {
        static int runs = 0;
        tag_ = std::string(kPrefix) + std::to_string(getpid()) + "-" + std::to_string(runs++) + "-";
        removeStale();
    }
    ~NetLab() {
        for (auto it = hosts_.rbegin(); it != hosts_.rend(); ++it) {
            if (it->fd >= 0) close(it->fd);
            runCommand({"ip", "netns", "delete", it->ns});
        }
    }
    NetLab(const NetLab&) = delete;
    NetLab& operator=(const NetLab&) = delete;

    // A new namespace with its loopback up; false with error() set.
    bool addHost(const std::string& host) {
        const std::string ns = tag_ + host;
        if (!ok({"ip", "netns", "add", ns})) return false;
        hosts_.push_back({host, ns, -1});
        if (!ok({"ip", "-n", ns, "link", "set", "lo", "up"})) return false;
        // Hosts do not route: a path between two of them goes through
        // whatever the test puts in between.
        if (!ok({"ip", "netns", "exec", ns, "sysctl", "-q", "-w", "net.ipv4.ip_forward=0"})) return false;
        hosts_.back().fd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
        if (hosts_.back().fd < 0) {
            error_ = "cannot open namespace " + ns + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }

    // A veth pair between two hosts, each end with its address ("10.250.1.1/24").
    bool link(const std::string& hostA, const std::string& addrA, const std::string& hostB,
              const std::string& addrB) {
        const std::string a = ns(hostA), b = ns(hostB);
        const std::string ifA = "v-" + hostB.substr(0, 12), ifB = "v-" + hostA.substr(0, 12);
        return ok({"ip", "link", "add", ifA, "netns", a, "type", "veth", "peer", "name", ifB, "netns", b}) &&
               ok({"ip", "-n", a, "addr", "add", addrA, "dev", ifA}) &&
               ok({"ip", "-n", b, "addr", "add", addrB, "dev", ifB}) &&
               ok({"ip", "-n", a, "link", "set", ifA, "up"}) && ok({"ip", "-n", b, "link", "set", ifB, "up"});
    }

    // Takes a link between two hosts down or up again (both ends). hostA's
    // end goes down first and comes up last: what hostA sends meanwhile
    // fails there, where it is counted, and never vanishes on a link whose
    // far end is still down (nor waits for a neighbour lookup to time out).
    bool setLink(const std::string& hostA, const std::string& hostB, bool up) {
        const char* state = up ? "up" : "down";
        const std::vector<std::string> a = {"ip", "-n", ns(hostA), "link", "set", "v-" + hostB.substr(0, 12),
                                            state};
        const std::vector<std::string> b = {"ip", "-n", ns(hostB), "link", "set", "v-" + hostA.substr(0, 12),
                                            state};
        return up ? ok(b) && ok(a) : ok(a) && ok(b);
    }

    // Both ends of the link report carrier: the kernel passes frames again
    // (it may take up to a second after the link came up).
    bool linkUp(const std::string& hostA, const std::string& hostB) {
        std::string a, b;
        runCommand({"ip", "-n", ns(hostA), "-o", "link", "show", "dev", "v-" + hostB.substr(0, 12)}, &a);
        runCommand({"ip", "-n", ns(hostB), "-o", "link", "show", "dev", "v-" + hostA.substr(0, 12)}, &b);
        return a.find("state UP") != std::string::npos && b.find("state UP") != std::string::npos;
    }

    // The namespace's name, for "ip netns exec NAME program ...".
    std::string ns(const std::string& host) const {
        for (const Host& h : hosts_)
            if (h.host == host) return h.ns;
        return "";
    }
    int fd(const std::string& host) const {
        for (const Host& h : hosts_)
            if (h.host == host) return h.fd;
        return -1;
    }
    const std::string& error() const { return error_; }

    // Names of this process's namespaces that exist now (for the tests of the lab).
    static std::vector<std::string> existing(const std::string& prefix) {
        std::vector<std::string> names;
        if (DIR* d = opendir("/var/run/netns")) {
            while (dirent* e = readdir(d))
                if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0)
                    names.emplace_back(e->d_name);
            closedir(d);
        }
        return names;
    }
    const std::string& tag() const { return tag_; }

private:
    struct Host {
        std::string host, ns;
        int fd;
    };

    bool ok(const std::vector<std::string>& argv) {
        std::string out;
        if (runCommand(argv, &out) == 0) return true;
        error_.clear();
        for (const std::string& a : argv) error_ += (error_.empty() ? "" : " ") + a;
        error_ += ": " + out;
        return false;
    }

    // Namespaces of runs whose process is gone.
    static void removeStale() {
        for (const std::string& name : existing(kPrefix)) {
            const long pid = std::strtol(name.c_str() + std::strlen(kPrefix), nullptr, 10);
            if (pid <= 0 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH))
                runCommand({"ip", "netns", "delete", name});
        }
    }

    std::string tag_;
    std::vector<Host> hosts_;
    std::string error_;
};

// The calling thread inside a host's namespace until the end of the scope.
class EnterHost {
public:
    EnterHost(const NetLab& lab, const std::string& host) {
        own_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        ok_ = own_ >= 0 && setns(lab.fd(host), CLONE_NEWNET) == 0;
    }
    ~EnterHost() {
        if (own_ >= 0) {
            if (ok_) setns(own_, CLONE_NEWNET);
            close(own_);
        }
    }
    EnterHost(const EnterHost&) = delete;
    EnterHost& operator=(const EnterHost&) = delete;
    bool ok() const { return ok_; }

private:
    int own_ = -1;
    bool ok_ = false;
};

}  // namespace orvtest
