#include <cimcore/CIMThreadPool.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <cimcore/CIMSemaphore.h>

#include <sys/syscall.h>
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
#include <boost/system/system_error.hpp>

namespace {

using CIM::TCCIMTask;
using CIM::TCThreadPool;
using Clock = std::chrono::steady_clock;

// The calling thread's name as the system shows it.
std::string KernelName() {
    const long tid = syscall(SYS_gettid);
    std::string comm = cimtest::ReadFile("/proc/self/task/" + std::to_string(tid) + "/comm");
    if (!comm.empty() && comm.back() == '\n') {
        comm.pop_back();
    }
    return comm;
}

TEST(CIMThreadPoolTest, PoolWithoutWorkersRunsNothingAndJoinsAtOnce) {
    cimtest::LogCapture log;
    auto ran = std::make_shared<bool>(false);
    std::weak_ptr<bool> handlerState = ran;
    {
        TCThreadPool pool("idle", 0);
        EXPECT_TRUE(pool.GetThreadIds().empty());
        boost::asio::post(pool.GetIoContext(), [ran] { *ran = true; });
        const Clock::time_point start = Clock::now();
        pool.Join();
        pool.Join();
        EXPECT_LT(Clock::now() - start, cimtest::Scaled(std::chrono::milliseconds(200)));
        EXPECT_FALSE(*ran);
        ran.reset();
        EXPECT_FALSE(handlerState.expired()) << "the queued handler lives in the loop";
    }
    EXPECT_TRUE(handlerState.expired()) << "the loop frees handlers that never ran";
    EXPECT_EQ(2u, log.Count("CIMThreadPool.cpp: Join(64) > "));
    for (const std::string& message : log.Messages()) {
        EXPECT_EQ("CIMThreadPool.cpp: Join(64) > ", message);
    }
}

TEST(CIMThreadPoolTest, WorkersRunInParallelAndAreNotNamed) {
    constexpr int kWorkers = 4;
    const std::string processName = KernelName();
    TCThreadPool pool("pool-name", kWorkers);
    const std::vector<boost::thread::id> ids = pool.GetThreadIds();
    ASSERT_EQ(size_t(kWorkers), ids.size());
    EXPECT_EQ(size_t(kWorkers), std::set<boost::thread::id>(ids.begin(), ids.end()).size());

    // Every handler waits until all have started: only four parallel workers
    // get through.
    CIM::TCCIMSemaphore arrived(0);
    CIM::TCCIMSemaphore leave(0);
    std::mutex mutex;
    std::set<boost::thread::id> seenIds;
    std::vector<std::string> names;
    for (int i = 0; i < kWorkers; ++i) {
        boost::asio::post(pool.GetIoContext(), [&] {
            {
                std::lock_guard<std::mutex> lock(mutex);
                seenIds.insert(boost::this_thread::get_id());
                names.push_back(KernelName());
            }
            arrived.Give();
            leave.Take();
        });
    }
    for (int i = 0; i < kWorkers; ++i) {
        arrived.Take();
    }
    for (int i = 0; i < kWorkers; ++i) {
        leave.Give();
    }
    pool.Join();

    EXPECT_EQ(std::set<boost::thread::id>(ids.begin(), ids.end()), seenIds);
    for (const std::string& name : names) {
        EXPECT_NE("pool-name", name);
        EXPECT_EQ(processName, name);
    }
}

TEST(CIMThreadPoolTest, JoinWaitsForPendingOperations) {
    TCThreadPool pool("timers", 2);
    boost::asio::steady_timer timer(pool.GetIoContext(), std::chrono::milliseconds(60));
    std::atomic<bool> fired{false};
    timer.async_wait([&](const boost::system::error_code&) { fired = true; });
    const Clock::time_point start = Clock::now();
    pool.Join();
    const Clock::duration took = Clock::now() - start;
    EXPECT_TRUE(fired);
    EXPECT_GE(took, std::chrono::milliseconds(55));
    EXPECT_LT(took, cimtest::Scaled(std::chrono::milliseconds(1000)));
}

TEST(CIMThreadPoolTest, TaskIsNamedBeforeItsFirstHandler) {
    const std::string longName = "cim-task-named-twenty";  // the kernel keeps 15
    TCCIMTask task(longName);
    std::promise<std::pair<std::string, boost::thread::id>> first;
    boost::asio::post(task.GetIoContext(), [&] {
        first.set_value(std::make_pair(KernelName(), boost::this_thread::get_id()));
    });
    const auto seen = first.get_future().get();
    EXPECT_EQ(longName.substr(0, 15), seen.first);
    EXPECT_EQ(task.GetTaskThreadId(), seen.second);
    ASSERT_EQ(1u, task.GetThreadIds().size());
    EXPECT_EQ(task.GetTaskThreadId(), task.GetThreadIds()[0]);
    task.Join();
}

TEST(CIMThreadPoolTest, JoinFromTheTasksOwnHandlerFails) {
    TCCIMTask task("self-join");
    std::promise<std::string> failure;
    boost::asio::post(task.GetStrand(), [&] {
        try {
            task.Join();
            failure.set_value("no exception");
        } catch (const boost::thread_resource_error& error) {
            failure.set_value(std::string(error.what()) + " / " +
                              std::to_string(error.code().value()));
        }
    });
    EXPECT_EQ("boost thread: trying joining itself: Resource deadlock avoided / " +
                  std::to_string(EDEADLK),
              failure.get_future().get());
    // The guard went with the failed call; the worker leaves once idle.
    const Clock::time_point start = Clock::now();
    task.Join();
    EXPECT_LT(Clock::now() - start, cimtest::Scaled(std::chrono::milliseconds(500)));
}

TEST(CIMThreadPoolTest, DestroyingAnUnjoinedPoolReportsAndFinishes) {
    cimtest::AssertRecorder recorder;
    ::testing::internal::CaptureStdout();
    {
        TCThreadPool pool("unjoined", 0);
    }
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::vector<std::string>{"!m_work"}, recorder.Expressions());
    EXPECT_EQ("ASSERT!, Func:~TCThreadPool\n", out);
}

// A task's worker detached by the destructor would touch the freed loop once
// it wakes: keep it parked in a handler and end the process before it leaves.
TEST(CIMThreadPoolDeathTest, DestroyingAnUnjoinedTaskReportsAndFinishes) {
    EXPECT_EXIT(
        {
            cimtest::AssertRecorder recorder;
            ::testing::internal::CaptureStdout();
            auto task = std::make_unique<TCCIMTask>("unjoined-task");
            auto parked = std::make_shared<CIM::TCCIMSemaphore>(0);
            auto neverReleased = std::make_shared<CIM::TCCIMSemaphore>(0);
            boost::asio::post(task->GetIoContext(), [parked, neverReleased] {
                parked->Give();
                neverReleased->Take();
            });
            parked->Take();
            task.reset();
            std::string out = ::testing::internal::GetCapturedStdout();
            const std::vector<std::string> expressions = recorder.Expressions();
            std::fprintf(stderr, "reported %zu: %s; stdout: %s", expressions.size(),
                         expressions.empty() ? "" : expressions[0].c_str(), out.c_str());
            std::fflush(stderr);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "reported 1: !m_work; stdout: ASSERT!, Func:~TCThreadPool");
}

}  // namespace
