// The proxy core over the shared fakes: the server, each client connection with its host link
// and flow control, the protocol factory, and the real handlers end to end.
#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeMultiPointLayer.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "fakes/Polling.h"
#include "fakes/TestSockets.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/core/CConnectionProtocolFactory.h"
#include "proxy/core/CProxy.h"
#include "proxy/core/CProxyConnection.h"
#include "proxy/core/CProxyServer.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"
#include "runtime/CThread.h"
#include "transport/CTCPIPAddress.h"

namespace ZRT {
namespace Testing {
namespace {

// Deterministic bytes, so a relayed stream can be checked at any offset.
inline std::string Pattern(size_t offset, size_t length)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>(((offset + i) * 7 + (offset + i) / 251) & 0xff);
    return bytes;
}

// A blocking loopback client with receive time-outs.
class TestClient {
public:
    TestClient() = default;
    ~TestClient() { Close(); }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    bool Connect(int port, const char* host = "127.0.0.1")
    {
        m_socket = TestSockets::Connect(host, static_cast<unsigned int>(port));
        return m_socket >= 0;
    }
    bool Send(const std::string& bytes) { return TestSockets::WriteAll(m_socket, bytes); }
    // Sends bytes and reads the same back, through an echoing link.
    bool Echoes(const std::string& bytes) { return Send(bytes) && Read(bytes.size()) == bytes; }
    // Exactly count bytes, or fewer if the peer closed or the time ran out.
    std::string Read(size_t count, int timeoutMs = 10000) { return TestSockets::Read(m_socket, count, timeoutMs); }
    // Everything until the peer closes; closed tells whether it did.
    std::string ReadToEnd(bool* closed = nullptr, int timeoutMs = 10000)
    {
        return TestSockets::Read(m_socket, 0, timeoutMs, closed);
    }
    bool WaitForClose(int timeoutMs = 10000)
    {
        bool closed = false;
        ReadToEnd(&closed, timeoutMs);
        return closed;
    }
    void SetReceiveBuffer(int bytes) { setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)); }
    void Close() { TestSockets::Close(std::exchange(m_socket, -1)); }
    int Socket() const { return m_socket; }

private:
    int m_socket = -1;
};

// Everything one test handler saw; outlives the handler.
struct SHandlerLog : Guarded {
    Proxy::IProxyConnection* connection = nullptr;
    int id = 0;
    std::vector<std::string> requests;
    std::vector<std::string> responses;
    int inits = 0;
    int terminates = 0;
    bool destroyed = false;
    bool connectResult = false;
    bool passEnds = false;
    int clientEnds = 0;
    int hostEnds = 0;

    // A copy taken under the lock: the handler writes on the connection's thread.
    template <class T>
    T Get(const T& field) const
    {
        return Locked([&] { return field; });
    }

    std::string Requests() const
    {
        return Locked([&] {
            std::string all;
            for (const auto& chunk : requests)
                all += chunk;
            return all;
        });
    }
    Proxy::CProxyConnection* Connection() const
    {
        return Locked([&] { return dynamic_cast<Proxy::CProxyConnection*>(connection); });
    }
};

// Makes Link objects and keeps the newest, for tests that need a link unlike FakeDataLayer.
template <class Link>
class SingleLinkLayer : public IZRTMultiPointLayer, public Guarded {
public:
    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress&, const IZRTConnectionAddress&) override
    {
        return Locked([&] {
            m_last = new Link();
            return QOX::CRefCountPtr<IZRTDataLayer>(m_last.GetRawPointer());
        });
    }
    QOX::CRefCountPtr<Link> Last() const { return Locked([&] { return m_last; }); }

private:
    QOX::CRefCountPtr<Link> m_last;
};

// Relays like a handler after its negotiation: the first request opens a link to 127.0.0.1:80,
// requests go to the host, host bytes go back to the client.
class RelayProtocol : public Proxy::IConnectionProtocol {
public:
    RelayProtocol(Proxy::IProxyConnection& connection, std::shared_ptr<SHandlerLog> log, bool connect)
        : m_connection(connection), m_log(std::move(log)), m_connect(connect)
    {
        m_log->Locked([&] {
            m_log->connection = &connection;
            m_log->id = connection.GetID();
        });
    }
    ~RelayProtocol() override
    {
        m_log->Locked([&] {
            m_log->destroyed = true;
            m_log->connection = nullptr;
        });
    }
    void Init() override { m_log->Locked([&] { ++m_log->inits; }); }
    void Terminate() override { m_log->Locked([&] { ++m_log->terminates; }); }
    void HandleRequest(const char* data, int length) override
    {
        m_log->Locked([&] { m_log->requests.emplace_back(data, static_cast<size_t>(length)); });
        if (m_connect && !m_tried) {
            m_tried = true;
            m_connection.BeginConnectToHost(new CTCPIPAddress(127, 0, 0, 1, 80));
        }
        // A host that may block connects on a helper thread: what comes meanwhile waits.
        if (m_connect && !m_connection.IsConnectedToHost()) {
            m_waiting.append(data, static_cast<size_t>(length));
            return;
        }
        m_connection.SendToHost(data, length);
    }
    void HandleResponse(const char* data, int length) override
    {
        m_log->Locked([&] { m_log->responses.emplace_back(data, static_cast<size_t>(length)); });
        m_connection.SendToClient(data, length);
    }
    // Passes both ends on, as a tunnel does.
    bool HandleClientEnd() override
    {
        m_log->Locked([&] { ++m_log->clientEnds; });
        return m_log->Get(m_log->passEnds) && m_connection.EndHostOutput();
    }
    bool HandleHostEnd() override
    {
        m_log->Locked([&] { ++m_log->hostEnds; });
        return m_log->Get(m_log->passEnds);
    }
    void OnHostConnected(bool connected) override
    {
        m_log->Locked([&] { m_log->connectResult = connected; });
        if (connected && !m_waiting.empty())
            m_connection.SendToHost(m_waiting.data(), static_cast<int>(m_waiting.size()));
        m_waiting.clear();
    }
    unsigned int GetRequestBacklog() const override { return static_cast<unsigned int>(m_waiting.size()); }

private:
    Proxy::IProxyConnection& m_connection;
    std::shared_ptr<SHandlerLog> m_log;
    bool m_connect;
    bool m_tried = false;
    std::string m_waiting;
};

