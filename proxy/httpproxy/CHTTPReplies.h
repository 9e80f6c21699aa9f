#pragma once

#include <string>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// The replies the HTTP proxy side makes itself. With persistent connections each says what
// happened, in a status and a short text, and closes the connection; a proxy serving one request
// per connection keeps its traditional fixed replies (400, 404, 403, 407) where they apply.
class ZRT_EXPORT CHTTPReplies {
public:
    enum class EReply {
        BadRequest,     // 400: a request that cannot be read or framed for sure
        Forbidden,      // 403: refused by the destination rules
        NotFound,       // 404 with one request per connection: no destination, or it failed
        AuthRequired,   // 407
        BadGateway,     // 502: name unknown, connection refused, an origin's bad answer
        GatewayTimeout, // 504: the lookup or the connect took too long
        LoopDetected    // 508: the request names the proxy itself
    };

    // persistent: the connection serves several requests (the replies with a text); why: the
    // text, when there is one.
    static std::string Make(EReply reply, bool persistent, const std::string& why = std::string());

    static constexpr char CONNECTION_ESTABLISHED[] = "HTTP/1.0 200 Connection established\r\n\r\n";
    static constexpr char BAD_REQUEST[] = "HTTP/1.0 400 Bad Request\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    static constexpr char NOT_FOUND[] = "HTTP/1.0 404 Not Found\r\nKeep-Alive: timeout=5, max=100\r\n\r\n";
    static constexpr char FORBIDDEN[] = "HTTP/1.0 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    static constexpr char AUTHENTICATION_REQUIRED[] =
        "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"zrt-proxy\"\r\n"
        "Content-Length: 0\r\nConnection: close\r\n\r\n";
    static constexpr char BAD_GATEWAY[] = "HTTP/1.0 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
};

} // namespace Proxy
} // namespace ZRT
