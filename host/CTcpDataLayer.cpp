#include "host/CTcpDataLayer.h"

#if defined(__linux__)
#include <linux/sockios.h> // SIOCOUTQ
#endif
#include <sys/ioctl.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/CScratchLoan.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Host {

namespace {
// Reads per readiness event before the loop turns to other sockets (level-triggered: it comes back).
constexpr int MAX_READS_PER_EVENT = 8;
constexpr size_t READ_CHUNK = 64 * 1024;
static_assert(READ_CHUNK <= QOX::CScratchLoan::SIZE, "a read-ahead fits the scratch buffer");

using State = CTcpLinkState;

bool CopyAddress(const sockaddr_storage& stored, socklen_t storedLength, sockaddr* address, int* length)
{
    if (!address || !length || storedLength == 0 || *length < static_cast<int>(storedLength))
        return false;
    std::memcpy(address, &stored, storedLength);
    *length = static_cast<int>(storedLength);
    return true;
}
} // namespace

QOX::CRefCountPtr<CTcpDataLayer> CTcpDataLayer::Create(int socket, CEventLoop& loop)
{
    // The loop starts watching the socket once somebody listens (AddNotification) or bytes wait
    // to be sent; a link that a reader takes over may never need the loop at all.
    return QOX::CRefCountPtr<CTcpDataLayer>(new CTcpDataLayer(socket, loop, EState::Open));
}

QOX::CRefCountPtr<CTcpDataLayer> CTcpDataLayer::CreateConnecting(int socket, const sockaddr* destination,
                                                                 socklen_t destinationLength, CEventLoop& loop,
                                                                 int timeoutMs)
{
    if (!destination || destinationLength == 0 || destinationLength > sizeof(sockaddr_storage)) {
        CSocketUtils::CloseSocket(socket);
        return {};
    }
    auto* link = new CTcpDataLayer(socket, loop, EState::Connecting);
    std::memcpy(&link->m_destination, destination, destinationLength);
    link->m_destinationLength = destinationLength;
    // The loop watches the attempt (and keeps its time) only once a sink listens without a
    // reader: a reader takes the connect over (CompleteConnect) and keeps its own time.
    link->m_connectTimeoutMs = timeoutMs;
    return QOX::CRefCountPtr<CTcpDataLayer>(link);
}

CTcpDataLayer::CTcpDataLayer(int socket, CEventLoop& loop, EState state) : m_loop(loop), m_socket(socket), m_state(state)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

CTcpDataLayer::~CTcpDataLayer()
{
    CSocketUtils::CloseSocket(m_socket);
}

// ---- the state machine ----

bool CTcpDataLayer::MoveLocked(EEvent event, int error)
{
    const EState from = m_state;
    const EState to = State::Next(from, event, m_halfClose);
    if (to == from)
        return false;
    m_state = to;
    EnterLocked(from, to, error);
    return true;
}

void CTcpDataLayer::EnterLocked(EState from, EState to, int error)
{
    if (State::IsConnecting(from))
        CancelTimerLocked(); // the connect's time limit
    switch (to) {
    case EState::OutputEnded:
        shutdown(m_socket, SHUT_WR);
        break;
    case EState::BothEnded:
        // With nothing left unread, the close that follows at once sends the FIN.
        if (from == EState::InputEndedOutputEnding && !m_received.Empty())
            shutdown(m_socket, SHUT_WR);
        break;
    case EState::Draining:
        if (UnsentLocked() > 0)
            StartTimerLocked(LINGER_MS);
        break;
    case EState::Failed:
        m_failure = error != 0 ? error : EIO;
        // Bytes received before the failure stay readable; nothing more can be written.
        m_unsent.Clear();
        m_sendPipe.Close();
        break;
    case EState::Closed:
        // A drain wrote every byte: FIN, and the socket goes (what the peer still sends is
        // refused with a reset; nobody will read it).
        if (from == EState::Draining && m_socket >= 0)
            shutdown(m_socket, SHUT_WR);
        ReleaseSocketLocked();
        break;
    default:
        break;
    }
}

void CTcpDataLayer::SettleLocked()
{
    for (;;) {
        if (m_received.Empty() && MoveLocked(EEvent::Taken))
            continue;
        if (UnsentLocked() == 0 && MoveLocked(EEvent::QueueWritten))
            continue;
        break;
    }
    UpdateInterestLocked();
}

bool CTcpDataLayer::CloseDueLocked() const
{
    return m_received.Empty() && State::Next(m_state, EEvent::Taken, m_halfClose) != m_state;
}

