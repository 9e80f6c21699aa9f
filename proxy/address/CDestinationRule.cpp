#include "proxy/address/CDestinationRule.h"

#include <netinet/in.h>

#include <cstdlib>

namespace ZRT {
namespace Proxy {

namespace {
bool ParsePort(const std::string& text, unsigned int& port)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const long value = std::strtol(text.c_str(), nullptr, 10);
    if (value > 65535)
        return false;
    port = static_cast<unsigned int>(value);
    return true;
}

unsigned int PortOf(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return 0;
}

// Splits "BLOCK:PORTS" where the colon is a port separator, and takes brackets off the block.
void SplitPorts(const std::string& text, std::string& block, std::string& ports, bool& hasPorts)
{
    block = text;
    hasPorts = false;
    if (!text.empty() && text[0] == '[') {
        // "[v6]", "[v6]/48", "[v6]:80", "[v6]/48:80-90"
        const size_t close = text.find(']');
        if (close == std::string::npos)
            return; // not a block: the parse says so
        const std::string after = text.substr(close + 1);
        const size_t colon = after.find(':');
        block = text.substr(1, close - 1) + after.substr(0, colon);
        if (colon == std::string::npos)
            return;
        ports = after.substr(colon + 1);
        hasPorts = true;
        return;
    }
    const size_t slash = text.find('/');
    const size_t colons = text.find(':');
    const bool ipv6 = colons != std::string::npos && text.find(':', colons + 1) != std::string::npos &&
                      (slash == std::string::npos || colons < slash);
    const size_t from = ipv6 ? slash : 0;
    if (ipv6 && slash == std::string::npos)
        return; // a bare IPv6 address has no ports
    const size_t colon = text.find(':', from);
    if (colon == std::string::npos)
        return;
    block = text.substr(0, colon);
    ports = text.substr(colon + 1);
    hasPorts = true;
}
} // namespace

bool CDestinationRule::Parse(const std::string& text, std::string& error)
{
    std::string block;
    std::string ports;
    bool hasPorts = false;
    SplitPorts(text, block, ports, hasPorts);
    CAddressRange range;
    if (!range.Parse(block)) {
        error = "'" + text + "' is not CIDR[:PORT[-PORT]] (an address block without host bits, such as 192.0.2.0/24:443)";
        return false;
    }
    unsigned int low = 0;
    unsigned int high = 65535;
    if (hasPorts) {
        const size_t dash = ports.find('-');
        const bool valid = dash == std::string::npos
                               ? ParsePort(ports, low) && ParsePort(ports, high)
                               : ParsePort(ports.substr(0, dash), low) && ParsePort(ports.substr(dash + 1), high);
        if (!valid || low > high) {
            error = "'" + text + "' has no valid port or port range (PORT or LOW-HIGH, 0 to 65535)";
            return false;
        }
    }
    m_range = range;
    m_lowPort = low;
    m_highPort = high;
    return true;
}

bool CDestinationRule::Matches(const sockaddr_storage& destination) const
{
    const unsigned int port = PortOf(destination);
    return port >= m_lowPort && port <= m_highPort && m_range.Contains(destination);
}

} // namespace Proxy
} // namespace ZRT
