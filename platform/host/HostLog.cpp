// Host platform log: one line per call, and lines of concurrent threads never
// interleave, whatever their length.
//
//   MM-DD HH:MM:SS.mmm P/TAG(PID:TID): message
//
// CIM_LOG_OUTPUT picks the destination, read once (HostControl.h): unset or
// "stderr", "file:PATH" (appended), "syslog" or "none".
#include "dlog.h"

#include "HostControl.h"
#include "HostTags.h"

#include <cimcore/internal/CIMFormat.h>
#include <cimcore/internal/CIMThreadId.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {

char PriorityLetter(int prio) {
    switch (prio) {
        case DLOG_VERBOSE:
            return 'V';
        case DLOG_DEBUG:
            return 'D';
        case DLOG_INFO:
            return 'I';
        case DLOG_WARN:
            return 'W';
        case DLOG_ERROR:
            return 'E';
        case DLOG_FATAL:
            return 'F';
        default:
            return '?';
    }
}

int SyslogLevel(int prio) {
    switch (prio) {
        case DLOG_VERBOSE:
        case DLOG_DEBUG:
            return LOG_DEBUG;
        case DLOG_INFO:
            return LOG_INFO;
        case DLOG_WARN:
            return LOG_WARNING;
        case DLOG_ERROR:
            return LOG_ERR;
        case DLOG_FATAL:
            return LOG_CRIT;
        default:
            return LOG_NOTICE;
    }
}

// Writes the whole buffer; a short write is continued, EINTR retried.
bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= size_t(written);
    }
    return true;
}

// A write to a pipe is atomic only up to PIPE_BUF (4096 bytes) and a longer
// one may be split and continued: lines of this process go out one at a time.
bool WriteWholeLineToStderr(const char* line, size_t size) {
    static std::mutex* mutex = new std::mutex;  // never destroyed: threads may log during exit
    std::lock_guard<std::mutex> lock(*mutex);
    return WriteAll(STDERR_FILENO, line, size);
}

// The log file stays open while the destination names the same path, and is
// reopened when PATH no longer names it (removed, or renamed away by log
// rotation); that is checked once a second, not at every line.
class LogFile {
public:
    bool Append(const char* path, const char* line, size_t size, time_t now) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fd < 0 || m_path != path || (now != m_checked && !IsStillAt(path))) {
            Reopen(path);
        }
        m_checked = now;
        return m_fd >= 0 && WriteAll(m_fd, line, size);
    }

private:
    // requires m_mutex held
    bool IsStillAt(const char* path) const {
        struct stat open, named;
        return ::fstat(m_fd, &open) == 0 && open.st_nlink > 0 && ::stat(path, &named) == 0 &&
               open.st_dev == named.st_dev && open.st_ino == named.st_ino;
    }

    // requires m_mutex held
    void Reopen(const char* path) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        do {
            m_fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        } while (m_fd < 0 && errno == EINTR);
        m_path = path;
    }

    std::mutex m_mutex;
    std::string m_path;    // guarded by m_mutex
    int m_fd = -1;         // guarded by m_mutex
    time_t m_checked = 0;  // guarded by m_mutex
};

LogFile& TheLogFile() {
    static LogFile* file = new LogFile;  // never destroyed: threads may log during exit
    return *file;
}

// The process id costs a system call; it is kept, and forgotten in the child
// of a fork, where it changes. The thread id is cached the same way.
std::atomic<long> gPid(0);

void ForgetPidAfterFork() {
    gPid.store(0);
}

long ProcessId() {
    static const int registered = ::pthread_atfork(nullptr, nullptr, ForgetPidAfterFork);
    (void)registered;
    long pid = gPid.load();
    if (pid == 0) {
        pid = long(::getpid());
        gPid.store(pid);
    }
    return pid;
}

