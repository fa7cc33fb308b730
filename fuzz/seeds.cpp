// orvfuzz_seeds: writes the harnesses' seed corpora and dictionaries.
//
//   orvfuzz_seeds OUT INI      seeds in OUT/<harness>/, dictionaries in OUT
//   orvfuzz_seeds --regressions OUT
//                              the inputs of defects fixed before the
//                              harnesses existed (kept in fuzz/regressions)
//
// Every seed is a valid input of its harness built by the simulator's own
// builders: packets of every kind, framed and sealed, so that mutations start
// from what the library really receives. INI is a configuration file to
// start the configuration reader's corpus from.
#include <array>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "wire/CommandCodes.hpp"
#include "access/Config.hpp"
#include "access/receive/Dispatch.hpp"
#include "FuzzState.hpp"
#include "orvsim/Wire.hpp"

namespace {

using orvfuzz::appendRecord;
using orvfuzz::Bytes;

class Out {
public:
    explicit Out(std::string dir) : dir_(std::move(dir)) {}
    void write(const std::string& harness, const std::string& name, const Bytes& input) {
        std::filesystem::create_directories(dir_ + "/" + harness);
        std::ofstream(dir_ + "/" + harness + "/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(input.data()), static_cast<std::streamsize>(input.size()));
    }
    void text(const std::string& name, const std::string& content) {
        std::filesystem::create_directories(dir_);
        std::ofstream(dir_ + "/" + name) << content;
    }

private:
    std::string dir_;
};

// ---- records of every kind, with every field set --------------------------

s_OrvAccessTrkDataExt tracking(uint32_t tag) {
    s_OrvAccessTrkDataExt r{};
    r.packetTag = tag;
    r.poseTime = 1000000 + tag * 2000ull;
    r.platPoseTime = tag;
    r.statusWord = 0x11;
    for (int i = 0; i < 3; ++i) {
        r.cbn[i][i] = 1.0f;
        r.cbn2[i][i] = 1.0f;
        r.position[i] = 0.1f * static_cast<float>(i + 1);
        r.angularRate[i] = 0.2f;
        r.vecA[i] = r.vecL[i] = r.vecM[i] = 0.5f;
    }
    r.errorCodes[1] = 5;
    return r;
}

s_OrvAccessPoseRecStats stats(uint32_t tag) {
    s_OrvAccessPoseRecStats s{};
    s.tag = tag;
    s.stat0 = 1;
    s.stat1 = 2;
    s.stat2 = 3;
    s.value0 = 0.5f;
    s.flagA = 1;
    for (int i = 0; i < 3; ++i) s.vec1[i] = s.vec2[i] = s.vec3[i] = s.vec4[i] = static_cast<float>(i);
    for (uint32_t i = 0; i < 36; ++i) s.extra[i] = i;
    return s;
}

orvsim::Optical optical(uint32_t tag) {
    orvsim::Optical o;
    o.tag = tag;
    o.targets = {{7, {0.1f, 0.2f, 0.3f, 0.4f, 0.5f}}, {9, {1, 2, 3, 4, 5}}};
    o.stats = stats(tag);
    return o;
}

std::vector<Bytes> targetSubpackets(uint32_t tag) {
    std::vector<OrvAccess::s_TgtData> list(5);
    for (uint32_t i = 0; i < list.size(); ++i) {
        list[i].tag = tag;
        list[i].index = i;
        list[i].kind = 1;
        list[i].id = static_cast<uint16_t>(10 + i);
        list[i].value1 = 1.5f;
    }
    return orvsim::buildTargetSubpackets(list, 3);
}

s_OrvAccessDiagData diag(uint32_t tag) {
    s_OrvAccessDiagData d{};
    d.tag = tag;
    d.diagValue1 = 1.0f;
    d.diagCount = 0x123456;
    d.errorCodes[1] = 2;
    d.state = 1;
    d.optional[0] = 9;
    return d;
}

s_OrvAccessGpsData gps() {
    s_OrvAccessGpsData g{};
    g.valid = 1;
    g.lat = 48.1;
    g.lon = 11.5;
    g.gpsHalf = 3;
    return g;
}

orvsim::ChipSample chip(uint8_t type, uint8_t pid) {
    orvsim::ChipSample c;
    c.type = type;
    c.pid = pid;
    c.status = 0x10;
    c.word = 0x1234;
    for (int i = 0; i < 3; ++i) {
        c.gyroRaw[i] = static_cast<uint16_t>(100 * (i + 1));
        c.accelRaw[i] = static_cast<uint16_t>(0xFF00 + i);
    }
    c.hasAux = type == 20;
    c.aux = 0x42;
    return c;
}

Bytes meta(uint32_t tag, uint8_t chipType, bool everySubpacket) {
    orvsim::MetaContent m;
    m.tag = tag;
    m.interval = 0.001f;
    m.time = 5000000 + tag;
    m.imu = chip(chipType, static_cast<uint8_t>(tag));
    if (everySubpacket) {
        s_OrvAccessPlatPoseData pose{tag, {0.1f, 0.2f, 0.3f}};
        m.platPose = pose;
        m.target = targetSubpackets(tag).front();
        m.diag = diag(tag);
        m.gps = gps();
    }
    return orvsim::buildMeta(m);
}

s_OrvAccessHubData hub() {
    s_OrvAccessHubData h{};
    h.word = 1;
    h.status = 2;
    h.time = 123456;
    for (int i = 0; i < 3; ++i) h.cbn[i][i] = 1.0f;
    return h;
}

// ---- per harness ---------------------------------------------------------------

constexpr unsigned char kFramed = 0x08 | 0x10;  // datagram control: frame it and what it holds

void datagramSeeds(Out& out) {
    const std::vector<std::pair<std::string, std::pair<orvwire::Port, Bytes>>> one = {
        {"tracking", {orvwire::kCorePort, orvsim::buildTracking(tracking(1))}},
        {"tracking-optical",
         {orvwire::kCorePort,
          [] {
              const orvsim::Optical o = optical(2);
              return orvsim::buildTracking(tracking(2), &o);
          }()}},
        {"pra", {orvwire::kCorePort, orvsim::buildPra(stats(3))}},
        {"hub", {orvwire::kHubPort, orvsim::buildHubData(hub())}},
        {"hub-error", {orvwire::kHubPort, orvsim::buildHubError(77, 5)}},
        {"nft", {orvwire::kNftPort, orvsim::buildNft(tracking(4), {{1, 2, 3}, {4, 5, 6}})}},
        {"meta", {orvwire::kMetaPort, meta(5, 3, true)}},
        {"meta-aux", {orvwire::kMetaPort, meta(6, 20, false)}},
    };
    Bytes everything;
    orvfuzz::appendSetup(everything, orvfuzz::Setup{});
    for (const auto& [name, sent] : one) {
        Bytes input;
        orvfuzz::appendSetup(input, orvfuzz::Setup{});
        appendRecord(input, static_cast<unsigned char>(sent.first | kFramed), sent.second);
        out.write("datagram", name, input);
        appendRecord(everything, static_cast<unsigned char>(sent.first | kFramed), sent.second);
    }
    Bytes pixels(3000);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i);
    for (const Bytes& piece : orvsim::buildImagePieces(8, 10, pixels.data(), pixels.size(), 1000))
        appendRecord(everything, orvwire::kImagePort | kFramed, piece);
    out.write("datagram", "everything", everything);

