// OrvosiMath: small numeric helpers of the library, all static and free of
// heap allocation. Matrices are flat row-major arrays with their sizes passed
// as arguments.
#pragma once

#include "orvaccess/orvaccess_export.h"

class OrvosiMath {
public:
    OrvosiMath() = delete;

    // 2x2 box reduction of an 8-bit image: each output byte is the rounded
    // mean (halves up) of a 2x2 source block. Offered to applications.
    ORVACCESS_EXPORT static void DownsampleImage(unsigned int sourceWidth, unsigned int sourceHeight,
                                                 unsigned char* source, unsigned int width,
                                                 unsigned int height, unsigned char* destination);
};
