#include "proxy/core/CProxyServer.h"

#include "runtime/CThreadPool.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <cstdio>
#include <cstring>
#include <vector>

#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/core/CProxyConnection.h"
#include "runtime/CRefCountPtr.h"
#include "transport/CSocketUtils.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

namespace {
const char* const ANY_IPV4 = "0.0.0.0";

int BoundPort(int socket)
{
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0)
        return 0;
    if (local.ss_family == AF_INET)
        return ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port);
    if (local.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<sockaddr_in6*>(&local)->sin6_port);
    return 0;
}

bool OutOfDescriptors(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}
} // namespace

// Forwards a listening socket's readiness to the server, on the watching loop's thread.
class CProxyServer::CListenWatch : public QOX::CRefCount_Base, public IEventHandler {
public:
    CListenWatch(CProxyServer& server, size_t listener, int socket, CEventLoop& loop)
        : m_server(server), m_listener(listener), m_socket(socket), m_loop(loop)
    {
    }
    long AddRef() override { return QOX::CRefCount_Base::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCount_Base::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCount_Base::GetReferencedObject(); }
    void OnEvents(uint32_t /*events*/) override { m_server.AcceptOn(m_listener, m_socket, m_loop); }

private:
    CProxyServer& m_server;
    const size_t m_listener;
    const int m_socket;
    CEventLoop& m_loop; // kept here: the server's list may still grow while this loop accepts
};

CProxyServer::CProxyServer(EProxyMode mode) : m_mode(mode) {}

CProxyServer::~CProxyServer()
{
    // The host stops the server first; this only makes sure that no thread outlives the object
    // and no connection keeps a pointer to it.
    StopProxy();
}

bool CProxyServer::StartProxy(int port, IResolveAddress* resolver, IZRTMultiPointLayer* multiPointLayer,
                        IDatagramHandler* datagramHandler, IConnectionListener* connectionListener)
{
    return StartProxy(ANY_IPV4, port, resolver, multiPointLayer, datagramHandler, connectionListener);
}

bool CProxyServer::StartProxy(const std::string& listenAddress, int port, IResolveAddress* resolver,
                        IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                        IConnectionListener* connectionListener)
{
    return StartProxy(std::vector<std::string>{listenAddress}, port, resolver, multiPointLayer, datagramHandler,
                      connectionListener);
}

bool CProxyServer::StartProxy(const std::vector<std::string>& listenAddresses, int port, IResolveAddress* resolver,
                        IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                        IConnectionListener* connectionListener)
{
    if (!m_listenSockets.empty()) {
        if (multiPointLayer == m_multiPointLayer && datagramHandler == m_datagramHandler &&
            connectionListener == m_connectionListener)
            return true;
        StopProxy();
    }
    m_startError.clear();
    // Closed unless OpenListenSockets takes it.
    CSocketHandle adopted(std::exchange(m_adoptedSocket, -1));
    if (adopted.IsValid() && listenAddresses.size() != 1)
        return FailStart("a listening socket handed in serves one address");
    if (listenAddresses.empty() || listenAddresses.size() > MAX_LISTEN_SOCKETS)
        return FailStart("give 1 to " + std::to_string(MAX_LISTEN_SOCKETS) + " addresses to listen on");
    if (!multiPointLayer)
        return FailStart("no multi-point layer to reach destinations through");
    if (!m_addressManager.Init(resolver))
        return FailStart("no resolver, or it refused the proxy's notification");
    if (!OpenListenSockets(listenAddresses, port, adopted)) {
        m_addressManager.Terminate();
        return false;
    }
    m_multiPointLayer = multiPointLayer;
    m_datagramHandler = datagramHandler;
    m_connectionListener = connectionListener;
    PrepareRun(listenAddresses);
    if (WatchListeners()) {
        m_originPool.Start(&m_loops->At(0));
        for (size_t i = 0; m_observer && i < m_listenSockets.size(); ++i)
            m_observer->OnStarted(listenAddresses[i], m_listenPorts[i]);
        return true;
    }
    StopProxy();
    return FailStart("cannot start the event threads");
}

void CProxyServer::NetworkChanged()
{
    m_addressManager.ForgetNetwork();
    std::lock_guard<std::mutex> hold(m_mutex);
    for (CProxyConnection* connection : m_connections)
        connection->OnNetworkChanged(); // each checks its link on its own thread
}