    // The same with every diagnostic line, every log file and queues of two.
    Bytes loud;
    orvfuzz::appendSetup(loud, orvfuzz::Setup{0xFFFFFFFF, 0xFFFF, 2, 1});
    loud.insert(loud.end(), everything.begin() + orvfuzz::kSetupSize, everything.end());
    out.write("datagram", "everything-loud", loud);
}

void subpacketSeeds(Out& out) {
    // Family order of the harness: optical, chip, platform pose, target, diagnostic, GPS.
    const std::vector<std::pair<unsigned char, Bytes>> subs = {
        {0, orvsim::buildOpticalSubpacket(optical(1))},
        {1, orvsim::buildChipPacket(chip(3, 0))},
        {1, orvsim::buildChipPacket(chip(20, 1))},
        {2, orvsim::buildPlatPoseSubpacket(s_OrvAccessPlatPoseData{2, {0.1f, 0.2f, 0.3f}})},
        {3, targetSubpackets(3)[0]},
        {3, targetSubpackets(3)[1]},
        {4, orvsim::buildDiagSubpacket(diag(4))},
        {5, orvsim::buildGpsSubpacket(gps())},
    };
    constexpr unsigned char kFramedReach = 0x08 | 0x10;  // framed, reaching 4096 bytes on
    Bytes everything;
    orvfuzz::appendSetup(everything, orvfuzz::Setup{});
    int n = 0;
    for (const auto& [family, bytes] : subs) {
        Bytes input;
        orvfuzz::appendSetup(input, orvfuzz::Setup{});
        appendRecord(input, family | kFramedReach, bytes);
        out.write("subpacket", "family" + std::to_string(n++), input);
        appendRecord(everything, family | kFramedReach, bytes);
    }
    out.write("subpacket", "everything", everything);
}

void chipSeeds(Out& out) {
    for (uint8_t type : {3, 20}) {
        Bytes input{0};
        const Bytes packet = orvsim::buildChipPacket(chip(type, 9));
        input.insert(input.end(), packet.begin(), packet.end());
        out.write("chip", "type" + std::to_string(type), input);
    }
    // The types the simulator does not build: a counting pattern, sealed.
    for (uint8_t type : {1, 2, 4, 5, 6, 7, 8, 9, 21, 22}) {
        Bytes input{0x01, ORVWIRE_CHIP_SYNC, type};
        const unsigned int length = OrvosiUtil::GetBvPacketLength(type);
        for (unsigned int i = 2; i < length; ++i) input.push_back(static_cast<unsigned char>(i * 37));
        out.write("chip", "type" + std::to_string(type), input);
    }
}

// Image harness records: a described piece, and getImage for a format's size.
void describedPiece(Bytes& input, uint32_t seq, unsigned char format, size_t address, size_t count) {
    unsigned char d[10];
    OrvosiWriter w(d, sizeof d);
    w.u32(seq);
    w.u8(format);
    w.u24(address);
    w.u16(count);
    appendRecord(input, 1, d, sizeof d);
}

void fetchFormat(Bytes& input, unsigned char format, unsigned char slack) {
    const unsigned char d[2] = {format, slack};
    appendRecord(input, 3, d, sizeof d);
}

void imageSeeds(Out& out) {
    constexpr size_t kSize10 = 640 * 480, kStep = 60000;
    Bytes whole{0};
    for (size_t at = 0; at < kSize10; at += kStep)
        describedPiece(whole, 3, 10, at, std::min(kStep, kSize10 - at));
    fetchFormat(whole, 10, 2);
    out.write("image", "whole", whole);

    // A raw piece, a gap, a new sequence id, and a buffer one byte short.
    Bytes faults{3};
    Bytes pixels(1000, 0x5A);
    appendRecord(faults, 0x04, orvsim::buildImagePieces(4, 20, pixels.data(), pixels.size(), 1000)[0]);
    describedPiece(faults, 4, 20, 2000, 500);
    describedPiece(faults, 5, 51, 0, 60000);
    describedPiece(faults, 6, 51, 60000, 60000);
    fetchFormat(faults, 10, 1);
    out.write("image", "faults", faults);
}

Bytes shmInput(unsigned char region, uint32_t present, uint32_t capacity, unsigned char ready, uint32_t seq,
               unsigned char format, size_t pixels) {
    Bytes input(1 + 4 + 4 + ORVWIRE_SHM_PIXELS_AT + pixels);
    OrvosiWriter w(input.data(), input.size());
    w.u8(region);
    w.u32(present);
    w.u32(capacity);
    w.u8(ready);
    w.u32(seq);
    w.u8(format);
    for (size_t i = 0; i < pixels; ++i) w.u8(static_cast<unsigned char>(i));
    return input;
}

constexpr uint32_t kBigRegion = ORVWIRE_SHM_PIXELS_AT + 1280 * 960 * 3;

void shmSeeds(Out& out) {
    out.write("shm", "format10", shmInput(0, kBigRegion, 307200, 1, 7, 10, 200));
    out.write("shm", "format51", shmInput(0, kBigRegion, 3686400, 1, 8, 51, 64));
    out.write("shm", "illegal", shmInput(1, 400000, 400000, 1, 9, 13, 8));
    out.write("shm", "not-ready", shmInput(1, 400000, 400000, 2, 9, 10, 8));
}

Bytes le24(size_t n) {
    return {static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8),
            static_cast<unsigned char>(n >> 16)};
}

