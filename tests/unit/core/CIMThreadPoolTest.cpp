#include <cimcore/CIMThreadPool.h>

#include <gtest/gtest.h>

#include "NetTestPeers.h"

#include <cimcore/CIMSemaphore.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>

#include <boost/asio/steady_timer.hpp>
#include <boost/thread/barrier.hpp>

namespace {

// A second Join, with no worker left, only logs.
TEST(CIMThreadPoolTest, WorkersRunInParallelUnnamedAndJoinWaitsForPendingWork) {
    cimtest::LogCapture log;
    const std::string processName = cimtest::ThreadName();
    CIM::TCThreadPool pool("pool-name", 4);
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
    boost::asio::steady_timer timer(pool.GetIoContext(), std::chrono::milliseconds(60));
    std::atomic<bool> fired{false};
    timer.async_wait([&](const boost::system::error_code&) { fired = true; });
    pool.Join();
    EXPECT_TRUE(fired) << "Join left with a timer pending";
    EXPECT_EQ(4, unnamed.load()) << "a worker took a name";
    const cimtest::Clock::time_point start = cimtest::Clock::now();
    pool.Join();
    EXPECT_LT(cimtest::Since(start), cimtest::Scaled(std::chrono::milliseconds(200)));
    EXPECT_EQ(log.Messages(), std::vector<std::string>(2, "CIMThreadPool.cpp: Join(64) > "));
}

// Both from the first handler posted after construction.
TEST(CIMThreadPoolTest, TaskIsNamedBeforeItsFirstHandlerAndCannotJoinItself) {
    cimtest::TestTask task;
    std::string seen;
    cimtest::RunOnLoop(task.Get(), [&] {
        seen = cimtest::ThreadName() +
               (task.Get()->GetTaskThreadId() == boost::this_thread::get_id() ? " on task" : "");
        // Caught here: an exception leaving the loop ends the process.
        try {
            task.Get()->Join();
        } catch (const boost::thread_resource_error& error) {
            seen += std::string(": ") + error.what();
        }
    });
    EXPECT_EQ("ipc-test on task: boost thread: trying joining itself: Resource deadlock avoided",
              seen);
}

// A task's worker detached by the destructor would touch the freed loop once
// it wakes: keep it parked in a handler and end the process before it leaves.
TEST(CIMThreadPoolDeathTest, DestroyingAnUnjoinedTaskReportsAndFinishes) {
    EXPECT_EXIT(
        {
            ::dup2(2, 1);  // the report's stdout line goes where the matcher reads
            cimtest::AssertRecorder recorder;
            auto task = std::make_unique<CIM::TCCIMTask>("unjoined-task");
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
