#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "fakes/Polling.h"
#include "fakes/TestSockets.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"

namespace ZRT {
namespace Testing {
namespace {

using Handler = Proxy::CConnectionProtocol_SOCKS5;

std::string Bytes(std::initializer_list<int> values)
{
    std::string bytes;
    for (int value : values)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

// A reply with REP code, 0.0.0.0 and the fixture client's own port 50123.
std::string CommandReply(int code)
{
    return Bytes({5, code, 0, 1, 0, 0, 0, 0, 0xC3, 0xCB});
}

// A handler of its own on connection, handed the greeting and request in one piece: for cases
// that need many connections, or one set up unlike the fixture's.
std::unique_ptr<Handler> StartOn(FakeProxyConnection& connection,
                                                                  const std::string& request)
{
    auto handler = std::make_unique<Handler>(connection);
    connection.SetProtocol(handler.get());
    handler->Init();
    const std::string exchange = Bytes({5, 1, 0}) + request;
    handler->HandleRequest(exchange.data(), static_cast<int>(exchange.size()));
    return handler;
}

// One handler on a fake connection (client port 50123 = C3 CB), with the address manager
// resolving through a scripted resolver.
class Socks5Fixture : public ::testing::Test {
protected:
    static constexpr unsigned int CLIENT_PORT = 50123;

    void SetUp() override
    {
        m_resolver.SetResolveNumeric(false);
        Proxy::CAddressManager::GetInstance()->Init(&m_resolver);
    }

    void TearDown() override
    {
        Stop();
        Proxy::CAddressManager::GetInstance()->Terminate();
    }

    void Create()
    {
        m_handler.reset(new Proxy::CConnectionProtocol_SOCKS5(m_connection));
        m_connection.SetProtocol(m_handler.get());
    }

    void Start()
    {
        Create();
        m_handler->Init();
    }

    void Send(const std::string& bytes) { m_handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size())); }

    // Greeting and method selection; the handler then awaits a request.
    void Negotiate()
    {
        Start();
        Send(Bytes({5, 1, 0}));
        ASSERT_EQ(Bytes({5, 0}), m_connection.WaitForClientBytes(2));
    }

    // What the client got after the greeting reply, once the handler dropped it.
    std::string RepliesOnceDropped() { return m_connection.WaitForDisconnect() ? Replies() : "(not dropped)"; }
    // What the client receives after the greeting reply.
    std::string Replies() { return m_connection.GetToClient().substr(2); }
    std::string WaitForReplies(size_t count) { return m_connection.WaitForClientBytes(2 + count).substr(2); }

    bool WaitForState(int state)
    {
        return WaitUntil([&] { return m_handler->GetState() == state; });
    }

    // The client goes away as the connection would do it; the handler is then destroyed.
    void Stop()
    {
        if (!m_handler)
            return;
        m_connection.DisconnectClient();
        m_handler.reset();
    }

