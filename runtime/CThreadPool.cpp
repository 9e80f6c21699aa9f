#include "runtime/CThreadPool.h"

#include <signal.h>

#include <algorithm>
#include <chrono>

namespace QOX {

CThreadPool& CThreadPool::Instance()
{
    // Never destroyed: idle threads may still wait on it while the process exits.
    static CThreadPool* pool = new CThreadPool();
    return *pool;
}

CThreadPool::~CThreadPool()
{
    EndAll();
}

void CThreadPool::EndAll()
{
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        m_changed.wait(hold, [this] { return m_busy == 0; });
    }
    DrainIdle();
    std::unique_lock<std::mutex> hold(m_mutex);
    m_changed.wait(hold, [this] { return m_leaving == 0; });
}

bool CThreadPool::Start(size_t stackSize, Entry entry, Finish finish, void* argument, pthread_t* thread)
{
    bool reused = false;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        for (auto it = m_idle.rbegin(); it != m_idle.rend(); ++it) {
            SWorker* worker = *it;
            if (worker->stackSize != stackSize || worker->leave)
                continue;
            m_idle.erase(std::next(it).base());
            worker->entry = entry;
            worker->finish = finish;
            worker->argument = argument;
            *thread = worker->thread;
            worker->wake.notify_one();
            ++m_busy;
            reused = true;
            break;
        }
    }
    if (reused)
        return true;
    auto* worker = new SWorker;
    worker->pool = this;
    worker->stackSize = stackSize;
    worker->entry = entry;
    worker->finish = finish;
    worker->argument = argument;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    // The new thread reads only its worker block until it takes the pool's mutex.
    std::lock_guard<std::mutex> hold(m_mutex);
    const int error = pthread_create(&worker->thread, &attributes, &CThreadPool::Main, worker);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        delete worker;
        return false;
    }
    ++m_busy;
    *thread = worker->thread;
    return true;
}

void* CThreadPool::Main(void* argument)
{
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    auto* worker = static_cast<SWorker*>(argument);
    CThreadPool& pool = *worker->pool;
    const SHooks hooks = pool.m_hooks;
    if (hooks.onStart)
        hooks.onStart(hooks.context);
    {
        // Start() stores the thread id under this lock; wait for it before running the job.
        std::lock_guard<std::mutex> hold(pool.m_mutex);
    }
    do {
        worker->entry(worker->argument);
    } while (pool.AwaitWork(*worker));
    const bool detached = !worker->leave;
    delete worker;
    if (hooks.onStop)
        hooks.onStop(hooks.context);
    if (detached) {
        // Last touch of the pool: its destructor may go on once this is counted.
        std::lock_guard<std::mutex> hold(pool.m_mutex);
        --pool.m_leaving;
        pool.m_changed.notify_all();
    }
    return nullptr;
}

bool CThreadPool::AwaitWork(SWorker& worker)
{
    std::unique_lock<std::mutex> hold(m_mutex);
    const Finish finish = worker.finish;
    void* const argument = worker.argument;
    worker.entry = nullptr;
    worker.finish = nullptr;
    worker.argument = nullptr;
    --m_busy;
    const bool stay = m_idle.size() < MAX_IDLE;
    if (stay) {
        m_idle.push_back(&worker);
    } else {
        pthread_detach(worker.thread); // nobody joins a thread beyond the bound
        ++m_leaving;
    }
    // Back with the pool before the work is reported ended (see Start).
    finish(argument);
    m_changed.notify_all();
    if (!stay)
        return false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(IDLE_LIFETIME_MS);
    while (!worker.entry) {
        const bool expired = worker.wake.wait_until(hold, deadline) == std::cv_status::timeout;
        if (worker.entry)
            break;
        if (worker.leave || expired) {
            m_idle.erase(std::remove(m_idle.begin(), m_idle.end(), &worker), m_idle.end());
            // A drain joins what it ends; a thread that expires lets itself go.
            if (worker.leave) {
                m_ended.push_back(worker.thread);
            } else {
                pthread_detach(worker.thread);
                ++m_leaving;
            }
            m_changed.notify_all();
            return false;
        }
    }
    return true;
}

void CThreadPool::DrainIdle()
{
    std::vector<pthread_t> ended;
    {
        std::unique_lock<std::mutex> hold(m_mutex);
        for (SWorker* worker : m_idle) {
            worker->leave = true;
            worker->wake.notify_one();
        }
        // Wait for those to leave; a thread still running a job, or idle only from now on, is
        // not waited for.
        m_changed.wait(hold, [&] {
            return std::none_of(m_idle.begin(), m_idle.end(), [](const SWorker* worker) { return worker->leave; });
        });
        ended.swap(m_ended);
    }
    // They have left Main or are about to: joining does not wait for long.
    for (pthread_t thread : ended)
        pthread_join(thread, nullptr);
}

size_t CThreadPool::GetIdleCount()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_idle.size();
}

} // namespace QOX
