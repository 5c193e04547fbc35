#include <cimcore/internal/lsc/RWLock.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// How long a thread that should stay blocked is watched.
constexpr auto kBlockedFor = 50ms;

// Runs `action` on a thread of its own; Done() becomes ready once it returned.
class Attempt {
public:
    template <class Action>
    explicit Attempt(Action action)
        : m_future(m_result.get_future()),
          m_thread([this, action] { m_result.set_value(action()); }) {}
    ~Attempt() { m_thread.join(); }

    bool StillBlocked() { return m_future.wait_for(kBlockedFor) == std::future_status::timeout; }
    bool Finished() {
        return m_future.wait_for(cimtest::Scaled(5000ms)) == std::future_status::ready;
    }
    bool Result() { return m_future.get(); }

private:
    std::promise<bool> m_result;
    std::future<bool> m_future;
    std::thread m_thread;
};

TEST(RWLockTest, NestedReadsReleaseOnceAtTheLastUnlock) {
    TCRWLock lock;
    ASSERT_TRUE(lock.RLock());
    ASSERT_TRUE(lock.RLock());

    Attempt writer([&lock] {
        const bool locked = lock.WLock();
        return locked && lock.WUnlock();
    });
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(writer.StillBlocked()) << "the first of two RUnlock released the lock";
    EXPECT_TRUE(lock.RUnlock());
    ASSERT_TRUE(writer.Finished()) << "the last RUnlock did not release the lock";
    EXPECT_TRUE(writer.Result());

    EXPECT_FALSE(lock.RUnlock()) << "a third RUnlock after two RLock";

    // A thread that never read has nothing to give back, and the count of
    // this thread is its own.
    Attempt stranger([&lock] { return lock.RUnlock(); });
    ASSERT_TRUE(stranger.Finished());
    EXPECT_FALSE(stranger.Result());

    // After the count fell to 0 the next RLock takes the lock again.
    ASSERT_TRUE(lock.RLock());
    Attempt secondWriter([&lock] { return lock.WLock() && lock.WUnlock(); });
    EXPECT_TRUE(secondWriter.StillBlocked());
    EXPECT_TRUE(lock.RUnlock());
    ASSERT_TRUE(secondWriter.Finished());
    EXPECT_TRUE(secondWriter.Result());
}

TEST(RWLockTest, WriterRecursesAndReadsFreely) {
    TCRWLock lock;
    ASSERT_TRUE(lock.WLock());
    ASSERT_TRUE(lock.WLock());
    // The writer's reads neither block nor count.
    EXPECT_TRUE(lock.RLock());
    EXPECT_TRUE(lock.RLock());
    EXPECT_TRUE(lock.RUnlock());

    Attempt reader([&lock] { return lock.RLock() && lock.RUnlock(); });
    EXPECT_TRUE(reader.StillBlocked());

    // Another thread cannot give the write lock back for the writer.
    Attempt intruder([&lock] { return lock.WUnlock(); });
    ASSERT_TRUE(intruder.Finished());
    EXPECT_FALSE(intruder.Result());
    EXPECT_TRUE(reader.StillBlocked()) << "WUnlock by another thread released the lock";

    EXPECT_TRUE(lock.WUnlock());
    EXPECT_TRUE(reader.StillBlocked()) << "released after one of two WUnlock";
    EXPECT_TRUE(lock.WUnlock());
    ASSERT_TRUE(reader.Finished());
    EXPECT_TRUE(reader.Result());

    EXPECT_FALSE(lock.WUnlock()) << "no longer the writer";
    // The writer's RLock calls counted nothing: there is nothing to give back.
    EXPECT_FALSE(lock.RUnlock());
}

TEST(RWLockTest, ReaderAskingForTheWriteLockIsReportedAndRefused) {
    cimtest::LogCapture log;
    cimtest::AssertRecorder asserts;
    TCRWLock lock;
    ASSERT_TRUE(lock.RLock());
    ASSERT_TRUE(lock.RLock());

    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const bool locked = lock.WLock();
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_FALSE(locked);
    EXPECT_EQ(asserts.Expressions(), std::vector<std::string>{"*pCount == 0"});
    EXPECT_NE(err.find("Cannot acquire Wlock, thread have already 2 Rlock(s)\n"), std::string::npos)
        << err;
    EXPECT_NE(out.find("ASSERT!, Func:WLock\n"), std::string::npos) << out;

    // The read holds are untouched, and the lock is free once they are given back.
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(lock.WLock());
    EXPECT_TRUE(lock.WUnlock());
    EXPECT_EQ(asserts.Count(), 1u);
}

TEST(RWLockTest, ReadersAndWritersUnderContentionKeepDataConsistent) {
    TCRWLock lock;
    // Two halves that writers change together; a reader must never see them differ.
    long first = 0;
    long second = 0;
    std::atomic<int> tornReads{0};
    std::atomic<int> failedCalls{0};
    constexpr int kWriters = 2;
    constexpr int kReaders = 4;
    constexpr int kRounds = 2000;

    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                const bool nested = i % 3 == 0;
                if (!lock.WLock() || (nested && !lock.WLock())) {
                    ++failedCalls;
                }
                ++first;
                if (lock.RLock()) {  // the writer reads its own data
                    ++second;
                    lock.RUnlock();
                }
                if ((nested && !lock.WUnlock()) || !lock.WUnlock()) {
                    ++failedCalls;
                }
            }
        });
    }
    for (int r = 0; r < kReaders; ++r) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                const bool nested = i % 2 == 0;
                if (!lock.RLock() || (nested && !lock.RLock())) {
                    ++failedCalls;
                }
                if (first != second) {
                    ++tornReads;
                }
                if ((nested && !lock.RUnlock()) || !lock.RUnlock()) {
                    ++failedCalls;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failedCalls.load(), 0);
    EXPECT_EQ(tornReads.load(), 0);
    EXPECT_EQ(first, kWriters * kRounds);
    EXPECT_EQ(second, kWriters * kRounds);
}

}  // namespace
