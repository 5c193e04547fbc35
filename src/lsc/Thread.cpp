#include <cimcore/internal/lsc/Thread.h>

#include "LscCheck.h"

#include <cimcore/CIMDebug.h>
#include <cimcore/CIMTime.h>
#include <cimcore/internal/CIMLog.h>
#include <cimcore/internal/CIMThreadId.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

namespace {
constexpr const char* kSourcePath = "src/lsc/Thread";
}  // namespace

// m_block is read and written under TimeMutex, which orders it; only
// FlagCreate reads it without the lock. m_owner is only ever compared with
// the caller's own id, which only the caller stores there, so it needs no
// order either.
struct TCSemaphore::Block {
    pthread_cond_t condition;
    int32_t count;
    int waiters;  // threads inside a wait on `condition`
};

namespace {

// Blocks whose semaphore was destroyed while threads still waited on them.
// glibc's pthread_cond_destroy would block until those waiters woke, which
// they never do, so the block outlives its semaphore instead.
std::vector<void*>& AbandonedBlocks() {  // guarded by TimeMutex
    static std::vector<void*>* blocks = new std::vector<void*>;
    return *blocks;
}

bool NiceValueFor(int priority, int* nice) {
    switch (priority) {
        case 0:
            *nice = -10;
            return true;
        case 1:
            *nice = 0;
            return true;
        case 2:
            *nice = 10;
            return true;
        default:
            return false;
    }
}

}  // namespace

// ---- TCSemaphore -------------------------------------------------------------

// Holds TimeMutex for its scope, so no exit can leave every legacy semaphore
// of the process stopped. Unlock lets go early, before a report.
class TCSemaphore::TimeLock {
public:
    TimeLock() { pthread_mutex_lock(&TimeMutex); }
    ~TimeLock() {
        if (m_held) {
            pthread_mutex_unlock(&TimeMutex);
        }
    }
    TimeLock(const TimeLock&) = delete;
    TimeLock& operator=(const TimeLock&) = delete;
    void Unlock() {
        pthread_mutex_unlock(&TimeMutex);
        m_held = false;
    }

private:
    bool m_held = true;
};

TCSemaphore::~TCSemaphore() {
    if (!CIM_LSC_CHECK(FlagCreate() == false)) {
        Destroy();  // only reached when the report returns
    }
}

bool TCSemaphore::Create(int count) {
    // Made before taking TimeMutex, which every legacy semaphore of the
    // process waits for; only the check and the publication need it.
    Block* block = new (std::nothrow) Block;
    if (block != nullptr) {
        if (pthread_cond_init(&block->condition, nullptr) == 0) {
            block->count = count;
            block->waiters = 0;
        } else {
            delete block;
            block = nullptr;
        }
    }
    TimeLock lock;
    if (m_block.load(std::memory_order_relaxed) != nullptr) {
        lock.Unlock();
        if (block != nullptr) {
            pthread_cond_destroy(&block->condition);
            delete block;
        }
        CIM_LSC_EXPECT(false, "FlagCreate() == false");
        return false;
    }
    m_block.store(block, std::memory_order_release);
    return block != nullptr;
}

TCSemaphore::Block* TCSemaphore::m_LockedBlock(TimeLock& lock, const char* function) {
    Block* block = m_block.load(std::memory_order_relaxed);
    if (block == nullptr) {
        lock.Unlock();
        CIM::Log::AssertFailed("FlagCreate() == true", kSourcePath, __LINE__, function);
    }
    return block;
}

void TCSemaphore::Destroy() {
    TimeLock lock;
    Block* block = m_LockedBlock(lock, __func__);
    if (block == nullptr) {
        return;
    }
    m_block.store(nullptr, std::memory_order_release);
    if (block->waiters != 0) {
        AbandonedBlocks().push_back(block);
        return;
    }
    // Unreachable from here on: freed outside TimeMutex.
    lock.Unlock();
    pthread_cond_destroy(&block->condition);
    delete block;
}