void CProxyServer::PrepareRun(const std::vector<std::string>& listenAddresses)
{
    m_loginGuard.SetThreadPool(m_pool);
    m_clients.SetThreadPool(m_pool);
    m_connectHelpers.Configure(m_pool ? m_pool->GetHooks() : QOX::SThreadHooks(), GetSettings().connectHelpers);
    // Loops back into the proxy are recognized by any of its ports.
    std::vector<unsigned int> ports;
    for (const auto& port : m_listenPorts)
        ports.push_back(static_cast<unsigned int>(port.load()));
    m_addressManager.SetProxyPorts(ports);
    m_beyondLoopback = std::any_of(listenAddresses.begin(), listenAddresses.end(),
                                   [](const std::string& address) { return !CSocketUtils::IsLoopbackText(address); });
    m_warned = 0;
    int threads = GetSettings().eventThreads;
    if (threads <= 0)
        threads = DefaultEventThreads(static_cast<int>(std::thread::hardware_concurrency()));
    m_loops.reset(m_pool ? new CEventLoopPool(threads, *m_pool) : new CEventLoopPool(threads));
}

// Every listening socket on every loop; false when a loop or a watch failed.
bool CProxyServer::WatchListeners()
{
    bool watched = m_loops->IsRunning();
    std::lock_guard<std::mutex> hold(m_mutex);
    m_stopping = false;
    m_listeners.clear();
    // Reserved whole: a loop accepting on an early entry must not see the list move.
    m_listeners.reserve(m_listenSockets.size() * m_loops->Size());
    for (size_t index = 0; index < m_listenSockets.size(); ++index) {
        const int socket = m_listenSockets[index];
        for (size_t i = 0; i < m_loops->Size() && watched; ++i) {
            const size_t listener = m_listeners.size();
            CEventLoop& loop = m_loops->At(i);
            m_listeners.push_back(SListener{&loop, socket, new CListenWatch(*this, listener, socket, loop), 0,
                                            m_listenClientSendBuffer[index]});
            WatchListenerLocked(listener);
            watched = m_listeners[listener].token != 0;
        }
    }
    return watched;
}

bool CProxyServer::OpenListenSockets(const std::vector<std::string>& listenAddresses, int port, CSocketHandle& adopted)
{
    const bool several = listenAddresses.size() > 1;
    for (const std::string& address : listenAddresses) {
        int socket = adopted.Release();
        const bool opened = socket < 0;
        if (!opened) {
            fcntl(socket, F_SETFD, FD_CLOEXEC);
            CSocketUtils::SetSocketBlocking(socket, false);
        } else {
            socket = OpenListenSocket(address, port, several);
        }
        if (socket < 0) {
            CloseListenSockets();
            return false;
        }
        m_listenPorts[m_listenSockets.size()] = BoundPort(socket);
        m_listenSockets.push_back(socket);
        m_listenClientSendBuffer.push_back(opened && CSocketUtils::IsLoopbackText(address) ? ClientSendBuffer(socket) : 0);
    }
    m_listenCount = m_listenSockets.size();
    return true;
}

// Accepted sockets inherit the size and its lock (Linux). A fixed size turns off the kernel's
// growth of the buffer to tcp_wmem's maximum (4 MiB by default), which a client that stops
// reading would otherwise tie up; across loopback the round trip is microseconds, so two
// moves' worth keeps a reading client in full flow (the kernel doubles what is asked, within
// net.core.wmem_max: 416 KiB on a stock kernel). A listener beyond loopback keeps the kernel's
// sizing, its clients may be a long round trip away; so does one a host hands over, whose
// options are the host's.
void CProxyServer::LimitLoopbackSendBuffer(int socket)
{
    const int size = LOOPBACK_CLIENT_SEND_BUFFER;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
}

int CProxyServer::ClientSendBuffer(int socket)
{
    int size = 0;
    socklen_t length = sizeof(size);
    return getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 ? size : 0;
}

void CProxyServer::CloseListenSockets()
{
    m_listenCount = 0;
    for (const int socket : m_listenSockets)
        CSocketUtils::CloseSocket(socket);
    m_listenSockets.clear();
    m_listenClientSendBuffer.clear();
    for (auto& port : m_listenPorts)
        port = 0;
}

int CProxyServer::DefaultEventThreads(int cpus)
{
    return std::max(1, std::min((cpus + 1) / 2, MAX_DEFAULT_EVENT_THREADS));
}

bool CProxyServer::FailStart(const std::string& reason)
{
    // Told to the caller alone: StartProxy's result is how a failed start is heard.
    m_startError = reason;
    return false;
}

