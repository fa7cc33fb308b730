// Which sockets on this machine hold a port, and which process owns them:
// read from /proc/net/{udp,udp6,tcp,tcp6} and the processes' descriptor
// tables. The library's receivers share their ports (SO_REUSEPORT), so a
// second receiver binds without complaint and quietly takes the datagrams;
// this is how the tools see it.
#pragma once

#include <string>
#include <vector>

namespace orvcheck {

enum class Proto { Udp, Tcp };
const char* protoName(Proto p);  // "UDP", "TCP"

struct SocketEntry {
    Proto proto = Proto::Udp;
    std::string local;  // local address as text, e.g. "0.0.0.0" or "::"
    int localPort = 0;
    int state = 0;  // the kernel's state code; 0x0A is a TCP listener
    unsigned long inode = 0;
    unsigned int uid = 0;
};

// The rows of one /proc/net table; lines that do not parse are skipped.
std::vector<SocketEntry> parseProcNet(const std::string& text, Proto proto);

struct Holder {
    SocketEntry socket;
    int pid = 0;          // 0: owner not found (another user's process)
    std::string process;  // its command name, when found
    std::string owner() const;  // "orvmon (pid 4242)" or "a process of uid 1000 (run as root to name it)"
};

class SocketTable {
public:
    // A snapshot of every UDP and TCP socket, IPv4 and IPv6.
    static SocketTable read();
    explicit SocketTable(std::vector<SocketEntry> entries) : entries_(std::move(entries)) {}

    // UDP: every socket bound to the port. TCP: the listeners on it. Owners
    // are looked up; sockets of the process excludePid are left out.
    std::vector<Holder> holders(Proto proto, int port, int excludePid = 0) const;

private:
    std::vector<SocketEntry> entries_;
};

// The process that owns each socket inode, searched in /proc/<pid>/fd.
void findOwners(std::vector<Holder>& holders);

}  // namespace orvcheck
