// orvrec and orvplay where things go wrong: a disk that fills, a file that
// takes nothing, stamps that step back or jump years ahead, and a replay to
// ports nobody recorded. Each must say what happened and exit accordingly.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "capture/Packets.hpp"
#include "capture/Pcap.hpp"
#include "support/Process.hpp"
#include "support/SimRunner.hpp"

namespace {

// A small tmpfs in a folder of the test's own, unmounted whatever happens.
class SmallDisk {
public:
    SmallDisk(const std::string& at, const char* size) : path_(at) {
        std::filesystem::create_directories(at);
        mounted_ = mount("orvtest", at.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0;
    }
    ~SmallDisk() {
        if (mounted_) umount2(path_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }

private:
    std::string path_;
    bool mounted_ = false;
};

TEST(OrvrecFaults, AFailedWriteEndsTheRecordingWithItsReasonAndAReadableFile) {
    orvtest::TempDir dir;
    orvtest::SimRunner sim(dir);
    ASSERT_TRUE(sim.start());
    SmallDisk disk(dir.prefix() + "small", "64k");
    if (!disk.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
    const std::string file = dir.prefix() + "small/run.pcap";
    orvtest::Ran r = orvtest::run({ORVREC, "--receive", "--ini", sim.ini(), "-o", file, "--duration", "60"},
                                  dir.path().string(), 90);
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_EQ(r.out.find("recorded"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("orvrec: stopped after "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(": writing " + file + ": No space left on device; it holds the "), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("free some room, or record into another folder (-o)"), std::string::npos) << r.err;
    // Every frame in it is whole: read to the end without complaint.
    orvtools::PcapReader reader;
    std::string error;
    ASSERT_TRUE(reader.open(file, error)) << error;
    orvtools::Frame f;
    size_t frames = 0;
    while (reader.next(f)) ++frames;
    EXPECT_EQ(reader.error(), "");
    EXPECT_GT(frames, 0u);
    EXPECT_NE(r.err.find("the " + std::to_string(frames) + " frames ("), std::string::npos) << r.err;

    r = orvtest::run({ORVREC, "--receive", "--ini", sim.ini(), "-o", "/dev/full", "--duration", "60"},
                     dir.path().string(), 90);
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("orvrec: Cannot write /dev/full: No space left on device"), std::string::npos) << r.err;
}

// A capture of one datagram per stamp, to the hub port, payload = its index.
std::string captureOf(const std::string& path, int hubPort, const std::vector<uint64_t>& stampsUs) {
    orvtools::PcapWriter w;
    std::string error;
    EXPECT_TRUE(w.open(path, DLT_RAW, error)) << error;
    for (size_t i = 0; i < stampsUs.size(); ++i) {
        const unsigned char payload[4] = {0x55, static_cast<unsigned char>(i), 0, 0};
        const orvtools::Bytes p = orvtools::makeUdpPacket(INADDR_LOOPBACK, 40000, INADDR_LOOPBACK,
                                                          static_cast<uint16_t>(hubPort), payload, sizeof payload,
                                                          static_cast<uint16_t>(i));
        EXPECT_TRUE(w.write(stampsUs[i], p.data(), p.size()));
    }
    EXPECT_TRUE(w.close(error)) << error;
    return path;
}

std::string iniWithHub(const orvtest::TempDir& dir, const std::string& name, int hubPort) {
    const int ports[5] = {orvtest::findFreePort(), orvtest::findFreePort(), orvtest::findFreePort(), hubPort,
                          orvtest::findFreePort()};
    return dir.write(name, orvtest::receiverIni(ports));
}

TEST(OrvplayFaults, StampsThatStepBackOrJumpAheadAreSentInFileOrderAndCounted) {
    orvtest::TempDir dir;
    const int hub = orvtest::findFreePort();
    const std::string ini = iniWithHub(dir, "play.ini", hub);
    const uint64_t t0 = 1795610187000000ull, year = 365ull * 24 * 3600 * 1000000;
    // A clock step back of 5 s, then one frame ten years ahead.
    const std::string file = captureOf(dir.prefix() + "stamps.pcap", hub,
                                       {t0, t0 + 1000, t0 - 5000000, t0 + 2000, t0 + 10 * year, t0 + 10 * year + 1000});
    const int rx = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in a = orvtest::loopback(hub);
    ASSERT_EQ(bind(rx, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);

    const orvtest::Ran r =
        orvtest::run({ORVPLAY, file, "--ini", ini, "--max-gap", "0.2"}, dir.path().string(), 60);
    std::vector<int> got;
    unsigned char buf[64];
    for (ssize_t n; (n = recv(rx, buf, sizeof buf, 0)) > 0;) got.push_back(buf[1]);
    ::close(rx);
    ASSERT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_EQ(got, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    EXPECT_NE(r.out.find("orvplay: replayed 1 pass of 0.4 s of "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  stamps:       1 frames stamped before the frame before them, sent in file order at "
                         "once; 2 gaps longer than 0.2 s cut to it ("),
              std::string::npos)
        << r.out;
}

TEST(OrvplayFaults, AReplayThatReachesNobodySaysWhyAndWhatToDo) {
    orvtest::TempDir dir;
    const int recordedHub = orvtest::findFreePort();
    const std::string file = captureOf(dir.prefix() + "other.pcap", recordedHub, {1000000, 1001000, 1002000});
    // Replayed as if recorded with the ports of an INI that has other ones.
    const std::string ini = iniWithHub(dir, "play.ini", orvtest::findFreePort());
    const orvtest::Ran r = orvtest::run({ORVPLAY, file, "--ini", ini, "--fast"}, dir.path().string(), 60);
    EXPECT_EQ(r.code, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("orvplay: nothing on this machine receives any port of " + ini), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("orvplay: no datagram of " + file + " went to a port of " + ini +
                         ", the file's datagrams went to UDP " + std::to_string(recordedHub) +
                         " (3): the recording used other ports; name the configuration it was made with: "
                         "--recorded-ini FILE"),
              std::string::npos)
        << r.err;
}

}  // namespace
