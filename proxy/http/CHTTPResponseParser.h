#pragma once

#include "proxy/http/CHTTPParser.h"

namespace ZRT {
namespace Proxy {

// Builds CHTTPResponse messages.
class ZRT_EXPORT CHTTPResponseParser : public CHTTPParser {
public:
    CHTTPResponseParser();
    ~CHTTPResponseParser() override;

    CHTTPPacket* CreatePacket() const override;
};

} // namespace Proxy
} // namespace ZRT
