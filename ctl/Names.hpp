// Names the tools give to the library's status bits, the streaming register
// and the channels, in one place; the numbers are the public header's.
#pragma once

#include <cstdint>
#include <string>

#include "orvaccess/orvwire.h"

namespace orvnames {

// Verbosity: the "ORVALOG: " lines (connection set-up among them) on the
// log stream.
constexpr uint32_t kVerbLog = ORVACCESS_VERB_LOG;

// Register 0 of orvRx switches streaming: 1 on, 0 off.
constexpr unsigned int kStreamingRegister = 0;

// orvRx's state word in a diagnostic record when it has stopped streaming.
constexpr uint32_t kRxStateStopped = ORVACCESS_RX_STATE_STOPPED;

// s_OrvAccessStatus::connections
constexpr uint32_t kConnTcp = ORVACCESS_CONN_TCP, kConnMeta = ORVACCESS_CONN_META, kConnImage = ORVACCESS_CONN_IMAGE,
                   kConnUplink = ORVACCESS_CONN_UPLINK, kConnCore = ORVACCESS_CONN_ORVCORE,
                   kConnHub = ORVACCESS_CONN_ORVHUB, kConnSharedMem = ORVACCESS_CONN_SHARED_MEM;
// s_OrvAccessStatus::received
constexpr uint32_t kRecvMeta = ORVACCESS_RECV_META, kRecvImage = ORVACCESS_RECV_IMAGE,
                   kRecvTracking = ORVACCESS_RECV_TRACKING, kRecvHub = ORVACCESS_RECV_HUB,
                   kRecvSharedMem = ORVACCESS_RECV_SHARED_MEM, kRecvNft = ORVACCESS_RECV_NFT,
                   kRecvPra = ORVACCESS_RECV_PRA;

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