// A started CProxy on 127.0.0.1 and a free port, over the shared fakes, with RelayProtocol
// handlers (or the real ones when UseRealHandlers is called).
class ProxyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_proxy.GetServer().SetProtocolCreator(
            [this](Proxy::IProxyConnection& connection, const char*, int) -> Proxy::IConnectionProtocol* {
                auto log = std::make_shared<SHandlerLog>();
                log->passEnds = m_passEnds;
                {
                    std::lock_guard<std::mutex> hold(m_handlersMutex);
                    m_handlers.push_back(log);
                }
                return new RelayProtocol(connection, log, m_connectOnFirstRequest);
            });
        ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                       &m_connectionListener));
        m_proxy.GetServer().GetAddressManager().SetLocalAddressesForTesting({"localhost", "127.0.0.1"});
        m_port = m_proxy.GetListenPort();
        ASSERT_NE(m_port, 0);
    }

    void TearDown() override
    {
        m_proxy.StopProxy();
        EXPECT_EQ(m_proxy.GetConnectionCount(), 0u);
        UseRealHandlers();
        m_multiPointLayer.ForgetLinks();
    }

    void UseRealHandlers() { m_proxy.GetServer().SetProtocolCreator({}); }
    // Makes every new link answer each send with the same bytes.
    void EchoLinks()
    {
        m_multiPointLayer.SetOnConnect([](FakeDataLayer& link, const IZRTConnectionAddress&) {
            link.SetOnSend([](FakeDataLayer& self, const std::string& bytes) { self.PushFromRemote(bytes); });
        });
    }
    std::shared_ptr<SHandlerLog> Handler(size_t index)
    {
        WaitUntil([&] { return HandlerCount() > index; });
        std::lock_guard<std::mutex> hold(m_handlersMutex);
        return index < m_handlers.size() ? m_handlers[index] : std::make_shared<SHandlerLog>();
    }
    size_t HandlerCount()
    {
        std::lock_guard<std::mutex> hold(m_handlersMutex);
        return m_handlers.size();
    }
    bool WaitForConnections(size_t count)
    {
        return WaitUntil([&] { return m_proxy.GetConnectionCount() == count; });
    }
    // The newest link once its connection listens to it: bytes pushed earlier would reach no one.
    QOX::CRefCountPtr<FakeDataLayer> WaitForListenedLink()
    {
        QOX::CRefCountPtr<FakeDataLayer> link;
        WaitUntil([&] {
            link = m_multiPointLayer.GetLastLink();
            return link && link->GetSinkCount() > 0;
        });
        return link;
    }

    // Connects the client and sends "go", which opens its link; null when either failed. A small
    // receive buffer makes the client slow to take what the host sends.
    QOX::CRefCountPtr<FakeDataLayer> OpenLink(TestClient& client, int receiveBuffer = 0)
    {
        if (!client.Connect(m_port))
            return {};
        if (receiveBuffer > 0)
            client.SetReceiveBuffer(receiveBuffer);
        if (!client.Send("go"))
            return {};
        return WaitForListenedLink();
    }

    FakeResolver m_resolver;
    FakeMultiPointLayer m_multiPointLayer;
    FakeDatagramHandler m_datagramHandler;
    FakeConnectionListener m_connectionListener;
    Proxy::CProxy m_proxy;
    int m_port = 0;
    bool m_connectOnFirstRequest = true;
    std::atomic<bool> m_passEnds{false};