CTcpDataLayer::EChange CTcpDataLayer::ChangeSinceLocked(EState before) const
{
    const bool closing = m_state != before && State::IsClosing(m_state);
    return closing || CloseDueLocked() ? EChange::Settle : EChange::Nothing;
}

CTcpDataLayer::SEnd CTcpDataLayer::EndLocked(EChange change) const
{
    return SEnd{change, m_reader == EReader::Attached && m_readerThread == std::this_thread::get_id()};
}

// ---- finishing a call, and the loop's steps ----

void CTcpDataLayer::Finish(SEnd end)
{
    if (end.change == EChange::Nothing)
        return;
    // The one place that decides where the consequences are told: inline on the reader's
    // thread (no hop through the loop) or when nobody listens (nobody to tell); by the loop
    // otherwise. A new sink hears the past from the loop, like everything else.
    const bool here = end.change != EChange::SinkAdded && (end.byReader || m_sinks.IsEmpty());
    if (end.change == EChange::Settle && here)
        Advance();
    else if (end.change == EChange::Settle)
        PostStep(&CTcpDataLayer::Advance);
    else if (end.change == EChange::Connected && here)
        NotifyConnected();
    else
        PostStep(&CTcpDataLayer::CatchUp);
}

void CTcpDataLayer::Advance()
{
    bool told = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        SettleLocked();
        told = m_state == EState::Draining || m_state == EState::Closed;
    }
    if (told)
        NotifyClosed();
}

void CTcpDataLayer::CatchUp()
{
    bool connected = false;
    bool data = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        connected = m_destinationLength > 0 && State::IsEstablished(m_state);
        data = !m_received.Empty() || (State::HasInputEnded(m_state) && m_halfClose);
    }
    // Sinks that heard it already take a repeat as nothing new.
    if (connected)
        NotifyConnected();
    if (data)
        NotifyData();
    Advance();
}

void CTcpDataLayer::PostStep(void (CTcpDataLayer::*step)())
{
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_loop.Post([self, step] { (self.GetRawPointer()->*step)(); });
}

// ---- connecting ----

void CTcpDataLayer::EndConnectLocked(int error)
{
    if (error != 0) {
        MoveLocked(EEvent::Fail, error);
        return;
    }
    MoveLocked(EEvent::Connected);
    EndOutputIfDueLocked(); // a ShutdownSend made while connecting
}

bool CTcpDataLayer::AskConnectOutcomeLocked()
{
    // One call instead of a poll and SO_ERROR: connecting again answers "done" (0 or EISCONN),
    // "still under way" (EALREADY) or the attempt's error.
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&m_destination), m_destinationLength) == 0 ||
        errno == EISCONN) {
        EndConnectLocked(0);
        return true;
    }
    if (errno == EALREADY || errno == EINPROGRESS || errno == EINTR)
        return false;
    EndConnectLocked(errno);
    return true;
}

void CTcpDataLayer::CompleteConnect()
{
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!State::IsConnecting(m_state) || !AskConnectOutcomeLocked())
            return; // settled before, or still under way
        UpdateInterestLocked();
        end = EndLocked(State::IsEstablished(m_state) ? EChange::Connected : EChange::Settle);
    }
    Finish(end);
}

bool CTcpDataLayer::EndConnect(int socket, int error)
{
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!State::IsConnecting(m_state) || m_socket >= 0)
            return false;
        if (socket >= 0) {
            m_socket = socket;
            const int on = 1;
            setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        }
        EndConnectLocked(socket >= 0 ? 0 : (error != 0 ? error : ECONNREFUSED));
        UpdateInterestLocked();
        end = EndLocked(State::IsEstablished(m_state) ? EChange::Connected : EChange::Settle);
    }
    Finish(end);
    return true;
}

// ---- reading ----

int CTcpDataLayer::ReceiveData(unsigned char* buffer, int size)
{
    if (!buffer || size <= 0)
        return 0;
    SEnd end;
    int count = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const EState before = m_state;
        count = static_cast<int>(m_received.Take(buffer, static_cast<size_t>(size)));
        if (count == 0 && m_reader == EReader::Attached)
            count = ReadForReaderLocked(buffer, size);
        ResumeReadingLocked();
        const bool ended = m_received.Empty() && !State::IsInputOpen(m_state);
        if (count == 0 && ended && (m_halfClose || m_reader == EReader::Attached))
            count = -1;
        end = EndLocked(ChangeSinceLocked(before));
        // The closure follows once the caller has every byte: a reader that got some reads on
        // and meets the end in a later call.
        if (end.byReader && count > 0)
            end.change = EChange::Nothing;
    }
    Finish(end);
    return count;
}