std::string CProxyServer::DescribeEndpoint(const std::string& address, int port)
{
    const bool ipv6 = address.find(':') != std::string::npos;
    return (ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

int CProxyServer::OpenListenSocket(const std::string& listenAddress, int port, bool ipv6Only)
{
    char service[16];
    std::snprintf(service, sizeof(service), "%d", port);
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* result = nullptr;
    const std::string endpoint = DescribeEndpoint(listenAddress, port);
    if (getaddrinfo(listenAddress.c_str(), service, &hints, &result) != 0 || !result) {
        FailStart("cannot listen on " + endpoint + ": not a numeric IPv4 or IPv6 address");
        return -1;
    }
    int socket = ::socket(result->ai_family, result->ai_socktype, result->ai_protocol);
    if (socket < 0)
        FailStart("cannot listen on " + endpoint + ": " + std::strerror(errno));
    if (socket >= 0) {
        const int one = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        if (ipv6Only && result->ai_family == AF_INET6)
            setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
        // Accepted sockets inherit it (Linux): relayed segments go out as they come, without a
        // call per client. Nagle would hold a small one back for an ACK.
        setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        if (CSocketUtils::IsLoopbackText(listenAddress))
            LimitLoopbackSendBuffer(socket);
        fcntl(socket, F_SETFD, FD_CLOEXEC);
        // Non-blocking: a client that vanished between the wake-up and accept cannot stall a thread.
        CSocketUtils::SetSocketBlocking(socket, false);
        if (bind(socket, result->ai_addr, result->ai_addrlen) != 0 || listen(socket, m_listenBacklog.load()) != 0) {
            FailStart("cannot listen on " + endpoint + ": " + std::strerror(errno));
            CSocketUtils::CloseSocket(socket);
            socket = -1;
        }
    }
    freeaddrinfo(result);
    return socket;
}

void CProxyServer::WatchListenerLocked(size_t listener)
{
    SListener& entry = m_listeners[listener];
    const QOX::CRefCountPtr<IEventHandler> handler(entry.watch.Get());
#if defined(EPOLLEXCLUSIVE)
    // One thread woken per client; older kernels refuse the flag, and then every thread wakes
    // and all but one find nothing to accept.
    entry.token = entry.loop->Add(entry.socket, EPOLLIN | EPOLLEXCLUSIVE, handler);
    if (entry.token != 0)
        return;
#endif
    entry.token = entry.loop->Add(entry.socket, EPOLLIN, handler);
}

void CProxyServer::AcceptOn(size_t listener, int socket, CEventLoop& loop)
{
    for (int accepted = 0; accepted < ACCEPT_BURST; ++accepted) {
        sockaddr_storage peer{};
        socklen_t peerLength = sizeof(peer);
        const int client = accept4(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength,
                                   SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0) {
            if (OutOfDescriptors(errno))
                PauseAccepting(listener);
            return; // nothing waiting (or a client that vanished): the next readiness says more
        }
        Unwarn(WARNED_STARVED);
        Serve(client, peer, loop, m_listeners[listener].clientSendBuffer);
    }
}

void CProxyServer::Serve(int client, const sockaddr_storage& peer, CEventLoop& loop, int clientSendBuffer)
{
    const std::shared_ptr<const SActive> active = GetActive();
    const bool balancer = InRanges(active->proxyProtocolFrom, peer);
    if (!Admit(client, peer, *active, balancer))
        return;
    QOX::CRefCountPtr<CProxyConnection> connection(
        new CProxyConnection(*this, std::shared_ptr<const SProxySettings>(active, &active->settings),
                             std::shared_ptr<const CDestinationPolicy>(active, &active->destinations)));
    if (clientSendBuffer > 0)
        connection->UseFixedClientSendBuffer(clientSendBuffer);
    if (balancer) {
        connection->ExpectProxyHeader(
            [this, active](const sockaddr_storage& from, const sockaddr_storage& carried) {
                return AdmitCarried(from, carried, *active);
            });
    }
    // Registered in the set (by its constructor) before this look: a stop that began before is
    // seen here, one that begins after terminates it.
    if (IsStopping()) {
        m_clients.Remove(peer);
        CSocketUtils::CloseSocket(client);
        return;
    }
    m_stats.Add(CProxyStats::CONNECTIONS_TOTAL);
    m_stats.Add(CProxyStats::CONNECTIONS_ACTIVE);
    connection->Start(client, peer, loop, m_multiPointLayer, m_datagramHandler, m_connectionListener);
}

void CProxyServer::OnClientFinished(const sockaddr_storage& peer, CEventLoop* loop)
{
    m_stats.Subtract(CProxyStats::CONNECTIONS_ACTIVE);
    m_clients.Remove(peer, loop);
}

void CProxyServer::PauseAccepting(size_t listener)
{
    if (Warn(WARNED_STARVED) && m_observer)
        m_observer->OnError("out of descriptors: new clients wait in the listen queue");
    CEventLoop* loop = nullptr;
    {
        // The socket stays readable while clients wait: unwatched, it cannot spin this thread.
        std::lock_guard<std::mutex> hold(m_mutex);
        SListener& entry = m_listeners[listener];
        if (entry.token == 0)
            return;
        entry.loop->Remove(entry.token, entry.socket);
        entry.token = 0;
        loop = entry.loop;
    }
    loop->PostDelayed(ACCEPT_RETRY_DELAY_MS, [this, listener] {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_stopping && m_listeners[listener].token == 0)
            WatchListenerLocked(listener);
    });
}

bool CProxyServer::IsStopping() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_stopping;
}

