// Camera image helpers offered to applications: the one table of image
// formats (the access object's getImageInfo reads it too) and a 2x2 box
// reduction of 8-bit images.
#include <cstddef>

#include "math/OrvosiMath.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

struct ImageGeometry {
    unsigned char code;
    unsigned int width;
    unsigned int height;
    unsigned int bytesPerPixel;
};

// Codes 12 and 41 repeat the geometry of 10 and 40 on purpose; 41 has one
// byte per pixel although the other odd codes have more.
constexpr ImageGeometry kFormats[] = {
    {10, 640, 480, 1},  {11, 640, 480, 2},   {12, 640, 480, 1},   {20, 752, 480, 1},
    {21, 752, 480, 2},  {30, 1280, 1024, 1}, {31, 1280, 1024, 2}, {40, 1280, 960, 1},
    {41, 1280, 960, 1}, {50, 640, 480, 3},   {51, 1280, 960, 3},
};

}  // namespace

bool OrvosiUtil::GetImageResolution(unsigned char format, unsigned int* width, unsigned int* height,
                                    unsigned int* bytesPerPixel) {
    unsigned int w = 0, h = 0, b = 0;
    bool legal = false;
    for (const ImageGeometry& g : kFormats) {
        if (g.code != format) continue;
        w = g.width;
        h = g.height;
        b = g.bytesPerPixel;
        legal = true;
        break;
    }
    if (width != nullptr) *width = w;
    if (height != nullptr) *height = h;
    if (bytesPerPixel != nullptr) *bytesPerPixel = b;
    return legal;
}

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
