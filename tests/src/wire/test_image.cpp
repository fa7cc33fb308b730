// The image-format table offered to applications.
#include <gtest/gtest.h>

#include <string>

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
