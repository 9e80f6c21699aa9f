#include <future>
#include <vector>

#include "Socks5Fixture.h"

namespace ZRT {
namespace Testing {
namespace {

using Handler = Proxy::CConnectionProtocol_SOCKS5;

const std::string CONNECT_REQUEST = Bytes({5, 1, 0, 1, 127, 0, 0, 1, 0, 80});
const std::string BIND_REQUEST = Bytes({5, 2, 0, 1, 10, 0, 0, 9, 0x04, 0xD2});
// Where the fake listener listens by default: 127.0.0.1:40000.
const std::string FIRST_BIND_REPLY = Bytes({5, 0, 0, 1, 127, 0, 0, 1, 0x9C, 0x40});
// The peer that connects in these tests: 10.1.2.3:5555.
const std::string SECOND_BIND_REPLY = Bytes({5, 0, 0, 1, 10, 1, 2, 3, 0x15, 0xB3});

class Socks5ConnectTest : public Socks5Fixture {};

TEST_F(Socks5ConnectTest, RelaysBothWaysAfterAReplyWithTheClientsOwnPort)
{
    Negotiate();
    m_handler->HandleResponse("early", 5); // no host link yet: dropped
    Send(CONNECT_REQUEST + "GET");
    EXPECT_EQ("GET", m_connection.WaitForHostBytes(3));
    ASSERT_TRUE(WaitForState(Handler::Connected));
    Send(" /");
    EXPECT_EQ("GET /", m_connection.WaitForHostBytes(5));
    m_handler->HandleResponse("200", 3);
    EXPECT_EQ(CommandReply(0) + "200", Replies());
}

TEST_F(Socks5ConnectTest, UnreachableDestinationGetsOneRefusal)
{
    m_connection.GetMultiPointLayer().SetFail(true);
    Negotiate();
    Send(CONNECT_REQUEST + "payload");
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(CommandReply(5), Replies());
    EXPECT_EQ("", m_connection.GetToHost());
}

// Only the worker (here: for a name to look up) connects while the connection's thread can
// still hand in host bytes.
TEST_F(Socks5ConnectTest, HostBytesArrivingWhileTheLinkOpensFollowTheReply)
{
    m_resolver.Script("example.com:80", "127.0.0.1");
    std::promise<void> connecting;
    std::promise<void> delivered;
    std::shared_future<void> deliveredFuture = delivered.get_future().share();
    m_connection.GetMultiPointLayer().SetOnConnect([&](FakeDataLayer&, const IZRTConnectionAddress&) {
        connecting.set_value();
        deliveredFuture.wait();
    });
    Negotiate();
    Send(Bytes({5, 1, 0, 3, 11}) + "example.com" + Bytes({0, 80}));
    connecting.get_future().wait();
    m_handler->HandleResponse("banner", 6); // the link is up, the reply not yet sent
    delivered.set_value();
    EXPECT_EQ(CommandReply(0) + "banner", WaitForReplies(16));
    ASSERT_TRUE(WaitForState(Handler::Connected));
    m_handler->HandleResponse("!", 1);
    EXPECT_EQ(CommandReply(0) + "banner!", Replies());
}

// A client that sends and closes at once: what it sent still reaches the host.
TEST_F(Socks5ConnectTest, BytesSentJustBeforeTheClientClosesReachTheHost)
{
    for (int round = 0; round < 20; ++round) {
        FakeProxyConnection connection;
        auto handler = StartOn(connection, CONNECT_REQUEST);
        ASSERT_TRUE(WaitUntil([&] { return handler->GetState() == Handler::Connected; }));
        handler->HandleRequest("last words", 10);
        connection.DisconnectClient();
        EXPECT_EQ("last words", connection.WaitForHostBytes(10));
    }
}

class Socks5BindTest : public Socks5Fixture {
protected:
    void RequestBind(IConnectionListener* listener)
    {
        m_connection.SetConnectionListener(listener);
        Negotiate();
        Send(BIND_REQUEST);
    }
    void RequestBind() { RequestBind(&m_listener); }

    // Negotiates a BIND and lets the peer connect; returns the accepted stream.
    QOX::CRefCountPtr<FakeDataLayer> Bind()
    {
        RequestBind();
        EXPECT_EQ(FIRST_BIND_REPLY, WaitForReplies(10));
        QOX::CRefCountPtr<FakeDataLayer> stream = m_listener.ConnectPeer(CTCPIPAddress(10, 1, 2, 3, 5555));
        EXPECT_TRUE(stream);
        EXPECT_EQ(FIRST_BIND_REPLY + SECOND_BIND_REPLY, WaitForReplies(20));
        EXPECT_TRUE(WaitForState(Handler::Bound));
        return stream;
    }

