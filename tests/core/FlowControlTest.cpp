#include <algorithm>
#include <atomic>
#include <thread>

#include <sys/socket.h>

#include "CoreTestSupport.h"

namespace ZRT {
namespace Testing {
namespace {

using Proxy::CProxyConnection;

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
    CProxyConnection* connection = log->Connection();
    ASSERT_NE(connection, nullptr);

    std::atomic<bool> abort{false};
    std::thread host([&] { PushPattern(*link, TOTAL, abort); });

    // The client reads nothing yet: the connection fills its queues to the marks and then leaves
    // the host's bytes in the link.
    EXPECT_TRUE(WaitUntil([&] { return link->GetReceiveBacklog() >= LINK_WINDOW; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LE(connection->GetHostBacklog(), CProxyConnection::HOST_DATA_HIGH_WATER + CProxyConnection::HOST_READ_SIZE);
    EXPECT_LE(connection->GetClientBacklog(),
              CProxyConnection::CLIENT_OUTPUT_HIGH_WATER + CProxyConnection::HOST_READ_SIZE);

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
    EXPECT_LE(link->largest.load(), CProxyConnection::REQUEST_BACKLOG_LIMIT + CProxyConnection::CLIENT_READ_SIZE);
    m_proxy.StopProxy();
}

} // namespace
} // namespace Testing
} // namespace ZRT
