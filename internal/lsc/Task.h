// Handlers, tasks and the process-wide task list of the legacy runtime.
#ifndef CIMCORE_INTERNAL_LSC_TASK_H
#define CIMCORE_INTERNAL_LSC_TASK_H

#include <cimcore/Export.h>
#include <cimcore/internal/lsc/Queue.h>
#include <cimcore/internal/lsc/Thread.h>

#include <atomic>
#include <cstdint>
#include <list>

class TCTask;

// A receiver of events, bound to the task on whose thread its events run.
// Created means its mark holds kCreatedMark. Destroy removes the events
// still queued for it at its task and releases their synchronous senders;
// the task must outlive its handlers.
class CIM_EXPORT TCHandler {
public:
    static constexpr uint32_t kCreatedMark = 19670827;

    TCHandler();
    virtual ~TCHandler();

protected:
    // Runs on the task's thread, one event at a time. Declared before
    // Destroy: the stack's other libraries rely on this slot order.
    virtual bool t_OnEvent(const TSEvent* event) = 0;

public:
    // Returns whether queued events were removed.
    virtual bool Destroy();

    bool Create(const TCTask* task);

    bool FlagCreate() const { return m_created.load() == kCreatedMark; }
    TCTask* Task() const { return m_task; }

    TCHandler(const TCHandler&) = delete;
    TCHandler& operator=(const TCHandler&) = delete;

private:
    friend class TCTask;  // dispatches to any handler's t_OnEvent

    std::atomic<uint32_t> m_created;
    TCTask* m_task;
};

// A callback around a task's exit or user hook; the second argument is the
// context registered with it.
typedef bool (*TFEventCallback)(const TSEvent* event, const void* context);

// A named detached thread that owns an event queue and executes, one at a
// time, the events addressed to the handlers bound to it. The task is itself
// the handler of the built-in types EVENT_EXIT, EVENT_USER, EVENT_PING and
// EVENT_CLEAR_QUEUE; exit and user events pass through a before callback,
// the virtual hook and an after callback.
//
// Life: Create starts the thread and enters the task in TCTaskList. The
// owner sends EVENT_EXIT, then calls Destroy, which waits for the thread to
// end (without the exit event it waits for ever), deletes what is still
// queued and releases the synchronous senders. Destroy may not be called on
// the task's own thread. The object must be destroyed before it is deleted.
//
// A synchronous Send blocks until the receiving task has executed the event;
// to the caller's own task it runs in place instead, and must then have
// priority. While blocked, the sender is recorded in TCSyncDet's table.
class CIM_EXPORT TCTask : public TCThread, public TCQueue, public TCHandler {
public:
    TCTask();
    ~TCTask() override;
    // Returns whether events for the task's own handler were still queued.
    bool Destroy() override;

    // `name` is cut to 15 characters; `idleTimeout` is the wait of one loop
    // step in ms (0: without limit); `createValue` is stored for the stack's
    // other libraries (1 to 4 are stored as 5).
    bool Create(const char* name, unsigned int idleTimeout, unsigned long stackSize,
                unsigned long createValue);

    // Sends `event` to the task of its receiver. False when that task is
    // not created or its queue refuses the event.
    static bool Send(TSEvent* event, bool sync, bool priority);
    // With `timeout` 0: whether the ping was queued. Otherwise whether the
    // task answered within `timeout` ms. Not for the caller's own task.
    static bool Ping(TCTask* task, unsigned long timeout);
    // Asks `task` (not the object called on) to delete the events queued
    // for its own handler; `timeout` 0 waits without limit. Not for the
    // caller's own task.
    bool ClearQueue(TCTask* task, unsigned long timeout);

    // Index 0 (exit), 1 (user) and 3 (stored, not called); others refused.
    bool SetEventCallback(int index, TFEventCallback before, TFEventCallback after,
                          const void* context);
    bool GetEventCallback(int index, TFEventCallback* before, TFEventCallback* after,
                          const void** context);

    bool FlagCreate() const { return TCHandler::FlagCreate(); }
    bool FlagRunning() const { return m_running.load(); }
    bool FlagExit() const { return m_exit.load(); }
    const char* Name() const { return m_name; }
    unsigned long IdleTimeout() const { return m_idleTimeout; }
    unsigned long CreateValue() const { return m_createValue; }

protected:
    int t_Main() override;
    // False ends the thread before the loop.
    virtual bool t_Create();
    // Called when no event came within the idle timeout.
    virtual void t_Idle();
    // Called on the task's thread after the loop has ended.
    virtual void t_Destroy();
    bool t_OnEvent(const TSEvent* event) override;
    virtual bool t_OnExit(const TSEvent* event);
    virtual bool t_OnUser(const TSEvent* event);
    // Deletes the events queued for the task's own handler.
    virtual bool t_OnClearQueue(const TSEvent* event);
    // One step of the loop; false ends it.
    virtual bool ExecuteEvent();

private:
    static constexpr int kCallbacks = 4;

    bool OnExit(const TSEvent* event);
    bool OnUser(const TSEvent* event);
    bool OnPing(const TSEvent* event);
    bool OnClearQueue(const TSEvent* event);
    bool m_RunWithCallbacks(int index, const TSEvent* event, bool (TCTask::*hook)(const TSEvent*));
    static bool m_Request(TCTask* task, unsigned long type, unsigned long timeout);

    unsigned long m_idleTimeout;
    std::atomic<bool> m_exit;
    std::atomic<bool> m_running;
    unsigned long m_createValue;
    // Set by the owner before events flow; read on the task's thread.
    TFEventCallback m_before[kCallbacks];
    TFEventCallback m_after[kCallbacks];
    const void* m_context[kCallbacks];
    char m_name[16];
};

// The created tasks in order of creation, with a cursor. Callers hold
// m_mutex around a search and the use of its result.
class CIM_EXPORT TCTaskList {
public:
    static bool FlagInitialize();
    // Cursor on the task, or at the end when it is not listed.
    static bool Find(const TCTask* task);
    // The same by name (the name as stored, at most 15 characters).
    static bool Find(const char* name);
    // Cursor on entry `index`. True also for index == number of tasks
    // (cursor at the end); false beyond.
    static bool Seek(int index);
    // The task under the cursor, null at the end.
    static TCTask* Task();

    static std::list<TCTask*> m_taskList;  // guarded by m_mutex
    static TCMutex m_mutex;
    static std::list<TCTask*>::iterator m_currentTask;  // guarded by m_mutex
};

// Set-up and tear-down of the runtime's global state.
class CIM_EXPORT LegacyCoreExport {
public:
    // Creates the deadlock table and the task-list mutex.
    static bool Init();
    // Destroys the table and empties the task list (the tasks themselves
    // are not touched).
    static void Destroy();
};

#endif
