// One access object per thread: two objects on two threads, each on its own
// ports, each fed good and damaged tracking datagrams while both write text
// lines and the one tracking log file the process shares. Each object must
// see exactly its own records and codes, each thread its own framing-check
// text, and no line or log record may be broken by the other thread.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvaccess/OrvAccess.hpp"
#include "os/OrvosiUtil.hpp"
#include "orvsim/Wire.hpp"
#include "support/TestSupport.hpp"
#include "diag/OrvUtil.hpp"

namespace {

using orvtest::Bytes;

constexpr unsigned int kRounds = 300;

// What sets one thread's traffic apart from the other's.
struct Side {
    uint32_t tagBase;      // packet tags of its good datagrams: tagBase + round
    unsigned char relay;   // the orvCore status code its good datagrams carry
    bool damageSize;       // its damaged datagrams: one byte too long, or one byte changed
    const char* reason;    // the framing check's text for that damage
};

constexpr Side kSides[2] = {{0x10000, 6, true, "Invalid size"}, {0x20000, 8, false, "Invalid checksum"}};

Bytes goodDatagram(const Side& side, uint32_t round) {
    s_OrvAccessTrkDataExt rec{};
    rec.packetTag = side.tagBase + round;
    rec.errorCodes[0] = side.relay;
    return orvsim::buildTracking(rec);
}

Bytes damagedDatagram(const Side& side, uint32_t round) {
    Bytes b = goodDatagram(side, round);
    if (side.damageSize)
        b.push_back(0);
    else
        b[20] ^= 0x10;
    return b;
}

// What one thread saw; compared on the main thread.
struct Seen {
    std::string openError;
    std::vector<uint32_t> tags;
    std::vector<std::pair<unsigned short, unsigned int>> codes;
    std::vector<std::string> checkTexts;  // the framing-check text after each damaged datagram
    bool timedOut = false;
};

// Sends one good and one damaged datagram per round and services its object
// until both have come through, on the calling thread.
void run(const Side& side, const std::string& ini, int corePort, std::atomic<int>& starting, Seen& seen) {
    OrvAccess access;
    access.setIniPath(ini);
    // Both threads start their traffic together, so that their work overlaps.
    starting.fetch_sub(1);
    while (starting.load() > 0) std::this_thread::yield();
    if (!access.open()) {
        seen.openError = access.getLastError();
        return;
    }
    orvtest::UdpSender sender;
    // A guard against a hang only: the rounds wait for their datagrams, not for a time.
    const uint64_t deadlineUs = OrvosiUtil::getTimeSysUs() + 120'000'000u;
    for (uint32_t round = 0; round < kRounds && !seen.timedOut; ++round) {
        sender.send(corePort, goodDatagram(side, round));
        sender.send(corePort, damagedDatagram(side, round));
        size_t bad = 0;
        while (seen.tags.size() <= round || bad == 0) {
            bool valid = false;
            s_OrvAccessTrkDataExt rec{};
            while (access.getTrackingData(&valid, &rec) && valid) seen.tags.push_back(rec.packetTag);
            s_OrvAccessErrorCode e{};
            while (access.getErrorCode(&e) != 0) {
                seen.codes.emplace_back(e.code, e.value);
                if (e.code == ORVACCESS_ERR_BAD_TRACKING_PKT) {
                    ++bad;
                    seen.checkTexts.push_back(OrvUtil::getLastError());
                }
            }
            if (OrvosiUtil::getTimeSysUs() > deadlineUs) {
                seen.timedOut = true;
                break;
            }
            bool ready = false;
            if (seen.tags.size() <= round || bad == 0) access.waitUdp(100, &ready);
        }
    }
    access.close();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

size_t count(const std::vector<std::string>& all, const std::string& line) {
    size_t n = 0;
    for (const std::string& l : all) n += l == line ? 1 : 0;
    return n;
}

// A line is whole when it holds one prefix, at its start.
bool whole(const std::string& line) { return line.rfind("ORVA", 0) == 0 && line.find("ORVA", 1) == std::string::npos; }

TEST(Threads, TwoObjectsOnTwoThreadsEachSeeOnlyTheirOwn) {
    OrvUtil::resetLogState();
    orvtest::TempDir dir;
    std::string ini[2];
    int core[2] = {};
    for (int i = 0; i < 2; ++i) {
        int port[5] = {};
        for (int& p : port) p = orvtest::freePort();
        core[i] = port[orvtest::kCore];
        // Information and log lines on, the tracking log channel into the one folder.
        ini[i] = dir.write("side" + std::to_string(i) + ".ini",
                           orvtest::receiverIni(port, "[General]\nverbosity = 3\nlogging = 1\nlogPath = " +
                                                          dir.prefix() + "\n"));
    }

    Seen seen[2];
    std::string out, err;
    {
        orvtest::CapturedStdout capturedOut;
        orvtest::CapturedStderr capturedErr;
        std::atomic<int> starting{2};
        std::thread a(run, std::cref(kSides[0]), ini[0], core[0], std::ref(starting), std::ref(seen[0]));
        std::thread b(run, std::cref(kSides[1]), ini[1], core[1], std::ref(starting), std::ref(seen[1]));
        a.join();
        b.join();
        err = capturedErr.text();
        out = capturedOut.text();
    }
    OrvUtil::resetLogState();

    for (int i = 0; i < 2; ++i) {
        const Side& side = kSides[i];
        SCOPED_TRACE(side.reason);
        ASSERT_EQ(seen[i].openError, "");
        ASSERT_FALSE(seen[i].timedOut) << "got " << seen[i].tags.size() << " of " << kRounds << " records";
        std::vector<uint32_t> tags;
        std::vector<std::pair<unsigned short, unsigned int>> codes;
        for (uint32_t r = 0; r < kRounds; ++r) {
            tags.push_back(side.tagBase + r);
            codes.emplace_back(side.relay, side.tagBase + r);
            codes.emplace_back(ORVACCESS_ERR_BAD_TRACKING_PKT, 0);
        }
        EXPECT_EQ(seen[i].tags, tags);
        EXPECT_EQ(seen[i].codes, codes);
        ASSERT_EQ(seen[i].checkTexts.size(), kRounds);
        EXPECT_EQ(std::count(seen[i].checkTexts.begin(), seen[i].checkTexts.end(), side.reason), kRounds)
            << "the framing-check text of the other thread";
    }

    // Standard output: every information line whole, one per datagram.
    const std::vector<std::string> outLines = lines(out);
    for (const std::string& l : outLines) EXPECT_TRUE(whole(l)) << l;
    EXPECT_EQ(count(outLines, "ORVAINFO: Received orvCore packet, size 332"), 2 * kRounds + kRounds);
    EXPECT_EQ(count(outLines, "ORVAINFO: Received orvCore packet, size 333"), kRounds);
    // The log stream: every line whole, each damaged datagram's line with its own thread's reason.
    const std::vector<std::string> errLines = lines(err);
    for (const std::string& l : errLines) EXPECT_TRUE(whole(l)) << l;
    for (const Side& side : kSides)
        EXPECT_EQ(count(errLines, std::string("ORVALOG: Problem with orvCore packet: ") + side.reason), kRounds);

    // The shared log file: good datagrams only, each record whole, each
    // thread's records in the order it sent them.
    std::ifstream file(dir.path() / "orvaTrk.log", std::ios::binary);
    const Bytes log{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::vector<uint32_t> logged[2];
    size_t at = 0;
    while (at + ORVWIRE_HEADER_SIZE <= log.size()) {
        const unsigned char* rec = &log[at];
        const size_t length = OrvosiUtil::word16(rec + 1);
        ASSERT_EQ(rec[0], ORVWIRE_START_TRACKING) << "at byte " << at;
        ASSERT_EQ(length, static_cast<size_t>(ORVWIRE_TRACKING_SIZE)) << "at byte " << at;
        ASSERT_LE(at + length, log.size());
        ASSERT_EQ(OrvosiUtil::checksum(rec, length), 0) << "at byte " << at;
        const uint32_t tag = OrvosiUtil::word32(rec + ORVWIRE_HEADER_SIZE);  // the tag follows the header
        logged[tag >= kSides[1].tagBase ? 1 : 0].push_back(tag);
        at += length;
    }
    EXPECT_EQ(at, log.size());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(logged[i].size(), kRounds) << "records lost from the log file";
        EXPECT_EQ(logged[i], seen[i].tags);
    }
}

}  // namespace
