#pragma once

#include <string>

#include "proxy/http/CHTTPPacket.h"

namespace ZRT {
namespace Proxy {

// A request: the first line it is given is the request line, exactly three space-separated
// tokens; every later line is a header line.
class ZRT_EXPORT CHTTPRequest : public CHTTPPacket {
public:
    CHTTPRequest();
    ~CHTTPRequest() override;

    bool AddLine(const std::string& line) override;
    unsigned int FillSendBuffer(unsigned char* buffer, unsigned int size) const override;
    unsigned int CalcSendBufferSize() const override;

    // Public: the proxy handler rewrites them in place before forwarding.
    std::string m_method;
    std::string m_uri;
    std::string m_version;
};

} // namespace Proxy
} // namespace ZRT
