// Time values and clocks of the modern runtime.
#ifndef CIMCORE_CIMTIME_H
#define CIMCORE_CIMTIME_H

#include <cimcore/Export.h>
#include <cstdint>
#include <ctime>
#include <string>

#include <pthread.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>

// Exported, zero at load. No operation of this library reads or writes it.
extern CIM_EXPORT int64_t gTimeOffset;

// The one process-wide mutex under which every legacy semaphore operation
// runs. Statically zero-initialised (a default mutex).
extern CIM_EXPORT pthread_mutex_t TimeMutex;

namespace CIM {

// A broken-down calendar time as users fill it in. No time zone applies.
struct CIM_EXPORT TSDateTimeComponents {
    int32_t year;    // full year, 1400 to 9999
    int32_t month;   // 1 to 12
    int32_t day;     // 1 to 31
    int32_t hour;    // 0 to 23
    int32_t minute;  // 0 to 59
    int32_t second;  // 0 to 59
};

// A calendar point in time with microsecond resolution and no time zone:
// every conversion is naive, and seconds since 1970 are counted as if the
// value were UTC.
//
// Comparisons work on whole seconds: two values within the same second are
// equal. Construction from out-of-range fields throws Boost.DateTime's own
// exceptions (day, then month, then year, then the day's validity).
struct CIM_EXPORT TSCIMTime {
    TSCIMTime();  // 1970-01-01 00:00:00
    TSCIMTime(const long& secondsSinceEpoch);
    TSCIMTime(const tm& t);
    // Normalises the fields through the system's mktime first, so 2023-02-29
    // becomes 2023-03-01 and 61 seconds roll into the next minute.
    TSCIMTime(const TSDateTimeComponents& components);

    long SecondsSinceEpoch() const;
    TSDateTimeComponents DateTimeComponents() const;
    tm TimeStructure() const;

    bool operator>(const TSCIMTime& other) const;
    bool operator<(const TSCIMTime& other) const;
    bool operator>=(const TSCIMTime& other) const;
    bool operator<=(const TSCIMTime& other) const;
    bool operator==(const TSCIMTime& other) const;

    boost::posix_time::ptime m_time;
};

// "[2024-3-5] [7:4:9]": plain decimal numbers, no padding.
CIM_EXPORT std::string ToString(const TSDateTimeComponents& components);
CIM_EXPORT std::string ToString(const TSCIMTime& time);

class CIM_EXPORT TCCIMTime {
public:
    // Blocks the calling thread for at least `milliseconds` on the monotonic
    // clock. An interruption point of Boost.Thread.
    static void Sleep(unsigned long milliseconds);

    // Milliseconds from the process-times clock, in steps of one clock tick
    // (10 ms at 100 ticks per second). Counted in 32 bits: it wraps at 2^32,
    // so differences of two ticks must be taken as 32-bit unsigned values.
    static unsigned long Tick();
};

// A scope timer: logs an error line when the scope took longer than
// `threshold` milliseconds of Tick(). Used on one thread's stack.
class CIM_EXPORT TCAutoTimeoutDebug {
public:
    TCAutoTimeoutDebug(const std::string& name, const unsigned long& threshold);
    ~TCAutoTimeoutDebug();
    TCAutoTimeoutDebug(const TCAutoTimeoutDebug&) = delete;
    TCAutoTimeoutDebug& operator=(const TCAutoTimeoutDebug&) = delete;

private:
    std::string m_name;
    unsigned long m_threshold;
    unsigned long m_startTime;
};

// The difference of two Tick() values, correct across a wrap of the counter.
inline unsigned long TickDiff(unsigned long later, unsigned long earlier) {
    return static_cast<uint32_t>(static_cast<uint32_t>(later) - static_cast<uint32_t>(earlier));
}

}  // namespace CIM

#endif
