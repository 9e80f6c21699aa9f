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
    int inits = 0;
    int terminates = 0;
    bool destroyed = false;
    bool connectResult = false;
    bool passEnds = false;

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
    explicit SingleLinkLayer(std::function<Link*()> make = [] { return new Link(); }) : m_make(std::move(make)) {}
    QOX::CRefCountPtr<IZRTDataLayer> Connect(const IZRTConnectionAddress&, const IZRTConnectionAddress&) override
    {
        return Locked([&] {
            m_last = m_make();
            return QOX::CRefCountPtr<IZRTDataLayer>(m_last.GetRawPointer());
        });
    }
    QOX::CRefCountPtr<Link> Last() const { return Locked([&] { return m_last; }); }

private:
    const std::function<Link*()> m_make;
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
    void HandleResponse(const char* data, int length) override { m_connection.SendToClient(data, length); }
    // Passes both ends on, as a tunnel does, when the test says so.
    bool HandleClientEnd() override { return m_log->Get(m_log->passEnds) && m_connection.EndHostOutput(); }
    bool HandleHostEnd() override { return m_log->Get(m_log->passEnds); }
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

TEST_F(ProxyTest, RelaysBothWaysOverOneLinkPerConnectionOrNoneWhenTheHostFails)
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

    // A host that cannot be reached leaves the connection without a link to send to.
    m_multiPointLayer.SetFail(true);
    TestClient c;
    ASSERT_TRUE(c.Connect(m_port) && c.Send("x"));
    auto failed = Handler(2);
    ASSERT_TRUE(WaitUntil([&] { return !failed->Requests().empty(); }));
    EXPECT_FALSE(failed->Get(failed->connectResult));
    EXPECT_FALSE(failed->Connection()->IsConnectedToHost());
    EXPECT_FALSE(failed->Connection()->SendToHost("y", 1));
}

// A trusted balancer's header (coalesced with the first request here; split in the parser's
// tests) puts its client in its place for the handler, the host and the per-source limit, which
// the balancer itself is not held to; LOCAL keeps the balancer; a bad or missing header is closed.
TEST_F(ProxyTest, ABalancersHeaderPutsTheClientInItsPlaceAndNothingElseIsServed)
{
    EchoLinks();
    Proxy::SProxySettings settings = m_proxy.GetServer().GetSettings();
    settings.proxyProtocolFrom = {"127.0.0.0/30"};
    settings.maxClientsPerSource = 1;
    ASSERT_TRUE(m_proxy.GetServer().SetSettings(settings));
    const auto carrying = [this](TestClient& client, const std::string& header) {
        return client.Connect(m_port) && client.Send(header + "go") && client.Read(2) == "go";
    };
    const auto line = [](const char* client) { return "PROXY TCP4 " + std::string(client) + " 192.0.2.1 5000 443\r\n"; };
    TestClient carried;
    TestClient again;
    TestClient other;
    TestClient local;
    ASSERT_TRUE(carrying(carried, line("192.0.2.7"))); // echoed: the handler saw nothing of the header
    EXPECT_EQ(Handler(0)->Connection()->GetClientAddress().ToString(), "192.0.2.7:5000");
    EXPECT_FALSE(carrying(again, line("192.0.2.7")));
    EXPECT_TRUE(carrying(other, line("192.0.2.8")));
    EXPECT_TRUE(carrying(local, std::string("\r\n\r\n\0\r\nQUIT\n\x20\0\0\0", 16)));
    const std::vector<std::string> sources = m_multiPointLayer.GetSources();
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[0] + " " + sources[1], "192.0.2.7:5000 192.0.2.8:5000");
    EXPECT_EQ(sources[2].find("127.0.0.1:"), 0u);
    carried.Close(); // its slot, not the balancer's, is given back
    ASSERT_TRUE(WaitForConnections(2));
    TestClient back;
    EXPECT_TRUE(carrying(back, line("192.0.2.7")));

    settings.handshakeTimeoutMs = 300;
    ASSERT_TRUE(m_proxy.GetServer().SetSettings(settings));
    TestClient bad;
    TestClient silent;
    ASSERT_TRUE(bad.Connect(m_port) && bad.Send("PROXY TCP4 192.0.2.9\r\ngo"));
    ASSERT_TRUE(silent.Connect(m_port));
    EXPECT_TRUE(bad.WaitForClose());
    EXPECT_TRUE(silent.WaitForClose());
    const Proxy::CProxyStats& stats = m_proxy.GetServer().GetStats();
    EXPECT_EQ(stats.Get(Proxy::CProxyStats::REFUSED_BAD_REQUEST), 2u);
    EXPECT_EQ(stats.Get(Proxy::CProxyStats::REFUSED_SOURCE_LIMIT), 1u);
    EXPECT_EQ(HandlerCount(), 4u);
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

