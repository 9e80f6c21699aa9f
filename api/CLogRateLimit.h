#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ZRT {
namespace Api {

// Keeps repeated warnings of one cause (a failed login, a refusal by the allow list or a client
// limit) from one client address from flooding the log: the first goes through, then at most one
// line per INTERVAL_MS for that cause and address, a summary of how many were held back meanwhile
// ("... and 57 more auth-failed from 192.0.2.7"). Other addresses are not affected. A pair quiet
// for a whole interval is forgotten, so its next warning goes through at once.
// At most MAX_PAIRS pairs are kept; beyond them, the warnings from further addresses share one
// pair per cause ("other addresses"), so that a flood from many addresses stays bounded too.
//
// Threads: Admit on the threads that serve clients; Collect and NextDue on the log writer.
class CLogRateLimit {
public:
    static constexpr int64_t INTERVAL_MS = 10000;
    static constexpr size_t MAX_PAIRS = 1024;

    // Steady-clock milliseconds: the times the operations below take.
    static int64_t Now();

    // Whether the warning of cause from address is to be written now; false counts it as held.
    bool Admit(const std::string& cause, const std::string& address, int64_t now);
    // The summaries due at now; flush (at a stop) gives every pair's and forgets them all.
    std::vector<std::string> Collect(int64_t now, bool flush = false);
    // When Collect has something to do, or -1 when no pair is kept.
    int64_t NextDue() const;

private:
    struct SPair {
        int64_t since = 0; // when its last line went out
        uint64_t held = 0; // warnings held back since then
    };
    using Key = std::pair<std::string, std::string>; // cause, address

    // Guards m_pairs.
    mutable std::mutex m_mutex;
    std::map<Key, SPair> m_pairs;
};

} // namespace Api
} // namespace ZRT
