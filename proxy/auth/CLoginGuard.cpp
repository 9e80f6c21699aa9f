#include "proxy/auth/CLoginGuard.h"

#include <netinet/in.h>

#include <algorithm>

#include "proxy/auth/CCredentials.h"
#include "runtime/CPoolTask.h"
#include "transport/CSocketUtils.h"

namespace ZRT {
namespace Proxy {

constexpr std::chrono::minutes CLoginGuard::FORGET_AFTER;

void CLoginGuard::SetThreadPool(QOX::CThreadPool* pool)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    m_pool = pool;
}

std::string CLoginGuard::Key(const sockaddr_storage& client)
{
    // One IPv6 host commonly has a whole /64 to pick addresses from.
    return CSocketUtils::SourceKey(client, 8);
}

std::chrono::milliseconds CLoginGuard::Begin(const sockaddr_storage& client, Clock::time_point now)
{
    const std::string key = Key(client);
    std::lock_guard<std::mutex> hold(m_mutex);
    if (m_sources.size() >= MAX_SOURCES)
        ForgetQuietLocked(now);
    SSource& source = m_sources[key];
    if (source.inFlight == 0 && source.failures > 0 && now - source.lastFailure > FORGET_AFTER)
        source = SSource{};
    ++source.inFlight;
    if (source.failures < FREE_FAILURES && source.inFlight <= FREE_IN_FLIGHT)
        return std::chrono::milliseconds(0);
    const int doublings = std::min(std::max(0, source.failures - FREE_FAILURES), 16);
    const auto interval = std::chrono::milliseconds(std::min<long long>(
        static_cast<long long>(FIRST_DELAY_MS) << doublings, MAX_DELAY_MS));
    const Clock::time_point slot = std::max(now + interval, source.nextSlot);
    source.nextSlot = slot + interval;
    return std::chrono::duration_cast<std::chrono::milliseconds>(slot - now);
}

void CLoginGuard::End(const sockaddr_storage& client, bool valid, bool abandoned, Clock::time_point now)
{
    const std::string key = Key(client);
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_sources.find(key);
    if (found == m_sources.end())
        return;
    SSource& source = found->second;
    source.inFlight = std::max(0, source.inFlight - 1);
    if (!abandoned && valid) {
        source.failures = 0;
        source.nextSlot = Clock::time_point{};
    } else if (!abandoned) {
        ++source.failures;
        source.lastFailure = now;
    }
    if (source.failures == 0 && source.inFlight == 0)
        m_sources.erase(found);
}

void CLoginGuard::ForgetQuietLocked(Clock::time_point now)
{
    // Quiet addresses first; if that is not enough, any address not in the middle of an attempt
    // (a flood of addresses must not grow the table without bound).
    for (auto it = m_sources.begin(); it != m_sources.end();) {
        const bool quiet = it->second.inFlight == 0 && now - it->second.lastFailure > FORGET_AFTER;
        it = quiet ? m_sources.erase(it) : std::next(it);
    }
    for (auto it = m_sources.begin(); it != m_sources.end() && m_sources.size() > MAX_SOURCES * 3 / 4;)
        it = it->second.inFlight == 0 ? m_sources.erase(it) : std::next(it);
}

size_t CLoginGuard::GetTrackedSources() const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_sources.size();
}

bool CLoginGuard::FindEntry(const SProxySettings& settings, const std::string& user, std::string& stored)
{
    bool found = false;
    for (const auto& entry : settings.users) {
        // Every name compared in full, so the time does not tell which names exist.
        const bool match = CCredentials::Equal(entry.first, user);
        if (match && !found)
            stored = entry.second;
        found = found || match;
    }
    return found;
}

bool CLoginGuard::CheckNow(const SProxySettings& settings, const std::string& user, const std::string& password,
                           bool& valid)
{
    const IPasswordVerifier* verifier = settings.passwordVerifier.get();
    const bool anyHashed = verifier && std::any_of(settings.users.begin(), settings.users.end(),
                                                   [&](const auto& entry) { return verifier->Recognizes(entry.second); });
    if (!anyHashed) {
        valid = CCredentials::Check(settings.users, user, password);
        return true;
    }
    std::string stored;
    const bool known = FindEntry(settings, user, stored);
    if (known && !verifier->Recognizes(stored)) {
        valid = CCredentials::Equal(stored, password);
        return true;
    }
    // An unknown name costs a hash like a known one; a password verified before costs none.
    if (!known || !m_verified->Check(user, stored, password))
        return false;
    valid = true;
    return true;
}

bool CLoginGuard::CheckAside(const SProxySettings& settings, const std::string& user, const std::string& password,
                             const std::function<void(bool)>& done)
{
    std::shared_ptr<const IPasswordVerifier> verifier = settings.passwordVerifier;
    if (!verifier)
        return false;
    std::string stored;
    const bool known = FindEntry(settings, user, stored);
    if (!known) {
        // The same work for a name that does not exist: a hash of the same kind, never matched.
        for (const auto& entry : settings.users) {
            if (verifier->Recognizes(entry.second)) {
                stored = entry.second;
                break;
            }
        }
    }
    QOX::CThreadPool* pool = nullptr;
    {
        std::lock_guard<std::mutex> hold(m_mutex);
        pool = m_pool;
    }
    const std::shared_ptr<CVerified> verified = m_verified;
    return QOX::CPoolTask::Launch(pool, [verified, verifier, stored, user, password, known, done] {
        const bool valid = verifier->Verify(stored, password) && known;
        if (valid)
            verified->Remember(user, stored, password);
        done(valid);
    });
}

bool CLoginGuard::CVerified::Check(const std::string& user, const std::string& stored,
                                   const std::string& password) const
{
    std::lock_guard<std::mutex> hold(m_mutex);
    const auto found = m_entries.find(user);
    return found != m_entries.end() && found->second.stored == stored &&
           CCredentials::Equal(found->second.password, password);
}

void CLoginGuard::CVerified::Remember(const std::string& user, const std::string& stored, const std::string& password)
{
    std::lock_guard<std::mutex> hold(m_mutex);
    auto found = m_entries.find(user);
    if (found != m_entries.end()) {
        m_recency.erase(found->second.recency);
        m_entries.erase(found);
    }
    m_recency.push_front(user);
    m_entries[user] = SEntry{stored, password, m_recency.begin()};
    if (m_entries.size() <= MAX_VERIFIED)
        return;
    m_entries.erase(m_recency.back());
    m_recency.pop_back();
}

} // namespace Proxy
} // namespace ZRT
