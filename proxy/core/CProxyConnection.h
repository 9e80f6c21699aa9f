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
#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/CAtomicInt.h"
#include "runtime/CRefCountPtr.h"
#include "runtime/CRefCount_Base.h"
#include "runtime/Export.h"
#include "transport/CByteBuffer.h"
#include "transport/CEventLoop.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IZRTDataLayer.h"
#include "transport/IZRTDataLayerNotification.h"
#include "transport/IZRTMultiPointLayer.h"

namespace ZRT {
namespace Proxy {

class CProxyServer;

// Serves one accepted client on one event thread of the proxy (a CEventLoop): owns the client
// socket and the link to the destination host, and runs its protocol handler, whose every
// operation is called on that thread ("the connection's thread").
//
// The connection is a state machine driven by its loop: Step runs whenever one of its
// descriptors is ready (the client socket, the host link's reader descriptor when the link
// offers one, the handler's own descriptor), when its earliest deadline is due (a handler
// timer, a connect attempt, the handshake or idle limit), or when another thread left it a
// notice. Between steps it costs nothing: the loop sleeps in epoll with everyone else's sockets.
// Other threads never act on the connection themselves: link callbacks, DisconnectClient from
// elsewhere and stop requests leave a notice and ask the loop for a step.
//
// Lifecycles (see ARCHITECTURE.md):
//  - the client socket: Open -> Closing (nothing more is read or relayed; what is queued for the
//    client is written) -> Closed;
//  - the host link: None -> Connecting -> Open -> Closed;
//  - each direction: Open -> (Ending ->) Ended. Client to host ends when the client finished
//    sending and the handler passed that on; host to client when the host finished, every byte
//    it sent reached the client and the client's sending side was shut down. When both have
//    ended, or either peer fails, or the handler or a stop ends the exchange, the client goes.
//
// Host bytes are pulled from the link on this thread, as the client takes them: through the
// handler (ReceiveData, HandleResponse), or spliced straight into the client socket
// (ReceiveInto) once the handler passes them through unchanged. Client bytes go through the
// handler (recv, HandleRequest) or are spliced into the link (SendFrom) likewise.
//
// Flow control, per direction, by not reading the faster side: no host bytes are pulled while
// the queue towards the client is over CLIENT_OUTPUT_HIGH_WATER (the link then stops reading its
// peer); the client is not read while the handler's backlog plus the link's send backlog exceed
// REQUEST_BACKLOG_LIMIT.
//
// A host whose multi-point layer may block (IZRTMultiPointLayer::ConnectsWithoutBlocking false)
// is asked for links on a helper thread, so that one slow connect never holds up the other
// connections of the loop.
//
// Lifetime: reference counted; the connection holds a reference to itself from Start until it
// has finished (handler terminated, link released, client closed, reported, out of the server's
// set), and the loop holds one while a step or a timer of it is pending. It leaves the server's
// set on its thread before dropping its own reference; the destructor tells the server last of
// all.
class ZRT_EXPORT CProxyConnection : public QOX::CRefCount_Base,
                                    public IZRTDataLayerNotification,
                                    public IProxyConnection {
public:
    static constexpr int CLIENT_READ_SIZE = 32768;
    static constexpr unsigned int CLIENT_OUTPUT_HIGH_WATER = 256 * 1024;
    static constexpr unsigned int CLIENT_OUTPUT_LOW_WATER = 64 * 1024;
    static constexpr unsigned int REQUEST_BACKLOG_LIMIT = 256 * 1024;
    // Host reads per step, so client reads (and other connections) interleave with a host burst.
    static constexpr int HOST_READS_PER_TURN = 8;
    // Read size when host bytes go through the handler; the buffer is made on first use, so an
    // idle connection does not pay for it.
    static constexpr int HOST_READ_SIZE = 64 * 1024;
    // Most bytes moved per splice. What a slow client does not take of it goes back to the link.
    static constexpr int HOST_SPLICE_SIZE = static_cast<int>(CLIENT_OUTPUT_HIGH_WATER);
    static constexpr int CLIENT_SPLICE_SIZE = 256 * 1024;

    // settings: what the connection works with for its whole life (the server's current ones
    // when null).
    // policy: the destination rules of those settings (made from them when null).
    explicit CProxyConnection(CProxyServer* proxy, std::shared_ptr<const SProxySettings> settings = nullptr,
                              std::shared_ptr<const CDestinationPolicy> policy = nullptr);
    ~CProxyConnection() override;
    CProxyConnection(const CProxyConnection&) = delete;
    CProxyConnection& operator=(const CProxyConnection&) = delete;

    // Takes over an accepted socket (non-blocking, TCP_NODELAY already) whose peer accept told
    // and serves it on loop, whose thread calls this or runs. On false the socket is closed.
    bool Start(int socket, const sockaddr_storage& peer, CEventLoop& loop, IZRTMultiPointLayer* multiPointLayer,
               IDatagramHandler* datagramHandler, IConnectionListener* connectionListener);
    // Ends the connection at once (queued bytes for the client are dropped) and waits until it
    // has finished, unless called on its thread. Any thread.
    void Terminate();
    // Asks for that end without waiting for it; Terminate afterwards waits. Any thread.
    void RequestStop() { Notify(NOTICE_STOP); }

    // IZRTDataLayerNotification: each leaves a notice and asks for a step.
    void OnDataReceived(IZRTDataLayer& dataLayer) override;
    void OnConnectionClosed(IZRTDataLayer& dataLayer) override;
    void OnSendDrained(IZRTDataLayer& dataLayer) override;
    void OnLinkConnected(IZRTDataLayer& dataLayer) override;

    // IProxyConnection
    const IZRTConnectionAddress& GetClientAddress() const override { return m_clientAddress; }
    unsigned int GetClientPort() const override { return m_clientAddress.GetPortNumber(); }
    int GetID() const override { return m_id; }
    bool IsConnectedToHost() const override;
    bool IsConnectedToClient() const override;
    bool ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override;
    void DisconnectClient() override;
    bool SendToHost(const char* data, int length) override;
    bool SendToClient(const char* data, int length) override;
    IDatagramHandler* GetDatagramHandler() override { return m_datagramHandler; }
    IConnectionListener* GetConnectionListener() override { return m_connectionListener; }
    unsigned int GetClientBacklog() const override;
    void WakeConnection() override;
    bool BeginConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination) override;
    bool AdoptHostLink(QOX::CRefCountPtr<IZRTDataLayer> link) override;
    QOX::CRefCountPtr<IZRTDataLayer> ReleaseHostLink() override;
    int GetConnectFailure() const override { return m_connectFailure; }
    COriginPool& GetOriginPool() override;
    bool EndHostOutput() override;
    void WakeHandler() override;
    void SetHandlerTimer(int milliseconds) override;
    CAddressManager& GetAddressManager() override;
    CLoginGuard& GetLoginGuard() override;
    const IZRTConnectionAddress& GetLocalAddress() const override;
    const SProxySettings& GetSettings() const override;
    bool IsDestinationAllowed(const IZRTConnectionAddress& destination) override;
    void DescribeExchange(const char* protocol, const std::string& destination) override;
    void SetOutcome(EOutcome outcome) override;
    CProxyStats& GetStats() override;
    void MarkRequestComplete() override;
    void SetUser(const std::string& user) override;
    void CountDatagram(bool toHost, uint64_t payloadBytes) override;
    void FinishRequest(const std::string& method, int status) override;

