// Capture files through libpcap: written as classic pcap (what tcpdump,
// Wireshark and every network tool read), read as pcap or pcapng.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <pcap/pcap.h>

namespace orvtools {

class PcapWriter {
public:
    PcapWriter() = default;
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // A new file of the given link type (libpcap's DLT_ number). False with
    // error set, naming the file and the reason.
    bool open(const std::string& path, int linkType, std::string& error);
    // The same, for frames captured by a live handle (its link type).
    bool open(const std::string& path, pcap_t* live, std::string& error);
    // Each frame reaches the file before the call returns. After a failed
    // write (a full disk, an I/O error) the file is cut back to its last whole
    // frame, so that it stays readable, and nothing more is written.
    bool write(uint64_t timeUs, const unsigned char* frame, size_t size);
    // Writes a frame as libpcap handed it over from a live capture.
    bool write(const pcap_pkthdr* header, const unsigned char* frame);
    // Closes; false when a write, the flush or the close failed, with the
    // reason and what the file still holds.
    bool close(std::string& error);
    bool isOpen() const { return dumper_ != nullptr; }
    bool failed() const { return !error_.empty(); }
    const std::string& error() const { return error_; }
    // Bytes in the file so far.
    uint64_t bytes() const { return bytes_; }
    uint64_t frames() const { return frames_; }

private:
    void fail(const char* what, int err);

    pcap_t* dead_ = nullptr;
    pcap_dumper_t* dumper_ = nullptr;
    std::string path_;
    uint64_t bytes_ = 0;
    uint64_t frames_ = 0;
    std::string error_;
};

// One frame of a file; `data` stays valid until the next call of next().
struct Frame {
    uint64_t timeUs = 0;
    const unsigned char* data = nullptr;
    size_t captured = 0;
    size_t original = 0;
};

class PcapReader {
public:
    PcapReader() = default;
    ~PcapReader();
    PcapReader(const PcapReader&) = delete;
    PcapReader& operator=(const PcapReader&) = delete;

    // pcap or pcapng; false with error set.
    bool open(const std::string& path, std::string& error);
    int linkType() const;
    // False at the end of the file, or on a damaged one (error() then says so).
    bool next(Frame& out);
    const std::string& error() const { return error_; }
    void close();

private:
    pcap_t* handle_ = nullptr;
    std::string error_;
};

}  // namespace orvtools
