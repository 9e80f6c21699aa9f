#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "transport/CEventLoop.h"
#include "runtime/CThreadPool.h"

namespace ZRT {

// A few transport threads; each new socket is given to the next one in turn and stays on it.
// The threads come from a pool of the host's own, which runs the hooks on each of them.
class CEventLoopPool {
public:
    explicit CEventLoopPool(int threads = 1, const QOX::SThreadHooks& hooks = QOX::SThreadHooks());
    ~CEventLoopPool();
    CEventLoopPool(const CEventLoopPool&) = delete;
    CEventLoopPool& operator=(const CEventLoopPool&) = delete;

    bool IsRunning() const { return m_running; }
    CEventLoop& Next();
    // Stops every thread and waits until none runs; the sockets still watched are released.
    void Stop();

private:
    // Declared first, so it goes last: the loops' threads come from it.
    QOX::CThreadPool m_pool;
    std::vector<std::unique_ptr<CEventLoop>> m_loops;
    std::atomic<unsigned int> m_next{0};
    bool m_running = true;
};

} // namespace ZRT