// Flow control: what one side cannot take yet waits, bounded, and nothing is lost.

// A link whose sends wait in a backlog until the in-test server consumes them, checked as they
// come (never stored), and that records the largest backlog the connection let it reach. It
// says OnSendDrained only when its backlog falls from above its high mark to under its low one,
// as a host's link with marks of its own does; without marks, never.
class BackloggedLink : public FakeDataLayer {
public:
    struct SMarks {
        const char* name;
        unsigned int high;
        unsigned int low;
    };

    explicit BackloggedLink(SMarks marks = {"engine", 256 * 1024, 64 * 1024}) : m_marks(marks) {}
    int SendData(const unsigned char* data, int size) override
    {
        if (WasClosed())
            return -1;
        const std::string bytes(reinterpret_cast<const char*>(data), static_cast<size_t>(size));
        intact = intact && bytes == Pattern(received, bytes.size());
        received += bytes.size();
        const unsigned int now = pending += static_cast<unsigned int>(size);
        unsigned int seen = largest;
        while (now > seen && !largest.compare_exchange_weak(seen, now)) {
        }
        return size;
    }
    unsigned int GetSendBacklog() const override { return pending; }
    void ConsumeAll()
    {
        const unsigned int before = pending.exchange(0);
        consumed += before;
        if (m_marks.high > 0 && before >= m_marks.high)
            SignalSendDrained();
    }

