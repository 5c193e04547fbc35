#include <cimcore/internal/lsc/Sync.h>

#include <cimcore/CIMTime.h>

#include "LscTestSupport.h"

#include <set>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
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
    ASSERT_TRUE(WaitUntil([] { return SyncEntries() == TCSyncDet::MAX_SYNC_TASKS; }));
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
    EXPECT_EQ(SyncEntries(), 0);
}

// The kernel thread id is kept per thread. A forked child goes on in the
// thread that forked, which kept its id from the send below: the child's
// entry must carry the child's own id.
TEST_F(SyncTest, EntriesCarryTheSendersOwnKernelThreadIdAlsoInAForkedChild) {
    int recorded = -1;  // written on the task's thread while this one waits
    task.onUser = [&recorded](const TSEvent*) { recorded = SyncTable().at(0).iCallerTid; };
    ASSERT_TRUE(SendTo(&task, EVENT_USER, true));
    EXPECT_EQ(recorded, OwnKernelTid());

    // Holding TimeMutex across the fork keeps the task's thread from holding
    // it there; the child must create no thread (sanitizers), so it
    // registers a send itself instead of sending.
    ASSERT_EQ(pthread_mutex_lock(&TimeMutex), 0);
    const pid_t child = fork();
    pthread_mutex_unlock(&TimeMutex);
    if (child == 0) {
        TSEvent event = MakeEvent(&task, EVENT_USER);
        const int index = TCSyncDet::PCTaskSyncMonitoring(0, &event);
        const bool right =
            index >= 0 && TCSyncDet::m_arrPCSyncDet[index].iCallerTid == OwnKernelTid();
        _exit(right ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
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
    EXPECT_EQ(SyncEntries(), 1);
}

}  // namespace
}  // namespace cimtest
