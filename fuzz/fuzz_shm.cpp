// The shared-memory image that orvHub publishes, through getImage: a header
// and pixels as the producer wrote them, in a region the producer may have
// cut short since the library mapped it. Real regions and semaphores, made
// by the library's own producer side; their names are removed as soon as
// both ends hold them, so that nothing is left behind however the run ends.
//
// Input: the region (byte, bit 0: one of 400000 bytes, else one with room
// for the largest image), the bytes left of it (u32, modulo its size + 1),
// the caller's capacity (u32, modulo 4 MB + 16), then the region's first
// bytes: ready flag, sequence id, format code, pixels.
#include <fcntl.h>
#include <sys/mman.h>

#include "FuzzSupport.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiSharedMem.hpp"
#include "support/Loopback.hpp"

namespace {

constexpr size_t kMaxCapacity = 0x400000 + 16;

struct Region {
    size_t size = 0;
    int fd = -1;  // the producer's own, to cut the region short and restore it
    std::unique_ptr<OrvosiSharedMem> producer;
    OrvAccess access;
};

Region regions[2];

void setUp(Region& r, const std::string& name, size_t size) {
    r.size = size;
    r.producer.reset(new OrvosiSharedMem(name.c_str(), static_cast<unsigned int>(size)));
    orvfuzz::require(r.producer->isOk(), "the producer makes its region");
    r.fd = shm_open(("/" + name).c_str(), O_RDWR, 0);
    orvfuzz::require(r.fd >= 0, "the region opens");

    const int port = orvtest::findFreePort();
    orvfuzz::require(port != 0, "a free port below 32768");
    const int ports[5] = {0, port, 0, 0, 0};
    r.access.setIniPath(orvfuzz::writeScratchFile(
        name + ".ini", orvtest::receiverIni(ports, "sMemImgName = " + name + "\n")));
    orvfuzz::require(r.access.open(), "the access object opens");
    s_OrvAccessStatus st{};
    orvfuzz::require(r.access.getStatus(&st) && (st.connections & ORVACCESS_CONN_SHARED_MEM) != 0,
                     "the access object maps the region");
    shm_unlink(("/" + name).c_str());
    sem_unlink(("/" + name + "Sem").c_str());
}

void resize(Region& r, size_t bytes) {
    orvfuzz::require(ftruncate(r.fd, static_cast<off_t>(bytes)) == 0, "the producer resizes its region");
}

unsigned long imageSize(unsigned char format) {
    unsigned int w = 0, h = 0, b = 0;
    return OrvosiUtil::GetImageResolution(format, &w, &h, &b) ? static_cast<unsigned long>(w) * h * b : 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orvfuzz::silenceStreams();
    const std::string base = "orvfuzz" + std::to_string(getpid());
    setUp(regions[0], base + "big", ORVWIRE_SHM_PIXELS_AT + 1280 * 960 * 3);
    setUp(regions[1], base + "small", 400000);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    OrvosiReader in(data, size);
    Region& r = regions[in.u8() & 1];
    const size_t present = in.u32() % (r.size + 1);
    const size_t capacity = in.u32() % kMaxCapacity;
    const size_t headerAt = in.pos() < size ? in.pos() : size;
    const size_t written = std::min(size - headerAt, r.size);

    // The producer publishes under the semaphore; a getImage that kept it
    // would hang the next input here, which libFuzzer reports.
    auto* region = static_cast<unsigned char*>(r.producer->get());
    std::memcpy(region, data + headerAt, written);
    r.producer->release();
    const unsigned char ready = written > 0 ? region[ORVWIRE_SHM_READY_AT] : 0;
    resize(r, present);

    std::unique_ptr<unsigned char[]> buffer(new unsigned char[capacity]);
    int percent = -1;
    OrvAccess::ImageFormat format{};
    unsigned int sequenceId = 0;
    const bool ok = r.access.getImage(&percent, &format, &sequenceId, buffer.get(), capacity);

    if (ok && percent == 100) {
        // Compared with what was written: the region itself may be cut short.
        const unsigned char* header = data + headerAt;
        const unsigned long bytes =
            imageSize(written > ORVWIRE_SHM_FORMAT_AT ? header[ORVWIRE_SHM_FORMAT_AT] : 0);
        orvfuzz::require(ready == 1 && bytes != 0 && bytes <= capacity,
                         "a delivered image was ready and fits");
        orvfuzz::require(ORVWIRE_SHM_PIXELS_AT + bytes <= present, "a delivered image lay inside the region");
        for (size_t i = 0; i < bytes; ++i) {
            const size_t at = ORVWIRE_SHM_PIXELS_AT + i;
            orvfuzz::require(buffer[i] == (at < written ? header[at] : 0),
                             "a delivered image is the region's pixels");
        }
    } else {
        orvfuzz::require(percent == 0, "nothing over UDP, so no progress");
    }
    if (present > 0) {
        auto* now = static_cast<unsigned char*>(r.producer->get());
        const unsigned char flag = now[ORVWIRE_SHM_READY_AT];
        r.producer->release();
        orvfuzz::require(ready == 1 ? flag == 0 : flag == ready,
                         "a ready image is taken, anything else left");
    }

    // Cut to nothing and grown back: the next input finds the region zeroed.
    resize(r, 0);
    resize(r, r.size);
    return 0;
}
