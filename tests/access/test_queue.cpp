// The bounded record queue: the oldest records make room, never the newest.
#include <vector>

#include "access/RecordQueue.hpp"
#include "support/TestSupport.hpp"

namespace {

std::vector<int> drain(RecordQueue<int>& q) {
    std::vector<int> out;
    for (int v = 0; q.pop(&v);) out.push_back(v);
    return out;
}

TEST(RecordQueue, FullQueueDropsTheOldest) {
    RecordQueue<int> q("Test queue overflow");
    q.setBound(3);
    for (int i = 1; i <= 5; ++i) q.push(i, 0);
    EXPECT_EQ(drain(q), (std::vector<int>{3, 4, 5}));

    q.setBound(0);
    EXPECT_EQ(q.bound(), 1u);
    q.push(1, 0);
    q.push(2, 0);
    EXPECT_EQ(drain(q), (std::vector<int>{2}));
}

TEST(RecordQueue, BatchMakesRoomForAllOfItAtOnce) {
    RecordQueue<int> q("Test queue overflow");
    q.setBound(10);
    for (int i = 1; i <= 6; ++i) q.push(i, 0);
    // Three records and a closing one: afterwards size + 4 < 10.
    q.makeRoom(0, 4);
    EXPECT_EQ(q.size(), 5u);
    for (int i = 7; i <= 10; ++i) q.append(i);
    EXPECT_EQ(drain(q), (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 9, 10}));

    // A batch larger than the bound empties the queue rather than looping.
    q.setBound(2);
    q.push(1, 0);
    q.makeRoom(0, 5);
    EXPECT_TRUE(q.empty());
}

TEST(RecordQueue, OverflowLineOncePerCallOnlyUnderInfoBit) {
    RecordQueue<int> q("Test queue overflow");
    q.setBound(4);
    for (int i = 0; i < 4; ++i) q.push(i, 0);
    {
        orvtest::CapturedStdout out;
        q.push(4, 0x1 | 0x4);
        EXPECT_EQ(out.text(), "");
    }
    {
        orvtest::CapturedStdout out;
        q.push(5, 0x2, "Other overflow");
        q.makeRoom(0x2, 3);  // drops every record, says so once
        EXPECT_TRUE(q.empty());
        EXPECT_EQ(out.text(), "ORVAINFO: Other overflow\nORVAINFO: Test queue overflow\n");
    }
    {
        orvtest::CapturedStdout out;
        q.push(6, 0x2);  // room left: no line
        EXPECT_EQ(out.text(), "");
    }
}

TEST(RecordQueue, GrowthKeepsOrderAcrossTheWrap) {
    RecordQueue<int> q("Test queue overflow");
    q.setBound(5000);
    int next = 0;
    for (; next < 1000; ++next) q.push(next, 0);
    int v = -1;
    for (int i = 0; i < 600; ++i) ASSERT_TRUE(q.pop(&v));
    // The ring wraps, then has to grow past its initial size.
    for (; next < 2000; ++next) q.push(next, 0);
    const std::vector<int> got = drain(q);
    ASSERT_EQ(got.size(), 1400u);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], static_cast<int>(600 + i));
}

}  // namespace
