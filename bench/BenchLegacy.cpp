// The legacy runtime's hand-offs: asynchronous TCTask::Send throughput to a
// running task and the synchronous round trip, beside the peers, a minimal
// implementation of the lock discipline the runtime is bound to (the design
// floor) and the machine's own floor.
#include "Bench.h"

#include <cimcore/CIMWatchdog.h>
#include <cimcore/internal/lsc/Sync.h>
#include <cimcore/internal/lsc/Task.h>

#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/Synch.h>
#include <ace/Synch_Traits.h>
#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace cimbench {
namespace {

// ---- the design floor --------------------------------------------------------
// Exactly the locking the runtime must do and nothing else: one process-wide
// mutex under every semaphore, a semaphore that is a count and a condition
// signalled under that mutex, a recursive mutex made of such a semaphore, and
// an event ring of 256 guarded by that mutex with a counting semaphore for
// the reader. No checks; the only allocation per event is the block of the
// reply semaphore of a synchronous put, which the design allocates too.
namespace design {

pthread_mutex_t gGlobal = PTHREAD_MUTEX_INITIALIZER;

// The condition and the count live in a heap block of their own, as the
// runtime's semaphore keeps them.
class Semaphore {
public:
    explicit Semaphore(int count) : m_block(new Block) {
        ::pthread_cond_init(&m_block->cond, nullptr);
        m_block->count = count;
    }
    ~Semaphore() { ::pthread_cond_destroy(&m_block->cond); }
    void Take() {
        ::pthread_mutex_lock(&gGlobal);
        while (m_block->count <= 0) {
            ::pthread_cond_wait(&m_block->cond, &gGlobal);
        }
        --m_block->count;
        ::pthread_mutex_unlock(&gGlobal);
    }
    void Give() {
        ::pthread_mutex_lock(&gGlobal);
        ++m_block->count;
        ::pthread_cond_signal(&m_block->cond);
        ::pthread_mutex_unlock(&gGlobal);
    }

private:
    struct Block {
        pthread_cond_t cond;
        int32_t count;
    };
    std::unique_ptr<Block> m_block;
};

class Mutex {
public:
    void Lock() {
        const pthread_t self = ::pthread_self();
        if (::pthread_equal(m_owner.load(std::memory_order_relaxed), self)) {
            ++m_depth;
            return;
        }
        m_semaphore.Take();
        m_owner.store(self, std::memory_order_relaxed);
        m_depth = 1;
    }
    void Unlock() {
        if (!::pthread_equal(m_owner.load(std::memory_order_relaxed), ::pthread_self())) {
            return;
        }
        if (--m_depth == 0) {
            m_owner.store(pthread_t(), std::memory_order_relaxed);
            m_semaphore.Give();
        }
    }

private:
    Semaphore m_semaphore{1};
    std::atomic<pthread_t> m_owner{pthread_t()};
    int m_depth = 0;
};

class Handler;

// As many words, each as wide, as the runtime's event record, so that a
// slot costs what a TSEvent slot costs on this machine.
struct Event {
    Semaphore* reply = nullptr;
    Handler* receiver = nullptr;
    pthread_t sender = pthread_t();
    uintptr_t words[8] = {};
};
static_assert(sizeof(Event) == sizeof(TSEvent), "a slot as large as the runtime's");

class Queue;

// The receiver of an event: a sender looks up its queue there, and the
// reader dispatches to it only while it is marked created.
class Handler {
public:
    virtual ~Handler() = default;
    virtual void OnEvent(const Event& event) = 0;
    std::atomic<uint32_t> created{19670827};
    Queue* queue = nullptr;
};

class Queue {
public:
    bool Put(const Event& event, bool wait) {
        std::optional<Semaphore> reply;
        if (wait) {
            reply.emplace(0);
        }
        m_mutex.Lock();
        if (m_count + 16 > 255) {
            m_mutex.Unlock();
            return false;
        }
        m_slots[m_tail] = event;
        m_slots[m_tail].reply = reply ? &*reply : nullptr;
        m_slots[m_tail].sender = ::pthread_self();
        m_tail = (m_tail + 1) % 256;
        ++m_count;
        m_items.Give();
        m_mutex.Unlock();
        if (reply) {
            reply->Take();
        }
        return true;
    }
    void Get(Event* event) {
        for (;;) {
            m_items.Take();
            m_mutex.Lock();
            if (m_count > 0) {
                break;
            }
            m_mutex.Unlock();
        }
        *event = m_slots[m_head];
        m_head = (m_head + 1) % 256;
        --m_count;
        m_mutex.Unlock();
    }

