// The name cache over a scripted resolver: lifetimes on the fakeable clock, the bound, lookups
// that wait without a thread, cancellation, and the machine's own addresses.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "fakes/FakeResolver.h"
#include "fakes/Guarded.h"
#include "fakes/Polling.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/address/CNameLookup.h"
#include "runtime/Clock.h"
#include "transport/CTCPIPAddress.h"

namespace {

using ZRT::CTCPIPAddress;
using ZRT::Proxy::CAddressManager;
using ZRT::Proxy::CNameLookup;
using ZRT::Testing::FakeResolver;
using ZRT::Testing::WaitUntil;
using AddressPtr = CAddressManager::AddressPtr;

class AddressManagerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_manager.Init(&m_resolver)); }
    void TearDown() override
    {
        m_manager.Terminate();
        m_resolver.JoinPending();
    }

    FakeResolver m_resolver;
    CAddressManager m_manager;
};

// Counts answers; wakes whoever waits.
struct SAnswers : ZRT::Testing::Guarded {
    int count = 0;
    void Add() { Change([&] { ++count; }); }
    int Get() const { return Locked([&] { return count; }); }
    bool WaitFor(int expected) { return Guarded::WaitFor([&] { return count >= expected; }, 5000); }
};

TEST_F(AddressManagerTest, InitRegistersOnceAndIgnoresALaterResolver)
{
    EXPECT_EQ(m_resolver.GetNotificationCount(), 1);
    FakeResolver other;
    EXPECT_TRUE(m_manager.Init(&other));
    EXPECT_EQ(other.GetNotificationCount(), 0);
    m_manager.Terminate();
    EXPECT_EQ(m_resolver.GetNotificationCount(), 0);
    EXPECT_FALSE(m_manager.Init(nullptr));
    EXPECT_FALSE(m_manager.ResolveAddress("10.0.0.1:80"));
    EXPECT_EQ(m_resolver.GetRequestCount("10.0.0.1:80"), 0);
}

TEST_F(AddressManagerTest, LocalTestKnowsTheMachineInEveryWrittenForm)
{
    m_manager.SetLocalAddressesForTesting({"myhost", "127.0.0.1", "::1", "192.0.2.7"});
    for (const char* local : {"localhost:8080", "LOCALHOST:80", "localhost.:80", "app.localhost:80", "MyHost:443",
                              "127.0.0.1:80", "127.1:80", "2130706433:80", "0x7f000001:80", "0177.0.0.1:80",
                              "[::1]:8080", "[::ffff:127.0.0.1]:80", "0.0.0.0:80", "[::]:80", "192.0.2.7:80",
                              "3221225991:80", "localhost"})
        EXPECT_TRUE(m_manager.IsLocalAddress(local)) << local;
    // Other loopback addresses and other hosts are not this machine's for the HTTP side.
    for (const char* other : {"127.0.0.2:80", "127.2:80", "[::2]:80", "myhost.example:80", "localhostx:80",
                              "192.0.2.8:80", "server1:80"})
        EXPECT_FALSE(m_manager.IsLocalAddress(other)) << other;
}

TEST_F(AddressManagerTest, NamesThatCannotBeHostNamesAreNeverAsked)
{
    for (const std::string& bad : {std::string(), std::string("a\nb"), std::string("a\0b", 3), std::string("a b"),
                                  std::string("tab\there"), std::string("del\x7f"), std::string(256, 'a')})
        EXPECT_FALSE(CAddressManager::IsPlausibleHostName(bad)) << bad;
    EXPECT_TRUE(CAddressManager::IsPlausibleHostName(std::string(255, 'a')));
    EXPECT_TRUE(CAddressManager::IsPlausibleHostName("xn--bcher-kva.example"));
    EXPECT_FALSE(m_manager.ResolveAddress(std::string("evil\nname:80")));
    EXPECT_EQ(m_resolver.GetRequestCount(std::string("evil\nname:80")), 0);
}

TEST_F(AddressManagerTest, OneAnswerPerNameServesEveryPort)
{
    m_resolver.Script("server1:80", "10.1.2.3");
    EXPECT_EQ(m_manager.ResolveAddress("server1:80")->ToString(), "10.1.2.3:80");
    EXPECT_EQ(m_manager.ResolveAddress("server1:443")->ToString(), "10.1.2.3:443");
    EXPECT_EQ(m_manager.ResolveAddress("server1:80")->ToString(), "10.1.2.3:80");
    EXPECT_EQ(m_resolver.GetRequestCount("server1:80"), 1);
    EXPECT_EQ(m_resolver.GetRequestCount("server1:443"), 0);
    m_manager.ResolveAddress("Server1:80"); // letter case makes another name
    EXPECT_EQ(m_resolver.GetRequestCount("Server1:80"), 1);
    EXPECT_EQ(m_manager.GetCacheSize(), 2u);
}

