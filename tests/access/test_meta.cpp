// Meta packets sent over real UDP to an open access object: IMU records,
// clock-relation rows, auxiliary bytes, bad chip packets, queue bounds, and
// a receive path that does not allocate.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "osi/OrvosiUtil.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"

namespace {

using orvtest::Bytes;
using orvtest::kMeta;

void put(Bytes& b, unsigned long v, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i, v >>= 8) b.push_back(static_cast<unsigned char>(v));
}
void putFloat(Bytes& b, float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    put(b, u, 4);
}
void seal(Bytes& b) { b.push_back(static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), b.size()))); }

// A type-3 chip packet: status, word, gyro and accelerometer words.
struct Imu {
    unsigned char pid = 0;
    unsigned char status = 0;
    uint16_t word = 0x1234;
    int16_t gyro[3] = {-32768, 256, 1000};
    int16_t accel[3] = {-160, 16000, -1};
};
Bytes chip3(const Imu& s) {
    Bytes b{5, 3, s.pid, s.status};
    put(b, s.word, 2);
    for (int v : s.gyro) put(b, static_cast<uint16_t>(v), 2);
    for (int v : s.accel) put(b, static_cast<uint16_t>(v), 2);
    seal(b);
    return b;
}

// A type-20 chip packet (32 bytes), which carries the auxiliary byte.
Bytes chip20(unsigned char pid, unsigned char first2000, unsigned char aux) {
    Bytes b{5, 20, pid, 0, 0};
    put(b, 0, 2 + 6 + 6 + 2 + 2 + 2);
    b.insert(b.end(), {first2000, aux, 0, 0, 0, 0});
    seal(b);
    return b;
}

// A platform-pose subpacket in format 3.
Bytes platPose(uint32_t tag, float x, float y, float z) {
    Bytes b{7, 21, 0};
    put(b, tag, 4);
    b.push_back(3);
    for (float f : {x, y, z}) putFloat(b, f);
    seal(b);
    return b;
}

struct Meta {
    uint32_t tag = 0xCAFE0001;
    float dt = 0.005f;
    uint64_t time = 0x0000123456789ABCull;
    Bytes chip;                               // at offset 27
    unsigned char offsets[4] = {0, 0, 0, 0};  // platform pose, target, diagnostic, GPS
    Bytes tail;                               // further subpackets after the chip packet
};
Bytes build(const Meta& m) {
    Bytes b{19, 0, 0};
    put(b, m.tag, 4);
    b.push_back(0xEE);
    putFloat(b, m.dt);
    b.push_back(0xEE);
    b.push_back(m.offsets[0]);
    b.push_back(m.offsets[1]);
    put(b, m.offsets[2], 2);
    put(b, m.offsets[3], 2);
    put(b, m.time, 8);
    b.insert(b.end(), m.chip.begin(), m.chip.end());
    b.insert(b.end(), m.tail.begin(), m.tail.end());
    OrvosiUtil::lendian(&b[1], b.size() + 1, 2);
    seal(b);
    return b;
}
Bytes metaWith(const Bytes& chip, uint64_t time = 1000) {
    Meta m;
    m.chip = chip;
    m.time = time;
    return build(m);
}
Bytes metaPid(unsigned char pid, bool bit) {
    Imu s;
    s.pid = pid;
    s.status = bit ? 0x10 : 0xEF;
    return metaWith(chip3(s), pid);
}

class MetaTest : public testing::Test {
protected:
    void SetUp() override { open(""); }
    void TearDown() override { access.setVerbosity(0); }
    void open(const std::string& extra) {
        for (int& p : port) p = orvtest::freePort();
        access.setIniPath(dir.write("orvaccess.ini", orvtest::receiverIni(port, extra)));
        ASSERT_TRUE(access.open()) << access.getLastError();
    }

    // Sends in small batches, servicing between them so that no datagram is
    // lost to a full socket buffer.
    void send(const std::vector<Bytes>& packets) {
        for (size_t i = 0; i < packets.size(); ++i) {
            ASSERT_TRUE(sender.send(port[kMeta], packets[i]));
            if (i % 32 == 31) {
                ASSERT_TRUE(access.serviceUdp(false));
            }
        }
        ASSERT_TRUE(access.serviceUdp(false));
    }
    void send(const Bytes& packet) { send(std::vector<Bytes>{packet}); }

