#include <cimcore/internal/lsc/Queue.h>

#include "LscTestSupport.h"

#include <csignal>
#include <cstdlib>

#include <unistd.h>

namespace cimtest {
namespace {

// Only the address matters to the queue.
TCHandler* const kA = reinterpret_cast<TCHandler*>(0x1000);
TCHandler* const kB = reinterpret_cast<TCHandler*>(0x2000);

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(queue.Create()); }
    void TearDown() override { queue.Destroy(); }

    bool Put(TCHandler* receiver, unsigned long type, uintptr_t tag, bool priority = false) {
        TSEvent event = MakeEvent(receiver, type, tag);
        return queue.Put(&event, priority);
    }

    // A synchronous put of `tag` for kA, returned once it is queued.
    std::future<bool> PutSyncInBackground(uintptr_t tag) {
        auto result = std::async(std::launch::async, [this, tag] {
            TSEvent event = MakeEvent(kA, EVENT_USER, tag);
            return queue.PutSync(&event, true, false);
        });
        EXPECT_TRUE(WaitUntil([this] { return queue.Find(kA, EVENT_USER, nullptr); }));
        return result;
    }

    TCQueue queue;
};

TEST_F(QueueTest, CapacityReserveAndPriorityOrder) {
    // From 240 queued on, an ordinary put is refused and a priority put is not.
    for (uintptr_t i = 0; i < 256; ++i) {
        ASSERT_EQ(Put(kA, EVENT_USER, 16 + i), i < 240) << i;
        ASSERT_TRUE(i < 240 || Put(kB, EVENT_USER, 255 - i, true)) << i;
    }
    TSEvent event;
    EXPECT_FALSE(queue.Put(&event, true)) << "256 queued refuse a priority put";
    EXPECT_FALSE(queue.PutSync(&event, true, false)) << "a refused sender must not block";

    // Priority events are read last-put first, all before the ordinary ones.
    uintptr_t expected = 0;
    for (; queue.GetSyncQData(&event, false); ++expected) {
        ASSERT_EQ(event.word4, expected);
    }
    EXPECT_EQ(expected, 256u);
}

// A unit consumed by a skipped synchronous head is not given back, as designed.
// (A plain timed read's time-out is the task test's idle time.)
TEST_F(QueueTest, ASkippedSynchronousHeadKeepsItsUnit) {
    TSEvent event;
    auto sender = PutSyncInBackground(11);
    const auto start = Clock::now();
    EXPECT_FALSE(queue.Get(&event, 100UL)) << "a synchronous head is skipped";
    EXPECT_LT(Since(start), std::chrono::milliseconds(90)) << "the skip does not wait";
    EXPECT_FALSE(queue.Get(&event, kA)) << "nor taken selectively";
    EXPECT_FALSE(queue.GetSync(&event, 30UL, false)) << "the skip's unit came back";
    EXPECT_TRUE(queue.Delete(kA, nullptr)) << "the head is still queued";
    EXPECT_TRUE(sender.get());
}

TEST_F(QueueTest, SelectiveTakeAndDeleteKeepTheOthersInOrder) {
    ASSERT_TRUE(Put(kA, 5, 1));
    ASSERT_TRUE(Put(kB, 5, 2));
    auto sender = PutSyncInBackground(3);
    for (uintptr_t tag = 4; tag <= 8; ++tag) {
        ASSERT_TRUE(Put(tag % 2 ? kB : kA, 6, tag));
    }
    TSEvent event;
    ASSERT_TRUE(queue.Get(&event, kB));
    EXPECT_EQ(event.word4, 2u);
    ASSERT_TRUE(queue.Get(&event, kB, 6UL));
    EXPECT_EQ(event.word4, 5u);
    unsigned int removed = 99;
    EXPECT_TRUE(queue.DeleteEx(kA, 6UL, 2, &removed));  // 4 and 6
    EXPECT_EQ(removed, 2u);
    EXPECT_TRUE(queue.Delete(kA, nullptr));  // 1, the synchronous 3 and 8
    EXPECT_TRUE(sender.get()) << "Delete releases the blocked sender";
    ASSERT_TRUE(queue.GetSyncQData(&event, false));
    EXPECT_EQ(event.word4, 7u);
    EXPECT_FALSE(queue.GetSyncQData(&event, false)) << "more than 7 was left";
    // One unit went with each event removed: one remains for the one drained.
    EXPECT_TRUE(queue.Try(10));
    EXPECT_FALSE(queue.Try(10));

    // A reader between its wait and the mutex has taken a unit already: the
    // Delete takes what is left instead of waiting for ever under the mutex.
    ASSERT_TRUE(Put(kA, 5, 9));
    ASSERT_TRUE(Put(kA, 5, 10));
    ASSERT_TRUE(queue.Try(10));
    unsigned int count = 0;
    EXPECT_TRUE(queue.Delete(kA, &count));
    EXPECT_EQ(count, 2u);
}

}  // namespace

// Destroying a queue drops its events without releasing their synchronous
// senders: a sender still queued then waits for ever (here, until the alarm).
TEST_F(QueueTest, DestroyLeavesAQueuedSynchronousSenderWaiting) {
    EXPECT_EXIT(
        {
            ::alarm(1);
            std::future<bool> sender = PutSyncInBackground(7);
            queue.Destroy();
            sender.wait();
            std::_Exit(0);
        },
        ::testing::KilledBySignal(SIGALRM), "");
}

}  // namespace cimtest
