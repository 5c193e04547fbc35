#include <cimcore/CIMWatchdog.h>

#include <cimcore/CIMThreadDebug.h>
#include <cimcore/CIMThreadPool.h>
#include <cimcore/CIMTime.h>
#include <cimcore/internal/CIMLog.h>
#include <cimcore/internal/lsc/Sync.h>
#include <cimcore/internal/lsc/Task.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include <boost/asio/post.hpp>
#include <boost/weak_ptr.hpp>

namespace CIM {
namespace {

// Holds a legacy mutex for its scope.
class MutexHold {
public:
    explicit MutexHold(TCMutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~MutexHold() { m_mutex.Unlock(); }
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;

private:
    TCMutex& m_mutex;
};

std::string FixedText(const char* text, size_t size) {
    return std::string(text, strnlen(text, size));
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return line;
}

bool IsEdge(const TSLegacySyncWait& wait) {
    return wait.callerId != wait.receiverId;
}

// The thread of `wait`'s caller, named after the task it runs (`taskName`,
// the receiver name of the wait that points at it).
std::string NodeLabel(const TSLegacySyncWait& wait, const std::string& taskName) {
    if (taskName == wait.callerName) {
        return Format("%s (tid %d)", taskName.c_str(), wait.callerTid);
    }
    return Format("%s (thread %s, tid %d)", taskName.c_str(), wait.callerName.c_str(),
                  wait.callerTid);
}

// Identifies one wait: the entry is reused by later sends, but not with the
// same caller and start tick while this one lasts.
std::string WaitKey(const TSLegacySyncWait& wait) {
    return Format("%d:%lx:%lu", wait.index, wait.callerId, wait.tick);
}

std::string WaitText(const TSLegacySyncWait& wait) {
    return Format("thread %s (tid %d) waits for task %s", wait.callerName.c_str(), wait.callerTid,
                  wait.receiverName.c_str());
}

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The age every wait of a cycle must reach before it counts as a deadlock.
constexpr unsigned long kConfirmMs = 50;
// Tick() advances in clock steps (10 ms at 100 Hz).
constexpr unsigned long kTickStepMs = 10;

}  // namespace

TSLegacySnapshot TakeLegacySnapshot() {
    TSLegacySnapshot snapshot;
    TCSyncDet::PTSyncDetInfo entries[TCSyncDet::MAX_SYNC_TASKS];
    int indices[TCSyncDet::MAX_SYNC_TASKS];
    int count = 0;
    if (TCSyncDet::FlagCreate()) {
        snapshot.tableCreated = true;
        MutexHold hold(*TCSyncDet::m_pLock);
        // Under the lock, so that no entry is younger than the snapshot.
        snapshot.tick = TCCIMTime::Tick();
        for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
            if (TCSyncDet::m_arrPCSyncDet[i].bValid) {
                entries[count] = TCSyncDet::m_arrPCSyncDet[i];
                indices[count++] = i;
            }
        }
    } else {
        snapshot.tick = TCCIMTime::Tick();
    }
    for (int i = 0; i < count; ++i) {
        const TCSyncDet::PTSyncDetInfo& entry = entries[i];
        snapshot.waits.push_back(TSLegacySyncWait{
            indices[i], entry.ulTick, TickDiff(snapshot.tick, entry.ulTick), entry.ulCallerId,
            entry.iCallerTid, FixedText(entry.szCallerName, sizeof entry.szCallerName),
            entry.ulReceiverId, FixedText(entry.szReceiverName, sizeof entry.szReceiverName)});
    }

