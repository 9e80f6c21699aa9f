#include "host/CTcpDataLayer.h"

#if defined(__linux__)
#include <linux/sockios.h> // SIOCOUTQ
#endif
#include <sys/ioctl.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Host {

namespace {
// Reads per readiness event before the loop turns to other sockets (level-triggered: it comes back).
constexpr int MAX_READS_PER_EVENT = 8;
constexpr size_t READ_CHUNK = 64 * 1024;

bool CopyAddress(const sockaddr_storage& stored, socklen_t storedLength, sockaddr* address, int* length)
{
    if (!address || !length || storedLength == 0 || *length < static_cast<int>(storedLength))
        return false;
    std::memcpy(address, &stored, storedLength);
    *length = static_cast<int>(storedLength);
    return true;
}

bool WouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}
} // namespace

QOX::CRefCountPtr<CTcpDataLayer> CTcpDataLayer::Create(int socket, CEventLoop& loop)
{
    // The loop starts watching the socket once somebody listens (AddNotification) or bytes wait
    // to be sent; a link that a reader takes over may never need the loop at all.
    return QOX::CRefCountPtr<CTcpDataLayer>(new CTcpDataLayer(socket, loop, EPhase::Open));
}

QOX::CRefCountPtr<CTcpDataLayer> CTcpDataLayer::CreateConnecting(int socket, const sockaddr* destination,
                                                                 socklen_t destinationLength, CEventLoop& loop,
                                                                 int timeoutMs)
{
    QOX::CRefCountPtr<CTcpDataLayer> link(new CTcpDataLayer(socket, loop, EPhase::Connecting));
    if (destination && destinationLength <= sizeof(link->m_destination)) {
        std::memcpy(&link->m_destination, destination, destinationLength);
        link->m_destinationLength = destinationLength;
    }
    // The loop watches the attempt (and keeps its time) only once a sink listens without a
    // reader: a reader takes the connect over (CompleteConnect) and keeps its own time.
    link->m_beganConnecting = true;
    link->m_connectTimeoutMs = timeoutMs;
    return link;
}

CTcpDataLayer::CTcpDataLayer(int socket, CEventLoop& loop, EPhase phase) : m_loop(loop), m_socket(socket), m_phase(phase)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

CTcpDataLayer::~CTcpDataLayer()
{
    CSocketUtils::CloseSocket(m_socket);
}

// ---- reading ----

int CTcpDataLayer::ReceiveData(unsigned char* buffer, int size)
{
    if (!buffer || size <= 0)
        return 0;
    bool due = false;
    bool reader = false;
    int count = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        count = static_cast<int>(m_received.Take(buffer, static_cast<size_t>(size)));
        if (count == 0 && m_reader == EReader::Attached)
            count = ReadForReaderLocked(buffer, size);
        if (m_readPaused && m_received.Size() <= RECEIVE_RESUME) {
            m_readPaused = false;
            UpdateInterestLocked();
        }
        const bool ended = m_received.Empty() && (m_inputEnded || m_failed);
        if (count == 0 && ended && (m_halfClose || m_reader == EReader::Attached))
            count = -1;
        due = m_phase == EPhase::Open && CloseDueLocked();
        reader = m_reader == EReader::Attached;
    }
    // The closure follows once the caller has every byte. A reader's call that returned
    // nothing settles it here, with no hop through the loop (a reader reads on until -1). A
    // sink's draining inside OnDataReceived is followed by the loop's own Advance; from
    // elsewhere the loop is asked.
    if (due && reader && count <= 0)
        Advance();
    else if (due && !reader && !m_loop.IsLoopThread())
        PostAdvance();
    return count;
}

int CTcpDataLayer::ReadForReaderLocked(unsigned char* buffer, int size)
{
    if (m_inputEnded || m_failed || m_socket < 0)
        return -1;
    for (;;) {
        const ssize_t count = recv(m_socket, buffer, static_cast<size_t>(size), MSG_DONTWAIT);
        if (count > 0)
            return static_cast<int>(count);
        if (count == 0) {
            m_inputEnded = true;
            return -1;
        }
        if (errno == EINTR)
            continue;
        if (WouldBlock(errno))
            return 0;
        FailLocked(errno);
        return -1;
    }
}

