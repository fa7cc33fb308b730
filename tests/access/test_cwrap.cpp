// The exported C functions: bounded text copies, delivered flags, the short
// tracking record, and what the wrappers add to the methods they call.
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "access/cwrap.hpp"
#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/orvaccess.h"
#include "support/TestSupport.hpp"

namespace {

struct Handle {
    OrvAccess* h = OrvAccess_create();
    ~Handle() { OrvAccess_destroy(h); }
};

// Writes an INI into dir: TCP off, orvCore on `corePort`, every other port off.
std::string writeIni(const orvtest::TempDir& dir, int corePort) {
    const std::string path = dir.prefix() + "orvaccess.ini";
    std::ofstream(path) << "[Communication]\ntcpOrvRxEnabled = 0\nudpOrvRxPort = 0\nudpOrvRxImgPort = 0\n"
                           "udpOrvRxInputPort = 0\nudpOrvCorePort = "
                        << corePort << "\nudpOrvHubPort = 0\nudpNftPort = 0\nsMemImgName =\n";
    return path;
}

// The buffer after a bounded copy of `len` bytes into 16 bytes of 'x'.
std::string copied(const std::function<char*(char*, size_t)>& get, size_t len) {
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(get(buf, len), buf);
    return std::string(buf, sizeof buf);
}

}  // namespace

TEST(CWrap, TextsAreBoundedZeroPaddedAndTerminated) {
    Handle a;
    auto version = [&](char* b, size_t n) { return OrvAccess_getVersion(a.h, b, n); };
    EXPECT_EQ(copied(version, 4), std::string("1.2\0xxxxxxxxxxxx", 16));
    EXPECT_EQ(copied(version, 8), std::string("1.23.00\0xxxxxxxx", 16));
    EXPECT_EQ(copied(version, 12), std::string("1.23.00\0\0\0\0\0xxxx", 16));
    EXPECT_EQ(copied(version, 1), std::string("\0xxxxxxxxxxxxxxx", 16));

    auto date = [&](char* b, size_t n) { return OrvAccess_getBuildDate(a.h, b, n); };
    EXPECT_EQ(copied(date, 16), std::string("Sep 25 2017\0\0\0\0\0", 16));
    EXPECT_EQ(copied(date, 5), std::string("Sep \0xxxxxxxxxxx", 16));

    auto lastError = [&](char* b, size_t n) { return OrvAccess_getLastError(a.h, b, n); };
    EXPECT_EQ(copied(lastError, 3), std::string("\0\0\0xxxxxxxxxxxxx", 16));

    auto message = [&](char* b, size_t n) { return OrvAccess_getErrorMessage(a.h, b, n, 0x302); };
    EXPECT_EQ(copied(message, 11), std::string("[ORVACCESS\0xxxxx", 16));
}

TEST(CWrap, ErrorMessageUsesTheLow16BitsOfTheCode) {
    Handle a;
    char buf[64];
    EXPECT_STREQ(OrvAccess_getErrorMessage(a.h, buf, sizeof buf, 0x10302),
                 "[ORVACCESS] ERROR: Bad tracking packet");
    EXPECT_STREQ(OrvAccess_getErrorMessage(a.h, buf, sizeof buf, -1), "Unknown error from unknown origin");
}

TEST(CWrap, ErrorCodeOnAnEmptyQueueClearsOnlyTheCode) {
    Handle a;
    s_OrvAccessErrorCode code{0xBEEF, 12345};
    EXPECT_EQ(OrvAccess_getErrorCode(a.h, &code), 0);
    EXPECT_EQ(code.code, 0);
    EXPECT_EQ(code.value, 12345u);
}

