#include <cimcore/internal/lsc/Task.h>

#include "LscTestSupport.h"

namespace cimtest {
namespace {

using namespace std::chrono_literals;

using TaskTest = LscTaskTest;

// The exit passes through its callbacks; what was queued after it never runs.
TEST_F(TaskTest, ExitRunsItsCallbacksAndNothingQueuedAfterIt) {
    Calls calls;
    ASSERT_TRUE(task.SetEventCallback(EVENT_EXIT, Before, After, &calls));
    task.Hold();
    ASSERT_TRUE(SendTo(&task, EVENT_EXIT, false));
    auto sender =
        std::async(std::launch::async, [this] { return SendTo(&task, EVENT_USER, true); });
    ASSERT_TRUE(WaitUntil([this] { return task.Count() == 2; }));
    task.Open();
    EXPECT_TRUE(task.Destroy()) << "events for the task's own handler were still queued";
    EXPECT_TRUE(sender.get()) << "Destroy releases the synchronous sender";
    EXPECT_EQ(calls.before, 1);
    EXPECT_EQ(calls.after, 1);
    EXPECT_EQ(task.executed[EVENT_USER], 1) << "a user event ran after the exit";
    EXPECT_FALSE(SendTo(&task, EVENT_USER, false)) << "a destroyed task refuses events";
}

TEST_F(TaskTest, SynchronousSendToTheOwnTaskRunsInPlace) {
    std::vector<int> results;  // task thread only: the send's result, then what ran
    task.onUser = [&](const TSEvent* event) {
        TSEvent inner = MakeEvent(&task, 5);
        results.push_back(TCTask::Send(&inner, true, event->word4 == 10));
        results.push_back(task.executed[5]);
    };
    // Without priority it is reported and run all the same.
    AssertRecorder recorder;
    ASSERT_TRUE(SendTo(&task, EVENT_USER, true, 10));
    ASSERT_TRUE(SendTo(&task, EVENT_USER, true, 11));
    EXPECT_EQ(recorder.Expressions(), std::vector<std::string>{"priority == true"});
    EXPECT_EQ(results, (std::vector<int>{true, 1, false, 2}));
}

TEST_F(TaskTest, PingTimesOutOnABusyTaskAndClearQueueGoesFirst) {
    // The late request is freed by the task once executed (ASan sees a leak).
    task.Hold();
    const auto start = Clock::now();
    EXPECT_FALSE(TCTask::Ping(&task, 100));
    EXPECT_GE(Since(start), 98ms);
    EXPECT_LT(Since(start), Scaled(1500ms));
    task.Open();
    EXPECT_TRUE(TCTask::Ping(&task, 5000));

    // The clear request waits for the busy task, then runs before the
    // task's own queued event and deletes it.
    task.Hold();
    ASSERT_TRUE(SendTo(&task, EVENT_USER, false));
    auto cleared = std::async(std::launch::async, [this] { return task.ClearQueue(&task, 0); });
    ASSERT_TRUE(WaitUntil([this] { return task.Count() == 2; }));  // the event and the request
    task.Open();
    EXPECT_TRUE(cleared.get());
    task.Stop();
    EXPECT_EQ(task.executed[EVENT_USER], 2);
}

TEST_F(TaskTest, IdleHookCreateValueAndTheTaskList) {
    struct IdleTask : HeldTask {
        std::atomic<int> idles{0};
        void t_Idle() override { ++idles; }
    } idle;
    const auto start = Clock::now();
    ASSERT_TRUE(idle.Create("idle", 20, 0, 4));
    ASSERT_TRUE(WaitUntil([&idle] { return idle.idles >= 2; }, 1000ms));
    EXPECT_GE(Since(start), 38ms) << "the idle hook ran before its time-out";
    EXPECT_EQ(idle.CreateValue(), 5u) << "1 to 4 are stored as 5";
    // With the fixture's task, two listed: seeking the end succeeds on purpose.
    TCTaskList::m_mutex.Lock();
    EXPECT_TRUE(TCTaskList::Seek(2));
    EXPECT_FALSE(TCTaskList::Seek(3));
    TCTaskList::m_mutex.Unlock();
    idle.Stop();
}

TEST_F(TaskTest, ManyProducersLoseNothingAndKeepTheirOrder) {
    constexpr int kProducers = 4;
    constexpr uintptr_t kEvents = 20000;
    // Each event must be its producer's next: none lost, run twice or overtaken.
    std::vector<uintptr_t> next(size_t(kProducers), 0);  // task thread only
    long outOfOrder = 0;
    task.onUser = [&](const TSEvent* event) { outOfOrder += event->word5 != next[event->word4]++; };
    RunThreads(kProducers, [this](int producer) {
        for (uintptr_t i = 0; i < kEvents; ++i) {
            TSEvent event = MakeEvent(&task, EVENT_USER, uintptr_t(producer));
            event.word5 = i;
            // A full queue refuses; the producer tries again.
            while (!TCTask::Send(&event, i % 64 == 63, false)) {
                std::this_thread::yield();
            }
        }
    });
    // Ordinary events run in order: a synchronous one sent now runs last.
    ASSERT_TRUE(SendTo(&task, 9, true));
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_EQ(next, std::vector<uintptr_t>(size_t(kProducers), kEvents));
    EXPECT_TRUE(SyncTable().empty()) << "a refused synchronous send stayed recorded";
}

}  // namespace

// A handler's Destroy does not wait for its event that is already running:
// it returns while the event is still inside t_OnEvent.
TEST_F(TaskTest, HandlerDestroyDoesNotWaitForItsRunningEvent) {
    struct GatedHandler : TCHandler {
        bool t_OnEvent(const TSEvent*) override {
            entered.set_value();
            gate.get_future().wait();
            return true;
        }
        std::promise<void> entered, gate;
    } handler;
    ASSERT_TRUE(handler.Create(&task));
    ASSERT_TRUE(SendTo(&handler, EVENT_USER, false));
    handler.entered.get_future().wait();
    handler.Destroy();  // would hang here if it waited (false: nothing was queued)
    handler.gate.set_value();
    task.Stop();  // the event has ended before the handler goes
}

}  // namespace cimtest
