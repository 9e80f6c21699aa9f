// Routes arbitrary request heads and compares the route with a plain rendering of the rule: an
// absolute target names the destination whatever the Host field says; a path (or "*") takes the
// non-empty Host field; anything else (a CONNECT authority) is the destination itself. The port
// follows the last colon outside brackets, 80 when none; the origin gets the path of an absolute
// target ("/" when it has none), else the target as it came.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "proxy/http/CHTTPRequest.h"
#include "proxy/http/CHTTPRequestParser.h"
#include "proxy/httpproxy/CHTTPRoute.h"

using namespace ZRT::Proxy;

namespace {

struct SExpected {
    bool found = false;
    std::string destination;
    std::string originTarget;
};

// "host:port" of an authority text, or "" when it names no host.
std::string Destination(std::string authority)
{
    const size_t scheme = authority.find("://");
    if (scheme != std::string::npos)
        authority = authority.substr(scheme + 3);
    authority = authority.substr(0, authority.find('/'));
    std::string host = authority;
    std::string port;
    const size_t colon = authority.rfind(':');
    const size_t bracket = authority.rfind(']');
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        host = authority.substr(0, colon);
        port = authority.substr(colon + 1);
    }
    if (host.empty())
        return std::string();
    return host + ":" + (port.empty() ? "80" : port);
}

SExpected Expected(const CHTTPRequest& request)
{
    SExpected expected;
    const std::string& target = request.m_uri;
    expected.originTarget = target;
    std::string authority = target;
    if (!target.empty() && target[0] != '/' && target.find("://") != std::string::npos) {
        const size_t path = target.find('/', target.find("://") + 3);
        expected.originTarget = path == std::string::npos ? std::string("/") : target.substr(path);
    } else if ((!target.empty() && target[0] == '/') || target == "*") {
        if (!request.GetHeader("host", authority) || authority.empty())
            return expected;
    }
    expected.destination = Destination(authority);
    expected.found = !expected.destination.empty();
    return expected;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CHTTPRequestParser parser;
    if (parser.Parse(data, static_cast<unsigned int>(size)) != CHTTPParser::PARSE_COMPLETE)
        return 0;
    QOX::CRefCountPtr<CHTTPRequest> request = QOX::StaticCast<CHTTPRequest>(parser.m_packet);
    CHTTPRoute route;
    const bool found = route.Find(*request);
    const SExpected expected = Expected(*request);
    if (found != expected.found)
        std::abort();
    if (found && (route.GetDestination() != expected.destination || route.GetOriginTarget() != expected.originTarget))
        std::abort();
    return 0;
}
