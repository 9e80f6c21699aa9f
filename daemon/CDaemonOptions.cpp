#include "daemon/CDaemonOptions.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>

#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Daemon {

namespace {
using Handle = std::unique_ptr<zrt_proxy_t, void (*)(zrt_proxy_t*)>;

std::set<std::string> NamesOf(const CDaemonOptions::Entries& entries)
{
    std::set<std::string> names;
    for (const auto& entry : entries)
        names.insert(entry.name);
    return names;
}

bool Set(zrt_proxy_t* proxy, const CConfigFile::SEntry& entry, std::string& error)
{
    if (zrt_proxy_set_option(proxy, entry.name.c_str(), entry.value.c_str()) == ZRT_OK)
        return true;
    error = entry.origin + ": " + zrt_proxy_last_error(proxy);
    return false;
}

bool IsKnown(const std::string& name)
{
    return zrt_option_value(name.c_str()) != nullptr;
}

bool IsLive(const std::string& name)
{
    return (zrt_option_flags(name.c_str()) & ZRT_OPTION_LIVE) != 0;
}

std::string ClientsPerSource(long maxClients)
{
    if (maxClients <= 0)
        return "0"; // a quarter of no limit
    return std::to_string(std::max<long>(CDaemonOptions::MIN_CLIENTS_PER_SOURCE, maxClients / 4));
}
bool ListensOnLoopbackOnly(const CDaemonOptions::Entries& entries)
{
    std::vector<std::string> listen = CDaemonOptions::ValuesOf(entries, "listen");
    if (listen.empty())
        listen.push_back(CDaemonOptions::LibraryDefault("listen"));
    return std::all_of(listen.begin(), listen.end(), [](const std::string& address) {
        return ZRT::CSocketUtils::IsLoopbackText(ZRT::CSocketUtils::StripBrackets(address));
    });
}
} // namespace

CDaemonOptions::Entries CDaemonOptions::Defaults(long descriptorLimit)
{
    const long clients = std::max(1L, std::min((descriptorLimit - DESCRIPTORS_RESERVED) / DESCRIPTORS_PER_CLIENT, 1000000L));
    return {{"handshake-timeout", "30", DEFAULT_ORIGIN},
            {"http-keep-alive", "60", DEFAULT_ORIGIN},
            {"idle-timeout", "3600", DEFAULT_ORIGIN},
            {"log-level", "warning", DEFAULT_ORIGIN},
            {"max-clients", std::to_string(clients), DEFAULT_ORIGIN},
            {"max-clients-per-source", ClientsPerSource(clients), DEFAULT_ORIGIN},
            {"socks5-precise-replies", "on", DEFAULT_ORIGIN}};
}

std::string CDaemonOptions::DefaultReason(const std::string& name)
{
    if (name == "max-clients")
        return "from the descriptor limit (ulimit -n), so that clients never use up every descriptor";
    if (name == "max-clients-per-source")
        return "a quarter of max-clients, at least 8; none when every listen address is loopback (every client "
               "is this machine's one address) and no proxy-protocol-from names them";
    return std::string();
}

CDaemonOptions::Entries CDaemonOptions::Merge(const Entries& defaults, const Entries& file, const Entries& commandLine,
                                               const Entries* running)
{
    Entries merged;
    const Entries* sources[] = {&defaults, &file, &commandLine};
    for (size_t i = 0; i < 3; ++i) {
        std::set<std::string> later;
        for (size_t j = i + 1; j < 3; ++j) {
            const std::set<std::string> names = NamesOf(*sources[j]);
            later.insert(names.begin(), names.end());
        }
        for (const auto& entry : *sources[i]) {
            if (later.count(entry.name) == 0)
                merged.push_back(entry);
        }
    }
    // The per-source default follows the client limit actually set.
    const auto perSource = std::find_if(merged.begin(), merged.end(), [](const auto& entry) {
        return entry.name == "max-clients-per-source" && entry.origin == DEFAULT_ORIGIN;
    });
    const std::string maxClients = ValueOf(merged, "max-clients", "");
    if (perSource != merged.end() && !maxClients.empty() && maxClients.size() < 10 &&
        maxClients.find_first_not_of("0123456789") == std::string::npos)
        perSource->value = ClientsPerSource(std::strtol(maxClients.c_str(), nullptr, 10));
    // Every client of a loopback listener comes from this machine, so from one address: a limit
    // per source would only be a lower limit for all of them. Behind a balancer that names its
    // clients (PROXY protocol) they are told apart again.
    if (perSource != merged.end() && ListensOnLoopbackOnly(running ? *running : merged) &&
        ValuesOf(merged, "proxy-protocol-from").empty())
        perSource->value = "0";
    return merged;
}

