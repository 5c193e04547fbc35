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

// A watchdog and what it reported.
class Watchdog : public Recorder<std::pair<EWatchdogReport, std::string>> {
public:
    bool Start(unsigned long periodMs, unsigned long waitThresholdMs, unsigned long lagMs) {
        dog.SetReportHandler([this](EWatchdogReport kind, const std::string& text) {
            Add({kind, text});
        });
        return dog.Start(periodMs, waitThresholdMs, lagMs);
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
    // Waits until the watchdog has scanned `scans` more times.
    void AwaitScans(unsigned long scans) {
        const unsigned long target = dog.ScanCount() + scans;
        ASSERT_TRUE(WaitUntil([&] { return dog.ScanCount() >= target; }));
    }
    std::string Text() const { return ::testing::PrintToString(All()); }

    CIM::TCCIMWatchdog dog;  // last: stopped before the reports go
};

// Tasks in a ring whose handlers, on kStart, send kCall synchronously to the
// next one. Closed (all started at once, after meeting at a barrier) nobody
// can answer: a deadlock. Passing a token instead, each call is answered at
// once and its receiver sends the next: many short sync sends.
class Ring {
public:
    Ring(int size, bool token) : m_tasks(size), m_allStarted(unsigned(size)), m_token(token) {
        for (int i = 0; i < size; ++i) {
            const std::string name = "ring" + std::to_string(size) + "-" + std::to_string(i);
            EXPECT_TRUE(m_tasks[i].Create(name.c_str(), 0, 0, 0));
            m_handlers.emplace_back(new Member(*this, (i + 1) % size));
            EXPECT_TRUE(m_handlers[i]->Create(&m_tasks[i]));
        }
    }
    void Close() {
        for (auto& handler : m_handlers) {
            SendTo(handler.get(), kStart, false);
        }
    }
    void Pass() { SendTo(m_handlers[0].get(), kStart, false); }
    TCHandler* Handler(size_t i) { return m_handlers[i].get(); }
    // Destroying one handler deletes the call queued for it and releases its
    // sender; the others then unwind.
    void Break() { m_handlers[1]->TCHandler::Destroy(); }
    ~Ring() {
        m_stop = true;
        // Twice through every queue: a call in flight is answered, and the
        // start it queued is skipped, before the handlers go.
        for (int round = 0; round < 2; ++round) {
            for (auto& task : m_tasks) {
                EXPECT_TRUE(SendTo(&task, EVENT_USER, true));
            }
        }
        for (auto& handler : m_handlers) {
            if (handler->FlagCreate()) {
                handler->TCHandler::Destroy();
            }
        }
        for (auto& task : m_tasks) {
            task.Stop();
        }
    }

    std::atomic<long> sends{0};

private:
    struct Member : TCHandler {
        Member(Ring& ring, int next) : ring(ring), next(size_t(next)) {}
        bool t_OnEvent(const TSEvent* event) override {
            if (event->type == kStart && !ring.m_stop) {
                if (!ring.m_token) {
                    ring.m_allStarted.wait();
                }
                SendTo(ring.m_handlers[next].get(), kCall, true);
                ++ring.sends;
            } else if (event->type == kCall && ring.m_token) {
                SendTo(this, kStart, false);  // answer now, pass the token on later
            }
            return true;
        }
        Ring& ring;
        const size_t next;  // index of the member it calls
    };

