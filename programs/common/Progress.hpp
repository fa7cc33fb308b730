// The one progress line every long-running program keeps on standard error
// (orvrec, orvplay, orvbridge, orvctl's file transfers): rewritten in place on
// a terminal, an occasional plain line elsewhere (a log, a pipe). Sizes and
// rates are written in one convention by byteText and rateText.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace orvprogress {

class ProgressLine {
public:
    explicit ProgressLine(std::FILE* out);
    // Shows `text` now when it is time for the next update.
    void update(uint64_t nowUs, const std::string& text);
    // Ends the line so that what follows starts on a fresh one.
    void finish();
    // Erases the line instead, for a final line that replaces it.
    void clear();
    // Whether updates are redrawn in place (a caller may then show more).
    bool terminal() const { return terminal_; }

private:
    std::FILE* out_;
    bool terminal_;
    uint64_t nextUs_ = 0;
    size_t lastWidth_ = 0;
};

// Decimal units, as the kernel's and the disk's tools count them and as the
// README's figures are written: "789 B", "9999 B", "456 kB", "12.3 MB".
std::string byteText(uint64_t bytes);
// The same units per second: "456 kB/s".
std::string rateText(double bytesPerS);

}  // namespace orvprogress