    std::vector<s_OrvAccessImuData> drainImu() {
        std::vector<s_OrvAccessImuData> out;
        s_OrvAccessImuData d{};
        bool valid = true;
        while (valid) {
            EXPECT_TRUE(access.getImuData(ORVACCESS_IMU_CAMERA, &valid, &d));
            if (valid) out.push_back(d);
        }
        return out;
    }
    std::vector<unsigned short> drainCodes() {
        std::vector<unsigned short> codes;
        s_OrvAccessErrorCode e{};
        while (unsigned short c = access.getErrorCode(&e)) codes.push_back(c);
        return codes;
    }
    bool crs(OrvAccess::s_ImuCrs* row) {
        bool valid = false;
        EXPECT_TRUE(access.getImuCrs(ORVACCESS_IMU_CAMERA, &valid, row));
        return valid;
    }

    orvtest::TempDir dir;
    int port[5] = {};
    orvtest::UdpSender sender;
    OrvAccess access;
};

size_t count(const std::string& text, const std::string& line) {
    size_t n = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++n;
    return n;
}

TEST_F(MetaTest, ImuRecordsCarryTheHeaderTheChipAndBothRates) {
    s_OrvAccessImuData d{};
    bool valid = true;
    ASSERT_TRUE(access.getImuDataLatest(&valid, &d));
    EXPECT_FALSE(valid);

    Meta m;
    Imu s;
    s.pid = 42;
    s.status = 0x9C;
    m.chip = chip3(s);
    const Bytes first = build(m);
    s.pid = 43;
    s.gyro[0] = 3200;
    m.chip = chip3(s);
    m.dt = 0.25f;
    m.time = 0xFFFFFFFFFFFFull;
    send({first, build(m)});

    ASSERT_TRUE(access.getImuData(ORVACCESS_IMU_CAMERA, &valid, &d));
    ASSERT_TRUE(valid);
    EXPECT_EQ(d.time, 0x0000123456789ABCull);
    EXPECT_EQ(d.tag, 0xCAFE0001u);
    EXPECT_EQ(d.pid, 42u);
    EXPECT_EQ(d.status, 0x9Cu);
    EXPECT_FLOAT_EQ(d.dt, 0.005f);
    const uint16_t gyroRaw[3] = {0x8000, 256, 1000}, accelRaw[3] = {0xFF60, 16000, 0xFFFF};
    const float gyroRate[3] = {-1.28f / 0.005f, 0.01f / 0.005f, 0.0390625f / 0.005f};
    const float accelRate[3] = {-0.001f / 0.005f, 0.1f / 0.005f, -6.25e-6f / 0.005f};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(d.gyroRaw[i], gyroRaw[i]) << i;
        EXPECT_EQ(d.accelRaw[i], accelRaw[i]) << i;
        EXPECT_FLOAT_EQ(d.gyroRate[i], gyroRate[i]) << i;
        EXPECT_FLOAT_EQ(d.accelRate[i], accelRate[i]) << i;
    }

    // The latest record is the second one and stays readable.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(access.getImuDataLatest(&valid, &d));
        EXPECT_TRUE(valid);
        EXPECT_EQ(d.pid, 43u);
        EXPECT_EQ(d.time, 0xFFFFFFFFFFFFull);
        EXPECT_FLOAT_EQ(d.gyroRate[0], 0.125f / 0.25f);
    }
    // Through the C interface the queue yields the second record, then nothing.
    int delivered = 0;
    EXPECT_EQ(OrvAccess_getImuData(&access, ORVACCESS_IMU_CAMERA, &delivered, &d), 1);
    EXPECT_EQ(delivered, 1);
    EXPECT_EQ(d.pid, 43u);
    EXPECT_EQ(OrvAccess_getImuData(&access, ORVACCESS_IMU_CAMERA, &delivered, &d), 1);
    EXPECT_EQ(delivered, 0);
    EXPECT_EQ(OrvAccess_getImuDataLatest(&access, &delivered, &d), 1);
    EXPECT_EQ(delivered, 1);

    // The platform source exists and stays empty; other selectors fail.
    ASSERT_TRUE(access.getImuData(ORVACCESS_IMU_PLATFORM, &valid, &d));
    EXPECT_FALSE(valid);
    const auto bad = static_cast<e_OrvAccessImuSelect>(2);
    EXPECT_FALSE(access.getImuData(bad, &valid, &d));
    EXPECT_EQ(access.getLastError(), "Invalid source IMU selector");
    access.clearLastError();
    OrvAccess::s_ImuCrs row{};
    EXPECT_FALSE(access.getImuCrs(bad, &valid, &row));
    EXPECT_EQ(access.getLastError(), "Invalid source IMU selector");
    EXPECT_TRUE(drainCodes().empty());
}

