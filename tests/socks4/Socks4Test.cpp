// The SOCKS4/4A handler alone, on a fake connection whose thread the test plays: requests in any
// split, replies byte for byte, refusals, users, and BIND.
#include <gtest/gtest.h>

#include <netinet/in.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fakes/FakeConnectionListener.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/socks4/CConnectionProtocol_SOCKS4.h"

namespace ZRT {
namespace Testing {
namespace {

using Handler = Proxy::CConnectionProtocol_SOCKS4;
using EState = Handler::EState;
using Proxy::EOutcome;

std::string Bytes(std::initializer_list<int> values)
{
    std::string bytes;
    for (int value : values)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

std::string Port(unsigned int port)
{
    return Bytes({static_cast<int>(port >> 8), static_cast<int>(port & 0xFF)});
}

// VN CD DSTPORT DSTIP USERID NUL.
std::string Request(int command, std::initializer_list<int> ipv4, unsigned int port, const std::string& user = "")
{
    return Bytes({4, command}) + Port(port) + Bytes(ipv4) + user + std::string(1, '\0');
}

// The 4A form: DSTIP 0.0.0.1, then the name and its NUL after the user id's.
std::string NameRequest(int command, const std::string& name, unsigned int port, const std::string& user = "")
{
    return Request(command, {0, 0, 0, 1}, port, user) + name + std::string(1, '\0');
}

// VN 0, the code, then port and address.
std::string Reply(int code, unsigned int port = 0, std::initializer_list<int> ipv4 = {0, 0, 0, 0})
{
    return Bytes({0, code}) + Port(port) + Bytes(ipv4);
}

const std::string GRANTED = Reply(90);
const std::string REJECTED = Reply(91);

// One handler on a fake connection (client 127.0.0.1:50123, proxy 127.0.0.1:1080), names
// resolved through a scripted resolver into the fixture's own cache.
class Socks4Fixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_resolver.SetResolveNumeric(false);
        m_resolver.Script("server1:80", "127.0.0.1");
        ASSERT_TRUE(m_manager.Init(&m_resolver));
        m_connection.SetAddressManager(&m_manager);
        m_connection.SetConnectionListener(&m_listener);
        m_handler.reset(new Handler(m_connection));
        m_connection.SetProtocol(m_handler.get());
        m_handler->Init();
    }

    void TearDown() override
    {
        if (m_handler) {
            m_connection.DisconnectClient();
            m_handler.reset();
        }
        m_manager.Terminate();
        m_resolver.JoinPending();
    }

    // Hands bytes in as the connection would, then runs what it would run next.
    void Send(const std::string& bytes)
    {
        m_handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size()));
        m_connection.RunPending();
    }
    // Hands a request to a handler of its own on another connection, one without a listener.
    void SendAlone(FakeProxyConnection& connection, const std::string& request)
    {
        connection.SetAddressManager(&m_manager);
        Handler handler(connection);
        connection.SetProtocol(&handler);
        handler.HandleRequest(request.data(), static_cast<int>(request.size()));
        connection.RunPending();
    }
    bool Dropped() { return !m_connection.IsConnectedToClient(); }
    std::vector<std::string> Destinations() { return m_connection.GetMultiPointLayer().GetDestinations(); }

    FakeResolver m_resolver;
    Proxy::CAddressManager m_manager;
    FakeProxyConnection m_connection;
    FakeConnectionListener m_listener;
    std::unique_ptr<Handler> m_handler;
};

// ---- CONNECT, numeric and by name ----

struct SServedCase {
    const char* name;
    std::string request;
    std::string destination; // where the link was opened
    std::string protocol;    // as the access log names it
    std::string described;   // the destination as the client named it
    std::string user;
};

class Socks4ServedTest : public Socks4Fixture, public ::testing::WithParamInterface<SServedCase> {
protected:
    void ExpectRecorded()
    {
        EXPECT_EQ((std::vector<std::string>{GetParam().destination}), Destinations());
        EXPECT_EQ(GetParam().protocol, m_connection.GetProtocolName());
        EXPECT_EQ(GetParam().described, m_connection.GetDestinationText());
        EXPECT_EQ(GetParam().user, m_connection.GetUser());
        EXPECT_TRUE(m_connection.IsRequestComplete());
        EXPECT_FALSE(m_connection.GetOutcome().has_value());
    }
};