    // What a task's loop does with an event: dispatch to a created
    // receiver, then release a synchronous sender.
    static void Execute(const Event& event) {
        if (event.receiver != nullptr && event.receiver->created.load() == 19670827) {
            event.receiver->OnEvent(event);
        }
        if (event.reply != nullptr) {
            event.reply->Give();
        }
    }

private:
    Mutex m_mutex;
    Semaphore m_items{0};
    Event m_slots[256];
    int m_head = 0;
    int m_tail = 0;
    int m_count = 0;
};

// A send looks up the receiver's queue through the receiver.
bool Send(Event& event, bool wait) {
    Queue* queue = event.receiver->queue;
    return queue != nullptr && queue->Put(event, wait);
}

// Counts its events and signals when the last has come.
class CountingHandler : public Handler {
public:
    std::atomic<long> target{0};
    long count = 0;
    Latch* done = nullptr;

    void OnEvent(const Event&) override {
        if (++count == target.load(std::memory_order_relaxed) && done != nullptr) {
            done->Set();
        }
    }
};

// The table of synchronous sends: the fields the sender must fill, under a
// mutex of the same kind.
struct SyncEntry {
    bool valid;
    unsigned long tick;
    unsigned long caller;
    int32_t callerTid;
    char callerName[16];
    unsigned long receiver;
    unsigned long reserved;
    char receiverName[16];
};

class SyncTable {
public:
    int Add(unsigned long receiver, const char* receiverName) {
        SyncEntry entry{};
        char name[20] = "??";
        ::prctl(PR_GET_NAME, name);
        entry.caller = (unsigned long)::pthread_self();
        entry.callerTid = int32_t(::syscall(SYS_gettid));
        std::memcpy(entry.callerName, name, 15);
        entry.receiver = receiver;
        std::strncpy(entry.receiverName, receiverName, 15);
        timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        m_mutex.Lock();
        int index = -1;
        for (int i = 0; i < 64; ++i) {
            if (!m_entries[i].valid) {
                m_entries[i] = entry;
                m_entries[i].tick = (unsigned long)(now.tv_sec * 1000 + now.tv_nsec / 1000000);
                m_entries[i].valid = true;
                index = i;
                break;
            }
        }
        m_mutex.Unlock();
        return index;
    }
    void Remove(int index) {
        m_mutex.Lock();
        m_entries[index].valid = false;
        m_mutex.Unlock();
    }

private:
    Mutex m_mutex;
    SyncEntry m_entries[64] = {};
};

}  // namespace design

// ---- shared pieces -------------------------------------------------------------

constexpr long kAsyncMessages = 100000;
constexpr long kRoundTrips = 5000;

// Starts `producers` threads that together call `send` n times, after the
// consumer side exists; returns the seconds until `done` is set.
template <class Send>
double Produce(long n, int producers, Pinning& pinning, Latch& done, Run& run, Send send) {
    pinning.Producers();
    Latch go;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        const long share = n / producers + (p < n % producers ? 1 : 0);
        threads.emplace_back([&go, &send, share] {
            go.Wait();
            for (long i = 0; i < share; ++i) {
                send();
            }
        });
    }
    const auto start = std::chrono::steady_clock::now();
    go.Set();
    if (!done.Wait()) {
        run.Fail("the consumer did not get every message within a minute");
    }
    const double seconds = SecondsSince(start);
    for (std::thread& thread : threads) {
        thread.join();
    }
    return seconds;
}

// Starts `consume` on the consumer's thread, then produces as above; `release`
// then lets a consumer that waits for more leave.
template <class Consume, class Send, class Release>
double WithConsumer(Run& run, int producers, Pinning& pinning, Latch& done, Consume consume,
                    Send send, Release release) {
    pinning.Consumer();
    std::thread consumer(consume);
    const double seconds = Produce(run.Iterations(), producers, pinning, done, run, send);
    release();
    consumer.join();
    return seconds;
}

const auto kNothing = [] {};

// A task whose handler counts events and signals when the last has come.
class CountingHandler : public TCHandler {
public:
    std::atomic<long> target{0};
    long count = 0;
    Latch* done = nullptr;

protected:
    bool t_OnEvent(const TSEvent*) override {
        if (++count == target.load(std::memory_order_relaxed) && done != nullptr) {
            done->Set();
        }
        return true;
    }
};

