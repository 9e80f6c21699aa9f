#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

#include "proxy/address/CDestinationRule.h"

namespace ZRT {
namespace Proxy {

class CAddressManager;

// Which destinations a proxy's clients may reach, judged on the resolved address and port of
// every destination (CONNECT, BIND peers, each datagram, HTTP requests):
//  - this machine's private ports (the metrics listener) on any of its addresses: never;
//  - a destination a deny rule matches: never;
//  - with allow rules, only what one of them matches;
//  - without, everything but this machine itself (every loopback, unspecified and interface
//    address) while the proxy listens beyond loopback: clients on a network must not reach the
//    services that this machine keeps to itself.
// Immutable once built; any thread.
class CDestinationPolicy {
public:
    // False with the reason when a rule does not parse.
    bool Build(const std::vector<std::string>& allow, const std::vector<std::string>& deny,
               const std::vector<unsigned int>& privatePorts, std::string& error);
    bool Allows(const sockaddr_storage& destination, CAddressManager& addresses, bool listensBeyondLoopback) const;

private:
    static bool AnyMatches(const std::vector<CDestinationRule>& rules, const sockaddr_storage& destination);

    std::vector<CDestinationRule> m_allow;
    std::vector<CDestinationRule> m_deny;
    std::vector<unsigned int> m_privatePorts;
};

} // namespace Proxy
} // namespace ZRT
