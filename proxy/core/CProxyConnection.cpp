#include "proxy/core/CProxyConnection.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "proxy/address/CAddressManager.h"
#include "proxy/auth/CLoginGuard.h"
#include "proxy/httpproxy/COriginPool.h"
#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/core/CProxyServer.h"
#include "transport/CByteBufferList.h"
#include "runtime/CThread.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
#ifdef MSG_NOSIGNAL
constexpr int SEND_FLAGS = MSG_NOSIGNAL;
#else
constexpr int SEND_FLAGS = 0;
#endif

bool WouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Sends as much as the socket takes now: the count sent, or -1 on a real socket error.
int SendSome(int socket, const char* data, int length)
{
    int offset = 0;
    while (offset < length) {
        const ssize_t sent = send(socket, data + offset, static_cast<size_t>(length - offset), SEND_FLAGS);
        if (sent > 0) {
            offset += static_cast<int>(sent);
            continue;
        }
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && !WouldBlock(errno))
            return -1;
        break;
    }
    return offset;
}

// Reads what the client sent and nobody will handle, so closing sends FIN rather than a reset
// that could destroy bytes still on their way to the client.
void DiscardPendingInput(int socket)
{
    char scratch[4096];
    for (int i = 0; i < 64; ++i) {
        if (recv(socket, scratch, sizeof(scratch), MSG_DONTWAIT) <= 0)
            return;
    }
}

bool ReadSocketAddress(int socket, bool peer, CTCPIPAddress& address)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    const int result = peer ? getpeername(socket, reinterpret_cast<sockaddr*>(&storage), &length)
                            : getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length);
    return result == 0 && address.SetAddress(*reinterpret_cast<sockaddr*>(&storage), length);
}

int MillisecondsUntil(std::chrono::steady_clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    // Rounded up, so the connection is never woken a moment early and spun on.
    return left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
}
} // namespace

QOX::CAtomicInt CProxyConnection::ms_connID(0);

namespace {
std::shared_ptr<const SProxySettings> SettingsFor(CProxyServer* server, std::shared_ptr<const SProxySettings> given)
{
    if (given)
        return given;
    if (server)
        return server->GetSettingsSnapshot();
    static const std::shared_ptr<const SProxySettings> defaults = std::make_shared<SProxySettings>();
    return defaults;
}

std::shared_ptr<const CDestinationPolicy> PolicyFor(const SProxySettings& settings,
                                                   std::shared_ptr<const CDestinationPolicy> given)
{
    if (given)
        return given;
    auto policy = std::make_shared<CDestinationPolicy>();
    std::string error; // rules that do not parse were refused when they were set
    policy->Build(settings.allowDestinations, settings.denyDestinations, settings.privatePorts, error);
    return policy;
}
} // namespace

CProxyConnection::CProxyConnection(CProxyServer* proxy, std::shared_ptr<const SProxySettings> settings,
                                   std::shared_ptr<const CDestinationPolicy> policy)
    : m_proxy(proxy), m_server(proxy), m_id(ms_connID.Increment()),
      m_settings(SettingsFor(proxy, std::move(settings))), m_policy(PolicyFor(*m_settings, std::move(policy)))
{
    if (m_proxy)
        m_proxy->OnConnectionCreated(this);
}

CProxyConnection::~CProxyConnection()
{
    {
        // Only a connection that never ran is still registered here; a running one detached
        // on its thread when it finished.
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_proxy)
            m_proxy->OnConnectionDestroyed(this);
        m_proxy = nullptr;
    }
    TerminateHandler();
    ReleaseLink();
    CloseClientSocket();
    delete m_protocol;
    m_protocol = nullptr;
}

// A connect of a host whose multi-point layer may block, on a thread of the proxy's pool, so
// that the loop never waits for it. It keeps the connection alive until it has answered.
class CProxyConnection::CConnectCall : private QOX::CThread {
public:
    static bool Launch(CProxyConnection& connection, const QOX::CRefCountPtr<IZRTConnectionAddress>& address,
                       uint64_t attempt)
    {
        auto* call = new CConnectCall(connection, address, attempt);
        call->SetThreadPool(connection.m_server ? connection.m_server->GetThreadPool() : nullptr);
        if (call->StartThread(false))
            return true;
        delete call;
        return false;
    }

protected:
    int Run() override
    {
        const QOX::CRefCountPtr<IZRTDataLayer> link =
            m_connection->m_multiPointLayer->BeginConnect(*m_address, m_connection->m_clientAddress);
        m_connection->OnHelperConnected(link, m_attempt);
        return 0;
    }
    int ThreadFunc() override
    {
        const int result = CThread::ThreadFunc();
        delete this; // on its own thread: it finishes on its shared block alone
        return result;
    }

private:
    CConnectCall(CProxyConnection& connection, const QOX::CRefCountPtr<IZRTConnectionAddress>& address,
                 uint64_t attempt)
        : m_connection(&connection), m_address(address), m_attempt(attempt)
    {
    }

    QOX::CRefCountPtr<CProxyConnection> m_connection;
    QOX::CRefCountPtr<IZRTConnectionAddress> m_address;
    const uint64_t m_attempt;
};

// Each descriptor the loop watches for a connection: forwards its readiness, on the loop's thread.
// The connection removes its watches (on that thread) before it can go, so the plain pointer
// never dangles.
class CProxyConnection::CWatch : public QOX::CRefCount_Base, public IEventHandler {
public:
    CWatch(CProxyConnection& connection, ERole role) : m_connection(connection), m_role(role) {}
    long AddRef() override { return QOX::CRefCount_Base::AddRef(); }
    long ReleaseRef() override { return QOX::CRefCount_Base::ReleaseRef(); }
    void* GetReferencedObject() const override { return QOX::CRefCount_Base::GetReferencedObject(); }
    void OnEvents(uint32_t events) override { m_connection.OnReady(m_role, events); }

private:
    CProxyConnection& m_connection;
    const ERole m_role;
};

