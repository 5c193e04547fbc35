// Threads, semaphores and mutexes of the legacy task runtime.
//
// Every object here has a two-phase life: the constructor leaves it not
// created, Create makes it usable, Destroy returns it to not created, and
// FlagCreate() tells which. Using an object that is not created, or creating
// one twice, is reported through CIM::_TCCIMAssert, not as an error result.
//
// Every Destroy of the task hierarchy (TCMutex, TCQueue, TCThread, TCHandler,
// TCTask) returns bool so that a class deriving from several of them can
// override all with one function; only the handler's answer carries meaning.
#ifndef CIMCORE_INTERNAL_LSC_THREAD_H
#define CIMCORE_INTERNAL_LSC_THREAD_H

#include <cimcore/Export.h>
#include <atomic>
#include <cstdint>

#include <pthread.h>

// A counting semaphore. Every operation of every semaphore in the process
// runs under the one global TimeMutex: that single lock is deliberate, so a
// semaphore has no mutex of its own.
//
// Any thread may call any operation once it is created. The owner must call
// Destroy before the object is deleted (the destructor asserts otherwise).
// Destroy does not wake blocked waiters; they stay blocked, and the storage
// they wait on is then kept alive rather than freed under them.
class CIM_EXPORT TCSemaphore {
public:
    constexpr TCSemaphore() : m_block(nullptr) {}
    virtual ~TCSemaphore();
    virtual void Destroy();

    // Returns whether the semaphore now exists, with `count` units.
    bool Create(int count);
    // Waits without limit for a unit and takes it.
    void Take();
    // Takes a unit, waiting at most `timeout` ms against the wall clock; 0
    // waits without limit and so never returns false. A wake-up that finds
    // no unit (another taker was faster) starts the full time-out again.
    bool Try(unsigned long timeout);
    // Takes a unit if one is there; never waits.
    bool Poll();
    // Adds a unit (no ceiling) and wakes one waiter.
    void Give();

    bool FlagCreate() const { return m_block.load() != nullptr; }

    TCSemaphore(const TCSemaphore&) = delete;
    TCSemaphore& operator=(const TCSemaphore&) = delete;

private:
    struct Block;
    class TimeLock;
    // Requires `lock` held; returns the block. When the semaphore is not
    // created, lets go of `lock`, reports it for `function` and returns null.
    Block* m_LockedBlock(TimeLock& lock, const char* function);

    std::atomic<Block*> m_block;  // written under TimeMutex
};

// A mutex made from a semaphore of one unit, recursive per POSIX thread.
// An Unlock by a thread that does not hold it is refused (false). Unlike a
// semaphore it may be deleted while created.
class CIM_EXPORT TCMutex {
public:
    constexpr TCMutex() : m_owner(0), m_recursion(0) {}
    virtual ~TCMutex();
    virtual bool Destroy();

    bool Create();
    void Lock();
    bool Unlock();

    bool FlagCreate() const { return m_semaphore.FlagCreate(); }

    TCMutex(const TCMutex&) = delete;
    TCMutex& operator=(const TCMutex&) = delete;

private:
    TCSemaphore m_semaphore;
    std::atomic<pthread_t> m_owner;  // 0 when free
    int32_t m_recursion;             // touched by the owner only
};

// A detached thread whose body is t_Main.
//
// Create starts the thread; the body begins only once Create has finished.
// Destroy waits until the body has returned and does not stop it: the
// derived class must make t_Main return first. A thread may not destroy
// itself. The object must outlive its thread's body.
class CIM_EXPORT TCThread {
protected:
    // The body; its result is ignored. First of the virtual operations: the
    // stack's other libraries rely on this slot order.
    virtual int t_Main() = 0;

public:
    TCThread();
    virtual ~TCThread();
    // Waits for the body to end and destroys the semaphores. Returns false
    // only when called from the thread itself, which it refuses.
    virtual bool Destroy();

    // `threadname` is cut to 15 characters; a stack size the system refuses
    // leaves the default stack. False if a semaphore could not be made.
    bool Create(const char* threadname, unsigned long stackSize);
    // 0 raised (nice -10), 1 normal (0), 2 lowered (10); other values are
    // refused. Waits until the thread has published its kernel id.
    bool SetPriority(int priority);

    // The POSIX thread id; (pthread_t)-1 once the body has returned.
    pthread_t Id() const { return m_id.load(); }
    // The kernel thread id; -1 until the new thread has published it.
    int Tid() const { return m_tid.load(); }
    const char* Name() const { return m_name; }
    bool FlagCreate() const { return m_startSync.FlagCreate(); }

    TCThread(const TCThread&) = delete;
    TCThread& operator=(const TCThread&) = delete;

private:
    static void* _Process(void* object);

    std::atomic<pthread_t> m_id;
    std::atomic<int> m_tid;
    TCSemaphore m_pidSync;    // given once the kernel id is stored
    TCSemaphore m_startSync;  // lets the body start after Create
    TCSemaphore m_endSync;    // given when the body has returned
    char m_name[16];
};

// Operations on the calling thread.
class CIM_EXPORT TCThreadSelf {
public:
    // The mapping of TCThread::SetPriority, applied to the calling thread.
    static bool SetPriority(int priority);
    static pthread_t Id();
};

namespace CIM {

// Holds one unit of a semaphore for its scope.
class CIM_EXPORT TCAutoSemLock {
public:
    explicit TCAutoSemLock(TCSemaphore* semaphore);
    ~TCAutoSemLock();

    TCAutoSemLock(const TCAutoSemLock&) = delete;
    TCAutoSemLock& operator=(const TCAutoSemLock&) = delete;

private:
    TCSemaphore* m_semaphore;
};

}  // namespace CIM

#endif
