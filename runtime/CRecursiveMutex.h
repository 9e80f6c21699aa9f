#pragma once

#include <pthread.h>

#include "runtime/Export.h"

namespace QOX {

// A POSIX recursive mutex; BasicLockable, so std::lock_guard and condition_variable_any work with it.
class ZRT_EXPORT CRecursiveMutex {
public:
    CRecursiveMutex();
    ~CRecursiveMutex();
    CRecursiveMutex(const CRecursiveMutex&) = delete;
    CRecursiveMutex& operator=(const CRecursiveMutex&) = delete;

    void lock() { pthread_mutex_lock(&m_mutex); }
    void unlock() { pthread_mutex_unlock(&m_mutex); }
    bool try_lock() { return pthread_mutex_trylock(&m_mutex) == 0; }

private:
    pthread_mutex_t m_mutex;
};

// Scoped hold of a CRecursiveMutex.
class CLock {
public:
    explicit CLock(CRecursiveMutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~CLock() { m_mutex.unlock(); }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

private:
    CRecursiveMutex& m_mutex;
};

} // namespace QOX
