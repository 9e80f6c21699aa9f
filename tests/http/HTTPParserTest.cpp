#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"

namespace ZRT {
namespace Proxy {
namespace {

using Headers = CHTTPPacket::HeaderList;

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

std::string Serialise(const CHTTPPacket& packet)
{
    std::string bytes(packet.CalcSendBufferSize(), '\0');
    auto* out = reinterpret_cast<unsigned char*>(&bytes[0]);
    bytes.resize(packet.FillSendBuffer(out, static_cast<unsigned int>(bytes.size())));
    return bytes;
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
