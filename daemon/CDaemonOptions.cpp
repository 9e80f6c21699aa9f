#include "daemon/CDaemonOptions.h"

#include <algorithm>
#include <set>

namespace ZRT {
namespace Daemon {

namespace {
std::vector<std::string> ValuesOf(const CDaemonOptions::Entries& entries, const std::string& name)
{
    std::vector<std::string> values;
    for (const auto& entry : entries) {
        if (entry.name == name)
            values.push_back(entry.value);
    }
    return values;
}

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
} // namespace

CDaemonOptions::Entries CDaemonOptions::Defaults(long descriptorLimit)
{
    Entries defaults = {{"handshake-timeout", "30", "default"}, {"log-level", "warning", "default"}};
    const long clients = (descriptorLimit - DESCRIPTORS_RESERVED) / DESCRIPTORS_PER_CLIENT;
    defaults.push_back({"max-clients", std::to_string(std::max(1L, std::min(clients, 1000000L))), "default"});
    return defaults;
}

CDaemonOptions::Entries CDaemonOptions::Merge(const Entries& defaults, const Entries& file, const Entries& commandLine)
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
    return merged;
}

bool CDaemonOptions::CheckNames(const Entries& entries, std::string& error)
{
    for (const auto& entry : entries) {
        if (!zrt_option_value(entry.name.c_str())) {
            error = entry.origin + ": unknown option '" + entry.name + "'";
            return false;
        }
    }
    return true;
}

bool CDaemonOptions::Apply(zrt_proxy_t* proxy, const Entries& entries, std::string& error)
{
    if (!CheckNames(entries, error))
        return false;
    return std::all_of(entries.begin(), entries.end(), [&](const auto& entry) { return Set(proxy, entry, error); });
}

bool CDaemonOptions::ApplyLive(zrt_proxy_t* proxy, const Entries& current, const Entries& next,
                               std::vector<std::string>& restartOnly, std::string& error)
{
    if (!CheckNames(next, error))
        return false;
    std::set<std::string> names = NamesOf(current);
    const std::set<std::string> nextNames = NamesOf(next);
    names.insert(nextNames.begin(), nextNames.end());
    for (const std::string& name : names) {
        if (!(zrt_option_flags(name.c_str()) & ZRT_OPTION_LIVE)) {
            if (ValuesOf(current, name) != ValuesOf(next, name))
                restartOnly.push_back(name);
            continue;
        }
        // Back to the default first: a setting that left the file goes away, a list starts anew.
        zrt_proxy_set_option(proxy, name.c_str(), nullptr);
        for (const auto& entry : next) {
            if (entry.name == name && !Set(proxy, entry, error))
                return false;
        }
    }
    return true;
}

std::string CDaemonOptions::ValueOf(const Entries& entries, const std::string& name, const std::string& fallback)
{
    const std::vector<std::string> values = ValuesOf(entries, name);
    return values.empty() ? fallback : values.back();
}

} // namespace Daemon
} // namespace ZRT