Bytes sealed(Bytes b) {
    b.push_back(static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size())));
    return b;
}

// A chunk of a file whose bytes count up from `at`.
Bytes chunk(size_t at, size_t fileSize) {
    Bytes c{orvcmd::kFrameStart, orvcmd::kChunk};
    const Bytes offset = le24(at);
    c.insert(c.end(), offset.begin(), offset.end());
    for (size_t i = 0; i < orvcmd::kChunkData; ++i)
        c.push_back(at + i < fileSize ? static_cast<unsigned char>(at + i) : 0);
    return sealed(c);
}

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Command harness records: control 0 a segment of the script, 1..5 a command.
Bytes command(unsigned char kind, Bytes fields, const std::string& tail = "") {
    fields.insert(fields.end(), tail.begin(), tail.end());
    Bytes input;
    appendRecord(input, kind, fields);
    return input;
}

Bytes script(const std::vector<Bytes>& segments) {
    Bytes input;
    for (const Bytes& s : segments) appendRecord(input, 0, s);
    return input;
}

void commandSeeds(Out& out) {
    out.write("command", "set-register",
              concat(script({{orvcmd::kSetRegister}}), command(1, {20, 2, 1, 0, 1})));
    out.write("command", "get-register",
              concat(script({sealed({orvcmd::kGetRegister, 5})}), command(2, {20, 2, 1, 0})));
    Bytes silent;
    appendRecord(silent, 0x08, Bytes{});  // silence: the command waits out its 20 ms
    out.write("command", "get-register-silent", concat(silent, command(2, {20, 2, 1, 0})));
    out.write("command", "imu",
              concat(script({{0, 3, 0x11, 0x22, 0x33}}), command(3, {1, 16, 0, 10, 1, 2, 3, 4})));

    constexpr size_t kFile = 600;
    const Bytes reply = sealed(concat({orvcmd::kGetFile}, le24(kFile)));
    out.write(
        "command", "get-file",
        concat(script({concat(reply, chunk(0, kFile)), chunk(512, kFile)}), command(4, {1}, "cal.txt")));
    out.write("command", "put-file",
              concat(script({{orvcmd::kPutFile}, {orvcmd::kChunk}, {orvcmd::kChunk}}),
                     command(5, {1, 700 & 0xFF, 700 >> 8}, "up.bin")));
}

