// The calling thread's kernel thread id, read from the kernel once per thread.
#ifndef CIMCORE_SRC_LSC_KERNELTHREADID_H
#define CIMCORE_SRC_LSC_KERNELTHREADID_H

// gettid costs a system call, and a synchronous send asks for it every time.
// The id is cached per thread; a fork clears the cache of the forking thread,
// the only one that goes on in the child, so the child reads its own id.
int CurrentKernelThreadId();

#endif
