// Feeds arbitrary bytes, cut into chunks at positions taken from the input itself, to the request
// or response parser (plain, or the proxy's own packet classes). Where a header block completes, serialising it and parsing that again must
// give the same message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

using namespace ZRT::Proxy;

namespace {

std::string StartLine(const CHTTPPacket& packet, bool request)
{
    if (request) {
        const auto& r = static_cast<const CHTTPRequest&>(packet);
        return r.m_method + '\n' + r.m_uri + '\n' + r.m_version;
    }
    const auto& r = static_cast<const CHTTPResponse&>(packet);
    return r.m_version + '\n' + r.m_statusCode + '\n' + r.m_reason;
}

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

// Parses data in chunks whose sizes cycle through the given seeds; the result of the last call.
CHTTPParser::EParseResult Feed(CHTTPParser& parser, const uint8_t* data, size_t size, const uint8_t* seeds,
                               size_t seedCount)
{
    CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
    size_t offset = 0;
    for (size_t i = 0; offset < size; ++i) {
        const size_t chunk = seedCount ? (seeds[i % seedCount] % 97) + 1 : size;
        const size_t take = chunk < size - offset ? chunk : size - offset;
        std::vector<unsigned char> copy(data + offset, data + offset + take); // exact-size: ASan sees overreads
        result = parser.Parse(copy.data(), static_cast<unsigned int>(copy.size()));
        offset += take;
        if (result != CHTTPParser::PARSE_NEED_MORE)
            break;
    }
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 5)
        return 0;
    const bool request = (data[0] & 1) == 0;
    // The proxy's own classes drop hop-by-hop request headers and split Set-Cookie values.
    const bool proxyClasses = (data[0] & 2) != 0;
    const uint8_t* seeds = data + 1;
    const size_t seedCount = 4;
    data += 5;
    size -= 5;

    CHTTPRequestParser requestParser;
    CHTTPResponseParser responseParser;
    CConnectionProtocol_HTTP::CProxyHTTPRequestParser proxyRequestParser;
    CConnectionProtocol_HTTP::CProxyHTTPResponseParser proxyResponseParser;
    CHTTPParser& parser = proxyClasses ? (request ? static_cast<CHTTPParser&>(proxyRequestParser) : proxyResponseParser)
                                       : (request ? static_cast<CHTTPParser&>(requestParser) : responseParser);
    if (Feed(parser, data, size, seeds, seedCount) != CHTTPParser::PARSE_COMPLETE)
        return 0;
    Check(parser.m_state == CHTTPParser::PARSE_STATE_COMPLETE);
    Check(parser.Parse(data, static_cast<unsigned int>(size)) == CHTTPParser::PARSE_ERROR);

    const CHTTPPacket& packet = *parser.m_packet;
    const unsigned int wireSize = packet.CalcSendBufferSize();
    std::vector<unsigned char> wire(wireSize);
    Check(packet.FillSendBuffer(wire.data(), wireSize) == wireSize);
    Check(packet.FillSendBuffer(nullptr, wireSize) == 0);
    if (wireSize > 0)
        Check(packet.FillSendBuffer(wire.data(), wireSize - 1) < wireSize);

    // An empty start line serialises to spaces, which no parser accepts back; a block near the
    // bound may grow past it when "a:b" is written as "a: b".
    // A value that begins with a space or colon loses it on the way back, as the separator
    // after a header name is any run of both.
    const std::string start = StartLine(packet, request);
    if (start == "\n\n" || wireSize > CHTTPParser::MAX_HEADER_BLOCK_SIZE / 2)
        return 0;
    for (const auto& header : packet.GetHeaders()) {
        if (!header.second.empty() && (header.second[0] == ' ' || header.second[0] == ':'))
            return 0;
    }
    CHTTPRequestParser requestAgain;
    CHTTPResponseParser responseAgain;
    CConnectionProtocol_HTTP::CProxyHTTPRequestParser proxyRequestAgain;
    CConnectionProtocol_HTTP::CProxyHTTPResponseParser proxyResponseAgain;
    CHTTPParser& again = proxyClasses ? (request ? static_cast<CHTTPParser&>(proxyRequestAgain) : proxyResponseAgain)
                                      : (request ? static_cast<CHTTPParser&>(requestAgain) : responseAgain);
    Check(again.Parse(wire.data(), wireSize) == CHTTPParser::PARSE_COMPLETE);
    Check(again.m_pendingData.GetSize() == 0);
    Check(StartLine(*again.m_packet, request) == start);
    Check(again.m_packet->GetHeaders() == packet.GetHeaders());
    Check(again.m_packet->GetContentLen() == packet.GetContentLen());
    return 0;
}
