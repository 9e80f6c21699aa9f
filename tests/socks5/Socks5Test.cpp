// The SOCKS5 handler alone, on a fake connection whose thread the test plays: negotiation and
// refusals byte for byte, the three commands, and the UDP relay on real loopback sockets.
#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>

#include <atomic>
#include <cstring>
#include <future>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeDatagramHandler.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "fakes/Polling.h"
#include "fakes/TestSockets.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks5/CConnectionProtocol_SOCKS5.h"
#include "proxy/socks5/CSocks5UdpRelay.h"

namespace ZRT {
namespace Testing {
namespace {

using Handler = Proxy::CConnectionProtocol_SOCKS5;
using EState = Handler::EState;

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

std::string Request(int command, std::initializer_list<int> ipv4, unsigned int port)
{
    std::string request = Bytes({5, command, 0, 1});
    for (int byte : ipv4)
        request.push_back(static_cast<char>(byte));
    return request + Bytes({static_cast<int>(port >> 8), static_cast<int>(port & 0xFF)});
}

std::string NameRequest(int command, const std::string& name, unsigned int port)
{
    return Bytes({5, command, 0, 3, static_cast<int>(name.size())}) + name +
           Bytes({static_cast<int>(port >> 8), static_cast<int>(port & 0xFF)});
}

// A handler on a connection of its own, beside a fixture's, sharing its name cache.
struct SOwnExchange {
    explicit SOwnExchange(Proxy::CAddressManager& manager, bool terminatesLater = false)
    {
        connection.SetAddressManager(&manager);
        connection.SetTerminatesLater(terminatesLater);
        handler.reset(new Handler(connection));
        connection.SetProtocol(handler.get());
    }
    // Hands client bytes in, without running what the connection would run next.
    void Take(const std::string& bytes) { handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size())); }

    FakeProxyConnection connection;
    std::unique_ptr<Handler> handler;
};

// One handler on a fake connection (client 127.0.0.1:50123, proxy 127.0.0.1:1080), names
// resolved through a scripted resolver into the fixture's own cache.
class Socks5Fixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_resolver.SetResolveNumeric(false);
        m_resolver.Script("server1:80", "127.0.0.1");
        ASSERT_TRUE(m_manager.Init(&m_resolver));
        m_connection.SetAddressManager(&m_manager);
        m_handler.reset(new Handler(m_connection));
        m_connection.SetProtocol(m_handler.get());
        m_handler->Init();
    }

    void TearDown() override
    {
        Stop();
        m_manager.Terminate();
        m_resolver.JoinPending();
    }

    // Hands bytes in as the connection would, then runs what it would run next.
    void Send(const std::string& bytes)
    {
        m_handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size()));
        m_connection.RunPending();
    }
    void Negotiate()
    {
        Send(Bytes({5, 1, 0}));
        ASSERT_EQ(Bytes({5, 0}), m_connection.GetToClient());
    }
    // What the client got after the greeting reply.
    std::string Replies() { return m_connection.GetToClient().substr(2); }
    bool Dropped() { return !m_connection.IsConnectedToClient(); }
    // A handler in place of the fixture's (which has seen nothing) whose lookups wait this long.
    void LimitLookups(int milliseconds)
    {
        m_connection.Settings().lookupLimitMs = milliseconds;
        m_handler.reset(new Handler(m_connection));
        m_connection.SetProtocol(m_handler.get());
    }
    void Stop()
    {
        if (!m_handler)
            return;
        m_connection.DisconnectClient();
        m_handler.reset();
    }

    FakeResolver m_resolver;
    Proxy::CAddressManager m_manager;
    FakeProxyConnection m_connection;
    std::unique_ptr<Handler> m_handler;
};

// ---- negotiation ----

class Socks5NegotiationTest : public Socks5Fixture {};

TEST_F(Socks5NegotiationTest, GreetingByteByByteIsAnsweredOnceAfterItsLastByte)
{
    const std::string greeting = Bytes({5, 2, 1, 0});
    for (size_t i = 0; i + 1 < greeting.size(); ++i) {
        Send(greeting.substr(i, 1));
        EXPECT_EQ("", m_connection.GetToClient()) << "after byte " << i;
        EXPECT_EQ(EState::Greeting, m_handler->GetState());
    }
    Send(greeting.substr(3));
    EXPECT_EQ(Bytes({5, 0}), m_connection.GetToClient());
    EXPECT_EQ(EState::Request, m_handler->GetState());
}

struct SGreetingCase {
    std::string greeting;
    std::string reply;
    bool accepted;
};

class Socks5GreetingTest : public Socks5Fixture, public ::testing::WithParamInterface<SGreetingCase> {};

TEST_P(Socks5GreetingTest, AnswersExactly)
{
    Send(GetParam().greeting);
    EXPECT_EQ(GetParam().reply, m_connection.GetToClient());
    EXPECT_EQ(!GetParam().accepted, Dropped());
}

