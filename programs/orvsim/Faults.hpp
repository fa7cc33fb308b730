// Fault injection for one channel's stream of datagrams: drops, corruption
// that the receiver's framing check refuses, duplicates and reordering, each
// with its own rate and driven by a seeded generator so that a run can be
// repeated exactly.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace orvsim {

// Probabilities in 0..1, drawn independently for every datagram.
struct FaultRates {
    double drop = 0.0;
    double corrupt = 0.0;    // half of them a wrong checksum byte, half a wrong length field
    double duplicate = 0.0;  // the datagram is sent twice in a row
    double reorder = 0.0;    // the datagram is held back and sent after the next one
};

struct FaultCounts {
    uint64_t in = 0;   // datagrams handed to process()
    uint64_t out = 0;  // datagrams handed back, duplicates included
    uint64_t dropped = 0;
    uint64_t badChecksum = 0;  // datagrams on the wire: both copies of a damaged duplicate
    uint64_t badLength = 0;
    uint64_t duplicated = 0;
    uint64_t reordered = 0;  // datagrams sent after their successor

    uint64_t corrupted() const { return badChecksum + badLength; }
};

class FaultInjector {
public:
    using Datagram = std::vector<unsigned char>;

    FaultInjector(const FaultRates& rates, uint32_t seed) : rates_(rates), rng_(seed) {}

    // Appends to out what goes on the wire for this datagram: nothing, the
    // datagram (possibly damaged), two copies, and/or one held back earlier.
    void process(Datagram dgram, std::vector<Datagram>& out);
    // Appends a datagram still held back for reordering (end of a stream).
    void flush(std::vector<Datagram>& out);

    const FaultCounts& counts() const { return counts_; }
    const FaultRates& rates() const { return rates_; }

private:
    bool draw(double rate);
    // Damages d one way or the other; returns the counter it went to.
    uint64_t* corrupt(Datagram& d);
    void emit(Datagram d, bool twice, std::vector<Datagram>& out);

    FaultRates rates_;
    std::mt19937 rng_;
    FaultCounts counts_;
    std::optional<Datagram> held_;
    bool heldTwice_ = false;
};

}  // namespace orvsim