void CTcpDataLayer::ReadSocket(bool& gotData)
{
    thread_local std::vector<unsigned char> scratch(READ_CHUNK);
    for (int turn = 0; turn < MAX_READS_PER_EVENT; ++turn) {
        if (m_socket < 0 || m_phase != EPhase::Open || m_inputEnded || m_failed || m_reader != EReader::Loop)
            return;
        const size_t room = RECEIVE_LIMIT - std::min(m_received.Size(), RECEIVE_LIMIT);
        if (room == 0) {
            m_readPaused = true;
            return;
        }
        const ssize_t count = recv(m_socket, scratch.data(), std::min(room, READ_CHUNK), MSG_DONTWAIT);
        if (count > 0) {
            m_received.Append(scratch.data(), static_cast<size_t>(count));
            gotData = true;
            continue;
        }
        if (count == 0) {
            m_inputEnded = true;
            // A half-closing sink meets the end in ReceiveData, so it is told as for bytes.
            gotData = gotData || m_halfClose;
            return;
        }
        if (errno == EINTR)
            continue;
        if (!WouldBlock(errno))
            FailLocked(errno);
        return;
    }
}

int CTcpDataLayer::ReceiveInto(int socket, int size)
{
    bool advance = false;
    int result = RECEIVE_USE_RECEIVE_DATA;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reader != EReader::Attached || !m_received.Empty() || size <= 0)
            return RECEIVE_USE_RECEIVE_DATA;
        if (m_inputEnded || m_failed || m_socket < 0)
            return RECEIVE_END;
        size_t in = 0;
        const CSplicePipe::EResult filled = m_receivePipe.FillFrom(m_socket, static_cast<size_t>(size), in);
        if (filled == CSplicePipe::EResult::NothingNow)
            return RECEIVE_NOTHING_NOW;
        if (filled == CSplicePipe::EResult::End) {
            m_inputEnded = true;
            result = RECEIVE_END;
        } else if (filled != CSplicePipe::EResult::Moved) {
            // Not a socket splice can read, or a failure: ReceiveData's recv tells which.
            return RECEIVE_USE_RECEIVE_DATA;
        } else {
            size_t out = 0;
            const CSplicePipe::EResult drained = m_receivePipe.DrainTo(socket, out);
            // What the destination would not take stays with the link, as ordinary bytes.
            m_receivePipe.DrainInto(m_received);
            if (drained == CSplicePipe::EResult::Failed)
                result = RECEIVE_SOCKET_FAILED;
            else
                result = out > 0 ? static_cast<int>(out) : RECEIVE_USE_RECEIVE_DATA;
        }
        advance = m_phase == EPhase::Open && CloseDueLocked();
    }
    if (advance)
        Advance();
    return result;
}

int CTcpDataLayer::AttachReader()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_reader == EReader::Attached || m_socket < 0 || m_phase == EPhase::Draining || m_phase == EPhase::Closed)
        return -1;
    m_reader = EReader::Attached;
    UpdateInterestLocked();
    return m_socket;
}

void CTcpDataLayer::DetachReader()
{
    bool advance = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reader != EReader::Attached)
            return;
        m_reader = EReader::Loop;
        // A release that waited for the reader happens now, on its thread: the loop no longer
        // watches the socket once it is due to be released.
        if (m_phase == EPhase::Closed)
            ReleaseSocketLocked();
        else
            UpdateInterestLocked();
        advance = m_phase == EPhase::Open && CloseDueLocked();
    }
    if (advance)
        Advance();
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
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool usable = m_phase == EPhase::Connecting || m_phase == EPhase::Open;
        if (!usable || m_failed || m_output != EOutput::Open)
            return -1;
        // Bytes in the send pipe came first: they join the queue before these.
        m_sendPipe.DrainInto(m_unsent);
        size_t offset = 0;
        while (m_phase == EPhase::Open && m_unsent.Empty() && offset < static_cast<size_t>(size)) {
            const ssize_t sent = send(m_socket, data + offset, static_cast<size_t>(size) - offset,
                                      MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent > 0) {
                offset += static_cast<size_t>(sent);
                continue;
            }
            if (sent < 0 && errno == EINTR)
                continue;
            if (sent < 0 && !WouldBlock(errno))
                FailLocked(errno);
            break;
        }
        if (!m_failed) {
            m_unsent.Append(data + offset, static_cast<size_t>(size) - offset);
            if (UnsentLocked() > SEND_HIGH_WATER)
                m_sendOverHigh = true;
            UpdateInterestLocked();
            return size;
        }
    }
    PostAdvance();
    return -1;
}