    std::atomic<unsigned int> pending{0};
    std::atomic<unsigned int> largest{0};
    std::atomic<size_t> consumed{0};
    // SendData's thread only, read after the transfer.
    size_t received = 0;
    bool intact = true;

private:
    const SMarks m_marks;
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

TEST_F(ProxyTest, SlowClientGetsEveryByteBeforeTheHostsEndWhileTheConnectionBuffersOnlyItsBound)
{
    constexpr size_t TOTAL = 16 * 1024 * 1024;
    constexpr unsigned int BOUND = Proxy::CProxyConnection::CLIENT_OUTPUT_HIGH_WATER + Proxy::CProxyConnection::HOST_READ_SIZE;
    m_passEnds = true;
    TestClient client;
    auto link = OpenLink(client, 64 * 1024);
    ASSERT_TRUE(link);
    QOX::CRefCountPtr<Proxy::CProxyConnection> connection(Handler(0)->Connection());
    ASSERT_TRUE(connection);

    std::atomic<bool> abort{false};
    std::thread host([&] {
        PushPattern(*link, TOTAL, abort);
        link->EndFromRemote();
    });
    // The client reads nothing yet: the connection fills its queues to the marks and then leaves
    // the host's bytes in the link.
    EXPECT_TRUE(WaitUntil([&] { return link->GetReceiveBacklog() >= LINK_WINDOW; }));
    std::string received;
    received.reserve(TOTAL);
    bool closed = false;
    while (!closed) {
        EXPECT_LE(connection->GetClientBacklog(), BOUND);
        // Once the rest fits in the link, the client waits for the host to send it and end: the
        // end then comes while the host's last bytes are still on their way.
        if (received.size() >= TOTAL - LINK_WINDOW && host.joinable())
            host.join();
        const std::string chunk = TestSockets::Read(client.Socket(), 256 * 1024, 20000, &closed);
        if (chunk.empty() && !closed)
            break;
        received += chunk;
    }
    abort = true;
    if (host.joinable())
        host.join();
    EXPECT_TRUE(closed) << "the host's end reached the client";
    ASSERT_EQ(received.size(), TOTAL);
    EXPECT_TRUE(received == Pattern(0, TOTAL));
    EXPECT_EQ(m_proxy.GetConnectionCount(), 1u) << "the client has not ended yet";
}

TEST_F(ProxyTest, ClientThatStopsSendingStillGetsWhatTheConnectionTookFromTheHost)
{
    constexpr size_t TOTAL = 12 * 1024 * 1024;
    TestClient client;
    auto link = OpenLink(client, 64 * 1024);
    ASSERT_TRUE(link);
    link->PushFromRemote(Pattern(0, TOTAL));
    // Stalled: the client reads nothing, so the connection took what it may hold and no more.
    QOX::CRefCountPtr<Proxy::CProxyConnection> connection(Handler(0)->Connection());
    ASSERT_TRUE(connection);
    ASSERT_TRUE(WaitUntil([&] { return connection->GetClientBacklog() > Proxy::CProxyConnection::CLIENT_OUTPUT_HIGH_WATER; }));
    connection.Reset();

    shutdown(client.Socket(), SHUT_WR);
    bool closed = false;
    const std::string received = client.ReadToEnd(&closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(received.size(), TOTAL - link->GetReceiveBacklog());
    EXPECT_TRUE(received == Pattern(0, received.size()));
    EXPECT_TRUE(WaitForConnections(0));
}

// Reads total bytes of the pattern from the socket, checking them as they come; returns how many
// matched before a difference, the end or the time-out.
size_t ReadPattern(int socket, size_t total, int timeoutMs)
{
    size_t offset = 0;
    while (offset < total) {
        const std::string chunk = TestSockets::Read(socket, std::min<size_t>(256 * 1024, total - offset), timeoutMs);
        if (chunk.empty() || chunk != Pattern(offset, chunk.size()))
            break;
        offset += chunk.size();
    }
    return offset;
}

// Smaller where every step costs more: under the sanitizers, and on 32-bit ARM, whose tests run
// under emulation.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr size_t BOTH_WAYS = 8 * 1024 * 1024;
#else
constexpr size_t BOTH_WAYS = 64 * 1024 * 1024;
#endif

// Whatever marks a host's link keeps (the engine's own, far larger ones that the engine never
// reaches, or none), a transfer both ways at once never stalls: the host here writes its whole
// answer before it reads the request, and the engine never lets the link's backlog grow past
// its own bound.
class BackPressureTest : public ProxyTest, public ::testing::WithParamInterface<BackloggedLink::SMarks> {};

TEST_P(BackPressureTest, BothWaysAtOnceNeverStallsWhateverTheLinksMarks)
{
    const BackloggedLink::SMarks marks = GetParam();
    SingleLinkLayer<BackloggedLink> layer([marks] { return new BackloggedLink(marks); });
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &layer, &m_datagramHandler, &m_connectionListener));
    TestClient client;
    ASSERT_TRUE(client.Connect(m_proxy.GetListenPort()));

    std::thread writer([&] {
        for (size_t offset = 0; offset < BOTH_WAYS; offset += 1024 * 1024) {
            if (!client.Send(Pattern(offset, 1024 * 1024)))
                return;
        }
    });
    ASSERT_TRUE(WaitUntil([&] { return static_cast<bool>(layer.Last()); }));
    const auto held = layer.Last();
    BackloggedLink& link = *held;
    std::atomic<bool> abort{false};
    std::thread host([&] {
        PushPattern(link, BOTH_WAYS, abort);
        WaitUntil([&] {
            link.ConsumeAll();
            return abort || link.consumed >= BOTH_WAYS;
        }, 120000);
    });

    const size_t answered = ReadPattern(client.Socket(), BOTH_WAYS, 60000);
    abort = answered != BOTH_WAYS;
    host.join();
    writer.join();
    EXPECT_EQ(answered, BOTH_WAYS);
    EXPECT_EQ(link.consumed.load(), BOTH_WAYS);
    EXPECT_TRUE(link.intact);
    EXPECT_LE(link.largest.load(), IZRTDataLayer::SEND_BACKLOG_PAUSE + Proxy::CProxyConnection::CLIENT_READ_SIZE);
    m_proxy.StopProxy();
}

