#include <cimcore/CIMAlarm.h>

#include <gtest/gtest.h>

#include "NetTestPeers.h"

#include <algorithm>
#include <atomic>

#include <boost/smart_ptr/bad_weak_ptr.hpp>
#include <boost/weak_ptr.hpp>

namespace {

using namespace CIM;
using AlarmPtr = boost::shared_ptr<TCCIMAlarm>;
using cimtest::Clock;
using std::chrono::milliseconds;

// Times of events; the test waits for the n-th one instead of sleeping.
using Events = cimtest::Recorder<Clock::time_point>;

// Runs `react` on each expiry, by default forwarding as the stack's observers do.
struct Observer : TICIMAlarmObserver {
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

    AlarmPtr Create(Observer* observer, EAlarmType type = ALARM_COUNT_ONCE) {
        return TCCIMAlarm::CreateAlarm(
            observer, m_task, [this] { m_callbacks.Add(Clock::now()); }, type, "a");
    }

    cimtest::LogCapture m_log;  // before the task: its thread logs
    boost::shared_ptr<TCCIMTask> m_task = boost::make_shared<TCCIMTask>("alarm-test");
    Events m_callbacks;
};

// A period of 0 or less fires on the next turn of the loop, never inside
// SetTimer. A stop between expiry and RunHandler cancels the callback; without
// the stop the same steps run it.
TEST_F(CIMAlarmTest, OneShotFiresOnceAndAStopBeforeRunHandlerCancelsIt) {
    Observer observer(kHold);
    auto alarm = Create(&observer);
    for (const size_t stop : {1, 0}) {
        SCOPED_TRACE(stop);
        cimtest::RunOnLoop(m_task, [&] {
            alarm->SetTimer(stop ? 0 : -1);
            EXPECT_EQ(1 - stop, observer.expiries.All().size()) << "fired inside SetTimer";
        });
        ASSERT_TRUE(observer.expiries.AwaitCount(2 - stop));
        EXPECT_TRUE(alarm->IsActive()) << "a one-shot alarm waits for RunHandler";
        if (stop) {
            alarm->StopTimer();
        }
        alarm->RunHandler();
        alarm->Join();
        EXPECT_FALSE(alarm->IsActive());
        EXPECT_EQ(1 - stop, m_callbacks.All().size());
    }
}

// Dropped by its owner, a repeating alarm keeps firing until stopped.
TEST_F(CIMAlarmTest, RepeatingAlarmStaysOnItsGridAndFiresUntilStopped) {
    constexpr int kPeriodMs = 50;
    constexpr size_t kExpiries = 8;
    // The observer takes part of each period before it forwards.
    Observer observer([](AlarmPtr alarm) {
        std::this_thread::sleep_for(milliseconds(20));
        alarm->RunHandler();
    });
    AlarmPtr alarm = Create(&observer, ALARM_COUNT_INFINITY);
    const boost::weak_ptr<TCCIMAlarm> watch = alarm;
    const Clock::time_point start = Clock::now();
    alarm->SetTimer(kPeriodMs);
    alarm.reset();
    ASSERT_TRUE(m_callbacks.AwaitCount(kExpiries));
    alarm = watch.lock();
    alarm->StopTimer();
    alarm->Join();
    const size_t atStop = m_callbacks.All().size();
    alarm.reset();
    m_task->Join();  // would wait for ever on an alarm still armed
    EXPECT_TRUE(watch.expired());
    const std::vector<Clock::time_point> times = m_callbacks.All();
    EXPECT_EQ(atStop, times.size()) << "fired after the stop";
    for (size_t k = 1; k <= kExpiries; ++k) {
        const milliseconds due(k * kPeriodMs + 20);
        EXPECT_GE(times[k - 1] - start, due) << k;
        EXPECT_LT(times[k - 1] - start, due + cimtest::Scaled(milliseconds(80))) << k;
    }
}

// Misuse is reported, not a crash: a missing observer by each expiry handler
// with its own text; an alarm not owned by a shared pointer at each call, and
// it never starts.
TEST_F(CIMAlarmTest, MissingObserverAndMissingOwnerAreReported) {
    cimtest::AssertRecorder recorder;
    AlarmPtr once = Create(nullptr);
    AlarmPtr repeating = Create(nullptr, ALARM_COUNT_INFINITY);
    once->SetTimer(0);
    repeating->SetTimer(5);  // expires after the other: the loop keeps their order
    ASSERT_TRUE(cimtest::WaitUntil([&] { return recorder.Expressions().size() >= 2; }));
    for (const AlarmPtr& alarm : {once, repeating}) {
        alarm->StopTimer();
        alarm->Join();
    }
    const std::vector<std::string> reports = recorder.Expressions();
    EXPECT_EQ(1, std::count(reports.begin(), reports.end(), "m_alarmObserver != __null"));
    EXPECT_GE(std::count(reports.begin(), reports.end(), "m_alarmObserver != nullptr"), 1);

    Observer probe(kHold);
    TCCIMAlarm unowned(
        &probe, m_task, [] {}, ALARM_COUNT_ONCE, "on the stack");
    unowned.SetTimer(0);
    unowned.StopTimer();
    unowned.RunHandler();
    unowned.Join();
    cimtest::RunOnLoop(m_task);  // anything queued by mistake has run
    EXPECT_EQ(0u, probe.expiries.All().size());
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
    const auto held = std::make_shared<int>();  // by every alarm's callback until it is freed
    cimtest::RunThreads(kThreads, [&](int t) {
        for (int i = 0; i < kAlarms; ++i) {
            const int k = t * kAlarms + i;
            AlarmPtr alarm = TCCIMAlarm::CreateAlarm(
                &observer, m_task, [&calls, k, held] { ++calls[k]; }, ALARM_COUNT_ONCE, "a");
            alarm->SetTimer(60000);  // replaced at once: cancelled, not left to expire
            alarm->SetTimer(i % 3);
            if (i % 4 == 0) {  // stopped, every other one joined too
                alarm->StopTimer();
                if (i % 8 == 0) {
                    alarm->Join();
                }
            }
        }
    });
    // Nothing repeats and the long timers were replaced: the loop drains.
    const Clock::time_point drain = Clock::now();
    m_task->Join();
    EXPECT_LT(cimtest::Since(drain), cimtest::Scaled(milliseconds(5000)));
    for (int k = 0; k < kThreads * kAlarms; ++k) {
        SCOPED_TRACE(k);
        EXPECT_LE(calls[k].load(), 1);
        EXPECT_GE(calls[k].load(), k % kAlarms % 4 != 0 ? 1 : 0);  // once unless stopped
    }
    EXPECT_EQ(held.use_count(), 1) << "an alarm was not freed";
}

}  // namespace
