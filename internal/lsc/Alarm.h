// Legacy alarms: a timer thread bound to a task.
#ifndef CIMCORE_INTERNAL_LSC_ALARM_H
#define CIMCORE_INTERNAL_LSC_ALARM_H

#include <cimcore/Export.h>
#include <cimcore/internal/lsc/Queue.h>
#include <cimcore/internal/lsc/Task.h>
#include <cimcore/internal/lsc/Thread.h>

#include <atomic>
#include <cstdint>

#include <boost/function.hpp>

// A timer with a thread of its own whose handler belongs to a task: events of
// type EVENT_ALARM addressed to the alarm run on the task's thread, through
// the before function, the virtual t_OnAlarm and the after function.
//
// States:
//   not created --Create--> waiting for the period --Reset--> restarted
//   (period and count replaced, alarm events still queued at the task
//   dropped) --Destroy--> not created.
// The alarm thread waits for the period on the wake semaphore, which Reset
// and Destroy give. When a period runs out, the thread's follow-up poll of
// that semaphore is a wait without limit (a time-out of 0), so it sleeps
// until the next Reset or Destroy and the period starts again: the thread
// itself never queues an alarm event. This is kept on purpose; alarm events
// reach the alarm only when someone sends them to it.
//
// Period and count are 32-bit: the period has a floor of 10 ms, and a count
// of 4294967295 (-1) means without end. Reset and Destroy may be called from
// any thread, including the task's; the alarm thread never holds the alarm
// mutex while it waits, so neither blocks on it for longer than a moment.
// Callbacks are set by the owner before alarm events flow; they and
// t_OnAlarm run on the task's thread. The task must outlive the alarm, and
// the alarm must be destroyed before it is deleted.
class CIM_EXPORT TCAlarm : private TCThread, public TCHandler {
public:
    static constexpr uint32_t kNoEnd = 0xFFFFFFFFu;
    static constexpr uint32_t kMinPeriodMs = 10;

    typedef boost::function<bool(const TSEvent*)> TFAlarmFunction;

    TCAlarm();
    ~TCAlarm() override;
    // Stops the thread and drops the alarm events still queued at the task.
    // Returns whether any were dropped.
    bool Destroy() override;

    // Names the alarm thread "TCAlarm:" followed by the calling thread's
    // kernel name (15 characters at most). False, with nothing left behind,
    // when a resource could not be made.
    bool Create(const TCTask* task, unsigned long period, unsigned long count);
    // Restarts the alarm with a new period and count.
    void Reset(unsigned long period, unsigned long count);

    // Index 0 (EVENT_ALARM) only. A non-null pointer is bound with the
    // context and replaces the before or after function; a null one leaves
    // it as it was.
    bool SetEventCallback(int index, TFEventCallback before, TFEventCallback after,
                          const void* context);
    // The raw pointers and context as last given to SetEventCallback.
    bool GetEventCallback(int index, TFEventCallback* before, TFEventCallback* after,
                          const void** context);
    void SetCallbackBefore(TFAlarmFunction before);
    void SetCallbackAfter(TFAlarmFunction after);

    // Executes an alarm event: a before function that returns true replaces
    // t_OnAlarm; the after function's result is ORed in.
    bool OnAlarm(const TSEvent* event);

    bool FlagCreate() const { return TCHandler::FlagCreate(); }
    unsigned long Period() const;
    unsigned long Count() const;
    using TCThread::Name;

    TCAlarm(const TCAlarm&) = delete;
    TCAlarm& operator=(const TCAlarm&) = delete;

protected:
    bool t_OnEvent(const TSEvent* event) override;
    // Returns false by default.
    virtual bool t_OnAlarm(const TSEvent* event);

private:
    int t_Main() override;

    mutable TCMutex m_mutex;  // guards m_period, m_count, m_destroy
    TCSemaphore m_wake;       // given by Reset and Destroy
    uint32_t m_period;        // guarded by m_mutex
    uint32_t m_count;         // guarded by m_mutex
    std::atomic<bool> m_destroy;
    // Set by the owner before alarm events flow; read on the task's thread.
    TFEventCallback m_rawBefore;
    TFEventCallback m_rawAfter;
    const void* m_context;
    TFAlarmFunction m_before;
    TFAlarmFunction m_after;
};

// An alarm that turns each alarm event into an event of its state type for
// its task's own handler, sent asynchronously.
class CIM_EXPORT TCStateAlarm : public TCAlarm {
public:
    TCStateAlarm();

    bool Create(TCTask* task, unsigned short state, int period, int count);
    unsigned short State() const { return m_state; }

protected:
    // Sends the state event for an EVENT_ALARM event, nothing for others;
    // always false.
    bool t_OnAlarm(const TSEvent* event) override;

private:
    unsigned short m_state;
};

#endif
