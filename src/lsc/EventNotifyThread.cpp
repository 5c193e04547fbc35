#include <cimcore/internal/lsc/EventNotifyThread.h>

#include "LscCheck.h"

namespace {
constexpr const char* kSourcePath = "src/lsc/EventNotifyThread";
}  // namespace

TCEventNotifyThread::TCEventNotifyThread()
    : m_queue(nullptr), m_semaphore(nullptr), m_timeout(0), m_stop(false), m_running(false) {}

TCEventNotifyThread::~TCEventNotifyThread() {
    CIM_LSC_CHECK(FlagCreate() == false);
}

bool TCEventNotifyThread::Create(const char* name, TCQueue* queue, TCSemaphore* semaphore,
                                 unsigned int timeout) {
    // Checked here already: a running thread reads the fields below.
    if (!CIM_LSC_CHECK(FlagCreate() == false)) {
        return false;
    }
    m_stop.store(false);
    m_queue = queue;
    m_semaphore = semaphore;
    m_timeout = timeout;
    return TCThread::Create(name, kStackSize);
}

bool TCEventNotifyThread::Destroy() {
    if (!FlagCreate()) {
        return TCThread::Destroy();  // reports the misuse
    }
    m_stop.store(true);
    // A unit without an event behind it: wakes the thread from its wait.
    m_queue->Give();
    if (!TCThread::Destroy()) {
        return false;
    }
    m_queue = nullptr;
    m_semaphore = nullptr;
    return true;
}

bool TCEventNotifyThread::ExecuteEvent() {
    if (m_stop.load()) {
        return false;
    }
    if (m_queue->Try(m_timeout)) {
        m_semaphore->Give();
    }
    return true;
}

int TCEventNotifyThread::t_Main() {
    if (!CIM_LSC_CHECK(FlagCreate() == true)) {
        return 0;
    }
    m_running.store(true);
    while (ExecuteEvent()) {
    }
    m_running.store(false);
    return 0;
}
