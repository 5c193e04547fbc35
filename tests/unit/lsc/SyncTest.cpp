#include <cimcore/internal/lsc/Sync.h>

#include "LscTestSupport.h"

#include <set>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace cimtest {
namespace {

using SyncTest = LscTaskTest;
using Caller = std::pair<unsigned long, int>;  // thread id, kernel thread id

int OwnKernelTid() {
    return static_cast<int>(::syscall(SYS_gettid));
}

TEST_F(SyncTest, BlockedSendersAreRecordedAndTheSixtyFifthStillCompletes) {
    LogCapture log;
    task.Hold();

    constexpr int kSenders = TCSyncDet::MAX_SYNC_TASKS + 1;
    std::vector<std::thread> threads;
    std::vector<Caller> ids(kSenders);
    std::atomic<int> completed{0};
    auto start = [&](int i) {
        threads.emplace_back([&, i] {
            prctl(PR_SET_NAME, "sender", 0, 0, 0);
            ids[i] = {static_cast<unsigned long>(pthread_self()), OwnKernelTid()};
            completed += SendTo(&task, 7, true) ? 1 : 0;  // ignored by the task
        });
    };
    for (int i = 0; i < TCSyncDet::MAX_SYNC_TASKS; ++i) {
        start(i);
    }
    ASSERT_TRUE(WaitUntil([] { return SyncTable().size() == size_t(TCSyncDet::MAX_SYNC_TASKS); }));
    // Each entry says who waits for which task; the table's lock orders the
    // ids written by the senders before this read.
    std::set<Caller> callers;
    for (const auto& entry : SyncTable()) {
        callers.emplace(entry.ulCallerId, entry.iCallerTid);
        EXPECT_STREQ(entry.szCallerName, "sender");
        EXPECT_EQ(entry.ulReceiverId, static_cast<unsigned long>(task.Id()));
    }
    EXPECT_EQ(callers, std::set<Caller>(ids.begin(), ids.end() - 1));

    start(kSenders - 1);
    EXPECT_TRUE(WaitUntil([&log] { return log.Contains("### TCSyncDet::Add() failed"); }));
    task.Open();
    JoinAll(threads);
    EXPECT_EQ(completed, kSenders);
    EXPECT_TRUE(SyncTable().empty());
}

TEST_F(SyncTest, ASecondInitKeepsTheTableAndItsEntries) {
    TCSyncDet::PTSyncDetInfo info{};
    ASSERT_EQ(TCSyncDet::Add(&info), 0);
    TCSyncDet::PTSyncDetInfo* const table = TCSyncDet::m_arrPCSyncDet;
    AssertRecorder recorder;
    EXPECT_TRUE(LegacyCoreExport::Init());
    EXPECT_FALSE(TCSyncDet::Create());
    EXPECT_EQ(recorder.Expressions(), (std::vector<std::string>{"!FlagCreate()", "!FlagCreate()"}));
    EXPECT_EQ(TCSyncDet::m_arrPCSyncDet, table);
    EXPECT_EQ(SyncTable().size(), 1u);
}

}  // namespace
}  // namespace cimtest
