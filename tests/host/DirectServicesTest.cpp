// The direct host services other than the TCP link: the connection listener, the datagram
// handler and the resolver.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "RecordingSink.h"
#include "fakes/Guarded.h"
#include "fakes/TestSockets.h"
#include "host/CDirectConnectionListener.h"
#include "host/CDirectDatagramHandler.h"
#include "host/CDirectResolver.h"
#include "host/CEventLoopPool.h"
#include "transport/CTCPIPAddress.h"

using namespace ZRT;
using namespace ZRT::Host;
using ZRT::Testing::Guarded;
using ZRT::Testing::RecordingSink;
using ZRT::Testing::TestSockets;

namespace {

// Takes the accepted stream the way the engine does: a reference, then a sink on it.
class AcceptingReceiver : public IConnectionReceiver, public Guarded {
public:
    void OnConnectionEstablished(const IZRTConnectionAddress& peer, const IZRTConnectionAddress& local,
                                 IZRTDataLayer& stream) override
    {
        stream.AddNotification(&sink);
        Change([&] {
            peers.push_back(peer.ToString());
            locals.push_back(local.ToString());
            streams.emplace_back(&stream);
        });
    }

    bool WaitForCount(size_t count) { return WaitFor([&] { return streams.size() >= count; }); }
    size_t Count() const { return Locked([&] { return streams.size(); }); }

    void CloseAll()
    {
        for (auto& stream : streams) {
            stream->RemoveNotification(&sink);
            stream->Disconnect();
        }
    }

    RecordingSink sink;
    std::vector<std::string> peers;
    std::vector<std::string> locals;
    std::vector<QOX::CRefCountPtr<IZRTDataLayer>> streams;
};

class DirectConnectionListenerTest : public ::testing::Test {
protected:
    CEventLoopPool m_loops{1};
    CDirectConnectionListener m_listener{m_loops};
};

TEST_F(DirectConnectionListenerTest, AcceptedStreamReportsItsPeerAndCarriesBytes)
{
    struct SCase {
        const char* request;
        const char* listenIp;
    };
    for (const SCase& test : {SCase{"0.0.0.0", "127.0.0.1"}, SCase{"::", "::1"}}) {
        SCOPED_TRACE(test.request);
        AcceptingReceiver receiver;
        QOX::CRefCountPtr<IZRTConnectionAddress> listening =
            m_listener.StartListening(*TestSockets::Address(test.request, 0), 1, &receiver);
        ASSERT_TRUE(listening);
        EXPECT_NE(listening->GetPortNumber(), 0u);
        EXPECT_EQ(listening->ToString(), TestSockets::Address(test.listenIp, listening->GetPortNumber())->ToString());

        const int client = TestSockets::Connect(test.listenIp, listening->GetPortNumber());
        ASSERT_GE(client, 0);
        ASSERT_TRUE(receiver.WaitForCount(1));
        EXPECT_EQ(receiver.peers[0], TestSockets::LocalAddress(client).ToString());
        EXPECT_EQ(receiver.locals[0], listening->ToString());

        ASSERT_TRUE(TestSockets::WriteAll(client, "hello"));
        EXPECT_TRUE(receiver.sink.WaitFor([&] { return receiver.sink.received == "hello"; }));
        receiver.streams[0]->SendData(reinterpret_cast<const unsigned char*>("world"), 5);
        EXPECT_EQ(TestSockets::Read(client, 5), "world");

        m_listener.StopListening(*listening);
        receiver.CloseAll();
        EXPECT_EQ(TestSockets::Read(client, 0), "");
        TestSockets::Close(client);
    }
}

TEST_F(DirectConnectionListenerTest, NothingIsReportedAfterStopListening)
{
    AcceptingReceiver receiver;
    QOX::CRefCountPtr<IZRTConnectionAddress> listening =
        m_listener.StartListening(CTCPIPAddress(0, 0, 0, 0, 0), 1, &receiver);
    ASSERT_TRUE(listening);
    m_listener.StopListening(*listening);
    const int client = TestSockets::Connect("127.0.0.1", listening->GetPortNumber());
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(receiver.Count(), 0u);
    TestSockets::Close(client);
}

class RecordingReceiver : public IDatagramReceiver, public Guarded {
public:
    std::function<void()> onDatagram;

