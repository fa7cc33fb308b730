// The image helpers offered to applications: the format table and the 2x2
// box reduction, with its rounding and its walk through the source.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "math/OrvosiMath.hpp"
#include "os/OrvosiUtil.hpp"

TEST(ImageResolution, ElevenLegalCodesAndNothingElse) {
    std::string legal;
    for (unsigned int code = 0; code <= 255; ++code) {
        unsigned int w = 99, h = 99, b = 99;
        if (OrvosiUtil::GetImageResolution(static_cast<unsigned char>(code), &w, &h, &b))
            legal += std::to_string(code) + ":" + std::to_string(w) + "x" + std::to_string(h) + "x" +
                     std::to_string(b) + " ";
        else
            EXPECT_EQ(w + h + b, 0u) << code;
    }
    // 12 and 41 repeat the geometry of 10 and 40; 41 has one byte per pixel.
    EXPECT_EQ(legal,
              "10:640x480x1 11:640x480x2 12:640x480x1 20:752x480x1 21:752x480x2 30:1280x1024x1 "
              "31:1280x1024x2 40:1280x960x1 41:1280x960x1 50:640x480x3 51:1280x960x3 ");
}

TEST(Downsample, RoundsHalvesUpAndWalksTwoRowsPerOutputRow) {
    // Blocks summing to 140, 220, 1, 2, 3 and 1020: the means 35 and 55,
    // a quarter rounds down, a half and three quarters round up, 255 stays.
    unsigned char src[] = {10, 20, 30, 40, 1, 0, 1, 1, 1, 1, 255, 255,  //
                           50, 60, 70, 80, 0, 0, 0, 0, 1, 0, 255, 255};
    unsigned char dst[7] = {0, 0, 0, 0, 0, 0, 0xEE};
    OrvosiMath::DownsampleImage(12, 2, src, 6, 1, dst);
    EXPECT_EQ(std::vector<int>(dst, dst + 7), (std::vector<int>{35, 55, 0, 1, 1, 255, 0xEE}));

    // Each output row comes from its own two source rows.
    unsigned char square[] = {0, 0, 4, 4, 0, 0, 4, 4, 8, 8, 12, 12, 8, 8, 12, 12}, quarter[4] = {};
    OrvosiMath::DownsampleImage(4, 4, square, 2, 2, quarter);
    EXPECT_EQ(std::vector<int>(quarter, quarter + 4), (std::vector<int>{0, 4, 8, 12}));
}
