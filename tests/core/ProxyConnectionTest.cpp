#include <atomic>
#include <thread>

#include "CoreTestSupport.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {
namespace {

// A link whose Disconnect only records the request: its closure report comes when the test says.
class DeferredCloseLink : public FakeDataLayer {
public:
    void Disconnect() override { ++disconnects; }
    std::atomic<int> disconnects{0};
};

TEST_F(ProxyTest, RelaysBothWaysOneLinkPerConnectionAndNumbersConnections)
{
    EchoLinks();
    TestClient a;
    TestClient b;
    ASSERT_TRUE(a.Connect(m_port));
    ASSERT_TRUE(a.Echoes("hello"));
    ASSERT_TRUE(b.Connect(m_port));
    ASSERT_TRUE(b.Echoes("x"));

    auto first = Handler(0);
    auto second = Handler(1);
    EXPECT_EQ(second->id, first->id + 1);
    EXPECT_EQ(first->inits, 1);
    EXPECT_EQ(first->requests.front(), "hello");
    EXPECT_TRUE(first->connectResult);

    Proxy::CProxyConnection* connection = first->Connection();
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->IsConnectedToHost());
    EXPECT_TRUE(connection->IsConnectedToClient());
    EXPECT_EQ(connection->GetClientAddress().ToString().find("127.0.0.1"), 0u);
    EXPECT_NE(connection->GetClientPort(), 0u);
    EXPECT_FALSE(connection->ConnectToHost(new CTCPIPAddress(127, 0, 0, 1, 81)));
    EXPECT_FALSE(connection->ConnectToHost({}));
    EXPECT_EQ(m_multiPointLayer.GetConnectCount(), 2);
    EXPECT_EQ(connection->GetDatagramHandler(), &m_datagramHandler);
    EXPECT_EQ(connection->GetConnectionListener(), &m_connectionListener);
}

TEST_F(ProxyTest, ClientThatClosesSilentlyGetsNoHandlerAndLeavesTheSet)
{
    TestClient silent;
    ASSERT_TRUE(silent.Connect(m_port));
    silent.Close();
    EchoLinks();
    TestClient active;
    ASSERT_TRUE(active.Connect(m_port));
    ASSERT_TRUE(active.Echoes("x"));
    EXPECT_TRUE(WaitForConnections(1));
    EXPECT_EQ(HandlerCount(), 1u);
}

TEST_F(ProxyTest, FailedHostConnectLeavesNoLinkAndClientBytesAreNotSent)
{
    m_multiPointLayer.SetFail(true);
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("x"));
    auto log = Handler(0);
    ASSERT_TRUE(WaitUntil([&] { return !log->Requests().empty(); }));
    EXPECT_FALSE(log->connectResult);
    EXPECT_FALSE(log->Connection()->IsConnectedToHost());
    EXPECT_FALSE(log->Connection()->SendToHost("y", 1));
}

TEST_F(ProxyTest, QueuedHostBytesAreDeliveredInOrderAfterTheLinkClosedThenTheClientIsClosed)
{
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("go"));
    auto log = Handler(0);
    auto link = WaitForListenedLink();
    ASSERT_TRUE(link);
    link->PushFromRemote("a");
    link->PushFromRemote("bb");
    link->PushFromRemote("ccc");
    link->CloseFromRemote();
    client.Send("late"); // may already fail: the connection ends on its own
    bool closed = false;
    EXPECT_EQ(client.ReadToEnd(&closed), "abbccc");
    EXPECT_TRUE(closed);
    EXPECT_TRUE(WaitForConnections(0));
    EXPECT_EQ(log->responses, (std::vector<std::string>{"a", "bb", "ccc"}));
    EXPECT_EQ(log->Requests(), "go");
    EXPECT_EQ(log->terminates, 1);
    EXPECT_TRUE(WaitUntil([&] { return log->destroyed; }));
}

TEST_F(ProxyTest, StaleClosureIsIgnoredAndTwoDisconnectsTerminateOnce)
{
    EchoLinks();
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Echoes("one"));
    auto log = Handler(0);
    QOX::CRefCountPtr<Proxy::CProxyConnection> connection(log->Connection());
    ASSERT_TRUE(connection);

    QOX::CRefCountPtr<FakeDataLayer> stranger(new FakeDataLayer());
    connection->OnConnectionClosed(*stranger);
    EXPECT_TRUE(connection->IsConnectedToHost());
    ASSERT_TRUE(client.Echoes("two"));

    std::thread other([&] { connection->DisconnectClient(); });
    connection->DisconnectClient();
    other.join();
    EXPECT_EQ(log->terminates, 1);
    EXPECT_FALSE(connection->IsConnectedToClient());
    EXPECT_FALSE(connection->SendToClient("x", 1));
    EXPECT_TRUE(client.WaitForClose());
    EXPECT_TRUE(WaitUntil([&] { return !connection->IsRunning(); }));
    EXPECT_FALSE(connection->IsConnectedToHost());
    EXPECT_FALSE(log->destroyed);
    connection.Reset();
    EXPECT_TRUE(log->destroyed);
}

TEST_F(ProxyTest, LinkThatReportsClosureLateKeepsTheConnectionAliveUntilThen)
{
    SingleLinkLayer<DeferredCloseLink> layer;
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &layer, &m_datagramHandler, &m_connectionListener));
    const int port = m_proxy.GetListenPort();
    TestClient client;
    ASSERT_TRUE(client.Connect(port));
    ASSERT_TRUE(client.Send("hi"));
    auto log = Handler(0);
    ASSERT_TRUE(WaitUntil([&] { return layer.Last() && layer.Last()->GetSinkCount() == 1; }));
    auto link = layer.Last();
    client.Close();
    ASSERT_TRUE(WaitUntil([&] { return link->disconnects == 1; }));
    EXPECT_TRUE(WaitForConnections(0));
    EXPECT_EQ(log->terminates, 1);
    EXPECT_FALSE(log->destroyed);
    link->PushFromRemote("nobody reads this");
    EXPECT_FALSE(log->destroyed);
    link->CloseFromRemote(); // last reference goes here, on this thread
    EXPECT_TRUE(log->destroyed);
    EXPECT_EQ(link->GetSinkCount(), 0);
    m_proxy.StopProxy();
}

TEST_F(ProxyTest, StopProxyEndsIdleConnectionsAndTheServerRestarts)
{
    EchoLinks();
    TestClient withHandler;
    TestClient withoutHandler;
    ASSERT_TRUE(withHandler.Connect(m_port));
    ASSERT_TRUE(withoutHandler.Connect(m_port));
    ASSERT_TRUE(withHandler.Echoes("x"));
    ASSERT_TRUE(WaitForConnections(2));
    auto log = Handler(0);

    m_proxy.StopProxy(); // both threads sit in poll() without a time-out
    EXPECT_FALSE(m_proxy.IsConnected());
    EXPECT_EQ(m_proxy.GetConnectionCount(), 0u);
    EXPECT_EQ(log->terminates, 1);
    EXPECT_TRUE(log->destroyed);
    EXPECT_TRUE(withHandler.WaitForClose());
    EXPECT_TRUE(withoutHandler.WaitForClose());
    m_proxy.StopProxy();

    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    TestClient again;
    ASSERT_TRUE(again.Connect(m_proxy.GetListenPort()));
    ASSERT_TRUE(again.Echoes("y"));
}

} // namespace
} // namespace Testing
} // namespace ZRT
