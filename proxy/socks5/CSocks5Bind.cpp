#include "proxy/socks5/CSocks5Bind.h"

#include "proxy/core/CProxyStats.h"
#include "proxy/socks5/CSocksAddress.h"

namespace ZRT {
namespace Proxy {

namespace {
bool IsUnspecified(const std::string& host)
{
    return host.find_first_not_of('\0') == std::string::npos;
}
} // namespace

CSocks5Bind::CSocks5Bind(IProxyConnection& connection) : m_connection(connection) {}

CSocks5Bind::~CSocks5Bind()
{
    Stop();
}

CSocks5Bind::AddressPtr CSocks5Bind::Start(IConnectionListener& listener, const IZRTConnectionAddress& expected)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_expected = AddressPtr(expected.Clone());
    }
    // Not under our lock: a peer may be handed over from inside StartListening.
    AddressPtr listening = listener.StartListening(expected, 1, this);
    if (!listening)
        return {};
    std::lock_guard<std::mutex> hold(m_mutex);
    m_listener = &listener;
    m_listenAddress = listening;
    return listening;
}

bool CSocks5Bind::IsExpected(const IZRTConnectionAddress& peer) const
{
    if (!m_expected)
        return true;
    const std::string expected = CSocksAddress::HostKey(*m_expected);
    return expected.empty() || IsUnspecified(expected) || CSocksAddress::HostKey(peer) == expected;
}

void CSocks5Bind::OnConnectionEstablished(const IZRTConnectionAddress& peer, const IZRTConnectionAddress& /*local*/,
                                          IZRTDataLayer& stream)
{
    bool taken = false;
    // A peer the destination rules refuse is no more welcome than a stranger.
    const bool allowed = m_connection.IsDestinationAllowed(peer);
    if (!allowed)
        m_connection.GetStats().Add(CProxyStats::REFUSED_DENIED);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_settled && allowed && IsExpected(peer)) {
            m_settled = true;
            m_stream = QOX::CRefCountPtr<IZRTDataLayer>(&stream);
            m_peer = AddressPtr(peer.Clone());
            taken = true;
        }
    }
    if (!taken) {
        // A stranger, or a second peer: nobody will relay it.
        stream.Disconnect();
        return;
    }
    m_connection.WakeHandler();
}

bool CSocks5Bind::TakePeer(QOX::CRefCountPtr<IZRTDataLayer>& stream, AddressPtr& peer)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    if (!m_stream)
        return false;
    stream = std::move(m_stream);
    peer = std::move(m_peer);
    m_stream.Reset();
    m_peer.Reset();
    return true;
}

void CSocks5Bind::Stop()
{
    IConnectionListener* listener = nullptr;
    AddressPtr listening;
    QOX::CRefCountPtr<IZRTDataLayer> untaken;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_settled = true;
        listener = m_listener;
        m_listener = nullptr;
        listening = std::move(m_listenAddress);
        m_listenAddress.Reset();
    }
    // After StopListening no callback comes; then a peer handed over meanwhile is ours alone.
    if (listener && listening)
        listener->StopListening(*listening);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        untaken = std::move(m_stream);
        m_stream.Reset();
    }
    if (untaken)
        untaken->Disconnect();
}

} // namespace Proxy
} // namespace ZRT
