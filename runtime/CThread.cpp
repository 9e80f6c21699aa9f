#include "runtime/CThread.h"

#include "runtime/CThreadPool.h"

#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace QOX {
namespace {
std::atomic<size_t> g_stackSize{256 * 1024};
}

// The operating-system thread comes from CThreadPool and goes back there after Entry, so it is
// never joined: waiting for the end means waiting for `ended`, after which the thread touches
// nothing but this shared block (kept alive by its own reference) and the pool.
// The end is waited for on a condition, not an event: a stop must work even when the process is
// out of descriptors.
struct CThread::SControl {
    std::atomic<int> status{STATUS_NOT_STARTED};
    std::mutex endMutex; // guards ended
    std::condition_variable endChanged;
    bool ended = true;
    std::mutex joinMutex; // held by the starter while the thread's id is stored
    pthread_t thread{};
};

CThread::CThread(bool /*suspended*/) : m_stopEvent(true), m_control(std::make_shared<SControl>()) {}

CThread::~CThread()
{
    const int status = m_control->status.load();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING) {
        // Destroyed by its own thread: it finishes on the shared block alone.
        if (IsCurrentThread(*this))
            return;
        CThread::StopThread(-1); // derived parts are gone: no dynamic dispatch here
    }
}

int CThread::WaitForObject(long timeout)
{
    if (m_control->status.load() == STATUS_NOT_STARTED)
        return CSynchronizationObject::WAIT_SIGNALLED;
    std::unique_lock<std::mutex> hold(m_control->endMutex);
    const auto ended = [this] { return m_control->ended; };
    if (timeout < 0)
        m_control->endChanged.wait(hold, ended);
    else if (!m_control->endChanged.wait_for(hold, std::chrono::milliseconds(timeout), ended))
        return CSynchronizationObject::WAIT_TIMEOUT;
    // The thread is never joined: it marks its end after its last touch of the object, under
    // the mutex, so whatever the waiter does next (freeing the object) comes after that touch.
    return CSynchronizationObject::WAIT_SIGNALLED;
}

CThread::ThreadID CThread::GetThreadID() const
{
    return m_control->thread;
}

int CThread::GetThreadStatus() const
{
    return m_control->status.load();
}

void* CThread::Entry(void* argument)
{
    auto* start = static_cast<std::pair<CThread*, std::shared_ptr<SControl>>*>(argument);
    {
        // The creator holds this while the pool stores the thread's id.
        std::lock_guard<std::mutex> published(start->second->joinMutex);
    }
    start->first->ThreadFunc();
    // The object may be gone now; Finish reports the end once the thread is back with the pool.
    return nullptr;
}

void CThread::Finish(void* argument)
{
    std::unique_ptr<std::pair<CThread*, std::shared_ptr<SControl>>> start(
        static_cast<std::pair<CThread*, std::shared_ptr<SControl>>*>(argument));
    SControl& control = *start->second;
    std::lock_guard<std::mutex> hold(control.endMutex);
    control.status.store(STATUS_ENDED);
    control.ended = true;
    control.endChanged.notify_all();
}

bool CThread::StartThread(bool /*suspended*/)
{
    int expected = m_control->status.load();
    if (expected == STATUS_RUNNING || expected == STATUS_STOPPING)
        return false;
    m_stopEvent.ResetEvent();
    {
        std::lock_guard<std::mutex> hold(m_control->endMutex);
        m_control->ended = false;
    }
    m_control->status.store(STATUS_RUNNING);

    auto* start = new std::pair<CThread*, std::shared_ptr<SControl>>(this, m_control);
    std::lock_guard<std::mutex> hold(m_control->joinMutex);
    CThreadPool& pool = m_pool ? *m_pool : CThreadPool::Instance();
    if (!pool.Start(g_stackSize.load(), &CThread::Entry, &CThread::Finish, start,
                                       &m_control->thread)) {
        delete start;
        std::lock_guard<std::mutex> ended(m_control->endMutex);
        m_control->status.store(STATUS_NOT_STARTED);
        m_control->ended = true;
        m_control->endChanged.notify_all();
        return false;
    }
    return true;
}

bool CThread::RunHere()
{
    const int status = m_control->status.load();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING)
        return false;
    // The block outlives the object, which ThreadFunc may destroy.
    const std::shared_ptr<SControl> control = m_control;
    m_stopEvent.ResetEvent();
    {
        std::lock_guard<std::mutex> hold(control->endMutex);
        control->ended = false;
    }
    {
        std::lock_guard<std::mutex> published(control->joinMutex);
        control->thread = pthread_self();
    }
    control->status.store(STATUS_RUNNING);
    ThreadFunc();
    std::lock_guard<std::mutex> hold(control->endMutex);
    control->status.store(STATUS_ENDED);
    control->ended = true;
    control->endChanged.notify_all();
    return true;
}

bool CThread::StopThread(long timeout)
{
    int status = m_control->status.load();
    if (status == STATUS_RUNNING)
        m_control->status.compare_exchange_strong(status, STATUS_STOPPING);
    m_stopEvent.SignalEvent();
    if (status == STATUS_NOT_STARTED)
        return true;
    if (IsCurrentThread(*this))
        return false;
    return WaitForObject(timeout) == CSynchronizationObject::WAIT_SIGNALLED;
}

bool CThread::PauseThread()
{
    return false;
}

bool CThread::ResumeThread()
{
    return false;
}

bool CThread::SetThreadPriotiry(EPriority /*priority*/)
{
    return false;
}

int CThread::Run()
{
    return 0;
}

int CThread::ThreadFunc()
{
    return Run();
}

CThread::ThreadID CThread::GetCurrentThreadID()
{
    return pthread_self();
}

bool CThread::IsCurrentThread(const CThread& thread)
{
    // Only while running: an ended object's thread may already serve another one.
    const int status = thread.m_control->status.load();
    return (status == STATUS_RUNNING || status == STATUS_STOPPING) &&
           pthread_equal(thread.m_control->thread, pthread_self());
}

void CThread::Sleep(int milliseconds)
{
    timespec delay{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&delay, &delay) == -1 && errno == EINTR) {
    }
}

void CThread::SetDefaultStackSize(size_t bytes)
{
    g_stackSize.store(bytes);
}

size_t CThread::GetDefaultStackSize()
{
    return g_stackSize.load();
}

} // namespace QOX
