// What the C++ interface makes of captured datagrams, for the Python tests
// to compare with: sends each datagram of a capture file to an access
// object's own ports on 127.0.0.1, then empties every queue and prints each
// record's bytes in hex, one record a line: "<kind> <hex>".
//
//   orvpy_reference INI CAPTURE META_PORT CORE_PORT HUB_PORT NFT_PORT
//
// The INI file opens those four ports and nothing else. CAPTURE holds the
// datagrams one after another: the port's index (1 byte: 0 meta, 1 orvCore,
// 2 orvHub, 3 NFT), the length (2 bytes, little-endian), the bytes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <orvaccess/OrvAccess.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

// Datagrams sent between two services of the ports: few enough that no
// receive buffer can overflow.
constexpr int kBurst = 8;

template <typename T>
void print(const char* kind, const T& rec) {
    std::printf("%s ", kind);
    const auto* p = reinterpret_cast<const unsigned char*>(&rec);
    for (size_t i = 0; i < sizeof rec; ++i) std::printf("%02x", p[i]);
    std::printf("\n");
}

// Every record a getter hands out, until it hands out none.
template <typename T, typename Get>
bool drain(const char* kind, Get get) {
    T rec{};
    for (;;) {
        bool valid = false;
        if (!get(&valid, &rec)) return false;
        if (!valid) return true;
        print(kind, rec);
    }
}

int fail(const std::string& why) {
    std::fprintf(stderr, "orvpy_reference: %s\n", why.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) return fail("usage: orvpy_reference INI CAPTURE META_PORT CORE_PORT HUB_PORT NFT_PORT");
    int ports[4];
    for (int i = 0; i < 4; ++i) ports[i] = std::atoi(argv[3 + i]);

    std::ifstream in(argv[2], std::ios::binary);
    const std::vector<unsigned char> capture((std::istreambuf_iterator<char>(in)),
                                             std::istreambuf_iterator<char>());
    if (!in.eof() && !in) return fail(std::string("cannot read ") + argv[2]);

    OrvAccess access;
    access.setIniPath(argv[1]);
    if (!access.open()) return fail("open: " + access.getLastError());

    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return fail("no UDP socket");
    s_OrvAccessStatus status{};
    int sent = 0;
    for (size_t at = 0; at + 3 <= capture.size();) {
        const unsigned index = capture[at];
        const size_t length = capture[at + 1] | static_cast<size_t>(capture[at + 2]) << 8;
        if (index > 3 || at + 3 + length > capture.size()) return fail("capture file cut short or damaged");
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<uint16_t>(ports[index]));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (sendto(fd, capture.data() + at + 3, length, 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
            return fail("sendto failed");
        at += 3 + length;
        if (++sent % kBurst == 0 && !access.getStatus(&status))
            return fail("getStatus: " + access.getLastError());
    }
    ::close(fd);
    if (!access.getStatus(&status)) return fail("getStatus: " + access.getLastError());

    using A = OrvAccess;
    const bool ok =
        drain<s_OrvAccessTrkDataExt>("tracking",
                                     [&](bool* v, auto* r) { return access.getTrackingData(v, r); }) &&
        drain<s_OrvAccessImuData>(
            "imu", [&](bool* v, auto* r) { return access.getImuData(ORVACCESS_IMU_CAMERA, v, r); }) &&
        drain<s_OrvAccessAuxData>("aux", [&](bool* v, auto* r) { return access.getAuxData(v, r); }) &&
        drain<s_OrvAccessDiagData>("diag", [&](bool* v, auto* r) { return access.getDiagData(v, r); }) &&
        drain<A::s_TgtData>("target", [&](bool* v, auto* r) { return access.getTargetData(v, r); }) &&
        drain<s_OrvAccessPlatPoseData>("platpose",
                                       [&](bool* v, auto* r) { return access.getPlatformPoseData(v, r); }) &&
        drain<s_OrvAccessGpsData>("gps", [&](bool* v, auto* r) { return access.getGpsData(v, r); }) &&
        drain<A::s_TgtResData>("targetres",
                               [&](bool* v, auto* r) { return access.getTargetResData(v, r); }) &&
        drain<s_OrvAccessPoseRecStats>("poserec",
                                       [&](bool* v, auto* r) { return access.getPoseRecoveryStats(v, r); }) &&
        drain<A::s_FeatData>("feature", [&](bool* v, auto* r) { return access.getFeatureData(v, r); }) &&
        drain<s_OrvAccessHubData>("hub", [&](bool* v, auto* r) { return access.getHubData(v, r); }) &&
        drain<s_OrvAccessErrorCode>("error", [&](bool* v, auto* r) {
            *v = access.getErrorCode(r) != 0;
            return true;
        });
    if (!ok) return fail("a getter failed: " + access.getLastError());
    access.close();
    return 0;
}
