#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace QOX {
class CThreadPool;
}

namespace ZRT {
class CEventLoop;
namespace Proxy {

// How many clients the proxy serves now, in all and per client address, so that the accept
// path can hold the limits (max-clients, max-clients-per-source) without asking the connections.
// An IPv4 client seen through a dual-stack socket counts as its IPv4 address.
//
// As clients go, the idle buffers of the process-wide pool are let go and the allocator is asked
// to give its free memory back to the system (glibc keeps it otherwise): when the last one goes,
// or the count falls to a quarter of a peak of at least SHARP_DROP_PEAK; at most once per
// TRIM_INTERVAL_MS across the process, unless the last one of at least BUSY_PEAK went. That is
// done on a thread of the proxy's pool, not on the thread that serves the remaining clients: a
// trim of a large heap takes milliseconds (about 5 for 130 MB). That thread still waits for its
// arena's lock if it allocates while the trim goes through that arena.
//
// Threads: TryAdd on the event thread that accepts, Move and Remove on the connection's thread;
// any number at once.
class CClientCounts {
public:
    enum class EResult { Added, OverTotal, OverSource };
    static constexpr long long TRIM_INTERVAL_MS = 1000;
    static constexpr size_t BUSY_PEAK = 64;
    static constexpr size_t SHARP_DROP_PEAK = 256;

    // Where free memory is given back (the process-wide pool when null); it must outlive the
    // counts' use (the proxy ends its pool's threads at stop). Set before the first client.
    void SetThreadPool(QOX::CThreadPool* pool);
    // Counts the client in unless a limit (0: none) is reached.
    EResult TryAdd(const sockaddr_storage& client, size_t maxTotal, size_t maxPerSource);
    // turn: the event loop whose turn under way lets go of the client (null: none); free memory
    // is given back once that turn is done.
    void Remove(const sockaddr_storage& client, CEventLoop* turn = nullptr);
    // Gives from's place to to, unless to is at the per-source limit (0: none); the total stays.
    bool Move(const sockaddr_storage& from, const sockaddr_storage& to, size_t maxPerSource);
    size_t Total() const;
    size_t FromSource(const sockaddr_storage& client) const;

private:
    static std::string Key(const sockaddr_storage& client);
    // True when this drop may give back (not too soon after the last time, or urgent).
    static bool TakeTrimTurn(bool urgent);
    static void GiveBackFreeMemory(QOX::CThreadPool* pool);

    // Guards the members below.
    mutable std::mutex m_mutex;
    size_t m_total = 0;
    size_t m_peak = 0; // most clients at once since free memory was last given back
    std::unordered_map<std::string, size_t> m_bySource;
    QOX::CThreadPool* m_pool = nullptr;
};

} // namespace Proxy
} // namespace ZRT
