#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "runtime/CRefCountPtr.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"

namespace ZRT {

class CEventLoop;

namespace Proxy {

// Idle connections to origins that ended an HTTP response cleanly, kept for the next request to
// the same destination (its resolved address and port) on any client connection of the proxy.
// At most MAX_IDLE in all and MAX_PER_DESTINATION per destination; each is closed after its idle
// time, or at once when its origin closes it or sends anything unasked (it would be unusable).
// A connection is never in the pool while in use: Take hands it to one client connection alone.
//
// Threads: Take and Give on the connections' event threads; the links' notifications on the
// host's threads; the idle time runs out on the loop given to Start; Stop on the controlling
// thread. Every operation takes m_mutex, never while calling into a link.
class COriginPool : private IZRTDataLayerNotification {
public:
    static constexpr size_t MAX_IDLE = 256;
    static constexpr size_t MAX_PER_DESTINATION = 8;
    using Clock = std::chrono::steady_clock;
    using LinkPtr = QOX::CRefCountPtr<IZRTDataLayer>;

    COriginPool() = default;
    ~COriginPool() override;
    COriginPool(const COriginPool&) = delete;
    COriginPool& operator=(const COriginPool&) = delete;

    // Idle times run out on loop (its thread closes the links); null: they are only checked
    // when the pool is used.
    void Start(CEventLoop* loop);
    // Closes every idle link; no notification reaches the pool afterwards.
    void Stop();

    // An idle link to destination, the most recently used one, or none.
    LinkPtr Take(const std::string& destination);
    // Keeps link for idle; false (the caller closes it) when the pool is full for it or stopped.
    bool Give(const std::string& destination, const LinkPtr& link, std::chrono::milliseconds idle);
    size_t GetIdleCount() const;

private:
    struct SEntry {
        std::string destination;
        LinkPtr link;
        Clock::time_point expires;
    };

    void OnDataReceived(IZRTDataLayer& link) override;
    void OnConnectionClosed(IZRTDataLayer& link) override;
    // Takes the link out (and closes it) when it is still in the pool.
    void Drop(IZRTDataLayer& link);
    // Under m_mutex: the entries whose time is up, taken out; the next wake-up set.
    std::multimap<uint64_t, SEntry> TakeExpiredLocked(Clock::time_point now);
    void ScheduleLocked();
    void OnTimer();
    static void Close(const LinkPtr& link, COriginPool* sink);

    // Guards every member below.
    mutable std::mutex m_mutex;
    CEventLoop* m_loop = nullptr;
    bool m_running = false;
    uint64_t m_timer = 0;               // the loop's delayed task, 0 when none
    Clock::time_point m_timerDue{};
    uint64_t m_nextId = 1;
    std::multimap<uint64_t, SEntry> m_entries; // by id: the most recent has the highest
};

} // namespace Proxy
} // namespace ZRT