bool CProxyConnection::Start(int socket, const sockaddr_storage& peer, CEventLoop& loop,
                             IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                             IConnectionListener* connectionListener)
{
    m_peer = peer;
    const socklen_t length = peer.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (!m_clientAddress.SetAddress(reinterpret_cast<const sockaddr&>(peer), length)) {
        CSocketUtils::CloseSocket(socket);
        if (m_server)
            m_server->OnClientFinished(peer);
        return false;
    }
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_clientSocket = socket;
        m_multiPointLayer = multiPointLayer;
        m_datagramHandler = datagramHandler;
        m_connectionListener = connectionListener;
    }
    m_loop = &loop;
    for (int role = 0; role < ROLE_COUNT; ++role)
        m_watches[role] = new CWatch(*this, static_cast<ERole>(role));
    {
        std::lock_guard<std::mutex> hold(m_endMutex);
        m_run = ERun::Running;
    }
    m_self = this;
    // The first step comes with the client's first bytes (or its end, or a deadline).
    ApplyPlan(PlanStep());
    if (m_watchTokens[CLIENT] != 0)
        return true;
    m_client = EClient::Closed; // the loop would not watch the socket: nothing could be served
    Finish();
    return false;
}

const IZRTConnectionAddress& CProxyConnection::GetLocalAddress() const
{
    // Asked for by few handlers (BIND, UDP): learnt on first use, on the connection's thread.
    if (m_localAddress.IsEmpty() && m_clientSocket >= 0)
        ReadSocketAddress(m_clientSocket, false, m_localAddress);
    return m_localAddress;
}

void CProxyConnection::DetachFromProxy()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_proxy)
        m_proxy->OnConnectionDestroyed(this);
    m_proxy = nullptr;
}

void CProxyConnection::Finish()
{
    // The order matters: a descriptor leaves the loop before it may be closed (its number could
    // come back at once for another connection of the same loop).
    TerminateHandler();
    ReleaseLink();
    Watch(HANDLER, -1, 0);
    Watch(LINK, -1, 0);
    // The client socket is ours alone and closed below: its close takes it out of epoll.
    if (m_watchTokens[CLIENT] != 0)
        m_loop->Forget(m_watchTokens[CLIENT]);
    m_watchTokens[CLIENT] = 0;
    if (m_timer != 0)
        m_loop->CancelDelayed(m_timer);
    m_timer = 0;
    CloseClientSocket();
    Report();
    DetachFromProxy();
    {
        std::lock_guard<std::mutex> hold(m_endMutex);
        m_run = ERun::Finished;
    }
    m_ended.notify_all();
    m_self.Reset(); // the caller holds its own reference
}

void CProxyConnection::Report()
{
    if (!m_server)
        return;
    m_server->OnClientFinished(m_peer);
    // A client that went before its request was whole was never served.
    if (!m_outcomeSet && !m_requestComplete)
        m_outcome = EOutcome::NoRequest;
    IProxyObserver* observer = m_server->GetObserver();
    // Requests recorded on their own said it all, unless the last one failed unanswered.
    if (!observer || (m_requestsRecorded > 0 && !m_outcomeSet))
        return;
    observer->OnConnectionFinished(MakeRecord());
}

SConnectionRecord CProxyConnection::MakeRecord() const
{
    SConnectionRecord record;
    record.client = m_clientAddress.ToString();
    record.protocol = m_exchangeProtocol;
    record.user = m_user;
    record.destination = m_destination;
    record.outcome = m_outcome;
    record.bytesClientToHost = m_bytesClientToHost.load(std::memory_order_relaxed) - m_recordedClientToHost;
    record.bytesHostToClient = m_bytesHostToClient.load(std::memory_order_relaxed) - m_recordedHostToClient;
    record.durationMs = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_startTime).count());
    return record;
}

void CProxyConnection::FinishRequest(const std::string& method, int status)
{
    SConnectionRecord record = MakeRecord();
    record.method = method.empty() ? "-" : method;
    record.status = status;
    if (!m_outcomeSet)
        record.outcome = EOutcome::Ok;
    ++m_requestsRecorded;
    m_recordedClientToHost += record.bytesClientToHost;
    m_recordedHostToClient += record.bytesHostToClient;
    m_startTime = Clock::now();
    m_outcomeSet = false;
    m_outcome = EOutcome::Ok;
    GetStats().Add(CProxyStats::HTTP_REQUESTS_TOTAL);
    IProxyObserver* observer = m_server ? m_server->GetObserver() : nullptr;
    if (observer)
        observer->OnRequestFinished(record);
}

void CProxyConnection::DescribeExchange(const char* protocol, const std::string& destination)
{
    m_exchangeProtocol = protocol ? protocol : "-";
    m_destination = destination.empty() ? "-" : destination;
}

void CProxyConnection::SetOutcome(EOutcome outcome)
{
    if (m_outcomeSet)
        return; // the first judgement stands
    m_outcomeSet = true;
    m_outcome = outcome;
    CProxyStats& stats = GetStats();
    switch (outcome) {
    case EOutcome::Ok:
        break;
    case EOutcome::BadRequest:
        stats.Add(CProxyStats::REFUSED_BAD_REQUEST);
        break;
    case EOutcome::NoDestination:
        stats.Add(CProxyStats::REFUSED_NO_DESTINATION);
        break;
    case EOutcome::NotAllowed:
        stats.Add(CProxyStats::REFUSED_NOT_ALLOWED);
        break;
    case EOutcome::Denied:
        stats.Add(CProxyStats::REFUSED_DENIED);
        break;
    case EOutcome::OverLimit: // counted at accept
    case EOutcome::NoRequest:
        break;
    case EOutcome::Unreachable:
        stats.Add(CProxyStats::REFUSED_UNREACHABLE);
        break;
    case EOutcome::AuthFailed:
        stats.Add(CProxyStats::REFUSED_AUTH_FAILED);
        break;
    case EOutcome::Timeout:
        stats.Add(CProxyStats::TIMED_OUT);
        break;
    }
}

CProxyStats& CProxyConnection::GetStats()
{
    static CProxyStats unowned; // a connection without a server counts for nobody
    return m_server ? m_server->GetStats() : unowned;
}

void CProxyConnection::CountDatagram(bool toHost, uint64_t payloadBytes)
{
    GetStats().Add(toHost ? CProxyStats::UDP_DATAGRAMS_CLIENT_TO_HOST : CProxyStats::UDP_DATAGRAMS_HOST_TO_CLIENT);
    if (toHost)
        CountClientBytes(payloadBytes);
    else
        CountHostBytes(payloadBytes);
}

