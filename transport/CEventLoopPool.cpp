#include "transport/CEventLoopPool.h"

namespace ZRT {

CEventLoopPool::CEventLoopPool(int threads, const QOX::SThreadHooks& hooks)
    : m_ownPool(new QOX::CThreadPool(hooks)), m_pool(m_ownPool.get())
{
    StartLoops(threads);
}

CEventLoopPool::CEventLoopPool(int threads, QOX::CThreadPool& pool) : m_pool(&pool)
{
    StartLoops(threads);
}

void CEventLoopPool::StartLoops(int threads)
{
    if (threads < 1)
        threads = 1;
    for (int i = 0; i < threads; ++i) {
        m_loops.push_back(std::make_unique<CEventLoop>());
        m_loops.back()->SetThreadPool(m_pool);
        m_running = m_loops.back()->Start() && m_running;
    }
}

CEventLoopPool::~CEventLoopPool()
{
    Stop();
}

CEventLoop& CEventLoopPool::Next()
{
    const unsigned int index = m_next.fetch_add(1) % static_cast<unsigned int>(m_loops.size());
    return *m_loops[index];
}

void CEventLoopPool::Stop()
{
    for (auto& loop : m_loops)
        loop->Stop();
    if (m_ownPool)
        m_ownPool->EndAll();
}

} // namespace ZRT
