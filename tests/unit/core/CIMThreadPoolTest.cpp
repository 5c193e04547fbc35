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
    const Clock::time_point start = Clock::now();
    pool.Join();
    pool.Join();
    EXPECT_LT(Clock::now() - start, cimtest::Scaled(milliseconds(200)));
    EXPECT_EQ(log.Messages(), std::vector<std::string>(2, "CIMThreadPool.cpp: Join(64) > "));
}

TEST(CIMThreadPoolTest, WorkersRunInParallelUnnamedAndJoinWaitsForPendingWork) {
    const std::string processName = cimtest::ThreadName();
    TCThreadPool pool("pool-name", 4);
    const std::vector<boost::thread::id> ids = pool.GetThreadIds();
    ASSERT_EQ(4u, std::set<boost::thread::id>(ids.begin(), ids.end()).size());
    // Every handler waits until all have started: only four parallel workers
    // get through.
    boost::barrier allStarted(4);
    std::atomic<int> unnamed{0};
    for (int i = 0; i < 4; ++i) {
        boost::asio::post(pool.GetIoContext(), [&] {
            unnamed += cimtest::ThreadName() == processName ? 1 : 0;
            allStarted.wait();
        });
    }
    boost::asio::steady_timer timer(pool.GetIoContext(), milliseconds(60));
    std::atomic<bool> fired{false};
    timer.async_wait([&](const boost::system::error_code&) { fired = true; });
    pool.Join();
    EXPECT_TRUE(fired) << "Join left with a timer pending";
    EXPECT_EQ(4, unnamed.load()) << "a worker took a name";
}

// Both from the first handler posted after construction.
TEST(CIMThreadPoolTest, TaskIsNamedBeforeItsFirstHandlerAndCannotJoinItself) {
    TCCIMTask task("cim-task-named");
    std::promise<std::string> seen;
    boost::asio::post(task.GetIoContext(), [&] {
        std::string result = cimtest::ThreadName();
        result +=
            task.GetTaskThreadId() == boost::this_thread::get_id() ? " on task" : " elsewhere";
        // Caught here: an exception leaving the loop ends the process.
        try {
            task.Join();
        } catch (const boost::thread_resource_error& error) {
            result += std::string(": ") + error.what();
        }
        seen.set_value(result);
    });
    EXPECT_EQ(
        "cim-task-named on task: boost thread: trying joining itself: Resource deadlock avoided",
        seen.get_future().get());
    task.Join();
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
