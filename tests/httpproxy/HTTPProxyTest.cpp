#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/auth/CCredentials.h"
#include "proxy/http/CBase64.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

namespace ZRT {
namespace Proxy {
namespace {

using Testing::FakeProxyConnection;
using Testing::FakeResolver;

// Written out here so a change to the handler's texts shows up; 39, 60 and 58 bytes.
const std::string OK_200 = "HTTP/1.0 200 Connection established\r\n\r\n";
const std::string BAD_400 = "HTTP/1.0 400 Bad Request\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
const std::string NOT_FOUND_404 = "HTTP/1.0 404 Not Found\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";

const std::string BROWSER_REQUEST = "GET http://server1/index.html HTTP/1.1\r\nHost: server1\r\n"
                                    "Proxy-Connection: keep-alive\r\nUser-Agent: test\r\n\r\n";
const std::string FORWARDED = "GET /index.html HTTP/1.0\r\nHost: server1\r\nUser-Agent: test\r\n\r\n";

// Counts DisconnectClient calls, including those after the first that change nothing.
class CCountingConnection : public FakeProxyConnection {
public:
    void DisconnectClient() override
    {
        ++m_disconnectCalls;
        FakeProxyConnection::DisconnectClient();
    }
    int m_disconnectCalls = 0;
};

// Opens ExtractAddress to the tests.
class CTestableHandler : public CConnectionProtocol_HTTP {
public:
    using CConnectionProtocol_HTTP::CConnectionProtocol_HTTP;
    using CConnectionProtocol_HTTP::ExtractAddress;
};

// Hands a chunk in as the connection would, then runs what it would run next.
void Feed(FakeProxyConnection& connection, CConnectionProtocol_HTTP& handler, const std::string& bytes)
{
    handler.HandleRequest(bytes.data(), static_cast<int>(bytes.size()));
    connection.RunPending();
}

class HTTPProxyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* key : {"server1:80", "server1:443", "server1:8080", "server1:9000"})
            m_resolver.Script(key, "127.0.0.1");
        ASSERT_TRUE(CAddressManager::GetInstance()->Init(&m_resolver));
        CAddressManager::GetInstance()->SetLocalAddressesForTesting({"myself"});
        m_connection.SetProtocol(&m_handler);
        m_handler.Init();
    }

    void TearDown() override { CAddressManager::GetInstance()->Terminate(); }

    void Request(const std::string& bytes) { Feed(m_connection, m_handler, bytes); }

    FakeResolver m_resolver;
    FakeProxyConnection m_connection;
    CTestableHandler m_handler{m_connection};
};

TEST_F(HTTPProxyTest, ForwardsRewrittenRequestInOneSend)
{
    Request(BROWSER_REQUEST);
    EXPECT_EQ(FORWARDED, m_connection.GetToHost());
    EXPECT_EQ(1, m_connection.GetSendToHostCalls());
    EXPECT_EQ(1, m_resolver.GetRequestCount("server1:80"));
    EXPECT_EQ((std::vector<std::string>{"127.0.0.1:80"}), m_connection.GetMultiPointLayer().GetDestinations());
    EXPECT_EQ("", m_connection.GetToClient());
    EXPECT_TRUE(m_connection.IsConnectedToClient());
}

TEST_F(HTTPProxyTest, ByteByByteRequestIsSentOnlyWhenComplete)
{
    for (size_t i = 0; i + 1 < BROWSER_REQUEST.size(); ++i) {
        Request(BROWSER_REQUEST.substr(i, 1));
        ASSERT_EQ(0, m_connection.GetConnectCalls()) << "byte " << i;
    }
    Request("\n");
    EXPECT_EQ(FORWARDED, m_connection.GetToHost());
    EXPECT_EQ(1, m_connection.GetSendToHostCalls());
}

