// Assertion sites of the legacy runtime: report a broken contract through
// the assertion helper and let the caller choose how to go on.
#ifndef CIMCORE_SRC_LSC_LSCCHECK_H
#define CIMCORE_SRC_LSC_LSCCHECK_H

#include <cimcore/internal/CIMLog.h>

// Evaluates to whether `cond` holds; reports `text` when it does not.
#define CIM_LSC_EXPECT(cond, text) \
    ((cond) ? true : (CIM::Log::AssertFailed((text), __FILE__, __LINE__, __func__), false))

// The same, reporting the condition as written.
#define CIM_LSC_CHECK(cond) CIM_LSC_EXPECT(cond, #cond)

#endif
