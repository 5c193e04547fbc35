#include <cimcore/internal/lsc/Task.h>

#include "TestSupport.h"

#include <cimcore/internal/lsc/Sync.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

// Counts heap allocations made by the thread that asked for counting.
namespace {
thread_local bool tCounting = false;
thread_local int tAllocations = 0;

void* CountedAllocation(std::size_t size) {
    if (tCounting) {
        ++tAllocations;
    }
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
}  // namespace

void* operator new(std::size_t size) {
    return CountedAllocation(size);
}
void* operator new[](std::size_t size) {
    return CountedAllocation(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (tCounting) {
        ++tAllocations;
    }
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (tCounting) {
        ++tAllocations;
    }
    return std::malloc(size == 0 ? 1 : size);
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

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

long ElapsedMs(Clock::time_point from) {
    return static_cast<long>(
        std::chrono::duration_cast<milliseconds>(Clock::now() - from).count());
}

// A task whose user hook can be held at a gate and which records what ran.
class TestTask : public TCTask {
public:
    TestTask() {
        m_gate.Create(0);
        m_entered.Create(0);
    }
    ~TestTask() override {
        m_gate.Destroy();
        m_entered.Destroy();
    }

    // The next user events block in the hook until Open.
    void HoldUserEvents() { m_hold = true; }
    void WaitInHook() { m_entered.Take(); }
    void Open() {
        m_hold = false;
        m_gate.Give();
    }
    bool Dispatch(const TSEvent* event) { return t_OnEvent(event); }

    std::atomic<int> userHooks{0};
    std::atomic<int> exitHooks{0};
    std::atomic<bool> destroyHookOnOwnThread{false};
    std::atomic<bool> userHookResult{true};
    std::function<void(const TSEvent*)> onUser;  // set before events flow

protected:
    bool t_OnUser(const TSEvent* event) override {
        ++userHooks;
        if (onUser) {
            onUser(event);
        }
        if (m_hold) {
            m_entered.Give();
            m_gate.Take();
        }
        return userHookResult;
    }
    bool t_OnExit(const TSEvent*) override {
        ++exitHooks;
        return true;
    }
    void t_Destroy() override { destroyHookOnOwnThread = Id() == pthread_self(); }

private:
    std::atomic<bool> m_hold{false};
    TCSemaphore m_gate;
    TCSemaphore m_entered;
};

// A handler bound to a task that records the events it executes.
class Recorder : public TCHandler {
public:
    std::vector<uintptr_t> tags;  // touched on the task's thread only
    std::vector<pthread_t> threads;
    std::function<void(const TSEvent*)> onEvent;

protected:
    bool t_OnEvent(const TSEvent* event) override {
        tags.push_back(event->word4);
        threads.push_back(pthread_self());
        if (onEvent) {
            onEvent(event);
        }
        return true;
    }
};

TSEvent Event(TCHandler* receiver, unsigned long type, uintptr_t tag = 0) {
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    event.word4 = tag;
    return event;
}

class TaskTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(LegacyCoreExport::Init()); }
    void TearDown() override { LegacyCoreExport::Destroy(); }

    static void Stop(TestTask& task) {
        TSEvent exit = Event(&task, EVENT_EXIT);
        EXPECT_TRUE(TCTask::Send(&exit, false, false));
        task.Destroy();
    }
};

bool BeforeTrue(const TSEvent*, const void* context) {
    ++*static_cast<std::atomic<int>*>(const_cast<void*>(context));
    return true;
}
bool BeforeFalse(const TSEvent*, const void* context) {
    ++*static_cast<std::atomic<int>*>(const_cast<void*>(context));
    return false;
}
bool AfterTrue(const TSEvent*, const void* context) {
    *static_cast<std::atomic<int>*>(const_cast<void*>(context)) += 100;
    return true;
}
bool AfterFalse(const TSEvent*, const void* context) {
    *static_cast<std::atomic<int>*>(const_cast<void*>(context)) += 100;
    return false;
}

TEST_F(TaskTest, CallbacksAroundExitAndUserHooks) {
    TestTask task;
    ASSERT_TRUE(task.Create("callbacks", 0, 0, 0));
    std::atomic<int> calls{0};

    EXPECT_FALSE(task.SetEventCallback(2, BeforeTrue, AfterTrue, &calls));
    EXPECT_FALSE(task.SetEventCallback(4, BeforeTrue, AfterTrue, &calls));
    EXPECT_FALSE(task.GetEventCallback(2, nullptr, nullptr, nullptr));
    ASSERT_TRUE(task.SetEventCallback(3, BeforeTrue, AfterTrue, &calls));
    TFEventCallback before = nullptr;
    TFEventCallback after = nullptr;
    const void* context = nullptr;
    ASSERT_TRUE(task.GetEventCallback(3, &before, &after, &context));
    EXPECT_EQ(before, &BeforeTrue);
    EXPECT_EQ(after, &AfterTrue);
    EXPECT_EQ(context, &calls);

    // Driven through the loop: a synchronous send returns once executed.
    ASSERT_TRUE(task.SetEventCallback(1, BeforeTrue, AfterFalse, &calls));
    TSEvent user = Event(&task, EVENT_USER);
    ASSERT_TRUE(TCTask::Send(&user, true, false));
    EXPECT_EQ(task.userHooks, 0) << "a before callback returning true suppresses the hook";
    EXPECT_EQ(calls, 101) << "the after callback still runs";

    ASSERT_TRUE(task.SetEventCallback(1, BeforeFalse, nullptr, &calls));
    ASSERT_TRUE(TCTask::Send(&user, true, false));
    EXPECT_EQ(task.userHooks, 1);
    EXPECT_EQ(calls, 102);

    // The clear-queue dispatch does not call index 3.
    EXPECT_TRUE(task.ClearQueue(&task, 1000));
    EXPECT_EQ(calls, 102);

    // Results, straight through the dispatch (the task is idle meanwhile).
    task.userHookResult = false;
    ASSERT_TRUE(task.SetEventCallback(1, BeforeTrue, AfterFalse, &calls));
    EXPECT_TRUE(task.Dispatch(&user)) << "suppressed hook: the result is true";
    ASSERT_TRUE(task.SetEventCallback(1, BeforeFalse, AfterFalse, &calls));
    EXPECT_FALSE(task.Dispatch(&user)) << "hook false, after false";
    ASSERT_TRUE(task.SetEventCallback(1, nullptr, AfterTrue, &calls));
    EXPECT_TRUE(task.Dispatch(&user)) << "the after result is OR-ed in";
    TSEvent unknown = Event(&task, 9);
    EXPECT_FALSE(task.Dispatch(&unknown));

    // Exit passes through index 0, then ends the loop.
    calls = 0;
    ASSERT_TRUE(task.SetEventCallback(0, BeforeFalse, AfterTrue, &calls));
    TSEvent exit = Event(&task, EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, true, false));
    EXPECT_EQ(calls, 101);
    EXPECT_EQ(task.exitHooks, 1);
    EXPECT_TRUE(task.FlagExit());
    task.Destroy();
    EXPECT_TRUE(task.destroyHookOnOwnThread);
    EXPECT_FALSE(task.FlagRunning());
}

