// The bounded record queue: the oldest records make room, never the newest.
#include <vector>

#include "access/receive/RecordQueue.hpp"
#include "support/TestSupport.hpp"

namespace {

std::vector<int> drain(RecordQueue<int>& q) {
    std::vector<int> out;
    for (int v = 0; q.pop(&v);) out.push_back(v);
    return out;
}

TEST(RecordQueue, BoundBatchRoomOverflowLineAndWrap) {
    RecordQueue<int> q("Test queue overflow");
    q.setBound(3);
    for (int i = 1; i <= 5; ++i) q.push(i, 0);
    EXPECT_EQ(drain(q), (std::vector<int>{3, 4, 5}));
    q.setBound(0);  // taken as 1
    q.push(1, 0);
    q.push(2, 0);
    EXPECT_EQ(drain(q), (std::vector<int>{2}));

    q.setBound(10);
    for (int i = 1; i <= 6; ++i) q.push(i, 0);
    q.makeRoom(0, 4);  // three records and a closing one: afterwards size + 4 < 10
    EXPECT_EQ(q.size(), 5u);
    for (int i = 7; i <= 10; ++i) q.append(i);
    EXPECT_EQ(drain(q), (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 9, 10}));

    // The overflow line: once per call, and only under the info bit.
    q.setBound(4);
    for (int i = 0; i < 4; ++i) q.push(i, 0);
    orvtest::CapturedStdout out;
    q.push(4, 0x1 | 0x4);  // full, but no info bit: silent
    q.push(5, 0x2, "Other overflow");
    q.makeRoom(0x2, 5);  // a batch larger than the bound empties the queue rather than looping
    q.push(6, 0x2);      // room left: no line
    EXPECT_EQ(out.text(), "ORVAINFO: Other overflow\nORVAINFO: Test queue overflow\n");
    EXPECT_EQ(drain(q), (std::vector<int>{6}));

    // The ring wraps, then has to grow past its initial size, keeping the order.
    q.setBound(5000);
    for (int i = 0; i < 1000; ++i) q.push(i, 0);
    for (int i = 0, v = 0; i < 600; ++i) q.pop(&v);
    for (int i = 1000; i < 2000; ++i) q.push(i, 0);
    const std::vector<int> got = drain(q);
    ASSERT_EQ(got.size(), 1400u);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], static_cast<int>(600 + i));
}

}  // namespace
