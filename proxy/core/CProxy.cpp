#include "proxy/core/CProxy.h"

#include "proxy/core/CProxyServer.h"
#include "runtime/CThreadPool.h"

namespace ZRT {
namespace Proxy {

CProxy::CProxy(EProxyMode mode)
    : m_mode(mode), m_pool(new QOX::CThreadPool()),
      m_server(new CProxyServer(static_cast<CProxyServer::EProxyMode>(mode)))
{
    m_server->SetThreadPool(m_pool.get());
}

CProxy::~CProxy()
{
    m_server->StopProxy();
}

bool CProxy::StartProxy(int port, IResolveAddress* resolver, IZRTMultiPointLayer* multiPointLayer,
                        IDatagramHandler* datagramHandler, IConnectionListener* connectionListener)
{
    return m_server->StartProxy(port, resolver, multiPointLayer, datagramHandler, connectionListener);
}

bool CProxy::StartProxy(const std::string& listenAddress, int port, IResolveAddress* resolver,
                        IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                        IConnectionListener* connectionListener)
{
    return m_server->StartProxy(listenAddress, port, resolver, multiPointLayer, datagramHandler,
                                connectionListener);
}

bool CProxy::StartProxy(const std::vector<std::string>& listenAddresses, int port, IResolveAddress* resolver,
                        IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                        IConnectionListener* connectionListener)
{
    return m_server->StartProxy(listenAddresses, port, resolver, multiPointLayer, datagramHandler,
                                connectionListener);
}

void CProxy::StopProxy()
{
    m_server->StopProxy();
}

bool CProxy::IsConnected()
{
    return m_server->IsConnected();
}

IZRTMultiPointLayer* CProxy::GetMultiPointLayer()
{
    return m_server->GetMultiPointLayer();
}

std::string CProxy::GetStartError() const
{
    return m_server->GetStartError();
}

int CProxy::GetListenPort() const
{
    return m_server->GetListenPort();
}

int CProxy::GetListenPort(size_t index) const
{
    return m_server->GetListenPort(index);
}

size_t CProxy::GetListenCount() const
{
    return m_server->GetListenCount();
}

size_t CProxy::GetConnectionCount() const
{
    return m_server->GetConnectionCount();
}

void CProxy::SetListenBacklog(int backlog)
{
    m_server->SetListenBacklog(backlog);
}

bool CProxy::SetSettings(const SProxySettings& settings)
{
    return m_server->SetSettings(settings);
}

SProxySettings CProxy::GetSettings() const
{
    return m_server->GetSettings();
}

void CProxy::SetObserver(IProxyObserver* observer)
{
    m_server->SetObserver(observer);
}

void CProxy::SetThreadHooks(void (*onStart)(void* context), void (*onStop)(void* context), void* context)
{
    if (m_server->IsConnected())
        return;
    QOX::SThreadHooks hooks;
    hooks.onStart = onStart;
    hooks.onStop = onStop;
    hooks.context = context;
    // The old pool has no thread left: a stopped server ended them all.
    m_pool.reset(new QOX::CThreadPool(hooks));
    m_server->SetThreadPool(m_pool.get());
}

const CProxyStats& CProxy::GetStats() const
{
    return m_server->GetStats();
}

} // namespace Proxy
} // namespace ZRT
