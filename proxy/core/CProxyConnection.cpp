#include "proxy/core/CProxyConnection.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/core/CProxy.h"
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
} // namespace

QOX::CAtomicInt CProxyConnection::ms_connID(0);

CProxyConnection::CProxyConnection(CProxy* proxy) : CThread(false), m_proxy(proxy), m_id(ms_connID.Increment())
{
    if (m_proxy)
        m_proxy->OnConnectionCreated(this);
}

CProxyConnection::~CProxyConnection()
{
    {
        QOX::CLock hold(m_mutex);
        // Only a connection whose thread never ran is still registered here; a running one
        // detached on its own thread.
        if (m_proxy)
            m_proxy->OnConnectionDestroyed(this);
        m_proxy = nullptr;
    }
    delete m_protocol;
    m_protocol = nullptr;
}

bool CProxyConnection::Init(int socket, IZRTMultiPointLayer* multiPointLayer, IDatagramHandler* datagramHandler,
                            IConnectionListener* connectionListener)
{
    m_initialized = false;
    sockaddr_storage peer{};
    socklen_t peerLength = sizeof(peer);
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0 ||
        !m_clientAddress.SetAddress(*reinterpret_cast<sockaddr*>(&peer), peerLength)) {
        CSocketUtils::CloseSocket(socket);
        return false;
    }
    {
        QOX::CLock hold(m_mutex);
        m_clientSocket = socket;
        m_multiPointLayer = multiPointLayer;
        m_datagramHandler = datagramHandler;
        m_connectionListener = connectionListener;
        m_initialized = true;
    }
    CSocketUtils::SetSocketBlocking(socket, false);
    // Relayed segments go out as they come: Nagle would hold a small one back for an ACK.
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    // Last step: once the thread runs it may finish and destroy the object at any moment.
    if (StartThread(false))
        return true;
    QOX::CLock hold(m_mutex);
    m_initialized = false;
    m_clientSocket = -1;
    m_multiPointLayer = nullptr;
    m_datagramHandler = nullptr;
    m_connectionListener = nullptr;
    CSocketUtils::CloseSocket(socket);
    return false;
}

int CProxyConnection::ThreadFunc()
{
    AddRef();
    const int result = CThread::ThreadFunc();
    DetachFromProxy();
    ReleaseRef();
    return result;
}

void CProxyConnection::DetachFromProxy()
{
    QOX::CLock hold(m_mutex);
    if (m_proxy)
        m_proxy->OnConnectionDestroyed(this);
    m_proxy = nullptr;
}

