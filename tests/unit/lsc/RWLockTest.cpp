#include <cimcore/internal/lsc/RWLock.h>

#include "LscTestSupport.h"

#include <gmock/gmock.h>

namespace cimtest {
namespace {

using namespace std::chrono_literals;

bool Blocked(std::future<bool>& attempt) {
    return attempt.wait_for(50ms) == std::future_status::timeout;
}
bool Succeeded(std::future<bool>& attempt) {
    return attempt.wait_for(Scaled(5000ms)) == std::future_status::ready && attempt.get();
}

TEST(RWLockTest, NestedLocksReleaseOnceAtTheLastUnlockAndReadsCannotUpgrade) {
    AssertRecorder asserts;
    TCRWLock lock;
    ASSERT_TRUE(lock.RLock());
    ASSERT_TRUE(lock.RLock());
    testing::internal::CaptureStderr();
    EXPECT_FALSE(lock.WLock());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(asserts.Expressions(), std::vector<std::string>{"*pCount == 0"});
    EXPECT_THAT(err, testing::HasSubstr("Cannot acquire Wlock, thread have already 2 Rlock(s)\n"));

    auto writer = std::async(std::launch::async, [&] { return lock.WLock() && lock.WUnlock(); });
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(Blocked(writer)) << "the first of two RUnlock released the lock";
    EXPECT_TRUE(lock.RUnlock());
    EXPECT_TRUE(Succeeded(writer));

    // The writer recurses; its reads neither block nor count.
    ASSERT_TRUE(lock.WLock());
    ASSERT_TRUE(lock.WLock());
    EXPECT_TRUE(lock.RLock());
    auto reader = std::async(std::launch::async, [&] { return lock.RLock() && lock.RUnlock(); });
    auto intruder = std::async(std::launch::async, [&] { return !lock.WUnlock(); });
    EXPECT_TRUE(Succeeded(intruder)) << "WUnlock by another thread was accepted";
    EXPECT_TRUE(Blocked(reader)) << "WUnlock by another thread released the lock";
    EXPECT_TRUE(lock.WUnlock());
    EXPECT_TRUE(Blocked(reader)) << "released after one of two WUnlock";
    EXPECT_TRUE(lock.WUnlock());
    EXPECT_TRUE(Succeeded(reader));
    EXPECT_FALSE(lock.RUnlock()) << "the writer's reads counted something";
}

TEST(RWLockTest, ReadersAndWritersUnderContentionKeepDataConsistent) {
    TCRWLock lock;
    long first = 0, second = 0;  // a writer changes both; a reader must never see them differ
    std::atomic<int> failedCalls{0}, tornReads{0};
    RunThreads(6, [&](int t) {
        for (int i = 0; i < 2000; ++i) {
            if (t < 2) {  // a writer: nested, and reading its own data
                bool ok = lock.WLock() && lock.WLock();
                ++first;
                ok = lock.RLock() && ok;
                ++second;
                failedCalls += !(lock.RUnlock() && lock.WUnlock() && lock.WUnlock() && ok);
            } else {
                const bool ok = lock.RLock() && lock.RLock();
                tornReads += first != second;
                failedCalls += !(lock.RUnlock() && lock.RUnlock() && ok);
            }
        }
    });
    EXPECT_EQ(failedCalls.load(), 0);
    EXPECT_EQ(tornReads.load(), 0);
    EXPECT_EQ(second, 2 * 2000);
}

}  // namespace
}  // namespace cimtest