class PlainTask : public TCTask {};

// The legacy core of one row, with a task and one handler. The end sends the
// exit event, destroys both, then the core.
struct LegacyTask {
    PlainTask task;
    CountingHandler handler;
    bool started = false;

    LegacyTask() { LegacyCoreExport::Init(); }
    ~LegacyTask() {
        if (started) {
            handler.TCHandler::Destroy();
            EndLegacyTask(task);
        }
        LegacyCoreExport::Destroy();
    }
    bool Start(const char* name, Run& run) {
        started = task.Create(name, 0, 0, 0) && handler.Create(&task);
        if (!started) {
            run.Fail("TCTask::Create failed");
        }
        return started;
    }
};

// ---- asynchronous send throughput -----------------------------------------------

double LegacyAsync(Run& run, int producers, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    Latch done;
    LegacyTask legacy;
    legacy.handler.target = run.Iterations();
    legacy.handler.done = &done;
    pinning.Consumer();
    if (!legacy.Start("bench-async", run)) {
        return 0;
    }
    const double seconds = Produce(run.Iterations(), producers, pinning, done, run, [&] {
        TSEvent event;
        event.receiver = &legacy.handler;
        event.type = 10;
        while (!TCTask::Send(&event, false, false)) {
            sched_yield();  // the queue is full: let the task drain it
        }
    });
    return seconds;
}

double DesignAsync(Run& run, int producers, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    design::Queue queue;
    Latch done;
    design::CountingHandler handler;
    handler.queue = &queue;
    handler.target = run.Iterations();
    handler.done = &done;
    return WithConsumer(
        run, producers, pinning, done,
        [&] {
            design::Event event;
            for (;;) {
                queue.Get(&event);
                if (event.words[0] == 1) {
                    return;
                }
                design::Queue::Execute(event);
            }
        },
        [&] {
            design::Event event;
            event.receiver = &handler;
            event.words[0] = 10;
            while (!design::Send(event, false)) {
                sched_yield();
            }
        },
        [&] {
            design::Event stop;
            stop.words[0] = 1;
            while (!queue.Put(stop, false)) {
                sched_yield();
            }
        });
}

double AceAsync(Run& run, int producers, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    ACE_Message_Queue<ACE_MT_SYNCH> queue;
    // 256 event-sized messages, like the task's ring.
    queue.high_water_mark(256 * sizeof(TSEvent));
    queue.low_water_mark(256 * sizeof(TSEvent));
    Latch done;
    const long n = run.Iterations();
    return WithConsumer(
        run, producers, pinning, done,
        [&] {
            for (long i = 0; i < n; ++i) {
                ACE_Message_Block* block = nullptr;
                if (queue.dequeue_head(block) < 0) {
                    return;
                }
                block->release();
            }
            done.Set();
        },
        [&] {
            TSEvent event;
            ACE_Message_Block* block = new ACE_Message_Block(sizeof event);
            block->copy(reinterpret_cast<const char*>(&event), sizeof event);
            queue.enqueue_tail(block);
        },
        [&] { queue.deactivate(); });
}

class EventNotification : public Poco::Notification {
public:
    TSEvent event;
};

double PocoAsync(Run& run, int producers, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    Poco::NotificationQueue queue;
    Latch done;
    const long n = run.Iterations();
    return WithConsumer(
        run, producers, pinning, done,
        [&] {
            for (long i = 0; i < n; ++i) {
                Poco::AutoPtr<Poco::Notification> note(queue.waitDequeueNotification());
                if (note.isNull()) {
                    return;
                }
            }
            done.Set();
        },
        [&] { queue.enqueueNotification(new EventNotification); }, [&] { queue.wakeUpAll(); });
}

// A ring of 256 under a mutex with two conditions, notified on every put
// and get: what a user writes by hand.
class PlainRing {
public:
    void Put(const TSEvent& event) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_notFull.wait(lock, [this] { return m_count < 256; });
        m_slots[(m_head + m_count) % 256] = event;
        ++m_count;
        lock.unlock();
        m_notEmpty.notify_one();
    }
    void Get(TSEvent* event) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_notEmpty.wait(lock, [this] { return m_count > 0; });
        *event = m_slots[m_head];
        m_head = (m_head + 1) % 256;
        --m_count;
        lock.unlock();
        m_notFull.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    TSEvent m_slots[256];
    int m_head = 0;
    int m_count = 0;
};

