// Files to and from orvRx over the command channel: a start frame, then
// 512-byte chunks, each acknowledged before the next goes out.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "wire/CommandCodes.hpp"
#include "access/State.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

constexpr size_t kChunkFrame = 2 + 3 + orvcmd::kChunkData + 1;  // start, code, offset, data, checksum
constexpr size_t kChunkReadCapacity = 612;
constexpr size_t kGetReply = 5;  // code, size, checksum
// Sizes and offsets travel in 24 bits.
constexpr long kMaxFileSize = 0xFFFFFF;

constexpr int kStartReplyMs = 4000;
constexpr int kChunkReplyMs = 1000;

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// AB, code, location, the remote name up to its first zero byte, the zero.
// The caller appends what follows and the checksum placeholder.
std::vector<unsigned char> requestFrame(unsigned char code, e_OrvAccessFileLoc location,
                                        const std::string& remoteName) {
    const char* name = remoteName.c_str();
    const size_t n = std::strlen(name);
    std::vector<unsigned char> frame;
    frame.reserve(n + 8);
    frame.push_back(orvcmd::kFrameStart);
    frame.push_back(code);
    frame.push_back(static_cast<unsigned char>(location));
    frame.insert(frame.end(), name, name + n + 1);
    return frame;
}

}  // namespace

bool OrvAccess::putFile(std::string localPath, std::string remoteName, e_OrvAccessFileLoc location) {
    State& s = *st_;
    if (!setStreaming(false)) return false;

    File file(std::fopen(localPath.c_str(), "rb"));
    if (!file) {
        s.fail(OrvosiUtil::getSystemErrorMsg(), true);
        return false;
    }
    long size = -1;
    if (std::fseek(file.get(), 0, SEEK_END) == 0) size = std::ftell(file.get());
    if (size < 1 || std::fseek(file.get(), 0, SEEK_SET) != 0) {
        s.fail("File empty or unreadable", true);
        return false;
    }
    if (size > kMaxFileSize) {
        // The start frame could not say how large it is.
        s.fail("File too large (limit is 16777215 bytes)", true);
        return false;
    }

    std::vector<unsigned char> start = requestFrame(orvcmd::kPutFile, location, remoteName);
    unsigned char tail[4];
    OrvosiUtil::lendian(tail, static_cast<unsigned long>(size), 3);
    tail[3] = 0;  // checksum, filled in by writeOrvRx
    start.insert(start.end(), tail, tail + sizeof tail);
    if (!writeOrvRx(start.data(), start.size())) return false;

    unsigned char reply = 0;
    size_t n = 0;
    if (!readOrvRx(&reply, 1, kStartReplyMs, &n)) return false;
    if (n != 1 || reply != orvcmd::kPutFile) {
        s.fail("Start failed - no/bad response from orvRx", true);
        return false;
    }

    unsigned char chunk[kChunkFrame];
    for (long offset = 0; offset < size; offset += static_cast<long>(orvcmd::kChunkData)) {
        const size_t count = static_cast<size_t>(std::min<long>(size - offset, orvcmd::kChunkData));
        OrvosiWriter w(chunk, sizeof chunk);
        w.u8(orvcmd::kFrameStart);
        w.u8(orvcmd::kChunk);
        w.u24(static_cast<unsigned long>(offset));
        // The last chunk is filled up with zeros: every chunk carries 512 bytes.
        unsigned char* data = chunk + w.pos();
        std::memset(data, 0, orvcmd::kChunkData);
        if (std::fread(data, 1, count, file.get()) != count) {
            // The file shrank or failed under us; its bytes cannot be sent.
            s.fail("File empty or unreadable", true);
            return false;
        }
        if (!writeOrvRx(chunk, sizeof chunk)) return false;
        if (!readOrvRx(&reply, 1, kChunkReplyMs, &n)) return false;
        if (n != 1 || reply != orvcmd::kChunk) {
            s.fail("No/bad response from server", true);
            return false;
        }
    }
    return true;
}

bool OrvAccess::getFile(std::string remoteName, e_OrvAccessFileLoc location, std::string localPath) {
    State& s = *st_;
    if (!setStreaming(false)) return false;

    std::vector<unsigned char> request = requestFrame(orvcmd::kGetFile, location, remoteName);
    request.push_back(0);  // checksum
    if (!writeOrvRx(request.data(), request.size())) return false;

    unsigned char reply[kGetReply];
    size_t n = 0;
    if (!readOrvRx(reply, sizeof reply, kStartReplyMs, &n)) return false;
    if (n != kGetReply || reply[0] != orvcmd::kGetFile || OrvosiUtil::checksum(reply, kGetReply) != 0) {
        s.fail("No/bad response from server", true);
        return false;
    }
    const unsigned long size = OrvosiUtil::word24(reply + 1);
    if (size == 0) {
        s.fail("File not found by server", true);
        return false;
    }

    File file(std::fopen(localPath.c_str(), "wb"));
    if (!file) {
        s.fail(OrvosiUtil::getSystemErrorMsg(), true);
        return false;
    }

    unsigned char chunk[kChunkReadCapacity];
    for (unsigned long offset = 0; offset < size; offset += orvcmd::kChunkData) {
        if (!readOrvRx(chunk, sizeof chunk, kChunkReplyMs, &n)) return false;
        // A chunk must arrive whole in one read; a missing one counts as bad.
        const bool good = n == kChunkFrame && chunk[0] == orvcmd::kFrameStart && chunk[1] == orvcmd::kChunk &&
                          OrvosiUtil::checksum(chunk, kChunkFrame) == 0 &&
                          OrvosiUtil::word24(chunk + 2) == offset;
        if (!good) {
            unsigned char abort = orvcmd::kAbort;
            writeOrvRx(&abort, 1);
            s.fail("No/bad data packet from server", true);
            return false;
        }
        unsigned char ack = orvcmd::kChunk;
        if (!writeOrvRx(&ack, 1)) return false;
        const size_t count = static_cast<size_t>(std::min<unsigned long>(size - offset, orvcmd::kChunkData));
        if (std::fwrite(chunk + 5, 1, count, file.get()) != count) {
            s.fail(OrvosiUtil::getSystemErrorMsg(), true);
            return false;
        }
    }
    // Closing flushes what is still buffered; a failure there loses data.
    if (std::fclose(file.release()) != 0) {
        s.fail(OrvosiUtil::getSystemErrorMsg(), true);
        return false;
    }
    return true;
}
