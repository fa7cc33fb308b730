#include "capture/Retime.hpp"

#include "os/OrvosiUtil.hpp"

namespace orvtools {

const ClockField* clockFieldOf(const orvwire::Family* family) {
    for (const ClockField& f : kClockFields)
        if (f.family == family) return &f;
    return nullptr;
}

bool readClock(const unsigned char* data, size_t size, const ClockField& field, uint64_t* value) {
    // The checksum byte comes after the field, never inside it.
    if (size < field.at + 8 + 1) return false;
    *value = OrvosiUtil::word64(data + field.at);
    return true;
}

bool writeClock(unsigned char* data, size_t size, const ClockField& field, uint64_t value) {
    if (size < field.at + 8 + 1) return false;
    const unsigned char before = OrvosiUtil::checksum(data + field.at, 8);
    OrvosiUtil::lendian(data + field.at, value, 8);
    const unsigned char after = OrvosiUtil::checksum(data + field.at, 8);
    data[size - 1] = static_cast<unsigned char>(data[size - 1] + before - after);
    return true;
}

}  // namespace orvtools