TEST_F(HTTPProxyTest, RequestRewrites)
{
    const std::pair<std::string, std::string> cases[] = {
        // Hop-by-hop headers go, in any letter case; the others keep their order.
        {"GET / HTTP/1.1\r\nA: 1\r\nProxy-Connection: keep-alive\r\nHost: server1\r\nCONNECTION: close\r\n"
         "keep-alive: 300\r\nB: 2\r\nConnection-Extra: x\r\n\r\n",
         "GET / HTTP/1.0\r\nA: 1\r\nHost: server1\r\nB: 2\r\nConnection-Extra: x\r\n\r\n"},
        // Without a Host header, or without a path, the target stays.
        {"GET http://server1/index.html HTTP/1.1\r\nUser-Agent: test\r\n\r\n",
         "GET http://server1/index.html HTTP/1.0\r\nUser-Agent: test\r\n\r\n"},
        {"GET http://server1 HTTP/1.1\r\nHost: server1\r\n\r\n",
         "GET http://server1 HTTP/1.0\r\nHost: server1\r\n\r\n"},
        {"HEAD http://server1:8080/a/b?c HTTP/1.1\r\nHost: server1:8080\r\n\r\n",
         "HEAD /a/b?c HTTP/1.0\r\nHost: server1:8080\r\n\r\n"},
    };
    for (const auto& c : cases) {
        FakeProxyConnection connection;
        CConnectionProtocol_HTTP handler(connection);
        connection.SetProtocol(&handler);
        Feed(connection, handler, c.first);
        EXPECT_EQ(c.second, connection.GetToHost());
        EXPECT_EQ(1, connection.GetSendToHostCalls());
    }
}

TEST_F(HTTPProxyTest, AddressFromHostHeaderAndTarget)
{
    struct SCase {
        const char* uri;
        const char* host; // null: no Host header
        const char* address; // empty: none
    };
    const SCase cases[] = {
        {"http://server1:9000/", "server1:8080", "server1:8080"},
        {"http://server1:9000/", "server1", "server1:9000"},
        {"http://server1:9000/", "", "server1:9000"},
        {"https://server1/x", nullptr, "server1:80"},
        {"/index.html", "[::1]:8080", "[::1]:8080"},
        {"/index.html", "[::1]", "[::1]:80"},
        {"/index.html", "http://h2:7/p", "h2:7"},
        {"/index.html", nullptr, ""},
        {"/index.html", ":8080", ""},
    };
    for (const SCase& c : cases) {
        QOX::CRefCountPtr<CHTTPRequest> request(new CHTTPRequest());
        request->m_method = "GET";
        request->m_uri = c.uri;
        if (c.host)
            request->AddHeader("Host", c.host);
        std::string address = "stale";
        const std::string label = std::string(c.uri) + " / " + (c.host ? c.host : "-");
        EXPECT_EQ(*c.address != '\0', m_handler.ExtractAddress(request, address)) << label;
        EXPECT_EQ(c.address, address) << label;
    }
    std::string address = "stale";
    EXPECT_FALSE(m_handler.ExtractAddress(QOX::CRefCountPtr<CHTTPRequest>(), address));
    EXPECT_EQ("", address);
}

TEST_F(HTTPProxyTest, Refusals)
{
    struct SCase {
        std::string request;
        std::string reply;
        bool connectFails;
    };
    const SCase cases[] = {
        {"GET /index.html\r\n", BAD_400, false},
        {"GET / HTTP/1.1\r\nbroken\r\n\r\n", BAD_400, false},
        {"GET / HTTP/1.1\r\n\r\n", NOT_FOUND_404, false},
        {"GET / HTTP/1.1\r\nHost: myself:8080\r\n\r\n", NOT_FOUND_404, false},
        {"GET / HTTP/1.1\r\nHost: nowhere\r\n\r\n", NOT_FOUND_404, false},
        {"CONNECT server1:443 HTTP/1.1\r\n\r\n", NOT_FOUND_404, true},
    };
    m_resolver.SetResolveNumeric(false);
    for (const SCase& c : cases) {
        FakeProxyConnection connection;
        CConnectionProtocol_HTTP handler(connection);
        connection.SetProtocol(&handler);
        connection.GetMultiPointLayer().SetFail(c.connectFails);
        Feed(connection, handler, c.request);
        EXPECT_EQ(c.reply, connection.GetToClient()) << c.request;
        EXPECT_FALSE(connection.IsConnectedToClient()) << c.request;
        EXPECT_EQ(1, connection.GetTerminateCalls());
        EXPECT_EQ(c.connectFails ? 1 : 0, connection.GetMultiPointLayer().GetConnectCount()) << c.request;
    }
    EXPECT_EQ(0, m_resolver.GetRequestCount("myself:8080")) << "a local host is never resolved";
    EXPECT_EQ(1, m_resolver.GetRequestCount("nowhere:80"));
}

