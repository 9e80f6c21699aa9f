#include "proxy/socks5/CSocksAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Proxy {

namespace {
unsigned int ReadPort(const unsigned char* in)
{
    return static_cast<unsigned int>(in[0]) * 256 + in[1];
}

void WritePort(unsigned char* out, uint16_t networkPort)
{
    const uint16_t port = ntohs(networkPort);
    out[0] = static_cast<unsigned char>(port >> 8);
    out[1] = static_cast<unsigned char>(port & 0xFF);
}
} // namespace

unsigned int CSocksAddress::BlockLength(const unsigned char* block)
{
    switch (block[0]) {
    case ATYP_IPV4:
        return 7;
    case ATYP_DOMAIN:
        return 4u + block[1];
    case ATYP_IPV6:
        return 19;
    default:
        return 0;
    }
}

QOX::CRefCountPtr<IZRTConnectionAddress> CSocksAddress::DecodeNumeric(const unsigned char* block)
{
    if (block[0] == ATYP_IPV4)
        return QOX::CRefCountPtr<IZRTConnectionAddress>(
            new CTCPIPAddress(block[1], block[2], block[3], block[4], ReadPort(block + 5)));
    if (block[0] != ATYP_IPV6)
        return {};
    sockaddr_in6 v6;
    std::memset(&v6, 0, sizeof(v6));
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(static_cast<uint16_t>(ReadPort(block + 17)));
    std::memcpy(&v6.sin6_addr, block + 1, 16);
    auto* address = new CTCPIPAddress();
    QOX::CRefCountPtr<IZRTConnectionAddress> result(address);
    address->SetAddress(*reinterpret_cast<const sockaddr*>(&v6), sizeof(v6));
    return result;
}

std::string CSocksAddress::DomainKey(const unsigned char* block)
{
    const unsigned int nameLength = block[1];
    std::string text(reinterpret_cast<const char*>(block + 2), nameLength);
    char port[16];
    std::snprintf(port, sizeof(port), "%d", static_cast<int>(ReadPort(block + 2 + nameLength)));
    text += ":";
    text += port;
    return text;
}

int CSocksAddress::Encode(unsigned char* out, const sockaddr* address)
{
    if (address->sa_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof(v4));
        out[0] = ATYP_IPV4;
        std::memcpy(out + 1, &v4.sin_addr, 4);
        WritePort(out + 5, v4.sin_port);
        return 7;
    }
    if (address->sa_family == AF_INET6) {
        sockaddr_in6 v6;
        std::memcpy(&v6, address, sizeof(v6));
        out[0] = ATYP_IPV6;
        std::memcpy(out + 1, &v6.sin6_addr, 16);
        WritePort(out + 17, v6.sin6_port);
        return 19;
    }
    return -1;
}

std::string CSocksAddress::HostKey(const sockaddr* address)
{
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        return std::string(reinterpret_cast<const char*>(&v4->sin_addr), 4);
    }
    if (address->sa_family != AF_INET6)
        return {};
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr))
        return std::string(reinterpret_cast<const char*>(&v6->sin6_addr) + 12, 4);
    return std::string(reinterpret_cast<const char*>(&v6->sin6_addr), 16);
}

std::string CSocksAddress::HostKey(const IZRTConnectionAddress& address)
{
    sockaddr_storage storage{};
    int length = sizeof(storage);
    if (!address.GetSockAddr(reinterpret_cast<sockaddr*>(&storage), &length))
        return {};
    return HostKey(reinterpret_cast<const sockaddr*>(&storage));
}

} // namespace Proxy
} // namespace ZRT
