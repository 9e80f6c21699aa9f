#pragma once

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "proxy/address/CAddressManager.h"
#include "proxy/address/CAddressRange.h"
#include "proxy/address/CDestinationPolicy.h"
#include "proxy/auth/CLoginGuard.h"
#include "proxy/core/CClientCounts.h"
#include "proxy/core/CConnectHelpers.h"
#include "proxy/httpproxy/COriginPool.h"
#include "proxy/core/CProxyStats.h"
#include "proxy/core/IProxyObserver.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "proxy/core/SProxySettings.h"
#include "transport/CEventLoopPool.h"
#include "transport/CSocketHandle.h"
#include "transport/IConnectionListener.h"
#include "transport/IDatagramHandler.h"
#include "transport/IResolveAddress.h"
#include "transport/IZRTMultiPointLayer.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Proxy {

class CProxyConnection;

// The engine behind CProxy: listens on one or more TCP sockets and serves every client with a
// CProxyConnection on one of a few event threads (CEventLoop, half the CPUs unless set);
// StopProxy terminates them all. Restartable.
//
// Accepting: every event thread watches every listening socket (exclusively where the system
// allows, so that the kernel wakes one of them per client); the thread that accepts a client
// serves it for its whole life. No thread is started and none handed a client per connection.
//
// Threads: StartProxy, StopProxy (and CloseProxyConnections inside it), SetListenBacklog,
// SetObserver, SetThreadPool, SetProtocolCreator and GetStartError on the controlling thread;
// GetListenPort, GetListenCount, GetConnectionCount, GetSettings, SetSettings and GetStats on any
// thread; the rest (the connections' calls) on the event threads.
//
// The set of live connections holds plain pointers and no references. A connection removes
// itself from the set on its own thread before that thread drops its reference, and the set is
// only read (and referenced) under m_mutex, so a connection found there never has a count that
// already reached 0.
//
// Each proxy has a name cache of its own (GetAddressManager), so two proxies in one process
// with different resolvers never answer from each other's cache.
class CProxyServer {
public:
    enum EProxyMode { PROXY_MODE_DEFAULT = 0, PROXY_MODE_LOCAL = 1 };

    static constexpr int LISTEN_BACKLOG = 16;
    // Most listening sockets of one proxy (their ports are read from any thread, so they are
    // kept in a fixed array).
    static constexpr size_t MAX_LISTEN_SOCKETS = 16;
    // Pause of a thread's accepting when the process is out of descriptors, instead of spinning.
    static constexpr int ACCEPT_RETRY_DELAY_MS = 100;
    // Most clients one thread accepts in one go before it serves the others' events again.
    static constexpr int ACCEPT_BURST = 16;
    // Event threads when the settings leave it to the machine: half the CPUs, rounded up, at
    // most this many. A proxy shares its machine with the clients and destinations it serves
    // (on loopback, on a phone); more threads than that only add context switches (on 2 CPUs
    // one thread gave 10 % more short transactions than two, and half the p99).
    static constexpr int MAX_DEFAULT_EVENT_THREADS = 16;
    static int DefaultEventThreads(int cpus);
    // Asked send buffer of a client accepted on a loopback listener the proxy opened (the kernel
    // doubles it, up to two 256 KiB moves).
    static constexpr int LOOPBACK_CLIENT_SEND_BUFFER = 256 * 1024;

    explicit CProxyServer(EProxyMode mode = PROXY_MODE_DEFAULT);
    ~CProxyServer();
    CProxyServer(const CProxyServer&) = delete;
    CProxyServer& operator=(const CProxyServer&) = delete;

    // Listens on all IPv4 interfaces (0.0.0.0).
    bool StartProxy(int port, IResolveAddress* resolver, IZRTMultiPointLayer* multiPointLayer,
                    IDatagramHandler* datagramHandler, IConnectionListener* connectionListener);
    void StopProxy();
    bool IsConnected();
    IZRTMultiPointLayer* GetMultiPointLayer();

