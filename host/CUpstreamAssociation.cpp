#include "host/CUpstreamAssociation.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Host {

namespace {
uint16_t PortOf(const sockaddr_storage& address)
{
    return address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                         : reinterpret_cast<const sockaddr_in&>(address).sin_port;
}

bool SameEndpoint(const sockaddr_storage& a, const sockaddr_storage& b)
{
    if (a.ss_family != b.ss_family || PortOf(a) != PortOf(b))
        return false;
    if (a.ss_family == AF_INET)
        return reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr ==
               reinterpret_cast<const sockaddr_in&>(b).sin_addr.s_addr;
    return a.ss_family == AF_INET6 && std::memcmp(&reinterpret_cast<const sockaddr_in6&>(a).sin6_addr,
                                                  &reinterpret_cast<const sockaddr_in6&>(b).sin6_addr, 16) == 0;
}

// The relay as the registration's socket sends to it: IPv4 written as IPv6 on a dual-stack one.
socklen_t ForSocket(int socket, const sockaddr_storage& relay, sockaddr_storage& to)
{
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length);
    to = relay;
    if (relay.ss_family == AF_INET6)
        return sizeof(sockaddr_in6);
    if (local.ss_family != AF_INET6)
        return sizeof(sockaddr_in);
    return CSocketUtils::MapToIPv6(to);
}

// Where the upstream's UDP ASSOCIATE says the datagrams come from: any address, the socket's port.
sockaddr_storage SenderOf(int udpSocket)
{
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    getsockname(udpSocket, reinterpret_cast<sockaddr*>(&local), &length);
    sockaddr_storage sender{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(sender);
    v4.sin_family = AF_INET;
    v4.sin_port = PortOf(local);
    return sender;
}
} // namespace

