#include <cimcore/CIMSemaphore.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Starts below zero: waiters pass only once the debt is paid, and each give
// lets exactly one through.
TEST(CIMSemaphoreTest, DebtFirstThenOneWaiterPerGive) {
    CIM::TCCIMSemaphore gate(-1), released(0);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            gate.Take();
            ++passed;
            released.Give();
        });
    }
    gate.Give();  // back to zero
    EXPECT_FALSE(gate.Try());
    for (int round = 1; round <= 3; ++round) {
        gate.Give();
        released.Take();
        EXPECT_EQ(round, passed.load()) << "one give let more than one waiter through";
    }
    cimtest::JoinAll(waiters);
}

// A lost unit leaves a taker blocked; a duplicated one is left over.
TEST(CIMSemaphoreTest, NoUnitIsLostOrDuplicatedUnderContention) {
    CIM::TCCIMSemaphore semaphore(0);
    cimtest::RunThreads(4, [&semaphore](int i) {
        for (int n = 0; n < 20000; ++n) {
            i % 2 == 0 ? semaphore.Give() : semaphore.Take();
        }
    });
    EXPECT_FALSE(semaphore.Try());
}

}  // namespace
