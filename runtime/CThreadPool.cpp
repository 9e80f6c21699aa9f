#include "runtime/CThreadPool.h"

#include <algorithm>
#include <chrono>

namespace QOX {

CThreadPool& CThreadPool::Instance()
{
    // Never destroyed: idle threads may still wait on it while the process exits.
    static CThreadPool* pool = new CThreadPool();
    return *pool;
}

bool CThreadPool::Start(size_t stackSize, Entry entry, void* argument, pthread_t* thread)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        for (auto it = m_idle.rbegin(); it != m_idle.rend(); ++it) {
            SWorker* worker = *it;
            if (worker->stackSize != stackSize)
                continue;
            m_idle.erase(std::next(it).base());
            worker->entry = entry;
            worker->argument = argument;
            *thread = worker->thread;
            worker->wake.notify_one();
            return true;
        }
    }
    auto* worker = new SWorker;
    worker->stackSize = stackSize;
    worker->entry = entry;
    worker->argument = argument;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // The new thread reads only its worker block until it takes the pool's mutex.
    std::lock_guard<std::mutex> hold(m_mutex);
    const int error = pthread_create(&worker->thread, &attributes, &CThreadPool::Main, worker);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        delete worker;
        return false;
    }
    *thread = worker->thread;
    return true;
}

void* CThreadPool::Main(void* argument)
{
    auto* worker = static_cast<SWorker*>(argument);
    CThreadPool& pool = Instance();
    {
        // Start() stores the thread id under this lock; wait for it before running the job.
        std::lock_guard<std::mutex> hold(pool.m_mutex);
    }
    do {
        worker->entry(worker->argument);
    } while (pool.AwaitWork(*worker));
    delete worker;
    return nullptr;
}

bool CThreadPool::AwaitWork(SWorker& worker)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    if (m_idle.size() >= MAX_IDLE)
        return false;
    worker.entry = nullptr;
    worker.argument = nullptr;
    m_idle.push_back(&worker);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(IDLE_LIFETIME_MS);
    while (!worker.entry) {
        if (worker.wake.wait_until(hold, deadline) != std::cv_status::timeout)
            continue;
        if (worker.entry)
            break;
        m_idle.erase(std::find(m_idle.begin(), m_idle.end(), &worker));
        return false;
    }
    return true;
}

size_t CThreadPool::GetIdleCount()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_idle.size();
}

} // namespace QOX
