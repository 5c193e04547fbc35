#include <cimcore/internal/CIMLog.h>

#include <cimcore/CIMDebug.h>
#include <cimcore/internal/CIMFormat.h>

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
    std::string large;
    const char* message = FormatV(small, sizeof small, large, format, args);
    if (message != nullptr) {
        __dlog_print(LOG_ID_MAIN, priority, kTag, "%s: %s(%d) > %s", file, function, line, message);
    }
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
    char small[512];
    std::string large;
    va_list args;
    va_start(args, format);
    const char* message = FormatV(small, sizeof small, large, format, args);
    va_end(args);
    _TCCIMAssert(expression, path, line, "%s", message != nullptr ? message : "");
    std::printf("ASSERT!, Func:%s\n", function);
    std::fflush(stdout);
}

}  // namespace Log
}  // namespace CIM