// The same ring, but a side is woken only when it sleeps and the reader
// takes everything queued under one lock: the least a blocking queue of
// copied events costs on this machine.
class BatchedRing {
public:
    void Put(const TSEvent& event) {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_count == 256) {
            ++m_fullWaiters;
            m_notFull.wait(lock);
            --m_fullWaiters;
        }
        m_slots[(m_head + m_count) % 256] = event;
        ++m_count;
        const bool wake = m_readerSleeps;
        m_readerSleeps = false;
        lock.unlock();
        if (wake) {
            m_notEmpty.notify_one();
        }
    }
    // Takes every queued event; returns how many.
    int GetAll(TSEvent* events) {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_count == 0) {
            m_readerSleeps = true;
            m_notEmpty.wait(lock);
        }
        const int taken = m_count;
        for (int i = 0; i < taken; ++i) {
            events[i] = m_slots[(m_head + i) % 256];
        }
        m_head = (m_head + taken) % 256;
        m_count = 0;
        const bool wake = m_fullWaiters > 0;
        lock.unlock();
        if (wake) {
            m_notFull.notify_all();
        }
        return taken;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    TSEvent m_slots[256];
    int m_head = 0;
    int m_count = 0;
    int m_fullWaiters = 0;
    bool m_readerSleeps = false;
};

double PlainRingAsync(Run& run, int producers, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    PlainRing ring;
    Latch done;
    const long n = run.Iterations();
    return WithConsumer(
        run, producers, pinning, done,
        [&] {
            TSEvent event;
            for (long i = 0; i < n; ++i) {
                ring.Get(&event);
            }
            done.Set();
        },
        [&] { ring.Put(TSEvent()); }, kNothing);
}

double BatchedRingAsync(Run& run, int producers, Placement placement) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    BatchedRing ring;
    Latch done;
    const long n = run.Iterations();
    return WithConsumer(
        run, producers, pinning, done,
        [&] {
            std::vector<TSEvent> events(256);
            for (long got = 0; got < n;) {
                got += ring.GetAll(events.data());
            }
            done.Set();
        },
        [&] { ring.Put(TSEvent()); }, kNothing);
}

// ---- synchronous round trip ---------------------------------------------------

// `table`: whether the table of synchronous sends exists; `watchdogMs` 0: no
// watchdog scanning.
double LegacySync(Run& run, Placement placement, bool table, unsigned long watchdogMs) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    LegacyTask legacy;
    if (!table) {
        TCSyncDet::Destroy();
    }
    pinning.Consumer();
    if (!legacy.Start("bench-sync", run)) {
        return 0;
    }
    pinning.Producers();
    CIM::TCCIMWatchdog watchdog;
    if (watchdogMs > 0) {
        watchdog.Start(watchdogMs, 1000, 1000);
    }
    TSEvent event;
    event.receiver = &legacy.handler;
    event.type = 10;
    const long n = run.Iterations();
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        TCTask::Send(&event, true, false);
    }
    const double seconds = SecondsSince(start);
    if (legacy.handler.count != n) {
        run.Fail("not every synchronous send was executed");
    }
    watchdog.Stop();  // before the core goes
    return seconds;
}

double DesignSync(Run& run, Placement placement, bool table) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    design::Queue queue;
    design::SyncTable syncTable;
    design::CountingHandler handler;
    handler.queue = &queue;
    pinning.Consumer();
    std::thread receiver([&] {
        ::prctl(PR_SET_NAME, "bench-design");
        design::Event event;
        for (;;) {
            queue.Get(&event);
            const bool stop = event.words[0] == 1;
            design::Queue::Execute(event);
            if (stop) {
                return;
            }
        }
    });
    pinning.Producers();
    const unsigned long receiverId = (unsigned long)receiver.native_handle();
    design::Event event;
    event.receiver = &handler;
    event.words[0] = 10;
    const long n = run.Iterations();
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        const int index = table ? syncTable.Add(receiverId, "bench-design") : -1;
        design::Send(event, true);
        if (index >= 0) {
            syncTable.Remove(index);
        }
    }
    const double seconds = SecondsSince(start);
    design::Event stop;
    stop.words[0] = 1;
    queue.Put(stop, false);
    receiver.join();
    return seconds;
}