TEST_P(Socks4ServedTest, ByteByByteIsAnsweredOnceAfterItsLastByteThenRelays)
{
    const std::string& request = GetParam().request;
    for (size_t i = 0; i + 1 < request.size(); ++i) {
        Send(request.substr(i, 1));
        ASSERT_EQ("", m_connection.GetToClient()) << "after byte " << i;
        ASSERT_EQ(EState::Request, m_handler->GetState());
    }
    EXPECT_FALSE(m_connection.IsRequestComplete());
    EXPECT_EQ(0, m_connection.GetConnectCalls());
    Send(request.substr(request.size() - 1));
    EXPECT_EQ(GRANTED, m_connection.GetToClient());
    ExpectRecorded();
    EXPECT_TRUE(m_handler->PassesRequestsThrough());
    EXPECT_TRUE(m_handler->PassesResponsesThrough());
    Send("to host");
    m_handler->HandleResponse("to client", 9);
    EXPECT_EQ("to host", m_connection.GetToHost());
    EXPECT_EQ(GRANTED + "to client", m_connection.GetToClient());
}

TEST_P(Socks4ServedTest, CoalescedWithThePayloadIsServedAtOnce)
{
    Send(GetParam().request + "payload");
    EXPECT_EQ(GRANTED, m_connection.GetToClient());
    EXPECT_EQ("payload", m_connection.GetToHost());
    EXPECT_EQ(EState::Relay, m_handler->GetState());
    ExpectRecorded();
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Socks4ServedTest,
    ::testing::Values(
        SServedCase{"Socks4", Request(1, {10, 1, 2, 3}, 443, "alice"), "10.1.2.3:443", "socks4", "10.1.2.3:443",
                    "alice"},
        SServedCase{"Socks4WithoutUserId", Request(1, {10, 1, 2, 3}, 443), "10.1.2.3:443", "socks4", "10.1.2.3:443", "-"},
        SServedCase{"LongestUserId", Request(1, {10, 1, 2, 3}, 443, std::string(255, 'u')), "10.1.2.3:443", "socks4",
                    "10.1.2.3:443", std::string(255, 'u')},
        SServedCase{"Socks4a", NameRequest(1, "server1", 80, "bob"), "127.0.0.1:80", "socks4a", "server1:80", "bob"}),
    [](const ::testing::TestParamInfo<SServedCase>& info) { return std::string(info.param.name); });

struct SRefusalCase {
    const char* name;
    std::string request;
    EOutcome outcome;
};

class Socks4RefusalTest : public Socks4Fixture, public ::testing::WithParamInterface<SRefusalCase> {};

