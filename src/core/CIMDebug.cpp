#include <cimcore/CIMDebug.h>

#include <cimcore/CIMTime.h>
#include <cimcore/internal/CIMLog.h>
#include <cimcore/internal/CIMThreadId.h>
#include <cimcore/testing.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <mutex>

#include <execinfo.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace CIM {
namespace {

constexpr int kMaxFrames = 100;

std::mutex& HookMutex() {
    static std::mutex mutex;
    return mutex;
}

testing::AssertHook& Hook() {  // guarded by HookMutex()
    static testing::AssertHook hook;
    return hook;
}

testing::AssertHook CurrentHook() {
    std::lock_guard<std::mutex> lock(HookMutex());
    return Hook();
}

void LogCallStack() {
    if (!Log::IsOn()) {
        return;  // symbols and demangling are costly, and only the log wants them
    }
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    if (count <= 0) {
        return;
    }
    char** symbols = ::backtrace_symbols(frames, count);
    if (symbols == nullptr) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        int status = 0;
        char* demangled = abi::__cxa_demangle(symbols[i], nullptr, nullptr, &status);
        const char* text = (status == 0 && demangled != nullptr) ? demangled : symbols[i];
        Log::Error("CIMDebug.cpp", "_TCCIMAssert", 47, "%s", text);
        std::free(demangled);
    }
    std::free(symbols);
}

const char* ConsolePath() {
    const char* path = std::getenv("CIM_CONSOLE_PATH");
    return (path != nullptr && *path != '\0') ? path : "/dev/console";
}

void WriteConsoleReport(const char* expression, const char* file, unsigned long line) {
    const long tid = CIM::CurrentKernelThreadId();
    char name[16] = {};
    ::prctl(PR_GET_NAME, name, 0, 0, 0);

    if (std::freopen(ConsolePath(), "w", stdout) == nullptr) {
        return;
    }
    // No line end: the next line follows on the same console line.
    std::fprintf(stdout, "This sentence is redirected to a serial output.");
    std::fprintf(stdout, "Assertion failed: %s (%lu) - %s\n", file, line, expression);
    std::fprintf(stdout, "Debug information:\n");
    const pthread_t self = ::pthread_self();
    if (self == 0) {
        std::fprintf(stdout, "Posix Thread ID: %s\n", "{Not-any-thread}");
    } else {
        std::fprintf(stdout, "Posix Thread ID: %lx\n", static_cast<unsigned long>(self));
    }
    std::fprintf(stdout, "Linux Thread ID: %ld (%s)\n", tid, name);

    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    char** symbols = count > 0 ? ::backtrace_symbols(frames, count) : nullptr;
    if (symbols != nullptr) {
        std::fprintf(stdout, "Callstack:\n");
        for (int i = 1; i < count; ++i) {  // the report's own frame is left out
            std::fprintf(stdout, "%s\n", symbols[i]);
        }
        std::free(symbols);
    }
    std::fclose(stdout);
}

// The crash is the point: the platform's crash handling takes over from here.
__attribute__((noinline, no_sanitize("address", "null"))) void CrashOnPurpose() {
    volatile int* volatile zero = nullptr;
    *zero = 0;
}

}  // namespace

void _TCCIMAssert(const char* expression, const char* file, unsigned long line) {
    // Logged twice on purpose, so that one copy survives a lossy log.
    Log::Error("CIMDebug.cpp", "_TCCIMAssert", 44, "%s::%lu: %s", file, line, expression);
    Log::Error("CIMDebug.cpp", "_TCCIMAssert", 47, "%s::%lu: %s", file, line, expression);
    LogCallStack();

    const testing::AssertHook hook = CurrentHook();
    if (hook) {
        hook(expression, file, line);
        return;
    }

    TCCIMTime::Sleep(200);  // lets the log be written before the crash
    WriteConsoleReport(expression, file, line);
    TCCIMTime::Sleep(100);
    CrashOnPurpose();
}

void _TCCIMAssert(const char* expression, const char* file, unsigned long line, const char* format,
                  ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    _TCCIMAssert(expression, file, line);
}

namespace testing {

void SetAssertHook(AssertHook hook) {
    std::lock_guard<std::mutex> lock(HookMutex());
    Hook() = std::move(hook);
}

ScopedAssertHook::ScopedAssertHook(AssertHook hook) {
    std::lock_guard<std::mutex> lock(HookMutex());
    m_previous = std::move(Hook());
    Hook() = std::move(hook);
}

ScopedAssertHook::~ScopedAssertHook() {
    SetAssertHook(std::move(m_previous));
}

}  // namespace testing
}  // namespace CIM
