// Thread naming that protects the process's main thread.
#ifndef CIMCORE_CIMTHREADDEBUG_H
#define CIMCORE_CIMTHREADDEBUG_H

#include <cimcore/Export.h>
#include <pthread.h>

#include <string>

namespace CIM {

class CIM_EXPORT TCCIMThreadDebug {
public:
    // Names the calling thread as the kernel shows it (the kernel keeps the
    // first 15 characters). Refused, with one error-level log line, on the
    // thread registered in MAIN_THREAD_ID, since renaming the main thread
    // renames the process in process listings. A kernel refusal is logged
    // too; neither reaches the caller.
    static void SetThisThreadName(const std::string& name);

    // pthread_self() of the hosting program's main thread. Zero at load, which
    // protects no thread; the host stores it early during start-up, before
    // other threads name themselves. The library never writes it.
    static pthread_t MAIN_THREAD_ID;
};

}  // namespace CIM

#endif
