// Error codes: the bounded queue, the message table and its fallbacks.
#include <gtest/gtest.h>

#include "orvaccess/OrvAccess.hpp"
#include "support/TestSupport.hpp"

TEST(ErrorCodes, QueueKeepsTheNewestAndSetsTheNewErrorFlag) {
    orvtest::TempDir dir;
    const int port = orvtest::freePort();
    OrvAccess a;
    a.setIniPath(dir.write("orvaccess.ini",
                           "[General]\nverbosity = 2\n"
                           "[Communication]\ntcpOrvRxEnabled = 0\nudpOrvRxPort = 0\n"
                           "udpOrvRxImgPort = 0\nudpOrvRxInputPort = 0\nudpNftPort = 0\n"
                           "sMemImgName =\nudpOrvCorePort = " +
                               std::to_string(port) + "\n[Memory]\nerrorCodeQueueSize = 3\n"));
    {
        orvtest::CapturedStdout quiet;
        ASSERT_TRUE(a.open());
        quiet.text();
    }

    orvtest::CapturedStdout out;
    for (unsigned short code : {ORVACCESS_ERR_BAD_TRACKING_PKT, ORVACCESS_ERR_BAD_IMAGE_PKT,
                                ORVACCESS_ERR_BAD_META_PKT, ORVACCESS_ERR_BAD_OPTICAL_SUBPKT})
        a.addErrorCode(code, code + 1000u);
    EXPECT_EQ(out.text(), "ORVAINFO: Error code queue overflow\n");

    s_OrvAccessStatus status{};
    ASSERT_TRUE(a.getStatus(&status));
    EXPECT_EQ(status.newError, 1u);
    ASSERT_TRUE(a.getStatus(&status));
    EXPECT_EQ(status.newError, 0u);

    s_OrvAccessErrorCode rec{};
    for (unsigned short expected :
         {ORVACCESS_ERR_BAD_IMAGE_PKT, ORVACCESS_ERR_BAD_META_PKT, ORVACCESS_ERR_BAD_OPTICAL_SUBPKT}) {
        EXPECT_EQ(a.getErrorCode(&rec), expected);
        EXPECT_EQ(rec.code, expected);
        EXPECT_EQ(rec.value, expected + 1000u);
    }
    // Empty: the code reads 0, the value is left as it was.
    rec.value = 42;
    EXPECT_EQ(a.getErrorCode(&rec), 0);
    EXPECT_EQ(rec.code, 0);
    EXPECT_EQ(rec.value, 42u);

    // A new open empties the queue.
    a.addErrorCode(ORVACCESS_ERR_BAD_TRACKING_PKT, 0);
    {
        orvtest::CapturedStdout quiet;
        ASSERT_TRUE(a.open());
        quiet.text();
    }
    EXPECT_EQ(a.getErrorCode(&rec), 0);
}

TEST(ErrorCodes, MessagesAndOriginFallbacks) {
    OrvAccess a;
    EXPECT_EQ(a.getErrorMessage(0), "None");
    EXPECT_EQ(
        a.getErrorMessage(2),
        "[ORVCORE] RESET: Received autoHarmonization start command - autoharmData.txt succesfully zeroized");
    EXPECT_EQ(a.getErrorMessage(19), "[ORVCORE] ERROR: Only receiving diagnostic packets");
    EXPECT_EQ(a.getErrorMessage(16), "[ORVCORE]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(0x1FF), "[ORVRX]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(0x102), "[ORVRX]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(0x2AA), "[ORVTX]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(ORVACCESS_ERR_OPTICAL_OVERRUN),
              "[ORVACCESS] ERROR: Optical subpacket overrun");
    EXPECT_EQ(a.getErrorMessage(ORVACCESS_ERR_BAD_GPS_SUBPKT), "[ORVACCESS]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(ORVACCESS_ERR_BAD_PRA_PKT), "[ORVACCESS]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(0x405), "[ORVHUB] ERROR: Error setting serial port attributes");
    EXPECT_EQ(a.getErrorMessage(1032), "[ORVHUB] ERROR: User pressed CTRL-C, orvHub now halted");
    EXPECT_EQ(a.getErrorMessage(0x4FF), "[ORVHUB]: Unknown error");
    EXPECT_EQ(a.getErrorMessage(0x500), "Unknown error from unknown origin");
    EXPECT_EQ(a.getErrorMessage(0xFFFF), "Unknown error from unknown origin");
}

TEST(ErrorCodes, LastErrorStaysUntilReplacedOrCleared) {
    OrvAccess a;
    EXPECT_EQ(a.getLastError(), "");
    EXPECT_FALSE(a.serviceUdp(false));
    EXPECT_EQ(a.getLastError(), "Unable to service UDP: Interface not open");
    EXPECT_EQ(a.getVersion(), "1.23.00");  // a success leaves it
    EXPECT_EQ(a.getLastError(), "Unable to service UDP: Interface not open");
    a.clearLastError();
    EXPECT_EQ(a.getLastError(), "");
}
