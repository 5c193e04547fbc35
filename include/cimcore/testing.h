// Test support: observe assertion reports instead of crashing.
//
// While a hook is installed, CIM::_TCCIMAssert logs as usual (both lines and
// the call stack), calls the hook and returns: no console text, no crash. The
// code after the report then runs as it would on a device whose report
// returned. Production code never installs a hook.
#ifndef CIMCORE_TESTING_H
#define CIMCORE_TESTING_H

#include <cimcore/Export.h>
#include <functional>

namespace CIM {
namespace testing {

using AssertHook =
    std::function<void(const char* expression, const char* file, unsigned long line)>;

// Installs `hook` for every thread of the process; an empty function removes
// it. The hook may run on any thread that reports, concurrently with others.
CIM_EXPORT void SetAssertHook(AssertHook hook);

// Installs a hook for the lifetime of the object and restores the previous
// one afterwards.
class CIM_EXPORT ScopedAssertHook {
public:
    explicit ScopedAssertHook(AssertHook hook);
    ~ScopedAssertHook();
    ScopedAssertHook(const ScopedAssertHook&) = delete;
    ScopedAssertHook& operator=(const ScopedAssertHook&) = delete;

private:
    AssertHook m_previous;
};

}  // namespace testing
}  // namespace CIM

#endif
