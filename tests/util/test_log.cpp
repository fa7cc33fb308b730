// Diagnostic output of OrvUtil: text lines, hex dumps and the binary log
// files. The log streams are process-wide, so every test starts and ends
// with a reset.

#include "util/OrvUtil.hpp"

#include "osi/OrvosiUtil.hpp"
#include "support/TestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> filesIn(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void log(const std::string& bytes, unsigned int type, const std::string& path) {
    OrvUtil::logBuf(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), type, path);
}

std::string dump(const std::vector<unsigned char>& bytes, unsigned int type) {
    orvtest::CapturedStdout out;
    OrvUtil::dumpBuf(bytes.data(), bytes.size(), type);
    return out.text();
}

std::string groups(const std::vector<unsigned char>& bytes, std::size_t n) {
    std::string s;
    char g[4];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(g, sizeof g, "%02X ", bytes[i]);
        s += g;
    }
    return s;
}

class LogFiles : public testing::Test {
protected:
    void SetUp() override { OrvUtil::resetLogState(); }
    void TearDown() override { OrvUtil::resetLogState(); }
    orvtest::TempDir dir;
};

}  // namespace

TEST(TextLines, EachKindOnItsStreamUnderItsBitOnly) {
    {
        orvtest::CapturedStdout out;
        OrvUtil::infoLine(OrvUtil::kVerbInfo, "queue ", 7, " full");
        OrvUtil::infoLine(OrvUtil::kVerbLog | OrvUtil::kVerbErr, "hidden");
        EXPECT_EQ(out.text(), "ORVAINFO: queue 7 full\n");
    }
    {
        orvtest::CapturedStderr err;
        OrvUtil::logLine(OrvUtil::kVerbLog, "a", 1);
        OrvUtil::errLine(OrvUtil::kVerbErr, "b", 2);
        OrvUtil::logLine(OrvUtil::kVerbInfo | OrvUtil::kVerbErr, "hidden");
        OrvUtil::errLine(OrvUtil::kVerbInfo | OrvUtil::kVerbLog, "hidden");
        EXPECT_EQ(err.text(), "ORVALOG: a1\nORVAERR: b2\n");
    }
}

TEST(Dump, LineFormatTagsAndCut) {
    EXPECT_EQ(dump({0x01, 0xAB, 0xFF}, 0x1000), "ORVATRK: 01 AB FF \n");
    EXPECT_EQ(dump({}, 0x2000), "ORVAMETA: \n");
    EXPECT_EQ(dump({0x0A}, 0x10000), "ORVADUMP: 0A \n");
    EXPECT_EQ(dump({0x00}, 0x3), "ORVADUMP: 00 \n");  // two bits is no bit

    std::vector<unsigned char> big(250);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 7);
    EXPECT_EQ(dump(big, 0x4000), "ORVAIMG: " + groups(big, 200) + "...\n");
    big.resize(200);
    EXPECT_EQ(dump(big, 0x4000), "ORVAIMG: " + groups(big, 200) + "\n");
    big.resize(201);
    EXPECT_EQ(dump(big, 0x4000), "ORVAIMG: " + groups(big, 200) + "...\n");

    const std::pair<unsigned int, const char*> tags[] = {
        {0x10, "ORVATCPOUT"},  {0x20, "ORVATCPIN"},    {0x40, "ORVAUDPOUT"},    {0x100, "ORVATGT"},
        {0x200, "ORVAIMUCAM"}, {0x400, "ORVAIMUPLAT"}, {0x800, "ORVAPLATPOSE"}, {0x1000, "ORVATRK"},
        {0x2000, "ORVAMETA"},  {0x4000, "ORVAIMG"},    {0x8000, "ORVATGTRES"},  {0x20000, "ORVAHUB"},
        {0x40000, "ORVANFT"},  {0x80000, "ORVAPRA"},   {0x1, "ORVADUMP"},       {0x100000, "ORVADUMP"},
    };
    for (const auto& [type, tag] : tags) EXPECT_STREQ(OrvUtil::dumpTag(type), tag) << type;

    // A caller that left the stream in hex gets it back in decimal.
    orvtest::CapturedStdout out;
    std::cout << std::hex;
    OrvUtil::dumpBuf(big.data(), 1, 0x1000);
    std::cout << 255;
    EXPECT_EQ(out.text(), "ORVATRK: 00 \n255");
}

TEST_F(LogFiles, OpensOnceAppendsRawBytesAndSkipsUnknownChannels) {
    const std::string prefix = dir.prefix();
    std::ofstream(prefix + "orvaTrk.log", std::ios::binary) << "old";

    orvtest::CapturedStdout out;
    log(std::string("\x01\x0A\x00\xFF", 4), 1, prefix);
    log(std::string("\x00\x0D", 2), 1, prefix);
    for (unsigned int type : {0u, 3u, 1024u, 2048u, 32768u, 0xFFFFFFFFu}) log("x", type, prefix);
    EXPECT_EQ(out.text(), "ORVAMSG: Opened " + prefix + "orvaTrk.log\n");

    OrvUtil::logClose();
    EXPECT_EQ(readFile(prefix + "orvaTrk.log"), std::string("old\x01\x0A\x00\xFF\x00\x0D", 9));
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"orvaTrk.log"});
}

