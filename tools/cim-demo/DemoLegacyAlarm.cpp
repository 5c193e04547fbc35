// The legacy reader-writer lock shared by two tasks, a notify thread that
// wakes a reader once per queued event, and a legacy alarm's life.
#include "Demo.h"

#include <cimcore/CIMTime.h>
#include <cimcore/internal/lsc/Alarm.h>
#include <cimcore/internal/lsc/EventNotifyThread.h>
#include <cimcore/internal/lsc/RWLock.h>
#include <cimcore/internal/lsc/Task.h>

#include <atomic>
#include <thread>

namespace cimdemo {
namespace {

// A task whose user events read or write a value shared with another task.
class LockUser : public TCTask {
public:
    static constexpr uintptr_t kRead = 1;
    static constexpr uintptr_t kWrite = 2;

    LockUser(TCRWLock& lock, int& value, TCSemaphore& holding)
        : m_lock(lock), m_value(value), m_holding(holding) {}

protected:
    bool t_OnUser(const TSEvent* event) override {
        if (event->word4 == kRead) {
            m_lock.RLock();
            m_lock.RLock();  // nested: the lock is given back at the last RUnlock
            Say("  %s: holds the read lock twice, value = %d", Name(), m_value);
            m_holding.Give();
            CIM::TCCIMTime::Sleep(100);  // a long read; the writer must wait
            const bool foreignUnlock = m_lock.WUnlock();
            m_lock.RUnlock();
            m_lock.RUnlock();
            Say("  %s: WUnlock by a reader -> %s; read lock given back", Name(),
                foreignUnlock ? "true" : "false");
        } else if (event->word4 == kWrite) {
            const unsigned long start = CIM::TCCIMTime::Tick();
            m_lock.WLock();
            const unsigned long waited = CIM::TickDiff(CIM::TCCIMTime::Tick(), start);
            m_lock.RLock();  // the writer may read too
            m_value += 1;
            Say("  %s: got the write lock after %lu ms, value -> %d", Name(), waited, m_value);
            m_lock.RUnlock();
            m_lock.WUnlock();
        }
        return true;
    }

private:
    TCRWLock& m_lock;
    int& m_value;
    TCSemaphore& m_holding;
};

bool SendUser(TCTask& task, uintptr_t what, bool sync) {
    TSEvent event;
    event.receiver = &task;
    event.type = EVENT_USER;
    event.word4 = what;
    return TCTask::Send(&event, sync, false);
}

bool Stop(TCTask& task) {
    TSEvent exit;
    exit.receiver = &task;
    exit.type = EVENT_EXIT;
    const bool sent = TCTask::Send(&exit, false, false);
    return task.Destroy() || sent;
}

bool ShowRWLock() {
    Say("a reader-writer lock shared by two tasks:");
    TCRWLock lock;
    int value = 41;
    TCSemaphore holding;
    holding.Create(0);
    LockUser reader(lock, value, holding);
    LockUser writer(lock, value, holding);
    bool ok = reader.Create("demo-reader", 0, 64 * 1024, 0) &&
              writer.Create("demo-writer", 0, 64 * 1024, 0);
    ok = ok && SendUser(reader, LockUser::kRead, false);
    holding.Take();  // the reader holds its lock before the writer asks
    ok = ok && SendUser(writer, LockUser::kWrite, true);
    ok = ok && value == 42;
    Stop(reader);
    Stop(writer);
    holding.Destroy();
    return ok;
}

bool ShowNotifyThread() {
    Say("a notify thread wakes a reader once per queued event:");
    TCQueue queue;
    TCSemaphore wake;
    TCEventNotifyThread notifier;
    if (!queue.Create() || !wake.Create(0) || !notifier.Create("demo-notify", &queue, &wake, 0)) {
        return false;
    }
    std::atomic<int> read{0};
    std::thread reader([&] {
        for (int i = 0; i < 3; ++i) {
            if (!wake.Try(2000)) {
                return;
            }
            TSEvent event;
            if (queue.GetQData(&event)) {
                ++read;
                Say("  reader: woken, took event %lu from the queue",
                    static_cast<unsigned long>(event.word4));
            }
        }
    });
    for (uintptr_t number = 1; number <= 3; ++number) {
        TSEvent event;
        event.word4 = number;
        queue.Put(&event, false);
    }
    reader.join();
    notifier.Destroy();
    wake.Destroy();
    queue.Destroy();
    Say("three events, three wake-ups; notify thread destroyed");
    return read == 3;
}

bool AlarmBefore(const TSEvent* event, const void*) {
    Say("  alarm before callback on the task's thread, event %lu of %lu",
        static_cast<unsigned long>(event->word5), static_cast<unsigned long>(event->word4));
    return false;
}

bool AlarmAfter(const TSEvent*, const void*) {
    Say("  alarm after callback");
    return false;
}

// A task that shows the state events it receives.
class StateTask : public TCTask {
public:
    static constexpr unsigned short kState = 0x42;
    std::atomic<int> states{0};

protected:
    bool t_OnEvent(const TSEvent* event) override {
        if (event->type == kState) {
            ++states;
            Say("  task: state event %#lx arrived", event->type);
        }
        return TCTask::t_OnEvent(event);
    }
};

bool ShowAlarm() {
    Say("a legacy alarm created, reset and destroyed:");
    StateTask task;
    if (!task.Create("demo-alarmtask", 0, 64 * 1024, 0)) {
        return false;
    }
    bool ok = true;
    TCAlarm alarm;
    ok = alarm.Create(&task, 5, 3) && ok;
    Say("Create(task, period 5, count 3): thread \"%s\", period stored as %lu ms", alarm.Name(),
        alarm.Period());
    Say("What it does: the alarm thread waits one period, then sleeps until the next Reset or "
        "Destroy;");
    Say("it never queues an alarm event itself. Alarm events sent to it run through its "
        "callbacks");
    Say("on the task's thread, and Reset drops those still queued.");
    alarm.SetEventCallback(EVENT_ALARM, AlarmBefore, AlarmAfter, nullptr);
    CIM::TCCIMTime::Sleep(50);  // five periods pass without an alarm event

    unsigned long start = CIM::TCCIMTime::Tick();
    alarm.Reset(20, 2);
    Say("Reset(20, 2) after five periods returned in %lu ms (period %lu, count %lu)",
        CIM::TickDiff(CIM::TCCIMTime::Tick(), start), alarm.Period(), alarm.Count());

    TSEvent event;
    event.receiver = &alarm;
    event.type = EVENT_ALARM;
    event.word4 = 2;
    event.word5 = 0;
    ok = TCTask::Send(&event, true, false) && ok;

    TCStateAlarm stateAlarm;
    ok = stateAlarm.Create(&task, StateTask::kState, 1000, -1) && ok;
    Say("an alarm event sent to a state alarm becomes a state event for its task:");
    event.receiver = &stateAlarm;
    ok = TCTask::Send(&event, true, false) && ok;
    TSEvent ping;
    ping.receiver = &task;
    ping.type = EVENT_PING;
    ok = TCTask::Send(&ping, true, false) && ok;  // the state event ran before it
    ok = ok && task.states == 1;

    start = CIM::TCCIMTime::Tick();
    alarm.Destroy();
    stateAlarm.Destroy();
    Say("both alarms destroyed in %lu ms", CIM::TickDiff(CIM::TCCIMTime::Tick(), start));
    Stop(task);
    return ok;
}

bool RunLegacyAlarm(Context&) {
    bool ok = LegacyCoreExport::Init();
    ok = ShowRWLock() && ok;
    ok = ShowNotifyThread() && ok;
    ok = ShowAlarm() && ok;
    LegacyCoreExport::Destroy();
    return ok;
}

const SectionRegistrar kRegistrar(25, "Legacy alarms, reader-writer lock, notify thread",
                                  RunLegacyAlarm);

}  // namespace
}  // namespace cimdemo
