// The tools' file and packet handling against real files and sockets:
// every link layer a capture may have, IPv4 fragments, pcapng, the replay's
// offsets and loops, retiming's checksums, capturing beside a running
// application, and what orvrec says when a port is taken.
#include <pcap/pcap.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "orvsim/Wire.hpp"
#include "support/Process.hpp"
#include "support/TestSupport.hpp"
#include "capture/Packets.hpp"
#include "capture/Pcap.hpp"
#include "capture/Player.hpp"
#include "programs/capture/Programs.hpp"
#include "capture/Recorder.hpp"
#include "capture/Retime.hpp"

namespace {

using orvtools::Bytes;
using orvtools::Segment;

const uint32_t kSrc = 0x0A000001, kDst = 0x0A000002;

// Reads every segment of a file.
std::vector<Segment> readAll(const std::string& path) {
    orvtools::PcapReader reader;
    std::string error;
    EXPECT_TRUE(reader.open(path, error)) << error;
    orvtools::FrameDecoder decoder(reader.linkType());
    EXPECT_TRUE(decoder.supported());
    std::vector<Segment> out;
    orvtools::Frame f;
    Segment s;
    while (reader.next(f))
        if (decoder.decode(f.timeUs, f.data, f.captured, s)) out.push_back(s);
    return out;
}

TEST(ToolsFiles, EveryLinkLayerAndFragmentsOutOfOrderGiveTheSameDatagram) {
    orvtest::TempDir dir;
    Bytes payload(3000);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<unsigned char>(i * 13);
    const Bytes ip = orvtools::makeUdpPacket(kSrc, 4000, kDst, 5003, payload.data(), payload.size(), 7);
    const struct {
        int dlt;
        Bytes head;
    } links[] = {
        {DLT_EN10MB, Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0x81, 0x00, 0, 5, 0x08, 0x00}},  // with a VLAN tag
        {DLT_LINUX_SLL, Bytes{0, 0, 0, 1, 0, 6, 1, 2, 3, 4, 5, 6, 0, 0, 0x08, 0x00}},
        {DLT_LINUX_SLL2, Bytes{0x08, 0x00, 0, 0, 0, 0, 0, 1, 0, 1, 4, 6, 1, 2, 3, 4, 5, 6, 0, 0}},
        {DLT_NULL, Bytes{2, 0, 0, 0}},
        {DLT_RAW, Bytes{}},
    };
    for (const auto& link : links) {
        const std::string path = (dir.path() / ("l" + std::to_string(link.dlt) + ".pcap")).string();
        orvtools::PcapWriter w;
        std::string error;
        ASSERT_TRUE(w.open(path, link.dlt, error)) << error;
        // Three fragments of the IP packet, the first one last.
        const size_t body = ip.size() - 20, cut[] = {0, 1480, 2960, body};
        for (int k : {1, 2, 0}) {
            Bytes frag(ip.begin(), ip.begin() + 20);
            frag.insert(frag.end(), ip.begin() + 20 + static_cast<long>(cut[k]), ip.begin() + 20 + static_cast<long>(cut[k + 1]));
            const size_t total = frag.size(), offset = cut[k] / 8 | (k < 2 ? 0x2000 : 0);
            frag[2] = static_cast<unsigned char>(total >> 8);
            frag[3] = static_cast<unsigned char>(total);
            frag[6] = static_cast<unsigned char>(offset >> 8);
            frag[7] = static_cast<unsigned char>(offset);
            Bytes frame = link.head;
            frame.insert(frame.end(), frag.begin(), frag.end());
            w.write(1000 + k, frame.data(), frame.size());
        }
        ASSERT_TRUE(w.close(error)) << error;
        const std::vector<Segment> got = readAll(path);
        ASSERT_EQ(got.size(), 1u) << orvtools::FrameDecoder::linkName(link.dlt);
        EXPECT_EQ(got[0].payload, payload);
        EXPECT_EQ(got[0].srcAddr, kSrc);
        EXPECT_EQ(got[0].dstPort, 5003);
    }
}

TEST(ToolsFiles, RetimingKeepsEveryChecksumsVerdict) {
    s_OrvAccessTrkDataExt t{};
    t.poseTime = 1000;
    orvsim::Datagram sound = orvsim::buildTracking(t), damaged = sound;
    damaged.back() = static_cast<unsigned char>(damaged.back() + 3);
    const orvtools::ClockField& field = *orvtools::clockFieldOf(&orvwire::kTracking);
    for (orvsim::Datagram* d : {&sound, &damaged}) {
        const unsigned char before = OrvosiUtil::checksum(d->data(), d->size());
        ASSERT_TRUE(orvtools::writeClock(d->data(), d->size(), field, 0x0123456789ABCDEFull));
        uint64_t now = 0;
        ASSERT_TRUE(orvtools::readClock(d->data(), d->size(), field, &now));
        EXPECT_EQ(now, 0x0123456789ABCDEFull);
        EXPECT_EQ(OrvosiUtil::checksum(d->data(), d->size()), before);
    }
    EXPECT_FALSE(orvtools::writeClock(sound.data(), field.at + 8, field, 1)) << "no room for the checksum byte";
}

