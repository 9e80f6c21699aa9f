#include "proxy/httpproxy/CHTTPRoute.h"

#include <cstring>

#include "proxy/http/CHTTPRequest.h"

namespace ZRT {
namespace Proxy {

namespace {
const char SCHEME_SEPARATOR[] = "://";
const char DEFAULT_PORT[] = "80";
} // namespace

bool CHTTPRoute::SplitHostAndPort(const std::string& text, std::string& host, std::string& port)
{
    host = text;
    port.clear();
    const std::string::size_type scheme = host.find(SCHEME_SEPARATOR);
    if (scheme != std::string::npos)
        host.erase(0, scheme + std::strlen(SCHEME_SEPARATOR));
    const std::string::size_type path = host.find('/');
    if (path != std::string::npos)
        host.erase(path);
    if (host.empty())
        return false;
    // The last ':' or ']': a bracketed IPv6 literal keeps its inner colons.
    const std::string::size_type last = host.find_last_of("]:");
    if (last == std::string::npos || host[last] == ']')
        return true;
    port = host.substr(last + 1);
    host.erase(last);
    return !host.empty();
}

bool CHTTPRoute::Find(const CHTTPRequest& request)
{
    const std::string& target = request.m_uri;
    const std::string::size_type scheme = target.find(SCHEME_SEPARATOR);
    m_absolute = scheme != std::string::npos && target.compare(0, 1, "/") != 0;
    m_originTarget = target;
    std::string text = target;
    if (m_absolute) {
        // RFC 9112 §3.2.2: the target decides, whatever a Host field says.
        const std::string::size_type path = target.find('/', scheme + std::strlen(SCHEME_SEPARATOR));
        m_originTarget = path == std::string::npos ? "/" : target.substr(path);
    } else if (target.compare(0, 1, "/") == 0 || target == "*") {
        if (!request.GetHeader("host", text) || text.empty())
            return false;
    }
    if (!SplitHostAndPort(text, m_host, m_port))
        return false;
    if (m_port.empty())
        m_port = DEFAULT_PORT;
    return true;
}

std::string CHTTPRoute::GetAuthority() const
{
    return m_port == DEFAULT_PORT ? m_host : m_host + ":" + m_port;
}

} // namespace Proxy
} // namespace ZRT
