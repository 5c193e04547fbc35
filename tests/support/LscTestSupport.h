// Helpers shared by the tests of the legacy task runtime.
#ifndef CIMCORE_TESTS_LSCTESTSUPPORT_H
#define CIMCORE_TESTS_LSCTESTSUPPORT_H

#include "TestSupport.h"

#include <cimcore/internal/lsc/Sync.h>
#include <cimcore/internal/lsc/Task.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace cimtest {

using Clock = std::chrono::steady_clock;

inline long ElapsedMs(Clock::time_point from) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - from).count());
}

// Polls `done` until it holds; false once `limit` (scaled) has passed.
template <class Condition>
bool WaitUntil(Condition done, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
    const auto deadline = Clock::now() + Scaled(limit);
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

inline TSEvent MakeEvent(TCHandler* receiver, unsigned long type, uintptr_t tag = 0) {
    TSEvent event;
    event.receiver = receiver;
    event.type = type;
    event.word4 = tag;
    return event;
}

inline bool SendTo(TCHandler* receiver, unsigned long type, bool sync, uintptr_t tag = 0) {
    TSEvent event = MakeEvent(receiver, type, tag);
    return TCTask::Send(&event, sync, false);
}

// What the raw callbacks Before and After count, passed as their context.
struct Calls {
    std::atomic<int> before{0};
    std::atomic<int> after{0};
    std::atomic<bool> beforeResult{false};
    std::atomic<bool> afterResult{false};
};
inline bool Before(const TSEvent*, const void* context) {
    auto* calls = static_cast<Calls*>(const_cast<void*>(context));
    ++calls->before;
    return calls->beforeResult;
}
inline bool After(const TSEvent*, const void* context) {
    auto* calls = static_cast<Calls*>(const_cast<void*>(context));
    ++calls->after;
    return calls->afterResult;
}

// The entries of the sync-send table in use.
inline int SyncEntries() {
    TCSyncDet::m_pLock->Lock();
    int valid = 0;
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        valid += TCSyncDet::m_arrPCSyncDet[i].bValid ? 1 : 0;
    }
    TCSyncDet::m_pLock->Unlock();
    return valid;
}

// A task that records the types its own handler executed and whose next user
// event can be held on its thread until Open.
class HeldTask : public TCTask {
public:
    HeldTask() {
        m_gate.Create(0);
        m_entered.Create(0);
    }
    ~HeldTask() override {
        m_gate.Destroy();
        m_entered.Destroy();
    }
    // Returns once the task's thread is inside a user event.
    void Hold() {
        m_hold = true;
        ASSERT_TRUE(SendTo(this, EVENT_USER, false));
        m_entered.Take();
    }
    void Open() { m_gate.Give(); }
    void Stop() {
        EXPECT_TRUE(SendTo(this, EVENT_EXIT, false));
        Destroy();
    }
    std::vector<unsigned long> Types() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_types;
    }

protected:
    bool t_OnEvent(const TSEvent* event) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_types.push_back(event->type);
        }
        return TCTask::t_OnEvent(event);
    }
    bool t_OnUser(const TSEvent*) override {
        if (m_hold.exchange(false)) {
            m_entered.Give();
            m_gate.Take();
        }
        return true;
    }

private:
    std::atomic<bool> m_hold{false};
    TCSemaphore m_gate;
    TCSemaphore m_entered;
    std::mutex m_mutex;
    std::vector<unsigned long> m_types;  // guarded by m_mutex
};

}  // namespace cimtest

#endif
