#include "proxy/httpproxy/CProxyHTTPResponse.h"

#include <strings.h>

namespace ZRT {
namespace Proxy {

namespace {
const char SET_COOKIE[] = "set-cookie";
} // namespace

CProxyHTTPResponse::CParser::~CParser() = default;

CHTTPPacket* CProxyHTTPResponse::CParser::CreatePacket() const
{
    return new CProxyHTTPResponse();
}

void CProxyHTTPResponse::AddHeader(const std::string& name, const std::string& value)
{
    if (strcasecmp(name.c_str(), SET_COOKIE) != 0) {
        CHTTPPacket::AddHeader(name, value);
        return;
    }
    const auto addPiece = [&](const std::string& piece) {
        if (!piece.empty())
            CHTTPPacket::AddHeader(name, piece);
    };
    const std::string::size_type length = value.size();
    std::string::size_type start = 0;
    std::string::size_type pos = 0;
    for (;;) {
        const std::string::size_type comma = value.find(',', pos);
        if (comma == std::string::npos || comma == length - 1) {
            addPiece(value.substr(start));
            return;
        }
        pos = comma + 1;
        if (value[pos] == ' ')
            continue;
        addPiece(value.substr(start, comma - start));
        start = pos;
    }
}

} // namespace Proxy
} // namespace ZRT
