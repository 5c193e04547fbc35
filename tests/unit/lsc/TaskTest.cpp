#include <cimcore/internal/lsc/Task.h>

#include "LscTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <future>
#include <new>

// Counts the heap allocations of the thread that asked for counting.
namespace {
thread_local bool tCounting = false;
thread_local int tAllocations = 0;

void* Allocate(std::size_t size) noexcept {
    tAllocations += tCounting ? 1 : 0;
    return std::malloc(size == 0 ? 1 : size);
}
}  // namespace

void* operator new(std::size_t size) {
    if (void* memory = Allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace std::chrono_literals;
using cimtest::After;
using cimtest::Before;
using cimtest::Clock;
using cimtest::ElapsedMs;
using cimtest::HeldTask;
using cimtest::MakeEvent;
using cimtest::SendTo;

// Counts the hooks and can be driven through its dispatch directly.
class CountingTask : public HeldTask {
public:
    bool Dispatch(const TSEvent* event) { return t_OnEvent(event); }

    std::atomic<int> userHooks{0};
    std::atomic<int> exitHooks{0};
    std::atomic<bool> userHookResult{true};
    std::atomic<bool> destroyedOnOwnThread{false};
    std::function<void(const TSEvent*)> onUser;  // set before events flow

protected:
    bool t_OnUser(const TSEvent* event) override {
        ++userHooks;
        if (onUser) {
            onUser(event);
        }
        HeldTask::t_OnUser(event);
        return userHookResult;
    }
    bool t_OnExit(const TSEvent*) override {
        ++exitHooks;
        return true;
    }
    void t_Destroy() override { destroyedOnOwnThread = pthread_equal(pthread_self(), Id()) != 0; }
};

// A handler that records the tags of its events.
class Recorder : public TCHandler {
public:
    std::vector<uintptr_t> tags;  // touched on the task's thread only

protected:
    bool t_OnEvent(const TSEvent* event) override {
        tags.push_back(event->word4);
        return true;
    }
};

class TaskTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(LegacyCoreExport::Init()); }
    void TearDown() override { LegacyCoreExport::Destroy(); }
};

TEST_F(TaskTest, CallbacksSuppressAndFollowTheHooks) {
    CountingTask task;
    ASSERT_TRUE(task.Create("callbacks", 0, 0, 0));
    cimtest::Calls calls;
    EXPECT_FALSE(task.SetEventCallback(2, Before, After, &calls));

    // Through the loop: a before callback returning true stands in for the
    // hook, and the after callback runs all the same.
    ASSERT_TRUE(task.SetEventCallback(EVENT_USER, Before, After, &calls));
    calls.beforeResult = true;
    ASSERT_TRUE(SendTo(&task, EVENT_USER, true));
    EXPECT_EQ(task.userHooks, 0);
    calls.beforeResult = false;
    ASSERT_TRUE(SendTo(&task, EVENT_USER, true));
    EXPECT_EQ(task.userHooks, 1);
    EXPECT_EQ(calls.before, 2);
    EXPECT_EQ(calls.after, 2);
    // Index 3 is only stored: clearing the queue does not call it.
    ASSERT_TRUE(task.SetEventCallback(EVENT_CLEAR_QUEUE, Before, After, &calls));
    EXPECT_TRUE(task.ClearQueue(&task, 1000));
    EXPECT_EQ(calls.before + calls.after, 4);

    // The result: the before callback's true, else the hook's, ORed with the
    // after callback's. Dispatched here while the task is idle.
    struct Case {
        bool before, hook, after, result;
    };
    for (const Case& c : {Case{true, false, false, true}, Case{false, false, false, false},
                          Case{false, true, false, true}, Case{false, false, true, true}}) {
        calls.beforeResult = c.before;
        task.userHookResult = c.hook;
        calls.afterResult = c.after;
        TSEvent user = MakeEvent(&task, EVENT_USER);
        EXPECT_EQ(task.Dispatch(&user), c.result) << c.before << c.hook << c.after;
    }

    // Exit passes through index 0 and its hook, then ends the loop.
    cimtest::Calls exitCalls;
    ASSERT_TRUE(task.SetEventCallback(EVENT_EXIT, Before, After, &exitCalls));
    ASSERT_TRUE(SendTo(&task, EVENT_EXIT, true));
    EXPECT_EQ(exitCalls.before + exitCalls.after, 2);
    EXPECT_EQ(task.exitHooks, 1);
    task.Destroy();
    EXPECT_TRUE(task.destroyedOnOwnThread);
    EXPECT_FALSE(task.FlagRunning());
}

