// The process-wide table of synchronous sends in progress.
#ifndef CIMCORE_INTERNAL_LSC_SYNC_H
#define CIMCORE_INTERNAL_LSC_SYNC_H

#include <cimcore/Export.h>
#include <cimcore/internal/lsc/Queue.h>
#include <cimcore/internal/lsc/Thread.h>

#include <cstddef>
#include <cstdint>

// For every thread blocked in a synchronous TCTask::Send, one entry says who
// waits, for which task's thread, and since which tick. The table is public
// so that a person or a diagnostic tool can read it (a cycle among callers
// and receivers is a deadlock); the runtime only fills and empties it.
//
// Readers and writers hold *m_pLock. Created by LegacyCoreExport::Init;
// without it synchronous sends work but are not recorded.
class CIM_EXPORT TCSyncDet {
public:
    static constexpr int MAX_SYNC_TASKS = 64;

    // Read by tools on the device, where it is fourteen 32-bit words; on a
    // 64-bit host the unsigned long fields widen with the platform.
    struct PTSyncDetInfo {
        bool bValid;
        unsigned long ulTick;        // CIM::TCCIMTime::Tick() when added
        unsigned long ulCallerId;    // pthread_t of the blocked sender
        int32_t iCallerTid;          // its kernel thread id
        char szCallerName[16];       // its kernel thread name
        unsigned long ulReceiverId;  // pthread_t of the receiving task's thread
        unsigned long ulReserved;    // always 0
        char szReceiverName[16];     // the receiving task's name
    };

    static bool Create();
    static void Destroy();
    static bool FlagCreate();

    // Copies the record into the lowest free entry; its index, or -1 when
    // all are in use.
    static int Add(PTSyncDetInfo* pData);
    // Frees an entry; always 0.
    static int Remove(int callerArryIndex);
    // Records that the calling thread is about to send `event`
    // synchronously; the entry index, or -1 (table full or not created).
    // The caller's id is read from the calling thread itself.
    static int PCTaskSyncMonitoring(int callerId, TSEvent* event);

    static PTSyncDetInfo* m_arrPCSyncDet;  // MAX_SYNC_TASKS entries, or null
    static TCMutex* m_pLock;
};

static_assert(sizeof(void*) != 4 || (sizeof(TCSyncDet::PTSyncDetInfo) == 56 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, ulTick) == 4 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, ulCallerId) == 8 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, iCallerTid) == 12 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, szCallerName) == 16 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, ulReceiverId) == 32 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, ulReserved) == 36 &&
                                     offsetof(TCSyncDet::PTSyncDetInfo, szReceiverName) == 40),
              "the sync table's record layout on a 32-bit target");

#endif
