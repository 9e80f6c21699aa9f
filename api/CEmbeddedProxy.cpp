#include "api/CEmbeddedProxy.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "api/CCallbackScope.h"
#include "api/CCryptVerifier.h"
#include "api/COptionTable.h"
#include "api/CUsersFile.h"
#include "proxy/core/CProxyServer.h"
#include "runtime/CThreadPool.h"
#include "transport/CSocketHandle.h"

namespace ZRT {
namespace Api {

namespace {
// "192.0.2.7" or "2001:db8::7": the address of a socket, as listen addresses are given.
std::string NumericText(const sockaddr_storage& address)
{
    char text[INET6_ADDRSTRLEN] = "";
    const void* bytes = address.ss_family == AF_INET6
                            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr)
                            : static_cast<const void*>(&reinterpret_cast<const sockaddr_in&>(address).sin_addr);
    return inet_ntop(address.ss_family, bytes, text, sizeof(text)) ? text : "";
}

// Whether socket is a stream socket that listens; its address in local.
bool IsListeningStream(int socket, sockaddr_storage& local)
{
    int type = 0;
    int listening = 0;
    socklen_t size = sizeof(type);
    if (socket < 0 || getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM)
        return false;
    size = sizeof(listening);
    if (getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || !listening)
        return false;
    socklen_t length = sizeof(local);
    return getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
           (local.ss_family == AF_INET || local.ss_family == AF_INET6);
}
} // namespace

static_assert(SEmbeddedSettings::MAX_LISTEN == Proxy::CProxyServer::MAX_LISTEN_SOCKETS,
              "every listen address the options take gets a socket");

CEmbeddedProxy::CEmbeddedProxy() : m_metrics(m_proxy.GetServer().GetStats()) {}

CEmbeddedProxy::~CEmbeddedProxy()
{
    Stop();
}

int CEmbeddedProxy::SetOption(const char* name, const char* value)
{
    if (Refuses("zrt_proxy_set_option"))
        return ZRT_E_REENTRANT;
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

Host::SDirectHostSettings CEmbeddedProxy::HostSettings(const std::vector<std::string>& listen)
{
    Host::SDirectHostSettings host = m_settings.host;
    // BIND listeners use the proxy's own first address of the right family.
    for (const std::string& address : listen) {
        std::string& bind = address.find(':') != std::string::npos ? host.bindIPv6 : host.bindIPv4;
        if (bind.empty())
            bind = address;
    }
    if (m_hooks.HasThreadHooks()) {
        host.threadStart = &CHostHooks::ThreadStart;
        host.threadStop = &CHostHooks::ThreadStop;
        host.threadContext = &m_hooks;
    }
    // Always there: the hook may be set while the proxy runs.
    host.socketHook = [this](int socket, Host::SDirectHostSettings::ESocketPurpose purpose) {
        return m_hooks.AllowsSocket(socket, static_cast<int>(purpose));
    };
    if (m_hooks.HasResolver()) {
        host.resolveHook = [this](const std::string& name, Host::SDirectHostSettings::LookupReply reply) {
            m_hooks.Ask(name, std::move(reply));
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
    if (Refuses("zrt_proxy_start"))
        return ZRT_E_REENTRANT;
    return StartServing(m_settings.ListenAddresses(), -1);
}

int CEmbeddedProxy::StartOnSocket(int socket)
{
    if (Refuses("zrt_proxy_start_on_socket"))
        return ZRT_E_REENTRANT;
    if (IsRunning())
        return Fail(ZRT_E_RUNNING, "the proxy runs already");
    sockaddr_storage local{};
    if (!IsListeningStream(socket, local))
        return Fail(ZRT_E_INVALID, "not a listening TCP socket");
    const std::string address = NumericText(local);
    const int copy = fcntl(socket, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        return Fail(ZRT_E_START, std::string("cannot take the listening socket: ") + std::strerror(errno));
    const int result = StartServing({address}, copy); // the engine closes the copy on a failure
    if (result == ZRT_OK)
        close(socket);
    return result;
}

int CEmbeddedProxy::StartServing(const std::vector<std::string>& listen, int adopted)
{
    CSocketHandle handed(adopted);
    if (IsRunning())
        return Fail(ZRT_E_RUNNING, "the proxy runs already");
    SLive live;
    std::string error;
    if (!MakeLive(live, error))
        return Fail(ZRT_E_START, error);
    std::unique_ptr<Host::CDirectServices> host(new Host::CDirectServices(HostSettings(listen)));
    const std::string problem = host->GetError();
    if (!problem.empty())
        return Fail(ZRT_E_START, problem);
    QOX::SThreadHooks hooks;
    if (m_hooks.HasThreadHooks()) {
        hooks.onStart = &CHostHooks::ThreadStart;
        hooks.onStop = &CHostHooks::ThreadStop;
        hooks.context = &m_hooks;
    }
    m_pool.reset(new QOX::CThreadPool(hooks));
    m_refusalLogged = false;
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
    m_proxy.SetThreadHooks(hooks.onStart, hooks.onStop, hooks.context);
    m_proxy.GetServer().SetAcceptFilter([this](const sockaddr_storage& client, const sockaddr_storage& local) {
        return m_hooks.AllowsClient(client, local);
    });
    if (handed.IsValid())
        m_proxy.GetServer().AdoptListenSocket(handed.Release());
    if (!m_proxy.StartProxy(listen, m_settings.port, &host->GetResolver(), &host->GetMultiPointLayer(),
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
    if (Refuses("zrt_proxy_reload"))
        return ZRT_E_REENTRANT;
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
    if (Refuses("zrt_proxy_stop") || !IsRunning())
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
    if (Refuses("zrt_proxy_reopen_logs"))
        return ZRT_E_REENTRANT;
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

int CEmbeddedProxy::NetworkChanged()
{
    if (Refuses("zrt_proxy_network_changed"))
        return ZRT_E_REENTRANT;
    if (!IsRunning())
        return Fail(ZRT_E_NOT_RUNNING, "the proxy does not run");
    m_proxy.GetServer().NetworkChanged();
    m_log.Emit(ZRT_LOG_INFO, "network changed: cached names forgotten, links from vanished addresses ended");
    return Succeed();
}

bool CEmbeddedProxy::Refuses(const char* call)
{
    if (!CCallbackScope::IsInside(this))
        return false;
    const std::string reason = std::string(call) + " called from inside a callback of the same proxy: it would wait for "
                                                   "the thread the callback runs on; call it from another thread";
    CCallbackScope::SetError(this, reason);
    if (!m_refusalLogged.exchange(true))
        m_log.Emit(ZRT_LOG_ERROR, reason);
    return true;
}

int CEmbeddedProxy::SetLogCallback(CHostHooks::LogCallback callback, void* context)
{
    m_hooks.SetLog(callback, context);
    m_log.SetCallback(callback ? &CHostHooks::Log : nullptr, &m_hooks);
    return ZRT_OK;
}

int CEmbeddedProxy::SetSocketHook(CHostHooks::SocketHook hook, void* context)
{
    m_hooks.SetSocket(hook, context);
    return ZRT_OK;
}

int CEmbeddedProxy::SetPlainSocketHook(CHostHooks::PlainSocketHook hook, void* context)
{
    m_hooks.SetPlainSocket(hook, context);
    return ZRT_OK;
}

int CEmbeddedProxy::SetAcceptHook(CHostHooks::AcceptHook hook, void* context)
{
    m_hooks.SetAccept(hook, context);
    return ZRT_OK;
}

int CEmbeddedProxy::SetThreadHooks(CHostHooks::ThreadHook onStart, CHostHooks::ThreadHook onStop, void* context)
{
    if (Refuses("zrt_proxy_set_thread_hooks"))
        return ZRT_E_REENTRANT;
    if (IsRunning())
        return Fail(ZRT_E_RUNNING, "thread hooks cannot change while the proxy runs");
    m_hooks.SetThreadHooks(onStart, onStop, context);
    return Succeed();
}

int CEmbeddedProxy::SetResolver(CHostHooks::Resolve resolve, void* context)
{
    if (Refuses("zrt_proxy_set_resolver"))
        return ZRT_E_REENTRANT;
    if (IsRunning())
        return Fail(ZRT_E_RUNNING, "the resolver cannot change while the proxy runs");
    m_hooks.SetResolver(resolve, context);
    return Succeed();
}

const std::string& CEmbeddedProxy::GetLastError() const
{
    return CCallbackScope::IsInside(this) ? CCallbackScope::GetError(this) : m_lastError;
}

int CEmbeddedProxy::Fail(int code, const std::string& reason)
{
    // A call from a callback keeps its reason on its own thread: the controlling one may read its own.
    if (CCallbackScope::IsInside(this))
        CCallbackScope::SetError(this, reason);
    else
        m_lastError = reason;
    return code;
}

int CEmbeddedProxy::Succeed()
{
    return Fail(ZRT_OK, std::string());
}

} // namespace Api
} // namespace ZRT
