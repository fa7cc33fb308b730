// Captured frames as the tools see them: link layer, IPv4 and UDP or TCP,
// decoded into the datagrams and segments they carry; and the other way,
// IPv4 packets made around datagrams and segments that orvrec received
// itself, so that its files read like any capture.
//
// Only what the tracking system speaks is decoded: IPv4 (the library has no
// IPv6), UDP and TCP. IPv4 fragments are put back together, because a
// camera image piece crosses an Ethernet link as several of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

namespace orvtools {

using Bytes = std::vector<unsigned char>;

enum class Proto : uint8_t { Udp = 17, Tcp = 6 };

// TCP flag bits as on the wire.
constexpr uint8_t kTcpFin = 0x01, kTcpSyn = 0x02, kTcpPsh = 0x08, kTcpAck = 0x10;

// One UDP datagram or TCP segment; addresses and ports in host order.
struct Segment {
    uint64_t timeUs = 0;  // capture time, us since the epoch
    Proto proto = Proto::Udp;
    uint32_t srcAddr = 0, dstAddr = 0;
    uint16_t srcPort = 0, dstPort = 0;
    uint8_t tcpFlags = 0;
    uint32_t tcpSeq = 0;
    Bytes payload;
};

// What a decoder passed over, for the tools' summaries.
struct DecodeCounts {
    uint64_t frames = 0;
    uint64_t segments = 0;    // datagrams and segments handed out
    uint64_t notIpv4 = 0;     // other link-layer payloads: ARP, IPv6 ...
    uint64_t otherProto = 0;  // IPv4 but neither UDP nor TCP
    uint64_t truncated = 0;   // cut short by the capture's snapshot length, or malformed
    uint64_t fragments = 0;   // IPv4 fragments taken in
    uint64_t reassembled = 0; // datagrams made whole from them
    uint64_t fragmentsLost = 0; // datagrams given up with fragments missing
};

// Decodes the frames of one capture (one link type, libpcap's DLT_ number).
class FrameDecoder {
public:
    explicit FrameDecoder(int linkType);

    // True when the link type is one the decoder knows (Ethernet, Linux
    // cooked v1 and v2, raw IP, BSD loopback).
    bool supported() const { return known_; }
    static const char* linkName(int linkType);

    // Decodes one frame of the bytes the capture kept. True with `out`
    // filled when it completes a datagram or a segment.
    bool decode(uint64_t timeUs, const unsigned char* frame, size_t capturedSize, Segment& out);

    const DecodeCounts& counts() const { return counts_; }

private:
    // Where the IPv4 header starts, or -1 for a frame that carries no IPv4.
    long ipOffset(const unsigned char* frame, size_t size) const;
    bool transport(uint64_t timeUs, const unsigned char* ip, size_t headerSize, const unsigned char* body,
                   size_t bodySize, Segment& out);
    bool fragment(uint64_t timeUs, const unsigned char* ip, size_t headerSize, const unsigned char* body,
                  size_t bodySize, Segment& out);

    struct Pending {
        uint64_t firstUs = 0;
        std::map<size_t, Bytes> pieces;  // by offset
        size_t total = 0;                // known once the last fragment is in
        Bytes header;
    };
    using Key = std::tuple<uint32_t, uint32_t, uint8_t, uint16_t>;  // src, dst, protocol, id

    int linkType_;
    bool known_;
    std::map<Key, Pending> pending_;
    DecodeCounts counts_;
};

// An IPv4 packet around a UDP datagram, checksums filled in.
Bytes makeUdpPacket(uint32_t srcAddr, uint16_t srcPort, uint32_t dstAddr, uint16_t dstPort, const unsigned char* data,
                    size_t size, uint16_t ipId);

// An IPv4 packet around a TCP segment (no options), checksums filled in.
Bytes makeTcpPacket(uint32_t srcAddr, uint16_t srcPort, uint32_t dstAddr, uint16_t dstPort, uint32_t seq,
                    uint32_t ack, uint8_t flags, const unsigned char* data, size_t size, uint16_t ipId);

// Both directions of one TCP connection written as packets: the handshake,
// the data each side sent, and the close. Sequence numbers follow the bytes.
class TcpFlow {
public:
    TcpFlow(uint32_t clientAddr, uint16_t clientPort, uint32_t serverAddr, uint16_t serverPort);
    Bytes open(int step);  // step 0: SYN, 1: SYN-ACK, 2: ACK
    Bytes data(bool fromClient, const unsigned char* bytes, size_t size);
    Bytes close(int step);  // step 0: client FIN, 1: server FIN-ACK, 2: client ACK

private:
    Bytes segment(bool fromClient, uint8_t flags, const unsigned char* bytes, size_t size);

    uint32_t addr_[2];
    uint16_t port_[2];
    uint32_t next_[2];  // next sequence number of each side
    uint16_t ipId_ = 1;
};

}  // namespace orvtools
