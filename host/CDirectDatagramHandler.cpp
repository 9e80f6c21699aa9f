#include "host/CDirectDatagramHandler.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "runtime/CScratchLoan.h"
#include "transport/CSocketHandle.h"
#include "transport/CSocketUtils.h"
#include "transport/CTCPIPAddress.h"
#include "transport/IDatagramEndNotification.h"

namespace ZRT {
namespace Host {

namespace {
constexpr size_t MAX_DATAGRAM = 65536;
static_assert(MAX_DATAGRAM <= QOX::CScratchLoan::SIZE, "a datagram fits the scratch buffer");
// Datagrams read per readiness event before the loop turns to other sockets.
constexpr int MAX_READS_PER_EVENT = 32;

// A socket bound to an outgoing address: IPv4 when one is set for IPv4 (datagrams to IPv6 hosts
// then fail), else IPv6 only; -2 when no outgoing address is set.
int OpenOutgoingSocket(int& family, const CSocketPreparer& preparer)
{
    sockaddr_storage local{};
    socklen_t length = 0;
    for (const int candidate : {AF_INET, AF_INET6}) {
        if (!preparer.GetOutgoingAddress(candidate, local, length))
            continue;
        CSocketHandle socket(::socket(candidate, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const int on = 1;
        if (!socket.IsValid() || !preparer.Prepare(socket.Get(), CSocketPreparer::EPurpose::Datagram) ||
            (candidate == AF_INET6 && setsockopt(socket.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on)) != 0) ||
            bind(socket.Get(), reinterpret_cast<sockaddr*>(&local), length) != 0)
            return -1;
        family = candidate;
        return socket.Release();
    }
    return -2;
}

// A dual-stack IPv6 socket if possible, else IPv4; bound to the wildcard address, port 0, or to
// the outgoing address. A socket the preparer refuses is not replaced by one of the other family.
int OpenSocket(int& family, const CSocketPreparer& preparer)
{
    const int outgoing = OpenOutgoingSocket(family, preparer);
    if (outgoing != -2)
        return outgoing;
    CSocketHandle socket(::socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.IsValid()) {
        if (!preparer.Prepare(socket.Get(), CSocketPreparer::EPurpose::Datagram))
            return -1;
        const int off = 0;
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_addr = in6addr_any;
        if (setsockopt(socket.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)) == 0 &&
            bind(socket.Get(), reinterpret_cast<sockaddr*>(&any), sizeof(any)) == 0) {
            family = AF_INET6;
            return socket.Release();
        }
    }
    socket.Reset(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (socket.IsValid() && !preparer.Prepare(socket.Get(), CSocketPreparer::EPurpose::Datagram))
        return -1;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!socket.IsValid() || bind(socket.Get(), reinterpret_cast<sockaddr*>(&any), sizeof(any)) != 0)
        return -1;
    family = AF_INET;
    return socket.Release();
}

// An IPv4 peer seen through a dual-stack socket is reported in its plain IPv4 form.
void UnmapAddress(sockaddr_storage& address, socklen_t& length)
{
    if (address.ss_family != AF_INET6)
        return;
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
    if (!IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr))
        return;
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = v6->sin6_port;
    std::memcpy(&v4.sin_addr, &v6->sin6_addr.s6_addr[12], 4);
    std::memset(&address, 0, sizeof(address));
    std::memcpy(&address, &v4, sizeof(v4));
    length = sizeof(v4);
}

// The reverse, for sending an IPv4 destination through a dual-stack socket.
void MapAddress(sockaddr_storage& address, socklen_t& length)
{
    if (address.ss_family != AF_INET)
        return;
    length = CSocketUtils::MapToIPv6(address);
}
} // namespace

CDirectDatagramHandler::~CDirectDatagramHandler()
{
    std::map<int, QOX::CRefCountPtr<CRegistration>> registrations;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        registrations.swap(m_registrations);
    }
    for (auto& entry : registrations)
        entry.second->Stop();
}

