// The modern runtime: handlers posted to a task, and alarm expiries.
#include "Bench.h"

#include <cimcore/CIMAlarm.h>
#include <cimcore/CIMThreadPool.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/make_shared.hpp>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace cimbench {
namespace {

constexpr const char* kPostGroup = "handler posted to a one-thread loop (throughput)";
constexpr const char* kTimerGroup = "timer expiry re-armed from its callback (0 ms)";

double TaskPost(long n) {
    CIM::TCCIMTask task("bench-task");
    std::promise<void> done;
    long count = 0;
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        boost::asio::post(task.GetStrand(), [&] {
            if (++count == n) {
                done.set_value();
            }
        });
    }
    done.get_future().wait();
    const double seconds = SecondsSince(start);
    task.Join();
    return seconds;
}

double AsioPost(long n) {
    boost::asio::io_context context;
    auto guard = boost::asio::make_work_guard(context);
    std::thread worker([&] { context.run(); });
    std::promise<void> done;
    long count = 0;
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        boost::asio::post(context, [&] {
            if (++count == n) {
                done.set_value();
            }
        });
    }
    done.get_future().wait();
    const double seconds = SecondsSince(start);
    guard.reset();
    worker.join();
    return seconds;
}

double PlainWorkQueue(long n) {
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<std::function<void()>> work;
    bool stop = false;
    std::thread worker([&] {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock<std::mutex> lock(mutex);
                ready.wait(lock, [&] { return stop || !work.empty(); });
                if (work.empty()) {
                    return;
                }
                job = std::move(work.front());
                work.pop_front();
            }
            job();
        }
    });
    std::promise<void> done;
    long count = 0;
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            work.emplace_back([&] {
                if (++count == n) {
                    done.set_value();
                }
            });
        }
        ready.notify_one();
    }
    done.get_future().wait();
    const double seconds = SecondsSince(start);
    {
        std::lock_guard<std::mutex> lock(mutex);
        stop = true;
    }
    ready.notify_one();
    worker.join();
    return seconds;
}

// Forwards each expiry to the callback, which re-arms until n have fired.
class Rearmer : public CIM::TICIMAlarmObserver {
public:
    void OnTimer(boost::shared_ptr<CIM::TCCIMAlarm> alarm) override { alarm->RunHandler(); }
};

double AlarmRearm(long n) {
    auto task = boost::make_shared<CIM::TCCIMTask>("bench-alarm");
    Rearmer observer;
    std::promise<void> done;
    long count = 0;
    boost::shared_ptr<CIM::TCCIMAlarm> alarm;
    alarm = CIM::TCCIMAlarm::CreateAlarm(
        &observer, task,
        [&] {
            if (++count == n) {
                done.set_value();
            } else {
                alarm->SetTimer(0);
            }
        },
        CIM::ALARM_COUNT_ONCE, "bench");
    const auto start = std::chrono::steady_clock::now();
    alarm->SetTimer(0);
    done.get_future().wait();
    const double seconds = SecondsSince(start);
    alarm->StopTimer();
    alarm->Join();
    alarm.reset();
    task->Join();
    return seconds;
}

double AsioTimerRearm(long n) {
    boost::asio::io_context context;
    boost::asio::steady_timer timer(context);
    long count = 0;
    std::function<void(const boost::system::error_code&)> onExpiry =
        [&](const boost::system::error_code&) {
            if (++count < n) {
                timer.expires_after(std::chrono::milliseconds(0));
                timer.async_wait(onExpiry);
            }
        };
    const auto start = std::chrono::steady_clock::now();
    std::thread worker([&] {
        timer.expires_after(std::chrono::milliseconds(0));
        timer.async_wait(onExpiry);
        context.run();
    });
    worker.join();
    return SecondsSince(start);
}

const Registrar kTaskPost(kPostGroup, "cimcore CIM::TCCIMTask, through its strand", true, 200000,
                          TaskPost);
const Registrar kAsioPost(kPostGroup, "Boost.Asio io_context, one thread", false, 200000, AsioPost);
const Registrar kPlainPost(kPostGroup, "std::function queue + mutex + condition", false, 200000,
                           PlainWorkQueue);
const Registrar kAlarm(kTimerGroup, "cimcore CIM::TCCIMAlarm one-shot via observer", true, 50000,
                       AlarmRearm);
const Registrar kAsioTimer(kTimerGroup, "Boost.Asio steady_timer async_wait chain", false, 50000,
                           AsioTimerRearm);

}  // namespace
}  // namespace cimbench
