#pragma once

#include <string>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

class CHTTPRequest;

// Where one HTTP proxy request goes: the host and port its target names (absolute form, or the
// authority of a CONNECT), or its Host field when the target is a path; and the target the
// origin gets (the path, for an absolute target). The port is 80 where none is given.
class ZRT_EXPORT CHTTPRoute {
public:
    // False when the request names no host at all.
    bool Find(const CHTTPRequest& request);

    const std::string& GetHost() const { return m_host; }
    const std::string& GetPort() const { return m_port; }
    // "host:port", the text names are looked up by (a bracketed IPv6 literal keeps its brackets).
    std::string GetDestination() const { return m_host + ":" + m_port; }
    // The authority for the Host field: host, and ":port" unless the port is 80.
    std::string GetAuthority() const;
    // The target for the origin: the request's own, reduced to its path when absolute.
    const std::string& GetOriginTarget() const { return m_originTarget; }
    // The target was absolute: the Host field is rewritten to its authority.
    bool IsAbsolute() const { return m_absolute; }

    // Strips a scheme and a path from text and splits off the port; false when no host is left.
    static bool SplitHostAndPort(const std::string& text, std::string& host, std::string& port);

private:
    std::string m_host;
    std::string m_port;
    std::string m_originTarget;
    bool m_absolute = false;
};

} // namespace Proxy
} // namespace ZRT
