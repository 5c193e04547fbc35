#include <cimcore/internal/lsc/Alarm.h>

#include "LscTestSupport.h"

#include <sys/prctl.h>

namespace cimtest {
namespace {

using namespace std::chrono_literals;

using AlarmTest = LscTaskTest;

// Reset and Destroy return at once, whatever the alarm thread waits for and
// whichever thread calls them, and drop the alarm's events still queued.
TEST_F(AlarmTest, ResetAndDestroyReturnPromptlyFromAnyThreadAndDropQueuedEvents) {
    TCAlarm alarms[2];  // without end (waiting a period), exhausted (waiting for a reset)
    ASSERT_TRUE(alarms[0].Create(&task, 10, 4294967295ul));
    ASSERT_TRUE(alarms[1].Create(&task, 10, 0));
    Calls executed;  // the alarm events that ran
    ASSERT_TRUE(alarms[0].SetEventCallback(EVENT_ALARM, Before, After, &executed));
    ASSERT_TRUE(alarms[1].SetEventCallback(EVENT_ALARM, Before, After, &executed));
    auto resetAll = [&alarms] { alarms[0].Reset(15, 3), alarms[1].Reset(15, 3); };
    task.onUser = [&resetAll](const TSEvent*) { resetAll(); };
    auto promptly = [](auto action) {
        std::this_thread::sleep_for(50ms);  // several periods run out; nothing to wait for
        const auto start = Clock::now();
        std::thread(action).join();
        EXPECT_LT(Clock::now() - start, Scaled(500ms));
    };
    promptly([&] { EXPECT_TRUE(SendTo(&task, EVENT_USER, true)); });  // on the task's thread
    task.Hold();  // alarm events queued from here wait
    ASSERT_TRUE(SendTo(&alarms[0], EVENT_ALARM, false));
    ASSERT_TRUE(SendTo(&task, EVENT_PING, false));
    promptly(resetAll);
    EXPECT_FALSE(task.Find(&alarms[0], nullptr));
    EXPECT_TRUE(task.Find(&task, nullptr)) << "Reset removed a foreign event";
    ASSERT_TRUE(SendTo(&alarms[1], EVENT_ALARM, false));
    promptly([&alarms] { alarms[0].Destroy(), alarms[1].Destroy(); });
    task.Open();
    ASSERT_TRUE(SendTo(&task, EVENT_PING, true));  // runs after what is queued
    // Neither queued by an alarm thread (it never sends) nor kept by Reset or Destroy.
    EXPECT_EQ(executed.before, 0);

    // Straight after Create, before the thread may even have started.
    ASSERT_TRUE(alarms[0].Create(&task, 1000, 1));
    const auto start = Clock::now();
    alarms[0].Destroy();
    EXPECT_LT(Clock::now() - start, Scaled(500ms));
}

// Before, the hook, after: a before that answers true stands in for the hook;
// the function setters replace what the raw pointers bound, or clear it. A
// state alarm's hook queues an event of its state type for the task.
TEST_F(AlarmTest, CallbacksSurroundTheHookAndPeriodAndCountAre32BitWithAFloor) {
    TCStateAlarm alarm;
    std::thread([&] {
        ASSERT_EQ(prctl(PR_SET_NAME, "thirteenchars", 0, 0, 0), 0);
        ASSERT_TRUE(alarm.Create(&task, 42, 11, -1));  // a negative count is "no end"
    }).join();
    EXPECT_STREQ(alarm.Name(), "TCAlarm:thirtee") << "named after the creating thread";
    EXPECT_EQ(alarm.Count(), TCAlarm::kNoEnd);

    Calls calls;
    EXPECT_FALSE(alarm.SetEventCallback(1, Before, After, &calls));
    ASSERT_TRUE(alarm.SetEventCallback(EVENT_ALARM, Before, After, &calls));
    calls.beforeResult = true;
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));
    EXPECT_EQ(calls.after, 1);
    calls.beforeResult = false;
    ASSERT_TRUE(SendTo(&alarm, EVENT_ALARM, true));

    alarm.SetCallbackAfter([](const TSEvent*) { return true; });
    alarm.SetCallbackBefore(TCAlarm::TFAlarmFunction());
    TSEvent event = MakeEvent(&alarm, EVENT_ALARM);
    EXPECT_TRUE(alarm.OnAlarm(&event)) << "the after function's true";
    EXPECT_EQ(calls.before, 2);
    EXPECT_EQ(calls.after, 2);
    // The state events were queued before this ping, so they ran before it.
    ASSERT_TRUE(SendTo(&task, EVENT_PING, true));
    EXPECT_EQ(task.executed[42], 2) << "the hook ran for the second event and OnAlarm only";

    alarm.Reset(static_cast<unsigned long>((uint64_t(1) << 32) + 5), 0);
    EXPECT_EQ(alarm.Period(), 10u);
    alarm.Destroy();
}

}  // namespace
}  // namespace cimtest