void CProxyConnection::CountClientBytes(uint64_t count)
{
    m_bytesClientToHost.fetch_add(count, std::memory_order_relaxed);
    GetStats().Add(CProxyStats::BYTES_CLIENT_TO_HOST, count);
}

void CProxyConnection::CountHostBytes(uint64_t count)
{
    m_bytesHostToClient.fetch_add(count, std::memory_order_relaxed);
    GetStats().Add(CProxyStats::BYTES_HOST_TO_CLIENT, count);
}

// ---- the loop ----

void CProxyConnection::OnReady(ERole role, uint32_t events)
{
    m_ready[role] |= events;
    Step();
}

void CProxyConnection::Step()
{
    const QOX::CRefCountPtr<CProxyConnection> hold(this); // Finish lets the own reference go
    if (!m_self)
        return; // finished already; a late step or timer
    m_inStep = true;
    const unsigned notices = m_notices.exchange(0);
    if (notices & NOTICE_STOP)
        Abort();
    TakeNotices(notices);
    const uint32_t client = std::exchange(m_ready[CLIENT], 0u);
    const uint32_t asked = m_watchedEvents[CLIENT];
    if ((asked & EPOLLOUT) && (client & (EPOLLOUT | EPOLLERR | EPOLLHUP)))
        FlushClientOutput();
    if ((asked & EPOLLIN) && (client & (EPOLLIN | EPOLLERR | EPOLLHUP)))
        ReadClient();
    else if (asked == 0 && (client & (EPOLLERR | EPOLLHUP)))
        Abort(); // reset (or shut both ways) while nothing was to be read or written
    if ((asked & EPOLLRDHUP) && (client & EPOLLRDHUP) && !m_clientFinishedAt)
        m_clientFinishedAt = Clock::now(); // its end waits to be read behind bytes the link cannot take yet
    if (m_connectOutcome) {
        const bool connected = *m_connectOutcome;
        m_connectOutcome.reset();
        FinishConnect(connected);
    }
    const uint32_t link = std::exchange(m_ready[LINK], 0u);
    if (m_linkState == ELink::Connecting && Clock::now() >= m_attemptDeadline)
        FinishConnect(false); // too slow: this address is given up
    else if (link != 0 && (m_watchedEvents[LINK] & EPOLLOUT))
        CompleteConnect();
    else if (link != 0)
        m_hostPending = true;
    PumpHost();
    if (std::exchange(m_ready[HANDLER], 0u) != 0 && m_protocol && m_client == EClient::Open) {
        NoteActivity(); // a datagram of an association
        m_protocol->OnDescriptorReady();
    }
    RunHandlerTimer();
    EnforceLimits();
    AdvanceEnds();
    m_inStep = false;
    if (m_client == EClient::Closed) {
        Finish();
        return;
    }
    ApplyPlan(PlanStep());
}

void CProxyConnection::ApplyPlan(const SPlan& plan)
{
    // The client stays watched with no events: epoll still reports its reset.
    Watch(CLIENT, m_clientSocket, plan.clientEvents);
    Watch(LINK, plan.readHost || plan.connectHost ? m_readerFd : -1,
          plan.connectHost ? static_cast<uint32_t>(EPOLLOUT) : static_cast<uint32_t>(EPOLLIN));
    Watch(HANDLER, plan.handlerFd, EPOLLIN);
    MarkBulk(m_spliceHost || m_spliceClient);
    if (plan.timeout == 0) {
        Schedule();
        return;
    }
    if (plan.timeout < 0) {
        if (m_timer != 0)
            m_loop->CancelDelayed(m_timer); // nothing is due any more: no wake-up for nothing
        m_timer = 0;
        return;
    }
    // A wake-up already set for no later stays: one that comes early only plans again.
    const Clock::time_point due = Clock::now() + std::chrono::milliseconds(plan.timeout);
    if (m_timer != 0 && m_timerDue <= due)
        return;
    if (m_timer != 0)
        m_loop->CancelDelayed(m_timer);
    const QOX::CRefCountPtr<CProxyConnection> self(this);
    m_timerDue = due;
    m_timer = m_loop->PostDelayed(plan.timeout, [self] {
        self->m_timer = 0;
        self->Step();
    });
}

void CProxyConnection::Watch(ERole role, int descriptor, uint32_t events)
{
    const bool wanted = descriptor >= 0 && (events != 0 || role == CLIENT);
    if (m_watchTokens[role] != 0 && (!wanted || descriptor != m_watchedFd[role])) {
        m_loop->Remove(m_watchTokens[role], m_watchedFd[role]);
        m_watchTokens[role] = 0;
        m_watchedFd[role] = -1;
        m_watchedEvents[role] = 0;
        m_ready[role] = 0;
    }
    if (!wanted)
        return;
    if (m_watchTokens[role] != 0) {
        if (events != m_watchedEvents[role] && m_loop->Modify(m_watchTokens[role], descriptor, events))
            m_watchedEvents[role] = events;
        return;
    }
    m_watchTokens[role] = m_loop->Add(descriptor, events, QOX::CRefCountPtr<IEventHandler>(m_watches[role].Get()));
    if (m_watchTokens[role] == 0)
        return; // the caller notices (a client that cannot be watched cannot be served)
    m_watchedFd[role] = descriptor;
    m_watchedEvents[role] = events;
    if (m_bulk && role != HANDLER)
        m_loop->SetBulk(m_watchTokens[role], true);
}

void CProxyConnection::MarkBulk(bool bulk)
{
    if (bulk == m_bulk)
        return;
    m_bulk = bulk;
    for (const ERole role : {CLIENT, LINK}) {
        if (m_watchTokens[role] != 0)
            m_loop->SetBulk(m_watchTokens[role], bulk);
    }
}

bool CProxyConnection::HasTurnBudget() const
{
    return !m_bulk || m_loop->GetTurnBudget() > 0;
}

void CProxyConnection::SpendTurnBudget(int bytes)
{
    if (bytes > 0)
        m_loop->SpendTurnBudget(static_cast<size_t>(bytes));
}

void CProxyConnection::Schedule()
{
    if (!m_loop || m_stepPosted.exchange(true))
        return;
    const QOX::CRefCountPtr<CProxyConnection> self(this);
    m_loop->Post([self] {
        self->m_stepPosted = false;
        self->Step();
    });
}

