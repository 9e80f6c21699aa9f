#include "api/COptionTable.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <vector>

#include "api/CUsersFile.h"
#include "proxy/address/CAddressRange.h"
#include "proxy/address/CDestinationRule.h"
#include "transport/CSocketUtils.h"

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

bool SetSeconds(const std::string& value, long low, long high, int& milliseconds, std::string& error)
{
    long seconds = 0;
    if (!ParseNumber(value, low, high, seconds)) {
        error = "'" + value + "' is not a number of seconds from " + std::to_string(low) + " to " + std::to_string(high);
        return false;
    }
    milliseconds = static_cast<int>(seconds * 1000);
    return true;
}

bool SetCount(const std::string& value, long high, int& count, std::string& error, long low = 0)
{
    long number = 0;
    if (!ParseNumber(value, low, high, number)) {
        error = "'" + value + "' is not a number from " + std::to_string(low) + " to " + std::to_string(high);
        return false;
    }
    count = static_cast<int>(number);
    return true;
}

bool IsNumericAddress(const std::string& text, int& family)
{
    unsigned char bytes[16];
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1)
        family = AF_INET;
    else if (inet_pton(AF_INET6, text.c_str(), bytes) == 1)
        family = AF_INET6;
    else
        return false;
    return true;
}

const char AUTH_NONE[] = "none";

bool SetUser(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    if (value == AUTH_NONE) {
        if (!settings.users.empty() || !settings.usersFile.empty()) {
            error = "'none' cannot be combined with users (auth USER:PASSWORD, auth-file)";
            return false;
        }
        settings.authNone = true;
        return true;
    }
    if (settings.authNone) {
        error = "a user cannot be combined with auth none";
        return false;
    }
    std::string user;
    std::string password;
    if (!CUsersFile::ParseEntry(value, user, password, error))
        return false;
    settings.users[user] = password;
    return true;
}

bool SetUsersFile(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    if (settings.authNone) {
        error = "a users file cannot be combined with auth none";
        return false;
    }
    // Read now, so that a bad file is reported where it is named; read again at start.
    CUsersFile::Users users;
    if (!CUsersFile::Read(value, users, error))
        return false;
    settings.usersFile = value;
    return true;
}

bool AddAddressRange(std::vector<std::string>& ranges, const std::string& value, std::string& error)
{
    Proxy::CAddressRange range;
    if (!range.Parse(value)) {
        error = "'" + value + "' is not an address block such as 192.0.2.0/24 or 2001:db8::/32";
        return false;
    }
    ranges.push_back(value);
    return true;
}

bool SetAllow(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    return AddAddressRange(settings.proxy.allow, value, error);
}

bool AddDestinationRule(std::vector<std::string>& rules, const std::string& value, std::string& error)
{
    Proxy::CDestinationRule rule;
    if (!rule.Parse(value, error))
        return false;
    rules.push_back(value);
    return true;
}

bool SetOutgoingAddress(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    int family = AF_UNSPEC;
    if (!IsNumericAddress(value, family)) {
        error = "'" + value + "' is not a numeric IPv4 or IPv6 address";
        return false;
    }
    (family == AF_INET ? settings.host.outgoingIPv4 : settings.host.outgoingIPv6) = value;
    return true;
}

bool SetOutgoingInterface(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    if (value.empty() || value.size() >= 16 || value.find_first_of("/ \t") != std::string::npos) {
        error = "'" + value + "' is not a network interface name";
        return false;
    }
    settings.host.outgoingInterface = value;
    return true;
}

bool SetAccessLog(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    if (value.empty()) {
        error = "give a file name, or - for standard output";
        return false;
    }
    settings.accessLog = value;
    return true;
}

bool SetLogLevel(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    static const char* const LEVELS[] = {"error", "warning", "info", "debug"};
    for (int level = 0; level < 4; ++level) {
        if (value == LEVELS[level]) {
            settings.logLevel = level + 1; // ZRT_LOG_ERROR is 1
            return true;
        }
    }
    error = "'" + value + "' is not one of error, warning, info, debug";
    return false;
}

bool SetMetrics(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    // ADDR:PORT, or [ADDR]:PORT for IPv6.
    const size_t colon = value.rfind(':');
    const std::string address =
        CSocketUtils::StripBrackets(colon == std::string::npos ? std::string() : value.substr(0, colon));
    long port = 0;
    int family = AF_UNSPEC;
    if (colon == std::string::npos || !IsNumericAddress(address, family) ||
        !ParseNumber(value.substr(colon + 1), 0, 65535, port)) {
        error = "'" + value + "' is not ADDR:PORT with a numeric address ([ADDR]:PORT for IPv6)";
        return false;
    }
    settings.metricsAddress = address;
    settings.metricsPort = static_cast<int>(port);
    return true;
}

bool SetMetricsAllow(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    Proxy::CAddressRange range;
    if (!range.Parse(value)) {
        error = "'" + value + "' is not an address block such as 127.0.0.0/8 or ::1 (no host bits below the prefix)";
        return false;
    }
    settings.metricsAllow.push_back(value);
    return true;
}

