// The modern runtime: handlers posted through a task's strand, arming many
// alarms, and the lateness of a 1 ms repeating alarm.
#include "Bench.h"

#include <cimcore/CIMAlarm.h>
#include <cimcore/CIMThreadPool.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/io_context_strand.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <queue>
#include <thread>
#include <vector>

#include <time.h>

namespace cimbench {
namespace {

using Clock = std::chrono::steady_clock;

// ---- posts through a strand ------------------------------------------------------

constexpr long kPosts = 200000;

// Posts the run's count of handlers that count themselves; the time until the
// last has run.
template <class Executor>
double TimePosts(Run& run, Executor executor) {
    Latch done;
    const long n = run.Iterations();
    long count = 0;
    const auto start = Clock::now();
    for (long i = 0; i < n; ++i) {
        boost::asio::post(executor, [&] {
            if (++count == n) {
                done.Set();
            }
        });
    }
    if (!done.Wait()) {
        run.Fail("not every handler ran");
    }
    return SecondsSince(start);
}

double TaskPost(Run& run, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    pinning.Consumer();
    CIM::TCCIMTask task("bench-post");
    pinning.Producers();
    const double seconds = TimePosts(run, task.GetStrand());
    task.Join();
    return seconds;
}

double AsioStrandPost(Run& run, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    boost::asio::io_context context;
    boost::asio::io_context::strand strand(context);
    auto guard = boost::asio::make_work_guard(context);
    pinning.Consumer();
    std::thread worker([&] { context.run(); });
    pinning.Producers();
    const double seconds = TimePosts(run, strand);
    guard.reset();
    worker.join();
    return seconds;
}

// A queue of function objects that wakes the worker only when it sleeps and
// lets it take everything queued at once.
double BatchedFunctionQueue(Run& run, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    std::mutex mutex;
    std::condition_variable ready;
    std::vector<std::function<void()>> work;
    bool sleeping = false;
    bool stop = false;
    pinning.Consumer();
    std::thread worker([&] {
        std::vector<std::function<void()>> taken;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                while (work.empty() && !stop) {
                    sleeping = true;
                    ready.wait(lock);
                }
                if (work.empty()) {
                    return;
                }
                taken.swap(work);
            }
            for (std::function<void()>& job : taken) {
                job();
            }
            taken.clear();
        }
    });
    pinning.Producers();
    Latch done;
    const long n = run.Iterations();
    long count = 0;
    const auto start = Clock::now();
    for (long i = 0; i < n; ++i) {
        bool wake;
        {
            std::lock_guard<std::mutex> lock(mutex);
            work.emplace_back([&] {
                if (++count == n) {
                    done.Set();
                }
            });
            wake = sleeping;
            sleeping = false;
        }
        if (wake) {
            ready.notify_one();
        }
    }
    if (!done.Wait()) {
        run.Fail("not every handler ran");
    }
    const double seconds = SecondsSince(start);
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    ready.notify_one();
    worker.join();
    return seconds;
}

// The work of a post without the hand-off: the floor of any loop.
double InPlace(Run& run) {
    const long n = run.Iterations();
    long count = 0;
    Latch done;
    const auto start = Clock::now();
    for (long i = 0; i < n; ++i) {
        std::function<void()> handler = [&] {
            if (++count == n) {
                done.Set();
            }
        };
        handler();
    }
    if (!done.Wait(std::chrono::milliseconds(0))) {
        run.Fail("not every handler ran");
    }
    return SecondsSince(start);
}

// ---- arming 10,000 alarms --------------------------------------------------------

constexpr long kAlarms = 10000;
constexpr int kFarAwayMs = 600000;

class QuietObserver : public CIM::TICIMAlarmObserver {
public:
    void OnTimer(boost::shared_ptr<CIM::TCCIMAlarm>) override {}
};

// Times kAlarms calls of `arm`, then `settle`, which waits until the loop has
// carried them out (false: it did not); reports the heap bytes per alarm and
// returns the time scaled to the run's iterations.
template <class Arm, class Settle>
double TimeArming(Run& run, Arm arm, Settle settle) {
    const long before = HeapBytesInUse();
    const auto start = Clock::now();
    for (long i = 0; i < kAlarms; ++i) {
        arm();
    }
    if (!settle()) {
        run.Fail("the loop did not arm every alarm");
    }
    const double seconds = SecondsSince(start);
    run.Value("heap bytes per armed alarm", double(HeapBytesInUse() - before) / double(kAlarms),
              "B");
    return seconds * double(run.Iterations()) / double(kAlarms);
}

// Handlers run in order on one thread or strand: once this one has run, so
// has every handler posted before it.
template <class Executor>
bool RanEverythingPosted(const Executor& executor) {
    Latch ran;
    boost::asio::post(executor, [&ran] { ran.Set(); });
    return ran.Wait();
}

