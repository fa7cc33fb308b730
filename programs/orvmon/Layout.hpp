// The live view's text for a terminal of a given size, without the
// terminal: everything fits 80 x 24; a wider terminal gets more columns of
// record counts, a taller one more error codes and warnings.
#pragma once

#include <string>
#include <vector>

namespace orvmon {

class Monitor;

struct ViewText {
    std::string title;
    bool inputKey = false;              // 'i' sends input
    std::vector<std::string> warnings;  // newest concerns first
};

constexpr int kMinCols = 80, kMinRows = 24;

// At most `rows` lines of at most `cols` characters.
std::vector<std::string> layoutView(const Monitor& m, const ViewText& v, int cols, int rows);

}  // namespace orvmon
