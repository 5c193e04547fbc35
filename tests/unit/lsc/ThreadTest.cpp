#include <cimcore/internal/lsc/Thread.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

long ElapsedMs(Clock::time_point from, Clock::time_point to) {
    return static_cast<long>(std::chrono::duration_cast<milliseconds>(to - from).count());
}

int NiceOf(int tid) {
    errno = 0;
    return getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
}

// A thread whose body records what it sees and then waits for the test.
class GatedThread : public TCThread {
public:
    GatedThread() {
        m_gate.Create(0);
        m_started.Create(0);
    }
    ~GatedThread() override {
        m_gate.Destroy();
        m_started.Destroy();
    }
    void WaitStarted() { m_started.Take(); }
    void Release() { m_gate.Give(); }

    std::atomic<bool> destroyItself{false};
    std::atomic<bool> destroyResult{true};
    pthread_t bodyId = 0;
    std::string kernelName;

protected:
    int t_Main() override {
        bodyId = pthread_self();
        char name[17] = {};
        prctl(PR_GET_NAME, name, 0, 0, 0);
        kernelName = name;
        if (destroyItself) {
            destroyResult = Destroy();
        }
        m_started.Give();
        m_gate.Take();
        return 0;
    }

private:
    TCSemaphore m_gate;
    TCSemaphore m_started;
};

TEST(SemaphoreTest, UnlimitedTryBlocksUntilGivenAndCountsAccumulate) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));

    std::atomic<bool> returned{false};
    auto waiter = std::async(std::launch::async, [&] {
        const bool result = semaphore.Try(0);
        returned = true;
        return result;
    });
    EXPECT_EQ(waiter.wait_for(milliseconds(50)), std::future_status::timeout);
    EXPECT_FALSE(returned);
    semaphore.Give();
    EXPECT_TRUE(waiter.get());

    // Gives without a waiter are kept, without ceiling.
    for (int i = 0; i < 3; ++i) {
        semaphore.Give();
    }
    const auto start = Clock::now();
    EXPECT_TRUE(semaphore.Try(1000));
    semaphore.Take();
    EXPECT_TRUE(semaphore.Try(0));
    EXPECT_LT(ElapsedMs(start, Clock::now()), 100);
    EXPECT_FALSE(semaphore.Poll());
    semaphore.Destroy();

    // A semaphore is created again after Destroy, with the new count.
    ASSERT_TRUE(semaphore.Create(1));
    EXPECT_TRUE(semaphore.Poll());
    semaphore.Destroy();
}

TEST(SemaphoreTest, TimedTryFailsAfterTheTimeout) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    for (unsigned long timeout : {30UL, 120UL}) {
        const auto start = Clock::now();
        EXPECT_FALSE(semaphore.Try(timeout));
        const long elapsed = ElapsedMs(start, Clock::now());
        EXPECT_GE(elapsed, long(timeout) - 2) << timeout;
        EXPECT_LT(elapsed, cimtest::Scaled(milliseconds(timeout + 800)).count()) << timeout;
    }
    semaphore.Destroy();
}

TEST(SemaphoreTest, OvertakenTimedTryStartsItsFullTimeoutAgain) {
    constexpr long kTimeout = 200;
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));

    // The give wakes the waiter, but this thread takes the unit back at
    // once; the waiter usually loses that race. When it wins the attempt
    // proves nothing and is repeated.
    bool overtaken = false;
    for (int attempt = 0; attempt < 5 && !overtaken; ++attempt) {
        Clock::time_point waiterStart;
        auto waiter = std::async(std::launch::async, [&] {
            waiterStart = Clock::now();
            const bool result = semaphore.Try(kTimeout);
            return std::make_pair(result, Clock::now());
        });
        std::this_thread::sleep_for(milliseconds(80));  // the give arrives mid-wait
        const auto giveTime = Clock::now();
        semaphore.Give();
        overtaken = semaphore.Poll();
        const auto outcome = waiter.get();
        if (!overtaken) {
            EXPECT_TRUE(outcome.first);
            continue;
        }
        EXPECT_FALSE(outcome.first);
        ASSERT_LT(waiterStart, giveTime);
        // Without the restart it would end kTimeout after its start, about
        // 120 ms after the give.
        EXPECT_GE(ElapsedMs(giveTime, outcome.second), kTimeout - 5);
        EXPECT_LT(ElapsedMs(giveTime, outcome.second),
                  cimtest::Scaled(milliseconds(kTimeout + 800)).count());
    }
    EXPECT_TRUE(overtaken) << "the waiter won every race; nothing was shown";
    semaphore.Destroy();
}

TEST(SemaphoreTest, DestroyWithABlockedWaiterDoesNotFreezeOthers) {
    static TCSemaphore abandoned;  // its waiter never returns
    ASSERT_TRUE(abandoned.Create(0));
    std::promise<void> waiting;
    std::thread([&waiting] {
        waiting.set_value();
        abandoned.Take();
    }).detach();
    waiting.get_future().wait();
    std::this_thread::sleep_for(milliseconds(20));  // let it reach the wait

    abandoned.Destroy();
    EXPECT_FALSE(abandoned.FlagCreate());

    // Every semaphore shares TimeMutex: the others still work.
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    other.Give();
    EXPECT_TRUE(other.Try(50));
    other.Destroy();
}