bool CProxyConnection::OnLoopThread() const
{
    return m_loop && m_loop->IsLoopThread();
}

CProxyConnection::SPlan CProxyConnection::PlanStep()
{
    SPlan turn;
    const unsigned int backlog = GetClientBacklog();
    if (m_client != EClient::Closed && backlog > 0)
        turn.clientEvents |= EPOLLOUT;
    if (MayReadClient())
        turn.clientEvents |= EPOLLIN;
    else if (m_client == EClient::Open && m_toHost == EFlow::Open && m_protocol && !m_clientFinishedAt)
        turn.clientEvents |= EPOLLRDHUP; // the client's end, while its bytes wait for the link
    const bool relaying = m_protocol && m_client == EClient::Open && m_toClient == EFlow::Open;
    const bool roomForHost = relaying && backlog <= CLIENT_OUTPUT_HIGH_WATER;
    turn.readHost = roomForHost && m_readerFd >= 0 && m_linkState == ELink::Open;
    // A link that connects with a reader attached finishes when its descriptor turns writable.
    turn.connectHost = m_readerFd >= 0 && m_linkState == ELink::Connecting;
    if (m_protocol && m_client == EClient::Open)
        turn.handlerFd = m_protocol->GetWatchedDescriptor();
    const bool linkHeld = m_linkState == ELink::Open || m_linkState == ELink::Closed;
    if ((roomForHost && m_hostPending && linkHeld) || m_connectOutcome || m_notices.load() != 0) {
        turn.timeout = 0;
        return turn;
    }
    if (m_handlerDeadline)
        turn.timeout = MillisecondsUntil(*m_handlerDeadline);
    if (m_linkState == ELink::Connecting) {
        const int connect = MillisecondsUntil(m_attemptDeadline);
        turn.timeout = turn.timeout < 0 ? connect : std::min(turn.timeout, connect);
    }
    Clock::time_point limit;
    if (m_client == EClient::Open && NextLimit(limit)) {
        const int left = MillisecondsUntil(limit);
        turn.timeout = turn.timeout < 0 ? left : std::min(turn.timeout, left);
    }
    return turn;
}

bool CProxyConnection::MayReadClient()
{
    if (m_client != EClient::Open || m_toHost != EFlow::Open)
        return false;
    if (!m_protocol)
        return true;
    unsigned long long backlog = m_protocol->GetRequestBacklog();
    const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
    if (link)
        backlog += link->GetSendBacklog();
    return backlog <= REQUEST_BACKLOG_LIMIT;
}

void CProxyConnection::TakeNotices(unsigned notices)
{
    if (notices & NOTICE_CLIENT_FAILED) {
        Abort();
        return;
    }
    if (notices & NOTICE_DISCONNECT)
        BeginClosing();
    if (notices & NOTICE_HOST_DATA)
        m_hostPending = true;
    if ((notices & NOTICE_LINK_CONNECTED) && m_linkState == ELink::Connecting)
        FinishConnect(true);
    if (notices & NOTICE_LINK_CLOSED) {
        if (m_linkState == ELink::Connecting) {
            FinishConnect(false);
        } else if (m_linkState == ELink::Open) {
            // What the link still holds is delivered before the end is acted on.
            m_linkState = ELink::Closed;
            m_hostPending = true;
        }
    }
    if (notices & NOTICE_CONNECTED_LINK)
        TakeHelperLink();
    if ((notices & NOTICE_HANDLER) && m_protocol && m_client == EClient::Open) {
        NoteActivity(); // a lookup's answer, a BIND peer, a datagram from a host
        m_protocol->Resume();
    }
}

// ---- client to host ----

void CProxyConnection::ReadClient()
{
    if (m_client != EClient::Open || m_toHost != EFlow::Open)
        return;
    // A stream in full flow waits for the next turn; the descriptor stays ready till then.
    if (!HasTurnBudget())
        return;
    if (SpliceClientToHost())
        return;
    char buffer[CLIENT_READ_SIZE];
    const ssize_t count = recv(m_clientSocket, buffer, sizeof(buffer), 0);
    if (count < 0) {
        if (!WouldBlock(errno))
            Abort(); // a reset: nothing more can be said to this client
        return;
    }
    if (count == 0) {
        ClientEnded();
        return;
    }
    SpendTurnBudget(static_cast<int>(count));
    NoteActivity();
    // Bytes that come after the link closed have nowhere to go; a closure reported while they
    // came counts as before them.
    if (m_notices.load() & NOTICE_LINK_CLOSED)
        TakeNotices(m_notices.fetch_and(~static_cast<unsigned>(NOTICE_LINK_CLOSED)) & NOTICE_LINK_CLOSED);
    if (m_linkState == ELink::Closed)
        return;
    const int length = static_cast<int>(count);
    if (!m_protocol) {
        m_protocol = m_server ? m_server->CreateProtocol(*this, buffer, length)
                             : CConnectionProtocolFactory::GetInstance()->CreateProtocol(*this, buffer, length);
        if (!m_protocol) {
            BeginClosing();
            return;
        }
        const std::string family = m_protocol->GetFamily();
        // Until the handler says more (connect, udp, bind), the record names the protocol.
        m_exchangeProtocol = family.empty() ? "-" : family;
        if (family == "socks5")
            GetStats().Add(CProxyStats::SOCKS5_TOTAL);
        else if (family == "http")
            GetStats().Add(CProxyStats::HTTP_TOTAL);
        m_protocol->Init();
        if (m_client != EClient::Open)
            return;
    }
    m_protocol->HandleRequest(buffer, length);
    // A full read means a stream in full flow: while the handler relays unchanged, later bytes
    // may skip user space altogether.
    if (length == CLIENT_READ_SIZE && m_protocol->GetRequestRelayAllowance() > 0)
        m_spliceClient = true;
}