private:
    std::mutex m_handlersMutex;
    std::vector<std::shared_ptr<SHandlerLog>> m_handlers;
};

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
    EXPECT_EQ(second->Get(second->id), first->Get(first->id) + 1);
    EXPECT_EQ(first->Get(first->inits), 1);
    EXPECT_EQ(first->Get(first->requests).front(), "hello");
    EXPECT_TRUE(first->Get(first->connectResult));

    Proxy::CProxyConnection* connection = first->Connection();
    ASSERT_NE(connection, nullptr);
    EXPECT_TRUE(connection->IsConnectedToHost());
    EXPECT_TRUE(connection->IsConnectedToClient());
    EXPECT_EQ(connection->GetClientAddress().ToString().find("127.0.0.1"), 0u);
    EXPECT_NE(connection->GetClientPort(), 0u);
    EXPECT_FALSE(connection->BeginConnectToHost(new CTCPIPAddress(127, 0, 0, 1, 81)));
    EXPECT_FALSE(connection->BeginConnectToHost({}));
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
    EXPECT_FALSE(log->Get(log->connectResult));
    EXPECT_FALSE(log->Connection()->IsConnectedToHost());
    EXPECT_FALSE(log->Connection()->SendToHost("y", 1));
}

TEST_F(ProxyTest, QueuedHostBytesAreDeliveredInOrderAfterTheLinkClosedThenTheClientIsClosed)
{
    TestClient client;
    auto link = OpenLink(client);
    ASSERT_TRUE(link);
    auto log = Handler(0);
    link->PushFromRemote("a");
    link->PushFromRemote("bb");
    link->PushFromRemote("ccc");
    link->CloseFromRemote();
    client.Send("late"); // may already fail: the connection ends on its own
    bool closed = false;
    EXPECT_EQ(client.ReadToEnd(&closed), "abbccc");
    EXPECT_TRUE(closed);
    EXPECT_TRUE(WaitForConnections(0));
    std::string responses;
    for (const std::string& chunk : log->Get(log->responses))
        responses += chunk;
    EXPECT_EQ(responses, "abbccc");
    EXPECT_EQ(log->Requests(), "go");
    EXPECT_EQ(log->Get(log->terminates), 1);
    EXPECT_TRUE(WaitUntil([&] { return log->Get(log->destroyed); }));
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
    EXPECT_FALSE(connection->IsConnectedToClient());
    EXPECT_FALSE(connection->SendToClient("x", 1));
    EXPECT_TRUE(client.WaitForClose());
    EXPECT_TRUE(WaitUntil([&] { return !connection->IsRunning(); }));
    EXPECT_EQ(log->Get(log->terminates), 1) << "on the connection's thread, once";
    EXPECT_FALSE(connection->IsConnectedToHost());
    EXPECT_TRUE(log->Get(log->destroyed)) << "the handler goes with its exchange";
}

TEST_F(ProxyTest, ALinkThatReportsItsClosureLateHoldsNothingOfTheEngine)
{
    SingleLinkLayer<DeferredCloseLink> layer;
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &layer, &m_datagramHandler, &m_connectionListener));
    const int port = m_proxy.GetListenPort();
    for (const bool stop : {false, true}) {
        TestClient client;
        ASSERT_TRUE(client.Connect(port));
        ASSERT_TRUE(client.Send("hi"));
        auto log = Handler(stop ? 1 : 0);
        ASSERT_TRUE(WaitUntil([&] { return layer.Last() && layer.Last()->GetSinkCount() == 1; }));
        auto link = layer.Last();
        if (stop) {
            // Returns once no engine code runs: the connection is destroyed though its link
            // never reported its closure.
            m_proxy.StopProxy();
            EXPECT_TRUE(log->Get(log->destroyed));
        } else {
            client.Close();
        }
        ASSERT_TRUE(WaitUntil([&] { return link->disconnects == 1; }));
        EXPECT_TRUE(WaitForConnections(0));
        EXPECT_TRUE(WaitUntil([&] { return log->Get(log->destroyed); }));
        EXPECT_EQ(log->Get(log->terminates), 1);
        EXPECT_EQ(link->GetSinkCount(), 0);
        // The link's late report reaches nobody.
        link->PushFromRemote("nobody reads this");
        link->CloseFromRemote();
    }
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
    EXPECT_EQ(log->Get(log->terminates), 1);
    EXPECT_TRUE(log->Get(log->destroyed));
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
    auto link = OpenLink(client, 64 * 1024);
    ASSERT_TRUE(link);
    auto log = Handler(0);
    Proxy::CProxyConnection* connection = log->Connection();
    ASSERT_NE(connection, nullptr);

    std::atomic<bool> abort{false};
    std::thread host([&] { PushPattern(*link, TOTAL, abort); });

    // The client reads nothing yet: the connection fills its queues to the marks and then leaves
    // the host's bytes in the link.
    EXPECT_TRUE(WaitUntil([&] { return link->GetReceiveBacklog() >= LINK_WINDOW; }));
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
    auto link = OpenLink(client, 64 * 1024);
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

// Ends: each side's end of sending is passed on, and the connection goes once both ended.