QOX::CRefCountPtr<CUpstreamAssociation> CUpstreamAssociation::Start(const CUpstreamRoute& route,
                                                                    const CSocketPreparer& preparer, int udpSocket,
                                                                    CEventLoop& loop, int timeoutMs)
{
    const sockaddr_storage& upstream = route.GetAddress();
    CSocketHandle control(::socket(upstream.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    bool connected = false;
    if (control.IsValid() && preparer.PrepareToConnect(control.Get(), upstream.ss_family)) {
        connected = connect(control.Get(), reinterpret_cast<const sockaddr*>(&upstream), route.GetAddressLength()) == 0;
        if (!connected && errno != EINPROGRESS && errno != EINTR)
            control.Reset();
    } else {
        control.Reset();
    }
    const CUpstreamHandshake handshake(route, SenderOf(udpSocket), std::string(),
                                       CUpstreamHandshake::ECommand::UdpAssociate);
    QOX::CRefCountPtr<CUpstreamAssociation> self(
        new CUpstreamAssociation(std::move(control), connected, handshake, udpSocket, loop));
    loop.Post([self, timeoutMs] { self->Begin(timeoutMs); });
    return self;
}

CUpstreamAssociation::CUpstreamAssociation(CSocketHandle control, bool connected, const CUpstreamHandshake& handshake,
                                           int udpSocket, CEventLoop& loop)
    : m_control(std::move(control)), m_phase(connected ? EPhase::Handshaking : EPhase::Connecting),
      m_handshake(handshake), m_loop(loop), m_udpSocket(udpSocket)
{
}

std::string CUpstreamAssociation::Wrap(const sockaddr_storage& destination, const std::string& name,
                                       const unsigned char* payload, size_t length)
{
    std::string datagram(3, '\0'); // RSV RSV FRAG
    if (!name.empty()) {
        datagram += char(3);
        datagram += char(name.size());
        datagram += name;
    } else if (destination.ss_family == AF_INET6) {
        datagram += char(4);
        datagram.append(reinterpret_cast<const char*>(&reinterpret_cast<const sockaddr_in6&>(destination).sin6_addr), 16);
    } else {
        datagram += char(1);
        datagram.append(reinterpret_cast<const char*>(&reinterpret_cast<const sockaddr_in&>(destination).sin_addr), 4);
    }
    const uint16_t port = PortOf(destination);
    datagram.append(reinterpret_cast<const char*>(&port), 2);
    datagram.append(reinterpret_cast<const char*>(payload), length);
    return datagram;
}

void CUpstreamAssociation::Send(const sockaddr_storage& destination, CPlaceholderNames* placeholders,
                                const unsigned char* payload, size_t length)
{
    std::string name;
    if (placeholders && CPlaceholderNames::IsPlaceholder(destination) && !placeholders->NameOf(destination, name))
        return;
    if (name.size() > 255)
        return;
    std::string datagram = Wrap(destination, name, payload, length);
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto same = [&](const sockaddr_storage& recent) { return SameEndpoint(recent, destination); };
    m_recent.erase(std::remove_if(m_recent.begin(), m_recent.end(), same), m_recent.end());
    m_recent.push_front(destination);
    if (m_recent.size() > RECENT_LIMIT)
        m_recent.pop_back();
    if (m_open)
        SendLocked(datagram);
    else if (!m_ended && m_queue.size() < QUEUE_LIMIT)
        m_queue.push_back(std::move(datagram));
}

void CUpstreamAssociation::SendLocked(const std::string& datagram)
{
    if (m_udpSocket < 0)
        return;
    sockaddr_storage to{};
    const socklen_t length = ForSocket(m_udpSocket, m_relay, to);
    // UDP: a datagram the socket cannot take now is lost, as it could be on the wire.
    sendto(m_udpSocket, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&to), length);
}

CUpstreamAssociation::EUnwrapped CUpstreamAssociation::Unwrap(const sockaddr_storage& from,
                                                              const unsigned char* datagram, size_t length,
                                                              CPlaceholderNames* placeholders,
                                                              sockaddr_storage& source, size_t& offset)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open || !SameEndpoint(from, m_relay))
        return EUnwrapped::NotFromRelay;
    // Fragments are not reassembled (RFC 1928 allows dropping them).
    if (length < 4 || datagram[0] != 0 || datagram[1] != 0 || datagram[2] != 0)
        return EUnwrapped::Dropped;
    source = sockaddr_storage{};
    const unsigned char type = datagram[3];
    if (type == 3) {
        offset = length > 4 ? 4 + 1 + datagram[4] + 2 : length + 1;
        const std::string name(reinterpret_cast<const char*>(datagram) + 5, offset <= length ? datagram[4] : 0);
        if (offset > length || !placeholders || !placeholders->PlaceholderOf(name, source))
            return EUnwrapped::Dropped;
        std::memcpy(&reinterpret_cast<sockaddr_in&>(source).sin_port, datagram + offset - 2, 2);
        return EUnwrapped::Unwrapped;
    }
    const size_t size = type == 1 ? 4 : type == 4 ? 16 : 0;
    offset = 4 + size + 2;
    if (size == 0 || offset > length)
        return EUnwrapped::Dropped;
    if (type == 1) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(source);
        v4.sin_family = AF_INET;
        std::memcpy(&v4.sin_addr, datagram + 4, 4);
        std::memcpy(&v4.sin_port, datagram + 8, 2);
    } else {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(source);
        v6.sin6_family = AF_INET6;
        std::memcpy(&v6.sin6_addr, datagram + 4, 16);
        std::memcpy(&v6.sin6_port, datagram + 20, 2);
    }
    PreferPlaceholderLocked(source);
    return EUnwrapped::Unwrapped;
}

void CUpstreamAssociation::PreferPlaceholderLocked(sockaddr_storage& source) const
{
    // The upstream names the address a name led to; the engine knows the placeholder it sent to.
    bool sentTo = false;
    const sockaddr_storage* answered = nullptr;
    for (const sockaddr_storage& recent : m_recent) {
        sentTo = sentTo || SameEndpoint(recent, source);
        if (!answered && CPlaceholderNames::IsPlaceholder(recent) && PortOf(recent) == PortOf(source))
            answered = &recent;
    }
    if (!sentTo && answered)
        source = *answered;
}

void CUpstreamAssociation::Close()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_udpSocket = -1;
        m_ended = true;
        m_open = false;
        m_queue.clear();
    }
    QOX::CRefCountPtr<CUpstreamAssociation> self(this);
    m_loop.Post([self] { self->End(); });
}

void CUpstreamAssociation::Begin(int timeoutMs)
{
    if (!m_control.IsValid()) {
        End();
        return;
    }
    if (m_phase == EPhase::Ended)
        return;
    QOX::CRefCountPtr<CUpstreamAssociation> self(this);
    m_timer = m_loop.PostDelayed(timeoutMs, [self] {
        self->m_timer = 0;
        if (self->m_phase != EPhase::Open)
            self->End();
    });
    Advance();
}

