// Platform-pose, target, diagnostic and GPS subpackets, carried by real meta
// packets sent to an open object's meta port on 127.0.0.1 (and, for reads
// that must stop at a packet's end, handed in from exactly sized memory).
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"
#include "util/OrvUtil.hpp"

namespace {

using orvtest::Bytes;
using Codes = std::vector<std::pair<unsigned, unsigned>>;

// Little-endian byte builder, independent of the library's codec.
struct Pkt {
    Bytes b;
    Pkt& le(unsigned long long v, int n) {
        for (int i = 0; i < n; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
        return *this;
    }
    Pkt& u8(unsigned v) { return le(v, 1); }
    Pkt& f32(float v) {
        uint32_t bits;
        std::memcpy(&bits, &v, 4);
        return le(bits, 4);
    }
    Pkt& f64(double v) {
        uint64_t bits;
        std::memcpy(&bits, &v, 8);
        return le(bits, 8);
    }
};

// Sets the length word to `length` and byte length - 1 to the checksum.
Bytes seal(Bytes b, size_t length) {
    b[1] = static_cast<unsigned char>(length);
    b[2] = static_cast<unsigned char>(length >> 8);
    unsigned char sum = 0;
    for (size_t i = 0; i + 1 < length; ++i) sum = static_cast<unsigned char>(sum + b[i]);
    b[length - 1] = static_cast<unsigned char>(-sum);
    return b;
}

// Format 3 carries the pose at 8 (21 bytes), format 2 at 20 (33 bytes).
Bytes platPoseSub(uint32_t tag, unsigned format, float r, float p, float y) {
    Pkt k;
    k.u8(7).le(0, 2).le(tag, 4).u8(format);
    if (format == 2) k.le(~0ull, 8).le(~0u, 4);
    k.f32(r).f32(p).f32(y).u8(0);
    return seal(k.b, k.b.size());
}

// Entry i carries kind and id as given, words 10i+1..10i+4 and values
// i+0.5 .. i+5.5. The trailer is 0x77; a short `length` leaves the entries
// behind it in place, to be read past the subpacket.
Bytes targetSub(uint32_t tag, unsigned total, unsigned first,
                const std::vector<std::pair<unsigned, unsigned>>& entries, size_t length = 0) {
    Pkt k;
    k.u8(6).le(0, 2).le(tag, 4).u8(static_cast<unsigned>(entries.size()));
    k.u8(0x44).u8(0x99).le(total, 2).le(first, 2);  // header byte, an unread byte
    for (size_t i = 0; i < entries.size(); ++i) {
        k.u8(entries[i].first).le(entries[i].second, 2);
        for (unsigned w = 1; w <= 4; ++w) k.le(10 * i + w, 2);
        for (int v = 0; v < 6; ++v) k.f32(static_cast<float>(i) + v + 0.5f);
    }
    k.le(0, 2);
    if (length == 0) length = k.b.size();
    k.b[length - 2] = 0x77;
    return seal(k.b, length);
}

// All 29 field bytes are present whatever `length` says.
Bytes diagSub(uint32_t tag, std::vector<unsigned char> errors, unsigned state, size_t length) {
    Pkt k;
    k.u8(13).le(0, 2).le(tag, 4).f32(1.25f).le(0xABCDEF, 3).u8(0x11).f32(-2.5f).u8(0x22);
    errors.resize(4);
    for (unsigned char e : errors) k.u8(e);
    k.u8(state).le(0xA4A3A2A1, 4);
    k.b.resize(std::max(k.b.size(), length));
    return seal(k.b, length);
}

s_OrvAccessGpsData sampleGps() {
    return {1,    0x01020304, 47.6062, -122.3321, 3.5f,   0xBEEF,   0x5A,  -1.75f,
            1e6f, 0xCAFEF00D, 1.0 / 3, -6.02e23,  0.125f, -0.0625f, 42.0f, 0xC3};
}

Bytes gpsSub(const s_OrvAccessGpsData& g, unsigned format = 1) {
    Pkt k;
    k.u8(8).le(0, 2).u8(format).le(g.gpsWord1, 4).f64(g.lat).f64(g.lon).f32(g.gpsValue1).le(g.gpsHalf, 2);
    k.u8(g.gpsByte1).f32(g.gpsValue2).f32(g.gpsValue3).le(g.gpsWord2, 4).f64(g.gpsDouble1).f64(g.gpsDouble2);
    k.f32(g.gpsValue4).f32(g.gpsValue5).f32(g.gpsValue6).u8(g.gpsByte2).u8(0);
    return seal(k.b, k.b.size());
}

// The subpackets of one meta packet, in header order; empty = absent.
using Subs = std::array<Bytes, 4>;
enum Slot { kPlat, kTarget, kDiag, kGps };

// A meta packet without IMU data (interval 0), its subpackets one after the
// other behind the 27-byte header.
Bytes metaPkt(const Subs& subs) {
    Pkt k;
    k.u8(19).le(0, 2).le(0x600D, 4).u8(0).f32(0.0f).u8(0).le(0, 6).le(0x1122334455667788ULL, 8);
    const size_t field[4] = {13, 14, 15, 17};
    for (int i = 0; i < 4; ++i) {
        if (subs[i].empty()) continue;
        OrvosiUtil::lendian(&k.b[field[i]], k.b.size(), i < kDiag ? 1 : 2);
        k.b.insert(k.b.end(), subs[i].begin(), subs[i].end());
    }
    k.u8(0);
    return seal(k.b, k.b.size());
}
Subs only(Slot slot, const Bytes& sub) {
    Subs s;
    s[slot] = sub;
    return s;
}

class Subpackets : public testing::Test {
protected:
    void SetUp() override { reopen(""); }
    void TearDown() override { access.setVerbosity(0); }