bool CProxyServer::PassesFilter(int client, const sockaddr_storage& peer) const
{
    if (!m_acceptFilter)
        return true;
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    getsockname(client, reinterpret_cast<sockaddr*>(&local), &length);
    return m_acceptFilter(peer, local);
}

bool CProxyServer::Admit(int client, const sockaddr_storage& peer, const SActive& active, bool balancer)
{
    const bool allowed =
        (balancer || active.allow.empty() || InRanges(active.allow, peer)) && PassesFilter(client, peer);
    // Counted and reported before the close, so that whoever sees the close sees the count.
    if (!allowed) {
        m_stats.Add(CProxyStats::REFUSED_NOT_ALLOWED);
        ReportRefused(peer, EOutcome::NotAllowed);
        CSocketUtils::CloseSocket(client);
        return false;
    }
    const SProxySettings& settings = active.settings;
    const CClientCounts::EResult counted =
        m_clients.TryAdd(peer, static_cast<size_t>(std::max(0, settings.maxClients)),
                         balancer ? 0u : static_cast<size_t>(std::max(0, settings.maxClientsPerSource)));
    if (counted == CClientCounts::EResult::Added) {
        Unwarn(WARNED_OVER_LIMIT);
        return true;
    }
    const bool overTotal = counted == CClientCounts::EResult::OverTotal;
    m_stats.Add(overTotal ? CProxyStats::REFUSED_OVER_LIMIT : CProxyStats::REFUSED_SOURCE_LIMIT);
    // One warning per episode of a full proxy; the refusals themselves are records.
    if (overTotal && Warn(WARNED_OVER_LIMIT) && m_observer)
        m_observer->OnError("max-clients (" + std::to_string(settings.maxClients) + ") reached: new clients are closed");
    ReportRefused(peer, EOutcome::OverLimit);
    CSocketUtils::CloseSocket(client);
    return false;
}

EOutcome CProxyServer::AdmitCarried(const sockaddr_storage& balancer, const sockaddr_storage& client,
                                    const SActive& active)
{
    if (!active.allow.empty() && !InRanges(active.allow, client))
        return EOutcome::NotAllowed;
    const size_t perSource = static_cast<size_t>(std::max(0, active.settings.maxClientsPerSource));
    if (m_clients.Move(balancer, client, perSource))
        return EOutcome::Ok;
    m_stats.Add(CProxyStats::REFUSED_SOURCE_LIMIT);
    return EOutcome::OverLimit;
}

bool CProxyServer::InRanges(const std::vector<CAddressRange>& ranges, const sockaddr_storage& address)
{
    return std::any_of(ranges.begin(), ranges.end(),
                       [&](const CAddressRange& range) { return range.Contains(address); });
}

void CProxyServer::ReportRefused(const sockaddr_storage& peer, EOutcome outcome)
{
    if (!m_observer)
        return;
    CTCPIPAddress address;
    const socklen_t length = peer.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    address.SetAddress(reinterpret_cast<const sockaddr&>(peer), length);
    SConnectionRecord record;
    record.client = address.ToString();
    record.outcome = outcome;
    m_observer->OnConnectionFinished(record);
}