// Time and heap bytes from the first CreateAlarm to the moment the task has
// carried out every SetTimer.
double ArmAlarms(Run& run) {
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-arm");
    QuietObserver observer;
    std::vector<boost::shared_ptr<CIM::TCCIMAlarm>> alarms;
    alarms.reserve(size_t(kAlarms));
    const double seconds = TimeArming(
        run,
        [&] {
            alarms.push_back(CIM::TCCIMAlarm::CreateAlarm(
                &observer, task, [] {}, CIM::ALARM_COUNT_ONCE, "bench"));
            alarms.back()->SetTimer(kFarAwayMs);
        },
        [&] { return RanEverythingPosted(task->GetStrand()); });
    for (auto& alarm : alarms) {
        alarm->StopTimer();
    }
    for (auto& alarm : alarms) {
        alarm->Join();
    }
    alarms.clear();
    task->Join();
    return seconds;
}

double ArmSteadyTimers(Run& run) {
    boost::asio::io_context context;
    auto guard = boost::asio::make_work_guard(context);
    std::thread worker([&] { context.run(); });
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
    timers.reserve(size_t(kAlarms));
    const double seconds = TimeArming(
        run,
        [&] {
            timers.push_back(std::make_unique<boost::asio::steady_timer>(context));
            timers.back()->expires_after(std::chrono::milliseconds(kFarAwayMs));
            timers.back()->async_wait([](const boost::system::error_code&) {});
        },
        [&] { return RanEverythingPosted(context.get_executor()); });
    for (auto& timer : timers) {
        timer->cancel();
    }
    guard.reset();
    worker.join();
    return seconds;
}

// What arming fixes for the library: a shared alarm object, a request posted
// through the loop's strand, and on the loop a new timer for this start,
// armed with a handler that keeps the object alive.
double ArmThroughStrand(Run& run) {
    struct Alarm {
        std::shared_ptr<boost::asio::steady_timer> timer;
    };
    boost::asio::io_context context;
    boost::asio::io_context::strand strand(context);
    auto guard = boost::asio::make_work_guard(context);
    std::thread worker([&] { context.run(); });
    std::vector<std::shared_ptr<Alarm>> alarms;
    alarms.reserve(size_t(kAlarms));
    const double seconds = TimeArming(
        run,
        [&] {
            alarms.push_back(std::make_shared<Alarm>());
            boost::asio::post(strand, [&context, alarm = alarms.back()] {
                alarm->timer = std::make_shared<boost::asio::steady_timer>(context);
                alarm->timer->expires_after(std::chrono::milliseconds(kFarAwayMs));
                alarm->timer->async_wait([alarm](const boost::system::error_code&) {});
            });
        },
        [&] { return RanEverythingPosted(strand); });
    boost::asio::post(strand, [&alarms] {
        for (auto& alarm : alarms) {
            alarm->timer->cancel();
        }
    });
    guard.reset();
    worker.join();
    return seconds;
}

// The least a timer costs: a deadline pushed onto a heap under a lock.
double ArmHeapEntries(Run& run) {
    std::mutex mutex;
    std::vector<std::pair<Clock::time_point, const void*>> heap;
    return TimeArming(
        run,
        [&] {
            const auto when = Clock::now() + std::chrono::milliseconds(kFarAwayMs);
            std::lock_guard<std::mutex> lock(mutex);
            heap.emplace_back(when, &heap);
            std::push_heap(heap.begin(), heap.end(), std::greater<>());
        },
        [] { return true; });
}

// ---- a 1 ms repeating alarm ------------------------------------------------------

constexpr int kPeriodMs = 1;

// Reports missed expiries and lateness from the times the expiries ran at.
// The schedule is the first expiry plus whole periods; the earliest expiry
// against it sets the zero, so lateness is measured from the best case.
void ReportLateness(Run& run, const std::vector<Clock::time_point>& times, double seconds) {
    const long expected = long(seconds * 1000.0 / kPeriodMs);
    if (times.empty()) {
        run.Fail("no expiry");
        return;
    }
    std::vector<double> offsets;
    offsets.reserve(times.size());
    for (size_t k = 0; k < times.size(); ++k) {
        const auto scheduled = times.front() + std::chrono::milliseconds(kPeriodMs * long(k));
        offsets.push_back(std::chrono::duration<double, std::micro>(times[k] - scheduled).count());
    }
    const double zero = *std::min_element(offsets.begin(), offsets.end());
    for (double& offset : offsets) {
        offset -= zero;
    }
    std::sort(offsets.begin(), offsets.end());
    run.Value("missed expiries", double(std::max(0L, expected - long(times.size()))), "");
    run.Value("lateness p50", offsets[offsets.size() / 2], "us");
    run.Value("lateness p99", offsets[offsets.size() * 99 / 100], "us");
    run.Value("lateness max", offsets.back(), "us");
}

