#include <cimcore/internal/lsc/Sync.h>

#include "LscCheck.h"
#include "MutexGuard.h"

#include <cimcore/CIMTime.h>
#include <cimcore/internal/CIMLog.h>
#include <cimcore/internal/CIMThreadId.h>
#include <cimcore/internal/lsc/Task.h>

#include <cstring>
#include <new>

#include <sys/prctl.h>

namespace {
constexpr const char* kSourcePath = "src/lsc/Sync";
}  // namespace

TCSyncDet::PTSyncDetInfo* TCSyncDet::m_arrPCSyncDet = nullptr;
TCMutex* TCSyncDet::m_pLock = nullptr;

bool TCSyncDet::Create() {
    if (!CIM_LSC_CHECK(!FlagCreate()) || !CIM_LSC_CHECK(!m_pLock)) {
        return false;
    }
    TCMutex* lock = new (std::nothrow) TCMutex;
    if (lock == nullptr) {
        return false;
    }
    if (!lock->Create()) {
        delete lock;
        return false;
    }
    PTSyncDetInfo* table = new (std::nothrow) PTSyncDetInfo[MAX_SYNC_TASKS]();
    if (table == nullptr) {
        lock->Destroy();
        delete lock;
        return false;
    }
    for (int i = 0; i < MAX_SYNC_TASKS; ++i) {
        table[i].bValid = false;
    }
    m_pLock = lock;
    m_arrPCSyncDet = table;
    return true;
}

void TCSyncDet::Destroy() {
    if (!CIM_LSC_CHECK(m_pLock) || !CIM_LSC_CHECK(FlagCreate())) {
        return;
    }
    delete[] m_arrPCSyncDet;
    m_arrPCSyncDet = nullptr;
    m_pLock->Destroy();
    delete m_pLock;
    m_pLock = nullptr;
}

bool TCSyncDet::FlagCreate() {
    return m_arrPCSyncDet != nullptr;
}

int TCSyncDet::Add(PTSyncDetInfo* pData) {
    if (!CIM_LSC_CHECK(pData) || !CIM_LSC_CHECK(m_arrPCSyncDet)) {
        return -1;
    }
    TCMutexGuard guard(*m_pLock);
    for (int i = 0; i < MAX_SYNC_TASKS; ++i) {
        PTSyncDetInfo& entry = m_arrPCSyncDet[i];
        if (!entry.bValid) {
            entry = *pData;
            entry.ulTick = CIM::TCCIMTime::Tick();
            entry.bValid = true;
            return i;
        }
    }
    return -1;
}

int TCSyncDet::Remove(int callerArryIndex) {
    if (!CIM_LSC_CHECK(m_arrPCSyncDet) ||
        !CIM_LSC_CHECK(callerArryIndex >= 0 && callerArryIndex < MAX_SYNC_TASKS)) {
        return 0;
    }
    TCMutexGuard guard(*m_pLock);
    CIM_LSC_CHECK((m_arrPCSyncDet[callerArryIndex].bValid));
    m_arrPCSyncDet[callerArryIndex].bValid = false;
    return 0;
}

int TCSyncDet::PCTaskSyncMonitoring(int /*callerId*/, TSEvent* event) {
    if (!FlagCreate()) {
        return -1;
    }
    PTSyncDetInfo info;
    std::memset(&info, 0, sizeof info);

    char name[20] = "??";
    const int iRet = prctl(PR_GET_NAME, name, 0, 0, 0);
    CIM_LSC_CHECK(!iRet);
    CIM_LSC_CHECK(!name[16] && !name[17] && !name[18] && !name[19]);

    // The int argument cannot hold a whole pthread_t on a 64-bit host, so
    // the caller's id is read here, on the caller's own thread.
    info.ulCallerId = static_cast<unsigned long>(pthread_self());
    info.iCallerTid = static_cast<int32_t>(CIM::CurrentKernelThreadId());
    CopyName(info.szCallerName, sizeof info.szCallerName, name);

    TCTask* task =
        (event != nullptr && event->receiver != nullptr) ? event->receiver->Task() : nullptr;
    if (!CIM_LSC_EXPECT(task != nullptr && task->FlagCreate(), "FlagCreate() == true") ||
        !CIM_LSC_EXPECT(task->TCThread::FlagCreate(), "FlagCreate() == true")) {
        return -1;
    }
    info.ulReceiverId = static_cast<unsigned long>(task->Id());
    info.ulReserved = 0;
    CopyName(info.szReceiverName, sizeof info.szReceiverName, task->Name());

    const int index = Add(&info);
    if (index == -1) {
        CIM_LOG_ERROR_HERE("Sync.cpp", "PCTaskSyncMonitoring", "### TCSyncDet::Add() failed\n");
    }
    return index;
}
