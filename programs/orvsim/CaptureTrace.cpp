// A motion trace from a capture of the tracking system: the poses orvCore
// sent, read back with the library's own tracking decoder, so that a user
// can replay the motion of a real session through the simulator.
#include "orvsim/Motion.hpp"

#ifdef ORVSIM_CAPTURE_TRACES

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "capture/Packets.hpp"
#include "capture/Pcap.hpp"
#include "math/OrvosiMath.hpp"
#include "wire/Framing.hpp"
#include "wire/Packets.hpp"

namespace orvsim {

namespace {

// What a trace needs of one tracking record; the records themselves are
// ten times larger, and a long capture holds hundreds of thousands.
struct Pose {
    uint64_t timeUs;
    float position[3];
    float cbn[3][3];
};

// A datagram that says it is a tracking packet: true with `pose` filled when
// it is a whole, sound one. The start byte names tracking packets on no other
// channel, so the recording's ports need not be known.
bool trackingPose(const orvtools::Bytes& d, Pose& pose, bool& damaged) {
    damaged = false;
    if (d.empty() || d[0] != orvwire::kTrackingPacket.startByte) return false;
    if (d.size() < orvwire::kTrackingPacket.fixedSize ||
        orvwire::framingProblem(d.data(), d.size(), orvwire::kTrackingPacket.startByte) != nullptr) {
        damaged = true;
        return false;
    }
    s_OrvAccessTrkDataExt rec{};
    OrvosiReader r(d.data(), d.size());
    r.skip(1);
    r.u16();
    orvwire::decodeTracking(r, rec);
    pose.timeUs = rec.poseTime;
    std::copy(&rec.position[0], &rec.position[0] + 3, pose.position);
    std::copy(&rec.cbn[0][0], &rec.cbn[0][0] + 9, &pose.cbn[0][0]);
    return true;
}

}  // namespace

bool MotionTrace::loadCapture(const std::string& path, MotionTrace& out, std::string& error) {
    out = MotionTrace{};
    orvtools::PcapReader reader;
    if (!reader.open(path, error)) {
        error = "motion trace: " + error + "; record it again with orvrec";
        return false;
    }
    orvtools::FrameDecoder decoder(reader.linkType());
    if (!decoder.supported()) {
        error = "motion trace " + path + ": link type " + std::to_string(reader.linkType()) +
                " is not one orvsim reads (Ethernet, Linux cooked, raw IP, BSD loopback); record with orvrec";
        return false;
    }
    std::vector<Pose> poses;
    uint64_t frames = 0, damaged = 0;
    orvtools::Frame f;
    orvtools::Segment seg;
    while (reader.next(f)) {
        ++frames;
        if (!decoder.decode(f.timeUs, f.data, f.captured, seg) || seg.proto != orvtools::Proto::Udp) continue;
        Pose p;
        bool bad = false;
        if (trackingPose(seg.payload, p, bad)) poses.push_back(p);
        damaged += bad;
    }
    if (!reader.error().empty()) {
        // Usually a file whose writer was killed in the middle of a frame.
        const std::string n = std::to_string(frames);
        error = "motion trace " + path + ": " + reader.error() + ", after " + n + " whole frames; " +
                (frames > 0 ? "keep those (editcap -r " + path + " whole.pcap 1-" + n + ") or record it again"
                            : "record it again");
        return false;
    }
    // The network may reorder and repeat datagrams; the poses' own times
    // put them back in order, and a time seen before is a repeat.
    std::stable_sort(poses.begin(), poses.end(), [](const Pose& a, const Pose& b) { return a.timeUs < b.timeUs; });
    uint64_t repeated = 0;
    for (const Pose& p : poses) {
        const double position[3] = {p.position[0], p.position[1], p.position[2]};
        double cbn[3][3], euler[3];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) cbn[i][j] = p.cbn[i][j];
        OrvosiMath::cbn2Euler(cbn, euler);
        const double t = static_cast<double>(p.timeUs - poses.front().timeUs) / 1e6;
        repeated += !out.append(t, position, euler);
    }
    if (out.t.size() < 2) {
        error = "motion trace " + path + " holds " + std::to_string(out.t.size()) + " sound tracking packets in " +
                std::to_string(frames) + " frames" + (damaged ? " (" + std::to_string(damaged) + " damaged)" : "") +
                "; it needs at least two: record while orvCore streams poses (orvrec --duration 10, with the "
                "tracking system or orvsim running)";
        return false;
    }
    char text[160];
    std::snprintf(text, sizeof text, "%zu tracking poses over %.3f s", out.t.size(), out.durationS());
    out.summary = text;
    if (damaged + repeated > 0)
        out.summary += " (left out: " + std::to_string(damaged) + " damaged, " + std::to_string(repeated) + " repeated)";
    out.summary += " from the capture " + path;
    return true;
}

}  // namespace orvsim

#else

namespace orvsim {

bool MotionTrace::loadCapture(const std::string& path, MotionTrace& out, std::string& error) {
    out = MotionTrace{};
    error = "motion trace " + path + " is a capture, and this orvsim was built without libpcap "
            "(ORVACCESS_BUILD_TOOLS=OFF): build it with the tools, or give a CSV of "
            "time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg";
    return false;
}

}  // namespace orvsim

#endif
