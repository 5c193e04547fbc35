#include <cimcore/CIMAlarm.h>

#include <cimcore/internal/CIMLog.h>

#include <cstdint>
#include <exception>
#include <memory>

#include <boost/asio/executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/make_shared.hpp>

#include "CIMRecycler.h"

namespace CIM {
namespace {

constexpr const char* kFile = "CIMAlarm.cpp";
constexpr const char* kSourcePath = "src/core/CIMAlarm";

std::chrono::nanoseconds PeriodOf(int periodMs) {
    return std::chrono::nanoseconds(static_cast<int64_t>(periodMs) * 1000000);
}

// The polymorphic executor of a new timer, made once per loop thread:
// making one from the io_context allocates, copying one only counts.
const boost::asio::executor& ExecutorOf(boost::asio::io_context& context) {
    thread_local boost::asio::io_context* cachedContext = nullptr;
    thread_local boost::asio::executor cachedExecutor;
    if (cachedContext != &context) {
        cachedExecutor = context.get_executor();
        cachedContext = &context;
    }
    return cachedExecutor;
}

}  // namespace

TICIMAlarmObserver::~TICIMAlarmObserver() = default;

void TICIMAlarmObserverSafe::OnTimer(boost::shared_ptr<TCCIMAlarm> alarm) {
    t_LockAlarmObserverSafe();
    alarm->RunHandler();
    t_UnlockAlarmObserverSafe();
}

boost::shared_ptr<TCCIMAlarm> TCCIMAlarm::CreateAlarm(TICIMAlarmObserver* observer,
                                                      boost::shared_ptr<TCCIMTask> task,
                                                      boost::function<void()> handler,
                                                      EAlarmType type, std::string name) {
    // One block for the alarm and its count; a failure leaves nothing behind.
    return boost::make_shared<TCCIMAlarm>(observer, std::move(task), std::move(handler), type,
                                          std::move(name));
}

TCCIMAlarm::TCCIMAlarm(TICIMAlarmObserver* observer, boost::shared_ptr<TCCIMTask> task,
                       boost::function<void()> handler, EAlarmType type, std::string name)
    : m_alarmObserver(observer),
      m_task(std::move(task)),
      m_active(false),
      m_handler(std::move(handler)),
      m_alarmType(type),
      m_alarmName(std::move(name)) {}

TCCIMAlarm::~TCCIMAlarm() {
    Join();
    // No request or wait holds the alarm any more, so m_active is settled.
    if (m_active) {
        Log::AssertFailed("m_active == false", kSourcePath, 74, "~TCCIMAlarm");
    }
}

void TCCIMAlarm::SetTimer(int periodMs) {
    try {
        boost::shared_ptr<TCCIMAlarm> self = shared_from_this();
        boost::asio::post(m_task->GetStrand(), Recycled([self = std::move(self), periodMs] {
                              self->m_SetTimer(periodMs);
                          }));
    } catch (const std::exception& error) {
        Log::Error(kFile, "SetTimer", 134, "%s", error.what());
    }
}

void TCCIMAlarm::StopTimer() {
    try {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        boost::shared_ptr<TCCIMAlarm> self = shared_from_this();
        // The promise and its shared state both come from the recycler.
        auto done = std::allocate_shared<std::promise<void>>(
            TCRecyclingAllocator<std::promise<void>>(), std::allocator_arg,
            TCRecyclingAllocator<void>());
        m_stopFutures.push_back(done->get_future().share());
        boost::asio::post(m_task->GetStrand(),
                          Recycled([self = std::move(self), done = std::move(done)] {
                              self->m_StopTimer();
                              done->set_value();
                          }));
    } catch (const std::exception& error) {
        Log::Error(kFile, "StopTimer", 98, "%s", error.what());
    }
}

void TCCIMAlarm::RunHandler() {
    try {
        boost::shared_ptr<TCCIMAlarm> self = shared_from_this();
        boost::asio::post(m_task->GetStrand(),
                          Recycled([self = std::move(self)] { self->m_RunHandler(); }));
    } catch (const std::exception& error) {
        Log::Error(kFile, "RunHandler", 152, "%s", error.what());
    }
}

bool TCCIMAlarm::IsActive() {
    auto answer = std::make_shared<std::promise<bool>>();
    std::future<bool> result = answer->get_future();
    boost::shared_ptr<TCCIMAlarm> self = shared_from_this();
    boost::asio::post(m_task->GetStrand(), [self, answer] { answer->set_value(self->m_active); });
    return result.get();
}

void TCCIMAlarm::Join() {
    std::list<std::shared_future<void>> pending;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        pending = m_stopFutures;
    }
    // Waited for without the lock: the task's thread may request a stop of
    // its own meanwhile (from OnTimer or a handler), and must not block on it.
    for (const std::shared_future<void>& stopped : pending) {
        // wait(), not get(): a stop whose post failed leaves a broken promise,
        // which must not turn Join into a throw.
        stopped.wait();
    }
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    // Stops are carried out in the order requested.
    while (!m_stopFutures.empty() &&
           m_stopFutures.front().wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
        m_stopFutures.pop_front();
    }
}

