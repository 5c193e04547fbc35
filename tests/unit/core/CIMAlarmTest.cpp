#include <cimcore/CIMAlarm.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>
#include <boost/smart_ptr/bad_weak_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace {

using CIM::ALARM_COUNT_INFINITY;
using CIM::ALARM_COUNT_ONCE;
using CIM::TCCIMAlarm;
using CIM::TCCIMTask;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const milliseconds kLongWait = cimtest::Scaled(milliseconds(3000));

// Counts events and lets the test wait for the n-th one.
class Counter {
public:
    void Add() {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_times.push_back(Clock::now());
        m_changed.notify_all();
    }
    bool WaitFor(int count, milliseconds timeout = kLongWait) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_count >= count; });
    }
    int Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }
    std::vector<Clock::time_point> Times() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_times;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_count = 0;                     // guarded by m_mutex
    std::vector<Clock::time_point> m_times;  // guarded by m_mutex
};

// A plain observer: counts expiries and runs `react` (on the task's thread).
class Observer : public CIM::TICIMAlarmObserver {
public:
    explicit Observer(std::function<void(boost::shared_ptr<TCCIMAlarm>)> react = nullptr)
        : m_react(std::move(react)) {}
    void OnTimer(boost::shared_ptr<TCCIMAlarm> alarm) override {
        if (m_react) {
            m_react(alarm);
        }
        expiries.Add();
    }
    Counter expiries;

private:
    std::function<void(boost::shared_ptr<TCCIMAlarm>)> m_react;
};

// Forwards every expiry to RunHandler, as the stack's observers do.
Observer Forwarding() {
    return Observer([](boost::shared_ptr<TCCIMAlarm> alarm) { alarm->RunHandler(); });
}

// Gives a counter when destroyed: put into an alarm's callback, it tells
// when the alarm itself is gone.
struct Sentinel {
    explicit Sentinel(Counter& counter) : counter(counter) {}
    ~Sentinel() { counter.Add(); }
    Counter& counter;
};

class CIMAlarmTest : public ::testing::Test {
protected:
    // Every test stops and joins its alarms first, as shutting down requires.
    void TearDown() override { m_task->Join(); }

    // Runs `work` on the task's thread and waits for it.
    void OnTaskThread(std::function<void()> work) {
        std::promise<void> done;
        boost::asio::post(m_task->GetIoContext(), [&] {
            work();
            done.set_value();
        });
        done.get_future().get();
    }

    cimtest::LogCapture m_log;  // before the task: its thread logs
    boost::shared_ptr<TCCIMTask> m_task = boost::make_shared<TCCIMTask>("alarm-test");
};

TEST_F(CIMAlarmTest, ZeroAndNegativePeriodsFireOnTheNextTurn) {
    for (const int periodMs : {0, -5, -2000000000}) {
        SCOPED_TRACE(periodMs);
        Observer observer = Forwarding();
        Counter callbacks;
        auto alarm = TCCIMAlarm::CreateAlarm(&observer, m_task, [&] { callbacks.Add(); },
                                             ALARM_COUNT_ONCE, "now");
        // Asked on the task's own thread, the start is only queued.
        OnTaskThread([&] {
            alarm->SetTimer(periodMs);
            EXPECT_EQ(0, observer.expiries.Count());
        });
        ASSERT_TRUE(callbacks.WaitFor(1, cimtest::Scaled(milliseconds(200))));
        EXPECT_FALSE(alarm->IsActive());
        EXPECT_EQ(1, observer.expiries.Count());
        EXPECT_EQ(1, callbacks.Count());
    }
}

