#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
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

// Header blocks taken in any pieces.
const std::string BLOCK = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

CHTTPParser::EParseResult Feed(CHTTPParser& parser, const std::string& bytes)
{
    return parser.Parse(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
}

std::string Pending(const CHTTPParser& parser)
{
    std::string bytes(parser.m_pendingData.GetSize(), '\0');
    auto* out = reinterpret_cast<unsigned char*>(&bytes[0]);
    parser.m_pendingData.PeekBytes(0, out, static_cast<unsigned int>(bytes.size()));
    return bytes;
}

CHTTPRequest& Request(const CHTTPParser& parser)
{
    return *static_cast<CHTTPRequest*>(parser.m_packet.Get());
}

TEST(HTTPParser, WholeBlockLeavesBodyPending)
{
    CHTTPRequestParser parser;
    EXPECT_EQ(CHTTPParser::PARSE_STATE_START, parser.m_state);
    EXPECT_FALSE(parser.m_packet);
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(parser, BLOCK + "BODY"));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_COMPLETE, parser.m_state);
    EXPECT_EQ("GET", Request(parser).m_method);
    EXPECT_EQ("/", Request(parser).m_uri);
    EXPECT_EQ("HTTP/1.1", Request(parser).m_version);
    EXPECT_EQ((Headers{{"Host", "a"}}), Request(parser).GetHeaders());
    EXPECT_EQ("BODY", Pending(parser));

    // Refused until Reset, changing nothing.
    CHTTPPacket* packet = parser.m_packet.Get();
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(parser, "more\r\n"));
    EXPECT_EQ(packet, parser.m_packet.Get());
    EXPECT_EQ("BODY", Pending(parser));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_COMPLETE, parser.m_state);

    parser.Reset();
    EXPECT_FALSE(parser.m_packet);
    EXPECT_EQ(0u, parser.m_pendingData.GetSize());
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(parser, "PUT /x HTTP/1.0\n\n"));
    EXPECT_EQ("PUT", Request(parser).m_method);
}

TEST(HTTPParser, RandomSplitsMatchWholeParse)
{
    const std::string block = "POST http://h/p?q=1 HTTP/1.1\r\nHost: h:81\r\nX-Empty:\r\nCookie: a=b; c=d\n"
                              "Content-Length: 5\r\n\r\nhello";
    CHTTPRequestParser whole;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(whole, block));
    const std::string expected = Serialise(Request(whole));

    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        CHTTPRequestParser parser;
        size_t at = 0;
        CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
        while (result == CHTTPParser::PARSE_NEED_MORE) {
            ASSERT_LT(at, block.size());
            // Round 0 feeds one byte per call: only the blank line's LF may complete.
            const size_t take = std::min<size_t>(round == 0 ? 1 : 1 + random() % 12, block.size() - at);
            result = Feed(parser, block.substr(at, take));
            at += take;
        }
        ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, result) << "round " << round;
        EXPECT_EQ(expected, Serialise(Request(parser)));
        EXPECT_EQ(5, Request(parser).GetContentLen());
        // What followed the blank line in the completing chunk, then the bytes never fed.
        EXPECT_EQ("hello", Pending(parser) + block.substr(at));
    }
}

TEST(HTTPParser, LineEnds)
{
    CHTTPRequestParser bare;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(bare, "GET / HTTP/1.1\nHost: a\n\n"));
    EXPECT_EQ(BLOCK, Serialise(Request(bare)));

    // Only one CR before the LF is dropped; a CR elsewhere is part of the line.
    CHTTPRequestParser cr;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(cr, std::string("GET / HTTP/1.1\r\nA: a\r\r\nB: x\ry\0\r\n\r\n", 34)));
    EXPECT_EQ((Headers{{"A", "a\r"}, {"B", std::string("x\ry\0", 4)}}), Request(cr).GetHeaders());

    // A split header line is handed over once, whole.
    CHTTPRequestParser split;
    EXPECT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(split, "GET / HTTP/1.1\r\nHo"));
    EXPECT_EQ("Ho", Pending(split));
    EXPECT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(split, "st: a\r"));
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(split, "\n\r\n"));
    EXPECT_EQ((Headers{{"Host", "a"}}), Request(split).GetHeaders());

    // A block that begins with its blank line completes with empty fields.
    CHTTPRequestParser empty;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(empty, "\r\nrest"));
    EXPECT_EQ("", Request(empty).m_method + Request(empty).m_uri + Request(empty).m_version);
    EXPECT_EQ("rest", Pending(empty));
}

