#include "os/OrvosiTcp.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "os/OrvosiSocket.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

// Dotted-decimal first; anything else is looked up as an IPv4 host name.
bool resolveHost(const char* host, in_addr* address) {
    if (host == nullptr) return false;
    address->s_addr = inet_addr(host);
    if (address->s_addr != INADDR_NONE) return true;

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* answer = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &answer) != 0 || answer == nullptr) return false;
    bool found = false;
    if (answer->ai_family == AF_INET && answer->ai_addr != nullptr &&
        answer->ai_addrlen >= sizeof(sockaddr_in)) {
        sockaddr_in first{};
        std::memcpy(&first, answer->ai_addr, sizeof first);
        *address = first.sin_addr;
        found = true;
    }
    freeaddrinfo(answer);
    return found;
}

}  // namespace

OrvosiTcpClient::OrvosiTcpClient() { OrvosiUtil::socketStartup(); }

// The owner closes the socket; the destructor leaves it alone.
OrvosiTcpClient::~OrvosiTcpClient() { OrvosiUtil::socketCleanup(); }

bool OrvosiTcpClient::open(const char* host, int port, int timeoutUs) {
    if (fd_ >= 0) close();
    timeout_ = timeval{};
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return OrvosiUtil::failWithSystemText(lastError_, "Error creating socket...");

    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    if (!resolveHost(host, &server.sin_addr)) {
        lastError_ = "No such host";
        return false;
    }

    const int on = 1;
    if (setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_REUSEADDR...");
    // Blocking connect: the server is on this host or the local network, and
    // a refusal comes back at once.
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to connect...");

    if (timeoutUs > 0) {
        timeout_.tv_sec = timeoutUs / 1000000;
        timeout_.tv_usec = timeoutUs % 1000000;
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout_, sizeof timeout_) != 0)
            return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_RCVTIMEO...");
    } else {
        int nonBlocking = 1;
        if (ioctl(fd_, FIONBIO, &nonBlocking) != 0)
            return OrvosiUtil::failWithSystemText(lastError_, "Failed to set FIONBIO...");
    }

    // Command frames are a few bytes each and must leave at once.
    if (setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to disable Nagle buffering...");
    return true;
}

bool OrvosiTcpClient::read(char* buffer, size_t capacity, int* received) {
    const size_t limit = capacity > static_cast<size_t>(INT_MAX) ? INT_MAX : capacity;
    const ssize_t n = recv(fd_, buffer, limit, 0);
    if (n >= 0) {
        *received = static_cast<int>(n);
        return true;
    }
    *received = 0;
    // Nothing yet on a non-blocking socket, or the receive time-out ran out.
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    return OrvosiUtil::failWithSystemText(lastError_, "Error reading TCP port...");
}

bool OrvosiTcpClient::write(const char* data, size_t length) {
    // MSG_NOSIGNAL: a peer that has gone away is an error to report, not a
    // SIGPIPE that ends the host application.
    if (send(fd_, data, length, MSG_NOSIGNAL) >= 0) return true;
    return OrvosiUtil::failWithSystemText(lastError_, "Error writing to socket...");
}

bool OrvosiTcpClient::flush() {
    return orvosiDrainSocket(fd_, lastError_,
                             [this](char* buf, size_t cap, int* n) { return read(buf, cap, n); });
}

int OrvosiTcpClient::close() { return orvosiCloseSocket(fd_); }
