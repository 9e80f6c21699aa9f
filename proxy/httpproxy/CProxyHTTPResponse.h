#pragma once

#include <string>

#include "proxy/http/CHTTPResponse.h"
#include "proxy/http/CHTTPResponseParser.h"
#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// An origin's answer as the proxy reads it: a Set-Cookie value that joins several cookies with
// commas becomes one field each; a comma followed by a space (as in an Expires date) does not
// split. CParser makes these. Used on the connection's thread only.
class ZRT_EXPORT CProxyHTTPResponse : public CHTTPResponse {
public:
    class ZRT_EXPORT CParser : public CHTTPResponseParser {
    public:
        ~CParser() override;
        CHTTPPacket* CreatePacket() const override;
    };

    void AddHeader(const std::string& name, const std::string& value) override;
};

} // namespace Proxy
} // namespace ZRT
