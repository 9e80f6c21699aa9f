#include "proxy/core/CProxy.h"

#include <iterator>

#include "proxy/core/CProxyOptions.h"
#include "proxy/core/CProxyServer.h"
#include "runtime/CThreadPool.h"

namespace ZRT {
namespace Proxy {

namespace {
// The engine's counter behind each public number (CProxy::ECounter, in its order).
const CProxyStats::ECounter PUBLIC_COUNTERS[] = {
    CProxyStats::CONNECTIONS_ACTIVE,
    CProxyStats::CONNECTIONS_TOTAL,
    CProxyStats::SOCKS5_TOTAL,
    CProxyStats::HTTP_TOTAL,
    CProxyStats::REFUSED_BAD_REQUEST,
    CProxyStats::REFUSED_NO_DESTINATION,
    CProxyStats::REFUSED_UNREACHABLE,
    CProxyStats::BYTES_CLIENT_TO_HOST,
    CProxyStats::BYTES_HOST_TO_CLIENT,
    CProxyStats::UDP_DATAGRAMS_CLIENT_TO_HOST,
    CProxyStats::UDP_DATAGRAMS_HOST_TO_CLIENT,
    CProxyStats::REFUSED_NOT_ALLOWED,
    CProxyStats::REFUSED_AUTH_FAILED,
    CProxyStats::REFUSED_OVER_LIMIT,
    CProxyStats::TIMED_OUT,
    CProxyStats::REFUSED_DENIED,
    CProxyStats::REFUSED_SOURCE_LIMIT,
    CProxyStats::LOG_LINES_DROPPED,
    CProxyStats::UDP_DATAGRAMS_DROPPED,
    CProxyStats::HTTP_REQUESTS_TOTAL,
    CProxyStats::HTTP_ORIGINS_REUSED,
};
static_assert(std::size(PUBLIC_COUNTERS) == CProxy::COUNTER_HTTP_ORIGIN_REUSES + 1, "a counter for every number");

const char LOOPBACK_IPV4[] = "127.0.0.1";
} // namespace

// Members go in reverse order: the server's threads come from the pool, which goes last.
struct CProxy::SParts {
    explicit SParts(EProxyMode proxyMode)
        : mode(proxyMode), pool(new QOX::CThreadPool()),
          server(new CProxyServer(static_cast<CProxyServer::EProxyMode>(proxyMode)))
    {
        server->SetThreadPool(pool.get());
    }

    const EProxyMode mode;
    std::unique_ptr<QOX::CThreadPool> pool;
    std::unique_ptr<CProxyServer> server;
};

CProxy::CProxy(EProxyMode mode) : m_parts(new SParts(mode)) {}

CProxy::~CProxy()
{
    m_parts->server->StopProxy();
}

bool CProxy::StartProxy(int port, IResolveAddress* resolver, IZRTMultiPointLayer* multiPointLayer,
                        IDatagramHandler* datagramHandler, IConnectionListener* connectionListener)
{
    return StartProxy(std::string(LOOPBACK_IPV4), port, resolver, multiPointLayer, datagramHandler, connectionListener);
}

bool CProxy::StartProxy(const std::string& listenAddress, int port, IResolveAddress* resolver,
                        IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                        IConnectionListener* connectionListener)
{
    return m_parts->server->StartProxy(listenAddress, port, resolver, multiPointLayer, datagramHandler,
                                       connectionListener);
}

bool CProxy::StartProxy(const std::vector<std::string>& listenAddresses, int port, IResolveAddress* resolver,
                        IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                        IConnectionListener* connectionListener)
{
    return m_parts->server->StartProxy(listenAddresses, port, resolver, multiPointLayer, datagramHandler,
                                       connectionListener);
}

void CProxy::StopProxy()
{
    m_parts->server->StopProxy();
}

bool CProxy::IsConnected()
{
    return m_parts->server->IsConnected();
}

IZRTMultiPointLayer* CProxy::GetMultiPointLayer()
{
    return m_parts->server->GetMultiPointLayer();
}

std::string CProxy::GetStartError() const
{
    return m_parts->server->GetStartError();
}

int CProxy::GetListenPort() const
{
    return m_parts->server->GetListenPort();
}

int CProxy::GetListenPort(size_t index) const
{
    return m_parts->server->GetListenPort(index);
}

size_t CProxy::GetListenCount() const
{
    return m_parts->server->GetListenCount();
}

size_t CProxy::GetConnectionCount() const
{
    return m_parts->server->GetConnectionCount();
}

CProxy::EProxyMode CProxy::GetMode() const
{
    return m_parts->mode;
}

int CProxy::SetOption(const char* name, const char* value, std::string* error)
{
    std::string reason;
    const CProxyOptions::SOption* option = name ? CProxyOptions::Find(name) : nullptr;
    int result = OPTION_OK;
    if (!option) {
        reason = std::string("no option named '") + (name ? name : "") + "'";
        result = OPTION_UNKNOWN;
    } else if (IsConnected() && !(option->flags & COptionText::LIVE)) {
        reason = std::string("option '") + name + "' cannot change while the proxy runs";
        result = OPTION_RUNNING;
    } else {
        SProxySettings settings = m_parts->server->GetSettings();
        if (CProxyOptions::Apply(settings, name, value, reason) == COptionText::EResult::Ok)
            m_parts->server->SetSettings(settings); // every value was checked by its row
        else
            result = OPTION_BAD_VALUE;
    }
    if (error)
        *error = reason;
    return result;
}

uint64_t CProxy::GetCounter(int which) const
{
    if (which < 0 || which >= static_cast<int>(std::size(PUBLIC_COUNTERS)))
        return 0;
    return m_parts->server->GetStats().Get(PUBLIC_COUNTERS[which]);
}

void CProxy::SetListenBacklog(int backlog)
{
    m_parts->server->SetListenBacklog(backlog);
}

void CProxy::SetObserver(IProxyObserver* observer)
{
    m_parts->server->SetObserver(observer);
}

void CProxy::SetThreadHooks(void (*onStart)(void* context), void (*onStop)(void* context), void* context)
{
    if (m_parts->server->IsConnected())
        return;
    QOX::SThreadHooks hooks;
    hooks.onStart = onStart;
    hooks.onStop = onStop;
    hooks.context = context;
    // The old pool has no thread left: a stopped server ended them all.
    m_parts->pool.reset(new QOX::CThreadPool(hooks));
    m_parts->server->SetThreadPool(m_parts->pool.get());
}

void CProxy::SetAcceptHook(int (*hook)(void* context, const sockaddr* client, const sockaddr* local), void* context)
{
    if (m_parts->server->IsConnected())
        return;
    if (!hook) {
        m_parts->server->SetAcceptFilter(nullptr);
        return;
    }
    m_parts->server->SetAcceptFilter([hook, context](const sockaddr_storage& client, const sockaddr_storage& local) {
        return hook(context, reinterpret_cast<const sockaddr*>(&client), reinterpret_cast<const sockaddr*>(&local)) == 0;
    });
}

void CProxy::NetworkChanged()
{
    m_parts->server->NetworkChanged();
}

CProxyServer& CProxy::GetServer()
{
    return *m_parts->server;
}

const CProxyServer& CProxy::GetServer() const
{
    return *m_parts->server;
}

} // namespace Proxy
} // namespace ZRT
