// The image helpers offered to applications: the format table and the 2x2
// box reduction, with its rounding and its walk through the source.
#include <gtest/gtest.h>

#include <vector>

#include "osi/OrvosiMath.hpp"
#include "osi/OrvosiUtil.hpp"

TEST(ImageResolution, EveryLegalCodeAndNothingElse) {
    struct Row {
        unsigned char code;
        unsigned int w, h, b;
    };
    const Row table[] = {{10, 640, 480, 1},  {11, 640, 480, 2},   {12, 640, 480, 1},   {20, 752, 480, 1},
                         {21, 752, 480, 2},  {30, 1280, 1024, 1}, {31, 1280, 1024, 2}, {40, 1280, 960, 1},
                         {41, 1280, 960, 1}, {50, 640, 480, 3},   {51, 1280, 960, 3}};
    int legal = 0;
    for (unsigned int code = 0; code <= 255; ++code) {
        unsigned int w = 99, h = 99, b = 99;
        const bool ok = OrvosiUtil::GetImageResolution(static_cast<unsigned char>(code), &w, &h, &b);
        const Row* row = nullptr;
        for (const Row& r : table)
            if (r.code == code) row = &r;
        ASSERT_EQ(ok, row != nullptr) << code;
        if (row == nullptr) {
            EXPECT_EQ(w + h + b, 0u) << code;
            continue;
        }
        ++legal;
        EXPECT_EQ(w, row->w) << code;
        EXPECT_EQ(h, row->h) << code;
        EXPECT_EQ(b, row->b) << code;
    }
    EXPECT_EQ(legal, 11);
}

TEST(Downsample, RoundsHalvesUpAndWalksTwoRowsPerOutputRow) {
    // The documented example: rows 10 20 30 40 / 50 60 70 80.
    unsigned char src[] = {10, 20, 30, 40, 50, 60, 70, 80};
    unsigned char dst[3] = {0, 0, 0xEE};
    OrvosiMath::DownsampleImage(4, 2, src, 2, 1, dst);
    EXPECT_EQ(dst[0], 35);
    EXPECT_EQ(dst[1], 55);
    EXPECT_EQ(dst[2], 0xEE) << "nothing past the output";

    // Block sums 1, 2, 3, 5 and 1020: a quarter rounds down, a half and three
    // quarters round up, 255s stay 255.
    unsigned char rows[20] = {0, 1, 1, 1, 1, 1, 2, 2, 255, 255,  //
                              0, 0, 0, 0, 1, 0, 1, 0, 255, 255};
    unsigned char out[5] = {};
    OrvosiMath::DownsampleImage(10, 2, rows, 5, 1, out);
    EXPECT_EQ(out[0], 0);
    EXPECT_EQ(out[1], 1);
    EXPECT_EQ(out[2], 1);
    EXPECT_EQ(out[3], 1);
    EXPECT_EQ(out[4], 255);

    // A 640 x 480 image to 320 x 240: each output row comes from its own two
    // source rows, and the whole of the source (and no more) is read.
    const unsigned int sw = 640, sh = 480, w = 320, h = 240;
    std::vector<unsigned char> big(sw * sh);
    for (unsigned int y = 0; y < sh; ++y)
        for (unsigned int x = 0; x < sw; ++x) big[y * sw + x] = static_cast<unsigned char>(y + 3 * x);
    std::vector<unsigned char> small(w * h);
    OrvosiMath::DownsampleImage(sw, sh, big.data(), w, h, small.data());
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int x = 0; x < w; ++x) {
            const unsigned int sum = big[2 * y * sw + 2 * x] + big[2 * y * sw + 2 * x + 1] +
                                     big[(2 * y + 1) * sw + 2 * x] + big[(2 * y + 1) * sw + 2 * x + 1];
            ASSERT_EQ(small[y * w + x], (sum + 2) / 4) << x << "," << y;
        }

    // Height 0 writes nothing.
    unsigned char untouched = 0x5A;
    OrvosiMath::DownsampleImage(4, 2, src, 2, 0, &untouched);
    EXPECT_EQ(untouched, 0x5A);
}