TEST_F(AddressManagerTest, FailureIsRememberedForAMinuteThenAskedAgain)
{
    m_resolver.SetMode(FakeResolver::ANSWER_EMPTY);
    EXPECT_FALSE(m_manager.ResolveAddress("nowhere:80"));
    EXPECT_FALSE(m_manager.ResolveAddress("nowhere:80"));
    EXPECT_EQ(m_resolver.GetRequestCount("nowhere:80"), 1);

    QOX::AdvanceClockForTesting(CAddressManager::CACHE_LIFETIME_FAILED + 1000);
    m_resolver.SetMode(FakeResolver::ANSWER_AT_ONCE);
    m_resolver.Script("nowhere:80", "10.0.0.9");
    EXPECT_TRUE(m_manager.ResolveAddress("nowhere:80"));
    EXPECT_EQ(m_resolver.GetRequestCount("nowhere:80"), 2);
}

TEST_F(AddressManagerTest, SuccessLivesAnHourAcrossTheClockWrap)
{
    m_resolver.Script("host:1", "10.0.0.1");
    // Store the answer just before the 32-bit clock wraps.
    QOX::AdvanceClockForTesting(0u - QOX::clock() - 1000000u);
    ASSERT_TRUE(m_manager.ResolveAddress("host:1"));
    QOX::AdvanceClockForTesting(CAddressManager::CACHE_LIFETIME_RESOLVED - 5000000u);
    EXPECT_TRUE(m_manager.ResolveAddress("host:1"));
    EXPECT_EQ(m_resolver.GetRequestCount("host:1"), 1);
    QOX::AdvanceClockForTesting(10000000u);
    EXPECT_TRUE(m_manager.ResolveAddress("host:1"));
    EXPECT_EQ(m_resolver.GetRequestCount("host:1"), 2);
}

TEST_F(AddressManagerTest, FirstAnswerForANameStays)
{
    m_manager.OnResolveAddressCompleted(0, "dup:80", CTCPIPAddress::FromText("10.0.0.1", 80));
    m_manager.OnResolveAddressCompleted(0, "dup:80", CTCPIPAddress::FromText("10.0.0.2", 80));
    EXPECT_EQ(m_manager.ResolveAddress("dup:80")->ToString(), "10.0.0.1:80");
    EXPECT_EQ(m_resolver.GetRequestCount("dup:80"), 0);
}

TEST_F(AddressManagerTest, AResolversLifetimeIsKeptUpToAnHourAndTheNetworkChangeForgetsAll)
{
    AddressPtr address;
    m_manager.OnResolveAddressCompletedFor(0, "short:80", CTCPIPAddress::FromText("10.0.0.1", 80), 5);
    m_manager.OnResolveAddressCompletedFor(0, "never:80", CTCPIPAddress::FromText("10.0.0.2", 80), 0);
    m_manager.OnResolveAddressCompletedFor(0, "long:80", CTCPIPAddress::FromText("10.0.0.3", 80), 86400);
    m_manager.OnResolveAddressCompleted(0, "plain:80", CTCPIPAddress::FromText("10.0.0.4", 80));
    EXPECT_FALSE(m_manager.FindAddressInCache("never:80", address));
    QOX::AdvanceClockForTesting(4000000u);
    EXPECT_TRUE(m_manager.FindAddressInCache("short:80", address));
    QOX::AdvanceClockForTesting(2000000u);
    EXPECT_FALSE(m_manager.FindAddressInCache("short:80", address));
    // A day would wrap the 32-bit clock: it is an hour, as without a lifetime.
    QOX::AdvanceClockForTesting(CAddressManager::CACHE_LIFETIME_RESOLVED - 10000000u);
    EXPECT_TRUE(m_manager.FindAddressInCache("long:80", address));
    QOX::AdvanceClockForTesting(5000000u);
    EXPECT_FALSE(m_manager.FindAddressInCache("long:80", address));
    EXPECT_FALSE(m_manager.FindAddressInCache("plain:80", address));

    m_manager.OnResolveAddressCompleted(0, "again:80", CTCPIPAddress::FromText("10.0.0.5", 80));
    m_manager.ForgetNetwork();
    EXPECT_EQ(m_manager.GetCacheSize(), 0u);
}