INSTANTIATE_TEST_SUITE_P(
    Greetings, Socks5GreetingTest,
    ::testing::Values(SGreetingCase{Bytes({5, 1, 0}), Bytes({5, 0}), true},
                      SGreetingCase{Bytes({5, 3, 2, 1, 0}), Bytes({5, 0}), true},
                      // Without users the password method alone is not accepted.
                      SGreetingCase{Bytes({5, 2, 2, 0}), Bytes({5, 0}), true},
                      SGreetingCase{Bytes({5, 1, 2}), Bytes({5, 0xFF}), false},
                      // No method at all is answered at once, not waited on.
                      SGreetingCase{Bytes({5, 0}), Bytes({5, 0xFF}), false}));

struct SRefusalCase {
    const char* name;
    std::string request;
    std::string reply;
};

class Socks5RefusalTest : public Socks5Fixture, public ::testing::WithParamInterface<SRefusalCase> {};

TEST_P(Socks5RefusalTest, RepliesExactlyAndCloses)
{
    Negotiate();
    Send(GetParam().request);
    EXPECT_EQ(GetParam().reply, Replies());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(EState::Closed, m_handler->GetState());
    EXPECT_EQ(0, m_connection.GetConnectCalls());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, Socks5RefusalTest,
    ::testing::Values(SRefusalCase{"WrongVersion", Bytes({4, 1, 0, 1, 127, 0, 0, 1, 0, 80}), ""},
                      SRefusalCase{"UnknownAddressType", Bytes({5, 1, 0, 2, 1, 2, 3, 4}), CommandReply(8)},
                      SRefusalCase{"UnknownCommand", Request(9, {127, 0, 0, 1}, 80), CommandReply(7)}),
    [](const ::testing::TestParamInfo<SRefusalCase>& info) { return std::string(info.param.name); });

TEST_F(Socks5NegotiationTest, GreetingRequestAndPayloadInOnePieceAreAllServed)
{
    Send(Bytes({5, 1, 0}) + Request(1, {127, 0, 0, 1}, 80) + "payload");
    EXPECT_EQ(Bytes({5, 0}) + CommandReply(0), m_connection.GetToClient());
    EXPECT_EQ("payload", m_connection.GetToHost());
    EXPECT_EQ(EState::Relay, m_handler->GetState());
}

TEST_F(Socks5NegotiationTest, RequestSplitInsideTheAddressIsExecutedOnce)
{
    Negotiate();
    const std::string request = NameRequest(1, "server1", 80);
    Send(request.substr(0, 6));
    Send(request.substr(6, 3));
    EXPECT_EQ(0, m_connection.GetConnectCalls());
    Send(request.substr(9));
    EXPECT_EQ(1, m_connection.GetConnectCalls());
    EXPECT_EQ(CommandReply(0), Replies());
    EXPECT_EQ((std::vector<std::string>{"127.0.0.1:80"}), m_connection.GetMultiPointLayer().GetDestinations());
}

TEST_F(Socks5NegotiationTest, NameIsLookedUpWithoutWaitingAndClientBytesWaitWithIt)
{
    m_resolver.SetMode(FakeResolver::ANSWER_LATER);
    Negotiate();
    Send(NameRequest(1, "server1", 80) + "early");
    EXPECT_EQ(EState::Resolve, m_handler->GetState());
    EXPECT_LE(m_connection.GetTimerMs(), m_connection.Settings().lookupLimitMs);
    EXPECT_GT(m_connection.GetTimerMs(), m_connection.Settings().lookupLimitMs - 1000);
    EXPECT_EQ(5u, m_handler->GetRequestBacklog());
    ASSERT_TRUE(m_connection.RunWhenWoken());
    EXPECT_EQ(1, m_resolver.GetRequestCount("server1:80"));
    EXPECT_EQ(CommandReply(0), Replies());
    EXPECT_EQ("early", m_connection.GetToHost());
    EXPECT_EQ(0u, m_handler->GetRequestBacklog());
    EXPECT_EQ(-1, m_connection.GetTimerMs());
}

TEST_F(Socks5NegotiationTest, NameNotAnsweredInTimeIsRefusedAndItsLookupCancelled)
{
    LimitLookups(20);
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    Negotiate();
    Send(NameRequest(1, "slow.example", 443));
    EXPECT_EQ(EState::Resolve, m_handler->GetState());
    EXPECT_GE(m_connection.GetTimerMs(), 0);
    EXPECT_LE(m_connection.GetTimerMs(), 20);
    m_connection.FireTimerWhenDue();
    EXPECT_EQ(CommandReply(8), Replies());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(Proxy::EOutcome::NoDestination, m_connection.GetOutcome());
    EXPECT_EQ(1, m_resolver.GetCancelCount("slow.example:443"));
}