INSTANTIATE_TEST_SUITE_P(Marks, BackPressureTest,
                         ::testing::Values(BackloggedLink::SMarks{"engine", 256 * 1024, 64 * 1024},
                                           BackloggedLink::SMarks{"large", 4 * 1024 * 1024, 1024 * 1024},
                                           BackloggedLink::SMarks{"none", 0, 0}),
                         [](const ::testing::TestParamInfo<BackloggedLink::SMarks>& info) {
                             return std::string(info.param.name);
                         });

// A link that says which local address it leaves from.
class LocatedLink : public FakeDataLayer {
public:
    explicit LocatedLink(const CTCPIPAddress& local) : m_local(local) {}
    bool GetLocalAddress(sockaddr* address, int* length) const override { return m_local.GetSockAddr(address, length); }

private:
    const CTCPIPAddress m_local;
};

// After a network change, a tunnel whose link leaves from an address the machine no longer has
// is ended with its client; one on an address that remains goes on.
TEST_F(ProxyTest, ANetworkChangeEndsTheLinksFromAddressesThatWentAndNoOther)
{
    std::atomic<int> made{0};
    SingleLinkLayer<LocatedLink> layer([&made] {
        return new LocatedLink(made++ == 0 ? CTCPIPAddress(192, 0, 2, 1, 4000) : CTCPIPAddress(127, 0, 0, 1, 4000));
    });
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &layer, &m_datagramHandler, &m_connectionListener));
    const auto opened = [&](TestClient& client, int count) {
        return client.Connect(m_proxy.GetListenPort()) && client.Send("go") &&
               WaitUntil([&] { return made.load() == count && layer.Last()->GetSinkCount() > 0; });
    };
    TestClient gone;
    TestClient stays;
    ASSERT_TRUE(opened(gone, 1));
    ASSERT_TRUE(opened(stays, 2));
    m_proxy.NetworkChanged();
    EXPECT_TRUE(gone.WaitForClose());
    ASSERT_TRUE(WaitForConnections(1));
    layer.Last()->PushFromRemote("still");
    EXPECT_EQ(stays.Read(5), "still");
    m_proxy.StopProxy();
}

// Ends: each side's end of sending is passed on, and the connection goes once both ended.

