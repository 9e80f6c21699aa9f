#include "proxy/httpproxy/COriginPool.h"

#include <algorithm>
#include <vector>

#include "transport/CEventLoop.h"

namespace ZRT {
namespace Proxy {

COriginPool::~COriginPool()
{
    Stop();
}

void COriginPool::Start(CEventLoop* loop)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_loop = loop;
    m_running = true;
}

void COriginPool::Stop()
{
    std::multimap<uint64_t, SEntry> entries;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_running = false;
        entries.swap(m_entries);
        if (m_timer != 0 && m_loop)
            m_loop->CancelDelayed(m_timer);
        m_timer = 0;
        m_loop = nullptr;
    }
    for (const auto& entry : entries)
        Close(entry.second.link, this);
}

void COriginPool::Close(const LinkPtr& link, COriginPool* sink)
{
    // After RemoveNotification no callback of this link reaches the pool.
    link->RemoveNotification(sink);
    link->Disconnect();
}

COriginPool::LinkPtr COriginPool::Take(const std::string& destination)
{
    std::multimap<uint64_t, SEntry> expired;
    LinkPtr found;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        expired = TakeExpiredLocked(Clock::now());
        for (auto it = m_entries.rbegin(); it != m_entries.rend(); ++it) {
            if (it->second.destination != destination)
                continue;
            found = it->second.link;
            m_entries.erase(std::next(it).base());
            break;
        }
    }
    for (const auto& entry : expired)
        Close(entry.second.link, this);
    if (!found)
        return {};
    found->RemoveNotification(this);
    // Closed or spoken to while it waited, just before it was taken: not to be used.
    if (!found->IsConnected() || found->GetReceiveBacklog() > 0) {
        found->Disconnect();
        return {};
    }
    return found;
}

bool COriginPool::Give(const std::string& destination, const LinkPtr& link, std::chrono::milliseconds idle)
{
    if (!link || idle.count() <= 0 || !link->IsConnected() || link->GetReceiveBacklog() > 0)
        return false;
    std::multimap<uint64_t, SEntry> expired;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_running)
            return false;
        const Clock::time_point now = Clock::now();
        expired = TakeExpiredLocked(now);
        const size_t same = static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(), [&](const auto& entry) {
            return entry.second.destination == destination;
        }));
        if (same >= MAX_PER_DESTINATION || m_entries.size() >= MAX_IDLE) {
            // The least recently used one makes way.
            auto oldest = std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& entry) {
                return same < MAX_PER_DESTINATION || entry.second.destination == destination;
            });
            if (oldest != m_entries.end()) {
                expired.insert(*oldest);
                m_entries.erase(oldest);
            }
        }
        m_entries.emplace(m_nextId++, SEntry{destination, link, now + idle});
        ScheduleLocked();
    }
    for (const auto& entry : expired)
        Close(entry.second.link, this);
    // Told of what happens to it while it waits; a notice in between finds it in the pool.
    link->AddNotification(this);
    return true;
}

size_t COriginPool::GetIdleCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_entries.size();
}

std::multimap<uint64_t, COriginPool::SEntry> COriginPool::TakeExpiredLocked(Clock::time_point now)
{
    std::multimap<uint64_t, SEntry> expired;
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (it->second.expires > now) {
            ++it;
            continue;
        }
        expired.insert(*it);
        it = m_entries.erase(it);
    }
    return expired;
}

void COriginPool::ScheduleLocked()
{
    if (!m_loop || m_entries.empty())
        return;
    Clock::time_point due = Clock::time_point::max();
    for (const auto& entry : m_entries)
        due = std::min(due, entry.second.expires);
    if (m_timer != 0 && m_timerDue <= due)
        return;
    if (m_timer != 0)
        m_loop->CancelDelayed(m_timer);
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()).count() + 1;
    m_timerDue = due;
    m_timer = m_loop->PostDelayed(static_cast<int>(std::max<long long>(wait, 1)), [this] { OnTimer(); });
}

void COriginPool::OnTimer()
{
    std::multimap<uint64_t, SEntry> expired;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_timer = 0;
        if (!m_running)
            return;
        expired = TakeExpiredLocked(Clock::now());
        ScheduleLocked();
    }
    for (const auto& entry : expired)
        Close(entry.second.link, this);
}

void COriginPool::Drop(IZRTDataLayer& link)
{
    LinkPtr dropped;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
            if (it->second.link.Get() != &link)
                continue;
            dropped = it->second.link;
            m_entries.erase(it);
            break;
        }
    }
    // From inside the link's own callback: allowed, and no later callback comes.
    if (dropped)
        Close(dropped, this);
}

void COriginPool::OnDataReceived(IZRTDataLayer& link)
{
    Drop(link); // an origin that speaks unasked is out of step with its requests
}

void COriginPool::OnConnectionClosed(IZRTDataLayer& link)
{
    Drop(link);
}

} // namespace Proxy
} // namespace ZRT
