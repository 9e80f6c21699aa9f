#include "api/CLogRateLimit.h"

#include <chrono>

#include "api/CLogText.h"

namespace ZRT {
namespace Api {

namespace {
const char* const OTHERS = "other addresses";
}

int64_t CLogRateLimit::Now()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool CLogRateLimit::Admit(const std::string& cause, const std::string& address, int64_t now)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    Key key(cause, address);
    auto found = m_pairs.find(key);
    if (found == m_pairs.end() && m_pairs.size() >= MAX_PAIRS) {
        key.second = OTHERS;
        found = m_pairs.find(key);
    }
    if (found == m_pairs.end()) {
        m_pairs[key].since = now;
        return true;
    }
    SPair& pair = found->second;
    if (pair.held == 0 && now - pair.since >= INTERVAL_MS) {
        pair.since = now;
        return true;
    }
    ++pair.held;
    return false;
}

std::vector<std::string> CLogRateLimit::Collect(int64_t now, bool flush)
{
    std::vector<std::string> lines;
    std::lock_guard<std::mutex> hold(m_mutex);
    for (auto at = m_pairs.begin(); at != m_pairs.end();) {
        SPair& pair = at->second;
        if (!flush && now - pair.since < INTERVAL_MS) {
            ++at;
            continue;
        }
        if (pair.held > 0)
            lines.push_back("... and " + std::to_string(pair.held) + " more " + at->first.first + " from " +
                            CLogText::Escape(at->first.second, CLogText::TEXT_LIMIT));
        // A pair that held nothing back for a whole interval is done with; one that did starts a new one.
        if (flush || pair.held == 0) {
            at = m_pairs.erase(at);
            continue;
        }
        pair.since = now;
        pair.held = 0;
        ++at;
    }
    return lines;
}

int64_t CLogRateLimit::NextDue() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    int64_t due = -1;
    for (const auto& entry : m_pairs) {
        const int64_t at = entry.second.since + INTERVAL_MS;
        if (due < 0 || at < due)
            due = at;
    }
    return due;
}

} // namespace Api
} // namespace ZRT
