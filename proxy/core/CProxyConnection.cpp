#include "proxy/core/CProxyConnection.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/CProxyServer.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
constexpr uint32_t CLIENT_GONE = EPOLLERR | EPOLLHUP;

int MillisecondsUntil(std::chrono::steady_clock::time_point deadline)
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
    // Rounded up, so the connection is never woken a moment early and spun on.
    return left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
}

std::optional<std::chrono::steady_clock::time_point> Earliest(std::optional<std::chrono::steady_clock::time_point> a,
                                                              std::optional<std::chrono::steady_clock::time_point> b)
{
    if (a && b)
        return std::min(*a, *b);
    return a ? a : b;
}
} // namespace

QOX::CAtomicInt CProxyConnection::ms_connID(0);

CProxyConnection::CProxyConnection(CProxyServer& server, std::shared_ptr<const SProxySettings> settings,
                                   std::shared_ptr<const CDestinationPolicy> policy)
    : m_server(server), m_settings(std::move(settings)), m_policy(std::move(policy)), m_id(ms_connID.Increment()),
      m_record(server.GetStats(), server.GetObserver())
{
    m_server.OnConnectionCreated(this);
}

CProxyConnection::~CProxyConnection()
{
    // A connection that ran left the server's set when it finished.
    if (m_phase == EPhase::NotStarted)
        m_server.OnConnectionDestroyed(this);
}

bool CProxyConnection::Start(int socket, const sockaddr_storage& peer, CEventLoop& loop,
                             IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                             IConnectionListener* connectionListener)
{
    m_peer = peer;
    m_client.Adopt(socket);
    const socklen_t length = peer.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (!m_clientAddress.SetAddress(reinterpret_cast<const sockaddr&>(peer), length)) {
        m_client.Close(false);
        m_server.OnClientFinished(peer, &loop);
        return false;
    }
    m_record.SetClient(m_clientAddress.ToString());
    m_multiPointLayer = multiPointLayer;
    m_datagramHandler = datagramHandler;
    m_connectionListener = connectionListener;
    m_connector.reset(new CHostConnector(
        multiPointLayer, m_clientAddress, m_server.GetConnectHelpers(), m_link, [this] { RequestStep(NOTICE_CONNECTOR); },
        [this](bool connected) { TellConnected(connected); }));
    m_watches.Start(loop, [this](ERole role, uint32_t events) { OnReady(role, events); });
    m_phase = m_carried ? EPhase::AwaitProxyHeader : EPhase::AwaitFirstBytes;
    m_self = this;
    // The first step comes with the client's first bytes (or its end, or a deadline).
    if (m_watches.Watch(ERole::CLIENT, socket, ClientInterest())) {
        ApplyPlan();
        return true;
    }
    EnterPhase(EPhase::Close); // the loop would not watch the socket: nothing could be served
    return false;
}

// ---- steps ----

void CProxyConnection::RequestStep(unsigned reason)
{
    m_notices |= reason;
    // A step under way takes the reason before it ends.
    if (OnLoopThread() && m_inStep)
        return;
    PostStep();
}

void CProxyConnection::PostStep()
{
    CEventLoop* loop = m_watches.GetLoop();
    if (!loop || m_stepPosted.exchange(true))
        return;
    const QOX::CRefCountPtr<CProxyConnection> self(this);
    loop->Post([self] {
        self->m_stepPosted = false;
        self->Step();
    });
}

bool CProxyConnection::OnLoopThread() const
{
    const CEventLoop* loop = m_watches.GetLoop();
    return loop && loop->IsLoopThread();
}

void CProxyConnection::OnReady(ERole role, uint32_t events)
{
    m_watches.AddReady(role, events);
    Step();
}

void CProxyConnection::Step()
{
    const QOX::CRefCountPtr<CProxyConnection> hold(this); // Close lets the own reference go
    const EPhase phase = m_phase;
    if (phase == EPhase::NotStarted || phase == EPhase::Finished)
        return; // a late step or wake-up
    m_inStep = true;
    DoLoop();
    m_inStep = false;
    if (m_phase != EPhase::Finished)
        ApplyPlan();
}

void CProxyConnection::DoLoop()
{
    // Reasons left during a round (a handler's DisconnectClient, a link's report from inside a
    // call) are taken by the next round, within this step, as far as a few rounds go.
    for (int round = 0; round < 4; ++round) {
        const EPhase phase = m_phase;
        const EPhase next = DoPhase(phase);
        if (next != phase)
            EnterPhase(next);
        else if (m_notices.load() == 0 || phase == EPhase::Finished)
            return;
    }
}

