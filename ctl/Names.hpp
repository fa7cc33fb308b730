// Names the tools give to the library's status bits, verbosity bits, the
// streaming register and the channels, kept in one place so that they can
// follow the public header's own names when it offers them.
#pragma once

#include <cstdint>
#include <string>

namespace orvnames {

// Verbosity: the "ORVALOG: " lines (connection set-up among them) on the
// log stream.
constexpr uint32_t kVerbLog = 0x1;

// Register 0 of orvRx switches streaming: 1 on, 0 off.
constexpr unsigned int kStreamingRegister = 0;

// orvRx's state word in a diagnostic record when it has stopped streaming.
constexpr uint32_t kRxStateStopped = 3;

// s_OrvAccessStatus::connections
constexpr uint32_t kConnTcp = 0x1, kConnMeta = 0x2, kConnImage = 0x4, kConnUplink = 0x8, kConnCore = 0x10,
                   kConnHub = 0x20, kConnSharedMem = 0x40;
// s_OrvAccessStatus::received
constexpr uint32_t kRecvMeta = 0x2, kRecvImage = 0x4, kRecvTracking = 0x10, kRecvHub = 0x20, kRecvSharedMem = 0x40,
                   kRecvNft = 0x80, kRecvPra = 0x100;

struct BitName {
    uint32_t bit;
    const char* name;
};
inline constexpr BitName kConnectionBits[] = {{kConnTcp, "tcp"},   {kConnMeta, "meta"}, {kConnImage, "image"},
                                              {kConnUplink, "uplink"}, {kConnCore, "core"}, {kConnHub, "hub"},
                                              {kConnSharedMem, "shm"}};
inline constexpr BitName kReceivedBits[] = {{kRecvMeta, "meta"}, {kRecvImage, "image"}, {kRecvTracking, "tracking"},
                                            {kRecvHub, "hub"},   {kRecvSharedMem, "shm"}, {kRecvNft, "nft"},
                                            {kRecvPra, "pra"}};

// "tcp meta image", or "-" when no bit is set.
template <size_t N>
std::string bitNames(uint32_t mask, const BitName (&table)[N]) {
    std::string s;
    for (const BitName& b : table)
        if (mask & b.bit) s += (s.empty() ? "" : " ") + std::string(b.name);
    return s.empty() ? "-" : s;
}
inline std::string connectionNames(uint32_t connections) { return bitNames(connections, kConnectionBits); }
inline std::string receivedNames(uint32_t received) { return bitNames(received, kReceivedBits); }

// The channels open() brings up, in its order. The NFT endpoint has no
// connection bit; PRA packets arrive on the orvCore port.
enum class Channel { Tcp, Uplink, Meta, SharedMem, Image, Core, Hub, Nft, Count };
constexpr int kChannelCount = static_cast<int>(Channel::Count);

struct ChannelInfo {
    Channel channel;
    const char* name;        // short name used in the tools' output
    const char* key;         // configuration key that names its port (or image)
    uint32_t connectionBit;  // 0: none
    uint32_t receivedBit;    // 0: it receives nothing
};
inline constexpr ChannelInfo kChannels[kChannelCount] = {
    {Channel::Tcp, "tcp", "tcpOrvRxPort", kConnTcp, 0},
    {Channel::Uplink, "uplink", "udpOrvRxInputPort", kConnUplink, 0},
    {Channel::Meta, "meta", "udpOrvRxPort", kConnMeta, kRecvMeta},
    {Channel::SharedMem, "shm", "sMemImgName", kConnSharedMem, kRecvSharedMem},
    {Channel::Image, "image", "udpOrvRxImgPort", kConnImage, kRecvImage},
    {Channel::Core, "core", "udpOrvCorePort", kConnCore, kRecvTracking},
    {Channel::Hub, "hub", "udpOrvHubPort", kConnHub, kRecvHub},
    {Channel::Nft, "nft", "udpNftPort", 0, kRecvNft},
};
inline const ChannelInfo& channelInfo(Channel c) { return kChannels[static_cast<int>(c)]; }

}  // namespace orvnames