// orvplay's pacing, offsets and loops, over a pcapng file as Wireshark writes them.
TEST(ToolsFiles, ReplayHonoursStartEndAndLoopsOnPcapng) {
    orvtest::TempDir dir;
    int port[5];
    for (int& p : port) p = orvtest::freePort();
    const std::string ini = dir.write("to.ini", orvtest::receiverIni(port));
    const std::string pcap = (dir.path() / "ten.pcap").string();
    orvtools::PcapWriter w;
    std::string error;
    ASSERT_TRUE(w.open(pcap, DLT_RAW, error)) << error;
    for (uint32_t i = 0; i < 10; ++i) {  // hub packets 100 ms apart, each with its index
        s_OrvAccessHubData h{};
        h.word = i;
        const orvsim::Datagram d = orvsim::buildHubData(h);
        const Bytes p = orvtools::makeUdpPacket(kSrc, 4000, kDst, static_cast<uint16_t>(port[orvtest::kHub]), d.data(),
                                                d.size(), 1);
        w.write(5000000 + 100000 * i, p.data(), p.size());
    }
    ASSERT_TRUE(w.close(error)) << error;
    std::string file = pcap;
    const std::string editcap = orvtest::onPath("editcap");
    if (!editcap.empty()) {
        file = (dir.path() / "ten.pcapng").string();
        const orvtest::Ran convert = orvtest::run({editcap, "-F", "pcapng", pcap, file}, dir.path().string());
        ASSERT_EQ(convert.code, 0) << convert.err;
    }

    OrvAccess a;
    a.setIniPath(ini);
    ASSERT_TRUE(a.open()) << a.getLastError();
    orvtools::PlayOptions opt;
    opt.file = file;
    opt.ini = ini;
    opt.startS = 0.25;  // from the fourth packet
    opt.endS = 0.65;    // to the seventh
    opt.loops = 2;
    opt.speed = 4;
    orvtools::Player player(opt);
    ASSERT_TRUE(player.open(error)) << error;
    const auto began = std::chrono::steady_clock::now();
    std::atomic<bool> stop{false};
    ASSERT_TRUE(player.run(stop, nullptr, error)) << error;
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    std::vector<uint32_t> words;
    bool valid = false;
    s_OrvAccessHubData h{};
    while (a.getHubData(&valid, &h) && valid) words.push_back(h.word);
    EXPECT_EQ(words, (std::vector<uint32_t>{3, 4, 5, 6, 3, 4, 5, 6}));
    EXPECT_EQ(player.report().loopsDone, 2);
    // Two passes of 0.35 s (and one gap) at four times the pace.
    EXPECT_GT(took, 0.15);
    EXPECT_LT(took, 1.0);
}

TEST(ToolsFiles, OrvrecSaysWhichPortIsTakenAndWhatToDo) {
    orvtest::TempDir dir;
    int port[5];
    for (int& p : port) p = orvtest::freePort();
    const std::string ini = dir.write("taken.ini", orvtest::receiverIni(port));
    OrvAccess app;  // an application already receiving there
    app.setIniPath(ini);
    ASSERT_TRUE(app.open()) << app.getLastError();
    const orvtest::Ran rec = orvtest::run(
        {ORVREC, "--receive", "--ini", ini, "-o", (dir.path() / "x.pcap").string()}, dir.path().string(), 10);
    EXPECT_EQ(rec.code, 1);
    const std::string& said = rec.err;
    EXPECT_NE(said.find("Cannot receive on UDP port " + std::to_string(port[orvtest::kMeta]) + " (meta)"),
              std::string::npos)
        << said;
    EXPECT_NE(said.find("Stop it, or record with the capture privilege"), std::string::npos) << said;
}

// With the capture privilege orvrec takes nothing from the application: both
// see every datagram.
TEST(ToolsFiles, CaptureRecordsBesideTheApplication) {
    orvtest::TempDir dir;
    int port[5];
    for (int& p : port) p = orvtest::freePort();
    const std::string ini = dir.write("cap.ini", orvtest::receiverIni(port));
    orvtools::RecordOptions opt;
    opt.ini = ini;
    opt.output = (dir.path() / "cap.pcap").string();
    opt.mode = orvtools::RecordMode::Capture;
    orvtools::Recorder rec(opt);
    std::string error, notice;
    // The capture holds what arrives from here on, before run() reads it.
    if (!rec.open(error, notice)) GTEST_SKIP() << "no capture here: " << error;
    OrvAccess app;
    app.setIniPath(ini);
    ASSERT_TRUE(app.open()) << app.getLastError();
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> recorded{0};
    const auto progress = [&](const orvtools::RecordReport& r) {
        recorded = r.counts.channel[static_cast<int>(orvtools::ChannelId::Hub)].packets;
    };
    std::thread recording([&] { EXPECT_TRUE(rec.run(stop, progress, error)) << error; });
    orvtest::UdpSender sender;
    s_OrvAccessHubData h{};
    for (int i = 0; i < 50; ++i) {
        h.word = static_cast<uint32_t>(i);
        sender.send(port[orvtest::kHub], orvsim::buildHubData(h));
    }
    sender.send(port[orvtest::kHub], orvsim::buildHubError(1, 2));
    EXPECT_TRUE(orvtest::waitFor([&] { return recorded >= 51; })) << recorded << " of 51 recorded";
    stop = true;
    recording.join();
    int received = 0;
    bool valid = false;
    while (app.getHubData(&valid, &h) && valid) ++received;
    EXPECT_EQ(received, 50);
    const auto& counts = rec.report().counts.channel[static_cast<int>(orvtools::ChannelId::Hub)];
    EXPECT_EQ(counts.kinds.at("hub"), 50u);
    EXPECT_EQ(counts.kinds.at("hub-error"), 1u);
    EXPECT_EQ(readAll(opt.output).size(), 51u);
}

}  // namespace