int CTcpDataLayer::ReadForReaderLocked(unsigned char* buffer, int size)
{
    if (!State::IsInputOpen(m_state) || m_socket < 0)
        return -1;
    for (;;) {
        const ssize_t count = recv(m_socket, buffer, static_cast<size_t>(size), MSG_DONTWAIT);
        if (count > 0)
            return static_cast<int>(count);
        if (count == 0) {
            MoveLocked(EEvent::PeerEnded);
            return -1;
        }
        if (errno == EINTR)
            continue;
        if (CSocketUtils::IsWouldBlock(errno))
            return 0;
        MoveLocked(EEvent::Fail, errno);
        return -1;
    }
}

void CTcpDataLayer::ResumeReadingLocked()
{
    if (!m_readPaused || m_received.Size() > RECEIVE_RESUME)
        return;
    m_readPaused = false;
    UpdateInterestLocked();
}

bool CTcpDataLayer::ReadsAheadLocked() const
{
    return m_socket >= 0 && m_reader != EReader::Attached && State::IsEstablished(m_state) &&
           State::IsInputOpen(m_state);
}

bool CTcpDataLayer::ReadAheadLocked()
{
    const QOX::CScratchLoan scratch;
    bool news = false;
    for (int turn = 0; turn < MAX_READS_PER_EVENT && ReadsAheadLocked(); ++turn) {
        const size_t room = RECEIVE_LIMIT - std::min(m_received.Size(), RECEIVE_LIMIT);
        if (room == 0) {
            m_readPaused = true;
            break;
        }
        const ssize_t count = recv(m_socket, scratch.Get(), std::min(room, READ_CHUNK), MSG_DONTWAIT);
        if (count > 0) {
            m_received.Append(scratch.Get(), static_cast<size_t>(count));
            news = true;
            continue;
        }
        if (count == 0) {
            MoveLocked(EEvent::PeerEnded);
            // A half-closing sink meets the end in ReceiveData, so it is told as for bytes.
            return news || m_halfClose;
        }
        if (errno == EINTR)
            continue;
        if (!CSocketUtils::IsWouldBlock(errno))
            MoveLocked(EEvent::Fail, errno);
        break;
    }
    return news;
}

int CTcpDataLayer::ReceiveInto(int socket, int size)
{
    SEnd end;
    int result = RECEIVE_USE_RECEIVE_DATA;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reader != EReader::Attached || !m_received.Empty() || size <= 0)
            return RECEIVE_USE_RECEIVE_DATA;
        if (!State::IsInputOpen(m_state) || m_socket < 0)
            return RECEIVE_END;
        const EState before = m_state;
        result = SpliceOutLocked(socket, size);
        end = EndLocked(ChangeSinceLocked(before));
    }
    Finish(end);
    return result;
}

int CTcpDataLayer::SpliceOutLocked(int socket, int size)
{
    size_t in = 0;
    switch (m_receivePipe.FillFrom(m_socket, static_cast<size_t>(size), in)) {
    case CSplicePipe::EResult::Moved:
        break;
    case CSplicePipe::EResult::NothingNow:
        return RECEIVE_NOTHING_NOW;
    case CSplicePipe::EResult::End:
        MoveLocked(EEvent::PeerEnded);
        return RECEIVE_END;
    case CSplicePipe::EResult::Failed:
    case CSplicePipe::EResult::Unsupported:
        // Not a socket splice can read, or a failure: ReceiveData's recv tells which.
        return RECEIVE_USE_RECEIVE_DATA;
    }
    size_t out = 0;
    const CSplicePipe::EResult drained = m_receivePipe.DrainTo(socket, out);
    // What the destination would not take stays with the link, as ordinary bytes.
    m_receivePipe.DrainInto(m_received);
    if (drained == CSplicePipe::EResult::Failed)
        return RECEIVE_SOCKET_FAILED;
    return out > 0 ? static_cast<int>(out) : RECEIVE_USE_RECEIVE_DATA;
}

int CTcpDataLayer::AttachReader()
{
    int descriptor = -1;
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reader == EReader::Attached || m_socket < 0 || State::IsClosing(m_state))
            return -1;
        const EState before = m_state;
        m_reader = EReader::Attached;
        m_readerThread = std::this_thread::get_id();
        UpdateInterestLocked();
        descriptor = m_socket;
        end = EndLocked(ChangeSinceLocked(before));
    }
    Finish(end);
    return descriptor;
}

