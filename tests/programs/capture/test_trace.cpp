// Captures as motion traces for orvsim: told from a CSV by their first
// bytes, read in pose-time order without damaged or repeated packets, and
// refused, naming the file and what is wrong, when they hold no motion.
#include <gtest/gtest.h>

#include <netinet/in.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "capture/Packets.hpp"
#include "capture/Pcap.hpp"
#include "math/OrvosiMath.hpp"
#include "orvsim/Motion.hpp"
#include "orvsim/Wire.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"

namespace {

constexpr double kDeg = 3.14159265358979323846 / 180.0;

// A tracking packet whose head has turned to `yawDeg` and moved to x.
orvsim::Datagram trackingAt(uint64_t poseTimeUs, double yawDeg, float x) {
    s_OrvAccessTrkDataExt rec{};
    rec.packetTag = static_cast<uint32_t>(poseTimeUs / 1000);
    rec.poseTime = poseTimeUs;
    rec.statusWord = 1;
    const double euler[3] = {0.0, 0.0, yawDeg * kDeg};
    double cbn[3][3];
    OrvosiMath::euler2Cbn(euler, cbn);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) rec.cbn[i][j] = static_cast<float>(cbn[i][j]);
    rec.position[0] = x;
    return orvsim::buildTracking(rec);
}

// A capture of the datagrams, one a millisecond, to an orvCore port.
std::string captureOf(const std::string& path, const std::vector<orvsim::Datagram>& datagrams) {
    orvtools::PcapWriter w;
    std::string error;
    EXPECT_TRUE(w.open(path, DLT_RAW, error)) << error;
    for (size_t i = 0; i < datagrams.size(); ++i) {
        const orvtools::Bytes p = orvtools::makeUdpPacket(INADDR_LOOPBACK, 40000, INADDR_LOOPBACK, 6002,
                                                          datagrams[i].data(), datagrams[i].size(),
                                                          static_cast<uint16_t>(i));
        EXPECT_TRUE(w.write(1700000000000000u + 1000u * i, p.data(), p.size()));
    }
    EXPECT_TRUE(w.close(error)) << error;
    return path;
}

std::string refusal(const std::string& path) {
    orvsim::Motion m;
    std::string error;
    EXPECT_FALSE(orvsim::Motion::fromName("trace", path, m, error)) << path;
    return error;
}

}  // namespace

// Reordered and repeated on the way, one copy damaged, a PRA packet on the
// same port: the trace holds each sound pose once, in pose-time order. The
// file's name says CSV; its content decides.
TEST(CaptureTrace, PosesInPoseTimeOrderWhateverTheNetworkDid) {
    orvtest::TempDir dir;
    orvsim::Datagram damaged = trackingAt(1006000, 40.0, 0.4f);
    damaged.back() ^= 0x01;
    s_OrvAccessPoseRecStats pra{};
    const std::string path = captureOf((dir.path() / "trace.csv").string(),
                                       {trackingAt(1000000, 170.0, 0.1f), trackingAt(1004000, -170.0, 0.3f),
                                        trackingAt(1002000, 179.0, 0.2f), trackingAt(1002000, 179.0, 0.2f),
                                        orvsim::buildPra(pra), damaged});
    orvsim::Motion m;
    std::string error;
    ASSERT_TRUE(orvsim::Motion::fromName("trace+vibration", path, m, error)) << error;
    const orvsim::MotionTrace& t = *m.recorded();
    EXPECT_EQ(t.t, (std::vector<double>{0.0, 0.002, 0.004}));
    EXPECT_EQ(t.v[0], (std::vector<double>{0.1f, 0.2f, 0.3f}));
    // Yaw unwrapped through 180 degrees: a turn of 20 degrees, not 340.
    const double yaw[] = {170.0, 179.0, 190.0};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(t.v[5][i] / kDeg, yaw[i], 1e-4) << i;
        EXPECT_NEAR(t.v[3][i], 0.0, 1e-6) << i;
        EXPECT_NEAR(t.v[4][i], 0.0, 1e-6) << i;
    }
    EXPECT_EQ(t.summary, "3 tracking poses over 0.004 s (left out: 1 damaged, 1 repeated) from the capture " + path);
}

TEST(CaptureTrace, WhatHoldsNoMotionIsRefusedByNameWithTheReason) {
    orvtest::TempDir dir;
    const std::string empty = dir.write("empty.pcap", "");
    EXPECT_EQ(refusal(empty), "motion trace " + empty +
                                  " is empty: give a CSV of time_s,x_m,y_m,z_m,roll_deg,pitch_deg,yaw_deg or a "
                                  "capture that orvrec made");
    const std::string text = dir.write("text.pcap", "0,0,0,0,0,0,0\n1,0,0,0,0,0,0\n");
    EXPECT_NE(refusal(text).find("motion trace " + text + " is named as a capture but does not begin like one"),
              std::string::npos);

    // Frames, but no sound tracking packet among them; then only one.
    orvsim::Datagram damaged = trackingAt(1000000, 0.0, 0.0f);
    damaged[1] ^= 0x01;  // its length word
    s_OrvAccessPoseRecStats pra{};
    const std::string none = captureOf((dir.path() / "none.pcap").string(), {orvsim::buildPra(pra), damaged});
    EXPECT_NE(refusal(none).find("motion trace " + none +
                                 " holds 0 sound tracking packets in 2 frames (1 damaged); it needs at least two"),
              std::string::npos)
        << refusal(none);
    const std::string one = captureOf((dir.path() / "one.pcap").string(), {trackingAt(1000000, 0.0, 0.0f)});
    EXPECT_NE(refusal(one).find("holds 1 sound tracking packets in 1 frames; it needs at least two"),
              std::string::npos)
        << refusal(one);

    // Cut in the middle of its third frame, as a killed writer leaves it.
    const std::string cut = captureOf((dir.path() / "cut.pcap").string(),
                                      {trackingAt(1000000, 0.0, 0.0f), trackingAt(1002000, 1.0, 0.0f),
                                       trackingAt(1004000, 2.0, 0.0f)});
    std::filesystem::resize_file(cut, std::filesystem::file_size(cut) - 10);
    const std::string why = refusal(cut);
    EXPECT_EQ(why.rfind("motion trace " + cut + ": damaged capture file: ", 0), 0u) << why;
    EXPECT_NE(why.find(", after 2 whole frames; keep those (editcap -r " + cut + " whole.pcap 1-2)"),
              std::string::npos)
        << why;

    // orvsim says the same and exits with its usage status.
    const std::string ini = dir.write("orvaccess.ini", "[Communication]\ntcpOrvRxAddr = 127.0.0.1\n");
    const orvtest::Ran sim =
        orvtest::run({ORVSIM, "--ini", ini, "--motion", "trace", "--trace", none}, dir.path().string());
    EXPECT_EQ(sim.code, 2);
    EXPECT_EQ(sim.err, "orvsim: " + refusal(none) + "\n");
}
