#include "proxy/core/CConnectHelpers.h"

#include <utility>

#include "runtime/CPoolTask.h"

namespace ZRT {
namespace Proxy {

CConnectHelpers::~CConnectHelpers()
{
    Abandon();
    std::unique_ptr<QOX::CThreadPool> pool;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        pool = std::move(m_pool);
    }
    pool.reset(); // waits for the connects under way
}

void CConnectHelpers::Configure(const QOX::SThreadHooks& hooks, int limit)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_limit = limit > 0 ? limit : DEFAULT_LIMIT;
    // A pool with connects still under way keeps its hooks: its threads were started with them.
    if (!m_pool)
        m_pool.reset(new QOX::CThreadPool(hooks));
}

bool CConnectHelpers::Submit(Job job)
{
    QOX::CThreadPool* pool = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_pool)
            m_pool.reset(new QOX::CThreadPool());
        if (m_running >= m_limit) {
            m_waiting.push_back(std::move(job));
            return true;
        }
        ++m_running;
        pool = m_pool.get();
    }
    if (QOX::CPoolTask::Launch(pool, [this, job] { Work(job); }))
        return true;
    std::lock_guard<std::mutex> hold(m_mutex);
    --m_running;
    if (m_running == 0)
        return false;
    m_waiting.push_back(std::move(job)); // a running helper takes it
    return true;
}

void CConnectHelpers::Work(Job job)
{
    // A helper takes the next waiting connect before it goes, so the line never stalls.
    for (;;) {
        job();
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_waiting.empty()) {
            --m_running;
            return;
        }
        job = std::move(m_waiting.front());
        m_waiting.pop_front();
    }
}

void CConnectHelpers::Abandon()
{
    std::deque<Job> dropped;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        dropped.swap(m_waiting);
    }
    // Released outside the lock: a job's closure may hold what takes locks of its own.
}

int CConnectHelpers::GetRunning() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_running;
}

} // namespace Proxy
} // namespace ZRT
