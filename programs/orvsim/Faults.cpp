#include "orvsim/Faults.hpp"

#include <utility>

namespace orvsim {

// One generator value per decision, always drawn, so that the sequence of
// decisions depends on the seed alone and not on earlier outcomes.
bool FaultInjector::draw(double rate) {
    const double u = static_cast<double>(rng_()) * (1.0 / 4294967296.0);  // [0, 1)
    return u < rate;
}

uint64_t* FaultInjector::corrupt(Datagram& d) {
    const bool lengthField = (rng_() & 1u) != 0;
    if (lengthField && d.size() >= 3) {
        // One more than the true size; the receiver compares it exactly.
        const unsigned int len = (d[1] | (d[2] << 8)) + 1u;
        d[1] = static_cast<unsigned char>(len);
        d[2] = static_cast<unsigned char>(len >> 8);
        return &++counts_.badLength;
    }
    if (d.empty()) return nullptr;
    d.back() ^= 0xFF;  // the 8-bit sum is no longer zero
    return &++counts_.badChecksum;
}

void FaultInjector::emit(Datagram d, bool twice, std::vector<Datagram>& out) {
    if (twice) {
        out.push_back(d);
        ++counts_.out;
    }
    out.push_back(std::move(d));
    ++counts_.out;
}

void FaultInjector::process(Datagram dgram, std::vector<Datagram>& out) {
    ++counts_.in;
    const bool drop = draw(rates_.drop);
    const bool damage = draw(rates_.corrupt);
    const bool twice = draw(rates_.duplicate);
    const bool hold = draw(rates_.reorder);
    if (drop) {
        ++counts_.dropped;
        return;
    }
    uint64_t* damaged = damage ? corrupt(dgram) : nullptr;
    if (twice) ++counts_.duplicated;
    // Both copies of a damaged duplicate fail the receiver's check.
    if (twice && damaged != nullptr) ++*damaged;
    if (hold && !held_) {
        held_ = std::move(dgram);
        heldTwice_ = twice;
        return;
    }
    emit(std::move(dgram), twice, out);
    if (held_) {
        ++counts_.reordered;
        emit(std::move(*held_), heldTwice_, out);
        held_.reset();
    }
}

void FaultInjector::flush(std::vector<Datagram>& out) {
    if (!held_) return;
    emit(std::move(*held_), heldTwice_, out);
    held_.reset();
}

}  // namespace orvsim
