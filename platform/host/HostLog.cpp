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
#include <sys/syscall.h>
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
bool WriteWholeLineToStderr(const std::string& line) {
    static std::mutex* mutex = new std::mutex;  // never destroyed: threads may log during exit
    std::lock_guard<std::mutex> lock(*mutex);
    return WriteAll(STDERR_FILENO, line.data(), line.size());
}

// The log file stays open while the destination names the same path, and is
// reopened when PATH no longer names it (removed, or renamed away by log
// rotation); that is checked once a second, not at every line.
class LogFile {
public:
    bool Append(const char* path, const std::string& line, time_t now) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fd < 0 || m_path != path || (now != m_checked && !IsStillAt(path))) {
            Reopen(path);
        }
        m_checked = now;
        return m_fd >= 0 && WriteAll(m_fd, line.data(), line.size());
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

std::string FormatMessage(const char* fmt, va_list args) {
    char small[512];
    std::string large;
    const char* text = CIM::FormatV(small, sizeof small, large, fmt, args);
    return text == nullptr ? std::string() : text == large.c_str() ? std::move(large) : text;
}

// The process and thread ids cost a system call each; they are kept, and
// forgotten in the child of a fork, where both change.
std::atomic<unsigned> gForkGeneration(1);
std::atomic<long> gPid(0);

void ForgetIdsAfterFork() {
    gPid.store(0);
    gForkGeneration.fetch_add(1);
}

long ProcessId() {
    static const int registered = ::pthread_atfork(nullptr, nullptr, ForgetIdsAfterFork);
    (void)registered;
    long pid = gPid.load();
    if (pid == 0) {
        pid = long(::getpid());
        gPid.store(pid);
    }
    return pid;
}

long ThreadId() {
    thread_local unsigned generation = 0;
    thread_local long tid = 0;
    if (generation != gForkGeneration.load()) {
        tid = long(::syscall(SYS_gettid));
        generation = gForkGeneration.load();
    }
    return tid;
}

std::string LinePrefix(int prio, const char* tag, const struct timeval& now) {
    struct tm local;
    ::localtime_r(&now.tv_sec, &local);
    char prefix[128];
    std::snprintf(prefix, sizeof prefix,
                  "%02d-%02d %02d:%02d:%02d.%03ld %c/%s(%ld:%ld): ", local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  long(now.tv_usec / 1000), PriorityLetter(prio), tag, ProcessId(), ThreadId());
    return prefix;
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

    va_list args;
    va_start(args, fmt);
    std::string message = FormatMessage(fmt, args);
    va_end(args);
    if (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }

    if (std::strcmp(output, "syslog") == 0) {
        ::syslog(SyslogLevel(prio), "%s %s", tag, message.c_str());
        return int(message.size());
    }

    struct timeval now;
    ::gettimeofday(&now, nullptr);
    std::string line = LinePrefix(prio, tag, now);
    line += message;
    line += '\n';

    const bool written = std::strncmp(output, "file:", 5) == 0
                             ? TheLogFile().Append(output + 5, line, now.tv_sec)
                             : WriteWholeLineToStderr(line);
    return written ? int(line.size()) : -1;
}