void CTcpDataLayer::DetachReader()
{
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reader != EReader::Attached)
            return;
        const EState before = m_state;
        end = EndLocked(EChange::Nothing); // the reader's, before it leaves
        m_reader = m_sinks.IsEmpty() ? EReader::Nobody : EReader::Loop;
        m_readerThread = std::thread::id();
        // A release that waited for the reader happens now, on its thread: the loop no longer
        // watches the socket once it is due to be released.
        if (m_state == EState::Closed)
            ReleaseSocketLocked();
        else
            UpdateInterestLocked();
        end.change = ChangeSinceLocked(before);
    }
    Finish(end);
}

bool CTcpDataLayer::EnableHalfClose()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_halfClose = true;
    return true;
}

// ---- writing ----

int CTcpDataLayer::SendData(const unsigned char* data, int size)
{
    if (!data || size <= 0)
        return 0;
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!State::IsOutputOpen(m_state))
            return -1;
        // Bytes in the send pipe came first: they join the queue before these.
        m_sendPipe.DrainInto(m_unsent);
        ssize_t sent = 0;
        if (!State::IsConnecting(m_state) && m_unsent.Empty())
            sent = CSocketUtils::SendSome(m_socket, data, static_cast<size_t>(size));
        if (sent >= 0) {
            m_unsent.Append(data + sent, static_cast<size_t>(size) - static_cast<size_t>(sent));
            NoteBacklogLocked();
            UpdateInterestLocked();
        } else {
            MoveLocked(EEvent::Fail, errno);
        }
        if (m_state != EState::Failed)
            return size;
        end = EndLocked(EChange::Settle);
    }
    Finish(end);
    return -1;
}

int CTcpDataLayer::SendFrom(int socket, int size)
{
    SEnd end;
    int taken = SEND_USE_SEND_DATA;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (State::IsConnecting(m_state) || !State::IsOutputOpen(m_state) || size <= 0)
            return SEND_USE_SEND_DATA;
        const EState before = m_state;
        taken = SpliceInLocked(socket, size);
        if (taken <= 0)
            return taken;
        if (m_unsent.Empty())
            DrainSendPipeLocked();
        NoteBacklogLocked();
        UpdateInterestLocked();
        end = EndLocked(ChangeSinceLocked(before));
    }
    Finish(end);
    return taken;
}

int CTcpDataLayer::SpliceInLocked(int socket, int size)
{
    size_t in = 0;
    switch (m_sendPipe.FillFrom(socket, static_cast<size_t>(size), in)) {
    case CSplicePipe::EResult::Moved:
        return static_cast<int>(in);
    case CSplicePipe::EResult::NothingNow:
        // A full pipe has no room: the caller reads the socket itself.
        return m_sendPipe.Room() == 0 ? SEND_USE_SEND_DATA : SEND_NOTHING_NOW;
    case CSplicePipe::EResult::End:
        return SEND_SOCKET_ENDED;
    case CSplicePipe::EResult::Failed:
        return SEND_SOCKET_FAILED;
    case CSplicePipe::EResult::Unsupported:
        break;
    }
    return SEND_USE_SEND_DATA;
}

bool CTcpDataLayer::DrainSendPipeLocked()
{
    size_t out = 0;
    if (m_sendPipe.DrainTo(m_socket, out) != CSplicePipe::EResult::Failed)
        return true;
    MoveLocked(EEvent::Fail, EPIPE);
    return false;
}

bool CTcpDataLayer::ShutdownSend()
{
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (State::IsClosing(m_state))
            return false;
        const EState before = m_state;
        MoveLocked(EEvent::EndOutput);
        EndOutputIfDueLocked();
        end = EndLocked(ChangeSinceLocked(before));
    }
    Finish(end);
    return true;
}

bool CTcpDataLayer::FlushLocked()
{
    if (m_socket < 0 || (!State::IsEstablished(m_state) && m_state != EState::Draining))
        return false;
    if (!m_unsent.Empty()) {
        const ssize_t sent = CSocketUtils::SendSome(m_socket, m_unsent.Front(), m_unsent.Size());
        if (sent < 0) {
            MoveLocked(EEvent::Fail, errno);
            return false;
        }
        m_unsent.Consume(static_cast<size_t>(sent));
    }
    if (m_unsent.Empty() && m_sendPipe.Held() > 0 && !DrainSendPipeLocked())
        return false;
    EndOutputIfDueLocked();
    if (!m_sendOverHigh || UnsentLocked() > SEND_LOW_WATER)
        return false;
    m_sendOverHigh = false;
    return true;
}

