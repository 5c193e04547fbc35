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

    Attempt writer([&lock] { return lock.WLock() && lock.WUnlock(); });
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(writer.StillBlocked()) << "the first of two RUnlock released the lock";
    EXPECT_TRUE(lock.RUnlock());
    ASSERT_TRUE(writer.Finished()) << "the last RUnlock did not release the lock";
    EXPECT_TRUE(writer.Result());

    EXPECT_FALSE(lock.RUnlock()) << "a third RUnlock after two RLock";
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
    EXPECT_FALSE(lock.RUnlock()) << "the writer's reads counted something";
}

TEST(RWLockTest, ReaderAskingForTheWriteLockIsReportedAndRefused) {
    cimtest::LogCapture log;
    cimtest::AssertRecorder asserts;
    TCRWLock lock;
    ASSERT_TRUE(lock.RLock());
    ASSERT_TRUE(lock.RLock());

    testing::internal::CaptureStderr();
    EXPECT_FALSE(lock.WLock());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(asserts.Expressions(), std::vector<std::string>{"*pCount == 0"});
    EXPECT_NE(err.find("Cannot acquire Wlock, thread have already 2 Rlock(s)\n"), std::string::npos)
        << err;

    // The read holds are untouched, and the lock is free once they are given back.
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(lock.WLock() && lock.WUnlock());
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
    for (int t = 0; t < kWriters + kReaders; ++t) {
        threads.emplace_back([&, writer = t < kWriters] {
            for (int i = 0; i < kRounds; ++i) {
                const bool nested = i % 2 == 0;
                bool ok = writer ? lock.WLock() && (!nested || lock.WLock())
                                 : lock.RLock() && (!nested || lock.RLock());
                if (writer) {
                    ++first;
                    ok = lock.RLock() && ok;  // the writer reads its own data
                    ++second;
                    ok = lock.RUnlock() && ok;
                } else if (first != second) {
                    ++tornReads;
                }
                ok = (writer ? (!nested || lock.WUnlock()) && lock.WUnlock()
                             : (!nested || lock.RUnlock()) && lock.RUnlock()) &&
                     ok;
                failedCalls += ok ? 0 : 1;
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
