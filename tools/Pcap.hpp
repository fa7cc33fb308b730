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
    void write(uint64_t timeUs, const unsigned char* frame, size_t size);
    // Writes a frame as libpcap handed it over from a live capture.
    void write(const pcap_pkthdr* header, const unsigned char* frame);
    // Flushes and closes; false when the file could not be written whole.
    bool close(std::string& error);
    bool isOpen() const { return dumper_ != nullptr; }
    // Bytes written so far.
    uint64_t bytes() const { return bytes_; }

private:
    pcap_t* dead_ = nullptr;
    pcap_dumper_t* dumper_ = nullptr;
    std::string path_;
    uint64_t bytes_ = 0;
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