TEST_F(MetaTest, FullIdCycleGivesOneRowReadableOnce) {
    OrvAccess::s_ImuCrs row{};
    const auto cycle = [](int from, int to, int stride) {
        std::vector<Bytes> v;
        for (int pid = from; pid <= to; ++pid)
            v.push_back(metaPid(static_cast<unsigned char>(pid), pid % stride == 0));
        return v;
    };
    const auto expectRow = [&](int stride) {
        ASSERT_TRUE(crs(&row));
        for (int pid = 0; pid < 256; ++pid)
            EXPECT_EQ((row.bits[pid / 8] >> (pid % 8)) & 1, pid % stride == 0 ? 1 : 0) << pid;
    };

    send(cycle(0, 254, 3));
    EXPECT_FALSE(crs(&row));
    send(cycle(255, 255, 3));
    expectRow(3);
    EXPECT_FALSE(crs(&row));
    EXPECT_EQ(drainImu().size(), 256u);
    s_OrvAccessImuData d{};
    bool valid = false;
    ASSERT_TRUE(access.getImuData(ORVACCESS_IMU_PLATFORM, &valid, &d));
    EXPECT_FALSE(valid);
    OrvAccess::s_ImuCrs platformRow{};
    ASSERT_TRUE(access.getImuCrs(ORVACCESS_IMU_PLATFORM, &valid, &platformRow));
    EXPECT_FALSE(valid);

    // A completed row survives while the next one fills; a newer complete
    // cycle replaces it.
    send(cycle(0, 255, 5));
    send(cycle(0, 100, 2));
    expectRow(5);
    send(cycle(101, 255, 2));
    send(cycle(0, 255, 7));
    expectRow(7);
    EXPECT_FALSE(crs(&row));
    EXPECT_EQ(drainImu().size(), 768u);
    EXPECT_TRUE(drainCodes().empty());
}

TEST_F(MetaTest, BrokenCyclesReportOnceAndRestartAtTheNextZero) {
    access.setVerbosity(0x2);
    const std::string kLine = "ORVAINFO: Camera IMU PID sequence error\n";
    OrvAccess::s_ImuCrs row{};
    std::vector<Bytes> v;
    for (int pid : {0, 1, 3}) v.push_back(metaPid(static_cast<unsigned char>(pid), true));
    for (int pid = 4; pid < 256; ++pid) v.push_back(metaPid(static_cast<unsigned char>(pid), true));
    {
        orvtest::CapturedStdout out;
        send(v);
        EXPECT_EQ(count(out.text(), kLine), 1u);
    }
    EXPECT_FALSE(crs(&row));
    EXPECT_EQ(drainImu().size(), 255u);

    // A zero in the middle of a cycle breaks it; the zero itself does not
    // start the next one.
    v.clear();
    for (int pid = 0; pid <= 10; ++pid) v.push_back(metaPid(static_cast<unsigned char>(pid), false));
    for (int pid = 0; pid < 256; ++pid) v.push_back(metaPid(static_cast<unsigned char>(pid), false));
    {
        orvtest::CapturedStdout out;
        send(v);
        EXPECT_EQ(count(out.text(), kLine), 1u);
    }
    EXPECT_FALSE(crs(&row));

    // Silence while waiting; the next clean cycle completes.
    v.clear();
    for (int pid = 0; pid < 256; ++pid) v.push_back(metaPid(static_cast<unsigned char>(pid), pid == 200));
    {
        orvtest::CapturedStdout out;
        send(v);
        EXPECT_EQ(count(out.text(), kLine), 0u);
    }
    ASSERT_TRUE(crs(&row));
    for (int i = 0; i < 32; ++i) EXPECT_EQ(row.bits[i], i == 25 ? 1 : 0) << i;
    EXPECT_EQ(drainImu().size(), 11u + 256u + 256u);
}

