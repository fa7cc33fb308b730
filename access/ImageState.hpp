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
    uint32_t received = 0;       // next address expected (bytes received)
    unsigned char format = 0;    // format code of the last piece seen
    // Format of the complete image. A piece of the next image may announce
    // another format before the complete one is fetched; the copy out must
    // follow the image actually held, or it would read past the buffer.
    unsigned char completeFormat = 0;
    int progress = 0;  // percent of the image being received, 0 or 1..99

    // Fresh buffers of `bytes` each (the old ones are released first, so
    // that two sets never coexist) and no image. A buffer whose allocation
    // failed stays null and takes no piece.
    void init(uint32_t bytes) {
        release();
        seqId[0] = seqId[1] = 0;
        fill = 0;
        format = 0;
        completeFormat = 0;
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