    std::vector<HeldTask> m_tasks;
    boost::barrier m_allStarted;
    const bool m_token;
    std::atomic<bool> m_stop{false};
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
    // Thread 5's kernel name is not its task's name: it shows both.
    snapshot.waits = {Wait(0, 7, 5, "b", "a"),         Wait(1, 5, 7, "worker", "b"),
                      Wait(2, 20, 30, "y", "z"),       Wait(3, 30, 10, "z", "x"),
                      Wait(4, 10, 20, "x", "y"),       Wait(5, 40, 30, "w", "z"),
                      Wait(6, 50, 50, "self", "self"), Wait(7, 60, 70, "main", "q")};
    snapshot.waits[7].waitedMs = 500;
    const auto cycles = CIM::FindWaitCycles(snapshot);
    ASSERT_EQ(cycles.size(), 2u);
    std::vector<std::string> texts{cycles[0].text, cycles[1].text};
    std::sort(texts.begin(), texts.end());
    // Each starts at its lowest thread and names task, thread and kernel id.
    EXPECT_EQ(texts[0], "a (thread worker, tid 5) -> b (tid 7) -> a (thread worker, tid 5)");
    EXPECT_EQ(texts[1], "x (tid 10) -> y (tid 20) -> z (tid 30) -> x (tid 10)");
    for (const auto& cycle : cycles) {
        for (size_t k = 0; k < cycle.waits.size(); ++k) {
            EXPECT_EQ(snapshot.waits[cycle.waits[k]].receiverId,
                      snapshot.waits[cycle.waits[(k + 1) % cycle.waits.size()]].callerId);
        }
    }
    EXPECT_EQ(CIM::FindLongWaits(snapshot, 100), std::vector<size_t>{7});
}

TEST_F(LscTest, SnapshotAndWatchdogShowDeadlocksAndLongWaitsOnceEachAndTheirEnd) {
    LogCapture log;
    Watchdog watchdog;
    ASSERT_TRUE(watchdog.Start(20, 150, 1000));
    EXPECT_FALSE(watchdog.dog.Start(20, 150, 1000));

    size_t cycles = 0;
    for (int size : {2, 3}) {
        SCOPED_TRACE(size);
        Ring ring(size, false);
        ring.Close();
        ++cycles;
        ASSERT_TRUE(watchdog.WaitFor(EWatchdogReport::DEADLOCK, cycles)) << watchdog.Text();
        // It lasts well beyond the long-wait threshold, and is still one
        // deadlock, not a set of long waits.
        watchdog.AwaitScans(15);
        EXPECT_EQ(watchdog.Count(EWatchdogReport::DEADLOCK), cycles);
        EXPECT_EQ(watchdog.Count(EWatchdogReport::LONG_WAIT), 0u) << watchdog.Text();
        const std::string text = watchdog.Texts(EWatchdogReport::DEADLOCK).back();
        for (int i = 0; i < size; ++i) {
            EXPECT_THAT(text, HasSubstr("ring" + std::to_string(size) + "-" + std::to_string(i) +
                                        " (tid "));
        }
        EXPECT_EQ(std::count(text.begin(), text.end(), '>'), size) << text;

        ring.Break();
        ASSERT_TRUE(watchdog.WaitFor(EWatchdogReport::DEADLOCK_END, cycles));
        watchdog.AwaitScans(3);
        EXPECT_EQ(watchdog.Count(EWatchdogReport::DEADLOCK_END), cycles);
        EXPECT_EQ(watchdog.Texts(EWatchdogReport::DEADLOCK_END).back(),
                  "deadlock ended: " + text.substr(std::string("deadlock: ").size()));
    }

    // One send held up for long: the snapshot lists it beside its task's
    // queue; it is a long wait, once, and ends; the locks are free again.
    HeldTask slow;
    ASSERT_TRUE(slow.Create("slow-task", 0, 0, 0));
    slow.Hold();
    ASSERT_TRUE(SendTo(&slow, 50, false));
    ASSERT_TRUE(SendTo(&slow, 51, false));
    std::thread sender([&] {
        prctl(PR_SET_NAME, "slow-sender", 0, 0, 0);
        EXPECT_TRUE(SendTo(&slow, 52, true));
    });
    // The sender is in the table before its event is queued: wait for both.
    CIM::TSLegacySnapshot snapshot;
    ASSERT_TRUE(WaitUntil([&] {
        snapshot = CIM::TakeLegacySnapshot();
        return snapshot.waits.size() == 1 && snapshot.tasks.size() == 1 &&
               snapshot.tasks[0].queued == 3;
    }));
    EXPECT_TRUE(snapshot.tableCreated);
    EXPECT_EQ(snapshot.tasks[0].name, "slow-task");
    EXPECT_EQ(snapshot.tasks[0].tid, slow.Tid());
    EXPECT_TRUE(snapshot.tasks[0].running);
    EXPECT_EQ(snapshot.waits[0].callerName, "slow-sender");
    EXPECT_EQ(snapshot.waits[0].receiverName, "slow-task");
    EXPECT_EQ(snapshot.waits[0].receiverId, static_cast<unsigned long>(slow.Id()));
    EXPECT_TRUE(CIM::FindWaitCycles(snapshot).empty());
    const std::string text = CIM::ToString(snapshot);
    EXPECT_THAT(text, HasSubstr("task slow-task: tid " + std::to_string(slow.Tid()) +
                                ", 3 queued, loop running\n"));
    EXPECT_THAT(text, HasSubstr("sync send [0]: thread slow-sender (tid "));
    EXPECT_THAT(text, HasSubstr(" waits for task slow-task since "));
    ASSERT_TRUE(watchdog.WaitFor(EWatchdogReport::LONG_WAIT, 1));
    watchdog.AwaitScans(5);
    EXPECT_EQ(watchdog.Count(EWatchdogReport::LONG_WAIT), 1u);
    const std::string longWait = watchdog.Texts(EWatchdogReport::LONG_WAIT)[0];
    EXPECT_THAT(longWait, HasSubstr("long synchronous send: thread slow-sender (tid "));
    EXPECT_THAT(longWait, HasSubstr(" waits for task slow-task, "));
    slow.Open();
    sender.join();
    EXPECT_EQ(SyncEntries(), 0);
    ASSERT_TRUE(watchdog.WaitFor(EWatchdogReport::LONG_WAIT_END, 1));
    slow.Stop();
    EXPECT_TRUE(CIM::TakeLegacySnapshot().tasks.empty());
    watchdog.dog.Stop();
    EXPECT_EQ(watchdog.Count(EWatchdogReport::DEADLOCK), 2u);
    EXPECT_EQ(watchdog.Count(EWatchdogReport::LONG_WAIT_END), 1u);

    // Every report is one error-level line of the library's log.
    size_t errorLines = 0;
    for (const std::string& line : log.Lines()) {
        if (line.find("CIMWatchdog.cpp: m_ScanLegacy(") != std::string::npos) {
            EXPECT_THAT(line, HasSubstr(" E/CI_CORE("));
            ++errorLines;
        }
    }
    EXPECT_EQ(errorLines, watchdog.All().size());
}

// A token passed between two tasks by synchronous sends, each answered at
// once; a sender that was just released briefly stays in the table beside the
// next send in the other direction. Meanwhile outside threads send
// synchronously, and tasks are created and destroyed. None of it is slow.
TEST_F(LscTest, WatchdogStaysQuietUnderManyShortSyncSends) {
    Ring ring(2, true);
    Watchdog watchdog;
    // A busy shared machine can hold a new thread back for a few hundred ms;
    // the run lasts twice the threshold, so a send left behind would show.
    const auto longMs = static_cast<unsigned long>(Scaled(milliseconds(500)).count());
    ASSERT_TRUE(watchdog.Start(5, longMs, 1000));
    ring.Pass();

    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 2; ++i) {
        threads.emplace_back([&, target = ring.Handler(i)] {
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
    const unsigned long firstScan = watchdog.dog.ScanCount();
    EXPECT_TRUE(WaitUntil([&] { return ring.sends >= 10000; }, std::chrono::seconds(20)));
    EXPECT_TRUE(WaitUntil([&] { return watchdog.dog.ScanCount() >= firstScan + 2 * longMs / 5; }));
    done = true;
    JoinAll(threads);
    watchdog.dog.Stop();
    EXPECT_EQ(watchdog.All().size(), 0u) << watchdog.Text();
}

TEST(WatchdogLoops, ReportsAStalledLoopAndItsEndButNotABusyOneAndLetsJoinGo) {
    Watchdog watchdog;
    const unsigned long periodMs = 50;
    const unsigned long lagMs = 100;
    ASSERT_TRUE(watchdog.Start(periodMs, 1000, lagMs));

    auto stalled = boost::make_shared<CIM::TCCIMTask>("stall-task");
    auto busy = boost::make_shared<CIM::TCCIMTask>("busy-task");
    watchdog.dog.Watch(stalled, "stall-task");
    watchdog.dog.Watch(busy, "busy-task");

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
    watchdog.dog.Watch(unwatched, "unwatched-task");
    watchdog.AwaitScans(2);
    watchdog.dog.Unwatch(unwatched.get());

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    const auto stallStart = Clock::now();
    boost::asio::post(stalled->GetStrand(), [released] { released.wait(); });
    boost::asio::post(unwatched->GetStrand(), [released] { released.wait(); });
    ASSERT_TRUE(watchdog.WaitFor(EWatchdogReport::LOOP_STALL, 1));
    const milliseconds reportedAfter = Since(stallStart);
    EXPECT_GE(reportedAfter, milliseconds(lagMs));
    EXPECT_LE(reportedAfter, Scaled(milliseconds(lagMs + 2 * periodMs)));
    watchdog.AwaitScans(4);
    release.set_value();
    ASSERT_TRUE(watchdog.WaitFor(EWatchdogReport::LOOP_STALL_END, 1));
    const auto stalls = watchdog.Texts(EWatchdogReport::LOOP_STALL);
    ASSERT_EQ(stalls.size(), 1u) << watchdog.Text();
    EXPECT_THAT(stalls[0], StartsWith("task loop stalled: stall-task has run no handler for "));
    EXPECT_THAT(watchdog.Texts(EWatchdogReport::LOOP_STALL_END)[0],
                StartsWith("task loop recovered: stall-task, lag "));

    // Joining a watched task is not held up by a probe, and ends its watch.
    watchdog.AwaitScans(3);
    const auto joinStart = Clock::now();
    stalled->Join();
    EXPECT_LE(Since(joinStart), Scaled(milliseconds(periodMs)));
    stalled.reset();  // the watchdog holds it weakly, so this destroys it

    unwatched->Join();
    keepBusy = false;
    busy->Join();
    EXPECT_GT(busyRuns.load(), 20);
    watchdog.AwaitScans(2);
    EXPECT_EQ(watchdog.All().size(), 2u) << watchdog.Text();

    // A long period does not hold Stop up.
    watchdog.dog.Stop();
    ASSERT_TRUE(watchdog.dog.Start(5000, 1000, 1000));
    watchdog.AwaitScans(1);
    const auto stopStart = Clock::now();
    watchdog.dog.Stop();
    EXPECT_LT(Since(stopStart), Scaled(milliseconds(500)));
    EXPECT_FALSE(watchdog.dog.IsRunning());
}