int CDirectDatagramHandler::RegisterReceiver(const IZRTConnectionAddress& /*address*/, IDatagramReceiver* receiver)
{
    if (!receiver)
        return -1;
    int family = AF_UNSPEC;
    const int socket = OpenSocket(family, m_preparer);
    if (socket < 0)
        return -1;
    int handle = -1;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handle = m_nextHandle++;
        if (m_nextHandle < 1)
            m_nextHandle = 1;
    }
    CEventLoop& loop = m_loops.Next();
    QOX::CRefCountPtr<CRegistration> registration(new CRegistration(socket, handle, receiver, loop));
    if (m_route.GetProtocol() == CUpstreamRoute::EProtocol::Socks5)
        registration->SetAssociation(CUpstreamAssociation::Start(m_route, m_preparer, socket, loop, m_upstreamTimeoutMs),
                                     m_route, m_placeholders);
    if (!registration->Start())
        return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_registrations[handle] = registration;
    return handle;
}

void CDirectDatagramHandler::UnregisterReceiver(int handle)
{
    QOX::CRefCountPtr<CRegistration> registration;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_registrations.find(handle);
        if (found == m_registrations.end())
            return;
        registration = found->second;
        m_registrations.erase(found);
    }
    registration->Stop();
}

void CDirectDatagramHandler::SendDatagram(int handle, const IZRTConnectionAddress& destination,
                                          const unsigned char* data, int length)
{
    QOX::CRefCountPtr<CRegistration> registration = Find(handle);
    if (registration && data && length >= 0)
        registration->Send(destination, data, length);
}

unsigned int CDirectDatagramHandler::GetLocalPort(int handle)
{
    QOX::CRefCountPtr<CRegistration> registration = Find(handle);
    return registration ? registration->GetLocalPort() : 0;
}

QOX::CRefCountPtr<CDirectDatagramHandler::CRegistration> CDirectDatagramHandler::Find(int handle)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_registrations.find(handle);
    return found == m_registrations.end() ? QOX::CRefCountPtr<CRegistration>() : found->second;
}

CDirectDatagramHandler::CRegistration::CRegistration(int socket, int handle, IDatagramReceiver* receiver,
                                                     CEventLoop& loop)
    : m_socket(socket), m_handle(handle), m_receiver(receiver), m_loop(loop)
{
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length);
    m_family = local.ss_family;
    m_receivers.Add(receiver);
}

CDirectDatagramHandler::CRegistration::~CRegistration()
{
    // Closed only here: the loop's thread may still be reading it until its last reference goes.
    CSocketUtils::CloseSocket(m_socket);
}

bool CDirectDatagramHandler::CRegistration::Start()
{
    m_token = m_loop.Add(m_socket, EPOLLIN, QOX::CRefCountPtr<IEventHandler>(this));
    if (m_token == 0 && m_association)
        m_association->Close();
    return m_token != 0;
}

void CDirectDatagramHandler::CRegistration::Stop()
{
    m_loop.Remove(m_token, m_socket);
    m_receivers.Remove(m_receiver);
    if (m_association) {
        m_association->SetOnEnd(nullptr);
        m_association->Close();
    }
}

void CDirectDatagramHandler::CRegistration::SetAssociation(QOX::CRefCountPtr<CUpstreamAssociation> association,
                                                           const CUpstreamRoute& route,
                                                           std::shared_ptr<CPlaceholderNames> placeholders)
{
    m_association = std::move(association);
    m_route = route;
    m_placeholders = std::move(placeholders);
    // The reference kept by the callback goes when the association ends or Stop lets go of it.
    const QOX::CRefCountPtr<CRegistration> self(this);
    if (m_association)
        m_association->SetOnEnd([self] { self->OnAssociationEnded(); });
}