TEST_F(CIMAlarmTest, OneShotFiresOnceThenStops) {
    Observer observer = Forwarding();
    Counter callbacks;
    auto alarm = TCCIMAlarm::CreateAlarm(&observer, m_task, [&] { callbacks.Add(); },
                                         ALARM_COUNT_ONCE, "one-shot");
    EXPECT_EQ(&observer, alarm->GetObserver());
    EXPECT_EQ("one-shot", alarm->GetAlarmName());
    EXPECT_EQ(ALARM_COUNT_ONCE, alarm->GetAlarmType());
    EXPECT_FALSE(alarm->IsActive());

    const Clock::time_point start = Clock::now();
    alarm->SetTimer(50);
    EXPECT_TRUE(alarm->IsActive());
    ASSERT_TRUE(callbacks.WaitFor(1));
    const Clock::duration late = observer.expiries.Times()[0] - start;
    EXPECT_GE(late, milliseconds(50));
    EXPECT_LT(late, milliseconds(50) + cimtest::Scaled(milliseconds(200)));
    EXPECT_FALSE(alarm->IsActive());
    EXPECT_EQ(1, observer.expiries.Count());
    EXPECT_EQ(1, callbacks.Count());

    // A callback that starts its alarm again restarts it: the start is queued
    // behind the one-shot stop.
    Observer again = Forwarding();
    Counter restarts;
    boost::shared_ptr<TCCIMAlarm> restarting;
    restarting = TCCIMAlarm::CreateAlarm(
        &again, m_task,
        [&] {
            restarts.Add();
            if (restarts.Count() == 1) {
                restarting->SetTimer(10);
            }
        },
        ALARM_COUNT_ONCE, "restarting");
    restarting->SetTimer(10);
    ASSERT_TRUE(restarts.WaitFor(2));
    EXPECT_FALSE(restarting->IsActive());
    EXPECT_EQ(2, again.expiries.Count());
    restarting.reset();
}

TEST_F(CIMAlarmTest, OneShotWithoutRunHandlerStaysActiveUntilStopped) {
    Observer observer;  // does not forward
    Counter callbacks;
    auto alarm = TCCIMAlarm::CreateAlarm(&observer, m_task, [&] { callbacks.Add(); },
                                         ALARM_COUNT_ONCE, "held");
    alarm->SetTimer(10);
    ASSERT_TRUE(observer.expiries.WaitFor(1));
    EXPECT_TRUE(alarm->IsActive());

    // A stop between the expiry and RunHandler cancels the callback.
    alarm->StopTimer();
    alarm->RunHandler();
    alarm->Join();
    EXPECT_FALSE(alarm->IsActive());
    EXPECT_EQ(0, callbacks.Count());

    // The same without the stop runs it.
    alarm->SetTimer(10);
    ASSERT_TRUE(observer.expiries.WaitFor(2));
    alarm->RunHandler();
    EXPECT_FALSE(alarm->IsActive());
    EXPECT_EQ(1, callbacks.Count());
}

TEST_F(CIMAlarmTest, RestartMakesTheEarlierExpiryStale) {
    Observer observer = Forwarding();
    Counter callbacks;
    auto alarm = TCCIMAlarm::CreateAlarm(&observer, m_task, [&] { callbacks.Add(); },
                                         ALARM_COUNT_ONCE, "restarted");
    alarm->SetTimer(20);
    const Clock::time_point restart = Clock::now();
    alarm->SetTimer(120);
    ASSERT_TRUE(callbacks.WaitFor(1));
    EXPECT_GE(observer.expiries.Times()[0] - restart, milliseconds(120))
        << "the first start's expiry reached the observer";
    EXPECT_FALSE(alarm->IsActive());
    EXPECT_EQ(1, observer.expiries.Count());
}

