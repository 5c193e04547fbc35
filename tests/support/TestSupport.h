// Helpers shared by the tests: time scaling, log capture, temporary folders
// and an assertion recorder.
#ifndef CIMCORE_TESTS_TESTSUPPORT_H
#define CIMCORE_TESTS_TESTSUPPORT_H

#include "HostControl.h"

#include <cimcore/testing.h>

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cimtest {

// CIM_TEST_TIME_SCALE (default 1) stretches the generous upper bounds of
// timing checks on slow machines; lower bounds are never stretched.
std::chrono::milliseconds Scaled(std::chrono::milliseconds bound);

using Clock = std::chrono::steady_clock;

inline std::chrono::milliseconds Since(Clock::time_point from) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - from);
}

// Polls `done` until it holds or `limit` (scaled) has passed.
template <class Condition>
bool WaitUntil(Condition done, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto deadline = Clock::now() + Scaled(limit);
    while (!done() && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    return done();
}

// Runs body(0) .. body(count - 1), each on a thread of its own, and joins them.
void RunThreads(int count, const std::function<void(int)>& body);
void JoinAll(std::vector<std::thread>& threads);

// Values handed over by other threads, in order; a test waits for them
// instead of sleeping.
template <class T>
class Recorder {
public:
    void Add(T value) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_values.push_back(std::move(value));
        m_changed.notify_all();
    }
    std::vector<T> All() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_values;
    }
    // Waits until `count` values have come or `limit` (scaled) has passed.
    bool AwaitCount(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(3)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, Scaled(limit), [&] { return m_values.size() >= count; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<T> m_values;  // guarded by m_mutex
};

// Runs `m_undo` when it goes: undoes what a test changed for its lifetime.
class ScopedUndo {
public:
    ScopedUndo() = default;
    ~ScopedUndo() { m_undo(); }
    ScopedUndo(const ScopedUndo&) = delete;
    ScopedUndo& operator=(const ScopedUndo&) = delete;

protected:
    std::function<void()> m_undo = [] {};
};

// A folder under /tmp that is removed with everything in it.
class TempDir : ScopedUndo {
public:
    TempDir();
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string ReadFile(const std::string& path);
std::vector<std::string> SplitLines(const std::string& text);
// The message part of a log line (after "): "), or the whole line.
inline std::string MessageOf(const std::string& line) {
    const size_t start = line.find("): ");
    return start == std::string::npos ? line : line.substr(start + 3);
}
void WriteFile(const std::string& path, const std::string& text);
inline bool Exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// The calling thread's name as the kernel shows it (/proc/thread-self/comm).
std::string ThreadName();

// Sets an environment variable for its lifetime, then restores the old state.
struct ScopedEnv : ScopedUndo {
    ScopedEnv(const char* name, const std::string& value);
};

// Changes a host platform setting for its lifetime, then restores it.
struct ScopedHostSetting : ScopedUndo {
    ScopedHostSetting(cimhost::EHostSetting setting, const std::string& value);
};

// Sends the platform log to a fresh file for its lifetime and reads it back.
class LogCapture {
public:
    LogCapture();

    const std::string& Path() const { return m_path; }
    std::vector<std::string> Lines() const { return SplitLines(ReadFile(m_path)); }
    // The message part of each line (after "): "), in order.
    std::vector<std::string> Messages() const;
    size_t Count(const std::string& text) const;
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    void Clear() { WriteFile(m_path, ""); }

private:
    TempDir m_dir;
    std::string m_path;
    ScopedHostSetting m_output;
};

// Installs an assertion hook for its lifetime and records the reports.
class AssertRecorder {
public:
    AssertRecorder();

    std::vector<std::string> Expressions() const { return m_expressions.All(); }
    // The source each report named, in the same order.
    std::vector<std::string> Paths() const { return m_paths.All(); }

private:
    Recorder<std::string> m_expressions, m_paths;
    CIM::testing::ScopedAssertHook m_hook;  // last: set once the rest is built
};

}  // namespace cimtest

#endif
