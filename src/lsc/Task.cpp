#include <cimcore/internal/lsc/Task.h>

#include "LscCheck.h"
#include "MutexGuard.h"

#include <cimcore/internal/lsc/Sync.h>

#include <cstring>
#include <new>

namespace {
constexpr const char* kSourcePath = "src/lsc/Task";
}  // namespace

// ---- TCHandler -----------------------------------------------------------------

TCHandler::TCHandler() : m_created(0), m_task(nullptr) {}

TCHandler::~TCHandler() {}

bool TCHandler::Create(const TCTask* task) {
    if (!CIM_LSC_CHECK(FlagCreate() == false) || !CIM_LSC_CHECK(task != NULL)) {
        return false;
    }
    m_task = const_cast<TCTask*>(task);
    m_created.store(kCreatedMark);
    return true;
}

bool TCHandler::Destroy() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    // SHARP-EDGE: does not wait for this handler's event already running on the task.
    const bool removed = m_task->TCQueue::Delete(this, nullptr);
    m_created.store(0);
    return removed;
}

// ---- TCTask --------------------------------------------------------------------

namespace {

void FreeReplyPair(TCSemaphore* pair) {
    if (pair == nullptr) {
        return;
    }
    for (int i = 0; i < 2; ++i) {
        if (pair[i].FlagCreate()) {
            pair[i].Destroy();
        }
    }
    delete[] pair;
}

// The "done" semaphore is given by the task, the "release" one by the
// requester; the task frees both once released, so a requester that gave up
// waiting leaves nothing behind.
void AnswerRequest(TCSemaphore* pair) {
    pair[0].Give();
    pair[1].Take();
    FreeReplyPair(pair);
}

void RemoveSyncEntry(int index) {
    if (index >= 0) {
        const int iRet = TCSyncDet::Remove(index);
        CIM_LSC_CHECK(!iRet);
    }
}

}  // namespace

TCTask::TCTask()
    : m_idleTimeout(0),
      m_exit(false),
      m_running(false),
      m_createValue(0),
      m_before(),
      m_after(),
      m_context(),
      m_name() {}

TCTask::~TCTask() {
    CIM_LSC_CHECK(FlagCreate() == false);
}

bool TCTask::Create(const char* name, unsigned int idleTimeout, unsigned long stackSize,
                    unsigned long createValue) {
    if (!CIM_LSC_CHECK(FlagCreate() == false) || !CIM_LSC_CHECK(name != NULL)) {
        return false;
    }
    m_running.store(false);
    if (!TCQueue::Create()) {
        return false;
    }
    if (!TCHandler::Create(this)) {
        TCQueue::Destroy();
        return false;
    }
    m_exit.store(false);
    m_idleTimeout = idleTimeout;
    // Other libraries of the stack may read this value; 1 to 4 becoming 5
    // is how it has always been stored.
    m_createValue = (createValue >= 1 && createValue <= 4) ? 5 : createValue;
    CopyName(m_name, sizeof m_name, name);
    for (int index : {0, 1, 3}) {
        m_before[index] = nullptr;
        m_after[index] = nullptr;
        m_context[index] = nullptr;
    }
    if (!TCThread::Create(name, stackSize)) {
        TCHandler::Destroy();
        TCQueue::Destroy();
        return false;
    }
    if (!TCTaskList::FlagInitialize()) {
        TCTaskList::m_mutex.Create();
    }
    TCMutexGuard guard(TCTaskList::m_mutex);
    TCTaskList::m_taskList.push_back(this);
    return true;
}

bool TCTask::Destroy() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (TCTaskList::FlagInitialize()) {
        TCMutexGuard guard(TCTaskList::m_mutex);
        if (TCTaskList::Find(this)) {
            TCTaskList::m_currentTask = TCTaskList::m_taskList.erase(TCTaskList::m_currentTask);
        }
    }
    if (!TCThread::Destroy()) {
        return false;
    }
    const bool removed = TCHandler::Destroy();
    TCQueue::Destroy();
    return removed;
}

