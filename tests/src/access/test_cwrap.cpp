// The exported C functions: bounded text copies, delivered flags, the short
// tracking record, and what the wrappers add to the methods they call.
#include <cstring>
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

}  // namespace

TEST(CWrap, TextsAreBoundedCodesUseTheirLow16BitsAndExceptionsStopAtTheBoundary) {
    Handle a;
    char buf[64];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(OrvAccess_getLastError(a.h, buf, 3), buf);
    EXPECT_EQ(std::string(buf, 4), std::string("\0\0\0x", 4));
    EXPECT_EQ(std::string(OrvAccess_getErrorMessage(a.h, buf, 11, 0x10302), 12),
              std::string("[ORVACCESS\0x", 12));
    EXPECT_STREQ(OrvAccess_getErrorMessage(a.h, buf, sizeof buf, -1), "Unknown error from unknown origin");
    // An empty error queue clears only the code.
    s_OrvAccessErrorCode code{0xBEEF, 12345};
    EXPECT_EQ(OrvAccess_getErrorCode(a.h, &code), 0);
    EXPECT_TRUE(code.code == 0 && code.value == 12345u);
    // Without a record the code still comes back, and is taken off the queue.
    a.h->addErrorCode(ORVACCESS_ERR_BAD_TRACKING_PKT, 1);
    a.h->addErrorCode(ORVACCESS_ERR_BAD_META_PKT, 2);
    EXPECT_EQ(OrvAccess_getErrorCode(a.h, nullptr), ORVACCESS_ERR_BAD_TRACKING_PKT);
    EXPECT_EQ(OrvAccess_getErrorCode(a.h, &code), ORVACCESS_ERR_BAD_META_PKT);

    // libstdc++ throws std::logic_error when a std::string is built from a
    // null pointer: a real exception, raised inside the wrappers' own
    // conversions, that must stop at the boundary.
    EXPECT_EQ(OrvAccess_getFile(a.h, nullptr, ORVACCESS_FILE_LOC_0, "local"), 0);
    EXPECT_EQ(OrvAccess_getFile(a.h, "remote", ORVACCESS_FILE_LOC_0, nullptr), 0);
    OrvAccess_setIniPath(a.h, nullptr);
    OrvAccess_destroy(nullptr);  // harmless
}

// Getters with a delivered flag, called with garbage in the caller's int.
TEST(CWrap, DeliveredFlagsAreStoredAsZeroOrOneAndRecordsLeftAlone) {
    orvtest::TempDir dir;
    Handle a;
    int port[5] = {0, 0, orvtest::freePort(), 0, 0};
    OrvAccess_setIniPath(a.h, dir.write("orvaccess.ini", orvtest::receiverIni(port)).c_str());

    s_OrvAccessStatus st;
    std::memset(&st, 0xFF, sizeof st);
    EXPECT_EQ(OrvAccess_getStatus(a.h, &st), 0);  // not open: nothing to service, all words 0
    EXPECT_EQ(st.connections | st.received | st.newError | st.diagState, 0u);

    s_OrvAccessTrkData trk, pattern;
    std::memset(&pattern, 0xA5, sizeof pattern);
    trk = pattern;
    s_OrvAccessTrkDataExt ext;
    s_OrvAccessImuData imu;
    s_OrvAccessGpsData gps;
    const unsigned long now = OrvAccess_getTimeUs(a.h);
    const std::vector<std::function<int(int*)>> getters = {
        [&](int* d) { return OrvAccess_getTrackingDataLatest(a.h, d, &trk); },
        [&](int* d) { return OrvAccess_getTrackingDataAtTime(a.h, now, d, &trk); },
        [&](int* d) { return OrvAccess_getTrackingDataExt(a.h, d, &ext); },
        [&](int* d) { return OrvAccess_getImuData(a.h, ORVACCESS_IMU_CAMERA, d, &imu); },
        [&](int* d) { return OrvAccess_getGpsData(a.h, d, &gps); },
    };
    // Closed, the methods fail before touching their flag; open, they succeed
    // with nothing delivered. Either way the caller's int becomes 0.
    for (int expected : {0, 1}) {
        ASSERT_TRUE(expected == 0 || OrvAccess_open(a.h) == 1);
        for (size_t i = 0; i < getters.size(); ++i) {
            int delivered = 0x5A5A5A5A;
            EXPECT_EQ(getters[i](&delivered), expected) << i;
            EXPECT_EQ(delivered, 0) << i;
        }
    }
    EXPECT_EQ(std::memcmp(&trk, &pattern, sizeof trk), 0);  // nothing came: untouched
    // The first pointer of getTargetCount is never looked at.
    unsigned int tag = 7, count = 7;
    EXPECT_EQ(OrvAccess_getTargetCount(a.h, nullptr, &tag, &count), 1);
}

TEST(CWrap, PackingCopiesEachFieldFromItsSource) {
    // Every other field holds a byte pattern, so a field read from the wrong
    // place shows up as that pattern; the copied floats are numbered in the
    // order the short record holds them.
    s_OrvAccessTrkDataExt in;
    std::memset(&in, 0x41, sizeof in);
    in.packetTag = 0xA1B2C3D4;
    in.platPoseTime = 0x11223344;
    in.countA = 0x1234;
    in.countB = 0x5678;
    float next = 1;
    for (float* f : {in.vecA, in.euler, in.position, in.vecG, in.vecH, in.angularRate, in.vecJ, in.extB,
                     in.extB + 3, in.vecL})
        for (int i = 0; i < 3; ++i) f[i] = next++;

    s_OrvAccessTrkData out{};
    orvaPackTrkData(in, &out);
    EXPECT_EQ((std::vector<unsigned>{out.packetTag, out.platPoseTime, out.countA, out.countB}),
              (std::vector<unsigned>{0xA1B2C3D4, 0x11223344, 0x1234, 0x5678}));
    next = 1;
    for (float* f : {out.vecA, out.euler, out.motion[0], out.motion[1], out.motion[2], out.motion[3],
                     out.aux[0], out.aux[1], out.aux[2], out.vecL})
        for (int i = 0; i < 3; ++i) EXPECT_EQ(f[i], next++) << "float " << next - 1;
}
