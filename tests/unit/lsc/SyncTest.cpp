#include <cimcore/internal/lsc/Sync.h>

#include "LscTestSupport.h"

#include <cstring>
#include <set>
#include <string>

#include <sys/prctl.h>

namespace cimtest {
namespace {

class SyncTest : public LscTest {};

TEST_F(SyncTest, BlockedSendersAreRecordedAndTheSixtyFifthStillCompletes) {
    LogCapture log;
    HeldTask task;
    ASSERT_TRUE(task.Create("receiver", 0, 0, 0));
    task.Hold();

    constexpr int kSenders = TCSyncDet::MAX_SYNC_TASKS + 1;
    std::vector<std::thread> threads;
    std::vector<unsigned long> ids(kSenders);
    std::atomic<int> completed{0};
    auto start = [&](int i) {
        threads.emplace_back([&, i] {
            prctl(PR_SET_NAME, "sender", 0, 0, 0);
            ids[i] = static_cast<unsigned long>(pthread_self());
            completed += SendTo(&task, 7, true) ? 1 : 0;  // ignored by the task
        });
    };
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        start(i);
    }
    ASSERT_TRUE(WaitUntil([] { return SyncEntries() == TCSyncDet::MAX_SYNC_TASKS; }));
    // Each entry says who waits for which task; the table's lock orders the
    // ids written by the senders before this read.
    std::set<unsigned long> callers;
    TCSyncDet::m_pLock->Lock();
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        const TCSyncDet::PTSyncDetInfo& entry = TCSyncDet::m_arrPCSyncDet[i];
        callers.insert(entry.ulCallerId);
        EXPECT_STREQ(entry.szCallerName, "sender");
        EXPECT_EQ(entry.ulReceiverId, static_cast<unsigned long>(task.Id()));
    }
    TCSyncDet::m_pLock->Unlock();
    EXPECT_EQ(callers, std::set<unsigned long>(ids.begin(), ids.end() - 1));

    start(kSenders - 1);
    EXPECT_TRUE(WaitUntil([&log] { return log.Contains("### TCSyncDet::Add() failed"); }));
    EXPECT_EQ(SyncEntries(), TCSyncDet::MAX_SYNC_TASKS);
    task.Open();
    JoinAll(threads);
    EXPECT_EQ(completed, kSenders);
    EXPECT_EQ(SyncEntries(), 0);
    task.Stop();
}

TEST_F(SyncTest, EntriesAreReusedLowestFirstAndASecondInitKeepsThem) {
    TCSyncDet::PTSyncDetInfo info;
    std::memset(&info, 0, sizeof info);
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        ASSERT_EQ(TCSyncDet::Add(&info), i);
    }
    EXPECT_EQ(TCSyncDet::Add(&info), -1);
    EXPECT_EQ(TCSyncDet::Remove(40), 0);
    EXPECT_EQ(TCSyncDet::Remove(3), 0);
    EXPECT_EQ(TCSyncDet::Add(&info), 3);
    EXPECT_EQ(TCSyncDet::Add(&info), 40);

    TCSyncDet::PTSyncDetInfo* const table = TCSyncDet::m_arrPCSyncDet;
    AssertRecorder recorder;
    EXPECT_TRUE(LegacyCoreExport::Init());
    EXPECT_FALSE(TCSyncDet::Create());
    EXPECT_EQ(recorder.Expressions(), (std::vector<std::string>{"!FlagCreate()", "!FlagCreate()"}));
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, table);
    EXPECT_EQ(SyncEntries(), TCSyncDet::MAX_SYNC_TASKS);
}

}  // namespace
}  // namespace cimtest
