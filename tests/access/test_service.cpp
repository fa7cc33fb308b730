// The UDP service loop against real datagrams on 127.0.0.1: framing checks
// and their error codes, dispatch order, flushing, failures, and a receive
// path that does not allocate.
#include <poll.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "osi/OrvosiUtil.hpp"
#include "support/Allocations.hpp"
#include "support/TestSupport.hpp"
#include "util/OrvUtil.hpp"

namespace {

using orvtest::Bytes;
using orvtest::kCore;
using orvtest::kHub;
using orvtest::kImage;
using orvtest::kMeta;
using orvtest::kNft;
// Zero bodies, so that the parsers behind the dispatch see empty records and
// these tests observe the dispatch alone.
// An image piece also needs a legal format (10: 640 x 480 x 1).
Bytes frame(unsigned char start, size_t size) {
    Bytes b = orvtest::zeroFrame(start, size);
    if (start == 7 && size > 8) {
        b[7] = 10;
        orvtest::seal(b, start);
    }
    return b;
}

class Service : public orvtest::ReceiverTest {
protected:
    void SetUp() override { openReceiver(); }
    void TearDown() override { access.setVerbosity(0); }

    s_OrvAccessStatus status() {
        s_OrvAccessStatus st{};
        EXPECT_TRUE(access.getStatus(&st)) << access.getLastError();
        return st;
    }
};

TEST(FramingCheck, SuccessKeepsTheTextAndShortBuffersFail) {
    OrvUtil::setLastError("untouched");
    const Bytes ok = frame(10, 332);
    EXPECT_TRUE(OrvUtil::udpPktOk(ok.data(), ok.size(), 10));
    EXPECT_EQ(OrvUtil::getLastError(), "untouched");
    // Too short for a length word: refused without reading past len.
    const unsigned char tiny[] = {10, 2};
    for (unsigned long len : {0ul, 1ul, 2ul}) {
        OrvUtil::setLastError("");
        EXPECT_FALSE(OrvUtil::udpPktOk(tiny, len, 10));
        EXPECT_EQ(OrvUtil::getLastError(), "Invalid size") << len;
    }
}

TEST_F(Service, FramingFaultsQueueThePortsCode) {
    // Each kind at the size of its packets, so that its parser reads only the
    // zero body it was sent.
    struct Kind {
        int port;
        unsigned char start;
        size_t size;
        unsigned short code;
        uint32_t bit;
    };
    const Kind kinds[] = {{kMeta, 19, 40, 772, 0x2},   {kImage, 7, 40, 771, 0x4},
                          {kCore, 10, 332, 770, 0x10}, {kCore, 15, 220, 784, 0x100},
                          {kHub, 11, 151, 781, 0x20},  {kNft, 14, 152, 782, 0x80}};
    for (const Kind& k : kinds) {
        SCOPED_TRACE(k.code);
        send(k.port, frame(k.start, k.size));
        EXPECT_EQ(status().received, k.bit);

        std::vector<std::pair<Bytes, const char*>> faults;
        for (int delta : {1, -1}) {
            Bytes b = frame(k.start, k.size);
            OrvosiUtil::lendian(&b[1], static_cast<unsigned long>(k.size + delta), 2);
            b.back() = static_cast<unsigned char>(-OrvosiUtil::checksum(b.data(), k.size - 1));
            faults.emplace_back(b, "Invalid size");
        }
        Bytes bad = frame(k.start, k.size);
        bad[20] ^= 0x10;
        faults.emplace_back(bad, "Invalid checksum");
        // On orvCore the first byte picks the kind, so no start byte is wrong there.
        if (k.port != kCore) faults.emplace_back(frame(k.start ^ 0x80, k.size), "Wrong start byte");

        for (const auto& [bytes, text] : faults) {
            send(k.port, bytes);
            const s_OrvAccessStatus st = status();
            EXPECT_EQ(st.received, 0u) << text;
            EXPECT_EQ(st.newError, 1u) << text;
            s_OrvAccessErrorCode e{};
            EXPECT_EQ(access.getErrorCode(&e), k.code) << text;
            EXPECT_EQ(OrvUtil::getLastError(), text);
        }
    }
}

TEST_F(Service, HubErrorsAreUncheckedAndUnknownCoreKindsDoNotCount) {
    Bytes hubErr = frame(12, 30);
    hubErr[29] ^= 0xFF;
    send(kHub, hubErr);
    s_OrvAccessStatus st = status();
    EXPECT_EQ(st.received, 0u);
    EXPECT_EQ(st.newError, 0u);

    // Kind 9 is dropped without an error code, and the pass that read it
    // counts as empty: the tracking packet behind it waits for the next call.
    send(kCore, frame(9, 30));
    send(kCore, frame(10, 332));
    st = status();
    EXPECT_EQ(st.received, 0u);
    EXPECT_EQ(st.newError, 0u);
    EXPECT_EQ(status().received, 0x10u);
}

TEST_F(Service, OneCallDrainsEveryPortRoundRobin) {
    for (int i = 0; i < 10; ++i) send(kCore, frame(10, 332));
    send(kMeta, frame(19, 100));
    EXPECT_EQ(status().received, 0x12u);
    EXPECT_EQ(status().received, 0u);

    // One datagram per port per pass, ports in their fixed order.
    for (int i = 0; i < 3; ++i) send(kCore, frame(10, 301 + i));
    send(kHub, frame(11, 200));
    send(kHub, frame(12, 201));
    send(kNft, frame(14, 152));
    send(kMeta, frame(19, 100));
    access.setVerbosity(0x2);
    orvtest::CapturedStdout out;
    EXPECT_TRUE(access.serviceUdp(false));
    EXPECT_EQ(out.text(),
              "ORVAINFO: Received orvRx meta packet, size 100\n"
              "ORVAINFO: IMU data not present\n"
              "ORVAINFO: Received orvCore packet, size 301\n"
              "ORVAINFO: Received orvHub packet, size 200\n"
              "ORVAINFO: Received NFT packet, size 152\n"
              "ORVAINFO: Received orvCore packet, size 302\n"
              "ORVAINFO: Received orvHub packet, size 201\n"
              "ORVAINFO: Received orvCore packet, size 303\n");
}

TEST_F(Service, BadDatagramIsDumpedBeforeItsCheck) {
    Bytes bad = frame(19, 5);
    bad[3] ^= 1;
    send(kMeta, bad);
    orvtest::CapturedStdout out;
    orvtest::CapturedStderr err;
    access.setVerbosity(0x1 | 0x2 | 0x2000);
    EXPECT_TRUE(access.serviceUdp(false));
    EXPECT_EQ(out.text(), "ORVAINFO: Received orvRx meta packet, size 5\nORVAMETA: 13 05 00 01 E8 \n");
    EXPECT_EQ(err.text(),
              "ORVALOG: Setting verbosity to 8195\nORVALOG: Problem with meta packet: Invalid checksum\n");
}

TEST_F(Service, FlushKeepsOnlyHubPackets) {
    send(kHub, frame(11, 64));
    send(kCore, frame(10, 332));
    access.flushUdp();
    EXPECT_EQ(status().received, 0x20u);
}

TEST_F(Service, ClosedObjectRefusesToService) {
    access.close();
    access.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    EXPECT_FALSE(access.serviceUdp(true));
    EXPECT_EQ(access.getLastError(), "Unable to service UDP: Interface not open");
    EXPECT_EQ(err.text(), "ORVAERR: Unable to service UDP: Interface not open\n");
}

// A receiving socket that asks for ICMP errors and sends to a closed port
// gets "Connection refused" from its next read.
TEST_F(Service, ReadErrorStopsTheLoop) {
    int coreFd = -1;
    for (int fd = 3; fd < 1024 && coreFd < 0; ++fd) {
        int type = 0;
        socklen_t tl = sizeof type;
        sockaddr_in a{};
        socklen_t al = sizeof a;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &tl) == 0 && type == SOCK_DGRAM &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&a), &al) == 0 && ntohs(a.sin_port) == port[kCore])
            coreFd = fd;
    }
    ASSERT_GE(coreFd, 0);
    const int on = 1;
    ASSERT_EQ(setsockopt(coreFd, IPPROTO_IP, IP_RECVERR, &on, sizeof on), 0);
    const sockaddr_in closed = orvtest::loopback(orvtest::freePort());
    ASSERT_EQ(sendto(coreFd, "x", 1, 0, reinterpret_cast<const sockaddr*>(&closed), sizeof closed), 1);
    pollfd p{coreFd, 0, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);

    send(kMeta, frame(19, 40));  // read before orvCore in the pass
    send(kHub, frame(11, 40));   // after it: left for the next call
    access.setVerbosity(0x4);
    orvtest::CapturedStderr err;
    EXPECT_FALSE(access.serviceUdp(false));
    EXPECT_EQ(access.getLastError(), "Error receiving from orvCore: Read failed...Connection refused");
    EXPECT_EQ(err.text(), "ORVAERR: " + access.getLastError() + "\n");
    EXPECT_EQ(status().received, 0x22u);
}

TEST_F(Service, BurstDoesNotAllocate) {
    const Bytes kinds[][2] = {{frame(19, 120), Bytes{}},
                              {frame(7, 900), Bytes{}},
                              {frame(10, 332), frame(15, 220)},
                              {frame(11, 151), frame(12, 20)},
                              {frame(14, 200), Bytes{}}};
    const auto sendAll = [&](int perKind) {
        for (int i = 0; i < perKind; ++i)
            for (int p = 0; p < 5; ++p)
                for (const Bytes& b : kinds[p])
                    if (!b.empty()) send(p, b);
    };
    sendAll(1);  // warm-up: first-use allocations of the streams and queues
    EXPECT_EQ(status().received, 0x1B6u);

    sendAll(29);  // 203 datagrams
    orvtest::startCountingAllocations();
    const bool ok = access.serviceUdp(true);
    const long allocations = orvtest::stopCountingAllocations();
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations, 0);
    const s_OrvAccessStatus st = status();
    EXPECT_EQ(st.received, 0x1B6u);
    EXPECT_EQ(st.newError, 0u);
}

}  // namespace
