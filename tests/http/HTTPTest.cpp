#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "proxy/http/CChunkedBody.h"
#include "proxy/http/CHTTPFraming.h"
#include "proxy/http/CHTTPHopByHop.h"
#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
#include "runtime/CRefCountPtr.h"

namespace ZRT {
namespace Proxy {
namespace {

using Headers = CHTTPPacket::HeaderList;
using EBody = CHTTPFraming::EBody;
using EFault = CHTTPFraming::EFault;

std::string Serialise(const CHTTPPacket& packet, unsigned int size)
{
    std::vector<unsigned char> buffer(size + 1, '#');
    const unsigned int written = packet.FillSendBuffer(buffer.data(), size);
    EXPECT_EQ('#', buffer[size]) << "wrote past the given size";
    return std::string(buffer.begin(), buffer.begin() + written);
}

CHTTPParser::EParseResult Feed(CHTTPParser& parser, const std::string& bytes)
{
    return parser.Parse(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
}

std::string Pending(const CHTTPParser& parser)
{
    std::string bytes(parser.m_pendingData.GetSize(), '\0');
    parser.m_pendingData.PeekBytes(0, reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<unsigned int>(bytes.size()));
    return bytes;
}

// What a parse came to: the result, the head written anew, and the bytes behind it (those the
// parser kept, then those never fed).
struct SParsed {
    CHTTPParser::EParseResult result;
    std::string head;
    std::string rest;
    bool operator==(const SParsed& other) const
    {
        return result == other.result && head == other.head && rest == other.rest;
    }
};

// Feeds pieces of the sizes piece() gives until the parser stops asking for more.
template <typename TPieces>
SParsed ParseInPieces(bool request, const std::string& bytes, TPieces piece)
{
    CHTTPRequestParser requestParser;
    CHTTPResponseParser responseParser;
    CHTTPParser& parser = request ? static_cast<CHTTPParser&>(requestParser) : responseParser;
    CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
    size_t at = 0;
    while (result == CHTTPParser::PARSE_NEED_MORE && at < bytes.size()) {
        const size_t take = std::min(piece(), bytes.size() - at);
        result = Feed(parser, bytes.substr(at, take));
        at += take;
    }
    const bool complete = result == CHTTPParser::PARSE_COMPLETE;
    return {result, complete ? parser.m_packet->GetHead() : "", complete ? Pending(parser) + bytes.substr(at) : ""};
}

// Whole, byte by byte and in random pieces: every split must give the same answer.
SParsed ParseEveryWay(bool request, const std::string& bytes)
{
    const SParsed whole = ParseInPieces(request, bytes, [&] { return bytes.size(); });
    EXPECT_EQ(whole, ParseInPieces(request, bytes, [] { return size_t{1}; })) << "byte by byte: " << bytes;
    std::mt19937 random(static_cast<unsigned int>(bytes.size()));
    for (int round = 0; round < 20; ++round)
        EXPECT_EQ(whole, ParseInPieces(request, bytes, [&] { return size_t{1} + random() % 9; })) << bytes;
    return whole;
}

const bool REQUEST = true;
const bool RESPONSE = false;

TEST(HTTPHead, RefusedWholeAndSplit)
{
    const std::string get = "GET / HTTP/1.1\r\n";
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::vector<std::pair<bool, std::string>> refused = {
        // A bare CR, anywhere.
        {REQUEST, "GET /\r HTTP/1.1\r\n\r\n"}, {REQUEST, get + "X: a\rb\r\n\r\n"}, {REQUEST, get + "X: a\r\r\n\r\n"},
        {REQUEST, get + "\r\r\n"}, {RESPONSE, ok + "X: a\rb\r\n\r\n"}, {RESPONSE, "HTTP/1.1 200 O\rK\r\n\r\n"},
        // Control bytes, HTAB outside a field value included.
        {REQUEST, std::string("GET /a\0b HTTP/1.1\r\n\r\n", 21)}, {REQUEST, get + std::string("X: a\0b\r\n\r\n", 10)},
        {REQUEST, get + "X: \x7f\r\n\r\n"}, {REQUEST, get + "X\x01: y\r\n\r\n"}, {REQUEST, get + "X: a\x0b\r\n\r\n"},
        {REQUEST, "GET\t/ HTTP/1.1\r\n\r\n"}, {REQUEST, "GET /\x7f HTTP/1.1\r\n\r\n"},
        {RESPONSE, "HTTP/1.1 200 O\x1bK\r\n\r\n"}, {RESPONSE, ok + "X: \x01\r\n\r\n"},
        // Folded lines, white space in or after a name, names that are no token.
        {REQUEST, get + "X: a\r\n b\r\n\r\n"}, {REQUEST, get + "X: a\r\n\tb\r\n\r\n"}, {REQUEST, get + " X: a\r\n\r\n"},
        {REQUEST, get + "X Evil: 1\r\n\r\n"}, {REQUEST, get + "Host : x\r\n\r\n"}, {REQUEST, get + "Host\t: x\r\n\r\n"},
        {REQUEST, get + ": x\r\n\r\n"}, {REQUEST, get + "X(y): 1\r\n\r\n"}, {REQUEST, get + "\xc3\x84: 1\r\n\r\n"},
        {REQUEST, get + "garbage\r\n\r\n"}, {RESPONSE, ok + "X: a\r\n b\r\n\r\n"}, {RESPONSE, ok + "Host : x\r\n\r\n"},
        {RESPONSE, ok + "X Evil: 1\r\n\r\n"}, {RESPONSE, ok + ": x\r\n\r\n"}, {RESPONSE, ok + "X(y): 1\r\n\r\n"},
        {RESPONSE, ok + std::string("X: a\0\r\n\r\n", 9)},
        // Request lines.
        {REQUEST, "GET  / HTTP/1.1\r\n\r\n"}, {REQUEST, "GET / HTTP/1.1 \r\n\r\n"}, {REQUEST, " GET / HTTP/1.1\r\n\r\n"},
        {REQUEST, "GET /\r\n\r\n"}, {REQUEST, "GET / x HTTP/1.1\r\n\r\n"}, {REQUEST, "G(T / HTTP/1.1\r\n\r\n"},
        {REQUEST, "GET / HTTP/1.2\r\n\r\n"}, {REQUEST, "GET / HTTP/2.0\r\n\r\n"}, {REQUEST, "GET / http/1.1\r\n\r\n"},
        {REQUEST, "GET / HTTP/1.10\r\n\r\n"}, {REQUEST, "GET / HTTP/1\r\n\r\n"}, {REQUEST, "GET /\r\n"},
        // Status lines, and an empty line before one.
        {RESPONSE, "HTTP/1.1 20 OK\r\n\r\n"}, {RESPONSE, "HTTP/1.1 2000 OK\r\n\r\n"}, {RESPONSE, "HTTP/1.1 200OK\r\n\r\n"},
        {RESPONSE, "HTTP/1.1  200 OK\r\n\r\n"}, {RESPONSE, "HTTP/1.1 099 X\r\n\r\n"}, {RESPONSE, "HTTP/1.1 600 X\r\n\r\n"},
        {RESPONSE, "HTTP/1.1 2x0 OK\r\n\r\n"}, {RESPONSE, "HTTP/1.2 200 OK\r\n\r\n"}, {RESPONSE, "HTTP/2 200\r\n\r\n"},
        {RESPONSE, "ICY 200 OK\r\n\r\n"}, {RESPONSE, "HTTP/1.1\t200 OK\r\n\r\n"}, {RESPONSE, "\r\n" + ok + "\r\n"},
    };
    for (const auto& c : refused)
        EXPECT_EQ(CHTTPParser::PARSE_ERROR, ParseEveryWay(c.first, c.second).result) << c.second;
}

TEST(HTTPHead, AcceptedAndWrittenAnew)
{
    const std::vector<std::vector<std::string>> accepted = {
        // Bare LF line ends; empty lines before a request line; values trimmed, inner bytes kept.
        {"GET / HTTP/1.1\nHost: a\n\n", "GET / HTTP/1.1\r\nHost: a\r\n\r\n"},
        {"\r\n\nPUT /x HTTP/1.0\r\n\r\n", "PUT /x HTTP/1.0\r\n\r\n"},
        {"GET / HTTP/1.1\r\nX: \t a \t b \t\r\nE:\r\nS:   \r\nT:12:30\r\n\r\n",
         "GET / HTTP/1.1\r\nX: a \t b\r\nE:\r\nS:\r\nT: 12:30\r\n\r\n"},
        {"GET /caf\xc3\xa9?a=b HTTP/1.1\r\nX-!#$%&'*+.^_`|~: caf\xc3\xa9\x80\xff\r\n\r\n",
         "GET /caf\xc3\xa9?a=b HTTP/1.1\r\nX-!#$%&'*+.^_`|~: caf\xc3\xa9\x80\xff\r\n\r\n"},
        // Status lines: the SP before an empty reason may be missing; the reason keeps its bytes.
        {"HTTP/1.1 204\r\n\r\n", "HTTP/1.1 204 \r\n\r\n"},
        {"HTTP/1.0 404 Not \tFound \xe2\x9c\x97 \r\nA: b\r\n\r\n", "HTTP/1.0 404 Not \tFound \xe2\x9c\x97 \r\nA: b\r\n\r\n"},
        {"HTTP/1.1 599 \n\n", "HTTP/1.1 599 \r\n\r\n"},
    };
    for (const auto& c : accepted) {
        const bool request = c[0].compare(0, 5, "HTTP/") != 0;
        const SParsed parsed = ParseEveryWay(request, c[0] + "BODY\r\n");
        EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, parsed.result) << c[0];
        EXPECT_EQ(c[1], parsed.head) << c[0];
        EXPECT_EQ("BODY\r\n", parsed.rest) << c[0];
    }
}

TEST(HTTPHead, CompleteOrRefusedUntilReset)
{
    CHTTPRequestParser parser;
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, parser.Parse(nullptr, 5));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_START, parser.m_state);
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(parser, "GET / HTTP/1.1\r\nHost: a\r\n\r\nBODY"));
    CHTTPPacket* packet = parser.m_packet.Get();
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(parser, "more\r\n"));
    EXPECT_EQ(packet, parser.m_packet.Get());
    EXPECT_EQ("BODY", Pending(parser));

    // A refused line drops what was pending and every later byte.
    parser.Reset();
    EXPECT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(parser, "GET / HTTP/1.1\r\nX Y"));
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(parser, ": 1\r\nHost: a\r\n"));
    EXPECT_EQ(CHTTPParser::PARSE_STATE_ERROR, parser.m_state);
    EXPECT_EQ(0u, parser.m_pendingData.GetSize());
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(parser, "\r\n"));
    parser.Reset();
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(parser, "GET / HTTP/1.0\r\n\r\n"));
}