// The keys the reader knows, as it echoes them: "ORVAINFO: key = value".
std::vector<std::string> configKeys() {
    // The extension keys are echoed only when present.
    const std::string probe = orvfuzz::writeScratchFile(
        "probe.ini", "[General]\nverbosity = 2\n[Communication]\nudpAllowedSenders = 127.0.0.1\nsMemImgMode = 0600\n");
    std::ostringstream echo;
    std::streambuf* saved = std::cout.rdbuf(echo.rdbuf());
    OrvAccessConfig cfg;
    readConfig(probe, cfg, true);
    std::cout.rdbuf(saved);
    std::vector<std::string> keys;
    std::istringstream lines(echo.str());
    const std::string prefix = "ORVAINFO: ";
    for (std::string line; std::getline(lines, line);) {
        const size_t eq = line.find(" = ");
        if (line.rfind(prefix, 0) == 0 && eq != std::string::npos)
            keys.push_back(line.substr(prefix.size(), eq - prefix.size()));
    }
    return keys;
}

const char* const kSections[] = {"General", "Communication", "Processing", "Memory"};
// Values that test the reader's rules: hex, signs, trailing text, words.
const char* const kValues[] = {"0x10", "-1", "5MB", "off", "yes", "1e308", "nan", "", "4294967296"};

