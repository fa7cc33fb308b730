// What the harnesses share: their inputs as streams of records (written by
// the seed generator, read back with the library's own cursor), the framing
// fix-up that lets mutated bytes past the checks to the parsers behind them,
// silent diagnostic streams, a scratch folder and the checks of invariants.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include "wire/OrvosiCursor.hpp"
#include "os/OrvosiUtil.hpp"

namespace orvfuzz {

using Bytes = std::vector<unsigned char>;

// One record of an input: a control byte that the harness interprets and the
// bytes that follow. On file: control (1), size (2, little-endian), bytes;
// the end of the input may cut the last record short.
struct Record {
    unsigned char control;
    const unsigned char* data;
    size_t size;
};

constexpr size_t kRecordHeader = 3;

template <typename F>
void forEachRecord(const unsigned char* data, size_t size, F&& visit) {
    OrvosiReader r(data, size);
    while (r.remaining() >= kRecordHeader) {
        const unsigned char control = r.u8();
        const size_t wanted = r.u16();
        const size_t n = wanted < r.remaining() ? wanted : r.remaining();
        visit(Record{control, r.take(n), n});
    }
}

inline void appendRecord(Bytes& input, unsigned char control, const unsigned char* data, size_t size) {
    input.push_back(control);
    input.push_back(static_cast<unsigned char>(size));
    input.push_back(static_cast<unsigned char>(size >> 8));
    input.insert(input.end(), data, data + size);
}

inline void appendRecord(Bytes& input, unsigned char control, const Bytes& bytes) {
    appendRecord(input, control, bytes.data(), bytes.size());
}

// A copy of some bytes in an allocation of exactly their size (a real one even
// for none), so that AddressSanitizer sees any touch past their end.
class Exact {
public:
    Exact(const unsigned char* data, size_t size) : bytes_(new unsigned char[size]), size_(size) {
        if (size != 0) std::memcpy(bytes_.get(), data, size);
    }
    unsigned char* data() { return bytes_.get(); }
    size_t size() const { return size_; }
    unsigned char& operator[](size_t i) { return bytes_[i]; }

private:
    std::unique_ptr<unsigned char[]> bytes_;
    size_t size_;
};

// Makes a packet pass its framing check: the start byte, the length word
// equal to its size and the checksum byte last. Too short to hold them, it
// is left as it is.
inline void frame(unsigned char* packet, size_t size, unsigned char startByte) {
    if (size < 4) return;
    packet[0] = startByte;
    OrvosiUtil::lendian(packet + 1, size, 2);
    packet[size - 1] = static_cast<unsigned char>(-OrvosiUtil::checksum(packet, size - 1));
}

// Reads a record's bytes as little-endian fields (zeros past its end) and
// hands out what is left as the payload.
class Fields {
public:
    explicit Fields(const Record& r) : r_(r.data, r.size) {}
    unsigned char u8() { return r_.u8(); }
    unsigned int u16() { return r_.u16(); }
    unsigned int u24() { return r_.u24(); }
    uint32_t u32() { return r_.u32(); }
    uint64_t u64() { return r_.u64(); }
    float f32() { return r_.f32(); }
    double f64() { return r_.f64(); }
    // Every byte not read yet (none when the fields ran past the end).
    Bytes rest() {
        const size_t n = r_.pos() < r_.size() ? r_.size() - r_.pos() : 0;
        const unsigned char* p = r_.take(n);
        return p != nullptr ? Bytes(p, p + n) : Bytes();
    }

private:
    OrvosiReader r_;
};

// An invariant of the library that an input broke: reported like a crash, so
// that libFuzzer keeps the input.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "orvfuzz: invariant broken: %s\n", what);
    std::abort();
}

// The library's text lines and hex dumps are formatted as usual and then
// dropped, so that diagnostic code runs without the cost of a terminal.
inline void silenceStreams() {
    struct Discard : std::streambuf {
        int overflow(int c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
    };
    static Discard discard;
    std::cout.rdbuf(&discard);
    std::clog.rdbuf(&discard);
}

// A folder of this process for log and configuration files, removed at exit;
// in memory where the system offers it, as some inputs rewrite a file each.
// Its name is never destroyed: the removal runs among the exit handlers.
inline const std::string& scratchDir() {
    static const std::string& dir = *[] {
        std::error_code ec;
        const std::filesystem::path base = std::filesystem::is_directory("/dev/shm", ec)
                                               ? std::filesystem::path("/dev/shm")
                                               : std::filesystem::temp_directory_path();
        std::string templ = (base / "orvfuzz-XXXXXX").string();
        if (mkdtemp(templ.data()) == nullptr) require(false, "a scratch folder can be made");
        auto* name = new std::string(templ + "/");
        std::atexit([] {
            std::error_code failed;
            std::filesystem::remove_all(scratchDir(), failed);
        });
        return name;
    }();
    return dir;
}

// Writes a file into the scratch folder and returns its path.
inline std::string writeScratchFile(const std::string& name, const void* data, size_t size) {
    const std::string path = scratchDir() + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    require(f != nullptr, "a scratch file can be written");
    if (size != 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
    return path;
}

inline std::string writeScratchFile(const std::string& name, const std::string& text) {
    return writeScratchFile(name, text.data(), text.size());
}

}  // namespace orvfuzz
