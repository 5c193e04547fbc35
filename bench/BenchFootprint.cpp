// What objects cost while they sit idle: resident memory, threads and
// wake-ups per object; and the size of the shared library.
#include "Bench.h"

#include <cimcore/CIMThreadPool.h>
#include <cimcore/internal/lsc/Alarm.h>
#include <cimcore/internal/lsc/Task.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/make_shared.hpp>

#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cimbench {
namespace {

constexpr int kObjects = 16;

long StatusField(const std::string& path, const std::string& field) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::atol(line.c_str() + field.size() + 1);
        }
    }
    return 0;
}

std::set<long> ThreadIds() {
    std::set<long> ids;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.') {
                ids.insert(std::atol(entry->d_name));
            }
        }
        ::closedir(dir);
    }
    return ids;
}

// Context switches of the threads not in `old`.
long SwitchesOfNewThreads(const std::set<long>& old) {
    long switches = 0;
    for (long id : ThreadIds()) {
        if (old.count(id) == 0) {
            const std::string path = "/proc/self/task/" + std::to_string(id) + "/status";
            switches += StatusField(path, "voluntary_ctxt_switches") +
                        StatusField(path, "nonvoluntary_ctxt_switches");
        }
    }
    return switches;
}

// Builds kObjects objects with `make`, lets them settle, and reports per
// object the resident memory, the threads and the wake-ups over an idle
// period; then `destroy` removes them.
template <class Make, class Destroy>
double Footprint(Run& run, Make make, Destroy destroy) {
    const std::set<long> before = ThreadIds();
    const long rssBefore = StatusField("/proc/self/status", "VmRSS");
    make();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const long rssAfter = StatusField("/proc/self/status", "VmRSS");
    long threads = 0;
    for (long id : ThreadIds()) {
        threads += before.count(id) == 0;
    }
    const double idle = run.Quick() ? 0.25 : 1.0;
    const long switchesBefore = SwitchesOfNewThreads(before);
    std::this_thread::sleep_for(std::chrono::duration<double>(idle));
    const long switches = SwitchesOfNewThreads(before) - switchesBefore;
    destroy();
    run.Value("resident memory per object", double(rssAfter - rssBefore) / kObjects, "KiB");
    run.Value("threads per object", double(threads) / kObjects, "");
    run.Value("idle wake-ups per object per second", double(switches) / kObjects / idle, "/s");
    return -1;
}

class PlainTask : public TCTask {};

double LegacyTasks(Run& run) {
    std::vector<std::unique_ptr<PlainTask>> tasks;
    LegacyCoreExport::Init();
    const double result = Footprint(
        run,
        [&] {
            for (int i = 0; i < kObjects; ++i) {
                tasks.push_back(std::make_unique<PlainTask>());
                tasks.back()->Create("bench-idle", 0, 0, 0);
            }
        },
        [&] {
            for (auto& task : tasks) {
                EndLegacyTask(*task);
            }
        });
    LegacyCoreExport::Destroy();
    return result;
}

double ModernTasks(Run& run) {
    std::vector<std::unique_ptr<CIM::TCCIMTask>> tasks;
    return Footprint(
        run,
        [&] {
            for (int i = 0; i < kObjects; ++i) {
                tasks.push_back(std::make_unique<CIM::TCCIMTask>("bench-idle"));
            }
        },
        [&] {
            for (auto& task : tasks) {
                task->Join();
            }
            tasks.clear();
        });
}

// Alarms with a period of a minute on one task, which exists beforehand.
double LegacyAlarms(Run& run) {
    LegacyCoreExport::Init();
    PlainTask task;
    task.Create("bench-alarms", 0, 0, 0);
    std::vector<std::unique_ptr<TCAlarm>> alarms;
    const double result = Footprint(
        run,
        [&] {
            for (int i = 0; i < kObjects; ++i) {
                alarms.push_back(std::make_unique<TCAlarm>());
                alarms.back()->Create(&task, 60000, TCAlarm::kNoEnd);
            }
        },
        [&] {
            for (auto& alarm : alarms) {
                alarm->Destroy();
            }
            alarms.clear();
        });
    EndLegacyTask(task);
    LegacyCoreExport::Destroy();
    return result;
}

double BareThreads(Run& run) {
    std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;
    std::vector<std::thread> threads;
    return Footprint(
        run,
        [&] {
            for (int i = 0; i < kObjects; ++i) {
                threads.emplace_back([&] {
                    std::unique_lock<std::mutex> lock(mutex);
                    wake.wait(lock, [&] { return stop; });
                });
            }
        },
        [&] {
            {
                std::lock_guard<std::mutex> lock(mutex);
                stop = true;
            }
            wake.notify_all();
            for (std::thread& thread : threads) {
                thread.join();
            }
        });
}

// Timers of a minute on one loop thread, which exists beforehand.
double SteadyTimers(Run& run) {
    boost::asio::io_context context;
    auto guard = boost::asio::make_work_guard(context);
    std::thread worker([&] { context.run(); });
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
    const double result = Footprint(
        run,
        [&] {
            for (int i = 0; i < kObjects; ++i) {
                timers.push_back(std::make_unique<boost::asio::steady_timer>(context));
                timers.back()->expires_after(std::chrono::minutes(1));
                timers.back()->async_wait([](const boost::system::error_code&) {});
            }
        },
        [&] {
            for (auto& timer : timers) {
                timer->cancel();
            }
        });
    guard.reset();
    worker.join();
    return result;
}

// The output of a command, or "" when it fails.
std::string Command(const std::string& command) {
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[256];
        while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) {
            output += buffer;
        }
        if (::pclose(pipe) != 0) {
            return "";
        }
    }
    return output;
}

double LibrarySize(Run& run, const std::string& path) {
    char stripped[] = "/tmp/cim-bench-stripped-XXXXXX";
    const int fd = ::mkstemp(stripped);
    ::close(fd);
    struct stat info {};
    if (Command("strip -o " + std::string(stripped) + " '" + path + "' 2>&1 && echo ok") !=
            "ok\n" ||
        ::stat(stripped, &info) != 0) {
        run.Fail("strip failed on " + path);
    }
    ::unlink(stripped);
    const std::string count = Command("nm -D --defined-only '" + path + "' | wc -l");
    if (count.empty()) {
        run.Fail("nm failed on " + path);
    }
    run.Value("stripped size", double(info.st_size) / 1024.0, "KiB");
    run.Value("exported (dynamic, defined) symbols", std::atof(count.c_str()), "");
    return -1;
}

const bool kRegistered = [] {
    const std::string idle = "footprint per idle object (16 of each)";
    Register(idle, "legacy TCTask, waiting for events", Role::kCimcore, 1, LegacyTasks);
    Register(idle, "CIM::TCCIMTask", Role::kCimcore, 1, ModernTasks);
    Register(idle, "legacy TCAlarm, period 1 min, on one task", Role::kCimcore, 1, LegacyAlarms);
    Register(idle, "std::thread waiting on a condition", Role::kPeer, 1, BareThreads);
    Register(idle, "steady_timer of 1 min on one loop thread", Role::kPeer, 1, SteadyTimers);
    LimitRuns(idle, 3);
    const std::string library = "shared library";
    Register(library, "libcimcore.so", Role::kCimcore, 1,
             [](Run& run) { return LibrarySize(run, CIMBENCH_LIBCIMCORE); });
    Register(library, "libPocoFoundation.so, for scale", Role::kPeer, 1,
             [](Run& run) { return LibrarySize(run, CIMBENCH_LIBPOCO); });
    LimitRuns(library, 1);
    return true;
}();

}  // namespace
}  // namespace cimbench
