#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "RecordingSink.h"
#include "TestSockets.h"
#include "host/CDirectMultiPointLayer.h"
#include "host/CEventLoopPool.h"
#include "host/CTcpDataLayer.h"

using namespace ZRT;
using namespace ZRT::Host;
using ZRT::Testing::RecordingSink;
using ZRT::Testing::TestSockets;

namespace {

// A short pause for checks that something does NOT happen.
void Settle()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
}

class TcpDataLayerTest : public ::testing::Test {
protected:
    // Connects a link to a fresh listener on ip; m_peer is the accepted remote end.
    QOX::CRefCountPtr<IZRTDataLayer> Open(const char* ip = "127.0.0.1")
    {
        unsigned int port = 0;
        m_listening = TestSockets::Listen(ip, port);
        EXPECT_GE(m_listening, 0);
        QOX::CRefCountPtr<IZRTDataLayer> link =
            m_layer.Connect(*TestSockets::Address(ip, port), *TestSockets::Address("127.0.0.1", 1));
        m_peer = TestSockets::Accept(m_listening);
        EXPECT_GE(m_peer, 0);
        return link;
    }

    void TearDown() override
    {
        TestSockets::Close(m_peer);
        TestSockets::Close(m_listening);
    }

    CEventLoopPool m_loops{1};
    CDirectMultiPointLayer m_layer{m_loops};
    int m_listening = -1;
    int m_peer = -1;
};

TEST_F(TcpDataLayerTest, ConnectsOverIPv4AndIPv6AndCarriesBytesBothWays)
{
    for (const char* ip : {"127.0.0.1", "::1"}) {
        SCOPED_TRACE(ip);
        QOX::CRefCountPtr<IZRTDataLayer> link = Open(ip);
        ASSERT_TRUE(link);
        EXPECT_TRUE(link->IsConnected());
        sockaddr_storage remote{};
        int length = sizeof(remote);
        ASSERT_TRUE(link->GetRemoteAddress(reinterpret_cast<sockaddr*>(&remote), &length));
        EXPECT_EQ(remote.ss_family, TestSockets::Address(ip, 1)->GetFamily());

        RecordingSink sink;
        link->AddNotification(&sink);
        EXPECT_EQ(link->SendData(reinterpret_cast<const unsigned char*>("ping"), 4), 4);
        EXPECT_EQ(TestSockets::Read(m_peer, 4), "ping");
        ASSERT_TRUE(TestSockets::WriteAll(m_peer, "pong"));
        EXPECT_TRUE(sink.WaitFor([&] { return sink.received == "pong"; }));

        link->Disconnect();
        EXPECT_TRUE(sink.WaitFor([&] { return sink.closeCalls == 1; }));
        EXPECT_FALSE(link->IsConnected());
        link->RemoveNotification(&sink);
        TearDown();
    }
}

TEST_F(TcpDataLayerTest, ConnectToPortWithoutListenerFails)
{
    for (const char* ip : {"127.0.0.1", "::1"}) {
        const unsigned int port = TestSockets::UnusedPort(ip);
        EXPECT_FALSE(m_layer.Connect(*TestSockets::Address(ip, port), *TestSockets::Address(ip, 1))) << ip;
    }
}

TEST_F(TcpDataLayerTest, StopsReadingWhileReceiveBufferIsFullAndLosesNothing)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    sink.drain = false;
    link->AddNotification(&sink);

    // More than the receive buffer plus whatever the kernel buffers on loopback.
    const std::string data = TestSockets::Pattern(32 * 1024 * 1024);
    std::atomic<bool> written{false};
    std::thread writer([&] {
        TestSockets::WriteAll(m_peer, data);
        written = true;
    });

    ASSERT_TRUE(sink.WaitFor([&] { return link->GetReceiveBacklog() >= CTcpDataLayer::RECEIVE_LIMIT; }));
    Settle();
    EXPECT_EQ(link->GetReceiveBacklog(), CTcpDataLayer::RECEIVE_LIMIT);
    EXPECT_FALSE(written);

    // Drained from this thread, not from a callback.
    std::string received;
    std::vector<unsigned char> buffer(100000);
    while (received.size() < data.size()) {
        const int count = link->ReceiveData(buffer.data(), static_cast<int>(buffer.size()));
        ASSERT_LE(link->GetReceiveBacklog(), CTcpDataLayer::RECEIVE_LIMIT);
        if (count > 0) {
            received.append(reinterpret_cast<char*>(buffer.data()), static_cast<size_t>(count));
            continue;
        }
        const int calls = sink.DataCalls();
        ASSERT_TRUE(sink.WaitFor([&] { return sink.dataCalls > calls || link->GetReceiveBacklog() > 0; }));
    }
    writer.join();
    EXPECT_TRUE(received == data);
    link->RemoveNotification(&sink);
    link->Disconnect();
}

TEST_F(TcpDataLayerTest, SendDataQueuesWhatTheSocketRefusesAndReportsTheDrain)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    link->AddNotification(&sink);

    const std::string data = TestSockets::Pattern(16 * 1024 * 1024, 7);
    const size_t chunk = 1024 * 1024;
    for (size_t offset = 0; offset < data.size(); offset += chunk)
        ASSERT_EQ(link->SendData(reinterpret_cast<const unsigned char*>(data.data() + offset), chunk),
                  static_cast<int>(chunk));
    // Nobody reads the peer yet, so most of it must still be queued.
    EXPECT_GT(link->GetSendBacklog(), CTcpDataLayer::SEND_HIGH_WATER);
    EXPECT_EQ(sink.Drained(), 0);

    const std::string arrived = TestSockets::Read(m_peer, data.size());
    EXPECT_TRUE(arrived == data);
    EXPECT_TRUE(sink.WaitFor([&] { return sink.drainedCalls >= 1; }));
    EXPECT_EQ(link->GetSendBacklog(), 0u);
    link->RemoveNotification(&sink);
    link->Disconnect();
}

