#include "api/CEmbeddedProxy.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "api/CCryptVerifier.h"
#include "api/COptionTable.h"
#include "api/CUsersFile.h"
#include "proxy/core/CProxyServer.h"
#include "runtime/CThreadPool.h"

namespace ZRT {
namespace Api {

static_assert(SEmbeddedSettings::MAX_LISTEN == Proxy::CProxyServer::MAX_LISTEN_SOCKETS,
              "every listen address the options take gets a socket");

CEmbeddedProxy::CEmbeddedProxy() : m_metrics(m_proxy.GetServer().GetStats()) {}

CEmbeddedProxy::~CEmbeddedProxy()
{
    Stop();
}

int CEmbeddedProxy::SetOption(const char* name, const char* value)
{
    if (!name)
        return Fail(ZRT_E_INVALID, "no option name given");
    const COptionTable::SOption* option = COptionTable::Find(name);
    if (IsRunning() && option && !(option->flags & COptionTable::LIVE))
        return Fail(ZRT_E_RUNNING, std::string("option '") + name + "' cannot change while the proxy runs");
    std::string error;
    switch (COptionTable::Apply(m_settings, name, value, error)) {
    case COptionTable::EResult::Ok:
        return Succeed();
    case COptionTable::EResult::Unknown:
        return Fail(ZRT_E_UNKNOWN_OPTION, error);
    case COptionTable::EResult::BadValue:
        break;
    }
    return Fail(ZRT_E_BAD_VALUE, error);
}

Host::SDirectHostSettings CEmbeddedProxy::HostSettings() const
{
    Host::SDirectHostSettings host = m_settings.host;
    // BIND listeners use the proxy's own first address of the right family.
    for (const std::string& address : m_settings.ListenAddresses()) {
        std::string& bind = address.find(':') != std::string::npos ? host.bindIPv6 : host.bindIPv4;
        if (bind.empty())
            bind = address;
    }
    host.threadStart = m_threadStart;
    host.threadStop = m_threadStop;
    host.threadContext = m_threadContext;
    if (m_socketHook) {
        const auto hook = m_socketHook;
        void* const context = m_socketContext;
        host.socketHook = [hook, context](int socket) { return hook(context, socket) == 0; };
    }
    if (m_resolve) {
        const auto resolve = m_resolve;
        void* const context = m_resolveContext;
        host.resolveHook = [resolve, context](const std::string& name, Host::SDirectHostSettings::LookupReply reply) {
            resolve(context, name.c_str(), new zrt_lookup{std::move(reply)});
        };
    }
    return host;
}

bool CEmbeddedProxy::MakeLive(SLive& live, std::string& error) const
{
    live.proxy = m_settings.proxy;
    // A handler waits for a lookup at least as long as the name service may take.
    live.proxy.lookupLimitMs = std::max(live.proxy.lookupLimitMs, m_settings.host.lookupTimeoutMs + 1000);
    live.proxy.users = m_settings.users;
    if (!m_settings.usersFile.empty()) {
        CUsersFile::Users fromFile;
        if (!CUsersFile::Read(m_settings.usersFile, fromFile, error))
            return false;
        live.proxy.users.insert(fromFile.begin(), fromFile.end());
    }
    if (m_settings.authNone && !live.proxy.users.empty()) {
        error = "auth none cannot be combined with users";
        return false;
    }
    if (CCryptVerifier::IsAvailable())
        live.proxy.passwordVerifier = std::make_shared<const CCryptVerifier>();
    if (!m_settings.accessLog.empty()) {
        live.accessLog = CAccessLog::Open(m_settings.accessLog, error);
        if (!live.accessLog)
            return false;
    }
    return true;
}

bool CEmbeddedProxy::DropsEveryUser(const SLive& live) const
{
    return live.proxy.users.empty() && !m_settings.authNone && !m_proxy.GetServer().GetSettings().users.empty();
}

void CEmbeddedProxy::ApplyLive(const SLive& live)
{
    Proxy::SProxySettings settings = live.proxy;
    // The metrics listener is this machine's own business, never a destination.
    if (m_metrics.GetPort() != 0)
        settings.privatePorts.push_back(static_cast<unsigned int>(m_metrics.GetPort()));
    m_proxy.GetServer().SetSettings(settings); // the allow list was checked when it was set
    m_log.SetAccessLog(live.accessLog);
    m_log.SetLevel(m_settings.logLevel);
}

int CEmbeddedProxy::Start()
{
    if (IsRunning())
        return Fail(ZRT_E_RUNNING, "the proxy runs already");
    SLive live;
    std::string error;
    if (!MakeLive(live, error))
        return Fail(ZRT_E_START, error);
    std::unique_ptr<Host::CDirectServices> host(new Host::CDirectServices(HostSettings()));
    const std::string problem = host->GetError();
    if (!problem.empty())
        return Fail(ZRT_E_START, problem);
    QOX::SThreadHooks hooks;
    hooks.onStart = m_threadStart;
    hooks.onStop = m_threadStop;
    hooks.context = m_threadContext;
    m_pool.reset(new QOX::CThreadPool(hooks));
    if (!m_settings.metricsAddress.empty() && !m_metrics.Start(m_settings.metricsAddress, m_settings.metricsPort,
                                                               m_settings.metricsAllow, m_pool.get(), error))
        return Fail(ZRT_E_START, error);
    if (!m_log.Start(m_pool.get(), m_proxy.GetServer().GetStats())) {
        m_metrics.Stop();
        return Fail(ZRT_E_START, "cannot start the log thread");
    }
    ApplyLive(live);
    m_proxy.SetListenBacklog(m_settings.listenBacklog);
    m_proxy.SetObserver(&m_log);
    m_proxy.SetThreadHooks(m_threadStart, m_threadStop, m_threadContext);
    if (!m_proxy.StartProxy(m_settings.ListenAddresses(), m_settings.port, &host->GetResolver(), &host->GetMultiPointLayer(),
                            &host->GetDatagramHandler(), &host->GetConnectionListener())) {
        m_metrics.Stop();
        m_log.Stop();
        m_log.SetAccessLog(nullptr);
        return Fail(ZRT_E_START, m_proxy.GetStartError());
    }
    m_host = std::move(host);
    return Succeed();
}

int CEmbeddedProxy::Reload()
{
    if (!IsRunning())
        return Fail(ZRT_E_NOT_RUNNING, "the proxy does not run");
    SLive live;
    std::string error;
    if (!MakeLive(live, error))
        return Fail(ZRT_E_BAD_VALUE, error);
    if (DropsEveryUser(live))
        return Fail(ZRT_E_BAD_VALUE, "the new settings have no users, which would let every client in; "
                                     "set auth none to mean that");
    ApplyLive(live);
    m_log.Emit(ZRT_LOG_INFO, "settings reloaded");
    return Succeed();
}

void CEmbeddedProxy::Stop()
{
    if (!IsRunning())
        return;
    m_metrics.Stop();
    // The proxy's threads end first: they use the host's services to their last call.
    m_proxy.StopProxy();
    m_host.reset();
    m_log.Stop(); // after the proxy: its last lines ("stopped") are written first
    m_log.SetAccessLog(nullptr);
    m_pool.reset(); // no thread of it is left: the metrics and log threads ended
}

int CEmbeddedProxy::ReopenLogs()
{
    if (!IsRunning())
        return Fail(ZRT_E_NOT_RUNNING, "the proxy does not run");
    const std::string path = m_log.GetAccessLogPath();
    if (path.empty() || path == "-")
        return Succeed();
    std::string error;
    std::shared_ptr<const CAccessLog> log = CAccessLog::Open(path, error);
    if (!log)
        return Fail(ZRT_E_BAD_VALUE, error);
    m_log.SetAccessLog(std::move(log));
    return Succeed();
}

void CEmbeddedProxy::CountDroppedLogLines(uint64_t lines)
{
    m_proxy.GetServer().GetStats().Add(Proxy::CProxyStats::LOG_LINES_DROPPED, lines);
}

int CEmbeddedProxy::GetPort() const
{
    return m_proxy.GetListenPort();
}

int CEmbeddedProxy::GetListenCount() const
{
    return static_cast<int>(m_proxy.GetListenCount());
}

int CEmbeddedProxy::GetListenPort(int index) const
{
    return index < 0 ? 0 : m_proxy.GetListenPort(static_cast<size_t>(index));
}

void CEmbeddedProxy::GetStats(zrt_proxy_stats_t& stats) const
{
    using Proxy::CProxyStats;
    const CProxyStats& counters = m_proxy.GetServer().GetStats();
    stats.connections_active = counters.Get(CProxyStats::CONNECTIONS_ACTIVE);
    stats.connections_total = counters.Get(CProxyStats::CONNECTIONS_TOTAL);
    stats.socks5_total = counters.Get(CProxyStats::SOCKS5_TOTAL);
    stats.http_total = counters.Get(CProxyStats::HTTP_TOTAL);
    stats.refused_bad_request = counters.Get(CProxyStats::REFUSED_BAD_REQUEST);
    stats.refused_no_destination = counters.Get(CProxyStats::REFUSED_NO_DESTINATION);
    stats.refused_unreachable = counters.Get(CProxyStats::REFUSED_UNREACHABLE);
    stats.bytes_client_to_host = counters.Get(CProxyStats::BYTES_CLIENT_TO_HOST);
    stats.bytes_host_to_client = counters.Get(CProxyStats::BYTES_HOST_TO_CLIENT);
    stats.udp_datagrams_client_to_host = counters.Get(CProxyStats::UDP_DATAGRAMS_CLIENT_TO_HOST);
    stats.udp_datagrams_host_to_client = counters.Get(CProxyStats::UDP_DATAGRAMS_HOST_TO_CLIENT);
    stats.refused_not_allowed = counters.Get(CProxyStats::REFUSED_NOT_ALLOWED);
    stats.refused_auth_failed = counters.Get(CProxyStats::REFUSED_AUTH_FAILED);
    stats.refused_over_limit = counters.Get(CProxyStats::REFUSED_OVER_LIMIT);
    stats.timed_out = counters.Get(CProxyStats::TIMED_OUT);
    stats.refused_denied = counters.Get(CProxyStats::REFUSED_DENIED);
    stats.refused_source_limit = counters.Get(CProxyStats::REFUSED_SOURCE_LIMIT);
    stats.log_lines_dropped = counters.Get(CProxyStats::LOG_LINES_DROPPED);
    stats.udp_datagrams_dropped = counters.Get(CProxyStats::UDP_DATAGRAMS_DROPPED);
    stats.http_requests = counters.Get(CProxyStats::HTTP_REQUESTS_TOTAL);
    stats.http_origin_reuses = counters.Get(CProxyStats::HTTP_ORIGINS_REUSED);
    stats.socks4_total = counters.Get(CProxyStats::SOCKS4_TOTAL);
}

void CEmbeddedProxy::SetLogCallback(CLogRelay::Callback callback, void* context)
{
    if (!IsRunning())
        m_log.SetCallback(callback, context);
}

void CEmbeddedProxy::SetThreadHooks(void (*onStart)(void*), void (*onStop)(void*), void* context)
{
    if (IsRunning())
        return;
    m_threadStart = onStart;
    m_threadStop = onStop;
    m_threadContext = context;
}

void CEmbeddedProxy::SetSocketHook(int (*hook)(void* context, int socket), void* context)
{
    if (IsRunning())
        return;
    m_socketHook = hook;
    m_socketContext = context;
}

void CEmbeddedProxy::SetResolver(void (*resolve)(void* context, const char* name, zrt_lookup_t* lookup),
                                 void* context)
{
    if (IsRunning())
        return;
    m_resolve = resolve;
    m_resolveContext = context;
}

int CEmbeddedProxy::Fail(int code, const std::string& reason)
{
    m_lastError = reason;
    return code;
}

int CEmbeddedProxy::Succeed()
{
    m_lastError.clear();
    return ZRT_OK;
}

} // namespace Api
} // namespace ZRT
