#include "proxy/core/CClientCounts.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>

#include "runtime/CPoolTask.h"
#include "runtime/CScratchLoan.h"
#include "transport/CByteBufferList.h"
#include "transport/CEventLoop.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

std::string CClientCounts::Key(const sockaddr_storage& client)
{
    return CSocketUtils::SourceKey(client);
}

CClientCounts::EResult CClientCounts::TryAdd(const sockaddr_storage& client, size_t maxTotal, size_t maxPerSource)
{
    const std::string key = Key(client);
    std::lock_guard<std::mutex> hold(m_mutex);
    if (maxTotal > 0 && m_total >= maxTotal)
        return EResult::OverTotal;
    size_t& fromSource = m_bySource[key];
    if (maxPerSource > 0 && fromSource >= maxPerSource)
        return EResult::OverSource;
    ++fromSource;
    m_peak = std::max(m_peak, ++m_total);
    return EResult::Added;
}

void CClientCounts::Remove(const sockaddr_storage& client, CEventLoop* turn)
{
    const std::string key = Key(client);
    bool urgent = false;
    QOX::CThreadPool* pool = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        auto found = m_bySource.find(key);
        if (found == m_bySource.end())
            return;
        if (--found->second == 0)
            m_bySource.erase(found);
        if (m_total > 0)
            --m_total;
        const bool sharpDrop = m_peak >= SHARP_DROP_PEAK && m_total <= m_peak / 4;
        if (m_total > 0 && !sharpDrop)
            return;
        urgent = m_total == 0 && m_peak >= BUSY_PEAK;
        pool = m_pool;
        if (!TakeTrimTurn(urgent))
            return;
        m_peak = m_total;
    }
    // After the turn that lets go of the client: what it frees then is given back too.
    if (turn && turn->IsLoopThread())
        turn->Post([pool] { GiveBackFreeMemory(pool); });
    else
        GiveBackFreeMemory(pool);
}

void CClientCounts::SetThreadPool(QOX::CThreadPool* pool)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_pool = pool;
}

bool CClientCounts::TakeTrimTurn(bool urgent)
{
    // Process-wide, as the allocator and the buffer pool are.
    static std::atomic<long long> s_lastTrimMs{-TRIM_INTERVAL_MS};
    const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now().time_since_epoch())
                              .count();
    long long last = s_lastTrimMs.load();
    if (!urgent && now - last < TRIM_INTERVAL_MS)
        return false;
    return s_lastTrimMs.compare_exchange_strong(last, now); // false: another thread gives it back now
}

void CClientCounts::GiveBackFreeMemory(QOX::CThreadPool* pool)
{
    // No thread to be had: the next drop tries again.
    QOX::CPoolTask::Launch(pool, [] {
        // Idle buffers would pin their pages among the freed ones.
        CByteBufferList::ReleasePool();
        QOX::CScratchLoan::ReleaseIdle();
#ifdef __GLIBC__
        malloc_trim(0);
#endif
    });
}

bool CClientCounts::Move(const sockaddr_storage& from, const sockaddr_storage& to, size_t maxPerSource)
{
    const std::string fromKey = Key(from);
    const std::string toKey = Key(to);
    std::lock_guard<std::mutex> hold(m_mutex);
    if (fromKey == toKey)
        return true;
    const auto counted = m_bySource.find(toKey);
    if (maxPerSource > 0 && counted != m_bySource.end() && counted->second >= maxPerSource)
        return false;
    const auto found = m_bySource.find(fromKey);
    if (found != m_bySource.end() && --found->second == 0)
        m_bySource.erase(found);
    ++m_bySource[toKey];
    return true;
}

size_t CClientCounts::Total() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_total;
}

size_t CClientCounts::FromSource(const sockaddr_storage& client) const
{
    const std::string key = Key(client);
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_bySource.find(key);
    return found == m_bySource.end() ? 0 : found->second;
}

} // namespace Proxy
} // namespace ZRT