TEST_F(Socks5NegotiationTest, Ipv6DestinationIsDecoded)
{
    Negotiate();
    std::string request = Bytes({5, 1, 0, 4});
    request += std::string(15, '\0') + Bytes({1, 0x1F, 0x90});
    Send(request);
    EXPECT_EQ((std::vector<std::string>{"[::1]:8080"}), m_connection.GetMultiPointLayer().GetDestinations());
    EXPECT_EQ(CommandReply(0), Replies());
}

// ---- username/password (when the proxy has users) ----

std::string Credentials(const std::string& user, const std::string& password, int version = 1)
{
    return Bytes({version, static_cast<int>(user.size())}) + user + Bytes({static_cast<int>(password.size())}) +
           password;
}

class Socks5AuthTest : public Socks5Fixture {
protected:
    void SetUp() override
    {
        m_connection.Settings().users = {{"alice", "s3cret"}, {"bob", "hunter2"}};
        Socks5Fixture::SetUp();
    }
};

const std::string AUTHENTICATED_CONNECT =
    Bytes({5, 2, 0, 2}) + Credentials("bob", "hunter2") + Request(1, {127, 0, 0, 1}, 80) + "payload";

// Whole or byte by byte: the greeting (4 bytes) is answered after its last byte, the
// credentials after theirs, and the request and payload behind them are served alike.
TEST_F(Socks5AuthTest, RightCredentialsWholeOrByteByByteAreAnsweredOnlyAfterTheirLastByte)
{
    const size_t credentialsEnd = 4 + Credentials("bob", "hunter2").size();
    for (const size_t step : {AUTHENTICATED_CONNECT.size(), size_t{1}}) {
        SOwnExchange own(m_manager);
        own.connection.Settings().users = m_connection.Settings().users;
        for (size_t i = 0; i < AUTHENTICATED_CONNECT.size(); i += step) {
            own.Take(AUTHENTICATED_CONNECT.substr(i, step));
            own.connection.RunPending();
            if (i + step < credentialsEnd) {
                EXPECT_EQ(i < 3 ? "" : Bytes({5, 2}), own.connection.GetToClient()) << "after byte " << i;
                EXPECT_EQ(i < 3 ? EState::Greeting : EState::Authenticate, own.handler->GetState()) << i;
                EXPECT_FALSE(own.connection.IsRequestComplete());
            }
        }
        EXPECT_EQ(Bytes({5, 2, 1, 0}) + CommandReply(0), own.connection.GetToClient()) << step;
        EXPECT_EQ("payload", own.connection.GetToHost()) << step;
        EXPECT_EQ("bob", own.connection.GetUser());
        EXPECT_TRUE(own.connection.IsRequestComplete());
        EXPECT_EQ(EState::Relay, own.handler->GetState());
    }
}

struct SAuthRefusal {
    const char* name;
    std::string bytes;
    std::string reply;
    std::string user;
};

class Socks5AuthRefusalTest : public Socks5AuthTest, public ::testing::WithParamInterface<SAuthRefusal> {};

