#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "proxy/core/IPasswordVerifier.h"
#include "proxy/core/SProxySettings.h"

namespace QOX {
class CThreadPool;
}

namespace ZRT {
namespace Proxy {

// What one proxy knows about logins, shared by all its connections:
//  - password guessing is slowed per client address: after FREE_FAILURES failures (or with
//    FREE_IN_FLIGHT attempts of one address under way at once), each further attempt from that
//    address waits for a slot of its own, the slots spaced FIRST_DELAY_MS apart, doubling with
//    every failure up to MAX_DELAY_MS; a success or FORGET_AFTER of quiet clears the address.
//    Other addresses are never slowed.
//  - checks that need a hash (IPasswordVerifier) run on a thread of the proxy's pool, never on
//    a thread that serves clients; a password once verified for a user is remembered (at most
//    MAX_VERIFIED users), so the next login of that user costs a comparison, not a hash.
//
// Threads: every operation from any thread (the connections' event threads, pool threads).
class CLoginGuard {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int FREE_FAILURES = 5;
    static constexpr int FREE_IN_FLIGHT = 8;
    static constexpr int FIRST_DELAY_MS = 200;
    static constexpr int MAX_DELAY_MS = 10000;
    static constexpr std::chrono::minutes FORGET_AFTER{15};
    static constexpr size_t MAX_SOURCES = 10000;
    static constexpr size_t MAX_VERIFIED = 1024;

    // pool: where hashes are computed (the process-wide pool when null); it must outlive the
    // checks (the proxy ends its pool's threads at stop).
    void SetThreadPool(QOX::CThreadPool* pool);

    // An attempt from client begins: how long it waits before it is checked (0: at once).
    // Every Begin is followed by one End.
    std::chrono::milliseconds Begin(const sockaddr_storage& client, Clock::time_point now = Clock::now());
    // The attempt ended: valid clears the address's failures; false counts one more. abandoned:
    // the client went before it was checked (nothing is counted).
    void End(const sockaddr_storage& client, bool valid, bool abandoned = false, Clock::time_point now = Clock::now());

    // Checks at once when that needs no hash: true with the answer in valid.
    bool CheckNow(const SProxySettings& settings, const std::string& user, const std::string& password, bool& valid);
    // Checks on a pool thread and calls done(valid) there; false when no thread could be had.
    bool CheckAside(const SProxySettings& settings, const std::string& user, const std::string& password,
                    const std::function<void(bool)>& done);

    // Addresses with failures on record (for tests).
    size_t GetTrackedSources() const;

private:
    struct SSource {
        int failures = 0;
        int inFlight = 0;
        Clock::time_point nextSlot{};
        Clock::time_point lastFailure{};
    };
    // Passwords verified against a hash, by user. Shared with the pool threads that compute
    // hashes, so that one finishing late never touches a guard that is gone.
    class CVerified {
    public:
        bool Check(const std::string& user, const std::string& stored, const std::string& password) const;
        void Remember(const std::string& user, const std::string& stored, const std::string& password);

    private:
        struct SEntry {
            std::string stored;
            std::string password;
            std::list<std::string>::iterator recency;
        };
        // Guards both members.
        mutable std::mutex m_mutex;
        std::map<std::string, SEntry> m_entries;
        std::list<std::string> m_recency; // users, most recently verified first
    };

    static std::string Key(const sockaddr_storage& client);
    // The user's entry, looked for in time that does not tell which names exist.
    static bool FindEntry(const SProxySettings& settings, const std::string& user, std::string& stored);
    void ForgetQuietLocked(Clock::time_point now);

    const std::shared_ptr<CVerified> m_verified = std::make_shared<CVerified>();
    // Guards every member below.
    mutable std::mutex m_mutex;
    QOX::CThreadPool* m_pool = nullptr;
    std::unordered_map<std::string, SSource> m_sources;
};

} // namespace Proxy
} // namespace ZRT