void CDirectDatagramHandler::CRegistration::OnAssociationEnded()
{
    m_receivers.Call(m_receiver, [this](IDatagramReceiver* receiver) {
        if (auto* sink = dynamic_cast<IDatagramEndNotification*>(receiver))
            sink->OnDatagramsEnded(m_handle);
    });
}

bool CDirectDatagramHandler::CRegistration::Carried(const sockaddr_storage& address) const
{
    return m_association && ((m_placeholders && CPlaceholderNames::IsPlaceholder(address)) ||
                             m_route.Carries(address));
}

void CDirectDatagramHandler::CRegistration::Send(const IZRTConnectionAddress& destination,
                                                 const unsigned char* data, int length)
{
    sockaddr_storage address{};
    int size = sizeof(address);
    if (!destination.GetSockAddr(reinterpret_cast<sockaddr*>(&address), &size))
        return;
    if (Carried(address)) {
        m_association->Send(address, m_placeholders.get(), data, static_cast<size_t>(length));
        return;
    }
    socklen_t addressLength = static_cast<socklen_t>(size);
    if (m_family == AF_INET6)
        MapAddress(address, addressLength);
    // UDP: a datagram the socket cannot take now is lost, as it could be on the wire.
    sendto(m_socket, data, static_cast<size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<sockaddr*>(&address), addressLength);
}

unsigned int CDirectDatagramHandler::CRegistration::GetLocalPort() const
{
    sockaddr_storage local{};
    socklen_t length = sizeof(local);
    if (getsockname(m_socket, reinterpret_cast<sockaddr*>(&local), &length) != 0)
        return 0;
    CTCPIPAddress address;
    return address.SetAddress(*reinterpret_cast<sockaddr*>(&local), length) ? address.GetPortNumber() : 0;
}

void CDirectDatagramHandler::CRegistration::OnEvents(uint32_t /*events*/)
{
    const QOX::CScratchLoan scratch;
    for (int turn = 0; turn < MAX_READS_PER_EVENT; ++turn) {
        sockaddr_storage source{};
        socklen_t length = sizeof(source);
        const ssize_t count = recvfrom(m_socket, scratch.Get(), MAX_DATAGRAM, MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr*>(&source), &length);
        if (count < 0) {
            // A refusal reported for an earlier send is not the end of the socket.
            if (CSocketUtils::IsWouldBlock(errno))
                return;
            continue;
        }
        UnmapAddress(source, length);
        if (!m_association) {
            if (!Deliver(source, length, scratch.Get(), static_cast<size_t>(count)))
                return;
            continue;
        }
        // From the upstream's relay, unwrapped; from a carried source otherwise, dropped.
        sockaddr_storage unwrapped{};
        size_t offset = 0;
        const CUpstreamAssociation::EUnwrapped from = m_association->Unwrap(
            source, scratch.Get(), static_cast<size_t>(count), m_placeholders.get(), unwrapped, offset);
        if (from == CUpstreamAssociation::EUnwrapped::Unwrapped) {
            const socklen_t unwrappedLength =
                unwrapped.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
            if (!Deliver(unwrapped, unwrappedLength, scratch.Get() + offset, static_cast<size_t>(count) - offset))
                return;
        } else if (from == CUpstreamAssociation::EUnwrapped::NotFromRelay && !Carried(source) &&
                   !Deliver(source, length, scratch.Get(), static_cast<size_t>(count))) {
            return;
        }
    }
}

bool CDirectDatagramHandler::CRegistration::Deliver(const sockaddr_storage& source, socklen_t length,
                                                    const unsigned char* data, size_t size)
{
    CTCPIPAddress sender;
    if (!sender.SetAddress(*reinterpret_cast<const sockaddr*>(&source), length))
        return true;
    return m_receivers.Call(m_receiver, [&](IDatagramReceiver* receiver) {
        receiver->OnDatagramReceived(m_handle, sender, data, static_cast<int>(size));
    });
}

} // namespace Host
} // namespace ZRT
