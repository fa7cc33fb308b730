// The channels of the tracking system as one INI file configures them: the
// five UDP ports the library receives on, the uplink port of orvRx and the
// TCP command port. Both tools read the same file the library and orvsim
// read, so that one file names every port.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "access/receive/Dispatch.hpp"
#include "capture/Packets.hpp"

namespace orvtools {

enum class ChannelId { Meta, Image, Core, Hub, Nft, Uplink, Commands, Count };
constexpr int kChannelCount = static_cast<int>(ChannelId::Count);

struct Channel {
    ChannelId id;
    const char* name;  // as the tools print it
    Proto proto;
    int port;          // 0: disabled in the INI file
};

class Channels {
public:
    // Ports and orvRx's address from an INI file (missing keys take the
    // library's defaults). False with error set when a port or the address
    // cannot be used.
    static bool fromIni(const std::string& path, Channels& out, std::string& error);

    const Channel& operator[](ChannelId id) const { return list_[static_cast<int>(id)]; }
    const std::vector<Channel>& all() const { return list_; }
    // orvRx's address, dotted decimal, in network-independent host order too.
    const std::string& address() const { return address_; }
    uint32_t addressValue() const { return addressValue_; }

    // The channel of a segment: the UDP channels by destination port, the
    // command channel by either port. Count when none.
    ChannelId classify(const Segment& s) const;

    // What a datagram on a channel is, as the library tells it: the row of
    // the family its port and first byte lead to (the uplink's kinds by
    // start byte and size); "other" when none.
    static std::string kindOf(ChannelId channel, const unsigned char* data, size_t size);
    // The family row the library hands a received datagram to; null for
    // none (and for the uplink and commands, which it does not receive).
    static const orvwire::Family* familyOf(ChannelId channel, const unsigned char* data, size_t size);

    // The library's receiving endpoint a UDP channel feeds, or kPortCount.
    static orvwire::Port wirePort(ChannelId channel);

private:
    std::vector<Channel> list_;
    std::string address_;
    uint32_t addressValue_ = 0;
};

// Datagrams and bytes per channel, and per kind within each.
struct ChannelCounts {
    struct One {
        uint64_t packets = 0, bytes = 0;
        std::map<std::string, uint64_t> kinds;
    };
    One channel[kChannelCount];

    void add(ChannelId id, const std::string& kind, size_t bytes);
    uint64_t total() const;
    // "meta 1200  image 36  orvCore 600 ..." for a progress line.
    std::string brief(const Channels& channels) const;
    // One line per channel: name, protocol and port, packets, bytes, kinds.
    std::string table(const Channels& channels, const char* packetsLabel) const;
};

}  // namespace orvtools