    // Started and not finished yet.
    bool IsRunning() const;

private:
    enum class EClient { Open, Closing, Closed };
    enum class ELink { None, Connecting, Open, Closed };
    enum class EFlow { Open, Ending, Ended };
    // The connection as a whole: between Start and the end of Finish it is Running.
    enum class ERun { NotStarted, Running, Finished };
    // Notices left by other threads for this one (bits of m_notices).
    enum ENotice : unsigned {
        NOTICE_DISCONNECT = 1u << 0,     // DisconnectClient from another thread
        NOTICE_CLIENT_FAILED = 1u << 1,  // a send to the client failed
        NOTICE_HOST_DATA = 1u << 2,      // the link has bytes (links without a reader descriptor)
        NOTICE_LINK_CONNECTED = 1u << 3,
        NOTICE_LINK_CLOSED = 1u << 4,
        NOTICE_HANDLER = 1u << 5,        // WakeHandler
        NOTICE_STOP = 1u << 6,           // Terminate
        NOTICE_CONNECTED_LINK = 1u << 7  // a helper thread's connect came back (m_helperLink)
    };
    // The descriptors a connection has its loop watch.
    enum ERole { CLIENT = 0, LINK = 1, HANDLER = 2, ROLE_COUNT = 3 };
    using Clock = std::chrono::steady_clock;

    // What the next step waits for: the events per descriptor, and how long at most (-1: no
    // limit; 0: step again at once).
    struct SPlan {
        uint32_t clientEvents = 0;
        bool readHost = false;
        bool connectHost = false;
        int handlerFd = -1;
        int timeout = -1;
    };

    // One descriptor as its loop sees it; forwards readiness to the connection.
    class CWatch;
    // A blocking connect of a host that may block, run on a helper thread.
    class CConnectCall;

