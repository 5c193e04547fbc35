// One message to another thread and back: the round trip of a hand-off.
#include "Bench.h"

#include <cimcore/CIMSemaphore.h>
#include <cimcore/internal/lsc/Queue.h>

#include <ace/Synch.h>
#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/Synch_Traits.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace cimbench {
namespace {

constexpr const char* kGroup = "hand-off round trip between two threads";
constexpr long kIterations = 50000;

// Runs `echo` n times on another thread and times `call` n times here: one
// call hands a message over and waits for the echo.
template <class Echo, class Call>
double PingPong(long n, Echo echo, Call call) {
    std::thread other([&] {
        for (long i = 0; i < n; ++i) {
            echo();
        }
    });
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        call();
    }
    const double seconds = SecondsSince(start);
    other.join();
    return seconds;
}

double LegacyQueue(long n) {
    TCQueue forth;
    TCQueue back;
    forth.Create();
    back.Create();
    TSEvent echoed;
    TSEvent event;
    const double seconds = PingPong(
        n,
        [&] {
            forth.Get(&echoed, 0UL);
            back.Put(&echoed, false);
        },
        [&] {
            ++event.word4;
            forth.Put(&event, false);
            back.Get(&event, 0UL);
        });
    forth.Destroy();
    back.Destroy();
    return seconds;
}

double LegacySemaphore(long n) {
    TCSemaphore forth;
    TCSemaphore back;
    forth.Create(0);
    back.Create(0);
    const double seconds = PingPong(
        n,
        [&] {
            forth.Try(0);
            back.Give();
        },
        [&] {
            forth.Give();
            back.Try(0);
        });
    forth.Destroy();
    back.Destroy();
    return seconds;
}

double ModernSemaphore(long n) {
    CIM::TCCIMSemaphore forth(0);
    CIM::TCCIMSemaphore back(0);
    return PingPong(
        n,
        [&] {
            forth.Take();
            back.Give();
        },
        [&] {
            forth.Give();
            back.Take();
        });
}

// What a user would write by hand: a deque under a mutex and a condition.
class PlainQueue {
public:
    void Put(long value) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_items.push_back(value);
        }
        m_ready.notify_one();
    }
    long Get() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ready.wait(lock, [this] { return !m_items.empty(); });
        const long value = m_items.front();
        m_items.pop_front();
        return value;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<long> m_items;
};

double PlainMutexQueue(long n) {
    PlainQueue forth;
    PlainQueue back;
    return PingPong(
        n, [&] { back.Put(forth.Get()); },
        [&] {
            forth.Put(1);
            back.Get();
        });
}

double AceMessageQueue(long n) {
    ACE_Message_Queue<ACE_MT_SYNCH> forth;
    ACE_Message_Queue<ACE_MT_SYNCH> back;
    ACE_Message_Block* block = new ACE_Message_Block(16);
    const double seconds = PingPong(
        n,
        [&] {
            ACE_Message_Block* echoed = nullptr;
            forth.dequeue_head(echoed);
            back.enqueue_tail(echoed);
        },
        [&] {
            forth.enqueue_tail(block);
            back.dequeue_head(block);
        });
    block->release();
    return seconds;
}

double PocoNotificationQueue(long n) {
    Poco::NotificationQueue forth;
    Poco::NotificationQueue back;
    Poco::Notification::Ptr note(new Poco::Notification);
    return PingPong(
        n, [&] { back.enqueueNotification(forth.waitDequeueNotification()); },
        [&] {
            forth.enqueueNotification(note);
            note = back.waitDequeueNotification();
        });
}

// The machine's limit: two threads taking turns on one futex word.
long Futex(std::atomic<int>* word, int op, int value) {
    return ::syscall(SYS_futex, reinterpret_cast<int*>(word), op, value, nullptr, nullptr, 0);
}

double FutexPingPong(long n) {
    std::atomic<int> turn(0);
    return PingPong(
        n,
        [&] {
            while (turn.load() != 1) {
                Futex(&turn, FUTEX_WAIT_PRIVATE, 0);
            }
            turn.store(0);
            Futex(&turn, FUTEX_WAKE_PRIVATE, 1);
        },
        [&] {
            turn.store(1);
            Futex(&turn, FUTEX_WAKE_PRIVATE, 1);
            while (turn.load() != 0) {
                Futex(&turn, FUTEX_WAIT_PRIVATE, 1);
            }
        });
}

const Registrar kLegacyQueue(kGroup, "cimcore TCQueue (legacy event queue)", true, kIterations,
                             LegacyQueue);
const Registrar kLegacySemaphore(kGroup, "cimcore TCSemaphore (legacy)", false, kIterations,
                                 LegacySemaphore);
const Registrar kModernSemaphore(kGroup, "cimcore CIM::TCCIMSemaphore", false, kIterations,
                                 ModernSemaphore);
const Registrar kPlain(kGroup, "std::mutex + condition_variable queue", false, kIterations,
                       PlainMutexQueue);
const Registrar kAce(kGroup, "ACE_Message_Queue<ACE_MT_SYNCH>", false, kIterations,
                     AceMessageQueue);
const Registrar kPoco(kGroup, "Poco::NotificationQueue", false, kIterations, PocoNotificationQueue);
const Registrar kFutex(kGroup, "futex ping-pong (machine limit)", false, kIterations,
                       FutexPingPong);

}  // namespace
}  // namespace cimbench
