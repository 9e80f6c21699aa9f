// Takes the destination out of arbitrary request header blocks and compares it with a plain
// rendering of the rule: host from a non-empty Host header, else from the target; port from the
// Host header, else the target, else 80; scheme and path stripped; bracketed IPv6 kept whole.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fakes/FakeProxyConnection.h"
#include "proxy/httpproxy/CConnectionProtocol_HTTP.h"

using namespace ZRT::Proxy;

namespace {

class Probe : public CConnectionProtocol_HTTP {
public:
    using CConnectionProtocol_HTTP::CConnectionProtocol_HTTP;
    using CConnectionProtocol_HTTP::ExtractAddress;
};

bool Split(const std::string& text, std::string& host, std::string& port)
{
    host = text;
    port.clear();
    const size_t scheme = host.find("://");
    if (scheme != std::string::npos)
        host.erase(0, scheme + 3);
    const size_t slash = host.find('/');
    if (slash != std::string::npos)
        host.erase(slash);
    if (host.empty())
        return false;
    const size_t last = host.find_last_of("]:");
    if (last == std::string::npos || host[last] == ']')
        return true;
    port = host.substr(last + 1);
    host.erase(last);
    return !host.empty();
}

std::string Expected(const CHTTPRequest& request)
{
    std::string uriHost, uriPort, host, port, value;
    Split(request.m_uri, uriHost, uriPort);
    if (request.GetHeader("host", value) && !value.empty()) {
        Split(value, host, port);
        if (port.empty())
            port = uriPort;
    } else {
        host = uriHost;
        port = uriPort;
    }
    if (host.empty())
        return std::string();
    return host + ":" + (port.empty() ? "80" : port);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CConnectionProtocol_HTTP::CProxyHTTPRequestParser parser;
    if (parser.Parse(data, static_cast<unsigned int>(size)) != CHTTPParser::PARSE_COMPLETE)
        return 0;
    QOX::CRefCountPtr<CHTTPRequest> request = QOX::StaticCast<CHTTPRequest>(parser.m_packet);

    ZRT::Testing::FakeProxyConnection connection;
    Probe probe(connection);
    std::string address = "stale";
    const bool found = probe.ExtractAddress(request, address);
    const std::string expected = Expected(*request);
    if (found != !expected.empty() || address != expected)
        std::abort();
    return 0;
}
