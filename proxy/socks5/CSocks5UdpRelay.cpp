#include "proxy/socks5/CSocks5UdpRelay.h"

#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "proxy/address/CAddressManager.h"
#include "proxy/core/CProxyStats.h"
#include "proxy/core/SProxySettings.h"
#include "proxy/socks5/CSocksAddress.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

namespace {
constexpr size_t MIN_DATAGRAM = 7;

unsigned int PortOf(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return 0;
}
} // namespace

CSocks5UdpRelay::CSocks5UdpRelay(IProxyConnection& connection) : m_connection(connection) {}

CSocks5UdpRelay::~CSocks5UdpRelay()
{
    Close();
}

bool CSocks5UdpRelay::Open(IDatagramHandler& handler, const IZRTConnectionAddress& requested)
{
    sockaddr_storage local{};
    int localLength = sizeof(local);
    if (!m_connection.GetLocalAddress().GetSockAddr(reinterpret_cast<sockaddr*>(&local), &localLength))
        return false;
    if (local.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in&>(local).sin_port = 0;
    else
        reinterpret_cast<sockaddr_in6&>(local).sin6_port = 0;
    const int udpSocket = socket(local.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (udpSocket < 0)
        return false;
    if (local.ss_family == AF_INET6) {
        // An IPv4 client of a dual-stack proxy reached it at an IPv4-mapped address.
        const int off = 0;
        setsockopt(udpSocket, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
    }
    if (bind(udpSocket, reinterpret_cast<const sockaddr*>(&local), static_cast<socklen_t>(localLength)) != 0) {
        CSocketUtils::CloseSocket(udpSocket);
        return false;
    }
    m_socket = udpSocket;
    m_clientHost = CSocksAddress::HostKey(m_connection.GetClientAddress());
    // The address and port the client said it will send from, where it said so.
    const std::string namedHost = CSocksAddress::HostKey(requested);
    if (namedHost.find_first_not_of('\0') != std::string::npos)
        m_namedHost = namedHost;
    m_namedPort = requested.GetPortNumber();
    const int handle = handler.RegisterReceiver(requested, this);
    if (handle == -1) {
        CSocketUtils::CloseSocket(udpSocket);
        m_socket = -1;
        return false;
    }
    m_handler = &handler;
    m_handle = handle;
    return true;
}

bool CSocks5UdpRelay::GetLocalAddress(sockaddr_storage& address) const
{
    socklen_t length = sizeof(address);
    return m_socket >= 0 && getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
}

void CSocks5UdpRelay::Close()
{
    // Unregistered first: the service's thread may be sending on the socket until it returns.
    if (m_handle != -1)
        m_handler->UnregisterReceiver(m_handle);
    m_handle = -1;
    m_handler = nullptr;
    m_lookups.clear();
    if (m_socket >= 0)
        CSocketUtils::CloseSocket(m_socket);
    m_socket = -1;
}

bool CSocks5UdpRelay::ParseHeader(const unsigned char* datagram, size_t length, unsigned int& headerLength)
{
    if (length < MIN_DATAGRAM || datagram[0] != 0 || datagram[1] != 0)
        return false;
    const unsigned int block = CSocksAddress::BlockLength(datagram + 3);
    if (block == 0 || length < 3 + block)
        return false;
    headerLength = 3 + block;
    return true;
}

void CSocks5UdpRelay::OnReadable()
{
    if (!m_datagram)
        m_datagram.reset(new unsigned char[DATAGRAM_SIZE]); // an association that never sends pays nothing
    for (int turn = 0; turn < DATAGRAMS_PER_TURN && m_socket >= 0; ++turn) {
        sockaddr_storage sender{};
        socklen_t senderLength = sizeof(sender);
        // MSG_TRUNC: the datagram's real length, so that one too long is dropped, never cut.
        const ssize_t received = recvfrom(m_socket, m_datagram.get(), DATAGRAM_SIZE, MSG_DONTWAIT | MSG_TRUNC,
                                          reinterpret_cast<sockaddr*>(&sender), &senderLength);
        if (received < 0 && errno == EINTR)
            continue;
        if (received < 0)
            return;
        if (!AcceptSender(sender, senderLength))
            continue;
        if (static_cast<size_t>(received) > DATAGRAM_SIZE) {
            m_connection.GetStats().Add(CProxyStats::UDP_DATAGRAMS_DROPPED);
            continue;
        }
        Relay(m_datagram.get(), static_cast<size_t>(received), sender, senderLength);
    }
}

// Only the client's own host, from the address and port its request named where it named them;
// otherwise, once it has sent, only the address and port of its first datagram.
bool CSocks5UdpRelay::AcceptSender(const sockaddr_storage& sender, socklen_t length)
{
    const std::string host = CSocksAddress::HostKey(reinterpret_cast<const sockaddr*>(&sender));
    if (!m_clientHost.empty() && host != m_clientHost)
        return false;
    if (!m_namedHost.empty() && host != m_namedHost)
        return false;
    if (m_namedPort != 0 && PortOf(sender) != m_namedPort)
        return false;
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_clientLength == 0)
        return true;
    return length == m_clientLength && std::memcmp(&sender, &m_client, length) == 0;
}

void CSocks5UdpRelay::Relay(const unsigned char* datagram, size_t length, const sockaddr_storage& sender,
                            socklen_t senderLength)
{
    unsigned int header = 0;
    if (!ParseHeader(datagram, length, header))
        return;
    {
        // The first well-formed datagram fixes the client's UDP address.
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_clientLength == 0) {
            m_client = sender;
            m_clientLength = senderLength;
        }
    }
    const unsigned char* block = datagram + 3;
    const unsigned char* payload = datagram + header;
    const size_t payloadLength = length - header;
    if (block[0] != CSocksAddress::ATYP_DOMAIN) {
        const AddressPtr destination = CSocksAddress::DecodeNumeric(block);
        if (destination)
            Forward(destination, payload, payloadLength);
        return;
    }
    if (m_lookups.size() >= MAX_LOOKUPS)
        return; // a client may not hold more lookups than this at once
    SLookup pending{std::unique_ptr<CNameLookup>(new CNameLookup([this] { m_connection.WakeHandler(); },
                                                                 m_connection.GetSettings().lookupLimitMs)),
                    std::string(reinterpret_cast<const char*>(payload), payloadLength)};
    pending.lookup->Start(m_connection.GetAddressManager(), CSocksAddress::DomainKey(block));
    if (!Settle(pending))
        m_lookups.push_back(std::move(pending));
}

void CSocks5UdpRelay::SettleLookups()
{
    const auto settled = [this](SLookup& pending) { return Settle(pending); };
    m_lookups.erase(std::remove_if(m_lookups.begin(), m_lookups.end(), settled), m_lookups.end());
}

bool CSocks5UdpRelay::Settle(SLookup& pending)
{
    AddressPtr destination;
    const CNameLookup::EResult result = pending.lookup->Take(destination);
    if (result == CNameLookup::EResult::Waiting)
        return false;
    // A name that does not resolve, in time or at all, drops its datagram.
    if (result == CNameLookup::EResult::Answered)
        Forward(destination, reinterpret_cast<const unsigned char*>(pending.payload.data()), pending.payload.size());
    return true;
}

int CSocks5UdpRelay::GetWakeDelay() const
{
    int earliest = -1;
    for (const SLookup& pending : m_lookups) {
        const int delay = pending.lookup->GetWakeDelay();
        if (delay >= 0 && (earliest < 0 || delay < earliest))
            earliest = delay;
    }
    return earliest;
}

void CSocks5UdpRelay::Forward(const AddressPtr& destination, const unsigned char* payload, size_t length)
{
    if (m_handle == -1)
        return;
    if (!m_connection.IsDestinationAllowed(*destination)) {
        m_connection.GetStats().Add(CProxyStats::REFUSED_DENIED);
        return;
    }
    const std::string host = CSocksAddress::HostKey(*destination);
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!host.empty() && m_destinations.insert(host).second) {
            m_destinationOrder.push_back(host);
            if (m_destinationOrder.size() > MAX_DESTINATIONS) {
                m_destinations.erase(m_destinationOrder.front());
                m_destinationOrder.pop_front();
            }
        }
    }
    m_handler->SendDatagram(m_handle, *destination, payload, static_cast<int>(length));
    m_connection.CountDatagram(true, length);
}

