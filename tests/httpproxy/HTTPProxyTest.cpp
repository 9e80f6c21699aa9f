// The HTTP proxy side on a fake connection: each request read, checked and routed on its own,
// bodies and answers framed, the fixed replies of one-request connections and the worded ones
// of persistent ones; its parts (routes, bodies, the origin pool) on their own.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fakes/FakeDataLayer.h"
#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/auth/CCredentials.h"
#include "proxy/http/CBase64.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"
#include "proxy/httpproxy/CHTTPAnswer.h"
#include "proxy/httpproxy/CHTTPBody.h"
#include "proxy/httpproxy/CHTTPRoute.h"
#include "proxy/httpproxy/COriginPool.h"
#include "proxy/httpproxy/CProxyHTTPResponse.h"

namespace ZRT {
namespace Proxy {
namespace {

using Testing::FakeDataLayer;
using Testing::FakeProxyConnection;
using Testing::FakeResolver;

// Written out here so a change to the traditional texts shows up.
const std::string OK_200 = "HTTP/1.0 200 Connection established\r\n\r\n";
const std::string BAD_400 = "HTTP/1.0 400 Bad Request\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
const std::string NOT_FOUND_404 = "HTTP/1.0 404 Not Found\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
const std::string AUTH_407 = "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic "
                             "realm=\"zrt-proxy\"\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

const std::string BROWSER_REQUEST = "GET http://server1/index.html HTTP/1.1\r\nHost: server1\r\n"
                                    "Proxy-Connection: keep-alive\r\nUser-Agent: test\r\n\r\n";
const std::string FORWARDED = "GET /index.html HTTP/1.0\r\nHost: server1\r\nUser-Agent: test\r\n\r\n";

std::string WithField(const std::string& request, const std::string& field)
{
    const size_t end = request.find("\r\n") + 2;
    return request.substr(0, end) + field + "\r\n" + request.substr(end);
}

// A handler on a connection of its own, for cases that each need a fresh one.
struct SExchange {
    explicit SExchange(int keepAliveMs, const std::function<void(Proxy::SProxySettings&)>& settle = {})
    {
        connection.Settings().httpKeepAliveMs = keepAliveMs;
        if (settle)
            settle(connection.Settings());
        handler.reset(new CConnectionProtocol_HTTP(connection));
        connection.SetProtocol(handler.get());
    }
    // Hands bytes in as the connection would, then runs what it would run next.
    void Request(const std::string& bytes)
    {
        handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size()));
        connection.RunPending();
    }

    FakeProxyConnection connection;
    std::unique_ptr<CConnectionProtocol_HTTP> handler;
};

// A handler on a fake connection, with keep-alive on or off; names resolve to 127.0.0.1.
class HTTPProxyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* key : {"server1:80", "server1:443", "server1:8080"})
            m_resolver.Script(key, "127.0.0.1");
        m_resolver.Script("server2:80", "127.0.0.2");
        ASSERT_TRUE(Testing::TestAddressManager().Init(&m_resolver));
        Testing::TestAddressManager().SetLocalAddressesForTesting({"myself"});
    }
    void TearDown() override
    {
        m_handler.reset();
        Testing::TestAddressManager().Terminate();
    }
    void Start(int keepAliveMs = 0)
    {
        m_connection.Settings().httpKeepAliveMs = keepAliveMs;
        m_handler.reset(new CConnectionProtocol_HTTP(m_connection));
        m_connection.SetProtocol(m_handler.get());
    }
    void Request(const std::string& bytes)
    {
        m_handler->HandleRequest(bytes.data(), static_cast<int>(bytes.size()));
        m_connection.RunPending();
    }
    void Response(const std::string& bytes)
    {
        m_handler->HandleResponse(bytes.data(), static_cast<int>(bytes.size()));
        m_connection.RunPending();
    }

    FakeResolver m_resolver;
    FakeProxyConnection m_connection;
    std::unique_ptr<CConnectionProtocol_HTTP> m_handler;
};

