#include "Bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <sys/utsname.h>
#include <unistd.h>

namespace cimbench {
namespace {

struct Entry {
    std::string group;
    std::string name;
    bool reference;
    long iterations;
    BenchFunction function;
    double nsPerOp = 0;
};

std::vector<Entry>& Entries() {
    static std::vector<Entry> entries;
    return entries;
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

}  // namespace

Registrar::Registrar(const char* group, const char* name, bool reference, long iterations,
                     BenchFunction function) {
    Entries().push_back(Entry{group, name, reference, iterations, std::move(function)});
}

}  // namespace cimbench

int main(int argc, char** argv) {
    using namespace cimbench;
    double scale = 1.0;
    std::string filter;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            scale = 0.1;
        } else if (std::strcmp(argv[i], "--filter") == 0 && i + 1 < argc) {
            filter = argv[++i];
        } else {
            std::fprintf(stderr, "usage: cim-bench [--quick] [--filter TEXT]\n");
            return 2;
        }
    }
    ::setenv("CIM_LOG_OUTPUT", "none", 0);

    struct utsname system;
    ::uname(&system);
    std::printf("cim-bench on %s, %ld cores, %s %s\n", CpuModel().c_str(),
                ::sysconf(_SC_NPROCESSORS_ONLN), system.sysname, system.release);
    std::printf("best of 3 runs; ratio = time / cimcore's time in the group (lower is faster)\n");

    std::vector<Entry>& entries = Entries();
    std::string group;
    double reference = 0;
    for (Entry& entry : entries) {
        if (!filter.empty() && entry.group.find(filter) == std::string::npos) {
            continue;
        }
        const long iterations = std::max(1L, long(entry.iterations * scale));
        double best = 1e300;
        for (int run = 0; run < 3; ++run) {
            best = std::min(best, entry.function(iterations));
        }
        entry.nsPerOp = best * 1e9 / double(iterations);
        if (entry.group != group) {
            group = entry.group;
            reference = 0;
            std::printf("\n%s\n", group.c_str());
        }
        if (entry.reference && reference == 0) {
            reference = entry.nsPerOp;
        }
        std::printf("  %-54s %10.1f ns/op", entry.name.c_str(), entry.nsPerOp);
        if (reference > 0) {
            std::printf("  %6.2fx", entry.nsPerOp / reference);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    return 0;
}
