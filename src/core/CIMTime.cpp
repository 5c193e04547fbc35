#include <cimcore/CIMTime.h>

#include <cimcore/internal/CIMLog.h>

#include <sstream>

#include <sys/times.h>
#include <unistd.h>

#include <boost/chrono.hpp>
#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/thread/thread.hpp>

namespace {
constexpr const char* kSourcePath = "src/core/CIMTime";
}  // namespace

int64_t gTimeOffset = 0;
pthread_mutex_t TimeMutex = PTHREAD_MUTEX_INITIALIZER;

namespace CIM {
namespace {

const boost::posix_time::ptime& Epoch() {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    return epoch;
}

// The date checks run day, month, year, then the day's validity. Each part
// is made on its own statement: as arguments of one date constructor their
// order would be the compiler's (it differs between x86-64 and ARM), and with
// it which error a bad tm reports.
boost::posix_time::ptime FromTm(const tm& t) {
    const boost::gregorian::greg_day day(static_cast<unsigned short>(t.tm_mday));
    const boost::gregorian::greg_month month(static_cast<unsigned short>(t.tm_mon + 1));
    const boost::gregorian::greg_year year(static_cast<unsigned short>(t.tm_year + 1900));
    const boost::gregorian::date date(year, month, day);
    return boost::posix_time::ptime(
        date, boost::posix_time::time_duration(t.tm_hour, t.tm_min, t.tm_sec));
}

}  // namespace

TSCIMTime::TSCIMTime() : TSCIMTime(0L) {}

TSCIMTime::TSCIMTime(const long& secondsSinceEpoch)
    : m_time(Epoch() + boost::posix_time::seconds(secondsSinceEpoch)) {}

TSCIMTime::TSCIMTime(const tm& t) : m_time(FromTm(t)) {}

TSCIMTime::TSCIMTime(const TSDateTimeComponents& c) {
    tm t = {};
    t.tm_year = c.year - 1900;
    t.tm_mon = c.month - 1;
    t.tm_mday = c.day;
    t.tm_hour = c.hour;
    t.tm_min = c.minute;
    t.tm_sec = c.second;
    t.tm_isdst = -1;
    // Only mktime's normalisation of the fields is wanted, not its result.
    // Where time_t is 32 bits it fails outside 1901..2038 and leaves the
    // fields as they were.
    (void)::mktime(&t);
    m_time = FromTm(t);
}

long TSCIMTime::SecondsSinceEpoch() const {
    return static_cast<long>((m_time - Epoch()).total_seconds());
}

TSDateTimeComponents TSCIMTime::DateTimeComponents() const {
    const tm t = boost::posix_time::to_tm(m_time);
    return TSDateTimeComponents{t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                                t.tm_hour,        t.tm_min,     t.tm_sec};
}

tm TSCIMTime::TimeStructure() const {
    return boost::posix_time::to_tm(m_time);
}

bool TSCIMTime::operator>(const TSCIMTime& other) const {
    return SecondsSinceEpoch() > other.SecondsSinceEpoch();
}

bool TSCIMTime::operator<(const TSCIMTime& other) const {
    return SecondsSinceEpoch() < other.SecondsSinceEpoch();
}

bool TSCIMTime::operator>=(const TSCIMTime& other) const {
    return SecondsSinceEpoch() >= other.SecondsSinceEpoch();
}

bool TSCIMTime::operator<=(const TSCIMTime& other) const {
    return SecondsSinceEpoch() <= other.SecondsSinceEpoch();
}

bool TSCIMTime::operator==(const TSCIMTime& other) const {
    return SecondsSinceEpoch() == other.SecondsSinceEpoch();
}

std::string ToString(const TSDateTimeComponents& c) {
    std::ostringstream text;
    text << "[" << c.year << "-" << c.month << "-" << c.day << "]"
         << " [" << c.hour << ":" << c.minute << ":" << c.second << "]";
    return text.str();
}

std::string ToString(const TSCIMTime& time) {
    return ToString(time.DateTimeComponents());
}

void TCCIMTime::Sleep(unsigned long milliseconds) {
    boost::this_thread::sleep_for(boost::chrono::milliseconds(milliseconds));
}

unsigned long TCCIMTime::Tick() {
    const clock_t t = ::times(nullptr);
    if (t == (clock_t)-1) {
        Log::AssertFailed("t != (clock_t) -1", kSourcePath, 193, "Tick");
        return 0;
    }
    // Dividing first is deliberate: at 100 ticks per second each tick counts
    // 10 ms; the counter wraps at 2^32 like the target's 32-bit one.
    const uint32_t msPerTick = static_cast<uint32_t>(1000 / ::sysconf(_SC_CLK_TCK));
    return static_cast<uint32_t>(msPerTick * static_cast<uint32_t>(t));
}

TCAutoTimeoutDebug::TCAutoTimeoutDebug(const std::string& name, const unsigned long& threshold)
    : m_name(name), m_threshold(threshold), m_startTime(TCCIMTime::Tick()) {}

TCAutoTimeoutDebug::~TCAutoTimeoutDebug() {
    const unsigned long endTime = TCCIMTime::Tick();
    const unsigned long diff = TickDiff(endTime, m_startTime);
    if (diff > m_threshold) {
        Log::Error("CIMTime.cpp", "~TCAutoTimeoutDebug", 234,
                   "%s endTime(%lu) - startTime(%lu) diff(%lu) > m_threshold(%lu)", m_name.c_str(),
                   endTime, m_startTime, diff, m_threshold);
    }
}

}  // namespace CIM
