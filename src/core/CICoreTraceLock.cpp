#include <cimcore/CICoreTraceLock.h>

#include <cimcore/CIMTime.h>
#include <cimcore/internal/CIMLog.h>

#include <sstream>

namespace CIM {
namespace {

constexpr unsigned long kMaxWaitMs = 50;
constexpr unsigned long kMaxHoldMs = 300;

}  // namespace

TCCICoreTraceLock::TCCICoreTraceLock(std::recursive_mutex& mutex, int line, const char* file,
                                     const char* function)
    : m_trace(m_GetTrace(line, file, function)),
      m_startTime(TCCIMTime::Tick()),
      m_lock(mutex),
      m_lockedTime(TCCIMTime::Tick()) {}

TCCICoreTraceLock::~TCCICoreTraceLock() {
    const unsigned long now = TCCIMTime::Tick();
    const unsigned long diff1 = TickDiff(now, m_startTime);
    const unsigned long diff2 = TickDiff(m_lockedTime, m_startTime);
    if (diff2 > kMaxWaitMs || diff1 > kMaxHoldMs) {
        Log::Error("CICoreTraceLock.cpp", "~TCCICoreTraceLock", 50,
                   "AUTOLOCK ERROR: %s diff1(%lu) diff2(%lu) (%lu:%lu:%lu) ", m_trace.c_str(),
                   diff1, diff2, now, m_startTime, m_lockedTime);
    }
}

// Through a stream on purpose: a null text sets the stream's bad bit, so the
// rest of the trace is empty instead of an exception.
std::string TCCICoreTraceLock::m_GetTrace(int line, const char* file, const char* function) const {
    std::ostringstream trace;
    trace << function << ":" << file << ":" << line;
    return trace.str();
}

}  // namespace CIM