int CTcpDataLayer::SendFrom(int socket, int size)
{
    bool failed = false;
    int taken = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_phase != EPhase::Open || m_failed || m_output != EOutput::Open || size <= 0)
            return SEND_USE_SEND_DATA;
        size_t in = 0;
        switch (m_sendPipe.FillFrom(socket, static_cast<size_t>(size), in)) {
        case CSplicePipe::EResult::Moved:
            break;
        case CSplicePipe::EResult::NothingNow:
            // A full pipe has no room: the caller reads the socket itself.
            return m_sendPipe.Room() == 0 ? SEND_USE_SEND_DATA : SEND_NOTHING_NOW;
        case CSplicePipe::EResult::End:
            return SEND_SOCKET_ENDED;
        case CSplicePipe::EResult::Failed:
            return SEND_SOCKET_FAILED;
        case CSplicePipe::EResult::Unsupported:
            return SEND_USE_SEND_DATA;
        }
        taken = static_cast<int>(in);
        if (m_unsent.Empty()) {
            size_t out = 0;
            if (m_sendPipe.DrainTo(m_socket, out) == CSplicePipe::EResult::Failed)
                FailLocked(EPIPE);
        }
        if (UnsentLocked() > SEND_HIGH_WATER)
            m_sendOverHigh = true;
        UpdateInterestLocked();
        failed = m_failed;
    }
    if (failed)
        PostAdvance();
    return taken;
}

bool CTcpDataLayer::ShutdownSend()
{
    bool advance = false;
    bool inlineAdvance = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_failed || (m_phase != EPhase::Connecting && m_phase != EPhase::Open))
            return false;
        if (m_output == EOutput::Open)
            m_output = EOutput::Ending;
        EndOutputIfDueLocked();
        advance = m_phase == EPhase::Open && CloseDueLocked();
        // From the reader's thread the closure is settled here; otherwise the loop does it.
        inlineAdvance = m_reader == EReader::Attached;
    }
    if (advance && inlineAdvance)
        Advance();
    else if (advance)
        PostAdvance();
    return true;
}

bool CTcpDataLayer::FlushLocked()
{
    if (m_socket < 0 || m_failed || m_phase == EPhase::Connecting)
        return false;
    while (!m_unsent.Empty()) {
        const ssize_t sent = send(m_socket, m_unsent.Front(), m_unsent.Size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            m_unsent.Consume(static_cast<size_t>(sent));
            continue;
        }
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && WouldBlock(errno))
            break;
        FailLocked(errno);
        return false;
    }
    if (m_unsent.Empty() && m_sendPipe.Held() > 0) {
        size_t out = 0;
        if (m_sendPipe.DrainTo(m_socket, out) == CSplicePipe::EResult::Failed) {
            FailLocked(EPIPE);
            return false;
        }
    }
    EndOutputIfDueLocked();
    if (!m_sendOverHigh || UnsentLocked() > SEND_LOW_WATER)
        return false;
    m_sendOverHigh = false;
    return true;
}

void CTcpDataLayer::EndOutputIfDueLocked()
{
    if (m_output != EOutput::Ending || m_phase != EPhase::Open || m_socket < 0 || UnsentLocked() > 0)
        return;
    // When the peer has finished too and left nothing unread, the close that follows at once
    // sends the FIN: no call of its own.
    if (!m_inputEnded || !m_received.Empty())
        shutdown(m_socket, SHUT_WR);
    m_output = EOutput::Ended;
}

// ---- state ----

void CTcpDataLayer::FailLocked(int error)
{
    if (!m_failed)
        m_failure = error != 0 ? error : EIO;
    m_failed = true;
    m_unsent.Clear();
    m_sendPipe.Close();
    // Bytes received before the failure stay readable; nothing more can be written.
    m_phase = EPhase::Closed;
}

bool CTcpDataLayer::CloseDueLocked() const
{
    if (m_failed)
        return true;
    if (!m_inputEnded || !m_received.Empty())
        return false;
    return !m_halfClose || m_output == EOutput::Ended;
}