void CTcpDataLayer::EndOutputIfDueLocked()
{
    // A FIN that is owed goes once the queue is out. A drain ends in Advance, which tells the sinks.
    if (UnsentLocked() == 0 && m_state != EState::Draining)
        MoveLocked(EEvent::QueueWritten);
}

void CTcpDataLayer::NoteBacklogLocked()
{
    if (UnsentLocked() > SEND_HIGH_WATER)
        m_sendOverHigh = true;
}

void CTcpDataLayer::Disconnect()
{
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const EState before = m_state;
        MoveLocked(EEvent::Disconnect, ECANCELED);
        end = EndLocked(ChangeSinceLocked(before));
    }
    Finish(end);
}

void CTcpDataLayer::Abort()
{
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (State::Next(m_state, EEvent::Fail, m_halfClose) == m_state)
            return;
        if (m_socket >= 0) {
            // The peer learns of the bytes it will never get: a reset, not a FIN.
            const linger reset{1, 0};
            setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        }
        MoveLocked(EEvent::Fail, ECONNABORTED);
        end = EndLocked(EChange::Settle);
    }
    Finish(end);
}

// ---- the socket, the loop and the timer ----

void CTcpDataLayer::OnEvents(uint32_t events)
{
    bool connected = false;
    bool news = false;
    bool drained = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (State::IsConnecting(m_state)) {
            int error = 0;
            socklen_t length = sizeof(error);
            if (getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
                error = errno;
            EndConnectLocked(error);
            connected = State::IsEstablished(m_state);
        }
        if (connected || (events & (EPOLLOUT | EPOLLERR | EPOLLHUP)))
            drained = FlushLocked();
        if (events & (EPOLLIN | EPOLLERR | EPOLLHUP))
            news = ReadAheadLocked();
        UpdateInterestLocked();
    }
    if (connected)
        NotifyConnected();
    if (news)
        NotifyData();
    if (drained)
        NotifyDrained();
    Advance();
}

void CTcpDataLayer::UpdateInterestLocked()
{
    if (m_socket < 0 || m_state == EState::Failed || m_state == EState::Closed)
        return;
    const uint32_t wanted = WantedEventsLocked();
    // The loop watches a connect for as long as it may take.
    if (State::IsConnecting(m_state) && wanted != 0 && m_timer == 0)
        StartTimerLocked(m_connectTimeoutMs);
    if (wanted == m_interest)
        return;
    // A socket with nothing wanted leaves the loop altogether: epoll would report a hang-up
    // again and again even without interest.
    if (wanted == 0) {
        m_loop.Remove(m_token, m_socket);
        m_token = 0;
        m_interest = 0;
        return;
    }
    if (m_token == 0) {
        m_token = m_loop.Add(m_socket, wanted, QOX::CRefCountPtr<IEventHandler>(this));
        if (m_token == 0) {
            // Without the loop nothing could be read or flushed: the link is broken.
            MoveLocked(EEvent::Fail, ENOMEM);
            return;
        }
    } else {
        m_loop.Modify(m_token, m_socket, wanted);
    }
    m_interest = wanted;
}

uint32_t CTcpDataLayer::WantedEventsLocked() const
{
    // A connect is the loop's to watch only for a sink without a reader.
    if (State::IsConnecting(m_state))
        return m_reader == EReader::Loop ? static_cast<uint32_t>(EPOLLOUT) : 0;
    uint32_t wanted = 0;
    if (m_reader == EReader::Loop && ReadsAheadLocked() && !m_readPaused)
        wanted |= EPOLLIN;
    if (UnsentLocked() > 0)
        wanted |= EPOLLOUT;
    return wanted;
}

void CTcpDataLayer::ReleaseSocketLocked()
{
    CancelTimerLocked();
    // Callers hold their own reference, so the loop's may go here.
    if (m_token != 0) {
        m_loop.Remove(m_token, m_socket);
        m_token = 0;
        m_interest = 0;
    }
    // A reader may be polling the descriptor: it must not be closed (and its number reused)
    // under it. DetachReader finishes the release.
    if (m_reader == EReader::Attached || m_socket < 0)
        return;
    CSocketUtils::CloseSocket(m_socket);
    m_socket = -1;
    m_receivePipe.Close();
    m_sendPipe.Close();
}

