// Holds a legacy mutex for a scope, so that an early return cannot leave it
// locked.
#ifndef CIMCORE_SRC_LSC_MUTEXGUARD_H
#define CIMCORE_SRC_LSC_MUTEXGUARD_H

#include <cimcore/internal/lsc/Thread.h>

// Unlock and Lock let a loop go of the mutex across a wait; the destructor
// unlocks only if held.
class TCMutexGuard {
public:
    explicit TCMutexGuard(TCMutex& mutex) : m_mutex(mutex) { Lock(); }
    ~TCMutexGuard() {
        if (m_held) {
            Unlock();
        }
    }
    TCMutexGuard(const TCMutexGuard&) = delete;
    TCMutexGuard& operator=(const TCMutexGuard&) = delete;

    void Lock() {
        m_mutex.Lock();
        m_held = true;
    }
    void Unlock() {
        m_held = false;
        m_mutex.Unlock();
    }

private:
    TCMutex& m_mutex;
    bool m_held = false;
};

#endif
