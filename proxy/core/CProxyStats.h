#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// The counters of one proxy since it was made: counted where things happen, on any thread, read
// whenever a host asks (a scrape never waits for a connection).
class ZRT_EXPORT CProxyStats {
public:
    enum ECounter {
        CONNECTIONS_ACTIVE,
        CONNECTIONS_TOTAL,
        SOCKS5_TOTAL,
        HTTP_TOTAL,
        REFUSED_BAD_REQUEST,
        REFUSED_NO_DESTINATION,
        REFUSED_UNREACHABLE,
        BYTES_CLIENT_TO_HOST,
        BYTES_HOST_TO_CLIENT,
        UDP_DATAGRAMS_CLIENT_TO_HOST,
        UDP_DATAGRAMS_HOST_TO_CLIENT,
        REFUSED_NOT_ALLOWED, // a client outside the allow list, or a destination not allowed
        REFUSED_AUTH_FAILED,
        REFUSED_OVER_LIMIT,  // closed at accept: max-clients reached
        TIMED_OUT,           // closed by the handshake or idle limit
        REFUSED_DENIED,      // a destination the destination rules refuse
        REFUSED_SOURCE_LIMIT, // closed at accept: max-clients-per-source reached for its address
        LOG_LINES_DROPPED,   // log lines lost because the sink was behind
        UDP_DATAGRAMS_DROPPED, // datagrams too large to relay whole
        HTTP_REQUESTS_TOTAL, // requests answered on persistent HTTP connections
        HTTP_ORIGINS_REUSED, // requests sent on an idle origin connection
        SOCKS4_TOTAL,        // clients that spoke SOCKS4 or 4A
        COUNTER_COUNT
    };

    void Add(ECounter counter, uint64_t amount = 1) { m_values[counter].fetch_add(amount, std::memory_order_relaxed); }
    void Subtract(ECounter counter, uint64_t amount = 1)
    {
        m_values[counter].fetch_sub(amount, std::memory_order_relaxed);
    }
    uint64_t Get(ECounter counter) const { return m_values[counter].load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> m_values[COUNTER_COUNT] = {};
};

} // namespace Proxy
} // namespace ZRT