TEST_F(ProxyTest, EitherSidesEndIsPassedOnAfterItsBytesAndTheOtherSideGoesOn)
{
    m_passEnds = true;
    // The client ends first and still gets the answer.
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

    // The host ends first and still gets what the client sends after that.
    TestClient second;
    auto other = OpenLink(second);
    ASSERT_TRUE(other);
    other->PushFromRemote("greeting");
    other->EndFromRemote();
    EXPECT_EQ(second.ReadToEnd(&closed), "greeting");
    EXPECT_TRUE(closed) << "the host's end reached the client";
    ASSERT_TRUE(second.Send("more"));
    EXPECT_EQ(other->WaitForSent(6), "gomore");
    EXPECT_EQ(m_proxy.GetConnectionCount(), 1u);
    shutdown(second.Socket(), SHUT_WR);
    ASSERT_TRUE(other->WaitForSendShut());
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

TEST_F(ProxyTest, StartingAgainKeepsThePortUnlessTheServicesChangeATakenPortFailsAndAPortAloneIsLoopback)
{
    EXPECT_EQ(m_proxy.GetMultiPointLayer(), &m_multiPointLayer);
    EXPECT_TRUE(m_proxy.StartProxy(m_port + 1, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    EXPECT_EQ(m_proxy.GetListenPort(), m_port);
    Proxy::CProxy second(Proxy::CProxy::PROXY_MODE_LOCAL);
    EXPECT_FALSE(second.StartProxy("127.0.0.1", m_port, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    EXPECT_EQ(second.GetListenPort(), 0);

    // Other services: a fresh start on the new port.
    FakeMultiPointLayer other;
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &other, &m_datagramHandler, &m_connectionListener));
    EXPECT_EQ(m_proxy.GetMultiPointLayer(), &other);
    TestClient refused;
    EXPECT_FALSE(refused.Connect(m_port));
    m_proxy.StopProxy();
    m_proxy.StopProxy();
    EXPECT_FALSE(m_proxy.IsConnected());

    // A start on a port alone listens on loopback only.
    ASSERT_TRUE(m_proxy.StartProxy(0, &m_resolver, &m_multiPointLayer, &m_datagramHandler, &m_connectionListener));
    TestClient local;
    EXPECT_TRUE(local.Connect(m_proxy.GetListenPort(), "127.0.0.1"));
    TestClient elsewhere; // 0.0.0.0 would take it
    EXPECT_FALSE(elsewhere.Connect(m_proxy.GetListenPort(), "127.0.0.2"));
}

TEST_F(ProxyTest, ParallelShortClientsAreServedAndAStopEndsThoseMidExchangeLeavingNothingBehind)
{
    // Links echo, except "hold" (an exchange the stop catches in the middle); after "bye" the
    // host closes.
    m_multiPointLayer.SetOnConnect([](FakeDataLayer& link, const IZRTConnectionAddress&) {
        link.SetOnSend([](FakeDataLayer& self, const std::string& bytes) {
            if (bytes != "hold")
                self.PushFromRemote(bytes);
            if (bytes == "bye")
                self.CloseFromRemote();
        });
    });
    m_proxy.StopProxy();
    m_multiPointLayer.ForgetLinks();
    const int threads = ThreadBaseline();
    const int descriptors = CountDescriptors();
    ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                   &m_connectionListener));
    const int port = m_proxy.GetListenPort();
    // Idle, the first without a handler: the stop wakes threads that sleep without a time-out.
    std::vector<TestClient> held(4);
    for (TestClient& client : held)
        ASSERT_TRUE(client.Connect(port) && (&client == &held[0] || client.Send("hold")));
    ASSERT_TRUE(WaitUntil([&] { return m_multiPointLayer.GetConnectCount() == static_cast<int>(held.size()) - 1; }));

    // Each round: a client that closes without a byte (it gets no handler), one that closes
    // after its answer, or one whose host closes after it. Once the stop began a round may end
    // early, but with its connection closed: never left waiting.
    std::atomic<bool> stopping{false};
    std::atomic<int> served{0}, spoke{0}, failures{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([&] {
            for (int round = 0; round < 300 && !stopping; ++round) {
                TestClient client;
                if (!client.Connect(port) || round % 3 == 0) {
                    failures += client.Socket() < 0 && !stopping ? 1 : 0;
                    continue;
                }
                const std::string word = round % 3 == 1 ? "ping" : "bye";
                ++spoke;
                bool closed = false;
                if (!client.Send(word) || TestSockets::Read(client.Socket(), word.size(), 10000, &closed) != word ||
                    (word == "bye" && !client.WaitForClose())) {
                    failures += stopping && (closed || client.WaitForClose()) ? 0 : 1;
                    return;
                }
                ++served;
            }
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return served >= 60; })) << served << " served, " << failures << " failures, " << spoke << " spoke";
    stopping = true;
    m_proxy.StopProxy(); // returns with exchanges in the middle, and no engine code running
    const size_t handlers = HandlerCount();
    for (size_t i = 0; i < handlers; ++i)
        EXPECT_TRUE(Handler(i)->Get(Handler(i)->destroyed) && Handler(i)->Get(Handler(i)->terminates) == 1) << i;
    for (TestClient& client : held)
        EXPECT_TRUE(client.WaitForClose());
    for (auto& client : clients)
        client.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GE(handlers, held.size() - 1 + static_cast<size_t>(served));
    EXPECT_LE(handlers, held.size() - 1 + static_cast<size_t>(spoke));
    EXPECT_EQ(m_proxy.GetConnectionCount(), 0u);
    held.clear();
    m_multiPointLayer.ForgetLinks();
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; })) << CountDescriptors() << " > " << descriptors;
    EXPECT_TRUE(ThreadsBackTo(threads));
}

