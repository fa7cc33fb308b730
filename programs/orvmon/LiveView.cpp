#include "LiveView.hpp"

#include <curses.h>

#include "Layout.hpp"

namespace orvmon {

std::unique_ptr<LiveView> LiveView::open() {
    // newterm, unlike initscr, reports a terminal it cannot drive instead of
    // ending the program.
    SCREEN* screen = newterm(nullptr, stdout, stdin);
    if (screen == nullptr) return nullptr;
    set_term(screen);
    cbreak();  // keys at once; Ctrl-C still raises SIGINT
    noecho();
    nodelay(stdscr, TRUE);
    keypad(stdscr, TRUE);
    curs_set(0);
    return std::unique_ptr<LiveView>(new LiveView(screen));
}

LiveView::LiveView(void* screen) : screen_(screen) {}

LiveView::~LiveView() { close(); }

void LiveView::close() {
    if (!open_) return;
    open_ = false;
    endwin();
    delscreen(static_cast<SCREEN*>(screen_));
}

int LiveView::key() {
    const int c = getch();
    return c == ERR ? -1 : c;
}

void LiveView::draw(const Monitor& m, const ViewText& text) {
    erase();
    const std::vector<std::string> lines = layoutView(m, text, COLS, LINES);
    for (size_t y = 0; y < lines.size(); ++y) {
        // The title, and what needs attention, stand out.
        const bool bold = y == 0 || lines[y].rfind("! ", 0) == 0 || lines[y].find("STALE") != std::string::npos;
        if (bold) attron(A_BOLD);
        mvaddnstr(static_cast<int>(y), 0, lines[y].c_str(), COLS);
        if (bold) attroff(A_BOLD);
    }
    refresh();
}

}  // namespace orvmon