// Relay fast path for client bytes: the link takes them from the client socket itself. True
// when that was done; false leaves the turn to the ordinary read.
bool CProxyConnection::SpliceClientToHost()
{
    const unsigned long long allowance = m_protocol ? m_protocol->GetRequestRelayAllowance() : 0;
    if (!m_spliceClient || m_linkState != ELink::Open || allowance == 0)
        return false;
    const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
    if (!link)
        return false;
    const int taken = link->SendFrom(m_clientSocket, static_cast<int>(std::min<unsigned long long>(CLIENT_SPLICE_SIZE, allowance)));
    if (taken > 0) {
        CountClientBytes(static_cast<uint64_t>(taken));
        SpendTurnBudget(taken);
        NoteActivity();
        m_protocol->OnRequestRelayed(static_cast<unsigned long long>(taken));
    }
    if (taken > 0 || taken == IZRTDataLayer::SEND_NOTHING_NOW)
        return true;
    if (taken == IZRTDataLayer::SEND_SOCKET_ENDED) {
        ClientEnded();
        return true;
    }
    if (taken == IZRTDataLayer::SEND_SOCKET_FAILED) {
        Abort();
        return true;
    }
    return false;
}

void CProxyConnection::ClientEnded()
{
    // The handler decides: before a request is complete, or when the end cannot be passed on,
    // the client's end is the end of the exchange.
    if (m_protocol && m_protocol->HandleClientEnd()) {
        m_toHost = EFlow::Ended;
        if (!m_clientFinishedAt)
            m_clientFinishedAt = Clock::now();
        return;
    }
    BeginClosing();
}

// ---- host to client ----

void CProxyConnection::PumpHost()
{
    if (!m_hostPending || !m_protocol || m_client != EClient::Open || m_toClient != EFlow::Open)
        return;
    if (m_linkState != ELink::Open && m_linkState != ELink::Closed) {
        m_hostPending = false;
        return;
    }
    // A stream in full flow moves no more than the loop's turn budget allows: the loop serves
    // the other connections before it comes back.
    for (int move = 0; move < HOST_READS_PER_TURN; ++move) {
        if (!HasTurnBudget() || !MoveHostBytes())
            break;
    }
    // Spliced bytes wait in the host socket, whose descriptor brings the next step (put off by
    // the loop while the turn's budget is spent); no step needs asking for.
    if (m_bulk && m_spliceHost && m_readerFd >= 0)
        m_hostPending = false;
}

bool CProxyConnection::MoveHostBytes()
{
    if (GetClientBacklog() > CLIENT_OUTPUT_HIGH_WATER)
        return false; // m_hostPending stays: the pump goes on once the client took some
    const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
    if (!link) {
        m_hostPending = false;
        return false;
    }
    const unsigned long long allowance = m_protocol->GetResponseRelayAllowance();
    if (m_spliceHost && m_readerFd >= 0 && allowance > 0 && GetClientBacklog() == 0) {
        const int moved =
            link->ReceiveInto(m_clientSocket, static_cast<int>(std::min<unsigned long long>(HOST_SPLICE_SIZE, allowance)));
        if (moved > 0) {
            CountHostBytes(static_cast<uint64_t>(moved));
            SpendTurnBudget(moved);
            NoteActivity();
            m_protocol->OnResponseRelayed(static_cast<unsigned long long>(moved));
            return m_client == EClient::Open && m_toClient == EFlow::Open;
        }
        if (moved == IZRTDataLayer::RECEIVE_NOTHING_NOW) {
            m_hostPending = false;
            return false;
        }
        if (moved == IZRTDataLayer::RECEIVE_END) {
            HostEnded();
            return false;
        }
        if (moved == IZRTDataLayer::RECEIVE_SOCKET_FAILED) {
            Abort();
            return false;
        }
    }
    const int count = link->ReceiveData(HostBuffer(), HOST_READ_SIZE);
    if (count > 0) {
        CountHostBytes(static_cast<uint64_t>(count));
        SpendTurnBudget(count);
        NoteActivity();
        m_protocol->HandleResponse(reinterpret_cast<const char*>(HostBuffer()), count);
        // A full read means a stream in full flow: once the handler relays unchanged, later
        // bytes may skip user space altogether.
        if (count == HOST_READ_SIZE && m_protocol->GetResponseRelayAllowance() > 0)
            m_spliceHost = true;
        return m_client == EClient::Open && m_toClient == EFlow::Open;
    }
    m_hostPending = false;
    // -1 means the end only from a link that said so (half-close, or a reader attached).
    const bool ended = count < 0 && (m_linkHalfCloses || m_readerFd >= 0);
    if (ended || m_linkState == ELink::Closed)
        HostEnded();
    return false;
}

void CProxyConnection::HostEnded()
{
    if (m_toClient != EFlow::Open || m_client != EClient::Open)
        return;
    m_hostPending = false;
    if (!m_protocol->HandleHostEnd()) {
        BeginClosing();
        return;
    }
    // The handler let go of the link (and may be opening another): the exchange goes on.
    if (m_linkState == ELink::None || m_linkState == ELink::Connecting)
        return;
    // A link that closed takes no more client bytes either: the exchange is over.
    if (m_linkState == ELink::Closed) {
        BeginClosing();
        return;
    }
    m_toClient = EFlow::Ending;
}

void CProxyConnection::CompleteConnect()
{
    const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
    if (!link || m_linkState != ELink::Connecting)
        return;
    link->CompleteConnect();
    if (!link->IsConnecting())
        FinishConnect(link->IsConnected());
}

void CProxyConnection::FinishConnect(bool connected)
{
    if (connected) {
        m_linkState = ELink::Open;
        m_candidates.clear();
        m_connectFailure = 0;
    } else {
        const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
        const int failure = link ? link->GetFailure() : 0;
        m_connectFailure = Clock::now() >= m_attemptDeadline ? ETIMEDOUT : failure != 0 ? failure : ECONNREFUSED;
        ReleaseLink();
        m_linkState = ELink::None;
        // The next address of the name, while time is left; the handler hears only the end.
        if (!m_candidates.empty() && Clock::now() < m_connectDeadline && m_client == EClient::Open) {
            const QOX::CRefCountPtr<IZRTConnectionAddress> next = m_candidates.front();
            m_candidates.pop_front();
            StartAttempt(next);
            return;
        }
        m_candidates.clear();
    }
    if (m_protocol && m_client == EClient::Open)
        m_protocol->OnHostConnected(connected);
}

