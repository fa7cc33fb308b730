// orvsoak: the library against orvsim with every fault switched on, for as
// long as asked, watching both for growth.
//
//   orvsoak --orvsim PATH [--seconds 30] [--warmup S] [--every 2] [--faults 0.01]
//
// orvsim runs as a process of its own and drops, corrupts, duplicates and
// reorders that share of every stream, sends errors of orvRx and orvHub and
// publishes images over UDP and in shared memory. This process opens the
// library on the same configuration and calls every getter in a loop, as an
// application would, sending uplink data now and then. Every few seconds it
// samples the heap in use, the resident memory and the open descriptors of
// itself and of orvsim. It fails when any of them grows after the warm-up
// (the first third unless given) beyond a small allowance (descriptors: not
// at all), or when the corrupted datagrams orvsim sent on a stream differ
// from the error codes the library queued for that stream.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "support/Loopback.hpp"

namespace {

using Clock = std::chrono::steady_clock;

// Growth allowed after the warm-up: the queues' rings grow only when a
// backlog exceeds every earlier one, and resident memory moves with the
// allocator's whims; a leak of a few bytes per datagram passes these within
// seconds at the simulator's rates.
constexpr long kHeapAllowanceKb = 1024;
constexpr long kRssAllowanceKb = 4096;

struct Options {
    std::string orvsim;
    double seconds = 30;
    double warmup = -1;  // a third of the run
    double every = 2;
    double faults = 0.01;
};

struct Sample {
    double t;
    long heapKb;  // this process's heap in use
    long rssKb;
    long fds;
    long simRssKb;
    long simFds;
};

long countEntries(const std::string& dir) {
    std::error_code ec;
    long n = 0;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) ++n;
    return n;
}

long rssKb(const std::string& statusFile) {
    std::ifstream in(statusFile);
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

Sample sample(double t, pid_t sim) {
    const std::string proc = "/proc/" + std::to_string(sim);
    // Counting opens the folder itself, the same one descriptor every time.
    return Sample{t,
                  static_cast<long>((mallinfo2().uordblks + mallinfo2().hblkhd) / 1024),
                  rssKb("/proc/self/status"),
                  countEntries("/proc/self/fd"),
                  rssKb(proc + "/status"),
                  countEntries(proc + "/fd")};
}

// orvsim with its standard output on a pipe, for the report it prints at the end.
pid_t startSim(const Options& o, const std::string& ini, const std::string& files, int* report) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const std::string share = std::to_string(o.faults);
    std::vector<std::string> args = {o.orvsim,
                                     "--ini",
                                     ini,
                                     "--files",
                                     files,
                                     "--drop",
                                     share,
                                     "--corrupt",
                                     share,
                                     "--duplicate",
                                     share,
                                     "--reorder",
                                     share,
                                     "--follow-streaming",
                                     "--startup",
                                     "0.2",
                                     "--error-period",
                                     "1"};
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        std::perror("orvsoak: cannot start orvsim");
        _exit(127);
    }
    close(fds[1]);
    *report = fds[0];
    return pid;
}

std::string readAll(int fd) {
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
    close(fd);
    return text;
}

// What orvsim says it corrupted, per error code the library raises for it:
// its table's "corrupt" column and its "codes" line (stream name, code).
std::map<unsigned int, unsigned long> corruptedByCode(const std::string& report) {
    std::map<std::string, unsigned long> corrupted;
    std::map<unsigned int, unsigned long> byCode;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string word; words >> word;) w.push_back(word);
        if (w.size() == 10 && std::isdigit(static_cast<unsigned char>(w[1][0])))
            corrupted[w[0]] = std::stoul(w[4]);
        if (!w.empty() && w[0] == "codes")
            for (size_t i = 1; i + 1 < w.size(); i += 2)
                byCode[static_cast<unsigned int>(std::stoul(w[i + 1]))] = corrupted[w[i]];
    }
    return byCode;
}

