#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPResponse.h"
#include "runtime/CRefCountPtr.h"

namespace ZRT {
namespace Proxy {
namespace {

using Headers = CHTTPPacket::HeaderList;

std::string Serialise(const CHTTPPacket& packet, unsigned int size)
{
    std::vector<unsigned char> buffer(size + 1, '#');
    const unsigned int written = packet.FillSendBuffer(buffer.data(), size);
    EXPECT_EQ('#', buffer[size]) << "wrote past the given size";
    return std::string(buffer.begin(), buffer.begin() + written);
}

std::string Serialise(const CHTTPPacket& packet)
{
    return Serialise(packet, packet.CalcSendBufferSize());
}

TEST(HTTPMessage, HeaderLinesSplitAtFirstSpaceOrColon)
{
    const std::vector<std::vector<std::string>> cases = {
        {"Host: server1", "Host", "server1"},  {"Host : server1", "Host", "server1"},
        {"Host:server1", "Host", "server1"},   {"Accept:", "Accept", ""},
        {"X-Time: 12:30", "X-Time", "12:30"},  {"Content Type: x", "Content", "Type: x"},
        {" continued text", "", "continued text"}, {"Trail: a  ", "Trail", "a  "},
    };
    for (const auto& c : cases) {
        QOX::CRefCountPtr<CHTTPPacket> packet(new CHTTPPacket());
        ASSERT_TRUE(packet->AddLine(c[0])) << c[0];
        ASSERT_EQ(1u, packet->GetHeaders().size());
        EXPECT_EQ(c[1], packet->GetHeaders().front().first) << c[0];
        EXPECT_EQ(c[2], packet->GetHeaders().front().second) << c[0];
    }
    QOX::CRefCountPtr<CHTTPPacket> packet(new CHTTPPacket());
    EXPECT_FALSE(packet->AddLine("garbage"));
    EXPECT_TRUE(packet->GetHeaders().empty());
}

TEST(HTTPMessage, RequestLineNeedsExactlyThreeTokens)
{
    for (const std::string line : {"GET /index.html HTTP/1.1", "  GET   /index.html  HTTP/1.1   "}) {
        CHTTPRequest request;
        ASSERT_TRUE(request.AddLine(line)) << line;
        EXPECT_EQ("GET", request.m_method);
        EXPECT_EQ("/index.html", request.m_uri);
        EXPECT_EQ("HTTP/1.1", request.m_version);
    }
    for (const std::string line : {"GET /index.html", "GET /a b HTTP/1.1", "", "   "}) {
        CHTTPRequest request;
        EXPECT_FALSE(request.AddLine(line)) << line;
    }
    // A tab is an ordinary byte.
    CHTTPRequest request;
    ASSERT_TRUE(request.AddLine("GET\t/ x HTTP/1.0"));
    EXPECT_EQ("GET\t/", request.m_method);
}

TEST(HTTPMessage, StatusLineKeepsReasonSpaces)
{
    CHTTPResponse notFound;
    ASSERT_TRUE(notFound.AddLine("HTTP/1.1 404 Not  Found "));
    EXPECT_EQ("HTTP/1.1", notFound.m_version);
    EXPECT_EQ("404", notFound.m_statusCode);
    EXPECT_EQ("Not  Found ", notFound.m_reason);

    CHTTPResponse noReason;
    ASSERT_TRUE(noReason.AddLine("HTTP/1.1 204   "));
    EXPECT_EQ("", noReason.m_reason);
    CHTTPResponse versionOnly;
    EXPECT_FALSE(versionOnly.AddLine("HTTP/1.1"));
    // The version was taken, so the next line counts as a header line.
    EXPECT_TRUE(versionOnly.AddLine("X: y"));
    EXPECT_EQ(1u, versionOnly.GetHeaders().size());
}

TEST(HTTPMessage, ContentLengthAndLookupsIgnoreCase)
{
    QOX::CRefCountPtr<CHTTPPacket> packet(new CHTTPPacket());
    packet->AddLine("Content-Length: 10");
    packet->AddLine("content-length: 20");
    EXPECT_EQ(2u, packet->GetHeaders().size());
    EXPECT_EQ(20, packet->GetContentLen());
    std::string value = "untouched";
    ASSERT_TRUE(packet->GetHeader("CONTENT-LENGTH", value));
    EXPECT_EQ("10", value);
    EXPECT_FALSE(packet->GetHeader("Host", value));
    EXPECT_EQ("10", value);

    packet->AddHeader("Content-Length", "  -7xyz");
    EXPECT_EQ(-7, packet->GetContentLen());
    packet->SetHeaders({{"Host", "a"}});
    EXPECT_EQ(-7, packet->GetContentLen()) << "a list without content-length keeps the old value";
    packet->SetHeader("Content-Length", "abc");
    EXPECT_EQ(0, packet->GetContentLen());
    // Out of range saturates as a 32-bit strtol does, on every platform: never wraps.
    packet->AddHeader("Content-Length", "2147483648");
    EXPECT_EQ(INT32_MAX, packet->GetContentLen());
    packet->AddHeader("Content-Length", "-4294967297");
    EXPECT_EQ(INT32_MIN, packet->GetContentLen());
}

TEST(HTTPMessage, SetHeaderReplacesOnlyTheFirstMatch)
{
    QOX::CRefCountPtr<CHTTPPacket> packet(new CHTTPPacket());
    packet->SetHeaders({{"host", "a"}, {"Host", "c"}});
    packet->SetHeader("Host", "b");
    EXPECT_EQ((Headers{{"host", "b"}, {"Host", "c"}}), packet->GetHeaders());
    packet->SetHeader("Via", "p");
    EXPECT_EQ((Headers{{"host", "b"}, {"Host", "c"}, {"Via", "p"}}), packet->GetHeaders());
}

TEST(HTTPMessage, WireFormByteForByte)
{
    QOX::CRefCountPtr<CHTTPRequest> request(new CHTTPRequest());
    request->m_method = "GET";
    request->m_uri = "/";
    request->m_version = "HTTP/1.0";
    request->AddHeader("Host", "x");
    EXPECT_EQ(27u, request->CalcSendBufferSize());
    EXPECT_EQ("GET / HTTP/1.0\r\nHost: x\r\n\r\n", Serialise(*request));
    EXPECT_EQ(0u, request->FillSendBuffer(nullptr, 100));

    // Empty fields still get both spaces; content follows the blank line; serialising twice
    // gives the same bytes.
    QOX::CRefCountPtr<CHTTPResponse> response(new CHTTPResponse());
    response->m_version = "HTTP/1.0";
    response->m_statusCode = "200";
    response->AddHeader("A", "");
    unsigned char body[] = {'h', 'i', '\0', '!'};
    response->AddContent(body, 2);
    response->AddContent(body + 2, 2);
    body[0] = 'X';
    const std::string expected("HTTP/1.0 200 \r\nA: \r\n\r\nhi\0!", 26);
    EXPECT_EQ(expected.size(), response->CalcSendBufferSize());
    EXPECT_EQ(expected, Serialise(*response));
    EXPECT_EQ(expected, Serialise(*response));
}

TEST(HTTPMessage, ShortBufferStopsAtFirstPieceThatDoesNotFit)
{
    QOX::CRefCountPtr<CHTTPRequest> request(new CHTTPRequest());
    request->AddLine("GET / HTTP/1.0");
    request->AddLine("Host: x");
    unsigned char body[] = "0123456789";
    request->AddContent(body, 10);
    const std::string full = "GET / HTTP/1.0\r\nHost: x\r\n\r\n0123456789";
    ASSERT_EQ(full.size(), request->CalcSendBufferSize());
    ASSERT_EQ(full, Serialise(*request));

    // Content is one piece: one byte short leaves the whole header block and no body.
    EXPECT_EQ(full.substr(0, 27), Serialise(*request, 36));
    // Pieces: "GET" " " "/" " " "HTTP/1.0" CRLF "Host" ": " "x" CRLF CRLF body.
    const std::vector<std::pair<unsigned int, unsigned int>> cuts = {
        {0, 0}, {2, 0}, {3, 3}, {5, 5}, {13, 6}, {15, 14}, {16, 16}, {19, 16}, {20, 20}, {21, 20}, {22, 22}, {26, 25}};
    for (const auto& cut : cuts)
        EXPECT_EQ(full.substr(0, cut.second), Serialise(*request, cut.first)) << "size " << cut.first;
}

// Overrides that rename headers and log ProcessHeader calls prove every path goes through the
// virtual table.
class CRenamingRequest : public CHTTPRequest {
public:
    void AddHeader(const std::string& name, const std::string& value) override
    {
        CHTTPRequest::AddHeader("X-" + name, value);
    }
    bool ProcessHeader(const std::string& name, const std::string& value) override
    {
        m_processed.push_back(name);
        return CHTTPRequest::ProcessHeader(name, value);
    }
    std::vector<std::string> m_processed;
};

TEST(HTTPMessage, OverridesAreReachedFromEveryPath)
{
    QOX::CRefCountPtr<CRenamingRequest> request(new CRenamingRequest());
    ASSERT_TRUE(request->AddLine("GET / HTTP/1.1"));
    ASSERT_TRUE(request->AddLine("Host: a"));
    request->SetHeader("Via", "v");
    EXPECT_EQ((Headers{{"X-Host", "a"}, {"X-Via", "v"}}), request->GetHeaders());
    request->SetHeaders({{"Content-Length", "3"}, {"B", "c"}});
    EXPECT_EQ(3, request->GetContentLen());
    // AddHeader processes the name it is given; SetHeader processes before and again in AddHeader.
    EXPECT_EQ((std::vector<std::string>{"X-Host", "Via", "X-Via", "Content-Length", "B"}), request->m_processed);
}

} // namespace
} // namespace Proxy
} // namespace ZRT
