// The ncurses screen of orvmon. It only reads the Monitor; the terminal is
// given back (endwin) when the view is destroyed or closed, whichever first.
#pragma once

#include <memory>
#include <string>

#include "Layout.hpp"

namespace orvmon {

class Monitor;

class LiveView {
public:
    // Null when the terminal cannot be driven (an unknown TERM, say).
    static std::unique_ptr<LiveView> open();
    ~LiveView();
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;

    void draw(const Monitor& m, const ViewText& text);
    // The key pressed since the last call, or -1.
    int key();
    void close();

private:
    explicit LiveView(void* screen);

    void* screen_;  // the ncurses SCREEN, kept opaque out of this header
    bool open_ = true;
};

}  // namespace orvmon