bool CProxyServer::SetSettings(const SProxySettings& settings)
{
    auto active = std::make_shared<SActive>();
    active->settings = settings;
    const auto parse = [](const std::vector<std::string>& texts, std::vector<CAddressRange>& ranges) {
        for (const std::string& text : texts) {
            ranges.emplace_back();
            if (!ranges.back().Parse(text))
                return false;
        }
        return true;
    };
    if (!parse(settings.allow, active->allow) || !parse(settings.proxyProtocolFrom, active->proxyProtocolFrom))
        return false;
    std::string error;
    if (!active->destinations.Build(settings.allowDestinations, settings.denyDestinations, settings.privatePorts, error))
        return false;
    std::lock_guard<std::mutex> hold(m_settingsMutex);
    m_active = std::move(active);
    return true;
}

SProxySettings CProxyServer::GetSettings() const
{
    return GetActive()->settings;
}

std::shared_ptr<const SProxySettings> CProxyServer::GetSettingsSnapshot() const
{
    const std::shared_ptr<const SActive> active = GetActive();
    return std::shared_ptr<const SProxySettings>(active, &active->settings);
}

std::shared_ptr<const CProxyServer::SActive> CProxyServer::GetActive() const
{
    std::lock_guard<std::mutex> hold(m_settingsMutex);
    return m_active;
}


void CProxyServer::StopProxy()
{
    const bool wasRunning = !m_listenSockets.empty();
    {
        // No thread accepts any more, and none starts to again (a paused one comes back only
        // while not stopping).
        std::lock_guard<std::mutex> hold(m_mutex);
        m_stopping = true;
        for (SListener& entry : m_listeners) {
            if (entry.token != 0)
                entry.loop->Remove(entry.token, entry.socket);
            entry.token = 0;
        }
    }
    // Lookups under way fail at once, so no connection waits for one.
    m_addressManager.Terminate();
    m_originPool.Stop();
    // Each one finishes on its event thread; a client accepted while this began is among them
    // or sees the stop itself.
    CloseProxyConnections();
    // A host's blocked connects end in their own time; none begins any more.
    m_connectHelpers.Abandon();
    if (m_loops)
        m_loops->Stop(); // the threads end, releasing the listener watches and delayed tasks
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_listeners.clear();
    }
    m_loops.reset();
    CloseListenSockets();
    m_addressManager.SetProxyPort(0);
    // Threads kept for reuse would run the engine's code after the host may have unloaded it.
    if (m_pool)
        m_pool->EndAll();
    else
        QOX::CThreadPool::Instance().DrainIdle();
    if (wasRunning && m_observer)
        m_observer->OnStopped();
}

void CProxyServer::CloseProxyConnections()
{
    std::vector<QOX::CRefCountPtr<CProxyConnection>> connections;
    {
        // Referenced under the mutex: a connection leaves the set (under it) before its count can
        // reach 0.
        std::lock_guard<std::mutex> hold(m_mutex);
        for (CProxyConnection* connection : m_connections)
            connections.emplace_back(connection);
        m_connections.clear();
    }
    // Every connection is told first and waited for after: they end on their event threads
    // side by side, so a stop costs one turn of each loop, not one per connection.
    for (auto& connection : connections)
        connection->RequestStop();
    for (auto& connection : connections)
        connection->Terminate();
    // Releasing may destroy connections; their destructors take their own mutex, so not under ours.
    connections.clear();
}

void CProxyServer::OnConnectionCreated(CProxyConnection* connection)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_connections.insert(connection);
}

void CProxyServer::OnConnectionDestroyed(CProxyConnection* connection)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_connections.erase(connection);
}

IConnectionProtocol* CProxyServer::CreateProtocol(IProxyConnection& connection, const char* data, int length)
{
    ProtocolCreator creator;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        creator = m_creator;
    }
    if (creator && data && length > 0)
        return creator(connection, data, length);
    return CConnectionProtocolFactory::GetInstance()->CreateProtocol(connection, data, length);
}

void CProxyServer::SetProtocolCreator(ProtocolCreator creator)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_creator = std::move(creator);
}

bool CProxyServer::IsConnected()
{
    return m_listenCount != 0;
}

IZRTMultiPointLayer* CProxyServer::GetMultiPointLayer()
{
    return m_multiPointLayer;
}

int CProxyServer::GetListenPort() const
{
    return GetListenPort(0);
}

int CProxyServer::GetListenPort(size_t index) const
{
    return index < m_listenCount ? m_listenPorts[index].load() : 0;
}

size_t CProxyServer::GetListenCount() const
{
    return m_listenCount;
}

size_t CProxyServer::GetConnectionCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_connections.size();
}

} // namespace Proxy
} // namespace ZRT
