// The 2x2 box reduction of 8-bit camera images offered to applications; the
// library itself does not call it.
#include <cstddef>

#include "math/OrvosiMath.hpp"

void OrvosiMath::DownsampleImage(unsigned int sourceWidth, unsigned int /*sourceHeight*/,
                                 unsigned char* source, unsigned int width, unsigned int height,
                                 unsigned char* destination) {
    // The source advances by 2 * width + sourceWidth per output row: two
    // source rows when width is half of sourceWidth, as callers arrange.
    const size_t stride = static_cast<size_t>(2) * width + sourceWidth;
    size_t row = 0;  // offsets rather than pointers: nothing is formed past the last row
    unsigned char* out = destination;
    for (unsigned int y = 0; y < height; ++y, row += stride) {
        const unsigned char* top = source + row;
        const unsigned char* below = top + sourceWidth;
        for (unsigned int x = 0; x < width; ++x) {
            const size_t i = static_cast<size_t>(2) * x;
            const unsigned int sum = top[i] + top[i + 1] + below[i] + below[i + 1];
            *out++ = static_cast<unsigned char>((sum + 2) / 4);  // halves go up
        }
    }
}