void configSeeds(Out& out, const std::string& ini) {
    std::ifstream example(ini, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(example)), std::istreambuf_iterator<char>());
    out.write("config", "example", Bytes(text.begin(), text.end()));

    // Every key under every section (those in the wrong one are ignored),
    // each with one of the awkward values.
    const std::vector<std::string> keys = configKeys();
    std::string every;
    size_t v = 0;
    for (const char* section : kSections) {
        every += std::string("[") + section + "]\n";
        for (const std::string& key : keys) every += key + " = " + kValues[v++ % std::size(kValues)] + "\n";
    }
    out.write("config", "every-key", Bytes(every.begin(), every.end()));

    std::string dict;
    for (const char* section : kSections)
        dict += std::string("section_") + section + "=\"[" + section + "]\"\n";
    for (const std::string& key : keys) dict += "key_" + key + "=\"" + key + " = \"\n";
    for (size_t i = 0; i < std::size(kValues); ++i)
        if (*kValues[i] != '\0') dict += "value_" + std::to_string(i) + "=\"" + kValues[i] + "\"\n";
    out.text("config.dict", dict);
}

// C interface harness records (control modulo 16 picks the call).
void cinterfaceSeeds(Out& out) {
    Bytes calls{0};
    appendRecord(calls, 0x10 | 0, meta(1, 3, true));
    appendRecord(calls, 0x10 | 1, [] {
        const orvsim::Optical o = optical(2);
        return orvsim::buildTracking(tracking(2), &o);
    }());
    for (unsigned char which = 0; which < 5; ++which) appendRecord(calls, 2, Bytes{which, 0x40, 0x42, 0x0F});
    for (unsigned char which = 0; which < 9; ++which) appendRecord(calls, 4, Bytes{which, 1, 0, 0, 0});
    appendRecord(calls, 3, Bytes{0, 0x0A, 0xD7, 0xA3, 0x3C});  // a prediction of 0.02 s
    for (unsigned char which = 0; which < 5; ++which) appendRecord(calls, 5, Bytes{which, 64, 0, 0x02, 0x03});
    appendRecord(calls, 6, Bytes{0, 10, 0, 0, 0, 0x0F});
    appendRecord(calls, 6, Bytes{2, 0, 0xB0, 0x04, 0});
    appendRecord(calls, 7, Bytes{0, 1, 0, 0, 0});
    appendRecord(calls, 7, Bytes{2, 0x2A});
    appendRecord(calls, 13, Bytes{});
    appendRecord(calls, 0x10 | 14, concat({2}, orvsim::buildTracking(tracking(3))));
    appendRecord(calls, 12, Bytes{1});
    appendRecord(calls, 2, Bytes{0});
    out.write("cinterface", "every-call", calls);

    Bytes loud = calls;
    loud[0] = 1;
    out.write("cinterface", "every-call-loud", loud);
}

