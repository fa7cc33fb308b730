#include "os/OrvosiUdp.hpp"

#include <arpa/inet.h>
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

// Longest host or port text taken; longer text is refused, never truncated.
constexpr size_t kMaxPartLength = 99;
constexpr int kMaxPort = 32767;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

enum class AddressResult { ok, badHost, portNotNumeric, badPort };

// "host:port" into an IPv4 address. Host: "*" (broadcast or any),
// "localhost", or dotted-decimal; names are deliberately not looked up so that
// opening never waits on a resolver. Port: "*" or base-10 up to kMaxPort. The
// port ends at the first newline; a missing part counts as "*".
AddressResult formAddress(sockaddr_in& address, const char* text, bool broadcastForAny) {
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    address.sin_addr.s_addr = htonl(INADDR_ANY);

    const char* colon = std::strchr(text, ':');
    const size_t hostLength = colon != nullptr ? static_cast<size_t>(colon - text) : std::strlen(text);
    const char* port = colon != nullptr ? colon + 1 : "";
    const size_t portLength = std::strcspn(port, "\n");

    if (hostLength > kMaxPartLength) return AddressResult::badHost;
    char host[kMaxPartLength + 1];
    std::memcpy(host, text, hostLength);
    host[hostLength] = '\0';

    if (hostLength == 0 || std::strcmp(host, "*") == 0) {
        if (broadcastForAny) address.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    } else {
        const char* numeric = std::strcmp(host, "localhost") == 0 ? "127.0.0.1" : host;
        if (!isDigit(numeric[0])) return AddressResult::badHost;
        // inet_aton, unlike inet_addr, tells 255.255.255.255 from an error.
        if (inet_aton(numeric, &address.sin_addr) == 0) return AddressResult::badHost;
    }

    if (portLength == 0 || (portLength == 1 && port[0] == '*')) return AddressResult::ok;
    if (!isDigit(port[0])) return AddressResult::portNotNumeric;
    int value = 0;
    size_t i = 0;
    for (; i < portLength && isDigit(port[i]); ++i) {
        value = value * 10 + (port[i] - '0');
        if (value > kMaxPort) return AddressResult::badPort;  // also stops overflow
    }
    if (i != portLength) return AddressResult::badPort;
    address.sin_port = htons(static_cast<uint16_t>(value));
    return AddressResult::ok;
}

int clampToInt(size_t n) { return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n); }

}  // namespace

// ---- OrvosiUdpClient ---------------------------------------------------------

OrvosiUdpClient::OrvosiUdpClient() { OrvosiUtil::socketStartup(); }

// The owner closes the socket; the destructor leaves it alone.
OrvosiUdpClient::~OrvosiUdpClient() { OrvosiUtil::socketCleanup(); }

