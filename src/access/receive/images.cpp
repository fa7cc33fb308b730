// Camera images: pieces sent by orvRx over UDP, reassembled into one of two
// buffers, and whole images published by orvHub in shared memory.
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "access/State.hpp"
#include "access/receive/Dispatch.hpp"
#include "wire/Fields.hpp"
#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

constexpr unsigned short kImageErrorCode = ORVACCESS_ERR_IMAGE_TRANSFER;

// Shared-memory region: ready flag, sequence id, format code, pixels.
constexpr size_t kRegionReady = ORVWIRE_SHM_READY_AT;
constexpr size_t kRegionSeqId = ORVWIRE_SHM_SEQID_AT;
constexpr size_t kRegionFormat = ORVWIRE_SHM_FORMAT_AT;
constexpr size_t kRegionPixels = ORVWIRE_SHM_PIXELS_AT;

// The format code goes out through the caller's enum as it came, legal or
// not; written as the enum's own underlying integer so that no out-of-range
// conversion to the enum type takes place.
void storeFormat(OrvAccess::ImageFormat* out, unsigned char code) {
    const std::underlying_type_t<OrvAccess::ImageFormat> value = code;
    static_assert(sizeof value == sizeof *out, "an enum is stored as its underlying type");
    std::memcpy(out, &value, sizeof value);
}

// "Buffer too small (image size is N)" without building temporaries.
void setTooSmall(std::string& error, unsigned long size) {
    char text[64];
    std::snprintf(text, sizeof text, "Buffer too small (image size is %lu)", size);
    error.assign(text);
}

// "Image format 31 (2621440 bytes) is larger than the image buffer
// (imgBufSize 307200)": the complete image cannot be copied out by it.
void setLargerThanBuffer(std::string& error, unsigned char code, unsigned long size, uint32_t bufferSize) {
    char text[128];
    std::snprintf(text, sizeof text, "Image format %u (%lu bytes) is larger than the image buffer (imgBufSize %u)",
                  static_cast<unsigned int>(code), size, static_cast<unsigned int>(bufferSize));
    error.assign(text);
}

// The one format table (OrvosiUtil::GetImageResolution) with the fallback
// geometry 640 x 480 x 1 for an illegal code, which also sets the last error.
bool lookUpFormat(int code, unsigned long* size, int* width, int* height, int* bytesPerPixel,
                  std::string& error) {
    unsigned int w = 0, h = 0, b = 0;
    const bool legal = code >= 0 && code <= 255 &&
                       OrvosiUtil::GetImageResolution(static_cast<unsigned char>(code), &w, &h, &b);
    if (!legal) {
        char text[48];
        std::snprintf(text, sizeof text, "Illegal image format (%d)", code);
        error.assign(text);
        w = 640;
        h = 480;
        b = 1;
    }
    if (size != nullptr) *size = static_cast<unsigned long>(w) * h * b;
    if (width != nullptr) *width = static_cast<int>(w);
    if (height != nullptr) *height = static_cast<int>(h);
    if (bytesPerPixel != nullptr) *bytesPerPixel = static_cast<int>(b);
    return legal;
}

}  // namespace

bool OrvAccess::getImageInfo(ImageFormat format, unsigned long* size, int* width, int* height,
                             int* bytesPerPixel) {
    return lookUpFormat(static_cast<int>(format), size, width, height, bytesPerPixel, st_->lastError);
}

namespace orvwire {

// One piece of an image: its header (type, length, sequence id, format,
// address) and its pixels, wherever they are. The service loop reads pieces
// straight into the image being filled, so the pixels may already lie where
// they belong; nothing is written past the buffer's imgBufSize bytes.
void takeImagePiece(OrvAccess::State& s, const unsigned char* header, const unsigned char* pixels,
                    size_t count) {
    ImageState& img = s.img;
    const unsigned int v = s.cfg.verbosity;
    img.progress = 0;

    OrvosiReader r(header, ORVWIRE_IMAGE_PIXELS_AT);
    r.skip(ORVWIRE_HEADER_SIZE);
    ImageHeader piece{};
    decodeImage(r, piece);
    const uint32_t seqId = piece.sequenceId;
    const unsigned char format = piece.format;
    const uint32_t address = piece.address;
    img.format = format;

    if (address != 0) {
        if (img.waiting) {
            OrvUtil::infoLine(v, "Waiting for initial image packet (", address, ")");
            return;
        }
        if (seqId != img.seqId[img.fill]) {
            OrvUtil::logLine(v, "Sequence ID mismatch in image packet (packet sid=", seqId,
                             ", image sid=", img.seqId[img.fill], ")");
            s.addErrorCode(kImageErrorCode, img.seqId[img.fill]);
            img.waiting = true;
            return;
        }
    } else {
        img.seqId[img.fill] = seqId;
        img.received = 0;
        img.waiting = false;
    }

    unsigned long imageSize = 0;
    const char* problem = nullptr;
    const uint64_t end = static_cast<uint64_t>(address) + count;
    unsigned char* target = img.buf[img.fill].get();
    if (!lookUpFormat(format, &imageSize, nullptr, nullptr, nullptr, s.lastError)) {
        problem = s.lastError.c_str();
    } else if (img.received != address) {
        problem = "Address mismatch in image packet";
    } else if (target == nullptr || end > img.size) {
        // A buffer that could not be allocated has no room at all.
        problem = "Image buffer overflow";
    }
    if (problem != nullptr) {
        OrvUtil::logLine(v, problem);
        s.addErrorCode(kImageErrorCode, seqId);
        img.waiting = true;
        return;
    }

    // A first piece that restarts an image was read in where the next piece
    // of the old one would have gone: the two places may overlap.
    if (pixels != target + address) std::memmove(target + address, pixels, count);
    img.received = static_cast<uint32_t>(end);

    const uint64_t percent = end * 100 / imageSize;
    img.progress = percent == 0 ? 1 : percent > 99 ? 99 : static_cast<int>(percent);
    if (end >= imageSize) {
        OrvUtil::infoLine(v, "Image received");
        img.waiting = true;
        img.progress = 0;
        img.complete = img.fill;
        img.fill = 1 - img.fill;
        return;
    }
    OrvUtil::infoLine(v, "Received image packet, packet sid ", seqId, " (", img.progress, "%)");
}

// A piece that came in whole. The service loop has checked the framing, so
// the length word equals the datagram's size; nothing past it is read.
const char* processImagePkt(OrvAccess::State& s, const OrvosiBytes& packet) {
    const size_t length = packet.size;
    if (length < ORVWIRE_IMAGE_OVERHEAD) {
        // Too short to hold its own header: nothing in it can be trusted.
        s.img.progress = 0;
        OrvUtil::logLine(s.cfg.verbosity, "Image packet too short (", length, " bytes)");
        s.addErrorCode(kImageErrorCode, 0);
        s.img.waiting = true;
        return nullptr;
    }
    takeImagePiece(s, packet.data, packet.data + ORVWIRE_IMAGE_PIXELS_AT, length - ORVWIRE_IMAGE_OVERHEAD);
    return nullptr;
}

}  // namespace orvwire

