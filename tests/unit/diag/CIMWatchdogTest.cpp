#include <cimcore/CIMWatchdog.h>

#include "LscTestSupport.h"

#include <gmock/gmock.h>

#include <cimcore/CIMThreadPool.h>

#include <algorithm>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/barrier.hpp>

#include <sys/prctl.h>

using namespace cimtest;
using CIM::EWatchdogReport;
using std::chrono::milliseconds;

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr unsigned long kStart = 100;  // a ring member's handler sends on
constexpr unsigned long kCall = 101;   // answered at once

// Collects what a watchdog reports.
class Reports : public Recorder<std::pair<EWatchdogReport, std::string>> {
public:
    CIM::TCCIMWatchdog::TFReport Handler() {
        return [this](EWatchdogReport kind, const std::string& text) { Add({kind, text}); };
    }
    std::vector<std::string> Texts(EWatchdogReport kind) const {
        std::vector<std::string> texts;
        for (const auto& report : All()) {
            if (report.first == kind) {
                texts.push_back(report.second);
            }
        }
        return texts;
    }
    size_t Count(EWatchdogReport kind) const { return Texts(kind).size(); }
    bool WaitFor(EWatchdogReport kind, size_t count) {
        return Await([&](const auto& reports) {
            return size_t(std::count_if(reports.begin(), reports.end(), [kind](const auto& r) {
                       return r.first == kind;
                   })) >= count;
        });
    }
    size_t Total() const { return All().size(); }
    std::string Text() const {
        std::string all;
        for (const auto& report : All()) {
            all += std::to_string(static_cast<int>(report.first)) + " " + report.second + "\n";
        }
        return all;
    }
};

// Waits until the watchdog has scanned `scans` more times.
void AwaitScans(const CIM::TCCIMWatchdog& watchdog, unsigned long scans) {
    const unsigned long target = watchdog.ScanCount() + scans;
    ASSERT_TRUE(WaitUntil([&] { return watchdog.ScanCount() >= target; }));
}

// Tasks in a ring: on kStart each waits until all have started, then sends
// kCall synchronously to the next one. Nobody can answer: a deadlock.
class Ring {
public:
    explicit Ring(int size) : m_tasks(size), m_allStarted(unsigned(size)) {
        for (int i = 0; i < size; ++i) {
            m_handlers.emplace_back(new Member(m_allStarted));
        }
        for (int i = 0; i < size; ++i) {
            const std::string name = "ring" + std::to_string(size) + "-" + std::to_string(i);
            EXPECT_TRUE(m_tasks[i].Create(name.c_str(), 0, 0, 0));
            EXPECT_TRUE(m_handlers[i]->Create(&m_tasks[i]));
            m_handlers[i]->next = m_handlers[(i + 1) % size].get();
        }
    }
    void Close() {
        for (auto& handler : m_handlers) {
            SendTo(handler.get(), kStart, false);
        }
    }
    // Destroying one handler deletes the call queued for it and releases its
    // sender; the others then unwind.
    void Break() { m_handlers[1]->TCHandler::Destroy(); }
    ~Ring() {
        for (auto& handler : m_handlers) {
            if (handler->FlagCreate()) {
                handler->TCHandler::Destroy();
            }
        }
        for (auto& task : m_tasks) {
            task.Stop();
        }
    }

private:
    struct Member : TCHandler {
        explicit Member(boost::barrier& allStarted) : allStarted(allStarted) {}
        bool t_OnEvent(const TSEvent* event) override {
            if (event->type == kStart) {
                allStarted.wait();
                SendTo(next, kCall, true);
            }
            return true;
        }
        boost::barrier& allStarted;
        Member* next = nullptr;
    };

    std::vector<HeldTask> m_tasks;
    boost::barrier m_allStarted;
    std::vector<std::unique_ptr<Member>> m_handlers;
};

CIM::TSLegacySyncWait Wait(int index, unsigned long caller, unsigned long receiver,
                           const std::string& callerName, const std::string& receiverName) {
    return CIM::TSLegacySyncWait{
        index, 0, 10, caller, static_cast<int>(caller), callerName, receiver, receiverName};
}

}  // namespace