void TCSemaphore::Take() {
    TimeLock lock;
    Block* block = m_LockedBlock(lock, __func__);
    if (block == nullptr) {
        return;
    }
    while (block->count <= 0) {
        ++block->waiters;
        pthread_cond_wait(&block->condition, &TimeMutex);  // lets go of `lock` while it waits
        --block->waiters;
    }
    --block->count;
}

bool TCSemaphore::Try(unsigned long timeout) {
    if (timeout == 0) {
        if (!CIM_LSC_CHECK(FlagCreate() == true)) {
            return false;
        }
        Take();
        return true;
    }
    const long wholeSeconds = static_cast<long>(timeout / 1000);
    const long remainderUs = static_cast<long>(timeout % 1000 * 1000);

    TimeLock lock;
    Block* block = m_LockedBlock(lock, __func__);
    if (block == nullptr) {
        return false;
    }
    for (;;) {
        if (block->count > 0) {
            --block->count;
            return true;
        }
        // The deadline is taken afresh on every wake-up: a waiter overtaken
        // by another taker starts its full time-out again. Kept on purpose.
        timeval now;
        if (gettimeofday(&now, nullptr) != 0) {
            return false;
        }
        time_t seconds = now.tv_sec + wholeSeconds;
        long micros = now.tv_usec + remainderUs;
        // Strictly greater on purpose: a sum of exactly 1000000 makes the
        // deadline invalid (EINVAL), and the wait then fails at once.
        while (micros > 1000000) {
            micros -= 1000000;
            ++seconds;
        }
        timespec deadline;
        deadline.tv_sec = seconds;
        deadline.tv_nsec = micros * 1000;
        ++block->waiters;
        // Lets go of `lock` while it waits.
        const int result = pthread_cond_timedwait(&block->condition, &TimeMutex, &deadline);
        --block->waiters;
        if (result != 0) {
            return false;
        }
    }
}

bool TCSemaphore::Poll() {
    TimeLock lock;
    Block* block = m_block.load(std::memory_order_relaxed);
    if (block == nullptr || block->count <= 0) {
        return false;
    }
    --block->count;
    return true;
}

void TCSemaphore::Give() {
    TimeLock lock;
    Block* block = m_LockedBlock(lock, __func__);
    if (block == nullptr) {
        return;
    }
    ++block->count;
    // Signalled under TimeMutex: the woken thread cannot return (and free
    // the block, as a synchronous sender does) before this call is done.
    // Every thread inside a wait is counted until it has the lock again, so
    // skipping the signal when none is counted loses no wake-up.
    if (block->waiters > 0) {
        pthread_cond_signal(&block->condition);
    }
}

// ---- TCMutex -------------------------------------------------------------------

TCMutex::~TCMutex() {
    // Unlike a semaphore, a mutex may be deleted while created.
    if (m_semaphore.FlagCreate()) {
        m_semaphore.Destroy();
    }
}

bool TCMutex::Create() {
    if (!CIM_LSC_CHECK(FlagCreate() == false)) {
        return false;
    }
    m_owner.store(0, std::memory_order_relaxed);
    m_recursion = 0;
    return m_semaphore.Create(1);
}

bool TCMutex::Destroy() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    m_semaphore.Destroy();
    m_owner.store(0, std::memory_order_relaxed);
    m_recursion = 0;
    return true;
}

void TCMutex::Lock() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return;
    }
    const pthread_t self = pthread_self();
    if (m_owner.load(std::memory_order_relaxed) == self) {
        ++m_recursion;
        return;
    }
    m_semaphore.Take();
    m_owner.store(self, std::memory_order_relaxed);
    m_recursion = 1;
}

bool TCMutex::Unlock() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (m_owner.load(std::memory_order_relaxed) != pthread_self()) {
        return false;
    }
    if (--m_recursion > 0) {
        return true;
    }
    m_owner.store(0, std::memory_order_relaxed);
    m_semaphore.Give();
    return true;
}

