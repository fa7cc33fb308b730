#include "capture/Pcap.hpp"

#include <pcap/pcap.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace orvtools {

namespace {

// Room for the largest UDP datagram with every header in front of it.
constexpr int kSnapLength = 262144;

}  // namespace

PcapWriter::~PcapWriter() {
    std::string ignored;
    close(ignored);
}

bool PcapWriter::open(const std::string& path, int linkType, std::string& error) {
    std::string ignored;
    close(ignored);
    dead_ = pcap_open_dead(linkType, kSnapLength);
    if (dead_ == nullptr) {
        error = "libpcap cannot make a file of link type " + std::to_string(linkType);
        return false;
    }
    return open(path, dead_, error);
}

bool PcapWriter::open(const std::string& path, pcap_t* handle, std::string& error) {
    dumper_ = pcap_dump_open(handle, path.c_str());
    if (dumper_ == nullptr) {
        error = "Cannot write " + path + ": " + pcap_geterr(handle);
        return false;
    }
    path_ = path;
    bytes_ = 0;
    frames_ = 0;
    error_.clear();
    errno = 0;
    // The file header is still in the buffer: a file that cannot take even
    // that says so now.
    if (pcap_dump_flush(dumper_) != 0) {
        const int err = errno != 0 ? errno : EIO;
        error = "Cannot write " + path + ": " + std::strerror(err) +
                (err == ENOSPC ? "; free some room, or record into another folder (-o)" : "");
        pcap_dump_close(dumper_);
        dumper_ = nullptr;
        return false;
    }
    bytes_ = 24;
    return true;
}

void PcapWriter::fail(const char* what, int err) {
    FILE* f = pcap_dump_file(dumper_);
    // Whatever part of the frame got out goes again: the file ends with its
    // last whole frame and stays readable.
    const bool cut = ftruncate(fileno(f), static_cast<off_t>(bytes_)) == 0;
    error_ = std::string(what) + " " + path_ + ": " + std::strerror(err) + "; it " + (cut ? "holds" : "may be cut after") +
             " the " + std::to_string(frames_) + " frames (" + std::to_string(bytes_) + " bytes) written before" +
             (err == ENOSPC ? ": free some room, or record into another folder (-o)" : "");
}

bool PcapWriter::write(uint64_t timeUs, const unsigned char* frame, size_t size) {
    pcap_pkthdr h{};
    h.ts.tv_sec = static_cast<time_t>(timeUs / 1000000);
    h.ts.tv_usec = static_cast<suseconds_t>(timeUs % 1000000);
    h.caplen = h.len = static_cast<bpf_u_int32>(size);
    return write(&h, frame);
}

bool PcapWriter::write(const pcap_pkthdr* header, const unsigned char* frame) {
    if (dumper_ == nullptr || failed()) return false;
    errno = 0;
    pcap_dump(reinterpret_cast<u_char*>(dumper_), header, frame);
    // One flush per frame: a full disk is found at the frame that did not
    // fit, and the file is known to end on a whole frame.
    FILE* f = pcap_dump_file(dumper_);
    if (std::fflush(f) != 0 || std::ferror(f) != 0) {
        fail("writing", errno != 0 ? errno : EIO);
        return false;
    }
    bytes_ += 16 + header->caplen;
    ++frames_;
    return true;
}

bool PcapWriter::close(std::string& error) {
    if (dumper_ != nullptr) {
        FILE* f = pcap_dump_file(dumper_);
        if (!failed() && (std::fflush(f) != 0 || std::ferror(f) != 0 || (fsync(fileno(f)) != 0 && errno != EINVAL)))
            fail("writing", errno != 0 ? errno : EIO);
        pcap_dump_close(dumper_);
        dumper_ = nullptr;
    }
    if (dead_ != nullptr) pcap_close(dead_);
    dead_ = nullptr;
    if (failed()) error = error_;
    return !failed();
}

PcapReader::~PcapReader() { close(); }

bool PcapReader::open(const std::string& path, std::string& error) {
    close();
    char text[PCAP_ERRBUF_SIZE] = {};
    handle_ = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_MICRO, text);
    if (handle_ == nullptr) {
        error = "Cannot read " + path + ": " + text;
        return false;
    }
    return true;
}

int PcapReader::linkType() const { return handle_ != nullptr ? pcap_datalink(handle_) : -1; }

bool PcapReader::next(Frame& out) {
    if (handle_ == nullptr) return false;
    pcap_pkthdr* h = nullptr;
    const u_char* data = nullptr;
    const int r = pcap_next_ex(handle_, &h, &data);
    if (r == 1) {
        out.timeUs = static_cast<uint64_t>(h->ts.tv_sec) * 1000000u + static_cast<uint64_t>(h->ts.tv_usec);
        out.data = data;
        out.captured = h->caplen;
        out.original = h->len;
        return true;
    }
    if (r == PCAP_ERROR) error_ = std::string("damaged capture file: ") + pcap_geterr(handle_);
    return false;
}

void PcapReader::close() {
    if (handle_ != nullptr) pcap_close(handle_);
    handle_ = nullptr;
}

}  // namespace orvtools