    // A round on the loop's thread: notices, whatever is ready, the pumps and the ends; then
    // the next plan goes to the loop.
    void Step();
    SPlan PlanStep();
    // Hands the plan to the loop: descriptor interests and the wake-up time.
    void ApplyPlan(const SPlan& plan);
    // Sets one descriptor's interest (0 takes it out of the loop, unless it is the client's).
    void Watch(ERole role, int descriptor, uint32_t events);
    // Readiness from the loop (its thread).
    void OnReady(ERole role, uint32_t events);
    // A stream in full flow takes its turns with the loop's bulk budget (CEventLoop).
    void MarkBulk(bool bulk);
    bool HasTurnBudget() const;
    void SpendTurnBudget(int bytes);
    // Makes sure a step runs soon on the loop's thread; any thread.
    void Schedule();
    // Everything released, reported and told: the end of the connection.
    void Finish();
    bool OnLoopThread() const;
    bool MayReadClient();
    void TakeNotices(unsigned notices);
    void ReadClient();
    bool SpliceClientToHost();
    void ClientEnded();
    void PumpHost();
    // One move of host bytes towards the client; false when nothing more is to be done now.
    bool MoveHostBytes();
    void HostEnded();
    // The link's descriptor turned writable while it connects.
    void CompleteConnect();
    void FinishConnect(bool connected);
    // Opens the link to one address of the destination; its share of the time left is its own.
    void StartAttempt(const QOX::CRefCountPtr<IZRTConnectionAddress>& address);
    // The destination's other addresses (a name's alternatives), except the proxy itself.
    std::deque<QOX::CRefCountPtr<IZRTConnectionAddress>> OtherAddresses(const IZRTConnectionAddress& destination);
    void RunHandlerTimer();
    // The handshake, idle and linger limits: the earliest of them that applies, or none.
    bool NextLimit(Clock::time_point& deadline) const;
    // When a client that finished sending gives up on a destination that has not taken its last
    // bytes (the linger limit), if that applies now.
    std::optional<Clock::time_point> LingerDeadline() const;
    void TimeOut();
    // Ends a connection whose handshake or idle limit passed.
    void EnforceLimits();
    // Something moved; for the idle limit.
    void NoteActivity() { m_moved = true; }
    // Leaves a notice for the connection's thread and asks for a step.
    void Notify(unsigned notice);
    // A helper thread's connect came back with this link (or none); any thread.
    void OnHelperConnected(const QOX::CRefCountPtr<IZRTDataLayer>& link, uint64_t attempt);
    // The connection's thread takes that link up, if the attempt still stands.
    void TakeHelperLink();
    void AdvanceEnds();
    bool InstallLink(const QOX::CRefCountPtr<IZRTDataLayer>& link, ELink state);
    // A connect returned this link (or none): installs it, or leaves the failure to report.
    void AdoptNewLink(const QOX::CRefCountPtr<IZRTDataLayer>& link);
    void FlushClientOutput();
    // Under m_mutex: writes queued output; false on a socket error.
    bool WriteQueuedLocked();
    void QueueOutputLocked(const char* data, int length);
    void BeginClosing();
    // The client failed or a stop came: everything ends now, queued output is dropped.
    void Abort();
    void TerminateHandler();
    void CloseClientSocket();
    void ReleaseLink();
    void DetachFromProxy();
    // Counts the bytes and tells the server's observer how the exchange went.
    void Report();
    SConnectionRecord MakeRecord() const;
    // Takes the link out of the loop and lets go of its notifications and reader.
    QOX::CRefCountPtr<IZRTDataLayer> DetachLink();
    void CountClientBytes(uint64_t count);
    void CountHostBytes(uint64_t count);
    QOX::CRefCountPtr<IZRTDataLayer> CurrentLink() const;
    unsigned char* HostBuffer();

    static QOX::CAtomicInt ms_connID;

    // Guards the client socket number and its output queue (SendToClient may come from any
    // thread), the host link pointer and m_proxy. Never held across a call into the handler, the
    // link or the server, except CProxyServer::OnConnectionDestroyed in DetachFromProxy (server's
    // mutex inside this one).
    mutable std::mutex m_mutex;
    // The server's set holds this connection while m_proxy is set (cleared on leaving it).
    CProxyServer* m_proxy;
    // The server for its name cache, settings and handler choice: it outlives its connections.
    CProxyServer* const m_server;
    IZRTMultiPointLayer* m_multiPointLayer = nullptr;
    IDatagramHandler* m_datagramHandler = nullptr;
    IConnectionListener* m_connectionListener = nullptr;
    int m_clientSocket = -1;
    QOX::CRefCountPtr<IZRTDataLayer> m_link;
    CTCPIPAddress m_clientAddress;
    sockaddr_storage m_peer{}; // the client's address as accept told it
    mutable CTCPIPAddress m_localAddress; // learnt on first use
    int m_id;
    bool m_initialized = false;

