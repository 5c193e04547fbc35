#include <cimcore/internal/lsc/Sync.h>

#include "TestSupport.h"

#include <cimcore/CIMTime.h>
#include <cimcore/internal/lsc/Task.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A task held inside its user hook until Open.
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
    void Hold() {
        TSEvent event;
        event.receiver = this;
        event.type = EVENT_USER;
        ASSERT_TRUE(TCTask::Send(&event, false, false));
        m_entered.Take();
    }
    void Open() { m_gate.Give(); }
    void Stop() {
        TSEvent exit;
        exit.receiver = this;
        exit.type = EVENT_EXIT;
        EXPECT_TRUE(TCTask::Send(&exit, false, false));
        Destroy();
    }

protected:
    bool t_OnUser(const TSEvent*) override {
        if (!m_opened) {
            m_opened = true;
            m_entered.Give();
            m_gate.Take();
        }
        return true;
    }

private:
    bool m_opened = false;  // task thread only
    TCSemaphore m_gate;
    TCSemaphore m_entered;
};

int ValidEntries() {
    TCSyncDet::m_pLock->Lock();
    int valid = 0;
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        valid += TCSyncDet::m_arrPCSyncDet[i].bValid ? 1 : 0;
    }
    TCSyncDet::m_pLock->Unlock();
    return valid;
}

bool WaitForEntries(int wanted) {
    const auto deadline = Clock::now() + cimtest::Scaled(milliseconds(5000));
    while (ValidEntries() != wanted) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class SyncTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(LegacyCoreExport::Init()); }
    void TearDown() override { LegacyCoreExport::Destroy(); }
};

TEST_F(SyncTest, BlockedSendersAreRecordedAndTheSixtyFifthStillCompletes) {
    cimtest::LogCapture log;
    HeldTask task;
    ASSERT_TRUE(task.Create("receiver", 0, 0, 0));
    task.Hold();

    constexpr int kSenders = TCSyncDet::MAX_SYNC_TASKS + 1;
    struct Sender {
        std::thread thread;
        std::atomic<bool> result{false};
        pthread_t id = 0;
        int tid = 0;
    };
    std::vector<Sender> senders(kSenders);
    std::vector<std::promise<void>> ready(kSenders);
    auto start = [&](int i) {
        Sender& sender = senders[i];
        sender.thread = std::thread([&sender, &task, &ready, i] {
            char name[16];
            std::snprintf(name, sizeof name, "sender%02d", i);
            prctl(PR_SET_NAME, name, 0, 0, 0);
            sender.id = pthread_self();
            sender.tid = static_cast<int>(::syscall(SYS_gettid));
            ready[i].set_value();
            TSEvent event;
            event.receiver = &task;
            event.type = 7;  // ignored by the task, still executed
            sender.result = TCTask::Send(&event, true, false);
        });
        ready[i].get_future().wait();
    };
    const unsigned long before = CIM::TCCIMTime::Tick();
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        start(i);
    }
    ASSERT_TRUE(WaitForEntries(TCSyncDet::MAX_SYNC_TASKS));
    EXPECT_FALSE(log.Contains("Add() failed"));

    // Each entry says who waits for which task since when.
    TCSyncDet::m_pLock->Lock();
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        const TCSyncDet::PTSyncDetInfo& entry = TCSyncDet::m_arrPCSyncDet[i];
        const Sender* match = nullptr;
        for (const Sender& sender : senders) {
            if (sender.id == entry.ulCallerId) {
                match = &sender;
            }
        }
        ASSERT_NE(match, nullptr) << i;
        EXPECT_EQ(entry.iCallerTid, match->tid);
        char expected[16];
        std::snprintf(expected, sizeof expected, "sender%02d", int(match - &senders[0]));
        EXPECT_STREQ(entry.szCallerName, expected);
        EXPECT_EQ(entry.ulReceiverId, static_cast<unsigned long>(task.Id()));
        EXPECT_STREQ(entry.szReceiverName, "receiver");
        EXPECT_EQ(entry.ulReserved, 0UL);
        EXPECT_LE(CIM::TickDiff(entry.ulTick, before), CIM::TickDiff(CIM::TCCIMTime::Tick(), before));
    }
    TCSyncDet::m_pLock->Unlock();

    // The sixty-fifth finds the table full: it logs, is not recorded, and
    // its send is carried out all the same.
    start(TCSyncDet::MAX_SYNC_TASKS);
    const auto deadline = Clock::now() + cimtest::Scaled(milliseconds(5000));
    while (!log.Contains("### TCSyncDet::Add() failed") && Clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(log.Count("E/CI_CORE"), 1u);
    EXPECT_EQ(log.Count("Sync.cpp: PCTaskSyncMonitoring("), 1u);
    EXPECT_EQ(ValidEntries(), TCSyncDet::MAX_SYNC_TASKS);
    unsigned int queued = 0;
    while (!task.Find(&task, 7UL, &queued) || queued < unsigned(kSenders)) {
        std::this_thread::yield();
    }

    task.Open();
    for (Sender& sender : senders) {
        sender.thread.join();
        EXPECT_TRUE(sender.result);
    }
    EXPECT_EQ(ValidEntries(), 0);
    task.Stop();
}

