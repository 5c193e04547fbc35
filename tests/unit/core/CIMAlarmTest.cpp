#include <cimcore/CIMAlarm.h>

#include <gtest/gtest.h>

#include "NetTestPeers.h"
#include "TestSupport.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/smart_ptr/bad_weak_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace {

using CIM::ALARM_COUNT_INFINITY;
using CIM::ALARM_COUNT_ONCE;
using CIM::TCCIMAlarm;
using AlarmPtr = boost::shared_ptr<TCCIMAlarm>;
using cimtest::Clock;
using std::chrono::milliseconds;

// Times of events; the test waits for the n-th one instead of sleeping.
using Events = cimtest::Recorder<Clock::time_point>;

// Runs `react` on each expiry, by default forwarding as the stack's observers do.
struct Observer : CIM::TICIMAlarmObserver {
    explicit Observer(std::function<void(AlarmPtr)> react = [](AlarmPtr a) { a->RunHandler(); })
        : react(std::move(react)) {}
    void OnTimer(AlarmPtr alarm) override {
        react(alarm);
        expiries.Add(Clock::now());
    }
    std::function<void(AlarmPtr)> react;
    Events expiries;
};

const auto kHold = [](AlarmPtr) {};  // never forwards

class CIMAlarmTest : public ::testing::Test {
protected:
    // Every test stops and joins its alarms first, as shutting down requires.
    void TearDown() override { m_task->Join(); }

    AlarmPtr Create(Observer* observer, CIM::EAlarmType type = ALARM_COUNT_ONCE) {
        return TCCIMAlarm::CreateAlarm(
            observer, m_task, [this] { m_callbacks.Add(Clock::now()); }, type, "a");
    }

    cimtest::LogCapture m_log;  // before the task: its thread logs
    boost::shared_ptr<CIM::TCCIMTask> m_task = boost::make_shared<CIM::TCCIMTask>("alarm-test");
    Events m_callbacks;
};

// A period of 0 or less fires on the next turn of the loop, never inside
// SetTimer; a restart makes the earlier expiry stale.
TEST_F(CIMAlarmTest, OneShotFiresOnceAfterItsLastStart) {
    Observer observer;
    size_t fired = 0;
    for (const int periodMs : {0, -5}) {
        auto alarm = Create(&observer);
        cimtest::RunOnLoop(m_task, [&] {
            alarm->SetTimer(periodMs);
            EXPECT_EQ(fired, observer.expiries.All().size()) << "fired inside SetTimer";
        });
        ASSERT_TRUE(m_callbacks.AwaitCount(++fired)) << periodMs;
        EXPECT_FALSE(alarm->IsActive());
        EXPECT_EQ(fired, observer.expiries.All().size());
    }
    auto alarm = Create(&observer);
    alarm->SetTimer(20);
    const Clock::time_point restart = Clock::now();
    alarm->SetTimer(120);
    ASSERT_TRUE(m_callbacks.AwaitCount(++fired));
    EXPECT_GE(m_callbacks.All().back() - restart, milliseconds(120)) << "the first start fired";
}

TEST_F(CIMAlarmTest, StopBetweenExpiryAndRunHandlerCancelsTheCallback) {
    Observer observer(kHold);
    auto alarm = Create(&observer);
    // Without the stop, the same steps do run the callback.
    for (const bool stop : {true, false}) {
        SCOPED_TRACE(stop);
        alarm->SetTimer(10);
        ASSERT_TRUE(observer.expiries.AwaitCount(stop ? 1 : 2));
        EXPECT_TRUE(alarm->IsActive()) << "a one-shot alarm waits for RunHandler";
        if (stop) {
            alarm->StopTimer();
        }
        alarm->RunHandler();
        alarm->Join();
        EXPECT_FALSE(alarm->IsActive());
        EXPECT_EQ(stop ? 0u : 1u, m_callbacks.All().size());
    }
}

