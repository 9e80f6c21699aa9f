#pragma once

#include <string>
#include <vector>

#include "daemon/CConfigFile.h"
#include "zrtproxy/zrtproxy.h"

namespace ZRT {
namespace Daemon {

// The settings the daemon runs with, from its defaults, the configuration file and the command
// line, how they are checked, and how they are put into a proxy handle at start and at reload.
//
// Threads: the daemon's main thread; no state.
class CDaemonOptions {
public:
    using Entries = std::vector<CConfigFile::SEntry>;

    // Descriptors one client may hold (its socket, the destination's, the splice pipes, the
    // wake events), for the default of max-clients.
    static constexpr int DESCRIPTORS_PER_CLIENT = 8;
    // Kept free for everything else (listeners, DNS, logs, the metrics listener).
    static constexpr int DESCRIPTORS_RESERVED = 64;
    // The least default of max-clients-per-source: a few browsers behind one address.
    static constexpr int MIN_CLIENTS_PER_SOURCE = 8;
    static constexpr const char* DEFAULT_ORIGIN = "default";

    // The daemon's own defaults (origin DEFAULT_ORIGIN): handshake-timeout 30, idle-timeout
    // 3600, log-level warning, max-clients so that the clients cannot use up descriptorLimit,
    // and max-clients-per-source a quarter of that (at least MIN_CLIENTS_PER_SOURCE), so that
    // one address cannot take every slot.
    static Entries Defaults(long descriptorLimit);
    // Why a default is what it is, for the help text; "" when it needs no word.
    static std::string DefaultReason(const std::string& name);
    // A name given by a later source replaces every value of that name from earlier ones; a
    // max-clients given without max-clients-per-source brings the latter's default along. On a
    // reload, running is what the daemon runs with: the listeners it keeps until a restart
    // decide the defaults that depend on them.
    static Entries Merge(const Entries& defaults, const Entries& file, const Entries& commandLine,
                         const Entries* running = nullptr);
    // Every problem of the settings, one line each ("ORIGIN: reason"): unknown names, a single
    // value given more than once, and every value the library refuses when it is set on a
    // handle of its own (the users file is read then). None: they can be applied.
    static std::vector<std::string> Check(const Entries& entries);
    // Sets everything on a stopped handle; false with "ORIGIN: reason".
    static bool Apply(zrt_proxy_t* proxy, const Entries& entries, std::string& error);
    // On a running handle: every live setting goes back to its default, then takes the values
    // next gives it, in their order; restartOnly gets the names of other settings whose values
    // differ from current. False with "ORIGIN: reason".
    static bool ApplyLive(zrt_proxy_t* proxy, const Entries& current, const Entries& next,
                          std::vector<std::string>& restartOnly, std::string& error);
    // The last value of a name, or fallback.
    static std::string ValueOf(const Entries& entries, const std::string& name, const std::string& fallback);
    static std::vector<std::string> ValuesOf(const Entries& entries, const std::string& name);
    // The default a library option's description states ("30" of "... (default 30)"), or "".
    static std::string LibraryDefault(const std::string& name);
    // The limits the daemon runs with, in one line for its start.
    static std::string DescribeLimits(const Entries& entries, long descriptorLimit);
};

} // namespace Daemon
} // namespace ZRT
