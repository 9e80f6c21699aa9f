#include "host/CTcpDataLayer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <fcntl.h>
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
} // namespace

QOX::CRefCountPtr<CTcpDataLayer> CTcpDataLayer::Create(int socket, CEventLoop& loop)
{
    // The loop starts watching the socket once somebody listens (AddNotification) or bytes wait
    // to be sent; a link that a reader takes over may never need the loop at all.
    return QOX::CRefCountPtr<CTcpDataLayer>(new CTcpDataLayer(socket, loop));
}

CTcpDataLayer::CTcpDataLayer(int socket, CEventLoop& loop) : m_loop(loop), m_socket(socket)
{
    CSocketUtils::SetSocketBlocking(socket, false);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

CTcpDataLayer::~CTcpDataLayer()
{
    CSocketUtils::CloseSocket(m_socket);
    CSocketUtils::CloseSocket(m_pipe[0]);
    CSocketUtils::CloseSocket(m_pipe[1]);
    CSocketUtils::CloseSocket(m_sendPipe[0]);
    CSocketUtils::CloseSocket(m_sendPipe[1]);
}

int CTcpDataLayer::ReceiveData(unsigned char* buffer, int size)
{
    if (!buffer || size <= 0)
        return 0;
    bool postClose = false;
    int count = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        count = static_cast<int>(m_received.Take(buffer, static_cast<size_t>(size)));
        if (count == 0 && m_readerAttached)
            count = ReadForReaderLocked(buffer, size);
        if (m_readPaused && m_received.Size() <= RECEIVE_RESUME) {
            m_readPaused = false;
            UpdateInterestLocked();
        }
        // An attached reader reports the end by detaching (see DetachReader).
        if (m_received.Empty() && (m_eofSeen || m_failed) && !m_closeReported && !m_closePosted &&
            !m_readerAttached) {
            m_closePosted = true;
            postClose = true;
        }
    }
    if (postClose)
        PostAdvanceClose();
    return count;
}

int CTcpDataLayer::ReadForReaderLocked(unsigned char* buffer, int size)
{
    if (m_eofSeen || m_failed || m_closeReported || m_socket < 0)
        return -1;
    // The loop's bytes are stored first (and announced with OnDataReceived); until then
    // reading on would overtake them.
    if (m_loopReading)
        return 0;
    for (;;) {
        const ssize_t count = recv(m_socket, buffer, static_cast<size_t>(size), MSG_DONTWAIT);
        if (count > 0)
            return static_cast<int>(count);
        if (count == 0) {
            m_eofSeen = true;
            return -1;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        m_failed = true;
        return -1;
    }
}

size_t CTcpDataLayer::MovePipeInto(int pipe, size_t count, CByteQueue& queue)
{
    unsigned char chunk[16 * 1024];
    size_t moved = 0;
    while (moved < count) {
        const ssize_t got = read(pipe, chunk, std::min(count - moved, sizeof(chunk)));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break; // cannot happen: the pipe holds at least `count` bytes
        queue.Append(chunk, static_cast<size_t>(got));
        moved += static_cast<size_t>(got);
    }
    return moved;
}

bool CTcpDataLayer::OpenPipe(int (&fds)[2])
{
#if defined(__linux__)
    if (fds[0] >= 0)
        return true;
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        fds[0] = fds[1] = -1;
        return false;
    }
    // Larger than the default 64 KiB: fewer calls per megabyte. The size is a wish, not a need.
    fcntl(fds[1], F_SETPIPE_SZ, SPLICE_PIPE_SIZE);
    return true;
#else
    (void)fds;
    return false;
#endif
}

bool CTcpDataLayer::OpenPipeLocked()
{
    return OpenPipe(m_pipe);
}

void CTcpDataLayer::DropUnsentLocked()
{
    m_unsent.Clear();
    if (m_piped == 0)
        return;
    // Bytes for a peer that is gone: the pipe is dropped with them.
    CSocketUtils::CloseSocket(m_sendPipe[0]);
    CSocketUtils::CloseSocket(m_sendPipe[1]);
    m_sendPipe[0] = m_sendPipe[1] = -1;
    m_piped = 0;
}

void CTcpDataLayer::UnpipeLocked()
{
    m_piped -= MovePipeInto(m_sendPipe[0], m_piped, m_unsent);
}

