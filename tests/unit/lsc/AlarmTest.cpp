#include <cimcore/internal/lsc/Alarm.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/prctl.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A task that records the types of the events executed by its own handler.
class RecordingTask : public TCTask {
public:
    std::vector<unsigned long> Types() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_types;
    }

protected:
    bool t_OnEvent(const TSEvent* event) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_types.push_back(event->type);
        return TCTask::t_OnEvent(event);
    }

private:
    std::mutex m_mutex;
    std::vector<unsigned long> m_types;  // guarded by m_mutex
};

// An alarm whose hook counts its calls and notes the thread it ran on.
class CountingAlarm : public TCAlarm {
public:
    std::atomic<int> hookCalls{0};
    std::atomic<bool> hookResult{false};
    std::atomic<pthread_t> hookThread{0};

protected:
    bool t_OnAlarm(const TSEvent*) override {
        hookThread = pthread_self();
        ++hookCalls;
        return hookResult;
    }
};

class ExposedStateAlarm : public TCStateAlarm {
public:
    using TCStateAlarm::t_OnAlarm;
};

// What the raw callbacks count, passed to them as their context.
struct CallbackLog {
    std::atomic<int> before{0};
    std::atomic<int> after{0};
    std::atomic<bool> beforeResult{false};
    std::atomic<bool> afterResult{false};
    std::atomic<pthread_t> thread{0};
};

bool RawBefore(const TSEvent*, const void* context) {
    auto* log = static_cast<CallbackLog*>(const_cast<void*>(context));
    log->thread = pthread_self();
    ++log->before;
    return log->beforeResult;
}

bool RawAfter(const TSEvent*, const void* context) {
    auto* log = static_cast<CallbackLog*>(const_cast<void*>(context));
    ++log->after;
    return log->afterResult;
}

// Holds the task's thread inside a user event until released.
struct Gate {
    std::promise<void> entered;
    std::promise<void> release;
};

bool HoldTask(const TSEvent*, const void* context) {
    auto* gate = static_cast<Gate*>(const_cast<void*>(context));
    gate->entered.set_value();
    gate->release.get_future().wait();
    return true;
}

class AlarmTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LegacyCoreExport::Init());
        ASSERT_TRUE(m_task.Create("alarm-task", 0, 0, 0));
    }
    void TearDown() override {
        TSEvent exit;
        exit.receiver = &m_task;
        exit.type = EVENT_EXIT;
        TCTask::Send(&exit, false, false);
        m_task.Destroy();
        LegacyCoreExport::Destroy();
    }

    // Sends an event to `receiver` and returns once the task executed it.
    bool Execute(TCHandler* receiver, unsigned long type) {
        TSEvent event;
        event.receiver = receiver;
        event.type = type;
        return TCTask::Send(&event, true, false);
    }
    bool Queue(TCHandler* receiver, unsigned long type) {
        TSEvent event;
        event.receiver = receiver;
        event.type = type;
        return TCTask::Send(&event, false, false);
    }
    unsigned int Queued(const TCHandler* receiver) {
        unsigned int count = 0;
        m_task.Find(receiver, &count);
        return count;
    }

    RecordingTask m_task;
};