TEST(WaitGraph, FindsEveryCycleOnceAndIgnoresChainsAndInPlaceSends) {
    CIM::TSLegacySnapshot snapshot;
    // 7 -> 5 -> 7 (two tasks), 30 -> 10 -> 20 -> 30 (three), 40 -> 30 (into
    // a cycle, not part of it), 50 -> 50 (in place), 60 -> 70 (a plain wait).
    snapshot.waits = {Wait(0, 7, 5, "b", "a"),         Wait(1, 5, 7, "a", "b"),
                      Wait(2, 20, 30, "y", "z"),       Wait(3, 30, 10, "z", "x"),
                      Wait(4, 10, 20, "x", "y"),       Wait(5, 40, 30, "w", "z"),
                      Wait(6, 50, 50, "self", "self"), Wait(7, 60, 70, "main", "q")};
    snapshot.waits[7].waitedMs = 500;
    const auto cycles = CIM::FindWaitCycles(snapshot);
    ASSERT_EQ(cycles.size(), 2u);
    std::vector<std::string> texts{cycles[0].text, cycles[1].text};
    std::sort(texts.begin(), texts.end());
    // Each starts at its lowest thread and names task, thread and kernel id.
    EXPECT_EQ(texts[0], "a (tid 5) -> b (tid 7) -> a (tid 5)");
    EXPECT_EQ(texts[1], "x (tid 10) -> y (tid 20) -> z (tid 30) -> x (tid 10)");
    for (const auto& cycle : cycles) {
        for (size_t k = 0; k < cycle.waits.size(); ++k) {
            EXPECT_EQ(snapshot.waits[cycle.waits[k]].receiverId,
                      snapshot.waits[cycle.waits[(k + 1) % cycle.waits.size()]].callerId);
        }
    }
    EXPECT_EQ(CIM::FindLongWaits(snapshot, 100), std::vector<size_t>{7});

    // A thread whose kernel name is not its task's name shows both.
    snapshot.waits = {Wait(0, 1, 2, "worker", "b"), Wait(1, 2, 1, "b", "a")};
    ASSERT_EQ(CIM::FindWaitCycles(snapshot).size(), 1u);
    EXPECT_EQ(CIM::FindWaitCycles(snapshot)[0].text,
              "a (thread worker, tid 1) -> b (tid 2) -> a (thread worker, tid 1)");
}

TEST_F(LscTest, SnapshotListsTasksAndBlockedSendsAndReleasesTheLocks) {
    HeldTask task;
    ASSERT_TRUE(task.Create("snap-task", 0, 0, 0));
    task.Hold();
    ASSERT_TRUE(SendTo(&task, 50, false));
    ASSERT_TRUE(SendTo(&task, 51, false));
    std::thread sender([&] {
        prctl(PR_SET_NAME, "snap-sender", 0, 0, 0);
        EXPECT_TRUE(SendTo(&task, 52, true));
    });
    // The sender is in the table before its event is queued: wait for both.
    CIM::TSLegacySnapshot snapshot;
    ASSERT_TRUE(WaitUntil([&] {
        snapshot = CIM::TakeLegacySnapshot();
        return snapshot.waits.size() == 1 && snapshot.tasks.size() == 1 &&
               snapshot.tasks[0].queued == 3;
    }));
    EXPECT_TRUE(snapshot.tableCreated);
    EXPECT_EQ(snapshot.tasks[0].name, "snap-task");
    EXPECT_EQ(snapshot.tasks[0].tid, task.Tid());
    EXPECT_TRUE(snapshot.tasks[0].running);
    EXPECT_EQ(snapshot.waits[0].callerName, "snap-sender");
    EXPECT_EQ(snapshot.waits[0].receiverName, "snap-task");
    EXPECT_EQ(snapshot.waits[0].receiverId, static_cast<unsigned long>(task.Id()));
    EXPECT_TRUE(CIM::FindWaitCycles(snapshot).empty());
    const std::string text = CIM::ToString(snapshot);
    EXPECT_THAT(text, HasSubstr("task snap-task: tid " + std::to_string(task.Tid()) +
                                ", 3 queued, loop running\n"));
    EXPECT_THAT(text, HasSubstr("sync send [0]: thread snap-sender (tid "));
    EXPECT_THAT(text, HasSubstr(" waits for task snap-task since "));

    // Both locks are free again: the runtime goes on.
    task.Open();
    sender.join();
    EXPECT_EQ(SyncEntries(), 0);
    task.Stop();
    EXPECT_TRUE(CIM::TakeLegacySnapshot().tasks.empty());
}

