#include "capture/Packets.hpp"

#include <pcap/dlt.h>

#include <algorithm>

namespace orvtools {

namespace {

constexpr size_t kIpHeader = 20, kUdpHeader = 8, kTcpHeader = 20;
constexpr uint16_t kEtherIpv4 = 0x0800, kEtherVlan = 0x8100;
constexpr uint32_t kFamilyInet = 2;        // AF_INET in a BSD loopback header, either byte order
constexpr uint64_t kFragmentLifeUs = 30000000;  // what the kernel keeps fragments for, about
constexpr size_t kMaxPending = 256;
constexpr int kLinkIpv4 = 228;             // LINKTYPE_IPV4, raw IPv4 named as such

uint16_t be16(const unsigned char* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t be32(const unsigned char* p) { return static_cast<uint32_t>(be16(p)) << 16 | be16(p + 2); }
void put16(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}
void put32(unsigned char* p, uint32_t v) {
    put16(p, v >> 16);
    put16(p + 2, v);
}

// The Internet checksum's running sum over some bytes.
uint32_t sum16(const unsigned char* p, size_t n, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < n; i += 2) sum += be16(p + i);
    if (n % 2 != 0) sum += static_cast<uint32_t>(p[n - 1]) << 8;
    return sum;
}
uint16_t fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// An IPv4 packet with its header filled in and room for `size` bytes after it.
Bytes ipPacket(Proto proto, uint32_t src, uint32_t dst, size_t size, uint16_t id) {
    Bytes p(kIpHeader + size, 0);
    p[0] = 0x45;
    put16(&p[2], static_cast<uint32_t>(p.size()));
    put16(&p[4], id);
    p[6] = 0x40;  // don't fragment
    p[8] = 64;
    p[9] = static_cast<unsigned char>(proto);
    put32(&p[12], src);
    put32(&p[16], dst);
    put16(&p[10], fold(sum16(p.data(), kIpHeader)));
    return p;
}

// The transport checksum over the pseudo header and the segment at p[20...].
void sealTransport(Bytes& p, size_t checksumAt) {
    const size_t length = p.size() - kIpHeader;
    uint32_t sum = sum16(&p[12], 8);  // source and destination address
    sum += p[9];
    sum += static_cast<uint32_t>(length);
    uint16_t c = fold(sum16(&p[kIpHeader], length, sum));
    if (c == 0 && p[9] == static_cast<unsigned char>(Proto::Udp)) c = 0xFFFF;  // 0 means "none" in UDP
    put16(&p[kIpHeader + checksumAt], c);
}

}  // namespace

FrameDecoder::FrameDecoder(int linkType) : linkType_(linkType) {
    switch (linkType) {
    case DLT_EN10MB: case DLT_LINUX_SLL: case DLT_LINUX_SLL2: case DLT_RAW: case kLinkIpv4: case DLT_NULL:
    case DLT_LOOP:
        known_ = true;
        break;
    default:
        known_ = false;
    }
}

const char* FrameDecoder::linkName(int linkType) {
    switch (linkType) {
    case DLT_EN10MB: return "Ethernet";
    case DLT_LINUX_SLL: return "Linux cooked";
    case DLT_LINUX_SLL2: return "Linux cooked v2";
    case DLT_RAW: case kLinkIpv4: return "raw IP";
    case DLT_NULL: case DLT_LOOP: return "BSD loopback";
    default: return "unknown";
    }
}

long FrameDecoder::ipOffset(const unsigned char* f, size_t n) const {
    switch (linkType_) {
    case DLT_EN10MB: {
        if (n < 14) return -1;
        size_t at = 12;
        while (be16(f + at) == kEtherVlan && n >= at + 6) at += 4;
        return be16(f + at) == kEtherIpv4 ? static_cast<long>(at + 2) : -1;
    }
    case DLT_LINUX_SLL: return n >= 16 && be16(f + 14) == kEtherIpv4 ? 16 : -1;
    case DLT_LINUX_SLL2: return n >= 20 && be16(f) == kEtherIpv4 ? 20 : -1;
    case DLT_RAW: case kLinkIpv4: return n >= 1 && f[0] >> 4 == 4 ? 0 : -1;
    case DLT_NULL: {
        if (n < 4) return -1;
        const uint32_t family = be32(f);
        return family == kFamilyInet || family == kFamilyInet << 24 ? 4 : -1;
    }
    case DLT_LOOP: return n >= 4 && be32(f) == kFamilyInet ? 4 : -1;
    default: return -1;
    }
}

bool FrameDecoder::decode(uint64_t timeUs, const unsigned char* frame, size_t captured, Segment& out) {
    ++counts_.frames;
    const long at = ipOffset(frame, captured);
    if (at < 0) {
        ++counts_.notIpv4;
        return false;
    }
    const unsigned char* ip = frame + at;
    const size_t avail = captured - static_cast<size_t>(at);
    if (avail < kIpHeader || ip[0] >> 4 != 4) {
        ++counts_.notIpv4;
        return false;
    }
    const size_t header = static_cast<size_t>(ip[0] & 0x0F) * 4;
    const size_t total = be16(ip + 2);
    // A frame the snapshot length cut (its IP length runs past what was kept), or nonsense.
    if (header < kIpHeader || total < header || total > avail) {
        ++counts_.truncated;
        return false;
    }
    const uint8_t proto = ip[9];
    if (proto != static_cast<uint8_t>(Proto::Udp) && proto != static_cast<uint8_t>(Proto::Tcp)) {
        ++counts_.otherProto;
        return false;
    }
    const uint16_t flagsOffset = be16(ip + 6);
    const bool more = (flagsOffset & 0x2000) != 0;
    const size_t offset = static_cast<size_t>(flagsOffset & 0x1FFF) * 8;
    if (more || offset != 0) return fragment(timeUs, ip, header, ip + header, total - header, out);
    return transport(timeUs, ip, header, ip + header, total - header, out);
}

bool FrameDecoder::transport(uint64_t timeUs, const unsigned char* ip, size_t, const unsigned char* body,
                             size_t size, Segment& out) {
    out = Segment{};
    out.timeUs = timeUs;
    out.proto = static_cast<Proto>(ip[9]);
    out.srcAddr = be32(ip + 12);
    out.dstAddr = be32(ip + 16);
    size_t header = kUdpHeader, length = size;
    if (out.proto == Proto::Udp) {
        if (size < kUdpHeader) {
            ++counts_.truncated;
            return false;
        }
        length = std::min<size_t>(size, be16(body + 4));
        if (length < kUdpHeader) {
            ++counts_.truncated;
            return false;
        }
    } else {
        if (size < kTcpHeader) {
            ++counts_.truncated;
            return false;
        }
        header = static_cast<size_t>(body[12] >> 4) * 4;
        if (header < kTcpHeader || header > size) {
            ++counts_.truncated;
            return false;
        }
        out.tcpSeq = be32(body + 4);
        out.tcpFlags = body[13];
    }
    out.srcPort = be16(body);
    out.dstPort = be16(body + 2);
    out.payload.assign(body + header, body + length);
    ++counts_.segments;
    return true;
}

bool FrameDecoder::fragment(uint64_t timeUs, const unsigned char* ip, size_t header, const unsigned char* body,
                            size_t size, Segment& out) {
    ++counts_.fragments;
    // Fragments whose datagram never completed are given up after a while.
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (timeUs > it->second.firstUs + kFragmentLifeUs || pending_.size() > kMaxPending) {
            ++counts_.fragmentsLost;
            it = pending_.erase(it);
        } else {
            ++it;
        }
    }
    const Key key{be32(ip + 12), be32(ip + 16), ip[9], be16(ip + 4)};
    Pending& p = pending_[key];
    if (p.pieces.empty()) p.firstUs = timeUs;
    const uint16_t flagsOffset = be16(ip + 6);
    const size_t offset = static_cast<size_t>(flagsOffset & 0x1FFF) * 8;
    if (offset == 0) p.header.assign(ip, ip + header);
    if ((flagsOffset & 0x2000) == 0) p.total = offset + size;
    p.pieces[offset].assign(body, body + size);

