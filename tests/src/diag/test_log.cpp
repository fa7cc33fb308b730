// Diagnostic output of OrvUtil: text lines, hex dumps and the binary log
// files. The log streams are process-wide, so every test starts and ends
// with a reset.

#include "diag/OrvUtil.hpp"

#include "os/OrvosiUtil.hpp"
#include "support/TestSupport.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

std::string readFile(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void log(const std::string& bytes, unsigned int type, const std::string& path) {
    OrvUtil::logBuf(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), type, path);
}

std::string opened(const std::string& path) { return "ORVAMSG: Opened " + path + "\n"; }

class LogFiles : public testing::Test {
protected:
    void SetUp() override { OrvUtil::resetLogState(); }
    void TearDown() override { OrvUtil::resetLogState(); }
    orvtest::TempDir dir;
    const std::string prefix = dir.prefix();
};

}  // namespace

TEST(TextLinesAndDumps, PrefixesBitsTagsCutAndDecimalStream) {
    const std::vector<unsigned char> b = {0x01, 0xAB, 0xFF}, big(201, 0xAB);
    std::string groups;
    for (int i = 0; i < 200; ++i) groups += "AB ";
    orvtest::CapturedStdout out;
    orvtest::CapturedStderr err;
    // Each kind of line on its stream, under its own bit only.
    OrvUtil::infoLine(OrvUtil::kVerbInfo, "queue ", 7, " full");
    OrvUtil::infoLine(OrvUtil::kVerbLog | OrvUtil::kVerbErr, "hidden");
    OrvUtil::logLine(OrvUtil::kVerbLog, "a", 1);
    OrvUtil::errLine(OrvUtil::kVerbErr, "b", 2);
    OrvUtil::logLine(OrvUtil::kVerbInfo | OrvUtil::kVerbErr, "hidden");
    OrvUtil::errLine(OrvUtil::kVerbInfo | OrvUtil::kVerbLog, "hidden");
    std::cout << std::hex;  // a caller that left the stream in hex gets it back in decimal
    OrvUtil::dumpBuf(b.data(), 3, 0x1000);
    OrvUtil::dumpBuf(b.data(), 0, 0x2000);
    OrvUtil::dumpBuf(b.data(), 1, 0x10000);
    OrvUtil::dumpBuf(b.data(), 1, 0x3);  // two bits is no bit
    OrvUtil::dumpBuf(big.data(), 200, 0x4000);
    OrvUtil::dumpBuf(big.data(), 201, 0x4000);  // only the first 200 bytes show
    std::cout << 255;
    EXPECT_EQ(
        out.text(),
        "ORVAINFO: queue 7 full\nORVATRK: 01 AB FF \nORVAMETA: \nORVADUMP: 01 \nORVADUMP: 01 \nORVAIMG: " +
            groups + "\nORVAIMG: " + groups + "...\n255");
    EXPECT_EQ(err.text(), "ORVALOG: a1\nORVAERR: b2\n");

    const std::pair<unsigned int, const char*> tags[] = {
        {0x100, "ORVATGT"},   {0x200, "ORVAIMUCAM"}, {0x400, "ORVAIMUPLAT"}, {0x8000, "ORVATGTRES"},
        {0x20000, "ORVAHUB"}, {0x40000, "ORVANFT"},  {0x80000, "ORVAPRA"},   {0x100000, "ORVADUMP"}};
    for (const auto& [type, tag] : tags) EXPECT_STREQ(OrvUtil::dumpTag(type), tag) << type;
    OrvUtil::setLastError(nullptr);  // the packet-check text: null clears it
    EXPECT_EQ(OrvUtil::getLastError(), "");
}

TEST_F(LogFiles, EachChannelToItsFileOpenedOnceAndAppendedRaw) {
    dir.write("orvaTrk.log", "old");
    orvtest::CapturedStdout out;
    log(std::string("\x01\x0A\x00\xFF", 4), 1, prefix);
    // Hub packets (4096) go to the subpacket stream, already open here as
    // orvaSub.log; NFT packets (8192) to the hub stream, named orvaNFT.log.
    const std::pair<const char*, unsigned int> records[] = {
        {"T", 1},   {"M", 2},    {"P", 4},    {"H", 8},     {"s", 16},        {"s", 32},    {"s", 64},
        {"s", 128}, {"s", 256},  {"s", 512},  {"h", 4096},  {"N", 8192},      {"R", 16384}, {"x", 0},
        {"x", 3},   {"x", 1024}, {"x", 2048}, {"x", 32768}, {"x", 0xFFFFFFFF}};
    for (const auto& [bytes, type] : records) log(bytes, type, prefix);
    // Harmonisation records at most once per 5000 ms: H was long after time 0.
    log("B", 8, prefix);
    OrvUtil::setLastHarmonisationMs(OrvosiUtil::getTimeMs() - 4000);
    log("C", 8, prefix);
    OrvUtil::setLastHarmonisationMs(OrvosiUtil::getTimeMs() - 6000);
    log("D", 8, prefix);
    log("E", 8, prefix);  // D restarted the gate
    const std::string text = out.text();
    OrvUtil::resetLogState();

    std::string all, lines;  // in the order of opening
    for (const char* name :
         {"orvaTrk", "orvaMeta", "orvaPred", "orvaHarm", "orvaSub", "orvaNFT", "orvaPRA"}) {
        all += readFile(prefix + name + ".log") + "|";
        lines += opened(prefix + name + ".log");
    }
    EXPECT_EQ(all, "old\x01\x0A"s + '\0' + "\xFFT|M|P|HD|ssssssh|N|R|");
    EXPECT_EQ(text, lines);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 7);
}

TEST_F(LogFiles, CloseReopensUnderNewPathButPraStaysAndHubFirstOpensNft) {
    const std::string b = prefix + "later/";
    orvtest::CapturedStdout out;
    log("1", 1, prefix);
    log("r", 16384, prefix);
    OrvUtil::logClose();
    log("lost", 4096, b);  // the folder is not there yet: skipped silently, tried again next time
    ASSERT_TRUE(fs::create_directory(b));
    log("h", 4096, b);  // a hub packet before any subpacket opens the subpacket stream as orvaNFT.log
    log("s", 16, b);
    log("2", 1, b);
    log("R", 16384, b);
    EXPECT_EQ(out.text(), opened(prefix + "orvaTrk.log") + opened(prefix + "orvaPRA.log") +
                              opened(b + "orvaNFT.log") + opened(b + "orvaTrk.log"));
    OrvUtil::resetLogState();
    EXPECT_EQ(readFile(prefix + "orvaTrk.log") + readFile(b + "orvaTrk.log") + readFile(b + "orvaNFT.log"),
              "12hs");
    EXPECT_EQ(readFile(prefix + "orvaPRA.log"), "rR");
    EXPECT_FALSE(fs::exists(b + "orvaPRA.log") || fs::exists(b + "orvaSub.log"));
}
