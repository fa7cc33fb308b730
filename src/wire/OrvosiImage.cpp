// The one table of image formats, offered to applications (the access
// object's getImageInfo reads it too).
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
