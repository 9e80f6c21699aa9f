#include <memory>
#include <string>
#include <thread>

#include "CoreTestSupport.h"
#include "fakes/FakeProxyConnection.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"
#include "runtime/CThread.h"

namespace ZRT {
namespace Testing {
namespace {

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

TEST_F(ProxyTest, AThreadThatCannotStartFailsOnlyThatClient)
{
    EchoLinks();
    TestClient before;
    ASSERT_TRUE(before.Connect(m_port));
    ASSERT_TRUE(before.Echoes("a"));

    // A stack no address space can hold makes every new thread fail to start.
    const size_t normal = QOX::CThread::GetDefaultStackSize();
    QOX::CThread::SetDefaultStackSize(sizeof(size_t) == 8 ? (size_t(1) << 45) : size_t(0xC0000000u));
    TestClient refused;
    ASSERT_TRUE(refused.Connect(m_port));
    const bool closed = refused.WaitForClose();
    QOX::CThread::SetDefaultStackSize(normal);
    EXPECT_TRUE(closed);
    EXPECT_TRUE(WaitUntil([&] { return m_proxy.GetConnectionCount() == 1; }));

    ASSERT_TRUE(before.Echoes("b"));
    TestClient after;
    ASSERT_TRUE(after.Connect(m_port));
    ASSERT_TRUE(after.Echoes("c"));
}

// Which handler a connection's first chunk gets.
TEST(ConnectionProtocolFactory, EmptyFirstChunkYieldsNoHandlerEvenWithATestCreator)
{
    FakeProxyConnection connection;
    auto* factory = Proxy::CConnectionProtocolFactory::GetInstance();
    int calls = 0;
    factory->SetCreatorForTesting([&](Proxy::IProxyConnection&, const char*, int) -> Proxy::IConnectionProtocol* {
        ++calls;
        return nullptr;
    });
    EXPECT_EQ(factory->CreateProtocol(connection, nullptr, 3), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", 0), nullptr);
    EXPECT_EQ(factory->CreateProtocol(connection, "\x05", -1), nullptr);
    EXPECT_EQ(calls, 0);
    factory->SetCreatorForTesting({});
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

} // namespace
} // namespace Testing
} // namespace ZRT
