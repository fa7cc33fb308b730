// The dissector field by field: packets of every kind built by the
// simulator's builders from chosen values (and command frames as the library
// sends them), written to a pcap file, read back by tshark; each field must
// show the value that went in. Damaged packets must carry an error in the
// expert info, and sound ones none.
#include <arpa/inet.h>

#include <cmath>
#include <cstring>
#include <map>
#include <regex>

#include "IniKeys.hpp"
#include "orvsim/Wire.hpp"
#include "wire/Chip.hpp"
#include "wire/Fields.hpp"
#include "support/TestSupport.hpp"
#include "capture/Packets.hpp"
#include "capture/Pcap.hpp"
#include "programs/capture/Programs.hpp"

namespace {

using orvsim::Datagram;
using orvtools::Bytes;

// The ports the dissector knows without being told: the library's defaults.
using orvini::defaultPort;
using orvini::Key;
constexpr int kMeta = defaultPort(Key::udpOrvRxPort), kCore = defaultPort(Key::udpOrvCorePort),
              kImage = defaultPort(Key::udpOrvRxImgPort), kUplink = defaultPort(Key::udpOrvRxInputPort),
              kHub = defaultPort(Key::udpOrvHubPort), kNft = defaultPort(Key::udpNftPort),
              kCommands = defaultPort(Key::tcpOrvRxPort), kElsewhere = 40001;
const uint32_t kHost = 0x7F000001;

// Seals a datagram again after a test changed its bytes on purpose.
void reseal(Datagram& d) {
    d.back() = 0;
    d.back() = static_cast<unsigned char>(-OrvosiUtil::checksum(d.data(), d.size() - 1));
}

class Dissector : public testing::Test {
protected:
    void SetUp() override {
        tshark_ = orvtest::onPath("tshark");
        if (tshark_.empty()) GTEST_SKIP() << "tshark is not installed (Debian: tshark; scripts/install-deps.sh installs it)";
        std::string error;
        ASSERT_TRUE(writer_.open((dir_.path() / "built.pcap").string(), DLT_RAW, error)) << error;
    }
    // Frame numbers count from 1, as tshark's do.
    int udp(int port, const Datagram& d) {
        const Bytes p = orvtools::makeUdpPacket(kHost, 40000, kHost, static_cast<uint16_t>(port), d.data(), d.size(), 1);
        writer_.write(1000000u * ++frames_, p.data(), p.size());
        return frames_;
    }
    int tcp(const Bytes& packet) {
        writer_.write(1000000u * ++frames_, packet.data(), packet.size());
        return frames_;
    }
    // Each frame's values of the fields, read by tshark with the default ports.
    std::map<std::string, std::string> read(int frame, const std::vector<std::string>& fields) {
        if (rows_.empty()) {
            std::string error;
            writer_.close(error);
            std::vector<std::string> all = {"frame.number"};
            for (const auto& f : fields_) all.push_back(f);
            rows_ = orvtest::tsharkFields(tshark_, ORV_DISSECTOR, (dir_.path() / "built.pcap").string(), {}, all,
                                          (dir_.path() / "tshark").string(), &error);
            EXPECT_EQ(error.find("Lua"), std::string::npos) << error;
            EXPECT_EQ(rows_.size(), static_cast<size_t>(frames_)) << error;
        }
        std::map<std::string, std::string> out;
        for (const auto& row : rows_)
            if (row[0] == std::to_string(frame))
                for (size_t i = 0; i < fields_.size(); ++i)
                    for (const auto& f : fields)
                        if (fields_[i] == f) out[f] = row[i + 1];
        return out;
    }
    // Numbers that tshark prints as it likes ("1.5", "1.50000", "0x0101") compared as numbers.
    static void expectNumbers(const std::string& field, const std::string& got, const std::vector<double>& want) {
        std::vector<double> values;
        std::istringstream in(got);
        std::string cell;
        while (std::getline(in, cell, ',')) values.push_back(std::strtod(cell.c_str(), nullptr));
        ASSERT_EQ(values.size(), want.size()) << field << " = " << got;
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_NEAR(values[i], want[i], 1e-6 * std::max(1.0, std::fabs(want[i]))) << field << "[" << i << "]";
    }