CProxyConnection::EPhase CProxyConnection::DoPhase(EPhase phase)
{
    switch (phase) {
    case EPhase::AwaitProxyHeader:
        return DoParts({&CProxyConnection::TakeNotices, &CProxyConnection::ReadProxyHeader});
    case EPhase::AwaitFirstBytes: {
        const EPhase next = DoParts({&CProxyConnection::TakeNotices, &CProxyConnection::ServeClient,
                                     &CProxyConnection::CheckLimits});
        return next == phase && m_protocol ? EPhase::Serve : next;
    }
    case EPhase::Serve:
        return DoParts({&CProxyConnection::TakeNotices, &CProxyConnection::ServeClient,
                        &CProxyConnection::ServeLink, &CProxyConnection::PumpHost, &CProxyConnection::ServeHandler,
                        &CProxyConnection::CheckLimits, &CProxyConnection::AdvanceEnds});
    case EPhase::Drain:
        return DoDrain();
    case EPhase::NotStarted:
    case EPhase::Close:
    case EPhase::Finished:
        break;
    }
    return phase;
}

CProxyConnection::EPhase CProxyConnection::DoParts(std::initializer_list<Part> parts)
{
    for (const Part part : parts) {
        Next next = (this->*part)();
        if (!next)
            next = EndingNotice(); // the handler ended the exchange during the part
        if (next)
            return *next;
    }
    return m_phase;
}

void CProxyConnection::EnterPhase(EPhase phase)
{
    m_phase = phase;
    if (phase == EPhase::Drain) {
        EndExchange();
        m_limits.NoteDrainProgress();
    } else if (phase == EPhase::Close) {
        Finish();
    }
}

CProxyConnection::Next CProxyConnection::EndingNotice() const
{
    const unsigned notices = m_notices.load();
    if (notices & (NOTICE_STOP | NOTICE_CLIENT_FAILED))
        return EPhase::Close;
    if (notices & NOTICE_DISCONNECT)
        return EPhase::Drain;
    return std::nullopt;
}

CProxyConnection::EPhase CProxyConnection::DoDrain()
{
    const unsigned notices = m_notices.exchange(0);
    if (notices & (NOTICE_STOP | NOTICE_CLIENT_FAILED))
        return Abandon();
    const uint32_t ready = m_watches.TakeReady(ERole::CLIENT);
    if ((ready & (EPOLLOUT | CLIENT_GONE)) && !FlushClient())
        return Abandon();
    if (m_client.GetBacklog() == 0)
        return EPhase::Close;
    // A client that takes nothing of its last bytes does not hold the connection for ever.
    const std::optional<Clock::time_point> deadline = m_limits.DrainDeadline();
    if (deadline && Clock::now() >= *deadline)
        return Abandon();
    return EPhase::Drain;
}

CProxyConnection::EPhase CProxyConnection::Abandon()
{
    m_client.DropOutput();
    return EPhase::Close;
}

void CProxyConnection::EndExchange()
{
    m_handlerDeadline.reset();
    if (m_protocol) {
        m_watches.Unwatch(ERole::HANDLER); // before the handler closes its descriptor
        m_protocol->Terminate();
        m_protocol.reset();
    }
    if (m_connector)
        m_connector->Cancel();
    m_link.Close(m_limits.GaveUpOnHost());
}

void CProxyConnection::Finish()
{
    EndExchange();
    m_watches.Close();
    // A client that did not finish sending may have left input, which would make the close a reset.
    m_client.Close(m_toHost == EFlow::Ended);
    m_server.OnClientFinished(m_peer, m_watches.GetLoop());
    m_record.Report(m_limits.IsRequestComplete());
    m_server.OnConnectionDestroyed(this);
    {
        std::lock_guard<std::mutex> hold(m_endMutex);
        m_phase = EPhase::Finished;
    }
    m_ended.notify_all();
    m_self.Reset(); // the caller holds its own reference
}

// ---- parts of a step ----