// The dictionary of the wire: start bytes, lengths as they appear in length
// words, command codes.
void wireDictionary(Out& out) {
    std::ostringstream d;
    char hex[8];
    auto byte = [&](const char* name, unsigned int v) {
        std::snprintf(hex, sizeof hex, "\\x%02X", v & 0xFF);
        d << name << "=\"" << hex << "\"\n";
    };
    auto word = [&](const char* name, unsigned int v) {
        d << name << "=\"";
        for (int i = 0; i < 2; ++i) {
            std::snprintf(hex, sizeof hex, "\\x%02X", (v >> (8 * i)) & 0xFF);
            d << hex;
        }
        d << "\"\n";
    };
    byte("start_chip", ORVWIRE_CHIP_SYNC);
    byte("start_target", ORVWIRE_START_TARGET);
    byte("start_image_platpose", ORVWIRE_START_IMAGE);
    byte("start_gps_input", ORVWIRE_START_GPS);
    byte("start_tracking", ORVWIRE_START_TRACKING);
    byte("start_hub_data", ORVWIRE_START_HUB_DATA);
    byte("start_hub_error", ORVWIRE_START_HUB_ERROR);
    byte("start_diag", ORVWIRE_START_DIAG);
    byte("start_nft", ORVWIRE_START_NFT);
    byte("start_pra", ORVWIRE_START_PRA);
    byte("start_optical", ORVWIRE_START_OPTICAL);
    byte("start_meta", ORVWIRE_START_META);
    word("length_tracking", ORVWIRE_TRACKING_SIZE);
    word("length_hub_data", ORVWIRE_HUB_DATA_SIZE);
    word("length_pra", ORVWIRE_PRA_SIZE);
    word("length_nft", ORVWIRE_NFT_SIZE);
    word("length_platpose", ORVWIRE_UPLINK_PLATPOSE_SIZE);
    word("length_gps", ORVWIRE_UPLINK_GPS_SIZE);
    byte("command_frame", orvcmd::kFrameStart);
    byte("command_imu", orvcmd::kImu);
    byte("command_get_register", orvcmd::kGetRegister);
    byte("command_set_register", orvcmd::kSetRegister);
    byte("command_get_file", orvcmd::kGetFile);
    byte("command_put_file", orvcmd::kPutFile);
    byte("command_chunk", orvcmd::kChunk);
    byte("command_abort", orvcmd::kAbort);
    for (unsigned int format : {10, 11, 12, 20, 21, 30, 31, 40, 41, 50, 51})
        byte(("image_format_" + std::to_string(format)).c_str(), format);
    out.text("wire.dict", d.str());
}

// ---- inputs of defects fixed before the harnesses existed ---------------------

void regressions(Out& out) {
    // An IMU selector of 2 and an image format of 200 became enumeration
    // values C++ cannot hold; a text of length 0 was ended before its
    // buffer; a null error record was written through; a negative sleep
    // lasted 71 minutes.
    const std::pair<const char*, std::pair<unsigned char, Bytes>> calls[] = {
        {"imu-selector-2", {4, {0, 2, 0, 0, 0}}},
        {"image-format-200", {6, {0, 200, 0, 0, 0, 0x0F}}},
        {"message-length-0", {5, {4, 0, 0, 0x02, 0x03}}},
        {"error-record-null", {0x10 | 5, {0}}},
        {"sleep-negative", {11, {0xFF, 0xFF, 0xFF, 0xFF}}},
    };
    for (const auto& [name, call] : calls) {
        Bytes c{0};
        appendRecord(c, call.first, call.second);
        out.write("cinterface", name, c);
    }

    // A region cut to 4096 bytes after being mapped at 400000: the copy of a
    // 307200-byte image ran into the missing pages (SIGBUS).
    out.write("shm", "region-cut-short", shmInput(1, 4096, 307200, 1, 5, 10, 16));

    // 300 transmit bytes went out behind a length byte of 44, with success.
    Bytes imu = script({{0, 1, 0x55}});
    Bytes fields{1, 16, 0, 10};
    fields.resize(fields.size() + 300, 0x33);
    out.write("command", "imu-transmit-300", concat(imu, command(3, fields)));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--regressions") {
        Out out(argv[2]);
        regressions(out);
        return 0;
    }
    if (argc != 3) {
        std::cerr << "usage: orvfuzz_seeds OUT INI | orvfuzz_seeds --regressions OUT\n";
        return 2;
    }
    Out out(argv[1]);
    datagramSeeds(out);
    subpacketSeeds(out);
    chipSeeds(out);
    imageSeeds(out);
    shmSeeds(out);
    commandSeeds(out);
    configSeeds(out, argv[2]);
    cinterfaceSeeds(out);
    wireDictionary(out);
    return 0;
}