    // Written on the connection's thread only; atomic because other threads ask.
    std::atomic<EClient> m_client{EClient::Open};
    std::atomic<ELink> m_linkState{ELink::None};
    EFlow m_toHost = EFlow::Open;
    EFlow m_toClient = EFlow::Open;
    std::atomic<unsigned> m_notices{0};
    // DisconnectClient came from another thread (or a send failed); never cleared.
    std::atomic<bool> m_disconnectRequested{false};

    // The loop, set by Start; its thread is the connection's thread.
    CEventLoop* m_loop = nullptr;
    // A step is posted and has not begun yet (so another request adds nothing).
    std::atomic<bool> m_stepPosted{false};
    // The connection's own reference while it runs (Start to Finish).
    QOX::CRefCountPtr<CProxyConnection> m_self;
    // Loop's thread only: what each descriptor is watched for, readiness not acted on yet, and
    // the wake-up set with the loop.
    QOX::CRefCountPtr<CWatch> m_watches[ROLE_COUNT];
    int m_watchedFd[ROLE_COUNT] = {-1, -1, -1};
    uint64_t m_watchTokens[ROLE_COUNT] = {0, 0, 0};
    uint32_t m_watchedEvents[ROLE_COUNT] = {0, 0, 0};
    uint32_t m_ready[ROLE_COUNT] = {0, 0, 0};
    uint64_t m_timer = 0;
    Clock::time_point m_timerDue{};
    bool m_inStep = false;
    // Guards m_run (Terminate waits for Finished) and m_helperLink.
    mutable std::mutex m_endMutex;
    std::condition_variable m_ended;
    ERun m_run = ERun::NotStarted;
    QOX::CRefCountPtr<IZRTDataLayer> m_helperLink; // what a helper thread's connect returned
    uint64_t m_helperAttempt = 0;                  // for which attempt
    uint64_t m_attempt = 0;                        // loop's thread: the attempt under way

    // Created on the connection's thread from the first client chunk; deleted by the destructor.
    IConnectionProtocol* m_protocol = nullptr;
    bool m_handlerTerminated = false;
    std::optional<Clock::time_point> m_handlerDeadline; // the handler's timer, when set
    // When the connect counts as failed; and when the address being tried gives way to the next.
    Clock::time_point m_connectDeadline{};
    Clock::time_point m_attemptDeadline{};
    // Addresses still to try when the current attempt fails.
    std::deque<QOX::CRefCountPtr<IZRTConnectionAddress>> m_candidates;
    // The settings the connection was accepted with, and their destination rules (never null).
    const std::shared_ptr<const SProxySettings> m_settings;
    const std::shared_ptr<const CDestinationPolicy> m_policy;
    bool m_requestComplete = false;
    // When the client finished sending (read, or seen behind bytes not read yet).
    std::optional<Clock::time_point> m_clientFinishedAt;
    bool m_abortLink = false;     // the linger limit passed: the link is reset, not drained
    bool m_lingerSettled = false; // the destination took everything the client sent
    bool m_moved = false;                 // bytes moved this step
    Clock::time_point m_lastActivity{};   // for the idle and linger limits, kept only when they apply

    // Bytes for the client that the socket has not taken yet, oldest first (under m_mutex).
    std::deque<QOX::CRefCountPtr<CByteBuffer>> m_clientOutput;
    unsigned int m_clientOutputSize = 0;

    // Connection's thread only: how the link is read and written.
    int m_readerFd = -1;        // the link's reader descriptor, or -1 (notifications then)
    bool m_linkHalfCloses = false;
    bool m_hostPending = false; // the last pump stopped with bytes maybe left in the link
    bool m_spliceHost = false;
    bool m_spliceClient = false;
    bool m_bulk = false; // the loop knows the client and link watches as bulk
    // A BeginConnectToHost that settled without the link's help; told to the handler next step.
    std::optional<bool> m_connectOutcome;
    std::unique_ptr<unsigned char[]> m_hostBuffer;

    // What the exchange was, for the record made when it ends (connection's thread only).
    Clock::time_point m_startTime = Clock::now();
    std::string m_exchangeProtocol = "-";
    std::string m_destination = "-";
    std::string m_user = "-";
    EOutcome m_outcome = EOutcome::Ok;
    bool m_outcomeSet = false;
    // Requests of a persistent connection recorded on their own, and where the next one starts.
    unsigned m_requestsRecorded = 0;
    uint64_t m_recordedClientToHost = 0;
    uint64_t m_recordedHostToClient = 0;
    int m_connectFailure = 0; // errno value of the last failed connect
    // Atomic: datagrams from hosts are counted on the host's threads.
    std::atomic<uint64_t> m_bytesClientToHost{0};
    std::atomic<uint64_t> m_bytesHostToClient{0};
};

} // namespace Proxy
} // namespace ZRT
