#pragma once

#include <string>
#include <vector>

#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

class CHTTPPacket;

// Takes the fields meant for one connection out of a message before it goes on (RFC 9110
// §7.6.1): Connection and every field it names, Proxy-Connection, Keep-Alive, TE, Upgrade
// (unless the handler upgrades the connection), Proxy-Authorization and Proxy-Authenticate.
// Host, Content-Length and Transfer-Encoding stay even when Connection names them: the handler
// framed and routed the message by them, and the next hop must read it the same way. Trailer is
// end to end.
//
// Used on the connection's thread only.
class ZRT_EXPORT CHTTPHopByHop {
public:
    struct SRemoved {
        // The elements of every Connection field, in lower case, in order.
        std::vector<std::string> connectionOptions;
        // The value of each Proxy-Authorization field, in order.
        std::vector<std::string> proxyAuthorization;
    };

    // keepUpgrade: Upgrade stays, even when Connection names it (the handler then sends its own
    // Connection: upgrade).
    static SRemoved Remove(CHTTPPacket& message, bool keepUpgrade);
};

} // namespace Proxy
} // namespace ZRT