    void reopen(const std::string& extra) {
        for (int& p : port) p = orvtest::freePort();
        access.setIniPath(dir.write("orvaccess.ini", orvtest::receiverIni(port, extra)));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }
    void send(const Subs& subs) { ASSERT_TRUE(sender.send(port[orvtest::kMeta], metaPkt(subs))); }
    s_OrvAccessStatus status() {
        s_OrvAccessStatus st{};
        EXPECT_TRUE(access.getStatus(&st)) << access.getLastError();
        return st;
    }
    // Services the ports, then drains the error codes as (code, value).
    Codes errors() {
        status();
        Codes out;
        s_OrvAccessErrorCode e{};
        while (access.getErrorCode(&e) != 0) out.emplace_back(e.code, e.value);
        return out;
    }
    template <typename T, typename Getter>
    std::vector<T> drain(Getter get) {
        std::vector<T> out;
        bool valid = true;
        for (T rec{}; (access.*get)(&valid, &rec) && valid;) out.push_back(rec);
        return out;
    }

    orvtest::TempDir dir;
    int port[5] = {};
    orvtest::UdpSender sender;
    OrvAccess access;
};

TEST_F(Subpackets, PlatformPoseAndGpsFormats) {
    const s_OrvAccessGpsData g = sampleGps();
    send({platPoseSub(1, 3, 0.5f, -1.5f, 3.0f), targetSub(9, 1, 0, {{2, 5}}), diagSub(9, {0, 0, 0, 0}, 1, 26),
          gpsSub(g)});
    // Format 2 reads its pose further back; other formats are dropped unreported.
    send({platPoseSub(2, 2, 1.0f, 2.0f, 3.0f), {}, {}, gpsSub(g, 2)});
    send({platPoseSub(3, 4, 9.0f, 9.0f, 9.0f), {}, {}, gpsSub(g, 0)});
    send(only(kPlat, platPoseSub(4, 1, 9.0f, 9.0f, 9.0f)));

    const auto poses = drain<s_OrvAccessPlatPoseData>(&OrvAccess::getPlatformPoseData);
    ASSERT_EQ(poses.size(), 2u);
    EXPECT_EQ(poses[0].tag, 1u);
    EXPECT_EQ(std::vector<float>(poses[0].pose, poses[0].pose + 3), (std::vector<float>{0.5f, -1.5f, 3.0f}));
    EXPECT_EQ(poses[1].tag, 2u);
    EXPECT_EQ(std::vector<float>(poses[1].pose, poses[1].pose + 3), (std::vector<float>{1.0f, 2.0f, 3.0f}));

    const auto gps = drain<s_OrvAccessGpsData>(&OrvAccess::getGpsData);
    ASSERT_EQ(gps.size(), 1u);
    EXPECT_EQ(gps[0].valid, 1);
    EXPECT_EQ(gpsSub(gps[0]), gpsSub(g));  // every field, through its encoding
    EXPECT_TRUE(errors().empty());
}

TEST_F(Subpackets, TargetListsOverSeveralSubpackets) {
    for (uint32_t tag : {0x51u, 0x52u}) {
        send(only(kTarget, targetSub(tag, 5, 0, {{1, 101}, {2, 102}, {3, 103}})));
        send(only(kTarget, targetSub(tag, 5, 3, {{4, 104}, {5, 105}})));
    }
    // First list record by record: five entries, then the closing record,
    // a copy of the last entry with kind and id 0.
    bool valid = false;
    OrvAccess::s_TgtData t{};
    for (unsigned i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(access.getTargetData(&valid, &t));
        ASSERT_TRUE(valid);
        const unsigned entry = i < 5 ? i : 4;
        const unsigned inSub = entry < 3 ? entry : entry - 3;
        EXPECT_EQ(t.tag, 0x51u);
        EXPECT_EQ(t.index, entry);
        EXPECT_EQ(t.kind, i < 5 ? i + 1 : 0u);
        EXPECT_EQ(t.id, i < 5 ? 101u + i : 0u);
        EXPECT_EQ(t.hdrByte, 0x44u);
        EXPECT_EQ(t.word1, 10 * inSub + 1);
        EXPECT_EQ(t.word4, 10 * inSub + 4);
        EXPECT_EQ(t.value1, inSub + 0.5f);
        EXPECT_EQ(t.value6, inSub + 5.5f);
        EXPECT_EQ(t.trailer, 0x77u);
    }
    // The second list is consumed whole by one count.
    unsigned int tag = 0, count = 99;
    ASSERT_TRUE(access.getTargetCount(&valid, &tag, &count));
    EXPECT_TRUE(valid);
    EXPECT_EQ(tag, 0x52u);
    EXPECT_EQ(count, 5u);
    ASSERT_TRUE(access.getTargetData(&valid, &t));
    EXPECT_FALSE(valid);

    // A list that does not start at index 0: each of its records is dropped.
    send(only(kTarget, targetSub(0x53, 3, 2, {{1, 7}})));
    for (int i = 0; i < 3; ++i) {
        count = 99;
        ASSERT_TRUE(access.getTargetCount(&valid, &tag, &count));
        EXPECT_FALSE(valid);
        EXPECT_EQ(count, 0u);
    }
    // A subpacket short of the total leaves its list open.
    send(only(kTarget, targetSub(0x54, 9, 0, {{1, 8}, {1, 9}})));
    ASSERT_TRUE(access.getTargetCount(&valid, &tag, &count));
    EXPECT_TRUE(valid);
    EXPECT_EQ(count, 2u);
    EXPECT_TRUE(errors().empty());
}

TEST_F(Subpackets, TargetOverrunsAndRoomForTheWholeBatch) {
    // Entries, trailer and checksum exactly fill the length; one byte less
    // is an overrun; so is a length that covers one entry of three (the
    // rest is read from the packet behind it). Records stay appended.
    access.setVerbosity(OrvUtil::kVerbLog);
    std::string log;
    {
        orvtest::CapturedStderr err;
        send(only(kTarget, targetSub(0x61, 2, 0, {{1, 1}, {1, 2}}, 14 + 70 + 2)));
        send(only(kTarget, targetSub(0x62, 2, 0, {{1, 1}, {1, 2}}, 14 + 70 + 1)));
        send(only(kTarget, targetSub(0x63, 3, 0, {{1, 1}, {1, 2}, {1, 3}}, 14 + 35 + 22)));
        status();
        log = err.text();
    }
    EXPECT_NE(log.find("ORVALOG: Overrun in target subpacket\n"), std::string::npos);
    EXPECT_EQ(errors(), (Codes{{778, 0x62}, {778, 0x63}}));
    bool valid = false;
    unsigned int tag = 0, count = 0;
    for (auto [wantTag, wantCount] : Codes{{0x61, 2}, {0x62, 2}, {0x63, 3}}) {
        ASSERT_TRUE(access.getTargetCount(&valid, &tag, &count));
        EXPECT_EQ(tag, wantTag);
        EXPECT_EQ(count, wantCount);
    }

    // Three lists of three under a bound of 10: each subpacket wants n + 1 = 4
    // places free below the bound, so the third drops three records, not two.
    reopen("[Memory]\ntargetQueueSize = 10\n");
    access.setVerbosity(OrvUtil::kVerbInfo);
    std::string info;
    {
        orvtest::CapturedStdout out;
        for (uint32_t t : {1u, 2u, 3u}) {
            send(only(kTarget, targetSub(t, 3, 0, {{1, 11}, {1, 12}, {1, 13}})));
            status();
        }
        info = out.text();
    }
    const std::string overflow = "ORVAINFO: Target data queue overflow\n";
    EXPECT_NE(info.find(overflow), std::string::npos);
    EXPECT_EQ(info.find(overflow), info.rfind(overflow));
    Codes left;  // (tag, id)
    for (const auto& t : drain<OrvAccess::s_TgtData>(&OrvAccess::getTargetData))
        left.emplace_back(t.tag, t.id);
    EXPECT_EQ(left, (Codes{{1, 0}, {2, 11}, {2, 12}, {2, 13}, {2, 0}, {3, 11}, {3, 12}, {3, 13}, {3, 0}}));
}

TEST_F(Subpackets, DiagnosticCodesStateOptionalBytesAndStreaming) {
    bool valid = true;
    s_OrvAccessDiagData d{};
    ASSERT_TRUE(access.getDiagDataLatest(&valid, &d));
    EXPECT_FALSE(valid);

    // Each non-zero error byte becomes an orvRx code carrying the tag; the
    // state is the status's diagnostic word until it is reported.
    send(only(kDiag, diagSub(0x71, {0x01, 0x00, 0xFF, 0x80}, 2, 26)));
    EXPECT_EQ(status().diagState, 2u);
    EXPECT_EQ(errors(), (Codes{{0x101, 0x71}, {0x1FF, 0x71}, {0x180, 0x71}}));
    EXPECT_EQ(status().diagState, 0u);
    EXPECT_TRUE(access.getStreaming());

    // Optional bytes: none up to length 27, two above 27, four above 29.
    // State 3 (orvRx stopped streaming) clears the streaming flag.
    for (size_t length : {27, 28, 29, 30})
        send(only(kDiag, diagSub(static_cast<uint32_t>(length), {}, 3, length)));
    const auto recs = drain<s_OrvAccessDiagData>(&OrvAccess::getDiagData);
    EXPECT_FALSE(access.getStreaming());
    ASSERT_EQ(recs.size(), 5u);
    EXPECT_EQ(recs[0].tag, 0x71u);
    EXPECT_EQ(recs[0].diagValue1, 1.25f);
    EXPECT_EQ(recs[0].diagCount, 0xABCDEFu);
    EXPECT_EQ(recs[0].diagByte1, 0x11);
    EXPECT_EQ(recs[0].diagValue2, -2.5f);
    EXPECT_EQ(recs[0].diagByte2, 0x22);
    EXPECT_EQ(recs[0].errorCodes[2], 0xFF);
    EXPECT_EQ(recs[0].state, 2u);
    const uint32_t optional[] = {0, 0, 0xA2A1, 0xA2A1, 0xA4A3A2A1};
    for (size_t i = 0; i < 5; ++i) {
        uint32_t got;
        std::memcpy(&got, recs[i].optional, 4);
        EXPECT_EQ(got, optional[i]) << i;
    }
    // The latest record is copied, not consumed.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(access.getDiagDataLatest(&valid, &d));
        EXPECT_TRUE(valid);
        EXPECT_EQ(d.tag, 30u);
    }

