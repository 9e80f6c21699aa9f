#include "host/CDirectConnectionListener.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "transport/CSocketHandle.h"
#include "host/CTcpDataLayer.h"
#include "transport/CSocketUtils.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Host {

namespace {
constexpr int LISTEN_BACKLOG = 8;
constexpr int ACCEPT_RETRY_DELAY_MS = 100;

// The host part of an address, IPv4-mapped IPv6 as IPv4; empty for the unspecified address.
std::string HostBytes(const IZRTConnectionAddress& address)
{
    sockaddr_storage storage{};
    int length = sizeof(storage);
    if (!address.GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
        return {};
    std::string bytes;
    if (storage.ss_family == AF_INET) {
        bytes.assign(reinterpret_cast<const char*>(&reinterpret_cast<sockaddr_in&>(storage).sin_addr), 4);
    } else if (storage.ss_family == AF_INET6) {
        const in6_addr& v6 = reinterpret_cast<sockaddr_in6&>(storage).sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&v6))
            bytes.assign(reinterpret_cast<const char*>(&v6) + 12, 4);
        else
            bytes.assign(reinterpret_cast<const char*>(&v6), 16);
    }
    return bytes.find_first_not_of('\0') == std::string::npos ? std::string() : bytes;
}

QOX::CRefCountPtr<IZRTConnectionAddress> SocketAddress(int socket, bool peer)
{
    sockaddr_storage storage{};
    socklen_t length = sizeof(storage);
    const int result = peer ? getpeername(socket, reinterpret_cast<sockaddr*>(&storage), &length)
                            : getsockname(socket, reinterpret_cast<sockaddr*>(&storage), &length);
    auto* address = new CTCPIPAddress();
    QOX::CRefCountPtr<IZRTConnectionAddress> held(address);
    if (result != 0 || !address->SetAddress(*reinterpret_cast<sockaddr*>(&storage), length))
        return {};
    return held;
}
} // namespace

CDirectConnectionListener::CDirectConnectionListener(CEventLoopPool& loops, std::string ipv4Address,
                                                     std::string ipv6Address, const CSocketPreparer& preparer)
    : m_loops(loops), m_ipv4Address(std::move(ipv4Address)), m_ipv6Address(std::move(ipv6Address)), m_preparer(preparer)
{
}

CDirectConnectionListener::~CDirectConnectionListener()
{
    std::vector<QOX::CRefCountPtr<CListeningSocket>> sockets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        sockets.swap(m_sockets);
    }
    for (auto& socket : sockets)
        socket->Stop();
}

QOX::CRefCountPtr<IZRTConnectionAddress> CDirectConnectionListener::StartListening(const IZRTConnectionAddress& address,
                                                                                   int count,
                                                                                   IConnectionReceiver* receiver)
{
    if (!receiver)
        return {};
    const bool ipv6 = address.GetFamily() == AF_INET6;
    QOX::CRefCountPtr<IZRTConnectionAddress> local =
        CTCPIPAddress::FromText((ipv6 ? m_ipv6Address : m_ipv4Address).c_str(), 0);
    sockaddr_storage bindAddress{};
    int bindLength = sizeof(bindAddress);
    if (!local || !local->GetSockAddr(reinterpret_cast<sockaddr*>(&bindAddress), &bindLength))
        return {};

    CSocketHandle socket(::socket(bindAddress.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket.IsValid() || !m_preparer.Announce(socket.Get(), CSocketPreparer::EPurpose::Listen) ||
        bind(socket.Get(), reinterpret_cast<sockaddr*>(&bindAddress), static_cast<socklen_t>(bindLength)) != 0 ||
        listen(socket.Get(), LISTEN_BACKLOG) != 0)
        return {};

    QOX::CRefCountPtr<CListeningSocket> listening(new CListeningSocket(
        socket.Release(), std::max(count, 1), HostBytes(address), receiver, m_loops, m_loops.Next()));
    if (!listening->Start())
        return {};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sockets.push_back(listening);
    }
    return QOX::CRefCountPtr<IZRTConnectionAddress>(listening->GetAddress().Clone());
}

void CDirectConnectionListener::StopListening(const IZRTConnectionAddress& address)
{
    QOX::CRefCountPtr<CListeningSocket> stopped;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = std::find_if(m_sockets.begin(), m_sockets.end(),
                                  [&](const auto& socket) { return socket->GetAddress().IsEqual(address); });
        if (found == m_sockets.end())
            return;
        stopped = *found;
        m_sockets.erase(found);
    }
    stopped->Stop();
}

CDirectConnectionListener::CListeningSocket::CListeningSocket(int socket, int count, std::string expected,
                                                              IConnectionReceiver* receiver, CEventLoopPool& loops,
                                                              CEventLoop& loop)
    : m_socket(socket), m_remaining(count), m_expected(std::move(expected)), m_receiver(receiver), m_loops(loops),
      m_loop(loop),
      m_address(SocketAddress(socket, false))
{
    m_receivers.Add(receiver);
}

CDirectConnectionListener::CListeningSocket::~CListeningSocket()
{
    CSocketUtils::CloseSocket(m_socket);
}

bool CDirectConnectionListener::CListeningSocket::Start()
{
    if (!m_address)
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_token = m_loop.Add(m_socket, EPOLLIN, QOX::CRefCountPtr<IEventHandler>(this));
    return m_token != 0;
}

void CDirectConnectionListener::CListeningSocket::Stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_token != 0)
            m_loop.Remove(m_token, m_socket);
        m_token = 0;
    }
    m_receivers.Remove(m_receiver);
}

void CDirectConnectionListener::CListeningSocket::OnEvents(uint32_t /*events*/)
{
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_token == 0 || m_remaining <= 0)
                return;
        }
        const int accepted = accept4(m_socket, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (accepted < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                PauseAccepting();
            return;
        }
        QOX::CRefCountPtr<IZRTConnectionAddress> peer = SocketAddress(accepted, true);
        if (!peer || (!m_expected.empty() && HostBytes(*peer) != m_expected)) {
            // Not the host the client named: it gets nothing, and the wait goes on.
            CSocketUtils::CloseSocket(accepted);
            continue;
        }
        {
            // Enough accepted: stop watching; the socket closes with this object.
            std::lock_guard<std::mutex> lock(m_mutex);
            if (--m_remaining <= 0 && m_token != 0) {
                m_loop.Remove(m_token, m_socket);
                m_token = 0;
            }
        }
        QOX::CRefCountPtr<CTcpDataLayer> stream = CTcpDataLayer::Create(accepted, m_loops.Next());
        const bool delivered = m_receivers.Call(m_receiver, [&](IConnectionReceiver* receiver) {
            receiver->OnConnectionEstablished(*peer, *m_address, *stream);
        });
        // Nobody took it: do not leave the peer hanging.
        if (!delivered)
            stream->Disconnect();
    }
}

void CDirectConnectionListener::CListeningSocket::PauseAccepting()
{
    // Out of descriptors the socket stays readable: watching it would spin the loop.
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_token == 0)
            return;
        m_loop.Modify(m_token, m_socket, 0);
    }
    QOX::CRefCountPtr<CListeningSocket> self(this);
    m_loop.PostDelayed(ACCEPT_RETRY_DELAY_MS, [self] {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        if (self->m_token != 0)
            self->m_loop.Modify(self->m_token, self->m_socket, EPOLLIN);
    });
}

} // namespace Host
} // namespace ZRT