TICIMAlarmObserver* TCCIMAlarm::GetObserver() const {
    return m_alarmObserver;
}

std::string TCCIMAlarm::GetAlarmName() const {
    return m_alarmName;
}

EAlarmType TCCIMAlarm::GetAlarmType() const {
    return m_alarmType;
}

void TCCIMAlarm::m_SetTimer(int periodMs) {
    try {
        m_StopTimer();
        m_active = true;
        // A fresh timer per start: its identity tells a live expiry from one
        // of an earlier start.
        m_timer = boost::make_shared<Timer>(ExecutorOf(m_task->GetIoContext()));
        // expires_after saturates, so a huge or negative period cannot
        // overflow the time point.
        m_timer->expires_after(PeriodOf(periodMs));
        boost::shared_ptr<TCCIMAlarm> self = shared_from_this();
        boost::shared_ptr<Timer> timer = m_timer;
        switch (m_alarmType) {
            case ALARM_COUNT_INFINITY:
                timer->async_wait(
                    [self, timer, periodMs](const boost::system::error_code& error) mutable {
                        self->m_HandleTimerCountInfinity(timer, periodMs, error);
                    });
                break;
            case ALARM_COUNT_ONCE:
                timer->async_wait([self, timer](const boost::system::error_code& error) mutable {
                    self->m_HandleTimerCountOnce(timer, error);
                });
                break;
            default:
                // Left active with an idle timer, as reported.
                Log::AssertFailed("0", kSourcePath, 236, "m_SetTimer");
                return;
        }
    } catch (const std::exception& error) {
        Log::Error(kFile, "m_SetTimer", 243, "%s", error.what());
    }
}

void TCCIMAlarm::m_StopTimer() {
    m_active = false;
    if (m_timer) {
        // The cancelled wait still completes, finds its timer gone and falls
        // silent.
        m_timer->cancel();
        m_timer.reset();
    }
}

void TCCIMAlarm::m_RunHandler() {
    // A stop or restart carried out since the expiry cancels the callback.
    if (!m_active) {
        return;
    }
    m_handler();
    // After the callback, so that a callback that calls SetTimer restarts the
    // alarm: its start is queued behind this stop.
    if (m_alarmType == ALARM_COUNT_ONCE) {
        m_StopTimer();
    }
}

void TCCIMAlarm::m_HandleTimerCountOnce(boost::shared_ptr<Timer>& timer,
                                        const boost::system::error_code& /*error*/) {
    try {
        // The error code is not needed: cancelled and replaced timers fail
        // this test anyway.
        if (timer != m_timer || !m_active) {
            return;
        }
        if (m_alarmObserver) {
            m_alarmObserver->OnTimer(shared_from_this());
        } else {
            Log::AssertFailed("m_alarmObserver != __null", kSourcePath, 290,
                              "m_HandleTimerCountOnce");
        }
    } catch (const std::exception& error) {
        Log::Error(kFile, "m_HandleTimerCountOnce", 295, "%s", error.what());
    }
}

void TCCIMAlarm::m_HandleTimerCountInfinity(boost::shared_ptr<Timer>& timer, int periodMs,
                                            const boost::system::error_code& /*error*/) {
    try {
        if (timer != m_timer || !m_active) {
            return;
        }
        // From the previous expiry, not from now, so that the time the
        // callbacks take does not shift the grid.
        timer->expires_at(timer->expiry() + PeriodOf(periodMs));
        // Armed before the observer runs, so that an observer that stops the
        // alarm cancels this very wait.
        boost::shared_ptr<TCCIMAlarm> self = shared_from_this();
        boost::shared_ptr<Timer> next = timer;
        timer->async_wait([self, next, periodMs](const boost::system::error_code& error) mutable {
            self->m_HandleTimerCountInfinity(next, periodMs, error);
        });
        if (m_alarmObserver) {
            m_alarmObserver->OnTimer(self);
        } else {
            Log::AssertFailed("m_alarmObserver != nullptr", kSourcePath, 328,
                              "m_HandleTimerCountInfinity");
        }
    } catch (const std::exception& error) {
        Log::Error(kFile, "m_HandleTimerCountInfinity", 333, "%s", error.what());
    }
}

}  // namespace CIM
