#pragma once

#include <string>

#include "proxy/http/CHTTPPacket.h"

namespace ZRT {
namespace Proxy {

// A request: the first line it is given is the request line (method SP target SP version, with
// exactly one SP between them: the method a token, the target without SP or control bytes, the
// version HTTP/1.0 or HTTP/1.1); every later line is a field line.
//
// Used on the connection's thread only.
class ZRT_EXPORT CHTTPRequest : public CHTTPPacket {
public:
    CHTTPRequest();
    ~CHTTPRequest() override;

    bool AddLine(const std::string& line) override;

    // Public: the proxy handler rewrites them in place before forwarding. The method is empty
    // until the request line has been taken.
    std::string m_method;
    std::string m_uri;
    std::string m_version;

protected:
    void AppendStartLine(std::string& head, const std::string& version) const override;

private:
    bool TakeRequestLine(const std::string& line);
};

} // namespace Proxy
} // namespace ZRT
