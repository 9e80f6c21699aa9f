#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/FakeProxyConnection.h"
#include "fakes/FakeResolver.h"
#include "proxy/address/CAddressManager.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

namespace ZRT {
namespace Proxy {
namespace {

using Testing::FakeProxyConnection;
using Testing::FakeResolver;

// Every case starts with a request forwarded to the host, so the next host bytes are its response.
class HTTPProxyResponseTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_resolver.Script("server1:80", "127.0.0.1");
        ASSERT_TRUE(CAddressManager::GetInstance()->Init(&m_resolver));
        CAddressManager::GetInstance()->SetLocalAddressesForTesting({});
        m_connection.SetProtocol(&m_handler);
        const std::string request = "GET / HTTP/1.1\r\nHost: server1\r\n\r\n";
        m_handler.HandleRequest(request.data(), static_cast<int>(request.size()));
        ASSERT_TRUE(m_connection.IsConnectedToHost());
    }

    void TearDown() override { CAddressManager::GetInstance()->Terminate(); }

    void Response(const std::string& bytes) { m_handler.HandleResponse(bytes.data(), static_cast<int>(bytes.size())); }

    FakeResolver m_resolver;
    FakeProxyConnection m_connection;
    CConnectionProtocol_HTTP m_handler{m_connection};
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
    EXPECT_EQ("HTTP/1.0 400 Bad Request\r\nKeep-Alive: timeout=5, max=100\r\n\r\n", m_connection.GetToClient());
    EXPECT_FALSE(m_connection.IsConnectedToClient());
    // The client is gone: further host bytes are dropped unparsed.
    Response("HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(1, m_connection.GetSendToClientCalls());
}

} // namespace
} // namespace Proxy
} // namespace ZRT
