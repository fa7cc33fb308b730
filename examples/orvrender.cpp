// A render loop at 90 Hz on a thread of its own, fed by a pose feed: each
// frame asks for the pose predicted to the moment the frame will be shown,
// which costs the render thread no system call, lock or wait. The main
// thread meanwhile does what else an application does with the tracker
// (here: error codes), through the feed's lock. Point it at a system with
//   orvrender path/to/orvaccess.ini [seconds]
#include <orvaccess/OrvPoseFeed.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

constexpr double kRadToDeg = 180.0 / 3.14159265358979323846;
constexpr auto kFrame = std::chrono::nanoseconds(1000000000 / 90);
// From the start of a frame until it is on the display: a frame to render,
// a frame to scan out.
constexpr unsigned long kFrameToDisplayUs = 2 * 1000000 / 90;

struct FrameStats {
    std::atomic<unsigned long> frames{0}, stale{0}, newPoses{0};
    std::atomic<unsigned long> lastTag{0};
    std::atomic<double> lastYawDeg{0.0}, lastPredictionMs{0.0};
};

void render(const OrvPoseFeed& feed, const std::atomic<bool>& running, FrameStats& stats) {
    OrvPoseFeed::Reader reader(feed);
    s_OrvPoseFeedPose pose;
    uint64_t lastSequence = 0;
    auto next = std::chrono::steady_clock::now();
    while (running.load()) {
        next += kFrame;
        std::this_thread::sleep_until(next);
        // The display time on the library clock; a real renderer takes it
        // from its swap chain.
        const auto nowUs = static_cast<unsigned long>(OrvosiUtil_getTimeMs() * 1000.0 + 0.5);
        const unsigned long displayUs = nowUs + kFrameToDisplayUs;
        if (reader.getAtTime(displayUs, &pose)) {
            if (pose.sequence != lastSequence) stats.newPoses += 1;
            lastSequence = pose.sequence;
            stats.lastTag = pose.data.packetTag;
            stats.lastYawDeg = pose.data.euler[2] * kRadToDeg;
            stats.lastPredictionMs = pose.predictionS * 1000.0;
            if (pose.stale) stats.stale += 1;  // an old pose: the tracker has gone quiet
        }
        stats.frames += 1;  // ... draw the scene with pose.data.cbn and pose.data.position
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string ini = argc > 1 ? argv[1] : "orvaccess.ini";
    const double seconds = argc > 2 ? std::atof(argv[2]) : 10.0;

    OrvPoseFeed feed(ini);
    if (!feed.isRunning()) {
        std::fprintf(stderr, "orvrender: %s (configuration %s)\n", feed.getLastError().c_str(), ini.c_str());
        return 1;
    }
    std::printf("orvrender: 90 Hz render loop on %s for %.1f s\n", ini.c_str(), seconds);

    std::atomic<bool> running{true};
    FrameStats stats;
    std::thread renderer(render, std::cref(feed), std::cref(running), std::ref(stats));

    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    unsigned long framesBefore = 0;
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        {
            auto access = feed.access();
            s_OrvAccessErrorCode code{};
            while (access->getErrorCode(&code) != 0)
                std::printf("  error %u (value %u): %s\n", code.code, code.value,
                            access->getErrorMessage(code.code).c_str());
        }
        const unsigned long frames = stats.frames.load();
        std::printf("%3lu frames/s  tag %10lu  yaw %7.2f deg  predicted %5.1f ms  stale frames %lu\n",
                    frames - framesBefore, stats.lastTag.load(), stats.lastYawDeg.load(),
                    stats.lastPredictionMs.load(), stats.stale.load());
        framesBefore = frames;
        const std::string problem = feed.getServiceError();
        if (!problem.empty()) std::printf("  %s\n", problem.c_str());
    }
    running = false;
    renderer.join();
    std::printf("%lu frames, %lu with a new pose, %lu stale\n", stats.frames.load(), stats.newPoses.load(),
                stats.stale.load());
    // What the feed did to keep the stream (another client's command, orvRx restarting).
    s_OrvPoseFeedRecovery r{};
    feed.getRecovery(&r);
    std::printf("stream: %s; outages %llu recovered %llu, asked orvRx %llu times, reopened %llu times\n", r.text,
                static_cast<unsigned long long>(r.outages), static_cast<unsigned long long>(r.recoveries),
                static_cast<unsigned long long>(r.requests), static_cast<unsigned long long>(r.reopens));
    return 0;
}