TEST_F(LogFiles, EachChannelToItsFile) {
    const std::string prefix = dir.prefix();
    {
        orvtest::CapturedStdout quiet;
        log("T", 1, prefix);
        log("M", 2, prefix);
        log("P", 4, prefix);
        log("H", 8, prefix);
        for (unsigned int type : {16u, 32u, 64u, 128u, 256u, 512u}) log("s", type, prefix);
        log("h", 4096, prefix);  // subpacket stream already open: lands in orvaSub.log
        log("N", 8192, prefix);
        log("R", 16384, prefix);
        quiet.text();
    }
    OrvUtil::resetLogState();
    EXPECT_EQ(readFile(prefix + "orvaTrk.log"), "T");
    EXPECT_EQ(readFile(prefix + "orvaMeta.log"), "M");
    EXPECT_EQ(readFile(prefix + "orvaPred.log"), "P");
    EXPECT_EQ(readFile(prefix + "orvaHarm.log"), "H");
    EXPECT_EQ(readFile(prefix + "orvaSub.log"), "ssssssh");
    EXPECT_EQ(readFile(prefix + "orvaNFT.log"), "N");
    EXPECT_EQ(readFile(prefix + "orvaPRA.log"), "R");
    EXPECT_EQ(filesIn(dir.path()).size(), 7u);
}

TEST_F(LogFiles, HubBeforeAnySubpacketOpensTheSubpacketStreamAsNft) {
    const std::string prefix = dir.prefix();
    orvtest::CapturedStdout out;
    log("h", 4096, prefix);
    log("s", 16, prefix);
    log("t", 512, prefix);
    EXPECT_EQ(out.text(), "ORVAMSG: Opened " + prefix + "orvaNFT.log\n");
    OrvUtil::logClose();
    EXPECT_EQ(readFile(prefix + "orvaNFT.log"), "hst");
    EXPECT_FALSE(fs::exists(prefix + "orvaSub.log"));
}

TEST_F(LogFiles, CloseReopensUnderNewPathButPraStaysWhereItWas) {
    orvtest::TempDir other;
    const std::string a = dir.prefix(), b = other.prefix();
    orvtest::CapturedStdout out;
    log("1", 1, a);
    log("r", 16384, a);
    OrvUtil::logClose();
    log("2", 1, b);
    log("R", 16384, b);
    EXPECT_EQ(out.text(), "ORVAMSG: Opened " + a + "orvaTrk.log\n" + "ORVAMSG: Opened " + a +
                              "orvaPRA.log\n" + "ORVAMSG: Opened " + b + "orvaTrk.log\n");
    OrvUtil::resetLogState();
    EXPECT_EQ(readFile(a + "orvaTrk.log"), "1");
    EXPECT_EQ(readFile(b + "orvaTrk.log"), "2");
    EXPECT_EQ(readFile(a + "orvaPRA.log"), "rR");
    EXPECT_FALSE(fs::exists(b + "orvaPRA.log"));
}

TEST_F(LogFiles, HarmonisationAtMostOncePer5000Ms) {
    const std::string prefix = dir.prefix();
    orvtest::CapturedStdout quiet;
    log("A", 8, prefix);  // last record at time 0: long ago
    log("B", 8, prefix);  // right after A
    OrvUtil::setLastHarmonisationMs(OrvosiUtil::getTimeMs() - 4000);
    log("C", 8, prefix);
    OrvUtil::setLastHarmonisationMs(OrvosiUtil::getTimeMs() - 6000);
    log("D", 8, prefix);
    log("E", 8, prefix);  // D restarted the gate
    quiet.text();
    OrvUtil::logClose();
    EXPECT_EQ(readFile(prefix + "orvaHarm.log"), "AD");
}

TEST_F(LogFiles, UnopenablePathSkippedSilentlyThenRetried) {
    const std::string prefix = (dir.path() / "later").string() + "/";
    orvtest::CapturedStdout out;
    log("lost", 2, prefix);
    ASSERT_TRUE(fs::create_directory(dir.path() / "later"));
    log("kept", 2, prefix);
    EXPECT_EQ(out.text(), "ORVAMSG: Opened " + prefix + "orvaMeta.log\n");
    OrvUtil::logClose();
    EXPECT_EQ(readFile(prefix + "orvaMeta.log"), "kept");
}

TEST(PacketCheckError, KeepsTheLastText) {
    OrvUtil::setLastError("Invalid size");
    EXPECT_EQ(OrvUtil::getLastError(), "Invalid size");
    OrvUtil::setLastError(nullptr);
    EXPECT_EQ(OrvUtil::getLastError(), "");
}
