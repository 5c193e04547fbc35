#include <cimcore/internal/lsc/Queue.h>

#include "LscTestSupport.h"

#include <gtest/gtest.h>

#include <future>

namespace {

using cimtest::Clock;
using cimtest::ElapsedMs;
using cimtest::MakeEvent;
using std::chrono::milliseconds;

// Only the address matters to the queue.
TCHandler* const kA = reinterpret_cast<TCHandler*>(0x1000);
TCHandler* const kB = reinterpret_cast<TCHandler*>(0x2000);

class QueueTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(queue.Create()); }
    void TearDown() override {
        if (queue.FlagCreate()) {
            queue.Destroy();
        }
    }

    void Put(TCHandler* receiver, unsigned long type, uintptr_t tag, bool priority = false) {
        TSEvent event = MakeEvent(receiver, type, tag);
        ASSERT_TRUE(queue.Put(&event, priority));
    }

    // Drains the queue without waiting and returns the tags in read order.
    std::vector<uintptr_t> Drain() {
        std::vector<uintptr_t> tags;
        TSEvent event;
        while (queue.GetSyncQData(&event, false)) {
            tags.push_back(event.word4);
        }
        return tags;
    }

    // Starts a synchronous put of `tag` for `receiver` and waits until it is
    // queued; the future is its result.
    std::future<bool> PutSyncInBackground(TCHandler* receiver, uintptr_t tag) {
        unsigned int before = 0;
        queue.Find(receiver, &before);
        auto result = std::async(std::launch::async, [this, receiver, tag] {
            TSEvent event = MakeEvent(receiver, EVENT_USER, tag);
            return queue.PutSync(&event, true, false);
        });
        EXPECT_TRUE(cimtest::WaitUntil([&] {
            unsigned int now = 0;
            return queue.Find(receiver, &now) && now == before + 1;
        })) << "the synchronous put never arrived";
        return result;
    }

    TCQueue queue;
};

TEST_F(QueueTest, PutSetsTheSenderAndKeepsPointersWhole) {
    int payload = 0;
    TSEvent event = MakeEvent(kA, 42, reinterpret_cast<uintptr_t>(&payload));
    event.replySem = reinterpret_cast<TCSemaphore*>(0x10);  // overwritten by the put
    auto sender = std::async(std::launch::async, [&] {
        queue.Put(&event, false);
        return pthread_self();
    });
    const pthread_t senderId = sender.get();
    TSEvent out;
    ASSERT_TRUE(queue.Get(&out, 100UL));
    EXPECT_EQ(out.replySem, nullptr);
    EXPECT_EQ(out.receiver, kA);
    EXPECT_EQ(out.sender, senderId);
    EXPECT_EQ(out.type, 42UL);
    EXPECT_EQ(reinterpret_cast<int*>(out.word4), &payload);
}

TEST_F(QueueTest, CapacityReserveAndPriorityOrder) {
    for (uintptr_t i = 0; i < 240; ++i) {
        Put(kA, EVENT_USER, i);
    }
    TSEvent event = MakeEvent(kA, EVENT_USER, 999);
    EXPECT_FALSE(queue.Put(&event, false)) << "240 queued refuse an ordinary put";
    for (uintptr_t i = 0; i < 16; ++i) {
        Put(kB, EVENT_USER, 1000 + i, true);
    }
    EXPECT_FALSE(queue.Put(&event, true)) << "256 queued refuse a priority put";
    EXPECT_FALSE(queue.Put(&event, false));
    EXPECT_FALSE(queue.PutSync(&event, true, true)) << "a refused sender must not block";
    unsigned int count = 0;
    EXPECT_TRUE(queue.Find(kB, EVENT_USER, &count) && count == 16u);

    // Priority events are read last-put first, all before the ordinary
    // ones, which keep their order.
    const std::vector<uintptr_t> tags = Drain();
    ASSERT_EQ(tags.size(), 256u);
    for (uintptr_t i = 0; i < 16; ++i) {
        EXPECT_EQ(tags[i], 1015 - i);
    }
    for (uintptr_t i = 0; i < 240; ++i) {
        ASSERT_EQ(tags[16 + i], i);
    }
    // The ring wraps cleanly after a full turn.
    Put(kA, EVENT_USER, 1);
    Put(kA, EVENT_USER, 2, true);
    EXPECT_EQ(Drain(), (std::vector<uintptr_t>{2, 1}));
}

