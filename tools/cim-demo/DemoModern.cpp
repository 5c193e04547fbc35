// A task with a one-shot and a repeating alarm: expiries with their
// lateness, a restart and a stop.
#include "Demo.h"

#include <cimcore/CIMAlarm.h>
#include <cimcore/CIMThreadPool.h>

#include <sys/prctl.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>

namespace cimdemo {
namespace {

using Clock = std::chrono::steady_clock;

long MsBetween(Clock::time_point from, Clock::time_point to) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count());
}

// Forwards every expiry to the alarm's callback under its own lock, the way
// the stack's connections do, and remembers when each callback ran.
class DemoObserver : public CIM::TICIMAlarmObserverSafe {
public:
    void Record() {
        std::lock_guard<std::mutex> lock(m_timesMutex);
        m_times.push_back(Clock::now());
        m_changed.notify_all();
    }
    bool WaitFor(size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_timesMutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_times.size() >= count; });
    }
    std::vector<Clock::time_point> Times() {
        std::lock_guard<std::mutex> lock(m_timesMutex);
        return m_times;
    }

protected:
    void t_LockAlarmObserverSafe() override { m_observerMutex.lock(); }
    void t_UnlockAlarmObserverSafe() override { m_observerMutex.unlock(); }

private:
    std::mutex m_observerMutex;
    std::mutex m_timesMutex;
    std::condition_variable m_changed;
    std::vector<Clock::time_point> m_times;  // guarded by m_timesMutex
};

bool RunModern(Context& context) {
    bool ok = true;
    const size_t mark = LogMark(context);
    auto task = boost::make_shared<CIM::TCCIMTask>("demo-cim-task");

    std::promise<std::string> named;
    boost::asio::post(task->GetIoContext(), [&named] {
        char name[16] = {};
        prctl(PR_GET_NAME, name, 0, 0, 0);
        named.set_value(name);
    });
    const std::string name = named.get_future().get();
    Say("TCCIMTask(\"demo-cim-task\"): one worker, named \"%s\" before its first handler",
        name.c_str());
    ok = ok && name == "demo-cim-task";

    DemoObserver onceObserver;
    auto once = CIM::TCCIMAlarm::CreateAlarm(
        &onceObserver, task, [&] { onceObserver.Record(); }, CIM::ALARM_COUNT_ONCE, "demo-once");
    Clock::time_point start = Clock::now();
    once->SetTimer(100);
    if (onceObserver.WaitFor(1, std::chrono::milliseconds(2000))) {
        const long after = MsBetween(start, onceObserver.Times()[0]);
        Say("one-shot alarm, 100 ms: fired after %ld ms (late by %ld ms), active afterwards: %s",
            after, after - 100, once->IsActive() ? "yes" : "no");
    } else {
        Say("one-shot alarm, 100 ms: did not fire within 2 s");
        ok = false;
    }

    constexpr int kPeriodMs = 50;
    constexpr size_t kExpiries = 6;
    DemoObserver repeatObserver;
    auto repeating = CIM::TCCIMAlarm::CreateAlarm(
        &repeatObserver, task, [&] { repeatObserver.Record(); }, CIM::ALARM_COUNT_INFINITY,
        "demo-repeat");
    start = Clock::now();
    repeating->SetTimer(kPeriodMs);
    if (repeatObserver.WaitFor(kExpiries, std::chrono::milliseconds(3000))) {
        Say("repeating alarm, %d ms: callbacks stay on the grid start + k x %d ms", kPeriodMs,
            kPeriodMs);
        const std::vector<Clock::time_point> times = repeatObserver.Times();
        for (size_t k = 1; k <= kExpiries; ++k) {
            const long at = MsBetween(start, times[k - 1]);
            Say("  expiry %zu at +%4ld ms, due +%4ld ms, late by %ld ms", k, at,
                static_cast<long>(k) * kPeriodMs, at - static_cast<long>(k) * kPeriodMs);
        }
    } else {
        Say("repeating alarm: fewer than %zu expiries within 3 s", kExpiries);
        ok = false;
    }

    // A restart replaces the pending expiry: the 300 ms one never calls back.
    start = Clock::now();
    once->SetTimer(300);
    once->SetTimer(80);
    if (onceObserver.WaitFor(2, std::chrono::milliseconds(2000))) {
        const long after = MsBetween(start, onceObserver.Times()[1]);
        Say("one-shot restarted from 300 ms to 80 ms: fired once, after %ld ms", after);
    } else {
        Say("restarted one-shot alarm did not fire within 2 s");
        ok = false;
    }

    // Shut down in order: stop and join the alarms, then join the task.
    repeating->StopTimer();
    repeating->Join();
    const size_t atStop = repeatObserver.Times().size();
    const bool stillActive = repeating->IsActive();
    once->StopTimer();
    once->Join();
    task->Join();
    const size_t afterJoin = repeatObserver.Times().size();
    Say("repeating alarm stopped after %zu callbacks; active: %s; callbacks after the stop: %zu",
        atStop, stillActive ? "yes" : "no", afterJoin - atStop);
    ok = ok && !stillActive && afterJoin == atStop && onceObserver.Times().size() == 2;
    Say("the task's Join logs:");
    ShowLog(context, mark, "CIMThreadPool.cpp");
    return ok;
}

const SectionRegistrar kRegistrar(30, "Modern runtime: a task with one-shot and repeating alarms",
                                  RunModern);

}  // namespace
}  // namespace cimdemo