    // Listens on a numeric IPv4 or IPv6 address text, such as "127.0.0.1" or "::1". Port 0 picks
    // a free port (see GetListenPort).
    bool StartProxy(const std::string& listenAddress, int port, IResolveAddress* resolver,
                    IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                    IConnectionListener* connectionListener);
    // Listens on each address (1 to MAX_LISTEN_SOCKETS, IPv4 and IPv6 mixed), one socket each,
    // all serving alike; port 0 picks a free port per socket. With several addresses an IPv6
    // socket takes IPv6 clients only, so that "::" and "0.0.0.0" may share a port.
    bool StartProxy(const std::vector<std::string>& listenAddresses, int port, IResolveAddress* resolver,
                    IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                    IConnectionListener* connectionListener);
    // The listen queue length for the next start (LISTEN_BACKLOG unless set). A daemon serving
    // bursts of clients wants more than the short default, or clients wait for a SYN retry.
    void SetListenBacklog(int backlog) { m_listenBacklog = backlog > 0 ? backlog : LISTEN_BACKLOG; }
    // The next StartProxy serves on this listening socket instead of opening one for its single
    // address (which then only names it); the server owns it from here and closes it at stop, or
    // at once when the start fails.
    void AdoptListenSocket(int socket) { m_adoptedSocket = socket; }
    // Asked on the accepting thread right after each accept, before a byte is read: false closes
    // the client, counted as not allowed. Set it while stopped; empty lets every client on.
    using AcceptFilter = std::function<bool(const sockaddr_storage& client, const sockaddr_storage& local)>;
    void SetAcceptFilter(AcceptFilter filter) { m_acceptFilter = std::move(filter); }
    // Why the last start failed, in one line ("" after a good one).
    const std::string& GetStartError() const { return m_startError; }
    // The port the first socket is bound to, or 0 when not started.
    int GetListenPort() const;
    // The port of the index-th listening socket (in the order of the addresses), or 0.
    int GetListenPort(size_t index) const;
    // Listening sockets while running, else 0.
    size_t GetListenCount() const;
    size_t GetConnectionCount() const;
    EProxyMode GetMode() const { return m_mode; }
    // Forgets cached names, learns this machine's addresses again and ends the connections whose
    // link left from an address that went. Any thread.
    void NetworkChanged();
    CAddressManager& GetAddressManager() { return m_addressManager; }
    CLoginGuard& GetLoginGuard() { return m_loginGuard; }
    COriginPool& GetOriginPool() { return m_originPool; }
    // Settings for connections accepted from now on; false (nothing changes) when an allow entry
    // or a destination rule does not parse. Any thread, also while running.
    bool SetSettings(const SProxySettings& settings);
    SProxySettings GetSettings() const;
    // The settings a connection accepted now works with, for its whole life.
    std::shared_ptr<const SProxySettings> GetSettingsSnapshot() const;
    // True while the proxy listens on an address that is not loopback: clients may then come
    // from a network, and this machine is no destination for them unless a rule says so.
    bool ListensBeyondLoopback() const { return m_beyondLoopback; }

    // Makes the handler for a client from its first chunk: the protocol factory's choice, or the
    // creator given here (tests put handlers of their own behind a real server this way).
    using ProtocolCreator = std::function<IConnectionProtocol*(IProxyConnection& connection, const char* data, int length)>;
    IConnectionProtocol* CreateProtocol(IProxyConnection& connection, const char* data, int length);
    void SetProtocolCreator(ProtocolCreator creator);

    CProxyStats& GetStats() { return m_stats; }
    const CProxyStats& GetStats() const { return m_stats; }
    // Told of starts, stops, finished connections and errors; set it while stopped.
    void SetObserver(IProxyObserver* observer) { m_observer = observer; }
    IProxyObserver* GetObserver() const { return m_observer; }
    // The pool the server's and its connections' threads come from (the process-wide one unless
    // set); set it while stopped. StopProxy ends every thread of it, so none runs afterwards.
    void SetThreadPool(QOX::CThreadPool* pool) { m_pool = pool; }
    QOX::CThreadPool* GetThreadPool() const { return m_pool; }
    CConnectHelpers& GetConnectHelpers() { return m_connectHelpers; }

    void CloseProxyConnections();
    void OnConnectionCreated(CProxyConnection* connection);
    void OnConnectionDestroyed(CProxyConnection* connection);
    // A connection that Serve admitted has finished, on loop's thread (null: before it had one).
    void OnClientFinished(const sockaddr_storage& peer, CEventLoop* loop);

private:
    // A listening socket as one event thread watches it.
    class CListenWatch;
    struct SListener {
        CEventLoop* loop = nullptr;
        int socket = -1;
        QOX::CRefCountPtr<CListenWatch> watch;
        uint64_t token = 0;
        int clientSendBuffer = 0; // its clients' fixed send buffer (LimitLoopbackSendBuffer); 0: none
    };

    // The current settings with the allow list and the destination rules in parsed form.
    struct SActive {
        SProxySettings settings;
        std::vector<CAddressRange> allow;
        std::vector<CAddressRange> proxyProtocolFrom;
        CDestinationPolicy destinations;
    };

