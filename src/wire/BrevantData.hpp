// One decoded packet of the inertial measurement chip. Which fields hold
// data is told by `mask`; everything else stays zero.
#pragma once

#include <cstddef>
#include <cstdint>

struct BrevantData {
    uint8_t pid;
    uint32_t tag;  // 0 from the decoder; the meta parser stores its tag here
    uint8_t type;
    uint32_t mask;
    uint64_t timeUs;  // host time of decoding; the meta parser stores the sample time
    uint8_t length;
    uint8_t raw[64];  // the packet as received, zero after `length` bytes
    uint8_t status;   // 0x1
    uint8_t status2;  // 0x2
    uint16_t word;    // 0x4
    float gyro[3];    // 0x8
    float accel[3];   // 0x10
    uint16_t gyroRaw[3];
    uint16_t accelRaw[3];
    uint8_t triadAxis;  // 0x20: the one axis of triad carried (1 to 3)
    float triad[3];     // 0x20 (one axis) or 0x10000 (all three)
    float vec40[3];
    float vec80[4];
    float vec100[3];
    float vec200[3];
    float vec400[3];
    float scalar800;
    float scalar1000;
    uint8_t hi2000;
    uint8_t lo2000;
    uint8_t byte2000;
    uint8_t byte4000;
    float value8000a;
    float value8000b;
};

// Field mask bit of the auxiliary byte (hi2000, lo2000, byte2000).
constexpr uint32_t kBrevantMaskAux = 0x2000;
// The bit of `status` that carries, one packet at a time, the 256-bit
// clock-relation rows.
constexpr uint8_t kBrevantStatusClock = 0x10;

// The chip's single-axis triad value is stored relative to triad[0] with an
// index that can be -1 (mask-driven axis 0, landing on triadAxis and its
// padding) or 3 (compact axis 3, landing on vec40[0]). The decoder writes
// those floats by byte offset, which relies on this layout.
static_assert(offsetof(BrevantData, triad) - sizeof(float) == offsetof(BrevantData, triadAxis),
              "triadAxis and its padding must fill the float before triad");
static_assert(offsetof(BrevantData, vec40) == offsetof(BrevantData, triad) + 3 * sizeof(float),
              "vec40 must follow triad directly");
