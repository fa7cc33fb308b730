// The UDP service loop against real datagrams on 127.0.0.1: framing checks
// and their error codes, dispatch order, flushing, failures, and a receive
// path that does not allocate.
#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "wire/Fields.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvaccess/orvaccess.h"
#include "support/Allocations.hpp"
#include "support/FakeOrvRx.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using namespace orvtest;

// Zero bodies, so that the parsers behind the dispatch see empty records and
// these tests observe the dispatch alone. An image piece also needs a legal
// format (10: 640 x 480 x 1).
// No kind the orvCore port carries.
constexpr unsigned char kNotACoreKind = 9;

Bytes frame(unsigned char start, size_t size) {
    Bytes b = zeroFrame(start, size);
    // An image piece names a real format (640 x 480 x 1).
    if (start == ORVWIRE_START_IMAGE && size > ORVWIRE_IMAGE_PIXELS_AT)
        b[orvwire::offsetOf(orvwire::kImageFields, "format")] = 10;
    return seal(b, start);
}

class Service : public ReceiverTest {
protected:
    void SetUp() override { openReceiver(); }
    void TearDown() override { access.setVerbosity(0); }
};

TEST(FramingCheck, BuffersTooShortForALengthWordFail) {
    const unsigned char tiny[] = {10, 2};  // refused without reading past len
    for (unsigned long len : {0ul, 1ul, 2ul}) EXPECT_FALSE(OrvUtil::udpPktOk(tiny, len, 10)) << len;
    EXPECT_EQ(OrvUtil::getLastError(), "Invalid size");
}

TEST_F(Service, FramingFaultsQueueThePortsCode) {
    // Each kind at the size of its packets, so that its parser reads only the
    // zero body it was sent: port, start byte, size, error code, received bit.
    const std::tuple<int, unsigned char, size_t, unsigned short, uint32_t> kinds[] = {
        {kMeta, ORVWIRE_START_META, 40, ORVACCESS_ERR_BAD_META_PKT, ORVACCESS_RECV_META},
        {kImage, ORVWIRE_START_IMAGE, 40, ORVACCESS_ERR_BAD_IMAGE_PKT, ORVACCESS_RECV_IMAGE},
        {kCore, ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE, ORVACCESS_ERR_BAD_TRACKING_PKT,
         ORVACCESS_RECV_TRACKING},
        {kCore, ORVWIRE_START_PRA, ORVWIRE_PRA_SIZE, ORVACCESS_ERR_BAD_PRA_PKT, ORVACCESS_RECV_PRA},
        {kHub, ORVWIRE_START_HUB_DATA, ORVWIRE_HUB_DATA_SIZE, ORVACCESS_ERR_BAD_HUB_PKT, ORVACCESS_RECV_HUB},
        {kNft, ORVWIRE_START_NFT, ORVWIRE_NFT_SIZE, ORVACCESS_ERR_BAD_NFT_PKT, ORVACCESS_RECV_NFT}};
    for (const auto& [p, start, size, code, bit] : kinds) {
        Bytes good = frame(start, size), longer = good, bad = good;
        send(p, good);
        EXPECT_EQ(received(), bit);
        // The length word one off the datagram's size either way, one byte changed.
        longer.push_back(0);
        bad[20] ^= 0x10;
        std::vector<std::pair<Bytes, const char*>> faults = {
            {longer, "Invalid size"},
            {Bytes(good.begin(), good.end() - 1), "Invalid size"},
            {bad, "Invalid checksum"}};
        // On orvCore the first byte picks the kind, so no start byte is wrong there.
        if (p != kCore) faults.emplace_back(frame(start ^ 0x80, size), "Wrong start byte");
        for (const auto& [bytes, text] : faults) {
            send(p, bytes);
            EXPECT_EQ(received(), 0u) << code << text;
            EXPECT_EQ(errorCodes(), (Codes{{code, 0}})) << text;
            EXPECT_EQ(OrvUtil::getLastError(), text) << code;
        }
    }
}

TEST_F(Service, UnknownCoreKindsAreDroppedAndDoNotCount) {
    // Kind 9 is dropped without an error code, and the pass that read it
    // counts as empty: the tracking packet behind it waits for the next call.
    send(kCore, frame(kNotACoreKind, 30));
    send(kCore, frame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE));
    EXPECT_EQ(received(), 0u);
    EXPECT_EQ(received(), 0x10u);
    EXPECT_TRUE(errorCodes().empty());
}