TEST_F(AddressManagerTest, CacheKeepsItsBoundLeastRecentlyUsedLeavingFirst)
{
    m_manager.SetCacheLimit(3);
    for (const char* name : {"a:1", "b:1", "c:1"})
        m_manager.ResolveAddress(name);
    m_manager.ResolveAddress("a:1"); // a is used again: b is now the oldest
    m_manager.ResolveAddress("d:1");
    EXPECT_EQ(m_manager.GetCacheSize(), 3u);
    m_manager.ResolveAddress("a:1");
    m_manager.ResolveAddress("b:1");
    EXPECT_EQ(m_resolver.GetRequestCount("a:1"), 1);
    EXPECT_EQ(m_resolver.GetRequestCount("b:1"), 2);

    // Many distinct names never take more than the bound.
    m_manager.SetCacheLimit(CAddressManager::DEFAULT_CACHE_LIMIT);
    for (int i = 0; i < 100000; ++i)
        m_manager.OnResolveAddressCompleted(0, "n" + std::to_string(i) + ":80", AddressPtr());
    EXPECT_EQ(m_manager.GetCacheSize(), CAddressManager::DEFAULT_CACHE_LIMIT);
}

TEST_F(AddressManagerTest, ExpiredNamesAreSweptAsNewOnesComeIn)
{
    m_resolver.SetMode(FakeResolver::ANSWER_EMPTY);
    for (int i = 0; i < 8; ++i)
        m_manager.ResolveAddress("old" + std::to_string(i) + ":1");
    QOX::AdvanceClockForTesting(CAddressManager::CACHE_LIFETIME_FAILED + 1000);
    m_manager.ResolveAddress("new:1");
    EXPECT_EQ(m_manager.GetCacheSize(), 1u);
}

TEST_F(AddressManagerTest, LookupWaitsWithoutAThreadAndSharesOneQuestionPerName)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    SAnswers answers;
    CNameLookup first([&] { answers.Add(); });
    CNameLookup second([&] { answers.Add(); });
    first.Start(m_manager, "shared:80");
    second.Start(m_manager, "shared:443");
    EXPECT_TRUE(first.IsWaiting());
    EXPECT_EQ(-1, first.GetWakeDelay()) << "no limit, no wake-up";
    EXPECT_EQ(m_resolver.GetRequestCount("shared:80"), 1);
    EXPECT_EQ(m_resolver.GetRequestCount("shared:443"), 0);

    std::thread resolver([&] { m_resolver.Answer("shared:80", CTCPIPAddress::FromText("10.0.0.5", 80)); });
    ASSERT_TRUE(answers.WaitFor(2));
    resolver.join();
    AddressPtr address;
    ASSERT_EQ(CNameLookup::EResult::Answered, first.Take(address));
    EXPECT_EQ(address->ToString(), "10.0.0.5:80");
    ASSERT_EQ(CNameLookup::EResult::Answered, second.Take(address));
    EXPECT_EQ(address->ToString(), "10.0.0.5:443");
    EXPECT_EQ(CNameLookup::EResult::None, second.Take(address)) << "an answer is taken once";
}

TEST_F(AddressManagerTest, ANameNobodyWaitsForIsCancelledAndItsLateAnswerStillCached)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    SAnswers answers;
    {
        CNameLookup one([&] { answers.Add(); });
        CNameLookup two([&] { answers.Add(); });
        one.Start(m_manager, "gone:80");
        two.Start(m_manager, "gone:80");
        one.Cancel();
        EXPECT_EQ(m_resolver.GetCancelCount("gone:80"), 0) << "somebody still waits";
    }
    EXPECT_EQ(m_resolver.GetCancelCount("gone:80"), 1);
    m_resolver.Answer("gone:80", CTCPIPAddress::FromText("10.0.0.6", 80));
    EXPECT_EQ(answers.Get(), 0);
    AddressPtr cached;
    EXPECT_TRUE(m_manager.FindAddressInCache("gone:8080", cached));
    EXPECT_EQ(cached->ToString(), "10.0.0.6:8080");
}

