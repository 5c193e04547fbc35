#include <cimcore/internal/lsc/Alarm.h>

#include "LscTestSupport.h"

#include <gtest/gtest.h>

#include <string>

#include <sys/prctl.h>

namespace {

using namespace std::chrono_literals;
using cimtest::After;
using cimtest::Before;
using cimtest::Clock;
using cimtest::SendTo;

// An alarm whose hook counts its calls.
class CountingAlarm : public TCAlarm {
public:
    std::atomic<int> hookCalls{0};
    std::atomic<bool> hookResult{false};

protected:
    bool t_OnAlarm(const TSEvent*) override {
        ++hookCalls;
        return hookResult;
    }
};

class AlarmTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LegacyCoreExport::Init());
        ASSERT_TRUE(m_task.Create("alarm-task", 0, 0, 0));
    }
    void TearDown() override {
        m_task.Stop();
        LegacyCoreExport::Destroy();
    }
    unsigned int Queued(const TCHandler* receiver) {
        unsigned int count = 0;
        m_task.Find(receiver, &count);
        return count;
    }

    cimtest::HeldTask m_task;
};

TEST_F(AlarmTest, PeriodAndCountAre32BitWithAFloor) {
    TCAlarm alarm;
    ASSERT_TRUE(alarm.Create(&m_task, 5, 3));
    EXPECT_EQ(alarm.Period(), 10u);
    EXPECT_EQ(alarm.Count(), 3u);
    struct Case {
        unsigned long period, count, storedPeriod, storedCount;
    };
    // Truncated first, then floored: 2^32 + 5 is a period of 5.
    const unsigned long wrapped = static_cast<unsigned long>((uint64_t(1) << 32) + 5);
    for (const Case& c :
         {Case{0, 4294967295ul, 10, TCAlarm::kNoEnd},
          Case{11, static_cast<unsigned long>(-1), 11, TCAlarm::kNoEnd}, Case{wrapped, 0, 10, 0}}) {
        alarm.Reset(c.period, c.count);
        EXPECT_EQ(alarm.Period(), c.storedPeriod) << c.period;
        EXPECT_EQ(alarm.Count(), c.storedCount) << c.count;
    }
    alarm.Destroy();
}

TEST_F(AlarmTest, ResetAndDestroyReturnPromptlyFromAnyThread) {
    const auto quick = cimtest::Scaled(500ms);
    CountingAlarm endless;
    CountingAlarm limited;
    CountingAlarm exhausted;
    ASSERT_TRUE(endless.Create(&m_task, 10, 4294967295ul));
    ASSERT_TRUE(limited.Create(&m_task, 10, 2));
    ASSERT_TRUE(exhausted.Create(&m_task, 10, 0));
    TCAlarm* const alarms[] = {&endless, &limited, &exhausted};

    // Several periods run out; nothing can be handed over, time has to pass.
    std::this_thread::sleep_for(60ms);
    auto start = Clock::now();
    std::thread([&alarms] {
        for (TCAlarm* alarm : alarms) {
            alarm->Reset(10, 1);
        }
    }).join();
    EXPECT_LT(Clock::now() - start, quick);

    // From the task's own thread, inside a user event.
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
    ASSERT_TRUE(SendTo(&m_task, EVENT_USER, true));
    EXPECT_LT(Clock::now() - start, quick);
    EXPECT_EQ(limited.Period(), 15u);

    std::this_thread::sleep_for(40ms);
    start = Clock::now();
    std::thread([&alarms] {
        for (TCAlarm* alarm : alarms) {
            alarm->Destroy();
        }
    }).join();
    EXPECT_LT(Clock::now() - start, quick);
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
    m_task.Hold();  // the events below wait in the queue
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, false));
    }
    ASSERT_TRUE(SendTo(&m_task, EVENT_PING, false));
    alarm.Reset(1000, 1);
    EXPECT_EQ(Queued(&alarm), 0u);
    EXPECT_EQ(Queued(&m_task), 1u) << "Reset removed an event that was not the alarm's";

    ASSERT_TRUE(SendTo(&doomed, EVENT_ALARM, false));
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, false));
    EXPECT_TRUE(doomed.Destroy());
    EXPECT_EQ(Queued(&alarm), 1u);
    m_task.Open();
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));  // runs after what is queued
    EXPECT_EQ(alarm.hookCalls, 2) << "dropped alarm events were executed";
    EXPECT_EQ(doomed.hookCalls, 0);
    alarm.Destroy();
}

