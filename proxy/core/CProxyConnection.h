#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "proxy/address/CDestinationPolicy.h"
#include "proxy/core/CCarriedClient.h"
#include "proxy/core/CClientEnd.h"
#include "proxy/core/CConnectionLimits.h"
#include "proxy/core/CConnectionRecord.h"
#include "proxy/core/CConnectionWatches.h"
#include "proxy/core/CHostConnector.h"
#include "proxy/core/CHostLink.h"
#include "proxy/core/CRelayPump.h"
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/CAtomicInt.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/Export.h"
#include "transport/CEventLoop.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Proxy {

class CProxyServer;

// Serves one accepted client on one event thread of the proxy (a CEventLoop, "the connection's
// thread"), which runs every step of it and every call of its protocol handler.
//
// One state machine: Step runs DoLoop whenever one of its descriptors is ready (CConnectionWatches),
// its wake-up time has come, or another thread asked for a step with a reason (RequestStep: a
// link's report, a handler's helper, a stop). Between steps it costs nothing.
//
//   NotStarted -> [AwaitProxyHeader ->] AwaitFirstBytes -> Serve -> Drain -> Close -> Finished
//   AwaitProxyHeader: a trusted balancer's header says whom it carries (CCarriedClient).
//   AwaitFirstBytes: no handler yet; the first client bytes choose one.
//   Serve:  the handler negotiates, connects (CHostConnector) and relays (CRelayPump), each way
//           Open -> (Ending ->) Ended. Client to host ends when the client finished and the
//           handler passed that on; host to client when the host finished, the client has every
//           byte and its sending side was shut down.
//   Drain:  the exchange is over (both ways ended, a refusal, DisconnectClient, the client's
//           end): the handler is gone, the link closed, the client gets what is queued for it.
//   Close:  everything is let go, counted and reported (straight from any phase on a failure,
//           a time-out or a stop: queued bytes are dropped).
//
// Flow control, per direction, by not reading the faster side: no host bytes are pulled while
// the queue towards the client is over CLIENT_OUTPUT_HIGH_WATER, or not empty once the stream is
// spliced (the link then stops reading its peer); the client is not read while the handler's
// backlog plus the link's send backlog exceed REQUEST_BACKLOG_LIMIT.
//
// Threads: Start, the IProxyConnection operations and the link's callbacks run on the
// connection's thread, except those said to be for any thread (there and below). Lifetime:
// reference counted; the connection holds itself from Start until Close, and the loop holds it
// while a step or its wake-up is pending.
class ZRT_EXPORT CProxyConnection : public QOX::CRefCount_Base,
                                    public IZRTDataLayerNotification,
                                    public IProxyConnection,
                                    private CHostLink::IListener,
                                    private CRelayPump::IOwner {
public:
    static constexpr int CLIENT_READ_SIZE = CRelayPump::CLIENT_READ_SIZE;
    static constexpr int HOST_READ_SIZE = CRelayPump::HOST_READ_SIZE;
    static constexpr unsigned int CLIENT_OUTPUT_HIGH_WATER = 256 * 1024;
    static constexpr unsigned int REQUEST_BACKLOG_LIMIT = IZRTDataLayer::SEND_BACKLOG_PAUSE;
    // Host reads per step, so client reads (and other connections) interleave with a host burst.
    static constexpr int HOST_READS_PER_TURN = 8;

    // settings: what the connection works with for its whole life; policy: their destination
    // rules. Any thread.
    CProxyConnection(CProxyServer& server, std::shared_ptr<const SProxySettings> settings,
                     std::shared_ptr<const CDestinationPolicy> policy);
    ~CProxyConnection() override;
    CProxyConnection(const CProxyConnection&) = delete;
    CProxyConnection& operator=(const CProxyConnection&) = delete;

    // Takes over an accepted socket (non-blocking, TCP_NODELAY already) whose peer accept told
    // and serves it on loop, whose thread calls this. On false the socket is closed.
    bool Start(int socket, const sockaddr_storage& peer, CEventLoop& loop, IZRTMultiPointLayer* multiPointLayer,
               IDatagramHandler* datagramHandler, IConnectionListener* connectionListener);
    // The client's socket has a fixed send buffer of size bytes (from a loopback listener): host
    // bytes are moved no faster than it has room for, so that little is left over in user space.
    // Before Start, on the thread that starts it.
    void UseFixedClientSendBuffer(int size) { m_client.UseFixedSendBuffer(size); }
    // The peer is a trusted load balancer: the connection starts with the header that names the
    // client it carries (admit: the server's admission of that client). Before Start, on the
    // accepting thread.
    void ExpectProxyHeader(CCarriedClient::Admit admit)
    {
        m_carried.reset(new CCarriedClient(std::move(admit), m_peer, m_clientAddress, m_record));
    }
    // Ends the connection at once (queued bytes for the client are dropped) and waits until it
    // has finished, unless called on its thread. Any thread.
    void Terminate();
    // Asks for that end without waiting for it; Terminate afterwards waits. Any thread.
    void RequestStop() { RequestStep(NOTICE_STOP); }
    // The machine's addresses changed: a link whose local address is gone ends with its client.
    void OnNetworkChanged() { RequestStep(NOTICE_NETWORK); }
    // Started and not finished yet. Any thread.
    bool IsRunning() const
    {
        const EPhase phase = m_phase;
        return phase != EPhase::NotStarted && phase != EPhase::Finished;
    }

    // IZRTDataLayerNotification, any thread: each asks for a step.
    void OnDataReceived(IZRTDataLayer& /*dataLayer*/) override { RequestStep(NOTICE_HOST_DATA); }
    void OnConnectionClosed(IZRTDataLayer& dataLayer) override;
    void OnSendDrained(IZRTDataLayer& /*dataLayer*/) override { RequestStep(NOTICE_WAKE); }
    void OnLinkConnected(IZRTDataLayer& /*dataLayer*/) override { RequestStep(NOTICE_LINK_CONNECTED); }

    // IProxyConnection
    const IZRTConnectionAddress& GetClientAddress() const override { return m_clientAddress; }
    unsigned int GetClientPort() const override { return m_clientAddress.GetPortNumber(); }
    int GetID() const override { return m_id; }
    bool IsConnectedToHost() const override { return m_link.GetState() == CHostLink::EState::Open; }
    bool IsConnectedToClient() const override;
    void DisconnectClient() override { RequestStep(NOTICE_DISCONNECT); }
    bool SendToHost(const char* data, int length) override;
    bool SendToClient(const char* data, int length) override;
    IDatagramHandler* GetDatagramHandler() override { return m_datagramHandler; }
    IConnectionListener* GetConnectionListener() override { return m_connectionListener; }
    unsigned int GetClientBacklog() const override { return m_client.GetBacklog(); }
    void WakeConnection() override { RequestStep(NOTICE_WAKE); }
    bool BeginConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override;
    bool AdoptHostLink(QOX::CRefCountPtr<IZRTDataLayer> link) override;
    QOX::CRefCountPtr<IZRTDataLayer> ReleaseHostLink() override;
    int GetConnectFailure() const override { return m_connector ? m_connector->GetFailure() : 0; }
    COriginPool& GetOriginPool() override;
    bool EndHostOutput() override { return m_link.EndOutput(); }
    void WakeHandler() override { RequestStep(NOTICE_HANDLER); }
    void SetHandlerTimer(int milliseconds) override
    {
        if (milliseconds < 0)
            m_handlerDeadline.reset();
        else
            m_handlerDeadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    }
    CAddressManager& GetAddressManager() override;
    CLoginGuard& GetLoginGuard() override;
    const IZRTConnectionAddress& GetLocalAddress() const override { return m_client.GetLocalAddress(); }
    const SProxySettings& GetSettings() const override { return *m_settings; }
    bool IsDestinationAllowed(const IZRTConnectionAddress& destination) override;
    void DescribeExchange(const char* protocol, const std::string& destination) override
    {
        m_record.Describe(protocol, destination);
    }
    void SetOutcome(EOutcome outcome) override { m_record.SetOutcome(outcome); }
    CProxyStats& GetStats() override;
    void MarkRequestComplete() override { m_limits.MarkRequestComplete(); }
    void SetUser(const std::string& user) override { m_record.SetUser(user); }
    void CountDatagram(bool toHost, uint64_t payloadBytes) override { m_record.CountDatagram(toHost, payloadBytes); }
    void FinishRequest(const std::string& method, int status) override { m_record.FinishRequest(method, status); }

private:
    // In the order they come: the client is read from AwaitProxyHeader to Serve.
    enum class EPhase { NotStarted, AwaitProxyHeader, AwaitFirstBytes, Serve, Drain, Close, Finished };
    enum class EFlow { Open, Ending, Ended };
    // Why a step was asked for (bits of m_notices); each is taken by the next step.
    enum ENotice : unsigned {
        NOTICE_STOP = 1u << 0,           // Terminate, RequestStop
        NOTICE_CLIENT_FAILED = 1u << 1,  // a send to the client failed
        NOTICE_DISCONNECT = 1u << 2,     // DisconnectClient
        NOTICE_HOST_DATA = 1u << 3,      // the link has bytes (links without a reader descriptor)
        NOTICE_LINK_CONNECTED = 1u << 4,
        NOTICE_LINK_CLOSED = 1u << 5,
        NOTICE_HANDLER = 1u << 6,        // WakeHandler
        NOTICE_CONNECTOR = 1u << 7,      // the connect attempts have news (CHostConnector)
        NOTICE_WAKE = 1u << 8,           // something may read or write again (WakeConnection)
        NOTICE_NETWORK = 1u << 9         // OnNetworkChanged
    };
    static constexpr unsigned ENDING_NOTICES = NOTICE_STOP | NOTICE_CLIENT_FAILED | NOTICE_DISCONNECT;
    static constexpr unsigned LINK_NOTICES = NOTICE_HOST_DATA | NOTICE_LINK_CONNECTED | NOTICE_LINK_CLOSED;
    using Clock = std::chrono::steady_clock;
    using ERole = CConnectionWatches::ERole;
    using LinkPtr = QOX::CRefCountPtr<IZRTDataLayer>;
    // A part of a step: nothing when the phase goes on, else the phase to go to.
    using Next = std::optional<EPhase>;
    using Part = Next (CProxyConnection::*)();

    // The one way to ask for a step; any thread.
    void RequestStep(unsigned reason);
    void PostStep();
    bool OnLoopThread() const;
    void OnReady(ERole role, uint32_t events);
    void Step();
    void DoLoop();
    EPhase DoPhase(EPhase phase);
    void EnterPhase(EPhase phase);
    EPhase DoParts(std::initializer_list<Part> parts);
    EPhase DoDrain();
    Next EndingNotice() const;
    // The client failed, a limit passed or a stop came: queued bytes are dropped.
    EPhase Abandon();
    void EndExchange();
    void Finish();

    // The part of AwaitProxyHeader. The client's readiness is left for AwaitFirstBytes, which
    // reads what followed the header in the same step.
    Next ReadProxyHeader();
    // Parts of AwaitFirstBytes and Serve.
    Next TakeNotices();
    void TakeLinkNotices(unsigned notices);
    Next ServeClient();
    Next ReadClient();
    Next ClientEnded();
    Next ServeLink();
    Next PumpHost();
    Next HostEnded();
    Next ServeHandler();
    Next CheckLimits();
    Next AdvanceEnds();
    bool FlushClient();

    // What the next step waits for.
    void ApplyPlan();
    uint32_t ClientInterest() const;
    bool MayReadClient() const;
    // The client is not read while a backlog holds it up (the link is asked again at its pace).
    // The open link leaves from an address this machine no longer has.
    bool LinkLeftTheNetwork();
    bool LinkHoldsUpClient() const;
    bool RoomForHostBytes() const;
    // Most bytes queued for the client while host bytes are still pulled.
    unsigned int ClientOutputMark() const;
    int NextWakeUp() const;

    void TellConnected(bool connected);

    // CHostLink::IListener
    void OnLinkTaken() override { m_pump.OnNewLink(); }
    void OnLinkLeaving() override;

    // CRelayPump::IOwner
    IConnectionProtocol* HandlerFor(const char* data, int length) override;
    void OnMoved(int bytes) override;
    void OnRelayed(bool toHost, int bytes) override;
    bool LinkTakesClientBytes() override;

    static QOX::CAtomicInt ms_connID;

    // The server for its name cache, settings and handler choice: it outlives its connections.
    CProxyServer& m_server;
    const std::shared_ptr<const SProxySettings> m_settings;
    const std::shared_ptr<const CDestinationPolicy> m_policy;
    const int m_id;
    CTCPIPAddress m_clientAddress;
    sockaddr_storage m_peer{}; // the client's address as accept told it
    IZRTMultiPointLayer* m_multiPointLayer = nullptr;
    IDatagramHandler* m_datagramHandler = nullptr;
    IConnectionListener* m_connectionListener = nullptr;

    // Written on the connection's thread; atomic because other threads ask.
    std::atomic<EPhase> m_phase{EPhase::NotStarted};
    std::atomic<unsigned> m_notices{0};
    std::atomic<bool> m_stepPosted{false}; // a step is posted and has not begun yet
    bool m_inStep = false;                 // the connection's thread is inside Step
    // Guards the end of the run (m_phase becoming Finished) for Terminate's wait.
    mutable std::mutex m_endMutex;
    std::condition_variable m_ended;
    // The connection's own reference while it runs (Start to Close).
    QOX::CRefCountPtr<CProxyConnection> m_self;

    EFlow m_toHost = EFlow::Open;
    EFlow m_toClient = EFlow::Open;
    CClientEnd m_client;
    CHostLink m_link{*this, *this};
    CConnectionWatches m_watches;
    CRelayPump m_pump{*this, m_client, m_link};
    CConnectionLimits m_limits{*m_settings};
    CConnectionRecord m_record;
    std::unique_ptr<CHostConnector> m_connector;
    // Made from the first client bytes; gone when the exchange ends.
    std::unique_ptr<IConnectionProtocol> m_protocol;
    std::optional<Clock::time_point> m_handlerDeadline; // the handler's timer, when set
    std::unique_ptr<CCarriedClient> m_carried;          // a trusted balancer's connection's
};

} // namespace Proxy
} // namespace ZRT
