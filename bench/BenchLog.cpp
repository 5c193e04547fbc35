// One log line: written to a file, to output "none", with its tag switched
// off, beside a write(2) of the same line and a test of a relaxed flag.
#include "Bench.h"

#include <cimcore/internal/CIMLog.h>

#include "HostControl.h"
#include "debug_menu.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace cimbench {
namespace {

constexpr long kLines = 200000;

std::string TempLog() {
    char path[] = "/tmp/cim-bench-log-XXXXXX";
    const int fd = ::mkstemp(path);
    ::close(fd);
    return path;
}

enum class Mode { kToFile, kOutputNone, kTagOff };

double LibraryLog(Run& run, Mode mode) {
    const std::string path = TempLog();
    const std::string previous = cimhost::GetSetting(cimhost::EHostSetting::LOG_OUTPUT);
    cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT,
                        mode == Mode::kOutputNone ? std::string("none") : "file:" + path);
    if (mode == Mode::kTagOff && stopdlogtagbydefault("CI_CORE") != 0) {
        run.Fail("the tag could not be switched off");
    }
    const long n = run.Iterations();
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        CIM::Log::Info("Bench.cpp", "LibraryLog", 1, "event %ld handled in %d ms", i, 3);
    }
    const double seconds = SecondsSince(start);
    if (mode == Mode::kTagOff) {
        startdlogtagbydefault("CI_CORE");
    }
    cimhost::SetSetting(cimhost::EHostSetting::LOG_OUTPUT, previous);
    // The file must hold every line exactly when the tag is on.
    FILE* file = std::fopen(path.c_str(), "r");
    long lines = 0;
    for (int c; file != nullptr && (c = std::fgetc(file)) != EOF;) {
        lines += c == '\n';
    }
    if (file != nullptr) {
        std::fclose(file);
    }
    if (lines != (mode == Mode::kToFile ? n : 0)) {
        run.Fail("the file holds " + std::to_string(lines) + " lines");
    }
    ::unlink(path.c_str());
    return seconds;
}

// The line the library writes, with the same prefix and text.
double RawWrite(Run& run) {
    const std::string path = TempLog();
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    char line[160];
    const long n = run.Iterations();
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        const int size = std::snprintf(line, sizeof line,
                                       "11-23 12:00:00.000 I/CI_CORE(12345:12345): Bench.cpp: "
                                       "LibraryLog(1) > event %ld handled in %d ms\n",
                                       i, 3);
        if (::write(fd, line, size_t(size)) < 0) {
            run.Fail("write failed");
            break;
        }
    }
    const double seconds = SecondsSince(start);
    ::close(fd);
    ::unlink(path.c_str());
    return seconds;
}

std::atomic<bool> gLineWanted(false);
long gLinesWritten = 0;

double FlagTest(Run& run) {
    const long n = run.Iterations();
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        if (gLineWanted.load(std::memory_order_relaxed)) {
            ++gLinesWritten;
        }
    }
    const double seconds = SecondsSince(start);
    if (gLinesWritten != 0) {
        run.Fail("the flag was set");
    }
    return seconds;
}

const bool kRegistered = [] {
    const std::string group = "one log line (CIM::Log::Info, tag CI_CORE)";
    Register(group, "tag on, appended to a file", Role::kCimcore, kLines,
             [](Run& run) { return LibraryLog(run, Mode::kToFile); });
    Register(group, "output none", Role::kCimcore, kLines,
             [](Run& run) { return LibraryLog(run, Mode::kOutputNone); });
    Register(group, "tag switched off (stopdlogtagbydefault)", Role::kCimcore, kLines,
             [](Run& run) { return LibraryLog(run, Mode::kTagOff); });
    Register(group, "snprintf + write(2) of the same line to a file", Role::kPeer, kLines,
             RawWrite);
    // Many more turns: one test takes well under a nanosecond.
    Register(group, "relaxed atomic flag test", Role::kMachineFloor, kLines * 100, FlagTest);
    return true;
}();

}  // namespace
}  // namespace cimbench
