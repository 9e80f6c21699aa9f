#pragma once

#include <string>

#include "proxy/http/CHTTPPacket.h"

namespace ZRT {
namespace Proxy {

// A response: the first line it is given is the status line (HTTP/1.0 or HTTP/1.1, SP, a code
// from 100 to 599, SP, a reason phrase that may be empty and keeps its bytes; the SP before an
// empty reason may be missing); every later line is a field line.
//
// Used on the connection's thread only.
class ZRT_EXPORT CHTTPResponse : public CHTTPPacket {
public:
    CHTTPResponse();
    ~CHTTPResponse() override;

    bool AddLine(const std::string& line) override;
    // The code as a number; 0 until the status line has been taken.
    unsigned int GetStatusCode() const;

    // Public: the proxy handler rewrites the version in place before passing the response on.
    // The version is empty until the status line has been taken.
    std::string m_version;
    std::string m_statusCode;
    std::string m_reason;

protected:
    void AppendStartLine(std::string& head, const std::string& version) const override;

private:
    bool TakeStatusLine(const std::string& line);
};

} // namespace Proxy
} // namespace ZRT
