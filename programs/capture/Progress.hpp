// The progress line both tools keep on the terminal while they run: rewritten
// in place on a terminal, an occasional plain line elsewhere (a log, a pipe).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace orvtools {

class ProgressLine {
public:
    explicit ProgressLine(std::FILE* out);
    // Shows `text` now when it is time for the next update.
    void update(uint64_t nowUs, const std::string& text);
    // Ends the line so that what follows starts on a fresh one.
    void finish();

private:
    std::FILE* out_;
    bool terminal_;
    uint64_t nextUs_ = 0;
    size_t lastWidth_ = 0;
};

// "12.3 MB", "456 kB", "789 B".
std::string humanBytes(uint64_t bytes);

}  // namespace orvtools
