// Events of the legacy task runtime and the bounded queue that carries them.
#ifndef CIMCORE_INTERNAL_LSC_QUEUE_H
#define CIMCORE_INTERNAL_LSC_QUEUE_H

#include <cimcore/Export.h>
#include <cimcore/internal/lsc/Thread.h>

#include <cstddef>
#include <cstdint>

#include <pthread.h>

class TCHandler;

// Event types. An alarm's own handler receives EVENT_ALARM; a task's own
// handler executes the four built-in types.
constexpr unsigned long EVENT_ALARM = 0;
constexpr unsigned long EVENT_EXIT = 0;
constexpr unsigned long EVENT_USER = 1;
constexpr unsigned long EVENT_PING = 2;
constexpr unsigned long EVENT_CLEAR_QUEUE = 3;

// The record that tasks send to one another, copied by value. On a 32-bit
// target it is eleven 32-bit words; elsewhere every word is as wide as a
// pointer, so that pointers and thread ids fit whole. The two bytes after
// word7 are never initialised: compare events field by field, never with
// memcmp.
struct CIM_EXPORT TSEvent {
    TSEvent()
        : replySem(nullptr),
          receiver(nullptr),
          sender(0),
          type(0),
          word4(0),
          word5(0),
          word6(65535),
          word7(65535),
          word8(~uintptr_t(0)),
          word9(~uintptr_t(0)),
          word10(0) {}

    TCSemaphore* replySem;  // set by the queue for a synchronous put
    TCHandler* receiver;    // the handler that executes the event
    pthread_t sender;       // set by the queue on every put
    unsigned long type;
    // Type-specific payload; the queue never looks into it, and pointers in
    // it stay owned by the sender.
    uintptr_t word4;
    uintptr_t word5;
    uintptr_t word6;
    uint16_t word7;
    uint8_t word7Rest[2];
    uintptr_t word8;
    uintptr_t word9;
    uintptr_t word10;
};

static_assert(sizeof(void*) != 4 || sizeof(TSEvent) == 11 * 4,
              "a TSEvent is eleven 32-bit words on a 32-bit target");
static_assert(sizeof(void*) != 4 ||
                  (offsetof(TSEvent, replySem) == 0 && offsetof(TSEvent, receiver) == 4 &&
                   offsetof(TSEvent, sender) == 8 && offsetof(TSEvent, type) == 12 &&
                   offsetof(TSEvent, word4) == 16 && offsetof(TSEvent, word5) == 20 &&
                   offsetof(TSEvent, word6) == 24 && offsetof(TSEvent, word7) == 28 &&
                   offsetof(TSEvent, word8) == 32 && offsetof(TSEvent, word9) == 36 &&
                   offsetof(TSEvent, word10) == 40),
              "on a 32-bit target TSEvent word i is at offset 4 * i");

// A ring of 256 events with a reserve for priority events, guarded by its own
// (inherited) mutex.
//
// Any thread may put; one reader (normally the owning task's thread) takes.
// Ordinary puts are refused from 240 queued events on, keeping 16 slots for
// priority puts, which are refused only when all 256 are full. A priority
// event goes to the front, so the last priority put is read first.
//
// A synchronous put (wait = true) blocks, outside the mutex, until whoever
// executes the event gives the event's reply semaphore, or until Delete
// removes the event. Destroy discards queued events without releasing their
// senders. The owner must Destroy before deleting the queue.
class CIM_EXPORT TCQueue : public TCMutex {
public:
    static constexpr int kSlots = 256;
    static constexpr int kPriorityReserve = 16;

    TCQueue();
    ~TCQueue() override;
    bool Destroy() override;

    bool Create();

    // False when the capacity rule refuses the event; with `wait`, returns
    // true once the event was executed or deleted.
    bool PutSync(TSEvent* event, bool wait, bool priority);
    bool Put(TSEvent* event, bool priority);

    // Takes the head event, waiting at most `timeout` ms (0: without limit).
    // With `skipSync`, a synchronous head event is left queued and the
    // result is false.
    bool GetSync(TSEvent* event, unsigned long timeout, bool skipSync);
    bool Get(TSEvent* event, unsigned long timeout);
    // The same without waiting and without touching the item semaphore, for
    // readers that are woken another way.
    bool GetSyncQData(TSEvent* event, bool skipSync);
    bool GetQData(TSEvent* event);

    // Takes the first asynchronous event for `receiver` (and `type`) from
    // wherever it stands; the others keep their order.
    bool Get(TSEvent* event, const TCHandler* receiver);
    bool Get(TSEvent* event, const TCHandler* receiver, unsigned long type);

    // Whether events for `receiver` (and `type`) are queued; their number
    // goes to `count` when it is not null.
    bool Find(const TCHandler* receiver, unsigned int* count);
    bool Find(const TCHandler* receiver, unsigned long type, unsigned int* count);
    // The number of events queued, for diagnostics; 0 when not created.
    unsigned int Count();

    // Removes the matching events (DeleteEx at most `most`), releasing their
    // synchronous senders. True when any was removed; the number goes to
    // `count` when it is not null.
    bool Delete(const TCHandler* receiver, unsigned int* count);
    bool Delete(const TCHandler* receiver, unsigned long type, unsigned int* count);
    bool DeleteEx(const TCHandler* receiver, unsigned long type, unsigned int most,
                  unsigned int* count);

    // The item semaphore, for readers that wait outside the queue.
    bool Try(unsigned long timeout);
    void Give();

    bool FlagCreate() const { return TCMutex::FlagCreate(); }

private:
    // Moves the head event out. Requires the mutex held and an event queued.
    void m_PopHead(TSEvent* event);
    bool m_Take(TSEvent* event, const TCHandler* receiver, bool byType, unsigned long type);
    bool m_Count(const TCHandler* receiver, bool byType, unsigned long type, unsigned int* count);
    bool m_Delete(const TCHandler* receiver, bool byType, unsigned long type, unsigned int most,
                  unsigned int* count);
    // Takes the item units of removed events, only those still there: a
    // reader may already have consumed one. Requires the mutex held.
    void m_DropUnits(unsigned int units);

    TCSemaphore m_items;  // units a blocking reader may take
    // All below guarded by the inherited mutex.
    int m_tail;  // next slot at the back
    int m_head;  // slot of the first event
    int32_t m_count;
    TSEvent m_slots[kSlots];
};

#endif