TEST_F(CIMAlarmTest, RepeatingAlarmStaysOnItsGridAndFiresUntilStopped) {
    constexpr int kPeriodMs = 50;
    constexpr size_t kExpiries = 8;
    // The observer takes part of each period before it forwards.
    Observer observer([](AlarmPtr alarm) {
        std::this_thread::sleep_for(milliseconds(20));
        alarm->RunHandler();
    });
    auto alarm = Create(&observer, ALARM_COUNT_INFINITY);
    const Clock::time_point start = Clock::now();
    alarm->SetTimer(kPeriodMs);
    ASSERT_TRUE(m_callbacks.AwaitCount(kExpiries));
    alarm->StopTimer();
    alarm->Join();
    const std::vector<Clock::time_point> times = m_callbacks.All();
    for (size_t k = 1; k <= kExpiries; ++k) {
        const milliseconds due(k * kPeriodMs + 20);
        EXPECT_GE(times[k - 1] - start, due) << k;
        EXPECT_LT(times[k - 1] - start, due + cimtest::Scaled(milliseconds(80))) << k;
    }

    // Dropped by its owner, an alarm keeps firing, here back to back with a
    // period of 0 or less, until stopped.
    Observer busy(kHold);
    boost::weak_ptr<TCCIMAlarm> watch;
    for (const int periodMs : {0, -1}) {
        alarm = Create(&busy, ALARM_COUNT_INFINITY);
        alarm->SetTimer(periodMs);
        watch = alarm;
        alarm.reset();
        ASSERT_TRUE(busy.expiries.AwaitCount(busy.expiries.All().size() + 20));
        alarm = watch.lock();
        alarm->StopTimer();
        alarm->Join();
        const size_t atStop = busy.expiries.All().size();
        cimtest::RunOnLoop(m_task);
        EXPECT_EQ(atStop, busy.expiries.All().size()) << periodMs;
    }
    alarm.reset();
    m_task->Join();  // would wait for ever on an alarm still armed
    EXPECT_TRUE(watch.expired());
}

// The two expiry handlers report a missing observer each with its own text.
TEST_F(CIMAlarmTest, MissingObserverIsReportedAtEachExpiry) {
    cimtest::AssertRecorder recorder;
    AlarmPtr once = Create(nullptr);
    AlarmPtr repeating = Create(nullptr, ALARM_COUNT_INFINITY);
    once->SetTimer(0);
    repeating->SetTimer(5);
    Observer probe(kHold);  // expires after both of the others
    AlarmPtr later = Create(&probe);
    later->SetTimer(60);
    ASSERT_TRUE(probe.expiries.AwaitCount(1));
    for (const AlarmPtr& alarm : {once, repeating, later}) {
        alarm->StopTimer();
        alarm->Join();
    }
    const std::vector<std::string> reports = recorder.Expressions();
    EXPECT_EQ(1, std::count(reports.begin(), reports.end(), "m_alarmObserver != __null"));
    EXPECT_GE(std::count(reports.begin(), reports.end(), "m_alarmObserver != nullptr"), 1);
}

TEST_F(CIMAlarmTest, AlarmNotOwnedBySharedPointerNeverStarts) {
    Observer observer;
    {
        TCCIMAlarm alarm(
            &observer, m_task, [] {}, ALARM_COUNT_ONCE, "on the stack");
        alarm.SetTimer(0);
        alarm.StopTimer();
        alarm.RunHandler();
        alarm.Join();
        // Anything queued by mistake would have run by the end of this.
        cimtest::RunOnLoop(m_task);
        cimtest::RunOnLoop(m_task);
    }
    EXPECT_EQ(0u, observer.expiries.All().size());
    EXPECT_EQ(3u, m_log.Count(std::string("> ") + boost::bad_weak_ptr().what()));
}

// Several threads start, restart and stop alarms at once and drop them with
// their requests still queued, so request memory is taken on one thread and
// given back on another: an alarm that was never stopped calls back exactly
// once, a stopped one at most once, and every alarm is freed once the loop
// has drained.
TEST_F(CIMAlarmTest, AlarmsDroppedByManyThreadsWithRequestsInFlight) {
    constexpr int kThreads = 4;
    constexpr int kAlarms = 150;
    Observer observer;
    std::vector<std::atomic<int>> calls(kThreads * kAlarms);
    std::vector<boost::weak_ptr<TCCIMAlarm>> alarms(kThreads * kAlarms);
    std::vector<char> stopped(kThreads * kAlarms, 0);
    cimtest::RunThreads(kThreads, [&](int t) {
        for (int i = 0; i < kAlarms; ++i) {
            const int k = t * kAlarms + i;
            AlarmPtr alarm = TCCIMAlarm::CreateAlarm(
                &observer, m_task, [&calls, k] { ++calls[k]; }, ALARM_COUNT_ONCE, "a");
            alarms[k] = alarm;
            alarm->SetTimer(10000);  // replaced at once: its expiry is stale
            alarm->SetTimer(i % 3);
            if (i % 4 == 0) {
                stopped[k] = 1;
                alarm->StopTimer();
                if (i % 8 == 0) {
                    alarm->Join();
                }
            }
        }
    });
    // Nothing repeats and the long timers were replaced: the loop drains.
    m_task->Join();
    for (int k = 0; k < kThreads * kAlarms; ++k) {
        SCOPED_TRACE(k);
        if (stopped[k]) {
            EXPECT_LE(calls[k].load(), 1);
        } else {
            EXPECT_EQ(1, calls[k].load());
        }
        EXPECT_TRUE(alarms[k].expired());
    }
}

}  // namespace
