#include <cimcore/internal/CIMLog.h>

#include <cimcore/CIMDebug.h>
#include <cimcore/internal/CIMFormat.h>

#include "dlog.h"
#include "dlog_switch.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace CIM {
namespace Log {
namespace {

constexpr const char* kTag = "CI_CORE";

const int* TagSwitch() {
    static const int* const word = cim_dlog_tag_switch(kTag);
    return word;
}

char* Put(char* out, const char* text, size_t size) {
    std::memcpy(out, text, size);
    return out + size;
}

// The prefix "%s: %s(%d) > " written out by hand into `out`, which holds
// `PrefixSize` bytes, so that the message is formatted once, right behind it.
size_t PrefixSize(size_t fileSize, size_t functionSize) {
    return fileSize + functionSize + 11 + 7;  // "-2147483648" and ": ", "(", ") > "
}

size_t PutPrefix(char* out, const char* file, size_t fileSize, const char* function,
                 size_t functionSize, int line) {
    char* const begin = out;
    out = Put(out, file, fileSize);
    out = Put(out, ": ", 2);
    out = Put(out, function, functionSize);
    *out++ = '(';
    out = PutLong(out, line);
    out = Put(out, ") > ", 4);
    return size_t(out - begin);
}

void WriteV(int priority, const char* file, const char* function, int line, const char* format,
            va_list args) {
    // What printf would write for them.
    file = file != nullptr ? file : "(null)";
    function = function != nullptr ? function : "(null)";
    const size_t fileSize = std::strlen(file);
    const size_t functionSize = std::strlen(function);

    char small[768];
    std::string large;
    char* text = small;
    const size_t prefixMax = PrefixSize(fileSize, functionSize);
    if (prefixMax >= sizeof small) {
        large.resize(prefixMax + 1);
        text = &large[0];
    }
    const size_t prefix = PutPrefix(text, file, fileSize, function, functionSize, line);
    const size_t room = (text == small ? sizeof small : large.size()) - prefix;

    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(text + prefix, room, format, copy);
    va_end(copy);
    if (needed < 0) {
        return;  // an invalid format: no line, as before any text was built
    }
    if (size_t(needed) >= room) {
        // Longer than the buffer: the only case that formats a second time.
        std::string whole(prefix + size_t(needed) + 1, '\0');
        std::memcpy(&whole[0], text, prefix);
        va_copy(copy, args);
        std::vsnprintf(&whole[prefix], size_t(needed) + 1, format, copy);
        va_end(copy);
        large.swap(whole);
        text = &large[0];
    }
    __dlog_print(LOG_ID_MAIN, priority, kTag, "%s", text);
}

}  // namespace

bool IsOn() {
    return __atomic_load_n(TagSwitch(), __ATOMIC_RELAXED) != 0;
}

void Write(int priority, const char* file, const char* function, int line, const char* format,
           ...) {
    if (!IsOn()) {
        return;
    }
    va_list args;
    va_start(args, format);
    WriteV(priority, file, function, line, format, args);
    va_end(args);
}

void Info(const char* file, const char* function, int line, const char* format, ...) {
    if (!IsOn()) {
        return;
    }
    va_list args;
    va_start(args, format);
    WriteV(kInfo, file, function, line, format, args);
    va_end(args);
}

void Error(const char* file, const char* function, int line, const char* format, ...) {
    if (!IsOn()) {
        return;
    }
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
