#include <cimcore/CIMThreadPool.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <cimcore/CIMSemaphore.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/thread/barrier.hpp>

namespace {

using CIM::TCCIMTask;
using CIM::TCThreadPool;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

TEST(CIMThreadPoolTest, PoolWithoutWorkersJoinsAtOnceAndEachJoinOnlyLogs) {
    cimtest::LogCapture log;
    TCThreadPool pool("idle", 0);
    EXPECT_TRUE(pool.GetThreadIds().empty());
    bool ran = false;
    boost::asio::post(pool.GetIoContext(), [&ran] { ran = true; });
    const Clock::time_point start = Clock::now();
    pool.Join();
    pool.Join();
    EXPECT_LT(Clock::now() - start, cimtest::Scaled(milliseconds(200)));
    EXPECT_FALSE(ran);
    EXPECT_EQ(log.Messages(), std::vector<std::string>(2, "CIMThreadPool.cpp: Join(64) > "));
}

TEST(CIMThreadPoolTest, WorkersRunInParallelUnnamedAndJoinWaitsForPendingWork) {
    constexpr int kWorkers = 4;
    const std::string processName = cimtest::ThreadName();
    TCThreadPool pool("pool-name", kWorkers);
    const std::vector<boost::thread::id> ids = pool.GetThreadIds();
    const std::set<boost::thread::id> idSet(ids.begin(), ids.end());
    ASSERT_EQ(size_t(kWorkers), idSet.size());

    // Every handler waits until all have started: only four parallel workers
    // get through.
    boost::barrier allStarted(kWorkers);
    std::mutex mutex;
    std::set<boost::thread::id> seenIds;
    std::vector<std::string> names;
    for (int i = 0; i < kWorkers; ++i) {
        boost::asio::post(pool.GetIoContext(), [&] {
            {
                std::lock_guard<std::mutex> lock(mutex);
                seenIds.insert(boost::this_thread::get_id());
                names.push_back(cimtest::ThreadName());
            }
            allStarted.wait();
        });
    }
    // Join also waits for a timer that is still pending.
    boost::asio::steady_timer timer(pool.GetIoContext(), milliseconds(60));
    std::atomic<bool> fired{false};
    timer.async_wait([&](const boost::system::error_code&) { fired = true; });
    const Clock::time_point start = Clock::now();
    pool.Join();
    EXPECT_TRUE(fired);
    EXPECT_GE(Clock::now() - start, milliseconds(55));
    EXPECT_LT(Clock::now() - start, cimtest::Scaled(milliseconds(1000)));
    EXPECT_EQ(idSet, seenIds);
    EXPECT_EQ(std::vector<std::string>(kWorkers, processName), names);
}

TEST(CIMThreadPoolTest, TaskIsNamedBeforeItsFirstHandler) {
    TCCIMTask task("cim-task-named-twenty");  // the kernel keeps 15 characters
    std::promise<std::pair<std::string, boost::thread::id>> first;
    boost::asio::post(task.GetIoContext(), [&] {
        first.set_value(std::make_pair(cimtest::ThreadName(), boost::this_thread::get_id()));
    });
    const auto seen = first.get_future().get();
    EXPECT_EQ("cim-task-named-", seen.first);
    EXPECT_EQ(task.GetTaskThreadId(), seen.second);
    EXPECT_EQ(std::vector<boost::thread::id>{task.GetTaskThreadId()}, task.GetThreadIds());
    task.Join();
}

TEST(CIMThreadPoolTest, JoinFromTheTasksOwnHandlerFails) {
    TCCIMTask task("self-join");
    std::promise<std::string> failure;
    // Caught inside the handler: an exception leaving the loop ends the process.
    boost::asio::post(task.GetStrand(), [&] {
        try {
            task.Join();
            failure.set_value("no exception");
        } catch (const boost::thread_resource_error& error) {
            failure.set_value(error.what());
        }
    });
    EXPECT_EQ("boost thread: trying joining itself: Resource deadlock avoided",
              failure.get_future().get());
    // The guard went with the failed call; the worker leaves once idle.
    const Clock::time_point start = Clock::now();
    task.Join();
    EXPECT_LT(Clock::now() - start, cimtest::Scaled(milliseconds(500)));
}

// A task's worker detached by the destructor would touch the freed loop once
// it wakes: keep it parked in a handler and end the process before it leaves.
TEST(CIMThreadPoolDeathTest, DestroyingAnUnjoinedTaskReportsAndFinishes) {
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the report's stdout line goes where the matcher reads
            cimtest::AssertRecorder recorder;
            auto task = std::make_unique<TCCIMTask>("unjoined-task");
            CIM::TCCIMSemaphore parked(0);
            CIM::TCCIMSemaphore never(0);
            boost::asio::post(task->GetIoContext(), [&] {
                parked.Give();
                never.Take();
            });
            parked.Take();
            task.reset();
            std::fflush(stdout);
            _exit(recorder.Expressions() == std::vector<std::string>{"!m_work"} ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "ASSERT!, Func:~TCThreadPool\n");
}

}  // namespace
