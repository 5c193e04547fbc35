#include <cimcore/internal/CIMLog.h>

#include <cimcore/CIMDebug.h>

#include "dlog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace CIM {
namespace Log {
namespace {

constexpr const char* kTag = "CI_CORE";

void WriteV(int priority, const char* file, const char* function, int line, const char* format,
            va_list args) {
    char small[768];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) {
        return;
    }
    if (size_t(needed) < sizeof small) {
        __dlog_print(LOG_ID_MAIN, priority, kTag, "%s: %s(%d) > %s", file, function, line, small);
        return;
    }
    std::string message(size_t(needed) + 1, '\0');
    std::vsnprintf(&message[0], message.size(), format, args);
    message.resize(size_t(needed));
    __dlog_print(LOG_ID_MAIN, priority, kTag, "%s: %s(%d) > %s", file, function, line,
                 message.c_str());
}

}  // namespace

void Write(int priority, const char* file, const char* function, int line, const char* format,
           ...) {
    va_list args;
    va_start(args, format);
    WriteV(priority, file, function, line, format, args);
    va_end(args);
}

void Info(const char* file, const char* function, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteV(kInfo, file, function, line, format, args);
    va_end(args);
}

void Error(const char* file, const char* function, int line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteV(kError, file, function, line, format, args);
    va_end(args);
}

void AssertFailed(const char* expression, const char* path, unsigned long line,
                  const char* function) {
    _TCCIMAssert(expression, path, line);
    std::printf("ASSERT!, Func:%s\n", function);
    std::fflush(stdout);
}

void AssertFailedWithMessage(const char* expression, const char* path, unsigned long line,
                             const char* function, const char* format, ...) {
    char message[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    _TCCIMAssert(expression, path, line, "%s", message);
    std::printf("ASSERT!, Func:%s\n", function);
    std::fflush(stdout);
}

}  // namespace Log
}  // namespace CIM