TEST_F(TaskTest, NothingRunsAfterExitAndDestroyDeletesTheRest) {
    TestTask task;
    ASSERT_TRUE(task.Create("exiting", 0, 0, 0));
    Recorder other;
    ASSERT_TRUE(other.Create(&task));

    task.HoldUserEvents();
    TSEvent user = Event(&task, EVENT_USER, 1);
    ASSERT_TRUE(TCTask::Send(&user, false, false));
    task.WaitInHook();
    EXPECT_TRUE(task.FlagRunning());

    TSEvent exit = Event(&task, EVENT_EXIT);
    ASSERT_TRUE(TCTask::Send(&exit, false, false));
    TSEvent later = Event(&task, EVENT_USER, 2);
    ASSERT_TRUE(TCTask::Send(&later, false, false));
    TSEvent forOther = Event(&other, EVENT_USER, 3);
    ASSERT_TRUE(TCTask::Send(&forOther, false, false));
    auto syncSender = std::async(std::launch::async, [&task] {
        TSEvent blocked = Event(&task, EVENT_USER, 4);
        return TCTask::Send(&blocked, true, false);
    });
    unsigned int queued = 0;
    while (!task.Find(&task, &queued) || queued < 3) {
        std::this_thread::yield();  // until the synchronous event is queued
    }

    task.Open();
    EXPECT_TRUE(task.Destroy()) << "events for the task's handler were still queued";
    EXPECT_TRUE(syncSender.get()) << "Destroy releases the synchronous sender";
    EXPECT_EQ(task.userHooks, 1);
    EXPECT_EQ(task.exitHooks, 1);
    EXPECT_TRUE(other.tags.empty());
    EXPECT_FALSE(task.FlagCreate());
    EXPECT_FALSE(task.TCQueue::FlagCreate());
    EXPECT_FALSE(task.TCThread::FlagCreate());

    // Events for a destroyed task are refused.
    EXPECT_FALSE(TCTask::Send(&user, false, false));
}

