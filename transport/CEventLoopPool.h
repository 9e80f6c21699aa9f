#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "runtime/CThreadPool.h"
#include "transport/CEventLoop.h"

namespace ZRT {

// A few event threads; each new socket is given to the next one in turn and stays on it. The
// threads come from a pool of the owner's (which runs its hooks on each of them), or from one of
// the pool's own.
class CEventLoopPool {
public:
    explicit CEventLoopPool(int threads = 1, const QOX::SThreadHooks& hooks = QOX::SThreadHooks());
    // Threads from pool, which must outlive this object; its owner ends them (EndAll).
    CEventLoopPool(int threads, QOX::CThreadPool& pool);
    ~CEventLoopPool();
    CEventLoopPool(const CEventLoopPool&) = delete;
    CEventLoopPool& operator=(const CEventLoopPool&) = delete;

    bool IsRunning() const { return m_running; }
    CEventLoop& Next();
    size_t Size() const { return m_loops.size(); }
    CEventLoop& At(size_t index) { return *m_loops[index]; }
    // Stops every thread and waits until none runs; the sockets still watched are released.
    void Stop();

private:
    void StartLoops(int threads);

    // Declared first, so they go last: the loops' threads come from them.
    std::unique_ptr<QOX::CThreadPool> m_ownPool;
    QOX::CThreadPool* m_pool;
    std::vector<std::unique_ptr<CEventLoop>> m_loops;
    std::atomic<unsigned int> m_next{0};
    bool m_running = true;
};

} // namespace ZRT
