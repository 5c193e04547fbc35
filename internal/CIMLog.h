// The one place that formats the library's log prefix "%s: %s(%d) > " and
// hands lines to the platform log under the tag "CI_CORE".
//
// Two kinds of call site, told apart at a glance:
//   Log::Info(kFile, "Connect", 83, ...)       the line's text fixes the file,
//                                               function and line: all literals;
//   CIM_LOG_INFO_HERE(kFile, __func__, ...)     the line number is wherever the
//                                               call is (__LINE__).
#ifndef CIMCORE_INTERNAL_CIMLOG_H
#define CIMCORE_INTERNAL_CIMLOG_H

namespace CIM {
namespace Log {

constexpr int kInfo = 4;
constexpr int kError = 6;

// False while the platform would drop every line under "CI_CORE" (the tag
// switched off, or the log going nowhere): then the calls below return at
// once, formatting nothing. Costs one relaxed load; follows every switch.
// Callers that build a line's arguments at some cost ask it first.
bool IsOn();

// Logs "<file>: <function>(<line>) > " followed by the formatted message, as
// one text in one platform call.
void Write(int priority, const char* file, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

void Info(const char* file, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void Error(const char* file, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// An assertion site: the report through _TCCIMAssert, then the
// "ASSERT!, Func:%s\n" line on standard output. The caller decides how to go
// on if the report returns.
//
// `path` names the source as the repository-relative path without extension
// ("src/lsc/Queue"): every site passes its file's kSourcePath constant, never
// __FILE__, which would carry the build machine's folders into the binary.
void AssertFailed(const char* expression, const char* path, unsigned long line,
                  const char* function);

// The same, with a message that the report writes after the condition.
void AssertFailedWithMessage(const char* expression, const char* path, unsigned long line,
                             const char* function, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

}  // namespace Log
}  // namespace CIM

#define CIM_LOG_INFO_HERE(file, function, ...) \
    ::CIM::Log::Info((file), (function), __LINE__, __VA_ARGS__)
#define CIM_LOG_ERROR_HERE(file, function, ...) \
    ::CIM::Log::Error((file), (function), __LINE__, __VA_ARGS__)

#endif
