// The frames exchanged with orvRx over the command channel: every frame to
// orvRx starts with kFrameStart and a command code and ends with a checksum
// byte; replies start with the code they answer.
#pragma once

#include <cstddef>

#include "orvaccess/orvwire.h"

namespace orvcmd {

constexpr unsigned char kFrameStart = 0xAB;
constexpr unsigned char kImu = 0xC0;  // IMU transaction
constexpr unsigned char kGetRegister = 0xC3;
constexpr unsigned char kSetRegister = 0xC4;
constexpr unsigned char kGetFile = 0xC5;
constexpr unsigned char kPutFile = 0xC6;
constexpr unsigned char kChunk = 0xC7;  // a file chunk, and its one-byte acknowledgement
constexpr unsigned char kAbort = 0xC8;  // ends a file transfer
constexpr size_t kChunkData = 512;      // data bytes in every chunk, filler included
constexpr unsigned int kStreamingRegister = ORVACCESS_REG_STREAMING;

}  // namespace orvcmd