TEST(HTTPHead, LinearTimeHoweverSplit)
{
    const std::string block = "GET / HTTP/1.1\r\nX-Long: " + std::string(60000, 'v') + "\r\n\r\n";
    CHTTPRequestParser whole;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(whole, block));
    CHTTPRequestParser byByte;
    for (size_t i = 0; i + 1 < block.size(); ++i)
        ASSERT_EQ(CHTTPParser::PARSE_NEED_MORE, Feed(byByte, block.substr(i, 1))) << i;
    ASSERT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(byByte, "\n"));
    EXPECT_EQ(whole.m_packet->GetHeaders(), byByte.m_packet->GetHeaders());
    // Each byte is searched once and copied at most twice, whatever the chunks.
    EXPECT_LE(byByte.GetBytesExamined(), 4 * block.size());
    EXPECT_LE(whole.GetBytesExamined(), 4 * block.size());
}

TEST(HTTPHead, Bounded)
{
    const unsigned int limit = CHTTPParser::MAX_HEADER_BLOCK_SIZE;
    const std::string start = "GET / HTTP/1.1\r\n";
    const auto filler = [](size_t size) { return "X: " + std::string(size - 5, 'v') + "\r\n"; };
    CHTTPRequestParser atLimit;
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(atLimit, start + filler(limit - start.size() - 2) + "\r\n"));
    CHTTPRequestParser overLimit;
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(overLimit, start + filler(limit - start.size() - 1) + "\r\n"));
    // Empty lines before the request line count.
    CHTTPRequestParser emptyLines;
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, Feed(emptyLines, std::string(limit + 1, '\n')));

    // A line that never ends is refused once it passes the bound, holding nothing.
    CHTTPRequestParser endless;
    CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
    for (unsigned int fed = 0; result == CHTTPParser::PARSE_NEED_MORE && fed <= limit; fed += 4096)
        result = Feed(endless, std::string(4096, 'x'));
    EXPECT_EQ(CHTTPParser::PARSE_ERROR, result);
    EXPECT_EQ(0u, endless.m_pendingData.GetSize());

    // Body bytes behind the blank line do not count.
    CHTTPRequestParser bigBody;
    EXPECT_EQ(CHTTPParser::PARSE_COMPLETE, Feed(bigBody, start + "\r\n" + std::string(limit * 2, 'b')));
    EXPECT_EQ(limit * 2, bigBody.m_pendingData.GetSize());
}