TEST_F(TaskTest, NothingRunsAfterExitAndDestroyDeletesTheRest) {
    HeldTask task;
    ASSERT_TRUE(task.Create("exiting", 0, 0, 0));
    Recorder other;
    ASSERT_TRUE(other.Create(&task));
    task.Hold();
    ASSERT_TRUE(SendTo(&task, EVENT_EXIT, false));
    ASSERT_TRUE(SendTo(&task, EVENT_USER, false));
    ASSERT_TRUE(SendTo(&other, EVENT_USER, false));
    auto syncSender =
        std::async(std::launch::async, [&task] { return SendTo(&task, EVENT_USER, true); });
    unsigned int queued = 0;
    ASSERT_TRUE(cimtest::WaitUntil([&] { return task.Find(&task, &queued) && queued == 3; }));

    task.Open();
    EXPECT_TRUE(task.Destroy()) << "events for the task's own handler were still queued";
    EXPECT_TRUE(syncSender.get()) << "Destroy releases the synchronous sender";
    EXPECT_EQ(task.Types(), (std::vector<unsigned long>{EVENT_USER, EVENT_EXIT}));
    EXPECT_TRUE(other.tags.empty());
    EXPECT_FALSE(task.FlagCreate());
    EXPECT_FALSE(SendTo(&task, EVENT_USER, false)) << "a destroyed task refuses events";
}

TEST_F(TaskTest, SynchronousSendToTheOwnTaskRunsInPlace) {
    CountingTask task;
    ASSERT_TRUE(task.Create("inplace", 0, 0, 0));
    Recorder handler;
    ASSERT_TRUE(handler.Create(&task));
    std::vector<bool> results;  // task thread only
    std::vector<bool> ranInPlace;
    task.onUser = [&](const TSEvent* event) {
        TSEvent inner = MakeEvent(&handler, 5, event->word4);
        const size_t before = handler.tags.size();
        results.push_back(TCTask::Send(&inner, true, event->word5 != 0));
        ranInPlace.push_back(handler.tags.size() == before + 1);
    };

    cimtest::AssertRecorder recorder;
    TSEvent user = MakeEvent(&task, EVENT_USER, 10);
    user.word5 = 1;  // with priority
    ASSERT_TRUE(TCTask::Send(&user, true, false));
    user.word4 = 11;
    user.word5 = 0;  // without priority: reported, still run
    ASSERT_TRUE(TCTask::Send(&user, true, false));
    EXPECT_EQ(recorder.Expressions(), std::vector<std::string>{"priority == true"});
    EXPECT_EQ(ranInPlace, (std::vector<bool>{true, true}));
    EXPECT_EQ(results, (std::vector<bool>{true, false}));
    EXPECT_EQ(handler.tags, (std::vector<uintptr_t>{10, 11}));
    EXPECT_EQ(cimtest::SyncEntries(), 0) << "an entry outlived its send";
    handler.TCHandler::Destroy();
    task.Stop();
}

TEST_F(TaskTest, PingTimesOutOnABusyTaskAndClearQueueGoesFirst) {
    HeldTask task;
    ASSERT_TRUE(task.Create("pinged", 0, 0, 0));
    EXPECT_TRUE(TCTask::Ping(&task, 0));

    // The late request is freed by the task once executed (ASan sees a leak).
    task.Hold();
    const auto start = Clock::now();
    EXPECT_FALSE(TCTask::Ping(&task, 100));
    EXPECT_GE(ElapsedMs(start), 98);
    EXPECT_LT(ElapsedMs(start), cimtest::Scaled(1500ms).count());
    task.Open();
    EXPECT_TRUE(TCTask::Ping(&task, 5000));

    // The clear request waits for the busy task, then runs before the task's
    // own queued events and deletes them; other handlers keep theirs.
    task.Hold();
    Recorder other;
    ASSERT_TRUE(other.Create(&task));
    for (uintptr_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(SendTo(&task, EVENT_USER, false));
        ASSERT_TRUE(SendTo(&other, EVENT_USER, false, 20 + i));
    }
    auto cleared = std::async(std::launch::async, [&task] { return task.ClearQueue(&task, 0); });
    unsigned int requests = 0;
    ASSERT_TRUE(cimtest::WaitUntil(
        [&] { return task.Find(&task, EVENT_CLEAR_QUEUE, &requests) && requests == 1; }));
    task.Open();
    EXPECT_TRUE(cleared.get());
    // A ping has priority and would overtake the events still queued: an
    // ordinary synchronous event is the barrier.
    ASSERT_TRUE(SendTo(&other, EVENT_USER, true, 23));
    const std::vector<unsigned long> types = task.Types();
    EXPECT_EQ(std::count(types.begin(), types.end(), EVENT_USER), 2);
    EXPECT_EQ(other.tags, (std::vector<uintptr_t>{20, 21, 22, 23}));
    other.TCHandler::Destroy();

    task.Stop();
    EXPECT_FALSE(TCTask::Ping(&task, 100)) << "a task no longer listed";
    EXPECT_FALSE(task.ClearQueue(&task, 100));
}

