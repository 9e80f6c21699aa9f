#include "host/CSocketPreparer.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "transport/CSocketHandle.h"

namespace ZRT {
namespace Host {

CSocketPreparer::CSocketPreparer(Hook hook, const SOutgoing& outgoing) : m_hook(std::move(hook)), m_outgoing(outgoing) {}

bool CSocketPreparer::GetOutgoingAddress(int family, sockaddr_storage& address, socklen_t& length) const
{
    std::memset(&address, 0, sizeof(address));
    if (family == AF_INET && !m_outgoing.ipv4.empty()) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(address);
        v4.sin_family = AF_INET;
        length = sizeof(v4);
        return inet_pton(AF_INET, m_outgoing.ipv4.c_str(), &v4.sin_addr) == 1;
    }
    if (family == AF_INET6 && !m_outgoing.ipv6.empty()) {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        v6.sin6_family = AF_INET6;
        length = sizeof(v6);
        return inet_pton(AF_INET6, m_outgoing.ipv6.c_str(), &v6.sin6_addr) == 1;
    }
    return false;
}

bool CSocketPreparer::BindToInterface(int socket) const
{
    if (m_outgoing.interfaceName.empty())
        return true;
#if defined(SO_BINDTODEVICE)
    return setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, m_outgoing.interfaceName.c_str(),
                      static_cast<socklen_t>(m_outgoing.interfaceName.size())) == 0;
#else
    (void)socket;
    return false;
#endif
}

bool CSocketPreparer::PrepareToConnect(int socket, int family) const
{
    sockaddr_storage local{};
    socklen_t length = 0;
    if (GetOutgoingAddress(family, local, length) && bind(socket, reinterpret_cast<sockaddr*>(&local), length) != 0)
        return false;
    return Prepare(socket, EPurpose::Connect);
}

bool CSocketPreparer::Prepare(int socket, EPurpose purpose) const
{
    if (!BindToInterface(socket))
        return false;
    return Announce(socket, purpose);
}

bool CSocketPreparer::Announce(int socket, EPurpose purpose) const
{
    return !m_hook || m_hook(socket, purpose);
}

std::string CSocketPreparer::Check() const
{
    for (const int family : {AF_INET, AF_INET6}) {
        sockaddr_storage local{};
        socklen_t length = 0;
        if (!GetOutgoingAddress(family, local, length))
            continue;
        CSocketHandle probe(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!probe.IsValid() || bind(probe.Get(), reinterpret_cast<sockaddr*>(&local), length) != 0)
            return "cannot send from " + (family == AF_INET ? m_outgoing.ipv4 : m_outgoing.ipv6) + ": " +
                   std::strerror(errno);
    }
    if (m_outgoing.interfaceName.empty())
        return "";
    if (if_nametoindex(m_outgoing.interfaceName.c_str()) == 0)
        return "no network interface named " + m_outgoing.interfaceName;
    CSocketHandle probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe.IsValid() || !BindToInterface(probe.Get()))
        return "cannot bind to interface " + m_outgoing.interfaceName + ": " + std::strerror(errno);
    return "";
}

} // namespace Host
} // namespace ZRT
