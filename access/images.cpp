// Camera images over UDP and from orvHub's shared memory.
//
// Reassembly and delivery arrive with the image issue; until then no image
// is delivered.
#include "access/State.hpp"

void OrvAccess::processImagePkt(const unsigned char* /*packet*/) {}

bool OrvAccess::getImageInfo(ImageFormat /*format*/, unsigned long* /*size*/, int* /*width*/, int* /*height*/,
                             int* /*bytesPerPixel*/) {
    return false;
}

bool OrvAccess::getImage(int* percent, ImageFormat* /*format*/, unsigned int* /*sequenceId*/,
                         unsigned char* /*buffer*/, unsigned long /*capacity*/) {
    *percent = 0;
    if (!serviceUdp(true)) return false;
    *percent = st_->img.progress;
    return true;
}