bool TCTask::Send(TSEvent* event, bool sync, bool priority) {
    if (!CIM_LSC_CHECK(event != NULL) || !CIM_LSC_CHECK(event->receiver != NULL)) {
        return false;
    }
    TCTask* task = event->receiver->Task();
    int index = -1;
    if (sync) {
        index = TCSyncDet::PCTaskSyncMonitoring(static_cast<int>(pthread_self()), event);
        if (task != nullptr && task->FlagCreate() && task->TCThread::FlagCreate() &&
            task->Id() == pthread_self()) {
            // Waiting for our own thread would never end: run it here.
            CIM_LSC_CHECK(priority == true);
            event->receiver->t_OnEvent(event);
            RemoveSyncEntry(index);
            return priority;
        }
    }
    if (task != nullptr && task->FlagCreate()) {
        const bool result = task->PutSync(event, sync, priority);
        RemoveSyncEntry(index);
        return result;
    }
    RemoveSyncEntry(index);
    return false;
}

bool TCTask::Ping(TCTask* task, unsigned long timeout) {
    return m_Request(task, EVENT_PING, timeout);
}

bool TCTask::ClearQueue(TCTask* task, unsigned long timeout) {
    return m_Request(task, EVENT_CLEAR_QUEUE, timeout);
}

bool TCTask::m_Request(TCTask* task, unsigned long type, unsigned long timeout) {
    TCSemaphore* pair = nullptr;
    if (type == EVENT_CLEAR_QUEUE || timeout != 0) {
        pair = new (std::nothrow) TCSemaphore[2];
        if (pair == nullptr) {
            return false;
        }
        if (!pair[0].Create(0) || !pair[1].Create(0)) {
            FreeReplyPair(pair);
            return false;
        }
    }
    // The list's mutex keeps the task from being destroyed until the event
    // is queued.
    bool sent = false;
    {
        TCMutexGuard guard(TCTaskList::m_mutex);
        if (!TCTaskList::Find(task)) {
            guard.Unlock();
            FreeReplyPair(pair);
            return false;
        }
        TSEvent event;
        event.receiver = static_cast<TCHandler*>(task);
        event.type = type;
        event.word4 = reinterpret_cast<uintptr_t>(pair);
        sent = Send(&event, false, true);
    }
    if (!sent) {
        FreeReplyPair(pair);
        return false;
    }
    if (pair == nullptr) {
        return true;
    }
    const bool answered = pair[0].Try(timeout);
    // From here on the pair belongs to the task, which frees it when it
    // executes the request, however late.
    pair[1].Give();
    return answered;
}

bool TCTask::SetEventCallback(int index, TFEventCallback before, TFEventCallback after,
                              const void* context) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (index != 0 && index != 1 && index != 3) {
        return false;
    }
    m_before[index] = before;
    m_after[index] = after;
    m_context[index] = context;
    return true;
}

bool TCTask::GetEventCallback(int index, TFEventCallback* before, TFEventCallback* after,
                              const void** context) {
    if (index != 0 && index != 1 && index != 3) {
        return false;
    }
    if (before != nullptr) {
        *before = m_before[index];
    }
    if (after != nullptr) {
        *after = m_after[index];
    }
    if (context != nullptr) {
        *context = m_context[index];
    }
    return true;
}

int TCTask::t_Main() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return 0;
    }
    if (!t_Create()) {
        return 0;
    }
    m_running.store(true);
    while (ExecuteEvent()) {
    }
    m_running.store(false);
    t_Destroy();
    return 0;
}

bool TCTask::ExecuteEvent() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (m_exit.load()) {
        return false;
    }
    TSEvent event;
    if (!GetSync(&event, m_idleTimeout, false)) {
        t_Idle();
        return true;
    }
    TCHandler* receiver = event.receiver;
    // The event of a handler destroyed meanwhile is dropped; its sender,
    // if any, was released by that handler's Destroy.
    // SHARP-EDGE: one taken just before that Destroy is dropped unreleased (sender waits).
    if (receiver != nullptr && receiver->FlagCreate()) {
        receiver->t_OnEvent(&event);
        if (event.replySem != nullptr) {
            event.replySem->Give();
        }
    }
    return true;
}

bool TCTask::t_Create() {
    return CIM_LSC_CHECK(FlagCreate() == true);
}

void TCTask::t_Idle() {
    CIM_LSC_CHECK(FlagCreate() == true);
}

void TCTask::t_Destroy() {
    CIM_LSC_CHECK(FlagCreate() == true);
}

bool TCTask::t_OnEvent(const TSEvent* event) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    switch (event->type) {
        case EVENT_EXIT:
            return OnExit(event);
        case EVENT_USER:
            return OnUser(event);
        case EVENT_PING:
            return OnPing(event);
        case EVENT_CLEAR_QUEUE:
            return OnClearQueue(event);
        default:
            return false;
    }
}