TEST_F(Service, OneCallDrainsEveryPortRoundRobinAndDumpsBeforeTheCheck) {
    // One datagram per port per pass, ports in their fixed order; the bad
    // meta packet is dumped before its check fails; a hub error packet is
    // taken without any check.
    Bytes bad = frame(ORVWIRE_START_META, 5), hubErr = frame(ORVWIRE_START_HUB_ERROR, 201);
    bad[3] ^= 1;
    hubErr[200] ^= 0xFF;
    send(kMeta, bad);
    for (int i = 0; i < 3; ++i) send(kCore, frame(ORVWIRE_START_TRACKING, 301 + i));
    send(kHub, frame(ORVWIRE_START_HUB_DATA, 200));
    send(kHub, hubErr);
    send(kNft, frame(ORVWIRE_START_NFT, ORVWIRE_NFT_SIZE));
    CapturedStdout out;
    CapturedStderr err;
    access.setVerbosity(0x1 | 0x2 | 0x2000);
    EXPECT_TRUE(access.serviceUdp(false));
    EXPECT_EQ(out.text(),
              "ORVAINFO: Received orvRx meta packet, size 5\n"
              "ORVAMETA: 13 05 00 01 E8 \n"
              "ORVAINFO: Received orvCore packet, size 301\n"
              "ORVAINFO: Received orvHub packet, size 200\n"
              "ORVAINFO: Received NFT packet, size " + std::to_string(ORVWIRE_NFT_SIZE) +
                  "\n"
                  "ORVAINFO: Received orvCore packet, size 302\n"
                  "ORVAINFO: Received orvHub packet, size 201\n"
                  "ORVAINFO: Received orvCore packet, size 303\n");
    EXPECT_EQ(err.text(),
              "ORVALOG: Setting verbosity to 8195\nORVALOG: Problem with meta packet: Invalid checksum\n");
    EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_META_PKT, 0}}));
}

// More datagrams than one read takes, on four ports at once: one per port
// per pass, in the fixed order, as if every pass read every socket. The
// image port, read one piece at a time, keeps its turn too.
TEST_F(Service, DatagramsBeyondOneBatchKeepTheRoundRobinOrder) {
    std::string want;
    for (size_t k = 0; k < 40; ++k) {
        if (k < 21) send(kMeta, frame(ORVWIRE_START_META, 100 + k));
        if (k < 25) send(kImage, frame(ORVWIRE_START_IMAGE, 20 + k));
        send(kCore, frame(ORVWIRE_START_TRACKING, 400 + k));
        if (k < 3) send(kHub, frame(ORVWIRE_START_HUB_DATA, 200 + k));
    }
    for (size_t k = 0; k < 40; ++k) {
        if (k < 21) want += "ORVAINFO: Received orvRx meta packet, size " + std::to_string(100 + k) + "\n";
        if (k < 25) want += "ORVAINFO: Received image packet, size " + std::to_string(20 + k) + "\n";
        want += "ORVAINFO: Received orvCore packet, size " + std::to_string(400 + k) + "\n";
        if (k < 3) want += "ORVAINFO: Received orvHub packet, size " + std::to_string(200 + k) + "\n";
    }
    access.setVerbosity(ORVACCESS_VERB_INFO);
    CapturedStdout out;
    EXPECT_TRUE(access.serviceUdp(false));
    // The datagrams' own lines, without those their parsers add.
    std::istringstream lines(out.text());
    std::string got;
    for (std::string line; std::getline(lines, line);)
        if (line.find(", size ") != std::string::npos) got += line + "\n";
    EXPECT_EQ(got, want);
}

TEST_F(Service, FlushKeepsOnlyHubPacketsAndAClosedObjectRefuses) {
    send(kHub, frame(ORVWIRE_START_HUB_DATA, 64));
    send(kCore, frame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE));
    access.flushUdp();
    EXPECT_EQ(received(), 0x20u);
    // A tracking packet left behind by a call that ended on a dropped kind
    // is gone after a flush too.
    send(kCore, frame(kNotACoreKind, 30));
    send(kCore, frame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE));
    EXPECT_EQ(received(), 0u);
    access.flushUdp();
    EXPECT_EQ(received(), 0u);

    access.close();
    access.setVerbosity(0x4);
    CapturedStderr err;
    EXPECT_FALSE(access.serviceUdp(true));
    EXPECT_EQ(access.getLastError(), "Unable to service UDP: Interface not open");
    EXPECT_EQ(err.text(), "ORVAERR: Unable to service UDP: Interface not open\n");
}

