#include "proxy/core/CProxyOptions.h"

#include "proxy/address/CAddressRange.h"
#include "proxy/address/CDestinationRule.h"
#include "proxy/auth/CCredentials.h"

namespace ZRT {
namespace Proxy {

namespace {
using Text = COptionText;

const SProxySettings& Defaults()
{
    static const SProxySettings defaults;
    return defaults;
}

bool SetUser(SProxySettings& settings, const std::string& value, std::string& error)
{
    std::string user;
    std::string password;
    if (!CCredentials::ParseEntry(value, user, password, error))
        return false;
    // Never taken as the password itself; only the C interface checks hashes (libcrypt).
    if (CCredentials::LooksLikeHash(password) &&
        !(settings.passwordVerifier && settings.passwordVerifier->Recognizes(password))) {
        error = "the password of '" + user + "' is a crypt(3) hash, which only the C interface checks";
        return false;
    }
    settings.users[user] = password;
    return true;
}

bool AddAddressRange(std::vector<std::string>& ranges, const std::string& value, std::string& error)
{
    CAddressRange range;
    if (!range.Parse(value)) {
        error = "'" + value + "' is not an address block such as 192.0.2.0/24 or 2001:db8::/32";
        return false;
    }
    ranges.push_back(value);
    return true;
}

bool SetSocks4(SProxySettings& settings, const std::string& value, std::string& error)
{
    if (value != "deny" && value != "allow") {
        error = "'" + value + "' is neither deny nor allow";
        return false;
    }
    settings.socks4WithUsers = value == "allow";
    return true;
}

bool SetSwitch(bool& setting, const std::string& value, std::string& error)
{
    if (value != "on" && value != "off") {
        error = "'" + value + "' is neither on nor off";
        return false;
    }
    setting = value == "on";
    return true;
}

bool AddDestinationRule(std::vector<std::string>& rules, const std::string& value, std::string& error)
{
    CDestinationRule rule;
    if (!rule.Parse(value, error))
        return false;
    rules.push_back(value);
    return true;
}

const CProxyOptions::SOption OPTIONS[] = {
    {"auth", Text::REPEATABLE | Text::LIVE, "USER:PASSWORD",
     "a user who may use the proxy; with any user, every client must authenticate (default: no users)", SetUser,
     [](SProxySettings& s) { s.users.clear(); }},
    {"allow", Text::REPEATABLE | Text::LIVE, "CIDR",
     "clients allowed in (192.0.2.0/24, 2001:db8::/32, or one address); others are closed at once (default: all)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return AddAddressRange(s.allow, v, e); },
     [](SProxySettings& s) { s.allow.clear(); }},
    {"socks4", Text::LIVE, "deny|allow",
     "SOCKS4 and 4A clients (which send no password) while there are users: deny refuses them, allow serves "
     "them without a password (default deny)",
     SetSocks4, [](SProxySettings& s) { s.socks4WithUsers = Defaults().socks4WithUsers; }},
    {"socks5-precise-replies", Text::LIVE, "on|off",
     "SOCKS5 replies say why a connect failed (3 network, 4 host or name unreachable, 5 refused, 6 timed "
     "out) instead of 5 for every failure and 8 for a name unknown (default off)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return SetSwitch(s.socks5PreciseReplies, v, e); },
     [](SProxySettings& s) { s.socks5PreciseReplies = Defaults().socks5PreciseReplies; }},
    {"proxy-protocol-from", Text::REPEATABLE | Text::LIVE, "CIDR",
     "load balancers whose clients start with a PROXY protocol header (v1 or v2) naming the real client, "
     "who is then judged and logged (default: none)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return AddAddressRange(s.proxyProtocolFrom, v, e); },
     [](SProxySettings& s) { s.proxyProtocolFrom.clear(); }},
    {"max-clients", Text::LIVE, "N", "most clients served at once, more are closed at accept; 0 for no limit (default 0)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return Text::SetCount(v, 0, 1000000, s.maxClients, e); },
     [](SProxySettings& s) { s.maxClients = Defaults().maxClients; }},
    {"max-clients-per-source", Text::LIVE, "N",
     "most clients from one address served at once, more are closed at accept; 0 for no limit (default 0)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetCount(v, 0, 1000000, s.maxClientsPerSource, e);
     },
     [](SProxySettings& s) { s.maxClientsPerSource = Defaults().maxClientsPerSource; }},
    {"handshake-timeout", Text::LIVE, "SECONDS",
     "close a client that has not sent a whole request in this time; 0 for never (default 0)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 0, 86400, s.handshakeTimeoutMs, e);
     },
     [](SProxySettings& s) { s.handshakeTimeoutMs = Defaults().handshakeTimeoutMs; }},
    {"idle-timeout", Text::LIVE, "SECONDS", "close a connection that moved no byte for this long; 0 for never (default 0)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 0, 864000, s.idleTimeoutMs, e);
     },
     [](SProxySettings& s) { s.idleTimeoutMs = Defaults().idleTimeoutMs; }},
    {"linger-timeout", Text::LIVE, "SECONDS",
     "after a client has gone, how long its last bytes may take to reach the destination; 0 for no limit (default 30)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 0, 86400, s.lingerTimeoutMs, e);
     },
     [](SProxySettings& s) { s.lingerTimeoutMs = Defaults().lingerTimeoutMs; }},
    {"allow-destination", Text::REPEATABLE | Text::LIVE, "CIDR[:PORT[-PORT]]",
     "destinations that may be reached; with any, no others (default: all but this machine when listening "
     "beyond loopback)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return AddDestinationRule(s.allowDestinations, v, e); },
     [](SProxySettings& s) { s.allowDestinations.clear(); }},
    {"deny-destination", Text::REPEATABLE | Text::LIVE, "CIDR[:PORT[-PORT]]",
     "destinations that are refused, whatever allow-destination says (default: none)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return AddDestinationRule(s.denyDestinations, v, e); },
     [](SProxySettings& s) { s.denyDestinations.clear(); }},
    {"http-keep-alive", Text::LIVE, "SECONDS",
     "keep HTTP client and origin connections open between requests this long; 0 for one request per "
     "connection (default 0)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 0, 3600, s.httpKeepAliveMs, e);
     },
     [](SProxySettings& s) { s.httpKeepAliveMs = Defaults().httpKeepAliveMs; }},
    {"connect-timeout", Text::LIVE, "SECONDS", "how long connecting to a destination may take (default 10)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 1, 3600, s.connectTimeoutMs, e);
     },
     [](SProxySettings& s) { s.connectTimeoutMs = Defaults().connectTimeoutMs; }},
    {"bind-timeout", Text::LIVE, "SECONDS", "how long a SOCKS BIND waits for its peer (default 120)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return Text::SetSeconds(v, 1, 86400, s.bindWaitMs, e); },
     [](SProxySettings& s) { s.bindWaitMs = Defaults().bindWaitMs; }},
    {"lookup-timeout", Text::LIVE, "SECONDS", "how long the host's resolver may take to answer for a name (default 30)",
     [](SProxySettings& s, const std::string& v, std::string& e) {
         return Text::SetSeconds(v, 1, 3600, s.lookupLimitMs, e);
     },
     [](SProxySettings& s) { s.lookupLimitMs = Defaults().lookupLimitMs; }},
    {"threads", 0, "N", "threads that accept and serve clients, many each; 0 for half the CPUs, at most 16 (default 0)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return Text::SetCount(v, 0, 64, s.eventThreads, e); },
     [](SProxySettings& s) { s.eventThreads = Defaults().eventThreads; }},
    {"connect-helpers", 0, "N",
     "most threads asking a host whose connects block, at once (C++ hosts with such a transport; default 16)",
     [](SProxySettings& s, const std::string& v, std::string& e) { return Text::SetCount(v, 1, 1024, s.connectHelpers, e); },
     [](SProxySettings& s) { s.connectHelpers = Defaults().connectHelpers; }},
};
} // namespace

COptionText::EResult CProxyOptions::Apply(SProxySettings& settings, const std::string& name, const char* value,
                                          std::string& error)
{
    return COptionText::Apply(Find(name), settings, name, value, error);
}

const CProxyOptions::SOption* CProxyOptions::Find(const std::string& name)
{
    return COptionText::Find(OPTIONS, name);
}

} // namespace Proxy
} // namespace ZRT
