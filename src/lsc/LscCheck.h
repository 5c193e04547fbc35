// Assertion sites of the legacy runtime: report a broken contract through
// the assertion helper and let the caller choose how to go on.
#ifndef CIMCORE_SRC_LSC_LSCCHECK_H
#define CIMCORE_SRC_LSC_LSCCHECK_H

#include <cimcore/internal/CIMLog.h>

#include <cstring>

// Evaluates to whether `cond` holds; reports `text` when it does not. The
// including file defines kSourcePath (see CIMLog.h).
#define CIM_LSC_EXPECT(cond, text) \
    ((cond) ? true : (CIM::Log::AssertFailed((text), kSourcePath, __LINE__, __func__), false))

// The same, reporting the condition as written.
#define CIM_LSC_CHECK(cond) CIM_LSC_EXPECT(cond, #cond)

// Copies at most size - 1 characters of `source` (null: nothing) and ends
// `target` there: the runtime's names are cut to fit kernel thread names.
inline void CopyName(char* target, size_t size, const char* source) {
    const size_t length = source != nullptr ? ::strnlen(source, size - 1) : 0;
    std::memcpy(target, source != nullptr ? source : "", length);
    std::memset(target + length, 0, size - length);
}

// The callback chain of tasks and alarms. `before` and `after` return false
// when there is no callback. A before callback that returns true stands in
// for the hook; the after callback always runs and can only add a true.
template <typename Before, typename Hook, typename After>
bool RunCallbackChain(const Before& before, const Hook& hook, const After& after) {
    const bool result = before() || hook();
    const bool afterResult = after();
    return result || afterResult;
}

#endif