    // Too short for its fields: read on past its end, queued, then 779.
    access.setVerbosity(OrvUtil::kVerbLog);
    orvtest::CapturedStderr err;
    send(only(kDiag, diagSub(0x90, {0, 0, 0, 0x09}, 5, 20)));
    EXPECT_EQ(errors(), (Codes{{0x109, 0x90}, {779, 0x90}}));
    EXPECT_NE(err.text().find("ORVALOG: Overrun in diagnostic subpacket\n"), std::string::npos);
    ASSERT_TRUE(access.getDiagDataLatest(&valid, &d));
    EXPECT_EQ(d.tag, 0x90u);
    EXPECT_EQ(d.state, 5u);
    EXPECT_EQ(drain<s_OrvAccessDiagData>(&OrvAccess::getDiagData).size(), 1u);
}

TEST_F(Subpackets, BadSubpacketsRaiseTheirCodeAndAreSkipped) {
    struct Kind {
        const char* name;
        unsigned short code;
        Slot slot;
        Bytes good;
    };
    const Kind kinds[] = {{"platform pose", 776, kPlat, platPoseSub(1, 3, 0, 0, 0)},
                          {"target", 775, kTarget, targetSub(1, 1, 0, {{1, 1}})},
                          {"diagnostic", 774, kDiag, diagSub(1, {0, 0, 0, 1}, 3, 26)},
                          {"GPS", 783, kGps, gpsSub(sampleGps())}};
    access.setVerbosity(OrvUtil::kVerbLog);
    for (const Kind& k : kinds) {
        Bytes wrongStart = k.good, badSum = k.good;
        wrongStart[0] ^= 0x40;
        badSum[5] ^= 0x01;
        const std::pair<Bytes, const char*> faults[] = {
            {seal(wrongStart, wrongStart.size()), "Wrong start byte"},
            {badSum, "Invalid checksum"},
            {{k.good[0], 2, 0}, "Invalid size"}};
        for (const auto& [bytes, reason] : faults) {
            SCOPED_TRACE(std::string(k.name) + ": " + reason);
            orvtest::CapturedStderr err;
            send(only(k.slot, bytes));
            EXPECT_EQ(errors(), (Codes{{k.code, 0}}));
            EXPECT_NE(err.text().find(std::string("ORVALOG: Bad ") + k.name + " subpacket: " + reason + "\n"),
                      std::string::npos);
        }
    }

    // The largest datagram IPv4 carries, with a GPS subpacket at 65500 whose
    // length runs past the 65535-byte buffer, and a diagnostic offset at the
    // buffer's very end.
    Bytes big(65507, 0);
    big[0] = 19;
    OrvosiUtil::lendian(&big[15], 65535, 2);
    OrvosiUtil::lendian(&big[17], 65500, 2);
    big[65500] = 8;
    big[65501] = 40;
    big[65503] = 1;
    orvtest::CapturedStderr err;
    ASSERT_TRUE(sender.send(port[orvtest::kMeta], seal(big, big.size())));
    EXPECT_EQ(errors(), (Codes{{774, 0}, {783, 0}}));
    const std::string text = err.text();
    EXPECT_NE(text.find("ORVALOG: Bad diagnostic subpacket: "), std::string::npos);
    EXPECT_NE(text.find("ORVALOG: Bad GPS subpacket: "), std::string::npos);

    // Packets from the application sit in memory of exactly their own size
    // (a read past it is caught by the address sanitizer), each ending in a
    // subpacket whose length or fields run past the packet.
    const auto atEnd = [&](Slot slot, const Bytes& sub) {
        Bytes full = metaPkt(only(slot, sub));
        const size_t framed = std::min<size_t>(sub.size(), OrvosiUtil::word16(&sub[1]));
        full.resize(27 + framed + 1);
        full = seal(full, full.size());
        std::unique_ptr<unsigned char[]> owned(new unsigned char[full.size()]);
        std::memcpy(owned.get(), full.data(), full.size());
        access.processMetaPkt(owned.get());
    };
    Bytes longPose = platPoseSub(1, 3, 0, 0, 0);
    longPose[1] = 40;
    atEnd(kPlat, longPose);
    atEnd(kPlat, seal(platPoseSub(1, 2, 0, 0, 0), 21));  // its pose lies at 20..31
    atEnd(kTarget, targetSub(1, 9, 0, {{1, 1}, {1, 2}, {1, 3}}, 16));
    atEnd(kDiag, diagSub(1, {}, 3, 12));
    atEnd(kGps, seal(gpsSub(sampleGps()), 40));
    EXPECT_EQ(errors(), (Codes{{776, 0}, {776, 0}, {775, 0}, {774, 0}, {783, 0}}));
    EXPECT_TRUE(access.getStreaming());
    // A well-formed format-3 pose at the very end is read in full.
    atEnd(kPlat, platPoseSub(9, 3, 1.0f, 2.0f, 3.0f));
    const auto poses = drain<s_OrvAccessPlatPoseData>(&OrvAccess::getPlatformPoseData);
    ASSERT_EQ(poses.size(), 1u);
    EXPECT_EQ(poses[0].pose[2], 3.0f);

    EXPECT_TRUE(drain<OrvAccess::s_TgtData>(&OrvAccess::getTargetData).empty());
    EXPECT_TRUE(drain<s_OrvAccessDiagData>(&OrvAccess::getDiagData).empty());
    EXPECT_TRUE(drain<s_OrvAccessGpsData>(&OrvAccess::getGpsData).empty());
    EXPECT_TRUE(errors().empty());
}

TEST_F(Subpackets, DumpsLogChannelsAndNoAllocation) {
    OrvUtil::resetLogState();
    reopen("[General]\nlogging = 400\nlogPath = " + dir.prefix() + "\n");  // channels 0x10, 0x80, 0x100
    access.setVerbosity(0x800 | 0x100 | 0x10000 | OrvUtil::kVerbInfo);
    const Subs subs{platPoseSub(1, 3, 0, 0, 0), targetSub(1, 1, 0, {{1, 1}}), diagSub(1, {}, 1, 26),
                    gpsSub(sampleGps())};
    orvtest::CapturedStdout out;
    send(subs);
    status();
    const std::string text = out.text();
    for (const char* line :
         {"ORVAINFO: Received platform pose subpacket\nORVAPLATPOSE: 07 15 00 01 00 00 00 03 ",
          "ORVAINFO: Received target subpacket\nORVATGT: 06 33 00 01 00 00 00 01 44 ",
          "ORVAINFO: Received diagnostic subpacket\nORVADUMP: 0D 1A 00 01 00 00 00 ",
          "ORVAINFO: Received GPS subpacket\nORVADUMP: 08 49 00 01 04 03 02 01 "})
        EXPECT_NE(text.find(line), std::string::npos) << line;

    // With every line off, a burst of full meta packets is parsed without
    // allocating.
    access.setVerbosity(0);
    const Bytes packet = metaPkt({subs[kPlat], subs[kTarget], diagSub(1, {5, 0, 0, 0}, 1, 30), subs[kGps]});
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(sender.send(port[orvtest::kMeta], packet));
    orvtest::startCountingAllocations();
    s_OrvAccessStatus st{};
    const bool ok = access.getStatus(&st);
    const long allocations = orvtest::stopCountingAllocations();
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(errors().size(), 50u);

    access.close();
    std::ifstream log(dir.prefix() + "orvaSub.log", std::ios::binary);
    const Bytes logged{std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>()};
    Bytes expected;
    for (int round = 0; round < 51; ++round) {
        for (int i = 0; i < 4; ++i) {
            const Bytes& s = round == 0 || i != kDiag ? subs[i] : diagSub(1, {5, 0, 0, 0}, 1, 30);
            expected.insert(expected.end(), s.begin(), s.begin() + OrvosiUtil::word16(&s[1]));
        }
    }
    EXPECT_EQ(logged, expected);
    OrvUtil::resetLogState();
}

}  // namespace
