// A link with delay, jitter, loss and reordering, where the kernel has no
// netem: a relay between two hosts that forwards UDP datagrams and TCP
// streams after a random delay, drops a share of the datagrams and holds a
// share back behind their successors. Run it on a host between the two
// (its thread opens its sockets in the namespace it starts in).
//
// TCP loses nothing here, as TCP itself retransmits: its chunks are only
// delayed, in order. Every datagram is counted per route: forwarded, lost
// on purpose, or failed to send (the next link down).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace orvtest {

struct Impairment {
    double delayMs = 2.0;
    double jitterMs = 0.5;  // uniform, +-
    double loss = 0.01;     // share of datagrams dropped
    double reorder = 0.01;  // share held back by a further holdMs
    double holdMs = 3.0;
    uint32_t seed = 1;
};

class ImpairedRelay {
public:
    struct RouteCounts {
        uint64_t received = 0, forwarded = 0, lost = 0, held = 0, sendFailed = 0;
    };

    explicit ImpairedRelay(Impairment imp) : imp_(imp), rng_(imp.seed) {}
    ~ImpairedRelay() { stop(); }
    ImpairedRelay(const ImpairedRelay&) = delete;
    ImpairedRelay& operator=(const ImpairedRelay&) = delete;

    // Datagrams to listenAddr:port go on to toAddr:toPort, sent from fromAddr.
    // Returns the route's index for counts(); -1 with error() set.
    int addUdp(const std::string& listenAddr, int port, const std::string& fromAddr,
               const std::string& toAddr, int toPort) {
        Udp u;
        u.in = bound(SOCK_DGRAM, listenAddr, port);
        u.out = bound(SOCK_DGRAM, fromAddr, 0);
        u.to = address(toAddr, toPort);
        if (u.in < 0 || u.out < 0) return -1;
        udp_.push_back(u);
        return static_cast<int>(udp_.size()) - 1;
    }
    // Connections to listenAddr:port are joined to toAddr:toPort.
    bool addTcp(const std::string& listenAddr, int port, const std::string& toAddr, int toPort) {
        TcpListen l;
        l.fd = bound(SOCK_STREAM, listenAddr, port);
        l.to = address(toAddr, toPort);
        if (l.fd < 0 || listen(l.fd, 8) != 0) return false;
        listens_.push_back(l);
        return true;
    }

    // Starts the relay's thread in the calling thread's namespace.
    void start() {
        running_ = true;
        thread_ = std::thread([this] { loop(); });
    }
    void stop() {
        running_ = false;
        if (thread_.joinable()) thread_.join();
        for (Udp& u : udp_) close(u.in), close(u.out);
        for (TcpListen& l : listens_) close(l.fd);
        for (Pipe& p : pipes_) close(p.a), close(p.b);
        udp_.clear(), listens_.clear(), pipes_.clear();
    }
    RouteCounts counts(int route) const {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = counts_.find(static_cast<size_t>(route));
        return it == counts_.end() ? RouteCounts{} : it->second;
    }
    // The first kHead bytes of each datagram of a route that was lost or
    // failed to send, or that was forwarded: enough for a test to name each
    // by its sequence number.
    static constexpr size_t kHead = 16;
    using Heads = std::vector<std::vector<unsigned char>>;
    Heads dropped(int route) const { return heads(dropped_, route); }
    Heads forwarded(int route) const { return heads(forwarded_, route); }
    // While down, datagrams due to go out are dropped (counted as failed
    // sends) and TCP chunks wait: a cable pulled, with TCP retransmitting.
    void setDown(bool down) { down_ = down; }
    // Nothing is waiting to go out.
    bool idle() const { return pending_.load() == 0; }
    const std::string& error() const { return error_; }

private:
    using Clock = std::chrono::steady_clock;
    Heads heads(const std::map<size_t, Heads>& from, int route) const {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = from.find(static_cast<size_t>(route));
        return it == from.end() ? Heads{} : it->second;
    }
    struct Udp {
        int in = -1, out = -1;
        sockaddr_in to{};
    };
    struct TcpListen {
        int fd = -1;
        sockaddr_in to{};
    };
    struct Pipe {
        int a = -1, b = -1;  // accepted side, connected side
        Clock::time_point lastDue[2];
        bool closed[2];
    };
    struct Item {
        Clock::time_point due;
        uint64_t order;
        int route;  // UDP route, or -1 - (2 * pipe + direction) for TCP
        std::vector<unsigned char> bytes;
        bool operator>(const Item& o) const { return due != o.due ? due > o.due : order > o.order; }
    };