TEST_F(CIMAlarmTest, RepeatingAlarmStaysOnItsGrid) {
    constexpr int kPeriodMs = 50;
    constexpr int kExpiries = 8;
    // Both the observer and the callback take part of each period.
    Observer observer([](boost::shared_ptr<TCCIMAlarm> alarm) {
        std::this_thread::sleep_for(milliseconds(20));
        alarm->RunHandler();
    });
    Counter callbacks;
    auto alarm = TCCIMAlarm::CreateAlarm(
        &observer, m_task,
        [&] {
            std::this_thread::sleep_for(milliseconds(10));
            callbacks.Add();
        },
        ALARM_COUNT_INFINITY, "grid");
    const Clock::time_point start = Clock::now();
    alarm->SetTimer(kPeriodMs);
    ASSERT_TRUE(observer.expiries.WaitFor(kExpiries));
    alarm->StopTimer();
    alarm->Join();
    EXPECT_FALSE(alarm->IsActive());

    const std::vector<Clock::time_point> times = observer.expiries.Times();
    for (int k = 1; k <= kExpiries; ++k) {
        SCOPED_TRACE(k);
        // Times are taken after the observer's 20 ms of work.
        const Clock::duration sinceStart = times[k - 1] - start;
        EXPECT_GE(sinceStart, milliseconds(k * kPeriodMs + 20));
        EXPECT_LT(sinceStart, milliseconds(k * kPeriodMs + 20) + cimtest::Scaled(milliseconds(80)));
    }
    EXPECT_GE(callbacks.Count(), kExpiries - 1);
}

TEST_F(CIMAlarmTest, StopEndsARepeatingAlarmEvenWithoutPeriod) {
    for (const int periodMs : {0, -1}) {
        SCOPED_TRACE(periodMs);
        Observer observer;
        auto alarm = TCCIMAlarm::CreateAlarm(&observer, m_task, [] {}, ALARM_COUNT_INFINITY,
                                             "back-to-back");
        alarm->SetTimer(periodMs);
        ASSERT_TRUE(observer.expiries.WaitFor(20));
        alarm->StopTimer();
        alarm->Join();
        const int atStop = observer.expiries.Count();
        EXPECT_FALSE(alarm->IsActive());
        OnTaskThread([] {});
        EXPECT_EQ(atStop, observer.expiries.Count());
    }
}

TEST_F(CIMAlarmTest, DroppedRunningAlarmKeepsFiringUntilStopped) {
    cimtest::AssertRecorder recorder;
    std::atomic<bool> stop{false};
    Observer observer([&](boost::shared_ptr<TCCIMAlarm> alarm) {
        if (stop) {
            alarm->StopTimer();
        }
    });
    Counter gone;
    boost::weak_ptr<TCCIMAlarm> watch;
    {
        auto sentinel = std::make_shared<Sentinel>(gone);
        auto alarm = TCCIMAlarm::CreateAlarm(&observer, m_task, [sentinel] {},
                                             ALARM_COUNT_INFINITY, "orphan");
        watch = alarm;
        alarm->SetTimer(10);
    }
    ASSERT_TRUE(observer.expiries.WaitFor(5));
    EXPECT_FALSE(watch.expired());
    EXPECT_EQ(0, gone.Count());

    stop = true;
    ASSERT_TRUE(gone.WaitFor(1)) << "a stopped alarm nobody holds must be freed";
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(0u, recorder.Count()) << "it was stopped before it went";
}

TEST_F(CIMAlarmTest, AlarmNotOwnedBySharedPointerNeverStarts) {
    cimtest::AssertRecorder recorder;
    const std::string text = boost::bad_weak_ptr().what();
    Observer observer;
    {
        TCCIMAlarm alarm(&observer, m_task, [] {}, ALARM_COUNT_ONCE, "on the stack");
        alarm.SetTimer(0);
        alarm.StopTimer();
        alarm.RunHandler();
        EXPECT_THROW(alarm.IsActive(), boost::bad_weak_ptr);
        alarm.Join();
        // Anything queued by mistake would have run by the end of this.
        OnTaskThread([] {});
        OnTaskThread([] {});
    }
    EXPECT_EQ(0, observer.expiries.Count());
    EXPECT_EQ(0u, recorder.Count());
    const std::vector<std::string> messages = m_log.Messages();
    EXPECT_EQ((std::vector<std::string>{"CIMAlarm.cpp: SetTimer(134) > " + text,
                                         "CIMAlarm.cpp: StopTimer(98) > " + text,
                                         "CIMAlarm.cpp: RunHandler(152) > " + text}),
              messages);
    EXPECT_EQ(3u, m_log.Count(" E/CI_CORE("));
}