TEST_F(QueueTest, BlockingAndNonBlockingReads) {
    TSEvent event;
    EXPECT_FALSE(queue.GetQData(&event));
    auto start = Clock::now();
    EXPECT_FALSE(queue.Get(&event, 60UL));
    EXPECT_GE(ElapsedMs(start), 58);
    EXPECT_LT(ElapsedMs(start), cimtest::Scaled(milliseconds(500)).count());

    // Timeout 0 waits until an event comes.
    auto reader = std::async(std::launch::async, [this] {
        TSEvent out;
        const bool got = queue.Get(&out, 0UL);
        return got ? out.word4 : uintptr_t(0);
    });
    EXPECT_EQ(reader.wait_for(milliseconds(50)), std::future_status::timeout);
    Put(kA, EVENT_USER, 77);
    EXPECT_EQ(reader.get(), 77u);

    // GetQData does not touch the item semaphore: the unit of an event read
    // that way stays for a waiting reader, which then finds no event and
    // waits on.
    Put(kA, EVENT_USER, 5);
    ASSERT_TRUE(queue.GetQData(&event));
    EXPECT_EQ(event.word4, 5u);
    EXPECT_TRUE(queue.Try(10));
    EXPECT_FALSE(queue.Try(10));
    queue.Give();
    EXPECT_FALSE(queue.Get(&event, 30UL));
}

TEST_F(QueueTest, SkippedSynchronousHeadStaysQueuedAndKeepsItsUnit) {
    auto sender = PutSyncInBackground(kA, 11);
    TSEvent event;
    const auto start = Clock::now();
    EXPECT_FALSE(queue.Get(&event, 100UL)) << "a synchronous head is skipped";
    EXPECT_LT(ElapsedMs(start), 90) << "the skip does not wait for the timeout";
    EXPECT_FALSE(queue.GetQData(&event));
    // The selective take never takes a synchronous event either.
    EXPECT_FALSE(queue.Get(&event, kA));

    // The unit consumed by the skip is not given back, as designed: a
    // blocking read now times out although the event is there.
    EXPECT_FALSE(queue.GetSync(&event, 30UL, false));
    ASSERT_TRUE(queue.GetSyncQData(&event, false));
    EXPECT_EQ(event.word4, 11u);
    ASSERT_NE(event.replySem, nullptr);
    EXPECT_EQ(sender.wait_for(milliseconds(30)), std::future_status::timeout)
        << "the sender waits until the event is executed";
    event.replySem->Give();
    EXPECT_TRUE(sender.get());
}

TEST_F(QueueTest, SelectiveTakeAndDeleteKeepTheOthersInOrder) {
    Put(kA, 1, 1);
    Put(kB, 1, 2);
    auto sender = PutSyncInBackground(kA, 3);
    for (uintptr_t tag = 4; tag <= 8; ++tag) {
        Put(tag % 2 ? kB : kA, 2, tag);
    }
    TSEvent event;
    ASSERT_TRUE(queue.Get(&event, kB));
    EXPECT_EQ(event.word4, 2u);
    ASSERT_TRUE(queue.Get(&event, kB, 2UL));
    EXPECT_EQ(event.word4, 5u);
    EXPECT_FALSE(queue.Get(&event, kB, 7UL));
    unsigned int removed = 99;
    EXPECT_TRUE(queue.DeleteEx(kA, 2UL, 2, &removed));  // 4 and 6
    EXPECT_EQ(removed, 2u);
    EXPECT_FALSE(queue.Delete(kB, 9UL, &removed));
    EXPECT_EQ(removed, 0u);
    EXPECT_TRUE(queue.Delete(kA, 1UL, nullptr));  // 1 and the synchronous 3
    EXPECT_TRUE(sender.get()) << "Delete releases the blocked sender";
    EXPECT_EQ(Drain(), (std::vector<uintptr_t>{7, 8}));
    // One unit went with each event removed: two remain for the two drained.
    EXPECT_TRUE(queue.Try(10) && queue.Try(10));
    EXPECT_FALSE(queue.Try(10));

    // A Delete with nothing left to take from the item semaphore (a reader
    // is between its wait and the mutex) must not block.
    Put(kA, 1, 9);
    Put(kA, 1, 10);
    ASSERT_TRUE(queue.Try(10));
    auto deleter = std::async(std::launch::async, [this] {
        unsigned int count = 0;
        queue.Delete(kA, &count);
        return count;
    });
    ASSERT_EQ(deleter.wait_for(cimtest::Scaled(milliseconds(1000))), std::future_status::ready);
    EXPECT_EQ(deleter.get(), 2u);
}

TEST_F(QueueTest, DestroyDiscardsEventsAndMisuseIsReported) {
    Put(kA, 1, 1);
    queue.Destroy();
    EXPECT_FALSE(queue.FlagCreate());

    cimtest::AssertRecorder recorder;
    TSEvent event;
    EXPECT_FALSE(queue.Put(&event, false));
    EXPECT_FALSE(queue.GetQData(&event));
    ASSERT_TRUE(queue.Create());
    EXPECT_FALSE(queue.GetQData(&event)) << "a new creation starts empty";
    EXPECT_FALSE(queue.Put(nullptr, false));
    EXPECT_FALSE(queue.Create());
    const auto expressions = recorder.Expressions();
    EXPECT_EQ(expressions, (std::vector<std::string>{"FlagCreate() == true", "FlagCreate() == true",
                                                     "event != NULL", "FlagCreate() == false"}));
}

}  // namespace
