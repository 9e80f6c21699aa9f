#pragma once

#include <string>

#include "proxy/http/CHTTPPacket.h"

namespace ZRT {
namespace Proxy {

// A response: the first line it is given is the status line (version, code, optional reason
// phrase that keeps its inner and trailing spaces); every later line is a header line.
class ZRT_EXPORT CHTTPResponse : public CHTTPPacket {
public:
    CHTTPResponse();
    ~CHTTPResponse() override;

    bool AddLine(const std::string& line) override;
    unsigned int FillSendBuffer(unsigned char* buffer, unsigned int size) const override;
    unsigned int CalcSendBufferSize() const override;

    // Public: the proxy handler rewrites the version in place before passing the response on.
    std::string m_version;
    std::string m_statusCode;
    std::string m_reason;
};

} // namespace Proxy
} // namespace ZRT
