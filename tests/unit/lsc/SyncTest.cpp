#include <cimcore/internal/lsc/Sync.h>

#include "LscTestSupport.h"

#include <cimcore/CIMTime.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <future>
#include <string>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using cimtest::SyncEntries;
using cimtest::WaitUntil;

class SyncTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(LegacyCoreExport::Init()); }
    void TearDown() override { LegacyCoreExport::Destroy(); }
};

TEST_F(SyncTest, BlockedSendersAreRecordedAndTheSixtyFifthStillCompletes) {
    cimtest::LogCapture log;
    cimtest::HeldTask task;
    ASSERT_TRUE(task.Create("receiver", 0, 0, 0));
    task.Hold();

    constexpr int kSenders = TCSyncDet::MAX_SYNC_TASKS + 1;
    struct Sender {
        std::thread thread;
        std::promise<void> ready;
        std::atomic<bool> result{false};
        unsigned long id = 0;
        int tid = 0;
    };
    std::vector<Sender> senders(kSenders);
    auto start = [&task](Sender& sender, int i) {
        sender.thread = std::thread([&sender, &task, i] {
            char name[16];
            std::snprintf(name, sizeof name, "sender%02d", i);
            prctl(PR_SET_NAME, name, 0, 0, 0);
            sender.id = static_cast<unsigned long>(pthread_self());
            sender.tid = static_cast<int>(::syscall(SYS_gettid));
            sender.ready.set_value();
            sender.result = cimtest::SendTo(&task, 7, true);  // ignored by the task
        });
        sender.ready.get_future().wait();
    };
    const unsigned long before = CIM::TCCIMTime::Tick();
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        start(senders[i], i);
    }
    ASSERT_TRUE(WaitUntil([] { return SyncEntries() == TCSyncDet::MAX_SYNC_TASKS; }));

    // Each entry says who waits for which task since when.
    TCSyncDet::m_pLock->Lock();
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        const TCSyncDet::PTSyncDetInfo& entry = TCSyncDet::m_arrPCSyncDet[i];
        int match = 0;
        while (match < kSenders && senders[match].id != entry.ulCallerId) {
            ++match;
        }
        ASSERT_LT(match, kSenders) << i;
        char expected[16];
        std::snprintf(expected, sizeof expected, "sender%02d", match);
        EXPECT_STREQ(entry.szCallerName, expected);
        EXPECT_EQ(entry.iCallerTid, senders[match].tid);
        EXPECT_EQ(entry.ulReceiverId, static_cast<unsigned long>(task.Id()));
        EXPECT_STREQ(entry.szReceiverName, "receiver");
        EXPECT_LE(CIM::TickDiff(entry.ulTick, before),
                  CIM::TickDiff(CIM::TCCIMTime::Tick(), before));
    }
    TCSyncDet::m_pLock->Unlock();

    // The sixty-fifth finds the table full: it logs, is not recorded, and
    // its send is carried out all the same.
    EXPECT_FALSE(log.Contains("Add() failed"));
    start(senders[kSenders - 1], kSenders - 1);
    EXPECT_TRUE(WaitUntil([&log] { return log.Contains("### TCSyncDet::Add() failed"); }));
    EXPECT_EQ(log.Count("E/CI_CORE"), 1u);
    EXPECT_EQ(log.Count("Sync.cpp: PCTaskSyncMonitoring("), 1u);
    EXPECT_EQ(SyncEntries(), TCSyncDet::MAX_SYNC_TASKS);
    unsigned int queued = 0;
    ASSERT_TRUE(WaitUntil([&] { return task.Find(&task, 7UL, &queued) && queued == kSenders; }));

    task.Open();
    for (Sender& sender : senders) {
        sender.thread.join();
        EXPECT_TRUE(sender.result);
    }
    EXPECT_EQ(SyncEntries(), 0);
    task.Stop();
}

TEST_F(SyncTest, EntriesAreReusedLowestFirstAndMisuseIsReported) {
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
    EXPECT_EQ(SyncEntries(), 0);

    cimtest::AssertRecorder recorder;
    EXPECT_EQ(TCSyncDet::Remove(5), 0);
    EXPECT_EQ(TCSyncDet::Remove(TCSyncDet::MAX_SYNC_TASKS), 0);
    EXPECT_EQ(TCSyncDet::Add(nullptr), -1);
    EXPECT_EQ(recorder.Expressions(),
              (std::vector<std::string>{"(m_arrPCSyncDet[callerArryIndex].bValid)",
                                        "callerArryIndex >= 0 && callerArryIndex < MAX_SYNC_TASKS",
                                        "pData"}));
    EXPECT_EQ(SyncEntries(), 0);
}

TEST_F(SyncTest, SecondInitKeepsTheTableAndNoTableRecordsNothing) {
    TCSyncDet::PTSyncDetInfo info;
    std::memset(&info, 0, sizeof info);
    ASSERT_EQ(TCSyncDet::Add(&info), 0);
    TCSyncDet::PTSyncDetInfo* const table = TCSyncDet::m_arrPCSyncDet;
    {
        cimtest::AssertRecorder recorder;
        EXPECT_TRUE(LegacyCoreExport::Init());
        EXPECT_FALSE(TCSyncDet::Create());
        EXPECT_EQ(recorder.Expressions(),
                  (std::vector<std::string>{"!FlagCreate()", "!FlagCreate()"}));
    }
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, table);
    EXPECT_EQ(SyncEntries(), 1);
    TCSyncDet::Remove(0);

    // Without the table, synchronous sends work and nothing is recorded.
    TCSyncDet::Destroy();
    cimtest::LogCapture log;
    cimtest::HeldTask task;
    ASSERT_TRUE(task.Create("untracked", 0, 0, 0));
    TSEvent event = cimtest::MakeEvent(&task, EVENT_USER);
    EXPECT_TRUE(TCTask::Send(&event, true, false));
    EXPECT_EQ(TCSyncDet::PCTaskSyncMonitoring(0, &event), -1);
    task.Stop();
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
