// Moving a recording's clock fields to the replay's clock. The library ages
// a pose by its time stamp (and aligns its clocks by the meta packets'
// times), so an old recording replayed as it is looks seconds stale; moved
// by one offset, every pose is as fresh at its replay as it was when it was
// recorded, and the distances between them stay.
#pragma once

#include <cstddef>
#include <cstdint>

#include "access/receive/Dispatch.hpp"

namespace orvtools {

// A 64-bit clock field in us on the tracker's clock, at a fixed offset of
// one datagram family.
struct ClockField {
    const orvwire::Family* family;
    size_t at;
    const char* name;  // as in the record it lands in
};

inline constexpr ClockField kClockFields[] = {
    {&orvwire::kTracking, ORVWIRE_TRACKING_POSE_TIME_AT, "poseTime"},
    {&orvwire::kNft, ORVWIRE_NFT_POSE_TIME_AT, "poseTime"},
    {&orvwire::kMeta, ORVWIRE_META_TIME_AT, "time"},
};

// The clock field a datagram of `family` carries, or null.
const ClockField* clockFieldOf(const orvwire::Family* family);

// Reads the field; false when the datagram is too short to hold it.
bool readClock(const unsigned char* data, size_t size, const ClockField& field, uint64_t* value);

// Writes a new value into the field and changes the checksum byte (the
// datagram's last) by what the field's bytes changed, so that the byte sum
// stays what it was: a sound datagram stays sound and a damaged one stays
// damaged by as much. False when the datagram is too short.
bool writeClock(unsigned char* data, size_t size, const ClockField& field, uint64_t value);

}  // namespace orvtools