TEST(HTTPMessage, ReplaceFieldsAndWriteWithAnotherVersion)
{
    QOX::CRefCountPtr<CHTTPRequest> request(new CHTTPRequest());
    ASSERT_TRUE(request->AddLine("GET http://h/p HTTP/1.1"));
    request->SetHeaders({{"host", "a"}, {"X", "1"}, {"Host", "c"}});
    request->SetHeader("Host", "h");
    request->SetHeader("Connection", "close");
    EXPECT_EQ((Headers{{"host", "h"}, {"X", "1"}, {"Connection", "close"}}), request->GetHeaders());
    request->m_uri = "/p";
    const std::string head = "GET /p HTTP/1.0\r\nhost: h\r\nX: 1\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(head, request->GetHead("HTTP/1.0"));
    EXPECT_EQ("HTTP/1.1", request->m_version);

    // Head and content are written whole or not at all.
    unsigned char body[] = {'h', 'i', '\0', '!'};
    request->AddContent(body, 4);
    body[0] = 'X';
    const std::string full = request->GetHead() + std::string("hi\0!", 4);
    ASSERT_EQ(full.size(), request->CalcSendBufferSize());
    EXPECT_EQ(full, Serialise(*request, request->CalcSendBufferSize()));
    EXPECT_EQ("", Serialise(*request, request->CalcSendBufferSize() - 1));
    EXPECT_EQ(0u, request->FillSendBuffer(nullptr, 100));

    QOX::CRefCountPtr<CHTTPResponse> response(new CHTTPResponse());
    EXPECT_EQ(0u, response->GetStatusCode());
    ASSERT_TRUE(response->AddLine("HTTP/1.1 304 Not Modified"));
    EXPECT_EQ(304u, response->GetStatusCode());
    EXPECT_EQ("HTTP/1.0 304 Not Modified\r\n\r\n", response->GetHead("HTTP/1.0"));
}

