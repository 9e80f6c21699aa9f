#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ZRT {
namespace Proxy {

// How many clients the proxy serves now, in all and per client address, so that the accept
// path can hold the limits (max-clients, max-clients-per-source) without asking the connections.
// An IPv4 client seen through a dual-stack socket counts as its IPv4 address. When the last
// client goes, the allocator is asked to give its free memory back to the system (glibc keeps
// it otherwise), at most once per TRIM_INTERVAL_MS across the process.
//
// Threads: TryAdd on the event thread that accepts, Move and Remove on the connection's thread;
// any number at once.
class CClientCounts {
public:
    enum class EResult { Added, OverTotal, OverSource };
    static constexpr long long TRIM_INTERVAL_MS = 1000;

    // Counts the client in unless a limit (0: none) is reached.
    EResult TryAdd(const sockaddr_storage& client, size_t maxTotal, size_t maxPerSource);
    void Remove(const sockaddr_storage& client);
    // Gives from's place to to, unless to is at the per-source limit (0: none); the total stays.
    bool Move(const sockaddr_storage& from, const sockaddr_storage& to, size_t maxPerSource);
    size_t Total() const;
    size_t FromSource(const sockaddr_storage& client) const;

private:
    static std::string Key(const sockaddr_storage& client);
    static void GiveBackFreeMemory();

    // Guards both members.
    mutable std::mutex m_mutex;
    size_t m_total = 0;
    std::unordered_map<std::string, size_t> m_bySource;
};

} // namespace Proxy
} // namespace ZRT