void CTcpDataLayer::Advance()
{
    bool report = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_phase == EPhase::Open && CloseDueLocked())
            m_phase = EPhase::Draining;
        if (m_phase == EPhase::Draining) {
            if (UnsentLocked() == 0) {
                // Every byte is out: FIN, and the socket goes (what the peer still sends is
                // refused with a reset; nobody will read it).
                if (m_output != EOutput::Ended && m_socket >= 0)
                    shutdown(m_socket, SHUT_WR);
                m_output = EOutput::Ended;
                m_phase = EPhase::Closed;
            } else if (m_timer == 0) {
                StartLingerTimerLocked();
            }
        }
        if (m_phase == EPhase::Closed)
            ReleaseSocketLocked();
        else
            UpdateInterestLocked();
        report = m_phase == EPhase::Draining || m_phase == EPhase::Closed;
    }
    if (report)
        NotifyClosed();
}

void CTcpDataLayer::StartConnectTimerLocked()
{
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_timer = m_loop.PostDelayed(m_connectTimeoutMs, [self] {
        {
            std::lock_guard<std::mutex> held(self->m_mutex);
            self->m_timer = 0;
            if (self->m_phase == EPhase::Connecting)
                self->FailLocked(ETIMEDOUT);
        }
        self->Advance();
    });
}

void CTcpDataLayer::StartLingerTimerLocked()
{
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_timer = m_loop.PostDelayed(LINGER_MS, [self] {
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_timer = 0;
            if (self->m_phase == EPhase::Draining)
                self->FailLocked(ETIMEDOUT);
        }
        self->Advance();
    });
}

void CTcpDataLayer::CancelTimersLocked()
{
    if (m_timer != 0)
        m_loop.CancelDelayed(m_timer);
    m_timer = 0;
}

void CTcpDataLayer::ReleaseSocketLocked()
{
    CancelTimersLocked();
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

void CTcpDataLayer::UpdateInterestLocked()
{
    if (m_socket < 0 || m_phase == EPhase::Closed)
        return;
    uint32_t wanted = 0;
    if (m_phase == EPhase::Connecting) {
        if (m_reader == EReader::Attached || !m_sinkAdded)
            wanted = 0;
        else
            wanted = EPOLLOUT;
        if (wanted != 0 && m_timer == 0)
            StartConnectTimerLocked();
    } else {
        if (m_phase == EPhase::Open && m_reader == EReader::Loop && m_sinkAdded && !m_inputEnded && !m_failed &&
            !m_readPaused)
            wanted |= EPOLLIN;
        if (UnsentLocked() > 0 && !m_failed)
            wanted |= EPOLLOUT;
    }
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
            FailLocked(ENOMEM);
            return;
        }
    } else {
        m_loop.Modify(m_token, m_socket, wanted);
    }
    m_interest = wanted;
}

void CTcpDataLayer::FinishConnectLocked()
{
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        FailLocked(error != 0 ? error : errno);
        return;
    }
    CancelTimersLocked();
    m_phase = EPhase::Open;
}

bool CTcpDataLayer::ConnectOutcomeLocked()
{
    if (m_destinationLength == 0) {
        pollfd entry{m_socket, POLLOUT, 0};
        if (poll(&entry, 1, 0) <= 0)
            return false;
        FinishConnectLocked();
        return true;
    }
    // One call instead of a poll and SO_ERROR: connecting again answers "done" (0 or EISCONN),
    // "still under way" (EALREADY) or the attempt's error.
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&m_destination), m_destinationLength) == 0 ||
        errno == EISCONN) {
        CancelTimersLocked();
        m_phase = EPhase::Open;
        return true;
    }
    if (errno == EALREADY || errno == EINPROGRESS || errno == EINTR)
        return false;
    FailLocked(errno);
    return true;
}

