// The fault matrix: one fault at a time against the library, with the
// simulator (or a real peer standing in for part of it) on the other side.
// Each row checks three things: the channels without the fault go on whole,
// the fault is reported (error code, last-error text or progress), and every
// datagram that reached the library intact became its record.
// Rows covered elsewhere: the shared-memory producer killed while holding its
// semaphore (test_restart.cpp), the region cut short (test_images.cpp).
#include <netinet/tcp.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "os/OrvosiSharedMem.hpp"
#include "support/Process.hpp"
#include "orvsim/Simulator.hpp"
#include "support/SimRunner.hpp"

using namespace orvsim;

namespace {

using Bytes = std::vector<unsigned char>;
constexpr size_t kImageBytes = 640 * 480;  // format 10
constexpr size_t kPieceBytes = 60000;      // per image datagram
constexpr uint64_t kPiecesPerImage = (kImageBytes + kPieceBytes - 1) / kPieceBytes;

int index(Stream s) { return static_cast<int>(s); }

// Each value replaced by its rank among the distinct values: two sequences
// over different numberings compare by order, repeats and gaps alone.
template <class T>
std::vector<size_t> ranks(const std::vector<T>& v) {
    std::vector<T> sorted(v);
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    std::vector<size_t> out;
    for (const T& x : v) out.push_back(std::lower_bound(sorted.begin(), sorted.end(), x) - sorted.begin());
    return out;
}

// The datagrams of stream s that went on the wire intact, as indices into
// those built, in the order they were sent. The run's injector is replayed
// with the seed the simulator derives for the stream; counts says what the
// replay did, so that a test can check that it matches the run.
std::vector<uint64_t> intactOnWire(const SimConfig& c, Stream s, uint64_t built, FaultCounts& counts) {
    FaultInjector replay(c.faults[index(s)], c.seed + 7919u * static_cast<uint32_t>(index(s)));
    std::vector<FaultInjector::Datagram> wire;
    for (uint64_t n = 0; n < built; ++n) {
        // Length field 8, last byte 0: either kind of damage changes one of them.
        FaultInjector::Datagram d{0, 8, 0, 0, 0, 0, 0, 0};
        std::memcpy(&d[3], &n, 4);
        replay.process(std::move(d), wire);
    }
    replay.flush(wire);
    counts = replay.counts();
    std::vector<uint64_t> out;
    for (const auto& d : wire) {
        uint32_t n = 0;
        std::memcpy(&n, &d[3], 4);
        if (d[1] == 8 && d[2] == 0 && d.back() == 0) out.push_back(n);
    }
    return out;
}

// Image n of the simulator: byte (x, y) of a one-byte-per-pixel image.
bool hasPattern(const Bytes& image, uint32_t n) {
    for (unsigned y : {0u, 17u, 479u})
        for (unsigned x : {0u, 333u, 639u})
            if (image[y * 640 + x] != static_cast<unsigned char>(x + y + 4 * n)) return false;
    return true;
}

// What the library handed out, by stream; images by sequence id.
struct Delivered {
    std::vector<uint32_t> seen[kStreamCount];
    std::vector<uint32_t> images;
    std::map<unsigned short, int> errors;
    int badImages = 0;     // delivered with pixels other than the simulator's
    int lastPercent = -1;  // the progress of the last getImage without an image
};

// A relay on 127.0.0.1 between the library and the simulator's command
// server that resets the library's connection (SO_LINGER 0, so an RST) as
// soon as a get sends back more than `resetAfter` bytes; only the first get
// is cut, later connections are relayed whole.
class ResettingRelay {
public:
    ResettingRelay(int to, size_t resetAfter)
        : port_(orvtest::freePort()),
          to_(to),
          resetAfter_(resetAfter),
          listen_(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in a = orvtest::loopback(port_);
        if (bind(listen_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || listen(listen_, 4) != 0)
            ADD_FAILURE() << "relay cannot listen on port " << port_;
        thread_ = std::thread([this] { run(); });
    }
    ~ResettingRelay() {
        stop_ = true;
        thread_.join();
        closePair();
        ::close(listen_);
    }
    int port() const { return port_; }
    bool didReset() const { return reset_; }

private:
    void closePair() {
        if (client_ >= 0) ::close(client_);
        if (server_ >= 0) ::close(server_);
        client_ = server_ = -1;
    }
    static void noDelay(int fd) {
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    void accept1() {
        closePair();
        client_ = accept(listen_, nullptr, nullptr);
        server_ = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in a = orvtest::loopback(to_);
        if (connect(server_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) closePair();
        if (client_ < 0) return;
        noDelay(client_), noDelay(server_);
    }
    void run() {
        char buf[8192];
        while (!stop_) {
            pollfd p[3] = {{listen_, POLLIN, 0}, {client_, POLLIN, 0}, {server_, POLLIN, 0}};
            if (poll(p, 3, 20) <= 0) continue;
            if (p[0].revents & POLLIN) {
                accept1();
                continue;
            }
            if (p[1].revents != 0) {
                const ssize_t n = recv(client_, buf, sizeof buf, 0);
                if (n <= 0) {
                    closePair();
                    continue;
                }
                // A get request starts the count of what comes back.
                if (n >= 2 && static_cast<unsigned char>(buf[0]) == 0xAB &&
                    static_cast<unsigned char>(buf[1]) == 0xC5)
                    getting_ = true, back_ = 0;
                send(server_, buf, static_cast<size_t>(n), MSG_NOSIGNAL);
            }
            if (p[2].revents != 0 && server_ >= 0) {
                const ssize_t n = recv(server_, buf, sizeof buf, 0);
                if (n <= 0) {
                    closePair();
                    continue;
                }
                if (getting_ && !reset_ && back_ + static_cast<size_t>(n) > resetAfter_) {
                    const linger hard{1, 0};
                    setsockopt(client_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
                    closePair();
                    reset_ = true;
                    continue;
                }
                back_ += static_cast<size_t>(n);
                send(client_, buf, static_cast<size_t>(n), MSG_NOSIGNAL);
            }
        }
    }

    const int port_, to_;
    const size_t resetAfter_;
    const int listen_;
    int client_ = -1, server_ = -1;
    bool getting_ = false;
    size_t back_ = 0;
    std::atomic<bool> reset_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class FaultMatrix : public testing::Test {
protected:
    // Starts the simulator on fresh ports, tuned by `tune`, then opens the
    // library on the same INI file. With `commandPort` set, the library's
    // command channel goes there instead of to the simulator.
    void start(const std::function<void(SimConfig&)>& tune, int commandPort = 0) {
        static int run = 0;
        std::ostringstream ini;
        ini << "[Communication]\ntcpOrvRxAddr = 127.0.0.1\n";
        for (const char* key : orvtest::SimRunner::kPortKeys)
            ini << key << " = " << (ports_[key] = orvtest::freePort()) << "\n";
        // Room for everything a second of stalled test thread lets pile up.
        for (const char* key :
             {"udpOrvRxRcvBufSize", "udpOrvCoreRcvBufSize", "udpOrvHubRcvBufSize", "udpNftRcvBufSize"})
            ini << key << " = 1048576\n";
        ini << "udpOrvRxImgRcvBufSize = 8388608\n";
        ini << "sMemImgName = orvFM" << getpid() << "_" << run++ << "\n";
        const std::string path = dir_.write("orvaccess.ini", ini.str());

        std::string error;
        ASSERT_TRUE(SimConfig::fromIni(path, cfg_, error)) << error;
        cfg_.fileFolder = dir_.prefix();
        // Modest rates, so that no socket buffer overflows on a loaded
        // machine; each stream a few hundred datagrams a second at most.
        SimRates& r = cfg_.rates;
        r.imu = 500, r.tracking = 250, r.pra = 100, r.hub = 100, r.nft = 50;
        r.image = 0, r.sharedImage = 0, r.errorPeriodS = 0;
        tune(cfg_);
        ASSERT_TRUE(sim_.start(cfg_));

        if (commandPort != 0)
            dir_.write("orvaccess.ini", ini.str() + "tcpOrvRxPort = " + std::to_string(commandPort) + "\n");
        access_.setIniPath(path);
        ASSERT_TRUE(access_.open()) << access_.getLastError();
    }

    // Stops the simulator; what reordering held back goes out now.
    SimReport stopSim() { return sim_.stop(); }

    void TearDown() override {
        stopSim();
        access_.close();
    }

    // Takes everything the library holds.
    void drain(Delivered& d) {
        bool valid = false;
        s_OrvAccessTrkDataExt t{};
        while (access_.getTrackingData(&valid, &t) && valid)
            d.seen[index(t.statusWord != 0 ? Stream::Tracking : Stream::Nft)].push_back(t.packetTag);
        s_OrvAccessImuData imu{};
        while (access_.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu) && valid)
            d.seen[index(Stream::Meta)].push_back(imu.tag);
        s_OrvAccessHubData hub{};
        while (access_.getHubData(&valid, &hub) && valid) d.seen[index(Stream::Hub)].push_back(hub.word);
        s_OrvAccessPoseRecStats stats{};
        while (access_.getPoseRecoveryStats(&valid, &stats) && valid)
            if (stats.stat1 == 5) d.seen[index(Stream::Pra)].push_back(stats.tag);  // a PRA packet's
        int percent = 0;
        OrvAccess::ImageFormat format{};
        unsigned int seq = 0;
        image_.resize(access_.getImageBufSize());
        if (access_.getImage(&percent, &format, &seq, image_.data(), image_.size())) {
            if (percent == 100) {
                d.images.push_back(seq);
                d.badImages += hasPattern(image_, seq) ? 0 : 1;
            } else {
                d.lastPercent = percent;
            }
        }
        s_OrvAccessErrorCode e{};
        while (access_.getErrorCode(&e) != 0) ++d.errors[e.code];
    }

    // Drains until `done` holds; false if it never did (the limit only ends
    // a run that would hang).
    bool drainUntil(Delivered& d, const std::function<bool()>& done) {
        return orvtest::waitFor([&] {
            drain(d);
            return done();
        });
    }

    // Drains about every millisecond for the given time: the length of a run.
    void drainFor(double seconds, Delivered& d) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            drain(d);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // Error codes for damaged datagrams and broken images; the simulator may
    // raise others of its own (a skipped sequence on a loaded machine).
    static int damaged(Delivered& d) {
        int n = d.errors[ORVACCESS_ERR_IMAGE_TRANSFER];
        for (int s = 0; s < kStreamCount; ++s) n += d.errors[streamErrorCode(static_cast<Stream>(s))];
        return n;
    }

    // True when the hub words delivered run on without a gap or a repeat.
    static bool consecutive(const std::vector<uint32_t>& v) {
        for (size_t i = 1; i < v.size(); ++i)
            if (v[i] != v[i - 1] + 1) return false;
        return !v.empty();
    }

    orvtest::TempDir dir_;
    std::map<std::string, int> ports_;
    SimConfig cfg_;
    orvtest::SimThread sim_;
    OrvAccess access_;
    Bytes image_;
};

// ---- drop, corrupt, duplicate and reorder, one channel at a time -------------------

class ChannelFaults : public FaultMatrix, public testing::WithParamInterface<Stream> {};

TEST_P(ChannelFaults, OnlyTheDamagedDatagramsAreLostAndTheOtherChannelsStayWhole) {
    const Stream faulty = GetParam();
    start([faulty](SimConfig& c) {
        c.rates.image = 10;
        // Large pieces give a damaged stream whole images now and then;
        // small ones keep an intact stream from bursting.
        if (faulty == Stream::Image) c.imagePiece = kPieceBytes;
        c.faults[index(faulty)] =
            faulty == Stream::Image ? FaultRates{0.04, 0.04, 0.04, 0.04} : FaultRates{0.15, 0.15, 0.15, 0.15};
        c.seed = 13;
        // Nothing may go out before the library has switched streaming on
        // and flushed its ports: that loss would not be the fault's.
        c.followStreaming = true;
        c.startupS = 0.2;
    });
    Delivered d;
    bool valid = false;
    s_OrvAccessImuData first{};
    ASSERT_TRUE(access_.getImuData(ORVACCESS_IMU_CAMERA, &valid, &first));  // switches streaming on
    drainFor(faulty == Stream::Image ? 1.2 : 0.7, d);  // long enough for every kind of fault to strike
    const SimReport r = stopSim();
    // Then until every intact datagram and every damaged one's code has arrived.
    std::map<Stream, std::vector<uint64_t>> intactOf;
    for (Stream s : {Stream::Tracking, Stream::Pra, Stream::Meta, Stream::Image, Stream::Hub, Stream::Nft}) {
        FaultCounts ignored;
        intactOf[s] = intactOnWire(cfg_, s, r.streams[index(s)].built, ignored);
    }
    EXPECT_TRUE(drainUntil(d, [&] {
        for (const auto& [s, intact] : intactOf)
            if ((s != Stream::Image && d.seen[index(s)].size() < intact.size()) ||
                d.errors[streamErrorCode(s)] < static_cast<int>(r.streams[index(s)].faults.corrupted()))
                return false;
        return true;
    }));

    const FaultCounts& hit = r.streams[index(faulty)].faults;
    EXPECT_GT(hit.dropped, 0u);
    EXPECT_GT(hit.corrupted(), 0u);
    EXPECT_GT(hit.duplicated, 0u);
    EXPECT_GT(hit.reordered, 0u);
    for (Stream s : {Stream::Tracking, Stream::Pra, Stream::Meta, Stream::Image, Stream::Hub, Stream::Nft}) {
        SCOPED_TRACE(streamName(s));
        const StreamReport& sent = r.streams[index(s)];
        EXPECT_EQ(sent.sendFailures, 0u);
        EXPECT_GT(sent.built, 0u);
        // Every damaged datagram is one error code of its port, no more.
        EXPECT_EQ(d.errors[streamErrorCode(s)], static_cast<int>(sent.faults.corrupted()));
        FaultCounts replayed;
        const std::vector<uint64_t> intact = intactOnWire(cfg_, s, sent.built, replayed);
        EXPECT_EQ(intact, intactOf[s]);
        EXPECT_EQ(replayed.out, sent.faults.out) << "the replay differs from the run";
        EXPECT_EQ(replayed.corrupted(), sent.faults.corrupted());
        if (s == Stream::Image) continue;
        // Every intact datagram delivered, in the order it came, repeats included.
        EXPECT_EQ(ranks(d.seen[index(s)]), ranks(intact));
    }

    // Images: only those whose pieces all came intact, with the right pixels;
    // a piece lost, repeated or out of place costs its image an error code.
    EXPECT_EQ(d.badImages, 0);
    EXPECT_FALSE(d.images.empty());
    if (faulty == Stream::Image) {
        FaultCounts replayed;
        const std::vector<uint64_t> intact =
            intactOnWire(cfg_, Stream::Image, r.streams[index(Stream::Image)].built, replayed);
        std::map<uint64_t, int> piecesOf;
        for (uint64_t n : std::set<uint64_t>(intact.begin(), intact.end())) ++piecesOf[n / kPiecesPerImage];
        for (uint32_t seq : d.images)
            EXPECT_EQ(piecesOf[seq], static_cast<int>(kPiecesPerImage)) << "image " << seq;
        EXPECT_GT(d.errors[ORVACCESS_ERR_IMAGE_TRANSFER], 0);
    } else {
        EXPECT_EQ(d.errors[ORVACCESS_ERR_IMAGE_TRANSFER], 0);
        EXPECT_TRUE(std::is_sorted(d.images.begin(), d.images.end()));
    }
}

INSTANTIATE_TEST_SUITE_P(Matrix, ChannelFaults,
                         testing::Values(Stream::Tracking, Stream::Pra, Stream::Meta, Stream::Image,
                                         Stream::Hub, Stream::Nft),
                         [](const testing::TestParamInfo<Stream>& p) {
                             return std::string(streamName(p.param));
                         });

// ---- the command channel ---------------------------------------------------------------

// orvRx carries out every command but damages every reply: each command
// fails with its own text, streaming happens all the same, and the streams
// that need no command never notice.
TEST_F(FaultMatrix, CorruptRepliesFailEachCommandWhileTheStreamsGoOn) {
    start([](SimConfig& c) { c.replies = RxServer::Replies::Corrupt; });
    Delivered d;
    bool valid = false;
    s_OrvAccessImuData imu{};
    ASSERT_TRUE(access_.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu));
    EXPECT_EQ(access_.getLastError(), "Failed to set streaming state");
    EXPECT_TRUE(drainUntil(d, [&] { return !d.seen[index(Stream::Tracking)].empty(); }))
        << "the switch took effect";

    EXPECT_FALSE(access_.setRegister(100, 0x10, 7));
    EXPECT_EQ(access_.getLastError(), "Invalid ack to set register command");
    unsigned char value = 0;
    EXPECT_FALSE(access_.getRegister(100, 0x10, &value));  // the stop is refused first
    EXPECT_EQ(access_.getLastError(), "Failed to set streaming state");
    EXPECT_FALSE(access_.getRegister(100, 0x10, &value));
    EXPECT_EQ(access_.getLastError(), "Invalid response to get register command");
    unsigned char tx[1] = {0}, rx[4] = {};
    unsigned long got = 0;
    // An IMU reply carries no checksum: its damage cannot be seen.
    EXPECT_TRUE(access_.transactImu(ORVACCESS_IMU_CAMERA, tx, 1, rx, 1, 100, &got));
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(rx[0], static_cast<unsigned char>(~RxServer::kImuIdentity));
    dir_.write("calib.txt", std::string(700, 'c'));
    EXPECT_FALSE(access_.getFile("calib.txt", ORVACCESS_FILE_LOC_1, dir_.prefix() + "back.txt"));
    EXPECT_EQ(access_.getLastError(), "No/bad response from server");
    EXPECT_FALSE(std::filesystem::exists(dir_.prefix() + "back.txt"));

    d.seen[index(Stream::Hub)].clear();
    const std::vector<uint32_t>& hub = d.seen[index(Stream::Hub)];
    EXPECT_TRUE(drainUntil(d, [&] { return hub.size() >= 30; }));
    const SimReport r = stopSim();
    const uint64_t built = r.streams[index(Stream::Hub)].built;
    EXPECT_TRUE(drainUntil(d, [&] { return !hub.empty() && hub.back() + 1 >= built; }));
    EXPECT_EQ(sim_.sim().rx().reg(0x10), 7) << "the command was carried out";
    // Hub data went on through all of it, every datagram of it.
    EXPECT_TRUE(consecutive(hub));
    EXPECT_EQ(hub.empty() ? 0 : hub.back() + 1, r.streams[index(Stream::Hub)].built);
    EXPECT_EQ(damaged(d), 0) << "a bad reply is no error code";
}

// orvRx reads commands and never answers: streaming never starts, and the
// last error says so; each command times out with its own text while hub
// and NFT data flow on.
TEST_F(FaultMatrix, SilentRepliesTimeOutAndStreamingIsNeverAcknowledged) {
    start([](SimConfig& c) { c.replies = RxServer::Replies::Silent; });
    Delivered d;
    bool valid = false;
    s_OrvAccessImuData imu{};
    ASSERT_TRUE(access_.getImuData(ORVACCESS_IMU_CAMERA, &valid, &imu));
    EXPECT_EQ(access_.getLastError(), "Failed to set streaming state");
    // Half a second's worth of NFT data, which needs no streaming, and no other.
    EXPECT_TRUE(drainUntil(d, [&] { return d.seen[index(Stream::Nft)].size() >= 25; }));
    EXPECT_TRUE(d.seen[index(Stream::Meta)].empty());
    EXPECT_TRUE(d.seen[index(Stream::Tracking)].empty());
    EXPECT_FALSE(d.seen[index(Stream::Nft)].empty());

    EXPECT_FALSE(access_.setRegister(100, 0x10, 7));
    EXPECT_EQ(access_.getLastError(), "No response to set register command");
    unsigned char value = 0;
    EXPECT_FALSE(access_.getRegister(100, 0x10, &value));
    EXPECT_EQ(access_.getLastError(), "Failed to set streaming state");
    EXPECT_FALSE(access_.getRegister(100, 0x10, &value));
    EXPECT_EQ(access_.getLastError(), "No response to get register command");

    d.seen[index(Stream::Hub)].clear();
    const std::vector<uint32_t>& hub = d.seen[index(Stream::Hub)];
    EXPECT_TRUE(drainUntil(d, [&] { return hub.size() >= 30; }));
    const SimReport r = stopSim();
    const uint64_t built = r.streams[index(Stream::Hub)].built;
    EXPECT_TRUE(drainUntil(d, [&] { return !hub.empty() && hub.back() + 1 >= built; }));
    EXPECT_EQ(sim_.sim().rx().reg(0x10), 0) << "silent means ignored";
    EXPECT_TRUE(consecutive(hub));
    EXPECT_EQ(hub.empty() ? 0 : hub.back() + 1, r.streams[index(Stream::Hub)].built);
}

// The connection to orvRx reset while a file comes in: the get fails with
// the socket's text, the chunks before the reset stay on disk, the UDP
// channels go on, and reopening brings the command channel back.
TEST_F(FaultMatrix, APeerResetInTheMiddleOfAFileKeepsItsChunksAndTheOtherChannels) {
    const int simPort = orvtest::freePort();
    // The reply to the get (5 bytes) and two chunks of 518 go through.
    ResettingRelay relay(simPort, 5 + 2 * 518);
    start([simPort](SimConfig& c) { c.tcpPort = simPort; }, relay.port());
    std::string content;
    for (int i = 0; i < 3000; ++i) content += static_cast<char>('a' + i % 26);
    dir_.write("calib.txt", content);
    const std::string local = dir_.prefix() + "back.txt";
    const auto readLocal = [&] {
        std::ifstream in(local, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };

    Delivered d;
    EXPECT_TRUE(drainUntil(d, [&] { return !d.seen[index(Stream::Hub)].empty(); }));
    EXPECT_FALSE(access_.getFile("calib.txt", ORVACCESS_FILE_LOC_1, local));
    EXPECT_TRUE(relay.didReset());
    EXPECT_EQ(access_.getLastError(),
              "Error reading reply from orvRx: Error reading TCP port...Connection reset by peer");
    EXPECT_EQ(readLocal(), content.substr(0, 1024));

    // Streaming cannot be switched back on, and the next command says why.
    d.seen[index(Stream::Hub)].clear();
    d.seen[index(Stream::Nft)].clear();
    EXPECT_TRUE(drainUntil(
        d, [&] { return d.seen[index(Stream::Hub)].size() > 5 && !d.seen[index(Stream::Nft)].empty(); }));
    EXPECT_EQ(access_.getLastError(), "Failed to set streaming state");
    EXPECT_FALSE(access_.setRegister(100, 0x10, 7));
    EXPECT_EQ(access_.getLastError().rfind("Error writing command to orvRx: Error writing to socket...", 0),
              0u)
        << access_.getLastError();
    EXPECT_TRUE(consecutive(d.seen[index(Stream::Hub)]));
    EXPECT_GT(d.seen[index(Stream::Hub)].size(), 5u);
    EXPECT_FALSE(d.seen[index(Stream::Nft)].empty());
    EXPECT_EQ(damaged(d), 0);

    ASSERT_TRUE(access_.open()) << access_.getLastError();
    EXPECT_TRUE(access_.getFile("calib.txt", ORVACCESS_FILE_LOC_1, local)) << access_.getLastError();
    EXPECT_EQ(readLocal(), content);
    bool valid = false;
    s_OrvAccessTrkDataExt t{};
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!(access_.getTrackingData(&valid, &t) && valid) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(valid) << "streaming again after the reopen";
}

// ---- images ------------------------------------------------------------------------------

// The image producer stops in the middle of an image: the progress stays
// where it was, nothing else waits, and when it goes on the image arrives
// whole. A producer that starts over with a new image abandons the old one.
TEST_F(FaultMatrix, AnImageProducerThatStallsHoldsItsProgressAndStopsNothingElse) {
    start([](SimConfig&) {});
    const int port = ports_["udpOrvRxImgPort"];
    orvtest::UdpSender sender;
    const auto pieces = [](uint32_t seq) {
        Bytes pixels(kImageBytes);
        for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 13 + seq);
        return std::make_pair(pixels, buildImagePieces(seq, 10, pixels.data(), pixels.size(), kPieceBytes));
    };
    const auto [first, firstPieces] = pieces(41);
    const auto [third, thirdPieces] = pieces(43);
    const auto secondPieces = pieces(42).second;

    Delivered d;
    drain(d);  // switches streaming on, which restarts the image under way
    const int threePieces = static_cast<int>(3 * kPieceBytes * 100 / kImageBytes);
    for (size_t i = 0; i < 3; ++i) ASSERT_TRUE(sender.send(port, firstPieces[i]));
    EXPECT_TRUE(drainUntil(d, [&] { return d.lastPercent == threePieces; }));
    // Half a second's worth of hub data while the producer stalls.
    d.seen[index(Stream::Hub)].clear();
    EXPECT_TRUE(drainUntil(d, [&] { return d.seen[index(Stream::Hub)].size() >= 50; }));
    EXPECT_EQ(d.lastPercent, threePieces);
    EXPECT_TRUE(d.images.empty());
    EXPECT_GT(d.seen[index(Stream::Hub)].size(), 5u);
    EXPECT_TRUE(consecutive(d.seen[index(Stream::Hub)]));

    for (size_t i = 3; i < firstPieces.size(); ++i) ASSERT_TRUE(sender.send(port, firstPieces[i]));
    Bytes out(kImageBytes);
    int percent = 0;
    OrvAccess::ImageFormat format{};
    unsigned int seq = 0;
    ASSERT_TRUE(access_.getImage(&percent, &format, &seq, out.data(), out.size())) << access_.getLastError();
    EXPECT_EQ(percent, 100);
    EXPECT_EQ(seq, 41u);
    EXPECT_TRUE(out == first);

    // Half of 42, then 43 from its start: 43 arrives, 42 is dropped unreported.
    for (size_t i = 0; i < 3; ++i) ASSERT_TRUE(sender.send(port, secondPieces[i]));
    d.lastPercent = -1;
    EXPECT_TRUE(drainUntil(d, [&] { return d.lastPercent == threePieces; }));
    // Half at a time, so that no socket buffer overflows.
    for (size_t i = 0; i < 3; ++i) ASSERT_TRUE(sender.send(port, thirdPieces[i]));
    drain(d);
    for (size_t i = 3; i < thirdPieces.size(); ++i) ASSERT_TRUE(sender.send(port, thirdPieces[i]));
    ASSERT_TRUE(access_.getImage(&percent, &format, &seq, out.data(), out.size())) << access_.getLastError();
    EXPECT_EQ(percent, 100);
    EXPECT_EQ(seq, 43u);
    EXPECT_TRUE(out == third);
    drain(d);
    EXPECT_EQ(damaged(d), 0);
}

// The shared-memory producer stalls while it holds the region's semaphore:
// the library waits for it without limit, by design, and gets
// the image once the producer goes on. Both sides run in child processes so
// that a reader that never returns fails at a deadline instead of hanging.
TEST(SharedImageStall, TheReaderWaitsForTheProducerAndThenGetsItsImage) {
    using Clock = std::chrono::steady_clock;
    const std::string name = "orvatestfmstall" + std::to_string(getpid());
    orvtest::TempDir dir;
    const int ports[5] = {0, 0, orvtest::freePort(), 0, 0};
    const std::string ini =
        dir.write("orvaccess.ini", orvtest::receiverIni(ports, "sMemImgName = " + name + "\n"));
    constexpr size_t kHeader = 6;

    int held[2], goOn[2], done[2], asking[2];
    ASSERT_EQ(pipe(asking), 0);
    ASSERT_EQ(pipe(held), 0);
    ASSERT_EQ(pipe(goOn), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t producer = fork();
    if (producer == 0) {
        OrvosiSharedMem region(name.c_str(), static_cast<unsigned int>(kHeader + kImageBytes));
        auto* p = static_cast<unsigned char*>(region.get());
        char c = p != nullptr ? 1 : 0;
        if (write(held[1], &c, 1) != 1 || p == nullptr || read(goOn[0], &c, 1) != 1) _exit(1);
        p[1] = 7, p[2] = p[3] = p[4] = 0, p[5] = 10;  // sequence id 7, format 10
        std::memset(p + kHeader, 0x5A, kImageBytes);
        p[0] = 1;
        region.release();
        if (read(done[0], &c, 1) != 1) _exit(1);  // the semaphore's name lives as long as its creator
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(held[0], &c, 1), 1);
    ASSERT_EQ(c, 1);
    const pid_t reader = fork();
    if (reader == 0) {
        OrvAccess access;
        access.setIniPath(ini);
        if (!access.open()) _exit(2);
        char one = 1;
        if (write(asking[1], &one, 1) != 1) _exit(2);
        Bytes image(kImageBytes);
        int percent = 0;
        e_OrvAccessImageFormat format{};
        unsigned int seq = 0;
        const bool ok = access.getImage(&percent, &format, &seq, image.data(), image.size());
        _exit(ok && percent == 100 && seq == 7 && image[kImageBytes - 1] == 0x5A ? 0 : 3);
    }
    // The reader blocks on the semaphore the producer holds: it sleeps in
    // the futex call, not ending, not spinning.
    ASSERT_EQ(read(asking[0], &c, 1), 1);
    const std::string syscallFile = "/proc/" + std::to_string(reader) + "/syscall";
    const std::string futex = std::to_string(SYS_futex) + " ";
    EXPECT_TRUE(orvtest::waitFor([&] { return orvtest::readText(syscallFile).rfind(futex, 0) == 0; }))
        << "the reader is in " << orvtest::readText(syscallFile);
    int status = 0;
    EXPECT_EQ(waitpid(reader, &status, WNOHANG), 0) << "the reader did not wait";
    ASSERT_EQ(write(goOn[1], &c, 1), 1);

    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    pid_t exited = 0;
    while ((exited = waitpid(reader, &status, WNOHANG)) == 0 && Clock::now() < deadline) usleep(10000);
    if (exited == 0) {
        kill(reader, SIGKILL);
        waitpid(reader, &status, 0);
    }
    EXPECT_TRUE(exited == reader && WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    ASSERT_EQ(write(done[1], &c, 1), 1);
    waitpid(producer, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int* fds : {held, goOn, done, asking}) close(fds[0]), close(fds[1]);
    shm_unlink(("/" + name).c_str());
    sem_unlink(("/" + name + "Sem").c_str());
}

}  // namespace
