// The framing every datagram and subpacket passes before its parser: its
// start byte names its kind, its length word equals its size, and its bytes
// sum to 0 modulo 256. The check answers why a packet fails, or null.
#pragma once

#include "wire/OrvosiCursor.hpp"

namespace orvwire {

// The rules on a packet's parts: its first byte, its length word, its size,
// and sum(), the sum of its bytes (only the low 8 bits count), asked last so
// that a packet refused for its start byte or size costs no sum. For a
// packet that does not lie in one piece of memory.
template <typename Sum>
inline const char* framingProblem(unsigned char first, unsigned long lengthWord, unsigned long len,
                                  unsigned char startByte, Sum sum) {
    if (len >= 1 && first != startByte) return "Wrong start byte";
    // Fewer than three bytes cannot hold the length word, let alone a body.
    if (len < 3 || lengthWord != len) return "Invalid size";
    if ((sum() & 0xFFu) != 0) return "Invalid checksum";
    return nullptr;
}

// The first len bytes of a received packet, where those past its real bytes
// are zeros (a subpacket whose length field runs past the end of its
// datagram): they count, as zeros, towards the sum. Reads nothing beyond len.
inline const char* framingProblem(const OrvosiBytes& packet, unsigned long len, unsigned char startByte) {
    return framingProblem(packet.at(0), static_cast<unsigned long>(packet.at(1) | packet.at(2) << 8), len,
                          startByte,
                          [&] { return OrvwireCodec::checksum(packet.data, len < packet.size ? len : packet.size); });
}

inline const char* framingProblem(const unsigned char* buf, unsigned long len, unsigned char startByte) {
    return framingProblem(OrvosiBytes{buf, len, len}, len, startByte);
}

}  // namespace orvwire
