#include <cimcore/CIMThreadDebug.h>

#include <cimcore/internal/CIMLog.h>

#include <sys/prctl.h>

namespace CIM {

pthread_t TCCIMThreadDebug::MAIN_THREAD_ID = 0;

void TCCIMThreadDebug::SetThisThreadName(const std::string& name) {
    if (pthread_self() == MAIN_THREAD_ID) {
        Log::Error("CIMThreadDebug.cpp", "SetThisThreadName", 45,
                   "Cannot change name of the main thread");
        return;
    }
    // Passed whole: the kernel keeps the first 15 characters by itself.
    if (prctl(PR_SET_NAME, name.c_str(), 0, 0, 0) != 0) {
        Log::Error("CIMThreadDebug.cpp", "SetThisThreadName", 52, "Error setting thread name %s",
                   name.c_str());
    }
}

}  // namespace CIM