TEST_F(HTTPProxyTest, OneRequestPerConnectionKeepsTheTraditionalFormAndEndsWithItsAnswer)
{
    Start();
    Request(BROWSER_REQUEST + "GET http://server2/ HTTP/1.1\r\nHost: server2\r\n\r\n");
    EXPECT_EQ(FORWARDED, m_connection.GetToHost());
    Response("HTTP/1.1 200 OK\r\nSet-Cookie: a=1; Path=/,b=2\r\nConnection: keep-alive\r\nKeep-Alive: timeout=5\r\n"
             "Content-Length: 2\r\n\r\nhi");
    // The answer says the connection ends, and it does; the request behind it never goes.
    EXPECT_EQ("HTTP/1.0 200 OK\r\nSet-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\nContent-Length: 2\r\n"
              "Connection: close\r\n\r\nhi",
              m_connection.GetToClient());
    EXPECT_FALSE(m_connection.IsConnectedToClient());
    EXPECT_EQ(1, m_connection.GetConnectCalls());
    EXPECT_EQ((std::vector<std::string>{"GET 200"}), m_connection.GetFinishedRequests());
}

TEST_F(HTTPProxyTest, PersistentRequestsAreEachRoutedOnTheirOwnAndAnsweredInOrder)
{
    Start(60000);
    // Pipelined: the second waits until the first was answered, then goes to its own host.
    Request("GET http://server1/a HTTP/1.1\r\nHost: server1\r\nProxy-Authorization: Basic eA==\r\n\r\n"
            "GET http://server2/b HTTP/1.1\r\nHost: server2\r\n\r\n");
    EXPECT_EQ("GET /a HTTP/1.1\r\nHost: server1\r\n\r\n", m_connection.GetToHost());
    EXPECT_EQ(1, m_connection.GetConnectCalls());
    Response("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1");
    // The first origin's connection makes way for the second's (it would have served a request
    // to the same place).
    EXPECT_EQ(1, m_connection.GetReleasedLinks());
    EXPECT_EQ(2, m_connection.GetConnectCalls());
    EXPECT_EQ("GET /a HTTP/1.1\r\nHost: server1\r\n\r\nGET /b HTTP/1.1\r\nHost: server2\r\n\r\n",
              m_connection.GetToHost());
    Response("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\n2\r\n0\r\n\r\n");
    EXPECT_EQ("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
              "1\r\n2\r\n0\r\n\r\n",
              m_connection.GetToClient());
    EXPECT_TRUE(m_connection.IsConnectedToClient());
    EXPECT_EQ(60000, m_connection.GetTimerMs()) << "idle between requests, for as long as allowed";
    m_connection.FireTimer();
    EXPECT_FALSE(m_connection.IsConnectedToClient());
}

TEST_F(HTTPProxyTest, AMalformedRequestAfterAnAnsweredOneGetsItsOwn400)
{
    Start(60000);
    Request("GET http://server1/a HTTP/1.1\r\nHost: server1\r\n\r\n");
    Response("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1");
    const size_t answered = m_connection.GetToClient().size();
    Request("GET http://server1/b HTTP/1.1\r\nHost : server1\r\n\r\n");
    EXPECT_EQ(m_connection.GetToClient().substr(answered).rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u);
    EXPECT_EQ(m_connection.GetFinishedRequests().size(), 1u) << "the answered request is recorded once";
    EXPECT_FALSE(m_connection.IsConnectedToClient());
}

TEST_F(HTTPProxyTest, AnOriginConnectionStaysForTheNextRequestToTheSamePlaceUntilItsOriginCloses)
{
    Start(60000);
    const std::string request = "GET http://server1/a HTTP/1.1\r\nHost: server1\r\n\r\n";
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1";
    Request(request);
    Response(answer);
    Request(request);
    EXPECT_EQ(1, m_connection.GetConnectCalls());
    EXPECT_EQ(0, m_connection.GetReleasedLinks());
    EXPECT_EQ(m_connection.GetStats().Get(CProxyStats::HTTP_ORIGINS_REUSED), 1u);
    Response(answer);
    // Its origin closes between requests: the client stays, and its next request goes anew.
    EXPECT_TRUE(m_handler->HandleHostEnd());
    EXPECT_EQ(1, m_connection.GetReleasedLinks());
    EXPECT_TRUE(m_connection.IsConnectedToClient());
    Request(request);
    EXPECT_EQ(2, m_connection.GetConnectCalls());
    const std::string forwarded = "GET /a HTTP/1.1\r\nHost: server1\r\n\r\n";
    EXPECT_EQ(m_connection.GetToHost(), forwarded + forwarded + forwarded);
    // Kept again, and closed by its origin just as it is used: the request goes once more on a
    // new connection; that one closing too is the end.
    Response(answer);
    Request(request);
    EXPECT_TRUE(m_handler->HandleHostEnd());
    m_connection.RunPending();
    EXPECT_EQ(3, m_connection.GetConnectCalls());
    EXPECT_EQ(m_connection.GetToHost(), forwarded + forwarded + forwarded + forwarded + forwarded);
    EXPECT_FALSE(m_handler->HandleHostEnd());
    EXPECT_EQ(m_connection.GetToClient().find("HTTP/1.1 502 Bad Gateway\r\n"), 3 * answer.size());
    EXPECT_FALSE(m_connection.IsConnectedToClient());
}