TEST_P(Socks5AuthRefusalTest, FailsOnceAndCloses)
{
    Send(GetParam().bytes + Request(1, {127, 0, 0, 1}, 80));
    EXPECT_EQ(GetParam().reply, m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(0, m_connection.GetConnectCalls());
    EXPECT_EQ(Proxy::EOutcome::AuthFailed, m_connection.GetOutcome());
    EXPECT_EQ(GetParam().user, m_connection.GetUser());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, Socks5AuthRefusalTest,
    ::testing::Values(
        // A client that offers only "no authentication" is not let in without it.
        SAuthRefusal{"NoPasswordMethodOffered", Bytes({5, 1, 0}), Bytes({5, 0xFF}), "-"},
        SAuthRefusal{"WrongPassword", Bytes({5, 1, 2}) + Credentials("alice", "s3creT"), Bytes({5, 2, 1, 1}), "alice"},
        SAuthRefusal{"UnknownUser", Bytes({5, 1, 2}) + Credentials("mallory", "s3cret"), Bytes({5, 2, 1, 1}), "mallory"},
        SAuthRefusal{"EmptyUser", Bytes({5, 1, 2}) + Credentials("", ""), Bytes({5, 2, 1, 1}), "-"},
        SAuthRefusal{"WrongSubNegotiationVersion", Bytes({5, 1, 2}) + Credentials("alice", "s3cret", 5),
                     Bytes({5, 2, 1, 1}), "alice"}),
    [](const ::testing::TestParamInfo<SAuthRefusal>& info) { return std::string(info.param.name); });

// "hash:PASSWORD" entries stand for crypt(3) hashes, checked on another thread.
// Its hashes take until the test lets them finish, so what the handler does meanwhile is seen.
class HashVerifier : public Proxy::IPasswordVerifier {
public:
    bool Recognizes(const std::string& stored) const override { return stored.rfind("hash:", 0) == 0; }
    bool Verify(const std::string& stored, const std::string& password) const override
    {
        m_finish.wait();
        return stored == "hash:" + password;
    }
    void Finish()
    {
        if (!m_finished.exchange(true))
            m_release.set_value();
    }

private:
    std::atomic<bool> m_finished{false};
    std::promise<void> m_release;
    std::shared_future<void> m_finish{m_release.get_future().share()};
};

class Socks5HashedAuthTest : public Socks5Fixture {
protected:
    void SetUp() override
    {
        m_connection.Settings().users = {{"alice", "hash:s3cret"}};
        m_connection.Settings().passwordVerifier = m_verifier;
        Socks5Fixture::SetUp();
    }
    void TearDown() override { m_verifier->Finish(); }

    // Finished at the latest at the end, so no hash outlives the test.
    std::shared_ptr<HashVerifier> m_verifier = std::make_shared<HashVerifier>();
};

TEST_F(Socks5HashedAuthTest, TheAnswerWaitsForTheHashAndTheBytesBehindItForTheAnswer)
{
    Send(Bytes({5, 1, 2}) + Credentials("alice", "s3cret") + Request(1, {127, 0, 0, 1}, 80) + "payload");
    // Nothing is answered on this thread while the hash is computed on another.
    EXPECT_EQ(EState::Login, m_handler->GetState());
    EXPECT_EQ(Bytes({5, 2}), m_connection.GetToClient());
    m_verifier->Finish();
    ASSERT_TRUE(m_connection.RunWhenWoken());
    EXPECT_EQ(Bytes({5, 2, 1, 0}) + CommandReply(0), m_connection.GetToClient());
    EXPECT_EQ("payload", m_connection.GetToHost());
}

class Socks5HashedRefusalTest : public Socks5HashedAuthTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(Socks5HashedRefusalTest, WrongHashedPasswordsAndUnknownNamesFailAlike)
{
    Send(Bytes({5, 1, 2}) + Credentials(GetParam(), "guess"));
    m_verifier->Finish();
    ASSERT_TRUE(m_connection.RunWhenWoken());
    EXPECT_EQ(Bytes({5, 2, 1, 1}), m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(Proxy::EOutcome::AuthFailed, m_connection.GetOutcome());
}

INSTANTIATE_TEST_SUITE_P(Users, Socks5HashedRefusalTest, ::testing::Values("alice", "mallory"));

TEST_F(Socks5AuthTest, AnAddressThatGuessedTooOftenWaitsForItsTurnBeforeAnyAnswer)
{
    sockaddr_storage client{};
    int length = sizeof(client);
    m_connection.GetClientAddress().GetSockAddr(reinterpret_cast<sockaddr*>(&client), &length);
    for (int i = 0; i < Proxy::CLoginGuard::FREE_FAILURES; ++i) {
        m_connection.GetLoginGuard().Begin(client);
        m_connection.GetLoginGuard().End(client, false);
    }
    Send(Bytes({5, 1, 2}) + Credentials("bob", "hunter2") + Request(1, {127, 0, 0, 1}, 80));
    EXPECT_EQ(EState::Login, m_handler->GetState());
    EXPECT_GE(m_connection.GetTimerMs(), Proxy::CLoginGuard::FIRST_DELAY_MS);
    EXPECT_EQ(Bytes({5, 2}), m_connection.GetToClient());
    m_connection.FireTimer();
    m_connection.RunPending();
    EXPECT_EQ(Bytes({5, 2, 1, 0}) + CommandReply(0), m_connection.GetToClient());
    // The right password cleared the address.
    EXPECT_EQ(m_connection.GetLoginGuard().Begin(client).count(), 0);
}

class Socks5ConnectTest : public Socks5Fixture {};

TEST_F(Socks5ConnectTest, RelaysBothWaysAfterAReplyWithTheClientsOwnPort)
{
    Negotiate();
    Send(Request(1, {10, 1, 2, 3}, 443));
    ASSERT_EQ(CommandReply(0), Replies());
    EXPECT_TRUE(m_handler->PassesRequestsThrough());
    EXPECT_TRUE(m_handler->PassesResponsesThrough());
    Send("to host");
    m_handler->HandleResponse("to client", 9);
    EXPECT_EQ("to host", m_connection.GetToHost());
    EXPECT_EQ(CommandReply(0) + "to client", Replies());
}

// Why a CONNECT failed, which the reply says only with precise replies.
struct SFailureCase {
    const char* name;
    std::string request;
    int failure; // the connect's, as an errno value
    int usual;   // the reply without precise replies
    int precise; // and with them
};

class Socks5FailureReplyTest : public Socks5Fixture, public ::testing::WithParamInterface<SFailureCase> {};

TEST_P(Socks5FailureReplyTest, SaysWhyOnlyWhenAsked)
{
    for (const bool precise : {false, true}) {
        SOwnExchange own(m_manager);
        own.connection.Settings().socks5PreciseReplies = precise;
        own.connection.Settings().denyDestinations = {"10.9.9.9/32"};
        own.connection.GetMultiPointLayer().SetFail(true);
        own.connection.SetConnectFailure(GetParam().failure);
        own.Take(Bytes({5, 1, 0}) + GetParam().request);
        own.connection.RunPending();
        EXPECT_EQ(Bytes({5, 0}) + CommandReply(precise ? GetParam().precise : GetParam().usual),
                  own.connection.GetToClient())
            << (precise ? "precise" : "usual");
        EXPECT_FALSE(own.connection.IsConnectedToClient());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, Socks5FailureReplyTest,
    ::testing::Values(SFailureCase{"NameUnknown", NameRequest(1, "nowhere", 80), 0, 8, 4},
                      SFailureCase{"DeniedByRules", Request(1, {10, 9, 9, 9}, 80), 0, 2, 2},
                      SFailureCase{"Refused", Request(1, {10, 1, 2, 3}, 80), ECONNREFUSED, 5, 5},
                      SFailureCase{"HostUnreachable", Request(1, {10, 1, 2, 3}, 80), EHOSTUNREACH, 5, 4},
                      SFailureCase{"NetworkUnreachable", Request(1, {10, 1, 2, 3}, 80), ENETUNREACH, 5, 3},
                      SFailureCase{"TimedOut", Request(1, {10, 1, 2, 3}, 80), ETIMEDOUT, 5, 6},
                      SFailureCase{"OtherFailure", Request(1, {10, 1, 2, 3}, 80), EADDRNOTAVAIL, 5, 1}),
    [](const ::testing::TestParamInfo<SFailureCase>& info) { return std::string(info.param.name); });

TEST_F(Socks5ConnectTest, TheProxyItselfIsNotAllowedInAnyForm)
{
    m_manager.SetProxyPort(1080);
    m_manager.SetOwnAddressesForTesting({"192.0.2.7"});
    for (const auto& destination : {Request(1, {127, 0, 0, 1}, 1080), Request(1, {127, 9, 9, 9}, 1080),
                                    Request(1, {0, 0, 0, 0}, 1080), Request(1, {192, 0, 2, 7}, 1080)}) {
        SOwnExchange own(m_manager);
        own.Take(Bytes({5, 1, 0}) + destination);
        own.connection.RunPending();
        EXPECT_EQ(Bytes({5, 0}) + CommandReply(2), own.connection.GetToClient());
        EXPECT_EQ(0, own.connection.GetConnectCalls());
    }
    Negotiate();
    Send(Request(1, {127, 0, 0, 1}, 1081));
    EXPECT_EQ(CommandReply(0), Replies());
}

// A refusal, whether it comes inside the request or with the connect's outcome, is sent once and
// ends the exchange once, whether the connection terminates the handler inside DisconnectClient
// or after the call; what arrives in between or afterwards changes nothing.
TEST_F(Socks5ConnectTest, ARefusalClosesOnceWhenEverTheConnectionTerminates)
{
    for (const bool later : {false, true}) {
        for (const bool connectFails : {false, true}) {
            SOwnExchange own(m_manager, later);
            Handler& handler = *own.handler;
            FakeProxyConnection& connection = own.connection;
            own.Take(Bytes({5, 1, 0}) + Request(connectFails ? 1 : 9, {10, 1, 2, 3}, 443));
            if (connectFails)
                handler.OnHostConnected(false);
            EXPECT_EQ(EState::Closed, handler.GetState());
            handler.OnHostConnected(false);
            handler.OnHostConnected(true);
            handler.OnTimer();
            handler.Resume();
            own.Take("x");
            connection.RunPending();
            EXPECT_EQ(Bytes({5, 0}) + CommandReply(connectFails ? 5 : 7), connection.GetToClient())
                << later << connectFails;
            EXPECT_EQ(1, connection.GetDisconnectCalls()) << later << connectFails;
            EXPECT_EQ(1, connection.GetTerminateCalls()) << later << connectFails;
        }
    }
}

TEST_F(Socks5ConnectTest, AConnectThatCompletesAfterTheClientEndedServesOnlyWhatIsLeft)
{
    // The client finished sending behind its request: the answer, its bytes, then its end.
    Negotiate();
    const std::string request = Request(1, {10, 1, 2, 3}, 443) + "last words";
    m_handler->HandleRequest(request.data(), static_cast<int>(request.size()));
    EXPECT_TRUE(m_handler->HandleClientEnd());
    EXPECT_EQ(0, m_connection.GetHostOutputEnds());
    m_connection.RunPending();
    EXPECT_EQ(CommandReply(0), Replies());
    EXPECT_EQ("last words", m_connection.GetToHost());
    EXPECT_EQ(1, m_connection.GetHostOutputEnds());
    EXPECT_EQ(EState::Relay, m_handler->GetState());

    // The client is gone altogether: its outcome finds nobody to answer.
    SOwnExchange gone(m_manager);
    gone.Take(Bytes({5, 1, 0}) + request);
    gone.connection.DisconnectClient();
    gone.handler->OnHostConnected(true);
    EXPECT_EQ(Bytes({5, 0}), gone.connection.GetToClient());
    EXPECT_EQ("", gone.connection.GetToHost());
    EXPECT_EQ(EState::Closed, gone.handler->GetState());
}

TEST_F(Socks5ConnectTest, EndsArePassedOnOnlyWhileRelaying)
{
    Negotiate();
    EXPECT_FALSE(m_handler->HandleClientEnd());
    EXPECT_FALSE(m_handler->HandleHostEnd());
    Send(Request(1, {10, 1, 2, 3}, 443));
    EXPECT_TRUE(m_handler->HandleHostEnd());
    EXPECT_TRUE(m_handler->HandleClientEnd());
    EXPECT_EQ(1, m_connection.GetHostOutputEnds());
}

// ---- BIND ----

class Socks5BindTest : public Socks5Fixture {
protected:
    void SetUp() override
    {
        Socks5Fixture::SetUp();
        m_connection.SetConnectionListener(&m_listener);
    }
    FakeConnectionListener m_listener;
};

// No listener, or one that fails, is refused without a first reply.
TEST_F(Socks5BindTest, WithoutAWorkingListenerIsRefusedAtOnce)
{
    for (const bool fails : {false, true}) {
        SOwnExchange own(m_manager);
        own.connection.SetConnectionListener(fails ? &m_listener : nullptr);
        m_listener.SetFail(fails);
        own.Take(Bytes({5, 1, 0}) + Request(2, {127, 0, 0, 5}, 0));
        own.connection.RunPending();
        EXPECT_EQ(Bytes({5, 0}) + CommandReply(5), own.connection.GetToClient()) << fails;
        EXPECT_FALSE(own.connection.IsConnectedToClient()) << fails;
    }
}

TEST_F(Socks5BindTest, ExpectedPeerBecomesTheHostLinkAfterTheSecondReply)
{
    Negotiate();
    Send(Request(2, {127, 0, 0, 5}, 0) + "early");
    const std::string first = Bytes({5, 0, 0, 1, 127, 0, 0, 1, 0x9C, 0x40}); // 127.0.0.1:40000
    ASSERT_EQ(first, Replies());
    EXPECT_EQ(EState::BindAccept, m_handler->GetState());
    EXPECT_EQ(m_connection.Settings().bindWaitMs, m_connection.GetTimerMs());
    EXPECT_EQ("127.0.0.5:0", m_listener.GetLastRequestAddress());

    ASSERT_TRUE(m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 5, 4321)));
    m_connection.RunPending();
    EXPECT_EQ(first + Bytes({5, 0, 0, 1, 127, 0, 0, 5, 0x10, 0xE1}), Replies());
    EXPECT_EQ(1, m_connection.GetAdoptedLinks());
    EXPECT_EQ(1, m_listener.GetStopCount());
    EXPECT_EQ(-1, m_connection.GetTimerMs());
    EXPECT_EQ("early", m_connection.GetToHost());
    EXPECT_TRUE(m_handler->HandleHostEnd());
}

TEST_F(Socks5BindTest, PeerFromAnotherHostIsTurnedAwayAndTheWaitGoesOn)
{
    Negotiate();
    Send(Request(2, {127, 0, 0, 5}, 0));
    const QOX::CRefCountPtr<FakeDataLayer> stranger = m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 9, 4321));
    ASSERT_TRUE(stranger);
    m_connection.RunPending();
    EXPECT_TRUE(stranger->WasClosed());
    EXPECT_EQ(EState::BindAccept, m_handler->GetState());
    EXPECT_EQ(10u, Replies().size());
    EXPECT_TRUE(m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 5, 4321)));
    m_connection.RunPending();
    EXPECT_EQ(EState::Relay, m_handler->GetState());
}