void CTcpDataLayer::FlushPipeLocked()
{
#if defined(__linux__)
    while (m_piped > 0 && m_unsent.Empty() && m_socket >= 0 && !m_failed) {
        const ssize_t moved = splice(m_sendPipe[0], nullptr, m_socket, nullptr, m_piped,
                                     SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (moved > 0) {
            m_piped -= static_cast<size_t>(moved);
            continue;
        }
        if (moved < 0 && errno == EINTR)
            continue;
        if (moved < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        m_failed = true;
        DropUnsentLocked();
    }
#endif
}

int CTcpDataLayer::SendFrom(int socket, int size)
{
#if defined(__linux__)
    bool failed = false;
    int taken = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_socket < 0 || m_failed || m_disconnectRequested || m_closeReported || m_writeShut || size <= 0)
            return SEND_USE_SEND_DATA;
        const size_t room = static_cast<size_t>(SPLICE_PIPE_SIZE) - std::min(m_piped, static_cast<size_t>(SPLICE_PIPE_SIZE));
        if (room == 0 || !OpenPipe(m_sendPipe))
            return SEND_USE_SEND_DATA;
        ssize_t in = 0;
        do {
            in = splice(socket, nullptr, m_sendPipe[1], nullptr, std::min(static_cast<size_t>(size), room),
                        SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        } while (in < 0 && errno == EINTR);
        if (in == 0)
            return SEND_SOCKET_ENDED;
        if (in < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return SEND_NOTHING_NOW;
            if (errno == EINVAL || errno == ENOSYS)
                return SEND_USE_SEND_DATA;
            return SEND_SOCKET_FAILED;
        }
        m_piped += static_cast<size_t>(in);
        taken = static_cast<int>(in);
        FlushPipeLocked();
        if (UnsentLocked() > SEND_HIGH_WATER)
            m_sendOverHigh = true;
        UpdateInterestLocked();
        failed = m_failed;
    }
    // As SendData: the socket itself is only ever closed on the loop's thread.
    if (failed)
        PostAdvanceClose();
    return taken;
#else
    (void)socket;
    (void)size;
    return SEND_USE_SEND_DATA;
#endif
}

void CTcpDataLayer::ReclaimPipedLocked(size_t count)
{
    MovePipeInto(m_pipe[0], count, m_received);
}

int CTcpDataLayer::ReceiveInto(int socket, int size)
{
#if defined(__linux__)
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_readerAttached || !m_received.Empty() || m_loopReading || size <= 0)
        return RECEIVE_USE_RECEIVE_DATA;
    if (m_eofSeen || m_failed || m_closeReported || m_socket < 0)
        return RECEIVE_END;
    if (!OpenPipeLocked())
        return RECEIVE_USE_RECEIVE_DATA;
    ssize_t in = 0;
    do {
        in = splice(m_socket, nullptr, m_pipe[1], nullptr, std::min(size, SPLICE_PIPE_SIZE),
                    SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    } while (in < 0 && errno == EINTR);
    if (in == 0) {
        m_eofSeen = true;
        return RECEIVE_END;
    }
    if (in < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return RECEIVE_NOTHING_NOW;
        // Not a socket splice can read (or a real failure): ReceiveData's recv tells which.
        return RECEIVE_USE_RECEIVE_DATA;
    }
    size_t out = 0;
    int outError = 0;
    while (out < static_cast<size_t>(in)) {
        const ssize_t moved = splice(m_pipe[0], nullptr, socket, nullptr, static_cast<size_t>(in) - out,
                                     SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (moved > 0) {
            out += static_cast<size_t>(moved);
            continue;
        }
        if (moved < 0 && errno == EINTR)
            continue;
        outError = moved < 0 ? errno : EPIPE;
        break;
    }
    if (out < static_cast<size_t>(in))
        ReclaimPipedLocked(static_cast<size_t>(in) - out);
    if (outError != 0 && outError != EAGAIN && outError != EWOULDBLOCK)
        return RECEIVE_SOCKET_FAILED;
    return out > 0 ? static_cast<int>(out) : RECEIVE_USE_RECEIVE_DATA;
#else
    (void)socket;
    (void)size;
    return RECEIVE_USE_RECEIVE_DATA;
#endif
}

int CTcpDataLayer::AttachReader()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_readerAttached || m_socket < 0 || m_closeReported)
        return -1;
    m_readerAttached = true;
    UpdateInterestLocked();
    return m_socket;
}

void CTcpDataLayer::DetachReader()
{
    bool ended = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_readerAttached)
            return;
        m_readerAttached = false;
        if (!m_releaseDeferred) {
            ended = (m_eofSeen || m_failed) && m_received.Empty() && !m_closeReported && !m_closePosted;
            if (!ended)
                UpdateInterestLocked();
        }
    }
    // The reader met the link's end: the closure is reported (and the socket closed) from here,
    // without a hop through the loop. The loop cannot be reading this socket: it never reads
    // after the end was seen.
    if (ended) {
        AdvanceClose();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_releaseDeferred)
            return;
    }
    // Closed on the loop's thread, like every other release.
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_loop.Post([self] {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        if (!self->m_releaseDeferred)
            return;
        self->m_releaseDeferred = false;
        self->ReleaseSocketLocked();
    });
}

