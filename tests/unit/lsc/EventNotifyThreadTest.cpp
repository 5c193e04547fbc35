#include <cimcore/internal/lsc/EventNotifyThread.h>

#include "LscTestSupport.h"

namespace cimtest {
namespace {

using namespace std::chrono_literals;

TEST(EventNotifyThreadTest, DestroyEndsTheLoopAndEachEventGivesOnce) {
    TCQueue queue;
    TCSemaphore notify;
    TCEventNotifyThread thread;
    ASSERT_TRUE(queue.Create());
    ASSERT_TRUE(notify.Create(0));
    ASSERT_TRUE(thread.Create("notify-idle", &queue, &notify, 0));  // waits without limit
    const auto start = Clock::now();
    EXPECT_TRUE(thread.Destroy());
    EXPECT_LT(Clock::now() - start, Scaled(1000ms));
    EXPECT_FALSE(thread.FlagRunning());
    // The wake-up unit either became one last notification or is still in
    // the queue's item count; drain both.
    notify.Poll();
    while (queue.Try(1)) {
    }

    // With a time-out, and events arriving.
    ASSERT_TRUE(thread.Create("notify", &queue, &notify, 50));
    EXPECT_FALSE(notify.Try(175)) << "a time-out without events gave";
    TSEvent event;
    for (uintptr_t number = 1; number <= 3; ++number) {
        event.word4 = number;
        ASSERT_TRUE(queue.Put(&event, false));
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(notify.Try(Scaled(2000ms).count())) << "notification " << i;
    }
    EXPECT_FALSE(notify.Try(60)) << "more notifications than events";
    // The reader takes the events itself, without the units the notify thread consumed.
    for (uintptr_t number = 1; number <= 3; ++number) {
        ASSERT_TRUE(queue.GetQData(&event)) << number;
        EXPECT_EQ(event.word4, number);
    }
    thread.Destroy();
    notify.Destroy();
    queue.Destroy();
}

}  // namespace
}  // namespace cimtest
