#include <cstring>

#include "Socks5Fixture.h"

namespace ZRT {
namespace Testing {
namespace {

using Handler = Proxy::CConnectionProtocol_SOCKS5;

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
    ASSERT_TRUE(m_connection.WaitForDisconnect());
    EXPECT_EQ(GetParam().expectedReply, Replies());
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

} // namespace
} // namespace Testing
} // namespace ZRT