void CProxyConnection::TakeHelperLink()
{
    QOX::CRefCountPtr<IZRTDataLayer> link;
    uint64_t attempt = 0;
    {
        std::lock_guard<std::mutex> hold(m_endMutex);
        link = std::move(m_helperLink);
        m_helperLink.Reset();
        attempt = m_helperAttempt;
    }
    // An attempt given up meanwhile (its time ran out, the next address is being tried) is not
    // the one waited for.
    if (attempt != m_attempt || m_linkState != ELink::Connecting || CurrentLink()) {
        if (link)
            link->Disconnect();
        return;
    }
    m_linkState = ELink::None; // AdoptNewLink sets what it is
    AdoptNewLink(link);
}

void CProxyConnection::OnHelperConnected(const QOX::CRefCountPtr<IZRTDataLayer>& link, uint64_t attempt)
{
    QOX::CRefCountPtr<IZRTDataLayer> unwanted;
    {
        std::lock_guard<std::mutex> hold(m_endMutex);
        if (m_run == ERun::Finished) {
            unwanted = link;
        } else {
            unwanted = std::move(m_helperLink); // an older attempt's, never taken
            m_helperLink = link;
            m_helperAttempt = attempt;
        }
    }
    if (unwanted)
        unwanted->Disconnect();
    if (!unwanted || unwanted.Get() != link.Get())
        Notify(NOTICE_CONNECTED_LINK);
}

// ---- ends ----

void CProxyConnection::AdvanceEnds()
{
    if (m_client == EClient::Open && m_toClient == EFlow::Ending && GetClientBacklog() == 0) {
        // Everything the host sent is with the client: pass its end on (the close does that
        // when the client has finished too).
        if (m_toHost != EFlow::Ended && m_linkState != ELink::Closed)
            shutdown(m_clientSocket, SHUT_WR);
        m_toClient = EFlow::Ended;
    }
    if (m_client == EClient::Open && m_toClient == EFlow::Ended &&
        (m_toHost == EFlow::Ended || m_linkState == ELink::Closed))
        BeginClosing();
    if (m_client == EClient::Closing && GetClientBacklog() == 0)
        m_client = EClient::Closed;
}

void CProxyConnection::BeginClosing()
{
    if (m_client != EClient::Open)
        return;
    m_client = EClient::Closing;
    TerminateHandler();
    ReleaseLink();
}

void CProxyConnection::Abort()
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        m_clientOutput.clear();
        m_clientOutputSize = 0;
    }
    BeginClosing();
    m_client = EClient::Closed;
}

void CProxyConnection::TerminateHandler()
{
    m_handlerDeadline.reset();
    if (!m_protocol || m_handlerTerminated)
        return;
    Watch(HANDLER, -1, 0); // before the handler closes its descriptor
    m_handlerTerminated = true;
    m_protocol->Terminate();
}

void CProxyConnection::CloseClientSocket()
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_clientOutput.clear();
    m_clientOutputSize = 0;
    if (m_clientSocket < 0)
        return;
    // Unread input would make the close a reset; a client that finished sending left none.
    if (m_toHost != EFlow::Ended)
        DiscardPendingInput(m_clientSocket);
    CSocketUtils::CloseSocket(m_clientSocket);
    m_clientSocket = -1;
}

void CProxyConnection::ReleaseLink()
{
    const QOX::CRefCountPtr<IZRTDataLayer> link = DetachLink();
    if (m_linkState != ELink::None)
        m_linkState = ELink::Closed;
    if (!link)
        return;
    // What the client sent is still written to the host, within the link's bound, unless the
    // host stopped taking it for longer than the linger time.
    if (m_abortLink)
        link->Abort();
    else
        link->Disconnect();
}

QOX::CRefCountPtr<IZRTDataLayer> CProxyConnection::DetachLink()
{
    QOX::CRefCountPtr<IZRTDataLayer> link;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        link = std::move(m_link);
        m_link.Reset();
    }
    if (!link)
        return link;
    // Out of the loop before the link may close its descriptor.
    Watch(LINK, -1, 0);
    // After RemoveNotification no callback of the link reaches us, so nothing outlives the
    // connection; what it reported before must not be taken for news of the next link (another
    // address, the next request's origin).
    link->RemoveNotification(this);
    m_notices.fetch_and(~static_cast<unsigned>(NOTICE_LINK_CONNECTED | NOTICE_LINK_CLOSED | NOTICE_HOST_DATA));
    if (m_readerFd >= 0)
        link->DetachReader();
    m_readerFd = -1;
    m_hostPending = false;
    m_spliceHost = false;
    m_spliceClient = false;
    return link;
}

QOX::CRefCountPtr<IZRTDataLayer> CProxyConnection::ReleaseHostLink()
{
    // A link that closed is handed over too: the caller closes it and may open another.
    if (m_linkState != ELink::Open && m_linkState != ELink::Closed)
        return {};
    QOX::CRefCountPtr<IZRTDataLayer> link = DetachLink();
    m_linkState = ELink::None;
    return link;
}

COriginPool& CProxyConnection::GetOriginPool()
{
    static COriginPool unowned; // a connection without a server keeps nothing for later
    return m_server ? m_server->GetOriginPool() : unowned;
}

// ---- the client's output queue ----

void CProxyConnection::FlushClientOutput()
{
    unsigned int before = 0;
    unsigned int after = 0;
    bool failed = false;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        before = m_clientOutputSize;
        failed = !WriteQueuedLocked();
        after = m_clientOutputSize;
    }
    if (failed) {
        Abort();
        return;
    }
    if (after != before)
        NoteActivity();
    const bool crossedLow = before >= CLIENT_OUTPUT_LOW_WATER && after < CLIENT_OUTPUT_LOW_WATER;
    if ((crossedLow || (before > 0 && after == 0)) && m_protocol && m_client == EClient::Open)
        m_protocol->OnClientDrained();
}

bool CProxyConnection::WriteQueuedLocked()
{
    if (m_clientSocket < 0)
        return true;
    while (!m_clientOutput.empty()) {
        CByteBuffer& front = *m_clientOutput.front();
        const int length = static_cast<int>(front.GetUnread());
        const int sent = SendSome(m_clientSocket, reinterpret_cast<const char*>(front.GetData() + front.GetOffset()),
                                  length);
        if (sent < 0)
            return false;
        m_clientOutputSize -= static_cast<unsigned int>(sent);
        if (sent < length) {
            front.SetOffset(front.GetOffset() + static_cast<unsigned int>(sent));
            return true;
        }
        CByteBufferList::ReclaimBuffer(m_clientOutput.front());
        m_clientOutput.pop_front();
    }
    return true;
}

