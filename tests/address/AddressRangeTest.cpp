// Client allow-list blocks: what parses, and which peers each block takes in.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <string>

#include "proxy/address/CAddressRange.h"
#include "proxy/address/CDestinationRule.h"

namespace ZRT {
namespace Proxy {
namespace {

sockaddr_storage Peer(const char* text, unsigned short port = 0)
{
    sockaddr_storage storage{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
    if (inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
    } else if (inet_pton(AF_INET6, text, &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
    }
    return storage;
}

bool Takes(const std::string& block, const char* peer)
{
    CAddressRange range;
    EXPECT_TRUE(range.Parse(block)) << block;
    return range.Contains(Peer(peer));
}

TEST(AddressRangeTest, ParsesBlocksAndSingleAddressesOnly)
{
    for (const char* good : {"192.0.2.0/24", "10.0.0.0/8", "0.0.0.0/0", "192.0.2.7", "192.0.2.7/32", "::1",
                             "2001:db8::/32", "::/0", "2001:db8::1/128", "10.128.0.0/9"}) {
        CAddressRange range;
        EXPECT_TRUE(range.Parse(good)) << good;
    }
    for (const char* bad : {"", "/24", "192.0.2.0/", "192.0.2.0/33", "2001:db8::/129", "192.0.2.0/-1",
                            "192.0.2.0/2a", "192.0.2.0/24/8", "host.example", "192.0.2.0 /24", "1.2.3.4/0024",
                            "192.0.2.77/24", "10.0.0.1/8", "2001:db8::1/32"}) {
        CAddressRange range;
        EXPECT_FALSE(range.Parse(bad)) << bad;
    }
}

TEST(AddressRangeTest, MatchesByPrefixInEachFamily)
{
    EXPECT_TRUE(Takes("192.0.2.0/24", "192.0.2.255"));
    EXPECT_FALSE(Takes("192.0.2.0/24", "192.0.3.0"));
    EXPECT_TRUE(Takes("10.128.0.0/9", "10.255.1.1"));
    EXPECT_FALSE(Takes("10.128.0.0/9", "10.127.1.1"));
    EXPECT_TRUE(Takes("127.0.0.1", "127.0.0.1"));
    EXPECT_FALSE(Takes("127.0.0.1", "127.0.0.3"));
    EXPECT_TRUE(Takes("0.0.0.0/0", "203.0.113.9"));
    EXPECT_TRUE(Takes("2001:db8::/32", "2001:db8:ffff::1"));
    EXPECT_FALSE(Takes("2001:db8::/32", "2001:db9::1"));
    EXPECT_TRUE(Takes("::1", "::1"));
    // Families never mix, except an IPv4 client seen through a dual-stack socket.
    EXPECT_FALSE(Takes("::/0", "192.0.2.1"));
    EXPECT_FALSE(Takes("0.0.0.0/0", "2001:db8::1"));
    EXPECT_TRUE(Takes("192.0.2.0/24", "::ffff:192.0.2.5"));
    EXPECT_FALSE(Takes("192.0.2.0/24", "::ffff:192.0.3.5"));
    EXPECT_FALSE(Takes("192.0.2.0/24", "::192.0.2.5")); // not a mapped address
}

bool RuleTakes(const std::string& rule, const char* address, unsigned short port)
{
    CDestinationRule parsed;
    std::string error;
    EXPECT_TRUE(parsed.Parse(rule, error)) << rule << ": " << error;
    return parsed.Matches(Peer(address, port));
}

TEST(DestinationRuleTest, ParsesBlocksWithOptionalPortsInEitherFamily)
{
    for (const char* bad : {"", "10.0.0.1/8", "10.0.0.0/8:", "10.0.0.0/8:65536", "10.0.0.0/8:90-80", "10.0.0.0/8:8o",
                            "[::1", "::1/128:1-2-3", "host.invalid:80", "10.0.0.0/8:-5"}) {
        CDestinationRule rule;
        std::string error;
        EXPECT_FALSE(rule.Parse(bad, error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    // Without ports, every port; IPv4 ports after the address or the prefix.
    EXPECT_TRUE(RuleTakes("127.0.0.0/8", "127.9.9.9", 1));
    EXPECT_TRUE(RuleTakes("127.0.0.1:80", "127.0.0.1", 80));
    EXPECT_FALSE(RuleTakes("127.0.0.1:80", "127.0.0.1", 81));
    EXPECT_TRUE(RuleTakes("10.0.0.0/8:1000-2000", "10.1.2.3", 2000));
    EXPECT_FALSE(RuleTakes("10.0.0.0/8:1000-2000", "10.1.2.3", 999));
    EXPECT_FALSE(RuleTakes("10.0.0.0/8:1000-2000", "11.1.2.3", 1500));
    // A bare IPv6 address is all address; ports come after a prefix or a bracket.
    EXPECT_TRUE(RuleTakes("::1", "::1", 443));
    EXPECT_TRUE(RuleTakes("[::1]:443", "::1", 443));
    EXPECT_FALSE(RuleTakes("[::1]:443", "::1", 80));
    EXPECT_TRUE(RuleTakes("2001:db8::/32:443", "2001:db8:1::5", 443));
    EXPECT_FALSE(RuleTakes("2001:db8::/32:443", "2001:db8:1::5", 444));
    EXPECT_TRUE(RuleTakes("[2001:db8::]/32:80-90", "2001:db8::9", 85));
    // An IPv4 destination in its mapped form is still an IPv4 destination.
    EXPECT_TRUE(RuleTakes("127.0.0.0/8:22", "::ffff:127.0.0.1", 22));
}

} // namespace
} // namespace Proxy
} // namespace ZRT