int CProxyConnection::Run()
{
    if (!m_initialized)
        return 0;
    int idlePolls = 0;
    for (;;) {
        if (m_clientDisconnected || m_stopEvent.IsSignalled())
            break;
        DetachHostReader(true);
        const STurn turn = PlanTurn(idlePolls > 0 || m_hostClosed);
        // The stop event is not polled: every stop (Terminate) disconnects the client first,
        // which signals the wake event; the flag is looked at above.
        pollfd fds[3] = {{turn.socket, turn.events, 0},
                         {m_wakeEvent.GetWaitHandle(), POLLIN, 0},
                         {turn.hostSocket, POLLIN, 0}};
        if (poll(fds, 3, turn.timeout) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        // Reset before looking at the state, so a signal after this point wakes the next poll.
        if (fds[1].revents != 0)
            m_wakeEvent.ResetEvent();
        const short ready = fds[0].revents;
        if ((turn.events & POLLOUT) && (ready & (POLLOUT | POLLERR | POLLHUP)))
            FlushClientOutput();
        if ((turn.events & POLLIN) && (ready & (POLLIN | POLLERR | POLLHUP)))
            ReadDataFromClient();
        if (m_clientEnded) {
            PumpHostData();
            if (GetClientBacklog() == 0 && GetHostBacklog() == 0)
                break;
            continue;
        }
        if (!m_protocol)
            continue;
        PumpHostData();
        // A wake-up may stand for bytes the link read before reader mode began, which no
        // readiness of the descriptor announces.
        if (turn.hostSocket >= 0 && (fds[2].revents != 0 || fds[1].revents != 0))
            ReadHostDirect();
        if (LingerOver(idlePolls))
            break;
    }
    if (!m_clientDisconnected)
        DisconnectClient();
    DetachHostReader(false);
    DisconnectHostLink();
    return 0;
}

void CProxyConnection::DetachHostReader(bool onlyWhenClosed)
{
    QOX::CRefCountPtr<IZRTDataLayer> link;
    {
        QOX::CLock hold(m_mutex);
        if (!m_readerLink || (onlyWhenClosed && !m_hostClosed))
            return;
        link = std::move(m_readerLink);
        m_readerFd = -1;
    }
    link->DetachReader();
}

void CProxyConnection::ReadHostDirect()
{
    if (!m_hostReadBuffer)
        m_hostReadBuffer.reset(new unsigned char[HOST_DIRECT_READ_SIZE]);
    for (int turn = 0; turn < HOST_BUFFERS_PER_TURN; ++turn) {
        const int moved = SpliceHostToClient();
        if (moved > 0)
            continue;
        if (moved == IZRTDataLayer::RECEIVE_NOTHING_NOW)
            return;
        if (moved == IZRTDataLayer::RECEIVE_END) {
            DetachHostReader(false);
            return;
        }
        if (moved == IZRTDataLayer::RECEIVE_SOCKET_FAILED) {
            DisconnectClient();
            return;
        }
        if (!CopyHostToHandler())
            return;
    }
}

int CProxyConnection::SpliceHostToClient()
{
    if (!m_spliceHost)
        return IZRTDataLayer::RECEIVE_USE_RECEIVE_DATA;
    // Held across the move: the client socket must not be closed (and its number reused) under it.
    QOX::CLock hold(m_mutex);
    // Queued bytes go first, through the copying road.
    if (m_clientDisconnected || m_clientEnded || !m_readerLink || m_clientSocket < 0 || !m_hostData.IsEmpty() ||
        !m_clientOutput.empty())
        return IZRTDataLayer::RECEIVE_USE_RECEIVE_DATA;
    const int moved = m_readerLink->ReceiveInto(m_clientSocket, HOST_SPLICE_SIZE);
    if (moved == IZRTDataLayer::RECEIVE_END)
        m_hostReadEnded = true;
    return moved;
}

bool CProxyConnection::CopyHostToHandler()
{
    {
        QOX::CLock hold(m_mutex);
        // Bytes the transport queued before reader mode began go first (PumpHostData).
        if (m_clientDisconnected || m_clientEnded || !m_readerLink || !m_hostData.IsEmpty() ||
            m_clientOutputSize > CLIENT_OUTPUT_HIGH_WATER)
            return false;
    }
    // Without the lock: in reader mode nobody else takes bytes from the link, and only this
    // thread changes m_readerLink.
    const int count = m_readerLink->ReceiveData(m_hostReadBuffer.get(), HOST_DIRECT_READ_SIZE);
    if (count < 0) {
        m_hostReadEnded = true;
        // The link reports its closure as the reader leaves; it comes back on this thread.
        DetachHostReader(false);
        return false;
    }
    if (count == 0)
        return false;
    m_protocol->HandleResponse(reinterpret_cast<const char*>(m_hostReadBuffer.get()), count);
    // A full read means a stream in full flow: once the handler relays unchanged, later bytes
    // may skip user space altogether.
    if (count == HOST_DIRECT_READ_SIZE && m_protocol->PassesResponsesThrough())
        m_spliceHost = true;
    return true;
}

CProxyConnection::STurn CProxyConnection::PlanTurn(bool lingering)
{
    STurn turn;
    bool pumpReady = false;
    bool idle = false;
    {
        QOX::CLock hold(m_mutex);
        turn.socket = m_clientSocket;
        if (!m_clientOutput.empty())
            turn.events |= POLLOUT;
        const bool clientRoom = m_clientOutputSize <= CLIENT_OUTPUT_HIGH_WATER;
        const bool linkToPull = m_hostPaused && !m_clientEnded && m_hostData.GetSize() < HOST_DATA_LOW_WATER;
        pumpReady = m_protocol && clientRoom && (!m_hostData.IsEmpty() || linkToPull);
        idle = m_hostData.IsEmpty() && m_clientOutput.empty();
        if (m_readerFd >= 0 && m_protocol && clientRoom && !m_hostClosed && !m_hostReadEnded && !m_clientEnded)
            turn.hostSocket = m_readerFd;
    }
    if (MayReadClient())
        turn.events |= POLLIN;
    if (turn.events == 0)
        turn.socket = -1;
    if (pumpReady)
        turn.timeout = 0;
    else if (lingering && idle)
        turn.timeout = HOST_LINGER_POLL_MS;
    return turn;
}

bool CProxyConnection::MayReadClient()
{
    if (m_clientEnded)
        return false;
    if (!m_protocol)
        return true;
    QOX::CRefCountPtr<IZRTDataLayer> link;
    {
        QOX::CLock hold(m_mutex);
        link = m_hostDataLayer;
    }
    unsigned long long backlog = m_protocol->GetRequestBacklog();
    if (link)
        backlog += link->GetSendBacklog();
    return backlog <= REQUEST_BACKLOG_LIMIT;
}

// Relay fast path for client bytes: the link takes them from the client socket itself. True
// when that was done (or nothing was waiting); false leaves the turn to the ordinary read, which
// also meets the client's end or failure.
bool CProxyConnection::SpliceClientToHost()
{
    if (!m_spliceClient || m_hostClosed || !m_protocol->PassesRequestsThrough())
        return false;
    // Held across the move, as in SpliceHostToClient.
    QOX::CLock hold(m_mutex);
    if (m_clientDisconnected || m_clientSocket < 0 || !m_hostDataLayer)
        return false;
    const int taken = m_hostDataLayer->SendFrom(m_clientSocket, CLIENT_SPLICE_SIZE);
    return taken > 0 || taken == IZRTDataLayer::SEND_NOTHING_NOW;
}

void CProxyConnection::ReadDataFromClient()
{
    if (SpliceClientToHost())
        return;
    char buffer[CLIENT_READ_SIZE];
    ssize_t count = 0;
    int error = 0;
    {
        QOX::CLock hold(m_mutex);
        if (m_clientDisconnected || m_clientSocket < 0)
            return;
        count = recv(m_clientSocket, buffer, sizeof(buffer), 0);
        error = errno;
    }
    if (count < 0 && WouldBlock(error))
        return;
    if (count == 0 && EndClientInput())
        return;
    if (count <= 0) {
        DisconnectClient();
        return;
    }
    if (m_hostClosed)
        return;
    const int length = static_cast<int>(count);
    if (!m_protocol) {
        IConnectionProtocol* protocol = CConnectionProtocolFactory::GetInstance()->CreateProtocol(*this, buffer, length);
        if (!protocol) {
            DisconnectClient();
            return;
        }
        {
            QOX::CLock hold(m_mutex);
            m_protocol = protocol;
            // Disconnected before the handler existed: it is never started, only deleted.
            if (m_clientDisconnected)
                return;
        }
        protocol->Init();
    }
    m_protocol->HandleRequest(buffer, length);
    // A full read means a stream in full flow: while the handler relays unchanged, later
    // bytes may skip user space altogether.
    if (length == CLIENT_READ_SIZE && m_protocol->PassesRequestsThrough())
        m_spliceClient = true;
}

bool CProxyConnection::EndClientInput()
{
    QOX::CLock hold(m_mutex);
    if (m_clientOutput.empty() && m_hostData.IsEmpty())
        return false;
    // What the connection already took from the host still reaches the client; the link is not
    // drained any further.
    m_clientEnded = true;
    m_hostPaused = true;
    return true;
}

void CProxyConnection::FlushClientOutput()
{
    unsigned int before = 0;
    unsigned int after = 0;
    bool failed = false;
    {
        QOX::CLock hold(m_mutex);
        before = m_clientOutputSize;
        failed = !WriteQueuedLocked();
        after = m_clientOutputSize;
    }
    if (failed) {
        DisconnectClient();
        return;
    }
    const bool crossedLow = before >= CLIENT_OUTPUT_LOW_WATER && after < CLIENT_OUTPUT_LOW_WATER;
    if (crossedLow || (before > 0 && after == 0))
        NotifyClientDrained();
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

void CProxyConnection::DropOutputLocked()
{
    m_clientOutput.clear();
    m_clientOutputSize = 0;
}

void CProxyConnection::NotifyClientDrained()
{
    if (m_protocol)
        m_protocol->OnClientDrained();
}

void CProxyConnection::PumpHostData()
{
    for (int turn = 0; turn < HOST_BUFFERS_PER_TURN; ++turn) {
        QOX::CRefCountPtr<CByteBuffer> buffer;
        {
            QOX::CLock hold(m_mutex);
            if (m_clientDisconnected || m_clientOutputSize > CLIENT_OUTPUT_HIGH_WATER)
                break;
            buffer = m_hostData.PopBuffer();
        }
        if (!buffer)
            break;
        m_protocol->HandleResponse(reinterpret_cast<const char*>(buffer->GetData() + buffer->GetOffset()),
                                   static_cast<int>(buffer->GetUnread()));
        CByteBufferList::ReclaimBuffer(buffer);
    }
    ResumeHostLink();
}

void CProxyConnection::ResumeHostLink()
{
    {
        QOX::CLock hold(m_mutex);
        if (!m_hostPaused || m_clientEnded || m_hostData.GetSize() >= HOST_DATA_LOW_WATER)
            return;
        m_hostPaused = false;
        QOX::CRefCountPtr<IZRTDataLayer> link = m_hostDataLayer;
        if (link)
            DrainLinkLocked(*link, true);
    }
    NotifyClientDrained();
}

bool CProxyConnection::LingerOver(int& idlePolls)
{
    if (!m_hostClosed) {
        idlePolls = 0;
        return false;
    }
    QOX::CLock hold(m_mutex);
    if (!m_hostData.IsEmpty() || !m_clientOutput.empty()) {
        idlePolls = 0;
        return false;
    }
    return ++idlePolls > HOST_LINGER_POLLS;
}

void CProxyConnection::DisconnectHostLink()
{
    QOX::CRefCountPtr<IZRTDataLayer> link;
    {
        QOX::CLock hold(m_mutex);
        link = m_hostDataLayer;
    }
    // The pointer stays until the link reports its closure (which releases the link's reference).
    if (link)
        link->Disconnect();
}

void CProxyConnection::Terminate()
{
    DisconnectClient();
    const int status = GetThreadStatus();
    const bool started = status == STATUS_RUNNING || status == STATUS_STOPPING;
    if (started && !IsCurrentThread(*this)) {
        // The thread sleeps on the wake event, not on the stop event.
        m_wakeEvent.SignalEvent();
        StopThread(-1);
    }
    QOX::CLock hold(m_mutex);
    m_proxy = nullptr;
}

bool CProxyConnection::IsRunning() const
{
    const int status = GetThreadStatus();
    return status == STATUS_RUNNING || status == STATUS_STOPPING;
}

bool CProxyConnection::IsConnectedToClient() const
{
    QOX::CLock hold(m_mutex);
    return !m_clientDisconnected && m_clientSocket != -1;
}

void CProxyConnection::DisconnectClient()
{
    IConnectionProtocol* protocol = nullptr;
    {
        QOX::CLock hold(m_mutex);
        if (m_clientDisconnected)
            return;
        m_clientDisconnected = true;
        protocol = m_protocol;
    }
    if (!IsCurrentThread(*this))
        m_wakeEvent.SignalEvent();
    if (protocol)
        protocol->Terminate();
    QOX::CLock hold(m_mutex);
    DropOutputLocked();
    if (m_clientSocket >= 0) {
        DiscardPendingInput(m_clientSocket);
        CSocketUtils::CloseSocket(m_clientSocket);
        m_clientSocket = -1;
    }
}

bool CProxyConnection::SendToClient(const char* data, int length)
{
    bool failed = false;
    {
        QOX::CLock hold(m_mutex);
        if (m_clientDisconnected || m_clientSocket < 0)
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
        DisconnectClient();
        return false;
    }
    if (!IsCurrentThread(*this))
        m_wakeEvent.SignalEvent();
    return true;
}

unsigned int CProxyConnection::GetClientBacklog() const
{
    QOX::CLock hold(m_mutex);
    return m_clientOutputSize;
}

unsigned int CProxyConnection::GetHostBacklog() const
{
    QOX::CLock hold(m_mutex);
    return m_hostData.GetSize();
}

void CProxyConnection::WakeConnection()
{
    m_wakeEvent.SignalEvent();
}

// ---- host link ----

bool CProxyConnection::ConnectToHost(QOX::CRefCountPtr<IZRTConnectionAddress> destination)
{
    // Held while the multipoint layer connects, so host callbacks and the pump wait for the link.
    QOX::CLock hold(m_mutex);
    if (m_hostDataLayer || !destination || !m_multiPointLayer)
        return false;
    m_hostDataLayer = m_multiPointLayer->Connect(*destination, m_clientAddress);
    if (!m_hostDataLayer)
        return false;
    m_hostPaused = false;
    // Before registering, so the link never starts reading ahead on its own thread.
    const int readerFd = m_hostDataLayer->AttachReader();
    if (readerFd >= 0) {
        m_readerLink = m_hostDataLayer;
        m_readerFd = readerFd;
    }
    AddRef();
    m_hostDataLayer->AddNotification(this);
    // A handler's own thread connected: the connection's poll must take the descriptor in.
    if (readerFd >= 0 && !IsCurrentThread(*this))
        m_wakeEvent.SignalEvent();
    return true;
}

bool CProxyConnection::SendToHost(const char* data, int length)
{
    QOX::CRefCountPtr<IZRTDataLayer> link;
    {
        QOX::CLock hold(m_mutex);
        link = m_hostDataLayer;
    }
    if (!link)
        return false;
    link->SendData(reinterpret_cast<const unsigned char*>(data), length);
    return true;
}

bool CProxyConnection::IsConnectedToHost() const
{
    if (m_hostClosed)
        return false;
    QOX::CLock hold(m_mutex);
    return static_cast<bool>(m_hostDataLayer);
}

void CProxyConnection::DrainLinkLocked(IZRTDataLayer& link, bool bounded)
{
    unsigned char buffer[HOST_READ_SIZE];
    for (;;) {
        if (bounded && m_hostData.GetSize() >= HOST_DATA_HIGH_WATER) {
            m_hostPaused = true;
            return;
        }
        const int count = link.ReceiveData(buffer, sizeof(buffer));
        if (count <= 0)
            return;
        m_hostData.AddBuffer(CByteBufferList::GetBuffer(buffer, static_cast<unsigned int>(count)));
    }
}

void CProxyConnection::OnDataReceived(IZRTDataLayer& dataLayer)
{
    AddRef();
    {
        // Reading and queueing under one hold keeps chunks in order when the connection's thread
        // pulls the same link.
        QOX::CLock hold(m_mutex);
        // In reader mode this thread only wakes the reader, which takes the bytes itself.
        if (!m_hostPaused && !m_readerLink)
            DrainLinkLocked(dataLayer, true);
    }
    m_wakeEvent.SignalEvent();
    ReleaseRef();
}

void CProxyConnection::OnConnectionClosed(IZRTDataLayer& dataLayer)
{
    AddRef();
    bool current = false;
    {
        QOX::CLock hold(m_mutex);
        QOX::CRefCountPtr<IZRTDataLayer> link = m_hostDataLayer;
        if (link && link.Get() == &dataLayer) {
            current = true;
            // What the link still holds is delivered too (it can no longer grow), unless the
            // client has stopped taking more from the host.
            if (!m_clientEnded) {
                DrainLinkLocked(*link, false);
                m_hostPaused = false;
            }
            m_hostDataLayer.Reset();
            m_hostClosed = true;
            link->RemoveNotification(this);
            ReleaseRef(); // the link's reference from ConnectToHost; ours still holds
        }
    }
    if (current)
        m_wakeEvent.SignalEvent();
    ReleaseRef();
}

void CProxyConnection::OnSendDrained(IZRTDataLayer& /*dataLayer*/)
{
    AddRef();
    m_wakeEvent.SignalEvent();
    ReleaseRef();
}

} // namespace Proxy
} // namespace ZRT
