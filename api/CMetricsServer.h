#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "proxy/address/CAddressRange.h"
#include "proxy/core/CProxyStats.h"
#include "runtime/CThread.h"
#include "transport/CSocketHandle.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Api {

// Serves a proxy's counters in the Prometheus text format at /metrics, on a listener of its own
// (never the proxy's port), to clients from the allowed blocks only (loopback unless given):
// others are closed at accept. One thread serves up to MAX_SCRAPERS scrapes at once on
// non-blocking sockets, so a silent or slow scraper never holds up another: each has
// SCRAPE_TIMEOUT_MS for its request and as long again for the answer. A client that finds every
// place taken takes the place of the oldest one still waiting for its request.
// A scrape reads the counters as they are (relaxed atomics): it never takes a lock that a
// relaying connection waits on.
//
// Threads: Start and Stop on the controlling thread, GetPort on any; the rest on its own thread.
class CMetricsServer : private QOX::CThread {
public:
    static constexpr int SCRAPE_TIMEOUT_MS = 2000;
    static constexpr size_t MAX_SCRAPERS = 16;
    static constexpr size_t MAX_REQUEST = 8192;

    explicit CMetricsServer(const Proxy::CProxyStats& stats) : m_stats(stats) {}
    ~CMetricsServer() override;
    CMetricsServer(const CMetricsServer&) = delete;
    CMetricsServer& operator=(const CMetricsServer&) = delete;

    // Listens and starts the thread (from pool); allow holds CIDR blocks (checked when they were
    // set), none for loopback only. False with the reason.
    bool Start(const std::string& address, int port, const std::vector<std::string>& allow, QOX::CThreadPool* pool,
               std::string& error);
    void Stop();
    int GetPort() const { return m_port; }

    // The page a scrape gets.
    static std::string Render(const Proxy::CProxyStats& stats);

protected:
    int Run() override;

private:
    bool SetAllowList(const std::vector<std::string>& allow, std::string& error);
    using Clock = std::chrono::steady_clock;

    struct SScraper {
        CSocketHandle socket;
        Clock::time_point deadline;
        std::string request;
        std::string answer; // empty while the request is read
        size_t sent = 0;
    };

    void Accept(std::vector<SScraper>& scrapers) const;
    bool IsAllowed(const sockaddr_storage& peer) const;
    // One step of a scraper whose socket is ready; false when it is done with.
    bool Step(SScraper& scraper) const;
    std::string Answer(const std::string& request) const;

    const Proxy::CProxyStats& m_stats;
    std::vector<Proxy::CAddressRange> m_allow;
    int m_listenSocket = -1;
    int m_port = 0;
};

} // namespace Api
} // namespace ZRT