TEST(HTTPParser, AHeaderBlockCostsLinearTimeHoweverItIsSplit)
{
    const std::string block = "GET / HTTP/1.1\r\nX-Long: " + std::string(60000, 'v') + "\r\n\r\n";
    CHTTPRequestParser whole;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(whole, block));
    CHTTPRequestParser byByte;
    for (size_t i = 0; i + 1 < block.size(); ++i)
        ASSERT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(byByte, block.substr(i, 1))) << i;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(byByte, "\n"));
    EXPECT_EQ(Request(whole).GetHeaders(), Request(byByte).GetHeaders());
    // Each byte is searched once and copied at most twice, whatever the chunks.
    EXPECT_LE(byByte.GetBytesExamined(), 4 * block.size());
    EXPECT_LE(whole.GetBytesExamined(), 4 * block.size());
}

TEST(HTTPParser, Errors)
{
    CHTTPRequestParser twoTokens;
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(twoTokens, "GET /index.html\r\nHost: a\r\n"));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_HEADERS, twoTokens.m_state);
    EXPECT_EQ("Host: a\r\n", Pending(twoTokens));

    CHTTPRequestParser nullData;
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, nullData.Parse(nullptr, 5));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_START, nullData.m_state);
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(nullData, ""));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_HEADERS, nullData.m_state);
    EXPECT_TRUE(nullData.m_packet);
    // Zero new bytes with a partial line pending is merely waiting.
    EXPECT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(nullData, "GET"));
    EXPECT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(nullData, ""));
}

TEST(HTTPParser, ResponseParserBuildsResponses)
{
    CHTTPResponseParser parser;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(parser, "HTTP/1.1 404 Not  Found \r\nA: b\r\n\r\n"));
    auto* response = dynamic_cast<CHTTPResponse*>(parser.m_packet.Get());
    ASSERT_NE(nullptr, response);
    EXPECT_EQ("HTTP/1.1 404 Not  Found \r\nA: b\r\n\r\n", Serialise(*response));
}

TEST(HTTPParser, HeaderBlockIsBounded)
{
    const unsigned int limit = CHTTPParser::MAX_HEADER_BLOCK_SIZE;
    const std::string start = "GET / HTTP/1.1\r\n";
    const auto filler = [](size_t size) { return "X: " + std::string(size - 5, 'v') + "\r\n"; };

    CHTTPRequestParser atLimit;
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(atLimit, start + filler(limit - start.size() - 2) + "\r\n"));

    CHTTPRequestParser overLimit;
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(overLimit, start + filler(limit - start.size() - 1) + "\r\n"));

    // A line that never ends is refused once it passes the bound, and stays refused until Reset.
    CHTTPRequestParser endless;
    const std::string chunk(4096, 'x');
    CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
    unsigned int fed = 0;
    while (result == CHTTPParser::PARSE_NEED_MORE && fed <= limit) {
        result = Feed(endless, chunk);
        fed += static_cast<unsigned int>(chunk.size());
    }
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, result);
    EXPECT_EQ(0u, endless.m_pendingData.GetSize());
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(endless, BLOCK));
    endless.Reset();
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(endless, BLOCK));

    // Body bytes behind the blank line do not count.
    CHTTPRequestParser bigBody;
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(bigBody, BLOCK + std::string(limit * 2, 'b')));
    EXPECT_EQ(limit * 2, bigBody.m_pendingData.GetSize());
}

} // namespace
} // namespace Proxy
} // namespace ZRT
