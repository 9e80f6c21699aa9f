#pragma once

#include "proxy/core/IConnectionProtocol.h"
#include "proxy/core/IProxyConnection.h"
#include "runtime/Export.h"

namespace ZRT {
namespace Proxy {

// Picks the protocol handler for a new client from the first byte it sent: 5 (the SOCKS
// version 5 greeting) gives the SOCKS5 handler, 4 (a SOCKS4 or 4A request) the SOCKS4 handler,
// anything else the HTTP proxy handler.
// A process-wide singleton without state; CreateProtocol is called from many threads.
class ZRT_EXPORT CConnectionProtocolFactory {
public:
    static CConnectionProtocolFactory* GetInstance();

    // A new handler owned by the caller, or null for an empty first chunk.
    IConnectionProtocol* CreateProtocol(IProxyConnection& connection, const char* data, int length);

private:
    CConnectionProtocolFactory() = default;
};

} // namespace Proxy
} // namespace ZRT