TEST_F(HTTPProxyTest, DestinationThatIsTheProxyItselfIsRefusedInEveryForm)
{
    CAddressManager* manager = CAddressManager::GetInstance();
    manager->SetProxyPort(3128);
    manager->SetOwnAddressesForTesting({"192.0.2.7"});
    m_resolver.Script("proxy.example:3128", "192.0.2.7");
    // What a system resolver makes of these forms (the fake parses only the plain ones).
    for (const char* form : {"LocalHost:3128", "127.1:3128", "2130706433:3128", "0x7f000001:3128"})
        m_resolver.Script(form, "127.0.0.1");
    for (const std::string host : {"LocalHost:3128", "127.1:3128", "0.0.0.0:3128", "2130706433:3128",
                                   "0x7f000001:3128", "[::1]:3128", "[::ffff:127.0.0.1]:3128", "proxy.example:3128"}) {
        FakeProxyConnection connection;
        CConnectionProtocol_HTTP handler(connection);
        connection.SetProtocol(&handler);
        Feed(connection, handler, "GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n");
        EXPECT_EQ(NOT_FOUND_404, connection.GetToClient()) << host;
        EXPECT_EQ(0, connection.GetMultiPointLayer().GetConnectCount()) << host;
    }
    FakeProxyConnection connection;
    CConnectionProtocol_HTTP handler(connection);
    connection.SetProtocol(&handler);
    Feed(connection, handler, "CONNECT 127.0.0.3:3129 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(OK_200, connection.GetToClient()) << "another port of this machine is served";
    manager->SetProxyPort(0);
}

TEST_F(HTTPProxyTest, LookupIsAwaitedWhileLaterBytesAreHeldAndFollowTheRequest)
{
    m_resolver.SetMode(FakeResolver::ANSWER_LATER);
    Request("POST http://server1/ HTTP/1.1\r\nHost: server1\r\n\r\nfirst");
    Request("second");
    EXPECT_EQ(0, m_connection.GetConnectCalls());
    EXPECT_EQ(6u, m_handler.GetRequestBacklog());
    EXPECT_EQ(30000, m_connection.GetTimerMs());
    ASSERT_TRUE(m_connection.RunWhenWoken());
    EXPECT_EQ("POST / HTTP/1.0\r\nHost: server1\r\n\r\nfirstsecond", m_connection.GetToHost());
    EXPECT_EQ(0u, m_handler.GetRequestBacklog());
    EXPECT_EQ(-1, m_connection.GetTimerMs());
}

TEST_F(HTTPProxyTest, NameNotAnsweredInTimeIsNotFound)
{
    m_resolver.SetMode(FakeResolver::NEVER_ANSWER);
    Request("GET / HTTP/1.1\r\nHost: slow.example\r\n\r\n");
    m_connection.FireTimer();
    EXPECT_EQ(NOT_FOUND_404, m_connection.GetToClient());
    EXPECT_EQ(1, m_resolver.GetCancelCount("slow.example:80"));
}

TEST_F(HTTPProxyTest, EndsArePassedOnOnceTheRequestWentOut)
{
    EXPECT_FALSE(m_handler.HandleClientEnd());
    Request(BROWSER_REQUEST);
    EXPECT_TRUE(m_handler.HandleClientEnd());
    EXPECT_EQ(1, m_connection.GetHostOutputEnds());
    // The response has not been seen whole: its end is not passed on as a complete one.
    m_handler.HandleResponse("HTTP/1.1 200 OK\r\n", 17);
    EXPECT_FALSE(m_handler.HandleHostEnd());
    m_handler.HandleResponse("\r\n", 2);
    EXPECT_TRUE(m_handler.HandleHostEnd());
}

TEST_F(HTTPProxyTest, ErrorWhenClientIsGoneSendsNothing)
{
    CCountingConnection connection;
    CConnectionProtocol_HTTP handler(connection);
    connection.DisconnectClient();
    Feed(connection, handler, "GET /index.html\r\nX: y\r\n");
    EXPECT_EQ("", connection.GetToClient());
    EXPECT_EQ(1, connection.m_disconnectCalls) << "only the test's own call";
}

TEST_F(HTTPProxyTest, ConnectOpensTunnelInEitherCase)
{
    for (const std::string method : {"CONNECT", "connect"}) {
        FakeProxyConnection connection;
        CConnectionProtocol_HTTP handler(connection);
        connection.SetProtocol(&handler);
        // Bytes behind the blank line in the same chunk are not relayed; later ones are.
        const std::string request = method + " server1:443 HTTP/1.1\r\nHost: server1:443\r\n\r\nEARLY";
        Feed(connection, handler, request);
        EXPECT_EQ(OK_200, connection.GetToClient()) << method;
        EXPECT_EQ("", connection.GetToHost()) << method;
        EXPECT_EQ((std::vector<std::string>{"127.0.0.1:443"}), connection.GetMultiPointLayer().GetDestinations());

        handler.HandleRequest("GET / HTTP/1.1\r\n\r\n", 18);
        EXPECT_EQ("GET / HTTP/1.1\r\n\r\n", connection.GetToHost());
        // Nothing is parsed in a tunnel, in either direction.
        const std::string fromHost = "HTTP/1.1 200 OK\r\nSet-Cookie: a=1,b=2\r\n\r\n";
        handler.HandleResponse(fromHost.data(), static_cast<int>(fromHost.size()));
        handler.HandleResponse("garbage\n\n", 9);
        EXPECT_EQ(OK_200 + fromHost + "garbage\n\n", connection.GetToClient());
        EXPECT_TRUE(connection.IsConnectedToClient());
    }
    EXPECT_EQ(1, m_resolver.GetRequestCount("server1:443")) << "the second answer comes from the cache";
}

TEST_F(HTTPProxyTest, PostBodyTravelsWithTheHeaderBlock)
{
    const std::string header =
        "POST http://server1:8080/form HTTP/1.1\r\nHost: server1:8080\r\nContent-Length: 150\r\n\r\n";
    const std::string forwarded = "POST /form HTTP/1.0\r\nHost: server1:8080\r\nContent-Length: 150\r\n\r\n";
    const std::string first(100, 'a');
    const std::string rest(50, 'b');
    Request(header + first);
    EXPECT_EQ(1, m_connection.GetSendToHostCalls());
    EXPECT_EQ(forwarded + first, m_connection.GetToHost());
    Request(rest);
    EXPECT_EQ(2, m_connection.GetSendToHostCalls());
    EXPECT_EQ(forwarded + first + rest, m_connection.GetToHost());
}

TEST_F(HTTPProxyTest, SecondRequestPassesRaw)
{
    Request(BROWSER_REQUEST);
    const std::string second = "GET http://elsewhere/x HTTP/1.1\r\nHost: elsewhere\r\nConnection: keep-alive\r\n\r\n";
    Request(second);
    EXPECT_EQ(FORWARDED + second, m_connection.GetToHost());
    EXPECT_EQ(1, m_connection.GetMultiPointLayer().GetConnectCount());
    EXPECT_EQ(0, m_resolver.GetRequestCount("elsewhere:80"));

    // Once the host link is gone, client bytes are dropped.
    m_connection.SetHostClosed();
    Request("more");
    EXPECT_EQ(FORWARDED + second, m_connection.GetToHost());
}

// Every case starts with a request forwarded to the host, so the next host bytes are its response.
// ---- Basic authentication (when the proxy has users) ----

const std::string AUTH_407 = "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic "
                             "realm=\"zrt-proxy\"\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

std::string WithAuthorization(const std::string& request, const std::string& value)
{
    const size_t end = request.find("\r\n") + 2;
    return request.substr(0, end) + "Proxy-Authorization: " + value + "\r\n" + request.substr(end);
}

class HTTPProxyAuthTest : public HTTPProxyTest {
protected:
    void SetUp() override
    {
        m_connection.Settings().users = {{"alice", "s3:cret"}};
        HTTPProxyTest::SetUp();
    }
};

TEST_F(HTTPProxyAuthTest, RightCredentialsAreUsedAndNeverForwarded)
{
    // alice:s3:cret (the password may hold a colon: only the first one splits).
    Request(WithAuthorization(BROWSER_REQUEST, "Basic " + CBase64::Encode("alice:s3:cret")));
    EXPECT_EQ(FORWARDED, m_connection.GetToHost());
    EXPECT_EQ("alice", m_connection.GetUser());
    EXPECT_FALSE(m_connection.GetOutcome().has_value());
    EXPECT_TRUE(m_connection.IsRequestComplete());
}

TEST_F(HTTPProxyAuthTest, SchemeIsCaseInsensitiveAndConnectTunnelsToo)
{
    Request(WithAuthorization("CONNECT server1:443 HTTP/1.1\r\nHost: server1:443\r\n\r\n",
                              "basic   " + CBase64::Encode("alice:s3:cret")));
    EXPECT_EQ(OK_200, m_connection.GetToClient());
}

TEST_F(HTTPProxyAuthTest, MissingOrWrongCredentialsGet407AndTheConnectionCloses)
{
    const struct {
        std::string request;
        std::string user;
    } cases[] = {
        {BROWSER_REQUEST, "-"},
        {WithAuthorization(BROWSER_REQUEST, "Basic " + CBase64::Encode("alice:wrong")), "alice"},
        {WithAuthorization(BROWSER_REQUEST, "Basic " + CBase64::Encode("mallory:s3:cret")), "mallory"},
        {WithAuthorization(BROWSER_REQUEST, "Basic " + CBase64::Encode("alices3:cret")), "alices3"},
        {WithAuthorization(BROWSER_REQUEST, "Basic !!not-base64!!"), "-"},
        {WithAuthorization(BROWSER_REQUEST, "Bearer " + CBase64::Encode("alice:s3:cret")), "-"},
        {WithAuthorization("CONNECT server1:443 HTTP/1.1\r\nHost: server1:443\r\n\r\n", "Basic"), "-"},
    };
    for (const auto& c : cases) {
        FakeProxyConnection connection;
        connection.Settings().users = {{"alice", "s3:cret"}};
        CConnectionProtocol_HTTP handler(connection);
        connection.SetProtocol(&handler);
        Feed(connection, handler, c.request);
        EXPECT_EQ(AUTH_407, connection.GetToClient()) << c.request;
        EXPECT_FALSE(connection.IsConnectedToClient()) << c.request;
        EXPECT_EQ(0, connection.GetMultiPointLayer().GetConnectCount()) << c.request;
        EXPECT_EQ(EOutcome::AuthFailed, connection.GetOutcome()) << c.request;
        EXPECT_EQ(c.user, connection.GetUser()) << c.request;
    }
}

TEST_F(HTTPProxyTest, ProxyAuthorizationIsNeverForwardedEvenWithoutUsers)
{
    Request(WithAuthorization(BROWSER_REQUEST, "Basic " + CBase64::Encode("someone:secret")));
    EXPECT_EQ(FORWARDED, m_connection.GetToHost());
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
    EXPECT_FALSE(CCredentials::Check(users, "alice", ""));
    EXPECT_FALSE(CCredentials::Check({}, "", ""));
    EXPECT_TRUE(CCredentials::Equal("", ""));
    EXPECT_FALSE(CCredentials::Equal("a", std::string("a\0", 2)));
}

class HTTPProxyResponseTest : public HTTPProxyTest {
protected:
    void SetUp() override
    {
        HTTPProxyTest::SetUp();
        Request("GET / HTTP/1.1\r\nHost: server1\r\n\r\n");
        ASSERT_TRUE(m_connection.IsConnectedToHost());
    }

    void Response(const std::string& bytes) { m_handler.HandleResponse(bytes.data(), static_cast<int>(bytes.size())); }
};

TEST_F(HTTPProxyResponseTest, FirstResponseIsRewrittenLaterOnesPass)
{
    Response("HTTP/1.1 200 OK\r\nSet-Cookie: a=1; Path=/,b=2\r\nConnection: keep-alive\r\nContent-Length: 2\r\n\r\nhi");
    EXPECT_EQ(1, m_connection.GetSendToClientCalls());
    const std::string first = "HTTP/1.0 200 OK\r\nSet-Cookie: a=1; Path=/\r\nSet-Cookie: b=2\r\n"
                              "Connection: keep-alive\r\n"
                              "Content-Length: 2\r\n\r\nhi";
    EXPECT_EQ(first, m_connection.GetToClient());

    const std::string second = "HTTP/1.1 404 Not Found\r\nSet-Cookie: c=3,d=4\r\n\r\n";
    Response(second);
    EXPECT_EQ(first + second, m_connection.GetToClient());
    EXPECT_TRUE(m_connection.IsConnectedToClient());
}

TEST_F(HTTPProxyResponseTest, SplitHeaderBlockLeavesInOneSendWithItsBody)
{
    Response("HTTP/1.1 204");
    Response("\r\nServer: x\r");
    Response("\nProxy-Connection: keep-alive\r");
    EXPECT_EQ(0, m_connection.GetSendToClientCalls());
    Response("\n\r\nbody");
    EXPECT_EQ(1, m_connection.GetSendToClientCalls());
    // Responses lose no header, hop-by-hop ones included.
    EXPECT_EQ("HTTP/1.0 204 \r\nServer: x\r\nProxy-Connection: keep-alive\r\n\r\nbody", m_connection.GetToClient());
}

TEST_F(HTTPProxyResponseTest, SetCookieValuesAreSplit)
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
        QOX::CRefCountPtr<CHTTPPacket> response(new CConnectionProtocol_HTTP::CProxyHTTPResponse());
        response->AddHeader("SET-COOKIE", c.value);
        CHTTPPacket::HeaderList expected;
        for (const std::string& piece : c.pieces)
            expected.emplace_back("SET-COOKIE", piece);
        EXPECT_EQ(expected, response->GetHeaders()) << c.value;
    }
    // An empty Set-Cookie line is missing from what the client receives.
    Response("HTTP/1.1 200 OK\r\nSet-Cookie:\r\nX: y\r\n\r\n");
    EXPECT_EQ("HTTP/1.0 200 OK\r\nX: y\r\n\r\n", m_connection.GetToClient());
}

TEST_F(HTTPProxyResponseTest, MalformedStatusLineIsBadRequest)
{
    Response("HTTP/1.1\r\n\r\n");
    EXPECT_EQ(BAD_400, m_connection.GetToClient());
    EXPECT_FALSE(m_connection.IsConnectedToClient());
    // The client is gone: further host bytes are dropped unparsed.
    Response("HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(1, m_connection.GetSendToClientCalls());
}

} // namespace
} // namespace Proxy
} // namespace ZRT