TEST_F(AlarmTest, CallbacksSurroundTheHook) {
    CountingAlarm alarm;
    ASSERT_TRUE(alarm.Create(&m_task, 1000, 1));
    cimtest::Calls calls;
    EXPECT_FALSE(alarm.SetEventCallback(1, Before, After, &calls));
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, Before, After, &calls));

    // Through the task: a before callback returning true stands in for the
    // hook, and the after callback runs all the same.
    calls.beforeResult = true;
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    EXPECT_EQ(alarm.hookCalls, 0);
    calls.beforeResult = false;
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    EXPECT_EQ(alarm.hookCalls, 1);
    EXPECT_EQ(calls.before + calls.after, 4);

    // The result: the before callback's true, else the hook's, ORed with the after's.
    TSEvent event = cimtest::MakeEvent(&alarm, EVENT_ALARM);
    struct Case {
        bool before, hook, after, result;
    };
    for (const Case& c : {Case{true, false, false, true}, Case{false, false, false, false},
                          Case{false, true, false, true}, Case{false, false, true, true}}) {
        calls.beforeResult = c.before;
        alarm.hookResult = c.hook;
        calls.afterResult = c.after;
        EXPECT_EQ(alarm.OnAlarm(&event), c.result) << c.before << c.hook << c.after;
    }

    // A null pointer keeps the function set before; the function setters
    // replace or clear what the raw pointers bound.
    cimtest::Calls second;
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, nullptr, After, &second));
    int functionCalls = 0;
    alarm.SetCallbackAfter([&functionCalls](const TSEvent*) { return ++functionCalls > 0; });
    const int beforeCalls = calls.before;
    alarm.hookResult = false;
    EXPECT_TRUE(alarm.OnAlarm(&event));
    EXPECT_EQ(calls.before, beforeCalls + 1);
    EXPECT_EQ(functionCalls, 1);
    EXPECT_EQ(second.after, 0);
    alarm.SetCallbackBefore(TCAlarm::TFAlarmFunction());
    alarm.SetCallbackAfter(TCAlarm::TFAlarmFunction());
    EXPECT_FALSE(alarm.OnAlarm(&event));
    EXPECT_EQ(calls.before, beforeCalls + 1);
    alarm.Destroy();
}

TEST_F(AlarmTest, ContractViolationsAreReported) {
    cimtest::LogCapture capture;
    cimtest::AssertRecorder asserts;
    testing::internal::CaptureStdout();
    CountingAlarm alarm;
    EXPECT_FALSE(alarm.Create(nullptr, 100, 1));
    cimtest::HeldTask idle;
    EXPECT_FALSE(alarm.Create(&idle, 100, 1));

    ASSERT_TRUE(alarm.Create(&m_task, 100, 1));
    cimtest::Calls calls;
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, Before, After, &calls));
    ASSERT_TRUE(SendTo(&alarm, 5, true));  // reaches neither the callbacks nor the hook
    EXPECT_EQ(calls.before + calls.after + alarm.hookCalls, 0);
    alarm.Destroy();
    alarm.Reset(10, 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(asserts.Expressions(),
              (std::vector<std::string>{"task != NULL",
                                        "(const_cast<TCTask*>(task))->FlagCreate() == true",
                                        "event->type == EVENT_ALARM", "FlagCreate() == true"}));
}

TEST_F(AlarmTest, StateAlarmTurnsAlarmEventsIntoStateEvents) {
    struct ExposedStateAlarm : TCStateAlarm {
        using TCStateAlarm::t_OnAlarm;
    } alarm;
    ASSERT_TRUE(alarm.Create(&m_task, 42, 5, -1));
    EXPECT_EQ(alarm.Period(), 10u);
    EXPECT_EQ(alarm.Count(), TCAlarm::kNoEnd);

    // The state event is queued while the alarm event runs, so a ping sent
    // afterwards runs after it. Other types send nothing; the hook answers
    // false either way.
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    TSEvent event = cimtest::MakeEvent(&alarm, 7);
    EXPECT_FALSE(alarm.t_OnAlarm(&event));
    event.type = EVENT_ALARM;
    EXPECT_FALSE(alarm.t_OnAlarm(&event));
    ASSERT_TRUE(SendTo(&m_task, EVENT_PING, true));
    EXPECT_EQ(m_task.Types(), (std::vector<unsigned long>{42, 42, EVENT_PING}));
    alarm.Destroy();
}

TEST_F(AlarmTest, ThreadIsNamedAfterTheCreatingThread) {
    for (const auto& [creator, expected] :
         {std::pair{"abcd", "TCAlarm:abcd"}, {"thirteenchars", "TCAlarm:thirtee"}}) {
        TCAlarm alarm;
        std::thread([&, creator = creator] {
            ASSERT_EQ(prctl(PR_SET_NAME, creator, 0, 0, 0), 0);
            ASSERT_TRUE(alarm.Create(&m_task, 1000, 1));
        }).join();
        ASSERT_TRUE(alarm.FlagCreate());
        EXPECT_STREQ(alarm.Name(), expected);
        alarm.Destroy();
    }
}

}  // namespace
