#pragma once

#include <sys/socket.h>

#include <string>

#include "proxy/address/CAddressRange.h"

namespace ZRT {
namespace Proxy {

// One destination rule as an operator writes it: an address block with an optional port range,
// "CIDR[:PORT[-PORT]]". An IPv6 block carries ports only after a prefix or in brackets
// ("2001:db8::/32:443", "[::1]:80", "[::1]/128:80-90"), since "::1:80" is an address itself.
class CDestinationRule {
public:
    // False with the reason for anything else (a block with host bits set, a port out of range, a
    // range that runs backwards).
    bool Parse(const std::string& text, std::string& error);
    // The address and port of a destination (sockaddr_in or sockaddr_in6).
    bool Matches(const sockaddr_storage& destination) const;

private:
    CAddressRange m_range;
    unsigned int m_lowPort = 0;
    unsigned int m_highPort = 65535;
};

} // namespace Proxy
} // namespace ZRT