    if (TCTaskList::FlagInitialize()) {
        // A listed task is alive: Destroy unlinks it under this mutex first.
        MutexHold hold(TCTaskList::m_mutex);
        snapshot.tasks.reserve(TCTaskList::m_taskList.size());
        for (TCTask* task : TCTaskList::m_taskList) {
            snapshot.tasks.push_back(TSLegacyTaskState{
                FixedText(task->Name(), 16), static_cast<unsigned long>(task->Id()), task->Tid(),
                task->Count(), task->FlagRunning()});
        }
    }
    return snapshot;
}

std::string ToString(const TSLegacySnapshot& snapshot) {
    std::string text;
    for (const TSLegacyTaskState& task : snapshot.tasks) {
        text += Format("task %s: tid %d, %u queued, loop %s\n", task.name.c_str(), task.tid,
                       task.queued, task.running ? "running" : "not running");
    }
    for (const TSLegacySyncWait& wait : snapshot.waits) {
        text += Format("sync send [%d]: %s since %lu ms\n", wait.index, WaitText(wait).c_str(),
                       wait.waitedMs);
    }
    return text;
}

std::vector<TSLegacyWaitCycle> FindWaitCycles(const TSLegacySnapshot& snapshot) {
    // A blocked thread waits in one send only (its in-place sends to its own
    // task are not edges), so every thread has at most one outgoing edge and
    // following them from any thread meets at most one cycle.
    std::map<unsigned long, size_t> out;
    for (size_t i = 0; i < snapshot.waits.size(); ++i) {
        if (IsEdge(snapshot.waits[i])) {
            out.emplace(snapshot.waits[i].callerId, i);
        }
    }
    std::vector<TSLegacyWaitCycle> cycles;
    std::map<unsigned long, int> state;  // 1 on the current path, 2 finished
    for (const auto& start : out) {
        std::vector<size_t> path;
        unsigned long node = start.first;
        while (true) {
            const auto edge = out.find(node);
            if (edge == out.end() || state[node] == 2) {
                break;
            }
            if (state[node] == 1) {
                auto first = std::find_if(path.begin(), path.end(), [&](size_t wait) {
                    return snapshot.waits[wait].callerId == node;
                });
                std::vector<size_t> members(first, path.end());
                std::rotate(members.begin(),
                            std::min_element(members.begin(), members.end(),
                                             [&](size_t a, size_t b) {
                                                 return snapshot.waits[a].callerId <
                                                        snapshot.waits[b].callerId;
                                             }),
                            members.end());
                TSLegacyWaitCycle cycle;
                for (size_t k = 0; k < members.size(); ++k) {
                    const TSLegacySyncWait& previous =
                        snapshot.waits[members[(k + members.size() - 1) % members.size()]];
                    cycle.text += NodeLabel(snapshot.waits[members[k]], previous.receiverName);
                    cycle.text += " -> ";
                }
                cycle.text += NodeLabel(snapshot.waits[members[0]],
                                        snapshot.waits[members.back()].receiverName);
                cycle.waits = std::move(members);
                cycles.push_back(std::move(cycle));
                break;
            }
            state[node] = 1;
            path.push_back(edge->second);
            node = snapshot.waits[edge->second].receiverId;
        }
        for (size_t wait : path) {
            state[snapshot.waits[wait].callerId] = 2;
        }
    }
    return cycles;
}

std::vector<size_t> FindLongWaits(const TSLegacySnapshot& snapshot, unsigned long thresholdMs) {
    std::vector<size_t> found;
    for (size_t i = 0; i < snapshot.waits.size(); ++i) {
        if (snapshot.waits[i].waitedMs > thresholdMs) {
            found.push_back(i);
        }
    }
    return found;
}

// ---- watchdog -----------------------------------------------------------

namespace {

struct Probe {
    int64_t postedNs = 0;
    std::atomic<int64_t> ranNs{-1};  // written by the task's thread
};

}  // namespace

struct TCCIMWatchdog::Watched {
    boost::weak_ptr<TCCIMTask> task;
    const TCCIMTask* key;
    std::string name;
    // Touched by the watchdog's thread only.
    std::shared_ptr<Probe> probe;
    bool stalled = false;
};

struct TCCIMWatchdog::ScanState {
    unsigned long confirmInMs = 0;               // when to look at a young cycle again
    std::map<std::string, std::string> cycles;   // reported: key -> text
    std::map<std::string, std::string> waits;    // reported long waits: key -> text
    std::map<std::string, unsigned long> ticks;  // start tick of those waits
};

TCCIMWatchdog::TCCIMWatchdog() = default;

TCCIMWatchdog::~TCCIMWatchdog() {
    Stop();
}

bool TCCIMWatchdog::Start(unsigned long periodMs, unsigned long waitThresholdMs,
                          unsigned long lagThresholdMs) {
    std::lock_guard<std::mutex> startStop(m_startStop);
    if (m_thread.joinable() || periodMs == 0 || waitThresholdMs == 0 || lagThresholdMs == 0) {
        return false;
    }
    m_periodMs = periodMs;
    m_waitThresholdMs = waitThresholdMs;
    m_lagThresholdMs = lagThresholdMs;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = false;
    }
    m_thread = std::thread(&TCCIMWatchdog::m_Run, this);
    return true;
}