TEST_F(MetaTest, BadChipPacketRaises777AndTheOtherSubpacketsStillParse) {
    Bytes wrongSync = chip3(Imu{});
    wrongSync[0] = 6;
    wrongSync.back() = static_cast<unsigned char>(wrongSync.back() - 1);
    Bytes badSum = chip3(Imu{});
    badSum[10] ^= 1;
    Bytes unknownType = chip3(Imu{});
    unknownType[1] = 10;
    unknownType.back() = static_cast<unsigned char>(unknownType.back() - 7);

    for (const Bytes& chip : {wrongSync, badSum, unknownType}) {
        Meta m;
        m.chip = chip;
        m.offsets[0] = static_cast<unsigned char>(27 + chip.size());
        m.tail = platPose(77, 1.5f, -2.5f, 3.25f);
        orvtest::CapturedStderr err;
        access.setVerbosity(0x1);
        send(build(m));
        access.setVerbosity(0);
        EXPECT_EQ(count(err.text(), "ORVALOG: Bad IMU subpacket\n"), 1u);

        EXPECT_EQ(drainCodes(), std::vector<unsigned short>{777});
        EXPECT_TRUE(drainImu().empty());
        s_OrvAccessPlatPoseData pose{};
        bool valid = false;
        ASSERT_TRUE(access.getPlatformPoseData(&valid, &pose));
        ASSERT_TRUE(valid);
        EXPECT_EQ(pose.tag, 77u);
        EXPECT_FLOAT_EQ(pose.pose[2], 3.25f);
    }

    // Subpackets are visited in the order platform pose, target, diagnostic,
    // GPS: four broken ones raise their codes in that order, after the IMU's.
    Meta m;
    m.chip = badSum;
    m.tail = Bytes(40, 0xEE);
    m.offsets[0] = 50;
    m.offsets[1] = 51;
    m.offsets[2] = 52;
    m.offsets[3] = 53;
    send(build(m));
    EXPECT_EQ(drainCodes(), (std::vector<unsigned short>{777, 776, 775, 774, 783}));
}

TEST_F(MetaTest, AuxiliaryByteNeedsItsMaskAndANonZeroHighField) {
    s_OrvAccessAuxData a{};
    bool valid = true;
    ASSERT_TRUE(access.getAuxDataLatest(&valid, &a));
    EXPECT_FALSE(valid);

    // Type 3 has no auxiliary field; type 20 with a zero high field is empty.
    send({metaWith(chip3(Imu{})), metaWith(chip20(1, 0x1F, 0x55))});
    ASSERT_TRUE(access.getAuxData(&valid, &a));
    EXPECT_FALSE(valid);
    ASSERT_TRUE(access.getAuxDataLatest(&valid, &a));
    EXPECT_FALSE(valid);

    send({metaWith(chip20(2, 0x20, 0x81)), metaWith(chip20(3, 0xE0, 0x7F)), metaWith(chip20(4, 0x00, 0x33))});
    ASSERT_TRUE(access.getAuxData(&valid, &a));
    ASSERT_TRUE(valid);
    EXPECT_EQ(a.aux, 0x81u);
    int delivered = 0;
    EXPECT_EQ(OrvAccess_getAuxData(&access, &delivered, &a), 1);
    EXPECT_EQ(delivered, 1);
    EXPECT_EQ(a.aux, 0x7Fu);
    ASSERT_TRUE(access.getAuxData(&valid, &a));
    EXPECT_FALSE(valid);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(OrvAccess_getAuxDataLatest(&access, &delivered, &a), 1);
        EXPECT_EQ(delivered, 1);
        EXPECT_EQ(a.aux, 0x7Fu);
    }
    // Every sample still becomes an IMU record.
    EXPECT_EQ(drainImu().size(), 5u);
}