    std::string tshark_;
    orvtest::TempDir dir_;
    orvtools::PcapWriter writer_;
    int frames_ = 0;
    std::vector<std::string> fields_;
    std::vector<std::vector<std::string>> rows_;
};

TEST_F(Dissector, ShowsEveryFieldOfEveryKindAsBuilt) {
    s_OrvAccessTrkDataExt t{};
    t.packetTag = 77;
    t.poseTime = 123456789012ull;
    t.platPoseTime = 5;
    t.statusWord = 0x101;
    const float vecA[3] = {1.5f, -2.25f, 3.0f};
    std::memcpy(t.vecA, vecA, sizeof vecA);
    t.countB = 10;
    for (int i = 0; i < 9; ++i) t.cbn[i / 3][i % 3] = 0.1f * static_cast<float>(i);
    t.angularRate[2] = 0.75f;
    t.time2 = 4242;
    t.scalarB = -8.5f;
    t.errorCodes[1] = 5;
    t.vecO[0] = 6.0f;
    orvsim::Optical o;
    o.tag = 78;
    o.targets = {{31, {0.5f, 0, 0, 0, -1.0f}}, {32, {0, 0, 0, 0, 2.0f}}};
    s_OrvAccessPoseRecStats st{};
    st.stat3 = 9;
    st.flagB = 1;
    st.vec4[1] = 4.5f;
    st.value5 = -3.0f;
    o.stats = st;
    const int tracking = udp(kCore, orvsim::buildTracking(t, &o));

    orvsim::MetaContent m;
    m.tag = 300;
    m.interval = 0.001f;
    m.time = 98765432100ull;
    m.imu.type = 20;
    m.imu.pid = 44;
    m.imu.gyroRaw[0] = static_cast<uint16_t>(-256);
    m.imu.hasAux = true;
    m.imu.aux = 7;
    m.platPose = s_OrvAccessPlatPoseData{300, {0.25f, -0.5f, 1.0f}};
    OrvAccess::s_TgtData e1{}, e2{};
    e1.tag = e2.tag = 300;
    e1.kind = 1;
    e1.id = 201;
    e2.kind = 2;
    e2.id = 202;
    e2.word4 = 9;
    e2.value6 = 2.5f;
    m.target = orvsim::buildTargetSubpackets({e1, e2}, 4)[0];
    s_OrvAccessDiagData d{};
    d.tag = 300;
    d.diagCount = 0x123456;
    d.errorCodes[0] = 0x21;
    d.state = 3;
    const unsigned char optional[4] = {1, 2, 3, 4};
    std::memcpy(d.optional, optional, 4);
    m.diag = d;
    s_OrvAccessGpsData g{};
    g.lat = 48.25;
    g.lon = -11.5;
    g.gpsHalf = 4242;
    g.gpsDouble2 = 1e9;
    g.gpsByte2 = 0x1FF;  // only the low byte travels
    m.gps = g;
    const int meta = udp(kMeta, orvsim::buildMeta(m));

    s_OrvAccessPoseRecStats p{};
    p.tag = 15;
    p.stat2 = 3;
    p.value0 = 0.25f;
    p.vec3[2] = -1.0f;
    p.extra[6] = 0x00020001;  // the first two counts
    p.value4 = 12.0f;
    const int pra = udp(kCore, orvsim::buildPra(p));

    s_OrvAccessHubData h{};
    h.word = 11;
    h.halfWord = 12;
    h.status = 13;
    h.words[1] = 14;
    h.time = 1500000;
    h.cbn[2][2] = 1.0f;
    h.vec[6][1] = -0.125f;
    h.lastByte = 99;
    const int hub = udp(kHub, orvsim::buildHubData(h));
    const int hubError = udp(kHub, orvsim::buildHubError(55, 6));

    s_OrvAccessTrkDataExt n{};
    n.packetTag = 900;
    n.poseTime = 31337;
    n.position[0] = 0.5f;
    n.countA = 3;
    n.extD[2] = 9.5f;
    const int nft = udp(kNft, orvsim::buildNft(n, {{{1, 2, 3}}, {{4, 5, 6}}, {{7, 8, 9}}}));

    const unsigned char pixels[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const int image = udp(kImage, orvsim::buildImagePieces(6, 10, pixels, sizeof pixels, 10)[1]);

    const int upPose = udp(kUplink, orvsim::buildPlatPoseSubpacket({17, {0.0f, 0.5f, -0.5f}}));
    const int upInput = udp(kUplink, Datagram{8, 5, 0, 0x2A, 0xC9});

    fields_ = {"orv.datagram", "orv.subpacket", "_ws.expert.severity", "orv.errorMessage",
               "orv.tracking.packetTag", "orv.tracking.poseTime", "orv.tracking.platPoseTime",
               "orv.tracking.statusWord", "orv.tracking.vecA", "orv.tracking.countB", "orv.tracking.cbn",
               "orv.tracking.angularRate", "orv.tracking.time2", "orv.tracking.scalarB", "orv.tracking.errorCodes",
               "orv.tracking.vecO", "orv.optical.tag", "orv.optical.targetCount", "orv.optical.id",
               "orv.optical.resid", "orv.optical.stat3", "orv.optical.flagB", "orv.optical.vec4",
               "orv.optical.value5", "orv.meta.tag", "orv.meta.interval", "orv.meta.time", "orv.meta.platPoseAt",
               "orv.imu.type", "orv.imu.pid", "orv.imu.gyroRaw", "orv.imu.gyro", "orv.imu.hi2000",
               "orv.imu.byte2000", "orv.platpose.format", "orv.platpose.pose", "orv.target.entryCount",
               "orv.target.total", "orv.target.id", "orv.target.word4", "orv.target.value6", "orv.diag.diagCount",
               "orv.diag.errorCodes", "orv.diag.state", "orv.diag.optional", "orv.gps.format", "orv.gps.lat",
               "orv.gps.lon", "orv.gps.gpsHalf", "orv.gps.gpsDouble2", "orv.gps.gpsByte2", "orv.pra.tag",
               "orv.pra.stat2", "orv.pra.value0", "orv.pra.vec3", "orv.pra.counts", "orv.pra.value4",
               "orv.hub.word", "orv.hub.halfWord", "orv.hub.status", "orv.hub.words", "orv.hub.time",
               "orv.hub.cbn", "orv.hub.vec", "orv.hub.lastByte", "orv.hubError.value", "orv.hubError.code",
               "orv.nft.packetTag", "orv.nft.poseTime", "orv.nft.position", "orv.nft.countA",
               "orv.nft.featureCount", "orv.nft.feature", "orv.nft.extD", "orv.image.sequenceId",
               "orv.image.format", "orv.image.address", "orv.image.geometry", "orv.image.pixels",
               "orv.uplink.platpose.tag", "orv.uplink.platpose.pose", "orv.uplink.input.code"};

    auto f = read(tracking, {});  // runs tshark once for every frame
    f = read(tracking, fields_);
    EXPECT_EQ(f["orv.datagram"], "tracking");
    EXPECT_EQ(f["orv.subpacket"], "optical");
    EXPECT_EQ(f["_ws.expert.severity"].find("8388608"), std::string::npos) << "an error on a sound packet";
    EXPECT_EQ(f["orv.tracking.packetTag"], "77");
    EXPECT_EQ(f["orv.tracking.poseTime"], "123456789012");
    EXPECT_EQ(f["orv.tracking.platPoseTime"], "5");
    expectNumbers("statusWord", f["orv.tracking.statusWord"], {0x101});
    expectNumbers("vecA", f["orv.tracking.vecA"], {1.5, -2.25, 3.0});
    EXPECT_EQ(f["orv.tracking.countB"], "10");
    expectNumbers("cbn", f["orv.tracking.cbn"], {0, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8});
    expectNumbers("angularRate", f["orv.tracking.angularRate"], {0, 0, 0.75});
    EXPECT_EQ(f["orv.tracking.time2"], "4242");
    expectNumbers("scalarB", f["orv.tracking.scalarB"], {-8.5});
    EXPECT_EQ(f["orv.tracking.errorCodes"], "0,5,0,0");
    EXPECT_EQ(f["orv.errorMessage"], "5: [ORVCORE] ERROR: Invalid checksum on input meta-packet");
    expectNumbers("vecO", f["orv.tracking.vecO"], {6, 0, 0});
    EXPECT_EQ(f["orv.optical.tag"], "78");
    EXPECT_EQ(f["orv.optical.targetCount"], "2");
    EXPECT_EQ(f["orv.optical.id"], "31,32");
    expectNumbers("resid", f["orv.optical.resid"], {0.5, 0, 0, 0, -1, 0, 0, 0, 0, 2});
    EXPECT_EQ(f["orv.optical.stat3"], "9");
    EXPECT_EQ(f["orv.optical.flagB"], "1");
    expectNumbers("vec4", f["orv.optical.vec4"], {0, 4.5, 0});
    expectNumbers("value5", f["orv.optical.value5"], {-3});

    f = read(meta, fields_);
    EXPECT_EQ(f["orv.datagram"], "meta");
    EXPECT_EQ(f["orv.subpacket"], "imu,platform-pose,target,diagnostic,gps");
    EXPECT_EQ(f["_ws.expert.severity"].find("8388608"), std::string::npos);
    EXPECT_EQ(f["orv.meta.tag"], "300");
    expectNumbers("interval", f["orv.meta.interval"], {0.001});
    EXPECT_EQ(f["orv.meta.time"], "98765432100");
    EXPECT_EQ(f["orv.imu.type"], "20");
    EXPECT_EQ(f["orv.imu.pid"], "44");
    EXPECT_EQ(f["orv.imu.gyroRaw"], "65280,0,0");
    expectNumbers("gyro", f["orv.imu.gyro"], {-256 * 3.90625e-5, 0, 0});
    EXPECT_EQ(f["orv.imu.hi2000"], "1");
    EXPECT_EQ(f["orv.imu.byte2000"], "7");
    EXPECT_EQ(f["orv.platpose.format"], "3");
    expectNumbers("pose", f["orv.platpose.pose"], {0.25, -0.5, 1.0});
    EXPECT_EQ(f["orv.target.entryCount"], "2");
    EXPECT_EQ(f["orv.target.total"], "2");
    EXPECT_EQ(f["orv.target.id"], "201,202");
    EXPECT_EQ(f["orv.target.word4"], "0,9");
    expectNumbers("value6", f["orv.target.value6"], {0, 2.5});
    EXPECT_EQ(f["orv.diag.diagCount"], std::to_string(0x123456));
    EXPECT_EQ(f["orv.diag.errorCodes"], "33,0,0,0");
    EXPECT_EQ(f["orv.errorMessage"], "289: [ORVRX]: Unknown error");
    EXPECT_EQ(f["orv.diag.state"], "3");
    EXPECT_EQ(f["orv.diag.optional"], "1,2,3,4");
    EXPECT_EQ(f["orv.gps.format"], "1");
    expectNumbers("lat", f["orv.gps.lat"], {48.25});
    expectNumbers("lon", f["orv.gps.lon"], {-11.5});
    EXPECT_EQ(f["orv.gps.gpsHalf"], "4242");
    expectNumbers("gpsDouble2", f["orv.gps.gpsDouble2"], {1e9});
    EXPECT_EQ(f["orv.gps.gpsByte2"], "255");

    f = read(pra, fields_);
    EXPECT_EQ(f["orv.datagram"], "pra");
    EXPECT_EQ(f["orv.pra.tag"], "15");
    EXPECT_EQ(f["orv.pra.stat2"], "3");
    expectNumbers("value0", f["orv.pra.value0"], {0.25});
    expectNumbers("vec3", f["orv.pra.vec3"], {0, 0, -1});
    EXPECT_EQ(f["orv.pra.counts"].substr(0, 6), "1,2,0,");
    expectNumbers("value4", f["orv.pra.value4"], {12});

    f = read(hub, fields_);
    EXPECT_EQ(f["orv.datagram"], "hub");
    EXPECT_EQ(f["orv.hub.word"], "11");
    EXPECT_EQ(f["orv.hub.halfWord"], "12");
    EXPECT_EQ(f["orv.hub.status"], "13");
    EXPECT_EQ(f["orv.hub.words"], "0,14");
    EXPECT_EQ(f["orv.hub.time"], "1500000");
    expectNumbers("hub cbn", f["orv.hub.cbn"], {0, 0, 0, 0, 0, 0, 0, 0, 1});
    std::vector<double> vec(21, 0.0);
    vec[19] = -0.125;
    expectNumbers("hub vec", f["orv.hub.vec"], vec);
    EXPECT_EQ(f["orv.hub.lastByte"], "99");

    f = read(hubError, fields_);
    EXPECT_EQ(f["orv.datagram"], "hub-error");
    EXPECT_EQ(f["orv.hubError.value"], "55");
    EXPECT_EQ(f["orv.hubError.code"], "6");
    EXPECT_EQ(f["orv.errorMessage"], "1030: [ORVHUB] ERROR: Error reading from serial port");

    f = read(nft, fields_);
    EXPECT_EQ(f["orv.datagram"], "nft");
    EXPECT_EQ(f["orv.nft.packetTag"], "900");
    EXPECT_EQ(f["orv.nft.poseTime"], "31337");
    expectNumbers("nft position", f["orv.nft.position"], {0.5, 0, 0});
    EXPECT_EQ(f["orv.nft.countA"], "3");
    EXPECT_EQ(f["orv.nft.featureCount"], "3");
    expectNumbers("features", f["orv.nft.feature"], {1, 2, 3, 4, 5, 6, 7, 8, 9});
    expectNumbers("extD", f["orv.nft.extD"], {0, 0, 9.5});

    f = read(image, fields_);
    EXPECT_EQ(f["orv.datagram"], "image");
    EXPECT_EQ(f["orv.image.sequenceId"], "6");
    EXPECT_EQ(f["orv.image.format"], "10");
    EXPECT_EQ(f["orv.image.address"], "10");
    EXPECT_EQ(f["orv.image.geometry"], "640x480x1");
    EXPECT_EQ(f["orv.image.pixels"], "0b0c0d0e0f10");

    f = read(upPose, fields_);
    EXPECT_EQ(f["orv.datagram"], "uplink-platform-pose");
    EXPECT_EQ(f["orv.uplink.platpose.tag"], "17");
    expectNumbers("uplink pose", f["orv.uplink.platpose.pose"], {0, 0.5, -0.5});
    f = read(upInput, fields_);
    EXPECT_EQ(f["orv.datagram"], "uplink-input");
    EXPECT_EQ(f["orv.uplink.input.code"], "42");
}

TEST_F(Dissector, FlagsBadChecksumsWrongLengthsAndOverrunsOnTheirPacketOnly) {
    s_OrvAccessTrkDataExt t{};
    t.packetTag = 1;
    const Datagram good = orvsim::buildTracking(t);
    const int sound = udp(kCore, good);

    Datagram badSum = good;
    badSum[40] ^= 0x10;
    const int checksum = udp(kCore, badSum);

    Datagram longer = good;  // the length word one more than the datagram
    longer[1] = static_cast<unsigned char>(longer[1] + 1);
    reseal(longer);
    const int length = udp(kCore, longer);

    // Three target entries announced, room for two.
    OrvAccess::s_TgtData e{};
    e.id = 5;
    Datagram target = orvsim::buildTargetSubpackets({e, e}, 4)[0];
    target[orvwire::offsetOf(orvwire::kTargetFields, "entryCount")] = 3;
    reseal(target);
    const int overrun = udp(kMeta, orvsim::buildMeta(2, 0.0f, 0, {}, {Datagram(), target, Datagram(), Datagram()}));

    s_OrvAccessTrkDataExt n{};
    Datagram nft = orvsim::buildNft(n, {{{1, 2, 3}}});
    nft[orvwire::offsetOf(orvwire::kNftFields, "featureCount")] = 100;
    reseal(nft);
    const int features = udp(kNft, nft);

    orvsim::ChipSample chip;
    Datagram chipBytes = orvsim::buildChipPacket(chip);
    chipBytes[5] ^= 1;  // the chip packet's own checksum breaks; the meta packet stays sound
    const int imu = udp(kMeta, orvsim::buildMeta(3, 0.001f, 0, chipBytes, {}));

    // Elsewhere than on the configured ports: taken when its framing holds, else left alone.
    const int heuristic = udp(kElsewhere, good);
    const int notOurs = udp(kElsewhere, badSum);
    const int dropped = udp(kCore, Datagram{9, 5, 0, 0, 0xF2});  // orvCore carries no kind 9

    fields_ = {"orv.datagram", "_ws.expert.severity", "_ws.expert.message", "_ws.malformed"};
    const auto errorsOf = [&](int frame) {
        auto f = read(frame, fields_);
        EXPECT_TRUE(f["_ws.malformed"].empty()) << "frame " << frame;
        std::string out;
        std::istringstream sev(f["_ws.expert.severity"]), msg(f["_ws.expert.message"]);
        std::string s, m;
        while (std::getline(sev, s, ',') && std::getline(msg, m, ','))
            if (s == "8388608") out += m + "|";
        return out;
    };
    EXPECT_EQ(errorsOf(sound), "");
    EXPECT_NE(errorsOf(checksum).find("Bad checksum"), std::string::npos);
    EXPECT_NE(errorsOf(length).find("Wrong length: the length word says 333 but the datagram has 332 bytes"),
              std::string::npos)
        << errorsOf(length);
    EXPECT_NE(errorsOf(overrun).find("3 entries need"), std::string::npos) << errorsOf(overrun);
    EXPECT_NE(errorsOf(features).find("100 features need"), std::string::npos) << errorsOf(features);
    EXPECT_NE(errorsOf(imu).find("Bad IMU subpacket: bad checksum"), std::string::npos) << errorsOf(imu);
    EXPECT_EQ(read(heuristic, fields_)["orv.datagram"], "tracking");
    EXPECT_EQ(read(notOurs, fields_)["orv.datagram"], "");
    EXPECT_EQ(errorsOf(notOurs), "");
    EXPECT_EQ(read(dropped, fields_)["_ws.expert.message"].find("drops it unseen") != std::string::npos, true);
}

// Image datagrams too short for their header are marked so, not thrown
// out as malformed: from 1 byte up to the last one short of the header.
TEST_F(Dissector, ImageDatagramsCutShortAreMarkedShortNotMalformed) {
    std::vector<int> frames;
    for (size_t n = 1; n <= 7; ++n) {
        // The right start byte and a length word that agrees, as far as they fit.
        Datagram d(n, 0);
        d[0] = ORVWIRE_START_IMAGE;
        if (n >= 2) d[1] = static_cast<unsigned char>(n);
        frames.push_back(udp(kImage, d));
    }
    fields_ = {"orv.datagram", "_ws.expert.message", "_ws.malformed", "_ws.lua.error"};
    for (int frame : frames) {
        auto f = read(frame, fields_);
        SCOPED_TRACE(frame);
        EXPECT_TRUE(f["_ws.malformed"].empty()) << f["_ws.expert.message"];
        EXPECT_TRUE(f["_ws.lua.error"].empty()) << f["_ws.lua.error"];
        EXPECT_EQ(f["orv.datagram"], "image");
        EXPECT_FALSE(f["_ws.expert.message"].empty()) << "a short datagram without a word about it";
    }
}

// Every number field describes itself in the tshark Debian ships, units
// included; a field known only by its record name says what it is.
TEST_F(Dissector, FieldsCarryTheirDescriptionsAndSayWhatTheyAre) {
    const orvtest::Ran fields =
        orvtest::run({tshark_, "-G", "fields", "-X", "lua_script:" + std::string(ORV_DISSECTOR)},
                     dir_.path().string(), 60);
    ASSERT_EQ(fields.code, 0) << fields.err;
    std::istringstream lines(fields.out);
    std::string line;
    std::map<std::string, std::pair<std::string, std::string>> orv;  // abbreviation: name, description
    int floats = 0;
    while (std::getline(lines, line)) {
        std::vector<std::string> cells;
        std::istringstream in(line);
        std::string cell;
        while (std::getline(in, cell, '\t')) cells.push_back(cell);
        // F, name, abbreviation, type, protocol, ..., description (last)
        if (cells.size() < 5 || cells[0] != "F" || cells[4] != "orv") continue;
        orv[cells[2]] = {cells[1], cells.size() > 7 ? cells[7] : ""};
        if (cells[3] == "FT_FLOAT" || cells[3] == "FT_DOUBLE") {
            ++floats;
            EXPECT_FALSE(orv[cells[2]].second.empty()) << cells[2] << " has no description";
        }
    }
    EXPECT_GT(floats, 80);
    // The names and meanings are the wire tables' own.
    const auto shown = [](const char* name, const char* label) {
        return *label == '\0' ? std::string(name) : std::string(label) + " (" + name + ")";
    };
    for (const orvwire::Field& f : orvwire::kTrackingFields)
        if (f.type != orvwire::Type::skip) {
            EXPECT_EQ(orv["orv.tracking." + std::string(f.name)].first, shown(f.name, f.label));
            EXPECT_EQ(orv["orv.tracking." + std::string(f.name)].second, f.description);
        }
    for (const orvwire::ChipValue& v : orvwire::kChipValues) {
        EXPECT_EQ(orv["orv.imu." + std::string(v.name)].first, shown(v.name, v.label));
        EXPECT_EQ(orv["orv.imu." + std::string(v.name)].second.rfind(v.description, 0), 0u) << v.name;
    }
    EXPECT_EQ(orv["orv.tracking.vecA"].first, "Boresighted vector A (vecA)");
    EXPECT_EQ(orv["orv.imu.vec40"].second,
              "Three values, passed to the application as sent (block 0x40: signed words x 0.0001)");
    EXPECT_EQ(orv["orv.tracking.position"].first, "position") << "a name that says it all stays";
    // A record name that ends in a letter or number of its own (vecA,
    // value3, hi2000, gpsValue1) says nothing without the label beside it.
    const std::regex generic("([A-Z]|[0-9]+[a-z]?)$");
    int named = 0;
    for (const auto& [abbreviation, f] : orv) {
        const std::string record = abbreviation.substr(abbreviation.rfind('.') + 1);
        if (!std::regex_search(record, generic)) continue;
        ++named;
        EXPECT_NE(f.first, record) << abbreviation;
        EXPECT_NE(f.first.find(" (" + record + ")"), std::string::npos) << abbreviation << ": " << f.first;
    }
    EXPECT_GT(named, 100);
}

// In the packet tree too, every element of a vector or matrix stands under
// its field's display name.
TEST_F(Dissector, TheTreeShowsElementsUnderTheirDisplayNames) {
    s_OrvAccessTrkDataExt t{};
    t.vecA[1] = -2.25f;
    t.scalarA = 0.5f;
    udp(kCore, orvsim::buildTracking(t));
    std::string error;
    ASSERT_TRUE(writer_.close(error)) << error;
    const orvtest::Ran shown = orvtest::run({tshark_, "-X", "lua_script:" + std::string(ORV_DISSECTOR), "-r",
                                             (dir_.path() / "built.pcap").string(), "-O", "orv"},
                                            dir_.path().string(), 60);
    ASSERT_EQ(shown.code, 0) << shown.err;
    const std::string& tree = shown.out;
    EXPECT_NE(tree.find("Boresighted vector A (vecA)[1]: -2.25\n"), std::string::npos) << tree;
    EXPECT_NE(tree.find("Pass-through scalar A (scalarA): 0.5\n"), std::string::npos) << tree;
    EXPECT_NE(tree.find("Head attitude matrix (cbn)[8]: 0\n"), std::string::npos) << tree;
}

// The command channel as the library speaks it: frames split over segments
// and several in one, replies told apart by the command they answer.
// The compact chip types pack pid, status and word into spare bits and carry
// values of 10, 12 and 14 bits: the dissector shows what the library decodes.
TEST_F(Dissector, DecodesCompactChipPacketsAsTheLibraryDoes) {
    // Every piece of the small fields non-zero; triad axis 1 (top bits of byte 15).
    Datagram chip = {5, 2, 0x34, 0xA7, 0x56, 0x5B, 0x78, 0x6E, 0x9A, 0x3C, 0xBC, 0x4D, 0xDE, 0xF9, 0x12, 0x45, 0};
    reseal(chip);
    BrevantData want{};
    ASSERT_TRUE(OrvwireChip::decode(chip.data(), &want, 0));
    ASSERT_EQ(want.triadAxis, 1);
    const int meta = udp(kMeta, orvsim::buildMeta(1, 0.5f, 2, chip, {}));

    fields_ = {"orv.imu.pid", "orv.imu.status", "orv.imu.word", "orv.imu.gyro", "orv.imu.accel",
               "orv.imu.triadAxis", "orv.imu.triad"};
    auto v = read(meta, fields_);
    EXPECT_EQ(std::stoul(v["orv.imu.pid"], nullptr, 0), want.pid);
    EXPECT_EQ(std::stoul(v["orv.imu.status"], nullptr, 0), want.status);
    EXPECT_EQ(std::stoul(v["orv.imu.word"], nullptr, 0), want.word);
    expectNumbers("orv.imu.gyro", v["orv.imu.gyro"], {want.gyro[0], want.gyro[1], want.gyro[2]});
    expectNumbers("orv.imu.accel", v["orv.imu.accel"], {want.accel[0], want.accel[1], want.accel[2]});
    EXPECT_EQ(v["orv.imu.triadAxis"], "1");
    expectNumbers("orv.imu.triad", v["orv.imu.triad"], {want.triad[1]});
}

TEST_F(Dissector, ReadsTheCommandChannelAcrossSegments) {
    orvtools::TcpFlow flow(kHost, 40100, kHost, kCommands);
    for (int step = 0; step < 3; ++step) tcp(flow.open(step));
    auto data = [&](bool client, const Bytes& b) { return tcp(flow.data(client, b.data(), b.size())); };
    const int setReg = data(true, {0xAB, 0xC4, 0x02, 0x01, 0x00, 0x01, 0x8D});
    const int ack = data(false, {0xC4});
    // A get register and an IMU transaction in one segment.
    const int two = data(true, {0xAB, 0xC3, 0x10, 0x00, 0x00, 0x82, 0xAB, 0xC0, 0x02, 0x01, 0x00, 0x04, 0x0A, 0x84});
    const int value = data(false, {0xC3, 0x05, 0x38});
    const int imu = data(false, {0x00, 0x04, 0x6B, 0x00, 0x00, 0x00});
    // A get file request cut in two.
    data(true, {0xAB, 0xC5, 0x01, 'c', 'a'});
    const int getFile = data(true, {'l', 0x00, 0x5F});
    const int size = data(false, {0xC5, 0x58, 0x02, 0x00, 0x00 /* not a valid checksum */});

    fields_ = {"orvcmd.code", "orvcmd.reply", "orvcmd.address", "orvcmd.value", "orvcmd.channel", "orvcmd.rxLength",
               "orvcmd.count", "orvcmd.data", "orvcmd.name", "orvcmd.size", "_ws.expert.message", "_ws.malformed"};
    auto f = read(setReg, fields_);
    EXPECT_EQ(f["orvcmd.code"], "0xc4");
    EXPECT_EQ(f["orvcmd.address"], "0x00000102");
    EXPECT_EQ(f["orvcmd.value"], "1");
    EXPECT_EQ(read(ack, fields_)["orvcmd.reply"], "0xc4");
    f = read(two, fields_);
    EXPECT_EQ(f["orvcmd.code"], "0xc3,0xc0");
    EXPECT_EQ(f["orvcmd.channel"], "2");
    EXPECT_EQ(f["orvcmd.rxLength"], "4");
    EXPECT_EQ(f["_ws.expert.message"], "");
    f = read(value, fields_);
    EXPECT_EQ(f["orvcmd.reply"], "0xc3");
    EXPECT_EQ(f["orvcmd.value"], "5");
    f = read(imu, fields_);
    EXPECT_EQ(f["orvcmd.count"], "4");
    EXPECT_EQ(f["orvcmd.data"], "6b000000");
    f = read(getFile, fields_);
    EXPECT_EQ(f["orvcmd.code"], "0xc5");
    EXPECT_EQ(f["orvcmd.name"], "cal");
    EXPECT_EQ(f["_ws.expert.message"], "");
    f = read(size, fields_);
    EXPECT_EQ(f["orvcmd.size"], "600");
    EXPECT_NE(f["_ws.expert.message"].find("Bad frame checksum"), std::string::npos);
    for (int frame = 1; frame <= frames_; ++frame) EXPECT_TRUE(read(frame, fields_)["_ws.malformed"].empty()) << frame;
}

}  // namespace