std::vector<std::string> CDaemonOptions::Check(const Entries& entries)
{
    std::vector<std::string> problems;
    std::set<std::string> seen;
    for (const auto& entry : entries) {
        if (!IsKnown(entry.name))
            problems.push_back(entry.origin + ": unknown option '" + entry.name + "'");
        else if (!seen.insert(entry.name).second && !(zrt_option_flags(entry.name.c_str()) & ZRT_OPTION_REPEATABLE))
            problems.push_back(entry.origin + ": '" + entry.name + "' is given more than once (it takes one value)");
    }
    const Handle scratch(zrt_proxy_create(), &zrt_proxy_destroy);
    if (!scratch) {
        problems.push_back("out of memory");
        return problems;
    }
    for (const auto& entry : entries) {
        std::string error;
        if (IsKnown(entry.name) && !Set(scratch.get(), entry, error))
            problems.push_back(error);
    }
    return problems;
}

bool CDaemonOptions::Apply(zrt_proxy_t* proxy, const Entries& entries, std::string& error)
{
    for (const auto& entry : entries) {
        if (!IsKnown(entry.name)) {
            error = entry.origin + ": unknown option '" + entry.name + "'";
            return false;
        }
    }
    return std::all_of(entries.begin(), entries.end(), [&](const auto& entry) { return Set(proxy, entry, error); });
}

bool CDaemonOptions::ApplyLive(zrt_proxy_t* proxy, const Entries& current, const Entries& next,
                               std::vector<std::string>& restartOnly, std::string& error)
{
    std::set<std::string> names = NamesOf(current);
    const std::set<std::string> nextNames = NamesOf(next);
    names.insert(nextNames.begin(), nextNames.end());
    for (const std::string& name : names) {
        if (!IsKnown(name)) {
            error = "unknown option '" + name + "'";
            return false;
        }
        // Back to the default first: a setting that left the file goes away, a list starts anew,
        // and values that exclude each other ("auth none", users) are judged in next alone.
        if (IsLive(name))
            zrt_proxy_set_option(proxy, name.c_str(), nullptr);
        else if (ValuesOf(current, name) != ValuesOf(next, name))
            restartOnly.push_back(name);
    }
    for (const auto& entry : next) {
        if (IsLive(entry.name) && !Set(proxy, entry, error))
            return false;
    }
    return true;
}

std::vector<std::string> CDaemonOptions::ValuesOf(const Entries& entries, const std::string& name)
{
    std::vector<std::string> values;
    for (const auto& entry : entries) {
        if (entry.name == name)
            values.push_back(entry.value);
    }
    return values;
}

std::string CDaemonOptions::ValueOf(const Entries& entries, const std::string& name, const std::string& fallback)
{
    const std::vector<std::string> values = ValuesOf(entries, name);
    return values.empty() ? fallback : values.back();
}

std::string CDaemonOptions::LibraryDefault(const std::string& name)
{
    const char* description = zrt_option_description(name.c_str());
    const std::string text = description ? description : "";
    const size_t start = text.rfind("(default ");
    const size_t end = text.find(')', start);
    if (start == std::string::npos || end == std::string::npos)
        return std::string();
    return text.substr(start + 9, end - start - 9);
}

std::string CDaemonOptions::DescribeLimits(const Entries& entries, long descriptorLimit)
{
    std::string line = "limits:";
    const char* const counts[] = {"max-clients", "max-clients-per-source"};
    for (const char* name : counts)
        line.append(" ").append(name).append(" ").append(ValueOf(entries, name, LibraryDefault(name))).append(",");
    const char* const seconds[] = {"handshake-timeout", "idle-timeout", "linger-timeout"};
    for (const char* name : seconds)
        line.append(" ").append(name).append(" ").append(ValueOf(entries, name, LibraryDefault(name))).append(" s,");
    line.pop_back();
    return line + " (0: none); descriptor limit " + std::to_string(descriptorLimit);
}

} // namespace Daemon
} // namespace ZRT