    std::shared_ptr<const SActive> GetActive() const;
    // Whether a client just accepted may stay: not when the allow list or the limit says no
    // (counted, reported, and the socket closed). A trusted balancer is judged by the total limit
    // alone: the clients it carries are judged as they come (AdmitCarried).
    bool Admit(int client, const sockaddr_storage& peer, const SActive& active, bool balancer);
    bool PassesFilter(int client, const sockaddr_storage& peer) const;
    // The client a balancer's header names takes the balancer's slot: Ok, or why not (the
    // per-source limit counted here, the allow list by the connection's record).
    EOutcome AdmitCarried(const sockaddr_storage& balancer, const sockaddr_storage& client, const SActive& active);
    static bool InRanges(const std::vector<CAddressRange>& ranges, const sockaddr_storage& address);
    void ReportRefused(const sockaddr_storage& peer, EOutcome outcome);

    // -1 (and the start error set) on failure; ipv6Only for an IPv6 socket beside others.
    int OpenListenSocket(const std::string& listenAddress, int port, bool ipv6Only);
    // Every socket or none: on failure the opened ones are closed again and false returned.
    // Ports, warnings and event threads of a run about to start.
    void PrepareRun(const std::vector<std::string>& listenAddresses);
    bool WatchListeners();
    // adopted: a socket handed in, used for the first address when valid.
    bool OpenListenSockets(const std::vector<std::string>& listenAddresses, int port, CSocketHandle& adopted);
    static void LimitLoopbackSendBuffer(int socket);
    // The send buffer the kernel gave a listening socket, which its clients inherit (0: unknown).
    static int ClientSendBuffer(int socket);
    void CloseListenSockets();
    // Records why a start failed; false.
    bool FailStart(const std::string& reason);
    static std::string DescribeEndpoint(const std::string& address, int port);
    // An event thread's turn at a listening socket: accepts a few clients and serves them.
    void AcceptOn(size_t listener, int socket, CEventLoop& loop);
    // Serves one accepted client on this event thread.
    void Serve(int client, const sockaddr_storage& peer, CEventLoop& loop, int clientSendBuffer);
    // Out of descriptors: this thread stops watching the socket for a while.
    void PauseAccepting(size_t listener);
    // Under m_mutex: (re)starts watching the socket on one thread.
    void WatchListenerLocked(size_t listener);
    bool IsStopping() const;

    // Guards m_connections, m_creator, m_stopping and m_listeners' registrations; a loop's mutex
    // is taken inside it (registering with a loop).
    mutable std::mutex m_mutex;
    bool m_stopping = false;
    std::unique_ptr<CEventLoopPool> m_loops;
    std::vector<SListener> m_listeners;
    IZRTMultiPointLayer* m_multiPointLayer = nullptr;
    IDatagramHandler* m_datagramHandler = nullptr;
    IConnectionListener* m_connectionListener = nullptr;
    // The listening sockets, in the order of the addresses: the controlling thread's (StartProxy,
    // StopProxy); the event threads know theirs from their watches.
    std::vector<int> m_listenSockets;
    std::vector<int> m_listenClientSendBuffer; // by listening socket, as m_listenSockets; 0: none
    int m_adoptedSocket = -1; // AdoptListenSocket's, until the next start takes it
    AcceptFilter m_acceptFilter;
    std::array<std::atomic<int>, MAX_LISTEN_SOCKETS> m_listenPorts{};
    std::atomic<size_t> m_listenCount{0};
    std::set<CProxyConnection*> m_connections;
    EProxyMode m_mode;
    std::atomic<int> m_listenBacklog{LISTEN_BACKLOG};
    CAddressManager m_addressManager;
    CLoginGuard m_loginGuard;
    COriginPool m_originPool;
    // Its destructor waits for connects still blocked in the host (their jobs hold nothing else of
    // the server).
    CConnectHelpers m_connectHelpers;
    // Guards m_active, swapped whole by SetSettings and copied at each accept.
    mutable std::mutex m_settingsMutex;
    std::shared_ptr<const SActive> m_active = std::make_shared<SActive>();
    // Conditions the observer was told of already (WARNED_* bits), so that it hears once per spell.
    enum EWarned : unsigned { WARNED_STARVED = 1u << 0, WARNED_OVER_LIMIT = 1u << 1 };
    std::atomic<unsigned> m_warned{0};
    // Sets the condition's bit; true when it was not set (the observer is to be told).
    bool Warn(EWarned condition) { return (m_warned.fetch_or(condition) & condition) == 0; }
    void Unwarn(EWarned condition)
    {
        if (m_warned.load(std::memory_order_relaxed) & condition) // read first: every accept asks
            m_warned.fetch_and(~static_cast<unsigned>(condition));
    }
    CClientCounts m_clients; // admitted and not finished, for the client limits
    std::atomic<bool> m_beyondLoopback{false};
    ProtocolCreator m_creator;
    CProxyStats m_stats;
    IProxyObserver* m_observer = nullptr;
    QOX::CThreadPool* m_pool = nullptr;
    std::string m_startError; // the controlling thread's: written and read by StartProxy's caller
};

} // namespace Proxy
} // namespace ZRT
