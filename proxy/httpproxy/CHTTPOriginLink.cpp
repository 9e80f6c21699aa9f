#include "proxy/httpproxy/CHTTPOriginLink.h"

#include <chrono>

#include "proxy/core/CProxyStats.h"
#include "proxy/httpproxy/COriginPool.h"

namespace ZRT {
namespace Proxy {

CHTTPOriginLink::CHTTPOriginLink(IProxyConnection& connection, int keepAliveMs)
    : m_connection(connection), m_keepAliveMs(keepAliveMs)
{
}

CHTTPOriginLink::EOpened CHTTPOriginLink::Open(const AddressPtr& destination, bool mayReuse)
{
    const std::string key = destination->ToString();
    if (m_state == EState::Parked) {
        if (mayReuse && key == m_key) {
            m_destination = destination;
            return Reuse();
        }
        // Parked means fit for another request: this one not taking it (another origin, a
        // tunnel, a last request) leaves it for others.
        Release(true);
    }
    m_destination = destination;
    m_key = key;
    if (mayReuse) {
        const QOX::CRefCountPtr<IZRTDataLayer> idle = m_connection.GetOriginPool().Take(m_key);
        if (idle && m_connection.AdoptHostLink(idle))
            return Reuse();
        if (idle)
            idle->Disconnect();
    }
    m_state = EState::Fresh;
    return m_connection.BeginConnectToHost(destination) ? EOpened::Connecting : EOpened::Failed;
}

CHTTPOriginLink::EOpened CHTTPOriginLink::Reuse()
{
    m_state = EState::Reused;
    m_connection.GetStats().Add(CProxyStats::HTTP_ORIGINS_REUSED);
    return EOpened::Reused;
}

bool CHTTPOriginLink::Replace()
{
    const AddressPtr destination = m_destination;
    Release(false);
    m_destination = destination;
    m_state = EState::Fresh;
    return m_connection.BeginConnectToHost(m_destination);
}

void CHTTPOriginLink::Park()
{
    m_state = EState::Parked;
    m_destination.Reset();
}

void CHTTPOriginLink::Release(bool reusable)
{
    m_state = EState::None;
    m_destination.Reset();
    const QOX::CRefCountPtr<IZRTDataLayer> link = m_connection.ReleaseHostLink();
    if (!link)
        return;
    if (reusable && m_keepAliveMs > 0 &&
        m_connection.GetOriginPool().Give(m_key, link, std::chrono::milliseconds(m_keepAliveMs)))
        return;
    link->Disconnect();
}

} // namespace Proxy
} // namespace ZRT
