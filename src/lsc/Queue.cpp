#include <cimcore/internal/lsc/Queue.h>

#include "LscCheck.h"
#include "MutexGuard.h"

namespace {
constexpr const char* kSourcePath = "src/lsc/Queue";
}  // namespace

namespace {

int NextSlot(int slot) {
    return (slot + 1) % TCQueue::kSlots;
}

}  // namespace

TCQueue::TCQueue() : m_tail(0), m_head(0), m_count(0) {}

TCQueue::~TCQueue() {
    CIM_LSC_CHECK(FlagCreate() == false);
}

bool TCQueue::Create() {
    if (!CIM_LSC_CHECK(FlagCreate() == false)) {
        return false;
    }
    if (!TCMutex::Create()) {
        return false;
    }
    if (!m_items.Create(0)) {
        TCMutex::Destroy();
        return false;
    }
    m_tail = 0;
    m_head = 0;
    m_count = 0;
    return true;
}

bool TCQueue::Destroy() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    // SHARP-EDGE: queued events go without releasing their synchronous senders, who wait for ever.
    Lock();
    m_items.Destroy();
    m_tail = 0;
    m_head = 0;
    m_count = 0;
    return TCMutex::Destroy();
}

bool TCQueue::PutSync(TSEvent* event, bool wait, bool priority) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    // Stores the event with `reply` (null: nobody waits); false when the
    // capacity rule refuses it, after destroying `reply`.
    auto store = [this, event, priority](TCSemaphore* reply) {
        TCMutexGuard guard(*this);
        // Ordinary puts keep the last kPriorityReserve slots free for priority
        // ones: refused from 240 queued on, priority only at 256.
        const bool refused =
            priority ? m_count > kSlots - 1 : m_count + kPriorityReserve > kSlots - 1;
        if (refused) {
            if (reply != nullptr) {
                reply->Destroy();
            }
            return false;
        }
        // Copied straight into its slot: the mutex is held for one copy only.
        TSEvent* slot;
        if (priority) {
            m_head = (m_head + kSlots - 1) % kSlots;
            slot = &m_slots[m_head];
        } else {
            slot = &m_slots[m_tail];
            m_tail = NextSlot(m_tail);
        }
        *slot = *event;
        slot->replySem = reply;
        slot->sender = pthread_self();
        ++m_count;
        // Given before the mutex is let go, as designed: the reader it wakes
        // usually waits once more, for this mutex.
        m_items.Give();
        return true;
    };
    if (!wait) {
        return store(nullptr);  // no reply semaphore to make or destroy
    }
    TCSemaphore reply;
    if (!reply.Create(0)) {
        return false;
    }
    if (!store(&reply)) {
        return false;
    }
    // Given by the executor, or by Delete if the event is removed.
    reply.Take();
    reply.Destroy();
    return true;
}

bool TCQueue::Put(TSEvent* event, bool priority) {
    return PutSync(event, false, priority);
}

bool TCQueue::GetSync(TSEvent* event, unsigned long timeout, bool skipSync) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    for (;;) {
        if (!m_items.Try(timeout)) {
            return false;
        }
        TCMutexGuard guard(*this);
        if (m_count == 0) {
            continue;  // a unit whose event was deleted meanwhile
        }
        if (skipSync && m_slots[m_head].replySem != nullptr) {
            // The unit taken above is not given back: kept as designed.
            return false;
        }
        m_PopHead(event);
        return true;
    }
}

bool TCQueue::Get(TSEvent* event, unsigned long timeout) {
    return GetSync(event, timeout, true);
}

bool TCQueue::GetSyncQData(TSEvent* event, bool skipSync) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    TCMutexGuard guard(*this);
    if (m_count == 0 || (skipSync && m_slots[m_head].replySem != nullptr)) {
        return false;
    }
    m_PopHead(event);
    return true;
}

bool TCQueue::GetQData(TSEvent* event) {
    return GetSyncQData(event, true);
}

void TCQueue::m_PopHead(TSEvent* event) {
    *event = m_slots[m_head];
    m_head = NextSlot(m_head);
    --m_count;
}