void CProxyConnection::QueueOutputLocked(const char* data, int length)
{
    int offset = 0;
    while (offset < length) {
        const int chunk = std::min(length - offset, static_cast<int>(CByteBufferList::POOLED_BUFFER_SIZE));
        m_clientOutput.push_back(CByteBufferList::GetBuffer(reinterpret_cast<const unsigned char*>(data + offset),
                                                            static_cast<unsigned int>(chunk)));
        m_clientOutputSize += static_cast<unsigned int>(chunk);
        offset += chunk;
    }
}

// ---- operations for the handler and the server ----

void CProxyConnection::Terminate()
{
    Notify(NOTICE_STOP);
    if (!OnLoopThread()) {
        // A connection that never started has nothing to wait for.
        std::unique_lock<std::mutex> hold(m_endMutex);
        m_ended.wait(hold, [this] { return m_run != ERun::Running; });
    }
    std::lock_guard<std::mutex> hold(m_mutex);
    m_proxy = nullptr;
}

bool CProxyConnection::IsRunning() const
{
    std::lock_guard<std::mutex> hold(m_endMutex);
    return m_run == ERun::Running;
}

bool CProxyConnection::IsConnectedToClient() const
{
    return m_client == EClient::Open && !m_disconnectRequested;
}

bool CProxyConnection::IsConnectedToHost() const
{
    return m_linkState == ELink::Open;
}

void CProxyConnection::DisconnectClient()
{
    if (OnLoopThread() && m_inStep) {
        BeginClosing();
        return;
    }
    if (m_disconnectRequested.exchange(true))
        return;
    Notify(NOTICE_DISCONNECT);
}

bool CProxyConnection::SendToClient(const char* data, int length)
{
    bool failed = false;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!IsConnectedToClient() || m_toClient == EFlow::Ended || m_clientSocket < 0)
            return false;
        if (!data || length <= 0)
            return true;
        int sent = 0;
        if (m_clientOutput.empty()) {
            sent = SendSome(m_clientSocket, data, length);
            failed = sent < 0;
        }
        if (!failed && sent < length)
            QueueOutputLocked(data + sent, length - sent);
    }
    if (failed) {
        // The client is gone; the thread ends everything at its next turn.
        m_disconnectRequested = true;
        Notify(NOTICE_CLIENT_FAILED);
        return false;
    }
    if (!(OnLoopThread() && m_inStep))
        Schedule(); // the queue's rest is written when the socket takes it
    return true;
}

unsigned int CProxyConnection::GetClientBacklog() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_clientOutputSize;
}

void CProxyConnection::Notify(unsigned notice)
{
    m_notices |= notice;
    // Inside a step the plan sees the notice and steps again; otherwise the loop is asked.
    if (!(OnLoopThread() && m_inStep))
        Schedule();
}

void CProxyConnection::WakeConnection()
{
    if (!(OnLoopThread() && m_inStep))
        Schedule();
}

void CProxyConnection::WakeHandler()
{
    Notify(NOTICE_HANDLER);
}

void CProxyConnection::SetHandlerTimer(int milliseconds)
{
    if (milliseconds < 0)
        m_handlerDeadline.reset();
    else
        m_handlerDeadline = Clock::now() + std::chrono::milliseconds(milliseconds);
}

void CProxyConnection::RunHandlerTimer()
{
    if (!m_handlerDeadline || Clock::now() < *m_handlerDeadline)
        return;
    m_handlerDeadline.reset();
    if (m_protocol && m_client == EClient::Open)
        m_protocol->OnTimer();
}

CAddressManager& CProxyConnection::GetAddressManager()
{
    return m_server ? m_server->GetAddressManager() : *CAddressManager::GetInstance();
}

CLoginGuard& CProxyConnection::GetLoginGuard()
{
    static CLoginGuard unowned; // a connection without a server shares one with its kind
    return m_server ? m_server->GetLoginGuard() : unowned;
}

const SProxySettings& CProxyConnection::GetSettings() const
{
    return *m_settings;
}

bool CProxyConnection::IsDestinationAllowed(const IZRTConnectionAddress& destination)
{
    sockaddr_storage storage{};
    int length = sizeof(storage);
    if (!destination.GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
        return false;
    return m_policy->Allows(storage, GetAddressManager(), m_server && m_server->ListensBeyondLoopback());
}

void CProxyConnection::MarkRequestComplete()
{
    if (m_requestComplete)
        return;
    m_requestComplete = true;
    m_lastActivity = Clock::now();
}

void CProxyConnection::SetUser(const std::string& user)
{
    m_user = user.empty() ? "-" : user;
}

bool CProxyConnection::NextLimit(Clock::time_point& deadline) const
{
    const SProxySettings& settings = *m_settings;
    bool any = false;
    if (!m_requestComplete && settings.handshakeTimeoutMs > 0) {
        deadline = m_startTime + std::chrono::milliseconds(settings.handshakeTimeoutMs);
        any = true;
    }
    if (m_requestComplete && settings.idleTimeoutMs > 0) {
        deadline = m_lastActivity + std::chrono::milliseconds(settings.idleTimeoutMs);
        any = true;
    }
    const std::optional<Clock::time_point> linger = LingerDeadline();
    if (linger && (!any || *linger < deadline)) {
        deadline = *linger;
        any = true;
    }
    return any;
}

std::optional<CProxyConnection::Clock::time_point> CProxyConnection::LingerDeadline() const
{
    // Counted from the client's end or the last byte moved (either way), whichever is later: a
    // destination that still moves bytes is not stuck.
    if (!m_clientFinishedAt || m_lingerSettled || m_settings->lingerTimeoutMs <= 0 || m_linkState != ELink::Open)
        return std::nullopt;
    return std::max(*m_clientFinishedAt, m_lastActivity) + std::chrono::milliseconds(m_settings->lingerTimeoutMs);
}

void CProxyConnection::EnforceLimits()
{
    if (m_moved && ((m_requestComplete && m_settings->idleTimeoutMs > 0) || m_clientFinishedAt))
        m_lastActivity = Clock::now();
    m_moved = false;
    if (m_client != EClient::Open)
        return;
    const Clock::time_point now = Clock::now();
    const std::optional<Clock::time_point> linger = LingerDeadline();
    if (linger && now >= *linger) {
        const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
        if (link && link->GetUndeliveredBytes() > 0) {
            // The client's last bytes are given up: the destination gets a reset, not a FIN
            // after a part of them.
            m_abortLink = true;
            TimeOut();
            return;
        }
        // The destination took everything: how long it takes to answer is its own business.
        m_lingerSettled = true;
    }
    Clock::time_point deadline;
    if (NextLimit(deadline) && now >= deadline)
        TimeOut();
}

void CProxyConnection::TimeOut()
{
    // A served tunnel that fell silent ends as a time-out too, whatever was judged before.
    m_outcomeSet = false;
    SetOutcome(EOutcome::Timeout);
    Abort();
}

// ---- host link ----

QOX::CRefCountPtr<IZRTDataLayer> CProxyConnection::CurrentLink() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_link;
}

