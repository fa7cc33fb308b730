// Reassembly of camera images that arrive over UDP in pieces: two buffers,
// one being filled while the other holds the newest complete image.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

struct ImageState {
    struct Free {
        void operator()(unsigned char* p) const { std::free(p); }
    };
    using Buffer = std::unique_ptr<unsigned char[], Free>;

    Buffer buf[2];
    uint32_t size = 0;           // bytes in each buffer (imgBufSize)
    uint32_t seqId[2] = {0, 0};  // sequence id of the image in each buffer
    int fill = 0;                // buffer being filled
    int complete = -1;           // buffer holding a complete image, -1 = none
    bool waiting = true;         // waiting for the first piece (address 0) of an image
    uint32_t received = 0;       // next address expected (bytes received)
    // Format code of the last piece seen. getImage sizes, labels and copies
    // the complete image by it, even when a piece of the next image has
    // announced another format since.
    unsigned char format = 0;
    int progress = 0;  // percent of the image being received, 0 or 1..99

    // Fresh buffers of `bytes` each (the old ones are released first, so
    // that two sets never coexist) and no image. A buffer whose allocation
    // failed stays null and takes no piece. The buffers start zeroed (calloc
    // gets fresh pages from the kernel without touching them): an image
    // copied out by a format larger than the one it was sent in then never
    // hands out what an earlier allocation left in that memory.
    void init(uint32_t bytes) {
        release();
        seqId[0] = seqId[1] = 0;
        fill = 0;
        format = 0;
        size = bytes;
        buf[0].reset(static_cast<unsigned char*>(std::calloc(bytes, 1)));
        buf[1].reset(static_cast<unsigned char*>(std::calloc(bytes, 1)));
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
    // Frees both buffers; any image waiting in them is gone too.
    void release() {
        buf[0].reset();
        buf[1].reset();
        complete = -1;
        waiting = true;
        received = 0;
        progress = 0;
    }
};