double DurationSeconds(const Run& run) {
    return run.Quick() ? 1.0 : 10.0;
}

class RecordingObserver : public CIM::TICIMAlarmObserver {
public:
    explicit RecordingObserver(size_t capacity) { times.reserve(capacity); }
    void OnTimer(boost::shared_ptr<CIM::TCCIMAlarm>) override {
        if (times.size() < times.capacity()) {
            times.push_back(Clock::now());
        }
    }
    std::vector<Clock::time_point> times;
};

double RepeatingAlarm(Run& run) {
    const double seconds = DurationSeconds(run);
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-repeat");
    RecordingObserver observer(size_t(seconds * 1000.0 / kPeriodMs));
    auto alarm = CIM::TCCIMAlarm::CreateAlarm(
        &observer, task, [] {}, CIM::ALARM_COUNT_INFINITY, "bench-repeat");
    alarm->SetTimer(kPeriodMs);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds + 0.1));
    alarm->StopTimer();
    alarm->Join();
    alarm.reset();
    task->Join();
    ReportLateness(run, observer.times, seconds);
    return -1;
}

double SteadyTimerChain(Run& run) {
    const double seconds = DurationSeconds(run);
    boost::asio::io_context context;
    boost::asio::steady_timer timer(context);
    std::vector<Clock::time_point> times;
    times.reserve(size_t(seconds * 1000.0 / kPeriodMs));
    std::function<void(const boost::system::error_code&)> onExpiry =
        [&](const boost::system::error_code& error) {
            if (error || times.size() == times.capacity()) {
                return;
            }
            times.push_back(Clock::now());
            timer.expires_at(timer.expiry() + std::chrono::milliseconds(kPeriodMs));
            timer.async_wait(onExpiry);
        };
    timer.expires_after(std::chrono::milliseconds(kPeriodMs));
    timer.async_wait(onExpiry);
    std::thread worker([&] { context.run(); });
    worker.join();
    ReportLateness(run, times, seconds);
    return -1;
}

double AbsoluteSleeps(Run& run) {
    const double seconds = DurationSeconds(run);
    std::vector<Clock::time_point> times;
    const size_t count = size_t(seconds * 1000.0 / kPeriodMs);
    times.reserve(count);
    std::thread worker([&] {
        timespec next;
        ::clock_gettime(CLOCK_MONOTONIC, &next);
        while (times.size() < count) {
            next.tv_nsec += kPeriodMs * 1000000L;
            if (next.tv_nsec >= 1000000000L) {
                next.tv_nsec -= 1000000000L;
                ++next.tv_sec;
            }
            ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            times.push_back(Clock::now());
        }
    });
    worker.join();
    ReportLateness(run, times, seconds);
    return -1;
}

const bool kRegistered = [] {
    for (Placement placement : {Placement::kUnpinned, Placement::kOneCore, Placement::kTwoCores}) {
        const std::string group =
            std::string("handler posted through a strand to a loop thread, ") +
            PlacementName(placement);
        Register(group, "CIM::TCCIMTask, post through GetStrand()", Role::kCimcore, kPosts,
                 [=](Run& run) { return TaskPost(run, placement); });
        Register(group, "io_context + io_context::strand, one thread", Role::kPeer, kPosts,
                 [=](Run& run) { return AsioStrandPost(run, placement); });
        Register(group, "function queue, wakes only a sleeper, takes all", Role::kPeer, kPosts,
                 [=](Run& run) { return BatchedFunctionQueue(run, placement); });
        Register(group, "the same handler called in place, no hand-off", Role::kMachineFloor,
                 kPosts, InPlace);
    }
    const std::string arm = "arming 10,000 alarms (also with --quick), per alarm";
    Register(arm, "CIM::TCCIMAlarm::CreateAlarm + SetTimer", Role::kCimcore, kAlarms, ArmAlarms);
    Register(arm, "shared object, request through a strand, new timer", Role::kDesignFloor, kAlarms,
             ArmThroughStrand);
    Register(arm, "new steady_timer + async_wait", Role::kPeer, kAlarms, ArmSteadyTimers);
    Register(arm, "deadline pushed on a heap under a mutex", Role::kMachineFloor, kAlarms,
             ArmHeapEntries);
    const std::string repeat = "1 ms repeating alarm for 10 s (--quick: 1 s)";
    Register(repeat, "CIM::TCCIMAlarm, ALARM_COUNT_INFINITY", Role::kCimcore, 1, RepeatingAlarm);
    Register(repeat, "steady_timer chain, expiry + 1 ms", Role::kPeer, 1, SteadyTimerChain);
    Register(repeat, "clock_nanosleep to absolute times", Role::kMachineFloor, 1, AbsoluteSleeps);
    LimitRuns(repeat, 3);
    return true;
}();

}  // namespace
}  // namespace cimbench