// "MM-DD HH:MM:SS" of a second, kept per thread: localtime_r takes a lock
// inside the C library, and a thread logs many lines in one second.
const char* LocalSecond(time_t second) {
    thread_local time_t cachedSecond = -1;
    thread_local char text[15];
    if (second != cachedSecond) {
        struct tm local = {};
        ::localtime_r(&second, &local);
        char* out = text;
        out = CIM::PutDigits(out, (unsigned long)(local.tm_mon + 1), 2);
        *out++ = '-';
        out = CIM::PutDigits(out, (unsigned long)local.tm_mday, 2);
        *out++ = ' ';
        out = CIM::PutDigits(out, (unsigned long)local.tm_hour, 2);
        *out++ = ':';
        out = CIM::PutDigits(out, (unsigned long)local.tm_min, 2);
        *out++ = ':';
        out = CIM::PutDigits(out, (unsigned long)local.tm_sec, 2);
        *out = '\0';
        cachedSecond = second;
    }
    return text;
}

// "MM-DD HH:MM:SS.mmm P/TAG(PID:TID): " into `out`, which holds at least
// kHeaderMax bytes; returns its length.
constexpr size_t kHeaderMax = 127;

size_t PutLineHeader(char* out, int prio, const char* tag, size_t tagSize,
                     const struct timeval& now) {
    char* const begin = out;
    std::memcpy(out, LocalSecond(now.tv_sec), 14);
    out += 14;
    *out++ = '.';
    out = CIM::PutDigits(out, (unsigned long)(now.tv_usec / 1000), 3);
    *out++ = ' ';
    *out++ = PriorityLetter(prio);
    *out++ = '/';
    // The header has always been cut at 127 bytes: a tag too long for it
    // loses its end, and the ids with it.
    const size_t room = kHeaderMax - size_t(out - begin);
    if (tagSize >= room) {
        std::memcpy(out, tag, room);
        return kHeaderMax;
    }
    std::memcpy(out, tag, tagSize);
    out += tagSize;
    char ids[48];
    char* end = ids;
    *end++ = '(';
    end = CIM::PutLong(end, ProcessId());
    *end++ = ':';
    end = CIM::PutLong(end, CIM::CurrentKernelThreadId());
    *end++ = ')';
    *end++ = ':';
    *end++ = ' ';
    const size_t idsSize = std::min(size_t(end - ids), kHeaderMax - size_t(out - begin));
    std::memcpy(out, ids, idsSize);
    return size_t(out - begin) + idsSize;
}

// The library hands over finished lines as "%s" and one text: that text is
// taken as it is, not formatted again.
bool IsPlainText(const char* fmt) {
    return fmt[0] == '%' && fmt[1] == 's' && fmt[2] == '\0';
}

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
    (void)log_id;
    if (tag == nullptr || fmt == nullptr) {
        return -1;
    }
    if (cimhost::IsTagStopped(tag)) {
        return 0;
    }
    const std::shared_ptr<const std::string> destination =
        cimhost::SharedSetting(cimhost::EHostSetting::LOG_OUTPUT);
    const char* output = destination->c_str();
    if (std::strcmp(output, "none") == 0) {
        return 0;
    }

    char small[512];
    std::string large;
    const char* message;
    va_list args;
    va_start(args, fmt);
    if (IsPlainText(fmt)) {
        message = va_arg(args, const char*);
        if (message == nullptr) {
            message = "(null)";  // what printf writes for it
        }
    } else {
        message = CIM::FormatV(small, sizeof small, large, fmt, args);
        if (message == nullptr) {
            message = "";
        }
    }
    va_end(args);
    size_t messageSize = std::strlen(message);
    if (messageSize > 0 && message[messageSize - 1] == '\n') {
        --messageSize;
    }

    if (std::strcmp(output, "syslog") == 0) {
        ::syslog(SyslogLevel(prio), "%s %.*s", tag, int(messageSize), message);
        return int(messageSize);
    }

    struct timeval now;
    ::gettimeofday(&now, nullptr);
    // One buffer and one write per line; the stack holds the usual ones.
    char stackLine[1024];
    std::string heapLine;
    const size_t lineMax = kHeaderMax + messageSize + 1;
    char* line = stackLine;
    if (lineMax > sizeof stackLine) {
        heapLine.resize(lineMax);
        line = &heapLine[0];
    }
    size_t size = PutLineHeader(line, prio, tag, std::strlen(tag), now);
    std::memcpy(line + size, message, messageSize);
    size += messageSize;
    line[size++] = '\n';

    const bool written = std::strncmp(output, "file:", 5) == 0
                             ? TheLogFile().Append(output + 5, line, size, now.tv_sec)
                             : WriteWholeLineToStderr(line, size);
    return written ? int(size) : -1;
}