void TCCIMWatchdog::Stop() {
    std::lock_guard<std::mutex> startStop(m_startStop);
    if (!m_thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

bool TCCIMWatchdog::IsRunning() const {
    std::lock_guard<std::mutex> startStop(m_startStop);
    return m_thread.joinable();
}

unsigned long TCCIMWatchdog::ScanCount() const {
    return m_scans.load();
}

void TCCIMWatchdog::Watch(const boost::shared_ptr<TCCIMTask>& task, const std::string& name) {
    if (!task) {
        return;
    }
    auto watched = std::make_shared<Watched>();
    watched->task = task;
    watched->key = task.get();
    watched->name = name;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_watched.push_back(std::move(watched));
}

void TCCIMWatchdog::Unwatch(const TCCIMTask* task) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_watched.erase(std::remove_if(m_watched.begin(), m_watched.end(),
                                   [task](const std::shared_ptr<Watched>& watched) {
                                       return watched->key == task;
                                   }),
                    m_watched.end());
}

void TCCIMWatchdog::SetReportHandler(TFReport handler) {
    std::lock_guard<std::mutex> startStop(m_startStop);
    if (!m_thread.joinable()) {
        m_handler = std::move(handler);
    }
}

void TCCIMWatchdog::m_Run() {
    TCCIMThreadDebug::SetThisThreadName("cim-watchdog");
    ScanState state;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        lock.unlock();
        const unsigned long delayMs = m_Scan(state);
        lock.lock();
        m_wake.wait_for(lock, std::chrono::milliseconds(delayMs), [this] { return m_stop; });
    }
}

unsigned long TCCIMWatchdog::m_Scan(ScanState& state) {
    m_ScanLegacy(state);
    unsigned long nextMs =
        state.confirmInMs == 0 ? m_periodMs : std::min(m_periodMs, state.confirmInMs);
    m_ScanLoops(nextMs);
    m_scans.fetch_add(1);
    return nextMs;
}

void TCCIMWatchdog::m_ScanLegacy(ScanState& state) {
    const TSLegacySnapshot snapshot = TakeLegacySnapshot();

    std::set<std::string> present;  // every wait in the table now
    for (const TSLegacySyncWait& wait : snapshot.waits) {
        present.insert(WaitKey(wait));
    }

    std::set<std::string> cycles;
    std::vector<bool> inCycle(snapshot.waits.size(), false);
    state.confirmInMs = 0;
    for (const TSLegacyWaitCycle& cycle : FindWaitCycles(snapshot)) {
        std::string key;
        unsigned long youngestMs = ~0UL;
        for (size_t wait : cycle.waits) {
            key += WaitKey(snapshot.waits[wait]) + "/";
            youngestMs = std::min(youngestMs, snapshot.waits[wait].waitedMs);
            inCycle[wait] = true;
        }
        cycles.insert(key);
        if (state.cycles.count(key) != 0) {
            continue;
        }
        // A released sender stays in the table until it returns, beside the
        // next send in the other direction: only a cycle whose every wait has
        // lasted a while is a deadlock. The start tick then also tells that
        // it is the same wait at the next scan.
        if (youngestMs >= kConfirmMs) {
            state.cycles[key] = cycle.text;
            m_Report(EWatchdogReport::DEADLOCK, "m_ScanLegacy", __LINE__,
                     "deadlock: " + cycle.text);
        } else {
            const unsigned long remainingMs = kConfirmMs - youngestMs + kTickStepMs;
            if (state.confirmInMs == 0 || remainingMs < state.confirmInMs) {
                state.confirmInMs = remainingMs;
            }
        }
    }
    for (auto it = state.cycles.begin(); it != state.cycles.end();) {
        if (cycles.count(it->first) == 0) {
            m_Report(EWatchdogReport::DEADLOCK_END, "m_ScanLegacy", __LINE__,
                     "deadlock ended: " + it->second);
            it = state.cycles.erase(it);
        } else {
            ++it;
        }
    }

    for (size_t i : FindLongWaits(snapshot, m_waitThresholdMs)) {
        const TSLegacySyncWait& wait = snapshot.waits[i];
        const std::string key = WaitKey(wait);
        if (inCycle[i] || state.waits.count(key) != 0) {
            continue;
        }
        state.waits[key] = WaitText(wait);
        state.ticks[key] = wait.tick;
        m_Report(EWatchdogReport::LONG_WAIT, "m_ScanLegacy", __LINE__,
                 Format("long synchronous send: %s, %lu ms so far", WaitText(wait).c_str(),
                        wait.waitedMs));
    }
    for (auto it = state.waits.begin(); it != state.waits.end();) {
        if (present.count(it->first) == 0) {
            const unsigned long waitedMs = TickDiff(snapshot.tick, state.ticks[it->first]);
            m_Report(EWatchdogReport::LONG_WAIT_END, "m_ScanLegacy", __LINE__,
                     Format("long synchronous send ended: %s, about %lu ms", it->second.c_str(),
                            waitedMs));
            state.ticks.erase(it->first);
            it = state.waits.erase(it);
        } else {
            ++it;
        }
    }
}