// waitUdp sleeps until a datagram waits, reads nothing itself, and wakes for
// a datagram that comes while it sleeps; it refuses a closed object and one
// without a receiving port, on which nothing could ever arrive.
TEST_F(Service, WaitUdpWakesForADatagramAndLeavesItToTheGetters) {
    bool ready = true;
    EXPECT_TRUE(access.waitUdp(0, &ready));
    EXPECT_FALSE(ready);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(access.waitUdp(30, &ready));
    EXPECT_FALSE(ready);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(25));

    std::thread later([this] {
        // Sent while waitUdp blocks, which is what is tested; late is fine.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        send(kHub, frame(ORVWIRE_START_HUB_DATA, ORVWIRE_HUB_DATA_SIZE));
    });
    EXPECT_TRUE(access.waitUdp(-1, &ready));
    later.join();
    EXPECT_TRUE(ready);
    EXPECT_TRUE(access.waitUdp(0, &ready));
    EXPECT_TRUE(ready) << "the datagram is still there for the getters";
    EXPECT_EQ(received(), ORVACCESS_RECV_HUB);
    EXPECT_TRUE(access.waitUdp(0, &ready));
    EXPECT_FALSE(ready);

    int cReady = 7;
    EXPECT_EQ(OrvAccess_waitUdp(&access, 0, &cReady), 1);
    EXPECT_EQ(cReady, 0);
    access.close();
    EXPECT_FALSE(access.waitUdp(0, &ready));
    EXPECT_EQ(access.getLastError(), "Unable to wait for UDP: Interface not open");
    EXPECT_EQ(OrvAccess_waitUdp(&access, 0, &cReady), 0);
}

TEST_F(OrvRxTest, WaitUdpWithoutAReceivingPortFailsAtOnce) {
    bool ready = true;
    EXPECT_FALSE(access.waitUdp(-1, &ready));
    EXPECT_FALSE(ready);
    EXPECT_EQ(access.getLastError(), "Unable to wait for UDP: No receiving port open");
}

// A receiving socket that asks for ICMP errors and sends to a closed port
// gets "Connection refused" from its next read.
TEST_F(Service, ReadErrorStopsTheLoop) {
    int coreFd = 3;
    for (sockaddr_in a{}; coreFd < 1024; ++coreFd) {
        socklen_t al = sizeof a;
        if (getsockname(coreFd, reinterpret_cast<sockaddr*>(&a), &al) == 0 &&
            ntohs(a.sin_port) == port[kCore])
            break;
    }
    ASSERT_LT(coreFd, 1024);
    const int on = 1;
    ASSERT_EQ(setsockopt(coreFd, IPPROTO_IP, IP_RECVERR, &on, sizeof on), 0);
    const sockaddr_in closed = loopback(freePort());
    ASSERT_EQ(sendto(coreFd, "x", 1, 0, reinterpret_cast<const sockaddr*>(&closed), sizeof closed), 1);
    pollfd p{coreFd, 0, 0};
    ASSERT_EQ(poll(&p, 1, 2000), 1);

    send(kMeta, frame(ORVWIRE_START_META, 40));  // read before orvCore in the pass
    send(kHub, frame(ORVWIRE_START_HUB_DATA, 40));   // after it: left for the next call
    access.setVerbosity(0x4);
    CapturedStderr err;
    EXPECT_FALSE(access.serviceUdp(false));
    EXPECT_EQ(access.getLastError(), "Error receiving from orvCore: Read failed...Connection refused");
    EXPECT_EQ(err.text(), "ORVAERR: " + access.getLastError() + "\n");
    EXPECT_EQ(received(), 0x22u);
}

TEST_F(Service, BurstDoesNotAllocate) {
    const std::vector<std::pair<int, Bytes>> kinds = {
        {kMeta, frame(ORVWIRE_START_META, 120)}, {kImage, frame(ORVWIRE_START_IMAGE, 900)}, {kCore, frame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE)}, {kCore, frame(ORVWIRE_START_PRA, ORVWIRE_PRA_SIZE)},
        {kHub, frame(ORVWIRE_START_HUB_DATA, ORVWIRE_HUB_DATA_SIZE)},  {kHub, frame(ORVWIRE_START_HUB_ERROR, 20)},   {kNft, frame(ORVWIRE_START_NFT, 200)}};
    for (const auto& [p, b] : kinds) send(p, b);  // warm-up: first-use allocations of streams and queues
    EXPECT_EQ(received(), 0x1B6u);
    for (int i = 0; i < 29; ++i)  // 203 datagrams
        for (const auto& [p, b] : kinds) send(p, b);
    EXPECT_EQ(allocationsDuring([&] { EXPECT_TRUE(access.serviceUdp(true)); }), 0);
    EXPECT_EQ(received(), 0x1B6u);
    EXPECT_TRUE(errorCodes().empty());
}

// A sender on a loopback address of the test's choosing: the whole of
// 127/8 reaches this host, so the library sees 127.0.0.2 as another host.
class UdpSenderFrom {
public:
    explicit UdpSenderFrom(const char* address) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, address, &a.sin_addr);
        bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    }
    ~UdpSenderFrom() {
        if (fd_ >= 0) ::close(fd_);
    }
    bool bound() const { return bound_; }
    bool send(int port, const Bytes& b) const {
        const sockaddr_in to = loopback(port);
        return sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) ==
               static_cast<ssize_t>(b.size());
    }

