// The assertion report of the whole library.
#ifndef CIMCORE_CIMDEBUG_H
#define CIMCORE_CIMDEBUG_H

#include <cimcore/Export.h>
namespace CIM {

// Reports a broken contract: logs the expression twice and the demangled call
// stack (tag "CI_CORE", error level), writes a fuller report to the system
// console ("/dev/console", or the file named by CIM_CONSOLE_PATH), then writes
// to address zero so that the process dies by SIGSEGV and the platform's
// crash handling records it.
//
// It is deliberately not declared noreturn: every site is written to go on if
// it ever returns, which it does only while a test hook is installed (see
// <cimcore/testing.h>). Any thread may call it; it takes no lock.
CIM_EXPORT void _TCCIMAssert(const char* expression, const char* file, unsigned long line);

// Writes `format` with its arguments to standard error first (no line end
// added), then makes the report above.
CIM_EXPORT void _TCCIMAssert(const char* expression, const char* file, unsigned long line,
                             const char* format, ...) __attribute__((format(printf, 4, 5)));

}  // namespace CIM

#endif
