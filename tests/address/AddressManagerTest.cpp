#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "runtime/Clock.h"
#include "transport/CTCPIPAddress.h"

namespace {

using ZRT::Proxy::CAddressManager;
using ZRT::Testing::FakeResolver;

class AddressManagerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_manager = CAddressManager::GetInstance();
        ASSERT_TRUE(m_manager->Init(&m_resolver));
    }
    void TearDown() override
    {
        m_manager->Terminate();
        m_resolver.JoinPending();
    }

    FakeResolver m_resolver;
    CAddressManager* m_manager = nullptr;
};

TEST_F(AddressManagerTest, InitRegistersOnceAndIgnoresALaterResolver)
{
    EXPECT_EQ(m_resolver.GetNotificationCount(), 1);
    FakeResolver other;
    EXPECT_TRUE(m_manager->Init(&other));
    EXPECT_EQ(other.GetNotificationCount(), 0);
    m_manager->Terminate();
    EXPECT_EQ(m_resolver.GetNotificationCount(), 0);
    EXPECT_FALSE(m_manager->Init(nullptr));
    EXPECT_FALSE(m_manager->ResolveAddress("10.0.0.1:80"));
    EXPECT_EQ(m_resolver.GetRequestCount("10.0.0.1:80"), 0);
}

TEST_F(AddressManagerTest, LocalTestLooksAtTheTextBeforeTheFirstColonOnly)
{
    m_manager->SetLocalAddressesForTesting({"localhost", "127.0.0.1"});
    EXPECT_TRUE(m_manager->IsLocalAddress("localhost:8080"));
    EXPECT_TRUE(m_manager->IsLocalAddress("127.0.0.1:80"));
    EXPECT_TRUE(m_manager->IsLocalAddress("localhost"));
    EXPECT_FALSE(m_manager->IsLocalAddress("LOCALHOST:80"));
    EXPECT_FALSE(m_manager->IsLocalAddress("127.0.0.2:80"));
    EXPECT_FALSE(m_manager->IsLocalAddress("[::1]:8080"));
}

TEST_F(AddressManagerTest, ImmediateAnswerIsCachedPerExactKey)
{
    m_resolver.Script("server1:80", "10.1.2.3");
    m_resolver.Script("server1:443", "10.1.2.4");
    auto first = m_manager->ResolveAddress("server1:80");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->ToString(), "10.1.2.3:80");
    EXPECT_TRUE(m_manager->ResolveAddress("server1:80"));
    EXPECT_EQ(m_resolver.GetRequestCount("server1:80"), 1);

    EXPECT_EQ(m_manager->ResolveAddress("server1:443")->ToString(), "10.1.2.4:443");
    m_manager->ResolveAddress("Server1:80"); // another key
    EXPECT_EQ(m_resolver.GetRequestCount("Server1:80"), 1);
    EXPECT_EQ(m_manager->GetCacheSizeForTesting(), 3u);
}

TEST_F(AddressManagerTest, AnswerFromAnotherThreadEndsTheWait)
{
    m_resolver.SetMode(FakeResolver::ANSWER_LATER);
    m_resolver.SetDelayMs(30);
    auto address = m_manager->ResolveAddress("10.9.8.7:53");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->ToString(), "10.9.8.7:53");
}

TEST_F(AddressManagerTest, FailureIsRememberedForAMinuteThenAskedAgain)
{
    m_resolver.SetMode(FakeResolver::ANSWER_EMPTY);
    EXPECT_FALSE(m_manager->ResolveAddress("nowhere:80"));
    EXPECT_FALSE(m_manager->ResolveAddress("nowhere:80"));
    EXPECT_EQ(m_resolver.GetRequestCount("nowhere:80"), 1);

    QOX::AdvanceClockForTesting(CAddressManager::CACHE_LIFETIME_FAILED + 1000);
    m_resolver.SetMode(FakeResolver::ANSWER_AT_ONCE);
    m_resolver.Script("nowhere:80", "10.0.0.9");
    auto address = m_manager->ResolveAddress("nowhere:80");
    ASSERT_TRUE(address);
    EXPECT_EQ(m_resolver.GetRequestCount("nowhere:80"), 2);
}

TEST_F(AddressManagerTest, SuccessLivesAnHourAcrossTheClockWrap)
{
    m_resolver.Script("host:1", "10.0.0.1");
    // Store the answer just before the 32-bit clock wraps.
    QOX::AdvanceClockForTesting(0u - QOX::clock() - 1000000u);
    ASSERT_TRUE(m_manager->ResolveAddress("host:1"));
    QOX::AdvanceClockForTesting(CAddressManager::CACHE_LIFETIME_RESOLVED - 5000000u);
    EXPECT_TRUE(m_manager->ResolveAddress("host:1"));
    EXPECT_EQ(m_resolver.GetRequestCount("host:1"), 1);
    QOX::AdvanceClockForTesting(10000000u);
    EXPECT_TRUE(m_manager->ResolveAddress("host:1"));
    EXPECT_EQ(m_resolver.GetRequestCount("host:1"), 2);
}

TEST_F(AddressManagerTest, FirstAnswerForAKeyStays)
{
    m_manager->OnResolveAddressCompleted(0, "dup:80", ZRT::CTCPIPAddress::FromText("10.0.0.1", 80));
    m_manager->OnResolveAddressCompleted(0, "dup:80", ZRT::CTCPIPAddress::FromText("10.0.0.2", 80));
    EXPECT_EQ(m_manager->ResolveAddress("dup:80")->ToString(), "10.0.0.1:80");
    EXPECT_EQ(m_resolver.GetRequestCount("dup:80"), 0);
}

TEST_F(AddressManagerTest, StopAndTerminateEndAWaitingQueryAtOnce)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    for (int variant = 0; variant < 2; ++variant) {
        std::atomic<bool> done{false};
        bool resolved = true;
        std::thread waiter([&] {
            resolved = static_cast<bool>(m_manager->ResolveAddress("silent:" + std::to_string(variant)));
            done = true;
        });
        while (m_resolver.GetRequestCount("silent:" + std::to_string(variant)) == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(done.load());
        if (variant == 0)
            m_manager->StopRequest();
        else
            m_manager->Terminate();
        waiter.join();
        EXPECT_FALSE(resolved);
    }
    // A late answer after Terminate does not resurrect anything.
    EXPECT_FALSE(m_manager->ResolveAddress("silent:1"));
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
                auto address = m_manager->ResolveAddress(key);
                if (!address || address->ToString() != key)
                    failures.fetch_add(1);
                m_manager->IsLocalAddress(key);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST(AddressManagerSlow, UnansweredQueryGivesUpAfterThirtySeconds)
{
    FakeResolver resolver;
    resolver.SetMode(FakeResolver::NEVER_ANSWER);
    CAddressManager* manager = CAddressManager::GetInstance();
    ASSERT_TRUE(manager->Init(&resolver));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->ResolveAddress("never:1"));
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    manager->Terminate();
    EXPECT_GE(waited, 29.9);
    EXPECT_LT(waited, 45.0);
}

} // namespace
