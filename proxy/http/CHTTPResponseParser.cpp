#include "proxy/http/CHTTPResponseParser.h"

#include "proxy/http/CHTTPResponse.h"

namespace ZRT {
namespace Proxy {

CHTTPResponseParser::CHTTPResponseParser() = default;

CHTTPResponseParser::~CHTTPResponseParser() = default;

CHTTPPacket* CHTTPResponseParser::CreatePacket() const
{
    return new CHTTPResponse();
}

} // namespace Proxy
} // namespace ZRT