TEST_F(TaskTest, SynchronousSendToTheOwnTaskRunsInPlace) {
    TestTask task;
    ASSERT_TRUE(task.Create("inplace", 0, 0, 0));
    Recorder handler;
    ASSERT_TRUE(handler.Create(&task));
    std::vector<int> order;  // task thread only
    std::vector<bool> results;
    task.onUser = [&](const TSEvent* event) {
        TSEvent inner = Event(&handler, 5, event->word4);
        order.push_back(1);
        results.push_back(TCTask::Send(&inner, true, event->word5 != 0));
        order.push_back(2);
    };
    handler.onEvent = [&](const TSEvent*) { order.push_back(3); };

    TSEvent user = Event(&task, EVENT_USER, 10);
    user.word5 = 1;  // with priority
    ASSERT_TRUE(TCTask::Send(&user, true, false));
    {
        cimtest::AssertRecorder recorder;
        user.word4 = 11;
        user.word5 = 0;  // without priority: reported, still run
        ASSERT_TRUE(TCTask::Send(&user, true, false));
        EXPECT_EQ(recorder.Expressions(), std::vector<std::string>{"priority == true"});
    }
    EXPECT_EQ(order, (std::vector<int>{1, 3, 2, 1, 3, 2}));
    EXPECT_EQ(results, (std::vector<bool>{true, false}));
    EXPECT_EQ(handler.tags, (std::vector<uintptr_t>{10, 11}));
    ASSERT_EQ(handler.threads.size(), 2u);
    EXPECT_EQ(handler.threads[0], task.Id());

    // No entry of the table outlives its send.
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        EXPECT_FALSE(TCSyncDet::m_arrPCSyncDet[i].bValid) << i;
    }
    handler.TCHandler::Destroy();
    Stop(task);
}

TEST_F(TaskTest, PingAndClearQueue) {
    TestTask task;
    ASSERT_TRUE(task.Create("pinged", 0, 0, 0));
    EXPECT_TRUE(TCTask::Ping(&task, 0));
    EXPECT_TRUE(TCTask::Ping(&task, 5000));

    // A busy task does not answer in time; the request is freed later by
    // the task (ASan checks that nothing leaks).
    task.HoldUserEvents();
    TSEvent user = Event(&task, EVENT_USER, 1);
    ASSERT_TRUE(TCTask::Send(&user, false, false));
    task.WaitInHook();
    auto start = Clock::now();
    EXPECT_FALSE(TCTask::Ping(&task, 100));
    EXPECT_GE(ElapsedMs(start), 98);
    EXPECT_LT(ElapsedMs(start), cimtest::Scaled(milliseconds(1500)).count());
    task.Open();
    // Answered once the late request has been executed and freed.
    EXPECT_TRUE(TCTask::Ping(&task, 5000));

    // Clear the task's own events while it is busy: the request has
    // priority, so it runs before them once the task is free. (A queued
    // ping would be deleted with them and its request never freed.)
    task.HoldUserEvents();
    ASSERT_TRUE(TCTask::Send(&user, false, false));
    task.WaitInHook();
    Recorder other;
    ASSERT_TRUE(other.Create(&task));
    for (uintptr_t i = 0; i < 3; ++i) {
        TSEvent own = Event(&task, EVENT_USER, 10 + i);
        ASSERT_TRUE(TCTask::Send(&own, false, false));
        TSEvent foreign = Event(&other, EVENT_USER, 20 + i);
        ASSERT_TRUE(TCTask::Send(&foreign, false, false));
    }
    auto cleared = std::async(std::launch::async, [&task] { return task.ClearQueue(&task, 0); });
    EXPECT_EQ(cleared.wait_for(milliseconds(30)), std::future_status::timeout);
    task.Open();
    EXPECT_TRUE(cleared.get());
    EXPECT_TRUE(TCTask::Ping(&task, 5000));
    EXPECT_EQ(task.userHooks, 2) << "the task's own queued events were deleted";
    EXPECT_EQ(other.tags, (std::vector<uintptr_t>{20, 21, 22}));
    other.TCHandler::Destroy();

    Stop(task);
    EXPECT_FALSE(TCTask::Ping(&task, 0)) << "a task no longer listed";
    EXPECT_FALSE(TCTask::Ping(&task, 100));
    EXPECT_FALSE(task.ClearQueue(&task, 100));
}

