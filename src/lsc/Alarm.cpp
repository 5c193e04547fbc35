#include <cimcore/internal/lsc/Alarm.h>

#include "LscCheck.h"
#include "MutexGuard.h"

#include <cstdio>

#include <boost/bind/bind.hpp>

#include <sys/prctl.h>

namespace {
constexpr const char* kSourcePath = "src/lsc/Alarm";
}  // namespace

namespace {

// The system refuses so small a stack, so the default one applies.
constexpr unsigned long kAlarmStackSize = 512;

uint32_t FlooredPeriod(unsigned long period) {
    const uint32_t stored = static_cast<uint32_t>(period);
    return stored < TCAlarm::kMinPeriodMs ? TCAlarm::kMinPeriodMs : stored;
}

}  // namespace

TCAlarm::TCAlarm()
    : m_period(kMinPeriodMs),
      m_count(0),
      m_destroy(false),
      m_rawBefore(nullptr),
      m_rawAfter(nullptr),
      m_context(nullptr) {}

TCAlarm::~TCAlarm() {
    CIM_LSC_CHECK(FlagCreate() == false);
}

bool TCAlarm::Create(const TCTask* task, unsigned long period, unsigned long count) {
    if (!CIM_LSC_CHECK(FlagCreate() == false) || !CIM_LSC_CHECK(task != NULL) ||
        !CIM_LSC_CHECK((const_cast<TCTask*>(task))->FlagCreate() == true)) {
        return false;
    }
    char caller[16] = {};
    ::prctl(PR_GET_NAME, caller, 0, 0, 0);
    char name[16];
    // Cut to 15 characters on purpose: the kernel keeps no more.
    const int wanted = std::snprintf(name, sizeof name, "%s%s", "TCAlarm:", caller);
    static_cast<void>(wanted);

    if (!TCHandler::Create(task)) {
        return false;
    }
    if (!m_mutex.Create()) {
        TCHandler::Destroy();
        return false;
    }
    if (!m_wake.Create(0)) {
        m_mutex.Destroy();
        TCHandler::Destroy();
        return false;
    }
    m_destroy.store(false);
    m_rawBefore = nullptr;
    m_rawAfter = nullptr;
    m_period = FlooredPeriod(period);
    m_count = static_cast<uint32_t>(count);
    if (!TCThread::Create(name, kAlarmStackSize)) {
        m_wake.Destroy();
        m_mutex.Destroy();
        TCHandler::Destroy();
        return false;
    }
    return true;
}

bool TCAlarm::Destroy() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    {
        TCMutexGuard guard(m_mutex);
        m_destroy.store(true);
        m_wake.Give();
    }
    if (!TCThread::Destroy()) {
        return false;  // called on the alarm thread itself
    }
    m_wake.Destroy();
    m_mutex.Destroy();
    const bool dropped = Task()->TCQueue::Delete(this, nullptr);
    return TCHandler::Destroy() || dropped;
}

void TCAlarm::Reset(unsigned long period, unsigned long count) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return;
    }
    TCMutexGuard guard(m_mutex);
    m_period = FlooredPeriod(period);
    m_count = static_cast<uint32_t>(count);
    Task()->TCQueue::Delete(this, nullptr);
    m_wake.Give();
}

bool TCAlarm::SetEventCallback(int index, TFEventCallback before, TFEventCallback after,
                               const void* context) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (index != static_cast<int>(EVENT_ALARM)) {
        return false;
    }
    m_rawBefore = before;
    m_rawAfter = after;
    m_context = context;
    using namespace boost::placeholders;
    if (before != nullptr) {
        m_before = boost::bind(before, _1, context);
    }
    if (after != nullptr) {
        m_after = boost::bind(after, _1, context);
    }
    return true;
}

bool TCAlarm::GetEventCallback(int index, TFEventCallback* before, TFEventCallback* after,
                               const void** context) {
    if (index != static_cast<int>(EVENT_ALARM)) {
        return false;
    }
    if (before != nullptr) {
        *before = m_rawBefore;
    }
    if (after != nullptr) {
        *after = m_rawAfter;
    }
    if (context != nullptr) {
        *context = m_context;
    }
    return true;
}

void TCAlarm::SetCallbackBefore(TFAlarmFunction before) {
    m_before = before;
}

void TCAlarm::SetCallbackAfter(TFAlarmFunction after) {
    m_after = after;
}

bool TCAlarm::OnAlarm(const TSEvent* event) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    return RunCallbackChain([&] { return m_before && m_before(event); },
                            [&] { return t_OnAlarm(event); },
                            [&] { return m_after && m_after(event); });
}

unsigned long TCAlarm::Period() const {
    TCMutexGuard guard(m_mutex);
    return m_period;
}

unsigned long TCAlarm::Count() const {
    TCMutexGuard guard(m_mutex);
    return m_count;
}

bool TCAlarm::t_OnEvent(const TSEvent* event) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL) ||
        !CIM_LSC_CHECK(event->type == EVENT_ALARM)) {
        return false;
    }
    return OnAlarm(event);
}

bool TCAlarm::t_OnAlarm(const TSEvent* /*event*/) {
    return false;
}

int TCAlarm::t_Main() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return 0;
    }
    TSEvent event;
    event.receiver = this;
    event.type = EVENT_ALARM;

    // Released across every wait below, so that Reset and Destroy get through.
    TCMutexGuard guard(m_mutex);
    event.word4 = m_count;
    uint32_t sequence = 0;
    for (;;) {
        // All events of this start are out: sleep until a Reset or Destroy.
        while (m_count != kNoEnd && sequence >= m_count) {
            guard.Unlock();
            m_wake.Take();
            if (m_destroy.load()) {
                return 0;
            }
            guard.Lock();
            event.word4 = m_count;
            sequence = 0;
        }
        const uint32_t period = m_period;
        guard.Unlock();
        bool woken = m_wake.Try(period);
        if (!woken) {
            // A time-out of 0 waits without limit: this poll only returns
            // once Reset or Destroy gave the semaphore, so the send below is
            // not reached. Kept as it is on purpose; the mutex stays free
            // meanwhile so that Reset and Destroy can get through.
            woken = m_wake.Try(0);
        }
        guard.Lock();
        if (!woken) {
            event.word5 = sequence;
            TCTask::Send(&event, false, false);
            ++sequence;
            continue;
        }
        if (m_destroy.load()) {
            return 0;
        }
        sequence = 0;
        event.word4 = m_count;
    }
}

// ---- TCStateAlarm ----------------------------------------------------------------

TCStateAlarm::TCStateAlarm() : m_state(0) {}

bool TCStateAlarm::Create(TCTask* task, unsigned short state, int period, int count) {
    // Negative values widen to all bits set, so -1 keeps meaning "no end".
    if (!TCAlarm::Create(task, static_cast<unsigned long>(static_cast<long>(period)),
                         static_cast<unsigned long>(static_cast<long>(count)))) {
        return false;
    }
    m_state = state;
    return true;
}

bool TCStateAlarm::t_OnAlarm(const TSEvent* event) {
    if (event == nullptr || event->type != EVENT_ALARM) {
        return false;
    }
    TCTask* task = Task();
    if (!CIM_LSC_EXPECT(task != nullptr && task->FlagCreate(), "FlagCreate() == true")) {
        return false;
    }
    TSEvent state;
    state.receiver = task;
    state.type = m_state;
    TCTask::Send(&state, false, false);
    return false;
}