TEST_F(Socks5BindTest, UnspecifiedAddressTakesAnyPeer)
{
    Negotiate();
    Send(Request(2, {0, 0, 0, 0}, 0));
    ASSERT_TRUE(m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 9, 4321)));
    m_connection.RunPending();
    EXPECT_EQ(EState::Relay, m_handler->GetState());
}

TEST_F(Socks5BindTest, NoPeerInTimeGivesASecondReplyOfGeneralFailure)
{
    Negotiate();
    Send(Request(2, {127, 0, 0, 5}, 0));
    m_connection.FireTimer();
    EXPECT_EQ(CommandReply(1), Replies().substr(10));
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(1, m_listener.GetStopCount());
    EXPECT_FALSE(m_listener.IsListening());
}

TEST_F(Socks5BindTest, DroppingTheClientStopsListening)
{
    Negotiate();
    Send(Request(2, {127, 0, 0, 5}, 0));
    Stop();
    EXPECT_EQ(1, m_listener.GetStopCount());
    EXPECT_FALSE(m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 5, 4321)));
}

TEST_F(Socks5BindTest, Ipv6ListeningAddressGivesA22ByteReply)
{
    CTCPIPAddress v6;
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_addr = in6addr_loopback;
    any.sin6_port = htons(40001);
    ASSERT_TRUE(v6.SetAddress(*reinterpret_cast<sockaddr*>(&any), sizeof(any)));
    m_listener.SetListenAddress(v6);
    Negotiate();
    Send(Request(2, {127, 0, 0, 5}, 0));
    EXPECT_EQ(Bytes({5, 0, 0, 4}) + std::string(15, '\0') + Bytes({1, 0x9C, 0x41}), Replies());
}