namespace {

bool Matches(const TSEvent& event, const TCHandler* receiver, bool byType, unsigned long type) {
    return event.receiver == receiver && (!byType || event.type == type);
}

}  // namespace

bool TCQueue::Get(TSEvent* event, const TCHandler* receiver) {
    return m_Take(event, receiver, false, 0);
}

bool TCQueue::Get(TSEvent* event, const TCHandler* receiver, unsigned long type) {
    return m_Take(event, receiver, true, type);
}

bool TCQueue::m_Take(TSEvent* event, const TCHandler* receiver, bool byType, unsigned long type) {
    if (!CIM_LSC_CHECK(FlagCreate() == true) || !CIM_LSC_CHECK(event != NULL)) {
        return false;
    }
    TCMutexGuard guard(*this);
    bool taken = false;
    const int queued = m_count;
    // Every other event is re-appended at the tail in turn, so the ring
    // keeps its order.
    for (int i = 0; i < queued; ++i) {
        const TSEvent current = m_slots[m_head];
        m_head = NextSlot(m_head);
        if (!taken && current.replySem == nullptr && Matches(current, receiver, byType, type)) {
            *event = current;
            taken = true;
            --m_count;
        } else {
            m_slots[m_tail] = current;
            m_tail = NextSlot(m_tail);
        }
    }
    if (taken) {
        m_DropUnits(1);
    }
    return taken;
}

bool TCQueue::Find(const TCHandler* receiver, unsigned int* count) {
    return m_Count(receiver, false, 0, count);
}

bool TCQueue::Find(const TCHandler* receiver, unsigned long type, unsigned int* count) {
    return m_Count(receiver, true, type, count);
}

unsigned int TCQueue::Count() {
    if (!FlagCreate()) {
        return 0;
    }
    Lock();
    const unsigned int count = static_cast<unsigned int>(m_count);
    Unlock();
    return count;
}

bool TCQueue::m_Count(const TCHandler* receiver, bool byType, unsigned long type,
                      unsigned int* count) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    unsigned int found = 0;
    {
        TCMutexGuard guard(*this);
        for (int i = 0, slot = m_head; i < m_count; ++i, slot = NextSlot(slot)) {
            if (Matches(m_slots[slot], receiver, byType, type)) {
                ++found;
            }
        }
    }
    if (count != nullptr) {
        *count = found;
    }
    return found > 0;
}

bool TCQueue::Delete(const TCHandler* receiver, unsigned int* count) {
    return m_Delete(receiver, false, 0, ~0U, count);
}

bool TCQueue::Delete(const TCHandler* receiver, unsigned long type, unsigned int* count) {
    return m_Delete(receiver, true, type, ~0U, count);
}

bool TCQueue::DeleteEx(const TCHandler* receiver, unsigned long type, unsigned int most,
                       unsigned int* count) {
    return m_Delete(receiver, true, type, most, count);
}

bool TCQueue::m_Delete(const TCHandler* receiver, bool byType, unsigned long type,
                       unsigned int most, unsigned int* count) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    unsigned int removed = 0;
    {
        TCMutexGuard guard(*this);
        const int queued = m_count;
        m_count = 0;
        for (int i = 0; i < queued; ++i) {
            const TSEvent current = m_slots[m_head];
            m_head = NextSlot(m_head);
            if (removed < most && Matches(current, receiver, byType, type)) {
                ++removed;
                if (current.replySem != nullptr) {
                    current.replySem->Give();  // releases the blocked sender
                }
            } else {
                m_slots[m_tail] = current;
                m_tail = NextSlot(m_tail);
                ++m_count;
            }
        }
        m_DropUnits(removed);
    }
    if (count != nullptr) {
        *count = removed;
    }
    return removed > 0;
}

void TCQueue::m_DropUnits(unsigned int units) {
    // A reader between its wait and the mutex has consumed a unit already;
    // waiting for that one would block every put for ever. It tolerates a
    // unit without an event, so an excess is harmless, a wait is not.
    for (unsigned int i = 0; i < units && m_items.Poll(); ++i) {
    }
}

bool TCQueue::Try(unsigned long timeout) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    return m_items.Try(timeout);
}

void TCQueue::Give() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return;
    }
    m_items.Give();
}
