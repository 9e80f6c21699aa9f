#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <future>
#include <thread>

#include "fakes/TestSockets.h"
#include "fakes/Guarded.h"
#include "host/CDirectDatagramHandler.h"
#include "host/CEventLoopPool.h"
#include "transport/CTCPIPAddress.h"

using namespace ZRT;
using namespace ZRT::Host;
using ZRT::Testing::Guarded;
using ZRT::Testing::TestSockets;

namespace {

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

} // namespace