private:
    int fd_;
    bool bound_ = false;
};

class Senders : public Service {
protected:
    void SetUp() override {}
    void sendFromOther(int which, const Bytes& b) { ASSERT_TRUE(other.send(port[which], b)); }
    s_OrvAccessSenderDrops drops() {
        s_OrvAccessSenderDrops d{};
        EXPECT_EQ(OrvAccess_getSenderDrops(&access, &d), 1);
        return d;
    }
    UdpSenderFrom other{"127.0.0.2"};
};

// With the list naming 127.0.0.1 only, whatever 127.0.0.2 sends is dropped
// before its check (a damaged datagram queues no code), counted by port, and
// nothing of it reaches a queue; past one read's batch too, and interleaved
// with the datagrams that are taken. Without the list, or with one that
// names the sender's network, the same datagrams are taken.
TEST_F(Senders, DatagramsFromOtherSendersAreDroppedUncheckedAndCounted) {
    ASSERT_TRUE(other.bound()) << "cannot bind a socket to 127.0.0.2";
    openReceiver("udpAllowedSenders = 127.0.0.1\n");
    Bytes damaged = frame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE);
    damaged[20] ^= 1;
    const std::pair<int, Bytes> each[] = {{kMeta, frame(ORVWIRE_START_META, 40)},
                                          {kImage, frame(ORVWIRE_START_IMAGE, 40)},
                                          {kCore, damaged},
                                          {kHub, frame(ORVWIRE_START_HUB_DATA, ORVWIRE_HUB_DATA_SIZE)},
                                          {kNft, frame(ORVWIRE_START_NFT, 152)}};
    for (const auto& [p, b] : each) sendFromOther(p, b);
    EXPECT_EQ(received(), 0u);
    EXPECT_TRUE(errorCodes().empty());
    s_OrvAccessSenderDrops d = drops();
    EXPECT_EQ(d.meta, 1u);
    EXPECT_EQ(d.image, 1u);
    EXPECT_EQ(d.core, 1u);
    EXPECT_EQ(d.hub, 1u);
    EXPECT_EQ(d.nft, 1u);

    // 40 forged poses around 3 real ones: only the real ones are records.
    const Bytes pose = frame(ORVWIRE_START_TRACKING, ORVWIRE_TRACKING_SIZE);
    for (int k = 0; k < 43; ++k) {
        if (k % 15 == 5) {
            send(kCore, pose);
        } else {
            sendFromOther(kCore, pose);
        }
    }
    EXPECT_TRUE(access.serviceUdp(false));
    int taken = 0;
    bool valid = true;
    s_OrvAccessTrkDataExt r{};
    while (access.getTrackingData(&valid, &r) && valid) ++taken;
    EXPECT_EQ(taken, 3);
    EXPECT_EQ(drops().core, 41u);
    EXPECT_TRUE(errorCodes().empty());

    // The counts stay after close and start again at open.
    access.close();
    EXPECT_EQ(drops().core, 41u);
    for (const char* list : {"", "127.0.0.1, 127.0.0.0/30", "10.0.0.1 127.0.0.2"}) {
        SCOPED_TRACE(list);
        openReceiver(std::string("udpAllowedSenders = ") + list + "\n");
        for (const auto& [p, b] : each) sendFromOther(p, b);
        EXPECT_EQ(received(), ORVACCESS_RECV_META | ORVACCESS_RECV_IMAGE | ORVACCESS_RECV_HUB | ORVACCESS_RECV_NFT);
        EXPECT_EQ(errorCodes(), (Codes{{ORVACCESS_ERR_BAD_TRACKING_PKT, 0}}));
        d = drops();
        EXPECT_EQ(d.meta + d.image + d.core + d.hub + d.nft, 0u);
    }
}

// A list that does not read opens nothing, rather than taking every sender.
TEST_F(Senders, AListThatDoesNotReadOpensNothing) {
    for (const char* list : {"127.0.0.1, bogus", "127.1", "10.0.0.0/33", "127.0.0.1;lab"}) {
        SCOPED_TRACE(list);
        for (int& p : port)
            if (p == 0) p = freePort();
        access.setIniPath(dir.write("orvaccess.ini", receiverIni(port, std::string("udpAllowedSenders = ") + list)));
        EXPECT_FALSE(access.open());
        EXPECT_EQ(access.getLastError().rfind("Unable to open: udpAllowedSenders \"", 0), 0u) << access.getLastError();
        bool ready = false;
        EXPECT_FALSE(access.waitUdp(0, &ready));
    }
    EXPECT_EQ(OrvAccess_getSenderDrops(&access, nullptr), 0);
}

}  // namespace
