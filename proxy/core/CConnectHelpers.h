#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "runtime/CThreadPool.h"

namespace ZRT {
namespace Proxy {

// The threads that ask a host whose connects may block (IZRTMultiPointLayer::ConnectsWithoutBlocking
// false). At most `limit` run at once; more connects wait in line (their connections' attempt
// deadlines still run). A stop drops the line and does not wait for connects under way: they end
// in the host's own time, and their answers go nowhere (CHostConnector). The destructor waits for
// them, so the threads' hooks run for the last time before it returns.
//
// Submit and Abandon on any thread; the constructor and destructor on the owner's.
class CConnectHelpers {
public:
    using Job = std::function<void()>;
    static constexpr int DEFAULT_LIMIT = 16;

    CConnectHelpers() = default;
    ~CConnectHelpers();
    CConnectHelpers(const CConnectHelpers&) = delete;
    CConnectHelpers& operator=(const CConnectHelpers&) = delete;

    // Before the first Submit of a run: the host's thread hooks, and how many may run at once.
    void Configure(const QOX::SThreadHooks& hooks, int limit);
    // False when no thread could be had and none is running (the job never runs).
    bool Submit(Job job);
    // Jobs not begun are dropped.
    void Abandon();
    // Helpers running now (for tests).
    int GetRunning() const;

private:
    void Work(Job job);

    // Guards the members below. A leaf: jobs run with it released.
    mutable std::mutex m_mutex;
    std::unique_ptr<QOX::CThreadPool> m_pool;
    std::deque<Job> m_waiting;
    int m_running = 0;
    int m_limit = DEFAULT_LIMIT;
};

} // namespace Proxy
} // namespace ZRT