TEST_F(TaskTest, FullQueueRefusesSends) {
    TestTask task;
    ASSERT_TRUE(task.Create("full", 0, 0, 0));
    Recorder handler;
    ASSERT_TRUE(handler.Create(&task));
    task.HoldUserEvents();
    TSEvent user = Event(&task, EVENT_USER);
    ASSERT_TRUE(TCTask::Send(&user, false, false));
    task.WaitInHook();

    TSEvent event = Event(&handler, 1);
    for (int i = 0; i < 240; ++i) {
        ASSERT_TRUE(TCTask::Send(&event, false, false)) << i;
    }
    EXPECT_FALSE(TCTask::Send(&event, false, false));
    EXPECT_FALSE(TCTask::Send(&event, true, false)) << "a refused synchronous send does not block";
    for (int i = 0; i < 16; ++i) {
        ASSERT_TRUE(TCTask::Send(&event, false, true)) << i;
    }
    EXPECT_FALSE(TCTask::Send(&event, false, true));
    EXPECT_FALSE(TCTask::Ping(&task, 0));
    EXPECT_FALSE(TCTask::Ping(&task, 50));

    task.Open();
    // An ordinary synchronous send runs after everything queued before it;
    // it is refused until the task has drained below the reserve.
    TSEvent barrier = Event(&task, EVENT_USER);
    while (!TCTask::Send(&barrier, true, false)) {
        std::this_thread::yield();
    }
    EXPECT_EQ(handler.tags.size(), 256u);
    handler.TCHandler::Destroy();
    Stop(task);
}

TEST_F(TaskTest, TaskListFindSeekAndCreationValues) {
    TestTask first;
    TestTask second;
    ASSERT_TRUE(first.Create("first", 0, 0, 3));
    ASSERT_TRUE(second.Create("a-task-name-of-20-ch", 50, 0, 9));
    EXPECT_EQ(first.CreateValue(), 5UL);
    EXPECT_EQ(second.CreateValue(), 9UL);
    EXPECT_EQ(second.IdleTimeout(), 50UL);
    EXPECT_STREQ(second.Name(), "a-task-name-of-");

    TCTaskList::m_mutex.Lock();
    EXPECT_TRUE(TCTaskList::Find(&second));
    EXPECT_EQ(TCTaskList::Task(), &second);
    EXPECT_TRUE(TCTaskList::Find("a-task-name-of-"));
    EXPECT_EQ(TCTaskList::Task(), &second);
    EXPECT_FALSE(TCTaskList::Find("a-task-name-of-20-ch"));
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    EXPECT_FALSE(TCTaskList::Find(static_cast<const TCTask*>(nullptr)));
    EXPECT_TRUE(TCTaskList::Seek(0));
    EXPECT_EQ(TCTaskList::Task(), &first);
    EXPECT_TRUE(TCTaskList::Seek(1));
    EXPECT_EQ(TCTaskList::Task(), &second);
    EXPECT_TRUE(TCTaskList::Seek(2)) << "the end itself is a valid place";
    EXPECT_EQ(TCTaskList::Task(), nullptr);
    EXPECT_FALSE(TCTaskList::Seek(3));
    TCTaskList::m_mutex.Unlock();

    TestTask zero;
    ASSERT_TRUE(zero.Create("zero", 0, 0, 0));
    EXPECT_EQ(zero.CreateValue(), 0UL);
    Stop(zero);
    Stop(first);
    TCTaskList::m_mutex.Lock();
    EXPECT_TRUE(TCTaskList::Seek(0));
    EXPECT_EQ(TCTaskList::Task(), &second);
    EXPECT_FALSE(TCTaskList::Find(&first));
    TCTaskList::m_mutex.Unlock();
    Stop(second);
    TCTaskList::m_mutex.Lock();
    EXPECT_TRUE(TCTaskList::Seek(0)) << "Seek(0) of an empty list";
    EXPECT_FALSE(TCTaskList::Seek(1));
    TCTaskList::m_mutex.Unlock();
}

