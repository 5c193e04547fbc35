#include <cimcore/internal/lsc/EventNotifyThread.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

unsigned long Ms(std::chrono::milliseconds ms) {
    return static_cast<unsigned long>(ms.count());
}

class EventNotifyThreadTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_queue.Create());
        ASSERT_TRUE(m_notify.Create(0));
    }
    void TearDown() override {
        if (m_thread.FlagCreate()) {
            m_thread.Destroy();
        }
        m_notify.Destroy();
        m_queue.Destroy();
    }

    void PutNumbered(uintptr_t number) {
        TSEvent event;
        event.word4 = number;
        ASSERT_TRUE(m_queue.Put(&event, false));
    }

    TCQueue m_queue;
    TCSemaphore m_notify;
    TCEventNotifyThread m_thread;
};

TEST_F(EventNotifyThreadTest, GivesOncePerEventAndLeavesTheEventsQueued) {
    ASSERT_TRUE(m_thread.Create("notify", &m_queue, &m_notify, 50));
    EXPECT_FALSE(m_notify.Try(175)) << "a time-out without events gave";
    for (uintptr_t number = 1; number <= 3; ++number) {
        PutNumbered(number);
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(m_notify.Try(Ms(cimtest::Scaled(2000ms)))) << "notification " << i;
    }
    EXPECT_FALSE(m_notify.Try(60)) << "more notifications than events";

    // The reader takes the events itself, in order, without the item count
    // that the notify thread has consumed.
    TSEvent event;
    for (uintptr_t number = 1; number <= 3; ++number) {
        ASSERT_TRUE(m_queue.GetQData(&event));
        EXPECT_EQ(event.word4, number);
    }
    EXPECT_FALSE(m_queue.GetQData(&event));
}

TEST_F(EventNotifyThreadTest, DestroyEndsTheLoopWhenNothingEverArrived) {
    for (unsigned int timeout : {0u, 10000u}) {
        SCOPED_TRACE(timeout);
        ASSERT_TRUE(m_thread.Create("notify-idle", &m_queue, &m_notify, timeout));
        const auto start = Clock::now();
        EXPECT_TRUE(m_thread.Destroy());
        EXPECT_LT(Clock::now() - start, cimtest::Scaled(1000ms));
        EXPECT_FALSE(m_thread.FlagRunning());
        // The wake-up unit either became one last notification or is still
        // in the queue's item count; drain both.
        m_notify.Poll();
        while (m_queue.Try(1)) {
        }
    }
}

}  // namespace