TEST_F(AlarmTest, PeriodAndCountAreStoredAs32BitValuesWithAFloor) {
    TCAlarm alarm;
    ASSERT_TRUE(alarm.Create(&m_task, 5, 3));
    EXPECT_EQ(alarm.Period(), 10u);
    EXPECT_EQ(alarm.Count(), 3u);

    alarm.Reset(10, 4294967295ul);
    EXPECT_EQ(alarm.Period(), 10u);
    EXPECT_EQ(alarm.Count(), TCAlarm::kNoEnd);
    alarm.Reset(0, static_cast<unsigned long>(-1));
    EXPECT_EQ(alarm.Period(), 10u);
    EXPECT_EQ(alarm.Count(), TCAlarm::kNoEnd);
    alarm.Reset(11, 0);
    EXPECT_EQ(alarm.Period(), 11u);
    EXPECT_EQ(alarm.Count(), 0u);
    if (sizeof(unsigned long) > 4) {
        // Truncated first, then floored: 2^32 + 5 is a period of 5.
        alarm.Reset(static_cast<unsigned long>((uint64_t(1) << 32) + 5), 2);
        EXPECT_EQ(alarm.Period(), 10u);
    }
    alarm.Destroy();
    EXPECT_FALSE(alarm.FlagCreate());

    TCStateAlarm state;
    ASSERT_TRUE(state.Create(&m_task, 42, 5, -1));
    EXPECT_EQ(state.Period(), 10u);
    EXPECT_EQ(state.Count(), TCAlarm::kNoEnd);
    EXPECT_EQ(state.State(), 42);
    state.Destroy();
}

TEST_F(AlarmTest, ResetAndDestroyReturnPromptlyFromAnyThread) {
    const auto quick = cimtest::Scaled(500ms);
    CountingAlarm endless;
    CountingAlarm limited;
    CountingAlarm exhausted;
    ASSERT_TRUE(endless.Create(&m_task, 10, 4294967295ul));
    ASSERT_TRUE(limited.Create(&m_task, 10, 2));
    ASSERT_TRUE(exhausted.Create(&m_task, 10, 0));  // waits for a Reset at once

    // Let several periods run out: the alarm threads are now past their
    // first period, where they wait until the next Reset or Destroy. There
    // is nothing to hand over; time itself has to pass.
    std::this_thread::sleep_for(60ms);

    auto start = Clock::now();
    std::thread([&] {
        endless.Reset(10, 4294967295ul);
        limited.Reset(20, 1);
        exhausted.Reset(10, 1);
    }).join();
    EXPECT_LT(Clock::now() - start, quick);

    // From the task's own thread, inside a user event.
    TCAlarm* const alarms[] = {&endless, &limited, &exhausted};
    ASSERT_TRUE(m_task.SetEventCallback(
        EVENT_USER,
        [](const TSEvent*, const void* context) {
            for (TCAlarm* alarm : *static_cast<TCAlarm* const(*)[3]>(context)) {
                alarm->Reset(15, 3);
            }
            return true;
        },
        nullptr, &alarms));
    std::this_thread::sleep_for(40ms);
    start = Clock::now();
    ASSERT_TRUE(Execute(&m_task, EVENT_USER));
    EXPECT_LT(Clock::now() - start, quick);
    EXPECT_EQ(limited.Count(), 3u);
    EXPECT_EQ(limited.Period(), 15u);

    std::this_thread::sleep_for(40ms);
    start = Clock::now();
    std::thread([&] {
        for (TCAlarm* alarm : alarms) {
            alarm->Destroy();
        }
    }).join();
    EXPECT_LT(Clock::now() - start, quick);
    for (TCAlarm* alarm : alarms) {
        EXPECT_FALSE(alarm->FlagCreate());
    }

    // The alarm threads never queue an alarm event of their own.
    EXPECT_EQ(endless.hookCalls + limited.hookCalls + exhausted.hookCalls, 0);

    // Destroy straight after Create, before the thread may even have started.
    CountingAlarm brief;
    ASSERT_TRUE(brief.Create(&m_task, 1000, 1));
    start = Clock::now();
    brief.Destroy();
    EXPECT_LT(Clock::now() - start, quick);
}