TEST_F(ProxyTest, HostThatClosesIsFollowedAtOnceByTheClientsCloseAfterItsBytes)
{
    TestClient client;
    auto link = OpenLink(client);
    ASSERT_TRUE(link);
    link->PushFromRemote("last words");
    link->CloseFromRemote();
    bool closed = false;
    EXPECT_EQ(client.ReadToEnd(&closed), "last words");
    EXPECT_TRUE(closed);
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(ProxyTest, ClientThatEndsFirstIsPassedOnAfterItsBytesAndStillGetsTheAnswer)
{
    m_passEnds = true;
    TestClient client;
    auto link = OpenLink(client);
    ASSERT_TRUE(link);
    ASSERT_TRUE(client.Send("request"));
    shutdown(client.Socket(), SHUT_WR);
    ASSERT_TRUE(link->WaitForSendShut());
    EXPECT_EQ(link->GetSent(), "gorequest") << "the end comes after every byte";
    link->PushFromRemote("answer");
    link->EndFromRemote();
    bool closed = false;
    EXPECT_EQ(client.ReadToEnd(&closed), "answer");
    EXPECT_TRUE(closed);
    EXPECT_TRUE(WaitForConnections(0));
    EXPECT_EQ(link->GetDisconnects(), 1);
}

TEST_F(ProxyTest, HostThatEndsFirstStillGetsTheClientsLaterBytes)
{
    m_passEnds = true;
    TestClient client;
    auto link = OpenLink(client);
    ASSERT_TRUE(link);
    link->PushFromRemote("greeting");
    link->EndFromRemote();
    bool closed = false;
    EXPECT_EQ(client.ReadToEnd(&closed), "greeting");
    EXPECT_TRUE(closed) << "the host's end reached the client";
    ASSERT_TRUE(client.Send("more"));
    EXPECT_EQ(link->WaitForSent(6), "gomore");
    EXPECT_EQ(m_proxy.GetConnectionCount(), 1u);
    shutdown(client.Socket(), SHUT_WR);
    ASSERT_TRUE(link->WaitForSendShut());
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(ProxyTest, EndsAreNotPassedOnWhenTheHandlerOrTheLinkCannot)
{
    // The handler keeps the ends: the client's end closes everything.
    TestClient client;
    auto link = OpenLink(client);
    ASSERT_TRUE(link);
    shutdown(client.Socket(), SHUT_WR);
    EXPECT_TRUE(client.WaitForClose());
    EXPECT_FALSE(link->WasSendShut());
    EXPECT_TRUE(WaitForConnections(0));

    // A link that cannot half-close (an older host) closes as a whole on the client's end.
    m_passEnds = true;
    m_multiPointLayer.SetOnConnect([](FakeDataLayer& next, const IZRTConnectionAddress&) { next.SetCanHalfClose(false); });
    TestClient second;
    auto old = OpenLink(second);
    ASSERT_TRUE(old);
    old->PushFromRemote("before");
    EXPECT_EQ(second.Read(6), "before");
    shutdown(second.Socket(), SHUT_WR);
    EXPECT_TRUE(second.WaitForClose());
    EXPECT_EQ(old->GetDisconnects(), 1);
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(ProxyTest, SlowClientOfAnEndedHostGetsEveryByteBeforeItsEnd)
{
    constexpr size_t TOTAL = 4 * 1024 * 1024;
    m_passEnds = true;
    TestClient client;
    auto link = OpenLink(client, 64 * 1024);
    ASSERT_TRUE(link);
    std::atomic<bool> abort{false};
    std::thread host([&] {
        PushPattern(*link, TOTAL, abort);
        link->EndFromRemote();
    });
    std::string received;
    for (;;) {
        const std::string chunk = client.Read(64 * 1024, 20000);
        if (chunk.empty())
            break;
        received += chunk;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    abort = true;
    host.join();
    ASSERT_EQ(received.size(), TOTAL);
    EXPECT_TRUE(received == Pattern(0, TOTAL));
    EXPECT_EQ(m_proxy.GetConnectionCount(), 1u) << "the client has not ended yet";
}

TEST_F(ProxyTest, StartWithTheSameServicesKeepsTheFirstPort)
{
    EXPECT_TRUE(m_proxy.IsConnected());
    EXPECT_EQ(m_proxy.GetMultiPointLayer(), &m_multiPointLayer);
    EXPECT_TRUE(m_proxy.StartProxy(m_port + 1, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    EXPECT_EQ(m_proxy.GetListenPort(), m_port);

    // Other services: a fresh start on the new port.
    FakeMultiPointLayer other;
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &other, &m_datagramHandler, &m_connectionListener));
    EXPECT_EQ(m_proxy.GetMultiPointLayer(), &other);
    TestClient refused;
    EXPECT_FALSE(refused.Connect(m_port));
}

TEST_F(ProxyTest, AStartOnAPortAloneListensOnLoopbackOnly)
{
    m_proxy.StopProxy();
    ASSERT_TRUE(m_proxy.StartProxy(0, &m_resolver, &m_multiPointLayer, &m_datagramHandler, &m_connectionListener));
    TestClient local;
    EXPECT_TRUE(local.Connect(m_proxy.GetListenPort(), "127.0.0.1"));
    TestClient elsewhere; // 0.0.0.0 would take it
    EXPECT_FALSE(elsewhere.Connect(m_proxy.GetListenPort(), "127.0.0.2"));
}

TEST_F(ProxyTest, PortInUseFailsAndStoppedServerStopsHarmlessly)
{
    Proxy::CProxy second(Proxy::CProxy::PROXY_MODE_LOCAL);
    EXPECT_FALSE(second.StartProxy("127.0.0.1", m_port, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    EXPECT_FALSE(second.IsConnected());
    EXPECT_EQ(second.GetListenPort(), 0);
    EXPECT_FALSE(second.StartProxy("not an address", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    m_proxy.StopProxy();
    m_proxy.StopProxy();
    EXPECT_FALSE(m_proxy.IsConnected());
}

TEST_F(ProxyTest, ListensOnIPv6AndSeesTheClientAddress)
{
    m_proxy.StopProxy();
    if (!m_proxy.StartProxy("::1", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler, &m_connectionListener))
        GTEST_SKIP() << "no IPv6 loopback";
    EchoLinks();
    TestClient client;
    ASSERT_TRUE(client.Connect(m_proxy.GetListenPort(), "::1"));
    ASSERT_TRUE(client.Echoes("six"));
    auto log = Handler(0);
    log->Locked([&] {
        ASSERT_NE(log->connection, nullptr);
        EXPECT_NE(log->connection->GetClientAddress().ToString().find("::1"), std::string::npos);
    });
}

TEST_F(ProxyTest, ManyShortConnectionsLeaveNoConnectionOrDescriptorBehind)
{
    EchoLinks();
    {
        TestClient warm;
        ASSERT_TRUE(warm.Connect(m_port));
        ASSERT_TRUE(warm.Echoes("w"));
    }
    ASSERT_TRUE(WaitForConnections(0));
    m_multiPointLayer.ForgetLinks();
    const int baseline = CountDescriptors();

    constexpr int ROUNDS = 300;
    for (int round = 0; round < ROUNDS; ++round) {
        TestClient client;
        ASSERT_TRUE(client.Connect(m_port));
        if (round % 3 == 0)
            continue; // closes without a byte
        ASSERT_TRUE(client.Echoes("ping"));
        if (round % 3 == 2)
            m_multiPointLayer.GetLastLink()->CloseFromRemote();
    }
    EXPECT_TRUE(WaitForConnections(0));
    m_multiPointLayer.ForgetLinks();
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() == baseline; })) << CountDescriptors();
}

TEST_F(ProxyTest, ParallelClientsAndStopWhileTheyRun)
{
    EchoLinks();
    constexpr int CLIENTS = 8;
    std::vector<std::thread> threads;
    std::atomic<int> echoed{0};
    for (int i = 0; i < CLIENTS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 30; ++round) {
                TestClient client;
                if (!client.Connect(m_port) || !client.Send("abc"))
                    return;
                if (client.Read(3, 5000) != "abc")
                    return;
                ++echoed;
            }
        });
    }
    WaitUntil([&] { return echoed > CLIENTS * 5; });
    m_proxy.StopProxy();
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(m_proxy.GetConnectionCount(), 0u);
}

// Which handler a connection's first chunk gets.
TEST(ConnectionProtocolFactory, EmptyFirstChunkYieldsNoHandler)
{
    FakeProxyConnection connection;
    auto* factory = Proxy::CConnectionProtocolFactory::GetInstance();
    EXPECT_EQ(factory->CreateProtocol(connection, nullptr, 3), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", 0), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", -1), nullptr);
}

TEST(ConnectionProtocolFactory, FirstByteFiveMeansSocks5AndAnythingElseHttp)
{
    FakeProxyConnection connection;
    auto* factory = Proxy::CConnectionProtocolFactory::GetInstance();
    const struct {
        std::string chunk;
        bool socks5;
    } cases[] = {{"\x05", true}, {std::string("\x05\x01\x00", 3), true}, {"\x04\x01", false},
                 {std::string(1, '\0'), false}, {"GET / HTTP/1.1\r\n", false}, {"\x06", false}};
    for (const auto& each : cases) {
        std::unique_ptr<Proxy::IConnectionProtocol> handler(
            factory->CreateProtocol(connection, each.chunk.data(), static_cast<int>(each.chunk.size())));
        ASSERT_NE(handler, nullptr);
        EXPECT_EQ(dynamic_cast<Proxy::CConnectionProtocol_SOCKS5*>(handler.get()) != nullptr, each.socks5);
        EXPECT_EQ(dynamic_cast<Proxy::CConnectionProtocol_HTTP*>(handler.get()) != nullptr, !each.socks5);
    }
}

std::string Bytes(std::initializer_list<int> values)
{
    std::string bytes;
    for (int value : values)
        bytes += static_cast<char>(value);
    return bytes;
}

unsigned int ReplyPort(const std::string& reply)
{
    return static_cast<unsigned int>((static_cast<unsigned char>(reply[8]) << 8) | static_cast<unsigned char>(reply[9]));
}

class EndToEndTest : public ProxyTest {
protected:
    void SetUp() override
    {
        ProxyTest::SetUp();
        UseRealHandlers();
        m_resolver.Script("server1:80", "127.0.0.1");
        m_resolver.Script("server1:443", "127.0.0.1");
    }

    // Greeting and request; returns the first reply (10 bytes for an IPv4 address).
    std::string Socks5Request(TestClient& client, const std::string& request)
    {
        EXPECT_TRUE(client.Send(Bytes({5, 1, 0})));
        EXPECT_EQ(client.Read(2), Bytes({5, 0}));
        EXPECT_TRUE(client.Send(request));
        return client.Read(10);
    }
};

TEST_F(EndToEndTest, Socks5ConnectByNameRelaysBothWays)
{
    EchoLinks();
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    const std::string reply = Socks5Request(client, Bytes({5, 1, 0, 3, 7}) + "server1" + Bytes({0, 80}));
    ASSERT_EQ(reply.size(), 10u);
    EXPECT_EQ(reply.substr(0, 4), Bytes({5, 0, 0, 1}));
    EXPECT_EQ(m_multiPointLayer.GetDestinations(), std::vector<std::string>{"127.0.0.1:80"});
    ASSERT_TRUE(client.Echoes("ping"));
    m_multiPointLayer.GetLastLink()->CloseFromRemote();
    EXPECT_TRUE(client.WaitForClose());
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(EndToEndTest, Socks5BindRepliesTwiceAndRelaysTheAcceptedStream)
{
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    const std::string first = Socks5Request(client, Bytes({5, 2, 0, 1, 127, 0, 0, 9, 0x1f, 0x90}));
    ASSERT_EQ(first.size(), 10u);
    EXPECT_EQ(first, Bytes({5, 0, 0, 1, 127, 0, 0, 1, 40000 >> 8, 40000 & 0xff}));
    ASSERT_TRUE(m_connectionListener.IsListening());

    auto stream = m_connectionListener.ConnectPeer(CTCPIPAddress(127, 0, 0, 9, 4321));
    ASSERT_TRUE(stream);
    EXPECT_EQ(client.Read(10), Bytes({5, 0, 0, 1, 127, 0, 0, 9, 4321 >> 8, 4321 & 0xff}));
    ASSERT_TRUE(client.Send("up"));
    EXPECT_EQ(stream->WaitForSent(2), "up");
    stream->PushFromRemote("down");
    EXPECT_EQ(client.Read(4), "down");
    EXPECT_FALSE(m_connectionListener.IsListening()) << "a BIND takes one peer";
    // The client's end reaches the peer, whose own end then ends the tunnel.
    client.Close();
    ASSERT_TRUE(stream->WaitForSendShut());
    stream->EndFromRemote();
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(EndToEndTest, Socks5UdpAssociateRelaysDatagramsBothWays)
{
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    const std::string reply = Socks5Request(client, Bytes({5, 3, 0, 1, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(reply.size(), 10u);
    ASSERT_EQ(reply.substr(0, 2), Bytes({5, 0}));
    const unsigned int relayPort = ReplyPort(reply);
    ASSERT_NE(relayPort, 0u);

    unsigned int localPort = 0;
    const int udp = TestSockets::BindUdp("127.0.0.1", localPort);
    ASSERT_GE(udp, 0);
    ASSERT_TRUE(TestSockets::SendTo(udp, "127.0.0.1", relayPort, Bytes({0, 0, 0, 1, 127, 0, 0, 1, 0, 53}) + "query"));
    const auto sent = m_datagramHandler.WaitForSent(1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, "query");
    EXPECT_EQ(sent[0].destination, "127.0.0.1:53");

    ASSERT_TRUE(m_datagramHandler.Deliver(sent[0].handle, CTCPIPAddress(127, 0, 0, 1, 53), "answer"));
    ASSERT_TRUE(TestSockets::WaitReadable(udp, 5000));
    EXPECT_EQ(TestSockets::ReceiveDatagram(udp), Bytes({0, 0, 0, 1, 127, 0, 0, 1, 0, 53}) + "answer");
    TestSockets::Close(udp);

    client.Close();
    EXPECT_TRUE(WaitForConnections(0));
    EXPECT_EQ(m_datagramHandler.GetActiveRegistrations(), 0);
}

TEST_F(EndToEndTest, HttpGetIsRewrittenAndTheResponseEndsTheConnection)
{
    m_multiPointLayer.SetOnConnect([](FakeDataLayer& link, const IZRTConnectionAddress&) {
        link.SetOnSend([](FakeDataLayer& self, const std::string&) {
            self.PushFromRemote("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
            self.CloseFromRemote();
        });
    });
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("GET http://server1/index.html HTTP/1.1\r\nHost: server1\r\n"
                            "Proxy-Connection: keep-alive\r\nUser-Agent: test\r\n\r\n"));
    bool closed = false;
    const std::string response = client.ReadToEnd(&closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(response.rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << response;
    EXPECT_EQ(response.substr(response.size() - 5), "hello");
    auto link = m_multiPointLayer.GetLastLink();
    ASSERT_TRUE(link);
    EXPECT_EQ(link->GetSent(), "GET /index.html HTTP/1.0\r\nHost: server1\r\nUser-Agent: test\r\n\r\n");
    EXPECT_TRUE(WaitForConnections(0));
}

TEST_F(EndToEndTest, HttpConnectOpensATunnel)
{
    EchoLinks();
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("CONNECT server1:443 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(client.Read(39), "HTTP/1.0 200 Connection established\r\n\r\n");
    EXPECT_EQ(m_multiPointLayer.GetDestinations(), std::vector<std::string>{"127.0.0.1:443"});
    ASSERT_TRUE(client.Echoes("tls bytes"));
}

// ---- limits and policy, with the real handlers ----

class PolicyTest : public EndToEndTest {
protected:
    void Apply(const std::function<void(Proxy::SProxySettings&)>& change)
    {
        Proxy::SProxySettings settings = m_proxy.GetServer().GetSettings();
        change(settings);
        ASSERT_TRUE(m_proxy.GetServer().SetSettings(settings));
    }
    // The counters by their public numbers, as a host reads them.
    uint64_t Count(Proxy::CProxy::ECounter counter) { return m_proxy.GetCounter(counter); }
    void SetOption(const char* name, const char* value)
    {
        std::string error;
        ASSERT_EQ(m_proxy.SetOption(name, value, &error), Proxy::CProxy::OPTION_OK) << error;
    }
    // A SOCKS5 tunnel to server1:80 through an echoing link.
    void OpenTunnel(TestClient& client)
    {
        ASSERT_TRUE(client.Connect(m_port));
        ASSERT_EQ(Socks5Request(client, Bytes({5, 1, 0, 3, 7}) + "server1" + Bytes({0, 80})).substr(0, 2),
                  Bytes({5, 0}));
        ASSERT_TRUE(client.Echoes("ping"));
    }
};

TEST_F(PolicyTest, HandshakeLimitClosesSilentAndSlowClientsWhileOthersAreServed)
{
    EchoLinks();
    Apply([](Proxy::SProxySettings& s) { s.handshakeTimeoutMs = 300; });
    TestClient silent;
    TestClient partial;
    ASSERT_TRUE(silent.Connect(m_port));
    ASSERT_TRUE(partial.Connect(m_port));
    ASSERT_TRUE(partial.Send(Bytes({5, 1}))); // half a greeting, then nothing
    TestClient served;
    OpenTunnel(served);
    EXPECT_TRUE(silent.WaitForClose(5000));
    EXPECT_TRUE(partial.WaitForClose(5000));
    // The limit is for the handshake alone: the tunnel outlives it.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_TRUE(served.Echoes("still here"));
    EXPECT_EQ(Count(Proxy::CProxy::COUNTER_TIMED_OUT), 2u);
}

TEST_F(PolicyTest, IdleLimitClosesAQuietTunnelButNotABusyOne)
{
    EchoLinks();
    Apply([](Proxy::SProxySettings& s) { s.idleTimeoutMs = 400; });
    TestClient quiet;
    TestClient busy;
    OpenTunnel(quiet);
    OpenTunnel(busy);
    for (int i = 0; i < 8; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_TRUE(busy.Echoes("tick")) << i;
    }
    EXPECT_TRUE(quiet.WaitForClose(5000));
    EXPECT_TRUE(busy.Echoes("alive after twice the limit"));
    EXPECT_EQ(Count(Proxy::CProxy::COUNTER_TIMED_OUT), 1u);
}

TEST_F(PolicyTest, AllowListAndClientLimitCloseAtAcceptBeforeAnyByte)
{
    EchoLinks();
    SetOption("allow", "127.0.0.2/32");
    SetOption("allow", "::1");
    TestClient outsider;
    ASSERT_TRUE(outsider.Connect(m_port));
    ASSERT_TRUE(outsider.Send(Bytes({5, 1, 0})));
    bool closed = false;
    EXPECT_EQ(outsider.ReadToEnd(&closed, 5000), "");
    EXPECT_TRUE(closed);
    EXPECT_EQ(Count(Proxy::CProxy::COUNTER_REFUSED_NOT_ALLOWED), 1u);

    // A bad block changes nothing and says why; what is read at start waits for a stop.
    std::string error;
    EXPECT_EQ(m_proxy.SetOption("allow", "127.0.0.0/33", &error), Proxy::CProxy::OPTION_BAD_VALUE);
    EXPECT_NE(error.find("127.0.0.0/33"), std::string::npos);
    EXPECT_EQ(m_proxy.GetServer().GetSettings().allow, (std::vector<std::string>{"127.0.0.2/32", "::1"}));
    EXPECT_EQ(m_proxy.SetOption("threads", "2"), Proxy::CProxy::OPTION_RUNNING);
    EXPECT_EQ(m_proxy.SetOption("listen", "127.0.0.1"), Proxy::CProxy::OPTION_UNKNOWN);
    EXPECT_EQ(m_proxy.SetOption(nullptr, "1"), Proxy::CProxy::OPTION_UNKNOWN);
    EXPECT_EQ(m_proxy.SetOption("auth", "alice:$6$salt$hash", &error), Proxy::CProxy::OPTION_BAD_VALUE) << error;
    EXPECT_EQ(m_proxy.GetCounter(-1) + m_proxy.GetCounter(Proxy::CProxy::COUNTER_HTTP_ORIGIN_REUSES + 1), 0u);

    SetOption("allow", nullptr); // every client again
    SetOption("allow", "127.0.0.0/8");
    SetOption("max-clients", "1");
    TestClient first;
    OpenTunnel(first);
    TestClient second;
    ASSERT_TRUE(second.Connect(m_port));
    EXPECT_EQ(second.ReadToEnd(&closed, 5000), "");
    EXPECT_TRUE(closed);
    EXPECT_EQ(Count(Proxy::CProxy::COUNTER_REFUSED_OVER_LIMIT), 1u);
    first.Close();
    m_multiPointLayer.GetLastLink()->CloseFromRemote(); // the host's end too: the tunnel is over
    ASSERT_TRUE(WaitForConnections(0));
    TestClient third;
    OpenTunnel(third); // room again
}

TEST_F(PolicyTest, NameWithSeveralAddressesIsTriedInOrderSkippingTheProxyItself)
{
    EchoLinks();
    const std::string itself = "127.0.0.1:" + std::to_string(m_port);
    m_resolver.Script("multi:80", "127.0.0.9,127.0.0.1,127.0.0.10");
    m_multiPointLayer.SetRefused({"127.0.0.9:80"});
    TestClient client;
    ASSERT_TRUE(client.Connect(m_port));
    EXPECT_EQ(Socks5Request(client, Bytes({5, 1, 0, 3, 5}) + "multi" + Bytes({0, 80})).substr(0, 2), Bytes({5, 0}));
    EXPECT_EQ(m_multiPointLayer.GetDestinations(), (std::vector<std::string>{"127.0.0.9:80", "127.0.0.1:80"}));
    EXPECT_TRUE(client.Echoes("second address"));

    // The proxy's own address among a name's addresses is never tried.
    m_resolver.Script("loop:" + std::to_string(m_port), "192.0.2.1,127.0.0.1");
    m_multiPointLayer.SetRefused({"192.0.2.1:" + std::to_string(m_port)});
    TestClient looped;
    ASSERT_TRUE(looped.Connect(m_port));
    const std::string request = Bytes({5, 1, 0, 3, 4}) + "loop" +
                                Bytes({static_cast<int>(m_port >> 8), static_cast<int>(m_port & 0xFF)});
    EXPECT_EQ(Socks5Request(looped, request).substr(0, 2), Bytes({5, 5}));
    const auto destinations = m_multiPointLayer.GetDestinations();
    EXPECT_EQ(std::count(destinations.begin(), destinations.end(), itself), 0);
}

// A host whose connect blocks (and says so) is asked on a helper thread: one event thread
// serves everyone, so a connect on it would hold up every other client.
class BlockingLayer : public IZRTMultiPointLayer, public Guarded {
public:
    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress&, const IZRTConnectionAddress&) override
    {
        Locked([&] { ++m_waiting; });
        WaitFor([&] { return m_released; }, 20000);
        QOX::CRefCountPtr<FakeDataLayer> link(new FakeDataLayer());
        link->SetOnSend([](FakeDataLayer& self, const std::string& bytes) { self.PushFromRemote(bytes); });
        return QOX::CRefCountPtr<IZRTDataLayer>(link.GetRawPointer());
    }
    int Waiting() const { return Locked([&] { return m_waiting; }); }
    void Release() { Change([&] { m_released = true; }); }

private:
    int m_waiting = 0;
    bool m_released = false;
};

TEST_F(ProxyTest, AHostConnectThatBlocksHoldsUpNoOtherClient)
{
    m_proxy.StopProxy();
    Proxy::SProxySettings settings = m_proxy.GetServer().GetSettings();
    settings.eventThreads = 1;
    ASSERT_TRUE(m_proxy.GetServer().SetSettings(settings));
    BlockingLayer blocking;
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &blocking, &m_datagramHandler, &m_connectionListener));
    const int port = m_proxy.GetListenPort();
    UseRealHandlers();
    TestClient waiting;
    ASSERT_TRUE(waiting.Connect(port));
    ASSERT_TRUE(waiting.Send(Bytes({5, 1, 0}) + Bytes({5, 1, 0, 1, 127, 0, 0, 1, 0, 80})));
    ASSERT_TRUE(WaitUntil([&] { return blocking.Waiting() == 1; }));
    // The one event thread still answers others while that connect waits.
    TestClient other;
    ASSERT_TRUE(other.Connect(port));
    ASSERT_TRUE(other.Send(Bytes({5, 1, 0})));
    EXPECT_EQ(other.Read(2, 5000), Bytes({5, 0}));
    blocking.Release();
    EXPECT_EQ(waiting.Read(12).substr(0, 4), Bytes({5, 0, 5, 0}));
    ASSERT_TRUE(waiting.Echoes("through the helper's link"));
}

} // namespace
} // namespace Testing
} // namespace ZRT