bool OrvosiUdpClient::open(const char* port, int receiveBufferSize, bool blocking) {
    if (fd_ >= 0) close();
    // Close-on-exec: a program the application starts must not hold, and so
    // share, the tracker's ports.
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return OrvosiUtil::failWithSystemText(lastError_, "Error creating socket...");

    const int on = 1;
    if (setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_REUSEADDR...");
    if (setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_REUSEPORT...");
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBufferSize, sizeof receiveBufferSize) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_RCVBUF...");
    if (!blocking) {
        int nonBlocking = 1;
        if (ioctl(fd_, FIONBIO, &nonBlocking) != 0)
            return OrvosiUtil::failWithSystemText(lastError_, "Failed to set FIONBIO...");
    }

    // The local address is "*:" + port: any interface, the given port.
    sockaddr_in local{};
    char text[2 + kMaxPartLength + 1] = "*:";
    const size_t portLength = port != nullptr ? strnlen(port, kMaxPartLength + 1) : 0;
    if (port == nullptr || portLength > kMaxPartLength) {
        lastError_ = "Failed to form broadcast address";
        return false;
    }
    std::memcpy(text + 2, port, portLength);
    text[2 + portLength] = '\0';
    if (formAddress(local, text, false) != AddressResult::ok) {
        lastError_ = "Failed to form broadcast address";
        return false;
    }

    if (bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to bind socket to address...");
    return true;
}

bool OrvosiUdpClient::read(char* buffer, size_t capacity, int* received, uint32_t* from) {
    // The sender's address costs the kernel a copy: asked for only when wanted.
    sockaddr_in sender{};
    socklen_t senderLength = sizeof sender;
    const ssize_t n = recvfrom(fd_, buffer, static_cast<size_t>(clampToInt(capacity)), 0,
                               from != nullptr ? reinterpret_cast<sockaddr*>(&sender) : nullptr,
                               from != nullptr ? &senderLength : nullptr);
    if (n >= 0) {
        *received = static_cast<int>(n);
        if (from != nullptr) *from = sender.sin_addr.s_addr;
        return true;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        *received = 0;
        return true;
    }
    *received = 0;
    return OrvosiUtil::failWithSystemText(lastError_, "Read failed...");
}

bool OrvosiUdpClient::readMany(unsigned char* base, size_t stride, size_t count, size_t* sizes,
                               size_t* received, uint32_t* from) {
    *received = 0;
    if (count > kMaxBatch) count = kMaxBatch;
    mmsghdr messages[kMaxBatch];
    iovec pieces[kMaxBatch];
    sockaddr_in senders[kMaxBatch];
    for (size_t i = 0; i < count; ++i) {
        pieces[i] = iovec{base + i * stride, stride};
        messages[i] = mmsghdr{};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        if (from != nullptr) {
            messages[i].msg_hdr.msg_name = &senders[i];
            messages[i].msg_hdr.msg_namelen = sizeof senders[i];
        }
    }
    const int n = recvmmsg(fd_, messages, static_cast<unsigned int>(count), MSG_DONTWAIT, nullptr);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
        return OrvosiUtil::failWithSystemText(lastError_, "Read failed...");
    }
    for (int i = 0; i < n; ++i) sizes[i] = messages[i].msg_len;
    if (from != nullptr)
        for (int i = 0; i < n; ++i) from[i] = senders[i].sin_addr.s_addr;
    *received = static_cast<size_t>(n);
    return true;
}

bool OrvosiUdpClient::readScattered(const iovec* pieces, size_t count, size_t* received, uint32_t* from) {
    msghdr message{};
    sockaddr_in sender{};
    message.msg_iov = const_cast<iovec*>(pieces);
    message.msg_iovlen = count;
    if (from != nullptr) {
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
    }
    const ssize_t n = recvmsg(fd_, &message, 0);
    *received = n > 0 ? static_cast<size_t>(n) : 0;
    if (from != nullptr) *from = sender.sin_addr.s_addr;
    if (n >= 0 || errno == EAGAIN || errno == EWOULDBLOCK) return true;
    return OrvosiUtil::failWithSystemText(lastError_, "Read failed...");
}

bool OrvosiUdpClient::flush() {
    return orvosiDrainSocket(fd_, lastError_,
                             [this](char* buf, size_t cap, int* n) { return read(buf, cap, n); });
}

int OrvosiUdpClient::close() { return orvosiCloseSocket(fd_); }

int OrvosiUdpClient::localPort() const {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    if (fd_ < 0 || getsockname(fd_, reinterpret_cast<sockaddr*>(&bound), &length) != 0) return 0;
    return ntohs(bound.sin_port);
}

// ---- OrvosiUdpServer ---------------------------------------------------------

OrvosiUdpServer::OrvosiUdpServer() { OrvosiUtil::socketStartup(); }

// The owner closes the socket; the destructor leaves it alone.
OrvosiUdpServer::~OrvosiUdpServer() { OrvosiUtil::socketCleanup(); }

int OrvosiUdpServer::mkaddr(void* address, int* addressLength, const char* text, const char* /*protocol*/,
                            bool broadcastForAny) {
    if (address == nullptr || addressLength == nullptr || text == nullptr ||
        *addressLength < static_cast<int>(sizeof(sockaddr_in)))
        return -1;
    sockaddr_in formed{};
    const AddressResult result = formAddress(formed, text, broadcastForAny);
    // The address is filled as far as it was formed, also on failure.
    std::memcpy(address, &formed, sizeof formed);
    switch (result) {
        case AddressResult::ok:
            *addressLength = sizeof(sockaddr_in);
            return 0;
        case AddressResult::portNotNumeric:
            lastError_ = "UDP port not '*' or numeric";
            return -1;
        case AddressResult::badHost:
            return -1;
        case AddressResult::badPort:
            return -2;
    }
    return -1;
}

bool OrvosiUdpServer::open(const char* destination) {
    if (fd_ >= 0) close();

    sockaddr_in local{};
    int localLength = sizeof local;
    if (mkaddr(&local, &localLength, "*:*", "udp", false) < 0) {
        lastError_ = "Error forming UDP server address";
        return false;
    }
    destinationLength_ = sizeof destination_;
    if (mkaddr(&destination_, &destinationLength_, destination, "udp", true) < 0) {
        lastError_ = "Error forming UDP server write address";
        return false;
    }

    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return OrvosiUtil::failWithSystemText(lastError_, "Error creating socket...");
    const int on = 1;
    if (setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_BROADCAST...");
    if (setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to set SO_REUSEADDR...");
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
        return OrvosiUtil::failWithSystemText(lastError_, "Failed to bind socket...");
    return true;
}

bool OrvosiUdpServer::write(const char* data, size_t length) {
    const ssize_t n = sendto(fd_, data, length, 0, reinterpret_cast<const sockaddr*>(&destination_),
                             static_cast<socklen_t>(destinationLength_));
    if (n >= 0) return true;
    return OrvosiUtil::failWithSystemText(lastError_, "Error sending packet...");
}

int OrvosiUdpServer::close() { return orvosiCloseSocket(fd_); }