// Two threads taking turns, `call` here and `echo` there, n times each.
template <class Echo, class Call>
double PingPong(Run& run, Placement placement, Echo echo, Call call) {
    Pinning pinning(placement);
    if (!pinning.Usable(run)) {
        return 0;
    }
    const long n = run.Iterations();
    pinning.Consumer();
    std::thread other([&] {
        for (long i = 0; i < n; ++i) {
            echo();
        }
    });
    pinning.Producers();
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < n; ++i) {
        call();
    }
    const double seconds = SecondsSince(start);
    other.join();
    return seconds;
}

long Futex(std::atomic<int>* word, int op, int value) {
    return ::syscall(SYS_futex, reinterpret_cast<int*>(word), op, value, nullptr, nullptr, 0);
}

double FutexPingPong(Run& run, Placement placement) {
    std::atomic<int> turn(0);
    return PingPong(
        run, placement,
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

double MutexPingPong(Run& run, Placement placement) {
    std::mutex mutex;
    std::condition_variable changed;
    int turn = 0;
    return PingPong(
        run, placement,
        [&] {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return turn == 1; });
            turn = 0;
            lock.unlock();
            changed.notify_all();
        },
        [&] {
            std::unique_lock<std::mutex> lock(mutex);
            turn = 1;
            changed.notify_all();
            changed.wait(lock, [&] { return turn == 0; });
        });
}

const bool kRegistered = [] {
    const Placement placements[] = {Placement::kUnpinned, Placement::kOneCore,
                                    Placement::kTwoCores};
    for (int producers : {1, 4}) {
        for (Placement placement : placements) {
            const std::string group =
                "legacy asynchronous send throughput, " + std::to_string(producers) +
                (producers == 1 ? " producer, " : " producers, ") + PlacementName(placement);
            const long n = kAsyncMessages;
            Register(group, "TCTask::Send, asynchronous, to a running task", Role::kCimcore, n,
                     [=](Run& run) { return LegacyAsync(run, producers, placement); });
            Register(group, "global-lock semaphores, semaphore mutex, ring of 256",
                     Role::kDesignFloor, n,
                     [=](Run& run) { return DesignAsync(run, producers, placement); });
            Register(group, "ACE_Message_Queue<ACE_MT_SYNCH>, 256 events", Role::kPeer, n,
                     [=](Run& run) { return AceAsync(run, producers, placement); });
            Register(group, "Poco::NotificationQueue (unbounded)", Role::kPeer, n,
                     [=](Run& run) { return PocoAsync(run, producers, placement); });
            Register(group, "mutex/condition ring of 256", Role::kPeer, n,
                     [=](Run& run) { return PlainRingAsync(run, producers, placement); });
            Register(group, "ring of 256, wakes only a sleeper, reader takes all",
                     Role::kMachineFloor, n,
                     [=](Run& run) { return BatchedRingAsync(run, producers, placement); });
        }
    }
    for (Placement placement : placements) {
        const std::string group =
            std::string("legacy synchronous send round trip, ") + PlacementName(placement);
        const long n = kRoundTrips;
        Register(group, "TCTask::Send, synchronous, with the sync-send table", Role::kCimcore, n,
                 [=](Run& run) { return LegacySync(run, placement, true, 0); });
        Register(group, "TCTask::Send, synchronous, without the table", Role::kCimcore, n,
                 [=](Run& run) { return LegacySync(run, placement, false, 0); });
        if (placement == Placement::kUnpinned) {
            Register(group, "TCTask::Send, synchronous, table, watchdog every 1 ms", Role::kCimcore,
                     n, [=](Run& run) { return LegacySync(run, placement, true, 1); });
        }
        Register(group, "global-lock semaphores, semaphore mutex, with a table", Role::kDesignFloor,
                 n, [=](Run& run) { return DesignSync(run, placement, true); });
        Register(group, "global-lock semaphores, semaphore mutex, without", Role::kDesignFloor, n,
                 [=](Run& run) { return DesignSync(run, placement, false); });
        Register(group, "mutex/condition ping-pong", Role::kPeer, n,
                 [=](Run& run) { return MutexPingPong(run, placement); });
        Register(group, "futex ping-pong", Role::kMachineFloor, n,
                 [=](Run& run) { return FutexPingPong(run, placement); });
    }
    return true;
}();

}  // namespace

void EndLegacyTask(TCTask& task) {
    TSEvent exit;
    exit.receiver = &task;
    exit.type = 0;
    TCTask::Send(&exit, false, false);
    task.Destroy();
}

}  // namespace cimbench
