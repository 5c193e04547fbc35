#include <cimcore/internal/lsc/Alarm.h>

#include "LscTestSupport.h"

#include <sys/prctl.h>

namespace cimtest {
namespace {

using namespace std::chrono_literals;

using AlarmTest = LscTaskTest;

struct CountingAlarm : TCAlarm {
    bool t_OnAlarm(const TSEvent*) override {
        ++hookCalls;
        return false;
    }
    std::atomic<int> hookCalls{0};
};

TEST_F(AlarmTest, ResetAndDestroyReturnPromptlyFromAnyThread) {
    CountingAlarm alarms[3];  // without end, with a count left, exhausted
    const unsigned long counts[] = {4294967295ul, 2, 0};
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(alarms[i].Create(&task, 10, counts[i]));
    }
    auto resetAll = [&alarms] {
        for (TCAlarm& alarm : alarms) {
            alarm.Reset(15, 3);
        }
    };
    task.onUser = [&resetAll](const TSEvent*) { resetAll(); };
    auto promptly = [](auto action) {
        std::this_thread::sleep_for(50ms);  // several periods run out; nothing to wait for
        const auto start = Clock::now();
        std::thread(action).join();
        EXPECT_LT(Clock::now() - start, Scaled(500ms));
    };
    promptly([&] { EXPECT_TRUE(SendTo(&task, EVENT_USER, true)); });  // on the task's thread
    promptly(resetAll);
    promptly([&] {
        for (TCAlarm& alarm : alarms) {
            alarm.Destroy();
        }
    });
    // The alarm threads never queue an alarm event of their own.
    EXPECT_EQ(alarms[0].hookCalls + alarms[1].hookCalls + alarms[2].hookCalls, 0);
    // Straight after Create, before the thread may even have started.
    ASSERT_TRUE(alarms[0].Create(&task, 1000, 1));
    const auto start = Clock::now();
    alarms[0].Destroy();
    EXPECT_LT(Clock::now() - start, Scaled(500ms));
}

TEST_F(AlarmTest, ResetAndDestroyDropAlarmEventsStillQueued) {
    CountingAlarm alarm;
    CountingAlarm doomed;
    ASSERT_TRUE(alarm.Create(&task, 1000, 1));
    ASSERT_TRUE(doomed.Create(&task, 1000, 1));
    task.Hold();  // the events below wait in the queue
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, false));
    ASSERT_TRUE(SendTo(&task, EVENT_PING, false));
    alarm.Reset(1000, 1);
    unsigned int left = 0;
    EXPECT_FALSE(task.Find(&alarm, &left));
    EXPECT_TRUE(task.Find(&task, &left)) << "Reset removed a foreign event";
    EXPECT_EQ(left, 1u);
    ASSERT_TRUE(SendTo(&doomed, EVENT_ALARM, false));
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, false));
    EXPECT_TRUE(doomed.Destroy());
    task.Open();
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));  // runs after what is queued
    EXPECT_EQ(alarm.hookCalls, 2) << "dropped alarm events were executed";
    alarm.Destroy();
}

TEST_F(AlarmTest, CallbacksSurroundTheHook) {
    CountingAlarm alarm;
    ASSERT_TRUE(alarm.Create(&task, 1000, 1));
    Calls calls;
    EXPECT_FALSE(alarm.SetEventCallback(1, Before, After, &calls));
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, Before, After, &calls));
    calls.beforeResult = true;
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    EXPECT_EQ(alarm.hookCalls, 0) << "a before callback returning true stands in for the hook";
    EXPECT_EQ(calls.after, 1);
    calls.beforeResult = false;
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    EXPECT_EQ(alarm.hookCalls, 1);

    // The function setters replace what the raw pointers bound, or clear it.
    int functionCalls = 0;
    alarm.SetCallbackAfter([&functionCalls](const TSEvent*) { return ++functionCalls > 0; });
    alarm.SetCallbackBefore(TCAlarm::TFAlarmFunction());
    TSEvent event = MakeEvent(&alarm, EVENT_ALARM);
    EXPECT_TRUE(alarm.OnAlarm(&event)) << "the after function's true";
    EXPECT_EQ(functionCalls, 1);
    EXPECT_EQ(calls.before, 2);
    EXPECT_EQ(calls.after, 2);
    EXPECT_EQ(alarm.hookCalls, 2);
    alarm.Destroy();
}

// A state alarm's Create widens a negative count to "no end".
TEST_F(AlarmTest, StateAlarmSendsStateEventsAndPeriodAndCountAre32BitWithAFloor) {
    struct ExposedStateAlarm : TCStateAlarm {
        using TCStateAlarm::t_OnAlarm;
    } alarm;
    ASSERT_TRUE(alarm.Create(&task, 42, 5, -1));
    EXPECT_EQ(alarm.Period(), 10u);
    EXPECT_EQ(alarm.Count(), TCAlarm::kNoEnd);
    // The state event is queued while the alarm event runs, so a ping sent
    // afterwards runs after it. The hook answers false either way.
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    TSEvent event = MakeEvent(&alarm, 7);
    EXPECT_FALSE(alarm.t_OnAlarm(&event));
    ASSERT_TRUE(SendTo(&task, EVENT_PING, true));
    EXPECT_EQ(task.executed[42], 1);

    // Truncated first, then floored: 2^32 + 5 is a period of 5.
    for (const auto& [period, count, storedPeriod, storedCount] :
         {std::tuple{11ul, static_cast<unsigned long>(-1), 11ul, TCAlarm::kNoEnd},
          {0ul, 4294967295ul, 10ul, TCAlarm::kNoEnd},
          {static_cast<unsigned long>((uint64_t(1) << 32) + 5), 0ul, 10ul, 0ul}}) {
        alarm.Reset(period, count);
        EXPECT_EQ(alarm.Period(), storedPeriod) << period;
        EXPECT_EQ(alarm.Count(), storedCount) << count;
    }
    alarm.Destroy();
}

TEST_F(AlarmTest, ThreadIsNamedAfterTheCreatingThread) {
    for (const auto& [creator, expected] :
         {std::pair{"abcd", "TCAlarm:abcd"}, {"thirteenchars", "TCAlarm:thirtee"}}) {
        TCAlarm alarm;
        std::thread([&, creator = creator] {
            ASSERT_EQ(prctl(PR_SET_NAME, creator, 0, 0, 0), 0);
            ASSERT_TRUE(alarm.Create(&task, 1000, 1));
        }).join();
        ASSERT_TRUE(alarm.FlagCreate());
        EXPECT_STREQ(alarm.Name(), expected);
        alarm.Destroy();
    }
}

}  // namespace
}  // namespace cimtest
