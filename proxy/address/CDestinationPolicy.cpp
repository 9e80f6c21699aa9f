#include "proxy/address/CDestinationPolicy.h"

#include <netinet/in.h>

#include <algorithm>

#include "proxy/address/CAddressManager.h"

namespace ZRT {
namespace Proxy {

namespace {
unsigned int PortOf(const sockaddr_storage& address)
{
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return 0;
}

bool ParseAll(const std::vector<std::string>& texts, std::vector<CDestinationRule>& rules, std::string& error)
{
    for (const std::string& text : texts) {
        CDestinationRule rule;
        if (!rule.Parse(text, error))
            return false;
        rules.push_back(rule);
    }
    return true;
}
} // namespace

bool CDestinationPolicy::Build(const std::vector<std::string>& allow, const std::vector<std::string>& deny,
                               const std::vector<unsigned int>& privatePorts, std::string& error)
{
    std::vector<CDestinationRule> allowRules;
    std::vector<CDestinationRule> denyRules;
    if (!ParseAll(allow, allowRules, error) || !ParseAll(deny, denyRules, error))
        return false;
    m_allow.swap(allowRules);
    m_deny.swap(denyRules);
    m_privatePorts = privatePorts;
    return true;
}

bool CDestinationPolicy::AnyMatches(const std::vector<CDestinationRule>& rules, const sockaddr_storage& destination)
{
    return std::any_of(rules.begin(), rules.end(),
                       [&](const CDestinationRule& rule) { return rule.Matches(destination); });
}

bool CDestinationPolicy::Allows(const sockaddr_storage& destination, CAddressManager& addresses,
                                bool listensBeyondLoopback) const
{
    const unsigned int port = PortOf(destination);
    const bool privatePort = std::find(m_privatePorts.begin(), m_privatePorts.end(), port) != m_privatePorts.end();
    if (privatePort && addresses.IsThisMachine(destination))
        return false;
    if (AnyMatches(m_deny, destination))
        return false;
    if (!m_allow.empty())
        return AnyMatches(m_allow, destination);
    return !listensBeyondLoopback || !addresses.IsThisMachine(destination);
}

} // namespace Proxy
} // namespace ZRT