TEST_F(SyncTest, EntriesAreReusedLowestFirst) {
    TCSyncDet::PTSyncDetInfo info;
    std::memset(&info, 0, sizeof info);
    std::strcpy(info.szReceiverName, "direct");
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        ASSERT_EQ(TCSyncDet::Add(&info), i);
    }
    EXPECT_EQ(TCSyncDet::Add(&info), -1);
    EXPECT_EQ(TCSyncDet::Remove(40), 0);
    EXPECT_EQ(TCSyncDet::Remove(3), 0);
    EXPECT_EQ(TCSyncDet::Add(&info), 3);
    EXPECT_EQ(TCSyncDet::Add(&info), 40);
    EXPECT_EQ(TCSyncDet::Add(&info), -1);
    EXPECT_STREQ(TCSyncDet::m_arrPCSyncDet[40].szReceiverName, "direct");
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        TCSyncDet::Remove(i);
    }
    EXPECT_EQ(ValidEntries(), 0);

    cimtest::AssertRecorder recorder;
    EXPECT_EQ(TCSyncDet::Remove(5), 0);
    EXPECT_EQ(TCSyncDet::Remove(TCSyncDet::MAX_SYNC_TASKS), 0);
    EXPECT_EQ(TCSyncDet::Add(nullptr), -1);
    EXPECT_EQ(recorder.Expressions(),
              (std::vector<std::string>{"(m_arrPCSyncDet[callerArryIndex].bValid)",
                                        "callerArryIndex >= 0 && callerArryIndex < MAX_SYNC_TASKS",
                                        "pData"}));
    EXPECT_EQ(ValidEntries(), 0);
}

TEST_F(SyncTest, SecondInitKeepsTheTableAndNoTableRecordsNothing) {
    TCSyncDet::PTSyncDetInfo info;
    std::memset(&info, 0, sizeof info);
    ASSERT_EQ(TCSyncDet::Add(&info), 0);
    TCSyncDet::PTSyncDetInfo* const table = TCSyncDet::m_arrPCSyncDet;
    TCMutex* const lock = TCSyncDet::m_pLock;
    {
        cimtest::AssertRecorder recorder;
        EXPECT_TRUE(LegacyCoreExport::Init());
        EXPECT_FALSE(TCSyncDet::Create());
        EXPECT_EQ(recorder.Expressions(),
                  (std::vector<std::string>{"!FlagCreate()", "!FlagCreate()"}));
    }
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, table);
    EXPECT_EQ(TCSyncDet::m_pLock, lock);
    EXPECT_TRUE(TCSyncDet::m_arrPCSyncDet[0].bValid);
    TCSyncDet::Remove(0);

    // Without the table, synchronous sends work and nothing is recorded.
    TCSyncDet::Destroy();
    EXPECT_FALSE(TCSyncDet::FlagCreate());
    EXPECT_EQ(TCSyncDet::m_pLock, nullptr);
    cimtest::LogCapture log;
    HeldTask task;
    ASSERT_TRUE(task.Create("untracked", 0, 0, 0));
    task.Open();  // the first user event passes the gate at once
    TSEvent event;
    event.receiver = &task;
    event.type = EVENT_USER;
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(TCSyncDet::PCTaskSyncMonitoring(0, &event), -1);
    task.Stop();
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
