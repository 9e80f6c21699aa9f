#pragma once

#include <string>
#include <vector>

#include "daemon/CConfigFile.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Daemon {

// The settings the daemon runs with, from its defaults, the configuration file and the command
// line, and how they are put into a proxy handle at start and at reload.
class CDaemonOptions {
public:
    using Entries = std::vector<CConfigFile::SEntry>;

    // Descriptors one client may hold (its socket, the destination's, the splice pipes, the
    // wake events), for the default of max-clients.
    static constexpr int DESCRIPTORS_PER_CLIENT = 8;
    // Kept free for everything else (listeners, DNS, logs, the metrics listener).
    static constexpr int DESCRIPTORS_RESERVED = 64;

    // The daemon's own defaults: handshake-timeout 30, log-level warning, and max-clients so
    // that the clients cannot use up descriptorLimit.
    static Entries Defaults(long descriptorLimit);
    // A name given by a later source replaces every value of that name from earlier ones.
    static Entries Merge(const Entries& defaults, const Entries& file, const Entries& commandLine);
    // Every name is a setting; false with "ORIGIN: unknown option 'x'".
    static bool CheckNames(const Entries& entries, std::string& error);
    // Sets everything on a stopped handle; false with "ORIGIN: reason".
    static bool Apply(zrt_proxy_t* proxy, const Entries& entries, std::string& error);
    // On a running handle: every live setting of next replaces its values (reset, then each
    // value); restartOnly gets the names of other settings whose values differ from current.
    // False with "ORIGIN: reason".
    static bool ApplyLive(zrt_proxy_t* proxy, const Entries& current, const Entries& next,
                          std::vector<std::string>& restartOnly, std::string& error);
    // The last value of a name, or fallback.
    static std::string ValueOf(const Entries& entries, const std::string& name, const std::string& fallback);
};

} // namespace Daemon
} // namespace ZRT