// An override of AddHeader, as the proxy's own message classes have, sees every field.
class CRenamingRequest : public CHTTPRequest {
public:
    void AddHeader(const std::string& name, const std::string& value) override
    {
        CHTTPRequest::AddHeader("X-" + name, value);
    }
};

TEST(HTTPMessage, AddHeaderOverrideSeesParsedAndSetFields)
{
    QOX::CRefCountPtr<CRenamingRequest> request(new CRenamingRequest());
    ASSERT_TRUE(request->AddLine("GET / HTTP/1.1"));
    ASSERT_TRUE(request->AddLine("Host:  a "));
    EXPECT_FALSE(request->AddLine("Bad Name: b"));
    request->SetHeader("Via", "v");
    EXPECT_EQ((Headers{{"X-Host", "a"}, {"X-Via", "v"}}), request->GetHeaders());
}

// Framing: a head parsed from the given start line and field lines.
template <typename TMessage>
QOX::CRefCountPtr<TMessage> Head(const std::string& startLine, const std::string& fields)
{
    QOX::CRefCountPtr<TMessage> message(new TMessage());
    EXPECT_TRUE(message->AddLine(startLine)) << startLine;
    std::string::size_type start = 0;
    while (start < fields.size()) {
        const std::string::size_type end = std::min(fields.find('\n', start), fields.size());
        EXPECT_TRUE(message->AddLine(fields.substr(start, end - start))) << fields;
        start = end + 1;
    }
    return message;
}

struct SFramingCase {
    const char* method;
    const char* startLine; // a status line for responses
    const char* fields;    // separated by LF
    EBody body;
    uint64_t length;
    EFault fault;
};

