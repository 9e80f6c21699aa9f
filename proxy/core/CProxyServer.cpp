#include "proxy/core/CProxyServer.h"

#include "runtime/CThreadPool.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
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

CProxyServer::CProxyServer(EProxyMode mode) : CThread(false), m_mode(mode) {}

CProxyServer::~CProxyServer()
{
    // The host stops the server first; this only makes sure that no thread outlives the object
    // and no connection keeps a pointer to it. The address manager is left alone.
    const int socket = m_listenSocket.exchange(-1);
    const int status = GetThreadStatus();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING)
        StopThread(-1);
    CSocketUtils::CloseSocket(socket);
    CloseProxyConnections();
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
    if (m_listenSocket != -1) {
        if (multiPointLayer == m_multiPointLayer && datagramHandler == m_datagramHandler &&
            connectionListener == m_connectionListener)
            return true;
        StopProxy();
    }
    m_startError.clear();
    if (!multiPointLayer)
        return FailStart("no multi-point layer to reach destinations through");
    if (!m_addressManager.Init(resolver))
        return FailStart("no resolver, or it refused the proxy's notification");
    const int socket = OpenListenSocket(listenAddress, port);
    if (socket < 0) {
        m_addressManager.Terminate();
        return false;
    }
    m_multiPointLayer = multiPointLayer;
    m_datagramHandler = datagramHandler;
    m_connectionListener = connectionListener;
    m_listenPort = BoundPort(socket);
    m_addressManager.SetProxyPort(static_cast<unsigned int>(m_listenPort.load()));
    m_listenSocket = socket;
    m_listenAddressText = listenAddress;
    if (StartThread(false)) {
        if (m_observer)
            m_observer->OnStarted(listenAddress, m_listenPort);
        return true;
    }
    m_listenSocket = -1;
    m_listenPort = 0;
    m_addressManager.SetProxyPort(0);
    m_addressManager.Terminate();
    CSocketUtils::CloseSocket(socket);
    return FailStart("cannot start the accept thread");
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

int CProxyServer::OpenListenSocket(const std::string& listenAddress, int port)
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
        fcntl(socket, F_SETFD, FD_CLOEXEC);
        // Non-blocking, so a client that vanished between poll and accept cannot stall the loop.
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

