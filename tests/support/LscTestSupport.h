// Helpers shared by the tests of the legacy task runtime.
#ifndef CIMCORE_TESTS_LSCTESTSUPPORT_H
#define CIMCORE_TESTS_LSCTESTSUPPORT_H

#include "TestSupport.h"

#include <cimcore/internal/lsc/Sync.h>
#include <cimcore/internal/lsc/Task.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <iterator>

namespace cimtest {

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

// Counted by the raw callbacks Before and After, passed as their context.
struct Calls {
    mutable std::atomic<int> before{0}, after{0};
    std::atomic<bool> beforeResult{false};
};
inline bool Before(const TSEvent*, const void* context) {
    ++static_cast<const Calls*>(context)->before;
    return static_cast<const Calls*>(context)->beforeResult;
}
inline bool After(const TSEvent*, const void* context) {
    ++static_cast<const Calls*>(context)->after;
    return false;
}

// The valid entries of the sync-send table, copied under its lock.
inline std::vector<TCSyncDet::PTSyncDetInfo> SyncTable() {
    std::vector<TCSyncDet::PTSyncDetInfo> entries;
    TCSyncDet::m_pLock->Lock();
    std::copy_if(TCSyncDet::m_arrPCSyncDet, TCSyncDet::m_arrPCSyncDet + TCSyncDet::MAX_SYNC_TASKS,
                 std::back_inserter(entries), [](auto& e) { return e.bValid; });
    TCSyncDet::m_pLock->Unlock();
    return entries;
}

// For the tests that need the runtime's global state.
class LscTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(LegacyCoreExport::Init()); }
    void TearDown() override { LegacyCoreExport::Destroy(); }
};

// Counts the events its own handler executed, by type; Hold keeps its thread
// inside a user event (tagged kHold) until Open.
class HeldTask : public TCTask {
public:
    static constexpr uintptr_t kHold = ~uintptr_t(0);
    void Hold() {
        m_gate = std::promise<void>();
        m_entered = std::promise<void>();
        auto entered = m_entered.get_future();
        ASSERT_TRUE(SendTo(this, EVENT_USER, false, kHold));
        entered.wait();
    }
    void Open() { m_gate.set_value(); }
    void Stop() {
        EXPECT_TRUE(SendTo(this, EVENT_EXIT, false));
        Destroy();
    }

    std::atomic<int> executed[64]{};                                     // for the types below 64
    std::function<void(const TSEvent*)> onUser = [](const TSEvent*) {};  // set before events flow

protected:
    bool t_OnEvent(const TSEvent* event) override {
        ++executed[event->type % 64];
        return TCTask::t_OnEvent(event);
    }
    bool t_OnUser(const TSEvent* event) override {
        onUser(event);
        if (event->word4 == kHold) {
            auto gate = m_gate.get_future();
            m_entered.set_value();
            gate.wait();
        }
        return true;
    }

private:
    std::promise<void> m_gate, m_entered;
};

// A created task for each test, stopped at the end unless the test did it.
class LscTaskTest : public LscTest {
protected:
    void SetUp() override {
        LscTest::SetUp();
        ASSERT_TRUE(task.Create("task", 0, 0, 0));
    }
    void TearDown() override {
        if (task.FlagCreate()) {
            task.Stop();
        }
        LscTest::TearDown();
    }

    HeldTask task;
};

}  // namespace cimtest

#endif