// ---- UDP ASSOCIATE ----

class Socks5UdpTest : public Socks5Fixture {
protected:
    void SetUp() override
    {
        Socks5Fixture::SetUp();
        m_connection.SetDatagramHandler(&m_datagrams);
        unsigned int port = 0;
        m_client = TestSockets::BindUdp("127.0.0.1", port);
        ASSERT_GE(m_client, 0);
    }
    void TearDown() override
    {
        Socks5Fixture::TearDown();
        TestSockets::Close(m_client);
    }

    // Associates and returns the relay's port.
    unsigned int Associate()
    {
        Negotiate();
        Send(Request(3, {0, 0, 0, 0}, 0));
        const std::string reply = Replies();
        EXPECT_EQ(10u, reply.size());
        EXPECT_EQ(Bytes({5, 0, 0, 1, 0, 0, 0, 0}), reply.substr(0, 8));
        return static_cast<unsigned int>(static_cast<unsigned char>(reply[8]) << 8 | static_cast<unsigned char>(reply[9]));
    }
    // Plays the connection's poll of the handler's descriptor.
    void Serve(int timeoutMs = 2000)
    {
        pollfd entry{m_handler->GetWatchedDescriptor(), POLLIN, 0};
        if (entry.fd >= 0 && poll(&entry, 1, timeoutMs) > 0)
            m_handler->OnDescriptorReady();
    }
    void SendFrom(int socket, unsigned int relayPort, const std::string& datagram)
    {
        ASSERT_TRUE(TestSockets::SendTo(socket, "127.0.0.1", relayPort, datagram));
        Serve();
    }

