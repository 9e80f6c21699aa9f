#include "runtime/CRecursiveMutex.h"

namespace QOX {

CRecursiveMutex::CRecursiveMutex()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

CRecursiveMutex::~CRecursiveMutex()
{
    pthread_mutex_destroy(&m_mutex);
}

} // namespace QOX
