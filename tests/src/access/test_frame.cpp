// The access object's frame through both interfaces: creation, identity
// texts and the bounded text copy of the C wrappers.
#include <gtest/gtest.h>

#include <cstring>

#include "orvaccess/OrvAccess.hpp"
#include "orvaccess/orvaccess.h"

TEST(AccessFrame, CTextCopyIsBoundedAndTerminated) {
    OrvAccess* h = OrvAccess_create();
    ASSERT_NE(h, nullptr);

    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(OrvAccess_getVersion(h, buf, 4), buf);
    EXPECT_STREQ(buf, "1.2");
    EXPECT_EQ(buf[4], 'x') << "wrote past len";

    EXPECT_STREQ(OrvAccess_getVersion(h, buf, 8), "1.23.00");
    // Exactly the text's length: the terminator takes the last character.
    EXPECT_STREQ(OrvAccess_getVersion(h, buf, 7), "1.23.0");
    EXPECT_STREQ(OrvAccess_getVersion(h, buf, 1), "");

    // A short text is padded with zeros up to len.
    std::memset(buf, 'x', sizeof buf);
    OrvAccess_getVersion(h, buf, sizeof buf);
    for (size_t i = 7; i < sizeof buf; ++i) EXPECT_EQ(buf[i], '\0') << i;

    char date[32];
    EXPECT_STREQ(OrvAccess_getBuildDate(h, date, sizeof date), "Sep 25 2017");
    OrvAccess_destroy(h);
}

TEST(AccessFrame, ClassAndClockAgree) {
    OrvAccess access;
    EXPECT_EQ(access.getVersion(), "1.23.00");
    EXPECT_EQ(access.getBuildDate(), "Sep 25 2017");
    const double beforeMs = OrvosiUtil_getTimeMs();
    const unsigned long us = access.getTimeUs();
    EXPECT_NEAR(static_cast<double>(us) / 1000.0, beforeMs, 50.0);
}