TEST_F(LscTest, WatchdogReportsDeadlocksAndLongWaitsOnceEachAndTheirEnd) {
    LogCapture log;
    Reports reports;
    CIM::TCCIMWatchdog watchdog;
    watchdog.SetReportHandler(reports.Handler());
    ASSERT_TRUE(watchdog.Start(20, 150, 1000));
    EXPECT_FALSE(watchdog.Start(20, 150, 1000));

    size_t cycles = 0;
    for (int size : {2, 3}) {
        SCOPED_TRACE(size);
        Ring ring(size);
        ring.Close();
        ++cycles;
        ASSERT_TRUE(reports.WaitFor(EWatchdogReport::DEADLOCK, cycles)) << reports.Text();
        // It lasts well beyond the long-wait threshold, and is still one
        // deadlock, not a set of long waits.
        AwaitScans(watchdog, 15);
        EXPECT_EQ(reports.Count(EWatchdogReport::DEADLOCK), cycles);
        EXPECT_EQ(reports.Count(EWatchdogReport::LONG_WAIT), 0u) << reports.Text();
        const std::string text = reports.Texts(EWatchdogReport::DEADLOCK).back();
        for (int i = 0; i < size; ++i) {
            EXPECT_THAT(text, HasSubstr("ring" + std::to_string(size) + "-" + std::to_string(i) +
                                        " (tid "));
        }
        EXPECT_EQ(std::count(text.begin(), text.end(), '>'), size) << text;

        ring.Break();
        ASSERT_TRUE(reports.WaitFor(EWatchdogReport::DEADLOCK_END, cycles));
        AwaitScans(watchdog, 3);
        EXPECT_EQ(reports.Count(EWatchdogReport::DEADLOCK_END), cycles);
        EXPECT_EQ(reports.Texts(EWatchdogReport::DEADLOCK_END).back(),
                  "deadlock ended: " + text.substr(std::string("deadlock: ").size()));
    }

    // One send held up for long: a long wait, once, and its end.
    HeldTask slow;
    ASSERT_TRUE(slow.Create("slow-task", 0, 0, 0));
    slow.Hold();
    std::thread sender([&] {
        prctl(PR_SET_NAME, "slow-sender", 0, 0, 0);
        EXPECT_TRUE(SendTo(&slow, 60, true));
    });
    ASSERT_TRUE(reports.WaitFor(EWatchdogReport::LONG_WAIT, 1));
    AwaitScans(watchdog, 5);
    EXPECT_EQ(reports.Count(EWatchdogReport::LONG_WAIT), 1u);
    const std::string longWait = reports.Texts(EWatchdogReport::LONG_WAIT)[0];
    EXPECT_THAT(longWait, HasSubstr("long synchronous send: thread slow-sender (tid "));
    EXPECT_THAT(longWait, HasSubstr(" waits for task slow-task, "));
    slow.Open();
    sender.join();
    ASSERT_TRUE(reports.WaitFor(EWatchdogReport::LONG_WAIT_END, 1));
    slow.Stop();
    watchdog.Stop();
    EXPECT_EQ(reports.Count(EWatchdogReport::DEADLOCK), 2u);
    EXPECT_EQ(reports.Count(EWatchdogReport::LONG_WAIT_END), 1u);

    // Every report is one error-level line of the library's log.
    size_t errorLines = 0;
    for (const std::string& line : log.Lines()) {
        if (line.find("CIMWatchdog.cpp: m_ScanLegacy(") != std::string::npos) {
            EXPECT_THAT(line, HasSubstr(" E/CI_CORE("));
            ++errorLines;
        }
    }
    EXPECT_EQ(errorLines, reports.Total());
}

// A token passed between two tasks by synchronous sends, each answered at
// once; a sender that was just released briefly stays in the table beside the
// next send in the other direction. Meanwhile outside threads send
// synchronously, and tasks are created and destroyed. None of it is slow.
TEST_F(LscTest, WatchdogStaysQuietUnderManyShortSyncSends) {
    struct Player : TCHandler {
        bool t_OnEvent(const TSEvent* event) override {
            if (event->type == kStart && !stop) {
                SendTo(peer, kCall, true);
                ++sends;
            } else if (event->type == kCall) {
                SendTo(this, kStart, false);  // answer now, pass the token on later
            }
            return true;
        }
        Player* peer = nullptr;
        std::atomic<bool> stop{false};
        std::atomic<long> sends{0};
    };
    HeldTask taskA, taskB;
    Player a, b;
    ASSERT_TRUE(taskA.Create("player-a", 0, 0, 0));
    ASSERT_TRUE(taskB.Create("player-b", 0, 0, 0));
    ASSERT_TRUE(a.Create(&taskA));
    ASSERT_TRUE(b.Create(&taskB));
    a.peer = &b;
    b.peer = &a;

    Reports reports;
    CIM::TCCIMWatchdog watchdog;
    watchdog.SetReportHandler(reports.Handler());
    // A busy shared machine can hold a new thread back for a few hundred ms;
    // the run lasts twice the threshold, so a send left behind would show.
    const auto longMs = static_cast<unsigned long>(Scaled(milliseconds(500)).count());
    ASSERT_TRUE(watchdog.Start(5, longMs, 1000));
    ASSERT_TRUE(SendTo(&a, kStart, false));

    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (Player* target : {&a, &b}) {
        threads.emplace_back([&, target] {
            while (!done) {
                EXPECT_TRUE(SendTo(target, 77, true));
            }
        });
    }
    threads.emplace_back([&] {
        while (!done) {
            HeldTask passing;
            if (!passing.Create("passing", 0, 0, 0)) {
                ADD_FAILURE();
                return;
            }
            EXPECT_TRUE(SendTo(&passing, EVENT_USER, true));
            passing.Stop();
        }
    });
    const unsigned long firstScan = watchdog.ScanCount();
    EXPECT_TRUE(WaitUntil([&] { return a.sends + b.sends >= 10000; }, std::chrono::seconds(20)));
    EXPECT_TRUE(WaitUntil([&] { return watchdog.ScanCount() >= firstScan + 2 * longMs / 5; }));
    done = true;
    JoinAll(threads);
    a.stop = true;
    b.stop = true;
    watchdog.Stop();
    EXPECT_EQ(reports.Total(), 0u) << reports.Text();

    a.TCHandler::Destroy();
    b.TCHandler::Destroy();
    taskA.Stop();
    taskB.Stop();
}

