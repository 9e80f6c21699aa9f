#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "fakes/Guarded.h"
#include "host/CDirectResolver.h"

using namespace ZRT;
using namespace ZRT::Host;

namespace {

class RecordingNotification : public IResolveAddressCompletedNotification, public ZRT::Testing::Guarded {
public:
    void OnResolveAddressCompleted(int /*status*/, const std::string& address,
                                   QOX::CRefCountPtr<IZRTConnectionAddress> result) override
    {
        Change([&] { m_answers.emplace_back(address, result ? result->ToString() : std::string("-")); });
    }

    bool WaitForCount(size_t count) { return WaitFor([&] { return m_answers.size() >= count; }, 20000); }
    std::multimap<std::string, std::string> Answers() const
    {
        return Locked([&] { return std::multimap<std::string, std::string>(m_answers.begin(), m_answers.end()); });
    }

private:
    std::vector<std::pair<std::string, std::string>> m_answers;
};

TEST(DirectResolverTest, AnswersEveryRequestOnceToEveryNotificationUnderItsOwnText)
{
    CDirectResolver resolver;
    RecordingNotification first;
    RecordingNotification second;
    resolver.AddNotification(&first);
    resolver.AddNotification(&second);
    resolver.AddNotification(&first);  // a second registration of the same one changes nothing

    const std::multimap<std::string, std::string> expected = {
        {"127.0.0.1:80", "127.0.0.1:80"},
        {"127.0.0.1:80", "127.0.0.1:80"},  // asked twice, answered twice
        {"localhost:8080", "127.0.0.1:8080"},
        {"[::1]:443", "[::1]:443"},
        {"::1:443", "[::1]:443"},
        {"127.0.0.2:0", "127.0.0.2:0"},
        {"localhost", "-"},
        {"localhost:", "-"},
        {"localhost:http", "-"},
        {"127.0.0.1:65536", "-"},
        {":80", "-"},
        {"[::1:80", "-"},
        {"[]:80", "-"},
    };
    for (const auto& request : expected)
        EXPECT_EQ(resolver.ResolveAddressAsync(request.first), 0);

    ASSERT_TRUE(first.WaitForCount(expected.size()));
    ASSERT_TRUE(second.WaitForCount(expected.size()));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(first.Answers(), expected);
    EXPECT_EQ(second.Answers(), expected);
}

// The engine's address manager holds its lock while it calls RemoveNotification, and its
// OnResolveAddressCompleted takes the same lock: removing must not wait for that delivery.
TEST(DirectResolverTest, RemoveNotificationDoesNotWaitForADeliveryInProgress)
{
    class LockingNotification : public IResolveAddressCompletedNotification, public ZRT::Testing::Guarded {
    public:
        void OnResolveAddressCompleted(int, const std::string&, QOX::CRefCountPtr<IZRTConnectionAddress>) override
        {
            Change([&] { ++entered; });
            std::lock_guard<std::mutex> manager(managerLock);
            Change([&] { ++finished; });
        }
        std::mutex managerLock;
        int entered = 0;
        int finished = 0;
    } notification;

    CDirectResolver resolver(1);
    resolver.AddNotification(&notification);
    {
        std::unique_lock<std::mutex> manager(notification.managerLock);
        resolver.ResolveAddressAsync("127.0.0.1:1");
        ASSERT_TRUE(notification.WaitFor([&] { return notification.entered == 1; }));
        EXPECT_EQ(resolver.RemoveNotification(&notification), 0);  // would hang if it waited
    }
    ASSERT_TRUE(notification.WaitFor([&] { return notification.finished == 1; }));

    // Nothing starts towards it after the removal.
    RecordingNotification witness;
    resolver.AddNotification(&witness);
    resolver.ResolveAddressAsync("127.0.0.1:2");
    ASSERT_TRUE(witness.WaitForCount(1));
    EXPECT_EQ(notification.Locked([&] { return notification.entered; }), 1);
}

TEST(DirectResolverTest, ConcurrentRequestsAreAllAnswered)
{
    CDirectResolver resolver;
    RecordingNotification notification;
    resolver.AddNotification(&notification);
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i)
                resolver.ResolveAddressAsync("127.0.0." + std::to_string(t + 1) + ":" + std::to_string(i + 1));
        });
    }
    for (std::thread& caller : callers)
        caller.join();
    ASSERT_TRUE(notification.WaitForCount(200));
    const auto answers = notification.Answers();
    EXPECT_EQ(answers.size(), 200u);
    for (const auto& answer : answers)
        EXPECT_EQ(answer.first, answer.second);
}

} // namespace