TEST(HTTPFraming, Requests)
{
    const uint64_t max = 0x7FFFFFFFFFFFFFFFull;
    const SFramingCase cases[] = {
        {"", "GET / HTTP/1.1", "", EBody::None, 0, EFault::None},
        {"", "POST / HTTP/1.1", "Content-Length: 5", EBody::Length, 5, EFault::None},
        {"", "POST / HTTP/1.0", "Content-Length: 0", EBody::Length, 0, EFault::None},
        {"", "POST / HTTP/1.1", "Content-Length: 5\ncontent-length: 5", EBody::Length, 5, EFault::None},
        {"", "POST / HTTP/1.1", "Content-Length: 5, 05,5", EBody::Length, 5, EFault::None},
        {"", "POST / HTTP/1.1", "Content-Length: 9223372036854775807", EBody::Length, max, EFault::None},
        {"", "POST / HTTP/1.1", "Content-Length: 9223372036854775808", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length: 99999999999999999999", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length: 5\nContent-Length: 6", EBody::None, 0, EFault::DifferentContentLengths},
        {"", "POST / HTTP/1.1", "Content-Length: 5, 6", EBody::None, 0, EFault::DifferentContentLengths},
        {"", "POST / HTTP/1.1", "Content-Length: -1", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length: +5", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length: 0x5", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length: 5 5", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length: 5,", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Content-Length:", EBody::None, 0, EFault::BadContentLength},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: chunked", EBody::Chunked, 0, EFault::None},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: gzip, CHUNKED", EBody::Chunked, 0, EFault::None},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: gzip\nTransfer-Encoding: , chunked", EBody::Chunked, 0, EFault::None},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: gzip", EBody::None, 0, EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: chunked, gzip", EBody::None, 0, EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: chunked\nTransfer-Encoding: chunked", EBody::None, 0,
         EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.1", "Transfer-Encoding:", EBody::None, 0, EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: \"chunked\"", EBody::None, 0, EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: xchunked", EBody::None, 0, EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.0", "Transfer-Encoding: chunked", EBody::None, 0, EFault::BadTransferEncoding},
        {"", "POST / HTTP/1.1", "Transfer-Encoding: chunked\nContent-Length: 5", EBody::None, 0,
         EFault::LengthAndTransferEncoding},
        {"", "POST / HTTP/1.1", "Content-Length: 0\nTransfer-Encoding: gzip", EBody::None, 0,
         EFault::LengthAndTransferEncoding},
        {"", "GET / HTTP/1.1", "Host: a\nhost: a", EBody::None, 0, EFault::SeveralHosts},
        {"", "GET / HTTP/1.1", "Connection: close, a b", EBody::None, 0, EFault::BadConnection},
        // What follows a CONNECT head is the tunnel.
        {"", "CONNECT h:443 HTTP/1.1", "Content-Length: 5", EBody::None, 0, EFault::None},
    };
    for (const SFramingCase& c : cases) {
        const CHTTPFraming framing = CHTTPFraming::OfRequest(*Head<CHTTPRequest>(c.startLine, c.fields));
        EXPECT_EQ(c.fault, framing.GetFault()) << c.startLine << " | " << c.fields;
        EXPECT_EQ(c.body, framing.GetBody()) << c.startLine << " | " << c.fields;
        EXPECT_EQ(c.length, framing.GetLength()) << c.startLine << " | " << c.fields;
    }
}

