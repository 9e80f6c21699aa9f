#include "proxy/address/CAddressRange.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

namespace ZRT {
namespace Proxy {

namespace {
// True when the first `prefix` bits of a and b agree.
bool SamePrefix(const uint8_t* a, const uint8_t* b, int prefix)
{
    const int whole = prefix / 8;
    if (std::memcmp(a, b, static_cast<size_t>(whole)) != 0)
        return false;
    const int rest = prefix % 8;
    if (rest == 0)
        return true;
    const uint8_t mask = static_cast<uint8_t>(0xFF << (8 - rest));
    return (a[whole] & mask) == (b[whole] & mask);
}

bool HostBitsClear(const uint8_t* bytes, int prefix, int bits)
{
    for (int bit = prefix; bit < bits; ++bit) {
        if (bytes[bit / 8] & (0x80 >> (bit % 8)))
            return false;
    }
    return true;
}
} // namespace

bool CAddressRange::Parse(const std::string& text)
{
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    uint8_t bytes[16] = {};
    int family = AF_UNSPEC;
    if (inet_pton(AF_INET, address.c_str(), bytes) == 1)
        family = AF_INET;
    else if (inet_pton(AF_INET6, address.c_str(), bytes) == 1)
        family = AF_INET6;
    else
        return false;
    const int bits = family == AF_INET ? 32 : 128;
    int prefix = bits;
    if (slash != std::string::npos) {
        const std::string length = text.substr(slash + 1);
        if (length.empty() || length.size() > 3 || length.find_first_not_of("0123456789") != std::string::npos)
            return false;
        prefix = std::atoi(length.c_str());
        if (prefix > bits)
            return false;
    }
    if (!HostBitsClear(bytes, prefix, bits))
        return false;
    m_family = family;
    std::memcpy(m_bytes, bytes, sizeof(m_bytes));
    m_prefix = prefix;
    return true;
}

bool CAddressRange::Contains(const sockaddr_storage& address) const
{
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        return m_family == AF_INET && SamePrefix(reinterpret_cast<const uint8_t*>(&v4.sin_addr), m_bytes, m_prefix);
    }
    if (address.ss_family != AF_INET6)
        return false;
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    const auto* bytes = reinterpret_cast<const uint8_t*>(&v6.sin6_addr);
    if (m_family == AF_INET6)
        return SamePrefix(bytes, m_bytes, m_prefix);
    // An IPv4 client through a dual-stack socket.
    return m_family == AF_INET && IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) && SamePrefix(bytes + 12, m_bytes, m_prefix);
}

} // namespace Proxy
} // namespace ZRT