TEST_F(AddressManagerTest, CancelWaitsForAnAnswerBeingDelivered)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    CNameLookup lookup([&] {
        inside = true;
        while (!release)
            std::this_thread::yield();
        finished = true;
    });
    lookup.Start(m_manager, "busy:80");
    std::thread resolver([&] { m_resolver.Answer("busy:80", AddressPtr()); });
    while (!inside)
        std::this_thread::yield();
    const pid_t canceller = ZRT::Testing::KernelThreadId();
    std::thread releaser([&] {
        // Only once Cancel sleeps: a Cancel that did not wait for the answer has returned by then.
        ZRT::Testing::WaitUntilAsleep(canceller);
        release = true;
    });
    lookup.Cancel();
    EXPECT_TRUE(finished.load());
    resolver.join();
    releaser.join();
}

TEST_F(AddressManagerTest, StopAndTerminateEndAWaitingQueryAtOnce)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    for (int variant = 0; variant < 2; ++variant) {
        bool resolved = true;
        const std::string key = "silent" + std::to_string(variant) + ":1";
        std::thread waiter([&] { resolved = static_cast<bool>(m_manager.ResolveAddress(key)); });
        EXPECT_TRUE(WaitUntil([&] { return m_resolver.GetRequestCount(key) > 0; }));
        if (variant == 0)
            m_manager.StopRequest();
        else
            m_manager.Terminate();
        waiter.join();
        EXPECT_FALSE(resolved);
    }
    // A late answer after Terminate does not resurrect anything.
    m_resolver.Answer("silent1:1", CTCPIPAddress::FromText("10.0.0.7", 1));
    EXPECT_FALSE(m_manager.ResolveAddress("silent1:1"));
}

TEST_F(AddressManagerTest, UnansweredQueryGivesUpAfterThirtySecondsOfTheClock)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    std::atomic<bool> done{false};
    std::atomic<pid_t> id{0};
    std::thread waiter([&] {
        id = ZRT::Testing::KernelThreadId();
        EXPECT_FALSE(m_manager.ResolveAddress("never:1"));
        done = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return m_resolver.GetRequestCount("never:1") > 0; }));
    // Woken before the limit, the waiter sleeps again (seen asleep after the wake-up made it
    // runnable, it has read the clock) instead of ending.
    const auto asleepOrDone = [&] { return done || ZRT::Testing::ThreadIsAsleep(id); };
    EXPECT_TRUE(WaitUntil(asleepOrDone));
    QOX::AdvanceClockForTesting(static_cast<uint32_t>(CAddressManager::QUERY_TIMEOUT_SECONDS * 1e6) - 3000000u);
    m_manager.WakeWaitersForTesting();
    EXPECT_TRUE(WaitUntil(asleepOrDone));
    EXPECT_FALSE(done.load());
    QOX::AdvanceClockForTesting(4000000u);
    m_manager.WakeWaitersForTesting();
    waiter.join();
    EXPECT_EQ(m_resolver.GetCancelCount("never:1"), 1);
}

TEST_F(AddressManagerTest, ManyThreadsResolveConcurrently)
{
    m_resolver.SetMode(FakeResolver::ANSWER_LATER);
    m_resolver.SetDelayMs(5);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                const std::string key = "10.0." + std::to_string(t) + "." + std::to_string(i % 5) + ":80";
                auto address = m_manager.ResolveAddress(key);
                if (!address || address->ToString() != key)
                    failures.fetch_add(1);
                m_manager.IsLocalAddress(key);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST_F(AddressManagerTest, TheProxyItselfIsKnownByItsAddressesAndPort)
{
    m_manager.SetOwnAddressesForTesting({"192.0.2.7", "2001:db8::7"});
    EXPECT_FALSE(m_manager.IsProxyItself(CTCPIPAddress(127, 0, 0, 1, 1080))) << "no port yet";
    m_manager.SetProxyPort(1080);
    for (const char* self : {"127.0.0.1", "127.255.0.9", "0.0.0.0", "::1", "::", "::ffff:127.0.0.1", "192.0.2.7",
                             "::ffff:192.0.2.7", "2001:db8::7"})
        EXPECT_TRUE(m_manager.IsProxyItself(*CTCPIPAddress::FromText(self, 1080))) << self;
    for (const char* other : {"192.0.2.8", "10.0.0.1", "::2"})
        EXPECT_FALSE(m_manager.IsProxyItself(*CTCPIPAddress::FromText(other, 1080))) << other;
    EXPECT_FALSE(m_manager.IsProxyItself(CTCPIPAddress(127, 0, 0, 1, 1081)));
}

} // namespace
