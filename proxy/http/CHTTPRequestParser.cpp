#include "proxy/http/CHTTPRequestParser.h"

#include "proxy/http/CHTTPRequest.h"

namespace ZRT {
namespace Proxy {

CHTTPRequestParser::CHTTPRequestParser() = default;

CHTTPRequestParser::~CHTTPRequestParser() = default;

CHTTPPacket* CHTTPRequestParser::CreatePacket() const
{
    return new CHTTPRequest();
}

} // namespace Proxy
} // namespace ZRT