    FakeDatagramHandler m_datagrams;
    int m_client = -1;
};

const std::string TO_ECHO = Bytes({0, 0, 0, 1, 127, 0, 0, 2, 0, 53});

TEST_F(Socks5UdpTest, ClientDatagramsAreCheckedDecodedAndHandedOn)
{
    const unsigned int relay = Associate();
    ASSERT_NE(0u, relay);
    EXPECT_EQ(EState::UdpAssociated, m_handler->GetState());
    for (const std::string& bad : {Bytes({0, 0, 0, 1, 127, 0}), Bytes({0, 1, 0, 1, 127, 0, 0, 2, 0, 53}),
                                   Bytes({0, 0, 0, 2, 127, 0, 0, 2, 0, 53}), Bytes({0, 0, 0, 3, 200, 'a', 'b', 0, 1})})
        SendFrom(m_client, relay, bad + "x");
    EXPECT_TRUE(m_datagrams.GetSent().empty());
    SendFrom(m_client, relay, TO_ECHO + "query");
    SendFrom(m_client, relay, Bytes({0, 0, 5, 1, 127, 0, 0, 2, 0, 53}) + "fragment");
    const auto sent = m_datagrams.GetSent();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(m_datagrams.GetLastHandle(), sent[0].handle);
    EXPECT_EQ("127.0.0.2:53", sent[0].destination);
    EXPECT_EQ("query", sent[0].payload);
    EXPECT_EQ("fragment", sent[1].payload);
}

TEST_F(Socks5UdpTest, OnlyTheClientMayUseTheRelayAndOnlyFromItsFirstPort)
{
    const unsigned int relay = Associate();
    unsigned int port = 0;
    const int stranger = TestSockets::BindUdp("127.0.0.3", port);
    const int otherPort = TestSockets::BindUdp("127.0.0.1", port);
    SendFrom(stranger, relay, TO_ECHO + "from a stranger");
    EXPECT_TRUE(m_datagrams.GetSent().empty());
    SendFrom(m_client, relay, TO_ECHO + "first");
    SendFrom(otherPort, relay, TO_ECHO + "second port");
    SendFrom(m_client, relay, TO_ECHO + "again");
    const auto sent = m_datagrams.GetSent();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ("again", sent[1].payload);
    TestSockets::Close(stranger);
    TestSockets::Close(otherPort);
}

