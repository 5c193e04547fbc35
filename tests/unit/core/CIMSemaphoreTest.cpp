#include <cimcore/CIMSemaphore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using CIM::TCCIMSemaphore;

TEST(CIMSemaphoreTest, CountsFromAnyStartingValue) {
    TCCIMSemaphore empty(0);
    EXPECT_FALSE(empty.Try());
    empty.Give();
    EXPECT_TRUE(empty.Try());
    EXPECT_FALSE(empty.Try());

    TCCIMSemaphore owing(-2);
    owing.Give();
    owing.Give();
    EXPECT_FALSE(owing.Try()) << "two gives only pay the debt back to zero";
    owing.Give();
    EXPECT_TRUE(owing.Try());
    EXPECT_FALSE(owing.Try());

    TCCIMSemaphore three(3);
    three.Take();
    three.Take();
    three.Take();
    EXPECT_FALSE(three.Try());

}

TEST(CIMSemaphoreTest, EachGiveReleasesOneWaiter) {
    constexpr int kWaiters = 3;
    TCCIMSemaphore gate(-1);  // needs one give more than there are waiters
    TCCIMSemaphore released(0);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&] {
            gate.Take();
            ++passed;
            released.Give();
        });
    }

    gate.Give();  // pays the debt: nobody may pass yet
    for (int round = 1; round <= kWaiters; ++round) {
        gate.Give();
        released.Take();
        EXPECT_EQ(round, passed.load()) << "one give let more than one waiter through";
    }
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_FALSE(gate.Try());
    EXPECT_FALSE(released.Try());
}

TEST(CIMSemaphoreTest, NoUnitIsLostOrDuplicatedUnderContention) {
    constexpr int kPerThread = 20000;
    constexpr int kPairs = 2;
    TCCIMSemaphore semaphore(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kPairs; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kPerThread; ++n) {
                semaphore.Give();
            }
        });
        threads.emplace_back([&] {
            for (int n = 0; n < kPerThread; ++n) {
                semaphore.Take();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(semaphore.Try());
}

}  // namespace