    void OnDatagramReceived(int handle, const IZRTConnectionAddress& source, const unsigned char* data,
                            int length) override
    {
        if (onDatagram)
            onDatagram();
        Change([&] {
            handles.push_back(handle);
            sources.push_back(source.ToString());
            payloads.emplace_back(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
        });
    }

    bool WaitForCount(size_t count) { return WaitFor([&] { return payloads.size() >= count; }); }

    std::vector<int> handles;
    std::vector<std::string> sources;
    std::vector<std::string> payloads;
};

// Receives one datagram on the test's socket; returns its payload and the sender's port.
std::string ReceiveOn(int socket, sockaddr_storage& sender, socklen_t& length)
{
    char buffer[2048];
    length = sizeof(sender);
    if (!TestSockets::WaitReadable(socket, 5000))
        return "";
    const ssize_t count = recvfrom(socket, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&sender), &length);
    return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : std::string();
}

class DirectDatagramHandlerTest : public ::testing::Test {
protected:
    CEventLoopPool m_loops{1};
    CDirectDatagramHandler m_handler{m_loops};
    CTCPIPAddress m_any{0, 0, 0, 0, 0};
};

TEST_F(DirectDatagramHandlerTest, RoundTripWithIPv4AndIPv6Peers)
{
    RecordingReceiver receiver;
    const int handle = m_handler.RegisterReceiver(m_any, &receiver);
    ASSERT_NE(handle, -1);
    ASSERT_NE(m_handler.GetLocalPort(handle), 0u);

    size_t expected = 0;
    for (const char* ip : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(ip);
        unsigned int port = 0;
        const int peer = TestSockets::BindUdp(ip, port);
        ASSERT_GE(peer, 0);
        const std::string payload = std::string("to ") + ip;
        m_handler.SendDatagram(handle, *TestSockets::Address(ip, port),
                               reinterpret_cast<const unsigned char*>(payload.data()), static_cast<int>(payload.size()));
        sockaddr_storage sender{};
        socklen_t length = 0;
        EXPECT_EQ(ReceiveOn(peer, sender, length), payload);

        const std::string reply = std::string("from ") + ip;
        ASSERT_EQ(sendto(peer, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&sender), length),
                  static_cast<ssize_t>(reply.size()));
        ASSERT_TRUE(receiver.WaitForCount(++expected));
        receiver.Locked([&] {
            EXPECT_EQ(receiver.payloads.back(), reply);
            EXPECT_EQ(receiver.sources.back(), TestSockets::Address(ip, port)->ToString());
            EXPECT_EQ(receiver.handles.back(), handle);
        });
        TestSockets::Close(peer);
    }
    m_handler.UnregisterReceiver(handle);
}

TEST_F(DirectDatagramHandlerTest, UnregisterWaitsForADeliveryAndStopsAllOthers)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> calls{0};
    RecordingReceiver receiver;
    receiver.onDatagram = [&] {
        if (calls++ == 0) {
            entered.set_value();
            released.wait();
        }
    };
    const int handle = m_handler.RegisterReceiver(m_any, &receiver);
    ASSERT_NE(handle, -1);
    unsigned int peerPort = 0;
    const int peer = TestSockets::BindUdp("127.0.0.1", peerPort);
    auto send = [&] { TestSockets::SendTo(peer, "127.0.0.1", m_handler.GetLocalPort(handle), "d"); };

    send();
    entered.get_future().wait();
    send();  // waits in the socket while the first is being delivered
    std::atomic<bool> unregistered{false};
    std::thread stopper([&] {
        m_handler.UnregisterReceiver(handle);
        unregistered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(unregistered);
    release.set_value();
    stopper.join();
    send();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(calls, 1);
    TestSockets::Close(peer);
}

class RecordingNotification : public IResolveAddressCompletedNotification, public Guarded {
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
    class LockingNotification : public IResolveAddressCompletedNotification, public Guarded {
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
