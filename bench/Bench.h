// A small runner. Every entry belongs to a group and plays one role in it:
// cimcore itself, a peer (what a user would pick instead), the design floor
// (the least the library's fixed lock discipline allows, written here) or the
// machine floor (the least the machine allows). The runner takes N runs that
// take turns within a group (run 1 of every entry, then run 2, ...), and
// prints best, median and spread, then every cimcore entry as a rate ratio to
// each other entry of its group.
#ifndef CIMCORE_BENCH_BENCH_H
#define CIMCORE_BENCH_BENCH_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <sched.h>

class TCTask;

namespace cimbench {

// Sends a created legacy task its exit event, then destroys it.
void EndLegacyTask(TCTask& task);

enum class Role { kCimcore, kPeer, kDesignFloor, kMachineFloor, kPeerAndFloor };

// One run of one entry.
class Run {
public:
    Run(long iterations, bool quick) : m_iterations(iterations), m_quick(quick) {}
    long Iterations() const { return m_iterations; }
    bool Quick() const { return m_quick; }
    // A value that is not a rate (bytes, lateness, counts), printed beside
    // the same value of the group's other entries.
    void Value(const std::string& name, double value, const std::string& unit);
    // The entry cannot run here; the runner prints `why` once.
    void Skip(const std::string& why) { m_skipped = why; }
    // The entry ran but its result is not valid (a hang cut short, lost data).
    void Fail(const std::string& why) { m_failed = why; }

    const std::vector<std::pair<std::string, std::pair<double, std::string>>>& Values() const {
        return m_values;
    }
    const std::string& Skipped() const { return m_skipped; }
    const std::string& Failed() const { return m_failed; }

private:
    long m_iterations;
    bool m_quick;
    std::vector<std::pair<std::string, std::pair<double, std::string>>> m_values;
    std::string m_skipped;
    std::string m_failed;
};

// Runs run.Iterations() operations and returns the seconds they took, or a
// negative number for an entry that only reports values.
using BenchFunction = std::function<double(Run&)>;

void Register(const std::string& group, const std::string& name, Role role, long iterations,
              BenchFunction function);

// At most `runs` runs for the entries of `group`, whatever --runs says: for
// rows that take seconds each and vary little.
void LimitRuns(const std::string& group, int runs);

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Heap bytes in use through operator new, counted by the bench's own
// replacement of it.
long HeapBytesInUse();

// A one-time signal between threads, with a bounded wait so that a fault
// shows as a failed row rather than a hang.
class Latch {
public:
    void Set() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_set = true;
        }
        m_cond.notify_all();
    }
    bool Wait(std::chrono::milliseconds limit = std::chrono::milliseconds(60000)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, limit, [this] { return m_set; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_set = false;
};

// Where the threads of a hand-off run. Threads inherit the affinity of the
// thread that creates them, so a benchmark calls Consumer() before creating
// the receiving side and Producers() before creating (or being) the sending
// side; the destructor restores the caller's affinity.
enum class Placement { kUnpinned, kOneCore, kTwoCores };

const char* PlacementName(Placement placement);

class Pinning {
public:
    explicit Pinning(Placement placement);
    ~Pinning();
    Pinning(const Pinning&) = delete;
    Pinning& operator=(const Pinning&) = delete;
    // False, with the run marked skipped, when the placement needs more CPUs
    // than this process may use.
    bool Usable(Run& run) const;
    void Consumer();
    void Producers();

private:
    void PinTo(int cpu);

    Placement m_placement;
    cpu_set_t m_saved;
    int m_first = -1;
    int m_second = -1;
};

}  // namespace cimbench

#endif