TEST_F(MetaTest, NoIntervalMeansNoImuSubpacket) {
    for (float dt : {0.0f, -0.01f}) {
        Meta m;
        m.dt = dt;
        m.chip = Bytes(19, 0xEE);  // not looked at
        access.setVerbosity(0x2);
        orvtest::CapturedStdout out;
        send(build(m));
        EXPECT_EQ(count(out.text(), "ORVAINFO: IMU data not present\n"), 1u);
    }
    access.setVerbosity(0);
    EXPECT_TRUE(drainImu().empty());
    EXPECT_TRUE(drainCodes().empty());
    s_OrvAccessImuData d{};
    bool valid = true;
    ASSERT_TRUE(access.getImuDataLatest(&valid, &d));
    EXPECT_FALSE(valid);
}

TEST_F(MetaTest, QueueBoundOneKeepsTheNewest) {
    open("[Memory]\nimuQueueSize = 1\n");
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    send({metaWith(chip20(7, 0x20, 1)), metaWith(chip20(8, 0x20, 2)), metaWith(chip20(9, 0x20, 3))});
    const std::string text = out.text();
    EXPECT_EQ(count(text, "ORVAINFO: Camera IMU queue overflow\n"), 2u);
    EXPECT_EQ(count(text, "ORVAINFO:  AuxData queue overflow\n"), 2u);
    access.setVerbosity(0);

    const std::vector<s_OrvAccessImuData> imu = drainImu();
    ASSERT_EQ(imu.size(), 1u);
    EXPECT_EQ(imu[0].pid, 9u);
    s_OrvAccessAuxData a{};
    bool valid = false;
    ASSERT_TRUE(access.getAuxData(&valid, &a));
    ASSERT_TRUE(valid);
    EXPECT_EQ(a.aux, 3u);
    ASSERT_TRUE(access.getAuxData(&valid, &a));
    EXPECT_FALSE(valid);
}

// An application may hand in a meta packet from its own memory: nothing past
// its length field is read, whatever the chip type or the offsets claim.
TEST_F(MetaTest, PacketsFromTheApplicationAreReadWithinTheirLength) {
    access.setVerbosity(0);
    Meta whole;
    whole.chip = chip20(1, 0x20, 9);
    const Bytes full = build(whole);
    // Cut so that the 32-byte chip packet no longer fits; the copy on the
    // heap ends exactly at the claimed length.
    for (size_t len : {size_t{27 + 31}, size_t{27 + 2}, size_t{27}, size_t{12}, size_t{3}}) {
        SCOPED_TRACE(len);
        std::vector<unsigned char> cut(full.begin(), full.begin() + static_cast<long>(len));
        OrvosiUtil::lendian(&cut[1], len, 2);
        if (len > 8) {
            const float dt = 0.01f;
            std::memcpy(&cut[8], &dt, 4);
        }
        access.processMetaPkt(cut.data());
        const std::vector<unsigned short> codes = drainCodes();
        EXPECT_EQ(codes, len >= 12 ? std::vector<unsigned short>{777} : std::vector<unsigned short>{});
    }
    EXPECT_TRUE(drainImu().empty());

    Meta m;
    m.chip = chip3(Imu{});
    m.offsets[3] = 200;  // beyond the packet
    Bytes p = build(m);
    access.processMetaPkt(p.data());
    EXPECT_EQ(drainImu().size(), 1u);
}

TEST_F(MetaTest, BurstDoesNotAllocate) {
    std::vector<Bytes> burst;
    for (int pid = 0; pid < 64; ++pid) {
        Meta m;
        m.chip = pid % 2 ? chip20(static_cast<unsigned char>(pid), 0x20, 1) : chip3(Imu{});
        if (pid % 2 == 0) {
            m.offsets[0] = 46;
            m.tail = platPose(1, 0, 0, 0);
        }
        burst.push_back(build(m));
    }
    // Warm-up: first use of the queues and streams.
    send(burst);
    drainImu();

    for (size_t i = 0; i < 48; ++i) ASSERT_TRUE(sender.send(port[kMeta], burst[i]));
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    orvtest::startCountingAllocations();
    const bool ok = access.serviceUdp(false);
    const long allocations = orvtest::stopCountingAllocations();
    access.setVerbosity(0);
    out.text();
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(drainImu().size(), 48u);
}

}  // namespace