TEST_F(HTTPProxyTest, AClientEndPassedToAKeptConnectionThatClosesIsPassedToItsReplacementToo)
{
    Start(60000);
    const std::string request = "GET http://server1/a HTTP/1.1\r\nHost: server1\r\n\r\n";
    Request(request);
    Response("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1");
    Request(request);
    EXPECT_TRUE(m_handler->HandleClientEnd());
    EXPECT_EQ(1, m_connection.GetHostOutputEnds());
    EXPECT_TRUE(m_handler->HandleHostEnd()); // closed by its origin just as it was used
    m_connection.RunPending();
    EXPECT_EQ(2, m_connection.GetConnectCalls());
    EXPECT_EQ(2, m_connection.GetHostOutputEnds()) << "the new connection waits for the end";
}

TEST_F(HTTPProxyTest, AKeptOriginConnectionNotTakenByTheNextRequestGoesToThePool)
{
    m_connection.GetOriginPool().Start(nullptr);
    Start(60000);
    Request("GET http://server1/a HTTP/1.1\r\nHost: server1\r\n\r\n");
    Response("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n1");
    EXPECT_EQ(m_connection.GetOriginPool().GetIdleCount(), 0u) << "parked for this client";
    Request("CONNECT server1:443 HTTP/1.1\r\nHost: server1:443\r\n\r\n");
    EXPECT_EQ(m_connection.GetOriginPool().GetIdleCount(), 1u);
    EXPECT_EQ(2, m_connection.GetConnectCalls());
    m_connection.GetOriginPool().Stop();
}

TEST_F(HTTPProxyTest, BodiesAreFramedAndWhatFollowsABodyIsTheNextRequest)
{
    Start(60000);
    const std::string smuggled = "GET http://server2/evil HTTP/1.1\r\nHost: server2\r\n\r\n";
    Request("POST http://server1/form HTTP/1.1\r\nHost: server1\r\nContent-Length: " +
            std::to_string(smuggled.size()) + "\r\n\r\n" + smuggled.substr(0, 10));
    const std::string next = "GET /next HTTP/1.1\r\nHost: server1\r\n\r\n";
    Request(smuggled.substr(10) + next);
    const std::string forwarded = "POST /form HTTP/1.1\r\nHost: server1\r\nContent-Length: " +
                                  std::to_string(smuggled.size()) + "\r\n\r\n" + smuggled;
    EXPECT_EQ(forwarded, m_connection.GetToHost());
    EXPECT_EQ(0, m_resolver.GetRequestCount("server2:80"));
    EXPECT_EQ(m_handler->GetRequestBacklog(), next.size()) << "the next request waits for the answer";
}

TEST_F(HTTPProxyTest, RequestsWhoseLengthOrRouteIsNotCertainAreRefusedBeforeAnyConnect)
{
    const std::string head = "POST http://server1/ HTTP/1.1\r\nHost: server1\r\n";
    for (const std::string& request : {head + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n",
                                       head + "Content-Length: 3\r\nContent-Length: 4\r\n\r\n",
                                       head + "Transfer-Encoding: chunked, gzip\r\n\r\n",
                                       head + "Content-Length: 3x\r\n\r\n", head + "Host: server2\r\n\r\n",
                                       head + " folded\r\n\r\n", head + "X Evil: 1\r\n\r\n",
                                       std::string("GET http://server1/a\rb HTTP/1.1\r\n\r\n"),
                                       std::string("GET http://ser ver1/ HTTP/1.1\r\n\r\n"),
                                       std::string("GET / HTTP/1.1\r\nHost: a\x01z\r\n\r\n")}) {
        SExchange x(60000);
        x.Request(request);
        const FakeProxyConnection& connection = x.connection;
        EXPECT_EQ(connection.GetToClient().rfind("HTTP/1.1 400 Bad Request\r\n", 0), 0u) << request;
        EXPECT_NE(connection.GetToClient().find("Connection: close\r\n"), std::string::npos) << request;
        EXPECT_FALSE(connection.IsConnectedToClient()) << request;
        EXPECT_EQ(0, connection.GetConnectCalls()) << request;
    }
}