    if (p.total == 0 || p.header.empty()) return false;
    size_t covered = 0;
    for (const auto& piece : p.pieces) {
        if (piece.first > covered) return false;  // a gap: more to come
        covered = std::max(covered, piece.first + piece.second.size());
    }
    if (covered < p.total) return false;
    Bytes whole(p.total);
    for (const auto& piece : p.pieces) {
        const size_t n = std::min(piece.second.size(), p.total - std::min(p.total, piece.first));
        std::copy_n(piece.second.begin(), n, whole.begin() + static_cast<long>(piece.first));
    }
    const Bytes head = std::move(p.header);
    pending_.erase(key);
    ++counts_.reassembled;
    return transport(timeUs, head.data(), head.size(), whole.data(), whole.size(), out);
}

Bytes makeUdpPacket(uint32_t srcAddr, uint16_t srcPort, uint32_t dstAddr, uint16_t dstPort,
                    const unsigned char* data, size_t size, uint16_t ipId) {
    Bytes p = ipPacket(Proto::Udp, srcAddr, dstAddr, kUdpHeader + size, ipId);
    unsigned char* u = &p[kIpHeader];
    put16(u, srcPort);
    put16(u + 2, dstPort);
    put16(u + 4, static_cast<uint32_t>(kUdpHeader + size));
    std::copy_n(data, size, u + kUdpHeader);
    sealTransport(p, 6);
    return p;
}