int CTcpDataLayer::SendData(const unsigned char* data, int size)
{
    if (!data || size <= 0)
        return 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_socket < 0 || m_failed || m_disconnectRequested || m_closeReported || m_writeShut)
            return -1;
        UnpipeLocked();
        size_t offset = 0;
        while (m_unsent.Empty() && offset < static_cast<size_t>(size)) {
            const ssize_t sent = send(m_socket, data + offset, static_cast<size_t>(size) - offset,
                                      MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent > 0) {
                offset += static_cast<size_t>(sent);
                continue;
            }
            if (sent < 0 && errno == EINTR)
                continue;
            if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
                m_failed = true;
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
    // The socket itself is only ever closed on the loop's thread.
    PostAdvanceClose();
    return -1;
}

// Asked for rarely, so looked up on first use rather than for every link.
void CTcpDataLayer::LearnAddressesLocked() const
{
    if (m_addressesKnown || m_socket < 0)
        return;
    m_addressesKnown = true;
    m_localLength = sizeof(m_local);
    if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&m_local), &m_localLength) != 0)
        m_localLength = 0;
    m_remoteLength = sizeof(m_remote);
    if (getpeername(m_socket, reinterpret_cast<sockaddr*>(&m_remote), &m_remoteLength) != 0)
        m_remoteLength = 0;
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

bool CTcpDataLayer::AddNotification(IZRTDataLayerNotification* sink)
{
    if (!sink || !m_sinks.Add(sink))
        return false;
    bool catchUp = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sinkAdded = true;
        UpdateInterestLocked();
        catchUp = !m_received.Empty() || m_closeReported || m_eofSeen || m_failed;
    }
    if (catchUp) {
        // Bytes or a close that came before the sink registered: tell it too, from the loop.
        QOX::CRefCountPtr<CTcpDataLayer> self(this);
        m_loop.Post([self] {
            bool data = false;
            bool closed = false;
            {
                std::lock_guard<std::mutex> lock(self->m_mutex);
                data = !self->m_received.Empty();
                closed = self->m_closeReported;
            }
            if (data)
                self->NotifyData();
            if (closed)
                self->NotifyClosed();
            else
                self->AdvanceClose();
        });
    }
    return true;
}

bool CTcpDataLayer::RemoveNotification(IZRTDataLayerNotification* sink)
{
    return sink && m_sinks.Remove(sink);
}

bool CTcpDataLayer::IsConnected() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_socket >= 0 && !m_failed && !m_eofSeen && !m_disconnectRequested && !m_closeReported;
}

unsigned int CTcpDataLayer::GetReceiveBacklog() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<unsigned int>(m_received.Size());
}

void CTcpDataLayer::Disconnect()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_disconnectRequested || m_closeReported)
            return;
        m_disconnectRequested = true;
    }
    PostAdvanceClose();
}

unsigned int CTcpDataLayer::GetSendBacklog() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<unsigned int>(UnsentLocked());
}

void CTcpDataLayer::OnEvents(uint32_t events)
{
    const bool trouble = (events & (EPOLLERR | EPOLLHUP)) != 0;
    bool gotData = false;
    if (events & (EPOLLIN | EPOLLERR | EPOLLHUP))
        gotData = ReadSocket();
    bool drained = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (events & (EPOLLOUT | EPOLLERR | EPOLLHUP))
            drained = FlushLocked();
        if (trouble && m_readerAttached) {
            // The reader meets the end on its own descriptor, after the bytes before it; the
            // loop only stops hearing the level-triggered hang-up again and again.
            m_hangUp = true;
            if (m_token != 0) {
                m_loop.Remove(m_token, m_socket);
                m_token = 0;
            }
        } else if (trouble && !(m_interest & EPOLLIN)) {
            // A hang-up while not reading would be reported again and again: the peer is gone.
            m_failed = true;
        }
        if (m_failed) {
            DropUnsentLocked();
            ReleaseSocketLocked();
        } else {
            UpdateInterestLocked();
        }
    }
    if (gotData)
        NotifyData();
    if (drained)
        NotifyDrained();
    AdvanceClose();
}

bool CTcpDataLayer::ReadSocket()
{
    thread_local std::vector<unsigned char> scratch(READ_CHUNK);
    bool gotData = false;
    for (int turn = 0; turn < MAX_READS_PER_EVENT; ++turn) {
        int socket = -1;
        size_t room = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_socket < 0 || m_eofSeen || m_failed || m_readerAttached)
                return gotData;
            // After the close was reported, reading only drains the socket for a clean FIN.
            room = m_closeReported ? READ_CHUNK : RECEIVE_LIMIT - std::min(m_received.Size(), RECEIVE_LIMIT);
            if (room == 0) {
                m_readPaused = true;
                return gotData;
            }
            socket = m_socket;
            m_loopReading = true;
        }
        // Only this thread closes the socket, so it is safe to read it without the lock.
        const ssize_t count = recv(socket, scratch.data(), std::min(room, READ_CHUNK), 0);
        const int error = errno;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_loopReading = false;
        if (count > 0) {
            if (!m_closeReported) {
                m_received.Append(scratch.data(), static_cast<size_t>(count));
                gotData = true;
            }
            continue;
        }
        if (count == 0) {
            m_eofSeen = true;
            return gotData;
        }
        if (error == EINTR)
            continue;
        if (error != EAGAIN && error != EWOULDBLOCK)
            m_failed = true;
        return gotData;
    }
    return gotData;
}

