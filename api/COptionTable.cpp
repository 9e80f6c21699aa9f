#include "api/COptionTable.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <iterator>

namespace ZRT {
namespace Api {

namespace {
// A decimal number in [low, high]; nothing else (no sign, no spaces, no suffix).
bool ParseNumber(const std::string& text, long low, long high, long& number)
{
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = std::strtol(text.c_str(), nullptr, 10);
    return number >= low && number <= high;
}

bool SetSeconds(const std::string& value, long high, int& milliseconds, std::string& error)
{
    long seconds = 0;
    if (!ParseNumber(value, 1, high, seconds)) {
        error = "'" + value + "' is not a number of seconds from 1 to " + std::to_string(high);
        return false;
    }
    milliseconds = static_cast<int>(seconds * 1000);
    return true;
}

bool SetListen(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    std::string address = value;
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    unsigned char bytes[16];
    if (inet_pton(AF_INET, address.c_str(), bytes) != 1 && inet_pton(AF_INET6, address.c_str(), bytes) != 1) {
        error = "'" + value + "' is not a numeric IPv4 or IPv6 address";
        return false;
    }
    settings.listen = address;
    return true;
}

bool SetPort(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    long port = 0;
    if (!ParseNumber(value, 0, 65535, port)) {
        error = "'" + value + "' is not a port from 0 to 65535";
        return false;
    }
    settings.port = static_cast<int>(port);
    return true;
}

bool SetBacklog(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    long backlog = 0;
    if (!ParseNumber(value, 1, 65535, backlog)) {
        error = "'" + value + "' is not a queue length from 1 to 65535";
        return false;
    }
    settings.listenBacklog = static_cast<int>(backlog);
    return true;
}

bool SetDnsServers(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    // The list itself is checked by the resolver at start; this keeps out what cannot be one.
    if (value.empty() || value.find_first_not_of("0123456789abcdefABCDEF.:[],") != std::string::npos) {
        error = "'" + value + "' is not a list of ADDR[:PORT] separated by commas";
        return false;
    }
    settings.host.dnsServers = value;
    return true;
}

bool SetThreads(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    long threads = 0;
    if (!ParseNumber(value, 1, 64, threads)) {
        error = "'" + value + "' is not a thread count from 1 to 64";
        return false;
    }
    settings.host.transportThreads = static_cast<int>(threads);
    return true;
}

const SEmbeddedSettings& Defaults()
{
    static const SEmbeddedSettings defaults;
    return defaults;
}

const COptionTable::SOption OPTIONS[] = {
    {"listen", "ADDR", "numeric IPv4 or IPv6 address to listen on (default 127.0.0.1)", SetListen,
     [](SEmbeddedSettings& s) { s.listen = Defaults().listen; }},
    {"port", "N", "TCP port to listen on; 0 picks a free one (default 1080)", SetPort,
     [](SEmbeddedSettings& s) { s.port = Defaults().port; }},
    {"listen-backlog", "N", "length of the queue of clients not yet accepted (default: the system's most)", SetBacklog,
     [](SEmbeddedSettings& s) { s.listenBacklog = Defaults().listenBacklog; }},
    {"dns-server", "LIST", "DNS servers to ask, ADDR[:PORT] separated by commas (default: /etc/resolv.conf)",
     SetDnsServers, [](SEmbeddedSettings& s) { s.host.dnsServers = Defaults().host.dnsServers; }},
    {"lookup-timeout", "SECONDS", "how long a name lookup may take (default 10)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 3600, s.host.lookupTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.host.lookupTimeoutMs = Defaults().host.lookupTimeoutMs; }},
    {"connect-timeout", "SECONDS", "how long connecting to a destination may take (default 10)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 3600, s.proxy.connectTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.connectTimeoutMs = Defaults().proxy.connectTimeoutMs; }},
    {"bind-timeout", "SECONDS", "how long a SOCKS5 BIND waits for its peer (default 120)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 86400, s.proxy.bindWaitMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.bindWaitMs = Defaults().proxy.bindWaitMs; }},
    {"transport-threads", "N", "threads that move bytes of outgoing sockets (default 2)", SetThreads,
     [](SEmbeddedSettings& s) { s.host.transportThreads = Defaults().host.transportThreads; }},
};
} // namespace

COptionTable::EResult COptionTable::Apply(SEmbeddedSettings& settings, const std::string& name, const char* value,
                                          std::string& error)
{
    const SOption* option = Find(name);
    if (!option) {
        error = "no option named '" + name + "'";
        return EResult::Unknown;
    }
    if (!value) {
        option->reset(settings);
        return EResult::Ok;
    }
    std::string reason;
    if (!option->set(settings, value, reason)) {
        error = name + ": " + reason;
        return EResult::BadValue;
    }
    return EResult::Ok;
}

const COptionTable::SOption* COptionTable::At(int index)
{
    if (index < 0 || index >= static_cast<int>(std::size(OPTIONS)))
        return nullptr;
    return &OPTIONS[index];
}

const COptionTable::SOption* COptionTable::Find(const std::string& name)
{
    for (const SOption& option : OPTIONS) {
        if (name == option.name)
            return &option;
    }
    return nullptr;
}

} // namespace Api
} // namespace ZRT
