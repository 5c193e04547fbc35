// A scoped lock that logs slow locking.
#ifndef CIMCORE_CICORETRACELOCK_H
#define CIMCORE_CICORETRACELOCK_H

#include <cimcore/Export.h>
#include <mutex>
#include <string>

namespace CIM {

// Locks a recursive mutex for the lifetime of the object and, on release,
// logs an "AUTOLOCK ERROR" line when the owner waited more than 50 ms for the
// lock or held it (waiting included) more than 300 ms, counted in
// TCCIMTime::Tick() units. Used by one thread on its stack.
class CIM_EXPORT TCCICoreTraceLock {
public:
    TCCICoreTraceLock(std::recursive_mutex& mutex, int line, const char* file,
                      const char* function);
    virtual ~TCCICoreTraceLock();
    TCCICoreTraceLock(const TCCICoreTraceLock&) = delete;
    TCCICoreTraceLock& operator=(const TCCICoreTraceLock&) = delete;

    // "function:file:line". A null text ends the string there.
    std::string m_GetTrace(int line, const char* file, const char* function) const;

private:
    std::string m_trace;
    unsigned long m_startTime;
    std::unique_lock<std::recursive_mutex> m_lock;
    unsigned long m_lockedTime;
};

}  // namespace CIM

#endif
