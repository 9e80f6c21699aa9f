#pragma once

#include "proxy/http/CHTTPParser.h"

namespace ZRT {
namespace Proxy {

// Builds CHTTPRequest messages; empty lines before a request line are skipped, as a client may
// end a body with an extra CRLF. Used on the connection's thread only.
class ZRT_EXPORT CHTTPRequestParser : public CHTTPParser {
public:
    CHTTPRequestParser();
    ~CHTTPRequestParser() override;

    CHTTPPacket* CreatePacket() const override;

protected:
    bool SkipsEmptyLinesBeforeStartLine() const override { return true; }
};

} // namespace Proxy
} // namespace ZRT
