// The check that orvctl runs on demand and orvmon runs at start: the
// configuration file as the library reads it, the ports it will use and who
// else holds them, and whether orvRx's address resolves and its command
// port answers. Nothing here opens the library.
#pragma once

#include <string>
#include <vector>

#include "IniCheck.hpp"
#include "PortHolders.hpp"

namespace orvcheck {

struct PortUse {
    enum class Role { Receive, Uplink, Command };
    std::string key;  // the configuration key that names the port
    int port = 0;
    Proto proto = Proto::Udp;
    Role role = Role::Receive;
    std::vector<Holder> holders;  // sockets of other processes on it
};

struct OrvRxProbe {
    std::string host;  // tcpOrvRxAddr
    int port = 0;      // the port the library connects to for tcpOrvRxPort
    bool enabled = false;
    bool resolved = false;
    std::string address;  // dotted decimal, when resolved
    bool local = false;   // an address of this machine
    bool probed = false;
    bool answers = false;
    std::string how;  // "listener" (seen in /proc/net/tcp) or "connect"
    std::string error;
    // orvctl check also reads a register through the library: a port that
    // accepts connections may still never answer, or answer garbage.
    bool asked = false;
    bool replied = false;
    std::string replyError;  // the library's, when it did not reply properly
};

struct CheckOptions {
    std::string iniPath = "orvaccess.ini";
    // Look at orvRx's address and command port. A remote orvRx is connected
    // to once (and left at once); a local one is only looked up in
    // /proc/net/tcp, so that its current client keeps its connection.
    bool probe = true;
    int connectTimeoutMs = 1000;
    // Sockets of this process are not "another socket" (the monitor's own).
    int ownPid = 0;
};

struct CheckReport {
    IniReport ini;
    std::vector<PortUse> ports;
    OrvRxProbe orvRx;
    std::vector<Finding> findings;  // the configuration's, then the machine's

    size_t count(Severity s) const;
};

CheckReport runCheck(const CheckOptions& options);

// Only the receive ports held by other processes: the warning the monitor
// repeats while it runs, because a second receiver may start later.
std::vector<Finding> heldPortFindings(const IniReport& ini, int ownPid);

// The programs of this machine other than ownPid that receive what orvRx
// streams (meta, images, orvCore): "orvmon (pid 4242), orvbridge (pid 4243)",
// or "" when none. They lose their streams when a command switches it off.
std::string streamReceivers(const IniReport& ini, int ownPid);

}  // namespace orvcheck