bool CTcpDataLayer::FlushLocked()
{
    while (!m_unsent.Empty() && m_socket >= 0 && !m_failed) {
        const ssize_t sent = send(m_socket, m_unsent.Front(), m_unsent.Size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            m_unsent.Consume(static_cast<size_t>(sent));
            continue;
        }
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        m_failed = true;
        DropUnsentLocked();
    }
    FlushPipeLocked();
    if (m_failed || !m_sendOverHigh || UnsentLocked() > SEND_LOW_WATER)
        return false;
    m_sendOverHigh = false;
    return true;
}

void CTcpDataLayer::UpdateInterestLocked()
{
    if (m_socket < 0 || m_releaseDeferred || (m_hangUp && m_token == 0))
        return;
    uint32_t wanted = 0;
    const bool listened = m_sinkAdded || m_closeReported;
    if (listened && !m_eofSeen && !m_failed && !m_readerAttached && (m_closeReported || !m_readPaused))
        wanted |= EPOLLIN;
    if (UnsentLocked() > 0 && !m_failed)
        wanted |= EPOLLOUT;
    if (m_token == 0) {
        if (wanted == 0)
            return;
        m_interest = wanted;
        m_token = m_loop.Add(m_socket, wanted, QOX::CRefCountPtr<IEventHandler>(this));
        if (m_token == 0) {
            // Without the loop nothing could be read or flushed: the link is broken.
            m_interest = 0;
            m_failed = true;
        }
        return;
    }
    if (wanted == m_interest)
        return;
    m_interest = wanted;
    m_loop.Modify(m_token, m_socket, wanted);
}

void CTcpDataLayer::AdvanceClose()
{
    bool report = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closePosted = false;
        if (m_failed && m_socket >= 0) {
            DropUnsentLocked();
            ReleaseSocketLocked();
        }
        const bool peerDone = (m_eofSeen || m_failed) && m_received.Empty();
        if (!m_closeReported && (m_disconnectRequested || peerDone)) {
            m_closeReported = true;
            m_received.Clear();
            m_readPaused = false;
            report = true;
        }
    }
    if (report)
        NotifyClosed();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_closeReported)
        LingerLocked();
}

void CTcpDataLayer::LingerLocked()
{
    if (m_socket < 0)
        return;
    if (m_failed) {
        ReleaseSocketLocked();
        return;
    }
    if (UnsentLocked() == 0) {
        if (!m_writeShut) {
            shutdown(m_socket, SHUT_WR);
            m_writeShut = true;
        }
        if (m_eofSeen) {
            ReleaseSocketLocked();
            return;
        }
    }
    UpdateInterestLocked();
    if (m_lingerTimer != 0)
        return;
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_lingerTimer = m_loop.PostDelayed(LINGER_MS, [self] {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_lingerTimer = 0;
        self->m_failed = true;
        self->DropUnsentLocked();
        self->ReleaseSocketLocked();
    });
}

void CTcpDataLayer::ReleaseSocketLocked()
{
    // A link that closed early must not stay alive in the loop's timer for the whole linger.
    if (m_lingerTimer != 0) {
        m_loop.CancelDelayed(m_lingerTimer);
        m_lingerTimer = 0;
    }
    // Callers on the loop's thread hold their own reference, so the loop's may go here.
    if (m_token != 0) {
        m_loop.Remove(m_token, m_socket);
        m_token = 0;
    }
    // A reader may be polling the descriptor: it must not be closed (and its number reused)
    // under it.
    if (m_readerAttached) {
        m_releaseDeferred = true;
        return;
    }
    CSocketUtils::CloseSocket(m_socket);
    m_socket = -1;
    m_interest = 0;
}

void CTcpDataLayer::PostAdvanceClose()
{
    QOX::CRefCountPtr<CTcpDataLayer> self(this);
    m_loop.Post([self] { self->AdvanceClose(); });
}

void CTcpDataLayer::NotifyData()
{
    m_sinks.CallAll([this](IZRTDataLayerNotification* sink) { sink->OnDataReceived(*this); });
}

void CTcpDataLayer::NotifyDrained()
{
    m_sinks.CallAll([this](IZRTDataLayerNotification* sink) { sink->OnSendDrained(*this); });
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
