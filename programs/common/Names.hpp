// Names the tools give to the library's status bits, the streaming register
// and the channels, in one place; the numbers are the public header's.
#pragma once

#include <cstdint>
#include <string>

#include "IniKeys.hpp"
#include "orvaccess/orvwire.h"

namespace orvnames {

// Verbosity: the "ORVALOG: " lines (connection set-up among them) on the
// log stream.
constexpr uint32_t kVerbLog = ORVACCESS_VERB_LOG;

// orvRx's streaming switch: 1 on, 0 off.
constexpr unsigned int kStreamingRegister = ORVACCESS_REG_STREAMING;

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
constexpr const char* keyName(orvini::Key k) { return orvini::row(k).key; }
inline constexpr ChannelInfo kChannels[kChannelCount] = {
    {Channel::Tcp, "tcp", keyName(orvini::Key::tcpOrvRxPort), kConnTcp, 0},
    {Channel::Uplink, "uplink", keyName(orvini::Key::udpOrvRxInputPort), kConnUplink, 0},
    {Channel::Meta, "meta", keyName(orvini::Key::udpOrvRxPort), kConnMeta, kRecvMeta},
    {Channel::SharedMem, "shm", keyName(orvini::Key::sMemImgName), kConnSharedMem, kRecvSharedMem},
    {Channel::Image, "image", keyName(orvini::Key::udpOrvRxImgPort), kConnImage, kRecvImage},
    {Channel::Core, "core", keyName(orvini::Key::udpOrvCorePort), kConnCore, kRecvTracking},
    {Channel::Hub, "hub", keyName(orvini::Key::udpOrvHubPort), kConnHub, kRecvHub},
    {Channel::Nft, "nft", keyName(orvini::Key::udpNftPort), 0, kRecvNft},
};
inline const ChannelInfo& channelInfo(Channel c) { return kChannels[static_cast<int>(c)]; }

// The library's own codes that its message table leaves without a text
// ("[ORVACCESS]: Unknown error"): their names and what they mean, so that
// no tool shows a code the library raised as unknown.
struct ErrorName {
    uint16_t code;
    const char* name;     // the public header's enumerator
    const char* meaning;  // what happened
};
inline constexpr ErrorName kUnnamedErrors[] = {
    {ORVACCESS_ERR_BAD_HUB_PKT, "ORVACCESS_ERR_BAD_HUB_PKT",
     "a datagram on the orvHub port failed its framing check (start byte, length or checksum)"},
    {ORVACCESS_ERR_BAD_NFT_PKT, "ORVACCESS_ERR_BAD_NFT_PKT",
     "a datagram on the NFT port failed its framing check (start byte, length or checksum)"},
    {ORVACCESS_ERR_BAD_GPS_SUBPKT, "ORVACCESS_ERR_BAD_GPS_SUBPKT",
     "a GPS subpacket in a meta packet failed its check (start byte, length or checksum)"},
    {ORVACCESS_ERR_BAD_PRA_PKT, "ORVACCESS_ERR_BAD_PRA_PKT",
     "a pose-recovery (PRA) packet on the orvCore port failed its framing check (length or checksum)"},
};

// The library's message of `code`; where it would say only "Unknown error"
// for a code of the library's own, the code's meaning and name take the
// place of those words ("[ORVACCESS]: a datagram on ... (ORVACCESS_ERR_...)").
inline std::string errorText(unsigned code, const std::string& message) {
    static const std::string unknown = "Unknown error";
    for (const ErrorName& e : kUnnamedErrors) {
        if (e.code != code) continue;
        const std::string named = std::string(e.meaning) + " (" + e.name + ")";
        if (message.size() >= unknown.size() && message.compare(message.size() - unknown.size(), unknown.size(), unknown) == 0)
            return message.substr(0, message.size() - unknown.size()) + named;
        return message + " (" + named + ")";
    }
    return message;
}

}  // namespace orvnames
