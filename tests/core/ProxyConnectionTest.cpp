#include <algorithm>
#include <atomic>
#include <thread>

#include <sys/socket.h>

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

// Flow control: what one side cannot take yet waits, bounded, and nothing is lost.
// A link whose sends wait in a backlog until the in-test server consumes them, and that
// records the largest backlog the connection let it reach.
class BackloggedLink : public FakeDataLayer {
public:
    static constexpr unsigned int DRAINED_MARK = 64 * 1024;

    int SendData(const unsigned char* data, int size) override
    {
        const unsigned int now = pending += static_cast<unsigned int>(size);
        unsigned int seen = largest;
        while (now > seen && !largest.compare_exchange_weak(seen, now)) {
        }
        return FakeDataLayer::SendData(data, size);
    }
    unsigned int GetSendBacklog() const override { return pending; }
    void ConsumeAll()
    {
        const unsigned int before = pending.exchange(0);
        consumed += before;
        if (before >= DRAINED_MARK)
            SignalSendDrained();
    }

    std::atomic<unsigned int> pending{0};
    std::atomic<unsigned int> largest{0};
    std::atomic<size_t> consumed{0};
};

// Plays a host that sends total bytes as fast as the link lets it: the link holds at most
// LINK_WINDOW unread bytes, like a transport that stops reading its peer.
constexpr unsigned int LINK_WINDOW = 512 * 1024;

void PushPattern(FakeDataLayer& link, size_t total, const std::atomic<bool>& abort)
{
    constexpr size_t CHUNK = 64 * 1024;
    for (size_t offset = 0; offset < total && !abort; offset += CHUNK) {
        if (!WaitUntil([&] { return abort || link.GetReceiveBacklog() < LINK_WINDOW; }, 60000))
            return;
        link.PushFromRemote(Pattern(offset, std::min(CHUNK, total - offset)));
    }
}

TEST_F(ProxyTest, SlowClientGetsEveryByteWhileTheConnectionBuffersOnlyItsBound)
{
    constexpr size_t TOTAL = 16 * 1024 * 1024;
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    client.SetReceiveBuffer(64 * 1024);
    ASSERT_TRUE(client.Send("go"));
    auto log = Handler(0);
    auto link = WaitForListenedLink();
    ASSERT_TRUE(link);
    Proxy::CProxyConnection* connection = log->Connection();
    ASSERT_NE(connection, nullptr);

    std::atomic<bool> abort{false};
    std::thread host([&] { PushPattern(*link, TOTAL, abort); });

    // The client reads nothing yet: the connection fills its queues to the marks and then leaves
    // the host's bytes in the link.
    EXPECT_TRUE(WaitUntil([&] { return link->GetReceiveBacklog() >= LINK_WINDOW; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LE(connection->GetHostBacklog(), Proxy::CProxyConnection::HOST_DATA_HIGH_WATER + Proxy::CProxyConnection::HOST_READ_SIZE);
    EXPECT_LE(connection->GetClientBacklog(),
              Proxy::CProxyConnection::CLIENT_OUTPUT_HIGH_WATER + Proxy::CProxyConnection::HOST_READ_SIZE);

    std::string received;
    received.reserve(TOTAL);
    while (received.size() < TOTAL) {
        const std::string chunk = client.Read(std::min<size_t>(256 * 1024, TOTAL - received.size()), 20000);
        if (chunk.empty())
            break;
        received += chunk;
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    abort = true;
    host.join();
    ASSERT_EQ(received.size(), TOTAL);
    EXPECT_TRUE(received == Pattern(0, TOTAL));
}

TEST_F(ProxyTest, ClientThatStopsSendingStillGetsWhatTheConnectionTookFromTheHost)
{
    constexpr size_t TOTAL = 12 * 1024 * 1024;
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    client.SetReceiveBuffer(64 * 1024);
    ASSERT_TRUE(client.Send("go"));
    auto link = WaitForListenedLink();
    ASSERT_TRUE(link);
    link->PushFromRemote(Pattern(0, TOTAL));
    // Stalled: the client reads nothing, so the connection has stopped draining the link.
    ASSERT_TRUE(WaitUntil([&] { return link->GetReceiveBacklog() < TOTAL && link->GetReceiveBacklog() > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    shutdown(client.Socket(), SHUT_WR);
    bool closed = false;
    const std::string received = client.ReadToEnd(&closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(received.size(), TOTAL - link->GetReceiveBacklog());
    EXPECT_TRUE(received == Pattern(0, received.size()));
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(ProxyTest, HostThatWritesItsWholeResponseBeforeReadingTheRequestDoesNotDeadlock)
{
    constexpr size_t REQUEST = 4 * 1024 * 1024;
    constexpr size_t RESPONSE = 4 * 1024 * 1024;
    SingleLinkLayer<BackloggedLink> layer;
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &layer, &m_datagramHandler, &m_connectionListener));
    TestClient client;
    ASSERT_TRUE(client.Connect(m_proxy.GetListenPort()));

    std::thread writer([&] { client.Send(Pattern(0, REQUEST)); });
    ASSERT_TRUE(WaitUntil([&] { return static_cast<bool>(layer.Last()); }));
    auto link = layer.Last();
    std::atomic<bool> abort{false};
    std::thread host([&] {
        PushPattern(*link, RESPONSE, abort);
        WaitUntil([&] {
            link->ConsumeAll();
            return abort || link->consumed >= REQUEST;
        }, 60000);
    });

    const std::string response = client.Read(RESPONSE, 60000);
    abort = response.size() != RESPONSE;
    host.join();
    writer.join();
    ASSERT_EQ(response.size(), RESPONSE);
    EXPECT_TRUE(response == Pattern(0, RESPONSE));
    EXPECT_EQ(link->consumed.load(), REQUEST);
    EXPECT_TRUE(link->GetSent() == Pattern(0, REQUEST));
    EXPECT_LE(link->largest.load(), Proxy::CProxyConnection::REQUEST_BACKLOG_LIMIT + Proxy::CProxyConnection::CLIENT_READ_SIZE);
    m_proxy.StopProxy();
}

} // namespace
} // namespace Testing
} // namespace ZRT