    static sockaddr_in address(const std::string& host, int port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, host.c_str(), &a.sin_addr);
        return a;
    }
    int bound(int type, const std::string& host, int port) {
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        const int on = 1, size = 4 << 20;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        const sockaddr_in a = address(host, port);
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
            error_ = "relay cannot bind " + host + ":" + std::to_string(port) + ": " + std::strerror(errno);
            if (fd >= 0) close(fd);
            return -1;
        }
        return fd;
    }

    Clock::time_point dueTime() {
        std::uniform_real_distribution<double> jitter(-imp_.jitterMs, imp_.jitterMs);
        const double ms = imp_.delayMs + jitter(rng_);
        return Clock::now() + std::chrono::microseconds(static_cast<int64_t>(ms * 1000.0));
    }

    void loop() {
        std::vector<pollfd> fds;
        unsigned char buf[65536];
        std::uniform_real_distribution<double> chance(0.0, 1.0);
        while (running_) {
            fds.clear();
            const size_t polledPipes = pipes_.size();  // accepted below: polled from the next round
            for (const Udp& u : udp_) fds.push_back({u.in, POLLIN, 0});
            for (const TcpListen& l : listens_) fds.push_back({l.fd, POLLIN, 0});
            for (const Pipe& p : pipes_)
                fds.push_back({p.closed[0] ? -1 : p.a, POLLIN, 0}),
                    fds.push_back({p.closed[1] ? -1 : p.b, POLLIN, 0});
            int waitMs = 5;
            if (!queue_.empty()) {
                const auto until =
                    std::chrono::duration_cast<std::chrono::milliseconds>(queue_.top().due - Clock::now());
                waitMs = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(5, until.count())));
            }
            poll(fds.data(), fds.size(), waitMs);
            size_t k = 0;
            for (size_t i = 0; i < udp_.size(); ++i, ++k) {
                if (!(fds[k].revents & POLLIN)) continue;
                for (;;) {
                    const ssize_t n = recv(udp_[i].in, buf, sizeof buf, MSG_DONTWAIT);
                    if (n < 0) break;
                    std::lock_guard<std::mutex> lock(mutex_);
                    RouteCounts& c = counts_[i];
                    ++c.received;
                    if (chance(rng_) < imp_.loss) {
                        ++c.lost;
                        dropped_[i].emplace_back(buf, buf + std::min<ssize_t>(n, kHead));
                        continue;
                    }
                    Clock::time_point due = dueTime();
                    if (chance(rng_) < imp_.reorder) {
                        ++c.held;
                        due += std::chrono::microseconds(static_cast<int64_t>(imp_.holdMs * 1000.0));
                    }
                    push({due, order_++, static_cast<int>(i), std::vector<unsigned char>(buf, buf + n)});
                }
            }
            for (size_t i = 0; i < listens_.size(); ++i, ++k) {
                if (!(fds[k].revents & POLLIN)) continue;
                const int a = accept4(listens_[i].fd, nullptr, nullptr, SOCK_CLOEXEC);
                if (a < 0) continue;
                const int b = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                if (connect(b, reinterpret_cast<const sockaddr*>(&listens_[i].to), sizeof listens_[i].to) !=
                    0) {
                    close(a), close(b);
                    continue;
                }
                const int on = 1;
                setsockopt(a, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                setsockopt(b, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                pipes_.push_back({a, b, {}, {false, false}});
            }
            for (size_t i = 0; i < polledPipes; ++i) {
                for (int dir = 0; dir < 2; ++dir, ++k) {
                    if (!(fds[k].revents & (POLLIN | POLLHUP))) continue;
                    Pipe& p = pipes_[i];
                    const ssize_t n = recv(dir == 0 ? p.a : p.b, buf, sizeof buf, MSG_DONTWAIT);
                    if (n == 0) {  // the end closed its side: so does the relay, on the other
                        p.closed[dir] = true;
                        shutdown(dir == 0 ? p.b : p.a, SHUT_WR);
                    }
                    if (n <= 0) continue;
                    // In order: never before the previous chunk of the same direction.
                    Clock::time_point due = std::max(dueTime(), p.lastDue[dir]);
                    p.lastDue[dir] = due;
                    push({due, order_++, -1 - static_cast<int>(2 * i + dir),
                          std::vector<unsigned char>(buf, buf + n)});
                }
            }
            sendDue();
        }
    }

    void push(Item item) {
        queue_.push(std::move(item));
        ++pending_;
    }

    void sendDue() {
        const auto now = Clock::now();
        while (!queue_.empty() && queue_.top().due <= now) {
            const Item& it = queue_.top();
            if (down_ && it.route < 0) {
                Item later = it;
                later.due = now + std::chrono::milliseconds(1);
                queue_.pop();
                queue_.push(std::move(later));
                continue;
            }
            if (it.route >= 0) {
                const Udp& u = udp_[static_cast<size_t>(it.route)];
                const ssize_t n = down_ ? -1
                                        : sendto(u.out, it.bytes.data(), it.bytes.size(), 0,
                                                 reinterpret_cast<const sockaddr*>(&u.to), sizeof u.to);
                std::lock_guard<std::mutex> lock(mutex_);
                const size_t r = static_cast<size_t>(it.route);
                const bool sent = n == static_cast<ssize_t>(it.bytes.size());
                ++(sent ? counts_[r].forwarded : counts_[r].sendFailed);
                (sent ? forwarded_ : dropped_)[r].emplace_back(
                    it.bytes.begin(), it.bytes.begin() + std::min(it.bytes.size(), kHead));
            } else {
                const int idx = -1 - it.route;
                const Pipe& p = pipes_[static_cast<size_t>(idx / 2)];
                const int to = idx % 2 == 0 ? p.b : p.a;
                size_t off = 0;
                while (off < it.bytes.size()) {
                    const ssize_t n = send(to, it.bytes.data() + off, it.bytes.size() - off, MSG_NOSIGNAL);
                    if (n <= 0) break;
                    off += static_cast<size_t>(n);
                }
            }
            queue_.pop();
            --pending_;
        }
    }

    Impairment imp_;
    std::mt19937 rng_;
    std::vector<Udp> udp_;
    std::vector<TcpListen> listens_;
    std::vector<Pipe> pipes_;
    std::priority_queue<Item, std::vector<Item>, std::greater<Item>> queue_;
    uint64_t order_ = 0;
    std::atomic<int64_t> pending_{0};
    mutable std::mutex mutex_;
    std::map<size_t, RouteCounts> counts_;
    std::map<size_t, Heads> dropped_, forwarded_;
    std::atomic<bool> running_{false};
    std::atomic<bool> down_{false};
    std::thread thread_;
    std::string error_;
};

}  // namespace orvtest
