#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>

namespace ZRT {
namespace Proxy {

// A block of IPv4 or IPv6 addresses in CIDR form ("192.0.2.0/24", "2001:db8::/32"; a bare
// address is a block of one). An IPv4 client seen through a dual-stack socket (::ffff:a.b.c.d)
// matches IPv4 blocks.
class CAddressRange {
public:
    // False (and the range unchanged) for anything that is not such a block, including one with
    // host bits set below the prefix ("10.0.0.1/8"): that is a typing error more often than not,
    // and the block it would stand for is not what was written.
    bool Parse(const std::string& text);
    bool Contains(const sockaddr_storage& address) const;

private:
    int m_family = AF_UNSPEC;
    uint8_t m_bytes[16] = {};
    int m_prefix = 0;
};

} // namespace Proxy
} // namespace ZRT