bool TCTask::t_OnExit(const TSEvent* event) {
    CIM_LSC_CHECK(FlagCreate() == true);
    CIM_LSC_CHECK(event != NULL);
    return true;
}

bool TCTask::t_OnUser(const TSEvent* event) {
    CIM_LSC_CHECK(FlagCreate() == true);
    CIM_LSC_CHECK(event != NULL);
    return true;
}

bool TCTask::t_OnClearQueue(const TSEvent* event) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    // SHARP-EDGE: every queued event of the task's own handler goes, a queued exit included.
    return TCQueue::Delete(static_cast<const TCHandler*>(this), nullptr);
}

bool TCTask::OnExit(const TSEvent* event) {
    const bool result = m_RunWithCallbacks(EVENT_EXIT, event, &TCTask::t_OnExit);
    m_exit.store(true);
    return result;
}

bool TCTask::OnUser(const TSEvent* event) {
    return m_RunWithCallbacks(EVENT_USER, event, &TCTask::t_OnUser);
}

bool TCTask::m_RunWithCallbacks(int index, const TSEvent* event,
                                bool (TCTask::*hook)(const TSEvent*)) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    const void* context = m_context[index];
    return RunCallbackChain(
        [&] { return m_before[index] != nullptr && m_before[index](event, context); },
        [&] { return (this->*hook)(event); },
        [&] { return m_after[index] != nullptr && m_after[index](event, context); });
}

bool TCTask::OnPing(const TSEvent* event) {
    TCSemaphore* pair = reinterpret_cast<TCSemaphore*>(event->word4);
    if (pair != nullptr) {
        AnswerRequest(pair);
    }
    return true;
}

bool TCTask::OnClearQueue(const TSEvent* event) {
    const bool result = t_OnClearQueue(event);
    TCSemaphore* pair = reinterpret_cast<TCSemaphore*>(event->word4);
    if (pair != nullptr) {
        AnswerRequest(pair);
    }
    return result;
}

// ---- TCTaskList ----------------------------------------------------------------

std::list<TCTask*> TCTaskList::m_taskList;
TCMutex TCTaskList::m_mutex;
// Defined after m_taskList in this file, so its end() exists already.
std::list<TCTask*>::iterator TCTaskList::m_currentTask = TCTaskList::m_taskList.end();

bool TCTaskList::FlagInitialize() {
    return m_mutex.FlagCreate();
}

bool TCTaskList::Find(const TCTask* task) {
    for (m_currentTask = m_taskList.begin(); m_currentTask != m_taskList.end(); ++m_currentTask) {
        if (*m_currentTask == task) {
            return true;
        }
    }
    return false;
}

bool TCTaskList::Find(const char* name) {
    for (m_currentTask = m_taskList.begin(); m_currentTask != m_taskList.end(); ++m_currentTask) {
        TCTask* task = *m_currentTask;
        if (!CIM_LSC_EXPECT(task->FlagCreate(), "FlagCreate() == true")) {
            continue;
        }
        if (std::strcmp(task->Name(), name) == 0) {
            return true;
        }
    }
    return false;
}

bool TCTaskList::Seek(int index) {
    // True also when the cursor lands on the end (index == number of
    // tasks); only a step beyond the end fails. Kept as it is.
    m_currentTask = m_taskList.begin();
    for (int i = 0; i < index; ++i) {
        if (m_currentTask == m_taskList.end()) {
            return false;
        }
        ++m_currentTask;
    }
    return true;
}

TCTask* TCTaskList::Task() {
    return m_currentTask == m_taskList.end() ? nullptr : *m_currentTask;
}

// ---- LegacyCoreExport ----------------------------------------------------------

bool LegacyCoreExport::Init() {
    // A second Init reports through the detector and keeps its table.
    TCSyncDet::Create();
    if (!TCTaskList::FlagInitialize()) {
        return TCTaskList::m_mutex.Create();
    }
    return true;
}

void LegacyCoreExport::Destroy() {
    if (TCSyncDet::FlagCreate()) {
        TCSyncDet::Destroy();
    }
    if (!TCTaskList::FlagInitialize()) {
        return;
    }
    {
        TCMutexGuard guard(TCTaskList::m_mutex);
        TCTaskList::m_taskList.clear();
        TCTaskList::m_currentTask = TCTaskList::m_taskList.end();
    }
    TCTaskList::m_mutex.Destroy();
}
