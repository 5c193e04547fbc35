// Diagnostics beside the two runtimes: a snapshot of the legacy tasks and of
// the table of blocked synchronous sends, the wait-for graph with its cycles
// (deadlocks), and a watchdog that logs deadlocks, long synchronous waits and
// stalled loops of modern tasks. Nothing here changes how the runtimes
// behave; it only reads what they publish.
#ifndef CIMCORE_CIMWATCHDOG_H
#define CIMCORE_CIMWATCHDOG_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <cimcore/Export.h>

namespace CIM {

class TCCIMTask;

// One legacy task as listed in TCTaskList.
struct TSLegacyTaskState {
    std::string name;
    unsigned long threadId;  // POSIX id of the task's thread
    int tid;                 // kernel id; -1 until the thread has published it
    unsigned int queued;     // events in its queue
    bool running;            // its event loop runs
};

// One valid entry of the synchronous-send table: a thread blocked in a
// synchronous send, waiting for the receiving task's thread.
struct TSLegacySyncWait {
    int index;                 // entry in the table
    unsigned long tick;        // Tick() when the send began
    unsigned long waitedMs;    // snapshot tick minus `tick`
    unsigned long callerId;    // POSIX id of the blocked sender
    int callerTid;             // its kernel id
    std::string callerName;    // its kernel thread name
    unsigned long receiverId;  // POSIX id of the receiving task's thread
    std::string receiverName;  // the receiving task's name
};

struct TSLegacySnapshot {
    unsigned long tick = 0;     // Tick() when taken
    bool tableCreated = false;  // the synchronous-send table exists
    std::vector<TSLegacyTaskState> tasks;
    std::vector<TSLegacySyncWait> waits;
};

// A cycle of the wait-for graph: waits[i]'s receiver thread is the caller of
// waits[i + 1], and the last one's receiver is the first one's caller. It
// starts at the wait with the lowest caller id, so the same cycle always
// reads the same.
struct TSLegacyWaitCycle {
    std::vector<size_t> waits;  // indices into TSLegacySnapshot::waits
    std::string text;           // "A (tid 1) -> B (tid 2) -> A (tid 1)"
};

// Copies the task list under its mutex and the synchronous-send table under
// its lock, one after the other, never both at once; neither lock is held
// when it returns. Call it between LegacyCoreExport::Init and Destroy (or
// with neither: an empty snapshot). Any thread, except one that holds the
// task list's mutex.
CIM_EXPORT TSLegacySnapshot TakeLegacySnapshot();

// One line per task, then one per waiting send, each ending in '\n'.
CIM_EXPORT std::string ToString(const TSLegacySnapshot& snapshot);

// Every cycle among the waits, each once. A wait of a thread on its own task
// is not an edge: such a send runs in place and never blocks.
CIM_EXPORT std::vector<TSLegacyWaitCycle> FindWaitCycles(const TSLegacySnapshot& snapshot);

// Indices of the waits that have lasted longer than `thresholdMs`.
CIM_EXPORT std::vector<size_t> FindLongWaits(const TSLegacySnapshot& snapshot,
                                             unsigned long thresholdMs);

// What a watchdog reports, besides its log line.
enum class EWatchdogReport {
    LONG_WAIT,      // a synchronous send has waited longer than the threshold
    LONG_WAIT_END,  // ... and has now returned
    DEADLOCK,       // a cycle of blocked synchronous sends
    DEADLOCK_END,   // ... and it has been broken
    LOOP_STALL,     // a modern task's loop has not run a handler for too long
    LOOP_STALL_END  // ... and runs again (or is no longer watched)
};

// A thread that scans, once per period, the legacy tasks and the
// synchronous-send table, and the loops of the modern tasks registered with
// Watch. It logs at error level:
// - a synchronous send that has waited longer than `waitThresholdMs`, once,
//   and its end; the waits of a deadlock are reported as the deadlock only;
// - a deadlock (a cycle of synchronous sends), once, with its tasks, and its
//   end. A cycle counts once each of its waits has lasted 50 ms (a sender
//   that has just been released stays in the table for a moment); a younger
//   one is looked at again as soon as it could count;
// - a registered task whose loop has not run the watchdog's no-op probe for
//   more than `lagThresholdMs`, once per stall, with the lag, and its end.
//
// Cost: the sending paths are not touched. Each scan takes the table's lock
// and the task list's mutex once, briefly (copying, never logging), and
// posts one no-op handler to each registered task.
//
// Off until Start; Stop (or the destructor) ends the thread and returns
// without waiting for a period. Start, Stop, Watch, Unwatch and
// SetReportHandler may be called from any thread but not from the report
// handler. Stop it before LegacyCoreExport::Destroy.
class CIM_EXPORT TCCIMWatchdog {
public:
    // Called on the watchdog's thread after each log line, with the kind and
    // the line's message text. No lock of the runtimes is held.
    typedef std::function<void(EWatchdogReport kind, const std::string& text)> TFReport;

    TCCIMWatchdog();
    ~TCCIMWatchdog();
    TCCIMWatchdog(const TCCIMWatchdog&) = delete;
    TCCIMWatchdog& operator=(const TCCIMWatchdog&) = delete;

    // False if already running or if a period or threshold is 0.
    bool Start(unsigned long periodMs, unsigned long waitThresholdMs, unsigned long lagThresholdMs);
    void Stop();
    bool IsRunning() const;
    // Scans done since construction; tells a caller that the watchdog looked.
    unsigned long ScanCount() const;

    // Watches the loop of `task` under `name` until Unwatch, until the task
    // is joined or destroyed, or until Stop. Holds the task weakly; a probe
    // that is still queued holds nothing of it and never keeps Join waiting.
    // If the watchdog holds the last reference for a moment, the (joined)
    // task is destroyed on the watchdog's thread.
    void Watch(const boost::shared_ptr<TCCIMTask>& task, const std::string& name);
    void Unwatch(const TCCIMTask* task);

    // Set before Start (or while stopped).
    void SetReportHandler(TFReport handler);

private:
    struct Watched;
    struct ScanState;

    void m_Run();
    // Returns the delay until the next scan in ms.
    unsigned long m_Scan(ScanState& state);
    void m_ScanLegacy(ScanState& state);
    // Lowers `nextMs` to when an outstanding probe would cross the threshold.
    void m_ScanLoops(unsigned long& nextMs);
    void m_Report(EWatchdogReport kind, const char* function, int line, const std::string& text);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;                              // guarded by m_mutex
    std::vector<std::shared_ptr<Watched>> m_watched;  // guarded by m_mutex
    std::atomic<unsigned long> m_scans{0};
    TFReport m_handler;  // written only while stopped, read by the thread
    unsigned long m_periodMs = 0;
    unsigned long m_waitThresholdMs = 0;
    unsigned long m_lagThresholdMs = 0;
    std::thread m_thread;  // joinable while running; touched under m_startStop
    mutable std::mutex m_startStop;
};

}  // namespace CIM

#endif
