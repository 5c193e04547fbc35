// A synchronous send to a legacy task and back, with and without the
// watchdog scanning the task list and the table of synchronous sends.
#include "Bench.h"

#include <cimcore/CIMWatchdog.h>
#include <cimcore/internal/lsc/Task.h>

namespace cimbench {
namespace {

constexpr const char* kGroup = "synchronous send round trip to a legacy task";
constexpr long kIterations = 50000;

class Sink : public TCHandler {
protected:
    bool t_OnEvent(const TSEvent*) override { return true; }
};

class PlainTask : public TCTask {};

// `periodMs` 0: no watchdog.
double SyncSends(long n, unsigned long periodMs) {
    LegacyCoreExport::Init();
    PlainTask task;
    Sink sink;
    task.Create("bench-sink", 0, 0, 0);
    sink.Create(&task);
    CIM::TCCIMWatchdog watchdog;
    if (periodMs > 0) {
        watchdog.Start(periodMs, 1000, 1000);
    }
    TSEvent event;
    event.receiver = &sink;
    event.type = 10;
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        TCTask::Send(&event, true, false);
    }
    const double seconds = SecondsSince(start);
    watchdog.Stop();
    sink.TCHandler::Destroy();
    TSEvent exit;
    exit.receiver = &task;
    exit.type = EVENT_EXIT;
    TCTask::Send(&exit, false, false);
    task.Destroy();
    LegacyCoreExport::Destroy();
    return seconds;
}

const Registrar kWithout(kGroup, "cimcore TCTask::Send, no watchdog", true, kIterations,
                         [](long n) { return SyncSends(n, 0); });
const Registrar kWith(kGroup, "cimcore TCTask::Send, watchdog every 100 ms", false, kIterations,
                      [](long n) { return SyncSends(n, 100); });
const Registrar kStress(kGroup, "cimcore TCTask::Send, watchdog every 1 ms", false, kIterations,
                        [](long n) { return SyncSends(n, 1); });

}  // namespace
}  // namespace cimbench