TEST_F(TaskTest, IdleHookRunsWithoutEvents) {
    class IdleTask : public TestTask {
    public:
        std::promise<void> idled;
        std::atomic<int> idles{0};

    protected:
        void t_Idle() override {
            if (++idles == 2) {
                idled.set_value();
            }
        }
    };
    IdleTask task;
    const auto start = Clock::now();
    ASSERT_TRUE(task.Create("idle", 20, 0, 0));
    auto idled = task.idled.get_future();
    ASSERT_EQ(idled.wait_for(cimtest::Scaled(milliseconds(1000))), std::future_status::ready);
    EXPECT_GE(ElapsedMs(start), 38);
    Stop(task);
}

TEST_F(TaskTest, AsynchronousSendAllocatesNothing) {
    TestTask task;
    ASSERT_TRUE(task.Create("noalloc", 0, 0, 0));
    Recorder handler;
    ASSERT_TRUE(handler.Create(&task));
    handler.tags.reserve(16);
    handler.threads.reserve(16);

    TSEvent event = Event(&handler, 1, 1);
    tAllocations = 0;
    tCounting = true;
    const bool plain = TCTask::Send(&event, false, false);
    const bool priority = TCTask::Send(&event, false, true);
    tCounting = false;
    EXPECT_TRUE(plain);
    EXPECT_TRUE(priority);
    EXPECT_EQ(tAllocations, 0);

    // The counter does see an allocation.
    tCounting = true;
    int* volatile probe = new int(1);
    tCounting = false;
    delete probe;
    EXPECT_EQ(tAllocations, 1);

    TSEvent barrier = Event(&task, EVENT_USER);
    ASSERT_TRUE(TCTask::Send(&barrier, true, false));
    EXPECT_EQ(handler.tags.size(), 2u);
    handler.TCHandler::Destroy();
    Stop(task);
}

TEST_F(TaskTest, ManyProducersLoseNothingAndKeepTheirOrder) {
    constexpr int kProducers = 4;
    constexpr uintptr_t kEvents = 20000;
    constexpr uintptr_t kSyncEvery = 64;

    TestTask task;
    ASSERT_TRUE(task.Create("loaded", 0, 0, 0));
    struct Checker : TCHandler {
        std::vector<uintptr_t> next = std::vector<uintptr_t>(kProducers, 0);
        long outOfOrder = 0;
        long executed = 0;

    protected:
        bool t_OnEvent(const TSEvent* event) override {
            ++executed;
            uintptr_t& expected = next[event->word4];
            if (event->word5 != expected) {
                ++outOfOrder;
            }
            expected = event->word5 + 1;
            return true;
        }
    } checker;
    ASSERT_TRUE(checker.Create(&task));

    std::vector<std::thread> producers;
    std::atomic<long> refusals{0};
    for (uintptr_t producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([&, producer] {
            for (uintptr_t i = 0; i < kEvents; ++i) {
                TSEvent event = Event(&checker, 1, producer);
                event.word5 = i;
                const bool sync = i % kSyncEvery == kSyncEvery - 1;
                // A full queue refuses; the producer tries again.
                while (!TCTask::Send(&event, sync, false)) {
                    ++refusals;
                    std::this_thread::yield();
                }
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    // Ordinary events run in order: a synchronous one sent now runs last.
    TSEvent barrier = Event(&task, EVENT_USER);
    ASSERT_TRUE(TCTask::Send(&barrier, true, false));

    EXPECT_EQ(checker.executed, long(kProducers * kEvents));
    EXPECT_EQ(checker.outOfOrder, 0);
    for (int producer = 0; producer < kProducers; ++producer) {
        EXPECT_EQ(checker.next[producer], kEvents) << producer;
    }
    checker.TCHandler::Destroy();
    Stop(task);
}

}  // namespace
