// The modern runtime's counting semaphore.
#ifndef CIMCORE_CIMSEMAPHORE_H
#define CIMCORE_CIMSEMAPHORE_H

#include <cimcore/Export.h>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace CIM {

// A counting semaphore without time-out and without upper limit. The count
// may start at zero or below: TCCIMSemaphore(-2) needs three Give() calls
// before a Take() returns. Any thread may call any operation. Each Give()
// wakes at most one waiter. Destroying a semaphore that threads still wait on
// is a usage error: waiters are not woken.
class CIM_EXPORT TCCIMSemaphore {
public:
    explicit TCCIMSemaphore(int initialCount);
    ~TCCIMSemaphore();
    TCCIMSemaphore(const TCCIMSemaphore&) = delete;
    TCCIMSemaphore& operator=(const TCCIMSemaphore&) = delete;

    // Waits, without limit and not interruptibly, until a unit is available,
    // then takes it.
    void Take();
    // Takes a unit if one is available; never waits.
    bool Try();
    // Returns one unit and wakes one waiter.
    void Give();

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    int32_t m_count;  // guarded by m_mutex
};

}  // namespace CIM

#endif
