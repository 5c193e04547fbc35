// Host implementation of the stack API helper the library uses.
#include "cim_api.h"

namespace CIM {

std::string ToString(bool value) {
    return value ? "true" : "false";
}

}  // namespace CIM
