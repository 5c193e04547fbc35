#include <cimcore/CIMSemaphore.h>

namespace CIM {

TCCIMSemaphore::TCCIMSemaphore(int initialCount) : m_count(initialCount) {}

TCCIMSemaphore::~TCCIMSemaphore() = default;

void TCCIMSemaphore::Take() {
    std::unique_lock<std::mutex> lock(m_mutex);
    // A wake-up may find the unit already taken by another thread: test again.
    while (m_count < 1) {
        m_condition.wait(lock);
    }
    --m_count;
}

bool TCCIMSemaphore::Try() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_count > 0) {
        --m_count;
        return true;
    }
    return false;
}

void TCCIMSemaphore::Give() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count;
    m_condition.notify_one();
}

}  // namespace CIM
