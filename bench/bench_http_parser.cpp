// Parses and re-serialises a typical browser request header block, fed whole and in the small
// chunks a slow client produces. Reports header blocks per second as items_per_second.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"

namespace {

using ZRT::Proxy::CHTTPParser;
using ZRT::Proxy::CHTTPRequestParser;

const std::string& BrowserRequest()
{
    static const std::string block =
        "GET http://www.example.com/articles/2024/index.html?page=2&sort=recent HTTP/1.1\r\n"
        "Host: www.example.com\r\n"
        "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0\r\n"
        "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\n"
        "Accept-Language: en-US,en;q=0.5\r\n"
        "Accept-Encoding: gzip, deflate\r\n"
        "Referer: http://www.example.com/articles/2024/\r\n"
        "Cookie: session=4f2a9c1e7b0d3e5a8c6b; theme=dark; consent=yes; lang=en-US\r\n"
        "Proxy-Connection: keep-alive\r\n"
        "Upgrade-Insecure-Requests: 1\r\n"
        "Sec-Fetch-Dest: document\r\n"
        "Sec-Fetch-Mode: navigate\r\n"
        "Priority: u=0, i\r\n"
        "\r\n";
    return block;
}

void ParseAndSerialise(benchmark::State& state, unsigned int chunk)
{
    const std::string& block = BrowserRequest();
    const auto* bytes = reinterpret_cast<const unsigned char*>(block.data());
    const auto size = static_cast<unsigned int>(block.size());
    std::vector<unsigned char> out(size * 2);
    CHTTPRequestParser parser;
    for (auto _ : state) {
        CHTTPParser::EParseResult result = CHTTPParser::PARSE_NEED_MORE;
        for (unsigned int at = 0; at < size && result == CHTTPParser::PARSE_NEED_MORE; at += chunk)
            result = parser.Parse(bytes + at, std::min(chunk, size - at));
        if (result != CHTTPParser::PARSE_COMPLETE) {
            state.SkipWithError("header block did not parse");
            break;
        }
        const unsigned int written = parser.m_packet->FillSendBuffer(out.data(), parser.m_packet->CalcSendBufferSize());
        benchmark::DoNotOptimize(written);
        parser.Reset();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
    state.counters["block_bytes"] = size;
}

void BM_ParseWhole(benchmark::State& state)
{
    ParseAndSerialise(state, static_cast<unsigned int>(BrowserRequest().size()));
}

void BM_Parse64ByteChunks(benchmark::State& state)
{
    ParseAndSerialise(state, 64);
}

BENCHMARK(BM_ParseWhole);
BENCHMARK(BM_Parse64ByteChunks);

} // namespace

BENCHMARK_MAIN();
