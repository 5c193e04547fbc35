// The watchdog: two legacy tasks that deadlock on purpose, named and then
// broken, and a modern task whose loop stalls for a second.
#include "Demo.h"

#include <cimcore/CIMThreadPool.h>
#include <cimcore/CIMTime.h>
#include <cimcore/CIMWatchdog.h>
#include <cimcore/internal/lsc/Task.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>

namespace cimdemo {
namespace {

using Clock = std::chrono::steady_clock;
using CIM::EWatchdogReport;

constexpr unsigned long kPeriodMs = 200;
constexpr unsigned long kEventStart = 20;  // send kEventCall to the peer, synchronously
constexpr unsigned long kEventCall = 21;

long MsSince(Clock::time_point from) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - from).count());
}

// Prints what the watchdog reports and lets the demo wait for a kind.
class Reports {
public:
    CIM::TCCIMWatchdog::TFReport Handler() {
        return [this](EWatchdogReport kind, const std::string& text) {
            Say("  watchdog: %s", text.c_str());
            std::lock_guard<std::mutex> lock(m_mutex);
            m_seen[static_cast<int>(kind)]++;
            m_changed.notify_all();
        };
    }
    bool WaitFor(EWatchdogReport kind, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_seen[static_cast<int>(kind)] > 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_seen[6] = {};
};

// Both start, each waits until the other has started too, then each calls
// the other synchronously from inside its handler: neither can answer.
struct Pair {
    std::mutex mutex;
    std::condition_variable bothStarted;
    int started = 0;
};

class Peer : public TCHandler {
public:
    Peer(Pair& pair) : m_pair(pair) {}
    Peer* other = nullptr;

protected:
    bool t_OnEvent(const TSEvent* event) override {
        if (event->type != kEventStart) {
            return true;
        }
        {
            std::unique_lock<std::mutex> lock(m_pair.mutex);
            ++m_pair.started;
            m_pair.bothStarted.notify_all();
            m_pair.bothStarted.wait(lock, [this] { return m_pair.started == 2; });
        }
        TSEvent call;
        call.receiver = other;
        call.type = kEventCall;
        TCTask::Send(&call, true, false);
        return true;
    }

private:
    Pair& m_pair;
};

class PlainTask : public TCTask {};

bool RunWatchdog(Context&) {
    bool ok = LegacyCoreExport::Init();
    Reports reports;
    CIM::TCCIMWatchdog watchdog;
    watchdog.SetReportHandler(reports.Handler());
    ok = watchdog.Start(kPeriodMs, 1000, 300) && ok;
    Say("watchdog started: a scan every %lu ms, long waits from 1000 ms, loop lag from 300 ms",
        kPeriodMs);

    PlainTask alpha, beta;
    Pair pair;
    Peer toAlpha(pair), toBeta(pair);
    if (!alpha.Create("dl-alpha", 0, 0, 0) || !beta.Create("dl-beta", 0, 0, 0) ||
        !toAlpha.Create(&alpha) || !toBeta.Create(&beta)) {
        Say("could not create the tasks");
        return false;
    }
    toAlpha.other = &toBeta;
    toBeta.other = &toAlpha;
    Say("dl-alpha and dl-beta each send synchronously to the other from a handler:");
    const auto closed = Clock::now();
    for (Peer* peer : {&toAlpha, &toBeta}) {
        TSEvent start;
        start.receiver = peer;
        start.type = kEventStart;
        ok = TCTask::Send(&start, false, false) && ok;
    }
    const bool named = reports.WaitFor(EWatchdogReport::DEADLOCK, std::chrono::seconds(3));
    Say("deadlock named %ld ms after it formed (a scan every %lu ms); the snapshot:",
        MsSince(closed), kPeriodMs);
    const std::string snapshot = CIM::ToString(CIM::TakeLegacySnapshot());
    size_t start = 0;
    while (start < snapshot.size()) {
        const size_t end = snapshot.find('\n', start);
        Say("  %s", snapshot.substr(start, end - start).c_str());
        start = end + 1;
    }

    Say("destroying dl-beta's handler deletes the call queued for it, releasing dl-alpha:");
    const auto broken = Clock::now();
    toBeta.TCHandler::Destroy();
    const bool ended = reports.WaitFor(EWatchdogReport::DEADLOCK_END, std::chrono::seconds(3));
    Say("end reported %ld ms after the handler was destroyed", MsSince(broken));
    ok = ok && named && ended;

    toAlpha.TCHandler::Destroy();
    for (PlainTask* task : {&alpha, &beta}) {
        TSEvent exit;
        exit.receiver = task;
        exit.type = EVENT_EXIT;
        ok = TCTask::Send(&exit, false, false) && ok;
        task->Destroy();
    }

    Say("a modern task whose handler sleeps for a second:");
    auto task = boost::make_shared<CIM::TCCIMTask>("demo-stall");
    watchdog.Watch(task, "demo-stall");
    const auto stall = Clock::now();
    boost::asio::post(task->GetStrand(), [] { CIM::TCCIMTime::Sleep(1000); });
    const bool stalled = reports.WaitFor(EWatchdogReport::LOOP_STALL, std::chrono::seconds(3));
    Say("stall reported %ld ms after the handler began", MsSince(stall));
    const bool recovered =
        reports.WaitFor(EWatchdogReport::LOOP_STALL_END, std::chrono::seconds(3));
    ok = ok && stalled && recovered;
    task->Join();

    const auto stopping = Clock::now();
    watchdog.Stop();
    Say("watchdog stopped in %ld ms", MsSince(stopping));
    LegacyCoreExport::Destroy();
    return ok;
}

const SectionRegistrar kRegistrar(22, "Watchdog: a deliberate deadlock, then a stalled task loop",
                                  RunWatchdog);

}  // namespace
}  // namespace cimdemo
