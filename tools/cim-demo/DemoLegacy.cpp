// The legacy task runtime: two tasks, asynchronous and synchronous events,
// pings, callbacks and the deadlock table while a synchronous send blocks.
#include "Demo.h"

#include <cimcore/CIMTime.h>
#include <cimcore/internal/lsc/Sync.h>
#include <cimcore/internal/lsc/Task.h>

#include <atomic>
#include <thread>

#include <sys/prctl.h>

namespace cimdemo {
namespace {

constexpr unsigned long kEventWork = 10;   // a small job for the worker
constexpr unsigned long kEventStall = 11;  // keeps the worker busy until released

// A worker task with one handler that answers jobs and can be stalled.
class Worker : public TCTask {
public:
    Worker() { m_release.Create(0); }
    ~Worker() override { m_release.Destroy(); }
    void Release() { m_release.Give(); }

    class Jobs : public TCHandler {
    public:
        explicit Jobs(Worker& worker) : m_worker(worker) {}
        std::atomic<int> done{0};

    protected:
        bool t_OnEvent(const TSEvent* event) override {
            if (event->type == kEventStall) {
                Say("  worker: stalled, holding a synchronous sender");
                m_worker.m_release.Take();
                return true;
            }
            ++done;
            Say("  worker: job %lu (%s)", static_cast<unsigned long>(event->word4),
                event->replySem != nullptr ? "synchronous, sender waits" : "asynchronous");
            return true;
        }

    private:
        Worker& m_worker;
    };

protected:
    bool t_OnUser(const TSEvent*) override {
        Say("  worker: t_OnUser runs");
        return true;
    }

private:
    TCSemaphore m_release;
};

bool BeforeUser(const TSEvent* event, const void* context) {
    Say("  before callback (%s), event word4 = %lu", static_cast<const char*>(context),
        static_cast<unsigned long>(event->word4));
    return event->word4 == 1;  // true skips the task's hook
}

bool AfterUser(const TSEvent*, const void* context) {
    Say("  after callback (%s)", static_cast<const char*>(context));
    return false;
}

void PrintTable() {
    TCSyncDet::m_pLock->Lock();
    const unsigned long now = CIM::TCCIMTime::Tick();
    int shown = 0;
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        const TCSyncDet::PTSyncDetInfo& entry = TCSyncDet::m_arrPCSyncDet[i];
        if (!entry.bValid) {
            continue;
        }
        ++shown;
        Say("  [%d] thread \"%s\" (tid %d) waits for task \"%s\" (thread %#lx) since %lu ticks", i,
            entry.szCallerName, entry.iCallerTid, entry.szReceiverName, entry.ulReceiverId,
            CIM::TickDiff(now, entry.ulTick));
    }
    if (shown == 0) {
        Say("  (no synchronous send in progress)");
    }
    TCSyncDet::m_pLock->Unlock();
}

bool RunLegacy(Context&) {
    bool ok = LegacyCoreExport::Init();
    Say("LegacyCoreExport::Init() -> %s", ok ? "true" : "false");

    Worker worker;
    Worker::Jobs jobs(worker);
    if (!worker.Create("demo-worker", 0, 64 * 1024, 0) || !jobs.Create(&worker)) {
        Say("could not create the worker task");
        return false;
    }
    Say("task \"%s\" runs on its own thread", worker.Name());

    Say("two asynchronous jobs, then a synchronous one (returns once executed):");
    for (uintptr_t job = 1; job <= 3; ++job) {
        TSEvent event;
        event.receiver = &jobs;
        event.type = kEventWork;
        event.word4 = job;
        ok = TCTask::Send(&event, job == 3, false) && ok;
    }
    Say("after the synchronous send, %d jobs have run", jobs.done.load());
    ok = ok && jobs.done == 3;

    const bool pinged = TCTask::Ping(&worker, 0);
    const bool answered = TCTask::Ping(&worker, 500);
    Say("Ping(worker, 0) -> %s (queued); Ping(worker, 500) -> %s (answered)",
        pinged ? "true" : "false", answered ? "true" : "false");
    ok = ok && pinged && answered;

    Say("user events with before/after callbacks:");
    static const char kContext[] = "demo";
    worker.SetEventCallback(1, BeforeUser, AfterUser, kContext);
    for (uintptr_t value = 0; value <= 1; ++value) {
        TSEvent user;
        user.receiver = &worker;
        user.type = EVENT_USER;
        user.word4 = value;
        ok = TCTask::Send(&user, true, false) && ok;
    }

    Say("a synchronous send blocked behind a stalled worker; the deadlock table:");
    TSEvent stall;
    stall.receiver = &jobs;
    stall.type = kEventStall;
    ok = TCTask::Send(&stall, false, false) && ok;
    std::atomic<bool> sent{false};
    std::thread blocked([&] {
        prctl(PR_SET_NAME, "demo-sender", 0, 0, 0);
        TSEvent event;
        event.receiver = &jobs;
        event.type = kEventWork;
        event.word4 = 4;
        sent = TCTask::Send(&event, true, false);
    });
    CIM::TCCIMTime::Sleep(120);  // the sender blocks meanwhile
    PrintTable();
    const bool busyPing = TCTask::Ping(&worker, 100);
    Say("Ping(worker, 100) while stalled -> %s", busyPing ? "true" : "false");
    ok = ok && !busyPing;
    worker.Release();
    blocked.join();
    Say("released: the blocked send returned %s; the table again:", sent ? "true" : "false");
    PrintTable();
    ok = ok && sent;

    TSEvent exit;
    exit.receiver = &worker;
    exit.type = EVENT_EXIT;
    ok = TCTask::Send(&exit, false, false) && ok;
    jobs.TCHandler::Destroy();
    worker.Destroy();
    LegacyCoreExport::Destroy();
    Say("exit event sent, task destroyed, LegacyCoreExport::Destroy() done");
    return ok;
}

const SectionRegistrar kRegistrar(20, "Legacy task runtime: tasks, events, pings, deadlock table",
                                  RunLegacy);

}  // namespace
}  // namespace cimdemo
