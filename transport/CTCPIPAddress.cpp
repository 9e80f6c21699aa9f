#include "transport/CTCPIPAddress.h"

#include <arpa/inet.h>

#include <cstring>

namespace ZRT {

CTCPIPAddress::CTCPIPAddress()
{
    std::memset(&m_address, 0, sizeof(m_address));
}

CTCPIPAddress::CTCPIPAddress(unsigned char a, unsigned char b, unsigned char c, unsigned char d, unsigned int port)
    : CTCPIPAddress()
{
    auto* v4 = reinterpret_cast<sockaddr_in*>(&m_address);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    const unsigned char bytes[4] = {a, b, c, d};
    std::memcpy(&v4->sin_addr, bytes, 4);
    m_length = sizeof(sockaddr_in);
}

CTCPIPAddress::CTCPIPAddress(const CTCPIPAddress& other)
    : QOX::CRefCountImpl<IZRTConnectionAddress>(other), m_address(other.m_address), m_length(other.m_length),
      m_alternatives(other.m_alternatives)
{
}

CTCPIPAddress& CTCPIPAddress::operator=(const CTCPIPAddress& other)
{
    m_address = other.m_address;
    m_length = other.m_length;
    m_alternatives = other.m_alternatives;
    return *this;
}

namespace {
void SetPort(sockaddr_storage& address, unsigned int port)
{
    if (address.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in&>(address).sin_port = htons(static_cast<uint16_t>(port));
    else if (address.ss_family == AF_INET6)
        reinterpret_cast<sockaddr_in6&>(address).sin6_port = htons(static_cast<uint16_t>(port));
}
} // namespace

void CTCPIPAddress::SetAlternatives(const std::vector<sockaddr_storage>& alternatives)
{
    m_alternatives.clear();
    for (const sockaddr_storage& address : alternatives) {
        if (m_alternatives.size() == MAX_ALTERNATIVES)
            break;
        if (address.ss_family == AF_INET || address.ss_family == AF_INET6)
            m_alternatives.push_back(address);
    }
}

QOX::CRefCountPtr<IZRTConnectionAddress> CTCPIPAddress::WithPort(unsigned int port) const
{
    auto* copy = new CTCPIPAddress(*this);
    QOX::CRefCountPtr<IZRTConnectionAddress> held(copy);
    SetPort(copy->m_address, port);
    for (sockaddr_storage& alternative : copy->m_alternatives)
        SetPort(alternative, port);
    return held;
}

CTCPIPAddress::~CTCPIPAddress() = default;

QOX::CRefCountPtr<IZRTConnectionAddress> CTCPIPAddress::FromText(const char* host, unsigned int port)
{
    sockaddr_storage storage{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    unsigned int length = 0;
    if (inet_pton(AF_INET, host, &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, host, &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in6);
    } else {
        return {};
    }
    auto* address = new CTCPIPAddress();
    QOX::CRefCountPtr<IZRTConnectionAddress> result(address);
    address->SetAddress(*reinterpret_cast<sockaddr*>(&storage), length);
    return result;
}

bool CTCPIPAddress::SetAddress(const sockaddr& address, unsigned int length)
{
    unsigned int needed = 0;
    if (address.sa_family == AF_INET)
        needed = sizeof(sockaddr_in);
    else if (address.sa_family == AF_INET6)
        needed = sizeof(sockaddr_in6);
    if (needed == 0 || length < needed)
        return false;
    std::memset(&m_address, 0, sizeof(m_address));
    std::memcpy(&m_address, &address, needed);
    m_length = needed;
    return true;
}

IZRTConnectionAddress* CTCPIPAddress::Clone() const
{
    return new CTCPIPAddress(*this);
}

int CTCPIPAddress::GetFamily() const
{
    return m_length == 0 ? AF_UNSPEC : m_address.ss_family;
}

unsigned int CTCPIPAddress::GetPortNumber() const
{
    if (GetFamily() == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in*>(&m_address)->sin_port);
    if (GetFamily() == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&m_address)->sin6_port);
    return 0;
}

std::string CTCPIPAddress::ToString() const
{
    char text[INET6_ADDRSTRLEN] = "";
    if (GetFamily() == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&m_address)->sin_addr, text, sizeof(text));
        return std::string(text) + ":" + std::to_string(GetPortNumber());
    }
    if (GetFamily() == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&m_address)->sin6_addr, text, sizeof(text));
        return "[" + std::string(text) + "]:" + std::to_string(GetPortNumber());
    }
    return std::string();
}

bool CTCPIPAddress::IsEqual(const IZRTConnectionAddress& other) const
{
    sockaddr_storage theirs{};
    int length = sizeof(theirs);
    if (!other.GetSockAddr(reinterpret_cast<sockaddr*>(&theirs), &length))
        return m_length == 0;
    return static_cast<socklen_t>(length) == m_length && std::memcmp(&theirs, &m_address, m_length) == 0;
}

bool CTCPIPAddress::GetSockAddr(sockaddr* address, int* length) const
{
    if (!address || !length || m_length == 0 || *length < static_cast<int>(m_length))
        return false;
    std::memcpy(address, &m_address, m_length);
    *length = static_cast<int>(m_length);
    return true;
}

} // namespace ZRT