TEST(HTTPFraming, Responses)
{
    const SFramingCase cases[] = {
        {"GET", "HTTP/1.1 200 OK", "", EBody::UntilClose, 0, EFault::None},
        {"GET", "HTTP/1.1 205 Reset", "", EBody::UntilClose, 0, EFault::None},
        {"GET", "HTTP/1.1 200 OK", "Content-Length: 5", EBody::Length, 5, EFault::None},
        {"GET", "HTTP/1.1 200 OK", "Transfer-Encoding: chunked", EBody::Chunked, 0, EFault::None},
        {"GET", "HTTP/1.1 200 OK", "Transfer-Encoding: gzip, chunked", EBody::Chunked, 0, EFault::None},
        {"GET", "HTTP/1.1 200 OK", "Transfer-Encoding: gzip", EBody::UntilClose, 0, EFault::None},
        {"HEAD", "HTTP/1.1 200 OK", "Content-Length: 5", EBody::None, 0, EFault::None},
        {"HEAD", "HTTP/1.1 200 OK", "Transfer-Encoding: chunked", EBody::None, 0, EFault::None},
        {"GET", "HTTP/1.1 100 Continue", "", EBody::None, 0, EFault::None},
        {"GET", "HTTP/1.1 101 Switching", "Content-Length: 5", EBody::None, 0, EFault::None},
        {"GET", "HTTP/1.1 199 X", "", EBody::None, 0, EFault::None},
        {"GET", "HTTP/1.1 204 No Content", "Content-Length: 5", EBody::None, 0, EFault::None},
        {"GET", "HTTP/1.1 304 Not Modified", "Transfer-Encoding: chunked", EBody::None, 0, EFault::None},
        {"CONNECT", "HTTP/1.1 200 OK", "Content-Length: 5", EBody::None, 0, EFault::None},
        {"CONNECT", "HTTP/1.1 299 X", "", EBody::None, 0, EFault::None},
        {"CONNECT", "HTTP/1.1 407 Auth", "", EBody::UntilClose, 0, EFault::None},
        {"CONNECT", "HTTP/1.1 407 Auth", "Content-Length: 0", EBody::Length, 0, EFault::None},
        {"GET", "HTTP/1.1 200 OK", "Content-Length: 5\nTransfer-Encoding: chunked", EBody::None, 0,
         EFault::LengthAndTransferEncoding},
        {"GET", "HTTP/1.1 200 OK", "Content-Length: 5, 6", EBody::None, 0, EFault::DifferentContentLengths},
        {"GET", "HTTP/1.1 200 OK", "Content-Length: abc", EBody::None, 0, EFault::BadContentLength},
        {"HEAD", "HTTP/1.1 304 X", "Content-Length: 5\nContent-Length: 6", EBody::None, 0,
         EFault::DifferentContentLengths},
        {"GET", "HTTP/1.0 200 OK", "Transfer-Encoding: chunked", EBody::None, 0, EFault::BadTransferEncoding},
        {"GET", "HTTP/1.1 200 OK", "Transfer-Encoding: chunked, gzip", EBody::None, 0, EFault::BadTransferEncoding},
    };
    for (const SFramingCase& c : cases) {
        const CHTTPFraming framing = CHTTPFraming::OfResponse(*Head<CHTTPResponse>(c.startLine, c.fields), c.method);
        EXPECT_EQ(c.fault, framing.GetFault()) << c.method << " " << c.startLine << " | " << c.fields;
        EXPECT_EQ(c.body, framing.GetBody()) << c.method << " " << c.startLine << " | " << c.fields;
        EXPECT_EQ(c.length, framing.GetLength()) << c.method << " " << c.startLine << " | " << c.fields;
    }
}

TEST(HTTPFraming, ConnectionOptionsPersistenceAndUpgrade)
{
    struct SCase {
        const char* version;
        const char* fields;
        std::vector<std::string> options;
        bool persistent;
        bool upgrade;
    };
    const SCase cases[] = {
        {"HTTP/1.1", "", {}, true, false},
        {"HTTP/1.1", "Connection: Keep-Alive, CLOSE", {"keep-alive", "close"}, false, false},
        {"HTTP/1.1", "Connection: x-a\nconnection: ,, close ,", {"x-a", "close"}, false, false},
        {"HTTP/1.0", "", {}, false, false},
        {"HTTP/1.0", "Connection: foo, Keep-Alive", {"foo", "keep-alive"}, true, false},
        {"HTTP/1.0", "Connection: keep-alive\nConnection: close", {"keep-alive", "close"}, false, false},
        {"HTTP/1.1", "Upgrade: websocket\nConnection: Upgrade", {"upgrade"}, true, true},
        {"HTTP/1.1", "Upgrade: websocket", {}, true, false},
        {"HTTP/1.1", "Connection: upgrade", {"upgrade"}, true, false},
        {"HTTP/1.0", "Upgrade: websocket\nConnection: upgrade", {"upgrade"}, false, false},
    };
    for (const SCase& c : cases) {
        const CHTTPFraming framing = CHTTPFraming::OfRequest(*Head<CHTTPRequest>(std::string("GET / ") + c.version, c.fields));
        EXPECT_EQ(c.options, framing.GetConnectionOptions()) << c.version << " | " << c.fields;
        EXPECT_EQ(c.persistent, framing.IsPersistent()) << c.version << " | " << c.fields;
        EXPECT_EQ(c.upgrade, framing.AsksUpgrade()) << c.version << " | " << c.fields;
    }
    // A host count for the handler, and no persistence where the body runs until the close.
    EXPECT_EQ(1u, CHTTPFraming::OfRequest(*Head<CHTTPRequest>("GET / HTTP/1.1", "HOST: a")).GetHostCount());
    EXPECT_FALSE(CHTTPFraming::OfResponse(*Head<CHTTPResponse>("HTTP/1.1 200 OK", ""), "GET").IsPersistent());
    EXPECT_TRUE(CHTTPFraming::OfResponse(*Head<CHTTPResponse>("HTTP/1.1 200 OK", "Content-Length: 0"), "GET").IsPersistent());
}