// Every getter with a delivered flag, called with garbage in the caller's int.
TEST(CWrap, DeliveredFlagsAreAlwaysStoredAsZeroOrOne) {
    orvtest::TempDir dir;
    Handle a;
    OrvAccess_setIniPath(a.h, writeIni(dir, orvtest::freePort()).c_str());

    s_OrvAccessTrkData trk;
    s_OrvAccessTrkDataExt ext;
    s_OrvAccessPoseRecStats pra;
    s_OrvAccessImuData imu;
    s_OrvAccessAuxData aux;
    s_OrvAccessDiagData diag;
    s_OrvAccessGpsData gps;
    const std::vector<std::pair<const char*, std::function<int(int*)>>> getters = {
        {"TrackingDataLatest", [&](int* d) { return OrvAccess_getTrackingDataLatest(a.h, d, &trk); }},
        {"TrackingDataAtTime", [&](int* d) { return OrvAccess_getTrackingDataAtTime(a.h, 1, d, &trk); }},
        {"TrackingDataLatestExt", [&](int* d) { return OrvAccess_getTrackingDataLatestExt(a.h, d, &ext); }},
        {"TrackingDataExt", [&](int* d) { return OrvAccess_getTrackingDataExt(a.h, d, &ext); }},
        {"TrackingDataAtTimeExt",
         [&](int* d) { return OrvAccess_getTrackingDataAtTimeExt(a.h, 1, d, &ext); }},
        {"PoseRecoveryStats", [&](int* d) { return OrvAccess_getPoseRecoveryStats(a.h, d, &pra); }},
        {"ImuData", [&](int* d) { return OrvAccess_getImuData(a.h, ORVACCESS_IMU_CAMERA, d, &imu); }},
        {"ImuDataLatest", [&](int* d) { return OrvAccess_getImuDataLatest(a.h, d, &imu); }},
        {"AuxData", [&](int* d) { return OrvAccess_getAuxData(a.h, d, &aux); }},
        {"AuxDataLatest", [&](int* d) { return OrvAccess_getAuxDataLatest(a.h, d, &aux); }},
        {"DiagData", [&](int* d) { return OrvAccess_getDiagData(a.h, d, &diag); }},
        {"DiagDataLatest", [&](int* d) { return OrvAccess_getDiagDataLatest(a.h, d, &diag); }},
        {"GpsData", [&](int* d) { return OrvAccess_getGpsData(a.h, d, &gps); }},
    };
    // Closed, the methods fail before touching their flag; open, they succeed
    // with nothing delivered. Either way the caller's int becomes 0.
    for (int expected : {0, 1}) {
        if (expected == 1) {
            ASSERT_EQ(OrvAccess_open(a.h), 1);
        }
        for (const auto& [name, get] : getters) {
            int delivered = 0x5A5A5A5A;
            EXPECT_EQ(get(&delivered), expected) << name;
            EXPECT_EQ(delivered, 0) << name;
        }
    }

    // The first pointer of getTargetCount is never looked at.
    unsigned int tag = 7, count = 7;
    EXPECT_EQ(OrvAccess_getTargetCount(a.h, nullptr, &tag, &count), 1);
}

TEST(CWrap, ShortTrackingRecordIsUntouchedWhenNothingCame) {
    orvtest::TempDir dir;
    Handle a;
    OrvAccess_setIniPath(a.h, writeIni(dir, orvtest::freePort()).c_str());
    ASSERT_EQ(OrvAccess_open(a.h), 1);

    s_OrvAccessTrkData data, pattern;
    std::memset(&pattern, 0xA5, sizeof pattern);
    data = pattern;
    int delivered = 1;
    EXPECT_EQ(OrvAccess_getTrackingDataLatest(a.h, &delivered, &data), 1);
    EXPECT_EQ(delivered, 0);
    EXPECT_EQ(OrvAccess_getTrackingDataAtTime(a.h, OrvAccess_getTimeUs(a.h), &delivered, &data), 1);
    EXPECT_EQ(delivered, 0);
    EXPECT_EQ(std::memcmp(&data, &pattern, sizeof data), 0);
}

