#pragma once

#include "proxy/http/CHTTPParser.h"

namespace ZRT {
namespace Proxy {

// Builds CHTTPResponse messages; an empty line before the status line is refused. Used on the
// connection's thread only.
class ZRT_EXPORT CHTTPResponseParser : public CHTTPParser {
public:
    CHTTPResponseParser();
    ~CHTTPResponseParser() override;

    CHTTPPacket* CreatePacket() const override;
};

} // namespace Proxy
} // namespace ZRT
