#include "host/CDirectHostOptions.h"

#include <sys/socket.h>

namespace ZRT {
namespace Host {

namespace {
using Text = COptionText;

const SDirectHostSettings& Defaults()
{
    static const SDirectHostSettings defaults;
    return defaults;
}

bool SetOutgoingAddress(SDirectHostSettings& settings, const std::string& value, std::string& error)
{
    int family = AF_UNSPEC;
    if (!Text::IsNumericAddress(value, family)) {
        error = "'" + value + "' is not a numeric IPv4 or IPv6 address";
        return false;
    }
    (family == AF_INET ? settings.outgoingIPv4 : settings.outgoingIPv6) = value;
    return true;
}

bool SetOutgoingInterface(SDirectHostSettings& settings, const std::string& value, std::string& error)
{
    if (value.empty() || value.size() >= 16 || value.find_first_of("/ \t") != std::string::npos) {
        error = "'" + value + "' is not a network interface name";
        return false;
    }
    settings.outgoingInterface = value;
    return true;
}

bool SetDnsServers(SDirectHostSettings& settings, const std::string& value, std::string& error)
{
    // The list itself is checked by the resolver at start; this keeps out what cannot be one.
    if (value.empty() || value.find_first_not_of("0123456789abcdefABCDEF.:[],") != std::string::npos) {
        error = "'" + value + "' is not a list of ADDR[:PORT] separated by commas";
        return false;
    }
    settings.dnsServers = value;
    return true;
}

const CDirectHostOptions::SOption OPTIONS[] = {
    {"dns-server", 0, "LIST", "DNS servers to ask, ADDR[:PORT] separated by commas (default: /etc/resolv.conf)",
     SetDnsServers, [](SDirectHostSettings& s) { s.dnsServers = Defaults().dnsServers; }},
    {"lookup-timeout", 0, "SECONDS", "how long a name lookup may take (default 10)",
     [](SDirectHostSettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 1, 3600, s.lookupTimeoutMs, e);
     },
     [](SDirectHostSettings& s) { s.lookupTimeoutMs = Defaults().lookupTimeoutMs; }},
    {"outgoing-address", Text::REPEATABLE, "ADDR",
     "source address of connections and datagrams to destinations, one per family (default: the system's choice)",
     SetOutgoingAddress, [](SDirectHostSettings& s) { s.outgoingIPv4.clear(), s.outgoingIPv6.clear(); }},
    {"outgoing-interface", 0, "NAME", "network interface for traffic to destinations (SO_BINDTODEVICE; default: any)",
     SetOutgoingInterface, [](SDirectHostSettings& s) { s.outgoingInterface.clear(); }},
    {"upstream", 0, "URL",
     "a parent proxy for every TCP connection to a destination (and, for SOCKS5, UDP datagrams), "
     "socks5://[USER:PASSWORD@]ADDR:PORT, socks5h://... (the parent resolves names) or "
     "http://[USER:PASSWORD@]ADDR:PORT, by numeric address (default: none, direct)",
     [](SDirectHostSettings& s, const std::string& v, std::string& e) { return s.upstream.SetUrl(v, e); },
     [](SDirectHostSettings& s) { s.upstream.ClearUrl(); }},
    {"upstream-bypass", Text::REPEATABLE, "CIDR",
     "destinations connected directly, not through the upstream (default: none)",
     [](SDirectHostSettings& s, const std::string& v, std::string& e) { return s.upstream.AddBypass(v, e); },
     [](SDirectHostSettings& s) { s.upstream.ClearBypass(); }},
    {"transport-threads", 0, "N", "threads that move bytes of outgoing sockets (default 2)",
     [](SDirectHostSettings& s, const std::string& v, std::string& e) {
         return Text::SetCount(v, 1, 64, s.transportThreads, e);
     },
     [](SDirectHostSettings& s) { s.transportThreads = Defaults().transportThreads; }},
};
} // namespace

COptionText::EResult CDirectHostOptions::Apply(SDirectHostSettings& settings, const std::string& name,
                                               const char* value, std::string& error)
{
    return COptionText::Apply(Find(name), settings, name, value, error);
}

const CDirectHostOptions::SOption* CDirectHostOptions::Find(const std::string& name)
{
    return COptionText::Find(OPTIONS, name);
}

} // namespace Host
} // namespace ZRT