TEST_F(CIMAlarmTest, BrokenContractsAreReportedAndTheAlarmGoesOn) {
    cimtest::AssertRecorder recorder;

    // No observer: reported at each expiry; the repeating one stays armed.
    auto once = TCCIMAlarm::CreateAlarm(nullptr, m_task, [] {}, ALARM_COUNT_ONCE, "no observer");
    auto repeating =
        TCCIMAlarm::CreateAlarm(nullptr, m_task, [] {}, ALARM_COUNT_INFINITY, "no observer");
    ::testing::internal::CaptureStdout();
    once->SetTimer(0);
    repeating->SetTimer(5);
    Observer waiter;
    auto probe = TCCIMAlarm::CreateAlarm(&waiter, m_task, [] {}, ALARM_COUNT_ONCE, "probe");
    probe->SetTimer(60);
    ASSERT_TRUE(waiter.expiries.WaitFor(1));
    repeating->StopTimer();
    repeating->Join();
    once->StopTimer();
    once->Join();
    probe->StopTimer();
    probe->Join();
    const std::string out = ::testing::internal::GetCapturedStdout();
    std::vector<std::string> reports = recorder.Expressions();
    EXPECT_EQ(1, std::count(reports.begin(), reports.end(), "m_alarmObserver != __null"));
    EXPECT_GE(std::count(reports.begin(), reports.end(), "m_alarmObserver != nullptr"), 2);
    EXPECT_NE(std::string::npos, out.find("ASSERT!, Func:m_HandleTimerCountOnce\n"));
    EXPECT_NE(std::string::npos, out.find("ASSERT!, Func:m_HandleTimerCountInfinity\n"));

    // An unknown type arms nothing, stays active and is reported again when
    // destroyed.
    const size_t before = recorder.Count();
    Counter gone;
    Observer observer;
    {
        auto sentinel = std::make_shared<Sentinel>(gone);
        auto odd = TCCIMAlarm::CreateAlarm(&observer, m_task, [sentinel] {},
                                           static_cast<CIM::EAlarmType>(7), "odd");
        odd->SetTimer(0);
        EXPECT_TRUE(odd->IsActive());
    }
    ASSERT_TRUE(gone.WaitFor(1));
    reports = recorder.Expressions();
    EXPECT_EQ((std::vector<std::string>{"0", "m_active == false"}),
              std::vector<std::string>(reports.begin() + before, reports.end()));
    EXPECT_EQ(0, observer.expiries.Count());
}

class LockingObserver : public CIM::TICIMAlarmObserverSafe {
public:
    bool locked = false;  // task's thread only
    int locks = 0;
    int unlocks = 0;

protected:
    void t_LockAlarmObserverSafe() override {
        locked = true;
        ++locks;
    }
    void t_UnlockAlarmObserverSafe() override {
        locked = false;
        ++unlocks;
    }
};

TEST_F(CIMAlarmTest, SafeObserverLocksOnlyWhileForwarding) {
    LockingObserver observer;
    std::promise<bool> lockedDuringCallback;
    auto alarm = TCCIMAlarm::CreateAlarm(
        &observer, m_task, [&] { lockedDuringCallback.set_value(observer.locked); },
        ALARM_COUNT_ONCE, "safe");
    alarm->SetTimer(5);
    EXPECT_FALSE(lockedDuringCallback.get_future().get());
    EXPECT_FALSE(alarm->IsActive());
    OnTaskThread([&] {
        EXPECT_EQ(1, observer.locks);
        EXPECT_EQ(1, observer.unlocks);
    });
}

TEST(CIMAlarmDeathTest, EmptyCallbackEndsTheProcess) {
    EXPECT_DEATH(
        {
            auto task = boost::make_shared<TCCIMTask>("empty-callback");
            Observer observer = Forwarding();
            auto alarm = TCCIMAlarm::CreateAlarm(&observer, task, boost::function<void()>(),
                                                 ALARM_COUNT_ONCE, "empty");
            alarm->SetTimer(0);
            observer.expiries.WaitFor(1);
            task->Join();
        },
        "call to empty boost::function");
}

}  // namespace
