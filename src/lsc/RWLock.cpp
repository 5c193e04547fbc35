#include <cimcore/internal/lsc/RWLock.h>

#include <cimcore/internal/CIMLog.h>

#include <cstdio>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

constexpr const char* kSourcePath = "src/lsc/RWLock";

struct ErrorText {
    explicit ErrorText(int code) : text(::strerror_r(code, buffer, sizeof buffer)) {}
    char buffer[256];
    const char* text;
};

}  // namespace

TCRWLock::TCRWLock() : m_readCountKey(), m_lock(), m_attr(), m_writer(0), m_writeCount(0) {
    int ret = ::pthread_key_create(&m_readCountKey, nullptr);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "TCRWLock",
                                          "pthread_key_create = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
    ret = ::pthread_rwlockattr_init(&m_attr);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "TCRWLock",
                                          "pthread_rwlockattr_init = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
    ret = ::pthread_rwlock_init(&m_lock, &m_attr);
    if (ret != 0) {
        ::pthread_rwlockattr_destroy(&m_attr);
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "TCRWLock",
                                          "pthread_rwlock_init = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
}

TCRWLock::~TCRWLock() {
    // Other threads' counts cannot be reached from here; they stay allocated.
    delete m_ReadCount();
    ::pthread_setspecific(m_readCountKey, nullptr);
    int ret = ::pthread_key_delete(m_readCountKey);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "~TCRWLock",
                                          "pthread_key_delete = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
    ret = ::pthread_rwlock_destroy(&m_lock);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "~TCRWLock",
                                          "pthread_rwlock_destroy = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
    ret = ::pthread_rwlockattr_destroy(&m_attr);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "~TCRWLock",
                                          "pthread_rwlockattr_destroy = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
}

bool TCRWLock::RLock() {
    if (m_IsWriter()) {
        return true;
    }
    uint32_t* count = m_ReadCount();
    if (count != nullptr && *count > 0) {
        ++*count;
        return true;
    }
    const int ret = ::pthread_rwlock_rdlock(&m_lock);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "RLock",
                                          "pthread_rwlock_rdlock = %d, %s\n", ret,
                                          ErrorText(ret).text);
        return false;
    }
    if (count == nullptr) {
        count = new uint32_t(0);
#if defined(__SANITIZE_ADDRESS__)
        // Outlives its thread on purpose (the key has no destructor).
        __lsan_ignore_object(count);
#endif
        ::pthread_setspecific(m_readCountKey, count);
    }
    *count = 1;
    return true;
}

bool TCRWLock::RUnlock() {
    if (m_IsWriter()) {
        return true;
    }
    uint32_t* count = m_ReadCount();
    if (count == nullptr || *count == 0) {
        return false;
    }
    if (*count > 1) {
        --*count;
        return true;
    }
    const int ret = ::pthread_rwlock_unlock(&m_lock);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "RUnlock",
                                          "pthread_rwlock_unlock = %d, %s\n", ret,
                                          ErrorText(ret).text);
    }
    *count = 0;
    return true;
}

bool TCRWLock::WLock() {
    if (m_IsWriter()) {
        ++m_writeCount;
        return true;
    }
    const uint32_t* pCount = m_ReadCount();
    if (pCount != nullptr && *pCount > 0) {
        // Waiting for the write lock while holding a read lock would wait
        // for ever on ourselves.
        CIM::Log::AssertFailedWithMessage("*pCount == 0", kSourcePath, __LINE__, "WLock",
                                          "Cannot acquire Wlock, thread have already %u Rlock(s)\n",
                                          *pCount);
        return false;
    }
    const int ret = ::pthread_rwlock_wrlock(&m_lock);
    if (ret != 0) {
        CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "WLock",
                                          "pthread_rwlock_wrlock = %d, %s\n", ret,
                                          ErrorText(ret).text);
        return false;
    }
    m_writer = ::pthread_self();
    m_writeCount = 1;
    return true;
}

bool TCRWLock::WUnlock() {
    if (!m_IsWriter()) {
        return false;
    }
    if (m_writeCount < 2) {
        // Cleared before the release, so that the next writer's id is never
        // overwritten by ours.
        m_writer = 0;
        const int ret = ::pthread_rwlock_unlock(&m_lock);
        if (ret != 0) {
            CIM::Log::AssertFailedWithMessage("ret == 0", kSourcePath, __LINE__, "WUnlock",
                                              "pthread_rwlock_unlock = %d, %s\n", ret,
                                              ErrorText(ret).text);
        }
        return true;
    }
    --m_writeCount;
    return true;
}

bool TCRWLock::m_IsWriter() const {
    return ::pthread_equal(m_writer.load(), ::pthread_self()) != 0;
}

uint32_t* TCRWLock::m_ReadCount() const {
    return static_cast<uint32_t*>(::pthread_getspecific(m_readCountKey));
}