void CTcpDataLayer::StartTimerLocked(int milliseconds)
{
    CancelTimerLocked();
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_timer = m_loop.PostDelayed(milliseconds, [self] { self->OnTimeLimit(); });
}

void CTcpDataLayer::CancelTimerLocked()
{
    if (m_timer != 0)
        m_loop.CancelDelayed(m_timer);
    m_timer = 0;
}

void CTcpDataLayer::OnTimeLimit()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_timer = 0;
        // A connect or a drain that took too long.
        if (State::IsConnecting(m_state) || m_state == EState::Draining)
            MoveLocked(EEvent::Fail, ETIMEDOUT);
    }
    Advance();
}

// ---- queries and sinks ----

void CTcpDataLayer::LearnAddressesLocked() const
{
    if (m_socket < 0)
        return;
    if (m_localLength == 0) {
        m_localLength = sizeof(m_local);
        if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&m_local), &m_localLength) != 0)
            m_localLength = 0;
    }
    if (m_remoteLength == 0) {
        m_remoteLength = sizeof(m_remote);
        if (getpeername(m_socket, reinterpret_cast<sockaddr*>(&m_remote), &m_remoteLength) != 0)
            m_remoteLength = 0;
    }
}

bool CTcpDataLayer::GetLocalAddress(sockaddr* address, int* length) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    LearnAddressesLocked();
    return CopyAddress(m_local, m_localLength, address, length);
}

bool CTcpDataLayer::GetRemoteAddress(sockaddr* address, int* length) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    LearnAddressesLocked();
    return CopyAddress(m_remote, m_remoteLength, address, length);
}

bool CTcpDataLayer::IsConnected() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return State::IsConnected(m_state);
}

bool CTcpDataLayer::IsConnecting() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return State::IsConnecting(m_state);
}

int CTcpDataLayer::GetFailure() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_failure;
}

unsigned int CTcpDataLayer::GetUndeliveredBytes() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    unsigned int undelivered = static_cast<unsigned int>(UnsentLocked());
#ifdef SIOCOUTQ
    // What the socket holds that the peer has not acknowledged: a peer whose window stays shut.
    int queued = 0;
    if (m_socket >= 0 && ioctl(m_socket, SIOCOUTQ, &queued) == 0 && queued > 0)
        undelivered += static_cast<unsigned int>(queued);
#endif
    return undelivered;
}

unsigned int CTcpDataLayer::GetReceiveBacklog() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<unsigned int>(m_received.Size());
}

unsigned int CTcpDataLayer::GetSendBacklog() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<unsigned int>(UnsentLocked());
}

bool CTcpDataLayer::AddNotification(IZRTDataLayerNotification* sink)
{
    if (!sink || !m_sinks.Add(sink))
        return false;
    SEnd end;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reader == EReader::Nobody)
            m_reader = EReader::Loop;
        UpdateInterestLocked();
        const bool past = (m_destinationLength > 0 && !State::IsConnecting(m_state)) || !m_received.Empty() ||
                          !State::IsInputOpen(m_state);
        end.change = past ? EChange::SinkAdded : EChange::Nothing;
    }
    Finish(end);
    return true;
}

bool CTcpDataLayer::RemoveNotification(IZRTDataLayerNotification* sink)
{
    if (!sink || !m_sinks.Remove(sink))
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    // Nobody listens any more: the loop stops reading ahead.
    if (m_reader == EReader::Loop && m_sinks.IsEmpty()) {
        m_reader = EReader::Nobody;
        UpdateInterestLocked();
    }
    return true;
}

void CTcpDataLayer::NotifyData()
{
    m_sinks.CallAll([this](IZRTDataLayerNotification* sink) { sink->OnDataReceived(*this); });
}

void CTcpDataLayer::NotifyDrained()
{
    m_sinks.CallAll([this](IZRTDataLayerNotification* sink) { sink->OnSendDrained(*this); });
}

void CTcpDataLayer::NotifyConnected()
{
    m_sinks.CallAll([this](IZRTDataLayerNotification* sink) { sink->OnLinkConnected(*this); });
}

void CTcpDataLayer::NotifyClosed()
{
    for (IZRTDataLayerNotification* sink : m_sinks.Snapshot()) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_toldClosed.insert(sink).second)
                continue;
        }
        m_sinks.Call(sink, [this](IZRTDataLayerNotification* target) { target->OnConnectionClosed(*this); });
    }
}

} // namespace Host
} // namespace ZRT
