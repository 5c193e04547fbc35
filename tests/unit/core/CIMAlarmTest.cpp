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

// Counts events with their times and lets the test wait for the n-th one.
class Counter {
public:
    void Add() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_times.push_back(Clock::now());
        m_changed.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, cimtest::Scaled(milliseconds(3000)),
                                  [&] { return m_times.size() >= count; });
    }
    size_t Count() { return Times().size(); }
    std::vector<Clock::time_point> Times() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_times;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Clock::time_point> m_times;  // guarded by m_mutex
};

// Counts expiries after running `react` (on the task's thread); by default
// it forwards to RunHandler, as the stack's observers do.
class Observer : public CIM::TICIMAlarmObserver {
public:
    explicit Observer(std::function<void(boost::shared_ptr<TCCIMAlarm>)> react =
                          [](boost::shared_ptr<TCCIMAlarm> alarm) { alarm->RunHandler(); })
        : m_react(std::move(react)) {}
    void OnTimer(boost::shared_ptr<TCCIMAlarm> alarm) override {
        m_react(alarm);
        expiries.Add();
    }
    Counter expiries;

private:
    std::function<void(boost::shared_ptr<TCCIMAlarm>)> m_react;
};

const auto kHold = [](boost::shared_ptr<TCCIMAlarm>) {};  // never forwards

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

    boost::shared_ptr<TCCIMAlarm> Create(Observer& observer, Counter& callbacks,
                                         CIM::EAlarmType type = ALARM_COUNT_ONCE) {
        return TCCIMAlarm::CreateAlarm(
            &observer, m_task, [&] { callbacks.Add(); }, type, "a");
    }

    cimtest::LogCapture m_log;  // before the task: its thread logs
    boost::shared_ptr<TCCIMTask> m_task = boost::make_shared<TCCIMTask>("alarm-test");
};

// A one-shot alarm calls its observer once and is inactive after RunHandler.
TEST_F(CIMAlarmTest, ZeroAndNegativePeriodsFireOnceOnTheNextTurn) {
    for (const int periodMs : {0, -5, -2000000000}) {
        SCOPED_TRACE(periodMs);
        Observer observer;
        Counter callbacks;
        auto alarm = Create(observer, callbacks);
        // Asked on the task's own thread, the start is only queued.
        OnTaskThread([&] {
            alarm->SetTimer(periodMs);
            EXPECT_EQ(0u, observer.expiries.Count());
        });
        ASSERT_TRUE(callbacks.WaitFor(1));
        EXPECT_FALSE(alarm->IsActive());
        EXPECT_EQ(1u, observer.expiries.Count());
        EXPECT_EQ(1u, callbacks.Count());
    }
}

TEST_F(CIMAlarmTest, RestartMakesTheEarlierExpiryStale) {
    Observer observer;
    Counter callbacks;
    boost::shared_ptr<TCCIMAlarm> alarm;
    alarm = TCCIMAlarm::CreateAlarm(
        &observer, m_task,
        [&] {
            // Queued behind the one-shot stop, so this restart is not lost.
            if (callbacks.Count() == 0) {
                alarm->SetTimer(10);
            }
            callbacks.Add();
        },
        ALARM_COUNT_ONCE, "restarted");
    alarm->SetTimer(20);
    const Clock::time_point restart = Clock::now();
    alarm->SetTimer(120);
    ASSERT_TRUE(callbacks.WaitFor(2));
    const std::vector<Clock::time_point> times = observer.expiries.Times();
    EXPECT_GE(times[0] - restart, milliseconds(120)) << "the first start's expiry came through";
    EXPECT_GE(times[1] - times[0], milliseconds(10));
    EXPECT_FALSE(alarm->IsActive());
    EXPECT_EQ(2u, observer.expiries.Count());
}

TEST_F(CIMAlarmTest, StopBetweenExpiryAndRunHandlerCancelsTheCallback) {
    Observer observer(kHold);
    Counter callbacks;
    auto alarm = Create(observer, callbacks);
    for (const bool stop : {true, false}) {
        SCOPED_TRACE(stop);
        alarm->SetTimer(10);
        ASSERT_TRUE(observer.expiries.WaitFor(stop ? 1 : 2));
        EXPECT_TRUE(alarm->IsActive()) << "a one-shot alarm waits for RunHandler";
        if (stop) {
            alarm->StopTimer();
        }
        alarm->RunHandler();
        alarm->Join();
        EXPECT_FALSE(alarm->IsActive());
        EXPECT_EQ(stop ? 0u : 1u, callbacks.Count());
    }
}

