// The stack's API library, of which this library uses one helper.
#ifndef CIMCORE_PLATFORM_CIM_API_H
#define CIMCORE_PLATFORM_CIM_API_H

#include <string>

namespace CIM {

// "true" or "false".
std::string ToString(bool value);

}  // namespace CIM

#endif