void CTcpDataLayer::OnEvents(uint32_t events)
{
    bool connected = false;
    bool gotData = false;
    bool drained = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_phase == EPhase::Connecting) {
            FinishConnectLocked();
            connected = m_phase == EPhase::Open;
        }
        const bool trouble = (events & (EPOLLERR | EPOLLHUP)) != 0;
        if ((m_phase == EPhase::Open || m_phase == EPhase::Draining) && (connected || trouble || (events & EPOLLOUT)))
            drained = FlushLocked();
        if (m_phase == EPhase::Open && (events & (EPOLLIN | EPOLLERR | EPOLLHUP)))
            ReadSocket(gotData);
        UpdateInterestLocked();
    }
    if (connected)
        NotifyConnected();
    if (gotData)
        NotifyData();
    if (drained)
        NotifyDrained();
    Advance();
}

void CTcpDataLayer::PostAdvance()
{
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_loop.Post([self] { self->Advance(); });
}

void CTcpDataLayer::Disconnect()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_phase == EPhase::Connecting)
            FailLocked(ECANCELED);
        else if (m_phase == EPhase::Open)
            m_phase = EPhase::Draining;
        else
            return;
        // Nothing left to write and nobody to tell: the socket goes now, on the caller's thread.
        if (m_sinks.IsEmpty() && UnsentLocked() == 0 && m_reader == EReader::Loop) {
            if (m_phase == EPhase::Draining && m_output != EOutput::Ended && m_socket >= 0)
                shutdown(m_socket, SHUT_WR);
            m_output = EOutput::Ended;
            m_phase = EPhase::Closed;
            ReleaseSocketLocked();
            return;
        }
    }
    PostAdvance();
}

int CTcpDataLayer::GetFailure() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_failed ? m_failure : 0;
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

void CTcpDataLayer::Abort()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_phase == EPhase::Closed)
            return;
        if (m_socket >= 0) {
            // The peer learns of the bytes it will never get: a reset, not a FIN.
            const linger reset{1, 0};
            setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        }
        FailLocked(ECONNABORTED);
    }
    PostAdvance();
}

// ---- queries and sinks ----

bool CTcpDataLayer::GetLocalAddress(sockaddr* address, int* length) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_addressesKnown && m_socket >= 0) {
        m_addressesKnown = true;
        m_localLength = sizeof(m_local);
        if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&m_local), &m_localLength) != 0)
            m_localLength = 0;
        m_remoteLength = sizeof(m_remote);
        if (getpeername(m_socket, reinterpret_cast<sockaddr*>(&m_remote), &m_remoteLength) != 0)
            m_remoteLength = 0;
    }
    return CopyAddress(m_local, m_localLength, address, length);
}

bool CTcpDataLayer::GetRemoteAddress(sockaddr* address, int* length) const
{
    sockaddr_storage ignored{};
    int ignoredLength = sizeof(ignored);
    GetLocalAddress(reinterpret_cast<sockaddr*>(&ignored), &ignoredLength); // learns both once
    std::lock_guard<std::mutex> lock(m_mutex);
    return CopyAddress(m_remote, m_remoteLength, address, length);
}

bool CTcpDataLayer::IsConnected() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_phase == EPhase::Open && !m_failed && !m_inputEnded;
}

bool CTcpDataLayer::IsConnecting() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_phase == EPhase::Connecting;
}

void CTcpDataLayer::CompleteConnect()
{
    bool connected = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_phase != EPhase::Connecting)
            return;
        if (!ConnectOutcomeLocked())
            return; // still under way
        connected = m_phase == EPhase::Open;
        UpdateInterestLocked();
    }
    if (connected)
        NotifyConnected();
    else
        Advance();
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
    bool catchUp = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sinkAdded = true;
        UpdateInterestLocked();
        catchUp = (m_beganConnecting && m_phase != EPhase::Connecting) || !m_received.Empty() || m_inputEnded ||
                  m_failed || m_phase == EPhase::Draining || m_phase == EPhase::Closed;
    }
    if (!catchUp)
        return true;
    // What happened before the sink registered is told from the loop, like everything else;
    // sinks that heard it already take a repeat as nothing new.
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_loop.Post([self] {
        bool connected = false;
        bool data = false;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            connected = self->m_beganConnecting && self->m_phase == EPhase::Open;
            data = !self->m_received.Empty() || (self->m_inputEnded && self->m_halfClose);
        }
        if (connected)
            self->NotifyConnected();
        if (data)
            self->NotifyData();
        self->Advance();
    });
    return true;
}

bool CTcpDataLayer::RemoveNotification(IZRTDataLayerNotification* sink)
{
    return sink && m_sinks.Remove(sink);
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
