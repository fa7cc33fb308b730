// The one table of camera image formats: the format code an image packet
// carries, and the geometry it stands for. OrvosiUtil::GetImageResolution
// offers it to applications; the access object, the simulator and the
// dissector's generator read it through that.
#pragma once

namespace orvwire {

struct ImageGeometry {
    unsigned char code;
    unsigned int width;
    unsigned int height;
    unsigned int bytesPerPixel;
};

// Codes 12 and 41 repeat the geometry of 10 and 40 on purpose; 41 has one
// byte per pixel although the other odd codes have more.
inline constexpr ImageGeometry kImageFormats[] = {
    {10, 640, 480, 1},  {11, 640, 480, 2},   {12, 640, 480, 1},   {20, 752, 480, 1},
    {21, 752, 480, 2},  {30, 1280, 1024, 1}, {31, 1280, 1024, 2}, {40, 1280, 960, 1},
    {41, 1280, 960, 1}, {50, 640, 480, 3},   {51, 1280, 960, 3},
};

// The geometry of a format code; null for a code the table does not hold.
constexpr const ImageGeometry* imageGeometry(unsigned char code) {
    for (const ImageGeometry& g : kImageFormats)
        if (g.code == code) return &g;
    return nullptr;
}

}  // namespace orvwire