TEST_F(AlarmTest, ResetAndDestroyDropAlarmEventsStillQueued) {
    CountingAlarm alarm;
    CountingAlarm doomed;
    ASSERT_TRUE(alarm.Create(&m_task, 1000, 1));
    ASSERT_TRUE(doomed.Create(&m_task, 1000, 1));

    Gate gate;
    ASSERT_TRUE(m_task.SetEventCallback(EVENT_USER, HoldTask, nullptr, &gate));
    ASSERT_TRUE(Queue(&m_task, EVENT_USER));
    gate.entered.get_future().wait();

    // The task is busy: these wait in its queue.
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(Queue(&alarm, EVENT_ALARM));
    }
    ASSERT_TRUE(Queue(&m_task, EVENT_PING));
    EXPECT_EQ(Queued(&alarm), 3u);
    alarm.Reset(1000, 1);
    EXPECT_EQ(Queued(&alarm), 0u);
    EXPECT_EQ(Queued(&m_task), 1u) << "Reset removed an event that was not the alarm's";

    ASSERT_TRUE(Queue(&doomed, EVENT_ALARM));
    ASSERT_TRUE(Queue(&alarm, EVENT_ALARM));
    EXPECT_TRUE(doomed.Destroy());
    EXPECT_EQ(Queued(&doomed), 0u);
    EXPECT_EQ(Queued(&alarm), 1u);

    gate.release.set_value();
    // Executed after everything still queued ahead of it.
    ASSERT_TRUE(Execute(&alarm, EVENT_ALARM));
    EXPECT_EQ(alarm.hookCalls, 2) << "dropped alarm events were executed";
    EXPECT_EQ(doomed.hookCalls, 0);
    alarm.Destroy();
}

TEST_F(AlarmTest, CallbacksSurroundTheHookOnTheTasksThread) {
    CountingAlarm alarm;
    ASSERT_TRUE(alarm.Create(&m_task, 1000, 1));
    CallbackLog log;

    EXPECT_FALSE(alarm.SetEventCallback(1, RawBefore, RawAfter, &log));
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, RawBefore, RawAfter, &log));
    TFEventCallback before = nullptr;
    TFEventCallback after = nullptr;
    const void* context = nullptr;
    EXPECT_FALSE(alarm.GetEventCallback(1, &before, &after, &context));
    ASSERT_TRUE(alarm.GetEventCallback(EVENT_ALARM, &before, &after, &context));
    EXPECT_EQ(before, &RawBefore);
    EXPECT_EQ(after, &RawAfter);
    EXPECT_EQ(context, &log);

    // A before callback that returns true stands in for the hook; the after
    // callback runs all the same.
    log.beforeResult = true;
    ASSERT_TRUE(Execute(&alarm, EVENT_ALARM));
    EXPECT_EQ(log.before, 1);
    EXPECT_EQ(alarm.hookCalls, 0);
    EXPECT_EQ(log.after, 1);
    EXPECT_TRUE(pthread_equal(log.thread, m_task.Id()));

    log.beforeResult = false;
    ASSERT_TRUE(Execute(&alarm, EVENT_ALARM));
    EXPECT_EQ(log.before, 2);
    EXPECT_EQ(alarm.hookCalls, 1);
    EXPECT_EQ(log.after, 2);
    EXPECT_TRUE(pthread_equal(alarm.hookThread, m_task.Id()));

    // The result: the before callback's true, else the hook's, ORed with the after's.
    TSEvent event;
    event.receiver = &alarm;
    struct Case {
        bool before, hook, after, result;
    };
    for (const Case& c : {Case{true, false, false, true}, Case{false, false, false, false},
                          Case{false, true, false, true}, Case{false, false, true, true}}) {
        log.beforeResult = c.before;
        alarm.hookResult = c.hook;
        log.afterResult = c.after;
        EXPECT_EQ(alarm.OnAlarm(&event), c.result)
            << "before " << c.before << " hook " << c.hook << " after " << c.after;
    }

    // A null pointer keeps the function set before; the raw pointers are
    // stored as given.
    CallbackLog second;
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, nullptr, RawAfter, &second));
    ASSERT_TRUE(alarm.GetEventCallback(EVENT_ALARM, &before, nullptr, nullptr));
    EXPECT_EQ(before, nullptr);
    const int beforeCalls = log.before;
    alarm.OnAlarm(&event);
    EXPECT_EQ(log.before, beforeCalls + 1);
    EXPECT_EQ(second.after, 1);

    // The function setters replace or clear what the raw pointers bound.
    int functionCalls = 0;
    alarm.SetCallbackBefore([&functionCalls](const TSEvent*) {
        ++functionCalls;
        return true;
    });
    alarm.SetCallbackAfter(TCAlarm::TFAlarmFunction());
    const int hookCalls = alarm.hookCalls;
    EXPECT_TRUE(alarm.OnAlarm(&event));
    EXPECT_EQ(functionCalls, 1);
    EXPECT_EQ(alarm.hookCalls, hookCalls);
    EXPECT_EQ(second.after, 1);
    alarm.SetCallbackBefore(TCAlarm::TFAlarmFunction());
    alarm.hookResult = false;
    EXPECT_FALSE(alarm.OnAlarm(&event));
    EXPECT_EQ(alarm.hookCalls, hookCalls + 1);

    alarm.Destroy();
}