TEST_F(TaskTest, TaskListAndCreationValues) {
    HeldTask first;
    HeldTask second;
    ASSERT_TRUE(first.Create("first", 0, 0, 0));
    ASSERT_TRUE(second.Create("a-task-name-of-20-ch", 0, 0, 0));
    TCTaskList::m_mutex.Lock();
    EXPECT_TRUE(TCTaskList::Find("a-task-name-of-") && TCTaskList::Task() == &second);
    EXPECT_FALSE(TCTaskList::Find("a-task-name-of-20-ch"));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    const TCTask* const places[] = {&first, &second, nullptr};  // the end is a place too
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(TCTaskList::Seek(i) && TCTaskList::Task() == places[i]) << i;
    }
    EXPECT_FALSE(TCTaskList::Seek(3));
    TCTaskList::m_mutex.Unlock();
    first.Stop();
    second.Stop();
    TCTaskList::m_mutex.Lock();
    EXPECT_FALSE(TCTaskList::Find(&second));
    EXPECT_TRUE(TCTaskList::Seek(0)) << "Seek(0) of an empty list";
    EXPECT_FALSE(TCTaskList::Seek(1));
    TCTaskList::m_mutex.Unlock();

    // 1 to 4 are kept as 5, for the libraries that read the value.
    for (const auto& [value, stored] : {std::pair{0UL, 0UL}, {1UL, 5UL}, {4UL, 5UL}, {9UL, 9UL}}) {
        HeldTask task;
        ASSERT_TRUE(task.Create("values", 0, 0, value));
        EXPECT_EQ(task.CreateValue(), stored) << value;
        task.Stop();
    }
}

TEST_F(TaskTest, IdleHookRunsWhenNoEventCame) {
    struct IdleTask : HeldTask {
        std::atomic<int> idles{0};
        void t_Idle() override { ++idles; }
    } task;
    const auto start = Clock::now();
    ASSERT_TRUE(task.Create("idle", 20, 0, 0));
    ASSERT_TRUE(cimtest::WaitUntil([&task] { return task.idles >= 2; }, 1000ms));
    EXPECT_GE(ElapsedMs(start), 38);
    task.Stop();
}

TEST_F(TaskTest, AsynchronousSendAllocatesNothing) {
    HeldTask task;
    ASSERT_TRUE(task.Create("noalloc", 0, 0, 0));
    Recorder handler;
    ASSERT_TRUE(handler.Create(&task));
    handler.tags.reserve(2);

    TSEvent event = MakeEvent(&handler, 1);
    tAllocations = 0;
    tCounting = true;
    const bool plain = TCTask::Send(&event, false, false);
    const bool priority = TCTask::Send(&event, false, true);
    int* volatile probe = new int(1);  // proves that the counter counts
    tCounting = false;
    delete probe;
    EXPECT_TRUE(plain && priority);
    EXPECT_EQ(tAllocations, 1);

    ASSERT_TRUE(SendTo(&task, EVENT_USER, true));
    EXPECT_EQ(handler.tags.size(), 2u);
    handler.TCHandler::Destroy();
    task.Stop();
}

TEST_F(TaskTest, ManyProducersLoseNothingAndKeepTheirOrder) {
    constexpr int kProducers = 4;
    constexpr uintptr_t kEvents = 20000;
    constexpr uintptr_t kSyncEvery = 64;

    HeldTask task;
    ASSERT_TRUE(task.Create("loaded", 0, 0, 0));
    // An event lost or run twice breaks a producer's sequence as well.
    struct Checker : TCHandler {
        std::vector<uintptr_t> next = std::vector<uintptr_t>(kProducers, 0);
        long outOfOrder = 0;
        long executed = 0;
        bool t_OnEvent(const TSEvent* event) override {
            ++executed;
            outOfOrder += event->word5 != next[event->word4] ? 1 : 0;
            next[event->word4] = event->word5 + 1;
            return true;
        }
    } checker;
    ASSERT_TRUE(checker.Create(&task));

    std::vector<std::thread> producers;
    for (uintptr_t producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&checker, producer] {
            for (uintptr_t i = 0; i < kEvents; ++i) {
                TSEvent event = MakeEvent(&checker, 1, producer);
                event.word5 = i;
                // A full queue refuses; the producer tries again.
                while (!TCTask::Send(&event, i % kSyncEvery == kSyncEvery - 1, false)) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    // Ordinary events run in order: a synchronous one sent now runs last.
    ASSERT_TRUE(SendTo(&task, EVENT_USER, true));
    EXPECT_EQ(checker.executed, long(kProducers * kEvents));
    EXPECT_EQ(checker.outOfOrder, 0);
    EXPECT_EQ(checker.next, std::vector<uintptr_t>(kProducers, kEvents));
    EXPECT_EQ(cimtest::SyncEntries(), 0) << "a refused synchronous send stayed recorded";
    checker.TCHandler::Destroy();
    task.Stop();
}

}  // namespace
