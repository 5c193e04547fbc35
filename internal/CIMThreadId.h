// The calling thread's kernel thread id, read from the kernel once per thread.
// Header-only and free of the library's other parts, so that the host platform
// may use it too.
#ifndef CIMCORE_INTERNAL_CIMTHREADID_H
#define CIMCORE_INTERNAL_CIMTHREADID_H

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace CIM {

namespace detail {

// 0 until the thread has asked; no thread has the id 0.
inline thread_local int tCachedTid = 0;

inline void ForgetCachedTid() {
    tCachedTid = 0;
}

}  // namespace detail

// gettid costs a system call, and every synchronous send and log line asks for
// it. A fork clears the cache of the forking thread, the only one that goes on
// in the child, so the child reads its own id.
inline int CurrentKernelThreadId() {
    // Registered once, before the first id is cached.
    static const int registered = ::pthread_atfork(nullptr, nullptr, &detail::ForgetCachedTid);
    static_cast<void>(registered);
    if (detail::tCachedTid == 0) {
        detail::tCachedTid = static_cast<int>(::syscall(SYS_gettid));
    }
    return detail::tCachedTid;
}

}  // namespace CIM

#endif