void TCCIMWatchdog::m_ScanLoops(unsigned long& nextMs) {
    std::vector<std::shared_ptr<Watched>> watched;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        watched = m_watched;
    }
    const int64_t thresholdNs = static_cast<int64_t>(m_lagThresholdMs) * 1000000;
    for (const std::shared_ptr<Watched>& entry : watched) {
        bool gone = false;
        {
            const boost::shared_ptr<TCCIMTask> task = entry->task.lock();
            // A joined task's loop has stopped for good: a probe would never run.
            gone = !task || task->GetIoContext().stopped();
            if (!gone) {
                const std::shared_ptr<Probe>& probe = entry->probe;
                bool post = true;
                if (probe) {
                    const int64_t ranNs = probe->ranNs.load(std::memory_order_acquire);
                    const int64_t lagNs = (ranNs < 0 ? NowNs() : ranNs) - probe->postedNs;
                    const unsigned long lagMs = static_cast<unsigned long>(lagNs / 1000000);
                    if (ranNs < 0) {
                        post = false;
                        if (!entry->stalled && lagNs <= thresholdNs) {
                            // Look again when it would cross, not a period later.
                            nextMs = std::min(nextMs, static_cast<unsigned long>(
                                                          (thresholdNs - lagNs) / 1000000 + 1));
                        }
                        if (!entry->stalled && lagNs > thresholdNs) {
                            entry->stalled = true;
                            m_Report(EWatchdogReport::LOOP_STALL, "m_ScanLoops", __LINE__,
                                     Format("task loop stalled: %s has run no handler for %lu ms",
                                            entry->name.c_str(), lagMs));
                        }
                    } else if (entry->stalled || lagNs > thresholdNs) {
                        // A stall between two scans is reported with its end.
                        if (!entry->stalled) {
                            m_Report(EWatchdogReport::LOOP_STALL, "m_ScanLoops", __LINE__,
                                     Format("task loop stalled: %s has run no handler for %lu ms",
                                            entry->name.c_str(), lagMs));
                        }
                        entry->stalled = false;
                        m_Report(EWatchdogReport::LOOP_STALL_END, "m_ScanLoops", __LINE__,
                                 Format("task loop recovered: %s, lag %lu ms", entry->name.c_str(),
                                        lagMs));
                    }
                }
                if (post) {
                    auto next = std::make_shared<Probe>();
                    next->postedNs = NowNs();
                    // Holds the probe only, never the task.
                    boost::asio::post(task->GetStrand(), [next] {
                        next->ranNs.store(NowNs(), std::memory_order_release);
                    });
                    entry->probe = std::move(next);
                }
            }
        }
        if (gone) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_watched.erase(std::remove(m_watched.begin(), m_watched.end(), entry),
                                m_watched.end());
            }
            if (entry->stalled) {
                entry->stalled = false;
                m_Report(EWatchdogReport::LOOP_STALL_END, "m_ScanLoops", __LINE__,
                         Format("task loop no longer watched: %s (joined or destroyed)",
                                entry->name.c_str()));
            }
        }
    }
}

void TCCIMWatchdog::m_Report(EWatchdogReport kind, const char* function, int line,
                             const std::string& text) {
    Log::Error("CIMWatchdog.cpp", function, line, "%s", text.c_str());
    if (m_handler) {
        m_handler(kind, text);
    }
}

}  // namespace CIM
