#include <cimcore/CIMWatchdog.h>

#include "LscTestSupport.h"

#include <gmock/gmock.h>

#include <cimcore/CIMThreadPool.h>

#include <future>
#include <memory>

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/barrier.hpp>

#include <sys/prctl.h>

using namespace cimtest;
using CIM::EWatchdogReport;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr unsigned long kStart = 100;  // a ring member's handler sends on
constexpr unsigned long kCall = 101;   // answered at once

using Report = std::pair<EWatchdogReport, std::string>;

// A watchdog and what it reported, in order.
class Watchdog : public Recorder<Report> {
public:
    Watchdog() {
        dog.SetReportHandler([this](EWatchdogReport kind, const std::string& text) {
            Add({kind, text});
        });
    }
    // Waits until the watchdog has scanned `scans` more times.
    void AwaitScans(unsigned long scans) {
        const unsigned long target = dog.ScanCount() + scans;
        ASSERT_TRUE(WaitUntil([&] { return dog.ScanCount() >= target; }));
    }
    // The text of report `index`, which must be of `kind`.
    std::string Text(size_t index, EWatchdogReport kind) const {
        const Report report = All().at(index);  // throws, and so fails, when missing
        EXPECT_EQ(report.first, kind) << Text();
        return report.second;
    }
    std::string Text() const { return ::testing::PrintToString(All()); }

    CIM::TCCIMWatchdog dog;  // last: stopped before the reports go
};

// Tasks in a ring whose handlers, on kStart, send kCall synchronously to the
// next one. All started at once (after a barrier), nobody can answer: a
// deadlock. Passing a token instead, each call is answered at once and its
// receiver sends the next: many short sync sends.
struct Ring {
    struct Member : TCHandler {
        Member(Ring* ring, size_t next) : ring(ring), next(next) {}
        bool t_OnEvent(const TSEvent* event) override {
            if (event->type == kStart && !ring->stop) {
                if (!ring->token) {
                    ring->allStarted.wait();
                }
                SendTo(ring->members[next].get(), kCall, true);
                ++ring->sends;
            } else if (event->type == kCall && ring->token) {
                SendTo(this, kStart, false);  // answer now, pass the token on later
            }
            return true;
        }
        Ring* const ring;
        const size_t next;  // index of the member it calls
    };

    Ring(size_t size, bool token) : tasks(size), allStarted(unsigned(size)), token(token) {
        for (size_t i = 0; i < size; ++i) {
            const std::string name = "ring" + std::to_string(size) + "-" + std::to_string(i);
            EXPECT_TRUE(tasks[i].Create(name.c_str(), 0, 0, 0));
            members.emplace_back(new Member(this, (i + 1) % size));
            EXPECT_TRUE(members[i]->Create(&tasks[i]));
        }
        for (size_t i = 0; i < (token ? 1 : size); ++i) {
            SendTo(members[i].get(), kStart, false);
        }
    }
    ~Ring() {
        stop = true;
        // Twice through every queue: a call in flight is answered, and the
        // start it queued is skipped, before the handlers go.
        for (int round = 0; round < 2; ++round) {
            for (auto& task : tasks) {
                EXPECT_TRUE(SendTo(&task, EVENT_USER, true));
            }
        }
        for (auto& member : members) {
            if (member->FlagCreate()) {
                member->TCHandler::Destroy();
            }
        }
        for (auto& task : tasks) {
            task.Stop();
        }
    }

    std::vector<HeldTask> tasks;
    boost::barrier allStarted;
    const bool token;
    std::atomic<bool> stop{false};
    std::atomic<long> sends{0};
    std::vector<std::unique_ptr<Member>> members;
};

}  // namespace