bool OrvAccess::getImage(int* percent, ImageFormat* format, unsigned int* sequenceId, unsigned char* buffer,
                         unsigned long capacity) {
    State& s = *st_;
    ImageState& img = s.img;
    const unsigned int v = s.cfg.verbosity;
    *percent = 0;
    if (!serviceUdp(true)) {
        *percent = img.progress;
        return false;
    }

    // UDP first: the newest complete image, kept until it fits the caller.
    // It goes out by the current format (that of the last piece seen), which
    // a piece of the next image may have changed since it completed.
    if (img.complete >= 0) {
        unsigned long size = 0;
        if (!lookUpFormat(img.format, &size, nullptr, nullptr, nullptr, s.lastError)) return false;
        if (size > capacity) {
            setTooSmall(s.lastError, size);
            return false;
        }
        // Only a buffer that was allocated can have completed an image.
        const unsigned char* held = img.buf[img.complete].get();
        if (size > img.size) {
            // Copying that many bytes would read past the buffer that holds
            // the image; it stays waiting for a piece that sets a format
            // that fits.
            setLargerThanBuffer(s.lastError, img.format, size, img.size);
            return false;
        }
        OrvUtil::infoLine(v, "Received image via UDP");
        *percent = 100;
        storeFormat(format, img.format);
        *sequenceId = img.seqId[img.complete];
        std::memcpy(buffer, held, size);
        img.complete = -1;
        return true;
    }

    *percent = img.progress;
    if (!s.sharedMemOk || !s.sharedMem) return true;

    OrvosiSharedMem& mem = *s.sharedMem;
    unsigned char* region = static_cast<unsigned char*>(mem.get());
    if (region == nullptr) {
        s.lastError = "Error accessing shared memory";
        return false;
    }
    // Every read below stays inside the mapping, whatever the producer wrote,
    // and inside what is left of the region: a producer may have cut it
    // short since it was mapped, and the pages past its end raise SIGBUS.
    const size_t mapped = mem.size();
    const size_t present = mem.currentSize();
    const auto setTruncated = [&] {
        char text[96];
        std::snprintf(text, sizeof text, "Shared memory region truncated to %zu bytes (%zu mapped)", present,
                      mapped);
        s.lastError.assign(text);
    };
    if (present <= kRegionReady) {
        mem.release();
        setTruncated();
        return false;
    }
    if (region[kRegionReady] != 1) {
        mem.release();
        return true;
    }

    bool ok = false;
    if (mapped < kRegionPixels) {
        s.lastError = "Incorrect image format";
    } else if (present < kRegionPixels) {
        setTruncated();
    } else {
        const unsigned char code = region[kRegionFormat];
        *sequenceId = OrvosiUtil::word32(region + kRegionSeqId);
        storeFormat(format, code);
        unsigned long size = 0;
        if (!lookUpFormat(code, &size, nullptr, nullptr, nullptr, s.lastError) ||
            size > mapped - kRegionPixels) {
            // An illegal code, or a region too small for the image it announces.
            s.lastError = "Incorrect image format";
        } else if (size > present - kRegionPixels) {
            setTruncated();
        } else if (size > capacity) {
            setTooSmall(s.lastError, size);
        } else {
            OrvUtil::infoLine(v, "Received image via shared memory");
            std::memcpy(buffer, region + kRegionPixels, size);
            *percent = 100;
            s.receivedMask |= ORVACCESS_RECV_SHARED_MEM;
            ok = true;
        }
    }
    // The image is dealt with either way: one that did not fit is dropped.
    region[kRegionReady] = 0;
    mem.release();
    return ok;
}