CProxyConnection::Next CProxyConnection::ReadProxyHeader()
{
    if (const std::optional<bool> admitted = m_carried->Read(m_client.GetSocket(), m_limits.Next(false)))
        return *admitted ? EPhase::AwaitFirstBytes : Abandon();
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::TakeNotices()
{
    const unsigned notices = m_notices.exchange(0);
    if (notices & (NOTICE_STOP | NOTICE_CLIENT_FAILED))
        return Abandon();
    if (notices & NOTICE_DISCONNECT)
        return EPhase::Drain;
    if ((notices & NOTICE_NETWORK) && LinkLeftTheNetwork())
        return Abandon();
    if (notices & NOTICE_HOST_DATA)
        m_pump.NoteHostBytes();
    TakeLinkNotices(notices);
    if ((notices & NOTICE_HANDLER) && m_protocol && IsConnectedToClient()) {
        m_limits.NoteMoved(); // a lookup's answer, a BIND peer, a datagram from a host
        m_protocol->Resume();
    }
    return std::nullopt;
}

void CProxyConnection::TakeLinkNotices(unsigned notices)
{
    // The connector's news first: a link that closed right after it opened is told as open, then closed.
    if (notices & NOTICE_CONNECTOR)
        m_connector->OnWake();
    if ((notices & NOTICE_LINK_CONNECTED) && m_link.GetState() == CHostLink::EState::Connecting)
        m_connector->EndAttempt(true);
    if (notices & NOTICE_LINK_CLOSED) {
        if (m_link.GetState() == CHostLink::EState::Connecting) {
            m_connector->EndAttempt(false);
        } else if (m_link.GetState() == CHostLink::EState::Open) {
            m_link.MarkClosed(); // what the link still holds is delivered before the end is acted on
            m_pump.NoteHostBytes();
        }
    }
}

CProxyConnection::Next CProxyConnection::ServeClient()
{
    const uint32_t ready = m_watches.TakeReady(ERole::CLIENT);
    const uint32_t asked = m_watches.GetEvents(ERole::CLIENT);
    if ((asked & EPOLLOUT) && (ready & (EPOLLOUT | CLIENT_GONE)) && !FlushClient())
        return Abandon();
    if ((asked & EPOLLRDHUP) && (ready & EPOLLRDHUP))
        m_limits.MarkClientFinished(); // its end waits to be read behind bytes the link cannot take yet
    if ((asked & EPOLLIN) && (ready & (EPOLLIN | CLIENT_GONE)))
        return ReadClient();
    if (asked == 0 && (ready & CLIENT_GONE))
        return Abandon(); // reset (or shut both ways) while nothing was to be read or written
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::ReadClient()
{
    // A stream in full flow waits for the next turn; the descriptor stays ready till then.
    if (m_toHost != EFlow::Open || !m_watches.HasTurnBudget())
        return std::nullopt;
    switch (m_pump.MoveClientBytes(m_protocol.get())) {
    case CRelayPump::EMove::ClientEnded:
        return ClientEnded();
    case CRelayPump::EMove::ClientFailed:
        return Abandon();
    case CRelayPump::EMove::More:
    case CRelayPump::EMove::Wait:
    case CRelayPump::EMove::HostEnded:
        break;
    }
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::ClientEnded()
{
    // The handler decides: before a request is complete, or when the end cannot be passed on,
    // the client's end is the end of the exchange.
    if (!m_protocol || !m_protocol->HandleClientEnd())
        return EPhase::Drain;
    m_toHost = EFlow::Ended;
    m_limits.MarkClientFinished();
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::ServeLink()
{
    const uint32_t ready = m_watches.TakeReady(ERole::LINK);
    if (m_connector->GiveUpSlowAttempt())
        return std::nullopt;
    if (ready != 0 && (m_watches.GetEvents(ERole::LINK) & EPOLLOUT))
        m_connector->CompleteConnect();
    else if (ready != 0)
        m_pump.NoteHostBytes();
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::PumpHost()
{
    if (!m_pump.HasHostBytes() || !m_protocol || m_toClient != EFlow::Open)
        return std::nullopt;
    const CHostLink::EState state = m_link.GetState();
    if (state != CHostLink::EState::Open && state != CHostLink::EState::Closed) {
        m_pump.ForgetHostBytes();
        return std::nullopt;
    }
    // A stream in full flow moves no more than the loop's turn budget allows: the loop serves
    // the other connections before it comes back.
    for (int move = 0; move < HOST_READS_PER_TURN && IsConnectedToClient() && m_watches.HasTurnBudget(); ++move) {
        if (m_client.GetBacklog() > ClientOutputMark())
            break; // the pump goes on once the client took some
        const CRelayPump::EMove moved = m_pump.MoveHostBytes(*m_protocol);
        if (moved == CRelayPump::EMove::HostEnded)
            return HostEnded();
        if (moved == CRelayPump::EMove::ClientFailed)
            return Abandon();
        if (moved != CRelayPump::EMove::More)
            break;
    }
    // Spliced bytes wait in the host socket, whose descriptor brings the next step (put off by
    // the loop while the turn's budget is spent); no step needs asking for.
    if (m_watches.IsBulk() && m_pump.SplicesHost())
        m_pump.ForgetHostBytes();
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::HostEnded()
{
    m_pump.ForgetHostBytes();
    if (!m_protocol->HandleHostEnd())
        return EPhase::Drain;
    switch (m_link.GetState()) {
    case CHostLink::EState::None: // the handler let go of the link (and may be opening another)
    case CHostLink::EState::Connecting:
        return std::nullopt;
    case CHostLink::EState::Closed: // a link that closed takes no more client bytes either
        return EPhase::Drain;
    case CHostLink::EState::Open:
        break;
    }
    m_toClient = EFlow::Ending;
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::ServeHandler()
{
    if (m_watches.TakeReady(ERole::HANDLER) != 0 && m_protocol && IsConnectedToClient()) {
        m_limits.NoteMoved(); // a datagram of an association
        m_protocol->OnDescriptorReady();
    }
    if (!m_handlerDeadline || Clock::now() < *m_handlerDeadline)
        return std::nullopt;
    m_handlerDeadline.reset();
    if (m_protocol && IsConnectedToClient())
        m_protocol->OnTimer();
    return std::nullopt;
}

CProxyConnection::Next CProxyConnection::CheckLimits()
{
    const bool linkOpen = m_link.GetState() == CHostLink::EState::Open;
    if (m_limits.Check(linkOpen, [this] { return m_link.GetUndeliveredBytes(); }) ==
        CConnectionLimits::EVerdict::Within)
        return std::nullopt;
    m_record.SetTimedOut();
    return Abandon();
}

CProxyConnection::Next CProxyConnection::AdvanceEnds()
{
    const bool linkClosed = m_link.GetState() == CHostLink::EState::Closed;
    if (m_toClient == EFlow::Ending && m_client.GetBacklog() == 0) {
        // Everything the host sent is with the client: pass its end on (the close does that
        // when the client has finished too).
        if (m_toHost != EFlow::Ended && !linkClosed)
            m_client.ShutdownSend();
        m_toClient = EFlow::Ended;
    }
    if (m_toClient == EFlow::Ended && (m_toHost == EFlow::Ended || linkClosed))
        return EPhase::Drain;
    return std::nullopt;
}

bool CProxyConnection::FlushClient()
{
    const CClientEnd::EFlush flushed = m_client.Flush();
    if (flushed == CClientEnd::EFlush::Failed)
        return false;
    if (flushed != CClientEnd::EFlush::Unchanged) {
        m_limits.NoteMoved();
        m_limits.NoteDrainProgress();
    }
    if (flushed == CClientEnd::EFlush::Drained && m_protocol && IsConnectedToClient())
        m_protocol->OnClientDrained();
    return true;
}

// ---- what the next step waits for ----

void CProxyConnection::ApplyPlan()
{
    m_watches.Watch(ERole::CLIENT, m_client.GetSocket(), ClientInterest());
    const int reader = m_link.GetReaderFd();
    const bool connecting = m_link.GetState() == CHostLink::EState::Connecting;
    // A link that connects with a reader attached finishes when its descriptor turns writable.
    const bool readHost = RoomForHostBytes() && m_link.GetState() == CHostLink::EState::Open;
    m_watches.Watch(ERole::LINK, readHost || connecting ? reader : -1, connecting ? EPOLLOUT : EPOLLIN);
    const bool serving = m_phase == EPhase::Serve && m_protocol;
    m_watches.Watch(ERole::HANDLER, serving ? m_protocol->GetWatchedDescriptor() : -1, EPOLLIN);
    m_watches.SetBulk(m_pump.IsSplicing());
    const int timeout = NextWakeUp();
    if (timeout == 0) {
        PostStep();
        return;
    }
    const QOX::CRefCountPtr<CProxyConnection> self(this);
    m_watches.WakeUpIn(timeout, [self] {
        self->m_watches.OnWokenUp();
        self->Step();
    });
}

uint32_t CProxyConnection::ClientInterest() const
{
    uint32_t events = m_client.GetBacklog() > 0 ? static_cast<uint32_t>(EPOLLOUT) : 0u;
    if (MayReadClient())
        events |= EPOLLIN;
    else if (m_phase == EPhase::Serve && m_toHost == EFlow::Open && !m_limits.HasClientFinished())
        events |= EPOLLRDHUP; // the client's end, while its bytes wait for the link
    return events;
}

bool CProxyConnection::MayReadClient() const
{
    const EPhase phase = m_phase;
    if (phase < EPhase::AwaitProxyHeader || phase > EPhase::Serve || m_toHost != EFlow::Open)
        return false;
    if (!m_protocol)
        return true;
    const unsigned long long backlog =
        static_cast<unsigned long long>(m_protocol->GetRequestBacklog()) + m_link.GetSendBacklog();
    return backlog <= REQUEST_BACKLOG_LIMIT;
}

bool CProxyConnection::LinkLeftTheNetwork()
{
    sockaddr_storage local{};
    if (m_link.GetState() != CHostLink::EState::Open || !m_link.GetLocalAddress(local))
        return false; // not an IP link: the host's own affair
    return (local.ss_family == AF_INET || local.ss_family == AF_INET6) && !GetAddressManager().IsThisMachine(local);
}

bool CProxyConnection::LinkHoldsUpClient() const
{
    // Judged by what the client is watched for, not by a second reading of a backlog that the
    // link's thread may empty in between: a link that never says it drained would stall it.
    return m_phase == EPhase::Serve && m_toHost == EFlow::Open && (m_watches.GetEvents(ERole::CLIENT) & EPOLLIN) == 0;
}

bool CProxyConnection::RoomForHostBytes() const
{
    return m_phase == EPhase::Serve && m_protocol && m_toClient == EFlow::Open &&
           m_client.GetBacklog() <= ClientOutputMark();
}

unsigned int CProxyConnection::ClientOutputMark() const
{
    // A spliced stream waits for the client to take its queue, then splices again: reading
    // ahead into the queue meanwhile would only grow the heap (by a quarter MiB per connection
    // whenever a client is slower than its host), while the host socket holds those bytes anyway.
    return m_pump.SplicesHost() ? 0 : CLIENT_OUTPUT_HIGH_WATER;
}

int CProxyConnection::NextWakeUp() const
{
    const CHostLink::EState state = m_link.GetState();
    const bool linkHeld = state == CHostLink::EState::Open || state == CHostLink::EState::Closed;
    if (m_notices.load() != 0 || (RoomForHostBytes() && m_pump.HasHostBytes() && linkHeld))
        return 0;
    std::optional<Clock::time_point> due;
    if (m_phase == EPhase::Drain)
        due = m_limits.DrainDeadline();
    else
        due = Earliest(m_limits.Next(state == CHostLink::EState::Open), m_handlerDeadline);
    due = Earliest(due, m_connector->GetAttemptDeadline());
    if (LinkHoldsUpClient())
        due = Earliest(due, Clock::now() + std::chrono::milliseconds(IZRTDataLayer::SEND_BACKLOG_RECHECK_MS));
    return due ? MillisecondsUntil(*due) : -1;
}

// ---- the host link ----

void CProxyConnection::OnLinkLeaving()
{
    m_watches.Unwatch(ERole::LINK);
    // What the link reported must not be taken for news of the next link.
    m_notices.fetch_and(~LINK_NOTICES);
    m_pump.OnLinkGone();
}

void CProxyConnection::TellConnected(bool connected)
{
    if (!m_protocol || !IsConnectedToClient())
        return;
    // What the handler kept for the link (a request head and the body behind it) leaves in one send.
    m_link.BeginHold();
    m_protocol->OnHostConnected(connected);
    m_link.EndHold();
}

bool CProxyConnection::BeginConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination)
{
    // A name may list the proxy among its addresses (that one would loop back in), or addresses
    // the destination rules refuse.
    const auto allowed = [this](const IZRTConnectionAddress& address) {
        return !GetAddressManager().IsProxyItself(address) && IsDestinationAllowed(address);
    };
    return m_connector->Begin(destination, GetSettings().connectTimeoutMs, allowed);
}

bool CProxyConnection::AdoptHostLink(QOX::CRefCountPtr<IZRTDataLayer> link)
{
    const CHostLink::EState state = m_link.GetState();
    if (!link || state == CHostLink::EState::Connecting || state == CHostLink::EState::Open)
        return false;
    m_link.Drop();
    return m_link.Install(link, CHostLink::EState::Open);
}

QOX::CRefCountPtr<IZRTDataLayer> CProxyConnection::ReleaseHostLink()
{
    // A link that closed is handed over too: the caller closes it and may open another.
    const CHostLink::EState state = m_link.GetState();
    if (state != CHostLink::EState::Open && state != CHostLink::EState::Closed)
        return {};
    m_client.WriteHeld(); // the answer's last bytes leave before the link's close or pooling
    return m_link.Release();
}

bool CProxyConnection::SendToHost(const char* data, int length)
{
    if (!m_link.Send(data, length))
        return false;
    // What reaches the host, as the handler passed it on (negotiation bytes are not counted).
    if (length > 0)
        m_record.CountToHost(static_cast<uint64_t>(length));
    return true;
}

// ---- what the pump asks ----

IConnectionProtocol* CProxyConnection::HandlerFor(const char* data, int length)
{
    if (m_protocol)
        return m_protocol.get();
    m_protocol.reset(m_server.CreateProtocol(*this, data, length));
    if (!m_protocol) {
        RequestStep(NOTICE_DISCONNECT); // nothing this proxy speaks
        return nullptr;
    }
    m_record.SetFamily(m_protocol->GetFamily());
    m_protocol->Init();
    return IsConnectedToClient() ? m_protocol.get() : nullptr;
}

void CProxyConnection::OnMoved(int bytes)
{
    m_watches.SpendTurnBudget(bytes);
    m_limits.NoteMoved();
}

void CProxyConnection::OnRelayed(bool toHost, int bytes)
{
    if (toHost)
        m_record.CountToHost(static_cast<uint64_t>(bytes));
    else
        m_record.CountToClient(static_cast<uint64_t>(bytes));
    OnMoved(bytes);
}

bool CProxyConnection::LinkTakesClientBytes()
{
    // A closure reported while the bytes came counts as before them: they have nowhere to go.
    if (m_notices.load() & NOTICE_LINK_CLOSED)
        TakeLinkNotices(m_notices.fetch_and(~static_cast<unsigned>(NOTICE_LINK_CLOSED)) & NOTICE_LINK_CLOSED);
    return m_link.GetState() != CHostLink::EState::Closed;
}

// ---- operations for the handler and the server ----

void CProxyConnection::Terminate()
{
    RequestStep(NOTICE_STOP);
    if (OnLoopThread())
        return;
    std::unique_lock<std::mutex> hold(m_endMutex);
    m_ended.wait(hold, [this] { return m_phase == EPhase::NotStarted || m_phase == EPhase::Finished; });
}

bool CProxyConnection::IsConnectedToClient() const
{
    const EPhase phase = m_phase;
    if (phase != EPhase::AwaitFirstBytes && phase != EPhase::Serve)
        return false;
    return (m_notices.load() & ENDING_NOTICES) == 0;
}

bool CProxyConnection::SendToClient(const char* data, int length)
{
    if (!IsConnectedToClient() || m_toClient == EFlow::Ended)
        return false;
    if (!data || length <= 0)
        return true;
    if (m_client.Send(data, length))
        return true;
    RequestStep(NOTICE_CLIENT_FAILED); // the client is gone: everything ends in this step
    return false;
}

bool CProxyConnection::IsDestinationAllowed(const IZRTConnectionAddress& destination)
{
    sockaddr_storage storage{};
    int length = sizeof(storage);
    if (!destination.GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
        return false;
    return m_policy->Allows(storage, GetAddressManager(), m_server.ListensBeyondLoopback());
}

// The server's shared parts, for the handlers.
CProxyStats& CProxyConnection::GetStats() { return m_server.GetStats(); }
COriginPool& CProxyConnection::GetOriginPool() { return m_server.GetOriginPool(); }
CAddressManager& CProxyConnection::GetAddressManager() { return m_server.GetAddressManager(); }
CLoginGuard& CProxyConnection::GetLoginGuard() { return m_server.GetLoginGuard(); }

// ---- the link's reports, from any thread ----

void CProxyConnection::OnConnectionClosed(IZRTDataLayer& dataLayer)
{
    if (m_link.IsCurrent(dataLayer)) // not a stale report of an earlier link
        RequestStep(NOTICE_LINK_CLOSED);
}

} // namespace Proxy
} // namespace ZRT