bool SetListen(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    std::string address = CSocketUtils::StripBrackets(value);
    int family = AF_UNSPEC;
    if (!IsNumericAddress(address, family)) {
        error = "'" + value + "' is not a numeric IPv4 or IPv6 address";
        return false;
    }
    // One form per address: the same one given again (a host setting its options anew before
    // each start) adds no second socket.
    unsigned char bytes[16];
    char text[INET6_ADDRSTRLEN];
    inet_pton(family, address.c_str(), bytes);
    address = inet_ntop(family, bytes, text, sizeof(text));
    if (std::find(settings.listen.begin(), settings.listen.end(), address) != settings.listen.end())
        return true;
    if (settings.listen.size() >= SEmbeddedSettings::MAX_LISTEN) {
        error = "at most " + std::to_string(SEmbeddedSettings::MAX_LISTEN) + " addresses";
        return false;
    }
    settings.listen.push_back(address);
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

bool SetSocks4(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    if (value != "deny" && value != "allow") {
        error = "'" + value + "' is neither deny nor allow";
        return false;
    }
    settings.proxy.socks4WithUsers = value == "allow";
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

const SEmbeddedSettings& Defaults()
{
    static const SEmbeddedSettings defaults;
    return defaults;
}

const COptionTable::SOption OPTIONS[] = {
    {"listen", COptionTable::REPEATABLE, "ADDR",
     "numeric IPv4 or IPv6 address to listen on, a socket each, all on the same port (default 127.0.0.1)", SetListen,
     [](SEmbeddedSettings& s) { s.listen.clear(); }},
    {"port", 0, "N", "TCP port to listen on; 0 picks a free one for each address (default 1080)", SetPort,
     [](SEmbeddedSettings& s) { s.port = Defaults().port; }},
    {"listen-backlog", 0, "N", "length of the queue of clients not yet accepted (default: the system's most)",
     SetBacklog, [](SEmbeddedSettings& s) { s.listenBacklog = Defaults().listenBacklog; }},
    {"auth", COptionTable::REPEATABLE | COptionTable::LIVE, "USER:PASSWORD",
     "a user who may use the proxy (PASSWORD may be a crypt(3) hash); with any user, every client must "
     "authenticate; 'none': no users, on purpose (default: no users)",
     SetUser, [](SEmbeddedSettings& s) { s.users.clear(), s.authNone = false; }},
    {"auth-file", COptionTable::LIVE, "FILE",
     "more users, one user:password (or user:HASH) per line, # for comments; read again on reload; a file "
     "without users is an error",
     SetUsersFile, [](SEmbeddedSettings& s) { s.usersFile.clear(); }},
    {"socks4", COptionTable::LIVE, "deny|allow",
     "SOCKS4 and 4A clients (which send no password) while there are users: deny refuses them, allow serves "
     "them without a password (default deny)",
     SetSocks4, [](SEmbeddedSettings& s) { s.proxy.socks4WithUsers = Defaults().proxy.socks4WithUsers; }},
    {"allow", COptionTable::REPEATABLE | COptionTable::LIVE, "CIDR",
     "clients allowed in (192.0.2.0/24, 2001:db8::/32, or one address); others are closed at once (default: all)",
     SetAllow, [](SEmbeddedSettings& s) { s.proxy.allow.clear(); }},
    {"proxy-protocol-from", COptionTable::REPEATABLE | COptionTable::LIVE, "CIDR",
     "load balancers whose clients start with a PROXY protocol header (v1 or v2) naming the real client, "
     "who is then judged and logged (default: none)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return AddAddressRange(s.proxy.proxyProtocolFrom, v, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.proxyProtocolFrom.clear(); }},
    {"max-clients", COptionTable::LIVE, "N", "most clients served at once, more are closed at accept; 0 for no limit (default 0)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) { return SetCount(v, 1000000, s.proxy.maxClients, e); },
     [](SEmbeddedSettings& s) { s.proxy.maxClients = Defaults().proxy.maxClients; }},
    {"max-clients-per-source", COptionTable::LIVE, "N",
     "most clients from one address served at once, more are closed at accept; 0 for no limit (default 0)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetCount(v, 1000000, s.proxy.maxClientsPerSource, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.maxClientsPerSource = Defaults().proxy.maxClientsPerSource; }},
    {"handshake-timeout", COptionTable::LIVE, "SECONDS",
     "close a client that has not sent a whole request in this time; 0 for never (default 0)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 0, 86400, s.proxy.handshakeTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.handshakeTimeoutMs = Defaults().proxy.handshakeTimeoutMs; }},
    {"idle-timeout", COptionTable::LIVE, "SECONDS", "close a connection that moved no byte for this long; 0 for never (default 0)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 0, 864000, s.proxy.idleTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.idleTimeoutMs = Defaults().proxy.idleTimeoutMs; }},
    {"linger-timeout", COptionTable::LIVE, "SECONDS",
     "after a client has gone, how long its last bytes may take to reach the destination; 0 for no limit (default 30)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 0, 86400, s.proxy.lingerTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.lingerTimeoutMs = Defaults().proxy.lingerTimeoutMs; }},
    {"allow-destination", COptionTable::REPEATABLE | COptionTable::LIVE, "CIDR[:PORT[-PORT]]",
     "destinations that may be reached; with any, no others (default: all but this machine when listening "
     "beyond loopback)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return AddDestinationRule(s.proxy.allowDestinations, v, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.allowDestinations.clear(); }},
    {"deny-destination", COptionTable::REPEATABLE | COptionTable::LIVE, "CIDR[:PORT[-PORT]]",
     "destinations that are refused, whatever allow-destination says (default: none)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return AddDestinationRule(s.proxy.denyDestinations, v, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.denyDestinations.clear(); }},
    {"http-keep-alive", COptionTable::LIVE, "SECONDS",
     "keep HTTP client and origin connections open between requests this long; 0 for one request per "
     "connection (default 0)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 0, 3600, s.proxy.httpKeepAliveMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.httpKeepAliveMs = Defaults().proxy.httpKeepAliveMs; }},
    {"connect-timeout", COptionTable::LIVE, "SECONDS", "how long connecting to a destination may take (default 10)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 1, 3600, s.proxy.connectTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.connectTimeoutMs = Defaults().proxy.connectTimeoutMs; }},
    {"bind-timeout", COptionTable::LIVE, "SECONDS", "how long a SOCKS BIND waits for its peer (default 120)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 1, 86400, s.proxy.bindWaitMs, e);
     },
     [](SEmbeddedSettings& s) { s.proxy.bindWaitMs = Defaults().proxy.bindWaitMs; }},
    {"dns-server", 0, "LIST", "DNS servers to ask, ADDR[:PORT] separated by commas (default: /etc/resolv.conf)",
     SetDnsServers, [](SEmbeddedSettings& s) { s.host.dnsServers = Defaults().host.dnsServers; }},
    {"lookup-timeout", 0, "SECONDS", "how long a name lookup may take (default 10)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetSeconds(v, 1, 3600, s.host.lookupTimeoutMs, e);
     },
     [](SEmbeddedSettings& s) { s.host.lookupTimeoutMs = Defaults().host.lookupTimeoutMs; }},
    {"outgoing-address", COptionTable::REPEATABLE, "ADDR",
     "source address of connections and datagrams to destinations, one per family (default: the system's choice)",
     SetOutgoingAddress, [](SEmbeddedSettings& s) { s.host.outgoingIPv4.clear(), s.host.outgoingIPv6.clear(); }},
    {"outgoing-interface", 0, "NAME", "network interface for traffic to destinations (SO_BINDTODEVICE; default: any)",
     SetOutgoingInterface, [](SEmbeddedSettings& s) { s.host.outgoingInterface.clear(); }},
    {"threads", 0, "N", "threads that accept and serve clients, many each; 0 for half the CPUs, at most 16 (default 0)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) { return SetCount(v, 64, s.proxy.eventThreads, e); },
     [](SEmbeddedSettings& s) { s.proxy.eventThreads = Defaults().proxy.eventThreads; }},
    {"connect-helpers", 0, "N",
     "most threads asking a host whose connects block, at once (C++ hosts with such a transport; default 16)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetCount(v, 1024, s.proxy.connectHelpers, e, 1);
     },
     [](SEmbeddedSettings& s) { s.proxy.connectHelpers = Defaults().proxy.connectHelpers; }},
    {"transport-threads", 0, "N", "threads that move bytes of outgoing sockets (default 2)",
     [](SEmbeddedSettings& s, const std::string& v, std::string& e) {
         return SetCount(v, 64, s.host.transportThreads, e, 1);
     },
     [](SEmbeddedSettings& s) { s.host.transportThreads = Defaults().host.transportThreads; }},
    {"access-log", COptionTable::LIVE, "FILE",
     "a line per finished connection, to FILE (- for standard output); reopened on reload (default: none)",
     SetAccessLog, [](SEmbeddedSettings& s) { s.accessLog.clear(); }},
    {"log-level", COptionTable::LIVE, "LEVEL", "error, warning, info or debug: the most detail logged (default debug)",
     SetLogLevel, [](SEmbeddedSettings& s) { s.logLevel = Defaults().logLevel; }},
    {"metrics", 0, "ADDR:PORT", "serve the counters for Prometheus at http://ADDR:PORT/metrics (default: off)",
     SetMetrics, [](SEmbeddedSettings& s) { s.metricsAddress.clear(), s.metricsPort = 0; }},
    {"metrics-allow", COptionTable::REPEATABLE, "CIDR",
     "scrapers let in to the metrics listener; others are closed at once (default: loopback, 127.0.0.0/8 and ::1)",
     SetMetricsAllow, [](SEmbeddedSettings& s) { s.metricsAllow.clear(); }},
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
