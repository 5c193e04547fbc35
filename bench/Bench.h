// A small runner: each benchmark registers under a group; the runner prints,
// per group, nanoseconds per operation and the ratio to cimcore's entry.
#ifndef CIMCORE_BENCH_BENCH_H
#define CIMCORE_BENCH_BENCH_H

#include <chrono>
#include <functional>
#include <string>

namespace cimbench {

// Runs `iterations` operations and returns the seconds they took.
using BenchFunction = std::function<double(long iterations)>;

struct Registrar {
    // `reference` marks the cimcore entry the others are compared with.
    Registrar(const char* group, const char* name, bool reference, long iterations,
              BenchFunction function);
};

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace cimbench

#endif