TEST_F(CIMAlarmTest, RepeatingAlarmStaysOnItsGridUntilStopped) {
    constexpr int kPeriodMs = 50;
    constexpr size_t kExpiries = 8;
    // The observer takes part of each period before it forwards.
    Observer observer([](boost::shared_ptr<TCCIMAlarm> alarm) {
        std::this_thread::sleep_for(milliseconds(20));
        alarm->RunHandler();
    });
    Counter callbacks;
    auto alarm = Create(observer, callbacks, ALARM_COUNT_INFINITY);
    const Clock::time_point start = Clock::now();
    alarm->SetTimer(kPeriodMs);
    ASSERT_TRUE(callbacks.WaitFor(kExpiries));
    alarm->StopTimer();
    alarm->Join();
    EXPECT_FALSE(alarm->IsActive());
    const std::vector<Clock::time_point> times = callbacks.Times();
    for (size_t k = 1; k <= kExpiries; ++k) {
        SCOPED_TRACE(k);
        const milliseconds due(k * kPeriodMs + 20);
        EXPECT_GE(times[k - 1] - start, due);
        EXPECT_LT(times[k - 1] - start, due + cimtest::Scaled(milliseconds(80)));
    }

    // A period of 0 or less fires back to back; a stop still ends it.
    Observer busy(kHold);
    for (const int periodMs : {0, -1}) {
        SCOPED_TRACE(periodMs);
        alarm = Create(busy, callbacks, ALARM_COUNT_INFINITY);
        alarm->SetTimer(periodMs);
        ASSERT_TRUE(busy.expiries.WaitFor(busy.expiries.Count() + 20));
        alarm->StopTimer();
        alarm->Join();
        const size_t atStop = busy.expiries.Count();
        EXPECT_FALSE(alarm->IsActive());
        OnTaskThread([] {});
        EXPECT_EQ(atStop, busy.expiries.Count());
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
        auto alarm = TCCIMAlarm::CreateAlarm(
            &observer, m_task, [sentinel] {}, ALARM_COUNT_INFINITY, "orphan");
        watch = alarm;
        alarm->SetTimer(10);
    }
    ASSERT_TRUE(observer.expiries.WaitFor(5));
    EXPECT_FALSE(watch.expired());
    EXPECT_EQ(0u, gone.Count());

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
        TCCIMAlarm alarm(
            &observer, m_task, [] {}, ALARM_COUNT_ONCE, "on the stack");
        alarm.SetTimer(0);
        alarm.StopTimer();
        alarm.RunHandler();
        EXPECT_THROW(alarm.IsActive(), boost::bad_weak_ptr);
        alarm.Join();
        // Anything queued by mistake would have run by the end of this.
        OnTaskThread([] {});
        OnTaskThread([] {});
    }
    EXPECT_EQ(0u, observer.expiries.Count());
    EXPECT_EQ(0u, recorder.Count());
    EXPECT_EQ((std::vector<std::string>{"CIMAlarm.cpp: SetTimer(134) > " + text,
                                        "CIMAlarm.cpp: StopTimer(98) > " + text,
                                        "CIMAlarm.cpp: RunHandler(152) > " + text}),
              m_log.Messages());
    EXPECT_EQ(3u, m_log.Count(" E/CI_CORE("));
}

TEST_F(CIMAlarmTest, BrokenContractsAreReportedAndTheAlarmGoesOn) {
    cimtest::AssertRecorder recorder;

    // No observer: reported at each expiry; the repeating one stays armed.
    auto once = TCCIMAlarm::CreateAlarm(
        nullptr, m_task, [] {}, ALARM_COUNT_ONCE, "no observer");
    auto repeating = TCCIMAlarm::CreateAlarm(
        nullptr, m_task, [] {}, ALARM_COUNT_INFINITY, "no observer");
    once->SetTimer(0);
    repeating->SetTimer(5);
    Observer waiter(kHold);
    Counter unused;
    auto probe = Create(waiter, unused);
    probe->SetTimer(60);
    ASSERT_TRUE(waiter.expiries.WaitFor(1));
    for (const auto& alarm : {repeating, once, probe}) {
        alarm->StopTimer();
        alarm->Join();
    }
    std::vector<std::string> reports = recorder.Expressions();
    EXPECT_EQ(1, std::count(reports.begin(), reports.end(), "m_alarmObserver != __null"));
    EXPECT_GE(std::count(reports.begin(), reports.end(), "m_alarmObserver != nullptr"), 2);

    // An unknown type arms nothing, stays active and is reported again when
    // destroyed.
    const size_t before = recorder.Count();
    Counter gone;
    Observer observer;
    {
        auto sentinel = std::make_shared<Sentinel>(gone);
        auto odd = TCCIMAlarm::CreateAlarm(
            &observer, m_task, [sentinel] {}, static_cast<CIM::EAlarmType>(7), "odd");
        odd->SetTimer(0);
        EXPECT_TRUE(odd->IsActive());
    }
    ASSERT_TRUE(gone.WaitFor(1));
    reports = recorder.Expressions();
    EXPECT_EQ((std::vector<std::string>{"0", "m_active == false"}),
              std::vector<std::string>(reports.begin() + before, reports.end()));
    EXPECT_EQ(0u, observer.expiries.Count());
}

class LockingObserver : public CIM::TICIMAlarmObserverSafe {
public:
    bool locked = false;  // task's thread only
    int locks = 0;

protected:
    void t_LockAlarmObserverSafe() override { locked = ++locks > 0; }
    void t_UnlockAlarmObserverSafe() override { locked = false; }
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
    OnTaskThread([&] { EXPECT_EQ(1, observer.locks); });
}

TEST(CIMAlarmDeathTest, EmptyCallbackEndsTheProcess) {
    EXPECT_DEATH(
        {
            auto task = boost::make_shared<TCCIMTask>("empty-callback");
            Observer observer;
            auto alarm = TCCIMAlarm::CreateAlarm(&observer, task, boost::function<void()>(),
                                                 ALARM_COUNT_ONCE, "empty");
            alarm->SetTimer(0);
            observer.expiries.WaitFor(1);
            task->Join();
        },
        "call to empty boost::function");
}

}  // namespace