// Which handler a connection's first chunk gets: none for an empty one.
TEST(ConnectionProtocolFactory, FirstByteFiveMeansSocks5FourSocks4AndAnythingElseHttp)
{
    FakeProxyConnection connection;
    auto* factory = Proxy::CConnectionProtocolFactory::GetInstance();
    EXPECT_EQ(factory->CreateProtocol(connection, nullptr, 3), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", 0), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", -1), nullptr);
    const struct {
        std::string chunk;
        std::string family;
    } cases[] = {{"\x05", "socks5"}, {std::string("\x05\x01\x00", 3), "socks5"}, {"\x04\x01", "socks4"},
                 {"\x04", "socks4"},  {std::string(1, '\0'), "http"},             {"GET / HTTP/1.1\r\n", "http"},
                 {"\x06", "http"}};
    for (const auto& each : cases) {
        std::unique_ptr<Proxy::IConnectionProtocol> handler(
            factory->CreateProtocol(connection, each.chunk.data(), static_cast<int>(each.chunk.size())));
        ASSERT_NE(handler, nullptr);
        EXPECT_EQ(each.family, handler->GetFamily()) << static_cast<int>(each.chunk[0]);
    }
}

std::string Bytes(std::initializer_list<int> values)
{
    std::string bytes;
    for (int value : values)
        bytes += static_cast<char>(value);
    return bytes;
}

// ---- limits and policy, with the real handlers ----

// One event thread, whose delayed tasks run in the order they fall due: a limit that closes a
// client accepted later proves that it would have closed one accepted earlier by then.
class PolicyTest : public ProxyTest {
protected:
    void SetUp() override
    {
        ProxyTest::SetUp();
        m_proxy.StopProxy();
        UseRealHandlers();
        Apply([](Proxy::SProxySettings& s) { s.eventThreads = 1; });
        ASSERT_TRUE(m_proxy.StartProxy("127.0.0.1", 0, &m_resolver, &m_multiPointLayer, &m_datagramHandler,
                                       &m_connectionListener));
        m_port = m_proxy.GetListenPort();
        m_resolver.Script("server1:80", "127.0.0.1");
    }
    void Apply(const std::function<void(Proxy::SProxySettings&)>& change)
    {
        Proxy::SProxySettings settings = m_proxy.GetServer().GetSettings();
        change(settings);
        ASSERT_TRUE(m_proxy.GetServer().SetSettings(settings));
    }
    uint64_t Count(Proxy::CProxyStats::ECounter counter) { return m_proxy.GetServer().GetStats().Get(counter); }
    // Greeting and request; returns the first reply (10 bytes for an IPv4 address).
    std::string Socks5Request(TestClient& client, const std::string& request)
    {
        EXPECT_TRUE(client.Send(Bytes({5, 1, 0})));
        EXPECT_EQ(client.Read(2), Bytes({5, 0}));
        EXPECT_TRUE(client.Send(request));
        return client.Read(10);
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

TEST_F(PolicyTest, HandshakeLimitClosesSilentAndSlowClientsButNotThoseThatFinished)
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
    // The limit is for the handshake alone: a client accepted after those closed is closed by it
    // long after the tunnel's would have come.
    TestClient later;
    ASSERT_TRUE(later.Connect(m_port));
    EXPECT_TRUE(later.WaitForClose(5000));
    EXPECT_TRUE(served.Echoes("still here"));
    EXPECT_EQ(Count(Proxy::CProxyStats::TIMED_OUT), 3u);
}

TEST_F(PolicyTest, IdleLimitClosesQuietTunnelsButNotABusyOne)
{
    EchoLinks();
    Apply([](Proxy::SProxySettings& s) { s.idleTimeoutMs = 500; });
    TestClient busy;
    OpenTunnel(busy);
    // Two quiet tunnels, the second opened once the first was closed: a busy one whose traffic
    // did not count would have been closed long before the second goes.
    for (int quiet = 0; quiet < 2; ++quiet) {
        TestClient client;
        OpenTunnel(client);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool closed = false;
        while (!(closed = TestSockets::WaitReadable(client.Socket(), 0) && client.WaitForClose()) &&
               std::chrono::steady_clock::now() < deadline)
            ASSERT_TRUE(busy.Echoes("tick")) << quiet;
        EXPECT_TRUE(closed) << quiet;
    }
    EXPECT_TRUE(busy.Echoes("alive after twice the limit"));
    EXPECT_EQ(Count(Proxy::CProxyStats::TIMED_OUT), 2u);
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
