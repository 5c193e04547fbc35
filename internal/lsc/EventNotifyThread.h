// A thread that turns arrivals in an event queue into gives on a semaphore.
#ifndef CIMCORE_INTERNAL_LSC_EVENTNOTIFYTHREAD_H
#define CIMCORE_INTERNAL_LSC_EVENTNOTIFYTHREAD_H

#include <cimcore/Export.h>
#include <cimcore/internal/lsc/Queue.h>
#include <cimcore/internal/lsc/Thread.h>

#include <atomic>

// Gives the notify semaphore once for every event put into the queue, so
// that a thread that waits on its own semaphore (perhaps for other things
// too) is woken per event. That reader then takes the events with
// TCQueue::GetQData or GetSyncQData, which leave the queue's item count
// alone: this thread has consumed it.
//
// The queue and the semaphore stay with their owner and must outlive the
// notify thread. Destroy wakes the thread, which may give the semaphore one
// last time, and waits until it has ended. The object must be destroyed
// before it is deleted.
class CIM_EXPORT TCEventNotifyThread : public TCThread {
public:
    static constexpr unsigned long kStackSize = 8192;

    TCEventNotifyThread();
    ~TCEventNotifyThread() override;
    bool Destroy() override;

    // `timeout` is the wait for one arrival in ms (0: without limit); the
    // thread simply waits again when it runs out.
    bool Create(const char* name, TCQueue* queue, TCSemaphore* semaphore, unsigned int timeout);
    // One step of the loop; false once the thread is to stop.
    bool ExecuteEvent();

    bool FlagRunning() const { return m_running.load(); }

    TCEventNotifyThread(const TCEventNotifyThread&) = delete;
    TCEventNotifyThread& operator=(const TCEventNotifyThread&) = delete;

protected:
    int t_Main() override;

private:
    // Set by Create before the thread starts and cleared by Destroy after it
    // ended; the thread only reads them.
    TCQueue* m_queue;
    TCSemaphore* m_semaphore;
    unsigned int m_timeout;
    std::atomic<bool> m_stop;
    std::atomic<bool> m_running;
};

#endif