TEST_F(HTTPProxyTest, TheTraditionalRepliesOfOneRequestConnections)
{
    struct SCase {
        std::string request;
        std::string reply;
        bool connectFails;
    };
    const SCase cases[] = {
        {"GET /index.html\r\n\r\n", BAD_400, false},
        {"GET / HTTP/1.1\r\n\r\n", NOT_FOUND_404, false},
        {"GET / HTTP/1.1\r\nHost: myself:8080\r\n\r\n", NOT_FOUND_404, false},
        {"GET / HTTP/1.1\r\nHost: MYSELF\r\n\r\n", NOT_FOUND_404, false},
        {"GET / HTTP/1.1\r\nHost: nowhere\r\n\r\n", NOT_FOUND_404, false},
        {"CONNECT server1:443 HTTP/1.1\r\n\r\n", NOT_FOUND_404, true},
    };
    m_resolver.SetResolveNumeric(false);
    for (const SCase& c : cases) {
        SExchange x(0);
        x.connection.GetMultiPointLayer().SetFail(c.connectFails);
        x.Request(c.request);
        EXPECT_EQ(c.reply, x.connection.GetToClient()) << c.request;
        EXPECT_FALSE(x.connection.IsConnectedToClient()) << c.request;
    }
    EXPECT_EQ(0, m_resolver.GetRequestCount("myself:8080")) << "this machine is never looked up";
}