TEST(WatchdogLoops, ReportsAStalledLoopAndItsEndButNotABusyOneAndLetsJoinGo) {
    Reports reports;
    CIM::TCCIMWatchdog watchdog;
    watchdog.SetReportHandler(reports.Handler());
    const unsigned long periodMs = 50;
    const unsigned long lagMs = 100;
    ASSERT_TRUE(watchdog.Start(periodMs, 1000, lagMs));

    auto stalled = boost::make_shared<CIM::TCCIMTask>("stall-task");
    auto busy = boost::make_shared<CIM::TCCIMTask>("busy-task");
    watchdog.Watch(stalled, "stall-task");
    watchdog.Watch(busy, "busy-task");

    // The busy task runs short handlers back to back, for the whole test.
    std::atomic<bool> keepBusy{true};
    std::atomic<long> busyRuns{0};
    std::function<void()> work = [&] {
        const auto until = Clock::now() + milliseconds(2);
        while (Clock::now() < until) {
        }
        ++busyRuns;
        if (keepBusy) {
            boost::asio::post(busy->GetStrand(), work);
        }
    };
    boost::asio::post(busy->GetStrand(), work);

    // No longer watched: its stall goes unreported.
    auto unwatched = boost::make_shared<CIM::TCCIMTask>("unwatched-task");
    watchdog.Watch(unwatched, "unwatched-task");
    AwaitScans(watchdog, 2);
    watchdog.Unwatch(unwatched.get());

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    const auto stallStart = Clock::now();
    boost::asio::post(stalled->GetStrand(), [released] { released.wait(); });
    boost::asio::post(unwatched->GetStrand(), [released] { released.wait(); });
    ASSERT_TRUE(reports.WaitFor(EWatchdogReport::LOOP_STALL, 1));
    const milliseconds reportedAfter = Since(stallStart);
    EXPECT_GE(reportedAfter, milliseconds(lagMs));
    EXPECT_LE(reportedAfter, Scaled(milliseconds(lagMs + 2 * periodMs)));
    AwaitScans(watchdog, 4);
    release.set_value();
    ASSERT_TRUE(reports.WaitFor(EWatchdogReport::LOOP_STALL_END, 1));
    const auto stalls = reports.Texts(EWatchdogReport::LOOP_STALL);
    ASSERT_EQ(stalls.size(), 1u) << reports.Text();
    EXPECT_THAT(stalls[0], StartsWith("task loop stalled: stall-task has run no handler for "));
    EXPECT_THAT(reports.Texts(EWatchdogReport::LOOP_STALL_END)[0],
                StartsWith("task loop recovered: stall-task, lag "));

    // Joining a watched task is not held up by a probe, and ends its watch.
    AwaitScans(watchdog, 3);
    const auto joinStart = Clock::now();
    stalled->Join();
    EXPECT_LE(Since(joinStart), Scaled(milliseconds(periodMs)));
    stalled.reset();  // the watchdog holds it weakly, so this destroys it

    unwatched->Join();
    keepBusy = false;
    busy->Join();
    EXPECT_GT(busyRuns.load(), 20);
    AwaitScans(watchdog, 2);
    EXPECT_EQ(reports.Total(), 2u) << reports.Text();

    // A long period does not hold Stop up.
    watchdog.Stop();
    ASSERT_TRUE(watchdog.Start(5000, 1000, 1000));
    AwaitScans(watchdog, 1);
    const auto stopStart = Clock::now();
    watchdog.Stop();
    EXPECT_LT(Since(stopStart), Scaled(milliseconds(500)));
    EXPECT_FALSE(watchdog.IsRunning());
}
