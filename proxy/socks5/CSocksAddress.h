#pragma once

#include <sys/socket.h>

#include <string>

#include "runtime/CRefCountPtr.h"
#include "transport/IZRTConnectionAddress.h"

namespace ZRT {
namespace Proxy {

// The SOCKS5 address block (RFC 1928): ATYP, the address, the port, as it appears in requests,
// replies and UDP headers.
class CSocksAddress {
public:
    enum EType { ATYP_IPV4 = 1, ATYP_DOMAIN = 3, ATYP_IPV6 = 4 };
    // VER CMD RSV, then the longest block: ATYP, length, 255 name bytes, port.
    static constexpr unsigned int MAX_REQUEST_LENGTH = 3 + 4 + 255;

    // Length of the block that starts at ATYP, or 0 for an unknown type. For a domain name the
    // length byte block[1] must be readable.
    static unsigned int BlockLength(const unsigned char* block);
    // The address of a complete IPv4 or IPv6 block; empty for a name or an unknown type.
    static QOX::CRefCountPtr<IZRTConnectionAddress> DecodeNumeric(const unsigned char* block);
    // A complete domain-name block as the address manager's key: the name, ":" and the port.
    static std::string DomainKey(const unsigned char* block);
    // Writes the block of an IPv4 or IPv6 socket address; the count, or -1 for another family.
    static int Encode(unsigned char* out, const sockaddr* address);
    // The host part of an IPv4 or IPv6 socket address in one comparable form (IPv4-mapped IPv6
    // as IPv4); empty for another family.
    static std::string HostKey(const sockaddr* address);
    static std::string HostKey(const IZRTConnectionAddress& address);
};

} // namespace Proxy
} // namespace ZRT