TEST_F(HTTPProxyTest, PersistentRepliesSayWhatHappened)
{
    struct SCase {
        std::string request;
        const char* status;
        int connectFailure;
    };
    m_resolver.SetResolveNumeric(false);
    const SCase cases[] = {
        {"GET / HTTP/1.1\r\nHost: nowhere\r\n\r\n", "502 Bad Gateway", 0},
        {"GET / HTTP/1.1\r\nHost: myself\r\n\r\n", "403 Forbidden", 0},
        {"CONNECT server1:443 HTTP/1.1\r\n\r\n", "502 Bad Gateway", ECONNREFUSED},
        {"CONNECT server1:443 HTTP/1.1\r\n\r\n", "504 Gateway Timeout", ETIMEDOUT},
    };
    for (const SCase& c : cases) {
        SExchange x(60000);
        x.connection.GetMultiPointLayer().SetFail(c.connectFailure != 0);
        x.connection.SetConnectFailure(c.connectFailure);
        x.Request(c.request);
        const std::string reply = x.connection.GetToClient();
        EXPECT_EQ(reply.rfind(std::string("HTTP/1.1 ") + c.status + "\r\n", 0), 0u) << reply;
        const std::string body = reply.substr(reply.find("\r\n\r\n") + 4);
        EXPECT_NE(reply.find("Content-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos) << reply;
        EXPECT_FALSE(body.empty());
        EXPECT_FALSE(x.connection.IsConnectedToClient());
    }
}

TEST_F(HTTPProxyTest, AnswersThatCannotBeTrustedBecome502AndEndTheConnection)
{
    for (const std::string& answer : {std::string("HTTP/1.1 407 Proxy Authentication Required\r\n"
                                                  "Proxy-Authenticate: Basic realm=\"phish\"\r\n\r\n"),
                                      std::string("HTTP/1.1\r\n\r\n"),
                                      std::string("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\n"),
                                      std::string("HTTP/1.1 200 OK\r\nX: a\rb\r\n\r\n")}) {
        SExchange x(60000);
        x.Request(BROWSER_REQUEST);
        x.handler->HandleResponse(answer.data(), static_cast<int>(answer.size()));
        EXPECT_EQ(x.connection.GetToClient().rfind("HTTP/1.1 502 Bad Gateway\r\n", 0), 0u) << answer;
        EXPECT_EQ(x.connection.GetToClient().find("phish"), std::string::npos);
        EXPECT_FALSE(x.connection.IsConnectedToClient());
    }
}

TEST_F(HTTPProxyTest, InterimAnswersPassAndAChunkedOneLosesItsChunksForAnHttp10Client)
{
    Start(60000);
    Request("GET http://server1/ HTTP/1.0\r\nHost: server1\r\n\r\n");
    EXPECT_EQ("GET / HTTP/1.1\r\nHost: server1\r\n\r\n", m_connection.GetToHost());
    Response("HTTP/1.1 103 Early Hints\r\n\r\nHTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n");
    Response("2\r\nde\r\n0\r\nTrailer: 1\r\n\r\n");
    // An HTTP/1.0 client knows neither interim answers nor chunks: the data, then the close.
    EXPECT_EQ("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nabcde", m_connection.GetToClient());
    EXPECT_FALSE(m_connection.IsConnectedToClient());
}

TEST_F(HTTPProxyTest, ATunnelTakesTheBytesBehindItsRequestAndParsesNothing)
{
    for (const std::string method : {"CONNECT", "connect"}) {
        SExchange x(0);
        FakeProxyConnection& connection = x.connection;
        CConnectionProtocol_HTTP& handler = *x.handler;
        x.Request(method + " server1:443 HTTP/1.1\r\nHost: server1:443\r\n\r\nEARLY");
        EXPECT_EQ(OK_200, connection.GetToClient()) << method;
        EXPECT_EQ("EARLY", connection.GetToHost()) << method;
        handler.HandleRequest("GET / HTTP/1.1\r\n\r\n", 18);
        const std::string fromHost = "HTTP/1.1 200 OK\r\nSet-Cookie: a=1,b=2\r\n\r\ngarbage\n\n";
        handler.HandleResponse(fromHost.data(), static_cast<int>(fromHost.size()));
        EXPECT_EQ("EARLYGET / HTTP/1.1\r\n\r\n", connection.GetToHost());
        EXPECT_EQ(OK_200 + fromHost, connection.GetToClient());
        EXPECT_TRUE(connection.IsConnectedToClient());
    }
}

TEST_F(HTTPProxyTest, LookupIsAwaitedWhileLaterBytesAreHeldAndGoOnAsTheBody)
{
    Start();
    m_resolver.SetMode(FakeResolver::ANSWER_LATER);
    Request("POST http://server1/ HTTP/1.1\r\nHost: server1\r\nContent-Length: 11\r\n\r\nfirst");
    Request("second");
    EXPECT_EQ(0, m_connection.GetConnectCalls());
    EXPECT_EQ(11u, m_handler->GetRequestBacklog());
    EXPECT_LE(m_connection.GetTimerMs(), 30000);
    EXPECT_GT(m_connection.GetTimerMs(), 29000);
    ASSERT_TRUE(m_connection.RunWhenWoken());
    EXPECT_EQ("POST / HTTP/1.0\r\nHost: server1\r\nContent-Length: 11\r\n\r\nfirstsecond", m_connection.GetToHost());
    EXPECT_EQ(0u, m_handler->GetRequestBacklog());
}

TEST_F(HTTPProxyTest, ANameNotAnsweredInTimeIsRefusedAsTooSlowAndItsLookupCancelled)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    for (const int keepAliveMs : {0, 60000}) {
        SExchange x(keepAliveMs, [](Proxy::SProxySettings& s) { s.lookupLimitMs = 20; });
        FakeProxyConnection& connection = x.connection;
        CConnectionProtocol_HTTP& handler = *x.handler;
        const std::string request = "GET http://slow" + std::to_string(keepAliveMs) + "/ HTTP/1.1\r\n\r\n";
        handler.HandleRequest(request.data(), static_cast<int>(request.size()));
        EXPECT_EQ(CConnectionProtocol_HTTP::EState::Resolve, handler.GetState());
        EXPECT_GE(connection.GetTimerMs(), 0);
        EXPECT_LE(connection.GetTimerMs(), 20);
        connection.FireTimerWhenDue();
        const std::string reply = connection.GetToClient();
        if (keepAliveMs == 0)
            EXPECT_EQ(NOT_FOUND_404, reply);
        else
            EXPECT_EQ(0u, reply.rfind("HTTP/1.1 504 Gateway Timeout\r\n", 0)) << reply;
        EXPECT_FALSE(connection.IsConnectedToClient());
        EXPECT_EQ(EOutcome::NoDestination, connection.GetOutcome());
        EXPECT_EQ(1, m_resolver.GetCancelCount("slow" + std::to_string(keepAliveMs) + ":80"));
    }
}

TEST_F(HTTPProxyTest, CredentialsAreCheckedOnEachRequestAndNeverForwarded)
{
    m_connection.Settings().users = {{"alice", "s3:cret"}};
    Start(60000);
    const std::string good = "Proxy-Authorization: basic   " + CBase64::Encode("alice:s3:cret");
    Request(WithField(BROWSER_REQUEST, good));
    EXPECT_EQ("GET /index.html HTTP/1.1\r\nHost: server1\r\nUser-Agent: test\r\n\r\n", m_connection.GetToHost());
    EXPECT_EQ("alice", m_connection.GetUser());
    Response("HTTP/1.1 204 No Content\r\n\r\n");
    // The next request on the same connection must bring its own.
    Request("GET http://server2/ HTTP/1.1\r\nHost: server2\r\n\r\n");
    EXPECT_EQ(m_connection.GetToClient().find("HTTP/1.1 407 "), 27u) << m_connection.GetToClient();
    EXPECT_EQ(1, m_connection.GetConnectCalls());

    for (const std::string& field : {std::string(), "Proxy-Authorization: Basic " + CBase64::Encode("alice:wrong"),
                                     std::string("Proxy-Authorization: Basic !!not-base64!!"),
                                     "Proxy-Authorization: Bearer " + CBase64::Encode("alice:s3:cret")}) {
        SExchange x(0, [](Proxy::SProxySettings& s) { s.users = {{"alice", "s3:cret"}}; });
        x.Request(field.empty() ? BROWSER_REQUEST : WithField(BROWSER_REQUEST, field));
        EXPECT_EQ(AUTH_407, x.connection.GetToClient()) << field;
        EXPECT_EQ(0, x.connection.GetConnectCalls()) << field;
        EXPECT_EQ(EOutcome::AuthFailed, x.connection.GetOutcome()) << field;
    }
}

TEST(HTTPRouteTest, TheTargetDecidesAndAHostFieldOnlyForAPath)
{
    struct SCase {
        const char* target;
        const char* host; // null: no Host field
        const char* destination; // empty: none
        const char* originTarget;
    };
    const SCase cases[] = {
        {"http://server1:9000/a?b", "server1:8080", "server1:9000", "/a?b"},
        {"http://server1", "other", "server1:80", "/"},
        {"https://server1/x", nullptr, "server1:80", "/x"},
        {"/index.html", "[::1]:8080", "[::1]:8080", "/index.html"},
        {"/index.html", "[::1]", "[::1]:80", "/index.html"},
        {"server1:443", nullptr, "server1:443", "server1:443"},
        {"/index.html", nullptr, "", ""},
        {"/index.html", ":8080", "", ""},
    };
    for (const SCase& c : cases) {
        CHTTPRequest request;
        request.m_method = "GET";
        request.m_uri = c.target;
        if (c.host)
            request.AddHeader("Host", c.host);
        CHTTPRoute route;
        const std::string label = std::string(c.target) + " / " + (c.host ? c.host : "-");
        ASSERT_EQ(*c.destination != '\0', route.Find(request)) << label;
        if (*c.destination == '\0')
            continue;
        EXPECT_EQ(c.destination, route.GetDestination()) << label;
        EXPECT_EQ(c.originTarget, route.GetOriginTarget()) << label;
    }
}

TEST(HTTPBodyTest, RelaysWhatBelongsToTheBodyAndLetsTheRestAlone)
{
    std::string sent;
    const CHTTPBody::Send send = [&](const char* data, size_t length) { sent.append(data, length); };
    size_t taken = 0;
    CHTTPBody body;
    body.Begin(CHTTPFraming::EBody::Length, 5);
    EXPECT_EQ(body.GetRelayAllowance(), 5u);
    body.Relayed(2); // moved by the fast path
    ASSERT_TRUE(body.Relay("abcNEXT", 7, taken, send));
    EXPECT_EQ(taken, 3u);
    EXPECT_TRUE(body.IsDone());
    // Chunked: the framing goes on too, or for data only the data.
    for (const bool dataOnly : {false, true}) {
        sent.clear();
        body.Begin(CHTTPFraming::EBody::Chunked, 0, dataOnly);
        const std::string chunked = "4\r\nwxyz\r\n0\r\n\r\nNEXT";
        for (size_t i = 0; i < chunked.size() && !body.IsDone(); i += taken)
            ASSERT_TRUE(body.Relay(chunked.data() + i, 1, taken, send));
        EXPECT_EQ(sent, dataOnly ? "wxyz" : "4\r\nwxyz\r\n0\r\n\r\n");
    }
    body.Begin(CHTTPFraming::EBody::Chunked, 0);
    EXPECT_FALSE(body.Relay("zz\r\n", 4, taken, send));
    body.Begin(CHTTPFraming::EBody::UntilClose, 0);
    EXPECT_EQ(body.GetRelayAllowance(), ~0ull);
    EXPECT_FALSE(body.IsDone());
}

// What a client gets of an origin's bytes, read whole or in pieces, and the answer's state then
// and after the origin's close.
struct SAnswerCase {
    EHTTPRequestKind kind;
    bool clientHttp10;
    std::string fromOrigin, toClient;
    CHTTPAnswer::EState state, afterOriginEnd;
    bool endsClient, originInStep;
};

void ReadAnswer(const SAnswerCase& c, size_t piece)
{
    FakeProxyConnection connection;
    CHTTPAnswer answer(connection, true);
    answer.Begin("GET", c.kind, c.clientHttp10, true);
    answer.Expect();
    for (size_t i = 0; i < c.fromOrigin.size(); i += piece)
        answer.Read(c.fromOrigin.data() + i, std::min(piece, c.fromOrigin.size() - i), false);
    const std::string label = c.fromOrigin + " in pieces of " + std::to_string(piece);
    EXPECT_EQ(c.toClient, connection.GetToClient()) << label;
    EXPECT_EQ(c.state, answer.GetState()) << label;
    EXPECT_EQ(c.endsClient, answer.EndsClient()) << label;
    EXPECT_EQ(c.originInStep, answer.KeepsOriginInStep()) << label;
    answer.OnOriginEnd();
    EXPECT_EQ(c.afterOriginEnd, answer.GetState()) << label;
}

TEST(HTTPAnswerTest, ReadsAnOriginsAnswerAlikeWholeOrByteByByte)
{
    using EState = CHTTPAnswer::EState;
    const EHTTPRequestKind plain = EHTTPRequestKind::Ordinary;
    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nhi";
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string upgrade = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: ws\r\nConnection: Upgrade\r\n\r\n";
    const std::string continued = "HTTP/1.1 100 Continue\r\n\r\n";
    // A close ends only an answer that runs until it; else the answer is lost.
    const SAnswerCase cases[] = {
        {plain, false, continued + ok, continued + ok, EState::Done, EState::Done, false, true},
        {plain, false, ok + "X", ok, EState::Done, EState::Done, false, false},
        {plain, true, continued + chunked + "2\r\nhi\r\n0\r\n\r\n", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhi",
         EState::Done, EState::Done, true, true},
        {plain, false, "HTTP/1.1 200 OK\r\n\r\nall", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nall", EState::Body,
         EState::Done, true, false},
        {EHTTPRequestKind::Upgrade, false, upgrade + "ws",
         "HTTP/1.1 101 Switching Protocols\r\nUpgrade: ws\r\nConnection: upgrade\r\n\r\nws", EState::Upgraded, EState::Lost,
         false, true},
        {plain, false, upgrade + "ws", "", EState::Faulted, EState::Faulted, false, false},
        {plain, false, chunked + "zz\r\n", chunked, EState::Faulted, EState::Faulted, false, false},
        {plain, false, "HTTP/1.1 200 OK\r\nContent-Le", "", EState::Head, EState::Lost, false, true},
    };
    for (const SAnswerCase& c : cases) {
        ReadAnswer(c, c.fromOrigin.size());
        ReadAnswer(c, 1);
    }
}

TEST(OriginPoolTest, KeepsIdleConnectionsPerDestinationWithinItsBoundsAndDropsClosedOnes)
{
    COriginPool pool;
    pool.Start(nullptr);
    const auto idle = std::chrono::milliseconds(60000);
    std::vector<QOX::CRefCountPtr<FakeDataLayer>> links;
    for (size_t i = 0; i < COriginPool::MAX_PER_DESTINATION + 2; ++i) {
        links.emplace_back(new FakeDataLayer());
        ASSERT_TRUE(pool.Give("a:80", QOX::CRefCountPtr<IZRTDataLayer>(links.back().Get()), idle));
    }
    EXPECT_EQ(pool.GetIdleCount(), COriginPool::MAX_PER_DESTINATION);
    EXPECT_EQ(links[0]->GetDisconnects(), 1) << "the least recently used made way";
    // The most recent first; another destination gets nothing.
    EXPECT_EQ(pool.Take("a:80").Get(), links.back().Get());
    EXPECT_FALSE(pool.Take("b:80"));
    // An origin that closes, or speaks unasked, while it waits is let go at once.
    links[5]->CloseFromRemote();
    links[6]->PushFromRemote("unasked");
    EXPECT_EQ(pool.GetIdleCount(), COriginPool::MAX_PER_DESTINATION - 3);
    EXPECT_EQ(links[6]->GetDisconnects(), 1);
    // Its idle time over, a connection is not handed out.
    QOX::CRefCountPtr<FakeDataLayer> brief(new FakeDataLayer());
    ASSERT_TRUE(pool.Give("c:80", QOX::CRefCountPtr<IZRTDataLayer>(brief.Get()), std::chrono::milliseconds(1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(pool.Take("c:80"));
    pool.Stop();
    EXPECT_EQ(pool.GetIdleCount(), 0u);
    EXPECT_FALSE(pool.Give("a:80", QOX::CRefCountPtr<IZRTDataLayer>(new FakeDataLayer()), idle)) << "stopped";
}

TEST_F(HTTPProxyTest, SetCookieValuesAreSplit)
{
    struct SCase {
        std::string value;
        std::vector<std::string> pieces;
    };
    const SCase cases[] = {
        {"a=1; Path=/,b=2", {"a=1; Path=/", "b=2"}},
        {"a=1; Expires=Wed, 09 Jun 2010 10:18:14 GMT,b=2", {"a=1; Expires=Wed, 09 Jun 2010 10:18:14 GMT", "b=2"}},
        {"a=1, b=2", {"a=1, b=2"}},
        {"a=1,,b=2", {"a=1", "b=2"}},
        {"a=1,", {"a=1,"}},
        {",a=1", {"a=1"}},
        {"", {}},
    };
    for (const SCase& c : cases) {
        QOX::CRefCountPtr<CHTTPPacket> response(new CProxyHTTPResponse());
        response->AddHeader("SET-COOKIE", c.value);
        CHTTPPacket::HeaderList expected;
        for (const std::string& piece : c.pieces)
            expected.emplace_back("SET-COOKIE", piece);
        EXPECT_EQ(expected, response->GetHeaders()) << c.value;
    }
}

TEST(Base64Test, DecodesWhatEncodeMakesAndRefusesWhatIsNotBase64)
{
    for (const std::string& text : std::vector<std::string>{"", "a", "ab", "abc", "abcd", "user:pa:ss", std::string("\0\xff\x10", 3)}) {
        std::string decoded;
        ASSERT_TRUE(CBase64::Decode(CBase64::Encode(text), decoded)) << text;
        EXPECT_EQ(text, decoded);
    }
    EXPECT_EQ("YWxhZGRpbjpvcGVuc2VzYW1l", CBase64::Encode("aladdin:opensesame"));
    for (const char* bad : {"YWJj=", "YW=j", "Y===", "YWJ$", "YWJjZA", "=AAA"}) {
        std::string decoded = "unchanged";
        EXPECT_FALSE(CBase64::Decode(bad, decoded)) << bad;
        EXPECT_EQ("unchanged", decoded);
    }
}

TEST(CredentialsTest, MatchesOnlyTheWholeNameWithItsOwnPassword)
{
    const CCredentials::Users users = {{"alice", "one"}, {"bob", "two"}};
    EXPECT_TRUE(CCredentials::Check(users, "alice", "one"));
    EXPECT_TRUE(CCredentials::Check(users, "bob", "two"));
    EXPECT_FALSE(CCredentials::Check(users, "alice", "two"));
    EXPECT_FALSE(CCredentials::Check(users, "alic", "one"));
    EXPECT_FALSE(CCredentials::Check(users, "alice", "one "));
    EXPECT_FALSE(CCredentials::Check(users, "alice", "on"));
    EXPECT_FALSE(CCredentials::Check(users, "alice", ""));
    EXPECT_FALSE(CCredentials::Check({}, "", ""));
    EXPECT_TRUE(CCredentials::Equal("", ""));
    EXPECT_FALSE(CCredentials::Equal("a", std::string("a\0", 2)));
}

} // namespace
} // namespace Proxy
} // namespace ZRT
