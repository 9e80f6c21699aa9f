// Feeds arbitrary bytes to the request or response parser (plain, or the proxy's own message
// classes), whole and cut into pieces at sizes taken from the input itself: every split must
// give the same answer. A head that completes must be strict when written anew (no control
// byte but HTAB, CRLF line ends, token names, trimmed values), parse again to the same message,
// and keep its framing when its hop-by-hop fields are removed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "proxy/http/CHTTPFraming.h"
#include "proxy/http/CHTTPHopByHop.h"
#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
#include "proxy/http/CHTTPSyntax.h"
#include "proxy/httpproxy/CProxyHTTPResponse.h"

using namespace ZRT::Proxy;

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

// The parser for the input's first byte: bit 0 response, bit 1 the proxy's classes.
struct SParsers {
    CHTTPRequestParser request;
    CHTTPResponseParser response;
    CProxyHTTPResponse::CParser proxyResponse;

    CHTTPParser& Pick(bool isRequest, bool proxyClasses)
    {
        if (isRequest)
            return request; // requests have no class of the proxy's own
        return proxyClasses ? static_cast<CHTTPParser&>(proxyResponse) : response;
    }
};

struct SOutcome {
    CHTTPParser::EParseResult result;
    std::string head;
    std::string rest;
    bool operator==(const SOutcome& other) const
    {
        return result == other.result && head == other.head && rest == other.rest;
    }
};

// Parses data in pieces whose sizes cycle through the seeds (none: whole); what it came to.
SOutcome Feed(CHTTPParser& parser, const uint8_t* data, size_t size, const uint8_t* seeds, size_t seedCount)
{
    CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
    size_t offset = 0;
    for (size_t i = 0; offset < size && result == CHTTPParser::PARSE_NEED_MORE; ++i) {
        const size_t piece = seedCount ? (seeds[i % seedCount] % 97) + 1 : size;
        const size_t take = piece < size - offset ? piece : size - offset;
        std::vector<unsigned char> copy(data + offset, data + offset + take); // exact size: ASan sees overreads
        result = parser.Parse(copy.data(), static_cast<unsigned int>(copy.size()));
        offset += take;
    }
    SOutcome outcome{result, std::string(), std::string()};
    if (result != CHTTPParser::PARSE_COMPLETE)
        return outcome;
    outcome.head = parser.m_packet->GetHead();
    outcome.rest.resize(parser.m_pendingData.GetSize());
    parser.m_pendingData.PeekBytes(0, reinterpret_cast<unsigned char*>(&outcome.rest[0]),
                                   static_cast<unsigned int>(outcome.rest.size()));
    outcome.rest.append(reinterpret_cast<const char*>(data + offset), size - offset);
    return outcome;
}

// CRLF only at line ends, no other control byte but HTAB.
void CheckWireForm(const std::string& head)
{
    Check(head.size() >= 2 && head.compare(head.size() - 2, 2, "\r\n") == 0);
    for (size_t i = 0; i < head.size(); ++i) {
        const auto c = static_cast<unsigned char>(head[i]);
        if (c == '\r')
            Check(i + 1 < head.size() && head[i + 1] == '\n');
        else if (c == '\n')
            Check(i > 0 && head[i - 1] == '\r');
        else
            Check(c == '\t' || (c >= 0x20 && c != 0x7F));
    }
}

void CheckFields(const CHTTPPacket& packet, bool proxyClasses)
{
    for (const auto& field : packet.GetHeaders()) {
        Check(CHTTPSyntax::IsToken(field.first));
        // The proxy's Set-Cookie split may leave a blank before a comma at a piece's end.
        if (proxyClasses || field.second.empty())
            continue;
        Check(!CHTTPSyntax::IsBlank(static_cast<unsigned char>(field.second.front())));
        Check(!CHTTPSyntax::IsBlank(static_cast<unsigned char>(field.second.back())));
    }
}

CHTTPFraming FramingOf(const CHTTPPacket& packet, bool isRequest, const std::string& method)
{
    if (isRequest)
        return CHTTPFraming::OfRequest(static_cast<const CHTTPRequest&>(packet));
    return CHTTPFraming::OfResponse(static_cast<const CHTTPResponse&>(packet), method);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 5)
        return 0;
    const bool isRequest = (data[0] & 1) == 0;
    const bool proxyClasses = (data[0] & 2) != 0;
    static const char* const METHODS[] = {"GET", "HEAD", "CONNECT", "POST"};
    const std::string method = METHODS[(data[0] >> 2) & 3];
    const uint8_t* seeds = data + 1;
    data += 5;
    size -= 5;

    SParsers wholeParsers;
    CHTTPParser& whole = wholeParsers.Pick(isRequest, proxyClasses);
    const SOutcome outcome = Feed(whole, data, size, nullptr, 0);
    SParsers splitParsers;
    Check(Feed(splitParsers.Pick(isRequest, proxyClasses), data, size, seeds, 4) == outcome);
    if (outcome.result != CHTTPParser::PARSE_COMPLETE)
        return 0;
    Check(whole.m_state == CHTTPParser::PARSE_STATE_COMPLETE);
    Check(whole.Parse(data, static_cast<unsigned int>(size)) == CHTTPParser::PARSE_ERROR);

    CHTTPPacket& packet = *whole.m_packet;
    CheckWireForm(outcome.head);
    CheckFields(packet, proxyClasses);
    if (!isRequest)
        Check(static_cast<const CHTTPResponse&>(packet).GetStatusCode() >= 100);
    const unsigned int wireSize = packet.CalcSendBufferSize();
    Check(wireSize == outcome.head.size());
    std::vector<unsigned char> wire(wireSize);
    Check(packet.FillSendBuffer(wire.data(), wireSize) == wireSize);
    Check(packet.FillSendBuffer(wire.data(), wireSize - 1) == 0);

    // Written anew, the head parses to itself (a head near the bound may grow past it as
    // "a:b" becomes "a: b").
    if (wireSize <= CHTTPParser::MAX_HEADER_BLOCK_SIZE / 2) {
        SParsers again;
        const SOutcome reparsed = Feed(again.Pick(isRequest, proxyClasses), wire.data(), wireSize, nullptr, 0);
        Check(reparsed.result == CHTTPParser::PARSE_COMPLETE && reparsed.rest.empty());
        Check(proxyClasses || reparsed.head == outcome.head);
    }

    // Hop-by-hop removal never touches what frames the message.
    const CHTTPFraming before = FramingOf(packet, isRequest, method);
    Check(before.GetFault() == CHTTPFraming::EFault::None || before.GetBody() == CHTTPFraming::EBody::None);
    Check(before.GetBody() == CHTTPFraming::EBody::Length || before.GetLength() == 0);
    CHTTPHopByHop::Remove(packet, (data[0] & 16) != 0);
    const CHTTPFraming after = FramingOf(packet, isRequest, method);
    Check(after.GetConnectionOptions().empty());
    if (before.GetFault() == CHTTPFraming::EFault::None) {
        Check(after.GetFault() == CHTTPFraming::EFault::None);
        Check(after.GetBody() == before.GetBody() && after.GetLength() == before.GetLength());
        Check(after.GetHostCount() == before.GetHostCount());
    }
    return 0;
}