TEST(CWrap, PackingCopiesEachFieldFromItsSource) {
    // Every other field holds a byte pattern, so a field read from the wrong
    // place shows up as that pattern.
    s_OrvAccessTrkDataExt in;
    std::memset(&in, 0x41, sizeof in);
    in.packetTag = 0xA1B2C3D4;
    in.platPoseTime = 0x11223344;
    in.countA = 0x1234;
    in.countB = 0x5678;
    for (int i = 0; i < 3; ++i) {
        in.vecA[i] = 10.f + i;
        in.euler[i] = 20.f + i;
        in.position[i] = 30.f + i;
        in.vecG[i] = 40.f + i;
        in.vecH[i] = 50.f + i;
        in.angularRate[i] = 60.f + i;
        in.vecJ[i] = 70.f + i;
        in.vecL[i] = 90.f + i;
    }
    for (int i = 0; i < 6; ++i) in.extB[i] = 80.f + i;

    s_OrvAccessTrkData out;
    std::memset(&out, 0, sizeof out);
    orvaPackTrkData(in, &out);
    EXPECT_EQ(out.packetTag, 0xA1B2C3D4u);
    EXPECT_EQ(out.platPoseTime, 0x11223344u);
    EXPECT_EQ(out.countA, 0x1234);
    EXPECT_EQ(out.countB, 0x5678);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(out.vecA[i], 10.f + i);
        EXPECT_EQ(out.euler[i], 20.f + i);
        for (int row = 0; row < 4; ++row) EXPECT_EQ(out.motion[row][i], 30.f + 10.f * row + i) << row;
        EXPECT_EQ(out.aux[0][i], 70.f + i);
        EXPECT_EQ(out.aux[1][i], 80.f + i);
        EXPECT_EQ(out.aux[2][i], 83.f + i);
        EXPECT_EQ(out.vecL[i], 90.f + i);
    }
}

TEST(CWrap, StatusReportsOnlyWhatHappenedSinceTheLastCall) {
    orvtest::TempDir dir;
    Handle a;
    s_OrvAccessStatus st;
    std::memset(&st, 0xFF, sizeof st);
    EXPECT_EQ(OrvAccess_getStatus(a.h, &st), 0);  // not open: nothing to service
    EXPECT_EQ(st.connections | st.received | st.newError | st.diagState, 0u);

    OrvAccess_setIniPath(a.h, writeIni(dir, orvtest::freePort()).c_str());
    ASSERT_EQ(OrvAccess_open(a.h), 1);
    EXPECT_EQ(OrvAccess_getStatus(a.h, &st), 1);
    std::memset(&st, 0xFF, sizeof st);
    EXPECT_EQ(OrvAccess_getStatus(a.h, &st), 1);
    EXPECT_EQ(st.connections, 0x10u);  // orvCore only
    EXPECT_EQ(st.received, 0u);
    EXPECT_EQ(st.newError, 0u);
    EXPECT_EQ(st.diagState, 0u);
    EXPECT_EQ(OrvAccess_close(a.h), 1);
}

TEST(CWrap, OpenWithNothingEnabledFailsWithItsReason) {
    orvtest::TempDir dir;
    Handle a;
    OrvAccess_setIniPath(a.h, writeIni(dir, 0).c_str());
    EXPECT_EQ(OrvAccess_open(a.h), 0);
    char buf[64];
    EXPECT_STREQ(OrvAccess_getLastError(a.h, buf, sizeof buf), "Unable to open any connections");
    EXPECT_EQ(OrvAccess_getStreaming(a.h), 0);
    EXPECT_EQ(OrvAccess_getImageBufSize(a.h), 0x400000u);
}

// libstdc++ throws std::logic_error when a std::string is built from a null
// pointer: a real exception raised inside the wrappers' own conversions.
TEST(CWrap, ExceptionsStopAtTheBoundary) {
    Handle a;
    EXPECT_EQ(OrvAccess_getFile(a.h, nullptr, ORVACCESS_FILE_LOC_0, "local"), 0);
    EXPECT_EQ(OrvAccess_getFile(a.h, "remote", ORVACCESS_FILE_LOC_0, nullptr), 0);
    OrvAccess_setIniPath(a.h, nullptr);

    OrvAccess_destroy(nullptr);  // harmless
}
