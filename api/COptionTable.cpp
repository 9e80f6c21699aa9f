#include "api/COptionTable.h"

#include <arpa/inet.h>

#include <algorithm>
#include <vector>

#include "api/CUsersFile.h"
#include "host/CDirectHostOptions.h"
#include "proxy/address/CAddressRange.h"
#include "proxy/core/CProxyOptions.h"
#include "transport/COptionText.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Api {

namespace {
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
    if (colon == std::string::npos || !COptionText::IsNumericAddress(address, family) ||
        !COptionText::ParseNumber(value.substr(colon + 1), 0, 65535, port)) {
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
    if (!COptionText::IsNumericAddress(address, family)) {
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
    if (!COptionText::ParseNumber(value, 0, 65535, port)) {
        error = "'" + value + "' is not a port from 0 to 65535";
        return false;
    }
    settings.port = static_cast<int>(port);
    return true;
}

bool SetBacklog(SEmbeddedSettings& settings, const std::string& value, std::string& error)
{
    long backlog = 0;
    if (!COptionText::ParseNumber(value, 1, 65535, backlog)) {
        error = "'" + value + "' is not a queue length from 1 to 65535";
        return false;
    }
    settings.listenBacklog = static_cast<int>(backlog);
    return true;
}

const SEmbeddedSettings& Defaults()
{
    static const SEmbeddedSettings defaults;
    return defaults;
}

using Text = COptionText;

// The C interface's own options; the engine's and the direct host's come from their tables.
const COptionText::SRow<SEmbeddedSettings> OWN[] = {
    {"listen", Text::REPEATABLE, "ADDR",
     "numeric IPv4 or IPv6 address to listen on, a socket each, all on the same port (default 127.0.0.1)", SetListen,
     [](SEmbeddedSettings& s) { s.listen.clear(); }},
    {"port", 0, "N", "TCP port to listen on; 0 picks a free one for each address (default 1080)", SetPort,
     [](SEmbeddedSettings& s) { s.port = Defaults().port; }},
    {"listen-backlog", 0, "N", "length of the queue of clients not yet accepted (default: the system's most)",
     SetBacklog, [](SEmbeddedSettings& s) { s.listenBacklog = Defaults().listenBacklog; }},
    {"auth", Text::REPEATABLE | Text::LIVE, "USER:PASSWORD",
     "a user who may use the proxy (PASSWORD may be a crypt(3) hash); with any user, every client must "
     "authenticate; 'none': no users, on purpose (default: no users)",
     SetUser, [](SEmbeddedSettings& s) { s.users.clear(), s.authNone = false; }},
    {"auth-file", Text::LIVE, "FILE",
     "more users, one user:password (or user:HASH) per line, # for comments; read again on reload; a file "
     "without users is an error",
     SetUsersFile, [](SEmbeddedSettings& s) { s.usersFile.clear(); }},
    {"access-log", Text::LIVE, "FILE",
     "a line per finished connection, to FILE (- for standard output); reopened on reload (default: none)",
     SetAccessLog, [](SEmbeddedSettings& s) { s.accessLog.clear(); }},
    {"log-level", Text::LIVE, "LEVEL", "error, warning, info or debug: the most detail logged (default debug)",
     SetLogLevel, [](SEmbeddedSettings& s) { s.logLevel = Defaults().logLevel; }},
    {"metrics", 0, "ADDR:PORT", "serve the counters for Prometheus at http://ADDR:PORT/metrics (default: off)",
     SetMetrics, [](SEmbeddedSettings& s) { s.metricsAddress.clear(), s.metricsPort = 0; }},
    {"metrics-allow", Text::REPEATABLE, "CIDR",
     "scrapers let in to the metrics listener; others are closed at once (default: loopback, 127.0.0.0/8 and ::1)",
     SetMetricsAllow, [](SEmbeddedSettings& s) { s.metricsAllow.clear(); }},
};

enum class EOwner { Own, Engine, Host };
struct SEntry {
    const char* name;
    EOwner owner;
};
// Every option, in the order zrt_option_name lists them.
const SEntry ORDER[] = {
    {"listen", EOwner::Own}, {"port", EOwner::Own}, {"listen-backlog", EOwner::Own}, {"auth", EOwner::Own},
    {"auth-file", EOwner::Own}, {"socks4", EOwner::Engine}, {"socks5-precise-replies", EOwner::Engine},
    {"allow", EOwner::Engine},
    {"proxy-protocol-from", EOwner::Engine}, {"max-clients", EOwner::Engine},
    {"max-clients-per-source", EOwner::Engine}, {"handshake-timeout", EOwner::Engine},
    {"idle-timeout", EOwner::Engine}, {"linger-timeout", EOwner::Engine}, {"allow-destination", EOwner::Engine},
    {"deny-destination", EOwner::Engine}, {"http-keep-alive", EOwner::Engine}, {"connect-timeout", EOwner::Engine},
    {"bind-timeout", EOwner::Engine}, {"dns-server", EOwner::Host}, {"lookup-timeout", EOwner::Host},
    {"outgoing-address", EOwner::Host}, {"outgoing-interface", EOwner::Host}, {"upstream", EOwner::Host},
    {"upstream-bypass", EOwner::Host}, {"threads", EOwner::Engine},
    {"connect-helpers", EOwner::Engine}, {"transport-threads", EOwner::Host}, {"access-log", EOwner::Own}, {"log-level", EOwner::Own},
    {"metrics", EOwner::Own}, {"metrics-allow", EOwner::Own},
};

// The destination rules see addresses only: a name the upstream resolves (socks5h) would pass
// them unseen, so the two are never taken together.
bool NamesEscapeRules(const SEmbeddedSettings& settings)
{
    return settings.host.upstream.ResolvesNames() &&
           (!settings.proxy.allowDestinations.empty() || !settings.proxy.denyDestinations.empty());
}

const SEntry* EntryOf(const std::string& name)
{
    for (const SEntry& entry : ORDER) {
        if (name == entry.name)
            return &entry;
    }
    return nullptr;
}

template <class Row>
COptionTable::SOption InfoOf(const Row* row)
{
    return row ? COptionTable::SOption{row->name, row->flags, row->value, row->description}
               : COptionTable::SOption{nullptr, 0, nullptr, nullptr};
}

const std::vector<COptionTable::SOption>& Infos()
{
    static const std::vector<COptionTable::SOption> infos = [] {
        std::vector<COptionTable::SOption> made;
        for (const SEntry& entry : ORDER) {
            if (entry.owner == EOwner::Own)
                made.push_back(InfoOf(COptionText::Find(OWN, entry.name)));
            else if (entry.owner == EOwner::Engine)
                made.push_back(InfoOf(Proxy::CProxyOptions::Find(entry.name)));
            else
                made.push_back(InfoOf(Host::CDirectHostOptions::Find(entry.name)));
        }
        return made;
    }();
    return infos;
}
} // namespace

COptionTable::EResult COptionTable::Apply(SEmbeddedSettings& settings, const std::string& name, const char* value,
                                          std::string& error)
{
    const SEntry* entry = EntryOf(name);
    if (entry && entry->owner != EOwner::Own) {
        const Host::CUpstreamRoute route = settings.host.upstream;
        const std::vector<std::string> allow = settings.proxy.allowDestinations;
        const std::vector<std::string> deny = settings.proxy.denyDestinations;
        const EResult result = entry->owner == EOwner::Engine
                                   ? Proxy::CProxyOptions::Apply(settings.proxy, name, value, error)
                                   : Host::CDirectHostOptions::Apply(settings.host, name, value, error);
        if (result != EResult::Ok || !NamesEscapeRules(settings))
            return result;
        settings.host.upstream = route;
        settings.proxy.allowDestinations = allow;
        settings.proxy.denyDestinations = deny;
        error = name + ": an upstream that resolves names (socks5h) cannot be combined with allow-destination or "
                       "deny-destination, which see addresses only; use socks5:// to resolve names here";
        return EResult::BadValue;
    }
    return COptionText::Apply(entry ? COptionText::Find(OWN, name) : nullptr, settings, name, value, error);
}

const COptionTable::SOption* COptionTable::At(int index)
{
    if (index < 0 || index >= static_cast<int>(Infos().size()))
        return nullptr;
    return &Infos()[static_cast<size_t>(index)];
}

const COptionTable::SOption* COptionTable::Find(const std::string& name)
{
    const SEntry* entry = EntryOf(name);
    return entry ? At(static_cast<int>(entry - ORDER)) : nullptr;
}

} // namespace Api
} // namespace ZRT
