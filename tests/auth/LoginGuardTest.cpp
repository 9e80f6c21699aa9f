// Slowing password guesses per address, and checks that need a hash.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "proxy/auth/CLoginGuard.h"

namespace ZRT {
namespace Proxy {
namespace {

using std::chrono::milliseconds;

sockaddr_storage Address(const char* text)
{
    sockaddr_storage storage{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
    if (inet_pton(AF_INET, text, &v4.sin_addr) == 1)
        v4.sin_family = AF_INET;
    else if (inet_pton(AF_INET6, text, &v6.sin6_addr) == 1)
        v6.sin6_family = AF_INET6;
    return storage;
}

// "hash:PASSWORD" stands for a hash; counts how often one was computed.
class CountingVerifier : public IPasswordVerifier {
public:
    bool Recognizes(const std::string& stored) const override { return stored.rfind("hash:", 0) == 0; }
    bool Verify(const std::string& stored, const std::string& password) const override
    {
        ++computed;
        return stored == "hash:" + password;
    }
    mutable std::atomic<int> computed{0};
};

class LoginGuardTest : public ::testing::Test {
protected:
    // One failed attempt from client at time now.
    void Fail(const char* client, CLoginGuard::Clock::time_point now)
    {
        m_guard.Begin(Address(client), now);
        m_guard.End(Address(client), false, false, now);
    }
    // Checks aside and waits for the answer.
    bool CheckAside(const SProxySettings& settings, const std::string& user, const std::string& password)
    {
        std::mutex mutex;
        std::condition_variable done;
        std::optional<bool> answer;
        EXPECT_TRUE(m_guard.CheckAside(settings, user, password, [&](bool valid) {
            std::lock_guard<std::mutex> hold(mutex);
            answer = valid;
            done.notify_all();
        }));
        std::unique_lock<std::mutex> hold(mutex);
        EXPECT_TRUE(done.wait_for(hold, std::chrono::seconds(10), [&] { return answer.has_value(); }));
        return answer.value_or(false);
    }

    CLoginGuard m_guard;
    const CLoginGuard::Clock::time_point m_start = CLoginGuard::Clock::now();
};

TEST_F(LoginGuardTest, GuessesFromOneAddressAreSpacedOutMoreAndMoreUpToTheCap)
{
    for (int i = 0; i < CLoginGuard::FREE_FAILURES; ++i) {
        EXPECT_EQ(m_guard.Begin(Address("192.0.2.1"), m_start).count(), 0) << i;
        m_guard.End(Address("192.0.2.1"), false, false, m_start);
    }
    // Each further attempt waits longer than the one before, twice as long up to the cap.
    auto now = m_start;
    for (int i = 0; i < 12; ++i) {
        const milliseconds wait = m_guard.Begin(Address("192.0.2.1"), now);
        EXPECT_EQ(wait.count(), std::min(CLoginGuard::FIRST_DELAY_MS << i, CLoginGuard::MAX_DELAY_MS)) << i;
        now += wait;
        m_guard.End(Address("192.0.2.1"), false, false, now);
    }
    // Attempts at once do not share a slot: each waits for its own.
    const milliseconds first = m_guard.Begin(Address("192.0.2.1"), now);
    EXPECT_EQ(m_guard.Begin(Address("192.0.2.1"), now), first + first);
    m_guard.End(Address("192.0.2.1"), false, true, now);
    m_guard.End(Address("192.0.2.1"), true, false, now);
    // Other addresses were never slowed; a success clears the address.
    EXPECT_EQ(m_guard.Begin(Address("192.0.2.2"), now).count(), 0);
    m_guard.End(Address("192.0.2.2"), true);
    EXPECT_EQ(m_guard.Begin(Address("192.0.2.1"), now).count(), 0);
    m_guard.End(Address("192.0.2.1"), true);
    EXPECT_EQ(m_guard.GetTrackedSources(), 0u);
}

TEST_F(LoginGuardTest, ParallelAttemptsAndIPv6NeighboursShareOneBudget)
{
    for (int i = 0; i < CLoginGuard::FREE_IN_FLIGHT; ++i)
        EXPECT_EQ(m_guard.Begin(Address("2001:db8::1"), m_start).count(), 0);
    // The same /64 is the same client; a burst beyond the free ones waits.
    EXPECT_GT(m_guard.Begin(Address("2001:db8::ffff"), m_start).count(), 0);
    EXPECT_EQ(m_guard.Begin(Address("2001:db8:0:1::1"), m_start).count(), 0);
}

TEST_F(LoginGuardTest, AbandonedAttemptsCountForNothingAndQuietAddressesAreForgotten)
{
    for (int i = 0; i < 20; ++i) {
        m_guard.Begin(Address("192.0.2.1"), m_start);
        m_guard.End(Address("192.0.2.1"), false, true, m_start);
    }
    EXPECT_EQ(m_guard.Begin(Address("192.0.2.1"), m_start).count(), 0);
    m_guard.End(Address("192.0.2.1"), false, false, m_start);
    for (int i = 0; i < CLoginGuard::FREE_FAILURES; ++i)
        Fail("192.0.2.1", m_start);
    EXPECT_GT(m_guard.Begin(Address("192.0.2.1"), m_start).count(), 0);
    m_guard.End(Address("192.0.2.1"), false, true, m_start);
    const auto later = m_start + CLoginGuard::FORGET_AFTER + std::chrono::seconds(1);
    EXPECT_EQ(m_guard.Begin(Address("192.0.2.1"), later).count(), 0);
}

TEST_F(LoginGuardTest, AFloodOfAddressesKeepsTheTableBounded)
{
    for (unsigned i = 0; i < CLoginGuard::MAX_SOURCES + 500; ++i) {
        sockaddr_storage client{};
        auto& v4 = reinterpret_cast<sockaddr_in&>(client);
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(0x0a000000u + i);
        m_guard.Begin(client, m_start);
        m_guard.End(client, false, false, m_start);
    }
    EXPECT_LE(m_guard.GetTrackedSources(), CLoginGuard::MAX_SOURCES);
}

TEST_F(LoginGuardTest, HashesAreComputedAsideOnceAndPlainEntriesNever)
{
    auto verifier = std::make_shared<CountingVerifier>();
    SProxySettings settings;
    settings.users = {{"alice", "hash:s3cret"}, {"bob", "plain"}};
    settings.passwordVerifier = verifier;
    bool valid = false;
    EXPECT_TRUE(m_guard.CheckNow(settings, "bob", "plain", valid));
    EXPECT_TRUE(valid);
    EXPECT_TRUE(m_guard.CheckNow(settings, "bob", "plainer", valid));
    EXPECT_FALSE(valid);
    // A hash, or a name nobody has (which costs a hash all the same), cannot be checked at once.
    EXPECT_FALSE(m_guard.CheckNow(settings, "alice", "s3cret", valid));
    EXPECT_FALSE(m_guard.CheckNow(settings, "mallory", "s3cret", valid));
    EXPECT_FALSE(CheckAside(settings, "mallory", "s3cret"));
    EXPECT_FALSE(CheckAside(settings, "alice", "wrong"));
    EXPECT_TRUE(CheckAside(settings, "alice", "s3cret"));
    EXPECT_EQ(verifier->computed, 3);
    // Verified once, the same password is known at once; another one, or a changed hash, is not.
    EXPECT_TRUE(m_guard.CheckNow(settings, "alice", "s3cret", valid));
    EXPECT_TRUE(valid);
    EXPECT_FALSE(m_guard.CheckNow(settings, "alice", "s3cret2", valid));
    settings.users["alice"] = "hash:other";
    EXPECT_FALSE(m_guard.CheckNow(settings, "alice", "s3cret", valid));
}

} // namespace
} // namespace Proxy
} // namespace ZRT
