#pragma once

#include <string>

namespace ZRT {
namespace Host {

// How the direct host services are set up.
struct SDirectHostSettings {
    int transportThreads = 2;
    // Local addresses that BIND listeners use, per family.
    std::string bindIPv4 = "127.0.0.1";
    std::string bindIPv6 = "::1";
    // DNS servers to ask instead of the system's ("ADDR[:PORT],..."); empty: /etc/resolv.conf.
    std::string dnsServers;
    // How long a name lookup may take before it counts as failed.
    int lookupTimeoutMs = 10000;
};

} // namespace Host
} // namespace ZRT