    FakeConnectionListener m_listener;
};

TEST_F(Socks5BindTest, WithoutListenerIsRefusedWithoutAFirstReply)
{
    RequestBind(nullptr);
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(CommandReply(5), Replies());
}

TEST_F(Socks5BindTest, ListenerFailureIsRefused)
{
    m_listener.SetFail(true);
    RequestBind();
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(CommandReply(5), Replies());
    EXPECT_EQ("10.0.0.9:1234", m_listener.GetLastRequestAddress());
    EXPECT_EQ(1, m_listener.GetLastCount());
}

TEST_F(Socks5BindTest, RelaysBothWaysAndDropsTheClientWhenThePeerCloses)
{
    QOX::CRefCountPtr<FakeDataLayer> stream = Bind();
    Send("to peer");
    EXPECT_EQ("to peer", stream->WaitForSent(7));
    stream->PushFromRemote("to client");
    EXPECT_EQ(FIRST_BIND_REPLY + SECOND_BIND_REPLY + "to client", Replies());
    stream->CloseFromRemote();
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(0, stream->GetSinkCount());
    EXPECT_EQ(1, m_listener.GetStopCount());
    EXPECT_FALSE(m_listener.IsListening());
}

TEST_F(Socks5BindTest, Ipv6ListeningAddressGivesA22ByteReply)
{
    auto address = CTCPIPAddress::FromText("::1", 40000);
    m_listener.SetListenAddress(*static_cast<CTCPIPAddress*>(address.Get()));
    RequestBind();
    EXPECT_EQ(Bytes({5, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x9C, 0x40}), WaitForReplies(22));
}

// The peer may send and close before the handler has registered on the stream.
TEST_F(Socks5BindTest, PeerThatSendsAndClosesAtOnceIsRelayedThenTheClientDropped)
{
    RequestBind();
    ASSERT_EQ(FIRST_BIND_REPLY, WaitForReplies(10));
    QOX::CRefCountPtr<FakeDataLayer> stream = m_listener.ConnectPeer(CTCPIPAddress(10, 1, 2, 3, 5555));
    ASSERT_TRUE(stream);
    stream->PushFromRemote("early");
    stream->CloseFromRemote();
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(FIRST_BIND_REPLY + SECOND_BIND_REPLY + "early", Replies());
}

TEST_F(Socks5BindTest, DroppingTheClientEndsTheWaitAndStopsListening)
{
    const int threadsBefore = ThreadBaseline();
    RequestBind();
    ASSERT_EQ(FIRST_BIND_REPLY, WaitForReplies(10));
    m_connection.DisconnectClient();
    EXPECT_EQ(1, m_listener.GetStopCount());
    EXPECT_FALSE(m_listener.IsListening());
    EXPECT_TRUE(WaitForState(Handler::Closed));
    m_handler.reset();
    EXPECT_TRUE(ThreadsBackTo(threadsBefore));
    EXPECT_EQ(FIRST_BIND_REPLY, Replies());
}

TEST_F(Socks5BindTest, PeerIsThrottledWhileTheClientLagsAndResumesWhenItDrains)
{
    QOX::CRefCountPtr<FakeDataLayer> stream = Bind();
    const std::string replies = FIRST_BIND_REPLY + SECOND_BIND_REPLY;
    m_connection.SetClientBacklog(Handler::BIND_CLIENT_BACKLOG_LIMIT + 1);
    stream->PushFromRemote("held back");
    EXPECT_EQ(replies, Replies());
    EXPECT_EQ(9u, stream->GetReceiveBacklog());
    m_handler->OnClientDrained(); // still lagging: nothing moves
    EXPECT_EQ(replies, Replies());
    m_connection.SetClientBacklog(0);
    m_handler->OnClientDrained();
    EXPECT_EQ(replies + "held back", Replies());
}

TEST_F(Socks5BindTest, StreamSendBacklogCountsAsRequestBacklogAndItsDrainWakesTheConnection)
{
    QOX::CRefCountPtr<FakeDataLayer> stream = Bind();
    stream->SetReportedSendBacklog(300000);
    EXPECT_EQ(300000u, m_handler->GetRequestBacklog());
    const int wakes = m_connection.GetWakeCalls();
    stream->SignalSendDrained();
    EXPECT_EQ(wakes + 1, m_connection.GetWakeCalls());
}

// Peers keep connecting while the client goes away: whatever was accepted ends up closed and
// unregistered, and the listener is stopped once.
class Socks5BindRaceTest : public Socks5Fixture {};

TEST_F(Socks5BindRaceTest, ConnectionsRacingTerminateLeaveNothingBehind)
{
    for (int round = 0; round < 30; ++round) {
        FakeProxyConnection connection;
        FakeConnectionListener listener;
        connection.SetConnectionListener(&listener);
        auto handler = StartOn(connection, BIND_REQUEST);
        ASSERT_TRUE(WaitUntil([&] { return listener.IsListening(); }));
        std::vector<QOX::CRefCountPtr<FakeDataLayer>> streams;
        std::thread peers([&] {
            for (int i = 0; i < 20; ++i) {
                QOX::CRefCountPtr<FakeDataLayer> stream = listener.ConnectPeer(CTCPIPAddress(10, 1, 2, 3, 5555));
                if (stream)
                    streams.push_back(stream);
            }
        });
        if (round % 2)
            std::this_thread::yield();
        connection.DisconnectClient();
        peers.join();
        handler.reset();
        EXPECT_EQ(1, listener.GetStopCount());
        for (auto& stream : streams) {
            EXPECT_TRUE(stream->WasClosed());
            EXPECT_EQ(0, stream->GetSinkCount());
        }
    }
}

} // namespace
} // namespace Testing
} // namespace ZRT
