// orvsim: the tracking system on this machine, configured by the library's
// own INI file. Runs until the duration passes or SIGINT/SIGTERM, then
// prints what it sent, what it injected and what the uplink delivered.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Args.hpp"
#include "orvsim/Simulator.hpp"
#include "wire/Packets.hpp"

namespace {

std::atomic<bool> g_stop{false};

void onSignal(int) { g_stop = true; }

void printReport(const orvsim::SimReport& r, std::FILE* out) {
    std::fprintf(out, "orvsim: ran %.1f s, %llu IMU samples (%llu skipped after stalls)\n", r.seconds,
                 static_cast<unsigned long long>(r.samples),
                 static_cast<unsigned long long>(r.skippedSamples));
    std::fprintf(out, "  %-9s %9s %9s %8s %8s %8s %8s %10s %9s %7s\n", "stream", "built", "sent", "dropped",
                 "corrupt", "checksum", "length", "duplicated", "reordered", "failed");
    for (int i = 0; i < orvsim::kStreamCount; ++i) {
        const orvsim::StreamReport& s = r.streams[i];
        const orvsim::FaultCounts& f = s.faults;
        std::fprintf(
            out, "  %-9s %9llu %9llu %8llu %8llu %8llu %8llu %10llu %9llu %7llu\n",
            orvsim::streamName(static_cast<orvsim::Stream>(i)), static_cast<unsigned long long>(s.built),
            static_cast<unsigned long long>(f.out), static_cast<unsigned long long>(f.dropped),
            static_cast<unsigned long long>(f.corrupted()), static_cast<unsigned long long>(f.badChecksum),
            static_cast<unsigned long long>(f.badLength), static_cast<unsigned long long>(f.duplicated),
            static_cast<unsigned long long>(f.reordered), static_cast<unsigned long long>(s.sendFailures));
    }
    // The error code the library queues for a damaged datagram of each stream.
    std::fprintf(out, "  codes    ");
    for (int i = 0; i < orvsim::kStreamCount; ++i) {
        const auto stream = static_cast<orvsim::Stream>(i);
        std::fprintf(out, " %s %u", orvsim::streamName(stream), orvsim::streamErrorCode(stream));
    }
    std::fprintf(out, "\n");
    std::fprintf(
        out, "  images    %llu over UDP, %llu in shared memory (%llu replaced before a reader took them)\n",
        static_cast<unsigned long long>(r.imagesUdp), static_cast<unsigned long long>(r.imagesShared),
        static_cast<unsigned long long>(r.sharedUnread));
    std::fprintf(
        out, "  errors    %llu orvCore error bytes, %llu orvRx error bytes, %llu orvHub error packets\n",
        static_cast<unsigned long long>(r.coreErrorBytes), static_cast<unsigned long long>(r.rxErrorBytes),
        static_cast<unsigned long long>(r.hubErrors));
    const orvsim::UplinkReport& u = r.uplink;
    std::fprintf(out, "  uplink    %llu platform poses (last tag %u), %llu GPS, %llu input, %llu bad\n",
                 static_cast<unsigned long long>(u.platformPoses), u.lastPlatformTag,
                 static_cast<unsigned long long>(u.gps), static_cast<unsigned long long>(u.inputs),
                 static_cast<unsigned long long>(u.bad));
    std::fprintf(out, "  commands  %llu handled, %llu with a bad checksum\n",
                 static_cast<unsigned long long>(r.commands),
                 static_cast<unsigned long long>(r.commandsRejected));
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"orvsim: a simulator of the tracking system (orvRx, orvCore, orvHub, NFT) on one machine"};
    orvargs::standard(app, "orvsim", ORVA_TOOL_VERSION);
    std::string ini = "orvaccess.ini";
    double duration = 0.0;
    std::string files;
    orvsim::SimConfig cfg;
    orvsim::SimRates& r = cfg.rates;
    int imageFormat = cfg.imageFormat;
    orvsim::FaultRates faults;
    std::vector<std::string> faultStreams;
    std::string replies = "normal";
    std::string motion = "smooth";
    std::string trace;

