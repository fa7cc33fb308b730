#include "capture/Channels.hpp"

#include <arpa/inet.h>

#include <cstdio>
#include <sstream>

#include "IniPorts.hpp"

namespace orvtools {

bool Channels::fromIni(const std::string& path, Channels& out, std::string& error) {
    // The simulator reads the same file the same way; one reader of ports.
    orvports::Endpoints e;
    if (!orvports::fromIni(path, e, error)) return false;
    Channels c;
    c.list_ = {
        {ChannelId::Meta, "meta", Proto::Udp, e.metaPort},
        {ChannelId::Image, "image", Proto::Udp, e.imagePort},
        {ChannelId::Core, "orvCore", Proto::Udp, e.corePort},
        {ChannelId::Hub, "orvHub", Proto::Udp, e.hubPort},
        {ChannelId::Nft, "nft", Proto::Udp, e.nftPort},
        {ChannelId::Uplink, "uplink", Proto::Udp, e.inputPort},
        {ChannelId::Commands, "commands", Proto::Tcp, e.tcpPort},
    };
    c.address_ = e.address;
    in_addr a{};
    inet_aton(e.address.c_str(), &a);
    c.addressValue_ = ntohl(a.s_addr);
    out = c;
    return true;
}

ChannelId Channels::classify(const Segment& s) const {
    for (const Channel& c : list_) {
        if (c.port == 0 || c.proto != s.proto) continue;
        if (s.dstPort == c.port || (c.proto == Proto::Tcp && s.srcPort == c.port)) return c.id;
    }
    return ChannelId::Count;
}

orvwire::Port Channels::wirePort(ChannelId channel) {
    switch (channel) {
    case ChannelId::Meta: return orvwire::kMetaPort;
    case ChannelId::Image: return orvwire::kImagePort;
    case ChannelId::Core: return orvwire::kCorePort;
    case ChannelId::Hub: return orvwire::kHubPort;
    case ChannelId::Nft: return orvwire::kNftPort;
    default: return orvwire::kPortCount;
    }
}

std::string Channels::kindOf(ChannelId channel, const unsigned char* data, size_t size) {
    if (size == 0) return "empty";
    if (channel == ChannelId::Uplink) {
        if (data[0] == orvwire::kPlatPose.startByte && size == ORVWIRE_UPLINK_PLATPOSE_SIZE)
            return orvwire::kPlatPose.name;
        if (data[0] == orvwire::kGps.startByte && size == ORVWIRE_UPLINK_GPS_SIZE) return orvwire::kGps.name;
        if (data[0] == ORVWIRE_START_INPUT && size == ORVWIRE_UPLINK_INPUT_SIZE) return "input";
        return "other";
    }
    const orvwire::Family* family = familyOf(channel, data, size);
    return family != nullptr ? family->name : "other";
}

const orvwire::Family* Channels::familyOf(ChannelId channel, const unsigned char* data, size_t size) {
    const orvwire::Port port = wirePort(channel);
    for (const orvwire::Route& r : orvwire::kRoutes)
        if (r.port == port && size > 0 && (r.firstByte == orvwire::kAnyByte || r.firstByte == data[0]))
            return r.family;
    return nullptr;
}

void ChannelCounts::add(ChannelId id, const std::string& kind, size_t bytes) {
    One& c = channel[static_cast<int>(id)];
    ++c.packets;
    c.bytes += bytes;
    ++c.kinds[kind];
}

uint64_t ChannelCounts::total() const {
    uint64_t n = 0;
    for (const One& c : channel) n += c.packets;
    return n;
}

std::string ChannelCounts::brief(const Channels& channels) const {
    std::ostringstream s;
    for (const Channel& c : channels.all()) {
        if (c.port == 0) continue;
        s << (s.tellp() > 0 ? "  " : "") << c.name << ' ' << channel[static_cast<int>(c.id)].packets;
    }
    return s.str();
}

std::string ChannelCounts::table(const Channels& channels, const char* packetsLabel) const {
    std::ostringstream s;
    char line[200];
    std::snprintf(line, sizeof line, "  %-9s %-10s %10s %12s  %s\n", "channel", "port", packetsLabel, "bytes",
                  "kinds");
    s << line;
    for (const Channel& c : channels.all()) {
        const One& n = channel[static_cast<int>(c.id)];
        const std::string port =
            c.port == 0 ? "off" : std::string(c.proto == Proto::Udp ? "udp " : "tcp ") + std::to_string(c.port);
        std::string kinds;
        for (const auto& k : n.kinds) kinds += (kinds.empty() ? "" : ", ") + k.first + ' ' + std::to_string(k.second);
        std::snprintf(line, sizeof line, "  %-9s %-10s %10llu %12llu  ", c.name, port.c_str(),
                      static_cast<unsigned long long>(n.packets), static_cast<unsigned long long>(n.bytes));
        s << line << kinds << '\n';
    }
    return s.str();
}

}  // namespace orvtools
