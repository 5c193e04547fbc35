#include "Bench.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <malloc.h>
#include <pthread.h>
#include <sys/utsname.h>
#include <unistd.h>

// Every operator new of the process, the library's included, goes through
// here, so that a benchmark can read the heap bytes an operation leaves in use.
namespace {
std::atomic<long> gHeapBytes(0);

void* CountedAllocate(std::size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    gHeapBytes.fetch_add(long(::malloc_usable_size(block)), std::memory_order_relaxed);
    return block;
}

void CountedFree(void* block) noexcept {
    if (block != nullptr) {
        gHeapBytes.fetch_sub(long(::malloc_usable_size(block)), std::memory_order_relaxed);
        std::free(block);
    }
}
}  // namespace

void* operator new(std::size_t size) {
    return CountedAllocate(size);
}
void* operator new[](std::size_t size) {
    return CountedAllocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return CountedAllocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return CountedAllocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* block) noexcept {
    CountedFree(block);
}
void operator delete[](void* block) noexcept {
    CountedFree(block);
}
void operator delete(void* block, std::size_t) noexcept {
    CountedFree(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    CountedFree(block);
}

namespace cimbench {
namespace {

struct Entry {
    std::string group;
    std::string name;
    Role role;
    long iterations;
    BenchFunction function;
    std::vector<double> nsPerOp;  // one per valid run
    std::map<std::string, std::vector<double>> values;
    std::map<std::string, std::string> units;
    std::vector<std::string> valueOrder;
    std::string skipped;
    std::string failed;
    bool rate = true;
};

std::vector<Entry>& Entries() {
    static std::vector<Entry> entries;
    return entries;
}

std::map<std::string, int>& RunLimits() {
    static std::map<std::string, int> limits;
    return limits;
}

std::string CpuModel() {
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("model name", 0) == 0) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown CPU";
}

const char* RoleName(Role role) {
    switch (role) {
        case Role::kCimcore:
            return "cimcore";
        case Role::kPeer:
            return "peer";
        case Role::kDesignFloor:
            return "design floor";
        case Role::kMachineFloor:
            return "machine floor";
        case Role::kPeerAndFloor:
            return "peer = floor";
    }
    return "?";
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// "1.23k" style for values of any size.
std::string Number(double value) {
    char text[32];
    const double magnitude = value < 0 ? -value : value;
    if (magnitude >= 100000) {
        std::snprintf(text, sizeof text, "%.0f", value);
    } else if (magnitude >= 100) {
        std::snprintf(text, sizeof text, "%.1f", value);
    } else {
        std::snprintf(text, sizeof text, "%.2f", value);
    }
    return text;
}

void PrintGroup(const std::vector<Entry*>& entries, int runs) {
    std::printf("\n== %s  (%d runs taking turns)\n", entries.front()->group.c_str(), runs);
    bool anyRate = false;
    for (const Entry* entry : entries) {
        anyRate = anyRate || (entry->rate && !entry->nsPerOp.empty());
    }
    if (anyRate) {
        std::printf("   %-14s %-58s %11s %11s %7s\n", "role", "entry", "best ns/op", "median",
                    "spread");
    }
    for (const Entry* entry : entries) {
        if (!entry->skipped.empty()) {
            std::printf("   %-14s %-58s skipped: %s\n", RoleName(entry->role), entry->name.c_str(),
                        entry->skipped.c_str());
            continue;
        }
        std::printf("   %-14s %-58s", RoleName(entry->role), entry->name.c_str());
        if (entry->rate && !entry->nsPerOp.empty()) {
            const double best = *std::min_element(entry->nsPerOp.begin(), entry->nsPerOp.end());
            const double worst = *std::max_element(entry->nsPerOp.begin(), entry->nsPerOp.end());
            const double median = Median(entry->nsPerOp);
            std::printf(" %11s %11s %6.0f%%", Number(best).c_str(), Number(median).c_str(),
                        100.0 * (worst - best) / median);
        }
        if (!entry->failed.empty()) {
            std::printf("  FAILED: %s", entry->failed.c_str());
        }
        std::printf("\n");
        for (const std::string& name : entry->valueOrder) {
            const std::vector<double>& values = entry->values.at(name);
            const double low = *std::min_element(values.begin(), values.end());
            const double high = *std::max_element(values.begin(), values.end());
            std::printf("   %-14s   %-40s median %10s %-8s (range %s to %s)\n", "", name.c_str(),
                        Number(Median(values)).c_str(), entry->units.at(name).c_str(),
                        Number(low).c_str(), Number(high).c_str());
        }
    }
    // Every cimcore entry against every entry of the group that is not
    // cimcore's, and against the next cimcore entry (the same operation with
    // one thing changed).
    for (size_t i = 0; i < entries.size(); ++i) {
        const Entry* cim = entries[i];
        if (cim->role != Role::kCimcore || !cim->rate || cim->nsPerOp.empty()) {
            continue;
        }
        bool header = false;
        for (size_t j = 0; j < entries.size(); ++j) {
            const Entry* other = entries[j];
            if (j == i || !other->rate || other->nsPerOp.empty() ||
                (other->role == Role::kCimcore && j != i + 1)) {
                continue;
            }
            if (!header) {
                std::printf("   ratio '%s' / other (rates; >1: cimcore faster)\n",
                            cim->name.c_str());
                std::printf("   %-14s %-58s %11s %11s\n", "", "", "best", "median");
                header = true;
            }
            const double best = *std::min_element(other->nsPerOp.begin(), other->nsPerOp.end()) /
                                *std::min_element(cim->nsPerOp.begin(), cim->nsPerOp.end());
            const double median = Median(other->nsPerOp) / Median(cim->nsPerOp);
            std::printf("   %-14s %-58s %10.2fx %10.2fx\n", RoleName(other->role),
                        other->name.c_str(), best, median);
        }
    }
    std::fflush(stdout);
}

}  // namespace

void Run::Value(const std::string& name, double value, const std::string& unit) {
    m_values.push_back({name, {value, unit}});
}

void Register(const std::string& group, const std::string& name, Role role, long iterations,
              BenchFunction function) {
    Entry entry;
    entry.group = group;
    entry.name = name;
    entry.role = role;
    entry.iterations = iterations;
    entry.function = std::move(function);
    Entries().push_back(std::move(entry));
}

void LimitRuns(const std::string& group, int runs) {
    RunLimits()[group] = runs;
}

long HeapBytesInUse() {
    return gHeapBytes.load();
}

const char* PlacementName(Placement placement) {
    switch (placement) {
        case Placement::kUnpinned:
            return "unpinned";
        case Placement::kOneCore:
            return "all threads on one core";
        case Placement::kTwoCores:
            return "sender(s) and receiver on two cores";
    }
    return "?";
}

Pinning::Pinning(Placement placement) : m_placement(placement) {
    CPU_ZERO(&m_saved);
    ::pthread_getaffinity_np(::pthread_self(), sizeof m_saved, &m_saved);
    for (int cpu = 0; cpu < CPU_SETSIZE && m_second < 0; ++cpu) {
        if (CPU_ISSET(cpu, &m_saved)) {
            (m_first < 0 ? m_first : m_second) = cpu;
        }
    }
}

Pinning::~Pinning() {
    ::pthread_setaffinity_np(::pthread_self(), sizeof m_saved, &m_saved);
}

bool Pinning::Usable(Run& run) const {
    if (m_placement == Placement::kTwoCores && m_second < 0) {
        run.Skip("fewer than 2 CPUs available to this process");
        return false;
    }
    return true;
}

void Pinning::PinTo(int cpu) {
    if (cpu < 0) {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    ::pthread_setaffinity_np(::pthread_self(), sizeof set, &set);
}

void Pinning::Consumer() {
    if (m_placement != Placement::kUnpinned) {
        PinTo(m_placement == Placement::kTwoCores ? m_second : m_first);
    }
}

void Pinning::Producers() {
    if (m_placement != Placement::kUnpinned) {
        PinTo(m_first);
    }
}

}  // namespace cimbench

int main(int argc, char** argv) {
    using namespace cimbench;
    double scale = 1.0;
    bool quick = false;
    bool list = false;
    int runs = 0;
    std::string filter;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            scale = 0.1;
            quick = true;
        } else if (std::strcmp(argv[i], "--filter") == 0 && i + 1 < argc) {
            filter = argv[++i];
        } else if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            runs = std::max(1, std::atoi(argv[++i]));
        } else if (std::strcmp(argv[i], "--list") == 0) {
            list = true;
        } else {
            std::fprintf(stderr,
                         "usage: cim-bench [--quick] [--runs N] [--filter TEXT] [--list]\n"
                         "  --quick   a tenth of the iterations, 3 runs, short timer rows\n"
                         "  --runs N  runs per entry, taking turns within a group (default 5)\n"
                         "  --filter  only groups or entries whose name contains TEXT\n"
                         "  --list    print the groups and entries and exit\n");
            return 2;
        }
    }
    if (runs == 0) {
        runs = quick ? 3 : 5;
    }
    // The log goes nowhere unless a row chooses otherwise.
    ::setenv("CIM_LOG_OUTPUT", "none", 0);

    // Groups in order of registration; an entry is kept when its group or its
    // own name matches the filter.
    std::vector<std::string> groups;
    std::map<std::string, std::vector<Entry*>> members;
    for (Entry& entry : Entries()) {
        if (!filter.empty() && entry.group.find(filter) == std::string::npos &&
            entry.name.find(filter) == std::string::npos) {
            continue;
        }
        if (members.count(entry.group) == 0) {
            groups.push_back(entry.group);
        }
        members[entry.group].push_back(&entry);
    }
    if (list) {
        for (const std::string& group : groups) {
            std::printf("%s\n", group.c_str());
            for (const Entry* entry : members[group]) {
                std::printf("  [%s] %s\n", RoleName(entry->role), entry->name.c_str());
            }
        }
        return 0;
    }

    struct utsname system;
    ::uname(&system);
    std::printf("cim-bench on %s, %ld CPUs online, %s %s%s\n", CpuModel().c_str(),
                ::sysconf(_SC_NPROCESSORS_ONLN), system.sysname, system.release,
                quick ? ", --quick (a tenth of the iterations, timer rows over 1 s)" : "");
    std::printf(
        "Per entry: best and median of ns per operation over the runs, and spread =\n"
        "(slowest - fastest) / median. Runs take turns: run 1 of every entry of a group,\n"
        "then run 2, ... Ratios are always cimcore / other as rates (other's time / cimcore's\n"
        "time): above 1 cimcore is faster, below 1 slower; 'best' divides the bests,\n"
        "'median' the medians. Rows that are not rates print their values side by side.\n");

    for (const std::string& group : groups) {
        std::vector<Entry*>& entries = members[group];
        const int groupRuns =
            RunLimits().count(group) != 0 ? std::min(runs, RunLimits()[group]) : runs;
        // One short untimed pass first, so that no entry's first run pays
        // for cold caches, lazy binding or the first touch of the heap.
        for (Entry* entry : entries) {
            if (entry->iterations > 1) {
                Run warmUp(std::max(1L, long(double(entry->iterations) * scale / 10)), quick);
                entry->function(warmUp);
            }
        }
        for (int run = 0; run < groupRuns; ++run) {
            for (Entry* entry : entries) {
                if (!entry->skipped.empty()) {
                    continue;
                }
                const long iterations = std::max(1L, long(double(entry->iterations) * scale));
                Run context(iterations, quick);
                const double seconds = entry->function(context);
                if (!context.Skipped().empty()) {
                    entry->skipped = context.Skipped();
                    continue;
                }
                if (!context.Failed().empty()) {
                    entry->failed = context.Failed();
                }
                if (seconds < 0) {
                    entry->rate = false;
                } else if (context.Failed().empty()) {
                    entry->nsPerOp.push_back(seconds * 1e9 / double(iterations));
                }
                for (const auto& value : context.Values()) {
                    if (entry->values.count(value.first) == 0) {
                        entry->valueOrder.push_back(value.first);
                        entry->units[value.first] = value.second.second;
                    }
                    entry->values[value.first].push_back(value.second.first);
                }
            }
        }
        PrintGroup(entries, groupRuns);
    }
    return 0;
}
