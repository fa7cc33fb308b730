// Writes the Wireshark dissector: its template with the protocol's numbers
// filled in as a Lua table, taken from the very headers and tables the
// library is built from (orvaccess/orvwire.h, the field lists and packet
// rows of src/wire, the dispatch table, the command codes, the chip and
// image tables, the error texts, the INI defaults). The dissector's field
// layouts are these lists themselves, so that the two cannot drift apart.
//
//   orvwiregen TEMPLATE OUTPUT
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <iterator>
#include <tuple>
#include <utility>

#include "wire/Chip.hpp"
#include "wire/CommandCodes.hpp"
#include "wire/Fields.hpp"
#include "access/Config.hpp"
#include "access/receive/Dispatch.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiUtil.hpp"

namespace {

const char* const kMarker = "--@ORVWIRE_TABLE@";

// Lua string literal.
std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

const char* checkName(orvwire::Check c) {
    switch (c) {
    case orvwire::Check::none: return "none";
    case orvwire::Check::datagram: return "datagram";
    case orvwire::Check::subpacket: return "subpacket";
    case orvwire::Check::chip: return "chip";
    }
    return "?";
}

const char* portName(orvwire::Port p) {
    switch (p) {
    case orvwire::kMetaPort: return "meta";
    case orvwire::kImagePort: return "image";
    case orvwire::kCorePort: return "core";
    case orvwire::kHubPort: return "hub";
    case orvwire::kNftPort: return "nft";
    default: return "?";
    }
}

void family(std::ostream& o, const orvwire::Family& f) {
    o << "    [" << quoted(f.name) << "] = {start = " << int(f.startByte) << ", check = " << quoted(checkName(f.check))
      << ", fixedSize = " << f.fixedSize << ", badCode = " << f.badCode << ", overrunCode = " << f.overrunCode
      << "},\n";
}

// What a reader sees a field called: its label with the record name beside
// it, or the record name alone where that says what the field is.
std::string displayName(const char* name, const char* label) {
    if (label == nullptr || *label == '\0') return name;
    return std::string(label) + " (" + name + ")";
}

// A field list as the dissector walks it: {name, kind, description[, count],
// label = display name}.
template <size_t N>
void layout(std::ostream& o, const char* name, const orvwire::Field (&fields)[N]) {
    o << "    " << name << " = {\n";
    for (const orvwire::Field& f : fields) {
        o << "      {" << quoted(f.name) << ", " << quoted(orvwire::typeName(f.type)) << ", " << quoted(f.description);
        if (f.count != 1 || f.type == orvwire::Type::skip) o << ", " << f.count;
        o << ", label = " << quoted(displayName(f.name, f.label)) << "},\n";
    }
    o << "    },\n";
}

// A decoded chip value's description with the blocks that bring it and the
// scale of their words, from the chip's field table.
std::string chipDescription(const orvwire::ChipValue& v) {
    std::ostringstream d;
    d << v.description;
    const char* sep = " (block ";
    for (const orvwire::ChipField& f : orvwire::kChipFields) {
        const bool value = std::string(f.name) == v.name;
        const bool raw = f.raw != nullptr && std::string(f.raw) == v.name;
        if (!value && !raw) continue;
        d << sep << "0x" << std::hex << f.bit << std::dec;
        if (f.scale != 0) {
            d << (raw ? "; " : ": ") << (f.isUnsigned ? "unsigned" : "signed") << " words x " << f.scale;
            if (raw) d << " give " << f.name;
        }
        sep = ", block ";
    }
    if (std::string(sep) != " (block ") d << ")";
    return d.str();
}

// The numbers of orvwire.h by their names, less the ORVWIRE_ prefix. A
// name that changes there fails this build, not the dissector at run time.
#define NUMBER(name) o << "    " #name " = " << static_cast<long>(ORVWIRE_##name) << ",\n"

void table(std::ostream& o) {
    o << "local W = {\n  start = {\n";
    NUMBER(CHIP_SYNC); NUMBER(START_TARGET); NUMBER(START_IMAGE); NUMBER(START_PLATPOSE); NUMBER(START_GPS);
    NUMBER(START_INPUT); NUMBER(START_TRACKING); NUMBER(START_HUB_DATA); NUMBER(START_HUB_ERROR);
    NUMBER(START_DIAG); NUMBER(START_NFT); NUMBER(START_PRA); NUMBER(START_OPTICAL); NUMBER(START_META);
    o << "  },\n  layout = {\n";
    NUMBER(HEADER_SIZE); NUMBER(MAX_DATAGRAM); NUMBER(TRACKING_SIZE); NUMBER(TRACKING_OPTICAL_AT);
    NUMBER(OPTICAL_TARGETS_AT); NUMBER(OPTICAL_TARGET_SIZE); NUMBER(OPTICAL_STATS_SIZE);
    NUMBER(META_PLATPOSE_OFFSET_AT); NUMBER(META_TARGET_OFFSET_AT); NUMBER(META_DIAG_OFFSET_AT);
    NUMBER(META_GPS_OFFSET_AT); NUMBER(META_TIME_AT); NUMBER(META_IMU_AT); NUMBER(META_IMU_SIZE);
    NUMBER(TARGET_ENTRIES_AT); NUMBER(TARGET_ENTRY_SIZE); NUMBER(DIAG_OPTIONAL_1); NUMBER(DIAG_OPTIONAL_2);
    NUMBER(PLATPOSE_FORMAT3_AT); NUMBER(PLATPOSE_FORMAT2_AT); NUMBER(HUB_DATA_SIZE); NUMBER(HUB_ERROR_SIZE);
    NUMBER(PRA_SIZE); NUMBER(NFT_FEATURES_AT); NUMBER(NFT_FEATURE_SIZE); NUMBER(NFT_SIZE);
    NUMBER(IMAGE_PIXELS_AT); NUMBER(IMAGE_OVERHEAD); NUMBER(UPLINK_PLATPOSE_SIZE); NUMBER(UPLINK_GPS_SIZE);
    NUMBER(UPLINK_INPUT_SIZE); NUMBER(PLATPOSE_FORMAT2); NUMBER(PLATPOSE_FORMAT3); NUMBER(GPS_FORMAT);
    o << "  },\n  layouts = {\n";
    layout(o, "TRACKING", orvwire::kTrackingFields);
    layout(o, "OPTICAL", orvwire::kOpticalFields);
    layout(o, "OPTICAL_TARGET", orvwire::kOpticalTargetFields);
    layout(o, "STATS", orvwire::kStatsFields);
    layout(o, "PRA", orvwire::kPraFields);
    layout(o, "HUB", orvwire::kHubFields);
    layout(o, "HUB_ERROR", orvwire::kHubErrorFields);
    layout(o, "NFT", orvwire::kNftFields);
    layout(o, "NFT_TAIL", orvwire::kNftTailFields);
    layout(o, "META", orvwire::kMetaFields);
    layout(o, "IMAGE", orvwire::kImageFields);
    layout(o, "PLATPOSE", orvwire::kPlatPoseFields);
    layout(o, "POSE", orvwire::kPoseFields);
    layout(o, "TARGET", orvwire::kTargetFields);
    layout(o, "TARGET_ENTRY", orvwire::kTargetEntryFields);
    layout(o, "DIAG", orvwire::kDiagFields);
    layout(o, "DIAG_OPTIONAL", orvwire::kDiagOptionalFields);
    layout(o, "GPS", orvwire::kGpsFields);
    layout(o, "UPLINK_GPS", orvwire::kUplinkGpsFields);
    layout(o, "GPS_BODY", orvwire::kGpsBodyFields);
    layout(o, "UPLINK_POSE", orvwire::kUplinkPoseFields);
    layout(o, "INPUT", orvwire::kInputFields);
    // The chip's fields in wire order: {mask bit, name, bytes, scale, raw name, unsigned}.
    o << "  },\n  chipFields = {\n" << std::setprecision(17);
    for (const orvwire::ChipField& f : orvwire::kChipFields) {
        o << "    {" << f.bit << ", " << quoted(f.name) << ", " << f.bytes;
        o << ", ";
        if (f.scale != 0)
            o << f.scale;
        else
            o << "nil";
        o << ", " << (f.raw != nullptr ? quoted(f.raw) : "nil") << ", " << (f.isUnsigned ? "true" : "false")
          << "},\n";
    }
    // Every value a chip packet decodes to: {name, kind, display name, description}.
    o << "  },\n  chipValues = {\n";
    for (const orvwire::ChipValue& v : orvwire::kChipValues)
        o << "    {" << quoted(v.name) << ", " << quoted(orvwire::typeName(v.type)) << ", "
          << quoted(displayName(v.name, v.label)) << ", " << quoted(chipDescription(v)) << "},\n";
    o << "  },\n  chipFieldsAt = " << orvwire::kChipFieldsAt << ",\n  chipValue8000a = {scale = "
      << orvwire::kChipValue8000aScale << ", factor = " << orvwire::kChipValue8000aFactor
      << "},\n  compact = {\n";
    for (auto [name, v] : {std::pair<const char*, orvwire::CompactValue>{"gyro", orvwire::kCompactGyro},
                           {"accel", orvwire::kCompactAccel},
                           {"triad", orvwire::kCompactTriad}})
        o << "    " << name << " = {at = " << v.at << ", bits = " << v.bits << ", scale = " << v.scale << "},\n";
    o << "    withTriad = " << int(orvwire::kCompactWithTriad) << ",\n";
    // The small fields' pieces: {byte, left shift (negative: right), mask}.
    for (auto [name, pieces, n] : {std::tuple<const char*, const orvwire::BitPiece*, size_t>{
                                       "pid", orvwire::kCompactPid, std::size(orvwire::kCompactPid)},
                                   {"status", orvwire::kCompactStatus, std::size(orvwire::kCompactStatus)},
                                   {"word", orvwire::kCompactWord, std::size(orvwire::kCompactWord)}}) {
        o << "    " << name << " = {";
        for (size_t i = 0; i < n; ++i)
            o << "{" << int(pieces[i].at) << ", " << int(pieces[i].shift) << ", " << pieces[i].mask << "}, ";
        o << "},\n";
    }
    o << "  },\n  families = {\n";
    for (const orvwire::Family* f : {&orvwire::kMeta, &orvwire::kImage, &orvwire::kTracking, &orvwire::kPra,
                                     &orvwire::kHubError, &orvwire::kHubData, &orvwire::kNft, &orvwire::kOptical,
                                     &orvwire::kImu, &orvwire::kPlatPose, &orvwire::kTarget, &orvwire::kDiag,
                                     &orvwire::kGps})
        family(o, *f);
    o << "  },\n  routes = {\n";
    for (const orvwire::Route& r : orvwire::kRoutes)
        o << "    {port = " << quoted(portName(r.port)) << ", first = " << r.firstByte
          << ", family = " << quoted(r.family->name) << "},\n";
    o << "  },\n  metaSlots = {\n";
    for (const orvwire::MetaSlot& s : orvwire::kMetaSlots)
        o << "    {at = " << s.offsetAt << ", width = " << s.offsetWidth << ", family = " << quoted(s.family->name)
          << "},\n";
    o << "  },\n  commands = {\n";
    o << "    FRAME_START = " << int(orvcmd::kFrameStart) << ", IMU = " << int(orvcmd::kImu)
      << ", GET_REGISTER = " << int(orvcmd::kGetRegister) << ", SET_REGISTER = " << int(orvcmd::kSetRegister)
      << ",\n    GET_FILE = " << int(orvcmd::kGetFile) << ", PUT_FILE = " << int(orvcmd::kPutFile)
      << ", CHUNK = " << int(orvcmd::kChunk) << ", ABORT = " << int(orvcmd::kAbort)
      << ",\n    CHUNK_DATA = " << orvcmd::kChunkData << ", STREAMING_REGISTER = " << orvcmd::kStreamingRegister
      << ",\n  },\n  chip = {\n";
    for (int type = 0; type < 256; ++type) {
        const unsigned length = OrvosiUtil::GetBvPacketLength(static_cast<unsigned char>(type));
        if (length != 0)
            o << "    [" << type << "] = {length = " << length
              << ", mask = " << OrvosiUtil::GetPacketMask(static_cast<unsigned char>(type)) << "},\n";
    }
    o << "  },\n  images = {\n";
    for (int code = 0; code < 256; ++code) {
        unsigned w = 0, h = 0, b = 0;
        if (OrvosiUtil::GetImageResolution(static_cast<unsigned char>(code), &w, &h, &b))
            o << "    [" << code << "] = {" << w << ", " << h << ", " << b << "},\n";
    }
    // Every code with a text of its own: what the library would say of it.
    o << "  },\n  messages = {\n";
    OrvAccess access;
    const std::string unknownOf[] = {access.getErrorMessage(0x0FF), access.getErrorMessage(0x1FF),
                                     access.getErrorMessage(0x2FF), access.getErrorMessage(0x3FF),
                                     access.getErrorMessage(0x4FF)};
    for (unsigned code = 1; code < 0x500; ++code) {
        const std::string text = access.getErrorMessage(static_cast<unsigned short>(code));
        if (text != unknownOf[code >> 8]) o << "    [" << code << "] = " << quoted(text) << ",\n";
    }
    o << "  },\n  unknownMessages = {";
    for (const std::string& u : unknownOf) o << quoted(u) << ", ";
    o << "},\n  origins = {ORVRX = " << ORVACCESS_ORIGIN_ORVRX << ", ORVHUB = " << ORVACCESS_ORIGIN_ORVHUB
      << "},\n";
    // The ports a configuration file without them leaves: the preferences' defaults.
    const OrvAccessConfig d;
    o << "  ports = {meta = " << d.udpOrvRxPort << ", image = " << d.udpOrvRxImgPort << ", core = " << d.udpOrvCorePort
      << ", hub = " << d.udpOrvHubPort << ", nft = " << d.udpNftPort << ", uplink = " << d.udpOrvRxInputPort
      << ", commands = " << d.tcpOrvRxPort << "},\n}\n";
}

#undef NUMBER

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: orvwiregen TEMPLATE OUTPUT\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    if (!in) {
        std::cerr << "orvwiregen: cannot read " << argv[1] << "\n";
        return 1;
    }
    std::ostringstream out;
    std::string line;
    bool placed = false;
    while (std::getline(in, line)) {
        if (line.find(kMarker) != std::string::npos) {
            table(out);
            placed = true;
        } else {
            out << line << '\n';
        }
    }
    if (!placed) {
        std::cerr << "orvwiregen: " << argv[1] << " has no line " << kMarker << " for the table\n";
        return 1;
    }
    std::ofstream file(argv[2]);
    file << out.str();
    if (!file) {
        std::cerr << "orvwiregen: cannot write " << argv[2] << "\n";
        return 1;
    }
    return 0;
}
