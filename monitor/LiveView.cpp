#include "LiveView.hpp"

#include <curses.h>

#include <cstdarg>
#include <cstdio>

#include "Monitor.hpp"
#include "Names.hpp"

namespace orvmon {

namespace {

// One screen line, cut at the right edge instead of wrapping.
void line(int& y, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void line(int& y, const char* fmt, ...) {
    if (y >= LINES) return;
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    mvaddnstr(y++, 0, buf, COLS);
}

double deg(float rad) { return rad * kRadToDeg; }

unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

const char* sourceName(Monitor::Kind k) {
    return k == Monitor::kImageShm ? "shared memory" : k == Monitor::kImageUdp ? "UDP" : "unattributed";
}

}  // namespace

std::unique_ptr<LiveView> LiveView::open(std::string title, bool inputKey) {
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
    return std::unique_ptr<LiveView>(new LiveView(std::move(title), inputKey, screen));
}

LiveView::LiveView(std::string title, bool inputKey, void* screen)
    : title_(std::move(title)), inputKey_(inputKey), screen_(screen) {}

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

void LiveView::draw(const Monitor& m) {
    erase();
    int y = 0;
    attron(A_BOLD);
    line(y, "%s   t=%.1fs   q quits%s", title_.c_str(), m.runTimeS(), inputKey_ ? ", i sends input" : "");
    attroff(A_BOLD);
    ++y;

    if (m.hasRawPose()) {
        const s_OrvAccessTrkDataExt& p = m.rawPose();
        line(y, "pose       tag %u  pos %8.3f %8.3f %8.3f m  rpy %7.2f %7.2f %7.2f deg", p.packetTag, p.position[0],
             p.position[1], p.position[2], deg(p.euler[0]), deg(p.euler[1]), deg(p.euler[2]));
    } else {
        line(y, "pose       (none yet)");
    }
    if (m.hasPredictedPose()) {
        const s_OrvAccessTrkDataExt& p = m.predictedPose();
        line(y, "predicted  horizon %6.1f ms             rpy %7.2f %7.2f %7.2f deg", m.predictedHorizonS() * 1e3,
             deg(p.euler[0]), deg(p.euler[1]), deg(p.euler[2]));
    } else {
        line(y, "predicted  (none yet)");
    }
    ++y;

    line(y, "%-20s %8s %10s   %-20s %8s %10s", "records", "rate/s", "total", "records", "rate/s", "total");
    const int kinds = Monitor::kKindCount;
    const int half = (kinds + 1) / 2;
    for (int i = 0; i < half; ++i) {
        const auto a = static_cast<Monitor::Kind>(i);
        char right[64] = "";
        if (i + half < kinds) {
            const auto b = static_cast<Monitor::Kind>(i + half);
            std::snprintf(right, sizeof right, "%-20s %8.1f %10llu", Monitor::kindName(b), m.rate(b), ull(m.count(b)));
        }
        line(y, "%-20s %8.1f %10llu   %s", Monitor::kindName(a), m.rate(a), ull(m.count(a)), right);
    }
    ++y;

    const auto seq = [&](const char* name, const SeqCheck& s) {
        line(y, "sequence   %-9s missing %llu  duplicate %llu  out-of-order %llu  restarts %llu", name,
             ull(s.missing()), ull(s.duplicates()), ull(s.outOfOrder()), ull(s.restarts()));
    };
    seq("tracking", m.trackingSeq());
    seq("imu", m.imuSeq());
    seq("hub", m.hubSeq());

    const Monitor::StatusView& st = m.status();
    line(y, "connected  %s", orvnames::connectionNames(st.connections).c_str());
    line(y, "receiving  %s", orvnames::receivedNames(st.received).c_str());
    if (m.hasDiag()) {
        const s_OrvAccessDiagData& d = m.lastDiag();
        line(y, "diagnostic state %u (status word %u)  error bytes %u %u %u %u", d.state, st.diagState, d.errorCodes[0],
             d.errorCodes[1], d.errorCodes[2], d.errorCodes[3]);
    } else {
        line(y, "diagnostic status word %u", st.diagState);
    }

    const Monitor::ImageView& img = m.image();
    if (img.any)
        line(y, "image      progress %3d%%  last #%u format %d %dx%dx%d %lu bytes via %s", img.percent, img.sequenceId,
             img.format, img.width, img.height, img.bytesPerPixel, img.size, sourceName(img.source));
    else
        line(y, "image      progress %3d%%  none complete yet", img.percent);

    const Monitor::UplinkView& up = m.uplink();
    line(y, "uplink     sent platform %llu gps %llu input %llu failed %llu  last tag %u  reflected %u (%llu of ours)",
         ull(up.platPoses), ull(up.gps), ull(up.inputs), ull(up.failed), up.lastTag, up.lastReflected,
         ull(up.reflectedSent));

    const PredictionMeter& pm = m.prediction();
    const ErrorStats& pe = pm.predicted();
    const ErrorStats& ue = pm.unpredicted();
    line(y, "pred.err   n %llu  mean %.3f rms %.3f p95 %.3f max %.3f deg  horizon %.1f ms  unmatched %llu", ull(pe.n()),
         pe.mean(), pe.rms(), pe.percentile(0.95), pe.max(), pm.meanHorizonMs(), ull(pm.unmatched()));
    line(y, "unpredicted          mean %.3f rms %.3f p95 %.3f max %.3f deg", ue.mean(), ue.rms(), ue.percentile(0.95),
         ue.max());
    ++y;

    line(y, "errors     %llu in all; the last:", ull(m.count(Monitor::kErrorCode)));
    for (size_t i = 0; i < m.lastErrorCount(); ++i) {
        const Monitor::ErrorEvent& e = m.lastError(i);
        line(y, "  %5u value %-10u %s", e.code, e.value, m.messageOf(e.code).c_str());
    }
    if (m.failures() > 0) line(y, "failures   %llu, last %s", ull(m.failures()), m.lastFailure().c_str());
    refresh();
}

}  // namespace orvmon
