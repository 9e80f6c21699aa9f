#include "proxy/core/CConnectionLimits.h"

#include <algorithm>

namespace ZRT {
namespace Proxy {

void CConnectionLimits::MarkRequestComplete()
{
    if (m_requestComplete)
        return;
    m_requestComplete = true;
    m_lastActivity = Clock::now();
}

void CConnectionLimits::MarkClientFinished()
{
    if (!m_clientFinishedAt)
        m_clientFinishedAt = Clock::now();
}

void CConnectionLimits::UpdateActivity()
{
    // The clock is read only when a limit counts from the last move.
    if (m_moved && ((m_requestComplete && m_settings.idleTimeoutMs > 0) || m_clientFinishedAt))
        m_lastActivity = Clock::now();
    m_moved = false;
}

std::optional<CConnectionLimits::Clock::time_point> CConnectionLimits::RequestDeadline() const
{
    if (!m_requestComplete && m_settings.handshakeTimeoutMs > 0)
        return m_start + std::chrono::milliseconds(m_settings.handshakeTimeoutMs);
    if (m_requestComplete && m_settings.idleTimeoutMs > 0)
        return m_lastActivity + std::chrono::milliseconds(m_settings.idleTimeoutMs);
    return std::nullopt;
}

std::optional<CConnectionLimits::Clock::time_point> CConnectionLimits::LingerDeadline(bool linkOpen) const
{
    // Counted from the client's end or the last byte moved (either way), whichever is later: a
    // destination that still moves bytes is not stuck.
    if (!m_clientFinishedAt || m_linger != ELinger::Waiting || m_settings.lingerTimeoutMs <= 0 || !linkOpen)
        return std::nullopt;
    return std::max(*m_clientFinishedAt, m_lastActivity) + std::chrono::milliseconds(m_settings.lingerTimeoutMs);
}

std::optional<CConnectionLimits::Clock::time_point> CConnectionLimits::Next(bool linkOpen) const
{
    const std::optional<Clock::time_point> request = RequestDeadline();
    const std::optional<Clock::time_point> linger = LingerDeadline(linkOpen);
    if (request && linger)
        return std::min(*request, *linger);
    return request ? request : linger;
}

std::optional<CConnectionLimits::Clock::time_point> CConnectionLimits::DrainDeadline() const
{
    if (m_settings.lingerTimeoutMs <= 0)
        return std::nullopt;
    return m_drainProgress + std::chrono::milliseconds(m_settings.lingerTimeoutMs);
}

} // namespace Proxy
} // namespace ZRT
