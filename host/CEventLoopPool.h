#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "host/CEventLoop.h"

namespace ZRT {
namespace Host {

// A few transport threads; each new socket is given to the next one in turn and stays on it.
class CEventLoopPool {
public:
    explicit CEventLoopPool(int threads = 1);
    ~CEventLoopPool();
    CEventLoopPool(const CEventLoopPool&) = delete;
    CEventLoopPool& operator=(const CEventLoopPool&) = delete;

    bool IsRunning() const { return m_running; }
    CEventLoop& Next();
    // Stops every thread; the sockets still watched are released.
    void Stop();

private:
    std::vector<std::unique_ptr<CEventLoop>> m_loops;
    std::atomic<unsigned int> m_next{0};
    bool m_running = true;
};

} // namespace Host
} // namespace ZRT