// ---- TCThread ------------------------------------------------------------------

TCThread::TCThread() : m_id(0), m_tid(-1), m_name() {}

TCThread::~TCThread() {}

bool TCThread::Create(const char* threadname, unsigned long stackSize) {
    if (!CIM_LSC_CHECK(FlagCreate() == false) || !CIM_LSC_CHECK(threadname != NULL)) {
        return false;
    }
    if (!m_startSync.Create(0)) {
        return false;
    }
    if (!m_endSync.Create(0)) {
        m_startSync.Destroy();
        return false;
    }
    CopyName(m_name, sizeof m_name, threadname);

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // A size the system refuses leaves the default stack, on purpose.
    pthread_attr_setstacksize(&attributes, stackSize);

    m_tid.store(-1);
    if (!m_pidSync.Create(0)) {
        m_startSync.Destroy();
        m_endSync.Destroy();
        pthread_attr_destroy(&attributes);
        CIM_LOG_ERROR_HERE("Thread.cpp", "Create",
                           "[CSP]: ERROR: TCThread::Create() : m_pidSync Create Error");
        return false;
    }

    pthread_t id;
    const int result = pthread_create(&id, &attributes, &TCThread::_Process, this);
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        CIM::Log::AssertFailedWithMessage("0", kSourcePath, __LINE__, __func__,
                                          "TCThread not created: errno = %d\n", result);
        m_startSync.Destroy();
        m_endSync.Destroy();
        m_pidSync.Destroy();
        return false;
    }
    m_id.store(id);
    m_startSync.Give();
    return true;
}

bool TCThread::Destroy() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (!CIM_LSC_CHECK(TCThreadSelf::Id() != Id())) {
        // Waiting here would wait for ever; the object stays created.
        CIM_LOG_ERROR_HERE("Thread.cpp", "Destroy",
                           "Assert Error : Current Thread can't destroy itself");
        m_pidSync.Destroy();
        return false;
    }
    m_endSync.Take();
    m_startSync.Destroy();
    m_endSync.Destroy();
    m_pidSync.Destroy();
    return true;
}

bool TCThread::SetPriority(int priority) {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return false;
    }
    if (m_tid.load() == -1) {
        m_pidSync.Take();
    }
    int nice = 0;
    if (!NiceValueFor(priority, &nice)) {
        return false;
    }
    return setpriority(PRIO_PROCESS, static_cast<id_t>(m_tid.load()), nice) == 0;
}

void* TCThread::_Process(void* object) {
    TCThread* thread = static_cast<TCThread*>(object);
    thread->m_startSync.Take();
    thread->m_tid.store(CIM::CurrentKernelThreadId());
    thread->m_pidSync.Give();
    if (thread->m_name[0] != '\0') {
        prctl(PR_SET_NAME, thread->m_name, 0, 0, 0);
    }
    thread->t_Main();
    thread->m_id.store(static_cast<pthread_t>(-1));
    // After this give the owner may destroy and delete the object.
    thread->m_endSync.Give();
    return nullptr;
}

// ---- TCThreadSelf --------------------------------------------------------------

bool TCThreadSelf::SetPriority(int priority) {
    int nice = 0;
    if (!NiceValueFor(priority, &nice)) {
        return false;
    }
    return setpriority(PRIO_PROCESS, static_cast<id_t>(CIM::CurrentKernelThreadId()), nice) == 0;
}

pthread_t TCThreadSelf::Id() {
    return pthread_self();
}

// ---- CIM::TCAutoSemLock --------------------------------------------------------

namespace CIM {

TCAutoSemLock::TCAutoSemLock(TCSemaphore* semaphore) : m_semaphore(semaphore) {
    m_semaphore->Take();
}

TCAutoSemLock::~TCAutoSemLock() {
    m_semaphore->Give();
}

}  // namespace CIM
