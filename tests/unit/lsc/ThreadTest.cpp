#include <cimcore/internal/lsc/Thread.h>

#include "LscTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <string>
#include <tuple>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using cimtest::Clock;
using cimtest::ElapsedMs;

int NiceOf(int tid) {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
}
int OwnTid() {
    return static_cast<int>(::syscall(SYS_gettid));
}

// A thread whose body notes what it sees and then waits for Release.
class GatedThread : public TCThread {
public:
    void WaitStarted() { m_started.wait(); }
    void Release() { m_release.set_value(); }

    std::atomic<bool> destroyItself{false};
    bool destroyResult = true;  // all three written before the start is told
    pthread_t bodyId = 0;
    char kernelName[17] = {};

protected:
    int t_Main() override {
        bodyId = pthread_self();
        prctl(PR_GET_NAME, kernelName, 0, 0, 0);
        if (destroyItself) {
            destroyResult = Destroy();
        }
        m_start.set_value();
        m_released.wait();
        return 0;
    }

private:
    std::promise<void> m_start;
    std::promise<void> m_release;
    std::future<void> m_started = m_start.get_future();
    std::future<void> m_released = m_release.get_future();
};

TEST(SemaphoreTest, TryZeroWaitsForAGiveAndGivesAccumulate) {
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    auto waiter = std::async(std::launch::async, [&semaphore] { return semaphore.Try(0); });
    EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
    semaphore.Give();
    EXPECT_TRUE(waiter.get());

    for (int i = 0; i < 3; ++i) {
        semaphore.Give();
    }
    EXPECT_TRUE(semaphore.Try(1000));
    semaphore.Take();
    {
        CIM::TCAutoSemLock lock(&semaphore);  // takes the third unit
        EXPECT_FALSE(semaphore.Poll());
    }
    EXPECT_TRUE(semaphore.Poll());
    // A timed Try without a unit fails after its time-out.
    const auto start = Clock::now();
    EXPECT_FALSE(semaphore.Try(60));
    EXPECT_GE(ElapsedMs(start), 58);
    EXPECT_LT(ElapsedMs(start), cimtest::Scaled(800ms).count());
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
    for (int attempt = 0; attempt < 20 && !overtaken; ++attempt) {
        auto waiter = std::async(std::launch::async, [&semaphore] {
            const auto start = Clock::now();
            const bool result = semaphore.Try(kTimeout);
            return std::make_tuple(start, result, Clock::now());
        });
        std::this_thread::sleep_for(80ms);  // the give arrives mid-wait
        const auto giveTime = Clock::now();
        semaphore.Give();
        overtaken = semaphore.Poll();
        const auto [start, taken, end] = waiter.get();
        ASSERT_LT(start, giveTime);
        EXPECT_NE(taken, overtaken);
        if (overtaken) {
            // Without the restart it would end about 120 ms after the give.
            const auto afterGive =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - giveTime);
            EXPECT_GE(afterGive.count(), kTimeout - 5);
            EXPECT_LT(afterGive, cimtest::Scaled(std::chrono::milliseconds(kTimeout + 800)));
        }
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
    // The wait itself cannot be observed; give the waiter time to reach it.
    std::this_thread::sleep_for(20ms);
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
    {
        TCSemaphore twice;
        ASSERT_TRUE(twice.Create(1));
        EXPECT_FALSE(twice.Create(0));
        EXPECT_TRUE(twice.Poll()) << "the first creation was kept";
        // Left created: the destructor reports it.
    }
    {
        TCMutex mutex;  // a created mutex may be deleted silently
        ASSERT_TRUE(mutex.Create());
    }
    const std::string created = "FlagCreate() == true";
    const std::string notCreated = "FlagCreate() == false";
    EXPECT_EQ(recorder.Expressions(), (std::vector<std::string>{created, created, created, created,
                                                                notCreated, notCreated}));
}

TEST(MutexTest, RecursiveForTheOwnerRefusedToOthers) {
    TCMutex mutex;
    ASSERT_TRUE(mutex.Create());
    mutex.Lock();
    mutex.Lock();  // must not block
    auto other = std::async(std::launch::async, [&mutex] {
        const bool unlockedForeign = mutex.Unlock();
        mutex.Lock();
        return unlockedForeign;
    });
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ(other.wait_for(50ms), std::future_status::timeout);
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_FALSE(other.get()) << "an Unlock by a thread that never locked must be refused";
    EXPECT_FALSE(mutex.Unlock()) << "the other thread holds it now";
    mutex.Destroy();
}

TEST(ThreadTest, RunsBodyNamedAndEndsWithIdReset) {
    GatedThread thread;
    ASSERT_TRUE(thread.Create("a-name-of-20-chars!!", 256 * 1024));
    thread.WaitStarted();
    EXPECT_STREQ(thread.Name(), "a-name-of-20-ch");
    EXPECT_STREQ(thread.kernelName, "a-name-of-20-ch");
    EXPECT_EQ(thread.bodyId, thread.Id());
    EXPECT_GT(thread.Tid(), 0);
    EXPECT_NE(thread.Tid(), OwnTid());
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
    EXPECT_TRUE(thread.SetPriority(2));  // waits for the kernel id itself
    EXPECT_EQ(NiceOf(thread.Tid()), 10);
    EXPECT_FALSE(thread.SetPriority(3));
    EXPECT_FALSE(thread.SetPriority(-1));
    EXPECT_EQ(NiceOf(thread.Tid()), 10);
    const bool raised = thread.SetPriority(0);
    const int raisedErrno = errno;
    const int nice = NiceOf(thread.Tid());
    thread.Release();
    EXPECT_TRUE(thread.Destroy());

    std::thread([] {
        EXPECT_FALSE(TCThreadSelf::SetPriority(7));
        EXPECT_EQ(NiceOf(OwnTid()), 0);
        EXPECT_TRUE(TCThreadSelf::SetPriority(2));
        EXPECT_EQ(NiceOf(OwnTid()), 10);
        EXPECT_EQ(TCThreadSelf::Id(), pthread_self());
    }).join();

    if (!raised) {
        GTEST_SKIP() << "setpriority(-10) refused (" << std::strerror(raisedErrno)
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
    EXPECT_EQ(recorder.Expressions(), std::vector<std::string>{"TCThreadSelf::Id() != Id()"});
    EXPECT_EQ(log.Count("Thread.cpp: Destroy("), 1u);
    EXPECT_EQ(log.Count("> Assert Error : Current Thread can't destroy itself"), 1u);
    thread.Release();
    EXPECT_TRUE(thread.Destroy());
}

}  // namespace