TEST_P(Socks4RefusalTest, RejectsOnceAndCloses)
{
    m_connection.Settings().denyDestinations = {"10.9.9.9", "127.0.0.1:80"};
    Send(GetParam().request + "payload");
    EXPECT_EQ(REJECTED, m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(EState::Closed, m_handler->GetState());
    EXPECT_EQ(0, m_connection.GetConnectCalls());
    EXPECT_EQ("", m_connection.GetToHost());
    EXPECT_EQ(GetParam().outcome, m_connection.GetOutcome());
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, Socks4RefusalTest,
    ::testing::Values(
        // Refused after its second byte: what follows an unknown command may never end.
        SRefusalCase{"UnknownCommand", Bytes({4, 3}), EOutcome::BadRequest},
        SRefusalCase{"UserIdOverLimit", Request(1, {10, 1, 2, 3}, 443, std::string(256, 'u')), EOutcome::BadRequest},
        SRefusalCase{"NameOverLimit", NameRequest(1, std::string(256, 'n'), 80), EOutcome::BadRequest},
        SRefusalCase{"NameWithASpace", NameRequest(1, "server 1", 80), EOutcome::BadRequest},
        SRefusalCase{"EmptyName", NameRequest(1, "", 80), EOutcome::BadRequest},
        SRefusalCase{"NameThatDoesNotResolve", NameRequest(1, "nowhere", 80), EOutcome::NoDestination},
        SRefusalCase{"DeniedAddress", Request(1, {10, 9, 9, 9}, 443), EOutcome::Denied},
        SRefusalCase{"DeniedByItsResolvedAddress", NameRequest(1, "server1", 80), EOutcome::Denied},
        SRefusalCase{"DeniedBindPeer", Request(2, {10, 9, 9, 9}, 0), EOutcome::Denied}),
    [](const ::testing::TestParamInfo<SRefusalCase>& info) { return std::string(info.param.name); });

TEST_F(Socks4Fixture, UnboundedFieldsAreRefusedAsSoonAsTheyPassTheLimit)
{
    // No NUL within 255 bytes: nothing more is waited for, whatever the client sends after.
    Send(Request(1, {10, 1, 2, 3}, 443).substr(0, 8) + std::string(255, 'u'));
    EXPECT_EQ("", m_connection.GetToClient());
    Send("u");
    EXPECT_EQ(REJECTED, m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
}

TEST_F(Socks4Fixture, TheProxyItselfIsNotAllowedInAnyForm)
{
    m_manager.SetProxyPort(1080);
    m_manager.SetOwnAddressesForTesting({"192.0.2.7"});
    m_resolver.Script("me.test:1080", "127.0.0.1");
    for (const auto& request : {Request(1, {127, 0, 0, 1}, 1080), Request(1, {0, 0, 0, 0}, 1080),
                                Request(1, {192, 0, 2, 7}, 1080), NameRequest(1, "me.test", 1080)}) {
        FakeProxyConnection connection;
        SendAlone(connection, request);
        EXPECT_EQ(REJECTED, connection.GetToClient());
        EXPECT_EQ(0, connection.GetConnectCalls());
        EXPECT_EQ(EOutcome::NotAllowed, connection.GetOutcome());
    }
    Send(Request(1, {127, 0, 0, 1}, 1081));
    EXPECT_EQ(GRANTED, m_connection.GetToClient());
}

TEST_F(Socks4Fixture, UnreachableDestinationIsRejected)
{
    m_connection.GetMultiPointLayer().SetFail(true);
    Send(Request(1, {10, 1, 2, 3}, 443));
    EXPECT_EQ(REJECTED, m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(EOutcome::Unreachable, m_connection.GetOutcome());
}

TEST_F(Socks4Fixture, NameIsLookedUpWithoutWaitingAndTheClientsBytesAndEndWaitWithIt)
{
    m_resolver.SetMode(FakeResolver::ANSWER_LATER);
    Send(NameRequest(1, "server1", 80) + "early");
    EXPECT_EQ(EState::Resolve, m_handler->GetState());
    EXPECT_GT(m_connection.GetTimerMs(), 0) << "woken by the lookup's limit at the latest";
    EXPECT_LE(m_connection.GetTimerMs(), m_connection.Settings().lookupLimitMs);
    EXPECT_EQ(5u, m_handler->GetRequestBacklog());
    EXPECT_TRUE(m_handler->HandleClientEnd());
    ASSERT_TRUE(m_connection.RunWhenWoken());
    EXPECT_EQ(GRANTED, m_connection.GetToClient());
    EXPECT_EQ("early", m_connection.GetToHost());
    EXPECT_EQ(1, m_connection.GetHostOutputEnds());
    EXPECT_EQ(-1, m_connection.GetTimerMs());
}

TEST_F(Socks4Fixture, NameNotAnsweredInTimeIsRejectedAndItsLookupCancelled)
{
    m_connection.Settings().lookupLimitMs = 20;
    m_handler.reset(new Handler(m_connection));
    m_connection.SetProtocol(m_handler.get());
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    Send(NameRequest(1, "slow.example", 443));
    m_connection.FireTimerWhenDue();
    EXPECT_EQ(REJECTED, m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
    EXPECT_EQ(1, m_resolver.GetCancelCount("slow.example:443"));
}

// ---- users: SOCKS4 has no password ----

class Socks4UsersTest : public Socks4Fixture, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        m_connection.Settings().users = {{"alice", "s3cret"}};
        m_connection.Settings().socks4WithUsers = GetParam();
        Socks4Fixture::SetUp();
    }
};

TEST_P(Socks4UsersTest, AreServedOnlyWhenTheSettingsAllowIt)
{
    const bool allowed = GetParam();
    Send(NameRequest(1, "server1", 80, "alice"));
    EXPECT_EQ(allowed ? GRANTED : REJECTED, m_connection.GetToClient());
    EXPECT_EQ(allowed, !Dropped());
    EXPECT_EQ("alice", m_connection.GetUser());
    // A client that is turned away gets no lookup either.
    EXPECT_EQ(allowed ? 1 : 0, m_resolver.GetRequestCount("server1:80"));
    EXPECT_EQ(allowed ? std::optional<EOutcome>() : EOutcome::AuthFailed, m_connection.GetOutcome());
}

INSTANTIATE_TEST_SUITE_P(Socks4Setting, Socks4UsersTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Allow" : "Deny"; });

// ---- BIND ----

TEST_F(Socks4Fixture, BindNamesItsListenerThenItsPeerWhichBecomesTheHostLink)
{
    Send(Request(2, {127, 0, 0, 5}, 21, "carol") + "early");
    const std::string first = Reply(90, 40000, {127, 0, 0, 1});
    ASSERT_EQ(first, m_connection.GetToClient());
    EXPECT_EQ(EState::BindAccept, m_handler->GetState());
    EXPECT_EQ("bind", m_connection.GetProtocolName());
    EXPECT_EQ(m_connection.Settings().bindWaitMs, m_connection.GetTimerMs());
    EXPECT_EQ("127.0.0.5:21", m_listener.GetLastRequestAddress());
    EXPECT_FALSE(m_handler->PassesResponsesThrough());

    // A stranger is turned away, and the wait goes on for the named peer.
    const QOX::CRefCountPtr<FakeDataLayer> stranger = m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 9, 4321));
    ASSERT_TRUE(stranger);
    m_connection.RunPending();
    EXPECT_TRUE(stranger->WasClosed());
    EXPECT_EQ(first, m_connection.GetToClient());

    ASSERT_TRUE(m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 5, 4321)));
    m_connection.RunPending();
    EXPECT_EQ(first + Reply(90, 4321, {127, 0, 0, 5}), m_connection.GetToClient());
    EXPECT_EQ(EState::Relay, m_handler->GetState());
    EXPECT_EQ(1, m_connection.GetAdoptedLinks());
    EXPECT_EQ(1, m_listener.GetStopCount());
    EXPECT_EQ(-1, m_connection.GetTimerMs());
    EXPECT_EQ("early", m_connection.GetToHost());
}