// Every getter once, the error codes counted; the uplink now and then.
void exercise(OrvAccess& a, std::vector<unsigned char>& image, std::map<unsigned int, unsigned long>& codes,
              unsigned long round) {
    bool valid = false;
    s_OrvAccessTrkDataExt track{};
    a.getTrackingDataAtTime(a.getTimeUs() + 20000, &valid, &track);
    a.getTrackingData(&valid, &track);
    s_OrvAccessImuData imu{};
    while (a.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu) && valid) {
    }
    s_OrvAccessAuxData aux{};
    while (a.getAuxData(&valid, &aux) && valid) {
    }
    OrvAccess::s_ImuCrs crs{};
    a.getImuCrs(ORVACCESS_IMU_CAMERA, &valid, &crs);
    unsigned int tag = 0, count = 0;
    a.getTargetCount(&valid, &tag, &count);
    OrvAccess::s_TgtResData res{};
    while (a.getTargetResData(&valid, &res) && valid) {
    }
    s_OrvAccessDiagData diag{};
    a.getDiagData(&valid, &diag);
    s_OrvAccessPlatPoseData pose{};
    a.getPlatformPoseData(&valid, &pose);
    s_OrvAccessGpsData gps{};
    a.getGpsData(&valid, &gps);
    s_OrvAccessHubData hub{};
    a.getHubData(&valid, &hub);
    OrvAccess::s_FeatData feature{};
    while (a.getFeatureData(&valid, &feature) && valid) {
    }
    s_OrvAccessPoseRecStats stats{};
    a.getPoseRecoveryStats(&valid, &stats);
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int seq = 0;
    a.getImage(&percent, &format, &seq, image.data(), image.size());
    s_OrvAccessErrorCode e{};
    while (a.getErrorCode(&e) != 0) ++codes[e.code];
    if (round % 100 == 0) {
        a.setPlatformPoseData(s_OrvAccessPlatPoseData{static_cast<uint32_t>(round), {0.1f, 0.2f, 0.3f}});
        s_OrvAccessGpsData up{};
        up.lat = 48.0;
        a.setGpsData(&up);
        a.sendInputData(static_cast<unsigned char>(round));
    }
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const char* value = argv[i + 1];
        if (key == "--orvsim")
            o.orvsim = value;
        else if (key == "--seconds")
            o.seconds = std::atof(value);
        else if (key == "--warmup")
            o.warmup = std::atof(value);
        else if (key == "--every")
            o.every = std::atof(value);
        else if (key == "--faults")
            o.faults = std::atof(value);
        else
            return false;
    }
    if (o.warmup < 0) o.warmup = o.seconds / 3;
    return !o.orvsim.empty() && o.seconds > 0 && o.every > 0 && argc % 2 == 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(
            stderr, "usage: orvsoak --orvsim PATH [--seconds 30] [--warmup S] [--every 2] [--faults 0.01]\n");
        return 2;
    }
    std::string folder = (std::filesystem::temp_directory_path() / "orvsoak-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) return 1;
    const std::string shm = "orvsoak" + std::to_string(getpid());
    int ports[7];
    for (int& p : ports) p = orvtest::findFreePort();
    std::ostringstream ini;
    ini << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\ntcpOrvRxPort = " << ports[0]
        << "\nudpOrvRxPort = " << ports[1] << "\nudpOrvRxImgPort = " << ports[2]
        << "\nudpOrvCorePort = " << ports[3] << "\nudpOrvHubPort = " << ports[4]
        << "\nudpNftPort = " << ports[5] << "\nudpOrvRxInputPort = " << ports[6] << "\nsMemImgName = " << shm
        << "\nudpOrvRxRcvBufSize = 8388608\nudpOrvRxImgRcvBufSize = 8388608\nudpOrvCoreRcvBufSize = 8388608"
           "\nudpOrvHubRcvBufSize = 8388608\nudpNftRcvBufSize = 8388608\n";
    const std::string iniPath = folder + "/orvaccess.ini";
    std::ofstream(iniPath) << ini.str();
    const std::string files = folder + "/files";
    std::filesystem::create_directories(files);

    int reportFd = -1;
    const pid_t sim = startSim(o, iniPath, files, &reportFd);
    if (sim < 0) return 1;

    // orvsim needs a moment to listen; the library connects once it does.
    OrvAccess a;
    a.setIniPath(iniPath);
    bool connected = false;
    for (int tries = 0; tries < 100 && !connected; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        s_OrvAccessStatus st{};
        connected = a.open() && a.getStatus(&st) && (st.connections & ORVACCESS_CONN_TCP) != 0 &&
                    (st.connections & ORVACCESS_CONN_SHARED_MEM) != 0;
    }

    std::vector<Sample> samples;
    std::map<unsigned int, unsigned long> codes;
    std::vector<unsigned char> image(a.getImageBufSize());
    const auto start = Clock::now();
    const auto since = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    unsigned long round = 0;
    std::printf("%7s %10s %9s %5s %12s %8s\n", "t (s)", "heap (kB)", "rss (kB)", "fds", "orvsim rss",
                "orvsim fds");
    for (double next = 0; connected && since() < o.seconds; ++round) {
        exercise(a, image, codes, round);
        if (since() >= next) {
            samples.push_back(sample(since(), sim));
            const Sample& s = samples.back();
            std::printf("%7.1f %10ld %9ld %5ld %12ld %8ld\n", s.t, s.heapKb, s.rssKb, s.fds, s.simRssKb,
                        s.simFds);
            std::fflush(stdout);
            next += o.every;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // orvsim stops and sends what it held back; the library takes the rest.
    // Should orvsim not stop, the alarm ends the soak, and the run fails.
    alarm(30);
    kill(sim, SIGINT);
    const std::string report = readAll(reportFd);
    int status = 0;
    waitpid(sim, &status, 0);
    alarm(0);
    for (const auto end = Clock::now() + std::chrono::milliseconds(300); Clock::now() < end; ++round)
        exercise(a, image, codes, 1);
    a.close();
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);

    bool ok = connected && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!connected) std::printf("soak: the library never reached orvsim\n");
    // The warm-up's second half sets the levels the rest must keep to.
    Sample peak{0, 0, 0, 0, 0, 0};
    for (const Sample& s : samples) {
        if (s.t < o.warmup / 2) continue;
        if (s.t <= o.warmup) {
            peak = Sample{s.t,
                          std::max(peak.heapKb, s.heapKb),
                          std::max(peak.rssKb, s.rssKb),
                          std::max(peak.fds, s.fds),
                          std::max(peak.simRssKb, s.simRssKb),
                          std::max(peak.simFds, s.simFds)};
            continue;
        }
        const auto grew = [&](const char* what, long now, long before, long allowance) {
            if (now <= before + allowance) return;
            std::printf("soak: %s grew from %ld to %ld after the warm-up (at %.1f s)\n", what, before, now,
                        s.t);
            ok = false;
        };
        grew("heap in use (kB)", s.heapKb, peak.heapKb, kHeapAllowanceKb);
        grew("resident memory (kB)", s.rssKb, peak.rssKb, kRssAllowanceKb);
        grew("descriptors", s.fds, peak.fds, 0);
        grew("orvsim's resident memory (kB)", s.simRssKb, peak.simRssKb, kRssAllowanceKb);
        grew("orvsim's descriptors", s.simFds, peak.simFds, 0);
    }

    const std::map<unsigned int, unsigned long> corrupted = corruptedByCode(report);
    if (corrupted.empty()) {
        std::printf("soak: no report from orvsim\n");
        ok = false;
    }
    std::printf("soak: corrupted datagrams sent / reported:");
    for (const auto& [code, sent] : corrupted) {
        const unsigned long got = codes.count(code) ? codes.at(code) : 0;
        std::printf(" %u %lu/%lu", code, sent, got);
        ok = ok && sent == got;
    }
    std::printf("\nsoak: %lu rounds, %zu samples: %s\n", round, samples.size(), ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