unsigned char* CProxyConnection::HostBuffer()
{
    if (!m_hostBuffer)
        m_hostBuffer.reset(new unsigned char[HOST_READ_SIZE]);
    return m_hostBuffer.get();
}

bool CProxyConnection::InstallLink(const QOX::CRefCountPtr<IZRTDataLayer>& link, ELink state)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_link)
            return false;
        m_link = link;
    }
    m_linkState = state;
    // Before registering, so the link never starts reading ahead on its own thread.
    m_readerFd = link->AttachReader();
    link->AddNotification(this);
    m_linkHalfCloses = link->EnableHalfClose();
    m_hostPending = true;
    m_spliceHost = false;
    m_spliceClient = false;
    return true;
}

bool CProxyConnection::ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination)
{
    if (!destination || !m_multiPointLayer || m_linkState == ELink::Connecting || m_linkState == ELink::Open)
        return false;
    QOX::CRefCountPtr<IZRTDataLayer> link = m_multiPointLayer->Connect(*destination, m_clientAddress);
    if (!link)
        return false;
    if (!InstallLink(link, ELink::Open)) {
        link->Disconnect();
        return false;
    }
    return true;
}

bool CProxyConnection::BeginConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination)
{
    if (!destination || !m_multiPointLayer || m_linkState == ELink::Connecting || m_linkState == ELink::Open)
        return false;
    m_connectDeadline = Clock::now() + std::chrono::milliseconds(GetSettings().connectTimeoutMs);
    m_candidates = OtherAddresses(*destination);
    StartAttempt(destination);
    return true;
}

void CProxyConnection::StartAttempt(const QOX::CRefCountPtr<IZRTConnectionAddress>& address)
{
    const Clock::time_point now = Clock::now();
    m_attemptDeadline = now + (m_connectDeadline - now) / static_cast<int>(1 + m_candidates.size());
    if (!m_multiPointLayer->ConnectsWithoutBlocking()) {
        // The loop must not wait for this host: a helper thread asks, the answer comes back as
        // a notice. Meanwhile the link counts as connecting, within the same time limit.
        m_linkState = ELink::Connecting;
        if (!CConnectCall::Launch(*this, address, ++m_attempt))
            m_connectOutcome = false;
        return;
    }
    AdoptNewLink(m_multiPointLayer->BeginConnect(*address, m_clientAddress));
}

void CProxyConnection::AdoptNewLink(const QOX::CRefCountPtr<IZRTDataLayer>& link)
{
    if (!link) {
        m_connectOutcome = false; // reported (or the next address tried) next turn
        return;
    }
    const bool connecting = link->IsConnecting();
    if (!InstallLink(link, connecting ? ELink::Connecting : ELink::Open)) {
        link->Disconnect();
        m_connectOutcome = false;
        return;
    }
    // A link that came open (a host without non-blocking connects) is reported next turn.
    if (!connecting)
        m_connectOutcome = true;
}

std::deque<QOX::CRefCountPtr<IZRTConnectionAddress>> CProxyConnection::OtherAddresses(
    const IZRTConnectionAddress& destination)
{
    std::deque<QOX::CRefCountPtr<IZRTConnectionAddress>> others;
    const auto* tcp = dynamic_cast<const CTCPIPAddress*>(&destination);
    if (!tcp)
        return others;
    for (const sockaddr_storage& alternative : tcp->GetAlternatives()) {
        auto* address = new CTCPIPAddress();
        QOX::CRefCountPtr<IZRTConnectionAddress> held(address);
        const socklen_t length = alternative.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        // A name may list the proxy among its addresses (that one would loop back in), or
        // addresses the destination rules refuse.
        if (address->SetAddress(reinterpret_cast<const sockaddr&>(alternative), length) &&
            !GetAddressManager().IsProxyItself(*address) && IsDestinationAllowed(*address))
            others.push_back(held);
    }
    return others;
}

bool CProxyConnection::AdoptHostLink(QOX::CRefCountPtr<IZRTDataLayer> link)
{
    if (!link || m_linkState == ELink::Connecting || m_linkState == ELink::Open)
        return false;
    return InstallLink(link, ELink::Open);
}

bool CProxyConnection::EndHostOutput()
{
    const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
    return link && m_linkState == ELink::Open && link->ShutdownSend();
}

bool CProxyConnection::SendToHost(const char* data, int length)
{
    const QOX::CRefCountPtr<IZRTDataLayer> link = CurrentLink();
    if (!link || m_linkState != ELink::Open)
        return false;
    link->SendData(reinterpret_cast<const unsigned char*>(data), length);
    // What reaches the host, as the handler passed it on (negotiation bytes are not counted).
    if (length > 0)
        CountClientBytes(static_cast<uint64_t>(length));
    return true;
}

void CProxyConnection::OnDataReceived(IZRTDataLayer& /*dataLayer*/)
{
    Notify(NOTICE_HOST_DATA);
}

void CProxyConnection::OnConnectionClosed(IZRTDataLayer& dataLayer)
{
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_link.Get() != &dataLayer)
            return; // a stale report
    }
    Notify(NOTICE_LINK_CLOSED);
}

void CProxyConnection::OnSendDrained(IZRTDataLayer& /*dataLayer*/)
{
    WakeConnection();
}

void CProxyConnection::OnLinkConnected(IZRTDataLayer& /*dataLayer*/)
{
    Notify(NOTICE_LINK_CONNECTED);
}

} // namespace Proxy
} // namespace ZRT