TEST(SemaphoreTest, MisuseIsReported) {
    cimtest::AssertRecorder recorder;
    {
        TCSemaphore never;
        never.Give();
        never.Take();
        EXPECT_FALSE(never.Try(10));
        EXPECT_FALSE(never.Try(0));
    }
    EXPECT_EQ(recorder.Count(), 4u);
    {
        TCSemaphore twice;
        ASSERT_TRUE(twice.Create(0));
        EXPECT_FALSE(twice.Create(0));
        twice.Give();
        EXPECT_TRUE(twice.Poll());  // the first creation was kept
        // Left created: the destructor reports it.
    }
    {
        TCMutex mutex;
        ASSERT_TRUE(mutex.Create());
        // A created mutex may be deleted silently.
    }
    const auto expressions = recorder.Expressions();
    ASSERT_EQ(expressions.size(), 6u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(expressions[i], "FlagCreate() == true");
    }
    EXPECT_EQ(expressions[4], "FlagCreate() == false");
    EXPECT_EQ(expressions[5], "FlagCreate() == false");
}

TEST(MutexTest, RecursiveForTheOwnerRefusedToOthers) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    mutex.Lock();
    mutex.Lock();  // must not block

    std::atomic<bool> locked{false};
    auto other = std::async(std::launch::async, [&] {
        const bool unlockedForeign = mutex.Unlock();
        mutex.Lock();
        locked = true;
        return unlockedForeign;
    });
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ(other.wait_for(milliseconds(50)), std::future_status::timeout);
    EXPECT_FALSE(locked);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_FALSE(other.get()) << "an Unlock by a thread that never locked must be refused";
    EXPECT_TRUE(locked);
    EXPECT_FALSE(mutex.Unlock()) << "the other thread holds it now";
    mutex.Destroy();
}

TEST(MutexTest, AutoSemLockHoldsOneUnitForItsScope) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(1));
    {
        CIM::TCAutoSemLock lock(&semaphore);
        EXPECT_FALSE(semaphore.Poll());
    }
    EXPECT_TRUE(semaphore.Poll());
    EXPECT_FALSE(semaphore.Poll());
    semaphore.Destroy();
}

TEST(ThreadTest, RunsBodyNamedAndEndsWithIdReset) {
    GatedThread thread;
    EXPECT_FALSE(thread.FlagCreate());
    ASSERT_TRUE(thread.Create("a-name-of-20-chars!!", 256 * 1024));
    EXPECT_TRUE(thread.FlagCreate());
    thread.WaitStarted();
    EXPECT_STREQ(thread.Name(), "a-name-of-20-ch");
    EXPECT_EQ(thread.kernelName, "a-name-of-20-ch");
    EXPECT_EQ(thread.bodyId, thread.Id());
    EXPECT_GT(thread.Tid(), 0);
    EXPECT_NE(thread.Tid(), static_cast<int>(::syscall(SYS_gettid)));

    thread.Release();
    EXPECT_TRUE(thread.Destroy());
    EXPECT_FALSE(thread.FlagCreate());
    EXPECT_EQ(thread.Id(), static_cast<pthread_t>(-1));

    // A stack size the system refuses leaves the default stack.
    GatedThread small;
    ASSERT_TRUE(small.Create("tiny", 512));
    small.WaitStarted();
    small.Release();
    EXPECT_TRUE(small.Destroy());
}

TEST(ThreadTest, SetPriorityMapsToNiceValues) {
    GatedThread thread;
    ASSERT_TRUE(thread.Create("prio", 0));
    // SetPriority waits for the kernel id itself.
    EXPECT_TRUE(thread.SetPriority(2));
    EXPECT_EQ(NiceOf(thread.Tid()), 10);
    EXPECT_FALSE(thread.SetPriority(3));
    EXPECT_FALSE(thread.SetPriority(-1));
    EXPECT_EQ(NiceOf(thread.Tid()), 10);
    thread.Release();
    EXPECT_TRUE(thread.Destroy());

    auto self = std::async(std::launch::async, [] {
        const int tid = static_cast<int>(::syscall(SYS_gettid));
        const bool refused = !TCThreadSelf::SetPriority(7);
        const int untouched = NiceOf(tid);
        const bool lowered = TCThreadSelf::SetPriority(2);
        EXPECT_EQ(TCThreadSelf::Id(), pthread_self());
        return std::make_tuple(refused, untouched, lowered, NiceOf(tid));
    });
    const auto result = self.get();
    EXPECT_TRUE(std::get<0>(result));
    EXPECT_EQ(std::get<1>(result), 0);
    EXPECT_TRUE(std::get<2>(result));
    EXPECT_EQ(std::get<3>(result), 10);
}

TEST(ThreadTest, RaisedPriorityNeedsThePrivilege) {
    GatedThread thread;
    ASSERT_TRUE(thread.Create("raised", 0));
    const bool raised = thread.SetPriority(0);
    const int nice = NiceOf(thread.Tid());
    thread.Release();
    EXPECT_TRUE(thread.Destroy());
    if (!raised) {
        GTEST_SKIP() << "setpriority(-10) refused (" << std::strerror(errno)
                     << "): the process lacks CAP_SYS_NICE";
    }
    EXPECT_EQ(nice, -10);
}

TEST(ThreadTest, ThreadCannotDestroyItself) {
    cimtest::LogCapture log;
    cimtest::AssertRecorder recorder;
    GatedThread thread;
    thread.destroyItself = true;
    ASSERT_TRUE(thread.Create("selfish", 0));
    thread.WaitStarted();
    EXPECT_FALSE(thread.destroyResult);
    EXPECT_TRUE(thread.FlagCreate()) << "the refused Destroy leaves the thread created";
    ASSERT_GE(recorder.Count(), 1u);
    EXPECT_EQ(recorder.Expressions()[0], "TCThreadSelf::Id() != Id()");
    EXPECT_EQ(log.Count("Thread.cpp: Destroy("), 1u);
    EXPECT_EQ(log.Count("> Assert Error : Current Thread can't destroy itself"), 1u);

    thread.Release();
    EXPECT_TRUE(thread.Destroy());
    EXPECT_FALSE(thread.FlagCreate());
}

}  // namespace