// A chunked body followed every way: 'F' for each framing byte, 'D' for each data byte, then
// how it stopped: '.' done, '!' failed on the next byte, '?' wants more.
struct SFollowed {
    std::string parts;
    std::string data;
};

template <typename TPieces>
SFollowed Follow(const std::string& bytes, TPieces piece, bool skipData)
{
    CChunkedBody body;
    SFollowed followed;
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    size_t at = 0;
    while (at < bytes.size() && !body.IsDone() && !body.IsFailed()) {
        const size_t end = std::min(bytes.size(), at + piece());
        while (at < end && !body.IsDone() && !body.IsFailed()) {
            const uint64_t left = skipData ? std::min<uint64_t>(body.GetDataLeft(), end - at) : 0;
            const CChunkedBody::SRun run = left > 0 ? CChunkedBody::SRun{CChunkedBody::EPart::Data, static_cast<size_t>(left)}
                                                    : body.Next(data + at, end - at);
            if (left > 0)
                body.SkipData(left);
            const bool isData = run.part == CChunkedBody::EPart::Data;
            followed.parts.append(run.length, isData ? 'D' : 'F');
            if (isData)
                followed.data.append(bytes, at, run.length);
            at += run.length;
        }
    }
    followed.parts += body.IsDone() ? '.' : body.IsFailed() ? '!' : '?';
    return followed;
}

SFollowed FollowEveryWay(const std::string& bytes)
{
    const SFollowed whole = Follow(bytes, [&] { return bytes.size(); }, false);
    std::mt19937 random(static_cast<unsigned int>(bytes.size()));
    for (const bool skip : {false, true}) {
        const SFollowed byByte = Follow(bytes, [] { return size_t{1}; }, skip);
        EXPECT_EQ(whole.parts, byByte.parts) << bytes.substr(0, 40);
        EXPECT_EQ(whole.data, byByte.data) << bytes.substr(0, 40);
        for (int round = 0; round < 20; ++round) {
            const SFollowed split = Follow(bytes, [&] { return size_t{1} + random() % 7; }, skip);
            EXPECT_EQ(whole.parts, split.parts) << bytes.substr(0, 40);
        }
    }
    return whole;
}

TEST(ChunkedBody, SameRunsHoweverSplit)
{
    const std::string maxLine = "5;" + std::string(CChunkedBody::MAX_LINE - 4, 'e') + "\r\n";
    const std::string trailer = "T: " + std::string(4000 - 5, 't') + "\r\n";
    // A trailer section of exactly MAX_TRAILERS bytes: four lines of 4000 and one of 382, the CRLF.
    const std::string maxTrailers = trailer + trailer + trailer + trailer + "U: " + std::string(382 - 5, 'u') + "\r\n\r\n";
    const std::vector<std::vector<std::string>> cases = {
        // body, its data, what follows it
        {"5\r\nhello\r\n0\r\n\r\n", "hello", "NEXT"},
        {"3;a=b;c=\"d e\"\r\nabc\r\n00A \t; x\r\n0123456789\r\n000;last\r\nExpires: x \t\xff\r\nB:\r\n\r\n",
         "abc0123456789", "GET / HTTP/1.1\r\n"},
        {"0\r\n\r\n", "", ""},
        {"fffffffffffffff\r\n", "", ""}, // a 15-digit size: wants more
        {maxLine + "abcde\r\n0\r\n\r\n", "abcde", ""},
        {"1\r\n\r\r\n0\r\n" + maxTrailers, "\r", "x"},
    };
    for (const auto& c : cases) {
        const SFollowed followed = FollowEveryWay(c[0] + c[2]);
        EXPECT_EQ(c[1], followed.data);
        const bool done = followed.parts.back() == '.';
        EXPECT_EQ(done ? c[0].size() : c[0].size() + c[2].size(), followed.parts.size() - 1) << c[0];
        EXPECT_EQ(c[1].size(), static_cast<size_t>(std::count(followed.parts.begin(), followed.parts.end(), 'D')));
    }
}

