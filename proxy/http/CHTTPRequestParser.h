#pragma once

#include "proxy/http/CHTTPParser.h"

namespace ZRT {
namespace Proxy {

// Builds CHTTPRequest messages.
class ZRT_EXPORT CHTTPRequestParser : public CHTTPParser {
public:
    CHTTPRequestParser();
    ~CHTTPRequestParser() override;

    CHTTPPacket* CreatePacket() const override;
};

} // namespace Proxy
} // namespace ZRT
