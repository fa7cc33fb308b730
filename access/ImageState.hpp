// Reassembly of camera images that arrive over UDP in pieces: two buffers,
// one being filled while the other holds the newest complete image.
#pragma once

#include <cstdint>
#include <memory>
#include <new>

struct ImageState {
    std::unique_ptr<unsigned char[]> buf[2];
    uint32_t size = 0;           // bytes in each buffer (imgBufSize)
    uint32_t seqId[2] = {0, 0};  // sequence id of the image in each buffer
    int fill = 0;                // buffer being filled
    int complete = -1;           // buffer holding a complete image, -1 = none
    bool waiting = true;         // waiting for the first piece (address 0) of an image
    uint32_t received = 0;       // next address expected
    unsigned char format = 0;    // format code of the last piece seen
    int progress = 0;            // percent of the image being received, 0 or 1..99

    // Fresh buffers of `bytes` each (the old ones are released) and no image.
    void init(uint32_t bytes) {
        seqId[0] = seqId[1] = 0;
        fill = 0;
        size = bytes;
        buf[0].reset(new (std::nothrow) unsigned char[bytes]);
        buf[1].reset(new (std::nothrow) unsigned char[bytes]);
        restart();
    }
    // Forget any image in flight or waiting; the buffers stay. The expected
    // sequence id becomes -1: no image is being filled.
    void restart() {
        seqId[fill] = UINT32_MAX;
        complete = -1;
        waiting = true;
        received = 0;
        progress = 0;
    }
    void release() {
        buf[0].reset();
        buf[1].reset();
    }
};
