#pragma once

#include <string>

#include "proxy/core/CProxyStats.h"
#include "runtime/CThread.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Api {

// Serves a proxy's counters in the Prometheus text format at /metrics, on a listener of its
// own (never the proxy's port), one scrape at a time on one thread. A scrape reads the counters
// as they are (relaxed atomics): it never takes a lock that a relaying connection waits on.
// A scraper that sends nothing is dropped after SCRAPE_TIMEOUT_MS.
class CMetricsServer : private QOX::CThread {
public:
    static constexpr int SCRAPE_TIMEOUT_MS = 2000;

    explicit CMetricsServer(const Proxy::CProxyStats& stats) : m_stats(stats) {}
    ~CMetricsServer() override;
    CMetricsServer(const CMetricsServer&) = delete;
    CMetricsServer& operator=(const CMetricsServer&) = delete;

    // Listens and starts the thread (from pool); false with the reason.
    bool Start(const std::string& address, int port, QOX::CThreadPool* pool, std::string& error);
    void Stop();
    int GetPort() const { return m_port; }

    // The page a scrape gets.
    static std::string Render(const Proxy::CProxyStats& stats);

protected:
    int Run() override;

private:
    void Serve(int client, int stop);

    const Proxy::CProxyStats& m_stats;
    int m_listenSocket = -1;
    int m_port = 0;
};

} // namespace Api
} // namespace ZRT