void CUpstreamAssociation::OnEvents(uint32_t /*events*/)
{
    Advance();
}

void CUpstreamAssociation::Advance()
{
    // Each phase's step says whether the next one can run at once.
    bool next = true;
    while (next) {
        switch (m_phase) {
        case EPhase::Connecting:
            next = StepConnecting();
            break;
        case EPhase::Handshaking:
            next = StepHandshaking();
            break;
        case EPhase::Open:
            next = StepOpen();
            break;
        case EPhase::Ended:
            next = false;
            break;
        }
    }
}

bool CUpstreamAssociation::StepConnecting()
{
    pollfd entry{m_control.Get(), POLLOUT, 0};
    if (poll(&entry, 1, 0) == 0) {
        Watch(EPOLLOUT);
        return false;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(m_control.Get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        End();
        return false;
    }
    m_phase = EPhase::Handshaking;
    return true;
}

bool CUpstreamAssociation::StepHandshaking()
{
    const short wanted = m_handshake.Run(m_control.Get());
    if (wanted != 0) {
        Watch(wanted == POLLIN ? EPOLLIN : EPOLLOUT);
        return false;
    }
    if (m_handshake.GetStep() != CUpstreamHandshake::EStep::Done || m_handshake.GetBound().ss_family == AF_UNSPEC) {
        End();
        return false;
    }
    Opened();
    return true;
}

bool CUpstreamAssociation::StepOpen()
{
    // The upstream has nothing to say here; its end (or an error) ends the association. What it
    // says anyway is read and dropped, a bounded amount per turn.
    unsigned char scratch[4096];
    ssize_t count = -1;
    for (int turn = 0; turn < 16; ++turn) {
        count = recv(m_control.Get(), scratch, sizeof(scratch), MSG_DONTWAIT);
        if (count <= 0 && !(count < 0 && errno == EINTR))
            break;
    }
    if (count > 0 || (count < 0 && CSocketUtils::IsWouldBlock(errno)))
        Watch(EPOLLIN);
    else
        End();
    return false;
}

void CUpstreamAssociation::Opened()
{
    m_phase = EPhase::Open;
    sockaddr_storage relay = m_handshake.GetBound();
    // A relay on "any address" is on the upstream's.
    const bool any = relay.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(relay).sin_addr.s_addr == 0
                                                : IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<sockaddr_in6&>(relay).sin6_addr);
    if (any) {
        const uint16_t port = PortOf(relay);
        sockaddr_in6 upstream{};
        socklen_t length = sizeof(upstream);
        getpeername(m_control.Get(), reinterpret_cast<sockaddr*>(&upstream), &length);
        relay = sockaddr_storage{};
        std::memcpy(&relay, &upstream, std::min<size_t>(length, sizeof(upstream)));
        (relay.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(relay).sin6_port
                                     : reinterpret_cast<sockaddr_in&>(relay).sin_port) = port;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended)
        return;
    m_relay = relay;
    m_open = true;
    for (const std::string& datagram : m_queue)
        SendLocked(datagram);
    m_queue.clear();
}

void CUpstreamAssociation::SetOnEnd(std::function<void()> onEnd)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_ended) {
        m_onEnd = std::move(onEnd);
        return;
    }
    lock.unlock();
    if (onEnd)
        m_loop.Post(std::move(onEnd));
}

void CUpstreamAssociation::End()
{
    std::function<void()> onEnd;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
        m_open = false;
        m_queue.clear();
        onEnd = std::move(m_onEnd);
        m_onEnd = nullptr;
    }
    if (onEnd)
        onEnd();
    if (m_phase == EPhase::Ended)
        return;
    const QOX::CRefCountPtr<CUpstreamAssociation> self(this); // the loop's reference may go below
    m_phase = EPhase::Ended;
    if (m_token != 0)
        m_loop.Remove(m_token, m_control.Get());
    m_token = 0;
    if (m_timer != 0)
        m_loop.CancelDelayed(m_timer);
    m_timer = 0;
    m_control.Reset();
}

void CUpstreamAssociation::Watch(uint32_t events)
{
    if (m_token == 0) {
        m_token = m_loop.Add(m_control.Get(), events, QOX::CRefCountPtr<IEventHandler>(this));
        if (m_token == 0)
            End();
    } else if (events != m_watched) {
        m_loop.Modify(m_token, m_control.Get(), events);
    }
    m_watched = events;
}

} // namespace Host
} // namespace ZRT