Bytes makeTcpPacket(uint32_t srcAddr, uint16_t srcPort, uint32_t dstAddr, uint16_t dstPort, uint32_t seq,
                    uint32_t ack, uint8_t flags, const unsigned char* data, size_t size, uint16_t ipId) {
    Bytes p = ipPacket(Proto::Tcp, srcAddr, dstAddr, kTcpHeader + size, ipId);
    unsigned char* t = &p[kIpHeader];
    put16(t, srcPort);
    put16(t + 2, dstPort);
    put32(t + 4, seq);
    put32(t + 8, (flags & kTcpAck) != 0 ? ack : 0);
    t[12] = static_cast<unsigned char>((kTcpHeader / 4) << 4);
    t[13] = flags;
    put16(t + 14, 65535);  // window
    if (size > 0) std::copy_n(data, size, t + kTcpHeader);
    sealTransport(p, 16);
    return p;
}

TcpFlow::TcpFlow(uint32_t clientAddr, uint16_t clientPort, uint32_t serverAddr, uint16_t serverPort)
    : addr_{clientAddr, serverAddr}, port_{clientPort, serverPort}, next_{1000, 5000} {}

Bytes TcpFlow::segment(bool fromClient, uint8_t flags, const unsigned char* bytes, size_t size) {
    const int from = fromClient ? 0 : 1, to = 1 - from;
    Bytes p = makeTcpPacket(addr_[from], port_[from], addr_[to], port_[to], next_[from], next_[to], flags, bytes,
                            size, ipId_++);
    next_[from] += static_cast<uint32_t>(size) + ((flags & (kTcpSyn | kTcpFin)) != 0 ? 1 : 0);
    return p;
}

Bytes TcpFlow::open(int step) {
    if (step == 0) return segment(true, kTcpSyn, nullptr, 0);
    if (step == 1) return segment(false, kTcpSyn | kTcpAck, nullptr, 0);
    return segment(true, kTcpAck, nullptr, 0);
}

Bytes TcpFlow::data(bool fromClient, const unsigned char* bytes, size_t size) {
    return segment(fromClient, kTcpPsh | kTcpAck, bytes, size);
}

Bytes TcpFlow::close(int step) {
    if (step == 0) return segment(true, kTcpFin | kTcpAck, nullptr, 0);
    if (step == 1) return segment(false, kTcpFin | kTcpAck, nullptr, 0);
    return segment(true, kTcpAck, nullptr, 0);
}

}  // namespace orvtools
