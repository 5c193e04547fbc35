// A recursive reader-writer lock of the legacy runtime.
#ifndef CIMCORE_INTERNAL_LSC_RWLOCK_H
#define CIMCORE_INTERNAL_LSC_RWLOCK_H

#include <cimcore/Export.h>
#include <atomic>
#include <cstdint>

#include <pthread.h>

// A reader-writer lock over the POSIX one that lets both kinds of holder
// lock again:
// - a reader may take the read lock again; the POSIX lock is taken at the
//   first RLock and given back at the matching last RUnlock;
// - the writer may take the write lock again, and may read: RLock and
//   RUnlock by the writer succeed and count nothing;
// - a read lock is never upgraded: WLock by a thread that holds read locks
//   is an assertion and returns false.
//
// Usable straight after construction; any thread may call anything. Unlock
// calls by a thread that holds nothing return false and change nothing.
//
// Each thread's read count lives on the heap under a thread-specific key that
// has no destructor: it is allocated at the thread's first read lock and is
// not freed when the thread exits. Only the destroying thread's own count is
// freed by the destructor. Destroy the lock when no thread holds it.
class CIM_EXPORT TCRWLock {
public:
    TCRWLock();
    virtual ~TCRWLock();
    TCRWLock(const TCRWLock&) = delete;
    TCRWLock& operator=(const TCRWLock&) = delete;

    bool RLock();
    bool RUnlock();
    bool WLock();
    bool WUnlock();

private:
    bool m_IsWriter() const;
    uint32_t* m_ReadCount() const;  // the caller's count, or null before its first RLock

    pthread_key_t m_readCountKey;
    pthread_rwlock_t m_lock;
    pthread_rwlockattr_t m_attr;
    // Written only by the thread that holds the POSIX write lock; read by
    // every thread, which only compares it with itself.
    std::atomic<pthread_t> m_writer;
    int32_t m_writeCount;  // touched only by the writer
};

#endif
