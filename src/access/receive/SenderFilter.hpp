// The senders a receiver takes datagrams from: the configuration's list of
// IPv4 addresses and networks ("udpAllowedSenders"). Header-only, so that
// the configuration check of the tools reads a list exactly as the library
// does without linking its internals.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

class SenderFilter {
public:
    // More entries than a tracker's few hosts ever need; a fixed array keeps
    // the check free of allocation and pointer chasing.
    static constexpr size_t kMaxEntries = 16;

    // Off (every sender taken) until parse() read at least one entry.
    bool active() const { return count_ > 0; }
    size_t size() const { return count_; }

    // address in network byte order, as recvfrom() fills sin_addr.
    bool allows(uint32_t address) const {
        for (size_t i = 0; i < count_; ++i)
            if ((address & mask_[i]) == net_[i]) return true;
        return false;
    }

    // A list of "a.b.c.d" or "a.b.c.d/bits" (or "localhost"), separated by
    // commas or blanks; an empty text switches the filter off. On a bad entry
    // the filter is left off and `error` names the entry and what is wrong.
    bool parse(const std::string& text, std::string& error) {
        count_ = 0;
        size_t at = 0;
        while (at < text.size()) {
            const size_t begin = text.find_first_not_of(", \t", at);
            if (begin == std::string::npos) break;
            size_t end = text.find_first_of(", \t", begin);
            if (end == std::string::npos) end = text.size();
            const std::string entry = text.substr(begin, end - begin);
            at = end;
            if (count_ == kMaxEntries) {
                count_ = 0;
                error = "more than " + std::to_string(kMaxEntries) +
                        " entries; name a network (a.b.c.0/24) instead";
                return false;
            }
            if (!parseEntry(entry, net_[count_], mask_[count_])) {
                count_ = 0;
                error = "\"" + entry + "\" is not an IPv4 address (a.b.c.d) or network (a.b.c.d/bits)";
                return false;
            }
            ++count_;
        }
        return true;
    }

private:
    static bool parseEntry(const std::string& entry, uint32_t& net, uint32_t& mask) {
        const size_t slash = entry.find('/');
        std::string host = entry.substr(0, slash);
        if (host == "localhost") host = "127.0.0.1";
        unsigned long bits = 32;
        if (slash != std::string::npos) {
            const std::string b = entry.substr(slash + 1);
            if (b.empty() || b.size() > 2 || b.find_first_not_of("0123456789") != std::string::npos)
                return false;
            bits = std::strtoul(b.c_str(), nullptr, 10);
            if (bits > 32) return false;
        }
        // Four dotted decimal parts only: inet_aton would also take "10.1" and hex.
        if (host.empty() || host.find_first_not_of("0123456789.") != std::string::npos) return false;
        in_addr a{};
        if (inet_pton(AF_INET, host.c_str(), &a) != 1) return false;
        const uint32_t hostMask = bits == 0 ? 0u : ~0u << (32 - bits);
        mask = htonl(hostMask);
        net = a.s_addr & mask;
        return true;
    }

    size_t count_ = 0;
    uint32_t net_[kMaxEntries] = {};
    uint32_t mask_[kMaxEntries] = {};
};