TEST_F(TcpDataLayerTest, RemoteCloseComesOnceAfterEveryByte)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    link->AddNotification(&sink);

    const std::string data = TestSockets::Pattern(3 * 1024 * 1024, 3);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, data));
    TestSockets::Close(m_peer);
    m_peer = -1;

    ASSERT_TRUE(sink.WaitFor([&] { return sink.closeCalls == 1; }));
    EXPECT_TRUE(sink.Received() == data);
    EXPECT_FALSE(sink.dataAfterClose);
    EXPECT_FALSE(link->IsConnected());

    link->Disconnect();
    link->Disconnect();
    Settle();
    EXPECT_EQ(sink.Closes(), 1);
    link->RemoveNotification(&sink);
}

TEST_F(TcpDataLayerTest, CloseWaitsForBytesTheSinkHasNotTakenYet)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    sink.drain = false;
    link->AddNotification(&sink);

    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "tail"));
    TestSockets::Close(m_peer);
    m_peer = -1;
    ASSERT_TRUE(sink.WaitFor([&] { return sink.dataCalls >= 1; }));
    Settle();
    EXPECT_EQ(sink.Closes(), 0);

    unsigned char buffer[16];
    ASSERT_EQ(link->ReceiveData(buffer, sizeof(buffer)), 4);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 4), "tail");
    EXPECT_TRUE(sink.WaitFor([&] { return sink.closeCalls == 1; }));
    link->RemoveNotification(&sink);
}

TEST_F(TcpDataLayerTest, DisconnectFromInsideCallbackClosesOnce)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    sink.onData = [](IZRTDataLayer& layer) {
        layer.Disconnect();
        layer.Disconnect();
    };
    link->AddNotification(&sink);

    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "bye"));
    ASSERT_TRUE(sink.WaitFor([&] { return sink.closeCalls == 1; }));
    EXPECT_EQ(TestSockets::Read(m_peer, 0), "");  // the peer sees the close
    Settle();
    EXPECT_EQ(sink.Closes(), 1);
    link->RemoveNotification(&sink);
}

TEST_F(TcpDataLayerTest, DisconnectStillDeliversQueuedBytes)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    link->AddNotification(&sink);

    const std::string data = TestSockets::Pattern(8 * 1024 * 1024, 5);
    ASSERT_EQ(link->SendData(reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size())),
              static_cast<int>(data.size()));
    link->Disconnect();
    EXPECT_TRUE(sink.WaitFor([&] { return sink.closeCalls == 1; }));
    EXPECT_EQ(link->SendData(reinterpret_cast<const unsigned char*>("late"), 4), -1);

    const std::string arrived = TestSockets::Read(m_peer, 0);
    EXPECT_EQ(arrived.size(), data.size());
    EXPECT_TRUE(arrived == data);
    link->RemoveNotification(&sink);
}

TEST_F(TcpDataLayerTest, RemoveNotificationWaitsForACallbackOnAnotherThread)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    RecordingSink sink;
    bool first = true;
    sink.onData = [&](IZRTDataLayer&) {
        if (!first)
            return;
        first = false;
        entered.set_value();
        released.wait();
    };
    link->AddNotification(&sink);

    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "one"));
    entered.get_future().wait();
    std::atomic<bool> removed{false};
    std::thread remover([&] {
        link->RemoveNotification(&sink);
        removed = true;
    });
    Settle();
    EXPECT_FALSE(removed);
    release.set_value();
    remover.join();
    EXPECT_TRUE(removed);

    const int calls = sink.DataCalls();
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "two"));
    TestSockets::Close(m_peer);
    m_peer = -1;
    Settle();
    EXPECT_EQ(sink.DataCalls(), calls);
    EXPECT_EQ(sink.Closes(), 0);
    link->Disconnect();
}

TEST_F(TcpDataLayerTest, RemoveNotificationFromInsideItsOwnCallbackReturnsAtOnce)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    RecordingSink sink;
    std::atomic<int> removals{0};
    sink.onData = [&](IZRTDataLayer& layer) {
        if (layer.RemoveNotification(&sink))
            ++removals;
    };
    link->AddNotification(&sink);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "x"));
    ASSERT_TRUE(sink.WaitFor([&] { return sink.dataCalls == 1; }));
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "y"));
    TestSockets::Close(m_peer);
    m_peer = -1;
    Settle();
    EXPECT_EQ(removals, 1);
    EXPECT_EQ(sink.DataCalls(), 1);
    EXPECT_EQ(sink.Closes(), 0);
    link->Disconnect();
}

TEST_F(TcpDataLayerTest, SinkRegisteredLateHearsEarlierBytesAndClose)
{
    QOX::CRefCountPtr<IZRTDataLayer> link = Open();
    ASSERT_TRUE(link);
    ASSERT_TRUE(TestSockets::WriteAll(m_peer, "early"));
    TestSockets::Close(m_peer);
    m_peer = -1;
    // Bytes and FIN are at the link before anybody listens.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));

    RecordingSink sink;
    link->AddNotification(&sink);
    EXPECT_TRUE(sink.WaitFor([&] { return sink.closeCalls == 1; }));
    EXPECT_EQ(sink.Received(), "early");
    link->RemoveNotification(&sink);
}

} // namespace