int CProxyServer::Run()
{
    // Out of descriptors the listening socket stays readable: the loop then waits on the stop
    // event alone for a while instead of spinning.
    bool backOff = false;
    bool starved = false; // told the observer already, until a client is accepted again
    const int stopHandle = m_stopEvent.GetWaitHandle();
    for (;;) {
        const int listenSocket = m_listenSocket;
        if (listenSocket == -1 || stopHandle < 0)
            break;
        pollfd fds[2] = {{backOff ? -1 : listenSocket, POLLIN, 0}, {stopHandle, POLLIN, 0}};
        if (poll(fds, 2, backOff ? ACCEPT_RETRY_DELAY_MS : -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        backOff = false;
        if (fds[1].revents != 0)
            break;
        if (fds[0].revents & (POLLERR | POLLNVAL))
            break;
        if (!(fds[0].revents & POLLIN))
            continue;
        // Drain a burst in one wake-up: every client left in the backlog while we sleep again
        // risks an overflow and a SYN retry a second later.
        for (int accepted = 0; accepted < ACCEPT_BURST; ++accepted) {
            const EAccept result = AcceptOne(listenSocket);
            if (result == EAccept::OutOfDescriptors) {
                backOff = true;
                if (!starved && m_observer)
                    m_observer->OnError("out of descriptors: new clients wait in the listen queue");
                starved = true;
            }
            if (result == EAccept::Accepted)
                starved = false;
            if (result != EAccept::Accepted)
                break;
        }
    }
    return 1;
}

CProxyServer::EAccept CProxyServer::AcceptOne(int listenSocket)
{
    sockaddr_storage peer{};
    socklen_t peerLength = sizeof(peer);
#if defined(__linux__)
    // Close-on-exec and non-blocking in the same call (Android's libc has accept4 too).
    const int client = accept4(listenSocket, reinterpret_cast<sockaddr*>(&peer), &peerLength,
                               SOCK_CLOEXEC | SOCK_NONBLOCK);
#else
    const int client = accept(listenSocket, reinterpret_cast<sockaddr*>(&peer), &peerLength);
#endif
    if (client < 0)
        return OutOfDescriptors(errno) ? EAccept::OutOfDescriptors : EAccept::NothingWaiting;
#if !defined(__linux__)
    fcntl(client, F_SETFD, FD_CLOEXEC);
#endif
    if (m_listenSocket == -1) {
        CSocketUtils::CloseSocket(client);
        return EAccept::NothingWaiting;
    }
    const std::shared_ptr<const SActive> active = GetActive();
    if (!Admit(client, peer, *active))
        return EAccept::Accepted;
    auto* connection = new CProxyConnection(this, std::shared_ptr<const SProxySettings>(active, &active->settings));
    connection->SetThreadPool(m_pool);
    // On failure Init closed the socket and nothing else refers to the connection.
    if (!connection->Init(client, m_multiPointLayer, m_datagramHandler, m_connectionListener)) {
        delete connection;
        return EAccept::Accepted;
    }
    m_stats.Add(CProxyStats::CONNECTIONS_TOTAL);
    m_stats.Add(CProxyStats::CONNECTIONS_ACTIVE);
    return EAccept::Accepted;
}

bool CProxyServer::Admit(int client, const sockaddr_storage& peer, const SActive& active)
{
    const bool allowed = active.allow.empty() ||
                         std::any_of(active.allow.begin(), active.allow.end(),
                                     [&](const CAddressRange& range) { return range.Contains(peer); });
    // Counted and reported before the close, so that whoever sees the close sees the count.
    if (!allowed) {
        m_stats.Add(CProxyStats::REFUSED_NOT_ALLOWED);
        ReportRefused(peer, EOutcome::NotAllowed);
        CSocketUtils::CloseSocket(client);
        return false;
    }
    const int limit = active.settings.maxClients;
    if (limit > 0 && m_stats.Get(CProxyStats::CONNECTIONS_ACTIVE) >= static_cast<uint64_t>(limit)) {
        m_stats.Add(CProxyStats::REFUSED_OVER_LIMIT);
        // One report per episode: a flood of refusals must not become a flood of log lines.
        if (!m_overLimit && m_observer)
            m_observer->OnError("max-clients (" + std::to_string(limit) + ") reached: new clients are closed");
        m_overLimit = true;
        CSocketUtils::CloseSocket(client);
        return false;
    }
    m_overLimit = false;
    return true;
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
    for (const std::string& text : settings.allow) {
        CAddressRange range;
        if (!range.Parse(text))
            return false;
        active->allow.push_back(range);
    }
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

void CProxyServer::SetThreadPool(QOX::CThreadPool* pool)
{
    m_pool = pool;
    CThread::SetThreadPool(pool);
}

void CProxyServer::StopProxy()
{
    const bool wasRunning = m_listenSocket != -1;
    // Lookups under way fail at once, so no connection waits for one.
    m_addressManager.Terminate();
    // The thread is stopped before the socket is closed, so it never polls or accepts on a
    // descriptor number that has been given to someone else.
    const int socket = m_listenSocket.exchange(-1);
    const int status = GetThreadStatus();
    if (status == STATUS_RUNNING || status == STATUS_STOPPING)
        StopThread(-1);
    CSocketUtils::CloseSocket(socket);
    m_listenPort = 0;
    m_addressManager.SetProxyPort(0);
    CloseProxyConnections();
    // Threads kept for reuse would run the engine's code after the host may have unloaded it;
    // a connection thread past its last report is still on its way out.
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
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_listenSocket != -1;
}

IZRTMultiPointLayer* CProxyServer::GetMultiPointLayer()
{
    return m_multiPointLayer;
}

int CProxyServer::GetListenPort() const
{
    return m_listenPort;
}

size_t CProxyServer::GetConnectionCount() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_connections.size();
}

} // namespace Proxy
} // namespace ZRT