TEST(ChunkedBody, MalformedRefusedAtTheFaultyByte)
{
    const std::string longLine = "5;" + std::string(CChunkedBody::MAX_LINE - 1, 'e');
    const std::string trailer = "T: " + std::string(4000 - 5, 't') + "\r\n";
    const std::string longTrailers = "0\r\n" + trailer + trailer + trailer + trailer + "U: " + std::string(382, 'u');
    // Each refused at its last byte, after taking every byte before it.
    const std::vector<std::string> cases = {
        "x", "\r", ";", " ", "0x", "1234567890abcdef", "5 \r", "5 x", "5;a\x01", "5;a\n", "5\n", "5\rx",
        "5\r\nhelloX", "5\r\nhello\rX", "5\r\nhello\n", "0\r\nX\x01", "0\r\n(", "0\r\n ", "0\r\nX ", "0\r\nX\r",
        "0\r\nX: a\rb", "0\r\nX: \x7f", "0\r\n\rx", "0\r\n\n", "5\r\nhello\r\n0\r\nA: b\n", longLine, longTrailers,
    };
    for (const std::string& bytes : cases) {
        std::string accepted = FollowEveryWay(bytes.substr(0, bytes.size() - 1)).parts;
        ASSERT_EQ('?', accepted.back()) << bytes.substr(0, 40);
        accepted.back() = '!';
        EXPECT_EQ(accepted, FollowEveryWay(bytes).parts) << bytes.substr(0, 40);
    }
}

TEST(ChunkedBody, SkipPastTheChunkFailsAndResetStartsAgain)
{
    CChunkedBody body;
    const std::string head = "A\r\n";
    const auto* bytes = reinterpret_cast<const unsigned char*>(head.data());
    EXPECT_EQ(3u, body.Next(bytes, head.size()).length);
    EXPECT_EQ(10u, body.GetDataLeft());
    body.SkipData(4);
    EXPECT_EQ(6u, body.GetDataLeft());
    body.SkipData(7);
    EXPECT_TRUE(body.IsFailed());
    EXPECT_EQ(0u, body.Next(bytes, head.size()).length);
    body.Reset();
    EXPECT_EQ(3u, body.Next(bytes, head.size()).length);
    EXPECT_EQ(10u, body.GetDataLeft());
}

TEST(HTTPHopByHop, RemovesConnectionFieldsAndWhatConnectionNames)
{
    struct SCase {
        Headers fields;
        bool keepUpgrade;
        Headers kept;
        std::vector<std::string> options;
        std::vector<std::string> proxyAuthorization;
    };
    const SCase cases[] = {
        {{{"Connection", "close, X-Foo"}, {"X-Foo", "1"}, {"Keep-Alive", "5"}, {"Proxy-Connection", "keep-alive"},
          {"TE", "trailers"}, {"Trailer", "Expires"}, {"Upgrade", "h2c"}, {"Proxy-Authorization", "Basic YTpi"},
          {"Proxy-Authenticate", "Basic"}, {"x-foo", "2"}, {"A", "b"}, {"PROXY-AUTHORIZATION", "Basic Yzpk"}},
         false,
         {{"Trailer", "Expires"}, {"A", "b"}},
         {"close", "x-foo"},
         {"Basic YTpi", "Basic Yzpk"}},
        // Fields that frame or route the message stay whatever Connection says.
        {{{"Host", "h"}, {"Content-Length", "5"}, {"Transfer-Encoding", "chunked"}, {"B", "c"},
          {"connection", "Host, content-length"}, {"Connection", "TRANSFER-ENCODING,b"}},
         false,
         {{"Host", "h"}, {"Content-Length", "5"}, {"Transfer-Encoding", "chunked"}},
         {"host", "content-length", "transfer-encoding", "b"},
         {}},
        {{{"Connection", "Upgrade"}, {"Upgrade", "websocket"}, {"Keep-Alive", "1"}},
         true,
         {{"Upgrade", "websocket"}},
         {"upgrade"},
         {}},
    };
    for (const SCase& c : cases) {
        QOX::CRefCountPtr<CHTTPRequest> request(new CHTTPRequest());
        request->SetHeaders(c.fields);
        const CHTTPHopByHop::SRemoved removed = CHTTPHopByHop::Remove(*request, c.keepUpgrade);
        EXPECT_EQ(c.kept, request->GetHeaders());
        EXPECT_EQ(c.options, removed.connectionOptions);
        EXPECT_EQ(c.proxyAuthorization, removed.proxyAuthorization);
    }
}

} // namespace
} // namespace Proxy
} // namespace ZRT
