// One log line to a file.
#include "Bench.h"

#include <cimcore/internal/CIMLog.h>

#include "HostControl.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace cimbench {
namespace {

constexpr const char* kGroup = "one log line appended to a file";
constexpr long kIterations = 50000;

std::string TempLog() {
    char path[] = "/tmp/cim-bench-log-XXXXXX";
    const int fd = ::mkstemp(path);
    ::close(fd);
    return path;
}

double LibraryLog(long n) {
    const std::string path = TempLog();
    const std::string previous = cimhost::GetSetting(cimhost::EHostSetting::LOG_OUTPUT);
    cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, "file:" + path);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        CIM::Log::Info("Bench.cpp", "LibraryLog", 1, "event %ld handled in %d ms", i, 3);
    }
    const double seconds = SecondsSince(start);
    cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, previous);
    ::unlink(path.c_str());
    return seconds;
}

double Stdio(long n) {
    const std::string path = TempLog();
    FILE* file = std::fopen(path.c_str(), "a");
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        std::fprintf(
            file,
            "11-21 12:00:00.000 I/CI_CORE(1:1): Bench.cpp: Stdio(1) > event %ld handled in %d ms\n",
            i, 3);
        std::fflush(file);  // a log line must be out when the call returns
    }
    const double seconds = SecondsSince(start);
    std::fclose(file);
    ::unlink(path.c_str());
    return seconds;
}

double RawWrite(long n) {
    const std::string path = TempLog();
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    char line[128];
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        const int size = std::snprintf(line, sizeof line, "I/CI_CORE: event %ld\n", i);
        if (::write(fd, line, size_t(size)) < 0) {
            break;
        }
    }
    const double seconds = SecondsSince(start);
    ::close(fd);
    ::unlink(path.c_str());
    return seconds;
}

const Registrar kLibrary(kGroup, "cimcore log helper, host platform log", true, kIterations,
                         LibraryLog);
const Registrar kStdio(kGroup, "fprintf + fflush on an open FILE", false, kIterations, Stdio);
const Registrar kRaw(kGroup, "write(2) on an open fd (machine limit)", false, kIterations,
                     RawWrite);

}  // namespace
}  // namespace cimbench