    const CLI::Validator rate = orvargs::number(0, 1e6, "datagrams a second");
    const CLI::Validator share = orvargs::number(0, 1, "shares (0 none, 1 all)");
    app.add_option("--ini", ini, "Configuration file shared with the library")
        ->capture_default_str()
        ->check(orvargs::readableFile());
    app.add_option("--duration", duration, "Seconds to run; 0 runs until interrupted")
        ->capture_default_str()
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"));
    app.add_option("--files", files, "Folder that get and put file work on (default: a temporary folder)");
    app.add_option("--imu-hz", r.imu, "Meta packets, one IMU sample each")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--tracking-hz", r.tracking, "Tracking packets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--optical-hz", r.optical, "Tracking packets with optical data")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--pra-hz", r.pra, "PRA packets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--hub-hz", r.hub, "Hub data packets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--nft-hz", r.nft, "NFT packets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--image-hz", r.image, "Camera images over UDP")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--shm-image-hz", r.sharedImage, "Camera images in shared memory")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--diag-hz", r.diag, "Diagnostic subpackets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--target-hz", r.target, "Target lists")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--platpose-hz", r.platPose, "Platform-pose subpackets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--gps-hz", r.gps, "GPS subpackets")
        ->capture_default_str()
        ->check(rate);
    app.add_option("--error-period", r.errorPeriodS, "Seconds between orvRx and orvHub errors; 0: none")
        ->capture_default_str()
        ->check(orvargs::number(0, orvargs::kLongestRunS, "seconds"));
    app.add_option("--image-format", imageFormat,
                   "Image format code (10, 11, 12, 20, 21, 30, 31, 40, 41, 50, 51)")
        ->check(orvargs::number(0, 255, "format code"))
        ->capture_default_str();
    app.add_option("--image-piece", cfg.imagePiece, "Pixel bytes per image datagram")
        ->check(orvargs::number(1, static_cast<double>(orvwire::kMaxImagePiece), "bytes"))
        ->capture_default_str();
    app.add_option("--drop", faults.drop, "Share of datagrams dropped")->check(share);
    app.add_option("--corrupt", faults.corrupt, "Share corrupted (bad checksum or wrong length)")
        ->check(share);
    app.add_option("--duplicate", faults.duplicate, "Share sent twice")->check(share);
    app.add_option("--reorder", faults.reorder, "Share sent after their successor")
        ->check(share);
    app.add_option("--fault-streams", faultStreams, "Streams the faults apply to (default: all)")
        ->check(CLI::IsMember({"tracking", "pra", "meta", "image", "hub", "nft"}))
        ->delimiter(',');
    app.add_option("--startup", cfg.startupS, "Seconds from streaming on to the first streamed packet")
        ->capture_default_str()
        ->check(orvargs::number(0, 3600, "seconds"));
    app.add_flag("--follow-streaming", cfg.followStreaming,
                 "Hub, NFT and shared-memory images flow only while streaming, like the rest");
    app.add_option("--seed", cfg.seed, "Seed of the fault generator")->capture_default_str();
    app.add_option("--replies", replies, "Command server: normal, silent or corrupt")
        ->check(CLI::IsMember({"normal", "silent", "corrupt"}))
        ->capture_default_str();
    app.add_option("--motion", motion,
                   "Head motion: smooth, gaze (quick gaze shifts) or trace (--trace FILE), "
                   "each optionally +vibration (a vehicle's shaking on top)")
        ->capture_default_str();
    app.add_option("--send-to", cfg.sendAddress,
                   "Send the datagrams to this dotted address instead of the INI file's tcpOrvRxAddr "
                   "(the library on another host)");
    app.add_option("--trace", trace,
                   "Motion for --motion trace: a CSV of time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg, or a "
                   "capture (pcap or pcapng, e.g. from orvrec) whose tracking poses are replayed")
        ->check(orvargs::readableFile());
    if (const int rc = orvargs::parse(app, argc, argv); rc >= 0) return rc;

    std::string error;
    if (!orvsim::SimConfig::fromIni(ini, cfg, error)) {
        std::fprintf(stderr, "orvsim: %s\n", error.c_str());
        return 1;
    }
    if (!orvsim::Motion::fromName(motion, trace, cfg.motion, error)) {
        std::fprintf(stderr, "orvsim: %s\n", error.c_str());
        return 2;
    }
    cfg.imageFormat = static_cast<unsigned char>(imageFormat);
    for (int i = 0; i < orvsim::kStreamCount; ++i) {
        const std::string name = orvsim::streamName(static_cast<orvsim::Stream>(i));
        bool chosen = faultStreams.empty();
        for (const std::string& s : faultStreams) chosen = chosen || s == name;
        if (chosen) cfg.faults[i] = faults;
    }
    cfg.replies = replies == "silent"    ? orvsim::RxServer::Replies::Silent
                  : replies == "corrupt" ? orvsim::RxServer::Replies::Corrupt
                                         : orvsim::RxServer::Replies::Normal;

    // Files live in a folder of their own unless one is named.
    std::filesystem::path tempFolder;
    if (files.empty()) {
        std::string templ = (std::filesystem::temp_directory_path() / "orvsim-files-XXXXXX").string();
        if (mkdtemp(templ.data()) == nullptr) {
            std::perror("orvsim: cannot create a folder for files");
            return 1;
        }
        tempFolder = templ;
        files = templ;
    }
    cfg.fileFolder = files;

    orvsim::Simulator sim(cfg);
    if (!sim.open()) {
        std::fprintf(stderr, "orvsim: %s\n", sim.lastError().c_str());
        return 1;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    std::fprintf(stderr, "orvsim: serving %s (commands on TCP %d, files in %s, motion %s)%s\n",
                 cfg.address.c_str(), cfg.tcpPort, files.c_str(), cfg.motion.name().c_str(),
                 duration > 0 ? "" : "; Ctrl-C stops");
    if (const orvsim::MotionTrace* t = cfg.motion.recorded())
        std::fprintf(stderr, "orvsim: motion trace: %s\n", t->summary.c_str());
    sim.run(duration, &g_stop);
    sim.close();
    printReport(sim.report(), stdout);
    if (!tempFolder.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(tempFolder, ec);
    }
    return 0;
}
