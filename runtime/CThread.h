#pragma once

#include <pthread.h>

#include <cstddef>
#include <memory>

#include "runtime/CEvent.h"
#include "runtime/Export.h"

namespace QOX {

class CThreadPool;

// Base of every class that owns a thread. Derived classes override Run() and poll m_stopEvent,
// which StopThread signals.
//
// The object may be destroyed on its own thread (a reference-counted owner whose last reference
// goes inside ThreadFunc); the thread's bookkeeping therefore lives in a block shared with the
// running thread, and nothing of the object is touched after ThreadFunc returns.
class ZRT_EXPORT CThread {
public:
    enum EPriority { PRIORITY_LOW = 0, PRIORITY_NORMAL = 1, PRIORITY_HIGH = 2 };
    enum EStatus { STATUS_NOT_STARTED = 0, STATUS_RUNNING = 1, STATUS_STOPPING = 2, STATUS_ENDED = 3 };
    using ThreadID = pthread_t;

    explicit CThread(bool suspended = false);
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Waits for the thread to end: 1 when it has ended, 2 when the time ran out.
    virtual int WaitForObject(long timeout);
    virtual ThreadID GetThreadID() const;
    virtual int GetThreadStatus() const;
    virtual bool StartThread(bool suspended = false);
    // Runs the work on the calling thread instead of a thread of its own, as if it had been
    // started there: status, IsCurrentThread and the end StopThread waits for behave alike. A
    // thread that accepted a client serves it this way, without handing it to another thread.
    // Returns when ThreadFunc returned; the object may be gone by then. False when it runs.
    bool RunHere();
    // Signals the stop event and waits up to timeout ms (-1: no limit) for the thread to end.
    virtual bool StopThread(long timeout);
    virtual bool PauseThread();
    virtual bool ResumeThread();
    virtual bool SetThreadPriotiry(EPriority priority);
    virtual int Run();
    virtual int ThreadFunc();

    static ThreadID GetCurrentThreadID();
    static void Sleep(int milliseconds);
    static bool IsCurrentThread(const CThread& thread);

    // Stack size for threads started afterwards. Threads here keep little on the stack,
    // so the default is far below the platform's 8 MiB.
    static void SetDefaultStackSize(size_t bytes);
    static size_t GetDefaultStackSize();

    // The pool later starts take their thread from (the process-wide one unless set); it must
    // outlive the thread.
    void SetThreadPool(CThreadPool* pool) { m_pool = pool; }

protected:
    CEvent m_stopEvent;

private:
    struct SControl;
    static void* Entry(void* argument);
    static void Finish(void* argument);

    std::shared_ptr<SControl> m_control;
    CThreadPool* m_pool = nullptr;
};

} // namespace QOX
