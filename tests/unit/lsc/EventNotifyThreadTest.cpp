#include <cimcore/internal/lsc/EventNotifyThread.h>

#include "LscTestSupport.h"

namespace cimtest {
namespace {

using namespace std::chrono_literals;

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

    TCQueue m_queue;
    TCSemaphore m_notify;
    TCEventNotifyThread m_thread;
};

TEST_F(EventNotifyThreadTest, DestroyEndsTheLoopAndEachEventGivesOnce) {
    for (unsigned int timeout : {0u, 10000u}) {
        ASSERT_TRUE(m_thread.Create("notify-idle", &m_queue, &m_notify, timeout));
        const auto start = Clock::now();
        EXPECT_TRUE(m_thread.Destroy()) << timeout;
        EXPECT_LT(Clock::now() - start, Scaled(1000ms));
        EXPECT_FALSE(m_thread.FlagRunning());
        // The wake-up unit either became one last notification or is still
        // in the queue's item count; drain both.
        m_notify.Poll();
        while (m_queue.Try(1)) {
        }
    }

    // With a time-out, and events arriving.
    ASSERT_TRUE(m_thread.Create("notify", &m_queue, &m_notify, 50));
    EXPECT_FALSE(m_notify.Try(175)) << "a time-out without events gave";
    TSEvent event;
    for (uintptr_t number = 1; number <= 3; ++number) {
        event.word4 = number;
        ASSERT_TRUE(m_queue.Put(&event, false));
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(m_notify.Try(Scaled(2000ms).count())) << "notification " << i;
    }
    EXPECT_FALSE(m_notify.Try(60)) << "more notifications than events";
    // The reader takes the events itself, without the units the notify thread consumed.
    for (uintptr_t number = 1; number <= 3; ++number) {
        ASSERT_TRUE(m_queue.GetQData(&event)) << number;
        EXPECT_EQ(event.word4, number);
    }
}

}  // namespace
}  // namespace cimtest