TEST_F(Socks5UdpTest, HostDatagramsGoOnlyToTheClientAndOnlyFromHostsItSentTo)
{
    const unsigned int relay = Associate();
    const int handle = m_datagrams.GetLastHandle();
    ASSERT_TRUE(m_datagrams.Deliver(handle, CTCPIPAddress(127, 0, 0, 2, 53), "before the client spoke"));
    SendFrom(m_client, relay, TO_ECHO + "query");
    ASSERT_TRUE(m_datagrams.Deliver(handle, CTCPIPAddress(127, 0, 0, 8, 53), "unsolicited"));
    ASSERT_TRUE(m_datagrams.Deliver(handle, CTCPIPAddress(127, 0, 0, 2, 53), "answer"));
    EXPECT_EQ(TO_ECHO + "answer", TestSockets::ReceiveDatagram(m_client));
    EXPECT_EQ("", TestSockets::ReceiveDatagram(m_client, 100));
}

TEST_F(Socks5UdpTest, AByteOnTheTcpConnectionUndoesEverything)
{
    Associate();
    const int handle = m_datagrams.GetLastHandle();
    const int descriptors = CountDescriptors();
    Send("x");
    EXPECT_TRUE(Dropped());
    EXPECT_EQ((std::vector<int>{handle}), m_datagrams.GetUnregistered());
    EXPECT_EQ(descriptors - 1, CountDescriptors());
    EXPECT_FALSE(m_handler->HandleClientEnd());
}

TEST_F(Socks5UdpTest, RefusedAssociationLeavesNoSocket)
{
    const int descriptors = CountDescriptors();
    m_datagrams.SetFailRegistration(true);
    Negotiate();
    Send(Request(3, {0, 0, 0, 0}, 0));
    EXPECT_EQ(CommandReply(5), Replies());
    EXPECT_EQ(descriptors, CountDescriptors());
}

TEST_F(Socks5UdpTest, NamesAreLookedUpWithoutWaitingAndOnlyAFewAtOnce)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    const unsigned int relay = Associate();
    const std::string name = Bytes({0, 0, 0, 3, 5}) + "host";
    for (int i = 0; i < 6; ++i)
        SendFrom(m_client, relay, name + std::to_string(i) + Bytes({0, 53}) + "payload");
    EXPECT_EQ(1, m_resolver.GetRequestCount("host3:53"));
    EXPECT_EQ(0, m_resolver.GetRequestCount("host4:53"));
    m_resolver.Answer("host1:53", TestSockets::Address("127.0.0.2", 53));
    m_connection.RunPending();
    const auto sent = m_datagrams.GetSent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ("127.0.0.2:53", sent[0].destination);
    SendFrom(m_client, relay, name + "4" + Bytes({0, 53}) + "payload");
    EXPECT_EQ(1, m_resolver.GetRequestCount("host4:53"));
}

TEST_F(Socks5UdpTest, ADatagramWhoseNameIsNotAnsweredInTimeIsDroppedAndItsPlaceFreed)
{
    LimitLookups(30);
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    const unsigned int relay = Associate();
    const std::string name = Bytes({0, 0, 0, 3, 5}) + "slow";
    for (size_t i = 0; i < Proxy::CSocks5UdpRelay::MAX_LOOKUPS; ++i)
        SendFrom(m_client, relay, name + std::to_string(i) + Bytes({0, 53}) + "payload");
    EXPECT_GE(m_connection.GetTimerMs(), 0) << "woken for the first lookup's limit";
    EXPECT_LE(m_connection.GetTimerMs(), 30);
    m_connection.FireTimerWhenDue();
    // Each limit runs from its own start: the handler stays woken until the last is over.
    for (int i = 0; i < 8 && m_connection.GetTimerMs() >= 0; ++i)
        m_connection.FireTimerWhenDue();
    EXPECT_EQ(-1, m_connection.GetTimerMs());
    for (size_t i = 0; i < Proxy::CSocks5UdpRelay::MAX_LOOKUPS; ++i)
        EXPECT_EQ(1, m_resolver.GetCancelCount("slow" + std::to_string(i) + ":53")) << i;
    EXPECT_TRUE(m_datagrams.GetSent().empty());
    SendFrom(m_client, relay, name + "9" + Bytes({0, 53}) + "payload");
    EXPECT_EQ(1, m_resolver.GetRequestCount("slow9:53")) << "a lookup that timed out holds no place";
}

} // namespace
} // namespace Testing
} // namespace ZRT