TEST_F(LscTest, SnapshotAndWatchdogShowDeadlocksAndLongWaitsOnceEachAndTheirEnd) {
    LogCapture log;
    Watchdog watchdog;
    ASSERT_TRUE(watchdog.dog.Start(20, 150, 1000));
    {
        Ring ring(3, false);
        ASSERT_TRUE(watchdog.AwaitCount(1));
        // It lasts well beyond the long-wait threshold, and is still one
        // deadlock, not a set of long waits.
        watchdog.AwaitScans(15);
        EXPECT_EQ(watchdog.All().size(), 1u) << watchdog.Text();
        // The cycle starts at its lowest thread id, which the test cannot see:
        // it starts where the report does, and follows the calls round.
        const std::string text = watchdog.Text(0, EWatchdogReport::DEADLOCK);
        const size_t start = text.size() > 16 ? size_t(text[16] - '0') % 3 : 0;
        std::string cycle = "deadlock: ";
        for (size_t k = 0, i = start; k <= 3; ++k, i = (i + 1) % 3) {
            cycle += (k ? " -> ring3-" : "ring3-") + std::to_string(i) + " (tid " +
                     std::to_string(ring.tasks[i].Tid()) + ")";
        }
        EXPECT_EQ(text, cycle);
        // Destroying one handler deletes the call queued for it and releases
        // its sender; the others then unwind.
        ring.members[1]->TCHandler::Destroy();
        ASSERT_TRUE(watchdog.AwaitCount(2));
        EXPECT_EQ(watchdog.Text(1, EWatchdogReport::DEADLOCK_END),
                  "deadlock ended: " + text.substr(10));
    }

    // One send held up for long: the snapshot lists it beside its task's
    // queue; it is a long wait, once, and ends.
    HeldTask slow;
    ASSERT_TRUE(slow.Create("slow-task", 0, 0, 0));
    slow.Hold();
    std::thread sender([&] {
        prctl(PR_SET_NAME, "slow-sender", 0, 0, 0);
        EXPECT_TRUE(SendTo(&slow, 52, true));
    });
    // The sender is in the table before its event is queued: wait for both.
    CIM::TSLegacySnapshot snapshot;
    ASSERT_TRUE(WaitUntil([&] {
        snapshot = CIM::TakeLegacySnapshot();
        return snapshot.waits.size() == 1 && snapshot.tasks.size() == 1 &&
               snapshot.tasks[0].queued == 1;
    }));
    const std::string text = CIM::ToString(snapshot);
    EXPECT_THAT(text, HasSubstr("task slow-task: tid " + std::to_string(slow.Tid()) +
                                ", 1 queued, loop running\n"));
    EXPECT_THAT(text, HasSubstr("sync send [0]: thread slow-sender (tid "));
    ASSERT_TRUE(watchdog.AwaitCount(3));
    watchdog.AwaitScans(5);
    const std::string longWait = watchdog.Text(2, EWatchdogReport::LONG_WAIT);
    EXPECT_THAT(longWait, HasSubstr("long synchronous send: thread slow-sender (tid "));
    EXPECT_THAT(longWait, HasSubstr(" waits for task slow-task, "));
    EXPECT_EQ(watchdog.All().size(), 3u) << watchdog.Text();
    slow.Open();
    sender.join();
    ASSERT_TRUE(watchdog.AwaitCount(4));
    watchdog.Text(3, EWatchdogReport::LONG_WAIT_END);
    slow.Stop();
    EXPECT_TRUE(CIM::TakeLegacySnapshot().tasks.empty());
    watchdog.dog.Stop();
    EXPECT_EQ(watchdog.All().size(), 4u) << watchdog.Text();

    // Every report is one error-level line of the library's log.
    EXPECT_EQ(log.Count(" E/CI_CORE("), 4u);
    EXPECT_EQ(log.Count("CIMWatchdog.cpp: m_ScanLegacy("), 4u);
}

// A token passed between two tasks by synchronous sends, each answered at
// once; a sender that was just released briefly stays in the table beside the
// next send in the other direction. None of it is slow.
TEST_F(LscTest, WatchdogStaysQuietUnderManyShortSyncSends) {
    Ring ring(2, true);
    Watchdog watchdog;
    // A busy shared machine can hold a new thread back for a few hundred ms;
    // the run lasts twice the threshold, so a send left behind would show.
    const auto longMs = static_cast<unsigned long>(Scaled(milliseconds(500)).count());
    ASSERT_TRUE(watchdog.dog.Start(5, longMs, 1000));
    EXPECT_TRUE(WaitUntil([&] { return ring.sends >= 10000; }, std::chrono::seconds(20)));
    watchdog.AwaitScans(2 * longMs / 5);
    watchdog.dog.Stop();
    EXPECT_EQ(watchdog.All().size(), 0u) << watchdog.Text();
}

TEST(WatchdogLoops, ReportsAStalledLoopAndItsEndOnceAndLetsJoinGo) {
    Watchdog watchdog;
    const unsigned long periodMs = 50;
    const unsigned long lagMs = 100;
    ASSERT_TRUE(watchdog.dog.Start(periodMs, 1000, lagMs));
    auto stalled = boost::make_shared<CIM::TCCIMTask>("stall-task");
    watchdog.dog.Watch(stalled, "stall-task");

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    const auto stallStart = Clock::now();
    boost::asio::post(stalled->GetStrand(), [released] { released.wait(); });
    ASSERT_TRUE(watchdog.AwaitCount(1));
    const milliseconds reportedAfter = Since(stallStart);
    EXPECT_GE(reportedAfter, milliseconds(lagMs));
    EXPECT_LE(reportedAfter, Scaled(milliseconds(lagMs + 2 * periodMs)));
    watchdog.AwaitScans(4);
    release.set_value();
    ASSERT_TRUE(watchdog.AwaitCount(2));
    EXPECT_THAT(watchdog.Text(0, EWatchdogReport::LOOP_STALL),
                StartsWith("task loop stalled: stall-task has run no handler for "));
    EXPECT_THAT(watchdog.Text(1, EWatchdogReport::LOOP_STALL_END),
                StartsWith("task loop recovered: stall-task, lag "));

    // Joining a watched task is not held up by a probe, and ends its watch.
    watchdog.AwaitScans(3);
    const auto joinStart = Clock::now();
    stalled->Join();
    EXPECT_LE(Since(joinStart), Scaled(milliseconds(periodMs)));
    stalled.reset();  // the watchdog holds it weakly, so this destroys it
    watchdog.AwaitScans(2);
    EXPECT_EQ(watchdog.All().size(), 2u) << watchdog.Text();
}