TEST_F(AlarmTest, ContractViolationsAreReported) {
    cimtest::LogCapture capture;
    cimtest::AssertRecorder asserts;
    testing::internal::CaptureStdout();

    CountingAlarm alarm;
    EXPECT_FALSE(alarm.Create(nullptr, 100, 1));
    RecordingTask idle;
    EXPECT_FALSE(alarm.Create(&idle, 100, 1));
    EXPECT_FALSE(alarm.FlagCreate());

    ASSERT_TRUE(alarm.Create(&m_task, 100, 1));
    CallbackLog log;
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, RawBefore, RawAfter, &log));
    // An event of another type reaches neither the callbacks nor the hook.
    ASSERT_TRUE(Execute(&alarm, 5));
    EXPECT_EQ(log.before + log.after + alarm.hookCalls, 0);
    alarm.Destroy();
    alarm.Reset(10, 1);

    testing::internal::GetCapturedStdout();
    EXPECT_EQ(asserts.Expressions(),
              (std::vector<std::string>{"task != NULL",
                                        "(const_cast<TCTask*>(task))->FlagCreate() == true",
                                        "event->type == EVENT_ALARM", "FlagCreate() == true"}));
}

TEST_F(AlarmTest, StateAlarmTurnsAlarmEventsIntoStateEvents) {
    ExposedStateAlarm alarm;
    ASSERT_TRUE(alarm.Create(&m_task, 42, 1000, -1));

    // The state event is queued while the alarm event runs, so a ping sent
    // afterwards is executed after it.
    ASSERT_TRUE(Execute(&alarm, EVENT_ALARM));
    ASSERT_TRUE(Execute(&m_task, EVENT_PING));
    EXPECT_EQ(m_task.Types(), (std::vector<unsigned long>{42, EVENT_PING}));

    // Other types send nothing; the hook answers false either way.
    TSEvent event;
    event.receiver = &alarm;
    event.type = 7;
    EXPECT_FALSE(alarm.t_OnAlarm(&event));
    event.type = EVENT_ALARM;
    EXPECT_FALSE(alarm.t_OnAlarm(&event));
    ASSERT_TRUE(Execute(&m_task, EVENT_PING));
    EXPECT_EQ(m_task.Types(), (std::vector<unsigned long>{42, EVENT_PING, 42, EVENT_PING}));

    alarm.Destroy();
}

TEST_F(AlarmTest, ThreadIsNamedAfterTheCreatingThread) {
    struct Case {
        const char* creator;
        const char* expected;
    };
    for (const Case& c : {Case{"abcd", "TCAlarm:abcd"}, Case{"thirteenchars", "TCAlarm:thirtee"}}) {
        TCAlarm alarm;
        std::thread([&] {
            ASSERT_EQ(prctl(PR_SET_NAME, c.creator, 0, 0, 0), 0);
            ASSERT_TRUE(alarm.Create(&m_task, 1000, 1));
        }).join();
        ASSERT_TRUE(alarm.FlagCreate());
        EXPECT_STREQ(alarm.Name(), c.expected);
        alarm.Destroy();
    }
}

}  // namespace