    FakeResolver m_resolver;
    FakeProxyConnection m_connection{CLIENT_PORT};
    std::unique_ptr<Handler> m_handler;
};

TEST(Socks5BufferTest, AppendConsumeAndClearKeepTheRemainderAtTheFront)
{
    Handler::CBuffer buffer;
    EXPECT_FALSE(buffer.AppendData(nullptr, 3));
    EXPECT_FALSE(buffer.AddData("abc", 0));
    ASSERT_TRUE(buffer.AppendData("abc", 3));
    ASSERT_TRUE(buffer.AddData("defg", 4));
    buffer.Consume(2);
    ASSERT_EQ(5u, buffer.GetSize());
    EXPECT_EQ(0, std::memcmp(buffer.GetData(), "cdefg", 5));
    buffer.Consume(9);
    EXPECT_EQ(0u, buffer.GetSize());
    ASSERT_TRUE(buffer.AppendData("xy", 2));
    buffer.Clear();
    EXPECT_EQ(0u, buffer.GetSize());
}

class Socks5NegotiationTest : public Socks5Fixture {};

TEST_F(Socks5NegotiationTest, GreetingByteByByteIsAnsweredOnceAfterItsLastByte)
{
    Start();
    Send(Bytes({5}));
    Send(Bytes({1}));
    ASSERT_TRUE(WaitForState(Handler::GreetingIncomplete));
    EXPECT_EQ("", m_connection.GetToClient());
    Send(Bytes({0}));
    EXPECT_EQ(Bytes({5, 0}), m_connection.WaitForClientBytes(2));
    ASSERT_TRUE(WaitForState(Handler::AwaitingRequest));
    EXPECT_EQ(1, m_connection.GetSendToClientCalls());
}

TEST_F(Socks5NegotiationTest, GreetingWithoutMethodsIsRefusedOnlyOnceAThirdByteArrives)
{
    Start();
    Send(Bytes({5, 0}));
    ASSERT_TRUE(WaitForState(Handler::GreetingIncomplete));
    EXPECT_EQ("", m_connection.GetToClient());
    Send(Bytes({1}));
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(Bytes({5, 0xFF}), m_connection.GetToClient());
}

struct SExchange {
    const char* name;
    std::string clientBytes;
    std::string expectedReply;
    bool closes;
};

class Socks5GreetingTest : public Socks5Fixture, public ::testing::WithParamInterface<SExchange> {};

TEST_P(Socks5GreetingTest, AnswersExactly)
{
    Start();
    Send(GetParam().clientBytes);
    if (GetParam().closes) {
        ASSERT_TRUE(m_connection.WaitForDisconnect());
        EXPECT_EQ(GetParam().expectedReply, m_connection.GetToClient());
    } else {
        EXPECT_EQ(GetParam().expectedReply, m_connection.WaitForClientBytes(2));
        EXPECT_TRUE(WaitForState(Handler::AwaitingRequest));
        EXPECT_TRUE(m_connection.IsConnectedToClient());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Greetings, Socks5GreetingTest,
    ::testing::Values(SExchange{"NoAuthLast", Bytes({5, 3, 2, 1, 0}), Bytes({5, 0}), false},
                      SExchange{"OnlyUserPassword", Bytes({5, 1, 2}), Bytes({5, 0xFF}), true},
                      SExchange{"VersionFour", Bytes({4, 1, 0}), "", true}),
    [](const ::testing::TestParamInfo<SExchange>& info) { return std::string(info.param.name); });

// Requests the handler refuses: exact wire bytes, then the connection closes.
class Socks5RefusalTest : public Socks5Fixture, public ::testing::WithParamInterface<SExchange> {};

TEST_P(Socks5RefusalTest, RepliesExactlyAndCloses)
{
    Negotiate();
    Send(GetParam().clientBytes);
    EXPECT_EQ(GetParam().expectedReply, RepliesOnceDropped());
    EXPECT_EQ(0, m_connection.GetConnectCalls());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Socks5RefusalTest,
    ::testing::Values(
        SExchange{"VersionFour", Bytes({4, 1, 0, 1, 127, 0, 0, 1, 0, 80}), "", true},
        SExchange{"AddressTypeTwo", Bytes({5, 1, 0, 2, 1, 2, 3, 4, 0, 80}), CommandReply(8), true},
        SExchange{"CommandNine", Bytes({5, 9, 0, 1, 127, 0, 0, 1, 0, 80}), CommandReply(7), true},
        SExchange{"UnresolvableName", Bytes({5, 1, 0, 3, 4, 'n', 'o', 'n', 'e', 0, 80}),
                  CommandReply(8), true}),
    [](const ::testing::TestParamInfo<SExchange>& info) { return std::string(info.param.name); });

TEST_F(Socks5NegotiationTest, GreetingRequestAndPayloadInOnePieceAreAllServed)
{
    Start();
    Send(Bytes({5, 1, 0}) + Bytes({5, 1, 0, 1, 127, 0, 0, 1, 0x1F, 0x90}) + "hello");
    EXPECT_EQ("hello", m_connection.WaitForHostBytes(5));
    EXPECT_EQ(Bytes({5, 0}) + CommandReply(0), m_connection.GetToClient());
    EXPECT_EQ(std::vector<std::string>{"127.0.0.1:8080"}, m_connection.GetMultiPointLayer().GetDestinations());
}

TEST_F(Socks5NegotiationTest, RequestSplitInsideTheAddressIsExecutedOnce)
{
    Negotiate();
    Send(Bytes({5, 1, 0, 1, 127, 0}));
    Send(Bytes({0, 1, 0, 80}));
    EXPECT_EQ(CommandReply(0), WaitForReplies(10));
    EXPECT_EQ(1, m_connection.GetConnectCalls());
    EXPECT_TRUE(WaitForState(Handler::Connected));
}

TEST_F(Socks5NegotiationTest, DomainNameIsResolvedWithNameColonPort)
{
    m_resolver.Script("example.com:443", "127.0.0.2");
    Negotiate();
    Send(Bytes({5, 1, 0, 3, 11}) + "example.com" + Bytes({1, 0xBB}));
    EXPECT_EQ(CommandReply(0), WaitForReplies(10));
    EXPECT_EQ(1, m_resolver.GetRequestCount("example.com:443"));
    EXPECT_EQ(std::vector<std::string>{"127.0.0.2:443"}, m_connection.GetMultiPointLayer().GetDestinations());
}

TEST_F(Socks5NegotiationTest, Ipv6DestinationIsDecoded)
{
    Negotiate();
    Send(Bytes({5, 1, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x1F, 0x90}));
    EXPECT_EQ(CommandReply(0), WaitForReplies(10));
    EXPECT_EQ(std::vector<std::string>{"[::1]:8080"}, m_connection.GetMultiPointLayer().GetDestinations());
}

// What finishes at once runs on the connection's thread, reply included, before HandleRequest
// returns; a name the resolver has to look up hands the exchange to the worker, and once the
// answer is cached the same name is served inline again.
TEST_F(Socks5NegotiationTest, OnlyANameStillToBeLookedUpStartsTheWorker)
{
    m_resolver.Script("example.com:80", "127.0.0.1");
    const std::string byName = Bytes({5, 1, 0, 3, 11}) + "example.com" + Bytes({0, 80});
    Negotiate();
    Send(byName);
    EXPECT_EQ(CommandReply(0), WaitForReplies(10));
    EXPECT_NE(QOX::CThread::STATUS_NOT_STARTED, m_handler->GetThreadStatus());

    for (const std::string& request : {Bytes({5, 1, 0, 1, 127, 0, 0, 1, 0, 80}), byName}) {
        FakeProxyConnection connection(CLIENT_PORT);
        auto handler = StartOn(connection, request);
        EXPECT_EQ(Bytes({5, 0}) + CommandReply(0), connection.GetToClient());
        EXPECT_EQ(Handler::Connected, handler->GetState());
        EXPECT_EQ(QOX::CThread::STATUS_NOT_STARTED, handler->GetThreadStatus());
        connection.DisconnectClient();
    }
    EXPECT_EQ(1, m_resolver.GetRequestCount("example.com:80"));
}

// A partial request is held and counted as backlog; once the worker (which a name lookup
// needs) consumes it, the connection is woken to look at the backlog again.
TEST_F(Socks5NegotiationTest, BacklogCountsUnprocessedBytesAndWorkerConsumptionWakesTheConnection)
{
    m_resolver.Script("example.com:80", "127.0.0.1");
    Negotiate();
    Send(Bytes({5, 1}));
    EXPECT_EQ(2u, m_handler->GetRequestBacklog());
    EXPECT_EQ(0, m_connection.GetWakeCalls());
    Send(Bytes({0, 3, 11}) + "example.com" + Bytes({0, 80}));
    EXPECT_EQ(CommandReply(0), WaitForReplies(10));
    EXPECT_TRUE(WaitUntil([&] { return m_handler->GetRequestBacklog() == 0u && m_connection.GetWakeCalls() > 0; }));
}

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
    EXPECT_EQ(CommandReply(5), RepliesOnceDropped());
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
    EXPECT_EQ(CommandReply(5), RepliesOnceDropped());
}

TEST_F(Socks5BindTest, ListenerFailureIsRefused)
{
    m_listener.SetFail(true);
    RequestBind();
    EXPECT_EQ(CommandReply(5), RepliesOnceDropped());
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
    EXPECT_EQ(FIRST_BIND_REPLY + SECOND_BIND_REPLY + "early", RepliesOnceDropped());
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

// A peer's close drops the client from the stream's own thread, which is then still inside the
// handler's teardown: destroying the handler meanwhile must wait until that thread has left.
TEST_F(Socks5BindTest, DestructionWaitsForAPeersCloseStillTearingDown)
{
    QOX::CRefCountPtr<FakeDataLayer> stream = Bind();
    std::atomic<bool> stopping{false};
    std::atomic<bool> leftTeardown{false};
    m_listener.SetOnStop([&] {
        stopping = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        leftTeardown = true;
    });
    std::thread host([&] { stream->CloseFromRemote(); });
    ASSERT_TRUE(WaitUntil([&] { return stopping.load(); }));
    m_handler.reset();
    EXPECT_TRUE(leftTeardown.load()) << "the handler went away under the stream's thread";
    host.join();
    EXPECT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(0, stream->GetSinkCount());
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

const std::string ASSOCIATE_REQUEST = Bytes({5, 3, 0, 1, 0, 0, 0, 0, 0, 0});
// RSV RSV FRAG, then 127.0.0.1:53.
const std::string TO_LOCAL_DNS = Bytes({0, 0, 0, 1, 127, 0, 0, 1, 0, 53});

// A client's UDP socket on loopback.
class CUdpClient {
public:
    ~CUdpClient() { TestSockets::Close(m_socket); }
    void SendTo(unsigned int port, const std::string& bytes) const
    {
        TestSockets::SendTo(m_socket, "127.0.0.1", port, bytes);
    }
    // One datagram, or empty when none comes within the time given.
    std::string Receive(int timeoutMs = 5000) const { return TestSockets::ReceiveDatagram(m_socket, timeoutMs); }

private:
    unsigned int m_port = 0;
    int m_socket = TestSockets::BindUdp("127.0.0.1", m_port);
};

bool UdpPortIsFree(unsigned int port)
{
    const int probe = TestSockets::BindUdp("0.0.0.0", port);
    TestSockets::Close(probe);
    return probe >= 0;
}

class Socks5UdpTest : public Socks5Fixture {
protected:
    // Associates and returns the relay port from the reply.
    unsigned int Associate()
    {
        m_connection.SetDatagramHandler(&m_datagrams);
        Negotiate();
        Send(ASSOCIATE_REQUEST);
        const std::string reply = WaitForReplies(10);
        EXPECT_EQ(10u, reply.size());
        EXPECT_EQ(Bytes({5, 0, 0, 1, 0, 0, 0, 0}), reply.substr(0, 8));
        EXPECT_TRUE(WaitForState(Handler::UdpAssociated));
        m_handle = m_datagrams.GetLastHandle();
        return reply.size() == 10 ? static_cast<unsigned char>(reply[8]) * 256u + static_cast<unsigned char>(reply[9])
                                  : 0;
    }

    FakeDatagramHandler m_datagrams;
    int m_handle = -1;
};

TEST_F(Socks5UdpTest, ClientDatagramsAreCheckedDecodedAndHandedOn)
{
    m_resolver.Script("dns.test:53", "127.0.0.1");
    const unsigned int port = Associate();
    ASSERT_NE(0u, port);
    EXPECT_EQ("0.0.0.0:0", m_datagrams.GetLastRequestAddress());
    CUdpClient client;
    client.SendTo(port, Bytes({0, 0, 0, 1, 127, 0}));                        // too short
    client.SendTo(port, Bytes({0, 1, 0, 1, 127, 0, 0, 1, 0, 53}) + "rsv");  // RSV not zero
    client.SendTo(port, Bytes({0, 0, 0, 9, 127, 0, 0, 1, 0, 53}) + "atyp"); // unknown type
    client.SendTo(port, Bytes({0, 0, 0, 3, 200}) + std::string(15, 'x'));   // shorter than its name
    client.SendTo(port, Bytes({0, 0, 5, 1, 127, 0, 0, 1, 0, 53}) + "P");    // FRAG is not examined
    client.SendTo(port, Bytes({0, 0, 0, 3, 8}) + "dns.test" + Bytes({0, 53}) + "Q");
    const auto sent = m_datagrams.WaitForSent(2);
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(m_handle, sent[0].handle);
    EXPECT_EQ("127.0.0.1:53", sent[0].destination);
    EXPECT_EQ("P", sent[0].payload);
    EXPECT_EQ("127.0.0.1:53", sent[1].destination);
    EXPECT_EQ("Q", sent[1].payload);
}

TEST_F(Socks5UdpTest, HostDatagramsGoToTheLastClientSourceWithTheirSendersAddress)
{
    const unsigned int port = Associate();
    m_handler->HandleResponse("tcp", 3); // no host link in an association: dropped
    CUdpClient first;
    CUdpClient second;
    first.SendTo(port, TO_LOCAL_DNS + "1");
    m_datagrams.WaitForSent(1);
    ASSERT_TRUE(m_datagrams.Deliver(m_handle, CTCPIPAddress(10, 0, 0, 1, 99), "pong"));
    EXPECT_EQ(Bytes({0, 0, 0, 1, 10, 0, 0, 1, 0, 99}) + "pong", first.Receive());
    auto v6 = CTCPIPAddress::FromText("::1", 99);
    ASSERT_TRUE(m_datagrams.Deliver(m_handle, *v6, "six"));
    EXPECT_EQ(Bytes({0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 99}) + "six", first.Receive());

    second.SendTo(port, TO_LOCAL_DNS + "2");
    m_datagrams.WaitForSent(2);
    ASSERT_TRUE(m_datagrams.Deliver(m_handle, CTCPIPAddress(10, 0, 0, 1, 99), "moved"));
    EXPECT_EQ(Bytes({0, 0, 0, 1, 10, 0, 0, 1, 0, 99}) + "moved", second.Receive());
    EXPECT_EQ("", first.Receive(50));
    EXPECT_EQ(CommandReply(0).size(), Replies().size());
}

TEST_F(Socks5UdpTest, AByteOnTheTcpConnectionUndoesEverything)
{
    const int threadsBefore = ThreadBaseline();
    const unsigned int port = Associate();
    EXPECT_FALSE(UdpPortIsFree(port));
    Send("x");
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    // The connection reports the disconnection before it terminates the handler.
    EXPECT_TRUE(WaitUntil([&] { return UdpPortIsFree(port); }));
    EXPECT_EQ(std::vector<int>{m_handle}, m_datagrams.GetUnregistered());
    EXPECT_EQ(0, m_datagrams.GetActiveRegistrations());
    m_handler->Terminate(); // a second time: nothing more happens
    EXPECT_EQ(1u, m_datagrams.GetUnregistered().size());
    m_handler.reset();
    EXPECT_TRUE(ThreadsBackTo(threadsBefore));
}

// Without a datagram handler, and with one that refuses the registration.
TEST_F(Socks5UdpTest, RefusedAssociationLeavesNoSocket)
{
    for (bool withHandler : {false, true}) {
        const int descriptorsBefore = CountDescriptors();
        FakeProxyConnection connection;
        m_datagrams.SetFailRegistration(true);
        connection.SetDatagramHandler(withHandler ? &m_datagrams : nullptr);
        auto handler = StartOn(connection, ASSOCIATE_REQUEST);
        ASSERT_TRUE(connection.WaitForDisconnect());
        handler.reset();
        EXPECT_EQ(Bytes({5, 0}) + CommandReply(5), connection.GetToClient());
        EXPECT_EQ(descriptorsBefore, CountDescriptors());
    }
}

// Datagrams keep flowing both ways while the client goes away; afterwards no registration,
// thread or socket is left.
class Socks5UdpRaceTest : public Socks5Fixture {};

TEST_F(Socks5UdpRaceTest, TrafficRacingTerminateLeavesNothingBehind)
{
    const int threadsBefore = ThreadBaseline();
    const int descriptorsBefore = CountDescriptors();
    for (int round = 0; round < 20; ++round) {
        FakeProxyConnection connection;
        FakeDatagramHandler datagrams;
        connection.SetDatagramHandler(&datagrams);
        auto handler = StartOn(connection, ASSOCIATE_REQUEST);
        const std::string reply = connection.WaitForClientBytes(12);
        ASSERT_EQ(12u, reply.size());
        const unsigned int port = static_cast<unsigned char>(reply[10]) * 256u + static_cast<unsigned char>(reply[11]);
        ASSERT_TRUE(WaitUntil([&] { return handler->GetState() == Handler::UdpAssociated; }));
        const int handle = datagrams.GetLastHandle();
        std::atomic<bool> running{true};
        std::thread host([&] {
            while (running.load())
                datagrams.Deliver(handle, CTCPIPAddress(10, 0, 0, 1, 99), "pong");
        });
        std::thread client([&] {
            CUdpClient udp;
            while (running.load())
                udp.SendTo(port, TO_LOCAL_DNS + "ping");
        });
        datagrams.WaitForSent(static_cast<size_t>(round % 3));
        connection.DisconnectClient();
        running.store(false);
        host.join();
        client.join();
        EXPECT_EQ(0, datagrams.GetActiveRegistrations());
        handler.reset();
    }
    EXPECT_TRUE(ThreadsBackTo(threadsBefore));
    EXPECT_EQ(descriptorsBefore, CountDescriptors());
}

} // namespace
} // namespace Testing
} // namespace ZRT
