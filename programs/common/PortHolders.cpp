#include "PortHolders.hpp"

#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>

namespace orvcheck {

namespace {

constexpr int kTcpListen = 0x0A;

// The kernel prints addresses as 32-bit words in host byte order.
std::string addressText(const std::string& hex) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (hex.size() == 8) {
        in_addr a{};
        a.s_addr = static_cast<uint32_t>(std::stoul(hex, nullptr, 16));
        inet_ntop(AF_INET, &a, text, sizeof text);
    } else if (hex.size() == 32) {
        in6_addr a{};
        for (int w = 0; w < 4; ++w) {
            const auto word = static_cast<uint32_t>(std::stoul(hex.substr(8 * w, 8), nullptr, 16));
            std::memcpy(&a.s6_addr[4 * w], &word, 4);
        }
        inet_ntop(AF_INET6, &a, text, sizeof text);
    }
    return text;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool isNumber(const char* s) {
    if (*s == '\0') return false;
    for (; *s; ++s)
        if (*s < '0' || *s > '9') return false;
    return true;
}

}  // namespace

const char* protoName(Proto p) { return p == Proto::Udp ? "UDP" : "TCP"; }

std::vector<SocketEntry> parseProcNet(const std::string& text, Proto proto) {
    std::vector<SocketEntry> out;
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);  // the column titles
    while (std::getline(lines, line)) {
        std::istringstream f(line);
        std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
        if (!(f >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode))
            continue;
        const size_t colon = local.find(':');
        if (colon == std::string::npos) continue;
        try {
            SocketEntry e;
            e.proto = proto;
            e.local = addressText(local.substr(0, colon));
            e.localPort = static_cast<int>(std::stoul(local.substr(colon + 1), nullptr, 16));
            e.state = static_cast<int>(std::stoul(state, nullptr, 16));
            e.uid = static_cast<unsigned int>(std::stoul(uid));
            e.inode = std::stoul(inode);
            out.push_back(e);
        } catch (const std::exception&) {
            // A row that is not numbers where numbers belong: not a socket.
        }
    }
    return out;
}

std::string Holder::owner() const {
    if (pid != 0) return process + " (pid " + std::to_string(pid) + ")";
    return "a process of uid " + std::to_string(socket.uid) + " (run as root to name it)";
}

SocketTable SocketTable::read() {
    std::vector<SocketEntry> all;
    for (const auto& [file, proto] : {std::pair<const char*, Proto>{"/proc/net/udp", Proto::Udp},
                                      {"/proc/net/udp6", Proto::Udp},
                                      {"/proc/net/tcp", Proto::Tcp},
                                      {"/proc/net/tcp6", Proto::Tcp}}) {
        std::vector<SocketEntry> part = parseProcNet(readFile(file), proto);
        all.insert(all.end(), part.begin(), part.end());
    }
    return SocketTable(std::move(all));
}

std::vector<Holder> SocketTable::holders(Proto proto, int port, int excludePid) const {
    std::vector<Holder> out;
    for (const SocketEntry& e : entries_) {
        if (e.proto != proto || e.localPort != port) continue;
        if (proto == Proto::Tcp && e.state != kTcpListen) continue;
        // An inode shows in udp and udp6 alike only for one socket; keep one.
        bool seen = false;
        for (const Holder& h : out) seen = seen || h.socket.inode == e.inode;
        if (!seen && e.inode != 0) out.push_back({e, 0, ""});
    }
    findOwners(out);
    if (excludePid != 0) {
        std::vector<Holder> others;
        for (Holder& h : out)
            if (h.pid != excludePid) others.push_back(std::move(h));
        out = std::move(others);
    }
    return out;
}

void findOwners(std::vector<Holder>& holders) {
    size_t unresolved = holders.size();
    if (unresolved == 0) return;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return;
    // Our own descriptors first: the common case of the monitor's own ports.
    std::vector<std::string> pids = {std::to_string(getpid())};
    while (const dirent* d = readdir(proc))
        if (isNumber(d->d_name)) pids.emplace_back(d->d_name);
    closedir(proc);

    for (const std::string& pid : pids) {
        const std::string fdDir = "/proc/" + pid + "/fd";
        DIR* fds = opendir(fdDir.c_str());
        if (fds == nullptr) continue;  // another user's process, or gone
        while (const dirent* d = readdir(fds)) {
            char target[64];
            const std::string link = fdDir + "/" + d->d_name;
            const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
            if (n <= 0) continue;
            target[n] = '\0';
            unsigned long inode = 0;
            if (std::sscanf(target, "socket:[%lu]", &inode) != 1) continue;
            for (Holder& h : holders) {
                if (h.pid != 0 || h.socket.inode != inode) continue;
                h.pid = std::stoi(pid);
                h.process = readFile("/proc/" + pid + "/comm");
                while (!h.process.empty() && h.process.back() == '\n') h.process.pop_back();
                --unresolved;
            }
        }
        closedir(fds);
        if (unresolved == 0) return;
    }
}

}  // namespace orvcheck
