// Steady-clock alarms on a task's loop, and the observers they call.
#ifndef CIMCORE_CIMALARM_H
#define CIMCORE_CIMALARM_H

#include <cimcore/Export.h>
#include <chrono>
#include <cstdint>
#include <future>
#include <list>
#include <mutex>
#include <string>

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/executor.hpp>
#include <boost/asio/wait_traits.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include <cimcore/CIMThreadPool.h>

namespace CIM {

class TCCIMAlarm;

enum EAlarmType : int32_t {
    ALARM_COUNT_ONCE = 0,      // fires once; stops after its callback has run
    ALARM_COUNT_INFINITY = 1,  // fires every period until stopped
};

// Told when an alarm's timer expires. OnTimer runs on the alarm's task
// thread; it may call the alarm's SetTimer, StopTimer and RunHandler, but
// never IsActive or Join, which wait for that very thread.
//
// The alarm keeps a raw pointer to its observer and cannot learn that it is
// gone: an observer stops its alarm and waits for the stop (TCCIMAlarm::Join)
// before it is destroyed.
class CIM_EXPORT TICIMAlarmObserver {
public:
    virtual ~TICIMAlarmObserver();
    virtual void OnTimer(boost::shared_ptr<TCCIMAlarm> alarm) = 0;
};

// An observer that forwards every expiry to the alarm's RunHandler() while
// holding its own lock, so that a tear-down that stops the alarm under the
// same lock cannot overlap the forwarding. The lock is held only while the
// run request is posted, not while the callback runs. Implementers provide
// the two hooks and do not override OnTimer.
class CIM_EXPORT TICIMAlarmObserverSafe : public TICIMAlarmObserver {
public:
    void OnTimer(boost::shared_ptr<TCCIMAlarm> alarm) override;

protected:
    virtual void t_LockAlarmObserverSafe() = 0;
    virtual void t_UnlockAlarmObserverSafe() = 0;
};

// A timer on the loop of a TCCIMTask that calls its observer once or every
// period, counted in milliseconds on the steady clock.
//
// States, as seen on the task's strand:
//   stopped  (inactive, no timer)  --SetTimer-->  running with a fresh timer
//   running                        --SetTimer-->  running, restarted from now
//   running                        --StopTimer--> stopped
//   running, one-shot   --expiry, OnTimer, RunHandler, callback--> stopped
//                       (without RunHandler it stays running, timer expired)
//   running, repeating  --expiry--> running, re-armed one period after the
//                       previous expiry (not after now) before OnTimer runs
// Every start makes a new timer object, and an expiry is live only if its
// timer is still the alarm's current one and the alarm is active. That one
// test makes the completions of cancelled waits, and of timers replaced by a
// restart, fall silent. A stop or restart carried out between an expiry and
// its RunHandler cancels the callback, since RunHandler does nothing on an
// inactive alarm.
//
// SetTimer, StopTimer and RunHandler post to the task's strand and return at
// once, even on the task's own thread; requests from one thread are carried
// out in the order posted. They catch std::exception and log its text. The
// alarm must be owned by a boost::shared_ptr (use CreateAlarm): every request
// holds the alarm alive, so dropping the owner's pointer does not stop a
// running alarm; its pending wait keeps it alive and firing until stopped.
// An alarm that is not so owned logs "tr1::bad_weak_ptr" for each request and
// never starts.
//
// IsActive and Join wait for the task's thread: never call them on it (from
// OnTimer, the callback or any other handler of the same task).
//
// Stop an alarm (StopTimer, then Join) before dropping its last reference and
// before joining its task; destroying an active alarm is reported as the
// assertion "m_active == false".
class CIM_EXPORT TCCIMAlarm : public boost::enable_shared_from_this<TCCIMAlarm> {
public:
    using Timer =
        boost::asio::basic_waitable_timer<std::chrono::steady_clock,
                                          boost::asio::wait_traits<std::chrono::steady_clock>,
                                          boost::asio::executor>;

    // The alarm is created stopped. `handler` is the callback RunHandler runs
    // on the task's strand; an empty one makes RunHandler throw
    // boost::bad_function_call out of the task's loop. A null observer is
    // reported only when the timer expires.
    static boost::shared_ptr<TCCIMAlarm> CreateAlarm(TICIMAlarmObserver* observer,
                                                     boost::shared_ptr<TCCIMTask> task,
                                                     boost::function<void()> handler,
                                                     EAlarmType type, std::string name);

    // Public, but an alarm built this way is not owned by a shared pointer and
    // cannot start: use CreateAlarm.
    TCCIMAlarm(TICIMAlarmObserver* observer, boost::shared_ptr<TCCIMTask> task,
               boost::function<void()> handler, EAlarmType type, std::string name);
    ~TCCIMAlarm();
    TCCIMAlarm(const TCCIMAlarm&) = delete;
    TCCIMAlarm& operator=(const TCCIMAlarm&) = delete;

    // Starts, or restarts from now, with a period in milliseconds. A period of
    // 0 or less fires on the next turn of the loop; a repeating alarm with
    // such a period fires back to back until stopped.
    void SetTimer(int periodMs);
    // Stops; Join() waits until the stop has been carried out.
    void StopTimer();
    // Runs the callback on the task's strand if the alarm is still active,
    // then stops a one-shot alarm. Meant to be called from OnTimer.
    void RunHandler();
    // Asks the task's thread whether the alarm is running, and waits for it.
    bool IsActive();
    // Waits until every stop requested so far has been carried out.
    void Join();

    TICIMAlarmObserver* GetObserver() const;
    std::string GetAlarmName() const;
    EAlarmType GetAlarmType() const;

private:
    // Run on the task's loop only.
    void m_SetTimer(int periodMs);
    void m_StopTimer();
    void m_RunHandler();
    void m_HandleTimerCountOnce(boost::shared_ptr<Timer>& timer,
                                const boost::system::error_code& error);
    void m_HandleTimerCountInfinity(boost::shared_ptr<Timer>& timer, int periodMs,
                                    const boost::system::error_code& error);

    TICIMAlarmObserver* m_alarmObserver;
    boost::shared_ptr<TCCIMTask> m_task;
    bool m_active;  // task's loop only
    boost::function<void()> m_handler;
    EAlarmType m_alarmType;
    std::string m_alarmName;
    boost::shared_ptr<Timer> m_timer;                   // task's loop only
    std::list<std::shared_future<void>> m_stopFutures;  // guarded by m_mutex
    std::recursive_mutex m_mutex;
};

}  // namespace CIM

#endif