TEST_F(Socks4Fixture, BindByNameWaitsForThePeerAtItsResolvedAddress)
{
    Send(NameRequest(2, "server1", 80));
    EXPECT_EQ("127.0.0.1:80", m_listener.GetLastRequestAddress());
    EXPECT_EQ("bind", m_connection.GetProtocolName());
    EXPECT_EQ("server1:80", m_connection.GetDestinationText());
    ASSERT_TRUE(m_listener.ConnectPeer(CTCPIPAddress(127, 0, 0, 1, 4321)));
    m_connection.RunPending();
    EXPECT_EQ(EState::Relay, m_handler->GetState());
}

TEST_F(Socks4Fixture, BindWithoutAPeerInTimeGetsASecondReplyOfRejection)
{
    Send(Request(2, {0, 0, 0, 0}, 0));
    m_connection.FireTimer();
    EXPECT_EQ(Reply(90, 40000, {127, 0, 0, 1}) + REJECTED, m_connection.GetToClient());
    EXPECT_TRUE(Dropped());
    EXPECT_FALSE(m_listener.IsListening());
    EXPECT_EQ(EOutcome::Timeout, m_connection.GetOutcome());
}

TEST_F(Socks4Fixture, BindOnAnIpv6ListenerNamesOnlyItsPort)
{
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    loopback.sin6_port = htons(40001);
    CTCPIPAddress v6;
    ASSERT_TRUE(v6.SetAddress(*reinterpret_cast<sockaddr*>(&loopback), sizeof(loopback)));
    m_listener.SetListenAddress(v6);
    Send(Request(2, {0, 0, 0, 0}, 0));
    EXPECT_EQ(Reply(90, 40001), m_connection.GetToClient());
}

TEST_F(Socks4Fixture, BindWithoutAListenerOrWhenListeningFailsIsRejected)
{
    m_listener.SetFail(true);
    Send(Request(2, {127, 0, 0, 5}, 0));
    EXPECT_EQ(REJECTED, m_connection.GetToClient());
    EXPECT_EQ(EOutcome::Unreachable, m_connection.GetOutcome());

    FakeProxyConnection connection;
    SendAlone(connection, Request(2, {127, 0, 0, 5}, 0));
    EXPECT_EQ(REJECTED, connection.GetToClient());
    EXPECT_EQ(EOutcome::BadRequest, connection.GetOutcome());
}

} // namespace
} // namespace Testing
} // namespace ZRT