void CSocks5UdpRelay::OnDatagramsEnded(int /*handle*/)
{
    m_ended = true;
    m_connection.WakeHandler();
}

void CSocks5UdpRelay::OnDatagramReceived(int /*handle*/, const IZRTConnectionAddress& source,
                                         const unsigned char* data, int length)
{
    if (length < 0 || (length > 0 && !data))
        return;
    sockaddr_storage area{};
    int areaLength = CSocketUtils::MAX_ADDRESS_LENGTH;
    if (!source.GetSockAddr(reinterpret_cast<sockaddr*>(&area), &areaLength))
        return;
    const std::string host = CSocksAddress::HostKey(reinterpret_cast<const sockaddr*>(&area));
    sockaddr_storage client{};
    socklen_t clientLength = 0;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        // Nobody to send to yet, or a host the client never sent to.
        if (m_clientLength == 0 || m_destinations.count(host) == 0)
            return;
        client = m_client;
        clientLength = m_clientLength;
    }
    std::vector<unsigned char> datagram(3 + 19 + static_cast<size_t>(length));
    const int block = CSocksAddress::Encode(datagram.data() + 3, reinterpret_cast<const sockaddr*>(&area));
    if (block < 1)
        return;
    if (length > 0)
        std::memcpy(datagram.data() + 3 + block, data, static_cast<size_t>(length));
    const ssize_t sent = sendto(m_socket, datagram.data(), 3 + static_cast<size_t>(block) + static_cast<size_t>(length),
                                MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&client), clientLength);
    // With the SOCKS header in front, the largest datagrams no longer fit: dropped whole.
    if (sent < 0 && errno == EMSGSIZE) {
        m_connection.GetStats().Add(CProxyStats::UDP_DATAGRAMS_DROPPED);
        return;
    }
    m_connection.CountDatagram(false, static_cast<uint64_t>(length));
}

} // namespace Proxy
} // namespace ZRT
